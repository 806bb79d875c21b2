#include "processing/EncoderController.h"

#include "core/MDB_Utility.h"
#include "core/Resources.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "media/MDI_Media.h"
#include "media/TextScanner.h"
#include "metadata/MDB_Metadata.h"
#include "metadata/TagNames.h"
#include "presets/MDB_Devices.h"
#include "processing/ITunesFolder.h"
#include "processing/JobText.h"
#include "processing/MuxerController.h"
#include "processing/OutputFile.h"

#include <QFile>
#include <QFileInfo>
#include <QMetaObject>

namespace {

const char kConversionError[] =
    "An error has occurred during the conversion. The movie is not able to be processed. The "
    "movie file has been placed in the output folder.";
const char kPartialRemoved[] =
    "It appears that only %.0f%% of the movie has been converted. There may be an problem with "
    "the source media. The movie was unable to be fully processed and was removed.";
const char kPartialTagged[] =
    "It appears that only %.0f%% of the movie has been converted. There may be an problem with "
    "the source media. The movie has been tagged, but no further processing was performed. The "
    "movie file has been placed in the output folder.";
const char kMuxingError[] =
    "An error has occurred during the muxing. The movie is not able to be processed.";

// What is kept of the encoder's log of a pass, to name the cause of a failure.
constexpr qsizetype kErrorLogTail = 16 * 1024;

bool wantsSDPass(const MDI_Media& movie) {
    return movie.createHDSD() && !movie.createdSD();
}

} // namespace

EncoderController::EncoderController(QObject* parent)
    : JobDisplay(parent), m_muxController(std::make_unique<MuxerController>()) {
    m_muxController->setInformationController(nullptr, this);
}

EncoderController::~EncoderController() {
    // The muxer reports to us; it must not outlive our vtable.
    m_muxController.reset();
    // A pass still at work, or stopped and not yet ended, is killed with its
    // runner; its half-written file must not stay behind.
    QString unfinished = m_stoppedOutput;
    if (m_shellWrapper && !m_shellWrapper->isFinished() && m_curMovie)
        unfinished = m_curMovie->outPath();
    m_shellWrapper.reset();
    if (!unfinished.isEmpty())
        QFile::remove(unfinished);
}

QString EncoderController::encoderName() {
    return QStringLiteral("Tarnwick_Pro_Encoder");
}

void EncoderController::setInformationController(InformationPanel* panel) {
    m_informationController = panel;
    m_muxController->setInformationController(panel, this);
}

bool EncoderController::startMovieEncoding(std::shared_ptr<MDI_Media> movie) {
    if (!movie)
        return false;
    m_isScanning = movie->searchForeign();
    const std::shared_ptr<MediaItemList> list = EncodeList::instance();
    setCountField(QString::asprintf("[%d of %lu]", 1, list ? ulong(list->size()) : 0UL));
    return encodeMovie(std::move(movie));
}

bool EncoderController::encodeMovie(std::shared_ptr<MDI_Media> movie) {
    if (!movie)
        return false;
    const QString tool = Resources::auxiliaryExecutable(encoderName());
    // A stopped pass's file goes before a new name is claimed.
    releaseRunner();
    m_errorLog.clear();
    m_curMovie = movie;
    movie->setStatus(9);
    // Each movie of a run decides for itself whether it starts with a scan.
    m_isScanning = movie->searchForeign();
    QString path = movie->outPath();

    QString preset;
    if (movie->createHDSD() && !movie->createdHD()) {
        if (!path.contains(QLatin1String("(HD).m4v")))
            path.replace(QLatin1String(".m4v"), QLatin1String("(HD).m4v"));
        movie->setOutPath(path);
        preset = movie->primaryDevice();
    } else if (movie->createHDSD() && !movie->createdSD()) {
        path.replace(QLatin1String("(HD).m4v"), QLatin1String(".m4v"));
        movie->setOutPath(path);
        preset = movie->secondaryDevice();
    } else if (!movie->createHDSD()) {
        preset = movie->primaryDevice();
    }

    const Title* title = movie->getMainTitle();
    const QString size = title ? title->size() : QString();
    const bool outputHD = MDB_Utility::isHD(size) && MDB_Devices::isHD(preset);
    m_passThru = movie->canPassthru() && movie->passthruVideo();
    movie->setOutputHD(outputHD);
    movie->setTag(outputHD
                      ? (MDB_Utility::is1080p(size) ? QStringLiteral("2") : QStringLiteral("1"))
                      : QStringLiteral("0"),
                  QLatin1String(TagName::HDVideo));

    refreshInformation(movie.get());
    reportStatusUpdate();

    setThumbnail(movie->metaData() ? movie->metaData()->artwork() : MDB_Image());
    setTitleField(movie->name());
    setHdsdField(outputHD ? (movie->createHDSD() ? QStringLiteral("HD-SD") : QStringLiteral("HD"))
                          : QStringLiteral("SD"));
    setProgressIndicator(0);
    setTimeField(QStringLiteral("(Starting...)"));
    setStatusField(transcodingText(*movie));
    setProgressViewVisible(true);

    if (!QFileInfo(tool).isExecutable())
        return false;

    // Never over another file: a taken name gets a number, and the name is
    // claimed before the encoder writes into it.
    const bool hdPass = movie->createHDSD() && !movie->createdHD();
    path = OutputFile::claim(path, hdPass);
    movie->setOutPath(path);

    const QStringList args = movie->getCmdArgs(preset, m_passThru, tool, path);
    m_shellWrapper = std::make_unique<AMShellWrapper>(this, QStringLiteral("./"), args);
    m_shellWrapper->setOutputStringEncoding(AMShellWrapper::ASCIIStringEncoding);
    m_shellWrapper->startProcess();
    // A pause given between two passes holds for the next one too.
    if (m_isSuspended) {
        m_shellWrapper->suspendProcess();
        setStatusField(QStringLiteral("(Paused)"));
    }

    setTimeField(m_isScanning ? QStringLiteral("(Scanning...)")
                              : QStringLiteral("(Estimating...)"));
    return true;
}

