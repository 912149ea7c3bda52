#include <QDPlatform/COutputLog.h>

#include <algorithm>
#include <climits>
#include <clocale>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "AllocationCounter.h"
#include "RecordingLog.h"
#include "ScopedLocale.h"
#include "VirtualSlot.h"

namespace
{

// A recording log that turns calls into those with an argument list.
class Log : public RecordingLog
{
public:
    QD_PRINTF_FORMAT(4, 5) void PrintList(LogType type, int code, const char* format, ...)
    {
        va_list args;
        va_start(args, format);
        PrintVA(type, code, format, args);
        va_end(args);
    }

    // Calls one of PrintInfoVA and its kin.
    using ListForm = void (COutputLog::*)(const char*, va_list);

    QD_PRINTF_FORMAT(3, 4) void PrintList(ListForm form, const char* format, ...)
    {
        va_list args;
        va_start(args, format);
        (this->*form)(format, args);
        va_end(args);
    }

    QD_PRINTF_FORMAT(5, 6)

    void PrefixedPrint(LogType type, const char* prefix, unsigned int prefixLength, const char* format, ...)
    {
        va_list args;
        va_start(args, format);
        PrefixedPrintVA(type, prefix, prefixLength, format, args);
        va_end(args);
    }

    // Calls one of PrefixedPrintInfoVA and its kin.
    using PrefixedForm = void (COutputLog::*)(const char*, unsigned int, const char*, va_list);
    QD_PRINTF_FORMAT(5, 6)

    void PrefixedPrint(PrefixedForm form, const char* prefix, unsigned int prefixLength, const char* format, ...)
    {
        va_list args;
        va_start(args, format);
        (this->*form)(prefix, prefixLength, format, args);
        va_end(args);
    }
};

// A sink that owns no heap memory: keeps the last message only.
class FixedLog : public COutputLog
{
public:
    void Clear() override {}

    void AppendMessage(LogType, int, const qdchar* text, unsigned int length) override
    {
        ++m_Count;
        m_Length = length;
        std::memcpy(m_Text, text, std::min<std::size_t>(length, sizeof m_Text));
    }

    unsigned int m_Count{0};
    unsigned int m_Length{0};
    char m_Text[2000];
};

const char* const kLocales[] = {"C", "C.UTF-8"};

using Texts = std::vector<std::string>;

std::string Repeat(const std::string& part, std::size_t count)
{
    std::string text;
    for (std::size_t i = 0; i < count; ++i)
        text += part;
    return text;
}

std::string Blanks(std::size_t count)
{
    return std::string(count, ' ');
}

// The messages of PrintData for a title and the first `length` of the bytes 0x41, 0x42, ...
Texts Dump(const std::string& title, unsigned int length)
{
    std::vector<unsigned char> data(length);
    unsigned char next = 0x41;
    for (unsigned char& byte : data)
        byte = next++;
    Log log;
    log.PrintData(title.c_str(), length, data.data());
    return log.GetTexts();
}

Texts Lines(const std::string& text)
{
    Log log;
    log.PrintMultilineString(nullptr, text.c_str(), static_cast<unsigned int>(text.size()));
    return log.GetTexts();
}

Texts Line(int number, const std::string& text)
{
    // Held without a terminator, so that reading on is seen by the address sanitizer.
    const std::unique_ptr<char[]> bytes(new char[text.size() + 1]);
    char* end = bytes.get() + text.size() + 1;
    char* start = end - text.size();
    std::copy(text.begin(), text.end(), start);
    Log log;
    log.PrintLineFromMultilineString(number, start, static_cast<unsigned int>(text.size()));
    return log.GetTexts();
}

} // namespace

// --- The class ------------------------------------------------------------------------------------------------------

TEST(COutputLog, HoldsNoDataBesidesItsVirtualTable)
{
    EXPECT_EQ(sizeof(COutputLog), sizeof(void*));
    EXPECT_TRUE(std::is_abstract_v<COutputLog>);
}

TEST(COutputLog, VirtualOperationsStandInTheirOrder)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<COutputLog>); // takes the positions 0 and 1
    EXPECT_EQ(VirtualSlot(&COutputLog::Clear), 2);
    EXPECT_EQ(VirtualSlot(&COutputLog::AppendMessage), 3);
    EXPECT_EQ(VirtualSlot(&COutputLog::PrintString), -1);
}

TEST(COutputLog, LogTypesHaveTheirValuesIn32Bits)
{
    EXPECT_EQ(static_cast<int>(COutputLog::Info), 0);
    EXPECT_EQ(static_cast<int>(COutputLog::Warning), 1);
    EXPECT_EQ(static_cast<int>(COutputLog::Error), 2);
    EXPECT_EQ(sizeof(COutputLog::LogType), 4u);
}

