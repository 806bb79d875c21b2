#include "media/MDI_Utility.h"

#include "media/MDI_Media.h"
#include "media/TextScanner.h"

namespace {

const QString kDvdMarker = QStringLiteral("libdvdnav: DVD disk reports");
const QString kBlurayMarker = QStringLiteral("scan: BD has");
const QString kNoTitle = QStringLiteral("No title found.");
const QString kTitle = QStringLiteral("+ title");
const QString kStream = QStringLiteral("+ stream:");
const QString kCodec = QStringLiteral("+ codec:");
const QString kDuration = QStringLiteral("+ duration:");
const QString kSize = QStringLiteral("+ size:");
const QString kPixelAspect = QStringLiteral("pixel aspect:");
const QString kDisplayAspect = QStringLiteral("display aspect:");
const QString kAudioTracks = QStringLiteral("+ audio tracks:");
const QString kSubtitleTracks = QStringLiteral("+ subtitle tracks:");
const QString kExited = QStringLiteral("HandBrake has exited.");
const QString kCombing = QStringLiteral("+ combing detected, may be interlaced or telecined");
const QString kNewline = QStringLiteral("\n");
const QString kComma = QStringLiteral(",");
const QString kCommaBlank = QStringLiteral(", ");
const QString kPlusBlank = QStringLiteral("+ ");
const QString kOpen = QStringLiteral("(");
const QString kClose = QStringLiteral(")");
const QString kCloseBlank = QStringLiteral(") ");
const QString kColon = QStringLiteral(":");
const QString kIso = QStringLiteral("(iso639-");
const QString kFPS = QStringLiteral("FPS");

using Skip = TextScanner::Skip;

// A field that cannot be read stays empty.
QString upTo(TextScanner& scanner, const QString& stop) {
    QString text;
    scanner.scanUpToString(stop, &text);
    return text;
}

void readVideo(TextScanner& scanner, Title& title) {
    const qsizetype remembered = scanner.scanLocation();
    const QString head = upTo(scanner, kCodec);
    if (head.contains(kStream)) {
        scanner.setScanLocation(remembered);
        scanner.scanUpToString(kStream);
        scanner.scanString(kStream);
        title.setStream(upTo(scanner, kNewline));
        title.setIsStreaming(true);
        scanner.scanUpToString(kCodec);
    }

    scanner.scanString(kCodec);
    title.setCodec(upTo(scanner, kNewline));

    scanner.scanUpToString(kDuration);
    scanner.scanString(kDuration);
    title.setDuration(upTo(scanner, kNewline));

    scanner.scanUpToString(kSize);
    scanner.scanString(kSize);
    title.setSize(upTo(scanner, kComma));
    scanner.scanUpToString(kPixelAspect);
    scanner.scanString(kPixelAspect);
    title.setPixelAspect(upTo(scanner, kCommaBlank));
    scanner.scanUpToString(kDisplayAspect);
    scanner.scanString(kDisplayAspect);
    title.setDisplayAspect(upTo(scanner, kCommaBlank));
    scanner.scanUpToString(kCommaBlank);
    scanner.scanString(kCommaBlank);
    title.setFPS(upTo(scanner, kFPS));
}

std::unique_ptr<AudioTrack> readAudioLine(TextScanner& scanner) {
    auto track = std::make_unique<AudioTrack>();
    qint64 number = 0;
    scanner.scanString(kPlusBlank);
    scanner.scanInteger(&number);
    track->setOrigIndex(number);
    scanner.scanString(kCommaBlank);

    track->setName(upTo(scanner, kOpen).trimmed());
    scanner.scanString(kOpen);
    track->setCodec(upTo(scanner, kClose).trimmed());
    scanner.scanString(kCloseBlank);

    scanner.scanUpToString(kOpen);
    scanner.scanString(kOpen);
    track->setChannels(upTo(scanner, kClose).trimmed());

    scanner.scanUpToString(kOpen);
    scanner.scanString(kOpen);
    track->setIsoType(upTo(scanner, kColon));
    scanner.advance(2);
    track->setIsoName(upTo(scanner, kClose));
    scanner.advance(1);

    scanner.setCharactersToBeSkipped(Skip::Blanks);
    if (scanner.scanString(kNewline)) {
        // Into the next line's indentation; the tool always indents track lines.
        scanner.advance(2);
        track->setFreq(QString(QLatin1String("")));
        track->setBps(QString(QLatin1String("")));
    } else {
        scanner.advance(1);
        track->setFreq(upTo(scanner, kComma));
        scanner.advance(1);
        track->setBps(upTo(scanner, kNewline));
    }
    return track;
}

std::unique_ptr<SubtitleTrack> readSubtitleLine(TextScanner& scanner) {
    auto track = std::make_unique<SubtitleTrack>();
    qint64 number = 0;
    scanner.scanString(kPlusBlank);
    scanner.scanInteger(&number);
    track->setOrigIndex(number);
    scanner.scanString(kCommaBlank);

    track->setName(upTo(scanner, kIso).trimmed());
    scanner.advance(1);
    track->setIsoType(upTo(scanner, kColon));
    scanner.advance(2);
    track->setIsoName(upTo(scanner, kClose));
    scanner.advance(2);

    scanner.setCharactersToBeSkipped(Skip::Blanks);
    track->setType(upTo(scanner, kNewline));
    scanner.setCharactersToBeSkipped(Skip::BlanksAndNewlines);
    track->setBurn(false);
    return track;
}

} // namespace

