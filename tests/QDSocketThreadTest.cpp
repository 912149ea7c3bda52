#include <QDPlatform/QDSocketThread.h>

#include <QDPlatform/COutputLog.h>
#include <QDPlatform/QDTimestamp.h>

#include "FaultPlan.h"
#include "NextFunction.h"
#include "RecordingLog.h"
#include "SignalCounter.h"
#include "TakenDescriptors.h"
#include "TestThread.h"
#include "VirtualSlot.h"
#include "WaitUntil.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace
{

using testing::ElementsAre;

constexpr long long kNever = 0x7FFFFFFFFFFFFFFF;
constexpr long long kUnixEpoch = 116444736000000000; // 100-ns ticks since 1601
constexpr long long kTicksPerMillisecond = 10000;

long long TicksOf(const timespec& time)
{
    return kUnixEpoch + static_cast<long long>(time.tv_sec) * 10000000 + time.tv_nsec / 100;
}

long long UtcNowTicks()
{
    timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    return TicksOf(now);
}

// One wait for a thread's end, in ticks.
struct TimedJoin
{
    long long m_CalledAt;
    long long m_Deadline;
};

std::mutex g_TimedJoinMutex;
std::vector<TimedJoin> g_TimedJoins;      // g_TimedJoinMutex
std::atomic<int> g_TimedJoinsToRefuse{0}; // the next so many waits time out at once

bool IsOpen(int fd)
{
    return ::fcntl(fd, F_GETFD) != -1;
}

// Holds a thread back until the test lets it go. Opens by itself when the test has failed long ago.
class Gate
{
public:
    void Wait()
    {
        m_Reached.store(true);
        WaitUntil([this] { return m_Open.load(); });
    }

    bool WaitUntilReached()
    {
        return WaitUntil([this] { return m_Reached.load(); });
    }

    void Open() { m_Open.store(true); }

private:
    std::atomic<bool> m_Reached{false};
    std::atomic<bool> m_Open{false};
};

// Two connected sockets: one for the server's array, the other for the test.
class Wire
{
public:
    Wire()
    {
        int ends[2] = {-1, -1};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        m_ServerEnd = ends[0];
        m_TestEnd = ends[1];
    }

    Wire(const Wire&) = delete;
    Wire& operator=(const Wire&) = delete;

    ~Wire()
    {
        if (!m_Taken)
            ::close(m_ServerEnd);
        ::close(m_TestEnd);
    }

    int GetServerEnd() const { return m_ServerEnd; }

    // The caller closes it from now on.
    int TakeServerEnd()
    {
        m_Taken = true;
        return m_ServerEnd;
    }

    void MakeReadable() { EXPECT_EQ(::write(m_TestEnd, "x", 1), 1); }

    bool IsServerEndClosed()
    {
        char byte;
        const ssize_t count = ::recv(m_TestEnd, &byte, 1, MSG_DONTWAIT);
        return count == 0 || (count < 0 && errno == ECONNRESET); // the latter when it had bytes unread
    }

private:
    int m_ServerEnd{-1};
    int m_TestEnd{-1};
    bool m_Taken{false};
};

// A server that prints the name of each callback, so that the log shows them in their place among the library's lines.
class ProbeServer : public CQDSocketThread
{
public:
    using CQDSocketThread::CloseSockets;
    using CQDSocketThread::PauseUntilCommand;

    explicit ProbeServer(COutputLog* log) : CQDSocketThread(log) {}

    ProbeServer(const ProbeServer&) = delete;
    ProbeServer& operator=(const ProbeServer&) = delete;

    ~ProbeServer() override { StopSocketThread(); }

    // Has CreateSockets() put the wire's end into the array.
    void Use(Wire& wire) { m_Wires.push_back(&wire); }

    void SetPrefix(const char* text, unsigned int length)
    {
        std::snprintf(m_LogPrefix, sizeof m_LogPrefix, "%s", text);
        m_LogPrefixLength = length;
    }

    int GetSocketCount() const { return m_SocketCount; }

    std::thread::id GetThreadOf(const std::string& callback) const
    {
        const std::lock_guard lock(m_Mutex);
        for (const auto& [name, thread] : m_Callbacks) {
            if (name == callback)
                return thread;
        }
        return {};
    }

    bool CreateSockets() override
    {
        Note("CreateSockets");
        for (Wire* wire : m_Wires)
            m_Sockets[m_SocketCount++] = wire->TakeServerEnd();
        return m_CreateSucceeds;
    }

    void OnSocketThreadStart() override
    {
        m_Thread.store(::pthread_self());
        Note("OnSocketThreadStart");
        m_AtStart();
    }

    long long GetNextSocketThreadTimeout(long long now) override { return m_NextTimeout(now); }

    void OnSocketThreadTimeout() override
    {
        Note("OnSocketThreadTimeout");
        m_AtTimeout();
    }

    void OnSocketThreadEvent(int event) override
    {
        char name[40];
        std::snprintf(name, sizeof name, "OnSocketThreadEvent %d", event);
        Note(name);
        m_AtEvent(event);
    }

    void OnSocketEvent(int socket) override
    {
        Note(socket == m_Sockets[0] ? "OnSocketEvent of the first" : "OnSocketEvent of the second");
        m_AtSocketEvent(socket);
    }

    void OnSocketThreadExit() override { Note("OnSocketThreadExit"); }

    void OnSocketThreadStopped() override
    {
        Note("OnSocketThreadStopped");
        m_AtStopped();
    }

    static void TakeByte(int socket)
    {
        char byte;
        EXPECT_EQ(::recv(socket, &byte, 1, 0), 1);
    }

    // What the callbacks do besides. Set before the start.
    bool m_CreateSucceeds{true};
    std::function<void()> m_AtStart = [] {};
    std::function<long long(long long)> m_NextTimeout = [](long long) { return kNever; };
    std::function<void()> m_AtTimeout = [] {};
    std::function<void(int)> m_AtEvent = [](int) {};
    std::function<void(int)> m_AtSocketEvent = [](int socket) { TakeByte(socket); };
    std::function<void()> m_AtStopped = [] {};

    std::atomic<pthread_t> m_Thread{}; // the socket thread, once it has started

private:
    void Note(const char* name)
    {
        PrintLog("%s", name);
        const std::lock_guard lock(m_Mutex);
        m_Callbacks.emplace_back(name, std::this_thread::get_id());
    }

    std::vector<Wire*> m_Wires;
    mutable std::mutex m_Mutex;
    std::vector<std::pair<std::string, std::thread::id>> m_Callbacks; // m_Mutex
};

// A server with nothing but what it must have.
class BareServer : public CQDSocketThread
{
public:
    using CQDSocketThread::CQDSocketThread;
    using CQDSocketThread::GetNextSocketThreadTimeout;

    bool CreateSockets() override { return true; }

    void OnSocketEvent(int) override {}
};

bool WaitForLine(const RecordingLog& log, const char* text)
{
    return WaitUntil([&] { return log.Has(text); });
}

// The descriptors that the start of the server opened: the read end of its pipe, then the write end.
std::vector<int> StartAndFindPipe(CQDSocketThread& server)
{
    const std::set<int> before = GetOpenDescriptors();
    EXPECT_TRUE(server.StartSocketThread());
    std::vector<int> opened;
    for (const int fd : GetOpenDescriptors()) {
        if (before.count(fd) == 0)
            opened.push_back(fd);
    }
    return opened;
}

} // namespace

