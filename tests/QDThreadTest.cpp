#include <QDPlatform/QDThread.h>

#include <QDPlatform/COutputLogNull.h>

#include "FaultPlan.h"
#include "RecordingLog.h"
#include "SignalCounter.h"
#include "TakenDescriptors.h"
#include "TestThread.h"
#include "VirtualSlot.h"
#include "WaitUntil.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

namespace
{

constexpr long long kTicksPerMillisecond = 10000;
constexpr long long kLongPast = 0; // 1601

// Notes every callback as a line of text: "start", "ask", "event 7", "timeout", "stop".
class NotingThread : public CQDThread
{
public:
    using CQDThread::CQDThread;
    using CQDThread::m_DisplayThreadId;
    using CQDThread::m_pOutputLog;

    ~NotingThread() override { StopThreadAndWait(); }

    // What the callbacks do besides. Set before the start.
    std::function<CQDTimestamp(const CQDTimestamp& now)> m_Ask = [](const CQDTimestamp&) {
        return CQDTimestamp::Never;
    };
    std::function<bool()> m_Start = [] { return true; };
    std::function<bool()> m_Timeout = [] { return true; };
    std::function<void(unsigned int)> m_Event = [](unsigned int) {};
    std::function<void()> m_Stop = [] {};

    std::vector<std::string> GetNotes() const
    {
        const std::lock_guard lock(m_Mutex);
        return m_Notes;
    }

    // The notes without "ask".
    std::vector<std::string> GetCalls() const
    {
        std::vector<std::string> calls = GetNotes();
        std::erase(calls, "ask");
        return calls;
    }

    std::size_t Count(const std::string& note) const
    {
        const std::vector<std::string> notes = GetNotes();
        return static_cast<std::size_t>(std::count(notes.begin(), notes.end(), note));
    }

    bool WaitFor(const std::string& note, std::size_t times = 1) const
    {
        return WaitUntil([&] { return Count(note) >= times; });
    }

    // The threads that the callbacks ran on.
    std::set<pthread_t> GetThreads() const
    {
        const std::lock_guard lock(m_Mutex);
        return m_Threads;
    }

protected:
    CQDTimestamp GetThreadEarliestTimeout(const CQDTimestamp& now) override
    {
        Note("ask");
        return m_Ask(now);
    }

    bool OnThreadStart() override
    {
        Note("start");
        return m_Start();
    }

    bool OnThreadTimeout() override
    {
        Note("timeout");
        return m_Timeout();
    }

    void OnThreadEvent(unsigned int event) override
    {
        Note("event " + std::to_string(event));
        m_Event(event);
    }

    void OnThreadStop() override
    {
        m_Stop();
        Note("stop");
    }

private:
    void Note(const std::string& note)
    {
        const std::lock_guard lock(m_Mutex);
        m_Notes.push_back(note);
        m_Threads.insert(::pthread_self());
    }

    mutable std::mutex m_Mutex;
    std::vector<std::string> m_Notes; // m_Mutex
    std::set<pthread_t> m_Threads;    // m_Mutex
};

// Holds a thread in a callback until the test lets it go on.
class Gate
{
public:
    ~Gate() { Open(); }

    void Open()
    {
        if (!m_IsOpen.exchange(true))
            m_Promise.set_value();
    }

    void Pass() { m_Future.wait(); }

private:
    std::atomic<bool> m_IsOpen{false};
    std::promise<void> m_Promise;
    std::shared_future<void> m_Future{m_Promise.get_future()};
};

// The class as it is, with what derived classes see made public.
class PlainThread : public CQDThread
{
public:
    using CQDThread::CQDThread;
    using CQDThread::GetThreadEarliestTimeout;
    using CQDThread::m_pOutputLog;
    using CQDThread::OnThreadEvent;
    using CQDThread::OnThreadStart;
    using CQDThread::OnThreadStop;
    using CQDThread::OnThreadTimeout;
};

using Calls = std::vector<std::string>;

} // namespace

static_assert(std::has_virtual_destructor_v<CQDThread>);
static_assert(!std::is_copy_constructible_v<CQDThread> && !std::is_copy_assignable_v<CQDThread>);

TEST(CQDThread, NewObjectIsNotRunning)
{
    const PlainThread thread;

    EXPECT_FALSE(thread.IsThreadRunning());
    EXPECT_EQ(thread.GetDisplayThreadId(), 0u);
    EXPECT_EQ(thread.GetThreadName(), "");
    EXPECT_EQ(thread.m_pOutputLog, nullptr);
}

TEST(CQDThread, NewObjectWithALogKeepsIt)
{
    COutputLogNull log;
    const PlainThread thread(&log);

    EXPECT_EQ(thread.m_pOutputLog, &log);
    EXPECT_FALSE(thread.IsThreadRunning());
    EXPECT_EQ(thread.GetDisplayThreadId(), 0u);
    EXPECT_EQ(thread.GetThreadName(), "");
}