const char* const MDI_Utility::kNoValidTitle =
    "No valid title was found!. Either the file is corrupt, unsupported, or contains no title "
    "tracks.";

bool MDI_Utility::isScanAtEnd(TextScanner& cursor, QString* text, bool* combing) {
    const qsizetype remembered = cursor.scanLocation();
    const bool exited = cursor.scanString(kExited);
    const bool combed = cursor.scanString(kCombing);
    const bool title = cursor.scanString(kTitle);
    if (combing)
        *combing = combed;
    if (text)
        *text = cursor.string().mid(remembered, cursor.scanLocation() - remembered);
    cursor.setScanLocation(remembered);
    return exited || combed || title;
}

bool MDI_Utility::decodeScanString(const QString& text, MDI_Media& movie) {
    TextScanner scanner(text);

    scanner.scanUpToString(kDvdMarker);
    qint32 sourceType = 2;
    if (scanner.isAtEnd()) {
        scanner.setScanLocation(0);
        scanner.scanUpToString(kBlurayMarker);
        sourceType = scanner.isAtEnd() ? 1 : 3;
    }
    movie.setSourceType(sourceType);

    scanner.setScanLocation(0);
    if (scanner.scanUpToString(kNoTitle) && !scanner.isAtEnd()) {
        movie.setStatus(0);
        movie.setWarnings(QString::fromLatin1(kNoValidTitle));
        return false;
    }

    scanner.setScanLocation(0);
    scanner.setCharactersToBeSkipped(Skip::BlanksAndNewlines);
    scanner.scanUpToString(kTitle);
    if (scanner.scanString(kTitle)) {
        // Where the last audio or subtitle line ended. A title block without an
        // audio header falls back to it, which can lead back to a title
        // already read; the header positions guard against reading it again.
        qsizetype sectionPosition = 0;
        qsizetype titleHeader = scanner.scanLocation();
        while (!scanner.isAtEnd()) {
            auto title = std::make_unique<Title>();
            qint64 id = 0;
            scanner.scanInteger(&id);
            title->setID(id);
            readVideo(scanner, *title);

            scanner.scanUpToString(kAudioTracks);
            if (!scanner.isAtEnd()) {
                scanner.scanString(kAudioTracks);
                sectionPosition = scanner.scanLocation();
                while (!scanner.scanString(kSubtitleTracks) && !scanner.isAtEnd()) {
                    const qsizetype lineStart = scanner.scanLocation();
                    title->addAudioTrack(readAudioLine(scanner));
                    sectionPosition = scanner.scanLocation();
                    scanner.setCharactersToBeSkipped(Skip::BlanksAndNewlines);
                    if (scanner.scanLocation() <= lineStart)
                        break;
                }
                scanner.setCharactersToBeSkipped(Skip::BlanksAndNewlines);
                title->arrangeAudioTracks();
            }

            scanner.setScanLocation(sectionPosition);
            scanner.setCharactersToBeSkipped(Skip::BlanksAndNewlines);
            if (scanner.scanString(kSubtitleTracks) && !scanner.isAtEnd()) {
                bool combing = false;
                while (!isScanAtEnd(scanner, nullptr, &combing) && !scanner.isAtEnd()) {
                    const qsizetype lineStart = scanner.scanLocation();
                    title->addSubtitleTrack(readSubtitleLine(scanner));
                    sectionPosition = scanner.scanLocation();
                    if (sectionPosition <= lineStart)
                        break;
                }
                title->arrangeSubtitleTracks();
                title->setCombing(combing);
            }

            movie.AddTitle(std::move(title));

            if (!scanner.scanString(kTitle) || scanner.scanLocation() <= titleHeader)
                break;
            titleHeader = scanner.scanLocation();
        }
    }

    if (const Title* main = movie.getMainTitle(); main && main->combing()) {
        movie.setDecomb(true);
        movie.setDetelecine(true);
    }
    return true;
}
