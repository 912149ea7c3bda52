// Any text, read as a timestamp: reading never misbehaves, a refused text changes nothing, and what an accepted text
// gives is written and read back unchanged. The same bytes also serve as tick counts, which every operation must take.
#include <QDPlatform/QDTimestamp.h>

#include <sys/time.h>
#include <time.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace
{

constexpr long long kOutsideCalendar = -4711;
constexpr long long kEndOfYear9999 = 2650467744000000000;

void Require(bool condition)
{
    if (!condition)
        std::abort();
}

long long TakeTicks(const uint8_t* data, std::size_t size)
{
    long long ticks = 0;
    std::memcpy(&ticks, data, size < sizeof ticks ? size : sizeof ticks);
    return ticks;
}

void ReadAndWriteBack(const std::string& text)
{
    CQDTimestamp timestamp(kOutsideCalendar);
    if (!timestamp.ParseString(text)) {
        Require(timestamp.GetValue() == kOutsideCalendar);
        return;
    }
    // A huge time of day can lead out of what has a text.
    if (timestamp.GetValue() < 0 || timestamp.GetValue() >= kEndOfYear9999)
        return;
    timestamp.RoundDown(CQDTimeInterval::OneMillisecond());
    char buffer[24];
    Require(timestamp.ToText(buffer, 'T') == 23);
    CQDTimestamp again(kOutsideCalendar);
    Require(again.ParseString(buffer) && again == timestamp);
}

void UseEveryOperation(long long ticks, long long other)
{
    const CQDTimestamp timestamp(ticks);
    CQDTimestamp::TimestampStruct fields;
    timestamp.GetTimestampStruct(fields);
    Require(fields.m_Month >= 1 && fields.m_Month <= 12 && fields.m_Day >= 1 && fields.m_Day <= 31);
    Require(fields.m_DayOfYear <= 365 && fields.m_DayOfWeek <= 6 && fields.m_MillisecondsSinceMidnight < 86'400'000);

    char buffer[25];
    Require(timestamp.ToText(buffer, ' ') == 23);
    timestamp.ToText(buffer, static_cast<char>(other));
    timestamp.DateToText(buffer);
    timestamp.TimeOfDayToText(buffer);
    Require(static_cast<std::size_t>(CQDTimeInterval(ticks).ToText(buffer)) == std::strlen(buffer));

    timeval tv;
    if (timestamp.GetSelectTimeout(other, tv) != nullptr)
        Require(tv.tv_sec >= 0 && tv.tv_usec >= 0 && tv.tv_usec <= 999'999);
    timespec ts;
    CQDTimestamp moved = timestamp;
    moved.GetAsTimespec(ts);
    moved.SetFromTimespec(ts);
    Require(moved == timestamp);
    moved.GetAsTimeval(tv);
    moved.SetFromTimeval(tv);
    moved.SetUnixTimeMicroSeconds(other);
    moved = timestamp + CQDTimeInterval(other);
    Require((moved - CQDTimeInterval(other)) == timestamp && (moved - timestamp).GetValue() == other);
    moved.AddMilliseonds(other);
    moved.RoundUp(other);
    moved.RoundDown(other);
    moved.RoundUpToStartOfNextYear();
    moved.AddMonths(static_cast<long>(other));
    moved.AddYears(static_cast<long>(other));
    moved.SetBuildNumber(static_cast<long>(other));
    CQDTimeInterval interval;
    interval.SetVMTime(other);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    ReadAndWriteBack(std::string(reinterpret_cast<const char*>(data), size));
    const std::size_t half = size / 2;
    UseEveryOperation(TakeTicks(data, half), TakeTicks(data + half, size - half));
    return 0;
}
