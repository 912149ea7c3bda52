#include <QDPlatform/QDModule.h>

#include <QDPlatform/QDLocale.h>
#include <QDPlatform/QDString.h>

#include <gtest/gtest.h>

#include <string.h>

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>
#include <type_traits>
#include <vector>

// The records are filled by compilers of other modules: their layout is fixed.
static_assert(sizeof(QD_BITMAP) == 24);
static_assert(offsetof(QD_BITMAP, m_Width) == 0 && offsetof(QD_BITMAP, m_Height) == 4);
static_assert(offsetof(QD_BITMAP, m_Stride) == 8 && offsetof(QD_BITMAP, m_BitsPerPixel) == 12);
static_assert(offsetof(QD_BITMAP, m_DataOffset) == 16 && offsetof(QD_BITMAP, m_DataSize) == 20);
static_assert(sizeof(QD_DATA) == 2 * sizeof(void*));
static_assert(offsetof(QD_DATA, m_pData) == 0 && offsetof(QD_DATA, m_Size) == sizeof(void*));
static_assert(sizeof(QDVersionInfo) == 208);
static_assert(offsetof(QDVersionInfo, m_Name) == 0 && offsetof(QDVersionInfo, m_Version) == 64);
static_assert(offsetof(QDVersionInfo, m_Copyright) == 112);
static_assert(sizeof(CQDModule::StringEntry) == 2 * sizeof(void*));
static_assert(offsetof(CQDModule::StringEntry, m_Id) == 0 &&
              offsetof(CQDModule::StringEntry, m_pText) == sizeof(void*));
static_assert(sizeof(CQDModule::BitmapEntry) == 28 && offsetof(CQDModule::BitmapEntry, m_Bitmap) == 4);
static_assert(sizeof(CQDModule::DataFileEntry) == 3 * sizeof(void*));
static_assert(offsetof(CQDModule::DataFileEntry, m_Id) == 0);
static_assert(offsetof(CQDModule::DataFileEntry, m_Data) == sizeof(void*));
static_assert(sizeof(CQDModule::ResourceData) == 2 * sizeof(void*));
static_assert(offsetof(CQDModule::ResourceData, m_LanguageCount) == 0);
static_assert(offsetof(CQDModule::ResourceData, m_pLanguages) == sizeof(void*));
static_assert(sizeof(CQDModule) == sizeof(void*));
static_assert(!std::is_polymorphic_v<CQDModule> && std::is_trivially_destructible_v<CQDModule>);
static_assert(std::is_same_v<decltype(g_VersionInfoCount), const int>);

