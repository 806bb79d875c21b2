// The process runner's text encodings: decoding the child's output chunk by
// chunk (a character split across reads waits for its end) and encoding its
// input.

#include "core/AMShellWrapper.h"

#include <QByteArray>
#include <QString>

namespace {

// --- text decoding ---------------------------------------------------------

// Length of a UTF-8 sequence from its lead byte, 0 for an invalid lead.
int utf8Length(unsigned char c) {
    if (c < 0x80)
        return 1;
    if (c >= 0xC2 && c <= 0xDF)
        return 2;
    if (c >= 0xE0 && c <= 0xEF)
        return 3;
    if (c >= 0xF0 && c <= 0xF4)
        return 4;
    return 0;
}

// Whether byte k (1-based position in the sequence) may follow lead byte c.
bool utf8ContinuationOk(unsigned char lead, int k, unsigned char c) {
    if ((c & 0xC0) != 0x80)
        return false;
    if (k != 1)
        return true;
    switch (lead) {
    case 0xE0:
        return c >= 0xA0; // no overlongs
    case 0xED:
        return c <= 0x9F; // no surrogates
    case 0xF0:
        return c >= 0x90; // no overlongs
    case 0xF4:
        return c <= 0x8F; // not above U+10FFFF
    default:
        return true;
    }
}

// Validates UTF-8; on success `complete` is the length of the whole
// characters, the rest is a valid but incomplete trailing sequence.
bool validateUtf8(const QByteArray& data, qsizetype& complete) {
    const auto* p = reinterpret_cast<const unsigned char*>(data.constData());
    const qsizetype n = data.size();
    qsizetype i = 0;
    while (i < n) {
        const unsigned char c = p[i];
        if (c < 0x80) {
            ++i;
            continue;
        }
        const int len = utf8Length(c);
        if (len == 0)
            return false;
        for (int k = 1; k < len; ++k) {
            if (i + k >= n) { // cut by the chunk boundary
                complete = i;
                return true;
            }
            if (!utf8ContinuationOk(c, k, p[i + k]))
                return false;
        }
        i += len;
    }
    complete = n;
    return true;
}

bool decodeUtf16(const QByteArray& data, bool littleEndian, QByteArray& carry, QString& text) {
    const auto* p = reinterpret_cast<const unsigned char*>(data.constData());
    const qsizetype units = data.size() / 2;
    QString out;
    out.reserve(units);
    qsizetype i = 0;
    for (; i < units; ++i) {
        const unsigned char a = p[2 * i], b = p[2 * i + 1];
        const char16_t u = littleEndian ? char16_t(a | (b << 8)) : char16_t((a << 8) | b);
        if (QChar::isHighSurrogate(u)) {
            if (i + 1 == units)
                break; // its partner is in the next chunk
            const unsigned char c = p[2 * i + 2], d = p[2 * i + 3];
            const char16_t v = littleEndian ? char16_t(c | (d << 8)) : char16_t((c << 8) | d);
            if (!QChar::isLowSurrogate(v))
                return false;
            out.append(QChar(u));
            out.append(QChar(v));
            ++i;
        } else if (QChar::isLowSurrogate(u)) {
            return false;
        } else {
            out.append(QChar(u));
        }
    }
    carry = data.mid(2 * i);
    text = out;
    return true;
}

} // namespace
// --- encodings ---------------------------------------------------------------

bool AMShellWrapper::decodeChunk(quint64 encoding, QByteArray& carry, const QByteArray& bytes,
                                 QString& text, int& byteOrder) {
    text.clear();
    QByteArray data = carry + bytes;
    carry.clear();
    switch (encoding) {
    case ASCIIStringEncoding:
        for (const char c : data)
            if (static_cast<unsigned char>(c) > 127)
                return false;
        text = QString::fromLatin1(data);
        return true;
    case ISOLatin1StringEncoding:
        text = QString::fromLatin1(data);
        return true;
    case UTF8StringEncoding: {
        qsizetype complete = 0;
        if (!validateUtf8(data, complete))
            return false;
        text = QString::fromUtf8(data.constData(), complete);
        carry = data.mid(complete);
        return true;
    }
    case UnicodeStringEncoding:
        if (byteOrder == 0) {
            if (data.size() < 2) {
                carry = data;
                return true;
            }
            const auto a = static_cast<unsigned char>(data[0]);
            const auto b = static_cast<unsigned char>(data[1]);
            if (a == 0xFE && b == 0xFF) {
                byteOrder = 2;
                data.remove(0, 2);
            } else if (a == 0xFF && b == 0xFE) {
                byteOrder = 1;
                data.remove(0, 2);
            } else {
                byteOrder = 1;
            }
        }
        return decodeUtf16(data, byteOrder == 1, carry, text) || (carry.clear(), false);
    case UTF16LittleEndianStringEncoding:
        return decodeUtf16(data, true, carry, text) || (carry.clear(), false);
    case UTF16BigEndianStringEncoding:
        return decodeUtf16(data, false, carry, text) || (carry.clear(), false);
    default:
        return false;
    }
}

std::optional<QByteArray> AMShellWrapper::encodeText(quint64 encoding, const QString& text,
                                                     bool firstWrite) {
    auto utf16 = [&](bool littleEndian, bool bom) {
        QByteArray out;
        out.reserve(text.size() * 2 + 2);
        auto put = [&](char16_t u) {
            if (littleEndian) {
                out.append(char(u & 0xFF));
                out.append(char(u >> 8));
            } else {
                out.append(char(u >> 8));
                out.append(char(u & 0xFF));
            }
        };
        if (bom)
            put(0xFEFF);
        for (const QChar c : text)
            put(c.unicode());
        return out;
    };
    switch (encoding) {
    case ASCIIStringEncoding:
    case ISOLatin1StringEncoding: {
        const char16_t limit = encoding == ASCIIStringEncoding ? 127 : 255;
        for (const QChar c : text)
            if (c.unicode() > limit)
                return std::nullopt;
        return text.toLatin1();
    }
    case UTF8StringEncoding:
        return text.toUtf8();
    case UnicodeStringEncoding:
        return utf16(true, firstWrite);
    case UTF16LittleEndianStringEncoding:
        return utf16(true, false);
    case UTF16BigEndianStringEncoding:
        return utf16(false, false);
    default:
        return std::nullopt;
    }
}
