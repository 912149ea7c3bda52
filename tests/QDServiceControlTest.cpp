#include <QDPlatform/QDServiceControl.h>

#include "ChildProcess.h"
#include "MountedOver.h"
#include "NextFunction.h"
#include "OpenDescriptors.h"
#include "RecordingLog.h"
#include "ReplacedFolder.h"
#include "ScopedVariable.h"
#include "SystemBus.h"
#include "TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <type_traits>
#include <vector>

namespace
{

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

bool g_FailSystem = false;

void WriteScript(const std::string& path, const std::string& text)
{
    WriteFileText(path, "#!/bin/sh\n" + text);
    ::chmod(path.c_str(), 0755);
}

// An init script of the product that records its arguments and ends with the status given.
class InitScript
{
public:
    explicit InitScript(int status)
    {
        if (m_Scripts.IsMounted())
            WriteScript(m_Scripts / "quendrel-scada",
                        "echo \"$*\" >>" + m_Calls + "\nexit " + std::to_string(status) + "\n");
    }

    bool IsMounted() const { return m_Scripts.IsMounted(); }

    const std::string& GetReason() const { return m_Scripts.GetReason(); }

    // The arguments of each run, a line each.
    std::string GetCalls() const { return ReadFileText(m_Calls); }

private:
    const ReplacedFolder m_Scripts{"/etc/init.d"};
    const TemporaryFolder m_Folder;
    const std::string m_Calls = m_Folder / "calls";
};

// An update-rc.d that comes before the system's, records its arguments and ends with the status given.
class RecordingUpdateRcD
{
public:
    explicit RecordingUpdateRcD(int status)
    {
        WriteScript(m_Folder / "update-rc.d",
                    "echo \"$*\" >>" + m_Folder / "calls" + "\nexit " + std::to_string(status));
    }

    std::string GetCalls() const { return ReadFileText(m_Folder / "calls"); }

private:
    const TemporaryFolder m_Folder;
    const ScopedVariable m_Path{"PATH", (m_Folder.GetPath() + ":/usr/sbin:/usr/bin:/sbin:/bin").c_str()};
};

// The lines of the service control itself.
std::vector<std::string> LinesOf(const RecordingLog& log)
{
    std::vector<std::string> lines;
    for (const std::string& text : log.GetTexts()) {
        if (text.rfind("SvcControl: ", 0) == 0)
            lines.push_back(text);
    }
    return lines;
}

} // namespace

// Stands in front of the C library's, for the test in which it can make no process.
extern "C" int system(const char* command)
{
    return g_FailSystem ? -1 : NextFunction("system", &system)(command);
}

static_assert(!std::is_copy_constructible_v<QDServiceControl> && !std::is_copy_assignable_v<QDServiceControl>);
static_assert(QDServiceControl::ServiceControlNone == 0);
static_assert(QDServiceControl::ServiceControlSystemD == 2);
static_assert(QDServiceControl::ServiceControlInitScript == 3);

TEST(QDServiceControl, NewObjectKnowsNothing)
{
    RecordingLog log;
    const QDServiceControl service("x", &log);

    EXPECT_EQ(service.GetControlKind(), 0);
    EXPECT_FALSE(service.IsInstalled());
    EXPECT_FALSE(service.IsRunning());
    EXPECT_TRUE(log.GetTexts().empty());
}

TEST(QDServiceControl, PrintLogPrefixesTheLine)
{
    RecordingLog log;
    QDServiceControl service("x", &log);
    QDServiceControl silent("x", nullptr);

    service.PrintLog("%s %d", "text", 5);
    silent.PrintLog("nothing");

    EXPECT_EQ(log.GetMessages(), (std::vector<RecordingLog::Message>{{COutputLog::Info, 0, "SvcControl: text 5"}}));
}

// --- systemd ---

TEST(QDServiceControl, OpenReadsTheUnitsState)
{
    const SystemBus system;
    const SystemdStandIn systemd(
        {"on.service=active", "off.service", "start.service=activating", "bad.service=failed"});

    struct Case
    {
        const char* m_Service;
        bool m_IsInstalled;
        bool m_IsRunning;
    };

    const Case cases[] = {
        {"on", true, true},   {"off", true, false},   {"start", true, false},
        {"bad", true, false}, {"none", false, false}, {"on.service", false, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Service);
        RecordingLog log;
        QDServiceControl service(c.m_Service, &log);

        EXPECT_TRUE(service.OpenServiceControl(false));

        EXPECT_EQ(service.GetControlKind(), 2);
        EXPECT_EQ(service.IsInstalled(), c.m_IsInstalled);
        EXPECT_EQ(service.IsRunning(), c.m_IsRunning);
        EXPECT_TRUE(LinesOf(log).empty());
    }
}

