#include "core/MDB_Utility.h"

#include "core/AtomicFile.h"
#include "core/HttpClient.h"
#include "core/PropertyList.h"
#include "core/Resources.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QMutex>
#include <QMutexLocker>
#include <QRegularExpression>
#include <QSaveFile>
#include <QSet>

#include <algorithm>
#include <climits>
#include <memory>
#include <optional>
#include <vector>

namespace {

// ---- characters --------------------------------------------------------------

// The code point starting at `i` and its length in UTF-16 units.
char32_t codePointAt(const QString& s, qsizetype i, int* units) {
    const QChar c = s.at(i);
    if (c.isHighSurrogate() && i + 1 < s.size() && s.at(i + 1).isLowSurrogate()) {
        *units = 2;
        return QChar::surrogateToUcs4(c, s.at(i + 1));
    }
    *units = 1;
    return c.unicode();
}

// The code point ending just before `end` and its length in UTF-16 units.
char32_t codePointBefore(const QString& s, qsizetype end, int* units) {
    const QChar c = s.at(end - 1);
    if (c.isLowSurrogate() && end >= 2 && s.at(end - 2).isHighSurrogate()) {
        *units = 2;
        return QChar::surrogateToUcs4(s.at(end - 2), c);
    }
    *units = 1;
    return c.unicode();
}

// Unicode general categories S* (math, currency, modifier and other symbols).
bool isSymbol(char32_t cp) {
    return QChar::isSymbol(cp);
}
// Unicode general categories P*.
bool isPunctuation(char32_t cp) {
    return QChar::isPunct(cp);
}
// White space and line ends.
bool isWhiteSpaceOrNewline(char32_t cp) {
    return QChar::isSpace(cp);
}

// Removes characters of one class from both ends.
QString trimmed(const QString& s, bool (*inClass)(char32_t)) {
    qsizetype begin = 0;
    qsizetype end = s.size();
    while (begin < end) {
        int units = 1;
        if (!inClass(codePointAt(s, begin, &units)))
            break;
        begin += units;
    }
    while (end > begin) {
        int units = 1;
        if (!inClass(codePointBefore(s, end, &units)))
            break;
        end -= units;
    }
    return s.mid(begin, end - begin);
}

// Upper-cases the first letter of every blank-delimited word and lower-cases the rest.
QString titleCased(const QString& s) {
    QString out;
    out.reserve(s.size());
    bool wordStart = true;
    qsizetype i = 0;
    while (i < s.size()) {
        int units = 1;
        const char32_t cp = codePointAt(s, i, &units);
        const QString piece = s.mid(i, units);
        if (isWhiteSpaceOrNewline(cp)) {
            out += piece;
            wordStart = true;
        } else {
            out += wordStart ? piece.toUpper() : piece.toLower();
            wordStart = false;
        }
        i += units;
    }
    return out;
}

// The integer a string starts with (after blanks), 0 when there is none.
int leadingInteger(const QString& s) {
    static const QRegularExpression number(QStringLiteral("^\\s*([+-]?\\d+)"));
    const QRegularExpressionMatch m = number.match(s);
    if (!m.hasMatch())
        return 0;
    bool ok = false;
    const qlonglong value = m.captured(1).toLongLong(&ok);
    if (!ok)
        return m.captured(1).startsWith(QLatin1Char('-')) ? INT_MIN : INT_MAX;
    return int(std::clamp<qlonglong>(value, INT_MIN, INT_MAX));
}

// Width and height of a frame-size string such as "1920x1080"; false when there is no "x".
bool frameSize(const QString& size, int* width, int* height) {
    const QStringList parts = size.split(QLatin1Char('x'));
    if (parts.size() < 2)
        return false;
    *width = leadingInteger(parts.at(0));
    *height = leadingInteger(parts.at(1));
    return true;
}

// ---- tables ------------------------------------------------------------------

using StringTable = OrderedDictionary<QString, QString>;

QVariantMap isoPropertyList() {
    static const QVariantMap plist =
        Resources::loadPropertyList(QStringLiteral("ISO-639.plist")).toMap();
    return plist;
}

StringTable sortedTable(const QString& key) {
    // A QVariantMap iterates its keys in plain string order already.
    const QVariantMap dict = isoPropertyList().value(key).toMap();
    StringTable table;
    for (auto it = dict.cbegin(); it != dict.cend(); ++it)
        table.insert(it.key(), it.value().toString());
    return table;
}

QStringList stringArray(const QString& key) {
    QStringList out;
    for (const QVariant& v : isoPropertyList().value(key).toList())
        out.append(v.toString());
    return out;
}

// The tables that depend on the preferred languages; replaced (never freed, so
// references handed out earlier stay valid) when the language list changes.
struct LanguageState {
    QMutex mutex;
    std::optional<QStringList> preferred;
    StringTable* languages = nullptr;
    QList<MDB_Utility::LanguageRegion>* regions = nullptr;
    std::vector<std::unique_ptr<StringTable>> languageTables;
    std::vector<std::unique_ptr<QList<MDB_Utility::LanguageRegion>>> regionTables;
};

LanguageState& languageState() {
    static LanguageState state;
    return state;
}

QStringList preferredLanguagesLocked(const LanguageState& state) {
    if (state.preferred)
        return *state.preferred;
    // The C (POSIX) locale behaves as American English; its UI language "C"
    // names no language.
    QStringList languages = QLocale::system().uiLanguages();
    for (QString& language : languages) {
        if (language == QLatin1String("C") || language == QLatin1String("POSIX"))
            language = QStringLiteral("en-US");
    }
    return languages;
}

const StringTable& languagesLocked(LanguageState& state) {
    if (state.languages)
        return *state.languages;
    const StringTable& known = MDB_Utility::iso639_1();
    auto table = std::make_unique<StringTable>();
    for (const QString& entry : preferredLanguagesLocked(state)) {
        const QString code = entry.size() >= 3 ? entry.left(2) : entry;
        if (!known.contains(code)) {
            qWarning("%s", qPrintable(QStringLiteral("Language %1 not supported.\n").arg(code)));
            continue;
        }
        if (!table->contains(code))
            table->insert(code, known.value(code));
    }
    state.languages = table.get();
    state.languageTables.push_back(std::move(table));
    return *state.languages;
}

const QList<MDB_Utility::LanguageRegion>& regionsLocked(LanguageState& state) {
    if (state.regions)
        return *state.regions;
    const StringTable& languages = languagesLocked(state);
    auto regions = std::make_unique<QList<MDB_Utility::LanguageRegion>>();
    QSet<QString> seen;
    const QList<QLocale> locales =
        QLocale::matchingLocales(QLocale::AnyLanguage, QLocale::AnyScript, QLocale::AnyTerritory);
    for (const QLocale& locale : locales) {
        const QString identifier = locale.name(); // "en_US"
        if (identifier.size() != 5 || !identifier.contains(QLatin1Char('_')))
            continue;
        if (!languages.contains(MDB_Utility::languageCode(identifier)))
            continue;
        if (locale.nativeLanguageName().isEmpty() || locale.nativeTerritoryName().isEmpty())
            continue; // variants without names of their own, such as en_US_POSIX
        QString code = identifier;
        code.replace(QLatin1Char('_'), QLatin1Char('-'));
        if (seen.contains(code))
            continue; // several scripts of one language and territory share a name
        seen.insert(code);
        regions->append({code, locale.nativeLanguageName() + QStringLiteral(" (") +
                                   locale.nativeTerritoryName() + QLatin1Char(')')});
    }
    std::sort(regions->begin(), regions->end(),
              [](const auto& a, const auto& b) { return a.code < b.code; });
    state.regions = regions.get();
    state.regionTables.push_back(std::move(regions));
    return *state.regions;
}

QString tempDirectory() {
    return UserDefaults::standard().stringForKey(QString::fromLatin1(SettingsKey::TempDirectory));
}

} // namespace

