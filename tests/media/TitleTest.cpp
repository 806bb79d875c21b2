#include "media/Title.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"

#include "MediaTestSupport.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

class TitleTest : public mediatest::SettingsTest {
protected:
    void SetUp() override {
        SettingsTest::SetUp();
        set(SettingsKey::DefaultNative, false);
    }
};

TEST_F(TitleTest, NativeTestFollowsTheLanguageRegionAndCodeFamily) {
    Title title;
    title.addAudioTrack(audio(QStringLiteral("eng"), 1));
    title.addAudioTrack(audio(QStringLiteral("fre"), 2));
    title.addAudioTrack(audio(QStringLiteral("en"), 3, QStringLiteral("iso639-1")));
    title.addAudioTrack(audio(QStringLiteral("EN"), 4, QStringLiteral("iso639-1")));
    // Unknown codes and code families are never native and never an error.
    title.addAudioTrack(audio(QStringLiteral("qqq"), 5));
    title.addAudioTrack(audio(QStringLiteral("eng"), 6, QStringLiteral("other")));
    const QList<bool> expected{true, false, true, false, false, false};
    ASSERT_EQ(title.numberAudioTracks(), 6);
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(title.audioTrack(i)->native(), expected[i]) << "track " << i;

    // The setting is read at each call: a French user sees "fre" as native.
    set(SettingsKey::LanguageRegion, QStringLiteral("fr-CA"));
    title.addAudioTrack(audio(QStringLiteral("fre"), 7));
    title.addAudioTrack(audio(QStringLiteral("fra"), 8));
    EXPECT_TRUE(title.audioTrack(6)->native());
    EXPECT_TRUE(title.audioTrack(7)->native());
    EXPECT_TRUE(title.audioTrack(0)->native()); // decided once, when added
}

TEST_F(TitleTest, OnlyNativeNeverLeavesATitleWithoutAudio) {
    set(SettingsKey::OnlyNative, true);
    Title single;
    single.addAudioTrack(audio(QStringLiteral("ger"), 1));
    EXPECT_FALSE(single.audioTrackIncluded(0));
    single.arrangeAudioTracks();
    EXPECT_TRUE(single.audioTrackIncluded(0));

    set(SettingsKey::DefaultNative, true);
    Title twoForeign;
    twoForeign.addAudioTrack(audio(QStringLiteral("ger"), 1));
    twoForeign.addAudioTrack(audio(QStringLiteral("spa"), 2));
    twoForeign.arrangeAudioTracks();
    EXPECT_TRUE(twoForeign.audioTrackIncluded(0));
    EXPECT_FALSE(twoForeign.audioTrackIncluded(1));
    EXPECT_EQ(twoForeign.numberIncludedAudioTracks(), 1);

    set(SettingsKey::DefaultNative, false);
    Title untouched;
    untouched.addAudioTrack(audio(QStringLiteral("ger"), 1));
    untouched.addAudioTrack(audio(QStringLiteral("spa"), 2));
    untouched.arrangeAudioTracks();
    EXPECT_EQ(untouched.numberIncludedAudioTracks(), 0);
}

TEST_F(TitleTest, NativeAudioMovesToTheFrontInStableOrder) {
    set(SettingsKey::DefaultNative, true);
    Title title;
    title.addAudioTrack(audio(QStringLiteral("eng"), 1));
    title.addAudioTrack(audio(QStringLiteral("fre"), 2));
    title.addAudioTrack(audio(QStringLiteral("eng"), 3));
    title.arrangeAudioTracks();
    EXPECT_EQ(audioOrder(title), (QList<qint64>{1, 3, 2}));

    Title mixed;
    for (const auto& [iso, n] : {std::pair{"spa", 1}, {"eng", 2}, {"ger", 3}, {"eng", 4}})
        mixed.addAudioTrack(audio(QLatin1String(iso), n));
    mixed.arrangeAudioTracks();
    EXPECT_EQ(audioOrder(mixed), (QList<qint64>{2, 4, 1, 3}));

    set(SettingsKey::DefaultNative, false);
    Title kept;
    kept.addAudioTrack(audio(QStringLiteral("fre"), 1));
    kept.addAudioTrack(audio(QStringLiteral("eng"), 2));
    kept.arrangeAudioTracks();
    EXPECT_EQ(audioOrder(kept), (QList<qint64>{1, 2}));
}

TEST_F(TitleTest, SubtitleInclusionRulesApplyInOrder) {
    set(SettingsKey::TextSubtitles, true);
    Title title;
    title.addSubtitleTrack(subtitle(QStringLiteral("eng"), 1, QStringLiteral("(TEXT)(UTF-8)")));
    title.addSubtitleTrack(subtitle(QStringLiteral("eng"), 2, QStringLiteral("(Bitmap)(VOBSUB)")));
    title.addSubtitleTrack(subtitle(QStringLiteral("fre"), 3, QStringLiteral("(Text)(SSA)")));
    EXPECT_TRUE(title.subtitleTrackIncluded(0));
    EXPECT_FALSE(title.subtitleTrackIncluded(1));
    EXPECT_TRUE(title.subtitleTrackIncluded(2));
    EXPECT_EQ(title.subtitleTrackType(0), "Text");
    EXPECT_EQ(title.subtitleTrackType(1), "Bitmap");
    EXPECT_EQ(title.subtitleTrackType(2), "Text");

    set(SettingsKey::OnlyNative, true);
    title.addSubtitleTrack(subtitle(QStringLiteral("fre"), 4, QStringLiteral("(Text)(SSA)")));
    title.addSubtitleTrack(subtitle(QStringLiteral("eng"), 5, QStringLiteral("(Text)(SSA)")));
    EXPECT_FALSE(title.subtitleTrackIncluded(3));
    EXPECT_TRUE(title.subtitleTrackIncluded(4));

    set(SettingsKey::NoSubtitles, true);
    title.addSubtitleTrack(subtitle(QStringLiteral("eng"), 6, QStringLiteral("(Text)(SSA)")));
    EXPECT_FALSE(title.subtitleTrackIncluded(5));
    EXPECT_TRUE(title.subtitleTrack(5)->native());
}

