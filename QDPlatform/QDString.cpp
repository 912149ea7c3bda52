#include <QDPlatform/QDString.h>

#include <QDPlatform/QDAssert.h>
#include <QDPlatform/QDQuickFormat.h>
#include <QDPlatform/QDStringRuns.h>

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>

namespace
{

// A text of 4 GiB or more counts as the longest that fits in 32 bits.
unsigned ClampLength(size_t length)
{
    return static_cast<unsigned>(std::min<size_t>(length, std::numeric_limits<unsigned>::max()));
}

template<class Unit>
unsigned Copy(const Unit* src, unsigned srcLen, Unit* dst, unsigned dstSize)
{
    const unsigned count = std::min(srcLen, dstSize);
    std::copy_n(src, count, dst);
    return count;
}

const uint8_t* AsUtf8(const char* text)
{
    return reinterpret_cast<const uint8_t*>(text);
}

uint8_t* AsUtf8(char* text)
{
    return reinterpret_cast<uint8_t*>(text);
}

} // namespace

bool qd_strcpy(char* dst, unsigned size, const char* src)
{
    return qd_strcpy(dst, size, src, ClampLength(std::strlen(src)));
}

bool qd_strcpy(char* dst, unsigned size, const char* src, unsigned len)
{
    if (len < size) {
        std::memcpy(dst, src, len);
        dst[len] = '\0';
        return false;
    }
    std::memcpy(dst, src, size);
    dst[size - 1] = '\0';
    return true;
}

bool qd_strcpy(char* dst, unsigned size, const std::string& src)
{
    return qd_strcpy(dst, size, src.data(), ClampLength(src.size()));
}

bool qd_strcat(char* dst, unsigned size, const char* src)
{
    return qd_strcat(dst, size, src, ClampLength(std::strlen(src)));
}

bool qd_strcat(char* dst, unsigned size, const char* src, unsigned len)
{
    const unsigned present = static_cast<unsigned>(std::strlen(dst));
    return qd_strcpy(dst + present, size - present, src, len);
}

bool qd_sbccpy(char* dst, unsigned size, const char* src)
{
    return qd_sbccpy(dst, size, src, ClampLength(std::strlen(src)));
}

bool qd_sbccpy(char* dst, unsigned size, const char* src, unsigned len)
{
    const bool truncated = len >= size;
    const unsigned kept = truncated ? size - 1 : len;
    std::memcpy(dst, src, kept);
    dst[kept] = '\0';
    return truncated;
}

int qd_sprintf(char* dst, unsigned size, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int result = qd_vsprintf(dst, size, format, args);
    va_end(args);
    return result;
}

int qd_vsprintf(char* dst, unsigned size, const char* format, va_list args)
{
    const int result = qd_vsnprintf(dst, size, format, args);
    if (result >= 0 && result < static_cast<int>(size))
        return result;
    if (result < 0 && errno == EILSEQ)
        return QDFormatEncodingError;
    dst[size - 1] = '\0';
    return QDFormatTruncated;
}

int qd_sprintf_with_elipsis(char* dst, unsigned size, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int result = qd_vsprintf_with_elipsis(dst, size, format, args);
    va_end(args);
    return result;
}

int qd_vsprintf_with_elipsis(char* dst, unsigned size, const char* format, va_list args)
{
    const int result = qd_vsprintf(dst, size, format, args);
    if (result != QDFormatTruncated)
        return result;
    std::memcpy(dst + size - 4, "...", 4);
    return static_cast<int>(size - 1);
}

int qd_sbcnprintf(char* dst, unsigned size, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int result = qd_vsbcnprintf(dst, size, format, args);
    va_end(args);
    return result;
}

int qd_vsbcnprintf(char* dst, unsigned size, const char* format, va_list args)
{
    const int result = qd_vsnprintf(dst, size, format, args);
    if (result < 0)
        return QDFormatEncodingError;
    if (result < static_cast<int>(size))
        return result;
    dst[size - 1] = '\0';
    return QDFormatTruncated;
}

int qd_decode_utf8(const uint8_t*& pStr, const uint8_t* pUtf8End)
{
    QD_ASSERT(pStr < pUtf8End);
    return Utf8::Decode(pStr, pUtf8End);
}

