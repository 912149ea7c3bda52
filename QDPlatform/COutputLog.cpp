#include <QDPlatform/COutputLog.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace
{

constexpr unsigned int kMessageCapacity = 256; // bytes, terminator included
constexpr unsigned int kMaxPrefixLength = 206;
constexpr unsigned int kPrefixedCapacity = 254; // shared by the prefix and the text, terminator included

constexpr unsigned int kHexLineCapacity = 160;
constexpr unsigned int kBytesPerRow = 16;
constexpr unsigned int kBytesPerHalfRow = 8;
constexpr unsigned int kRowLengthWithoutCharacters = kBytesPerRow * 3 + 2;
constexpr unsigned int kCountLength = 10; // " %2u bytes:"

constexpr unsigned int kTabWidth = 4;
constexpr unsigned int kMaxWholeLine = 250; // bytes before TABs are expanded
constexpr unsigned int kPieceColumns = 250;

// The length of the message in `buffer`, which was zeroed before the formatter gave `result`. An encoding error is no
// length: the message is what the formatter left behind.
unsigned int MessageLength(int result, const char* buffer, unsigned int capacity)
{
    if (result == QDFormatEncodingError)
        return static_cast<unsigned int>(::strnlen(buffer, capacity - 1));
    return static_cast<unsigned int>(result);
}

// Writes the hex and character columns of `count` bytes, at most 16, without a terminator.
// Returns the end of the row, at most 66 bytes further.
char* WriteHexRow(char* out, const unsigned char* data, unsigned int count)
{
    static constexpr char kDigits[] = "0123456789ABCDEF";
    for (unsigned int i = 0; i < count; ++i) {
        if (i == kBytesPerHalfRow)
            *out++ = ' ';
        *out++ = ' ';
        *out++ = kDigits[data[i] >> 4];
        *out++ = kDigits[data[i] & 0x0F];
    }
    out = std::fill_n(out, (kBytesPerRow - count) * 3, ' ');
    if (count <= kBytesPerHalfRow) // no ninth byte wrote the separator
        *out++ = ' ';
    *out++ = ' ';
    for (unsigned int i = 0; i < count; ++i)
        *out++ = std::isprint(data[i]) != 0 ? static_cast<char>(data[i]) : '.';
    return out;
}

// The text of one printed line, terminated, while TABs and CRs of the source are worked out. What does not fit is
// dropped: a message has less room than this buffer.
class ExpandedLine
{
public:
    void Append(char c)
    {
        if (c == '\r')
            return;
        if (c != '\t') {
            Put(c);
            return;
        }
        const unsigned int nextColumn = (m_Column + kTabWidth) / kTabWidth * kTabWidth;
        Put('.');
        while (m_Column < nextColumn)
            Put(' ');
    }

    unsigned int GetColumn() const { return m_Column; }

    const char* GetText() const { return m_Text; }

private:
    void Put(char c)
    {
        if (m_Column < kMessageCapacity - 1)
            m_Text[m_Column] = c;
        ++m_Column;
    }

    char m_Text[kMessageCapacity] = {};
    unsigned int m_Column{0};
};

} // namespace

COutputLog::~COutputLog() = default;

void COutputLog::Print(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    PrintVA(Info, 0, format, args);
    va_end(args);
}

void COutputLog::PrintWarning(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    PrintVA(Warning, 0, format, args);
    va_end(args);
}

void COutputLog::PrintError(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    PrintVA(Error, 0, format, args);
    va_end(args);
}

void COutputLog::PrintError(int code, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    PrintVA(Error, code, format, args);
    va_end(args);
}

void COutputLog::PrintVA(LogType type, int code, const char* format, va_list args)
{
    char buffer[kMessageCapacity] = {};
    const int result = qd_vsprintf(buffer, sizeof buffer, format, args);
    if (result != QDFormatTruncated) {
        AppendMessage(type, code, buffer, MessageLength(result, buffer, sizeof buffer));
        return;
    }
    std::memcpy(buffer + sizeof buffer - 4, "...", 4);
    AppendMessage(type, code, buffer, sizeof buffer - 1);
}

void COutputLog::PrintInfoVA(const char* format, va_list args)
{
    PrintVA(Info, 0, format, args);
}

