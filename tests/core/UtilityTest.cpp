#include "ImageTestSupport.h"
#include "core/MDB_Utility.h"

#include "core/PropertyList.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "tools/tmdbserver/LoopbackMovieDb.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

// Failure messages.
std::string str(const QString& s) {
    return s.toStdString();
}

// ---- search titles --------------------------------------------------------------

struct NameCase {
    const char* name;
    const char* title;
};

class ExtractNameTest : public ::testing::TestWithParam<NameCase> {};

TEST_P(ExtractNameTest, DerivesSearchTitle) {
    const NameCase& c = GetParam();
    EXPECT_EQ(MDB_Utility::ExtractName(QString::fromUtf8(c.name)), QString::fromUtf8(c.title))
        << "name: " << c.name;
}

INSTANTIATE_TEST_SUITE_P(
    Names, ExtractNameTest,
    ::testing::Values(
        // A run of more than two digits (a year, a resolution) ends the title.
        NameCase{"The.Matrix.1999.1080p", "The Matrix"},
        NameCase{"The.Matrix.1999.1080p.mkv", "The Matrix"},
        NameCase{"Blade Runner 2049", "Blade Runner"},
        NameCase{"the_dark_knight_2008", "The Dark Knight"},
        // Season and episode markers, any case, anywhere in the name.
        NameCase{"Breaking.Bad.S01E02.720p", "Breaking Bad"},
        NameCase{"show.name.s2e3", "Show Name"}, NameCase{"Series E05 Pilot", "Series"},
        // Two digits or fewer: kept after a blank, a dot or an underscore, dropped after a letter.
        NameCase{"Ocean's 11", "Ocean's 11"}, NameCase{"Rocky2", "Rocky"},
        NameCase{"Rocky.2", "Rocky 2"}, NameCase{"Rocky_2_extended", "Rocky 2"},
        NameCase{"Apollo 13 (1995)", "Apollo 13"},
        // Digits at the very start leave the title alone.
        NameCase{"2001.A.Space.Odyssey", "2001 A Space Odyssey"},
        // The title ends before the first symbol (Unicode S* categories),
        // including symbols outside the basic plane.
        NameCase{"Star Wars™ Episode IV", "Star Wars"}, NameCase{"Movie + Extras", "Movie"},
        NameCase{"Movie $ Money", "Movie"}, NameCase{"Night \xF0\x9F\x8E\xAC Out", "Night"},
        // ...unless a season marker is found in the whole name.
        NameCase{"Show + Tell S01E01", "Show + Tell"},
        // Trimming: blanks, then punctuation, then symbols at both ends.
        NameCase{"  [Alien]  ", "Alien"}, NameCase{"--Heat--", "Heat"},
        // One pass per class: a blank bared by removing punctuation stays.
        NameCase{"Heat (1995)", "Heat "}, NameCase{"", ""},
        // Roman numerals after capitalisation.
        NameCase{"rocky.ii", "Rocky II"}, NameCase{"GODFATHER part iii", "Godfather Part III"}));

// ---- capitalisation --------------------------------------------------------------

TEST(Capitalization, TitleCasesAndUpperCasesNumeralGroups) {
    const std::pair<const char*, const char*> rows[] = {
        {"rocky ii", "Rocky II"},
        {"THE LORD OF THE RINGS", "The Lord Of The Rings"},
        {"henry v", "Henry V"},
        {"malcolm x", "Malcolm X"},
        {"super bowl xx", "Super Bowl XX"},
        {"o'brien's law", "O'brien's Law"}, // words end only at blanks
        // Numeral groups match inside words, but not in the first one.
        {"poison ivy", "Poison IVy"},
        {"the villain", "The VIllain"},
        {"ivy league", "Ivy League"},
        {"lost in translation", "Lost In Translation"},
        {"part xii", "Part XII"},
        {"part xiii", "Part XIIi"},
        {"part xviii", "Part XVIII"},
        {"", ""}};
    for (const auto& [in, out] : rows)
        EXPECT_EQ(MDB_Utility::capitalizedStringWithRomanNumerals(in), out) << in;
}

TEST(SortName, MovesLeadingTheOnly) {
    const std::pair<const char*, const char*> rows[] = {
        {"The Matrix", "Matrix, The"},
        {"the matrix", "matrix, The"},
        {"THE END", "END, The"},
        {"A Beautiful Mind", "A Beautiful Mind"},
        {"Theory of Everything", "Theory of Everything"},
        {"Them", "Them"},
        {"", ""},
        {"A", "A"},
        {"The", "The"},
        {"The ", ", The"}};
    for (const auto& [in, out] : rows)
        EXPECT_EQ(MDB_Utility::assignSortName(in), out) << in;
}

