#include "core/PropertyList.h"
#include "metadata/MDB_Certifications.h"

#include <QSet>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

using C = MDB_Certifications;

// The shipped table, as the program sees it.
TEST(CertificationsTable, HoldsTheMainCountriesWithMoviesBeforeTvInRisingRank) {
    const QStringList countries = C::countries();
    for (const char* c : {"US", "GB", "DE", "FR", "CA", "AU", "NZ", "IE", "JP"})
        EXPECT_TRUE(countries.contains(QString::fromLatin1(c))) << c;

    for (const QString& country : countries) {
        const QStringList codes = C::certificationCodes(country);
        const QStringList names = C::certificationNames(country);
        ASSERT_FALSE(codes.isEmpty()) << qPrintable(country);
        ASSERT_EQ(names.size(), codes.size());
        bool inTv = false;
        QString lastType;
        int lastRank = -1;
        for (qsizetype i = 0; i < codes.size(); ++i) {
            const QStringList f = codes[i].split(u'|');
            ASSERT_EQ(f.size(), 4) << qPrintable(codes[i]);
            EXPECT_EQ(f[1], names[i]);
            EXPECT_EQ(f[2].size(), 3) << qPrintable(codes[i]);
            const int rank = f[2].toInt();
            const bool tv = f[0].contains(QLatin1String("tv"));
            EXPECT_FALSE(inTv && !tv) << "movie rating after TV ratings: " << qPrintable(codes[i]);
            if (f[0] != lastType)
                lastRank = -1;
            EXPECT_GE(rank, lastRank) << "rank falls within a system: " << qPrintable(codes[i]);
            // The type's prefix names the country the table files it under.
            const QString prefix = f[0].left(2);
            const QString owner = f[0] == QLatin1String("mpaa")   ? QStringLiteral("US")
                                  : prefix == QLatin1String("uk") ? QStringLiteral("GB")
                                                                  : prefix.toUpper();
            EXPECT_EQ(owner, country) << qPrintable(codes[i]);
            inTv = tv;
            lastType = f[0];
            lastRank = rank;
        }
    }
    EXPECT_EQ(C::certificationCodes("ZZ"), C::certificationCodes("US"));
    EXPECT_EQ(C::certificationNames("ZZ").mid(0, 6),
              (QStringList{"NR", "G", "PG", "PG-13", "R", "NC-17"}));
    EXPECT_EQ(C::certification("GB", 0), C::certificationCodes("GB").first());
    EXPECT_EQ(C::certification("ZZ", 0), "mpaa|NR|000|");
    EXPECT_TRUE(C::certification("GB", 1).isNull());
    EXPECT_TRUE(C::certification("US", -1).isNull());
}

TEST(CertificationsRatingCode, FindsTheDatabaseNamesOfEachCountry) {
    const struct {
        const char *name, *country, *code;
    } cases[] = {
        {"PG-13", "US", "mpaa|PG-13|300|"},
        {"12A", "GB", "uk-movie|12A|325|"},
        {"R18", "GB", "uk-movie|R18|600|"},
        // The database's bare numbers are found inside the German names.
        {"6", "DE", "de-movie|Ab 6 Jahren|100|"},
        {"16", "DE", "de-movie|Ab 16 Jahren|500|"},
        {"12", "FR", "fr-movie|-12|300|"},
        {"MA 15+", "AU", "au-movie|MA 15+|375|"},
        // Movie names win over the TV ratings of the same name.
        {"PG", "CA", "ca-movie|PG|200|"},
        {"E", "CA", "ca-tv|E|000|"},
        {"", "US", "mpaa|NR|000|"},
        {"", "DE", "de-movie|Ab 0 Jahren|075|"},
        // No entry holds it at all: the least restricted entry.
        {"15A", "IE", "ie-movie|Not Rated|000|"},
        {"PG", "ZZ", nullptr},
        {"", "", nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.name) + " " + c.country);
        const QString code = C::ratingCode(c.name, c.country);
        if (c.code)
            EXPECT_EQ(code, c.code);
        else
            EXPECT_TRUE(code.isNull());
    }
}