TEST(CQDThread, VirtualFunctionsStandInTheirFixedOrder)
{
    // The destructor has the slots 0 and 1.
    EXPECT_EQ(VirtualSlot(&PlainThread::GetThreadEarliestTimeout), 2);
    EXPECT_EQ(VirtualSlot(&PlainThread::OnThreadStart), 3);
    EXPECT_EQ(VirtualSlot(&PlainThread::OnThreadTimeout), 4);
    EXPECT_EQ(VirtualSlot(&PlainThread::OnThreadEvent), 5);
    EXPECT_EQ(VirtualSlot(&PlainThread::OnThreadStop), 6);
    EXPECT_EQ(VirtualSlot(&CQDThread::StartThread), -1);
}

TEST(CQDThread, DefaultCallbacks)
{
    PlainThread thread;

    EXPECT_EQ(thread.GetThreadEarliestTimeout(CQDTimestamp(1)).GetValue(), LLONG_MAX);
    EXPECT_TRUE(thread.OnThreadStart());
    EXPECT_TRUE(thread.OnThreadTimeout());
    thread.OnThreadEvent(1);
    thread.OnThreadStop();
}

TEST(CQDThread, StartRunsTheCallbacksOnANewThread)
{
    NotingThread thread;

    ASSERT_TRUE(thread.StartThread(nullptr));

    EXPECT_TRUE(thread.IsThreadRunning());
    ASSERT_TRUE(thread.WaitFor("ask"));
    const pthread_t id = thread.GetOSThreadId();
    EXPECT_EQ(thread.GetThreads(), std::set<pthread_t>{id});
    EXPECT_FALSE(CQDThread::OSThreadIdEqual(id, ::pthread_self()));
}

TEST(CQDThread, StartReplacesTheLog)
{
    COutputLogNull first;
    COutputLogNull second;
    NotingThread thread(&first);
    COutputLog* seenOnStart = &first;
    thread.m_Start = [&] {
        seenOnStart = thread.m_pOutputLog;
        return true;
    };

    ASSERT_TRUE(thread.StartThread(&second));
    thread.StopThreadAndWait();

    EXPECT_EQ(seenOnStart, &second);
    EXPECT_EQ(thread.m_pOutputLog, &second);
}

TEST(CQDThread, StartWithoutALogForgetsTheEarlierOne)
{
    COutputLogNull log;
    NotingThread thread(&log);

    ASSERT_TRUE(thread.StartThread(nullptr));

    EXPECT_EQ(thread.m_pOutputLog, nullptr);
}

TEST(CQDThread, DisplayIdIsOneWhileRunningAndZeroAfterwards)
{
    NotingThread thread;

    ASSERT_TRUE(thread.StartThread(nullptr));
    EXPECT_EQ(thread.GetDisplayThreadId(), 1u);
    thread.StopThreadAndWait();
    EXPECT_EQ(thread.GetDisplayThreadId(), 0u);

    ASSERT_TRUE(thread.StartThread(nullptr));
    EXPECT_EQ(thread.GetDisplayThreadId(), 1u);
}

TEST(CQDThread, EachObjectCountsItsOwnDisplayId)
{
    NotingThread first;
    NotingThread second;

    ASSERT_TRUE(first.StartThread(nullptr));
    ASSERT_TRUE(second.StartThread(nullptr));

    EXPECT_EQ(first.GetDisplayThreadId(), 1u);
    EXPECT_EQ(second.GetDisplayThreadId(), 1u);
}

TEST(CQDThread, DisplayIdIsSetBeforeTheThreadRuns)
{
    NotingThread thread;
    unsigned int seenOnStart = 0;
    thread.m_Start = [&] {
        seenOnStart = thread.GetDisplayThreadId();
        return true;
    };

    ASSERT_TRUE(thread.StartThread(nullptr));
    thread.StopThreadAndWait();

    EXPECT_EQ(seenOnStart, 1u);
}

TEST(CQDThread, DerivedClassSetsItsOwnDisplayId)
{
    NotingThread thread;
    ASSERT_TRUE(thread.StartThread(nullptr));

    thread.m_DisplayThreadId = 4711;

    EXPECT_EQ(thread.GetDisplayThreadId(), 4711u);
    thread.StopThreadAndWait();
    EXPECT_EQ(thread.GetDisplayThreadId(), 0u);
}

