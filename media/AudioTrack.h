#pragma once

#include <QString>
#include <QtGlobal>

// One audio track of a scanned title. `origIndex` is the encoder's own
// 1-based track number; `native`, `include` and `duplicate` are decided by the
// title and the media item, not by the scan report.
class AudioTrack {
public:
    AudioTrack() = default;

    const QString& name() const { return m_name; }
    void setName(const QString& name) { m_name = name; }
    const QString& codec() const { return m_codec; }
    void setCodec(const QString& codec) { m_codec = codec; }
    const QString& channels() const { return m_channels; }
    void setChannels(const QString& channels) { m_channels = channels; }
    // "iso639-1" or "iso639-2": the family `isoName` belongs to.
    const QString& isoType() const { return m_isoType; }
    void setIsoType(const QString& isoType) { m_isoType = isoType; }
    const QString& isoName() const { return m_isoName; }
    void setIsoName(const QString& isoName) { m_isoName = isoName; }
    const QString& freq() const { return m_freq; }
    void setFreq(const QString& freq) { m_freq = freq; }
    const QString& bps() const { return m_bps; }
    void setBps(const QString& bps) { m_bps = bps; }
    qint64 origIndex() const { return m_origIndex; }
    void setOrigIndex(qint64 origIndex) { m_origIndex = origIndex; }
    bool include() const { return m_include; }
    void setInclude(bool include) { m_include = include; }
    bool native() const { return m_native; }
    void setNative(bool native) { m_native = native; }
    bool duplicate() const { return m_duplicate; }
    void setDuplicate(bool duplicate) { m_duplicate = duplicate; }

private:
    QString m_name;
    QString m_codec;
    QString m_channels;
    QString m_isoType;
    QString m_isoName;
    QString m_freq;
    QString m_bps;
    qint64 m_origIndex = 0;
    bool m_include = false;
    bool m_native = false;
    bool m_duplicate = false;
};
