#include "core/SettingsKeys.h"
#include "media/MDI_Movie.h"
#include "media/MDI_Utility.h"
#include "media/TextScanner.h"

#include "MediaTestSupport.h"
#include "TestSupport.h"

#include <QFile>

#include <gtest/gtest.h>

namespace {

QString readReport(const QString& name) {
    QFile file(testsupport::dataPath(QStringLiteral("scan-reports/") + name));
    return file.open(QIODevice::ReadOnly) ? QString::fromLatin1(file.readAll()) : QString();
}

template <typename... Parts> QString row(const Parts&... parts) {
    return QStringList{QString(parts)...}.join(u'|');
}

// One line per title and track, so a whole parse compares as a list of strings.
QStringList describe(const MDI_Movie& movie) {
    QStringList out{QStringLiteral("source %1 filters %2%3")
                        .arg(movie.sourceType())
                        .arg(int(movie.decomb()))
                        .arg(int(movie.detelecine()))};
    const auto in = [](bool on) { return on ? "in" : "out"; };
    for (const auto& t : movie.getTitles()) {
        out << row("title " + QString::number(t->ID()), t->isStreaming() ? t->stream() : "-",
                   t->codec(), t->duration(), t->size(), t->pixelAspect(), t->displayAspect(),
                   t->FPS(), t->combing() ? "combed" : "");
        for (const auto& a : t->audioTracks())
            out << row(" a" + QString::number(a->origIndex()), a->name(), a->codec(), a->channels(),
                       a->isoType() + u':' + a->isoName(), a->freq(), a->bps(), in(a->include()),
                       a->native() ? "native" : "");
        for (const auto& s : t->subtitleTracks())
            out << row(" s" + QString::number(s->origIndex()), s->name(),
                       s->isoType() + u':' + s->isoName(), s->type(), in(s->include()));
    }
    return out;
}

using ScanReportTest = mediatest::SettingsTest;

const QStringList combed{
    "source 1 filters 11",
    "title 1|/tmp/samples/Interlaced.mkv|mpeg2|00:00:05|720x480|1/1|1.50|29.970 |combed",
    " a1|Unknown|AC3|2.0 ch|iso639-2:und|44100Hz|192000bps|in|"};

TEST_F(ScanReportTest, ReportsReadIntoTitlesAndTracks) {
    const struct {
        const char* file;
        QStringList expected;
    } cases[] = {
        {"worked-example.txt",
         {"source 2 filters 00", "title 1|-|mpeg2|01:39:04|720x480|32/27|1.78|23.976 |",
          " a1|English|AC3|5.1 ch|iso639-2:eng|48000Hz|448000bps|in|native",
          " a2|Francais|AC3|2.0 ch|iso639-2:fra|48000Hz|192000bps|in|",
          " s1|English|iso639-2:eng|(Bitmap)(VOBSUB)|in",
          " s2|Espanol|iso639-2:spa|(Bitmap)(VOBSUB)|in",
          "title 2|-|mpeg2|00:02:10|720x480|8/9|1.33|29.970 |combed",
          " a1|English|AC3|2.0 ch|iso639-2:eng|||in|native"}},
        // The report mentions libdvdnav failing, but not the DVD marker itself.
        {"file-mkv.txt",
         {"source 1 filters 00",
          "title 1|/tmp/samples/Movie.mkv|h264|00:00:06|640x360|1/1|1.78|25 |",
          " a1|English|AC3|5.1 ch|iso639-2:eng|44100Hz|448000bps|in|native",
          " a2|Francais|AAC|2.0 ch|iso639-2:fra|||in|", " s1|English|iso639-2:eng|(Text)(UTF-8)|in",
          " s2|Francais|iso639-2:fra|(Text)(SSA)|in"}},
        // A combed main title switches both filters on.
        {"combing.txt", combed},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        MDI_Movie movie;
        ASSERT_TRUE(MDI_Utility::decodeScanString(readReport(QLatin1String(c.file)), movie));
        EXPECT_EQ(movie.status(), 2);
        EXPECT_EQ(describe(movie).join(u'\n').toStdString(), c.expected.join(u'\n').toStdString());
    }
}

TEST_F(ScanReportTest, BlurayTracksFollowTheLanguageSettings) {
    MDI_Movie movie;
    ASSERT_TRUE(MDI_Utility::decodeScanString(readReport(QStringLiteral("bluray.txt")), movie));
    EXPECT_EQ(movie.sourceType(), 3);
    EXPECT_EQ(audioOrder(*movie.getTitles()[0]), (QList<qint64>{1, 3, 2}));
    EXPECT_EQ(subtitleOrder(*movie.getTitles()[0]), (QList<qint64>{2, 1}));

    set(SettingsKey::OnlyNative, true);
    set(SettingsKey::DefaultNative, false);
    MDI_Movie native;
    ASSERT_TRUE(MDI_Utility::decodeScanString(readReport(QStringLiteral("bluray.txt")), native));
    const Title& kept = *native.getTitles()[0];
    EXPECT_EQ(audioOrder(kept), (QList<qint64>{1, 2, 3}));
    EXPECT_FALSE(kept.audioTrackIncluded(1));
    EXPECT_TRUE(kept.audioTrackIncluded(2));
    EXPECT_FALSE(kept.subtitleTrackIncluded(0));
}

TEST_F(ScanReportTest, NoTitleVerdictFailsTheItemOnlyWithTextBeforeIt) {
    MDI_Movie movie;
    EXPECT_FALSE(MDI_Utility::decodeScanString(readReport(QStringLiteral("no-title.txt")), movie));
    EXPECT_EQ(movie.status(), 0);
    EXPECT_EQ(movie.warnings(), QString::fromLatin1(MDI_Utility::kNoValidTitle));

    MDI_Movie first;
    EXPECT_TRUE(MDI_Utility::decodeScanString(QStringLiteral("No title found.\n"), first));
    EXPECT_EQ(first.status(), 2);
}

TEST_F(ScanReportTest, MalformedBlocksEndAndKeepWhatWasRead) {
    const QString size =
        QStringLiteral("  + size: 640x360, pixel aspect: 1/1, display aspect: 1.78, 25 FPS\n");
    const struct {
        const char* what;
        QString report;
        QStringList expected;
    } cases[] = {
        // The last title lacks its audio header: no title is read twice.
        {"no audio header",
         "+ title 1:\n  + codec: mpeg2\n  + duration: 00:10:00\n" + size +
             "  + audio tracks:\n    + 1, English (AC3) (2.0 ch) (iso639-2: eng)\n"
             "  + subtitle tracks:\n    + 1, English (iso639-2: eng) (Text)(SSA)\n"
             "+ title 2:\n  + codec: mpeg2\n  + duration: 00:20:00\n" +
             size,
         {"source 1 filters 00", "title 1|-|mpeg2|00:10:00|640x360|1/1|1.78|25 |",
          " a1|English|AC3|2.0 ch|iso639-2:eng|||in|native",
          " s1|English|iso639-2:eng|(Text)(SSA)|in",
          "title 2|-|mpeg2|00:20:00|640x360|1/1|1.78|25 |"}},
        // The combing line ends the report: later titles are not read.
        {"title after combing",
         readReport(QStringLiteral("combing.txt"))
             .replace(QStringLiteral("HandBrake has exited."),
                      QStringLiteral("+ title 2:\n  + codec: h264\nHandBrake has exited.")),
         combed},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        MDI_Movie movie;
        ASSERT_TRUE(MDI_Utility::decodeScanString(c.report, movie));
        EXPECT_EQ(describe(movie).join(u'\n').toStdString(), c.expected.join(u'\n').toStdString());
    }
}

TEST(TextScannerTest, ScanUpToFailsOnlyWhenNothingCanBeTaken) {
    TextScanner scanner(QStringLiteral("  abc, def\n  ghi"));
    QString into = QStringLiteral("untouched");
    EXPECT_FALSE(TextScanner(QStringLiteral("abc")).scanUpToString(QStringLiteral("a"), &into));
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

} // namespace