// Counts the waits for a thread's end, and refuses some without waiting.
extern "C" int pthread_timedjoin_np(pthread_t thread, void** result, const timespec* deadline)
{
    static const auto next = NextFunction("pthread_timedjoin_np", &pthread_timedjoin_np);
    {
        const std::lock_guard lock(g_TimedJoinMutex);
        g_TimedJoins.push_back({UtcNowTicks(), TicksOf(*deadline)});
    }
    if (g_TimedJoinsToRefuse.load() > 0) {
        g_TimedJoinsToRefuse.fetch_sub(1);
        return ETIMEDOUT;
    }
    return next(thread, result, deadline);
}

TEST(CQDSocketThread, VirtualOperationsStandInTheirOrder)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<CQDSocketThread>); // takes the positions 0 and 1
    EXPECT_EQ(VirtualSlot(&ProbeServer::CreateSockets), 2);
    EXPECT_EQ(VirtualSlot(&ProbeServer::OnSocketThreadStart), 3);
    EXPECT_EQ(VirtualSlot(&ProbeServer::GetNextSocketThreadTimeout), 4);
    EXPECT_EQ(VirtualSlot(&ProbeServer::OnSocketThreadTimeout), 5);
    EXPECT_EQ(VirtualSlot(&ProbeServer::OnSocketThreadEvent), 6);
    EXPECT_EQ(VirtualSlot(&ProbeServer::OnSocketEvent), 7);
    EXPECT_EQ(VirtualSlot(&ProbeServer::OnSocketThreadExit), 8);
    EXPECT_EQ(VirtualSlot(&ProbeServer::OnSocketThreadStopped), 9);
}

TEST(CQDSocketThread, SocketsAndTheirEventAreForTheDerivedClass)
{
    EXPECT_TRUE(std::is_abstract_v<CQDSocketThread>);
    EXPECT_FALSE(std::is_abstract_v<BareServer>); // has only CreateSockets() and OnSocketEvent()
}

TEST(CQDSocketThread, NewServerDoesNotRunAndHasNoSockets)
{
    RecordingLog log;

    ProbeServer server(&log);

    EXPECT_FALSE(server.IsSocketServerRunning());
    EXPECT_EQ(server.GetSocketCount(), 0);
    EXPECT_THAT(log.GetTexts(), ElementsAre());
}

TEST(CQDSocketThread, WholeLifePrintsEveryStepInOrder)
{
    RecordingLog log;
    ProbeServer server(&log);

    EXPECT_TRUE(server.StartSocketThread());
    ASSERT_TRUE(WaitForLine(log, "OnSocketThreadStart"));
    server.StopSocketThread();

    EXPECT_THAT(log.GetTexts(),
                ElementsAre("Starting thread...", "CreateSockets", "Listen thread started", "OnSocketThreadStart",
                            "Stopping thread...", "Sending shutdown command",
                            "Listen thread has received an exit request", "OnSocketThreadExit", "Listen thread exiting",
                            "Delete stopped TCP Server...", "OnSocketThreadStopped"));
}

TEST(CQDSocketThread, CallbacksThatAreNotOverriddenDoNothing)
{
    RecordingLog log;
    BareServer server(&log);

    EXPECT_TRUE(server.StartSocketThread());
    server.TriggerServerEvent(3);
    ASSERT_TRUE(WaitForLine(log, "Thread Rx invalid command 3"));
    server.StopSocketThread();

    EXPECT_THAT(log.GetTexts(), ElementsAre("Starting thread...", "Listen thread started",
                                            "Thread Rx invalid command 3", "Stopping thread...",
                                            "Sending shutdown command", "Listen thread has received an exit request",
                                            "Listen thread exiting", "Delete stopped TCP Server..."));
}

TEST(CQDSocketThread, CallbacksOfTheLoopRunOnTheSocketThread)
{
    RecordingLog log;
    Wire wire;
    ProbeServer server(&log);
    server.Use(wire);
    std::atomic<bool> timeOutNow{true};
    std::atomic<std::thread::id> askedOn{};
    server.m_NextTimeout = [&](long long now) {
        askedOn.store(std::this_thread::get_id());
        return timeOutNow.load() ? now : kNever;
    };
    server.m_AtTimeout = [&] { timeOutNow.store(false); };
    ASSERT_TRUE(server.StartSocketThread());
    server.TriggerServerEvent(1);
    wire.MakeReadable();
    ASSERT_TRUE(WaitForLine(log, "OnSocketThreadTimeout"));
    ASSERT_TRUE(WaitForLine(log, "OnSocketThreadEvent 1"));
    ASSERT_TRUE(WaitForLine(log, "OnSocketEvent of the first"));

    server.StopSocketThread();

    const std::thread::id socketThread = server.GetThreadOf("OnSocketThreadStart");
    EXPECT_NE(socketThread, std::thread::id());
    EXPECT_NE(socketThread, std::this_thread::get_id());
    EXPECT_EQ(askedOn.load(), socketThread);
    EXPECT_EQ(server.GetThreadOf("OnSocketThreadTimeout"), socketThread);
    EXPECT_EQ(server.GetThreadOf("OnSocketThreadEvent 1"), socketThread);
    EXPECT_EQ(server.GetThreadOf("OnSocketEvent of the first"), socketThread);
    EXPECT_EQ(server.GetThreadOf("OnSocketThreadExit"), socketThread);
}

TEST(CQDSocketThread, SocketsAreMadeOnTheStartingAndLeftOnTheStoppingThread)
{
    RecordingLog log;
    ProbeServer server(&log);
    std::thread::id stopper;

    ASSERT_TRUE(server.StartSocketThread());
    TestThread stopping([&] {
        stopper = std::this_thread::get_id();
        server.StopSocketThread();
    });
    stopping.Join();

    EXPECT_EQ(server.GetThreadOf("CreateSockets"), std::this_thread::get_id());
    EXPECT_EQ(server.GetThreadOf("OnSocketThreadStopped"), stopper);
}

TEST(CQDSocketThread, StartIsCalledBeforeTheLoop)
{
    RecordingLog log;
    Wire wire;
    wire.MakeReadable();
    ProbeServer server(&log);
    server.Use(wire);
    Gate gate;
    server.m_AtStart = [&] { gate.Wait(); };
    const FaultPlan selects("select", INT_MAX, EIO);

    ASSERT_TRUE(server.StartSocketThread());
    ASSERT_TRUE(gate.WaitUntilReached());

    EXPECT_EQ(selects.GetCallCount(), 0);
    gate.Open();
    EXPECT_TRUE(WaitForLine(log, "OnSocketEvent of the first"));
}

TEST(CQDSocketThread, ServerRunsFromItsStartToItsStop)
{
    RecordingLog log;
    ProbeServer server(&log);

    EXPECT_TRUE(server.StartSocketThread());
    EXPECT_TRUE(server.IsSocketServerRunning());
    server.StopSocketThread();

    EXPECT_FALSE(server.IsSocketServerRunning());
}