// ---- names -------------------------------------------------------------------

QString MDB_Utility::ExtractName(const QString& name) {
    QString title = name;

    // Everything before the first symbol character.
    for (qsizetype i = 0; i < name.size();) {
        int units = 1;
        if (isSymbol(codePointAt(name, i, &units))) {
            title = name.left(i);
            break;
        }
        i += units;
    }

    // A season or episode marker anywhere in the name wins.
    static const QRegularExpression marker(QStringLiteral("s\\d+|e\\d+"),
                                           QRegularExpression::CaseInsensitiveOption |
                                               QRegularExpression::UseUnicodePropertiesOption);
    const QRegularExpressionMatch markerMatch = marker.match(name);
    if (markerMatch.hasMatch())
        title = name.left(markerMatch.capturedStart());

    // The first run of digits: a year is dropped, a short sequel number kept
    // when it stands apart from the word before it.
    static const QRegularExpression digits(QStringLiteral("\\d+"),
                                           QRegularExpression::UseUnicodePropertiesOption);
    const QRegularExpressionMatch run = digits.match(title);
    if (run.hasMatch() && run.capturedStart() > 0) {
        const qsizetype start = run.capturedStart();
        const qsizetype end = run.capturedEnd();
        if (run.capturedLength() > 2) {
            title = title.left(start);
        } else {
            const QChar before = title.at(start - 1);
            if (before.isSpace() || before == QLatin1Char('.') || before == QLatin1Char('_'))
                title = title.left(end);
            else
                title = title.left(start);
        }
    }

    title.replace(QLatin1Char('.'), QLatin1Char(' '));
    title.replace(QLatin1Char('_'), QLatin1Char(' '));

    title = trimmed(title, isWhiteSpaceOrNewline);
    title = trimmed(title, isPunctuation);
    title = trimmed(title, isSymbol);

    return capitalizedStringWithRomanNumerals(title);
}

