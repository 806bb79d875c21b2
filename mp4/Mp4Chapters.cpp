// Chapters of the MP4 file API: QuickTime chapter tracks and Nero chpl.

#include "mp4/Handle.h"
#include "mp4/SampleTables.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

using namespace tarnwick::mp4;

namespace {

// Far beyond any real chapter list; bounds the work on damaged tables.
constexpr uint32_t kMaxChapters = 10000;

struct ChapterEntry {
    uint64_t startMs;
    std::string title;
};

bool qtChapters(Handle* h, std::vector<ChapterEntry>& out, uint64_t& endMs) {
    for (Box* t : h->traks()) {
        const Box* chap = t->find("tref.chap");
        if (!chap || chap->data().size() < 4)
            continue;
        Box* text = h->trak(MP4TrackId(readBE(chap->data(), 0, 4)));
        const MdhdFields f = mdhd(text);
        if (!text || !f.ok || f.timeScale == 0)
            continue;
        const uint32_t n = std::min<uint32_t>(sampleCount(text), kMaxChapters);
        uint64_t time = 0;
        for (MP4SampleId s = 1; s <= n; ++s) {
            uint64_t offset = 0;
            const uint32_t size = sampleSize(text, s);
            std::string title;
            if (size >= 2 && size < (1u << 20) && sampleOffset(text, s, &offset)) {
                Bytes buf(size);
                if (h->file->readAt(offset, buf.data(), size)) {
                    const size_t len = std::min<size_t>(readBE(buf, 0, 2), size - 2);
                    title.assign(reinterpret_cast<const char*>(buf.data()) + 2, len);
                }
            }
            out.push_back({time * 1000 / f.timeScale, title});
            const MP4Duration d = sampleDuration(text, s);
            if (d != MP4_INVALID_DURATION)
                time += d;
        }
        endMs = time * 1000 / f.timeScale;
        return !out.empty();
    }
    return false;
}

bool neroChapters(Handle* h, std::vector<ChapterEntry>& out) {
    const Box* chpl = h->file->moov()->find("udta.chpl");
    if (!chpl)
        return false;
    const Bytes& d = chpl->data();
    size_t pos = readBE(d, 0, 1) == 1 ? 8 : 4;
    const size_t count = size_t(readBE(d, pos, 1));
    ++pos;
    for (size_t i = 0; i < count && pos + 9 <= d.size(); ++i) {
        const uint64_t start = readBE(d, pos, 8); // 100 ns units
        const size_t len = d[pos + 8];
        pos += 9;
        if (pos + len > d.size())
            break;
        out.push_back({start / 10000, std::string(reinterpret_cast<const char*>(&d[pos]), len)});
        pos += len;
    }
    return !out.empty();
}

} // namespace

MP4ChapterType MP4GetChapters(MP4FileHandle hFile, MP4Chapter_t** chapterList,
                              uint32_t* chapterCount, MP4ChapterType fromChapterType) {
    Handle* h = Handle::from(hFile);
    if (chapterList)
        *chapterList = nullptr;
    if (chapterCount)
        *chapterCount = 0;
    if (!h || !chapterList || !chapterCount)
        return MP4ChapterTypeNone;
    std::vector<ChapterEntry> entries;
    const uint32_t scale = MP4GetTimeScale(hFile);
    uint64_t endMs = scale ? MP4GetDuration(hFile) * 1000 / scale : 0;
    MP4ChapterType found = MP4ChapterTypeNone;
    if ((fromChapterType == MP4ChapterTypeQt || fromChapterType == MP4ChapterTypeAny) &&
        qtChapters(h, entries, endMs))
        found = MP4ChapterTypeQt;
    else if ((fromChapterType == MP4ChapterTypeNero || fromChapterType == MP4ChapterTypeAny) &&
             neroChapters(h, entries))
        found = MP4ChapterTypeNero;
    if (found == MP4ChapterTypeNone)
        return found;
    auto* list = static_cast<MP4Chapter_t*>(std::calloc(entries.size(), sizeof(MP4Chapter_t)));
    for (size_t i = 0; i < entries.size(); ++i) {
        const uint64_t next = i + 1 < entries.size() ? entries[i + 1].startMs : endMs;
        list[i].duration = next > entries[i].startMs ? next - entries[i].startMs : 0;
        std::strncpy(list[i].title, entries[i].title.c_str(), MP4V2_CHAPTER_TITLE_MAX);
    }
    *chapterList = list;
    *chapterCount = uint32_t(entries.size());
    return found;
}
