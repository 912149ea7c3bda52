#include <QDPlatform/QDAsyncUrlRequestOptions.h>

#include <QDPlatform/QDAsyncUrlRequest.h>
#include <QDPlatform/QDLocale.h>

#include "CurlOptionRecorder.h"
#include "RecordingTextOutput.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

static_assert(!std::is_copy_constructible_v<QDAsyncUrlRequestOptions>);
static_assert(!std::is_copy_assignable_v<QDAsyncUrlRequestOptions>);
static_assert(!std::is_polymorphic_v<QDAsyncUrlRequestOptions>);

namespace
{

using testing::ElementsAre;
using Call = CurlOptionRecorder::Call;

// The bits of "--anyauth" in a long, which is negative where that has 32 bits.
constexpr const char* kAnyAuthText = sizeof(long) == 4 ? "-17" : "4294967279";

// The error text of a parse that must fail.
std::string Error(const std::string& text)
{
    const CQDLocale locale;
    QDAsyncUrlRequestOptions options;
    std::string error = "before";
    EXPECT_FALSE(options.ParseCurlOptions(locale, text, error)) << text;
    return error;
}

void Parse(QDAsyncUrlRequestOptions& options, const std::string& text)
{
    const CQDLocale locale;
    std::string error = "before";
    EXPECT_TRUE(options.ParseCurlOptions(locale, text, error)) << text;
    EXPECT_EQ(error, "");
}

std::string Print(const QDAsyncUrlRequestOptions& options)
{
    RecordingTextOutput out;
    out.SetLineTermination(LineTerminationLF);
    options.PrintOptions(out);
    return out.GetText();
}

// What a parse that must succeed prints.
std::string ParseAndPrint(const std::string& text)
{
    QDAsyncUrlRequestOptions options;
    Parse(options, text);
    return Print(options);
}

// The settings that the options in `text` make on a request, in order.
std::vector<Call> Apply(const std::string& text)
{
    QDAsyncUrlRequestOptions options;
    Parse(options, text);
    QDAsyncUrlRequest request;
    CurlOptionRecorder recorder;
    options.ApplyOptionsToRequest(&request);
    std::vector<Call> calls = recorder.GetCalls();
    for (const Call& call : calls)
        EXPECT_EQ(call.m_Handle, request.GetCurlHandle());
    return calls;
}

} // namespace

// --- The table ---

TEST(QDAsyncUrlRequestOptions, FlagSetsItsOptionTo1)
{
    const struct
    {
        const char* m_Name;
        int m_Option;
    } kCases[] = {{"--append", 50},          {"--crlf", 27},        {"--disallow-username-in-url", 278},
                  {"--ftp-pret", 188},       {"--path-as-is", 234}, {"--tcp-fastopen", 244},
                  {"--tftp-no-options", 242}};

    for (const auto& row : kCases) {
        SCOPED_TRACE(row.m_Name);

        const std::vector<Call> calls = Apply(row.m_Name);

        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(static_cast<int>(calls[0].m_Option), row.m_Option);
        EXPECT_EQ(calls[0].m_Integer, 1);
    }
}

TEST(QDAsyncUrlRequestOptions, BitmaskSetsItsOptionToItsMask)
{
    const struct
    {
        const char* m_Name;
        int m_Option;
        unsigned int m_Mask;
    } kCases[] = {{"--anyauth", 107, 0xFFFFFFEF}, {"--basic", 107, 0x1},   {"--digest", 107, 0x2},
                  {"--negotiate", 107, 0x4},      {"--ntlm", 107, 0x8},    {"--ntlm-wb", 107, 0x20},
                  {"--post301", 161, 0x1},        {"--post302", 161, 0x2}, {"--post303", 161, 0x4}};

    for (const auto& row : kCases) {
        SCOPED_TRACE(row.m_Name);

        const std::vector<Call> calls = Apply(row.m_Name);

        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(static_cast<int>(calls[0].m_Option), row.m_Option);
        EXPECT_EQ(static_cast<unsigned int>(calls[0].m_Integer), row.m_Mask);
    }
}

