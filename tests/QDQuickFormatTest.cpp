// What the quick formatter writes beside what the C library does: named cases, random formats and values; and what it
// must leave to the C library.
#include <QDPlatform/QDQuickFormat.h>

#include "AllocationCounter.h"
#include "CommaLocale.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cfenv>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <limits>
#include <random>
#include <string>

namespace
{

constexpr unsigned kCapacity = 700;
constexpr int kRoom = 512; // for the longest text that is not left to the C library
constexpr int kLeftToTheCLibrary = -1;
constexpr int kOldErrno = 4711;

// What a formatter made of a buffer that was full of '~'.
struct Outcome
{
    int m_Result;
    int m_Errno;
    std::string m_Buffer; // all of it, and the byte behind it

    bool operator==(const Outcome&) const = default;
};

using Formatter = int (*)(char* dst, unsigned size, const char* format, va_list args);

int FormatByCLibrary(char* dst, unsigned size, const char* format, va_list args)
{
    return std::vsnprintf(dst, size, format, args);
}

Outcome Call(Formatter formatter, unsigned size, const char* format, ...)
{
    Outcome outcome{0, 0, std::string(size + 1, '~')};
    errno = kOldErrno;
    va_list args;
    va_start(args, format);
    outcome.m_Result = formatter(outcome.m_Buffer.data(), size, format, args);
    va_end(args);
    outcome.m_Errno = errno;
    return outcome;
}

// Expects what the C library writes into buffers of all kinds, and `expected`, which is what that is.
template<class... Arguments>
void ExpectText(const std::string& expected, const char* format, Arguments... arguments)
{
    SCOPED_TRACE(format);
    const unsigned length = static_cast<unsigned>(expected.size());
    for (const unsigned size : {0u, 1u, 2u, length, length + 1, length + 2, kCapacity}) {
        SCOPED_TRACE(size);
        const Outcome outcome = Call(qd_quick_vsnprintf, size, format, arguments...);

        EXPECT_EQ(outcome, Call(FormatByCLibrary, size, format, arguments...));
        EXPECT_EQ(outcome.m_Result, static_cast<int>(length));
        EXPECT_EQ(outcome.m_Errno, kOldErrno);
        if (size > length) {
            EXPECT_EQ(outcome.m_Buffer.substr(0, length + 1), expected + '\0');
        }
    }
}

template<class... Arguments>
void ExpectLeft(const char* format, Arguments... arguments)
{
    SCOPED_TRACE(format);

    EXPECT_EQ(Call(qd_quick_vsnprintf, kCapacity, format, arguments...),
              (Outcome{kLeftToTheCLibrary, kOldErrno, std::string(kCapacity + 1, '~')}));
}

TEST(QDQuickFormat, TextIsCopied)
{
    ExpectText("", "");
    ExpectText("a", "a");
    ExpectText("Größe \xFF\xC3 水位\t\n", "Größe \xFF\xC3 水位\t\n");
    ExpectText("100%", "100%%");
    ExpectText("%d %", "%%d %%");
}

TEST(QDQuickFormat, LogLineWithFiveValues)
{
    ExpectText("pump-07: register 100000 of unit 247 reads 20.125, raw 0x10000",
               "%s: register %d of unit %u reads %.3f, raw 0x%lx", "pump-07", 100000, 247u, 20.125, 0x10000ul);
}

TEST(QDQuickFormat, StringsAndCharacters)
{
    ExpectText("abc", "%s", "abc");
    ExpectText("", "%s", "");
    ExpectText("[\xE6\xB0\xFF]", "[%s]", "\xE6\xB0\xFF");
    ExpectText("[   ab]", "[%5s]", "ab");
    ExpectText("[ab   ]", "[%-5s]", "ab");
    ExpectText("[abcdef]", "[%5s]", "abcdef");
    ExpectText("[ab]", "[%.2s]", "abcdef");
    ExpectText("[]", "[%.0s]", "abcdef");
    ExpectText("[  ab]", "[%4.2s]", "abcdef");
    ExpectText("[abc]", "[%.*s]", 3, "abcdef");
    ExpectText("[]", "[%.*s]", 0, "abcdef");
    ExpectText("[abcdef]", "[%.*s]", INT_MAX, "abcdef");
    ExpectText("[abcdef]", "[%.*s]", -1, "abcdef");
    ExpectText("[abcdef]", "[%.*s]", INT_MIN, "abcdef");
    ExpectText("[ab      ]", "[%-8.*s]", 2, "abcdef");
    ExpectText("[x]", "[%c]", 'x');
    ExpectText("[\xE4]", "[%c]", 0x1E4);
    ExpectText("[\xE4]", "[%c]", static_cast<char>(-28));
    ExpectText("[  x]", "[%3c]", 'x');
    ExpectText("[x  ]", "[%-3c]", 'x');
    ExpectText(std::string("[\0]", 3), "[%c]", 0);
}

TEST(QDQuickFormat, StringWithAPrecisionNeedsNoTerminator)
{
    const char text[] = {'a', 'b', 'c'};

    ExpectText("abc", "%.3s", text);
    ExpectText("ab", "%.*s", 2, text);
}

TEST(QDQuickFormat, Integers)
{
    ExpectText("0", "%d", 0);
    ExpectText("-1", "%i", -1);
    ExpectText("2147483647", "%d", INT_MAX);
    ExpectText("-2147483648", "%d", INT_MIN);
    ExpectText("4294967295", "%u", UINT_MAX);
    ExpectText("0 deadbeef DEADBEEF", "%x %x %X", 0u, 0xDEADBEEFu, 0xDEADBEEFu);
    ExpectText("9223372036854775807", "%lld", LLONG_MAX);
    ExpectText("-9223372036854775808", "%lld", LLONG_MIN);
    ExpectText("18446744073709551615", "%llu", ULLONG_MAX);
    ExpectText("4294967296", "%llu", 4294967296ull);
    ExpectText("123456789abcdef0 FFFFFFFFFFFFFFFF", "%llx %llX", 0x123456789ABCDEF0ull, ULLONG_MAX);
}

TEST(QDQuickFormat, SizesOfIntegers)
{
    ExpectText("-1 255 ff", "%hhd %hhu %hhx", 0x1FF, 0x1FF, 0x1FF);
    ExpectText("-128 127", "%hhi %hhi", 128, 127);
    ExpectText("-1 65535 FFFF", "%hd %hu %hX", 0x1FFFF, 0x1FFFF, 0x1FFFF);
    ExpectText("-32768 32767", "%hi %hi", 0x8000, 0x7FFF);
    ExpectText(std::to_string(LONG_MIN) + " " + std::to_string(ULONG_MAX), "%ld %lu", LONG_MIN, ULONG_MAX);
    ExpectText(std::to_string(PTRDIFF_MIN) + " " + std::to_string(SIZE_MAX), "%zd %zu", PTRDIFF_MIN, SIZE_MAX);
    ExpectText("1 -2 3 -4 5", "%d %lld %hd %ld %zu", 1, -2ll, 3, -4l, std::size_t{5});
}

TEST(QDQuickFormat, WidthsOfIntegers)
{
    ExpectText("[   42]", "[%5d]", 42);
    ExpectText("[42   ]", "[%-5d]", 42);
    ExpectText("[00042]", "[%05d]", 42);
    ExpectText("[  -42]", "[%5d]", -42);
    ExpectText("[-0042]", "[%05d]", -42);
    ExpectText("[-42  ]", "[%-5d]", -42);
    ExpectText("[-123456]", "[%05d]", -123456);
    ExpectText("[42]", "[%0d]", 42);
    ExpectText("[42]", "[%-d]", 42);
    ExpectText("_007.log", "_%03lu.log", 7ul);
    ExpectText("/qdsm0000beef", "/qdsm%08x", 0xBEEFu);
    ExpectText("000A ", "%04X ", 10u);
    ExpectText(std::string(98, '0') + "7", "%099u", 7u);
    ExpectText(std::string(98, ' ') + "7", "%99llu", 7ull);
}

TEST(QDQuickFormat, FixedPointNumbers)
{
    ExpectText("0.000000", "%f", 0.0);
    ExpectText("-0.000", "%.3f", -0.0);
    ExpectText("20.125", "%.3f", 20.125);
    ExpectText("20", "%.0f", 20.4);
    ExpectText("0 2 2", "%.0f %.0f %.0f", 0.5, 1.5, 2.5);
    ExpectText("0.12 0.38", "%.2f %.2f", 0.125, 0.375);
    ExpectText("-0.00", "%.2f", -0.001);
    ExpectText("1000.00", "%.2f", 999.999);
    ExpectText("0.1000000000000000055511151231257827", "%.34f", 0.1);
    ExpectText("[    3.14]", "[%8.2f]", 3.14159);
    ExpectText("[-0003.14]", "[%08.2f]", -3.14159);
    ExpectText("[3.14    ]", "[%-8.2f]", 3.14159);
    ExpectText("0." + std::string(98, '0') + "1", "%.99f", 1e-99);
    ExpectText("1797693134862315708145274237317043567980705675258449965989174768031572607800285387605895586327668781"
               "7154045895351438246423432132688946418276846754670353751698604991057655128207624549009038932894407586"
               "8508455133942304583236903222948165808559332123348274797826204144723168738177180919299881250404026184"
               "124858368.0",
               "%.1f", std::numeric_limits<double>::max());
}

TEST(QDQuickFormat, TextsUpToItsRoom)
{
    const std::string text(kRoom + 1, 'x');

    ExpectText(text.substr(0, kRoom), "%.*s", kRoom, text.c_str());
    ExpectText(text.substr(0, kRoom), text.c_str() + 1);
    ExpectText(text.substr(0, kRoom - 3) + "  7", "%.*s%3d", kRoom - 3, text.c_str(), 7);
    ExpectText(text.substr(0, kRoom - 4) + "1.50", "%.*s%.2f", kRoom - 4, text.c_str(), 1.5);

    ExpectLeft("%s", text.c_str());
    ExpectLeft(text.c_str());
    ExpectLeft("%.*s%3d", kRoom - 2, text.c_str(), 7);
    ExpectLeft("%.*s%x", kRoom, text.c_str(), 7u);
    ExpectLeft("%.*s%c", kRoom, text.c_str(), 'y');
    ExpectLeft("%.*s%d", kRoom, text.c_str(), -7);
    ExpectLeft("%.*s%.2f", kRoom - 3, text.c_str(), 1.5);
    ExpectLeft("%.*s%%", kRoom, text.c_str());
}

TEST(QDQuickFormat, SixteenConversionsAreTheMost)
{
    ExpectText("0123456789abcdef.", "%d%d%d%d%d%d%d%d%d%d%x%x%x%x%x%x.", 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10u, 11u, 12u,
               13u, 14u, 15u);
    ExpectText("%%%%%%%%%%%%%%%%.", "%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%.");

    ExpectLeft("%d%d%d%d%d%d%d%d%d%d%x%x%x%x%x%x%d.", 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10u, 11u, 12u, 13u, 14u, 15u, 16);
    ExpectLeft("%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%.");
}

// The formats are known to be left from their text alone: none has an argument here.
TEST(QDQuickFormat, AllOtherConversionsAreLeftToTheCLibrary)
{
    for (const char* const conversion :
         {// letters
          "%o", "%e", "%E", "%F", "%g", "%G", "%a", "%A", "%p", "%n", "%m", "%C", "%S", "%D", "%b", "%y", "%\xE4",
          // sizes
          "%ls", "%lc", "%hs", "%hc", "%zs", "%zc", "%lf", "%hf", "%llf", "%Lf", "%zf", "%jd", "%td", "%qd", "%Zu",
          "%Ld", "%hhhd", "%llld", "%hld", "%lhd", "%zzd", "%lzd", "%zld", "%hh", "%l",
          // flags
          "%+d", "% d", "%#x", "%'d", "%Id", "%-05d", "%0-5d", "%--5d", "%00d", "%+.3f", "%#.0f", "%'f", "%05s", "%05c",
          "%0s",
          // widths and precisions
          "%*d", "%-*s", "%100d", "%0100d", "%2147483648d", "%.3d", "%5.3d", "%.0u", "%.*d", "%.x", "%.2c", "%.*c",
          "%.s", "%.-1s", "%.100s", "%.f", "%.*f", "%.100f", "%..2f", "%.2.2f", "%.*2s", "%.2*s",
          // places of arguments
          "%1$d", "%2$s", "%.*1$s",
          // broken ones
          "%", "%5", "%-", "%0", "%.", "%.2", "%.*", "%z", "%5%", "%-%", "% %"}) {
        ExpectLeft(conversion);
        ExpectLeft((std::string("text ") + conversion).c_str());
        ExpectLeft((std::string("%d ") + conversion + " text").c_str(), 1);
    }
}

TEST(QDQuickFormat, ValuesThatAreLeftToTheCLibrary)
{
    const char* const nothing = nullptr;
    const double infinity = std::numeric_limits<double>::infinity();
    const double notANumber = std::numeric_limits<double>::quiet_NaN();

    ExpectLeft("%d %s", 1, nothing);
    ExpectLeft("%.3s", nothing);
    ExpectLeft("%.*s", 0, nothing);
    ExpectLeft("%d %f", 1, infinity);
    ExpectLeft("%.3f", -infinity);
    ExpectLeft("%08.3f", infinity);
    ExpectLeft("%f", notANumber);
    ExpectLeft("%f", -notANumber);
}

// Both in one test: the locale may have to be made, which takes seconds.
TEST(QDQuickFormat, FixedPointNumbersAreLeftWhereTheProcessOrTheThreadHasAComma)
{
    const CommaLocale locale;
    if (!locale.IsSet())
        GTEST_SKIP() << locale.GetReason();

    ExpectLeft("%.3f", 1.5);
    ExpectText("1000000 1 a", "%d %u %s", 1000000, 1u, "a");

    const locale_t comma = ::duplocale(LC_GLOBAL_LOCALE);
    ASSERT_NE(comma, nullptr);
    std::setlocale(LC_ALL, "C"); // the guard sets the old one again
    ExpectText("1.500", "%.3f", 1.5);
    ::uselocale(comma);

    ExpectLeft("%.3f", 1.5);

    ::uselocale(LC_GLOBAL_LOCALE);
    ::freelocale(comma);
}

// Sets the rounding mode of one test.
class ScopedRounding
{
public:
    explicit ScopedRounding(int mode) : m_Old(std::fegetround()) { EXPECT_EQ(std::fesetround(mode), 0); }

