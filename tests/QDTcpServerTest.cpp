#include <QDPlatform/QDTcpServer.h>

#include "Emulation.h"
#include "FaultPlan.h"
#include "LoopbackClient.h"
#include "RecordingLog.h"
#include "TakenDescriptors.h"
#include "TestServer.h"
#include "TestThread.h"
#include "VirtualSlot.h"
#include "WaitUntil.h"

#include <QDPlatform/COutputLogNull.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace
{

using Texts = std::vector<std::string>;

constexpr const char* kAcceptOutOfDescriptors = "accept() failed. Error 24: Too many open files";

// A server on a port of its own, stopped at the end. What its functions use is declared before it.
class ServerBench
{
public:
    explicit ServerBench(COutputLog& log, unsigned int linksPerThread = 64, bool enableIPv6 = false) :
        m_Server(&log, m_Port.Get(), linksPerThread, enableIPv6)
    {}

    ServerBench(const ServerBench&) = delete;
    ServerBench& operator=(const ServerBench&) = delete;

    ~ServerBench()
    {
        if (m_Server.IsSocketServerRunning())
            m_Server.StopTcpServer();
    }

    void Start() { EXPECT_TRUE(m_Server.StartTcpServer()); }

    // A client whose connection was accepted and placed, or refused.
    LoopbackClient Connect(int family = AF_INET)
    {
        const int before = m_Server.m_Assigned.load();
        LoopbackClient client(m_Port.Get(), family);
        EXPECT_TRUE(WaitUntil([&] { return m_Server.m_Assigned.load() == before + 1; }))
            << "client's descriptor " << client.GetSocket() << ", assigned " << m_Server.m_Assigned.load() - before;
        return client;
    }

    bool Post(unsigned int linkId) { return m_Server.PostLinkMessage(new CountedMessage(linkId, m_Tally)); }

    // What the server prints, with its prefix.
    std::string Line(const std::string& text) const { return "TcpSvr@" + std::to_string(m_Port.Get()) + ": " + text; }

    unsigned short Port() const { return m_Port.Get(); }

    TestServer& Server() { return m_Server; }

    LinkCallbacks& Links() { return m_Server.m_Links; }

    MessageTally& Tally() { return m_Tally; }

private:
    ReservedPort m_Port;
    MessageTally m_Tally;
    TestServer m_Server;
};

bool Echoes(LoopbackClient& client, const std::string& text = "ping")
{
    client.Send(text);
    return client.Receive(text.size()) == text;
}

// Listens on a port of one family, so that nobody else can.
class PortTaker
{
public:
    PortTaker(unsigned short port, int family) : m_Socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const int on = 1;
        EXPECT_EQ(::setsockopt(m_Socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), 0);
        QDSocketAddress address{};
        address.m_Address.sa_family = static_cast<sa_family_t>(family);
        address.m_IPv6.sin6_port = htons(port); // at the same place in a sockaddr_in
        socklen_t length = sizeof address.m_IPv4;
        if (family == AF_INET6) {
            EXPECT_EQ(::setsockopt(m_Socket, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on), 0);
            length = sizeof address.m_IPv6;
        }
        EXPECT_EQ(::bind(m_Socket, &address.m_Address, length), 0);
        EXPECT_EQ(::listen(m_Socket, 1), 0);
    }

    PortTaker(const PortTaker&) = delete;
    PortTaker& operator=(const PortTaker&) = delete;

    ~PortTaker() { ::close(m_Socket); }

private:
    int m_Socket;
};

int GetIntOption(int socket, int level, int option)
{
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(::getsockopt(socket, level, option, &value, &length), 0);
    return value;
}

// Leaves the process no descriptor to open, whatever the numbers of those that it has.
class NoDescriptorsLeft
{
public:
    NoDescriptorsLeft()
    {
        EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &m_Before), 0);
        const int lowestFree = ::dup(0);
        ::close(lowestFree);
        rlimit limit = m_Before;
        limit.rlim_cur = static_cast<rlim_t>(lowestFree);
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    }

    NoDescriptorsLeft(const NoDescriptorsLeft&) = delete;
    NoDescriptorsLeft& operator=(const NoDescriptorsLeft&) = delete;

    ~NoDescriptorsLeft() { ::setrlimit(RLIMIT_NOFILE, &m_Before); }

private:
    rlimit m_Before{};
};

// A client whose descriptor is made before the connection, for times when there are none to be had.
class PreparedClient
{
public:
    PreparedClient() : m_Socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}

    PreparedClient(const PreparedClient&) = delete;
    PreparedClient& operator=(const PreparedClient&) = delete;

    ~PreparedClient() { ::close(m_Socket); }

    void Connect(unsigned short port)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(m_Socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }

    // Whether the server ended the connection within the time.
    bool SawEnd(int milliseconds)
    {
        pollfd socket{m_Socket, POLLIN, 0};
        char byte = 0;
        return ::poll(&socket, 1, milliseconds) == 1 && ::recv(m_Socket, &byte, 1, 0) <= 0;
    }

    bool Echoes()
    {
        char byte = 'e';
        pollfd socket{m_Socket, POLLIN, 0};
        return ::send(m_Socket, &byte, 1, MSG_NOSIGNAL) == 1 && ::poll(&socket, 1, 20'000) == 1 &&
               ::recv(m_Socket, &byte, 1, 0) == 1 && byte == 'e';
    }

private:
    int m_Socket;
};

// How busy the process was, and for how long.
class CpuMeter
{
public:
    std::chrono::milliseconds GetCpuTime() const
    {
        return std::chrono::milliseconds((std::clock() - m_Cpu) * 1000 / CLOCKS_PER_SEC);
    }

    bool WaitUntilElapsed(std::chrono::milliseconds time) const
    {
        return WaitUntil([&] { return std::chrono::steady_clock::now() >= m_Start + time; });
    }

private:
    std::clock_t m_Cpu{std::clock()};
    std::chrono::steady_clock::time_point m_Start{std::chrono::steady_clock::now()};
};

// A log that runs a function of the test's when a certain message comes.
class InterruptingLog : public RecordingLog
{
public:
    void AppendMessage(LogType type, int code, const qdchar* text, unsigned int length) override
    {
        RecordingLog::AppendMessage(type, code, text, length);
        if (std::string(text, length).find(m_Text) != std::string::npos && m_Interrupt)
            std::exchange(m_Interrupt, nullptr)();
    }

    // Set before other threads print. The function runs once.
    std::string m_Text;
    std::function<void()> m_Interrupt;
};

constexpr const char* kExpectedDescriptors = "QD_TEST_EXPECTED_DESCRIPTORS";

std::string Describe(const std::set<int>& numbers)
{
    std::string text;
    for (const int number : numbers)
        text += std::to_string(number) + ",";
    return text;
}

// A program that a test starts in its own place says whether it has inherited the expected descriptors, and ends.
bool EndIfAskedForDescriptors()
{
    const char* expected = std::getenv(kExpectedDescriptors);
    if (expected == nullptr)
        return false;
    const std::string inherited = Describe(GetOpenDescriptors());
    if (inherited == expected)
        ::_exit(0);
    std::fprintf(stderr, "inherited descriptors %s\n", inherited.c_str());
    ::_exit(1);
}

[[maybe_unused]] const bool g_Asked = EndIfAskedForDescriptors();

// The virtual operations, made public for the question of their places.
class SlotServer : public CQDTcpServer
{
public:
    using CQDTcpServer::CreateLink;
    using CQDTcpServer::CreateSockets;
    using CQDTcpServer::GetNextSocketThreadTimeout;
    using CQDTcpServer::OnLinkAssignedToWorkerThread;
    using CQDTcpServer::OnLinkThreadStop;
    using CQDTcpServer::OnSocketEvent;
    using CQDTcpServer::OnSocketThreadEvent;
    using CQDTcpServer::OnSocketThreadExit;
    using CQDTcpServer::OnSocketThreadStart;
    using CQDTcpServer::OnSocketThreadStopped;
    using CQDTcpServer::OnSocketThreadTimeout;
};

} // namespace

TEST(CQDTcpServer, VirtualOperationsStandInOrder)
{
    // The destructor has the positions 0 and 1.
    EXPECT_EQ(VirtualSlot(&SlotServer::CreateSockets), 2);
    EXPECT_EQ(VirtualSlot(&SlotServer::OnSocketThreadStart), 3);
    EXPECT_EQ(VirtualSlot(&SlotServer::GetNextSocketThreadTimeout), 4);
    EXPECT_EQ(VirtualSlot(&SlotServer::OnSocketThreadTimeout), 5);
    EXPECT_EQ(VirtualSlot(&SlotServer::OnSocketThreadEvent), 6);
    EXPECT_EQ(VirtualSlot(&SlotServer::OnSocketEvent), 7);
    EXPECT_EQ(VirtualSlot(&SlotServer::OnSocketThreadExit), 8);
    EXPECT_EQ(VirtualSlot(&SlotServer::OnSocketThreadStopped), 9);
    EXPECT_EQ(VirtualSlot(&SlotServer::CreateLink), 10);
    EXPECT_EQ(VirtualSlot(&SlotServer::OnLinkAssignedToWorkerThread), 11);
    EXPECT_EQ(VirtualSlot(&SlotServer::OnLinkThreadStop), 12);
}

TEST(CQDTcpServer, NewServerHasItsPortItsPrefixAndNothingElse)
{
    RecordingLog log;
    TestServer server(&log, 65535, 10, true);

    EXPECT_EQ(server.GetPort(), 65535u);
    EXPECT_STREQ(server.m_LogPrefix, "TcpSvr@65535");
    EXPECT_EQ(server.m_LogPrefixLength, 12u);
    EXPECT_EQ(server.GetLinkLogging(), 2);
    EXPECT_EQ(server.GetLinkCount(), 0u);
    EXPECT_EQ(server.GetProtocolErrorCount(), 0u);
    EXPECT_EQ(server.m_SocketCount, 0);
    EXPECT_FALSE(server.IsSocketServerRunning());
    EXPECT_EQ(log.GetTexts(), Texts{});
}

