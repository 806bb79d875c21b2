#pragma once

#include "core/MDB_Image.h"
#include "core/OrderedDictionary.h"
#include "mp4/mp4.h"

#include <QSize>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <QVariant>

// Shared naming, language and file helpers; stateless apart from tables built
// once per process.
class MDB_Utility {
public:
    struct LanguageRegion {
        QString code;        // "en-US"
        QString displayName; // in the region's own language
    };

    static QString ExtractName(const QString& name);
    static QString capitalizedStringWithRomanNumerals(const QString& string);
    static QString assignSortName(const QString& title);
    static QString languageCode(const QString& localeCode);
    static QString countryCode(const QString& localeCode);
    static QUrl iTunesPath();

    // Code -> English name from ISO-639.plist, keys sorted; built once.
    static const OrderedDictionary<QString, QString>& iso639_1();
    static const OrderedDictionary<QString, QString>& iso639_2();
    // Codes of the commonly used languages, in menu order.
    static QStringList commonISO639_1();
    static QStringList commonISO639_2();
    // Code -> name of the preferred languages, in preference order; built once.
    static const OrderedDictionary<QString, QString>& iso639_1Languages();
    static QStringList languages();
    // Regional variants (locale names of five characters, such as en_US) of the
    // preferred languages, ordered by code; built once.
    static const QList<LanguageRegion>& languageRegions();
    static bool hasLanguageRegion(const QString& code);

    static bool isHD(const QString& size);
    static bool is1080p(const QString& size);
    static QSize imageSize(const MDB_Image& image);
    // Copies a file, http or https address into the temporary folder once;
    // none when it cannot be read or the server answers with an error.
    static QUrl copyResourceToTemp(const QUrl& url);
    // Writes the image as "<name>.png": a PNG's own bytes, anything else
    // converted through the image codec module (none when that fails).
    static QUrl copyImageToTemp(const MDB_Image& image, const QString& name, bool* existed);
    // The channel layout of an MP4 audio track: "2.0", "5.1" (MDB_UtilityChannels.cpp).
    static QString getNumAudioChannelsInMP4(MP4FileHandle handle, MP4TrackId trackId);

    // The preferred-language list the tables are built from; tests replace it
    // (and drop the cached tables) before the first use.
    static void setPreferredLanguages(const QStringList& languages);
    // The list in effect: the one set above, else the user's UI languages
    // (QLocale::system().uiLanguages(), with the C locale taken as en-US).
    static QStringList preferredLanguages();
};

class MDB_Common {
public:
    static QString urlEncode(const QString& string);
    // Always answers an invalid value: file names carry no parseable record.
    static QVariant parseMovieFileName(const QString& string);
};
