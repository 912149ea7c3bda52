#pragma once

#include <QDPlatform/QDExport.h>

#include <cstdint>

// Looks up the general category and the simple case mapping of a code point, by the Unicode Character Database 10.0.
//
// The locale of the process has no say. The tables hold U+0000 to U+1FFFF with gaps: ideographs and the inner code
// points of ranges (see g_UnicodeAfterFirstN) are not found. UnicodeCharacter knows the commonest ideographs as
// letters. Nothing allocates.
// Thread: everything here is read-only, so any thread at any time.

// The general categories, grouped by tens.
enum UnicodeGeneralCategory : uint8_t
{
    UnicodeCategoryLu = 0,  // uppercase letter
    UnicodeCategoryLl = 1,  // lowercase letter
    UnicodeCategoryLt = 2,  // titlecase letter
    UnicodeCategoryLm = 3,  // modifier letter
    UnicodeCategoryLo = 4,  // other letter
    UnicodeCategoryMn = 10, // nonspacing mark
    UnicodeCategoryMc = 11, // spacing mark
    UnicodeCategoryMe = 12, // enclosing mark
    UnicodeCategoryNd = 20, // decimal digit
    UnicodeCategoryNl = 21, // letter number
    UnicodeCategoryNo = 22, // other number
    UnicodeCategoryPc = 30, // connector punctuation
    UnicodeCategoryPd = 31, // dash punctuation
    UnicodeCategoryPs = 32, // open punctuation
    UnicodeCategoryPe = 33, // close punctuation
    UnicodeCategoryPi = 34, // initial quote
    UnicodeCategoryPf = 35, // final quote
    UnicodeCategoryPo = 36, // other punctuation
    UnicodeCategorySm = 40, // math symbol
    UnicodeCategorySc = 41, // currency symbol
    UnicodeCategorySk = 42, // modifier symbol
    UnicodeCategorySo = 43, // other symbol
    UnicodeCategoryZs = 50, // space separator
    UnicodeCategoryZl = 51, // line separator
    UnicodeCategoryZp = 52, // paragraph separator
    UnicodeCategoryCc = 60, // control
    UnicodeCategoryCf = 61, // format
    UnicodeCategoryCs = 62, // surrogate
    UnicodeCategoryCo = 63, // private use
    UnicodeCategoryCn = 64, // unassigned, or held by no table
};

// How a character of a cursive script joins its neighbours.
enum UnicodeJoiningType : uint8_t
{
    UnicodeJoiningR, // right-joining
    UnicodeJoiningL, // left-joining
    UnicodeJoiningD, // dual-joining
    UnicodeJoiningC, // join-causing
    UnicodeJoiningU, // non-joining: most characters
    UnicodeJoiningT, // transparent
};

// The bidirectional classes, by the names of the database.
enum UnicodeBidiClass : uint8_t
{
    UnicodeBidiL,
    UnicodeBidiR,
    UnicodeBidiAL,
    UnicodeBidiEN,
    UnicodeBidiES,
    UnicodeBidiET,
    UnicodeBidiAN,
    UnicodeBidiCS,
    UnicodeBidiNSM,
    UnicodeBidiBN,
    UnicodeBidiB,
    UnicodeBidiS,
    UnicodeBidiWS,
    UnicodeBidiON,
    UnicodeBidiLRE,
    UnicodeBidiLRO,
    UnicodeBidiRLE,
    UnicodeBidiRLO,
    UnicodeBidiPDF,
    UnicodeBidiLRI,
    UnicodeBidiRLI,
    UnicodeBidiFSI,
    UnicodeBidiPDI,
};

// What the tables tell of one character. The layout is fixed: 8 bytes.
struct UnicodeCharacterRecord
{
    int32_t m_OtherCase;       // of category Lu the simple lowercase, of Ll the simple uppercase mapping; 0 when none
    uint8_t m_GeneralCategory; // a UnicodeGeneralCategory
    uint8_t m_DigitValue;      // 0 to 9 in category Nd, else 0
    uint8_t m_JoiningType;     // a UnicodeJoiningType
    uint8_t m_BidiClass;       // a UnicodeBidiClass
};

// A code point with its record. The layout is fixed: 12 bytes.
struct UnicodeCodePointRecord
{
    int32_t m_CodePoint;
    UnicodeCharacterRecord m_Record;
};