// In the C++ ABI of the platform a pointer to a virtual member starts with its offset in the virtual table (plus 1 on
// some processors), and a destructor takes the first two slots.
TEST(COutputLog, ClearAndAppendMessageFollowTheDestructor)
{
    const auto slotOf = [](auto member) {
        std::ptrdiff_t offset;
        std::memcpy(&offset, &member, sizeof offset);
        return (offset & ~std::ptrdiff_t{1}) / static_cast<std::ptrdiff_t>(sizeof(void*));
    };

    EXPECT_EQ(slotOf(&COutputLog::Clear), 2);
    EXPECT_EQ(slotOf(&COutputLog::AppendMessage), 3);
}

// --- Plain messages -------------------------------------------------------------------------------------------------

TEST(COutputLog, PrintingPassesTypeCodeAndFormattedText)
{
    Log log;

    log.Print("%d links", 3);
    log.PrintWarning("%s is slow", "bus");
    log.PrintError("lost %c", 'x');
    log.PrintError(-111, "refused by %s", "host");

    const std::vector<RecordingLog::Message> expected = {
        {COutputLog::Info, 0, "3 links"},
        {COutputLog::Warning, 0, "bus is slow"},
        {COutputLog::Error, 0, "lost x"},
        {COutputLog::Error, -111, "refused by host"},
    };
    EXPECT_EQ(log.GetMessages(), expected);
}

TEST(COutputLog, PrintErrorWithCodeZeroTakesItAsTheCode)
{
    Log log;

    log.PrintError(0, "text");

    EXPECT_EQ(log.GetMessages(), (std::vector<RecordingLog::Message>{{COutputLog::Error, 0, "text"}}));
}

TEST(COutputLog, PrintVAPassesTypeAndCodeAsGiven)
{
    Log log;

    log.PrintList(COutputLog::Warning, 42, "%u of %u", 1u, 2u);
    log.PrintList(COutputLog::Info, INT_MIN, "low");

    const std::vector<RecordingLog::Message> expected = {
        {COutputLog::Warning, 42, "1 of 2"},
        {COutputLog::Info, INT_MIN, "low"},
    };
    EXPECT_EQ(log.GetMessages(), expected);
}

TEST(COutputLog, ListFormsPassTheirTypeAndCodeZero)
{
    Log log;

    log.PrintList(&COutputLog::PrintInfoVA, "%s", "a");
    log.PrintList(&COutputLog::PrintWarningVA, "%s", "b");
    log.PrintList(&COutputLog::PrintErrorVA, "%s", "c");

    const std::vector<RecordingLog::Message> expected = {
        {COutputLog::Info, 0, "a"},
        {COutputLog::Warning, 0, "b"},
        {COutputLog::Error, 0, "c"},
    };
    EXPECT_EQ(log.GetMessages(), expected);
}

TEST(COutputLog, MessageIsCutTo255BytesEndingInDots)
{
    struct Case
    {
        std::size_t m_Length;
        std::string m_Text;
    };

    const Case cases[] = {
        {0, ""},
        {254, std::string(254, 'x')},
        {255, std::string(255, 'x')},
        {256, std::string(252, 'x') + "..."},
        {257, std::string(252, 'x') + "..."},
        {10000, std::string(252, 'x') + "..."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Length);
        Log log;

        log.Print("%s", std::string(c.m_Length, 'x').c_str());

        EXPECT_EQ(log.GetTexts(), Texts{c.m_Text}); // one message
    }
}

TEST(COutputLog, CutMessagesKeepTypeAndCode)
{
    const std::string longText(300, 'x');
    const std::string cut = std::string(252, 'x') + "...";
    Log log;

    log.PrintWarning("%s", longText.c_str());
    log.PrintError(5, "%s", longText.c_str());

    const std::vector<RecordingLog::Message> expected = {
        {COutputLog::Warning, 0, cut},
        {COutputLog::Error, 5, cut},
    };
    EXPECT_EQ(log.GetMessages(), expected);
}

TEST(COutputLog, CutMessageMayEndInsideACharacter)
{
    Log log;

    log.Print("x%s", Repeat("\xC3\xA4", 200).c_str());

    EXPECT_EQ(log.GetTexts(), Texts{"x" + Repeat("\xC3\xA4", 125) + "\xC3..."});
}

TEST(COutputLog, NulInsideAMessageIsPartOfIt)
{
    Log log;

    log.Print("a%cb", '\0');

    EXPECT_EQ(log.GetTexts(), Texts{std::string("a\0b", 3)});
}

TEST(COutputLog, CodePointIsPrintedInAUtf8Locale)
{
    const ScopedLocale locale("C.UTF-8");
    Log log;

    log.Print("5 %lc", static_cast<wint_t>(0x20AC));

    EXPECT_EQ(log.GetTexts(), Texts{"5 \xE2\x82\xAC"});
}