TEST(LocaleCodes, SplitLanguageAndCountry) {
    EXPECT_EQ(MDB_Utility::languageCode("en_US"), "en");
    EXPECT_EQ(MDB_Utility::countryCode("en_US"), "US");
    EXPECT_EQ(MDB_Utility::languageCode("fr-CA"), "fr");
    EXPECT_EQ(MDB_Utility::countryCode("fr-CA"), "CA");
    EXPECT_EQ(MDB_Utility::languageCode("e"), "e");
    EXPECT_EQ(MDB_Utility::countryCode("en"), "");
}

// ---- frame sizes ------------------------------------------------------------------

TEST(FrameSize, HDAnd1080p) {
    struct Row {
        const char* size;
        bool hd;
        bool full;
    };
    const Row rows[] = {
        {"1920x1080", true, true},  {"1280x720", true, false}, {"1280x544", true, false},
        {"1024x576", false, false}, {"1025x481", true, false}, {"1024x720", true, false},
        {"720x480", false, false},  {"1920x800", true, true},  {"1440x1080", true, true},
        {"1281x801", true, true},   {"1280x801", true, false}, {"1281x800", true, false},
        {"", false, false},         {"1920", false, false},    {"junk", false, false},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(MDB_Utility::isHD(r.size), r.hd) << r.size;
        EXPECT_EQ(MDB_Utility::is1080p(r.size), r.full) << r.size;
    }
}

// ---- MDB_Common -------------------------------------------------------------------

TEST(Common, UrlEncodeEscapesReservedCharacters) {
    EXPECT_EQ(MDB_Common::urlEncode("Ocean's 11"), "Ocean%27s%2011");
    EXPECT_EQ(MDB_Common::urlEncode("!*'\"();:@&=+$,/?%#[] "),
              "%21%2A%27%22%28%29%3B%3A%40%26%3D%2B%24%2C%2F%3F%25%23%5B%5D%20");
    EXPECT_EQ(MDB_Common::urlEncode("a-b_c.d~e09"), "a-b_c.d~e09");
    EXPECT_EQ(MDB_Common::urlEncode(QString::fromUtf8("Amélie")), "Am%C3%A9lie");
    EXPECT_EQ(MDB_Common::urlEncode(""), "");
}

// ---- language tables ----------------------------------------------------------------

TEST(IsoTables, LoadedFromShippedResource) {
    const auto& two = MDB_Utility::iso639_1();
    const auto& three = MDB_Utility::iso639_2();
    ASSERT_GT(two.size(), 100);
    ASSERT_GT(three.size(), two.size());
    EXPECT_EQ(two.value("en"), "English");
    EXPECT_EQ(two.value("fr"), "French");
    EXPECT_EQ(three.value("eng"), "English");
    // Terminologic and bibliographic codes both resolve.
    EXPECT_EQ(three.value("fra"), "French");
    EXPECT_EQ(three.value("fre"), "French");
    EXPECT_EQ(three.value("deu"), "German");
    EXPECT_EQ(three.value("ger"), "German");
    EXPECT_EQ(three.value("zho"), three.value("chi"));
    const QStringList common1 = MDB_Utility::commonISO639_1();
    const QStringList common2 = MDB_Utility::commonISO639_2();
    ASSERT_EQ(common1.size(), common2.size());
    for (qsizetype i = 0; i < common1.size(); ++i)
        EXPECT_EQ(three.value(common2[i]), two.value(common1[i])) << str(common2[i]);
}

class LanguageTablesTest : public ::testing::Test {
protected:
    void TearDown() override { MDB_Utility::setPreferredLanguages({"en-US"}); }
};

QStringList regionCodes() {
    QStringList codes;
    for (const auto& region : MDB_Utility::languageRegions())
        codes.append(region.code);
    return codes;
}

QStringList messages;
void captureMessage(QtMsgType, const QMessageLogContext&, const QString& message) {
    messages.append(message);
}

TEST_F(LanguageTablesTest, PreferredLanguagesGiveLanguagesAndRegions) {
    messages.clear();
    const QtMessageHandler previous = qInstallMessageHandler(captureMessage);
    MDB_Utility::setPreferredLanguages({"en-GB", "fr", "xx-YY", "en", "fr-CA"});
    const auto& languages = MDB_Utility::iso639_1Languages();
    qInstallMessageHandler(previous);

    EXPECT_EQ(languages.keys(), (QStringList{"en", "fr"}));
    EXPECT_EQ(languages.value("fr"), "French");
    EXPECT_TRUE(messages.contains("Language xx not supported.\n")) << str(messages.join("|"));

    EXPECT_EQ(MDB_Utility::languages(), (QStringList{"English", "French"}));

    const QStringList codes = regionCodes();
    for (const char* code : {"en-US", "en-GB", "fr-FR", "fr-CA"})
        EXPECT_TRUE(codes.contains(code)) << str(code);
    EXPECT_FALSE(codes.contains("de-DE"));
    EXPECT_TRUE(MDB_Utility::hasLanguageRegion("en-GB"));
    EXPECT_FALSE(MDB_Utility::hasLanguageRegion("en_GB"));
    EXPECT_FALSE(MDB_Utility::hasLanguageRegion("de-DE"));
}