TEST(QDServiceControl, OpenAsksForLoadStateThenActiveState)
{
    const SystemBus system;
    const SystemdStandIn systemd({"x.service"});
    RecordingLog log;
    QDServiceControl service("x", &log);

    service.OpenServiceControl(true);

    EXPECT_EQ(systemd.GetRequests(), "Get /org/freedesktop/systemd1/unit/x_2Eservice LoadState\n"
                                     "Get /org/freedesktop/systemd1/unit/x_2Eservice ActiveState\n");
}

TEST(QDServiceControl, UnreadStateLeavesTheFlagsSetOrNot)
{
    const SystemBus system;
    SystemdStandIn systemd({"x.service=active"});
    RecordingLog log;
    QDServiceControl service("x", &log);

    systemd.Stop();
    EXPECT_TRUE(service.OpenServiceControl(true));
    EXPECT_EQ(service.GetControlKind(), 2);
    EXPECT_FALSE(service.IsInstalled());
    EXPECT_FALSE(service.IsRunning());

    SystemdStandIn again({"x.service=active"});
    EXPECT_TRUE(service.OpenServiceControl(true));
    EXPECT_TRUE(service.IsInstalled());
    EXPECT_TRUE(service.IsRunning());

    again.Stop();
    log.Clear();
    EXPECT_TRUE(service.OpenServiceControl(true));
    EXPECT_TRUE(service.IsInstalled());
    EXPECT_TRUE(service.IsRunning());
    EXPECT_THAT(log.GetTexts(),
                AllOf(Contains(HasSubstr("'LoadState' ) returns ")), Contains(HasSubstr("'ActiveState' ) returns "))));
}

TEST(QDServiceControl, OtherStatesDoNotClearTheFlags)
{
    const SystemBus system;
    SystemdStandIn systemd({"x.service=active"});
    RecordingLog log;
    QDServiceControl service("x", &log);
    ASSERT_TRUE(service.OpenServiceControl(true));
    systemd.Stop();
    const SystemdStandIn empty({});

    EXPECT_TRUE(service.OpenServiceControl(true));

    EXPECT_TRUE(log.Has("DBus: x.service, LoadState = not-found"));
    EXPECT_TRUE(service.IsInstalled());
    EXPECT_TRUE(service.IsRunning());
}

TEST(QDServiceControl, StartAndStopGoToTheManager)
{
    const SystemBus system;
    const SystemdStandIn systemd({"x.service"});
    RecordingLog log;
    QDServiceControl service("x", &log);
    ASSERT_TRUE(service.OpenServiceControl(true));
    ASSERT_FALSE(service.IsRunning());

    EXPECT_TRUE(service.ServiceStart());
    EXPECT_TRUE(service.IsRunning());
    EXPECT_TRUE(service.ServiceStop());
    EXPECT_FALSE(service.IsRunning());

    EXPECT_THAT(systemd.GetRequests(), EndsWith("StartUnit x.service replace\nStopUnit x.service replace\n"));
    EXPECT_TRUE(LinesOf(log).empty());
}

TEST(QDServiceControl, RefusedStartAndStopLeaveTheState)
{
    const SystemBus system;
    SystemdStandIn systemd({"x.service=refused"});
    RecordingLog log;
    QDServiceControl service("x", &log);
    ASSERT_TRUE(service.OpenServiceControl(true));

    EXPECT_FALSE(service.ServiceStart());
    EXPECT_FALSE(service.IsRunning());

    systemd.Stop();
    const SystemdStandIn active({"x.service=active"});
    ASSERT_TRUE(service.OpenServiceControl(true));
    service.CloseServiceControl();
    EXPECT_FALSE(service.ServiceStop());
    EXPECT_TRUE(service.IsRunning());
    EXPECT_TRUE(
        log.Has("DBus: sd_bus_call_method( Unit 'x.service', Method 'StopUnit' ) returns: the bus is not open"));
}

TEST(QDServiceControl, RemoveUnderSystemdChangesNothing)
{
    const SystemBus system;
    const SystemdStandIn systemd({"x.service=active"});
    const RecordingUpdateRcD updateRcD(0);
    RecordingLog log;
    QDServiceControl service("x", &log);
    ASSERT_TRUE(service.OpenServiceControl(true));
    const std::string requests = systemd.GetRequests();
    log.Clear();

    EXPECT_TRUE(service.ServiceRemove());

    EXPECT_TRUE(service.IsInstalled());
    EXPECT_TRUE(service.IsRunning());
    EXPECT_THAT(log.GetTexts(), ElementsAre("SvcControl: ...ServiceRemove not implemented for SystemD"));
    EXPECT_EQ(systemd.GetRequests(), requests);
    EXPECT_EQ(updateRcD.GetCalls(), "");
}

