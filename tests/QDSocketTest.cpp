#include <QDPlatform/QDSocket.h>

#include "FaultPlan.h"
#include "LoopbackClient.h"
#include "NextFunction.h"
#include "WaitUntil.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

namespace
{

// What the library handed to getaddrinfo() last. Tests run one at a time.
std::string g_ResolvedHost;
std::string g_ResolvedService;

bool IsOpen(int fd)
{
    return ::fcntl(fd, F_GETFD) != -1;
}

int GetIntOption(int socket, int option)
{
    int value = -1;
    socklen_t size = sizeof value;
    EXPECT_EQ(::getsockopt(socket, SOL_SOCKET, option, &value, &size), 0);
    return value;
}

// A time limit as the kernel's first option for it gives it: in two words, whatever the C library's `timeval` is. The
// later option, of 64-bit times on 32-bit systems, is one that emulators do not read back whole.
struct KernelTimeLimit
{
    long m_Seconds;
    long m_Microseconds;
};

// option: SO_RCVTIMEO_OLD or SO_SNDTIMEO_OLD.
KernelTimeLimit GetTimeLimit(int socket, int option)
{
    KernelTimeLimit limit{-1, -1};
    socklen_t size = sizeof limit;
    EXPECT_EQ(::getsockopt(socket, SOL_SOCKET, option, &limit, &size), 0);
    return limit;
}

QDSocketAddress MakeAddress(int family, const char* host, unsigned short port)
{
    QDSocketAddress address{};
    address.m_Address.sa_family = static_cast<sa_family_t>(family);
    if (family == AF_INET) {
        address.m_IPv4.sin_port = htons(port);
        EXPECT_EQ(::inet_pton(family, host, &address.m_IPv4.sin_addr), 1);
    } else {
        address.m_IPv6.sin6_port = htons(port);
        EXPECT_EQ(::inet_pton(family, host, &address.m_IPv6.sin6_addr), 1);
    }
    return address;
}

// Loopback, in one of the two families.
struct Family
{
    const char* m_Name;
    int m_Family;
    const char* m_Host;
    unsigned int m_AddressLength;
};

constexpr Family kIPv4{"IPv4", AF_INET, "127.0.0.1", 16};
constexpr Family kIPv6{"IPv6", AF_INET6, "::1", 28};
constexpr std::array kFamilies{kIPv4, kIPv6};

// A listening socket on a port of its own, made of plain system calls.
class Listener
{
public:
    explicit Listener(const Family& family)
    {
        m_Socket = ::socket(family.m_Family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        m_Address = MakeAddress(family.m_Family, family.m_Host, 0);
        socklen_t length = family.m_AddressLength;
        if (m_Socket < 0 || ::bind(m_Socket, &m_Address.m_Address, length) != 0 || ::listen(m_Socket, 8) != 0 ||
            ::getsockname(m_Socket, &m_Address.m_Address, &length) != 0) {
            std::perror("Listener");
            std::abort();
        }
        m_AddressLength = length;
    }

    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    ~Listener() { ::close(m_Socket); }

    sockaddr* GetAddress() { return &m_Address.m_Address; }

    unsigned int GetAddressLength() const { return m_AddressLength; }

    unsigned short GetPort() const { return ntohs(m_Address.m_IPv4.sin_port); } // the same place in both families

    int Accept() { return ::accept4(m_Socket, nullptr, nullptr, SOCK_CLOEXEC); }

private:
    int m_Socket{-1};
    QDSocketAddress m_Address{};
    unsigned int m_AddressLength{0};
};

// An accepted connection, owned by the object under test, and its peer.
struct Connection
{
    explicit Connection(const Family& family = kIPv4) :
        m_Listener(family), m_Peer(m_Listener.GetPort(), family.m_Family), m_Socket(m_Listener.Accept())
    {}

    Listener m_Listener;
    LoopbackClient m_Peer;
    QDSocket m_Socket;
};

// Gives the object a last error that nothing else in these tests gives, and leaves its socket alone.
void FailWithProtocolError(QDSocket& socket)
{
    ASSERT_FALSE(socket.CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_UDP));
    ASSERT_EQ(socket.GetLastError(), EPROTONOSUPPORT);
}

bool WaitForEvents(int socket, short events)
{
    pollfd waiting{socket, events, 0};
    return ::poll(&waiting, 1, 20000) == 1;
}

} // namespace

// Stands in front of the C library's function, for the library's calls too.
extern "C" int getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** result)
{
    static const auto next = NextFunction("getaddrinfo", &getaddrinfo);
    g_ResolvedHost = host != nullptr ? host : "(null)";
    g_ResolvedService = service != nullptr ? service : "(null)";
    return next(host, service, hints, result);
}

static_assert(!std::is_copy_constructible_v<QDSocket> && !std::is_copy_assignable_v<QDSocket>);
static_assert(!std::is_polymorphic_v<QDSocket>);
static_assert(sizeof(QDSocket) == 8, "a 32-bit descriptor and a 32-bit error");

TEST(QDSocketAddress, HoldsEveryAddressIn128Bytes)
{
    EXPECT_EQ(sizeof(QDSocketAddress), 128u);
    EXPECT_EQ(sizeof(QDSocketAddress::m_Storage), 128u);
    EXPECT_EQ(offsetof(QDSocketAddress, m_Storage), 0u);
    EXPECT_EQ(offsetof(QDSocketAddress, m_Address), 0u);
    EXPECT_EQ(offsetof(QDSocketAddress, m_IPv4), 0u);
    EXPECT_EQ(offsetof(QDSocketAddress, m_IPv6), 0u);
}

