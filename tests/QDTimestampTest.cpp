#include <QDPlatform/QDTimestamp.h>

#include <QDPlatform/QDString.h>

#include <AllocationCounter.h>
#include <FaultPlan.h>

#include <gtest/gtest.h>

#include <locale.h>
#include <sys/select.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <type_traits>

namespace
{

constexpr long long kSmallest = std::numeric_limits<long long>::min();
constexpr long long kLargest = std::numeric_limits<long long>::max();
constexpr long long kDay = 864'000'000'000;
constexpr long long kUnixEpoch = 116444736000000000;
constexpr long long k20200304 = 132277536000000000;           // 2020-03-04 00:00:00
constexpr long long k20200304_050607123 = 132277719671230000; // 2020-03-04 05:06:07.123

// Read before main() by a constructor of this program.
const long long g_NeverAtLoad = CQDTimestamp::Never.GetValue();

std::string TextOf(const CQDTimestamp& timestamp, char separator = ' ')
{
    char buffer[24];
    EXPECT_EQ(timestamp.ToText(buffer, separator), 23);
    EXPECT_EQ(std::strlen(buffer), 23u);
    return buffer;
}

CQDTimestamp At(unsigned int year, unsigned int month, unsigned int day, unsigned int hour = 0, unsigned int minute = 0,
                unsigned int second = 0, unsigned int millisecond = 0)
{
    CQDTimestamp timestamp;
    EXPECT_TRUE(timestamp.SetDateAndHHMMSSFFF(year, month, day, hour, minute, second, millisecond));
    return timestamp;
}

// Puts a text locale in force for one test.
class ScopedCharacterLocale
{
public:
    explicit ScopedCharacterLocale(const char* name) { EXPECT_NE(::setlocale(LC_CTYPE, name), nullptr) << name; }

    ScopedCharacterLocale(const ScopedCharacterLocale&) = delete;
    ScopedCharacterLocale& operator=(const ScopedCharacterLocale&) = delete;

