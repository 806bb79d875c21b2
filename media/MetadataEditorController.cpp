#include "media/MetadataEditorController.h"

#include "core/MDB_Utility.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "library/MoviesBrowserController.h"
#include "library/RetagBrowserController.h"
#include "lookup/SearchResultsPanelController.h"
#include "media/EncodeBrowserController.h"
#include "media/MDI_Media.h"
#include "metadata/MDB_Certifications.h"
#include "metadata/MDB_Metadata.h"
#include "metadata/TagNames.h"

#include <QFileInfo>

namespace {

QString tag(const char* name) {
    return QString::fromLatin1(name);
}

// Numeric flags kept outside the text tags.
const char* const kMediaKind = "Media Kind";
const char* const kContentRating = "Content Rating";
const char* const kHDVideo = "HD Video";
const char* const kGapless = "Gapless";

// A record with everything the editor may change, URL lists included
// (copyWithZone() keeps only what is merged between records).
std::unique_ptr<MDB_Metadata> clone(const MDB_Metadata& source) {
    std::unique_ptr<MDB_Metadata> copy = source.copyWithZone();
    copy->setTagsDict(source.tagsDict());
    copy->setArtwork(source.artwork());
    copy->setArtworkURL(source.artworkURL());
    copy->setArtworkIndex(source.artworkIndex());
    copy->setArtworkThumbURLs(source.artworkThumbURLs());
    copy->setArtworkFullsizeURLs(source.artworkFullsizeURLs());
    copy->setBackdrop(source.backdrop());
    copy->setBackdropURL(source.backdropURL());
    copy->setBackdropThumbURLs(source.backdropThumbURLs());
    copy->setBackdropFullsizeURLs(source.backdropFullsizeURLs());
    copy->setMediaKind(source.mediaKind());
    copy->setContentRating(source.contentRating());
    copy->setHdVideo(source.hdVideo());
    copy->setGapless(source.gapless());
    copy->setPodcast(source.podcast());
    copy->setTagLine(source.tagLine());
    copy->setIsEdited(source.isEdited());
    copy->setIsArtworkEdited(source.isArtworkEdited());
    return copy;
}

} // namespace

MetadataEditorController::MetadataEditorController(EncodeBrowserController* browser,
                                                   QObject* parent)
    : QObject(parent), m_source(Source::Encode), m_encode(browser) {}

MetadataEditorController::MetadataEditorController(RetagBrowserController* browser, QObject* parent)
    : QObject(parent), m_source(Source::Retag), m_retag(browser) {}

MetadataEditorController::MetadataEditorController(MoviesBrowserController* library,
                                                   QObject* parent)
    : QObject(parent), m_source(Source::Library), m_library(library) {}

MetadataEditorController::~MetadataEditorController() = default;

bool MetadataEditorController::load() {
    m_item.reset();
    switch (m_source) {
    case Source::Encode:
        if (m_encode)
            m_item = m_encode->firstSelectedItem();
        break;
    case Source::Retag:
        if (m_retag)
            m_item = m_retag->firstSelectedItem();
        break;
    case Source::Library:
        if (m_library)
            m_item = m_library->curMovie();
        break;
    }
    if (m_item)
        takeSnapshot();
    m_modified = false;
    emit changed();
    return bool(m_item);
}

void MetadataEditorController::takeSnapshot() {
    m_snapshot = clone(*m_item->getMetadata());
    m_snapshotThumbnails = m_item->localThumbnails();
    m_snapshotName = m_item->name();
}

MDB_Metadata* MetadataEditorController::record() const {
    return m_item ? m_item->getMetadata() : nullptr;
}

