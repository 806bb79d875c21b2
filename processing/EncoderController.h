#pragma once

#include "core/AMShellWrapper.h"
#include "core/MDB_Image.h"
#include "processing/JobDelegates.h"
#include "processing/JobDisplay.h"

#include <memory>

class MDI_Media;
class MuxerController;

// The encoder job: runs Tarnwick_Pro_Encoder for one queued movie at a time,
// shows its progress, judges from the tool's frame counts whether the pass is
// complete, tags the file, hands pass-through movies to the muxer job or moves
// the file into the iTunes folder, runs the SD pass of a movie that wants both
// an HD and an SD file, and then starts the next ready movie of the encode
// list.
class EncoderController : public JobDisplay,
                          public AMShellWrapperController,
                          public StatusDelegate {
    Q_OBJECT
    Q_PROPERTY(QString hdsdField READ hdsdField NOTIFY hdsdFieldChanged)
    Q_PROPERTY(MDB_Image thumbnail READ thumbnail NOTIFY thumbnailChanged)
public:
    explicit EncoderController(QObject* parent = nullptr);
    ~EncoderController() override;

    static QString encoderName();

    // None of these is owned.
    void setInformationController(InformationPanel* panel);
    void setStatusDelegate(StatusDelegate* delegate) { m_statusDelegate = delegate; }
    void setEncoderDelegate(EncoderDelegate* delegate) { m_encoderDelegate = delegate; }
    MuxerController* muxController() const { return m_muxController.get(); }

    // Starts a run with `movie` as the first of the encode list's movies.
    bool startMovieEncoding(std::shared_ptr<MDI_Media> movie);
    // One pass of one movie. False when there is no movie or the encoder tool
    // is missing (the movie is then left in status 9).
    bool encodeMovie(std::shared_ptr<MDI_Media> movie);
    // Ends the run: the movie being converted goes back to the queue and its
    // unfinished output is removed; no further movie is started.
    void stopEncoding();
    void suspendProcess();
    void resumeProcess();
    bool isEncoding() const { return m_isEncoding; }
    bool isScanning() const { return m_isScanning; }
    const std::shared_ptr<MDI_Media>& curMovie() const { return m_curMovie; }

    const QString& hdsdField() const { return m_hdsdField; }
    const MDB_Image& thumbnail() const { return m_thumbnail; }

    // Process runner callbacks.
    void processStarted(AMShellWrapper* runner) override;
    // Progress: "Encoding: task 1 of 1, 45.23 % (... ETA 00h12m34s)".
    void stdOutput(const QString& text) override;
    // Frame counts: "[time] sync: got 9950 frames, 10000 expected".
    void stdError(const QString& text) override;
    void processFinished(AMShellWrapper* runner, int status) override;

    // Muxer job results.
    void muxStatusError() override;
    void muxStatusComplete() override;

    void reportStatusUpdate();
    void reportEncodeComplete();

signals:
    void hdsdFieldChanged(const QString& text);
    void thumbnailChanged(const MDB_Image& image);

private:
    void setHdsdField(const QString& text);
    void setThumbnail(const MDB_Image& image);
    // "(Transcoding HD)", "(Transcoding SD)" or "(Transcoding)" for the pass
    // the movie is in.
    static QString transcodingText(const MDI_Media& movie);
    bool tagOutput(MDI_Media& movie);
    void moveToITunes(MDI_Media& movie);
    // Starts the next ready movie, or ends the run when none is left.
    void startNextMovie();
    void endRun();
    void scheduleEncode(std::shared_ptr<MDI_Media> movie);
    void refreshInformation(MDI_Media* movie);
    void releaseRunner();
    // The end of the warning of a failed or partial pass: the cause, and
    // what became of the file (kept as "(incomplete)" when it plays).
    QString unfinishedOutput(MDI_Media& movie, int status);

    std::unique_ptr<AMShellWrapper> m_shellWrapper;
    std::shared_ptr<MDI_Media> m_curMovie;
    std::unique_ptr<MuxerController> m_muxController;
    InformationPanel* m_informationController = nullptr;
    StatusDelegate* m_statusDelegate = nullptr;
    EncoderDelegate* m_encoderDelegate = nullptr;
    bool m_isEncoding = false;
    bool m_isStopEncoding = false;
    bool m_isScanning = false;
    bool m_isSuspended = false;
    // The pass's pass-through choice, kept so the end of the pass treats the
    // file the way it was made.
    bool m_passThru = false;
    // Output of a stopped pass, removed once the tool has let go of it.
    QString m_stoppedOutput;
    // The tail of the encoder's log of the current pass.
    QString m_errorLog;
    // Bumped by a stop so that passes scheduled before it do not start.
    quint64 m_runGeneration = 0;
    QString m_hdsdField;
    MDB_Image m_thumbnail;
};
