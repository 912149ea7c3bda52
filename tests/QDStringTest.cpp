#include <QDPlatform/QDString.h>

#include "AllocationCounter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <cwchar>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

static_assert(std::is_same_v<qdchar, char>);
static_assert(QDFormatTruncated == 0x7FFFFFFF && QDFormatEncodingError == 0x7FFFFFFE);
static_assert(LineTerminationCR == 0 && LineTerminationLF == 1 && LineTerminationCRLF == 2);
static_assert(LineTerminationNEL == 3 && LineTerminationLS == 4 && LineTerminationPS == 5);
static_assert(std::is_same_v<std::underlying_type_t<TextLineTermination>, int>);
static_assert(std::is_same_v<decltype(qd_strcpy(nullptr, 1u, "")), bool>);

namespace
{

using CodePoints = std::vector<int>;

// A copy in a heap block of exactly that size, so that the address sanitizer sees any access beyond it. `lead` units in
// front of the text shift it against the machine's words.
template<class Unit>
class ExactCopy
{
public:
    explicit ExactCopy(const std::vector<Unit>& units, size_t lead = 0) :
        m_pBlock(new Unit[lead + units.size()]), m_Lead(lead), m_Size(units.size())
    {
        std::copy(units.begin(), units.end(), m_pBlock.get() + lead);
    }

    const Unit* GetText() const { return m_pBlock.get() + m_Lead; }

    const char* GetChars() const { return reinterpret_cast<const char*>(GetText()); }

    unsigned GetSize() const { return static_cast<unsigned>(m_Size); }

private:
    std::unique_ptr<Unit[]> m_pBlock;
    size_t m_Lead;
    size_t m_Size;
};

std::vector<uint8_t> Bytes(const std::string& text)
{
    return {text.begin(), text.end()};
}

// --- The reference: the rules of one code point, written down a second time in another way --------------------------

CodePoints ReferenceDecode(const std::vector<uint8_t>& text)
{
    CodePoints result;
    size_t i = 0;
    while (i < text.size()) {
        const int lead = text[i];
        int length = 0; // of the whole sequence; 0 when no sequence starts so
        if (lead <= 0x7F)
            length = 1;
        else if (lead >= 0xC2 && lead <= 0xDF)
            length = 2;
        else if (lead >= 0xE0 && lead <= 0xEF)
            length = 3;
        else if (lead >= 0xF0 && lead <= 0xF4)
            length = 4;
        int present = 1;
        while (present < length && i + static_cast<size_t>(present) < text.size() &&
               text[i + static_cast<size_t>(present)] / 64 == 2)
            ++present;
        int value = 0xFFFD;
        if (present == length) {
            const int leadWeight[] = {0, 1, 64, 4096, 262144};
            const int leadBase[] = {0, 0, 0xC0, 0xE0, 0xF0};
            const int lowest[] = {0, 0, 0x80, 0x800, 0x10000};
            int sum = (lead - leadBase[length]) * leadWeight[length];
            for (int k = 1; k < length; ++k)
                sum += (text[i + static_cast<size_t>(k)] % 64) * leadWeight[length - k];
            const bool surrogate = sum / 0x800 == 0xD800 / 0x800;
            if (sum >= lowest[length] && sum <= 0x10FFFF && !surrogate)
                value = sum;
        }
        result.push_back(value);
        i += static_cast<size_t>(present);
    }
    return result;
}

CodePoints ReferenceDecode(const std::vector<uint16_t>& text)
{
    CodePoints result;
    for (size_t i = 0; i < text.size(); ++i) {
        int value = text[i];
        if (value >= 0xD800 && value <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] <= 0xDFFF) {
            value = 0x10000 + (value - 0xD800) * 0x400 + (text[i + 1] - 0xDC00);
            ++i;
        }
        result.push_back(value);
    }
    return result;
}

CodePoints ReferenceDecode(const std::vector<uint32_t>& text)
{
    CodePoints result;
    for (const uint32_t element : text)
        result.push_back(static_cast<int>(element));
    return result;
}

void ReferenceEncode(int cp, std::vector<uint8_t>& out)
{
    const auto add = [&out](long long value) { out.push_back(static_cast<uint8_t>(value % 256)); };
    if (cp < 128) {
        out.push_back(static_cast<uint8_t>(cp));
    } else if (cp < 0x800) {
        add(0xC0 + cp / 64);
        add(0x80 + cp % 64);
    } else if (cp < 0x10000) {
        add(0xE0 + cp / 4096);
        add(0x80 + cp / 64 % 64);
        add(0x80 + cp % 64);
    } else {
        add(0xF0 | cp / 262144);
        add(0x80 + cp / 4096 % 64);
        add(0x80 + cp / 64 % 64);
        add(0x80 + cp % 64);
    }
}

void ReferenceEncode(int cp, std::vector<uint16_t>& out)
{
    if (cp >= 0x10000) {
        out.push_back(static_cast<uint16_t>(0xD800 | (cp - 0x10000) / 1024));
        out.push_back(static_cast<uint16_t>(0xDC00 | (cp - 0x10000) % 1024));
    } else {
        out.push_back(static_cast<uint16_t>(cp));
    }
}

void ReferenceEncode(int cp, std::vector<uint32_t>& out)
{
    out.push_back(static_cast<uint32_t>(cp));
}

// A text in another encoding, and where each of its code points ends there.
template<class Unit>
struct Encoded
{
    std::vector<Unit> m_Units;
    std::vector<size_t> m_Ends;

    explicit Encoded(const CodePoints& text)
    {
        for (const int cp : text) {
            ReferenceEncode(cp, m_Units);
            m_Ends.push_back(m_Units.size());
        }
    }

    // Units of the whole code points that fit into `capacity`.
    size_t Fitting(size_t capacity) const
    {
        const auto firstTooLong = std::upper_bound(m_Ends.begin(), m_Ends.end(), capacity);
        return firstTooLong == m_Ends.begin() ? 0 : firstTooLong[-1];
    }
};

// Converts into a block of exactly `capacity` units and checks the result, the first `fitting` units of `expected`, and
// that the rest of the block is untouched.
template<class From, class To>
void CheckConversion(unsigned (*convert)(const From*, unsigned, To*, unsigned), const ExactCopy<From>& text,
                     const std::vector<To>& expected, size_t fitting, unsigned capacity)
{
    constexpr To kUntouched = static_cast<To>(0x5A5A5A5A);
    std::unique_ptr<To[]> block(new To[capacity]);
    std::fill_n(block.get(), capacity, kUntouched);

    const unsigned written = convert(text.GetText(), text.GetSize(), block.get(), capacity);

    ASSERT_EQ(written, fitting);
    ASSERT_TRUE(std::equal(block.get(), block.get() + written, expected.begin()));
    ASSERT_EQ(std::count(block.get() + written, block.get() + capacity, kUntouched), capacity - written);
}

template<class From, class To>
void CheckPair(unsigned (*convert)(const From*, unsigned, To*, unsigned),
               unsigned (*measure)(const From*, unsigned, unsigned), const ExactCopy<From>& text,
               const Encoded<To>& expected, unsigned capacity)
{
    const size_t fitting = expected.Fitting(capacity);
    CheckConversion<From, To>(convert, text, expected.m_Units, fitting, capacity);
    ASSERT_EQ(measure(text.GetText(), text.GetSize(), capacity), fitting);
}

// Every capacity from 0 to a little more than the text needs.
template<class From, class To>
void CheckAllCapacities(unsigned (*convert)(const From*, unsigned, To*, unsigned),
                        unsigned (*measure)(const From*, unsigned, unsigned), const std::vector<From>& text,
                        size_t lead = 0)
{
    const ExactCopy<From> copy(text, lead);
    const Encoded<To> expected(ReferenceDecode(text));
    const unsigned needed = static_cast<unsigned>(expected.m_Units.size());
    for (unsigned capacity = 0; capacity <= needed + 20; ++capacity) {
        CheckPair<From, To>(convert, measure, copy, expected, capacity);
        ASSERT_FALSE(testing::Test::HasFatalFailure()) << "capacity " << capacity << " of " << needed;
    }
    ASSERT_EQ(measure(copy.GetText(), copy.GetSize(), UINT_MAX), needed);
}

