#include "core/UserDefaults.h"
#include "core/PropertyList.h"
#include "core/Resources.h"

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

TEST_F(UserDefaultsTest, UserValuesLieAboveDefaultsAndSurviveARestartWithTheirTypes) {
    auto& d = UserDefaults::standard();
    d.registerDefaults({{"Add iTunes", false}, {"Primary Device", "Default"}});
    d.setBool(true, "Add iTunes");
    EXPECT_TRUE(d.boolForKey("Add iTunes"));
    d.removeObject("Add iTunes");
    EXPECT_FALSE(d.hasUserValue("Add iTunes"));
    EXPECT_EQ(d.stringForKey("Primary Device"), "Default");

    const QVariantMap nested{{"TV Metadata List", true},
                             {"Tags", QVariantList{"Amélie — 日本", QVariantMap{{"Cast", 2.5}}}}};
    const QByteArray bookmark("/home/user/Movies\0x", 19);
    d.setObject(nested, "Metadata List");
    d.setObject(bookmark, "Destination Path Bookmark");
    d.setInteger(-3, "ContentID Source");
    d.setBool(false, "Decomb");
    ASSERT_TRUE(d.synchronize());

    // Another store starts without this one's registrations.
    d.reopen(path);
    EXPECT_FALSE(d.objectForKey("Primary Device").isValid());
    EXPECT_EQ(d.dictionaryForKey("Metadata List"), nested);
    EXPECT_EQ(d.dataForKey("Destination Path Bookmark"), bookmark);
    EXPECT_EQ(d.integerForKey("ContentID Source"), -3);
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

// Shipped tables are read through the same reader as the settings.
TEST(PropertyListTest, TablesAreReadAgainWhenChangedAndRefusedWhenBroken) {
    QTemporaryDir dir;
    const QByteArray saved = qgetenv("TARNWICK_RESOURCES");
    qputenv("TARNWICK_RESOURCES", dir.path().toUtf8());
    const QString path = dir.filePath(QStringLiteral("Table.plist"));
    ASSERT_TRUE(PropertyList::writeFile(path, QVariantMap{{"key", "first"}}));
    EXPECT_EQ(Resources::loadPropertyList("Table.plist").toMap().value("key"), "first");
    // Rewritten with the same size: the change still shows.
    ASSERT_TRUE(PropertyList::writeFile(path, QVariantMap{{"key", "other"}}));
    EXPECT_EQ(Resources::loadPropertyList("Table.plist").toMap().value("key"), "other");

    const QByteArray full = PropertyList::toXml(QVariantMap{{"key", 1}});
    QFile broken(path);
    ASSERT_TRUE(broken.open(QIODevice::WriteOnly | QIODevice::Truncate));
    broken.write(full.left(full.size() / 2));
    broken.close();
    EXPECT_FALSE(Resources::loadPropertyList("Table.plist").isValid());
    qputenv("TARNWICK_RESOURCES", saved);

    QString error;
    EXPECT_FALSE(PropertyList::fromData("this is not a plist", &error).isValid());
    EXPECT_FALSE(error.isEmpty());
    EXPECT_FALSE(PropertyList::readFile("/nonexistent/file.plist", &error).isValid());
}

} // namespace
