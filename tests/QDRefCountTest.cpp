#include <QDPlatform/QDRefCount.h>

#include "TestThread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <latch>
#include <memory>
#include <numeric>
#include <type_traits>
#include <utility>
#include <vector>

static_assert(!std::is_copy_constructible_v<CQDRefCount> && !std::is_move_constructible_v<CQDRefCount>);
static_assert(!std::is_copy_assignable_v<CQDRefCount> && !std::is_move_assignable_v<CQDRefCount>);
static_assert(!std::is_polymorphic_v<CQDRefCount>);
static_assert(sizeof(CQDRefCount) == 4);
static_assert(std::is_same_v<decltype(std::declval<CQDRefCount&>().Increment()), int32_t>);
static_assert(std::is_same_v<decltype(std::declval<CQDRefCount&>().Decrement()), int32_t>);

TEST(CQDRefCount, StartsAtZero)
{
    const CQDRefCount count;

    EXPECT_EQ(count.GetCount(), 0);
}

TEST(CQDRefCount, IncrementReturnsTheNewValue)
{
    CQDRefCount count;

    EXPECT_EQ(count.Increment(), 1);
    EXPECT_EQ(count.Increment(), 2);
    EXPECT_EQ(count.GetCount(), 2);
}

TEST(CQDRefCount, DecrementReturnsTheNewValue)
{
    CQDRefCount count;
    count.Increment();
    count.Increment();

    EXPECT_EQ(count.Decrement(), 1);
    EXPECT_EQ(count.Decrement(), 0);
    EXPECT_EQ(count.GetCount(), 0);
}

TEST(CQDRefCount, DecrementOfANewCountWrapsToMinusOne)
{
    CQDRefCount count;

    EXPECT_EQ(count.Decrement(), -1);
    EXPECT_EQ(count.Decrement(), -2);
    EXPECT_EQ(count.Increment(), -1);
    EXPECT_EQ(count.Increment(), 0);
}

namespace
{

constexpr int kThreads = 4;
constexpr int kChangesPerThread = 50000;

// Changes the count from several threads at once. Returns all their results, the smallest first.
std::vector<int32_t> ChangeConcurrently(CQDRefCount& count, int32_t (CQDRefCount::*change)())
{
    std::array<std::vector<int32_t>, kThreads> results;
    std::latch start(kThreads);
    {
        std::vector<std::unique_ptr<TestThread>> threads;
        for (std::vector<int32_t>& own : results) {
            own.reserve(kChangesPerThread);
            threads.push_back(std::make_unique<TestThread>([&] {
                start.arrive_and_wait();
                for (int i = 0; i < kChangesPerThread; ++i)
                    own.push_back((count.*change)());
            }));
        }
    }
    std::vector<int32_t> all;
    for (const std::vector<int32_t>& own : results)
        all.insert(all.end(), own.begin(), own.end());
    std::sort(all.begin(), all.end());
    return all;
}

std::vector<int32_t> Numbers(int32_t first, int32_t last)
{
    std::vector<int32_t> numbers(static_cast<std::size_t>(last - first + 1));
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
}

} // namespace

TEST(CQDRefCount, EveryCallerOfIncrementGetsTheValueAfterItsOwnChange)
{
    CQDRefCount count;

    EXPECT_TRUE(ChangeConcurrently(count, &CQDRefCount::Increment) == Numbers(1, 200000));

    EXPECT_EQ(count.GetCount(), 200000);
}

TEST(CQDRefCount, EveryCallerOfDecrementGetsTheValueAfterItsOwnChange)
{
    CQDRefCount count;

    EXPECT_TRUE(ChangeConcurrently(count, &CQDRefCount::Decrement) == Numbers(-200000, -1));

    EXPECT_EQ(count.GetCount(), -200000);
}

TEST(CQDRefCount, OneOwnerSeesZeroAndWhatTheOthersDidBefore)
{
    constexpr int kOwners = 4;
    for (int round = 0; round < 200; ++round) {
        CQDRefCount count;
        std::array<int, kOwners> written{}; // plain: the count alone orders the writes before the reading
        std::atomic<int> zeros{0};
        int sum = 0;
        for (int i = 0; i < kOwners; ++i)
            count.Increment();
        {
            std::vector<std::unique_ptr<TestThread>> owners;
            for (int& own : written) {
                owners.push_back(std::make_unique<TestThread>([&] {
                    own = 1;
                    if (count.Decrement() != 0)
                        return;
                    zeros.fetch_add(1);
                    for (const int value : written)
                        sum += value;
                }));
            }
        }

        ASSERT_EQ(zeros.load(), 1);
        ASSERT_EQ(sum, kOwners);
    }
}
