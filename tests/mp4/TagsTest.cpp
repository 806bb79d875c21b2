// The tag set through the public API: every setter survives a write and a
// fresh read, null removes, artwork, refusals.

#include "Mp4TestMedia.h"
#include "mp4/mp4.h"

#include <string>

using namespace mp4test;

namespace {

class Mp4Tags : public ::testing::Test {
protected:
    void SetUp() override { path = copyInto(dir, aacSample()).toStdString(); }

    // Opens for modification, lets `edit` change the fetched tags, stores, closes.
    template <typename F> void modify(F edit) {
        MP4FileHandle h = MP4Modify(path.c_str());
        ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
        const MP4Tags* tags = MP4TagsAlloc();
        ASSERT_TRUE(MP4TagsFetch(tags, h));
        edit(tags, h);
        EXPECT_TRUE(MP4TagsStore(tags, h));
        MP4TagsFree(tags);
        MP4Close(h);
    }

    template <typename F> void read(F check) {
        MP4FileHandle h = MP4Read(path.c_str());
        ASSERT_NE(h, MP4_INVALID_FILE_HANDLE);
        const MP4Tags* tags = MP4TagsAlloc();
        ASSERT_TRUE(MP4TagsFetch(tags, h));
        check(tags, h);
        MP4TagsFree(tags);
        MP4Close(h);
    }

    QTemporaryDir dir;
    std::string path;
};

std::string str(const char* s) {
    return s ? s : "<null>";
}

// Text items of each kind of code: the copyright-sign ones, plain ones, sort
// names, long texts, account items.
const struct {
    bool (*set)(const MP4Tags*, const char*);
    const char* MP4Tags::*field;
    const char* label;
} kTexts[] = {
    {MP4TagsSetName, &MP4Tags::name, "name"},
    {MP4TagsSetGenre, &MP4Tags::genre, "genre"},
    {MP4TagsSetLongDescription, &MP4Tags::longDescription, "longDescription"},
    {MP4TagsSetSortName, &MP4Tags::sortName, "sortName"},
    {MP4TagsSetITunesAccount, &MP4Tags::iTunesAccount, "iTunesAccount"},
};

std::string textValue(const char* label) {
    return std::string("Wert \xc3\xa4 ") + label;
}

QByteArray bytesOf(const MP4TagArtwork& a) {
    return QByteArray(static_cast<const char*>(a.data), int(a.size));
}

MP4TagArtwork artOf(const QByteArray& bytes, MP4TagArtworkType type) {
    return {const_cast<char*>(bytes.constData()), uint32_t(bytes.size()), type};
}

} // namespace

// Numbers of each width, including a 32-bit one above 2^31.
TEST_F(Mp4Tags, SettersSurviveAWriteAndAFreshReadAndNullRemovesOnlyThatItem) {
    modify([](const MP4Tags* t, MP4FileHandle) {
        for (const auto& c : kTexts)
            EXPECT_TRUE(c.set(t, textValue(c.label).c_str()));
        const uint16_t genreType = 18;
        const uint8_t media = 9;
        const uint32_t content = 4000000001u, season = 3;
        const uint64_t playlist = 0x1122334455667788ull;
        const MP4TagTrack track{3, 12};
        const MP4TagDisk disk{1, 2};
        EXPECT_TRUE(MP4TagsSetGenreType(t, &genreType) && MP4TagsSetMediaType(t, &media) &&
                    MP4TagsSetContentID(t, &content) && MP4TagsSetTVSeason(t, &season) &&
                    MP4TagsSetPlaylistID(t, &playlist) && MP4TagsSetTrack(t, &track) &&
                    MP4TagsSetDisk(t, &disk));
    });
    read([](const MP4Tags* t, MP4FileHandle) {
        for (const auto& c : kTexts)
            EXPECT_EQ(str(t->*c.field), textValue(c.label)) << c.label;
        ASSERT_TRUE(t->genreType && t->mediaType && t->contentID && t->tvSeason && t->playlistID &&
                    t->track && t->disk);
        EXPECT_EQ(*t->genreType, 18);
        EXPECT_EQ(*t->mediaType, 9);
        EXPECT_EQ(*t->contentID, 4000000001u);
        EXPECT_EQ(*t->playlistID, 0x1122334455667788ull);
        EXPECT_EQ(t->track->index, 3);
        EXPECT_EQ(t->track->total, 12);
        EXPECT_EQ(t->disk->total, 2);
    });
    modify([](const MP4Tags* t, MP4FileHandle) {
        for (size_t i = 0; i < std::size(kTexts); i += 2)
            EXPECT_TRUE(kTexts[i].set(t, nullptr));
        MP4TagsSetTrack(t, nullptr);
        MP4TagsSetContentID(t, nullptr);
        MP4TagsSetPlaylistID(t, nullptr);
    });
    read([](const MP4Tags* t, MP4FileHandle) {
        for (size_t i = 0; i < std::size(kTexts); ++i)
            EXPECT_EQ(str(t->*kTexts[i].field), i % 2 ? textValue(kTexts[i].label) : "<null>")
                << kTexts[i].label;
        EXPECT_EQ(t->track, nullptr);
        EXPECT_EQ(t->contentID, nullptr);
        EXPECT_EQ(t->playlistID, nullptr);
        ASSERT_TRUE(t->disk && t->tvSeason);
        EXPECT_EQ(*t->tvSeason, 3u);
    });
}

