// Timestamps beside the C library and Howard Hinnant's date library: text, parsing and calendar fields of random
// moments between 1970 and 2100. Prints a table for docs/benchmarks.md.
#include "support/PairedRounds.h"

#include <QDPlatform/QDTimestamp.h>

#include <date/date.h>

#include <time.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace
{

constexpr long long kUnixEpochTicks = 116444736000000000;
constexpr long long kTicksPerSecond = 10'000'000;
constexpr std::size_t kTimestampCount = 1024;
// Short and many: a round that another process interrupts is one of the outliers that the median leaves out.
constexpr int kRounds = 501;
constexpr double kSecondsPerMeasurement = 0.001;

using Ticks = std::chrono::duration<int64_t, std::ratio<1, kTicksPerSecond>>;

std::vector<long long> MakeRandomTicks()
{
    constexpr long long kSecondsUpTo2100 = 4'102'444'800;
    std::mt19937_64 random(20200304);
    std::uniform_int_distribution<long long> distribution(0, kSecondsUpTo2100 * kTicksPerSecond - 1);
    std::vector<long long> ticks(kTimestampCount);
    for (long long& value : ticks)
        value = kUnixEpochTicks + distribution(random);
    return ticks;
}

std::vector<std::string> MakeTexts(const std::vector<long long>& ticks)
{
    std::vector<std::string> texts;
    for (const long long value : ticks) {
        char buffer[24];
        CQDTimestamp(value).ToText(buffer, ' ');
        texts.emplace_back(buffer);
    }
    return texts;
}

// A function that runs `work` on each element.
template<class Element, class Work>
auto ForEach(const std::vector<Element>& elements, Work work)
{
    return [&elements, work] {
        for (const Element& element : elements)
            work(element);
    };
}

void ToTextWithQDPlatform(long long ticks)
{
    char buffer[24];
    CQDTimestamp(ticks).ToText(buffer, ' ');
    KeepResult(buffer);
}

void ToTextWithCLibrary(long long ticks)
{
    const long long sinceEpoch = ticks - kUnixEpochTicks;
    const auto seconds = static_cast<time_t>(sinceEpoch / kTicksPerSecond);
    const auto milliseconds = static_cast<unsigned int>(sinceEpoch % kTicksPerSecond / 10'000);
    tm fields;
    ::gmtime_r(&seconds, &fields);
    char buffer[32];
    const std::size_t length = std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &fields);
    std::snprintf(buffer + length, sizeof buffer - length, ".%03u", milliseconds);
    KeepResult(buffer);
}

void ParseWithQDPlatform(const std::string& text)
{
    CQDTimestamp timestamp;
    timestamp.ParseString(text);
    KeepResult(timestamp);
}

void ParseWithStrptime(const std::string& text)
{
    tm fields = {};
    KeepResult(::strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &fields));
    KeepResult(fields);
}

// The whole way to ticks, the fraction included.
void ParseWithStrptimeAndTimegm(const std::string& text)
{
    tm fields = {};
    const char* fraction = ::strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &fields);
    const long milliseconds = std::strtol(fraction + 1, nullptr, 10);
    const long long ticks = ::timegm(&fields) * kTicksPerSecond + milliseconds * 10'000 + kUnixEpochTicks;
    KeepResult(ticks);
}

void CutWithQDPlatform(long long ticks)
{
    CQDTimestamp::TimestampStruct fields;
    CQDTimestamp::GetTimestampStruct(ticks, fields);
    KeepResult(fields);
}

// The same ten fields.
void CutWithDateLibrary(long long ticks)
{
    const date::sys_time<Ticks> time(Ticks(ticks - kUnixEpochTicks));
    const auto day = date::floor<date::days>(time);
    const date::year_month_day ymd(day);
    const auto sinceMidnight = date::floor<std::chrono::milliseconds>(time - day);
    const date::hh_mm_ss<std::chrono::milliseconds> hms(sinceMidnight);
    const date::sys_days firstOfYear(ymd.year() / date::January / 1);

    CQDTimestamp::TimestampStruct fields;
    fields.m_Year = static_cast<uint32_t>(static_cast<int>(ymd.year()));
    fields.m_Month = static_cast<unsigned int>(ymd.month());
    fields.m_Day = static_cast<unsigned int>(ymd.day());
    fields.m_DayOfYear = static_cast<uint32_t>((day - firstOfYear).count());
    fields.m_DayOfWeek = date::weekday(day).c_encoding();
    fields.m_Hour = static_cast<uint32_t>(hms.hours().count());
    fields.m_Minute = static_cast<uint32_t>(hms.minutes().count());
    fields.m_Second = static_cast<uint32_t>(hms.seconds().count());
    fields.m_Millisecond = static_cast<uint32_t>(hms.subseconds().count());
    fields.m_MillisecondsSinceMidnight = static_cast<uint32_t>(sinceMidnight.count());
    KeepResult(fields);
}

template<class Ours, class Peer>
void PrintRow(const char* name, const char* peerName, const char* target, Ours ours, Peer peer)
{
    const PairedResult result = MeasurePaired(ours, peer, kRounds, kSecondsPerMeasurement);
    constexpr double kNanoseconds = 1e9 / static_cast<double>(kTimestampCount);
    std::printf("| %s | %s | %.1f | %.1f | %.3f | %s |\n", name, peerName, result.m_OursSeconds * kNanoseconds,
                result.m_PeerSeconds * kNanoseconds, result.m_Ratio, target);
    std::fflush(stdout);
}

} // namespace

int main()
{
    const std::vector<long long> ticks = MakeRandomTicks();
    const std::vector<std::string> texts = MakeTexts(ticks);
    const std::vector<std::string> sameTexts(kTimestampCount, "2020-03-04 05:06:07.123");

    std::printf("## Timestamps\n\n");
    std::printf("%zu random moments of 1970 to 2100; medians of %d paired rounds.\n\n", kTimestampCount, kRounds);
    std::printf("| operation | peer | ours, ns | peer, ns | ratio | target |\n");
    std::printf("|---|---|---:|---:|---:|---:|\n");
    PrintRow("ToText", "gmtime_r + strftime + snprintf", "0.12", ForEach(ticks, ToTextWithQDPlatform),
             ForEach(ticks, ToTextWithCLibrary));
    PrintRow("ParseString, one text", "strptime", "0.35", ForEach(sameTexts, ParseWithQDPlatform),
             ForEach(sameTexts, ParseWithStrptime));
    PrintRow("ParseString", "strptime", "0.35", ForEach(texts, ParseWithQDPlatform), ForEach(texts, ParseWithStrptime));
    PrintRow("ParseString", "strptime + timegm + strtol", "none", ForEach(texts, ParseWithQDPlatform),
             ForEach(texts, ParseWithStrptimeAndTimegm));
    PrintRow("GetTimestampStruct", "date library", "1.00", ForEach(ticks, CutWithQDPlatform),
             ForEach(ticks, CutWithDateLibrary));
    return 0;
}
