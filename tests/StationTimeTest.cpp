// The station's time: SNTP packets, byte by byte, the server that answers them, over real sockets, and the station that
// has it.
#include "ChildProcess.h"
#include "HexText.h"
#include "LoopbackClient.h"
#include "RecordingLog.h"
#include "TemporaryFolder.h"
#include "UdpClient.h"
#include "WaitUntil.h"

#include <SntpPacket.h>
#include <TimeServer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <random>
#include <string>

namespace
{

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr long long kUnixEpoch = 116444736000000000; // 100-ns ticks since 1601
constexpr const char* kRequestTime = "0123456789ABCDEF";
constexpr const char* kZeroTime = "0000000000000000";

// A request in hex: its first byte (leap indicator, version, mode) and its time of transmission.
std::string Request(const std::string& firstByte, const std::string& transmitTime = kRequestTime)
{
    return firstByte + "000600" + "00000000" + "00000000" + "00000000" + kZeroTime + kZeroTime + kZeroTime +
           transmitTime;
}

ByteView BytesOf(const std::string& text)
{
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

std::string HexOf(const SntpPacket& packet)
{
    return ToHex({reinterpret_cast<const char*>(packet.data()), packet.size()});
}

// The time at `offset` of an answer, as NTP counts it.
uint64_t TimeIn(const std::string& answer, std::size_t offset)
{
    return std::stoull(ToHex(answer.substr(offset, 8)), nullptr, 16);
}

// The system's clock, by another way than the library's. For the years up to 2036.
uint64_t NtpNow()
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return (static_cast<uint64_t>(now.tv_sec) + 2208988800u) << 32 |
           (static_cast<uint64_t>(now.tv_nsec) << 32) / 1000000000u;
}

// On a port that the system chooses.
class ProbeServer : public TimeServer
{
public:
    using TimeServer::m_Sockets;

    explicit ProbeServer(COutputLog* log) : TimeServer(log, 0) {}

    ProbeServer(const ProbeServer&) = delete;
    ProbeServer& operator=(const ProbeServer&) = delete;

    ~ProbeServer() override { StopSocketThread(); }

    unsigned short GetBoundPort() const { return ntohs(GetBoundAddress(m_Sockets[0]).sin_port); }

