#include <QDPlatform/QDQuickFormat.h>

#include <langinfo.h>

#include <algorithm>
#include <cctype>
#include <cfenv>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <system_error>

namespace
{

constexpr size_t kTextCapacity = 512; // bytes
constexpr size_t kMaxPieces = 17;     // the last one is the text at the end
constexpr int kNoPrecision = -1;
constexpr int kPrecisionArgument = -2;

// A part of the format: text and then one conversion.
struct Piece
{
    const char* m_pText;
    size_t m_TextLength;
    size_t m_Width;
    int m_Precision;
    unsigned m_Bytes; // of an integer
    char m_Flag;      // '-', '0' or none
    char m_Type;      // the letter; '%' behind a text that includes it; '\0' at the end of the format
};

// Reads up to two digits: a third one is then taken for an unknown conversion.
int ReadNumber(const char*& p)
{
    int number = 0;
    for (int i = 0; i < 2 && *p >= '0' && *p <= '9'; ++i)
        number = number * 10 + (*p++ - '0');
    return number;
}

// Reads the letters that tell the size of an integer. Returns its bytes.
unsigned ReadSize(const char*& p)
{
    const char letter = *p;
    if (letter != 'h' && letter != 'l' && letter != 'z')
        return sizeof(int);
    const bool isDouble = *++p == letter && letter != 'z';
    p += isDouble ? 1 : 0;
    if (letter == 'h')
        return isDouble ? sizeof(char) : sizeof(short);
    return isDouble ? sizeof(long long) : letter == 'l' ? sizeof(long) : sizeof(size_t);
}

// Returns false for what is left to the C library.
bool ReadConversion(const char*& p, Piece& piece)
{
    piece.m_Flag = *p == '-' || *p == '0' ? *p++ : '\0';
    piece.m_Width = *p == '0' ? 0 : static_cast<size_t>(ReadNumber(p));
    piece.m_Precision = kNoPrecision;
    if (p[0] == '.' && p[1] == '*') {
        piece.m_Precision = kPrecisionArgument;
        p += 2;
    } else if (p[0] == '.' && p[1] >= '0' && p[1] <= '9') {
        piece.m_Precision = ReadNumber(++p);
    }
    const char* const size = p;
    piece.m_Bytes = ReadSize(p);
    const bool hasSize = p != size;
    piece.m_Type = *p++;
    switch (piece.m_Type) {
    case 'c': return !hasSize && piece.m_Precision == kNoPrecision && piece.m_Flag != '0';
    case 's': return !hasSize && piece.m_Flag != '0';
    case 'f': return !hasSize && piece.m_Precision != kPrecisionArgument;
    case 'd':
    case 'i':
    case 'u':
    case 'x':
    case 'X': return piece.m_Precision == kNoPrecision;
    default: return false;
    }
}

// Reads the whole format before an argument is looked at, so that an attempt in vain costs little.
bool ReadFormat(const char* format, Piece (&pieces)[kMaxPieces])
{
    for (Piece& piece : pieces) {
        const char* p = ::strchrnul(format, '%');
        piece.m_pText = format;
        piece.m_TextLength = static_cast<size_t>(p - format);
        piece.m_Type = *p;
        if (*p == '\0')
            return true;
        if (*++p == '%') {
            ++piece.m_TextLength;
            ++p;
        } else if (!ReadConversion(p, piece)) {
            return false;
        }
        format = p;
    }
    return false;
}

// Takes an argument of so many bytes. Integers of the same size are passed alike, signed or not, long or long long.
uint64_t TakeInteger(va_list& args, unsigned bytes, bool isSigned)
{
    const uint64_t value = bytes == sizeof(uint64_t) ? va_arg(args, unsigned long long) : va_arg(args, unsigned);
    const unsigned unused = 64 - 8 * bytes;
    return isSigned ? static_cast<uint64_t>(static_cast<int64_t>(value << unused) >> unused)
                    : value << unused >> unused;
}

// The text as far as it is done. The functions return false for what is left to the C library, such as a longer text.
class QuickText
{
public:
    bool Put(const char* text, size_t length)
    {
        if (length > GetRoom())
            return false;
        std::memcpy(m_pEnd, text, length);
        m_pEnd += length;
        return true;
    }

