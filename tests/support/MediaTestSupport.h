#pragma once

// Settings of a test's own for the media item, title and scan report tests,
// with the track-choice settings at known values, and small track makers.

#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "media/Title.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <memory>

namespace mediatest {

class SettingsTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        UserDefaults::standard().reopen(dir.filePath(QStringLiteral("Tarnwick.plist")));
        set(SettingsKey::LanguageRegion, QStringLiteral("en-US"));
        set(SettingsKey::OnlyNative, false);
        set(SettingsKey::DefaultNative, true);
        set(SettingsKey::TextSubtitles, false);
        set(SettingsKey::NoSubtitles, false);
    }
    void TearDown() override { UserDefaults::standard().reopen(); }

    static void set(const char* key, const QVariant& value) {
        UserDefaults::standard().setObject(value, QLatin1String(key));
    }

    static std::unique_ptr<AudioTrack> audio(const QString& iso, qint64 index,
                                             const QString& isoType = QStringLiteral("iso639-2")) {
        auto t = std::make_unique<AudioTrack>();
        t->setIsoType(isoType);
        t->setIsoName(iso);
        t->setOrigIndex(index);
        t->setCodec(QStringLiteral("AC3"));
        return t;
    }
    static std::unique_ptr<SubtitleTrack> subtitle(const QString& iso, qint64 index,
                                                   const QString& type) {
        auto t = std::make_unique<SubtitleTrack>();
        t->setIsoType(QStringLiteral("iso639-2"));
        t->setIsoName(iso);
        t->setOrigIndex(index);
        t->setType(type);
        return t;
    }
    static QList<qint64> audioOrder(const Title& title) {
        QList<qint64> order;
        for (const auto& t : title.audioTracks())
            order << t->origIndex();
        return order;
    }
    static QList<qint64> subtitleOrder(const Title& title) {
        QList<qint64> order;
        for (const auto& t : title.subtitleTracks())
            order << t->origIndex();
        return order;
    }

    QTemporaryDir dir;
};

} // namespace mediatest