TEST(QDSocket, NewObjectHasNoSocketAndNoError)
{
    const QDSocket socket;

    EXPECT_EQ(socket.GetSocket(), -1);
    EXPECT_EQ(socket.GetLastError(), 0);
}

TEST(QDSocket, AdoptedDescriptorIsOwnedWithNoError)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0);

    {
        const QDSocket socket(fd);

        EXPECT_EQ(socket.GetSocket(), fd);
        EXPECT_EQ(socket.GetLastError(), 0);
        EXPECT_TRUE(IsOpen(fd));
    }

    EXPECT_FALSE(IsOpen(fd));
}

TEST(QDSocket, AdoptedNegativeNumberMeansNone)
{
    const QDSocket socket(-7);

    EXPECT_EQ(socket.GetSocket(), -1);
    EXPECT_EQ(socket.GetLastError(), 0);
}

TEST(QDSocket, DestructorClosesInAnOrderlyWay)
{
    Listener listener(kIPv4);
    LoopbackClient peer(listener.GetPort());
    {
        QDSocket socket(listener.Accept());
        ASSERT_EQ(socket.SendData("bye", 3), 3);
    }

    EXPECT_EQ(peer.Receive(3), "bye");
    EXPECT_TRUE(peer.SawOrderlyClose());
}

TEST(QDSocket, CloseIsOrderlyAndLeavesNoSocket)
{
    Connection connection;
    const int fd = connection.m_Socket.GetSocket();

    connection.m_Socket.CloseSocket();

    EXPECT_EQ(connection.m_Socket.GetSocket(), -1);
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(connection.m_Socket.GetLastError(), 0);
    EXPECT_TRUE(connection.m_Peer.SawOrderlyClose());
}

TEST(QDSocket, HardResetIsSeenAsAResetAndLeavesNoSocket)
{
    for (const Family& family : kFamilies) {
        SCOPED_TRACE(family.m_Name);
        Connection connection(family);
        const int fd = connection.m_Socket.GetSocket();

        connection.m_Socket.HardResetAndCloseSocket();

        EXPECT_EQ(connection.m_Socket.GetSocket(), -1);
        EXPECT_FALSE(IsOpen(fd));
        EXPECT_EQ(connection.m_Socket.GetLastError(), 0);
        EXPECT_TRUE(connection.m_Peer.SawReset());
    }
}

TEST(QDSocket, HardResetThatIsRefusedStillClosesAndKeepsNoError)
{
    Connection connection;
    const int fd = connection.m_Socket.GetSocket();
    {
        const FaultPlan plan("setsockopt", 1, ENOBUFS);

        connection.m_Socket.HardResetAndCloseSocket();

        EXPECT_TRUE(plan.HasFailed());
    }

    EXPECT_EQ(connection.m_Socket.GetSocket(), -1);
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(connection.m_Socket.GetLastError(), 0);
    EXPECT_TRUE(connection.m_Peer.SawOrderlyClose());
}

TEST(QDSocket, ClosingTwiceClosesOnce)
{
    struct Case
    {
        const char* m_Name;
        void (QDSocket::*m_Close)();
    };

    constexpr Case cases[] = {{"CloseSocket", &QDSocket::CloseSocket},
                              {"HardResetAndCloseSocket", &QDSocket::HardResetAndCloseSocket}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);
        QDSocket socket;
        ASSERT_TRUE(socket.CreateSocket(AF_INET, SOCK_STREAM, 0));
        const int fd = socket.GetSocket();
        (socket.*c.m_Close)();
        // Somebody else now gets the number, which a second close would take away.
        ASSERT_EQ(::open("/dev/null", O_RDONLY | O_CLOEXEC), fd);

        (socket.*c.m_Close)();

        EXPECT_TRUE(IsOpen(fd));
        EXPECT_EQ(::close(fd), 0);
    }
}

TEST(QDSocket, CreatePassesDomainTypeAndProtocolOn)
{
    struct Case
    {
        const char* m_Name;
        int m_Domain;
        int m_Type;
        int m_Protocol;
        int m_ExpectedProtocol;
    };

    constexpr Case cases[] = {
        {"TCP over IPv4", AF_INET, SOCK_STREAM, IPPROTO_TCP, IPPROTO_TCP},
        {"TCP over IPv6", AF_INET6, SOCK_STREAM, 0, IPPROTO_TCP},
        {"UDP over IPv4", AF_INET, SOCK_DGRAM, 0, IPPROTO_UDP},
        {"UDP over IPv6", AF_INET6, SOCK_DGRAM, IPPROTO_UDP, IPPROTO_UDP},
        {"local stream", AF_UNIX, SOCK_STREAM, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);
        QDSocket socket;

        ASSERT_TRUE(socket.CreateSocket(c.m_Domain, c.m_Type, c.m_Protocol));

        EXPECT_EQ(GetIntOption(socket.GetSocket(), SO_DOMAIN), c.m_Domain);
        EXPECT_EQ(GetIntOption(socket.GetSocket(), SO_TYPE), c.m_Type);
        EXPECT_EQ(GetIntOption(socket.GetSocket(), SO_PROTOCOL), c.m_ExpectedProtocol);
        EXPECT_EQ(socket.GetLastError(), 0);
    }
}

