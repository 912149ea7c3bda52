#include <QDPlatform/UnicodeCharTable.h>

#include "AllocationCounter.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <limits>
#include <set>
#include <type_traits>

namespace
{

constexpr int kSmallest = std::numeric_limits<int>::min();
constexpr int kLargest = std::numeric_limits<int>::max();

// The look-up as a plain search of the exported tables.
const UnicodeCharacterRecord* SearchTables(int cp)
{
    if (cp >= 0 && cp < g_UnicodeLookupTableLength)
        return &g_UnicodeLookupTable[cp];
    int low = 0;
    int high = g_UnicodeAfterFirstNLength - 1;
    while (low <= high) {
        const int middle = (low + high) / 2;
        if (g_UnicodeAfterFirstN[middle].m_CodePoint == cp)
            return &g_UnicodeAfterFirstN[middle].m_Record;
        if (g_UnicodeAfterFirstN[middle].m_CodePoint <= cp)
            low = middle + 1;
        else
            high = middle - 1;
    }
    return nullptr;
}

// Calls `visit` for the record of every element of both tables.
template<class Visit>
void ForEachRecord(Visit&& visit)
{
    for (int cp = 0; cp < g_UnicodeLookupTableLength; ++cp)
        visit(cp, g_UnicodeLookupTable[cp]);
    for (int i = 0; i < g_UnicodeAfterFirstNLength; ++i)
        visit(g_UnicodeAfterFirstN[i].m_CodePoint, g_UnicodeAfterFirstN[i].m_Record);
}

// The smallest code point of those from -1 to U+110000 for which `holds` is false, or kLargest.
template<class Holds>
int FirstFailure(Holds&& holds)
{
    for (int cp = -1; cp <= 0x110000; ++cp) {
        if (!holds(cp))
            return cp;
    }
    return kLargest;
}

TEST(UnicodeCharTable, RecordsHaveTheirFixedLayout)
{
    EXPECT_EQ(sizeof(UnicodeCharacterRecord), 8u);
    EXPECT_EQ(offsetof(UnicodeCharacterRecord, m_OtherCase), 0u);
    EXPECT_EQ(offsetof(UnicodeCharacterRecord, m_GeneralCategory), 4u);
    EXPECT_EQ(offsetof(UnicodeCharacterRecord, m_DigitValue), 5u);
    EXPECT_EQ(offsetof(UnicodeCharacterRecord, m_JoiningType), 6u);
    EXPECT_EQ(offsetof(UnicodeCharacterRecord, m_BidiClass), 7u);
    EXPECT_EQ(sizeof(UnicodeCodePointRecord), 12u);
    EXPECT_EQ(offsetof(UnicodeCodePointRecord, m_CodePoint), 0u);
    EXPECT_EQ(offsetof(UnicodeCodePointRecord, m_Record), 4u);
    static_assert(std::is_signed_v<decltype(UnicodeCharacterRecord::m_OtherCase)>);
    static_assert(std::is_signed_v<decltype(UnicodeCodePointRecord::m_CodePoint)>);
}

TEST(UnicodeCharTable, EnumerationsTakeOneByte)
{
    EXPECT_EQ(sizeof(UnicodeGeneralCategory), 1u);
    EXPECT_EQ(sizeof(UnicodeJoiningType), 1u);
    EXPECT_EQ(sizeof(UnicodeBidiClass), 1u);
}

TEST(UnicodeCharTable, TablesHaveTheirLengths)
{
    EXPECT_EQ(g_UnicodeLookupTableLength, 2048);
    EXPECT_EQ(g_UnicodeAfterFirstNLength, 28737);
}

TEST(UnicodeCharTable, SecondTableGoesFromItsFirstToItsLastCodePoint)
{
    EXPECT_EQ(g_UnicodeAfterFirstN[0].m_CodePoint, 0x800);
    EXPECT_EQ(g_UnicodeAfterFirstN[28736].m_CodePoint, 0x1F9E6);
}

TEST(UnicodeCharTable, SecondTableIsSortedByCodePoint)
{
    for (int i = 1; i < g_UnicodeAfterFirstNLength; ++i)
        ASSERT_LT(g_UnicodeAfterFirstN[i - 1].m_CodePoint, g_UnicodeAfterFirstN[i].m_CodePoint);
}

TEST(UnicodeCharTable, FirstTableHas64UnassignedRecordsWithZeros)
{
    int unassigned = 0;
    for (int cp = 0; cp < g_UnicodeLookupTableLength; ++cp) {
        const UnicodeCharacterRecord& record = g_UnicodeLookupTable[cp];
        if (record.m_GeneralCategory != 64)
            continue;
        ++unassigned;
        EXPECT_EQ(record.m_OtherCase, 0);
        EXPECT_EQ(record.m_DigitValue, 0);
        EXPECT_EQ(record.m_JoiningType, 0);
        EXPECT_EQ(record.m_BidiClass, 0);
    }

    EXPECT_EQ(unassigned, 64);
}

TEST(UnicodeCharTable, SecondTableHasNoUnassignedRecord)
{
    for (int i = 0; i < g_UnicodeAfterFirstNLength; ++i)
        ASSERT_NE(g_UnicodeAfterFirstN[i].m_Record.m_GeneralCategory, 64);
}

TEST(UnicodeCharTable, WellKnownCharactersHaveTheirRecords)
{
    const struct
    {
        const char* m_pName;
        int m_CodePoint;
        int m_OtherCase, m_Category, m_Digit, m_Joining, m_Bidi;
    } cases[] = {
        {"NUL", 0x0000, 0, 60, 0, 4, 9},
        {"tab", 0x0009, 0, 60, 0, 4, 11},
        {"line feed", 0x000A, 0, 60, 0, 4, 10},
        {"space", 0x0020, 0, 50, 0, 4, 12},
        {"digit nine", 0x0039, 0, 20, 9, 4, 3},
        {"A", 0x0041, 0x61, 0, 0, 4, 0},
        {"a", 0x0061, 0x41, 1, 0, 4, 0},
        {"no-break space", 0x00A0, 0, 50, 0, 4, 7},
        {"soft hyphen", 0x00AD, 0, 61, 0, 5, 9},
        {"superscript two", 0x00B2, 0, 22, 0, 4, 3},
        {"sharp s", 0x00DF, 0, 1, 0, 4, 0},
        {"A with macron", 0x0100, 0x101, 0, 0, 4, 0},
        {"titlecase dz", 0x01C5, 0, 2, 0, 4, 0},
        {"combining grave", 0x0300, 0, 10, 0, 5, 8},
        {"unassigned", 0x0378, 0, 64, 0, 0, 0},
        {"Omega", 0x03A9, 0x3C9, 0, 0, 4, 0},
        {"Cyrillic small ya", 0x044F, 0x42F, 1, 0, 4, 0},
        {"Hebrew alef", 0x05D0, 0, 4, 0, 4, 1},
        {"Arabic number sign", 0x0600, 0, 61, 0, 4, 6},
        {"Arabic alef", 0x0627, 0, 4, 0, 0, 2},
        {"Arabic beh", 0x0628, 0, 4, 0, 2, 2},
        {"Arabic tatweel", 0x0640, 0, 3, 0, 3, 2},
        {"Arabic-Indic three", 0x0663, 0, 20, 3, 4, 6},
        {"the last of the first table", 0x07FF, 0, 64, 0, 0, 0},
        {"Samaritan alaf", 0x0800, 0, 4, 0, 4, 1},
        {"Devanagari nine", 0x096F, 0, 20, 9, 4, 0},
        {"capital sharp s", 0x1E9E, 0xDF, 0, 0, 4, 0},
        {"zero width non-joiner", 0x200C, 0, 61, 0, 4, 9},
        {"zero width joiner", 0x200D, 0, 61, 0, 3, 9},
        {"paragraph separator", 0x2029, 0, 52, 0, 4, 10},
        {"Roman one", 0x2160, 0, 21, 0, 4, 0},
        {"circled A, a symbol", 0x24B6, 0, 43, 0, 4, 0},
        {"Phags-pa superfixed ra", 0xA872, 0, 4, 0, 1, 0},
        {"first Hangul syllable", 0xAC00, 0, 4, 0, 4, 0},
        {"first surrogate", 0xD800, 0, 62, 0, 4, 0},
        {"first private use character", 0xE000, 0, 63, 0, 4, 0},
        {"fullwidth A", 0xFF21, 0xFF41, 0, 0, 4, 0},
        {"Deseret capital long I", 0x10400, 0x10428, 0, 0, 4, 0},
        {"mathematical bold nine", 0x1D7D7, 0, 20, 9, 4, 3},
        {"grinning face", 0x1F600, 0, 43, 0, 4, 13},
        {"the last of the second table", 0x1F9E6, 0, 43, 0, 4, 13},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_pName);
        const UnicodeCharacterRecord* record = UnicodeCharTable::FindCharacter(c.m_CodePoint);
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record->m_OtherCase, c.m_OtherCase);
        EXPECT_EQ(record->m_GeneralCategory, c.m_Category);
        EXPECT_EQ(record->m_DigitValue, c.m_Digit);
        EXPECT_EQ(record->m_JoiningType, c.m_Joining);
        EXPECT_EQ(record->m_BidiClass, c.m_Bidi);
    }
}

