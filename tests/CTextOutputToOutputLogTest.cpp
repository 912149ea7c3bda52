#include <QDPlatform/CTextOutputToOutputLog.h>

#include <QDPlatform/COutputLogNull.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "AllocationCounter.h"
#include "RecordingLog.h"
#include "VirtualSlot.h"

namespace
{

using Texts = std::vector<std::string>;

// The UTF-8 of U+1F600.
const std::string kFourByteCharacter = "\xF0\x9F\x98\x80";

std::string Repeat(const std::string& text, int count)
{
    std::string result;
    for (int i = 0; i < count; ++i)
        result += text;
    return result;
}

} // namespace

TEST(CTextOutputToOutputLog, IsATextOutputThatCannotBeCopied)
{
    EXPECT_TRUE((std::is_base_of_v<CTextOutput, CTextOutputToOutputLog>));
    EXPECT_FALSE(std::is_copy_constructible_v<CTextOutputToOutputLog>);
    EXPECT_FALSE(std::is_copy_assignable_v<CTextOutputToOutputLog>);
}

TEST(CTextOutputToOutputLog, HasTheFieldsItNeedsAndNoMore)
{
    struct Fields : CTextOutput
    {
        COutputLog* m_pOutputLog;
        char m_Line[512];
        uint32_t m_LineLength;
    };

    EXPECT_EQ(sizeof(CTextOutputToOutputLog), sizeof(Fields));
}

TEST(CTextOutputToOutputLog, VirtualOperationsStandInTheirOrder)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<CTextOutputToOutputLog>); // takes the positions 0 and 1
    EXPECT_EQ(VirtualSlot(&CTextOutputToOutputLog::WriteCodePoint), 2);
    EXPECT_EQ(VirtualSlot(&CTextOutputToOutputLog::WriteNewLine), 3);
    EXPECT_EQ(VirtualSlot(&CTextOutputToOutputLog::IndentNewLine), 4);
}

TEST(CTextOutputToOutputLog, EachLineIsOneInfoMessage)
{
    RecordingLog log;
    CTextOutputToOutputLog output(&log);

    output.PrintLine("%s %d", "one", 1);
    output.WriteString("two\r\n\nthree\n");

    const std::vector<RecordingLog::Message> expected = {
        {COutputLog::Info, 0, "one 1"},
        {COutputLog::Info, 0, "two"},
        {COutputLog::Info, 0, ""},
        {COutputLog::Info, 0, "three"},
    };
    EXPECT_EQ(log.GetMessages(), expected);
}

TEST(CTextOutputToOutputLog, LineTerminationHasNoMeaning)
{
    for (const TextLineTermination termination : {LineTerminationCR, LineTerminationCRLF, LineTerminationPS}) {
        SCOPED_TRACE(termination);
        RecordingLog log;
        CTextOutputToOutputLog output(&log);
        output.SetLineTermination(termination);

        output.PrintLine("a");

        EXPECT_EQ(log.GetTexts(), Texts{"a"});
    }
}

TEST(CTextOutputToOutputLog, OneLevelOfIndentationIsTwoBlanks)
{
    RecordingLog log;
    CTextOutputToOutputLog output(&log);

    output.AdjustIndent(2);
    output.PrintLine("a");
    output.PrintLine("b");

    EXPECT_EQ(log.GetTexts(), (Texts{"    a", "    b"}));
}

TEST(CTextOutputToOutputLog, NewLineMovesTheLocationAndNothingElseDoes)
{
    RecordingLog log;
    CTextOutputToOutputLog output(&log);

    EXPECT_TRUE(output.WriteCodePoint('a'));
    EXPECT_EQ(output.GetTextLocation().GetColumn(), 1);
    output.Print("bcd");
    EXPECT_TRUE(output.WriteNewLine());

    EXPECT_EQ(output.GetTextLocation().GetLine(), 2);
    EXPECT_EQ(output.GetTextLocation().GetColumn(), 1);
    EXPECT_EQ(output.GetTextLocation().GetIndexInLine(), 0);
}

TEST(CTextOutputToOutputLog, TextIsUtf8)
{
    RecordingLog log;
    CTextOutputToOutputLog output(&log);

    for (const int codePoint : {0x61, 0xE9, 0x20AC, 0x1F600, 0})
        EXPECT_TRUE(output.WriteCodePoint(codePoint));
    output.WriteNewLine();

    EXPECT_EQ(log.GetTexts(), Texts{std::string("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\0", 11)});
}

TEST(CTextOutputToOutputLog, LineFeedOfAFormatIsACharacterOfTheLine)
{
    RecordingLog log;
    CTextOutputToOutputLog output(&log);

    output.PrintLine("a\nb");

    EXPECT_EQ(log.GetTexts(), Texts{"a\nb"});
}