    ~ScopedCharacterLocale() { ::setlocale(LC_CTYPE, "C"); }
};

// ---- construction, access and arithmetic

TEST(CQDTimestamp, DefaultIsTheStartOf1601)
{
    EXPECT_EQ(CQDTimestamp().GetValue(), 0);
    EXPECT_EQ(TextOf(CQDTimestamp()), "1601-01-01 00:00:00.000");
}

TEST(CQDTimestamp, HoldsTheTicksItWasGiven)
{
    EXPECT_EQ(CQDTimestamp(-1).GetValue(), -1);
    EXPECT_EQ(CQDTimestamp(kSmallest).GetValue(), kSmallest);
    EXPECT_EQ(CQDTimestamp(kUnixEpoch + 1).GetValue(), 0x019DB1DED53E8001);
}

TEST(CQDTimestamp, IsAPlainValueOfOne64BitCount)
{
    static_assert(sizeof(CQDTimestamp) == 8);
    static_assert(!std::is_polymorphic_v<CQDTimestamp>);
    static_assert(std::is_trivially_copyable_v<CQDTimestamp>);
    const CQDTimestamp original(77);

    CQDTimestamp copy(original);
    CQDTimestamp assigned;
    assigned = original;

    EXPECT_EQ(copy.GetValue(), 77);
    EXPECT_EQ(assigned.GetValue(), 77);
}

TEST(CQDTimestamp, NeverIsTheLargestValue)
{
    EXPECT_EQ(CQDTimestamp::Never.GetValue(), 0x7FFFFFFFFFFFFFFF);
}

TEST(CQDTimestamp, NeverCanBeReadAtLoadTime)
{
    EXPECT_EQ(g_NeverAtLoad, 0x7FFFFFFFFFFFFFFF);
}

TEST(CQDTimestamp, AddMilliseondsMovesByTenThousandTicksEach)
{
    CQDTimestamp timestamp(5);

    timestamp.AddMilliseonds(3);
    EXPECT_EQ(timestamp.GetValue(), 30'005);

    timestamp.AddMilliseonds(-4);
    EXPECT_EQ(timestamp.GetValue(), -9'995);

    timestamp.AddMilliseonds(0);
    EXPECT_EQ(timestamp.GetValue(), -9'995);
}

TEST(CQDTimestamp, AddMilliseondsBeyond64BitsWraps)
{
    CQDTimestamp timestamp(kLargest);

    timestamp.AddMilliseonds(1);
    EXPECT_EQ(timestamp.GetValue(), kSmallest + 9'999);

    timestamp = 0;
    timestamp.AddMilliseonds(kLargest);
    EXPECT_EQ(timestamp.GetValue(), -10'000); // (2^63 - 1) * 10000 = 5000 * 2^64 - 10000
}

TEST(CQDTimestamp, OperatorsMoveByAnInterval)
{
    const CQDTimestamp timestamp(1'000);

    EXPECT_EQ((timestamp + CQDTimeInterval(34)).GetValue(), 1'034);
    EXPECT_EQ((timestamp - CQDTimeInterval(34)).GetValue(), 966);
    EXPECT_EQ((timestamp + CQDTimeInterval(-34)).GetValue(), 966);
    EXPECT_EQ((timestamp - CQDTimeInterval::OneDay()).GetValue(), 1'000 - kDay);
    EXPECT_EQ(timestamp.GetValue(), 1'000);
}

TEST(CQDTimestamp, DifferenceIsLeftMinusRight)
{
    static_assert(std::is_same_v<decltype(CQDTimestamp() - CQDTimestamp()), CQDTimeInterval>);

    EXPECT_EQ((CQDTimestamp(1'000) - CQDTimestamp(400)).GetValue(), 600);
    EXPECT_EQ((CQDTimestamp(400) - CQDTimestamp(1'000)).GetValue(), -600);
}

TEST(CQDTimestamp, OperatorsBeyond64BitsWrap)
{
    EXPECT_EQ((CQDTimestamp::Never + CQDTimeInterval(1)).GetValue(), kSmallest);
    EXPECT_EQ((CQDTimestamp(kSmallest) - CQDTimeInterval(1)).GetValue(), kLargest);
    EXPECT_EQ((CQDTimestamp(0) - CQDTimeInterval(kSmallest)).GetValue(), kSmallest);
    EXPECT_EQ((CQDTimestamp(kSmallest) - CQDTimestamp(kLargest)).GetValue(), 1);
}

TEST(CQDTimestamp, ComparisonsAreThoseOfTheSignedValues)
{
    const CQDTimestamp before(-1);
    const CQDTimestamp after(1);
    const CQDTimestamp same(1);

    EXPECT_TRUE(before < after);
    EXPECT_FALSE(after < before);
    EXPECT_FALSE(after < same);
    EXPECT_TRUE(after >= before);
    EXPECT_TRUE(after >= same);
    EXPECT_FALSE(before >= after);
    EXPECT_TRUE(after > before);
    EXPECT_FALSE(after > same);
    EXPECT_TRUE(before <= after);
    EXPECT_TRUE(after <= same);
    EXPECT_FALSE(after <= before);
    EXPECT_TRUE(after == same);
    EXPECT_FALSE(after == before);
    EXPECT_TRUE(after != before);
    EXPECT_FALSE(after != same);
}

// ---- the clock

// The system's clock in ticks, read with a function that no plan covers.
long long ClockTicks()
{
    return ::time(nullptr) * 10'000'000LL + kUnixEpoch;
}

// time() may be a tick of the kernel behind the clock itself.
constexpr long long kClockTolerance = 2 * 10'000'000LL;

TEST(CQDTimestamp, SetUTCReadsTheRealTimeClock)
{
    CQDTimestamp timestamp;
    const long long before = ClockTicks();

    timestamp.SetUTC();

    EXPECT_GE(timestamp.GetValue(), before);
    EXPECT_LE(timestamp.GetValue(), ClockTicks() + kClockTolerance);
}

TEST(CQDTimestamp, UTCNowReadsTheRealTimeClock)
{
    const long long before = ClockTicks();

    const CQDTimestamp timestamp = CQDTimestamp::UTCNow();

    EXPECT_GE(timestamp.GetValue(), before);
    EXPECT_LE(timestamp.GetValue(), ClockTicks() + kClockTolerance);
}

TEST(CQDTimestamp, BothClocksAreReadRightAfter2038)
{
    constexpr long long k2040 = 138534624000000000; // 2040-01-01
    const ClockShift shift(2208988800);

    const CQDTimestamp first = CQDTimestamp::UTCNow();
    const FaultPlan plan("clock_gettime", 1, EINVAL, FaultPlan::Repeat::Forever);
    const CQDTimestamp second = CQDTimestamp::UTCNow();

    EXPECT_GE(first.GetValue(), k2040);
    EXPECT_GE(second.GetValue(), first.GetValue());
    EXPECT_LT(second.GetValue(), k2040 + CQDTimeInterval::TicksPerHour);
    EXPECT_TRUE(plan.HasFailed());
}

TEST(CQDTimestamp, SetUTCDoesNotAskTheSecondClockWhenTheFirstAnswers)
{
    CQDTimestamp timestamp;
    const FaultPlan plan("gettimeofday", 1, EPERM, FaultPlan::Repeat::Forever);

    timestamp.SetUTC();

    EXPECT_EQ(plan.GetCallCount(), 0);
    EXPECT_GT(timestamp.GetValue(), kUnixEpoch);
}

TEST(CQDTimestamp, SetUTCFallsBackToTheSecondClock)
{
    CQDTimestamp timestamp;
    const long long before = ClockTicks();
    bool hasFailed = false;

    {
        const FaultPlan plan("clock_gettime", 1, EINVAL, FaultPlan::Repeat::Forever);
        timestamp.SetUTC();
        hasFailed = plan.HasFailed();
    }

    EXPECT_TRUE(hasFailed);
    EXPECT_EQ(timestamp.GetValue() % 10, 0) << "gettimeofday() counts microseconds";
    EXPECT_GE(timestamp.GetValue(), before);
    EXPECT_LE(timestamp.GetValue(), ClockTicks() + kClockTolerance);
}

// ---- dates

TEST(CQDTimestamp, SetDateStoresMidnight)
{
    const struct
    {
        unsigned int m_Year, m_Month, m_Day;
        long long m_Ticks;
    } cases[] = {
        {1601, 1, 1, 0},
        {1601, 1, 2, 864'000'000'000},
        {1700, 2, 28, 31291488000000000},
        {1700, 3, 1, 31292352000000000},
        {1970, 1, 1, 116444736000000000},
        {2000, 2, 29, 125962560000000000},
        {2000, 12, 31, 126226944000000000},
        {2001, 1, 1, 126227808000000000},
        {2012, 4, 13, 129787488000000000},
        {2020, 3, 4, 132277536000000000},
        {9999, 12, 31, 2650466880000000000},
    };

    for (const auto& [year, month, day, ticks] : cases) {
        SCOPED_TRACE(std::to_string(year) + "-" + std::to_string(month) + "-" + std::to_string(day));
        CQDTimestamp timestamp(987654321);

        EXPECT_TRUE(timestamp.SetDate(year, month, day));

        EXPECT_EQ(timestamp.GetValue(), ticks);
    }
}

TEST(CQDTimestamp, DatesThatDoNotExistAreRefusedByAllSetters)
{
    constexpr unsigned int kHuge = std::numeric_limits<unsigned int>::max();

    const struct
    {
        const char* m_Name;
        unsigned int m_Year, m_Month, m_Day;
    } cases[] = {
        {"year 0", 0, 1, 1},
        {"day before the first", 1600, 12, 31},
        {"day after the last", 10000, 1, 1},
        {"huge year", kHuge, 1, 1},
        {"month 0", 2000, 0, 1},
        {"month 13", 2000, 13, 1},
        {"huge month", 2000, kHuge, 1},
        {"day 0", 2000, 1, 0},
        {"32 January", 2001, 1, 32},
        {"29 February of a common year", 2001, 2, 29},
        {"29 February of a common century", 1900, 2, 29},
        {"30 February of a leap year", 2000, 2, 30},
        {"32 March", 2001, 3, 32},
        {"31 April", 2001, 4, 31},
        {"32 May", 2001, 5, 32},
        {"31 June", 2001, 6, 31},
        {"32 July", 2001, 7, 32},
        {"32 August", 2001, 8, 32},
        {"31 September", 2001, 9, 31},
        {"32 October", 2001, 10, 32},
        {"31 November", 2001, 11, 31},
        {"32 December", 2001, 12, 32},
        {"huge day", 2001, 12, kHuge},
    };

    for (const auto& [name, year, month, day] : cases) {
        SCOPED_TRACE(name);
        CQDTimestamp timestamp(4711);

        EXPECT_FALSE(timestamp.SetDate(year, month, day));
        EXPECT_FALSE(timestamp.SetDateAndHHMM(year, month, day, 1, 2));
        EXPECT_FALSE(timestamp.SetDateAndHHMMSSFFF(year, month, day, 1, 2, 3, 4));

        EXPECT_EQ(timestamp.GetValue(), 4711);
    }
}

TEST(CQDTimestamp, SetDateAndHHMMAddsHoursAndMinutes)
{
    CQDTimestamp timestamp(987654321);

    EXPECT_TRUE(timestamp.SetDateAndHHMM(2020, 3, 4, 5, 6));

    EXPECT_EQ(timestamp.GetValue(), 132277719600000000);
}

TEST(CQDTimestamp, SetDateAndHHMMSSFFFAddsTheTimeOfDay)
{
    CQDTimestamp timestamp(987654321);

    EXPECT_TRUE(timestamp.SetDateAndHHMMSSFFF(2020, 3, 4, 5, 6, 7, 123));

    EXPECT_EQ(timestamp.GetValue(), k20200304_050607123);
}

TEST(CQDTimestamp, TimeOfDayBeyondItsRangeRunsOn)
{
    CQDTimestamp timestamp;

    EXPECT_TRUE(timestamp.SetDateAndHHMM(2020, 3, 4, 25, 61));
    EXPECT_EQ(timestamp.GetValue(), 132278472600000000); // 2020-03-05 02:01

    EXPECT_TRUE(timestamp.SetDateAndHHMMSSFFF(2020, 3, 4, 25, 60, 60, 1000));
    EXPECT_EQ(TextOf(timestamp), "2020-03-05 02:01:01.000");

    EXPECT_TRUE(timestamp.SetDateAndHHMMSSFFF(9999, 12, 31, 24, 0, 0, 0));
    EXPECT_EQ(TextOf(timestamp), "****-01-01 00:00:00.000");
}

TEST(CQDTimestamp, TimeOfDayProductsHave64Bits)
{
    CQDTimestamp timestamp;

    EXPECT_TRUE(timestamp.SetDateAndHHMM(1601, 1, 1, 100'000'000, 4'000'000'000));
    EXPECT_EQ(timestamp.GetValue(), 6'000'000'000'000'000'000); // 3.6e18 of hours, 2.4e18 of minutes

    EXPECT_TRUE(timestamp.SetDateAndHHMMSSFFF(1601, 1, 1, 1'000'000, 1'000'000, 4'000'000'000, 4'000'000'000));
    EXPECT_EQ(timestamp.GetValue(), 76'640'000'000'000'000); // 3.6e16 + 6e14 + 4e16 + 4e13
}

TEST(CQDTimestamp, HugeTimeOfDayWraps)
{
    constexpr unsigned int kHuge = std::numeric_limits<unsigned int>::max();
    CQDTimestamp timestamp;

    EXPECT_TRUE(timestamp.SetDateAndHHMM(1601, 1, 1, kHuge, kHuge));
    EXPECT_EQ(timestamp.GetValue(), -8'824'893'666'385'964'544);

    EXPECT_TRUE(timestamp.SetDateAndHHMMSSFFF(9999, 12, 31, kHuge, kHuge, kHuge, kHuge));
    EXPECT_EQ(timestamp.GetValue(), -6'131'434'163'763'014'544);
}

TEST(CQDTimestamp, SetBuildNumberCountsDaysSince20120413)
{
    const struct
    {
        long m_Number;
        const char* m_Text;
    } cases[] = {
        {0, "2012-04-13 00:00:00.000"},
        {1, "2012-04-14 00:00:00.000"},
        {-1, "2012-04-12 00:00:00.000"},
        {2882, "2020-03-04 00:00:00.000"},
    };

    for (const auto& [number, text] : cases) {
        SCOPED_TRACE(number);
        CQDTimestamp timestamp(987654321);

        timestamp.SetBuildNumber(number);

        EXPECT_EQ(TextOf(timestamp), text);
    }
}

TEST(CQDTimestamp, SetBuildNumberWithAHugeNumberWraps)
{
    CQDTimestamp timestamp;

    timestamp.SetBuildNumber(2'147'483'647);

    EXPECT_EQ(timestamp.GetValue(), -7'565'492'948'664'713'216);
    timestamp.SetBuildNumber(std::numeric_limits<long>::max());
    timestamp.SetBuildNumber(std::numeric_limits<long>::min());
}

// ---- calendar fields

struct FieldsCase
{
    const char* m_Name;
    long long m_Ticks;
    CQDTimestamp::TimestampStruct m_Fields;
};

// Year, month, day, day of year, day of week, hour, minute, second, millisecond, milliseconds since midnight.
const FieldsCase kFieldsCases[] = {
    {"start", 0, {1601, 1, 1, 0, 1, 0, 0, 0, 0, 0}},
    {"last tick of the first day", 863'999'999'999, {1601, 1, 1, 0, 1, 23, 59, 59, 999, 86'399'999}},
    {"second day", 864'000'000'000, {1601, 1, 2, 1, 2, 0, 0, 0, 0, 0}},
    {"28 February of a common century", 31291488000000000, {1700, 2, 28, 58, 0, 0, 0, 0, 0, 0}},
    {"1 March of a common century", 31292352000000000, {1700, 3, 1, 59, 1, 0, 0, 0, 0, 0}},
    {"second before 1970", 116444735990000000, {1969, 12, 31, 364, 3, 23, 59, 59, 0, 86'399'000}},
    {"1970", 116444736000000000, {1970, 1, 1, 0, 4, 0, 0, 0, 0, 0}},
    {"29 February of a leap century", 125962560000000000, {2000, 2, 29, 59, 2, 0, 0, 0, 0, 0}},
    {"last day of 400 years", 126226944000000000, {2000, 12, 31, 365, 0, 0, 0, 0, 0, 0}},
    {"first day of the next 400 years", 126227808000000000, {2001, 1, 1, 0, 1, 0, 0, 0, 0, 0}},
    {"29 February of a leap year", 132274080000000000, {2020, 2, 29, 59, 6, 0, 0, 0, 0, 0}},
    {"1 March of a leap year", 132274944000000000, {2020, 3, 1, 60, 0, 0, 0, 0, 0, 0}},
    {"ticks below a millisecond", 132277719671234567, {2020, 3, 4, 63, 3, 5, 6, 7, 123, 18'367'123}},
    {"last day of a leap year", 132538464000000000, {2020, 12, 31, 365, 4, 0, 0, 0, 0, 0}},
    {"last day that can be set", 2650466880000000000, {9999, 12, 31, 364, 5, 0, 0, 0, 0, 0}},
    {"day after it", 2650467744000000000, {10000, 1, 1, 0, 6, 0, 0, 0, 0, 0}},
    {"Never", kLargest, {30828, 9, 14, 257, 4, 2, 48, 5, 477, 10'085'477}},
};

void ExpectFields(const CQDTimestamp::TimestampStruct& actual, const CQDTimestamp::TimestampStruct& expected)
{
    EXPECT_EQ(actual.m_Year, expected.m_Year);
    EXPECT_EQ(actual.m_Month, expected.m_Month);
    EXPECT_EQ(actual.m_Day, expected.m_Day);
    EXPECT_EQ(actual.m_DayOfYear, expected.m_DayOfYear);
    EXPECT_EQ(actual.m_DayOfWeek, expected.m_DayOfWeek);
    EXPECT_EQ(actual.m_Hour, expected.m_Hour);
    EXPECT_EQ(actual.m_Minute, expected.m_Minute);
    EXPECT_EQ(actual.m_Second, expected.m_Second);
    EXPECT_EQ(actual.m_Millisecond, expected.m_Millisecond);
    EXPECT_EQ(actual.m_MillisecondsSinceMidnight, expected.m_MillisecondsSinceMidnight);
}

TEST(CQDTimestamp, GetTimestampStructCutsTheValueIntoFields)
{
    for (const FieldsCase& expected : kFieldsCases) {
        SCOPED_TRACE(expected.m_Name);
        CQDTimestamp::TimestampStruct fields;
        std::memset(&fields, 0xEE, sizeof fields);

        CQDTimestamp(expected.m_Ticks).GetTimestampStruct(fields);

        ExpectFields(fields, expected.m_Fields);
    }
}

TEST(CQDTimestamp, StaticGetTimestampStructCutsATickCount)
{
    for (const FieldsCase& expected : kFieldsCases) {
        SCOPED_TRACE(expected.m_Name);
        CQDTimestamp::TimestampStruct fields;
        std::memset(&fields, 0xEE, sizeof fields);

        CQDTimestamp::GetTimestampStruct(expected.m_Ticks, fields);

        ExpectFields(fields, expected.m_Fields);
    }
}

TEST(CQDTimestamp, TimestampStructIsTen32BitFields)
{
    static_assert(sizeof(CQDTimestamp::TimestampStruct) == 40);
    static_assert(std::is_same_v<decltype(CQDTimestamp::TimestampStruct::m_Year), uint32_t>);
    static_assert(std::is_standard_layout_v<CQDTimestamp::TimestampStruct>);
}

TEST(CQDTimestamp, TimestampStructHasItsFieldsInOrder)
{
    EXPECT_EQ(offsetof(CQDTimestamp::TimestampStruct, m_Year), 0u);
    EXPECT_EQ(offsetof(CQDTimestamp::TimestampStruct, m_Month), 4u);
    EXPECT_EQ(offsetof(CQDTimestamp::TimestampStruct, m_Day), 8u);
    EXPECT_EQ(offsetof(CQDTimestamp::TimestampStruct, m_DayOfYear), 12u);
    EXPECT_EQ(offsetof(CQDTimestamp::TimestampStruct, m_DayOfWeek), 16u);
    EXPECT_EQ(offsetof(CQDTimestamp::TimestampStruct, m_Hour), 20u);
    EXPECT_EQ(offsetof(CQDTimestamp::TimestampStruct, m_Minute), 24u);
    EXPECT_EQ(offsetof(CQDTimestamp::TimestampStruct, m_Second), 28u);
    EXPECT_EQ(offsetof(CQDTimestamp::TimestampStruct, m_Millisecond), 32u);
    EXPECT_EQ(offsetof(CQDTimestamp::TimestampStruct, m_MillisecondsSinceMidnight), 36u);
}

TEST(CQDTimestamp, FieldsOfNegativeTicksStayWithinTheirRanges)
{
    const long long cases[] = {-1, -10'000, -kDay, -kDay - 1, -146'097 * kDay, kSmallest + 1, kSmallest};
    for (const long long ticks : cases) {
        SCOPED_TRACE(ticks);
        CQDTimestamp::TimestampStruct fields;

        CQDTimestamp::GetTimestampStruct(ticks, fields);

        EXPECT_GT(fields.m_Year, 9999u);
        EXPECT_TRUE(fields.m_Month >= 1 && fields.m_Month <= 12);
        EXPECT_TRUE(fields.m_Day >= 1 && fields.m_Day <= 31);
        EXPECT_LE(fields.m_DayOfYear, 365u);
        EXPECT_LE(fields.m_DayOfWeek, 6u);
        EXPECT_LE(fields.m_Hour, 23u);
        EXPECT_LE(fields.m_Minute, 59u);
        EXPECT_LE(fields.m_Second, 59u);
        EXPECT_LE(fields.m_Millisecond, 999u);
        EXPECT_LE(fields.m_MillisecondsSinceMidnight, 86'399'999u);
    }
}

// ---- months and years

TEST(CQDTimestamp, AddMonthsMovesTheMonthAndHoldsTheDayAtItsLength)
{
    const struct
    {
        const char* m_From;
        long m_Months;
        const char* m_To;
    } cases[] = {
        {"2021-01-31 05:06:07.123", 1, "2021-02-28 05:06:07.123"},
        {"2021-03-31 05:06:07.123", -1, "2021-02-28 05:06:07.123"},
        {"2021-03-31 00:00:00.000", 1, "2021-04-30 00:00:00.000"},
        {"2020-01-31 23:59:59.999", 1, "2020-02-29 23:59:59.999"},
        {"2021-01-15 00:00:00.000", -13, "2019-12-15 00:00:00.000"},
        {"2021-01-15 00:00:00.000", -1, "2020-12-15 00:00:00.000"},
        {"2021-01-15 00:00:00.000", -12, "2020-01-15 00:00:00.000"},
        {"2021-01-15 00:00:00.000", 11, "2021-12-15 00:00:00.000"},
        {"2021-01-15 00:00:00.000", 12, "2022-01-15 00:00:00.000"},
        {"2021-12-31 00:00:00.000", 1, "2022-01-31 00:00:00.000"},
        {"2021-12-15 00:00:00.000", 11, "2022-11-15 00:00:00.000"},
        {"2021-12-15 00:00:00.000", 23, "2023-11-15 00:00:00.000"},
        {"2021-12-15 00:00:00.000", -11, "2021-01-15 00:00:00.000"},
        {"2021-12-15 00:00:00.000", -12, "2020-12-15 00:00:00.000"},
        {"2021-06-30 00:00:00.000", 2400, "2221-06-30 00:00:00.000"},
        {"1601-01-01 00:00:00.000", 100787, "9999-12-01 00:00:00.000"},
        {"9999-12-31 23:59:59.999", -100787, "1601-01-31 23:59:59.999"},
    };

    for (const auto& [from, months, to] : cases) {
        SCOPED_TRACE(std::string(from) + " by " + std::to_string(months));
        CQDTimestamp timestamp;
        ASSERT_TRUE(timestamp.ParseString(from));

        EXPECT_TRUE(timestamp.AddMonths(months));

        EXPECT_EQ(TextOf(timestamp), to);
    }
}

TEST(CQDTimestamp, AddYearsMovesTheYearAndHoldsTheDayAtItsLength)
{
    const struct
    {
        const char* m_From;
        long m_Years;
        const char* m_To;
    } cases[] = {
        {"2020-02-29 05:06:07.123", 1, "2021-02-28 05:06:07.123"},
        {"2020-02-29 05:06:07.123", -1, "2019-02-28 05:06:07.123"},
        {"2020-02-29 05:06:07.123", 4, "2024-02-29 05:06:07.123"},
        {"2020-02-29 05:06:07.123", 80, "2100-02-28 05:06:07.123"},
        {"2021-12-31 00:00:00.000", 1, "2022-12-31 00:00:00.000"},
        {"1601-06-15 00:00:00.000", 8398, "9999-06-15 00:00:00.000"},
        {"9999-06-15 00:00:00.000", -8398, "1601-06-15 00:00:00.000"},
    };

    for (const auto& [from, years, to] : cases) {
        SCOPED_TRACE(std::string(from) + " by " + std::to_string(years));
        CQDTimestamp timestamp;
        ASSERT_TRUE(timestamp.ParseString(from));

        EXPECT_TRUE(timestamp.AddYears(years));

        EXPECT_EQ(TextOf(timestamp), to);
    }
}

TEST(CQDTimestamp, AddMonthsAndAddYearsDropTicksBelowAMillisecond)
{
    CQDTimestamp byMonth(k20200304_050607123 + 4567);
    CQDTimestamp byYear(k20200304_050607123 + 4567);

    EXPECT_TRUE(byMonth.AddMonths(12));
    EXPECT_TRUE(byYear.AddYears(1));

    EXPECT_EQ(byMonth.GetValue(), At(2021, 3, 4, 5, 6, 7, 123).GetValue());
    EXPECT_EQ(byYear.GetValue(), At(2021, 3, 4, 5, 6, 7, 123).GetValue());
}

TEST(CQDTimestamp, AddingNoMonthsOrYearsKeepsAnyValue)
{
    const long long cases[] = {k20200304_050607123 + 4567, 0, -1, kLargest, kSmallest};
    for (const long long ticks : cases) {
        SCOPED_TRACE(ticks);
        CQDTimestamp timestamp(ticks);

        EXPECT_TRUE(timestamp.AddMonths(0));
        EXPECT_TRUE(timestamp.AddYears(0));

        EXPECT_EQ(timestamp.GetValue(), ticks);
    }
}

TEST(CQDTimestamp, AddMonthsOutOfTheCalendarFailsAndKeepsTheValue)
{
    constexpr long kLongest = std::numeric_limits<long>::max();
    constexpr long kShortest = std::numeric_limits<long>::min();

    const struct
    {
        const char* m_Name;
        long long m_Ticks;
        long m_Months;
    } cases[] = {
        {"before 1601", 4567, -1},
        {"a year before 1601", 4567, -12},
        {"after 9999", 2650466880000000000 + 4567, 1},
        {"a year after 9999", 2650466880000000000 + 4567, 12},
        {"most months", k20200304_050607123, kLongest},
        {"fewest months", k20200304_050607123, kShortest},
        {"2^32 years", k20200304_050607123, kLongest > 0x7FFFFFFF ? static_cast<long>(12LL * 0x100000000) : kLongest},
        {"most months to Never", kLargest, kLongest},
        {"Never", kLargest, 1},
        {"fewest months to the smallest", kSmallest, kShortest},
    };

    for (const auto& [name, ticks, months] : cases) {
        SCOPED_TRACE(name);
        CQDTimestamp timestamp(ticks);

        EXPECT_FALSE(timestamp.AddMonths(months));

        EXPECT_EQ(timestamp.GetValue(), ticks);
    }
}

TEST(CQDTimestamp, AddYearsOutOfTheCalendarFailsAndKeepsTheValue)
{
    constexpr long kLongest = std::numeric_limits<long>::max();
    constexpr long kShortest = std::numeric_limits<long>::min();

    const struct
    {
        const char* m_Name;
        long long m_Ticks;
        long m_Years;
    } cases[] = {
        {"before 1601", 4567, -1},
        {"after 9999", 2650466880000000000 + 4567, 1},
        {"most years", k20200304_050607123, kLongest},
        {"fewest years", k20200304_050607123, kShortest},
        {"2^32 years", k20200304_050607123, kLongest > 0x7FFFFFFF ? static_cast<long>(0x100000000LL) : kLongest},
        {"Never", kLargest, kLongest},
        {"fewest years to the smallest", kSmallest, kShortest},
    };

    for (const auto& [name, ticks, years] : cases) {
        SCOPED_TRACE(name);
        CQDTimestamp timestamp(ticks);

        EXPECT_FALSE(timestamp.AddYears(years));

        EXPECT_EQ(timestamp.GetValue(), ticks);
    }
}

// ---- rounding

TEST(CQDTimestamp, RoundingGoesToMultiplesOfTheStep)
{
    const struct
    {
        const char* m_Name;
        long long m_Value, m_Step, m_Down, m_Up;
    } cases[] = {
        {"on a multiple", 30, 10, 30, 30},
        {"one above", 31, 10, 30, 40},
        {"one below", 29, 10, 20, 30},
        {"zero", 0, 10, 0, 0},
        {"step one", 37, 1, 37, 37},
        {"to a minute", k20200304_050607123, 600'000'000, 132277719600000000, 132277720200000000},
        {"to a day", k20200304_050607123, kDay, k20200304, 132278400000000000},
        {"negative truncates toward zero", -15, 10, -10, 0},
        {"negative multiple goes up by the same sum", -20, 10, -20, -10},
        {"step beyond the value", 5, 1'000'000, 0, 1'000'000},
    };

    for (const auto& [name, value, step, down, up] : cases) {
        SCOPED_TRACE(name);
        CQDTimestamp roundedDown(value);
        CQDTimestamp roundedUp(value);

        roundedDown.RoundDown(step);
        roundedUp.RoundUp(step);

        EXPECT_EQ(roundedDown.GetValue(), down);
        EXPECT_EQ(roundedUp.GetValue(), up);
    }
}

TEST(CQDTimestamp, RoundUpWrapsWhenTheSumWithTheStepExceeds64Bits)
{
    CQDTimestamp timestamp(kLargest);

    timestamp.RoundUp(2); // 2^63 - 1 + 1 wraps to -2^63, a multiple of 2

    EXPECT_EQ(timestamp.GetValue(), kSmallest);

    timestamp = 5;
    timestamp.RoundUp(kLargest); // 5 + 2^63 - 2 wraps to -2^63 + 3, which is no whole step

    EXPECT_EQ(timestamp.GetValue(), 0);
}

TEST(CQDTimestamp, RoundingByAStepThatIsNotPositiveKeepsTheValue)
{
    const long long steps[] = {0, -1, -10'000, kSmallest};
    for (const long long step : steps) {
        SCOPED_TRACE(step);
        CQDTimestamp timestamp(kSmallest);

        timestamp.RoundDown(step);
        timestamp.RoundUp(step);

        EXPECT_EQ(timestamp.GetValue(), kSmallest);
    }
}

TEST(CQDTimestamp, RoundUpToStartOfNextYear)
{
    const struct
    {
        const char* m_Name;
        long long m_Ticks, m_Rounded;
    } cases[] = {
        {"start of a year", At(2020, 1, 1).GetValue(), At(2020, 1, 1).GetValue()},
        {"ticks below a millisecond are not looked at", At(2020, 1, 1).GetValue() + 9'999,
         At(2020, 1, 1).GetValue() + 9'999},
        {"first millisecond after the start", At(2020, 1, 1, 0, 0, 0, 1).GetValue(), At(2021, 1, 1).GetValue()},
        {"second day", At(2020, 1, 2).GetValue(), At(2021, 1, 1).GetValue()},
        {"last millisecond", At(2020, 12, 31, 23, 59, 59, 999).GetValue(), At(2021, 1, 1).GetValue()},
        {"start of 9999", At(9999, 1, 1).GetValue(), At(9999, 1, 1).GetValue()},
        {"year 10000 cannot be set", At(9999, 6, 15).GetValue(), At(9999, 6, 15).GetValue()},
        {"Never", kLargest, kLargest},
        {"negative", -1, -1},
    };

    for (const auto& [name, ticks, rounded] : cases) {
        SCOPED_TRACE(name);
        CQDTimestamp timestamp(ticks);

        timestamp.RoundUpToStartOfNextYear();

        EXPECT_EQ(timestamp.GetValue(), rounded);
    }
}

// ---- POSIX time

TEST(CQDTimestamp, UnixMicrosecondsTruncateTowardZero)
{
    const struct
    {
        const char* m_Name;
        long long m_Ticks, m_Microseconds;
    } cases[] = {
        {"1970", kUnixEpoch, 0},
        {"9 ticks later", kUnixEpoch + 9, 0},
        {"10 ticks later", kUnixEpoch + 10, 1},
        {"9 ticks earlier", kUnixEpoch - 9, 0},
        {"10 ticks earlier", kUnixEpoch - 10, -1},
        {"19 ticks earlier", kUnixEpoch - 19, -1},
        {"2020", k20200304_050607123, 1'583'298'367'123'000},
        {"1601", 0, -11'644'473'600'000'000},
        {"Never", kLargest, 910'692'730'085'477'580},
        {"smallest wraps", kSmallest, 910'692'730'085'477'580},
    };

    for (const auto& [name, ticks, microseconds] : cases) {
        SCOPED_TRACE(name);

        EXPECT_EQ(CQDTimestamp(ticks).GetUnixTimeMicroSeconds(), microseconds);
    }
}

TEST(CQDTimestamp, SetUnixTimeMicroSecondsStoresTheirTicks)
{
    const struct
    {
        long long m_Microseconds, m_Ticks;
    } cases[] = {
        {0, kUnixEpoch},
        {1, kUnixEpoch + 10},
        {-1, kUnixEpoch - 10},
        {1'583'298'367'123'000, k20200304_050607123},
        {kLargest, kUnixEpoch - 10}, // (2^63 - 1) * 10 = 5 * 2^64 - 10
        {kSmallest, kUnixEpoch},
    };

    for (const auto& [microseconds, ticks] : cases) {
        SCOPED_TRACE(microseconds);
        CQDTimestamp timestamp(987654321);

        timestamp.SetUnixTimeMicroSeconds(microseconds);

        EXPECT_EQ(timestamp.GetValue(), ticks);
    }
}

TEST(CQDTimestamp, SetFromTimespecDropsNanosecondsBelowATick)
{
    const struct
    {
        time_t m_Seconds;
        long m_Nanoseconds;
        long long m_Ticks;
    } cases[] = {
        {0, 0, kUnixEpoch},
        {0, 99, kUnixEpoch},
        {0, 100, kUnixEpoch + 1},
        {0, -199, kUnixEpoch - 1},
        {1, 999'999'999, kUnixEpoch + 19'999'999},
        {-1, 0, kUnixEpoch - 10'000'000},
        {-1, 999'999'999, kUnixEpoch - 1},
        {1'583'298'367, 123'000'000, k20200304_050607123},
    };

    for (const auto& [seconds, nanoseconds, ticks] : cases) {
        SCOPED_TRACE(std::to_string(seconds) + " s " + std::to_string(nanoseconds) + " ns");
        timespec ts = {};
        ts.tv_sec = seconds;
        ts.tv_nsec = nanoseconds;
        CQDTimestamp timestamp(987654321);

        timestamp.SetFromTimespec(ts);

        EXPECT_EQ(timestamp.GetValue(), ticks);
    }
}

TEST(CQDTimestamp, GetAsTimespecTruncatesTowardZero)
{
    const struct
    {
        const char* m_Name;
        long long m_Ticks, m_Seconds;
        long m_Nanoseconds;
    } cases[] = {
        {"1970", kUnixEpoch, 0, 0},
        {"a tick later", kUnixEpoch + 1, 0, 100},
        {"a tick earlier", kUnixEpoch - 1, 0, -100},
        {"a second and a tick earlier", kUnixEpoch - 10'000'001, -1, -100},
        {"2020", k20200304_050607123 + 4567, 1'583'298'367, 123'456'700},
        {"1601", 0, -11'644'473'600, 0},
        {"Never", kLargest, 910'692'730'085, 477'580'700},
    };

    for (const auto& [name, ticks, seconds, nanoseconds] : cases) {
        SCOPED_TRACE(name);
        timespec ts;

        CQDTimestamp(ticks).GetAsTimespec(ts);

        EXPECT_EQ(ts.tv_sec, seconds);
        EXPECT_EQ(ts.tv_nsec, nanoseconds);
    }
}

TEST(CQDTimestamp, SetFromTimevalStoresTheTicks)
{
    const struct
    {
        time_t m_Seconds;
        suseconds_t m_Microseconds;
        long long m_Ticks;
    } cases[] = {
        {0, 0, kUnixEpoch},
        {0, 1, kUnixEpoch + 10},
        {0, -1, kUnixEpoch - 10},
        {-1, 999'999, kUnixEpoch - 10},
        {1'583'298'367, 123'000, k20200304_050607123},
    };

    for (const auto& [seconds, microseconds, ticks] : cases) {
        SCOPED_TRACE(std::to_string(seconds) + " s " + std::to_string(microseconds) + " us");
        timeval tv = {};
        tv.tv_sec = seconds;
        tv.tv_usec = microseconds;
        CQDTimestamp timestamp(987654321);

        timestamp.SetFromTimeval(tv);

        EXPECT_EQ(timestamp.GetValue(), ticks);
    }
}

TEST(CQDTimestamp, GetAsTimevalTruncatesTowardZero)
{
    const struct
    {
        const char* m_Name;
        long long m_Ticks, m_Seconds;
        long m_Microseconds;
    } cases[] = {
        {"1970", kUnixEpoch, 0, 0},
        {"9 ticks later", kUnixEpoch + 9, 0, 0},
        {"10 ticks later", kUnixEpoch + 10, 0, 1},
        {"9 ticks earlier", kUnixEpoch - 9, 0, 0},
        {"a second and 19 ticks earlier", kUnixEpoch - 10'000'019, -1, -1},
        {"2020", k20200304_050607123 + 4567, 1'583'298'367, 123'456},
        {"1601", 0, -11'644'473'600, 0},
        {"Never", kLargest, 910'692'730'085, 477'580},
    };

    for (const auto& [name, ticks, seconds, microseconds] : cases) {
        SCOPED_TRACE(name);
        timeval tv;

        CQDTimestamp(ticks).GetAsTimeval(tv);

        EXPECT_EQ(tv.tv_sec, seconds);
        EXPECT_EQ(tv.tv_usec, microseconds);
    }
}

TEST(CQDTimestamp, PosixTimesOfAnySizeWrap)
{
    timespec ts = {};
    ts.tv_sec = std::numeric_limits<time_t>::max();
    ts.tv_nsec = std::numeric_limits<long>::max();
    timeval tv = {};
    tv.tv_sec = std::numeric_limits<time_t>::min();
    tv.tv_usec = std::numeric_limits<decltype(tv.tv_usec)>::min();
    CQDTimestamp timestamp;

    timestamp.SetFromTimeval(tv);
    EXPECT_EQ(timestamp.GetValue(), kUnixEpoch); // both products are multiples of 2^64
    timestamp.SetFromTimespec(ts);
    EXPECT_EQ(timestamp.GetValue(),
              kUnixEpoch - 10'000'000 + (sizeof(ts.tv_nsec) == 8 ? 92'233'720'368'547'758 : 21'474'836));
    CQDTimestamp(kSmallest).GetAsTimespec(ts);
    CQDTimestamp(kSmallest).GetAsTimeval(tv);
}

// ---- the time-out for select()

TEST(CQDTimestamp, SelectTimeoutForNeverIsNullAndTouchesNothing)
{
    timeval tv = {};
    tv.tv_sec = 12;
    tv.tv_usec = 34;

    EXPECT_EQ(CQDTimestamp(k20200304).GetSelectTimeout(CQDTimestamp::Never.GetValue(), tv), nullptr);
    EXPECT_EQ(CQDTimestamp::Never.GetSelectTimeout(CQDTimestamp::Never.GetValue(), tv), nullptr);

    EXPECT_EQ(tv.tv_sec, 12);
    EXPECT_EQ(tv.tv_usec, 34);
}

TEST(CQDTimestamp, SelectTimeoutIsWhatIsLeftInWholeMicroseconds)
{
    const struct
    {
        const char* m_Name;
        long long m_Now, m_Deadline, m_Seconds;
        long m_Microseconds;
    } cases[] = {
        {"now", k20200304, k20200304, 0, 0},
        {"a tick ago", k20200304, k20200304 - 1, 0, 0},
        {"long ago", k20200304, 0, 0, 0},
        {"a tick ahead", k20200304, k20200304 + 1, 0, 1},
        {"10 ticks ahead", k20200304, k20200304 + 10, 0, 1},
        {"11 ticks ahead", k20200304, k20200304 + 11, 0, 2},
        {"just below a second ahead", k20200304, k20200304 + 9'999'990, 0, 999'999},
        {"a part of a microsecond fills the second", k20200304, k20200304 + 9'999'991, 1, 0},
        {"a second ahead", k20200304, k20200304 + 10'000'000, 1, 0},
        {"a day and a half second ahead", k20200304, k20200304 + kDay + 5'000'000, 86'400, 500'000},
        {"negative deadline", 0, -1, 0, 0},
        {"from a negative time", -5, 5, 0, 1},
    };

    for (const auto& [name, now, deadline, seconds, microseconds] : cases) {
        SCOPED_TRACE(name);
        timeval tv = {};
        tv.tv_sec = 12;
        tv.tv_usec = 34;

        EXPECT_EQ(CQDTimestamp(now).GetSelectTimeout(deadline, tv), &tv);

        EXPECT_EQ(tv.tv_sec, seconds);
        EXPECT_EQ(tv.tv_usec, microseconds);
    }
}

TEST(CQDTimestamp, SelectTimeoutIsHeldAtTheLongestOneOfItsType)
{
    const struct
    {
        const char* m_Name;
        long long m_Now, m_Deadline;
        unsigned long long m_Seconds;
    } cases[] = {
        {"just before Never", k20200304, kLargest - 1, 909'109'450'085},
        {"from the smallest", kSmallest, kLargest - 1, 1'844'674'407'370},
    };

    constexpr unsigned long long kLongestSeconds = std::numeric_limits<time_t>::max();
    for (const auto& [name, now, deadline, seconds] : cases) {
        SCOPED_TRACE(name);
        timeval tv;

        EXPECT_EQ(CQDTimestamp(now).GetSelectTimeout(deadline, tv), &tv);

        EXPECT_EQ(static_cast<unsigned long long>(tv.tv_sec), seconds < kLongestSeconds ? seconds : kLongestSeconds);
        EXPECT_TRUE(tv.tv_usec >= 0 && tv.tv_usec <= 999'999);
    }
}

TEST(CQDTimestamp, SelectAcceptsTheLongestTimeout)
{
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    ASSERT_EQ(::write(ends[1], "x", 1), 1);
    const long long times[] = {k20200304, 0, kSmallest};
    for (const long long now : times) {
        SCOPED_TRACE(now);
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(ends[0], &readable);
        timeval tv;

        const int count =
            ::select(ends[0] + 1, &readable, nullptr, nullptr, CQDTimestamp(now).GetSelectTimeout(kLargest - 1, tv));

        EXPECT_EQ(count, 1) << std::strerror(errno);
    }
    ::close(ends[0]);
    ::close(ends[1]);
}

// ---- writing text

TEST(CQDTimestamp, ToTextWritesDateSeparatorAndTime)
{
    const struct
    {
        long long m_Ticks;
        char m_Separator;
        const char* m_Text;
    } cases[] = {
        {0, 'T', "1601-01-01T00:00:00.000"},
        {0, ' ', "1601-01-01 00:00:00.000"},
        {k20200304_050607123, '_', "2020-03-04_05:06:07.123"},
        {k20200304_050607123 + 9'999, ' ', "2020-03-04 05:06:07.123"},
        {2650467743999999999, ' ', "9999-12-31 23:59:59.999"},
        {2650467744000000000, ' ', "****-01-01 00:00:00.000"},
        {kLargest, ' ', "****-09-14 02:48:05.477"},
        {0, '\x7F',
         "1601-01-01\x7F"
         "00:00:00.000"},
        {0, '\x01',
         "1601-01-01\x01"
         "00:00:00.000"},
    };

    for (const auto& [ticks, separator, text] : cases) {
        SCOPED_TRACE(text);

        EXPECT_EQ(TextOf(ticks, separator), text);
    }
}

TEST(CQDTimestamp, TextsOfNegativeTicksHaveNoYear)
{
    char buffer[24];

    EXPECT_EQ(TextOf(-1).substr(0, 5), "****-");
    EXPECT_EQ(TextOf(kSmallest).substr(0, 5), "****-");
    EXPECT_EQ(std::string(CQDTimestamp(-1).DateToText(buffer)).substr(0, 5), "****-");
}

TEST(CQDTimestamp, ToTextUsesAll24BytesAndNoMore)
{
    char buffer[25];
    std::memset(buffer, 'x', sizeof buffer);

    EXPECT_EQ(CQDTimestamp::Never.ToText(buffer, ' '), 23);

    EXPECT_EQ(buffer[23], '\0');
    EXPECT_EQ(buffer[24], 'x');
}

TEST(CQDTimestamp, ToTextWithASeparatorOutsideAsciiInTheCLocaleFailsToEncode)
{
    char buffer[25];
    std::memset(buffer, 'x', sizeof buffer);

    EXPECT_EQ(CQDTimestamp(0).ToText(buffer, '\xB7'), QDFormatEncodingError);

    EXPECT_EQ(buffer[24], 'x');
}

TEST(CQDTimestamp, ToTextWithASeparatorOfTwoUtf8BytesIsTruncated)
{
    const ScopedCharacterLocale locale("C.UTF-8");
    char buffer[25];
    std::memset(buffer, 'x', sizeof buffer);

    EXPECT_EQ(CQDTimestamp(0).ToText(buffer, '\xB7'), QDFormatTruncated);

    EXPECT_STREQ(buffer, "1601-01-01\xC2\xB7"
                         "00:00:00.00");
    EXPECT_EQ(buffer[24], 'x');
}

TEST(CQDTimestamp, ToTextWithANulSeparatorWritesOne)
{
    char buffer[24];
    std::memset(buffer, 'x', sizeof buffer);

    EXPECT_EQ(CQDTimestamp(0).ToText(buffer, '\0'), 23);

    EXPECT_EQ(std::string_view(buffer, 24), std::string_view("1601-01-01\0"
                                                             "00:00:00.000\0",
                                                             24));
}

TEST(CQDTimestamp, DateToTextWritesTheDate)
{
    char buffer[24];

    EXPECT_EQ(CQDTimestamp(k20200304_050607123).DateToText(buffer), buffer);
    EXPECT_STREQ(buffer, "2020-03-04");
    EXPECT_STREQ(CQDTimestamp(0).DateToText(buffer), "1601-01-01");
    EXPECT_STREQ(CQDTimestamp(2650467743999999999).DateToText(buffer), "9999-12-31");
    EXPECT_STREQ(CQDTimestamp::Never.DateToText(buffer), "****-09-14");
}

TEST(CQDTimestamp, TimeOfDayToTextWritesTheTime)
{
    char buffer[24];

    EXPECT_EQ(CQDTimestamp(k20200304_050607123 + 9'999).TimeOfDayToText(buffer), buffer);
    EXPECT_STREQ(buffer, "05:06:07.123");
    EXPECT_STREQ(CQDTimestamp(0).TimeOfDayToText(buffer), "00:00:00.000");
    EXPECT_STREQ(CQDTimestamp(kDay - 1).TimeOfDayToText(buffer), "23:59:59.999");
    EXPECT_STREQ(CQDTimestamp::Never.TimeOfDayToText(buffer), "02:48:05.477");
}

// What the C library makes of the same moment.
std::string ReferenceText(long long ticks, char separator)
{
    constexpr long long kTicksPerSecond = 10'000'000;
    const time_t seconds = static_cast<time_t>(ticks / kTicksPerSecond - kUnixEpoch / kTicksPerSecond);
    tm fields;
    ::gmtime_r(&seconds, &fields);
    char year[16];
    std::snprintf(year, sizeof year, fields.tm_year + 1900 > 9999 ? "****" : "%04d", fields.tm_year + 1900);
    char text[64];
    std::snprintf(text, sizeof text, "%s-%02d-%02d%lc%02d:%02d:%02d.%03d", year, fields.tm_mon + 1, fields.tm_mday,
                  static_cast<wint_t>(separator), fields.tm_hour, fields.tm_min, fields.tm_sec,
                  static_cast<int>(ticks % kTicksPerSecond / 10'000));
    return text;
}

TEST(CQDTimestamp, TextsAgreeWithTheCLibrary)
{
    std::mt19937_64 random(20200304);
    for (int i = 0; i < 200'000; ++i) {
        // Half of them up to the year 9999, the others anywhere.
        const auto limit = static_cast<unsigned long long>(i % 2 == 0 ? 2650467744000000000 : kLargest);
        const auto ticks = static_cast<long long>(random() % limit);
        const auto separator = static_cast<char>(' ' + i % 95);
        const std::string expected = ReferenceText(ticks, separator);
        char buffer[24];

        ASSERT_EQ(TextOf(ticks, separator), expected);
        ASSERT_EQ(CQDTimestamp(ticks).DateToText(buffer), expected.substr(0, 10));
        ASSERT_EQ(CQDTimestamp(ticks).TimeOfDayToText(buffer), expected.substr(11));
    }
}

// ---- reading text

TEST(CQDTimestamp, ParseStringReadsDatesAndTimes)
{
    const struct
    {
        const char* m_Text;
        const char* m_Result;
    } cases[] = {
        {"2020-03-04 05:06:07.8", "2020-03-04 05:06:07.008"},
        {"2020-03-04 05:06:07.123", "2020-03-04 05:06:07.123"},
        {"2020", "2020-01-01 00:00:00.000"},
        {"2020-03", "2020-03-01 00:00:00.000"},
        {"2020-03-04", "2020-03-04 00:00:00.000"},
        {"2020-03-04 05", "2020-03-04 05:00:00.000"},
        {"2020-03-04 05:06", "2020-03-04 05:06:00.000"},
        {"2020-03-04T05:06:07", "2020-03-04 05:06:07.000"},
        // The fraction is a count of milliseconds.
        {"2020-03-04 05:06:07.5", "2020-03-04 05:06:07.005"},
        {"2020-03-04 05:06:07.500", "2020-03-04 05:06:07.500"},
        {"2020-03-04 05:06:07.1234", "2020-03-04 05:06:08.234"},
        {"2020-03-04 05:06:07.", "2020-03-04 05:06:07.000"},
        // Any one character may stand before the hour.
        {"2020-03-04x05:06", "2020-03-04 05:06:00.000"},
        {"2020-03-04-05:06", "2020-03-04 05:06:00.000"},
        {"2020-03-04:05:06", "2020-03-04 05:06:00.000"},
        {"2020-03-04\xE9"
         "05:06",
         "2020-03-04 05:06:00.000"},
        {"2020-03-04 ", "2020-03-04 00:00:00.000"},
        {"2020-03-04Z", "2020-03-04 00:00:00.000"},
        {"2020-03-04TT05", "2020-03-04 00:00:00.000"},
        // No time of day without a day.
        {"2020 05:06", "2020-01-01 00:00:00.000"},
        {"2020-03 05:06", "2020-03-01 00:00:00.000"},
        {"2020-03T05:06", "2020-03-01 00:00:00.000"},
        {"2020:05", "2020-01-01 00:00:00.000"},
        // Reading stops at what does not fit.
        {"2020/03/04", "2020-01-01 00:00:00.000"},
        {"2020.5", "2020-01-01 00:00:00.000"},
        {"2020-03-04 05.06", "2020-03-04 05:00:00.000"},
        {"2020-03-04 05:06.07", "2020-03-04 05:06:00.000"},
        {"2020-03-04 05:06:07,123", "2020-03-04 05:06:07.000"},
        {"2020-03-04 05:06:07.123Z and more", "2020-03-04 05:06:07.123"},
        {"2020-03-04 05: :07", "2020-03-04 05:00:00.000"},
        // Blanks and signs before a number.
        {"  2020", "2020-01-01 00:00:00.000"},
        {"+2020-+3-+4 +5:+6:+7.+8", "2020-03-04 05:06:07.008"},
        {"\t2020-\n3-\v4T\f5:\r6: 7. 8", "2020-03-04 05:06:07.008"},
        {"2020-03-04    05:06", "2020-03-04 05:06:00.000"},
        {"2020-03-04 05 :06", "2020-03-04 05:00:00.000"},
        {"2020 -03", "2020-01-01 00:00:00.000"},
        {"2020-3-4 5:6:7.8", "2020-03-04 05:06:07.008"},
        {"0000002020-00003-00004", "2020-03-04 00:00:00.000"},
        {"2020-03-04 -0:00", "2020-03-04 00:00:00.000"},
        // Base 10 only.
        {"2020-03-04 0x5:06", "2020-03-04 00:00:00.000"},
        // The time of day is not checked.
        {"2020-03-04 25:61", "2020-03-05 02:01:00.000"},
        {"2020-03-04 24:00:00.86400000", "2020-03-06 00:00:00.000"},
        {"2020-02-29", "2020-02-29 00:00:00.000"},
        {"1601-01-01", "1601-01-01 00:00:00.000"},
        {"9999-12-31 23:59:59.999", "9999-12-31 23:59:59.999"},
    };

    for (const auto& [text, result] : cases) {
        SCOPED_TRACE(text);
        CQDTimestamp timestamp(987654321);

        EXPECT_TRUE(timestamp.ParseString(text));

        EXPECT_EQ(TextOf(timestamp), result);
    }
}

TEST(CQDTimestamp, ParseStringRefusesDatesThatDoNotExist)
{
    const char* const cases[] = {"", " ", "-", "+", "T", "abc", "x2020", "0", "1600", "1600-12-31", "10000-01-01",
                                 "-2020", "- 2020", "+-2020", "+ 2020", "2020-", "2020-0", "2020-13-01", "2020--3",
                                 "2020-03-", "2020-03-0", "2020-03-32", "2020-03--4", "2020-03- -4", "2020-xx",
                                 "2020-03-xx", "2020-02-20810:07:46.416", "2021-02-29", "2020-02-30", "2020-T",
                                 "2020-03-T05:06",
                                 // Not 2020 after all, though their low 32 bits are.
                                 "4294969316", "-4294965276", "2020-4294967299", "2020-03-4294967300", "8589936612",
                                 "18446744073709553636", "2020--4294967293", "9223372036854775807",
                                 "-9223372036854775808", "99999999999999999999999999999999999999999999999999",
                                 "2020-99999999999999999999", "2020-03-99999999999999999999", "-99999999999999999999"};
    for (const char* const text : cases) {
        SCOPED_TRACE(text);
        CQDTimestamp timestamp(4711);

        EXPECT_FALSE(timestamp.ParseString(text));

        EXPECT_EQ(timestamp.GetValue(), 4711);
    }
}

TEST(CQDTimestamp, ParseStringEndsAtANul)
{
    using namespace std::string_literals;
    CQDTimestamp timestamp;

    EXPECT_TRUE(timestamp.ParseString("2020-03-04\0"
                                      "05:06"s));
    EXPECT_EQ(TextOf(timestamp), "2020-03-04 00:00:00.000");

    EXPECT_TRUE(timestamp.ParseString("2020-03-04\0"
                                      "05:06:07.123"s));
    EXPECT_EQ(TextOf(timestamp), "2020-03-04 00:00:00.000");

    EXPECT_TRUE(timestamp.ParseString("2020-03-04 05\0"
                                      ":06"s));
    EXPECT_EQ(TextOf(timestamp), "2020-03-04 05:00:00.000");
}

TEST(CQDTimestamp, ParseStringHoldsTimeOfDayNumbersWithin32Bits)
{
    const struct
    {
        const char* m_Text;
        long long m_Milliseconds; // since midnight
    } cases[] = {
        {"2020-03-04 0:0:0.2147483647", 2'147'483'647},
        {"2020-03-04 0:0:0.2147483648", 2'147'483'647},
        {"2020-03-04 0:0:0.99999999999999999999999", 2'147'483'647},
        {"2020-03-04 0:0:99999999999999999999999", 2'147'483'647'000},
        {"2020-03-04 0:99999999999999999999999", 128'849'018'820'000},
        {"2020-03-04 0:0:0.-1", 4'294'967'295},
        {"2020-03-04 0:0:0.-2147483648", 2'147'483'648},
        {"2020-03-04 0:0:0.-99999999999999999999999", 2'147'483'648},
        {"2020-03-04 0:0:-1", 4'294'967'295'000},
    };

    for (const auto& [text, milliseconds] : cases) {
        SCOPED_TRACE(text);
        CQDTimestamp timestamp;

        EXPECT_TRUE(timestamp.ParseString(text));

        EXPECT_EQ(timestamp.GetValue(), k20200304 + milliseconds * 10'000);
    }
}

TEST(CQDTimestamp, ParseStringWithTheMostHoursIsHarmless)
{
    CQDTimestamp timestamp;

    EXPECT_TRUE(timestamp.ParseString("9999-12-31 99999999999999999999:99999999999999999999:99999999999999999999.9"));
    EXPECT_TRUE(timestamp.ParseString("9999-12-31 -1:-1:-1.-1"));
}

TEST(CQDTimestamp, ParseStringKeepsErrno)
{
    CQDTimestamp timestamp;
    errno = EAGAIN;

    EXPECT_FALSE(timestamp.ParseString("99999999999999999999999"));

    EXPECT_EQ(errno, EAGAIN);
}

// The grammar, read with strtol() where the results of a 64-bit `long` are held within 32 bits.
bool ReferenceParse(const char* text, CQDTimestamp& result)
{
    unsigned int fields[7] = {0, 1, 1, 0, 0, 0, 0};
    const char separators[] = "\0--?::.";
    const char* cursor = text;
    for (int i = 0; i < 7; ++i) {
        const bool fits = i == 0 || (i == 3 ? *cursor != '\0' : *cursor == separators[i]);
        if (!fits)
            break;
        if (i != 0)
            ++cursor;
        char* end = nullptr;
        long number = std::strtol(cursor, &end, 10);
        number = std::max(-2'147'483'647L - 1, std::min(number, 2'147'483'647L));
        fields[i] = static_cast<unsigned int>(number);
        cursor = end;
    }
    return result.SetDateAndHHMMSSFFF(fields[0], fields[1], fields[2], fields[3], fields[4], fields[5], fields[6]);
}

// A text that is likely to be nearly right.
std::string RandomText(std::mt19937& random)
{
    const auto below = [&random](unsigned int limit) { return static_cast<unsigned int>(random() % limit); };
    const char junk[] = "0123456789 \t\n\v\f\r+-:.Tx\xA0\xFF";
    const char separators[] = "--T::.";
    std::string text;
    const unsigned int count = 1 + below(7);
    for (unsigned int i = 0; i < count; ++i) {
        if (i != 0)
            text += separators[i - 1];
        if (below(8) == 0)
            text += " \t\n\v\f\r"[below(6)];
        if (below(8) == 0)
            text += "+-"[below(2)];
        text += std::to_string(i == 0 ? 1590 + below(8500) : below(8) == 0 ? random() : below(70));
        if (below(16) == 0)
            text += std::string(below(30), static_cast<char>('0' + below(10)));
    }
    while (below(3) == 0)
        text.insert(text.begin() + below(static_cast<unsigned int>(text.size()) + 1), junk[below(sizeof junk - 1)]);
    return text;
}

TEST(CQDTimestamp, ParseStringAgreesWithStrtol)
{
    std::mt19937 random(20200304);
    int accepted = 0;
    for (int i = 0; i < 300'000; ++i) {
        const std::string text = RandomText(random);
        CQDTimestamp expected(4711);
        CQDTimestamp timestamp(4711);
        const bool isValid = ReferenceParse(text.c_str(), expected);

        ASSERT_EQ(timestamp.ParseString(text), isValid) << '"' << text << '"';
        ASSERT_EQ(timestamp.GetValue(), expected.GetValue()) << '"' << text << '"';
        accepted += isValid;
    }
    EXPECT_GT(accepted, 30'000) << "the texts must not all be refused";
    EXPECT_LT(accepted, 270'000) << "the texts must not all be accepted";
}

// Texts that are one or two characters away from those that ToText() writes.
TEST(CQDTimestamp, ParseStringAgreesWithStrtolNearFullTexts)
{
    using namespace std::string_view_literals;
    constexpr std::string_view kReplacements = "0123456789 \t+-:.Tx/;,\xA0\0"sv;
    std::mt19937 random(20200304);
    int accepted = 0;
    for (int i = 0; i < 300'000; ++i) {
        std::string text = TextOf(static_cast<long long>(random()) * 600'000'007 % 2650467744000000000);
        for (auto changes = random() % 3; changes > 0; --changes)
            text[random() % text.size()] = kReplacements[random() % kReplacements.size()];
        CQDTimestamp expected(4711);
        CQDTimestamp timestamp(4711);
        const bool isValid = ReferenceParse(text.c_str(), expected);

        ASSERT_EQ(timestamp.ParseString(text), isValid) << '"' << text << '"';
        ASSERT_EQ(timestamp.GetValue(), expected.GetValue()) << '"' << text << '"';
        accepted += isValid;
    }
    EXPECT_GT(accepted, 30'000) << "the texts must not all be refused";
    EXPECT_LT(accepted, 290'000) << "the texts must not all be accepted";
}

TEST(CQDTimestamp, ParseStringReadsWhatToTextWrites)
{
    std::mt19937_64 random(20200304);
    for (int i = 0; i < 100'000; ++i) {
        const long long milliseconds = static_cast<long long>(random() % 265046774400000);
        CQDTimestamp timestamp;

        ASSERT_TRUE(timestamp.ParseString(TextOf(milliseconds * 10'000 + i % 10'000)));

        ASSERT_EQ(timestamp.GetValue(), milliseconds * 10'000);
    }
}

// ---- costs

TEST(CQDTimestamp, ConversionFormattingAndParsingAllocateNothing)
{
    const std::string text = "2020-03-04 05:06:07.123";
    CQDTimestamp timestamp;
    CQDTimestamp::TimestampStruct fields;
    char buffer[25];
    timeval tv;
    const AllocationCounter allocations;

    timestamp.SetUTC();
    timestamp.GetTimestampStruct(fields);
    timestamp.ToText(buffer, 'T');
    timestamp.ToText(buffer, '\xB7');
    timestamp.DateToText(buffer);
    timestamp.TimeOfDayToText(buffer);
    timestamp.ParseString(text);
    timestamp.AddMonths(1);
    timestamp.GetSelectTimeout(kLargest - 1, tv);
    CQDTimeInterval::OneWeek().ToText(buffer);

    EXPECT_EQ(allocations.GetCount(), 0u);
}

} // namespace
