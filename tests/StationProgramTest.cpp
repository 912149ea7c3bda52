// The station as a program: its arguments, its log, its end.
#include "ChildProcess.h"
#include "FaultPlan.h"
#include "HexText.h"
#include "LoopbackClient.h"

#include <DescriptorLog.h>
#include <StationOptions.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace
{

using testing::HasSubstr;
using testing::Not;

const std::string kTimePattern = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}";

std::vector<std::string> LinesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

// A log that writes into a pipe.
struct PipedLog
{
    ~PipedLog()
    {
        ::close(m_Pipe[0]);
        ::close(m_Pipe[1]);
    }

    // At most 64 KiB, once.
    std::string Read()
    {
        std::string text(65536, '\0');
        const ssize_t count = ::read(m_Pipe[0], text.data(), text.size());
        text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
        return text;
    }

    int m_Pipe[2]{-1, -1};
    DescriptorLog m_Log{MakePipe()};

private:
    int MakePipe()
    {
        EXPECT_EQ(::pipe2(m_Pipe, O_CLOEXEC), 0);
        return m_Pipe[1];
    }
};

bool Parse(std::vector<const char*> arguments, StationOptions& options, std::string& error)
{
    arguments.insert(arguments.begin(), "station");
    return ParseStationOptions(static_cast<int>(arguments.size()), arguments.data(), options, error);
}

// The station of this build, on a port that no other test has.
struct StationProgram
{
    explicit StationProgram(const std::vector<std::string>& more = {}) : m_Process(Command(more)) {}

    bool WaitUntilItServes() const
    {
        return m_Process.WaitForOutput("Station: serving Modbus/TCP on port " + std::to_string(m_Port.Get()));
    }

    std::vector<std::string> Command(const std::vector<std::string>& more) const
    {
        std::vector<std::string> command{STATION_PROGRAM, "-port", std::to_string(m_Port.Get())};
        command.insert(command.end(), more.begin(), more.end());
        return command;
    }

    ReservedPort m_Port;
    ChildProcess m_Process;
};

} // namespace

TEST(StationOptions, DefaultsWithoutArguments)
{
    StationOptions options;
    std::string error;

    ASSERT_TRUE(Parse({}, options, error));

    EXPECT_EQ(options.m_Port, 1502);
    EXPECT_EQ(options.m_LinksPerThread, 64u);
    EXPECT_EQ(options.m_LogLevel, TcpServerLinkLoggingDefault);
    EXPECT_FALSE(options.m_ShowHelp);
}

TEST(StationOptions, EveryOptionIsTaken)
{
    StationOptions options;
    std::string error;

    ASSERT_TRUE(Parse({"-links", "3", "-log", "6", "-help", "-port", "65535"}, options, error));

    EXPECT_EQ(options.m_Port, 65535);
    EXPECT_EQ(options.m_LinksPerThread, 3u);
    EXPECT_EQ(options.m_LogLevel, TcpServerLinkLoggingData);
    EXPECT_TRUE(options.m_ShowHelp);
}

TEST(StationOptions, LimitsAreAllowed)
{
    StationOptions options;
    std::string error;

    EXPECT_TRUE(Parse({"-port", "1", "-links", "1", "-log", "0"}, options, error)) << error;
    EXPECT_TRUE(Parse({"-port", "65535", "-links", "64", "-log", "6"}, options, error)) << error;
}

TEST(StationOptions, LastOfAnOptionCounts)
{
    StationOptions options;
    std::string error;

    ASSERT_TRUE(Parse({"-port", "1000", "-port", "2000"}, options, error));

    EXPECT_EQ(options.m_Port, 2000);
}

