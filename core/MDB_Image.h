// Images are kept encoded, and decoded only through a codec module loaded on
// demand, so that headless runs do not pay the GUI library's start-up cost.
#pragma once

#include <QByteArray>
#include <QMetaType>
#include <QSize>
#include <QString>

// An image as its encoded bytes: PNG or JPEG, with the pixel size read from
// the header. Loading checks the structure (PNG: signature, IHDR first, every
// chunk's CRC, IDAT, IEND; JPEG: the marker walk from SOI over a frame header
// and a scan to EOI) without decoding pixels. Other formats the image plugins
// read are converted to PNG once, at load, through the codec module.
//
// A plain value, cheap to copy (the bytes are shared) and safe to hand between
// threads.
class MDB_Image {
public:
    enum class Format { None, Png, Jpeg };

    MDB_Image() = default;

    // A null image, with the reason in `error`, when the bytes are not a
    // sound image or a conversion they need fails.
    static MDB_Image fromData(const QByteArray& bytes, QString* error = nullptr);
    static MDB_Image fromFile(const QString& path, QString* error = nullptr);

    bool isNull() const { return m_format == Format::None; }
    Format format() const { return m_format; }
    QSize size() const { return m_size; }
    int width() const { return m_size.width(); }
    int height() const { return m_size.height(); }
    // The encoded bytes as loaded (or as converted at load).
    const QByteArray& data() const { return m_data; }

    // The image as PNG: its own bytes when it is one, else converted through the
    // codec module; empty, with the reason in `error`, when that fails.
    QByteArray pngData(QString* error = nullptr) const;

    // Same encoded bytes. Two encodings of the same picture differ here; see
    // hasSamePixels().
    bool operator==(const MDB_Image& other) const {
        return m_format == other.m_format && m_data == other.m_data;
    }
    bool operator!=(const MDB_Image& other) const { return !(*this == other); }

    // Same size and same pixels; decodes both through the codec module unless
    // the bytes are equal. False, with the reason in `error`, when decoding fails.
    bool hasSamePixels(const MDB_Image& other, QString* error = nullptr) const;

    // Where the codec module is looked for: the folder of the auxiliary tools.
    static QString codecPath();

private:
    QByteArray m_data;
    Format m_format = Format::None;
    QSize m_size{0, 0};
};

Q_DECLARE_METATYPE(MDB_Image)
