#include <QDPlatform/QDSecureWString.h>

#include "ArrayWatch.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

static_assert(!std::is_polymorphic_v<CQDSecureWString>);
static_assert(sizeof(CQDSecureWString) == sizeof(void*) + 2 * 4);

namespace
{

using Sizes = std::vector<std::size_t>;

std::string Text(const CQDSecureWString& secret)
{
    EXPECT_EQ(secret.Get()[secret.Length()], '\0');
    return std::string(secret.Get(), secret.Length());
}

// The private fields, in order.
struct Fields
{
    const char* m_pData;
    unsigned int m_Length;
    unsigned int m_Capacity;
};

Fields GetFields(const CQDSecureWString& secret)
{
    static_assert(sizeof(Fields) == sizeof secret);
    Fields fields;
    std::memcpy(&fields, static_cast<const void*>(&secret), sizeof fields);
    return fields;
}

} // namespace

TEST(CQDSecureWString, StartsEmptyAndAllocatesNothing)
{
    ArrayWatch watch;

    const CQDSecureWString secret;

    EXPECT_STREQ(secret.Get(), "");
    EXPECT_EQ(secret.Length(), 0u);
    EXPECT_EQ(GetFields(secret).m_pData, nullptr);
    EXPECT_EQ(GetFields(secret).m_Capacity, 0u);
    EXPECT_TRUE(watch.GetAllocatedSizes().empty());
}

TEST(CQDSecureWString, FieldsAreDataLengthCapacity)
{
    const CQDSecureWString secret("abc");

    EXPECT_EQ(GetFields(secret).m_pData, secret.Get());
    EXPECT_EQ(GetFields(secret).m_Length, 3u);
    EXPECT_EQ(GetFields(secret).m_Capacity, 4u);
}

TEST(CQDSecureWString, ConstructsFromAStringWithNuls)
{
    const std::string text("a\0b", 3);

    const CQDSecureWString secret(text);

    EXPECT_EQ(Text(secret), text);
}

TEST(CQDSecureWString, ConstructsFromCharactersUpToTheTerminator)
{
    const CQDSecureWString secret("sesame");

    EXPECT_STREQ(secret.Get(), "sesame");
    EXPECT_EQ(secret.Length(), 6u);
}

TEST(CQDSecureWString, ConstructsFromAnEmptyTextWithoutAllocation)
{
    ArrayWatch watch;

    const CQDSecureWString secret("");

    EXPECT_STREQ(secret.Get(), "");
    EXPECT_TRUE(watch.GetAllocatedSizes().empty());
}

TEST(CQDSecureWString, CopyHasAnArrayOfItsOwn)
{
    const CQDSecureWString original(std::string("a\0b", 3));

    const CQDSecureWString copy(original);

    EXPECT_EQ(Text(copy), std::string("a\0b", 3));
    EXPECT_NE(copy.Get(), original.Get());
}

TEST(CQDSecureWString, CopyOfAnAppendedTextHasOneByteMoreThanTheText)
{
    CQDSecureWString original;
    original.Append('a');

    const CQDSecureWString copy(original);

    EXPECT_EQ(Text(copy), "a");
    EXPECT_EQ(GetFields(copy).m_Capacity, 2u);
}

TEST(CQDSecureWString, CopyOfAnEmptyObjectIsEmpty)
{
    const CQDSecureWString original;

    const CQDSecureWString copy(original);

    EXPECT_STREQ(copy.Get(), "");
    EXPECT_EQ(copy.Length(), 0u);
}

TEST(CQDSecureWString, CopyOfAnEmptyTextLeavesTheArrayOfOneByteBehind)
{
    CQDSecureWString original;
    original.SetFromUtf8(nullptr, 0);

    const CQDSecureWString copy(original);

    EXPECT_EQ(GetFields(original).m_Capacity, 1u);
    EXPECT_EQ(GetFields(copy).m_pData, nullptr);
    EXPECT_EQ(GetFields(copy).m_Length, 0u);
    EXPECT_EQ(GetFields(copy).m_Capacity, 0u);
}

TEST(CQDSecureWString, AssignsAnother)
{
    CQDSecureWString secret("old");
    const CQDSecureWString other("sesame");

    CQDSecureWString& result = (secret = other);

    EXPECT_EQ(&result, &secret);
    EXPECT_EQ(Text(secret), "sesame");
    EXPECT_NE(secret.Get(), other.Get());
}

