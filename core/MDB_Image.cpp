#include "core/MDB_Image.h"

#include "core/Resources.h"
#include "tools/imagecodec/ImageCodec.h"

#include <QFile>
#include <QFileInfo>
#include <QLibrary>
#include <QMutex>
#include <QSet>

#include <cstring>

#include <zlib.h>

namespace {

constexpr char CodecFileName[] = "libtarnwick_imagecodec.so";

// --- structure checks ----------------------------------------------------------

quint32 be32(const uchar* p) {
    return quint32(p[0]) << 24 | quint32(p[1]) << 16 | quint32(p[2]) << 8 | quint32(p[3]);
}

quint16 be16(const uchar* p) {
    return quint16(p[0] << 8 | p[1]);
}

bool fail(QString* why, const QString& reason) {
    if (why)
        *why = reason;
    return false;
}

constexpr uchar PngSignature[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};

bool looksLikePng(const QByteArray& bytes) {
    return bytes.size() >= 8 && std::memcmp(bytes.constData(), PngSignature, 8) == 0;
}

bool looksLikeJpeg(const QByteArray& bytes) {
    return bytes.size() >= 3 && uchar(bytes[0]) == 0xFF && uchar(bytes[1]) == 0xD8 &&
           uchar(bytes[2]) == 0xFF;
}

bool validPngDepth(int colorType, int depth) {
    switch (colorType) {
    case 0:
        return depth == 1 || depth == 2 || depth == 4 || depth == 8 || depth == 16;
    case 3:
        return depth == 1 || depth == 2 || depth == 4 || depth == 8;
    case 2:
    case 4:
    case 6:
        return depth == 8 || depth == 16;
    default:
        return false;
    }
}

bool inspectPng(const QByteArray& bytes, QSize* size, QString* why) {
    const auto* data = reinterpret_cast<const uchar*>(bytes.constData());
    const qsizetype n = bytes.size();
    qsizetype pos = 8;
    bool first = true;
    bool palette = false;
    bool pixels = false;
    int colorType = -1;
    for (;;) {
        if (n - pos < 12)
            return fail(why, QStringLiteral("PNG data is cut short (no IEND chunk)"));
        const quint32 length = be32(data + pos);
        if (length > 0x7FFFFFFFu || quint64(n - pos - 12) < length)
            return fail(why, QStringLiteral("PNG data is cut short inside a chunk"));
        const uchar* type = data + pos + 4;
        for (int i = 0; i < 4; ++i) {
            const uchar c = type[i] | 0x20;
            if (c < 'a' || c > 'z')
                return fail(why, QStringLiteral("PNG data holds a chunk without a valid name"));
        }
        const QLatin1StringView name(reinterpret_cast<const char*>(type), 4);
        if (::crc32(0, type, uInt(length) + 4) != be32(type + 4 + length))
            return fail(why, QStringLiteral("PNG chunk %1 has a wrong checksum").arg(name));
        const uchar* body = type + 4;
        if (first) {
            if (name != QLatin1StringView("IHDR") || length != 13)
                return fail(why, QStringLiteral("PNG data does not start with its IHDR chunk"));
            const quint32 width = be32(body);
            const quint32 height = be32(body + 4);
            const int depth = body[8];
            colorType = body[9];
            if (width == 0 || height == 0 || width > 0x7FFFFFFFu || height > 0x7FFFFFFFu)
                return fail(why, QStringLiteral("PNG header gives no usable picture size"));
            if (!validPngDepth(colorType, depth) || body[10] != 0 || body[11] != 0 || body[12] > 1)
                return fail(why, QStringLiteral("PNG header names an unknown pixel format"));
            *size = QSize(int(width), int(height));
            first = false;
        } else if (name == QLatin1StringView("IHDR")) {
            return fail(why, QStringLiteral("PNG data holds a second IHDR chunk"));
        } else if (name == QLatin1StringView("PLTE")) {
            palette = true;
        } else if (name == QLatin1StringView("IDAT")) {
            if (colorType == 3 && !palette)
                return fail(why, QStringLiteral("PNG palette image has no PLTE chunk"));
            pixels = true;
        } else if (name == QLatin1StringView("IEND")) {
            if (!pixels)
                return fail(why, QStringLiteral("PNG data has no IDAT chunk"));
            return true;
        }
        pos += 12 + qsizetype(length);
    }
}

bool isFrameHeader(uchar marker) {
    // SOF0-SOF15 but DHT (C4), JPG (C8) and DAC (CC).
    return marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
}

bool inspectJpeg(const QByteArray& bytes, QSize* size, QString* why) {
    const auto* data = reinterpret_cast<const uchar*>(bytes.constData());
    const qsizetype n = bytes.size();
    const QString truncated = QStringLiteral("JPEG data is cut short (no end-of-image marker)");
    qsizetype pos = 2;
    bool frame = false;
    bool scan = false;
    for (;;) {
        if (pos >= n)
            return fail(why, truncated);
        if (data[pos] != 0xFF)
            return fail(why, QStringLiteral("JPEG data holds bytes outside any segment"));
        while (pos < n && data[pos] == 0xFF)
            ++pos;
        if (pos >= n)
            return fail(why, truncated);
        const uchar marker = data[pos++];
        if (marker == 0xD9) {
            if (!frame || !scan)
                return fail(why, QStringLiteral("JPEG data ends before its picture"));
            return true;
        }
        if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7))
            continue; // markers without a segment
        if (marker == 0x00 || marker == 0xD8)
            return fail(why, QStringLiteral("JPEG data holds a misplaced marker"));
        if (n - pos < 2)
            return fail(why, truncated);
        const qsizetype length = be16(data + pos);
        if (length < 2)
            return fail(why, QStringLiteral("JPEG segment has an impossible length"));
        if (n - pos < length)
            return fail(why, truncated);
        if (isFrameHeader(marker)) {
            if (length < 8)
                return fail(why, QStringLiteral("JPEG frame header is too short"));
            const int height = be16(data + pos + 3);
            const int width = be16(data + pos + 5);
            const int components = data[pos + 7];
            if (width == 0 || height == 0)
                return fail(why, QStringLiteral("JPEG frame header gives no picture size"));
            if (components == 0 || length < 8 + 3 * components)
                return fail(why, QStringLiteral("JPEG frame header lists no components"));
            if (!frame)
                *size = QSize(width, height);
            frame = true;
        } else if (marker == 0xDA) {
            if (!frame)
                return fail(why, QStringLiteral("JPEG scan comes before the frame header"));
            scan = true;
            pos += length;
            // The entropy-coded data runs to the next marker that is neither a
            // stuffed zero nor a restart marker.
            for (;;) {
                if (n - pos < 2)
                    return fail(why, truncated);
                if (data[pos] == 0xFF) {
                    const uchar next = data[pos + 1];
                    if (next != 0x00 && next != 0xFF && !(next >= 0xD0 && next <= 0xD7))
                        break;
                }
                ++pos;
            }
            continue;
        }
        pos += length;
    }
}

