// The texts of numbers beside those of the C library: random values, all exponents and what lies near decimal
// boundaries; and under a locale whose decimal point is a comma.
#include <QDPlatform/CTextOutput.h>

#include "AllocationCounter.h"
#include "CommaLocale.h"
#include "RecordingTextOutput.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <random>
#include <string>

namespace
{

// The text from what snprintf writes in the "C" locale: the digits without the zeros at their end, with the point where
// the exponent says, or with the exponent as snprintf wrote it.
std::string Reference(double value, int fractionDigits)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.*e", fractionDigits, value);
    const std::string all = text;
    const std::string::size_type e = all.find('e');
    const std::string sign = all[0] == '-' ? "-" : "";
    std::string digits = all[sign.size()] + all.substr(sign.size() + 2, static_cast<std::size_t>(fractionDigits));
    const int exponent = std::stoi(all.substr(e + 1));
    int kept = fractionDigits + 1; // digits without the zeros at their end
    while (kept > 1 && digits[static_cast<std::size_t>(kept) - 1] == '0')
        --kept;
    digits.resize(static_cast<std::size_t>(kept));

    std::string suffix;
    int whole = 1; // digits in front of the point
    if (exponent < -4 || exponent > 6) {
        suffix = all.substr(e);
    } else if (exponent < 0) {
        digits.insert(0, static_cast<std::size_t>(-exponent), '0');
    } else {
        whole = exponent + 1;
        digits.resize(static_cast<std::size_t>(std::max(kept, whole)), '0');
    }
    const std::string fraction = digits.substr(static_cast<std::size_t>(whole));
    return sign + digits.substr(0, static_cast<std::size_t>(whole)) + (fraction.empty() ? "" : "." + fraction) + suffix;
}

// Compares both signs of a value; returns false at the first difference, so that a broken format does not print
// millions.
class Comparison
{
public:
    bool CheckDouble(double value)
    {
        return Check(value, Reference(value, 14), [this](double v) { m_Output.PrintDouble(v); });
    }

    bool CheckFloat(float value)
    {
        return Check(static_cast<double>(value), Reference(static_cast<double>(value), 6),
                     [this](double v) { m_Output.PrintFloat(static_cast<float>(v)); });
    }

private:
    template<class Print>
    bool Check(double value, const std::string& expected, Print&& print)
    {
        m_Output.Clear();
        print(value);
        const bool isEqual = m_Output.GetText() == expected;
        EXPECT_TRUE(isEqual) << m_Output.GetText() << " instead of " << expected << " for " << std::hexfloat << value;
        return isEqual;
    }

    RecordingTextOutput m_Output;
};

std::string DecimalText(std::string mantissa, int exponent)
{
    mantissa += 'e';
    return mantissa += std::to_string(exponent);
}

double DoubleFromBits(std::uint64_t bits)
{
    return std::bit_cast<double>(bits);
}

TEST(CTextOutput, DoublesOfAllExponentsHaveTheTextOfTheCLibrary)
{
    std::mt19937_64 random(4711);
    Comparison comparison;
    for (std::uint64_t exponent = 0; exponent < 0x7FF; ++exponent) {
        const std::uint64_t first = exponent << 52;
        const std::uint64_t last = first | 0xFFFFFFFFFFFFF;
        for (const std::uint64_t bits : {first, first + 1, last - 1, last})
            ASSERT_TRUE(comparison.CheckDouble(DoubleFromBits(bits)));
        for (int i = 0; i < 100; ++i)
            ASSERT_TRUE(comparison.CheckDouble(DoubleFromBits(first | random() >> 12 | (random() & 1) << 63)));
    }
}

TEST(CTextOutput, EverydayDoublesHaveTheTextOfTheCLibrary)
{
    std::mt19937_64 random(4712);
    Comparison comparison;
    for (int exponent = -45; exponent <= 60; ++exponent) {
        for (int i = 0; i < 1500; ++i) {
            const double value = std::ldexp(1.0 + static_cast<double>(random() >> 12) / 0x10000000000000, exponent);
            ASSERT_TRUE(comparison.CheckDouble(i % 2 == 0 ? value : -value));
        }
    }
}

TEST(CTextOutput, DoublesNearPowersOfTenHaveTheTextOfTheCLibrary)
{
    Comparison comparison;
    for (int exponent = -323; exponent <= 308; ++exponent) {
        for (const char* const mantissa : {"1", "2", "5", "9.99999999999999", "9.9999999999999949", "9.999999999999995",
                                           "9.9999999999999951", "1.00000000000000499", "1.000000000000005"}) {
            const double value = std::strtod(DecimalText(mantissa, exponent).c_str(), nullptr);
            if (std::isinf(value))
                continue;
            double below = value;
            double above = value;
            for (int i = 0; i < 10 && !std::isinf(above); ++i) {
                ASSERT_TRUE(comparison.CheckDouble(below));
                ASSERT_TRUE(comparison.CheckDouble(above));
                below = std::nextafter(below, 0.0);
                above = std::nextafter(above, std::numeric_limits<double>::infinity());
            }
        }
    }
}

