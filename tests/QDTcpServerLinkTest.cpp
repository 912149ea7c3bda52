#include <QDPlatform/QDTcpServerLink.h>

#include <QDPlatform/COutputLogNull.h>
#include <QDPlatform/QDTcpServer.h>
#include <QDPlatform/QDTcpServerLinkMessage.h>

#include "AllocationCounter.h"
#include "FaultPlan.h"
#include "LoopbackClient.h"
#include "RecordingLog.h"
#include "TestThread.h"
#include "VirtualSlot.h"
#include "WaitUntil.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace
{

using testing::ElementsAre;
using Message = RecordingLog::Message;

constexpr TcpServerLinkLogging kAllLevels[] = {
    TcpServerLinkLoggingOff,    TcpServerLinkLoggingLifecycle,  TcpServerLinkLoggingDefault, TcpServerLinkLogging(3),
    TcpServerLinkLoggingDetail, TcpServerLinkLoggingReferences, TcpServerLinkLoggingData};

bool IsOpen(int fd)
{
    return ::fcntl(fd, F_GETFD) != -1;
}

// A TCP connection over the loopback interface: the test's client at one end, the descriptor for a link at the other.
class Connection
{
public:
    Connection()
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(::listen(listener, 1), 0);
        EXPECT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
        m_pClient = std::make_unique<LoopbackClient>(ntohs(address.sin_port));
        m_Accepted = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        EXPECT_GE(m_Accepted, 0);
        ::close(listener);
    }

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    LoopbackClient& GetClient() { return *m_pClient; }

    // Whoever asks for it closes it.
    int GetAccepted() const { return m_Accepted; }

private:
    std::unique_ptr<LoopbackClient> m_pClient;
    int m_Accepted{-1};
};

// A server for links that a test makes itself; it never starts.
class IdleServer : public CQDTcpServer
{
public:
    IdleServer() : CQDTcpServer(nullptr, "Idle", 1, 1, false) {}

    CQDTcpServerLink* CreateLink(TcpServerLinkCreateContext&) override { return nullptr; }
};

// A link whose callbacks are the test's.
class ProbeLink : public CQDTcpServerLink
{
public:
    using CQDTcpServerLink::CQDTcpServerLink;

    ProbeLink(const ProbeLink&) = delete;
    ProbeLink& operator=(const ProbeLink&) = delete;

    ~ProbeLink() override { m_AtDelete(); }

    LinkCallbackResult OnConnect() override { return m_OnConnect(); }

    LinkCallbackResult OnRxData() override { return m_OnRxData(); }

    LinkCallbackResult OnTxComplete() override { return m_OnTxComplete(); }

    LinkCallbackResult OnTimeout(const CQDTimestamp& now) override { return m_OnTimeout(now); }

    LinkCallbackResult OnMessage(CQDTcpServerLinkMessage* message) override { return m_OnMessage(message); }

    void OnDisconnect() override { m_OnDisconnect(); }

    std::function<LinkCallbackResult()> m_OnConnect = [] { return LinkCallbackSuccess; };
    std::function<LinkCallbackResult()> m_OnRxData = [] { return LinkCallbackSuccess; };
    std::function<LinkCallbackResult()> m_OnTxComplete = [] { return LinkCallbackSuccess; };
    std::function<LinkCallbackResult(const CQDTimestamp&)> m_OnTimeout = [](const CQDTimestamp&) {
        return LinkCallbackSuccess;
    };
    std::function<LinkCallbackResult(CQDTcpServerLinkMessage*)> m_OnMessage = [](CQDTcpServerLinkMessage* message) {
        delete message;
        return LinkCallbackSuccess;
    };
    std::function<void()> m_OnDisconnect = [] {};
    std::function<void()> m_AtDelete = [] {};
};

// A link with nothing but what it must have.
class BareLink : public CQDTcpServerLink
{
public:
    using CQDTcpServerLink::CQDTcpServerLink;
    using CQDTcpServerLink::OnConnect;
    using CQDTcpServerLink::OnDisconnect;
    using CQDTcpServerLink::OnTimeout;

    LinkCallbackResult OnRxData() override { return LinkCallbackSuccess; }

    LinkCallbackResult OnTxComplete() override { return LinkCallbackSuccess; }

    LinkCallbackResult OnMessage(CQDTcpServerLinkMessage*) override { return LinkCallbackSuccess; }
};

TcpServerLinkCreateContext MakeContext(COutputLog* log, CQDTcpServer* server, int socket,
                                       TcpServerLinkLogging level = TcpServerLinkLoggingDefault)
{
    TcpServerLinkCreateContext context;
    context.m_pOutputLog = log;
    context.m_pServer = server;
    context.m_pServerName = "Echo";
    context.m_LinkId = 7;
    context.m_PeerAddressText = "192.0.2.1";
    context.m_Socket = socket;
    context.m_LoggingLevel = level;
    return context;
}

// A link "Echo 7" with one reference, over a real connection or over any other descriptor. Closed and released at the
// end.
class LinkUnderTest
{
public:
    explicit LinkUnderTest(COutputLog* log, TcpServerLinkLogging level = TcpServerLinkLoggingDefault) :
        m_pConnection(std::make_unique<Connection>())
    {
        Make(log, m_pConnection->GetAccepted(), level);
    }

    LinkUnderTest(COutputLog* log, TcpServerLinkLogging level, int socket) { Make(log, socket, level); }

    LinkUnderTest(const LinkUnderTest&) = delete;
    LinkUnderTest& operator=(const LinkUnderTest&) = delete;

    ~LinkUnderTest()
    {
        m_pLink->m_OnDisconnect = [] {};
        m_pLink->CloseSocket(false);
        m_pLink->Release();
    }

    ProbeLink* operator->() { return m_pLink; }

    LoopbackClient& GetClient() { return m_pConnection->GetClient(); }

    unsigned int GetProtocolErrorCount() const { return m_Server.GetProtocolErrorCount(); }

    void MakeSendBufferSmall()
    {
        const int size = 4096;
        EXPECT_EQ(::setsockopt(m_pLink->GetSocket(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size), 0);
    }

    // Until the kernel has taken in what the client did last.
    void WaitUntilReadable()
    {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(m_pLink->GetSocket(), &readable);
        timeval limit{20, 0};
        EXPECT_EQ(::select(m_pLink->GetSocket() + 1, &readable, nullptr, nullptr, &limit), 1);
    }

private:
    void Make(COutputLog* log, int socket, TcpServerLinkLogging level)
    {
        m_pLink = new ProbeLink(MakeContext(log, &m_Server, socket, level));
        m_pLink->AddRef();
    }

    std::unique_ptr<Connection> m_pConnection;
    IdleServer m_Server;
    ProbeLink* m_pLink{nullptr};
};

int OpenNullDevice()
{
    return ::open("/dev/null", O_RDWR | O_CLOEXEC);
}

class NumberedMessage : public CQDTcpServerLinkMessage
{
public:
    explicit NumberedMessage(int number) : CQDTcpServerLinkMessage(7), m_Number(number) {}

    const int m_Number;
};

// Notes a message's number and deletes the message, as its owner.
void TakeMessage(CQDTcpServerLinkMessage* message, std::vector<int>& numbers)
{
    const std::unique_ptr<CQDTcpServerLinkMessage> owned(message);
    numbers.push_back(dynamic_cast<NumberedMessage&>(*owned).m_Number);
}

// A log in which the thread that gives a reference back, but not the last one, stays until the last one has gone.
class PausingLog : public RecordingLog
{
public:
    void AppendMessage(LogType type, int code, const qdchar* text, unsigned int length) override
    {
        RecordingLog::AppendMessage(type, code, text, length);
        if (std::string(text, length) != "Echo 7: Release, RefCount = 1")
            return;
        m_Pausing.store(true);
        WaitUntil([this] { return m_Deleted.load(); });
    }

    std::atomic<bool> m_Pausing{false};
    std::atomic<bool> m_Deleted{false};
};

// A running server on loopback whose links the test sets up.
class LiveServer : public CQDTcpServer
{
public:
    LiveServer(COutputLog* log, unsigned short port, std::function<void(ProbeLink&)> setUp) :
        CQDTcpServer(log, "Live", port, 10, false), m_SetUp(std::move(setUp))
    {}

    LiveServer(const LiveServer&) = delete;
    LiveServer& operator=(const LiveServer&) = delete;

