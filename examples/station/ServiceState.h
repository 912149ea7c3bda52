#pragma once

#include <cstddef>
#include <string>

class COutputLog;

// The longest name of a service, in bytes: systemd takes names of units up to 255, ".service" included.
constexpr std::size_t kMaximumServiceNameLength = 247;

// Says how the host runs a service, for people to read: asks systemd for the unit `name`.service, and where no systemd
// can be asked says so. Nothing is started or stopped.
// log: is told of every step, and as a rule why systemd cannot be asked.
// Blocks until systemd has answered, which takes milliseconds; gives up after 25 seconds for each of two questions, or
// after 90 seconds when the bus takes the connection and says nothing.
std::string DescribeService(const std::string& name, COutputLog& log);
