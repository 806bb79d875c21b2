// The encoded image type: sizes from the headers of real files, what counts as
// a broken file, and conversions through the codec module.

#include "ImageTestSupport.h"
#include "core/MDB_Image.h"

#include <QDir>
#include <QFile>
#include <QImageWriter>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

QByteArray progressiveJpeg(const QImage& image) {
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    QImageWriter writer(&buffer, "JPEG");
    writer.setProgressiveScanWrite(true);
    writer.setQuality(80);
    writer.write(image);
    return bytes;
}

// The chunks of a PNG: offset of each chunk's length field, and its type.
QList<std::pair<qsizetype, QByteArray>> pngChunks(const QByteArray& png) {
    QList<std::pair<qsizetype, QByteArray>> chunks;
    qsizetype pos = 8;
    while (pos + 12 <= png.size()) {
        const auto* p = reinterpret_cast<const uchar*>(png.constData() + pos);
        const qsizetype length = qsizetype(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3];
        chunks.append({pos, png.mid(pos + 4, 4)});
        pos += 12 + length;
    }
    return chunks;
}

} // namespace

TEST(ImageHeader, PngAndJpegKeepTheirBytesAndGiveTheirPixelSize) {
    struct Sample {
        const char* what;
        QByteArray bytes;
        MDB_Image::Format format;
        QSize size;
    };
    const QImage wide = imagetest::gradient(1021, 3);
    const QImage tall = imagetest::gradient(7, 500);
    const auto png = [](const QImage& image, QImage::Format format) {
        return imagetest::encoded(image.convertToFormat(format), "PNG");
    };
    const auto Png = MDB_Image::Format::Png, Jpeg = MDB_Image::Format::Jpeg;
    const QList<Sample> samples{
        {"rgb png", imagetest::encoded(wide, "PNG"), Png, {1021, 3}},
        {"palette png", png(tall, QImage::Format_Indexed8), Png, {7, 500}},
        {"16-bit png", png(wide, QImage::Format_RGBA64), Png, {1021, 3}},
        {"baseline jpeg", imagetest::encoded(wide, "JPEG", 75), Jpeg, {1021, 3}},
        {"progressive jpeg", progressiveJpeg(tall), Jpeg, {7, 500}},
    };
    for (const Sample& sample : samples) {
        ASSERT_FALSE(sample.bytes.isEmpty()) << sample.what;
        QString error;
        const MDB_Image image = MDB_Image::fromData(sample.bytes, &error);
        ASSERT_FALSE(image.isNull()) << sample.what << ": " << error.toStdString();
        EXPECT_EQ(image.format(), sample.format) << sample.what;
        EXPECT_EQ(image.size(), sample.size) << sample.what;
        EXPECT_EQ(image.data(), sample.bytes) << sample.what;
    }
}

// What a reader would stumble over is refused with a reason.
TEST(ImageHeader, BrokenFilesAreRejected) {
    const QByteArray png = imagetest::encoded(imagetest::gradient(9, 5), "PNG");
    const QByteArray jpeg = imagetest::encoded(imagetest::gradient(16, 12), "JPEG", 90);
    ASSERT_FALSE(MDB_Image::fromData(png).isNull());
    ASSERT_FALSE(MDB_Image::fromData(jpeg).isNull());
    // Cut anywhere: no end marker, or a chunk cut short.
    for (const QByteArray& whole : {png, jpeg}) {
        for (qsizetype cut = 0; cut < whole.size(); ++cut) {
            QString error;
            EXPECT_TRUE(MDB_Image::fromData(whole.left(cut), &error).isNull()) << cut;
            EXPECT_FALSE(error.isEmpty()) << cut;
        }
    }
    const auto refused = [](const QByteArray& bytes, const char* reason) {
        QString error;
        EXPECT_TRUE(MDB_Image::fromData(bytes, &error).isNull()) << reason;
        EXPECT_TRUE(error.contains(QLatin1String(reason))) << error.toStdString();
    };

    // One bit changed in any chunk (its data, or IEND's checksum).
    const auto chunks = pngChunks(png);
    ASSERT_GE(chunks.size(), 3);
    QByteArray noPixels = png.left(8);
    for (qsizetype i = 0; i < chunks.size(); ++i) {
        const auto& [offset, type] = chunks[i];
        QByteArray broken = png;
        const qsizetype at = type == "IEND" ? offset + 8 : offset + 8 + 2;
        broken[at] = char(broken[at] ^ 0x04);
        refused(broken, "checksum");
        const qsizetype end = i + 1 < chunks.size() ? chunks[i + 1].first : png.size();
        if (type != "IDAT")
            noPixels += png.mid(offset, end - offset);
    }
    refused(noPixels, "IDAT");

    const qsizetype sof = jpeg.indexOf("\xFF\xC0");
    ASSERT_GT(sof, 0);
    QByteArray noSize = jpeg;
    noSize[sof + 5] = noSize[sof + 6] = 0; // height 0
    refused(noSize, "size");
    // Only the header segments, then the end marker: no frame, no scan.
    const qsizetype dqt = jpeg.indexOf("\xFF\xDB");
    ASSERT_GT(dqt, 0);
    EXPECT_TRUE(MDB_Image::fromData(jpeg.left(dqt) + "\xFF\xD9").isNull());
    EXPECT_TRUE(MDB_Image::fromData("this is not a picture").isNull());
}

