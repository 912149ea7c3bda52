#include <QDPlatform/QDUdpServer.h>

#include <QDPlatform/COutputLog.h>

#include "AllocationCounter.h"
#include "ChildProcess.h"
#include "FaultPlan.h"
#include "RecordingLog.h"
#include "TakenDescriptors.h"
#include "TestThread.h"
#include "UdpClient.h"
#include "VirtualSlot.h"
#include "WaitUntil.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace
{

using testing::ElementsAre;

constexpr unsigned int kLargestDatagram = 65507; // 65535 less the headers of IP and UDP

struct Datagram
{
    int m_Socket;
    sockaddr_in m_From;
    unsigned int m_FromLength;
    const unsigned char* m_pData;
    std::string m_Data;
    std::thread::id m_Thread;
};

// Keeps what it receives and sends it back. On a port that the system chooses, unless the test does.
class EchoServer : public CQDUdpServer
{
public:
    using CQDUdpServer::CreateSockets;
    using CQDUdpServer::GetNextSocketThreadTimeout;
    using CQDUdpServer::m_SocketCount;
    using CQDUdpServer::m_Sockets;
    using CQDUdpServer::OnSocketEvent;
    using CQDUdpServer::OnSocketThreadEvent;
    using CQDUdpServer::OnSocketThreadExit;
    using CQDUdpServer::OnSocketThreadStart;
    using CQDUdpServer::OnSocketThreadStopped;
    using CQDUdpServer::OnSocketThreadTimeout;

    explicit EchoServer(COutputLog* log, unsigned int bufferSize = 512, unsigned short port = 0) :
        CQDUdpServer(log, port, bufferSize)
    {}

    EchoServer(const EchoServer&) = delete;
    EchoServer& operator=(const EchoServer&) = delete;

    ~EchoServer() override
    {
        StopSocketThread();
        CloseSockets(); // of a test that starts no thread
    }

    // Of the running server.
    unsigned short GetBoundPort() const { return ntohs(GetBoundAddress(m_Sockets[0]).sin_port); }

    std::vector<Datagram> GetDatagrams() const
    {
        const std::lock_guard lock(m_Mutex);
        return m_Datagrams;
    }

    std::vector<std::string> GetTexts() const
    {
        std::vector<std::string> texts;
        for (const Datagram& datagram : GetDatagrams())
            texts.push_back(datagram.m_Data);
        return texts;
    }

    bool WaitForDatagrams(std::size_t count) const
    {
        return WaitUntil([&] { return GetDatagrams().size() >= count; });
    }

    void OnDatagramReceived(int socket, const sockaddr* from, unsigned int fromLength, const unsigned char* data,
                            unsigned int length) override
    {
        Datagram datagram{socket,
                          {},
                          fromLength,
                          data,
                          std::string(reinterpret_cast<const char*>(data), length),
                          std::this_thread::get_id()};
        std::memcpy(&datagram.m_From, from, sizeof datagram.m_From);
        {
            const std::lock_guard lock(m_Mutex);
            m_Datagrams.push_back(datagram);
        }
        ::sendto(socket, data, length, 0, from, fromLength); // last: who has the answer finds the datagram kept
    }

private:
    mutable std::mutex m_Mutex;
    std::vector<Datagram> m_Datagrams; // m_Mutex
};

// A server with nothing but what it must have. Counts.
class BareServer : public CQDUdpServer
{
public:
    using CQDUdpServer::m_Sockets;

    explicit BareServer(COutputLog* log) : CQDUdpServer(log, 0, 512) {}

    BareServer(const BareServer&) = delete;
    BareServer& operator=(const BareServer&) = delete;

    ~BareServer() override { StopSocketThread(); }

    unsigned short GetBoundPort() const { return ntohs(GetBoundAddress(m_Sockets[0]).sin_port); }

    void OnDatagramReceived(int, const sockaddr*, unsigned int, const unsigned char*, unsigned int) override
    {
        m_Calls.fetch_add(1);
    }

    std::atomic<unsigned int> m_Calls{0};
};

int GetSocketOption(int socket, int option)
{
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(::getsockopt(socket, SOL_SOCKET, option, &value, &length), 0);
    return value;
}

} // namespace

