// What the station says of its service with -service.
#include "ChildProcess.h"
#include "ScopedVariable.h"
#include "StationProgram.h"
#include "SystemBus.h"
#include "TemporaryFolder.h"
#include "WaitUntil.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

namespace
{

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

// What a station in a folder of its own says between the place of its log and that it serves; "" for nothing.
// Whatever it says is in its log, too. log: becomes the log.
std::string WhatAStationSays(const std::vector<std::string>& more, std::string& log)
{
    const TemporaryFolder folder;
    StationProgram station(folder.GetPath(), more);
    EXPECT_TRUE(station.WaitUntilItServes()) << station.m_Process.GetErrors();
    station.m_Process.Signal(SIGTERM);
    EXPECT_EQ(station.m_Process.WaitForExit(), 0);
    log = ReadFileText(folder / "station_001.log");
    const std::string output = station.m_Process.GetOutput();
    const std::string begin = "Station: log in " + folder / "station_nnn.log\n";
    const std::size_t end = output.find("Station: serving");
    EXPECT_EQ(output.substr(0, begin.size()), begin);
    if (end == std::string::npos || end < begin.size())
        return "";
    const std::string said = output.substr(begin.size(), end - begin.size());
    EXPECT_THAT(log, HasSubstr(said));
    return said;
}

} // namespace

TEST(StationService, NothingIsAskedUnlessItIsToldTo)
{
    std::string log;

    EXPECT_EQ(WhatAStationSays({}, log), "");

    EXPECT_THAT(log, Not(HasSubstr("DBus:")));
}

TEST(StationService, WithoutASystemBusItSaysThatNobodyWasAsked)
{
    const NoSystemBus bus;
    std::string log;

    EXPECT_EQ(WhatAStationSays({"-service", "quendrel-scada"}, log),
              "Station: no systemd can be asked about quendrel-scada.service; it counts as run by an init script\n");

    EXPECT_THAT(log, HasSubstr("DBus: Find libsystemd..."));
}

TEST(StationService, StateIsThatOfTheUnit)
{
    const struct
    {
        std::vector<std::string> m_Units;
        const char* m_State;
        const char* m_Log; // what it has of the unit
    } cases[] = {
        {{"quendrel-scada.service=active"}, "is installed and running", "ActiveState = active"},
        {{"quendrel-scada.service=inactive"}, "is installed, but not running", "LoadState = loaded"},
        {{"quendrel-scada.service=failed"}, "is installed, but not running", "ActiveState = failed"},
        {{"quendrel-scada.service=activating"}, "is installed, but not running", "ActiveState = activating"},
        {{"quendrel-scada.service=reloading"}, "is installed, but not running", "ActiveState = reloading"},
        {{"quendrel-scada.service=not-found/active"}, "is running, but not installed", "LoadState = not-found"},
        {{"quendrel-scada.service=masked/inactive"},
         "is not installed, or systemd does not tell",
         "LoadState = masked"},
        {{"quendrel-scada.service=bad-setting/inactive"},
         "is not installed, or systemd does not tell",
         "LoadState = bad-setting"},
        {{"other.service=active"}, "is not installed, or systemd does not tell", "LoadState = not-found"},
    };

    const SystemBus bus;

    for (const auto& test : cases) {
        SCOPED_TRACE(test.m_Units[0]);
        const SystemdStandIn manager(test.m_Units);
        std::string log;
        EXPECT_EQ(WhatAStationSays({"-service", "quendrel-scada"}, log),
                  std::string("Station: unit quendrel-scada.service ") + test.m_State + "\n");
        EXPECT_THAT(log, HasSubstr(std::string("DBus: quendrel-scada.service, ") + test.m_Log + "\n"));
    }
}

TEST(StationService, QuestionThatIsNotAnsweredCountsAsNo)
{
    const struct
    {
        const char* m_Unit;
        const char* m_State;
        const char* m_Property; // that is not told
    } cases[] = {
        {"x.service=denied/active", "is running, but not installed", "LoadState"},
        {"x.service=loaded/denied", "is installed, but not running", "ActiveState"},
        {"x.service=denied/denied", "is not installed, or systemd does not tell", "LoadState"},
    };

    const SystemBus bus;

    for (const auto& test : cases) {
        SCOPED_TRACE(test.m_Unit);
        const SystemdStandIn manager({test.m_Unit});
        std::string log;
        EXPECT_EQ(WhatAStationSays({"-service", "x"}, log),
                  std::string("Station: unit x.service ") + test.m_State + "\n");
        EXPECT_THAT(log, HasSubstr(std::string("'") + test.m_Property + "' ) returns Permission denied\n"));
    }
}