void EncoderController::releaseRunner() {
    // Destroying a runner kills a child that still runs and sends nothing,
    // so a stopped pass is cleaned up here instead of in processFinished.
    m_shellWrapper.reset();
    if (m_isStopEncoding) {
        m_isStopEncoding = false;
        if (!m_stoppedOutput.isEmpty())
            QFile::remove(m_stoppedOutput);
        m_stoppedOutput.clear();
    }
}

void EncoderController::stopEncoding() {
    if (m_curMovie && m_muxController->isMuxing()) {
        m_muxController->stopMuxing();
        // The encoded file is gone with the muxer's temporary copy, so the
        // movie has to be converted again.
        if (m_curMovie->status() == 13)
            m_curMovie->setStatus(8);
        setProgressViewVisible(false);
    } else {
        const bool running = m_shellWrapper && !m_shellWrapper->isFinished();
        if (running) {
            m_isStopEncoding = true;
            // A second stop while the tool is still ending keeps the first's file.
            if (m_curMovie)
                m_stoppedOutput = m_curMovie->outPath();
            m_shellWrapper->stopProcess();
            // A suspended tool only sees the stop once it runs again.
            if (m_isSuspended)
                m_shellWrapper->resumeProcess();
        }
        if (m_curMovie && m_curMovie->status() == 9)
            m_curMovie->setStatus(8);
        if (m_curMovie)
            refreshInformation(m_curMovie.get());
        // With a tool running, the view goes when it has ended.
        if (!running)
            setProgressViewVisible(false);
    }
    m_isSuspended = false;
    m_isEncoding = false;
    m_curMovie.reset();
    ++m_runGeneration;
}

void EncoderController::suspendProcess() {
    if (!m_curMovie)
        return;
    m_isSuspended = true;
    if (m_muxController->isMuxing()) {
        m_muxController->suspendProcess();
        return;
    }
    if (m_shellWrapper)
        m_shellWrapper->suspendProcess();
    setStatusField(QStringLiteral("(Paused)"));
}

void EncoderController::resumeProcess() {
    if (!m_isSuspended)
        return;
    m_isSuspended = false;
    if (m_muxController->isMuxing()) {
        m_muxController->resumeProcess();
        return;
    }
    if (m_shellWrapper)
        m_shellWrapper->resumeProcess();
    if (m_curMovie)
        setStatusField(transcodingText(*m_curMovie));
}

QString EncoderController::transcodingText(const MDI_Media& movie) {
    if (movie.createHDSD() && !movie.createdHD())
        return QStringLiteral("(Transcoding HD)");
    if (movie.createHDSD() && !movie.createdSD())
        return QStringLiteral("(Transcoding SD)");
    return QStringLiteral("(Transcoding)");
}

void EncoderController::processStarted(AMShellWrapper* runner) {
    Q_UNUSED(runner);
    m_isEncoding = true;
    setTimeField(QStringLiteral("(Transcoder Started...)"));
}

