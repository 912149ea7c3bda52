#include <QDPlatform/QDChar.h>

#include "AllocationCounter.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <limits>

namespace
{

constexpr int kSmallest = std::numeric_limits<int>::min();
constexpr int kLargest = std::numeric_limits<int>::max();

bool IsOneOf(int c, const char* characters)
{
    return c != 0 && std::strchr(characters, c) != nullptr;
}

TEST(CQDChar, EntriesTakeTwoBytes)
{
    EXPECT_EQ(sizeof(CQDChar::LetterData), 2u);
    EXPECT_EQ(offsetof(CQDChar::LetterData, m_Flags), 0u);
    EXPECT_EQ(offsetof(CQDChar::LetterData, m_DigitValue), 1u);
    EXPECT_EQ(sizeof(CQDChar::g_ASCIILetterData), 256u);
    EXPECT_EQ(sizeof(CQDChar::g_OtherLetterData), 2u);
}

TEST(CQDChar, FlagsHaveTheirValues)
{
    EXPECT_EQ(CQDChar::FlagControl, 0x01);
    EXPECT_EQ(CQDChar::FlagWhitespace, 0x02);
    EXPECT_EQ(CQDChar::FlagUppercase, 0x04);
    EXPECT_EQ(CQDChar::FlagLowercase, 0x08);
    EXPECT_EQ(CQDChar::FlagDigit, 0x10);
    EXPECT_EQ(CQDChar::FlagHexLetter, 0x20);
    EXPECT_EQ(CQDChar::FlagPunctuation, 0x40);
}

TEST(CQDChar, EveryAsciiCharacterHasItsFlagsAndDigitValue)
{
    for (int c = 0; c < 128; ++c) {
        SCOPED_TRACE(c);
        int flags = 0x40;
        int digit = 0;
        if (IsOneOf(c, "\t\n\r ")) {
            flags = 0x02;
        } else if (c < 0x20) {
            flags = 0x01;
        } else if (IsOneOf(c, "ABCDEF")) {
            flags = 0x24;
            digit = c - 'A' + 10;
        } else if (IsOneOf(c, "abcdef")) {
            flags = 0x28;
            digit = c - 'a' + 10;
        } else if (IsOneOf(c, "GHIJKLMNOPQRSTUVWXYZ")) {
            flags = 0x04;
        } else if (IsOneOf(c, "ghijklmnopqrstuvwxyz")) {
            flags = 0x08;
        } else if (IsOneOf(c, "0123456789")) {
            flags = 0x10;
            digit = c - '0';
        }

        EXPECT_EQ(CQDChar::g_ASCIILetterData[c].m_Flags, flags);
        EXPECT_EQ(CQDChar::g_ASCIILetterData[c].m_DigitValue, digit);
    }
}

TEST(CQDChar, TheOtherEntryIsZero)
{
    EXPECT_EQ(CQDChar::g_OtherLetterData.m_Flags, 0);
    EXPECT_EQ(CQDChar::g_OtherLetterData.m_DigitValue, 0);
}

TEST(CQDChar, GetLetterDataPointsIntoTheTableForAscii)
{
    for (int c = 0; c < 128; ++c)
        ASSERT_EQ(CQDChar::GetLetterData(c), &CQDChar::g_ASCIILetterData[c]);
}

TEST(CQDChar, GetLetterDataPointsToTheOtherEntryBeyondAscii)
{
    for (const int c : {kSmallest, -1, 128, 0xE9, 0x141, 0x10041, kLargest}) {
        SCOPED_TRACE(c);
        EXPECT_EQ(CQDChar::GetLetterData(c), &CQDChar::g_OtherLetterData);
    }
}

TEST(CQDChar, DelIsPunctuation)
{
    EXPECT_TRUE(CQDChar::IsChar(0x7F, 0x40));
    EXPECT_FALSE(CQDChar::IsChar(0x7F, 0x01));
}

TEST(CQDChar, IsCharIsTrueForAnyFlagOfTheMask)
{
    const struct
    {
        const char* m_pName;
        int m_Character;
        int m_Mask;
        bool m_Expected;
    } cases[] = {
        {"one flag", 'G', CQDChar::FlagUppercase, true},
        {"another flag", 'G', CQDChar::FlagLowercase, false},
        {"one of two flags", 'G', CQDChar::FlagUppercase | CQDChar::FlagLowercase, true},
        {"the second flag of a hexadecimal letter", 'c', CQDChar::FlagHexLetter, true},
        {"decimal digit as a hexadecimal one", '7', CQDChar::FlagDigit | CQDChar::FlagHexLetter, true},
        {"letter that is not hexadecimal", 'g', CQDChar::FlagDigit | CQDChar::FlagHexLetter, false},
        {"no flag", 'G', 0, false},
        {"a bit that is no flag", 'G', 0x80, false},
        {"all bits", '!', -1, true},
        {"vertical tab, no white space", 0x0B, CQDChar::FlagWhitespace, false},
        {"beyond ASCII", 0xE9, -1, false},
        {"negative", -1, -1, false},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_pName);
        EXPECT_EQ(CQDChar::IsChar(c.m_Character, c.m_Mask), c.m_Expected);
    }
}

TEST(CQDChar, ToUpperAndToLowerMapTheLettersOfAscii)
{
    const char upper[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    const char lower[] = "abcdefghijklmnopqrstuvwxyz";
    for (int i = 0; i < 26; ++i) {
        EXPECT_EQ(CQDChar::ToUpper(lower[i]), upper[i]);
        EXPECT_EQ(CQDChar::ToUpper(upper[i]), upper[i]);
        EXPECT_EQ(CQDChar::ToLower(upper[i]), lower[i]);
        EXPECT_EQ(CQDChar::ToLower(lower[i]), lower[i]);
    }
}

TEST(CQDChar, ToUpperAndToLowerKeepAllOthers)
{
    for (const int c : {kSmallest, -1, 0, 0x35, 0x40, 0x5B, 0x60, 0x7B, 0x7F, 0xC9, 0xE9, 0x3B1, kLargest}) {
        SCOPED_TRACE(c);
        EXPECT_EQ(CQDChar::ToUpper(c), c);
        EXPECT_EQ(CQDChar::ToLower(c), c);
    }
}

TEST(CQDChar, AllocatesNothing)
{
    const AllocationCounter allocations;

    for (const int c : {-1, 0x41, 0x7A, 0xE9}) {
        CQDChar::GetLetterData(c);
        CQDChar::IsChar(c, CQDChar::FlagUppercase);
        CQDChar::ToUpper(c);
        CQDChar::ToLower(c);
    }

    EXPECT_EQ(allocations.GetCount(), 0u);
}

} // namespace
