// What CQDSecureWString leaves in the memory that it releases: nothing but zeros, whatever the compiler optimises.
//
// Compiled once against the library as it is built, and twice with the class's own source in this translation unit, at
// -O2 and at -O3 and with a class name of their own: there the compiler sees the whole life of an array, and may drop
// stores to it that nobody reads, or the whole array. Only clang does so here: with an ordinary memset in the class
// these tests fail under clang, and pass under g++ 12.
#include <QDPlatform/QDSecureWString.h>
#ifdef QD_TEST_WITH_SOURCE
#include "../QDPlatform/QDSecureWString.cpp"
#endif

#include "ArrayWatch.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

namespace
{

using Sizes = std::vector<std::size_t>;

} // namespace

#ifndef QD_TEST_WITH_SOURCE
TEST(ArrayWatch, SeesAnArrayThatIsReleasedWithItsContents)
{
    ArrayWatch watch;
    auto* array = new char[3];
    volatile char* bytes = array;
    bytes[0] = 0;
    bytes[1] = 0;
    bytes[2] = 1;

    delete[] array;

    ASSERT_EQ(watch.GetReleased().size(), 1u);
    EXPECT_EQ(watch.GetReleased()[0].m_Size, 3u);
    EXPECT_FALSE(watch.GetReleased()[0].m_AllZero);
}
#endif

TEST(CQDSecureWString, DestructorWipesTheWholeArray)
{
    ArrayWatch watch;
    {
        const CQDSecureWString secret("password");
    }
    EXPECT_EQ(WipedSizes(watch), Sizes({9}));
}

TEST(CQDSecureWString, ClearWipesTheWholeArray)
{
    ArrayWatch watch;
    CQDSecureWString secret("password");

    secret.Clear();

    EXPECT_EQ(WipedSizes(watch), Sizes({9}));
}

TEST(CQDSecureWString, ClearWipesTheRoomThatAppendKeeps)
{
    ArrayWatch watch;
    CQDSecureWString secret;
    for (const char c : std::string("password"))
        secret.Append(c);

    secret.Clear();

    EXPECT_EQ(WipedSizes(watch), Sizes({64}));
}

TEST(CQDSecureWString, AppendWipesEachArrayThatItOutgrows)
{
    ArrayWatch watch;
    CQDSecureWString secret;

    for (int i = 0; i < 200; ++i)
        secret.Append('p');

    EXPECT_EQ(WipedSizes(watch), Sizes({64, 128, 192}));
}

TEST(CQDSecureWString, AppendToACopiedTextWipesItsArray)
{
    ArrayWatch watch;
    CQDSecureWString secret("password");

    secret.Append('s');

    EXPECT_EQ(WipedSizes(watch), Sizes({9}));
}

TEST(CQDSecureWString, EachNewValueWipesTheOldOne)
{
    static const struct
    {
        const char* m_Name;
        void (*m_Store)(CQDSecureWString& secret);
    } kCases[] = {
        {"assignment of another", [](CQDSecureWString& secret) { secret = CQDSecureWString(std::string()); }},
        {"assignment of a std::string", [](CQDSecureWString& secret) { secret = std::string("new"); }},
        {"assignment of characters", [](CQDSecureWString& secret) { secret = "new"; }},
        {"Set", [](CQDSecureWString& secret) { secret.Set("new", 3); }},
        {"Set of nothing", [](CQDSecureWString& secret) { secret.Set("", 0); }},
        {"SetFromUtf8",
         [](CQDSecureWString& secret) {
             const unsigned char bytes[] = {'n', 'e', 'w'};
             secret.SetFromUtf8(bytes, 3);
         }},
        {"SetFromUtf16",
         [](CQDSecureWString& secret) {
             const unsigned short units[] = {'n', 'e', 'w'};
             secret.SetFromUtf16(units, 3);
         }},
    };

    for (const auto& c : kCases) {
        SCOPED_TRACE(c.m_Name);
        ArrayWatch watch;
        CQDSecureWString secret("password");

        c.m_Store(secret);

        EXPECT_EQ(WipedSizes(watch), Sizes({9}));
    }
}

TEST(CQDSecureWString, CopyAssignmentWipesTheOldValueAndBothAreWipedAtTheEnd)
{
    ArrayWatch watch;
    {
        CQDSecureWString secret("password");
        const CQDSecureWString other("secret");

        secret = other;

        EXPECT_EQ(WipedSizes(watch), Sizes({9}));
    }
    EXPECT_EQ(WipedSizes(watch), Sizes({9, 7, 7}));
}

TEST(CQDSecureWString, ValuesOfEveryKindAreWipedAtTheEnd)
{
    ArrayWatch watch;
    {
        const unsigned char bytes[] = {'a', 'b'};
        const unsigned short units[] = {0x20AC};
        CQDSecureWString fromUtf8;
        fromUtf8.SetFromUtf8(bytes, 2);
        CQDSecureWString fromUtf16;
        fromUtf16.SetFromUtf16(units, 1);
    }
    EXPECT_EQ(WipedSizes(watch), Sizes({4, 3}));
}