TEST(StationService, StationServesWhenSystemdDoesNotAnswerInTime)
{
    const ScopedVariable limit("SYSTEMD_BUS_TIMEOUT", "500ms");
    const SystemBus bus;
    const SystemdStandIn manager({"x.service=silent/silent"});
    std::string log;

    EXPECT_EQ(WhatAStationSays({"-service", "x"}, log),
              "Station: unit x.service is not installed, or systemd does not tell\n");

    EXPECT_THAT(log, AllOf(HasSubstr("'LoadState' ) returns Connection timed out\n"),
                           HasSubstr("'ActiveState' ) returns Connection timed out\n")));
}

TEST(StationService, SignalWhileSystemdIsAskedStopsTheStationBeforeItServes)
{
    const TemporaryFolder folder;
    const SystemBus bus;
    SystemdStandIn manager({"x.service=silent/silent"});
    StationProgram station(folder.GetPath(), {"-service", "x"});
    ASSERT_TRUE(WaitUntil([&] { return !manager.GetRequests().empty(); }));

    station.m_Process.Signal(SIGTERM);
    manager.Stop(); // nobody can answer any more

    EXPECT_EQ(station.m_Process.WaitForExit(), 0);
    EXPECT_EQ(station.m_Process.GetErrors(), "");
    EXPECT_EQ(station.m_Process.GetOutput(), "Station: log in " + folder / "station_nnn.log\n" +
                                                 "Station: unit x.service is not installed, or systemd does not tell\n"
                                                 "Station: stopped on signal 15, before it served\n");
    EXPECT_THAT(ReadFileText(folder / "station_001.log"),
                AllOf(HasSubstr(" Station: stopped on signal 15, before it served\n"), Not(HasSubstr("TcpSvr"))));
}

TEST(StationService, StateIsAskedForOnceAndNothingIsStartedOrStopped)
{
    const SystemBus bus;
    const SystemdStandIn manager({"quendrel-scada.service"});
    std::string log;

    WhatAStationSays({"-service", "quendrel-scada"}, log);

    EXPECT_EQ(manager.GetRequests(), "Get /org/freedesktop/systemd1/unit/quendrel_2Dscada_2Eservice LoadState\n"
                                     "Get /org/freedesktop/systemd1/unit/quendrel_2Dscada_2Eservice ActiveState\n");
}

TEST(StationService, BusWithoutAManagerHasItsReasonInTheLog)
{
    const SystemBus bus;
    std::string log;

    EXPECT_EQ(WhatAStationSays({"-service", "x"}, log),
              "Station: unit x.service is not installed, or systemd does not tell\n");

    EXPECT_THAT(log, HasSubstr("DBus: sd_bus_get_property_string( '/org/freedesktop/systemd1/unit/x_2Eservice', "
                               "'LoadState' ) returns "));
}

TEST(StationService, RealSystemdIsUnderstood)
{
    const TemporaryFolder units;
    WriteFileText(units / "stopped.service", "[Service]\nExecStart=/bin/true\n");
    WriteFileText(units / "removed.service", "[Unit]\nDefaultDependencies=no\n[Service]\nExecStart=sleep 60\n");
    // Starts a unit, takes its file away, and lets the station say what it finds. dbus.service runs in any case.
    constexpr const char* kCommands = R"(
        manager="busctl call org.freedesktop.systemd1 /org/freedesktop/systemd1 org.freedesktop.systemd1.Manager"
        $manager StartUnit ss removed.service replace
        unit=/org/freedesktop/systemd1/unit/removed_2eservice
        until busctl get-property org.freedesktop.systemd1 $unit org.freedesktop.systemd1.Unit ActiveState |
            grep -q '"active"'; do
            sleep 0.05
        done
        rm /run/units/removed.service
        $manager Reload
        for name in dbus stopped removed absent; do
            "$0" -report -service $name | tail -n 1
        done)";
    ChildProcess host({WITH_SYSTEMD, units.GetPath(), "sh", "-c", kCommands, STATION_PROGRAM});

    const int status = host.WaitForExit();

    if (status == 77)
        GTEST_SKIP() << host.GetErrors();
    EXPECT_EQ(status, 0) << host.GetErrors();
    EXPECT_THAT(host.GetOutput(), EndsWith("  unit dbus.service is installed and running\n"
                                           "  unit stopped.service is installed, but not running\n"
                                           "  unit removed.service is running, but not installed\n"
                                           "  unit absent.service is not installed, or systemd does not "
                                           "tell\n"));
}

TEST(StationService, ReportHasASectionForTheService)
{
    const NoSystemBus bus;

    ChildProcess station({STATION_PROGRAM, "-report", "-service", "quendrel-scada"});

    EXPECT_EQ(station.WaitForExit(), 0);
    EXPECT_THAT(station.GetOutput(),
                EndsWith("\n\nService\n  no systemd can be asked about quendrel-scada.service; it counts as run by an "
                         "init script\n"));
}