    // Has the socket thread receive a request from a sender to whom nothing can be sent: there is no port 0.
    void ReceiveUnanswerable() { TriggerServerEvent(kUnanswerable); }

protected:
    void OnSocketThreadEvent(int) override
    {
        const std::string request = FromHex(Request("23"));
        sockaddr_in sender{};
        sender.sin_family = AF_INET;
        sender.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        OnDatagramReceived(m_Sockets[0], reinterpret_cast<sockaddr*>(&sender), sizeof sender, BytesOf(request).data(),
                           static_cast<unsigned int>(request.size()));
    }

private:
    static constexpr int kUnanswerable = 1;
};

// A UDP socket on a port that the system chooses.
class TakenUdpPort
{
public:
    TakenUdpPort()
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        EXPECT_EQ(::bind(m_Socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }

    TakenUdpPort(const TakenUdpPort&) = delete;
    TakenUdpPort& operator=(const TakenUdpPort&) = delete;

    ~TakenUdpPort() { ::close(m_Socket); }

    unsigned short Get() const { return ntohs(GetBoundAddress(m_Socket).sin_port); }

private:
    const int m_Socket{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

constexpr const char* kEventTaken = "UdpSvr@0: Thread Rx invalid command 1"; // printed behind each one
constexpr const char* kSendFailure = "UdpSvr@0: sendto() failed. Error 22: Invalid argument";

} // namespace

TEST(SntpPacket, TimesAreSecondsSince1900AndAFraction)
{
    const struct
    {
        const char* m_Name;
        long long m_Ticks;
        uint64_t m_NtpTime;
    } cases[] = {
        {"1601-01-01, long before the first era", 0, 0xCD99ED8000000000},
        {"1900-01-01, the start", 94354848000000000, 0},
        {"1970-01-01", kUnixEpoch, 2208988800ull << 32},
        {"1972-01-01", 117075456000000000, 2272060800ull << 32},
        {"1999-12-31", 125910720000000000, 3155587200ull << 32},
        {"2000-01-01", 125911584000000000, 3155673600ull << 32},
        {"half a second", kUnixEpoch + 5000000, 0x83AA7E8080000000},
        {"a quarter", kUnixEpoch + 2500000, 0x83AA7E8040000000},
        {"one tick, 429.5 steps", kUnixEpoch + 1, 0x83AA7E80000001AD},
        {"one tick before a second", kUnixEpoch + 9999999, 0x83AA7E80FFFFFE52},
        {"the bit that is the sign of 32", 94354848000000000 + 21474836480000000, 0x8000000000000000},
        {"2036-02-07 06:28:15.9999999, the end", 137304520959999999, 0xFFFFFFFFFFFFFE52},
        {"2036-02-07 06:28:16, the second start", 137304520960000000, 0},
        {"2036-02-07 06:28:17", 137304520970000000, 0x0000000100000000},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Name);

        EXPECT_EQ(NtpTimeOf(CQDTimestamp(c.m_Ticks)), c.m_NtpTime);
    }
}

TEST(SntpPacket, AnswerHasEveryFieldInItsPlace)
{
    const std::string request = FromHex("E3 05 0A EC  00001000 00002000 C0A80001"
                                        "1111111111111111 2222222222222222 3333333333333333 0123456789ABCDEF");
    SntpPacket answer;
    answer.fill(0xEE);

    ASSERT_TRUE(MakeSntpAnswer(BytesOf(request), CQDTimestamp(kUnixEpoch + 5000000), answer));
    SetTransmitTime(answer, CQDTimestamp(kUnixEpoch + 15000000));

    EXPECT_EQ(HexOf(answer), "24"               // no warning, version 4, server
                             "0A"               // stratum 10
                             "0A"               // the client's poll interval
                             "E9"               // precision 2^-23 s
                             "00000000"         // root delay
                             "00000000"         // root dispersion
                             "7F7F0100"         // reference 127.127.1.0
                             "83AA7E8080000000" // reference time
                             "0123456789ABCDEF" // the client's time of transmission
                             "83AA7E8080000000" // time of arrival
                             "83AA7E8180000000" // time of transmission
    );
}

TEST(SntpPacket, TransmitTimeIsAllThatIsSetLater)
{
    SntpPacket answer;
    ASSERT_TRUE(MakeSntpAnswer(BytesOf(FromHex(Request("23"))), CQDTimestamp(kUnixEpoch), answer));
    const std::string before = HexOf(answer);

    SetTransmitTime(answer, CQDTimestamp(kUnixEpoch + 2500000));

    EXPECT_EQ(before.substr(80), kZeroTime);
    EXPECT_EQ(HexOf(answer), before.substr(0, 80) + "83AA7E8040000000");
}

TEST(SntpPacket, RequestsOfClientsAreAnsweredInTheirVersion)
{
    const struct
    {
        const char* m_Name;
        const char* m_FirstByte;
        const char* m_AnswersFirstByte;
    } cases[] = {
        {"version 1", "0B", "0C"},
        {"version 2", "13", "14"},
        {"version 3", "1B", "1C"},
        {"version 4", "23", "24"},
        {"version 4, leap second to come", "63", "24"},
        {"version 4, clock not synchronised", "E3", "24"},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Name);
        SntpPacket answer;

        ASSERT_TRUE(MakeSntpAnswer(BytesOf(FromHex(Request(c.m_FirstByte))), CQDTimestamp(kUnixEpoch), answer));

        EXPECT_EQ(HexOf(answer).substr(0, 2), c.m_AnswersFirstByte);
    }
}

TEST(SntpPacket, WhatFollowsARequestIsNotLookedAt)
{
    const std::string signedRequest = FromHex(Request("23") + "00000001" + std::string(32, 'F'));
    SntpPacket answer;

    ASSERT_TRUE(MakeSntpAnswer(BytesOf(signedRequest), CQDTimestamp(kUnixEpoch), answer));

    EXPECT_EQ(HexOf(answer).substr(48, 16), kRequestTime);
}

TEST(SntpPacket, WhatIsNoRequestHasNoAnswer)
{
    const struct
    {
        const char* m_Name;
        std::string m_Packet;
    } cases[] = {
        {"empty", ""},
        {"one byte", "23"},
        {"one byte short", Request("23").substr(0, 94)},
        {"version 0", Request("03")},
        {"version 5", Request("2B")},
        {"version 6", Request("33")},
        {"version 7", Request("3B")},
        {"version 1, mode 0", Request("08")},
        {"version 4, mode 0", Request("20")},
        {"mode 1, a peer", Request("21")},
        {"mode 2, a peer", Request("22")},
        {"mode 4, a server", Request("24")},
        {"mode 5, a broadcast", Request("25")},
        {"mode 6, control", Request("26")},
        {"mode 7, private", Request("27")},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Name);
        SntpPacket answer;
        answer.fill(0xEE);
        const SntpPacket before = answer;

        EXPECT_FALSE(MakeSntpAnswer(BytesOf(FromHex(c.m_Packet)), CQDTimestamp(kUnixEpoch), answer));

        EXPECT_EQ(answer, before);
    }
}

