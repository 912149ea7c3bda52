#include <QDPlatform/QDCriticalSection.h>

#include "Emulation.h"
#include "FaultPlan.h"
#include "TestThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <memory>
#include <type_traits>
#include <vector>

static_assert(!std::is_copy_constructible_v<CQDCriticalSection> && !std::is_move_constructible_v<CQDCriticalSection>);
static_assert(!std::is_copy_assignable_v<CQDCriticalSection> && !std::is_move_assignable_v<CQDCriticalSection>);
static_assert(!std::is_polymorphic_v<CQDCriticalSection>);
static_assert(sizeof(CQDCriticalSection) == sizeof(pthread_mutex_t));

namespace
{

#if defined(__SANITIZE_THREAD__)
constexpr bool kHasThreadSanitizer = true;
#elif defined(__has_feature)
constexpr bool kHasThreadSanitizer = __has_feature(thread_sanitizer);
#else
constexpr bool kHasThreadSanitizer = false;
#endif

// Called through a pointer to member, where Clang's lock analysis does not look: it knows no recursion, and no wrong
// use that is meant.
void Enter(CQDCriticalSection& section)
{
    const auto enter = &CQDCriticalSection::Enter;
    (section.*enter)();
}

void Leave(CQDCriticalSection& section)
{
    const auto leave = &CQDCriticalSection::Leave;
    (section.*leave)();
}

} // namespace

TEST(CQDCriticalSection, IsUnlockedWhenNew)
{
    CQDCriticalSection section;
    TestThread other([&] {
        Enter(section);
        Leave(section);
    });

    EXPECT_TRUE(other.WaitUntilDone());
}

TEST(CQDCriticalSection, HolderKeepsOthersOut)
{
    CQDCriticalSection section;
    std::atomic<bool> isInside{false};
    Enter(section);
    TestThread other([&] {
        Enter(section);
        isInside.store(true);
        Leave(section);
    });

    EXPECT_TRUE(other.WaitUntilBlocked());
    EXPECT_FALSE(isInside.load());

    Leave(section);
    EXPECT_TRUE(other.WaitUntilDone());
    EXPECT_TRUE(isInside.load());
}

TEST(CQDCriticalSection, EachEnterNeedsItsOwnLeave)
{
    CQDCriticalSection section;
    Enter(section);
    Enter(section);
    TestThread other([&] {
        Enter(section);
        Leave(section);
    });

    EXPECT_TRUE(other.WaitUntilBlocked());
    Leave(section);
    EXPECT_TRUE(other.WaitUntilBlocked());

    Leave(section);
    EXPECT_TRUE(other.WaitUntilDone());
}

TEST(CQDCriticalSection, HolderMayEnterManyTimes)
{
    CQDCriticalSection section;
    for (int i = 0; i < 1000; ++i)
        Enter(section);
    for (int i = 0; i < 1000; ++i)
        Leave(section);

    TestThread other([&] {
        Enter(section);
        Leave(section);
    });

    EXPECT_TRUE(other.WaitUntilDone());
}

TEST(CQDCriticalSection, OneThreadAtATimeIsInside)
{
    CQDCriticalSection section;
    int count = 0; // section
    std::vector<std::unique_ptr<TestThread>> threads;
    for (int i = 0; i < 4; ++i) {
        threads.push_back(std::make_unique<TestThread>([&] {
            for (int pass = 0; pass < 5000; ++pass) {
                Enter(section);
                ++count;
                Leave(section);
            }
        }));
    }
    for (const auto& thread : threads)
        thread->Join();

    EXPECT_EQ(count, 20000);
}

TEST(CQDCriticalSection, LeaveWithoutEnterIsIgnored)
{
    if (kHasThreadSanitizer)
        GTEST_SKIP() << "ThreadSanitizer stops the program here";
    CQDCriticalSection section;

    Leave(section);

    TestThread other([&] {
        Enter(section);
        Leave(section);
    });
    EXPECT_TRUE(other.WaitUntilDone());
}

TEST(CQDCriticalSectionDeathTest, MutexThatCannotBeMadeStopsTheProcess)
{
    const auto construct = [] {
        const FaultPlan plan("pthread_mutex_init", 1, ENOMEM, FaultPlan::Repeat::Forever);
        const CQDCriticalSection section;
    };

    EXPECT_EXIT(construct(), testing::KilledBySignal(SIGABRT),
                "^QDPlatform/QDCriticalSection\\.cpp: CQDCriticalSection::CQDCriticalSection\\(\\): "
                "Assertion \"Result == 0\" failed\\." QD_TEST_END_OF_OUTPUT);
}