QList<MetadataEditorController::Field> MetadataEditorController::fields() {
    QList<Field> list;
    QStringList seen;
    auto add = [&](const QString& key) {
        if (!seen.contains(key)) {
            seen << key;
            list.append({key, kind(key)});
        }
    };
    const QVariantMap basic =
        UserDefaults::standard().dictionaryForKey(tag(SettingsKey::DefaultMetadataList));
    for (const QString& key : MDB_Metadata::writableMetadata()) {
        if (basic.value(key).toBool())
            add(key);
    }
    const OrderedDictionary<QString, bool> groups = MDB_Metadata::orderedMetadataList();
    for (const QString& key : groups.keys()) {
        if (groups.value(key))
            add(key);
    }
    for (const char* key : {kMediaKind, kContentRating, kHDVideo, kGapless})
        add(tag(key));
    return list;
}

MetadataEditorController::Kind MetadataEditorController::kind(const QString& key) {
    static const QStringList longText{tag(TagName::Description), tag(TagName::LongDescription),
                                      tag(TagName::SeriesDescription), tag(TagName::Lyrics),
                                      tag(TagName::Comments)};
    if (longText.contains(key))
        return Kind::LongText;
    if (key == QLatin1String(TagName::ReleaseDate))
        return Kind::Date;
    if (key == QLatin1String(TagName::TrackNumber) || key == QLatin1String(TagName::DiskNumber))
        return Kind::NumberPair;
    if (key == QLatin1String(TagName::Rating))
        return Kind::Rating;
    if (key == QLatin1String(kMediaKind))
        return Kind::MediaKind;
    if (key == QLatin1String(kContentRating))
        return Kind::ContentRating;
    if (key == QLatin1String(kHDVideo))
        return Kind::HDVideo;
    if (key == QLatin1String(kGapless))
        return Kind::Boolean;
    return Kind::Text;
}

QString MetadataEditorController::value(const QString& key) const {
    const MDB_Metadata* r = record();
    if (!r)
        return {};
    switch (kind(key)) {
    case Kind::MediaKind:
        return MDB_Metadata::mediaTypes().value(r->mediaKind());
    case Kind::ContentRating:
        return MDB_Metadata::contentRatings().value(r->contentRating());
    case Kind::HDVideo:
        return QString::number(r->hdVideo());
    case Kind::Boolean:
        return r->gapless() ? QStringLiteral("1") : QStringLiteral("0");
    default:
        return r->getTag(key);
    }
}

QList<std::pair<QString, QString>> MetadataEditorController::ratingChoices() const {
    QList<std::pair<QString, QString>> choices;
    if (!m_item)
        return choices;
    const QString country = MDB_Utility::countryCode(m_item->languageRegion());
    const QStringList names = MDB_Certifications::certificationNames(country);
    const QStringList codes = MDB_Certifications::certificationCodes(country);
    for (qsizetype i = 0; i < names.size() && i < codes.size(); ++i)
        choices.append({names.at(i), codes.at(i)});
    return choices;
}

bool MetadataEditorController::setValue(const QString& key, const QString& text) {
    MDB_Metadata* r = record();
    if (!r || value(key) == text)
        return false;
    r->setTag(text, key);
    m_modified = true;
    if (key == QLatin1String(TagName::Name)) {
        m_item->setName(text);
        if (m_encode)
            m_encode->metadataNameUpdate(text);
        else if (m_retag)
            m_retag->metadataNameUpdate(text);
    }
    emit changed();
    return true;
}

QList<QUrl> MetadataEditorController::coverCandidates() const {
    const MDB_Metadata* r = record();
    if (!r)
        return {};
    return r->artworkFullsizeURLs() + r->backdropFullsizeURLs();
}

bool MetadataEditorController::chooseCover(int index) {
    MDB_Metadata* r = record();
    if (!r || index < 0)
        return false;
    const qint64 posters = r->artworkFullsizeURLs().size();
    bool taken = false;
    if (index < posters) {
        // A failed download must not clear the cover shown now.
        const MDB_Image before = r->artwork();
        const QUrl beforeURL = r->artworkURL();
        const qint64 beforeIndex = r->artworkIndex();
        taken = r->setArtworkFromIndex(index);
        if (!taken) {
            r->setArtwork(before);
            r->setArtworkURL(beforeURL);
            r->setArtworkIndex(beforeIndex);
        }
    } else if (index - posters < r->backdropFullsizeURLs().size()) {
        const QUrl url = r->backdropFullsizeURLs().at(index - posters);
        // A local backdrop is taken by path, so it needs no download.
        taken = url.isLocalFile() ? r->setArtworkFromPath(url.toLocalFile())
                                  : r->setArtworkFromURL(url);
    }
    if (taken)
        coverChanged();
    return taken;
}

