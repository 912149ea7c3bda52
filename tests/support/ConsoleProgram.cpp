// A program for the tests of what goes to a terminal: only a process of its own has a standard output that nobody has
// written to before.
//
//   console-program screen            draws with CQDConsole and waits to be killed
//   console-program arguments ARG...  reads the arguments and lists them on standard error
//   console-program arguments-behind-text ARG...
//                                     the same after a byte has gone to standard output, "."
//   console-program console-behind-wide-text
//                                     writes with CQDConsole after a wide character has gone to standard output, "."
#include <QDPlatform/QDCommandArguments.h>
#include <QDPlatform/QDConsole.h>

#include <unistd.h>

#include <cstdio>
#include <cwchar>
#include <string>

namespace
{

int DrawScreen()
{
    CQDConsole::Write("this goes when the screen is cleared");
    CQDConsole::ClearScreen();
    CQDConsole::HideCursor();
    CQDConsole::MoveCursorTo(5, 1);
    CQDConsole::Write("this goes with the end of the screen");
    CQDConsole::MoveCursorTo(1, 1);
    CQDConsole::Write("plain 100% \xC3\xA9");
    CQDConsole::MoveCursorTo(2, 4);
    CQDConsole::SetTextColour(CQDConsole::ColourBrightRed);
    CQDConsole::Write("red");
    CQDConsole::SetTextColour(CQDConsole::ColourGreen);
    CQDConsole::Write("green");
    CQDConsole::SetTextColour(CQDConsole::ColourYellow);
    CQDConsole::Write("yellow, cut", 6);
    CQDConsole::SetTextColour(CQDConsole::ColourNormal);
    CQDConsole::Write("normal");
    CQDConsole::MoveCursorTo(4, 10);
    CQDConsole::Write("end");
    CQDConsole::ShowCursor();
    CQDConsole::ClearToEndOfScreen();
    ::pause();
    return 0;
}

int ListArguments(int argc, char** argv)
{
    CQDCommandArguments arguments;
    const bool isRead = arguments.ReadArguments(argc, argv);
    std::fprintf(stderr, "%s %d\n", isRead ? "read" : "refused", arguments.GetCount());
    while (const CQDCommandArguments::CommandArgument* argument = arguments.GetNextArgument())
        std::fprintf(stderr, "%d %s\n", argument->m_Kind, argument->m_Text.c_str());
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "screen")
        return DrawScreen();
    if (command == "arguments")
        return ListArguments(argc - 1, argv + 1);
    if (command == "arguments-behind-text") {
        std::putchar('.');
        return ListArguments(argc - 1, argv + 1);
    }
    if (command == "console-behind-wide-text") {
        std::putwchar(L'.');
        CQDConsole::Write("text");
        CQDConsole::ClearToEndOfScreen();
        return 0;
    }
    std::fprintf(stderr, "console-program: no command\n");
    return 2;
}
