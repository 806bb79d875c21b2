// Every shipped preset, turned into a real encoder command line, must encode a
// short sample with the system's HandBrakeCLI into an MP4 that ffprobe reads.
#include "core/PropertyList.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "presets/MDB_Devices.h"

#include <QDir>
#include <QFileInfo>
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

// HandBrakeCLI writes its complaints to either stream.
QString merged(const testsupport::RunResult& r) {
    return QString::fromLocal8Bit(r.out + r.err);
}

// A 10-second 720p H.264 + AAC sample, made once and kept in the build tree. AAC
// rather than AC3: a preset that asks to pass AC3 through must still give every
// audio output it promises when the source has none to pass.
QString samplePath() {
    return testsupport::cachedFile(
        QStringLiteral(TARNWICK_BINARY_DIR "/test-samples/preset-sample-720p-aac.mkv"),
        [](const QString& out) {
            return testsupport::ffmpeg(
                QString("-f lavfi -i testsrc2=size=1280x720:rate=25 -f lavfi -i "
                        "sine=frequency=440:sample_rate=48000 -t 10 -c:v libx264 -preset "
                        "ultrafast -crf 30 -c:a aac -ac 2")
                    .split(u' ') +
                QStringList{out});
        });
}

// The values HandBrakeCLI's help lists for an option, e.g. the audio encoders.
QStringList listedValues(const QString& help, const QString& option) {
    const QStringList lines = help.split(QLatin1Char('\n'));
    static const QRegularExpression item(QStringLiteral("^\\s{20,}([A-Za-z0-9_:]+)\\s*$"));
    for (qsizetype i = 0; i < lines.size(); ++i) {
        const qsizetype at = lines[i].indexOf(option + QStringLiteral(" <string>"));
        if (at < 0)
            continue;
        const QString rest = lines[i].mid(at + option.size() + 9).trimmed();
        if (rest.contains(QLatin1Char('|')))
            return rest.split(QLatin1Char('|'));
        QStringList values;
        for (qsizetype k = i + 1; k < lines.size(); ++k) {
            const auto m = item.match(lines[k]);
            if (!m.hasMatch())
                break;
            values << m.captured(1);
        }
        return values;
    }
    return {};
}

QString valueAfter(const QStringList& args, const QString& option) {
    const qsizetype i = args.indexOf(option);
    return i >= 0 && i + 1 < args.size() ? args[i + 1] : QString();
}

int limit(const QStringList& args, const QString& option) {
    return valueAfter(args, option).toInt();
}

std::vector<std::string> shippedNames() {
    const QVariantMap root =
        PropertyList::readFile(QStringLiteral(TARNWICK_SOURCE_DIR "/resources/Devices.plist"))
            .toMap();
    std::vector<std::string> names;
    for (const QString& name : root.value(QStringLiteral("Devices")).toStringList())
        names.push_back(name.toStdString());
    return names;
}