namespace
{

using Language = CQDModule::ResourceLanguage;

static_assert(offsetof(Language, m_LanguageId) == 0 && offsetof(Language, m_StringCount) == 4);
static_assert(offsetof(Language, m_pStrings) == 8 && offsetof(Language, m_BitmapCount) == 8 + sizeof(void*));
static_assert(offsetof(Language, m_pBitmaps) == 8 + 2 * sizeof(void*));
static_assert(offsetof(Language, m_DataFileCount) == 8 + 3 * sizeof(void*));
static_assert(offsetof(Language, m_pDataFiles) == 8 + 4 * sizeof(void*));
static_assert(sizeof(Language) == 8 + 5 * sizeof(void*));

// A module of our own. Its resources say in which language they were found:
//   1    in every language
//   2    in 265, 1033 and 3081 (its bitmap in 3081 is missing)
//   3    in 1033 alone
//   4    in 1031 alone
//   5    in 1033, an empty text
constexpr CQDModule::StringEntry kStrings2057[] = {{1, "2057"}};
constexpr CQDModule::StringEntry kStrings265[] = {{1, "265"}, {2, "265"}};
constexpr CQDModule::StringEntry kStrings1033[] = {
    {1, "1033"},
    {2, "1033"},
    {3, "1033"},
    {5, ""},
    {10, "%s has %d links"},
    {11, "gr\xC3\xBC\xC3\x9F \xF0\x9F\x98\x80"},
    {12, "x%ls"},
    {13, "abcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrstuvwxyz"
         "abcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrstuvwxyz"
         "abcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrs%dtuvwxyz"}, // 253 letters before "%d", 262 bytes in all
    {14,
     "%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%"
     "%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%"
     "abcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrstuvwxyzab%d"}, // 100 "%%" and 54 letters; byte 255 is the last "%"
    {15, "%d"},
    {16, "x%c%s"},
};
const std::string kCutInAConversion = std::string(100, '%') + "abcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrstuvwxyzab";
constexpr CQDModule::StringEntry kStrings1031[] = {{1, "1031"}, {4, "1031"}};
constexpr CQDModule::StringEntry kStrings3081[] = {{2, "3081"}};

// The id of the language as the width.
constexpr CQDModule::BitmapEntry kBitmaps2057[] = {{1, {2057, 2, 3, 4, 5, 6}}};
constexpr CQDModule::BitmapEntry kBitmaps265[] = {{1, {265, 0, 0, 0, 0, 0}}, {2, {265, 0, 0, 0, 0, 0}}};
constexpr CQDModule::BitmapEntry kBitmaps1033[] = {
    {1, {1033, 0, 0, 0, 0, 0}}, {2, {1033, 0, 0, 0, 0, 0}}, {3, {1033, 0, 0, 0, 0, 0}}};
constexpr CQDModule::BitmapEntry kBitmaps1028[] = {{2, {1028, 0, 0, 0, 0, 0}}};

constexpr unsigned char kBytes[] = {0x00, 0xFF, 0x80};
constexpr CQDModule::DataFileEntry kData2057[] = {{1, {kBytes, 3}}};
constexpr CQDModule::DataFileEntry kData265[] = {{1, {kBytes, 265}}, {2, {kBytes, 265}}};
constexpr CQDModule::DataFileEntry kData1033[] = {{1, {kBytes, 1033}}, {2, {kBytes, 1033}}, {3, {kBytes, 1033}}};

constexpr Language kLanguages[] = {
    {1033, std::size(kStrings1033), kStrings1033, std::size(kBitmaps1033), kBitmaps1033, std::size(kData1033),
     kData1033},
    {3081, std::size(kStrings3081), kStrings3081, 0, nullptr, 0, nullptr},
    {2057, std::size(kStrings2057), kStrings2057, std::size(kBitmaps2057), kBitmaps2057, std::size(kData2057),
     kData2057},
    {1031, std::size(kStrings1031), kStrings1031, 0, nullptr, 0, nullptr},
    {265, std::size(kStrings265), kStrings265, std::size(kBitmaps265), kBitmaps265, std::size(kData265), kData265},
    {1028, 0, nullptr, std::size(kBitmaps1028), kBitmaps1028, 0, nullptr},
    {1031, 0, nullptr, 0, nullptr, 0, nullptr}, // never found: the first one is
};
constexpr CQDModule::ResourceData kData = {std::size(kLanguages), kLanguages};
constexpr CQDModule kModule(&kData);

CQDLocale Locale(const char* tag)
{
    CQDLocale locale;
    EXPECT_TRUE(locale.SetFromLocaleName(tag)) << tag;
    return locale;
}

const CQDLocale kUsEnglish;

std::string LoadText(const CQDModule& module, const CQDLocale& locale, unsigned int id)
{
    std::string text = "before";
    module.LoadResourceString(locale, id, text);
    return text;
}

std::string FormatText(const CQDModule& module, const CQDLocale& locale, unsigned int id)
{
    std::string text = "before";
    module.FormatResourceString(locale, text, id);
    return text;
}

int FormatWithVA(char* buffer, unsigned int size, unsigned int id, ...)
{
    va_list args;
    va_start(args, id);
    const int result = kModule.FormatResourceStringVA(kUsEnglish, buffer, size, id, args);
    va_end(args);
    return result;
}

// The fields of bitmap `id`, or "none".
std::string Bitmap(const char* tag, unsigned int id)
{
    const CQDModule::BitmapEntry* entry = kModule.FindResourceBitmap(Locale(tag), id);
    return entry != nullptr ? std::to_string(entry->m_Bitmap.m_Width) : "none";
}

std::string DataFile(const char* tag, unsigned int id)
{
    const CQDModule::DataFileEntry* entry = kModule.FindResourceDataFile(Locale(tag), id);
    return entry != nullptr ? std::to_string(entry->m_Data.m_Size) : "none";
}

std::string String(const char* tag, unsigned int id)
{
    const CQDModule::StringEntry* entry = kModule.FindResourceString(Locale(tag), id);
    return entry != nullptr ? entry->m_pText : "none";
}

} // namespace

TEST(CQDModuleTables, FindResourceLanguageTakesTheFirstEqualId)
{
    EXPECT_EQ(kData.FindResourceLanguage(1033), &kLanguages[0]);
    EXPECT_EQ(kData.FindResourceLanguage(1031), &kLanguages[3]);
    EXPECT_EQ(kData.FindResourceLanguage(1028), &kLanguages[5]);
    EXPECT_EQ(kModule.FindResourceLanguage(2057), &kLanguages[2]);
}

TEST(CQDModuleTables, FindResourceLanguageOfAnAbsentIdIsNull)
{
    constexpr CQDModule::ResourceData kEmpty = {0, nullptr};

    EXPECT_EQ(kData.FindResourceLanguage(1036), nullptr);
    EXPECT_EQ(kData.FindResourceLanguage(0), nullptr);
    EXPECT_EQ(kData.FindResourceLanguage(-1), nullptr);
    EXPECT_EQ(kModule.FindResourceLanguage(9), nullptr);
    EXPECT_EQ(kEmpty.FindResourceLanguage(1033), nullptr);
}