TEST(UnicodeCharTable, EveryCategoryHasItsCode)
{
    const struct
    {
        UnicodeGeneralCategory m_Category;
        int m_Code;
        int m_Example;
    } cases[] = {
        {UnicodeCategoryLu, 0, 'A'},     {UnicodeCategoryLl, 1, 'a'},     {UnicodeCategoryLt, 2, 0x01C5},
        {UnicodeCategoryLm, 3, 0x02B0},  {UnicodeCategoryLo, 4, 0x05D0},  {UnicodeCategoryMn, 10, 0x0300},
        {UnicodeCategoryMc, 11, 0x0903}, {UnicodeCategoryMe, 12, 0x20DD}, {UnicodeCategoryNd, 20, '0'},
        {UnicodeCategoryNl, 21, 0x2160}, {UnicodeCategoryNo, 22, 0x00BD}, {UnicodeCategoryPc, 30, '_'},
        {UnicodeCategoryPd, 31, '-'},    {UnicodeCategoryPs, 32, '('},    {UnicodeCategoryPe, 33, ')'},
        {UnicodeCategoryPi, 34, 0x00AB}, {UnicodeCategoryPf, 35, 0x00BB}, {UnicodeCategoryPo, 36, '!'},
        {UnicodeCategorySm, 40, '+'},    {UnicodeCategorySc, 41, '$'},    {UnicodeCategorySk, 42, '^'},
        {UnicodeCategorySo, 43, 0x00A9}, {UnicodeCategoryZs, 50, ' '},    {UnicodeCategoryZl, 51, 0x2028},
        {UnicodeCategoryZp, 52, 0x2029}, {UnicodeCategoryCc, 60, 0x0000}, {UnicodeCategoryCf, 61, 0xFEFF},
        {UnicodeCategoryCs, 62, 0xDFFF}, {UnicodeCategoryCo, 63, 0xF8FF}, {UnicodeCategoryCn, 64, 0x0378},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Code);
        EXPECT_EQ(static_cast<int>(c.m_Category), c.m_Code);
        EXPECT_EQ(UnicodeCharTable::GetGeneralCategory(c.m_Example), c.m_Category);
    }
}

