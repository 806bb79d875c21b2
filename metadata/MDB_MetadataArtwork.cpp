// The record's artwork and backdrop: from the application's resources, a
// file, bytes, an address or the search results' image list.

#include "metadata/MDB_Metadata.h"

#include "core/HttpClient.h"
#include "core/Resources.h"

#include <QFileInfo>

namespace {

MDB_Image imageFromFile(const QString& path) {
    if (path.isEmpty())
        return {};
    return MDB_Image::fromFile(path);
}

QString resourcePath(const QString& name, const QString& type) {
    return Resources::path(type.isEmpty() ? name : name + QLatin1Char('.') + type);
}
} // namespace

bool MDB_Metadata::takeArtwork(const MDB_Image& image, const QUrl& url, qint64 index) {
    if (image.isNull())
        return false;
    m_artwork = image;
    m_artworkURL = url;
    m_artworkIndex = index;
    m_isEdited = true;
    m_isArtworkEdited = true;
    return true;
}

void MDB_Metadata::clearArtwork() {
    m_artwork = MDB_Image();
    m_artworkURL = QUrl();
    m_isEdited = true;
    m_isArtworkEdited = true;
}

bool MDB_Metadata::setArtworkFromBundle(const QString& name, const QString& type) {
    if (name.isEmpty()) {
        clearArtwork();
        return true;
    }
    const QString path = resourcePath(name, type);
    return takeArtwork(imageFromFile(path), QUrl::fromLocalFile(path), -1);
}

bool MDB_Metadata::setArtworkFromPath(const QString& path) {
    if (path.isEmpty()) {
        clearArtwork();
        return true;
    }
    return takeArtwork(imageFromFile(path), QUrl::fromLocalFile(QFileInfo(path).absoluteFilePath()),
                       -1);
}

bool MDB_Metadata::setArtworkFromData(const QByteArray& data) {
    if (data.isEmpty()) {
        clearArtwork();
        return true;
    }
    return takeArtwork(MDB_Image::fromData(data), QUrl(), -1);
}

bool MDB_Metadata::setArtworkFromURL(const QUrl& url) {
    if (url.isEmpty()) {
        clearArtwork();
        return true;
    }
    return takeArtwork(fetchImage(url), url, -1);
}

MDB_Image MDB_Metadata::fetchImage(const QUrl& url) {
    const HttpClient::Response response = HttpClient::get(url);
    if (!response.ok())
        return {};
    return MDB_Image::fromData(response.body);
}

bool MDB_Metadata::setArtworkFromIndex(qint64 index) {
    if (index < 0 || index >= m_artworkFullsizeURLs.size())
        return setArtworkFromIndex(index, MDB_Image());
    return setArtworkFromIndex(index, fetchImage(m_artworkFullsizeURLs.at(index)));
}

bool MDB_Metadata::setArtworkFromIndex(qint64 index, const MDB_Image& fetched) {
    if (index < 0 || index >= m_artworkFullsizeURLs.size()) {
        m_artwork = MDB_Image();
        m_artworkURL = QUrl();
        return false;
    }
    return takeArtwork(fetched, QUrl(), index);
}

void MDB_Metadata::copyArtwork(const MDB_Metadata& other) {
    if (other.m_artworkIndex >= 0)
        setArtworkFromIndex(other.m_artworkIndex);
    else if (!other.m_artworkURL.isEmpty())
        setArtworkFromURL(other.m_artworkURL);
}

QUrl MDB_Metadata::getArtworkURL() const {
    if (!m_artworkURL.isEmpty())
        return m_artworkURL;
    if (m_artworkIndex >= 0 && m_artworkIndex < m_artworkFullsizeURLs.size())
        return m_artworkFullsizeURLs.at(m_artworkIndex);
    return {};
}

qint64 MDB_Metadata::getArtworkIndexFromURL(const QUrl& url) const {
    const qsizetype index = m_artworkFullsizeURLs.indexOf(url);
    return index < 0 ? NotFound : index;
}

bool MDB_Metadata::setBackdropFromBundle(const QString& name, const QString& type) {
    if (name.isEmpty()) {
        m_backdrop = MDB_Image();
        m_backdropURL = QUrl();
        return true;
    }
    const QString path = resourcePath(name, type);
    const MDB_Image image = imageFromFile(path);
    if (image.isNull())
        return false;
    m_backdrop = image;
    m_backdropURL = QUrl::fromLocalFile(path);
    return true;
}

bool MDB_Metadata::setBackdropFromPath(const QString& path) {
    if (path.isEmpty()) {
        m_backdrop = MDB_Image();
        return true;
    }
    const MDB_Image image = imageFromFile(path);
    if (image.isNull())
        return false;
    m_backdrop = image;
    return true;
}

bool MDB_Metadata::setBackdropFromURL(const QUrl& url) {
    if (url.isEmpty()) {
        m_backdrop = MDB_Image();
        m_backdropURL = QUrl();
        return true;
    }
    return setBackdropFromURL(url, fetchImage(url));
}

bool MDB_Metadata::setBackdropFromURL(const QUrl& url, const MDB_Image& fetched) {
    if (fetched.isNull())
        return false;
    m_backdrop = fetched;
    m_backdropURL = url;
    return true;
}
