#include <QDPlatform/QDRandomGenerator.h>

#include "NextFunction.h"

#include <gtest/gtest.h>

#include <openssl/rand.h>

#include <array>
#include <climits>
#include <type_traits>

static_assert(std::is_empty_v<QDRandomGenerator> && !std::is_default_constructible_v<QDRandomGenerator>);

namespace
{

bool g_GeneratorFails = false;
int g_GeneratorCalls = 0;

using Bytes = std::array<unsigned char, 32>;

Bytes FilledWith(unsigned char byte)
{
    Bytes bytes;
    bytes.fill(byte);
    return bytes;
}

} // namespace

// Stands in front of OpenSSL's and goes on to it, unless a test makes it fail.
extern "C" int RAND_bytes(unsigned char* buffer, int count)
{
    static const auto next = NextFunction("RAND_bytes", &RAND_bytes);
    ++g_GeneratorCalls;
    return g_GeneratorFails ? 0 : next(buffer, count);
}

TEST(QDRandomGenerator, FillsExactlyTheBytesAskedFor)
{
    for (const int count : {1, 7, 16, 31}) {
        SCOPED_TRACE(count);
        Bytes changed = FilledWith(0);
        for (int round = 0; round < 64; ++round) { // one byte stays as it was with 1 of 256
            Bytes bytes = FilledWith(0xAA);

            ASSERT_TRUE(QDRandomGenerator::GenerateRandom(count, bytes.data()));

            for (std::size_t i = 0; i < bytes.size(); ++i)
                changed[i] = changed[i] != 0 || bytes[i] != 0xAA;
        }

        for (std::size_t i = 0; i < changed.size(); ++i)
            EXPECT_EQ(changed[i] != 0, i < static_cast<std::size_t>(count)) << i;
    }
}

TEST(QDRandomGenerator, GivesOtherBytesEachTime)
{
    Bytes first = FilledWith(0);
    Bytes second = FilledWith(0);

    ASSERT_TRUE(QDRandomGenerator::GenerateRandom(32, first.data()));
    ASSERT_TRUE(QDRandomGenerator::GenerateRandom(32, second.data()));

    EXPECT_NE(first, second);
}

TEST(QDRandomGenerator, BytesComeFromOpenSsl)
{
    Bytes bytes = FilledWith(0);
    g_GeneratorCalls = 0;

    ASSERT_TRUE(QDRandomGenerator::GenerateRandom(32, bytes.data()));

    EXPECT_EQ(g_GeneratorCalls, 1);
}

TEST(QDRandomGenerator, CountOfZeroOrBelowWritesNothing)
{
    for (const int count : {0, -1, INT_MIN}) {
        SCOPED_TRACE(count);
        Bytes bytes = FilledWith(0xAA);

        EXPECT_TRUE(QDRandomGenerator::GenerateRandom(count, bytes.data()));
        EXPECT_TRUE(QDRandomGenerator::GenerateRandom(count, nullptr));

        EXPECT_EQ(bytes, FilledWith(0xAA));
    }
}

TEST(QDRandomGenerator, FailingGeneratorStillReturnsTrue)
{
    Bytes bytes = FilledWith(0xAA);
    g_GeneratorFails = true;

    const bool result = QDRandomGenerator::GenerateRandom(32, bytes.data());

    g_GeneratorFails = false;
    EXPECT_TRUE(result);
    EXPECT_EQ(bytes, FilledWith(0xAA));
}

TEST(QDRandomGenerator, ClearMemorySetsExactlyTheBytesToZero)
{
    Bytes bytes = FilledWith(0xAA);

    QDRandomGenerator::ClearMemory(bytes.data() + 3, 20);

    for (std::size_t i = 0; i < bytes.size(); ++i)
        EXPECT_EQ(bytes[i], i >= 3 && i < 23 ? 0 : 0xAA) << i;
}

TEST(QDRandomGenerator, ClearMemoryOfNoBytesDoesNothing)
{
    Bytes bytes = FilledWith(0xAA);

    QDRandomGenerator::ClearMemory(bytes.data(), 0);
    QDRandomGenerator::ClearMemory(nullptr, 0);

    EXPECT_EQ(bytes, FilledWith(0xAA));
}
