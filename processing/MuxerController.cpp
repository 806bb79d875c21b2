#include "processing/MuxerController.h"

#include "core/Resources.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "media/MDI_Media.h"
#include "media/TextScanner.h"
#include "processing/ITunesFolder.h"
#include "processing/JobDelegates.h"
#include "processing/JobText.h"

#include <QFile>
#include <QFileInfo>
#include <QMetaObject>

MuxerController::MuxerController(QObject* parent) : JobDisplay(parent) {}

// A runner still going is killed (with no callback) by its destructor.
MuxerController::~MuxerController() = default;

QString MuxerController::muxerName() {
    return QStringLiteral("Tarnwick_Pro_Muxer");
}

QString MuxerController::temporaryPath(const QString& outPath) {
    QString temp = outPath;
    return temp.replace(QLatin1String(".m4v"), QLatin1String(".tmp.m4v"));
}

void MuxerController::setInformationController(InformationPanel* panel, StatusDelegate* delegate) {
    m_informationController = panel;
    m_statusDelegate = delegate;
}

bool MuxerController::muxMovie(std::shared_ptr<MDI_Media> movie) {
    if (!movie)
        return false;
    const QString tool = Resources::auxiliaryExecutable(muxerName());
    if (!QFileInfo(tool).isExecutable())
        return false;

    m_curMovie = std::move(movie);
    m_curMovie->setStatus(13);
    m_isStopMuxing = false;
    m_isSuspended = false;

    const QString out = m_curMovie->outPath();
    const QString temp = temporaryPath(out);
    const Title* title = m_curMovie->getMainTitle();
    const QString video = title && title->isStreaming() ? title->stream() : m_curMovie->inPath();

    // A failed move is left for the tool to report through its exit status.
    QFile::remove(temp);
    QFile::rename(out, temp);

    setTitleField(m_curMovie->name());
    setProgressIndicator(0);
    setStatusField(QStringLiteral("(Muxing)"));
    setProgressViewVisible(true);

    const QStringList args{tool, QStringLiteral("-dest"),  out,   QStringLiteral("-source"),
                           temp, QStringLiteral("-video"), video, QStringLiteral("-optimize")};
    m_shellWrapper.reset();
    m_shellWrapper = std::make_unique<AMShellWrapper>(this, QStringLiteral("./"), args);
    m_shellWrapper->setOutputStringEncoding(AMShellWrapper::ASCIIStringEncoding);
    m_shellWrapper->startProcess();
    return true;
}

void MuxerController::stopMuxing() {
    if (m_curMovie) {
        m_isStopMuxing = true;
        if (m_shellWrapper) {
            m_shellWrapper->stopProcess();
            // A suspended tool only sees the stop once it runs again.
            if (m_isSuspended)
                m_shellWrapper->resumeProcess();
        }
        m_isSuspended = false;
        refreshInformation();
    }
    m_isMuxing = false;
}

void MuxerController::suspendProcess() {
    if (m_shellWrapper) {
        m_shellWrapper->suspendProcess();
        m_isSuspended = true;
    }
    setStatusField(QStringLiteral("(Paused)"));
}

void MuxerController::resumeProcess() {
    if (m_shellWrapper)
        m_shellWrapper->resumeProcess();
    m_isSuspended = false;
    setStatusField(QStringLiteral("(Muxing)"));
}

void MuxerController::processStarted(AMShellWrapper* runner) {
    Q_UNUSED(runner);
    m_isMuxing = true;
    setTimeField(QStringLiteral("(Muxer Started...)"));
    setProgressAnimating(true);
}

void MuxerController::stdOutput(const QString& text) {
    Q_UNUSED(text);
}

void MuxerController::stdError(const QString& text) {
    TextScanner cursor(text);
    QString phase;
    if (!cursor.scanUpToString(QStringLiteral(":"), &phase) ||
        !cursor.scanString(QStringLiteral(":")))
        return;
    setStatusField(QStringLiteral("(%1)").arg(phase));
    double percent = 0;
    if (JobText::scanDouble(cursor, &percent)) {
        setProgressIndicator(percent);
        setTimeField(QString::asprintf("(%.0f%%)", percent));
    } else {
        setProgressIndicator(0);
        setTimeField(QStringLiteral("(Starting...)"));
    }
}

void MuxerController::processFinished(AMShellWrapper* runner, int status) {
    Q_UNUSED(runner);
    const std::shared_ptr<MDI_Media> movie = m_curMovie;
    const QString out = movie ? movie->outPath() : QString();
    bool success = false;
    if (status == 0 && movie) {
        movie->setStatus(14);
        setProgressIndicator(0);
        setTimeField(QStringLiteral("(Muxing Complete)"));
        if (UserDefaults::standard().boolForKey(QLatin1String(SettingsKey::AddITunes))) {
            const QString folder = ITunesFolder::addFolder();
            if (!folder.isEmpty()) {
                movie->setStatus(15);
                setStatusField(QStringLiteral("(Moving to iTunes)"));
                movie->setStatus(ITunesFolder::moveInto(out, folder) ? 16 : 14);
            }
        }
        if (movie->createHDSD()) {
            if (!movie->createdHD())
                movie->setCreatedHD(true);
            else if (!movie->createdSD())
                movie->setCreatedSD(true);
        }
        success = true;
    }

    if (!out.isEmpty())
        QFile::remove(temporaryPath(out));
    m_isMuxing = false;
    m_isSuspended = false;
    setProgressAnimating(false);
    setProgressViewVisible(false);

    if (m_isStopMuxing) {
        m_isStopMuxing = false;
        return;
    }
    m_curMovie.reset();
    if (m_statusDelegate) {
        if (success)
            m_statusDelegate->muxStatusComplete();
        else
            m_statusDelegate->muxStatusError();
    }
}

void MuxerController::refreshInformation() {
    if (!m_informationController || !m_curMovie ||
        m_informationController->shownMovie() != m_curMovie.get())
        return;
    // Deferred, so the panel never redraws in the middle of a stop.
    MDI_Media* movie = m_curMovie.get();
    InformationPanel* panel = m_informationController;
    QMetaObject::invokeMethod(
        this,
        [this, panel, movie] {
            if (m_informationController == panel && panel->shownMovie() == movie)
                panel->refreshView(movie);
        },
        Qt::QueuedConnection);
}
