#pragma once

#include <QList>
#include <QString>
#include <QUrl>
#include <QtGlobal>

class MDB_Basicdata;

// One movie of the iTunes library as the grid shows it: a content id with
// every file that holds that movie (an SD and an HD version, say).
class iTunesMovieCell {
public:
    // An empty cell: name, sort name and genre "Unknown", no files.
    iTunesMovieCell();
    // `initWithData:`: the cell of one file's basic data.
    explicit iTunesMovieCell(const MDB_Basicdata& data);

    // Another file of the same movie. It becomes the file shown when its HD
    // flag is greater than the one shown so far, so the best version is shown.
    void addURL(const QUrl& url, quint8 hdVideo);

    const QString& uid() const { return m_uid; }
    const QString& name() const { return m_name; }
    const QString& sortName() const { return m_sortName; }
    const QString& genre() const { return m_genre; }
    const QUrl& url() const { return m_url; }
    const QList<QUrl>& urls() const { return m_urls; }
    quint64 version() const { return m_version; }
    quint8 hdVideo() const { return m_hdVideo; }
    bool isSD() const { return m_isSD; }
    bool isHD() const { return m_isHD; }

    // What the grid view asks of its items.
    static QString imageRepresentationType();
    QString imageRepresentation() const;
    const QString& imageUID() const { return m_uid; }
    quint64 imageVersion() const { return m_version; }
    const QString& imageTitle() const { return m_name; }

    // After the editor saved the file: the new name, and a new image version
    // so views load the cover again.
    void fileSaved(const QString& name) {
        if (!name.isEmpty())
            m_name = name;
        ++m_version;
    }

    // The grid's representation type for a file path image.
    static constexpr char kPathRepresentationType[] = "path";

private:
    void takeURL(const QUrl& url, quint8 hdVideo);

    QString m_uid;
    QString m_name;
    QString m_sortName;
    QString m_genre;
    QUrl m_url;
    QList<QUrl> m_urls;
    quint64 m_version = 1;
    quint8 m_hdVideo = 0;
    bool m_isSD = false;
    bool m_isHD = false;
};