TEST(CQDTcpServer, NullLogIsAllowed)
{
    const ReservedPort port;
    TestServer server(nullptr, port.Get());
    server.SetLinkLogging(TcpServerLinkLoggingData);
    ASSERT_TRUE(server.StartTcpServer());
    LoopbackClient client(port.Get());

    EXPECT_TRUE(Echoes(client));

    server.StopTcpServer();
}

TEST(CQDTcpServer, EachThreadPrintsItsStepsAtEachLevel)
{
    struct Line
    {
        int m_Level;
        std::string m_Text;
    };

    for (const int level : {0, 1, 2, 4, 5}) {
        SCOPED_TRACE(level);
        ThreadLog log;
        std::thread::id listenerId;
        std::thread::id workerId;
        ServerBench bench(log);
        TestServer& server = bench.Server();
        server.SetLinkLogging(static_cast<TcpServerLinkLogging>(level));
        server.m_OnAssigned = [&](CQDTcpServerLink&) { listenerId = std::this_thread::get_id(); };
        bench.Links().m_OnRxData = [&](TestLink& link) {
            workerId = std::this_thread::get_id();
            return link.Echo();
        };

        bench.Start();
        LoopbackClient first = bench.Connect();
        LoopbackClient second = bench.Connect();
        const auto workerHasSeenBothLinks = [&] { return log.Count("TCPThread 1: Select returns 1") == 2; };
        ASSERT_TRUE(level < 4 || WaitUntil(workerHasSeenBothLinks));
        ASSERT_TRUE(Echoes(first));
        first.ShutdownSend();
        ASSERT_TRUE(WaitUntil([&] { return bench.Links().m_LiveLinks.load() == 1; }));
        server.StopTcpServer();

        const std::string port = std::to_string(bench.Port());
        const auto line = [&](const char* text) { return Line{0, bench.Line(text)}; };
        const std::vector<Line> ownersLines = {
            line("Starting thread..."),           {0, bench.Line("Create IPv4 listen socket on port " + port)},
            line("Stopping thread..."),           line("Sending shutdown command"),
            line("Delete stopped TCP Server..."), line("Releasing 1 remaining links..."),
            {5, "Test 2: Release, RefCount = 0"}, {1, "Test 2: Deleted"}};
        const std::vector<Line> listenersLines = {line("Listen thread started"),
                                                  line("Accepted connection 1 from 127.0.0.1"),
                                                  {1, "Test 1: Created"},
                                                  {5, "Test 1: AddRef, RefCount = 1"},
                                                  {1, "TCPThread 1: Created"},
                                                  {5, "TCPThread 1: AddRef, RefCount = 1"},
                                                  {1, "TCPThread 1: Starting TCP thread..."},
                                                  {1, "TCPThread 1: ...TCP thread started"},
                                                  {5, "Test 1: AddRef, RefCount = 2"},
                                                  {5, "Test 1: AddRef, RefCount = 3"},
                                                  {5, "Test 1: Release, RefCount = 2"},
                                                  line("Accepted connection 2 from 127.0.0.1"),
                                                  {1, "Test 2: Created"},
                                                  {5, "Test 2: AddRef, RefCount = 1"},
                                                  {5, "Test 2: AddRef, RefCount = 2"},
                                                  {5, "Test 2: AddRef, RefCount = 3"},
                                                  {5, "Test 2: Release, RefCount = 2"},
                                                  line("Listen thread has received an exit request"),
                                                  line("Stop TCP Threads..."),
                                                  {1, "TCPThread 1: Stop TCP Thread..."},
                                                  {1, "TCPThread 1: Wait for TCP thread to stop..."},
                                                  {1, "TCPThread 1: ...TCP thread stopped"},
                                                  {5, "TCPThread 1: Release, RefCount = 0"},
                                                  {1, "TCPThread 1: Deleted"},
                                                  line("... All TCP Threads stopped."),
                                                  line("Listen thread exiting")};
        const std::vector<Line> workersLines = {{1, "TCPThread 1: Thread started"},
                                                {4, "TCPThread 1: Select returns 1"},
                                                {4, "TCPThread 1: Select returns 1"},
                                                {4, "TCPThread 1: Select returns 1"},
                                                {4, "Test 1: Call OnRxData"},
                                                {4, "TCPThread 1: Select returns 1"},
                                                {4, "Test 1: Call OnRxData"},
                                                {1, "Test 1: Socket closed"},
                                                {1, "Test 1: Close socket handle"},
                                                {5, "Test 1: Release, RefCount = 1"},
                                                {5, bench.Line("Remove link 1")},
                                                {5, "Test 1: Release, RefCount = 0"},
                                                {1, "Test 1: Deleted"},
                                                {4, "TCPThread 1: Select returns 1"},
                                                {1, "TCPThread 1: Thread Rx exit request"},
                                                {1, "Test 2: Close socket handle"},
                                                {5, "Test 2: Release, RefCount = 1"},
                                                {1, "TCPThread 1: Thread stopped"}};
        const auto textsUpToLevel = [&](const std::vector<Line>& lines) {
            Texts texts;
            for (const Line& candidate : lines) {
                if (candidate.m_Level <= level)
                    texts.push_back(candidate.m_Text);
            }
            return texts;
        };
        EXPECT_EQ(log.GetTexts(std::this_thread::get_id()), textsUpToLevel(ownersLines));
        EXPECT_EQ(log.GetTexts(listenerId), textsUpToLevel(listenersLines));
        EXPECT_EQ(log.GetTexts(workerId), textsUpToLevel(workersLines));
    }
}

TEST(CQDTcpServer, WithoutIPv6ThereIsOneListeningSocket)
{
    RecordingLog log;
    ServerBench bench(log);

    bench.Start();

    EXPECT_EQ(bench.Server().m_SocketCount, 1);
    EXPECT_EQ(GetIntOption(bench.Server().m_Sockets[0], SOL_SOCKET, SO_DOMAIN), AF_INET);
    EXPECT_EQ(log.CountContaining("IPv6"), 0u);
}

TEST(CQDTcpServer, WithIPv6BothFamiliesAreServed)
{
    RecordingLog log;
    ServerBench bench(log, 64, true);

    bench.Start();

    EXPECT_EQ(bench.Server().m_SocketCount, 2);
    LoopbackClient client4 = bench.Connect(AF_INET);
    LoopbackClient client6 = bench.Connect(AF_INET6);
    EXPECT_TRUE(Echoes(client4));
    EXPECT_TRUE(Echoes(client6));
    EXPECT_EQ(log.Count(bench.Line("Accepted connection 1 from 127.0.0.1")), 1u);
    EXPECT_EQ(log.Count(bench.Line("Accepted connection 2 from ::1")), 1u);
}

