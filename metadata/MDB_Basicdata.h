#pragma once

#include <QString>
#include <QUrl>

#include <optional>

// The few values a library listing shows for one movie file, read quickly
// without the whole record.
class MDB_Basicdata {
public:
    // None when the file cannot be opened as MP4. Missing tags are filled from
    // the file name ("Unknown" for the genre).
    static std::optional<MDB_Basicdata> readBasicDataFromFile(const QUrl& url);

    QString name;
    QString sortName;
    QUrl url;
    QString contentID;
    QString genre;
    quint8 hdVideo = 0;
};