TEST(QDAsyncUrlRequestOptions, IntegerSetsItsOptionUnchanged)
{
    const struct
    {
        const char* m_Text;
        int m_Option;
        long m_Value;
    } kCases[] = {
        {"--connect-timeout 7", 78, 7}, {"--max-time 30", 13, 30}, {"--max-time 0", 13, 0}, {"--max-time 007", 13, 7}};

    for (const auto& row : kCases) {
        SCOPED_TRACE(row.m_Text);

        const std::vector<Call> calls = Apply(row.m_Text);

        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(static_cast<int>(calls[0].m_Option), row.m_Option);
        EXPECT_EQ(calls[0].m_Integer, row.m_Value);
    }
}

TEST(QDAsyncUrlRequestOptions, StringSetsItsOptionToItsValue)
{
    const struct
    {
        const char* m_Text;
        int m_Option;
        const char* m_Value;
    } kCases[] = {{"--ciphers AES128-SHA", 10083, "AES128-SHA"},
                  {"--ftp-port eth0", 10017, "eth0"},
                  {"--mail-auth a@example.com", 10217, "a@example.com"},
                  {"--mail-from b@example.com", 10186, "b@example.com"},
                  {"--proto-default ftp", 10238, "ftp"},
                  {"--proxy http://192.0.2.1:3128", 10004, "http://192.0.2.1:3128"}};

    for (const auto& row : kCases) {
        SCOPED_TRACE(row.m_Text);

        const std::vector<Call> calls = Apply(row.m_Text);

        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(static_cast<int>(calls[0].m_Option), row.m_Option);
        EXPECT_EQ(calls[0].m_Text, row.m_Value);
        EXPECT_EQ(calls[0].m_Result, CURLE_OK);
    }
}

TEST(QDAsyncUrlRequestOptions, StringListSetsItsOptionToAllValuesInOrder)
{
    const std::vector<Call> calls = Apply("--mail-rcpt a --crlf --mail-rcpt 'b c' --mail-rcpt a");

    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(static_cast<int>(calls[0].m_Option), 10187);
    EXPECT_THAT(calls[0].m_List, ElementsAre("a", "b c", "a"));
    EXPECT_EQ(static_cast<int>(calls[1].m_Option), 27);
}

TEST(QDAsyncUrlRequestOptions, BearerTokenAlsoAsksForBearerAuthentication)
{
    const std::vector<Call> calls = Apply("--oauth2-bearer tok");

    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(static_cast<int>(calls[0].m_Option), 10220);
    EXPECT_EQ(calls[0].m_Text, "tok");
    EXPECT_EQ(static_cast<int>(calls[1].m_Option), 107);
    EXPECT_EQ(calls[1].m_Integer, 0x40);
}

TEST(QDAsyncUrlRequestOptions, BearerAddsUpWithOtherAuthentication)
{
    EXPECT_EQ(ParseAndPrint("--basic --oauth2-bearer tok --oauth2-bearer tik"),
              "CURLOPT_HTTPAUTH = 65\n??? = 'tok'\n??? = 'tik'\n");
}

TEST(QDAsyncUrlRequestOptions, NamesAreFoundInUpperAndLowerCase)
{
    EXPECT_EQ(ParseAndPrint("--MAX-TIME 5"), "CURLOPT_TIMEOUT = 5\n");
    EXPECT_EQ(ParseAndPrint("--Post301 --bASIC"), "CURLOPT_POSTREDIR = 1\nCURLOPT_HTTPAUTH = 1\n");
}

TEST(QDAsyncUrlRequestOptions, ShortNamesAreInvalid)
{
    EXPECT_EQ(Error("-m 5"), "Invalid option '-m'.");
    EXPECT_EQ(Error("-x host"), "Invalid option '-x'.");
    EXPECT_EQ(Error("-a"), "Invalid option '-a'.");
}

