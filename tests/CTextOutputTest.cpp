#include <QDPlatform/CTextOutput.h>

#include <QDPlatform/QDTimeZone.h>
#include <QDPlatform/QDTimestamp.h>
#include <QDPlatform/UnicodeCharacter.h>

#include <algorithm>
#include <clocale>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "AllocationCounter.h"
#include "RecordingTextOutput.h"
#include "ScopedLocale.h"
#include "VirtualSlot.h"

namespace
{

using CodePoints = std::vector<int>;

// The fields and the operations with an argument list, for tests to reach.
class Output : public RecordingTextOutput
{
public:
    QD_PRINTF_FORMAT(2, 3) int Format(const char* format, ...)
    {
        va_list args;
        va_start(args, format);
        const int length = FormatText(format, args);
        va_end(args);
        return length;
    }

    // Formats the same argument list twice.
    QD_PRINTF_FORMAT(2, 3) int FormatTwice(const char* format, ...)
    {
        va_list args;
        va_start(args, format);
        const int first = FormatText(format, args);
        const int second = FormatText(format, args);
        va_end(args);
        EXPECT_EQ(first, second);
        return second;
    }

    std::string GetFormatted() const { return m_pFormatBuffer.get(); }

    unsigned int GetCapacity() const { return m_FormatBufferCapacity; }

    // The addresses of the fields, in the order of the class.
    std::vector<const void*> GetFieldAddresses() const
    {
        return {&m_LineTermination,          &m_TextLocation,  &m_IndentLevel,         &m_IndentCharacter,
                &m_IndentCharactersPerLevel, &m_pFormatBuffer, &m_FormatBufferCapacity};
    }
};

// A copy of the text in an array of its very size, so that the address sanitizer sees what is read beyond it.
template<class Unit>
class ExactArray
{
public:
    explicit ExactArray(std::basic_string_view<Unit> text) : m_pUnits(new Unit[text.size()]), m_Count(text.size())
    {
        std::copy(text.begin(), text.end(), m_pUnits.get());
    }

    const Unit* GetUnits() const { return m_pUnits.get(); }

