// What the station says of its host with -report.
#include "ChildProcess.h"
#include "Emulation.h"
#include "LoopbackClient.h"
#include "MountedOver.h"
#include "PrivateNamespace.h"
#include "ReplacedFolder.h"
#include "ScopedVariable.h"
#include "TemporaryFolder.h"
#include "ZoneFile.h"

#include <HostReport.h>

#include <QDPlatform/CTextOutputString.h>
#include <QDPlatform/QDTimestamp.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
using testing::UnorderedElementsAre;

struct Section
{
    std::string m_Title;
    std::vector<std::string> m_Lines; // without the indentation of the section
};

// Fails the test when the text is not made of sections.
std::vector<Section> SectionsOf(const std::string& report)
{
    std::vector<Section> sections;
    std::istringstream stream(report);
    bool isBehindEmptyLine = true;
    for (std::string line; std::getline(stream, line);) {
        if (isBehindEmptyLine)
            sections.push_back({line, {}});
        else if (!line.empty())
            sections.back().m_Lines.push_back(line.substr(std::min<std::size_t>(2, line.size())));
        EXPECT_EQ(line.substr(0, 2) == "  ", !isBehindEmptyLine && !line.empty()) << line;
        isBehindEmptyLine = line.empty();
    }
    EXPECT_FALSE(isBehindEmptyLine) << "an empty line at the end";
    EXPECT_TRUE(!report.empty() && report.back() == '\n');
    return sections;
}

std::vector<std::string> LinesOf(const std::vector<Section>& sections, const std::string& title)
{
    for (const Section& section : sections) {
        if (section.m_Title == title)
            return section.m_Lines;
    }
    ADD_FAILURE() << "no section " << title;
    return {};
}

// The sections that the station prints. more: further arguments.
std::vector<Section> Report(const std::vector<std::string>& more = {})
{
    std::vector<std::string> command{STATION_PROGRAM, "-report"};
    command.insert(command.end(), more.begin(), more.end());
    ChildProcess station(command);
    EXPECT_EQ(station.WaitForExit(), 0);
    EXPECT_EQ(station.GetErrors(), "");
    return SectionsOf(station.GetOutput());
}

// What another program says in one line.
std::string LineOf(const std::vector<std::string>& command)
{
    ChildProcess program(command);
    EXPECT_EQ(program.WaitForExit(), 0) << command[0] << ": " << program.GetErrors();
    const std::string output = program.GetOutput();
    return output.substr(0, output.find('\n'));
}

// Where a program of this build finds a folder that the emulator's file tree has as well.
std::string FolderOfProgram(const std::string& path)
{
    return RunsEmulated() ? std::getenv("QEMU_LD_PREFIX") + path : path;
}

CQDTimestamp MomentOf(unsigned int year, unsigned int month, unsigned int day, unsigned int hour, unsigned int minute,
                      unsigned int second, unsigned int millisecond)
{
    CQDTimestamp moment;
    EXPECT_TRUE(moment.SetDateAndHHMMSSFFF(year, month, day, hour, minute, second, millisecond));
    return moment;
}

std::string ZoneSection(const CQDTimestamp& now)
{
    CTextOutputString text;
    text.SetLineTermination(LineTerminationLF);
    HostReport report(text);
    report.PrintTimeZone(now);
    return text.MoveString();
}

// Makes /etc/localtime a link to `target`; only in a folder that may be changed.
void LinkLocalTimeTo(const std::string& target)
{
    std::filesystem::remove("/etc/localtime");
    std::filesystem::create_symlink(target, "/etc/localtime");
}

} // namespace

TEST(StationReport, HasFourSectionsAndNoService)
{
    std::vector<std::string> titles;

    for (const Section& section : Report())
        titles.push_back(section.m_Title);

    EXPECT_THAT(titles, ElementsAre("Host", "Network", "Serial ports", "Time zone"));
}

TEST(StationReport, HostIsThatOfUname)
{
    EXPECT_THAT(LinesOf(Report(), "Host"),
                ElementsAre("Name: " + LineOf({"uname", "-n"}), "System: " + LineOf({"uname", "-s"}),
                            "Release: " + LineOf({"uname", "-r"}), "Version: " + LineOf({"uname", "-v"})));
}