TEST_F(LanguageTablesTest, NewLanguageListRebuildsTables) {
    MDB_Utility::setPreferredLanguages({"fr"});
    EXPECT_EQ(MDB_Utility::iso639_1Languages().keys(), QStringList{"fr"});
    EXPECT_TRUE(MDB_Utility::hasLanguageRegion("fr-FR"));
    MDB_Utility::setPreferredLanguages({"de-AT", "ja"});
    EXPECT_EQ(MDB_Utility::iso639_1Languages().keys(), (QStringList{"de", "ja"}));
    EXPECT_EQ(MDB_Utility::languages(), (QStringList{"German", "Japanese"}));
    EXPECT_FALSE(MDB_Utility::hasLanguageRegion("fr-FR"));
    EXPECT_TRUE(MDB_Utility::hasLanguageRegion("ja-JP"));
    EXPECT_TRUE(MDB_Utility::hasLanguageRegion("de-CH"));
    MDB_Utility::setPreferredLanguages({});
    EXPECT_TRUE(MDB_Utility::iso639_1Languages().isEmpty());
    EXPECT_TRUE(MDB_Utility::languageRegions().isEmpty());
}

// ---- temporary folder ---------------------------------------------------------------

class TempFolderTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_temp.isValid());
        m_previous = UserDefaults::standard().objectForKey(SettingsKey::TempDirectory);
        UserDefaults::standard().setObject(m_temp.path(), SettingsKey::TempDirectory);
    }
    void TearDown() override {
        if (m_previous.isValid())
            UserDefaults::standard().setObject(m_previous, SettingsKey::TempDirectory);
        else
            UserDefaults::standard().removeObject(SettingsKey::TempDirectory);
    }
    QTemporaryDir m_temp;
    QTemporaryDir m_source;
    QVariant m_previous;
};

TEST_F(TempFolderTest, CopyImageWritesPngOnceAndReportsExisting) {
    const MDB_Image image = imagetest::png(imagetest::solid(64, 32, Qt::red));
    bool existed = true;
    const QUrl url = MDB_Utility::copyImageToTemp(image, "poster", &existed);
    EXPECT_FALSE(existed);
    ASSERT_TRUE(url.isLocalFile());
    EXPECT_EQ(url.toLocalFile(), m_temp.filePath("poster.png"));
    QImage back(url.toLocalFile(), "PNG");
    ASSERT_FALSE(back.isNull());
    EXPECT_EQ(back.size(), QSize(64, 32));
    EXPECT_EQ(QColor(back.pixel(3, 3)), QColor(Qt::red));
    EXPECT_EQ(QDir(m_temp.path()).entryList(QDir::Files), QStringList{"poster.png"});
    // A PNG is copied as it is, not encoded again.
    QFile written(url.toLocalFile());
    ASSERT_TRUE(written.open(QIODevice::ReadOnly));
    EXPECT_EQ(written.readAll(), image.data());

    // A second image under the same name is not written.
    const MDB_Image other = imagetest::png(imagetest::solid(8, 8, Qt::blue));
    const QUrl again = MDB_Utility::copyImageToTemp(other, "poster", &existed);
    EXPECT_TRUE(existed);
    EXPECT_EQ(again, url);
    EXPECT_EQ(QImage(url.toLocalFile()).size(), QSize(64, 32));
}

TEST_F(TempFolderTest, CopyImageFailsForNullImageOrMissingFolder) {
    bool existed = true;
    EXPECT_TRUE(MDB_Utility::copyImageToTemp(MDB_Image(), "empty", &existed).isEmpty());
    EXPECT_FALSE(existed);
    EXPECT_FALSE(QFileInfo::exists(m_temp.filePath("empty.png")));

    UserDefaults::standard().setObject(m_temp.filePath("missing/folder"),
                                       SettingsKey::TempDirectory);
    const MDB_Image image = imagetest::png(imagetest::solid(4, 4, Qt::green));
    EXPECT_TRUE(MDB_Utility::copyImageToTemp(image, "poster", &existed).isEmpty());
}