TEST(COutputLog, MessageEndsWhereTheLocaleCannotEncode)
{
    const ScopedLocale locale("C");
    Log log;

    log.Print("5 %lc more", static_cast<wint_t>(0x20AC));
    log.Print("%lc", static_cast<wint_t>(0x20AC));
    log.PrintError(9, "ab%lc", static_cast<wint_t>(0x20AC));

    const std::vector<RecordingLog::Message> expected = {
        {COutputLog::Info, 0, "5 "},
        {COutputLog::Info, 0, ""},
        {COutputLog::Error, 9, "ab"},
    };
    EXPECT_EQ(log.GetMessages(), expected);
}

TEST(COutputLog, MessageThatIsLongBeforeItCannotBeEncodedStaysInTheBuffer)
{
    const ScopedLocale locale("C");
    Log log;

    log.Print("%s%lc", std::string(300, 'x').c_str(), static_cast<wint_t>(0x20AC));

    EXPECT_EQ(log.GetTexts(), Texts{std::string(255, 'x')});
}

// The C library refuses a width of this size with EOVERFLOW, which counts as an overflow of the buffer.
TEST(COutputLog, OtherFailureOfTheFormatterGivesADefinedCutMessage)
{
    const std::string format = "ab%99999999999d"; // no literal: the compiler would warn of it
    Log log;

    log.Print(format.c_str(), 1);

    const Texts texts = log.GetTexts();
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_EQ(texts[0], "ab" + std::string(250, '\0') + "...");
}

// --- Prefixed messages ----------------------------------------------------------------------------------------------

TEST(COutputLog, PrefixedMessageIsPrefixColonBlankText)
{
    Log log;

    log.PrefixedPrint(COutputLog::Warning, "TcpSvr@502", 10, "link %u", 7u);

    EXPECT_EQ(log.GetMessages(), (std::vector<RecordingLog::Message>{{COutputLog::Warning, 0, "TcpSvr@502: link 7"}}));
}

TEST(COutputLog, PrefixedFormsPassTheirTypeAndCodeZero)
{
    Log log;

    log.PrefixedPrint(&COutputLog::PrefixedPrintInfoVA, "P", 1, "%s", "a");
    log.PrefixedPrint(&COutputLog::PrefixedPrintWarningVA, "P", 1, "%s", "b");
    log.PrefixedPrint(&COutputLog::PrefixedPrintErrorVA, "P", 1, "%s", "c");

    const std::vector<RecordingLog::Message> expected = {
        {COutputLog::Info, 0, "P: a"},
        {COutputLog::Warning, 0, "P: b"},
        {COutputLog::Error, 0, "P: c"},
    };
    EXPECT_EQ(log.GetMessages(), expected);
}

TEST(COutputLog, PrefixIsTakenByLengthAndNotAsAFormat)
{
    const char prefix[3] = {'%', 's', '%'}; // not terminated
    Log log;

    log.PrefixedPrint(COutputLog::Info, prefix, 3, "text");
    log.PrefixedPrint(COutputLog::Info, prefix, 1, "text");

    EXPECT_EQ(log.GetTexts(), (Texts{"%s%: text", "%: text"}));
}

TEST(COutputLog, PrefixOfLengthZeroWritesNeitherPrefixNorColon)
{
    Log log;

    log.PrefixedPrint(COutputLog::Info, nullptr, 0, "text %d", 1);
    log.PrefixedPrint(COutputLog::Info, "unused", 0, "text %d", 2);

    EXPECT_EQ(log.GetTexts(), (Texts{"text 1", "text 2"}));
}

TEST(COutputLog, PrefixedMessageWithoutPrefixHasRoomFor253Bytes)
{
    Log log;

    log.PrefixedPrint(COutputLog::Info, nullptr, 0, "%s", std::string(253, 'x').c_str());
    log.PrefixedPrint(COutputLog::Info, nullptr, 0, "%s", std::string(254, 'x').c_str());

    EXPECT_EQ(log.GetTexts(), (Texts{std::string(253, 'x'), std::string(250, 'x') + "..."}));
}

