// What the station says of its service with -service.
#include "ChildProcess.h"
#include "LoopbackClient.h"
#include "ScopedVariable.h"
#include "SystemBus.h"
#include "TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

namespace
{

using testing::HasSubstr;
using testing::Not;

// What a station in a folder of its own says between the place of its log and that it serves; "" for nothing.
// Whatever it says is in its log, too. log: becomes the log.
std::string WhatAStationSays(const std::vector<std::string>& more, std::string& log)
{
    const TemporaryFolder folder;
    const ReservedPort port;
    std::vector<std::string> command{STATION_PROGRAM, "-logdir", folder.GetPath(), "-port", std::to_string(port.Get())};
    command.insert(command.end(), more.begin(), more.end());
    ChildProcess station(command);
    const std::string begin = "Station: log in " + folder / "station_nnn.log\n";
    const std::string end = "Station: serving Modbus/TCP on port " + std::to_string(port.Get()) + '\n';
    EXPECT_TRUE(station.WaitForOutput(end)) << station.GetErrors();
    station.Signal(SIGTERM);
    EXPECT_EQ(station.WaitForExit(), 0);
    log = ReadFileText(folder / "station_001.log");
    const std::string output = station.GetOutput();
    EXPECT_EQ(output.substr(0, begin.size()), begin);
    const std::string said = output.substr(begin.size(), output.find(end) - begin.size());
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
    const ScopedVariable address("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent");
    std::string log;

    EXPECT_EQ(WhatAStationSays({"-service", "quendrel-scada"}, log),
              "Station: no systemd can be asked about quendrel-scada.service; it is assumed that an init script runs "
              "the station\n");

    EXPECT_THAT(log, HasSubstr("DBus: Find libsystemd..."));
}

TEST(StationService, StateIsThatOfTheUnit)
{
    const struct
    {
        std::vector<std::string> m_Units;
        const char* m_State;
    } cases[] = {
        {{"quendrel-scada.service=active"}, "is installed and running"},
        {{"quendrel-scada.service=inactive"}, "is installed, but not running"},
        {{"quendrel-scada.service=failed"}, "is installed, but not running"},
        {{"quendrel-scada.service=activating"}, "is installed, but not running"},
        {{"other.service=active"}, "is not installed, or systemd does not tell"},
    };

    const SystemBus bus;

    for (const auto& test : cases) {
        SCOPED_TRACE(test.m_Units[0]);
        const SystemdStandIn manager(test.m_Units);
        std::string log;
        EXPECT_EQ(WhatAStationSays({"-service", "quendrel-scada"}, log),
                  std::string("Station: unit quendrel-scada.service ") + test.m_State + "\n");
    }
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
    EXPECT_THAT(host.GetOutput(), testing::EndsWith("  unit dbus.service is installed and running\n"
                                                    "  unit stopped.service is installed, but not running\n"
                                                    "  unit removed.service is running, but not installed\n"
                                                    "  unit absent.service is not installed, or systemd does not "
                                                    "tell\n"));
}

TEST(StationService, ReportHasASectionForTheService)
{
    const ScopedVariable address("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent");

    ChildProcess station({STATION_PROGRAM, "-report", "-service", "quendrel-scada"});

    EXPECT_EQ(station.WaitForExit(), 0);
    EXPECT_THAT(station.GetOutput(),
                testing::EndsWith("\n\nService\n  no systemd can be asked about quendrel-scada.service; it is assumed "
                                  "that an init script runs the station\n"));
}
