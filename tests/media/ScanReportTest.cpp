#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "media/MDI_Movie.h"
#include "media/MDI_Utility.h"
#include "media/TextScanner.h"

#include "MediaTestSupport.h"
#include "TestSupport.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

QString readReport(const QString& name) {
    QFile file(testsupport::dataPath(QStringLiteral("scan-reports/") + name));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromLatin1(file.readAll());
}

using ScanReportTest = mediatest::SettingsTest;

TEST_F(ScanReportTest, WorkedExampleReadsBothTitlesWithEveryField) {
    const QString report = readReport(QStringLiteral("worked-example.txt"));
    ASSERT_FALSE(report.isEmpty());
    MDI_Movie movie;
    ASSERT_TRUE(MDI_Utility::decodeScanString(report, movie));

    EXPECT_EQ(movie.sourceType(), 2);
    EXPECT_EQ(movie.status(), 2);
    ASSERT_EQ(movie.getTitles().size(), 2u);

    const Title& one = *movie.getTitles()[0];
    EXPECT_EQ(one.ID(), 1);
    EXPECT_FALSE(one.isStreaming());
    EXPECT_TRUE(one.stream().isNull());
    EXPECT_EQ(one.codec(), QStringLiteral("mpeg2"));
    EXPECT_EQ(one.duration(), QStringLiteral("01:39:04"));
    EXPECT_EQ(one.getDuration(), 5944);
    EXPECT_EQ(one.size(), QStringLiteral("720x480"));
    EXPECT_EQ(one.pixelAspect(), QStringLiteral("32/27"));
    EXPECT_EQ(one.displayAspect(), QStringLiteral("1.78"));
    EXPECT_EQ(one.FPS(), QStringLiteral("23.976 "));
    EXPECT_FALSE(one.combing());

    ASSERT_EQ(one.numberAudioTracks(), 2);
    const AudioTrack& english = *one.audioTrack(0);
    EXPECT_EQ(english.origIndex(), 1);
    EXPECT_EQ(english.name(), QStringLiteral("English"));
    EXPECT_EQ(english.codec(), QStringLiteral("AC3"));
    EXPECT_EQ(english.channels(), QStringLiteral("5.1 ch"));
    EXPECT_EQ(english.isoType(), QStringLiteral("iso639-2"));
    EXPECT_EQ(english.isoName(), QStringLiteral("eng"));
    EXPECT_EQ(english.freq(), QStringLiteral("48000Hz"));
    EXPECT_EQ(english.bps(), QStringLiteral("448000bps"));
    EXPECT_TRUE(english.include());
    EXPECT_TRUE(english.native());
    const AudioTrack& french = *one.audioTrack(1);
    EXPECT_EQ(french.origIndex(), 2);
    EXPECT_EQ(french.name(), QStringLiteral("Francais"));
    EXPECT_EQ(french.channels(), QStringLiteral("2.0 ch"));
    EXPECT_EQ(french.isoName(), QStringLiteral("fra"));
    EXPECT_EQ(french.freq(), QStringLiteral("48000Hz"));
    EXPECT_EQ(french.bps(), QStringLiteral("192000bps"));
    EXPECT_TRUE(french.include());
    EXPECT_FALSE(french.native());

    ASSERT_EQ(one.numberSubtitleTracks(), 2);
    const SubtitleTrack& englishSub = *one.subtitleTrack(0);
    EXPECT_EQ(englishSub.origIndex(), 1);
    EXPECT_EQ(englishSub.name(), QStringLiteral("English"));
    EXPECT_EQ(englishSub.isoType(), QStringLiteral("iso639-2"));
    EXPECT_EQ(englishSub.isoName(), QStringLiteral("eng"));
    EXPECT_EQ(englishSub.type(), QStringLiteral("(Bitmap)(VOBSUB)"));
    EXPECT_TRUE(englishSub.include());
    EXPECT_FALSE(englishSub.burn());
    const SubtitleTrack& spanish = *one.subtitleTrack(1);
    EXPECT_EQ(spanish.origIndex(), 2);
    EXPECT_EQ(spanish.name(), QStringLiteral("Espanol"));
    EXPECT_EQ(spanish.isoName(), QStringLiteral("spa"));
    EXPECT_TRUE(spanish.include());

    const Title& two = *movie.getTitles()[1];
    EXPECT_EQ(two.ID(), 2);
    EXPECT_EQ(two.duration(), QStringLiteral("00:02:10"));
    EXPECT_EQ(two.pixelAspect(), QStringLiteral("8/9"));
    EXPECT_EQ(two.displayAspect(), QStringLiteral("1.33"));
    EXPECT_EQ(two.FPS(), QStringLiteral("29.970 "));
    ASSERT_EQ(two.numberAudioTracks(), 1);
    EXPECT_EQ(two.audioTrack(0)->channels(), QStringLiteral("2.0 ch"));
    EXPECT_EQ(two.audioTrack(0)->freq(), QString());
    EXPECT_EQ(two.audioTrack(0)->bps(), QString());
    EXPECT_EQ(two.numberSubtitleTracks(), 0);
    EXPECT_TRUE(two.combing());

    // The main title is still the first one at parse time, and it is not combed.
    EXPECT_FALSE(movie.decomb());
    EXPECT_FALSE(movie.detelecine());
}