// Values exactly half-way between two texts of 15 digits, which must go to the even one.
TEST(CTextOutput, TiesOfDoublesHaveTheTextOfTheCLibrary)
{
    std::mt19937_64 random(4713);
    Comparison comparison;
    for (int fractionBits = 1; fractionBits <= 20; ++fractionBits) {
        for (int i = 0; i < 5000; ++i) {
            // Dyadic fractions: the decimal expansion ends in a 5 after `fractionBits` digits.
            const std::uint64_t numerator = random() >> (11 + random() % 50) | 1;
            ASSERT_TRUE(comparison.CheckDouble(std::ldexp(static_cast<double>(numerator), -fractionBits)));
        }
    }
}

TEST(CTextOutput, TiesOfDoublesGoToTheEvenDigit)
{
    RecordingTextOutput output;

    output.PrintDouble(12345678901234.25);
    output.PrintChar(' ');
    output.PrintDouble(12345678901234.75);

    EXPECT_EQ(output.GetText(), "1.23456789012342e+13 1.23456789012348e+13");
}

TEST(CTextOutput, DoublesFromDecimalTextHaveTheTextOfTheCLibrary)
{
    std::mt19937_64 random(4714);
    Comparison comparison;
    for (int digits = 1; digits <= 17; ++digits) {
        for (int i = 0; i < 10000; ++i) {
            const auto number = random() % static_cast<std::uint64_t>(std::pow(10, digits));
            const int exponent = static_cast<int>(random() % 40) - 20 - digits / 2;
            const std::string text = DecimalText(std::to_string(number), exponent);
            ASSERT_TRUE(comparison.CheckDouble(std::strtod(text.c_str(), nullptr)));
        }
    }
}

TEST(CTextOutput, FloatsOfAllExponentsHaveTheTextOfTheCLibrary)
{
    Comparison comparison;
    for (std::uint64_t bits = 0; bits <= 0xFFFFFFFF; bits += 11003) { // a prime: runs through all low bits
        const float value = std::bit_cast<float>(static_cast<std::uint32_t>(bits));
        if (std::isfinite(value)) {
            ASSERT_TRUE(comparison.CheckFloat(value));
        }
    }
}

TEST(CTextOutput, FloatsNearPowersOfTenHaveTheTextOfTheCLibrary)
{
    Comparison comparison;
    for (int exponent = -45; exponent <= 38; ++exponent) {
        for (const char* const mantissa : {"1", "2", "5", "9.999999", "9.9999995", "1.0000005"}) {
            float below = std::strtof(DecimalText(mantissa, exponent).c_str(), nullptr);
            float above = below;
            for (int i = 0; i < 100 && !std::isinf(above); ++i) {
                ASSERT_TRUE(comparison.CheckFloat(below));
                ASSERT_TRUE(comparison.CheckFloat(above));
                below = std::nextafter(below, 0.0F);
                above = std::nextafter(above, std::numeric_limits<float>::infinity());
            }
        }
    }
}

TEST(CTextOutput, TiesOfFloatsHaveTheTextOfTheCLibrary)
{
    Comparison comparison;
    for (std::uint32_t numerator = 1; numerator < 0x1000000; numerator += 297) { // odd and even ones
        for (int fractionBits = 0; fractionBits <= 4; ++fractionBits)
            ASSERT_TRUE(comparison.CheckFloat(std::ldexp(static_cast<float>(numerator), -fractionBits)));
    }
}

TEST(CTextOutput, NumbersAndDatesKeepTheirPointInALocaleWithAComma)
{
    const CommaLocale locale;
    if (!locale.IsSet())
        GTEST_SKIP() << locale.GetReason();
    RecordingTextOutput output;

    output.PrintDouble(1500.25);
    output.PrintChar(' ');
    output.PrintDouble(-1.5e300);
    output.PrintChar(' ');
    output.PrintDouble(2.5e-10);
    output.PrintChar(' ');
    output.PrintFloat(0.015F);
    output.PrintChar(' ');
    output.PrintFloat(2.5e30F);
    output.PrintChar(' ');
    output.PrintFloatingPointString("1.25e+01", 8);
    output.PrintChar(' ');
    output.PrintDateAndTime(nullptr, 0, 'T');

    EXPECT_EQ(output.GetText(), "1500.25 -1.5e+300 2.5e-10 0.015 2.5e+30 12.5 1601-01-01T00:00:00.000");
}

// Shows the room of its format buffer.
class BufferedOutput : public RecordingTextOutput
{
public:
    unsigned int GetCapacity() const { return m_FormatBufferCapacity; }
};

TEST(CTextOutput, FormatBufferStaysWhenThereIsNoMemoryToGrow)
{
    BufferedOutput output;
    {
        const AllocationLimit limit(1023);
        EXPECT_THROW(output.Print("%600d", 1), std::bad_alloc);
    }
    EXPECT_EQ(output.GetCapacity(), 512u);

    output.Print("x");
    EXPECT_EQ(output.GetText(), "x");
}

TEST(CTextOutput, PrintedNumbersHaveThePointOfTheLocale)
{
    const CommaLocale locale;
    if (!locale.IsSet())
        GTEST_SKIP() << locale.GetReason();
    RecordingTextOutput output;

    output.Print("%.2f", 1.25);

    EXPECT_EQ(output.GetText(), "1,25");
}

} // namespace