TEST(CQDSecureWString, AssignsStringsAndCharacters)
{
    CQDSecureWString secret("old");

    secret = std::string("a\0b", 3);
    EXPECT_EQ(Text(secret), std::string("a\0b", 3));

    secret = "sesame";
    EXPECT_EQ(Text(secret), "sesame");
}

TEST(CQDSecureWString, SelfAssignmentDoesNothing)
{
    CQDSecureWString secret("sesame");
    const char* data = secret.Get();
    CQDSecureWString& same = secret;

    secret = same;

    EXPECT_EQ(secret.Get(), data);
    EXPECT_EQ(Text(secret), "sesame");
}

TEST(CQDSecureWString, SetTakesAsManyBytesAsToldAndTerminatesThem)
{
    CQDSecureWString secret;

    secret.Set("sesame", 3);

    EXPECT_STREQ(secret.Get(), "ses");
    EXPECT_EQ(secret.Length(), 3u);
    EXPECT_EQ(GetFields(secret).m_Capacity, 4u);
}

TEST(CQDSecureWString, SetOfNothingHoldsNoArray)
{
    CQDSecureWString secret("old");

    secret.Set(nullptr, 0);

    EXPECT_STREQ(secret.Get(), "");
    EXPECT_EQ(secret.Length(), 0u);
    EXPECT_EQ(GetFields(secret).m_pData, nullptr);
    EXPECT_EQ(GetFields(secret).m_Capacity, 0u);
}

TEST(CQDSecureWString, SetTakesPartOfItsOwnText)
{
    CQDSecureWString secret("open sesame");

    secret.Set(secret.Get() + 5, 6);

    EXPECT_EQ(Text(secret), "sesame");
}

TEST(CQDSecureWString, SetFromUtf8CopiesTheBytesUnseen)
{
    static const unsigned char kBytes[] = {'a', 0xFF, 0x00, 0xC3, 0xED, 0xA0, 0x80};
    CQDSecureWString secret("old");

    EXPECT_EQ(secret.SetFromUtf8(kBytes, sizeof kBytes), 7u);

    EXPECT_EQ(Text(secret), std::string("a\xFF\0\xC3\xED\xA0\x80", 7));
    EXPECT_EQ(GetFields(secret).m_Capacity, 8u);
}