// Pieces of UTF-8, well-formed and not, that random texts are made of.
const std::vector<std::string> kPieces = {"a",
                                          "pump station 17 is on line",
                                          "é",
                                          "ß",
                                          "Größe",
                                          "насос",
                                          "в",
                                          "ไทย",
                                          "हिन्दी",
                                          "水位",
                                          "한국어",
                                          "ퟻ",
                                          "",
                                          "€",
                                          "😀",
                                          "🚰🚰",
                                          "\xF4\x8F\xBF\xBF",
                                          "\xC0",
                                          "\xC1\xBF",
                                          "\x80",
                                          "\xBF\xBF",
                                          "\xFF",
                                          "\xF5",
                                          "\xE0\x80\x80",
                                          "\xE0\x9F\xBF",
                                          "\xE2\x82",
                                          "\xE2",
                                          "\xED\xA0\x80",
                                          "\xED\xBF\xBF",
                                          "\xF0\x8F\xBF\xBF",
                                          "\xF0\x9F\x98",
                                          "\xF4\x90\x80\x80",
                                          "\xC3",
                                          "\xC3\xC3\xA9",
                                          "\xE6\xB0\xE6",
                                          std::string(1, '\0'),
                                          "\xEF\xBF\xBF",
                                          "0123456789abcdef0123456789abcdef"};

std::vector<uint8_t> RandomUtf8(std::mt19937& random, size_t pieces, bool onlyOneKind)
{
    std::string text;
    const size_t kind = random() % kPieces.size();
    for (size_t i = 0; i < pieces; ++i)
        text += kPieces[onlyOneKind && random() % 8 != 0 ? kind : random() % kPieces.size()];
    return Bytes(text);
}

std::vector<uint16_t> RandomUtf16(std::mt19937& random, size_t length)
{
    const uint16_t kUnits[] = {0,      0x41,   0x7F,   0x80,   0xE9,   0x7FF,  0x800, 0x6C34,
                               0xD7FF, 0xD800, 0xDBFF, 0xDC00, 0xDFFF, 0xE000, 0xFFFF};
    const size_t count = sizeof kUnits / sizeof *kUnits;
    const size_t favourite = random() % count;
    const bool isMixed = random() % 2 == 0;
    std::vector<uint16_t> text;
    while (text.size() < length)
        text.push_back(kUnits[isMixed || random() % 16 == 0 ? random() % count : favourite]);
    return text;
}

int CallVsprintf(int (*function)(char*, unsigned, const char*, va_list), char* dst, unsigned size, const char* format,
                 ...)
{
    va_list args;
    va_start(args, format);
    const int result = function(dst, size, format, args);
    va_end(args);
    return result;
}

// A width above the largest int: the formatter fails with EOVERFLOW. Volatile, so that the compiler does not see it.
const char* const volatile g_pImpossibleFormat = "ab%2147483648d";

} // namespace

// --- Bounded copy and append ---------------------------------------------------------------------------------------

TEST(QDString, StrcpyCopiesWhatFits)
{
    char buffer[4] = {'#', '#', '#', '#'};

    EXPECT_FALSE(qd_strcpy(buffer, 4, "abc"));

    EXPECT_STREQ(buffer, "abc");
}

TEST(QDString, StrcpyTruncatesAndSaysSo)
{
    char buffer[4] = {'#', '#', '#', '#'};

    EXPECT_TRUE(qd_strcpy(buffer, 4, "abcd"));

    EXPECT_STREQ(buffer, "abc");
}

TEST(QDString, StrcpyOfAnEmptyText)
{
    char buffer[2] = {'#', '#'};

    EXPECT_FALSE(qd_strcpy(buffer, 1, ""));

    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(buffer[1], '#');
}

TEST(QDString, StrcpyIntoOneByteKeepsNothing)
{
    char buffer[2] = {'#', '#'};

    EXPECT_TRUE(qd_strcpy(buffer, 1, "a"));

    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(buffer[1], '#');
}

TEST(QDString, StrcpyLeavesTheRestOfTheBufferAlone)
{
    char buffer[8];
    std::memset(buffer, '#', sizeof buffer);

    EXPECT_FALSE(qd_strcpy(buffer, sizeof buffer, "ab"));

    EXPECT_EQ(std::string(buffer, sizeof buffer), std::string("ab\0#####", 8));
}

TEST(QDString, StrcpyOfALengthNeedsNoTerminator)
{
    const ExactCopy<char> text({'a', 'b', 'c'});
    char buffer[8];

    EXPECT_FALSE(qd_strcpy(buffer, sizeof buffer, text.GetText(), 3));

    EXPECT_STREQ(buffer, "abc");
}

TEST(QDString, StrcpyOfALengthEqualToTheSizeTruncates)
{
    const ExactCopy<char> text({'a', 'b', 'c'});
    char buffer[3];

    EXPECT_TRUE(qd_strcpy(buffer, sizeof buffer, text.GetText(), 3));

    EXPECT_STREQ(buffer, "ab");
}

TEST(QDString, StrcpyOfALengthCopiesNulBytes)
{
    char buffer[8];

    EXPECT_FALSE(qd_strcpy(buffer, sizeof buffer, "a\0b", 3));

    EXPECT_EQ(std::string(buffer, 4), std::string("a\0b\0", 4));
}

TEST(QDString, StrcpyOfAStringTakesItsWholeLength)
{
    char buffer[4];

    EXPECT_FALSE(qd_strcpy(buffer, sizeof buffer, std::string("a\0b", 3)));
    EXPECT_EQ(std::string(buffer, 4), std::string("a\0b\0", 4));
    EXPECT_TRUE(qd_strcpy(buffer, sizeof buffer, std::string("abcd")));
    EXPECT_STREQ(buffer, "abc");
}

TEST(QDString, StrcpyMayCutASequence)
{
    char buffer[3];

    EXPECT_TRUE(qd_strcpy(buffer, sizeof buffer, "a\xE2\x82\xAC"));

    EXPECT_STREQ(buffer, "a\xE2");
}

TEST(QDString, StrcatAppends)
{
    char buffer[8] = "ab";

    EXPECT_FALSE(qd_strcat(buffer, sizeof buffer, "cde"));

    EXPECT_STREQ(buffer, "abcde");
}

TEST(QDString, StrcatTruncatesAtTheSizeOfTheWholeBuffer)
{
    char buffer[8] = "abcd";
    buffer[6] = '#';
    buffer[7] = '#';

    EXPECT_TRUE(qd_strcat(buffer, 6, "efg"));

    EXPECT_STREQ(buffer, "abcde");
    EXPECT_EQ(buffer[6], '#');
}

TEST(QDString, StrcatToAFullBufferKeepsIt)
{
    char buffer[4] = "abc";

    EXPECT_TRUE(qd_strcat(buffer, sizeof buffer, "d"));
    EXPECT_FALSE(qd_strcat(buffer, sizeof buffer, ""));

    EXPECT_STREQ(buffer, "abc");
}

TEST(QDString, StrcatOfALengthNeedsNoTerminator)
{
    const ExactCopy<char> text({'c', 'd'});
    char buffer[5] = "ab";

    EXPECT_FALSE(qd_strcat(buffer, sizeof buffer, text.GetText(), 2));
    EXPECT_TRUE(qd_strcat(buffer, sizeof buffer, text.GetText(), 2));

    EXPECT_STREQ(buffer, "abcd");
}

TEST(QDString, SbccpyCopiesAndTruncatesLikeStrcpy)
{
    char buffer[4];

    EXPECT_FALSE(qd_sbccpy(buffer, 4, "abc"));
    EXPECT_STREQ(buffer, "abc");
    EXPECT_TRUE(qd_sbccpy(buffer, 4, "xyzw"));
    EXPECT_STREQ(buffer, "xyz");
    EXPECT_TRUE(qd_sbccpy(buffer, 1, "a"));
    EXPECT_STREQ(buffer, "");
    EXPECT_FALSE(qd_sbccpy(buffer, 4, "a\0b", 3));
    EXPECT_EQ(std::string(buffer, 4), std::string("a\0b\0", 4));
}

