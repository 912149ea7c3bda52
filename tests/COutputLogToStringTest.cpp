#include <QDPlatform/COutputLogToString.h>

#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "VirtualSlot.h"

TEST(COutputLogToString, StartsEmpty)
{
    const COutputLogToString log;

    EXPECT_EQ(log.GetText(), "");
}

TEST(COutputLogToString, IsALogThatHoldsOneString)
{
    EXPECT_TRUE((std::is_base_of_v<COutputLog, COutputLogToString>));
    EXPECT_EQ(sizeof(COutputLogToString), sizeof(void*) + sizeof(std::string));
}

TEST(COutputLogToString, VirtualOperationsStandInTheirOrder)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<COutputLogToString>); // takes the positions 0 and 1
    EXPECT_EQ(VirtualSlot(&COutputLogToString::Clear), 2);
    EXPECT_EQ(VirtualSlot(&COutputLogToString::AppendMessage), 3);
}

TEST(COutputLogToString, EachMessageIsALine)
{
    COutputLogToString log;

    log.Print("one");
    log.Print("two");

    EXPECT_EQ(log.GetText(), "one\ntwo\n");
}

TEST(COutputLogToString, TypeAndCodeAreDropped)
{
    COutputLogToString log;

    log.PrintWarning("warning");
    log.PrintError(5, "error");

    EXPECT_EQ(log.GetText(), "warning\nerror\n");
}

TEST(COutputLogToString, AppendMessageTakesExactlyTheLength)
{
    COutputLogToString log;
    const char text[4] = {'a', '\0', 'b', 'c'}; // not terminated

    log.AppendMessage(COutputLog::Info, 0, text, 4);
    log.AppendMessage(COutputLog::Info, 0, "abc", 2);
    log.AppendMessage(COutputLog::Info, 0, "abc", 0);

    EXPECT_EQ(log.GetText(), std::string("a\0bc\nab\n\n", 9));
}

TEST(COutputLogToString, ClearEmptiesTheText)
{
    COutputLogToString log;
    log.Print("one");

    log.Clear();
    log.Print("two");

    EXPECT_EQ(log.GetText(), "two\n");
}

TEST(COutputLogToString, CopyHasTheTextAndGoesItsOwnWay)
{
    COutputLogToString original;
    original.Print("one");

    COutputLogToString copy(original);
    copy.Print("two");

    EXPECT_EQ(copy.GetText(), "one\ntwo\n");
    EXPECT_EQ(original.GetText(), "one\n");
}

TEST(COutputLogToString, GetFirstLineGivesWhatStandsBeforeTheFirstNewline)
{
    COutputLogToString log;
    log.Print("one");
    log.Print("two");
    std::string line = "old";

    log.GetFirstLine(line);

    EXPECT_EQ(line, "one");
}

TEST(COutputLogToString, GetFirstLineEndsAtANewlineInsideAMessage)
{
    COutputLogToString log;
    log.PrintString("a\nb");
    std::string line = "old";

    log.GetFirstLine(line);

    EXPECT_EQ(line, "a");
}

TEST(COutputLogToString, GetFirstLineOfAnEmptyMessageIsEmpty)
{
    COutputLogToString log;
    log.PrintString("");
    std::string line = "old";

    log.GetFirstLine(line);

    EXPECT_EQ(line, "");
}

TEST(COutputLogToString, GetFirstLineOfTextWithoutNewlineLeavesTheCallersString)
{
    const COutputLogToString log;
    std::string line = "old";

    log.GetFirstLine(line);

    EXPECT_EQ(line, "old");
}
