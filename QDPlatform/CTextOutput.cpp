#include <QDPlatform/CTextOutput.h>

#include <QDPlatform/CTextOutputFormats.h>
#include <QDPlatform/QDTimeZone.h>
#include <QDPlatform/QDTimestamp.h>
#include <QDPlatform/UnicodeCharacter.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <cwctype>
#include <limits>

namespace
{

constexpr uint32_t kFormatBufferStep = 512; // bytes
constexpr unsigned int kMaxFormatCapacity = std::numeric_limits<int>::max() / kFormatBufferStep * kFormatBufferStep;

constexpr int kFloatFractionDigits = 6;
constexpr int kDoubleFractionDigits = 14;
constexpr int kMaxPlainExponent = 6; // numbers with exponents from -4 to 6 are written without one
constexpr int kMinPlainExponent = -4;

constexpr int kTab = 0x09;
constexpr int kLineFeed = 0x0A;
constexpr int kCarriageReturn = 0x0D;
constexpr int kLastAsciiCharacter = 0x7E;

int AsCodePoint(char byte)
{
    return static_cast<unsigned char>(byte);
}

const char* AsText(const unsigned char* utf8)
{
    return reinterpret_cast<const char*>(utf8);
}

// Takes the code point at `p`, which is below `end`. The decoder gets a copy of `p`, so that a loop can keep its own in
// a register.
int NextCodePoint(const char*& p, const char* end)
{
    if (AsCodePoint(*p) < 0x80)
        return AsCodePoint(*p++);
    const char* next = p;
    const int codePoint = qd_codepoint_from_qdchar(next, end);
    p = next;
    return codePoint;
}

void PrintNumber(CTextOutput& output, double value, int fractionDigits)
{
    if (std::isnan(value)) {
        output.Print("NaN");
        return;
    }
    if (std::isinf(value)) {
        output.Print(std::signbit(value) ? "-Infinity" : "+Infinity");
        return;
    }
    char text[kExponentFormCapacity];
    output.PrintFloatingPointString(text, qd_write_exponent_form(value, fractionDigits, text));
}

void WriteRange(CTextOutput& output, const char* begin, const char* end)
{
    if (begin < end)
        output.WriteString(begin, static_cast<unsigned int>(end - begin));
}

// Write a number of exponent form in plain digits: with an exponent below 0, and above.
void PrintBelowOne(CTextOutput& output, const char* text, const ExponentForm& form)
{
    const bool isNegative = *text == '-';
    output.WriteString(isNegative ? "-0." : "0.", isNegative ? 3 : 2);
    output.WriteCodePoints(static_cast<unsigned int>(-form.m_Exponent - 1), '0');
    const char* const digit = isNegative ? text + 1 : text;
    WriteRange(output, digit, std::min(digit + 1, form.m_pPoint));
    WriteRange(output, form.m_pPoint + 1, form.m_pMantissaEnd);
}

void PrintAboveOne(CTextOutput& output, const char* text, const ExponentForm& form, const char* end)
{
    WriteRange(output, text, form.m_pPoint);
    const char* const whole = form.m_pPoint + 1;
    const char* fraction = whole;
    unsigned int missing = static_cast<unsigned int>(form.m_Exponent);
    for (; missing > 0 && fraction < end && *fraction >= '0' && *fraction <= '9'; ++fraction)
        --missing;
    WriteRange(output, whole, fraction);
    output.PrintChars(missing, '0');
    if (fraction < form.m_pMantissaEnd) {
        output.WriteCodePoint('.');
        WriteRange(output, fraction, form.m_pMantissaEnd);
    }
}

// Splits the time, in the zone's local time when there is a zone.
CQDTimestamp::TimestampStruct SplitTime(const CQDTimeZone* zone, long long time)
{
    CQDTimestamp::TimestampStruct fields;
    CQDTimestamp::GetTimestampStruct(zone != nullptr ? zone->ToLocalTime(time) : time, fields);
    return fields;
}

// The letter that stands behind "$" for a control character of an IEC 61131-3 literal; 0 for any other.
int EscapeLetter(int codePoint)
{
    switch (codePoint) {
    case kTab: return 't';
    case kLineFeed: return 'n';
    case kCarriageReturn: return 'r';
    default: return 0;
    }
}

bool IsPlainAscii(int codePoint)
{
    return codePoint >= ' ' && codePoint <= kLastAsciiCharacter;
}

} // namespace

CTextOutput::CTextOutput() : m_pFormatBuffer(new char[kFormatBufferStep]), m_FormatBufferCapacity(kFormatBufferStep) {}

CTextOutput::~CTextOutput() = default;