TEST(QDString, SbccpyReadsNoMoreThanItKeeps)
{
    const ExactCopy<char> text({'a', 'b', 'c'}); // the fourth byte does not exist
    char buffer[4];

    EXPECT_TRUE(qd_sbccpy(buffer, sizeof buffer, text.GetText(), 4));

    EXPECT_STREQ(buffer, "abc");
}

// --- Bounded formatting --------------------------------------------------------------------------------------------

TEST(QDString, SprintfReturnsTheLength)
{
    char buffer[16];

    EXPECT_EQ(qd_sprintf(buffer, sizeof buffer, "%s %d", "link", 42), 7);

    EXPECT_STREQ(buffer, "link 42");
}

TEST(QDString, SprintfFillsTheBufferToTheLastByte)
{
    char buffer[4];

    EXPECT_EQ(qd_sprintf(buffer, sizeof buffer, "%d", 123), 3);

    EXPECT_STREQ(buffer, "123");
}

TEST(QDString, SprintfTruncates)
{
    char buffer[5] = {'#', '#', '#', '#', '#'};

    EXPECT_EQ(qd_sprintf(buffer, 4, "%d", 1234), 0x7FFFFFFF);

    EXPECT_STREQ(buffer, "123");
    EXPECT_EQ(buffer[4], '#');
}

TEST(QDString, SprintfOfNothingReturnsZero)
{
    char buffer[1] = {'#'};

    EXPECT_EQ(qd_sprintf(buffer, sizeof buffer, "%s", ""), 0);

    EXPECT_EQ(buffer[0], '\0');
}

TEST(QDString, SprintfReportsACharacterThatCannotBeEncoded)
{
    char buffer[16] = "before";
    errno = 0;

    EXPECT_EQ(qd_sprintf(buffer, sizeof buffer, "%lc", static_cast<wint_t>(0xDC00)), 0x7FFFFFFE);

    EXPECT_EQ(errno, EILSEQ);
}

TEST(QDString, SprintfLeavesTheBufferAsTheFormatterLeftIt)
{
    char expected[16];
    char buffer[16];
    std::memset(expected, '#', sizeof expected);
    std::memset(buffer, '#', sizeof buffer);
    std::snprintf(expected, sizeof expected, "ab%lc", static_cast<wint_t>(0xDC00));

    EXPECT_EQ(qd_sprintf(buffer, sizeof buffer, "ab%lc", static_cast<wint_t>(0xDC00)), 0x7FFFFFFE);

    EXPECT_EQ(std::string(buffer, sizeof buffer), std::string(expected, sizeof expected));
    EXPECT_EQ(buffer[15], '#');
}

TEST(QDString, SprintfReportsAnyOtherFailureAsTruncation)
{
    char buffer[4] = {'#', '#', '#', '#'};

    EXPECT_EQ(qd_sprintf(buffer, sizeof buffer, g_pImpossibleFormat, 1), 0x7FFFFFFF);

    EXPECT_EQ(buffer[3], '\0');
}

TEST(QDString, SprintfTakesAnOldErrorForNothing)
{
    char buffer[4];
    errno = EILSEQ;

    EXPECT_EQ(qd_sprintf(buffer, sizeof buffer, "%d", 12345), 0x7FFFFFFF);
    errno = EILSEQ;
    EXPECT_EQ(qd_sprintf(buffer, sizeof buffer, "%d", 1), 1);
}

// What is written without the C library's formatter, and what is not, in one format.
TEST(QDString, SprintfTakesItsArgumentsFromTheFirstOneInEveryCase)
{
    const char* const volatile nothing = nullptr;
    const double infinity = std::numeric_limits<double>::infinity();
    char buffer[32];

    EXPECT_EQ(qd_sprintf(buffer, sizeof buffer, "%d %s %.1f", 1, "a", 2.5), 7);
    EXPECT_STREQ(buffer, "1 a 2.5");
    EXPECT_EQ(qd_sprintf(buffer, sizeof buffer, "%d %s %.1f %d", 1, "a", infinity, 2), 9);
    EXPECT_STREQ(buffer, "1 a inf 2");
    EXPECT_EQ(qd_sprintf(buffer, sizeof buffer, "%d %.1f %s", 1, 2.5, nothing), 12);
    EXPECT_STREQ(buffer, "1 2.5 (null)");
    EXPECT_EQ(qd_sbcnprintf(buffer, sizeof buffer, "%d %s %.1f %g", 1, "a", 2.5, 3.5), 11);
    EXPECT_STREQ(buffer, "1 a 2.5 3.5");
}

TEST(QDString, SprintfOfALongTextReturnsItsLength)
{
    const std::string text(5000, 'x');
    std::vector<char> buffer(6000);

    EXPECT_EQ(qd_sprintf(buffer.data(), 6000, "%d: %s", 7, text.c_str()), 5003);

    EXPECT_EQ(std::string(buffer.data()), "7: " + text);
}

TEST(QDString, VsprintfIsSprintfWithAList)
{
    char buffer[8];

    EXPECT_EQ(CallVsprintf(qd_vsprintf, buffer, sizeof buffer, "%d-%s", 12, "ab"), 5);
    EXPECT_STREQ(buffer, "12-ab");
    EXPECT_EQ(CallVsprintf(qd_vsprintf, buffer, sizeof buffer, "%s", "123456789"), 0x7FFFFFFF);
    EXPECT_STREQ(buffer, "1234567");
}

TEST(QDString, ElipsisEndsATruncatedTextInThreeStops)
{
    char buffer[8];

    EXPECT_EQ(qd_sprintf_with_elipsis(buffer, sizeof buffer, "%s", "abcdefghijklmnopqrst"), 7);

    EXPECT_STREQ(buffer, "abcd...");
}

TEST(QDString, ElipsisInTheSmallestBuffer)
{
    char buffer[5] = {'#', '#', '#', '#', '#'};

    EXPECT_EQ(qd_sprintf_with_elipsis(buffer, 4, "%s", "abcd"), 3);

    EXPECT_STREQ(buffer, "...");
    EXPECT_EQ(buffer[4], '#');
}

TEST(QDString, ElipsisLeavesATextThatFits)
{
    char buffer[8];

    EXPECT_EQ(qd_sprintf_with_elipsis(buffer, sizeof buffer, "%s", "abcdefg"), 7);

    EXPECT_STREQ(buffer, "abcdefg");
}

TEST(QDString, ElipsisWritesNoStopsOnAnEncodingError)
{
    char buffer[8] = "#######";

    EXPECT_EQ(qd_sprintf_with_elipsis(buffer, sizeof buffer, "%lc", static_cast<wint_t>(0xDC00)), 0x7FFFFFFE);

    EXPECT_EQ(std::string(buffer + 4, 3), "###");
}

TEST(QDString, ElipsisAlsoAfterAnyOtherFailure)
{
    char buffer[8] = "#######";

    EXPECT_EQ(qd_sprintf_with_elipsis(buffer, sizeof buffer, g_pImpossibleFormat, 1), 7);

    EXPECT_STREQ(buffer + 4, "...");
}

TEST(QDString, VsprintfWithElipsisTakesAList)
{
    char buffer[8];

    EXPECT_EQ(CallVsprintf(qd_vsprintf_with_elipsis, buffer, sizeof buffer, "%d", 1234567890), 7);

    EXPECT_STREQ(buffer, "1234...");
}

TEST(QDString, SbcnprintfReturnsTheLengthOrTruncates)
{
    char buffer[4];

    EXPECT_EQ(qd_sbcnprintf(buffer, sizeof buffer, "%d", 123), 3);
    EXPECT_STREQ(buffer, "123");
    EXPECT_EQ(qd_sbcnprintf(buffer, sizeof buffer, "%d", 4567), 0x7FFFFFFF);
    EXPECT_STREQ(buffer, "456");
}