TEST(CQDTcpServer, ListeningSocketsHaveTheirOptions)
{
    COutputLogNull log;
    ServerBench bench(log, 64, true);
    bench.Start();
    const int* sockets = bench.Server().m_Sockets;

    for (int i = 0; i < 2; ++i) {
        SCOPED_TRACE(i);
        EXPECT_NE(::fcntl(sockets[i], F_GETFL) & O_NONBLOCK, 0);
        EXPECT_EQ(::fcntl(sockets[i], F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(GetIntOption(sockets[i], SOL_SOCKET, SO_REUSEADDR), 1);
        EXPECT_EQ(GetIntOption(sockets[i], SOL_SOCKET, SO_TYPE), SOCK_STREAM);
        EXPECT_EQ(GetIntOption(sockets[i], SOL_SOCKET, SO_PROTOCOL), IPPROTO_TCP);
    }
    EXPECT_EQ(GetIntOption(sockets[0], SOL_SOCKET, SO_DOMAIN), AF_INET);
    EXPECT_EQ(GetIntOption(sockets[1], SOL_SOCKET, SO_DOMAIN), AF_INET6);
    EXPECT_EQ(GetIntOption(sockets[1], IPPROTO_IPV6, IPV6_V6ONLY), 1);
}

TEST(CQDTcpServer, ListeningSocketsHaveABacklogOf128)
{
    if (RunsEmulated())
        GTEST_SKIP() << "the emulator's getsockopt(TCP_INFO) gives one word only";
    COutputLogNull log;
    ServerBench bench(log, 64, true);
    bench.Start();

    for (int i = 0; i < 2; ++i) {
        SCOPED_TRACE(i);
        tcp_info info{};
        socklen_t length = sizeof info;
        EXPECT_EQ(::getsockopt(bench.Server().m_Sockets[i], IPPROTO_TCP, TCP_INFO, &info, &length), 0);
        EXPECT_EQ(info.tcpi_sacked, 128u); // the backlog, for a listening socket
    }
}

TEST(CQDTcpServer, IPv4PortTakenLeavesIPv6Alone)
{
    RecordingLog log;
    ServerBench bench(log, 64, true);
    const PortTaker taker(bench.Port(), AF_INET);

    bench.Start();

    LoopbackClient client = bench.Connect(AF_INET6);
    EXPECT_TRUE(Echoes(client));
    EXPECT_EQ(bench.Server().m_SocketCount, 1);
    EXPECT_EQ(log.Count(bench.Line("bind() failed. Error 98: Address already in use")), 1u);
}

TEST(CQDTcpServer, IPv6PortTakenLeavesIPv4Alone)
{
    RecordingLog log;
    ServerBench bench(log, 64, true);
    const PortTaker taker(bench.Port(), AF_INET6);

    bench.Start();

    LoopbackClient client = bench.Connect(AF_INET);
    EXPECT_TRUE(Echoes(client));
    EXPECT_EQ(bench.Server().m_SocketCount, 1);
    EXPECT_EQ(log.Count(bench.Line("bind() failed. Error 98: Address already in use")), 1u);
}

TEST(CQDTcpServer, PortTakenWithoutIPv6MakesTheStartFail)
{
    RecordingLog log;
    ServerBench bench(log);
    const PortTaker taker(bench.Port(), AF_INET);
    const std::set<int> before = GetOpenDescriptors();

    EXPECT_FALSE(bench.Server().StartTcpServer());

    EXPECT_FALSE(bench.Server().IsSocketServerRunning());
    EXPECT_EQ(GetOpenDescriptors(), before) << "the failed start left a descriptor open";
    EXPECT_EQ(log.GetTexts(), (Texts{bench.Line("Starting thread..."),
                                     bench.Line("Create IPv4 listen socket on port " + std::to_string(bench.Port())),
                                     bench.Line("bind() failed. Error 98: Address already in use")}));
}

TEST(CQDTcpServer, EachFailedStepIsPrintedAndTheOtherFamilyGoesOn)
{
    struct Case
    {
        const char* m_pName;
        const char* m_pFunction;
        int m_Nth;
        int m_Error;
        Texts m_IPv4Lines;
        Texts m_IPv6Lines;
        Texts m_LastLines;
        std::vector<int> m_Families; // of the listening sockets
    };

    const Case cases[] = {
        {"IPv4 socket", "socket", 1, EMFILE, {"socket() failed. Error 24: Too many open files"}, {}, {}, {AF_INET6}},
        {"IPv6 socket",
         "socket",
         2,
         EAFNOSUPPORT,
         {},
         {"socket() failed. Error 97: Address family not supported by protocol"},
         {},
         {AF_INET}},
        // Goes on to bind, which finds the port reserved by the test.
        {"IPv4 SO_REUSEADDR",
         "setsockopt",
         1,
         ENOPROTOOPT,
         {"setsockopt(SOL_SOCKET, SO_REUSEADDR = 1)() failed. Error 92: Protocol not available",
          "bind() failed. Error 98: Address already in use"},
         {},
         {},
         {AF_INET6}},
        {"IPv6 SO_REUSEADDR",
         "setsockopt",
         2,
         ENOPROTOOPT,
         {},
         {"setsockopt(SOL_SOCKET, SO_REUSEADDR = 1)() failed. Error 92: Protocol not available",
          "bind() failed. Error 98: Address already in use"},
         {},
         {AF_INET}},
        {"IPV6_V6ONLY",
         "setsockopt",
         3,
         ENOPROTOOPT,
         {},
         {"setsockopt(IPPROTO_IPV6)() failed. Error 92: Protocol not available"},
         {},
         {AF_INET}},
        {"IPv4 bind", "bind", 1, EACCES, {"bind() failed. Error 13: Permission denied"}, {}, {}, {AF_INET6}},
        {"IPv6 bind", "bind", 2, EACCES, {}, {"bind() failed. Error 13: Permission denied"}, {}, {AF_INET}},
        {"IPv4 listen",
         "listen",
         1,
         EADDRINUSE,
         {"listen() failed. Error 98: Address already in use"},
         {},
         {},
         {AF_INET6}},
        {"IPv6 listen",
         "listen",
         2,
         EADDRINUSE,
         {},
         {"listen() failed. Error 98: Address already in use"},
         {},
         {AF_INET}},
        {"IPv4 ioctl",
         "ioctl",
         1,
         ENOTTY,
         {},
         {},
         {"ioctl() failed. Error 25: Inappropriate ioctl for device"},
         {AF_INET, AF_INET6}},
        {"IPv6 ioctl",
         "ioctl",
         2,
         ENOTTY,
         {},
         {},
         {"ioctl() failed. Error 25: Inappropriate ioctl for device"},
         {AF_INET, AF_INET6}},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_pName);
        ThreadLog log;
        ServerBench bench(log, 64, true);
        const std::string port = std::to_string(bench.Port());
        {
            const FaultPlan fault(testCase.m_pFunction, testCase.m_Nth, testCase.m_Error);
            bench.Start();
            EXPECT_TRUE(fault.HasFailed());
        }

        Texts expected{bench.Line("Starting thread..."), bench.Line("Create IPv4 listen socket on port " + port)};
        for (const std::string& text : testCase.m_IPv4Lines)
            expected.push_back(bench.Line(text));
        expected.push_back(bench.Line("Create IPv6 listen socket on port " + port));
        for (const Texts* texts : {&testCase.m_IPv6Lines, &testCase.m_LastLines}) {
            for (const std::string& text : *texts)
                expected.push_back(bench.Line(text));
        }
        EXPECT_EQ(log.GetTexts(std::this_thread::get_id()), expected);
        std::vector<int> families;
        for (int i = 0; i < bench.Server().m_SocketCount; ++i)
            families.push_back(GetIntOption(bench.Server().m_Sockets[i], SOL_SOCKET, SO_DOMAIN));
        EXPECT_EQ(families, testCase.m_Families);
        for (const int family : families) {
            LoopbackClient client = bench.Connect(family);
            EXPECT_TRUE(Echoes(client));
        }
    }
}

TEST(CQDTcpServer, StartFailsWhenNoSocketCanBeMade)
{
    struct Case
    {
        const char* m_pFunction;
        int m_Error;
        std::string m_Text;
    };

    const Case cases[] = {{"socket", EMFILE, "socket() failed. Error 24: Too many open files"},
                          {"bind", EACCES, "bind() failed. Error 13: Permission denied"},
                          {"listen", EADDRINUSE, "listen() failed. Error 98: Address already in use"}};
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_pFunction);
        RecordingLog log;
        ServerBench bench(log, 64, true);
        const std::set<int> before = GetOpenDescriptors();

        {
            const FaultPlan fault(testCase.m_pFunction, 1, testCase.m_Error, FaultPlan::Repeat::Forever);
            EXPECT_FALSE(bench.Server().StartTcpServer());
        }

        EXPECT_EQ(log.Count(bench.Line(testCase.m_Text)), 2u);
        EXPECT_FALSE(bench.Server().IsSocketServerRunning());
        EXPECT_EQ(GetOpenDescriptors(), before) << "the failed start left a descriptor open";
    }
}

TEST(CQDTcpServer, StartThatFailsAfterItsSocketsLeavesNothingOpen)
{
    for (const char* function : {"pipe2", "pthread_create"}) {
        SCOPED_TRACE(function);
        COutputLogNull log;
        ServerBench bench(log, 64, true);
        const std::set<int> before = GetOpenDescriptors();

        {
            const FaultPlan fault(function, 1, EAGAIN);
            EXPECT_FALSE(bench.Server().StartTcpServer());
        }

        EXPECT_EQ(GetOpenDescriptors(), before) << "the failed start left a descriptor open";
        bench.Start();
        LoopbackClient client = bench.Connect();
        EXPECT_TRUE(Echoes(client));
    }
}

TEST(CQDTcpServer, ListeningSocketThatDoesNotFitTheSetsIsPrintedAndTheStartFails)
{
    RecordingLog log;
    ServerBench bench(log);
    const TakenDescriptors taken;
    const std::set<int> before = GetOpenDescriptors();

    EXPECT_FALSE(bench.Server().StartTcpServer());

    EXPECT_EQ(log.Count(bench.Line("socket() failed. Error 24: Too many open files")), 1u);
    EXPECT_EQ(GetOpenDescriptors(), before) << "the failed start left a descriptor open";
}

TEST(CQDTcpServer, StopBeforeStartOnlyPrints)
{
    RecordingLog log;
    ServerBench bench(log);

    bench.Server().StopTcpServer();

    EXPECT_EQ(log.GetTexts(), Texts{bench.Line("Stopping thread...")});
}

TEST(CQDTcpServer, StopAfterAFailedStartOnlyPrints)
{
    RecordingLog log;
    ServerBench bench(log);
    {
        const FaultPlan fault("socket", 1, EMFILE);
        EXPECT_FALSE(bench.Server().StartTcpServer());
    }
    log.Clear();

    bench.Server().StopTcpServer();

    EXPECT_EQ(log.GetTexts(), Texts{bench.Line("Stopping thread...")});
}

TEST(CQDTcpServer, SecondStopOnlyPrints)
{
    RecordingLog log;
    ServerBench bench(log);
    bench.Start();
    LoopbackClient client = bench.Connect();
    bench.Server().StopTcpServer();
    log.Clear();

    bench.Server().StopTcpServer();

    EXPECT_EQ(log.GetTexts(), Texts{bench.Line("Stopping thread...")});
}

TEST(CQDTcpServer, StopClosesEverything)
{
    COutputLogNull log;
    ServerBench bench(log, 1, true);
    const std::set<int> before = GetOpenDescriptors();
    bench.Start();
    {
        std::vector<LoopbackClient> clients;
        for (int i = 0; i < 3; ++i)
            clients.push_back(bench.Connect());

        bench.Server().StopTcpServer();

        for (LoopbackClient& client : clients)
            EXPECT_TRUE(client.SawReset());
    }
    EXPECT_EQ(GetOpenDescriptors(), before);
    EXPECT_EQ(bench.Server().GetLinkCount(), 0u);
    EXPECT_EQ(bench.Links().m_LiveLinks.load(), 0);
    EXPECT_EQ(bench.Links().m_Disconnects.load(), 3);
    EXPECT_EQ(bench.Server().m_StoppedThreads.load(), 3);
}

TEST(CQDTcpServer, StopWithoutLinksPrintsNoReleasing)
{
    RecordingLog log;
    ServerBench bench(log);
    bench.Start();

    bench.Server().StopTcpServer();

    EXPECT_EQ(log.CountContaining("Releasing"), 0u);
}

