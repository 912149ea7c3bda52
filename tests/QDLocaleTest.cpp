#include <QDPlatform/QDLocale.h>

#include "NextFunction.h"
#include "ScopedVariable.h"

#include <gtest/gtest.h>

#include <langinfo.h>
#include <locale.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

static_assert(!std::is_polymorphic_v<CQDLocale>);
static_assert(std::is_same_v<decltype(CQDLocale::SetUtf8Locale()), const char*>);
static_assert(std::is_same_v<decltype(CQDLocale().GetCJKLanguage()), int>);
static_assert(std::is_same_v<std::underlying_type_t<CQDLocale::CJKLanguage>, int>);
static_assert(CQDLocale::CJKNone == 0 && CQDLocale::CJKSimplifiedChinese == 1 && CQDLocale::CJKTraditionalChinese == 2);
static_assert(CQDLocale::CJKJapanese == 3 && CQDLocale::CJKKorean == 4);
static_assert(offsetof(CQDLocale::Language, m_pTag) == 0);
static_assert(offsetof(CQDLocale::Language, m_LanguageId) == sizeof(void*));
static_assert(sizeof(CQDLocale::Language) == 2 * sizeof(void*));
static_assert(sizeof(CQDLocale) == sizeof(std::string) + alignof(std::string), "the tag, the number");

namespace
{

struct LocaleCall
{
    int m_Category;
    std::string m_Name;
};

// What the library asks of setlocale(), null while no test looks; and what it is answered, by the name that it asks
// for. A null answer refuses the name. Other names go to the C library.
std::vector<LocaleCall>* g_pLocaleCalls = nullptr;
std::map<std::string, char*> g_LocaleAnswers;

} // namespace

extern "C" char* setlocale(int category, const char* name) noexcept
{
    if (g_pLocaleCalls != nullptr && name != nullptr) {
        g_pLocaleCalls->push_back({category, name});
        const auto answer = g_LocaleAnswers.find(name);
        if (answer != g_LocaleAnswers.end())
            return answer->second;
    }
    return NextFunction("setlocale", setlocale)(category, name);
}

namespace
{

// Gives the process its locale back.
class LocaleGuard
{
public:
    LocaleGuard() : m_Saved(setlocale(LC_ALL, nullptr)) { g_pLocaleCalls = &m_Calls; }

    LocaleGuard(const LocaleGuard&) = delete;
    LocaleGuard& operator=(const LocaleGuard&) = delete;

    ~LocaleGuard()
    {
        g_pLocaleCalls = nullptr;
        g_LocaleAnswers.clear();
        setlocale(LC_ALL, m_Saved.c_str());
    }

    void Refuse(const char* name) { g_LocaleAnswers[name] = nullptr; }

    void Answer(const char* name, char* answer) { g_LocaleAnswers[name] = answer; }

    const std::vector<LocaleCall>& GetCalls() const { return m_Calls; }

private:
    std::string m_Saved;
    std::vector<LocaleCall> m_Calls;
};

// A locale that is none of those that the tests set.
CQDLocale PreviousLocale()
{
    CQDLocale locale;
    EXPECT_TRUE(locale.SetFromLocaleName("mt-MT"));
    return locale;
}

std::string Describe(const CQDLocale& locale)
{
    return locale.GetLocaleName() + " " + std::to_string(locale.GetLanguageId());
}

constexpr char kPrevious[] = "mt-MT 1082";

bool IsBareCode(const std::string& tag)
{
    return tag.find('-') == std::string::npos;
}

// The CRC-32 of zip files.
uint32_t Crc32(const std::string& text)
{
    uint32_t crc = 0xFFFFFFFF;
    for (const char c : text) {
        crc ^= static_cast<unsigned char>(c);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320 : 0);
    }
    return ~crc;
}

} // namespace

TEST(CQDLocaleTable, Has240RowsOf79Languages)
{
    int bareCodes = 0;

    for (int i = 0; i < CQDLocale::g_LanguagesLength; ++i)
        bareCodes += IsBareCode(CQDLocale::g_Languages[i].m_pTag) ? 1 : 0;

    EXPECT_EQ(CQDLocale::g_LanguagesLength, 240);
    EXPECT_EQ(bareCodes, 79);
}

