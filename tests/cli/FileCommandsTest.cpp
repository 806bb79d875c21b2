// `tarnwick-cli tags` and `tracks` on generated MP4 files, checked against
// AtomicParsley and ffprobe both ways: what we write they read, what
// AtomicParsley writes we read; files we must not touch stay as they were.

#include "CliJson.h"
#include "Processes.h"

#include <QCryptographicHash>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

using testsupport::CliResult;
using testsupport::runCli;

QString mediaDir() {
    const QString dir = QStringLiteral(TARNWICK_BINARY_DIR "/test-media/cli");
    QDir().mkpath(dir);
    return dir;
}

// 2 s of H.264 with English stereo AAC, German 5.1 AAC and English text
// subtitles, the audio tracks named; made once per build tree.
QString trackedMovie() {
    return testsupport::cachedFile(mediaDir() + "/tracks.m4v", [](const QString& out) {
        QTemporaryDir work;
        const QString srt = work.filePath("en.srt");
        QFile f(srt);
        if (!f.open(QIODevice::WriteOnly) ||
            f.write("1\n00:00:00,200 --> 00:00:01,500\nHello\n") < 0)
            return false;
        f.close();
        return testsupport::ffmpeg({"-f",
                                    "lavfi",
                                    "-i",
                                    "testsrc2=size=320x180:rate=25",
                                    "-f",
                                    "lavfi",
                                    "-i",
                                    "sine=frequency=440:sample_rate=48000",
                                    "-f",
                                    "lavfi",
                                    "-i",
                                    "sine=frequency=550:sample_rate=48000",
                                    "-i",
                                    srt,
                                    "-t",
                                    "2",
                                    "-map",
                                    "0:v",
                                    "-map",
                                    "1:a",
                                    "-map",
                                    "2:a",
                                    "-map",
                                    "3",
                                    "-c:v",
                                    "libx264",
                                    "-preset",
                                    "ultrafast",
                                    "-pix_fmt",
                                    "yuv420p",
                                    "-c:a",
                                    "aac",
                                    "-ac:a:0",
                                    "2",
                                    "-ac:a:1",
                                    "6",
                                    "-c:s",
                                    "mov_text",
                                    "-metadata:s:a:0",
                                    "language=eng",
                                    "-metadata:s:a:1",
                                    "language=ger",
                                    "-metadata:s:s:0",
                                    "language=eng",
                                    "-metadata:s:a:0",
                                    "handler_name=Stereo",
                                    "-metadata:s:a:1",
                                    "handler_name=Surround",
                                    "-f",
                                    "mp4",
                                    out});
    });
}

QByteArray fileHash(const QString& path) {
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return {};
    return QCryptographicHash::hash(f.readAll(), QCryptographicHash::Sha256);
}

// "Atom "NAME" contains: VALUE" lines of AtomicParsley -t.
QMap<QString, QString> atomicParsley(const QString& path) {
    const testsupport::RunResult r = testsupport::run("AtomicParsley", {path, "-t"}, 30000);
    QMap<QString, QString> atoms;
    static const QRegularExpression line(QStringLiteral("^Atom \"(.+)\" contains: (.*)$"));
    for (const QString& text : QString::fromUtf8(r.out).split(u'\n')) {
        const QRegularExpressionMatch m = line.match(text.trimmed());
        if (m.hasMatch())
            atoms.insert(m.captured(1), m.captured(2));
    }
    return atoms;
}

QJsonObject probe(const QString& path) {
    const testsupport::RunResult r = testsupport::run(
        "ffprobe", {"-v", "error", "-show_format", "-show_streams", "-of", "json", path}, 30000);
    return QJsonDocument::fromJson(r.out).object();
}

