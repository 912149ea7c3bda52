#include <QDPlatform/UnicodeCharacter.h>

#include <QDPlatform/QDString.h>

#include "AllocationCounter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <set>
#include <string>
#include <type_traits>

namespace
{

constexpr int kSmallest = std::numeric_limits<int>::min();
constexpr int kLargest = std::numeric_limits<int>::max();

// The code points from -1 to U+110000 for which `holds` is true.
template<class Holds>
std::set<int> AllThat(Holds&& holds)
{
    std::set<int> found;
    for (int cp = -1; cp <= 0x110000; ++cp) {
        if (holds(UnicodeCharacter(cp)))
            found.insert(cp);
    }
    return found;
}

std::set<int> SetOf(const std::string& ascii)
{
    return std::set<int>(ascii.begin(), ascii.end());
}

TEST(UnicodeCharacter, DefaultIsAnUnassignedNul)
{
    const UnicodeCharacter character;

    EXPECT_EQ(character.GetCodePoint(), 0);
    EXPECT_EQ(character.GetOtherCase(), 0);
    EXPECT_EQ(character.GetGeneralCategory(), 64);
    EXPECT_EQ(character.GetDigitValue(), 0);
}

TEST(UnicodeCharacter, NulThatWasSetIsAControl)
{
    EXPECT_EQ(UnicodeCharacter(0).GetGeneralCategory(), UnicodeCategoryCc);
}

TEST(UnicodeCharacter, IsAPlainValueWithItsFieldsInOrder)
{
    static_assert(sizeof(UnicodeCharacter) == 12);
    static_assert(std::is_standard_layout_v<UnicodeCharacter>);
    static_assert(std::is_trivially_copyable_v<UnicodeCharacter>);
    static_assert(std::is_trivially_destructible_v<UnicodeCharacter>);

    const struct
    {
        int m_Source;
        int32_t m_CodePoint, m_OtherCase;
        uint8_t m_Category, m_Digit;
    } cases[] = {{'a', 0x61, 0x41, 1, 0}, {0x663, 0x663, 0, 20, 3}};

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Source);
        const UnicodeCharacter character(c.m_Source);

        unsigned char bytes[sizeof character];
        std::memcpy(bytes, &character, sizeof bytes);

        EXPECT_EQ(std::memcmp(bytes, &c.m_CodePoint, 4), 0);
        EXPECT_EQ(std::memcmp(bytes + 4, &c.m_OtherCase, 4), 0);
        EXPECT_EQ(bytes[8], c.m_Category);
        EXPECT_EQ(bytes[9], c.m_Digit);
    }
}

TEST(UnicodeCharacter, SetCodePointLooksThePropertiesUp)
{
    const struct
    {
        const char* m_pName;
        int m_CodePoint;
        int m_OtherCase, m_Category, m_Digit;
    } cases[] = {
        {"A", 'A', 'a', 0, 0},
        {"a", 'a', 'A', 1, 0},
        {"digit", '9', 0, 20, 9},
        {"titlecase", 0x1C5, 0, 2, 0},
        {"unassigned in the first table", 0x378, 0, 64, 0},
        {"Devanagari five", 0x96B, 0, 20, 5},
        {"before the ideographs", 0x4DFF, 0, 43, 0},
        {"first ideograph", 0x4E00, 0, 4, 0},
        {"ideograph", 0x4E2D, 0, 4, 0},
        {"last ideograph", 0x9FEA, 0, 4, 0},
        {"behind the ideographs", 0x9FEB, 0, 64, 0},
        {"ideograph of extension A", 0x3400, 0, 64, 0},
        {"end of a range", 0xAC00, 0, 4, 0},
        {"inside of a range", 0xAC01, 0, 64, 0},
        {"Deseret small long I", 0x10428, 0x10400, 1, 0},
        {"ideograph of extension B", 0x20000, 0, 64, 0},
        {"beyond all code points", 0x110000, 0, 64, 0},
        {"negative", -1, 0, 64, 0},
        {"smallest", kSmallest, 0, 64, 0},
        {"largest", kLargest, 0, 64, 0},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_pName);
        UnicodeCharacter character('5');

        character.SetCodePoint(c.m_CodePoint);

        EXPECT_EQ(character.GetCodePoint(), c.m_CodePoint);
        EXPECT_EQ(character.GetOtherCase(), c.m_OtherCase);
        EXPECT_EQ(character.GetGeneralCategory(), c.m_Category);
        EXPECT_EQ(character.GetDigitValue(), c.m_Digit);
    }
}