    ~LiveServer() override { StopTcpServer(); }

    CQDTcpServerLink* CreateLink(TcpServerLinkCreateContext& context) override
    {
        auto* link = new ProbeLink(context);
        m_SetUp(*link);
        return link;
    }

private:
    const std::function<void(ProbeLink&)> m_SetUp;
};

LinkCallbackResult ReadAndReturn(ProbeLink& link, LinkCallbackResult result)
{
    char buffer[16];
    unsigned int count = 0;
    EXPECT_EQ(link.ReadData(buffer, sizeof buffer, count), LinkCallbackSuccess);
    return result;
}

} // namespace

TEST(LinkCallbackResult, HasItsFixedValues)
{
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<LinkCallbackResult>, int>));
    EXPECT_EQ(static_cast<int>(LinkCallbackSuccess), 0);
    EXPECT_EQ(static_cast<int>(LinkCallbackWouldBlock), 1);
    EXPECT_EQ(static_cast<int>(LinkCallbackPeerClosed), 2);
    EXPECT_EQ(static_cast<int>(LinkCallbackSocketError), 3);
    EXPECT_EQ(static_cast<int>(LinkCallbackCloseSocket), 4);
    EXPECT_EQ(static_cast<int>(LinkCallbackProtocolError), 5);
    EXPECT_EQ(static_cast<int>(LinkCallbackTlsError), 6);
}

TEST(TcpServerLinkLogging, HasItsFixedValues)
{
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<TcpServerLinkLogging>, int>));
    EXPECT_EQ(static_cast<int>(TcpServerLinkLoggingOff), 0);
    EXPECT_EQ(static_cast<int>(TcpServerLinkLoggingLifecycle), 1);
    EXPECT_EQ(static_cast<int>(TcpServerLinkLoggingDefault), 2);
    EXPECT_EQ(static_cast<int>(TcpServerLinkLoggingDetail), 4);
    EXPECT_EQ(static_cast<int>(TcpServerLinkLoggingReferences), 5);
    EXPECT_EQ(static_cast<int>(TcpServerLinkLoggingData), 6);
}

TEST(TcpServerLinkCreateContext, HasRoomForAnIPv6AddressFromTheStart)
{
    const TcpServerLinkCreateContext context;

    EXPECT_EQ(context.m_PeerAddressLength, 28u);
    EXPECT_GE(sizeof context.m_PeerAddress, 28u);
}

TEST(TcpServerLinkCreateContext, HasItsFieldsInOrder)
{
    using Context = TcpServerLinkCreateContext;

    EXPECT_EQ(offsetof(Context, m_pOutputLog), 0u);
    EXPECT_LT(offsetof(Context, m_pOutputLog), offsetof(Context, m_pServer));
    EXPECT_LT(offsetof(Context, m_pServer), offsetof(Context, m_pServerName));
    EXPECT_LT(offsetof(Context, m_pServerName), offsetof(Context, m_LinkId));
    EXPECT_LT(offsetof(Context, m_LinkId), offsetof(Context, m_PeerAddressText));
    EXPECT_LT(offsetof(Context, m_PeerAddressText), offsetof(Context, m_Socket));
    EXPECT_LT(offsetof(Context, m_Socket), offsetof(Context, m_LoggingLevel));
    EXPECT_LT(offsetof(Context, m_LoggingLevel), offsetof(Context, m_PeerAddressLength));
    EXPECT_LT(offsetof(Context, m_PeerAddressLength), offsetof(Context, m_PeerAddress));
}

TEST(CQDTcpServerLink, VirtualOperationsStandInTheirOrder)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<CQDTcpServerLink>); // takes the positions 0 and 1
    EXPECT_EQ(VirtualSlot(&ProbeLink::OnConnect), 2);
    EXPECT_EQ(VirtualSlot(&ProbeLink::OnRxData), 3);
    EXPECT_EQ(VirtualSlot(&ProbeLink::OnTxComplete), 4);
    EXPECT_EQ(VirtualSlot(&ProbeLink::OnTimeout), 5);
    EXPECT_EQ(VirtualSlot(&ProbeLink::OnMessage), 6);
    EXPECT_EQ(VirtualSlot(&ProbeLink::OnDisconnect), 7);
}

TEST(CQDTcpServerLink, ReadWriteAndMessageCallbacksAreForTheDerivedClass)
{
    EXPECT_TRUE(std::is_abstract_v<CQDTcpServerLink>);
    EXPECT_FALSE(std::is_abstract_v<BareLink>); // has only OnRxData(), OnTxComplete() and OnMessage()
}

TEST(CQDTcpServerLink, CallbacksThatAreNotOverriddenKeepTheLink)
{
    RecordingLog log;
    IdleServer server;
    const int socket = OpenNullDevice();
    BareLink link(MakeContext(&log, &server, socket));
    log.Clear();

    EXPECT_EQ(link.OnConnect(), LinkCallbackSuccess);
    EXPECT_EQ(link.OnTimeout(CQDTimestamp::UTCNow()), LinkCallbackSuccess);
    link.OnDisconnect();

    EXPECT_EQ(link.GetSocket(), socket);
    EXPECT_THAT(log.GetTexts(), ElementsAre());
    ::close(socket);
}

TEST(CQDTcpServerLink, TakesItsFieldsFromTheContext)
{
    RecordingLog log;
    IdleServer server;
    TcpServerLinkCreateContext context = MakeContext(&log, &server, 12345, TcpServerLinkLoggingDetail);
    context.m_LinkId = 0xFFFFFFFFu;
    context.m_PeerAddressText = "2001:db8::17";

    const ProbeLink link(context);

    EXPECT_EQ(link.GetServer(), &server);
    EXPECT_EQ(link.GetLinkId(), 0xFFFFFFFFu);
    EXPECT_EQ(link.GetPeerAddress(), "2001:db8::17");
    EXPECT_EQ(link.GetSocket(), 12345);
    EXPECT_EQ(link.GetLinkLogging(), TcpServerLinkLoggingDetail);
    EXPECT_THAT(log.GetTexts(), ElementsAre("Echo 4294967295: Created"));
}

TEST(CQDTcpServerLink, KeepsCopiesOfTheContextsTexts)
{
    RecordingLog log;
    IdleServer server;
    char name[] = "Echo";
    auto context = std::make_unique<TcpServerLinkCreateContext>(MakeContext(&log, &server, -1));
    context->m_pServerName = name;
    ProbeLink link(*context);

    std::strcpy(name, "xxxx");
    context.reset();
    link.PrintError("later");

    EXPECT_EQ(link.GetPeerAddress(), "192.0.2.1");
    EXPECT_EQ(log.Count("Echo 7: later"), 1u);
}

TEST(CQDTcpServerLink, NewLinkHasNoErrorNoWriteModeNoTimeoutAndNothingReceived)
{
    IdleServer server;

    const ProbeLink link(MakeContext(nullptr, &server, -1));

    EXPECT_EQ(link.GetLastReadWriteDataError(), 0);
    EXPECT_FALSE(link.IsWriteModeEnabled());
    EXPECT_EQ(link.GetTimeout().GetValue(), 0x7FFFFFFFFFFFFFFF);
    EXPECT_EQ(link.GetLastReceiveTime().GetValue(), 0);
}

TEST(CQDTcpServerLink, PrefixIsCutAt31Bytes)
{
    const struct
    {
        const char* m_ServerName;
        unsigned int m_LinkId;
        const char* m_Line;
    } cases[] = {
        {"Echo", 7, "Echo 7: text"},
        {"", 7, " 7: text"},
        {"ServerNameOfTwentySixBytes", 9999, "ServerNameOfTwentySixBytes 9999: text"},
        {"ServerNameOfTwentySixBytes", 12345, "ServerNameOfTwentySixBytes 1234: text"},
        {"ServerNameOfExactlyThirtyBytes", 3, "ServerNameOfExactlyThirtyBytes : text"},
        {"ServerNameOfExactly31BytesLong.", 3, "ServerNameOfExactly31BytesLong.: text"},
        {"ServerNameOfMuchMoreThan31BytesIsCut", 3, "ServerNameOfMuchMoreThan31Bytes: text"},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Line);
        RecordingLog log;
        IdleServer server;
        TcpServerLinkCreateContext context = MakeContext(&log, &server, -1, TcpServerLinkLoggingOff);
        context.m_pServerName = c.m_ServerName;
        context.m_LinkId = c.m_LinkId;
        ProbeLink link(context);

        link.PrintError("text");

        EXPECT_THAT(log.GetTexts(), ElementsAre(c.m_Line));
    }
}