TEST(UnicodeCharTable, EveryJoiningTypeHasItsCode)
{
    const struct
    {
        UnicodeJoiningType m_Type;
        int m_Code;
        int m_Example;
    } cases[] = {
        {UnicodeJoiningR, 0, 0x0627}, {UnicodeJoiningL, 1, 0xA872}, {UnicodeJoiningD, 2, 0x0628},
        {UnicodeJoiningC, 3, 0x0640}, {UnicodeJoiningU, 4, 'A'},    {UnicodeJoiningT, 5, 0x0300},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Code);
        EXPECT_EQ(static_cast<int>(c.m_Type), c.m_Code);
        EXPECT_EQ(UnicodeCharTable::FindCharacter(c.m_Example)->m_JoiningType, c.m_Type);
    }
}

TEST(UnicodeCharTable, CharactersWithoutAShapingEntryAreTransparentInThreeCategoriesOnly)
{
    EXPECT_EQ(UnicodeCharTable::FindCharacter(0x0301)->m_JoiningType, UnicodeJoiningT); // Mn
    EXPECT_EQ(UnicodeCharTable::FindCharacter(0x20DD)->m_JoiningType, UnicodeJoiningT); // Me
    EXPECT_EQ(UnicodeCharTable::FindCharacter(0x200E)->m_JoiningType, UnicodeJoiningT); // Cf
    EXPECT_EQ(UnicodeCharTable::FindCharacter(0x0903)->m_JoiningType, UnicodeJoiningU); // Mc
    EXPECT_EQ(UnicodeCharTable::FindCharacter(0x0000)->m_JoiningType, UnicodeJoiningU); // Cc
}