unsigned qd_encode_utf8(int cp, uint8_t* out)
{
    return Utf8::Encode(cp, out);
}

int qd_decode_utf16(const uint16_t*& pStr, const uint16_t* pUtf16End)
{
    QD_ASSERT(pStr < pUtf16End);
    return Utf16::Decode(pStr, pUtf16End);
}

unsigned qd_encode_utf16(int cp, uint16_t* out)
{
    return Utf16::Encode(cp, out);
}

int qd_codepoint_from_qdchar(const char*& p, const char* end)
{
    const uint8_t* bytes = AsUtf8(p);
    const int cp = qd_decode_utf8(bytes, AsUtf8(end));
    p = reinterpret_cast<const char*>(bytes);
    return cp;
}

unsigned qd_qdchar_from_codepoint(int cp, char* out)
{
    return qd_encode_utf8(cp, AsUtf8(out));
}

unsigned qd_qdchar_from_utf32(int cp, char* dst, unsigned size)
{
    const uint32_t element = static_cast<uint32_t>(cp);
    return qd_utf8_from_utf32(&element, 1, AsUtf8(dst), size);
}

unsigned qd_utf8len_of_codepoint(int cp)
{
    return Utf8::Length(cp);
}

unsigned qd_utf8charlen(const uint8_t* p)
{
    if (*p < 0x80)
        return 1;
    if ((*p & 0xE0) == 0xC0)
        return 2;
    return (*p & 0xF0) == 0xE0 ? 3 : 4;
}

unsigned qd_utf16charlen(const uint16_t* p)
{
    return IsHighSurrogate(*p) ? 2 : 1;
}

void qd_append_codepoint_to_qdstring(int cp, std::string& s)
{
    char encoded[4];
    s.append(encoded, qd_qdchar_from_codepoint(cp, encoded));
}

void qd_append_line_terminator_to_qdstring(TextLineTermination t, std::string& s)
{
    switch (t) {
    case LineTerminationCR: s += '\r'; break;
    case LineTerminationLF: s += '\n'; break;
    case LineTerminationCRLF: s += "\r\n"; break;
    case LineTerminationNEL: qd_append_codepoint_to_qdstring(0x85, s); break;
    case LineTerminationLS: qd_append_codepoint_to_qdstring(0x2028, s); break;
    case LineTerminationPS: qd_append_codepoint_to_qdstring(0x2029, s); break;
    }
}

bool CompareQDStringNoCase::operator()(const std::string& a, const std::string& b) const
{
    return ::strcasecmp(a.c_str(), b.c_str()) < 0;
}

unsigned qd_utf8_from_utf8(const uint8_t* src, unsigned srcLen, uint8_t* dst, unsigned dstSize)
{
    return Copy(src, srcLen, dst, dstSize);
}

unsigned qd_utf8_from_utf16(const uint16_t* src, unsigned srcLen, uint8_t* dst, unsigned dstSize)
{
    return ConvertUtf16ToUtf8(src, srcLen, dst, dstSize);
}

unsigned qd_utf8_from_utf32(const uint32_t* src, unsigned srcLen, uint8_t* dst, unsigned dstSize)
{
    return Convert<Utf32, Utf8>(src, srcLen, dst, dstSize);
}

unsigned qd_utf8_from_qdchar(const char* src, unsigned srcLen, uint8_t* dst, unsigned dstSize)
{
    return qd_utf8_from_utf8(AsUtf8(src), srcLen, dst, dstSize);
}

unsigned qd_utf16_from_utf8(const uint8_t* src, unsigned srcLen, uint16_t* dst, unsigned dstSize)
{
    return ConvertUtf8<Utf16>(src, srcLen, dst, dstSize);
}

unsigned qd_utf16_from_utf16(const uint16_t* src, unsigned srcLen, uint16_t* dst, unsigned dstSize)
{
    return Copy(src, srcLen, dst, dstSize);
}

unsigned qd_utf16_from_utf32(const uint32_t* src, unsigned srcLen, uint16_t* dst, unsigned dstSize)
{
    return Convert<Utf32, Utf16>(src, srcLen, dst, dstSize);
}