TEST(StationOptions, WhatIsWrongIsNamed)
{
    const struct
    {
        std::vector<const char*> m_Arguments;
        const char* m_Error;
    } cases[] = {
        {{"-port"}, "-port needs a number from 1 to 65535"},
        {{"-port", ""}, "-port needs a number from 1 to 65535, not \"\""},
        {{"-port", "0"}, "-port needs a number from 1 to 65535, not \"0\""},
        {{"-port", "65536"}, "-port needs a number from 1 to 65535, not \"65536\""},
        {{"-port", "99999999999"}, "-port needs a number from 1 to 65535, not \"99999999999\""},
        {{"-port", "-1"}, "-port needs a number from 1 to 65535, not \"-1\""},
        {{"-port", "+1"}, "-port needs a number from 1 to 65535, not \"+1\""},
        {{"-port", " 1"}, "-port needs a number from 1 to 65535, not \" 1\""},
        {{"-port", "1502x"}, "-port needs a number from 1 to 65535, not \"1502x\""},
        {{"-port", "-links", "4"}, "-port needs a number from 1 to 65535, not \"-links\""},
        {{"-links", "0"}, "-links needs a number from 1 to 64, not \"0\""},
        {{"-links", "65"}, "-links needs a number from 1 to 64, not \"65\""},
        {{"-log", "7"}, "-log needs a number from 0 to 6, not \"7\""},
        {{"-log"}, "-log needs a number from 0 to 6"},
        {{"1502"}, "unknown argument \"1502\"; -help lists the options"},
        {{"-port", "1502", "-verbose"}, "unknown argument \"-verbose\"; -help lists the options"},
        {{""}, "unknown argument \"\"; -help lists the options"},
    };

    for (const auto& test : cases) {
        SCOPED_TRACE(test.m_Error);
        StationOptions options;
        std::string error;
        EXPECT_FALSE(Parse(test.m_Arguments, options, error));
        EXPECT_EQ(error, test.m_Error);
    }
}

TEST(DescriptorLog, MessageIsALineWithTheTime)
{
    PipedLog piped;

    piped.m_Log.Print("port %d", 1502);

    EXPECT_THAT(piped.Read(), testing::MatchesRegex(kTimePattern + " port 1502\n"));
}

TEST(DescriptorLog, WarningsAndErrorsLookAlike)
{
    PipedLog piped;

    piped.m_Log.PrintWarning("one");
    piped.m_Log.PrintError(5, "two");

    EXPECT_THAT(piped.Read(), testing::MatchesRegex(kTimePattern + " one\n" + kTimePattern + " two\n"));
}

TEST(DescriptorLog, ClearLeavesWhatWasWritten)
{
    PipedLog piped;
    piped.m_Log.Print("kept");

    piped.m_Log.Clear();

    EXPECT_THAT(piped.Read(), HasSubstr(" kept\n"));
}

TEST(DescriptorLog, LinesOfSeveralThreadsStayWhole)
{
    PipedLog piped;
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number)
        threads.emplace_back([&piped, number] {
            for (int i = 0; i < 100; ++i)
                piped.m_Log.Print("%s", std::string(50, static_cast<char>('a' + number)).c_str());
        });
    for (std::thread& thread : threads)
        thread.join();

    const std::vector<std::string> lines = LinesOf(piped.Read());

    EXPECT_EQ(lines.size(), 400u);
    EXPECT_THAT(lines, testing::Each(testing::MatchesRegex(kTimePattern + " (a{50}|b{50}|c{50}|d{50})")));
    std::vector<std::string> times;
    for (const std::string& line : lines)
        times.push_back(line.substr(0, 23));
    EXPECT_TRUE(std::is_sorted(times.begin(), times.end()));
}

TEST(DescriptorLog, MessageLongerThanThePipeArrivesWhole)
{
    PipedLog piped;
    ASSERT_EQ(::fcntl(piped.m_Pipe[1], F_SETPIPE_SZ, 4096), 4096);
    const std::string text(100000, 'x');
    std::thread writer([&] { piped.m_Log.PrintString(text); });

    std::string read;
    while (read.empty() || read.back() != '\n')
        read += piped.Read();
    writer.join();

    EXPECT_EQ(read.size(), 24 + text.size() + 1);
    EXPECT_EQ(read.substr(24), text + "\n");
}

TEST(DescriptorLog, InterruptedWriteIsRepeated)
{
    PipedLog piped;
    const FaultPlan interrupted("write", 1, EINTR);

    piped.m_Log.Print("here");

    EXPECT_THAT(piped.Read(), testing::MatchesRegex(kTimePattern + " here\n"));
}

