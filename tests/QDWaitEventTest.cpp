#include <QDPlatform/QDWaitEvent.h>

#include "SignalCounter.h"
#include "TestThread.h"

#include <gtest/gtest.h>

#include <csignal>
#include <type_traits>

static_assert(!std::is_copy_constructible_v<CQDWaitEvent> && !std::is_move_constructible_v<CQDWaitEvent>);
static_assert(!std::is_copy_assignable_v<CQDWaitEvent> && !std::is_move_assignable_v<CQDWaitEvent>);
static_assert(!std::is_polymorphic_v<CQDWaitEvent>);
static_assert(sizeof(CQDWaitEvent) == sizeof(sem_t));

TEST(CQDWaitEvent, FirstWaitBlocksUntilTheEventIsSet)
{
    CQDWaitEvent event;
    TestThread waiter([&] { event.WaitForEvent(); });

    EXPECT_TRUE(waiter.WaitUntilBlocked());

    event.SetEvent();
    EXPECT_TRUE(waiter.WaitUntilDone());
}

TEST(CQDWaitEvent, TwoEventsLetTwoWaitsThroughAndTheThirdBlocks)
{
    CQDWaitEvent event;
    event.SetEvent();
    event.SetEvent();
    std::atomic<int> waits{0};
    TestThread waiter([&] {
        for (int i = 0; i < 3; ++i) {
            event.WaitForEvent();
            waits.fetch_add(1);
        }
    });

    EXPECT_TRUE(waiter.WaitUntilBlocked());
    EXPECT_EQ(waits.load(), 2);

    event.SetEvent();
    EXPECT_TRUE(waiter.WaitUntilDone());
    EXPECT_EQ(waits.load(), 3);
}

TEST(CQDWaitEvent, EachEventReleasesExactlyOneWaiter)
{
    CQDWaitEvent event;
    TestThread first([&] { event.WaitForEvent(); });
    TestThread second([&] { event.WaitForEvent(); });
    ASSERT_TRUE(first.WaitUntilBlocked());
    ASSERT_TRUE(second.WaitUntilBlocked());

    event.SetEvent();

    EXPECT_TRUE(WaitUntil([&] { return first.IsDone() || second.IsDone(); }));
    TestThread& left = first.IsDone() ? second : first;
    EXPECT_TRUE(left.WaitUntilBlocked());

    event.SetEvent();
    EXPECT_TRUE(left.WaitUntilDone());
}

TEST(CQDWaitEvent, WaitForEvent_ReturnsOnASignal)
{
    const SignalCounter signals(SIGUSR1);
    CQDWaitEvent event;
    TestThread waiter([&] { event.WaitForEvent(); });
    ASSERT_TRUE(waiter.WaitUntilBlocked());

    waiter.Signal(SIGUSR1);

    EXPECT_TRUE(waiter.WaitUntilDone());
    EXPECT_EQ(signals.GetCount(), 1);
    if (!waiter.IsDone())
        event.SetEvent(); // lets the failing test end
}

TEST(CQDWaitEvent, WaitEndedByASignalTakesNoEvent)
{
    const SignalCounter signals(SIGUSR1);
    CQDWaitEvent event;
    TestThread interrupted([&] { event.WaitForEvent(); });
    ASSERT_TRUE(interrupted.WaitUntilBlocked());
    interrupted.Signal(SIGUSR1);
    ASSERT_TRUE(interrupted.WaitUntilDone());
    TestThread waiter([&] { event.WaitForEvent(); });

    EXPECT_TRUE(waiter.WaitUntilBlocked());

    event.SetEvent();
    EXPECT_TRUE(waiter.WaitUntilDone());
}