TEST(CQDSecureWString, SetFromUtf16Converts)
{
    static const unsigned short kUnits[] = {'a', 0xE9, 0x20AC, 0xD83D, 0xDE00};
    CQDSecureWString secret("old");

    EXPECT_EQ(secret.SetFromUtf16(kUnits, 5), 10u);

    EXPECT_EQ(Text(secret), "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
    EXPECT_EQ(GetFields(secret).m_Capacity, 11u);
}

TEST(CQDSecureWString, SetFromUtf16EncodesALoneSurrogateLikeAnyOtherValue)
{
    static const unsigned short kUnits[] = {0xD800, 'a'};
    CQDSecureWString secret;

    EXPECT_EQ(secret.SetFromUtf16(kUnits, 2), 4u);

    EXPECT_EQ(Text(secret), "\xED\xA0\x80\x61");
}

TEST(CQDSecureWString, SetFromNothingKeepsAnArrayOfOneByte)
{
    CQDSecureWString fromUtf8("old");
    CQDSecureWString fromUtf16("old");

    EXPECT_EQ(fromUtf8.SetFromUtf8(nullptr, 0), 0u);
    EXPECT_EQ(fromUtf16.SetFromUtf16(nullptr, 0), 0u);

    EXPECT_STREQ(fromUtf8.Get(), "");
    EXPECT_EQ(GetFields(fromUtf8).m_Capacity, 1u);
    EXPECT_STREQ(fromUtf16.Get(), "");
    EXPECT_EQ(GetFields(fromUtf16).m_Capacity, 1u);
}

TEST(CQDSecureWString, ClearOfAnEmptyTextLeavesTheArrayOfOneByte)
{
    ArrayWatch watch;
    CQDSecureWString secret;
    secret.SetFromUtf8(nullptr, 0);
    const char* data = secret.Get();

    secret.Clear();

    EXPECT_EQ(secret.Get(), data);
    EXPECT_EQ(GetFields(secret).m_Capacity, 1u);
    EXPECT_TRUE(watch.GetReleased().empty());
}

TEST(CQDSecureWString, AppendOutgrowsTheArrayOfOneByte)
{
    ArrayWatch watch;
    CQDSecureWString secret;
    secret.SetFromUtf8(nullptr, 0);

    secret.Append('a');

    EXPECT_EQ(Text(secret), "a");
    EXPECT_EQ(watch.GetAllocatedSizes(), Sizes({1, 65}));
    EXPECT_EQ(watch.GetReleased().size(), 1u);
}

TEST(CQDSecureWString, NoArrayIsLeftBehind)
{
    ArrayWatch watch;
    {
        CQDSecureWString secret("old");
        secret.SetFromUtf8(nullptr, 0);
        secret.SetFromUtf16(nullptr, 0);
        secret = "new";
        secret.SetFromUtf8(nullptr, 0);
    }
    EXPECT_EQ(watch.GetAllocatedSizes(), Sizes({4, 1, 1, 4, 1}));
    EXPECT_EQ(watch.GetReleased().size(), 5u);
}

TEST(CQDSecureWString, GetAsUtf8GivesTheCallerAnArrayOfTheTextAlone)
{
    const CQDSecureWString secret("ses\xC3\xA4me");
    unsigned char* out = nullptr;
    unsigned int length = 0;
    ArrayWatch watch;

    const unsigned int copied = secret.GetAsUtf8(out, length);
    const std::unique_ptr<unsigned char[]> owner(out);

    EXPECT_EQ(copied, 7u);
    ASSERT_EQ(length, 7u);
    EXPECT_EQ(std::memcmp(out, "ses\xC3\xA4me", 7), 0);
    EXPECT_EQ(watch.GetAllocatedSizes(), Sizes({7}));
}

TEST(CQDSecureWString, GetAsUtf8OfAnEmptyTextGivesAnEmptyArray)
{
    const CQDSecureWString secret;
    unsigned char* out = nullptr;
    unsigned int length = 99;

    const unsigned int copied = secret.GetAsUtf8(out, length);
    const std::unique_ptr<unsigned char[]> owner(out);

    EXPECT_EQ(copied, 0u);
    EXPECT_EQ(length, 0u);
    EXPECT_NE(out, nullptr);
}

TEST(CQDSecureWString, ClearEmptiesTheObject)
{
    CQDSecureWString secret("sesame");

    secret.Clear();

    EXPECT_STREQ(secret.Get(), "");
    EXPECT_EQ(secret.Length(), 0u);
    EXPECT_EQ(GetFields(secret).m_pData, nullptr);
    EXPECT_EQ(GetFields(secret).m_Capacity, 0u);
}

TEST(CQDSecureWString, ClearTwiceIsHarmless)
{
    ArrayWatch watch;
    CQDSecureWString secret("sesame");

    secret.Clear();
    secret.Clear();

    EXPECT_EQ(watch.GetReleased().size(), 1u);
}

TEST(CQDSecureWString, AppendAddsOneByteAndTerminatesTheText)
{
    CQDSecureWString secret("sesam");

    secret.Append('e');

    EXPECT_EQ(Text(secret), "sesame");
    EXPECT_EQ(GetFields(secret).m_Capacity, 70u);
}

TEST(CQDSecureWString, AppendTakesAnyByte)
{
    CQDSecureWString secret;

    secret.Append('\0');
    secret.Append(static_cast<char>(0xFF));

    EXPECT_EQ(Text(secret), std::string("\0\xFF", 2));
}

TEST(CQDSecureWString, AppendGrowsInStepsOf64Bytes)
{
    ArrayWatch watch;
    CQDSecureWString secret;
    std::string expected;

    for (int i = 0; i < 100; ++i) {
        const char c = static_cast<char>('!' + i % 90);
        secret.Append(c);
        expected += c;
    }

    EXPECT_EQ(Text(secret), expected);
    EXPECT_EQ(watch.GetAllocatedSizes(), Sizes({64, 128}));
}

TEST(CQDSecureWString, AppendFillsTheArrayToOneByteBelowItsEnd)
{
    CQDSecureWString secret;
    for (int i = 0; i < 63; ++i)
        secret.Append('a');
    const unsigned int before = GetFields(secret).m_Capacity;

    secret.Append('b');

    EXPECT_EQ(before, 64u);
    EXPECT_EQ(GetFields(secret).m_Capacity, 128u);
    EXPECT_EQ(Text(secret), std::string(63, 'a') + "b");
}

TEST(CQDSecureWString, CompareReturnsTheDifferenceOfTheFirstDifferentBytesOrTheOrderOfTheLengths)
{
    static const struct
    {
        const char* m_Own;
        const char* m_Other;
        int m_Result;
    } kCases[] = {
        {"", "", 0},         {"", "a", -1},     {"a", "", 1},        {"abc", "abc", 0}, {"ab", "abc", -1},
        {"abcd", "abc", 1},  {"abd", "abc", 1}, {"abc", "abz", -23}, {"b", "abc", 1},   {"\xFF", "a", 158},
        {"a", "\xFF", -158}, {"zb", "a", 25},   {"\x80", "\x7F", 1},
    };

    for (const auto& c : kCases) {
        SCOPED_TRACE(std::string(c.m_Own) + " and " + c.m_Other);
        const CQDSecureWString secret(c.m_Own);

        EXPECT_EQ(secret.Compare(c.m_Other), c.m_Result);
        EXPECT_EQ(secret.Compare(CQDSecureWString(c.m_Other)), c.m_Result);
        EXPECT_EQ(secret.Compare(c.m_Other, static_cast<unsigned int>(std::strlen(c.m_Other))), c.m_Result);
    }
}

TEST(CQDSecureWString, CompareOfEmptyObjectsIsZero)
{
    EXPECT_EQ(CQDSecureWString().Compare(CQDSecureWString()), 0);
}

TEST(CQDSecureWString, CompareWithALengthGoesBeyondNuls)
{
    const CQDSecureWString secret(std::string("a\0c", 3));

    EXPECT_EQ(secret.Compare("a\0c", 3), 0);
    EXPECT_EQ(secret.Compare("a\0b", 3), 1);
    EXPECT_EQ(secret.Compare("a\0cd", 2), 1);
    EXPECT_EQ(secret.Compare("a"), 1);
    EXPECT_EQ(secret.Compare(CQDSecureWString(std::string("a\0d", 3))), -1);
}

TEST(CQDSecureWString, FailedAllocationThrowsAndKeepsTheText)
{
    static const struct
    {
        const char* m_Name;
        void (*m_Store)(CQDSecureWString& secret);
    } kCases[] = {
        {"Set", [](CQDSecureWString& secret) { secret.Set("new", 3); }},
        {"SetFromUtf8",
         [](CQDSecureWString& secret) {
             const unsigned char bytes[] = {'n'};
             secret.SetFromUtf8(bytes, 1);
         }},
        {"SetFromUtf16",
         [](CQDSecureWString& secret) {
             const unsigned short units[] = {'n'};
             secret.SetFromUtf16(units, 1);
         }},
        {"Append", [](CQDSecureWString& secret) { secret.Append('n'); }},
    };

    for (const auto& c : kCases) {
        SCOPED_TRACE(c.m_Name);
        ArrayWatch watch;
        CQDSecureWString secret("sesame");
        watch.FailNextAllocation();

        EXPECT_THROW(c.m_Store(secret), std::bad_alloc);

        EXPECT_EQ(Text(secret), "sesame");
    }
}

TEST(CQDSecureWString, GetAsUtf8ThatFailsChangesNeitherResult)
{
    const CQDSecureWString secret("sesame");
    unsigned char* out = nullptr;
    unsigned int length = 99;
    ArrayWatch watch;
    watch.FailNextAllocation();

    EXPECT_THROW(secret.GetAsUtf8(out, length), std::bad_alloc);

    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(length, 99u);
}

TEST(CQDSecureWString, LengthThatNoArrayCanHoldThrowsAndKeepsTheText)
{
    CQDSecureWString secret("sesame");

    EXPECT_THROW(secret.Set("a", 0xFFFFFFFF), std::bad_alloc);

    EXPECT_EQ(Text(secret), "sesame");
}