TEST(QDServiceControl, CloseEndsTheConnectionAndKeepsTheRest)
{
    const SystemBus system;
    const SystemdStandIn systemd({"x.service=active"});
    const int before = CountOpenDescriptors();
    RecordingLog log;
    QDServiceControl service("x", &log);
    ASSERT_TRUE(service.OpenServiceControl(true));
    log.Clear();

    service.CloseServiceControl();
    service.CloseServiceControl();

    EXPECT_EQ(CountOpenDescriptors(), before);
    EXPECT_THAT(log.GetTexts(), ElementsAre("DBus: Close"));
    EXPECT_EQ(service.GetControlKind(), 2);
    EXPECT_TRUE(service.IsInstalled());
    EXPECT_TRUE(service.IsRunning());
}

// The manager answers when the job is queued, so the states are waited for.
TEST(QDServiceControl, RealSystemdStartsAndStopsAUnit)
{
    const TemporaryFolder units;
    WriteFileText(units / "quendrel-scada.service",
                  "[Unit]\nDefaultDependencies=no\n[Service]\nExecStart=/bin/sleep infinity\n");

    ChildProcess program({WITH_SYSTEMD, units.GetPath(), SERVICE_PROGRAM, "quendrel-scada", "open", "start", "is",
                          "active", "open", "stop", "is", "inactive", "remove", "close"});

    const int status = program.WaitForExit();
    if (status == 77)
        GTEST_SKIP() << program.GetErrors();
    EXPECT_EQ(status, 0) << program.GetErrors();
    EXPECT_THAT(program.GetOutput(), AllOf(HasSubstr("DBus: quendrel-scada.service, LoadState = loaded\n"
                                                     "DBus: quendrel-scada.service, ActiveState = inactive\n"
                                                     "open: true, kind 2, installed, not running\n"
                                                     "DBus: Unit 'quendrel-scada.service', call method 'StartUnit'\n"
                                                     "start: true, kind 2, installed, running\n"
                                                     "is: true, kind 2, installed, running\n"
                                                     "DBus: Close\n"),
                                           HasSubstr("DBus: quendrel-scada.service, ActiveState = active\n"
                                                     "open: true, kind 2, installed, running\n"
                                                     "DBus: Unit 'quendrel-scada.service', call method 'StopUnit'\n"
                                                     "stop: true, kind 2, installed, not running\n"
                                                     "is: true, kind 2, installed, not running\n"
                                                     "SvcControl: ...ServiceRemove not implemented for SystemD\n"
                                                     "remove: true, kind 2, installed, not running\n"
                                                     "DBus: Close\n"
                                                     "close: true, kind 2, installed, not running\n")));
}

TEST(QDServiceControl, RealSystemdDoesNotKnowAnotherUnit)
{
    const TemporaryFolder units;
    WriteFileText(units / "other.service", "[Service]\nExecStart=/bin/true\n");

    ChildProcess program({WITH_SYSTEMD, units.GetPath(), SERVICE_PROGRAM, "a.b-c", "open", "start", "stop"});

    const int status = program.WaitForExit();
    if (status == 77)
        GTEST_SKIP() << program.GetErrors();
    EXPECT_EQ(status, 0) << program.GetErrors();
    EXPECT_THAT(program.GetOutput(),
                AllOf(HasSubstr("DBus: a.b-c.service, LoadState = not-found\n"
                                "DBus: a.b-c.service, ActiveState = inactive\n"
                                "open: true, kind 2, not installed, not running\n"),
                      HasSubstr("DBus: sd_bus_call_method( Unit 'a.b-c.service', Method 'StartUnit' ) returns: Unit "),
                      HasSubstr("\nstart: false, kind 2, not installed, not running\n"),
                      HasSubstr("DBus: sd_bus_call_method( Unit 'a.b-c.service', Method 'StopUnit' ) returns: Unit "),
                      HasSubstr("\nstop: false, kind 2, not installed, not running\n")));
}

// --- The init script ---

TEST(QDServiceControl, WithoutABusTheServiceIsTakenAsInstalledAndRunning)
{
    const NoSystemBus bus;
    RecordingLog log;
    QDServiceControl service("x", &log);

    EXPECT_TRUE(service.OpenServiceControl(true));

    EXPECT_EQ(service.GetControlKind(), 3);
    EXPECT_TRUE(service.IsInstalled());
    EXPECT_TRUE(service.IsRunning());
    EXPECT_TRUE(LinesOf(log).empty());
}

