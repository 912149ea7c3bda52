#include <QDPlatform/QDEnumerateSerialPorts.h>

#include <QDPlatform/CTextOutputString.h>

#include "AllocationCounter.h"
#include "ChildProcess.h"
#include "FaultPlan.h"
#include "MountedOver.h"
#include "OpenDescriptors.h"
#include "ReplacedFolder.h"
#include "SerialHost.h"
#include "SignalCounter.h"
#include "SmallFileSystem.h"
#include "TemporaryFolder.h"
#include "WaitUntil.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <new>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

static_assert(!std::is_copy_constructible_v<QDEnumerateSerialPorts> &&
              !std::is_move_constructible_v<QDEnumerateSerialPorts>);
static_assert(!std::is_copy_assignable_v<QDEnumerateSerialPorts> && !std::is_move_assignable_v<QDEnumerateSerialPorts>);
static_assert(!std::is_polymorphic_v<QDEnumerateSerialPorts>);
static_assert(std::is_same_v<decltype(std::declval<QDEnumerateSerialPorts&>().FirstPort()), const qdchar*>);
static_assert(std::is_same_v<decltype(std::declval<QDEnumerateSerialPorts&>().NextPort()), const qdchar*>);

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;

namespace
{

using Names = std::vector<std::string>;

// As a host has them whose adapters for USB are plugged in.
const char* const kUsualDrivers = "/dev/tty             /dev/tty        5       0 system:/dev/tty\n"
                                  "/dev/console         /dev/console    5       1 system:console\n"
                                  "usbserial            /dev/ttyUSB   188 0-511 serial\n"
                                  "serial               /dev/ttyS       4 64-95 serial\n"
                                  "pty_slave            /dev/pts      136 0-1048575 pty:slave\n"
                                  "pty_master           /dev/ptm      128 0-1048575 pty:master\n"
                                  "unknown              /dev/tty        4 1-63 console\n";

// How the dump begins once these are read.
const std::string kDumpOfUsualDrivers = "QDEnumerateSerialPorts state:\n"
                                        "\t/proc/tty/devices:\n"
                                        "\t\tDriver usbserial, Device /dev/ttyUSB, Type serial\n"
                                        "\t\tDriver serial, Device /dev/ttyS, Type serial\n";

Names ListPorts(QDEnumerateSerialPorts& ports)
{
    Names names;
    for (const qdchar* port = ports.FirstPort(); port != nullptr; port = ports.NextPort())
        names.emplace_back(port);
    return names;
}

Names ListPorts()
{
    QDEnumerateSerialPorts ports;
    return ListPorts(ports);
}

// In the order of the file system.
Names EntriesOfDeviceFolder()
{
    Names names;
    DIR* const folder = ::opendir("/dev");
    if (folder == nullptr) {
        ADD_FAILURE() << std::strerror(errno);
        return names;
    }
    while (const dirent* const entry = ::readdir(folder))
        names.emplace_back(entry->d_name);
    ::closedir(folder);
    return names;
}

std::string DumpOf(const QDEnumerateSerialPorts& ports)
{
    CTextOutputString out;
    out.SetLineTermination(LineTerminationLF);
    ports.DumpState(out);
    EXPECT_EQ(out.GetIndent(), 0);
    return out.MoveString();
}

// The line of the dump that shows the walk.
std::string WalkLineOf(const QDEnumerateSerialPorts& ports)
{
    const std::string dump = DumpOf(ports);
    const std::size_t begin = dump.find("\tm_pDirectorySearch ");
    return begin == std::string::npos ? "none" : dump.substr(begin, dump.find('\n', begin) - begin);
}

// What comes from a terminal until it is `count` bytes, or for 20 s nothing comes.
std::string ReadTerminal(int terminal, std::size_t count)
{
    std::string text;
    while (text.size() < count) {
        pollfd descriptor{terminal, POLLIN, 0};
        char buffer[64];
        if (::poll(&descriptor, 1, 20000) != 1)
            return text;
        const ssize_t length = ::read(terminal, buffer, sizeof buffer);
        if (length <= 0)
            return text;
        text.append(buffer, static_cast<std::size_t>(length));
    }
    return text;
}

std::string Repeat(char c, std::size_t count)
{
    return std::string(count, c);
}

} // namespace

// --- Which entries are ports ---------------------------------------------------------------------------------------