bool CTextOutput::WriteNewLine()
{
    bool written = false;
    switch (m_LineTermination) {
    case LineTerminationCR: written = WriteCodePoint(kCarriageReturn); break;
    case LineTerminationCRLF: written = WriteCodePoint(kCarriageReturn) && WriteCodePoint(kLineFeed); break;
    case LineTerminationNEL: written = WriteCodePoint(0x85); break;
    case LineTerminationLS: written = WriteCodePoint(0x2028); break;
    case LineTerminationPS: written = WriteCodePoint(0x2029); break;
    default: written = WriteCodePoint(kLineFeed); break;
    }
    if (written)
        m_TextLocation.IncrementByCodePoint(kLineFeed);
    return written;
}

void CTextOutput::IndentNewLine()
{
    if (m_IndentLevel <= 0 || m_TextLocation.GetIndexInLine() != 0)
        return;
    const uint64_t count = static_cast<uint64_t>(m_IndentLevel) * m_IndentCharactersPerLevel;
    for (uint64_t i = 0; i < count; ++i) {
        WriteCodePoint(m_IndentCharacter);
        m_TextLocation.IncrementByCodePoint(m_IndentCharacter);
    }
}

void CTextOutput::SetLineTermination(TextLineTermination lineTermination)
{
    m_LineTermination = lineTermination;
}

void CTextOutput::SetIndentCharacters(char character, unsigned int countPerLevel)
{
    m_IndentCharacter = AsCodePoint(character);
    m_IndentCharactersPerLevel = countPerLevel;
}

void CTextOutput::AdjustIndent(int delta)
{
    m_IndentLevel = static_cast<int32_t>(static_cast<uint32_t>(m_IndentLevel) + static_cast<uint32_t>(delta));
}

bool CTextOutput::WriteString(const std::string& text)
{
    return WriteText(text.data(), text.data() + text.size());
}

bool CTextOutput::WriteString(const qdchar* text, unsigned int length)
{
    return WriteText(text, text + length);
}

bool CTextOutput::WriteCodePoints(unsigned int count, int codePoint)
{
    for (unsigned int i = 0; i < count; ++i) {
        if (!WriteCodePoint(codePoint))
            return false;
    }
    return true;
}

void CTextOutput::Print(const char* format, ...)
{
    IndentNewLine();
    va_list args;
    va_start(args, format);
    const int length = FormatText(format, args);
    va_end(args);
    PrintText(m_pFormatBuffer.get(), m_pFormatBuffer.get() + length);
}

void CTextOutput::PrintLine(const char* format, ...)
{
    IndentNewLine();
    va_list args;
    va_start(args, format);
    const int length = FormatText(format, args);
    va_end(args);
    const char* p = m_pFormatBuffer.get();
    const char* const end = p + length;
    while (p < end)
        WriteCodePoint(NextCodePoint(p, end));
    WriteNewLine();
}

void CTextOutput::PrintLine()
{
    WriteNewLine();
}

void CTextOutput::PrintChar(char character)
{
    IndentNewLine();
    WriteCodePoint(AsCodePoint(character));
}

void CTextOutput::PrintChars(unsigned int count, char character)
{
    IndentNewLine();
    for (unsigned int i = 0; i < count; ++i) {
        WriteCodePoint(AsCodePoint(character));
        m_TextLocation.IncrementByCodePoint(AsCodePoint(character));
    }
}

void CTextOutput::PrintFloat(float value)
{
    PrintNumber(*this, static_cast<double>(value), kFloatFractionDigits);
}

void CTextOutput::PrintDouble(double value)
{
    PrintNumber(*this, value, kDoubleFractionDigits);
}

void CTextOutput::PrintFloatingPointString(const char* text, unsigned int length)
{
    IndentNewLine();
    const char* const end = text + length;
    ExponentForm form;
    if (!qd_find_exponent_form(text, end, form)) {
        WriteText(text, end);
    } else if (form.m_Exponent > kMaxPlainExponent || form.m_Exponent < kMinPlainExponent) {
        WriteText(text, form.m_pMantissaEnd);
        WriteText(form.m_pExponent, end);
    } else if (form.m_Exponent > 0) {
        PrintAboveOne(*this, text, form, end);
    } else if (form.m_Exponent < 0) {
        PrintBelowOne(*this, text, form);
    } else {
        WriteText(text, form.m_pMantissaEnd);
    }
}

void CTextOutput::PrintDate(const CQDTimeZone* zone, long long time)
{
    IndentNewLine();
    char text[kDateLength];
    PrintText(text, qd_write_date(text, SplitTime(zone, time)));
}

void CTextOutput::PrintDateAndTime(const CQDTimeZone* zone, long long time, char separator)
{
    IndentNewLine();
    char text[kDateAndTimeLength];
    PrintText(text, qd_write_date_and_time(text, SplitTime(zone, time), separator));
}

void CTextOutput::Print61131String(const std::string& text, bool doubleByte)
{
    Print61131Bytes(text.data(), text.data() + text.size(), doubleByte);
}