TEST(CQDThread, StartThatFailsTakesADisplayIdAndLeavesNothingBehind)
{
    struct Case
    {
        const char* m_Function;
        int m_Error;
    };

    constexpr Case cases[] = {{"pipe2", EMFILE}, {"pipe2", ENFILE}, {"pthread_create", EAGAIN}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.m_Function) + " " + std::to_string(c.m_Error));
        COutputLogNull log;
        NotingThread thread;
        const std::set<int> before = GetOpenDescriptors();
        {
            const FaultPlan plan(c.m_Function, 1, c.m_Error);

            EXPECT_FALSE(thread.StartThread(&log));

            EXPECT_EQ(errno, c.m_Error);
        }
        EXPECT_EQ(GetOpenDescriptors(), before);
        EXPECT_FALSE(thread.IsThreadRunning());
        EXPECT_EQ(thread.GetDisplayThreadId(), 1u);
        EXPECT_EQ(thread.m_pOutputLog, &log);
        EXPECT_FALSE(thread.StopThread());
        thread.WaitThread();
        EXPECT_EQ(thread.GetDisplayThreadId(), 1u); // there was nothing to wait for
        EXPECT_EQ(thread.GetNotes(), Calls{});

        ASSERT_TRUE(thread.StartThread(&log));
        EXPECT_EQ(thread.GetDisplayThreadId(), 2u);
    }
}

TEST(CQDThread, StartWithoutAPipeCreatesNoThread)
{
    const FaultPlan noThread("pthread_create", 1, EAGAIN);
    NotingThread thread;
    const TakenDescriptors taken;

    EXPECT_FALSE(thread.StartThread(nullptr));

    EXPECT_EQ(noThread.GetCallCount(), 0);
}

TEST(CQDThread, StartThatFailsLogsNothing)
{
    RecordingLog log;
    NotingThread thread;
    const FaultPlan plan("pipe2", 1, EMFILE);

    EXPECT_FALSE(thread.StartThread(&log));

    EXPECT_TRUE(log.GetMessages().empty());
}

TEST(CQDThread, StartFailsWhenThePipeCannotStandInADescriptorSet)
{
    NotingThread thread;
    const TakenDescriptors taken;
    const std::set<int> before = GetOpenDescriptors();

    EXPECT_FALSE(thread.StartThread(nullptr));

    EXPECT_EQ(errno, EMFILE);
    EXPECT_FALSE(thread.IsThreadRunning());
    EXPECT_EQ(thread.GetNotes(), Calls{});
    EXPECT_EQ(GetOpenDescriptors(), before);
}

TEST(CQDThread, StartOfARunningThreadIsRefusedAndChangesNothing)
{
    COutputLogNull log;
    COutputLogNull other;
    NotingThread thread;
    ASSERT_TRUE(thread.StartThread(&log));
    const pthread_t id = thread.GetOSThreadId();
    const std::set<int> before = GetOpenDescriptors();

    EXPECT_FALSE(thread.StartThread(&other));

    EXPECT_EQ(errno, EBUSY);
    EXPECT_TRUE(thread.IsThreadRunning());
    EXPECT_EQ(thread.GetDisplayThreadId(), 1u);
    EXPECT_EQ(thread.m_pOutputLog, &log);
    EXPECT_TRUE(CQDThread::OSThreadIdEqual(thread.GetOSThreadId(), id));
    EXPECT_EQ(GetOpenDescriptors(), before);
    thread.DoThreadEvent(5);
    EXPECT_TRUE(thread.WaitFor("event 5"));
    EXPECT_EQ(thread.Count("start"), 1u);
}