TEST(StationReport, NetworkHasTheNamesAndAddressesOfTheHost)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "hosts", "198.51.100.1 station.example.org station-7\n");
    const MountedOver hosts(folder / "hosts", "/etc/hosts");
    if (!hosts.IsMounted())
        GTEST_SKIP() << hosts.GetReason();
    std::string reason;
    if (!EnterNetworkNamespace(reason))
        GTEST_SKIP() << reason;
    ASSERT_TRUE(PrivateNamespace::Enter(CLONE_NEWUTS));
    ASSERT_EQ(::sethostname("station-7", 9), 0);
    LineOf({"ip", "link", "add", "v0", "type", "veth", "peer", "name", "v1"});
    LineOf({"ip", "addr", "add", "198.51.100.1/28", "dev", "v0"});
    LineOf({"ip", "addr", "add", "10.1.2.3/8", "dev", "v1"});
    LineOf({"ip", "addr", "add", "2001:db8::7/64", "dev", "v1", "nodad"});

    const std::vector<std::string> lines = LinesOf(Report(), "Network");

    ASSERT_EQ(lines.size(), 10u);
    EXPECT_THAT(std::vector<std::string>(lines.begin(), lines.begin() + 5),
                ElementsAre("Canonical Host Name: station-7", "Host Names:", "  station-7", "  station.example.org",
                            "IP Addresses:"));
    EXPECT_THAT(
        std::vector<std::string>(lines.begin() + 5, lines.end()),
        UnorderedElementsAre("  127.0.0.1/8", "  ::1/128", "  198.51.100.1/28", "  10.1.2.3/8", "  2001:db8::7/64"));
}

TEST(StationReport, SerialPortsAreTheDevicesOfSerialDrivers)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "drivers", "/dev/tty  /dev/tty  5  0  system:/dev/tty\n"
                                      "serial  /dev/ttyS  4  64-67  serial\n"
                                      "usbserial  /dev/ttyUSB  188  0-511  serial\n"
                                      "unknown  /dev/tty  4  1-63  console\n");
    const MountedOver drivers(folder / "drivers", "/proc/tty/drivers");
    if (!drivers.IsMounted())
        GTEST_SKIP() << drivers.GetReason();
    const ReplacedFolder devices(FolderOfProgram("/dev"));
    ASSERT_TRUE(devices.IsMounted()) << devices.GetReason();
    for (const char* name : {"ttyS0", "tty0", "ttyUSB3", "null", "xttyS1"})
        WriteFileText(devices / name, "");

    EXPECT_THAT(LinesOf(Report(), "Serial ports"), UnorderedElementsAre("/dev/ttyS0", "/dev/ttyUSB3"));
}

TEST(StationReport, HostWithoutSerialDriversHasNoPorts)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "drivers", "unknown  /dev/tty  4  1-63  console\n");
    const MountedOver drivers(folder / "drivers", "/proc/tty/drivers");
    if (!drivers.IsMounted())
        GTEST_SKIP() << drivers.GetReason();

    EXPECT_THAT(LinesOf(Report(), "Serial ports"), ElementsAre("none"));
}

TEST(StationReport, LocalTimeIsThatOfDate)
{
    const ChangeableFolder etc("/etc");
    if (!etc.IsMounted())
        GTEST_SKIP() << etc.GetReason();
    LinkLocalTimeTo("/usr/share/zoneinfo/Asia/Kathmandu");
    const ScopedVariable zone("TZ", nullptr);

    const std::string before = LineOf({"date", "+Local time: %F %T.%3N UTC%:z"});
    const std::vector<std::string> lines = LinesOf(Report(), "Time zone");
    const std::string after = LineOf({"date", "+Local time: %F %T.%3N UTC%:z"});

    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], "Name: Asia/Kathmandu");
    EXPECT_GE(lines[1], before);
    EXPECT_LE(lines[1], after);
    EXPECT_THAT(lines[1], HasSubstr(" UTC+05:45"));
}

TEST(StationReport, ChangesAreThoseAroundTheMoment)
{
    const struct
    {
        const char* m_Name;
        CQDTimestamp m_Now;
        const char* m_Text;
    } cases[] = {
        {"Europe/Berlin", MomentOf(2026, 7, 1, 12, 34, 56, 789),
         "  Local time: 2026-07-01 14:34:56.789 UTC+02:00\n"
         "  Last change: 2026-03-29 01:00:00.000 Offset 7200 IsDST 1 Tz CEST\n"
         "  Next change: 2026-10-25 01:00:00.000 Offset 3600 IsDST 0 Tz CET\n"},
        {"Europe/Berlin", MomentOf(2026, 10, 25, 0, 59, 59, 999),
         "  Local time: 2026-10-25 02:59:59.999 UTC+02:00\n"
         "  Last change: 2026-03-29 01:00:00.000 Offset 7200 IsDST 1 Tz CEST\n"
         "  Next change: 2026-10-25 01:00:00.000 Offset 3600 IsDST 0 Tz CET\n"},
        {"Europe/Berlin", MomentOf(2026, 10, 25, 1, 0, 0, 0),
         "  Local time: 2026-10-25 02:00:00.000 UTC+01:00\n"
         "  Last change: 2026-10-25 01:00:00.000 Offset 3600 IsDST 0 Tz CET\n"
         "  Next change: 2027-03-28 01:00:00.000 Offset 7200 IsDST 1 Tz CEST\n"},
        {"America/St_Johns", MomentOf(2027, 1, 1, 0, 0, 0, 0),
         "  Local time: 2026-12-31 20:30:00.000 UTC-03:30\n"
         "  Last change: 2026-11-01 04:30:00.000 Offset -12600 IsDST 0 Tz NST\n"
         "  Next change: 2027-03-14 05:30:00.000 Offset -9000 IsDST 1 Tz NDT\n"},
        {"Etc/UTC", MomentOf(2027, 1, 1, 0, 0, 0, 0),
         "  Local time: 2027-01-01 00:00:00.000 UTC+00:00\n"
         "  Last change: none\n"
         "  Next change: none\n"},
    };

    const ChangeableFolder etc("/etc");
    if (!etc.IsMounted())
        GTEST_SKIP() << etc.GetReason();

    for (const auto& test : cases) {
        SCOPED_TRACE(test.m_Name);
        LinkLocalTimeTo(std::string("/usr/share/zoneinfo/") + test.m_Name);
        EXPECT_EQ(ZoneSection(test.m_Now), std::string("Time zone\n  Name: ") + test.m_Name + '\n' + test.m_Text);
    }
}

