// The conversions to and from POSIX time in a caller that was compiled otherwise than the library. The file is compiled
// twice into one program: with 64-bit time on every system, as the library is, and with QD_TEST_SYSTEM_TIME, as users
// compile who define nothing. On 32-bit systems the second has 32-bit times.
#include <QDPlatform/QDTimestamp.h>

#include <gtest/gtest.h>

#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#ifdef QD_TEST_SYSTEM_TIME
#define QD_TEST_SUITE CQDTimestampInACallerWithSystemTime
#else
#define QD_TEST_SUITE CQDTimestampInACallerWith64BitTime
#endif

namespace
{

constexpr bool kHas32BitTime = sizeof(time_t) == 4;

constexpr long long k2001 = 126444736000000000;       // 1,000,000,000 s after 1970
constexpr long long k2038 = 137919572470000000;       // 2038-01-19 03:14:07, the last second of 32-bit times
constexpr long long k2040 = 138534624000000000;       // 2040-01-01: 2,208,988,800 s after 1970
constexpr long long k1901 = 94969899520000000;        // 1901-12-13 20:45:52, the first second of 32-bit times
constexpr long long kBefore1970 = 116444735985000000; // 1.5 s before
constexpr long long kSecond = 10000000;

// What a conversion fills, between two fields that a write beyond its size would change.
template<class Value>
struct Fenced
{
    static constexpr unsigned int kFence = 0xA5A5A5A5;

    bool IsWhole() const { return m_Before == kFence && m_After == kFence && m_AfterThat == kFence; }

    alignas(16) unsigned int m_Before{kFence};
    Value m_Value{};
    unsigned int m_After{kFence};
    unsigned int m_AfterThat{kFence};
};

struct Case
{
    const char* m_Name;
    long long m_Ticks;
    long long m_Seconds;
    long m_Fraction; // ticks below the second
};

// With 32-bit times the last three become the nearest that these can hold.
constexpr Case kCases[] = {
    {"1970", 116444736000000000, 0, 0},
    {"2001 and a fraction", k2001 + 1234567, 1000000000, 1234567},
    {"before 1970", kBefore1970, -1, -5000000},
    {"the last tick of 32-bit times", k2038 + 9999999, 2147483647, 9999999},
    {"one tick further", k2038 + kSecond, kHas32BitTime ? 2147483647 : 2147483648, kHas32BitTime ? 9999999 : 0},
    {"2040", k2040 + 5000000, kHas32BitTime ? 2147483647 : 2208988800, kHas32BitTime ? 9999999 : 5000000},
    {"a second before 32-bit times", k1901 - kSecond - 5, kHas32BitTime ? -2147483648 : -2147483649,
     kHas32BitTime ? -9999999 : -5},
};

} // namespace

TEST(QD_TEST_SUITE, HasTheSizeOfTimeThatThisTestIsFor)
{
#ifdef QD_TEST_SYSTEM_TIME
    EXPECT_EQ(sizeof(time_t), sizeof(long));
#else
    EXPECT_EQ(sizeof(time_t), 8u);
#endif
}

TEST(QD_TEST_SUITE, GetAsTimespecFillsTheCallersStructure)
{
    for (const Case& c : kCases) {
        SCOPED_TRACE(c.m_Name);
        Fenced<timespec> ts;

        CQDTimestamp(c.m_Ticks).GetAsTimespec(ts.m_Value);

        EXPECT_EQ(ts.m_Value.tv_sec, c.m_Seconds);
        EXPECT_EQ(ts.m_Value.tv_nsec, c.m_Fraction * 100);
        EXPECT_TRUE(ts.IsWhole());
    }
}

TEST(QD_TEST_SUITE, GetAsTimevalFillsTheCallersStructure)
{
    for (const Case& c : kCases) {
        SCOPED_TRACE(c.m_Name);
        Fenced<timeval> tv;

        CQDTimestamp(c.m_Ticks).GetAsTimeval(tv.m_Value);

        EXPECT_EQ(tv.m_Value.tv_sec, c.m_Seconds);
        EXPECT_EQ(tv.m_Value.tv_usec, c.m_Fraction / 10);
        EXPECT_TRUE(tv.IsWhole());
    }
}

