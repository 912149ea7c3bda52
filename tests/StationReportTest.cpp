// What the station says of its host with -report.
#include "ChildProcess.h"
#include "LoopbackClient.h"
#include "MountedOver.h"
#include "NamedHost.h"
#include "NetworkInterfaces.h"
#include "ScopedVariable.h"
#include "SerialHost.h"
#include "StationProgram.h"
#include "TemporaryFolder.h"
#include "WaitUntil.h"
#include "ZoneFile.h"

#include <HostReport.h>

#include <QDPlatform/CTextOutputString.h>
#include <QDPlatform/QDTimestamp.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
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

CQDTimestamp MomentOf(unsigned int year, unsigned int month, unsigned int day, unsigned int hour)
{
    CQDTimestamp moment;
    EXPECT_TRUE(moment.SetDateAndHHMMSSFFF(year, month, day, hour, 34, 56, 789));
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

// An /etc/localtime of the test's own, as this process and its children see it; there is none at first. Where it is not
// mounted, the test skips itself with GetReason().
class OwnLocalTime
{
public:
    OwnLocalTime() { Remove(); }

    bool IsMounted() const { return m_Folder.IsMounted(); }

    const std::string& GetReason() const { return m_Folder.GetReason(); }

    void LinkTo(const std::string& target) const
    {
        Remove();
        if (IsMounted())
            std::filesystem::create_symlink(target, kFile);
    }

    void Write(const std::string& bytes) const
    {
        Remove();
        if (IsMounted())
            WriteFileText(kFile, bytes);
    }

private:
    static constexpr const char* kFile = "/etc/localtime";

    void Remove() const
    {
        if (IsMounted())
            std::filesystem::remove(kFile);
    }

    const ChangeableFolder m_Folder{"/etc"};
};

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
    const NamedHost host("station-7", "198.51.100.1 station.example.org station-7\n");
    if (!host.IsThere())
        GTEST_SKIP() << host.GetReason();
    std::string reason;
    if (!HasIpProgram(reason) || !HasIPv6(reason))
        GTEST_SKIP() << reason;
    ASSERT_TRUE(DoWithIp("link add v0 type veth peer name v1\n"
                         "addr add 198.51.100.1/28 dev v0\n"
                         "addr add 10.1.2.3/8 dev v1\n"
                         "addr add 2001:db8::7/64 dev v1 nodad\n"));

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
    const SerialHost host("/dev/tty  /dev/tty  5  0  system:/dev/tty\n"
                          "serial  /dev/ttyS  4  64-67  serial\n"
                          "usbserial  /dev/ttyUSB  188  0-511  serial\n"
                          "unknown  /dev/tty  4  1-63  console\n",
                          {"ttyS0", "tty0", "ttyUSB3", "null", "xttyS1"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();

    EXPECT_THAT(LinesOf(Report(), "Serial ports"), UnorderedElementsAre("/dev/ttyS0", "/dev/ttyUSB3"));
}

TEST(StationReport, HostWithoutSerialDriversHasNoPorts)
{
    const SerialHost host("unknown  /dev/tty  4  1-63  console\n", {"ttyS0"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();

    EXPECT_THAT(LinesOf(Report(), "Serial ports"), ElementsAre("none"));
}

TEST(StationReport, LocalTimeIsThatOfDateAndNotOfTheVariable)
{
    const OwnLocalTime localTime;
    if (!localTime.IsMounted())
        GTEST_SKIP() << localTime.GetReason();
    localTime.LinkTo("/usr/share/zoneinfo/Asia/Kathmandu");
    const ScopedVariable variable("TZ", "America/New_York");
    const std::vector<std::string> date{"env", "-u", "TZ", "date", "+Local time: %F %T.%3N UTC%:z"};

    const std::string before = LineOf(date);
    const std::vector<std::string> lines = LinesOf(Report(), "Time zone");
    const std::string after = LineOf(date);

    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "Name: Asia/Kathmandu");
    EXPECT_GE(lines[1], before);
    EXPECT_LE(lines[1], after);
    EXPECT_THAT(lines[1], HasSubstr(" UTC+05:45"));
}

TEST(StationReport, OffsetIsThatOfTheMoment)
{
    const OwnLocalTime localTime;
    if (!localTime.IsMounted())
        GTEST_SKIP() << localTime.GetReason();
    const TemporaryFolder folder;
    std::filesystem::create_directories(folder / "zoneinfo/Test");
    ZoneBlock zone;
    zone.m_Times = {1782896400}; // 2026-07-01 09:00:00 UTC
    zone.m_TypeIndices = "\1";
    zone.m_Types = {{5400, 0, 0}, {-12600, 1, 0}};
    zone.m_Designations = std::string("T\0", 2);
    WriteFileText(folder / "zoneinfo/Test/Zone", zone.ToBytes('\0', 4));
    localTime.LinkTo(folder / "zoneinfo/Test/Zone");

    EXPECT_EQ(ZoneSection(MomentOf(2026, 7, 1, 8)), "Time zone\n"
                                                    "  Name: Test/Zone\n"
                                                    "  Local time: 2026-07-01 10:04:56.789 UTC+01:30\n");
    EXPECT_EQ(ZoneSection(MomentOf(2026, 7, 1, 9)), "Time zone\n"
                                                    "  Name: Test/Zone\n"
                                                    "  Local time: 2026-07-01 06:04:56.789 UTC-03:30\n");
}

TEST(StationReport, OffsetWithSecondsIsShownWithThem)
{
    const OwnLocalTime localTime;
    if (!localTime.IsMounted())
        GTEST_SKIP() << localTime.GetReason();
    ZoneBlock zone;
    zone.m_Types = {{-1172, 0, 0}};
    zone.m_Designations = std::string("LMT\0", 4);
    localTime.Write(zone.ToBytes('\0', 4));

    EXPECT_EQ(ZoneSection(MomentOf(2027, 1, 1, 0)), "Time zone\n"
                                                    "  Name: unknown\n"
                                                    "  Local time: 2027-01-01 00:15:24.789 UTC-00:19:32\n");
}

TEST(StationReport, WithoutAZoneFileItSaysSo)
{
    const OwnLocalTime localTime;
    if (!localTime.IsMounted())
        GTEST_SKIP() << localTime.GetReason();

    EXPECT_EQ(ZoneSection(MomentOf(2027, 1, 1, 0)),
              "Time zone\n"
              "  /etc/localtime cannot be used (read status 1): local time is UTC\n"
              "  Name: unknown\n"
              "  Local time: 2027-01-01 00:34:56.789 UTC+00:00\n");
}

TEST(StationReport, OtherArgumentsHaveNoEffect)
{
    const TemporaryFolder home;
    const ScopedVariable variable("HOME", home.GetPath().c_str());

    EXPECT_EQ(Report({"-logdir", home / "folder", "-http", "8502", "-time-port", "123", "-poll", "http://127.0.0.1:1/",
                      "-links", "1", "-log", "6"})
                  .size(),
              4u);

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
    const StationProgram station(folder.GetPath());
    ASSERT_TRUE(station.WaitUntilItServes());
    const std::string file = folder / "station_001.log";
    // Which its thread writes, before or behind what the station says.
    ASSERT_TRUE(WaitUntil([&] { return ReadFileText(file).find("Listen thread started") != std::string::npos; }));
    const std::string log = ReadFileText(file);

    EXPECT_EQ(Report({"-logdir", folder.GetPath(), "-port", std::to_string(station.m_Port.Get())}).size(), 4u);

    EXPECT_EQ(ReadFileText(file), log);
    EXPECT_TRUE(IsPortOpen(station.m_Port.Get()));
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
        {"mkfifo \"$1\"; exec 3<>\"$1\" 4>\"$1\" 3>&-; exec \"$0\" -report >&4", "Broken pipe"},
        {"exec \"$0\" -report >/dev/full", "No space left on device"},
        {"exec \"$0\" -report >&-", "Bad file descriptor"},
        {"exec \"$0\" -help >/dev/full", "No space left on device"},
    };

    for (const auto& test : cases) {
        SCOPED_TRACE(test.m_Command);
        const TemporaryFolder folder;
        ChildProcess station({"sh", "-c", test.m_Command, STATION_PROGRAM, folder / "pipe"});
        EXPECT_EQ(station.WaitForExit(), 1);
        EXPECT_EQ(station.GetErrors(),
                  std::string("station: cannot write to standard output: ") + test.m_Reason + "\n");
    }
}
