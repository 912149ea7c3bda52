#include <QDPlatform/QDAsyncUrlTransferThread.h>

#include "AllocationCounter.h"
#include "CurlOptionRecorder.h"
#include "FaultPlan.h"
#include "NextFunction.h"
#include "OpenDescriptors.h"
#include "RecordingLog.h"
#include "ScriptedServer.h"
#include "TakenDescriptors.h"
#include "TemporaryFolder.h"
#include "TestServer.h"
#include "TransferSink.h"
#include "VirtualSlot.h"
#include "WaitUntil.h"

#include <QDPlatform/COutputLogNull.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace
{

using Texts = std::vector<std::string>;

class CurlEnvironment : public testing::Environment
{
public:
    void SetUp() override { QDAsyncUrlTransferThread::InitialiseUrlTransferThread(); }

    void TearDown() override { QDAsyncUrlTransferThread::CleanupUrlTransferThread(); }
};

const testing::Environment* const g_CurlEnvironment = testing::AddGlobalTestEnvironment(new CurlEnvironment);

constexpr char kGreeting[] = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nConnection: close\r\n\r\nHello";

void Greet(ScriptedConnection& connection)
{
    connection.ReadHead();
    connection.Send(kGreeting);
}

// Never answers; returns when the client has given up.
void Hang(ScriptedConnection& connection)
{
    connection.ReadToEnd();
}

// Starts a thread over a sink; the destructor stops it.
class TransferBench
{
public:
    TransferBench() : m_Thread(&m_Sink) {}

    TransferBench(const TransferBench&) = delete;
    TransferBench& operator=(const TransferBench&) = delete;

    ~TransferBench() { m_Thread.StopAsyncUrlTransferThread(); }

    void Start(COutputLog* log = nullptr) { ASSERT_TRUE(m_Thread.StartAsyncUrlTransferThread("test/1", log)); }

    // A new request of the thread.
    TalliedRequest& Queue(const std::string& url, long timeoutMs = 0)
    {
        auto* request = new TalliedRequest(url, &m_Deleted);
        request->SetTimeoutMS(timeoutMs);
        m_Thread.StartTransfer(request);
        return *request;
    }

    TransferSink m_Sink;
    std::atomic<int> m_Deleted{0};
    QDAsyncUrlTransferThread m_Thread;
};

bool WaitForState(const QDAsyncUrlRequest& request, QDAsyncUrlRequest::TransferState state)
{
    return WaitUntil([&] { return request.GetTransferState() == state; });
}

// The lines without those of libcurl's timers, whose values are its own.
Texts WithoutTimers(Texts texts)
{
    std::erase_if(texts, [](const std::string& text) {
        return text == "AsyncUrl: Timeout" || text.rfind("AsyncUrl: SetTimeout ", 0) == 0;
    });
    return texts;
}

// The heads that a server has read.
class Heads
{
public:
    void Add(const std::string& head)
    {
        const std::lock_guard lock(m_Mutex);
        m_Heads.push_back(head);
    }

    Texts Get() const
    {
        const std::lock_guard lock(m_Mutex);
        return m_Heads;
    }

private:
    mutable std::mutex m_Mutex;
    Texts m_Heads; // m_Mutex
};

// Stands in front of libcurl for one test, on the transfer thread: sees each action before libcurl does, and makes the
// thread believe what libcurl did not say. One at a time, declared before the TransferBench.
class CurlMulti
{
public:
    // Any result but CURLM_OK is what the thread gets; libcurl does not see the action then.
    using ActionHook = std::function<CURLMcode(curl_socket_t socket, int readiness)>;

    explicit CurlMulti(ActionHook hook = {}) : m_Hook(std::move(hook)) { g_Current.store(this); }

    CurlMulti(const CurlMulti&) = delete;
    CurlMulti& operator=(const CurlMulti&) = delete;

    ~CurlMulti() { g_Current.store(nullptr); }

    static CurlMulti* GetCurrent() { return g_Current.load(); }

    void KeepOption(CURLMoption option, void* value)
    {
        if (option == CURLMOPT_SOCKETFUNCTION)
            m_SocketCallback = reinterpret_cast<curl_socket_callback>(value);
        else if (option == CURLMOPT_TIMERFUNCTION)
            m_TimerCallback = reinterpret_cast<curl_multi_timer_callback>(value);
        else
            m_pThread = value;
    }

    CURLMcode BeforeAction(curl_socket_t socket, int readiness)
    {
        return m_Hook ? m_Hook(socket, readiness) : CURLM_OK;
    }

    // What follows is for callbacks on the transfer thread.
    void SayWatch(curl_socket_t socket, int action) { m_SocketCallback(nullptr, socket, action, m_pThread, nullptr); }

    void SayTimeout(long timeoutMs) { m_TimerCallback(nullptr, timeoutMs, m_pThread); }

private:
    inline static std::atomic<CurlMulti*> g_Current{nullptr};

    ActionHook m_Hook;
    curl_socket_callback m_SocketCallback{nullptr};
    curl_multi_timer_callback m_TimerCallback{nullptr};
    void* m_pThread{nullptr};
};

// A connected socket that can be written to and, with a byte that waits, read from.
class ReadySocket
{
public:
    ReadySocket()
    {
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_Ends), 0);
        EXPECT_EQ(::send(m_Ends[1], "x", 1, MSG_NOSIGNAL), 1);
    }

    ReadySocket(const ReadySocket&) = delete;
    ReadySocket& operator=(const ReadySocket&) = delete;

    ~ReadySocket()
    {
        ::close(m_Ends[0]);
        ::close(m_Ends[1]);
    }

    int Get() const { return m_Ends[0]; }

private:
    int m_Ends[2]{-1, -1};
};

// A callback that asks for the thread's lock on another thread.
class LockProbe
{
public:
    explicit LockProbe(const QDAsyncUrlTransferThread& transfers) : m_Transfers(transfers) {}

    void Call()
    {
        const std::lock_guard lock(m_Mutex);
        m_Counts.push_back(std::async(std::launch::async, [this] { return m_Transfers.GetRequestCount(); }));
        EXPECT_EQ(m_Counts.back().wait_for(20s), std::future_status::ready);
    }

    std::size_t GetCallCount() const
    {
        const std::lock_guard lock(m_Mutex);
        return m_Counts.size();
    }

private:
    const QDAsyncUrlTransferThread& m_Transfers;
    mutable std::mutex m_Mutex;
    std::vector<std::future<int>> m_Counts; // m_Mutex
};

// A sink that leaves all that it may leave.
class PlainSink : public QDAsyncUrlTransferEvent
{
public:
    void OnAsyncUrlRequestsCompleted() override {}
};

} // namespace

// Behind an enumerator C++ leaves va_start() undefined; the number is passed alike.
extern "C" CURLMcode TakeMultiOption(CURLM* multi, unsigned int number, ...) __asm__("curl_multi_setopt");

extern "C" CURLMcode TakeMultiOption(CURLM* multi, unsigned int number, ...)
{
    static auto* const next = NextFunction("curl_multi_setopt", &(curl_multi_setopt));
    va_list arguments;
    va_start(arguments, number);
    void* value = va_arg(arguments, void*); // all that the thread sets
    va_end(arguments);
    const auto option = static_cast<CURLMoption>(number);
    if (CurlMulti* curl = CurlMulti::GetCurrent())
        curl->KeepOption(option, value);
    return next(multi, option, value);
}

extern "C" CURLMcode curl_multi_socket_action(CURLM* multi, curl_socket_t socket, int readiness, int* runningHandles)
{
    static auto* const next = NextFunction("curl_multi_socket_action", &curl_multi_socket_action);
    CurlMulti* curl = CurlMulti::GetCurrent();
    const CURLMcode result = curl != nullptr ? curl->BeforeAction(socket, readiness) : CURLM_OK;
    return result != CURLM_OK ? result : next(multi, socket, readiness, runningHandles);
}

// --- The sink -------------------------------------------------------------------------------------------------------

TEST(QDAsyncUrlTransferEvent, OperationsStandInTheirOrderBehindTheDestructor)
{
    EXPECT_EQ(VirtualSlot(&QDAsyncUrlTransferEvent::OnAsyncUrlTransferThreadStart), 2);
    EXPECT_EQ(VirtualSlot(&QDAsyncUrlTransferEvent::OnAsyncUrlRequestsCompleted), 3);
    EXPECT_EQ(VirtualSlot(&QDAsyncUrlTransferEvent::OnAsyncUrlTransferThreadStop), 4);
    EXPECT_TRUE(std::has_virtual_destructor_v<QDAsyncUrlTransferEvent>);
    EXPECT_TRUE(std::is_abstract_v<QDAsyncUrlTransferEvent>);
}