TEST(UnicodeCharTable, EveryBidiClassHasItsCode)
{
    const struct
    {
        UnicodeBidiClass m_Class;
        int m_Code;
        int m_Example;
    } cases[] = {
        {UnicodeBidiL, 0, 'A'},       {UnicodeBidiR, 1, 0x05D0},    {UnicodeBidiAL, 2, 0x0627},
        {UnicodeBidiEN, 3, '0'},      {UnicodeBidiES, 4, '+'},      {UnicodeBidiET, 5, '$'},
        {UnicodeBidiAN, 6, 0x0660},   {UnicodeBidiCS, 7, ','},      {UnicodeBidiNSM, 8, 0x0300},
        {UnicodeBidiBN, 9, 0x0000},   {UnicodeBidiB, 10, 0x0085},   {UnicodeBidiS, 11, 0x000B},
        {UnicodeBidiWS, 12, 0x000C},  {UnicodeBidiON, 13, '!'},     {UnicodeBidiLRE, 14, 0x202A},
        {UnicodeBidiLRO, 15, 0x202D}, {UnicodeBidiRLE, 16, 0x202B}, {UnicodeBidiRLO, 17, 0x202E},
        {UnicodeBidiPDF, 18, 0x202C}, {UnicodeBidiLRI, 19, 0x2066}, {UnicodeBidiRLI, 20, 0x2067},
        {UnicodeBidiFSI, 21, 0x2068}, {UnicodeBidiPDI, 22, 0x2069},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Code);
        EXPECT_EQ(static_cast<int>(c.m_Class), c.m_Code);
        EXPECT_EQ(UnicodeCharTable::FindCharacter(c.m_Example)->m_BidiClass, c.m_Class);
    }
}

TEST(UnicodeCharTable, RecordsHoldOnlyKnownCodes)
{
    const std::set<int> categories = {0,  1,  2,  3,  4,  10, 11, 12, 20, 21, 22, 30, 31, 32, 33,
                                      34, 35, 36, 40, 41, 42, 43, 50, 51, 52, 60, 61, 62, 63, 64};

    ForEachRecord([&](int cp, const UnicodeCharacterRecord& record) {
        ASSERT_EQ(categories.count(record.m_GeneralCategory), 1u) << cp;
        ASSERT_LE(record.m_JoiningType, 5) << cp;
        ASSERT_LE(record.m_BidiClass, 22) << cp;
    });
}

TEST(UnicodeCharTable, OnlyUppercaseAndLowercaseLettersHaveAnotherCase)
{
    ForEachRecord([](int cp, const UnicodeCharacterRecord& record) {
        if (record.m_GeneralCategory > 1) {
            ASSERT_EQ(record.m_OtherCase, 0) << cp;
        }
    });
}