TEST(CQDTcpServer, StopTellsAllWorkersBeforeItWaitsForTheFirst)
{
    RecordingLog log;
    ServerBench bench(log, 1);
    bench.Start();
    std::vector<LoopbackClient> clients;
    for (int i = 0; i < 3; ++i)
        clients.push_back(bench.Connect());

    bench.Server().StopTcpServer();

    Texts steps;
    for (const std::string& text : log.GetTexts()) {
        for (const char* step : {"Stop TCP", "Wait for", "TCP thread stopped", "Deleted", "All TCP Threads"}) {
            if (text.find(step) != std::string::npos && text.find("Test ") != 0)
                steps.push_back(text);
        }
    }
    EXPECT_EQ(steps, (Texts{bench.Line("Stop TCP Threads..."), "TCPThread 3: Stop TCP Thread...",
                            "TCPThread 2: Stop TCP Thread...", "TCPThread 1: Stop TCP Thread...",
                            "TCPThread 3: Wait for TCP thread to stop...", "TCPThread 3: ...TCP thread stopped",
                            "TCPThread 3: Deleted", "TCPThread 2: Wait for TCP thread to stop...",
                            "TCPThread 2: ...TCP thread stopped", "TCPThread 2: Deleted",
                            "TCPThread 1: Wait for TCP thread to stop...", "TCPThread 1: ...TCP thread stopped",
                            "TCPThread 1: Deleted", bench.Line("... All TCP Threads stopped.")}));
}

TEST(CQDTcpServer, StartAfterStopServesAgainAndCountsOn)
{
    RecordingLog log;
    ServerBench bench(log);
    bench.Start();
    {
        LoopbackClient client = bench.Connect();
        bench.Server().StopTcpServer();
    }
    log.Clear();

    bench.Start();
    LoopbackClient client = bench.Connect();

    EXPECT_TRUE(Echoes(client));
    EXPECT_EQ(log.Count(bench.Line("Accepted connection 2 from 127.0.0.1")), 1u);
    EXPECT_EQ(log.Count("TCPThread 2: Created"), 1u);
}

TEST(CQDTcpServer, ContextTellsTheLinkAboutItsConnection)
{
    COutputLogNull log;
    OrderedCalls<TcpServerLinkCreateContext> contexts;
    ServerBench bench(log, 64, true);
    bench.Server().SetLinkLogging(TcpServerLinkLoggingDetail);
    bench.Server().m_OnCreateLink = [&](TcpServerLinkCreateContext& context) {
        contexts.Add(context);
        return true;
    };
    bench.Start();

    LoopbackClient client4 = bench.Connect(AF_INET);
    LoopbackClient client6 = bench.Connect(AF_INET6);

    const std::vector<TcpServerLinkCreateContext> seen = contexts.Get();
    ASSERT_EQ(seen.size(), 2u);
    for (unsigned int i = 0; i < 2; ++i) {
        EXPECT_EQ(seen[i].m_pOutputLog, &log);
        EXPECT_EQ(seen[i].m_pServer, &bench.Server());
        EXPECT_STREQ(seen[i].m_pServerName, "Test");
        EXPECT_EQ(seen[i].m_LinkId, i + 1);
        EXPECT_GE(seen[i].m_Socket, 0);
        EXPECT_EQ(seen[i].m_LoggingLevel, TcpServerLinkLoggingDetail);
    }
    EXPECT_EQ(seen[0].m_PeerAddressText, "127.0.0.1");
    EXPECT_EQ(seen[0].m_PeerAddressLength, 16u);
    EXPECT_EQ(seen[0].m_PeerAddress.sin6_family, AF_INET);
    EXPECT_EQ(ntohs(seen[0].m_PeerAddress.sin6_port), client4.GetLocalPort());
    EXPECT_EQ(seen[1].m_PeerAddressText, "::1");
    EXPECT_EQ(seen[1].m_PeerAddressLength, 28u);
    EXPECT_EQ(seen[1].m_PeerAddress.sin6_family, AF_INET6);
    EXPECT_EQ(ntohs(seen[1].m_PeerAddress.sin6_port), client6.GetLocalPort());
}

TEST(CQDTcpServer, NewContextHasRoomForAnIPv6Address)
{
    const TcpServerLinkCreateContext context;

    EXPECT_EQ(context.m_PeerAddressLength, 28u);
    EXPECT_EQ(sizeof context.m_PeerAddress, sizeof(sockaddr_in6));
}

TEST(CQDTcpServer, LongNameIsCutAt31BytesInTheLinksPrefix)
{
    RecordingLog log;
    const ReservedPort port;
    std::string nameSeen;
    TestServer server(&log, port.Get(), 64, false, "A name of more than thirty-one bytes");
    server.m_OnCreateLink = [&](TcpServerLinkCreateContext& context) {
        nameSeen = context.m_pServerName;
        return false;
    };
    EXPECT_TRUE(server.StartTcpServer());
    LoopbackClient client(port.Get());
    EXPECT_TRUE(client.SawOrderlyClose());
    server.StopTcpServer();

    EXPECT_EQ(nameSeen, "A name of more than thirty-one ");
}

TEST(CQDTcpServer, CreateLinkNullClosesTheConnectionWithoutAnyCallback)
{
    RecordingLog log;
    bool refuse = true;
    ServerBench bench(log);
    bench.Server().m_OnCreateLink = [&](TcpServerLinkCreateContext&) { return !std::exchange(refuse, false); };
    bench.Start();

    LoopbackClient refused(bench.Port());
    EXPECT_TRUE(refused.SawOrderlyClose());
    LoopbackClient accepted = bench.Connect();

    EXPECT_TRUE(Echoes(accepted));
    EXPECT_EQ(bench.Server().m_Assigned.load(), 1);
    EXPECT_EQ(bench.Links().m_Connects.load(), 1);
    EXPECT_EQ(bench.Links().m_Disconnects.load(), 0);
    EXPECT_EQ(log.Count(bench.Line("Accepted connection 2 from 127.0.0.1")), 1u) << "the number was used up";
    EXPECT_EQ(bench.Server().GetLinkCount(), 1u);
}

TEST(CQDTcpServer, OnConnectResultsZeroAndOneAccept)
{
    for (const int result : {0, 1}) {
        SCOPED_TRACE(result);
        RecordingLog log;
        ServerBench bench(log);
        bench.Links().m_OnConnect = [&](TestLink&) { return static_cast<LinkCallbackResult>(result); };
        bench.Start();

        LoopbackClient client = bench.Connect();

        EXPECT_TRUE(Echoes(client));
        EXPECT_EQ(bench.Server().GetLinkCount(), 1u);
        EXPECT_EQ(log.CountContaining("OnConnect()"), 0u);
    }
}

TEST(CQDTcpServer, OtherOnConnectResultsRefuseWithoutOnDisconnect)
{
    for (const int result : {2, 3, 4, 5, 6, 7, -1}) {
        SCOPED_TRACE(result);
        RecordingLog log;
        std::atomic<int> socketWhenAssigned{0};
        ServerBench bench(log);
        bench.Links().m_OnConnect = [&](TestLink&) { return static_cast<LinkCallbackResult>(result); };
        bench.Server().m_OnAssigned = [&](CQDTcpServerLink& link) { socketWhenAssigned.store(link.GetSocket()); };
        bench.Start();

        LoopbackClient client = bench.Connect();

        EXPECT_TRUE(client.SawOrderlyClose());
        EXPECT_EQ(log.Count(bench.Line("OnConnect() returns " + std::to_string(result) + ", closing socket")), 1u);
        EXPECT_EQ(socketWhenAssigned.load(), -1);
        EXPECT_TRUE(WaitUntil([&] { return bench.Links().m_LiveLinks.load() == 0; }));
        EXPECT_EQ(bench.Links().m_Disconnects.load(), 0);
        EXPECT_EQ(bench.Server().GetLinkCount(), 0u);
        EXPECT_EQ(bench.Server().GetProtocolErrorCount(), 0u);
        EXPECT_EQ(log.CountContaining("TCPThread"), 0u) << "no worker for a refused link";
    }
}

TEST(CQDTcpServer, LinkThatClosedItselfInOnConnectIsNotPlaced)
{
    for (const LinkCallbackResult result : {LinkCallbackSuccess, LinkCallbackCloseSocket}) {
        SCOPED_TRACE(result);
        COutputLogNull log;
        ServerBench bench(log);
        bench.Links().m_OnConnect = [&](TestLink& link) {
            link.CloseSocket(false);
            return result;
        };
        bench.Start();

        LoopbackClient client = bench.Connect();

        EXPECT_TRUE(client.SawOrderlyClose());
        EXPECT_TRUE(WaitUntil([&] { return bench.Links().m_LiveLinks.load() == 0; }));
        EXPECT_EQ(bench.Links().m_Disconnects.load(), 1);
        EXPECT_EQ(bench.Server().GetLinkCount(), 0u);
    }
}

TEST(CQDTcpServer, AcceptPathRunsOnTheListenerAndTheRestOnTheWorker)
{
    COutputLogNull log;
    OrderedCalls<std::pair<std::string, std::thread::id>> calls;
    ServerBench bench(log);
    const auto note = [&](const char* callback) { calls.Add({callback, std::this_thread::get_id()}); };
    bench.Server().m_OnCreateLink = [&](TcpServerLinkCreateContext&) {
        note("CreateLink");
        return true;
    };
    bench.Links().m_OnConnect = [&](TestLink&) {
        note("OnConnect");
        return LinkCallbackSuccess;
    };
    bench.Server().m_OnAssigned = [&](CQDTcpServerLink&) { note("OnLinkAssignedToWorkerThread"); };
    bench.Links().m_OnRxData = [&](TestLink& link) {
        note("OnRxData");
        return link.Echo();
    };
    bench.Links().m_OnDisconnect = [&](TestLink&) { note("OnDisconnect"); };
    bench.Server().m_OnThreadStop = [&](CQDTcpServerThread&) { note("OnLinkThreadStop"); };
    bench.Start();
    LoopbackClient client = bench.Connect();
    ASSERT_TRUE(Echoes(client));

    bench.Server().StopTcpServer();

    const auto seen = calls.Get();
    ASSERT_EQ(seen.size(), 6u);
    const std::thread::id listener = seen[0].second;
    const std::thread::id worker = seen[3].second;
    EXPECT_NE(listener, std::this_thread::get_id());
    EXPECT_NE(worker, std::this_thread::get_id());
    EXPECT_NE(worker, listener);
    EXPECT_EQ(seen, (std::vector<std::pair<std::string, std::thread::id>>{{"CreateLink", listener},
                                                                          {"OnConnect", listener},
                                                                          {"OnLinkAssignedToWorkerThread", listener},
                                                                          {"OnRxData", worker},
                                                                          {"OnDisconnect", worker},
                                                                          {"OnLinkThreadStop", worker}}));
}