TEST(CQDUdpServer, VirtualOperationsStandInTheirOrder)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<CQDUdpServer>); // takes the positions 0 and 1
    EXPECT_EQ(VirtualSlot(&EchoServer::CreateSockets), 2);
    EXPECT_EQ(VirtualSlot(&EchoServer::OnSocketThreadStart), 3);
    EXPECT_EQ(VirtualSlot(&EchoServer::GetNextSocketThreadTimeout), 4);
    EXPECT_EQ(VirtualSlot(&EchoServer::OnSocketThreadTimeout), 5);
    EXPECT_EQ(VirtualSlot(&EchoServer::OnSocketThreadEvent), 6);
    EXPECT_EQ(VirtualSlot(&EchoServer::OnSocketEvent), 7);
    EXPECT_EQ(VirtualSlot(&EchoServer::OnSocketThreadExit), 8);
    EXPECT_EQ(VirtualSlot(&EchoServer::OnSocketThreadStopped), 9);
    EXPECT_EQ(VirtualSlot(&EchoServer::OnDatagramReceived), 10);
}

TEST(CQDUdpServer, OtherOperationsAreThoseOfTheSocketThread)
{
    EXPECT_TRUE((std::is_same_v<decltype(&EchoServer::OnSocketThreadStart), void (CQDSocketThread::*)()>));
    EXPECT_TRUE(
        (std::is_same_v<decltype(&EchoServer::GetNextSocketThreadTimeout), long long (CQDSocketThread::*)(long long)>));
    EXPECT_TRUE((std::is_same_v<decltype(&EchoServer::OnSocketThreadTimeout), void (CQDSocketThread::*)()>));
    EXPECT_TRUE((std::is_same_v<decltype(&EchoServer::OnSocketThreadEvent), void (CQDSocketThread::*)(int)>));
    EXPECT_TRUE((std::is_same_v<decltype(&EchoServer::OnSocketThreadExit), void (CQDSocketThread::*)()>));
    EXPECT_TRUE((std::is_same_v<decltype(&EchoServer::OnSocketThreadStopped), void (CQDSocketThread::*)()>));
}

TEST(CQDUdpServer, OnlyTheDatagramsAreForTheDerivedClass)
{
    EXPECT_TRUE(std::is_abstract_v<CQDUdpServer>);
    EXPECT_FALSE(std::is_abstract_v<BareServer>);
    EXPECT_TRUE((std::is_base_of_v<CQDSocketThread, CQDUdpServer>));
}

TEST(CQDUdpServer, NewServerDoesNotRunAndHasNoSocket)
{
    RecordingLog log;

    EchoServer server(&log);

    EXPECT_FALSE(server.IsSocketServerRunning());
    EXPECT_EQ(server.m_SocketCount, 0);
    EXPECT_THAT(log.GetTexts(), ElementsAre());
}

TEST(CQDUdpServer, PortIsTheOneGivenAndInThePrefix)
{
    const struct
    {
        unsigned short m_Port;
        const char* m_Line;
    } cases[] = {
        {0, "UdpSvr@0: one 1"},
        {161, "UdpSvr@161: one 1"},
        {65535, "UdpSvr@65535: one 1"},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Line);
        RecordingLog log;
        EchoServer server(&log, 512, c.m_Port);

        server.PrintLog("%s %d", "one", 1);

        EXPECT_EQ(server.GetPort(), c.m_Port);
        EXPECT_THAT(log.GetMessages(), ElementsAre(RecordingLog::Message{COutputLog::Info, 0, c.m_Line}));
    }
}

TEST(CQDUdpServer, WholeLifePrintsTheStepsOfTheSocketThreadOnly)
{
    RecordingLog log;
    EchoServer server(&log);

    ASSERT_TRUE(server.StartSocketThread());
    const UdpClient client(server.GetBoundPort());
    client.Send("ping");
    EXPECT_EQ(client.Receive(), "ping");
    server.StopSocketThread();

    EXPECT_THAT(log.GetTexts(),
                ElementsAre("UdpSvr@0: Starting thread...", "UdpSvr@0: Listen thread started",
                            "UdpSvr@0: Stopping thread...", "UdpSvr@0: Sending shutdown command",
                            "UdpSvr@0: Listen thread has received an exit request", "UdpSvr@0: Listen thread exiting",
                            "UdpSvr@0: Delete stopped TCP Server..."));
}