QString MDB_Utility::capitalizedStringWithRomanNumerals(const QString& string) {
    // " XII" appears twice and thirteen not at all; the groups are matched
    // inside words too ("Ivy" becomes "IVy").
    static const char* const numerals[] = {
        " I",  " II",  " III", " IV",  " V",  " VI",  " VII",  " VIII",  " IX",  " X",
        " XI", " XII", " XII", " XIV", " XV", " XVI", " XVII", " XVIII", " XIX", " XX",
    };
    QString out = titleCased(string);
    for (const char* numeral : numerals)
        out.replace(QLatin1String(numeral), QLatin1String(numeral), Qt::CaseInsensitive);
    return out;
}

QString MDB_Utility::assignSortName(const QString& title) {
    if (title.size() < 4)
        return title;
    const QString prefix = title.left(4);
    if (prefix.compare(QLatin1String("the "), Qt::CaseInsensitive) == 0)
        return title.mid(4) + QStringLiteral(", The");
    // A four-character prefix is compared with a two-character article, so it
    // never matches: titles beginning with "A " keep their form.
    if (prefix.compare(QLatin1String("a "), Qt::CaseInsensitive) == 0)
        return title.mid(4) + QStringLiteral(", A");
    return title;
}

QString MDB_Utility::languageCode(const QString& localeCode) {
    return localeCode.left(2);
}

QString MDB_Utility::countryCode(const QString& localeCode) {
    return localeCode.mid(3);
}

QUrl MDB_Utility::iTunesPath() {
    // The "com.apple.iApps" preferences (iTunesRecentDatabasePaths) do not exist
    // here, so the library file is always looked for at its usual place.
    const QString path =
        QDir::homePath() + QStringLiteral("/Music/iTunes/iTunes Music Library.xml");
    const QVariant library = PropertyList::readFile(path);
    if (library.typeId() != QMetaType::QVariantMap)
        return {};
    const QVariant folder = library.toMap().value(QStringLiteral("Music Folder"));
    if (folder.typeId() != QMetaType::QString)
        return {};
    return QUrl(folder.toString());
}

// ---- language tables -----------------------------------------------------------

const OrderedDictionary<QString, QString>& MDB_Utility::iso639_1() {
    static const StringTable table = sortedTable(QStringLiteral("ISO-639-1"));
    return table;
}

const OrderedDictionary<QString, QString>& MDB_Utility::iso639_2() {
    static const StringTable table = sortedTable(QStringLiteral("ISO-639-2"));
    return table;
}

QStringList MDB_Utility::commonISO639_1() {
    return stringArray(QStringLiteral("ISO-639-1 Common"));
}

QStringList MDB_Utility::commonISO639_2() {
    return stringArray(QStringLiteral("ISO-639-2 Common"));
}

const OrderedDictionary<QString, QString>& MDB_Utility::iso639_1Languages() {
    LanguageState& state = languageState();
    QMutexLocker lock(&state.mutex);
    return languagesLocked(state);
}

QStringList MDB_Utility::languages() {
    QStringList names = iso639_1Languages().values();
    std::stable_sort(names.begin(), names.end(), [](const QString& a, const QString& b) {
        return a.compare(b, Qt::CaseInsensitive) < 0;
    });
    return names;
}

