// The station's server and its links, over real sockets.
#include "FaultPlan.h"
#include "FixedHostFigures.h"
#include "HexText.h"
#include "LinkOnItsOwn.h"
#include "LoopbackClient.h"
#include "ModbusClient.h"
#include "RecordingLog.h"
#include "WaitUntil.h"

#include <ProcessImage.h>
#include <StationLink.h>
#include <StationServer.h>

#include <QDPlatform/QDTcpServerLinkMessage.h>

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <list>
#include <string>
#include <thread>
#include <vector>

namespace
{

constexpr CQDTimeInterval kLong(CQDTimeInterval::TicksPerHour);

// A started station, with a port of its own and the fixed figures.
struct RunningStation
{
    explicit RunningStation(CQDTimeInterval idleTimeout = kLong, unsigned int linksPerThread = 64,
                            TcpServerLinkLogging level = TcpServerLinkLoggingDefault) :
        m_Server(&m_Log, m_Image, m_Port.Get(), linksPerThread, idleTimeout)
    {
        m_Server.SetLinkLogging(level);
        EXPECT_TRUE(m_Server.StartTcpServer());
    }

    ~RunningStation() { m_Server.StopTcpServer(); }

    LoopbackClient Connect() const { return LoopbackClient(m_Port.Get()); }

    bool LogComesToHave(const std::string& text) const
    {
        return WaitUntil([&] { return m_Log.Has(text); });
    }

    template<class Function>
    void ForEachLink(Function function)
    {
        std::list<CQDTcpServerLink*> links;
        m_Server.GetAllLinks(links);
        for (CQDTcpServerLink* link : links) {
            function(*link);
            link->Release();
        }
    }

    bool IsAnyLinkInWriteMode()
    {
        bool found = false;
        ForEachLink([&](const CQDTcpServerLink& link) { found = found || link.IsWriteModeEnabled(); });
        return found;
    }

    // From now on a client that does not read makes the station's writes short at once.
    void ShrinkSendBuffers()
    {
        const int smallest = 1;
        ForEachLink([&](const CQDTcpServerLink& link) {
            EXPECT_EQ(::setsockopt(link.GetSocket(), SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest), 0);
        });
    }

    uint16_t GetHoldingRegister(std::size_t address) const
    {
        std::array<uint16_t, 1> value{};
        EXPECT_TRUE(m_Image.ReadHoldingRegisters(address, value));
        return value[0];
    }

    ReservedPort m_Port;
    RecordingLog m_Log;
    ProcessImage m_Image{&FixedHostFigures};
    StationServer m_Server;
};

} // namespace

TEST(StationLink, AnswerCarriesTransactionAndUnitOfTheRequest)
{
    const RunningStation station;
    LoopbackClient client = station.Connect();

    client.Send(FromHex("BEEF 0000 0006 F7 04 0000 0002"));

    EXPECT_EQ(ToHex(client.Receive(13)), "BEEF00000007F7040400012345");
}

TEST(StationLink, ServesEveryFunction)
{
    const RunningStation station;
    LoopbackClient client = station.Connect();

    EXPECT_EQ(Ask(client, "05 0003 FF00"), "050003FF00");
    EXPECT_EQ(Ask(client, "0F 0004 0002 01 02"), "0F00040002");
    EXPECT_EQ(Ask(client, "01 0000 0008"), "010128");
    EXPECT_EQ(Ask(client, "02 0000 0004"), "020100");
    EXPECT_EQ(Ask(client, "06 0007 1234"), "0600071234");
    EXPECT_EQ(Ask(client, "10 0008 0002 04 5678 9ABC"), "1000080002");
    EXPECT_EQ(Ask(client, "03 0007 0003"), "0306123456789ABC");
    EXPECT_EQ(Ask(client, "04 0007 0003"), "040607E80002001D");
}

TEST(StationLink, ExceptionsKeepTheLink)
{
    const RunningStation station;
    LoopbackClient client = station.Connect();

    EXPECT_EQ(Ask(client, "2B 0E 01 00"), "AB01");
    EXPECT_EQ(Ask(client, "03 0400 0001"), "8302");
    EXPECT_EQ(Ask(client, "03 0000 007E"), "8303");
    EXPECT_EQ(Ask(client, "10 0000 0002 03 0000 0000"), "9003");
    EXPECT_EQ(Ask(client, "03"), "8303");
    EXPECT_EQ(Ask(client, "03 0000 0001"), "03020000");
    EXPECT_EQ(station.m_Server.GetProtocolErrorCount(), 0u);
}

