#pragma once

class MDI_Media;

// Receiver of the jobs' status reports. Every operation is optional: a
// receiver overrides only those it wants to hear about.
class StatusDelegate {
public:
    virtual ~StatusDelegate() = default;
    // A movie's status changed (the browsers redraw their icons).
    virtual void statusUpdate() {}
    // Sent by the muxer job when a mux ended, unless it was stopped.
    virtual void muxStatusError() {}
    virtual void muxStatusComplete() {}
};

// Receiver of the end of an encoder run (no ready movie left, or stopped).
class EncoderDelegate {
public:
    virtual ~EncoderDelegate() = default;
    virtual void encodeComplete() {}
};

// The movie information panel as the jobs see it: which movie it shows, and
// a request to redraw after that movie changed. The panel decides which of its
// tabs to refresh.
class InformationPanel {
public:
    virtual ~InformationPanel() = default;
    virtual const MDI_Media* shownMovie() const = 0;
    virtual void refreshView(MDI_Media* movie) = 0;
};
