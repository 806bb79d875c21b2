#include "core/UserDefaults.h"
#include "core/PropertyList.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

class UserDefaultsTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        path = dir.filePath(QStringLiteral("Tarnwick.plist"));
        UserDefaults::standard().reopen(path);
    }
    void TearDown() override { UserDefaults::standard().reopen(); }

    QTemporaryDir dir;
    QString path;
};

TEST_F(UserDefaultsTest, UserValuesLieAboveRegisteredDefaults) {
    auto& d = UserDefaults::standard();
    d.registerDefaults({{"Add iTunes", false}, {"Primary Device", "Default"}});
    EXPECT_FALSE(d.boolForKey("Add iTunes"));
    EXPECT_EQ(d.stringForKey("Primary Device"), "Default");
    EXPECT_FALSE(d.hasUserValue("Add iTunes"));

    d.setBool(true, "Add iTunes");
    EXPECT_TRUE(d.boolForKey("Add iTunes"));
    d.removeObject("Add iTunes");
    EXPECT_FALSE(d.boolForKey("Add iTunes"));

    // Unknown keys read as empty values of each type.
    EXPECT_FALSE(d.objectForKey("No Such Key").isValid());
    EXPECT_EQ(d.integerForKey("No Such Key"), 0);
    EXPECT_TRUE(d.stringForKey("No Such Key").isEmpty());
}

TEST_F(UserDefaultsTest, TypedValuesSurviveARestart) {
    auto& d = UserDefaults::standard();
    const QVariantMap nested{{"TV Metadata List", true},
                             {"Tags", QVariantList{"Name", QVariantMap{{"Cast", false}}}}};
    d.setObject(nested, "Metadata List");
    d.setObject(QVariantList{"Action", "Drama"}, "Genre List");
    d.setObject(QByteArray("/home/user/Movies\0x", 19), "Destination Path Bookmark");
    d.setInteger(-3, "ContentID Source");
    d.setObject(QStringLiteral("fr-CA"), "Language Region");
    d.setBool(false, "Decomb");
    ASSERT_TRUE(d.synchronize());

    d.reopen(path);
    EXPECT_EQ(d.dictionaryForKey("Metadata List"), nested);
    EXPECT_EQ(d.arrayForKey("Genre List"), (QVariantList{"Action", "Drama"}));
    EXPECT_EQ(d.dataForKey("Destination Path Bookmark"), QByteArray("/home/user/Movies\0x", 19));
    EXPECT_EQ(d.integerForKey("ContentID Source"), -3);
    EXPECT_EQ(d.stringForKey("Language Region"), "fr-CA");
    EXPECT_TRUE(d.hasUserValue("Decomb"));
    EXPECT_FALSE(d.boolForKey("Decomb"));
}

// Each write puts a new file in place, so its inode tells whether one happened.
ino_t inodeOf(const QString& path) {
    struct stat st {};
    return ::stat(QFile::encodeName(path).constData(), &st) == 0 ? st.st_ino : 0;
}

TEST_F(UserDefaultsTest, UndoneChangesLeaveTheFileAloneAndRealOnesAreWritten) {
    auto& d = UserDefaults::standard();
    d.setObject(QStringLiteral("Default"), "Primary Device");
    d.setBool(false, "Skip Tagging");
    ASSERT_TRUE(d.synchronize());
    const ino_t written = inodeOf(path);
    ASSERT_NE(written, ino_t(0));

    // A run's own settings put back before the write: nothing to write.
    d.setObject(QStringLiteral("AppleTV"), "Primary Device");
    d.setBool(true, "Skip Tagging");
    d.setBool(true, "Add iTunes");
    d.setObject(QStringLiteral("Default"), "Primary Device");
    d.setBool(false, "Skip Tagging");
    d.removeObject("Add iTunes");
    ASSERT_TRUE(d.synchronize());
    EXPECT_EQ(inodeOf(path), written);

    // The undone keys are no longer ours: another writer's value stays.
    QVariantMap other{{"Primary Device", "iPad"}, {"Skip Tagging", false}};
    ASSERT_TRUE(PropertyList::writeFile(path, other));
    ASSERT_TRUE(d.synchronize());
    EXPECT_EQ(d.stringForKey("Primary Device"), "iPad");

    d.setBool(true, "Skip Tagging");
    ASSERT_TRUE(d.synchronize());
    d.reopen(path);
    EXPECT_TRUE(d.boolForKey("Skip Tagging"));
    EXPECT_EQ(d.stringForKey("Primary Device"), "iPad");
}

TEST_F(UserDefaultsTest, CorruptFileFallsBackToDefaultsAndIsKept) {
    {
        QFile f(path);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write("<?xml version=\"1.0\"?><plist><dict><key>Decomb</key><tr");
    }
    auto& d = UserDefaults::standard();
    d.reopen(path);
    d.registerDefaults({{"Decomb", true}});
    EXPECT_TRUE(d.boolForKey("Decomb"));
    const QStringList backups =
        QDir(dir.path()).entryList({QStringLiteral("Tarnwick.plist.corrupt-*")});
    ASSERT_EQ(backups.size(), 1);
    QFile kept(dir.filePath(backups.first()));
    ASSERT_TRUE(kept.open(QIODevice::ReadOnly));
    EXPECT_TRUE(kept.readAll().endsWith("<tr"));

    // The store works normally after the repair.
    d.setBool(false, "Decomb");
    ASSERT_TRUE(d.synchronize());
    d.reopen(path);
    EXPECT_FALSE(d.boolForKey("Decomb"));
}

TEST(PropertyListTest, RoundTripsEveryKind) {
    const QVariantMap value{{"bool", true},
                            {"int", qint64(42)},
                            {"negative", qint64(-7)},
                            {"real", 2.5},
                            {"text", QStringLiteral("Amélie — 日本")},
                            {"data", QByteArray("\x00\x01\xff", 3)},
                            {"list", QVariantList{1, "two", QVariantMap{{"three", 3}}}}};
    const QVariant back = PropertyList::fromData(PropertyList::toXml(value));
    ASSERT_EQ(back.typeId(), QMetaType::QVariantMap);
    const QVariantMap m = back.toMap();
    EXPECT_EQ(m["bool"].toBool(), true);
    EXPECT_EQ(m["int"].toLongLong(), 42);
    EXPECT_EQ(m["negative"].toLongLong(), -7);
    EXPECT_DOUBLE_EQ(m["real"].toDouble(), 2.5);
    EXPECT_EQ(m["text"].toString(), QStringLiteral("Amélie — 日本"));
    EXPECT_EQ(m["data"].toByteArray(), QByteArray("\x00\x01\xff", 3));
    EXPECT_EQ(m["list"].toList().at(2).toMap()["three"].toLongLong(), 3);
}

TEST(PropertyListTest, RejectsJunkAndTruncation) {
    QString error;
    EXPECT_FALSE(PropertyList::fromData("this is not a plist", &error).isValid());
    EXPECT_FALSE(error.isEmpty());
    EXPECT_FALSE(PropertyList::fromData(QByteArray()).isValid());
    const QByteArray full = PropertyList::toXml(QVariantMap{{"a", 1}});
    EXPECT_FALSE(PropertyList::fromData(full.left(full.size() / 2)).isValid());
    EXPECT_FALSE(PropertyList::readFile("/nonexistent/file.plist", &error).isValid());
}

} // namespace
