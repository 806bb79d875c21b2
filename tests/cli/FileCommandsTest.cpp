// `tarnwick-cli tags` and `tracks` on generated MP4 files, checked against
// AtomicParsley and ffprobe; files we must not touch stay as they were. (What
// other writers leave, the reader's own tests read.)

#include "retag/RetagTestSupport.h"

#include "CliJson.h"

#include <gtest/gtest.h>

namespace {

using testsupport::CliResult;
using testsupport::runCli;

// 2 s of H.264 with English stereo AAC, German 5.1 AAC and English text
// subtitles, the audio tracks named; made once per build tree.
QString trackedMovie() {
    return testsupport::cachedFile(
        TARNWICK_BINARY_DIR "/test-media/cli/tracks.m4v", [](const QString& out) {
            QTemporaryDir work;
            const QString srt = work.filePath("en.srt");
            if (!scantest::writeFile(srt, "1\n00:00:00,200 --> 00:00:01,500\nHello\n"))
                return false;
            QStringList inputs = {"-f", "lavfi", "-i", "testsrc2=size=320x180:rate=25"};
            for (const char* tone : {"440", "550"})
                inputs << "-f"
                       << "lavfi"
                       << "-i" << QStringLiteral("sine=frequency=%1").arg(tone);
            return testsupport::ffmpeg(
                inputs + QStringList{"-i", srt} +
                QString("-t 2 -map 0:v -map 1:a -map 2:a -map 3 -c:v libx264 -preset ultrafast "
                        "-pix_fmt yuv420p -c:a aac -ac:a:0 2 -ac:a:1 6 -c:s mov_text "
                        "-metadata:s:a:0 language=eng -metadata:s:a:1 language=ger "
                        "-metadata:s:s:0 language=eng -metadata:s:a:0 handler_name=Stereo "
                        "-metadata:s:a:1 handler_name=Surround -f mp4")
                    .split(u' ') +
                QStringList{out});
        });
}

class FileCommandsTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* tool : {"ffmpeg", "ffprobe", "AtomicParsley"}) {
            if (!testsupport::haveTool(tool))
                GTEST_SKIP() << tool << " is not installed";
        }
        ASSERT_TRUE(m_dir.isValid());
        const QString source = trackedMovie();
        ASSERT_FALSE(source.isEmpty());
        m_file = m_dir.filePath("Movie.m4v");
        ASSERT_TRUE(QFile::copy(source, m_file));
        QFile::setPermissions(m_file, QFile::ReadOwner | QFile::WriteOwner);
    }

    QString cover(QColor colour) {
        const QString path = m_dir.filePath("cover.png");
        EXPECT_TRUE(imagetest::solid(48, 72, colour).save(path));
        return path;
    }

    QTemporaryDir m_dir;
    QString m_file;
};

TEST_F(FileCommandsTest, TagsWeWriteAreWhatAtomicParsleyReads) {
    struct Tag {
        const char* name;
        const char* value;
        const char* atom; // where AtomicParsley shows it, if it does
    };
    const Tag written[] = {
        {"Name", "Harbour Lights", "©nam"},       {"Genre", "Comedy", "©gen"},
        {"Release Date", "1962-03-09", "©day"},   {"Description", "Two tugboat captains.", "desc"},
        {"Artist", "Leonard Ashby", "©ART"},      {"Media Kind", "Movie", "stik"},
        {"Cast", "Ada Byrne, Tom Keel", nullptr}, {"HD Video", "1", nullptr},
        {"Rating", "mpaa|PG|200|", nullptr},      {"TMDb ID", "100004", nullptr},
    };
    QStringList args = {"tags", m_file, "--artwork", cover(Qt::darkCyan), "--json"};
    for (const Tag& t : written)
        args << "--set" << QStringLiteral("%1=%2").arg(t.name, t.value);
    args.last() = "--set=" + args.last(); // the joined spelling too
    args.removeAt(args.size() - 2);
    const CliResult r = runCli(args);
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    const QJsonObject json = testsupport::expectCliJson(r.out, "tags", 0).value("tags").toObject();
    const QMap<QString, QString> atoms = retagtest::atomicParsleyTags(m_file);
    for (const Tag& t : written) {
        SCOPED_TRACE(t.name);
        EXPECT_EQ(json.value(t.name).toVariant().toString(), t.value);
        if (t.atom) {
            EXPECT_EQ(atoms.value(t.atom), t.value);
        }
    }
    EXPECT_TRUE(json.value("Artwork").toBool());
    EXPECT_TRUE(atoms.value("covr").contains("1 piece of artwork"))
        << atoms.value("covr").toStdString();

    // Plain text with the same values; then a delete and the cover's removal.
    CliResult text = runCli({"tags", m_file});
    EXPECT_EQ(text.status, 0);
    for (const char* line : {"Name: Harbour Lights\n", "Rating: mpaa|PG|200|\n", "Artwork: yes\n"})
        EXPECT_TRUE(text.out.contains(line)) << text.out.toStdString();
    text = runCli({"tags", m_file, "--delete", "Genre", "--remove-artwork"});
    EXPECT_EQ(text.status, 0) << text.err.toStdString();
    EXPECT_TRUE(text.out.contains("Artwork: no\n"));
    EXPECT_FALSE(text.out.contains("Genre:"));
    const QMap<QString, QString> after = retagtest::atomicParsleyTags(m_file);
    EXPECT_FALSE(after.contains("©gen"));
    EXPECT_FALSE(after.contains("covr"));
    EXPECT_EQ(after.value("©nam"), "Harbour Lights");
}