TEST(CertificationsTranslate, MapsByRankIntoTheTargetScale) {
    const struct {
        const char* code;
        const char* country;
        bool tv;
        const char* expected;
    } cases[] = {
        // First entry of the target with a rank of at least the source's.
        {"mpaa|PG-13|300|", "GB", false, "uk-movie|12|300|"},
        {"mpaa|R|400|", "DE", false, "de-movie|Ab 16 Jahren|500|"},
        {"uk-movie|15|350|", "US", false, "mpaa|R|400|"},
        {"mpaa|PG|200|Some violence", "AU", false, "au-movie|PG|200|"},
        // Past every ordinary rating: the unrated catch-all rather than the mildest.
        {"uk-movie|R18|600|", "US", false, "mpaa|Unrated|900|"},
        // The same country keeps the code; "mpaa" is not "US".
        {"uk-tv|Caution|500|odd", "GB", true, "uk-tv|Caution|500|odd"},
        {"us-tv|TV-14|500|V", "US", false, "us-tv|TV-14|500|V"},
        {"mpaa|PG-13|300|Violence", "US", false, "mpaa|PG-13|300|"},
        {"mpaa|PG-13|300|", "US", true, "us-tv|TV-G|300|"},
        {"mpaa|R|400|", "MP", false, "mpaa|R|400|"},
        // The TV flag keeps to TV ratings, or the first entry where there are none.
        {"us-tv|TV-14|500|", "DE", true, "de-tv|Ab 16 Jahren|500|"},
        {"us-tv|TV-14|500|", "DE", false, "de-movie|Ab 16 Jahren|500|"},
        {"us-tv|TV-PG|400|", "JP", true, "jp-movie|G|100|"},
        {"us-tv|TV-MA|600|", "GB", true, "uk-movie|NR|000|"},
        {"mpaa|X|1000|", "GB", false, "uk-movie|NR|000|"},
        // A rank that is no number counts as 0.
        {"fr-movie|Unrated|???|", "US", false, "mpaa|NR|000|"},
        {"de-movie|Ab 0 Jahren|75|", "US", false, "mpaa|G|100|"},
        {"mpaa|PG-13|300|", "ZZ", false, nullptr},
        {"mpaa|PG-13|300|", "", false, nullptr},
        {"mpaa|PG-13", "GB", false, nullptr},
        {"", "GB", false, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.code) + " -> " + c.country);
        const QString out = C::certificationTranslate(c.code, c.country, c.tv);
        if (c.expected)
            EXPECT_EQ(out, c.expected);
        else
            EXPECT_TRUE(out.isNull());
    }
    EXPECT_EQ(C::ratingTranslate("PG-13", "US", "DE", false), "de-movie|Ab 16 Jahren|500|");
    EXPECT_EQ(C::ratingTranslate("15", "GB", "IE", false), "ie-movie|15|350|");
    EXPECT_TRUE(C::ratingTranslate("PG", "ZZ", "GB", false).isNull());
}

// A private table in place of the shipped one, read again on every call.
TEST(CertificationsCustomTable, NameInsideALongerNameFallbacksAndRereading) {
    QTemporaryDir dir;
    const QByteArray saved = qgetenv("TARNWICK_RESOURCES");
    qputenv("TARNWICK_RESOURCES", dir.path().toUtf8());
    const auto write = [&](const QVariantMap& table) {
        ASSERT_TRUE(PropertyList::writeFile(dir.filePath("Certifications.plist"), table));
    };
    const auto entry = [](const char* type, const char* rating, const char* rank) {
        return QVariantMap{{"type", type}, {"rating", rating}, {"rank", rank}};
    };
    EXPECT_TRUE(C::countries().isEmpty());
    EXPECT_TRUE(C::ratingCode("PG", "US").isNull());
    EXPECT_TRUE(C::certificationTranslate("uk-movie|15|350|", "US", false).isNull());

    write({{"XX", QVariantList{entry("xx-movie", "G", "100"), entry("xx-movie", "PG-13", "300")}}});
    EXPECT_EQ(C::countries(), QStringList{"XX"});
    EXPECT_EQ(C::ratingCode("PG", "XX"), "xx-movie|PG-13|300|");
    EXPECT_EQ(C::ratingCode("NC-17", "XX"), "xx-movie|G|100|");
    // Neither the named country nor US in this table.
    EXPECT_TRUE(C::certification("YY", 0).isNull());

    write({{"XX", QVariantList{}}, {"US", QVariantList{entry("mpaa", "G", "100")}}});
    EXPECT_EQ(C::certification("QQ", 0), "mpaa|G|100|");
    EXPECT_TRUE(C::ratingCode("", "XX").isNull());
    EXPECT_TRUE(C::certificationTranslate("uk-movie|15|350|", "XX", false).isNull());
    const QStringList countries = C::countries();
    EXPECT_EQ(QSet<QString>(countries.begin(), countries.end()), (QSet<QString>{"XX", "US"}));
    qputenv("TARNWICK_RESOURCES", saved);
}

} // namespace
