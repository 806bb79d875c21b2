#pragma once

// Running the real tools from tests: the built programs, ffmpeg to make
// sample media, and the independent readers that check our files.

#include <QByteArray>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QString>
#include <QStringList>

#include <gtest/gtest.h>

#include <functional>

namespace testsupport {

struct RunResult {
    int exitCode = -1; // -1 also for a crash, a tool that never started or a timeout
    QByteArray out;
    QByteArray err;
};

// `env`, when not empty, is the child's whole environment.
inline RunResult run(const QString& program, const QStringList& args, int timeoutMs = 120000,
                     const QProcessEnvironment& env = {}) {
    QProcess p;
    if (!env.isEmpty())
        p.setProcessEnvironment(env);
    p.start(program, args);
    RunResult r;
    if (!p.waitForStarted(10000))
        return r;
    if (!p.waitForFinished(timeoutMs)) {
        p.kill();
        p.waitForFinished(5000);
        return r;
    }
    r.exitCode = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    r.out = p.readAllStandardOutput();
    r.err = p.readAllStandardError();
    return r;
}

// Words split at blanks: argument lists written as one string.
inline QStringList words(const char* text) {
    return QString::fromUtf8(text).split(u' ', Qt::SkipEmptyParts);
}

inline bool haveTool(const char* name) {
    return !QStandardPaths::findExecutable(QString::fromLatin1(name)).isEmpty();
}

// ffmpeg quietly, overwriting; a failure is a test failure with ffmpeg's words.
inline bool ffmpeg(const QStringList& args) {
    const RunResult r =
        run(QStringLiteral("ffmpeg"), QStringList{"-v", "error", "-y", "-nostdin"} + args);
    if (r.exitCode != 0)
        ADD_FAILURE() << "ffmpeg " << args.join(u' ').toStdString() << ": " << r.err.toStdString();
    return r.exitCode == 0;
}

// `path` made once per build tree by `make`, which writes the file it is
// given. Made under a temporary name and renamed into place, so parallel test
// processes never see half a file.
inline QString cachedFile(const QString& path, const std::function<bool(const QString&)>& make) {
    if (QFileInfo(path).size() > 0)
        return path;
    QDir().mkpath(QFileInfo(path).absolutePath());
    const QFileInfo target(path);
    // The extension stays last: ffmpeg picks the format from it.
    const QString partial = target.absolutePath() +
                            QStringLiteral("/.making-%1-").arg(QCoreApplication::applicationPid()) +
                            target.fileName();
    QFile::remove(partial);
    if (!make(partial) || QFileInfo(partial).size() == 0) {
        QFile::remove(partial);
        return {};
    }
    QFile::remove(path);
    QFile::rename(partial, path);
    return path;
}

struct CliResult {
    int status = -1; // -1 also for a crash or a run that did not end
    QString out;
    QString err;
};

// The built tarnwick-cli with `args` and `input` on its standard input (a
// pipe: never a terminal), in this process's environment changed by `env`
// (a null value removes a variable).
inline CliResult runCli(const QStringList& args, const QByteArray& input = {},
                        int timeoutMs = 120000, const QMap<QString, QString>& env = {}) {
    QProcess p;
    if (!env.isEmpty()) {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        for (auto it = env.cbegin(); it != env.cend(); ++it) {
            if (it.value().isNull())
                environment.remove(it.key());
            else
                environment.insert(it.key(), it.value());
        }
        p.setProcessEnvironment(environment);
    }
    p.start(QStringLiteral(TARNWICK_BINARY_DIR "/bin/tarnwick-cli"), args);
    p.write(input);
    p.closeWriteChannel();
    CliResult r;
    if (!p.waitForFinished(timeoutMs)) {
        p.kill();
        p.waitForFinished();
        ADD_FAILURE() << "tarnwick-cli " << args.join(u' ').toStdString() << " did not finish";
        return r;
    }
    r.status = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    r.out = QString::fromUtf8(p.readAllStandardOutput());
    r.err = QString::fromUtf8(p.readAllStandardError());
    return r;
}

} // namespace testsupport