TEST(QDAsyncUrlRequestOptions, OtherNamesAreInvalid)
{
    for (const char* name : {"-", "--", "--a", "--anyaut", "--anyauthh", "--ntlm-w", "--post304", "--zzz", "--proxyy",
                             "--max-time=5", "-\xC3\xA9"}) {
        SCOPED_TRACE(name);

        EXPECT_EQ(Error(name), std::string("Invalid option '") + name + "'.");
    }
}

// --- Values ---

TEST(QDAsyncUrlRequestOptions, EmptyTextsAreAnEmptySet)
{
    for (const char* text : {"", "   ", "\t\n\r "}) {
        QDAsyncUrlRequestOptions options;

        Parse(options, text);

        EXPECT_EQ(options.GetOptionCount(), 0u);
        EXPECT_EQ(Print(options), "");
    }
}

TEST(QDAsyncUrlRequestOptions, TextWithoutHyphenIsUnexpected)
{
    EXPECT_EQ(Error("5"), "Unexpected option '5'.");
    EXPECT_EQ(Error("--append max-time"), "Unexpected option 'max-time'.");
    EXPECT_EQ(Error("--append 'x'"), "Unexpected option 'x'.");
}

TEST(QDAsyncUrlRequestOptions, MissingValueNamesTheOptionAsItWasWritten)
{
    const struct
    {
        const char* m_Text;
        const char* m_Option;
    } kCases[] = {{"--max-time", "--max-time"},
                  {"--max-time  ", "--max-time"},
                  {"--max-time --proxy", "--max-time"},
                  {"--max-time -5", "--max-time"},
                  {"--max-time ''", "--max-time"},
                  {"--Proxy", "--Proxy"},
                  {"--proxy -", "--proxy"},
                  {"--ftp-port -", "--ftp-port"},
                  {"--mail-rcpt a --mail-rcpt", "--mail-rcpt"},
                  {"--oauth2-bearer", "--oauth2-bearer"}};

    for (const auto& row : kCases) {
        SCOPED_TRACE(row.m_Text);

        EXPECT_EQ(Error(row.m_Text), "Command option '" + std::string(row.m_Option) + "', missing parameter value.");
    }
}

TEST(QDAsyncUrlRequestOptions, QuotedValueThatBeginsWithAHyphenIsMissing)
{
    EXPECT_EQ(Error("--proxy '-host'"), "Command option '--proxy', missing parameter value.");
    EXPECT_EQ(Error("--max-time ''-5"), "Command option '--max-time', missing parameter value.");
}

TEST(QDAsyncUrlRequestOptions, NumberWithSomethingLeftOverIsInvalid)
{
    for (const char* value : {"5s", "s", "5.0", "0x10", "+", "++5", "1e3", "5,", "\xC3\xA9"}) {
        SCOPED_TRACE(value);

        EXPECT_EQ(Error(std::string("--max-time ") + value), std::string("Invalid integer '") + value + "'.");
    }
    EXPECT_EQ(Error("--connect-timeout '5 '"), "Invalid integer '5 '.");
    EXPECT_EQ(Error("--connect-timeout ' '"), "Invalid integer ' '.");
}

TEST(QDAsyncUrlRequestOptions, NumberMayHaveBlanksInFrontAndASign)
{
    EXPECT_EQ(ParseAndPrint("--max-time +5"), "CURLOPT_TIMEOUT = 5\n");
    EXPECT_EQ(ParseAndPrint("--max-time '\t 5'"), "CURLOPT_TIMEOUT = 5\n");
    EXPECT_EQ(ParseAndPrint("--max-time ' -5'"), "CURLOPT_TIMEOUT = -5\n");
}

TEST(QDAsyncUrlRequestOptions, NumberBeyondALongBecomesTheLargestLong)
{
    const std::string largest = sizeof(long) == 4 ? "2147483647" : "9223372036854775807";

    EXPECT_EQ(ParseAndPrint("--max-time " + largest), "CURLOPT_TIMEOUT = " + largest + "\n");
    EXPECT_EQ(ParseAndPrint("--max-time 9223372036854775808"), "CURLOPT_TIMEOUT = " + largest + "\n");
    EXPECT_EQ(ParseAndPrint("--max-time " + std::string(400, '9')), "CURLOPT_TIMEOUT = " + largest + "\n");
}

