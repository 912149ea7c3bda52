#include <QDPlatform/COutputLogToRawList.h>

#include <QDPlatform/CTextOutputToOutputLog.h>

#include <cstddef>
#include <cwchar>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "RecordingLog.h"
#include "RecordingTextOutput.h"
#include "VirtualSlot.h"

using LogEntry = COutputLogToRawList::LogEntry;

namespace
{

void FillWithThree(COutputLogToRawList& log)
{
    log.Print("one");
    log.PrintWarning("two");
    log.PrintError(7, "three");
}

void ExpectEntry(const LogEntry& entry, COutputLog::LogType type, int code, const std::string& text)
{
    EXPECT_EQ(entry.type, type);
    EXPECT_EQ(entry.code, code);
    EXPECT_EQ(entry.text, text);
}

} // namespace

TEST(COutputLogToRawListLogEntry, DefaultHasAnEmptyText)
{
    const LogEntry entry{};

    ExpectEntry(entry, COutputLog::Info, 0, "");
}

TEST(COutputLogToRawListLogEntry, FieldsStandInTheirOrder)
{
    EXPECT_EQ(offsetof(LogEntry, type), 0u);
    EXPECT_EQ(offsetof(LogEntry, code), 4u);
    EXPECT_EQ(offsetof(LogEntry, text), 8u);
    EXPECT_TRUE((std::is_same_v<decltype(LogEntry::code), int>));
}

TEST(COutputLogToRawListLogEntry, MoveTakesTheTextAlong)
{
    LogEntry entry{COutputLog::Error, 7, std::string(100, 'x')};
    const char* text = entry.text.data();

    const LogEntry moved(std::move(entry));

    ExpectEntry(moved, COutputLog::Error, 7, std::string(100, 'x'));
    EXPECT_EQ(moved.text.data(), text);
    EXPECT_TRUE(std::is_nothrow_move_constructible_v<LogEntry>);
}

TEST(COutputLogToRawList, VirtualOperationsStandInTheirOrder)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<COutputLogToRawList>); // takes the positions 0 and 1
    EXPECT_EQ(VirtualSlot(&COutputLogToRawList::Clear), 2);
    EXPECT_EQ(VirtualSlot(&COutputLogToRawList::AppendMessage), 3);
}

TEST(COutputLogToRawList, StartsEmpty)
{
    const COutputLogToRawList log;

    EXPECT_TRUE(log.GetEntries().empty());
    EXPECT_TRUE((std::is_base_of_v<COutputLog, COutputLogToRawList>));
}

TEST(COutputLogToRawList, KeepsTypesCodesAndTextsInOrderOfArrival)
{
    COutputLogToRawList log;

    FillWithThree(log);

    ASSERT_EQ(log.GetEntries().size(), 3u);
    auto entry = log.GetEntries().begin();
    ExpectEntry(*entry++, COutputLog::Info, 0, "one");
    ExpectEntry(*entry++, COutputLog::Warning, 0, "two");
    ExpectEntry(*entry, COutputLog::Error, 7, "three");
}

TEST(COutputLogToRawList, AppendMessageTakesExactlyTheLength)
{
    COutputLogToRawList log;
    const char text[4] = {'a', '\0', 'b', 'c'}; // not terminated

    log.AppendMessage(COutputLog::Warning, -3, text, 4);
    log.AppendMessage(COutputLog::Info, 0, "abc", 0);

    ASSERT_EQ(log.GetEntries().size(), 2u);
    ExpectEntry(log.GetEntries().front(), COutputLog::Warning, -3, std::string("a\0bc", 4));
    ExpectEntry(log.GetEntries().back(), COutputLog::Info, 0, "");
}

TEST(COutputLogToRawList, ClearRemovesAllEntries)
{
    COutputLogToRawList log;
    FillWithThree(log);

    log.Clear();

    EXPECT_TRUE(log.GetEntries().empty());
}

TEST(COutputLogToRawList, InsertMessageAtFrontPutsAnInfoEntryFirst)
{
    COutputLogToRawList log;
    FillWithThree(log);

    log.InsertMessageAtFront("%d messages from %s", 3, "bus");

    ASSERT_EQ(log.GetEntries().size(), 4u);
    ExpectEntry(log.GetEntries().front(), COutputLog::Info, 0, "3 messages from bus");
    ExpectEntry(log.GetEntries().back(), COutputLog::Error, 7, "three");
}

