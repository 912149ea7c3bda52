#include <QDPlatform/QDChar.h>

namespace
{

using Entry = CQDChar::LetterData;

constexpr Entry kControl = {CQDChar::FlagControl, 0};
constexpr Entry kSpace = {CQDChar::FlagWhitespace, 0};
constexpr Entry kUpper = {CQDChar::FlagUppercase, 0};
constexpr Entry kLower = {CQDChar::FlagLowercase, 0};
constexpr Entry kMark = {CQDChar::FlagPunctuation, 0};

constexpr Entry Digit(uint8_t value)
{
    return {CQDChar::FlagDigit, value};
}

constexpr Entry UpperHex(uint8_t value)
{
    return {CQDChar::FlagUppercase | CQDChar::FlagHexLetter, value};
}

constexpr Entry LowerHex(uint8_t value)
{
    return {CQDChar::FlagLowercase | CQDChar::FlagHexLetter, value};
}

} // namespace

// The tables are constinit: constexpr would make them inline, and the unique symbols of inline data keep a library from
// being unloaded.

// clang-format off
constinit const CQDChar::LetterData CQDChar::g_ASCIILetterData[128] = {
    // U+0000
    kControl, kControl, kControl, kControl, kControl, kControl, kControl, kControl,
    kControl, kSpace, kSpace, kControl, kControl, kSpace, kControl, kControl,
    // U+0010
    kControl, kControl, kControl, kControl, kControl, kControl, kControl, kControl,
    kControl, kControl, kControl, kControl, kControl, kControl, kControl, kControl,
    // U+0020: space ! " # $ % & ' ( ) * + , - . /
    kSpace, kMark, kMark, kMark, kMark, kMark, kMark, kMark,
    kMark, kMark, kMark, kMark, kMark, kMark, kMark, kMark,
    // U+0030: 0 to 9 : ; < = > ?
    Digit(0), Digit(1), Digit(2), Digit(3), Digit(4), Digit(5), Digit(6), Digit(7),
    Digit(8), Digit(9), kMark, kMark, kMark, kMark, kMark, kMark,
    // U+0040: @ A to O
    kMark, UpperHex(10), UpperHex(11), UpperHex(12), UpperHex(13), UpperHex(14), UpperHex(15), kUpper,
    kUpper, kUpper, kUpper, kUpper, kUpper, kUpper, kUpper, kUpper,
    // U+0050: P to Z [ \ ] ^ _
    kUpper, kUpper, kUpper, kUpper, kUpper, kUpper, kUpper, kUpper,
    kUpper, kUpper, kUpper, kMark, kMark, kMark, kMark, kMark,
    // U+0060: ` a to o
    kMark, LowerHex(10), LowerHex(11), LowerHex(12), LowerHex(13), LowerHex(14), LowerHex(15), kLower,
    kLower, kLower, kLower, kLower, kLower, kLower, kLower, kLower,
    // U+0070: p to z { | } ~ DEL
    kLower, kLower, kLower, kLower, kLower, kLower, kLower, kLower,
    kLower, kLower, kLower, kMark, kMark, kMark, kMark, kMark,
};
// clang-format on

constinit const CQDChar::LetterData CQDChar::g_OtherLetterData = {0, 0};

const CQDChar::LetterData* CQDChar::GetLetterData(int c)
{
    return c >= 0 && c < 128 ? &g_ASCIILetterData[c] : &g_OtherLetterData;
}

bool CQDChar::IsChar(int c, int mask)
{
    return (GetLetterData(c)->m_Flags & mask) != 0;
}

int CQDChar::ToUpper(int c)
{
    return IsChar(c, FlagLowercase) ? c - 32 : c;
}

int CQDChar::ToLower(int c)
{
    return IsChar(c, FlagUppercase) ? c + 32 : c;
}
