// That QDRandomGenerator::ClearMemory() really clears memory that nobody reads any more, whatever the compiler
// optimises.
//
// Compiled optimised and with the class's own source in this translation unit, under a class name of its own: only so
// does the compiler see that the array is released right after it was cleared, and may drop stores that nobody reads.
#include <QDPlatform/QDRandomGenerator.h>

#include "../QDPlatform/QDRandomGenerator.cpp"
#include "ArrayWatch.h"

#include <gtest/gtest.h>

namespace
{

// Written through volatile: the compiler may not drop these bytes along with a clearing that it drops.
char* NewSecret()
{
    auto* secret = new char[32];
    volatile char* bytes = secret;
    for (int i = 0; i < 32; ++i)
        bytes[i] = 's';
    return secret;
}

} // namespace

TEST(QDRandomGenerator, ClearedMemoryIsClearedThoughNobodyReadsIt)
{
    ArrayWatch watch;
    char* secret = NewSecret();

    QDRandomGenerator::ClearMemory(secret, 32);
    delete[] secret;

    ASSERT_EQ(watch.GetReleased().size(), 1u);
    EXPECT_TRUE(watch.GetReleased()[0].m_AllZero);
}

TEST(QDRandomGenerator, MemoryThatIsNotClearedIsSeen)
{
    ArrayWatch watch;
    char* secret = NewSecret();

    QDRandomGenerator::ClearMemory(secret, 31);
    delete[] secret;

    ASSERT_EQ(watch.GetReleased().size(), 1u);
    EXPECT_FALSE(watch.GetReleased()[0].m_AllZero);
}
