#pragma once

#include <QDPlatform/QDExport.h>

#include <cstdint>

// Classifies ASCII characters by a small table of its own; every other character has no flag.
//
// Thread: any thread at any time; the tables are read-only. Nothing allocates.
class QD_API CQDChar
{
public:
    static constexpr int FlagControl = 0x01;     // U+0000 to U+001F but for white space; not DEL
    static constexpr int FlagWhitespace = 0x02;  // tab, line feed, carriage return, space
    static constexpr int FlagUppercase = 0x04;   // A to Z
    static constexpr int FlagLowercase = 0x08;   // a to z
    static constexpr int FlagDigit = 0x10;       // 0 to 9
    static constexpr int FlagHexLetter = 0x20;   // A to F, a to f, with the flag of their case
    static constexpr int FlagPunctuation = 0x40; // every other printable character, and DEL

    // What the table tells of one character.
    struct LetterData
    {
        uint8_t m_Flags;      // any of the flags above
        uint8_t m_DigitValue; // 0 to 9 of a digit, 10 to 15 of a hexadecimal letter, else 0
    };

    // The entries of U+0000 to U+007F. DEL (U+007F) counts as punctuation, not as a control. Kept so; see
    // DelIsPunctuation in the tests.
    static const LetterData g_ASCIILetterData[128];

    // The entry of every other code point: zeros.
    static const LetterData g_OtherLetterData;

    CQDChar() = delete;

    // The entry of `c`, which may have any value; never null.
    static const LetterData* GetLetterData(int c);

    // True when `c` has any of the flags in `mask`.
    static bool IsChar(int c, int mask);

    // The other case of an ASCII letter of lower (ToUpper) or upper (ToLower) case, else `c`.
    static int ToUpper(int c);
    static int ToLower(int c);
};
