#include "MediaTestSupport.h"

#include <gtest/gtest.h>

namespace {

class TitleTest : public mediatest::SettingsTest {
protected:
    void SetUp() override {
        SettingsTest::SetUp();
        set(SettingsKey::DefaultNative, false);
    }
    // Tracks numbered on from the title's last, audio by language, subtitles
    // as "language type".
    static void addAudio(Title& title, std::initializer_list<const char*> languages) {
        for (const char* iso : languages)
            title.addAudioTrack(audio(QLatin1String(iso), title.numberAudioTracks() + 1));
    }
    static void addSubtitles(Title& title, std::initializer_list<const char*> tracks) {
        for (const char* track : tracks) {
            const QStringList parts = QString::fromLatin1(track).split(u' ');
            title.addSubtitleTrack(subtitle(parts[0], title.numberSubtitleTracks() + 1, parts[1]));
        }
    }
    static QList<bool> subtitlesIncluded(const Title& title) {
        QList<bool> included;
        for (int i = 0; i < title.numberSubtitleTracks(); ++i)
            included << title.subtitleTrackIncluded(i);
        return included;
    }
};

TEST_F(TitleTest, NativeTestFollowsTheLanguageRegionAndCodeFamily) {
    // Unknown codes and code families are never native and never an error.
    const struct {
        const char* iso;
        const char* family;
        bool native;
    } cases[] = {{"eng", "iso639-2", true}, {"fre", "iso639-2", false}, {"en", "iso639-1", true},
                 {"EN", "iso639-1", false}, {"qqq", "iso639-2", false}, {"eng", "other", false}};
    Title title;
    for (const auto& c : cases) {
        const AudioTrack* t =
            title.addAudioTrack(audio(QLatin1String(c.iso), 1, QLatin1String(c.family)));
        EXPECT_EQ(t->native(), c.native) << c.iso << " " << c.family;
    }
    // The setting is read at each call: a French user sees "fre" as native.
    set(SettingsKey::LanguageRegion, QStringLiteral("fr-CA"));
    EXPECT_TRUE(title.addAudioTrack(audio(QStringLiteral("fre"), 7))->native());
    EXPECT_TRUE(title.audioTrack(0)->native()); // decided once, when added
}

TEST_F(TitleTest, OnlyNativeNeverLeavesATitleWithoutAudio) {
    set(SettingsKey::OnlyNative, true);
    Title single;
    addAudio(single, {"ger"});
    EXPECT_FALSE(single.audioTrackIncluded(0));
    single.arrangeAudioTracks();
    EXPECT_TRUE(single.audioTrackIncluded(0));

    Title untouched;
    addAudio(untouched, {"ger", "spa"});
    untouched.arrangeAudioTracks();
    EXPECT_EQ(untouched.numberIncludedAudioTracks(), 0);

    set(SettingsKey::DefaultNative, true);
    Title twoForeign;
    addAudio(twoForeign, {"ger", "spa"});
    twoForeign.arrangeAudioTracks();
    EXPECT_TRUE(twoForeign.audioTrackIncluded(0));
    EXPECT_EQ(twoForeign.numberIncludedAudioTracks(), 1);
}

TEST_F(TitleTest, NativeTracksMoveToTheFrontInStableOrder) {
    Title kept;
    addAudio(kept, {"fre", "eng"});
    kept.arrangeAudioTracks();
    EXPECT_EQ(audioOrder(kept), (QList<qint64>{1, 2}));

    set(SettingsKey::DefaultNative, true);
    Title mixed;
    addAudio(mixed, {"spa", "eng", "ger", "eng"});
    mixed.arrangeAudioTracks();
    EXPECT_EQ(audioOrder(mixed), (QList<qint64>{2, 4, 1, 3}));
    addSubtitles(mixed, {"ger (Text)", "eng (Text)", "spa (Text)", "eng (Bitmap)"});
    mixed.arrangeSubtitleTracks();
    EXPECT_EQ(subtitleOrder(mixed), (QList<qint64>{2, 4, 1, 3}));

    // Subtitles are never forced in.
    set(SettingsKey::OnlyNative, true);
    Title foreign;
    addSubtitles(foreign, {"ger (Text)", "spa (Text)"});
    foreign.arrangeSubtitleTracks();
    EXPECT_EQ(subtitlesIncluded(foreign), (QList<bool>{false, false}));
}

TEST_F(TitleTest, SubtitleInclusionRulesApplyInOrder) {
    set(SettingsKey::TextSubtitles, true);
    Title title;
    addSubtitles(title, {"eng (TEXT)(UTF-8)", "eng (Bitmap)(VOBSUB)", "fre (Text)(SSA)"});
    EXPECT_EQ(title.subtitleTrackType(0), "Text");
    set(SettingsKey::OnlyNative, true);
    addSubtitles(title, {"fre (Text)(SSA)", "eng (Text)(SSA)"});
    set(SettingsKey::NoSubtitles, true);
    addSubtitles(title, {"eng (Text)(SSA)"});
    EXPECT_EQ(subtitlesIncluded(title), (QList<bool>{true, false, true, false, true, false}));
    EXPECT_TRUE(title.subtitleTrack(5)->native());
}

TEST_F(TitleTest, BurnInIsExclusiveOnlyWhenSet) {
    Title title;
    addSubtitles(title, {"eng (Text)", "eng (Text)", "eng (Text)", "eng (Text)"});
    title.setSubtitleBurnState(0, true);
    title.setSubtitleBurnState(2, true);
    EXPECT_FALSE(title.subtitleBurnState(0));
    EXPECT_TRUE(title.subtitleBurnState(2));

    // Clearing touches only the named track; a bad index changes nothing.
    title.subtitleTrack(1)->setBurn(true);
    title.setSubtitleBurnState(2, false);
    title.setSubtitleBurnState(7, true);
    EXPECT_TRUE(title.subtitleBurnState(1));
    EXPECT_FALSE(title.subtitleBurnState(2));

    SubtitleTrack* third = title.subtitleTrack(2);
    title.moveSubtitleToFront(third);
    EXPECT_EQ(subtitleOrder(title), (QList<qint64>{3, 1, 2, 4}));
    EXPECT_EQ(title.subtitleTrack(0), third);
}

TEST_F(TitleTest, DurationReadsHoursMinutesAndSeconds) {
    Title title;
    const std::pair<const char*, qint32> cases[] = {
        {"01:39:04", 5944}, {"0:05:00", 300}, {"02:00:00.50", 7200}, {"0500", 0},
        {"01:30:", 0},      {"aa:10:00", 0},  {"01:bb:00", 0},
    };
    for (const auto& [text, seconds] : cases) {
        title.setDuration(QLatin1String(text));
        EXPECT_EQ(title.getDuration(), seconds) << text;
    }
}

} // namespace
