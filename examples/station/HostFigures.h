#pragma once

#include <QDPlatform/QDTimestamp.h>

#include <cstdint>

// What the station tells about the machine it runs on, taken at one moment.
struct HostFigures
{
    uint32_t m_UptimeSeconds{0};  // since the machine started
    uint16_t m_Load1Minute{0};    // load average times 100, at most 65535
    uint16_t m_Load5Minutes{0};   // likewise
    uint16_t m_Load15Minutes{0};  // likewise
    uint16_t m_ProcessorCount{1}; // in use by the system
    uint32_t m_FreeMemoryKiB{0};  // used for nothing, not even for caches
    uint32_t m_TotalMemoryKiB{0};
    CQDTimestamp m_Time; // UTC

    // Asks the system; any thread.
    static HostFigures Read();
};