QJsonObject tagsOf(const QString& path) {
    const CliResult r = runCli({"tags", path, "--json"});
    EXPECT_EQ(r.status, 0) << r.err.toStdString();
    return testsupport::expectCliJson(r.out, "tags", 0).value("tags").toObject();
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

    QString image(const char* name, QColor colour, QSize size) {
        QImage picture(size, QImage::Format_RGB32);
        picture.fill(colour);
        const QString path = m_dir.filePath(QString::fromLatin1(name));
        EXPECT_TRUE(picture.save(path));
        return path;
    }

    QTemporaryDir m_dir;
    QString m_file;
};

TEST_F(FileCommandsTest, TagsWeWriteAreWhatAtomicParsleyAndFfprobeRead) {
    const QString cover = image("cover.png", Qt::darkCyan, {60, 90});
    const CliResult r = runCli({"tags",
                                m_file,
                                "--set",
                                "Name=Harbour Lights",
                                "--set=Genre=Comedy",
                                "--set",
                                "Release Date=1962-03-09",
                                "--set",
                                "Description=Two tugboat captains.",
                                "--set",
                                "Artist=Leonard Ashby",
                                "--set",
                                "Cast=Ada Byrne, Tom Keel",
                                "--set",
                                "Media Kind=Movie",
                                "--set",
                                "HD Video=1",
                                "--set",
                                "Rating=mpaa|PG|200|",
                                "--set",
                                "TMDb ID=100004",
                                "--artwork",
                                cover,
                                "--json"});
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    const QJsonObject written =
        testsupport::expectCliJson(r.out, "tags", 0).value("tags").toObject();
    EXPECT_EQ(written.value("Name").toString(), "Harbour Lights");
    EXPECT_EQ(written.value("Cast").toString(), "Ada Byrne, Tom Keel");
    EXPECT_EQ(written.value("TMDb ID").toString(), "100004");
    EXPECT_EQ(written.value("Media Kind").toString(), "Movie");
    EXPECT_EQ(written.value("HD Video").toInt(), 1);
    EXPECT_TRUE(written.value("Artwork").toBool());

    const QMap<QString, QString> atoms = atomicParsley(m_file);
    EXPECT_EQ(atoms.value("©nam"), "Harbour Lights");
    EXPECT_EQ(atoms.value("©gen"), "Comedy");
    EXPECT_EQ(atoms.value("©day"), "1962-03-09");
    EXPECT_EQ(atoms.value("©ART"), "Leonard Ashby");
    EXPECT_EQ(atoms.value("desc"), "Two tugboat captains.");
    EXPECT_EQ(atoms.value("stik"), "Movie");
    EXPECT_TRUE(atoms.value("covr").contains("1 piece of artwork"))
        << atoms.value("covr").toStdString();

    const QJsonObject format = probe(m_file).value("format").toObject().value("tags").toObject();
    EXPECT_EQ(format.value("title").toString(), "Harbour Lights");
    EXPECT_EQ(format.value("genre").toString(), "Comedy");
    EXPECT_EQ(format.value("artist").toString(), "Leonard Ashby");

    // Plain text with the same values; then a delete and the cover's removal.
    CliResult text = runCli({"tags", m_file});
    EXPECT_EQ(text.status, 0);
    EXPECT_TRUE(text.out.contains("Name: Harbour Lights\n")) << text.out.toStdString();
    EXPECT_TRUE(text.out.contains("Rating: mpaa|PG|200|\n"));
    EXPECT_TRUE(text.out.contains("Artwork: yes\n"));
    text = runCli({"tags", m_file, "--delete", "Genre", "--remove-artwork"});
    EXPECT_EQ(text.status, 0) << text.err.toStdString();
    EXPECT_TRUE(text.out.contains("Artwork: no\n"));
    EXPECT_FALSE(text.out.contains("Genre:"));
    const QMap<QString, QString> after = atomicParsley(m_file);
    EXPECT_FALSE(after.contains("©gen"));
    EXPECT_FALSE(after.contains("covr"));
    EXPECT_EQ(after.value("©nam"), "Harbour Lights");
}