TEST(QDAsyncUrlRequestOptions, FlagAndStringGivenTwiceAreTwoOptions)
{
    EXPECT_EQ(ParseAndPrint("--append --append"), "CURLOPT_APPEND = 1\nCURLOPT_APPEND = 1\n");
    EXPECT_EQ(ParseAndPrint("--proxy a --proxy b"), "CURLOPT_PROXY = 'a'\nCURLOPT_PROXY = 'b'\n");
    EXPECT_EQ(ParseAndPrint("--max-time 1 --max-time 2"), "CURLOPT_TIMEOUT = 1\nCURLOPT_TIMEOUT = 2\n");
}

TEST(QDAsyncUrlRequestOptions, BitmasksAddUpInTheFirstPlace)
{
    EXPECT_EQ(ParseAndPrint("--basic --digest"), "CURLOPT_HTTPAUTH = 3\n");
    EXPECT_EQ(ParseAndPrint("--post301 --post303"), "CURLOPT_POSTREDIR = 5\n");
    EXPECT_EQ(ParseAndPrint("--basic --post302 --append --ntlm --post302"),
              "CURLOPT_HTTPAUTH = 9\nCURLOPT_POSTREDIR = 2\nCURLOPT_APPEND = 1\n");
}

TEST(QDAsyncUrlRequestOptions, AnyAuthAndBasicIsStillAnyAuth)
{
    const std::vector<Call> calls = Apply("--anyauth --basic");

    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(static_cast<unsigned int>(calls[0].m_Integer), 0xFFFFFFEFu);
    EXPECT_EQ(ParseAndPrint("--anyauth --basic"), "CURLOPT_HTTPAUTH = " + std::string(kAnyAuthText) + "\n");
    EXPECT_EQ(ParseAndPrint("--basic --anyauth"), "CURLOPT_HTTPAUTH = " + std::string(kAnyAuthText) + "\n");
}

// --- Tokens ---

TEST(QDAsyncUrlRequestOptions, TokensStandBetweenFourKindsOfWhitespace)
{
    EXPECT_EQ(ParseAndPrint("\r\n\t --proxy\ta\n--append\r--proxy b"),
              "CURLOPT_PROXY = 'a'\nCURLOPT_APPEND = 1\nCURLOPT_PROXY = 'b'\n");
}

TEST(QDAsyncUrlRequestOptions, OtherBlanksBelongToTheToken)
{
    for (const char* blank : {"\v", "\f", "\xC2\xA0", "\xE2\x80\xA8", "\xC2\x85"}) {
        SCOPED_TRACE(blank);

        EXPECT_EQ(ParseAndPrint(std::string("--proxy a") + blank + "b"),
                  std::string("CURLOPT_PROXY = 'a") + blank + "b'\n");
    }
}

TEST(QDAsyncUrlRequestOptions, QuotedPiecesRunTogetherWithOthers)
{
    const struct
    {
        const char* m_Text;
        const char* m_Token;
    } kCases[] = {{"ab'c d'e", "abc de"},
                  {"'a b'", "a b"},
                  {"'a''b'", "ab"},
                  {"a''b", "ab"},
                  {"''a", "a"},
                  {"' \t\r\n'x", " \t\r\nx"},
                  {"'\xC3\xA9 \xF0\x9F\x98\x80'\xE2\x82\xAC", "\xC3\xA9 \xF0\x9F\x98\x80\xE2\x82\xAC"},
                  {"\"a", "\"a"},
                  {"a\\'b'", "a\\b"},
                  {"'a\\'", "a\\"},
                  {"'\"a b\"'", "\"a b\""}};

    for (const auto& row : kCases) {
        SCOPED_TRACE(row.m_Text);
        const std::vector<Call> calls = Apply(std::string("--proxy ") + row.m_Text);

        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].m_Text, row.m_Token);
    }
}