TEST(CQDSocketThread, FailedCreateSocketsLeavesNoThreadAndNoPipe)
{
    RecordingLog log;
    ProbeServer server(&log);
    server.m_CreateSucceeds = false;
    const FaultPlan pipes("pipe2", INT_MAX, EMFILE);

    EXPECT_FALSE(server.StartSocketThread());

    EXPECT_THAT(log.GetTexts(), ElementsAre("Starting thread...", "CreateSockets"));
    EXPECT_EQ(pipes.GetCallCount(), 0);
    EXPECT_FALSE(server.IsSocketServerRunning());
}

TEST(CQDSocketThread, SocketsOfAFailedCreateSocketsAreClosed)
{
    RecordingLog log;
    Wire wire;
    ProbeServer server(&log);
    server.Use(wire);
    server.m_CreateSucceeds = false;

    EXPECT_FALSE(server.StartSocketThread());

    EXPECT_TRUE(wire.IsServerEndClosed());
    EXPECT_EQ(server.GetSocketCount(), 0);
}

TEST(CQDSocketThread, FailedStartIsPrintedAndLeavesNothing)
{
    const struct
    {
        const char* m_Function;
        int m_Error;
        const char* m_Line;
    } cases[] = {
        {"pipe2", EMFILE, "pipe() failed. Error 24: Too many open files"},
        {"pthread_create", EAGAIN, "pthread_create() failed. Error 11: Resource temporarily unavailable"},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Function);
        RecordingLog log;
        Wire first;
        Wire second;
        ProbeServer server(&log);
        server.Use(first);
        server.Use(second);
        const std::set<int> before = GetOpenDescriptors();
        const FaultPlan plan(c.m_Function, 1, c.m_Error);

        EXPECT_FALSE(server.StartSocketThread());

        EXPECT_THAT(log.GetTexts(), ElementsAre("Starting thread...", "CreateSockets", c.m_Line));
        EXPECT_FALSE(server.IsSocketServerRunning());
        EXPECT_TRUE(first.IsServerEndClosed());
        EXPECT_TRUE(second.IsServerEndClosed());
        EXPECT_EQ(GetOpenDescriptors().size(), before.size() - 2); // the two sockets; no pipe has come
    }
}

TEST(CQDSocketThread, StartAfterAFailedStartSucceeds)
{
    for (const char* function : {"pipe2", "pthread_create"}) {
        SCOPED_TRACE(function);
        RecordingLog log;
        ProbeServer server(&log);
        {
            const FaultPlan plan(function, 1, EAGAIN);
            EXPECT_FALSE(server.StartSocketThread());
        }

        EXPECT_TRUE(server.StartSocketThread());

        server.TriggerServerEvent(8);
        EXPECT_TRUE(WaitForLine(log, "OnSocketThreadEvent 8"));
    }
}

TEST(CQDSocketThread, StopAfterAFailedStartOnlyPrints)
{
    RecordingLog log;
    ProbeServer server(&log);
    server.m_CreateSucceeds = false;
    ASSERT_FALSE(server.StartSocketThread());
    log.Clear();

    server.StopSocketThread();

    EXPECT_THAT(log.GetTexts(), ElementsAre("Stopping thread..."));
}

TEST(CQDSocketThread, SocketThatFitsNoDescriptorSetFailsTheStart)
{
    RecordingLog log;
    const auto taken = std::make_unique<TakenDescriptors>(FD_SETSIZE);
    Wire wire;
    ASSERT_GE(wire.GetServerEnd(), FD_SETSIZE);
    ProbeServer server(&log);
    server.Use(wire);

    EXPECT_FALSE(server.StartSocketThread());

    EXPECT_THAT(log.GetTexts(),
                ElementsAre("Starting thread...", "CreateSockets", "socket() failed. Error 24: Too many open files"));
    EXPECT_FALSE(server.IsSocketServerRunning());
    EXPECT_TRUE(wire.IsServerEndClosed());
    EXPECT_EQ(server.GetSocketCount(), 0);
}

TEST(CQDSocketThread, PipeThatFitsNoDescriptorSetFailsTheStart)
{
    // With the first number the read end itself is too high, with the second only the write end.
    for (const int nextFree : {FD_SETSIZE, FD_SETSIZE - 1}) {
        SCOPED_TRACE(nextFree);
        RecordingLog log;
        Wire wire;
        ProbeServer server(&log);
        server.Use(wire);
        const TakenDescriptors taken(nextFree);

        EXPECT_FALSE(server.StartSocketThread());

        EXPECT_THAT(log.GetTexts(),
                    ElementsAre("Starting thread...", "CreateSockets", "pipe() failed. Error 24: Too many open files"));
        EXPECT_FALSE(server.IsSocketServerRunning());
        EXPECT_TRUE(wire.IsServerEndClosed());
        EXPECT_FALSE(IsOpen(FD_SETSIZE));
        EXPECT_FALSE(IsOpen(FD_SETSIZE + 1));
    }
}

TEST(CQDSocketThread, DescriptorsRightBelowTheLimitAreServed)
{
    RecordingLog log;
    Wire wire;
    ProbeServer server(&log);
    server.Use(wire);
    const TakenDescriptors taken(FD_SETSIZE - 2);

    ASSERT_TRUE(server.StartSocketThread());
    ASSERT_TRUE(IsOpen(FD_SETSIZE - 1));
    server.TriggerServerEvent(4);
    wire.MakeReadable();

    EXPECT_TRUE(WaitForLine(log, "OnSocketThreadEvent 4"));
    EXPECT_TRUE(WaitForLine(log, "OnSocketEvent of the first"));
}

TEST(CQDSocketThread, SecondStartFailsAndTheServerRunsOn)
{
    RecordingLog log;
    ProbeServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    ASSERT_TRUE(WaitForLine(log, "OnSocketThreadStart"));
    log.Clear();

    EXPECT_FALSE(server.StartSocketThread());

    EXPECT_THAT(log.GetTexts(), ElementsAre("Starting thread...", "Thread is running already"));
    EXPECT_TRUE(server.IsSocketServerRunning());
    server.TriggerServerEvent(2);
    EXPECT_TRUE(WaitForLine(log, "OnSocketThreadEvent 2"));
}

TEST(CQDSocketThread, ServerStartsAgainAfterItsStop)
{
    RecordingLog log;
    Wire first;
    ProbeServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    server.StopSocketThread();
    server.Use(first);
    log.Clear();

    ASSERT_TRUE(server.StartSocketThread());
    first.MakeReadable();

    EXPECT_TRUE(WaitForLine(log, "OnSocketEvent of the first"));
    server.StopSocketThread();
    EXPECT_TRUE(log.Has("OnSocketThreadStopped"));
    EXPECT_FALSE(server.IsSocketServerRunning());
}

