// Time zones beside abseil, Howard Hinnant's date library, GLib and the C library. Prints tables for
// docs/benchmarks.md.
//
// The first table is the operation that CQDTimeZone offers, UTC to local time as a count; each peer takes its shortest
// way to it. The second goes on to the fields of local time: ours fills all ten fields of
// CQDTimestamp::TimestampStruct, the peers fewer. Every library gets the moments in its own form: ours ticks, abseil
// absl::Time, the others seconds since 1970. The moments lie between 1970 and 2037, where all of them look a transition
// up. Before anything is measured, all must agree on every local time of the first table; the fields are not compared.
#include "support/PairedRounds.h"

#include <QDPlatform/QDTimeZone.h>
#include <QDPlatform/QDTimestamp.h>

#include <absl/time/time.h>
#include <date/date.h>
#include <date/tz.h>
#include <glib.h>

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace
{

constexpr long long kUnixEpochTicks = 116444736000000000;
constexpr long long kTicksPerSecond = 10'000'000;
constexpr long long kStartOf2037 = 2'114'380'800;
constexpr long long kStartOfLog = 1'709'251'200; // 2024-03-01, before the change to summer time
constexpr char kOneZone[] = "America/New_York";
// So many that the processor cannot learn the answers by heart.
constexpr std::size_t kMomentCount = 16'384;
constexpr int kRounds = 101;
constexpr double kSecondsPerMeasurement = 0.002;

// One zone, as each library has it.
struct Zone
{
    explicit Zone(const std::string& name) :
        m_pDate(date::locate_zone(name)), m_pGLib(g_time_zone_new_identifier(name.c_str()))
    {
        if (!m_Ours.UseSpecifiedTimeZone(name) || !absl::LoadTimeZone(name, &m_Abseil) || m_pGLib == nullptr) {
            std::fprintf(stderr, "%s cannot be loaded\n", name.c_str());
            std::exit(1);
        }
    }

    CQDTimeZone m_Ours;
    absl::TimeZone m_Abseil;
    const date::time_zone* m_pDate;
    GTimeZone* m_pGLib; // for the life of the process
};

struct Moment
{
    const Zone* m_pZone;
    long long m_Ticks;
    absl::Time m_Time;
    long long m_Seconds;
};

using Moments = std::vector<Moment>;

struct LocalFields
{
    int m_Year, m_Month, m_Day, m_Hour, m_Minute, m_Second;
};

long long GetLocalWithQDPlatform(const Moment& moment)
{
    return moment.m_pZone->m_Ours.ToLocalTime(moment.m_Ticks);
}

long long GetLocalWithAbseil(const Moment& moment)
{
    return moment.m_Seconds + moment.m_pZone->m_Abseil.At(moment.m_Time).offset;
}

long long GetLocalWithDateLibrary(const Moment& moment)
{
    const date::sys_seconds seconds{std::chrono::seconds(moment.m_Seconds)};
    return moment.m_pZone->m_pDate->to_local(seconds).time_since_epoch().count();
}

long long GetLocalWithGLib(const Moment& moment)
{
    GTimeZone* zone = moment.m_pZone->m_pGLib;
    const int interval = g_time_zone_find_interval(zone, G_TIME_TYPE_UNIVERSAL, moment.m_Seconds);
    return moment.m_Seconds + g_time_zone_get_offset(zone, interval);
}

// In the zone that TZ names.
long long GetLocalWithCLibrary(const Moment& moment)
{
    const time_t seconds = moment.m_Seconds;
    tm fields;
    ::localtime_r(&seconds, &fields);
    return moment.m_Seconds + fields.tm_gmtoff;
}

CQDTimestamp::TimestampStruct GetFieldsWithQDPlatform(const Moment& moment)
{
    CQDTimestamp::TimestampStruct fields;
    CQDTimestamp::GetTimestampStruct(moment.m_pZone->m_Ours.ToLocalTime(moment.m_Ticks), fields);
    return fields;
}

absl::CivilSecond GetFieldsWithAbseil(const Moment& moment)
{
    return moment.m_pZone->m_Abseil.At(moment.m_Time).cs;
}

LocalFields GetFieldsWithDateLibrary(const Moment& moment)
{
    const date::sys_seconds seconds{std::chrono::seconds(moment.m_Seconds)};
    const date::local_seconds local = moment.m_pZone->m_pDate->to_local(seconds);
    const auto day = date::floor<date::days>(local);
    const date::year_month_day ymd(day);
    const date::hh_mm_ss<std::chrono::seconds> hms(local - day);
    return {static_cast<int>(ymd.year()),
            static_cast<int>(static_cast<unsigned int>(ymd.month())),
            static_cast<int>(static_cast<unsigned int>(ymd.day())),
            static_cast<int>(hms.hours().count()),
            static_cast<int>(hms.minutes().count()),
            static_cast<int>(hms.seconds().count())};
}

LocalFields GetFieldsWithGLib(const Moment& moment)
{
    GDateTime* utc = g_date_time_new_from_unix_utc(moment.m_Seconds);
    GDateTime* local = g_date_time_to_timezone(utc, moment.m_pZone->m_pGLib);
    LocalFields fields;
    g_date_time_get_ymd(local, &fields.m_Year, &fields.m_Month, &fields.m_Day);
    fields.m_Hour = g_date_time_get_hour(local);
    fields.m_Minute = g_date_time_get_minute(local);
    fields.m_Second = g_date_time_get_second(local);
    g_date_time_unref(local);
    g_date_time_unref(utc);
    return fields;
}

// In the zone that TZ names.
tm GetFieldsWithCLibrary(const Moment& moment)
{
    const time_t seconds = moment.m_Seconds;
    tm fields;
    ::localtime_r(&seconds, &fields);
    return fields;
}

Moment MakeMoment(const Zone& zone, long long seconds)
{
    return {&zone, kUnixEpochTicks + seconds * kTicksPerSecond, absl::FromUnixSeconds(seconds), seconds};
}

Moments MakeRandomMoments(const std::vector<Zone>& zones)
{
    std::mt19937_64 random(20200304);
    std::uniform_int_distribution<long long> seconds(0, kStartOf2037 - 1);
    std::uniform_int_distribution<std::size_t> zone(0, zones.size() - 1);
    Moments moments;
    for (std::size_t i = 0; i < kMomentCount; ++i)
        moments.push_back(MakeMoment(zones[zone(random)], seconds(random)));
    return moments;
}

// Ascending, ten minutes apart on average: about four months, with one transition.
Moments MakeLogMoments(const Zone& zone)
{
    std::mt19937_64 random(20200304);
    std::uniform_int_distribution<long long> step(0, 1200);
    Moments moments;
    long long seconds = kStartOfLog;
    for (std::size_t i = 0; i < kMomentCount; ++i)
        moments.push_back(MakeMoment(zone, seconds += step(random)));
    return moments;
}

// The names in the database's own list of the zones that differ since 1970.
std::vector<Zone> LoadAllZones()
{
    std::vector<Zone> zones;
    FILE* list = std::fopen("/usr/share/zoneinfo/zone1970.tab", "r");
    if (list == nullptr) {
        std::perror("/usr/share/zoneinfo/zone1970.tab");
        std::exit(1);
    }
    char line[512];
    char name[128];
    while (std::fgets(line, sizeof line, list) != nullptr) {
        if (line[0] != '#' && std::sscanf(line, "%*s %*s %127s", name) == 1)
            zones.emplace_back(name);
    }
    std::fclose(list);
    return zones;
}

bool UsesOneZone(const Moments& moments)
{
    return std::all_of(moments.begin(), moments.end(),
                       [&moments](const Moment& moment) { return moment.m_pZone == moments.front().m_pZone; });
}

void RequireAgreement(const Moments& moments)
{
    const bool usesOneZone = UsesOneZone(moments);
    for (const Moment& moment : moments) {
        const long long local = (GetLocalWithQDPlatform(moment) - kUnixEpochTicks) / kTicksPerSecond;
        if (GetLocalWithAbseil(moment) != local || GetLocalWithDateLibrary(moment) != local ||
            GetLocalWithGLib(moment) != local || (usesOneZone && GetLocalWithCLibrary(moment) != local)) {
            std::fprintf(stderr, "no agreement on %s at %lld\n", moment.m_pZone->m_pDate->name().c_str(),
                         moment.m_Seconds);
            std::exit(1);
        }
    }
}

template<class Work>
auto ForEach(const Moments& moments, Work work)
{
    return [&moments, work] {
        for (const Moment& moment : moments)
            KeepResult(work(moment));
    };
}

template<class Ours, class Peer>
void PrintRow(const char* name, const char* peerName, const char* target, const Moments& moments, Ours ours, Peer peer)
{
    const PairedResult result =
        MeasurePaired(ForEach(moments, ours), ForEach(moments, peer), kRounds, kSecondsPerMeasurement);
    constexpr double kNanoseconds = 1e9 / static_cast<double>(kMomentCount);
    std::printf("| %s | %s | %.1f | %.1f | %.3f | %s |\n", name, peerName, result.m_OursSeconds * kNanoseconds,
                result.m_PeerSeconds * kNanoseconds, result.m_Ratio, target);
    std::fflush(stdout);
}

void PrintLocalRows(const char* name, const Moments& moments)
{
    PrintRow(name, "abseil", "0.50", moments, GetLocalWithQDPlatform, GetLocalWithAbseil);
    PrintRow(name, "date library", "0.50", moments, GetLocalWithQDPlatform, GetLocalWithDateLibrary);
    PrintRow(name, "GLib", "0.50", moments, GetLocalWithQDPlatform, GetLocalWithGLib);
    if (UsesOneZone(moments))
        PrintRow(name, "localtime_r", "0.50", moments, GetLocalWithQDPlatform, GetLocalWithCLibrary);
}

void PrintFieldsRows(const char* name, const Moments& moments)
{
    PrintRow(name, "abseil", "none", moments, GetFieldsWithQDPlatform, GetFieldsWithAbseil);
    PrintRow(name, "date library", "none", moments, GetFieldsWithQDPlatform, GetFieldsWithDateLibrary);
    PrintRow(name, "GLib", "none", moments, GetFieldsWithQDPlatform, GetFieldsWithGLib);
    if (UsesOneZone(moments))
        PrintRow(name, "localtime_r", "none", moments, GetFieldsWithQDPlatform, GetFieldsWithCLibrary);
}

} // namespace

