#include <QDPlatform/QDCommandArguments.h>

#include "ChildProcess.h"
#include "PseudoTerminal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cwchar>
#include <string>
#include <type_traits>
#include <vector>

static_assert(!std::is_copy_constructible_v<CQDCommandArguments> && !std::is_move_constructible_v<CQDCommandArguments>);
static_assert(!std::is_copy_assignable_v<CQDCommandArguments> && !std::is_move_assignable_v<CQDCommandArguments>);
static_assert(std::is_same_v<std::underlying_type_t<CQDCommandArguments::ArgumentKind>, int>);
static_assert(CQDCommandArguments::ArgumentValue == 0 && CQDCommandArguments::ArgumentOption == 1);

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

// The program's name and the arguments behind it.
bool Read(CQDCommandArguments& arguments, std::vector<std::string> texts)
{
    std::string program = "program";
    std::vector<char*> argv{program.data()};
    for (std::string& text : texts)
        argv.push_back(text.data());
    argv.push_back(nullptr);
    return arguments.ReadArguments(static_cast<int>(argv.size() - 1), argv.data());
}

// From the read position to the end, each as "option TEXT" or "value TEXT".
std::vector<std::string> Remaining(const CQDCommandArguments& arguments)
{
    std::vector<std::string> texts;
    while (const CQDCommandArguments::CommandArgument* argument = arguments.GetNextArgument())
        texts.push_back((argument->m_Kind == CQDCommandArguments::ArgumentOption ? "option " : "value ") +
                        argument->m_Text);
    return texts;
}

// The message of a refusal goes nowhere then, and the test program's own output goes on.
void KeepStandardOutputForBytes()
{
    std::fwide(stdout, -1);
}

} // namespace

TEST(CQDCommandArguments, ProgramNameIsNoArgument)
{
    CQDCommandArguments arguments;

    EXPECT_TRUE(Read(arguments, {}));

    EXPECT_EQ(arguments.GetCount(), 0);
    EXPECT_EQ(arguments.GetNextArgument(), nullptr);
}

TEST(CQDCommandArguments, CommandLineWithoutEvenAProgramNameIsASuccess)
{
    CQDCommandArguments arguments;

    EXPECT_TRUE(arguments.ReadArguments(0, nullptr));
    EXPECT_TRUE(arguments.ReadArguments(-1, nullptr));

    EXPECT_EQ(arguments.GetCount(), 0);
    EXPECT_EQ(arguments.GetNextArgument(), nullptr);
}

TEST(CQDCommandArguments, OptionsAndValuesComeInTheirOrder)
{
    CQDCommandArguments arguments;

    ASSERT_TRUE(Read(arguments, {"-v", "3", "file"}));

    EXPECT_EQ(arguments.GetCount(), 3);
    EXPECT_THAT(Remaining(arguments), ElementsAre("option v", "value 3", "value file"));
    EXPECT_EQ(arguments.GetNextArgument(), nullptr);
    EXPECT_EQ(arguments.GetNextArgument(), nullptr);
    EXPECT_EQ(arguments.GetCount(), 3);
}

TEST(CQDCommandArguments, DashMakesAnOptionAndIsDropped)
{
    struct Case
    {
        const char* m_pArgument;
        const char* m_pExpected;
    };

    const Case cases[] = {
        {"-v", "option v"},       {"--port", "option -port"},
        {"--", "option -"},       {"-5", "option 5"},
        {"- x", "option  x"},     {"-port=5020", "option port=5020"},
        {"value", "value value"}, {"v-", "value v-"},
        {" -v", "value  -v"},     {"/v", "value /v"},
        {"", "value "},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_pArgument);
        CQDCommandArguments arguments;

        ASSERT_TRUE(Read(arguments, {testCase.m_pArgument}));

        EXPECT_THAT(Remaining(arguments), ElementsAre(testCase.m_pExpected));
    }
}

TEST(CQDCommandArguments, TextNeedNotBeWellFormed)
{
    CQDCommandArguments arguments;

    ASSERT_TRUE(Read(arguments, {"Gr\xC3\xBC\xC3\x9F"
                                 "e",
                                 "-\xFF\xC3("}));

    EXPECT_THAT(Remaining(arguments), ElementsAre("value Gr\xC3\xBC\xC3\x9F"
                                                  "e",
                                                  "option \xFF\xC3("));
}

TEST(CQDCommandArguments, ArgumentIsCutTo1024Bytes)
{
    CQDCommandArguments arguments;

    ASSERT_TRUE(Read(arguments, {std::string(1024, 'a'), std::string(1025, 'b'), "-" + std::string(2000, 'c'),
                                 std::string(1023, 'd') + "\xC3\xBC"}));

    EXPECT_THAT(Remaining(arguments),
                ElementsAre("value " + std::string(1024, 'a'), "value " + std::string(1024, 'b'),
                            "option " + std::string(1023, 'c'), "value " + std::string(1023, 'd') + "\xC3"));
}