TEST(QDAsyncUrlRequestOptions, QuotesInAnOptionsNameAreDropped)
{
    EXPECT_EQ(ParseAndPrint("'--'app'end'"), "CURLOPT_APPEND = 1\n");
    EXPECT_EQ(Error("'--max time' 5"), "Invalid option '--max time'.");
}

TEST(QDAsyncUrlRequestOptions, OpenQuoteLosesTheLastCharacter)
{
    const struct
    {
        const char* m_Text;
        const char* m_Token;
    } kCases[] = {{"'abc", "ab"}, {"a'bc d", "abc "}, {"'ab\xE2\x82\xAC", "ab"}, {"a'b", "a"}, {"x' ", "x"}};

    for (const auto& row : kCases) {
        SCOPED_TRACE(row.m_Text);

        const std::vector<Call> calls = Apply(std::string("--proxy ") + row.m_Text);

        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].m_Text, row.m_Token);
    }
}

TEST(QDAsyncUrlRequestOptions, OpeningQuoteAsTheLastCharacterEndsTheToken)
{
    EXPECT_EQ(ParseAndPrint("'"), "");
    EXPECT_EQ(ParseAndPrint("--append'"), "CURLOPT_APPEND = 1\n");
    EXPECT_EQ(ParseAndPrint("--proxy ab'"), "CURLOPT_PROXY = 'ab'\n");
    EXPECT_EQ(ParseAndPrint("--proxy 'a'b'"), "CURLOPT_PROXY = 'ab'\n");
    EXPECT_EQ(Error("--proxy '"), "Command option '--proxy', missing parameter value.");
}

TEST(QDAsyncUrlRequestOptions, EmptyQuotedOptionEndsTheParse)
{
    EXPECT_EQ(ParseAndPrint("--append '' nonsense"), "CURLOPT_APPEND = 1\n");
    EXPECT_EQ(ParseAndPrint("--append 'x"), "CURLOPT_APPEND = 1\n"); // the open quote loses the x
}

TEST(QDAsyncUrlRequestOptions, IllFormedTextBecomesReplacementCharacters)
{
    const struct
    {
        const char* m_Text;
        const char* m_Token;
    } kCases[] = {{"a\xFF"
                   "b",
                   "a\xEF\xBF\xBD"
                   "b"},
                  {"\x80", "\xEF\xBF\xBD"},
                  {"a\xE2\x82", "a\xEF\xBF\xBD"},
                  {"'a\xE2\x82'", "a\xEF\xBF\xBD"},
                  {"'a\xE2\x82", "a"}, // an open quote
                  {"a\xE2'b c'", "a\xEF\xBF\xBD"
                                 "b c"},
                  {"\xED\xA0\x80", "\xEF\xBF\xBD"}};

    for (const auto& row : kCases) {
        SCOPED_TRACE(row.m_Text);

        const std::vector<Call> calls = Apply(std::string("--proxy ") + row.m_Text);

        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].m_Text, row.m_Token);
    }
}

TEST(QDAsyncUrlRequestOptions, IllFormedTextLeavesTheWhitespaceBehindIt)
{
    for (const char* token : {"a\xE2", "a\xE2\x82", "a\xF0\x9F", "a\xFF", "a\xC3"}) {
        for (const char* whitespace : {" ", "\t", "\n", "\r"}) {
            SCOPED_TRACE(std::string(token) + whitespace);

            EXPECT_EQ(ParseAndPrint(std::string("--proxy ") + token + whitespace + "--append"),
                      "CURLOPT_PROXY = 'a\xEF\xBF\xBD'\nCURLOPT_APPEND = 1\n");
        }
    }
}

TEST(QDAsyncUrlRequestOptions, NulIsNeitherPartOfANameNorOfANumber)
{
    using namespace std::string_literals;

    EXPECT_EQ(Error("--append\0"s), "Invalid option '--append'.");
    EXPECT_EQ(Error("\0--append"s), "Unexpected option ''.");
    EXPECT_EQ(Error("--max-time 5\0"s), "Invalid integer '5'.");
    EXPECT_EQ(ParseAndPrint("--proxy a\0b --append"s), "CURLOPT_PROXY = 'a'\nCURLOPT_APPEND = 1\n");
}