TEST(CQDModuleTables, FindStringFindsEveryEntryOfTablesOfAnyLength)
{
    for (unsigned int count = 0; count <= 9; ++count) {
        std::vector<CQDModule::StringEntry> entries;
        for (unsigned int i = 0; i < count; ++i)
            entries.push_back({10 * (i + 1), "text"});
        const Language language = {1033, count, entries.data(), 0, nullptr, 0, nullptr};

        for (unsigned int id = 0; id <= 10 * count + 10; ++id) {
            SCOPED_TRACE(testing::Message() << count << " entries, id " << id);
            const bool present = id % 10 == 0 && id != 0 && id <= 10 * count;
            EXPECT_EQ(language.FindString(id), present ? &entries[id / 10 - 1] : nullptr);
        }
    }
}

TEST(CQDModuleTables, FindWorksUpToTheLargestId)
{
    constexpr CQDModule::StringEntry strings[] = {{0, "a"}, {0x7FFFFFFF, "b"}, {0x80000000, "c"}, {0xFFFFFFFF, "d"}};
    constexpr CQDModule::BitmapEntry bitmaps[] = {{0, {}}, {0x80000000, {}}, {0xFFFFFFFF, {}}};
    constexpr CQDModule::DataFileEntry files[] = {{0, {}}, {0x80000000, {}}, {0xFFFFFFFF, {}}};
    const Language language = {1033, 4, strings, 3, bitmaps, 3, files};

    EXPECT_EQ(language.FindString(0), &strings[0]);
    EXPECT_EQ(language.FindString(0x7FFFFFFF), &strings[1]);
    EXPECT_EQ(language.FindString(0x80000000), &strings[2]);
    EXPECT_EQ(language.FindString(0xFFFFFFFF), &strings[3]);
    EXPECT_EQ(language.FindString(1), nullptr);
    EXPECT_EQ(language.FindBitmap(0x80000000), &bitmaps[1]);
    EXPECT_EQ(language.FindBitmap(0xFFFFFFFE), nullptr);
    EXPECT_EQ(language.FindDataFile(0xFFFFFFFF), &files[2]);
    EXPECT_EQ(language.FindDataFile(1), nullptr);
}

TEST(CQDModuleTables, EmptyLanguageFindsNothing)
{
    const Language language = {1033, 0, nullptr, 0, nullptr, 0, nullptr};

    EXPECT_EQ(language.FindString(0), nullptr);
    EXPECT_EQ(language.FindBitmap(0), nullptr);
    EXPECT_EQ(language.FindDataFile(0), nullptr);
}

TEST(CQDModule, StringsFallBackToTheDerivedLanguageAndToUsEnglish)
{
    static const struct
    {
        const char* m_Tag;
        unsigned int m_Id;
        const char* m_Language;
    } kCases[] = {
        {"en-GB", 1, "2057"},  // its own
        {"en-GB", 2, "265"},   // 2057 has no 2
        {"en-GB", 3, "1033"},  // 265 has no 3
        {"en-GB", 4, "none"},  // neither has 1033
        {"en-US", 1, "1033"},  // its own
        {"en-US", 4, "none"},  // 1031 alone has a 4
        {"en-AU", 1, "265"},   // 3081 has no 1
        {"en-AU", 2, "3081"},  // its own
        {"en-CA", 1, "265"},   // 4105 does not exist
        {"de-DE", 1, "1031"},  // its own
        {"de-DE", 2, "1033"},  // 1031 has no 2, 263 does not exist
        {"de-DE", 4, "1031"},  // its own; no other has a 4
        {"de-AT", 4, "none"},  // 3079 does not fall back to 1031
        {"fr-FR", 1, "1033"},  // 1036 and 268 do not exist
        {"zh-TW", 2, "1033"},  // 1028 has no strings, 260 does not exist
        {"fr-FR", 99, "none"}, // no language has a 99
        {"en-GB", 0, "none"},  // below every id
    };

    for (const auto& c : kCases) {
        SCOPED_TRACE(testing::Message() << c.m_Tag << " id " << c.m_Id);

        EXPECT_EQ(String(c.m_Tag, c.m_Id), c.m_Language);
    }
}

TEST(CQDModule, StringsAndBitmapsFallBackDifferently)
{
    // 2057 has no 2; strings and data files go on in 265, bitmaps in 1033.
    EXPECT_EQ(String("en-GB", 2), "265");
    EXPECT_EQ(DataFile("en-GB", 2), "265");
    EXPECT_EQ(Bitmap("en-GB", 2), "1033");
}