TEST(QDString, SbcnprintfReportsEveryFailureAsAnEncodingError)
{
    char buffer[8];

    EXPECT_EQ(qd_sbcnprintf(buffer, sizeof buffer, "%lc", static_cast<wint_t>(0xDC00)), 0x7FFFFFFE);
    EXPECT_EQ(qd_sbcnprintf(buffer, sizeof buffer, g_pImpossibleFormat, 1), 0x7FFFFFFE);
}

TEST(QDString, VsbcnprintfTakesAList)
{
    char buffer[8];

    EXPECT_EQ(CallVsprintf(qd_vsbcnprintf, buffer, sizeof buffer, "%s", "abc"), 3);

    EXPECT_STREQ(buffer, "abc");
}

// --- Single code points --------------------------------------------------------------------------------------------

namespace
{

struct DecodedPart
{
    int m_CodePoint;
    int m_Consumed;
};

struct Utf8Case
{
    const char* m_pName;
    std::string m_Text;
    std::vector<DecodedPart> m_Expected;
};

constexpr int kBad = 0xFFFD;

const Utf8Case kUtf8Cases[] = {
    {"letter", "A", {{0x41, 1}}},
    {"NUL", std::string(1, '\0'), {{0, 1}}},
    {"last of one byte", "\x7F", {{0x7F, 1}}},
    {"first of two bytes", "\xC2\x80", {{0x80, 2}}},
    {"last of two bytes", "\xDF\xBF", {{0x7FF, 2}}},
    {"first of three bytes", "\xE0\xA0\x80", {{0x800, 3}}},
    {"euro sign", "\xE2\x82\xAC", {{0x20AC, 3}}},
    {"last before the surrogates", "\xED\x9F\xBF", {{0xD7FF, 3}}},
    {"first after the surrogates", "\xEE\x80\x80", {{0xE000, 3}}},
    {"replacement character itself", "\xEF\xBF\xBD", {{0xFFFD, 3}}},
    {"last of three bytes", "\xEF\xBF\xBF", {{0xFFFF, 3}}},
    {"first of four bytes", "\xF0\x90\x80\x80", {{0x10000, 4}}},
    {"emoji", "\xF0\x9F\x98\x80", {{0x1F600, 4}}},
    {"last of all", "\xF4\x8F\xBF\xBF", {{0x10FFFF, 4}}},
    {"overlong NUL", "\xC0\x80", {{kBad, 1}, {kBad, 1}}},
    {"overlong of two bytes", "\xC1\xBF", {{kBad, 1}, {kBad, 1}}},
    {"overlong of three bytes is one", "\xE0\x80\x80", {{kBad, 3}}},
    {"last overlong of three bytes", "\xE0\x9F\xBF", {{kBad, 3}}},
    {"first surrogate", "\xED\xA0\x80", {{kBad, 3}}},
    {"last surrogate", "\xED\xBF\xBF", {{kBad, 3}}},
    {"overlong of four bytes is one", "\xF0\x80\x80\x80", {{kBad, 4}}},
    {"last overlong of four bytes", "\xF0\x8F\xBF\xBF", {{kBad, 4}}},
    {"first above the range", "\xF4\x90\x80\x80", {{kBad, 4}}},
    {"last above the range", "\xF4\xBF\xBF\xBF", {{kBad, 4}}},
    {"F5 starts nothing", "\xF5\x80\x80\x80", {{kBad, 1}, {kBad, 1}, {kBad, 1}, {kBad, 1}}},
    {"FE and FF start nothing", "\xFE\xFF", {{kBad, 1}, {kBad, 1}}},
    {"first and last continuation", "\x80\xBF", {{kBad, 1}, {kBad, 1}}},
    {"two bytes cut by the end", "\xC3", {{kBad, 1}}},
    {"three bytes cut after one", "\xE2", {{kBad, 1}}},
    {"three bytes cut after two", "\xE2\x82", {{kBad, 2}}},
    {"four bytes cut after one", "\xF0", {{kBad, 1}}},
    {"four bytes cut after two", "\xF0\x9F", {{kBad, 2}}},
    {"four bytes cut after three", "\xF0\x9F\x98", {{kBad, 3}}},
    {"lead before a letter", "\xE2\x41", {{kBad, 1}, {0x41, 1}}},
    {"cut before a letter", "\xE2\x82\x41", {{kBad, 2}, {0x41, 1}}},
    {"cut before a lead", "\xE2\x82\xC3\xA9", {{kBad, 2}, {0xE9, 2}}},
    {"lead before the same lead", "\xC3\xC3\xA9", {{kBad, 1}, {0xE9, 2}}},
    {"four bytes cut before a letter", "\xF0\x9F\x98\x41", {{kBad, 3}, {0x41, 1}}},
    {"overlong cut before a letter", "\xE0\x80\x41", {{kBad, 2}, {0x41, 1}}},
    // How the Unicode standard shows a longest ill-formed prefix for each U+FFFD.
    {"practice: 61 F1 80 80 E1 80 C2 62 80 63 80 BF 64",
     "\x61\xF1\x80\x80\xE1\x80\xC2\x62\x80\x63\x80\xBF\x64",
     {{0x61, 1}, {kBad, 3}, {kBad, 2}, {kBad, 1}, {0x62, 1}, {kBad, 1}, {0x63, 1}, {kBad, 1}, {kBad, 1}, {0x64, 1}}},
    {"practice: E1 80 E2 F0 91 92 F1 BF 41",
     "\xE1\x80\xE2\xF0\x91\x92\xF1\xBF\x41",
     {{kBad, 2}, {kBad, 1}, {kBad, 3}, {kBad, 2}, {0x41, 1}}},
    // Where this decoder differs from that practice: overlong forms and surrogates are taken whole.
    {"own rule: C0 AF E0 80 BF F0 81 82 41",
     "\xC0\xAF\xE0\x80\xBF\xF0\x81\x82\x41",
     {{kBad, 1}, {kBad, 1}, {kBad, 3}, {kBad, 3}, {0x41, 1}}},
    {"own rule: ED A0 80 ED BF BF ED AF 41",
     "\xED\xA0\x80\xED\xBF\xBF\xED\xAF\x41",
     {{kBad, 3}, {kBad, 3}, {kBad, 2}, {0x41, 1}}},
};

} // namespace

TEST(QDString, DecodeUtf8)
{
    for (const Utf8Case& testCase : kUtf8Cases) {
        SCOPED_TRACE(testCase.m_pName);
        const ExactCopy<uint8_t> text(Bytes(testCase.m_Text));
        const uint8_t* p = text.GetText();
        const uint8_t* const end = p + text.GetSize();
        for (const DecodedPart& part : testCase.m_Expected) {
            const uint8_t* const before = p;
            ASSERT_LT(p, end);
            EXPECT_EQ(qd_decode_utf8(p, end), part.m_CodePoint);
            EXPECT_EQ(p - before, part.m_Consumed);
        }
        EXPECT_EQ(p, end);
    }
}

TEST(QDString, CodepointFromQdcharIsDecodeUtf8)
{
    for (const Utf8Case& testCase : kUtf8Cases) {
        SCOPED_TRACE(testCase.m_pName);
        const ExactCopy<char> text({testCase.m_Text.begin(), testCase.m_Text.end()});
        const char* p = text.GetText();
        const char* const end = p + text.GetSize();
        for (const DecodedPart& part : testCase.m_Expected) {
            const char* const before = p;
            ASSERT_LT(p, end);
            EXPECT_EQ(qd_codepoint_from_qdchar(p, end), part.m_CodePoint);
            EXPECT_EQ(p - before, part.m_Consumed);
        }
        EXPECT_EQ(p, end);
    }
}

// The same cases inside a long text, at every place of a block, go through the loops for long runs.
TEST(QDString, RunsDecodeTheSameWayAsSingleCodePoints)
{
    for (const Utf8Case& testCase : kUtf8Cases) {
        SCOPED_TRACE(testCase.m_pName);
        for (size_t place = 0; place < 40; ++place) {
            const ExactCopy<uint8_t> text(Bytes(std::string(place, 'x') + testCase.m_Text + std::string(70, 'y')));
            CodePoints expected(place, 'x');
            for (const DecodedPart& part : testCase.m_Expected)
                expected.push_back(part.m_CodePoint);
            expected.insert(expected.end(), 70, 'y');
            for (const unsigned capacity :
                 {400u, static_cast<unsigned>(place) + 1, static_cast<unsigned>(place) + 60}) {
                CheckPair<uint8_t, uint16_t>(qd_utf16_from_utf8, qd_utf16len_of_utf8, text, Encoded<uint16_t>(expected),
                                             capacity);
                CheckPair<uint8_t, uint32_t>(qd_utf32_from_utf8, qd_utf32len_of_utf8, text, Encoded<uint32_t>(expected),
                                             capacity);
            }
            if (HasFatalFailure())
                return;
        }
    }
}

