#include <QDPlatform/CTextOutputFormats.h>

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstddef>
#include <limits>
#include <string_view>

namespace
{

static_assert(std::numeric_limits<double>::is_iec559 && std::numeric_limits<double>::digits == 53);

constexpr int kMantissaBits = 52; // without the leading one, which is not stored
constexpr int kExponentBias = 1023;
constexpr int kExponentLimit = 100000; // what is read stops here
constexpr uint32_t kLastYear = 9999;
constexpr uint32_t kHundredMillion = 100000000;

template<uint64_t Base, size_t Count>
constexpr std::array<uint64_t, Count> MakePowers()
{
    std::array<uint64_t, Count> powers{1};
    for (size_t i = 1; i < Count; ++i)
        powers[i] = powers[i - 1] * Base;
    return powers;
}

constexpr auto kPowersOfFive = MakePowers<5, 28>(); // as many as 64 bits hold
constexpr auto kPowersOfTen = MakePowers<10, 16>();

// "00" to "99".
constexpr auto kDigitPairs = [] {
    std::array<char, 200> pairs{};
    for (unsigned int i = 0; i < 100; ++i) {
        pairs[2 * i] = static_cast<char>('0' + i / 10);
        pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return pairs;
}();

// left x right / 2^shift, rounded to nearest and to even. shift: 1 to 63. The result must fit.
uint64_t MultiplyAndShift(uint64_t left, uint64_t right, int shift)
{
    const uint64_t leftLow = left & 0xFFFFFFFF;
    const uint64_t leftHigh = left >> 32;
    const uint64_t rightLow = right & 0xFFFFFFFF;
    const uint64_t rightHigh = right >> 32;
    const uint64_t lowest = leftLow * rightLow;
    const uint64_t middle = leftHigh * rightLow + (lowest >> 32);
    const uint64_t otherMiddle = leftLow * rightHigh + (middle & 0xFFFFFFFF);
    const uint64_t high = leftHigh * rightHigh + (middle >> 32) + (otherMiddle >> 32);
    const uint64_t low = otherMiddle << 32 | (lowest & 0xFFFFFFFF);

    constexpr uint64_t kHalf = uint64_t{1} << 63;
    const uint64_t whole = high << (64 - shift) | low >> shift;
    const uint64_t rest = low << (64 - shift); // what was shifted out, from the top bit on
    return whole + (rest > kHalf || (rest == kHalf && (whole & 1) != 0) ? 1 : 0);
}

// Reads an optional sign and decimal digits.
int ReadExponent(const char* p, const char* end)
{
    const bool isNegative = p < end && *p == '-';
    if (p < end && (*p == '-' || *p == '+'))
        ++p;
    int exponent = 0;
    for (; p < end && *p >= '0' && *p <= '9'; ++p)
        exponent = std::min(exponent * 10 + (*p - '0'), kExponentLimit);
    return isNegative ? -exponent : exponent;
}

// Writes eight digits.
void WriteEightDigits(char* out, uint32_t value)
{
    for (int i = 6; i >= 0; i -= 2) {
        std::copy_n(kDigitPairs.data() + size_t{value % 100} * 2, 2, out + i);
        value /= 100;
    }
}

// Finds the digits of 2^(binaryExponent - 52) x mantissa, fractionDigits + 1 of them, and the decimal exponent. Returns
// false for numbers beyond everyday size, about 1e-10 to 1e15 with 15 digits.
//
// The digits are the number x 10^power, rounded to a whole number. They are exact: mantissa x 5^power has less than 128
// bits.
bool FindDigits(uint64_t mantissa, int binaryExponent, int fractionDigits, uint64_t& digits, int& exponent)
{
    // 1233 / 4096 is so near to log10(2) that for all these numbers this is never too high, and too low by 1 at most.
    exponent = binaryExponent * 1233 >> 12;
    for (;; ++exponent) {
        const int power = fractionDigits - exponent;
        const int shift = kMantissaBits - binaryExponent - power;
        if (power < 0 || power >= static_cast<int>(kPowersOfFive.size()) || shift < 1 || shift > 63)
            return false;
        digits = MultiplyAndShift(mantissa, kPowersOfFive[static_cast<size_t>(power)], shift);
        if (digits < kPowersOfTen[static_cast<size_t>(fractionDigits) + 1])
            return true;
    }
}

// Writes the digits of a number, the first of them before the point. digits: fractionDigits + 1 of them, 16 at most.
unsigned int WriteExponentForm(char* out, bool isNegative, uint64_t digits, int fractionDigits, int exponent)
{
    char all[16];
    WriteEightDigits(all, static_cast<uint32_t>(digits / kHundredMillion));
    WriteEightDigits(all + 8, static_cast<uint32_t>(digits % kHundredMillion));
    const char* digit = all + 15 - fractionDigits;
    char* cursor = out;
    if (isNegative)
        *cursor++ = '-';
    *cursor++ = *digit++;
    *cursor++ = '.';
    cursor = std::copy_n(digit, fractionDigits, cursor);
    *cursor++ = 'e';
    *cursor++ = exponent < 0 ? '-' : '+';
    cursor = qd_write_decimal(cursor, static_cast<uint32_t>(exponent < 0 ? -exponent : exponent), 2);
    return static_cast<unsigned int>(cursor - out);
}

} // namespace

unsigned int qd_write_exponent_form(double value, int fractionDigits, char* out)
{
    const auto bits = std::bit_cast<uint64_t>(value);
    const int binaryExponent = static_cast<int>(bits >> kMantissaBits & 0x7FF) - kExponentBias;
    const uint64_t mantissa = (bits & ((uint64_t{1} << kMantissaBits) - 1)) | uint64_t{1} << kMantissaBits;
    uint64_t digits = 0;
    int exponent = 0;
    if (FindDigits(mantissa, binaryExponent, fractionDigits, digits, exponent))
        return WriteExponentForm(out, bits >> 63 != 0, digits, fractionDigits, exponent);
    const std::to_chars_result result =
        std::to_chars(out, out + kExponentFormCapacity, value, std::chars_format::scientific, fractionDigits);
    return static_cast<unsigned int>(result.ptr - out);
}

char* qd_write_decimal(char* out, uint32_t value, unsigned int digits)
{
    for (unsigned int i = digits; i > 0; value /= 10)
        out[--i] = static_cast<char>('0' + value % 10);
    return out + digits;
}

char* qd_write_hex(char* out, uint32_t value, unsigned int digits)
{
    static constexpr char kDigits[] = "0123456789ABCDEF";
    const unsigned int needed = (static_cast<unsigned int>(std::bit_width(value)) + 3) / 4;
    digits = std::max(digits, needed);
    for (unsigned int i = digits; i > 0; value >>= 4)
        out[--i] = kDigits[value & 0xF];
    return out + digits;
}

char* qd_write_date(char* out, const CQDTimestamp::TimestampStruct& fields)
{
    out = fields.m_Year > kLastYear ? std::fill_n(out, 4, '*') : qd_write_decimal(out, fields.m_Year, 4);
    *out++ = '-';
    out = qd_write_decimal(out, fields.m_Month, 2);
    *out++ = '-';
    return qd_write_decimal(out, fields.m_Day, 2);
}

char* qd_write_date_and_time(char* out, const CQDTimestamp::TimestampStruct& fields, char separator)
{
    out = qd_write_date(out, fields);
    *out++ = separator;
    out = qd_write_decimal(out, fields.m_Hour, 2);
    *out++ = ':';
    out = qd_write_decimal(out, fields.m_Minute, 2);
    *out++ = ':';
    out = qd_write_decimal(out, fields.m_Second, 2);
    *out++ = '.';
    return qd_write_decimal(out, fields.m_Millisecond, 3);
}

bool qd_find_exponent_form(const char* text, const char* end, ExponentForm& form)
{
    const std::string_view all(text, static_cast<size_t>(end - text));
    const size_t point = all.find('.');
    const size_t exponent = all.find('e');
    if (point == all.npos || exponent == all.npos)
        return false;
    form.m_pPoint = text + point;
    form.m_pExponent = text + exponent;
    form.m_Exponent = ReadExponent(form.m_pExponent + 1, end);
    form.m_pMantissaEnd = form.m_pExponent;
    if (form.m_pExponent > form.m_pPoint) {
        while (form.m_pMantissaEnd[-1] == '0') // the point stops it
            --form.m_pMantissaEnd;
        if (form.m_pMantissaEnd == form.m_pPoint + 1)
            form.m_pMantissaEnd = form.m_pPoint;
    }
    return true;
}
