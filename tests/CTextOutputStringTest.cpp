#include <QDPlatform/CTextOutputString.h>

#include <cstdint>
#include <limits>
#include <new>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "AllocationCounter.h"
#include "VirtualSlot.h"

namespace
{

void ExpectFreshLocation(const CTextOutput& output)
{
    EXPECT_EQ(output.GetTextLocation().GetLine(), 1);
    EXPECT_EQ(output.GetTextLocation().GetColumn(), 1);
    EXPECT_EQ(output.GetTextLocation().GetIndexInLine(), 0);
}

// A writer whose text is "ab", cut by its maximum length.
void FillAndCut(CTextOutputString& output)
{
    output.SetMaxLength(2);
    output.WriteString("abc");
}

} // namespace

TEST(CTextOutputString, IsATextOutputThatCannotBeCopied)
{
    EXPECT_TRUE((std::is_base_of_v<CTextOutput, CTextOutputString>));
    EXPECT_FALSE(std::is_copy_constructible_v<CTextOutputString>);
    EXPECT_FALSE(std::is_copy_assignable_v<CTextOutputString>);
}

TEST(CTextOutputString, HasTheFieldsItNeedsAndNoMore)
{
    struct Fields : CTextOutput
    {
        std::string m_Text;
        int32_t m_MaxLines;
        uint32_t m_MaxLength;
        bool m_IsTruncated;
    };

    EXPECT_EQ(sizeof(CTextOutputString), sizeof(Fields));
}

TEST(CTextOutputString, VirtualOperationsStandInTheirOrder)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<CTextOutputString>); // takes the positions 0 and 1
    EXPECT_EQ(VirtualSlot(&CTextOutputString::WriteCodePoint), 2);
    EXPECT_EQ(VirtualSlot(&CTextOutputString::WriteNewLine), 3);
    EXPECT_EQ(VirtualSlot(&CTextOutputString::IndentNewLine), 4);
}

TEST(CTextOutputString, StartsEmptyAndWhole)
{
    const CTextOutputString output;

    EXPECT_EQ(output.GetText(), "");
    EXPECT_FALSE(output.IsTruncated());
    ExpectFreshLocation(output);
}

TEST(CTextOutputString, NewTextIsNotCutInManyLinesAndBytes)
{
    CTextOutputString output;

    output.WriteCodePoints(100000, 'x');
    for (int i = 0; i < 100000; ++i)
        output.WriteNewLine();

    EXPECT_EQ(output.GetText().size(), 300000u);
    EXPECT_FALSE(output.IsTruncated());
}

TEST(CTextOutputString, CollectsLinesIndentationAndFormattedText)
{
    CTextOutputString output;

    output.PrintLine("%s = %d", "a", 1);
    output.AdjustIndent(2);
    output.PrintLine("b");

    EXPECT_EQ(output.GetText(), "a = 1\r\n\t\tb\r\n");
}

TEST(CTextOutputString, CodePointsAreEncodedAsUtf8)
{
    struct Case
    {
        int m_CodePoint;
        const char* m_Text;
    };

    const Case cases[] = {
        {'a', "a"},
        {0x7F, "\x7F"},
        {0x80, "\xC2\x80"},
        {0x7FF, "\xDF\xBF"},
        {0x800, "\xE0\xA0\x80"},
        {0xFFFF, "\xEF\xBF\xBF"},
        {0x10000, "\xF0\x90\x80\x80"},
        {0x10FFFF, "\xF4\x8F\xBF\xBF"},
        {0xD800, "\xED\xA0\x80"},
        {-1, "\xFF"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_CodePoint);
        CTextOutputString output;

        EXPECT_TRUE(output.WriteCodePoint(c.m_CodePoint));

        EXPECT_EQ(output.GetText(), c.m_Text);
    }
}

TEST(CTextOutputString, NulIsACharacterOfTheText)
{
    CTextOutputString output;

    output.WriteCodePoint('a');
    output.WriteCodePoint(0);
    output.WriteCodePoint('b');

    EXPECT_EQ(output.GetText(), std::string("a\0b", 3));
}

TEST(CTextOutputString, WriteCodePointDoesNotMoveTheLocation)
{
    CTextOutputString output;

    output.WriteCodePoint('a');
    output.WriteCodePoint('\n');

    ExpectFreshLocation(output);
}

TEST(CTextOutputString, MaxLengthCutsWithOneMark)
{
    struct Case
    {
        const char* m_Name;
        unsigned int m_MaxLength;
        const char* m_Written;
        const char* m_Text;
        bool m_IsTruncated;
    };

    const Case cases[] = {
        {"shorter", 5, "abcd", "abcd", false},
        {"as long", 5, "abcde", "abcde", false},
        {"one more", 5, "abcdef", "abcde...", true},
        {"three more", 5, "abcdefgh", "abcde...", true},
        {"0 keeps nothing", 0, "a", "...", true},
        {"0 without text", 0, "", "", false},
        {"last code point passes the limit", 5, "abcd\xE2\x82\xAC", "abcd\xE2\x82\xAC", false},
        {"and the next is cut", 5, "abcd\xE2\x82\xACx", "abcd\xE2\x82\xAC...", true},
        {"no limit", 0xFFFFFFFF, "abcdefgh", "abcdefgh", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);
        CTextOutputString output;
        output.SetMaxLength(c.m_MaxLength);

        EXPECT_TRUE(output.WriteString(c.m_Written));

        EXPECT_EQ(output.GetText(), c.m_Text);
        EXPECT_EQ(output.IsTruncated(), c.m_IsTruncated);
    }
}