TEST(COutputLogToRawList, InsertedMessageIsCutTo255Bytes)
{
    struct Case
    {
        std::size_t m_Length;
        std::string m_Text;
    };

    const Case cases[] = {
        {0, ""},
        {255, std::string(255, 'x')},
        {256, std::string(252, 'x') + "..."},
        {1000, std::string(252, 'x') + "..."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Length);
        COutputLogToRawList log;

        log.InsertMessageAtFront("%s", std::string(c.m_Length, 'x').c_str());

        EXPECT_EQ(log.GetEntries().front().text, c.m_Text);
    }
}

TEST(COutputLogToRawList, InsertedMessageEndsWhereItCannotBeEncoded)
{
    const wint_t notACharacter = 0xD800; // in any locale
    COutputLogToRawList log;

    log.InsertMessageAtFront("ab%lccd", notACharacter);
    log.InsertMessageAtFront("%lc", notACharacter);

    EXPECT_EQ(log.GetEntries().front().text, "");
    EXPECT_EQ(log.GetEntries().back().text, "ab");
}

TEST(COutputLogToRawList, GetFirstEntryOfAnEmptyListIsNull)
{
    const COutputLogToRawList log;

    EXPECT_EQ(log.GetFirstEntry(), nullptr);
}

TEST(COutputLogToRawList, GetFirstEntryIsTheFront)
{
    COutputLogToRawList log;
    FillWithThree(log);

    const LogEntry* entry = log.GetFirstEntry();

    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry, &log.GetEntries().front());
    EXPECT_EQ(entry->text, "one");
}

TEST(COutputLogToRawList, ConsolidatedTextReplacesTheCallersString)
{
    COutputLogToRawList log;
    FillWithThree(log);
    std::string text = "old";

    log.GetConsolidatedOutputLogText(text);

    EXPECT_EQ(text, "one\ntwo\nthree\n");
}

TEST(COutputLogToRawList, ConsolidatedTextOfAnEmptyListIsEmpty)
{
    const COutputLogToRawList log;
    std::string text = "old";

    log.GetConsolidatedOutputLogText(text);

    EXPECT_EQ(text, "");
}

TEST(COutputLogToRawList, AppendLogToStringKeepsWhatIsThere)
{
    COutputLogToRawList log;
    FillWithThree(log);
    std::string text = "old:";

    log.AppendLogToString(text);

    EXPECT_EQ(text, "old:one\ntwo\nthree\n");
}

#ifdef __GLIBCXX__
// This string gives exactly what is reserved when that is more than twice the old capacity; growing bit by bit would
// double the capacity and end elsewhere.
TEST(COutputLogToRawList, AppendLogToStringReservesTheFinalSizeFirst)
{
    COutputLogToRawList log;
    for (int i = 0; i < 10; ++i)
        log.PrintString(std::string(40, 'x'));
    std::string text = "four";

    log.AppendLogToString(text);

    EXPECT_EQ(text.size(), 414u);
    EXPECT_EQ(text.capacity(), 414u);
}
#endif

TEST(COutputLogToRawList, ForwardKeepsOrderTypesCodesAndTexts)
{
    COutputLogToRawList log;
    FillWithThree(log);
    log.PrintString(std::string("a\0b", 3));
    RecordingLog target;
    target.Print("already there");

    log.ForwardOutputLog(&target);

    const std::vector<RecordingLog::Message> expected = {
        {COutputLog::Info, 0, "already there"},
        {COutputLog::Info, 0, "one"},
        {COutputLog::Warning, 0, "two"},
        {COutputLog::Error, 7, "three"},
        {COutputLog::Info, 0, std::string("a\0b", 3)},
    };
    EXPECT_EQ(target.GetMessages(), expected);
    EXPECT_EQ(log.GetEntries().size(), 4u);
}

TEST(COutputLogToRawList, ForwardDoesNotCutLongTexts)
{
    COutputLogToRawList log;
    log.PrintString(std::string(1000, 'x'));
    RecordingLog target;

    log.ForwardOutputLog(&target);

    EXPECT_EQ(target.GetTexts(), std::vector<std::string>{std::string(1000, 'x')});
}

TEST(COutputLogToRawList, ForwardOfAnEmptyListPrintsNothing)
{
    const COutputLogToRawList log;
    RecordingLog target;

    log.ForwardOutputLog(&target);

    EXPECT_TRUE(target.GetMessages().empty());
}

