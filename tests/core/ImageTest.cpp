// The encoded image type: sizes from the headers of real files, what counts as
// a broken file, conversions through the codec module, and that the program
// no longer links the GUI library.

#include "ImageTestSupport.h"
#include "Processes.h"
#include "core/MDB_Image.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImageWriter>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using testsupport::haveTool;
using testsupport::run;
using testsupport::RunResult;

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

bool writeFile(const QString& path, const QByteArray& bytes) {
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(bytes) == bytes.size();
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
        {"alpha png", png(tall, QImage::Format_ARGB32), Png, {7, 500}},
        {"palette png", png(tall, QImage::Format_Indexed8), Png, {7, 500}},
        {"grey png", png(wide, QImage::Format_Grayscale8), Png, {1021, 3}},
        {"16-bit png", png(wide, QImage::Format_RGBA64), Png, {1021, 3}},
        {"1x1 png", imagetest::encoded(imagetest::solid(1, 1, Qt::red), "PNG"), Png, {1, 1}},
        {"baseline jpeg", imagetest::encoded(wide, "JPEG", 75), Jpeg, {1021, 3}},
        {"grey jpeg",
         imagetest::encoded(tall.convertToFormat(QImage::Format_Grayscale8), "JPEG"),
         Jpeg,
         {7, 500}},
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
        // Qt agrees on the size.
        EXPECT_EQ(imagetest::decoded(image).size(), sample.size) << sample.what;
    }
}

TEST(ImageHeader, BrokenPngIsRejected) {
    const QByteArray png = imagetest::encoded(imagetest::gradient(9, 5), "PNG");
    ASSERT_FALSE(MDB_Image::fromData(png).isNull());

    // Cut anywhere: no IEND, or a chunk cut short.
    for (qsizetype cut = 0; cut < png.size(); ++cut) {
        QString error;
        EXPECT_TRUE(MDB_Image::fromData(png.left(cut), &error).isNull()) << "cut at " << cut;
        EXPECT_FALSE(error.isEmpty()) << "cut at " << cut;
    }

    // One bit changed in any chunk (its data, or IEND's checksum): the checksum
    // no longer fits.
    const auto chunks = pngChunks(png);
    ASSERT_GE(chunks.size(), 3);
    for (const auto& [offset, type] : chunks) {
        QByteArray broken = png;
        const qsizetype at = type == "IEND" ? offset + 8 : offset + 8 + 2;
        broken[at] = char(broken[at] ^ 0x04);
        QString error;
        EXPECT_TRUE(MDB_Image::fromData(broken, &error).isNull()) << type.constData();
        EXPECT_TRUE(error.contains(QStringLiteral("checksum"))) << error.toStdString();
    }

    // Sound chunks, but no pixel data: the IDAT chunks taken out.
    QByteArray noPixels = png.left(8);
    for (qsizetype i = 0; i < chunks.size(); ++i) {
        const qsizetype end = i + 1 < chunks.size() ? chunks[i + 1].first : png.size();
        if (chunks[i].second != "IDAT")
            noPixels += png.mid(chunks[i].first, end - chunks[i].first);
    }
    QString error;
    EXPECT_TRUE(MDB_Image::fromData(noPixels, &error).isNull());
    EXPECT_TRUE(error.contains(QStringLiteral("IDAT"))) << error.toStdString();

    // Text behind a PNG signature.
    EXPECT_TRUE(MDB_Image::fromData(png.left(8) + QByteArray(64, 'x')).isNull());
}