// 254 less the prefix is the room of the text with its terminator.
TEST(COutputLog, PrefixedMessageHasTheRoomThatThePrefixLeaves)
{
    struct Case
    {
        unsigned int m_PrefixLength;
        std::size_t m_WrittenPrefix;
        std::size_t m_TextRoom;
    };

    const Case cases[] = {
        {1, 1, 252}, {10, 10, 243}, {205, 205, 48}, {206, 206, 47}, {207, 206, 47}, {300, 206, 47}, {5000, 206, 47},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_PrefixLength);
        const std::string prefix(c.m_PrefixLength, 'p');
        const std::string start = std::string(c.m_WrittenPrefix, 'p') + ": ";
        Log log;

        log.PrefixedPrint(COutputLog::Info, prefix.c_str(), c.m_PrefixLength, "%s",
                          std::string(c.m_TextRoom, 'x').c_str());
        log.PrefixedPrint(COutputLog::Info, prefix.c_str(), c.m_PrefixLength, "%s",
                          std::string(c.m_TextRoom + 1, 'x').c_str());

        EXPECT_EQ(log.GetTexts(),
                  (Texts{start + std::string(c.m_TextRoom, 'x'), start + std::string(c.m_TextRoom - 3, 'x') + "..."}));
    }
}

TEST(COutputLog, PrefixOf300BytesLeaves48BytesForTheMessage)
{
    const std::string prefix(300, 'p');
    Log log;

    log.PrefixedPrint(COutputLog::Info, prefix.c_str(), 300, "%s", std::string(100, 'x').c_str());

    const Texts texts = log.GetTexts();
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_EQ(texts[0].size(), 255u); // 206, ": " and 48 less the terminator
    EXPECT_EQ(texts[0].substr(206), ": " + std::string(44, 'x') + "...");
}

TEST(COutputLog, PrefixedMessageEndsWhereTheLocaleCannotEncode)
{
    const ScopedLocale locale("C");
    Log log;

    log.PrefixedPrint(COutputLog::Info, "P", 1, "5 %lc more", static_cast<wint_t>(0x20AC));
    log.PrefixedPrint(COutputLog::Info, "P", 1, "%lc", static_cast<wint_t>(0x20AC));
    log.PrefixedPrint(COutputLog::Info, nullptr, 0, "ab%lc", static_cast<wint_t>(0x20AC));
    log.PrefixedPrint(COutputLog::Info, std::string(300, 'p').c_str(), 300, "%s%lc", std::string(300, 'x').c_str(),
                      static_cast<wint_t>(0x20AC));

    EXPECT_EQ(log.GetTexts(), (Texts{"P: 5 ", "P: ", "ab", std::string(206, 'p') + ": " + std::string(47, 'x')}));
}

// --- Strings --------------------------------------------------------------------------------------------------------

TEST(COutputLog, PrintStringPassesTheTextUnformattedAndUncut)
{
    Log log;

    log.PrintString("100%s %d\n");
    log.PrintString(std::string(5000, 'x'));
    log.PrintString(std::string("a\0b", 3));
    log.PrintString("");

    const std::vector<RecordingLog::Message> expected = {
        {COutputLog::Info, 0, "100%s %d\n"},
        {COutputLog::Info, 0, std::string(5000, 'x')},
        {COutputLog::Info, 0, std::string("a\0b", 3)},
        {COutputLog::Info, 0, ""},
    };
    EXPECT_EQ(log.GetMessages(), expected);
}

// --- Hex dumps ------------------------------------------------------------------------------------------------------

TEST(COutputLog, DataOfUpTo16BytesIsOneLine)
{
    struct Case
    {
        unsigned int m_Length;
        const char* m_Line;
    };

    const Case cases[] = {
        {0, "Rx  0 bytes:                                                  "},
        {1, "Rx  1 bytes: 41                                               A"},
        {2, "Rx  2 bytes: 41 42                                            AB"},
        {3, "Rx  3 bytes: 41 42 43                                         ABC"},
        {4, "Rx  4 bytes: 41 42 43 44                                      ABCD"},
        {5, "Rx  5 bytes: 41 42 43 44 45                                   ABCDE"},
        {6, "Rx  6 bytes: 41 42 43 44 45 46                                ABCDEF"},
        {7, "Rx  7 bytes: 41 42 43 44 45 46 47                             ABCDEFG"},
        {8, "Rx  8 bytes: 41 42 43 44 45 46 47 48                          ABCDEFGH"},
        {9, "Rx  9 bytes: 41 42 43 44 45 46 47 48  49                      ABCDEFGHI"},
        {10, "Rx 10 bytes: 41 42 43 44 45 46 47 48  49 4A                   ABCDEFGHIJ"},
        {11, "Rx 11 bytes: 41 42 43 44 45 46 47 48  49 4A 4B                ABCDEFGHIJK"},
        {12, "Rx 12 bytes: 41 42 43 44 45 46 47 48  49 4A 4B 4C             ABCDEFGHIJKL"},
        {13, "Rx 13 bytes: 41 42 43 44 45 46 47 48  49 4A 4B 4C 4D          ABCDEFGHIJKLM"},
        {14, "Rx 14 bytes: 41 42 43 44 45 46 47 48  49 4A 4B 4C 4D 4E       ABCDEFGHIJKLMN"},
        {15, "Rx 15 bytes: 41 42 43 44 45 46 47 48  49 4A 4B 4C 4D 4E 4F    ABCDEFGHIJKLMNO"},
        {16, "Rx 16 bytes: 41 42 43 44 45 46 47 48  49 4A 4B 4C 4D 4E 4F 50 ABCDEFGHIJKLMNOP"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Length);

        EXPECT_EQ(Dump("Rx", c.m_Length), Texts{c.m_Line});
    }
}

