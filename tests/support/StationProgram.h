#pragma once

#include "ChildProcess.h"
#include "LoopbackClient.h"

#include <string>
#include <vector>

// The station of this build, on a Modbus port that no other test has. Its program must be linked as example-programs.
struct StationProgram
{
    // folder: of its log and its registers. more: further arguments.
    explicit StationProgram(const std::string& folder, const std::vector<std::string>& more = {}) :
        m_Process(Command(folder, more))
    {}

    bool WaitUntilItServes() const
    {
        return m_Process.WaitForOutput("Station: serving Modbus/TCP on port " + std::to_string(m_Port.Get()) + '\n');
    }

    // The command line of a station on this one's port.
    std::vector<std::string> Command(const std::string& folder, const std::vector<std::string>& more = {}) const
    {
        std::vector<std::string> command{STATION_PROGRAM, "-port", std::to_string(m_Port.Get()), "-logdir", folder};
        command.insert(command.end(), more.begin(), more.end());
        return command;
    }

    ReservedPort m_Port;
    ChildProcess m_Process;
};