TEST(SntpPacket, AnswerHasNoAnswer)
{
    SntpPacket answer;
    ASSERT_TRUE(MakeSntpAnswer(BytesOf(FromHex(Request("23"))), CQDTimestamp(kUnixEpoch), answer));
    SntpPacket second;

    EXPECT_FALSE(MakeSntpAnswer(answer, CQDTimestamp(kUnixEpoch), second));
}

TEST(TimeServer, AnswerHasTheTimesOfArrivalAndTransmission)
{
    RecordingLog log;
    ProbeServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    const UdpClient client(server.GetBoundPort());
    constexpr uint64_t kTick = 430; // to which the answer's times are cut, in steps of 2^-32 s

    const uint64_t before = NtpNow();
    client.Send(FromHex(Request("23")));
    const std::string answer = client.Receive();
    const uint64_t after = NtpNow();

    ASSERT_EQ(answer.size(), 48u);
    EXPECT_EQ(ToHex(answer.substr(24, 8)), kRequestTime);
    EXPECT_GE(TimeIn(answer, 32) + kTick, before);
    EXPECT_GE(TimeIn(answer, 40), TimeIn(answer, 32));
    EXPECT_LE(TimeIn(answer, 40), after);
    EXPECT_EQ(TimeIn(answer, 16), TimeIn(answer, 32)); // the reference is the clock that was read on arrival
}

TEST(TimeServer, TransmissionIsTimedAfterTheArrival)
{
    RecordingLog log;
    ProbeServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    const UdpClient client(server.GetBoundPort());

    EXPECT_TRUE(WaitUntil([&] { // both may fall into one tick of the clock, but not for ever
        client.Send(FromHex(Request("23")));
        const std::string answer = client.Receive();
        return answer.size() == 48 && TimeIn(answer, 40) > TimeIn(answer, 32);
    }));
}

TEST(TimeServer, WhatIsNoRequestGetsNoAnswer)
{
    const struct
    {
        const char* m_Name;
        std::string m_Packet;
    } cases[] = {
        {"empty", ""},
        {"short", Request("23").substr(0, 94)},
        {"version 5", Request("2B")},
        {"a server's", Request("24")},
        {"control", Request("26")},
        {"text", ToHex("GET /time HTTP/1.1\r\nHost: station\r\nAccept: text/plain\r\n\r\n")},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Name);
        RecordingLog log;
        ProbeServer server(&log);
        ASSERT_TRUE(server.StartSocketThread());
        const UdpClient client(server.GetBoundPort());

        client.Send(FromHex(c.m_Packet));
        client.Send(FromHex(Request("23", "00000000000000AA")));

        // The first answer belongs to the second packet.
        EXPECT_EQ(ToHex(client.Receive().substr(24, 8)), "00000000000000AA");
    }
}

TEST(TimeServer, AnswerIsNoLongerThanItsRequest)
{
    RecordingLog log;
    ProbeServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    const UdpClient client(server.GetBoundPort());

    for (const std::size_t length : {48u, 49u, 68u, 1000u}) {
        SCOPED_TRACE(length);
        std::string request = FromHex(Request("23"));
        request.resize(length, 'x');

        client.Send(request);

        EXPECT_EQ(client.Receive().size(), 48u);
    }
}

TEST(TimeServer, EveryClientGetsItsOwnAnswer)
{
    RecordingLog log;
    ProbeServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    const UdpClient first(server.GetBoundPort());
    const UdpClient second(server.GetBoundPort());

    first.Send(FromHex(Request("23", "0000000000000001")));
    second.Send(FromHex(Request("1B", "0000000000000002")));

    EXPECT_EQ(ToHex(second.Receive().substr(24, 8)), "0000000000000002");
    EXPECT_EQ(ToHex(first.Receive().substr(24, 8)), "0000000000000001");
}