TEST(QDAsyncUrlTransferEvent, StartAndStopNeedNotBeOverridden)
{
    PlainSink sink;
    ScriptedServer server(Greet);
    QDAsyncUrlTransferThread transfers(&sink);
    ASSERT_TRUE(transfers.StartAsyncUrlTransferThread("", nullptr));
    transfers.StartTransfer(new TalliedRequest(server.GetUrl()));

    const auto request = Collect(transfers);

    ASSERT_NE(request, nullptr);
    EXPECT_EQ(request->GetCurlResultCode(), CURLE_OK);
    transfers.StopAsyncUrlTransferThread();
}

// --- Start and stop -------------------------------------------------------------------------------------------------

TEST(QDAsyncUrlTransferThread, NewThreadDoesNotRunAndHasNothing)
{
    PlainSink sink;
    QDAsyncUrlTransferThread transfers(&sink);

    EXPECT_FALSE(transfers.IsThreadRunning());
    EXPECT_EQ(transfers.GetRequestCount(), 0);
    EXPECT_EQ(transfers.GetNextCompletedRequest(), nullptr);
}

TEST(QDAsyncUrlTransferThread, LifeOfOneRequestIsPrintedWordForWord)
{
    ThreadLog log;
    ScriptedServer server(Greet);
    TransferBench bench;
    bench.Start(&log);
    bench.Queue(server.GetUrl());

    const auto request = Collect(bench.m_Thread);
    bench.m_Thread.StopAsyncUrlTransferThread();

    ASSERT_NE(request, nullptr);
    EXPECT_EQ(
        log.GetTexts(std::this_thread::get_id()),
        (Texts{"AsyncUrl: Start QDAsyncUrlTransferThread thread...", "AsyncUrl: ...AsyncServerLink thread started",
               "AsyncUrl: Queue Request #1", "AsyncUrl: Return Completed Request #1",
               "AsyncUrl: Stop AsyncServerLink thread...", "AsyncUrl: ...AsyncServerLink thread stopped"}));
    const Texts texts = WithoutTimers(log.GetTexts(bench.m_Sink.GetThread()));
    ASSERT_EQ(texts.size(), 7u);
    int socket = -1;
    ASSERT_EQ(std::sscanf(texts[3].c_str(), "AsyncUrl: Socket %d", &socket), 1);
    const std::string socketText = "AsyncUrl: Socket " + std::to_string(socket);
    EXPECT_EQ(texts, (Texts{"AsyncUrl: Thread Started", "AsyncUrl: Start New Transfer", "AsyncUrl: Start request #1",
                            socketText + " Callback Action = 2 (OUT)", socketText + " Callback Action = 1 (IN)",
                            socketText + " Callback Action = 4 (REMOVE)", "AsyncUrl: Thread Stopped"}));
}

TEST(QDAsyncUrlTransferThread, MessagesAreInformationBehindThePrefix)
{
    RecordingLog log;
    ScriptedServer server(Greet);
    TransferBench bench;
    bench.Start(&log);
    bench.Queue(server.GetUrl());
    Collect(bench.m_Thread);
    bench.m_Thread.StopAsyncUrlTransferThread();

    const std::vector<RecordingLog::Message> messages = log.GetMessages();

    EXPECT_GE(messages.size(), 13u);
    for (const RecordingLog::Message& message : messages) {
        EXPECT_EQ(message.m_Type, COutputLog::Info);
        EXPECT_EQ(message.m_Code, 0);
        EXPECT_EQ(message.m_Text.rfind("AsyncUrl: ", 0), 0u) << message.m_Text;
    }
}

TEST(QDAsyncUrlTransferThread, SinkIsCalledOnOneThreadThatIsNotTheCallers)
{
    std::mutex mutex;
    std::vector<std::thread::id> threads;
    const auto note = [&] {
        const std::lock_guard lock(mutex);
        threads.push_back(std::this_thread::get_id());
    };
    ScriptedServer server(Greet);
    TransferBench bench;
    bench.m_Sink.m_OnStart = note;
    bench.m_Sink.m_OnCompleted = note;
    bench.m_Sink.m_OnStop = note;
    bench.Start();
    bench.Queue(server.GetUrl());
    Collect(bench.m_Thread);
    bench.m_Thread.StopAsyncUrlTransferThread();

    EXPECT_EQ(bench.m_Sink.GetNotes(), (Texts{"start", "completed", "stop"}));
    ASSERT_EQ(threads.size(), 3u);
    EXPECT_EQ(threads[0], threads[1]);
    EXPECT_EQ(threads[1], threads[2]);
    EXPECT_NE(threads[0], std::this_thread::get_id());
}

TEST(QDAsyncUrlTransferThread, RunningIsFromTheStartToTheStop)
{
    TransferBench bench;

    bench.Start();
    EXPECT_TRUE(bench.m_Thread.IsThreadRunning());
    bench.m_Thread.StopAsyncUrlTransferThread();
    EXPECT_FALSE(bench.m_Thread.IsThreadRunning());
}

TEST(QDAsyncUrlTransferThread, StopClosesAllThatTheStartHasOpened)
{
    TransferBench bench;
    const int descriptors = CountOpenDescriptors();

    bench.Start();
    bench.m_Thread.StopAsyncUrlTransferThread();

    EXPECT_EQ(CountOpenDescriptors(), descriptors);
}

TEST(QDAsyncUrlTransferThread, DestructorLeavesQueuedRequestsAlone)
{
    std::atomic<int> deleted{0};
    PlainSink sink;
    auto transfers = std::make_unique<QDAsyncUrlTransferThread>(&sink);
    auto* request = new TalliedRequest("http://127.0.0.1/", &deleted);
    transfers->StartTransfer(request);

    transfers.reset();

    ASSERT_EQ(deleted.load(), 0);
    delete request;
}

TEST(QDAsyncUrlTransferThread, StopOfAThreadThatDoesNotRunDoesNothing)
{
    RecordingLog log;
    TransferBench bench;

    bench.m_Thread.StopAsyncUrlTransferThread();
    bench.Start(&log);
    bench.m_Thread.StopAsyncUrlTransferThread();
    log.Clear();
    bench.m_Thread.StopAsyncUrlTransferThread();

    EXPECT_EQ(log.GetTexts(), Texts{});
    EXPECT_EQ(bench.m_Sink.GetNotes(), (Texts{"start", "stop"}));
}

TEST(QDAsyncUrlTransferThread, FailedStartLeavesNothingOpenAndSaysWhyInErrno)
{
    struct Case
    {
        const char* m_Function;
        int m_Error;
    };

    for (const Case& c : {Case{"pipe2", EMFILE}, Case{"pthread_create", EAGAIN}}) {
        SCOPED_TRACE(c.m_Function);
        RecordingLog log;
        PlainSink sink;
        QDAsyncUrlTransferThread transfers(&sink);
        const int descriptors = CountOpenDescriptors();

        const FaultPlan fault(c.m_Function, 1, c.m_Error);
        const bool started = transfers.StartAsyncUrlTransferThread("", &log);
        const int error = errno;

        EXPECT_FALSE(started);
        EXPECT_EQ(error, c.m_Error);
        EXPECT_EQ(CountOpenDescriptors(), descriptors);
        EXPECT_FALSE(transfers.IsThreadRunning());
        EXPECT_EQ(log.GetTexts(), (Texts{"AsyncUrl: Start QDAsyncUrlTransferThread thread..."}));
    }
}

TEST(QDAsyncUrlTransferThread, PipeThatDoesNotFitTheSetsMakesTheStartFail)
{
    PlainSink sink;
    QDAsyncUrlTransferThread transfers(&sink);
    const TakenDescriptors taken;

    const bool started = transfers.StartAsyncUrlTransferThread("", nullptr);
    const int error = errno;

    EXPECT_FALSE(started);
    EXPECT_EQ(error, EMFILE);
}

TEST(QDAsyncUrlTransferThread, StartAfterAFailedStartServesWhatIsQueued)
{
    ScriptedServer server(Greet);
    TransferBench bench;
    bench.Queue(server.GetUrl());
    {
        const FaultPlan fault("pthread_create", 1, EAGAIN);
        EXPECT_FALSE(bench.m_Thread.StartAsyncUrlTransferThread("", nullptr));
    }
    EXPECT_EQ(bench.m_Thread.GetRequestCount(), 1);

    bench.Start();

    EXPECT_NE(Collect(bench.m_Thread), nullptr);
}