TEST(CQDTcpServer, NoCallbackOfTheServerRunsUnderItsLock)
{
    COutputLogNull log;
    OrderedCalls<std::pair<std::string, bool>> calls;
    ServerBench bench(log);
    const auto note = [&](const char* callback) {
        TestThread other([&] { bench.Server().GetLinkCount(); });
        calls.Add({callback, WaitUntil([&] { return other.IsDone(); }, 5s)});
    };
    bench.Server().m_OnCreateLink = [&](TcpServerLinkCreateContext&) {
        note("CreateLink");
        return true;
    };
    bench.Links().m_OnConnect = [&](TestLink&) {
        note("OnConnect");
        return LinkCallbackSuccess;
    };
    bench.Server().m_OnAssigned = [&](CQDTcpServerLink&) { note("OnLinkAssignedToWorkerThread"); };
    bench.Links().m_OnDisconnect = [&](TestLink&) { note("OnDisconnect"); };
    bench.Server().m_OnThreadStop = [&](CQDTcpServerThread&) { note("OnLinkThreadStop"); };
    bench.Start();
    LoopbackClient client = bench.Connect();

    bench.Server().StopTcpServer();

    EXPECT_EQ(calls.Get(), (std::vector<std::pair<std::string, bool>>{{"CreateLink", true},
                                                                      {"OnConnect", true},
                                                                      {"OnLinkAssignedToWorkerThread", true},
                                                                      {"OnDisconnect", true},
                                                                      {"OnLinkThreadStop", true}}));
}

TEST(CQDTcpServer, NewLinksGoToTheNewestWorkerUntilItIsFull)
{
    RecordingLog log;
    OrderedCalls<std::pair<std::thread::id, unsigned int>> served;
    OrderedCalls<std::pair<std::thread::id, unsigned int>> stopped;
    ServerBench bench(log, 2);
    bench.Links().m_OnRxData = [&](TestLink& link) {
        served.Add({std::this_thread::get_id(), link.GetLinkId()});
        return link.Echo();
    };
    bench.Server().m_OnThreadStop = [&](CQDTcpServerThread& thread) {
        stopped.Add({std::this_thread::get_id(), thread.GetThreadNumber()});
    };
    bench.Start();
    std::vector<LoopbackClient> clients;
    for (int i = 0; i < 5; ++i) {
        clients.push_back(bench.Connect());
        ASSERT_TRUE(Echoes(clients.back()));
    }

    bench.Server().StopTcpServer();

    std::map<std::thread::id, unsigned int> numbers;
    for (const auto& [id, number] : stopped.Get())
        numbers[id] = number;
    std::map<unsigned int, std::vector<unsigned int>> linksOfWorker;
    for (const auto& [id, linkId] : served.Get())
        linksOfWorker[numbers[id]].push_back(linkId);
    EXPECT_EQ(linksOfWorker, (std::map<unsigned int, std::vector<unsigned int>>{{1, {1, 2}}, {2, {3, 4}}, {3, {5}}}));
    // They are stopped in the order in which the server holds them.
    Texts stops;
    for (const std::string& text : log.GetTexts()) {
        if (text.find("Stop TCP Thread...") != std::string::npos)
            stops.push_back(text);
    }
    EXPECT_EQ(stops, (Texts{"TCPThread 3: Stop TCP Thread...", "TCPThread 2: Stop TCP Thread...",
                            "TCPThread 1: Stop TCP Thread..."}));
}

TEST(CQDTcpServer, OlderWorkerWithRoomIsNotUsed)
{
    RecordingLog log;
    ServerBench bench(log, 1);
    bench.Start();
    LoopbackClient first = bench.Connect();
    LoopbackClient second = bench.Connect();
    first.Reset();
    ASSERT_TRUE(WaitUntil([&] { return bench.Server().GetLinkCount() == 1; }));

    LoopbackClient third = bench.Connect();

    EXPECT_TRUE(Echoes(third));
    EXPECT_EQ(log.Count("TCPThread 3: Created"), 1u);
}

TEST(CQDTcpServer, NewestWorkerIsUsedAgainWhenItHasRoomAgain)
{
    RecordingLog log;
    ServerBench bench(log, 1);
    bench.Start();
    for (int i = 0; i < 3; ++i) {
        LoopbackClient client = bench.Connect();
        EXPECT_TRUE(Echoes(client));
        client.Reset();
        ASSERT_TRUE(WaitUntil([&] { return bench.Server().GetLinkCount() == 0; }));
    }

    EXPECT_EQ(log.Count("TCPThread 1: Created"), 1u);
    EXPECT_EQ(log.Count("TCPThread 2: Created"), 0u);
}

TEST(CQDTcpServer, LimitAbove64IsHeldAt64)
{
    RecordingLog log;
    ServerBench bench(log, 100);
    bench.Start();
    std::vector<LoopbackClient> clients;
    for (int i = 0; i < 64; ++i)
        clients.push_back(bench.Connect());
    ASSERT_EQ(log.Count("TCPThread 2: Created"), 0u);

    for (int i = 0; i < 3; ++i)
        clients.push_back(bench.Connect());

    EXPECT_EQ(log.Count("TCPThread 2: Created"), 1u);
    EXPECT_EQ(log.Count("TCPThread 3: Created"), 0u);
    for (LoopbackClient& client : clients)
        EXPECT_TRUE(Echoes(client));
}

TEST(CQDTcpServer, LimitOfZeroMakesAWorkerForEachLink)
{
    RecordingLog log;
    ServerBench bench(log, 0);
    bench.Start();

    LoopbackClient first = bench.Connect();
    LoopbackClient second = bench.Connect();

    EXPECT_TRUE(Echoes(first));
    EXPECT_TRUE(Echoes(second));
    EXPECT_EQ(log.Count("TCPThread 2: Created"), 1u);
}

TEST(CQDTcpServer, WorkerWhoseLoopHasEndedGetsNoNewLinks)
{
    RecordingLog log;
    ServerBench bench(log);
    bench.Start();
    LoopbackClient first = bench.Connect();
    ASSERT_TRUE(Echoes(first));
    {
        // The listener is the only other one that reads a pipe, and nobody sends it a command now.
        const FaultPlan fault("read", 1, EIO);
        EXPECT_TRUE(bench.Post(1));
        ASSERT_TRUE(first.SawReset());
        ASSERT_TRUE(WaitUntil([&] { return bench.Server().m_StoppedThreads.load() == 1; }));
    }

    LoopbackClient second = bench.Connect();

    EXPECT_TRUE(Echoes(second));
    EXPECT_FALSE(bench.Post(1));
    EXPECT_EQ(log.Count("TCPThread 2: Created"), 1u);
    EXPECT_EQ(bench.Tally().m_Deleted.load(), 2);
}

TEST(CQDTcpServer, PostedMessageReachesItsLinkAlone)
{
    COutputLogNull log;
    OrderedCalls<unsigned int> receivers;
    ServerBench bench(log);
    bench.Links().m_OnMessage = [&](TestLink& link, CountedMessage&) {
        receivers.Add(link.GetLinkId());
        return LinkCallbackSuccess;
    };
    bench.Start();
    LoopbackClient first = bench.Connect();
    LoopbackClient second = bench.Connect();

    EXPECT_TRUE(bench.Post(2));

    EXPECT_TRUE(WaitUntil([&] { return bench.Tally().m_Deleted.load() == 1; }));
    EXPECT_EQ(receivers.Get(), (std::vector<unsigned int>{2}));
}

TEST(CQDTcpServer, PostForAnUnknownLinkDeletesTheMessage)
{
    COutputLogNull log;
    ServerBench bench(log);

    EXPECT_FALSE(bench.Post(1));
    EXPECT_EQ(bench.Tally().m_Deleted.load(), 1);
    bench.Start();
    LoopbackClient client = bench.Connect();
    EXPECT_FALSE(bench.Post(2));
    EXPECT_EQ(bench.Tally().m_Deleted.load(), 2);
    bench.Server().StopTcpServer();
    EXPECT_FALSE(bench.Post(1));
    EXPECT_EQ(bench.Tally().m_Deleted.load(), 3);
}

TEST(CQDTcpServer, NullMessagesAreNotQueued)
{
    COutputLogNull log;
    ServerBench bench(log);
    bench.Start();
    LoopbackClient client = bench.Connect();

    EXPECT_FALSE(bench.Server().PostLinkMessage(nullptr));
    bench.Server().BroadcastLinkMessage(nullptr);

    EXPECT_TRUE(Echoes(client));
}