TEST(CQDTcpServerLink, DestructorPrintsAndLeavesTheSocketOpen)
{
    RecordingLog log;
    IdleServer server;
    const int socket = OpenNullDevice();
    auto link = std::make_unique<ProbeLink>(MakeContext(&log, &server, socket));
    bool disconnected = false;
    link->m_OnDisconnect = [&] { disconnected = true; };

    link.reset();

    EXPECT_THAT(log.GetTexts(), ElementsAre("Echo 7: Created", "Echo 7: Deleted"));
    EXPECT_TRUE(IsOpen(socket));
    EXPECT_FALSE(disconnected);
    ::close(socket);
}

TEST(CQDTcpServerLink, ReferencesAreCountedFrom0AndPrinted)
{
    RecordingLog log;
    IdleServer server;
    auto* link = new ProbeLink(MakeContext(&log, &server, -1, TcpServerLinkLoggingReferences));
    bool deleted = false;
    link->m_AtDelete = [&] { deleted = true; };

    link->AddRef();
    link->AddRef();
    link->Release();
    EXPECT_FALSE(deleted);
    link->Release();

    EXPECT_TRUE(deleted);
    EXPECT_THAT(log.GetMessages(), ElementsAre(Message{COutputLog::Info, 0, "Echo 7: Created"},
                                               Message{COutputLog::Info, 0, "Echo 7: AddRef, RefCount = 1"},
                                               Message{COutputLog::Info, 0, "Echo 7: AddRef, RefCount = 2"},
                                               Message{COutputLog::Info, 0, "Echo 7: Release, RefCount = 1"},
                                               Message{COutputLog::Info, 0, "Echo 7: Release, RefCount = 0"},
                                               Message{COutputLog::Info, 0, "Echo 7: Deleted"}));
}

TEST(CQDTcpServerLink, ReleaseDoesNotTouchTheLinkAfterItsDecrement)
{
    PausingLog log;
    IdleServer server;
    auto* link = new ProbeLink(MakeContext(&log, &server, -1, TcpServerLinkLoggingReferences));
    link->m_AtDelete = [&] { log.m_Deleted.store(true); };
    link->AddRef();
    link->AddRef();

    TestThread notTheLast([&] { link->Release(); });
    ASSERT_TRUE(WaitUntil([&] { return log.m_Pausing.load(); }));
    link->Release(); // deletes the link, while the other is still printing
    notTheLast.Join();

    EXPECT_TRUE(log.m_Deleted.load());
}

TEST(CQDTcpServerLink, ReleasesOfTwoThreadsDeleteTheLinkOnce)
{
    constexpr std::size_t kLinks = 4000;
    constexpr std::size_t kLinksBetweenMeetings = 100; // keeps the threads close together
    for (const TcpServerLinkLogging level : {TcpServerLinkLoggingOff, TcpServerLinkLoggingReferences}) {
        SCOPED_TRACE(level);
        COutputLogNull log;
        IdleServer server;
        std::atomic<std::size_t> deleted{0};
        std::vector<ProbeLink*> links;
        for (std::size_t i = 0; i < kLinks; ++i) {
            links.push_back(new ProbeLink(MakeContext(&log, &server, -1, level)));
            links.back()->m_AtDelete = [&] { deleted.fetch_add(1); };
            links.back()->AddRef();
            links.back()->AddRef();
        }
        std::barrier meeting(2);
        const auto releaseAll = [&] {
            for (std::size_t i = 0; i < kLinks; ++i) {
                if (i % kLinksBetweenMeetings == 0)
                    meeting.arrive_and_wait();
                links[i]->Release();
            }
        };

        TestThread other(releaseAll);
        releaseAll();
        other.Join();

        EXPECT_EQ(deleted.load(), kLinks);
    }
}

TEST(CQDTcpServerLink, ReadDataGivesTheBytesThatAreThere)
{
    LinkUnderTest link(nullptr);
    link.GetClient().Send(std::string("a\0\xFFz", 4));
    link.WaitUntilReadable();
    char buffer[10] = "#########";
    unsigned int count = 99;

    EXPECT_EQ(link->ReadData(buffer, sizeof buffer, count), LinkCallbackSuccess);

    EXPECT_EQ(count, 4u);
    EXPECT_EQ(std::string(buffer, 10), std::string("a\0\xFFz#####\0", 10));
    EXPECT_EQ(link->GetLastReadWriteDataError(), 0);
}

TEST(CQDTcpServerLink, ReadDataTakesNoMoreThanItsBufferHolds)
{
    LinkUnderTest link(nullptr);
    link.GetClient().Send("abcdef");
    link.WaitUntilReadable();
    char buffer[] = "------";
    unsigned int count = 99;

    EXPECT_EQ(link->ReadData(buffer, 4, count), LinkCallbackSuccess);
    EXPECT_EQ(count, 4u);
    EXPECT_STREQ(buffer, "abcd--");
    EXPECT_EQ(link->ReadData(buffer, 4, count), LinkCallbackSuccess);

    EXPECT_EQ(count, 2u);
    EXPECT_STREQ(buffer, "efcd--");
}

TEST(CQDTcpServerLink, ReadDataWithNothingToReadWouldBlock)
{
    RecordingLog log;
    LinkUnderTest link(&log, TcpServerLinkLoggingData);
    link->SetNonBlocking();
    log.Clear();
    char buffer[10];
    unsigned int count = 99;

    EXPECT_EQ(link->ReadData(buffer, sizeof buffer, count), LinkCallbackWouldBlock);

    EXPECT_EQ(count, 99u);
    EXPECT_EQ(link->GetLastReadWriteDataError(), 11); // EAGAIN
    EXPECT_THAT(log.GetTexts(), ElementsAre());
}

TEST(CQDTcpServerLink, ReadDataFromAPeerThatClosedIsPeerClosed)
{
    RecordingLog log;
    LinkUnderTest link(&log, TcpServerLinkLoggingData);
    log.Clear();
    link.GetClient().ShutdownSend();
    char buffer[10];
    unsigned int count = 99;

    EXPECT_EQ(link->ReadData(buffer, sizeof buffer, count), LinkCallbackPeerClosed);

    EXPECT_EQ(count, 99u);
    EXPECT_EQ(link->GetLastReadWriteDataError(), 0);
    EXPECT_THAT(log.GetTexts(), ElementsAre());
}

TEST(CQDTcpServerLink, ReadDataFromAPeerThatResetIsASocketError)
{
    LinkUnderTest link(nullptr);
    link.GetClient().Reset();
    link.WaitUntilReadable();
    char buffer[10];
    unsigned int count = 99;

    EXPECT_EQ(link->ReadData(buffer, sizeof buffer, count), LinkCallbackSocketError);

    EXPECT_EQ(count, 99u);
    EXPECT_EQ(link->GetLastReadWriteDataError(), 104); // ECONNRESET
}

TEST(CQDTcpServerLink, FailedTransfersKeepTheErrorAndLeaveTheCount)
{
    const struct
    {
        const char* m_Function;
        int m_Error;
        LinkCallbackResult m_Result;
    } cases[] = {
        {"recv", EAGAIN, LinkCallbackWouldBlock},      {"recv", EINTR, LinkCallbackSocketError},
        {"recv", ETIMEDOUT, LinkCallbackSocketError},  {"recv", ENOMEM, LinkCallbackSocketError},
        {"send", EAGAIN, LinkCallbackWouldBlock},      {"send", EINTR, LinkCallbackSocketError},
        {"send", ECONNRESET, LinkCallbackSocketError}, {"send", EPIPE, LinkCallbackSocketError},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.m_Function << " " << c.m_Error);
        RecordingLog log;
        LinkUnderTest link(&log, TcpServerLinkLoggingData);
        log.Clear();
        link.GetClient().Send("x");
        link.WaitUntilReadable();
        const FaultPlan plan(c.m_Function, 1, c.m_Error);
        char buffer[] = "data";
        unsigned int count = 99;

        const LinkCallbackResult result = std::strcmp(c.m_Function, "recv") == 0
                                              ? link->ReadData(buffer, sizeof buffer, count)
                                              : link->WriteData(buffer, sizeof buffer, count);

        EXPECT_TRUE(plan.HasFailed());
        EXPECT_EQ(result, c.m_Result);
        EXPECT_EQ(link->GetLastReadWriteDataError(), c.m_Error);
        EXPECT_EQ(count, 99u);
        EXPECT_THAT(log.GetTexts(), ElementsAre());
    }
}

