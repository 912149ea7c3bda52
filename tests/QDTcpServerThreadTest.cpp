#include <QDPlatform/QDTcpServerThread.h>

#include "AllocationCounter.h"
#include "FaultPlan.h"
#include "LoopbackClient.h"
#include "RecordingLog.h"
#include "SignalCounter.h"
#include "TakenDescriptors.h"
#include "TestServer.h"
#include "TestThread.h"
#include "WaitUntil.h"

#include <QDPlatform/COutputLogNull.h>
#include <QDPlatform/QDTimestamp.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace
{

using Texts = std::vector<std::string>;

// A listening socket on the loopback interface, to make connections without a server.
class ListeningSocket
{
public:
    ListeningSocket() : m_Socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::bind(m_Socket, reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(::listen(m_Socket, 128), 0);
        EXPECT_EQ(::getsockname(m_Socket, reinterpret_cast<sockaddr*>(&address), &length), 0);
        m_Port = ntohs(address.sin_port);
    }

    ListeningSocket(const ListeningSocket&) = delete;
    ListeningSocket& operator=(const ListeningSocket&) = delete;

    ~ListeningSocket() { ::close(m_Socket); }

    int Accept() { return ::accept4(m_Socket, nullptr, nullptr, SOCK_CLOEXEC); }

    unsigned short GetPort() const { return m_Port; }

private:
    int m_Socket;
    unsigned short m_Port{0};
};

// A worker with links of the test's own, and a server beside it that only hears about them. The server's own messages
// go to a log apart. The test holds one reference to the worker and to each link.
class WorkerBench
{
public:
    explicit WorkerBench(COutputLog& log, TcpServerLinkLogging level = TcpServerLinkLoggingDefault,
                         unsigned int linkLimit = 64) :
        m_Log(log), m_Server(&m_ServerLog, 1), m_pWorker(new CQDTcpServerThread(&log, &m_Server, 1, linkLimit, level))
    {
        m_Server.SetLinkLogging(level);
        m_pWorker->AddRef();
    }

    WorkerBench(const WorkerBench&) = delete;
    WorkerBench& operator=(const WorkerBench&) = delete;

    ~WorkerBench()
    {
        Stop();
        m_pWorker->Release();
        for (auto& [linkId, link] : m_LinkTable) {
            link->CloseSocket(true);
            link->Release();
        }
    }

    // A connected link that is not the worker's yet.
    TestLink& MakeLink(unsigned int linkId)
    {
        m_Clients.emplace(linkId, LoopbackClient(m_Listener.GetPort()));
        TcpServerLinkCreateContext context = m_Server.MakeContext(linkId, m_Listener.Accept());
        context.m_pOutputLog = &m_Log;
        auto* link = new TestLink(context, m_Server.m_Links);
        link->AddRef();
        m_LinkTable.emplace(linkId, link);
        return *link;
    }

    TestLink& AddLink(unsigned int linkId)
    {
        TestLink& link = MakeLink(linkId);
        EXPECT_TRUE(m_pWorker->AddLink(&link));
        return link;
    }

    TestLink& Link(unsigned int linkId) { return *m_LinkTable.at(linkId); }

    LoopbackClient& Client(unsigned int linkId) { return m_Clients.at(linkId); }

    // Gives the test's own reference back: the link is the worker's alone from then on.
    void LeaveToWorker(unsigned int linkId)
    {
        m_LinkTable.at(linkId)->Release();
        m_LinkTable.erase(linkId);
    }

    bool Post(unsigned int linkId, int number = 0)
    {
        auto message = std::make_unique<CountedMessage>(linkId, m_Tally, number);
        const bool queued = m_pWorker->PostLinkMessage(message.get());
        if (queued)
            message.release();
        return queued;
    }

    void Start() { EXPECT_TRUE(m_pWorker->StartThread()); }

    void Stop()
    {
        m_pWorker->TellThreadToStop();
        m_pWorker->WaitForThreadToStop();
    }

    CQDTcpServerThread& Worker() { return *m_pWorker; }

    TestServer& Server() { return m_Server; }

    LinkCallbacks& Links() { return m_Server.m_Links; }

    RecordingLog& ServerLog() { return m_ServerLog; }

    MessageTally& Tally() { return m_Tally; }

private:
    COutputLog& m_Log;
    RecordingLog m_ServerLog;
    ListeningSocket m_Listener;
    MessageTally m_Tally;
    TestServer m_Server;
    std::map<unsigned int, LoopbackClient> m_Clients;
    std::map<unsigned int, TestLink*> m_LinkTable;
    CQDTcpServerThread* m_pWorker;
};

struct PipeEnds
{
    int m_ReadEnd{-1};
    int m_WriteEnd{-1};
};

// Starts the worker and finds the pipe that this opened.
PipeEnds StartAndFindPipe(WorkerBench& bench)
{
    const std::set<int> before = GetOpenDescriptors();
    bench.Start();
    PipeEnds ends;
    for (const int fd : GetOpenDescriptors()) {
        if (before.count(fd) != 0)
            continue;
        const bool isWriteEnd = (::fcntl(fd, F_GETFL) & O_ACCMODE) == O_WRONLY;
        (isWriteEnd ? ends.m_WriteEnd : ends.m_ReadEnd) = fd;
    }
    return ends;
}

void WriteBytes(int fd, const std::vector<unsigned char>& bytes)
{
    EXPECT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

// Takes what is in the pipe.
std::vector<unsigned char> TakeBytes(int fd)
{
    int waiting = 0;
    EXPECT_EQ(::ioctl(fd, FIONREAD, &waiting), 0);
    std::vector<unsigned char> bytes(static_cast<std::size_t>(waiting));
    if (waiting > 0) {
        EXPECT_EQ(::read(fd, bytes.data(), bytes.size()), waiting);
    }
    return bytes;
}

// Waits until the other end's data has come.
void WaitUntilReadable(const TestLink& link)
{
    pollfd socket{link.GetSocket(), POLLIN, 0};
    EXPECT_EQ(::poll(&socket, 1, 20'000), 1);
}

CQDTimestamp InOneHour()
{
    CQDTimestamp time = CQDTimestamp::UTCNow();
    time.AddMilliseonds(3'600'000);
    return time;
}

// Whether another thread can take the worker's lock just now.
bool IsWorkerUnlocked(CQDTcpServerThread& worker)
{
    auto question = std::async(std::launch::async, [&] { return worker.ThreadHasSpareCapacity(); });
    return question.wait_for(5s) == std::future_status::ready;
}

} // namespace

TEST(CQDTcpServerThread, MaximumLinksIs64)
{
    EXPECT_EQ(CQDTcpServerThread::kMaximumLinks, 64u);
}

TEST(CQDTcpServerThread, ConstructorAndDestructorPrintBehindThePrefixWithTheNumber)
{
    RecordingLog log;
    TestServer server(&log, 1);

    delete new CQDTcpServerThread(&log, &server, 4294967295u, 1, TcpServerLinkLoggingLifecycle);

    EXPECT_EQ(log.GetTexts(), (Texts{"TCPThread 4294967295: Created", "TCPThread 4294967295: Deleted"}));
}

TEST(CQDTcpServerThread, MessagesAreInformationLines)
{
    RecordingLog log;
    TestServer server(&log, 1);

    delete new CQDTcpServerThread(&log, &server, 7, 1, TcpServerLinkLoggingLifecycle);

    for (const RecordingLog::Message& message : log.GetMessages()) {
        EXPECT_EQ(message.m_Type, COutputLog::Info);
        EXPECT_EQ(message.m_Code, 0);
    }
}

TEST(CQDTcpServerThread, LevelOffPrintsNothing)
{
    RecordingLog log;
    {
        WorkerBench bench(log, TcpServerLinkLoggingOff);
        bench.AddLink(1);
        bench.Start();
        bench.Client(1).Send("x");
        EXPECT_EQ(bench.Client(1).Receive(1), "x");
    }

    EXPECT_EQ(log.GetTexts(), Texts{});
}

TEST(CQDTcpServerThread, NullLogIsAllowed)
{
    RecordingLog log;
    TestServer server(&log, 1);
    auto* worker = new CQDTcpServerThread(nullptr, &server, 1, 1, TcpServerLinkLoggingData);

    worker->AddRef();
    EXPECT_TRUE(worker->StartThread());
    worker->TellThreadToStop();
    worker->WaitForThreadToStop();
    worker->Release();

    EXPECT_EQ(server.m_StoppedThreads.load(), 1);
}

TEST(CQDTcpServerThread, ReferencesAreCountedFromZeroAndPrintedAtLevelFive)
{
    RecordingLog log;
    TestServer server(&log, 1);
    auto* worker = new CQDTcpServerThread(&log, &server, 2, 1, TcpServerLinkLoggingReferences);

    worker->AddRef();
    worker->AddRef();
    worker->Release();
    worker->Release();

    EXPECT_EQ(log.GetTexts(), (Texts{"TCPThread 2: Created", "TCPThread 2: AddRef, RefCount = 1",
                                     "TCPThread 2: AddRef, RefCount = 2", "TCPThread 2: Release, RefCount = 1",
                                     "TCPThread 2: Release, RefCount = 0", "TCPThread 2: Deleted"}));
}

TEST(CQDTcpServerThread, ReferencesAreNotPrintedBelowLevelFive)
{
    RecordingLog log;
    TestServer server(&log, 1);
    auto* worker = new CQDTcpServerThread(&log, &server, 2, 1, TcpServerLinkLoggingDetail);

    worker->AddRef();
    worker->Release();

    EXPECT_EQ(log.GetTexts(), (Texts{"TCPThread 2: Created", "TCPThread 2: Deleted"}));
}

TEST(CQDTcpServerThread, ReferencesFromManyThreadsDeleteOnce)
{
    RecordingLog log;
    TestServer server(&log, 1);
    auto* worker = new CQDTcpServerThread(&log, &server, 2, 1, TcpServerLinkLoggingLifecycle);
    worker->AddRef();

    {
        std::vector<std::unique_ptr<TestThread>> threads;
        for (int i = 0; i < 4; ++i) {
            worker->AddRef();
            threads.push_back(std::make_unique<TestThread>([=] {
                for (int n = 0; n < 1000; ++n) {
                    worker->AddRef();
                    worker->Release();
                }
                worker->Release();
            }));
        }
    }
    EXPECT_EQ(log.Count("TCPThread 2: Deleted"), 0u);
    worker->Release();

    EXPECT_EQ(log.Count("TCPThread 2: Deleted"), 1u);
}

TEST(CQDTcpServerThread, SpareCapacityEndsAtTheLimit)
{
    COutputLogNull log;
    WorkerBench bench(log, TcpServerLinkLoggingDefault, 2);

    EXPECT_TRUE(bench.Worker().ThreadHasSpareCapacity());
    bench.AddLink(1);
    EXPECT_TRUE(bench.Worker().ThreadHasSpareCapacity());
    bench.AddLink(2);
    EXPECT_FALSE(bench.Worker().ThreadHasSpareCapacity());
}

TEST(CQDTcpServerThread, SpareCapacityComesBackWhenALinkGoes)
{
    COutputLogNull log;
    WorkerBench bench(log, TcpServerLinkLoggingDefault, 1);
    TestLink& link = bench.AddLink(1);

    bench.Worker().CloseAndDeleteLink(&link, true);

    EXPECT_TRUE(bench.Worker().ThreadHasSpareCapacity());
}

TEST(CQDTcpServerThread, LimitOfZeroNeverHasSpareCapacity)
{
    COutputLogNull log;
    WorkerBench bench(log, TcpServerLinkLoggingDefault, 0);

    EXPECT_FALSE(bench.Worker().ThreadHasSpareCapacity());
}

TEST(CQDTcpServerThread, LimitAbove64IsHeldAt64)
{
    COutputLogNull log;
    WorkerBench bench(log, TcpServerLinkLoggingDefault, 1000);

    for (unsigned int linkId = 1; linkId <= 63; ++linkId)
        bench.AddLink(linkId);
    EXPECT_TRUE(bench.Worker().ThreadHasSpareCapacity());
    bench.AddLink(64);

    EXPECT_FALSE(bench.Worker().ThreadHasSpareCapacity());
    EXPECT_FALSE(bench.Worker().AddLink(&bench.MakeLink(65)));
}

TEST(CQDTcpServerThread, All64LinksAreServed)
{
    COutputLogNull log;
    WorkerBench bench(log);
    for (unsigned int linkId = 1; linkId <= 64; ++linkId)
        bench.AddLink(linkId);
    bench.Start();

    for (unsigned int linkId = 1; linkId <= 64; ++linkId)
        bench.Client(linkId).Send("ping");

    for (unsigned int linkId = 1; linkId <= 64; ++linkId)
        EXPECT_EQ(bench.Client(linkId).Receive(4), "ping") << "link " << linkId;
}

TEST(CQDTcpServerThread, LinkCountIsAlwaysZero)
{
    COutputLogNull log;
    WorkerBench bench(log);

    EXPECT_EQ(bench.Worker().GetLinkCount(), 0u);
    bench.AddLink(1);
    bench.AddLink(2);
    EXPECT_EQ(bench.Worker().GetLinkCount(), 0u);
    bench.Worker().CloseAndDeleteLink(&bench.Link(1), true);
    EXPECT_EQ(bench.Worker().GetLinkCount(), 0u);
}

TEST(CQDTcpServerThread, ThreadNumberIsTheServers)
{
    RecordingLog log;
    TestServer server(&log, 1);
    auto* worker = new CQDTcpServerThread(&log, &server, 42, 1, TcpServerLinkLoggingOff);

    EXPECT_EQ(worker->GetThreadNumber(), 42u);

    delete worker;
}

TEST(CQDTcpServerThread, AddLinkTakesAReferenceAndMakesTheSocketNonBlocking)
{
    RecordingLog log;
    WorkerBench bench(log, TcpServerLinkLoggingReferences);
    TestLink& link = bench.MakeLink(1);
    ASSERT_EQ(::fcntl(link.GetSocket(), F_GETFL) & O_NONBLOCK, 0);

    EXPECT_TRUE(bench.Worker().AddLink(&link));

    EXPECT_NE(::fcntl(link.GetSocket(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(log.Count("Test 1: AddRef, RefCount = 2"), 1u);
    EXPECT_EQ(log.CountContaining("Release"), 0u);
}

TEST(CQDTcpServerThread, LinkThatStaysBlockingIsPrintedAndServed)
{
    RecordingLog log;
    WorkerBench bench(log);
    {
        const FaultPlan fault("ioctl", 1, ENOTTY);
        bench.AddLink(1);
    }
    bench.Start();

    bench.Client(1).Send("x");

    EXPECT_EQ(bench.Client(1).Receive(1), "x");
    EXPECT_EQ(log.Count("Test 1: ioctl() failed, error 25"), 1u);
}

TEST(CQDTcpServerThread, LinkWithAClosedSocketIsNotTaken)
{
    RecordingLog log;
    WorkerBench bench(log, TcpServerLinkLoggingReferences);
    TestLink& link = bench.MakeLink(1);
    link.CloseSocket(true);

    EXPECT_FALSE(bench.Worker().AddLink(&link));

    EXPECT_EQ(log.Count("Test 1: Release, RefCount = 1"), 1u);
    EXPECT_FALSE(bench.Post(1));
}

TEST(CQDTcpServerThread, DescriptorThatDoesNotFitTheSetsIsNotTaken)
{
    COutputLogNull log;
    WorkerBench bench(log);
    TestLink* link = nullptr;
    {
        const TakenDescriptors taken;
        link = &bench.MakeLink(1);
    }
    ASSERT_GE(link->GetSocket(), FD_SETSIZE);

    EXPECT_FALSE(bench.Worker().AddLink(link));

    EXPECT_FALSE(bench.Post(1));
}

TEST(CQDTcpServerThread, PostForAnUnknownLinkLeavesTheMessageToTheCaller)
{
    COutputLogNull log;
    WorkerBench bench(log);
    bench.AddLink(1);
    CountedMessage message(2, bench.Tally());

    EXPECT_FALSE(bench.Worker().PostLinkMessage(&message));

    EXPECT_EQ(bench.Tally().m_Deleted.load(), 0);
}

TEST(CQDTcpServerThread, PostAfterTheLinkWasClosedIsNotQueued)
{
    COutputLogNull log;
    WorkerBench bench(log);
    bench.AddLink(1);
    bench.Start();
    ASSERT_TRUE(bench.Post(1));
    ASSERT_TRUE(WaitUntil([&] { return bench.Tally().m_Delivered.load() == 1; }));

    bench.Client(1).Reset();
    ASSERT_TRUE(WaitUntil([&] { return bench.Link(1).GetSocket() == -1; }));

    EXPECT_TRUE(WaitUntil([&] { return !bench.Post(1); }));
}

TEST(CQDTcpServerThread, StartPrintsAndOpensAPipeThatIsCloseOnExec)
{
    ThreadLog log;
    WorkerBench bench(log, TcpServerLinkLoggingLifecycle);

    const PipeEnds pipe = StartAndFindPipe(bench);

    EXPECT_EQ(
        log.GetTexts(std::this_thread::get_id()),
        (Texts{"TCPThread 1: Created", "TCPThread 1: Starting TCP thread...", "TCPThread 1: ...TCP thread started"}));
    EXPECT_EQ(::fcntl(pipe.m_ReadEnd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(::fcntl(pipe.m_WriteEnd, F_GETFD), FD_CLOEXEC);
}

TEST(CQDTcpServerThread, FailedStartLeavesNothingOpenAndSaysWhyInErrno)
{
    struct Case
    {
        const char* m_pName;
        const char* m_pFunction;
        int m_Error;
    };

    const Case cases[] = {{"no pipe", "pipe2", ENFILE}, {"no thread", "pthread_create", EAGAIN}};
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_pName);
        RecordingLog log;
        WorkerBench bench(log, TcpServerLinkLoggingLifecycle);
        const std::set<int> before = GetOpenDescriptors();

        const FaultPlan fault(testCase.m_pFunction, 1, testCase.m_Error);
        errno = 0;
        const bool started = bench.Worker().StartThread();
        const int error = errno;

        EXPECT_FALSE(started);
        EXPECT_EQ(error, testCase.m_Error);
        EXPECT_EQ(GetOpenDescriptors(), before);
        EXPECT_EQ(log.GetTexts(), (Texts{"TCPThread 1: Created", "TCPThread 1: Starting TCP thread..."}));
    }
}

TEST(CQDTcpServerThread, PipeThatDoesNotFitTheSetsMakesTheStartFail)
{
    COutputLogNull log;
    WorkerBench bench(log);
    const TakenDescriptors taken;

    errno = 0;
    const bool started = bench.Worker().StartThread();
    const int error = errno;

    EXPECT_FALSE(started);
    EXPECT_EQ(error, EMFILE);
}

TEST(CQDTcpServerThread, StopBeforeAndAfterAFailedStartDoesNothing)
{
    RecordingLog log;
    WorkerBench bench(log, TcpServerLinkLoggingLifecycle);
    bench.Stop();
    {
        const FaultPlan fault("pipe2", 1, EMFILE);
        EXPECT_FALSE(bench.Worker().StartThread());
    }

    bench.Stop();

    EXPECT_EQ(log.GetTexts(), (Texts{"TCPThread 1: Created", "TCPThread 1: Starting TCP thread..."}));
}

TEST(CQDTcpServerThread, StartAfterAFailedStartWorks)
{
    COutputLogNull log;
    WorkerBench bench(log);
    bench.AddLink(1);
    {
        const FaultPlan fault("pthread_create", 1, EAGAIN);
        EXPECT_FALSE(bench.Worker().StartThread());
    }

    bench.Start();
    bench.Client(1).Send("x");

    EXPECT_EQ(bench.Client(1).Receive(1), "x");
}

TEST(CQDTcpServerThread, StopPrintsEveryStepAndClosesThePipe)
{
    ThreadLog log;
    const std::set<int> before = GetOpenDescriptors();
    {
        std::thread::id workerId;
        WorkerBench bench(log, TcpServerLinkLoggingLifecycle);
        const std::set<int> beforeStart = GetOpenDescriptors();
        bench.Server().m_OnThreadStop = [&](CQDTcpServerThread&) { workerId = std::this_thread::get_id(); };
        bench.Start();

        bench.Stop();

        EXPECT_EQ(GetOpenDescriptors(), beforeStart);
        EXPECT_EQ(log.GetTexts(std::this_thread::get_id()),
                  (Texts{"TCPThread 1: Created", "TCPThread 1: Starting TCP thread...",
                         "TCPThread 1: ...TCP thread started", "TCPThread 1: Stop TCP Thread...",
                         "TCPThread 1: Wait for TCP thread to stop...", "TCPThread 1: ...TCP thread stopped"}));
        EXPECT_EQ(log.GetTexts(workerId), (Texts{"TCPThread 1: Thread started", "TCPThread 1: Thread Rx exit request",
                                                 "TCPThread 1: Thread stopped"}));
    }
    EXPECT_EQ(GetOpenDescriptors(), before);
}

TEST(CQDTcpServerThread, SecondStopDoesNothing)
{
    RecordingLog log;
    WorkerBench bench(log, TcpServerLinkLoggingLifecycle);
    bench.Start();
    bench.Stop();
    log.Clear();

    bench.Stop();

    EXPECT_EQ(log.GetTexts(), Texts{});
    EXPECT_EQ(bench.Server().m_StoppedThreads.load(), 1);
}

TEST(CQDTcpServerThread, ServerHearsOfTheEndOnTheWorkersOwnThreadWhenTheLinksAreClosed)
{
    COutputLogNull log;
    CQDTcpServerThread* told = nullptr;
    std::thread::id toldOn;
    int socketThen = 0;
    std::thread::id servedOn;
    WorkerBench bench(log);
    bench.AddLink(1);
    bench.Server().m_OnThreadStop = [&](CQDTcpServerThread& thread) {
        told = &thread;
        toldOn = std::this_thread::get_id();
        socketThen = bench.Link(1).GetSocket();
    };
    bench.Links().m_OnRxData = [&](TestLink& link) {
        servedOn = std::this_thread::get_id();
        return link.Echo();
    };
    bench.Start();
    bench.Client(1).Send("x");
    ASSERT_EQ(bench.Client(1).Receive(1), "x");

    bench.Stop();

    EXPECT_EQ(told, &bench.Worker());
    EXPECT_EQ(toldOn, servedOn);
    EXPECT_NE(toldOn, std::this_thread::get_id());
    EXPECT_EQ(socketThen, -1);
}

TEST(CQDTcpServerThread, StopClosesLinksWithAResetAndLeavesTheServersTableAlone)
{
    COutputLogNull log;
    WorkerBench bench(log);
    bench.AddLink(1);
    bench.AddLink(2);
    bench.Start();

    bench.Stop();

    EXPECT_TRUE(bench.Client(1).SawReset());
    EXPECT_TRUE(bench.Client(2).SawReset());
    EXPECT_EQ(bench.Links().m_Disconnects.load(), 2);
    EXPECT_EQ(bench.ServerLog().GetTexts(), Texts{}) << "RemoveLink() prints when it does not know the link";
}

TEST(CQDTcpServerThread, EachOperationSendsItsCommandByte)
{
    COutputLogNull log;
    HoldingPlace place;
    WorkerBench bench(log);
    bench.AddLink(1);
    bench.Links().m_OnRxData = [&](TestLink& link) {
        place.PassThrough();
        return link.Echo();
    };
    const PipeEnds pipe = StartAndFindPipe(bench);
    bench.Client(1).Send("x");
    EXPECT_TRUE(place.WaitUntilHeld());

    bench.AddLink(2);
    EXPECT_EQ(TakeBytes(pipe.m_ReadEnd), (std::vector<unsigned char>{1}));
    EXPECT_TRUE(bench.Post(2));
    EXPECT_EQ(TakeBytes(pipe.m_ReadEnd), (std::vector<unsigned char>{2}));
    EXPECT_FALSE(bench.Post(3));
    EXPECT_EQ(TakeBytes(pipe.m_ReadEnd), (std::vector<unsigned char>{}));
    bench.Worker().TellThreadToStop();
    EXPECT_EQ(TakeBytes(pipe.m_ReadEnd), (std::vector<unsigned char>{0}));

    WriteBytes(pipe.m_WriteEnd, {0});
    place.LetGo();
}

TEST(CQDTcpServerThread, LinkAddedToARunningWorkerIsServedAtOnce)
{
    COutputLogNull log;
    WorkerBench bench(log);
    bench.Start();

    bench.AddLink(1);
    bench.Client(1).Send("x");

    EXPECT_EQ(bench.Client(1).Receive(1), "x");
}

TEST(CQDTcpServerThread, InvalidCommandsArePrintedAndTheLoopGoesOn)
{
    RecordingLog log;
    WorkerBench bench(log, TcpServerLinkLoggingLifecycle);
    bench.AddLink(1);
    const PipeEnds pipe = StartAndFindPipe(bench);

    WriteBytes(pipe.m_WriteEnd, {3, 254, 255});

    EXPECT_TRUE(WaitUntil([&] { return log.Has("TCPThread 1: Thread Rx invalid command 255"); }));
    EXPECT_EQ(log.Count("TCPThread 1: Thread Rx invalid command 3"), 1u);
    EXPECT_EQ(log.Count("TCPThread 1: Thread Rx invalid command 254"), 1u);
    bench.Client(1).Send("x");
    EXPECT_EQ(bench.Client(1).Receive(1), "x");
}

TEST(CQDTcpServerThread, EachPassTakesOneCommand)
{
    ThreadLog log;
    HoldingPlace place;
    std::thread::id workerId;
    WorkerBench bench(log, TcpServerLinkLoggingDetail);
    bench.AddLink(1);
    bench.Links().m_OnRxData = [&](TestLink& link) {
        workerId = std::this_thread::get_id();
        link.ReadOneByte();
        place.PassThrough();
        return LinkCallbackSuccess;
    };
    const PipeEnds pipe = StartAndFindPipe(bench);
    bench.Client(1).Send("x");
    EXPECT_TRUE(place.WaitUntilHeld());

    WriteBytes(pipe.m_WriteEnd, {2, 1, 9, 0});
    place.LetGo();
    bench.Worker().WaitForThreadToStop();

    EXPECT_EQ(
        log.GetTexts(workerId),
        (Texts{"TCPThread 1: Thread started", "TCPThread 1: Select returns 1", "Test 1: Call OnRxData",
               "TCPThread 1: Select returns 1", "TCPThread 1: DispatchLinkMessages...", "TCPThread 1: Select returns 1",
               "TCPThread 1: Select returns 1", "TCPThread 1: Thread Rx invalid command 9",
               "TCPThread 1: Select returns 1", "TCPThread 1: Thread Rx exit request", "Test 1: Close socket handle",
               "TCPThread 1: Thread stopped"}));
}

TEST(CQDTcpServerThread, TwoPostsBeforeTheWakeUpAreDeliveredByTheFirstCommand)
{
    ThreadLog log;
    HoldingPlace place;
    std::thread::id workerId;
    WorkerBench bench(log, TcpServerLinkLoggingDetail);
    bench.AddLink(1);
    bench.Links().m_OnRxData = [&](TestLink& link) {
        workerId = std::this_thread::get_id();
        link.ReadOneByte();
        place.PassThrough();
        return LinkCallbackSuccess;
    };
    bench.Start();
    bench.Client(1).Send("x");
    EXPECT_TRUE(place.WaitUntilHeld());

    EXPECT_TRUE(bench.Post(1));
    EXPECT_TRUE(bench.Post(1));
    place.LetGo();
    bench.Stop();

    EXPECT_EQ(
        log.GetTexts(workerId),
        (Texts{"TCPThread 1: Thread started", "TCPThread 1: Select returns 1", "Test 1: Call OnRxData",
               "TCPThread 1: Select returns 1", "TCPThread 1: DispatchLinkMessages...",
               "TCPThread 1: Post 2 messages to link 1", "Test 1: Call OnMessage", "TCPThread 1: Select returns 1",
               "TCPThread 1: DispatchLinkMessages...", "TCPThread 1: Select returns 1",
               "TCPThread 1: Thread Rx exit request", "Test 1: Close socket handle", "TCPThread 1: Thread stopped"}));
    EXPECT_EQ(bench.Tally().m_Delivered.load(), 2);
}

TEST(CQDTcpServerThread, MessagesComeInLinkOrderAndInArrivalOrderWithinALink)
{
    RecordingLog log;
    HoldingPlace place;
    OrderedCalls<std::pair<unsigned int, int>> delivered;
    WorkerBench bench(log, TcpServerLinkLoggingDetail);
    bench.AddLink(1);
    bench.AddLink(2);
    bench.AddLink(3);
    bench.Links().m_OnRxData = [&](TestLink& link) {
        link.ReadOneByte();
        place.PassThrough();
        return LinkCallbackSuccess;
    };
    bench.Links().m_OnMessage = [&](TestLink& link, CountedMessage& message) {
        delivered.Add({link.GetLinkId(), message.GetNumber()});
        return LinkCallbackSuccess;
    };
    bench.Start();
    bench.Client(2).Send("x");
    EXPECT_TRUE(place.WaitUntilHeld());

    EXPECT_TRUE(bench.Post(3, 30));
    EXPECT_TRUE(bench.Post(1, 10));
    EXPECT_TRUE(bench.Post(3, 31));
    EXPECT_TRUE(bench.Post(1, 11));
    EXPECT_TRUE(bench.Post(3, 32));
    place.LetGo();
    bench.Stop();

    EXPECT_EQ(delivered.Get(),
              (std::vector<std::pair<unsigned int, int>>{{1, 10}, {1, 11}, {3, 30}, {3, 31}, {3, 32}}));
    EXPECT_EQ(log.Count("TCPThread 1: Post 2 messages to link 1"), 1u);
    EXPECT_EQ(log.Count("TCPThread 1: Post 3 messages to link 3"), 1u);
    EXPECT_EQ(log.CountContaining("to link 2"), 0u);
}

TEST(CQDTcpServerThread, AllMessagesAreDeliveredBeforeTheLinkThatOneAskedToClose)
{
    COutputLogNull log;
    HoldingPlace place;
    WorkerBench bench(log);
    bench.AddLink(1);
    bench.AddLink(2);
    bench.Links().m_OnRxData = [&](TestLink& link) {
        link.ReadOneByte();
        place.PassThrough();
        return LinkCallbackSuccess;
    };
    bench.Links().m_OnMessage = [&](TestLink&, CountedMessage& message) {
        return message.GetNumber() == 1 ? LinkCallbackCloseSocket : LinkCallbackSuccess;
    };
    bench.Start();
    bench.Client(2).Send("x");
    EXPECT_TRUE(place.WaitUntilHeld());

    for (int number = 1; number <= 3; ++number)
        EXPECT_TRUE(bench.Post(1, number));
    place.LetGo();

    EXPECT_TRUE(bench.Client(1).SawReset()) << "a 4 from OnMessage() is no orderly close";
    EXPECT_EQ(bench.Tally().m_Delivered.load(), 3);
    EXPECT_TRUE(WaitUntil([&] { return bench.Tally().m_Deleted.load() == 3; }));
}

TEST(CQDTcpServerThread, LinkThatAMessageClosedIsNotReadInTheSamePass)
{
    COutputLogNull log;
    HoldingPlace place;
    OrderedCalls<unsigned int> read;
    WorkerBench bench(log);
    bench.AddLink(1);
    bench.AddLink(2);
    bench.Links().m_OnRxData = [&](TestLink& link) {
        read.Add(link.GetLinkId());
        if (link.GetLinkId() == 2)
            place.PassThrough();
        return link.Echo();
    };
    bench.Links().m_OnMessage = [](TestLink&, CountedMessage&) { return LinkCallbackCloseSocket; };
    bench.Start();
    bench.Client(2).Send("a");
    EXPECT_TRUE(place.WaitUntilHeld());

    bench.Client(1).Send("x");
    WaitUntilReadable(bench.Link(1));
    EXPECT_TRUE(bench.Post(1));
    bench.LeaveToWorker(1);
    place.LetGo();

    EXPECT_TRUE(bench.Client(1).SawReset());
    EXPECT_EQ(bench.Client(2).Receive(1), "a");
    bench.Client(2).Send("b");
    EXPECT_EQ(bench.Client(2).Receive(1), "b");
    EXPECT_EQ(read.Get(), (std::vector<unsigned int>{2, 2}));
}

TEST(CQDTcpServerThread, StopCommandComesBeforeAnyReadyLink)
{
    COutputLogNull log;
    HoldingPlace place;
    WorkerBench bench(log);
    bench.AddLink(1);
    bench.AddLink(2);
    bench.Links().m_OnRxData = [&](TestLink& link) {
        place.PassThrough();
        return link.Echo();
    };
    bench.Start();
    bench.Client(1).Send("x");
    EXPECT_TRUE(place.WaitUntilHeld());

    bench.Client(2).Send("y");
    WaitUntilReadable(bench.Link(2));
    bench.Worker().TellThreadToStop();
    place.LetGo();
    bench.Worker().WaitForThreadToStop();

    EXPECT_EQ(bench.Links().m_RxCalls.load(), 1);
}

TEST(CQDTcpServerThread, FullPipeBlocksNobodyAndLosesNoMessage)
{
    COutputLogNull log;
    OrderedCalls<int> delivered;
    WorkerBench bench(log);
    bench.AddLink(1);
    constexpr int kMoreThanAPipeHolds = 70'000;
    bench.Links().m_OnRxData = [&](TestLink& link) {
        // From the worker's own thread, which could not empty the pipe while it waited for room.
        for (int number = 0; number < kMoreThanAPipeHolds; ++number)
            bench.Post(1, number);
        return link.Echo();
    };
    bench.Links().m_OnMessage = [&](TestLink&, CountedMessage& message) {
        delivered.Add(message.GetNumber());
        return LinkCallbackSuccess;
    };
    bench.Start();

    bench.Client(1).Send("x");

    EXPECT_TRUE(WaitUntil([&] { return bench.Tally().m_Deleted.load() == kMoreThanAPipeHolds; }));
    const std::vector<int> numbers = delivered.Get();
    EXPECT_EQ(numbers.size(), 70'000u);
    EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
}

TEST(CQDTcpServerThread, StopCommandThatFindsThePipeFullIsNotLost)
{
    COutputLogNull log;
    HoldingPlace place;
    WorkerBench bench(log);
    bench.AddLink(1);
    bench.Links().m_OnRxData = [&](TestLink& link) {
        place.PassThrough();
        return link.Echo();
    };
    const PipeEnds pipe = StartAndFindPipe(bench);
    bench.Client(1).Send("x");
    EXPECT_TRUE(place.WaitUntilHeld());
    const unsigned char linkChange = 1;
    while (::write(pipe.m_WriteEnd, &linkChange, 1) == 1) {
    }
    EXPECT_EQ(errno, EAGAIN);

    bench.Worker().TellThreadToStop();
    place.LetGo();
    bench.Worker().WaitForThreadToStop();

    EXPECT_EQ(bench.Server().m_StoppedThreads.load(), 1);
}

TEST(CQDTcpServerThread, FailedPipeReadEndsTheLoop)
{
    ThreadLog log;
    std::thread::id workerId;
    WorkerBench bench(log, TcpServerLinkLoggingLifecycle);
    bench.Server().m_OnThreadStop = [&](CQDTcpServerThread&) { workerId = std::this_thread::get_id(); };
    const PipeEnds pipe = StartAndFindPipe(bench);

    {
        const FaultPlan fault("read", 1, EIO);
        WriteBytes(pipe.m_WriteEnd, {1});
        EXPECT_TRUE(WaitUntil([&] { return bench.Server().m_StoppedThreads.load() == 1; }));
    }
    bench.Stop();

    EXPECT_EQ(log.GetTexts(workerId), (Texts{"TCPThread 1: Thread started", "TCPThread 1: pipe read returns error 5",
                                             "TCPThread 1: Thread stopped"}));
}

TEST(CQDTcpServerThread, InterruptedSelectIsPrintedAtLevelFourAndGoesOn)
{
    ThreadLog log;
    std::thread::id workerId;
    WorkerBench bench(log, TcpServerLinkLoggingDetail);
    bench.Server().m_OnThreadStop = [&](CQDTcpServerThread&) { workerId = std::this_thread::get_id(); };

    const FaultPlan fault("select", 1, EINTR);
    bench.Start();
    EXPECT_TRUE(WaitUntil([&] { return fault.GetCallCount() == 2; }));
    bench.Stop();

    EXPECT_EQ(
        log.GetTexts(workerId),
        (Texts{"TCPThread 1: Thread started", "TCPThread 1: select() returned -1, errno = EINTR",
               "TCPThread 1: Select returns 1", "TCPThread 1: Thread Rx exit request", "TCPThread 1: Thread stopped"}));
}

TEST(CQDTcpServerThread, SignalsAtTheDefaultLevelPrintNothing)
{
    ThreadLog log;
    const SignalCounter signals(SIGUSR1);
    std::atomic<pthread_t> workerThread{};
    std::thread::id workerId;
    WorkerBench bench(log);
    bench.AddLink(1);
    bench.Links().m_OnRxData = [&](TestLink& link) {
        workerThread.store(::pthread_self());
        workerId = std::this_thread::get_id();
        return link.Echo();
    };
    bench.Start();
    bench.Client(1).Send("a");
    ASSERT_EQ(bench.Client(1).Receive(1), "a");

    for (int count = 1; count <= 5; ++count) {
        ::pthread_kill(workerThread.load(), SIGUSR1);
        ASSERT_TRUE(WaitUntil([&] { return signals.GetCount() == count; }));
    }
    bench.Client(1).Send("b");

    EXPECT_EQ(bench.Client(1).Receive(1), "b");
    bench.Stop();
    EXPECT_EQ(log.GetTexts(workerId), (Texts{"TCPThread 1: Thread started", "TCPThread 1: Thread Rx exit request",
                                             "Test 1: Close socket handle", "TCPThread 1: Thread stopped"}));
}

TEST(CQDTcpServerThread, FailedSelectEndsTheLoop)
{
    ThreadLog log;
    std::thread::id workerId;
    WorkerBench bench(log, TcpServerLinkLoggingDetail);
    bench.AddLink(1);
    bench.Server().m_OnThreadStop = [&](CQDTcpServerThread&) { workerId = std::this_thread::get_id(); };

    const FaultPlan fault("select", 1, EBADF);
    bench.Start();
    EXPECT_TRUE(WaitUntil([&] { return bench.Server().m_StoppedThreads.load() == 1; }));
    EXPECT_TRUE(bench.Client(1).SawReset());
    bench.Stop();

    EXPECT_EQ(fault.GetCallCount(), 1);
    EXPECT_EQ(log.GetTexts(workerId),
              (Texts{"TCPThread 1: Thread started", "TCPThread 1: select() returned -1, errno = 9",
                     "TCPThread 1: Don't know how to recover so quitting thread loop", "Test 1: Close socket handle",
                     "TCPThread 1: Thread stopped"}));
}

TEST(CQDTcpServerThread, FailedSelectIsNotPrintedAtTheDefaultLevel)
{
    RecordingLog log;
    WorkerBench bench(log);

    const FaultPlan fault("select", 1, EBADF);
    bench.Start();
    EXPECT_TRUE(WaitUntil([&] { return bench.Server().m_StoppedThreads.load() == 1; }));
    bench.Stop();

    EXPECT_EQ(log.CountContaining("select"), 0u);
    EXPECT_EQ(log.CountContaining("Don't know"), 0u);
}

TEST(CQDTcpServerThread, WorkerWhoseLoopHasEndedTakesNothingMore)
{
    COutputLogNull log;
    WorkerBench bench(log);
    bench.AddLink(1);
    const FaultPlan fault("select", 1, EBADF);
    bench.Start();
    ASSERT_TRUE(WaitUntil([&] { return bench.Server().m_StoppedThreads.load() == 1; }));

    EXPECT_FALSE(bench.Worker().ThreadHasSpareCapacity());
    EXPECT_FALSE(bench.Worker().AddLink(&bench.MakeLink(2)));
    EXPECT_FALSE(bench.Post(1));
}

TEST(CQDTcpServerThread, ReadyLinksAreServedInIdOrder)
{
    COutputLogNull log;
    OrderedCalls<unsigned int> served;
    WorkerBench bench(log);
    bench.Links().m_OnRxData = [&](TestLink& link) {
        served.Add(link.GetLinkId());
        return link.Echo();
    };
    for (const unsigned int linkId : {30u, 4u, 200u, 1u}) {
        bench.AddLink(linkId);
        bench.Client(linkId).Send("x");
        WaitUntilReadable(bench.Link(linkId));
    }

    bench.Start();

    EXPECT_EQ(bench.Client(200).Receive(1), "x");
    EXPECT_EQ(served.Get(), (std::vector<unsigned int>{1, 4, 30, 200}));
}

TEST(CQDTcpServerThread, SelectCountsEveryReadinessAndReadComesBeforeWrite)
{
    ThreadLog log;
    std::thread::id workerId;
    WorkerBench bench(log, TcpServerLinkLoggingDetail);
    bench.AddLink(1).EnableWriteMode();
    bench.Links().m_OnTxComplete = [&](TestLink& link) {
        link.DisableWriteMode();
        return LinkCallbackSuccess;
    };
    bench.Server().m_OnThreadStop = [&](CQDTcpServerThread&) { workerId = std::this_thread::get_id(); };
    bench.Client(1).Send("x");
    WaitUntilReadable(bench.Link(1));

    bench.Start();
    EXPECT_TRUE(WaitUntil([&] { return bench.Links().m_TxCalls.load() == 1; }));
    bench.Stop();

    EXPECT_EQ(log.GetTexts(workerId), (Texts{"TCPThread 1: Thread started", "TCPThread 1: Select returns 2",
                                             "Test 1: Call OnRxData", "Test 1: Call OnTxComplete",
                                             "TCPThread 1: Select returns 1", "TCPThread 1: Thread Rx exit request",
                                             "Test 1: Close socket handle", "TCPThread 1: Thread stopped"}));
}

TEST(CQDTcpServerThread, LinkThatAReadClosedIsNotLookedAtForWriting)
{
    const LinkCallbackResult results[] = {LinkCallbackPeerClosed, LinkCallbackSocketError, LinkCallbackCloseSocket,
                                          LinkCallbackProtocolError, LinkCallbackTlsError};
    for (const LinkCallbackResult result : results) {
        SCOPED_TRACE(result);
        COutputLogNull log;
        WorkerBench bench(log);
        bench.AddLink(1).EnableWriteMode();
        bench.AddLink(2);
        bench.Links().m_OnRxData = [&](TestLink& link) {
            if (link.GetLinkId() == 2)
                return link.Echo();
            link.ReadOneByte();
            return result;
        };
        bench.Client(1).Send("x");
        WaitUntilReadable(bench.Link(1));
        bench.LeaveToWorker(1);

        bench.Start();

        EXPECT_TRUE(bench.Client(1).SawReset());
        bench.Client(2).Send("y");
        EXPECT_EQ(bench.Client(2).Receive(1), "y");
        EXPECT_EQ(bench.Links().m_TxCalls.load(), 0);
        EXPECT_EQ(bench.Links().m_Disconnects.load(), 1);
    }
}

TEST(CQDTcpServerThread, ReadResultsThatKeepTheLinkLeaveItsWriteReadiness)
{
    for (const int result : {0, 1, 7, -1}) {
        SCOPED_TRACE(result);
        COutputLogNull log;
        OrderedCalls<int> readsBefore;
        WorkerBench bench(log);
        bench.AddLink(1).EnableWriteMode();
        bench.Links().m_OnRxData = [&](TestLink& link) {
            link.Echo();
            link.EnableWriteMode();
            return static_cast<LinkCallbackResult>(result);
        };
        bench.Links().m_OnTxComplete = [&](TestLink& link) {
            readsBefore.Add(bench.Links().m_RxCalls.load());
            link.DisableWriteMode();
            return LinkCallbackSuccess;
        };
        bench.Client(1).Send("x");
        WaitUntilReadable(bench.Link(1));

        bench.Start();
        EXPECT_EQ(bench.Client(1).Receive(1), "x");

        EXPECT_TRUE(WaitUntil([&] { return readsBefore.Get() == std::vector<int>{1}; }));
        bench.Client(1).Send("y");
        EXPECT_EQ(bench.Client(1).Receive(1), "y");
    }
}

TEST(CQDTcpServerThread, WriteReadinessIsLookedAtInWriteModeOnly)
{
    COutputLogNull log;
    WorkerBench bench(log);
    bench.AddLink(1);
    bench.Links().m_OnTxComplete = [&](TestLink& link) {
        if (bench.Links().m_TxCalls.load() == 3)
            link.DisableWriteMode();
        return LinkCallbackSuccess;
    };
    bench.Links().m_OnMessage = [](TestLink& link, CountedMessage&) {
        link.EnableWriteMode();
        return LinkCallbackSuccess;
    };
    bench.Start();
    bench.Client(1).Send("a");
    ASSERT_EQ(bench.Client(1).Receive(1), "a");
    EXPECT_EQ(bench.Links().m_TxCalls.load(), 0);

    ASSERT_TRUE(bench.Post(1));
    ASSERT_TRUE(WaitUntil([&] { return bench.Links().m_TxCalls.load() == 3; }));
    bench.Client(1).Send("b");
    ASSERT_EQ(bench.Client(1).Receive(1), "b");

    EXPECT_EQ(bench.Links().m_TxCalls.load(), 3);
}

TEST(CQDTcpServerThread, TxCompleteResultsKeepOrCloseTheLink)
{
    enum class Outcome
    {
        Kept,
        Reset,
        OrderlyClose
    };

    struct Case
    {
        int m_Result;
        Outcome m_Outcome;
    };

    const Case cases[] = {{0, Outcome::Kept},  {1, Outcome::Kept},         {2, Outcome::Reset},
                          {3, Outcome::Reset}, {4, Outcome::OrderlyClose}, {5, Outcome::Reset},
                          {6, Outcome::Reset}, {7, Outcome::Reset},        {-1, Outcome::Reset}};
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_Result);
        COutputLogNull log;
        WorkerBench bench(log);
        bench.AddLink(1).EnableWriteMode();
        bench.Links().m_OnTxComplete = [&](TestLink& link) {
            link.DisableWriteMode();
            return static_cast<LinkCallbackResult>(testCase.m_Result);
        };
        bench.LeaveToWorker(1);

        bench.Start();
        ASSERT_TRUE(WaitUntil([&] { return bench.Links().m_TxCalls.load() == 1; }));

        switch (testCase.m_Outcome) {
        case Outcome::Kept:
            bench.Client(1).Send("x");
            EXPECT_EQ(bench.Client(1).Receive(1), "x");
            break;
        case Outcome::Reset: EXPECT_TRUE(bench.Client(1).SawReset()); break;
        case Outcome::OrderlyClose: EXPECT_TRUE(bench.Client(1).SawOrderlyClose()); break;
        }
        const int closed = testCase.m_Outcome == Outcome::Kept ? 0 : 1;
        EXPECT_EQ(bench.Links().m_Disconnects.load(), closed);
        EXPECT_TRUE(WaitUntil([&] { return bench.Links().m_LiveLinks.load() == 1 - closed; }));
    }
}

TEST(CQDTcpServerThread, CallOnTxCompleteSaysWhetherItClosedTheLink)
{
    struct Case
    {
        int m_Result;
        bool m_Closed;
    };

    const Case cases[] = {{0, false}, {1, false}, {2, true}, {4, true}, {7, true}, {-1, true}};
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_Result);
        COutputLogNull log;
        WorkerBench bench(log);
        TestLink& link = bench.AddLink(1);
        bench.Links().m_OnTxComplete = [&](TestLink&) { return static_cast<LinkCallbackResult>(testCase.m_Result); };

        EXPECT_EQ(bench.Worker().CallOnTxCompleteForLink(&link), testCase.m_Closed);

        EXPECT_EQ(link.GetSocket() == -1, testCase.m_Closed);
    }
}

TEST(CQDTcpServerThread, CloseAndDeleteLinkTakesItOutOfBothTablesInOrder)
{
    RecordingLog log;
    WorkerBench bench(log, TcpServerLinkLoggingReferences);
    bench.Server().SetOutputLog(&log);
    TestLink& link = bench.AddLink(9);
    log.Clear();

    bench.Worker().CloseAndDeleteLink(&link, true);

    EXPECT_EQ(log.GetTexts(), (Texts{"Test 9: Close socket handle", "Test 9: Release, RefCount = 1",
                                     "TcpSvr@1: Remove link 9", "TcpSvr@1: Link 9 already removed from server list"}));
    EXPECT_TRUE(bench.Client(9).SawReset());
    EXPECT_FALSE(bench.Post(9));
}

TEST(CQDTcpServerThread, CloseAndDeleteLinkWithoutResetClosesOrderly)
{
    COutputLogNull log;
    WorkerBench bench(log);
    TestLink& link = bench.AddLink(1);

    bench.Worker().CloseAndDeleteLink(&link, false);

    EXPECT_TRUE(bench.Client(1).SawOrderlyClose());
}

TEST(CQDTcpServerThread, ServerHearsOfALinkWhoseLastReferenceWasTheWorkers)
{
    COutputLogNull log;
    WorkerBench bench(log);
    bench.AddLink(5);
    bench.LeaveToWorker(5);
    bench.Start();

    bench.Client(5).Reset();

    EXPECT_TRUE(
        WaitUntil([&] { return bench.ServerLog().Count("TcpSvr@1: Link 5 already removed from server list") == 1; }));
    EXPECT_EQ(bench.Links().m_LiveLinks.load(), 0);
}

TEST(CQDTcpServerThread, CloseAllLinksResetsThemAndDeletesTheirMessages)
{
    RecordingLog log;
    WorkerBench bench(log, TcpServerLinkLoggingReferences);
    bench.AddLink(1);
    bench.AddLink(2);
    ASSERT_TRUE(bench.Post(1));
    ASSERT_TRUE(bench.Post(2));
    ASSERT_TRUE(bench.Post(2));
    log.Clear();

    bench.Worker().CloseAllLinks();

    EXPECT_EQ(log.GetTexts(), (Texts{"Test 1: Close socket handle", "Test 1: Release, RefCount = 1",
                                     "Test 2: Close socket handle", "Test 2: Release, RefCount = 1"}));
    EXPECT_TRUE(bench.Client(1).SawReset());
    EXPECT_TRUE(bench.Client(2).SawReset());
    EXPECT_EQ(bench.Tally().m_Delivered.load(), 0);
    EXPECT_EQ(bench.Tally().m_Deleted.load(), 3);
    EXPECT_EQ(bench.ServerLog().GetTexts(), Texts{});
}

TEST(CQDTcpServerThread, MessagesQueuedForALinkThatGoesAreDeletedUnread)
{
    COutputLogNull log;
    HoldingPlace place;
    WorkerBench bench(log);
    bench.AddLink(1);
    bench.AddLink(2);
    bench.Links().m_OnRxData = [&](TestLink& link) {
        link.ReadOneByte();
        place.PassThrough();
        return LinkCallbackCloseSocket;
    };
    bench.Start();
    bench.Client(1).Send("x");
    EXPECT_TRUE(place.WaitUntilHeld());

    EXPECT_TRUE(bench.Post(1));
    EXPECT_TRUE(bench.Post(1));
    EXPECT_TRUE(bench.Post(2));
    place.LetGo();

    EXPECT_TRUE(WaitUntil([&] { return bench.Tally().m_Deleted.load() == 3; }));
    EXPECT_EQ(bench.Tally().m_Delivered.load(), 1) << "link 2 has its own";
}

TEST(CQDTcpServerThread, MessagesQueuedForAWorkerThatGoesAreDeletedUnread)
{
    COutputLogNull log;
    HoldingPlace place;
    WorkerBench bench(log);
    bench.AddLink(1);
    bench.Links().m_OnRxData = [&](TestLink& link) {
        place.PassThrough();
        return link.Echo();
    };
    bench.Start();
    bench.Client(1).Send("x");
    EXPECT_TRUE(place.WaitUntilHeld());

    bench.Worker().TellThreadToStop();
    EXPECT_TRUE(bench.Post(1)) << "queued: the loop has not seen the stop yet";
    place.LetGo();
    bench.Worker().WaitForThreadToStop();

    EXPECT_EQ(bench.Tally().m_Delivered.load(), 0);
    EXPECT_EQ(bench.Tally().m_Deleted.load(), 1);
}

TEST(CQDTcpServerThread, PostsThatRaceWithTheStopAreDeliveredOrDeletedOnce)
{
    for (int round = 0; round < 10; ++round) {
        COutputLogNull log;
        MessageTally tally;
        std::atomic<int> kept{0};
        {
            std::atomic<bool> stopped{false};
            WorkerBench bench(log);
            bench.AddLink(1);
            bench.Start();
            std::vector<std::unique_ptr<TestThread>> posters;
            for (int i = 0; i < 3; ++i) {
                posters.push_back(std::make_unique<TestThread>([&] {
                    do {
                        auto message = std::make_unique<CountedMessage>(1, tally);
                        if (bench.Worker().PostLinkMessage(message.get()))
                            message.release();
                        else
                            ++kept;
                    } while (!stopped.load());
                }));
            }
            EXPECT_TRUE(WaitUntil([&] { return tally.m_Delivered.load() > 10; }));
            bench.Stop();
            stopped.store(true);
        }

        EXPECT_EQ(tally.m_Deleted.load(), tally.m_Made.load());
        EXPECT_LE(tally.m_Delivered.load() + kept.load(), tally.m_Made.load());
    }
}

TEST(CQDTcpServerThread, NoCallbackRunsUnderTheLock)
{
    COutputLogNull log;
    OrderedCalls<std::pair<std::string, bool>> calls;
    {
        WorkerBench bench(log);
        const auto note = [&](const char* callback) { calls.Add({callback, IsWorkerUnlocked(bench.Worker())}); };
        bench.Links().m_OnRxData = [&](TestLink& link) {
            note("OnRxData");
            link.EnableWriteMode();
            link.ReadOneByte();
            return LinkCallbackSuccess;
        };
        bench.Links().m_OnTxComplete = [&](TestLink& link) {
            note("OnTxComplete");
            link.DisableWriteMode();
            link.SetTimeout(CQDTimestamp(1));
            return LinkCallbackSuccess;
        };
        bench.Links().m_OnTimeout = [&](TestLink& link, const CQDTimestamp&) {
            note("OnTimeout");
            link.SetTimeout(CQDTimestamp::Never);
            bench.Post(1);
            return LinkCallbackSuccess;
        };
        bench.Links().m_OnMessage = [&](TestLink&, CountedMessage&) {
            note("OnMessage");
            return LinkCallbackCloseSocket;
        };
        bench.Links().m_OnDisconnect = [&](TestLink& link) {
            note(link.GetLinkId() == 1 ? "OnDisconnect" : "OnDisconnect at the end");
        };
        bench.Server().m_OnThreadStop = [&](CQDTcpServerThread&) { note("OnLinkThreadStop"); };
        bench.AddLink(1);
        bench.AddLink(2);
        bench.Start();

        bench.Client(1).Send("x");
        EXPECT_TRUE(bench.Client(1).SawReset());
        bench.Stop();
    }

    EXPECT_EQ(calls.Get(), (std::vector<std::pair<std::string, bool>>{{"OnRxData", true},
                                                                      {"OnTxComplete", true},
                                                                      {"OnTimeout", true},
                                                                      {"OnMessage", true},
                                                                      {"OnDisconnect", true},
                                                                      {"OnDisconnect at the end", true},
                                                                      {"OnLinkThreadStop", true}}));
}

TEST(CQDTcpServerThread, LinkThatClosesItsOwnSocketIsRemoved)
{
    struct Case
    {
        const char* m_pName;
        void (*m_pArrange)(WorkerBench&);
    };

    static const auto close = [](TestLink& link) {
        link.CloseSocket(false);
        return LinkCallbackSuccess;
    };
    const Case cases[] = {
        {"OnRxData",
         [](WorkerBench& bench) {
             bench.Links().m_OnRxData = close;
             bench.Client(1).Send("x");
         }},
        {"OnTxComplete",
         [](WorkerBench& bench) {
             bench.Links().m_OnTxComplete = close;
             bench.Link(1).EnableWriteMode();
         }},
        {"OnTimeout",
         [](WorkerBench& bench) {
             bench.Links().m_OnTimeout = [](TestLink& link, const CQDTimestamp&) { return close(link); };
             bench.Link(1).SetTimeout(CQDTimestamp(1));
         }},
        {"OnMessage",
         [](WorkerBench& bench) {
             bench.Links().m_OnMessage = [](TestLink& link, CountedMessage&) { return close(link); };
             bench.Links().m_OnRxData = [&bench](TestLink& link) {
                 link.ReadOneByte();
                 bench.Post(1);
                 return LinkCallbackSuccess;
             };
             bench.Client(1).Send("x");
         }},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_pName);
        COutputLogNull log;
        WorkerBench bench(log);
        bench.AddLink(1);
        testCase.m_pArrange(bench);
        bench.LeaveToWorker(1);

        bench.Start();

        EXPECT_TRUE(WaitUntil([&] { return bench.Links().m_LiveLinks.load() == 0; }));
        EXPECT_EQ(bench.Links().m_Disconnects.load(), 1);
        EXPECT_FALSE(bench.Post(1));
        EXPECT_TRUE(
            WaitUntil([&] { return bench.ServerLog().Has("TcpSvr@1: Link 1 already removed from server list"); }));
    }
}

TEST(CQDTcpServerThread, LinkWhoseSocketAnotherCallbackClosedIsNotTouchedInThatPass)
{
    COutputLogNull log;
    WorkerBench bench(log);
    bench.AddLink(1);
    bench.AddLink(2);
    bench.Links().m_OnRxData = [&](TestLink& link) {
        bench.Link(2).CloseSocket(true);
        return link.Echo();
    };
    for (const unsigned int linkId : {1u, 2u}) {
        bench.Client(linkId).Send("x");
        WaitUntilReadable(bench.Link(linkId));
    }

    bench.Start();

    EXPECT_EQ(bench.Client(1).Receive(1), "x");
    bench.Client(1).Send("y");
    EXPECT_EQ(bench.Client(1).Receive(1), "y");
    EXPECT_EQ(bench.Links().m_RxCalls.load(), 2) << "none of link 2";
}

TEST(CQDTcpServerThread, LinkWhoseSocketAnotherCallbackClosedIsRemovedAfterThatPass)
{
    COutputLogNull log;
    WorkerBench bench(log);
    bench.AddLink(1);
    bench.AddLink(2);
    bench.Links().m_OnRxData = [&](TestLink& link) {
        bench.Link(2).CloseSocket(true);
        return link.Echo();
    };
    bench.Client(1).Send("x");

    bench.Start();

    // The bench's server does not have the link in its own table; that it was told is what counts.
    EXPECT_TRUE(WaitUntil([&] { return bench.ServerLog().Has("TcpSvr@1: Link 2 already removed from server list"); }));
    EXPECT_FALSE(bench.Post(2));
    EXPECT_TRUE(bench.Post(1));
}

TEST(CQDTcpServerThread, OverdueLinkThatAnotherTimeoutClosedIsNotCalled)
{
    COutputLogNull log;
    WorkerBench bench(log);
    bench.AddLink(1).SetTimeout(CQDTimestamp(1));
    bench.AddLink(2).SetTimeout(CQDTimestamp(1));
    bench.Links().m_OnTimeout = [&](TestLink& link, const CQDTimestamp&) {
        link.SetTimeout(CQDTimestamp::Never);
        bench.Link(2).CloseSocket(true);
        return LinkCallbackSuccess;
    };

    bench.Start();

    EXPECT_TRUE(WaitUntil([&] { return bench.ServerLog().Has("TcpSvr@1: Link 2 already removed from server list"); }));
    EXPECT_EQ(bench.Links().m_TimeoutCalls.load(), 1);
}

TEST(CQDTcpServerThread, WorkerThatNeverRanGivesBackItsLinksAndDeletesTheirMessages)
{
    COutputLogNull log;
    MessageTally tally;
    TestServer server(&log, 1);
    ListeningSocket listener;
    const LoopbackClient client(listener.GetPort());
    auto* link = new TestLink(server.MakeContext(1, listener.Accept()), server.m_Links);
    auto* worker = new CQDTcpServerThread(&log, &server, 1, 64, TcpServerLinkLoggingDefault);
    worker->AddRef();
    ASSERT_TRUE(worker->AddLink(link));
    ASSERT_TRUE(worker->PostLinkMessage(new CountedMessage(1, tally)));

    worker->Release();

    EXPECT_EQ(tally.m_Deleted.load(), 1);
    EXPECT_EQ(tally.m_Delivered.load(), 0);
    EXPECT_EQ(server.m_Links.m_LiveLinks.load(), 0);
}

TEST(CQDTcpServerThread, SecondStartIsRefusedAndTheFirstGoesOn)
{
    COutputLogNull log;
    WorkerBench bench(log);
    bench.AddLink(1);
    bench.Start();

    EXPECT_FALSE(bench.Worker().StartThread());
    EXPECT_EQ(errno, EBUSY);

    bench.Client(1).Send("x");
    EXPECT_EQ(bench.Client(1).Receive(1), "x");
}

TEST(CQDTcpServerThread, QuietWaitServesTheTimeoutsThatHavePassed)
{
    ThreadLog log;
    std::thread::id workerId;
    OrderedCalls<unsigned int> called;
    WorkerBench bench(log);
    bench.AddLink(1).SetTimeout(CQDTimestamp(1));
    bench.AddLink(2).SetTimeout(InOneHour());
    bench.AddLink(3).SetTimeout(CQDTimestamp(2));
    bench.Links().m_OnTimeout = [&](TestLink& link, const CQDTimestamp&) {
        workerId = std::this_thread::get_id();
        called.Add(link.GetLinkId());
        link.SetTimeout(CQDTimestamp::Never);
        return LinkCallbackSuccess;
    };

    bench.Start();
    EXPECT_TRUE(WaitUntil([&] { return bench.Links().m_TimeoutCalls.load() == 2; }));
    bench.Stop();

    EXPECT_EQ(called.Get(), (std::vector<unsigned int>{1, 3}));
    EXPECT_EQ(log.GetTexts(workerId),
              (Texts{"TCPThread 1: Thread started", "TCPThread 1: Timeout", "TCPThread 1: Thread Rx exit request",
                     "Test 1: Close socket handle", "Test 2: Close socket handle", "Test 3: Close socket handle",
                     "TCPThread 1: Thread stopped"}));
}

TEST(CQDTcpServerThread, TimeoutIsNotPrintedBelowLevelTwo)
{
    RecordingLog log;
    WorkerBench bench(log, TcpServerLinkLoggingLifecycle);
    bench.AddLink(1).SetTimeout(CQDTimestamp(1));

    bench.Start();
    EXPECT_TRUE(WaitUntil([&] { return bench.Links().m_TimeoutCalls.load() == 1; }));

    EXPECT_EQ(log.CountContaining("Timeout"), 0u);
}

TEST(CQDTcpServerThread, TimeoutComesNoEarlierThanItsTime)
{
    COutputLogNull log;
    OrderedCalls<long long> times;
    WorkerBench bench(log);
    CQDTimestamp deadline = CQDTimestamp::UTCNow();
    deadline.AddMilliseonds(50);
    bench.AddLink(1).SetTimeout(deadline);
    bench.Links().m_OnTimeout = [&](TestLink& link, const CQDTimestamp& now) {
        times.Add(now.GetValue());
        link.SetTimeout(CQDTimestamp::Never);
        return LinkCallbackSuccess;
    };

    bench.Start();
    ASSERT_TRUE(WaitUntil([&] { return !times.Get().empty(); }));

    EXPECT_GE(times.Get().front(), deadline.GetValue());
    EXPECT_LE(times.Get().front(), CQDTimestamp::UTCNow().GetValue());
}

TEST(CQDTcpServerThread, TimeoutBehindTheEndOf32BitTimesIsWaitedFor)
{
    constexpr long long kDeadline = 137919572480000000; // 2038-01-19 03:14:08
    const ClockShift shift(2147483646);                 // at most two seconds before
    COutputLogNull log;
    OrderedCalls<long long> times;
    WorkerBench bench(log);
    bench.AddLink(1).SetTimeout(CQDTimestamp(kDeadline));
    bench.Links().m_OnTimeout = [&](TestLink& link, const CQDTimestamp& now) {
        times.Add(now.GetValue());
        link.SetTimeout(CQDTimestamp::Never);
        return LinkCallbackSuccess;
    };

    bench.Start();
    ASSERT_TRUE(WaitUntil([&] { return !times.Get().empty(); }));

    EXPECT_GE(times.Get().front(), kDeadline);
}

TEST(CQDTcpServerThread, AllTimeoutsOfAPassSeeTheSameTime)
{
    RecordingLog log;
    OrderedCalls<std::pair<unsigned int, long long>> calls;
    WorkerBench bench(log);
    for (const unsigned int linkId : {1u, 2u, 3u})
        bench.AddLink(linkId);
    bench.Link(1).SetTimeout(CQDTimestamp(1));
    bench.Links().m_OnTimeout = [&](TestLink& link, const CQDTimestamp& now) {
        calls.Add({link.GetLinkId(), now.GetValue()});
        link.SetTimeout(CQDTimestamp::Never);
        if (link.GetLinkId() == 1) {
            bench.Link(2).SetTimeout(now);                              // due at this very tick
            bench.Link(3).SetTimeout(CQDTimestamp(now.GetValue() + 1)); // due by the clock, but not in this pass
            while (CQDTimestamp::UTCNow().GetValue() <= now.GetValue() + 1) {
            }
        }
        return LinkCallbackSuccess;
    };

    bench.Start();
    ASSERT_TRUE(WaitUntil([&] { return calls.Get().size() == 3; }));

    const auto seen = calls.Get();
    EXPECT_EQ(seen[0].first, 1u);
    EXPECT_EQ(seen[1].first, 2u);
    EXPECT_EQ(seen[2].first, 3u);
    EXPECT_EQ(seen[1].second, seen[0].second);
    EXPECT_GT(seen[2].second, seen[0].second);
    EXPECT_EQ(log.Count("TCPThread 1: Timeout"), 2u);
}

TEST(CQDTcpServerThread, TimeoutsWaitWhileSocketsAreBusy)
{
    COutputLogNull log;
    OrderedCalls<int> timeoutsSoFar;
    WorkerBench bench(log);
    bench.AddLink(1).SetTimeout(CQDTimestamp(1));
    bench.AddLink(2);
    constexpr int kBusyPasses = 50;
    bench.Links().m_OnRxData = [&](TestLink& link) {
        timeoutsSoFar.Add(bench.Links().m_TimeoutCalls.load());
        // Data left unread keeps the socket ready.
        return bench.Links().m_RxCalls.load() < kBusyPasses ? LinkCallbackSuccess : link.Echo();
    };
    bench.Client(2).Send("x");
    WaitUntilReadable(bench.Link(2));

    bench.Start();

    EXPECT_TRUE(WaitUntil([&] { return bench.Links().m_TimeoutCalls.load() == 1; }));
    EXPECT_EQ(timeoutsSoFar.Get(), std::vector<int>(50, 0));
}

TEST(CQDTcpServerThread, TimeoutThatHasPassedComesAgainUntilItIsSetAnew)
{
    COutputLogNull log;
    WorkerBench bench(log);
    bench.AddLink(1).SetTimeout(CQDTimestamp(1));
    bench.Links().m_OnTimeout = [&](TestLink& link, const CQDTimestamp&) {
        if (bench.Links().m_TimeoutCalls.load() == 5)
            link.SetTimeout(CQDTimestamp::Never);
        return LinkCallbackSuccess;
    };

    bench.Start();
    ASSERT_TRUE(WaitUntil([&] { return bench.Links().m_TimeoutCalls.load() == 5; }));
    bench.Client(1).Send("x");

    EXPECT_EQ(bench.Client(1).Receive(1), "x");
    EXPECT_EQ(bench.Links().m_TimeoutCalls.load(), 5);
}

TEST(CQDTcpServerThread, TimeoutResultsKeepOrResetTheLink)
{
    struct Case
    {
        int m_Result;
        bool m_Closed;
    };

    const Case cases[] = {{0, false}, {1, false}, {2, true},  {3, true},  {4, true},
                          {5, true},  {6, true},  {7, false}, {-1, false}};
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_Result);
        COutputLogNull log;
        WorkerBench bench(log);
        bench.AddLink(1).SetTimeout(CQDTimestamp(1));
        bench.Links().m_OnTimeout = [&](TestLink& link, const CQDTimestamp&) {
            link.SetTimeout(CQDTimestamp::Never);
            return static_cast<LinkCallbackResult>(testCase.m_Result);
        };
        bench.LeaveToWorker(1);

        bench.Start();
        ASSERT_TRUE(WaitUntil([&] { return bench.Links().m_TimeoutCalls.load() == 1; }));

        if (testCase.m_Closed) {
            EXPECT_TRUE(bench.Client(1).SawReset());
        } else {
            bench.Client(1).Send("x");
            EXPECT_EQ(bench.Client(1).Receive(1), "x");
        }
    }
}