TEST(QDAsyncUrlTransferThread, StoppedThreadStartsAgain)
{
    RecordingLog log;
    ScriptedServer server(Greet);
    TransferBench bench;
    for (int round = 1; round <= 3; ++round) {
        SCOPED_TRACE(round);

        bench.Start(&log);
        bench.Queue(server.GetUrl());
        const auto request = Collect(bench.m_Thread);
        bench.m_Thread.StopAsyncUrlTransferThread();

        ASSERT_NE(request, nullptr);
        EXPECT_EQ(request->GetCurlResultCode(), CURLE_OK);
        EXPECT_EQ(request->GetAsyncUrlRequestId(), round); // counted over all starts
    }
    EXPECT_EQ(log.Count("AsyncUrl: Thread Started"), 3u);
    EXPECT_EQ(log.Count("AsyncUrl: Thread Stopped"), 3u);
}

// --- Queue ----------------------------------------------------------------------------------------------------------

TEST(QDAsyncUrlTransferThread, RequestsAreNumberedFromOne)
{
    RecordingLog log;
    ScriptedServer server(Hang);
    TransferBench bench;
    bench.Start(&log);

    for (int number = 1; number <= 3; ++number)
        EXPECT_EQ(bench.Queue(server.GetUrl()).GetAsyncUrlRequestId(), number);

    EXPECT_EQ(log.Count("AsyncUrl: Queue Request #1"), 1u);
    EXPECT_EQ(log.Count("AsyncUrl: Queue Request #3"), 1u);
    EXPECT_EQ(bench.m_Thread.GetRequestCount(), 3);
}

TEST(QDAsyncUrlTransferThread, UserAgentOfTheLatestStartIsSent)
{
    Heads heads;
    ScriptedServer server([&](ScriptedConnection& connection) {
        heads.Add(connection.ReadHead());
        connection.Send(kGreeting);
    });
    TransferBench bench;
    for (const char* userAgent : {"first/1.0", "second (two)"}) {
        ASSERT_TRUE(bench.m_Thread.StartAsyncUrlTransferThread(userAgent, nullptr));
        bench.Queue(server.GetUrl());
        EXPECT_NE(Collect(bench.m_Thread), nullptr);
        bench.m_Thread.StopAsyncUrlTransferThread();
    }

    EXPECT_THAT(heads.Get(), testing::ElementsAre(testing::HasSubstr("\r\nUser-Agent: first/1.0\r\n"),
                                                  testing::HasSubstr("\r\nUser-Agent: second (two)\r\n")));
}

TEST(QDAsyncUrlTransferThread, RequestQueuedWhileTheThreadDoesNotRunHasTheUserAgentOfTheLastStart)
{
    Heads heads;
    ScriptedServer server([&](ScriptedConnection& connection) {
        heads.Add(connection.ReadHead());
        connection.Send(kGreeting);
    });
    TransferBench bench;
    for (const char* userAgent : {"first/1.0", "second/2.0"}) {
        bench.Queue(server.GetUrl());
        ASSERT_TRUE(bench.m_Thread.StartAsyncUrlTransferThread(userAgent, nullptr));
        EXPECT_NE(Collect(bench.m_Thread), nullptr);
        bench.m_Thread.StopAsyncUrlTransferThread();
    }

    EXPECT_THAT(heads.Get(), testing::ElementsAre(testing::Not(testing::HasSubstr("User-Agent")),
                                                  testing::HasSubstr("\r\nUser-Agent: first/1.0\r\n")));
}

TEST(QDAsyncUrlTransferThread, RequestsQueuedBeforeTheStartWaitForIt)
{
    RecordingLog log;
    ScriptedServer server(Greet);
    TransferBench bench;
    const TalliedRequest& first = bench.Queue(server.GetUrl());
    bench.Queue(server.GetUrl());
    EXPECT_EQ(bench.m_Thread.GetRequestCount(), 2);
    EXPECT_EQ(first.GetTransferState(), QDAsyncUrlRequest::TransferQueued);

    bench.Start(&log);

    EXPECT_NE(Collect(bench.m_Thread), nullptr);
    EXPECT_NE(Collect(bench.m_Thread), nullptr);
    EXPECT_EQ(log.Count("AsyncUrl: Start New Transfer"), 1u);
}

TEST(QDAsyncUrlTransferThread, RequestsQueuedBetweenAStopAndTheNextStartWaitForIt)
{
    ScriptedServer server(Greet);
    TransferBench bench;
    bench.Start();
    bench.m_Thread.StopAsyncUrlTransferThread();

    bench.Queue(server.GetUrl());
    EXPECT_EQ(bench.m_Thread.GetRequestCount(), 1);
    bench.Start();

    EXPECT_NE(Collect(bench.m_Thread), nullptr);
}

TEST(QDAsyncUrlTransferThread, RequestQueuedInTheStartCallbackIsServed)
{
    ScriptedServer server(Greet);
    TransferBench bench;
    bench.m_Sink.m_OnStart = [&] { bench.Queue(server.GetUrl()); };

    bench.Start();

    EXPECT_NE(Collect(bench.m_Thread), nullptr);
}

TEST(QDAsyncUrlTransferThread, RequestThatIsHereAlreadyGetsANewIdAndIsNotStartedTwice)
{
    RecordingLog log;
    ScriptedServer server(Hang);
    TransferBench bench;
    bench.Start(&log);
    TalliedRequest& request = bench.Queue(server.GetUrl());
    ASSERT_TRUE(WaitForState(request, QDAsyncUrlRequest::TransferRunning));

    bench.m_Thread.StartTransfer(&request);

    EXPECT_EQ(request.GetAsyncUrlRequestId(), 2);
    EXPECT_EQ(bench.m_Thread.GetRequestCount(), 1);
    EXPECT_TRUE(WaitUntil([&] { return log.Count("AsyncUrl: Start New Transfer") == 2; }));
    bench.m_Thread.StopAsyncUrlTransferThread();
    EXPECT_EQ(log.CountContaining("AsyncUrl: Start request #"), 1u);
    EXPECT_EQ(log.Count("AsyncUrl: Queue Request #2"), 1u);
    EXPECT_EQ(bench.m_Deleted.load(), 1);
}

TEST(QDAsyncUrlTransferThread, RequestThatIsCompleteAlreadyIsReturnedAsItIs)
{
    ScriptedServer server(Greet);
    TransferBench bench;
    bench.Start();
    bench.Queue(server.GetUrl());
    auto request = Collect(bench.m_Thread);
    ASSERT_NE(request, nullptr);

    bench.m_Thread.StartTransfer(request.get());

    EXPECT_EQ(bench.m_Thread.GetNextCompletedRequest(), request.get());
    EXPECT_EQ(server.GetConnectionCount(), 1);
}

