// Truncated, shuffled and corrupted scan reports: every one must end quickly
// without a crash and leave a consistent item. Built a second time with the
// address and undefined-behaviour sanitizers (test_parser_asan).
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "media/MDI_Movie.h"
#include "media/MDI_Utility.h"

#include "TestSupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <random>

namespace {

constexpr qint64 kLimitMs = 1000;

struct Fixture {
    QString name;
    QString text;
};

QList<Fixture> fixtures() {
    QList<Fixture> list;
    const QDir dir(testsupport::dataPath(QStringLiteral("scan-reports")));
    for (const QString& name : dir.entryList({QStringLiteral("*.txt")}, QDir::Files, QDir::Name)) {
        QFile file(dir.filePath(name));
        if (file.open(QIODevice::ReadOnly))
            list.append({name, QString::fromLatin1(file.readAll())});
    }
    return list;
}

class ScanReportFuzzTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        UserDefaults::standard().reopen(dir.filePath(QStringLiteral("Tarnwick.plist")));
        const auto set = [](const char* key, const QVariant& value) {
            UserDefaults::standard().setObject(value, QLatin1String(key));
        };
        set(SettingsKey::LanguageRegion, QStringLiteral("en-US"));
        set(SettingsKey::OnlyNative, true);
        set(SettingsKey::DefaultNative, true);
        set(SettingsKey::TextSubtitles, false);
        set(SettingsKey::NoSubtitles, false);
        reports = fixtures();
        ASSERT_GE(reports.size(), 5) << "scan report fixtures missing";
    }
    void TearDown() override { UserDefaults::standard().reopen(); }

    // Parses one variant and checks what any parse must leave behind.
    void parse(const QString& text, const QString& what) {
        MDI_Movie movie;
        QElapsedTimer timer;
        timer.start();
        const bool ok = MDI_Utility::decodeScanString(text, movie);
        const qint64 elapsed = timer.elapsed();
        ++parsed;
        ASSERT_LT(elapsed, kLimitMs) << what.toStdString();
        ASSERT_GE(movie.sourceType(), 1) << what.toStdString();
        ASSERT_LE(movie.sourceType(), 3) << what.toStdString();
        if (!ok) {
            ASSERT_EQ(movie.status(), 0) << what.toStdString();
            ASSERT_TRUE(movie.getTitles().empty()) << what.toStdString();
            return;
        }
        ASSERT_EQ(movie.status(), 2) << what.toStdString();
        // Every title comes from its own header: none is read twice.
        const qsizetype headers = text.count(QStringLiteral("+ title"));
        ASSERT_LE(qsizetype(movie.getTitles().size()), headers) << what.toStdString();
        ASSERT_EQ(movie.getMainTitle() != nullptr, !movie.getTitles().empty())
            << what.toStdString();
        movie.autoFindMainTitle();
        movie.determineMainTitle();
        for (const auto& title : movie.getTitles()) {
            // Touch every field the rest of the program reads.
            (void)title->getDuration();
            for (const auto& track : title->audioTracks())
                ASSERT_LE(track->name().size(), text.size()) << what.toStdString();
            for (const auto& track : title->subtitleTracks())
                ASSERT_LE(track->type().size(), text.size()) << what.toStdString();
        }
    }

    QTemporaryDir dir;
    QList<Fixture> reports;
    int parsed = 0;
};

TEST_F(ScanReportFuzzTest, EveryTruncationEnds) {
    for (const Fixture& fixture : reports) {
        for (qsizetype length = 0; length <= fixture.text.size(); ++length) {
            parse(fixture.text.left(length),
                  QStringLiteral("%1 cut at %2").arg(fixture.name).arg(length));
            if (HasFatalFailure())
                return;
        }
    }
    EXPECT_GT(parsed, 10000);
}