void EncoderController::stdOutput(const QString& text) {
    TextScanner cursor(text);
    if (!cursor.scanString(QStringLiteral("Encoding: task")))
        return;
    qint64 task = 0;
    cursor.scanInteger(&task);
    cursor.scanString(QStringLiteral("of"));
    cursor.scanInteger(&task);
    cursor.scanString(QStringLiteral(","));

    QString number;
    if (!cursor.scanUpToString(QStringLiteral("%"), &number))
        return;
    TextScanner numberCursor(number);
    double percent = 0;
    JobText::scanDouble(numberCursor, &percent);
    setProgressIndicator(percent);
    if (m_isScanning && percent >= 100)
        setTimeField(QStringLiteral("(Estimating...)"));

    cursor.scanUpToString(QStringLiteral("ETA"));
    if (!cursor.scanString(QStringLiteral("ETA")))
        return;
    QString hours, minutes, seconds;
    if (!cursor.scanUpToString(QStringLiteral("h"), &hours) || !cursor.scanString("h") ||
        !cursor.scanUpToString(QStringLiteral("m"), &minutes) || !cursor.scanString("m") ||
        !cursor.scanUpToString(QStringLiteral("s"), &seconds) || !cursor.scanString("s"))
        return;
    setTimeField(QString::asprintf("(%02ldh %02ldm %02lds remaining)", hours.trimmed().toLong(),
                                   minutes.trimmed().toLong(), seconds.trimmed().toLong()));
}

void EncoderController::stdError(const QString& text) {
    if (!m_curMovie)
        return;
    m_errorLog += text;
    if (m_errorLog.size() > kErrorLogTail)
        m_errorLog.remove(0, m_errorLog.size() - kErrorLogTail);
    TextScanner cursor(text);
    // The tool stamps its log lines with the time, so the marker never
    // starts a chunk of its own.
    if (!cursor.scanUpToString(QStringLiteral("sync: got")) ||
        !cursor.scanString(QStringLiteral("sync: got")))
        return;
    qint64 received = 0;
    qint64 expected = 0;
    if (!cursor.scanInteger(&received) || !cursor.scanString(QStringLiteral("frames,")) ||
        !cursor.scanInteger(&expected))
        return;
    m_curMovie->setFrameCount(received);
    m_curMovie->setFrameTotal(expected);
}

bool EncoderController::tagOutput(MDI_Media& movie) {
    movie.setStatus(11);
    // A lookup that failed (rather than found nothing) leaves no match to
    // write: the file keeps the tags the encoder gave it, with track names.
    if (!movie.lookupError().isEmpty())
        movie.adoptFileTags();
    movie.writeMetadataToFile(false, true);
    // A movie whose tags did not reach the file is not done; the warning the
    // write left says why.
    if (!movie.tagWriteError().isEmpty()) {
        movie.setStatus(0);
        return false;
    }
    movie.setStatus(12);
    return true;
}

void EncoderController::moveToITunes(MDI_Media& movie) {
    const QString folder = ITunesFolder::addFolder();
    if (folder.isEmpty())
        return;
    movie.setStatus(15);
    setStatusField(QStringLiteral("(Moving to iTunes)"));
    movie.setStatus(ITunesFolder::moveInto(movie.outPath(), folder) ? 16 : 12);
}

void EncoderController::processFinished(AMShellWrapper* runner, int status) {
    Q_UNUSED(runner);
    if (m_isStopEncoding) {
        m_isStopEncoding = false;
        if (!m_stoppedOutput.isEmpty())
            QFile::remove(m_stoppedOutput);
        m_stoppedOutput.clear();
        endRun();
        return;
    }
    const std::shared_ptr<MDI_Media> movie = m_curMovie;
    if (!movie) {
        endRun();
        return;
    }

    const float received = float(movie->frameCount());
    const float expected = float(movie->frameTotal());
    bool complete = false;
    if (status == 0) {
        complete = expected != 0 && double(received / expected) > 0.995;
        movie->setStatus(10);
        setProgressIndicator(0);
        setTimeField(QStringLiteral("(Transcoding Complete)"));
        if (complete) {
            setStatusField(QStringLiteral("(Tagging)"));
            if (!tagOutput(*movie)) {
                reportStatusUpdate();
                startNextMovie();
                return;
            }
            if (m_passThru) {
                // The muxer job carries the movie on and reports back.
                m_isEncoding = false;
                if (!m_muxController->muxMovie(movie))
                    muxStatusError();
                return;
            }
            if (UserDefaults::standard().boolForKey(QLatin1String(SettingsKey::AddITunes)))
                moveToITunes(*movie);
            if (movie->createHDSD()) {
                if (!movie->createdHD())
                    movie->setCreatedHD(true);
                else if (!movie->createdSD())
                    movie->setCreatedSD(true);
            }
        } else {
            // The tiny stand-by video of a pass-through encode is of no use.
            if (m_passThru)
                QFile::remove(movie->outPath());
            else
                tagOutput(*movie);
            setStatusField(QStringLiteral("(Invalid)"));
        }
    }

    if (complete) {
        if (wantsSDPass(*movie)) {
            // The run goes on with the SD pass, so it is not reported as ended.
            scheduleEncode(movie);
            return;
        }
        movie->setStatus(19);
        reportStatusUpdate();
    } else {
        movie->setStatus(0);
        const float percent = expected > 0 ? received / expected * 100.0f : 0.0f;
        QString warnings =
            status != 0
                ? QString::fromLatin1(kConversionError)
                : QString::asprintf(m_passThru ? kPartialRemoved : kPartialTagged, double(percent));
        if (status != 0 || !m_passThru)
            warnings += unfinishedOutput(*movie, status);
        movie->setWarnings(warnings);
        reportStatusUpdate();
    }
    startNextMovie();
}