// --- Messages ---

TEST(QDAsyncUrlRequestOptions, TokenOf62BytesIsShownWhole)
{
    const std::string token(62, 'x');

    EXPECT_EQ(Error(token), "Unexpected option '" + token + "'.");
    EXPECT_EQ(Error("--max-time " + token), "Invalid integer '" + token + "'.");
    EXPECT_EQ(Error("-" + token.substr(1)), "Invalid option '-" + token.substr(1) + "'.");
}

TEST(QDAsyncUrlRequestOptions, LongerTokenIsShownAs60BytesAndFullStops)
{
    const std::string shown = std::string(60, 'x') + "...";
    for (const std::size_t length : {63u, 64u, 65u, 255u, 256u, 100000u}) {
        SCOPED_TRACE(length);
        const std::string token(length, 'x');

        EXPECT_EQ(Error(token), "Unexpected option '" + shown + "'.");
        EXPECT_EQ(Error("--max-time " + token), "Invalid integer '" + shown + "'.");
    }
    EXPECT_EQ(Error("-" + std::string(62, 'y')), "Invalid option '-" + std::string(59, 'y') + "...'.");
}

TEST(QDAsyncUrlRequestOptions, LongTokenIsCutWithinACharacter)
{
    const std::string letters(59, 'x');

    EXPECT_EQ(Error(letters + "\xE2\x82\xAC"
                              "y"),
              "Unexpected option '" + letters + "\xE2...'.");
}

TEST(QDAsyncUrlRequestOptions, PercentSignsInATokenStandForThemselves)
{
    EXPECT_EQ(Error("%s%n%d"), "Unexpected option '%s%n%d'.");
    EXPECT_EQ(Error("--%n"), "Invalid option '--%n'.");
    EXPECT_EQ(Error("--max-time %s"), "Invalid integer '%s'.");
    EXPECT_EQ(ParseAndPrint("--proxy %s%n --mail-rcpt %n"), "CURLOPT_PROXY = '%s%n'\nCURLOPT_MAIL_RCPT = '%n'\n");
}

TEST(QDAsyncUrlRequestOptions, MessageOfALanguageWithoutTextsIsEnglish)
{
    CQDLocale locale;
    ASSERT_TRUE(locale.SetFromLocaleName("de-DE"));
    QDAsyncUrlRequestOptions options;
    std::string error;

    EXPECT_FALSE(options.ParseCurlOptions(locale, "5", error));

    EXPECT_EQ(error, "Unexpected option '5'.");
}

// --- The set ---

TEST(QDAsyncUrlRequestOptions, OptionsBeforeTheErrorStay)
{
    const CQDLocale locale;
    QDAsyncUrlRequestOptions options;
    std::string error;

    EXPECT_FALSE(options.ParseCurlOptions(locale, "--append --mail-rcpt a --max-time x --crlf", error));

    EXPECT_EQ(Print(options), "CURLOPT_APPEND = 1\nCURLOPT_MAIL_RCPT = 'a'\n");
}

TEST(QDAsyncUrlRequestOptions, ParsingAgainReplacesAllOptions)
{
    QDAsyncUrlRequestOptions options;
    Parse(options, "--append --mail-rcpt a");

    Parse(options, "--mail-rcpt b");

    EXPECT_EQ(Print(options), "CURLOPT_MAIL_RCPT = 'b'\n");
}

TEST(QDAsyncUrlRequestOptions, ClearDropsAllOptionsAndFreesTheirLists)
{
    const int before = CountCurlBlocks();
    QDAsyncUrlRequestOptions options;
    Parse(options, "--append --mail-rcpt a --mail-rcpt b");
    EXPECT_GT(CountCurlBlocks(), before);

    options.ClearCurlOptions();

    EXPECT_EQ(options.GetOptionCount(), 0u);
    EXPECT_EQ(Print(options), "");
    EXPECT_EQ(CountCurlBlocks(), before);
    options.ClearCurlOptions();
}

