#pragma once

#include <QDPlatform/QDExport.h>
#include <QDPlatform/QDString.h>

// Writes text and ANSI control sequences to the terminal behind standard output.
//
// Everything goes through the C library's stdout and its buffer, so in one order with the program's own printf; only
// ClearToEndOfScreen() flushes. Failures are not reported. Nothing is written once stdout has been used for wide
// characters (fwide(3)).
// Thread: any; each call is whole in the output, since stdout is locked for it.
class QD_API CQDConsole
{
public:
    // Indexes the table of control sequences; the values are fixed.
    enum ColourCode : int
    {
        ColourBrightRed, // ESC [0;31;1m
        ColourGreen,     // ESC [0;32m
        ColourYellow,    // ESC [0;33m
        ColourNormal     // ESC [0;0m
    };

    CQDConsole() = delete;

    // Writes a text, which ends at its NUL, or after `length` bytes or at a NUL before. What is beyond the first 511
    // bytes is dropped, which may cut a UTF-8 sequence. No line end is added.
    static void Write(const qdchar* text);
    static void Write(const qdchar* text, unsigned int length);

    // Clears the whole screen. The cursor stays where it is.
    static void ClearScreen();

    // Moves the cursor to line `a`, column `b`, both from 1 on; the numbers are written as they are.
    static void MoveCursorTo(int a, int b);

    // Clears from the cursor to the end of the screen and flushes stdout.
    static void ClearToEndOfScreen();

    // Sets the colour of what is written from now on. `code` must be one of the four; it is not checked.
    static void SetTextColour(ColourCode code);

    // Do nothing on this platform.
    static void HideCursor();
    static void ShowCursor();
};