TEST(QDStringDeathTest, DecodingUtf8AtTheEndStopsTheProcess)
{
    const uint8_t text[2] = {0x41, 0x42};
    const uint8_t* p = text + 1;

    EXPECT_DEATH(qd_decode_utf8(p, text + 1), "pStr < pUtf8End");
    EXPECT_DEATH(qd_decode_utf8(p, text), "pStr < pUtf8End");
}

TEST(QDStringDeathTest, DecodingQdcharAtTheEndStopsTheProcess)
{
    const char* p = "";

    EXPECT_DEATH(qd_codepoint_from_qdchar(p, p), "pStr < pUtf8End");
}

TEST(QDStringDeathTest, DecodingUtf16AtTheEndStopsTheProcess)
{
    const uint16_t text[2] = {0x41, 0x42};
    const uint16_t* p = text + 1;

    EXPECT_DEATH(qd_decode_utf16(p, text + 1), "pStr < pUtf16End");
    EXPECT_DEATH(qd_decode_utf16(p, text), "pStr < pUtf16End");
}

TEST(QDString, EncodeUtf8)
{
    const struct
    {
        int m_CodePoint;
        std::string m_Expected;
    } cases[] = {
        {0, std::string(1, '\0')},
        {0x41, "A"},
        {0x7F, "\x7F"},
        {0x80, "\xC2\x80"},
        {0x7FF, "\xDF\xBF"},
        {0x800, "\xE0\xA0\x80"},
        {0x20AC, "\xE2\x82\xAC"},
        {0xD800, "\xED\xA0\x80"}, // surrogates like any other value
        {0xDFFF, "\xED\xBF\xBF"},
        {0xFFFF, "\xEF\xBF\xBF"},
        {0x10000, "\xF0\x90\x80\x80"},
        {0x10FFFF, "\xF4\x8F\xBF\xBF"},
        {0x110000, "\xF4\x90\x80\x80"},
        {0x1FFFFF, "\xF7\xBF\xBF\xBF"},
        {0x200000, "\xF8\x80\x80\x80"},
        {0x400000, "\xF0\x80\x80\x80"},   // the lead is F0 | 10
        {0x4000000, "\xF0\x80\x80\x80"},  // F0 | 100, cut to 8 bits
        {0x7FFFFFFF, "\xFF\xBF\xBF\xBF"}, // F0 | 1FFF, cut to 8 bits
        {-1, "\xFF"},
        {-0x80, "\x80"},
        {-0x100, std::string(1, '\0')},
        {INT_MIN, std::string(1, '\0')},
        {INT_MIN + 0x41, "A"},
    };

    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.m_CodePoint);
        std::string out(5, '#');
        EXPECT_EQ(qd_encode_utf8(testCase.m_CodePoint, reinterpret_cast<uint8_t*>(out.data())),
                  testCase.m_Expected.size());
        EXPECT_EQ(out.substr(0, testCase.m_Expected.size()), testCase.m_Expected);
        EXPECT_EQ(out[testCase.m_Expected.size()], '#');

        out.assign(5, '#');
        EXPECT_EQ(qd_qdchar_from_codepoint(testCase.m_CodePoint, out.data()), testCase.m_Expected.size());
        EXPECT_EQ(out.substr(0, testCase.m_Expected.size()), testCase.m_Expected);

        EXPECT_EQ(qd_utf8len_of_codepoint(testCase.m_CodePoint), testCase.m_Expected.size());

        std::string appended = "x";
        qd_append_codepoint_to_qdstring(testCase.m_CodePoint, appended);
        EXPECT_EQ(appended, "x" + testCase.m_Expected);
    }
}

TEST(QDString, DecodeUtf16)
{
    const struct
    {
        const char* m_pName;
        std::vector<uint16_t> m_Text;
        std::vector<DecodedPart> m_Expected;
    } cases[] = {
        {"letter", {0x41}, {{0x41, 1}}},
        {"last before the surrogates", {0xD7FF}, {{0xD7FF, 1}}},
        {"first after the surrogates", {0xE000}, {{0xE000, 1}}},
        {"first pair", {0xD800, 0xDC00}, {{0x10000, 2}}},
        {"emoji", {0xD83D, 0xDE00}, {{0x1F600, 2}}},
        {"last pair", {0xDBFF, 0xDFFF}, {{0x10FFFF, 2}}},
        {"high before a letter", {0xD800, 0x41}, {{0xD800, 1}, {0x41, 1}}},
        {"high at the end", {0xDBFF}, {{0xDBFF, 1}}},
        {"low alone", {0xDC00}, {{0xDC00, 1}}},
        {"low before high", {0xDC00, 0xD800}, {{0xDC00, 1}, {0xD800, 1}}},
        {"high before a pair", {0xD800, 0xD83D, 0xDE00}, {{0xD800, 1}, {0x1F600, 2}}},
        {"pair before a low", {0xD83D, 0xDE00, 0xDFFF}, {{0x1F600, 2}, {0xDFFF, 1}}},
    };

    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.m_pName);
        const ExactCopy<uint16_t> text(testCase.m_Text);
        const uint16_t* p = text.GetText();
        const uint16_t* const end = p + text.GetSize();
        for (const DecodedPart& part : testCase.m_Expected) {
            const uint16_t* const before = p;
            ASSERT_LT(p, end);
            EXPECT_EQ(qd_decode_utf16(p, end), part.m_CodePoint);
            EXPECT_EQ(p - before, part.m_Consumed);
        }
        EXPECT_EQ(p, end);
    }
}

TEST(QDString, EncodeUtf16)
{
    const struct
    {
        int m_CodePoint;
        std::vector<uint16_t> m_Expected;
    } cases[] = {
        {0, {0}},
        {0xD800, {0xD800}},
        {0xFFFF, {0xFFFF}},
        {0x10000, {0xD800, 0xDC00}},
        {0x1F600, {0xD83D, 0xDE00}},
        {0x10FFFF, {0xDBFF, 0xDFFF}},
        {0x110000, {0xDC00, 0xDC00}},   // D800 | 400
        {0x7FFFFFFF, {0xFFBF, 0xDFFF}}, // D800 | 1FFFBF, cut to 16 bits
        {-1, {0xFFFF}},
        {-0x10000, {0}},
    };

    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.m_CodePoint);
        uint16_t out[3] = {0x5A5A, 0x5A5A, 0x5A5A};
        const size_t count = testCase.m_Expected.size();
        EXPECT_EQ(qd_encode_utf16(testCase.m_CodePoint, out), count);
        EXPECT_EQ(std::vector<uint16_t>(out, out + count), testCase.m_Expected);
        EXPECT_EQ(out[count], 0x5A5A);
    }
}

TEST(QDString, EveryCodePointMakesTheRoundTripThroughBothEncodings)
{
    for (int cp = 0; cp <= 0x10FFFF; ++cp) {
        uint8_t utf8[4];
        uint16_t utf16[2];
        const unsigned bytes = qd_encode_utf8(cp, utf8);
        const unsigned units = qd_encode_utf16(cp, utf16);
        const uint8_t* p8 = utf8;
        const uint16_t* p16 = utf16;
        const bool isSurrogate = cp >= 0xD800 && cp <= 0xDFFF;

        ASSERT_EQ(qd_decode_utf8(p8, utf8 + bytes), isSurrogate ? 0xFFFD : cp);
        ASSERT_EQ(p8, utf8 + bytes);
        ASSERT_EQ(qd_decode_utf16(p16, utf16 + units), cp);
        ASSERT_EQ(p16, utf16 + units);
        ASSERT_EQ(qd_utf8len_of_codepoint(cp), bytes);
        ASSERT_EQ(qd_utf8charlen(utf8), bytes);
        ASSERT_EQ(qd_utf16charlen(utf16), units == 2 || (cp >= 0xD800 && cp <= 0xDBFF) ? 2u : 1u);
    }
}

