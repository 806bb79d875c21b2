// iTunes metadata items in moov.udta.meta.ilst: the item primitives the tag
// set builds on, and generic items (MP4Itmf...).

#include "mp4/Handle.h"

#include <cstdlib>
#include <cstring>

using namespace tarnwick::mp4;

namespace tarnwick::mp4 {

namespace {

// The container child of that type, made when missing. A child that could not
// be read as a container is kept as `free` (its bytes stay, hidden) and replaced.
Box* containerChild(Box* parent, uint32_t type, size_t prefixBytes) {
    Box* c = parent->child(type);
    if (c && !c->isContainer()) {
        auto hidden = std::make_unique<Box>(fourcc("free"));
        hidden->data() = c->data();
        const size_t at = parent->indexOf(c);
        parent->remove(c);
        parent->insert(at, std::move(hidden));
        c = nullptr;
    }
    return c ? c : parent->obtain(type, prefixBytes);
}

} // namespace

Box* Handle::ilst(bool create) {
    Box* moov = file->moov();
    if (!create) {
        Box* list = moov->find("udta.meta.ilst");
        return list && list->isContainer() ? list : nullptr;
    }
    Box* udta = containerChild(moov, fourcc("udta"), 0);
    Box* meta = containerChild(udta, fourcc("meta"), 4);
    if (!meta->child(fourcc("hdlr"))) {
        // The metadata handler that players look for: "mdir", made by "appl".
        auto hdlr = std::make_unique<Box>(fourcc("hdlr"));
        Bytes& d = hdlr->data();
        appendBE(d, 4, 0);
        appendBE(d, 4, 0);
        appendBE(d, 4, fourcc("mdir"));
        appendBE(d, 4, fourcc("appl"));
        appendBE(d, 4, 0);
        appendBE(d, 4, 0);
        d.push_back(0);
        meta->insert(0, std::move(hdlr));
    }
    return containerChild(meta, fourcc("ilst"), 0);
}

void Handle::removeItem(Box* item) {
    for (auto it = items.begin(); it != items.end();) {
        if (it->second == item)
            it = items.erase(it);
        else
            ++it;
    }
    if (Box* list = ilst(false))
        list->remove(item);
    file->setDirty();
}

uintptr_t Handle::itemId(Box* item) {
    for (const auto& [id, box] : items)
        if (box == item)
            return id;
    items[nextItemId] = item;
    return nextItemId++;
}

std::vector<ItemData> itemData(const Box* item) {
    std::vector<ItemData> out;
    for (const Box* d : item->childrenOfType(fourcc("data"))) {
        if (d->data().size() < 8)
            continue;
        ItemData v;
        v.typeField = uint32_t(readBE(d->data(), 0, 4));
        v.locale = uint32_t(readBE(d->data(), 4, 4));
        v.value.assign(d->data().begin() + 8, d->data().end());
        out.push_back(std::move(v));
    }
    return out;
}

std::unique_ptr<Box> dataBox(uint32_t typeField, const Bytes& value, uint32_t locale) {
    auto b = std::make_unique<Box>(fourcc("data"));
    appendBE(b->data(), 4, typeField);
    appendBE(b->data(), 4, locale);
    b->data().insert(b->data().end(), value.begin(), value.end());
    return b;
}

} // namespace tarnwick::mp4

// --- generic items ----------------------------------------------------------

