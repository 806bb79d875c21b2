#include "media/MDI_Movie.h"

#include "core/MDB_Utility.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "metadata/TagNames.h"

void MDI_Movie::autoFindMainTitle() {
    qint32 longest = 0;
    qint64 position = 0;
    for (size_t i = 0; i < m_titles.size(); ++i) {
        const qint32 seconds = m_titles[i]->getDuration();
        if (seconds > longest) {
            longest = seconds;
            position = qint64(i);
        }
    }
    m_mainTitle = longest > 0 ? position : 0;
}

void MDI_Movie::assignContentID(MDB_Metadata& record) {
    const qint64 source =
        UserDefaults::standard().integerForKey(QLatin1String(SettingsKey::ContentIDSource));
    const char* key = nullptr;
    if (source == 1)
        key = TagName::IMDbID;
    else if (source == 0)
        key = TagName::TMDbID;
    if (!key)
        return;
    const QString id = record.getTag(QLatin1String(key));
    // Written after the merge, so only the hit's record carries it.
    if (!id.isEmpty())
        record.setTag(id, QLatin1String(TagName::ContentID));
}

void MDI_Movie::copyMetadata(MDB_Metadata& record) {
    MDI_Media::copyMetadata(record);
    assignContentID(record);

    m_localThumbnails.clear();
    for (const QUrl& url : getMetadata()->artworkThumbURLs()) {
        const QUrl local = MDB_Utility::copyResourceToTemp(url);
        if (!local.isEmpty())
            m_localThumbnails.append(local);
    }
}

void MDI_Movie::replaceMetadata(MDB_Metadata& record) {
    MDI_Media::replaceMetadata(record);
    assignContentID(record);
}