TEST(ImageHeader, BrokenJpegIsRejected) {
    const QByteArray jpeg = imagetest::encoded(imagetest::gradient(16, 12), "JPEG", 90);
    ASSERT_FALSE(MDB_Image::fromData(jpeg).isNull());
    ASSERT_TRUE(jpeg.endsWith("\xFF\xD9"));

    // Cut anywhere, the end-of-image marker is missing.
    for (qsizetype cut = 0; cut < jpeg.size(); ++cut) {
        QString error;
        EXPECT_TRUE(MDB_Image::fromData(jpeg.left(cut), &error).isNull()) << "cut at " << cut;
        EXPECT_FALSE(error.isEmpty()) << "cut at " << cut;
    }

    // A frame header of no size.
    const qsizetype sof = jpeg.indexOf("\xFF\xC0");
    ASSERT_GT(sof, 0);
    QByteArray noSize = jpeg;
    noSize[sof + 5] = 0;
    noSize[sof + 6] = 0; // height 0
    QString error;
    EXPECT_TRUE(MDB_Image::fromData(noSize, &error).isNull());
    EXPECT_TRUE(error.contains(QStringLiteral("size"))) << error.toStdString();

    // Only the header segments, then the end marker: no frame, no scan.
    const qsizetype dqt = jpeg.indexOf("\xFF\xDB");
    ASSERT_GT(dqt, 0);
    EXPECT_TRUE(MDB_Image::fromData(jpeg.left(dqt) + "\xFF\xD9").isNull());

    for (const QByteArray& junk :
         {QByteArray(), QByteArray("garbage"), QByteArray("\xFF\xD8\xFF", 3),
          QByteArray("this is not a picture")}) {
        QString why;
        EXPECT_TRUE(MDB_Image::fromData(junk, &why).isNull()) << junk.toStdString();
        EXPECT_FALSE(why.isEmpty());
    }
}

// --- conversions through the codec module ----------------------------------------

class ImageCodec : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_dir.isValid()); }
    QTemporaryDir m_dir;
};

TEST_F(ImageCodec, OtherFormatsBecomePngAtLoad) {
    const QImage picture = imagetest::gradient(24, 16);
    const QString bmp = m_dir.filePath(QStringLiteral("poster.bmp"));
    ASSERT_TRUE(picture.save(bmp, "BMP"));
    QString error;
    const MDB_Image fromBmp = MDB_Image::fromFile(bmp, &error);
    ASSERT_FALSE(fromBmp.isNull()) << error.toStdString();
    EXPECT_EQ(fromBmp.format(), MDB_Image::Format::Png);
    EXPECT_EQ(fromBmp.size(), QSize(24, 16));
    EXPECT_TRUE(fromBmp.data().startsWith("\x89PNG"));
    EXPECT_EQ(imagetest::decoded(fromBmp), picture.convertToFormat(QImage::Format_RGB32));

    if (!haveTool("ffmpeg"))
        GTEST_SKIP() << "ffmpeg missing (no GIF sample)";
    const QString gif = m_dir.filePath(QStringLiteral("poster.gif"));
    ASSERT_TRUE(testsupport::ffmpeg(
        {"-f", "lavfi", "-i", "color=c=0x2040C0:s=30x20", "-frames:v", "1", gif}));
    const MDB_Image fromGif = MDB_Image::fromFile(gif, &error);
    ASSERT_FALSE(fromGif.isNull()) << error.toStdString();
    EXPECT_EQ(fromGif.format(), MDB_Image::Format::Png);
    EXPECT_EQ(fromGif.size(), QSize(30, 20));
    QImage expected(gif);
    ASSERT_FALSE(expected.isNull());
    EXPECT_EQ(imagetest::decoded(fromGif).pixelColor(3, 3), expected.pixelColor(3, 3));
    // Stored as PNG, so handing the image on needs no conversion.
    EXPECT_EQ(fromGif.pngData(), fromGif.data());
}