    bool PutArgument(const Piece& piece, va_list& args)
    {
        char* const start = m_pEnd;
        bool isPut = false;
        if (piece.m_Type == 's') {
            const int precision = piece.m_Precision == kPrecisionArgument ? va_arg(args, int) : piece.m_Precision;
            isPut = PutString(va_arg(args, const char*), precision);
        } else if (piece.m_Type == 'c') {
            const char character = static_cast<char>(va_arg(args, int));
            isPut = Put(&character, 1);
        } else if (piece.m_Type == 'f') {
            isPut = PutFixed(va_arg(args, double), piece.m_Precision == kNoPrecision ? 6 : piece.m_Precision);
        } else {
            const bool isSigned = piece.m_Type == 'd' || piece.m_Type == 'i';
            const uint64_t value = TakeInteger(args, piece.m_Bytes, isSigned);
            if (isSigned && static_cast<int64_t>(value) < 0)
                isPut = Put("-", 1) && PutInteger(0 - value, piece.m_Type);
            else
                isPut = PutInteger(value, piece.m_Type);
        }
        return isPut && Widen(start, piece.m_Width, piece.m_Flag);
    }

    // What vsnprintf() does when its text is ready.
    int CopyTo(char* dst, unsigned size) const
    {
        const size_t length = kTextCapacity - GetRoom();
        if (size != 0) {
            const size_t kept = std::min<size_t>(length, size - 1);
            std::memcpy(dst, m_Text, kept);
            dst[kept] = '\0';
        }
        return static_cast<int>(length);
    }

private:
    size_t GetRoom() const { return static_cast<size_t>(m_Text + kTextCapacity - m_pEnd); }

    bool PutString(const char* text, int precision)
    {
        const size_t tooLong = GetRoom() + 1;
        const size_t limit = precision < 0 ? tooLong : std::min(static_cast<size_t>(precision), tooLong);
        return text != nullptr && Put(text, ::strnlen(text, limit));
    }

    bool PutFixed(double value, int digits)
    {
        return std::isfinite(value) && std::fegetround() == FE_TONEAREST &&
               std::strcmp(::nl_langinfo(RADIXCHAR), ".") == 0 &&
               Keep(std::to_chars(m_pEnd, m_Text + kTextCapacity, value, std::chars_format::fixed, digits));
    }

    bool PutInteger(uint64_t value, char type)
    {
        char* const start = m_pEnd;
        char* const limit = m_Text + kTextCapacity;
        const int base = type == 'x' || type == 'X' ? 16 : 10;
        const bool isShort = value <= std::numeric_limits<uint32_t>::max(); // dividing 64 bits is slow in 32
        if (!Keep(isShort ? std::to_chars(start, limit, static_cast<uint32_t>(value), base)
                          : std::to_chars(start, limit, value, base)))
            return false;
        if (type == 'X')
            std::transform(start, m_pEnd, start, [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
        return true;
    }

    bool Keep(std::to_chars_result result)
    {
        m_pEnd = result.ptr;
        return result.ec == std::errc();
    }

    // Brings what was put since `start` to the width.
    bool Widen(char* start, size_t width, char flag)
    {
        const size_t length = static_cast<size_t>(m_pEnd - start);
        const size_t count = width > length ? width - length : 0;
        if (count > GetRoom())
            return false;
        if (count == 0)
            return true;
        if (flag == '-')
            start = m_pEnd;
        else if (flag == '0' && *start == '-')
            ++start;
        std::memmove(start + count, start, static_cast<size_t>(m_pEnd - start));
        std::memset(start, flag == '0' ? '0' : ' ', count);
        m_pEnd += count;
        return true;
    }

    char m_Text[kTextCapacity];
    char* m_pEnd = m_Text;
};

} // namespace

int qd_quick_vsnprintf(char* dst, unsigned size, const char* format, va_list args)
{
    Piece pieces[kMaxPieces];
    if (!ReadFormat(format, pieces))
        return -1;
    va_list rest;
    va_copy(rest, args); // a parameter of the type va_list is not always one
    QuickText text;
    const Piece* piece = pieces;
    bool isRight = text.Put(piece->m_pText, piece->m_TextLength);
    for (; isRight && piece->m_Type != '\0'; ++piece) {
        isRight = (piece->m_Type == '%' || text.PutArgument(*piece, rest)) &&
                  text.Put(piece[1].m_pText, piece[1].m_TextLength);
    }
    va_end(rest);
    return isRight ? text.CopyTo(dst, size) : -1;
}

int qd_vsnprintf(char* dst, unsigned size, const char* format, va_list args)
{
    va_list quickArgs;
    va_copy(quickArgs, args);
    const int result = qd_quick_vsnprintf(dst, size, format, quickArgs);
    va_end(quickArgs);
    return result >= 0 ? result : std::vsnprintf(dst, size, format, args);
}