TEST(CTextOutputString, MaxLengthCutsLineEndsToo)
{
    CTextOutputString output;
    output.SetMaxLength(4);

    output.PrintLine("abc");
    output.PrintLine("d");

    EXPECT_EQ(output.GetText(), "abc\r...");
}

TEST(CTextOutputString, MaxLengthMarkHasNoIndentation)
{
    CTextOutputString output;
    output.SetMaxLength(2);
    output.AdjustIndent(2);

    output.Print("ab");

    EXPECT_EQ(output.GetText(), "\t\t...");
}

TEST(CTextOutputString, LengthBelowThatOfTheTextCutsAtTheNextCodePoint)
{
    CTextOutputString output;
    output.WriteString("abcd");

    output.SetMaxLength(2);

    EXPECT_EQ(output.GetText(), "abcd");
    EXPECT_FALSE(output.IsTruncated());
    output.WriteString("e");
    EXPECT_EQ(output.GetText(), "abcd...");
    EXPECT_TRUE(output.IsTruncated());
}

TEST(CTextOutputString, SetMaxLengthReservesTheText)
{
    CTextOutputString output;
    output.SetMaxLength(100000);
    EXPECT_GE(output.GetText().capacity(), 100000u);
    const AllocationCounter allocations;

    output.WriteCodePoints(100000, 'x');

    EXPECT_EQ(allocations.GetCount(), 0u);
    EXPECT_FALSE(output.IsTruncated());
    output.WriteCodePoint('x');
    EXPECT_EQ(output.GetText().substr(99998), "xx...");
}

TEST(CTextOutputString, NoLimitReservesNothing)
{
    CTextOutputString output;
    const AllocationCounter allocations;

    output.SetMaxLength(0xFFFFFFFF);

    EXPECT_EQ(allocations.GetCount(), 0u);
    EXPECT_LT(output.GetText().capacity(), 100u);
}

TEST(CTextOutputString, LimitBeyondTheMemoryIsKeptWithoutReservation)
{
    for (const unsigned int maxLength : {0xFFFFFFFEu, 0x80000000u, 0x7FFFFFFFu, 0x10000000u}) {
        SCOPED_TRACE(maxLength);
        const AllocationLimit limit(1 << 20);
        CTextOutputString output;

        output.SetMaxLength(maxLength);
        output.WriteString("abc");

        EXPECT_EQ(output.GetText(), "abc");
        EXPECT_LT(output.GetText().capacity(), 100u);
    }
}

TEST(CTextOutputString, LimitThatCouldNotBeReservedCutsAllTheSame)
{
    CTextOutputString output;
    {
        const AllocationLimit limit(16);
        output.SetMaxLength(1000);
    }
    ASSERT_LT(output.GetText().capacity(), 1000u);

    output.WriteCodePoints(1001, 'x');

    EXPECT_EQ(output.GetText(), std::string(1000, 'x') + "...");
}

TEST(CTextOutputString, TextWhoseMarkFindsNoMemoryIsCutWithoutIt)
{
    CTextOutputString output;
    output.SetMaxLines(0);
    output.AdjustIndent(1000);
    {
        const AllocationLimit limit(16);
        EXPECT_THROW(output.WriteCodePoint('x'), std::bad_alloc);
    }

    EXPECT_TRUE(output.WriteCodePoint('x'));

    EXPECT_EQ(output.GetText(), "");
    EXPECT_TRUE(output.IsTruncated());
}

TEST(CTextOutputString, MaxLinesCutsWithOneIndentedMark)
{
    struct Case
    {
        const char* m_Name;
        int m_MaxLines;
        int m_Indent;
        const char* m_Text;
        bool m_IsTruncated;
    };

    const Case cases[] = {
        {"one line, level 2", 1, 2, "one\r\n\t\t...", true},
        {"one line, level 0", 1, 0, "one\r\n...", true},
        {"one line, negative level", 1, -3, "one\r\n...", true},
        {"two lines", 2, 1, "one\r\n\ttwo\r\n\t...", true},
        {"three lines", 3, 1, "one\r\n\ttwo\r\n\tthree\r\n", false},
        {"no line", 0, 2, "...", true},
        {"negative", -1, 2, "...", true},
        {"all", std::numeric_limits<int>::max(), 1, "one\r\n\ttwo\r\n\tthree\r\n", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);
        CTextOutputString output;
        output.SetMaxLines(c.m_MaxLines);

        output.PrintLine("one");
        output.AdjustIndent(c.m_Indent);
        output.PrintLine("two");
        output.PrintLine("three");

        EXPECT_EQ(output.GetText(), c.m_Text);
        EXPECT_EQ(output.IsTruncated(), c.m_IsTruncated);
    }
}