TEST(QDSocket, CreatedSocketIsCloseOnExecAndBlocking)
{
    QDSocket socket;

    ASSERT_TRUE(socket.CreateSocket(AF_INET, SOCK_STREAM, 0));

    EXPECT_EQ(::fcntl(socket.GetSocket(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(::fcntl(socket.GetSocket(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(QDSocket, CreateKeepsFlagsGivenWithTheType)
{
    QDSocket socket;

    ASSERT_TRUE(socket.CreateSocket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));

    EXPECT_EQ(::fcntl(socket.GetSocket(), F_GETFD), FD_CLOEXEC);
    EXPECT_NE(::fcntl(socket.GetSocket(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(QDSocket, CreateReplacesAnOpenSocket)
{
    QDSocket socket;
    ASSERT_TRUE(socket.CreateSocket(AF_INET, SOCK_STREAM, 0));
    const int old = socket.GetSocket();

    ASSERT_TRUE(socket.CreateSocket(AF_INET, SOCK_DGRAM, 0));

    EXPECT_NE(socket.GetSocket(), old);
    EXPECT_FALSE(IsOpen(old));
    EXPECT_EQ(GetIntOption(socket.GetSocket(), SO_TYPE), SOCK_DGRAM);
}

TEST(QDSocket, CreateThatFailsKeepsTheErrorAndTheOpenSocket)
{
    QDSocket socket;
    ASSERT_TRUE(socket.CreateSocket(AF_INET, SOCK_STREAM, 0));
    const int old = socket.GetSocket();
    const FaultPlan plan("socket", 1, EMFILE);

    EXPECT_FALSE(socket.CreateSocket(AF_INET, SOCK_DGRAM, 0));

    EXPECT_EQ(socket.GetLastError(), EMFILE);
    EXPECT_EQ(socket.GetSocket(), old);
    EXPECT_EQ(GetIntOption(old, SO_TYPE), SOCK_STREAM);
}

TEST(QDSocket, CreateWithAnUnknownFamilyFails)
{
    QDSocket socket;

    EXPECT_FALSE(socket.CreateSocket(12345, SOCK_STREAM, 0));

    EXPECT_EQ(socket.GetLastError(), EAFNOSUPPORT);
    EXPECT_EQ(socket.GetSocket(), -1);
}

TEST(QDSocket, ShutdownSendEndsOneDirectionOnly)
{
    Connection connection;

    EXPECT_TRUE(connection.m_Socket.ShutdownSend());

    EXPECT_TRUE(connection.m_Peer.SawOrderlyClose());
    connection.m_Peer.Send("still here");
    char buffer[16];
    EXPECT_EQ(connection.m_Socket.RecvData(buffer, sizeof buffer), 10);
    EXPECT_EQ(connection.m_Socket.GetLastError(), 0);
}

TEST(QDSocket, ShutdownSendWithoutASocketFailsAndLeavesTheErrorAlone)
{
    QDSocket socket;
    FailWithProtocolError(socket);

    EXPECT_FALSE(socket.ShutdownSend());

    EXPECT_EQ(socket.GetLastError(), EPROTONOSUPPORT);
}

TEST(QDSocket, ShutdownSendWithoutASocketMakesNoSystemCall)
{
    QDSocket socket;
    const FaultPlan plan("shutdown", 1, EAGAIN, FaultPlan::Repeat::Forever);

    EXPECT_FALSE(socket.ShutdownSend());

    EXPECT_EQ(plan.GetCallCount(), 0);
}

TEST(QDSocket, ShutdownSendTakesEagainForASuccessAndKeepsIt)
{
    Connection connection;
    const int fd = connection.m_Socket.GetSocket();
    const FaultPlan plan("shutdown", 1, EAGAIN);

    EXPECT_TRUE(connection.m_Socket.ShutdownSend());

    EXPECT_EQ(connection.m_Socket.GetLastError(), 11);
    EXPECT_EQ(connection.m_Socket.GetSocket(), fd);
    EXPECT_TRUE(IsOpen(fd));
}

TEST(QDSocket, ShutdownSendThatFailsClosesTheSocket)
{
    QDSocket socket;
    ASSERT_TRUE(socket.CreateSocket(AF_INET, SOCK_STREAM, 0));
    const int fd = socket.GetSocket();

    EXPECT_FALSE(socket.ShutdownSend());

    EXPECT_EQ(socket.GetLastError(), ENOTCONN);
    EXPECT_EQ(socket.GetSocket(), -1);
    EXPECT_FALSE(IsOpen(fd));
}

TEST(QDSocket, ShutdownSendAfterAnOlderEagainStillFails)
{
    // The error of this call decides, not one kept from before.
    QDSocket socket;
    {
        const FaultPlan plan("socket", 1, EAGAIN);
        ASSERT_FALSE(socket.CreateSocket(AF_INET, SOCK_STREAM, 0));
    }
    ASSERT_TRUE(socket.CreateSocket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(socket.GetLastError(), EAGAIN);

    EXPECT_FALSE(socket.ShutdownSend());

    EXPECT_EQ(socket.GetLastError(), ENOTCONN);
    EXPECT_EQ(socket.GetSocket(), -1);
}

TEST(QDSocket, NonBlockingModeIsSetAndTakenBack)
{
    QDSocket socket;
    ASSERT_TRUE(socket.CreateSocket(AF_INET, SOCK_STREAM, 0));

    EXPECT_TRUE(socket.SetNonBlocking());
    EXPECT_NE(::fcntl(socket.GetSocket(), F_GETFL) & O_NONBLOCK, 0);

    EXPECT_TRUE(socket.SetBlocking());
    EXPECT_EQ(::fcntl(socket.GetSocket(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(QDSocket, NonBlockingModeThatIsRefusedKeepsTheError)
{
    struct Case
    {
        const char* m_Name;
        bool (QDSocket::*m_Set)();
    };

    constexpr Case cases[] = {{"SetNonBlocking", &QDSocket::SetNonBlocking}, {"SetBlocking", &QDSocket::SetBlocking}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);
        QDSocket socket;
        ASSERT_TRUE(socket.CreateSocket(AF_INET, SOCK_STREAM, 0));
        const FaultPlan plan("ioctl", 1, EIO);

        EXPECT_FALSE((socket.*c.m_Set)());

        EXPECT_EQ(socket.GetLastError(), EIO);
    }
}

TEST(QDSocket, ConnectsAndExchangesDataInBothFamilies)
{
    for (const Family& family : kFamilies) {
        SCOPED_TRACE(family.m_Name);
        Listener listener(family);
        QDSocket client;
        ASSERT_TRUE(client.CreateSocket(family.m_Family, SOCK_STREAM, 0));

        ASSERT_TRUE(client.ConnectSocket(listener.GetAddress(), listener.GetAddressLength()));

        QDSocket server(listener.Accept());
        char buffer[8] = {};
        EXPECT_EQ(client.SendData("ping", 4), 4);
        EXPECT_EQ(server.RecvData(buffer, sizeof buffer), 4);
        EXPECT_STREQ(buffer, "ping");
        EXPECT_EQ(client.GetLastError(), 0);
    }
}

TEST(QDSocket, ConnectToAPortWithoutAListenerIsRefused)
{
    const ReservedPort port;
    QDSocketAddress address = MakeAddress(AF_INET, "127.0.0.1", port.Get());
    QDSocket socket;
    ASSERT_TRUE(socket.CreateSocket(AF_INET, SOCK_STREAM, 0));

    EXPECT_FALSE(socket.ConnectSocket(&address.m_Address, sizeof address.m_IPv4));

    EXPECT_EQ(socket.GetLastError(), ECONNREFUSED);
    EXPECT_NE(socket.GetSocket(), -1);
}

TEST(QDSocket, ConnectWithAShortAddressFails)
{
    QDSocketAddress address = MakeAddress(AF_INET, "127.0.0.1", 1);
    QDSocket socket;
    ASSERT_TRUE(socket.CreateSocket(AF_INET, SOCK_STREAM, 0));

    EXPECT_FALSE(socket.ConnectSocket(&address.m_Address, 15));

    EXPECT_EQ(socket.GetLastError(), EINVAL);
}

TEST(QDSocket, NonBlockingConnectIsInProgressAndThenThere)
{
    for (const Family& family : kFamilies) {
        SCOPED_TRACE(family.m_Name);
        Listener listener(family);
        QDSocket socket;
        ASSERT_TRUE(socket.CreateSocket(family.m_Family, SOCK_STREAM, 0));
        ASSERT_TRUE(socket.SetNonBlocking());

        EXPECT_FALSE(socket.ConnectSocket(listener.GetAddress(), listener.GetAddressLength()));

        EXPECT_EQ(socket.GetLastError(), EINPROGRESS);
        ASSERT_TRUE(WaitForEvents(socket.GetSocket(), POLLOUT));
        EXPECT_TRUE(socket.CheckSocketError());
        EXPECT_EQ(socket.GetLastError(), EINPROGRESS); // a success leaves it
        EXPECT_EQ(socket.SendData("x", 1), 1);
    }
}

TEST(QDSocket, NonBlockingConnectIsInProgressAndThenRefused)
{
    const ReservedPort port;
    QDSocketAddress address = MakeAddress(AF_INET, "127.0.0.1", port.Get());
    QDSocket socket;
    ASSERT_TRUE(socket.CreateSocket(AF_INET, SOCK_STREAM, 0));
    ASSERT_TRUE(socket.SetNonBlocking());

    EXPECT_FALSE(socket.ConnectSocket(&address.m_Address, sizeof address.m_IPv4));

    EXPECT_EQ(socket.GetLastError(), EINPROGRESS);
    ASSERT_TRUE(WaitForEvents(socket.GetSocket(), POLLOUT));
    EXPECT_FALSE(socket.CheckSocketError());
    EXPECT_EQ(socket.GetLastError(), ECONNREFUSED);
}

TEST(QDSocket, NamesOfBothEnds)
{
    for (const Family& family : kFamilies) {
        SCOPED_TRACE(family.m_Name);
        Connection connection(family);
        QDSocketAddress peer{};
        QDSocketAddress own{};
        unsigned int peerLength = 0; // the room is the object's to say
        unsigned int ownLength = 0;

        ASSERT_TRUE(connection.m_Socket.GetPeerName(peer.m_Storage, peerLength));
        ASSERT_TRUE(connection.m_Socket.GetSocketName(own.m_Storage, ownLength));

        EXPECT_EQ(peerLength, family.m_AddressLength);
        EXPECT_EQ(ownLength, family.m_AddressLength);
        std::string peerText;
        std::string ownText;
        QDSocket::QDGetNameInfo(&peer, peerLength, peerText);
        QDSocket::QDGetNameInfo(&own, ownLength, ownText);
        EXPECT_EQ(peerText, std::string(family.m_Host) + ":" + std::to_string(connection.m_Peer.GetLocalPort()));
        EXPECT_EQ(ownText, std::string(family.m_Host) + ":" + std::to_string(connection.m_Listener.GetPort()));
    }
}

TEST(QDSocket, PeerNameOfAnUnconnectedSocketFailsWithTheRoomAsLength)
{
    QDSocket socket;
    ASSERT_TRUE(socket.CreateSocket(AF_INET, SOCK_STREAM, 0));
    sockaddr_storage address{};
    unsigned int length = 0;

    EXPECT_FALSE(socket.GetPeerName(address, length));

    EXPECT_EQ(socket.GetLastError(), ENOTCONN);
    EXPECT_EQ(length, 128u);
}

TEST(QDSocket, SocketNameThatIsRefusedKeepsTheError)
{
    QDSocket socket;
    ASSERT_TRUE(socket.CreateSocket(AF_INET, SOCK_STREAM, 0));
    sockaddr_storage address{};
    unsigned int length = 0;
    const FaultPlan plan("getsockname", 1, ENOBUFS);

    EXPECT_FALSE(socket.GetSocketName(address, length));

    EXPECT_EQ(socket.GetLastError(), ENOBUFS);
    EXPECT_EQ(length, 128u);
}

TEST(QDSocket, TimeoutsAreSplitIntoSecondsAndMicroseconds)
{
    struct Case
    {
        int m_Milliseconds;
        int m_Seconds;
        int m_Microseconds;
    };

    // Multiples of 20 ms: what the kernel hands back is rounded to its own ticks.
    constexpr Case cases[] = {{0, 0, 0}, {500, 0, 500000}, {1000, 1, 0}, {2040, 2, 40000}, {86399980, 86399, 980000}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Milliseconds);
        QDSocket socket;
        ASSERT_TRUE(socket.CreateSocket(AF_INET, SOCK_STREAM, 0));
        for (const int option : {SO_RCVTIMEO_OLD, SO_SNDTIMEO_OLD}) {
            SCOPED_TRACE(option == SO_RCVTIMEO_OLD ? "receive" : "send");

            EXPECT_TRUE(option == SO_RCVTIMEO_OLD ? socket.SetRecvTimeout(c.m_Milliseconds)
                                                  : socket.SetSendTimeout(c.m_Milliseconds));

            const KernelTimeLimit limit = GetTimeLimit(socket.GetSocket(), option);
            EXPECT_EQ(limit.m_Seconds, c.m_Seconds);
            EXPECT_EQ(limit.m_Microseconds, c.m_Microseconds);
        }
    }
}

TEST(QDSocket, TimeoutsAreSetForTheirOwnDirectionOnly)
{
    QDSocket socket;
    ASSERT_TRUE(socket.CreateSocket(AF_INET, SOCK_STREAM, 0));
    ASSERT_TRUE(socket.SetRecvTimeout(3000));
    ASSERT_TRUE(socket.SetSendTimeout(5000));

    EXPECT_EQ(GetTimeLimit(socket.GetSocket(), SO_RCVTIMEO_OLD).m_Seconds, 3);
    EXPECT_EQ(GetTimeLimit(socket.GetSocket(), SO_SNDTIMEO_OLD).m_Seconds, 5);
}

TEST(QDSocket, NegativeTimeoutsWithAFractionAreRefused)
{
    QDSocket socket;
    ASSERT_TRUE(socket.CreateSocket(AF_INET, SOCK_STREAM, 0));

    EXPECT_FALSE(socket.SetRecvTimeout(-1500));
    EXPECT_EQ(socket.GetLastError(), EDOM);

    FailWithProtocolError(socket);
    EXPECT_FALSE(socket.SetSendTimeout(-1));
    EXPECT_EQ(socket.GetLastError(), EDOM);
}

TEST(QDSocket, ReceiveEndsAfterItsTimeout)
{
    Connection connection;
    ASSERT_TRUE(connection.m_Socket.SetRecvTimeout(60));
    char buffer[8];
    const auto start = std::chrono::steady_clock::now();

    EXPECT_EQ(connection.m_Socket.RecvData(buffer, sizeof buffer), -1);

    EXPECT_EQ(connection.m_Socket.GetLastError(), EAGAIN);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 55ms);
}

TEST(QDSocket, SendEndsAfterItsTimeout)
{
    Connection connection;
    ASSERT_TRUE(connection.m_Socket.SetSendTimeout(60));
    const std::vector<char> data(64 * 1024, 'x');
    const auto start = std::chrono::steady_clock::now();

    // The peer reads nothing, so its buffer and ours fill up.
    int result = 0;
    while (result >= 0)
        result = connection.m_Socket.SendData(data.data(), static_cast<unsigned int>(data.size()));

    EXPECT_EQ(result, -1);
    EXPECT_EQ(connection.m_Socket.GetLastError(), EAGAIN);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 55ms);
}

TEST(QDSocket, CheckWithoutAPendingErrorSucceeds)
{
    Connection connection;

    EXPECT_TRUE(connection.m_Socket.CheckSocketError());

    EXPECT_EQ(connection.m_Socket.GetLastError(), 0);
}

TEST(QDSocket, CheckTakesThePendingErrorOnce)
{
    Connection connection;
    connection.m_Peer.Reset();
    ASSERT_TRUE(WaitForEvents(connection.m_Socket.GetSocket(), POLLIN));

    EXPECT_FALSE(connection.m_Socket.CheckSocketError());
    EXPECT_EQ(connection.m_Socket.GetLastError(), ECONNRESET);

    EXPECT_TRUE(connection.m_Socket.CheckSocketError());
    EXPECT_EQ(connection.m_Socket.GetLastError(), ECONNRESET);
}

TEST(QDSocket, CheckThatIsRefusedKeepsTheCallsOwnError)
{
    Connection connection;
    const FaultPlan plan("getsockopt", 1, ENOMEM);

    EXPECT_FALSE(connection.m_Socket.CheckSocketError());

    EXPECT_EQ(connection.m_Socket.GetLastError(), ENOMEM);
}

TEST(QDSocket, ReceiveReturnsAtMostWhatWasAskedFor)
{
    Connection connection;
    connection.m_Peer.Send("abcdef");
    char buffer[8] = {};

    EXPECT_EQ(connection.m_Socket.RecvData(buffer, 4), 4);
    EXPECT_STREQ(buffer, "abcd");

    EXPECT_EQ(connection.m_Socket.RecvData(buffer, 4), 2);
    EXPECT_STREQ(buffer, "efcd");
}

TEST(QDSocket, ReceiveReturnsZeroAfterThePeerClosed)
{
    Connection connection;
    connection.m_Peer.Close();
    char buffer[8];

    EXPECT_EQ(connection.m_Socket.RecvData(buffer, sizeof buffer), 0);

    EXPECT_EQ(connection.m_Socket.GetLastError(), 0);
    EXPECT_NE(connection.m_Socket.GetSocket(), -1);
}

TEST(QDSocket, ReceiveAfterAResetFails)
{
    Connection connection;
    connection.m_Peer.Reset();
    char buffer[8];

    EXPECT_EQ(connection.m_Socket.RecvData(buffer, sizeof buffer), -1);

    EXPECT_EQ(connection.m_Socket.GetLastError(), ECONNRESET);
}

TEST(QDSocket, ReceiveOnANonBlockingSocketWithoutDataFails)
{
    Connection connection;
    ASSERT_TRUE(connection.m_Socket.SetNonBlocking());
    char buffer[8];

    EXPECT_EQ(connection.m_Socket.RecvData(buffer, sizeof buffer), -1);

    EXPECT_EQ(connection.m_Socket.GetLastError(), EAGAIN);
}

TEST(QDSocket, ReceiveAndSendReportAnInterruption)
{
    Connection connection;
    char buffer[8];
    {
        const FaultPlan plan("recv", 1, EINTR);

        EXPECT_EQ(connection.m_Socket.RecvData(buffer, sizeof buffer), -1);

        EXPECT_EQ(connection.m_Socket.GetLastError(), EINTR);
        EXPECT_EQ(plan.GetCallCount(), 1);
    }
    FailWithProtocolError(connection.m_Socket);
    const FaultPlan plan("send", 1, EINTR);

    EXPECT_EQ(connection.m_Socket.SendData("x", 1), -1);

    EXPECT_EQ(connection.m_Socket.GetLastError(), EINTR);
    EXPECT_EQ(plan.GetCallCount(), 1);
}

TEST(QDSocket, SendOnANonBlockingSocketTakesWhatFits)
{
    Connection connection;
    ASSERT_TRUE(connection.m_Socket.SetNonBlocking());
    const std::vector<char> data(32 * 1024 * 1024, 'x');
    const unsigned int size = static_cast<unsigned int>(data.size());

    const int sent = connection.m_Socket.SendData(data.data(), size);

    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, static_cast<int>(size));
    EXPECT_EQ(connection.m_Socket.GetLastError(), 0);
}

namespace
{

volatile std::sig_atomic_t g_BrokenPipeSignals = 0;

void CountBrokenPipeSignal(int)
{
    g_BrokenPipeSignals = g_BrokenPipeSignals + 1;
}

} // namespace

TEST(QDSocket, SendToAPeerThatIsGoneFailsWithoutASignal)
{
    Connection connection;
    connection.m_Peer.Reset();
    ASSERT_TRUE(WaitForEvents(connection.m_Socket.GetSocket(), POLLIN));
    ASSERT_FALSE(connection.m_Socket.CheckSocketError()); // takes the reset away: what follows is a broken pipe

    struct sigaction counting
    {
    };

    struct sigaction before
    {
    };

    counting.sa_handler = CountBrokenPipeSignal;
    ASSERT_EQ(::sigaction(SIGPIPE, &counting, &before), 0);
    g_BrokenPipeSignals = 0;

    const int result = connection.m_Socket.SendData("x", 1);

    EXPECT_EQ(::sigaction(SIGPIPE, &before, nullptr), 0);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(connection.m_Socket.GetLastError(), EPIPE);
    EXPECT_EQ(g_BrokenPipeSignals, 0);
}

TEST(QDSocket, EverythingFailsWithoutASocket)
{
    struct Case
    {
        const char* m_Name;
        bool (*m_Call)(QDSocket& socket);
    };

    static sockaddr_storage address;
    static unsigned int length;
    static char data[1];
    constexpr Case cases[] = {
        {"SetNonBlocking", [](QDSocket& s) { return s.SetNonBlocking(); }},
        {"SetBlocking", [](QDSocket& s) { return s.SetBlocking(); }},
        {"ConnectSocket", [](QDSocket& s) { return s.ConnectSocket(reinterpret_cast<sockaddr*>(&address), 16); }},
        {"GetPeerName", [](QDSocket& s) { return s.GetPeerName(address, length); }},
        {"GetSocketName", [](QDSocket& s) { return s.GetSocketName(address, length); }},
        {"SetRecvTimeout", [](QDSocket& s) { return s.SetRecvTimeout(1000); }},
        {"SetSendTimeout", [](QDSocket& s) { return s.SetSendTimeout(1000); }},
        {"CheckSocketError", [](QDSocket& s) { return s.CheckSocketError(); }},
        {"RecvData", [](QDSocket& s) { return s.RecvData(data, 1) != -1; }},
        {"SendData", [](QDSocket& s) { return s.SendData(data, 1) != -1; }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);
        QDSocket socket;

        EXPECT_FALSE(c.m_Call(socket));

        EXPECT_EQ(socket.GetLastError(), EBADF);
        EXPECT_EQ(socket.GetSocket(), -1);
    }
}

TEST(QDSocket, LastErrorSurvivesSuccesses)
{
    QDSocket socket;
    FailWithProtocolError(socket);
    Listener listener(kIPv4);
    sockaddr_storage address{};
    unsigned int length = 0;
    char buffer[8];

    ASSERT_TRUE(socket.CreateSocket(AF_INET, SOCK_STREAM, 0));
    ASSERT_TRUE(socket.ConnectSocket(listener.GetAddress(), listener.GetAddressLength()));
    QDSocket server(listener.Accept());
    ASSERT_EQ(server.SendData("x", 1), 1);
    ASSERT_EQ(socket.RecvData(buffer, sizeof buffer), 1);
    ASSERT_EQ(socket.SendData("y", 1), 1);
    ASSERT_TRUE(socket.SetRecvTimeout(1000));
    ASSERT_TRUE(socket.SetSendTimeout(1000));
    ASSERT_TRUE(socket.SetNonBlocking());
    ASSERT_TRUE(socket.SetBlocking());
    ASSERT_TRUE(socket.GetPeerName(address, length));
    ASSERT_TRUE(socket.GetSocketName(address, length));
    ASSERT_TRUE(socket.CheckSocketError());
    ASSERT_TRUE(socket.ShutdownSend());
    socket.CloseSocket();

    EXPECT_EQ(socket.GetLastError(), EPROTONOSUPPORT);
}

TEST(QDSocket, EachObjectHasItsOwnError)
{
    QDSocket first;
    QDSocket second;

    FailWithProtocolError(first);

    EXPECT_EQ(second.GetLastError(), 0);
}

namespace
{

// Resolves without a name server, and returns the first address as text; an error's text when there is none.
std::string ResolveNumeric(const std::string& host, const std::string& service)
{
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    std::string errorText;
    if (QDSocket::QDGetAddrInfo(host, service, &hints, &list, errorText) != 0)
        return errorText;
    QDSocketAddress address{};
    std::memcpy(&address, list->ai_addr, list->ai_addrlen);
    std::string text;
    QDSocket::QDGetNameInfo(&address, list->ai_addrlen, text);
    ::freeaddrinfo(list);
    return text;
}

} // namespace

TEST(QDSocket, AddrInfoOfAddressesInFigures)
{
    EXPECT_EQ(ResolveNumeric("127.0.0.1", "1502"), "127.0.0.1:1502");
    EXPECT_EQ(ResolveNumeric("192.0.2.255", "65535"), "192.0.2.255:65535");
    EXPECT_EQ(ResolveNumeric("::1", "8080"), "::1:8080");
    EXPECT_EQ(ResolveNumeric("2001:DB8:0::7", "1"), "2001:db8::7:1");
}

TEST(QDSocket, AddrInfoOfAnEmptyServiceHasPortZero)
{
    EXPECT_EQ(ResolveNumeric("127.0.0.1", ""), "127.0.0.1:0");
    EXPECT_EQ(g_ResolvedService, "");
}

TEST(QDSocket, AddrInfoOfAnEmptyHostIsLocalhost)
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    std::string errorText;

    ASSERT_EQ(QDSocket::QDGetAddrInfo("", "1502", &hints, &list, errorText), 0) << errorText;

    EXPECT_EQ(g_ResolvedHost, "localhost");
    EXPECT_EQ(g_ResolvedService, "1502");
    QDSocketAddress address{};
    std::memcpy(&address, list->ai_addr, list->ai_addrlen);
    std::string text;
    QDSocket::QDGetNameInfo(&address, list->ai_addrlen, text);
    EXPECT_TRUE(text == "127.0.0.1:1502" || text == "::1:1502") << text;
    ::freeaddrinfo(list);
}

TEST(QDSocket, AddrInfoWithoutHintsGivesEverySocketType)
{
    addrinfo* list = nullptr;
    std::string errorText;

    ASSERT_EQ(QDSocket::QDGetAddrInfo("127.0.0.1", "53", nullptr, &list, errorText), 0) << errorText;

    bool hasStream = false;
    bool hasDatagram = false;
    for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
        hasStream = hasStream || entry->ai_socktype == SOCK_STREAM;
        hasDatagram = hasDatagram || entry->ai_socktype == SOCK_DGRAM;
    }
    EXPECT_TRUE(hasStream);
    EXPECT_TRUE(hasDatagram);
    ::freeaddrinfo(list);
}

TEST(QDSocket, AddrInfoThatSucceedsClearsTheErrorText)
{
    addrinfo* list = nullptr;
    std::string errorText = "from before";

    ASSERT_EQ(QDSocket::QDGetAddrInfo("127.0.0.1", "1", nullptr, &list, errorText), 0);

    EXPECT_EQ(errorText, "");
    ASSERT_NE(list, nullptr);
    ::freeaddrinfo(list);
}

TEST(QDSocket, AddrInfoThatFailsGivesCodeTextAndNoList)
{
    struct Case
    {
        const char* m_Name;
        std::string m_Host;
        std::string m_Service;
        int m_Family;
        int m_Flags;
        int m_Code;
        const char* m_Text;
    };

    const Case cases[] = {
        {"host is a name", "no-address", "1", AF_UNSPEC, AI_NUMERICHOST, -2, "Name or service not known"},
        {"host is a lone zero byte", std::string(1, '\0'), "1", AF_UNSPEC, AI_NUMERICHOST, -2,
         "Name or service not known"},
        {"host is 70 000 bytes", std::string(70000, 'a'), "1", AF_UNSPEC, AI_NUMERICHOST, -2,
         "Name or service not known"},
        {"service is a name", "127.0.0.1", "no-port", AF_UNSPEC, AI_NUMERICSERV, -2, "Name or service not known"},
        {"service is unknown", "127.0.0.1", "no-such-service", AF_UNSPEC, 0, -8,
         "Servname not supported for ai_socktype"},
        {"flags are wrong", "127.0.0.1", "1", AF_UNSPEC, 0x40000000, -1, "Bad value for ai_flags"},
        {"family is unknown", "127.0.0.1", "1", 12345, 0, -6, "ai_family not supported"},
        {"family is the other", "::1", "1", AF_INET, AI_NUMERICHOST, -9, "Address family for hostname not supported"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);
        addrinfo hints{};
        hints.ai_family = c.m_Family;
        hints.ai_flags = c.m_Flags;
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* list = &hints; // anything but null
        std::string errorText = "from before";

        EXPECT_EQ(QDSocket::QDGetAddrInfo(c.m_Host, c.m_Service, &hints, &list, errorText), c.m_Code);

        EXPECT_EQ(errorText, c.m_Text);
        EXPECT_EQ(list, nullptr);
    }
}

TEST(QDSocket, AddrInfoTextsEndAtTheirFirstZeroByte)
{
    EXPECT_EQ(ResolveNumeric(std::string("127.0.0.1\0.example", 18), std::string("80\0x", 4)), "127.0.0.1:80");
    EXPECT_EQ(g_ResolvedHost, "127.0.0.1");
    EXPECT_EQ(g_ResolvedService, "80");
}

TEST(QDSocket, AddrInfoTextsReachTheNameServiceByteForByte)
{
    // Well-formed UTF-8, and bytes that are none: nothing is decoded.
    EXPECT_EQ(ResolveNumeric("w\xC3\xA4hler.\xFF\x80", "d\xE2\x82\xAC"), "Name or service not known");
    EXPECT_EQ(g_ResolvedHost, "w\xC3\xA4hler.\xFF\x80");
    EXPECT_EQ(g_ResolvedService, "d\xE2\x82\xAC");
}

TEST(QDSocket, AddrInfoTakesItsHostFromTheErrorTextToo)
{
    addrinfo* list = nullptr;
    std::string text = "127.0.0.1";

    ASSERT_EQ(QDSocket::QDGetAddrInfo(text, "1", nullptr, &list, text), 0);

    EXPECT_EQ(g_ResolvedHost, "127.0.0.1");
    EXPECT_EQ(text, "");
    ::freeaddrinfo(list);
}

TEST(QDSocket, NameInfoIsHostColonPort)
{
    struct Case
    {
        int m_Family;
        const char* m_Host;
        unsigned short m_Port;
        const char* m_Text;
    };

    constexpr Case cases[] = {
        {AF_INET, "0.0.0.0", 0, "0.0.0.0:0"},
        {AF_INET, "192.0.2.7", 502, "192.0.2.7:502"},
        {AF_INET, "255.255.255.255", 65535, "255.255.255.255:65535"},
        {AF_INET6, "::", 0, ":::0"},
        {AF_INET6, "::1", 8080, "::1:8080"},
        {AF_INET6, "2001:db8::7", 22, "2001:db8::7:22"},
        {AF_INET6, "::ffff:192.0.2.7", 80, "::ffff:192.0.2.7:80"},
        {AF_INET6, "2001:db8:1111:2222:3333:4444:5555:6666", 65535, "2001:db8:1111:2222:3333:4444:5555:6666:65535"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Text);
        const QDSocketAddress address = MakeAddress(c.m_Family, c.m_Host, c.m_Port);
        std::string text = "from before";

        QDSocket::QDGetNameInfo(&address, c.m_Family == AF_INET ? 16u : 28u, text);

        EXPECT_EQ(text, c.m_Text);
    }
}

TEST(QDSocket, NameInfoTakesTheLengthOfTheWholeStorageToo)
{
    const QDSocketAddress address = MakeAddress(AF_INET, "192.0.2.7", 502);
    std::string text;

    QDSocket::QDGetNameInfo(&address, sizeof address, text);

    EXPECT_EQ(text, "192.0.2.7:502");
}

TEST(QDSocket, NameInfoOfWhatIsNoAddressIsInvalid)
{
    struct Case
    {
        const char* m_Name;
        QDSocketAddress m_Address;
        unsigned int m_Length;
    };

    const Case cases[] = {
        {"length zero", MakeAddress(AF_INET, "127.0.0.1", 80), 0},
        {"less than a family", MakeAddress(AF_INET, "127.0.0.1", 80), 1},
        {"IPv4 one byte short", MakeAddress(AF_INET, "127.0.0.1", 80), 15},
        {"IPv6 with the length of IPv4", MakeAddress(AF_INET6, "::1", 80), 16},
        {"no family", QDSocketAddress{}, 128},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);
        std::string text = "from before";

        QDSocket::QDGetNameInfo(&c.m_Address, c.m_Length, text);

        EXPECT_EQ(text, "Invalid");
    }
}

TEST(QDSocket, NameInfoOfNoAddressAtAllIsInvalid)
{
    std::string text = "from before";

    QDSocket::QDGetNameInfo(nullptr, 0, text);

    EXPECT_EQ(text, "Invalid");
}

TEST(QDSocket, NameInfoThatIsRefusedIsInvalid)
{
    const QDSocketAddress address = MakeAddress(AF_INET, "127.0.0.1", 80);
    std::string text;
    const FaultPlan plan("getnameinfo", 1, EAI_MEMORY);

    QDSocket::QDGetNameInfo(&address, 16, text);

    EXPECT_EQ(text, "Invalid");
    EXPECT_TRUE(plan.HasFailed());
}
