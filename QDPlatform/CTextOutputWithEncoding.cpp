#include <QDPlatform/CTextOutputWithEncoding.h>

#include <cstdint>

namespace
{

constexpr unsigned int kMaxBytesPerCodePoint = 4;

unsigned char HighByte(uint16_t unit)
{
    return static_cast<unsigned char>(unit >> 8);
}

unsigned char LowByte(uint16_t unit)
{
    return static_cast<unsigned char>(unit & 0xFF);
}

// Both write 2 or 4 bytes to `out` and return how many.
unsigned int EncodeUtf16LE(int codePoint, unsigned char* out)
{
    uint16_t units[2];
    const unsigned int count = qd_encode_utf16(codePoint, units);
    for (unsigned int i = 0; i < count; ++i) {
        *out++ = LowByte(units[i]);
        *out++ = HighByte(units[i]);
    }
    return 2 * count;
}

unsigned int EncodeUtf16BE(int codePoint, unsigned char* out)
{
    uint16_t units[2];
    const unsigned int count = qd_encode_utf16(codePoint, units);
    for (unsigned int i = 0; i < count; ++i) {
        *out++ = HighByte(units[i]);
        *out++ = LowByte(units[i]);
    }
    return 2 * count;
}

} // namespace

CTextOutputWithEncoding::CTextOutputWithEncoding() = default;

CTextOutputWithEncoding::~CTextOutputWithEncoding() = default;

bool CTextOutputWithEncoding::WriteCodePoint(int codePoint)
{
    unsigned char bytes[kMaxBytesPerCodePoint];
    unsigned int length = 0;
    switch (m_Encoding) {
    case TextEncodingUTF8:
    case TextEncodingUTF8BOM: length = qd_encode_utf8(codePoint, bytes); break;
    case TextEncodingUTF16LEBOM:
    case TextEncodingUTF16LE: length = EncodeUtf16LE(codePoint, bytes); break;
    case TextEncodingUTF16BEBOM:
    case TextEncodingUTF16BE: length = EncodeUtf16BE(codePoint, bytes); break;
    }
    return WriteBytes(bytes, length);
}

void CTextOutputWithEncoding::SetEncoding(TextEncoding encoding)
{
    m_Encoding = encoding;
}

bool CTextOutputWithEncoding::WriteEncoding()
{
    static constexpr unsigned char kUtf8Mark[] = {0xEF, 0xBB, 0xBF};
    static constexpr unsigned char kUtf16LEMark[] = {0xFF, 0xFE};
    static constexpr unsigned char kUtf16BEMark[] = {0xFE, 0xFF};
    switch (m_Encoding) {
    case TextEncodingUTF8BOM: return WriteBytes(kUtf8Mark, sizeof kUtf8Mark);
    case TextEncodingUTF16LEBOM: return WriteBytes(kUtf16LEMark, sizeof kUtf16LEMark);
    case TextEncodingUTF16BEBOM: return WriteBytes(kUtf16BEMark, sizeof kUtf16BEMark);
    default: return true;
    }
}