TEST_F(TempFolderTest, CopyImageConvertsAJpegAndWritesNothingWithoutTheCodec) {
    const MDB_Image jpeg = imagetest::jpeg(imagetest::gradient(50, 20));
    ASSERT_EQ(jpeg.format(), MDB_Image::Format::Jpeg);
    bool existed = true;
    {
        imagetest::CodecMovedTo moved(m_source.filePath("no-codec-here"));
        EXPECT_TRUE(MDB_Utility::copyImageToTemp(jpeg, "cover", &existed).isEmpty());
    }
    EXPECT_FALSE(existed);
    EXPECT_TRUE(QDir(m_temp.path()).entryList(QDir::Files | QDir::Hidden).isEmpty());

    const QUrl url = MDB_Utility::copyImageToTemp(jpeg, "cover", &existed);
    ASSERT_EQ(url.toLocalFile(), m_temp.filePath("cover.png"));
    QString error;
    const MDB_Image written = MDB_Image::fromFile(url.toLocalFile(), &error);
    ASSERT_FALSE(written.isNull()) << error.toStdString();
    EXPECT_EQ(written.format(), MDB_Image::Format::Png);
    EXPECT_EQ(written.size(), QSize(50, 20));
    EXPECT_TRUE(written.hasSamePixels(jpeg));
}

TEST_F(TempFolderTest, CopyResourceReusesExistingCopy) {
    const QString sourcePath = m_source.filePath("Certifications.plist");
    {
        QFile f(sourcePath);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write("first");
    }
    const QUrl copy = MDB_Utility::copyResourceToTemp(QUrl::fromLocalFile(sourcePath));
    ASSERT_EQ(copy.toLocalFile(), m_temp.filePath("Certifications.plist"));
    QFile c(copy.toLocalFile());
    ASSERT_TRUE(c.open(QIODevice::ReadOnly));
    EXPECT_EQ(c.readAll(), "first");
    c.close();

    {
        QFile f(sourcePath);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write("second");
    }
    EXPECT_EQ(MDB_Utility::copyResourceToTemp(QUrl::fromLocalFile(sourcePath)), copy);
    ASSERT_TRUE(c.open(QIODevice::ReadOnly));
    EXPECT_EQ(c.readAll(), "first");
}

TEST_F(TempFolderTest, CopyResourceFetchesPostersOverHttpOnce) {
    LoopbackMovieDb server;
    QString error;
    ASSERT_TRUE(server.listen(0, &error)) << str(error);
    const QString images = server.baseURL() + "/t/p/";

    const QUrl poster(images + "w92/lighthouse-keeper-poster-en.jpg");
    const QUrl copy = MDB_Utility::copyResourceToTemp(poster);
    ASSERT_EQ(copy.toLocalFile(), m_temp.filePath("lighthouse-keeper-poster-en.jpg"));
    const MDB_Image image = MDB_Image::fromFile(copy.toLocalFile(), &error);
    ASSERT_FALSE(image.isNull()) << str(error);
    EXPECT_EQ(image.size().width(), 92);
    // The copy is the cache: asking again does not fetch again.
    EXPECT_EQ(MDB_Utility::copyResourceToTemp(poster), copy);
    EXPECT_EQ(server.requestCount(), 1);

    // Error pages (unknown image, unknown size) and other schemes leave nothing behind.
    for (const QString& address :
         {images + "w92/no-such-poster.jpg", images + "w3/harbour-lights-poster.jpg",
          QStringLiteral("ftp://127.0.0.1/t/p/w92/ftp-poster.jpg")})
        EXPECT_TRUE(MDB_Utility::copyResourceToTemp(QUrl(address)).isEmpty()) << str(address);
    EXPECT_EQ(QDir(m_temp.path()).entryList(QDir::Files | QDir::Hidden),
              QStringList{"lighthouse-keeper-poster-en.jpg"});
}

// ---- iTunes library ------------------------------------------------------------------

TEST(ITunesPath, MusicFolderOfLibraryFile) {
    const QString folder = QDir::homePath() + "/Music/iTunes";
    const QString library = folder + "/iTunes Music Library.xml";
    ASSERT_FALSE(QFileInfo::exists(library)) << "test home is private";
    EXPECT_TRUE(MDB_Utility::iTunesPath().isEmpty());

    ASSERT_TRUE(QDir().mkpath(folder));
    QFile corrupt(library);
    ASSERT_TRUE(corrupt.open(QIODevice::WriteOnly));
    corrupt.write("not a property list");
    corrupt.close();
    EXPECT_TRUE(MDB_Utility::iTunesPath().isEmpty());

    const QString music = "file://localhost/Users/me/Music/iTunes/iTunes%20Media/";
    ASSERT_TRUE(PropertyList::writeFile(
        library, QVariantMap{{"Major Version", 1}, {"Music Folder", music}}));
    EXPECT_EQ(MDB_Utility::iTunesPath(), QUrl(music));
    EXPECT_EQ(MDB_Utility::iTunesPath().path(), "/Users/me/Music/iTunes/iTunes Media/");

    ASSERT_TRUE(PropertyList::writeFile(library, QVariantMap{{"Major Version", 1}}));
    EXPECT_TRUE(MDB_Utility::iTunesPath().isEmpty());
    QDir(QDir::homePath() + "/Music").removeRecursively();
}

} // namespace