TEST(CQDSocketThread, PipeIsClosedOnExec)
{
    RecordingLog log;
    ProbeServer server(&log);

    const std::vector<int> pipe = StartAndFindPipe(server);

    ASSERT_EQ(pipe.size(), 2u);
    EXPECT_EQ(::fcntl(pipe[0], F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(::fcntl(pipe[1], F_GETFD), FD_CLOEXEC);
}

TEST(CQDSocketThread, StopBeforeStartOnlyPrints)
{
    RecordingLog log;
    ProbeServer server(&log);

    server.StopSocketThread();

    EXPECT_THAT(log.GetTexts(), ElementsAre("Stopping thread..."));
}

TEST(CQDSocketThread, SecondStopOnlyPrints)
{
    RecordingLog log;
    ProbeServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    server.StopSocketThread();
    log.Clear();

    server.StopSocketThread();

    EXPECT_THAT(log.GetTexts(), ElementsAre("Stopping thread..."));
}

TEST(CQDSocketThread, StopClosesAllSockets)
{
    RecordingLog log;
    Wire first;
    Wire second;
    ProbeServer server(&log);
    server.Use(first);
    server.Use(second);
    ASSERT_TRUE(server.StartSocketThread());
    EXPECT_FALSE(first.IsServerEndClosed());

    server.StopSocketThread();

    EXPECT_TRUE(first.IsServerEndClosed());
    EXPECT_TRUE(second.IsServerEndClosed());
    EXPECT_EQ(server.GetSocketCount(), 0);
}

TEST(CQDSocketThread, StoppedCallbackFindsSocketsAndPipeClosedAndTheServerStillRunning)
{
    RecordingLog log;
    Wire wire;
    ProbeServer server(&log);
    server.Use(wire);
    const std::vector<int> pipe = StartAndFindPipe(server);
    ASSERT_EQ(pipe.size(), 2u);
    bool socketClosed = false;
    bool pipeOpen = true;
    int socketCount = -1;
    bool running = false;
    server.m_AtStopped = [&] {
        socketClosed = wire.IsServerEndClosed();
        pipeOpen = IsOpen(pipe[0]) || IsOpen(pipe[1]);
        socketCount = server.GetSocketCount();
        running = server.IsSocketServerRunning();
    };

    server.StopSocketThread();

    EXPECT_TRUE(socketClosed);
    EXPECT_FALSE(pipeOpen);
    EXPECT_EQ(socketCount, 0);
    EXPECT_TRUE(running);
}

TEST(CQDSocketThread, StopWaits500MillisecondsThen1000AtATimeWithoutLimit)
{
    RecordingLog log;
    ProbeServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    g_TimedJoins.clear();
    g_TimedJoinsToRefuse.store(5);
    long long notBefore = UtcNowTicks();

    server.StopSocketThread();

    const long long waits[] = {500, 1000, 1000, 1000, 1000, 1000}; // ms
    ASSERT_EQ(g_TimedJoins.size(), std::size(waits));
    for (std::size_t i = 0; i < std::size(waits); ++i) {
        SCOPED_TRACE(i);
        // The deadline less the wait is the time at which it was computed.
        const long long computedAt = g_TimedJoins[i].m_Deadline - waits[i] * kTicksPerMillisecond;
        EXPECT_GE(computedAt, notBefore);
        EXPECT_LE(computedAt, g_TimedJoins[i].m_CalledAt);
        notBefore = g_TimedJoins[i].m_CalledAt;
    }
    EXPECT_FALSE(server.IsSocketServerRunning());
    EXPECT_EQ(log.Count("Sending shutdown command"), 1u);
}

TEST(CQDSocketThread, StopWaitsForACallbackThatIsBusyBeyondTheFirstWait)
{
    RecordingLog log;
    ProbeServer server(&log);
    std::atomic<bool> callbackDone{false};
    bool doneAtStop = false;
    server.m_AtEvent = [&](int) {
        std::this_thread::sleep_for(700ms); // the work, not a synchronisation
        callbackDone.store(true);
    };
    server.m_AtStopped = [&] { doneAtStop = callbackDone.load(); };
    ASSERT_TRUE(server.StartSocketThread());
    server.TriggerServerEvent(1);
    ASSERT_TRUE(WaitForLine(log, "OnSocketThreadEvent 1"));

    server.StopSocketThread();

    EXPECT_TRUE(doneAtStop);
    EXPECT_FALSE(server.IsSocketServerRunning());
}

TEST(CQDSocketThread, ShutdownCommandDoesNotWait)
{
    RecordingLog log;
    ProbeServer server(&log);
    Gate gate;
    server.m_AtStart = [&] { gate.Wait(); };
    ASSERT_TRUE(server.StartSocketThread());
    ASSERT_TRUE(gate.WaitUntilReached());
    log.Clear();

    server.BeginSocketServerShutdown();

    EXPECT_THAT(log.GetTexts(), ElementsAre("Sending shutdown command")); // the thread is still in its callback
    EXPECT_TRUE(server.IsSocketServerRunning());
    gate.Open();
}

TEST(CQDSocketThread, WaitIsTrueAtOnceWhenNotRunning)
{
    RecordingLog log;
    ProbeServer server(&log);
    g_TimedJoins.clear();

    EXPECT_TRUE(server.WaitForSocketServerShutdown(60000));

    EXPECT_TRUE(g_TimedJoins.empty());
    EXPECT_THAT(log.GetTexts(), ElementsAre());
}

TEST(CQDSocketThread, WaitIsFalseUntilTheThreadHasEnded)
{
    RecordingLog log;
    ProbeServer server(&log);
    Gate gate;
    server.m_AtStart = [&] { gate.Wait(); };
    ASSERT_TRUE(server.StartSocketThread());
    server.BeginSocketServerShutdown();

    EXPECT_FALSE(server.WaitForSocketServerShutdown(0));
    EXPECT_FALSE(server.WaitForSocketServerShutdown(20));
    gate.Open();

    EXPECT_TRUE(server.WaitForSocketServerShutdown(20000));
}

TEST(CQDSocketThread, WaitTakesItsTimeBeforeItGivesUp)
{
    RecordingLog log;
    ProbeServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    const long long start = UtcNowTicks();

    EXPECT_FALSE(server.WaitForSocketServerShutdown(60));

    EXPECT_GE(UtcNowTicks() - start, 60 * kTicksPerMillisecond);
}

TEST(CQDSocketThread, WaitAfterTheThreadWasJoinedIsTrueAgain)
{
    RecordingLog log;
    ProbeServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    server.BeginSocketServerShutdown();
    ASSERT_TRUE(server.WaitForSocketServerShutdown(20000));

    EXPECT_TRUE(server.WaitForSocketServerShutdown(0));

    EXPECT_TRUE(server.IsSocketServerRunning()); // until it is deleted
}

TEST(CQDSocketThread, StepsOfAStopCanBeTakenOneByOne)
{
    RecordingLog log;
    Wire wire;
    ProbeServer server(&log);
    server.Use(wire);
    ASSERT_TRUE(server.StartSocketThread());
    server.BeginSocketServerShutdown();
    ASSERT_TRUE(server.WaitForSocketServerShutdown(20000));
    EXPECT_TRUE(server.IsSocketServerRunning());
    EXPECT_FALSE(wire.IsServerEndClosed());
    log.Clear();

    server.DeleteStoppedSocketServer();

    EXPECT_THAT(log.GetTexts(), ElementsAre("Delete stopped TCP Server...", "OnSocketThreadStopped"));
    EXPECT_FALSE(server.IsSocketServerRunning());
    EXPECT_TRUE(wire.IsServerEndClosed());
}

TEST(CQDSocketThread, DeleteOfAServerThatDoesNotRunOnlyPrints)
{
    RecordingLog log;
    ProbeServer server(&log);

    server.DeleteStoppedSocketServer();

    EXPECT_THAT(log.GetTexts(), ElementsAre("Delete stopped TCP Server..."));
}

TEST(CQDSocketThreadDeathTest, DeleteWithoutAWaitIsAProgrammingError)
{
    RecordingLog log;
    ProbeServer server(&log);

    EXPECT_DEATH(
        {
            server.StartSocketThread();
            server.DeleteStoppedSocketServer();
        },
        "m_Joined");
}

TEST(CQDSocketThread, CloseSocketsClosesEachAndEmptiesTheArray)
{
    RecordingLog log;
    Wire first;
    Wire second;
    ProbeServer server(&log);
    server.Use(first);
    server.Use(second);
    ASSERT_TRUE(server.CreateSockets());
    ASSERT_EQ(server.GetSocketCount(), 2);

    server.CloseSockets();

    EXPECT_EQ(server.GetSocketCount(), 0);
    EXPECT_TRUE(first.IsServerEndClosed());
    EXPECT_TRUE(second.IsServerEndClosed());
}

TEST(CQDSocketThread, SocketsThatACallbackClosesAreNotServedInThatPass)
{
    RecordingLog log;
    Wire first;
    Wire second;
    ProbeServer server(&log);
    server.Use(first);
    server.Use(second);
    Gate gate;
    server.m_AtStart = [&] { gate.Wait(); };
    server.m_AtSocketEvent = [&](int) { server.CloseSockets(); };
    ASSERT_TRUE(server.StartSocketThread());
    first.MakeReadable();
    second.MakeReadable();

    gate.Open();
    ASSERT_TRUE(WaitForLine(log, "OnSocketEvent of the first"));
    server.StopSocketThread();

    EXPECT_FALSE(log.Has("OnSocketEvent of the second"));
    EXPECT_EQ(log.CountContaining("select() returned"), 0u);
    EXPECT_TRUE(second.IsServerEndClosed());
}

TEST(CQDSocketThread, EveryEventIsPrintedAsInvalidAfterItsCallback)
{
    RecordingLog log;
    ProbeServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    ASSERT_TRUE(WaitForLine(log, "OnSocketThreadStart"));
    log.Clear();
    std::vector<std::string> expected;
    for (int event = 0; event <= 254; ++event) {
        expected.push_back("OnSocketThreadEvent " + std::to_string(event));
        expected.push_back("Thread Rx invalid command " + std::to_string(event));
    }

    for (int event = 0; event <= 254; ++event)
        server.TriggerServerEvent(event);
    ASSERT_TRUE(WaitForLine(log, "Thread Rx invalid command 254"));

    EXPECT_EQ(log.GetTexts(), expected);
}

TEST(CQDSocketThread, EventsAreCutToTheirLowEightBits)
{
    const struct
    {
        int m_Event;
        const char* m_Line;
    } cases[] = {
        {256, "OnSocketThreadEvent 0"},          {0x1FE, "OnSocketThreadEvent 254"}, {-2, "OnSocketThreadEvent 254"},
        {0x12345680, "OnSocketThreadEvent 128"}, {INT_MIN, "OnSocketThreadEvent 0"},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Event);
        RecordingLog log;
        ProbeServer server(&log);
        ASSERT_TRUE(server.StartSocketThread());

        server.TriggerServerEvent(c.m_Event);

        EXPECT_TRUE(WaitForLine(log, c.m_Line));
    }
}

TEST(CQDSocketThread, Event255IsTheStopCommand)
{
    for (const int event : {255, 0x2FF, -1}) {
        SCOPED_TRACE(event);
        RecordingLog log;
        ProbeServer server(&log);
        ASSERT_TRUE(server.StartSocketThread());

        server.TriggerServerEvent(event);

        EXPECT_TRUE(server.WaitForSocketServerShutdown(20000));
        EXPECT_EQ(log.CountContaining("OnSocketThreadEvent"), 0u);
        EXPECT_TRUE(log.Has("Listen thread has received an exit request"));
    }
}

TEST(CQDSocketThread, EventsToAServerThatDoesNotRunGoNowhere)
{
    RecordingLog log;
    ProbeServer server(&log);

    server.TriggerServerEvent(1);
    ASSERT_TRUE(server.StartSocketThread());
    ASSERT_TRUE(WaitForLine(log, "OnSocketThreadStart"));
    server.StopSocketThread();
    server.TriggerServerEvent(2);

    EXPECT_EQ(log.CountContaining("OnSocketThreadEvent"), 0u);
}

TEST(CQDSocketThread, EventsOfManyThreadsAllArrive)
{
    ProbeServer server(nullptr);
    std::atomic<int> sum{0};
    server.m_AtEvent = [&](int event) { sum.fetch_add(event); };
    ASSERT_TRUE(server.StartSocketThread());

    {
        std::vector<std::unique_ptr<TestThread>> senders;
        for (int i = 1; i <= 4; ++i) {
            senders.push_back(std::make_unique<TestThread>([&server, i] {
                for (int n = 0; n < 500; ++n)
                    server.TriggerServerEvent(i);
            }));
        }
    }

    EXPECT_TRUE(WaitUntil([&] { return sum.load() == 5000; })); // 500 * (1 + 2 + 3 + 4)
}

TEST(CQDSocketThread, EventsBeyondThePipesRoomWaitAndNoneIsLost)
{
    ProbeServer server(nullptr);
    Gate gate;
    std::atomic<int> count{0};
    server.m_AtStart = [&] { gate.Wait(); };
    server.m_AtEvent = [&](int) { count.fetch_add(1); };
    const std::vector<int> pipe = StartAndFindPipe(server);
    ASSERT_EQ(pipe.size(), 2u);
    const int room = ::fcntl(pipe[1], F_SETPIPE_SZ, 4096);
    ASSERT_GT(room, 0);

    TestThread sender([&] {
        for (int i = 0; i < room + 100; ++i)
            server.TriggerServerEvent(1);
    });
    EXPECT_TRUE(sender.WaitUntilBlocked());
    gate.Open();

    EXPECT_TRUE(WaitUntil([&] { return count.load() == room + 100; }));
}

TEST(CQDSocketThread, EventsAndStopAfterTheLoopHasEndedByItselfDoNotBlock)
{
    RecordingLog log;
    ProbeServer server(&log);
    const FaultPlan plan("select", 1, EBADF);
    const std::vector<int> pipe = StartAndFindPipe(server);
    ASSERT_EQ(pipe.size(), 2u);
    const int room = ::fcntl(pipe[1], F_SETPIPE_SZ, 4096);
    ASSERT_GT(room, 0);
    ASSERT_TRUE(WaitForLine(log, "Listen thread exiting"));

    TestThread owner([&] {
        for (int i = 0; i < room + 100; ++i)
            server.TriggerServerEvent(1);
        server.StopSocketThread();
    });
    const bool returned = WaitUntil([&] { return owner.IsDone(); }, 5s);

    EXPECT_TRUE(returned);
    char byte;
    while (!owner.IsDone() && ::read(pipe[0], &byte, 1) == 1) {
    } // lets a blocked sender go, so that the test ends
}

TEST(CQDSocketThread, ServerWithoutATimeoutSleepsUntilSomethingComes)
{
    RecordingLog log;
    ProbeServer server(&log);
    const FaultPlan selects("select", INT_MAX, EIO);
    ASSERT_TRUE(server.StartSocketThread());
    ASSERT_TRUE(WaitUntil([&] { return selects.GetCallCount() == 1; }));

    server.TriggerServerEvent(1);
    ASSERT_TRUE(WaitForLine(log, "Thread Rx invalid command 1"));
    server.StopSocketThread();

    EXPECT_EQ(selects.GetCallCount(), 2); // one that took the event and one that took the stop
    EXPECT_FALSE(log.Has("OnSocketThreadTimeout"));
}

TEST(CQDSocketThread, BaseHasNoTimeout)
{
    BareServer server(nullptr);

    EXPECT_EQ(server.GetNextSocketThreadTimeout(0), kNever);
    EXPECT_EQ(server.GetNextSocketThreadTimeout(UtcNowTicks()), kNever);
}

TEST(CQDSocketThread, TimeoutIsAskedWithTheCurrentTime)
{
    RecordingLog log;
    ProbeServer server(&log);
    std::atomic<long long> asked{0};
    server.m_NextTimeout = [&](long long now) {
        asked.store(now);
        return kNever;
    };
    const long long before = UtcNowTicks();

    ASSERT_TRUE(server.StartSocketThread());
    ASSERT_TRUE(WaitUntil([&] { return asked.load() != 0; }));

    EXPECT_GE(asked.load(), before);
    EXPECT_LE(asked.load(), UtcNowTicks());
}

TEST(CQDSocketThread, TimeoutIsAskedAnewBeforeEveryWait)
{
    RecordingLog log;
    ProbeServer server(&log);
    std::atomic<int> asked{0};
    server.m_NextTimeout = [&](long long) {
        asked.fetch_add(1);
        return kNever;
    };
    ASSERT_TRUE(server.StartSocketThread());

    server.TriggerServerEvent(1);
    server.TriggerServerEvent(2);
    ASSERT_TRUE(WaitForLine(log, "Thread Rx invalid command 2"));
    server.StopSocketThread();

    EXPECT_EQ(asked.load(), 3); // before the first event, the second and the stop
}

TEST(CQDSocketThread, TimeoutIsCalledAtItsDeadlineAndTheLoopGoesOn)
{
    RecordingLog log;
    ProbeServer server(&log);
    std::atomic<long long> deadline{0};
    std::atomic<long long> calledAt{0};
    server.m_NextTimeout = [&](long long now) {
        if (deadline.load() == 0)
            deadline.store(now + 50 * kTicksPerMillisecond);
        return calledAt.load() == 0 ? deadline.load() : kNever;
    };
    server.m_AtTimeout = [&] { calledAt.store(UtcNowTicks()); };
    ASSERT_TRUE(server.StartSocketThread());
    ASSERT_TRUE(WaitUntil([&] { return calledAt.load() != 0; }));

    // The wait is measured by another clock, which may run a little faster than UTC just now.
    EXPECT_GE(calledAt.load(), deadline.load() - kTicksPerMillisecond);
    server.TriggerServerEvent(1);
    EXPECT_TRUE(WaitForLine(log, "OnSocketThreadEvent 1"));
    EXPECT_EQ(log.Count("OnSocketThreadTimeout"), 1u);
}

TEST(CQDSocketThread, TimeoutBehindTheEndOf32BitTimesIsWaitedFor)
{
    constexpr long long kEndOf32BitTimes = 137919572480000000; // 2038-01-19 03:14:08
    const ClockShift shift(2147483646);                        // at most two seconds before
    RecordingLog log;
    ProbeServer server(&log);
    std::atomic<long long> calledAt{0};
    server.m_NextTimeout = [&](long long) {
        return calledAt.load() == 0 ? kEndOf32BitTimes + 20 * kTicksPerMillisecond : kNever;
    };
    server.m_AtTimeout = [&] { calledAt.store(CQDTimestamp::UTCNow().GetValue()); };

    ASSERT_TRUE(server.StartSocketThread());
    ASSERT_TRUE(WaitUntil([&] { return calledAt.load() != 0; }));

    EXPECT_GE(calledAt.load(), kEndOf32BitTimes + 19 * kTicksPerMillisecond);
    EXPECT_EQ(log.Count("OnSocketThreadTimeout"), 1u);
}

TEST(CQDSocketThread, TimeoutThatHasPassedPolls)
{
    const struct
    {
        const char* m_Name;
        std::function<long long(long long)> m_NextTimeout;
    } cases[] = {
        {"now", [](long long now) { return now; }},
        {"just passed", [](long long now) { return now - 1; }},
        {"tick 0", [](long long) { return 0LL; }},
        {"smallest", [](long long) { return LLONG_MIN; }},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Name);
        RecordingLog log;
        ProbeServer server(&log);
        std::atomic<int> calls{0};
        server.m_NextTimeout = [&](long long now) { return calls.load() < 3 ? c.m_NextTimeout(now) : kNever; };
        server.m_AtTimeout = [&] { calls.fetch_add(1); };

        ASSERT_TRUE(server.StartSocketThread());

        EXPECT_TRUE(WaitUntil([&] { return calls.load() == 3; }));
    }
}

