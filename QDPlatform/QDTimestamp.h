#pragma once

#include <QDPlatform/QDExport.h>
#include <QDPlatform/QDTimeInterval.h>

#include <sys/time.h>
#include <time.h>

#include <cstdint>
#include <limits>
#include <string>

class CQDTimeZone;

// A point in time: ticks of 100 nanoseconds since 1601-01-01 00:00:00 on the proleptic Gregorian calendar.
//
// Carries no time zone; by convention it holds UTC. A plain value: no virtual functions, copying copies the tick count.
// Every tick count may be stored, and nothing fails or overflows on any of them: sums and products beyond 64 bits wrap.
// Calendar fields and text have a meaning from tick 0 on; those of a negative tick count have none, but each field is
// within its range.
// Conversions to and from POSIX time truncate toward zero, before 1970 too. On 32-bit systems `timespec` and `timeval`
// have the size that the caller is compiled with, _TIME_BITS=64 or not, whatever the library was: the functions that
// take them are inlined into the caller, and their addresses must not be taken. A time that the caller's tv_sec cannot
// hold becomes the nearest that it can.
// Thread: one at a time, like any plain value; Never is read-only.
class QD_API CQDTimestamp
{
public:
    // The largest value, 0x7FFFFFFFFFFFFFFF: as a deadline it means that there is none. Constant from load time on.
    static const CQDTimestamp Never;

    // A timestamp cut into calendar fields.
    struct TimestampStruct
    {
        uint32_t m_Year;                      // 1601 and up, beyond 9999 for very large values
        uint32_t m_Month;                     // 1..12
        uint32_t m_Day;                       // 1..31
        uint32_t m_DayOfYear;                 // 0..365
        uint32_t m_DayOfWeek;                 // 0 = Sunday .. 6 = Saturday
        uint32_t m_Hour;                      // 0..23
        uint32_t m_Minute;                    // 0..59
        uint32_t m_Second;                    // 0..59
        uint32_t m_Millisecond;               // 0..999
        uint32_t m_MillisecondsSinceMidnight; // 0..86,399,999
    };

    // 1601-01-01 00:00:00.
    constexpr CQDTimestamp() = default;

    // ticks: units of 100 ns since 1601. Implicit, so that a tick count can stand where a timestamp is wanted.
    constexpr CQDTimestamp(long long ticks) : m_Value(ticks) {}

    CQDTimestamp(const CQDTimestamp&) = default;
    CQDTimestamp& operator=(const CQDTimestamp&) = default;
    ~CQDTimestamp() = default;

    // The ticks since 1601.
    constexpr long long GetValue() const { return m_Value; }

    // Moves the timestamp by `ms` milliseconds, back when negative. The name's spelling is part of the interface.
    void AddMilliseonds(long long ms);

    // The current time in UTC, as SetUTC() stores it; 1601-01-01 when no clock can be read.
    static CQDTimestamp UTCNow();

    // Stores the current time in UTC: clock_gettime(CLOCK_REALTIME), or gettimeofday() when that fails. The value is
    // unchanged when both fail.
    void SetUTC();

    // Compare the tick counts.
    constexpr bool operator==(const CQDTimestamp& other) const { return m_Value == other.m_Value; }

    constexpr bool operator!=(const CQDTimestamp& other) const { return m_Value != other.m_Value; }

    constexpr bool operator<(const CQDTimestamp& other) const { return m_Value < other.m_Value; }

    constexpr bool operator<=(const CQDTimestamp& other) const { return m_Value <= other.m_Value; }

    constexpr bool operator>(const CQDTimestamp& other) const { return m_Value > other.m_Value; }

    constexpr bool operator>=(const CQDTimestamp& other) const { return m_Value >= other.m_Value; }

    // Replace the whole value by midnight of the date, plus the time of day.
    // Only the date is checked: year 1601..9999, month 1..12, day 1 to the month's length. Hours, minutes, seconds and
    // milliseconds may be of any size and run on into the following days (see TimeOfDayBeyondItsRangeRunsOn).
    // Return false, with the value unchanged, when the date does not exist.
    bool SetDate(unsigned int year, unsigned int month, unsigned int day);
    bool SetDateAndHHMM(unsigned int year, unsigned int month, unsigned int day, unsigned int hour,
                        unsigned int minute);
    bool SetDateAndHHMMSSFFF(unsigned int year, unsigned int month, unsigned int day, unsigned int hour,
                             unsigned int minute, unsigned int second, unsigned int millisecond);

    // Move the timestamp by n months or years, back when negative. A day that the new month lacks becomes its last day:
    // 31 March plus one month is 30 April. Ticks below a millisecond are dropped, except that n = 0 changes nothing and
    // returns true.
    // Return false, with the value unchanged, when the new year is outside 1601..9999.
    bool AddMonths(long n);
    bool AddYears(long n);

    // Stores the date that a build number stands for: midnight of day n counted from 2012-04-13.
    void SetBuildNumber(long n);

    // Cut the timestamp, or a tick count, into calendar fields. Ticks below a millisecond are dropped.
    void GetTimestampStruct(TimestampStruct& out) const;
    static void GetTimestampStruct(long long ticks, TimestampStruct& out);

    // Move the timestamp to the next, or back to the last, multiple of `step` since 1601; a multiple stays. Meant for
    // values from 0 on: the divisions truncate toward zero. A step that is not positive changes nothing. When the value
    // and the step add up to more than 64 bits hold, RoundUp() wraps.
    void RoundUp(const CQDTimeInterval& step);
    void RoundDown(const CQDTimeInterval& step);