TEST(CQDUdpServer, SocketIsAnIPv4DatagramSocketOnAllAddresses)
{
    RecordingLog log;
    EchoServer server(&log);

    ASSERT_TRUE(server.StartSocketThread());

    EXPECT_EQ(server.m_SocketCount, 1);
    EXPECT_EQ(GetSocketOption(server.m_Sockets[0], SO_DOMAIN), AF_INET);
    EXPECT_EQ(GetSocketOption(server.m_Sockets[0], SO_TYPE), SOCK_DGRAM);
    EXPECT_EQ(GetSocketOption(server.m_Sockets[0], SO_PROTOCOL), IPPROTO_UDP);
    EXPECT_EQ(GetSocketOption(server.m_Sockets[0], SO_REUSEADDR), 0); // else two servers could share the port
    EXPECT_EQ(GetBoundAddress(server.m_Sockets[0]).sin_addr.s_addr, htonl(INADDR_ANY));
}

TEST(CQDUdpServer, SocketIsNonBlockingAndNotForChildren)
{
    RecordingLog log;
    EchoServer server(&log);

    ASSERT_TRUE(server.StartSocketThread());

    EXPECT_NE(::fcntl(server.m_Sockets[0], F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(::fcntl(server.m_Sockets[0], F_GETFD) & FD_CLOEXEC, 0);
}

TEST(CQDUdpServer, DatagramComesWithItsSocketAndSender)
{
    RecordingLog log;
    EchoServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    const UdpClient client(server.GetBoundPort());

    client.Send("hello");

    ASSERT_TRUE(server.WaitForDatagrams(1));
    const Datagram datagram = server.GetDatagrams()[0];
    EXPECT_EQ(datagram.m_Data, "hello");
    EXPECT_EQ(datagram.m_Socket, server.m_Sockets[0]);
    EXPECT_EQ(datagram.m_FromLength, 16u);
    EXPECT_EQ(datagram.m_From.sin_family, AF_INET);
    EXPECT_EQ(datagram.m_From.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(ntohs(datagram.m_From.sin_port), client.GetLocalPort());
}

TEST(CQDUdpServer, DatagramsAreHandedOverOnTheSocketThread)
{
    RecordingLog log;
    EchoServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    const UdpClient client(server.GetBoundPort());

    client.Send("one");
    client.Send("two");

    ASSERT_TRUE(server.WaitForDatagrams(2));
    const std::vector<Datagram> datagrams = server.GetDatagrams();
    EXPECT_NE(datagrams[0].m_Thread, std::this_thread::get_id());
    EXPECT_EQ(datagrams[0].m_Thread, datagrams[1].m_Thread);
    EXPECT_EQ(datagrams[0].m_pData, datagrams[1].m_pData); // one buffer
}

TEST(CQDUdpServer, DatagramIsCutAtTheBufferSize)
{
    const struct
    {
        const char* m_Name;
        unsigned int m_BufferSize;
        unsigned int m_Sent;
        unsigned int m_Received;
    } cases[] = {
        {"empty", 512, 0, 0},
        {"one byte", 512, 1, 1},
        {"fits", 512, 512, 512},
        {"one too many", 512, 513, 512},
        {"600 into 512", 512, 600, 512},
        {"buffer of one", 1, 100, 1},
        {"empty into one", 1, 0, 0},
        {"no buffer", 0, 100, 0},
        {"empty into none", 0, 0, 0},
        {"the largest", kLargestDatagram, kLargestDatagram, kLargestDatagram},
        {"the largest into one less", kLargestDatagram - 1, kLargestDatagram, kLargestDatagram - 1},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Name);
        std::string data;
        for (unsigned int i = 0; i < c.m_Sent; ++i)
            data += static_cast<char>(i * 7 % 251);
        RecordingLog log;
        EchoServer server(&log, c.m_BufferSize);
        ASSERT_TRUE(server.StartSocketThread());
        const UdpClient client(server.GetBoundPort());

        ASSERT_TRUE(client.Send(data));

        ASSERT_TRUE(server.WaitForDatagrams(1));
        EXPECT_EQ(server.GetTexts()[0].size(), c.m_Received);
        EXPECT_TRUE(server.GetTexts()[0] == data.substr(0, c.m_Received));
        EXPECT_NE(server.GetDatagrams()[0].m_pData, nullptr);
    }
}

TEST(CQDUdpServer, RestOfACutDatagramIsNotTheNextOne)
{
    RecordingLog log;
    EchoServer server(&log, 4);
    ASSERT_TRUE(server.StartSocketThread());
    const UdpClient client(server.GetBoundPort());

    client.Send("first and its rest");
    client.Send("");
    client.Send("2nd");

    ASSERT_TRUE(server.WaitForDatagrams(3));
    EXPECT_THAT(server.GetTexts(), ElementsAre("firs", "", "2nd"));
}

TEST(CQDUdpServer, AnswerComesFromTheServersPort)
{
    RecordingLog log;
    EchoServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    const UdpClient client(server.GetBoundPort()); // takes nothing from other ports

    client.Send("ping");

    EXPECT_EQ(client.Receive(), "ping");
}

TEST(CQDUdpServer, EveryLocalAddressIsServed)
{
    RecordingLog log;
    EchoServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    const UdpClient client(server.GetBoundPort(), 0x7F010203); // 127.1.2.3

    client.Send("ping");

    ASSERT_TRUE(server.WaitForDatagrams(1));
    EXPECT_EQ(server.GetTexts()[0], "ping");
}

TEST(CQDUdpServer, ManyClientsGetTheirOwnAnswers)
{
    constexpr int kClients = 50;
    constexpr int kRounds = 10;
    RecordingLog log;
    EchoServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    std::vector<std::unique_ptr<UdpClient>> clients;
    for (int i = 0; i < kClients; ++i)
        clients.push_back(std::make_unique<UdpClient>(server.GetBoundPort()));

    for (int round = 0; round < kRounds; ++round) {
        for (int i = 0; i < kClients; ++i)
            clients[static_cast<std::size_t>(i)]->Send(std::to_string(100 * round + i));
        for (int i = 0; i < kClients; ++i)
            ASSERT_EQ(clients[static_cast<std::size_t>(i)]->Receive(), std::to_string(100 * round + i));
    }

    EXPECT_EQ(server.GetDatagrams().size(), static_cast<std::size_t>(kClients * kRounds));
}

TEST(CQDUdpServer, ClientThatHasLeftDoesNotTroubleTheOthers)
{
    RecordingLog log;
    EchoServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    const UdpClient client(server.GetBoundPort()); // before the others, or it could get the port of one that has left
    for (int i = 0; i < 5; ++i) {
        const UdpClient leaving(server.GetBoundPort());
        leaving.Send("no answer, please");
    }

    client.Send("ping");

    EXPECT_EQ(client.Receive(), "ping");
    EXPECT_EQ(log.CountContaining("failed"), 0u);
}

TEST(CQDUdpServer, OtherProgramsReachIt)
{
    const struct
    {
        const char* m_Name;
        std::vector<std::string> m_Command; // PORT stands for the port; prints the answer to "ping" on standard error
    } cases[] = {
        {"bash",
         {"env", "LC_ALL=C", "bash", "-c", "exec 3<>/dev/udp/127.0.0.1/PORT; printf ping >&3; head -c 4 <&3 >&2"}},
        {"socat",
         {"env", "LC_ALL=C", "socat", "-t", "0.1", "UDP4:127.0.0.1:PORT", "SYSTEM:printf ping; head -c 4 >&2"}},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Name);
        RecordingLog log;
        EchoServer server(&log);
        ASSERT_TRUE(server.StartSocketThread());
        std::vector<std::string> command = c.m_Command;
        for (std::string& argument : command) {
            if (const std::size_t place = argument.find("PORT"); place != std::string::npos)
                argument.replace(place, 4, std::to_string(server.GetBoundPort()));
        }

        ChildProcess program(command);

        ASSERT_EQ(program.WaitForExit(), 0) << "scripts/install-packages installs the program. " << program.GetErrors();
        EXPECT_EQ(program.GetErrors(), "ping");
        EXPECT_THAT(server.GetTexts(), ElementsAre("ping"));
    }
}

TEST(CQDUdpServer, SecondServerOnThePortFailsToStart)
{
    RecordingLog log;
    RecordingLog secondLog;
    EchoServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    const unsigned short port = server.GetBoundPort();
    const std::string prefix = "UdpSvr@" + std::to_string(port);
    EchoServer second(&secondLog, 512, port);

    EXPECT_FALSE(second.StartSocketThread());

    EXPECT_FALSE(second.IsSocketServerRunning());
    EXPECT_THAT(secondLog.GetTexts(), ElementsAre(prefix + ": Starting thread...",
                                                  prefix + ": bind() failed. Error 98: Address already in use"));
    const UdpClient client(port);
    client.Send("ping");
    EXPECT_EQ(client.Receive(), "ping"); // the first goes on
}

TEST(CQDUdpServer, FailedStartIsPrintedAndLeavesNothing)
{
    const struct
    {
        const char* m_Function;
        int m_Error;
        const char* m_Line;
    } cases[] = {
        {"socket", EMFILE, "UdpSvr@0: socket() failed. Error 24: Too many open files"},
        {"bind", EACCES, "UdpSvr@0: bind() failed. Error 13: Permission denied"},
        {"pthread_create", EAGAIN, "UdpSvr@0: pthread_create() failed. Error 11: Resource temporarily unavailable"},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Function);
        RecordingLog log;
        EchoServer server(&log);
        const std::set<int> before = GetOpenDescriptors();
        {
            const FaultPlan plan(c.m_Function, 1, c.m_Error);
            EXPECT_FALSE(server.StartSocketThread());
        }

        EXPECT_THAT(log.GetTexts(), ElementsAre("UdpSvr@0: Starting thread...", c.m_Line));
        EXPECT_EQ(server.m_SocketCount, 0);
        EXPECT_EQ(GetOpenDescriptors(), before);
        EXPECT_TRUE(server.StartSocketThread()); // and nothing stands in the way of the next try
    }
}