TEST(TimeServer, NonsenseDoesNotStopIt)
{
    std::mt19937 random(4330);
    RecordingLog log;
    ProbeServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    const UdpClient client(server.GetBoundPort());
    for (int i = 0; i < 500; ++i) {
        std::string nonsense(random() % 100, '\0');
        for (char& byte : nonsense)
            byte = static_cast<char>(random() & 0xFF);
        if (!nonsense.empty())
            nonsense[0] = static_cast<char>(nonsense[0] | 4); // no client
        client.Send(nonsense);
        if (i % 50 == 49) { // what is sent faster than it is received would be lost
            client.Send(FromHex(Request("23")));
            EXPECT_EQ(client.Receive().size(), 48u);
        }
    }

    server.StopSocketThread();

    EXPECT_EQ(log.CountContaining("failed"), 0u);
}

TEST(TimeServer, FailureToSendIsPrintedOnceInARun)
{
    RecordingLog log;
    ProbeServer server(&log);
    for (std::size_t run = 1; run <= 2; ++run) {
        SCOPED_TRACE(run);
        ASSERT_TRUE(server.StartSocketThread());

        server.ReceiveUnanswerable();
        server.ReceiveUnanswerable();

        ASSERT_TRUE(WaitUntil([&] { return log.Count(kEventTaken) == 2 * run; }));
        EXPECT_EQ(log.Count(kSendFailure), run);
        server.StopSocketThread();
    }
}

TEST(TimeServer, GoesOnAfterAFailureToSend)
{
    RecordingLog log;
    ProbeServer server(&log);
    ASSERT_TRUE(server.StartSocketThread());
    const UdpClient client(server.GetBoundPort());
    server.ReceiveUnanswerable();
    ASSERT_TRUE(WaitUntil([&] { return log.Has(kSendFailure); }));

    client.Send(FromHex(Request("23")));

    EXPECT_EQ(client.Receive().size(), 48u);
}

TEST(StationTime, StationSaysThatItServesTimeAndWhenItStops)
{
    const TemporaryFolder folder;
    const ReservedPort port;
    const std::string timePort = std::to_string(FindFreeUdpPort());
    ChildProcess station(
        {STATION_PROGRAM, "-port", std::to_string(port.Get()), "-time-port", timePort, "-logdir", folder / "station"});
    ASSERT_TRUE(station.WaitForOutput("Station: serving Modbus/TCP")) << station.GetErrors();

    station.Signal(SIGTERM);

    EXPECT_EQ(station.WaitForExit(), 0);
    EXPECT_EQ(station.GetErrors(), "");
    EXPECT_THAT(station.GetOutput(), HasSubstr("Station: serving time over UDP on port " + timePort + "\n"));
    EXPECT_THAT(ReadFileText(folder / "station/station_001.log"),
                AllOf(HasSubstr(" Station: serving time over UDP on port " + timePort + "\n"),
                      HasSubstr(" UdpSvr@" + timePort + ": Listen thread exiting\n"), Not(HasSubstr("() failed"))));
}

TEST(StationTime, StationWithoutTheOptionServesNoTime)
{
    const TemporaryFolder folder;
    const ReservedPort port;
    ChildProcess station({STATION_PROGRAM, "-port", std::to_string(port.Get()), "-logdir", folder / "station"});
    ASSERT_TRUE(station.WaitForOutput("Station: serving Modbus/TCP")) << station.GetErrors();

    station.Signal(SIGTERM);

    EXPECT_EQ(station.WaitForExit(), 0);
    EXPECT_THAT(station.GetOutput(), Not(HasSubstr("serving time")));
    EXPECT_THAT(ReadFileText(folder / "station/station_001.log"), Not(HasSubstr("UdpSvr")));
}

TEST(StationTime, StationThatCannotHaveItsTimePortDoesNotStart)
{
    const TemporaryFolder folder;
    const ReservedPort port;
    const TakenUdpPort taken;
    const std::string timePort = std::to_string(taken.Get());

    ChildProcess station(
        {STATION_PROGRAM, "-port", std::to_string(port.Get()), "-time-port", timePort, "-logdir", folder / "station"});

    EXPECT_EQ(station.WaitForExit(), 1);
    EXPECT_EQ(station.GetErrors(),
              "station: cannot listen on port " + timePort + "; the log says why. Is another program using it?\n");
    EXPECT_THAT(station.GetOutput(), Not(HasSubstr("Station: serving")));
    EXPECT_THAT(ReadFileText(folder / "station/station_001.log"),
                AllOf(HasSubstr(" UdpSvr@" + timePort + ": bind() failed. Error 98: Address already in use\n"),
                      HasSubstr(" TcpSvr@" + std::to_string(port.Get()) + ": Listen thread exiting\n")));
}
