#include "metadata/Utility.h"

#include "core/MDB_Utility.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"

#include <QMutex>
#include <QMutexLocker>
#include <QSet>

namespace {

const QString kUnknown = QStringLiteral("Unknown");

// Movie records are filled on the database's worker threads, so the kept
// lists are shared between threads. The lock is held across a fetch so that
// two threads never fetch the same list twice.
struct GenreCache {
    QMutex mutex;
    Utility::GenreSource source;
    QStringList english;
    QString nativeLanguage;
    QStringList native;
    bool nativeKept = false;
};

GenreCache& cache() {
    static GenreCache c;
    return c;
}

} // namespace

void Utility::setGenreSource(GenreSource source) {
    GenreCache& c = cache();
    QMutexLocker lock(&c.mutex);
    c.source = std::move(source);
    c.english.clear();
    c.native.clear();
    c.nativeLanguage.clear();
    c.nativeKept = false;
}

void Utility::resetGenreCache() {
    GenreCache& c = cache();
    QMutexLocker lock(&c.mutex);
    c.english.clear();
    c.native.clear();
    c.nativeLanguage.clear();
    c.nativeKept = false;
}

QStringList Utility::tmdbEnglishGenres() {
    GenreCache& c = cache();
    QMutexLocker lock(&c.mutex);
    // An empty answer means the database could not be reached: ask again next
    // time rather than keep "no genres" for the life of the process.
    if (c.english.isEmpty() && c.source)
        c.english = c.source(QStringLiteral("en"));
    return c.english;
}

QStringList Utility::tmdbNativeGenres(const QString& languageCode) {
    GenreCache& c = cache();
    QMutexLocker lock(&c.mutex);
    if (c.nativeKept && c.nativeLanguage == languageCode)
        return c.native;
    if (!c.source)
        return {};
    c.native = c.source(languageCode);
    c.nativeLanguage = languageCode;
    c.nativeKept = !c.native.isEmpty();
    return c.native;
}

QString Utility::assignGenre(const QString& genres) {
    UserDefaults& defaults = UserDefaults::standard();
    QStringList names = genres.split(QStringLiteral(", "));

    if (!defaults.boolForKey(SettingsKey::GenreNative)) {
        const QString language =
            MDB_Utility::languageCode(defaults.stringForKey(SettingsKey::LanguageRegion));
        const QStringList native = tmdbNativeGenres(language);
        const QStringList english = tmdbEnglishGenres();
        for (QString& name : names) {
            const qsizetype i = native.indexOf(name);
            // Lists of different lengths: names past the shorter one stay as they are.
            if (i >= 0 && i < english.size())
                name = english.at(i);
        }
    }

    const QVariantMap map = defaults.dictionaryForKey(SettingsKey::GenreMap);
    QSet<QString> mapped;
    for (const QString& name : names) {
        const auto it = map.constFind(name);
        // An empty mapping means "no genre" (a deleted one), never a match.
        if (it != map.constEnd() && !it->toString().isEmpty())
            mapped.insert(it->toString());
    }
    if (mapped.isEmpty())
        return kUnknown;

    for (const QVariant& genre : defaults.arrayForKey(SettingsKey::GenreList)) {
        const QString g = genre.toString();
        if (mapped.contains(g))
            return g;
    }
    return kUnknown;
}
