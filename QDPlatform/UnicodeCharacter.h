#pragma once

#include <QDPlatform/QDExport.h>
#include <QDPlatform/UnicodeCharTable.h>

#include <cstdint>
#include <string>

// One code point with its properties, which are looked up when it is set.
//
// A plain value of 12 bytes. Nothing allocates.
// Thread: any; a value that one thread changes must not be used by another meanwhile.
class QD_API UnicodeCharacter
{
public:
    // U+0000 as an unassigned character (UnicodeCategoryCn), not as the control character that the tables hold. See
    // DefaultIsAnUnassignedNul in the tests.
    UnicodeCharacter() = default;

    // As SetCodePoint(cp). Implicit, so that a code point can stand where a character is wanted.
    UnicodeCharacter(int cp);

    UnicodeCharacter(const UnicodeCharacter&) = default;
    UnicodeCharacter& operator=(const UnicodeCharacter&) = default;
    ~UnicodeCharacter() = default;

    // The code point as it was set, valid or not.
    int GetCodePoint() const { return m_CodePoint; }

    // The simple lowercase mapping of an uppercase letter (Lu), the simple uppercase mapping of a lowercase letter
    // (Ll); 0 when there is none.
    int GetOtherCase() const { return m_OtherCase; }

    // The general category. Unlike UnicodeCharTable it gives UnicodeCategoryLo for the ideographs U+4E00 to U+9FEA.
    // Everything else that no table holds is UnicodeCategoryCn, the inner code points of other ranges too: U+AC00 is a
    // letter, U+AC01 is not. See DiffersFromTheTablesInTheIdeographsOnly and RangesAreHeldByTheirTwoEndsOnly in the
    // tests.
    UnicodeGeneralCategory GetGeneralCategory() const { return static_cast<UnicodeGeneralCategory>(m_GeneralCategory); }

    // 0 to 9 for a decimal digit (Nd) of any script, else 0.
    int GetDigitValue() const { return m_DigitValue; }

    // Takes another code point, of any value, and looks its properties up.
    void SetCodePoint(int cp);

    // Becomes the upper (ToUpper) or lower (ToLower) case of itself when it is a lowercase (Ll) or uppercase (Lu)
    // letter; the properties are looked up again. Titlecase letters and all other characters stay as they are. The
    // upper case can be a titlecase letter (Lt): U+1F80 becomes U+1F88.
    //
    // A letter of the mapped case that has no partner becomes U+0000, its stored mapping: U+00DF does. A caller that
    // wants such a letter unchanged looks at GetOtherCase() first: 0 is no partner. See LettersWithoutAPartnerBecomeNul
    // in the tests.
    void ToUpper();
    void ToLower();

    // True for tab, line feed, carriage return and the separators (Zs, Zl, Zp); not for U+000B, U+000C and U+0085.
    bool IsWhitespace() const;

    // True in the five letter categories.
    bool IsLetter() const;

    // True for letters and decimal digits (Nd) of any script.
    bool IsLetterOrDigit() const;

    // True for letters, numbers, punctuation, symbols and U+0020; not for marks and other separators.
    bool IsPrintable() const;

    // True for A to Z and a to z.
    bool IsASCIILetter() const;

    // True for 0 to 9.
    bool IsASCIIDigit() const;

    // True for 0 to 9, A to F and a to f.
    bool IsASCIIHexDigit() const;

    // 10 to 15 for A to F and a to f, else GetDigitValue(): 0 for what is no digit, and a value for the digits of every
    // script. Test with IsASCIIHexDigit() first.
    int GetHexDigitValue() const;

    // True for the characters of Base64 text: A to Z, a to z, 0 to 9, "+", "/" and the padding "=".
    bool IsBase64CodePoint() const;

private:
    int32_t m_CodePoint = 0;
    int32_t m_OtherCase = 0;
    uint8_t m_GeneralCategory = UnicodeCategoryCn;
    uint8_t m_DigitValue = 0;
};

// Appends the code point of `ch` in UTF-8, as the function of that name for an int does (QDString.h).
QD_API void qd_append_codepoint_to_qdstring(const UnicodeCharacter& ch, std::string& s);