TEST(StationReport, OffsetWithSecondsIsShownWithThem)
{
    const ChangeableFolder etc("/etc");
    if (!etc.IsMounted())
        GTEST_SKIP() << etc.GetReason();
    std::filesystem::remove("/etc/localtime");
    ZoneBlock block;
    block.m_Types = {{-1172, 0, 0}};
    block.m_Designations = std::string("LMT\0", 4);
    WriteFileText("/etc/localtime", block.ToBytes('\0', 4));

    EXPECT_EQ(ZoneSection(MomentOf(2027, 1, 1, 0, 0, 0, 0)), "Time zone\n"
                                                             "  Name: unknown\n"
                                                             "  Local time: 2026-12-31 23:40:28.000 UTC-00:19:32\n"
                                                             "  Last change: none\n"
                                                             "  Next change: none\n");
}

TEST(StationReport, WithoutAZoneFileItSaysSo)
{
    const ChangeableFolder etc("/etc");
    if (!etc.IsMounted())
        GTEST_SKIP() << etc.GetReason();
    std::filesystem::remove("/etc/localtime");

    EXPECT_EQ(ZoneSection(MomentOf(2027, 1, 1, 0, 0, 0, 0)),
              "Time zone\n"
              "  /etc/localtime cannot be used (read status 1): local time is UTC\n"
              "  Name: unknown\n"
              "  Local time: 2027-01-01 00:00:00.000 UTC+00:00\n"
              "  Last change: none\n"
              "  Next change: none\n");
}

TEST(StationReport, NeedsNoFolderAndLeavesOneAlone)
{
    const TemporaryFolder home;
    const ScopedVariable variable("HOME", home.GetPath().c_str());

    EXPECT_EQ(Report({"-logdir", home / "folder"}).size(), 4u);

    EXPECT_TRUE(std::filesystem::is_empty(home.GetPath()));
}

TEST(StationReport, WorksWithoutAHomeFolder)
{
    const ScopedVariable variable("HOME", nullptr);

    EXPECT_EQ(Report().size(), 4u);
}

TEST(StationReport, CanBeHadWhileAStationRuns)
{
    const TemporaryFolder folder;
    const ReservedPort port;
    const std::vector<std::string> arguments{"-logdir", folder.GetPath(), "-port", std::to_string(port.Get())};
    ChildProcess station({STATION_PROGRAM, arguments[0], arguments[1], arguments[2], arguments[3]});
    ASSERT_TRUE(station.WaitForOutput("Station: serving Modbus/TCP"));
    const std::string log = ReadFileText(folder / "station_001.log");

    EXPECT_EQ(Report(arguments).size(), 4u);

    EXPECT_EQ(ReadFileText(folder / "station_001.log"), log);
    EXPECT_TRUE(IsPortOpen(port.Get()));
}

TEST(StationReport, WrongArgumentEndsWithStatus2AllTheSame)
{
    ChildProcess station({STATION_PROGRAM, "-report", "-port", "0"});

    EXPECT_EQ(station.WaitForExit(), 2);
    EXPECT_EQ(station.GetErrors(), "station: -port needs a number from 1 to 65535, not \"0\"\n");
    EXPECT_EQ(station.GetOutput(), "");
}

TEST(StationReport, HelpIsPrintedInItsPlace)
{
    ChildProcess station({STATION_PROGRAM, "-report", "-help"});

    EXPECT_EQ(station.WaitForExit(), 0);
    EXPECT_EQ(station.GetOutput().substr(0, 9), "station: ");
}

TEST(StationReport, OutputThatCannotBeWrittenEndsWithStatus1)
{
    const struct
    {
        const char* m_Command;
        const char* m_Reason;
    } cases[] = {
        {"exec \"$0\" -report >/dev/full", "No space left on device"},
        {"exec \"$0\" -report >&-", "Bad file descriptor"},
        {"exec \"$0\" -help >/dev/full", "No space left on device"},
    };

    for (const auto& test : cases) {
        SCOPED_TRACE(test.m_Command);
        ChildProcess station({"sh", "-c", test.m_Command, STATION_PROGRAM});
        EXPECT_EQ(station.WaitForExit(), 1);
        EXPECT_EQ(station.GetErrors(),
                  std::string("station: cannot write to standard output: ") + test.m_Reason + "\n");
    }
}