TEST(QDServiceControl, WithoutTheLibraryTheInitScriptIsRun)
{
    const SystemBus system; // which cannot be reached without the library
    const MountedOver nothing("/dev/null", std::filesystem::canonical(SYSTEMD_LIBRARY));
    const InitScript script(0);
    if (!nothing.IsMounted() || !script.IsMounted())
        GTEST_SKIP() << nothing.GetReason() << script.GetReason();

    // In a process of its own: in this one the library may still be in memory.
    const std::string output = OutputOf({SERVICE_PROGRAM, "x", "open", "start"});

    EXPECT_THAT(output, AllOf(StartsWith("DBus: Find libsystemd...\nDBus: ...failed: "),
                              EndsWith("\nopen: true, kind 3, installed, running\n"
                                       "SvcControl: Running command: /etc/init.d/quendrel-scada start\n"
                                       "SvcControl: Result = 0\n"
                                       "start: true, kind 3, installed, running\n")));
    EXPECT_EQ(script.GetCalls(), "start\n");
}

TEST(QDServiceControl, InitScriptIsTheProductsWhateverTheName)
{
    const NoSystemBus bus;
    const InitScript script(0);
    if (!script.IsMounted())
        GTEST_SKIP() << script.GetReason();
    RecordingLog log;
    QDServiceControl service("other", &log);
    ASSERT_TRUE(service.OpenServiceControl(true));

    EXPECT_TRUE(service.ServiceStop());
    EXPECT_FALSE(service.IsRunning());
    EXPECT_TRUE(service.ServiceStart());
    EXPECT_TRUE(service.IsRunning());

    EXPECT_TRUE(service.IsInstalled());
    EXPECT_EQ(script.GetCalls(), "stop\nstart\n");
    EXPECT_THAT(LinesOf(log),
                ElementsAre("SvcControl: Running command: /etc/init.d/quendrel-scada stop", "SvcControl: Result = 0",
                            "SvcControl: Running command: /etc/init.d/quendrel-scada start", "SvcControl: Result = 0"));
}

TEST(QDServiceControl, UnopenedControlRunsTheInitScript)
{
    const SystemBus system;
    const SystemdStandIn systemd({"x.service"});
    const InitScript script(0);
    const RecordingUpdateRcD updateRcD(0);
    if (!script.IsMounted())
        GTEST_SKIP() << script.GetReason();
    RecordingLog log;
    QDServiceControl service("x", &log);

    EXPECT_TRUE(service.ServiceStart());
    EXPECT_TRUE(service.IsRunning());
    EXPECT_TRUE(service.ServiceStop());
    EXPECT_FALSE(service.IsRunning());
    EXPECT_TRUE(service.ServiceRemove());

    EXPECT_EQ(service.GetControlKind(), 0);
    EXPECT_EQ(script.GetCalls(), "start\nstop\n");
    EXPECT_EQ(updateRcD.GetCalls(), "quendrel-scada remove\n");
    EXPECT_EQ(systemd.GetRequests(), "");
}

TEST(QDServiceControl, FailedInitScriptCountsAsRunAllTheSame)
{
    const NoSystemBus bus;
    const InitScript script(3);
    if (!script.IsMounted())
        GTEST_SKIP() << script.GetReason();
    RecordingLog log;
    QDServiceControl service("x", &log);
    ASSERT_TRUE(service.OpenServiceControl(true));

    EXPECT_FALSE(service.ServiceStop());
    EXPECT_FALSE(service.IsRunning());
    EXPECT_FALSE(service.ServiceStart());
    EXPECT_TRUE(service.IsRunning());

    EXPECT_THAT(LinesOf(log), ElementsAre("SvcControl: Running command: /etc/init.d/quendrel-scada stop",
                                          "SvcControl: Result = 768", // exit status 3 as wait() gives it
                                          "SvcControl: Running command: /etc/init.d/quendrel-scada start",
                                          "SvcControl: Result = 768"));
}

TEST(QDServiceControl, MissingInitScriptFails)
{
    const NoSystemBus bus;
    const ReplacedFolder scripts("/etc/init.d");
    if (!scripts.IsMounted())
        GTEST_SKIP() << scripts.GetReason();
    RecordingLog log;
    QDServiceControl service("quendrel-scada", &log);

    EXPECT_FALSE(service.ServiceStart());

    EXPECT_TRUE(service.IsRunning());
    EXPECT_TRUE(log.Has("SvcControl: Result = 32512")); // the shell's status 127
}