TEST(CQDThread, PipeOfARunningThreadIsCloseOnExec)
{
    const std::set<int> before = GetOpenDescriptors();
    NotingThread thread;
    ASSERT_TRUE(thread.StartThread(nullptr));

    const std::set<int> after = GetOpenDescriptors();

    std::vector<int> ends;
    std::set_difference(after.begin(), after.end(), before.begin(), before.end(), std::back_inserter(ends));
    ASSERT_EQ(ends.size(), 2u);
    EXPECT_EQ(::fcntl(ends[0], F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(::fcntl(ends[1], F_GETFD), FD_CLOEXEC);
}

TEST(CQDThread, StopBeforeStartReturnsFalseAndWritesNothing)
{
    NotingThread thread;
    const FaultPlan plan("write", 1, EIO, FaultPlan::Repeat::Forever);

    EXPECT_FALSE(thread.StopThread());

    EXPECT_EQ(plan.GetCallCount(), 0);
}

TEST(CQDThread, StopReturnsTrueWithoutWaiting)
{
    NotingThread thread;
    Gate gate;
    thread.m_Start = [&] {
        gate.Pass();
        return true;
    };
    ASSERT_TRUE(thread.StartThread(nullptr));

    EXPECT_TRUE(thread.StopThread());

    EXPECT_TRUE(thread.IsThreadRunning());
    EXPECT_EQ(thread.Count("stop"), 0u);
    gate.Open();
    thread.WaitThread();
    EXPECT_EQ(thread.GetCalls(), (Calls{"start", "stop"}));
}

TEST(CQDThread, StopThatCannotBeWrittenReturnsFalse)
{
    NotingThread thread;
    ASSERT_TRUE(thread.StartThread(nullptr));
    ASSERT_TRUE(thread.WaitFor("ask"));
    {
        const FaultPlan plan("write", 1, EIO);

        EXPECT_FALSE(thread.StopThread());
    }
    EXPECT_TRUE(thread.IsThreadRunning());
    EXPECT_TRUE(thread.StopThread());
}

TEST(CQDThread, StopOfAThreadThatEndedByItselfStillWritesItsByte)
{
    NotingThread thread;
    thread.m_Start = [] { return false; };
    ASSERT_TRUE(thread.StartThread(nullptr));
    ASSERT_TRUE(thread.WaitFor("stop"));

    EXPECT_TRUE(thread.IsThreadRunning());
    EXPECT_TRUE(thread.StopThread());
    EXPECT_TRUE(thread.StopThread());
}

TEST(CQDThread, WaitBeforeStartAndTwiceDoesNothing)
{
    NotingThread thread;
    thread.WaitThread();
    ASSERT_TRUE(thread.StartThread(nullptr));
    thread.StopThread();
    thread.WaitThread();

    thread.WaitThread();

    EXPECT_FALSE(thread.IsThreadRunning());
    EXPECT_EQ(thread.GetDisplayThreadId(), 0u);
}

TEST(CQDThread, WaitReturnsAfterTheLastCallbackAndClosesThePipe)
{
    const std::set<int> before = GetOpenDescriptors();
    NotingThread thread;
    Gate gate;
    thread.m_Stop = [&] { gate.Pass(); };
    ASSERT_TRUE(thread.StartThread(nullptr));
    thread.StopThread();
    TestThread waiter([&] { thread.WaitThread(); });
    EXPECT_TRUE(waiter.WaitUntilBlocked());
    EXPECT_TRUE(thread.IsThreadRunning());

    gate.Open();

    EXPECT_TRUE(waiter.WaitUntilDone());
    waiter.Join();
    EXPECT_FALSE(thread.IsThreadRunning());
    EXPECT_EQ(thread.Count("stop"), 1u);
    EXPECT_EQ(GetOpenDescriptors(), before);
}

TEST(CQDThread, StopAndWaitEndsTheThread)
{
    NotingThread thread;
    ASSERT_TRUE(thread.StartThread(nullptr));

    thread.StopThreadAndWait();

    EXPECT_FALSE(thread.IsThreadRunning());
    EXPECT_EQ(thread.GetCalls(), (Calls{"start", "stop"}));
}

TEST(CQDThread, StopAndWaitBeforeStartDoesNothing)
{
    NotingThread thread;

    thread.StopThreadAndWait();

    EXPECT_EQ(thread.GetNotes(), Calls{});
}

TEST(CQDThread, EventBeforeStartAndAfterWaitDoesNothing)
{
    NotingThread thread;
    const FaultPlan plan("write", 1000, EIO); // counts only
    thread.DoThreadEvent(1);
    EXPECT_EQ(plan.GetCallCount(), 0);
    ASSERT_TRUE(thread.StartThread(nullptr));
    thread.StopThreadAndWait();
    EXPECT_EQ(plan.GetCallCount(), 1);

    thread.DoThreadEvent(2);

    EXPECT_EQ(plan.GetCallCount(), 1);
    EXPECT_EQ(thread.GetCalls(), (Calls{"start", "stop"}));
}

TEST(CQDThread, EventsAreTheirLowEightBits)
{
    struct Case
    {
        unsigned int m_Event;
        const char* m_Note;
    };

    constexpr Case cases[] = {
        {0, "event 0"},     {1, "event 1"},   {127, "event 127"},        {128, "event 128"},
        {254, "event 254"}, {256, "event 0"}, {0xFFFFFF2Au, "event 42"}, {510, "event 254"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Event);
        NotingThread thread;
        ASSERT_TRUE(thread.StartThread(nullptr));

        thread.DoThreadEvent(c.m_Event);
        thread.StopThreadAndWait();

        EXPECT_EQ(thread.GetCalls(), (Calls{"start", c.m_Note, "stop"}));
    }
}

TEST(CQDThread, EventWhoseLowBitsAre255StopsTheThread)
{
    for (const unsigned int event : {255u, 511u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(event);
        NotingThread thread;
        ASSERT_TRUE(thread.StartThread(nullptr));

        thread.DoThreadEvent(event);
        thread.WaitThread();

        EXPECT_EQ(thread.GetCalls(), (Calls{"start", "stop"}));
        EXPECT_FALSE(thread.IsThreadRunning());
    }
}

TEST(CQDThread, EveryEventArrivesInTheOrderWritten)
{
    NotingThread thread;
    ASSERT_TRUE(thread.StartThread(nullptr));
    Calls expected{"start"};
    for (unsigned int event = 0; event < 255; ++event)
        expected.push_back("event " + std::to_string(event));
    expected.push_back("stop");

    for (unsigned int event = 0; event < 255; ++event)
        thread.DoThreadEvent(event);
    thread.StopThreadAndWait();

    EXPECT_EQ(thread.GetCalls(), expected);
}

TEST(CQDThread, EventsOfSeveralThreadsAllArrive)
{
    NotingThread thread;
    ASSERT_TRUE(thread.StartThread(nullptr));
    {
        std::vector<std::unique_ptr<TestThread>> senders;
        for (unsigned int sender = 1; sender <= 4; ++sender) {
            senders.push_back(std::make_unique<TestThread>([&thread, sender] {
                for (int i = 0; i < 1000; ++i)
                    thread.DoThreadEvent(sender);
            }));
        }
    }
    thread.StopThreadAndWait();

    EXPECT_EQ(thread.Count("event 1"), 1000u);
    EXPECT_EQ(thread.Count("event 2"), 1000u);
    EXPECT_EQ(thread.Count("event 3"), 1000u);
    EXPECT_EQ(thread.Count("event 4"), 1000u);
}

TEST(CQDThread, EventThatCannotBeWrittenIsLostInSilence)
{
    RecordingLog log;
    NotingThread thread;
    ASSERT_TRUE(thread.StartThread(&log));
    {
        const FaultPlan plan("write", 1, EIO);
        thread.DoThreadEvent(1);
        EXPECT_TRUE(plan.HasFailed());
    }
    thread.DoThreadEvent(2);
    thread.StopThreadAndWait();

    EXPECT_EQ(thread.GetCalls(), (Calls{"start", "event 2", "stop"}));
    EXPECT_TRUE(log.GetMessages().empty());
}

TEST(CQDThread, CallbackMaySendEventsToItsOwnThread)
{
    NotingThread thread;
    thread.m_Event = [&](unsigned int event) {
        if (event == 1)
            thread.DoThreadEvent(2);
        else
            thread.StopThread();
    };
    ASSERT_TRUE(thread.StartThread(nullptr));

    thread.DoThreadEvent(1);
    thread.WaitThread();

    EXPECT_EQ(thread.GetCalls(), (Calls{"start", "event 1", "event 2", "stop"}));
}

TEST(CQDThread, NothingIsDeliveredBehindTheStopCommand)
{
    NotingThread thread;
    Gate gate;
    thread.m_Start = [&] {
        gate.Pass();
        return true;
    };
    ASSERT_TRUE(thread.StartThread(nullptr));
    thread.DoThreadEvent(1);
    thread.StopThread();
    thread.DoThreadEvent(2);

    gate.Open();
    thread.WaitThread();

    EXPECT_EQ(thread.GetCalls(), (Calls{"start", "event 1", "stop"}));
}

TEST(CQDThread, RestartHasAFreshPipe)
{
    NotingThread thread;
    Gate gate;
    thread.m_Start = [&] {
        gate.Pass();
        return true;
    };
    ASSERT_TRUE(thread.StartThread(nullptr));
    thread.StopThread();
    thread.DoThreadEvent(7); // stays unread
    gate.Open();
    thread.WaitThread();

    ASSERT_TRUE(thread.StartThread(nullptr));
    thread.DoThreadEvent(8);
    thread.StopThreadAndWait();

    EXPECT_EQ(thread.GetCalls(), (Calls{"start", "stop", "start", "event 8", "stop"}));
}

TEST(CQDThread, RefusedStartSkipsTheLoopButNotTheStop)
{
    NotingThread thread;
    Gate gate;
    thread.m_Start = [&] {
        gate.Pass();
        return false;
    };
    ASSERT_TRUE(thread.StartThread(nullptr));
    thread.DoThreadEvent(1);

    gate.Open();
    thread.WaitThread();

    EXPECT_EQ(thread.GetNotes(), (Calls{"start", "stop"})); // not even asked for a deadline
    EXPECT_EQ(thread.GetThreads().size(), 1u);
    EXPECT_EQ(thread.GetThreads().count(::pthread_self()), 0u);
    EXPECT_FALSE(thread.IsThreadRunning());
}

TEST(CQDThread, EventsForAThreadThatHasEndedNeverBlock)
{
    NotingThread thread;
    thread.m_Start = [] { return false; };
    ASSERT_TRUE(thread.StartThread(nullptr));
    ASSERT_TRUE(thread.WaitFor("stop"));
    TestThread sender([&] {
        for (int i = 0; i < 100000; ++i) // more than the pipe holds
            thread.DoThreadEvent(1);
    });

    EXPECT_TRUE(sender.WaitUntilDone());

    thread.StopThreadAndWait();
    EXPECT_FALSE(thread.IsThreadRunning());
}

TEST(CQDThread, EndOfTheThreadFreesASenderThatWaitsForRoom)
{
    NotingThread thread;
    Gate gate;
    thread.m_Start = [&] {
        gate.Pass();
        return false;
    };
    ASSERT_TRUE(thread.StartThread(nullptr));
    TestThread sender([&] {
        for (int i = 0; i < 100000; ++i)
            thread.DoThreadEvent(1);
    });
    ASSERT_TRUE(sender.WaitUntilBlocked());

    gate.Open();

    EXPECT_TRUE(sender.WaitUntilDone());
    thread.WaitThread();
    EXPECT_EQ(thread.GetNotes(), (Calls{"start", "stop"}));
}

TEST(CQDThread, DeadlineIsAskedForBeforeEveryWait)
{
    NotingThread thread;
    Gate gate;
    thread.m_Start = [&] {
        gate.Pass();
        return true;
    };
    ASSERT_TRUE(thread.StartThread(nullptr));
    thread.DoThreadEvent(1);
    thread.DoThreadEvent(2);
    thread.StopThread();

    gate.Open();
    thread.WaitThread();

    EXPECT_EQ(thread.GetNotes(), (Calls{"start", "ask", "event 1", "ask", "event 2", "ask", "stop"}));
}

TEST(CQDThread, EachWakeUpReadsOneCommand)
{
    const FaultPlan selects("select", 1000, EIO); // counts only
    NotingThread thread;
    Gate gate;
    thread.m_Start = [&] {
        gate.Pass();
        return true;
    };
    ASSERT_TRUE(thread.StartThread(nullptr));
    thread.DoThreadEvent(1);
    thread.DoThreadEvent(2);
    thread.StopThread();

    gate.Open();
    thread.WaitThread();

    EXPECT_EQ(selects.GetCallCount(), 3);
}

TEST(CQDThread, DeadlineIsAskedForWithTheTimeInUtc)
{
    NotingThread thread;
    CQDTimestamp seen;
    thread.m_Ask = [&](const CQDTimestamp& now) {
        seen = now;
        return CQDTimestamp::Never;
    };
    const CQDTimestamp before = CQDTimestamp::UTCNow();

    ASSERT_TRUE(thread.StartThread(nullptr));
    thread.StopThreadAndWait();

    EXPECT_GE(seen, before);
    EXPECT_LE(seen, CQDTimestamp::UTCNow());
}

TEST(CQDThread, DefaultDeadlineNeverFires)
{
    // Every callback is the base class's own but the one that must not come.
    class DefaultThread : public CQDThread
    {
    public:
        std::atomic<int> m_Timeouts{0};

    protected:
        bool OnThreadTimeout() override
        {
            m_Timeouts.fetch_add(1);
            return true;
        }
    };

    DefaultThread thread;
    const FaultPlan selects("select", 1000, EIO); // counts only
    ASSERT_TRUE(thread.StartThread(nullptr));
    thread.DoThreadEvent(1);
    ASSERT_TRUE(WaitUntil([&] { return selects.GetCallCount() == 2; }));

    CQDThread::SleepMilliseconds(50); // for a wait that ends to show itself

    EXPECT_EQ(selects.GetCallCount(), 2);
    EXPECT_EQ(thread.m_Timeouts.load(), 0);
    thread.StopThreadAndWait();
    EXPECT_EQ(thread.m_Timeouts.load(), 0);
}

TEST(CQDThread, DeadlineFiresWhenItIsDueAndNotBefore)
{
    NotingThread thread;
    CQDTimestamp deadline;
    CQDTimestamp fired;
    thread.m_Ask = [&](const CQDTimestamp& now) {
        if (deadline.GetValue() == 0)
            deadline = CQDTimestamp(now.GetValue() + 40 * kTicksPerMillisecond);
        return deadline;
    };
    thread.m_Timeout = [&] {
        fired = CQDTimestamp::UTCNow();
        return false;
    };

    ASSERT_TRUE(thread.StartThread(nullptr));
    thread.WaitThread();

    EXPECT_GE(fired, deadline);
    EXPECT_EQ(thread.GetNotes(), (Calls{"start", "ask", "timeout", "stop"}));
}

TEST(CQDThread, TimeoutThatReturnsTrueGoesOn)
{
    NotingThread thread;
    int timeouts = 0;
    thread.m_Ask = [](const CQDTimestamp& now) { return CQDTimestamp(now.GetValue() + kTicksPerMillisecond); };
    thread.m_Timeout = [&] { return ++timeouts < 3; };

    ASSERT_TRUE(thread.StartThread(nullptr));
    thread.WaitThread();

    EXPECT_EQ(thread.GetNotes(), (Calls{"start", "ask", "timeout", "ask", "timeout", "ask", "timeout", "stop"}));
}

TEST(CQDThread, DeadlineBehindTheEndOf32BitTimesIsWaitedFor)
{
    constexpr long long kEndOf32BitTimes = 137919572480000000; // 2038-01-19 03:14:08
    const ClockShift shift(2147483646);                        // at most two seconds before
    NotingThread thread;
    std::atomic<long long> calledAt{0};
    thread.m_Ask = [](const CQDTimestamp&) { return CQDTimestamp(kEndOf32BitTimes + 20 * kTicksPerMillisecond); };
    thread.m_Timeout = [&] {
        calledAt.store(CQDTimestamp::UTCNow().GetValue());
        return false;
    };

    ASSERT_TRUE(thread.StartThread(nullptr));
    thread.WaitThread();

    EXPECT_GE(calledAt.load(), kEndOf32BitTimes + 19 * kTicksPerMillisecond);
    EXPECT_EQ(thread.GetNotes(), (Calls{"start", "ask", "timeout", "stop"}));
}

TEST(CQDThread, DeadlineThatIsNotLaterThanNowPolls)
{
    struct Case
    {
        const char* m_Name;
        CQDTimestamp (*m_Ask)(const CQDTimestamp& now);
    };

    constexpr Case cases[] = {
        {"now", [](const CQDTimestamp& now) { return now; }},
        {"1601", [](const CQDTimestamp&) { return CQDTimestamp(kLongPast); }},
        {"smallest value", [](const CQDTimestamp&) { return CQDTimestamp(LLONG_MIN); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);
        NotingThread thread;
        int timeouts = 0;
        thread.m_Ask = c.m_Ask;
        thread.m_Timeout = [&] { return ++timeouts < 3; };

        ASSERT_TRUE(thread.StartThread(nullptr));
        thread.WaitThread();

        EXPECT_EQ(timeouts, 3);
    }
}

TEST(CQDThread, CommandsGoBeforeAPassedDeadline)
{
    NotingThread thread;
    Gate gate;
    thread.m_Start = [&] {
        gate.Pass();
        return true;
    };
    thread.m_Ask = [](const CQDTimestamp&) { return CQDTimestamp(kLongPast); };
    ASSERT_TRUE(thread.StartThread(nullptr));
    thread.DoThreadEvent(1);
    thread.DoThreadEvent(2);
    thread.StopThread();

    gate.Open();
    thread.WaitThread();

    EXPECT_EQ(thread.GetCalls(), (Calls{"start", "event 1", "event 2", "stop"}));
}

TEST(CQDThread, CommandEndsTheWaitForADeadline)
{
    NotingThread thread;
    thread.m_Ask = [](const CQDTimestamp& now) {
        return CQDTimestamp(now.GetValue() + 3600 * 1000 * kTicksPerMillisecond);
    };
    ASSERT_TRUE(thread.StartThread(nullptr));

    thread.DoThreadEvent(3);

    EXPECT_TRUE(thread.WaitFor("event 3"));
    EXPECT_EQ(thread.Count("timeout"), 0u);
}

TEST(CQDThread, FarthestDeadlineIsWaitedForLikeAnyOther)
{
    NotingThread thread;
    thread.m_Ask = [](const CQDTimestamp&) { return CQDTimestamp(LLONG_MAX - 1); };
    ASSERT_TRUE(thread.StartThread(nullptr));

    thread.DoThreadEvent(3);
    thread.StopThreadAndWait();

    EXPECT_EQ(thread.GetCalls(), (Calls{"start", "event 3", "stop"}));
}

TEST(CQDThread, SelectThatFailsEndsTheLoopInSilence)
{
    for (const int error : {EINTR, EBADF, ENOMEM}) {
        SCOPED_TRACE(error);
        RecordingLog log;
        NotingThread thread;
        const FaultPlan plan("select", 1, error);

        ASSERT_TRUE(thread.StartThread(&log));
        thread.WaitThread();

        EXPECT_EQ(thread.GetNotes(), (Calls{"start", "ask", "stop"}));
        EXPECT_EQ(plan.GetCallCount(), 1);
        EXPECT_TRUE(log.GetMessages().empty());
    }
}

TEST(CQDThread, ReadThatFailsEndsTheLoopInSilence)
{
    for (const int error : {EINTR, EIO}) {
        SCOPED_TRACE(error);
        RecordingLog log;
        NotingThread thread;
        const FaultPlan plan("read", 1, error);

        ASSERT_TRUE(thread.StartThread(&log));
        thread.DoThreadEvent(1);
        thread.WaitThread();

        EXPECT_TRUE(plan.HasFailed());
        EXPECT_EQ(thread.GetNotes(), (Calls{"start", "ask", "stop"})); // the command, still unread, is not tried again
        EXPECT_TRUE(log.GetMessages().empty());
    }
}

TEST(CQDThread, SignalDuringTheWaitEndsTheThread)
{
    const SignalCounter signals(SIGUSR1);
    const FaultPlan selects("select", 1000, EIO); // counts only
    NotingThread thread;
    ASSERT_TRUE(thread.StartThread(nullptr));
    ASSERT_TRUE(thread.WaitFor("ask"));

    // A signal just before the wait changes nothing, so it may take more than one.
    EXPECT_TRUE(WaitUntil([&] {
        ::pthread_kill(thread.GetOSThreadId(), SIGUSR1);
        return thread.Count("stop") == 1;
    }));

    EXPECT_TRUE(thread.IsThreadRunning()); // until somebody waits
    thread.WaitThread();
    EXPECT_EQ(thread.GetNotes(), (Calls{"start", "ask", "stop"}));
    EXPECT_EQ(selects.GetCallCount(), 1);
    EXPECT_GE(signals.GetCount(), 1);
}

TEST(CQDThread, AllCallbacksRunOnTheThreadItself)
{
    NotingThread thread;
    std::atomic<bool> isDue{false};
    thread.m_Ask = [&](const CQDTimestamp&) { return isDue.load() ? CQDTimestamp(kLongPast) : CQDTimestamp::Never; };
    thread.m_Timeout = [&] {
        isDue.store(false);
        return true;
    };
    thread.m_Event = [&](unsigned int) { isDue.store(true); };
    ASSERT_TRUE(thread.StartThread(nullptr));
    const pthread_t id = thread.GetOSThreadId();

    thread.DoThreadEvent(1);
    ASSERT_TRUE(thread.WaitFor("timeout"));
    thread.StopThreadAndWait();

    EXPECT_EQ(thread.GetCalls(), (Calls{"start", "event 1", "timeout", "stop"}));
    EXPECT_EQ(thread.GetThreads(), std::set<pthread_t>{id});
}

TEST(CQDThread, CurrentThreadIdIsTheCallers)
{
    const pthread_t own = CQDThread::GetOSCurrentThreadId();
    pthread_t other{};
    TestThread worker([&] { other = CQDThread::GetOSCurrentThreadId(); });
    ASSERT_TRUE(worker.WaitUntilDone());

    EXPECT_TRUE(CQDThread::OSThreadIdEqual(own, ::pthread_self()));
    EXPECT_FALSE(CQDThread::OSThreadIdEqual(own, other));
}

TEST(CQDThread, SleepLastsAtLeastItsMilliseconds)
{
    const auto start = std::chrono::steady_clock::now();

    CQDThread::SleepMilliseconds(30);

    EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
}

TEST(CQDThread, SleepLongerThanASecondIsWhole)
{
    const auto start = std::chrono::steady_clock::now();

    CQDThread::SleepMilliseconds(1100);

    EXPECT_GE(std::chrono::steady_clock::now() - start, 1100ms);
}

TEST(CQDThread, SleepOfNothingOrLessReturnsAtOnce)
{
    TestThread sleeper([] {
        CQDThread::SleepMilliseconds(0);
        CQDThread::SleepMilliseconds(-1);
        CQDThread::SleepMilliseconds(INT_MIN);
    });

    EXPECT_TRUE(sleeper.WaitUntilDone());
}

TEST(CQDThread, SignalEndsTheLongestSleep)
{
    const SignalCounter signals(SIGUSR1);
    TestThread sleeper([] { CQDThread::SleepMilliseconds(INT_MAX); });
    ASSERT_TRUE(sleeper.WaitUntilBlocked());

    sleeper.Signal(SIGUSR1);

    EXPECT_TRUE(sleeper.WaitUntilDone());
    EXPECT_EQ(signals.GetCount(), 1);
}

TEST(CQDThread, NameIsKeptAndNotGivenToTheSystem)
{
    NotingThread thread;
    char own[16] = {};
    char before[16] = {};
    char after[16] = {};
    ASSERT_EQ(::pthread_getname_np(::pthread_self(), own, sizeof own), 0);

    thread.SetThreadName("Gro\xC3\x9F");
    ASSERT_TRUE(thread.StartThread(nullptr));
    EXPECT_EQ(thread.GetThreadName(), "Gro\xC3\x9F");
    ASSERT_TRUE(thread.WaitFor("start"));
    EXPECT_EQ(::pthread_getname_np(thread.GetOSThreadId(), before, sizeof before), 0);
    thread.SetThreadName("other");
    EXPECT_EQ(::pthread_getname_np(thread.GetOSThreadId(), after, sizeof after), 0);

    EXPECT_EQ(thread.GetThreadName(), "other");
    EXPECT_STREQ(before, own); // a new thread has its creator's name
    EXPECT_STREQ(after, own);
}

TEST(CQDThread, FirstCallbackMayStopItsOwnThread)
{
    for (int round = 0; round < 200; ++round) {
        SCOPED_TRACE(round);
        NotingThread thread;
        bool isRunning = false;
        bool isStopped = false;
        thread.m_Start = [&] {
            isRunning = thread.IsThreadRunning();
            isStopped = thread.StopThread();
            return true;
        };
        ASSERT_TRUE(thread.StartThread(nullptr));
        ASSERT_TRUE(thread.WaitFor("start"));

        thread.StopThreadAndWait(); // ends a failing test too

        ASSERT_TRUE(isRunning);
        ASSERT_TRUE(isStopped);
    }
}