// The records of U+0000 to U+07FF, indexed by code point. Those of the 64 unassigned ones among them have the category
// UnicodeCategoryCn and zeros elsewhere.
//
// An x86-64 program that calls the inline look-ups gets a copy of this table (a copy relocation of 16 KiB), which the
// library then uses too: the price of their being inline. Programs for ARM refer to the library's table.
extern QD_API const UnicodeCharacterRecord g_UnicodeLookupTable[];

// Elements of g_UnicodeLookupTable: 2048.
extern QD_API const int g_UnicodeLookupTableLength;

// The assigned code points from U+0800 to U+1FFFF, in ascending order, without the CJK ideographs of U+3400 to U+4DB5
// and U+4E00 to U+9FEA. The Hangul syllables, surrogates, private use characters and Tangut ideographs are ranges in
// the database; here are the first and the last code point of each range and none between them. See
// RangesAreHeldByTheirTwoEndsOnly in the tests.
extern QD_API const UnicodeCodePointRecord g_UnicodeAfterFirstN[];

// Elements of g_UnicodeAfterFirstN: 28737.
extern QD_API const int g_UnicodeAfterFirstNLength;

// The look-ups. Every `cp` is accepted, negative ones and those beyond U+10FFFF too; they are held by no table.
//
// The look-ups that callers make once per character are inline; a call into a shared library costs more than the
// look-up.
class QD_API UnicodeCharTable
{
public:
    // The value of g_UnicodeLookupTableLength, for the compiler.
    static constexpr int kLookupTableLength = 2048;

    // The first and the last of the CJK unified ideographs in their main block: letters that no table holds.
    static constexpr int kFirstIdeograph = 0x4E00;
    static constexpr int kLastIdeograph = 0x9FEA;

    UnicodeCharTable() = delete;

    // The record of `cp` in one of the tables, or null when neither holds it.
    static const UnicodeCharacterRecord* FindCharacter(int cp);

    // The category of `cp`; UnicodeCategoryCn when no table holds it.
    static UnicodeGeneralCategory GetGeneralCategory(int cp)
    {
        const UnicodeCharacterRecord* record = Find(cp);
        return record == nullptr ? UnicodeCategoryCn : static_cast<UnicodeGeneralCategory>(record->m_GeneralCategory);
    }

    // The simple uppercase mapping of one lowercase letter (Ll), else `cp`; titlecase letters stay as they are. The
    // result can be a titlecase letter (Lt): that of U+1F80 is U+1F88.
    //
    // A letter of the mapped case that has no partner gives 0, its stored mapping: ToUpper(0xDF) is 0. A caller that
    // wants such a letter unchanged keeps `cp` when the result is 0. See LettersWithoutAPartnerGiveZero in the tests.
    static int ToUpper(int cp) { return OtherCaseIf(UnicodeCategoryLl, cp); }

    // The simple lowercase mapping of one uppercase letter (Lu), else `cp`; without a partner 0, as ToUpper.
    static int ToLower(int cp) { return OtherCaseIf(UnicodeCategoryLu, cp); }

    // True in the five letter categories. The ideographs and the Hangul syllables from U+AC01 to U+D7A2 are in none
    // here; see RangesAreHeldByTheirTwoEndsOnly and IdeographRangesAreNotHeld in the tests.
    static bool IsLetter(int cp) { return GetGeneralCategory(cp) <= UnicodeCategoryLo; }

    // True for letters and decimal digits (Nd) of any script.
    static bool IsAlphaNumeric(int cp)
    {
        const UnicodeGeneralCategory category = GetGeneralCategory(cp);
        return category <= UnicodeCategoryLo || category == UnicodeCategoryNd;
    }

    // True for what IsAlphaNumeric accepts, and for "_".
    static bool IsIdentifierCharacter(int cp) { return cp == '_' || IsAlphaNumeric(cp); }

private:
    // FindCharacter for the inline look-ups: answers the indexed table and the ideographs itself and leaves the rest to
    // FindCharacter.
    QD_LOCAL static const UnicodeCharacterRecord* Find(int cp)
    {
        if (static_cast<unsigned>(cp) < kLookupTableLength) // false for negative ones too
            return &g_UnicodeLookupTable[cp];
        if (kFirstIdeograph <= cp && cp <= kLastIdeograph)
            return nullptr;
        return FindCharacter(cp);
    }

    QD_LOCAL static int OtherCaseIf(UnicodeGeneralCategory category, int cp)
    {
        const UnicodeCharacterRecord* record = Find(cp);
        return record != nullptr && record->m_GeneralCategory == category ? record->m_OtherCase : cp;
    }
};
