// Every zone of the system's database at every transition, beside two references: a small reader of its own, which
// takes the file as it is, and the C library, as far as the two mean the same. The C library also applies the rule in a
// file's footer, so from the last transition on only the reader counts; before the first one, too.
#include <QDPlatform/QDTimeZone.h>

#include <gtest/gtest.h>

#include <time.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

namespace
{

constexpr long long kSecond = 10'000'000;
constexpr long long kUnixEpoch = 116444736000000000;
constexpr long long kStartOf1601 = -11'644'473'600; // seconds since 1970
constexpr long long kLargest = 0x7FFFFFFFFFFFFFFF;
constexpr char kZoneFolder[] = "/usr/share/zoneinfo";

// A zone as the bytes of its file say, looked up from the front.
class PlainZone
{
public:
    // bytes: a correct file.
    explicit PlainZone(const std::string& bytes) : m_Bytes(bytes)
    {
        std::size_t header = 0;
        std::size_t timeSize = 4;
        if (bytes[4] != '\0') {
            header = 44 + GetCount(32) * 5 + GetCount(36) * 6 + GetCount(40) + GetCount(28) * 8 + GetCount(24) +
                     GetCount(20);
            timeSize = 8;
        }
        const std::size_t timeCount = GetCount(header + 32);
        const std::size_t indices = header + 44 + timeCount * timeSize;
        const std::size_t types = indices + timeCount;
        for (std::size_t i = 0; i < timeCount; ++i) {
            m_Times.push_back(GetNumber(header + 44 + i * timeSize, timeSize));
            m_Offsets.push_back(GetNumber(types + 6 * static_cast<unsigned char>(bytes[indices + i]), 4));
        }
        m_FirstOffset = GetNumber(types, 4);
    }

    const std::vector<long long>& GetTimes() const { return m_Times; }

    // Seconds east of UTC at a time. tick: 0, or -1 for the tick before.
    long long GetOffset(long long seconds, long long tick = 0) const
    {
        long long offset = m_FirstOffset;
        for (std::size_t i = 0; i < m_Times.size() && m_Times[i] <= seconds - (tick < 0); ++i)
            offset = m_Offsets[i];
        return offset;
    }

private:
    std::size_t GetCount(std::size_t position) const { return static_cast<std::size_t>(GetNumber(position, 4)); }

    long long GetNumber(std::size_t position, std::size_t size) const
    {
        unsigned long long number = static_cast<unsigned char>(m_Bytes[position]) >= 0x80 ? ~0ULL : 0;
        for (std::size_t i = 0; i < size; ++i)
            number = number << 8 | static_cast<unsigned char>(m_Bytes[position + i]);
        return static_cast<long long>(number);
    }

    std::string m_Bytes;
    std::vector<long long> m_Times;   // seconds since 1970
    std::vector<long long> m_Offsets; // from each of these times on
    long long m_FirstOffset;
};

// The names of all zones, those with leap seconds ("right/") included.
std::vector<std::string> GetZoneNames()
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(kZoneFolder)) {
        char magic[4] = {};
        if (entry.is_regular_file() && std::ifstream(entry.path(), std::ios::binary).read(magic, sizeof magic) &&
            std::memcmp(magic, "TZif", sizeof magic) == 0)
            names.push_back(entry.path().string().substr(sizeof kZoneFolder));
    }
    return names;
}