TEST(DescriptorLog, FailedWriteLosesThatLineOnly)
{
    PipedLog piped;
    const FaultPlan full("write", 1, ENOSPC);

    piped.m_Log.Print("lost");
    piped.m_Log.Print("kept");

    EXPECT_THAT(piped.Read(), testing::MatchesRegex(kTimePattern + " kept\n"));
}

TEST(Station, HelpListsTheOptions)
{
    ChildProcess station({STATION_PROGRAM, "-help"});

    EXPECT_EQ(station.WaitForExit(), 0);
    EXPECT_THAT(station.GetOutput(), testing::AllOf(HasSubstr("-port N"), HasSubstr("-links N"),
                                                    HasSubstr("-log LEVEL"), HasSubstr("-help")));
    EXPECT_EQ(station.GetErrors(), "");
}

TEST(Station, BadArgumentEndsWithStatus2)
{
    ChildProcess station({STATION_PROGRAM, "-port", "http"});

    EXPECT_EQ(station.WaitForExit(), 2);
    EXPECT_EQ(station.GetErrors(), "station: -port needs a number from 1 to 65535, not \"http\"\n");
    EXPECT_EQ(station.GetOutput(), "");
}

TEST(Station, PortInUseEndsWithStatus1)
{
    const StationProgram first;
    ASSERT_TRUE(first.WaitUntilItServes());
    const std::string port = std::to_string(first.m_Port.Get());

    ChildProcess second(first.Command({}));

    EXPECT_EQ(second.WaitForExit(), 1);
    EXPECT_EQ(second.GetErrors(),
              "station: cannot listen on port " + port + "; the log says why. Is another program using it?\n");
    EXPECT_THAT(second.GetOutput(), HasSubstr("TcpSvr@" + port + ": bind() failed. Error 98: Address already in use"));
}

class StationSignal : public testing::TestWithParam<int>
{
};

TEST_P(StationSignal, EndsTheStationCleanly)
{
    StationProgram station;
    ASSERT_TRUE(station.WaitUntilItServes());
    LoopbackClient client(station.m_Port.Get());
    client.Send(FromHex("0001 0000 0006 01 03 0000 0001"));
    ASSERT_EQ(ToHex(client.Receive(11)), "0001000000050103020000");

    station.m_Process.Signal(GetParam());

    EXPECT_EQ(station.m_Process.WaitForExit(), 0);
    EXPECT_TRUE(client.SawReset());
    EXPECT_EQ(station.m_Process.GetErrors(), "");
    const std::vector<std::string> lines = LinesOf(station.m_Process.GetOutput());
    EXPECT_THAT(lines, testing::Each(testing::MatchesRegex(kTimePattern + " .+")));
    EXPECT_THAT(lines,
                testing::Contains(testing::EndsWith(" Station: stopping on signal " + std::to_string(GetParam()))));
    EXPECT_THAT(lines.back(), testing::EndsWith(" Station: stopped"));
}

INSTANTIATE_TEST_SUITE_P(Station, StationSignal, testing::Values(SIGINT, SIGTERM));

TEST(Station, GoesOnWhenTheReaderOfItsLogHasGone)
{
    const ReservedPort port;
    int logPipe[2];
    ASSERT_EQ(::pipe2(logPipe, O_CLOEXEC), 0);
    // The shell makes the inherited descriptor the station's output.
    ASSERT_EQ(::dup2(logPipe[1], 9), 9);
    ChildProcess station(
        {"sh", "-c", "exec \"$0\" -port \"$1\" >&9 9>&-", STATION_PROGRAM, std::to_string(port.Get())});
    ::close(9);
    ::close(logPipe[1]);
    std::string log;
    while (log.find("Station: serving") == std::string::npos) {
        char data[4096];
        const ssize_t count = ::read(logPipe[0], data, sizeof data);
        ASSERT_GT(count, 0);
        log.append(data, static_cast<std::size_t>(count));
    }

    ::close(logPipe[0]);

    LoopbackClient client(port.Get());
    client.Send(FromHex("0001 0000 0006 01 03 0000 0001"));
    EXPECT_EQ(ToHex(client.Receive(11)), "0001000000050103020000");
    station.Signal(SIGTERM);
    EXPECT_EQ(station.WaitForExit(), 0);
}
