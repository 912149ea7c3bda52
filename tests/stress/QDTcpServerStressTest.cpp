#include <QDPlatform/QDTcpServer.h>

#include "LoopbackClient.h"
#include "TestServer.h"
#include "TestThread.h"
#include "WaitUntil.h"

#include <QDPlatform/COutputLogNull.h>
#include <QDPlatform/QDTimestamp.h>

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace
{

constexpr int kClientThreads = 4;
constexpr int kClientsPerThread = 50;
constexpr int kLinks = kClientThreads * kClientsPerThread;
constexpr unsigned int kLinksPerWorker = 40;
constexpr int kActionsPerClient = 12;
constexpr int kConnectionsPerClient = 6; // workers are made as links come and stay until the end
constexpr std::size_t kSlowReaderBytes = 48 * 1024;
constexpr auto kLimit = 8s;

// A client that takes the server's ending of the connection for granted: messages close links here, and the server
// stops in the middle. Only wrong bytes and silence are failures.
class StressClient
{
public:
    StressClient() = default;
    StressClient(const StressClient&) = delete;
    StressClient& operator=(const StressClient&) = delete;

    ~StressClient() { Close(); }

    bool IsConnected() const { return m_Socket >= 0; }

    void Connect(unsigned short port)
    {
        ++m_Connections;
        m_Socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const timeval limit{20, 0};
        const int small = 4096;
        ::setsockopt(m_Socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        ::setsockopt(m_Socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        ::setsockopt(m_Socket, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(m_Socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            Close();
    }

    int GetConnections() const { return m_Connections; }

    bool IsSilent() const { return m_Silent; }

    bool HasWrongBytes() const { return m_WrongBytes; }

    void Send(const std::string& data)
    {
        std::size_t sent = 0;
        while (IsConnected() && sent < data.size()) {
            const ssize_t count = ::send(m_Socket, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
            if (count > 0)
                sent += static_cast<std::size_t>(count);
            else
                End(count);
        }
        if (IsConnected())
            m_Expected += data;
    }

    // Reads what was sent, in pieces of at most `piece` bytes.
    void ReadEcho(std::size_t piece)
    {
        std::string data(piece, '\0');
        while (IsConnected() && !m_Expected.empty()) {
            const ssize_t count = ::recv(m_Socket, data.data(), std::min(piece, m_Expected.size()), 0);
            if (count <= 0) {
                End(count);
                return;
            }
            const auto length = static_cast<std::size_t>(count);
            m_WrongBytes = m_WrongBytes || m_Expected.compare(0, length, data, 0, length) != 0;
            m_Expected.erase(0, length);
        }
    }

    // Ends this direction only and waits for the other.
    void EndHalf()
    {
        ::shutdown(m_Socket, SHUT_WR);
        char byte = 0;
        const ssize_t count = ::recv(m_Socket, &byte, 1, 0);
        m_WrongBytes = m_WrongBytes || count > 0;
        End(count);
    }

    void Reset()
    {
        const linger hard{1, 0};
        ::setsockopt(m_Socket, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        Close();
    }

    void Close()
    {
        if (m_Socket >= 0)
            ::close(std::exchange(m_Socket, -1));
        m_Expected.clear();
    }

private:
    // After a call without success: the server has ended the connection, unless the call's time ran out.
    void End(ssize_t result)
    {
        m_Silent = m_Silent || (result < 0 && errno == EAGAIN);
        Close();
    }

    int m_Socket{-1};
    int m_Connections{0};
    bool m_Silent{false};
    bool m_WrongBytes{false};
    std::string m_Expected; // sent and not yet come back
};

void ActAtRandom(StressClient& client, unsigned short port, std::mt19937& random)
{
    if (!client.IsConnected()) {
        if (client.GetConnections() < kConnectionsPerClient)
            client.Connect(port);
        return;
    }
    switch (random() % 8) {
    case 0: client.EndHalf(); break;
    case 1: client.Reset(); break;
    case 2:
        client.Send("left unread");
        client.Close();
        break;
    case 3: // slow reader
        client.Send(std::string(kSlowReaderBytes, static_cast<char>('a' + random() % 26)));
        client.ReadEcho(1000);
        break;
    case 4: // pipelining
        for (int i = 0; i < 20; ++i)
            client.Send("request " + std::to_string(random()));
        client.ReadEcho(4096);
        break;
    case 5: break; // idle
    default:
        client.Send("ping " + std::to_string(random()));
        client.ReadEcho(4096);
        break;
    }
}

unsigned int TakeSeed()
{
    const char* wanted = std::getenv("QD_STRESS_SEED");
    const unsigned int seed =
        wanted != nullptr ? static_cast<unsigned int>(std::strtoul(wanted, nullptr, 10)) : std::random_device()();
    std::printf("QD_STRESS_SEED=%u\n", seed);
    return seed;
}

CQDTimestamp InMilliseconds(long long milliseconds)
{
    CQDTimestamp time = CQDTimestamp::UTCNow();
    time.AddMilliseonds(milliseconds);
    return time;
}

} // namespace

TEST(CQDTcpServerStress, TwoHundredLinksUnderFireAndThenAStop)
{
    const unsigned int seed = TakeSeed();
    COutputLogNull log;
    const ReservedPort port;
    MessageTally posted;
    MessageTally broadcast;
    std::atomic<int> refused{0};
    std::atomic<int> protocolErrors{0};
    std::atomic<int> wrongLinks{0};
    std::atomic<unsigned int> listed{0};
    std::atomic<bool> stop{false};
    std::atomic<int> clientThreadsBusy{kClientThreads};
    TestServer server(&log, port.Get(), kLinksPerWorker);
    server.SetLinkLogging(TcpServerLinkLoggingReferences);
    server.m_Links.m_OnConnect = [](TestLink& link) {
        const int small = 4096;
        ::setsockopt(link.GetSocket(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
        link.SetTimeout(InMilliseconds(20));
        return LinkCallbackSuccess;
    };
    server.m_Links.m_OnTimeout = [](TestLink& link, const CQDTimestamp&) {
        link.SetTimeout(InMilliseconds(20));
        return LinkCallbackSuccess;
    };
    server.m_Links.m_OnMessage = [&](TestLink& link, CountedMessage& message) {
        if (message.GetLinkId() != link.GetLinkId())
            ++wrongLinks;
        switch (message.GetNumber()) {
        case 1: return LinkCallbackCloseSocket;
        case 2: ++protocolErrors; return LinkCallbackProtocolError;
        case 3: link.CloseSocket(true); return LinkCallbackSuccess;
        default: return LinkCallbackSuccess;
        }
    };
    ASSERT_TRUE(server.StartTcpServer());
    std::vector<StressClient> clients(kLinks);
    for (StressClient& client : clients)
        client.Connect(port.Get());
    ASSERT_TRUE(WaitUntil([&] { return server.GetLinkCount() == 200u && server.m_Links.m_TimeoutCalls.load() > 0; }));

    std::vector<std::unique_ptr<TestThread>> threads;
    for (int i = 0; i < kClientThreads; ++i) {
        threads.push_back(std::make_unique<TestThread>([&, i] {
            std::mt19937 random(seed + static_cast<unsigned int>(i));
            for (int action = 0; action < kActionsPerClient * kClientsPerThread && !stop.load(); ++action) {
                const auto slot = static_cast<std::size_t>(i * kClientsPerThread) + random() % kClientsPerThread;
                ActAtRandom(clients[slot], port.Get(), random);
            }
            --clientThreadsBusy;
        }));
    }
    for (unsigned int i = 0; i < 2; ++i) {
        threads.push_back(std::make_unique<TestThread>([&, i] {
            std::mt19937 random(seed + 100 + i);
            while (!stop.load()) {
                const auto linkId =
                    static_cast<unsigned int>(random()) % (static_cast<unsigned int>(server.m_Assigned.load()) + 10u);
                const int number = random() % 50 == 0 ? static_cast<int>(random() % 4) : 0;
                if (!server.PostLinkMessage(new CountedMessage(linkId, posted, number)))
                    ++refused;
            }
        }));
    }
    threads.push_back(std::make_unique<TestThread>([&] {
        while (!stop.load()) {
            CountedMessage message(0, broadcast);
            server.BroadcastLinkMessage(&message);
        }
    }));
    threads.push_back(std::make_unique<TestThread>([&] {
        while (!stop.load()) {
            std::list<CQDTcpServerLink*> links;
            server.GetAllLinks(links);
            unsigned int lastId = 0;
            for (CQDTcpServerLink* link : links) {
                const bool isRight = link->GetLinkId() > lastId && link->GetPeerAddress() == "127.0.0.1" &&
                                     link->GetSocket() >= -1 && link->GetServer() == &server;
                if (!isRight)
                    ++wrongLinks;
                lastId = link->GetLinkId();
                link->Release();
                ++listed;
            }
        }
    }));
    const auto deadline = std::chrono::steady_clock::now() + kLimit;
    EXPECT_TRUE(
        WaitUntil([&] { return clientThreadsBusy.load() <= 1 || std::chrono::steady_clock::now() > deadline; }));
    server.StopTcpServer();
    stop.store(true);
    threads.clear();

    for (const StressClient& client : clients) {
        EXPECT_FALSE(client.HasWrongBytes());
        EXPECT_FALSE(client.IsSilent());
    }
    EXPECT_EQ(posted.m_Deleted.load(), posted.m_Made.load());
    EXPECT_LE(posted.m_Delivered.load() + refused.load(), posted.m_Made.load());
    EXPECT_GT(posted.m_Delivered.load(), 0);
    EXPECT_EQ(broadcast.m_Deleted.load(), broadcast.m_Made.load());
    EXPECT_GT(broadcast.m_Delivered.load(), 0);
    EXPECT_EQ(wrongLinks.load(), 0);
    EXPECT_EQ(server.GetProtocolErrorCount(), static_cast<unsigned int>(protocolErrors.load()));
    EXPECT_EQ(server.GetLinkCount(), 0u);
    EXPECT_EQ(server.m_Links.m_LiveLinks.load(), 0);
    EXPECT_EQ(server.m_Links.m_Disconnects.load(), server.m_Links.m_Connects.load());
    EXPECT_EQ(server.m_Assigned.load(), server.m_Links.m_Connects.load());
    EXPECT_GE(server.m_StoppedThreads.load(), 4);
    EXPECT_GT(server.m_Links.m_TxCalls.load(), 0) << "no slow reader made a link wait for room";
    EXPECT_GT(server.m_Links.m_TimeoutCalls.load(), 0);
    EXPECT_GT(listed.load(), 0u);
    std::printf("connections %d, workers %d, posted %d, broadcast %d, listed %u\n", server.m_Links.m_Connects.load(),
                server.m_StoppedThreads.load(), posted.m_Made.load(), broadcast.m_Made.load(), listed.load());
}