// --- conversions through the codec module ----------------------------------------

TEST(ImageCodec, OtherFormatsBecomePngOnlyWithTheModuleAndPixelsCompareByContent) {
    QTemporaryDir dir;
    const QImage picture = imagetest::gradient(33, 21);
    const QString bmp = dir.filePath(QStringLiteral("poster.bmp"));
    ASSERT_TRUE(picture.save(bmp, "BMP"));
    QString error;
    const MDB_Image fromBmp = MDB_Image::fromFile(bmp, &error);
    ASSERT_FALSE(fromBmp.isNull()) << error.toStdString();
    EXPECT_EQ(fromBmp.format(), MDB_Image::Format::Png);
    EXPECT_EQ(imagetest::decoded(fromBmp), picture.convertToFormat(QImage::Format_RGB32));

    const MDB_Image packed = imagetest::png(picture, 0);
    ASSERT_NE(fromBmp.data(), packed.data());
    EXPECT_FALSE(fromBmp == packed);
    EXPECT_TRUE(fromBmp.hasSamePixels(packed));
    const MDB_Image jpeg = imagetest::jpeg(picture, 60);
    EXPECT_FALSE(jpeg.hasSamePixels(packed)); // lossy
    const MDB_Image converted = MDB_Image::fromData(jpeg.pngData());
    EXPECT_EQ(converted.format(), MDB_Image::Format::Png);
    EXPECT_TRUE(converted.hasSamePixels(jpeg));
    EXPECT_FALSE(converted.hasSamePixels(imagetest::png(imagetest::gradient(33, 20))));

    // Without the module, conversions fail naming it; a PNG needs none.
    const QString folder = dir.filePath(QStringLiteral("libexec"));
    imagetest::CodecMovedTo moved(folder);
    const QString module = MDB_Image::codecPath();
    EXPECT_TRUE(module.startsWith(folder)) << module.toStdString();
    EXPECT_TRUE(MDB_Image::fromFile(bmp, &error).isNull());
    EXPECT_TRUE(error.contains(module) && error.contains(QStringLiteral("missing")))
        << error.toStdString();
    error.clear();
    EXPECT_TRUE(jpeg.pngData(&error).isEmpty());
    EXPECT_TRUE(error.contains(module)) << error.toStdString();
    EXPECT_EQ(packed.pngData(), packed.data());

    // A file that is no module at all is refused the same way.
    ASSERT_TRUE(QDir().mkpath(folder));
    QFile notAModule(module);
    ASSERT_TRUE(notAModule.open(QIODevice::WriteOnly) && notAModule.write("not a module") > 0);
    notAModule.close();
    error.clear();
    EXPECT_TRUE(jpeg.pngData(&error).isEmpty());
    EXPECT_TRUE(error.contains(module)) << error.toStdString();
}
