#include "ImageTestSupport.h"
#include "core/MDB_Utility.h"

#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "tools/tmdbserver/LoopbackMovieDb.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

std::string str(const QString& s) {
    return s.toStdString();
}

// ---- titles and codes ---------------------------------------------------------------

TEST(TitleText, SearchTitlesCapitalisationSortNamesAndLocaleCodes) {
    using F = QString (*)(const QString&);
    const F name = MDB_Utility::ExtractName, caps = MDB_Utility::capitalizedStringWithRomanNumerals,
            sort = MDB_Utility::assignSortName, lang = MDB_Utility::languageCode,
            country = MDB_Utility::countryCode;
    const struct {
        F f;
        const char* in;
        const char* out;
    } rows[] = {
        // A run of more than two digits (a year, a resolution) ends the title.
        {name, "the_dark_knight_2008", "The Dark Knight"},
        // Season and episode markers, any case.
        {name, "Breaking.Bad.S01E02.720p", "Breaking Bad"},
        {name, "Series E05 Pilot", "Series"},
        // Two digits or fewer: kept after a blank, dot or underscore, dropped after a letter.
        {name, "Ocean's 11", "Ocean's 11"},
        {name, "Rocky2", "Rocky"},
        {name, "2001.A.Space.Odyssey", "2001 A Space Odyssey"},
        // The title ends before the first symbol, also outside the basic plane,
        // unless a season marker is found in the whole name.
        {name, "Star Wars™ Episode IV", "Star Wars"},
        {name, "Night \xF0\x9F\x8E\xAC Out", "Night"},
        {name, "Show + Tell S01E01", "Show + Tell"},
        // Blanks, then punctuation, then symbols at both ends, one pass each.
        {name, "Heat (1995)", "Heat "},
        {name, "GODFATHER part iii", "Godfather Part III"},
        {caps, "THE LORD OF THE RINGS", "The Lord Of The Rings"},
        {caps, "o'brien's law", "O'brien's Law"}, // words end only at blanks
        // Numeral groups match inside words, but not in the first one.
        {caps, "poison ivy", "Poison IVy"},
        {caps, "ivy league", "Ivy League"},
        {caps, "part xiii", "Part XIIi"},
        {sort, "the matrix", "matrix, The"},
        {sort, "Theory of Everything", "Theory of Everything"},
        {sort, "The", "The"},
        {sort, "The ", ", The"},
        {lang, "fr-CA", "fr"},
        {country, "en_US", "US"},
        {country, "en", ""},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.f(QString::fromUtf8(row.in)), QString::fromUtf8(row.out)) << row.in;
    EXPECT_EQ(MDB_Common::urlEncode(QString::fromUtf8("Ocean's 11 +/?%#&=Amélie-_.~")),
              "Ocean%27s%2011%20%2B%2F%3F%25%23%26%3DAm%C3%A9lie-_.~");
}

TEST(FrameSize, HDAnd1080p) {
    const struct {
        const char* size;
        bool hd;
        bool full;
    } rows[] = {
        {"1920x1080", true, true}, {"1280x544", true, false}, {"1024x576", false, false},
        {"1025x481", true, false}, {"1024x720", true, false}, {"1440x1080", true, true},
        {"1281x801", true, true},  {"1280x801", true, false}, {"1281x800", true, false},
        {"", false, false},        {"1920", false, false},    {"junk", false, false},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(MDB_Utility::isHD(r.size), r.hd) << r.size;
        EXPECT_EQ(MDB_Utility::is1080p(r.size), r.full) << r.size;
    }
}

// ---- language tables ----------------------------------------------------------------

TEST(LanguageTables, PreferredLanguagesGiveLanguagesAndRegionsAndAreRebuilt) {
    // An unknown language is left out; a repeated one counts once.
    MDB_Utility::setPreferredLanguages({"en-GB", "fr", "xx-YY", "en", "fr-CA"});
    EXPECT_EQ(MDB_Utility::iso639_1Languages().keys(), (QStringList{"en", "fr"}));
    EXPECT_EQ(MDB_Utility::languages(), (QStringList{"English", "French"}));
    for (const char* code : {"en-US", "en-GB", "fr-FR", "fr-CA"})
        EXPECT_TRUE(MDB_Utility::hasLanguageRegion(code)) << code;
    EXPECT_FALSE(MDB_Utility::hasLanguageRegion("en_GB"));
    EXPECT_FALSE(MDB_Utility::hasLanguageRegion("de-DE"));

    MDB_Utility::setPreferredLanguages({"de-AT", "ja"});
    EXPECT_EQ(MDB_Utility::languages(), (QStringList{"German", "Japanese"}));
    EXPECT_FALSE(MDB_Utility::hasLanguageRegion("fr-FR"));
    EXPECT_TRUE(MDB_Utility::hasLanguageRegion("de-CH"));
    MDB_Utility::setPreferredLanguages({});
    EXPECT_TRUE(MDB_Utility::languageRegions().isEmpty());
    MDB_Utility::setPreferredLanguages({"en-US"});

    // Both three-letter forms of a language name it; the common lists agree.
    const auto& three = MDB_Utility::iso639_2();
    EXPECT_EQ(three.value("fre"), three.value("fra"));
    EXPECT_EQ(three.value("fre"), MDB_Utility::iso639_1().value("fr"));
    const QStringList common1 = MDB_Utility::commonISO639_1();
    const QStringList common2 = MDB_Utility::commonISO639_2();
    ASSERT_EQ(common1.size(), common2.size());
    for (qsizetype i = 0; i < common1.size(); ++i)
        EXPECT_EQ(three.value(common2[i]), MDB_Utility::iso639_1().value(common1[i]));
}

