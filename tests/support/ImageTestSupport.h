#pragma once

// Sample images made in memory with Qt's own codecs (tests may link the GUI
// library), and the pixels of an image for checks by content.

#include "core/MDB_Image.h"

#include <QBuffer>
#include <QColor>
#include <QImage>
#include <QString>
#include <QtGlobal>

namespace imagetest {

inline QImage solid(int width, int height, QColor color) {
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(color);
    return image;
}

// A picture whose every pixel differs from its neighbours, so a lossy encoding
// cannot pass for the original.
inline QImage gradient(int width, int height) {
    QImage image(width, height, QImage::Format_RGB32);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            image.setPixel(x, y, qRgb((x * 255) / width, (y * 255) / height, (x * y) % 256));
    return image;
}

// `quality` is the JPEG quality, or for PNG the compression level inverted
// (0 = strongest), as QImage::save() takes it.
inline QByteArray encoded(const QImage& image, const char* format, int quality = -1) {
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, format, quality);
    return bytes;
}

inline MDB_Image png(const QImage& image, int quality = -1) {
    return MDB_Image::fromData(encoded(image, "PNG", quality));
}

inline MDB_Image jpeg(const QImage& image, int quality = 90) {
    return MDB_Image::fromData(encoded(image, "JPEG", quality));
}

// The pixels, decoded by Qt independently of the codec module.
inline QImage decoded(const MDB_Image& image) {
    return QImage::fromData(image.data());
}

// While alive, the image codec module is looked for in `folder` (one without
// it) instead of the build's.
class CodecMovedTo {
public:
    explicit CodecMovedTo(const QString& folder) : m_saved(qgetenv("TARNWICK_LIBEXEC")) {
        qputenv("TARNWICK_LIBEXEC", folder.toUtf8());
    }
    ~CodecMovedTo() { qputenv("TARNWICK_LIBEXEC", m_saved); }
    CodecMovedTo(const CodecMovedTo&) = delete;
    CodecMovedTo& operator=(const CodecMovedTo&) = delete;

private:
    QByteArray m_saved;
};

} // namespace imagetest
