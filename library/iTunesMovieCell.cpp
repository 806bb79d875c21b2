#include "library/iTunesMovieCell.h"

#include "metadata/MDB_Basicdata.h"

iTunesMovieCell::iTunesMovieCell()
    : m_name(QStringLiteral("Unknown")), m_sortName(QStringLiteral("Unknown")),
      m_genre(QStringLiteral("Unknown")) {}

iTunesMovieCell::iTunesMovieCell(const MDB_Basicdata& data) : iTunesMovieCell() {
    m_uid = data.contentID;
    if (!data.name.isEmpty())
        m_name = data.name;
    if (!data.sortName.isEmpty())
        m_sortName = data.sortName;
    if (!data.genre.isEmpty())
        m_genre = data.genre;
    addURL(data.url, data.hdVideo);
}

void iTunesMovieCell::addURL(const QUrl& url, quint8 hdVideo) {
    if (m_urls.contains(url))
        return;
    m_urls.append(url);
    if (m_url.isEmpty() || hdVideo > m_hdVideo)
        takeURL(url, hdVideo);
}

void iTunesMovieCell::takeURL(const QUrl& url, quint8 hdVideo) {
    m_url = url;
    m_hdVideo = hdVideo;
    m_isHD = hdVideo == 1 || hdVideo == 2;
    m_isSD = hdVideo == 0;
}

QString iTunesMovieCell::imageRepresentationType() {
    return QString::fromLatin1(kPathRepresentationType);
}

QString iTunesMovieCell::imageRepresentation() const {
    return m_url.isLocalFile() ? m_url.toLocalFile() : m_url.toString();
}
