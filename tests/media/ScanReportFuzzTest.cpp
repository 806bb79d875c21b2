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

class ScanReportFuzzTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        UserDefaults& defaults = UserDefaults::standard();
        defaults.reopen(dir.filePath(QStringLiteral("Tarnwick.plist")));
        defaults.setObject(QStringLiteral("en-US"), QLatin1String(SettingsKey::LanguageRegion));
        defaults.setObject(true, QLatin1String(SettingsKey::OnlyNative));
        const QDir data(testsupport::dataPath(QStringLiteral("scan-reports")));
        for (const QString& name : data.entryList({QStringLiteral("*.txt")}, QDir::Files)) {
            QFile file(data.filePath(name));
            if (file.open(QIODevice::ReadOnly))
                reports.append({name, QString::fromLatin1(file.readAll())});
        }
        ASSERT_GE(reports.size(), 5) << "scan report fixtures missing";
    }
    void TearDown() override { UserDefaults::standard().reopen(); }

    // Parses one variant and checks what any parse must leave behind.
    void parse(const QString& text, const QString& what) {
        SCOPED_TRACE(what.toStdString());
        MDI_Movie movie;
        QElapsedTimer timer;
        timer.start();
        const bool ok = MDI_Utility::decodeScanString(text, movie);
        ASSERT_LT(timer.elapsed(), 1000);
        ASSERT_GE(movie.sourceType(), 1);
        ASSERT_LE(movie.sourceType(), 3);
        ASSERT_EQ(movie.status(), ok ? 2 : 0);
        // Every title comes from its own header: none is read twice.
        ASSERT_LE(qsizetype(movie.getTitles().size()), text.count(QStringLiteral("+ title")));
        ASSERT_EQ(movie.getMainTitle() != nullptr, !movie.getTitles().empty());
        movie.autoFindMainTitle();
        movie.determineMainTitle();
        for (const auto& title : movie.getTitles())
            (void)title->getDuration();
    }

    QTemporaryDir dir;
    QList<std::pair<QString, QString>> reports; // name, text
};

TEST_F(ScanReportFuzzTest, TruncatedReportsEnd) {
    for (const auto& [name, text] : reports) {
        for (qsizetype length = 0; length <= text.size(); ++length) {
            parse(text.left(length), QStringLiteral("%1 cut at %2").arg(name).arg(length));
            if (HasFatalFailure())
                return;
        }
    }
}

TEST_F(ScanReportFuzzTest, EditedLinesAndFlippedCharactersEnd) {
    // Mostly the characters the grammar turns on, so flips hit the structure.
    const QString alphabet = QStringLiteral("\n\n  ()(:,,+.x0123456789-aZ\t\r\x01\x7f");
    std::mt19937 random(20261123);
    const auto below = [&](qsizetype n) { return n > 0 ? qsizetype(random() % quint32(n)) : 0; };
    for (const auto& [name, text] : reports) {
        const QStringList lines = text.split(QLatin1Char('\n'));
        for (int round = 0; round < 600 && !text.isEmpty(); ++round) {
            QStringList edited = lines;
            for (int e = 1 + int(random() % 6); e > 0 && !edited.isEmpty(); --e) {
                const qsizetype at = below(edited.size());
                const auto op = random() % 3;
                if (op == 0)
                    edited.removeAt(at);
                else if (op == 1)
                    edited.insert(at, edited.at(at));
                else
                    edited.move(at, below(edited.size()));
            }
            parse(edited.join(QLatin1Char('\n')),
                  QStringLiteral("%1 lines %2").arg(name).arg(round));
            QString flipped = text;
            for (int f = 1 + int(random() % 12); f > 0; --f)
                flipped[below(flipped.size())] = random() % 4 == 0
                                                     ? QChar(ushort(random() % 256))
                                                     : alphabet.at(below(alphabet.size()));
            parse(flipped, QStringLiteral("%1 flips %2").arg(name).arg(round));
            if (HasFatalFailure())
                return;
        }
    }
}

} // namespace