TEST(CQDTcpServer, MessageThatClosesItsLinkWhileItIsReadable)
{
    COutputLogNull log;
    HoldingPlace place;
    OrderedCalls<unsigned int> read;
    std::atomic<int> socketOfFirst{-1};
    ServerBench bench(log);
    bench.Links().m_OnRxData = [&](TestLink& link) {
        read.Add(link.GetLinkId());
        if (link.GetLinkId() == 2)
            place.PassThrough();
        return link.Echo();
    };
    bench.Links().m_OnMessage = [](TestLink& link, CountedMessage&) {
        return link.GetLinkId() == 1 ? LinkCallbackProtocolError : LinkCallbackSuccess;
    };
    bench.Server().m_OnAssigned = [&](CQDTcpServerLink& link) {
        if (link.GetLinkId() == 1)
            socketOfFirst.store(link.GetSocket());
    };
    bench.Start();
    LoopbackClient first = bench.Connect();
    LoopbackClient second = bench.Connect();
    EXPECT_TRUE(bench.Post(2)); // comes after the commands of the new links: none of them is left then
    EXPECT_TRUE(WaitUntil([&] { return bench.Tally().m_Deleted.load() == 1; }));
    second.Send("a");
    EXPECT_TRUE(place.WaitUntilHeld());

    first.Send("x");
    pollfd readable{socketOfFirst.load(), POLLIN, 0};
    EXPECT_EQ(::poll(&readable, 1, 20'000), 1);
    EXPECT_TRUE(bench.Post(1));
    place.LetGo();

    EXPECT_TRUE(first.SawReset());
    EXPECT_EQ(second.Receive(1), "a");
    EXPECT_TRUE(Echoes(second));
    EXPECT_EQ(read.Get(), (std::vector<unsigned int>{2, 2}));
    EXPECT_EQ(bench.Server().GetLinkCount(), 1u);
    EXPECT_EQ(bench.Server().GetProtocolErrorCount(), 1u);
}

TEST(CQDTcpServer, BroadcastSendsEachLinkACopyOfItsOwn)
{
    COutputLogNull log;
    OrderedCalls<std::pair<unsigned int, unsigned int>> receivers;
    OrderedCalls<int> numbers;
    MessageTally tally;
    ServerBench bench(log, 2);
    bench.Links().m_OnMessage = [&](TestLink& link, CountedMessage& message) {
        receivers.Add({link.GetLinkId(), message.GetLinkId()});
        numbers.Add(message.GetNumber());
        return LinkCallbackSuccess;
    };
    bench.Start();
    std::vector<LoopbackClient> clients;
    for (int i = 0; i < 3; ++i)
        clients.push_back(bench.Connect());
    CountedMessage message(77, tally, 5);

    bench.Server().BroadcastLinkMessage(&message);

    EXPECT_TRUE(WaitUntil([&] { return tally.m_Deleted.load() == 3; }));
    const auto seen = receivers.Get();
    EXPECT_EQ((std::set<std::pair<unsigned int, unsigned int>>(seen.begin(), seen.end())),
              (std::set<std::pair<unsigned int, unsigned int>>{{1, 1}, {2, 2}, {3, 3}}));
    EXPECT_EQ(numbers.Get(), (std::vector<int>{5, 5, 5}));
    EXPECT_EQ(tally.m_Made.load(), 4);
    EXPECT_EQ(message.GetLinkId(), 77u) << "the caller's own is left as it was";
}

TEST(CQDTcpServer, BroadcastOfAMessageWithoutACloneReachesNobody)
{
    COutputLogNull log;
    ServerBench bench(log);
    bench.Start();
    LoopbackClient client = bench.Connect();
    CQDTcpServerLinkMessage message(1);

    bench.Server().BroadcastLinkMessage(&message);

    EXPECT_TRUE(bench.Post(1)) << "comes after anything that was queued before";
    EXPECT_TRUE(WaitUntil([&] { return bench.Tally().m_Deleted.load() == 1; }));
}

TEST(CQDTcpServer, BroadcastWithoutLinksMakesNoCopy)
{
    COutputLogNull log;
    MessageTally tally;
    ServerBench bench(log);
    CountedMessage message(1, tally);

    bench.Server().BroadcastLinkMessage(&message);

    EXPECT_EQ(tally.m_Made.load(), 1);
}

TEST(CQDTcpServer, BroadcastCopyForALinkThatItsWorkerHasClosedIsDeleted)
{
    COutputLogNull log;
    MessageTally tally;
    ServerBench bench(log);
    bench.Start();
    LoopbackClient client = bench.Connect();
    ASSERT_TRUE(Echoes(client));
    {
        const FaultPlan fault("read", 1, EIO);
        EXPECT_TRUE(bench.Post(1));
        ASSERT_TRUE(WaitUntil([&] { return bench.Server().m_StoppedThreads.load() == 1; }));
    }
    ASSERT_EQ(bench.Server().GetLinkCount(), 1u) << "an ended worker leaves the server's table alone";
    CountedMessage message(1, tally);

    bench.Server().BroadcastLinkMessage(&message);

    EXPECT_EQ(tally.m_Made.load(), 2);
    EXPECT_EQ(tally.m_Delivered.load(), 0);
    EXPECT_EQ(tally.m_Deleted.load(), 1);
}

TEST(CQDTcpServer, PostsAndBroadcastsThatRaceWithStopAreDeliveredOrDeletedOnce)
{
    for (int round = 0; round < 10; ++round) {
        COutputLogNull log;
        MessageTally broadcasts;
        std::atomic<int> refused{0};
        std::atomic<bool> stopped{false};
        ServerBench bench(log, 2);
        bench.Start();
        std::vector<LoopbackClient> clients;
        for (int i = 0; i < 5; ++i)
            clients.push_back(bench.Connect());
        {
            std::vector<std::unique_ptr<TestThread>> posters;
            for (unsigned int first = 1; first <= 2; ++first) {
                posters.push_back(std::make_unique<TestThread>([&, first] {
                    for (unsigned int n = first; !stopped.load(); ++n) {
                        if (!bench.Post(n % 5 + 1))
                            ++refused;
                    }
                }));
            }
            posters.push_back(std::make_unique<TestThread>([&] {
                CountedMessage message(0, broadcasts);
                while (!stopped.load())
                    bench.Server().BroadcastLinkMessage(&message);
            }));
            EXPECT_TRUE(
                WaitUntil([&] { return bench.Tally().m_Delivered.load() > 10 && broadcasts.m_Delivered.load() > 10; }));

            bench.Server().StopTcpServer();
            EXPECT_TRUE(WaitUntil([&] { return refused.load() > 10; }));
            stopped.store(true);
        }

        EXPECT_EQ(bench.Tally().m_Deleted.load(), bench.Tally().m_Made.load());
        EXPECT_LE(bench.Tally().m_Delivered.load() + refused.load(), bench.Tally().m_Made.load());
        EXPECT_EQ(broadcasts.m_Deleted.load(), broadcasts.m_Made.load());
        EXPECT_LT(broadcasts.m_Delivered.load(), broadcasts.m_Made.load());
        EXPECT_EQ(bench.Links().m_LiveLinks.load(), 0);
    }
}

TEST(CQDTcpServer, GetAllLinksHandsOutAReferenceToEach)
{
    RecordingLog log;
    ServerBench bench(log);
    bench.Start();
    LoopbackClient first = bench.Connect();
    LoopbackClient second = bench.Connect();
    std::list<CQDTcpServerLink*> links;

    bench.Server().GetAllLinks(links);
    first.Reset();
    second.Reset();

    EXPECT_TRUE(WaitUntil([&] { return bench.Server().GetLinkCount() == 0; }));
    EXPECT_EQ(log.Count(bench.Line("GetLinks m_Links.size() = 2")), 1u);
    EXPECT_EQ(bench.Links().m_LiveLinks.load(), 2) << "kept by the references";
    ASSERT_EQ(links.size(), 2u);
    EXPECT_EQ(links.front()->GetLinkId(), 1u);
    EXPECT_EQ(links.back()->GetLinkId(), 2u);
    EXPECT_EQ(links.front()->GetPeerAddress(), "127.0.0.1");
    for (CQDTcpServerLink* link : links)
        link->Release();
    EXPECT_TRUE(WaitUntil([&] { return bench.Links().m_LiveLinks.load() == 0; }));
}

TEST(CQDTcpServer, GetAllLinksAppends)
{
    RecordingLog log;
    ServerBench bench(log);
    std::list<CQDTcpServerLink*> links{nullptr};

    bench.Server().GetAllLinks(links);

    EXPECT_EQ(links, (std::list<CQDTcpServerLink*>{nullptr}));
    EXPECT_EQ(log.GetTexts(), Texts{bench.Line("GetLinks m_Links.size() = 0")});
}

TEST(CQDTcpServer, RemoveLinkTwiceSaysSoTheSecondTime)
{
    for (const TcpServerLinkLogging level : {TcpServerLinkLoggingDetail, TcpServerLinkLoggingReferences}) {
        SCOPED_TRACE(level);
        RecordingLog log;
        ServerBench bench(log);
        bench.Server().SetLinkLogging(level);
        bench.Start();
        LoopbackClient client = bench.Connect();
        std::list<CQDTcpServerLink*> links;
        bench.Server().GetAllLinks(links);
        ASSERT_EQ(links.size(), 1u);

        bench.Server().RemoveLink(links.front());
        EXPECT_EQ(bench.Server().GetLinkCount(), 0u);
        EXPECT_EQ(log.CountContaining("already removed"), 0u);
        bench.Server().RemoveLink(links.front());

        EXPECT_EQ(log.Count(bench.Line("Link 1 already removed from server list")), 1u);
        EXPECT_EQ(log.Count(bench.Line("Remove link 1")), level == TcpServerLinkLoggingReferences ? 2u : 0u);
        EXPECT_TRUE(Echoes(client)) << "the worker still has it";
        links.front()->Release();
        client.Reset();
        EXPECT_TRUE(WaitUntil([&] { return bench.Links().m_LiveLinks.load() == 0; }));
        EXPECT_EQ(log.Count(bench.Line("Link 1 already removed from server list")), 2u);
    }
}

TEST(CQDTcpServer, ProtocolErrorsAreCountedAndCloseTheLink)
{
    RecordingLog log;
    ServerBench bench(log);
    bench.Links().m_OnRxData = [](TestLink& link) {
        link.ReadOneByte();
        return LinkCallbackProtocolError;
    };
    bench.Start();
    for (int i = 0; i < 3; ++i) {
        LoopbackClient client = bench.Connect();
        client.Send("x");
        EXPECT_TRUE(client.SawReset());
    }

    EXPECT_EQ(bench.Server().GetProtocolErrorCount(), 3u);
    EXPECT_EQ(log.Count("Test 2: Protocol error"), 1u);
    bench.Server().IncrementProtocolErrorCount();
    EXPECT_EQ(bench.Server().GetProtocolErrorCount(), 4u);
}

TEST(CQDTcpServer, LinkLoggingHoldsForWhatIsMadeFromThenOn)
{
    RecordingLog log;
    ServerBench bench(log, 1);
    bench.Server().SetLinkLogging(TcpServerLinkLoggingOff);
    EXPECT_EQ(bench.Server().GetLinkLogging(), TcpServerLinkLoggingOff);
    bench.Start();
    LoopbackClient first = bench.Connect();
    bench.Server().SetLinkLogging(TcpServerLinkLoggingDetail);
    LoopbackClient second = bench.Connect();
    ASSERT_TRUE(Echoes(first));
    ASSERT_TRUE(Echoes(second));

    bench.Server().StopTcpServer();

    EXPECT_EQ(log.CountContaining("Test 1"), 0u);
    EXPECT_EQ(log.CountContaining("TCPThread 1"), 0u);
    EXPECT_EQ(log.Count("Test 2: Call OnRxData"), 1u);
    EXPECT_GE(log.Count("TCPThread 2: Select returns 1"), 1u);
}

TEST(CQDTcpServer, CloseAllLinksEndsTheWorkersAndTheServerGoesOn)
{
    ThreadLog log;
    ServerBench bench(log, 1);
    bench.Start();
    LoopbackClient first = bench.Connect();
    LoopbackClient second = bench.Connect();

    bench.Server().CloseAllLinks();

    EXPECT_TRUE(first.SawReset());
    EXPECT_TRUE(second.SawReset());
    EXPECT_EQ(bench.Server().GetLinkCount(), 0u);
    EXPECT_EQ(bench.Links().m_LiveLinks.load(), 0);
    EXPECT_EQ(bench.Links().m_Disconnects.load(), 2);
    EXPECT_EQ(bench.Server().m_StoppedThreads.load(), 2);
    const Texts texts = log.GetTexts(std::this_thread::get_id());
    EXPECT_EQ(texts, (Texts{bench.Line("Starting thread..."),
                            bench.Line("Create IPv4 listen socket on port " + std::to_string(bench.Port())),
                            bench.Line("Close all links"), bench.Line("Stop TCP Threads..."),
                            "TCPThread 2: Stop TCP Thread...", "TCPThread 1: Stop TCP Thread...",
                            "TCPThread 2: Wait for TCP thread to stop...", "TCPThread 2: ...TCP thread stopped",
                            "TCPThread 2: Deleted", "TCPThread 1: Wait for TCP thread to stop...",
                            "TCPThread 1: ...TCP thread stopped", "TCPThread 1: Deleted",
                            bench.Line("... All TCP Threads stopped.")}));
    EXPECT_FALSE(bench.Post(1));

    LoopbackClient third = bench.Connect();
    EXPECT_TRUE(Echoes(third));
    EXPECT_EQ(bench.Server().GetLinkCount(), 1u);
    EXPECT_EQ(log.Count("TCPThread 3: Created"), 1u);
}

TEST(CQDTcpServer, CloseAllLinksWithoutLinksOnlyPrints)
{
    RecordingLog log;
    ServerBench bench(log);

    bench.Server().CloseAllLinks();

    EXPECT_EQ(log.GetTexts(), (Texts{bench.Line("Close all links"), bench.Line("Stop TCP Threads..."),
                                     bench.Line("... All TCP Threads stopped.")}));
}

TEST(CQDTcpServer, LinkAcceptedInTheMiddleOfCloseAllLinksLeavesNothingBehind)
{
    InterruptingLog log;
    std::unique_ptr<LoopbackClient> late;
    ServerBench bench(log);
    // The table has been emptied and the workers still run: the new link goes to one that is about to stop.
    log.m_Text = "Stop TCP Threads...";
    log.m_Interrupt = [&] { late = std::make_unique<LoopbackClient>(bench.Connect()); };
    bench.Start();
    LoopbackClient early = bench.Connect();

    bench.Server().CloseAllLinks();

    ASSERT_NE(late, nullptr);
    EXPECT_TRUE(early.SawReset());
    EXPECT_TRUE(late->SawReset());
    EXPECT_EQ(bench.Server().GetLinkCount(), 0u);
    EXPECT_EQ(bench.Links().m_LiveLinks.load(), 0);
}

TEST(CQDTcpServer, CloseAllLinksFromAnotherThreadWhileLinksCome)
{
    COutputLogNull log;
    std::atomic<bool> stop{false};
    ServerBench bench(log, 3);
    bench.Start();
    {
        TestThread connecting([&] {
            while (!stop.load())
                LoopbackClient client(bench.Port());
        });
        for (int i = 0; i < 20; ++i) {
            const int assigned = bench.Server().m_Assigned.load();
            EXPECT_TRUE(WaitUntil([&] { return bench.Server().m_Assigned.load() >= assigned + 3; }));
            bench.Server().CloseAllLinks();
        }
        stop.store(true);
    }

    LoopbackClient last(bench.Port());
    EXPECT_TRUE(Echoes(last)) << "comes after all the others";
    bench.Server().CloseAllLinks();
    EXPECT_TRUE(last.SawReset());
    EXPECT_EQ(bench.Server().GetLinkCount(), 0u);
    EXPECT_TRUE(WaitUntil([&] { return bench.Links().m_LiveLinks.load() == 0; }));
    bench.Server().StopTcpServer();
    EXPECT_EQ(bench.Links().m_Disconnects.load(), bench.Links().m_Connects.load());
    EXPECT_EQ(bench.Server().m_Assigned.load(), bench.Links().m_Connects.load());
}

TEST(CQDTcpServer, StopWaitsForTheWorkersThatAnotherThreadIsStopping)
{
    COutputLogNull log;
    std::atomic<bool> isDisconnecting{false};
    std::atomic<bool> mayEnd{false};
    ServerBench bench(log);
    bench.Start();
    const LoopbackClient client = bench.Connect();
    bench.Links().m_OnDisconnect = [&](TestLink&) {
        isDisconnecting.store(true);
        WaitUntil([&] { return mayEnd.load(); });
    };
    TestThread closing([&] { bench.Server().CloseAllLinks(); });
    EXPECT_TRUE(WaitUntil([&] { return isDisconnecting.load(); }));

    TestThread stopping([&] { bench.Server().StopTcpServer(); });
    EXPECT_FALSE(WaitUntil([&] { return stopping.IsDone(); }, 100ms));

    mayEnd.store(true);
    EXPECT_TRUE(stopping.WaitUntilDone());
    EXPECT_TRUE(closing.WaitUntilDone());
    EXPECT_EQ(bench.Links().m_LiveLinks.load(), 0);
}

TEST(CQDTcpServer, AddressesAreFormattedWithoutThePort)
{
    struct Case
    {
        int m_Family;
        const char* m_pText;
    };

    const Case cases[] = {{AF_INET, "192.0.2.7"},
                          {AF_INET, "255.255.255.255"},
                          {AF_INET6, "2001:db8::1"},
                          {AF_INET6, "::ffff:192.0.2.7"},
                          {AF_INET6, "1111:2222:3333:4444:5555:6666:7777:8888"}};
    COutputLogNull log;
    TestServer server(&log, 1);
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_pText);
        QDSocketAddress address{};
        address.m_Address.sa_family = static_cast<sa_family_t>(testCase.m_Family);
        const bool isIPv6 = testCase.m_Family == AF_INET6;
        (isIPv6 ? address.m_IPv6.sin6_port : address.m_IPv4.sin_port) = htons(1502);
        void* bytes = isIPv6 ? static_cast<void*>(&address.m_IPv6.sin6_addr) : &address.m_IPv4.sin_addr;
        ASSERT_EQ(::inet_pton(testCase.m_Family, testCase.m_pText, bytes), 1);
        std::string text = "before";

        server.FormatSocketAddress(&address, isIPv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in), text);

        EXPECT_EQ(text, testCase.m_pText);
    }
}