TEST_F(ScanReportTest, FileSourceCarriesItsStreamPath) {
    MDI_Movie movie;
    ASSERT_TRUE(MDI_Utility::decodeScanString(readReport(QStringLiteral("file-mkv.txt")), movie));
    // The report mentions libdvdnav failing, but not the DVD marker itself.
    EXPECT_EQ(movie.sourceType(), 1);
    ASSERT_EQ(movie.getTitles().size(), 1u);
    const Title& title = *movie.getTitles()[0];
    EXPECT_TRUE(title.isStreaming());
    EXPECT_EQ(title.stream(), QStringLiteral("/tmp/samples/Movie.mkv"));
    EXPECT_EQ(title.codec(), QStringLiteral("h264"));
    EXPECT_EQ(title.size(), QStringLiteral("640x360"));
    EXPECT_EQ(title.FPS(), QStringLiteral("25 "));
    ASSERT_EQ(title.numberAudioTracks(), 2);
    EXPECT_EQ(title.audioTrack(0)->freq(), QStringLiteral("44100Hz"));
    EXPECT_EQ(title.audioTrack(1)->codec(), QStringLiteral("AAC"));
    EXPECT_EQ(title.audioTrack(1)->freq(), QString());
    ASSERT_EQ(title.numberSubtitleTracks(), 2);
    EXPECT_EQ(title.subtitleTrack(0)->type(), QStringLiteral("(Text)(UTF-8)"));
    EXPECT_EQ(title.subtitleTrackType(0), QStringLiteral("Text"));
    EXPECT_EQ(title.subtitleTrack(1)->type(), QStringLiteral("(Text)(SSA)"));
    EXPECT_EQ(title.subtitleTrack(1)->isoName(), QStringLiteral("fra"));
}

TEST_F(ScanReportTest, DvdFolderReportsBothTitles) {
    MDI_Movie movie;
    ASSERT_TRUE(MDI_Utility::decodeScanString(readReport(QStringLiteral("dvd.txt")), movie));
    EXPECT_EQ(movie.sourceType(), 2);
    ASSERT_EQ(movie.getTitles().size(), 2u);
    const Title& one = *movie.getTitles()[0];
    EXPECT_FALSE(one.isStreaming());
    EXPECT_EQ(one.displayAspect(), QStringLiteral("1.78"));
    ASSERT_EQ(one.numberSubtitleTracks(), 1);
    EXPECT_EQ(one.subtitleTrackType(0), QStringLiteral("Bitmap"));

    // A French and a German track for an English user: only the first is forced in.
    const Title& two = *movie.getTitles()[1];
    EXPECT_EQ(audioOrder(two), (QList<qint64>{1, 2}));
    EXPECT_EQ(two.audioTrack(1)->isoName(), QStringLiteral("deu"));
    EXPECT_EQ(two.numberSubtitleTracks(), 0);
    EXPECT_FALSE(two.combing());
    EXPECT_FALSE(movie.decomb());
}