TEST(CQDModule, BitmapsFallBackToTheDefaultFormAndToUsEnglish)
{
    static const struct
    {
        const char* m_Tag;
        unsigned int m_Id;
        const char* m_Language;
    } kCases[] = {
        {"en-GB", 1, "2057"}, {"en-GB", 3, "1033"}, {"en-AU", 2, "1033"}, {"zh-CN", 2, "1028"}, // 2052 to 1028
        {"zh-CN", 3, "1033"}, {"zh-TW", 2, "1028"}, {"de-AT", 1, "1033"}, {"en-GB", 4, "none"}, {"de-DE", 0, "none"},
    };

    for (const auto& c : kCases) {
        SCOPED_TRACE(testing::Message() << c.m_Tag << " id " << c.m_Id);

        EXPECT_EQ(Bitmap(c.m_Tag, c.m_Id), c.m_Language);
    }
}

TEST(CQDModule, DataFilesFallBackLikeStrings)
{
    EXPECT_EQ(DataFile("en-GB", 1), "3");
    EXPECT_EQ(DataFile("en-GB", 3), "1033");
    EXPECT_EQ(DataFile("en-CA", 1), "265");
    EXPECT_EQ(DataFile("de-DE", 2), "1033");
    EXPECT_EQ(DataFile("de-DE", 4), "none");
}

// 0x0C04: (0x04 | 0x100) has the texts and files, (0x004 | 0x400) the bitmaps, and neither gives the other's.
TEST(CQDModule, ChineseOfHongKongFallsBackTo260And1028)
{
    static constexpr CQDModule::StringEntry kTexts[] = {{1, "260"}};
    static constexpr CQDModule::StringEntry kOtherTexts[] = {{2, "1028"}};
    static constexpr CQDModule::BitmapEntry kBitmaps[] = {{1, {1, 2, 3, 4, 5, 6}}};
    static constexpr CQDModule::BitmapEntry kOtherBitmaps[] = {{2, {1, 2, 3, 4, 5, 6}}};
    static constexpr CQDModule::DataFileEntry kFiles[] = {{1, {kBytes, 3}}};
    static constexpr CQDModule::DataFileEntry kOtherFiles[] = {{2, {kBytes, 3}}};
    static constexpr Language kChinese[] = {{260, 1, kTexts, 1, kOtherBitmaps, 1, kFiles},
                                            {1028, 1, kOtherTexts, 1, kBitmaps, 1, kOtherFiles}};
    static constexpr CQDModule::ResourceData kChineseData = {2, kChinese};
    const CQDModule module(&kChineseData);
    const CQDLocale locale = Locale("zh-HK");

    EXPECT_EQ(module.FindResourceString(locale, 1), &kTexts[0]);
    EXPECT_EQ(module.FindResourceBitmap(locale, 1), &kBitmaps[0]);
    EXPECT_EQ(module.FindResourceDataFile(locale, 1), &kFiles[0]);
    EXPECT_EQ(module.FindResourceString(locale, 2), nullptr);
    EXPECT_EQ(module.FindResourceBitmap(locale, 2), nullptr);
    EXPECT_EQ(module.FindResourceDataFile(locale, 2), nullptr);
}

TEST(CQDModule, ModuleWithoutUsEnglishFindsItsLanguageAlone)
{
    static constexpr CQDModule::StringEntry kTexts[] = {{1, "eins"}};
    static constexpr Language kGerman[] = {{1031, 1, kTexts, 0, nullptr, 0, nullptr}};
    static constexpr CQDModule::ResourceData kGermanData = {1, kGerman};
    const CQDModule module(&kGermanData);

    EXPECT_EQ(LoadText(module, Locale("de-DE"), 1), "eins");
    EXPECT_EQ(LoadText(module, Locale("de"), 1), "eins");
    EXPECT_EQ(LoadText(module, kUsEnglish, 1), "");
}