TEST(CQDTcpServer, AddressThatCannotBeFormattedIsUnknown)
{
    COutputLogNull log;
    TestServer server(&log, 1);
    QDSocketAddress address{};
    address.m_Address.sa_family = AF_UNIX + 1000;
    std::string text;

    server.FormatSocketAddress(&address, sizeof(sockaddr_in), text);

    EXPECT_EQ(text, "Unknown address");
}

TEST(CQDTcpServer, ConnectionFromAnAddressThatCannotBeFormattedIsServed)
{
    RecordingLog log;
    ServerBench bench(log);
    bench.Start();
    const FaultPlan fault("getnameinfo", 1, EAI_FAIL);

    LoopbackClient client = bench.Connect();

    EXPECT_TRUE(Echoes(client));
    EXPECT_EQ(log.Count(bench.Line("Accepted connection 1 from Unknown address")), 1u);
}

TEST(CQDTcpServer, FailedAcceptIsPrintedAndTheNextIsServed)
{
    RecordingLog log;
    ServerBench bench(log);
    bench.Start();
    const FaultPlan fault("accept4", 1, ECONNABORTED);

    LoopbackClient client = bench.Connect();

    EXPECT_TRUE(Echoes(client)) << "still in the queue after the failure";
    EXPECT_EQ(log.Count(bench.Line("accept() failed. Error 103: Software caused connection abort")), 1u);
    EXPECT_EQ(log.Count(bench.Line("Accepted connection 1 from 127.0.0.1")), 1u) << "a failure uses up no number";
}