TEST(UnicodeCharacter, DiffersFromTheTablesInTheIdeographsOnly)
{
    const std::set<int> different = AllThat([](const UnicodeCharacter& character) {
        return character.GetGeneralCategory() != UnicodeCharTable::GetGeneralCategory(character.GetCodePoint());
    });

    ASSERT_FALSE(different.empty());
    EXPECT_EQ(*different.begin(), 0x4E00);
    EXPECT_EQ(*different.rbegin(), 0x9FEA);
    EXPECT_EQ(different.size(), 0x9FEAu - 0x4E00u + 1u);
    EXPECT_TRUE(UnicodeCharacter(0x4E2D).IsLetter());
    EXPECT_FALSE(UnicodeCharTable::IsLetter(0x4E2D));
}

TEST(UnicodeCharacter, ACodePointConvertsToACharacter)
{
    const UnicodeCharacter character = 0x41;

    EXPECT_EQ(character.GetCodePoint(), 0x41);
    EXPECT_TRUE(character.IsLetter());
}

TEST(UnicodeCharacter, ToUpperLooksThePropertiesUpAgain)
{
    UnicodeCharacter character('q');

    character.ToUpper();

    EXPECT_EQ(character.GetCodePoint(), 'Q');
    EXPECT_EQ(character.GetOtherCase(), 'q');
    EXPECT_EQ(character.GetGeneralCategory(), UnicodeCategoryLu);
}

TEST(UnicodeCharacter, ToLowerLooksThePropertiesUpAgain)
{
    UnicodeCharacter character('Q');

    character.ToLower();

    EXPECT_EQ(character.GetCodePoint(), 'q');
    EXPECT_EQ(character.GetOtherCase(), 'Q');
    EXPECT_EQ(character.GetGeneralCategory(), UnicodeCategoryLl);
}

TEST(UnicodeCharacter, ToUpperAndToLowerMapLettersOfTheOtherCaseOnly)
{
    const struct
    {
        const char* m_pName;
        int m_CodePoint, m_Upper, m_Lower;
    } cases[] = {
        {"uppercase", 'A', 'A', 'a'},
        {"lowercase", 'a', 'A', 'a'},
        {"titlecase", 0x1C5, 0x1C5, 0x1C5},
        {"digit", '3', '3', '3'},
        {"ideograph", 0x4E2D, 0x4E2D, 0x4E2D},
        {"Kelvin sign", 0x212A, 0x212A, 'k'},
        {"uppercase that is titlecase", 0x1F80, 0x1F88, 0x1F80},
        {"unassigned", -1, -1, -1},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_pName);
        UnicodeCharacter upper(c.m_CodePoint);
        UnicodeCharacter lower(c.m_CodePoint);

        upper.ToUpper();
        lower.ToLower();

        EXPECT_EQ(upper.GetCodePoint(), c.m_Upper);
        EXPECT_EQ(lower.GetCodePoint(), c.m_Lower);
    }
}