namespace {

char* dup(const std::string& s) {
    char* p = static_cast<char*>(std::malloc(s.size() + 1));
    std::memcpy(p, s.data(), s.size());
    p[s.size()] = '\0';
    return p;
}

std::string stringOf(const Box* b) {
    // mean and name boxes are full boxes: version and flags, then the text.
    if (!b || b->data().size() < 4)
        return {};
    return std::string(b->data().begin() + 4, b->data().end());
}

void fillItem(Handle* h, Box* box, MP4ItmfItem& item) {
    std::memset(&item, 0, sizeof item);
    item.__handle = reinterpret_cast<void*>(h->itemId(box));
    item.code = dup(box->typeName());
    if (box->type() == fourcc("----")) {
        item.mean = dup(stringOf(box->child(fourcc("mean"))));
        item.name = dup(stringOf(box->child(fourcc("name"))));
    }
    const auto values = itemData(box);
    item.dataList.size = uint32_t(values.size());
    item.dataList.elements =
        static_cast<MP4ItmfData*>(std::calloc(values.size() + 1, sizeof(MP4ItmfData)));
    for (size_t i = 0; i < values.size(); ++i) {
        MP4ItmfData& d = item.dataList.elements[i];
        d.typeSetIdentifier = uint8_t(values[i].typeField >> 24);
        d.typeCode = MP4ItmfBasicType(values[i].typeField & 0xffffff);
        d.locale = values[i].locale;
        d.valueSize = uint32_t(values[i].value.size());
        d.value = static_cast<uint8_t*>(std::malloc(d.valueSize + 1));
        if (d.valueSize)
            std::memcpy(d.value, values[i].value.data(), d.valueSize);
    }
}

template <typename Pred> MP4ItmfItemList* listItems(MP4FileHandle hFile, Pred pred) {
    Handle* h = Handle::from(hFile);
    if (!h)
        return nullptr;
    std::vector<Box*> found;
    if (Box* list = h->ilst(false))
        for (const auto& c : list->children())
            if (pred(c.get()))
                found.push_back(c.get());
    auto* out = static_cast<MP4ItmfItemList*>(std::calloc(1, sizeof(MP4ItmfItemList)));
    out->size = uint32_t(found.size());
    out->elements = static_cast<MP4ItmfItem*>(std::calloc(found.size() + 1, sizeof(MP4ItmfItem)));
    for (size_t i = 0; i < found.size(); ++i)
        fillItem(h, found[i], out->elements[i]);
    return out;
}

void freeItemContents(MP4ItmfItem* item) {
    std::free(item->code);
    std::free(item->mean);
    std::free(item->name);
    if (item->dataList.elements) {
        for (uint32_t i = 0; i < item->dataList.size; ++i)
            std::free(item->dataList.elements[i].value);
        std::free(item->dataList.elements);
    }
}

std::unique_ptr<Box> buildItem(const MP4ItmfItem* item) {
    const uint32_t code = item->code ? fourcc(std::string_view(item->code)) : 0;
    if (!code)
        return nullptr;
    auto box = std::make_unique<Box>(code);
    box->setContainer(true);
    if (code == fourcc("----")) {
        if (!item->mean || !item->name)
            return nullptr;
        for (auto [type, text] :
             {std::pair{fourcc("mean"), item->mean}, {fourcc("name"), item->name}}) {
            auto b = std::make_unique<Box>(type);
            appendBE(b->data(), 4, 0);
            b->data().insert(b->data().end(), text, text + std::strlen(text));
            box->append(std::move(b));
        }
    }
    for (uint32_t i = 0; i < item->dataList.size; ++i) {
        const MP4ItmfData& d = item->dataList.elements[i];
        Bytes v;
        if (d.value && d.valueSize)
            v.assign(d.value, d.value + d.valueSize);
        box->append(dataBox(uint32_t(d.typeSetIdentifier) << 24 | (uint32_t(d.typeCode) & 0xffffff),
                            v, d.locale));
    }
    return box;
}

Box* itemBox(Handle* h, const MP4ItmfItem* item) {
    auto it = h->items.find(reinterpret_cast<uintptr_t>(item->__handle));
    if (it == h->items.end())
        return nullptr;
    Box* list = h->ilst(false);
    if (!list || list->indexOf(it->second) == list->children().size())
        return nullptr;
    return it->second;
}

} // namespace

MP4ItmfItem* MP4ItmfItemAlloc(const char* code, uint32_t numData) {
    auto* item = static_cast<MP4ItmfItem*>(std::calloc(1, sizeof(MP4ItmfItem)));
    item->code = code ? dup(code) : nullptr;
    item->dataList.size = numData;
    item->dataList.elements =
        static_cast<MP4ItmfData*>(std::calloc(numData + 1, sizeof(MP4ItmfData)));
    for (uint32_t i = 0; i < numData; ++i)
        item->dataList.elements[i].typeCode = MP4_ITMF_BT_IMPLICIT;
    return item;
}

void MP4ItmfItemFree(MP4ItmfItem* item) {
    if (!item)
        return;
    freeItemContents(item);
    std::free(item);
}

void MP4ItmfItemListFree(MP4ItmfItemList* list) {
    if (!list)
        return;
    for (uint32_t i = 0; i < list->size; ++i)
        freeItemContents(&list->elements[i]);
    std::free(list->elements);
    std::free(list);
}

MP4ItmfItemList* MP4ItmfGetItems(MP4FileHandle hFile) {
    return listItems(hFile, [](const Box*) { return true; });
}

MP4ItmfItemList* MP4ItmfGetItemsByCode(MP4FileHandle hFile, const char* code) {
    const uint32_t c = code ? fourcc(std::string_view(code)) : 0;
    return listItems(hFile, [c](const Box* b) { return b->type() == c; });
}

MP4ItmfItemList* MP4ItmfGetItemsByMeaning(MP4FileHandle hFile, const char* meaning,
                                          const char* name) {
    if (!meaning)
        return nullptr;
    return listItems(hFile, [&](const Box* b) {
        return b->type() == fourcc("----") && stringOf(b->child(fourcc("mean"))) == meaning &&
               (!name || stringOf(b->child(fourcc("name"))) == name);
    });
}

bool MP4ItmfAddItem(MP4FileHandle hFile, const MP4ItmfItem* item) {
    Handle* h = Handle::from(hFile);
    if (!h || !item || !h->file->writable())
        return false;
    auto box = buildItem(item);
    if (!box)
        return false;
    h->ilst(true)->append(std::move(box));
    h->file->setDirty();
    return true;
}

bool MP4ItmfSetItem(MP4FileHandle hFile, const MP4ItmfItem* item) {
    Handle* h = Handle::from(hFile);
    if (!h || !item || !h->file->writable())
        return false;
    Box* old = itemBox(h, item);
    auto box = buildItem(item);
    if (!old || !box)
        return false;
    Box* list = h->ilst(false);
    const size_t at = list->indexOf(old);
    h->removeItem(old);
    Box* added = list->insert(at, std::move(box));
    h->items[reinterpret_cast<uintptr_t>(item->__handle)] = added;
    return true;
}

bool MP4ItmfRemoveItem(MP4FileHandle hFile, const MP4ItmfItem* item) {
    Handle* h = Handle::from(hFile);
    if (!h || !item || !h->file->writable())
        return false;
    Box* box = itemBox(h, item);
    if (!box)
        return false;
    h->removeItem(box);
    return true;
}