// Signatures of the other formats the image plugins may read; anything else
// is not sent to the codec at all.
bool looksLikeOtherImage(const QByteArray& bytes) {
    static const QByteArrayView prefixes[] = {
        "GIF87a",  "GIF89a",   "BM", QByteArrayView("II*\0", 4), QByteArrayView("MM\0*", 4),
        "#define", "/* XPM */"};
    for (const QByteArrayView prefix : prefixes) {
        if (QByteArrayView(bytes).startsWith(prefix))
            return true;
    }
    if (bytes.size() >= 12 && bytes.startsWith("RIFF") && bytes.mid(8, 4) == "WEBP")
        return true;
    if (bytes.size() >= 6 && bytes.startsWith(QByteArray("\0\0\1\0", 4)))
        return true; // ICO
    if (bytes.size() >= 3 && bytes[0] == 'P' && bytes[1] >= '1' && bytes[1] <= '6' &&
        QByteArrayView(" \t\r\n").contains(bytes[2]))
        return true; // PBM, PGM, PPM
    return false;
}

// --- the codec module ------------------------------------------------------------

struct Codec {
    QString path;
    TarnwickImageCodecToPngFn toPng = nullptr;
    TarnwickImageCodecToArgb32Fn toArgb32 = nullptr;
    TarnwickImageCodecFreeFn release = nullptr;
};

QMutex codecMutex;
Codec loadedCodec;                // guarded by codecMutex
QSet<QString> reportedCodecPaths; // guarded by codecMutex

// The module at codecPath(), loaded once per path and never unloaded.
bool codec(Codec* out, QString* why) {
    const QString path = MDB_Image::codecPath();
    QMutexLocker lock(&codecMutex);
    if (loadedCodec.toPng && loadedCodec.path == path) {
        *out = loadedCodec;
        return true;
    }
    QString reason;
    Codec found;
    found.path = path;
    if (!QFileInfo::exists(path)) {
        reason = QStringLiteral("the image codec module %1 is missing (set TARNWICK_LIBEXEC to "
                                "the folder holding it)")
                     .arg(path);
    } else {
        QLibrary library(path);
        if (!library.load()) {
            reason = QStringLiteral("the image codec module %1 cannot be loaded: %2")
                         .arg(path, library.errorString());
        } else {
            const auto version = reinterpret_cast<TarnwickImageCodecVersionFn>(
                library.resolve("tarnwick_imagecodec_version"));
            found.toPng = reinterpret_cast<TarnwickImageCodecToPngFn>(
                library.resolve("tarnwick_imagecodec_to_png"));
            found.toArgb32 = reinterpret_cast<TarnwickImageCodecToArgb32Fn>(
                library.resolve("tarnwick_imagecodec_to_argb32"));
            found.release = reinterpret_cast<TarnwickImageCodecFreeFn>(
                library.resolve("tarnwick_imagecodec_free"));
            if (!version || !found.toPng || !found.toArgb32 || !found.release ||
                version() != TARNWICK_IMAGECODEC_VERSION)
                reason =
                    QStringLiteral("the image codec module %1 is of another version").arg(path);
        }
    }
    if (!reason.isEmpty()) {
        if (!reportedCodecPaths.contains(path)) {
            reportedCodecPaths.insert(path);
            qWarning("Tarnwick: %s", qPrintable(reason));
        }
        return fail(why, reason);
    }
    loadedCodec = found;
    *out = found;
    return true;
}