TEST(UnicodeCharacter, LettersWithoutAPartnerBecomeNul)
{
    UnicodeCharacter sharpS(0xDF);
    UnicodeCharacter doubleStruckC(0x2102);

    sharpS.ToUpper();
    doubleStruckC.ToLower();

    EXPECT_EQ(sharpS.GetCodePoint(), 0);
    EXPECT_EQ(sharpS.GetGeneralCategory(), UnicodeCategoryCc);
    EXPECT_EQ(doubleStruckC.GetCodePoint(), 0);
    EXPECT_EQ(doubleStruckC.GetGeneralCategory(), UnicodeCategoryCc);
}

TEST(UnicodeCharacter, IsWhitespaceForThreeControlsAndTheSeparators)
{
    const std::set<int> expected = {0x09,   0x0A,   0x0D,   0x20,   0xA0,   0x1680, 0x2000, 0x2001,
                                    0x2002, 0x2003, 0x2004, 0x2005, 0x2006, 0x2007, 0x2008, 0x2009,
                                    0x200A, 0x2028, 0x2029, 0x202F, 0x205F, 0x3000};

    EXPECT_EQ(AllThat([](const UnicodeCharacter& character) { return character.IsWhitespace(); }), expected);
}

TEST(UnicodeCharacter, ClassesOfCharacters)
{
    const struct
    {
        const char* m_pName;
        int m_CodePoint;
        bool m_Letter, m_LetterOrDigit, m_Printable;
    } cases[] = {
        {"Lu", 'Q', true, true, true},
        {"Ll", 'q', true, true, true},
        {"Lt", 0x1C5, true, true, true},
        {"Lm", 0x2B0, true, true, true},
        {"Lo", 0x5D0, true, true, true},
        {"ideograph", 0x4E2D, true, true, true},
        {"Mn", 0x300, false, false, false},
        {"Mc", 0x903, false, false, false},
        {"Me", 0x20DD, false, false, false},
        {"Nd", '5', false, true, true},
        {"Nd of another script", 0x663, false, true, true},
        {"Nl", 0x2160, false, false, true},
        {"No", 0xB2, false, false, true},
        {"Pc", '_', false, false, true},
        {"Pd", '-', false, false, true},
        {"Ps", '(', false, false, true},
        {"Pe", ')', false, false, true},
        {"Pi", 0xAB, false, false, true},
        {"Pf", 0xBB, false, false, true},
        {"Po", '!', false, false, true},
        {"Sm", '+', false, false, true},
        {"Sc", '$', false, false, true},
        {"Sk", '^', false, false, true},
        {"So", 0x1F600, false, false, true},
        {"space", ' ', false, false, true},
        {"other Zs", 0xA0, false, false, false},
        {"Zl", 0x2028, false, false, false},
        {"Zp", 0x2029, false, false, false},
        {"Cc", 0x07, false, false, false},
        {"Cf", 0xAD, false, false, false},
        {"Cs", 0xD800, false, false, false},
        {"Co", 0xE000, false, false, false},
        {"Cn", 0x378, false, false, false},
        {"first Hangul syllable", 0xAC00, true, true, true},
        {"second Hangul syllable", 0xAC01, false, false, false},
        {"negative", -1, false, false, false},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_pName);
        const UnicodeCharacter character(c.m_CodePoint);
        EXPECT_EQ(character.IsLetter(), c.m_Letter);
        EXPECT_EQ(character.IsLetterOrDigit(), c.m_LetterOrDigit);
        EXPECT_EQ(character.IsPrintable(), c.m_Printable);
    }
}

TEST(UnicodeCharacter, TheDefaultBelongsToNoClass)
{
    const UnicodeCharacter character;

    EXPECT_FALSE(character.IsWhitespace());
    EXPECT_FALSE(character.IsLetterOrDigit());
    EXPECT_FALSE(character.IsPrintable());
}

TEST(UnicodeCharacter, IsASCIILetterForTheLettersOfASCIIOnly)
{
    EXPECT_EQ(AllThat([](const UnicodeCharacter& character) { return character.IsASCIILetter(); }),
              SetOf("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"));
}