TEST(CQDModule, WithoutDataNothingIsFound)
{
    static constexpr QD_BITMAP kBitmap = {1, 2, 3, 4, 5, 6};
    const CQDModule modules[] = {CQDModule(), CQDModule(nullptr)};
    for (const CQDModule& module : modules) {
        char buffer[8] = "before";
        unsigned short units[2] = {7, 8};
        QD_BITMAP bitmap = kBitmap;
        QD_DATA data = {kBytes, 3};

        EXPECT_EQ(module.FindResourceLanguage(1033), nullptr);
        EXPECT_EQ(module.FindResourceString(kUsEnglish, 50), nullptr);
        EXPECT_EQ(module.FindResourceBitmap(kUsEnglish, 50), nullptr);
        EXPECT_EQ(module.FindResourceDataFile(kUsEnglish, 50), nullptr);
        EXPECT_EQ(module.LoadResourceString(kUsEnglish, 50, buffer, sizeof buffer), 0u);
        EXPECT_EQ(module.LoadResourceStringToVMString(kUsEnglish, 50, units, 2), 0u);
        EXPECT_FALSE(module.LoadResourceBitmap(kUsEnglish, 50, bitmap));
        EXPECT_FALSE(module.LoadResourceDataFile(kUsEnglish, 50, data));
        EXPECT_STREQ(buffer, "before");
        EXPECT_EQ(std::vector<unsigned short>(units, units + 2), std::vector<unsigned short>({7, 8}));
        EXPECT_EQ(std::memcmp(&bitmap, &kBitmap, sizeof bitmap), 0);
        EXPECT_TRUE(data.m_pData == kBytes && data.m_Size == 3);
        EXPECT_EQ(LoadText(module, kUsEnglish, 50), "");
        EXPECT_EQ(FormatText(module, kUsEnglish, 50), "Resource string 50 not found!");
    }
}

TEST(CQDModule, LoadResourceStringCopiesTheTextAndReturnsItsLength)
{
    char buffer[64];

    const unsigned int length = kModule.LoadResourceString(kUsEnglish, 10, buffer, sizeof buffer);

    EXPECT_EQ(length, 15u);
    EXPECT_STREQ(buffer, "%s has %d links");
}

TEST(CQDModule, LoadResourceStringReturnsTheFullLengthOfATextThatItCuts)
{
    static const struct
    {
        unsigned int m_Size;
        const char* m_Text;
    } kCases[] = {
        {10, "Command o"},
        {1, ""},
        {2, "C"},
        {45, "Command option '%s', missing parameter value"},
        {46, "Command option '%s', missing parameter value."},
    };

    for (const auto& c : kCases) {
        SCOPED_TRACE(c.m_Size);
        char buffer[64];
        std::memset(buffer, '#', sizeof buffer);

        EXPECT_EQ(g_QDPlatformModule.LoadResourceString(kUsEnglish, 52, buffer, c.m_Size), 45u);

        EXPECT_STREQ(buffer, c.m_Text);
        EXPECT_EQ(buffer[c.m_Size], '#');
    }
}

TEST(CQDModule, LoadResourceStringOfSizeZeroWritesNothing)
{
    char buffer[] = "##";

    EXPECT_EQ(g_QDPlatformModule.LoadResourceString(kUsEnglish, 52, buffer + 1, 0), 45u);

    EXPECT_STREQ(buffer, "##");
}

TEST(CQDModule, LoadResourceStringOfAnAbsentIdLeavesTheBuffer)
{
    char buffer[8] = "before";

    EXPECT_EQ(kModule.LoadResourceString(kUsEnglish, 99, buffer, sizeof buffer), 0u);

    EXPECT_STREQ(buffer, "before");
}

TEST(CQDModule, LoadResourceStringOfAnEmptyTextWritesItAndReturnsZero)
{
    char buffer[8] = "before";

    EXPECT_EQ(kModule.LoadResourceString(kUsEnglish, 5, buffer, sizeof buffer), 0u);

    EXPECT_STREQ(buffer, "");
}

TEST(CQDModule, LoadResourceStringSetsAString)
{
    EXPECT_EQ(LoadText(kModule, kUsEnglish, 10), "%s has %d links");
    EXPECT_EQ(LoadText(kModule, kUsEnglish, 13).size(), 262u);
    EXPECT_EQ(LoadText(kModule, kUsEnglish, 5), "");
    EXPECT_EQ(LoadText(kModule, kUsEnglish, 99), "");
}

TEST(CQDModule, LoadResourceStringToVMStringConvertsToUtf16WithoutTerminator)
{
    unsigned short units[16];
    std::fill(std::begin(units), std::end(units), static_cast<unsigned short>(0xEEEE));

    const unsigned int count = kModule.LoadResourceStringToVMString(kUsEnglish, 11, units, 16);

    const std::vector<unsigned short> expected = {'g', 'r', 0xFC, 0xDF, ' ', 0xD83D, 0xDE00, 0xEEEE};
    EXPECT_EQ(count, 7u);
    EXPECT_EQ(std::vector<unsigned short>(units, units + 8), expected);
}

TEST(CQDModule, LoadResourceStringToVMStringWritesNoHalfCodePoint)
{
    unsigned short units[16];
    std::fill(std::begin(units), std::end(units), static_cast<unsigned short>(0xEEEE));

    EXPECT_EQ(kModule.LoadResourceStringToVMString(kUsEnglish, 11, units, 6), 5u);

    EXPECT_EQ(units[4], ' ');
    EXPECT_EQ(units[5], 0xEEEE);
    EXPECT_EQ(kModule.LoadResourceStringToVMString(kUsEnglish, 11, units, 0), 0u);
}