TEST(COutputLog, DataOfNoBytesMayBeNull)
{
    Log log;

    log.PrintData("Rx", 0, nullptr);

    EXPECT_EQ(log.GetTexts(), Texts{"Rx  0 bytes:" + Blanks(16 * 3 + 1 + 1)});
}

TEST(COutputLog, DataOf17BytesIsAHeadingAndTwoRows)
{
    EXPECT_EQ(Dump("Rx", 17), (Texts{
                                  "Rx 17 bytes",
                                  "0000  41 42 43 44 45 46 47 48  49 4A 4B 4C 4D 4E 4F 50 ABCDEFGHIJKLMNOP",
                                  "0010  51                                               Q",
                              }));
}

TEST(COutputLog, CharacterColumnOfRowsStartsAtTheSamePlaceForEveryCount)
{
    struct Case
    {
        unsigned int m_Length;
        const char* m_SecondRow;
    };

    const Case cases[] = {
        {23, "0010  51 52 53 54 55 56 57                             QRSTUVW"},
        {24, "0010  51 52 53 54 55 56 57 58                          QRSTUVWX"},
        {25, "0010  51 52 53 54 55 56 57 58  59                      QRSTUVWXY"},
        {32, "0010  51 52 53 54 55 56 57 58  59 5A 5B 5C 5D 5E 5F 60 QRSTUVWXYZ[\\]^_`"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Length);

        const Texts texts = Dump("Rx", c.m_Length);

        ASSERT_EQ(texts.size(), 3u); // a multiple of 16 adds no empty row
        EXPECT_EQ(texts[2], c.m_SecondRow);
    }
}

TEST(COutputLog, DataIsPrintedAsInfoWithCodeZero)
{
    const unsigned char data[17] = {};
    Log log;

    log.PrintData("short", 2, data);
    log.PrintData("long", sizeof data, data);

    for (const RecordingLog::Message& message : log.GetMessages()) {
        EXPECT_EQ(message.m_Type, COutputLog::Info);
        EXPECT_EQ(message.m_Code, 0);
    }
    EXPECT_EQ(log.GetMessages().size(), 4u);
}

TEST(COutputLog, UnprintableBytesAreDotsInTheCAndUtf8Locales)
{
    const unsigned char data[] = {0x00, 0x09, 0x1F, 0x20, 0x25, 0x7E, 0x7F, 0x80, 0x85, 0xA0, 0xC3, 0xA4, 0xFF};
    for (const char* name : kLocales) {
        SCOPED_TRACE(name);
        const ScopedLocale locale(name);
        Log log;

        log.PrintData("Rx", sizeof data, data);

        EXPECT_EQ(log.GetTexts(), Texts{"Rx 13 bytes: 00 09 1F 20 25 7E 7F 80  85 A0 C3 A4 FF          ... %~......."});
    }
}

TEST(COutputLog, OffsetsGrowBeyondFourDigits)
{
    const std::vector<unsigned char> data(0x10011, 0x30);
    Log log;

    log.PrintData("Image", 0x10011, data.data());

    const std::string row = " 30 30 30 30 30 30 30 30  30 30 30 30 30 30 30 30 0000000000000000";
    const Texts texts = log.GetTexts();
    ASSERT_EQ(texts.size(), 4099u);
    EXPECT_EQ(texts[0], "Image 65553 bytes");
    EXPECT_EQ(texts[1], "0000 " + row);
    EXPECT_EQ(texts[0xA1], "0A00 " + row);
    EXPECT_EQ(texts[4096], "FFF0 " + row);
    EXPECT_EQ(texts[4097], "10000 " + row);
    EXPECT_EQ(texts[4098], "10010  30                                               0");
}

TEST(COutputLog, TitleIsNotAFormat)
{
    EXPECT_EQ(Dump("100%s", 1)[0], "100%s  1 bytes: 41                                               A");
    EXPECT_EQ(Dump("100%s", 17)[0], "100%s 17 bytes");
}