TEST(CQDTcpServer, WorkerThatCannotStartClosesTheConnectionOnly)
{
    struct Case
    {
        const char* m_pFunction;
        int m_Error;
        const char* m_pText;
    };

    const Case cases[] = {
        {"pipe2", EMFILE, "StartThread() failed. Error 24: Too many open files"},
        {"pthread_create", EAGAIN, "StartThread() failed. Error 11: Resource temporarily unavailable"}};
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_pFunction);
        RecordingLog log;
        ServerBench bench(log);
        bench.Start();
        {
            const FaultPlan fault(testCase.m_pFunction, 1, testCase.m_Error);
            LoopbackClient client(bench.Port());
            EXPECT_TRUE(client.SawReset());
            EXPECT_TRUE(WaitUntil([&] { return bench.Server().m_Assigned.load() == 1; }));
        }

        EXPECT_EQ(bench.Links().m_Disconnects.load(), 1);
        EXPECT_EQ(log.Count(bench.Line(testCase.m_pText)), 1u);
        EXPECT_EQ(bench.Server().GetLinkCount(), 0u);
        EXPECT_TRUE(WaitUntil([&] { return bench.Links().m_LiveLinks.load() == 0; }));
        LoopbackClient next = bench.Connect();
        EXPECT_TRUE(Echoes(next));
        EXPECT_EQ(log.Count("TCPThread 2: Created"), 1u);
    }
}

TEST(CQDTcpServer, WorkerPipeThatDoesNotFitTheSetsClosesTheConnectionOnly)
{
    RecordingLog log;
    ServerBench bench(log);
    bench.Start();
    {
        const TakenDescriptors taken(FD_SETSIZE - 2); // for the client and the accepted socket
        LoopbackClient client = bench.Connect();
        EXPECT_TRUE(client.SawReset());
    }

    EXPECT_EQ(log.Count(bench.Line("StartThread() failed. Error 24: Too many open files")), 1u);
    LoopbackClient next = bench.Connect();
    EXPECT_TRUE(Echoes(next));
}

TEST(CQDTcpServer, AcceptedDescriptorThatDoesNotFitTheSetsIsClosedAndPrinted)
{
    RecordingLog log;
    ServerBench bench(log);
    bench.Start();
    LoopbackClient before = bench.Connect();
    {
        const TakenDescriptors taken;
        LoopbackClient client(bench.Port());
        EXPECT_TRUE(client.SawOrderlyClose());
        EXPECT_TRUE(Echoes(before));
    }

    EXPECT_EQ(log.Count(bench.Line(kAcceptOutOfDescriptors)), 1u);
    EXPECT_EQ(bench.Server().GetLinkCount(), 1u);
    LoopbackClient next = bench.Connect();
    EXPECT_TRUE(Echoes(next));
    EXPECT_EQ(log.Count(bench.Line("Accepted connection 2 from 127.0.0.1")), 1u);
}

TEST(CQDTcpServer, OutOfDescriptorsCallersAreRefusedWithoutSpinningOrFlooding)
{
    RecordingLog log;
    PreparedClient refused[30];
    ServerBench bench(log);
    bench.Start();
    LoopbackClient before = bench.Connect();
    EXPECT_TRUE(Echoes(before)); // the worker has printed what it prints at its start
    ASSERT_TRUE(Echoes(before)); // the worker has printed its start
    log.Clear();
    {
        const NoDescriptorsLeft none;
        const CpuMeter meter;

        for (PreparedClient& client : refused)
            client.Connect(bench.Port());

        for (PreparedClient& client : refused)
            EXPECT_TRUE(client.SawEnd(20'000));
        EXPECT_TRUE(Echoes(before));
        EXPECT_TRUE(meter.WaitUntilElapsed(1s));
        EXPECT_LT(meter.GetCpuTime(), 500ms);
        EXPECT_TRUE(Echoes(before));
    }

    EXPECT_EQ(log.GetTexts(), Texts{bench.Line(kAcceptOutOfDescriptors)});
    LoopbackClient next = bench.Connect();
    EXPECT_TRUE(Echoes(next));
}

TEST(CQDTcpServer, OutOfDescriptorsAgainIsPrintedAgain)
{
    RecordingLog log;
    PreparedClient refused[2];
    ServerBench bench(log);
    bench.Start();
    for (PreparedClient& client : refused) {
        LoopbackClient served = bench.Connect();
        EXPECT_TRUE(Echoes(served));
        const NoDescriptorsLeft none;
        client.Connect(bench.Port());
        EXPECT_TRUE(client.SawEnd(20'000));
        EXPECT_TRUE(Echoes(served));
    }

    EXPECT_EQ(log.Count(bench.Line(kAcceptOutOfDescriptors)), 2u);
}

TEST(CQDTcpServer, SpareDescriptorThatCannotBeOpenedAgainMakesCallersWait)
{
    RecordingLog log;
    PreparedClient clients[3];
    ServerBench bench(log);
    bench.Start();
    LoopbackClient before = bench.Connect();
    {
        const NoDescriptorsLeft none;
        const FaultPlan noSpare("open", 1, EMFILE, FaultPlan::Repeat::Forever);
        clients[0].Connect(bench.Port());
        EXPECT_TRUE(clients[0].SawEnd(20'000)) << "refused with the spare descriptor";
        clients[1].Connect(bench.Port());
        EXPECT_TRUE(clients[1].Echoes()) << "served with what the spare descriptor left free";
        log.Clear();

        clients[2].Connect(bench.Port());
        const CpuMeter meter;
        EXPECT_TRUE(meter.WaitUntilElapsed(1s));

        EXPECT_LT(meter.GetCpuTime(), 500ms);
        EXPECT_EQ(log.GetTexts(), Texts{bench.Line(kAcceptOutOfDescriptors)});
        EXPECT_FALSE(clients[2].SawEnd(0));
        EXPECT_TRUE(Echoes(before));
    }

    EXPECT_TRUE(clients[2].Echoes()) << "by itself, as soon as there are descriptors";
}

TEST(CQDTcpServer, SpareDescriptorIsThereAgainAfterGoodTimes)
{
    RecordingLog log;
    PreparedClient clients[2];
    ServerBench bench(log);
    bench.Start();
    LoopbackClient before = bench.Connect();
    {
        const NoDescriptorsLeft none;
        const FaultPlan noSpare("open", 1, EMFILE, FaultPlan::Repeat::Forever);
        clients[0].Connect(bench.Port());
        EXPECT_TRUE(clients[0].SawEnd(20'000));
    }
    LoopbackClient inGoodTimes = bench.Connect();
    EXPECT_TRUE(Echoes(inGoodTimes));

    const NoDescriptorsLeft none;
    clients[1].Connect(bench.Port());

    EXPECT_TRUE(clients[1].SawEnd(20'000)) << "refused, not left waiting";
}

TEST(CQDTcpServer, OtherShortagesAtAcceptNeitherSpinNorFlood)
{
    struct Case
    {
        int m_Error;
        const char* m_pText;
    };

    const Case cases[] = {{ENFILE, "accept() failed. Error 23: Too many open files in system"},
                          {ENOBUFS, "accept() failed. Error 105: No buffer space available"},
                          {ENOMEM, "accept() failed. Error 12: Cannot allocate memory"}};
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_pText);
        RecordingLog log;
        ServerBench bench(log);
        bench.Start();
        LoopbackClient before = bench.Connect();
        log.Clear();
        std::unique_ptr<LoopbackClient> waiting;
        {
            const FaultPlan fault("accept4", 1, testCase.m_Error, FaultPlan::Repeat::Forever);
            const CpuMeter meter;
            waiting = std::make_unique<LoopbackClient>(bench.Port());
            EXPECT_TRUE(meter.WaitUntilElapsed(500ms));
            EXPECT_LT(fault.GetCallCount(), 50);
            EXPECT_TRUE(Echoes(before));
        }

        EXPECT_TRUE(Echoes(*waiting));
        EXPECT_EQ(log.Count(bench.Line(testCase.m_pText)), 1u);
    }
}

TEST(CQDTcpServer, StopComesThroughWhileDescriptorsAreShort)
{
    COutputLogNull log;
    ServerBench bench(log);
    bench.Start();
    const FaultPlan fault("accept4", 1, EMFILE, FaultPlan::Repeat::Forever);
    LoopbackClient client(bench.Port());
    ASSERT_TRUE(WaitUntil([&] { return fault.GetCallCount() >= 4; }));

    bench.Server().StopTcpServer();

    EXPECT_TRUE(client.SawReset()) << "closed with the listening socket";
}

TEST(CQDTcpServer, EveryDescriptorIsCloseOnExec)
{
    std::set<int> inherited;
    for (const int fd : GetOpenDescriptors()) {
        if ((::fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0)
            inherited.insert(fd);
    }
    COutputLogNull log;
    ServerBench bench(log, 1, true);
    const std::size_t before = GetOpenDescriptors().size();
    bench.Start();
    LoopbackClient first = bench.Connect(AF_INET);
    LoopbackClient second = bench.Connect(AF_INET6);
    ASSERT_EQ(GetOpenDescriptors().size(), before + 13)
        << "two listening sockets, a spare, three pipes, two accepted sockets and two clients";

    ::setenv(kExpectedDescriptors, Describe(inherited).c_str(), 1);
    char program[] = "/proc/self/exe";
    char* arguments[] = {program, nullptr};
    pid_t child = 0;
    const int error = ::posix_spawn(&child, program, nullptr, nullptr, arguments, environ);
    ::unsetenv(kExpectedDescriptors);

    ASSERT_EQ(error, 0);
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}