// Art keeps its type and order; art stored without a type is told by its
// signature when read back.
TEST_F(Mp4Tags, ArtworkKeepsTypeAndOrder) {
    const QByteArray png = readAll(coverImage(QStringLiteral("cover.png")));
    const QByteArray jpg = readAll(coverImage(QStringLiteral("cover.jpg")));
    const QByteArray bmp = QByteArray("BM") + QByteArray(60, '\x01');
    modify([&](const MP4Tags* t, MP4FileHandle) {
        const MP4TagArtwork a = artOf(png, MP4_ART_PNG), b = artOf(jpg, MP4_ART_JPEG),
                            c = artOf(bmp, MP4_ART_UNDEFINED);
        EXPECT_TRUE(MP4TagsAddArtwork(t, &a) && MP4TagsAddArtwork(t, &b) &&
                    MP4TagsAddArtwork(t, &c));
        EXPECT_FALSE(MP4TagsSetArtwork(t, 5, &a));
        EXPECT_FALSE(MP4TagsRemoveArtwork(t, 3));
    });
    read([&](const MP4Tags* t, MP4FileHandle) {
        ASSERT_EQ(t->artworkCount, 3u);
        EXPECT_EQ(t->artwork[0].type, MP4_ART_PNG);
        EXPECT_EQ(bytesOf(t->artwork[0]), png);
        EXPECT_EQ(t->artwork[1].type, MP4_ART_JPEG);
        EXPECT_EQ(t->artwork[2].type, MP4_ART_BMP);
    });
    // Replace the first with the JPEG, drop the others.
    modify([&](const MP4Tags* t, MP4FileHandle) {
        const MP4TagArtwork b = artOf(jpg, MP4_ART_JPEG);
        EXPECT_TRUE(MP4TagsSetArtwork(t, 0, &b));
        EXPECT_TRUE(MP4TagsRemoveArtwork(t, 2) && MP4TagsRemoveArtwork(t, 1));
    });
    read([&](const MP4Tags* t, MP4FileHandle) {
        ASSERT_EQ(t->artworkCount, 1u);
        EXPECT_EQ(t->artwork[0].type, MP4_ART_JPEG);
        EXPECT_EQ(bytesOf(t->artwork[0]), jpg);
    });
}

// Read-only handles refuse changes, bad arguments fail cleanly, and a modify
// without a change writes nothing.
TEST_F(Mp4Tags, RefusalsAndAnUnchangedModify) {
    const QByteArray before = readAll(QString::fromStdString(path));
    MP4Close(MP4Modify(path.c_str()));
    EXPECT_EQ(readAll(QString::fromStdString(path)), before);
    MP4FileHandle h = MP4Read(path.c_str());
    const MP4Tags* t = MP4TagsAlloc();
    ASSERT_TRUE(MP4TagsFetch(t, h));
    EXPECT_TRUE(MP4TagsSetName(t, "Kept"));
    EXPECT_FALSE(MP4TagsStore(t, h));
    MP4TagsFree(t);
    MP4Close(h);
    EXPECT_FALSE(MP4TagsSetName(nullptr, "x"));
    EXPECT_FALSE(MP4TagsFetch(nullptr, h));
}
