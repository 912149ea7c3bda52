#pragma once

#include "HostFigures.h"

#include <array>
#include <cstddef>
#include <cstdint>

// The host's figures as the first input registers of a station. Numbers of 32 bits have their high half first.

enum HostRegister : std::size_t
{
    HostUptimeSeconds,                       // 32 bits
    HostLoad1Minute = HostUptimeSeconds + 2, // times 100
    HostLoad5Minutes,                        // times 100
    HostLoad15Minutes,                       // times 100
    HostFreeMemoryKiB,                       // 32 bits
    HostClockYear = HostFreeMemoryKiB + 2,   // UTC, like all that follow
    HostClockMonth,                          // 1..12
    HostClockDay,                            // 1..31
    HostClockHour,                           // 0..23
    HostClockMinute,                         // 0..59
    HostClockSecond,                         // 0..59
    HostClockMillisecond,                    // 0..999
    kHostRegisterCount
};

using HostRegisters = std::array<uint16_t, kHostRegisterCount>;

// Thread: any.
HostRegisters HostRegistersOf(const HostFigures& figures);