std::string ReadFile(const std::string& name)
{
    std::ifstream file(std::string(kZoneFolder) + "/" + name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// A time before 1601 gives 0, as in the class.
long long Ticks(long long seconds)
{
    return kUnixEpoch + std::max(seconds, kStartOf1601) * kSecond;
}

void ExpectOffset(const CQDTimeZone& zone, long long ticks, long long offset)
{
    ASSERT_EQ(zone.GetAdjustmentForTimestamp(ticks), offset * kSecond) << ticks;
    ASSERT_EQ(zone.ToLocalTime(ticks), std::max(ticks + offset * kSecond, 0LL)) << ticks;
    ASSERT_EQ(zone.ToUTC(ticks), std::max(ticks - offset * kSecond, 0LL)) << ticks;
}

void ExpectEqualsPlainZone(const CQDTimeZone& zone, const PlainZone& plain)
{
    const std::vector<long long>& times = plain.GetTimes();
    ASSERT_EQ(zone.GetTransitionCount(), times.size());
    ExpectOffset(zone, 0, plain.GetOffset(kStartOf1601));
    for (std::size_t i = 0; i < times.size(); ++i) {
        const long long ticks = Ticks(times[i]);
        ASSERT_EQ(zone.GetTransitionTime(static_cast<unsigned int>(i)), ticks);
        ExpectOffset(zone, ticks - 1, plain.GetOffset(times[i], -1));
        ExpectOffset(zone, ticks, plain.GetOffset(times[i]));
        if (i + 1 == times.size())
            break;
        const long long between = times[i] + (times[i + 1] - times[i]) / 2;
        ExpectOffset(zone, Ticks(between), plain.GetOffset(between));
        const auto index = static_cast<int>(i);
        ASSERT_EQ(zone.FindTransitionIndexForTimestamp(ticks), index);
        ASSERT_EQ(zone.FindTransitionIndexForTimestamp(Ticks(between)), index);
        ASSERT_EQ(zone.FindTransitionIndexForTimestamp(Ticks(times[i + 1]) - 1), index);
    }
    constexpr long long kStartOf2500 = 16'725'225'600;
    ExpectOffset(zone, Ticks(kStartOf2500), plain.GetOffset(kStartOf2500));
    ASSERT_EQ(zone.GetAdjustmentForTimestamp(kLargest), plain.GetOffset(kStartOf2500) * kSecond);
}

long long GetOffsetOfCLibrary(long long seconds)
{
    const time_t time = static_cast<time_t>(std::max(seconds, kStartOf1601)); // as in Ticks()
    tm fields = {};
    EXPECT_NE(::localtime_r(&time, &fields), nullptr);
    return fields.tm_gmtoff;
}

void ExpectEqualsCLibrary(const CQDTimeZone& zone, const std::string& name, const std::vector<long long>& times)
{
    ASSERT_EQ(::setenv("TZ", (":" + name).c_str(), 1), 0);
    ::tzset();
    for (std::size_t i = 0; i + 1 < times.size(); ++i) {
        for (const long long seconds : {times[i], times[i] + (times[i + 1] - times[i]) / 2, times[i + 1] - 1})
            ASSERT_EQ(zone.GetAdjustmentForTimestamp(Ticks(seconds)), GetOffsetOfCLibrary(seconds) * kSecond)
                << seconds;
    }
}

// Puts TZ back when it goes.
class EnvironmentZoneGuard
{
public:
    EnvironmentZoneGuard()
    {
        if (const char* value = std::getenv("TZ"))
            m_Value = value;
    }

    EnvironmentZoneGuard(const EnvironmentZoneGuard&) = delete;
    EnvironmentZoneGuard& operator=(const EnvironmentZoneGuard&) = delete;

    ~EnvironmentZoneGuard()
    {
        if (m_Value)
            ::setenv("TZ", m_Value->c_str(), 1);
        else
            ::unsetenv("TZ");
        ::tzset();
    }

private:
    std::optional<std::string> m_Value;
};

TEST(CQDTimeZone, EveryZoneIsLoadedAndHasItsName)
{
    const std::vector<std::string> names = GetZoneNames();
    EXPECT_GT(names.size(), 300u) << "package tzdata is missing";
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        CQDTimeZone zone;

        const bool isLoaded = zone.UseSpecifiedTimeZone(name);

        ASSERT_TRUE(isLoaded) << zone.GetReadStatus();
        ASSERT_EQ(zone.GetIANAName(), name);
    }
}

TEST(CQDTimeZone, EveryTransitionOfEveryZoneIsThatOfTheFile)
{
    std::size_t transitionCount = 0;
    for (const std::string& name : GetZoneNames()) {
        SCOPED_TRACE(name);
        const PlainZone plain(ReadFile(name));
        CQDTimeZone zone;
        ASSERT_TRUE(zone.UseSpecifiedTimeZone(name));

        ASSERT_NO_FATAL_FAILURE(ExpectEqualsPlainZone(zone, plain));

        transitionCount += plain.GetTimes().size();
    }
    EXPECT_GT(transitionCount, 10'000u);
}

TEST(CQDTimeZone, EveryTransitionOfEveryZoneIsThatOfTheCLibrary)
{
    const EnvironmentZoneGuard guard;
    for (const std::string& name : GetZoneNames()) {
        SCOPED_TRACE(name);
        const PlainZone plain(ReadFile(name));
        CQDTimeZone zone;
        ASSERT_TRUE(zone.UseSpecifiedTimeZone(name));

        ASSERT_NO_FATAL_FAILURE(ExpectEqualsCLibrary(zone, name, plain.GetTimes()));
    }
}

TEST(CQDTimeZone, TheEnvironmentsZonePlaysNoPart)
{
    const EnvironmentZoneGuard guard;
    CQDTimeZone zone;
    ASSERT_TRUE(zone.UseSpecifiedTimeZone("Europe/Berlin"));
    ::setenv("TZ", "Asia/Tokyo", 1);
    ::tzset();

    EXPECT_EQ(zone.GetAdjustmentForTimestamp(Ticks(1'593'561'600)), 7200 * kSecond); // 2020-07-01
    EXPECT_TRUE(zone.UseSpecifiedTimeZone("Europe/Berlin"));
    EXPECT_EQ(zone.GetAdjustmentForTimestamp(Ticks(1'593'561'600)), 7200 * kSecond);
}

} // namespace