TEST(CQDTcpServerLink, TransfersOfAClosedLinkAreSocketErrors)
{
    LinkUnderTest link(nullptr, TcpServerLinkLoggingDefault, -1);
    char buffer[4] = "abc";
    unsigned int count = 99;

    EXPECT_EQ(link->ReadData(buffer, sizeof buffer, count), LinkCallbackSocketError);
    EXPECT_EQ(link->GetLastReadWriteDataError(), 9); // EBADF
    EXPECT_EQ(link->WriteData(buffer, sizeof buffer, count), LinkCallbackSocketError);

    EXPECT_EQ(link->GetLastReadWriteDataError(), 9);
    EXPECT_EQ(count, 99u);
}

TEST(CQDTcpServerLink, EachTransferClearsTheLastError)
{
    const struct
    {
        const char* m_Name;
        std::function<LinkCallbackResult(LinkUnderTest&)> m_Transfer;
        LinkCallbackResult m_Result;
    } cases[] = {
        {"read",
         [](LinkUnderTest& link) {
             link.GetClient().Send("x");
             link.WaitUntilReadable();
             char buffer[4];
             unsigned int count;
             return link->ReadData(buffer, sizeof buffer, count);
         },
         LinkCallbackSuccess},
        {"end of stream",
         [](LinkUnderTest& link) {
             link.GetClient().ShutdownSend();
             link.WaitUntilReadable();
             char buffer[4];
             unsigned int count;
             return link->ReadData(buffer, sizeof buffer, count);
         },
         LinkCallbackPeerClosed},
        {"write",
         [](LinkUnderTest& link) {
             unsigned int count;
             return link->WriteData("x", 1, count);
         },
         LinkCallbackSuccess},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Name);
        LinkUnderTest link(nullptr);
        link->SetNonBlocking();
        char buffer[4];
        unsigned int count = 0;
        ASSERT_EQ(link->ReadData(buffer, sizeof buffer, count), LinkCallbackWouldBlock);
        ASSERT_EQ(link->GetLastReadWriteDataError(), EAGAIN);

        EXPECT_EQ(c.m_Transfer(link), c.m_Result);

        EXPECT_EQ(link->GetLastReadWriteDataError(), 0);
    }
}

TEST(CQDTcpServerLink, WriteDataSendsTheBytes)
{
    LinkUnderTest link(nullptr);
    unsigned int count = 99;

    EXPECT_EQ(link->WriteData("a\0\xFFz", 4, count), LinkCallbackSuccess);

    EXPECT_EQ(count, 4u);
    EXPECT_EQ(link.GetClient().Receive(4), std::string("a\0\xFFz", 4));
    EXPECT_EQ(link->GetLastReadWriteDataError(), 0);
}

TEST(CQDTcpServerLink, PartialWriteIsASuccessWithASmallerCount)
{
    LinkUnderTest link(nullptr);
    link->SetNonBlocking();
    link.MakeSendBufferSmall();
    std::string data(8 * 1024 * 1024, '\0'); // more than both sockets hold
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>(i % 251);
    unsigned int sent = 0;

    EXPECT_EQ(link->WriteData(data.data(), static_cast<unsigned int>(data.size()), sent), LinkCallbackSuccess);

    EXPECT_GT(sent, 0u);
    ASSERT_LT(sent, data.size());
    EXPECT_EQ(link.GetClient().Receive(sent), data.substr(0, sent));
}

TEST(CQDTcpServerLink, WriteDataWithoutRoomWouldBlock)
{
    LinkUnderTest link(nullptr);
    link->SetNonBlocking();
    const std::string data(1024 * 1024, 'x');
    unsigned int count = 0;
    // The other end takes bytes over in its own time, hence the limit is far off.
    LinkCallbackResult result = LinkCallbackSuccess;
    EXPECT_TRUE(WaitUntil([&] {
        count = 99;
        result = link->WriteData(data.data(), static_cast<unsigned int>(data.size()), count);
        return result != LinkCallbackSuccess;
    }));

    EXPECT_EQ(result, LinkCallbackWouldBlock);
    EXPECT_EQ(link->GetLastReadWriteDataError(), 11); // EAGAIN
    EXPECT_EQ(count, 99u);
}

TEST(CQDTcpServerLink, WriteDataToAPeerThatResetIsASocketErrorAndNoSignal)
{
    LinkUnderTest link(nullptr);
    link.GetClient().Reset();
    link.WaitUntilReadable();
    char buffer[4];
    unsigned int count = 99;
    ASSERT_EQ(link->ReadData(buffer, sizeof buffer, count), LinkCallbackSocketError);

    EXPECT_EQ(link->WriteData("x", 1, count), LinkCallbackSocketError); // SIGPIPE would end the program

    EXPECT_EQ(link->GetLastReadWriteDataError(), 32); // EPIPE
    EXPECT_EQ(count, 99u);
}

TEST(CQDTcpServerLink, TransferOfNoBytesReadsAsPeerClosed)
{
    LinkUnderTest link(nullptr);
    char buffer[4] = "abc";
    unsigned int count = 99;
    link.GetClient().Send("x");
    link.WaitUntilReadable();

    EXPECT_EQ(link->ReadData(buffer, 0, count), LinkCallbackPeerClosed);
    EXPECT_EQ(link->WriteData(buffer, 0, count), LinkCallbackPeerClosed);

    EXPECT_EQ(count, 99u);
    EXPECT_EQ(link->GetLastReadWriteDataError(), 0);
}

TEST(CQDTcpServerLink, BytesArePrintedAtLevel6UnderTheirDirection)
{
    RecordingLog log;
    LinkUnderTest link(&log, TcpServerLinkLoggingData);
    link.GetClient().Send("Hello");
    link.WaitUntilReadable();
    log.Clear();
    char buffer[64];
    unsigned int count = 0;

    ASSERT_EQ(link->ReadData(buffer, sizeof buffer, count), LinkCallbackSuccess);
    ASSERT_EQ(link->WriteData("\x01\x02", 2, count), LinkCallbackSuccess);
    ASSERT_EQ(link->WriteData("ABCDEFGHIJKLMNOP\n", 17, count), LinkCallbackSuccess);

    // Cells of missing bytes are three blanks each, and two more blanks stand around the columns.
    EXPECT_THAT(
        log.GetMessages(),
        ElementsAre(
            Message{COutputLog::Info, 0, "Echo 7 Rx  5 bytes: 48 65 6C 6C 6F" + std::string(11 * 3 + 2, ' ') + "Hello"},
            Message{COutputLog::Info, 0, "Echo 7 Tx  2 bytes: 01 02" + std::string(14 * 3 + 2, ' ') + ".."},
            Message{COutputLog::Info, 0, "Echo 7 Tx 17 bytes"},
            Message{COutputLog::Info, 0, "0000  41 42 43 44 45 46 47 48  49 4A 4B 4C 4D 4E 4F 50 ABCDEFGHIJKLMNOP"},
            Message{COutputLog::Info, 0, "0010  0A" + std::string(15 * 3 + 2, ' ') + "."}));
}

TEST(CQDTcpServerLink, BytesArePrintedAboveLevel5Only)
{
    const struct
    {
        TcpServerLinkLogging m_Level;
        std::size_t m_Lines;
    } cases[] = {
        {TcpServerLinkLoggingOff, 0},  {TcpServerLinkLoggingLifecycle, 0}, {TcpServerLinkLoggingDefault, 0},
        {TcpServerLinkLogging(3), 0},  {TcpServerLinkLoggingDetail, 0},    {TcpServerLinkLoggingReferences, 0},
        {TcpServerLinkLoggingData, 1}, {TcpServerLinkLogging(7), 1},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Level);
        RecordingLog log;
        LinkUnderTest link(&log, c.m_Level);
        link.GetClient().Send("x");
        link.WaitUntilReadable();
        char buffer[4];
        unsigned int count = 0;

        ASSERT_EQ(link->ReadData(buffer, sizeof buffer, count), LinkCallbackSuccess);
        ASSERT_EQ(link->WriteData("x", 1, count), LinkCallbackSuccess);

        EXPECT_EQ(log.CountContaining("Echo 7 Rx  1 bytes: 78"), c.m_Lines);
        EXPECT_EQ(log.CountContaining("Echo 7 Tx  1 bytes: 78"), c.m_Lines);
    }
}