TEST(CQDModule, LoadResourceStringToVMStringOfAnAbsentIdLeavesTheBuffer)
{
    unsigned short units[2] = {7, 8};

    EXPECT_EQ(kModule.LoadResourceStringToVMString(kUsEnglish, 99, units, 2), 0u);

    EXPECT_EQ(units[0], 7);
    EXPECT_EQ(units[1], 8);
}

TEST(CQDModule, FormatResourceStringFormatsTheArguments)
{
    char buffer[64];

    const int length = kModule.FormatResourceString(kUsEnglish, buffer, sizeof buffer, 10, "Station", 3);

    EXPECT_EQ(length, 19);
    EXPECT_STREQ(buffer, "Station has 3 links");
}

TEST(CQDModule, FormatResourceStringVAFormatsTheArguments)
{
    char buffer[64];

    EXPECT_EQ(FormatWithVA(buffer, sizeof buffer, 10, "Station", 3), 19);

    EXPECT_STREQ(buffer, "Station has 3 links");
}

TEST(CQDModule, FormatResourceStringEndsATextThatIsTooLongInFullStops)
{
    static const struct
    {
        unsigned int m_Size;
        const char* m_Text;
    } kCases[] = {{4, "..."}, {5, "S..."}, {19, "Station has 3 l..."}, {20, "Station has 3 links"}};

    for (const auto& c : kCases) {
        SCOPED_TRACE(c.m_Size);
        char buffer[64];
        std::memset(buffer, '#', sizeof buffer);

        const int length = kModule.FormatResourceString(kUsEnglish, buffer, c.m_Size, 10, "Station", 3);

        EXPECT_EQ(length, static_cast<int>(c.m_Size) - 1);
        EXPECT_STREQ(buffer, c.m_Text);
        EXPECT_EQ(buffer[c.m_Size], '#');
    }
}

TEST(CQDModule, FormatResourceStringWithNoRoomForFullStopsIsEmpty)
{
    for (unsigned int size = 0; size < 4; ++size) {
        SCOPED_TRACE(size);
        char buffer[8];
        std::memset(buffer, '#', sizeof buffer);

        EXPECT_EQ(kModule.FormatResourceString(kUsEnglish, buffer + 4, size, 10, "Station", 3), 0);

        EXPECT_EQ(std::string(buffer, sizeof buffer), "####" + std::string(size, '\0') + std::string(4 - size, '#'));
    }
}

TEST(CQDModule, FormatResourceStringWithNoRoomForFullStopsKeepsATextThatFits)
{
    static const struct
    {
        unsigned int m_Size;
        int m_Number;
        const char* m_Text;
    } kCases[] = {{1, 5, ""}, {2, 5, "5"}, {2, 50, ""}, {3, 50, "50"}, {3, 500, ""}};

    for (const auto& c : kCases) {
        SCOPED_TRACE(testing::Message() << c.m_Number << " in " << c.m_Size);
        char buffer[8];
        std::memset(buffer, '#', sizeof buffer);

        const int length = kModule.FormatResourceString(kUsEnglish, buffer, c.m_Size, 15, c.m_Number);

        EXPECT_EQ(length, static_cast<int>(std::strlen(c.m_Text)));
        EXPECT_STREQ(buffer, c.m_Text);
        EXPECT_EQ(buffer[c.m_Size], '#');
    }
}

TEST(CQDModule, FormatResourceStringOfAnAbsentIdWithNoRoomForFullStopsIsEmpty)
{
    char buffer[] = "before";

    EXPECT_EQ(kModule.FormatResourceString(kUsEnglish, buffer, 3, 99), 0);

    EXPECT_STREQ(buffer, "");
    EXPECT_STREQ(buffer + 3, "ore");
}

TEST(CQDModule, FormatResourceStringOfAnAbsentIdSaysSo)
{
    char buffer[64];

    EXPECT_EQ(g_QDPlatformModule.FormatResourceString(kUsEnglish, buffer, sizeof buffer, 99), 29);

    EXPECT_STREQ(buffer, "Resource string 99 not found!");
}

TEST(CQDModule, FormatResourceStringOfAnAbsentIdCutsItsTextWithFullStops)
{
    char buffer[20];

    EXPECT_EQ(g_QDPlatformModule.FormatResourceString(kUsEnglish, buffer, sizeof buffer, 4294967295u), 19);

    EXPECT_STREQ(buffer, "Resource string ...");
}

TEST(CQDModule, FormatResourceStringOfAnEmptyTextSaysThatItIsNotFound)
{
    EXPECT_EQ(FormatText(kModule, kUsEnglish, 5), "Resource string 5 not found!");
}

