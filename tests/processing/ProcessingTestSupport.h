#pragma once

// Sample media, settings and recording delegates shared by the job tests.

#include "core/Bookmark.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "processing/JobDelegates.h"

#include "Processes.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <functional>

namespace jobtest {

using Run = testsupport::RunResult;
using testsupport::ffmpeg;
using testsupport::run;

inline QString sampleDir() {
    const QString dir = QStringLiteral(TARNWICK_BINARY_DIR "/test-samples/processing");
    QDir().mkpath(dir);
    return dir;
}

inline QString cached(const QString& name, const std::function<bool(const QString&)>& make) {
    return testsupport::cachedFile(sampleDir() + QLatin1Char('/') + name, make);
}

// A 3 s H.264 + AAC clip at 25 fps (exactly 75 frames), so the encoder sees
// every frame it expects.
inline QString clip(const QString& name, const QString& picture, int tone) {
    return cached(name, [=](const QString& out) {
        return ffmpeg(
            QStringList{
                "-f", "lavfi", "-i", picture, "-f", "lavfi", "-i",
                QStringLiteral("sine=frequency=%1:sample_rate=48000:duration=3").arg(tone)} +
            QString("-frames:v 75 -c:v libx264 -preset ultrafast -pix_fmt yuv420p "
                    "-c:a aac -ac 2 -f mp4")
                .split(u' ') +
            QStringList{out});
    });
}

inline QString sourceMovie() {
    return clip(QStringLiteral("source-320x240.mp4"),
                QStringLiteral("testsrc2=size=320x240:rate=25"), 440);
}

// What the encoder leaves for the muxer: a tiny stand-by video and the
// converted audio.
inline QString standbyConversion() {
    return clip(QStringLiteral("standby-80x60.m4v"), QStringLiteral("testsrc=size=80x60:rate=25"),
                880);
}

// The streams of a file as ffprobe reports them.
inline QJsonArray probeStreams(const QString& path) {
    const Run r = run(QStringLiteral("ffprobe"),
                      {"-v", "error", "-count_frames", "-show_streams", "-of", "json", path});
    return QJsonDocument::fromJson(r.out).object().value(QStringLiteral("streams")).toArray();
}

inline QJsonObject firstStream(const QString& path, const QString& type) {
    for (const QJsonValue& s : probeStreams(path)) {
        if (s.toObject().value(QStringLiteral("codec_type")).toString() == type)
            return s.toObject();
    }
    return {};
}

inline bool toolsPresent(QString* missing) {
    for (const char* tool : {"ffmpeg", "ffprobe", "HandBrakeCLI"}) {
        if (QStandardPaths::findExecutable(QLatin1String(tool)).isEmpty()) {
            *missing = QLatin1String(tool);
            return false;
        }
    }
    return true;
}

// Counts every report a job sends.
struct Recorder : StatusDelegate, EncoderDelegate {
    int statusUpdates = 0;
    int muxErrors = 0;
    int muxCompletes = 0;
    int encodeCompletes = 0;
    void statusUpdate() override { ++statusUpdates; }
    void muxStatusError() override { ++muxErrors; }
    void muxStatusComplete() override { ++muxCompletes; }
    void encodeComplete() override { ++encodeCompletes; }
};

// A private settings store and a scratch folder for each test, and an iTunes
// folder laid out as the real one ("Automatically Add to iTunes" among
// others).
class JobTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        UserDefaults::standard().reopen(m_dir.filePath(QStringLiteral("Tarnwick.plist")));
    }
    void TearDown() override { UserDefaults::standard().reopen(); }

    QString path(const QString& name) const { return m_dir.filePath(name); }

    // Answers the folder new movies are moved into.
    QString makeITunesFolder() {
        const QString root = path(QStringLiteral("iTunes Media"));
        for (const char* sub : {"Album Artwork", "Automatically Add to iTunes", "Movies", "Music"})
            QDir().mkpath(root + QLatin1Char('/') + QLatin1String(sub));
        // A file that sorts first and names iTunes too: only a folder can take movies.
        QFile decoy(root + QStringLiteral("/Add to iTunes.txt"));
        decoy.open(QIODevice::WriteOnly);
        UserDefaults::standard().setObject(Bookmark::create(root),
                                           QLatin1String(SettingsKey::ITunesPathBookmark));
        UserDefaults::standard().setBool(true, QLatin1String(SettingsKey::AddITunes));
        return root + QStringLiteral("/Automatically Add to iTunes");
    }

    QTemporaryDir m_dir;
};

} // namespace jobtest