TEST(CTextOutputString, MarkOfACutLineIsIndentedByTabsWhateverTheIndentation)
{
    CTextOutputString output;
    output.SetMaxLines(1);
    output.SetIndentCharacters(' ', 4);
    output.PrintLine();

    output.AdjustIndent(2);
    output.WriteString("x");

    EXPECT_EQ(output.GetText(), "\r\n\t\t...");
}

TEST(CTextOutputString, LineAboveTheMaximumIsMarkedAsSuchInAFullTextToo)
{
    CTextOutputString output;
    output.SetMaxLines(1);
    output.SetMaxLength(2);
    output.PrintLine();
    output.AdjustIndent(1);

    output.WriteString("x");

    EXPECT_EQ(output.GetText(), "\r\n\t...");
}

TEST(CTextOutputString, LineFeedWrittenAsACodePointStaysOnItsLine)
{
    CTextOutputString output;
    output.SetMaxLines(1);

    output.WriteCodePoint('\n');
    output.WriteCodePoint('x');

    EXPECT_EQ(output.GetText(), "\nx");
}

TEST(CTextOutputString, NothingIsWrittenBehindACut)
{
    CTextOutputString output;
    FillAndCut(output);

    output.SetMaxLength(0xFFFFFFFF);
    output.SetMaxLines(0);
    EXPECT_TRUE(output.WriteCodePoint('x'));
    EXPECT_TRUE(output.WriteNewLine());

    EXPECT_EQ(output.GetText(), "ab...");
    EXPECT_TRUE(output.IsTruncated());
}

TEST(CTextOutputString, LocationMovesBehindACut)
{
    CTextOutputString output;
    FillAndCut(output);

    output.PrintLine("x");

    EXPECT_EQ(output.GetTextLocation().GetLine(), 2);
}

TEST(CTextOutputString, MoveStringLeavesAnEmptyTextAtTheStart)
{
    for (const std::string& text : {std::string("short"), std::string(1000, 'x')}) {
        SCOPED_TRACE(text.size());
        CTextOutputString output;
        output.PrintLine("%s", text.c_str());
        output.Print("y");

        EXPECT_EQ(output.MoveString(), text + "\r\ny");

        EXPECT_EQ(output.GetText(), "");
        ExpectFreshLocation(output);
        output.WriteString("new");
        EXPECT_EQ(output.GetText(), "new");
    }
}

TEST(CTextOutputString, MoveStringHandsOverTheTextItself)
{
    CTextOutputString output;
    output.WriteString(std::string(1000, 'x'));
    const char* const characters = output.GetText().data();
    const AllocationCounter allocations;

    const std::string text = output.MoveString();

    EXPECT_EQ(text.data(), characters);
    EXPECT_EQ(allocations.GetCount(), 0u);
}

TEST(CTextOutputString, MoveStringKeepsTheTextCut)
{
    CTextOutputString output;
    FillAndCut(output);

    EXPECT_EQ(output.MoveString(), "ab...");

    EXPECT_TRUE(output.IsTruncated());
    output.WriteString("x");
    EXPECT_EQ(output.GetText(), "");
}

TEST(CTextOutputString, MoveStringKeepsTheLimits)
{
    CTextOutputString output;
    output.SetMaxLength(2);
    output.SetMaxLines(1);
    output.WriteString("a");

    output.MoveString();
    output.WriteString("xyz");

    EXPECT_EQ(output.GetText(), "xy...");
}

TEST(CTextOutputString, ClearBeginsAnew)
{
    CTextOutputString output;
    FillAndCut(output);
    output.PrintLine("x");

    output.Clear();

    EXPECT_EQ(output.GetText(), "");
    EXPECT_FALSE(output.IsTruncated());
    ExpectFreshLocation(output);
    output.WriteString("xyz");
    EXPECT_EQ(output.GetText(), "xy...");
}

TEST(CTextOutputString, ClearAfterMoveStringWritesAgain)
{
    CTextOutputString output;
    FillAndCut(output);
    output.MoveString();

    output.Clear();
    output.WriteString("a");

    EXPECT_EQ(output.GetText(), "a");
    EXPECT_FALSE(output.IsTruncated());
}

TEST(CTextOutputString, TextOfTheSameLengthAfterClearAllocatesNothing)
{
    CTextOutputString output;
    output.WriteCodePoints(1000, 0x20AC);
    output.Clear();
    const AllocationCounter allocations;

    output.WriteCodePoints(1000, 0x20AC);

    EXPECT_EQ(allocations.GetCount(), 0u);
}

TEST(CTextOutputString, GrowthAllocatesRarely)
{
    CTextOutputString output;
    const AllocationCounter allocations;

    output.WriteCodePoints(100000, 'x');

    EXPECT_LT(allocations.GetCount(), 40u);
}
