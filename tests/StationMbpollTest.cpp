// The station and a Modbus client that others wrote: mbpoll. It numbers registers and coils from 1.
#include "ChildProcess.h"
#include "LoopbackClient.h"
#include "TemporaryFolder.h"

#include <QDPlatform/QDTimestamp.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <ctime>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace
{

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class StationMbpoll : public testing::Test
{
protected:
    struct Poll
    {
        int m_ExitStatus;
        std::map<int, long> m_Values; // by mbpoll's number
        std::string m_Text;           // all it printed
    };

    void SetUp() override
    {
        ChildProcess mbpoll({"mbpoll", "-V"});
        ASSERT_NE(mbpoll.WaitForExit(), ChildProcess::kProgramNotFound)
            << "mbpoll is missing. scripts/install-packages installs it (Debian package mbpoll).";
        ASSERT_TRUE(m_Station.WaitForOutput("Station: serving Modbus/TCP on port " + std::to_string(m_Port.Get())))
            << m_Station.GetOutput() << m_Station.GetErrors();
    }

    // Stops the station, which must have nothing to complain about.
    void TearDown() override
    {
        m_Station.Signal(SIGTERM);
        EXPECT_EQ(m_Station.WaitForExit(), 0);
        EXPECT_EQ(m_Station.GetErrors(), "");
        EXPECT_THAT(ReadFileText(m_Folder / "station_001.log"),
                    AllOf(HasSubstr(" Station: stopping on signal 15\n"), HasSubstr(" Station: stopped\n"),
                          Not(HasSubstr("Error ")), Not(HasSubstr("error "))));
    }

    // Runs mbpoll once. -o: seconds that it waits for an answer.
    Poll Run(const std::vector<std::string>& arguments)
    {
        std::vector<std::string> command{"mbpoll", "-m", "tcp", "-p", std::to_string(m_Port.Get()),
                                         "-a",     "1",  "-o",  "10"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        ChildProcess mbpoll(command);
        Poll poll{mbpoll.WaitForExit(), {}, mbpoll.GetOutput() + mbpoll.GetErrors()};
        std::istringstream lines(poll.m_Text);
        for (std::string line; std::getline(lines, line);) { // "[7]: \t1560"
            int number = 0;
            long value = 0;
            if (std::sscanf(line.c_str(), "[%d]: %ld", &number, &value) == 2)
                poll.m_Values[number] = value;
        }
        return poll;
    }

    using Values = std::map<int, long>;

    ReservedPort m_Port;
    TemporaryFolder m_Folder;
    ChildProcess m_Station{{STATION_PROGRAM, "-port", std::to_string(m_Port.Get()), "-logdir", m_Folder.GetPath()}};
};

} // namespace

TEST_F(StationMbpoll, ReadsLiveInputRegisters)
{
    const CQDTimestamp before = CQDTimestamp::UTCNow();
    const Poll poll = Run({"-t", "3", "-r", "1", "-c", "14", "-1", "127.0.0.1"});
    const CQDTimestamp after = CQDTimestamp::UTCNow();

    ASSERT_EQ(poll.m_ExitStatus, 0) << poll.m_Text;
    ASSERT_EQ(poll.m_Values.size(), 14u) << poll.m_Text;
    const auto at = [&](int number) { return static_cast<unsigned int>(poll.m_Values.at(number)); };
    EXPECT_GT(at(1) << 16 | at(2), 0u) << "uptime";
    EXPECT_GT(at(6) << 16 | at(7), 0u) << "free memory";
    CQDTimestamp clock;
    ASSERT_TRUE(clock.SetDateAndHHMMSSFFF(at(8), at(9), at(10), at(11), at(12), at(13), at(14)));
    EXPECT_GE(clock, before - CQDTimeInterval::OneMillisecond()); // the register is cut to milliseconds
    EXPECT_LE(clock, after);
}

TEST_F(StationMbpoll, UptimeIsANumberOf32Bits)
{
    const Poll poll = Run({"-t", "3:int", "-B", "-r", "1", "-c", "1", "-1", "127.0.0.1"});

    ASSERT_EQ(poll.m_ExitStatus, 0) << poll.m_Text;
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    EXPECT_NEAR(static_cast<double>(poll.m_Values.at(1)), static_cast<double>(now.tv_sec), 60.0);
}

TEST_F(StationMbpoll, ReadsDiscreteInputs)
{
    const Poll poll = Run({"-t", "1", "-r", "1", "-c", "4", "-1", "127.0.0.1"});

    ASSERT_EQ(poll.m_ExitStatus, 0) << poll.m_Text;
    EXPECT_EQ(poll.m_Values.size(), 4u) << poll.m_Text;
}

TEST_F(StationMbpoll, HoldingRegistersAreWrittenAndReadAgain)
{
    const Poll write = Run({"-t", "4", "-r", "5", "127.0.0.1", "11", "65535", "0", "32768"});
    const Poll read = Run({"-t", "4", "-r", "4", "-c", "6", "-1", "127.0.0.1"});

    EXPECT_EQ(write.m_ExitStatus, 0) << write.m_Text;
    EXPECT_THAT(write.m_Text, HasSubstr("Written 4 references."));
    EXPECT_EQ(read.m_ExitStatus, 0) << read.m_Text;
    // mbpoll prints large values as "65535 (-1)".
    EXPECT_EQ(read.m_Values, (Values{{4, 0}, {5, 11}, {6, 65535}, {7, 0}, {8, 32768}, {9, 0}})) << read.m_Text;
}

TEST_F(StationMbpoll, SingleHoldingRegisterIsWrittenAndReadAgain)
{
    const Poll write = Run({"-t", "4", "-r", "1024", "127.0.0.1", "4711"});
    const Poll read = Run({"-t", "4", "-r", "1024", "-c", "1", "-1", "127.0.0.1"});

    EXPECT_EQ(write.m_ExitStatus, 0) << write.m_Text;
    EXPECT_EQ(read.m_Values, (Values{{1024, 4711}})) << read.m_Text;
}

TEST_F(StationMbpoll, CoilsAreWrittenAndReadAgain)
{
    const Poll write = Run({"-t", "0", "-r", "9", "127.0.0.1", "1", "0", "1", "1"});
    const Poll single = Run({"-t", "0", "-r", "9", "127.0.0.1", "0"});
    const Poll read = Run({"-t", "0", "-r", "8", "-c", "6", "-1", "127.0.0.1"});

    EXPECT_EQ(write.m_ExitStatus, 0) << write.m_Text;
    EXPECT_EQ(single.m_ExitStatus, 0) << single.m_Text;
    EXPECT_EQ(read.m_Values, (Values{{8, 0}, {9, 0}, {10, 0}, {11, 1}, {12, 1}, {13, 0}})) << read.m_Text;
}

TEST_F(StationMbpoll, ReadsTheMostThatOneRequestMayName)
{
    const Poll poll = Run({"-t", "4", "-r", "1", "-c", "125", "-1", "127.0.0.1"});

    EXPECT_EQ(poll.m_ExitStatus, 0) << poll.m_Text;
    EXPECT_EQ(poll.m_Values.size(), 125u);
}

TEST_F(StationMbpoll, AddressBeyondTheTableIsAnException)
{
    const Poll read = Run({"-t", "3", "-r", "14", "-c", "2", "-1", "127.0.0.1"});
    const Poll write = Run({"-t", "4", "-r", "1024", "127.0.0.1", "1", "2"});

    EXPECT_EQ(read.m_ExitStatus, 1);
    EXPECT_THAT(read.m_Text, HasSubstr("Read input register failed: Illegal data address"));
    EXPECT_EQ(write.m_ExitStatus, 1);
    EXPECT_THAT(write.m_Text, HasSubstr("Write output (holding) register failed: Illegal data address"));
}