TEST_F(ImageCodec, PixelsAreComparedByContent) {
    const QImage picture = imagetest::gradient(33, 21);
    const MDB_Image png = imagetest::png(picture);
    const MDB_Image packed = imagetest::png(picture, 0);
    ASSERT_NE(png.data(), packed.data());
    EXPECT_FALSE(png == packed);
    EXPECT_TRUE(png.hasSamePixels(packed));

    const MDB_Image jpeg = imagetest::jpeg(picture, 60);
    EXPECT_FALSE(jpeg.hasSamePixels(png)); // lossy
    QString error;
    const MDB_Image converted = MDB_Image::fromData(jpeg.pngData(&error));
    ASSERT_FALSE(converted.isNull()) << error.toStdString();
    EXPECT_EQ(converted.format(), MDB_Image::Format::Png);
    EXPECT_EQ(converted.size(), QSize(33, 21));
    EXPECT_TRUE(converted.hasSamePixels(jpeg));
    EXPECT_FALSE(converted.hasSamePixels(imagetest::png(imagetest::gradient(33, 20))));
}

TEST_F(ImageCodec, WithoutTheModuleConversionsFailNamingIt) {
    const QString bmp = m_dir.filePath(QStringLiteral("poster.bmp"));
    ASSERT_TRUE(imagetest::solid(8, 8, Qt::red).save(bmp, "BMP"));
    const MDB_Image jpeg = imagetest::jpeg(imagetest::gradient(8, 8));
    const MDB_Image png = imagetest::png(imagetest::gradient(8, 8));
    ASSERT_FALSE(jpeg.isNull());

    const QString folder = m_dir.filePath(QStringLiteral("libexec"));
    imagetest::CodecMovedTo moved(folder);
    const QString module = MDB_Image::codecPath();
    EXPECT_TRUE(module.startsWith(folder)) << module.toStdString();

    QString error;
    EXPECT_TRUE(MDB_Image::fromFile(bmp, &error).isNull());
    EXPECT_TRUE(error.contains(module)) << error.toStdString();
    EXPECT_TRUE(error.contains(QStringLiteral("missing"))) << error.toStdString();

    error.clear();
    EXPECT_TRUE(jpeg.pngData(&error).isEmpty());
    EXPECT_TRUE(error.contains(module)) << error.toStdString();

    // PNG and JPEG need no module: loading and a PNG's bytes work as before.
    EXPECT_FALSE(MDB_Image::fromData(jpeg.data()).isNull());
    EXPECT_EQ(png.pngData(), png.data());

    // A file that is no module at all is refused the same way.
    ASSERT_TRUE(QDir().mkpath(folder));
    ASSERT_TRUE(writeFile(module, "not a shared object"));
    error.clear();
    EXPECT_TRUE(jpeg.pngData(&error).isEmpty());
    EXPECT_TRUE(error.contains(module)) << error.toStdString();
}

// --- start-up cost -----------------------------------------------------------------

TEST(ImageCodecLinks, TheProgramDoesNotLinkTheGuiLibrary) {
    if (!haveTool("readelf"))
        GTEST_SKIP() << "readelf missing";
    const RunResult elf = run(QStringLiteral("readelf"),
                              {"-d", QStringLiteral(TARNWICK_BINARY_DIR "/bin/tarnwick-cli")});
    ASSERT_EQ(elf.exitCode, 0) << elf.err.toStdString();
    QStringList needed;
    static const QRegularExpression entry(QStringLiteral("\\(NEEDED\\).*\\[(.+)\\]"));
    for (const QString& line : QString::fromUtf8(elf.out).split(QLatin1Char('\n'))) {
        const QRegularExpressionMatch m = entry.match(line);
        if (m.hasMatch())
            needed << m.captured(1);
    }
    EXPECT_TRUE(needed.contains(QStringLiteral("libQt6Core.so.6")))
        << needed.join(u' ').toStdString();
    for (const QString& library : needed)
        EXPECT_FALSE(library.contains(QStringLiteral("Qt6Gui"))) << library.toStdString();
    // The module that does link it sits beside the program.
    EXPECT_TRUE(
        QFileInfo::exists(QStringLiteral(TARNWICK_BINARY_DIR "/bin/libtarnwick_imagecodec.so")));
}