TEST(CQDUdpServer, SocketThatCannotBeMadeNonBlockingIsKept)
{
    RecordingLog log;
    EchoServer server(&log);
    {
        const FaultPlan plan("ioctl", 1, EPERM);
        ASSERT_TRUE(server.StartSocketThread());
        EXPECT_EQ(plan.GetCallCount(), 1);
    }
    const UdpClient client(server.GetBoundPort());

    client.Send("ping");

    EXPECT_EQ(client.Receive(), "ping");
    EXPECT_TRUE(log.Has("UdpSvr@0: ioctl() failed. Error 1: Operation not permitted"));
    EXPECT_EQ(::fcntl(server.m_Sockets[0], F_GETFL) & O_NONBLOCK, 0);
}

TEST(CQDUdpServer, SocketBeyondTheDescriptorSetIsRefused)
{
    RecordingLog log;
    EchoServer server(&log);
    {
        const TakenDescriptors taken;
        EXPECT_FALSE(server.StartSocketThread());
    }

    EXPECT_THAT(log.GetTexts(), ElementsAre("UdpSvr@0: Starting thread...",
                                            "UdpSvr@0: socket() failed. Error 24: Too many open files"));
    EXPECT_TRUE(server.StartSocketThread());
}

TEST(CQDUdpServer, FailureToReceiveIsDroppedSilently)
{
    RecordingLog log;
    EchoServer server(&log);
    ASSERT_TRUE(server.CreateSockets());

    server.OnSocketEvent(server.m_Sockets[0]); // EAGAIN: nothing has come
    server.OnSocketEvent(-1);                  // EBADF

    EXPECT_TRUE(server.GetDatagrams().empty());
    EXPECT_THAT(log.GetTexts(), ElementsAre());
}