TEST(QDAsyncUrlRequestOptions, ParsingAgainAndDestructionFreeTheLists)
{
    const int before = CountCurlBlocks();
    {
        QDAsyncUrlRequestOptions options;
        Parse(options, "--mail-rcpt a --mail-rcpt b");
        Parse(options, "--mail-rcpt c");
    }

    EXPECT_EQ(CountCurlBlocks(), before);
}

TEST(QDAsyncUrlRequestOptions, CountIsThatOfTheRecords)
{
    QDAsyncUrlRequestOptions options;

    Parse(options, "--append --append --basic --digest --mail-rcpt a --mail-rcpt b --proxy x");

    EXPECT_EQ(options.GetOptionCount(), 5u);
}

TEST(QDAsyncUrlRequestOptions, WithoutMemoryForAListTheParseFailsAndKeepsWhatItHas)
{
    const struct
    {
        int m_Allowed; // a list's item takes two allocations
        const char* m_Kept;
    } kCases[] = {{0, "CURLOPT_APPEND = 1\n"},
                  {1, "CURLOPT_APPEND = 1\n"},
                  {2, "CURLOPT_APPEND = 1\nCURLOPT_MAIL_RCPT = 'a'\n"},
                  {3, "CURLOPT_APPEND = 1\nCURLOPT_MAIL_RCPT = 'a'\n"}};

    for (const auto& row : kCases) {
        SCOPED_TRACE(row.m_Allowed);
        const CQDLocale locale;
        const int before = CountCurlBlocks();
        QDAsyncUrlRequestOptions options;
        std::string error;
        {
            const CurlMemoryLimit limit(row.m_Allowed);

            EXPECT_FALSE(options.ParseCurlOptions(locale, "--append --mail-rcpt a --mail-rcpt b --crlf", error));
        }

        EXPECT_EQ(error, "Cannot allocate memory");
        EXPECT_EQ(Print(options), row.m_Kept);
        options.ClearCurlOptions();
        EXPECT_EQ(CountCurlBlocks(), before);
    }
}

// --- Applying ---

TEST(QDAsyncUrlRequestOptions, ApplySetsTheOptionsInTheOrderOfTheText)
{
    const std::vector<Call> calls = Apply("--proxy a --max-time 3 --mail-rcpt x --append --proxy b --max-time 4");

    std::vector<int> options;
    for (const Call& call : calls)
        options.push_back(call.m_Option);
    EXPECT_THAT(options, ElementsAre(10004, 13, 10187, 50, 10004, 13));
    EXPECT_EQ(calls[4].m_Text, "b");
    EXPECT_EQ(calls[5].m_Integer, 4);
}

TEST(QDAsyncUrlRequestOptions, ApplyHandsTheSetsOwnListToEachRequest)
{
    QDAsyncUrlRequestOptions options;
    Parse(options, "--mail-rcpt a");
    QDAsyncUrlRequest first;
    QDAsyncUrlRequest second;
    CurlOptionRecorder recorder;

    EXPECT_TRUE(options.ApplyOptionsToRequest(&first));
    EXPECT_TRUE(options.ApplyOptionsToRequest(&second));

    const std::vector<Call> calls = recorder.GetCalls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].m_Pointer, calls[1].m_Pointer);
    EXPECT_EQ(calls[0].m_Handle, first.GetCurlHandle());
    EXPECT_EQ(calls[1].m_Handle, second.GetCurlHandle());
}

TEST(QDAsyncUrlRequestOptions, ApplyReturnsFalseForAValueThatLibcurlRefusesAndSetsTheOthers)
{
    QDAsyncUrlRequestOptions options;
    Parse(options, "--max-time 2147484 --append");
    QDAsyncUrlRequest request;
    CurlOptionRecorder recorder;

    EXPECT_FALSE(options.ApplyOptionsToRequest(&request));

    const std::vector<Call> calls = recorder.GetCalls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].m_Result, CURLE_BAD_FUNCTION_ARGUMENT);
    EXPECT_EQ(calls[1].m_Result, CURLE_OK);
}

