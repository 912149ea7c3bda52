#include <QDPlatform/QDConsole.h>

#include "ChildProcess.h"
#include "PseudoTerminal.h"
#include "TemporaryFolder.h"
#include "WaitUntil.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

static_assert(std::is_empty_v<CQDConsole> && !std::is_default_constructible_v<CQDConsole>);
static_assert(std::is_same_v<std::underlying_type_t<CQDConsole::ColourCode>, int>);
static_assert(CQDConsole::ColourBrightRed == 0 && CQDConsole::ColourGreen == 1 && CQDConsole::ColourYellow == 2 &&
              CQDConsole::ColourNormal == 3);

namespace
{

// What `work` writes, flushed at its end.
template<class Work>
std::string FlushedOutputOf(Work work)
{
    return TerminalOutputOf([&] {
        work();
        std::fflush(stdout);
    });
}

// A captured screen with its colours as marks, "{31 bold}" or "{}", in front of the first character that they hold for:
// tmux spells one look in several ways.
std::string WithMarks(const std::string& screen)
{
    std::string text;
    std::string shown;
    std::string colour;
    bool isBold = false;
    for (std::size_t i = 0; i < screen.size(); ++i) {
        if (screen.compare(i, 2, "\x1B[") == 0) {
            const std::size_t end = screen.find('m', i);
            if (end == std::string::npos)
                break;
            std::istringstream codes(screen.substr(i + 2, end - i - 2));
            for (std::string code; std::getline(codes, code, ';');) {
                if (code == "0")
                    isBold = false;
                if (code == "0" || code == "39")
                    colour.clear();
                else if (code == "1")
                    isBold = true;
                else if (code != "49") // no background, which nothing here has
                    colour = code;
            }
            i = end;
            continue;
        }
        const std::string mark = '{' + colour + (isBold ? " bold}" : "}");
        if (screen[i] != '\n' && mark != (shown.empty() ? "{}" : shown)) {
            text += mark;
            shown = mark;
        }
        text += screen[i];
    }
    return text;
}

} // namespace

TEST(CQDConsole, TextIsWrittenAsItIs)
{
    struct Case
    {
        const char* m_pSituation;
        const char* m_pText;
    };

    const Case cases[] = {
        {"ASCII", "plain text"},
        {"empty", ""},
        {"UTF-8", "Gr\xC3\xBC\xC3\x9F"
                  "e \xE2\x82\xAC \xF0\x9F\x94\x8C"},
        {"ill-formed UTF-8", "\xFF\xC3(\x80"},
        {"no format", "100%s %d %n %%"},
        {"line ends", "one\ntwo\r\n"},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_pSituation);

        EXPECT_EQ(FlushedOutputOf([&] { CQDConsole::Write(testCase.m_pText); }), testCase.m_pText);
    }
}

TEST(CQDConsole, TextWithLengthEndsThere)
{
    EXPECT_EQ(FlushedOutputOf([] { CQDConsole::Write("abcdef", 3); }), "abc");
    EXPECT_EQ(FlushedOutputOf([] { CQDConsole::Write("abcdef", 0); }), "");
    EXPECT_EQ(FlushedOutputOf([] { CQDConsole::Write(nullptr, 0); }), "");
}

TEST(CQDConsole, TextWithLengthEndsAtANulBefore)
{
    EXPECT_EQ(FlushedOutputOf([] { CQDConsole::Write("abc\0def", 7); }), "abc");
}

TEST(CQDConsole, TextIsCutTo511Bytes)
{
    struct Case
    {
        const char* m_pSituation;
        std::string m_Text;
        std::string m_Output;
    };

    const Case cases[] = {
        {"511 bytes", std::string(511, 'x'), std::string(511, 'x')},
        {"512 bytes", std::string(511, 'x') + "y", std::string(511, 'x')},
        {"many", std::string(5000, 'x'), std::string(511, 'x')},
        {"inside a character", std::string(510, 'x') + "\xC3\xBC", std::string(510, 'x') + "\xC3"},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_pSituation);

        EXPECT_EQ(FlushedOutputOf([&] { CQDConsole::Write(testCase.m_Text.c_str()); }), testCase.m_Output);
        EXPECT_EQ(FlushedOutputOf([&] {
                      CQDConsole::Write(testCase.m_Text.data(), static_cast<unsigned int>(testCase.m_Text.size()));
                  }),
                  testCase.m_Output);
    }
}

TEST(CQDConsole, ClearScreenWritesItsSequence)
{
    EXPECT_EQ(FlushedOutputOf([] { CQDConsole::ClearScreen(); }), "\x1B[2J");
}

