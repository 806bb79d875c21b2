#include "core/PropertyList.h"
#include "metadata/MDB_Certifications.h"

#include <QFile>
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
        ASSERT_FALSE(codes.isEmpty()) << qPrintable(country);
        bool inTv = false;
        QString lastType;
        int lastRank = -1;
        for (const QString& code : codes) {
            const QStringList f = code.split(u'|');
            ASSERT_EQ(f.size(), 4) << qPrintable(code);
            EXPECT_EQ(f[2].size(), 3) << qPrintable(code);
            bool ok = false;
            const int rank = f[2].toInt(&ok);
            EXPECT_TRUE(ok) << qPrintable(code);
            const bool tv = f[0].contains(QLatin1String("tv"));
            EXPECT_FALSE(inTv && !tv) << "movie rating after TV ratings: " << qPrintable(code);
            if (f[0] != lastType)
                lastRank = -1;
            EXPECT_GE(rank, lastRank) << "rank falls within a system: " << qPrintable(code);
            // The type's prefix names the country the table files it under.
            const QString prefix = f[0].left(2);
            const QString owner = f[0] == QLatin1String("mpaa")   ? QStringLiteral("US")
                                  : prefix == QLatin1String("uk") ? QStringLiteral("GB")
                                                                  : prefix.toUpper();
            EXPECT_EQ(owner, country) << qPrintable(code);
            inTv = tv;
            lastType = f[0];
            lastRank = rank;
        }
    }
}

TEST(CertificationsTable, NamesAndCodesAreParallelAndFallBackToUS) {
    const QStringList names = C::certificationNames(QStringLiteral("GB"));
    const QStringList codes = C::certificationCodes(QStringLiteral("GB"));
    ASSERT_EQ(names.size(), codes.size());
    for (qsizetype i = 0; i < names.size(); ++i)
        EXPECT_EQ(codes[i].split(u'|').at(1), names[i]);

    EXPECT_EQ(C::certificationCodes(QStringLiteral("ZZ")), C::certificationCodes("US"));
    EXPECT_EQ(C::certificationNames(QStringLiteral("ZZ")), C::certificationNames("US"));
    EXPECT_EQ(C::certificationNames(QStringLiteral("US")).mid(0, 6),
              (QStringList{"NR", "G", "PG", "PG-13", "R", "NC-17"}));
}

TEST(CertificationsTable, CertificationAnswersOnlyIndexZero) {
    EXPECT_EQ(C::certification(QStringLiteral("GB"), 0), C::certificationCodes("GB").first());
    EXPECT_EQ(C::certification(QStringLiteral("ZZ"), 0), QStringLiteral("mpaa|NR|000|"));
    EXPECT_TRUE(C::certification(QStringLiteral("GB"), 1).isNull());
    EXPECT_TRUE(C::certification(QStringLiteral("US"), -1).isNull());
}

TEST(CertificationsRatingCode, FindsTheDatabaseNamesOfEachCountry) {
    EXPECT_EQ(C::ratingCode("PG-13", "US"), "mpaa|PG-13|300|");
    EXPECT_EQ(C::ratingCode("NC-17", "US"), "mpaa|NC-17|500|");
    EXPECT_EQ(C::ratingCode("12A", "GB"), "uk-movie|12A|325|");
    EXPECT_EQ(C::ratingCode("R18", "GB"), "uk-movie|R18|600|");
    // The database's bare numbers are found inside the German names.
    EXPECT_EQ(C::ratingCode("0", "DE"), "de-movie|Ab 0 Jahren|075|");
    EXPECT_EQ(C::ratingCode("6", "DE"), "de-movie|Ab 6 Jahren|100|");
    EXPECT_EQ(C::ratingCode("16", "DE"), "de-movie|Ab 16 Jahren|500|");
    EXPECT_EQ(C::ratingCode("12", "FR"), "fr-movie|-12|300|");
    EXPECT_EQ(C::ratingCode("MA 15+", "AU"), "au-movie|MA 15+|375|");
    EXPECT_EQ(C::ratingCode("RP16", "NZ"), "nz-movie|RP16|375|");
    EXPECT_EQ(C::ratingCode("PG12", "JP"), "jp-movie|PG12|200|");
    // Movie names win over the TV ratings of the same name.
    EXPECT_EQ(C::ratingCode("PG", "CA"), "ca-movie|PG|200|");
    EXPECT_EQ(C::ratingCode("E", "CA"), "ca-tv|E|000|");
}