TEST(CQDUdpServer, OneReadinessIsOneDatagram)
{
    RecordingLog log;
    EchoServer server(&log);
    ASSERT_TRUE(server.CreateSockets());
    const UdpClient client(server.GetBoundPort());
    client.Send("one");
    client.Send("two");

    server.OnSocketEvent(server.m_Sockets[0]);

    EXPECT_THAT(server.GetTexts(), ElementsAre("one"));
}

TEST(CQDUdpServer, ServerCanBeStartedAgainAfterItsStop)
{
    RecordingLog log;
    EchoServer server(&log);
    for (const char* text : {"first run", "second run", "third run"}) {
        SCOPED_TRACE(text);
        ASSERT_TRUE(server.StartSocketThread());
        const UdpClient client(server.GetBoundPort());

        client.Send(text);

        EXPECT_EQ(client.Receive(), text);
        server.StopSocketThread();
    }
}

TEST(CQDUdpServer, StoppedServerHasGivenUpItsPort)
{
    RecordingLog log;
    EchoServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    const UdpClient client(server.GetBoundPort());

    server.StopSocketThread();

    client.Send("anybody there?");
    const bool sent = client.Send("the kernel has told that nobody is");
    const int error = errno;
    EXPECT_FALSE(sent);
    EXPECT_EQ(error, ECONNREFUSED);
    EXPECT_TRUE(server.GetDatagrams().empty());
}

TEST(CQDUdpServer, StopBeforeTheStartAndTwiceIsSafe)
{
    RecordingLog log;
    EchoServer server(&log);

    server.StopSocketThread();
    EXPECT_TRUE(server.StartSocketThread());
    server.StopSocketThread();
    server.StopSocketThread();

    EXPECT_FALSE(server.IsSocketServerRunning());
}