TEST(CQDTcpServerLink, OnlyTheBytesThatWentAreCountedInTheDump)
{
    RecordingLog log;
    LinkUnderTest link(&log, TcpServerLinkLoggingData);
    link->SetNonBlocking();
    link.MakeSendBufferSmall();
    const std::string data(8 * 1024 * 1024, 'x');
    log.Clear();
    unsigned int count = 0;

    ASSERT_EQ(link->WriteData(data.data(), static_cast<unsigned int>(data.size()), count), LinkCallbackSuccess);

    ASSERT_LT(count, data.size());
    ASSERT_FALSE(log.GetTexts().empty());
    EXPECT_EQ(log.GetTexts().front(), "Echo 7 Tx " + std::to_string(count) + " bytes");
}

TEST(CQDTcpServerLink, DumpTitleHoldsTheWholePrefix)
{
    RecordingLog log;
    IdleServer server;
    Connection connection;
    TcpServerLinkCreateContext context = MakeContext(&log, &server, connection.GetAccepted(), TcpServerLinkLoggingData);
    context.m_pServerName = "ServerNameOfExactly31BytesLong.";
    ProbeLink link(context);
    log.Clear();
    unsigned int count = 0;

    ASSERT_EQ(link.WriteData("ABCDEFGHIJKLMNOPQ", 17, count), LinkCallbackSuccess);

    EXPECT_EQ(log.Count("ServerNameOfExactly31BytesLong. Tx 17 bytes"), 1u);
    link.CloseSocket(false);
}

TEST(CQDTcpServerLink, WriteModeIsSwitchedOnAndOff)
{
    LinkUnderTest link(nullptr, TcpServerLinkLoggingDefault, -1);

    link->EnableWriteMode();
    EXPECT_TRUE(link->IsWriteModeEnabled());
    link->EnableWriteMode();
    EXPECT_TRUE(link->IsWriteModeEnabled());
    link->DisableWriteMode();

    EXPECT_FALSE(link->IsWriteModeEnabled());
}

TEST(CQDTcpServerLink, TimeoutIsSetAndSwitchedOff)
{
    LinkUnderTest link(nullptr, TcpServerLinkLoggingDefault, -1);

    link->SetTimeout(CQDTimestamp(132277899670080000));
    EXPECT_EQ(link->GetTimeout().GetValue(), 132277899670080000);
    link->SetTimeout(CQDTimestamp::Never);

    EXPECT_EQ(link->GetTimeout().GetValue(), 0x7FFFFFFFFFFFFFFF);
}