void CTextOutput::Print61131String(const char* text, unsigned int length, bool doubleByte)
{
    Print61131Bytes(text, text + length, doubleByte);
}

void CTextOutput::Print61131String(const UnicodeCharacter* characters, unsigned int count)
{
    IndentNewLine();
    WriteCodePoint('\'');
    for (unsigned int i = 0; i < count; ++i) {
        const int codePoint = characters[i].GetCodePoint();
        if (codePoint <= kLastAsciiCharacter)
            PrintCodePoint00ToFF(codePoint, false);
        else
            PrintCodePointAbove126(codePoint, characters[i].IsPrintable(), false);
    }
    WriteCodePoint('\'');
}

void CTextOutput::Print61131String(const unsigned char* utf8, unsigned int length)
{
    IndentNewLine();
    WriteCodePoint('\'');
    const char* p = AsText(utf8);
    const char* const end = p + length;
    while (p < end) {
        const int codePoint = NextCodePoint(p, end);
        if (codePoint <= kLastAsciiCharacter)
            PrintCodePoint00ToFF(codePoint, false);
        else
            PrintCodePointAbove126(codePoint, UnicodeCharacter(codePoint).IsPrintable(), false);
    }
    WriteCodePoint('\'');
}

// No unit of UTF-16 fails to decode: a lone surrogate comes as its own value, which is not printable.
void CTextOutput::Print61131String(const unsigned short* utf16, unsigned int count)
{
    IndentNewLine();
    WriteCodePoint('"');
    const unsigned short* const end = utf16 + count;
    while (utf16 < end) {
        const int codePoint = qd_decode_utf16(utf16, end);
        if (codePoint <= kLastAsciiCharacter)
            PrintCodePoint00ToFF(codePoint, true);
        else
            PrintCodePointAbove126(codePoint, UnicodeCharacter(codePoint).IsPrintable(), true);
    }
    WriteCodePoint('"');
}

void CTextOutput::PrintCodePoint00ToFF(int codePoint, bool doubleByte)
{
    IndentNewLine();
    const int letter = EscapeLetter(codePoint);
    if (codePoint == '$' || letter != 0) {
        WriteCodePoint('$');
        WriteCodePoint(letter != 0 ? letter : '$');
        m_TextLocation.IncrementByOffset(2);
        return;
    }
    if (codePoint == (doubleByte ? '"' : '\'')) {
        WriteCodePoint('$');
        WriteCodePoint(codePoint);
        return;
    }
    if (IsPlainAscii(codePoint) || (doubleByte && codePoint > 160))
        WriteCodePoint(codePoint);
    else
        PrintHexEscape(static_cast<unsigned int>(codePoint), doubleByte ? 4 : 2);
}

void CTextOutput::PrintSQLStringLiteral(const unsigned short* utf16, unsigned int count)
{
    IndentNewLine();
    WriteCodePoint('\'');
    const unsigned short* const end = utf16 + count;
    while (utf16 < end) {
        const int codePoint = qd_decode_utf16(utf16, end);
        if (codePoint == '\'')
            WriteCodePoint('\'');
        WriteCodePoint(codePoint);
    }
    WriteCodePoint('\'');
}

void CTextOutput::PrintSQLStringLiteral(const std::string& text)
{
    IndentNewLine();
    WriteCodePoint('\'');
    const char* p = text.data();
    const char* const end = p + text.size();
    while (p < end) {
        const int codePoint = NextCodePoint(p, end);
        if (codePoint == '\'')
            WriteCodePoint('\'');
        WriteCodePoint(codePoint);
    }
    WriteCodePoint('\'');
}

void CTextOutput::PrintUtf16String(const unsigned short* text, unsigned int count)
{
    IndentNewLine();
    const unsigned short* const end = text + count;
    while (text < end) {
        WriteCodePoint(qd_decode_utf16(text, end));
        m_TextLocation.IncrementByOffset(1);
    }
}

void CTextOutput::PrintUtf8String(const unsigned char* text, unsigned int length)
{
    IndentNewLine();
    const char* p = AsText(text);
    const char* const end = p + length;
    while (p < end) {
        WriteCodePoint(NextCodePoint(p, end));
        m_TextLocation.IncrementByOffset(1);
    }
}

void CTextOutput::PrintBase64(const unsigned char* data, unsigned int length)
{
    static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    IndentNewLine();
    for (const unsigned char* const end = data + length; data < end;) {
        const auto groupLength = std::min<std::ptrdiff_t>(end - data, 3);
        const unsigned int group = static_cast<unsigned int>(data[0]) << 16 |
                                   (groupLength > 1 ? static_cast<unsigned int>(data[1]) << 8 : 0) |
                                   (groupLength > 2 ? static_cast<unsigned int>(data[2]) : 0);
        WriteCodePoint(kAlphabet[group >> 18]);
        WriteCodePoint(kAlphabet[group >> 12 & 0x3F]);
        WriteCodePoint(groupLength > 1 ? kAlphabet[group >> 6 & 0x3F] : '=');
        WriteCodePoint(groupLength > 2 ? kAlphabet[group & 0x3F] : '=');
        data += groupLength;
    }
}