// The partner of an uppercase letter is a lowercase one; that of a lowercase letter is an uppercase or, for the Greek
// letters with an iota written below, a titlecase one.
TEST(UnicodeCharTable, TheOtherCaseIsALetterOfTheOtherCase)
{
    ForEachRecord([](int cp, const UnicodeCharacterRecord& record) {
        if (record.m_OtherCase == 0)
            return;
        const int partner = UnicodeCharTable::GetGeneralCategory(record.m_OtherCase);
        if (record.m_GeneralCategory == 0) {
            ASSERT_EQ(partner, 1) << cp;
        } else {
            ASSERT_TRUE(partner == 0 || partner == 2) << cp;
        }
    });
}

TEST(UnicodeCharTable, DecimalDigitsComeInTensAndOthersHaveNoDigitValue)
{
    int expected = 0;
    int previous = -2;
    ForEachRecord([&](int cp, const UnicodeCharacterRecord& record) {
        if (record.m_GeneralCategory != 20) {
            ASSERT_EQ(record.m_DigitValue, 0) << cp;
            return;
        }
        if (expected != 0) { // within ten digits
            ASSERT_EQ(cp, previous + 1);
        }
        ASSERT_EQ(record.m_DigitValue, expected) << cp;
        expected = (expected + 1) % 10;
        previous = cp;
    });
    EXPECT_EQ(expected, 0);
}

TEST(UnicodeCharTable, RangesAreHeldByTheirTwoEndsOnly)
{
    const struct
    {
        const char* m_pName;
        int m_First, m_Last;
        int m_Category;
    } cases[] = {
        {"Hangul syllables", 0xAC00, 0xD7A3, 4},        {"high surrogates", 0xD800, 0xDB7F, 62},
        {"private surrogates", 0xDB80, 0xDBFF, 62},     {"low surrogates", 0xDC00, 0xDFFF, 62},
        {"private use characters", 0xE000, 0xF8FF, 63}, {"Tangut ideographs", 0x17000, 0x187EC, 4},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_pName);
        EXPECT_EQ(UnicodeCharTable::GetGeneralCategory(c.m_First), c.m_Category);
        EXPECT_EQ(UnicodeCharTable::GetGeneralCategory(c.m_Last), c.m_Category);
        for (int cp = c.m_First + 1; cp < c.m_Last; ++cp)
            ASSERT_EQ(UnicodeCharTable::FindCharacter(cp), nullptr) << cp;
    }
}

TEST(UnicodeCharTable, IdeographRangesAreNotHeld)
{
    for (int cp = 0x3400; cp <= 0x4DB5; ++cp)
        ASSERT_EQ(UnicodeCharTable::FindCharacter(cp), nullptr) << cp;
    for (int cp = 0x4E00; cp <= 0x9FEA; ++cp)
        ASSERT_EQ(UnicodeCharTable::FindCharacter(cp), nullptr) << cp;
    EXPECT_EQ(UnicodeCharTable::FindCharacter(0x20000), nullptr);
    EXPECT_EQ(UnicodeCharTable::FindCharacter(0x2A6D6), nullptr);
}

TEST(UnicodeCharTable, NeighboursOfTheIdeographsAreHeld)
{
    EXPECT_EQ(UnicodeCharTable::GetGeneralCategory(0x4DC0), UnicodeCategorySo); // the first hexagram
    EXPECT_EQ(UnicodeCharTable::GetGeneralCategory(0x4DFF), UnicodeCategorySo); // the last hexagram
    EXPECT_EQ(UnicodeCharTable::GetGeneralCategory(0xA000), UnicodeCategoryLo); // the first Yi syllable
    EXPECT_EQ(UnicodeCharTable::GetGeneralCategory(0xF900), UnicodeCategoryLo); // a compatibility ideograph
}

TEST(UnicodeCharTable, FindCharacterReturnsTheRecordInTheTable)
{
    EXPECT_EQ(UnicodeCharTable::FindCharacter(0), &g_UnicodeLookupTable[0]);
    EXPECT_EQ(UnicodeCharTable::FindCharacter(0x7FF), &g_UnicodeLookupTable[2047]);
    EXPECT_EQ(UnicodeCharTable::FindCharacter(0x800), &g_UnicodeAfterFirstN[0].m_Record);
    EXPECT_EQ(UnicodeCharTable::FindCharacter(0x1F9E6), &g_UnicodeAfterFirstN[28736].m_Record);
}