TEST(CQDModule, FormatResourceStringUsesTheLanguageOfTheLocale)
{
    EXPECT_EQ(FormatText(kModule, Locale("de-DE"), 1), "1031");
    EXPECT_EQ(FormatText(kModule, Locale("en-GB"), 2), "265");
}

TEST(CQDModule, FormatResourceStringSetsAString)
{
    std::string text = "before";

    kModule.FormatResourceString(kUsEnglish, text, 10, "Station", 3);

    EXPECT_EQ(text, "Station has 3 links");
}

TEST(CQDModule, FormatResourceStringSetsAStringOf255BytesAtMost)
{
    std::string text;

    kModule.FormatResourceString(kUsEnglish, text, 10, std::string(243, 'x').c_str(), 3);
    EXPECT_EQ(text, std::string(243, 'x') + " has 3 links");

    kModule.FormatResourceString(kUsEnglish, text, 10, std::string(244, 'x').c_str(), 3);
    EXPECT_EQ(text, std::string(244, 'x') + " has 3 l...");
}

TEST(CQDModule, FormatResourceStringUses255BytesOfTheTemplate)
{
    std::string letters;
    while (letters.size() < 253)
        letters += static_cast<char>('a' + letters.size() % 26);
    char buffer[512];

    // The template's "tuvwxyz" lies beyond its byte 255.
    EXPECT_EQ(kModule.FormatResourceString(kUsEnglish, buffer, sizeof buffer, 13, 7), 254);

    EXPECT_EQ(buffer, letters + "7");
}

TEST(CQDModule, FormatResourceStringReportsACharacterThatCannotBeEncoded)
{
    char buffer[64];
    const wchar_t text[] = {L'a', static_cast<wchar_t>(0x20AC), 0}; // not in the character set of the locale "C"

    EXPECT_EQ(kModule.FormatResourceString(kUsEnglish, buffer, sizeof buffer, 12, text), QDFormatEncodingError);
}

TEST(CQDModule, FormatResourceStringSurvivesACharacterThatCannotBeEncoded)
{
    std::string result = "before";
    const wchar_t text[] = {L'a', static_cast<wchar_t>(0x20AC), 0};

    kModule.FormatResourceString(kUsEnglish, result, 12, text);

    EXPECT_EQ(result, "x");
}

TEST(CQDModule, FormatResourceStringOfATemplateCutInAConversionLeavesNoOldByteInTheBuffer)
{
    char buffer[512];
    std::memset(buffer, '#', sizeof buffer);

    const int length = kModule.FormatResourceString(kUsEnglish, buffer, sizeof buffer, 14, 7);

    EXPECT_EQ(length, 511);
    EXPECT_EQ(std::string(buffer, sizeof buffer),
              kCutInAConversion + std::string(508 - kCutInAConversion.size(), '\0') + std::string("...", 4));
}

TEST(CQDModule, FormatResourceStringOfATemplateCutInAConversionSetsWhatWasFormattedBeforeIt)
{
    std::string text = "before";

    kModule.FormatResourceString(kUsEnglish, text, 14, 7);

    EXPECT_EQ(text, kCutInAConversion);
}

TEST(CQDModule, FormatResourceStringKeepsTheNulsOfACharacter)
{
    std::string text;

    kModule.FormatResourceString(kUsEnglish, text, 16, '\0', std::string(300, 'y').c_str());

    EXPECT_EQ(text, std::string("x\0", 2) + std::string(250, 'y') + "...");
}

TEST(CQDModule, LoadResourceBitmapCopiesTheSixFields)
{
    QD_BITMAP bitmap = {};

    EXPECT_TRUE(kModule.LoadResourceBitmap(Locale("en-GB"), 1, bitmap));

    EXPECT_EQ(bitmap.m_Width, 2057u);
    EXPECT_EQ(bitmap.m_Height, 2u);
    EXPECT_EQ(bitmap.m_Stride, 3u);
    EXPECT_EQ(bitmap.m_BitsPerPixel, 4u);
    EXPECT_EQ(bitmap.m_DataOffset, 5u);
    EXPECT_EQ(bitmap.m_DataSize, 6u);
}

TEST(CQDModule, LoadResourceBitmapOfAnAbsentIdLeavesTheStructure)
{
    QD_BITMAP bitmap = {9, 9, 9, 9, 9, 9};

    EXPECT_FALSE(kModule.LoadResourceBitmap(kUsEnglish, 99, bitmap));

    EXPECT_EQ(bitmap.m_Width, 9u);
    EXPECT_EQ(bitmap.m_DataSize, 9u);
}