TEST(QDString, EveryCodePointMakesTheRoundTripInOneRun)
{
    std::vector<uint32_t> all;
    for (uint32_t cp = 0; cp <= 0x10FFFF; ++cp) {
        if (cp < 0xD800 || cp > 0xDFFF)
            all.push_back(cp);
    }
    const unsigned count = static_cast<unsigned>(all.size());
    // 0x80 of one byte, 0x780 of two, 0xF800 - 0x800 of three, 0x100000 of four.
    const unsigned utf8Size = 0x80 + 2 * 0x780 + 3 * (0xF800 - 0x800) + 4 * 0x100000;
    const unsigned utf16Size = 0xF800 + 2 * 0x100000;
    std::vector<uint8_t> utf8(utf8Size);
    std::vector<uint16_t> utf16(utf16Size);
    std::vector<uint32_t> utf32(count);

    EXPECT_EQ(qd_utf8_from_utf32(all.data(), count, utf8.data(), utf8Size), utf8Size);
    EXPECT_EQ(qd_utf16_from_utf8(utf8.data(), utf8Size, utf16.data(), utf16Size), utf16Size);
    EXPECT_EQ(qd_utf32_from_utf16(utf16.data(), utf16Size, utf32.data(), count), count);
    EXPECT_EQ(utf32, all);
    std::fill(utf8.begin(), utf8.end(), uint8_t{0});
    EXPECT_EQ(qd_utf8_from_utf16(utf16.data(), utf16Size, utf8.data(), utf8Size), utf8Size);
    std::fill(utf32.begin(), utf32.end(), 0u);
    EXPECT_EQ(qd_utf32_from_utf8(utf8.data(), utf8Size, utf32.data(), count), count);
    EXPECT_EQ(utf32, all);
    // A room that only stands for "enough", which pointers of 32 bits could not express.
    EXPECT_EQ(qd_utf16_from_utf8(utf8.data(), utf8Size, utf16.data(), UINT_MAX), utf16Size);
    EXPECT_EQ(qd_utf8_from_utf16(utf16.data(), utf16Size, utf8.data(), UINT_MAX), utf8Size);
    EXPECT_EQ(qd_utf32_from_utf8(utf8.data(), utf8Size, utf32.data(), UINT_MAX), count);
    EXPECT_EQ(utf32, all);
    EXPECT_EQ(qd_utf16len_of_utf8(utf8.data(), utf8Size, UINT_MAX), utf16Size);
    EXPECT_EQ(qd_utf32len_of_utf8(utf8.data(), utf8Size, UINT_MAX), count);
    EXPECT_EQ(qd_utf8len_of_utf16(utf16.data(), utf16Size, UINT_MAX), utf8Size);
    EXPECT_EQ(qd_utf32len_of_utf16(utf16.data(), utf16Size, UINT_MAX), count);
}

TEST(QDString, QdcharFromASingleCodePointFitsOrWritesNothing)
{
    char buffer[4] = {'#', '#', '#', '#'};

    EXPECT_EQ(qd_qdchar_from_utf32(0x20AC, buffer, 2), 0u);
    EXPECT_EQ(std::string(buffer, 4), "####");
    EXPECT_EQ(qd_qdchar_from_utf32(0x20AC, buffer, 3), 3u);
    EXPECT_EQ(std::string(buffer, 4), "\xE2\x82\xAC#");
    EXPECT_EQ(qd_qdchar_from_utf32(0x41, buffer, 0), 0u);
    EXPECT_EQ(qd_qdchar_from_utf32(-1, buffer, 1), 1u);
    EXPECT_EQ(std::string(buffer, 2), "\xFF\x82");
}

TEST(QDString, Utf8CharLengthTrustsTheLead)
{
    for (unsigned byte = 0; byte < 256; ++byte) {
        SCOPED_TRACE(byte);
        const uint8_t text = static_cast<uint8_t>(byte);
        const unsigned expected = byte < 0x80 ? 1 : byte < 0xC0 ? 4 : byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
        EXPECT_EQ(qd_utf8charlen(&text), expected);
    }
}

TEST(QDString, Utf16CharLengthLooksForAHighSurrogate)
{
    const struct
    {
        uint16_t m_Unit;
        unsigned m_Expected;
    } cases[] = {{0x41, 1}, {0xD7FF, 1}, {0xD800, 2}, {0xDBFF, 2}, {0xDC00, 1}, {0xDFFF, 1}, {0xE000, 1}, {0xFFFF, 1}};

    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.m_Unit);
        EXPECT_EQ(qd_utf16charlen(&testCase.m_Unit), testCase.m_Expected);
    }
}

// --- Appending and ordering ----------------------------------------------------------------------------------------

TEST(QDString, AppendLineTerminator)
{
    const struct
    {
        int m_Value;
        const char* m_pExpected;
    } cases[] = {{0, "x\r"},           {1, "x\n"}, {2, "x\r\n"}, {3, "x\xC2\x85"}, {4, "x\xE2\x80\xA8"},
                 {5, "x\xE2\x80\xA9"}, {6, "x"},   {-1, "x"},    {INT_MAX, "x"}};

    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.m_Value);
        std::string text = "x";
        qd_append_line_terminator_to_qdstring(static_cast<TextLineTermination>(testCase.m_Value), text);
        EXPECT_EQ(text, testCase.m_pExpected);
    }
}

TEST(QDString, CompareNoCaseOrdersWithoutRegardToCase)
{
    const CompareQDStringNoCase isBefore{};

    EXPECT_TRUE(isBefore("abc", "ABD"));
    EXPECT_FALSE(isBefore("ABD", "abc"));
    EXPECT_FALSE(isBefore("Level", "lEVEL"));
    EXPECT_FALSE(isBefore("lEVEL", "Level"));
    EXPECT_TRUE(isBefore("a", "ab"));
    EXPECT_TRUE(isBefore("", "a"));
    EXPECT_TRUE(isBefore("_", "a")); // upper case is folded to lower: '_' lies between 'Z' and 'a'
    EXPECT_TRUE(isBefore("_", "A"));
}

TEST(QDString, CompareNoCaseFoldsAsciiOnly)
{
    const CompareQDStringNoCase isBefore{};

    EXPECT_TRUE(isBefore("É", "é") || isBefore("é", "É"));
}

TEST(QDString, CompareNoCaseEndsAtTheFirstNul)
{
    const CompareQDStringNoCase isBefore{};

    EXPECT_FALSE(isBefore(std::string("a\0b", 3), std::string("A\0c", 3)));
    EXPECT_FALSE(isBefore(std::string("A\0c", 3), std::string("a\0b", 3)));
}

TEST(QDString, CompareNoCaseServesMapsAndSets)
{
    std::map<std::string, int, CompareQDStringNoCase> map{{"Timeout", 1}};
    map["TIMEOUT"] = 2;
    const std::set<std::string, CompareQDStringNoCase> set{"b", "A", "B", "c"};

    EXPECT_EQ(map.size(), 1u);
    EXPECT_EQ(map.at("timeout"), 2);
    EXPECT_EQ(std::vector<std::string>(set.begin(), set.end()), (std::vector<std::string>{"A", "b", "c"}));
}

// --- Run conversions and measures ----------------------------------------------------------------------------------

TEST(QDString, ConversionStopsBeforeTheCodePointThatDoesNotFit)
{
    const uint8_t euro[] = {0x61, 0xE2, 0x82, 0xAC};
    uint16_t units[2] = {0x5A5A, 0x5A5A};

    EXPECT_EQ(qd_utf16_from_utf8(euro, 4, units, 1), 1u);
    EXPECT_EQ(units[0], 0x61);
    EXPECT_EQ(units[1], 0x5A5A);
    EXPECT_EQ(qd_utf16_from_utf8(euro, 4, units, 2), 2u);
    EXPECT_EQ(units[1], 0x20AC);
}

