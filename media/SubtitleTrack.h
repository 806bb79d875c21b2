#pragma once

#include <QString>
#include <QUrl>
#include <QtGlobal>

// One subtitle track of a scanned title. `type` is the rest of the report line
// after the language, e.g. "(Text)(SSA)" or "(Bitmap)(VOBSUB)".
class SubtitleTrack {
public:
    SubtitleTrack() = default;

    const QString& name() const { return m_name; }
    void setName(const QString& name) { m_name = name; }
    const QString& isoType() const { return m_isoType; }
    void setIsoType(const QString& isoType) { m_isoType = isoType; }
    const QString& isoName() const { return m_isoName; }
    void setIsoName(const QString& isoName) { m_isoName = isoName; }
    const QString& type() const { return m_type; }
    void setType(const QString& type) { m_type = type; }
    // An external subtitle file; carried for callers, never set by the scan.
    const QUrl& srtURL() const { return m_srtURL; }
    void setSrtURL(const QUrl& srtURL) { m_srtURL = srtURL; }
    qint64 origIndex() const { return m_origIndex; }
    void setOrigIndex(qint64 origIndex) { m_origIndex = origIndex; }
    bool include() const { return m_include; }
    void setInclude(bool include) { m_include = include; }
    bool native() const { return m_native; }
    void setNative(bool native) { m_native = native; }
    bool burn() const { return m_burn; }
    void setBurn(bool burn) { m_burn = burn; }

    // Whether the track carries text rather than bitmap pictures.
    bool isText() const { return m_type.contains(QLatin1String("text"), Qt::CaseInsensitive); }

private:
    QString m_name;
    QString m_isoType;
    QString m_isoName;
    QString m_type;
    QUrl m_srtURL;
    qint64 m_origIndex = 0;
    bool m_include = false;
    bool m_native = false;
    bool m_burn = false;
};
