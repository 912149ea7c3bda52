#pragma once

#include <cstddef>
#include <string>

class COutputLog;

// The longest name of a service, in bytes: systemd takes names of units up to 255, ".service" included.
constexpr std::size_t kMaximumServiceNameLength = 247;

// Says how the host runs a service, for people to read: asks systemd for the unit `name`.service, and where no systemd
// can be asked says so. Nothing is started or stopped.
// log: is told of every step. Why there is no systemd to ask is told only when its library is the reason; of a bus that
// is out of reach nothing is told.
// Blocks until systemd has answered, which takes milliseconds; gives up after 25 seconds for each of two questions,
// unless SYSTEMD_BUS_TIMEOUT says otherwise, or after 90 seconds when the bus takes the connection and says nothing.
std::string DescribeService(const std::string& name, COutputLog& log);