TEST(COutputLog, TitleThatLeavesNoRoomInTheLineIsCut)
{
    struct Case
    {
        unsigned int m_Length;
        std::size_t m_TitleRoom;
        std::string m_Rest;
    };

    const Case cases[] = {
        {16, 83, " 16 bytes: 41 42 43 44 45 46 47 48  49 4A 4B 4C 4D 4E 4F 50 ABCDEFGHIJKLMNOP"},
        {3, 96, "  3 bytes: 41 42 43                                         ABC"},
        {0, 99, "  0 bytes:" + Blanks(50)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Length);
        const std::string whole = std::string(c.m_TitleRoom, 't');

        EXPECT_EQ((whole + c.m_Rest).size(), 159u);
        EXPECT_EQ(Dump(whole, c.m_Length), Texts{whole + c.m_Rest});
        EXPECT_EQ(Dump(whole + "t", c.m_Length), Texts{whole + c.m_Rest});
        EXPECT_EQ(Dump(std::string(5000, 't'), c.m_Length), Texts{whole + c.m_Rest});
    }
}

TEST(COutputLog, HeadingOfALongDumpIsCutLikeAnyMessage)
{
    const Texts texts = Dump(std::string(300, 't'), 17);

    EXPECT_EQ(texts[0], std::string(252, 't') + "...");
    EXPECT_EQ(texts[1], "0000  41 42 43 44 45 46 47 48  49 4A 4B 4C 4D 4E 4F 50 ABCDEFGHIJKLMNOP");
}

// --- Text of several lines ------------------------------------------------------------------------------------------

TEST(COutputLog, MultilineTextIsPrintedInNumberedLines)
{
    EXPECT_EQ(Lines("a\n\nb\n"), (Texts{"  1:a", "  2:", "  3:b"}));
}