TEST_F(TitleTest, SubtitlesArrangeWithoutForcingAnyTrackIn) {
    set(SettingsKey::DefaultNative, true);
    set(SettingsKey::OnlyNative, true);
    Title foreign;
    foreign.addSubtitleTrack(subtitle(QStringLiteral("ger"), 1, QStringLiteral("(Text)")));
    foreign.addSubtitleTrack(subtitle(QStringLiteral("spa"), 2, QStringLiteral("(Text)")));
    foreign.arrangeSubtitleTracks();
    EXPECT_EQ(subtitleOrder(foreign), (QList<qint64>{1, 2}));
    EXPECT_FALSE(foreign.subtitleTrackIncluded(0));
    EXPECT_FALSE(foreign.subtitleTrackIncluded(1));

    Title mixed;
    mixed.addSubtitleTrack(subtitle(QStringLiteral("ger"), 1, QStringLiteral("(Text)")));
    mixed.addSubtitleTrack(subtitle(QStringLiteral("eng"), 2, QStringLiteral("(Text)")));
    mixed.addSubtitleTrack(subtitle(QStringLiteral("spa"), 3, QStringLiteral("(Text)")));
    mixed.addSubtitleTrack(subtitle(QStringLiteral("eng"), 4, QStringLiteral("(Bitmap)")));
    mixed.arrangeSubtitleTracks();
    EXPECT_EQ(subtitleOrder(mixed), (QList<qint64>{2, 4, 1, 3}));
}

TEST_F(TitleTest, BurnInIsExclusiveOnlyWhenSet) {
    Title title;
    for (int i = 1; i <= 3; ++i)
        title.addSubtitleTrack(subtitle(QStringLiteral("eng"), i, QStringLiteral("(Text)")));
    title.setSubtitleBurnState(0, true);
    title.setSubtitleBurnState(2, true);
    EXPECT_FALSE(title.subtitleBurnState(0));
    EXPECT_FALSE(title.subtitleBurnState(1));
    EXPECT_TRUE(title.subtitleBurnState(2));

    // Clearing touches only the named track.
    title.subtitleTrack(1)->setBurn(true);
    title.setSubtitleBurnState(2, false);
    EXPECT_TRUE(title.subtitleBurnState(1));
    EXPECT_FALSE(title.subtitleBurnState(2));

    // A bad index changes nothing, not even the clearing of the others.
    title.setSubtitleBurnState(7, true);
    EXPECT_TRUE(title.subtitleBurnState(1));
}

TEST_F(TitleTest, MovingASubtitleToTheFrontKeepsTheSameObject) {
    Title title;
    for (int i = 1; i <= 4; ++i)
        title.addSubtitleTrack(subtitle(QStringLiteral("eng"), i, QStringLiteral("(Text)")));
    SubtitleTrack* third = title.subtitleTrack(2);
    title.moveSubtitleToFront(third);
    EXPECT_EQ(subtitleOrder(title), (QList<qint64>{3, 1, 2, 4}));
    EXPECT_EQ(title.subtitleTrack(0), third);

    SubtitleTrack stranger;
    title.moveSubtitleToFront(&stranger);
    EXPECT_EQ(subtitleOrder(title), (QList<qint64>{3, 1, 2, 4}));
}

TEST_F(TitleTest, LanguageEditsDifferBetweenAudioAndSubtitles) {
    Title title;
    title.addAudioTrack(audio(QStringLiteral("eng"), 1));
    title.renameAudioTrack(QStringLiteral("Commentary"), 0);
    title.setAudioLanguage(0, QStringLiteral("German"), QStringLiteral("ger"));
    EXPECT_EQ(title.audioTrackIsoName(0), "ger");
    EXPECT_EQ(title.audioTrackName(0), "Commentary");

    title.addSubtitleTrack(subtitle(QStringLiteral("eng"), 1, QStringLiteral("(Text)")));
    title.setSubtitleLanguage(0, QStringLiteral("German"), QStringLiteral("ger"));
    EXPECT_EQ(title.subtitleTrackName(0), "German");
    EXPECT_EQ(title.subtitleTrackIsoName(0), "ger");

    // Out of range: empty answers, no effect.
    EXPECT_TRUE(title.audioTrackName(2).isEmpty());
    EXPECT_TRUE(title.subtitleTrackType(-1).isEmpty());
    title.includeAudioTrack(false, 9);
    EXPECT_EQ(title.numberIncludedAudioTracks(), 1);
}

TEST_F(TitleTest, DurationReadsHoursMinutesAndSeconds) {
    Title title;
    const std::pair<const char*, qint32> cases[] = {
        {"01:39:04", 5944}, {"0:05:00", 300}, {"00:00:59", 59}, {"02:00:00.50", 7200},
        {"0500", 0},        {"", 0},          {"01:30", 0},     {"01:30:", 0},
        {"aa:10:00", 0},    {"01:bb:00", 0},
    };
    for (const auto& [text, seconds] : cases) {
        title.setDuration(QLatin1String(text));
        EXPECT_EQ(title.getDuration(), seconds) << text;
    }
}

} // namespace
