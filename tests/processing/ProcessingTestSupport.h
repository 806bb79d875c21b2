#pragma once

// Sample media, settings and recording delegates shared by the job tests.

#include "core/Bookmark.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "processing/JobDelegates.h"

#include "Processes.h"

#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace jobtest {

using Run = testsupport::RunResult;
using testsupport::run;

inline QString cached(const QString& name, const std::function<bool(const QString&)>& make) {
    const QString dir = QStringLiteral(TARNWICK_BINARY_DIR "/test-samples/processing");
    QDir().mkpath(dir);
    return testsupport::cachedFile(dir + QLatin1Char('/') + name, make);
}

// A 3 s H.264 + AAC clip at 25 fps (exactly 75 frames), so the encoder sees
// every frame it expects.
inline QString clip(const QString& name, const QString& picture, int tone) {
    return cached(name, [=](const QString& out) {
        return testsupport::ffmpeg(
            QStringList{
                "-f", "lavfi", "-i", picture, "-f", "lavfi", "-i",
                QStringLiteral("sine=frequency=%1:sample_rate=48000:duration=3").arg(tone)} +
            testsupport::words("-frames:v 75 -c:v libx264 -preset ultrafast -pix_fmt yuv420p "
                               "-c:a aac -ac 2 -f mp4") +
            QStringList{out});
    });
}

inline QString sourceMovie() {
    return clip("source-320x240.mp4", "testsrc2=size=320x240:rate=25", 440);
}

// What the encoder leaves for the muxer: a tiny stand-by video and the
// converted audio.
inline QString standbyConversion() {
    return clip("standby-80x60.m4v", "testsrc=size=80x60:rate=25", 880);
}

// The given fields of the selected streams ("v", "a") as ffprobe reports
// them, frames counted, comma-separated.
inline QString probe(const QString& path, const QString& streams, const QString& fields) {
    return QString::fromUtf8(
               run("ffprobe", {"-v", "error", "-count_frames", "-select_streams", streams,
                               "-show_entries", "stream=" + fields, "-of", "csv=p=0", path})
                   .out)
        .trimmed();
}

inline std::string missingTool() {
    for (const char* tool : {"ffmpeg", "ffprobe", "HandBrakeCLI"}) {
        if (!testsupport::haveTool(tool))
            return tool;
    }
    return {};
}

// Counts every report a job sends.
struct Recorder : StatusDelegate, EncoderDelegate {
    int statusUpdates = 0, muxErrors = 0, muxCompletes = 0, encodeCompletes = 0;
    void statusUpdate() override { ++statusUpdates; }
    void muxStatusError() override { ++muxErrors; }
    void muxStatusComplete() override { ++muxCompletes; }
    void encodeComplete() override { ++encodeCompletes; }
};

// A private settings store and a scratch folder for each test.
class JobTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        UserDefaults::standard().reopen(m_dir.filePath(QStringLiteral("Tarnwick.plist")));
    }
    void TearDown() override { UserDefaults::standard().reopen(); }

    QString path(const QString& name) const { return m_dir.filePath(name); }

    // An iTunes folder laid out as the real one; answers the folder new
    // movies are moved into.
    QString makeITunesFolder() {
        const QString root = path(QStringLiteral("iTunes Media"));
        for (const char* sub : {"Album Artwork", "Automatically Add to iTunes", "Movies"})
            QDir().mkpath(root + QLatin1Char('/') + QLatin1String(sub));
        // A file that sorts first and names iTunes too: only a folder can take movies.
        QFile(root + QStringLiteral("/Add to iTunes.txt")).open(QIODevice::WriteOnly);
        UserDefaults::standard().setObject(Bookmark::create(root),
                                           QLatin1String(SettingsKey::ITunesPathBookmark));
        UserDefaults::standard().setBool(true, QLatin1String(SettingsKey::AddITunes));
        return root + QStringLiteral("/Automatically Add to iTunes");
    }

    QTemporaryDir m_dir;
};

} // namespace jobtest