void COutputLog::PrintWarningVA(const char* format, va_list args)
{
    PrintVA(Warning, 0, format, args);
}

void COutputLog::PrintErrorVA(const char* format, va_list args)
{
    PrintVA(Error, 0, format, args);
}

void COutputLog::PrefixedPrintVA(LogType type, const char* prefix, unsigned int prefixLength, const char* format,
                                 va_list args)
{
    char buffer[kMessageCapacity] = {};
    char* cursor = buffer;
    prefixLength = std::min(prefixLength, kMaxPrefixLength);
    if (prefixLength != 0) {
        cursor = std::copy_n(prefix, prefixLength, cursor);
        *cursor++ = ':';
        *cursor++ = ' ';
    }
    const unsigned int capacity = kPrefixedCapacity - prefixLength;
    const int result = qd_vsprintf_with_elipsis(cursor, capacity, format, args);
    cursor += MessageLength(result, cursor, capacity);
    AppendMessage(type, 0, buffer, static_cast<unsigned int>(cursor - buffer));
}

void COutputLog::PrefixedPrintInfoVA(const char* prefix, unsigned int prefixLength, const char* format, va_list args)
{
    PrefixedPrintVA(Info, prefix, prefixLength, format, args);
}

void COutputLog::PrefixedPrintWarningVA(const char* prefix, unsigned int prefixLength, const char* format, va_list args)
{
    PrefixedPrintVA(Warning, prefix, prefixLength, format, args);
}

void COutputLog::PrefixedPrintErrorVA(const char* prefix, unsigned int prefixLength, const char* format, va_list args)
{
    PrefixedPrintVA(Error, prefix, prefixLength, format, args);
}

void COutputLog::PrintString(const std::string& text)
{
    AppendMessage(Info, 0, text.c_str(), static_cast<unsigned int>(text.size()));
}

void COutputLog::PrintData(const char* title, unsigned int length, const unsigned char* data)
{
    char line[kHexLineCapacity];
    if (length <= kBytesPerRow) {
        const unsigned int titleRoom = kHexLineCapacity - 1 - kCountLength - kRowLengthWithoutCharacters - length;
        const int count = qd_sprintf(line, sizeof line, "%.*s %2u bytes:", static_cast<int>(titleRoom), title, length);
        const char* end = WriteHexRow(line + count, data, length);
        AppendMessage(Info, 0, line, static_cast<unsigned int>(end - line));
        return;
    }
    Print("%s %u bytes", title, length);
    for (uint64_t offset = 0; offset < length; offset += kBytesPerRow) { // 64 bits: does not wrap near the end
        const auto start = static_cast<unsigned int>(offset);
        const int count = qd_sprintf(line, sizeof line, "%04X ", start);
        const char* end = WriteHexRow(line + count, data + start, std::min(kBytesPerRow, length - start));
        AppendMessage(Info, 0, line, static_cast<unsigned int>(end - line));
    }
}

void COutputLog::PrintMultilineString(const char* title, const char* text, unsigned int length)
{
    if (title != nullptr)
        Print("%s", title);
    if (length == 0)
        return;
    std::string_view rest(text, ::strnlen(text, length));
    for (int lineNumber = 1; !rest.empty(); ++lineNumber) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        PrintLineFromMultilineString(lineNumber, line.data(), static_cast<unsigned int>(line.size()));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    }
}

void COutputLog::PrintLineFromMultilineString(int lineNumber, const char* text, unsigned int length)
{
    if (length <= kMaxWholeLine) {
        ExpandedLine line;
        for (unsigned int i = 0; i < length; ++i)
            line.Append(text[i]);
        Print("%3d:%s", lineNumber, line.GetText());
        return;
    }
    unsigned char letter = 'a';
    for (unsigned int i = 0; i < length; ++letter) {
        ExpandedLine piece;
        while (i < length && piece.GetColumn() < kPieceColumns)
            piece.Append(text[i++]);
        // "%lc" depends on the process locale, so the letter is encoded here. Its first byte is printed as "%c", for a
        // letter that has come round to 0.
        char encodedLetter[8] = {};
        qd_qdchar_from_codepoint(letter, encodedLetter);
        Print("%3d%c%s:%s", lineNumber, encodedLetter[0], encodedLetter + 1, piece.GetText());
    }
}
