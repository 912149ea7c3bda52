#pragma once

#include <QDPlatform/QDExport.h>

#include <cstdint>

// A signed span of time in ticks of 100 nanoseconds.
//
// A plain value: no virtual functions, copying copies the tick count. Sums and products beyond 64 bits wrap.
// Thread: one at a time, like any plain value; the named constants are read-only.
class QD_API CQDTimeInterval
{
public:
    static constexpr long long TicksPerMillisecond = 10000;
    static constexpr long long TicksPerSecond = 10000000;
    static constexpr long long TicksPerMinute = 600000000;
    static constexpr long long TicksPerHour = 36000000000;
    static constexpr long long TicksPerDay = 864000000000;
    static constexpr long long TicksPerWeek = 6048000000000;

    // The magnitude of an interval, cut into units, and its sign.
    struct IntervalStruct
    {
        bool m_Negative;         // true below zero
        uint32_t m_Days;         // unbounded
        uint32_t m_Hours;        // 0..23
        uint32_t m_Minutes;      // 0..59
        uint32_t m_Seconds;      // 0..59
        uint32_t m_Milliseconds; // 0..999
    };

    // Zero.
    constexpr CQDTimeInterval() = default;

    // ticks: units of 100 ns. Implicit, so that a tick count can stand where an interval is wanted.
    constexpr CQDTimeInterval(long long ticks) : m_Value(ticks) {}

    CQDTimeInterval(const CQDTimeInterval&) = default;
    CQDTimeInterval& operator=(const CQDTimeInterval&) = default;
    ~CQDTimeInterval() = default;

    // Constants that live as long as the library; any thread, at any time, load time included.
    static const CQDTimeInterval& Zero();
    static const CQDTimeInterval& OneMillisecond();
    static const CQDTimeInterval& OneSecond();
    static const CQDTimeInterval& OneMinute();
    static const CQDTimeInterval& OneHour();
    static const CQDTimeInterval& OneDay();
    static const CQDTimeInterval& OneWeek();

    // The span in ticks.
    constexpr long long GetValue() const { return m_Value; }

    // Replaces the span by this many milliseconds, which may be negative.
    void SetVMTime(long long milliseconds);

    // Cuts the magnitude into units. Ticks below a millisecond are dropped, so `out` may be all zero and negative.
    void GetIntervalStruct(IntervalStruct& out) const;

    // Writes the span as text for a log: "-" below zero, days and hours only when the span reaches them, then minutes,
    // seconds and milliseconds: 01:30.000, 02:01:30.000, 3 04:00:00.000.
    // buffer: at least 25 bytes, which holds every interval.
    // Returns the length without the terminator.
    int ToText(char* buffer) const;

private:
    long long m_Value{0}; // ticks
};