TEST(CQDTcpServerThread, DeadlineTooFarForTheWaitIsNoError)
{
    RecordingLog log;
    WorkerBench bench(log, TcpServerLinkLoggingDetail);
    bench.AddLink(1).SetTimeout(CQDTimestamp(CQDTimestamp::Never.GetValue() - 1));
    bench.Start();

    for (const char* text : {"a", "b", "c"}) {
        bench.Client(1).Send(text);
        EXPECT_EQ(bench.Client(1).Receive(1), text);
    }

    EXPECT_EQ(bench.Links().m_TimeoutCalls.load(), 0);
    EXPECT_EQ(log.CountContaining("select() returned"), 0u);
}

TEST(CQDTcpServerThread, DeadlineBeforeAllTimeHasPassed)
{
    COutputLogNull log;
    WorkerBench bench(log);
    bench.AddLink(1).SetTimeout(CQDTimestamp(-CQDTimestamp::Never.GetValue() - 1));

    bench.Start();

    EXPECT_TRUE(WaitUntil([&] { return bench.Links().m_TimeoutCalls.load() == 1; }));
}

TEST(CQDTcpServerThread, PassesOfAnIdleWorkerAllocateNothing)
{
    COutputLogNull log;
    const SignalCounter signals(SIGUSR1);
    std::atomic<pthread_t> workerThread{};
    std::atomic<bool> keepTimingOut{true};
    WorkerBench bench(log, TcpServerLinkLoggingData);
    bench.AddLink(1).SetTimeout(CQDTimestamp(1));
    bench.AddLink(2);
    bench.Links().m_OnTimeout = [&](TestLink& link, const CQDTimestamp&) {
        workerThread.store(::pthread_self());
        if (!keepTimingOut.load())
            link.SetTimeout(CQDTimestamp::Never);
        return LinkCallbackSuccess;
    };
    const PipeEnds pipe = StartAndFindPipe(bench);
    const std::vector<unsigned char> commands(100, 2); // look for messages, of which there are none
    ASSERT_TRUE(WaitUntil([&] { return bench.Links().m_TimeoutCalls.load() > 10; }));

    const AllocationCounter allocations;
    const int timeouts = bench.Links().m_TimeoutCalls.load();
    EXPECT_TRUE(WaitUntil([&] { return bench.Links().m_TimeoutCalls.load() > timeouts + 1000; }));
    keepTimingOut.store(false);
    EXPECT_EQ(::write(pipe.m_WriteEnd, commands.data(), commands.size()), 100);
    int waiting = 1;
    EXPECT_TRUE(WaitUntil([&] { return ::ioctl(pipe.m_ReadEnd, FIONREAD, &waiting) == 0 && waiting == 0; }));
    for (int count = 1; count <= 20; ++count) {
        ::pthread_kill(workerThread.load(), SIGUSR1);
        EXPECT_TRUE(WaitUntil([&] { return signals.GetCount() == count; }));
    }

    EXPECT_EQ(allocations.GetCount(), 0u);
}

TEST(CQDTcpServerThreadDeathTest, WaitOnTheWorkersOwnThreadIsAProgrammingError)
{
    const auto waitFromWithin = [] {
        COutputLogNull log;
        WorkerBench bench(log);
        bench.AddLink(1).SetTimeout(CQDTimestamp(1));
        bench.Links().m_OnTimeout = [&](TestLink&, const CQDTimestamp&) {
            bench.Worker().WaitForThreadToStop();
            return LinkCallbackSuccess;
        };
        bench.Start();
        WaitUntil([] { return false; });
    };

    EXPECT_DEATH(waitFromWithin(), "pthread_equal\\(::pthread_self\\(\\), m_Thread\\)");
}