TEST(CTextOutputToOutputLog, LongLineIsCutBehindItsLast508Bytes)
{
    struct Case
    {
        const char* m_Name;
        std::string m_Written;
        std::string m_Message;
    };

    const std::string ascii508(508, 'x');
    const Case cases[] = {
        {"508 bytes", ascii508, ascii508},
        {"509 bytes", ascii508 + "a", ascii508 + "a"},
        {"510 bytes", ascii508 + "ab", ascii508 + "a"},
        {"600 bytes", std::string(600, 'x'), std::string(509, 'x')},
        {"4 bytes behind 508", ascii508 + kFourByteCharacter + "a", ascii508 + kFourByteCharacter},
        {"3 bytes behind 508", ascii508 + "\xE2\x82\xAC" + "a", ascii508 + "\xE2\x82\xAC"},
        {"4 bytes behind 509", ascii508 + "a" + kFourByteCharacter, ascii508 + "a"},
        {"4 bytes each", Repeat(kFourByteCharacter, 129), Repeat(kFourByteCharacter, 128)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);
        RecordingLog log;
        CTextOutputToOutputLog output(&log);

        EXPECT_TRUE(output.WriteString(c.m_Written));
        output.WriteNewLine();

        EXPECT_EQ(log.GetTexts(), Texts{c.m_Message});
    }
}

TEST(CTextOutputToOutputLog, LineAfterACutOneIsWhole)
{
    RecordingLog log;
    CTextOutputToOutputLog output(&log);

    output.PrintLine("%s", std::string(600, 'x').c_str());
    output.PrintLine("next");

    EXPECT_EQ(log.GetTexts(), (Texts{std::string(509, 'x'), "next"}));
}

TEST(CTextOutputToOutputLog, LineIsTerminatedWhereThereIsRoom)
{
    // Notes whether a NUL follows the text, which only a line of less than 512 bytes has room for.
    class TerminationLog : public COutputLogNull
    {
    public:
        void AppendMessage(LogType, int, const qdchar* text, unsigned int length) override
        {
            m_IsTerminated = text[length] == '\0';
        }

        bool m_IsTerminated{false};
    };

    TerminationLog log;
    CTextOutputToOutputLog output(&log);
    output.PrintLine("a longer line");

    output.PrintLine("short");

    EXPECT_TRUE(log.m_IsTerminated);
}

TEST(CTextOutputToOutputLog, LineBufferIsZeroedAtFirst)
{
    // Keeps the whole buffer that the text stands in.
    class BufferLog : public COutputLogNull
    {
    public:
        void AppendMessage(LogType, int, const qdchar* text, unsigned int) override { m_Buffer.assign(text, 512); }

        std::string m_Buffer;
    };

    BufferLog log;
    alignas(CTextOutputToOutputLog) unsigned char memory[sizeof(CTextOutputToOutputLog)];
    std::fill(std::begin(memory), std::end(memory), static_cast<unsigned char>(0xFF));
    auto* const output = new (memory) CTextOutputToOutputLog(&log);

    output->PrintLine("ab");

    EXPECT_EQ(log.m_Buffer, "ab" + std::string(510, '\0'));
    output->~CTextOutputToOutputLog();
}

TEST(CTextOutputToOutputLog, LineThatTheLogRefusesDoesNotBeginTheNext)
{
    // Refuses the first message.
    class RefusingLog : public RecordingLog
    {
    public:
        void AppendMessage(LogType type, int code, const qdchar* text, unsigned int length) override
        {
            if (std::exchange(m_IsRefusing, false))
                throw std::bad_alloc();
            RecordingLog::AppendMessage(type, code, text, length);
        }

        bool m_IsRefusing{true};
    };

    RefusingLog log;
    CTextOutputToOutputLog output(&log);

    EXPECT_THROW(output.PrintLine("one"), std::bad_alloc);
    EXPECT_EQ(output.GetTextLocation().GetLine(), 1);
    output.PrintLine("two");

    EXPECT_EQ(log.GetTexts(), Texts{"two"});
}

TEST(CTextOutputToOutputLog, TextWithoutALineEndIsNeverLogged)
{
    RecordingLog log;

    {
        CTextOutputToOutputLog output(&log);
        output.PrintLine("line");
        output.Print("rest");
    }

    EXPECT_EQ(log.GetTexts(), Texts{"line"});
}

TEST(CTextOutputToOutputLog, WritingIsAllocationFree)
{
    COutputLogNull log;
    CTextOutputToOutputLog output(&log);
    const AllocationCounter allocations;

    for (int line = 0; line < 1000; ++line)
        output.PrintLine("line %d: \xE2\x82\xAC", line);
    output.WriteCodePoints(10000, 'x');

    EXPECT_EQ(allocations.GetCount(), 0u);
}
