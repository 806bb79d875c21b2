#include "metadata/MDB_Certifications.h"

#include <gtest/gtest.h>

namespace {

using C = MDB_Certifications;

TEST(CertificationsTable, UnknownCountriesFallBackToTheUsTableAndOnlyTheFirstEntryIsAnswered) {
    EXPECT_EQ(C::certificationCodes("ZZ"), C::certificationCodes("US"));
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
        // The database's bare numbers are found inside the German names.
        {"6", "DE", "de-movie|Ab 6 Jahren|100|"},
        // Movie names win over the TV ratings of the same name.
        {"PG", "CA", "ca-movie|PG|200|"},
        {"E", "CA", "ca-tv|E|000|"},
        {"", "DE", "de-movie|Ab 0 Jahren|075|"},
        // No entry holds it at all: the least restricted entry.
        {"15A", "IE", "ie-movie|Not Rated|000|"},
        {"PG", "ZZ", nullptr},
    };
    for (const auto& c : cases)
        EXPECT_EQ(C::ratingCode(c.name, c.country), c.code ? QString(c.code) : QString())
            << c.name << " " << c.country;
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
        // Past every ordinary rating: the unrated catch-all rather than the mildest.
        {"uk-movie|R18|600|", "US", false, "mpaa|Unrated|900|"},
        // The same country keeps the code; "mpaa" is not "US".
        {"uk-tv|Caution|500|odd", "GB", true, "uk-tv|Caution|500|odd"},
        {"mpaa|PG-13|300|", "US", true, "us-tv|TV-G|300|"},
        // The TV flag keeps to TV ratings, or the first entry where there are none.
        {"us-tv|TV-14|500|", "DE", true, "de-tv|Ab 16 Jahren|500|"},
        {"us-tv|TV-PG|400|", "JP", true, "jp-movie|G|100|"},
        // A rank that is no number counts as 0.
        {"fr-movie|Unrated|???|", "US", false, "mpaa|NR|000|"},
        {"mpaa|PG-13|300|", "ZZ", false, nullptr},
        {"mpaa|PG-13", "GB", false, nullptr},
    };
    for (const auto& c : cases)
        EXPECT_EQ(C::certificationTranslate(c.code, c.country, c.tv),
                  c.expected ? QString(c.expected) : QString())
            << c.code << " -> " << c.country;
    EXPECT_TRUE(C::ratingTranslate("PG", "ZZ", "GB", false).isNull());
}

} // namespace