const QList<MDB_Utility::LanguageRegion>& MDB_Utility::languageRegions() {
    LanguageState& state = languageState();
    QMutexLocker lock(&state.mutex);
    return regionsLocked(state);
}

bool MDB_Utility::hasLanguageRegion(const QString& code) {
    const QList<LanguageRegion>& regions = languageRegions();
    return std::any_of(regions.cbegin(), regions.cend(),
                       [&](const LanguageRegion& r) { return r.code == code; });
}

void MDB_Utility::setPreferredLanguages(const QStringList& languages) {
    LanguageState& state = languageState();
    QMutexLocker lock(&state.mutex);
    state.preferred = languages;
    state.languages = nullptr;
    state.regions = nullptr;
}

QStringList MDB_Utility::preferredLanguages() {
    LanguageState& state = languageState();
    QMutexLocker lock(&state.mutex);
    return preferredLanguagesLocked(state);
}

// ---- frame sizes and images ------------------------------------------------------

bool MDB_Utility::isHD(const QString& size) {
    int width = 0;
    int height = 0;
    if (!frameSize(size, &width, &height))
        return false;
    return height > 719 || width > 1279 || (height > 480 && width > 1024);
}

bool MDB_Utility::is1080p(const QString& size) {
    int width = 0;
    int height = 0;
    if (!frameSize(size, &width, &height))
        return false;
    return height > 1079 || width > 1919 || (height > 800 && width > 1280);
}

QSize MDB_Utility::imageSize(const MDB_Image& image) {
    // One encoded picture: the size its header gives is the largest there is.
    return image.size();
}

QUrl MDB_Utility::copyResourceToTemp(const QUrl& url) {
    const QString folder = tempDirectory();
    const QString fileName = QFileInfo(url.path()).fileName();
    if (folder.isEmpty() || fileName.isEmpty())
        return {};
    const QString target = QDir(folder).filePath(fileName);
    if (!QFileInfo::exists(target)) {
        QByteArray contents;
        if (url.isLocalFile()) {
            QFile source(url.toLocalFile());
            if (!source.open(QIODevice::ReadOnly))
                return {};
            contents = source.readAll();
            if (source.error() != QFileDevice::NoError)
                return {};
        } else {
            const QString scheme = url.scheme().toLower();
            if (scheme != QLatin1String("http") && scheme != QLatin1String("https"))
                return {};
            // An error page or a cut-off transfer must not become the cached copy.
            const HttpClient::Response response = HttpClient::get(url);
            if (!response.ok())
                return {};
            contents = response.body;
        }
        QSaveFile file(target);
        if (!file.open(QIODevice::WriteOnly) || file.write(contents) != contents.size() ||
            !file.commit())
            return {};
    }
    return QUrl::fromLocalFile(target);
}

QUrl MDB_Utility::copyImageToTemp(const MDB_Image& image, const QString& name, bool* existed) {
    const QString folder = tempDirectory();
    if (folder.isEmpty()) {
        if (existed)
            *existed = false;
        return {};
    }
    const QString target = QDir(folder).filePath(name + QStringLiteral(".png"));
    if (QFileInfo::exists(target)) {
        if (existed)
            *existed = true;
        return QUrl::fromLocalFile(target);
    }
    if (existed)
        *existed = false;
    if (image.isNull())
        return {};
    QString why;
    const QByteArray png = image.pngData(&why);
    if (png.isEmpty()) {
        qWarning("Tarnwick: cannot copy the image to %s: %s", qPrintable(target), qPrintable(why));
        return {};
    }
    if (!AtomicFile::write(target, png, &why)) {
        qWarning("Tarnwick: cannot write the image %s: %s", qPrintable(target), qPrintable(why));
        return {};
    }
    return QUrl::fromLocalFile(target);
}

// ---- MDB_Common ------------------------------------------------------------------

QString MDB_Common::urlEncode(const QString& string) {
    // Everything but letters, digits and -._~ is escaped; the named set is
    // listed to make the contract visible.
    static const QByteArray alwaysEscaped = QByteArrayLiteral("!*'\"();:@&=+$,/?%#[] ");
    return QString::fromLatin1(QUrl::toPercentEncoding(string, QByteArray(), alwaysEscaped));
}

QVariant MDB_Common::parseMovieFileName(const QString& string) {
    Q_UNUSED(string);
    return {};
}