TEST(CQDLocaleTable, TagsAscendInByteOrder)
{
    for (int i = 1; i < CQDLocale::g_LanguagesLength; ++i)
        EXPECT_LT(std::strcmp(CQDLocale::g_Languages[i - 1].m_pTag, CQDLocale::g_Languages[i].m_pTag), 0) << i;
}

TEST(CQDLocaleTable, TagsAreLowerCaseLanguagesAndUpperCaseOrNumericRegions)
{
    for (int i = 0; i < CQDLocale::g_LanguagesLength; ++i) {
        const std::string tag = CQDLocale::g_Languages[i].m_pTag;
        SCOPED_TRACE(tag);
        const std::string language = tag.substr(0, tag.find('-'));

        EXPECT_EQ(language.find_first_not_of("abcdefghijklmnopqrstuvwxyz"), std::string::npos);
        EXPECT_EQ(language.size(), language == "hsb" ? 3u : 2u);
        if (IsBareCode(tag))
            continue;
        const std::string region = tag.substr(language.size() + 1);
        if (region != "029" && region != "001") {
            EXPECT_EQ(region.size(), 2u);
            EXPECT_EQ(region.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ"), std::string::npos);
        }
    }
}

TEST(CQDLocaleTable, BareCodesHaveTheDefaultFormAndRegionsTheSamePrimaryLanguage)
{
    const CQDLocale::Language* language = nullptr;
    std::set<int> primaryLanguages;

    for (int i = 0; i < CQDLocale::g_LanguagesLength; ++i) {
        const CQDLocale::Language& row = CQDLocale::g_Languages[i];
        SCOPED_TRACE(row.m_pTag);
        if (IsBareCode(row.m_pTag)) {
            language = &row;
            EXPECT_EQ(row.m_LanguageId >> 10, 1);
            EXPECT_TRUE(primaryLanguages.insert(row.m_LanguageId & 0x3FF).second);
            continue;
        }
        ASSERT_NE(language, nullptr);
        EXPECT_EQ(std::string(row.m_pTag).find(std::string(language->m_pTag) + "-"), 0u);
        EXPECT_EQ(row.m_LanguageId & 0x3FF, language->m_LanguageId & 0x3FF);
        EXPECT_GE(row.m_LanguageId, 0x0400);
        EXPECT_LE(row.m_LanguageId, 0xFFFF);
    }
}

TEST(CQDLocaleTable, EveryLanguageHasARegionWithTheIdOfItsBareCodeButIrish)
{
    for (int i = 0; i < CQDLocale::g_LanguagesLength; ++i) {
        const CQDLocale::Language& bare = CQDLocale::g_Languages[i];
        if (!IsBareCode(bare.m_pTag))
            continue;
        SCOPED_TRACE(bare.m_pTag);
        int sameId = 0;
        for (int j = i + 1; j < CQDLocale::g_LanguagesLength && !IsBareCode(CQDLocale::g_Languages[j].m_pTag); ++j)
            sameId += CQDLocale::g_Languages[j].m_LanguageId == bare.m_LanguageId ? 1 : 0;

        EXPECT_EQ(sameId, std::strcmp(bare.m_pTag, "ga") == 0 ? 0 : std::strcmp(bare.m_pTag, "de") == 0 ? 2 : 1);
    }
}

// The checksum was computed by another program over the same list, as lines of TAG=ID.
TEST(CQDLocaleTable, RowsHaveTheirChecksum)
{
    std::string lines;

    for (int i = 0; i < CQDLocale::g_LanguagesLength; ++i)
        lines += std::string(CQDLocale::g_Languages[i].m_pTag) + "=" +
                 std::to_string(CQDLocale::g_Languages[i].m_LanguageId) + "\n";

    EXPECT_EQ(lines.size(), 2433u);
    EXPECT_EQ(Crc32("123456789"), 0xCBF43926u); // the check value of this CRC
    EXPECT_EQ(Crc32(lines), 0x9C3ADF34u);
}

TEST(CQDLocaleTable, EveryRowIsFoundByItsTagInBothSpellings)
{
    for (int i = 0; i < CQDLocale::g_LanguagesLength; ++i) {
        const CQDLocale::Language& row = CQDLocale::g_Languages[i];
        SCOPED_TRACE(row.m_pTag);
        std::string underscored = row.m_pTag;
        if (const auto hyphen = underscored.find('-'); hyphen != std::string::npos)
            underscored[hyphen] = '_';
        const auto length = static_cast<unsigned int>(underscored.size());
        CQDLocale locale;

        EXPECT_EQ(CQDLocale::GetLanguageIdFromISOName(row.m_pTag, length), &row);
        EXPECT_EQ(CQDLocale::GetLanguageIdFromISOName(underscored.c_str(), length), &row);
        EXPECT_TRUE(locale.SetFromLocaleName(underscored));
        EXPECT_EQ(locale.GetLocaleName(), row.m_pTag);
        EXPECT_EQ(locale.GetLanguageId(), row.m_LanguageId);
    }
}

TEST(CQDLocale, StartsAsUsEnglish)
{
    EXPECT_EQ(Describe(CQDLocale()), "en-US 1033");
}

TEST(CQDLocale, CopiesCarryTagAndId)
{
    const CQDLocale original = PreviousLocale();
    CQDLocale assigned;

    const CQDLocale copy(original);
    assigned = original;

    EXPECT_EQ(Describe(copy), kPrevious);
    EXPECT_EQ(Describe(assigned), kPrevious);
}

TEST(CQDLocale, SetFromLocaleNameTakesTheTablesTagAndId)
{
    static const struct
    {
        const char* m_Tag;
        const char* m_Result;
    } kCases[] = {
        {"de-DE", "de-DE 1031"},   {"de_DE", "de-DE 1031"},  {"de-GE", "de-GE 1031"},   {"de-AT", "de-AT 3079"},
        {"de", "de 1031"},         {"en", "en 1033"},        {"en-US", "en-US 1033"},   {"en-GB", "en-GB 2057"},
        {"en-029", "en-029 9225"}, {"en-HK", "en-HK 15369"}, {"fr-FR", "fr-FR 1036"},   {"fr_029", "fr-029 7180"},
        {"zh", "zh 1028"},         {"zh-TW", "zh-TW 1028"},  {"zh-CN", "zh-CN 2052"},   {"zh-HK", "zh-HK 3076"},
        {"zh-SG", "zh-SG 4100"},   {"zh-MO", "zh-MO 5124"},  {"pt", "pt 1046"},         {"pt-BR", "pt-BR 1046"},
        {"pt-PT", "pt-PT 2070"},   {"hr-CS", "hr-CS 2074"},  {"hr-ME", "hr-ME 11290"},  {"hr-RS", "hr-RS 9242"},
        {"hr-BA", "hr-BA 4122"},   {"hsb", "hsb 1070"},      {"hsb-DE", "hsb-DE 1070"}, {"yi-001", "yi-001 1085"},
        {"af", "af 1078"},         {"zu-ZA", "zu-ZA 1077"},  {"ga", "ga 1084"},         {"ga-IE", "ga-IE 2108"},
        {"sv", "sv 1053"},         {"ar-AE", "ar-AE 14337"}, {"es-PY", "es-PY 15370"},  {"se-FI", "se-FI 3131"},
        {"ja-JP", "ja-JP 1041"},   {"ko", "ko 1042"},        {"tn-BW", "tn-BW 2098"},   {"ur-IN", "ur-IN 2080"},
    };

    for (const auto& c : kCases) {
        SCOPED_TRACE(c.m_Tag);
        CQDLocale locale = PreviousLocale();

        EXPECT_TRUE(locale.SetFromLocaleName(c.m_Tag));

        EXPECT_EQ(Describe(locale), c.m_Result);
    }
}

TEST(CQDLocale, UnknownNameChangesNothing)
{
    static const std::string kNames[] = {
        "",
        "x",
        "d",
        "e",
        "zz",
        "aa",
        "~",
        "en-",
        "en_",
        "-",
        "_",
        "-US",
        "en_us",
        "de_de",
        "DE-de",
        "EN",
        "en-U",
        "en-USA",
        "en-US ",
        " en-US",
        "en.UTF-8",
        "de_DE.UTF-8",
        "de_DE@euro",
        "de:en",
        "en--US",
        "en-1",
        "hs",
        "hsbx",
        "C",
        "POSIX",
        "C.UTF-8",
        "german",
        "\xC3\xA9",
        "\xFF\xFF",
        "de\xFF",
        std::string("de\0", 3),
        std::string("de\0DE", 5),
        std::string("\0", 1),
        std::string("de\0-DE", 6),
        std::string(100000, 'e'),
        "en-US" + std::string(1000, 'x'),
    };
    for (const std::string& name : kNames) {
        SCOPED_TRACE(name.substr(0, 20));
        CQDLocale locale = PreviousLocale();

        EXPECT_FALSE(locale.SetFromLocaleName(name));

        EXPECT_EQ(Describe(locale), kPrevious);
    }
}

TEST(CQDLocale, SetFromItsOwnTagKeepsIt)
{
    CQDLocale locale = PreviousLocale();

    EXPECT_TRUE(locale.SetFromLocaleName(locale.GetLocaleName()));

    EXPECT_EQ(Describe(locale), kPrevious);
}

TEST(CQDLocale, SetFromEnvVarLANGUAGETakesTheFirstKnownElement)
{
    static const struct
    {
        const char* m_Value;
        const char* m_Result;
    } kCases[] = {
        {"fr", "fr 1036"},
        {"fr_FR", "fr-FR 1036"},
        {"xx:fr_FR:de", "fr-FR 1036"},
        {"de:fr_FR", "de 1031"},
        {":de", "de 1031"},
        {"::de::", "de 1031"},
        {"de:", "de 1031"},
        {"xx:yy:zz:sv", "sv 1053"},
        {"de_DE.UTF-8:en_GB", "en-GB 2057"}, // elements are looked up whole
        {"C:POSIX:it", "it 1040"},
        {"en_us:en_US", "en-US 1033"},
    };

    for (const auto& c : kCases) {
        SCOPED_TRACE(c.m_Value);
        CQDLocale locale = PreviousLocale();

        EXPECT_TRUE(locale.SetFromEnvVarLANGUAGE(c.m_Value));

        EXPECT_EQ(Describe(locale), c.m_Result);
    }
}

TEST(CQDLocale, SetFromEnvVarLANGUAGEWithoutAKnownElementChangesNothing)
{
    for (const char* value : {"", ":", ":::", "xx", "xx:yy", "C", "POSIX", "de_DE.UTF-8", "de;fr", "de fr"}) {
        SCOPED_TRACE(value);
        CQDLocale locale = PreviousLocale();

        EXPECT_FALSE(locale.SetFromEnvVarLANGUAGE(value));

        EXPECT_EQ(Describe(locale), kPrevious);
    }
}

TEST(CQDLocale, SetFromEnvVarLANGTakesThePartBeforeTheFirstDot)
{
    static const struct
    {
        const char* m_Value;
        const char* m_Result;
    } kCases[] = {
        {"de_DE.UTF-8", "de-DE 1031"},
        {"de_DE", "de-DE 1031"},
        {"de-DE.UTF-8", "de-DE 1031"},
        {"sv", "sv 1053"},
        {"sv.", "sv 1053"},
        {"pt_BR.ISO-8859-1", "pt-BR 1046"},
        {"en_GB.a.b", "en-GB 2057"},
        {"de_DE.UTF-8@euro", "de-DE 1031"},
    };

    for (const auto& c : kCases) {
        SCOPED_TRACE(c.m_Value);
        CQDLocale locale = PreviousLocale();

        EXPECT_TRUE(locale.SetFromEnvVarLANG(c.m_Value));

        EXPECT_EQ(Describe(locale), c.m_Result);
    }
}

TEST(CQDLocale, SetFromEnvVarLANGOfAnUnknownTagChangesNothing)
{
    for (const char* value :
         {"", ".", ".UTF-8", "C", "C.UTF-8", "POSIX", "de_DE@euro", "en_us.UTF-8", "de:fr", "xx_XX"}) {
        SCOPED_TRACE(value);
        CQDLocale locale = PreviousLocale();

        EXPECT_FALSE(locale.SetFromEnvVarLANG(value));

        EXPECT_EQ(Describe(locale), kPrevious);
    }
}

TEST(CQDLocale, NullVariablesChangeNothing)
{
    CQDLocale locale = PreviousLocale();

    EXPECT_FALSE(locale.SetFromEnvVarLANGUAGE(nullptr));
    EXPECT_FALSE(locale.SetFromEnvVarLANG(nullptr));

    EXPECT_EQ(Describe(locale), kPrevious);
}

TEST(CQDLocale, SetFromCurrentUserAsksLANGUAGEThenLANGThenTakesUsEnglish)
{
    static const struct
    {
        const char* m_Language; // null: not set
        const char* m_Lang;
        const char* m_Result;
    } kCases[] = {
        {"fr_FR", "de_DE.UTF-8", "fr-FR 1036"},
        {"xx:de", "sv", "de 1031"},
        {nullptr, "de_DE.UTF-8", "de-DE 1031"},
        {"", "de_DE.UTF-8", "de-DE 1031"},
        {"xx", "sv", "sv 1053"},
        {nullptr, nullptr, "en-US 1033"},
        {"", "", "en-US 1033"},
        {nullptr, "C", "en-US 1033"},
        {nullptr, "C.UTF-8", "en-US 1033"},
        {nullptr, "POSIX", "en-US 1033"},
        {"it", "C.UTF-8", "it 1040"},
        {"C", "POSIX", "en-US 1033"},
        {"xx:yy", "xx_XX.UTF-8", "en-US 1033"},
        {nullptr, "de_DE@euro", "en-US 1033"},
    };

    for (const auto& c : kCases) {
        SCOPED_TRACE(c.m_Result);
        const ScopedVariable language("LANGUAGE", c.m_Language);
        const ScopedVariable lang("LANG", c.m_Lang);
        CQDLocale locale = PreviousLocale();

        EXPECT_TRUE(locale.SetFromCurrentUser());

        EXPECT_EQ(Describe(locale), c.m_Result);
    }
}

TEST(CQDLocale, SetFromCurrentUserLooksAtNoOtherVariable)
{
    const ScopedVariable language("LANGUAGE", nullptr);
    const ScopedVariable lang("LANG", nullptr);
    const ScopedVariable all("LC_ALL", "de_DE.UTF-8");
    const ScopedVariable messages("LC_MESSAGES", "de_DE.UTF-8");
    CQDLocale locale;

    EXPECT_TRUE(locale.SetFromCurrentUser());

    EXPECT_EQ(Describe(locale), "en-US 1033");
}

TEST(CQDLocale, FieldsAreTagNumber)
{
    CQDLocale locale;
    ASSERT_TRUE(locale.SetFromLocaleName("de-AT"));

    uint16_t number = 0;
    std::memcpy(&number, reinterpret_cast<const unsigned char*>(&locale) + sizeof(std::string), sizeof number);

    EXPECT_EQ(static_cast<const void*>(&locale.GetLocaleName()), &locale);
    EXPECT_EQ(number, 3079);
}

TEST(CQDLocale, GetLanguageIdFromISONameReadsNoMoreThanLength)
{
    const CQDLocale::Language* bare = CQDLocale::GetLanguageIdFromISOName("de-DE", 2);
    const CQDLocale::Language* region = CQDLocale::GetLanguageIdFromISOName("de_ATxyz", 5);

    ASSERT_NE(bare, nullptr);
    EXPECT_STREQ(bare->m_pTag, "de");
    EXPECT_EQ(bare->m_LanguageId, 1031);
    ASSERT_NE(region, nullptr);
    EXPECT_STREQ(region->m_pTag, "de-AT");
    EXPECT_EQ(region->m_LanguageId, 3079);
    EXPECT_EQ(CQDLocale::GetLanguageIdFromISOName("de-DE", 4), nullptr);
    EXPECT_EQ(CQDLocale::GetLanguageIdFromISOName("de-DE", 3), nullptr);
    EXPECT_EQ(CQDLocale::GetLanguageIdFromISOName("de-DE", 1), nullptr);
    EXPECT_EQ(CQDLocale::GetLanguageIdFromISOName("de-DE", 0), nullptr);
    EXPECT_EQ(CQDLocale::GetLanguageIdFromISOName(nullptr, 0), nullptr);
}

TEST(CQDLocale, GetCJKLanguageOfEveryRow)
{
    static const struct
    {
        const char* m_Tag;
        int m_Result;
    } kCases[] = {
        {"zh-CN", 1}, {"zh-SG", 1}, {"zh", 2},    {"zh-TW", 2}, {"zh-HK", 2},
        {"zh-MO", 2}, {"ja", 3},    {"ja-JP", 3}, {"ko", 4},    {"ko-KR", 4},
    };

    for (int i = 0; i < CQDLocale::g_LanguagesLength; ++i) {
        const char* tag = CQDLocale::g_Languages[i].m_pTag;
        SCOPED_TRACE(tag);
        int expected = 0;
        for (const auto& c : kCases)
            if (std::strcmp(c.m_Tag, tag) == 0)
                expected = c.m_Result;
        CQDLocale locale;
        ASSERT_TRUE(locale.SetFromLocaleName(tag));

        EXPECT_EQ(locale.GetCJKLanguage(), expected);
    }
}

TEST(CQDLocale, SetUtf8LocaleSetsTheCharacterTypeAlone)
{
    LocaleGuard guard;
    ASSERT_NE(setlocale(LC_ALL, "C"), nullptr);

    const char* name = CQDLocale::SetUtf8Locale();

    EXPECT_STREQ(name, "C.UTF-8");
    EXPECT_STREQ(nl_langinfo(CODESET), "UTF-8");
    EXPECT_STREQ(setlocale(LC_CTYPE, nullptr), "C.UTF-8");
    for (const int category : {LC_NUMERIC, LC_TIME, LC_COLLATE, LC_MONETARY, LC_MESSAGES})
        EXPECT_STREQ(setlocale(category, nullptr), "C");
}

TEST(CQDLocale, SetUtf8LocaleAsksOnceWhereTheFirstNameIsKnown)
{
    LocaleGuard guard;

    CQDLocale::SetUtf8Locale();

    ASSERT_EQ(guard.GetCalls().size(), 1u);
    EXPECT_EQ(guard.GetCalls()[0].m_Category, LC_CTYPE);
    EXPECT_EQ(guard.GetCalls()[0].m_Name, "C.UTF-8");
}

TEST(CQDLocale, SetUtf8LocaleTriesASecondNameAndReturnsItsResult)
{
    static char effective[] = "effective";
    LocaleGuard guard;
    guard.Refuse("C.UTF-8");
    guard.Answer("UTF-8", effective);

    const char* name = CQDLocale::SetUtf8Locale();

    EXPECT_EQ(name, effective);
    ASSERT_EQ(guard.GetCalls().size(), 2u);
    EXPECT_EQ(guard.GetCalls()[0].m_Category, LC_CTYPE);
    EXPECT_EQ(guard.GetCalls()[0].m_Name, "C.UTF-8");
    EXPECT_EQ(guard.GetCalls()[1].m_Category, LC_CTYPE);
    EXPECT_EQ(guard.GetCalls()[1].m_Name, "UTF-8");
}

TEST(CQDLocale, SetUtf8LocaleReturnsNullWhereBothNamesAreUnknown)
{
    LocaleGuard guard;
    guard.Refuse("C.UTF-8");
    guard.Refuse("UTF-8");

    EXPECT_EQ(CQDLocale::SetUtf8Locale(), nullptr);

    ASSERT_EQ(guard.GetCalls().size(), 2u);
    EXPECT_EQ(guard.GetCalls()[0].m_Category, LC_CTYPE);
    EXPECT_EQ(guard.GetCalls()[1].m_Category, LC_CTYPE);
    EXPECT_EQ(guard.GetCalls()[1].m_Name, "UTF-8");
}