TEST(CQDUdpServer, ServerThatIsFloodedStops)
{
    RecordingLog log;
    BareServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    std::atomic<bool> enough{false};
    const unsigned short port = server.GetBoundPort();
    TestThread flood([&] {
        const UdpClient client(port);
        while (!enough.load())
            client.Send("flood"); // refused once the server has gone
    });
    EXPECT_TRUE(WaitUntil([&] { return server.m_Calls.load() > 1000; }));

    server.StopSocketThread();

    EXPECT_FALSE(server.IsSocketServerRunning());
    enough.store(true);
    flood.Join();
}

TEST(CQDUdpServer, FloodedServerHearsItsEvents)
{
    RecordingLog log;
    BareServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    std::atomic<bool> enough{false};
    const unsigned short port = server.GetBoundPort();
    TestThread flood([&] {
        const UdpClient client(port);
        while (!enough.load())
            client.Send("flood");
    });
    EXPECT_TRUE(WaitUntil([&] { return server.m_Calls.load() > 1000; }));

    server.TriggerServerEvent(7);

    EXPECT_TRUE(WaitUntil([&] { return log.Has("UdpSvr@0: Thread Rx invalid command 7"); }));
    enough.store(true);
    flood.Join();
}

TEST(CQDUdpServer, DatagramsAllocateNothing)
{
    BareServer server(nullptr);
    ASSERT_TRUE(server.StartSocketThread());
    const UdpClient client(server.GetBoundPort());
    const std::string data(500, 'x');
    client.Send(data);
    ASSERT_TRUE(WaitUntil([&] { return server.m_Calls.load() == 1; }));
    const AllocationCounter allocations;

    for (int i = 0; i < 100; ++i)
        client.Send(data);

    ASSERT_TRUE(WaitUntil([&] { return server.m_Calls.load() == 101; }));
    EXPECT_EQ(allocations.GetCount(), 0u);
}

TEST(CQDUdpServer, BufferIsAllocatedInTheConstructor)
{
    const AllocationLimit limit(100000);

    EXPECT_NO_THROW(EchoServer(nullptr, 100000));
    EXPECT_THROW(EchoServer(nullptr, 100001), std::bad_alloc);
}

TEST(CQDUdpServer, ServerWithoutALogWorks)
{
    EchoServer server(nullptr);
    ASSERT_TRUE(server.StartSocketThread());
    const UdpClient client(server.GetBoundPort());

    client.Send("ping");
    server.PrintData("Rx", 4, reinterpret_cast<const unsigned char*>("ping"));

    EXPECT_EQ(client.Receive(), "ping");
}

TEST(CQDUdpServer, DataIsPrintedBehindPrefixAndTitle)
{
    const std::string data = "0123456789ABCDEF\xFF";

    const struct
    {
        unsigned int m_Length;
        std::vector<std::string> m_Lines;
    } cases[] = {
        {0, {"UdpSvr@161: Rx  0 bytes:" + std::string(50, ' ')}},
        {2, {"UdpSvr@161: Rx  2 bytes: 30 31" + std::string(44, ' ') + "01"}},
        {17,
         {"UdpSvr@161: Rx 17 bytes", "0000  30 31 32 33 34 35 36 37  38 39 41 42 43 44 45 46 0123456789ABCDEF",
          "0010  FF                                               ."}},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Length);
        RecordingLog log;
        EchoServer server(&log, 512, 161);

        server.PrintData("Rx", c.m_Length, reinterpret_cast<const unsigned char*>(data.data()));

        EXPECT_EQ(log.GetTexts(), c.m_Lines);
    }
}

TEST(CQDUdpServer, DataMayBeNullWhenThereIsNone)
{
    RecordingLog log;
    EchoServer server(&log, 512, 161);

    server.PrintData("Rx", 0, nullptr);

    EXPECT_EQ(log.CountContaining("UdpSvr@161: Rx  0 bytes:"), 1u);
}

TEST(CQDUdpServer, LongTitleOfDataIsSafe)
{
    const unsigned char data[17]{};
    RecordingLog log;
    EchoServer server(&log, 512, 161);

    server.PrintData(std::string(500, 't').c_str(), sizeof data, data);

    ASSERT_EQ(log.GetTexts().size(), 3u);
    EXPECT_EQ(log.GetTexts()[0], "UdpSvr@161: " + std::string(240, 't') + "...");
}