TEST(CQDSocketThread, TimeoutsOfAPollingServerDoNotKeepReadySocketsWaiting)
{
    RecordingLog log;
    Wire wire;
    wire.MakeReadable();
    ProbeServer server(&log);
    server.Use(wire);
    server.m_NextTimeout = [&](long long now) { return log.Has("OnSocketEvent of the first") ? kNever : now; };
    server.m_AtStart = [&] { log.Clear(); };

    ASSERT_TRUE(server.StartSocketThread());
    ASSERT_TRUE(WaitForLine(log, "OnSocketEvent of the first"));

    EXPECT_FALSE(log.Has("OnSocketThreadTimeout"));
}

TEST(CQDSocketThread, TimeoutTooFarAwayIsNoError)
{
    RecordingLog log;
    ProbeServer server(&log);
    server.m_NextTimeout = [](long long) { return kNever - 1; };
    ASSERT_TRUE(server.StartSocketThread());

    server.TriggerServerEvent(1);

    EXPECT_TRUE(WaitForLine(log, "OnSocketThreadEvent 1"));
    EXPECT_EQ(log.CountContaining("select() returned"), 0u);
    EXPECT_FALSE(log.Has("OnSocketThreadTimeout"));
}

TEST(CQDSocketThread, OnlyTheReadySocketIsServed)
{
    const struct
    {
        int m_Ready;
        const char* m_Served;
        const char* m_NotServed;
    } cases[] = {
        {0, "OnSocketEvent of the first", "OnSocketEvent of the second"},
        {1, "OnSocketEvent of the second", "OnSocketEvent of the first"},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Served);
        RecordingLog log;
        Wire wires[2];
        ProbeServer server(&log);
        server.Use(wires[0]);
        server.Use(wires[1]);
        ASSERT_TRUE(server.StartSocketThread());

        wires[c.m_Ready].MakeReadable();
        ASSERT_TRUE(WaitForLine(log, c.m_Served));
        server.StopSocketThread();

        EXPECT_FALSE(log.Has(c.m_NotServed));
    }
}