TEST(UnicodeCharTable, FindCharacterIsAPlainSearchOfTheTables)
{
    EXPECT_EQ(FirstFailure([](int cp) { return UnicodeCharTable::FindCharacter(cp) == SearchTables(cp); }), kLargest);
}

TEST(UnicodeCharTable, FindCharacterKnowsNothingOutsideOfTheTables)
{
    for (const int cp :
         {kSmallest, kSmallest + 0x41, -0x800, -1, 0x1F9E7, 0x1FFFF, 0x20000, 0x10FFFF, 0x110000, kLargest}) {
        SCOPED_TRACE(cp);
        EXPECT_EQ(UnicodeCharTable::FindCharacter(cp), nullptr);
    }
}

TEST(UnicodeCharTable, GetGeneralCategoryIsThatOfTheRecord)
{
    EXPECT_EQ(FirstFailure([](int cp) {
                  const UnicodeCharacterRecord* record = SearchTables(cp);
                  return UnicodeCharTable::GetGeneralCategory(cp) ==
                         (record != nullptr ? record->m_GeneralCategory : 64);
              }),
              kLargest);
}

TEST(UnicodeCharTable, GetGeneralCategoryIsUnassignedWithoutARecord)
{
    for (const int cp : {kSmallest, -1, 0x4E2D, 0xAC01, 0x1F9E7, 0x20000, 0x10FFFD, 0x110000, kLargest}) {
        SCOPED_TRACE(cp);
        EXPECT_EQ(UnicodeCharTable::GetGeneralCategory(cp), 64);
    }
}

TEST(UnicodeCharTable, ToUpperAndToLowerMapLettersOfTheOtherCase)
{
    const struct
    {
        const char* m_pName;
        int m_CodePoint, m_Upper, m_Lower;
    } cases[] = {
        {"A", 'A', 'A', 'a'},
        {"z", 'z', 'Z', 'z'},
        {"digit", '7', '7', '7'},
        {"micro sign", 0xB5, 0x39C, 0xB5},
        {"e with acute", 0xE9, 0xC9, 0xE9},
        {"y with diaeresis", 0xFF, 0x178, 0xFF},
        {"I with dot", 0x130, 0x130, 'i'},
        {"dotless i", 0x131, 'I', 0x131},
        {"long s", 0x17F, 'S', 0x17F},
        {"titlecase dz", 0x1C5, 0x1C5, 0x1C5},
        {"final sigma", 0x3C2, 0x3A3, 0x3C2},
        {"Cyrillic YA", 0x42F, 0x42F, 0x44F},
        {"titlecase alpha", 0x1F88, 0x1F88, 0x1F88},
        {"lowercase of the one before", 0x1F80, 0x1F88, 0x1F80},
        {"Ohm sign", 0x2126, 0x2126, 0x3C9},
        {"Kelvin sign", 0x212A, 0x212A, 'k'},
        {"Roman one, a number", 0x2160, 0x2160, 0x2160},
        {"circled A, a symbol", 0x24B6, 0x24B6, 0x24B6},
        {"ideograph", 0x4E2D, 0x4E2D, 0x4E2D},
        {"Cherokee small A", 0xAB70, 0x13A0, 0xAB70},
        {"fullwidth a", 0xFF41, 0xFF21, 0xFF41},
        {"Deseret capital long I", 0x10400, 0x10400, 0x10428},
        {"negative", -1, -1, -1},
        {"smallest", kSmallest, kSmallest, kSmallest},
        {"beyond the tables", 0x20000, 0x20000, 0x20000},
        {"largest", kLargest, kLargest, kLargest},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_pName);
        EXPECT_EQ(UnicodeCharTable::ToUpper(c.m_CodePoint), c.m_Upper);
        EXPECT_EQ(UnicodeCharTable::ToLower(c.m_CodePoint), c.m_Lower);
    }
}

