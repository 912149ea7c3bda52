#include <QDPlatform/QDConsole.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace
{

// By ColourCode.
constexpr char kColourSequences[][10] = {"\033[0;31;1m", "\033[0;32m", "\033[0;33m", "\033[0;0m"};

} // namespace

void CQDConsole::Write(const qdchar* text)
{
    Write(text, static_cast<unsigned int>(std::strlen(text)));
}

void CQDConsole::Write(const qdchar* text, unsigned int length)
{
    uint8_t buffer[512];
    buffer[qd_utf8_from_qdchar(text, length, buffer, sizeof buffer - 1)] = '\0';
    std::printf("%s", reinterpret_cast<const char*>(buffer));
}

void CQDConsole::ClearScreen()
{
    std::printf("\033[2J");
}

void CQDConsole::MoveCursorTo(int a, int b)
{
    std::printf("\033[%d;%df", a, b);
}

void CQDConsole::ClearToEndOfScreen()
{
    std::printf("\033[0J");
    std::fflush(stdout);
}

void CQDConsole::SetTextColour(ColourCode code)
{
    std::printf("%s", kColourSequences[code]);
}

void CQDConsole::HideCursor() {}

void CQDConsole::ShowCursor() {}