TEST_F(ScanReportTest, NoTitleVerdictFailsTheItem) {
    MDI_Movie movie;
    EXPECT_FALSE(MDI_Utility::decodeScanString(readReport(QStringLiteral("no-title.txt")), movie));
    EXPECT_EQ(movie.status(), 0);
    EXPECT_FALSE(movie.isValid());
    EXPECT_EQ(movie.warnings(),
              QStringLiteral("No valid title was found!. Either the file is corrupt, "
                             "unsupported, or contains no title tracks."));
    EXPECT_TRUE(movie.getTitles().empty());

    // Only a phrase with something before it is the tool's verdict.
    MDI_Movie first;
    EXPECT_TRUE(MDI_Utility::decodeScanString(QStringLiteral("No title found.\n"), first));
    EXPECT_EQ(first.status(), 2);
}

TEST_F(ScanReportTest, CombedMainTitleSwitchesTheFiltersOn) {
    MDI_Movie movie;
    ASSERT_TRUE(MDI_Utility::decodeScanString(readReport(QStringLiteral("combing.txt")), movie));
    ASSERT_EQ(movie.getTitles().size(), 1u);
    const Title& title = *movie.getTitles()[0];
    EXPECT_TRUE(title.combing());
    EXPECT_TRUE(title.isStreaming());
    EXPECT_EQ(title.audioTrack(0)->isoName(), QStringLiteral("und"));
    EXPECT_TRUE(title.audioTrack(0)->include());
    EXPECT_TRUE(movie.decomb());
    EXPECT_TRUE(movie.detelecine());
}

TEST_F(ScanReportTest, BlurayTracksFollowTheLanguageSettings) {
    MDI_Movie movie;
    ASSERT_TRUE(MDI_Utility::decodeScanString(readReport(QStringLiteral("bluray.txt")), movie));
    EXPECT_EQ(movie.sourceType(), 3);
    ASSERT_EQ(movie.getTitles().size(), 2u);
    const Title& one = *movie.getTitles()[0];
    EXPECT_EQ(one.size(), QStringLiteral("1920x1080"));
    EXPECT_EQ(audioOrder(one), (QList<qint64>{1, 3, 2}));
    EXPECT_EQ(subtitleOrder(one), (QList<qint64>{2, 1}));
    EXPECT_EQ(one.audioTrack(0)->channels(), QStringLiteral("7.1 ch"));
    EXPECT_EQ(one.subtitleTrack(0)->type(), QStringLiteral("(Bitmap)(PGS)"));

    set(SettingsKey::OnlyNative, true);
    set(SettingsKey::DefaultNative, false);
    MDI_Movie native;
    ASSERT_TRUE(MDI_Utility::decodeScanString(readReport(QStringLiteral("bluray.txt")), native));
    const Title& kept = *native.getTitles()[0];
    EXPECT_EQ(audioOrder(kept), (QList<qint64>{1, 2, 3}));
    EXPECT_EQ(QList<bool>({kept.audioTrackIncluded(0), kept.audioTrackIncluded(1),
                           kept.audioTrackIncluded(2)}),
              (QList<bool>{true, false, true}));
    EXPECT_FALSE(kept.subtitleTrackIncluded(0));
    EXPECT_TRUE(kept.subtitleTrackIncluded(1));
}

TEST_F(ScanReportTest, ReportsWithoutTitlesOrWithOddEndings) {
    MDI_Movie empty;
    EXPECT_TRUE(MDI_Utility::decodeScanString(QString(), empty));
    EXPECT_EQ(empty.sourceType(), 1);
    EXPECT_TRUE(empty.getTitles().empty());
    EXPECT_EQ(empty.getMainTitle(), nullptr);

    MDI_Movie logOnly;
    EXPECT_TRUE(MDI_Utility::decodeScanString(
        QStringLiteral("[04:00:00] scan: BD has 0 title(s)\nHandBrake has exited.\n"), logOnly));
    EXPECT_EQ(logOnly.sourceType(), 3);
    EXPECT_TRUE(logOnly.getTitles().empty());

    // Titles after a combed title are not read: the combing line stops the report.
    QString report = readReport(QStringLiteral("combing.txt"));
    report.replace(QStringLiteral("HandBrake has exited."),
                   QStringLiteral("+ title 2:\n  + codec: h264\n  + duration: 02:00:00\n"
                                  "HandBrake has exited."));
    MDI_Movie combed;
    ASSERT_TRUE(MDI_Utility::decodeScanString(report, combed));
    EXPECT_EQ(combed.getTitles().size(), 1u);
}

