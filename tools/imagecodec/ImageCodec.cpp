// The image codec module: decoding through Qt's image plugins and PNG
// encoding, kept out of the core so headless runs never load the GUI library.

#include "tools/imagecodec/ImageCodec.h"

#include <QBuffer>
#include <QByteArrayView>
#include <QImage>

#include <cstdlib>
#include <cstring>

namespace {

QImage decode(const char* data, long long size) {
    if (!data || size <= 0)
        return {};
    return QImage::fromData(QByteArrayView(data, qsizetype(size)));
}

int handOut(const char* bytes, qsizetype size, char** out, long long* outSize) {
    char* buffer = static_cast<char*>(std::malloc(size_t(size ? size : 1)));
    if (!buffer)
        return TarnwickImageCodecNoMemory;
    std::memcpy(buffer, bytes, size_t(size));
    *out = buffer;
    *outSize = size;
    return TarnwickImageCodecOk;
}

} // namespace

extern "C" {

Q_DECL_EXPORT int tarnwick_imagecodec_version(void) {
    return TARNWICK_IMAGECODEC_VERSION;
}

Q_DECL_EXPORT int tarnwick_imagecodec_to_png(const char* data, long long size, char** png,
                                             long long* pngSize) {
    if (!png || !pngSize)
        return TarnwickImageCodecUnwritable;
    const QImage image = decode(data, size);
    if (image.isNull())
        return TarnwickImageCodecUnreadable;
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    if (!image.save(&buffer, "PNG") || bytes.isEmpty())
        return TarnwickImageCodecUnwritable;
    return handOut(bytes.constData(), bytes.size(), png, pngSize);
}

Q_DECL_EXPORT int tarnwick_imagecodec_to_argb32(const char* data, long long size, char** pixels,
                                                long long* pixelsSize, int* width, int* height) {
    if (!pixels || !pixelsSize || !width || !height)
        return TarnwickImageCodecUnwritable;
    const QImage image = decode(data, size).convertToFormat(QImage::Format_ARGB32);
    if (image.isNull())
        return TarnwickImageCodecUnreadable;
    // Rows of ARGB32 are never padded, so the bits are the packed rows.
    *width = image.width();
    *height = image.height();
    return handOut(reinterpret_cast<const char*>(image.constBits()), image.sizeInBytes(), pixels,
                   pixelsSize);
}

Q_DECL_EXPORT void tarnwick_imagecodec_free(char* buffer) {
    std::free(buffer);
}
}