TEST(CQDSocketThread, SocketEventComesWithTheSocket)
{
    RecordingLog log;
    Wire wire;
    ProbeServer server(&log);
    server.Use(wire);
    std::atomic<int> served{-1};
    server.m_AtSocketEvent = [&](int socket) {
        ProbeServer::TakeByte(socket);
        served.store(socket);
    };
    ASSERT_TRUE(server.StartSocketThread());

    wire.MakeReadable();

    EXPECT_TRUE(WaitUntil([&] { return served.load() != -1; }));
    EXPECT_EQ(served.load(), wire.GetServerEnd());
}

TEST(CQDSocketThread, SocketIsServedAgainAsLongAsItIsReadable)
{
    RecordingLog log;
    Wire wire;
    wire.MakeReadable();
    ProbeServer server(&log);
    server.Use(wire);
    std::atomic<int> calls{0};
    server.m_AtSocketEvent = [&](int socket) {
        if (calls.fetch_add(1) == 2) // leaves the byte twice
            ProbeServer::TakeByte(socket);
    };

    ASSERT_TRUE(server.StartSocketThread());
    ASSERT_TRUE(WaitUntil([&] { return calls.load() == 3; }));
    server.StopSocketThread();

    EXPECT_EQ(calls.load(), 3);
}

TEST(CQDSocketThread, ReadySocketsAreServedInTheOrderOfTheArray)
{
    for (const bool higherNumberFirst : {false, true}) {
        SCOPED_TRACE(higherNumberFirst);
        RecordingLog log;
        Wire low;
        Wire high;
        ASSERT_LT(low.GetServerEnd(), high.GetServerEnd());
        ProbeServer server(&log);
        server.Use(higherNumberFirst ? high : low);
        server.Use(higherNumberFirst ? low : high);
        low.MakeReadable();
        high.MakeReadable();
        server.m_AtStart = [&] { log.Clear(); };

        ASSERT_TRUE(server.StartSocketThread());
        ASSERT_TRUE(WaitForLine(log, "OnSocketEvent of the second"));

        EXPECT_THAT(log.GetTexts(), ElementsAre("OnSocketEvent of the first", "OnSocketEvent of the second"));
    }
}