int main()
{
    ::setenv("TZ", kOneZone, 1);
    ::tzset();
    std::vector<Zone> oneZone;
    oneZone.emplace_back(kOneZone);
    const std::vector<Zone> allZones = LoadAllZones();

    const struct
    {
        const char* m_Name;
        Moments m_Moments;
    } cases[] = {{"one zone, at random", MakeRandomMoments(oneZone)},
                 {"one zone, in log order", MakeLogMoments(oneZone.front())},
                 {"all zones, at random", MakeRandomMoments(allZones)}};

    for (const auto& c : cases)
        RequireAgreement(c.m_Moments);

    std::printf("## Time zones\n\n");
    std::printf("%zu moments of 1970 to 2036 in %s, or each in one of %zu zones; medians of %d paired rounds. "
                "The C library has one zone for the whole process.\n",
                kMomentCount, kOneZone, allZones.size(), kRounds);
    std::printf("\n### UTC to local time\n\n");
    std::printf("| moments | peer | ours, ns | peer, ns | ratio | target |\n|---|---|---:|---:|---:|---:|\n");
    for (const auto& c : cases)
        PrintLocalRows(c.m_Name, c.m_Moments);
    std::printf("\n### UTC to the fields of local time\n\n");
    std::printf("| moments | peer | ours, ns | peer, ns | ratio | target |\n|---|---|---:|---:|---:|---:|\n");
    for (const auto& c : cases)
        PrintFieldsRows(c.m_Name, c.m_Moments);
    return 0;
}