unsigned qd_utf16_from_qdchar(const char* src, unsigned srcLen, uint16_t* dst, unsigned dstSize)
{
    return qd_utf16_from_utf8(AsUtf8(src), srcLen, dst, dstSize);
}

unsigned qd_utf32_from_utf8(const uint8_t* src, unsigned srcLen, uint32_t* dst, unsigned dstSize)
{
    return ConvertUtf8<Utf32>(src, srcLen, dst, dstSize);
}

unsigned qd_utf32_from_utf16(const uint16_t* src, unsigned srcLen, uint32_t* dst, unsigned dstSize)
{
    return Convert<Utf16, Utf32>(src, srcLen, dst, dstSize);
}

unsigned qd_utf32_from_utf32(const uint32_t* src, unsigned srcLen, uint32_t* dst, unsigned dstSize)
{
    return Copy(src, srcLen, dst, dstSize);
}

unsigned qd_utf32_from_qdchar(const char* src, unsigned srcLen, uint32_t* dst, unsigned dstSize)
{
    return qd_utf32_from_utf8(AsUtf8(src), srcLen, dst, dstSize);
}

unsigned qd_qdchar_from_utf8(const uint8_t* src, unsigned srcLen, char* dst, unsigned dstSize)
{
    return qd_utf8_from_utf8(src, srcLen, AsUtf8(dst), dstSize);
}

unsigned qd_qdchar_from_utf16(const uint16_t* src, unsigned srcLen, char* dst, unsigned dstSize)
{
    return qd_utf8_from_utf16(src, srcLen, AsUtf8(dst), dstSize);
}

unsigned qd_qdchar_from_utf32(const uint32_t* src, unsigned srcLen, char* dst, unsigned dstSize)
{
    return qd_utf8_from_utf32(src, srcLen, AsUtf8(dst), dstSize);
}

unsigned qd_utf8len_of_utf16(const uint16_t* src, unsigned srcLen, unsigned maxLen)
{
    return MeasureUtf16AsUtf8(src, srcLen, maxLen);
}

unsigned qd_utf8len_of_utf32(const uint32_t* src, unsigned srcLen, unsigned maxLen)
{
    return Measure<Utf32, Utf8>(src, srcLen, maxLen);
}

unsigned qd_utf8len_of_qdchar(const char*, unsigned srcLen, unsigned maxLen)
{
    return std::min(srcLen, maxLen);
}

unsigned qd_utf16len_of_utf8(const uint8_t* src, unsigned srcLen, unsigned maxLen)
{
    return MeasureUtf8<Utf16>(src, srcLen, maxLen);
}

unsigned qd_utf16len_of_utf32(const uint32_t* src, unsigned srcLen, unsigned maxLen)
{
    return Measure<Utf32, Utf16>(src, srcLen, maxLen);
}

unsigned qd_utf16len_of_qdchar(const char* src, unsigned srcLen, unsigned maxLen)
{
    return qd_utf16len_of_utf8(AsUtf8(src), srcLen, maxLen);
}

unsigned qd_utf32len_of_utf8(const uint8_t* src, unsigned srcLen, unsigned maxLen)
{
    return MeasureUtf8<Utf32>(src, srcLen, maxLen);
}

unsigned qd_utf32len_of_utf16(const uint16_t* src, unsigned srcLen, unsigned maxLen)
{
    return Measure<Utf16, Utf32>(src, srcLen, maxLen);
}

unsigned qd_utf32len_of_wchar(const char* src, unsigned srcLen, unsigned maxLen)
{
    return qd_utf32len_of_utf8(AsUtf8(src), srcLen, maxLen);
}

unsigned qd_strlen_of_utf8(const uint8_t*, unsigned srcLen, unsigned maxLen)
{
    return std::min(srcLen, maxLen);
}

unsigned qd_strlen_of_utf16(const uint16_t* src, unsigned srcLen, unsigned maxLen)
{
    return qd_utf8len_of_utf16(src, srcLen, maxLen);
}

unsigned qd_strlen_of_utf32(const uint32_t* src, unsigned srcLen, unsigned maxLen)
{
    return qd_utf8len_of_utf32(src, srcLen, maxLen);
}