TEST(UnicodeCharTable, ToUpperAndToLowerGiveTheRecordsOtherCase)
{
    EXPECT_EQ(FirstFailure([](int cp) {
                  const UnicodeCharacterRecord* record = SearchTables(cp);
                  const int category = record != nullptr ? record->m_GeneralCategory : 64;
                  return UnicodeCharTable::ToUpper(cp) == (category == 1 ? record->m_OtherCase : cp) &&
                         UnicodeCharTable::ToLower(cp) == (category == 0 ? record->m_OtherCase : cp);
              }),
              kLargest);
}

TEST(UnicodeCharTable, LettersWithoutAPartnerGiveZero)
{
    EXPECT_EQ(UnicodeCharTable::ToUpper(0x00DF), 0); // sharp s
    EXPECT_EQ(UnicodeCharTable::ToUpper(0x0138), 0); // kra
    EXPECT_EQ(UnicodeCharTable::ToLower(0x2102), 0); // double-struck C
    EXPECT_EQ(UnicodeCharTable::ToLower(0x03D2), 0); // upsilon with hook
    EXPECT_EQ(UnicodeCharTable::ToLower(0x00DF), 0xDF);
    EXPECT_EQ(UnicodeCharTable::ToUpper(0x2102), 0x2102);
}

TEST(UnicodeCharTable, ClassesOfCharacters)
{
    const struct
    {
        const char* m_pName;
        int m_CodePoint;
        bool m_Letter, m_AlphaNumeric, m_Identifier;
    } cases[] = {
        {"Lu", 'Q', true, true, true},
        {"Ll", 'q', true, true, true},
        {"Lt", 0x1C5, true, true, true},
        {"Lm", 0x2B0, true, true, true},
        {"Lo", 0x5D0, true, true, true},
        {"Mn", 0x300, false, false, false},
        {"Nd", '5', false, true, true},
        {"Nd of another script", 0x663, false, true, true},
        {"Nl", 0x2160, false, false, false},
        {"No", 0xB2, false, false, false},
        {"underscore", '_', false, false, true},
        {"other Pc", 0x203F, false, false, false},
        {"hyphen", '-', false, false, false},
        {"space", ' ', false, false, false},
        {"NUL", 0, false, false, false},
        {"unassigned", 0x378, false, false, false},
        {"ideograph", 0x4E2D, false, false, false},
        {"negative", -1, false, false, false},
        {"beyond the tables", 0x20000, false, false, false},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_pName);
        EXPECT_EQ(UnicodeCharTable::IsLetter(c.m_CodePoint), c.m_Letter);
        EXPECT_EQ(UnicodeCharTable::IsAlphaNumeric(c.m_CodePoint), c.m_AlphaNumeric);
        EXPECT_EQ(UnicodeCharTable::IsIdentifierCharacter(c.m_CodePoint), c.m_Identifier);
    }
}

TEST(UnicodeCharTable, ClassesFollowTheCategory)
{
    EXPECT_EQ(FirstFailure([](int cp) {
                  const UnicodeCharacterRecord* record = SearchTables(cp);
                  const int category = record != nullptr ? record->m_GeneralCategory : 64;
                  const bool alphaNumeric = category < 5 || category == 20;
                  return UnicodeCharTable::IsLetter(cp) == (category < 5) &&
                         UnicodeCharTable::IsAlphaNumeric(cp) == alphaNumeric &&
                         UnicodeCharTable::IsIdentifierCharacter(cp) == (alphaNumeric || cp == 0x5F);
              }),
              kLargest);
}

TEST(UnicodeCharTable, AllocatesNothing)
{
    const AllocationCounter allocations;

    for (const int cp : {-1, 0x41, 0x4E2D, 0xAC01, 0x1F600}) {
        UnicodeCharTable::FindCharacter(cp);
        UnicodeCharTable::ToUpper(cp);
        UnicodeCharTable::IsIdentifierCharacter(cp);
    }

    EXPECT_EQ(allocations.GetCount(), 0u);
}

} // namespace