TEST(StationLink, RequestThatArrivesByteByByteIsAnsweredOnce)
{
    const RunningStation station(kLong, 64, TcpServerLinkLoggingData);
    LoopbackClient client = station.Connect();
    const int on = 1;
    ASSERT_EQ(::setsockopt(client.GetSocket(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on), 0);
    const std::string request = Frame(7, "03 0000 0001");

    for (std::size_t i = 0; i < request.size(); ++i) {
        client.Send(request.substr(i, 1));
        // Printed once the byte has been read, so that the next one cannot come along with it.
        ASSERT_TRUE(WaitUntil([&] { return station.m_Log.CountContaining("Link 1 Rx") == i + 1; }));
    }

    EXPECT_EQ(ToHex(client.Receive(11)), "0007000000050103020000");
    EXPECT_EQ(Ask(client, "03 0000 0001"), "03020000");
}

TEST(StationLink, FiftyRequestsInOneSegmentAreAnsweredInOrder)
{
    const RunningStation station;
    LoopbackClient client = station.Connect();
    std::string requests;
    for (unsigned int i = 1; i <= 25; ++i)
        requests += Frame(2 * i - 1, "06 0000" + Hex16(i)) + Frame(2 * i, "03 0000 0001");

    client.Send(requests);

    for (unsigned int i = 1; i <= 25; ++i) {
        SCOPED_TRACE(i);
        unsigned int transaction = 0;
        EXPECT_EQ(ReceivePdu(client, transaction), "060000" + Hex16(i));
        EXPECT_EQ(transaction, 2 * i - 1);
        EXPECT_EQ(ReceivePdu(client, transaction), "0302" + Hex16(i));
        EXPECT_EQ(transaction, 2 * i);
    }
}

TEST(StationLink, SegmentMayEndInsideARequest)
{
    const RunningStation station;
    LoopbackClient client = station.Connect();
    const std::string two = Frame(1, "06 0000 1111") + Frame(2, "03 0000 0001");

    client.Send(two.substr(0, 17));
    EXPECT_EQ(ToHex(client.Receive(12)), "000100000006010600001111");
    client.Send(two.substr(17));

    EXPECT_EQ(ToHex(client.Receive(11)), "0002000000050103021111");
}

TEST(StationLink, StreamOfLongRequestsLargerThanTheBufferIsAnswered)
{
    const RunningStation station;
    LoopbackClient client = station.Connect();
    std::string registers;
    for (int i = 0; i < 123; ++i)
        registers += "A55A";
    std::string requests;
    for (unsigned int i = 1; i <= 100; ++i)
        requests += Frame(i, "10 0000 007B F6" + registers);

    client.Send(requests);

    for (unsigned int i = 1; i <= 100; ++i) {
        unsigned int transaction = 0;
        ASSERT_EQ(ReceivePdu(client, transaction), "100000007B");
        ASSERT_EQ(transaction, i);
    }
    EXPECT_EQ(station.GetHoldingRegister(122), 0xA55A);
}

TEST(StationLink, WhatIsNoFrameClosesTheLinkAndTheLogSaysWhy)
{
    const struct
    {
        const char* m_Sent;
        const char* m_Reason;
    } cases[] = {
        {"0001 0001 0006 01 03 0000 0001", "protocol identifier 1 is not Modbus"},
        {"0001 0000 0000 01 03 0000 0001", "length 0 is not within 2 to 254"},
        {"0001 0000 0001 01", "length 1 is not within 2 to 254"},
        {"0001 0000 00FF 01 03 0000 0001", "length 255 is not within 2 to 254"},
        {"4745 5420 2F20 4854", "protocol identifier 21536 is not Modbus"},
    };

    for (const auto& test : cases) {
        SCOPED_TRACE(test.m_Sent);
        const RunningStation station(kLong, 64, TcpServerLinkLoggingOff);
        LoopbackClient client = station.Connect();

        client.Send(FromHex(test.m_Sent));

        EXPECT_TRUE(client.SawReset());
        EXPECT_TRUE(station.LogComesToHave(std::string("Link 1: Bad frame, closing the link: ") + test.m_Reason));
        EXPECT_EQ(station.m_Server.GetProtocolErrorCount(), 1u);
    }
}

TEST(StationLink, RequestsBeforeABadFrameAreAnswered)
{
    const RunningStation station;
    LoopbackClient client = station.Connect();

    client.Send(Frame(1, "06 0005 0042") + FromHex("0002 FFFF 0006 01 03 0000 0001"));

    EXPECT_EQ(ToHex(client.Receive(12)), "000100000006010600050042");
    EXPECT_TRUE(client.SawReset());
    EXPECT_EQ(station.GetHoldingRegister(5), 0x42);
}

TEST(StationLink, OtherLinksOfTheWorkerAreUndisturbed)
{
    const RunningStation station;
    LoopbackClient before = station.Connect();
    EXPECT_EQ(Ask(before, "06 0000 0001"), "0600000001");
    LoopbackClient bad = station.Connect();
    LoopbackClient after = station.Connect();
    after.Send(Frame(1, "03 0000 0001").substr(0, 9)); // half a request

    bad.Send("GET / HTTP/1.0\r\n\r\n");
    ASSERT_TRUE(bad.SawReset());

    EXPECT_EQ(Ask(before, "03 0000 0001"), "03020001");
    after.Send(Frame(1, "03 0000 0001").substr(9));
    EXPECT_EQ(ToHex(after.Receive(11)), "0001000000050103020001");
}

TEST(StationLink, EndInTheMiddleOfARequestIsLogged)
{
    RunningStation station;
    LoopbackClient client = station.Connect();

    client.Send(Frame(1, "06 0000 0001").substr(0, 11));
    client.ShutdownSend();

    EXPECT_TRUE(station.LogComesToHave("Link 1: The client closed after 11 bytes of a request"));
    EXPECT_TRUE(WaitUntil([&] { return station.m_Server.GetLinkCount() == 0u; }));
    EXPECT_EQ(station.GetHoldingRegister(0), 0);
}

TEST(StationLink, EndBetweenRequestsIsOrdinary)
{
    RunningStation station;
    LoopbackClient client = station.Connect();
    EXPECT_EQ(Ask(client, "03 0000 0001"), "03020000");

    client.Close();

    EXPECT_TRUE(station.LogComesToHave("Link 1: Socket closed"));
    EXPECT_EQ(station.m_Log.CountContaining("The client closed after"), 0u);
}

TEST(StationLink, SlowReaderGetsEveryAnswerThroughWriteMode)
{
    RunningStation station;
    LoopbackClient client = station.Connect();
    EXPECT_EQ(Ask(client, "03 0000 0001"), "03020000");
    station.ShrinkSendBuffers();
    unsigned int asked = 0;
    unsigned int batches = 0;
    // 40 long answers, and a write that shows that the station has got so far.
    const auto sendBatch = [&] {
        std::string requests;
        for (int i = 0; i < 40; ++i)
            requests += Frame(++asked, "03 0100 007D");
        ++batches;
        client.Send(requests + Frame(++asked, "06 0000" + Hex16(batches)));
        ASSERT_TRUE(WaitUntil([&] { return station.GetHoldingRegister(0) == batches; }));
    };
    while (!station.IsAnyLinkInWriteMode()) {
        ASSERT_LT(batches, 5000u) << "the socket takes whatever it is given";
        ASSERT_NO_FATAL_FAILURE(sendBatch());
    }
    for (int i = 0; i < 10; ++i)
        ASSERT_NO_FATAL_FAILURE(sendBatch()); // waits behind what waits already

    unsigned int wrong = 0;
    for (unsigned int i = 1; i <= asked; ++i) {
        unsigned int transaction = 0;
        const std::string answer = ReceivePdu(client, transaction);
        ASSERT_FALSE(answer.empty()) << "the link ended at answer " << i;
        wrong += transaction != i || answer.size() != (i % 41 == 0 ? 10u : 504u);
    }

    EXPECT_EQ(wrong, 0u);
    EXPECT_TRUE(WaitUntil([&] { return !station.IsAnyLinkInWriteMode(); }));
    EXPECT_EQ(Ask(client, "03 0100 0001"), "03020000");
}

TEST(StationLink, ClientThatNeverReadsIsClosed)
{
    const RunningStation station;
    LoopbackClient client = station.Connect();
    LoopbackClient other = station.Connect();
    std::string requests;
    for (unsigned int i = 0; i < 100; ++i)
        requests += Frame(i, "03 0000 007D");

    ssize_t sent = 0;
    for (int i = 0; i < 5000 && sent >= 0; ++i)
        sent = ::send(client.GetSocket(), requests.data(), requests.size(), MSG_NOSIGNAL);

    EXPECT_LT(sent, 0);
    EXPECT_TRUE(WaitUntil([&] {
        return station.m_Log.CountContaining("bytes of answers wait for a client that does not read, closing") == 1;
    }));
    EXPECT_EQ(Ask(other, "03 0000 0001"), "03020000");
}

TEST(StationLink, IdleLinkIsClosedAndTheLogSaysWhy)
{
    RunningStation station(CQDTimeInterval(50 * CQDTimeInterval::TicksPerMillisecond));
    LoopbackClient client = station.Connect();

    EXPECT_TRUE(client.SawReset());
    EXPECT_TRUE(station.LogComesToHave("Link 1: No request for 00:00.050, closing the link"));
    EXPECT_TRUE(WaitUntil([&] { return station.m_Server.GetLinkCount() == 0u; }));
}

TEST(StationLink, PostedMessageIsDeletedAndKeepsTheLink)
{
    struct Message : CQDTcpServerLinkMessage
    {
        explicit Message(std::atomic<bool>& deleted) : CQDTcpServerLinkMessage(1), m_Deleted(deleted) {}

        ~Message() override { m_Deleted.store(true); }

        std::atomic<bool>& m_Deleted;
    };

    RunningStation station;
    LoopbackClient client = station.Connect();
    EXPECT_EQ(Ask(client, "03 0000 0001"), "03020000");
    std::atomic<bool> deleted{false};

    EXPECT_TRUE(station.m_Server.PostLinkMessage(new Message(deleted)));

    EXPECT_TRUE(WaitUntil([&] { return deleted.load(); }));
    EXPECT_EQ(Ask(client, "03 0000 0001"), "03020000");
}

namespace
{

using StationLinkOnItsOwn = LinkOnItsOwn<StationLink, StationServer>;

} // namespace

TEST(StationLink, CompleteRequestRestartsTheIdleTime)
{
    const StationLinkOnItsOwn link;
    link.Send(Frame(1, "03 0000 0001"));

    const CQDTimestamp before = CQDTimestamp::UTCNow();
    EXPECT_FALSE(link.m_pLink->CallOnRxData());
    const CQDTimestamp after = CQDTimestamp::UTCNow();

    EXPECT_GE(link.m_pLink->GetTimeout(), before + kLong);
    EXPECT_LE(link.m_pLink->GetTimeout(), after + kLong);
}

TEST(StationLink, PartOfARequestDoesNotRestartTheIdleTime)
{
    const StationLinkOnItsOwn link;
    link.m_pLink->SetTimeout(CQDTimestamp(1000));
    link.Send(Frame(1, "03 0000 0001").substr(0, 11));

    EXPECT_FALSE(link.m_pLink->CallOnRxData());

    EXPECT_EQ(link.m_pLink->GetTimeout(), CQDTimestamp(1000));
}

TEST(StationLink, AnswerThatFindsNoRoomWaitsInWriteMode)
{
    const StationLinkOnItsOwn link;
    link.Send(Frame(1, "03 0000 0001"));

    {
        const FaultPlan noRoom("send", 1, EAGAIN);
        EXPECT_FALSE(link.m_pLink->CallOnRxData());
        ASSERT_TRUE(noRoom.HasFailed());
    }

    EXPECT_TRUE(link.m_pLink->IsWriteModeEnabled());
    EXPECT_EQ(link.Receive(), "");
    EXPECT_EQ(link.m_pLink->CallOnTxComplete(), LinkCallbackSuccess);
    EXPECT_EQ(ToHex(link.Receive()), "0001000000050103020000");
    EXPECT_FALSE(link.m_pLink->IsWriteModeEnabled());
}

TEST(StationLink, AnswersThatWaitComeBeforeLaterOnes)
{
    const StationLinkOnItsOwn link;
    link.Send(Frame(1, "03 0000 0001"));
    {
        const FaultPlan noRoom("send", 1, EAGAIN);
        EXPECT_FALSE(link.m_pLink->CallOnRxData());
    }
    link.Send(Frame(2, "03 0000 0001"));

    EXPECT_FALSE(link.m_pLink->CallOnRxData());

    EXPECT_EQ(ToHex(link.Receive()), "0001000000050103020000"
                                     "0002000000050103020000");
    EXPECT_FALSE(link.m_pLink->IsWriteModeEnabled());
}

// The worker asked for room before OnRxData() sent everything and left write mode.
TEST(StationLink, RoomToWriteWithNothingLeftToSendKeepsTheLink)
{
    const StationLinkOnItsOwn link;

    EXPECT_EQ(link.m_pLink->CallOnTxComplete(), LinkCallbackSuccess);
}

TEST(StationLink, FailedSendClosesTheLink)
{
    const StationLinkOnItsOwn link;
    link.Send(Frame(1, "03 0000 0001"));
    const FaultPlan broken("send", 1, ECONNRESET);

    EXPECT_TRUE(link.m_pLink->CallOnRxData());

    EXPECT_TRUE(link.m_Log.Has("Link 1: Socket error 104"));
}

TEST(StationServer, AnswersOverIPv6)
{
    const RunningStation station;
    LoopbackClient client(station.m_Port.Get(), AF_INET6);

    EXPECT_EQ(Ask(client, "04 0007 0001"), "040207E8");
}

TEST(StationServer, ClientsOfSeveralWorkersShareTheImage)
{
    const RunningStation station(kLong, 1);
    LoopbackClient writer = station.Connect();
    LoopbackClient reader = station.Connect();

    EXPECT_EQ(Ask(writer, "06 0010 CAFE"), "060010CAFE");

    EXPECT_EQ(Ask(reader, "03 0010 0001"), "0302CAFE");
    EXPECT_TRUE(station.m_Log.Has("TCPThread 2: Created"));
}

TEST(StationServer, AnswerIsOneMomentWhileOtherWorkersWrite)
{
    const RunningStation station(kLong, 1);
    std::atomic<bool> stop{false};
    std::atomic<unsigned int> failures{0};
    const auto write = [&](const std::string& value) {
        LoopbackClient client = station.Connect();
        std::string registers;
        for (int i = 0; i < 123; ++i)
            registers += value;
        while (!stop.load())
            failures += Ask(client, "10 0000 007B F6" + registers) != "100000007B";
    };
    std::thread first(write, "1111");
    std::thread second(write, "2222");
    LoopbackClient reader = station.Connect();

    unsigned int torn = 0;
    for (int i = 0; i < 500; ++i) {
        const std::string answer = Ask(reader, "03 0000 007B"); // two bytes, and then one digit again and again
        torn += answer.size() != 4u + 4u * 123u || answer.find_first_not_of(answer.back(), 4) != std::string::npos;
    }
    stop.store(true);
    first.join();
    second.join();

    EXPECT_EQ(torn, 0u);
    EXPECT_EQ(failures.load(), 0u);
}

TEST(StationServer, LinkMayGoAMinuteWithoutARequestUnlessSaidOtherwise)
{
    const ReservedPort port;
    RecordingLog log;
    ProcessImage image;
    StationServer server(&log, image, port.Get(), 64);
    ASSERT_TRUE(server.StartTcpServer());
    LoopbackClient client(port.Get());
    const CQDTimeInterval minute(CQDTimeInterval::TicksPerMinute);

    const CQDTimestamp before = CQDTimestamp::UTCNow();
    EXPECT_EQ(Ask(client, "03 0000 0001"), "03020000");
    // Stopped, the worker touches the time no more.
    std::list<CQDTcpServerLink*> links;
    server.GetAllLinks(links);
    server.StopTcpServer();
    const CQDTimestamp after = CQDTimestamp::UTCNow();

    ASSERT_EQ(links.size(), 1u);
    EXPECT_GE(links.front()->GetTimeout(), before + minute);
    EXPECT_LE(links.front()->GetTimeout(), after + minute);
    links.front()->Release();
}

TEST(StationServer, StopClosesOpenLinks)
{
    RunningStation station(kLong, 1);
    LoopbackClient idle = station.Connect();
    LoopbackClient busy = station.Connect();
    EXPECT_EQ(Ask(busy, "03 0000 0001"), "03020000");
    ASSERT_TRUE(WaitUntil([&] { return station.m_Server.GetLinkCount() == 2u; }));

    station.m_Server.StopTcpServer();

    EXPECT_EQ(station.m_Server.GetLinkCount(), 0u);
    EXPECT_TRUE(idle.SawReset());
    EXPECT_TRUE(busy.SawReset());
}

TEST(StationServer, DoesNotStartWithoutIPv4EvenIfIPv6IsFree)
{
    const ReservedPort port;
    const int other = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(other, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port.Get());
    ASSERT_EQ(::bind(other, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(other, 1), 0);
    RecordingLog log;
    ProcessImage image;
    StationServer server(&log, image, port.Get(), 64, kLong);

    EXPECT_FALSE(server.StartTcpServer());

    EXPECT_EQ(log.CountContaining("bind() failed. Error 98: "), 1u);
    ::close(other);
}

TEST(StationServer, StartsWithoutIPv6)
{
    const ReservedPort port;
    RecordingLog log;
    ProcessImage image;
    StationServer server(&log, image, port.Get(), 64, kLong);
    {
        const FaultPlan noIPv6("socket", 2, EAFNOSUPPORT);
        ASSERT_TRUE(server.StartTcpServer());
        ASSERT_TRUE(noIPv6.HasFailed());
    }
    LoopbackClient client(port.Get());

    EXPECT_EQ(Ask(client, "03 0000 0001"), "03020000");

    server.StopTcpServer();
}