TEST(CQDConsole, MoveCursorToWritesLineThenColumnAsTheyAre)
{
    EXPECT_EQ(FlushedOutputOf([] { CQDConsole::MoveCursorTo(3, 17); }), "\x1B[3;17f");
    EXPECT_EQ(FlushedOutputOf([] { CQDConsole::MoveCursorTo(0, -1); }), "\x1B[0;-1f");
    EXPECT_EQ(FlushedOutputOf([] { CQDConsole::MoveCursorTo(2147483647, 1); }), "\x1B[2147483647;1f");
}

TEST(CQDConsole, ClearToEndOfScreenWritesItsSequence)
{
    EXPECT_EQ(FlushedOutputOf([] { CQDConsole::ClearToEndOfScreen(); }), "\x1B[0J");
}

TEST(CQDConsole, SetTextColourWritesTheSequenceOfTheColour)
{
    EXPECT_EQ(FlushedOutputOf([] { CQDConsole::SetTextColour(CQDConsole::ColourBrightRed); }), "\x1B[0;31;1m");
    EXPECT_EQ(FlushedOutputOf([] { CQDConsole::SetTextColour(CQDConsole::ColourGreen); }), "\x1B[0;32m");
    EXPECT_EQ(FlushedOutputOf([] { CQDConsole::SetTextColour(CQDConsole::ColourYellow); }), "\x1B[0;33m");
    EXPECT_EQ(FlushedOutputOf([] { CQDConsole::SetTextColour(CQDConsole::ColourNormal); }), "\x1B[0;0m");
}

TEST(CQDConsole, CursorIsNeitherHiddenNorShown)
{
    EXPECT_EQ(FlushedOutputOf([] {
                  CQDConsole::HideCursor();
                  CQDConsole::ShowCursor();
              }),
              "");
}

TEST(CQDConsole, NothingIsFlushedButByClearToEndOfScreen)
{
    const auto draw = [] {
        // Allowed by this C library though the stream has been written to: the buffer is empty.
        std::setvbuf(stdout, nullptr, _IOFBF, 4096);
        CQDConsole::ClearScreen();
        CQDConsole::MoveCursorTo(1, 2);
        CQDConsole::SetTextColour(CQDConsole::ColourGreen);
        CQDConsole::Write("text\n");
    };

    EXPECT_EQ(TerminalOutputOf(draw), "");
    EXPECT_EQ(TerminalOutputOf([&] {
                  draw();
                  CQDConsole::ClearToEndOfScreen();
                  CQDConsole::Write("behind");
              }),
              "\x1B[2J\x1B[1;2f\x1B[0;32mtext\n\x1B[0J");
}

TEST(CQDConsole, KeepsItsPlaceInTheProgramsOwnOutput)
{
    EXPECT_EQ(FlushedOutputOf([] {
                  std::printf("one ");
                  CQDConsole::Write("two ");
                  std::printf("three");
              }),
              "one two three");
}

TEST(CQDConsole, NothingIsWrittenToAStreamOfWideCharacters)
{
    ChildProcess program({CONSOLE_PROGRAM, "console-behind-wide-text"});

    EXPECT_EQ(program.WaitForExit(), 0);

    EXPECT_EQ(program.GetOutput(), ".");
}

// The screen that a terminal makes of it: tmux draws on a terminal of its own and hands it out as text.
TEST(CQDConsole, TerminalShowsTheScreen)
{
    if (ChildProcess({"tmux", "-V"}).WaitForExit() != 0)
        GTEST_SKIP() << "tmux is not installed; scripts/install-packages installs it";
    const TemporaryFolder folder;
    const auto command = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"tmux", "-u", "-f", "/dev/null", "-S", folder / "socket"});
        return arguments;
    };
    const auto tmux = [&](const std::vector<std::string>& arguments) {
        ChildProcess client(command(arguments));
        EXPECT_EQ(client.WaitForExit(), 0) << client.GetErrors();
        return client.GetOutput();
    };
    ChildProcess server(command({"-D"})); // in the foreground, so that it ends with the test
    ASSERT_TRUE(WaitUntil([&] { return ChildProcess(command({"-N", "show-options", "-s"})).WaitForExit() == 0; }));
    tmux({"new-session", "-d", "-x", "40", "-y", "6", CONSOLE_PROGRAM, "screen"});

    std::string screen;
    const bool isDrawn = WaitUntil([&] {
        screen = tmux({"capture-pane", "-p", "-e"});
        return screen.find("end") != std::string::npos && screen.find("goes") == std::string::npos;
    });
    tmux({"kill-server"});
    server.WaitForExit();

    EXPECT_TRUE(isDrawn);
    EXPECT_EQ(WithMarks(screen), "plain 100% \xC3\xA9\n"
                                 "   {31 bold}red{32}green{33}yellow{}normal\n"
                                 "\n"
                                 "         end\n"
                                 "\n"
                                 "\n");
}