TEST(CQDTcpServerLink, SetNonBlockingMakesTheSocketNonBlocking)
{
    RecordingLog log;
    LinkUnderTest link(&log);
    ASSERT_EQ(::fcntl(link->GetSocket(), F_GETFL) & O_NONBLOCK, 0);
    log.Clear();

    link->SetNonBlocking();

    EXPECT_EQ(::fcntl(link->GetSocket(), F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_THAT(log.GetTexts(), ElementsAre());
}

TEST(CQDTcpServerLink, FailedSetNonBlockingPrintsAnErrorAtEveryLevel)
{
    for (const TcpServerLinkLogging level : kAllLevels) {
        SCOPED_TRACE(level);
        RecordingLog log;
        LinkUnderTest link(&log, level);
        log.Clear();
        const FaultPlan plan("ioctl", 1, ENOTTY);

        link->SetNonBlocking();

        EXPECT_THAT(log.GetMessages(), ElementsAre(Message{COutputLog::Error, 0, "Echo 7: ioctl() failed, error 25"}));
    }
}

TEST(CQDTcpServerLink, CloseSocketTellsThenClosesThenForgetsTheSocket)
{
    RecordingLog log;
    LinkUnderTest link(&log);
    const int socket = link->GetSocket();
    log.Clear();
    link->m_OnDisconnect = [&] {
        EXPECT_EQ(link->GetSocket(), socket);
        unsigned int count = 0;
        EXPECT_EQ(link->WriteData("bye", 3, count), LinkCallbackSuccess);
        link->PrintLog(TcpServerLinkLoggingLifecycle, "OnDisconnect");
    };

    link->CloseSocket(false);

    EXPECT_THAT(log.GetTexts(), ElementsAre("Echo 7: OnDisconnect", "Echo 7: Close socket handle"));
    EXPECT_EQ(link->GetSocket(), -1);
    EXPECT_FALSE(IsOpen(socket));
    EXPECT_EQ(link.GetClient().Receive(100), "bye");
}

TEST(CQDTcpServerLink, HardResetSendsAReset)
{
    LinkUnderTest link(nullptr);

    link->CloseSocket(true);

    EXPECT_TRUE(link.GetClient().SawReset());
    EXPECT_EQ(link->GetSocket(), -1);
}

TEST(CQDTcpServerLink, CloseWithoutAResetIsOrderly)
{
    LinkUnderTest link(nullptr);
    unsigned int count = 0;
    ASSERT_EQ(link->WriteData("last words", 10, count), LinkCallbackSuccess);

    link->CloseSocket(false);

    EXPECT_EQ(link.GetClient().Receive(10), "last words");
    EXPECT_TRUE(link.GetClient().SawOrderlyClose());
}

TEST(CQDTcpServerLink, SocketIsClosedEvenWhenTheResetCannotBeAskedFor)
{
    LinkUnderTest link(nullptr);
    const FaultPlan plan("setsockopt", 1, EINVAL);

    link->CloseSocket(true);

    EXPECT_TRUE(plan.HasFailed());
    EXPECT_EQ(link->GetSocket(), -1);
    EXPECT_TRUE(link.GetClient().SawOrderlyClose());
}

TEST(CQDTcpServerLink, SecondCloseDoesNothing)
{
    RecordingLog log;
    LinkUnderTest link(&log);
    int disconnects = 0;
    link->m_OnDisconnect = [&] { ++disconnects; };
    link->CloseSocket(false);
    log.Clear();

    link->CloseSocket(true);

    EXPECT_EQ(disconnects, 1);
    EXPECT_THAT(log.GetTexts(), ElementsAre());
    EXPECT_TRUE(link.GetClient().SawOrderlyClose());
}

TEST(CQDTcpServerLink, CloseFromWithinOnDisconnectDoesNothing)
{
    RecordingLog log;
    LinkUnderTest link(&log);
    int disconnects = 0;
    link->m_OnDisconnect = [&] {
        ++disconnects;
        link->CloseSocket(true);
        EXPECT_TRUE(IsOpen(link->GetSocket()));
    };
    log.Clear();

    link->CloseSocket(false);

    EXPECT_EQ(disconnects, 1);
    EXPECT_THAT(log.GetTexts(), ElementsAre("Echo 7: Close socket handle"));
    EXPECT_TRUE(link.GetClient().SawOrderlyClose());
}

TEST(CQDTcpServerLink, CallOnRxDataStampsTheLastReceiveTimeBeforeTheCallback)
{
    LinkUnderTest link(nullptr, TcpServerLinkLoggingDefault, -1);
    long long inCallback = 0;
    link->m_OnRxData = [&] {
        inCallback = link->GetLastReceiveTime().GetValue();
        return LinkCallbackSuccess;
    };
    const long long before = CQDTimestamp::UTCNow().GetValue();

    EXPECT_FALSE(link->CallOnRxData());

    EXPECT_GE(inCallback, before);
    EXPECT_LE(inCallback, CQDTimestamp::UTCNow().GetValue());
    EXPECT_EQ(link->GetLastReceiveTime().GetValue(), inCallback);
}

TEST(CQDTcpServerLink, EveryCallOfOnRxDataStampsAnew)
{
    LinkUnderTest link(nullptr, TcpServerLinkLoggingDefault, -1);
    link->CallOnRxData();
    const CQDTimestamp first = link->GetLastReceiveTime();
    ASSERT_TRUE(WaitUntil([&] { return CQDTimestamp::UTCNow() > first; }));

    link->CallOnRxData();

    EXPECT_GT(link->GetLastReceiveTime(), first);
}

TEST(CQDTcpServerLink, OtherCallbacksDoNotStampTheLastReceiveTime)
{
    LinkUnderTest link(nullptr, TcpServerLinkLoggingDefault, -1);
    std::list<CQDTcpServerLinkMessage*> messages{new NumberedMessage(1)};

    link->CallOnTxComplete();
    link->CallOnTimeout(CQDTimestamp::UTCNow());
    link->DispatchMessages(messages);

    EXPECT_EQ(link->GetLastReceiveTime().GetValue(), 0);
}

TEST(CQDTcpServerLink, CallOnTimeoutHandsTheTimeOn)
{
    LinkUnderTest link(nullptr, TcpServerLinkLoggingDefault, -1);
    long long handedOn = 0;
    link->m_OnTimeout = [&](const CQDTimestamp& now) {
        handedOn = now.GetValue();
        return LinkCallbackSuccess;
    };

    EXPECT_FALSE(link->CallOnTimeout(CQDTimestamp(132277899670080000)));

    EXPECT_EQ(handedOn, 132277899670080000);
}

namespace
{

// What one callback result brings about.
struct ResultRow
{
    int m_Result;
    const char* m_Text; // null: nothing is printed
    COutputLog::LogType m_Type;
    bool m_Closes;
    unsigned int m_ProtocolErrors;
};

constexpr ResultRow kResultRows[] = {
    {0, nullptr, COutputLog::Info, false, 0},
    {1, nullptr, COutputLog::Info, false, 0},
    {2, "Echo 7: Socket closed", COutputLog::Info, true, 0},
    {3, "Echo 7: Socket error 110", COutputLog::Error, true, 0},
    {4, "Echo 7: Close socket", COutputLog::Info, true, 0},
    {5, "Echo 7: Protocol error", COutputLog::Info, true, 1},
    {6, "Echo 7: TLS error", COutputLog::Info, true, 0},
};

constexpr int kResultsWithoutARow[] = {7, 8, 100, INT_MAX, -1, -2, INT_MIN};

// One of the four ways from a callback's result to the decision. Runs the callback with `result` and returns whether
// the link is to be closed; for OnTxComplete(), what its caller makes of the raw result.
struct CallbackWay
{
    const char* m_Name;
    const char* m_Line;
    std::function<bool(LinkUnderTest&, LinkCallbackResult)> m_Run;
};

const CallbackWay kBoolWays[] = {
    {"OnRxData", "Echo 7: Call OnRxData",
     [](LinkUnderTest& link, LinkCallbackResult result) {
         link->m_OnRxData = [result] { return result; };
         return link->CallOnRxData();
     }},
    {"OnTimeout", "Echo 7: Call OnTimeout",
     [](LinkUnderTest& link, LinkCallbackResult result) {
         link->m_OnTimeout = [result](const CQDTimestamp&) { return result; };
         return link->CallOnTimeout(CQDTimestamp::UTCNow());
     }},
    {"OnMessage", "Echo 7: Call OnMessage",
     [](LinkUnderTest& link, LinkCallbackResult result) {
         link->m_OnMessage = [result](CQDTcpServerLinkMessage* message) {
             delete message;
             return result;
         };
         std::list<CQDTcpServerLinkMessage*> messages{new NumberedMessage(1)};
         return link->DispatchMessages(messages);
     }},
};

// Gives the link a last read error of 110 (ETIMEDOUT).
void FailARead(LinkUnderTest& link)
{
    const FaultPlan plan("recv", 1, ETIMEDOUT);
    char byte;
    unsigned int count = 0;
    ASSERT_EQ(link->ReadData(&byte, 1, count), LinkCallbackSocketError);
}

} // namespace

TEST(CQDTcpServerLink, ResultsArePrintedCountedAndDecideAboutTheLink)
{
    for (const ResultRow& row : kResultRows) {
        SCOPED_TRACE(row.m_Result);
        RecordingLog log;
        LinkUnderTest link(&log, TcpServerLinkLoggingLifecycle, -1);
        FailARead(link);
        log.Clear();

        EXPECT_EQ(link->ProcessLinkCallbackResult(LinkCallbackResult(row.m_Result)), row.m_Closes);

        std::vector<Message> expected;
        if (row.m_Text != nullptr)
            expected.push_back({row.m_Type, 0, row.m_Text});
        EXPECT_EQ(log.GetMessages(), expected);
        EXPECT_EQ(link.GetProtocolErrorCount(), row.m_ProtocolErrors);
    }
}

TEST(CQDTcpServerLink, ResultsWithoutARowKeepTheLink)
{
    for (const int result : kResultsWithoutARow) {
        SCOPED_TRACE(result);
        RecordingLog log;
        LinkUnderTest link(&log, TcpServerLinkLoggingReferences, -1);
        log.Clear();

        EXPECT_FALSE(link->ProcessLinkCallbackResult(LinkCallbackResult(result)));

        EXPECT_THAT(log.GetTexts(), ElementsAre());
        EXPECT_EQ(link.GetProtocolErrorCount(), 0u);
    }
}

TEST(CQDTcpServerLink, SocketErrorIsTheOneLinePrintedAtLevel0)
{
    for (const ResultRow& row : kResultRows) {
        SCOPED_TRACE(row.m_Result);
        RecordingLog log;
        LinkUnderTest link(&log, TcpServerLinkLoggingOff, -1);
        FailARead(link);

        EXPECT_EQ(link->ProcessLinkCallbackResult(LinkCallbackResult(row.m_Result)), row.m_Closes);

        std::vector<Message> expected;
        if (row.m_Result == 3)
            expected.push_back({COutputLog::Error, 0, "Echo 7: Socket error 110"});
        EXPECT_EQ(log.GetMessages(), expected);
        EXPECT_EQ(link.GetProtocolErrorCount(), row.m_ProtocolErrors); // counted although not printed
    }
}

TEST(CQDTcpServerLink, SocketErrorOfAResetNamesTheReset)
{
    RecordingLog log;
    LinkUnderTest link(&log);
    link.GetClient().Reset();
    link.WaitUntilReadable();
    link->m_OnRxData = [&] {
        char buffer[4];
        unsigned int count = 0;
        return link->ReadData(buffer, sizeof buffer, count);
    };

    EXPECT_TRUE(link->CallOnRxData());

    EXPECT_EQ(log.Count("Echo 7: Socket error 104"), 1u);
}

TEST(CQDTcpServerLink, CallsReturnTheProcessedResult)
{
    for (const CallbackWay& way : kBoolWays) {
        for (const ResultRow& row : kResultRows) {
            SCOPED_TRACE(testing::Message() << way.m_Name << " " << row.m_Result);
            RecordingLog log;
            LinkUnderTest link(&log, TcpServerLinkLoggingDetail, -1);
            FailARead(link);
            log.Clear();

            EXPECT_EQ(way.m_Run(link, LinkCallbackResult(row.m_Result)), row.m_Closes);

            std::vector<Message> expected{{COutputLog::Info, 0, way.m_Line}};
            if (row.m_Text != nullptr)
                expected.push_back({row.m_Type, 0, row.m_Text});
            EXPECT_EQ(log.GetMessages(), expected);
            EXPECT_EQ(link.GetProtocolErrorCount(), row.m_ProtocolErrors);
        }
    }
}

TEST(CQDTcpServerLink, CallsWithAResultWithoutARowKeepTheLink)
{
    for (const CallbackWay& way : kBoolWays) {
        for (const int result : kResultsWithoutARow) {
            SCOPED_TRACE(testing::Message() << way.m_Name << " " << result);
            LinkUnderTest link(nullptr, TcpServerLinkLoggingDetail, -1);

            EXPECT_FALSE(way.m_Run(link, LinkCallbackResult(result)));
        }
    }
}

TEST(CQDTcpServerLink, CallOnTxCompleteReturnsTheRawResult)
{
    for (const ResultRow& row : kResultRows) {
        SCOPED_TRACE(row.m_Result);
        RecordingLog log;
        LinkUnderTest link(&log, TcpServerLinkLoggingDetail, -1);
        FailARead(link);
        log.Clear();
        link->m_OnTxComplete = [&] { return LinkCallbackResult(row.m_Result); };

        EXPECT_EQ(static_cast<int>(link->CallOnTxComplete()), row.m_Result);

        std::vector<Message> expected{{COutputLog::Info, 0, "Echo 7: Call OnTxComplete"}};
        if (row.m_Text != nullptr)
            expected.push_back({row.m_Type, 0, row.m_Text});
        EXPECT_EQ(log.GetMessages(), expected);
        EXPECT_EQ(link.GetProtocolErrorCount(), row.m_ProtocolErrors);
    }
}

TEST(CQDTcpServerLink, CallOnTxCompleteReturnsValuesWithoutARowToo)
{
    for (const int result : kResultsWithoutARow) {
        SCOPED_TRACE(result);
        LinkUnderTest link(nullptr, TcpServerLinkLoggingDetail, -1);
        link->m_OnTxComplete = [result] { return LinkCallbackResult(result); };

        EXPECT_EQ(static_cast<int>(link->CallOnTxComplete()), result);
    }
}

TEST(CQDTcpServerLink, CallsLeaveTheSocketToTheirCaller)
{
    for (const CallbackWay& way : kBoolWays) {
        SCOPED_TRACE(way.m_Name);
        const int socket = OpenNullDevice();
        LinkUnderTest link(nullptr, TcpServerLinkLoggingDefault, socket);

        EXPECT_TRUE(way.m_Run(link, LinkCallbackPeerClosed));

        EXPECT_EQ(link->GetSocket(), socket);
        EXPECT_TRUE(IsOpen(socket));
    }
}

TEST(CQDTcpServerLink, MessagesArriveInOrder)
{
    RecordingLog log;
    LinkUnderTest link(&log, TcpServerLinkLoggingDetail, -1);
    log.Clear();
    std::vector<int> numbers;
    link->m_OnMessage = [&](CQDTcpServerLinkMessage* message) {
        TakeMessage(message, numbers);
        return LinkCallbackSuccess;
    };
    std::list<CQDTcpServerLinkMessage*> messages{new NumberedMessage(3), new NumberedMessage(1),
                                                 new NumberedMessage(2)};

    EXPECT_FALSE(link->DispatchMessages(messages));

    EXPECT_THAT(numbers, ElementsAre(3, 1, 2));
    EXPECT_THAT(log.GetTexts(), ElementsAre("Echo 7: Call OnMessage")); // once for all
    EXPECT_TRUE(messages.empty());
}

TEST(CQDTcpServerLink, AllMessagesAreDeliveredAfterOneThatAskedToClose)
{
    RecordingLog log;
    LinkUnderTest link(&log, TcpServerLinkLoggingDetail, -1);
    log.Clear();
    std::vector<int> numbers;
    link->m_OnMessage = [&](CQDTcpServerLinkMessage* message) {
        TakeMessage(message, numbers);
        return LinkCallbackResult(numbers.back());
    };
    // Each message's number is its result.
    std::list<CQDTcpServerLinkMessage*> messages;
    for (const int number : {0, 5, 0, 4, 5, 1})
        messages.push_back(new NumberedMessage(number));

    EXPECT_TRUE(link->DispatchMessages(messages));

    EXPECT_THAT(numbers, ElementsAre(0, 5, 0, 4, 5, 1));
    EXPECT_THAT(log.GetTexts(), ElementsAre("Echo 7: Call OnMessage", "Echo 7: Protocol error", "Echo 7: Close socket",
                                            "Echo 7: Protocol error"));
    EXPECT_EQ(link.GetProtocolErrorCount(), 2u);
}

TEST(CQDTcpServerLink, MessagesAreNotDeletedAfterOnMessage)
{
    LinkUnderTest link(nullptr, TcpServerLinkLoggingDefault, -1);
    std::unique_ptr<CQDTcpServerLinkMessage> kept;
    link->m_OnMessage = [&](CQDTcpServerLinkMessage* message) {
        kept.reset(message);
        return LinkCallbackCloseSocket;
    };
    std::list<CQDTcpServerLinkMessage*> messages{new NumberedMessage(42)};

    EXPECT_TRUE(link->DispatchMessages(messages));

    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(dynamic_cast<NumberedMessage&>(*kept).m_Number, 42); // a sanitizer would see it if it were gone
}

TEST(CQDTcpServerLink, NoMessagesAreDispatchedAsNone)
{
    RecordingLog log;
    LinkUnderTest link(&log, TcpServerLinkLoggingDetail, -1);
    log.Clear();
    std::list<CQDTcpServerLinkMessage*> messages;

    EXPECT_FALSE(link->DispatchMessages(messages));

    EXPECT_THAT(log.GetTexts(), ElementsAre("Echo 7: Call OnMessage"));
}

TEST(CQDTcpServerLink, MessageThatClosesTheSocketDoesNotKeepTheOthersBack)
{
    LinkUnderTest link(nullptr);
    std::vector<int> numbers;
    link->m_OnMessage = [&](CQDTcpServerLinkMessage* message) {
        TakeMessage(message, numbers);
        link->CloseSocket(false);
        return LinkCallbackSuccess;
    };
    std::list<CQDTcpServerLinkMessage*> messages{new NumberedMessage(1), new NumberedMessage(2)};

    EXPECT_FALSE(link->DispatchMessages(messages));

    EXPECT_THAT(numbers, ElementsAre(1, 2));
    EXPECT_TRUE(link.GetClient().SawOrderlyClose());
}

TEST(CQDTcpServerLink, EachLineHasItsLevel)
{
    const struct
    {
        const char* m_Line;
        int m_Level;
        std::function<void(ProbeLink&)> m_Act;
    } cases[] = {
        {"Echo 7: Created", 1, [](ProbeLink&) {}},
        {"Echo 7: Deleted", 1, [](ProbeLink&) {}},
        {"Echo 7: AddRef, RefCount = 2", 5, [](ProbeLink& link) { link.AddRef(), link.Release(); }},
        {"Echo 7: Release, RefCount = 1", 5, [](ProbeLink& link) { link.AddRef(), link.Release(); }},
        {"Echo 7: Socket closed", 1, [](ProbeLink& link) { link.ProcessLinkCallbackResult(LinkCallbackPeerClosed); }},
        {"Echo 7: Socket error 0", 0, [](ProbeLink& link) { link.ProcessLinkCallbackResult(LinkCallbackSocketError); }},
        {"Echo 7: Close socket", 1, [](ProbeLink& link) { link.ProcessLinkCallbackResult(LinkCallbackCloseSocket); }},
        {"Echo 7: Protocol error", 1,
         [](ProbeLink& link) { link.ProcessLinkCallbackResult(LinkCallbackProtocolError); }},
        {"Echo 7: TLS error", 1, [](ProbeLink& link) { link.ProcessLinkCallbackResult(LinkCallbackTlsError); }},
        {"Echo 7: Close socket handle", 1, [](ProbeLink& link) { link.CloseSocket(true); }},
        {"Echo 7: Call OnRxData", 4, [](ProbeLink& link) { link.CallOnRxData(); }},
        {"Echo 7: Call OnTxComplete", 4, [](ProbeLink& link) { link.CallOnTxComplete(); }},
        {"Echo 7: Call OnTimeout", 4, [](ProbeLink& link) { link.CallOnTimeout(CQDTimestamp::UTCNow()); }},
        {"Echo 7: Call OnMessage", 4,
         [](ProbeLink& link) {
             std::list<CQDTcpServerLinkMessage*> none;
             link.DispatchMessages(none);
         }},
        {"Echo 7: own line 3", 3,
         [](ProbeLink& link) { link.PrintLog(TcpServerLinkLogging(3), "own %s %d", "line", 3); }},
        {"Echo 7: own line 7", 7,
         [](ProbeLink& link) { link.PrintLog(TcpServerLinkLogging(7), "own %s %d", "line", 7); }},
        {"Echo 7: own error 8", 0, [](ProbeLink& link) { link.PrintError("own %s %d", "error", 8); }},
    };

    for (const auto& c : cases) {
        for (const TcpServerLinkLogging level : kAllLevels) {
            SCOPED_TRACE(testing::Message() << c.m_Line << " at level " << level);
            RecordingLog log;
            {
                LinkUnderTest link(&log, level, OpenNullDevice());
                c.m_Act(*link.operator->());
            }

            EXPECT_EQ(log.Count(c.m_Line), level >= c.m_Level ? 1u : 0u);
        }
    }
}

TEST(CQDTcpServerLink, LinesAreInformationAndErrorsAreErrors)
{
    RecordingLog log;
    LinkUnderTest link(&log, TcpServerLinkLoggingOff, -1);

    link->PrintLog(TcpServerLinkLoggingOff, "%u of %u", 1u, 2u);
    link->PrintError("%s", "broken");

    EXPECT_THAT(log.GetMessages(), ElementsAre(Message{COutputLog::Info, 0, "Echo 7: 1 of 2"},
                                               Message{COutputLog::Error, 0, "Echo 7: broken"}));
}

TEST(CQDTcpServerLink, LinkWithoutALogWorks)
{
    LinkUnderTest link(nullptr, TcpServerLinkLoggingData);
    std::list<CQDTcpServerLinkMessage*> messages{new NumberedMessage(1)};
    link.GetClient().Send("x");
    link.WaitUntilReadable();
    char buffer[4];
    unsigned int count = 0;

    EXPECT_EQ(link->ReadData(buffer, sizeof buffer, count), LinkCallbackSuccess);
    EXPECT_EQ(link->WriteData("x", 1, count), LinkCallbackSuccess);
    EXPECT_FALSE(link->CallOnRxData());
    EXPECT_EQ(link->CallOnTxComplete(), LinkCallbackSuccess);
    EXPECT_FALSE(link->CallOnTimeout(CQDTimestamp::UTCNow()));
    EXPECT_FALSE(link->DispatchMessages(messages));
    EXPECT_TRUE(link->ProcessLinkCallbackResult(LinkCallbackSocketError));
    link->PrintError("unheard");
    link->CloseSocket(true);
    link->SetNonBlocking();

    EXPECT_EQ(link->GetSocket(), -1);
}

TEST(CQDTcpServerLink, TransfersAndCallbacksAllocateNothing)
{
    for (const TcpServerLinkLogging level : {TcpServerLinkLoggingDefault, TcpServerLinkLoggingData}) {
        SCOPED_TRACE(level);
        COutputLogNull log;
        LinkUnderTest link(&log, level);
        link->SetNonBlocking();
        char data[64] = "ping";
        link.GetClient().Send("pong");
        link.WaitUntilReadable();
        unsigned int count = 0;
        link->m_OnRxData = [&] {
            const LinkCallbackResult result = link->ReadData(data, sizeof data, count);
            return result == LinkCallbackSuccess ? link->WriteData(data, count, count) : result;
        };
        link->CallOnRxData(); // what the C library sets up once
        const AllocationCounter allocations;

        for (int i = 0; i < 100; ++i) {
            link->CallOnRxData();
            link->WriteData(data, sizeof data, count);
            link->ReadData(data, sizeof data, count);
            link->CallOnTxComplete();
            link->AddRef();
            link->Release();
        }

        EXPECT_EQ(allocations.GetCount(), 0u);
    }
}

TEST(CQDTcpServerLink, PeerThatClosedIsPrintedAndItsLinkClosedWithAReset)
{
    RecordingLog log;
    const ReservedPort port;
    LiveServer server(&log, port.Get(), [](ProbeLink& link) {
        link.m_OnRxData = [&link] {
            char buffer[4];
            unsigned int count = 0;
            return link.ReadData(buffer, sizeof buffer, count);
        };
    });
    ASSERT_TRUE(server.StartTcpServer());
    LoopbackClient client(port.Get());

    client.ShutdownSend();

    EXPECT_TRUE(client.SawReset());
    EXPECT_TRUE(WaitUntil([&] { return server.GetLinkCount() == 0; }));
    EXPECT_EQ(log.Count("Live 1: Socket closed"), 1u);
    EXPECT_EQ(log.Count("Live 1: Close socket handle"), 1u);
}

TEST(CQDTcpServerLink, CloseResultOfOnTxCompleteIsOrderly)
{
    RecordingLog log;
    const ReservedPort port;
    LiveServer server(&log, port.Get(), [](ProbeLink& link) {
        link.EnableWriteMode();
        link.m_OnTxComplete = [&link] {
            unsigned int count = 0;
            EXPECT_EQ(link.WriteData("done", 4, count), LinkCallbackSuccess);
            return LinkCallbackCloseSocket;
        };
    });
    ASSERT_TRUE(server.StartTcpServer());
    LoopbackClient client(port.Get());

    EXPECT_EQ(client.Receive(4), "done");
    EXPECT_TRUE(client.SawOrderlyClose());

    EXPECT_TRUE(WaitUntil([&] { return server.GetLinkCount() == 0; }));
    EXPECT_EQ(log.Count("Live 1: Close socket"), 1u);
}

TEST(CQDTcpServerLink, CloseResultOfOnRxDataIsAReset)
{
    RecordingLog log;
    const ReservedPort port;
    LiveServer server(&log, port.Get(), [](ProbeLink& link) {
        link.m_OnRxData = [&link] { return ReadAndReturn(link, LinkCallbackCloseSocket); };
    });
    ASSERT_TRUE(server.StartTcpServer());
    LoopbackClient client(port.Get());

    client.Send("x");

    EXPECT_TRUE(client.SawReset());
    EXPECT_TRUE(WaitUntil([&] { return server.GetLinkCount() == 0; }));
    EXPECT_EQ(log.Count("Live 1: Close socket"), 1u);
}

TEST(CQDTcpServerLink, ProtocolErrorOfAnyCallbackIsCountedOnceAndCloses)
{
    const struct
    {
        const char* m_Name;
        std::function<void(ProbeLink&)> m_SetUp;
        std::function<void(LiveServer&, LoopbackClient&)> m_Provoke;
    } cases[] = {
        {"OnRxData",
         [](ProbeLink& link) { link.m_OnRxData = [&link] { return ReadAndReturn(link, LinkCallbackProtocolError); }; },
         [](LiveServer&, LoopbackClient& client) { client.Send("x"); }},
        {"OnTxComplete",
         [](ProbeLink& link) {
             link.EnableWriteMode();
             link.m_OnTxComplete = [] { return LinkCallbackProtocolError; };
         },
         [](LiveServer&, LoopbackClient&) {}},
        {"OnTimeout",
         [](ProbeLink& link) {
             link.SetTimeout(CQDTimestamp::UTCNow());
             link.m_OnTimeout = [](const CQDTimestamp&) { return LinkCallbackProtocolError; };
         },
         [](LiveServer&, LoopbackClient&) {}},
        {"OnMessage",
         [](ProbeLink& link) {
             link.m_OnMessage = [](CQDTcpServerLinkMessage* message) {
                 delete message;
                 return LinkCallbackProtocolError;
             };
         },
         [](LiveServer& server, LoopbackClient&) {
             EXPECT_TRUE(WaitUntil([&] { return server.PostLinkMessage(new CQDTcpServerLinkMessage(1)); }));
         }},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Name);
        RecordingLog log;
        const ReservedPort port;
        LiveServer server(&log, port.Get(), c.m_SetUp);
        ASSERT_TRUE(server.StartTcpServer());
        LoopbackClient client(port.Get());

        c.m_Provoke(server, client);

        EXPECT_TRUE(client.SawReset());
        EXPECT_TRUE(WaitUntil([&] { return server.GetLinkCount() == 0; }));
        EXPECT_EQ(server.GetProtocolErrorCount(), 1u);
        EXPECT_EQ(log.Count("Live 1: Protocol error"), 1u);
    }
}

TEST(CQDTcpServerLink, LiveLinkIsKeptByResultsWithoutARow)
{
    for (const int result : {7, -1}) {
        SCOPED_TRACE(result);
        RecordingLog log;
        const ReservedPort port;
        LiveServer server(&log, port.Get(), [result](ProbeLink& link) {
            link.m_OnRxData = [&link, result] {
                ReadAndReturn(link, LinkCallbackSuccess);
                unsigned int count = 0;
                EXPECT_EQ(link.WriteData("k", 1, count), LinkCallbackSuccess);
                return LinkCallbackResult(result);
            };
        });
        ASSERT_TRUE(server.StartTcpServer());
        LoopbackClient client(port.Get());

        for (int i = 0; i < 3; ++i) {
            client.Send("x");
            EXPECT_EQ(client.Receive(1), "k");
        }

        EXPECT_EQ(server.GetLinkCount(), 1u);
        EXPECT_EQ(server.GetProtocolErrorCount(), 0u);
        server.StopTcpServer(); // before the client closes, which would be one more thing to read
    }
}