TEST(QD_TEST_SUITE, SetFromTimespecReadsTheCallersStructure)
{
    timespec ts{};
    ts.tv_sec = 2147483647;
    ts.tv_nsec = 999999999;
    CQDTimestamp timestamp;

    timestamp.SetFromTimespec(ts);
    EXPECT_EQ(timestamp.GetValue(), k2038 + 9999999);

    if (!kHas32BitTime) {
        ts.tv_sec = static_cast<time_t>(2208988800);
        ts.tv_nsec = 500000000;
        timestamp.SetFromTimespec(ts);
        EXPECT_EQ(timestamp.GetValue(), k2040 + 5000000);
    }
}

TEST(QD_TEST_SUITE, SetFromTimevalReadsTheCallersStructure)
{
    timeval tv{};
    tv.tv_sec = -1;
    tv.tv_usec = -500000;
    CQDTimestamp timestamp;

    timestamp.SetFromTimeval(tv);
    EXPECT_EQ(timestamp.GetValue(), kBefore1970);

    if (!kHas32BitTime) {
        tv.tv_sec = static_cast<time_t>(2208988800);
        tv.tv_usec = 500000;
        timestamp.SetFromTimeval(tv);
        EXPECT_EQ(timestamp.GetValue(), k2040 + 5000000);
    }
}

TEST(QD_TEST_SUITE, TheSystemsClockGivesTheCurrentTime)
{
    const CQDTimestamp before = CQDTimestamp::UTCNow();
    timespec ts;
    ASSERT_EQ(::clock_gettime(CLOCK_REALTIME, &ts), 0);
    CQDTimestamp now;

    now.SetFromTimespec(ts);

    EXPECT_GE(now, before);
    EXPECT_LE(now, CQDTimestamp::UTCNow());
}

TEST(QD_TEST_SUITE, SelectTimeoutFillsTheCallersStructure)
{
    const struct
    {
        const char* m_Name;
        long long m_Now, m_Deadline;
        long long m_Seconds;
        long m_Microseconds;
    } cases[] = {
        {"a tick", k2040, k2040 + 1, 0, 1},
        {"over the end of 32-bit times", k2038 - 5 * kSecond, k2040, 61505158, 0},
        {"behind it", k2040, k2040 + 25000010, 2, 500001},
        {"passed", k2040, k2038, 0, 0},
        {"more than 32 bits of seconds", 0, k2001 + 10, kHas32BitTime ? 2147483647 : 12644473600,
         kHas32BitTime ? 0 : 1},
    };

    for (const auto& [name, now, deadline, seconds, microseconds] : cases) {
        SCOPED_TRACE(name);
        Fenced<timeval> tv;

        EXPECT_EQ(CQDTimestamp(now).GetSelectTimeout(deadline, tv.m_Value), &tv.m_Value);

        EXPECT_EQ(tv.m_Value.tv_sec, seconds);
        EXPECT_EQ(tv.m_Value.tv_usec, microseconds);
        EXPECT_TRUE(tv.IsWhole());
    }
}

TEST(QD_TEST_SUITE, SelectTimeoutForNeverIsNullAndTouchesNothing)
{
    timeval tv{};
    tv.tv_sec = 42;
    tv.tv_usec = 43;

    EXPECT_EQ(CQDTimestamp(k2040).GetSelectTimeout(CQDTimestamp::Never.GetValue(), tv), nullptr);

    EXPECT_EQ(tv.tv_sec, 42);
    EXPECT_EQ(tv.tv_usec, 43);
}

TEST(QD_TEST_SUITE, TheCallersSelectWaitsForTheTimeout)
{
    const CQDTimestamp start = CQDTimestamp::UTCNow();
    CQDTimestamp deadline = start;
    deadline.AddMilliseonds(40);
    timeval tv;

    EXPECT_EQ(::select(0, nullptr, nullptr, nullptr, start.GetSelectTimeout(deadline.GetValue(), tv)), 0)
        << std::strerror(errno);

    EXPECT_GE(CQDTimestamp::UTCNow(), deadline);
}
