#include <QDPlatform/CTextOutputNull.h>

#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "AllocationCounter.h"
#include "VirtualSlot.h"

TEST(CTextOutputNull, IsATextOutputWithoutDataOfItsOwn)
{
    EXPECT_TRUE((std::is_base_of_v<CTextOutput, CTextOutputNull>));
    EXPECT_EQ(sizeof(CTextOutputNull), sizeof(CTextOutput));
    EXPECT_FALSE(std::is_copy_constructible_v<CTextOutputNull>);
    EXPECT_FALSE(std::is_copy_assignable_v<CTextOutputNull>);
}

TEST(CTextOutputNull, VirtualOperationsStandInTheirOrder)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<CTextOutputNull>); // takes the positions 0 and 1
    EXPECT_EQ(VirtualSlot(&CTextOutputNull::WriteCodePoint), 2);
    EXPECT_EQ(VirtualSlot(&CTextOutputNull::WriteNewLine), 3);
    EXPECT_EQ(VirtualSlot(&CTextOutputNull::IndentNewLine), 4);
}

TEST(CTextOutputNull, EveryCodePointIsTaken)
{
    CTextOutputNull output;

    for (const int codePoint : {0, 0x61, 0xD800, 0x10FFFF, 0x110000, -1})
        EXPECT_TRUE(output.WriteCodePoint(codePoint)) << codePoint;
    EXPECT_TRUE(output.WriteNewLine());
    EXPECT_TRUE(output.WriteString("a\nb"));
    EXPECT_TRUE(output.WriteCodePoints(3, 'x'));
}

TEST(CTextOutputNull, LocationMovesAsInEveryWriter)
{
    CTextOutputNull output;

    output.PrintLine("one");
    output.AdjustIndent(1);
    output.Print("ab");

    EXPECT_EQ(output.GetTextLocation().GetLine(), 2);
    EXPECT_EQ(output.GetTextLocation().GetColumn(), 7); // a TAB and two letters
    EXPECT_EQ(output.GetTextLocation().GetIndexInLine(), 3);
}

TEST(CTextOutputNull, WritingIsAllocationFree)
{
    const std::string text(1000, 'x');
    CTextOutputNull output;
    const AllocationCounter allocations;

    output.WriteString(text);
    output.WriteCodePoints(10000, 0x20AC);
    output.PrintLine("%d", 5);

    EXPECT_EQ(allocations.GetCount(), 0u);
}
