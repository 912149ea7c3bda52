#include <QDPlatform/QDTimeInterval.h>

#include <QDPlatform/QDString.h>

namespace
{

constexpr unsigned int kTextCapacity = 25;

} // namespace

const CQDTimeInterval& CQDTimeInterval::Zero()
{
    static constexpr CQDTimeInterval interval{0};
    return interval;
}

const CQDTimeInterval& CQDTimeInterval::OneMillisecond()
{
    static constexpr CQDTimeInterval interval{TicksPerMillisecond};
    return interval;
}

const CQDTimeInterval& CQDTimeInterval::OneSecond()
{
    static constexpr CQDTimeInterval interval{TicksPerSecond};
    return interval;
}

const CQDTimeInterval& CQDTimeInterval::OneMinute()
{
    static constexpr CQDTimeInterval interval{TicksPerMinute};
    return interval;
}

const CQDTimeInterval& CQDTimeInterval::OneHour()
{
    static constexpr CQDTimeInterval interval{TicksPerHour};
    return interval;
}

const CQDTimeInterval& CQDTimeInterval::OneDay()
{
    static constexpr CQDTimeInterval interval{TicksPerDay};
    return interval;
}

const CQDTimeInterval& CQDTimeInterval::OneWeek()
{
    static constexpr CQDTimeInterval interval{TicksPerWeek};
    return interval;
}

void CQDTimeInterval::SetVMTime(long long milliseconds)
{
    // Unsigned, because a signed product may not overflow.
    m_Value = static_cast<long long>(static_cast<uint64_t>(milliseconds) * TicksPerMillisecond);
}

void CQDTimeInterval::GetIntervalStruct(IntervalStruct& out) const
{
    out.m_Negative = m_Value < 0;
    // Negated as unsigned: the smallest value has no signed counterpart.
    uint64_t rest = static_cast<uint64_t>(m_Value);
    if (out.m_Negative)
        rest = 0 - rest;
    const auto take = [&rest](uint64_t unit) {
        const auto count = static_cast<uint32_t>(rest / unit);
        rest %= unit;
        return count;
    };
    out.m_Days = take(TicksPerDay);
    out.m_Hours = take(TicksPerHour);
    out.m_Minutes = take(TicksPerMinute);
    out.m_Seconds = take(TicksPerSecond);
    out.m_Milliseconds = take(TicksPerMillisecond);
}

int CQDTimeInterval::ToText(char* buffer) const
{
    IntervalStruct parts;
    GetIntervalStruct(parts);
    // The longest text, -10675199 02:48:05.477, leaves room to spare: no piece is ever cut.
    int length = 0;
    const auto room = [&length] { return kTextCapacity - static_cast<unsigned int>(length); };
    if (parts.m_Negative)
        length += qd_sprintf(buffer, room(), "-");
    if (parts.m_Days != 0)
        length += qd_sprintf(buffer + length, room(), "%u %02u:", parts.m_Days, parts.m_Hours);
    else if (parts.m_Hours != 0)
        length += qd_sprintf(buffer + length, room(), "%02u:", parts.m_Hours);
    length +=
        qd_sprintf(buffer + length, room(), "%02u:%02u.%03u", parts.m_Minutes, parts.m_Seconds, parts.m_Milliseconds);
    return length;
}
