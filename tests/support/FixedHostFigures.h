#pragma once

#include <HostFigures.h>

// Host figures that a test can spell out: 2024-02-29 23:59:58.987, and nothing out of the ordinary.
inline HostFigures FixedHostFigures()
{
    HostFigures figures;
    figures.m_UptimeSeconds = 0x00012345;
    figures.m_Load1Minute = 25;
    figures.m_Load5Minutes = 150;
    figures.m_Load15Minutes = 65535;
    figures.m_ProcessorCount = 2;
    figures.m_FreeMemoryKiB = 0x0010ABCD;
    figures.m_TotalMemoryKiB = 0x00200000;
    figures.m_Time.SetDateAndHHMMSSFFF(2024, 2, 29, 23, 59, 58, 987);
    return figures;
}

// The station's input registers with these figures, in hex.
constexpr const char* kFixedInputRegisters = "0001 2345 0019 0096 FFFF 0010 ABCD 07E8 0002 001D 0017 003B 003A 03DB";