TEST(QDAsyncUrlTransferThread, MoreQueuedFromWithinACallbackThanThePipeHoldsIsNoDeadlock)
{
    ScriptedServer server(Greet);
    std::atomic<bool> done{false};
    TransferBench bench;
    bench.m_Sink.m_OnCompleted = [&] {
        if (done.load())
            return;
        QDAsyncUrlRequest* request = bench.m_Thread.GetNextCompletedRequest();
        for (int count = 0; count < 70'000; ++count)
            bench.m_Thread.StartTransfer(request);
        EXPECT_EQ(request->GetAsyncUrlRequestId(), 70'001);
        done.store(true);
    };
    bench.Start();
    bench.Queue(server.GetUrl());
    ASSERT_TRUE(WaitUntil([&] { return done.load(); }));
    EXPECT_NE(Collect(bench.m_Thread), nullptr);

    bench.Queue(server.GetUrl());

    EXPECT_NE(Collect(bench.m_Thread), nullptr);
}

TEST(QDAsyncUrlTransferThread, StopCommandThatFindsThePipeFullIsNotLost)
{
    RecordingLog log;
    HoldingPlace place;
    TransferBench bench;
    bench.m_Sink.m_OnStart = [&] { place.PassThrough(); };
    bench.Start(&log);
    ASSERT_TRUE(place.WaitUntilHeld());
    for (int count = 0; count < 70'000; ++count)
        bench.m_Thread.SendThreadEvent(1);

    bench.m_Thread.SendThreadEvent(0);
    place.LetGo();

    EXPECT_TRUE(bench.m_Sink.WaitFor("stop"));
    bench.m_Thread.StopAsyncUrlTransferThread();
    EXPECT_EQ(log.Count("AsyncUrl: Start New Transfer"), 0u);
}

TEST(QDAsyncUrlTransferThread, CommandsThatWaitAreTaken256InAPass)
{
    RecordingLog log;
    HoldingPlace place;
    TransferBench bench;
    bench.m_Sink.m_OnStart = [&] { place.PassThrough(); };
    const FaultPlan passes("select", 1 << 30, EBADF); // only counts
    bench.Start(&log);
    ASSERT_TRUE(place.WaitUntilHeld());
    for (int count = 0; count < 600; ++count)
        bench.m_Thread.SendThreadEvent(1);

    place.LetGo();

    EXPECT_TRUE(WaitUntil([&] { return passes.GetCallCount() == 4; })); // 256, 256 and 88; then it waits
    EXPECT_EQ(log.Count("AsyncUrl: Start New Transfer"), 600u);
}

TEST(QDAsyncUrlTransferThread, CommandsBehindAStopAreDropped)
{
    RecordingLog log;
    HoldingPlace place;
    TransferBench bench;
    bench.m_Sink.m_OnStart = [&] { place.PassThrough(); };
    bench.Start(&log);
    ASSERT_TRUE(place.WaitUntilHeld());
    for (const int command : {1, 1, 0, 1})
        bench.m_Thread.SendThreadEvent(command);

    place.LetGo();

    EXPECT_TRUE(bench.m_Sink.WaitFor("stop"));
    EXPECT_EQ(log.Count("AsyncUrl: Start New Transfer"), 2u);
}

TEST(QDAsyncUrlTransferThread, FailedKickIsPrintedForEachCommandAndTheThreadGoesOn)
{
    ThreadLog log;
    HoldingPlace place;
    int kicks = 0;
    CurlMulti curl([&](curl_socket_t socket, int) {
        return socket == CURL_SOCKET_TIMEOUT && ++kicks <= 2 ? CURLM_INTERNAL_ERROR : CURLM_OK;
    });
    TransferBench bench;
    bench.m_Sink.m_OnStart = [&] { place.PassThrough(); };
    bench.Start(&log);
    ASSERT_TRUE(place.WaitUntilHeld());
    for (int count = 0; count < 3; ++count)
        bench.m_Thread.SendThreadEvent(1);
    bench.m_Thread.SendThreadEvent(0);

    place.LetGo();
    EXPECT_TRUE(bench.m_Sink.WaitFor("stop"));
    bench.m_Thread.StopAsyncUrlTransferThread();

    EXPECT_EQ(log.GetTexts(bench.m_Sink.GetThread()),
              (Texts{"AsyncUrl: Thread Started", "AsyncUrl: Start New Transfer",
                     "AsyncUrl: curl_multi_socket_action() returns 4", "AsyncUrl: Start New Transfer",
                     "AsyncUrl: curl_multi_socket_action() returns 4", "AsyncUrl: Start New Transfer",
                     "AsyncUrl: Thread Stopped"}));
}

TEST(QDAsyncUrlTransferThread, OnlyTheLowByteOfACommandCounts)
{
    RecordingLog log;
    TransferBench bench;
    bench.Start(&log);

    for (const int command : {1, 2, 255, 0x101, -1})
        bench.m_Thread.SendThreadEvent(command);
    bench.m_Thread.SendThreadEvent(0x7F00);

    EXPECT_TRUE(bench.m_Sink.WaitFor("stop"));
    EXPECT_EQ(log.Count("AsyncUrl: Start New Transfer"), 5u);
}

TEST(QDAsyncUrlTransferThread, CommandWhileTheThreadDoesNotRunHasNoEffect)
{
    ScriptedServer server(Greet);
    TransferBench bench;

    bench.m_Thread.SendThreadEvent(0);
    bench.Start();
    bench.Queue(server.GetUrl());

    EXPECT_NE(Collect(bench.m_Thread), nullptr);
}

// --- Transfers ------------------------------------------------------------------------------------------------------

TEST(QDAsyncUrlTransferThread, CountCoversQueuedRunningAndCompleteRequests)
{
    std::promise<void> mayAnswer;
    ScriptedServer server([answer = mayAnswer.get_future().share()](ScriptedConnection& connection) {
        connection.ReadHead();
        answer.wait_for(20s);
        connection.Send(kGreeting);
    });
    TransferBench bench;

    const TalliedRequest& request = bench.Queue(server.GetUrl());
    EXPECT_EQ(request.GetTransferState(), QDAsyncUrlRequest::TransferQueued);
    EXPECT_EQ(bench.m_Thread.GetRequestCount(), 1);
    bench.Start();
    EXPECT_TRUE(WaitForState(request, QDAsyncUrlRequest::TransferRunning));
    EXPECT_EQ(bench.m_Thread.GetRequestCount(), 1);
    EXPECT_EQ(bench.m_Thread.GetNextCompletedRequest(), nullptr);
    mayAnswer.set_value();
    EXPECT_TRUE(WaitForState(request, QDAsyncUrlRequest::TransferComplete));
    EXPECT_EQ(bench.m_Thread.GetRequestCount(), 1);
    EXPECT_NE(Collect(bench.m_Thread), nullptr);
    EXPECT_EQ(bench.m_Thread.GetRequestCount(), 0);
}

TEST(QDAsyncUrlTransferThread, CompleteRequestHoldsItsResults)
{
    ScriptedServer server(Greet);
    TransferBench bench;
    bench.Start();
    auto* queued = new QDAsyncUrlRequest;
    queued->SetURL(server.GetUrl().c_str());
    curl_easy_setopt(queued->GetCurlHandle(), CURLOPT_PROXY, "");

    bench.m_Thread.StartTransfer(queued);
    const auto request = Collect(bench.m_Thread);

    ASSERT_EQ(request.get(), queued);
    EXPECT_EQ(request->GetTransferState(), QDAsyncUrlRequest::TransferComplete);
    EXPECT_EQ(request->GetCurlResultCode(), CURLE_OK);
    EXPECT_EQ(request->GetMultiResultCode(), CURLM_OK);
    EXPECT_EQ(request->GetResponseCode(), 200);
    EXPECT_EQ(request->GetReply(), "Hello");
    EXPECT_STREQ(request->GetErrorText(), "");
}

TEST(QDAsyncUrlTransferThread, TransferThatFailsHasItsResultAndLeavesTheOthersAlone)
{
    struct Case
    {
        const char* m_Name;
        ScriptedServer::Handler m_Handler; // of the server that fails; none: nobody listens
        long m_TimeoutMs;
        CURLcode m_Result;
    };

    const Case cases[] = {
        {"hangs", Hang, 50, CURLE_OPERATION_TIMEDOUT},
        {"refuses", nullptr, 0, CURLE_COULDNT_CONNECT},
        {"resets",
         [](ScriptedConnection& connection) {
             connection.ReadHead();
             connection.ResetAtEnd();
         },
         0, CURLE_RECV_ERROR},
        {"closes without an answer", [](ScriptedConnection& connection) { connection.ReadHead(); }, 0,
         CURLE_GOT_NOTHING},
        {"says less than announced",
         [](ScriptedConnection& connection) {
             connection.ReadHead();
             connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nHello");
         },
         0, CURLE_PARTIAL_FILE},
        {"talks nonsense",
         [](ScriptedConnection& connection) {
             connection.ReadHead();
             connection.Send("\x01\x02 what?\r\n\r\n");
         },
         0, CURLE_UNSUPPORTED_PROTOCOL},
        {"has no such page",
         [](ScriptedConnection& connection) {
             connection.ReadHead();
             connection.Send("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
         },
         0, CURLE_HTTP_RETURNED_ERROR},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);
        ScriptedServer good(Greet);
        auto bad = std::make_unique<ScriptedServer>(c.m_Handler != nullptr ? c.m_Handler : Greet);
        const std::string badUrl = bad->GetUrl();
        if (c.m_Handler == nullptr)
            bad.reset();
        TransferBench bench;
        bench.Start();

        QDAsyncUrlRequest& failing = bench.Queue(badUrl, c.m_TimeoutMs);
        TalliedRequest& other = bench.Queue(good.GetUrl());
        EXPECT_TRUE(WaitForState(failing, QDAsyncUrlRequest::TransferComplete));
        EXPECT_TRUE(WaitForState(other, QDAsyncUrlRequest::TransferComplete));

        EXPECT_EQ(failing.GetCurlResultCode(), c.m_Result);
        EXPECT_STRNE(failing.GetErrorText(), "");
        EXPECT_EQ(other.GetCurlResultCode(), CURLE_OK);
        EXPECT_EQ(other.m_ReceivedBytes.load(), 5u);
    }
}

TEST(QDAsyncUrlTransferThread, RequestWithoutAnUrlCompletesWithItsText)
{
    TransferBench bench;
    bench.Start();

    bench.m_Thread.StartTransfer(new QDAsyncUrlRequest);
    const auto request = Collect(bench.m_Thread);

    ASSERT_NE(request, nullptr);
    EXPECT_EQ(request->GetCurlResultCode(), CURLE_URL_MALFORMAT);
    EXPECT_STRNE(request->GetErrorText(), "");
    bench.m_Thread.StopAsyncUrlTransferThread();
    EXPECT_EQ(bench.m_Sink.GetNotes(), (Texts{"start", "completed", "stop"}));
}

TEST(QDAsyncUrlTransferThread, TimeOutsOfTransfersArePrinted)
{
    ThreadLog log;
    ScriptedServer server(Hang);
    TransferBench bench;
    bench.Start(&log);

    bench.Queue(server.GetUrl(), 50);
    EXPECT_NE(Collect(bench.m_Thread), nullptr);
    EXPECT_TRUE(WaitUntil([] { return IsLastSelectUnlimited(); })); // the time-out that has come is not there any more
    bench.m_Thread.StopAsyncUrlTransferThread();

    const Texts texts = log.GetTexts(bench.m_Sink.GetThread());
    ASSERT_GE(texts.size(), 5u);
    EXPECT_EQ(texts[2], "AsyncUrl: Start request #1");
    EXPECT_EQ(texts[3], "AsyncUrl: SetTimeout 0"); // libcurl wants to run a new transfer at once
    EXPECT_THAT(texts, testing::Contains("AsyncUrl: Timeout"));
}

TEST(QDAsyncUrlTransferThread, ThreadWithoutTransfersWaitsWithoutALimit)
{
    ThreadLog log;
    ScriptedServer server(Greet);
    TransferBench bench;
    bench.Start(&log);

    bench.Queue(server.GetUrl(), 20'000);
    EXPECT_NE(Collect(bench.m_Thread), nullptr);
    const FaultPlan passes("select", 1 << 30, EBADF); // only counts
    bench.m_Thread.SendThreadEvent(1);
    EXPECT_TRUE(WaitUntil([&] { return log.Count("AsyncUrl: Start New Transfer") == 2; }));
    bench.m_Thread.StopAsyncUrlTransferThread();

    EXPECT_LE(passes.GetCallCount(), 2); // the waits behind the reply and behind the command
    Texts texts = log.GetTexts(bench.m_Sink.GetThread());
    std::erase_if(texts, [](const std::string& text) { return text.find("SetTimeout") == std::string::npos; });
    ASSERT_FALSE(texts.empty());
    EXPECT_EQ(texts.back(), "AsyncUrl: SetTimeout -1");
}

TEST(QDAsyncUrlTransferThread, TimerValueOfMinusOneTakesTheLimitAway)
{
    struct Case
    {
        std::vector<long> m_Said;
        bool m_IsUnlimited;
    };

    for (const Case& c : {Case{{-1, 20'000}, false}, Case{{20'000, -1}, true}}) {
        SCOPED_TRACE(c.m_Said.back());
        CurlMulti curl;
        TransferBench bench;
        bench.m_Sink.m_OnCompleted = [&] {
            for (const long timeoutMs : c.m_Said)
                curl.SayTimeout(timeoutMs);
        };
        const FaultPlan passes("select", 1 << 30, EBADF);    // only counts
        bench.m_Thread.StartTransfer(new QDAsyncUrlRequest); // without a URL it ends as it starts

        bench.Start();

        EXPECT_TRUE(WaitUntil([&] { return passes.GetCallCount() == 2; }));
        EXPECT_EQ(IsLastSelectUnlimited(), c.m_IsUnlimited);
    }
}

TEST(QDAsyncUrlTransferThread, TimeOutOfAnEarlierRunIsForgotten)
{
    CurlMulti curl;
    TransferBench bench;
    bench.m_Sink.m_OnStop = [&] { curl.SayTimeout(20'000); };
    bench.Start();
    bench.m_Thread.StopAsyncUrlTransferThread();
    const FaultPlan passes("select", 1 << 30, EBADF); // only counts

    bench.Start();

    EXPECT_TRUE(WaitUntil([&] { return passes.GetCallCount() == 1; }));
    EXPECT_TRUE(IsLastSelectUnlimited());
}

TEST(QDAsyncUrlTransferThread, TimerValueOfZeroIsServedByTheNextWait)
{
    // A reply that its request pauses, until the sink hears of another one.
    class PausingRequest : public TalliedRequest
    {
    public:
        using TalliedRequest::TalliedRequest;

        unsigned int OnWriteReply(char* data, unsigned int length) override
        {
            if (!m_Paused.exchange(true))
                return CURL_WRITEFUNC_PAUSE;
            return TalliedRequest::OnWriteReply(data, length);
        }

        std::atomic<bool> m_Paused{false};
    };

    ThreadLog log;
    ScriptedServer server(Greet);
    bool resumed = false;
    TransferBench bench;
    auto* paused = new PausingRequest(server.GetUrl(), &bench.m_Deleted);
    bench.m_Sink.m_OnCompleted = [&] {
        if (!resumed)
            curl_easy_pause(paused->GetCurlHandle(), CURLPAUSE_CONT);
        resumed = true;
    };
    bench.Start(&log);
    bench.m_Thread.StartTransfer(paused);
    ASSERT_TRUE(WaitUntil([&] { return paused->m_Paused.load(); }));

    bench.Queue(server.GetUrl());
    EXPECT_TRUE(WaitForState(*paused, QDAsyncUrlRequest::TransferComplete));
    bench.m_Thread.StopAsyncUrlTransferThread();

    Texts texts = log.GetTexts(bench.m_Sink.GetThread());
    // The values of 0 before belong to the starts, which serve them at once.
    const auto behindTheStarts = std::find(texts.rbegin(), texts.rend(), "AsyncUrl: Start request #2").base();
    ASSERT_NE(behindTheStarts, texts.end());
    const auto zero = std::find(behindTheStarts + 1, texts.end(), "AsyncUrl: SetTimeout 0");
    ASSERT_NE(zero, texts.end());
    EXPECT_THAT((Texts{zero, texts.end()}), testing::Contains("AsyncUrl: Timeout"));
}

TEST(QDAsyncUrlTransferThread, TrickleOfDataArrivesWholeAndItsPassesAllocateNothing)
{
    constexpr int kSteps = 200;
    COutputLogNull log;
    std::atomic<TalliedRequest*> request{nullptr};
    std::atomic<std::size_t> allocationCount{1};
    ScriptedServer server([&](ScriptedConnection& connection) {
        connection.ReadHead();
        WaitUntil([&] { return request.load() != nullptr; });
        connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 220\r\n\r\n");
        const auto sendOne = [&](unsigned int expected) {
            connection.Send("x");
            WaitUntil([&] { return request.load()->m_ReceivedBytes.load() == expected; });
        };
        for (unsigned int count = 1; count <= 20; ++count)
            sendOne(count);
        const AllocationCounter allocations;
        for (unsigned int count = 21; count < 20 + kSteps; ++count)
            sendOne(count);
        allocationCount.store(allocations.GetCount());
        connection.Send("x"); // completes the request, which may be gone from now on
    });
    TransferBench bench;
    bench.Start(&log);

    request.store(&bench.Queue(server.GetUrl()));
    EXPECT_TRUE(WaitForState(*request.load(), QDAsyncUrlRequest::TransferComplete));

    EXPECT_EQ(request.load()->GetCurlResultCode(), CURLE_OK);
    EXPECT_EQ(request.load()->m_ReceivedBytes.load(), 220u);
    EXPECT_EQ(allocationCount.load(), 0u);
}

TEST(QDAsyncUrlTransferThread, UploadIsWatchedForBothAndArrivesWhole)
{
    constexpr unsigned int kSize = 700'000; // more than the sockets' buffers take at once
    RecordingLog log;
    std::promise<std::string> received;
    ScriptedServer server([&](ScriptedConnection& connection) {
        connection.ReadHead();
        received.set_value(connection.ReadBytes(kSize));
        connection.Send(kGreeting);
    });
    TransferBench bench;
    bench.Start(&log);
    auto* request = new TalliedRequest(server.GetUrl(), &bench.m_Deleted);
    auto* content = new unsigned char[kSize];
    std::fill(content, content + kSize, static_cast<unsigned char>('u'));
    ASSERT_TRUE(request->SetUploadContent(content, kSize));
    curl_easy_setopt(request->GetCurlHandle(), CURLOPT_EXPECT_100_TIMEOUT_MS, 1L); // the server says no "100 Continue"

    bench.m_Thread.StartTransfer(request);
    const auto complete = Collect(bench.m_Thread);

    ASSERT_NE(complete, nullptr);
    EXPECT_EQ(complete->GetCurlResultCode(), CURLE_OK);
    EXPECT_EQ(received.get_future().get(), std::string(kSize, 'u'));
    EXPECT_GE(log.CountContaining(" Callback Action = 3 (INOUT)"), 1u);
}

TEST(QDAsyncUrlTransferThread, SocketIsWatchedAsLibcurlSaidLast)
{
    struct Case
    {
        const char* m_Name;
        std::vector<int> m_Said;
        std::vector<int> m_Actions; // the first three: 1 readable, 2 writable
    };

    const Case cases[] = {
        {"in", {1}, {1, 1, 1}},
        {"out", {2}, {2, 2, 2}},
        {"in and out are two calls, in first", {3}, {1, 2, 1}},
        {"in and out to in", {3, 1}, {1, 1, 1}},
        {"in and out to out", {3, 2}, {2, 2, 2}},
        {"in to in and out", {1, 3}, {1, 2, 1}},
        {"in and out to none", {3, 0}, {}},
        {"in and out to removed", {3, 4}, {}},
        {"in and out to what nobody knows", {3, 5}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);
        RecordingLog log;
        const ReadySocket watched;
        std::vector<int> actions;
        std::atomic<std::size_t> actionCount{0};
        CurlMulti curl([&](curl_socket_t socket, int readiness) {
            if (socket == watched.Get()) {
                actions.push_back(readiness);
                if (actionCount.fetch_add(1) == 2)
                    CurlMulti::GetCurrent()->SayWatch(socket, CURL_POLL_REMOVE);
            }
            return CURLM_OK;
        });
        TransferBench bench;
        bench.m_Sink.m_OnCompleted = [&] {
            for (const int action : c.m_Said)
                curl.SayWatch(watched.Get(), action);
        };
        bench.Start(&log);

        bench.m_Thread.StartTransfer(new QDAsyncUrlRequest); // without a URL it ends as it starts
        EXPECT_NE(Collect(bench.m_Thread), nullptr);
        EXPECT_TRUE(bench.m_Sink.WaitFor("completed"));
        bench.m_Thread.SendThreadEvent(1); // a pass for the sockets that nobody watches
        EXPECT_TRUE(WaitUntil([&] { return log.Count("AsyncUrl: Start New Transfer") == 2; }));
        EXPECT_TRUE(WaitUntil([&] { return actionCount.load() >= c.m_Actions.size(); }));
        bench.m_Thread.StopAsyncUrlTransferThread();

        EXPECT_EQ(actions, c.m_Actions);
    }
}

TEST(QDAsyncUrlTransferThread, WatchesOfAnEarlierRunAreForgotten)
{
    RecordingLog log;
    const ReadySocket watched;
    std::atomic<int> actions{0};
    CurlMulti curl([&](curl_socket_t socket, int) {
        if (socket == watched.Get())
            actions.fetch_add(1);
        return CURLM_OK;
    });
    TransferBench bench;
    bench.Start();
    auto* request = new TalliedRequest("");
    request->m_OnDelete = [&] { curl.SayWatch(watched.Get(), CURL_POLL_INOUT); };
    bench.m_Thread.StartTransfer(request);
    ASSERT_TRUE(WaitForState(*request, QDAsyncUrlRequest::TransferComplete));
    bench.m_Thread.StopAsyncUrlTransferThread();

    bench.Start(&log);
    bench.m_Thread.SendThreadEvent(1);
    EXPECT_TRUE(WaitUntil([&] { return log.Has("AsyncUrl: Start New Transfer"); }));
    bench.m_Thread.StopAsyncUrlTransferThread();

    EXPECT_EQ(actions.load(), 0);
}

TEST(QDAsyncUrlTransferThread, EachActionOfTheSocketCallbackIsPrintedByItsName)
{
    RecordingLog log;
    CurlMulti curl;
    TransferBench bench;
    bench.m_Sink.m_OnCompleted = [&] {
        for (const int action : {0, 1, 2, 3, 5, -1, 4})
            curl.SayWatch(1000, action);
    };
    bench.Start(&log);

    bench.m_Thread.StartTransfer(new QDAsyncUrlRequest);
    EXPECT_NE(Collect(bench.m_Thread), nullptr);
    bench.m_Thread.StopAsyncUrlTransferThread();

    Texts texts = log.GetTexts();
    std::erase_if(texts, [](const std::string& text) { return text.find("Socket 1000 ") == std::string::npos; });
    EXPECT_EQ(
        texts,
        (Texts{"AsyncUrl: Socket 1000 Callback Action = 0 (NONE)", "AsyncUrl: Socket 1000 Callback Action = 1 (IN)",
               "AsyncUrl: Socket 1000 Callback Action = 2 (OUT)", "AsyncUrl: Socket 1000 Callback Action = 3 (INOUT)",
               "AsyncUrl: Socket 1000 Callback Action = 5 (\?\?\?)",
               "AsyncUrl: Socket 1000 Callback Action = -1 (\?\?\?)",
               "AsyncUrl: Socket 1000 Callback Action = 4 (REMOVE)"}));
}

TEST(QDAsyncUrlTransferThread, SocketThatDoesNotFitTheSetsIsClosedWhenItsTransferFails)
{
    ScriptedServer server(Hang);
    TransferBench bench;
    bench.Start();
    bench.m_Thread.StartTransfer(new QDAsyncUrlRequest); // without a URL; after it the thread is set up
    ASSERT_NE(Collect(bench.m_Thread), nullptr);
    const TakenDescriptors taken;
    const int descriptors = CountOpenDescriptors();

    bench.Queue(server.GetUrl());
    const auto failed = Collect(bench.m_Thread);

    ASSERT_NE(failed, nullptr);
    EXPECT_EQ(failed->GetCurlResultCode(), CURLE_COULDNT_CONNECT);
    EXPECT_TRUE(WaitUntil([&] { return CountOpenDescriptors() == descriptors; })); // the server's end follows
}

TEST(QDAsyncUrlTransferThread, SocketOfNoRequestThatDoesNotFitTheSetsIsPrintedAndDropped)
{
    RecordingLog log;
    ScriptedServer server(Greet);
    CurlMulti curl;
    TransferBench bench;
    bench.Start(&log);
    auto* request = new TalliedRequest(server.GetUrl());
    request->m_OnReply = [&] { curl.SayWatch(5000, CURL_POLL_INOUT); };

    bench.m_Thread.StartTransfer(request);
    const auto complete = Collect(bench.m_Thread);
    bench.m_Thread.StopAsyncUrlTransferThread();

    ASSERT_NE(complete, nullptr);
    EXPECT_EQ(complete->GetCurlResultCode(), CURLE_OK);
    EXPECT_EQ(log.Count("AsyncUrl: Socket 5000 is beyond FD_SETSIZE"), 1u);
}

TEST(QDAsyncUrlTransferThread, SocketThatDoesNotFitTheSetsFailsItsTransferAndTheOthersGoOn)
{
    RecordingLog log;
    std::promise<void> mayAnswer;
    std::atomic<int> connections{0};
    ScriptedServer server([&, answer = mayAnswer.get_future().share()](ScriptedConnection& connection) {
        connection.ReadHead();
        connections.fetch_add(1);
        answer.wait_for(20s);
        connection.Send(kGreeting);
    });
    TransferBench bench;
    bench.Start(&log);
    const QDAsyncUrlRequest& first = bench.Queue(server.GetUrl());
    ASSERT_TRUE(WaitUntil([&] { return connections.load() == 1; }));
    {
        const TakenDescriptors taken;
        for (int round = 1; round <= 2; ++round) {
            SCOPED_TRACE(round);
            bench.Queue(server.GetUrl());
            const auto failed = Collect(bench.m_Thread);
            ASSERT_NE(failed, nullptr);
            EXPECT_EQ(failed->GetAsyncUrlRequestId(), 1 + round);
            EXPECT_TRUE(WaitUntil([&] { return bench.m_Sink.GetNotes().size() == 1u + static_cast<unsigned>(round); }));
            EXPECT_EQ(failed->GetCurlResultCode(), CURLE_COULDNT_CONNECT);
            int socket = 0;
            EXPECT_EQ(std::sscanf(failed->GetErrorText(), "Socket %d is beyond FD_SETSIZE", &socket), 1);
            EXPECT_GE(socket, 1024);
            EXPECT_EQ(log.Count("AsyncUrl: Socket " + std::to_string(socket) + " is beyond FD_SETSIZE"),
                      static_cast<std::size_t>(log.CountContaining(failed->GetErrorText())));
        }
    }

    mayAnswer.set_value();
    bench.Queue(server.GetUrl());
    EXPECT_TRUE(WaitForState(first, QDAsyncUrlRequest::TransferComplete));

    EXPECT_EQ(first.GetCurlResultCode(), CURLE_OK);
    EXPECT_EQ(log.CountContaining("is beyond FD_SETSIZE"), 2u);
    EXPECT_NE(Collect(bench.m_Thread), nullptr);
    const auto last = Collect(bench.m_Thread);
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(last->GetCurlResultCode(), CURLE_OK);
}

TEST(QDAsyncUrlTransferThread, OnePassReportsAllThatItCompletedAtOnce)
{
    TransferBench bench;
    for (int count = 0; count < 5; ++count)
        bench.m_Thread.StartTransfer(new QDAsyncUrlRequest); // without a URL they end as they start

    bench.Start();
    for (int count = 0; count < 5; ++count)
        EXPECT_NE(Collect(bench.m_Thread), nullptr);

    bench.m_Thread.StopAsyncUrlTransferThread();
    EXPECT_EQ(bench.m_Sink.GetNotes(), (Texts{"start", "completed", "stop"}));
}

TEST(QDAsyncUrlTransferThread, RequestThatLibcurlRefusesIsCompleteAndReportedWithALaterOne)
{
    ScriptedServer server(Greet);
    TransferBench bench;
    bench.Start();
    auto* refused = new TalliedRequest(server.GetUrl(), &bench.m_Deleted);
    CURLM* other = curl_multi_init();
    curl_multi_add_handle(other, refused->GetCurlHandle());

    bench.m_Thread.StartTransfer(refused);

    EXPECT_TRUE(WaitForState(*refused, QDAsyncUrlRequest::TransferComplete));
    EXPECT_EQ(refused->GetMultiResultCode(), CURLM_ADDED_ALREADY);
    EXPECT_EQ(refused->GetCurlResultCode(), CURLE_OK);
    EXPECT_STREQ(refused->GetErrorText(), "");
    const QDAsyncUrlRequest& later = bench.Queue(server.GetUrl());
    EXPECT_TRUE(WaitForState(later, QDAsyncUrlRequest::TransferComplete));
    EXPECT_TRUE(bench.m_Sink.WaitFor("completed"));
    EXPECT_NE(Collect(bench.m_Thread), nullptr);
    EXPECT_NE(Collect(bench.m_Thread), nullptr);
    bench.m_Thread.StopAsyncUrlTransferThread();
    EXPECT_EQ(bench.m_Sink.GetNotes(), (Texts{"start", "completed", "stop"}));
    curl_multi_cleanup(other);
}

TEST(QDAsyncUrlTransferThread, RequestsWithoutAHandleComeBackRefused)
{
    RecordingLog log;
    TransferBench bench;
    std::vector<QDAsyncUrlRequest*> requests;
    {
        const CurlMemoryLimit limit(0);
        requests = {new QDAsyncUrlRequest, new QDAsyncUrlRequest};
    }
    std::sort(requests.begin(), requests.end(), std::less<>());

    for (QDAsyncUrlRequest* request : requests)
        bench.m_Thread.StartTransfer(request);
    bench.m_Thread.StartTransfer(requests[0]); // is here already
    EXPECT_EQ(bench.m_Thread.GetRequestCount(), 2);
    bench.Start(&log);

    for (QDAsyncUrlRequest* request : requests) {
        ASSERT_TRUE(WaitForState(*request, QDAsyncUrlRequest::TransferComplete));
        EXPECT_EQ(request->GetCurlHandle(), nullptr);
        EXPECT_EQ(request->GetMultiResultCode(), CURLM_BAD_EASY_HANDLE);
        EXPECT_EQ(request->GetCurlResultCode(), CURLE_OK);
    }
    EXPECT_EQ(requests[0]->GetAsyncUrlRequestId(), 3);
    for (const QDAsyncUrlRequest* request : requests)
        EXPECT_EQ(Collect(bench.m_Thread).get(), request);
    EXPECT_EQ(bench.m_Thread.GetRequestCount(), 0);
}

TEST(QDAsyncUrlTransferThread, RequestsWithoutAHandleAreDeletedByTheStop)
{
    RecordingLog log;
    TransferBench bench;
    {
        const CurlMemoryLimit limit(0);
        bench.Queue("http://127.0.0.1/");
        bench.Queue("http://127.0.0.1/");
    }
    bench.Start(&log);

    bench.m_Thread.StopAsyncUrlTransferThread();

    EXPECT_EQ(bench.m_Deleted.load(), 2);
    EXPECT_EQ(log.CountContaining("AsyncUrl: Cancelling request #"), 2u);
    EXPECT_EQ(log.Count("AsyncUrl: *** curl_multi_remove_handle() returns 2"), 2u);
}

TEST(QDAsyncUrlTransferThread, RequestsComeBackInTheOrderOfTheirHandles)
{
    ScriptedServer server(Greet);
    TransferBench bench;
    std::vector<QDAsyncUrlRequest*> requests;
    for (int count = 0; count < 8; ++count)
        requests.push_back(new TalliedRequest(server.GetUrl()));
    const auto isBelow = [](const QDAsyncUrlRequest* a, const QDAsyncUrlRequest* b) {
        return std::less<>()(a->GetCurlHandle(), b->GetCurlHandle());
    };
    std::sort(requests.begin(), requests.end(), isBelow);
    bench.Start();
    std::for_each(requests.rbegin(), requests.rend(),
                  [&](QDAsyncUrlRequest* request) { bench.m_Thread.StartTransfer(request); });
    for (const QDAsyncUrlRequest* request : requests)
        ASSERT_TRUE(WaitForState(*request, QDAsyncUrlRequest::TransferComplete));

    std::vector<QDAsyncUrlRequest*> collected;
    while (QDAsyncUrlRequest* request = bench.m_Thread.GetNextCompletedRequest())
        collected.push_back(request);

    EXPECT_EQ(collected, requests);
    for (const QDAsyncUrlRequest* request : collected)
        delete request;
}

TEST(QDAsyncUrlTransferThread, SinkCollectsAndQueuesFromWithinItsCallback)
{
    constexpr int kRounds = 20;
    ScriptedServer server(Greet);
    std::atomic<int> collected{0};
    TransferBench bench;
    bench.m_Sink.m_OnCompleted = [&] {
        while (QDAsyncUrlRequest* request = bench.m_Thread.GetNextCompletedRequest()) {
            EXPECT_EQ(request->GetCurlResultCode(), CURLE_OK);
            delete request;
            if (collected.fetch_add(1) + 1 < kRounds)
                bench.Queue(server.GetUrl());
        }
    };
    bench.Start();

    bench.Queue(server.GetUrl());

    EXPECT_TRUE(WaitUntil([&] { return collected.load() == kRounds; }));
    EXPECT_EQ(bench.m_Deleted.load(), kRounds);
    EXPECT_EQ(bench.m_Thread.GetRequestCount(), 0);
}

TEST(QDAsyncUrlTransferThread, AnotherThreadCollectsWhatTheSinkAnnounces)
{
    ScriptedServer server(Greet);
    TransferBench bench;
    auto collected = std::async(std::launch::async, [&] {
        bench.m_Sink.WaitFor("completed");
        return std::unique_ptr<QDAsyncUrlRequest>(bench.m_Thread.GetNextCompletedRequest());
    });
    bench.Start();

    bench.Queue(server.GetUrl());

    const auto request = collected.get();
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(request->GetCurlResultCode(), CURLE_OK);
}

TEST(QDAsyncUrlTransferThread, LockIsFreeInEveryCallback)
{
    ScriptedServer server(Greet);
    TransferBench bench;
    LockProbe probe(bench.m_Thread);
    const auto call = [&] { probe.Call(); };
    bench.m_Sink.m_OnStart = call;
    bench.m_Sink.m_OnCompleted = call;
    bench.m_Sink.m_OnStop = call;
    auto* request = new TalliedRequest(server.GetUrl());
    request->m_OnReply = call;
    request->m_OnDelete = call;
    bench.Start();

    bench.m_Thread.StartTransfer(request);
    EXPECT_TRUE(bench.m_Sink.WaitFor("completed"));
    bench.m_Thread.StopAsyncUrlTransferThread();

    EXPECT_EQ(probe.GetCallCount(), 5u);
}

TEST(QDAsyncUrlTransferThread, LockIsFreeWhileLibcurlActs)
{
    ScriptedServer server(Hang);
    std::unique_ptr<LockProbe> probe;
    std::atomic<int> kicks{0};
    std::atomic<int> sockets{0};
    CurlMulti curl([&](curl_socket_t socket, int) {
        probe->Call();
        ++(socket == CURL_SOCKET_TIMEOUT ? kicks : sockets);
        return CURLM_OK;
    });
    TransferBench bench;
    probe = std::make_unique<LockProbe>(bench.m_Thread);
    bench.Start();

    bench.Queue(server.GetUrl(), 50);
    EXPECT_NE(Collect(bench.m_Thread), nullptr);
    bench.m_Thread.StopAsyncUrlTransferThread();

    EXPECT_GE(kicks.load(), 2); // the start and the time-out
    EXPECT_GE(sockets.load(), 1);
}

// --- The end of the loop --------------------------------------------------------------------------------------------

TEST(QDAsyncUrlTransferThread, StopDeletesRequestsInEveryStateBeforeTheSinkHearsOfIt)
{
    ThreadLog log;
    HoldingPlace place;
    ScriptedServer hanging(Hang);
    ScriptedServer greeting(Greet);
    int deletedAtStop = 0;
    TransferBench bench;
    bench.m_Sink.m_OnCompleted = [&] { place.PassThrough(); };
    bench.m_Sink.m_OnStop = [&] { deletedAtStop = bench.m_Deleted.load(); };
    bench.Start(&log);
    std::vector<const QDAsyncUrlRequest*> requests;
    requests.push_back(&bench.Queue(hanging.GetUrl()));
    ASSERT_TRUE(WaitForState(*requests[0], QDAsyncUrlRequest::TransferRunning));
    requests.push_back(&bench.Queue(greeting.GetUrl()));
    ASSERT_TRUE(place.WaitUntilHeld());
    bench.m_Thread.SendThreadEvent(0);
    requests.push_back(&bench.Queue(greeting.GetUrl())); // its start comes behind the stop
    std::sort(requests.begin(), requests.end(), [](const QDAsyncUrlRequest* a, const QDAsyncUrlRequest* b) {
        return std::less<>()(a->GetCurlHandle(), b->GetCurlHandle());
    });
    Texts expected;
    for (const QDAsyncUrlRequest* request : requests)
        expected.push_back("AsyncUrl: Cancelling request #" + std::to_string(request->GetAsyncUrlRequestId()));
    expected.push_back("AsyncUrl: Thread Stopped");

    place.LetGo();
    bench.m_Thread.StopAsyncUrlTransferThread();

    EXPECT_EQ(deletedAtStop, 3);
    EXPECT_EQ(bench.m_Thread.GetNextCompletedRequest(), nullptr);
    EXPECT_EQ(bench.m_Thread.GetRequestCount(), 0);
    Texts texts = WithoutTimers(log.GetTexts(bench.m_Sink.GetThread()));
    std::erase_if(texts, [](const std::string& text) { return text.find(": Socket ") != std::string::npos; });
    ASSERT_GE(texts.size(), expected.size());
    EXPECT_EQ((Texts{texts.end() - static_cast<long>(expected.size()), texts.end()}), expected);
}

TEST(QDAsyncUrlTransferThread, CountIsZeroWhileTheStopDeletes)
{
    std::vector<int> counts;
    TransferBench bench;
    for (int number = 0; number < 2; ++number)
        bench.Queue("").m_OnDelete = [&] { counts.push_back(bench.m_Thread.GetRequestCount()); };
    bench.Start();

    bench.m_Thread.StopAsyncUrlTransferThread();

    EXPECT_EQ(counts, (std::vector<int>{0, 0}));
}

TEST(QDAsyncUrlTransferThread, CancelPrintsWhatLibcurlRefusesToRemove)
{
    ThreadLog log;
    TransferBench bench;
    bench.Start(&log);
    auto* request = new TalliedRequest("http://127.0.0.1/", &bench.m_Deleted);
    CURLM* other = curl_multi_init();
    curl_multi_add_handle(other, request->GetCurlHandle());
    bench.m_Thread.StartTransfer(request);
    ASSERT_TRUE(WaitForState(*request, QDAsyncUrlRequest::TransferComplete));

    bench.m_Thread.StopAsyncUrlTransferThread();

    EXPECT_EQ(WithoutTimers(log.GetTexts(bench.m_Sink.GetThread())),
              (Texts{"AsyncUrl: Thread Started", "AsyncUrl: Start New Transfer", "AsyncUrl: Start request #1",
                     "AsyncUrl: Cancelling request #1", "AsyncUrl: *** curl_multi_remove_handle() returns 2",
                     "AsyncUrl: Thread Stopped"}));
    EXPECT_EQ(bench.m_Deleted.load(), 1);
    curl_multi_cleanup(other);
}

TEST(QDAsyncUrlTransferThread, InterruptedSelectIsPrintedAndTheLoopGoesOn)
{
    ThreadLog log;
    TransferBench bench;
    const FaultPlan fault("select", 1, EINTR);

    bench.Start(&log);
    EXPECT_TRUE(WaitUntil([&] { return fault.GetCallCount() == 2; }));
    bench.m_Thread.StopAsyncUrlTransferThread();

    EXPECT_EQ(log.GetTexts(bench.m_Sink.GetThread()),
              (Texts{"AsyncUrl: Thread Started", "AsyncUrl: select() returned -1, errno = EINTR",
                     "AsyncUrl: Thread Stopped"}));
}

TEST(QDAsyncUrlTransferThread, FailedSelectEndsTheLoopAndTheThreadStillWantsItsStop)
{
    ThreadLog log;
    TransferBench bench;
    {
        const FaultPlan fault("select", 1, EBADF);
        bench.Start(&log);
        ASSERT_TRUE(bench.m_Sink.WaitFor("stop"));
        EXPECT_EQ(fault.GetCallCount(), 1);
    }

    EXPECT_TRUE(bench.m_Thread.IsThreadRunning());
    bench.m_Thread.StopAsyncUrlTransferThread();

    EXPECT_FALSE(bench.m_Thread.IsThreadRunning());
    EXPECT_EQ(log.GetTexts(bench.m_Sink.GetThread()),
              (Texts{"AsyncUrl: Thread Started", "AsyncUrl: select() returned -1, errno = 9",
                     "AsyncUrl: Don't know how to recover so quitting thread loop", "AsyncUrl: Thread Stopped"}));
}

TEST(QDAsyncUrlTransferThread, FailedPipeReadEndsTheLoop)
{
    ThreadLog log;
    TransferBench bench;
    bench.Start(&log);
    {
        const FaultPlan fault("read", 1, EIO);
        bench.m_Thread.SendThreadEvent(1);
        EXPECT_TRUE(bench.m_Sink.WaitFor("stop"));
        EXPECT_TRUE(fault.HasFailed());
    }
    bench.m_Thread.StopAsyncUrlTransferThread();

    EXPECT_EQ(log.GetTexts(bench.m_Sink.GetThread()), (Texts{"AsyncUrl: Thread Started", "AsyncUrl: Thread Stopped"}));
}

TEST(QDAsyncUrlTransferThread, LoopThatEndedByItselfDeletesItsRequestsAndKeepsLaterOnesForTheNextStart)
{
    ScriptedServer hanging(Hang);
    ScriptedServer greeting(Greet);
    TransferBench bench;
    bench.Start();
    ASSERT_TRUE(WaitForState(bench.Queue(hanging.GetUrl()), QDAsyncUrlRequest::TransferRunning));
    bench.m_Thread.SendThreadEvent(0);
    ASSERT_TRUE(bench.m_Sink.WaitFor("stop"));
    EXPECT_EQ(bench.m_Deleted.load(), 1);

    bench.Queue(greeting.GetUrl());
    bench.m_Thread.StopAsyncUrlTransferThread();
    EXPECT_EQ(bench.m_Thread.GetRequestCount(), 1);
    bench.Start();

    EXPECT_NE(Collect(bench.m_Thread), nullptr);
}

// --- Programming errors ---------------------------------------------------------------------------------------------

TEST(QDAsyncUrlTransferThreadDeathTest, StartWhileItRunsIsAProgrammingError)
{
    const auto startTwice = [] {
        PlainSink sink;
        QDAsyncUrlTransferThread transfers(&sink);
        transfers.StartAsyncUrlTransferThread("", nullptr);
        transfers.StartAsyncUrlTransferThread("", nullptr);
    };

    EXPECT_DEATH(startTwice(), "QDPlatform/QDAsyncUrlTransferThread.*[^!]! IsThreadRunning\\(\\)");
}

TEST(QDAsyncUrlTransferThreadDeathTest, StopFromWithinACallbackIsAProgrammingError)
{
    const auto stopFromWithin = [] {
        TransferBench bench;
        std::atomic<bool> runs{false};
        bench.m_Sink.m_OnStart = [&] {
            runs.wait(false);
            bench.m_Thread.StopAsyncUrlTransferThread();
        };
        bench.Start();
        runs.store(true);
        runs.notify_all();
        WaitUntil([] { return false; });
    };

    EXPECT_DEATH(stopFromWithin(), "pthread_equal\\(::pthread_self\\(\\), m_Thread\\)");
}

TEST(QDAsyncUrlTransferThreadDeathTest, NoRequestIsAProgrammingError)
{
    PlainSink sink;
    QDAsyncUrlTransferThread transfers(&sink);

    EXPECT_DEATH(transfers.StartTransfer(nullptr), "request != nullptr");
}
