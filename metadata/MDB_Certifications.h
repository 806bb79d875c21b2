#pragma once

#include <QString>
#include <QStringList>

// Content ratings in their three forms: the name users and the movie database
// know ("PG-13"), the rating string stored in files ("mpaa|PG-13|300|"), and
// the same rating in another country's scale. Every call reads
// Certifications.plist afresh, so an edited table takes effect at once.
//
// "None" is a null QString. Operations marked "US fallback" answer the "US"
// entries for a country the table does not hold.
class MDB_Certifications {
public:
    // Every country code of the table, in no particular order.
    static QStringList countries();
    // The rating strings of the country's entries, in table order (US fallback).
    static QStringList certificationCodes(const QString& country);
    // The rating names of the country's entries, in table order (US fallback).
    static QStringList certificationNames(const QString& country);
    // The rating string of the country's first entry for index 0, none for any
    // other index (US fallback).
    static QString certification(const QString& country, qint64 index);

    // The rating string for a rating name: exact name, else the first name
    // containing it, else the first entry; "" gives the first entry. None for
    // an unknown country.
    static QString ratingCode(const QString& rating, const QString& countryCode);
    // A rating string in the target country's scale: the first entry (TV
    // entries only when tvCert) whose rank reaches the source rank, else the
    // target's first entry. None for an unknown target or a code with fewer
    // than three fields.
    static QString certificationTranslate(const QString& code, const QString& countryCode,
                                          bool tvCert);
    static QString ratingTranslate(const QString& rating, const QString& countryCode,
                                   const QString& newCountry, bool tvCert);

    // "%@|%@|%@|" of type, rating and rank.
    static QString makeCode(const QString& type, const QString& rating, const QString& rank);
};