TEST_F(ScanReportTest, MalformedBlocksEndAndKeepWhatWasRead) {
    // The last title lacks its audio header: the parser falls back to the
    // previous title's section and must not read a title twice.
    const QString noAudio = QStringLiteral(
        "+ title 1:\n  + codec: mpeg2\n  + duration: 00:10:00\n"
        "  + size: 720x480, pixel aspect: 1/1, display aspect: 1.50, 25 FPS\n"
        "  + audio tracks:\n    + 1, English (AC3) (2.0 ch) (iso639-2: eng), 48000Hz, 192000bps\n"
        "  + subtitle tracks:\n    + 1, English (iso639-2: eng) (Text)(SSA)\n"
        "+ title 2:\n  + codec: mpeg2\n  + duration: 00:20:00\n"
        "  + size: 720x480, pixel aspect: 1/1, display aspect: 1.50, 25 FPS\n");
    MDI_Movie movie;
    ASSERT_TRUE(MDI_Utility::decodeScanString(noAudio, movie));
    ASSERT_EQ(movie.getTitles().size(), 2u);
    EXPECT_EQ(movie.getTitles()[0]->ID(), 1);
    EXPECT_EQ(movie.getTitles()[1]->ID(), 2);
    EXPECT_EQ(movie.getTitles()[1]->duration(), QStringLiteral("00:20:00"));
    EXPECT_EQ(movie.getTitles()[0]->numberSubtitleTracks(), 1);

    // An audio list never closed by a subtitle header.
    const QString openAudio = QStringLiteral(
        "+ title 3:\n  + codec: h264\n  + duration: 00:00:09\n"
        "  + size: 640x360, pixel aspect: 1/1, display aspect: 1.78, 25 FPS\n"
        "  + audio tracks:\n    + 1, English (AC3) (5.1 ch) (iso639-2: eng), 48000Hz, 448000bps\n"
        "    + 2, Francais (AAC) (2.0 ch) (iso639-2: fra)\n");
    MDI_Movie open;
    ASSERT_TRUE(MDI_Utility::decodeScanString(openAudio, open));
    ASSERT_EQ(open.getTitles().size(), 1u);
    EXPECT_EQ(open.getTitles()[0]->ID(), 3);
    ASSERT_GE(open.getTitles()[0]->numberAudioTracks(), 2);
    EXPECT_EQ(open.getTitles()[0]->audioTrackName(1), QStringLiteral("Francais"));
    EXPECT_EQ(open.getTitles()[0]->numberSubtitleTracks(), 0);

    // A subtitle list running to the end without any closing line.
    const QString openSubtitles =
        QStringLiteral("+ title 4:\n  + codec: h264\n  + duration: 00:00:09\n"
                       "  + size: 640x360, pixel aspect: 1/1, display aspect: 1.78, 25 FPS\n"
                       "  + audio tracks:\n  + subtitle tracks:\n"
                       "    + 1, English (iso639-2: eng) (Text)(UTF-8)\n"
                       "    + 2, Deutsch (iso639-2: deu) (Bitmap)(PGS)");
    MDI_Movie subs;
    ASSERT_TRUE(MDI_Utility::decodeScanString(openSubtitles, subs));
    ASSERT_EQ(subs.getTitles().size(), 1u);
    EXPECT_EQ(subs.getTitles()[0]->numberAudioTracks(), 0);
    ASSERT_EQ(subs.getTitles()[0]->numberSubtitleTracks(), 2);
    EXPECT_EQ(subs.getTitles()[0]->subtitleTrack(1)->type(), QStringLiteral("(Bitmap)(PGS)"));
    EXPECT_FALSE(subs.getTitles()[0]->combing());
}