TEST(QDEnumerateSerialPorts, PortsAreTheEntriesThatBeginAsASerialDriversDevicesDo)
{
    const SerialHost host(kUsualDrivers, {"ttyS0", "ttyS", "ttyS10", "ttyUSB0", "ttyUSB3x", "tty", "tty0", "tty63",
                                          "ttyACM0", "ttyUS", "ttys0", "TTYS0", "xttyS0", "null", "tt", "console"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();

    EXPECT_THAT(ListPorts(),
                UnorderedElementsAre("/dev/ttyS0", "/dev/ttyS", "/dev/ttyS10", "/dev/ttyUSB0", "/dev/ttyUSB3x"));
}

TEST(QDEnumerateSerialPorts, EntriesOfEveryKindAreListed)
{
    const SerialHost host(kUsualDrivers, {"ttyS0"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    ASSERT_EQ(::mkdir(host.GetDevice("ttyS1").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("nothing", host.GetDevice("ttyS2").c_str()), 0);
    ASSERT_EQ(::symlink("ttyS0", host.GetDevice("ttyS3").c_str()), 0);
    ASSERT_EQ(::mkfifo(host.GetDevice("ttyS4").c_str(), 0644), 0);

    EXPECT_THAT(ListPorts(),
                UnorderedElementsAre("/dev/ttyS0", "/dev/ttyS1", "/dev/ttyS2", "/dev/ttyS3", "/dev/ttyS4"));
}

TEST(QDEnumerateSerialPorts, PortsComeInTheOrderOfTheFolder)
{
    Names devices;
    for (int i = 0; i < 300; ++i)
        devices.push_back("ttyS" + std::to_string(i * 7 % 300));
    const SerialHost host(kUsualDrivers, devices);
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    Names expected;
    for (const std::string& name : EntriesOfDeviceFolder()) {
        if (name != "." && name != "..")
            expected.push_back("/dev/" + name);
    }
    ASSERT_EQ(expected.size(), 300u);
    ASSERT_FALSE(std::is_sorted(expected.begin(), expected.end()));

    EXPECT_THAT(ListPorts(), ElementsAreArray(expected));
}

TEST(QDEnumerateSerialPorts, DriverIsRecognisedByItsLine)
{
    struct Case
    {
        const char* m_pSituation;
        std::string m_Drivers;
        Names m_Ports;
    };

    const Names none;
    const Names s = {"/dev/ttyS0"};
    const Names both = {"/dev/ttyS0", "/dev/ttyUSB0"};
    const Names all = {"/dev/ttyS0", "/dev/ttyUSB0", "/dev/tty0", "/dev/tty"};
    const Case cases[] = {
        {"empty file", "", none},
        {"a serial driver", "serial /dev/ttyS 4 64 serial\n", s},
        {"no serial driver", "pty_slave /dev/ttyS 136 0-1048575 pty:slave\n", none},
        {"two serial drivers", "a /dev/ttyS 4 64 serial\nb /dev/ttyUSB 188 0-511 serial\n", both},
        {"driver's name is not looked at", "pty /dev/ttyS x y serial\n", s},
        {"type with a subtype", "serial /dev/ttyS 4 64 serial:x\n", none},
        {"type in upper case", "serial /dev/ttyS 4 64 Serial\n", none},
        {"beginning of the type", "serial /dev/ttyS 4 64 seria\n", none},
        {"no type", "serial /dev/ttyS 4 64\n", none},
        {"two fields", "serial /dev/ttyS\n", none},
        {"type in the fourth field", "serial /dev/ttyS 4 serial\n", none},
        {"six fields", "serial /dev/ttyS 4 64 serial more\n", s},
        {"type in the sixth field", "my driver /dev/ttyS 4 64 serial\n", none},
        {"no line end at the end", "serial /dev/ttyS 4 64 serial", s},
        {"CR and LF", "serial /dev/ttyS 4 64 serial\r\nb /dev/ttyUSB 188 0 serial\r\n", both},
        {"TABs", "serial\t/dev/ttyS\t\t4\t64\tserial\n", s},
        {"all kinds of white space", "serial \f\v\r\t /dev/ttyS\v4\f64\rserial \t\n", s},
        {"white space in front", " \t serial /dev/ttyS 4 64 serial\n", s},
        {"other control characters are no white space", "serial /dev/ttyS 4 64\x1F serial\x1F\n", none},
        {"bytes above 127 are no white space", "serial /dev/ttyS 4 64 serial\xA0\n", none},
        {"a line end of other alphabets is no white space", "serial /dev/ttyS 4 64 serial\x85\n", none},
        {"empty lines between", "\n \n\nserial /dev/ttyS 4 64 serial\n\n\n", s},
        {"node without a folder", "serial ttyS 4 64 serial\n", none},
        {"node in another folder", "serial /devices/ttyS 4 64 serial\n", none},
        {"node in upper case", "serial /DEV/ttyS 4 64 serial\n", none},
        {"node with a relative folder", "serial dev/ttyS 4 64 serial\n", none},
        {"the folder without its slash", "serial /dev 4 64 serial\n", none},
        {"node in a folder below", "serial /dev/tts/ttyS 4 64 serial\n", none},
        {"node is a port's whole name", "serial /dev/ttyS0 4 64 serial\n", s},
        {"node is longer than the port's name", "serial /dev/ttyS00 4 64 serial\n", none},
        {"node is the folder", "serial /dev/ 4 64 serial\n", all},
        {"node of one letter", "serial /dev/t 4 64 serial\n", all},
        {"node is tty", "serial /dev/tty 4 64 serial\n", all},
        {"node does not begin with tty", "serial /dev/console 4 64 serial\n", none},
        {"the same driver twice", "a /dev/ttyS 4 64 serial\na /dev/ttyS 4 64 serial\n", s},
    };
    const SerialHost host("", {"ttyS0", "ttyUSB0", "tty0", "tty", "tt", "t", "ttx0", "console", "null"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_pSituation);
        host.WriteDrivers(testCase.m_Drivers);

        EXPECT_THAT(ListPorts(), UnorderedElementsAreArray(testCase.m_Ports));
    }
}

// --- Long lines ----------------------------------------------------------------------------------------------------

TEST(QDEnumerateSerialPorts, TypeIsCutAtTheEndOfALongLine)
{
    struct Case
    {
        const char* m_pSituation;
        std::size_t m_LinesBefore;
        std::size_t m_Length;
        bool m_IsPort;
    };

    const Case cases[] = {
        {"first line of 511 bytes", 0, 511, true},  {"first line of 512 bytes", 0, 512, false},
        {"second line of 255 bytes", 1, 255, true}, {"second line of 256 bytes", 1, 256, false},
        {"third line of 255 bytes", 2, 255, true},  {"third line of 256 bytes", 2, 256, false},
    };
    const SerialHost host("", {"ttyS0"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_pSituation);
        const std::string begin = "serial /dev/ttyS 4 64";
        const std::string end = "serial";
        const std::string line = begin + Repeat(' ', testCase.m_Length - begin.size() - end.size()) + end;
        host.WriteDrivers(Repeat('\n', testCase.m_LinesBefore) + line + '\n');

        EXPECT_EQ(ListPorts(), testCase.m_IsPort ? Names{"/dev/ttyS0"} : Names());
    }
}

TEST(QDEnumerateSerialPorts, RestOfALongLineIsALineOfItsOwn)
{
    struct Case
    {
        const char* m_pSituation;
        std::string m_TextBefore;
        std::string m_DriverName; // of the line that begins in the text "serial" or before it
    };

    const Case cases[] = {
        {"at byte 510 of the first line", Repeat('x', 510), "erial"},
        {"at byte 511 of the first line", Repeat('x', 511), "serial"},
        {"at byte 512 of the first line", Repeat('x', 512), "xserial"},
        {"at byte 765 of the first line", Repeat('x', 765), "erial"},
        {"at byte 766 of the first line", Repeat('x', 766), "serial"},
        {"at byte 767 of the first line", Repeat('x', 767), "xserial"},
        {"at byte 254 of the second line", "\n" + Repeat('x', 254), "erial"},
        {"at byte 255 of the second line", "\n" + Repeat('x', 255), "serial"},
        {"at byte 256 of the second line", "\n" + Repeat('x', 256), "xserial"},
        {"at byte 511 of the second line", "\n" + Repeat('x', 511), "xserial"},
    };
    const SerialHost host("", {"ttyS0"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_pSituation);
        host.WriteDrivers(testCase.m_TextBefore + "serial /dev/ttyS 4 64 serial" + Repeat(' ', 60) + '\n');
        QDEnumerateSerialPorts ports;

        EXPECT_THAT(ListPorts(ports), ElementsAre("/dev/ttyS0"));

        EXPECT_THAT(DumpOf(ports), testing::HasSubstr("\n\t\tDriver " + testCase.m_DriverName +
                                                      ", Device /dev/ttyS, Type serial\n\tm_p"));
    }
}

// --- Names ---------------------------------------------------------------------------------------------------------

TEST(QDEnumerateSerialPorts, NameIsCutTo58Bytes)
{
    struct Case
    {
        const char* m_pSituation;
        std::string m_Name;
        std::string m_Port;
    };

    const Case cases[] = {
        {"57 bytes", "ttyS" + Repeat('0', 53), "/dev/ttyS" + Repeat('0', 53)},
        {"58 bytes", "ttyS" + Repeat('0', 54), "/dev/ttyS" + Repeat('0', 54)},
        {"59 bytes", "ttyS" + Repeat('0', 54) + "1", "/dev/ttyS" + Repeat('0', 54)},
        {"255 bytes", "ttyS" + Repeat('0', 54) + Repeat('1', 197), "/dev/ttyS" + Repeat('0', 54)},
        {"a character that ends at the cut", "ttyS" + Repeat('0', 52) + "\xC3\xA9x",
         "/dev/ttyS" + Repeat('0', 52) + "\xC3\xA9"},
        {"a character across the cut", "ttyS" + Repeat('0', 53) + "\xC3\xA9", "/dev/ttyS" + Repeat('0', 53) + "\xC3"},
        {"UTF-8", "ttyS\xE2\x82\xAC", "/dev/ttyS\xE2\x82\xAC"},
        {"ill-formed UTF-8", "ttyS\xFF\xC3", "/dev/ttyS\xFF\xC3"},
        {"blanks and a line feed", "ttyS a\n", "/dev/ttyS a\n"},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_pSituation);
        const SerialHost host(kUsualDrivers, {testCase.m_Name});
        if (!host.IsMounted())
            GTEST_SKIP() << host.GetReason();

        EXPECT_THAT(ListPorts(), ElementsAre(testCase.m_Port));
    }
}

TEST(QDEnumerateSerialPorts, ShortNameBehindALongOneIsWhole)
{
    // One of the short names is behind the long one, whether the folder's order is that of making or its reverse.
    const SerialHost host(kUsualDrivers, {"ttyS0", "ttyS" + Repeat('1', 100), "ttyS2"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();

    EXPECT_THAT(ListPorts(), UnorderedElementsAre("/dev/ttyS0", "/dev/ttyS" + Repeat('1', 54), "/dev/ttyS2"));
}

TEST(QDEnumerateSerialPorts, PathLiesInTheObjectAndIsOverwritten)
{
    const SerialHost host(kUsualDrivers, {"ttyS0", "ttyS1"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    QDEnumerateSerialPorts ports;

    const qdchar* const first = ports.FirstPort();
    ASSERT_NE(first, nullptr);
    const std::string before = first;
    const qdchar* const second = ports.NextPort();

    const auto* const object = reinterpret_cast<const char*>(&ports);
    EXPECT_TRUE(first >= object && first + 64 <= object + sizeof ports);
    EXPECT_EQ(second, first);
    EXPECT_NE(first, before);
}

// --- Walks ---------------------------------------------------------------------------------------------------------

TEST(QDEnumerateSerialPorts, FirstPortWithoutAnyPortIsNull)
{
    const SerialHost host(kUsualDrivers, {"tty0", "null"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    QDEnumerateSerialPorts ports;

    EXPECT_EQ(ports.FirstPort(), nullptr);

    EXPECT_EQ(ports.NextPort(), nullptr);
}

TEST(QDEnumerateSerialPorts, NextPortBeforeAnyWalkIsNull)
{
    QDEnumerateSerialPorts ports;

    EXPECT_EQ(ports.NextPort(), nullptr);
}

TEST(QDEnumerateSerialPorts, NextPortBehindTheEndIsNull)
{
    const SerialHost host(kUsualDrivers, {"ttyS0"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    QDEnumerateSerialPorts ports;
    ASSERT_STREQ(ports.FirstPort(), "/dev/ttyS0");
    ASSERT_EQ(ports.NextPort(), nullptr);

    EXPECT_EQ(ports.NextPort(), nullptr);
    EXPECT_EQ(ports.NextPort(), nullptr);
}

TEST(QDEnumerateSerialPorts, SecondFirstPortRestartsTheWalk)
{
    const SerialHost host(kUsualDrivers, {"ttyS0", "ttyS1", "ttyS2"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    const Names expected = ListPorts();
    ASSERT_EQ(expected.size(), 3u);
    QDEnumerateSerialPorts ports;
    ports.FirstPort();
    ASSERT_EQ(ports.NextPort(), expected[1]);

    EXPECT_THAT(ListPorts(ports), ElementsAreArray(expected));
}

TEST(QDEnumerateSerialPorts, WalkAfterTheEndFindsWhatIsNew)
{
    const SerialHost host(kUsualDrivers, {"ttyS0"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    QDEnumerateSerialPorts ports;
    ASSERT_THAT(ListPorts(ports), ElementsAre("/dev/ttyS0"));
    WriteFileText(host.GetDevice("ttyUSB0"), "");

    EXPECT_THAT(ListPorts(ports), UnorderedElementsAre("/dev/ttyS0", "/dev/ttyUSB0"));
}

TEST(QDEnumerateSerialPorts, DriversOfEarlierWalksCountAsWell)
{
    const SerialHost host("a /dev/ttyS 4 64 serial\n", {"ttyS0", "ttyUSB0"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    QDEnumerateSerialPorts ports;
    ASSERT_THAT(ListPorts(ports), ElementsAre("/dev/ttyS0"));
    host.WriteDrivers("b /dev/ttyUSB 188 0-511 serial\n");

    EXPECT_THAT(ListPorts(ports), UnorderedElementsAre("/dev/ttyS0", "/dev/ttyUSB0"));
}

// --- The descriptor ------------------------------------------------------------------------------------------------

TEST(QDEnumerateSerialPorts, WalkHoldsOneDescriptorThatProgramsDoNotInherit)
{
    const SerialHost host(kUsualDrivers, {"ttyS0", "ttyS1"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    const int before = CountOpenDescriptors();
    QDEnumerateSerialPorts ports;

    ports.FirstPort();

    EXPECT_EQ(CountOpenDescriptors(), before + 1);
    const int descriptor = FindDescriptorOf(DeviceFolder());
    ASSERT_GE(descriptor, 0);
    EXPECT_EQ(::fcntl(descriptor, F_GETFD), FD_CLOEXEC);
}

TEST(QDEnumerateSerialPorts, DescriptorIsClosedWithTheWalk)
{
    const SerialHost host(kUsualDrivers, {"ttyS0", "ttyS1"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    const int before = CountOpenDescriptors();
    {
        QDEnumerateSerialPorts ports;
        ListPorts(ports);
        EXPECT_EQ(CountOpenDescriptors(), before) << "at the end of the folder";
        ports.FirstPort();
        ports.FirstPort();
        EXPECT_EQ(CountOpenDescriptors(), before + 1) << "after a second start";
    }
    EXPECT_EQ(CountOpenDescriptors(), before) << "by the destructor";
}

// --- Failures ------------------------------------------------------------------------------------------------------

TEST(QDEnumerateSerialPorts, MissingDriversFileGivesNoPortsAndDoesNotOpenTheFolder)
{
    const ReplacedFolder drivers("/proc/tty");
    if (!drivers.IsMounted())
        GTEST_SKIP() << drivers.GetReason();
    QDEnumerateSerialPorts ports;
    const FaultPlan opened("opendir", 1000, EIO);

    EXPECT_EQ(ports.FirstPort(), nullptr);

    EXPECT_EQ(opened.GetCallCount(), 0);
    EXPECT_EQ(ports.NextPort(), nullptr);
}

TEST(QDEnumerateSerialPorts, DriversFileThatMayNotBeReadGivesNoPorts)
{
    const SerialHost host(kUsualDrivers, {"ttyS0"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    ASSERT_EQ(::chmod(host.GetDriversFile().c_str(), 0), 0);
    const UnprivilegedUser user;
    ASSERT_EQ(::faccessat(AT_FDCWD, "/proc/tty/drivers", F_OK, AT_EACCESS), 0) << std::strerror(errno);

    EXPECT_THAT(ListPorts(), IsEmpty());
}

TEST(QDEnumerateSerialPorts, DriversFileThatOpensButCannotBeReadHoldsNoDrivers)
{
    const ReplacedFolder drivers("/proc/tty");
    if (!drivers.IsMounted())
        GTEST_SKIP() << drivers.GetReason();
    ASSERT_EQ(::mkdir((drivers / "drivers").c_str(), 0755), 0);
    QDEnumerateSerialPorts ports;
    const FaultPlan opened("opendir", 1000, EIO);

    EXPECT_EQ(ports.FirstPort(), nullptr);

    EXPECT_EQ(opened.GetCallCount(), 1) << "the folder is walked all the same";
}

TEST(QDEnumerateSerialPorts, FolderThatMayNotBeReadGivesNoPorts)
{
    const SerialHost host(kUsualDrivers, {"ttyS0"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    ASSERT_EQ(::chmod(host.GetDevice("").c_str(), 0), 0);
    QDEnumerateSerialPorts ports;
    {
        const UnprivilegedUser user;
        const FaultPlan opened("opendir", 1000, EIO);

        EXPECT_EQ(ports.FirstPort(), nullptr);

        EXPECT_EQ(opened.GetCallCount(), 1);
        EXPECT_EQ(ports.NextPort(), nullptr);
    }
    EXPECT_THAT(ListPorts(ports), ElementsAre("/dev/ttyS0"));
}

TEST(QDEnumerateSerialPorts, FirstPortThatFailsEndsTheWalkUnderWay)
{
    const SerialHost host(kUsualDrivers, {"ttyS0", "ttyS1"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    const int before = CountOpenDescriptors();
    QDEnumerateSerialPorts ports;
    ASSERT_NE(ports.FirstPort(), nullptr);
    ASSERT_THAT(DumpOf(ports), testing::StartsWith(kDumpOfUsualDrivers));
    {
        const ReplacedFolder drivers("/proc/tty");
        ASSERT_TRUE(drivers.IsMounted()) << drivers.GetReason();

        EXPECT_EQ(ports.FirstPort(), nullptr);
    }

    EXPECT_EQ(CountOpenDescriptors(), before);
    EXPECT_EQ(ports.NextPort(), nullptr);
    EXPECT_THAT(DumpOf(ports), testing::StartsWith(kDumpOfUsualDrivers + "\tm_pDirectorySearch (nil)\n"))
        << "the drivers stay";
}

TEST(QDEnumerateSerialPorts, SignalWhileTheFolderIsOpenedOrReadEndsTheWalk)
{
    const SerialHost host(kUsualDrivers, {"ttyS0"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    const int before = CountOpenDescriptors();
    for (const char* function : {"opendir", "readdir"}) {
        SCOPED_TRACE(function);
        QDEnumerateSerialPorts ports;
        const FaultPlan interrupted(function, 1, EINTR);

        EXPECT_EQ(ports.FirstPort(), nullptr);

        EXPECT_EQ(interrupted.GetCallCount(), 1);
        EXPECT_EQ(CountOpenDescriptors(), before);
        EXPECT_EQ(ports.NextPort(), nullptr);
    }
}

TEST(QDEnumerateSerialPorts, SignalWhileTheDriversFileIsOpenedGivesNoPorts)
{
    const TemporaryFolder folder;
    ASSERT_EQ(::mkfifo((folder / "drivers").c_str(), 0644), 0); // opening it waits for a writer
    const MountedOver drivers(folder / "drivers", "/proc/tty/drivers");
    if (!drivers.IsMounted())
        GTEST_SKIP() << drivers.GetReason();
    const SignalCounter signals(SIGALRM);
    const itimerval often = {{0, 10000}, {0, 10000}};
    const itimerval never = {};
    QDEnumerateSerialPorts ports;
    const FaultPlan opened("opendir", 1000, EIO);

    ::setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_EQ(ports.FirstPort(), nullptr);
    ::setitimer(ITIMER_REAL, &never, nullptr);

    EXPECT_GE(signals.GetCount(), 1);
    EXPECT_EQ(opened.GetCallCount(), 0);
}

TEST(QDEnumerateSerialPorts, FailureWhileReadingTheFolderEndsTheWalk)
{
    const SerialHost host(kUsualDrivers, {"ttyS0", "ttyS1"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    const int before = CountOpenDescriptors();
    QDEnumerateSerialPorts ports;
    ASSERT_NE(ports.FirstPort(), nullptr);
    {
        const FaultPlan failure("readdir", 1, EIO);
        EXPECT_EQ(ports.NextPort(), nullptr);
    }

    EXPECT_EQ(ports.NextPort(), nullptr);
    EXPECT_EQ(CountOpenDescriptors(), before);
}

TEST(QDEnumerateSerialPorts, DriversFileIsClosedWhenMemoryIsShort)
{
    const SerialHost host(kUsualDrivers, {"ttyS0"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    const int before = CountOpenDescriptors();
    QDEnumerateSerialPorts ports;
    {
        const AllocationLimit limit(16);
        EXPECT_THROW(ports.FirstPort(), std::bad_alloc);
    }

    EXPECT_EQ(CountOpenDescriptors(), before);
    EXPECT_EQ(ports.NextPort(), nullptr);
}

// --- The dump ------------------------------------------------------------------------------------------------------

TEST(QDEnumerateSerialPorts, DumpOfANewObject)
{
    const QDEnumerateSerialPorts ports;

    EXPECT_EQ(DumpOf(ports), "QDEnumerateSerialPorts state:\n"
                             "\t/proc/tty/devices:\n"
                             "\tm_pDirectorySearch (nil)\n"
                             "\tm_CurrentName ''\n"
                             "\tcalls to readdir() = 0\n");
}

TEST(QDEnumerateSerialPorts, DumpInMidWalkAndAtItsEnd)
{
    const SerialHost host(kUsualDrivers, {"ttyS0"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    const Names entries = EntriesOfDeviceFolder();
    const auto place = std::find(entries.begin(), entries.end(), "ttyS0") - entries.begin() + 1;
    ASSERT_EQ(entries.size(), 3u); // "." and ".." too
    QDEnumerateSerialPorts ports;

    ASSERT_STREQ(ports.FirstPort(), "/dev/ttyS0");
    const std::string middle = DumpOf(ports);
    ASSERT_EQ(ports.NextPort(), nullptr);

    EXPECT_THAT(middle, testing::MatchesRegex(kDumpOfUsualDrivers +
                                              "\tm_pDirectorySearch 0x[0-9a-f]+\n"
                                              "\tm_CurrentName '/dev/ttyS0'\n"
                                              "\tcalls to readdir\\(\\) = " +
                                              std::to_string(place) + "\n"));
    EXPECT_EQ(DumpOf(ports), kDumpOfUsualDrivers + "\tm_pDirectorySearch (nil)\n"
                                                   "\tm_CurrentName '/dev/ttyS0'\n"
                                                   "\tcalls to readdir() = 4\n");
}

TEST(QDEnumerateSerialPorts, DumpShowsTheSameFolderAllThroughAWalk)
{
    const SerialHost host(kUsualDrivers, {"ttyS0", "ttyS1"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    QDEnumerateSerialPorts ports;
    char object[64];
    std::snprintf(object, sizeof object, "\tm_pDirectorySearch %p", static_cast<void*>(&ports));

    ASSERT_NE(ports.FirstPort(), nullptr);
    const std::string first = WalkLineOf(ports);
    ASSERT_NE(ports.NextPort(), nullptr);

    EXPECT_EQ(WalkLineOf(ports), first);
    EXPECT_NE(first, object) << "the object in the place of the folder";
}

TEST(QDEnumerateSerialPorts, EveryFirstPortAddsTheDriversOnceMore)
{
    const SerialHost host("a /dev/ttyS 4 64 serial\nb /dev/ttyS 4 64 console\nc /dev/ttyUSB 188 0-511 serial\n",
                          {"null"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    QDEnumerateSerialPorts ports;

    ports.FirstPort();
    ports.FirstPort();

    EXPECT_EQ(DumpOf(ports), "QDEnumerateSerialPorts state:\n"
                             "\t/proc/tty/devices:\n"
                             "\t\tDriver a, Device /dev/ttyS, Type serial\n"
                             "\t\tDriver c, Device /dev/ttyUSB, Type serial\n"
                             "\t\tDriver a, Device /dev/ttyS, Type serial\n"
                             "\t\tDriver c, Device /dev/ttyUSB, Type serial\n"
                             "\tm_pDirectorySearch (nil)\n"
                             "\tm_CurrentName ''\n"
                             "\tcalls to readdir() = 4\n");
}

TEST(QDEnumerateSerialPorts, NewWalkEmptiesTheNameAndCountsAnew)
{
    const SerialHost host(kUsualDrivers, {"ttyS0"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    QDEnumerateSerialPorts ports;
    ASSERT_THAT(ListPorts(ports), ElementsAre("/dev/ttyS0"));
    ASSERT_TRUE(std::filesystem::remove(host.GetDevice("ttyS0")));

    ASSERT_EQ(ports.FirstPort(), nullptr);

    EXPECT_THAT(DumpOf(ports), testing::EndsWith("\tm_CurrentName ''\n"
                                                 "\tcalls to readdir() = 3\n"));
}

TEST(QDEnumerateSerialPorts, WalkThatCannotStartLeavesNameAndCount)
{
    const SerialHost host(kUsualDrivers, {"ttyS0"});
    if (!host.IsMounted())
        GTEST_SKIP() << host.GetReason();
    QDEnumerateSerialPorts ports;
    ASSERT_THAT(ListPorts(ports), ElementsAre("/dev/ttyS0"));
    const FaultPlan failure("opendir", 1, EMFILE);

    ASSERT_EQ(ports.FirstPort(), nullptr);

    EXPECT_THAT(DumpOf(ports), testing::EndsWith("\tm_pDirectorySearch (nil)\n"
                                                 "\tm_CurrentName '/dev/ttyS0'\n"
                                                 "\tcalls to readdir() = 4\n"));
}

// --- The real thing ------------------------------------------------------------------------------------------------

TEST(QDEnumerateSerialPorts, PortsOfThisHostAreThoseThatTheShellFinds)
{
    // The names first, one in a line; then those of them that begin with one of the serial drivers' device names.
    const std::string script = "ls -a -1 \"$1\" | awk '"
                               "FNR == NR { if ($5 == \"serial\" && $2 ~ \"^/dev/\") bases[substr($2, 6)]; next } "
                               "/^tty/ { for (base in bases) if (index($0, base) == 1) { print \"/dev/\" $0; next } }"
                               "' /proc/tty/drivers -";
    if (::access("/proc/tty/drivers", R_OK) != 0)
        GTEST_SKIP() << "this system tells of no terminal drivers: " << std::strerror(errno);
    ChildProcess shell({"sh", "-c", script, "sh", DeviceFolder()});
    ASSERT_EQ(shell.WaitForExit(), 0) << shell.GetErrors();
    Names expected;
    std::istringstream lines(shell.GetOutput());
    for (std::string line; std::getline(lines, line);)
        expected.push_back(line);

    EXPECT_THAT(ListPorts(), UnorderedElementsAreArray(expected));
}

TEST(QDEnumerateSerialPorts, ListedPortCarriesBytes)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "drivers", kUsualDrivers);
    const SmallFileSystem devices("size=1m");
    if (!devices.IsMounted())
        GTEST_SKIP() << devices.GetReason();
    ASSERT_EQ(::mkdir((devices / "pts").c_str(), 0755), 0);
    if (::mount("/dev/pts", (devices / "pts").c_str(), nullptr, MS_BIND, nullptr) != 0)
        GTEST_SKIP() << "no terminals to be mounted: " << std::strerror(errno);
    ChildProcess port({"socat", "pty,raw,echo=0,link=" + (devices / "ttyUSB3"), "exec:cat"});
    ASSERT_TRUE(WaitUntil([&] { return std::filesystem::exists(devices / "ttyUSB3"); })) << port.GetErrors();
    const MountedOver drivers(folder / "drivers", "/proc/tty/drivers");
    const MountedOver mounted(devices.GetPath(), DeviceFolder());
    ASSERT_TRUE(drivers.IsMounted() && mounted.IsMounted()) << drivers.GetReason() << mounted.GetReason();
    QDEnumerateSerialPorts ports;

    const qdchar* const path = ports.FirstPort();

    ASSERT_STREQ(path, "/dev/ttyUSB3");
    const int terminal = ::open(path, O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(terminal, 0) << std::strerror(errno);
    EXPECT_EQ(::write(terminal, "ping", 4), 4);
    EXPECT_EQ(ReadTerminal(terminal, 4), "ping");
    ::close(terminal);
    EXPECT_EQ(ports.NextPort(), nullptr);
}
