// Every shipped preset, turned into a real encoder command line, must encode a
// short sample with the system's HandBrakeCLI into an MP4 that ffprobe reads.
#include "core/PropertyList.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "presets/MDB_Devices.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include "Processes.h"

#include <cctype>

namespace {

using testsupport::run;

// A 10-second 720p H.264 + AAC sample, made once and kept in the build tree. AAC
// rather than AC3: a preset that asks to pass AC3 through must still give every
// audio output it promises when the source has none to pass.
QString samplePath() {
    return testsupport::cachedFile(
        QStringLiteral(TARNWICK_BINARY_DIR "/test-samples/preset-sample-720p-aac.mkv"),
        [](const QString& out) {
            return testsupport::ffmpeg(
                testsupport::words("-f lavfi -i testsrc2=size=1280x720:rate=25 -f lavfi -i "
                                   "sine=frequency=440:sample_rate=48000 -t 10 -c:v libx264 "
                                   "-preset ultrafast -crf 30 -c:a aac -ac 2") +
                QStringList{out});
        });
}

QString valueAfter(const QStringList& args, const char* option) {
    const qsizetype i = args.indexOf(QLatin1String(option));
    return i >= 0 && i + 1 < args.size() ? args[i + 1] : QString();
}

std::vector<std::string> shippedNames() {
    std::vector<std::string> names;
    for (const QString& name :
         PropertyList::readFile(QStringLiteral(TARNWICK_SOURCE_DIR "/resources/Devices.plist"))
             .toMap()
             .value(QStringLiteral("Devices"))
             .toStringList())
        names.push_back(name.toStdString());
    return names;
}

class PresetEncodeTest : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        for (const char* tool : {"HandBrakeCLI", "ffmpeg", "ffprobe"})
            if (!testsupport::haveTool(tool))
                GTEST_SKIP() << tool << " is not installed; the preset encode check needs it";
        ASSERT_TRUE(dir.isValid());
        // Shipped presets, default switches.
        QDir(QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) +
             QStringLiteral("/Oswenna"))
            .removeRecursively();
        UserDefaults::standard().reopen(dir.filePath(QStringLiteral("Tarnwick.plist")));
        for (const char* key :
             {SettingsKey::NativeFramerate, SettingsKey::Decomb, SettingsKey::Denoise,
              SettingsKey::Detelecine, SettingsKey::Deblock})
            UserDefaults::standard().setBool(false, QLatin1String(key));
    }
    void TearDown() override { UserDefaults::standard().reopen(); }
    QTemporaryDir dir;
};

TEST_P(PresetEncodeTest, EncodesASampleIntoAReadableMp4) {
    const QString name = QString::fromStdString(GetParam());
    // One encode also takes every filter option, rather than a run of its own.
    if (name == "SD 480p") {
        for (const char* key : {SettingsKey::Decomb, SettingsKey::Denoise, SettingsKey::Detelecine,
                                SettingsKey::Deblock})
            UserDefaults::standard().setBool(true, QLatin1String(key));
        ASSERT_EQ(MDB_Devices::filterCmdArgs().size(), 4);
    }
    ASSERT_TRUE(MDB_Devices::device(name).has_value()) << qPrintable(name);
    const QString output = dir.filePath(QStringLiteral("out.m4v"));

    // Assembled as the media item does it.
    QStringList video =
        MDB_Devices::videoCmdArgs(name, false, QStringLiteral("1280x720")).split(QLatin1Char(' '));
    MDB_Devices::removeUnsupportedArgs(video);
    QList<bool> duplicates{false};
    QStringList audio = MDB_Devices::audioCmdArgs(name, {1}, {QStringLiteral("Unknown")},
                                                  {QStringLiteral("AAC")}, &duplicates);
    MDB_Devices::removeUnsupportedArgs(audio);
    const QStringList args =
        QStringList{"--input", samplePath(), "--output", output, "--title", "1"} + video + audio +
        MDB_Devices::filterCmdArgs();

    const testsupport::RunResult encode = run("HandBrakeCLI", args, 600000);
    const QString said = QString::fromLocal8Bit(encode.out + encode.err);
    EXPECT_EQ(encode.exitCode, 0) << qPrintable(said.right(3000) + "\n" + args.join(' '));
    static const QRegularExpression complaint(
        QStringLiteral("^(ERROR|unknown option|.*\\[error\\])"),
        QRegularExpression::MultilineOption);
    EXPECT_FALSE(complaint.match(said).hasMatch()) << qPrintable(complaint.match(said).captured(0));

    const testsupport::RunResult probe =
        run("ffprobe", {"-v", "error", "-of", "json", "-show_streams", "-show_format", output});
    ASSERT_EQ(probe.exitCode, 0) << probe.err.toStdString();
    const QJsonObject info = QJsonDocument::fromJson(probe.out).object();
    int videoStreams = 0, audioStreams = 0;
    for (const QJsonValue& s : info.value("streams").toArray()) {
        const QJsonObject stream = s.toObject();
        if (stream.value("codec_type") == "audio") {
            ++audioStreams;
        } else if (stream.value("codec_type") == "video") {
            ++videoStreams;
            EXPECT_EQ(stream.value("codec_name").toString(), "h264");
            EXPECT_LE(stream.value("width").toInt(), valueAfter(video, "--maxWidth").toInt());
            EXPECT_LE(stream.value("height").toInt(), valueAfter(video, "--maxHeight").toInt());
        }
    }
    EXPECT_EQ(videoStreams, 1);
    // One output per piece of the "--audio" value; a doubled track is flagged.
    const int outputs = int(valueAfter(audio, "--audio").split(',').size());
    EXPECT_EQ(audioStreams, outputs);
    EXPECT_EQ(duplicates, QList<bool>{outputs >= 2});
    EXPECT_NEAR(info.value("format").toObject().value("duration").toString().toDouble(), 10.0, 0.5);
}

INSTANTIATE_TEST_SUITE_P(Shipped, PresetEncodeTest, ::testing::ValuesIn(shippedNames()),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             std::string id;
                             for (char c : info.param)
                                 id += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
                             return id;
                         });

} // namespace