TEST(CQDModule, LoadResourceDataFileCopiesPointerAndSize)
{
    QD_DATA data = {};

    EXPECT_TRUE(kModule.LoadResourceDataFile(Locale("en-GB"), 1, data));

    EXPECT_EQ(data.m_pData, kBytes);
    EXPECT_EQ(data.m_Size, 3u);
}

TEST(CQDModule, LoadResourceDataFileOfAnAbsentIdLeavesTheStructure)
{
    QD_DATA data = {kBytes, 9};

    EXPECT_FALSE(kModule.LoadResourceDataFile(kUsEnglish, 99, data));

    EXPECT_EQ(data.m_pData, kBytes);
    EXPECT_EQ(data.m_Size, 9u);
}

TEST(QDPlatformModule, HasFourTextsInUsEnglishAlone)
{
    const Language* language = g_QDPlatformModule.FindResourceLanguage(1033);
    ASSERT_NE(language, nullptr);

    EXPECT_EQ(language->m_StringCount, 4u);
    EXPECT_EQ(language->m_BitmapCount, 0u);
    EXPECT_EQ(language->m_DataFileCount, 0u);
    for (int id = 0; id <= 0xFFFF; ++id) {
        ASSERT_EQ(g_QDPlatformModule.FindResourceLanguage(id), id == 1033 ? language : nullptr) << id;
    }
}

TEST(QDPlatformModule, HasTheTextsOfTheOptionParser)
{
    EXPECT_EQ(LoadText(g_QDPlatformModule, kUsEnglish, 49), "");
    EXPECT_EQ(LoadText(g_QDPlatformModule, kUsEnglish, 50), "Unexpected option '%s'.");
    EXPECT_EQ(LoadText(g_QDPlatformModule, kUsEnglish, 51), "Invalid option '%s'.");
    EXPECT_EQ(LoadText(g_QDPlatformModule, kUsEnglish, 52), "Command option '%s', missing parameter value.");
    EXPECT_EQ(LoadText(g_QDPlatformModule, kUsEnglish, 53), "Invalid integer '%s'.");
    EXPECT_EQ(LoadText(g_QDPlatformModule, kUsEnglish, 54), "");
}

TEST(QDPlatformModule, AnswersEveryLanguageInUsEnglish)
{
    for (int i = 0; i < CQDLocale::g_LanguagesLength; ++i) {
        const char* tag = CQDLocale::g_Languages[i].m_pTag;
        EXPECT_EQ(LoadText(g_QDPlatformModule, Locale(tag), 50), "Unexpected option '%s'.") << tag;
    }
}

TEST(QDPlatformModule, FormatsAnOption)
{
    std::string text;

    g_QDPlatformModule.FormatResourceString(Locale("de-DE"), text, 51, "--prxy");

    EXPECT_EQ(text, "Invalid option '--prxy'.");
}

TEST(QDVersionInfo, NamesTheLinkedLibrariesInOrder)
{
    static const struct
    {
        const char* m_Name;
        const char* m_Version;
        const char* m_Owner; // part of its copyright line
    } kCases[] = {
        {"OpenSSL", "OpenSSL 1.1.1l  24 Aug 2021", "The OpenSSL Project"},
        {"Curl", "Curl 7.73.0", "Daniel Stenberg"},
        {"zlib", "zlib 1.2.11", "Jean-loup Gailly and Mark Adler"},
    };

    ASSERT_EQ(g_VersionInfoCount, 3);

    for (int i = 0; i < g_VersionInfoCount; ++i) {
        SCOPED_TRACE(kCases[i].m_Name);

        EXPECT_STREQ(g_VersionInfo[i].m_Name, kCases[i].m_Name);
        EXPECT_STREQ(g_VersionInfo[i].m_Version, kCases[i].m_Version);
        EXPECT_EQ(std::strncmp(g_VersionInfo[i].m_Copyright, "Copyright ", 10), 0);
        EXPECT_NE(std::strstr(g_VersionInfo[i].m_Copyright, kCases[i].m_Owner), nullptr);
    }
}

TEST(QDVersionInfo, TextsArePaddedWithNuls)
{
    const auto isPadded = [](const char* text, std::size_t size) {
        const std::size_t length = strnlen(text, size);
        return length < size && std::string(text + length, size - length) == std::string(size - length, '\0');
    };
    for (int i = 0; i < g_VersionInfoCount; ++i) {
        SCOPED_TRACE(i);

        EXPECT_TRUE(isPadded(g_VersionInfo[i].m_Name, sizeof g_VersionInfo[i].m_Name));
        EXPECT_TRUE(isPadded(g_VersionInfo[i].m_Version, sizeof g_VersionInfo[i].m_Version));
        EXPECT_TRUE(isPadded(g_VersionInfo[i].m_Copyright, sizeof g_VersionInfo[i].m_Copyright));
    }
}