TEST(COutputLogToRawList, ForwardToItselfDoublesTheListAndEnds)
{
    COutputLogToRawList log;
    FillWithThree(log);

    log.ForwardOutputLog(&log);

    std::string text;
    log.GetConsolidatedOutputLogText(text);
    EXPECT_EQ(text, "one\ntwo\nthree\none\ntwo\nthree\n");
}

TEST(COutputLogToRawList, ForwardToAWriterPrintsEachTextAsALine)
{
    COutputLogToRawList log;
    FillWithThree(log);
    log.PrintString("100 %s");
    log.PrintString("");
    log.PrintString(std::string(1000, 'x'));
    RecordingTextOutput target;
    target.AdjustIndent(1);
    CTextOutput* const writer = &target;

    log.ForwardOutputLog(writer);

    EXPECT_EQ(target.GetText(), "\tone\r\n\ttwo\r\n\tthree\r\n\t100 %s\r\n\t\r\n\t" + std::string(1000, 'x') + "\r\n");
    EXPECT_EQ(log.GetEntries().size(), 6u);
}

TEST(COutputLogToRawList, ForwardToAWriterEndsATextAtItsNul)
{
    COutputLogToRawList log;
    log.PrintString(std::string("a\0b", 3));
    RecordingTextOutput target;

    log.ForwardOutputLog(&target);

    EXPECT_EQ(target.GetText(), "a\r\n");
}

TEST(COutputLogToRawList, ForwardOfAnEmptyListWritesNothing)
{
    const COutputLogToRawList log;
    RecordingTextOutput target;

    log.ForwardOutputLog(&target);

    EXPECT_EQ(target.GetCallCount(), 0u);
}

TEST(COutputLogToRawList, ForwardToAWriterIntoTheSameListDoublesItAndEnds)
{
    COutputLogToRawList log;
    FillWithThree(log);
    CTextOutputToOutputLog target(&log);

    log.ForwardOutputLog(&target);

    ASSERT_EQ(log.GetEntries().size(), 6u);
    ExpectEntry(log.GetEntries().back(), COutputLog::Info, 0, "three");
}

TEST(COutputLogToRawList, ComparisonLooksAtCountTypeCodeTextAndOrder)
{
    struct Case
    {
        const char* m_Name;
        std::vector<LogEntry> m_Other;
        bool m_Equal;
    };

    const Case cases[] = {
        {"same", {{COutputLog::Info, 0, "a"}, {COutputLog::Error, 5, "b"}}, true},
        {"other type", {{COutputLog::Warning, 0, "a"}, {COutputLog::Error, 5, "b"}}, false},
        {"other code", {{COutputLog::Info, 0, "a"}, {COutputLog::Error, 6, "b"}}, false},
        {"other text", {{COutputLog::Info, 0, "a"}, {COutputLog::Error, 5, "B"}}, false},
        {"other order", {{COutputLog::Error, 5, "b"}, {COutputLog::Info, 0, "a"}}, false},
        {"one fewer", {{COutputLog::Info, 0, "a"}}, false},
        {"one more", {{COutputLog::Info, 0, "a"}, {COutputLog::Error, 5, "b"}, {COutputLog::Info, 0, ""}}, false},
        {"none", {}, false},
    };
    COutputLogToRawList log;
    log.Print("a");
    log.PrintError(5, "b");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);
        COutputLogToRawList other;
        for (const LogEntry& entry : c.m_Other)
            other.AppendMessage(entry.type, entry.code, entry.text.data(), static_cast<unsigned>(entry.text.size()));

        EXPECT_EQ(log == other, c.m_Equal);
        EXPECT_EQ(log != other, !c.m_Equal);
        EXPECT_EQ(other == log, c.m_Equal);
        EXPECT_EQ(other != log, !c.m_Equal);
    }
}

TEST(COutputLogToRawList, EmptyListsAreEqual)
{
    EXPECT_TRUE(COutputLogToRawList() == COutputLogToRawList());
    EXPECT_FALSE(COutputLogToRawList() != COutputLogToRawList());
}

TEST(COutputLogToRawList, CopyIsEqualAndGoesItsOwnWay)
{
    COutputLogToRawList original;
    FillWithThree(original);

    COutputLogToRawList copy(original);
    EXPECT_TRUE(copy == original);
    copy.Clear();

    EXPECT_EQ(original.GetEntries().size(), 3u);
}