TEST_F(FileCommandsTest, TracksAreWhatFfprobeSees) {
    const CliResult r = runCli({"tracks", m_file, "--json"});
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    const QJsonArray tracks =
        testsupport::expectCliJson(r.out, "tracks", 0).value("tracks").toArray();
    const testsupport::RunResult probed =
        testsupport::run("ffprobe", {"-v", "error", "-show_streams", "-of", "json", m_file});
    const QJsonArray streams = QJsonDocument::fromJson(probed.out).object()["streams"].toArray();
    ASSERT_EQ(tracks.size(), 4) << r.out.toStdString();
    ASSERT_EQ(streams.size(), 4);
    for (qsizetype i = 0; i < tracks.size(); ++i) {
        const QJsonObject ours = tracks.at(i).toObject();
        const QJsonObject theirs = streams.at(i).toObject();
        SCOPED_TRACE(QJsonDocument(ours).toJson().toStdString());
        EXPECT_EQ(ours.value("id").toInt(), theirs.value("id").toString().toInt(nullptr, 16));
        EXPECT_EQ(ours.value("type").toString(), theirs.value("codec_type").toString());
        EXPECT_EQ(ours.value("language").toString(),
                  theirs.value("tags").toObject().value("language").toString());
        if (ours.value("type") == "audio") {
            const int channels = theirs.value("channels").toInt();
            EXPECT_EQ(ours.value("channels").toString(), channels == 6 ? "5.1" : "2.0");
        }
    }

    const CliResult text = runCli({"tracks", m_file});
    EXPECT_EQ(text.status, 0);
    EXPECT_TRUE(text.out.startsWith("ID   TYPE      LANGUAGE  CHANNELS  NAME\n"))
        << text.out.toStdString();
    EXPECT_TRUE(text.out.contains(QRegularExpression("\\n3 +audio +ger +5\\.1")))
        << text.out.toStdString();
}

TEST_F(FileCommandsTest, FilesThatCannotBeUsedAreLeftAsTheyWere) {
    // Not an MP4, an MP4 cut in half, a read-only MP4.
    const QString text = m_dir.filePath("notes.m4v");
    ASSERT_TRUE(scantest::writeFile(text, QByteArray(4096, 'x')));
    const QString cut = m_dir.filePath("cut.m4v");
    QFile whole(m_file);
    ASSERT_TRUE(whole.open(QIODevice::ReadOnly));
    ASSERT_TRUE(scantest::writeFile(cut, whole.readAll().left(whole.size() / 2)));
    const QString locked = m_dir.filePath("locked.m4v");
    ASSERT_TRUE(QFile::copy(m_file, locked));
    QFile::setPermissions(locked, QFile::ReadOwner | QFile::ReadGroup | QFile::ReadOther);

    struct Case {
        QString file;
        QStringList args;
        const char* says;
    };
    const QList<Case> cases = {
        {text, {"tags"}, "not an MP4 file"},
        {text, {"tracks"}, "not an MP4 file"},
        {cut, {"tags", "--set", "Name=X"}, "not an MP4 file"},
        {locked, {"tags", "--set", "Name=X"}, "read-only"},
        {locked, {"tags", "--remove-artwork"}, "read-only"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE((c.args.join(' ') + " " + c.file).toStdString());
        const QByteArray before = retagtest::fileHash(c.file);
        const CliResult r = runCli(QStringList{c.args.first(), c.file} + c.args.mid(1));
        EXPECT_EQ(r.status, 1) << r.err.toStdString();
        EXPECT_EQ(r.err.trimmed().count(u'\n'), 0) << r.err.toStdString();
        EXPECT_TRUE(r.err.contains(QString::fromLatin1(c.says))) << r.err.toStdString();
        EXPECT_TRUE(r.err.contains("left unchanged")) << r.err.toStdString();
        EXPECT_TRUE(r.out.isEmpty());
        EXPECT_EQ(retagtest::fileHash(c.file), before);
    }
    // Reading a read-only file is fine.
    EXPECT_EQ(runCli({"tags", locked}).status, 0);
}

} // namespace