QString EncoderController::unfinishedOutput(MDI_Media& movie, int status) {
    const QString out = movie.outPath();
    QString text;
    const QString cause =
        status != 0 ? OutputFile::failureCause(out, status, m_errorLog) : QString();
    if (!cause.isEmpty())
        text += QLatin1Char(' ') + cause;
    // An unfinished file never stays under the name of a finished movie.
    const QString kept = OutputFile::keepIfPlayable(out);
    if (kept.isEmpty()) {
        text += QStringLiteral(" The unfinished file could not be played and was removed.");
    } else if (kept != out) {
        movie.setOutPath(kept);
        text += QStringLiteral(" The unfinished file was kept as \"%1\".")
                    .arg(QFileInfo(kept).fileName());
    }
    return text;
}

void EncoderController::muxStatusError() {
    if (m_curMovie) {
        m_curMovie->setStatus(0);
        m_curMovie->setWarnings(QString::fromLatin1(kMuxingError));
    }
    reportStatusUpdate();
    startNextMovie();
}

void EncoderController::muxStatusComplete() {
    if (m_curMovie) {
        if (wantsSDPass(*m_curMovie)) {
            scheduleEncode(m_curMovie);
            return;
        }
        m_curMovie->setStatus(19);
    }
    reportStatusUpdate();
    startNextMovie();
}

void EncoderController::startNextMovie() {
    const std::shared_ptr<MediaItemList> list = EncodeList::instance();
    if (list) {
        for (qsizetype i = 0; i < list->size(); ++i) {
            const std::shared_ptr<MDI_Media>& next = list->at(i);
            if (next && next->status() == 8) {
                scheduleEncode(next);
                setCountField(QString::asprintf("[%lu of %ld]", ulong(i + 1), long(list->size())));
                return;
            }
        }
    }
    m_curMovie.reset();
    endRun();
}

void EncoderController::endRun() {
    m_isEncoding = false;
    m_isSuspended = false;
    setProgressViewVisible(false);
    reportEncodeComplete();
}

void EncoderController::scheduleEncode(std::shared_ptr<MDI_Media> movie) {
    const quint64 generation = m_runGeneration;
    QMetaObject::invokeMethod(
        this,
        [this, movie, generation] {
            if (generation != m_runGeneration)
                return;
            if (encodeMovie(movie))
                return;
            // Without the tool the movie cannot be converted; go on with the rest.
            movie->setStatus(0);
            movie->setWarnings(QString::fromLatin1(kConversionError));
            reportStatusUpdate();
            startNextMovie();
        },
        Qt::QueuedConnection);
}

void EncoderController::refreshInformation(MDI_Media* movie) {
    if (!m_informationController || m_informationController->shownMovie() != movie)
        return;
    InformationPanel* panel = m_informationController;
    QMetaObject::invokeMethod(
        this,
        [this, panel, movie] {
            if (m_informationController == panel && panel->shownMovie() == movie)
                panel->refreshView(movie);
        },
        Qt::QueuedConnection);
}

void EncoderController::reportStatusUpdate() {
    if (m_statusDelegate)
        m_statusDelegate->statusUpdate();
}

void EncoderController::reportEncodeComplete() {
    if (m_encoderDelegate)
        m_encoderDelegate->encodeComplete();
}

void EncoderController::setHdsdField(const QString& text) {
    if (text == m_hdsdField)
        return;
    m_hdsdField = text;
    emit hdsdFieldChanged(text);
}

void EncoderController::setThumbnail(const MDB_Image& image) {
    if (image == m_thumbnail)
        return;
    m_thumbnail = image;
    emit thumbnailChanged(image);
}