TEST(TextScannerTest, ScanUpToFailsOnlyWhenNothingCanBeTaken) {
    TextScanner scanner(QStringLiteral("  abc, def\n  ghi"));
    QString into = QStringLiteral("untouched");
    EXPECT_TRUE(scanner.scanUpToString(QStringLiteral(","), &into));
    EXPECT_EQ(into, QStringLiteral("abc"));
    into = QStringLiteral("untouched");
    EXPECT_FALSE(scanner.scanUpToString(QStringLiteral(","), &into));
    EXPECT_EQ(into, QStringLiteral("untouched"));
    EXPECT_TRUE(scanner.scanString(QStringLiteral(",")));
    // A missing stop string takes the rest; leading newlines are skipped.
    EXPECT_TRUE(scanner.scanUpToString(QStringLiteral("zzz"), &into));
    EXPECT_EQ(into, QStringLiteral("def\n  ghi"));
    EXPECT_TRUE(scanner.isAtEnd());
    EXPECT_FALSE(scanner.scanUpToString(QStringLiteral("zzz"), &into));
}

TEST(TextScannerTest, SkipSetsDecideWhetherANewlineIsAToken) {
    TextScanner scanner(QStringLiteral("x  \n  + y"));
    ASSERT_TRUE(scanner.scanString(QStringLiteral("x")));
    const qsizetype afterX = scanner.scanLocation();
    EXPECT_TRUE(scanner.scanString(QStringLiteral("+ y")));
    scanner.setScanLocation(afterX);
    scanner.setCharactersToBeSkipped(TextScanner::Skip::Blanks);
    EXPECT_FALSE(scanner.scanString(QStringLiteral("+")));
    EXPECT_EQ(scanner.scanLocation(), afterX);
    EXPECT_TRUE(scanner.scanString(QStringLiteral("\n")));
    EXPECT_TRUE(scanner.scanString(QStringLiteral("+ y")));
    EXPECT_TRUE(scanner.isAtEnd());

    TextScanner trailing(QStringLiteral("value \n"));
    EXPECT_FALSE(trailing.isAtEnd());
    trailing.setCharactersToBeSkipped(TextScanner::Skip::Blanks);
    QString taken;
    EXPECT_TRUE(trailing.scanUpToString(QStringLiteral("\n"), &taken));
    EXPECT_EQ(taken, QStringLiteral("value "));
    EXPECT_FALSE(trailing.isAtEnd());
    trailing.setCharactersToBeSkipped(TextScanner::Skip::BlanksAndNewlines);
    EXPECT_TRUE(trailing.isAtEnd());
}

TEST(TextScannerTest, IntegersAndCursorMovesStayInsideTheText) {
    TextScanner scanner(QStringLiteral(" -42x +7 99999999999999999999999 -"));
    qint64 value = 0;
    EXPECT_TRUE(scanner.scanInteger(&value));
    EXPECT_EQ(value, -42);
    EXPECT_FALSE(scanner.scanInteger(&value));
    EXPECT_EQ(value, -42);
    scanner.advance(1);
    EXPECT_TRUE(scanner.scanInteger(&value));
    EXPECT_EQ(value, 7);
    EXPECT_TRUE(scanner.scanInteger(&value));
    EXPECT_EQ(value, std::numeric_limits<qint64>::max());
    const qsizetype beforeSign = scanner.scanLocation();
    EXPECT_FALSE(scanner.scanInteger(&value));
    EXPECT_EQ(scanner.scanLocation(), beforeSign);

    scanner.advance(1000);
    EXPECT_EQ(scanner.scanLocation(), scanner.string().size());
    EXPECT_TRUE(scanner.isAtEnd());
    EXPECT_FALSE(scanner.scanString(QStringLiteral("-")));
    scanner.setScanLocation(-5);
    EXPECT_EQ(scanner.scanLocation(), 0);
}

} // namespace
