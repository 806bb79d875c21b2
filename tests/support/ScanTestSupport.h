#pragma once

// Sample sources for scan tests, made with ffmpeg on first use and cached in
// the build tree, and one loopback movie database per test process (the
// client caches the first configuration it sees, so the address must not
// change between tests).

#include "Processes.h"
#include "TestSupport.h"
#include "core/SettingsKeys.h"
#include "core/Startup.h"
#include "core/UserDefaults.h"
#include "lookup/MDB_TheMovieDb.h"
#include "metadata/Utility.h"
#include "tools/tmdbserver/LoopbackMovieDb.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace scantest {

inline QString mediaDir() {
    const QString dir = QStringLiteral(TARNWICK_BINARY_DIR "/test-media/scan");
    QDir().mkpath(dir);
    return dir;
}

inline bool writeFile(const QString& path, const QByteArray& bytes) {
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(bytes) == bytes.size();
}

using testsupport::ffmpeg;
using testsupport::words;

// Samples by file name:
//   "The Lighthouse Keeper (2019).mkv"  1280x720 h264, 4 s; audio German then
//                                       English; subtitles German then English
//   "Harbour Lights.mp4"                640x360 h264, 4 s; English audio
//   "Interlaced.mkv"                    720x480 MPEG-2 with woven fields (combing)
//   "junk.mkv"                          random bytes
// Each is made under a temporary name and renamed into place, so parallel
// test processes never see half a file.
inline QString sample(const QString& name) {
    const QString target = mediaDir() + u'/' + name;
    if (QFileInfo::exists(target))
        return target;
    QTemporaryDir work(mediaDir() + QStringLiteral("/make-XXXXXX"));
    const QString w = work.path();
    const QString made = w + u'/' + name;
    if (name == QLatin1String("The Lighthouse Keeper (2019).mkv")) {
        writeFile(w + "/de.srt", "1\n00:00:01,000 --> 00:00:02,000\nHallo\n");
        writeFile(w + "/en.srt", "1\n00:00:01,000 --> 00:00:02,000\nHello\n");
        if (!ffmpeg(words("-f lavfi -i testsrc2=size=1280x720:rate=25 -f lavfi -i "
                          "sine=frequency=440 -f lavfi -i sine=frequency=660 -i") +
                    QStringList{w + "/de.srt", "-i", w + "/en.srt"} +
                    words("-t 4 -map 0:v -map 1:a -map 2:a -map 3 -map 4 -c:v libx264 -preset "
                          "ultrafast -c:a aac -ac 2 -c:s srt -metadata:s:a:0 language=ger "
                          "-metadata:s:a:1 language=eng -metadata:s:s:0 language=ger "
                          "-metadata:s:s:1 language=eng") +
                    QStringList{made}))
            return {};
    } else if (name == QLatin1String("Harbour Lights.mp4")) {
        if (!ffmpeg(words("-f lavfi -i testsrc2=size=640x360:rate=25 -f lavfi -i "
                          "sine=frequency=550 -t 4 -c:v libx264 -preset ultrafast -c:a aac -ac 2 "
                          "-metadata:s:a:0 language=eng") +
                    QStringList{made}))
            return {};
    } else if (name == QLatin1String("Interlaced.mkv")) {
        if (!ffmpeg(QStringList{"-f", "lavfi", "-i", "testsrc2=size=720x480:rate=60", "-t", "4",
                                "-vf", "tinterlace=mode=interleave_top,setfield=tff", "-r", "30",
                                "-c:v", "mpeg2video", "-b:v", "6M", "-flags", "+ilme+ildct", "-an",
                                made}))
            return {};
    } else if (name == QLatin1String("junk.mkv")) {
        QByteArray bytes(256 * 1024, '\0');
        QRandomGenerator rng(42);
        for (char& c : bytes)
            c = char(rng.generate() & 0xff);
        writeFile(made, bytes);
    } else {
        ADD_FAILURE() << "no recipe for sample " << name.toStdString();
        return {};
    }
    QFile::rename(made, target);
    return QFileInfo::exists(target) ? target : QString();
}

// A copy (hard link where possible) of a sample under another name, for a
// source whose name finds nothing.
inline QString sampleAs(const QString& name, const QString& newName) {
    const QString source = sample(name);
    const QString target = mediaDir() + u'/' + newName;
    if (!source.isEmpty() && !QFileInfo::exists(target) && !QFile::link(source, target))
        QFile::copy(source, target);
    return target;
}

inline LoopbackMovieDb& server() {
    static LoopbackMovieDb* db = [] {
        auto* s = new LoopbackMovieDb();
        QString error;
        if (!s->listen(0, &error))
            ADD_FAILURE() << "loopback server: " << error.toStdString();
        qputenv("TARNWICK_TMDB_URL", s->baseURL().toUtf8());
        MDB_TheMovieDb::clearCachedConfiguration();
        Utility::resetGenreCache();
        return s;
    }();
    return *db;
}

// Fresh settings with the shipped defaults beneath, as at start-up.
inline void resetSettings(const QString& languageRegion = QStringLiteral("en-US")) {
    UserDefaults::standard().reopen(QDir::homePath() + QStringLiteral("/scan-test-settings.plist"));
    for (const QString& key : UserDefaults::standard().allKeys())
        UserDefaults::standard().removeObject(key);
    // A scratch folder of the test's own, as a new run would have.
    Startup::cleanupAtExit();
    QString error;
    ASSERT_TRUE(Startup::run(&error)) << error.toStdString();
    UserDefaults::standard().setObject(languageRegion,
                                       QString::fromLatin1(SettingsKey::LanguageRegion));
    // Cached genre names are per language.
    Utility::resetGenreCache();
}

} // namespace scantest

// Readable QStrings in assertion messages.
inline void PrintTo(const QString& s, std::ostream* os) {
    *os << '"' << s.toStdString() << '"';
}
inline void PrintTo(const QUrl& u, std::ostream* os) {
    *os << '<' << u.toString().toStdString() << '>';
}