class PresetEncodeBase : public ::testing::Test {
protected:
    void SetUp() override {
        handbrake = QStandardPaths::findExecutable(QStringLiteral("HandBrakeCLI"));
        if (handbrake.isEmpty())
            GTEST_SKIP() << "HandBrakeCLI is not installed; the preset encode check needs it";
        ASSERT_FALSE(QStandardPaths::findExecutable(QStringLiteral("ffmpeg")).isEmpty())
            << "ffmpeg is needed to make the sample";
        ASSERT_FALSE(QStandardPaths::findExecutable(QStringLiteral("ffprobe")).isEmpty())
            << "ffprobe is needed to read the result";
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

    // Encodes the sample with a shipped preset and checks the result.
    void encodeAndCheck(const QString& name);

    QString handbrake;
    QTemporaryDir dir;
};

void PresetEncodeBase::encodeAndCheck(const QString& name) {
    ASSERT_TRUE(MDB_Devices::device(name).has_value()) << qPrintable(name);

    const QString source = samplePath();
    ASSERT_FALSE(source.isEmpty());
    const QString output = dir.filePath(QStringLiteral("out.m4v"));

    // Assembled as the media item does it.
    QStringList video =
        MDB_Devices::videoCmdArgs(name, false, QStringLiteral("1280x720")).split(QLatin1Char(' '));
    MDB_Devices::removeUnsupportedArgs(video);
    QList<bool> duplicates{false};
    QStringList audio = MDB_Devices::audioCmdArgs(name, {1}, {QStringLiteral("Unknown")},
                                                  {QStringLiteral("AAC")}, &duplicates);
    MDB_Devices::removeUnsupportedArgs(audio);
    const QStringList args = QStringList{"--input", source, "--output", output, "--title", "1"} +
                             video + audio + MDB_Devices::filterCmdArgs();

    // HandBrakeCLI quietly replaces some unknown values, so check them first.
    const QString help = merged(run(handbrake, {QStringLiteral("--help")}, 60000));
    const std::pair<const char*, const char*> enumerated[] = {
        {"--encoder", "--encoder"},         {"--aencoder", "--aencoder"},
        {"--audio-fallback", "--aencoder"}, {"--mixdown", "--mixdown"},
        {"--format", "--format"},           {"--crop-mode", "--crop-mode"},
    };
    for (const auto& [option, listedAs] : enumerated) {
        if (!args.contains(QLatin1String(option)))
            continue;
        const QStringList known = listedValues(help, QLatin1String(listedAs));
        ASSERT_FALSE(known.isEmpty()) << "no values listed for " << listedAs;
        for (const QString& value : valueAfter(args, QLatin1String(option)).split(','))
            EXPECT_TRUE(known.contains(value))
                << qPrintable(name) << ": " << option << " " << qPrintable(value);
    }

    const testsupport::RunResult encode = run(handbrake, args, 600000);
    const QString said = merged(encode);
    EXPECT_EQ(encode.exitCode, 0) << qPrintable(said.right(3000) + "\n" + args.join(' '));
    static const QRegularExpression complaint(
        QStringLiteral("^(ERROR|unknown option|.*\\[error\\])"),
        QRegularExpression::MultilineOption);
    const auto bad = complaint.match(said);
    EXPECT_FALSE(bad.hasMatch()) << qPrintable(name) << ": "
                                 << qPrintable(bad.captured(0) + "\n" + args.join(' '));
    ASSERT_TRUE(QFileInfo(output).size() > 0) << qPrintable(said.right(3000));

    const testsupport::RunResult probe = run(
        QStringLiteral("ffprobe"),
        {"-v", "error", "-print_format", "json", "-show_streams", "-show_format", output}, 60000);
    ASSERT_EQ(probe.exitCode, 0) << probe.err.toStdString();
    const QJsonObject info = QJsonDocument::fromJson(probe.out).object();
    int videoStreams = 0, audioStreams = 0;
    for (const QJsonValue& s : info.value("streams").toArray()) {
        const QJsonObject stream = s.toObject();
        if (stream.value("codec_type") == "video") {
            ++videoStreams;
            EXPECT_EQ(stream.value("codec_name").toString(), "h264");
            EXPECT_LE(stream.value("width").toInt(), limit(video, "--maxWidth"));
            EXPECT_LE(stream.value("height").toInt(), limit(video, "--maxHeight"));
            EXPECT_GT(stream.value("width").toInt(), 0);
        } else if (stream.value("codec_type") == "audio") {
            ++audioStreams;
        }
    }
    EXPECT_EQ(videoStreams, 1);
    // One output per piece of the "--audio" value; a doubled track is flagged.
    const int outputs = int(valueAfter(audio, "--audio").split(',').size());
    EXPECT_EQ(audioStreams, outputs);
    EXPECT_EQ(duplicates, QList<bool>{outputs >= 2});
    EXPECT_NEAR(info.value("format").toObject().value("duration").toString().toDouble(), 10.0, 0.5);
}

class PresetEncodeTest : public PresetEncodeBase,
                         public ::testing::WithParamInterface<std::string> {};

TEST_P(PresetEncodeTest, EncodesASampleIntoAReadableMp4) {
    // One encode also takes every filter option, rather than a run of its own.
    if (GetParam() == "SD 480p") {
        for (const char* key : {SettingsKey::Decomb, SettingsKey::Denoise, SettingsKey::Detelecine,
                                SettingsKey::Deblock})
            UserDefaults::standard().setBool(true, QLatin1String(key));
        ASSERT_EQ(MDB_Devices::filterCmdArgs().size(), 4);
    }
    encodeAndCheck(QString::fromStdString(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Shipped, PresetEncodeTest, ::testing::ValuesIn(shippedNames()),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             std::string id;
                             for (char c : info.param)
                                 id += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
                             return id;
                         });

} // namespace
