#include <QDPlatform/COutputLogToTextOutput.h>

#include <QDPlatform/CTextOutputNull.h>
#include <QDPlatform/CTextOutputString.h>

#include <memory>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "AllocationCounter.h"
#include "RecordingTextOutput.h"
#include "VirtualSlot.h"

TEST(COutputLogToTextOutput, IsALogThatCannotBeCopied)
{
    EXPECT_TRUE((std::is_base_of_v<COutputLog, COutputLogToTextOutput>));
    EXPECT_FALSE(std::is_copy_constructible_v<COutputLogToTextOutput>);
    EXPECT_FALSE(std::is_copy_assignable_v<COutputLogToTextOutput>);
}

TEST(COutputLogToTextOutput, VirtualOperationsStandInTheirOrder)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<COutputLogToTextOutput>); // takes the positions 0 and 1
    EXPECT_EQ(VirtualSlot(&COutputLogToTextOutput::Clear), 2);
    EXPECT_EQ(VirtualSlot(&COutputLogToTextOutput::AppendMessage), 3);
}

TEST(COutputLogToTextOutput, EachMessageIsALineWithoutTypeAndCode)
{
    CTextOutputString output;
    COutputLogToTextOutput log(output);

    log.Print("one %d", 1);
    log.PrintWarning("two");
    log.PrintError(7, "three");
    log.PrintString("");

    EXPECT_EQ(output.GetText(), "one 1\r\ntwo\r\nthree\r\n\r\n");
}

TEST(COutputLogToTextOutput, LinesAreThoseOfTheWriter)
{
    CTextOutputString output;
    output.SetLineTermination(LineTerminationLF);
    COutputLogToTextOutput log(output);

    output.PrintLine("heading");
    output.AdjustIndent(1);
    log.Print("a");
    output.SetIndentCharacters(' ', 4);
    log.Print("b");

    EXPECT_EQ(output.GetText(), "heading\n\ta\n    b\n");
    EXPECT_EQ(output.GetTextLocation().GetLine(), 4);
}

TEST(COutputLogToTextOutput, TextIsNotAFormat)
{
    CTextOutputString output;
    COutputLogToTextOutput log(output);

    log.PrintString("100 %s %n %5d");

    EXPECT_EQ(output.GetText(), "100 %s %n %5d\r\n");
}

TEST(COutputLogToTextOutput, ClearLeavesWhatIsWritten)
{
    CTextOutputString output;
    COutputLogToTextOutput log(output);
    log.Print("a");

    log.Clear();
    log.Print("b");

    EXPECT_EQ(output.GetText(), "a\r\nb\r\n");
}

TEST(COutputLogToTextOutput, LengthBoundsATextWithoutATerminator)
{
    const std::unique_ptr<char[]> text(new char[3]{'a', 'b', 'c'}); // an access behind it is seen by the sanitizer
    CTextOutputString output;
    COutputLogToTextOutput log(output);

    log.AppendMessage(COutputLog::Info, 0, text.get(), 3);
    log.AppendMessage(COutputLog::Info, 0, text.get(), 1);
    log.AppendMessage(COutputLog::Info, 0, text.get(), 0);
    log.AppendMessage(COutputLog::Info, 0, nullptr, 0);

    EXPECT_EQ(output.GetText(), "abc\r\na\r\n\r\n\r\n");
}

TEST(COutputLogToTextOutput, TextEndsAtANul)
{
    CTextOutputString output;
    COutputLogToTextOutput log(output);

    log.AppendMessage(COutputLog::Error, 3, "ab\0cd", 5);

    EXPECT_EQ(output.GetText(), "ab\r\n");
}

TEST(COutputLogToTextOutput, IllFormedUtf8BecomesReplacementCharacters)
{
    CTextOutputString output;
    COutputLogToTextOutput log(output);

    log.PrintString("a\xFF"
                    "b\xE2\x82");

    EXPECT_EQ(output.GetText(), "a\xEF\xBF\xBD"
                                "b\xEF\xBF\xBD\r\n");
}

TEST(COutputLogToTextOutput, LongTextIsNotCut)
{
    const std::string text(10000, 'x');
    CTextOutputString output;
    COutputLogToTextOutput log(output);

    log.PrintString(text);

    EXPECT_EQ(output.GetText(), text + "\r\n");
}

TEST(COutputLogToTextOutput, FailureOfTheWriterIsIgnored)
{
    RecordingTextOutput output;
    output.FailFrom(2, 1);
    COutputLogToTextOutput log(output);

    log.Print("abc");

    EXPECT_EQ(output.GetText(), "ac\r\n");
}

TEST(COutputLogToTextOutput, PrintingIsAllocationFree)
{
    CTextOutputNull output;
    COutputLogToTextOutput log(output);
    const AllocationCounter allocations;

    for (int i = 0; i < 1000; ++i)
        log.Print("message %d", i);

    EXPECT_EQ(allocations.GetCount(), 0u);
}
