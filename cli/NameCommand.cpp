// `tarnwick-cli name FILE_OR_FOLDER_NAME...`: the search title and the sort name
// the program derives from each name, one tab-separated line per argument:
//
//     ARGUMENT <tab> SEARCH TITLE <tab> SORT NAME
//
// The search title is taken from the last path component without its
// extension, as the browsers take it from a dropped file. Names of movies are
// full of dots ("The.Matrix.1999"), so a suffix counts as an extension only
// when it looks like one: two to four ASCII letters or digits beginning with a
// letter (mkv, m4v, mp4, avi, iso, ts, m2ts). An argument that names an
// existing folder keeps its whole name.
#include "cli/Commands.h"

#include "core/MDB_Utility.h"

#include <QFileInfo>

namespace {

bool looksLikeExtension(const QString& suffix) {
    if (suffix.size() < 2 || suffix.size() > 4)
        return false;
    if (!(suffix.at(0).isLetter() && suffix.at(0).unicode() < 128))
        return false;
    for (const QChar c : suffix) {
        if (c.unicode() >= 128 || !c.isLetterOrNumber())
            return false;
    }
    return true;
}

QString nameWithoutExtension(const QString& argument) {
    QString path = argument;
    while (path.size() > 1 && path.endsWith(QLatin1Char('/')))
        path.chop(1);
    const QString component = path.section(QLatin1Char('/'), -1);
    if (QFileInfo(argument).isDir())
        return component;
    const qsizetype dot = component.lastIndexOf(QLatin1Char('.'));
    if (dot <= 0)
        return component; // no dot, or a hidden-file dot
    if (!looksLikeExtension(component.mid(dot + 1)))
        return component;
    return component.left(dot);
}

int runName(cli::Invocation& run) {
    const QStringList& args = run.positional();
    if (args.isEmpty())
        return cli::usageError(QStringLiteral("name"), QStringLiteral("no name given"));
    for (const QString& argument : args) {
        const QString title = MDB_Utility::ExtractName(nameWithoutExtension(argument));
        cli::out() << argument << '\t' << title << '\t' << MDB_Utility::assignSortName(title)
                   << '\n';
    }
    cli::out().flush();
    return cli::kExitOk;
}

const cli::CommandRegistration registration({
    QStringLiteral("name"),
    {QStringLiteral("name FILE_OR_FOLDER_NAME...")},
    QStringLiteral("the search title and sort name derived from file or folder names"),
    QStringLiteral(
        "Prints one line per argument: the argument, a tab, the title the movie database is "
        "searched for, a tab, and the sort name. The title comes from the last path component "
        "without its extension (two to four letters or digits after the last dot; an existing "
        "folder keeps its whole name), with release years, resolutions, disc and codec words "
        "and the like removed. A name that starts with a dash follows --."),
    {{QStringLiteral("FILE_OR_FOLDER_NAME"), QStringLiteral("a file or folder name or path; "
                                                            "it need not exist")}},
    {},
    false,
    QStringLiteral("0 done, 2 usage error."),
    runName,
});

} // namespace
