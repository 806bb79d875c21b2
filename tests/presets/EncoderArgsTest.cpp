#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "presets/MDB_Devices.h"

#include <QDir>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

QVariantMap preset(const QString& picture, const QString& encoder,
                   const QString& audioTrack = QStringLiteral("--audio % --aencoder av_aac")) {
    return {{"picture", picture},
            {"video encoder", encoder},
            {"video framerate", "--rate 30 --pfr"},
            {"destination", "--format av_mp4"},
            {"misc", "--markers"},
            {"audio encoder", "--audio-fallback ac3"},
            {"audio track", audioTrack}};
}

class EncoderArgsTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        UserDefaults::standard().reopen(dir.filePath(QStringLiteral("Tarnwick.plist")));
        folder = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) +
                 QStringLiteral("/Oswenna");
        QDir(folder).removeRecursively();

        QVariantMap root;
        QStringList names;
        const auto add = [&](const QString& name, const QVariantMap& p) {
            names << name;
            root.insert(name, p);
        };
        add("Long", preset("--maxWidth 1280 --maxHeight 720", "--encoder x264 --vb 2500",
                           "--audio %,% --aencoder ca_aac,copy:ac3"));
        add("Short", preset("-X 1280 -Y 720 --loose-anamorphic", "--encoder x264 --vb 2500"));
        add("Width only", preset("--maxWidth 1280", "--encoder x264 --vb 2500"));
        add("Twice", preset("--maxWidth 1280 --maxHeight 720", "--vb 2500 -x vb=--vb 2500"));
        root.insert("Devices", names);
        root.insert("Sections", QStringList{"picture", "video encoder"});
        ASSERT_TRUE(MDB_Devices::createUserFile(root));
    }
    void TearDown() override {
        QDir(folder).removeRecursively();
        UserDefaults::standard().reopen();
    }
    static void set(const char* key, bool value) {
        UserDefaults::standard().setBool(value, QLatin1String(key));
    }

    QTemporaryDir dir;
    QString folder;
};

TEST_F(EncoderArgsTest, BitRateScalesDownForSmallerSourcesWhereItCan) {
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"Long", "720x480", "--encoder x264 --vb 937 "},
        {"Long", "160x120", "--encoder x264 --vb 150 "},
        // Exactly the maximum size is not smaller.
        {"Long", "1280x720", "--encoder x264 --vb 2500 "},
        // The short picture options count the same.
        {"Short", "720x480", "--encoder x264 --vb 937 "},
        // Every occurrence of the old rate is rewritten.
        {"Twice", "720x480", "--vb 937 -x vb=--vb 937 "},
        // Without both limits there is no maximum picture to compare with.
        {"Width only", "720x480", "--encoder x264 --vb 2500 "}};
    for (const auto& [name, size, start] : cases)
        EXPECT_TRUE(MDB_Devices::videoCmdArgs(name, false, size).startsWith(start))
            << name << " " << size << ": "
            << MDB_Devices::videoCmdArgs(name, false, size).toStdString();
    // The frame rate follows the setting, not the flag.
    set(SettingsKey::NativeFramerate, true);
    EXPECT_EQ(MDB_Devices::videoCmdArgs("Long", false, "720x480"),
              "--encoder x264 --vb 937 --vfr --format av_mp4 --maxWidth 1280 --maxHeight 720 "
              "--markers");
    set(SettingsKey::NativeFramerate, false);
    EXPECT_TRUE(MDB_Devices::videoCmdArgs("Long", true, "1920x1080").contains("--rate 30 --pfr"));
}

TEST_F(EncoderArgsTest, AudioTemplateRepeatsPerTrack) {
    QList<bool> duplicates{false, false};
    EXPECT_EQ(MDB_Devices::audioCmdArgs("Long", {1, 3}, {"English", "French"}, {"AC3", "AC3"},
                                        &duplicates),
              (QStringList{"--audio-fallback", "ac3", "--audio", "1,1,3,3", "--aencoder",
                           "ca_aac,copy:ac3,ca_aac,copy:ac3"}));
    EXPECT_EQ(duplicates, (QList<bool>{true, true}));
    duplicates = {true};
    EXPECT_EQ(MDB_Devices::audioCmdArgs("Short", {2}, {}, {}, &duplicates),
              (QStringList{"--audio-fallback", "ac3", "--audio", "2", "--aencoder", "av_aac"}));
    EXPECT_EQ(duplicates, QList<bool>{false});
}

TEST_F(EncoderArgsTest, SubtitleListsPutTheBurnedTrackFirst) {
    using Tracks = std::optional<QList<qint64>>;
    const QStringList titles{"English", "French", "German"};
    const struct {
        Tracks tracks;
        std::optional<QStringList> titles;
        int burn, native;
        QStringList args;
    } cases[] = {
        {QList<qint64>{3, 4}, titles, 3, 0, {"--subtitle", "3,4", "--subtitle-burn", "1"}},
        {QList<qint64>{4, 3}, titles, 3, -1, {"--subtitle", "3,4", "--subtitle-burn", "1"}},
        // The default's position counts the leading scan entry for the first track only.
        {QList<qint64>{2, 5}, titles, 0, 2, {"--subtitle", "scan,2,5", "--subtitle-default", "2"}},
        {QList<qint64>{2, 5}, titles, -1, 2, {"--subtitle", "2,5", "--subtitle-default", "1"}},
        {QList<qint64>{}, QStringList{}, 0, 0, {"--subtitle", "scan"}},
        // A burn number with an empty list leaves "--subtitle" without a value.
        {QList<qint64>{}, QStringList{}, 4, 0, {"--subtitle", "--subtitle-burn", "1"}},
        {std::nullopt, std::nullopt, 0, 3, {"--subtitle", "scan"}},
        {QList<qint64>{1}, std::nullopt, 2, 0, {"--subtitle-burn", "1"}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(MDB_Devices::subtitleCmdArgs("Long", c.tracks, c.titles, c.burn, c.native),
                  c.args)
            << c.burn << " " << c.native;
}

TEST_F(EncoderArgsTest, UnsupportedOptionsAreRemovedWithTheirValues) {
    const std::pair<QStringList, QStringList> cases[] = {
        {{"--help", "--preset", "Fast 1080p30", "--vb", "900", "--scan", "-f", "av_mp4",
          "--main-feature", "-z", "-Z", "x", "--no-dvdnav", "-h", "--verbose", "2", "-u",
          "--update"},
         {"--vb", "900", "av_mp4"}},
        {{"-v", "1", "--rate", "30", "-v", "2"}, {"--rate", "30"}},
        // A counted option standing last goes alone.
        {{"--encoder", "x264", "--preset"}, {"--encoder", "x264"}},
    };
    for (auto [args, expected] : cases) {
        MDB_Devices::removeUnsupportedArgs(args);
        EXPECT_EQ(args, expected);
    }
}

} // namespace