TEST(CQDCommandArguments, LoneDashIsRefusedAndThoseBeforeItStay)
{
    KeepStandardOutputForBytes();
    CQDCommandArguments arguments;

    EXPECT_FALSE(Read(arguments, {"-v", "3", "-", "file"}));

    EXPECT_EQ(arguments.GetCount(), 2);
    EXPECT_EQ(arguments.GetNextArgument(), nullptr); // the read position did not move from the end
    ASSERT_TRUE(Read(arguments, {}));
    EXPECT_THAT(Remaining(arguments), ElementsAre("option v", "value 3"));
}

TEST(CQDCommandArguments, RefusalLeavesTheReadPositionWhereItWas)
{
    KeepStandardOutputForBytes();
    CQDCommandArguments arguments;
    ASSERT_TRUE(Read(arguments, {"a", "b"}));
    ASSERT_NE(arguments.GetNextArgument(), nullptr);

    EXPECT_FALSE(Read(arguments, {"c", "-"}));

    EXPECT_THAT(Remaining(arguments), ElementsAre("value b", "value c"));
}

TEST(CQDCommandArguments, SecondReadAppendsAndStartsAtTheFirstOfAll)
{
    CQDCommandArguments arguments;
    ASSERT_TRUE(Read(arguments, {"a", "b"}));
    ASSERT_NE(arguments.GetNextArgument(), nullptr);

    ASSERT_TRUE(Read(arguments, {"c"}));

    EXPECT_EQ(arguments.GetCount(), 3);
    EXPECT_THAT(Remaining(arguments), ElementsAre("value a", "value b", "value c"));
}

TEST(CQDCommandArguments, NewObjectIsAtItsEnd)
{
    const CQDCommandArguments arguments;

    EXPECT_EQ(arguments.GetCount(), 0);
    EXPECT_EQ(arguments.GetNextArgument(), nullptr);
}

TEST(CQDCommandArguments, AddingDoesNotMoveTheReadPositionFromTheEnd)
{
    CQDCommandArguments arguments;

    EXPECT_TRUE(arguments.AddArgument(1, "value", 5));

    EXPECT_EQ(arguments.GetCount(), 1);
    EXPECT_EQ(arguments.GetNextArgument(), nullptr);
    ASSERT_TRUE(Read(arguments, {}));
    EXPECT_THAT(Remaining(arguments), ElementsAre("value value"));
    EXPECT_TRUE(arguments.AddArgument(2, "more", 4));
    EXPECT_THAT(Remaining(arguments), IsEmpty());
}

TEST(CQDCommandArguments, AddedTextIsOfTheLengthGivenAndOfAnyLength)
{
    CQDCommandArguments arguments;
    const std::string longText(5000, 'x');

    EXPECT_TRUE(arguments.AddArgument(1, "-option", 4));
    EXPECT_TRUE(arguments.AddArgument(2, "a\0b", 3));
    EXPECT_TRUE(arguments.AddArgument(3, nullptr, 0));
    EXPECT_TRUE(arguments.AddArgument(4, longText.data(), 5000));

    ASSERT_TRUE(Read(arguments, {}));
    EXPECT_THAT(Remaining(arguments),
                ElementsAre("option opt", std::string("value a\0b", 9), "value ", "value " + longText));
}

TEST(CQDCommandArguments, AddingALoneDashIsRefused)
{
    KeepStandardOutputForBytes();
    CQDCommandArguments arguments;

    EXPECT_FALSE(arguments.AddArgument(7, "-v", 1));

    EXPECT_EQ(arguments.GetCount(), 0);
}

// --- In a program of its own ---------------------------------------------------------------------------------------

TEST(CQDCommandArguments, ProgramReadsItsCommandLine)
{
    ChildProcess program({CONSOLE_PROGRAM, "arguments", "-v", "3", "file", "", "--port"});

    EXPECT_EQ(program.WaitForExit(), 0);

    EXPECT_EQ(program.GetErrors(), "read 5\n1 v\n0 3\n0 file\n0 \n1 -port\n");
    EXPECT_EQ(program.GetOutput(), "");
}

TEST(CQDCommandArguments, RefusalNamesTheArgumentsNumber)
{
    ChildProcess program({CONSOLE_PROGRAM, "arguments", "-v", "3", "-", "file"});

    EXPECT_EQ(program.WaitForExit(), 0);

    EXPECT_EQ(program.GetErrors(), "refused 2\n");
    EXPECT_EQ(program.GetOutput(), "Error: Argument #3 invalid");
}

TEST(CQDCommandArguments, TerminalShowsTheRefusal)
{
    EXPECT_EQ(TerminalOutputOf([] {
                  ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO); // the list that it prints there
                  ::execl(CONSOLE_PROGRAM, CONSOLE_PROGRAM, "arguments", "-v", "3", "-", "file", nullptr);
              }),
              "Error: Argument #3 invalid");
}

TEST(CQDCommandArguments, RefusalIsNotSeenInAStreamOfBytes)
{
    ChildProcess program({CONSOLE_PROGRAM, "arguments-behind-text", "-"});

    EXPECT_EQ(program.WaitForExit(), 0);

    EXPECT_EQ(program.GetErrors(), "refused 0\n");
    EXPECT_EQ(program.GetOutput(), ".");
}