TEST(QDString, APairThatDoesNotFitIsDroppedWhole)
{
    const uint16_t pair[] = {0xD83D, 0xDE00};
    uint8_t bytes[4] = {0x5A, 0x5A, 0x5A, 0x5A};

    EXPECT_EQ(qd_utf8_from_utf16(pair, 2, bytes, 3), 0u);
    EXPECT_EQ(bytes[0], 0x5A);
    EXPECT_EQ(qd_utf8_from_utf16(pair, 2, bytes, 4), 4u);
}

TEST(QDString, ConversionDoesNotLookBehindTheCodePointThatDoesNotFit)
{
    const uint16_t text[] = {0x41, 0x20AC, 0x42}; // the last one would fit
    uint8_t bytes[3] = {0x5A, 0x5A, 0x5A};

    EXPECT_EQ(qd_utf8_from_utf16(text, 3, bytes, 3), 1u);
    EXPECT_EQ(qd_utf8len_of_utf16(text, 3, 3), 1u);
    EXPECT_EQ(bytes[1], 0x5A);
}

TEST(QDString, LoneSurrogatesBecomeThreeBytes)
{
    const uint16_t text[] = {0xD800, 0x41, 0xDC00};
    uint8_t bytes[7];

    EXPECT_EQ(qd_utf8_from_utf16(text, 3, bytes, 7), 7u);

    EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), 7), "\xED\xA0\x80\x41\xED\xB0\x80");
}

TEST(QDString, Utf32ElementsAreNotValidated)
{
    const uint32_t text[] = {0xFFFFFFFF, 0xD800, 0x110000, 0x80000041};
    uint8_t bytes[9];
    uint16_t units[5];

    EXPECT_EQ(qd_utf8_from_utf32(text, 4, bytes, 9), 9u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), 9), "\xFF\xED\xA0\x80\xF4\x90\x80\x80\x41");
    EXPECT_EQ(qd_utf16_from_utf32(text, 4, units, 5), 5u);
    EXPECT_EQ(std::vector<uint16_t>(units, units + 5), (std::vector<uint16_t>{0xFFFF, 0xD800, 0xDC00, 0xDC00, 0x0041}));
    EXPECT_EQ(qd_utf8len_of_utf32(text, 4, 100), 9u);
    EXPECT_EQ(qd_utf16len_of_utf32(text, 4, 100), 5u);
}

TEST(QDString, EmptyRunsNeedNoMemory)
{
    EXPECT_EQ(qd_utf16_from_utf8(nullptr, 0, nullptr, 0), 0u);
    EXPECT_EQ(qd_utf8_from_utf16(nullptr, 0, nullptr, 0), 0u);
    EXPECT_EQ(qd_utf8_from_utf8(nullptr, 0, nullptr, 0), 0u);
    EXPECT_EQ(qd_utf16len_of_utf8(nullptr, 0, 10), 0u);
    EXPECT_EQ(qd_utf8len_of_utf16(nullptr, 0, 10), 0u);
}

TEST(QDString, CopiesTakeTheSmallerOfBothSizes)
{
    const std::vector<uint8_t> utf8 = Bytes("a\xE2\x82\xAC");
    const std::vector<uint16_t> utf16 = {0x61, 0xD83D, 0xDE00};
    const std::vector<uint32_t> utf32 = {0x61, 0xFFFFFFFF, 0xD800};
    for (unsigned capacity = 0; capacity <= 6; ++capacity) {
        SCOPED_TRACE(capacity);
        CheckConversion<uint8_t, uint8_t>(qd_utf8_from_utf8, ExactCopy(utf8), utf8, std::min(4u, capacity), capacity);
        CheckConversion<uint16_t, uint16_t>(qd_utf16_from_utf16, ExactCopy(utf16), utf16, std::min(3u, capacity),
                                            capacity);
        CheckConversion<uint32_t, uint32_t>(qd_utf32_from_utf32, ExactCopy(utf32), utf32, std::min(3u, capacity),
                                            capacity);
        EXPECT_EQ(qd_utf8len_of_qdchar(ExactCopy(utf8).GetChars(), 4, capacity), std::min(4u, capacity));
        EXPECT_EQ(qd_strlen_of_utf8(ExactCopy(utf8).GetText(), 4, capacity), std::min(4u, capacity));
    }
}

TEST(QDString, QdcharFormsDoTheSameAsUtf8)
{
    const std::string text = "a\xE2\x82\xAC\xFF\xF0\x9F\x98\x80"; // cut at 6, a copy splits the last sequence
    const unsigned size = static_cast<unsigned>(text.size());
    uint8_t utf8[6];
    uint16_t utf16[8];
    uint32_t utf32[8];
    char chars[9];

    EXPECT_EQ(qd_utf8_from_qdchar(text.data(), size, utf8, 6), 6u);
    EXPECT_EQ(std::memcmp(utf8, text.data(), 6), 0);
    EXPECT_EQ(qd_utf16_from_qdchar(text.data(), size, utf16, 8), 5u);
    EXPECT_EQ(std::vector<uint16_t>(utf16, utf16 + 5), (std::vector<uint16_t>{0x61, 0x20AC, 0xFFFD, 0xD83D, 0xDE00}));
    EXPECT_EQ(qd_utf32_from_qdchar(text.data(), size, utf32, 8), 4u);
    EXPECT_EQ(std::vector<uint32_t>(utf32, utf32 + 4), (std::vector<uint32_t>{0x61, 0x20AC, 0xFFFD, 0x1F600}));
    EXPECT_EQ(qd_qdchar_from_utf8(utf8, 6, chars, 5), 5u);
    EXPECT_EQ(std::string(chars, 5), text.substr(0, 5));
    EXPECT_EQ(qd_qdchar_from_utf16(utf16, 5, chars, 7), 7u); // U+FFFD takes three bytes; the pair does not fit
    EXPECT_EQ(std::string(chars, 7), "a\xE2\x82\xAC\xEF\xBF\xBD");
    EXPECT_EQ(qd_qdchar_from_utf32(utf32, 4, chars, 9), 7u);
    EXPECT_EQ(qd_utf16len_of_qdchar(text.data(), size, 100), 5u);
    EXPECT_EQ(qd_utf16len_of_qdchar(text.data(), size, 4), 3u);
    EXPECT_EQ(qd_utf32len_of_wchar(text.data(), size, 100), 4u);
    EXPECT_EQ(qd_utf32len_of_wchar(text.data(), size, 2), 2u);
    EXPECT_EQ(qd_strlen_of_utf16(utf16, 5, 100), 11u);
    EXPECT_EQ(qd_strlen_of_utf16(utf16, 5, 10), 7u);
    EXPECT_EQ(qd_strlen_of_utf32(utf32, 4, 100), 11u);
    EXPECT_EQ(qd_strlen_of_utf32(utf32, 4, 6), 4u);
}

TEST(QDString, Utf8RunsAgreeWithTheReference)
{
    std::mt19937 random(1);
    for (unsigned round = 0; round < 80; ++round) {
        const std::vector<uint8_t> text = RandomUtf8(random, random() % 24, round % 2 == 0);
        SCOPED_TRACE(testing::Message() << "round " << round << " of " << text.size() << " bytes");
        CheckAllCapacities<uint8_t, uint16_t>(qd_utf16_from_utf8, qd_utf16len_of_utf8, text, round % 9);
        CheckAllCapacities<uint8_t, uint32_t>(qd_utf32_from_utf8, qd_utf32len_of_utf8, text, round % 9);
        if (HasFatalFailure())
            return;
    }
}

TEST(QDString, Utf16RunsAgreeWithTheReference)
{
    std::mt19937 random(2);
    for (unsigned round = 0; round < 80; ++round) {
        const std::vector<uint16_t> text = RandomUtf16(random, random() % 100);
        SCOPED_TRACE(testing::Message() << "round " << round << " of " << text.size() << " units");
        CheckAllCapacities<uint16_t, uint8_t>(qd_utf8_from_utf16, qd_utf8len_of_utf16, text, round % 9);
        CheckAllCapacities<uint16_t, uint32_t>(qd_utf32_from_utf16, qd_utf32len_of_utf16, text, round % 9);
        if (HasFatalFailure())
            return;
    }
}

