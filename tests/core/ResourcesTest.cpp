// The shipped tables as the program reads them against the sources they are
// built from, and a private table replaced while the program runs.
#include "core/Resources.h"
#include "core/PropertyList.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

TEST(Resources, ShippedTablesHoldExactlyWhatTheSourcesSay) {
    const QDir sources(QStringLiteral(TARNWICK_SOURCE_DIR "/resources"));
    const QStringList tables = sources.entryList({QStringLiteral("*.plist")}, QDir::Files);
    ASSERT_GE(tables.size(), 4) << "resource tables missing from the sources";
    for (const QString& name : tables) {
        QString error;
        const QVariant source = PropertyList::readFile(sources.filePath(name), &error);
        ASSERT_TRUE(source.isValid()) << name.toStdString() << ": " << error.toStdString();
        const QVariant shipped = Resources::loadPropertyList(name);
        EXPECT_EQ(shipped, source) << name.toStdString();
        // Read twice (the second time from memory): still the same.
        EXPECT_EQ(Resources::loadPropertyList(name), source) << name.toStdString();
    }
}

TEST(Resources, ATableChangedOnDiskIsReadAgainAndABrokenOneGivesNothing) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QByteArray saved = qgetenv("TARNWICK_RESOURCES");
    qputenv("TARNWICK_RESOURCES", dir.path().toUtf8());
    const QString path = dir.filePath(QStringLiteral("Table.plist"));

    ASSERT_TRUE(PropertyList::writeFile(path, QVariantMap{{"key", "first"}}));
    EXPECT_EQ(Resources::loadPropertyList("Table.plist").toMap().value("key"), "first");
    // Rewritten with the same size: the change still shows.
    ASSERT_TRUE(PropertyList::writeFile(path, QVariantMap{{"key", "other"}}));
    EXPECT_EQ(Resources::loadPropertyList("Table.plist").toMap().value("key"), "other");

    QFile broken(path);
    ASSERT_TRUE(broken.open(QIODevice::WriteOnly | QIODevice::Truncate));
    broken.write("<?xml version=\"1.0\"?><plist><dict><key>key</key>");
    broken.close();
    EXPECT_FALSE(Resources::loadPropertyList("Table.plist").isValid());

    qputenv("TARNWICK_RESOURCES", saved);
}

} // namespace