// ---- temporary folder ---------------------------------------------------------------

class TempFolderTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_temp.isValid());
        UserDefaults::standard().setObject(m_temp.path(), SettingsKey::TempDirectory);
    }
    void TearDown() override { UserDefaults::standard().removeObject(SettingsKey::TempDirectory); }
    QStringList files() const { return QDir(m_temp.path()).entryList(QDir::Files | QDir::Hidden); }
    QTemporaryDir m_temp;
};

TEST_F(TempFolderTest, ImagesAreWrittenOnceAsPngAndNothingIsLeftOnFailure) {
    const MDB_Image image = imagetest::png(imagetest::solid(64, 32, Qt::red));
    bool existed = true;
    EXPECT_TRUE(MDB_Utility::copyImageToTemp(MDB_Image(), "empty", &existed).isEmpty());
    EXPECT_FALSE(existed);
    const QUrl url = MDB_Utility::copyImageToTemp(image, "poster", &existed);
    EXPECT_FALSE(existed);
    EXPECT_EQ(url.toLocalFile(), m_temp.filePath("poster.png"));
    QFile written(url.toLocalFile());
    ASSERT_TRUE(written.open(QIODevice::ReadOnly));
    EXPECT_EQ(written.readAll(), image.data()); // a PNG is copied as it is
    // A second image under the same name is not written.
    const MDB_Image other = imagetest::png(imagetest::solid(8, 8, Qt::blue));
    EXPECT_EQ(MDB_Utility::copyImageToTemp(other, "poster", &existed), url);
    EXPECT_TRUE(existed);
    EXPECT_EQ(QImage(url.toLocalFile()).size(), QSize(64, 32));

    // A JPEG is converted; without the codec module nothing is written.
    const MDB_Image jpeg = imagetest::jpeg(imagetest::gradient(50, 20));
    {
        imagetest::CodecMovedTo moved(m_temp.filePath("no-codec-here"));
        EXPECT_TRUE(MDB_Utility::copyImageToTemp(jpeg, "cover", &existed).isEmpty());
    }
    EXPECT_EQ(files(), QStringList{"poster.png"});
    const QUrl cover = MDB_Utility::copyImageToTemp(jpeg, "cover", &existed);
    const MDB_Image back = MDB_Image::fromFile(cover.toLocalFile());
    EXPECT_EQ(back.format(), MDB_Image::Format::Png);
    EXPECT_TRUE(back.hasSamePixels(jpeg));

    UserDefaults::standard().setObject(m_temp.filePath("missing/folder"),
                                       SettingsKey::TempDirectory);
    EXPECT_TRUE(MDB_Utility::copyImageToTemp(image, "again", &existed).isEmpty());
}

TEST_F(TempFolderTest, PostersAreFetchedOnceAndErrorPagesLeaveNothing) {
    LoopbackMovieDb server;
    QString error;
    ASSERT_TRUE(server.listen(0, &error)) << str(error);
    const QString images = server.baseURL() + "/t/p/";
    const QUrl poster(images + "w92/lighthouse-keeper-poster-en.jpg");
    const QUrl fetched = MDB_Utility::copyResourceToTemp(poster);
    ASSERT_EQ(fetched.toLocalFile(), m_temp.filePath("lighthouse-keeper-poster-en.jpg"));
    EXPECT_EQ(MDB_Image::fromFile(fetched.toLocalFile()).size().width(), 92);
    EXPECT_EQ(MDB_Utility::copyResourceToTemp(poster), fetched);
    EXPECT_EQ(server.requestCount(), 1);
    // Error pages and other schemes leave nothing behind.
    for (const QString& address :
         {images + "w92/no-such-poster.jpg", QStringLiteral("ftp://127.0.0.1/t/p/w92/x.jpg")})
        EXPECT_TRUE(MDB_Utility::copyResourceToTemp(QUrl(address)).isEmpty()) << str(address);
    EXPECT_EQ(files(), QStringList{"lighthouse-keeper-poster-en.jpg"});
}

} // namespace