TEST_F(FileCommandsTest, TagsAtomicParsleyWritesAreWhatWeRead) {
    const QString cover = image("cover.png", Qt::darkRed, {40, 60});
    const testsupport::RunResult written =
        testsupport::run("AtomicParsley",
                         {m_file, "--overWrite", "--title", "The Lighthouse Keeper", "--artist",
                          "Maren Holloway", "--genre", "Drama", "--year", "2019-05-17", "--comment",
                          "From AtomicParsley", "--stik", "Movie", "--artwork", cover},
                         60000);
    ASSERT_EQ(written.exitCode, 0) << written.err.toStdString();
    const QJsonObject tags = tagsOf(m_file);
    EXPECT_EQ(tags.value("Name").toString(), "The Lighthouse Keeper");
    EXPECT_EQ(tags.value("Artist").toString(), "Maren Holloway");
    EXPECT_EQ(tags.value("Genre").toString(), "Drama");
    EXPECT_TRUE(tags.value("Release Date").toString().startsWith("2019"));
    EXPECT_EQ(tags.value("Comments").toString(), "From AtomicParsley");
    EXPECT_EQ(tags.value("Media Kind").toString(), "Movie");
    EXPECT_TRUE(tags.value("Artwork").toBool());
    EXPECT_FALSE(tags.value("Gapless").toBool());
}

TEST_F(FileCommandsTest, TracksAreWhatFfprobeSees) {
    const CliResult r = runCli({"tracks", m_file, "--json"});
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    const QJsonArray tracks =
        testsupport::expectCliJson(r.out, "tracks", 0).value("tracks").toArray();
    const QJsonArray streams = probe(m_file).value("streams").toArray();
    ASSERT_EQ(tracks.size(), streams.size()) << r.out.toStdString();
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
    // The audio tracks in order, as made.
    EXPECT_EQ(tracks.at(1).toObject().value("language").toString(), "eng");
    EXPECT_EQ(tracks.at(2).toObject().value("language").toString(), "ger");
    EXPECT_EQ(tracks.at(2).toObject().value("channels").toString(), "5.1");
    EXPECT_EQ(tracks.at(3).toObject().value("type").toString(), "subtitle");

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
    QFile f(text);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(QByteArray(4096, 'x'));
    f.close();
    const QString cut = m_dir.filePath("cut.m4v");
    {
        QFile whole(m_file);
        ASSERT_TRUE(whole.open(QIODevice::ReadOnly));
        QFile half(cut);
        ASSERT_TRUE(half.open(QIODevice::WriteOnly));
        half.write(whole.readAll().left(QFileInfo(m_file).size() / 2));
    }
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
        {text, {"tags", "--set", "Name=X"}, "not an MP4 file"},
        {text, {"tracks"}, "not an MP4 file"},
        {cut, {"tags", "--set", "Name=X"}, "not an MP4 file"},
        {cut, {"tracks"}, "not an MP4 file"},
        {locked, {"tags", "--set", "Name=X"}, "read-only"},
        {locked, {"tags", "--remove-artwork"}, "read-only"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE((c.args.join(' ') + " " + c.file).toStdString());
        const QByteArray before = fileHash(c.file);
        const QStringList args = QStringList{c.args.first(), c.file} + c.args.mid(1);
        const CliResult r = runCli(args);
        EXPECT_EQ(r.status, 1) << r.err.toStdString();
        EXPECT_EQ(r.err.trimmed().count(u'\n'), 0) << r.err.toStdString();
        EXPECT_TRUE(r.err.contains(QString::fromLatin1(c.says))) << r.err.toStdString();
        EXPECT_TRUE(r.err.contains("left unchanged")) << r.err.toStdString();
        EXPECT_TRUE(r.out.isEmpty());
        EXPECT_EQ(fileHash(c.file), before);
    }
    // Reading a read-only file is fine.
    EXPECT_EQ(runCli({"tags", locked}).status, 0);
}

} // namespace