void CTextOutput::PrintCSVValue(const std::string& value)
{
    IndentNewLine();
    if (value.find(',') == value.npos && value.find('"') == value.npos) {
        WriteString(value);
        return;
    }
    WriteCodePoint('"');
    for (const char byte : value) {
        if (byte == '"')
            WriteCodePoint('"');
        WriteCodePoint(AsCodePoint(byte));
    }
    WriteCodePoint('"');
}

// Where this throws, the va_end() of the caller is skipped; it does nothing on any platform of ours.
int CTextOutput::FormatText(const char* format, va_list args)
{
    while (true) {
        char* const buffer = m_pFormatBuffer.get();
        buffer[0] = '\0';
        va_list pass;
        va_copy(pass, args);
        int length = qd_vsprintf(buffer, m_FormatBufferCapacity, format, pass);
        va_end(pass);
        if (length == QDFormatTruncated && GrowFormatBuffer(format, args))
            continue;
        if (length == QDFormatTruncated || length == QDFormatEncodingError) {
            length = static_cast<int>(::strnlen(buffer, m_FormatBufferCapacity - 1));
            buffer[length] = '\0';
        }
        return length;
    }
}

bool CTextOutput::WriteText(const char* begin, const char* end)
{
    while (begin < end) {
        const int codePoint = NextCodePoint(begin, end);
        if (codePoint == kCarriageReturn)
            continue;
        if (!(codePoint == kLineFeed ? WriteNewLine() : WriteCodePoint(codePoint)))
            return false;
    }
    return true;
}

void CTextOutput::PrintText(const char* begin, const char* end)
{
    while (begin < end) {
        const int codePoint = NextCodePoint(begin, end);
        WriteCodePoint(codePoint);
        m_TextLocation.IncrementByCodePoint(codePoint);
    }
}

void CTextOutput::Print61131Bytes(const char* begin, const char* end, bool doubleByte)
{
    IndentNewLine();
    const int quote = doubleByte ? '"' : '\'';
    WriteCodePoint(quote);
    for (const char* p = begin; p < end; ++p) {
        const int codePoint = AsCodePoint(*p);
        const bool isPlain = IsPlainAscii(codePoint) && codePoint != quote && codePoint != '$';
        if (isPlain || (codePoint >= 0x80 && std::iswprint(static_cast<wint_t>(codePoint)) != 0)) {
            WriteCodePoint(codePoint);
            continue;
        }
        const int letter = EscapeLetter(codePoint);
        if (letter != 0 || IsPlainAscii(codePoint)) {
            WriteCodePoint('$');
            WriteCodePoint(letter != 0 ? letter : codePoint);
        } else {
            PrintHexEscape(static_cast<unsigned int>(codePoint), doubleByte ? 4 : 2);
        }
    }
    WriteCodePoint(quote);
}

void CTextOutput::PrintHexEscape(unsigned int value, unsigned int digits)
{
    char text[1 + 8];
    text[0] = '$';
    PrintText(text, qd_write_hex(text + 1, value, digits));
}

void CTextOutput::PrintCodePointAbove126(int codePoint, bool isPrintable, bool doubleByte)
{
    if (codePoint < 0x10000 && isPrintable) {
        WriteCodePoint(codePoint);
    } else if (doubleByte) {
        uint16_t units[2];
        const unsigned int count = qd_encode_utf16(codePoint, units);
        for (unsigned int i = 0; i < count; ++i)
            PrintHexEscape(units[i], 4);
    } else {
        uint8_t bytes[4];
        const unsigned int count = qd_encode_utf8(codePoint, bytes);
        for (unsigned int i = 0; i < count; ++i)
            PrintHexEscape(bytes[i], 2);
    }
}

// The steps of 512 bytes up to the one that fits are taken at once, and the length is asked of the formatter: a long
// text would else be formatted for each of them, and one that never fits without an end.
bool CTextOutput::GrowFormatBuffer(const char* format, va_list args)
{
    va_list pass;
    va_copy(pass, args);
    const int length = std::vsnprintf(nullptr, 0, format, pass);
    va_end(pass);
    if (length < static_cast<int>(m_FormatBufferCapacity) || length >= static_cast<int>(kMaxFormatCapacity))
        return false;
    const uint32_t capacity = (static_cast<uint32_t>(length) / kFormatBufferStep + 1) * kFormatBufferStep;
    m_pFormatBuffer.reset(new char[capacity]);
    m_FormatBufferCapacity = capacity;
    return true;
}