TEST_F(ScanReportFuzzTest, DeletedAndRepeatedLinesEnd) {
    std::mt19937 random(20261123);
    for (const Fixture& fixture : reports) {
        const QStringList lines = fixture.text.split(QLatin1Char('\n'));
        for (int round = 0; round < 600; ++round) {
            QStringList variant = lines;
            const int edits = 1 + int(random() % 6);
            for (int e = 0; e < edits && !variant.isEmpty(); ++e) {
                const qsizetype at = qsizetype(random() % quint32(variant.size()));
                switch (random() % 3) {
                case 0:
                    variant.removeAt(at);
                    break;
                case 1:
                    variant.insert(at, variant.at(at));
                    break;
                default: // a line moved elsewhere
                    variant.move(at, qsizetype(random() % quint32(variant.size())));
                    break;
                }
            }
            parse(variant.join(QLatin1Char('\n')),
                  QStringLiteral("%1 line round %2").arg(fixture.name).arg(round));
            if (HasFatalFailure())
                return;
        }
    }
}

TEST_F(ScanReportFuzzTest, FlippedCharactersEnd) {
    // Mostly the characters the grammar turns on, so flips hit the structure.
    const QString alphabet = QStringLiteral("\n\n  ()(:,,+.x0123456789-aZ\t\r\x01\x7f");
    std::mt19937 random(4711);
    for (const Fixture& fixture : reports) {
        if (fixture.text.isEmpty())
            continue;
        for (int round = 0; round < 1500; ++round) {
            QString variant = fixture.text;
            const int flips = 1 + int(random() % 12);
            for (int f = 0; f < flips; ++f) {
                const qsizetype at = qsizetype(random() % quint32(variant.size()));
                variant[at] = random() % 4 == 0 ? QChar(ushort(random() % 256))
                                                : alphabet.at(random() % alphabet.size());
            }
            parse(variant, QStringLiteral("%1 flip round %2").arg(fixture.name).arg(round));
            if (HasFatalFailure())
                return;
        }
    }
}

TEST_F(ScanReportFuzzTest, SplicedReportsEnd) {
    std::mt19937 random(99);
    for (int round = 0; round < 1500; ++round) {
        const Fixture& a = reports.at(qsizetype(random() % quint32(reports.size())));
        const Fixture& b = reports.at(qsizetype(random() % quint32(reports.size())));
        const qsizetype cutA = a.text.isEmpty() ? 0 : qsizetype(random() % quint32(a.text.size()));
        const qsizetype cutB = b.text.isEmpty() ? 0 : qsizetype(random() % quint32(b.text.size()));
        parse(a.text.left(cutA) + b.text.mid(cutB),
              QStringLiteral("%1[..%2] + %3[%4..]").arg(a.name).arg(cutA).arg(b.name).arg(cutB));
        if (HasFatalFailure())
            return;
    }
}

TEST_F(ScanReportFuzzTest, TitlesWithoutAudioHeadersAreNotReadAgain) {
    // Every seventh block and the last one lack their audio header; the last
    // falls back to an earlier section position, from where the same titles
    // could be read over and over.
    QString report;
    for (int i = 1; i <= 200; ++i) {
        report += QStringLiteral("+ title %1:\n  + codec: mpeg2\n  + duration: 00:%2:00\n  + size: "
                                 "720x480, pixel aspect: 1/1, display aspect: 1.50, 25 FPS\n")
                      .arg(i)
                      .arg(i % 60, 2, 10, QLatin1Char('0'));
        if (i % 7 != 0 && i != 200)
            report += QStringLiteral("  + audio tracks:\n    + 1, English (AC3) (2.0 ch) "
                                     "(iso639-2: eng), 48000Hz, 192000bps\n");
        report += QStringLiteral("  + subtitle tracks:\n    + 1, English (iso639-2: eng) "
                                 "(Text)(SSA)\n");
    }
    MDI_Movie movie;
    QElapsedTimer timer;
    timer.start();
    ASSERT_TRUE(MDI_Utility::decodeScanString(report, movie));
    EXPECT_LT(timer.elapsed(), kLimitMs);
    // The well-formed titles before the first broken block are all there.
    ASSERT_GE(movie.getTitles().size(), 7u);
    EXPECT_LE(movie.getTitles().size(), 200u);
    QList<qint64> ids;
    for (const auto& title : movie.getTitles())
        ids << title->ID();
    for (qsizetype i = 0; i < 6; ++i)
        EXPECT_EQ(ids[i], i + 1);
    for (qsizetype i = 1; i < ids.size(); ++i)
        EXPECT_GT(ids[i], ids[i - 1]) << "title read twice";
}

} // namespace
