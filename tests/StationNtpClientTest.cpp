// The station's time and an NTP client that others wrote: chronyd, which prints how far its clock is from the server's
// and sets nothing.
#include "ChildProcess.h"
#include "FaultPlan.h"
#include "LoopbackClient.h"
#include "RecordingLog.h"
#include "TemporaryFolder.h"

#include <TimeServer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

namespace
{

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr double kNothing = 1e30; // no offset that anybody measures

class StationNtpClient : public testing::Test
{
protected:
    // The program is not in the PATH of every user.
    static constexpr const char* kProgram = "/usr/sbin/chronyd";

    void SetUp() override
    {
        ChildProcess chronyd({kProgram, "--version"});
        ASSERT_NE(chronyd.WaitForExit(), ChildProcess::kProgramNotFound)
            << "chronyd is missing. scripts/install-packages installs it (Debian package chrony).";
    }

    // Asks once. -Q -x: print and set nothing; -U -u root: as any user, without a change of user. Returns by how many
    // seconds the server's clock is ahead.
    double MeasureOffset(unsigned short port) const
    {
        const std::string server = "server 127.0.0.1 port " + std::to_string(port) + " iburst maxsamples 1";
        ChildProcess chronyd({kProgram, "-Q", "-x", "-U", "-u", "root", "-t", "15", server,
                              "pidfile " + (m_Folder / "chronyd.pid"), "cmdport 0", "bindcmdaddress /"});
        const int status = chronyd.WaitForExit();
        const std::string text = chronyd.GetErrors(); // "... System clock wrong by -0.000024 seconds (ignored)"
        EXPECT_EQ(status, 0) << text;
        const std::string words = "System clock wrong by ";
        const std::size_t place = text.find(words);
        double offset = kNothing;
        if (place == std::string::npos || std::sscanf(text.c_str() + place + words.size(), "%lf", &offset) != 1)
            ADD_FAILURE() << text;
        return offset;
    }

    TemporaryFolder m_Folder;
};

// The time server inside this program, whose clock a test can move, on a port that the system chooses.
class OwnTimeServer : public TimeServer
{
public:
    explicit OwnTimeServer(COutputLog* log) : TimeServer(log, 0) { EXPECT_TRUE(StartSocketThread()); }

    OwnTimeServer(const OwnTimeServer&) = delete;
    OwnTimeServer& operator=(const OwnTimeServer&) = delete;

    ~OwnTimeServer() override { StopSocketThread(); }

    unsigned short GetBoundPort() const
    {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        EXPECT_EQ(::getsockname(m_Sockets[0], reinterpret_cast<sockaddr*>(&address), &length), 0);
        return ntohs(address.sin_port);
    }
};

struct StationProgram
{
    explicit StationProgram(const std::string& folder) : m_Process(Command(folder)) {}

    std::vector<std::string> Command(const std::string& folder) const
    {
        return {STATION_PROGRAM, "-port", std::to_string(m_Port.Get()), "-time-port", std::to_string(m_TimePort.Get()),
                "-logdir",       folder};
    }

    bool WaitUntilItServes() const
    {
        return m_Process.WaitForOutput("Station: serving Modbus/TCP on port " + std::to_string(m_Port.Get()));
    }

    ReservedPort m_Port;
    ReservedPort m_TimePort; // of a number that no other test has; over UDP it is free
    ChildProcess m_Process;
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

    unsigned short Get() const
    {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        EXPECT_EQ(::getsockname(m_Socket, reinterpret_cast<sockaddr*>(&address), &length), 0);
        return ntohs(address.sin_port);
    }

private:
    const int m_Socket{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

} // namespace

TEST_F(StationNtpClient, StationsTimeIsTheHosts)
{
    const StationProgram station(m_Folder / "station");
    ASSERT_TRUE(station.WaitUntilItServes()) << station.m_Process.GetErrors();

    const double offset = MeasureOffset(station.m_TimePort.Get());

    EXPECT_NEAR(offset, 0.0, 1.0);
}

TEST_F(StationNtpClient, ClocksThatDifferAreSeenToDiffer)
{
    constexpr long long kSecondEra = 2085978496; // 2036-02-07 06:28:16
    const long long now = ::time(nullptr);

    const struct
    {
        const char* m_Name;
        long long m_UnixTime; // of the server's clock
    } cases[] = {
        {"an hour ahead", now + 3600},
        {"a day behind", now - 86400},
        {"in the second era of NTP", kSecondEra + 1000},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Name);
        RecordingLog log;
        const OwnTimeServer server(&log);
        const long long ahead = c.m_UnixTime - ::time(nullptr);
        const ClockShift shift(c.m_UnixTime);

        const double offset = MeasureOffset(server.GetBoundPort());

        EXPECT_NEAR(offset, static_cast<double>(ahead), 1.5); // both are of whole seconds, which may just change
    }
}

TEST_F(StationNtpClient, StationSaysThatItServesTimeAndWhenItStops)
{
    StationProgram station(m_Folder / "station");
    ASSERT_TRUE(station.WaitUntilItServes()) << station.m_Process.GetErrors();
    const std::string port = std::to_string(station.m_TimePort.Get());

    station.m_Process.Signal(SIGTERM);

    EXPECT_EQ(station.m_Process.WaitForExit(), 0);
    EXPECT_EQ(station.m_Process.GetErrors(), "");
    EXPECT_THAT(station.m_Process.GetOutput(), HasSubstr("Station: serving time over UDP on port " + port + "\n"));
    EXPECT_THAT(ReadFileText(m_Folder / "station/station_001.log"),
                AllOf(HasSubstr(" Station: serving time over UDP on port " + port + "\n"),
                      HasSubstr(" UdpSvr@" + port + ": Listen thread exiting\n"), Not(HasSubstr("failed"))));
}

TEST_F(StationNtpClient, StationWithoutTheOptionServesNoTime)
{
    const ReservedPort port;
    ChildProcess station({STATION_PROGRAM, "-port", std::to_string(port.Get()), "-logdir", m_Folder / "station"});
    ASSERT_TRUE(station.WaitForOutput("Station: serving Modbus/TCP"));

    station.Signal(SIGTERM);

    EXPECT_EQ(station.WaitForExit(), 0);
    EXPECT_THAT(station.GetOutput(), Not(HasSubstr("time")));
    EXPECT_THAT(ReadFileText(m_Folder / "station/station_001.log"), Not(HasSubstr("UdpSvr")));
}

TEST_F(StationNtpClient, StationThatCannotHaveItsTimePortDoesNotStart)
{
    const ReservedPort port;
    const TakenUdpPort taken;
    const std::string timePort = std::to_string(taken.Get());

    ChildProcess station({STATION_PROGRAM, "-port", std::to_string(port.Get()), "-time-port", timePort, "-logdir",
                          m_Folder / "station"});

    EXPECT_EQ(station.WaitForExit(), 1);
    EXPECT_EQ(station.GetErrors(),
              "station: cannot listen on port " + timePort + "; the log says why. Is another program using it?\n");
    EXPECT_THAT(station.GetOutput(), Not(HasSubstr("serving")));
    EXPECT_THAT(ReadFileText(m_Folder / "station/station_001.log"),
                AllOf(HasSubstr(" UdpSvr@" + timePort + ": bind() failed. Error 98: Address already in use\n"),
                      HasSubstr(" TcpSvr@" + std::to_string(port.Get()) + ": Listen thread exiting\n")));
}
