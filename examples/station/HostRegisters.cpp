#include "HostRegisters.h"

HostRegisters HostRegistersOf(const HostFigures& figures)
{
    CQDTimestamp::TimestampStruct clock;
    figures.m_Time.GetTimestampStruct(clock);
    HostRegisters registers{};
    const auto set = [&](std::size_t address, uint32_t value) { registers[address] = static_cast<uint16_t>(value); };
    const auto setLong = [&](std::size_t address, uint32_t value) {
        set(address, value >> 16);
        set(address + 1, value & 0xFFFF);
    };
    setLong(HostUptimeSeconds, figures.m_UptimeSeconds);
    set(HostLoad1Minute, figures.m_Load1Minute);
    set(HostLoad5Minutes, figures.m_Load5Minutes);
    set(HostLoad15Minutes, figures.m_Load15Minutes);
    setLong(HostFreeMemoryKiB, figures.m_FreeMemoryKiB);
    set(HostClockYear, clock.m_Year);
    set(HostClockMonth, clock.m_Month);
    set(HostClockDay, clock.m_Day);
    set(HostClockHour, clock.m_Hour);
    set(HostClockMinute, clock.m_Minute);
    set(HostClockSecond, clock.m_Second);
    set(HostClockMillisecond, clock.m_Millisecond);
    return registers;
}