    // Moves the timestamp to 1 January 00:00 of the following year, unless it lies in the first millisecond of a year
    // or in the year 9999 or later: then it stays as it is, ticks below a millisecond included.
    void RoundUpToStartOfNextYear();

    // Microseconds since 1970.
    long long GetUnixTimeMicroSeconds() const;
    void SetUnixTimeMicroSeconds(long long us);

    // Seconds and nanoseconds since 1970. Before 1970 both parts that are returned are negative or zero.
    [[gnu::always_inline]] void SetFromTimespec(const timespec& ts) { SetUnixTicks(ts.tv_sec, ts.tv_nsec / 100); }

    [[gnu::always_inline]] void GetAsTimespec(timespec& ts) const
    {
        using Seconds = decltype(ts.tv_sec);
        const long long ticks = GetUnixTicks(std::numeric_limits<Seconds>::min(), std::numeric_limits<Seconds>::max());
        ts.tv_sec = static_cast<Seconds>(ticks / CQDTimeInterval::TicksPerSecond);
        ts.tv_nsec = static_cast<decltype(ts.tv_nsec)>(ticks % CQDTimeInterval::TicksPerSecond * 100);
    }

    // Seconds and microseconds since 1970. Before 1970 both parts that are returned are negative or zero.
    [[gnu::always_inline]] void SetFromTimeval(const timeval& tv)
    {
        SetUnixTicks(tv.tv_sec, static_cast<long long>(static_cast<unsigned long long>(tv.tv_usec) * 10));
    }

    [[gnu::always_inline]] void GetAsTimeval(timeval& tv) const
    {
        using Seconds = decltype(tv.tv_sec);
        const long long ticks = GetUnixTicks(std::numeric_limits<Seconds>::min(), std::numeric_limits<Seconds>::max());
        tv.tv_sec = static_cast<Seconds>(ticks / CQDTimeInterval::TicksPerSecond);
        tv.tv_usec = static_cast<decltype(tv.tv_usec)>(ticks % CQDTimeInterval::TicksPerSecond / 10);
    }

    // The time-out for select(), this object being the current time.
    // deadline: ticks since 1601. Returns null, with `tv` untouched, for Never: wait without limit. Otherwise fills
    // `tv` with the time that is left, a part of a microsecond counting as a whole one, or with zero once the deadline
    // has passed, and returns &tv.
    [[gnu::always_inline]] timeval* GetSelectTimeout(long long deadline, timeval& tv) const
    {
        using Seconds = decltype(tv.tv_sec);
        long long seconds = 0;
        int microseconds = 0;
        if (!GetTimeLeft(deadline, std::numeric_limits<Seconds>::max(), seconds, microseconds))
            return nullptr;
        tv.tv_sec = static_cast<Seconds>(seconds);
        tv.tv_usec = microseconds;
        return &tv;
    }

    // Writes date, separator and time of day, as in 2020-03-04 05:06:07.008; a year beyond 9999 reads "****".
    // buffer: 24 bytes, terminator included. separator: a code point up to 0xFF, typically a blank or T.
    // Returns the length, 23. For a separator outside ASCII that the process locale cannot encode, or that takes two
    // bytes there, returns what qd_sprintf() returns: QDFormatEncodingError or QDFormatTruncated.
    int ToText(char* buffer, char separator) const;

    // Writes the date, as in 2020-03-04; a year beyond 9999 reads "****". buffer: 24 bytes. Returns `buffer`.
    char* DateToText(char* buffer) const;

    // Writes the time of day, as in 05:06:07.008. buffer: 24 bytes. Returns `buffer`.
    char* TimeOfDayToText(char* buffer) const;

    // Reads year[-month[-day[?hour[:minute[:second[.millisecond]]]]]], where ? is any one character.
    // Each number reads as strtol() does in base 10, in the C locale: blanks and a sign may precede it, nothing at all
    // is 0, and one beyond 32 bits is held at their limit. What is missing is 1 January, 00:00:00.000. Reading stops
    // without an error at the first character that does not fit, and at a NUL. The fraction is a count of milliseconds,
    // not a decimal fraction: .5 is 5 ms.
    // The result is that of SetDateAndHHMMSSFFF(): a time of day of any size is accepted (a negative number counts as
    // the unsigned one of the same 32 bits); false, with the value unchanged, when the date does not exist.
    bool ParseString(const std::string& text);

    // Replace a UTC time by the local time of `zone`, or the other way round, by the rules of CQDTimeZone.
    // zone: not kept. With null ToLocalTime() changes nothing; ToUTC() must not be given null.
    void ToLocalTime(const CQDTimeZone* zone);
    void ToUTC(const CQDTimeZone* zone);

private:
    // What the conversions above are made of, in types that have one size for every caller.

    // Moves to `seconds` and `ticks` after 1970.
    void SetUnixTicks(long long seconds, long long ticks);

    // The ticks since 1970, those before firstSecond or behind lastSecond becoming the first or last tick of these.
    long long GetUnixTicks(long long firstSecond, long long lastSecond) const;

    // Fills the time from this one to the deadline, see GetSelectTimeout(); more than longestSeconds become
    // longestSeconds. Returns false, with nothing changed, when there is no deadline.
    bool GetTimeLeft(long long deadline, long long longestSeconds, long long& seconds, int& microseconds) const;

    long long m_Value{0}; // ticks since 1601
};

// The timestamp moved by an interval.
QD_API CQDTimestamp operator+(const CQDTimestamp& timestamp, const CQDTimeInterval& interval);
QD_API CQDTimestamp operator-(const CQDTimestamp& timestamp, const CQDTimeInterval& interval);

// The time from `right` to `left`.
QD_API CQDTimeInterval operator-(const CQDTimestamp& left, const CQDTimestamp& right);