TEST(QDServiceControl, CommandWithoutAProcessFailsAndCountsAsRunAllTheSame)
{
    const NoSystemBus bus;
    RecordingLog log;
    QDServiceControl service("x", &log);
    ASSERT_TRUE(service.OpenServiceControl(true));
    g_FailSystem = true;

    EXPECT_FALSE(service.ServiceStop());
    EXPECT_FALSE(service.IsRunning());
    EXPECT_FALSE(service.ServiceStart());
    EXPECT_TRUE(service.IsRunning());
    EXPECT_FALSE(service.ServiceRemove());
    EXPECT_FALSE(service.IsRunning());
    EXPECT_FALSE(service.IsInstalled());

    g_FailSystem = false;
    EXPECT_THAT(LinesOf(log),
                ElementsAre("SvcControl: Running command: /etc/init.d/quendrel-scada stop", "SvcControl: Result = -1",
                            "SvcControl: Running command: /etc/init.d/quendrel-scada start", "SvcControl: Result = -1",
                            "SvcControl: Running command: update-rc.d quendrel-scada remove",
                            "SvcControl: Result = -1"));
}

TEST(QDServiceControl, RemoveRunsUpdateRcDAndForgetsTheService)
{
    struct Case
    {
        int m_Status;
        bool m_Result;
        const char* m_Line;
    };

    const Case cases[] = {{0, true, "SvcControl: Result = 0"}, {1, false, "SvcControl: Result = 256"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Status);
        const NoSystemBus bus;
        const RecordingUpdateRcD updateRcD(c.m_Status);
        RecordingLog log;
        QDServiceControl service("other", &log);
        ASSERT_TRUE(service.OpenServiceControl(true));

        EXPECT_EQ(service.ServiceRemove(), c.m_Result);

        EXPECT_FALSE(service.IsInstalled());
        EXPECT_FALSE(service.IsRunning());
        EXPECT_EQ(updateRcD.GetCalls(), "quendrel-scada remove\n");
        EXPECT_THAT(LinesOf(log),
                    ElementsAre("SvcControl: Running command: update-rc.d quendrel-scada remove", c.m_Line));
    }
}

TEST(QDServiceControl, RealUpdateRcDRemovesTheLinksOfTheService)
{
    const ScopedVariable path("PATH", "/usr/sbin:/usr/bin:/sbin:/bin");
    const NoSystemBus bus;
    const ChangeableFolder etc("/etc");
    if (!etc.IsMounted())
        GTEST_SKIP() << etc.GetReason();
    const ReplacedFolder manager("/run/systemd"); // or update-rc.d has the machine's own systemd read its units again
    if (std::filesystem::exists("/run/systemd") && !manager.IsMounted())
        GTEST_SKIP() << manager.GetReason();
    if (::access("/etc/init.d", W_OK) != 0 || ::access("/etc/rc2.d", W_OK) != 0)
        GTEST_SKIP() << "update-rc.d takes root";
    WriteScript("/etc/init.d/quendrel-scada", "### BEGIN INIT INFO\n"
                                              "# Provides: quendrel-scada\n"
                                              "# Required-Start:\n"
                                              "# Required-Stop:\n"
                                              "# Default-Start: 2\n"
                                              "# Default-Stop: 0\n"
                                              "### END INIT INFO\n");
    ChildProcess defaults({"update-rc.d", "quendrel-scada", "defaults"});
    ASSERT_EQ(defaults.WaitForExit(), 0) << defaults.GetErrors();
    const auto hasLink = [] { return OutputOf({"find", "/etc/rc2.d", "-name", "S*quendrel-scada"}) != ""; };
    ASSERT_TRUE(hasLink());
    std::filesystem::remove("/etc/init.d/quendrel-scada");
    RecordingLog log;
    QDServiceControl service("x", &log);
    ASSERT_TRUE(service.OpenServiceControl(true));

    EXPECT_TRUE(service.ServiceRemove());

    EXPECT_FALSE(hasLink());
    EXPECT_TRUE(log.Has("SvcControl: Result = 0"));
}

// --- The library ---

TEST(QDServiceControl, LibraryNeedsNeitherSystemdNorPam)
{
    const std::string sections = OutputOf({"readelf", "--dynamic", "--wide", BUILT_LIBRARY});

    EXPECT_THAT(sections, AllOf(HasSubstr("(NEEDED)"), HasSubstr("[libcurl.so.4]"), Not(HasSubstr("systemd")),
                                Not(HasSubstr("libpam"))));
}