TEST(COutputLog, MultilineTextsEndInALineWhenSomethingFollowsTheLastNewline)
{
    struct Case
    {
        const char* m_Name;
        const char* m_Text;
        Texts m_Lines;
    };

    const Case cases[] = {
        {"nothing", "", {}},
        {"one line", "a", {"  1:a"}},
        {"one line with its end", "a\n", {"  1:a"}},
        {"rest after the last newline", "a\nb", {"  1:a", "  2:b"}},
        {"newline alone", "\n", {"  1:"}},
        {"two newlines", "\n\n", {"  1:", "  2:"}},
        {"empty first line", "\na", {"  1:", "  2:a"}},
        {"CR LF", "a\r\nb\r\n", {"  1:a", "  2:b"}},
        {"CR alone is the rest", "a\n\r", {"  1:a", "  2:"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);

        EXPECT_EQ(Lines(c.m_Text), c.m_Lines);
    }
}

TEST(COutputLog, TitleStandsBeforeTheLinesUnlessItIsNull)
{
    Log log;

    log.PrintMultilineString("100%s", "a", 1);
    log.PrintMultilineString("", "b", 1);
    log.PrintMultilineString(nullptr, "c", 1);
    log.PrintMultilineString("empty", "", 0);
    log.PrintMultilineString("null", nullptr, 0);

    EXPECT_EQ(log.GetTexts(), (Texts{"100%s", "  1:a", "", "  1:b", "  1:c", "empty", "null"}));
}

TEST(COutputLog, LongTitleIsCutLikeAnyMessage)
{
    Log log;

    log.PrintMultilineString(std::string(300, 't').c_str(), "a", 1);

    EXPECT_EQ(log.GetTexts(), (Texts{std::string(252, 't') + "...", "  1:a"}));
}

TEST(COutputLog, MultilineTextIsPrintedAsInfoWithCodeZero)
{
    Log log;

    log.PrintMultilineString("title", ("a\n" + std::string(251, 'x')).c_str(), 253);

    EXPECT_EQ(log.GetMessages().size(), 4u);
    for (const RecordingLog::Message& message : log.GetMessages()) {
        EXPECT_EQ(message.m_Type, COutputLog::Info);
        EXPECT_EQ(message.m_Code, 0);
    }
}

TEST(COutputLog, MultilineTextEndsAtItsLength)
{
    const std::unique_ptr<char[]> bytes(new char[4]{'a', '\n', 'b', 'c'}); // not terminated
    Log log;

    log.PrintMultilineString(nullptr, bytes.get(), 4);
    log.PrintMultilineString(nullptr, bytes.get(), 3);
    log.PrintMultilineString(nullptr, bytes.get(), 2);
    log.PrintMultilineString(nullptr, bytes.get(), 1);
    log.PrintMultilineString(nullptr, bytes.get(), 0);

    EXPECT_EQ(log.GetTexts(), (Texts{"  1:a", "  2:bc", "  1:a", "  2:b", "  1:a", "  1:a"}));
}

TEST(COutputLog, MultilineTextEndsAtItsTerminator)
{
    const std::unique_ptr<char[]> bytes(new char[4]{'a', '\n', 'b', '\0'}); // nothing behind it may be read
    Log log;

    log.PrintMultilineString(nullptr, bytes.get(), 1000);
    log.PrintMultilineString(nullptr, "a\0b\nc\n", 6);
    log.PrintMultilineString(nullptr, "", 1000);

    EXPECT_EQ(log.GetTexts(), (Texts{"  1:a", "  2:b", "  1:a"}));
}

TEST(COutputLog, LineNumbersAreThreeWideAndGrow)
{
    const Texts texts = Lines(Repeat("x\n", 1000));

    ASSERT_EQ(texts.size(), 1000u);
    EXPECT_EQ(texts[8], "  9:x");
    EXPECT_EQ(texts[9], " 10:x");
    EXPECT_EQ(texts[99], "100:x");
    EXPECT_EQ(texts[999], "1000:x");
}

TEST(COutputLog, LongLinesInATextKeepTheirNumberAndStartAtLetterA)
{
    const std::string longLine(251, 'x');
    const std::string piece(250, 'x');

    EXPECT_EQ(Lines(longLine + "\n" + longLine + "\ny"),
              (Texts{"  1a:" + piece, "  1b:x", "  2a:" + piece, "  2b:x", "  3:y"}));
}

// --- One numbered line ----------------------------------------------------------------------------------------------

TEST(COutputLog, LineIsPrintedWithTheGivenNumber)
{
    EXPECT_EQ(Line(7, "text"), Texts{"  7:text"});
    EXPECT_EQ(Line(12345, "text"), Texts{"12345:text"});
    EXPECT_EQ(Line(-1, "100%s"), Texts{" -1:100%s"});
    EXPECT_EQ(Line(0, ""), Texts{"  0:"});
}

TEST(COutputLog, TabsAndCarriageReturnsAreExpanded)
{
    struct Case
    {
        const char* m_Name;
        const char* m_Text;
        const char* m_Line;
    };

    const Case cases[] = {
        {"TAB at column 0", "\tx", "  1:.   x"},
        {"TAB at column 1", "a\tx", "  1:a.  x"},
        {"TAB at column 2", "ab\tx", "  1:ab. x"},
        {"TAB at column 3", "abc\tx", "  1:abc.x"},
        {"TAB at column 4", "abcd\tx", "  1:abcd.   x"},
        {"TABs in a row", "a\t\tx", "  1:a.  .   x"},
        {"TAB at the end", "abc\t", "  1:abc."},
        {"CR is dropped", "a\rb\r", "  1:ab"},
        {"CR takes no column", "\r\r\tx", "  1:.   x"},
        {"columns are bytes", "\xC3\xA4\tx", "  1:\xC3\xA4. x"},
        {"other control characters stay", "\x01\v\x7F", "  1:\x01\v\x7F"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);

        EXPECT_EQ(Line(1, c.m_Text), Texts{c.m_Line});
    }
}

TEST(COutputLog, LineOf251BytesIsCutIntoLetteredPieces)
{
    struct Case
    {
        std::size_t m_Length;
        Texts m_Messages;
    };

    const std::string piece(250, 'x');
    const Case cases[] = {
        {249, {"  1:" + std::string(249, 'x')}},
        {250, {"  1:" + piece}},
        {251, {"  1a:" + piece, "  1b:x"}},
        {500, {"  1a:" + piece, "  1b:" + piece}},
        {501, {"  1a:" + piece, "  1b:" + piece, "  1c:x"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Length);

        EXPECT_EQ(Line(1, std::string(c.m_Length, 'x')), c.m_Messages);
    }
}

TEST(COutputLog, LineIsMeasuredBeforeItIsExpanded)
{
    const std::string text(249, 'x');

    // 250 bytes that grow to 252 columns are one message; 251 that shrink to 249 are a piece.
    EXPECT_EQ(Line(1, text + "\t"), Texts{"  1:" + std::string(248, 'x') + "..."});
    EXPECT_EQ(Line(1, text + "\r\r"), Texts{"  1a:" + text});
}

TEST(COutputLog, WholeLineThatExpandsBeyondAMessageIsCut)
{
    // 4 columns a TAB: 252 bytes of the message hold "  1:" and 62 TABs.
    EXPECT_EQ(Line(1, std::string(250, '\t')), Texts{"  1:" + Repeat(".   ", 62) + "..."});
    EXPECT_EQ(Line(1, std::string(63, '\t')), Texts{"  1:" + Repeat(".   ", 62) + "..."});
    EXPECT_EQ(Line(1, std::string(62, '\t')), Texts{"  1:" + Repeat(".   ", 62)});
}

TEST(COutputLog, TabsCountAsTheirColumnsInAPiece)
{
    // 63 TABs reach column 252; their message of 257 bytes is cut like any other.
    const std::string cut = Repeat(".   ", 61) + ".  ...";

    EXPECT_EQ(Line(1, std::string(251, '\t')),
              (Texts{"  1a:" + cut, "  1b:" + cut, "  1c:" + cut, "  1d:" + Repeat(".   ", 62)}));
}

TEST(COutputLog, TabAtColumn249CarriesThePieceTo252)
{
    const std::string text = std::string(249, 'x') + "\ty\t";

    EXPECT_EQ(Line(1, text), (Texts{"  1a:" + std::string(247, 'x') + "...", "  1b:y.  "}));
}

TEST(COutputLog, EachPieceStartsAtColumnZero)
{
    const std::string text = std::string(250, 'x') + "\ty";

    EXPECT_EQ(Line(1, text), (Texts{"  1a:" + std::string(250, 'x'), "  1b:.   y"}));
}

TEST(COutputLog, DroppedCharactersAfterAFullPieceMakeAnEmptyOne)
{
    const std::string text = std::string(250, 'x') + "\r";

    EXPECT_EQ(Line(1, text), (Texts{"  1a:" + std::string(250, 'x'), "  1b:"}));
}

TEST(COutputLog, LettersRunOnPastZInTheCAndUtf8Locales)
{
    struct Case
    {
        std::size_t m_Piece;
        std::string m_Message;
    };

    const std::string whole(250, 'x');
    const std::string cut = std::string(246, 'x') + "..."; // a letter of two bytes leaves no room for 250
    const Case cases[] = {
        {0, "  5a:" + whole},        {25, "  5z:" + whole},
        {26, "  5{:" + whole},       {29, "  5~:" + whole},
        {30, "  5\x7F:" + whole},    {31, "  5\xC2\x80:" + cut},
        {158, "  5\xC3\xBF:" + cut}, {159, std::string("  5\0:", 5) + whole}, // round to 0 after 255
        {160, "  5\x01:" + whole},   {255, "  5`:" + whole},
        {256, "  5a:" + whole},      {257, "  5b:y"},
    };
    for (const char* name : kLocales) {
        const ScopedLocale locale(name);

        const Texts texts = Line(5, std::string(250 * 257, 'x') + "y");

        ASSERT_EQ(texts.size(), 258u);
        for (const Case& c : cases) {
            SCOPED_TRACE(testing::Message() << name << ", piece " << c.m_Piece);
            EXPECT_EQ(texts[c.m_Piece], c.m_Message);
        }
    }
}

TEST(COutputLog, LettersAreWhatTheCLibraryWritesForCodePoints)
{
    const ScopedLocale locale("C.UTF-8");

    const Texts texts = Line(5, std::string(250 * 256, '\x01') + "y"); // 256 letters from "a" on, and "a" again

    ASSERT_EQ(texts.size(), 257u);
    for (std::size_t i = 0; i < texts.size(); ++i) {
        SCOPED_TRACE(i);
        char expected[16];
        const int length = std::snprintf(expected, sizeof expected, "%3d%lc:", 5, static_cast<wint_t>((97 + i) % 256));
        ASSERT_GT(length, 0);
        EXPECT_EQ(texts[i].substr(0, static_cast<std::size_t>(length)),
                  std::string(expected, static_cast<std::size_t>(length)));
    }
}

// --- Memory ---------------------------------------------------------------------------------------------------------

TEST(COutputLog, NothingIsAllocatedBeforeAppendMessage)
{
    static const unsigned char data[40] = {};
    const std::string longText = Repeat("a\tlong line\r\n", 50) + std::string(1000, 'x');
    const auto length = static_cast<unsigned int>(longText.size());
    FixedLog log;
    const AllocationCounter allocations;

    log.Print("%s %d", longText.c_str(), 1);
    log.PrintWarning("%s", longText.c_str());
    log.PrintError("%f", 0.25);
    log.PrintError(5, "%s", "text");
    log.PrintString(longText);
    log.PrintData(longText.c_str(), 16, data);
    log.PrintData("title", sizeof data, data);
    log.PrintMultilineString("title", longText.c_str(), length);
    log.PrintLineFromMultilineString(1, longText.c_str(), length);

    EXPECT_EQ(allocations.GetCount(), 0u);
    EXPECT_GT(log.m_Count, 60u);
}

namespace
{

QD_PRINTF_FORMAT(2, 3) void PrintPrefixed(COutputLog& log, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    log.PrefixedPrintInfoVA("prefix", 6, format, args);
    va_end(args);
}

} // namespace

TEST(COutputLog, PrefixedPrintAllocatesNothing)
{
    const std::string longText(1000, 'x');
    FixedLog log;
    const AllocationCounter allocations;

    PrintPrefixed(log, "%s", longText.c_str());

    EXPECT_EQ(allocations.GetCount(), 0u);
    EXPECT_EQ(log.m_Length, 255u);
    EXPECT_EQ(std::memcmp(log.m_Text, "prefix: xxx", 11), 0);
}
