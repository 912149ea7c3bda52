#include <QDPlatform/QDTimeInterval.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <limits>
#include <string>
#include <type_traits>

namespace
{

constexpr long long kSmallest = std::numeric_limits<long long>::min();
constexpr long long kLargest = std::numeric_limits<long long>::max();

// The text, with the returned length checked against it.
std::string TextOf(const CQDTimeInterval& interval)
{
    char buffer[25];
    const int length = interval.ToText(buffer);
    EXPECT_EQ(static_cast<std::size_t>(length), std::strlen(buffer));
    return buffer;
}

// Read before main() by a constructor of this program.
const long long g_OneDayAtLoad = CQDTimeInterval::OneDay().GetValue();

TEST(CQDTimeInterval, DefaultIsZero)
{
    EXPECT_EQ(CQDTimeInterval().GetValue(), 0);
}

TEST(CQDTimeInterval, HoldsTheTicksItWasGiven)
{
    EXPECT_EQ(CQDTimeInterval(-12345).GetValue(), -12345);
    EXPECT_EQ(CQDTimeInterval(kSmallest).GetValue(), kSmallest);
    EXPECT_EQ(CQDTimeInterval(kLargest).GetValue(), kLargest);
}

TEST(CQDTimeInterval, IntervalStructHasItsFieldsInOrder)
{
    EXPECT_EQ(offsetof(CQDTimeInterval::IntervalStruct, m_Negative), 0u);
    EXPECT_EQ(offsetof(CQDTimeInterval::IntervalStruct, m_Days), 4u);
    EXPECT_EQ(offsetof(CQDTimeInterval::IntervalStruct, m_Hours), 8u);
    EXPECT_EQ(offsetof(CQDTimeInterval::IntervalStruct, m_Minutes), 12u);
    EXPECT_EQ(offsetof(CQDTimeInterval::IntervalStruct, m_Seconds), 16u);
    EXPECT_EQ(offsetof(CQDTimeInterval::IntervalStruct, m_Milliseconds), 20u);
    EXPECT_EQ(sizeof(CQDTimeInterval::IntervalStruct), 24u);
}

TEST(CQDTimeInterval, IsAPlainValueOfOne64BitCount)
{
    static_assert(sizeof(CQDTimeInterval) == 8);
    static_assert(!std::is_polymorphic_v<CQDTimeInterval>);
    static_assert(std::is_trivially_copyable_v<CQDTimeInterval>);
    const CQDTimeInterval original(77);

    CQDTimeInterval copy(original);
    CQDTimeInterval assigned;
    assigned = original;

    EXPECT_EQ(copy.GetValue(), 77);
    EXPECT_EQ(assigned.GetValue(), 77);
}

TEST(CQDTimeInterval, NamedConstantsHoldTheirTicks)
{
    EXPECT_EQ(CQDTimeInterval::Zero().GetValue(), 0);
    EXPECT_EQ(CQDTimeInterval::OneMillisecond().GetValue(), 10'000);
    EXPECT_EQ(CQDTimeInterval::OneSecond().GetValue(), 10'000'000);
    EXPECT_EQ(CQDTimeInterval::OneMinute().GetValue(), 600'000'000);
    EXPECT_EQ(CQDTimeInterval::OneHour().GetValue(), 36'000'000'000);
    EXPECT_EQ(CQDTimeInterval::OneDay().GetValue(), 864'000'000'000);
    EXPECT_EQ(CQDTimeInterval::OneWeek().GetValue(), 6'048'000'000'000);
}

TEST(CQDTimeInterval, TickCountsHoldTheirValues)
{
    EXPECT_EQ(CQDTimeInterval::TicksPerMillisecond, 10'000);
    EXPECT_EQ(CQDTimeInterval::TicksPerSecond, 10'000'000);
    EXPECT_EQ(CQDTimeInterval::TicksPerMinute, 600'000'000);
    EXPECT_EQ(CQDTimeInterval::TicksPerHour, 36'000'000'000);
    EXPECT_EQ(CQDTimeInterval::TicksPerDay, 864'000'000'000);
    EXPECT_EQ(CQDTimeInterval::TicksPerWeek, 6'048'000'000'000);
}

TEST(CQDTimeInterval, NamedConstantsAreTheSameObjectEachTime)
{
    EXPECT_EQ(&CQDTimeInterval::Zero(), &CQDTimeInterval::Zero());
    EXPECT_EQ(&CQDTimeInterval::OneMillisecond(), &CQDTimeInterval::OneMillisecond());
    EXPECT_EQ(&CQDTimeInterval::OneSecond(), &CQDTimeInterval::OneSecond());
    EXPECT_EQ(&CQDTimeInterval::OneMinute(), &CQDTimeInterval::OneMinute());
    EXPECT_EQ(&CQDTimeInterval::OneHour(), &CQDTimeInterval::OneHour());
    EXPECT_EQ(&CQDTimeInterval::OneDay(), &CQDTimeInterval::OneDay());
    EXPECT_EQ(&CQDTimeInterval::OneWeek(), &CQDTimeInterval::OneWeek());
}

TEST(CQDTimeInterval, NamedConstantsCanBeReadAtLoadTime)
{
    EXPECT_EQ(g_OneDayAtLoad, 864'000'000'000);
}

TEST(CQDTimeInterval, SetVMTimeTakesMilliseconds)
{
    const struct
    {
        const char* m_Name;
        long long m_Milliseconds;
        long long m_Ticks;
    } cases[] = {
        {"zero", 0, 0},
        {"one", 1, 10'000},
        {"minus one", -1, -10'000},
        {"a day", 86'400'000, 864'000'000'000},
        {"the largest that fits", 922'337'203'685'477, 9'223'372'036'854'770'000},
        {"the smallest that fits", -922'337'203'685'477, -9'223'372'036'854'770'000},
    };

    for (const auto& [name, milliseconds, ticks] : cases) {
        SCOPED_TRACE(name);
        CQDTimeInterval interval(5);

        interval.SetVMTime(milliseconds);

        EXPECT_EQ(interval.GetValue(), ticks);
    }
}

TEST(CQDTimeInterval, SetVMTimeBeyond64BitsWraps)
{
    CQDTimeInterval interval;

    interval.SetVMTime(kLargest);
    EXPECT_EQ(interval.GetValue(), -10'000); // (2^63 - 1) * 10000 = 5000 * 2^64 - 10000

    interval.SetVMTime(kSmallest);
    EXPECT_EQ(interval.GetValue(), 0); // 2^63 * 10000 = 5000 * 2^64
}

TEST(CQDTimeInterval, GetIntervalStructCutsTheMagnitudeIntoUnits)
{
    const struct
    {
        const char* m_Name;
        long long m_Ticks;
        bool m_Negative;
        uint32_t m_Days, m_Hours, m_Minutes, m_Seconds, m_Milliseconds;
    } cases[] = {
        {"zero", 0, false, 0, 0, 0, 0, 0},
        {"below a millisecond", 9'999, false, 0, 0, 0, 0, 0},
        {"one millisecond", 10'000, false, 0, 0, 0, 0, 1},
        {"just below a second", 9'999'999, false, 0, 0, 0, 0, 999},
        {"one second", 10'000'000, false, 0, 0, 0, 1, 0},
        {"just below a minute", 599'999'999, false, 0, 0, 0, 59, 999},
        {"one minute", 600'000'000, false, 0, 0, 1, 0, 0},
        {"just below an hour", 35'999'999'999, false, 0, 0, 59, 59, 999},
        {"one hour", 36'000'000'000, false, 0, 1, 0, 0, 0},
        {"just below a day", 863'999'999'999, false, 0, 23, 59, 59, 999},
        {"one day", 864'000'000'000, false, 1, 0, 0, 0, 0},
        {"each unit", 1'788'645'670'000, false, 2, 1, 41, 4, 567},
        {"each unit, negative", -1'788'645'670'000, true, 2, 1, 41, 4, 567},
        {"minus one tick", -1, true, 0, 0, 0, 0, 0},
        {"largest", kLargest, false, 10675199, 2, 48, 5, 477},
        {"smallest", kSmallest, true, 10675199, 2, 48, 5, 477},
    };

    for (const auto& expected : cases) {
        SCOPED_TRACE(expected.m_Name);
        CQDTimeInterval::IntervalStruct parts;
        std::memset(&parts, 0xEE, sizeof parts);
        parts.m_Negative = !expected.m_Negative;

        CQDTimeInterval(expected.m_Ticks).GetIntervalStruct(parts);

        EXPECT_EQ(parts.m_Negative, expected.m_Negative);
        EXPECT_EQ(parts.m_Days, expected.m_Days);
        EXPECT_EQ(parts.m_Hours, expected.m_Hours);
        EXPECT_EQ(parts.m_Minutes, expected.m_Minutes);
        EXPECT_EQ(parts.m_Seconds, expected.m_Seconds);
        EXPECT_EQ(parts.m_Milliseconds, expected.m_Milliseconds);
    }
}

TEST(CQDTimeInterval, IntervalStructFieldsComeInTheirOrder)
{
    static_assert(std::is_same_v<decltype(CQDTimeInterval::IntervalStruct::m_Negative), bool> && sizeof(bool) == 1);

    const CQDTimeInterval::IntervalStruct parts = {true, 1, 2, 3, 4, 5};

    EXPECT_TRUE(parts.m_Negative);
    EXPECT_EQ(parts.m_Days, 1u);
    EXPECT_EQ(parts.m_Hours, 2u);
    EXPECT_EQ(parts.m_Minutes, 3u);
    EXPECT_EQ(parts.m_Seconds, 4u);
    EXPECT_EQ(parts.m_Milliseconds, 5u);
}

TEST(CQDTimeInterval, ToTextShowsHoursAndDaysOnlyWhenReached)
{
    const struct
    {
        const char* m_Name;
        long long m_Ticks;
        const char* m_Text;
    } cases[] = {
        {"zero", 0, "00:00.000"},
        {"half a millisecond", 5'000, "00:00.000"},
        {"minus half a millisecond", -5'000, "-00:00.000"},
        {"minus a millisecond", -10'000, "-00:00.001"},
        {"90 seconds", 900'000'000, "01:30.000"},
        {"just below an hour", 35'999'990'000, "59:59.999"},
        {"an hour", 36'000'000'000, "01:00:00.000"},
        {"2 hours 01:30", 72'900'000'000, "02:01:30.000"},
        {"minus 2 hours 01:30", -72'900'000'000, "-02:01:30.000"},
        {"just below a day", 863'999'990'000, "23:59:59.999"},
        {"a day", 864'000'000'000, "1 00:00:00.000"},
        {"3 days 4 hours", 2'736'000'000'000, "3 04:00:00.000"},
        {"minus 3 days 4 hours", -2'736'000'000'000, "-3 04:00:00.000"},
        {"a week", 6'048'000'000'000, "7 00:00:00.000"},
        {"largest", kLargest, "10675199 02:48:05.477"},
        {"smallest", kSmallest, "-10675199 02:48:05.477"},
    };

    for (const auto& [name, ticks, text] : cases) {
        SCOPED_TRACE(name);

        EXPECT_EQ(TextOf(ticks), text);
    }
}

TEST(CQDTimeInterval, ToTextStaysWithin25Bytes)
{
    char buffer[26];
    std::memset(buffer, 'x', sizeof buffer);

    EXPECT_EQ(CQDTimeInterval(kSmallest).ToText(buffer), 22);

    EXPECT_EQ(buffer[22], '\0');
    EXPECT_EQ(buffer[25], 'x');
}

} // namespace
