#pragma once

#include <QString>
#include <QStringList>

#include <functional>

// Picks a movie's one iTunes genre by the user's rules ("Genre List" and
// "Genre Map"), turning genre names the movie database gave in the user's
// language back into English first unless "Genre Native" is on.
class Utility {
public:
    // The database's genre list in a language ("en", "de", ...), position-aligned
    // across languages; an empty list when it cannot be had.
    using GenreSource = std::function<QStringList(const QString& languageCode)>;

    // genres: the database's genres of one movie joined by ", ". Answers the
    // highest genre of "Genre List" that one of them maps to, else "Unknown".
    static QString assignGenre(const QString& genres);

    // The database's genres in English, fetched once and kept.
    static QStringList tmdbEnglishGenres();
    // The database's genres in a language; kept while the language stays the same.
    static QStringList tmdbNativeGenres(const QString& languageCode);

    // Where the genre lists come from (the movie database client). Without a
    // source both lists are empty, as when the database cannot be reached.
    // Setting a source drops the kept lists.
    static void setGenreSource(GenreSource source);
    // Drops the kept lists so that the next call asks the source again.
    static void resetGenreCache();
};
