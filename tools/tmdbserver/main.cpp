// `tarnwick-tmdb-server [--port N] [--fixtures DIR] [--api-key KEY] [--mode MODE]`:
// serves the fixtures on 127.0.0.1 until killed. The first line on standard
// output is the base address ("http://127.0.0.1:PORT"), for TARNWICK_TMDB_URL.
// --mode makes every API request fail one way (401, 500, hang, drip,
// oversize, close), for tests.
#include "tools/tmdbserver/LoopbackMovieDb.h"

#include <QCoreApplication>
#include <QStringList>
#include <QTextStream>

namespace {

constexpr char kUsage[] = "usage: tarnwick-tmdb-server [--port N] [--fixtures DIR] [--api-key KEY] "
                          "[--mode normal|401|500|hang|drip|oversize|close]";

int usage(const QString& message) {
    QTextStream err(stderr);
    err << "tarnwick-tmdb-server: " << message << '\n' << kUsage << '\n';
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments().mid(1);
    quint16 port = 0;
    QString fixtures;
    QString apiKey;
    LoopbackMovieDb::Mode mode = LoopbackMovieDb::Mode::Normal;
    for (qsizetype i = 0; i < args.size(); ++i) {
        const QString& arg = args.at(i);
        if (arg == QLatin1String("--help") || arg == QLatin1String("-h")) {
            QTextStream(stdout) << kUsage << '\n';
            return 0;
        }
        if (arg != QLatin1String("--port") && arg != QLatin1String("--fixtures") &&
            arg != QLatin1String("--api-key") && arg != QLatin1String("--mode"))
            return usage(QStringLiteral("unknown option \"%1\"").arg(arg));
        if (i + 1 >= args.size())
            return usage(QStringLiteral("%1 needs a value").arg(arg));
        const QString value = args.at(++i);
        if (arg == QLatin1String("--port")) {
            bool ok = false;
            const uint number = value.toUInt(&ok);
            if (!ok || number > 65535)
                return usage(QStringLiteral("not a port number: \"%1\"").arg(value));
            port = quint16(number);
        } else if (arg == QLatin1String("--fixtures")) {
            fixtures = value;
        } else if (arg == QLatin1String("--mode")) {
            const std::optional<LoopbackMovieDb::Mode> named = LoopbackMovieDb::modeNamed(value);
            if (!named)
                return usage(QStringLiteral("unknown mode \"%1\"; modes: %2")
                                 .arg(value, LoopbackMovieDb::modeNames().join(u", ")));
            mode = *named;
        } else {
            apiKey = value;
        }
    }

    LoopbackMovieDb server(fixtures.isEmpty() ? LoopbackMovieDb::defaultFixtureFolder() : fixtures);
    if (!apiKey.isEmpty())
        server.setApiKey(apiKey);
    server.setMode(mode);
    QString error;
    if (!server.listen(port, &error)) {
        QTextStream(stderr) << "tarnwick-tmdb-server: " << error << '\n';
        return 1;
    }
    QTextStream(stdout) << server.baseURL() << Qt::endl;
    return app.exec();
}