TEST(QDString, Utf32RunsAgreeWithTheReference)
{
    std::mt19937 random(3);
    for (unsigned round = 0; round < 60; ++round) {
        std::vector<uint32_t> text(random() % 40);
        for (uint32_t& element : text)
            element = static_cast<uint32_t>(random()) >> random() % 32;
        SCOPED_TRACE(round);
        CheckAllCapacities<uint32_t, uint8_t>(qd_utf8_from_utf32, qd_utf8len_of_utf32, text);
        CheckAllCapacities<uint32_t, uint16_t>(qd_utf16_from_utf32, qd_utf16len_of_utf32, text);
        if (HasFatalFailure())
            return;
    }
}

// Plain text of every length around words and blocks, from every place in a word.
TEST(QDString, PlainTextOfEveryLengthAndAlignment)
{
    for (const char* const character : {"a", "é", "ж", "水", "😀"}) {
        for (size_t count = 0; count <= 40; ++count) {
            std::string text;
            for (size_t i = 0; i < count; ++i)
                text += character;
            SCOPED_TRACE(text);
            const CodePoints codePoints = ReferenceDecode(Bytes(text));
            const Encoded<uint16_t> utf16(codePoints);
            const Encoded<uint8_t> utf8(codePoints);
            for (size_t lead = 0; lead < 9; ++lead) {
                const ExactCopy<uint8_t> bytes(Bytes(text), lead);
                const ExactCopy<uint16_t> units(utf16.m_Units, lead);
                CheckPair<uint8_t, uint16_t>(qd_utf16_from_utf8, qd_utf16len_of_utf8, bytes, utf16, units.GetSize());
                CheckPair<uint16_t, uint8_t>(qd_utf8_from_utf16, qd_utf8len_of_utf16, units, utf8, bytes.GetSize());
            }
            if (HasFatalFailure())
                return;
        }
    }
}

// A word of which a part is stored too much must be overwritten by what follows, or nothing behind the result is safe.
TEST(QDString, NothingIsWrittenBehindTheResult)
{
    for (const char* const wide : {"é", "水", "😀", "\xF0\x80\x80\x80", "\xE0\x80\x80"}) {
        for (size_t ascii = 0; ascii <= 9; ++ascii) {
            for (size_t count = 0; count <= 12; ++count) {
                std::string text(ascii, 'a');
                for (size_t i = 0; i < count; ++i)
                    text += wide;
                for (const std::string& end : {std::string(), std::string("z"), std::string("zz")}) {
                    SCOPED_TRACE(text + end);
                    const CodePoints codePoints = ReferenceDecode(Bytes(text + end));
                    const Encoded<uint16_t> utf16(codePoints);
                    const Encoded<uint8_t> utf8(codePoints);
                    CheckPair<uint8_t, uint16_t>(qd_utf16_from_utf8, qd_utf16len_of_utf8, ExactCopy(Bytes(text + end)),
                                                 utf16, 100);
                    CheckPair<uint16_t, uint8_t>(qd_utf8_from_utf16, qd_utf8len_of_utf16, ExactCopy(utf16.m_Units),
                                                 utf8, 100);
                }
                ASSERT_FALSE(HasFatalFailure());
            }
        }
    }
}

// Every lead with every kind of byte after it, at the places where a block of a long run begins and ends.
TEST(QDString, EveryKindOfSequenceInALongRun)
{
    const uint8_t kinds[] = {0x41, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC3};
    for (unsigned lead = 0x7F; lead <= 0xFF; ++lead) {
        for (const uint8_t second : kinds) {
            for (const uint8_t third : kinds) {
                for (const size_t place : {size_t{0}, size_t{13}, size_t{14}, size_t{15}}) {
                    std::vector<uint8_t> text(place, 'a');
                    text.insert(text.end(), {static_cast<uint8_t>(lead), second, third, 0x80, 0xBF});
                    text.resize(place + 50, 'z');
                    const CodePoints codePoints = ReferenceDecode(text);
                    const ExactCopy<uint8_t> copy(text);
                    CheckPair<uint8_t, uint16_t>(qd_utf16_from_utf8, qd_utf16len_of_utf8, copy,
                                                 Encoded<uint16_t>(codePoints), 100);
                    ASSERT_EQ(qd_utf32len_of_utf8(copy.GetText(), copy.GetSize(), 100), codePoints.size());
                }
            }
        }
        ASSERT_FALSE(HasFatalFailure()) << "lead " << lead;
    }
}

// Pairs and lone surrogates around the places where a measure divides a long run.
TEST(QDString, SurrogatesAtEveryPlaceOfALongRun)
{
    for (size_t place = 0; place < 140; ++place) {
        SCOPED_TRACE(place);
        std::vector<uint16_t> text(place, 0x20AC);
        text.insert(text.end(), {0xD83D, 0xDE00, 0xD83D, 0xD83D, 0xDE00, 0xDE00});
        text.resize(150, 0x20AC);
        const CodePoints codePoints = ReferenceDecode(text);
        const ExactCopy<uint16_t> copy(text);
        const Encoded<uint8_t> utf8(codePoints);
        const Encoded<uint32_t> utf32(codePoints);
        const unsigned needed = static_cast<unsigned>(utf8.m_Units.size());
        for (const unsigned capacity : {needed, needed - 1, static_cast<unsigned>(place) * 3 + 3}) {
            CheckPair<uint16_t, uint8_t>(qd_utf8_from_utf16, qd_utf8len_of_utf16, copy, utf8, capacity);
            CheckPair<uint16_t, uint32_t>(qd_utf32_from_utf16, qd_utf32len_of_utf16, copy, utf32, capacity);
        }
        if (HasFatalFailure())
            return;
    }
}

// --- All of it -----------------------------------------------------------------------------------------------------

TEST(QDString, NothingAllocates)
{
    const std::string text = "Größe 水位 😀 \xFF and a tail that is long enough for every shortcut to be taken";
    const unsigned size = static_cast<unsigned>(text.size());
    const std::vector<uint8_t> utf8 = Bytes(text);
    std::vector<uint16_t> utf16(size);
    std::vector<uint32_t> utf32(size);
    std::vector<uint8_t> bytes(4 * size);
    char chars[512];
    const CompareQDStringNoCase isBefore{};
    const AllocationCounter counter;

    qd_strcpy(chars, sizeof chars, text);
    qd_strcpy(chars, sizeof chars, "text");
    qd_strcat(chars, sizeof chars, text.c_str());
    qd_sbccpy(chars, sizeof chars, text.c_str());
    qd_sprintf(chars, sizeof chars, "%s %d", text.c_str(), 5);
    qd_sprintf_with_elipsis(chars, 8, "%s %d", text.c_str(), 5);
    qd_sbcnprintf(chars, sizeof chars, "%s %d", text.c_str(), 5);
    const unsigned units = qd_utf16_from_utf8(utf8.data(), size, utf16.data(), size);
    const unsigned elements = qd_utf32_from_utf8(utf8.data(), size, utf32.data(), size);
    qd_utf8_from_utf16(utf16.data(), units, bytes.data(), 4 * size);
    qd_utf8_from_utf32(utf32.data(), elements, bytes.data(), 4 * size);
    qd_utf16_from_utf32(utf32.data(), elements, utf16.data(), size);
    qd_utf32_from_utf16(utf16.data(), units, utf32.data(), size);
    qd_utf8_from_utf8(utf8.data(), size, bytes.data(), 4 * size);
    qd_utf16len_of_utf8(utf8.data(), size, size);
    qd_utf32len_of_utf8(utf8.data(), size, size);
    qd_utf8len_of_utf16(utf16.data(), units, 4 * size);
    qd_utf8len_of_utf32(utf32.data(), elements, 4 * size);
    qd_qdchar_from_utf32(0x20AC, chars, sizeof chars);
    isBefore(text, text);

    EXPECT_EQ(counter.GetCount(), 0u);
}