TEST(CQDSocketThread, EachPassTakesOneCommandAndThenTheSockets)
{
    RecordingLog log;
    Wire wire;
    ProbeServer server(&log);
    server.Use(wire);
    Gate gate;
    server.m_AtStart = [&] {
        gate.Wait();
        log.Clear();
    };
    ASSERT_TRUE(server.StartSocketThread());
    server.TriggerServerEvent(1);
    server.TriggerServerEvent(2);
    wire.MakeReadable();
    wire.MakeReadable();

    gate.Open();
    ASSERT_TRUE(WaitUntil([&] { return log.Count("OnSocketEvent of the first") == 2; }));

    EXPECT_THAT(log.GetTexts(),
                ElementsAre("OnSocketThreadEvent 1", "Thread Rx invalid command 1", "OnSocketEvent of the first",
                            "OnSocketThreadEvent 2", "Thread Rx invalid command 2", "OnSocketEvent of the first"));
}

TEST(CQDSocketThread, StopCommandWinsOverReadySockets)
{
    RecordingLog log;
    Wire first;
    Wire second;
    ProbeServer server(&log);
    server.Use(first);
    server.Use(second);
    Gate gate;
    server.m_AtStart = [&] { gate.Wait(); };
    ASSERT_TRUE(server.StartSocketThread());
    first.MakeReadable();
    second.MakeReadable();
    server.BeginSocketServerShutdown();

    gate.Open();
    ASSERT_TRUE(server.WaitForSocketServerShutdown(20000));

    EXPECT_EQ(log.CountContaining("OnSocketEvent"), 0u);
    EXPECT_TRUE(log.Has("Listen thread has received an exit request"));
}

TEST(CQDSocketThread, InterruptedSelectIsPrintedAndTheLoopContinues)
{
    RecordingLog log;
    ProbeServer server(&log);
    const FaultPlan plan("select", 1, EINTR);

    ASSERT_TRUE(server.StartSocketThread());
    ASSERT_TRUE(WaitForLine(log, "select() returned -1, errno = EINTR"));
    server.TriggerServerEvent(5);
    ASSERT_TRUE(WaitForLine(log, "Thread Rx invalid command 5"));

    EXPECT_THAT(log.GetTexts(), ElementsAre("Starting thread...", "CreateSockets", "Listen thread started",
                                            "OnSocketThreadStart", "select() returned -1, errno = EINTR",
                                            "OnSocketThreadEvent 5", "Thread Rx invalid command 5"));
}

TEST(CQDSocketThread, SignalDuringSelectIsPrintedAndTheLoopContinues)
{
    RecordingLog log;
    const SignalCounter signals(SIGUSR1);
    ProbeServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    ASSERT_TRUE(WaitForLine(log, "OnSocketThreadStart"));

    // The first signals may come before the thread waits.
    EXPECT_TRUE(WaitUntil([&] {
        ::pthread_kill(server.m_Thread.load(), SIGUSR1);
        return log.Has("select() returned -1, errno = EINTR");
    }));

    EXPECT_GT(signals.GetCount(), 0);
    server.TriggerServerEvent(6);
    EXPECT_TRUE(WaitForLine(log, "OnSocketThreadEvent 6"));
    EXPECT_FALSE(log.Has("OnSocketThreadTimeout"));
    server.StopSocketThread(); // no signal is left to be delivered after the handler has gone
}

TEST(CQDSocketThread, OtherSelectErrorsEndTheLoop)
{
    const struct
    {
        int m_Error;
        const char* m_Line;
    } cases[] = {
        {EBADF, "select() returned -1, errno = 9"},
        {ENOMEM, "select() returned -1, errno = 12"},
        {EINVAL, "select() returned -1, errno = 22"},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Line);
        RecordingLog log;
        Wire wire;
        wire.MakeReadable();
        ProbeServer server(&log);
        server.Use(wire);
        const FaultPlan plan("select", 1, c.m_Error);

        ASSERT_TRUE(server.StartSocketThread());
        ASSERT_TRUE(WaitForLine(log, "Listen thread exiting"));

        EXPECT_THAT(log.GetTexts(),
                    ElementsAre("Starting thread...", "CreateSockets", "Listen thread started", "OnSocketThreadStart",
                                c.m_Line, "Don't know how to recover so quitting thread loop", "OnSocketThreadExit",
                                "Listen thread exiting"));
    }
}

TEST(CQDSocketThread, ServerWhoseLoopHasEndedByItselfIsStoppedLikeAnyOther)
{
    RecordingLog log;
    Wire wire;
    ProbeServer server(&log);
    server.Use(wire);
    const FaultPlan plan("select", 1, EBADF);
    ASSERT_TRUE(server.StartSocketThread());
    ASSERT_TRUE(WaitForLine(log, "Listen thread exiting"));
    EXPECT_TRUE(server.IsSocketServerRunning());
    EXPECT_FALSE(wire.IsServerEndClosed());
    log.Clear();

    server.StopSocketThread();

    EXPECT_THAT(log.GetTexts(), ElementsAre("Stopping thread...", "Sending shutdown command",
                                            "Delete stopped TCP Server...", "OnSocketThreadStopped"));
    EXPECT_FALSE(server.IsSocketServerRunning());
    EXPECT_TRUE(wire.IsServerEndClosed());
}