QString codecFailure(int status) {
    switch (status) {
    case TarnwickImageCodecUnreadable:
        return QStringLiteral("the image data cannot be decoded");
    case TarnwickImageCodecNoMemory:
        return QStringLiteral("not enough memory to convert the image");
    default:
        return QStringLiteral("the image cannot be encoded as PNG");
    }
}

bool convertToPng(const QByteArray& bytes, QByteArray* png, QString* why) {
    Codec c;
    if (!codec(&c, why))
        return false;
    char* out = nullptr;
    long long outSize = 0;
    const int status = c.toPng(bytes.constData(), bytes.size(), &out, &outSize);
    if (status != TarnwickImageCodecOk)
        return fail(why, codecFailure(status));
    *png = QByteArray(out, qsizetype(outSize));
    c.release(out);
    return true;
}

bool decodePixels(const QByteArray& bytes, QByteArray* pixels, QSize* size, QString* why) {
    Codec c;
    if (!codec(&c, why))
        return false;
    char* out = nullptr;
    long long outSize = 0;
    int width = 0;
    int height = 0;
    const int status = c.toArgb32(bytes.constData(), bytes.size(), &out, &outSize, &width, &height);
    if (status != TarnwickImageCodecOk)
        return fail(why, codecFailure(status));
    *pixels = QByteArray(out, qsizetype(outSize));
    *size = QSize(width, height);
    c.release(out);
    return true;
}

} // namespace

QString MDB_Image::codecPath() {
    return Resources::libexecDir() + QLatin1Char('/') + QLatin1StringView(CodecFileName);
}

MDB_Image MDB_Image::fromData(const QByteArray& bytes, QString* error) {
    MDB_Image image;
    QString why;
    if (looksLikePng(bytes)) {
        if (!inspectPng(bytes, &image.m_size, &why)) {
            fail(error, why);
            return {};
        }
        image.m_format = Format::Png;
        image.m_data = bytes;
        return image;
    }
    if (looksLikeJpeg(bytes)) {
        if (!inspectJpeg(bytes, &image.m_size, &why)) {
            fail(error, why);
            return {};
        }
        image.m_format = Format::Jpeg;
        image.m_data = bytes;
        return image;
    }
    if (bytes.isEmpty()) {
        fail(error, QStringLiteral("no image data"));
        return {};
    }
    if (!looksLikeOtherImage(bytes)) {
        fail(error, QStringLiteral("the data is not an image in a known format"));
        return {};
    }
    QByteArray png;
    if (!convertToPng(bytes, &png, &why) || !inspectPng(png, &image.m_size, &why)) {
        fail(error, why);
        return {};
    }
    image.m_format = Format::Png;
    image.m_data = png;
    return image;
}

MDB_Image MDB_Image::fromFile(const QString& path, QString* error) {
    QFile file(path);
    if (path.isEmpty() || !file.open(QIODevice::ReadOnly)) {
        fail(error, QStringLiteral("cannot open %1").arg(path));
        return {};
    }
    const QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        fail(error, QStringLiteral("cannot read %1: %2").arg(path, file.errorString()));
        return {};
    }
    return fromData(bytes, error);
}

QByteArray MDB_Image::pngData(QString* error) const {
    if (m_format == Format::Png)
        return m_data;
    if (isNull()) {
        fail(error, QStringLiteral("no image"));
        return {};
    }
    QByteArray png;
    if (!convertToPng(m_data, &png, error))
        return {};
    return png;
}

bool MDB_Image::hasSamePixels(const MDB_Image& other, QString* error) const {
    if (m_data == other.m_data)
        return true;
    if (isNull() || other.isNull() || m_size != other.m_size)
        return false;
    QByteArray mine;
    QByteArray theirs;
    QSize mySize;
    QSize theirSize;
    if (!decodePixels(m_data, &mine, &mySize, error) ||
        !decodePixels(other.m_data, &theirs, &theirSize, error))
        return false;
    return mySize == theirSize && mine == theirs;
}
