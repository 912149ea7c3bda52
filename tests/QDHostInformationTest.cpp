#include <QDPlatform/QDHostInformation.h>

#include "AllocationCounter.h"
#include "ChildProcess.h"
#include "FaultPlan.h"
#include "RecordingTextOutput.h"
#include "ReplacedFolder.h"
#include "TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>

namespace
{

const char* const kKernelFolder = "/proc/sys/kernel";

} // namespace

TEST(CQDHostInformation, HostNameIsTheSystems)
{
    const CQDHostInformation host;

    EXPECT_EQ(host.GetHostName(), LineOf({"uname", "-n"}));
    EXPECT_NE(host.GetHostName(), "");
}

TEST(CQDHostInformation, HostNameThatCannotBeReadSaysSo)
{
    const FaultPlan name("gethostname", 1, EFAULT);

    const CQDHostInformation host;

    EXPECT_EQ(host.GetHostName(), "gethostame() errno 14");
    EXPECT_EQ(host.GetOSInformationCount(), 4);
}

TEST(CQDHostInformation, HostNameNeedNotBeAscii)
{
    char before[256];
    ASSERT_EQ(::gethostname(before, sizeof before), 0);
    if (::unshare(CLONE_NEWUTS) != 0 || ::sethostname("gr\xC3\xBCn", 5) != 0) // of this process only
        GTEST_SKIP() << "no host name of the test's own: " << std::strerror(errno);

    const CQDHostInformation host;

    EXPECT_EQ(::sethostname(before, std::strlen(before)), 0);
    EXPECT_EQ(host.GetHostName(), "gr\xC3\xBCn");
}

TEST(CQDHostInformation, OperatingSystemIsTheRunningKernelsAnd32Bit)
{
    const CQDHostInformation host;

    ASSERT_EQ(host.GetOSInformationCount(), 4);
    EXPECT_EQ(host.GetOSInformation(0), LineOf({"uname", "-s"}));
    EXPECT_EQ(host.GetOSInformation(1), LineOf({"uname", "-r"}));
    EXPECT_EQ(host.GetOSInformation(2), LineOf({"uname", "-v"}));
    EXPECT_EQ(host.GetOSInformation(3), "32 Bit OS");
    EXPECT_EQ(host.GetOSInformation(0), "Linux");
}

TEST(CQDHostInformation, KernelTextIsCutTo80BytesAndThenTrimmed)
{
    struct Case
    {
        const char* m_pSituation;
        std::string m_Content;
        std::string m_Text;
    };

    const Case cases[] = {
        {"a line", "Linux\n", "Linux"},
        {"all kinds of white space", "Linux \t\v\f\r\n", "Linux"},
        {"white space inside and in front", " #1 SMP\tx\n", " #1 SMP\tx"},
        {"empty", "", ""},
        {"white space only", " \n\n", ""},
        {"two lines", "one\ntwo\n", "one\ntwo"},
        {"80 bytes", std::string(80, 'x'), std::string(80, 'x')},
        {"81 bytes", std::string(80, 'x') + "y", std::string(80, 'x')},
        {"blanks before the cut", std::string(77, 'x') + "   behind the cut", std::string(77, 'x')},
        {"not ASCII", "\xC3\xA9\xFF\n", "\xC3\xA9\xFF"},
    };
    const ReplacedFolder files(kKernelFolder);
    if (!files.IsMounted())
        GTEST_SKIP() << files.GetReason();
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_pSituation);
        WriteFileText(files / "ostype", testCase.m_Content);
        WriteFileText(files / "osrelease", testCase.m_Content);
        WriteFileText(files / "version", testCase.m_Content);

        const CQDHostInformation host;

        EXPECT_EQ(host.GetOSInformation(0), testCase.m_Text);
        EXPECT_EQ(host.GetOSInformation(1), testCase.m_Text);
        EXPECT_EQ(host.GetOSInformation(2), testCase.m_Text);
        EXPECT_EQ(host.GetOSInformation(3), "32 Bit OS");
    }
}

TEST(CQDHostInformation, KernelFileThatIsMissingSaysSo)
{
    const ReplacedFolder files(kKernelFolder);
    if (!files.IsMounted())
        GTEST_SKIP() << files.GetReason();
    WriteFileText(files / "osrelease", "6.1.0\n");

    const CQDHostInformation host;

    EXPECT_EQ(host.GetOSInformation(0), "Read '/proc/sys/kernel/ostype' failed");
    EXPECT_EQ(host.GetOSInformation(1), "6.1.0");
    EXPECT_EQ(host.GetOSInformation(2), "Read '/proc/sys/kernel/version' failed");
    EXPECT_EQ(host.GetOSInformation(3), "32 Bit OS");
    EXPECT_EQ(host.GetOSInformationCount(), 4);
}