TEST(CQDSocketThread, FailedPipeReadEndsTheLoopBeforeTheSockets)
{
    RecordingLog log;
    Wire wire;
    ProbeServer server(&log);
    server.Use(wire);
    Gate gate;
    server.m_AtStart = [&] {
        gate.Wait();
        log.Clear();
    };
    ASSERT_TRUE(server.StartSocketThread());
    server.TriggerServerEvent(7);
    wire.MakeReadable();
    const FaultPlan plan("read", 1, EIO);

    gate.Open();
    ASSERT_TRUE(server.WaitForSocketServerShutdown(20000));

    EXPECT_THAT(log.GetTexts(),
                ElementsAre("pipe read returns error 5", "OnSocketThreadExit", "Listen thread exiting"));
}

TEST(CQDSocketThread, LinesStandBehindThePrefix)
{
    RecordingLog log;
    ProbeServer server(&log);
    server.SetPrefix("TcpSvr@1502", 11);

    ASSERT_TRUE(server.StartSocketThread());
    ASSERT_TRUE(WaitForLine(log, "TcpSvr@1502: OnSocketThreadStart"));
    server.TriggerServerEvent(9);
    ASSERT_TRUE(WaitForLine(log, "TcpSvr@1502: Thread Rx invalid command 9"));
    server.StopSocketThread();

    EXPECT_THAT(log.GetTexts(),
                ElementsAre("TcpSvr@1502: Starting thread...", "TcpSvr@1502: CreateSockets",
                            "TcpSvr@1502: Listen thread started", "TcpSvr@1502: OnSocketThreadStart",
                            "TcpSvr@1502: OnSocketThreadEvent 9", "TcpSvr@1502: Thread Rx invalid command 9",
                            "TcpSvr@1502: Stopping thread...", "TcpSvr@1502: Sending shutdown command",
                            "TcpSvr@1502: Listen thread has received an exit request",
                            "TcpSvr@1502: OnSocketThreadExit", "TcpSvr@1502: Listen thread exiting",
                            "TcpSvr@1502: Delete stopped TCP Server...", "TcpSvr@1502: OnSocketThreadStopped"));
}

TEST(CQDSocketThread, PrefixIsUsedUpToItsLength)
{
    const struct
    {
        const char* m_Prefix;
        unsigned int m_Length;
        const char* m_Line;
    } cases[] = {
        {"", 0, "one 1"},
        {"Unused", 0, "one 1"},
        {"UdpSvr@502", 6, "UdpSvr: one 1"},
        {"0123456789012345678901234567890", 31, "0123456789012345678901234567890: one 1"},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Line);
        RecordingLog log;
        ProbeServer server(&log);
        server.SetPrefix(c.m_Prefix, c.m_Length);

        server.PrintLog("%s %d", "one", 1);

        EXPECT_THAT(log.GetMessages(), ElementsAre(RecordingLog::Message{COutputLog::Info, 0, c.m_Line}));
    }
}

TEST(CQDSocketThread, SocketErrorsArePrintedWithFunctionNumberAndText)
{
    const struct
    {
        int m_Error;
        const char* m_Function;
        const char* m_Line;
    } cases[] = {
        {EADDRINUSE, "bind", "TcpSvr@80: bind() failed. Error 98: Address already in use"},
        {EACCES, "setsockopt(IPPROTO_IPV6)",
         "TcpSvr@80: setsockopt(IPPROTO_IPV6)() failed. Error 13: Permission denied"},
        {0, "accept", "TcpSvr@80: accept() failed. Error 0: Success"},
        {99999, "listen", "TcpSvr@80: listen() failed. Error 99999: Unknown error 99999"},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Line);
        RecordingLog log;
        ProbeServer server(&log);
        server.SetPrefix("TcpSvr@80", 9);

        server.PrintSocketError(c.m_Error, c.m_Function);

        EXPECT_THAT(log.GetMessages(), ElementsAre(RecordingLog::Message{COutputLog::Info, 0, c.m_Line}));
    }
}

TEST(CQDSocketThread, LogCanBeSetAfterConstruction)
{
    RecordingLog unused;
    RecordingLog log;
    ProbeServer server(&unused);

    server.SetOutputLog(&log);
    ASSERT_TRUE(server.StartSocketThread());
    server.StopSocketThread();

    EXPECT_THAT(unused.GetTexts(), ElementsAre());
    EXPECT_EQ(log.Count("Listen thread exiting"), 1u);
}

TEST(CQDSocketThread, ServerWithoutALogWorks)
{
    Wire wire;
    ProbeServer server(nullptr);
    server.Use(wire);
    std::atomic<int> calls{0};
    server.m_AtSocketEvent = [&](int socket) {
        ProbeServer::TakeByte(socket);
        calls.fetch_add(1);
    };
    ASSERT_TRUE(server.StartSocketThread());
    server.TriggerServerEvent(1);
    server.PrintSocketError(EBADF, "bind");
    wire.MakeReadable();

    EXPECT_TRUE(WaitUntil([&] { return calls.load() == 1; }));
    server.StopSocketThread();
    EXPECT_FALSE(server.IsSocketServerRunning());
}

TEST(CQDSocketThread, PauseEndsWhenACommandComes)
{
    RecordingLog log;
    Wire wire;
    ProbeServer server(&log);
    server.Use(wire);
    server.m_AtSocketEvent = [&](int socket) {
        ProbeServer::TakeByte(socket);
        server.PauseUntilCommand(60000);
    };
    ASSERT_TRUE(server.StartSocketThread());
    wire.MakeReadable();
    ASSERT_TRUE(WaitForLine(log, "OnSocketEvent of the first"));

    const auto start = std::chrono::steady_clock::now();

    server.StopSocketThread();

    EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
    EXPECT_TRUE(log.Has("Listen thread has received an exit request"));
}

TEST(CQDSocketThread, PauseEndsAfterItsTime)
{
    RecordingLog log;
    ProbeServer server(&log);
    std::atomic<bool> paused{false};
    std::chrono::steady_clock::duration pause{};
    server.m_AtStart = [&] {
        const auto start = std::chrono::steady_clock::now();
        server.PauseUntilCommand(40);
        pause = std::chrono::steady_clock::now() - start;
        paused.store(true);
    };

    ASSERT_TRUE(server.StartSocketThread());

    ASSERT_TRUE(WaitUntil([&] { return paused.load(); }));
    EXPECT_GE(pause, 40ms);
}

TEST(CQDSocketThreadDeathTest, StopFromTheSocketThreadIsAProgrammingError)
{
    const auto stopFromWithin = [] {
        ProbeServer server(nullptr);
        server.m_AtStart = [&] { server.StopSocketThread(); };
        server.StartSocketThread();
        server.WaitForSocketServerShutdown(20000);
    };

    EXPECT_DEATH(stopFromWithin(), "pthread_equal\\(::pthread_self\\(\\), m_Thread\\)");
}
