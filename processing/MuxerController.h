#pragma once

#include "core/AMShellWrapper.h"
#include "processing/JobDisplay.h"

#include <memory>

class InformationPanel;
class MDI_Media;
class StatusDelegate;

// The muxer job: joins the encoder's output of a pass-through movie with the
// source's own video stream by running Tarnwick_Pro_Muxer, shows its
// progress, moves the result into the iTunes folder when asked to, and tells
// its status delegate (the encoder job) how it went.
class MuxerController : public JobDisplay, public AMShellWrapperController {
    Q_OBJECT
public:
    explicit MuxerController(QObject* parent = nullptr);
    ~MuxerController() override;

    static QString muxerName();
    // The name the encoder's output is moved to while the muxer reads it:
    // every ".m4v" of the path becomes ".tmp.m4v".
    static QString temporaryPath(const QString& outPath);

    // Neither is owned.
    void setInformationController(InformationPanel* panel, StatusDelegate* delegate);

    // True when the tool was started; false, with the movie untouched, when
    // there is no movie or the tool is missing.
    bool muxMovie(std::shared_ptr<MDI_Media> movie);
    // Stops the tool; no report follows. The current movie is kept.
    void stopMuxing();
    void suspendProcess();
    void resumeProcess();
    bool isMuxing() const { return m_isMuxing; }
    const std::shared_ptr<MDI_Media>& curMovie() const { return m_curMovie; }

    // Process runner callbacks.
    void processStarted(AMShellWrapper* runner) override;
    void stdOutput(const QString& text) override;
    // Progress: "<phase>: <percent>".
    void stdError(const QString& text) override;
    void processFinished(AMShellWrapper* runner, int status) override;

private:
    void refreshInformation();

    std::unique_ptr<AMShellWrapper> m_shellWrapper;
    std::shared_ptr<MDI_Media> m_curMovie;
    InformationPanel* m_informationController = nullptr;
    StatusDelegate* m_statusDelegate = nullptr;
    bool m_isStopMuxing = false;
    bool m_isMuxing = false;
    bool m_isSuspended = false;
};
