#pragma once

#include "ChildProcess.h"
#include "TemporaryFolder.h"

#include <gtest/gtest.h>

#include <string>

// Interfaces that a test makes in the network of its own; see EnterNetworkNamespace(). Where a system lacks what a test
// needs, the first two return false with the reason, and the test skips itself with it.

inline bool HasIpProgram(std::string& reason)
{
    if (ChildProcess({"ip", "-Version"}).WaitForExit() == 0)
        return true;
    reason = "no ip(8) to make interfaces with";
    return false;
}

// To be asked in a network whose loopback interface is up.
inline bool HasIPv6(std::string& reason)
{
    if (!ReadFileText("/proc/net/if_inet6").empty())
        return true;
    reason = "no IPv6";
    return false;
}

// Does commands of ip(8), one in a line. On failure the result tells what ip(8) says.
inline testing::AssertionResult DoWithIp(const std::string& commands)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "commands", commands);
    ChildProcess ip({"ip", "-batch", folder / "commands"});
    if (ip.WaitForExit() == 0)
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "ip: " << ip.GetErrors();
}