TEST(UnicodeCharacter, IsASCIIDigitForTheDigitsOfASCIIOnly)
{
    EXPECT_EQ(AllThat([](const UnicodeCharacter& character) { return character.IsASCIIDigit(); }), SetOf("0123456789"));
}

TEST(UnicodeCharacter, IsASCIIHexDigitForHexadecimalDigitsOfBothCases)
{
    EXPECT_EQ(AllThat([](const UnicodeCharacter& character) { return character.IsASCIIHexDigit(); }),
              SetOf("ABCDEFabcdef0123456789"));
}

TEST(UnicodeCharacter, IsBase64CodePointForItsAlphabetAndPadding)
{
    EXPECT_EQ(AllThat([](const UnicodeCharacter& character) { return character.IsBase64CodePoint(); }),
              SetOf("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/="));
}

TEST(UnicodeCharacter, GetHexDigitValue)
{
    const struct
    {
        const char* m_pName;
        int m_CodePoint;
        int m_Value;
    } cases[] = {
        {"0", '0', 0},
        {"9", '9', 9},
        {"A", 'A', 10},
        {"F", 'F', 15},
        {"a", 'a', 10},
        {"f", 'f', 15},
        {"behind F", 'G', 0},
        {"behind f", 'g', 0},
        {"before A", '@', 0},
        {"before a", '`', 0},
        {"Arabic-Indic three", 0x663, 3},
        {"fullwidth A", 0xFF21, 0},
        {"fullwidth seven", 0xFF17, 7},
        {"superscript two, no decimal digit", 0xB2, 0},
        {"negative", -1, 0},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_pName);
        EXPECT_EQ(UnicodeCharacter(c.m_CodePoint).GetHexDigitValue(), c.m_Value);
    }
}

TEST(UnicodeCharacter, DigitsOfOtherScriptsAreNoHexDigits)
{
    EXPECT_FALSE(UnicodeCharacter(0x663).IsASCIIHexDigit());
    EXPECT_FALSE(UnicodeCharacter(0xFF17).IsASCIIHexDigit());
}

TEST(UnicodeCharacter, AppendingWritesTheCodePointInUtf8)
{
    std::string text = "<";

    qd_append_codepoint_to_qdstring(UnicodeCharacter('A'), text);
    qd_append_codepoint_to_qdstring(UnicodeCharacter(0xE9), text);
    qd_append_codepoint_to_qdstring(UnicodeCharacter(0x20AC), text);
    qd_append_codepoint_to_qdstring(UnicodeCharacter(0x1F600), text);
    qd_append_codepoint_to_qdstring(0x3E, text); // the function for an int

    EXPECT_EQ(text, "<A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80>");
}

TEST(UnicodeCharacter, AppendingWritesWhatIsNoCharacterAsTheFunctionForAnIntDoes)
{
    const struct
    {
        const char* m_pName;
        int m_CodePoint;
        const char* m_pExpected;
    } cases[] = {
        {"negative", -1, "\xFF"},
        {"surrogate", 0xD800, "\xED\xA0\x80"},
        {"beyond all code points", 0x110000, "\xF4\x90\x80\x80"},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_pName);
        std::string text;

        qd_append_codepoint_to_qdstring(UnicodeCharacter(c.m_CodePoint), text);

        EXPECT_EQ(text, c.m_pExpected);
    }
}

TEST(UnicodeCharacter, AppendingTheDefaultWritesANul)
{
    std::string text;

    qd_append_codepoint_to_qdstring(UnicodeCharacter(), text);

    EXPECT_EQ(text, std::string(1, '\0'));
}

TEST(UnicodeCharacter, AllocatesNothing)
{
    const AllocationCounter allocations;

    for (const int cp : {-1, 0x41, 0x4E2D, 0xAC01, 0x1F600}) {
        UnicodeCharacter character(cp);
        character.ToLower();
        character.IsPrintable();
    }

    EXPECT_EQ(allocations.GetCount(), 0u);
}

} // namespace
