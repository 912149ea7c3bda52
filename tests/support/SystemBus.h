#pragma once

#include "ChildProcess.h"
#include "ScopedVariable.h"
#include "TemporaryFolder.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

// As long as it lives nobody finds a system bus.
class NoSystemBus
{
private:
    const ScopedVariable m_Address{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent"};
};

// A bus of the test's own, which this process and its children take for the system's as long as the object lives:
// dbus-daemon, where everybody may do everything. Fails the test when it does not come up.
class SystemBus
{
public:
    SystemBus()
    {
        WriteFileText(m_Folder / "bus.conf", R"(<busconfig>
  <type>system</type>
  <listen>unix:path=)" + m_Folder / "socket" +
                                                 R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
)");
        m_Daemon = std::make_unique<ChildProcess>(std::vector<std::string>{
            "dbus-daemon", "--config-file=" + m_Folder / "bus.conf", "--nofork", "--nopidfile", "--print-address"});
        EXPECT_TRUE(m_Daemon->WaitForOutput("\n")) << "no dbus-daemon. scripts/install-packages installs it (Debian "
                                                      "package dbus-daemon). "
                                                   << m_Daemon->GetErrors();
    }

    SystemBus(const SystemBus&) = delete;
    SystemBus& operator=(const SystemBus&) = delete;

    // The bus is gone when this returns.
    void Stop() { m_Daemon.reset(); }

private:
    TemporaryFolder m_Folder;
    ScopedVariable m_Address{"DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + m_Folder / "socket").c_str()};
    std::unique_ptr<ChildProcess> m_Daemon;
};

// The program SystemdStandIn.cpp on that bus. Fails the test when it does not come up.
class SystemdStandIn
{
public:
    // units: its arguments.
    explicit SystemdStandIn(std::vector<std::string> units)
    {
        units.insert(units.begin(), SYSTEMD_STAND_IN);
        m_Program = std::make_unique<ChildProcess>(units);
        EXPECT_TRUE(m_Program->WaitForOutput("ready\n")) << m_Program->GetErrors();
    }

    SystemdStandIn(const SystemdStandIn&) = delete;
    SystemdStandIn& operator=(const SystemdStandIn&) = delete;

    // The requests that came so far, a line each.
    std::string GetRequests() const { return m_Program->GetOutput().substr(std::string("ready\n").size()); }

    // It has ended when this returns.
    void Stop() { m_Program.reset(); }

private:
    std::unique_ptr<ChildProcess> m_Program;
};