bool MetadataEditorController::setCoverFromFile(const QString& path) {
    MDB_Metadata* r = record();
    if (!r || !QFileInfo(path).isFile() || !r->setArtworkFromPath(path))
        return false;
    coverChanged();
    return true;
}

void MetadataEditorController::coverChanged() {
    m_modified = true;
    // The cell and the panels show the first local thumbnail; a fresh name
    // each time, since an existing temporary image is never rewritten.
    static int serial = 0;
    const QString name = QStringLiteral("cover-%1-%2")
                             .arg(QString::number(quintptr(m_item.get()), 16))
                             .arg(++serial);
    bool existed = false;
    const QUrl local = MDB_Utility::copyImageToTemp(record()->artwork(), name, &existed);
    if (!local.isEmpty()) {
        QList<QUrl> thumbnails = m_item->localThumbnails();
        thumbnails.prepend(local);
        m_item->setLocalThumbnails(thumbnails);
        if (m_encode)
            m_encode->metadataViewUpdate(local.toLocalFile());
        else if (m_retag)
            m_retag->tagViewUpdate(local.toLocalFile());
    }
    emit changed();
}

bool MetadataEditorController::save(QString* error) {
    auto fail = [&](const QString& message) {
        if (error)
            *error = message;
        return false;
    };
    if (!m_item)
        return fail(QStringLiteral("No movie to save."));
    bool saved = false;
    switch (m_source) {
    case Source::Encode:
        // Written into the file by the tagging after the encode.
        saved = true;
        break;
    case Source::Retag:
        saved = m_retag && m_retag->saveItem(m_item, error);
        break;
    case Source::Library:
        saved = m_library && m_library->saveMovie(m_item, error);
        break;
    }
    if (!saved)
        return false;
    takeSnapshot();
    m_modified = false;
    emit changed();
    return true;
}

void MetadataEditorController::revert() {
    // A record being queried is found again by its address: left alone.
    if (!m_item || !m_snapshot || (m_item->status() >= 5 && m_item->status() <= 7))
        return;
    const bool renamed = m_item->name() != m_snapshotName;
    const bool newCover = m_item->localThumbnails() != m_snapshotThumbnails;
    m_item->setMetaData(clone(*m_snapshot));
    m_item->setLocalThumbnails(m_snapshotThumbnails);
    m_item->setName(m_snapshotName);
    EncodeBrowserController* browser =
        m_encode ? m_encode.data() : static_cast<EncodeBrowserController*>(m_retag.data());
    if (browser && renamed)
        browser->metadataNameUpdate(m_snapshotName);
    if (browser && newCover && !m_snapshotThumbnails.isEmpty())
        browser->metadataViewUpdate(m_snapshotThumbnails.first().toLocalFile());
    m_modified = false;
    emit changed();
}

void MetadataEditorController::openSearch(SearchResultsPanelController& panel) const {
    panel.withParentWindow(m_item, m_source != Source::Retag);
}

bool MetadataEditorController::applySearch(const SearchResultsPanelController& panel) {
    if (!m_item || panel.curMovie() != m_item)
        return false;
    const qint64 row = panel.selectedSearchResult();
    switch (m_source) {
    case Source::Encode:
        if (!m_encode || !panel.selectionChanged())
            return false;
        m_encode->metadataSearchUpdate(m_item, row);
        break;
    case Source::Retag:
        if (!m_retag || row < 0)
            return false;
        m_retag->tagSearchUpdate(m_item, row);
        break;
    case Source::Library:
        return false;
    }
    // The query replaces the record; what was kept from before is not
    // what a revert should bring back over the user's pick.
    m_modified = true;
    emit changed();
    return m_item->status() == 7;
}