TEST(CertificationsRatingCode, EmptyUnknownAndUnmatchedNames) {
    EXPECT_EQ(C::ratingCode("", "US"), "mpaa|NR|000|");
    EXPECT_EQ(C::ratingCode("", "DE"), "de-movie|Ab 0 Jahren|075|");
    // No entry holds it at all: the least restricted entry.
    EXPECT_EQ(C::ratingCode("15A", "IE"), "ie-movie|Not Rated|000|");
    EXPECT_TRUE(C::ratingCode("PG", "ZZ").isNull());
    EXPECT_TRUE(C::ratingCode("", "").isNull());
}

TEST(CertificationsTranslate, MapsByRankIntoTheTargetScale) {
    // First GB entry with a rank of at least 300.
    EXPECT_EQ(C::certificationTranslate("mpaa|PG-13|300|", "GB", false), "uk-movie|12|300|");
    EXPECT_EQ(C::certificationTranslate("mpaa|R|400|", "DE", false), "de-movie|Ab 16 Jahren|500|");
    EXPECT_EQ(C::certificationTranslate("uk-movie|15|350|", "US", false), "mpaa|R|400|");
    EXPECT_EQ(C::certificationTranslate("de-movie|Ab 12 Jahren|200|", "FR", false),
              "fr-movie|-12|300|");
    // A three-field code with an annotation still translates.
    EXPECT_EQ(C::certificationTranslate("mpaa|PG|200|Some violence", "AU", false),
              "au-movie|PG|200|");
    // Past every ordinary rating: the unrated catch-all rather than the mildest.
    EXPECT_EQ(C::certificationTranslate("uk-movie|R18|600|", "US", false), "mpaa|Unrated|900|");
    EXPECT_EQ(C::ratingTranslate("PG-13", "US", "DE", false), "de-movie|Ab 16 Jahren|500|");
    EXPECT_EQ(C::ratingTranslate("15", "GB", "IE", false), "ie-movie|15|350|");
}

TEST(CertificationsTranslate, SameCountryKeepsTheCodeButMpaaIsNotUS) {
    EXPECT_EQ(C::certificationTranslate("uk-movie|15|350|", "GB", false), "uk-movie|15|350|");
    EXPECT_EQ(C::certificationTranslate("uk-tv|Caution|500|odd", "GB", true),
              "uk-tv|Caution|500|odd");
    EXPECT_EQ(C::certificationTranslate("us-tv|TV-14|500|V", "US", false), "us-tv|TV-14|500|V");
    // "mpaa" comes out as "MP", so even a US target goes through the table:
    // the annotation is dropped and, for TV, the rank picks a TV rating.
    EXPECT_EQ(C::certificationTranslate("mpaa|PG-13|300|Violence", "US", false), "mpaa|PG-13|300|");
    EXPECT_EQ(C::certificationTranslate("mpaa|PG-13|300|", "US", true), "us-tv|TV-G|300|");
    EXPECT_EQ(C::certificationTranslate("mpaa|R|400|", "MP", false), "mpaa|R|400|");
}

TEST(CertificationsTranslate, TvFlagKeepsToTvRatings) {
    EXPECT_EQ(C::certificationTranslate("us-tv|TV-14|500|", "DE", true), "de-tv|Ab 16 Jahren|500|");
    EXPECT_EQ(C::certificationTranslate("us-tv|TV-14|500|", "DE", false),
              "de-movie|Ab 16 Jahren|500|");
    EXPECT_EQ(C::certificationTranslate("de-tv|Ab 12 Jahren|200|", "CA", true), "ca-tv|PG|200|");
    // No TV system at all: the first entry, whatever its type.
    EXPECT_EQ(C::certificationTranslate("us-tv|TV-PG|400|", "JP", true), "jp-movie|G|100|");
    // Past every TV rank: the first entry of the whole array.
    EXPECT_EQ(C::certificationTranslate("us-tv|TV-MA|600|", "GB", true), "uk-movie|NR|000|");
}

