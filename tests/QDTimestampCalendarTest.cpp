// The whole calendar, beside an independent reference: every day and every month from 1601 to 9999, and on to the
// largest values.
//
// The program also brings its own clock functions, so that both can fail in the same test.
#include <QDPlatform/QDTimestamp.h>

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <random>

namespace
{

using namespace std::chrono;

constexpr long long kDay = 864'000'000'000;
constexpr long long kLargest = std::numeric_limits<long long>::max();
constexpr sys_days kFirstDay = 1601y / January / 1;
constexpr sys_days kLastDay = 9999y / December / 31;

bool g_ClocksFail = false;

// True when the date fields are those of the library's reference for the calendar, the C++ one.
bool HasDate(const CQDTimestamp::TimestampStruct& fields, sys_days day)
{
    const year_month_day date(day);
    const sys_days firstOfYear = date.year() / January / 1;
    return fields.m_Year == static_cast<unsigned int>(static_cast<int>(date.year())) &&
           fields.m_Month == static_cast<unsigned int>(date.month()) &&
           fields.m_Day == static_cast<unsigned int>(date.day()) &&
           fields.m_DayOfYear == static_cast<unsigned int>((day - firstOfYear).count()) &&
           fields.m_DayOfWeek == weekday(day).c_encoding();
}

bool HaveSameDate(const CQDTimestamp::TimestampStruct& left, const CQDTimestamp::TimestampStruct& right)
{
    return left.m_Year == right.m_Year && left.m_Month == right.m_Month && left.m_Day == right.m_Day &&
           left.m_DayOfYear == right.m_DayOfYear && left.m_DayOfWeek == right.m_DayOfWeek;
}

bool HasTimeOfDay(const CQDTimestamp::TimestampStruct& fields, unsigned int millisecondsSinceMidnight)
{
    const hh_mm_ss time{milliseconds(millisecondsSinceMidnight)};
    return fields.m_MillisecondsSinceMidnight == millisecondsSinceMidnight &&
           fields.m_Hour == static_cast<unsigned int>(time.hours().count()) &&
           fields.m_Minute == static_cast<unsigned int>(time.minutes().count()) &&
           fields.m_Second == static_cast<unsigned int>(time.seconds().count()) &&
           fields.m_Millisecond == static_cast<unsigned int>(time.subseconds().count());
}

// The split by 400, 100, 4 and 1 years and a search through the months, for years that <chrono> does not reach.
struct SplitDate
{
    unsigned int m_Year, m_Month, m_Day, m_DayOfYear;
};

SplitDate SplitDays(unsigned int days)
{
    const unsigned int cycles = days / 146'097;
    days %= 146'097;
    const unsigned int centuries = std::min(days / 36'524, 3u);
    days -= centuries * 36'524;
    const unsigned int quads = days / 1'461;
    days %= 1'461;
    const unsigned int years = std::min(days / 365, 3u);
    days -= years * 365;
    const unsigned int year = 1601 + 400 * cycles + 100 * centuries + 4 * quads + years;
    const bool isLeap = year % 400 == 0 || (year % 4 == 0 && year % 100 != 0);
    const unsigned int lengths[12] = {31, isLeap ? 29u : 28u, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    SplitDate date = {year, 1, days + 1, days};
    while (date.m_Day > lengths[date.m_Month - 1])
        date.m_Day -= lengths[date.m_Month++ - 1];
    return date;
}

bool HasDate(const CQDTimestamp::TimestampStruct& fields, unsigned int days)
{
    const SplitDate date = SplitDays(days);
    return fields.m_Year == date.m_Year && fields.m_Month == date.m_Month && fields.m_Day == date.m_Day &&
           fields.m_DayOfYear == date.m_DayOfYear && fields.m_DayOfWeek == (days + 1) % 7;
}

TEST(CQDTimestamp, EveryDayIsSetAndCutIntoFields)
{
    int count = 0;
    for (sys_days day = kFirstDay; day <= kLastDay; day += days(1)) {
        const year_month_day date(day);
        const long long midnight = (day - kFirstDay).count() * kDay;
        CQDTimestamp timestamp;
        CQDTimestamp::TimestampStruct first;
        CQDTimestamp::TimestampStruct last;

        const bool isSet =
            timestamp.SetDate(static_cast<unsigned int>(static_cast<int>(date.year())),
                              static_cast<unsigned int>(date.month()), static_cast<unsigned int>(date.day()));
        CQDTimestamp::GetTimestampStruct(midnight, first);
        CQDTimestamp::GetTimestampStruct(midnight + kDay - 1, last);

        const bool agrees = isSet && timestamp.GetValue() == midnight && HasDate(first, day) &&
                            HasTimeOfDay(first, 0) && HaveSameDate(first, last) && HasTimeOfDay(last, 86'399'999);
        ASSERT_TRUE(agrees) << midnight;
        ++count;
    }
    EXPECT_EQ(count, 3'067'671);
}

TEST(CQDTimestamp, EveryDateThatDoesNotExistIsRefused)
{
    int count = 0;
    for (unsigned int year = 1590; year <= 10'010; ++year)
        for (unsigned int month = 0; month <= 13; ++month)
            for (unsigned int dayOfMonth = 0; dayOfMonth <= 32; ++dayOfMonth) {
                const year_month_day date(std::chrono::year(static_cast<int>(year)), std::chrono::month(month),
                                          std::chrono::day(dayOfMonth));
                const bool exists = date.ok() && year >= 1601 && year <= 9999;
                CQDTimestamp timestamp(-7);

                const bool isSet = timestamp.SetDate(year, month, dayOfMonth);

                const bool isKept = timestamp.GetValue() == -7;
                ASSERT_TRUE(isSet == exists && isKept == !exists) << year << '-' << month << '-' << dayOfMonth;
                count += exists;
            }
    EXPECT_EQ(count, 3'067'671);
}

TEST(CQDTimestamp, EveryDayUpToNeverIsCutIntoFields)
{
    const auto lastDay = static_cast<unsigned int>(kLargest / kDay);
    for (unsigned int day = 0; day <= lastDay; ++day) {
        CQDTimestamp::TimestampStruct fields;

        CQDTimestamp::GetTimestampStruct(day * kDay, fields);

        ASSERT_TRUE(HasDate(fields, day)) << day;
    }
}

TEST(CQDTimestamp, EverySecondOfADayIsCutIntoFields)
{
    const sys_days day = 2020y / March / 4;
    const long long midnight = (day - kFirstDay).count() * kDay;
    for (unsigned int second = 0; second < 86'400; ++second) {
        CQDTimestamp::TimestampStruct first;
        CQDTimestamp::TimestampStruct last;

        CQDTimestamp::GetTimestampStruct(midnight + second * 10'000'000LL, first);
        CQDTimestamp::GetTimestampStruct(midnight + second * 10'000'000LL + 9'999'999, last);

        ASSERT_TRUE(HasDate(first, day) && HasTimeOfDay(first, second * 1000)) << second;
        ASSERT_TRUE(HasDate(last, day) && HasTimeOfDay(last, second * 1000 + 999)) << second;
    }
}

TEST(CQDTimestamp, RandomTicksAreCutIntoFields)
{
    std::mt19937_64 random(20200304);
    for (int i = 0; i < 1'000'000; ++i) {
        const auto ticks = static_cast<long long>(random() >> 1);
        CQDTimestamp::TimestampStruct fields;

        CQDTimestamp::GetTimestampStruct(ticks, fields);

        ASSERT_TRUE(HasDate(fields, static_cast<unsigned int>(ticks / kDay))) << ticks;
        ASSERT_TRUE(HasTimeOfDay(fields, static_cast<unsigned int>(ticks % kDay / 10'000))) << ticks;
    }
}

// The date some months later, its day held at the length of the month.
year_month_day LaterByMonths(year_month_day date, long count)
{
    const year_month_day later = date + months(count);
    if (later.ok())
        return later;
    return later.year() / later.month() / last;
}

TEST(CQDTimestamp, AddMonthsAgreesOnTheEdgesOfEveryMonth)
{
    const long counts[] = {-4801, -25, -12, -1, 1, 11, 13, 4800};
    const long long timeOfDay = 863'999'990'000;
    int failed = 0;
    for (sys_days day = kFirstDay; day <= kLastDay; day += days(1)) {
        const year_month_day date(day);
        if (date.day() > std::chrono::day(1) && date.day() < std::chrono::day(28))
            continue;
        for (const long count : counts) {
            const year_month_day later = LaterByMonths(date, count);
            const bool exists = later.year() >= 1601y && later.year() <= 9999y;
            const long long before = (day - kFirstDay).count() * kDay + timeOfDay;
            const long long after = exists ? (sys_days(later) - kFirstDay).count() * kDay + timeOfDay : before;
            CQDTimestamp timestamp(before);

            const bool isMoved = timestamp.AddMonths(count);

            ASSERT_TRUE(isMoved == exists && timestamp.GetValue() == after) << before << " by " << count;
            failed += !exists;
        }
    }
    EXPECT_GT(failed, 0);
}

TEST(CQDTimestamp, AddMonthsAndAddYearsAgreeOnRandomDates)
{
    std::mt19937_64 random(20200304);
    const auto dayCount = static_cast<unsigned long long>((kLastDay - kFirstDay).count() + 1);
    for (int i = 0; i < 1'000'000; ++i) {
        const sys_days day = kFirstDay + days(random() % dayCount);
        const long count = static_cast<long>(random() % 4001) - 2000;
        const bool byYear = i % 2 == 0;
        const year_month_day later = LaterByMonths(day, byYear ? 12 * count : count);
        const bool exists = later.year() >= 1601y && later.year() <= 9999y;
        const long long before = (day - kFirstDay).count() * kDay;
        const long long after = exists ? (sys_days(later) - kFirstDay).count() * kDay : before;
        CQDTimestamp timestamp(before);

        const bool isMoved = byYear ? timestamp.AddYears(count) : timestamp.AddMonths(count);

        ASSERT_TRUE(isMoved == exists && timestamp.GetValue() == after) << before << " by " << count;
    }
}

TEST(CQDTimestamp, SetUTCKeepsTheValueWhenBothClocksFail)
{
    CQDTimestamp timestamp(4711);

    g_ClocksFail = true;
    timestamp.SetUTC();
    const CQDTimestamp now = CQDTimestamp::UTCNow();
    g_ClocksFail = false;

    EXPECT_EQ(timestamp.GetValue(), 4711);
    EXPECT_EQ(now.GetValue(), 0);
    timestamp.SetUTC();
    EXPECT_NE(timestamp.GetValue(), 4711);
}

} // namespace

// The library's calls arrive here before the C library.
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept
{
    if (g_ClocksFail) {
        errno = EINVAL;
        return -1;
    }
#ifdef SYS_clock_gettime64
    return static_cast<int>(::syscall(SYS_clock_gettime64, clock, now));
#else
    return static_cast<int>(::syscall(SYS_clock_gettime, clock, now));
#endif
}

extern "C" int gettimeofday(timeval*, void*) noexcept
{
    errno = EPERM;
    return -1;
}