TEST(QDAsyncUrlRequestOptions, ApplyTakesTheLongestTimeoutThatLibcurlHas)
{
    QDAsyncUrlRequestOptions options;
    Parse(options, "--max-time 2147483 --connect-timeout 2147483");
    QDAsyncUrlRequest request;

    EXPECT_TRUE(options.ApplyOptionsToRequest(&request));
}

TEST(QDAsyncUrlRequestOptions, ApplyOfAnEmptySetSetsNothing)
{
    const QDAsyncUrlRequestOptions options;
    QDAsyncUrlRequest request;
    CurlOptionRecorder recorder;

    EXPECT_TRUE(options.ApplyOptionsToRequest(&request));

    EXPECT_EQ(recorder.GetCalls().size(), 0u);
}

TEST(QDAsyncUrlRequestOptions, ApplyToARequestWithoutAHandleReturnsFalse)
{
    QDAsyncUrlRequestOptions options;
    Parse(options, "--max-time 3 --proxy a --mail-rcpt b");
    std::unique_ptr<QDAsyncUrlRequest> request;
    {
        const CurlMemoryLimit limit(0);
        request = std::make_unique<QDAsyncUrlRequest>();
    }
    ASSERT_EQ(request->GetCurlHandle(), nullptr);

    EXPECT_FALSE(options.ApplyOptionsToRequest(request.get()));
}

// --- Printing ---

TEST(QDAsyncUrlRequestOptions, PrintOptionsKnowsTenNames)
{
    EXPECT_EQ(ParseAndPrint("--max-time 1 --append --connect-timeout 2 --digest --post302 --proxy p --ciphers c "
                            "--mail-from f --mail-rcpt r --mail-auth a"),
              "CURLOPT_TIMEOUT = 1\nCURLOPT_APPEND = 1\nCURLOPT_CONNECTTIMEOUT = 2\nCURLOPT_HTTPAUTH = 2\n"
              "CURLOPT_POSTREDIR = 2\nCURLOPT_PROXY = 'p'\nCURLOPT_SSL_CIPHER_LIST = 'c'\nCURLOPT_MAIL_FROM = 'f'\n"
              "CURLOPT_MAIL_RCPT = 'r'\nCURLOPT_MAIL_AUTH = 'a'\n");
    EXPECT_EQ(ParseAndPrint("--crlf --disallow-username-in-url --ftp-port p --ftp-pret --path-as-is "
                            "--proto-default d --tcp-fastopen --tftp-no-options"),
              "??? = 1\n??? = 1\n??? = 'p'\n??? = 1\n??? = 1\n??? = 'd'\n??? = 1\n??? = 1\n");
    EXPECT_EQ(ParseAndPrint("--oauth2-bearer tok"), "??? = 'tok'\nCURLOPT_HTTPAUTH = 64\n");
}

TEST(QDAsyncUrlRequestOptions, PrintOptionsSeparatesTheElementsOfAList)
{
    EXPECT_EQ(ParseAndPrint("--mail-rcpt a --mail-rcpt b"), "CURLOPT_MAIL_RCPT = 'a', 'b'\n");
    EXPECT_EQ(ParseAndPrint("--mail-rcpt a --mail-rcpt 'b, c' --mail-rcpt a"),
              "CURLOPT_MAIL_RCPT = 'a', 'b, c', 'a'\n");
}

TEST(QDAsyncUrlRequestOptions, PrintOptionsIndentsAndEndsLinesAsTheWriterDoes)
{
    QDAsyncUrlRequestOptions options;
    Parse(options, "--append --mail-rcpt a --mail-rcpt b");
    RecordingTextOutput out;
    out.SetLineTermination(LineTerminationCRLF);
    out.SetIndentCharacters(' ', 2);
    out.AdjustIndent(1);

    options.PrintOptions(out);

    EXPECT_EQ(out.GetText(), "  CURLOPT_APPEND = 1\r\n  CURLOPT_MAIL_RCPT = 'a', 'b'\r\n");
}