    unsigned int GetCount() const { return static_cast<unsigned int>(m_Count); }

private:
    std::unique_ptr<Unit[]> m_pUnits;
    std::size_t m_Count;
};

const unsigned char* Bytes(const char* text)
{
    return reinterpret_cast<const unsigned char*>(text);
}

// Line, column and index of the location, as "LINE,COLUMN,INDEX".
std::string Location(const CTextOutput& output)
{
    const CQDTextLocation& location = output.GetTextLocation();
    return std::to_string(location.GetLine()) + ',' + std::to_string(location.GetColumn()) + ',' +
           std::to_string(location.GetIndexInLine());
}

std::string NumberString(const std::string& text)
{
    const ExactArray<char> exact{std::string_view(text)};
    RecordingTextOutput output;
    output.PrintFloatingPointString(exact.GetUnits(), exact.GetCount());
    return output.GetText();
}

std::string Double(double value)
{
    RecordingTextOutput output;
    output.PrintDouble(value);
    return output.GetText();
}

std::string Float(float value)
{
    RecordingTextOutput output;
    output.PrintFloat(value);
    return output.GetText();
}

std::string Literal(const std::string& text, bool doubleByte)
{
    RecordingTextOutput output;
    output.Print61131String(text, doubleByte);
    return output.GetText();
}

std::string LiteralFromUtf8(const char* text)
{
    RecordingTextOutput output;
    output.Print61131String(Bytes(text), static_cast<unsigned int>(std::strlen(text)));
    return output.GetText();
}

std::string LiteralFromUtf16(const std::vector<unsigned short>& units)
{
    RecordingTextOutput output;
    output.Print61131String(units.data(), static_cast<unsigned int>(units.size()));
    return output.GetText();
}

std::string CodePoint00ToFF(int codePoint, bool doubleByte)
{
    RecordingTextOutput output;
    output.PrintCodePoint00ToFF(codePoint, doubleByte);
    return output.GetText();
}

std::string Base64(const std::string& data)
{
    RecordingTextOutput output;
    output.PrintBase64(Bytes(data.data()), static_cast<unsigned int>(data.size()));
    return output.GetText();
}

std::string CsvValue(const std::string& value)
{
    RecordingTextOutput output;
    output.PrintCSVValue(value);
    return output.GetText();
}

constexpr long long kTime = 132'277'719'670'089'999; // 2020-03-04 05:06:07.0089999

constexpr long long kDay = 864'000'000'000;

// --- Class ----------------------------------------------------------------------------------------------------------

TEST(CTextOutput, IsAbstractAndCannotBeCopied)
{
    EXPECT_TRUE(std::is_abstract_v<CTextOutput>);
    EXPECT_TRUE(std::has_virtual_destructor_v<CTextOutput>);
    EXPECT_FALSE(std::is_copy_constructible_v<RecordingTextOutput>);
    EXPECT_FALSE(std::is_copy_assignable_v<RecordingTextOutput>);
}

TEST(CTextOutput, VirtualOperationsHaveTheirOrder)
{
    EXPECT_EQ(VirtualSlot(&CTextOutput::WriteCodePoint), 2); // the destructor takes 0 and 1
    EXPECT_EQ(VirtualSlot(&CTextOutput::WriteNewLine), 3);
    EXPECT_EQ(VirtualSlot(&CTextOutput::IndentNewLine), 4);
    EXPECT_EQ(VirtualSlot(&CTextOutput::PrintChar), -1);
    EXPECT_EQ(VirtualSlot(&CTextOutput::WriteCodePoints), -1);
}

TEST(CTextOutput, FieldsHaveTheirOrder)
{
    const Output output;

    const std::vector<const void*> addresses = output.GetFieldAddresses();

    EXPECT_TRUE(std::is_sorted(addresses.begin(), addresses.end(), std::less<>()));
    const auto* object = reinterpret_cast<const char*>(static_cast<const CTextOutput*>(&output));
    EXPECT_EQ(static_cast<const char*>(addresses[0]) - object, static_cast<std::ptrdiff_t>(sizeof(void*)));
}

TEST(CTextOutput, NewWriterIsAtLineOneWithCrLfAndNoIndentation)
{
    Output output;

    output.PrintLine("x");

    EXPECT_EQ(output.GetText(), "x\r\n");
    EXPECT_EQ(output.GetIndent(), 0);
    EXPECT_EQ(output.GetCapacity(), 512u);
    EXPECT_EQ(Location(Output()), "1,1,0");
}

// --- Line ends ------------------------------------------------------------------------------------------------------

TEST(CTextOutput, LineTerminationIsWrittenAsItsCodePoints)
{
    const struct
    {
        int m_Termination;
        CodePoints m_Written;
    } kCases[] = {{0, {0x0D}},   {1, {0x0A}}, {2, {0x0D, 0x0A}}, {3, {0x85}},         {4, {0x2028}},
                  {5, {0x2029}}, {6, {0x0A}}, {-1, {0x0A}},      {0x7FFFFFFF, {0x0A}}};

    for (const auto& test : kCases) {
        SCOPED_TRACE(test.m_Termination);
        RecordingTextOutput output;
        output.SetLineTermination(static_cast<TextLineTermination>(test.m_Termination));

        EXPECT_TRUE(output.WriteNewLine());

        EXPECT_EQ(output.GetCodePoints(), test.m_Written);
        EXPECT_EQ(Location(output), "2,1,0"); // as after a line feed, whatever was written
    }
}

TEST(CTextOutput, NewLineStopsAtFirstFailureAndKeepsLocation)
{
    RecordingTextOutput output;
    output.FailFrom(1);

    EXPECT_FALSE(output.WriteNewLine());

    EXPECT_EQ(output.GetCallCount(), 1u);
    EXPECT_EQ(Location(output), "1,1,0");
}

TEST(CTextOutput, NewLineFailsWhenItsSecondCodePointFails)
{
    RecordingTextOutput output;
    output.FailFrom(2);

    EXPECT_FALSE(output.WriteNewLine());

    EXPECT_EQ(output.GetText(), "\r");
    EXPECT_EQ(Location(output), "1,1,0");
}

TEST(CTextOutput, PrintLineWithoutFormatWritesNoIndentation)
{
    RecordingTextOutput output;
    output.AdjustIndent(1);

    output.PrintLine();

    EXPECT_EQ(output.GetText(), "\r\n");
    EXPECT_EQ(output.GetIndentCount(), 0u);
    EXPECT_EQ(Location(output), "2,1,0");
}

// --- Indentation ----------------------------------------------------------------------------------------------------

TEST(CTextOutput, IndentationIsOneTabForEachLevel)
{
    RecordingTextOutput output;
    output.AdjustIndent(2);

    output.IndentNewLine();

    EXPECT_EQ(output.GetText(), "\t\t");
    EXPECT_EQ(Location(output), "1,9,2"); // a TAB goes to the next of the columns 5, 9, ...
}

TEST(CTextOutput, IndentationIsWrittenOnceOnALine)
{
    RecordingTextOutput output;
    output.SetIndentCharacters(' ', 4);
    output.AdjustIndent(2);

    output.Print("a");
    output.Print("b");
    output.PrintLine();
    output.Print("c");

    EXPECT_EQ(output.GetText(), "        ab\r\n        c");
}

TEST(CTextOutput, NoIndentationBehindWrittenCharacters)
{
    RecordingTextOutput output;
    output.Print("a");
    output.AdjustIndent(1);

    output.IndentNewLine();

    EXPECT_EQ(output.GetText(), "a");
}

TEST(CTextOutput, NoIndentationAtLevelZeroOrBelow)
{
    for (const int level : {0, -1, std::numeric_limits<int>::min()}) {
        SCOPED_TRACE(level);
        RecordingTextOutput output;
        output.AdjustIndent(level);

        output.Print("a");

        EXPECT_EQ(output.GetText(), "a");
    }
}

TEST(CTextOutput, NegativeIndentLevelIsRemembered)
{
    RecordingTextOutput output;

    output.AdjustIndent(-3);
    EXPECT_EQ(output.GetIndent(), -3);
    output.AdjustIndent(4);
    EXPECT_EQ(output.GetIndent(), 1);

    output.Print("a");
    EXPECT_EQ(output.GetText(), "\ta");
}

TEST(CTextOutput, IndentLevelWrapsBeyond32Bits)
{
    RecordingTextOutput output;
    output.AdjustIndent(std::numeric_limits<int>::max());

    output.AdjustIndent(1);

    EXPECT_EQ(output.GetIndent(), std::numeric_limits<int>::min());
}

TEST(CTextOutput, IndentCharacterIsAnUnsignedByte)
{
    RecordingTextOutput output;
    output.SetIndentCharacters('\xA0', 2);
    output.AdjustIndent(1);

    output.Print("a");

    EXPECT_EQ(output.GetCodePoints(), (CodePoints{0xA0, 0xA0, 'a'}));
}

TEST(CTextOutput, NoCharactersPerLevelIsNoIndentation)
{
    RecordingTextOutput output;
    output.SetIndentCharacters(' ', 0);
    output.AdjustIndent(5);

    output.Print("a");

    EXPECT_EQ(output.GetText(), "a");
}

TEST(CTextOutput, IndentationIgnoresFailures)
{
    RecordingTextOutput output;
    output.SetIndentCharacters(' ', 3);
    output.AdjustIndent(1);
    output.FailFrom(1);

    output.IndentNewLine();

    EXPECT_EQ(output.GetCallCount(), 3u);
    EXPECT_EQ(Location(output), "1,4,3");
}

TEST(CTextOutput, SettingsPersistOverLines)
{
    RecordingTextOutput output;
    output.SetLineTermination(LineTerminationLF);
    output.SetIndentCharacters('-', 2);
    output.AdjustIndent(1);

    for (int i = 0; i < 3; ++i)
        output.PrintLine("%d", i);

    EXPECT_EQ(output.GetText(), "--0\n--1\n--2\n");
}

// Each operation starts the line with the indentation, and writes it once.
template<class Operation>
void ExpectIndented(const char* name, const std::string& expected, Operation&& operation)
{
    SCOPED_TRACE(name);
    RecordingTextOutput output;
    output.SetIndentCharacters('>', 1);
    output.AdjustIndent(2);

    operation(output);

    EXPECT_EQ(output.GetText(), ">>" + expected);
}

TEST(CTextOutput, EveryPrintOperationIndentsFirst)
{
    const unsigned short kUtf16[] = {'a'};
    const UnicodeCharacter character('a');
    ExpectIndented("Print", "a", [](CTextOutput& o) { o.Print("a"); });
    ExpectIndented("PrintLine", "a\r\n", [](CTextOutput& o) { o.PrintLine("a"); });
    ExpectIndented("PrintChar", "a", [](CTextOutput& o) { o.PrintChar('a'); });
    ExpectIndented("PrintChars", "aa", [](CTextOutput& o) { o.PrintChars(2, 'a'); });
    ExpectIndented("PrintFloat", "1.5", [](CTextOutput& o) { o.PrintFloat(1.5F); });
    ExpectIndented("PrintDouble", "1.5", [](CTextOutput& o) { o.PrintDouble(1.5); });
    ExpectIndented("PrintFloatingPointString", "1500", [](CTextOutput& o) { o.PrintFloatingPointString("1.5e3", 5); });
    ExpectIndented("PrintDate", "2020-03-04", [](CTextOutput& o) { o.PrintDate(nullptr, kTime); });
    ExpectIndented("PrintDateAndTime", "2020-03-04T05:06:07.008",
                   [](CTextOutput& o) { o.PrintDateAndTime(nullptr, kTime, 'T'); });
    ExpectIndented("Print61131String string", "'a'",
                   [](CTextOutput& o) { o.Print61131String(std::string("a"), false); });
    ExpectIndented("Print61131String bytes", "'a'", [](CTextOutput& o) { o.Print61131String("a", 1, false); });
    ExpectIndented("Print61131String characters", "'a'", [&](CTextOutput& o) { o.Print61131String(&character, 1); });
    ExpectIndented("Print61131String UTF-8", "'a'", [](CTextOutput& o) { o.Print61131String(Bytes("a"), 1); });
    ExpectIndented("Print61131String UTF-16", "\"a\"", [&](CTextOutput& o) { o.Print61131String(kUtf16, 1); });
    ExpectIndented("PrintCodePoint00ToFF", "a", [](CTextOutput& o) { o.PrintCodePoint00ToFF('a', false); });
    ExpectIndented("PrintSQLStringLiteral", "'a'", [](CTextOutput& o) { o.PrintSQLStringLiteral(std::string("a")); });
    ExpectIndented("PrintSQLStringLiteral UTF-16", "'a'", [&](CTextOutput& o) { o.PrintSQLStringLiteral(kUtf16, 1); });
    ExpectIndented("PrintUtf16String", "a", [&](CTextOutput& o) { o.PrintUtf16String(kUtf16, 1); });
    ExpectIndented("PrintUtf8String", "a", [](CTextOutput& o) { o.PrintUtf8String(Bytes("a"), 1); });
    ExpectIndented("PrintBase64", "YQ==", [](CTextOutput& o) { o.PrintBase64(Bytes("a"), 1); });
    ExpectIndented("PrintCSVValue", "a", [](CTextOutput& o) { o.PrintCSVValue("a"); });
    ExpectIndented("PrintCSVValue quoted", "\",\"", [](CTextOutput& o) { o.PrintCSVValue(","); });
}

// Whichever code point fails, all the others are written, and the location moves as if nothing had failed.
template<class Operation>
void ExpectFailuresIgnored(const char* name, const std::string& text, const std::string& location,
                           Operation&& operation)
{
    SCOPED_TRACE(name);
    for (std::size_t i = 0; i < text.size(); ++i) {
        SCOPED_TRACE(i);
        RecordingTextOutput output;
        output.FailFrom(i + 1, 1);

        operation(output);

        EXPECT_EQ(output.GetText(), text.substr(0, i) + text.substr(i + 1));
        EXPECT_EQ(Location(output), location);
    }
}

// The line end of PrintLine() stops at a failure; it has tests of its own.
TEST(CTextOutput, EveryPrintOperationIgnoresFailures)
{
    const unsigned short kUtf16[] = {'a', '\'', '$', 1, 0x0300};
    const UnicodeCharacter kCharacters[] = {'a', '\'', '$', 1, 0x0300};
    const std::string kUtf8 = "a'$\x01\xCC\x80";
    const auto kUtf8Length = static_cast<unsigned int>(kUtf8.size());
    const double infinity = std::numeric_limits<double>::infinity();
    ExpectFailuresIgnored("Print", "abc", "1,4,3", [](CTextOutput& o) { o.Print("abc"); });
    ExpectFailuresIgnored("PrintChar", "a", "1,1,0", [](CTextOutput& o) { o.PrintChar('a'); });
    ExpectFailuresIgnored("PrintChars", "aaa", "1,4,3", [](CTextOutput& o) { o.PrintChars(3, 'a'); });
    ExpectFailuresIgnored("PrintFloat", "NaN", "1,4,3",
                          [](CTextOutput& o) { o.PrintFloat(std::numeric_limits<float>::quiet_NaN()); });
    ExpectFailuresIgnored("PrintDouble", "-Infinity", "1,10,9", [&](CTextOutput& o) { o.PrintDouble(-infinity); });
    ExpectFailuresIgnored("PrintFloatingPointString", "1000", "1,4,3",
                          [](CTextOutput& o) { o.PrintFloatingPointString("1.e3", 4); });
    ExpectFailuresIgnored("PrintDate", "2020-03-04", "1,11,10", [](CTextOutput& o) { o.PrintDate(nullptr, kTime); });
    ExpectFailuresIgnored("PrintDateAndTime", "2020-03-04T05:06:07.008", "1,24,23",
                          [](CTextOutput& o) { o.PrintDateAndTime(nullptr, kTime, 'T'); });
    ExpectFailuresIgnored("Print61131String string", "'a$'$$$t$01'", "1,4,3",
                          [](CTextOutput& o) { o.Print61131String(std::string("a'$\t\x01"), false); });
    ExpectFailuresIgnored("Print61131String bytes", "\"a$\"$n$0001\"", "1,6,5",
                          [](CTextOutput& o) { o.Print61131String("a\"\n\x01", 4, true); });
    ExpectFailuresIgnored("Print61131String characters", "'a$'$$$01$CC$80'", "1,12,11",
                          [&](CTextOutput& o) { o.Print61131String(kCharacters, 5); });
    ExpectFailuresIgnored("Print61131String UTF-8", "'a$'$$$01$CC$80'", "1,12,11",
                          [&](CTextOutput& o) { o.Print61131String(Bytes(kUtf8.c_str()), kUtf8Length); });
    ExpectFailuresIgnored("Print61131String UTF-16", "\"a'$$$0001$0300\"", "1,13,12",
                          [&](CTextOutput& o) { o.Print61131String(kUtf16, 5); });
    ExpectFailuresIgnored("PrintCodePoint00ToFF", "$t", "1,3,2",
                          [](CTextOutput& o) { o.PrintCodePoint00ToFF('\t', false); });
    ExpectFailuresIgnored("PrintSQLStringLiteral", "'a''b'", "1,1,0",
                          [](CTextOutput& o) { o.PrintSQLStringLiteral(std::string("a'b")); });
    ExpectFailuresIgnored("PrintSQLStringLiteral UTF-16", "'a'''", "1,1,0",
                          [&](CTextOutput& o) { o.PrintSQLStringLiteral(kUtf16, 2); });
    ExpectFailuresIgnored("PrintUtf16String", "a'$", "1,4,3", [&](CTextOutput& o) { o.PrintUtf16String(kUtf16, 3); });
    ExpectFailuresIgnored("PrintUtf8String", "abc", "1,4,3",
                          [](CTextOutput& o) { o.PrintUtf8String(Bytes("abc"), 3); });
    ExpectFailuresIgnored("PrintBase64", "Zm9vYg==", "1,1,0", [](CTextOutput& o) { o.PrintBase64(Bytes("foob"), 4); });
    ExpectFailuresIgnored("PrintCSVValue quoted", "\"a,\"\"\"", "1,1,0",
                          [](CTextOutput& o) { o.PrintCSVValue("a,\""); });
}

TEST(CTextOutput, PartsWrittenAsStringsEndAtTheirFirstFailure)
{
    const struct
    {
        const char* m_pName;
        std::size_t m_Failure; // the call that fails
        const char* m_pWritten;
        std::function<void(CTextOutput&)> m_Print;
    } kCases[] = {
        {"field", 2, "a", [](CTextOutput& o) { o.PrintCSVValue("abc"); }},
        {"text without an exponent", 2, "1", [](CTextOutput& o) { o.PrintFloatingPointString("1500", 4); }},
        {"exponent 0", 2, "1", [](CTextOutput& o) { o.PrintDouble(1.25); }},
        {"digit of exponent 2", 1, "23.456", [](CTextOutput& o) { o.PrintDouble(123.456); }},
        {"moved digits", 2, "1.456", [](CTextOutput& o) { o.PrintDouble(123.456); }}, // "23" begins
        {"point", 4, "123456", [](CTextOutput& o) { o.PrintDouble(123.456); }},
        {"fraction", 6, "123.4", [](CTextOutput& o) { o.PrintDouble(123.456); }},
        {"zero and point", 1, "0125", [](CTextOutput& o) { o.PrintFloat(0.0125F); }},
        {"zeros behind the point", 3, "0.125", [](CTextOutput& o) { o.PrintFloat(0.00125F); }},
        {"digit of exponent -2", 4, "0.025", [](CTextOutput& o) { o.PrintFloat(0.0125F); }},
        {"mantissa", 2, "1e-05", [](CTextOutput& o) { o.PrintDouble(1.25e-5); }},
        {"exponent", 6, "1.25e", [](CTextOutput& o) { o.PrintDouble(1.25e-5); }},
    };

    for (const auto& test : kCases) {
        SCOPED_TRACE(test.m_pName);
        RecordingTextOutput output;
        output.FailFrom(test.m_Failure, 1);

        test.m_Print(output);

        EXPECT_EQ(output.GetText(), test.m_pWritten);
    }
}

TEST(CTextOutput, PrintIndentsBehindALineFeedThatEndedItsText)
{
    RecordingTextOutput output;
    output.AdjustIndent(1);

    output.Print("a\n");
    output.Print("b");

    EXPECT_EQ(output.GetText(), "\ta\n\tb");
}

TEST(CTextOutput, PrintDoesNotIndentBehindALineFeedWithinItsText)
{
    RecordingTextOutput output;
    output.AdjustIndent(1);

    output.Print("a\nb");
    output.Print("c");

    EXPECT_EQ(output.GetText(), "\ta\nbc");
}

TEST(CTextOutput, PrintBehindAStringIndentsWithinTheLine)
{
    RecordingTextOutput output;
    output.AdjustIndent(1);

    output.WriteString("a");
    output.Print("b");

    EXPECT_EQ(output.GetText(), "a\tb");
}

TEST(CTextOutput, WriteOperationsDoNotIndent)
{
    RecordingTextOutput output;
    output.AdjustIndent(1);

    output.WriteString("a");
    output.WriteString("b", 1);
    output.WriteCodePoints(1, 'c');
    output.WriteNewLine();

    EXPECT_EQ(output.GetText(), "abc\r\n");
    EXPECT_EQ(output.GetIndentCount(), 0u);
}

// --- Raw writing ----------------------------------------------------------------------------------------------------

TEST(CTextOutput, StringIsDecoded)
{
    RecordingTextOutput output;

    EXPECT_TRUE(output.WriteString("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"));

    EXPECT_EQ(output.GetCodePoints(), (CodePoints{'a', 0xE9, 0x20AC, 0x1F600}));
}

TEST(CTextOutput, IllFormedStringGivesReplacementCharacters)
{
    const ExactArray<char> text{std::string_view("\xC0\x80z\xE2\x82")};
    RecordingTextOutput output;

    EXPECT_TRUE(output.WriteString(text.GetUnits(), text.GetCount()));

    EXPECT_EQ(output.GetCodePoints(), (CodePoints{0xFFFD, 0xFFFD, 'z', 0xFFFD}));
}

TEST(CTextOutput, StringWithLengthGoesBeyondNul)
{
    RecordingTextOutput output;

    EXPECT_TRUE(output.WriteString("a\0bc", 3));
    EXPECT_TRUE(output.WriteString(std::string("\0", 1)));
    EXPECT_TRUE(output.WriteString(nullptr, 0));

    EXPECT_EQ(output.GetCodePoints(), (CodePoints{'a', 0, 'b', 0}));
}

TEST(CTextOutput, StringTranslatesLineFeedsAndDropsCarriageReturns)
{
    RecordingTextOutput output;
    output.SetLineTermination(LineTerminationNEL);

    EXPECT_TRUE(output.WriteString("a\r\nb\rc\n"));

    EXPECT_EQ(output.GetCodePoints(), (CodePoints{'a', 0x85, 'b', 'c', 0x85}));
    EXPECT_EQ(Location(output), "3,1,0");
}

TEST(CTextOutput, StringDoesNotMoveTheLocationWithItsCodePoints)
{
    RecordingTextOutput output;

    output.WriteString("ab\tc");
    EXPECT_EQ(Location(output), "1,1,0");
    output.WriteString("\nab");
    EXPECT_EQ(Location(output), "2,1,0");
}

TEST(CTextOutput, StringStopsAtFirstFailure)
{
    RecordingTextOutput output;
    output.FailFrom(2, 1);

    EXPECT_FALSE(output.WriteString("abc"));

    EXPECT_EQ(output.GetText(), "a");
    EXPECT_EQ(output.GetCallCount(), 2u);
}

TEST(CTextOutput, StringStopsWhenItsLineEndFails)
{
    RecordingTextOutput output;
    output.FailFrom(3, 1);

    EXPECT_FALSE(output.WriteString("a\nb"));

    EXPECT_EQ(output.GetText(), "a\r");
    EXPECT_EQ(Location(output), "1,1,0");
}

TEST(CTextOutput, CodePointsAreRepeatedWithoutMovingTheLocation)
{
    RecordingTextOutput output;

    EXPECT_TRUE(output.WriteCodePoints(3, 0x20AC));
    EXPECT_TRUE(output.WriteCodePoints(0, 'x'));

    EXPECT_EQ(output.GetCodePoints(), (CodePoints{0x20AC, 0x20AC, 0x20AC}));
    EXPECT_EQ(Location(output), "1,1,0");
}

TEST(CTextOutput, CodePointsStopAtFirstFailure)
{
    RecordingTextOutput output;
    output.FailFrom(3, 1);

    EXPECT_FALSE(output.WriteCodePoints(5, 'x'));

    EXPECT_EQ(output.GetText(), "xx");
    EXPECT_EQ(output.GetCallCount(), 3u);
}

// --- Print and PrintLine --------------------------------------------------------------------------------------------

TEST(CTextOutput, PrintFormatsAndMovesTheLocation)
{
    RecordingTextOutput output;

    output.Print("%s=%d\t%s", "x", 12, "\xE2\x82\xAC");

    EXPECT_EQ(output.GetText(), "x=12\t\xE2\x82\xAC");
    EXPECT_EQ(Location(output), "1,10,6"); // four columns, a TAB from column 5 to 9, and one code point
}

TEST(CTextOutput, PrintWritesLineFeedsAsTheyAre)
{
    RecordingTextOutput output;

    output.Print("a\nb\r");

    EXPECT_EQ(output.GetText(), "a\nb\r");
    EXPECT_EQ(Location(output), "2,3,2");
}

TEST(CTextOutput, PrintKeepsNulFromTheFormat)
{
    RecordingTextOutput output;

    output.Print("a%cb", 0);

    EXPECT_EQ(output.GetCodePoints(), (CodePoints{'a', 0, 'b'}));
}

TEST(CTextOutput, PrintIgnoresFailures)
{
    RecordingTextOutput output;
    output.FailFrom(2, 1);

    output.Print("abc");

    EXPECT_EQ(output.GetText(), "ac");
    EXPECT_EQ(Location(output), "1,4,3");
}

TEST(CTextOutput, PrintLineEndsTheLine)
{
    RecordingTextOutput output;
    output.SetLineTermination(LineTerminationLS);

    output.PrintLine("%s\n", "\xC3\xA9");

    EXPECT_EQ(output.GetCodePoints(), (CodePoints{0xE9, 0x0A, 0x2028}));
    EXPECT_EQ(Location(output), "2,1,0"); // the line feed in the text did not count
}

TEST(CTextOutput, PrintLineDoesNotMoveTheLocationWithItsText)
{
    RecordingTextOutput output;
    output.FailFrom(4); // the line end fails

    output.PrintLine("abc");

    EXPECT_EQ(Location(output), "1,1,0");
}

TEST(CTextOutput, PrintLineIgnoresFailures)
{
    RecordingTextOutput output;
    output.FailFrom(1, 1);

    output.PrintLine("abc");

    EXPECT_EQ(output.GetText(), "bc\r\n");
}

// --- FormatText -----------------------------------------------------------------------------------------------------

TEST(CTextOutput, FormatTextReturnsTheLengthAndWritesNothing)
{
    Output output;
    output.AdjustIndent(1);

    EXPECT_EQ(output.Format("%d-%s", 17, "ab"), 5);

    EXPECT_EQ(output.GetFormatted(), "17-ab");
    EXPECT_EQ(output.GetCallCount(), 0u);
    EXPECT_EQ(output.GetIndentCount(), 0u);
}

TEST(CTextOutput, FormatBufferGrowsInStepsOf512Bytes)
{
    const struct
    {
        int m_Length;
        unsigned int m_Capacity;
    } kCases[] = {{511, 512}, {512, 1024}, {1023, 1024}, {1024, 1536}, {5000, 5120}, {1000000, 1000448}};

    for (const auto& test : kCases) {
        SCOPED_TRACE(test.m_Length);
        Output output;

        EXPECT_EQ(output.Format("%*d", test.m_Length, 7), test.m_Length);

        EXPECT_EQ(output.GetCapacity(), test.m_Capacity);
        EXPECT_TRUE(output.GetFormatted() == std::string(static_cast<std::size_t>(test.m_Length) - 1, ' ') + '7');
    }
}

TEST(CTextOutput, FormatBufferDoesNotShrink)
{
    Output output;
    output.Format("%600d", 1);

    EXPECT_EQ(output.Format("x"), 1);

    EXPECT_EQ(output.GetCapacity(), 1024u);
    EXPECT_EQ(output.GetFormatted(), "x");
}

TEST(CTextOutput, FormatTextUsesTheArgumentsAnewWhenItGrows)
{
    Output output;
    const std::string longText(2000, 'x');

    EXPECT_EQ(output.FormatTwice("%d %s %s %.1f %lld", 1, longText.c_str(), "two", 3.5, 0x7FFFFFFFFFFFFFFFLL), 2030);

    EXPECT_EQ(output.GetFormatted(), "1 " + longText + " two 3.5 9223372036854775807");
}

TEST(CTextOutput, TextThatCannotBeEncodedEndsThere)
{
    const ScopedLocale locale("C");
    Output output;
    output.Format("%s", "left over from before");

    EXPECT_EQ(output.Format("ab%lcde", static_cast<std::wint_t>(0x20AC)), 2);

    EXPECT_EQ(output.GetFormatted(), "ab");
    EXPECT_EQ(output.GetCapacity(), 512u);
}

TEST(CTextOutput, TextThatCannotBeEncodedAtAllIsEmpty)
{
    const ScopedLocale locale("C");
    Output output;
    output.Format("%s", "left over from before");

    EXPECT_EQ(output.Format("%lc", static_cast<std::wint_t>(0x20AC)), 0);

    EXPECT_EQ(output.GetFormatted(), "");
}

TEST(CTextOutput, LongTextThatCannotBeEncodedIsCutToTheBuffer)
{
    const ScopedLocale locale("C");
    Output output;

    EXPECT_EQ(output.Format("%600d%lc", 1, static_cast<std::wint_t>(0x20AC)), 511);

    EXPECT_EQ(output.GetFormatted(), std::string(511, ' '));
}

TEST(CTextOutput, PrintGoesOnAfterATextThatCannotBeEncoded)
{
    const ScopedLocale locale("C");
    RecordingTextOutput output;

    output.Print("ab%lcde", static_cast<std::wint_t>(0x20AC));
    output.PrintLine("%lc", static_cast<std::wint_t>(0x20AC));
    output.Print("next");

    EXPECT_EQ(output.GetText(), "ab\r\nnext");
}

TEST(CTextOutput, TextThatIsTooLongForAnIntEndsThere)
{
    const char* volatile const format = "ab%2147483648d"; // the compiler would see that this is too long
    Output output;
    output.Format("%s", "left over from before");

    EXPECT_EQ(output.Format(format, 1), 2);

    EXPECT_EQ(output.GetFormatted(), "ab");
    EXPECT_EQ(output.GetCapacity(), 512u);
}

// --- Single characters ----------------------------------------------------------------------------------------------

TEST(CTextOutput, CharIsAnUnsignedByteAndDoesNotMoveTheLocation)
{
    RecordingTextOutput output;

    output.PrintChar('a');
    output.PrintChar('\xE9');
    output.PrintChar('\n');
    output.PrintChar('\0');

    EXPECT_EQ(output.GetCodePoints(), (CodePoints{'a', 0xE9, 0x0A, 0}));
    EXPECT_EQ(Location(output), "1,1,0");
}

TEST(CTextOutput, CharsMoveTheLocationEachTime)
{
    RecordingTextOutput output;

    output.PrintChars(3, '\xFF');
    EXPECT_EQ(output.GetCodePoints(), (CodePoints{0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(Location(output), "1,4,3");

    output.PrintChars(2, '\n');
    EXPECT_EQ(Location(output), "3,1,0");
    output.PrintChars(2, '\t');
    EXPECT_EQ(Location(output), "3,9,2");
}

TEST(CTextOutput, NoCharsAreIndentationOnly)
{
    RecordingTextOutput output;
    output.AdjustIndent(1);

    output.PrintChars(0, 'x');

    EXPECT_EQ(output.GetText(), "\t");
}

TEST(CTextOutput, CharsIndentOnce)
{
    RecordingTextOutput output;
    output.AdjustIndent(1);

    output.PrintChars(2, '\n');

    EXPECT_EQ(output.GetText(), "\t\n\n");
}

TEST(CTextOutput, CharsIgnoreFailures)
{
    RecordingTextOutput output;
    output.FailFrom(1, 1);

    output.PrintChars(3, 'x');

    EXPECT_EQ(output.GetText(), "xx");
    EXPECT_EQ(Location(output), "1,4,3");
}

// --- Numbers --------------------------------------------------------------------------------------------------------

TEST(CTextOutput, DoubleHasAtMost15Digits)
{
    const struct
    {
        double m_Value;
        const char* m_pText;
    } kCases[] = {
        {0.0, "0"},
        {-0.0, "-0"},
        {1.0, "1"},
        {-1.0, "-1"},
        {100.0, "100"},
        {1500.0, "1500"},
        {-1500.5, "-1500.5"},
        {123.4568, "123.4568"},
        {0.015, "0.015"},
        {-0.015, "-0.015"},
        {0.1, "0.1"},
        {0.01, "0.01"},
        {0.001, "0.001"},
        {0.0001, "0.0001"},
        {-0.00012345, "-0.00012345"},
        {1e-5, "1e-05"},
        {1.5e-5, "1.5e-05"},
        {999999.0, "999999"},
        {9999999.0, "9999999"},
        {1234567.875, "1234567.875"},
        {1e7, "1e+07"},
        {-12345678.0, "-1.2345678e+07"},
        {1e15, "1e+15"},
        {1e100, "1e+100"},
        {1.5e-300, "1.5e-300"},
        {1.0 / 3, "0.333333333333333"},
        {200.0 / 3, "66.6666666666667"},
        {0.1 + 0.2, "0.3"},
        {9.9999999999999995, "10"},    // rounds up to one digit more
        {9999999.9999999995, "1e+07"}, // and leaves the plain form by that
        {0.0000999999999999994, "9.99999999999994e-05"},
        {0.000099999999999999995, "0.0001"},
        {1.7976931348623157e308, "1.79769313486232e+308"},
        {2.2250738585072014e-308, "2.2250738585072e-308"},
        {4.9406564584124654e-324, "4.94065645841247e-324"},
    };

    for (const auto& test : kCases) {
        SCOPED_TRACE(test.m_pText);
        EXPECT_EQ(Double(test.m_Value), test.m_pText);
    }
}

TEST(CTextOutput, FloatHasAtMost7Digits)
{
    const struct
    {
        float m_Value;
        const char* m_pText;
    } kCases[] = {
        {0.0F, "0"},
        {-0.0F, "-0"},
        {1500.0F, "1500"},
        {123.4568F, "123.4568"},
        {0.015F, "0.015"},
        {0.1F, "0.1"},
        {16777216.0F, "1.677722e+07"},
        {1234567.0F, "1234567"},
        {9999999.0F, "9999999"},
        {1e7F, "1e+07"},
        {1.5e-5F, "1.5e-05"},
        {-0.0001F, "-0.0001"},
        {1.0F / 3, "0.3333333"},
        {3.4028235e38F, "3.402823e+38"},
        {1.4012985e-45F, "1.401298e-45"},
        {0.5F + 1234567.0F, "1234568"}, // a tie: seven digits end in an even one
        {0.5F + 1234566.0F, "1234566"},
    };

    for (const auto& test : kCases) {
        SCOPED_TRACE(test.m_pText);
        EXPECT_EQ(Float(test.m_Value), test.m_pText);
    }
}

TEST(CTextOutput, NumbersWithoutDigitsAreWords)
{
    const double infinity = std::numeric_limits<double>::infinity();
    const double notANumber = std::numeric_limits<double>::quiet_NaN();

    EXPECT_EQ(Double(notANumber), "NaN");
    EXPECT_EQ(Double(-notANumber), "NaN");
    EXPECT_EQ(Double(infinity), "+Infinity");
    EXPECT_EQ(Double(-infinity), "-Infinity");
    EXPECT_EQ(Float(std::numeric_limits<float>::quiet_NaN()), "NaN");
    EXPECT_EQ(Float(std::numeric_limits<float>::infinity()), "+Infinity");
    EXPECT_EQ(Float(-std::numeric_limits<float>::infinity()), "-Infinity");
}

TEST(CTextOutput, OnlyTheWordsAmongNumbersMoveTheLocation)
{
    RecordingTextOutput output;

    output.PrintDouble(1500.25);
    output.PrintDouble(0.0015);
    output.PrintFloat(1e-20F);
    EXPECT_EQ(Location(output), "1,1,0");

    output.PrintDouble(std::numeric_limits<double>::infinity());
    EXPECT_EQ(Location(output), "1,10,9");
    output.PrintFloat(std::numeric_limits<float>::quiet_NaN());
    EXPECT_EQ(Location(output), "1,13,12");
}

TEST(CTextOutput, FloatingPointStringIsPutIntoItsShortestForm)
{
    const struct
    {
        const char* m_pText;
        const char* m_pWritten;
    } kCases[] = {
        // Without a point or an exponent: as it is.
        {"", ""},
        {"1500", "1500"},
        {"1.50", "1.50"},
        {"1e3", "1e3"},
        {"nan", "nan"},
        {"e", "e"},
        {".", "."},
        // Exponent 0.
        {"1.2500e+00", "1.25"},
        {"1.000e+00", "1"},
        {"-1.000e0", "-1"},
        {"1.e0", "1"},
        {"1.5e", "1.5"},
        {"1.5e+", "1.5"},
        {"1.5e-0", "1.5"},
        // Exponents 1 to 6: digits move, zeros fill up.
        {"1.234500e+02", "123.45"},
        {"1.234500e+04", "12345"},
        {"1.234500e+06", "1234500"},
        {"-1.5e3", "-1500"},
        {"1.e2", "100"},
        {"1.0e6", "1000000"},
        {"1.5000e1", "15"},
        {"1.x5e2", "100.x5"},
        // Exponents -1 to -4.
        {"1.500000e-01", "0.15"},
        {"1.500000e-04", "0.00015"},
        {"-1.000000e-02", "-0.01"},
        {"1.e-1", "0.1"},
        {"12.5e-1", "0.15"}, // takes one digit in front of the point
        // All others.
        {"1.500000e-05", "1.5e-05"},
        {"1.000000e+07", "1e+07"},
        {"-1.250e+123", "-1.25e+123"},
        {"1.50e99999999999999999999", "1.5e99999999999999999999"},
        {"1.50e-99999999999999999999", "1.5e-99999999999999999999"},
        {"1.50e7xyz", "1.5e7xyz"},
        // Nothing in front of the point.
        {".5e-1", "0.5"},
        {"-.5e-1", "-0.5"},
        {".5e1", "5"},
        // The exponent in front of the point.
        {"e.5", ""},
        {"1e2.0", "1e200"},
        {"1e-1.0", "0.1"},
        {"1e0.0", "1"},
        {"1e9.0", "1e9.0"},
    };

    for (const auto& test : kCases) {
        SCOPED_TRACE(test.m_pText);
        EXPECT_EQ(NumberString(test.m_pText), test.m_pWritten);
    }
}

TEST(CTextOutput, FloatingPointStringIsNotReadBeyondItsLength)
{
    RecordingTextOutput output;

    output.PrintFloatingPointString("1.25e+01", 4); // "1.25"
    output.PrintChar(' ');
    output.PrintFloatingPointString("1.25e+01", 6); // "1.25e+"
    output.PrintChar(' ');
    output.PrintFloatingPointString("1.25e12", 6); // "1.25e1"
    output.PrintChar(' ');
    output.PrintFloatingPointString(nullptr, 0);

    EXPECT_EQ(output.GetText(), "1.25 1.25 12.5 ");
}

TEST(CTextOutput, FloatingPointStringMovesTheLocationWithFilledUpZerosOnly)
{
    RecordingTextOutput output;

    output.PrintFloatingPointString("1.5e4", 5);

    EXPECT_EQ(output.GetText(), "15000");
    EXPECT_EQ(Location(output), "1,4,3");
}

TEST(CTextOutput, FloatingPointStringIsWrittenAsStringsAre)
{
    EXPECT_EQ(NumberString("a\nb\r"), "a\r\nb");
    EXPECT_EQ(NumberString("\xC3\xA9.50e9"), "\xC3\xA9.5e9");
}

// --- Dates ----------------------------------------------------------------------------------------------------------

TEST(CTextOutput, DateIsYearMonthDay)
{
    RecordingTextOutput output;

    output.PrintDate(nullptr, kTime);

    EXPECT_EQ(output.GetText(), "2020-03-04");
    EXPECT_EQ(Location(output), "1,11,10");
}

TEST(CTextOutput, DateAndTimeGoesDownToTheMillisecond)
{
    RecordingTextOutput output;

    output.PrintDateAndTime(nullptr, kTime, ' ');

    EXPECT_EQ(output.GetText(), "2020-03-04 05:06:07.008");
    EXPECT_EQ(Location(output), "1,24,23");
}

TEST(CTextOutput, FirstAndLastYearOfFourDigits)
{
    CQDTimestamp last;
    ASSERT_TRUE(last.SetDateAndHHMMSSFFF(9999, 12, 31, 23, 59, 59, 999));
    RecordingTextOutput output;

    output.PrintDateAndTime(nullptr, 0, 'T');
    output.PrintDateAndTime(nullptr, last.GetValue(), 'T');

    EXPECT_EQ(output.GetText(), "1601-01-01T00:00:00.0009999-12-31T23:59:59.999");
}

TEST(CTextOutput, YearBeyond9999IsFourStars)
{
    CQDTimestamp last;
    ASSERT_TRUE(last.SetDate(9999, 12, 31));
    RecordingTextOutput output;

    output.PrintDate(nullptr, last.GetValue() + kDay);
    output.PrintChar(' ');
    output.PrintDateAndTime(nullptr, last.GetValue() + kDay, 'T');

    EXPECT_EQ(output.GetText(), "****-01-01 ****-01-01T00:00:00.000");
    EXPECT_EQ(Location(output), "1,34,33");
}

TEST(CTextOutput, SeparatorCountsAsItsCodePoint)
{
    RecordingTextOutput output;

    output.PrintDateAndTime(nullptr, kTime, '\n');
    EXPECT_EQ(Location(output), "2,13,12");
    output.PrintDateAndTime(nullptr, kTime, '\0');

    EXPECT_EQ(output.GetText(), "2020-03-04\n05:06:07.0082020-03-04" + std::string(1, '\0') + "05:06:07.008");
}

TEST(CTextOutput, SeparatorOutsideAsciiIsNoText)
{
    RecordingTextOutput output;

    output.PrintDateAndTime(nullptr, kTime, '\xE9');

    EXPECT_EQ(output.GetText(), "2020-03-04\xEF\xBF\xBD"
                                "05:06:07.008");
}

TEST(CTextOutput, DatesAreInLocalTimeOfTheZone)
{
    CQDTimeZone zone;
    if (!zone.UseSpecifiedTimeZone("Etc/GMT-9"))
        GTEST_SKIP() << "the system has no zone Etc/GMT-9";
    RecordingTextOutput output;

    output.PrintDateAndTime(&zone, kTime, ' '); // nine hours ahead of UTC
    output.PrintChar('|');
    output.PrintDate(&zone, kTime + kDay * 2 / 3); // 21:06 and nine hours: the next day

    EXPECT_EQ(output.GetText(), "2020-03-04 14:06:07.008|2020-03-05");
}

TEST(CTextOutput, EmptyZoneIsUtc)
{
    const CQDTimeZone zone;
    RecordingTextOutput output;

    output.PrintDateAndTime(&zone, kTime, ' ');

    EXPECT_EQ(output.GetText(), "2020-03-04 05:06:07.008");
}

// --- IEC 61131-3 literals -------------------------------------------------------------------------------------------

TEST(CTextOutput, CodePointOfSingleByteLiteral)
{
    const struct
    {
        int m_CodePoint;
        const char* m_pWritten;
    } kCases[] = {{'$', "$$"},   {'\t', "$t"},    {'\n', "$n"},        {'\r', "$r"},     {'\'', "$'"},
                  {'"', "\""},   {' ', " "},      {'a', "a"},          {'~', "~"},       {0, "$00"},
                  {0x1F, "$1F"}, {0x7F, "$7F"},   {0x80, "$80"},       {0xA0, "$A0"},    {0xE9, "$E9"},
                  {0xFF, "$FF"}, {0x100, "$100"}, {0x1F600, "$1F600"}, {-1, "$FFFFFFFF"}};

    for (const auto& test : kCases) {
        SCOPED_TRACE(test.m_CodePoint);
        EXPECT_EQ(CodePoint00ToFF(test.m_CodePoint, false), test.m_pWritten);
    }
}

TEST(CTextOutput, CodePointOfDoubleByteLiteral)
{
    const struct
    {
        int m_CodePoint;
        const char* m_pWritten;
    } kCases[] = {{'$', "$$"},
                  {'\t', "$t"},
                  {'\n', "$n"},
                  {'\r', "$r"},
                  {'"', "$\""},
                  {'\'', "'"},
                  {' ', " "},
                  {'~', "~"},
                  {0, "$0000"},
                  {1, "$0001"},
                  {0x1F, "$001F"},
                  {0x7F, "$007F"},
                  {0x80, "$0080"},
                  {0xA0, "$00A0"},
                  {0xA1, "\xC2\xA1"},
                  {0xE9, "\xC3\xA9"},
                  {0x20AC, "\xE2\x82\xAC"},
                  {0x1F600, "\xF0\x9F\x98\x80"},
                  {-1, "$FFFFFFFF"}};

    for (const auto& test : kCases) {
        SCOPED_TRACE(test.m_CodePoint);
        EXPECT_EQ(CodePoint00ToFF(test.m_CodePoint, true), test.m_pWritten);
    }
}

TEST(CTextOutput, CodePointOfLiteralMovesTheLocationByItsEscape)
{
    const struct
    {
        int m_CodePoint;
        bool m_DoubleByte;
        const char* m_pLocation;
    } kCases[] = {{'$', false, "1,3,2"},  {'\t', false, "1,3,2"}, {'\n', true, "1,3,2"}, {'\r', true, "1,3,2"},
                  {'\'', false, "1,1,0"}, {'"', true, "1,1,0"},   {'a', false, "1,1,0"}, {0xE9, true, "1,1,0"},
                  {1, false, "1,4,3"},    {1, true, "1,6,5"}};

    for (const auto& test : kCases) {
        SCOPED_TRACE(test.m_CodePoint);
        RecordingTextOutput output;

        output.PrintCodePoint00ToFF(test.m_CodePoint, test.m_DoubleByte);

        EXPECT_EQ(Location(output), test.m_pLocation);
    }
}

TEST(CTextOutput, LiteralOfBytesEscapesQuoteDollarAndControlCharacters)
{
    const struct
    {
        const char* m_pText;
        const char* m_pSingleByte;
        const char* m_pDoubleByte;
    } kCases[] = {{"", "''", "\"\""},
                  {"abc", "'abc'", "\"abc\""},
                  {"'$\t", "'$'$$$t'", "\"'$$$t\""},
                  {"\"", "'\"'", "\"$\"\""},
                  {"\n\r", "'$n$r'", "\"$n$r\""},
                  {"\x01 \x7F", "'$01 $7F'", "\"$0001 $007F\""},
                  {"~\x1B[0m", "'~$1B[0m'", "\"~$001B[0m\""}};

    for (const auto& test : kCases) {
        SCOPED_TRACE(test.m_pText);
        EXPECT_EQ(Literal(test.m_pText, false), test.m_pSingleByte);
        EXPECT_EQ(Literal(test.m_pText, true), test.m_pDoubleByte);
    }
}

TEST(CTextOutput, LiteralOfBytesGoesBeyondNul)
{
    RecordingTextOutput output;

    output.Print61131String("a\0b", 3, false);
    output.Print61131String(nullptr, 0, true);

    EXPECT_EQ(output.GetText(), "'a$00b'\"\"");
}

TEST(CTextOutput, LiteralOfBytesDoesNotDecode)
{
    const ScopedLocale locale("C");

    EXPECT_EQ(Literal("\xC3\xA9", false), "'$C3$A9'");
    EXPECT_EQ(Literal("\xC3\xA9", true), "\"$00C3$00A9\"");
}

TEST(CTextOutput, LiteralOfBytesKeepsWhatTheLocaleCanPrint)
{
    const ScopedLocale locale("C.UTF-8");
    RecordingTextOutput output;

    output.Print61131String("\xE9\x80", 2, false); // U+00E9 is a letter, U+0080 a control character

    EXPECT_EQ(output.GetCodePoints(), (CodePoints{'\'', 0xE9, '$', '8', '0', '\''}));
}

TEST(CTextOutput, LiteralOfBytesMovesTheLocationWithHexEscapesOnly)
{
    RecordingTextOutput output;

    output.Print61131String("a$'\t", 4, false);
    EXPECT_EQ(Location(output), "1,1,0");
    output.Print61131String("\x01", 1, false);
    EXPECT_EQ(Location(output), "1,4,3");
    output.Print61131String("\x01", 1, true);
    EXPECT_EQ(Location(output), "1,9,8");
}

TEST(CTextOutput, LiteralOfUtf8EscapesWhatIsNotPrintable)
{
    const struct
    {
        const char* m_pText;
        const char* m_pWritten;
    } kCases[] = {{"", "''"},
                  {"a'$\t\n\r\"", "'a$'$$$t$n$r\"'"},
                  {"\x01~", "'$01~'"},
                  {"\x7F", "'$7F'"},
                  {"\xC2\x80", "'$C2$80'"},               // a control character
                  {"\xC2\xA0", "'$C2$A0'"},               // a separator
                  {"\xC3\xA9", "'\xC3\xA9'"},             // a letter
                  {"\xE2\x82\xAC", "'\xE2\x82\xAC'"},     // a symbol
                  {"\xCC\x80", "'$CC$80'"},               // a mark
                  {"\xE2\x80\xA8", "'$E2$80$A8'"},        // the line separator
                  {"\xF0\x9F\x98\x80", "'$F0$9F$98$80'"}, // printable, but not below U+10000
                  {"\xFF", "'\xEF\xBF\xBD'"}};            // ill-formed: U+FFFD is a symbol

    for (const auto& test : kCases) {
        SCOPED_TRACE(test.m_pWritten);
        EXPECT_EQ(LiteralFromUtf8(test.m_pText), test.m_pWritten);
    }
}

TEST(CTextOutput, LiteralOfUtf8GoesBeyondNulAndEndsWithItsLength)
{
    const ExactArray<char> text{std::string_view("a\0\xE2\x82", 4)};
    RecordingTextOutput output;

    output.Print61131String(Bytes(text.GetUnits()), text.GetCount());

    EXPECT_EQ(output.GetText(), "'a$00\xEF\xBF\xBD'");
}

TEST(CTextOutput, LiteralOfCharactersIsThatOfTheirUtf8)
{
    const UnicodeCharacter kCharacters[] = {'a',    '\'',   '$',    '\t',    0x01,     0x7F, 0xE9,
                                            0x0300, 0xD800, 0x4E2D, 0x1F600, 0x110000, -1};
    RecordingTextOutput output;

    output.Print61131String(kCharacters, static_cast<unsigned int>(std::size(kCharacters)));

    EXPECT_EQ(output.GetText(), "'a$'$$$t$01$7F\xC3\xA9$CC$80$ED$A0$80\xE4\xB8\xAD$F0$9F$98$80$F4$90$80$80$FFFFFFFF'");
}

TEST(CTextOutput, LiteralOfUtf16EscapesWhatIsNotPrintable)
{
    const struct
    {
        std::vector<unsigned short> m_Units;
        const char* m_pWritten;
    } kCases[] = {{{}, "\"\""},
                  {{'a', '"', '$', 9, 10, 13, '\''}, "\"a$\"$$$t$n$r'\""},
                  {{1, 0x7E}, "\"$0001~\""},
                  {{0x7F}, "\"$007F\""},
                  {{0xA0}, "\"$00A0\""},
                  {{0xE9}, "\"\xC3\xA9\""},
                  {{0x0300}, "\"$0300\""},
                  {{0x20AC}, "\"\xE2\x82\xAC\""},
                  {{0xD83D, 0xDE00}, "\"$D83D$DE00\""},
                  {{0xD83D}, "\"$D83D\""}, // lone surrogates are their own values
                  {{0xDE00, 'a'}, "\"$DE00a\""}};

    for (const auto& test : kCases) {
        SCOPED_TRACE(test.m_pWritten);
        EXPECT_EQ(LiteralFromUtf16(test.m_Units), test.m_pWritten);
    }
}

TEST(CTextOutput, LiteralsOfCodePointsMoveTheLocationWithEscapes)
{
    const unsigned short kUtf16[] = {'a', '$', 0xE9, 0xD83D, 0xDE00};
    RecordingTextOutput output;

    output.Print61131String(Bytes("a$\xC3\xA9\xCC\x80"), 6); // "$$" and two escapes of 3
    EXPECT_EQ(Location(output), "1,9,8");
    output.Print61131String(kUtf16, 5); // "$$" and two escapes of 5
    EXPECT_EQ(Location(output), "1,21,20");
}

// --- SQL literals, runs, base64, CSV --------------------------------------------------------------------------------

TEST(CTextOutput, SqlLiteralDoublesSingleQuotesOnly)
{
    const std::u16string utf16 = u"it's \"$\u20AC\n\\'";
    RecordingTextOutput fromUtf8;
    RecordingTextOutput fromUtf16;

    fromUtf8.PrintSQLStringLiteral("it's \"$\xE2\x82\xAC\n\\'");
    fromUtf16.PrintSQLStringLiteral(std::vector<unsigned short>(utf16.begin(), utf16.end()).data(),
                                    static_cast<unsigned int>(utf16.size()));

    EXPECT_EQ(fromUtf8.GetText(), "'it''s \"$\xE2\x82\xAC\n\\'''");
    EXPECT_EQ(fromUtf16.GetCodePoints(), fromUtf8.GetCodePoints());
    EXPECT_EQ(Location(fromUtf8), "1,1,0");
    EXPECT_EQ(Location(fromUtf16), "1,1,0");
}

TEST(CTextOutput, SqlLiteralGoesBeyondNulAndEndsWithItsLength)
{
    RecordingTextOutput output;

    output.PrintSQLStringLiteral(std::string("a\0'\xF0\x9F\x98", 6));

    EXPECT_EQ(output.GetCodePoints(), (CodePoints{'\'', 'a', 0, '\'', '\'', 0xFFFD, '\''}));
}

TEST(CTextOutput, EmptySqlLiteralIsTwoQuotes)
{
    RecordingTextOutput output;

    output.PrintSQLStringLiteral("");
    output.PrintSQLStringLiteral(nullptr, 0);

    EXPECT_EQ(output.GetText(), "''''");
}

TEST(CTextOutput, Utf8StringMovesByOneColumnForEachCodePoint)
{
    const ExactArray<char> text{std::string_view("a\t\n\xE2\x82\xAC\r\xE2")};
    RecordingTextOutput output;

    output.PrintUtf8String(Bytes(text.GetUnits()), text.GetCount());

    EXPECT_EQ(output.GetCodePoints(), (CodePoints{'a', 9, 10, 0x20AC, 13, 0xFFFD}));
    EXPECT_EQ(Location(output), "1,7,6");
}

TEST(CTextOutput, Utf16StringMovesByOneColumnForEachCodePoint)
{
    const unsigned short kUtf16[] = {'a', 9, 10, 0xD83D, 0xDE00, 0xDC00, 0xD800};
    RecordingTextOutput output;

    output.PrintUtf16String(kUtf16, 7);

    EXPECT_EQ(output.GetCodePoints(), (CodePoints{'a', 9, 10, 0x1F600, 0xDC00, 0xD800}));
    EXPECT_EQ(Location(output), "1,7,6");
}

TEST(CTextOutput, Base64HasTheVectorsOfItsStandard)
{
    EXPECT_EQ(Base64(""), "");
    EXPECT_EQ(Base64("f"), "Zg==");
    EXPECT_EQ(Base64("fo"), "Zm8=");
    EXPECT_EQ(Base64("foo"), "Zm9v");
    EXPECT_EQ(Base64("foob"), "Zm9vYg==");
    EXPECT_EQ(Base64("fooba"), "Zm9vYmE=");
    EXPECT_EQ(Base64("foobar"), "Zm9vYmFy");
    EXPECT_EQ(Base64("\xFB\xEF\xBE\xFF\xFF\xFF"), "++++////");
    EXPECT_EQ(Base64(std::string("\0\0\0", 3)), "AAAA");
}

TEST(CTextOutput, Base64HasNoLineBreaksAndDoesNotMoveTheLocation)
{
    RecordingTextOutput output;

    output.PrintBase64(Bytes(std::string(301, 'x').c_str()), 301);

    std::string expected;
    for (int i = 0; i < 100; ++i)
        expected += "eHh4";
    EXPECT_EQ(output.GetText(), expected + "eA==");
    EXPECT_EQ(Location(output), "1,1,0");
}

TEST(CTextOutput, CsvValueIsQuotedForCommaOrQuote)
{
    const struct
    {
        const char* m_pValue;
        const char* m_pWritten;
    } kCases[] = {
        {"", ""},           {"abc", "abc"}, {"a;b", "a;b"},     {"a b", "a b"},       {"'", "'"},
        {"a,b", "\"a,b\""}, {",", "\",\""}, {"\"", "\"\"\"\""}, {"a\"", "\"a\"\"\""}, {"\"a\",", "\"\"\"a\"\",\""}};

    for (const auto& test : kCases) {
        SCOPED_TRACE(test.m_pValue);
        EXPECT_EQ(CsvValue(test.m_pValue), test.m_pWritten);
    }
}

TEST(CTextOutput, CsvValueWithLineBreakAloneIsNotQuoted)
{
    EXPECT_EQ(CsvValue("a\nb"), "a\r\nb"); // as WriteString() writes it
    EXPECT_EQ(CsvValue("a\rb"), "ab");
}

TEST(CTextOutput, CsvValueWithCommaIsWrittenByteByByte)
{
    RecordingTextOutput quoted;
    RecordingTextOutput plain;

    quoted.PrintCSVValue(",\xC3\xA9\r\n");
    plain.PrintCSVValue("\xC3\xA9");

    EXPECT_EQ(quoted.GetCodePoints(), (CodePoints{'"', ',', 0xC3, 0xA9, '\r', '\n', '"'}));
    EXPECT_EQ(plain.GetCodePoints(), (CodePoints{0xE9}));
    EXPECT_EQ(Location(quoted), "1,1,0");
}

TEST(CTextOutput, CsvValueGoesBeyondNulAndEndsWithItsLength)
{
    RecordingTextOutput quoted;
    RecordingTextOutput plain;

    quoted.PrintCSVValue(std::string(",\0\xE2\x82", 4));
    plain.PrintCSVValue(std::string("a\0\xE2\x82", 4));

    EXPECT_EQ(quoted.GetCodePoints(), (CodePoints{'"', ',', 0, 0xE2, 0x82, '"'}));
    EXPECT_EQ(plain.GetCodePoints(), (CodePoints{'a', 0, 0xFFFD}));
}

// --- Memory ---------------------------------------------------------------------------------------------------------

TEST(CTextOutput, SteadyOutputAllocatesNothing)
{
    const unsigned short kUtf16[] = {'a', '\'', 0xE9, 1, 0xD83D, 0xDE00};
    const UnicodeCharacter kCharacters[] = {'a', 0xE9, 0x0300};
    const std::string text = "a,\"b\"\n'$'\xC3\xA9\x01";
    CQDTimeZone zone;
    RecordingTextOutput output;
    output.AdjustIndent(1);
    const AllocationCounter allocations;

    output.PrintLine("%500d", 1);
    output.Print("%s", "text");
    output.WriteString(text);
    output.PrintChars(3, 'x');
    output.PrintFloat(1.0F / 3);
    output.PrintDouble(1.0 / 3);
    output.PrintDouble(1e300);
    output.PrintDouble(5e-324);
    output.PrintDate(&zone, kTime);
    output.PrintDateAndTime(nullptr, kTime, ' ');
    output.Print61131String(text, true);
    output.Print61131String(kCharacters, 3);
    output.Print61131String(Bytes(text.c_str()), 5);
    output.Print61131String(kUtf16, 6);
    output.PrintSQLStringLiteral(text);
    output.PrintSQLStringLiteral(kUtf16, 6);
    output.PrintUtf16String(kUtf16, 6);
    output.PrintUtf8String(Bytes(text.c_str()), 5);
    output.PrintBase64(Bytes(text.c_str()), 5);
    output.PrintCSVValue(text);

    EXPECT_EQ(allocations.GetCount(), 0u);
}

TEST(CTextOutput, GrownFormatBufferIsUsedAgainWithoutAllocation)
{
    RecordingTextOutput output;
    output.Print("%1500d", 1);
    const AllocationCounter allocations;

    output.Print("%1500d", 2);

    EXPECT_EQ(allocations.GetCount(), 0u);
}

TEST(CTextOutput, FormatBufferGrowsByOneAllocation)
{
    Output output;
    const AllocationCounter allocations;

    output.Format("%5000d", 1);

    EXPECT_EQ(allocations.GetCount(), 1u);
}

} // namespace