TEST(CQDHostInformation, KernelFileThatOpensButCannotBeReadSaysSo)
{
    const ReplacedFolder files(kKernelFolder);
    if (!files.IsMounted())
        GTEST_SKIP() << files.GetReason();
    ASSERT_EQ(::mkdir((files / "osrelease").c_str(), 0700), 0);

    const CQDHostInformation host;

    EXPECT_EQ(host.GetOSInformation(1), "Read '/proc/sys/kernel/osrelease' failed");
}

TEST(CQDHostInformation, EachKernelFileThatFailsSaysSoInItsOwnPlace)
{
    const std::string texts[] = {
        "Read '/proc/sys/kernel/ostype' failed",
        "Read '/proc/sys/kernel/osrelease' failed",
        "Read '/proc/sys/kernel/version' failed",
    };
    const CQDHostInformation whole;
    for (const char* function : {"open", "read"}) {
        for (int failed = 0; failed < 3; ++failed) {
            SCOPED_TRACE(function + std::string(" of file ") + std::to_string(failed));
            const FaultPlan failure(function, failed + 1, EIO);

            const CQDHostInformation host;

            for (int i = 0; i < 3; ++i)
                EXPECT_EQ(host.GetOSInformation(i), i == failed ? texts[i] : whole.GetOSInformation(i));
            EXPECT_EQ(host.GetOSInformation(3), "32 Bit OS");
            EXPECT_EQ(host.GetOSInformationCount(), 4);
        }
    }
}

TEST(CQDHostInformation, EachKernelFileIsOpenedAndReadOnce)
{
    {
        const FaultPlan opens("open", 1000, EIO);
        const CQDHostInformation host;
        EXPECT_EQ(opens.GetCallCount(), 3);
    }
    {
        const FaultPlan reads("read", 1000, EIO);
        const CQDHostInformation host;
        EXPECT_EQ(reads.GetCallCount(), 3);
    }
}

TEST(CQDHostInformation, SignalDoesNotFailTheReading)
{
    for (const char* function : {"open", "read"}) {
        SCOPED_TRACE(function);
        const FaultPlan interrupted(function, 1, EINTR);

        const CQDHostInformation host;

        EXPECT_TRUE(interrupted.HasFailed());
        EXPECT_EQ(host.GetOSInformation(0), "Linux");
    }
}

TEST(CQDHostInformation, AllInformationIsJoinedWithCommas)
{
    const CQDHostInformation host;
    const std::string expected =
        LineOf({"uname", "-s"}) + ", " + LineOf({"uname", "-r"}) + ", " + LineOf({"uname", "-v"}) + ", 32 Bit OS";
    std::string text = "left from before";

    host.GetAllOSInformation(text);

    EXPECT_EQ(text, expected);
}

TEST(CQDHostInformation, RoomForAllInformationIsReservedFirst)
{
    const CQDHostInformation host;
    std::string text;
    const AllocationCounter allocations;

    host.GetAllOSInformation(text);

    EXPECT_EQ(allocations.GetCount(), 1u);
    EXPECT_GE(text.capacity(), text.size() + 2); // two for each of the four lines, and three are used
}

TEST(CQDHostInformation, PrintsATitleAndTheOperatingSystemWithoutTheHostName)
{
    const CQDHostInformation host;
    RecordingTextOutput out;
    out.SetLineTermination(LineTerminationLF);

    host.PrintHostInformation(out);

    EXPECT_EQ(out.GetText(), "Host Information:\n\t" + LineOf({"uname", "-s"}) + "\n\t" + LineOf({"uname", "-r"}) +
                                 "\n\t" + LineOf({"uname", "-v"}) + "\n\t32 Bit OS\n");
}

TEST(CQDHostInformation, PrintedLineIsNoFormat)
{
    const ReplacedFolder files(kKernelFolder);
    if (!files.IsMounted())
        GTEST_SKIP() << files.GetReason();
    WriteFileText(files / "ostype", "100%% %c\n");
    WriteFileText(files / "osrelease", "two\n");
    WriteFileText(files / "version", "three\n");
    const CQDHostInformation host;
    RecordingTextOutput out;
    out.SetLineTermination(LineTerminationLF);

    host.PrintHostInformation(out);

    EXPECT_EQ(out.GetText(), "Host Information:\n\t100%% %c\n\ttwo\n\tthree\n\t32 Bit OS\n");
}

TEST(CQDHostInformation, PlatformSupportsEverything)
{
    const CQDHostInformation host;

    EXPECT_TRUE(host.SupportsIPVersion6());
    EXPECT_TRUE(host.PrintfRoundingUsesHalfEven());
    EXPECT_TRUE(host.SupportsCountryOnlyLocales());
}

TEST(CQDHostInformation, CopyHoldsTheSame)
{
    const CQDHostInformation host;

    const CQDHostInformation copy(host);

    EXPECT_EQ(copy.GetHostName(), host.GetHostName());
    EXPECT_EQ(copy.GetOSInformation(2), host.GetOSInformation(2));
    EXPECT_EQ(copy.GetOSInformationCount(), 4);
}
