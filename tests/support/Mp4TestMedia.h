#pragma once

// Sample MP4 files made with ffmpeg on first use and cached in the build tree,
// plus small helpers to run the independent readers.

#include <QByteArray>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include "Processes.h"

#include <cstdint>
#include <string>

namespace mp4test {

inline QString mediaDir() {
    const QString dir = QStringLiteral(TARNWICK_BINARY_DIR "/test-media/mp4");
    QDir().mkpath(dir);
    return dir;
}

using testsupport::haveTool;
using testsupport::run;
using testsupport::RunResult;

// Makes `name` in the media folder with ffmpeg unless it is there already.
inline QString ffmpegSample(const QString& name, const QStringList& args) {
    return testsupport::cachedFile(mediaDir() + QLatin1Char('/') + name, [&](const QString& out) {
        const bool png = name.endsWith(QLatin1String(".png"));
        const QStringList format =
            png || name.endsWith(QLatin1String(".jpg"))
                ? QStringList{"-c:v", png ? "png" : "mjpeg", "-f", "image2", "-update", "1"}
                : QStringList{"-f", "mp4"};
        return testsupport::ffmpeg(args + format + QStringList{out});
    });
}

inline QStringList lavfi(const char* graph) {
    return {QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
            QString::fromLatin1(graph)};
}

inline QStringList videoSource(int seconds = 2) {
    return lavfi(QStringLiteral("testsrc=size=160x120:rate=25:duration=%1")
                     .arg(seconds)
                     .toLatin1()
                     .constData());
}

// H.264 + stereo AAC, moov after mdat (ffmpeg's default layout).
inline QString aacSample() {
    QStringList a = videoSource() + lavfi("sine=frequency=440:duration=2");
    a += {"-c:v", "libx264", "-preset", "ultrafast", "-c:a", "aac", "-ac", "2"};
    return ffmpegSample(QStringLiteral("aac-stereo.mp4"), a);
}

// The same with moov in front.
inline QString faststartSample() {
    QStringList a = videoSource() + lavfi("sine=frequency=440:duration=2");
    a += {"-c:v", "libx264", "-preset", "ultrafast", "-c:a",
          "aac",  "-ac",     "2",       "-movflags", "+faststart"};
    return ffmpegSample(QStringLiteral("aac-faststart.mp4"), a);
}

// Video, 5.1 AC-3, stereo AAC, ALAC and a text subtitle track.
inline QString multiTrackSample() {
    const QString srt = mediaDir() + QStringLiteral("/subs.srt");
    if (!QFile::exists(srt)) {
        QFile f(srt);
        f.open(QIODevice::WriteOnly);
        f.write(
            "1\n00:00:00,000 --> 00:00:01,000\nHello\n\n2\n00:00:01,000 --> 00:00:02,000\nWorld\n");
    }
    QStringList a = videoSource() + lavfi("sine=frequency=440:duration=2") + QStringList{"-i", srt};
    a += testsupport::words("-map 0:v -map 1:a -map 1:a -map 1:a -map 2:s -c:v libx264 -preset "
                            "ultrafast -c:a:0 ac3 -ac:a:0 6 -c:a:1 aac -ac:a:1 2 -c:a:2 alac "
                            "-ac:a:2 2 -c:s mov_text -metadata:s:a:1 language=fra");
    return ffmpegSample(QStringLiteral("multitrack.mp4"), a);
}

// A picture of the given size in PNG or JPEG (by extension).
inline QString coverImage(const QString& name, int side = 64) {
    QStringList a = lavfi(QStringLiteral("testsrc=size=%1x%1").arg(side).toLatin1().constData());
    a += {"-frames:v", "1"};
    return ffmpegSample(name, a);
}

// A PNG of random-looking pixels: about 3 * side * side bytes, decodable.
inline QString noisyPng(int side, int seed) {
    QStringList a =
        lavfi(QStringLiteral("color=gray:size=%1x%1,noise=alls=100:allf=t+u:all_seed=%2")
                  .arg(side)
                  .arg(seed)
                  .toLatin1()
                  .constData());
    a += {"-frames:v", "1"};
    return ffmpegSample(QStringLiteral("noise-%1-%2.png").arg(side).arg(seed), a);
}

inline QByteArray readAll(const QString& path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// Copy of a sample in a fresh temporary folder owned by the test.
inline QString copyInto(const QTemporaryDir& dir, const QString& source, const QString& name = {}) {
    const QString dest =
        dir.path() + QLatin1Char('/') + (name.isEmpty() ? QFileInfo(source).fileName() : name);
    QFile::remove(dest);
    if (!QFile::copy(source, dest))
        ADD_FAILURE() << "copy failed: " << source.toStdString();
    QFile::setPermissions(dest, QFile::ReadOwner | QFile::WriteOwner);
    return dest;
}

// Playable per ffmpeg: every packet of every stream can be demuxed without error.
inline bool ffmpegPlays(const QString& path, QByteArray* errors = nullptr) {
    const RunResult r = run(QStringLiteral("ffmpeg"), {"-v", "error", "-i", path, "-map", "0", "-c",
                                                       "copy", "-f", "null", "-"});
    if (errors)
        *errors = r.err;
    return r.exitCode == 0 && r.err.trimmed().isEmpty();
}

// Hash of all demuxed media packets: equal for two files iff their media data
// reads the same. Cover art (an extra stream after the media) is left out.
inline QByteArray packetHash(const QString& path) {
    const RunResult r =
        run(QStringLiteral("ffmpeg"), {"-v", "error", "-i", path, "-map", "0:v:0?", "-map", "0:a?",
                                       "-map", "0:s?", "-c", "copy", "-f", "framemd5", "-"});
    if (r.exitCode != 0)
        return {};
    // Drop comment lines (they name the input).
    QByteArray body;
    for (const QByteArray& line : r.out.split('\n'))
        if (!line.startsWith('#'))
            body += line + '\n';
    return QCryptographicHash::hash(body, QCryptographicHash::Md5).toHex();
}

} // namespace mp4test
