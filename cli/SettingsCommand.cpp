// tarnwick-cli settings list | get KEY | set KEY VALUE | reset
#include "cli/Commands.h"
#include "core/Bookmark.h"
#include "core/PreferencesPanelController.h"
#include "core/Startup.h"
#include "core/UserDefaults.h"

#include <QJsonDocument>
#include <QJsonValue>

namespace {

QString show(const QVariant& v) {
    switch (v.typeId()) {
    case QMetaType::Bool:
        return v.toBool() ? QStringLiteral("YES") : QStringLiteral("NO");
    case QMetaType::QByteArray: {
        // Bookmarks are folder paths.
        const QByteArray b = v.toByteArray();
        return QString::fromUtf8(b);
    }
    case QMetaType::QVariantList:
    case QMetaType::QStringList:
    case QMetaType::QVariantMap:
        return QString::fromUtf8(QJsonDocument::fromVariant(v).toJson(QJsonDocument::Compact));
    default:
        return v.toString();
    }
}

// Parses VALUE as the type of the key's registered default.
bool parse(const QVariant& like, const QString& text, QVariant* out, QString* why) {
    switch (like.typeId()) {
    case QMetaType::Bool: {
        const QString t = text.trimmed().toLower();
        if (t == "yes" || t == "true" || t == "1")
            *out = true;
        else if (t == "no" || t == "false" || t == "0")
            *out = false;
        else {
            *why = QStringLiteral("expected YES/NO, true/false or 1/0");
            return false;
        }
        return true;
    }
    case QMetaType::Int:
    case QMetaType::LongLong: {
        bool ok = false;
        const qint64 n = text.trimmed().toLongLong(&ok);
        if (!ok) {
            *why = QStringLiteral("expected an integer");
            return false;
        }
        *out = n;
        return true;
    }
    case QMetaType::QByteArray: {
        if (text.isEmpty()) {
            *out = QByteArray();
            return true;
        }
        const QByteArray bookmark = Bookmark::create(text);
        if (bookmark.isEmpty()) {
            *why = QStringLiteral("expected an existing folder");
            return false;
        }
        *out = bookmark;
        return true;
    }
    case QMetaType::QVariantList:
    case QMetaType::QVariantMap: {
        QJsonParseError error;
        const QJsonDocument doc = QJsonDocument::fromJson(text.toUtf8(), &error);
        const bool wantArray = like.typeId() == QMetaType::QVariantList;
        if (error.error != QJsonParseError::NoError ||
            (wantArray ? !doc.isArray() : !doc.isObject())) {
            *why = wantArray ? QStringLiteral("expected a JSON array")
                             : QStringLiteral("expected a JSON object");
            return false;
        }
        *out = doc.toVariant();
        return true;
    }
    default:
        *out = text;
        return true;
    }
}

int settingsCommand(cli::Invocation& run) {
    const QString cmd = QStringLiteral("settings");
    const QStringList& args = run.positional();
    if (args.isEmpty())
        return cli::usageError(cmd, QStringLiteral("settings needs a subcommand"));
    QString error;
    if (!Startup::run(&error))
        return cli::failure(error);
    auto& d = UserDefaults::standard();
    const QString sub = args.first();
    if (sub == QLatin1String("list") && args.size() == 1) {
        for (const QString& key : d.allKeys())
            cli::out() << key << '\t' << show(d.objectForKey(key)) << Qt::endl;
        return cli::kExitOk;
    }
    if (sub == QLatin1String("get") && args.size() == 2) {
        const QVariant v = d.objectForKey(args[1]);
        if (!v.isValid())
            return cli::failure(QStringLiteral("unknown setting '%1'").arg(args[1]));
        cli::out() << show(v) << Qt::endl;
        return cli::kExitOk;
    }
    if (sub == QLatin1String("set") && args.size() == 3) {
        const QVariant like = d.registeredDefaults().value(args[1]);
        if (!like.isValid())
            return cli::usageError(cmd, QStringLiteral("unknown setting '%1'").arg(args[1]));
        QVariant value;
        QString why;
        if (!parse(like, args[2], &value, &why))
            return cli::usageError(cmd, QStringLiteral("bad value for '%1': %2").arg(args[1], why));
        if (const QString refused = PreferencesPanelController::validateSetting(args[1], value);
            !refused.isEmpty())
            return cli::usageError(cmd,
                                   QStringLiteral("cannot set '%1': %2").arg(args[1], refused));
        d.setObject(value, args[1]);
        if (!d.synchronize(&why))
            return cli::failure(QStringLiteral("cannot write %1: %2").arg(d.storePath(), why));
        return cli::kExitOk;
    }
    if (sub == QLatin1String("reset") && args.size() == 1) {
        PreferencesPanelController().onReset();
        return cli::kExitOk;
    }
    return cli::usageError(cmd, QStringLiteral("bad settings arguments"));
}

const cli::CommandRegistration registration{
    {QStringLiteral("settings"),
     {QStringLiteral("settings list"), QStringLiteral("settings get KEY"),
      QStringLiteral("settings set KEY VALUE"), QStringLiteral("settings reset")},
     QStringLiteral("show or change the stored settings"),
     QStringLiteral(
         "list prints every setting as KEY, a tab and its value; get prints one value; set "
         "stores a value, read as the type of the setting's default (YES/NO, a number, a folder "
         "for the bookmarks, JSON for lists) and checked against what the key allows; reset "
         "puts every setting back to its default.\n\n"
         "Keys with spaces are quoted: tarnwick-cli settings set \"Primary Device\" \"HD 720p\". "
         "A value that starts with a dash follows --: settings set KEY -- -1."),
     {{QStringLiteral("KEY"), QStringLiteral("a setting's name, as settings list shows it")},
      {QStringLiteral("VALUE"), QStringLiteral("its new value")}},
     {},
     false,
     QStringLiteral("0 done, 1 unknown key or the settings file cannot be written, 2 usage error "
                    "or a value the key does not allow."),
     settingsCommand}};

} // namespace
