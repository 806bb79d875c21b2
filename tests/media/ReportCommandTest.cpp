#include "TestSupport.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

struct Result {
    int status = -1;
    QString out;
    QString err;
};

const QString kTool = QStringLiteral(TARNWICK_BINARY_DIR "/bin/Tarnwick_Pro_Encoder");

QString report(const QString& name) {
    return testsupport::dataPath(QStringLiteral("scan-reports/") + name);
}

class ReportCommandTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dir.isValid()); }

    Result cli(const QStringList& args) {
        QProcess p;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("TARNWICK_SETTINGS"),
                   dir.filePath(QStringLiteral("store.plist")));
        env.insert(QStringLiteral("TARNWICK_LIBEXEC"), QStringLiteral(TARNWICK_BINARY_DIR "/bin"));
        p.setProcessEnvironment(env);
        p.setWorkingDirectory(dir.path());
        p.start(QStringLiteral(TARNWICK_BINARY_DIR "/bin/tarnwick-cli"), args);
        EXPECT_TRUE(p.waitForFinished(30000));
        return {p.exitCode(), QString::fromUtf8(p.readAllStandardOutput()),
                QString::fromUtf8(p.readAllStandardError())};
    }

    QJsonObject json(const QStringList& args, int expectedStatus = 0) {
        const Result r =
            cli(QStringList{QStringLiteral("report"), QStringLiteral("--json")} + args);
        EXPECT_EQ(r.status, expectedStatus) << r.err.toStdString();
        QJsonParseError error;
        const QJsonDocument doc = QJsonDocument::fromJson(r.out.toUtf8(), &error);
        EXPECT_EQ(error.error, QJsonParseError::NoError) << r.out.toStdString();
        // The report's one item.
        return doc.object().value(QStringLiteral("items")).toArray().at(0).toObject();
    }

    static QStringList strings(const QJsonValue& value) {
        QStringList list;
        for (const QJsonValue& v : value.toArray())
            list << v.toString();
        return list;
    }

    QTemporaryDir dir;
};

TEST_F(ReportCommandTest, WorkedExampleShowsTitlesMainTitleAndCommandLine) {
    const Result r = cli({QStringLiteral("report"), report(QStringLiteral("worked-example.txt"))});
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    EXPECT_TRUE(r.out.contains(QStringLiteral("Source: DVD (2)")));
    EXPECT_TRUE(r.out.contains(QStringLiteral("Titles: 2")));
    EXPECT_TRUE(r.out.contains(QStringLiteral("Main title: 1\n")));
    EXPECT_TRUE(r.out.contains(QStringLiteral("Title 2: 00:02:10 (130 s)")));
    EXPECT_TRUE(
        r.out.contains(QStringLiteral("Espanol (iso639-2: spa) (Bitmap)(VOBSUB) [included]")));
    const QString source = report(QStringLiteral("worked-example"));
    const QString output = QDir(dir.path()).filePath(QStringLiteral("Worked-example.m4v"));
    EXPECT_TRUE(r.out.contains(QStringLiteral("Command line: %1 --input %2 --output %3 --title 1 ")
                                   .arg(kTool, source, output)))
        << r.out.toStdString();
}

TEST_F(ReportCommandTest, FileReportUsesItsStreamAndTheChosenPresetAndOutput) {
    const QJsonObject o = json({report(QStringLiteral("file-mkv.txt")), QStringLiteral("--preset"),
                                QStringLiteral("SD 480p"), QStringLiteral("--output"),
                                QStringLiteral("/out/film.m4v")});
    EXPECT_EQ(o.value(QStringLiteral("source")).toObject().value("sourceType").toString(),
              "video file");
    const QJsonObject title = o.value(QStringLiteral("titles")).toArray().at(0).toObject();
    EXPECT_EQ(title.value(QStringLiteral("stream")).toString(),
              QStringLiteral("/tmp/samples/Movie.mkv"));
    const QStringList line = strings(o.value(QStringLiteral("command")));
    ASSERT_GE(line.size(), 7);
    EXPECT_EQ(line.mid(1, 4),
              (QStringList{"--input", "/tmp/samples/Movie.mkv", "--output", "/out/film.m4v"}));
    // Another preset gives another video part.
    const QJsonObject hd = json({report(QStringLiteral("file-mkv.txt"))});
    EXPECT_NE(strings(hd.value(QStringLiteral("command"))).mid(7), line.mid(7));
    EXPECT_EQ(strings(hd.value(QStringLiteral("command"))).at(4),
              QDir(dir.path()).filePath(QStringLiteral("Movie.m4v")));
}

TEST_F(ReportCommandTest, DecombSettingFlipsTheScansVerdict) {
    QJsonObject o = json({report(QStringLiteral("combing.txt"))});
    EXPECT_TRUE(o.value(QStringLiteral("filters")).toObject().value("decomb").toBool());
    EXPECT_TRUE(strings(o.value(QStringLiteral("command"))).contains(QStringLiteral("-5")));

    ASSERT_EQ(cli({QStringLiteral("settings"), QStringLiteral("set"), QStringLiteral("Decomb"),
                   QStringLiteral("yes")})
                  .status,
              0);
    o = json({report(QStringLiteral("combing.txt"))});
    EXPECT_FALSE(o.value(QStringLiteral("filters")).toObject().value("decomb").toBool());
    EXPECT_TRUE(o.value(QStringLiteral("filters")).toObject().value("detelecine").toBool());
    EXPECT_FALSE(strings(o.value(QStringLiteral("command"))).contains(QStringLiteral("-5")));
}

TEST_F(ReportCommandTest, NoTitleReportFailsWithTheWarning) {
    const QJsonObject o = json({report(QStringLiteral("no-title.txt"))}, 1);
    EXPECT_EQ(o.value(QStringLiteral("status")).toInt(), 0);
    EXPECT_TRUE(o.value(QStringLiteral("titles")).toArray().isEmpty());
    EXPECT_TRUE(o.value(QStringLiteral("command")).toArray().isEmpty());

    const Result r = cli({QStringLiteral("report"), report(QStringLiteral("no-title.txt"))});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.err.contains(QStringLiteral("No valid title was found!.")));
}

TEST_F(ReportCommandTest, BadInputGivesOneLineAndTheRightStatus) {
    struct Case {
        QStringList args;
        int status;
    };
    const QList<Case> cases{
        {{"report", "--bogus", report("dvd.txt")}, 2},
        {{"report", report("dvd.txt"), "--preset"}, 2},
        {{"report", report("dvd.txt"), report("bluray.txt")}, 2},
        {{"report", dir.path()}, 1},
        {{"report", report("dvd.txt"), "--preset", "No Such Preset"}, 1},
    };
    for (const Case& c : cases) {
        const Result r = cli(c.args);
        EXPECT_EQ(r.status, c.status) << c.args.join(' ').toStdString();
        EXPECT_EQ(r.err.trimmed().count(QLatin1Char('\n')), 0) << r.err.toStdString();
        EXPECT_FALSE(r.err.isEmpty()) << c.args.join(' ').toStdString();
        if (c.status == 1) {
            EXPECT_TRUE(r.out.isEmpty()) << r.out.toStdString();
        }
    }
}

} // namespace
