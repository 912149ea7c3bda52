// The station's time and an NTP client that others wrote: chronyd, which prints how far its clock is from the server's
// and sets nothing.
#include "ChildProcess.h"
#include "FaultPlan.h"
#include "LoopbackClient.h"
#include "RecordingLog.h"
#include "TemporaryFolder.h"
#include "UdpClient.h"

#include <TimeServer.h>

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace
{

constexpr double kNothing = 1e30; // no offset that anybody measures

class StationNtpClient : public testing::Test
{
protected:
    // The program is not in the PATH of every user.
    static constexpr const char* kProgram = "/usr/sbin/chronyd";

    void SetUp() override
    {
        if (::access(kProgram, X_OK) != 0)
            GTEST_SKIP() << "chronyd is missing: scripts/install-packages leaves out the Debian package chrony where "
                            "another program keeps the clock";
    }

    // Asks once. -Q -x: print and set nothing; -U -u root: as any user, without a change of user. Returns by how many
    // seconds the server's clock is ahead.
    double MeasureOffset(unsigned short port) const
    {
        const std::string server = "server 127.0.0.1 port " + std::to_string(port) + " iburst maxsamples 1";
        ChildProcess chronyd({kProgram, "-Q", "-x", "-U", "-u", "root", "-t", "15", server});
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
};

// The time server inside this program, whose clock a test can move, on a port that the system chooses.
class OwnTimeServer : public TimeServer
{
public:
    explicit OwnTimeServer(COutputLog* log) : TimeServer(log, 0) { EXPECT_TRUE(StartSocketThread()); }

    OwnTimeServer(const OwnTimeServer&) = delete;
    OwnTimeServer& operator=(const OwnTimeServer&) = delete;

    ~OwnTimeServer() override { StopSocketThread(); }

    unsigned short GetBoundPort() const { return ntohs(GetBoundAddress(m_Sockets[0]).sin_port); }
};

} // namespace

TEST_F(StationNtpClient, StationsTimeIsTheHosts)
{
    const TemporaryFolder folder;
    const ReservedPort port;
    const unsigned short timePort = FindFreeUdpPort();
    const ChildProcess station({STATION_PROGRAM, "-port", std::to_string(port.Get()), "-time-port",
                                std::to_string(timePort), "-logdir", folder / "station"});
    ASSERT_TRUE(station.WaitForOutput("Station: serving Modbus/TCP")) << station.GetErrors();

    const double offset = MeasureOffset(timePort);

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