    ScopedRounding(const ScopedRounding&) = delete;
    ScopedRounding& operator=(const ScopedRounding&) = delete;

    ~ScopedRounding() { std::fesetround(m_Old); }

private:
    int m_Old;
};

TEST(QDQuickFormat, FixedPointNumbersAreLeftUnderAnotherRounding)
{
    for (const int mode : {FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
        const ScopedRounding rounding(mode);

        ExpectLeft("%.0f", 1.5);
        ExpectText("1 a", "%d %s", 1, "a");
    }
}

TEST(QDQuickFormat, AllocatesNothing)
{
    char buffer[kCapacity];
    const auto format = [&buffer](const char* text, ...) {
        va_list args;
        va_start(args, text);
        const int result = qd_quick_vsnprintf(buffer, sizeof buffer, text, args);
        va_end(args);
        return result;
    };
    const AllocationCounter counter;

    const int length = format("%s %-20d %.3f %.60f", "text", 17, 1e300, 1e-300);

    EXPECT_EQ(counter.GetCount(), 0u);
    EXPECT_EQ(length, 4 + 1 + 20 + 1 + 301 + 4 + 1 + 62);
}

// Random formats with random arguments. Counts those that were not left to the C library.
class Comparison
{
public:
    unsigned GetQuickCount() const { return m_QuickCount; }

    // One to three conversions, some of them with a precision as another argument; false when the texts differ.
    bool CheckOne()
    {
        m_Format.clear();
        return Extend(1 + Pick(3));
    }

private:
    unsigned Pick(unsigned count) { return static_cast<unsigned>(m_Random() % count); }

    uint64_t PickBits() { return m_Random() >> Pick(64); }

    double PickDouble()
    {
        switch (Pick(3)) {
        case 0: return std::bit_cast<double>(m_Random());
        case 1: return static_cast<double>(static_cast<int64_t>(PickBits())) / (1 << Pick(12)); // often a tie
        default: return static_cast<double>(Pick(2000000)) / 1000 - 1000;
        }
    }

    const char* PickString()
    {
        static constexpr const char* kStrings[] = {
            "", "a", "pump-07", "Größe 水位", "\xFF\x80", "a text that is longer than the widths and the buffers"};
        return kStrings[Pick(std::size(kStrings))];
    }

    // Text, "%", flag, width and what follows.
    void Append(const char* rest)
    {
        static constexpr const char* kTexts[] = {"", " ", ": ", "%%", "value \xC3\xA4 = "};
        static constexpr const char* kFlags[] = {"", "", "", "-", "0"};
        m_Format += kTexts[Pick(std::size(kTexts))];
        m_Format += '%';
        m_Format += kFlags[Pick(std::size(kFlags))];
        if (Pick(3) == 0)
            m_Format += std::to_string(Pick(30));
        m_Format += rest;
    }

    void AppendInteger(const char* size)
    {
        static constexpr char kLetters[] = {'d', 'i', 'u', 'x', 'X'};
        const std::string rest = std::string(size) + kLetters[Pick(sizeof kLetters)];
        Append(rest.c_str());
    }

    template<class... Arguments>
    bool Extend(unsigned count, Arguments... arguments)
    {
        if (count == 0)
            return Compare(arguments...);
        if constexpr (sizeof...(Arguments) < 4) {
            static constexpr const char* kSmallSizes[] = {"hh", "h", ""};
            switch (Pick(7)) {
            case 0:
                AppendInteger(kSmallSizes[Pick(3)]);
                return Extend(count - 1, arguments..., static_cast<int>(PickBits()));
            case 1: AppendInteger("l"); return Extend(count - 1, arguments..., static_cast<long>(PickBits()));
            case 2: AppendInteger("ll"); return Extend(count - 1, arguments..., static_cast<long long>(PickBits()));
            case 3: AppendInteger("z"); return Extend(count - 1, arguments..., static_cast<std::size_t>(PickBits()));
            case 4:
                Append(Pick(4) == 0 ? "f" : ("." + std::to_string(Pick(12)) + "f").c_str());
                return Extend(count - 1, arguments..., PickDouble());
            case 5: Append(Pick(2) == 0 ? "s" : ".4s"); return Extend(count - 1, arguments..., PickString());
            default:
                Append(".*s");
                return Extend(count - 1, arguments..., static_cast<int>(Pick(20)) - 4, PickString());
            }
        }
        return Compare(arguments...);
    }

    template<class... Arguments>
    bool Compare(Arguments... arguments)
    {
        const unsigned size = Pick(2) == 0 ? kCapacity : Pick(80);
        const Outcome outcome = Call(qd_quick_vsnprintf, size, m_Format.c_str(), arguments...);
        if (outcome.m_Result == kLeftToTheCLibrary)
            return outcome.m_Buffer == std::string(size + 1, '~') && outcome.m_Errno == kOldErrno;
        ++m_QuickCount;
        const Outcome expected = Call(FormatByCLibrary, size, m_Format.c_str(), arguments...);
        EXPECT_EQ(outcome, expected) << m_Format;
        return outcome == expected;
    }

    std::mt19937_64 m_Random{5};
    std::string m_Format;
    unsigned m_QuickCount{0};
};

TEST(QDQuickFormat, RandomFormatsAreTheCLibrarys)
{
    constexpr unsigned kCount = 100000;
    Comparison comparison;

    for (unsigned i = 0; i < kCount; ++i)
        ASSERT_TRUE(comparison.CheckOne()) << i;

    EXPECT_GT(comparison.GetQuickCount(), kCount / 2);
}

} // namespace