TEST(CertificationsTranslate, OddCodes) {
    EXPECT_EQ(C::certificationTranslate("mpaa|X|1000|", "GB", false),
              C::certificationCodes("GB").first());
    // A rank that is no number counts as 0.
    EXPECT_EQ(C::certificationTranslate("fr-movie|Unrated|???|", "US", false), "mpaa|NR|000|");
    EXPECT_EQ(C::certificationTranslate("de-movie|Ab 0 Jahren|75|", "US", false), "mpaa|G|100|");
    EXPECT_TRUE(C::certificationTranslate("mpaa|PG-13|300|", "ZZ", false).isNull());
    EXPECT_TRUE(C::certificationTranslate("mpaa|PG-13|300|", "", false).isNull());
    EXPECT_TRUE(C::certificationTranslate("mpaa|PG-13", "GB", false).isNull());
    EXPECT_TRUE(C::certificationTranslate(QString(), "GB", false).isNull());
    EXPECT_TRUE(C::ratingTranslate("PG", "ZZ", "GB", false).isNull());
}

// A private table in place of the shipped one.
class CertificationsCustomTable : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        m_saved = qgetenv("TARNWICK_RESOURCES");
        qputenv("TARNWICK_RESOURCES", m_dir.path().toUtf8());
    }
    void TearDown() override { qputenv("TARNWICK_RESOURCES", m_saved); }

    void writeTable(const QVariantMap& table) {
        ASSERT_TRUE(PropertyList::writeFile(m_dir.filePath("Certifications.plist"), table));
    }
    static QVariantMap entry(const char* type, const char* rating, const char* rank) {
        return {{"type", type}, {"rating", rating}, {"rank", rank}};
    }

    QTemporaryDir m_dir;
    QByteArray m_saved;
};

TEST_F(CertificationsCustomTable, NameInsideALongerNameAndTheFirstEntryFallback) {
    writeTable(
        {{"XX", QVariantList{entry("xx-movie", "G", "100"), entry("xx-movie", "PG-13", "300"),
                             entry("xx-movie", "R", "400")}}});
    EXPECT_EQ(C::ratingCode("PG", "XX"), "xx-movie|PG-13|300|");
    EXPECT_EQ(C::ratingCode("NC-17", "XX"), "xx-movie|G|100|");
    // Neither the named country nor US in this table.
    EXPECT_TRUE(C::certificationCodes("YY").isEmpty());
    EXPECT_TRUE(C::certification("YY", 0).isNull());
}

TEST_F(CertificationsCustomTable, TableIsReadOnEveryCall) {
    writeTable({{"XX", QVariantList{entry("xx-movie", "A", "100")}}});
    EXPECT_EQ(C::countries(), QStringList{"XX"});
    EXPECT_EQ(C::certification("XX", 0), "xx-movie|A|100|");
    writeTable({{"XX", QVariantList{entry("xx-movie", "B", "200")}},
                {"US", QVariantList{entry("mpaa", "G", "100")}}});
    EXPECT_EQ(C::certification("XX", 0), "xx-movie|B|200|");
    EXPECT_EQ(C::certification("QQ", 0), "mpaa|G|100|");
    const QStringList countries = C::countries();
    EXPECT_EQ(QSet<QString>(countries.begin(), countries.end()), (QSet<QString>{"XX", "US"}));
}

TEST_F(CertificationsCustomTable, MissingOrEmptyTableAnswersNothing) {
    EXPECT_TRUE(C::countries().isEmpty());
    EXPECT_TRUE(C::ratingCode("PG", "US").isNull());
    EXPECT_TRUE(C::certificationTranslate("uk-movie|15|350|", "US", false).isNull());
    writeTable({{"XX", QVariantList{}}});
    EXPECT_TRUE(C::ratingCode("", "XX").isNull());
    EXPECT_TRUE(C::certificationTranslate("uk-movie|15|350|", "XX", false).isNull());
}

} // namespace
