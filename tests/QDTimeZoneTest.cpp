// Zone files made for each test.
#include <QDPlatform/QDTimeZone.h>

#include <QDPlatform/CTextOutput.h>
#include <QDPlatform/QDTimestamp.h>

#include "AllocationCounter.h"
#include "FaultPlan.h"
#include "ZoneFile.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace
{

constexpr long long kSecond = 10'000'000;
constexpr long long kHour = 3600 * kSecond;
constexpr long long kUnixEpoch = 116444736000000000;
constexpr long long kLargest = 0x7FFFFFFFFFFFFFFF;

long long Unix(long long seconds)
{
    return kUnixEpoch + seconds * kSecond;
}

// A writer whose text the tests look at.
class TextCollector : public CTextOutput
{
public:
    TextCollector() { SetLineTermination(LineTerminationLF); }

    bool WriteCodePoint(int codePoint) override
    {
        m_Text += static_cast<char>(codePoint);
        return true;
    }

    std::string m_Text;
};

std::string Dump(const CQDTimeZone& zone)
{
    TextCollector out;
    zone.DumpTimeZone(out);
    return out.m_Text;
}

const char* const kEmptyDump = "IANAName: \n0 Transitions:\nLeap Seconds: 0\nStandard/Wall [  ]\nUT/Local [  ]\n";

bool Load(CQDTimeZone& zone, const std::string& bytes)
{
    const ZoneFile file(bytes);
    return zone.UseSpecifiedTimeZone(file.GetZoneName());
}

// One type of local time, +1:00, called A, and `times` that lead to it.
ZoneBlock MakeOneTypeBlock(const std::vector<long long>& times = {})
{
    ZoneBlock block;
    block.m_Times = times;
    block.m_TypeIndices.assign(times.size(), '\0');
    block.m_Types = {{3600, 0, 0}};
    block.m_Designations.assign("A", 2);
    return block;
}

// Local mean time of +0:10 until 1000, then standard time of +1:00 and summer time of +2:00 in turn.
ZoneBlock MakeSummerTimeBlock()
{
    ZoneBlock block;
    block.m_Times = {1000, 100'000, 200'000, 300'000};
    block.m_TypeIndices.assign("\1\2\1\2", 4);
    block.m_Types = {{600, 0, 0}, {3600, 0, 4}, {7200, 1, 8}};
    block.m_Designations.assign("LMT\0STD\0DST", 12);
    return block;
}

// All counts differ, so that none can be taken for another.
ZoneBlock MakeFullBlock()
{
    ZoneBlock block = MakeSummerTimeBlock();
    block.m_Leaps = {{78'796'800, 1}, {94'694'401, 2}};
    block.m_StandardWall.assign("\1\0\1\0\1", 5);
    block.m_UtLocal.assign("\0\1\0\0\1\1\0", 7);
    return block;
}

const char* const kFullDump = "4 Transitions:\n"
                              "1970-01-01 00:16:40.000 Offset 3600 IsDST 0 Tz STD\n"
                              "1970-01-02 03:46:40.000 Offset 7200 IsDST 1 Tz DST\n"
                              "1970-01-03 07:33:20.000 Offset 3600 IsDST 0 Tz STD\n"
                              "1970-01-04 11:20:00.000 Offset 7200 IsDST 1 Tz DST\n"
                              "Leap Seconds: 2\n"
                              "Standard/Wall [ 1 0 1 0 1 ]\n"
                              "UT/Local [ 0 1 0 0 1 1 0 ]\n";

std::string DumpWithoutName(const CQDTimeZone& zone)
{
    const std::string dump = Dump(zone);
    return dump.substr(dump.find('\n') + 1);
}

bool IsEmpty(const CQDTimeZone& zone)
{
    return Dump(zone) == kEmptyDump && zone.GetIANAName().empty() && zone.GetTransitionCount() == 0 &&
           zone.GetAdjustmentForTimestamp(kUnixEpoch) == 0;
}

// --- Records, construction, copies ---------------------------------------------------------------------------------

TEST(CQDTimeZone, RecordsHaveTheirLayout)
{
    using Type = CQDTimeZone::TransitionType;
    using Leap = CQDTimeZone::LeapSecond;

    EXPECT_EQ(sizeof(Type), 8u);
    EXPECT_EQ(offsetof(Type, m_UtOffset), 0u);
    EXPECT_EQ(offsetof(Type, m_IsDst), 4u);
    EXPECT_EQ(offsetof(Type, m_DesignationIndex), 5u);
    EXPECT_EQ(sizeof(Leap), 16u);
    EXPECT_EQ(offsetof(Leap, m_Time), 0u);
    EXPECT_EQ(offsetof(Leap, m_Correction), 8u);
}

TEST(CQDTimeZone, NewZoneIsEmptyAndConvertsWithOffsetZero)
{
    const CQDTimeZone zone;

    EXPECT_EQ(zone.GetReadStatus(), 0);
    EXPECT_EQ(zone.GetIANAName(), "");
    EXPECT_EQ(zone.GetTransitionCount(), 0u);
    EXPECT_EQ(zone.GetAdjustmentForTimestamp(kUnixEpoch), 0);
    EXPECT_EQ(zone.ToLocalTime(kUnixEpoch), kUnixEpoch);
    EXPECT_EQ(zone.ToUTC(kUnixEpoch), kUnixEpoch);
}

TEST(CQDTimeZone, CopyHasEverythingAndOutlivesItsSource)
{
    auto source = std::make_unique<CQDTimeZone>();
    ASSERT_TRUE(Load(*source, MakeFullBlock().ToBytes('\0', 4)));
    const std::string dump = Dump(*source);

    const CQDTimeZone copy(*source);
    source.reset();

    EXPECT_EQ(Dump(copy), dump);
    EXPECT_EQ(DumpWithoutName(copy), kFullDump);
    EXPECT_EQ(copy.GetAdjustmentForTimestamp(Unix(100'000)), 2 * kHour);
    EXPECT_EQ(copy.FindTransitionIndexForTimestamp(Unix(250'000)), 2);
}

TEST(CQDTimeZone, AssignmentReplacesEverything)
{
    CQDTimeZone source;
    CQDTimeZone zone;
    ASSERT_TRUE(Load(source, MakeOneTypeBlock().ToBytes('\0', 4)));
    ASSERT_TRUE(Load(zone, MakeFullBlock().ToBytes('\0', 4)));

    zone = source;

    EXPECT_EQ(Dump(zone), Dump(source));
    EXPECT_EQ(zone.GetIANAName(), source.GetIANAName());
    EXPECT_EQ(zone.GetAdjustmentForTimestamp(Unix(100'000)), kHour);
}

TEST(CQDTimeZone, CopyTakesTheReadStatus)
{
    CQDTimeZone source;
    ASSERT_FALSE(Load(source, "no zone file, but long enough to hold a header"));
    CQDTimeZone zone;

    zone.CopyFrom(source);

    EXPECT_EQ(zone.GetReadStatus(), 3);
}

TEST(CQDTimeZone, CopyFromItselfChangesNothing)
{
    CQDTimeZone zone;
    ASSERT_TRUE(Load(zone, MakeFullBlock().ToBytes('\0', 4)));
    const std::string dump = Dump(zone);

    zone.CopyFrom(zone);

    EXPECT_EQ(Dump(zone), dump);
    EXPECT_EQ(zone.GetAdjustmentForTimestamp(Unix(100'000)), 2 * kHour);
}

// Every limit from none at all up to the largest array makes another allocation the first to fail.
TEST(CQDTimeZone, CopyWithoutMemoryLeavesTheZoneUnchanged)
{
    CQDTimeZone source;
    ASSERT_TRUE(Load(source, MakeFullBlock().ToBytes('\0', 4)));
    const std::string sourceDump = Dump(source);
    CQDTimeZone zone;
    ASSERT_TRUE(zone.UseSpecifiedTimeZone("Etc/UTC"));
    const std::string dump = Dump(zone);

    std::size_t failures = 0;
    for (bool hasFailed = true; hasFailed;) {
        SCOPED_TRACE(failures);
        hasFailed = false;
        try {
            const AllocationLimit limit(failures);
            zone.CopyFrom(source);
        } catch (const std::bad_alloc&) {
            hasFailed = true;
            ++failures;
        }

        EXPECT_EQ(Dump(zone), hasFailed ? dump : sourceDump);
        EXPECT_EQ(zone.GetAdjustmentForTimestamp(Unix(100'000)), hasFailed ? 0 : 2 * kHour);
        EXPECT_EQ(zone.FindTransitionIndexForTimestamp(Unix(250'000)), hasFailed ? -2 : 2);
    }
    EXPECT_GT(failures, 4 * sizeof(long long)); // the four transition times are among what did not fit
}

TEST(CQDTimeZone, CopyOfAnEmptyZoneIsEmpty)
{
    CQDTimeZone zone;
    ASSERT_TRUE(Load(zone, MakeFullBlock().ToBytes('\0', 4)));

    zone.CopyFrom(CQDTimeZone());

    EXPECT_TRUE(IsEmpty(zone));
}

TEST(CQDTimeZone, ClearEmptiesAllButTheReadStatus)
{
    CQDTimeZone zone;
    ASSERT_FALSE(Load(zone, "no zone file, but long enough to hold a header"));
    CQDTimeZone loaded;
    ASSERT_TRUE(Load(loaded, MakeFullBlock().ToBytes('\0', 4)));

    zone.Clear();
    loaded.Clear();

    EXPECT_EQ(zone.GetReadStatus(), 3);
    EXPECT_TRUE(IsEmpty(loaded));
}

// --- Choosing the file ---------------------------------------------------------------------------------------------

TEST(CQDTimeZone, NamedZoneIsLoadedFromTheSystemsDatabase)
{
    CQDTimeZone zone;

    const bool isLoaded = zone.UseSpecifiedTimeZone("Europe/London");

    EXPECT_TRUE(isLoaded);
    EXPECT_EQ(zone.GetReadStatus(), 0);
    EXPECT_EQ(zone.GetIANAName(), "Europe/London");
    EXPECT_EQ(zone.GetAdjustmentForTimestamp(Unix(1'583'298'367)), 0);     // 2020-03-04
    EXPECT_EQ(zone.GetAdjustmentForTimestamp(Unix(1'593'561'600)), kHour); // 2020-07-01
}

TEST(CQDTimeZone, NameIsCutAt127Bytes)
{
    const ZoneFile file(MakeOneTypeBlock().ToBytes('\0', 4));
    std::string name = file.GetZoneName();
    name.insert(3, 127 - name.size(), '/');
    CQDTimeZone zone;

    const bool isLoaded = zone.UseSpecifiedTimeZone(name + "/what follows is not used");

    EXPECT_TRUE(isLoaded);
    EXPECT_EQ(zone.GetIANAName(), name);
}

TEST(CQDTimeZone, NameMayBeTheZonesOwn)
{
    CQDTimeZone zone;
    ASSERT_TRUE(zone.UseSpecifiedTimeZone("Europe/London"));

    const bool isLoaded = zone.UseSpecifiedTimeZone(zone.GetIANAName());

    EXPECT_TRUE(isLoaded);
    EXPECT_EQ(zone.GetIANAName(), "Europe/London");
}

TEST(CQDTimeZone, UnknownNameGivesStatus1AndAnEmptyZone)
{
    CQDTimeZone zone;
    ASSERT_TRUE(Load(zone, MakeFullBlock().ToBytes('\0', 4)));

    const bool isLoaded = zone.UseSpecifiedTimeZone("Europe/Quendrel");

    EXPECT_FALSE(isLoaded);
    EXPECT_EQ(zone.GetReadStatus(), 1);
    EXPECT_TRUE(IsEmpty(zone));
}

// --- Reading -------------------------------------------------------------------------------------------------------

TEST(CQDTimeZone, EveryArrayOfAVersion1FileIsRead)
{
    CQDTimeZone zone;

    const bool isLoaded = Load(zone, MakeFullBlock().ToBytes('\0', 4));

    EXPECT_TRUE(isLoaded);
    EXPECT_EQ(zone.GetReadStatus(), 0);
    EXPECT_EQ(DumpWithoutName(zone), kFullDump);
}

TEST(CQDTimeZone, LaterVersionsAreReadFromTheirSecondBlock)
{
    for (const char version : {'2', '3', '4', '\1', '\xFF'}) {
        SCOPED_TRACE(static_cast<int>(version));
        ZoneBlock first = MakeFullBlock();
        first.m_Times.push_back(400'000);
        first.m_TypeIndices += '\1';
        first.m_Types.push_back({-60, 1, 0});
        first.m_Designations += "MORE";
        first.m_Leaps.clear();
        CQDTimeZone zone;

        const bool isLoaded = Load(zone, first.ToBytes(version, 4) + MakeFullBlock().ToBytes(version, 8) + "\nA-1\n");

        EXPECT_TRUE(isLoaded);
        EXPECT_EQ(DumpWithoutName(zone), kFullDump);
    }
}

TEST(CQDTimeZone, VersionOfTheSecondHeaderPlaysNoPart)
{
    CQDTimeZone zone;

    const bool isLoaded = Load(zone, MakeFullBlock().ToBytes('2', 4) + MakeFullBlock().ToBytes('\0', 8));

    EXPECT_TRUE(isLoaded);
    EXPECT_EQ(DumpWithoutName(zone), kFullDump);
}

TEST(CQDTimeZone, WhatFollowsTheDataIsNotRead)
{
    CQDTimeZone zone;

    const bool isLoaded = Load(zone, MakeFullBlock().ToBytes('\0', 4) + "anything");

    EXPECT_TRUE(isLoaded);
    EXPECT_EQ(DumpWithoutName(zone), kFullDump);
}

TEST(CQDTimeZone, TimesAreSignedSecondsSince1970)
{
    const struct
    {
        const char* m_Name;
        int m_Size;
        long long m_Seconds;
        long long m_Ticks;
    } cases[] = {{"4 bytes, first", 4, INT_MIN, 94'969'899'520'000'000},
                 {"4 bytes, -1", 4, -1, 116'444'735'990'000'000},
                 {"4 bytes, 0", 4, 0, 116'444'736'000'000'000},
                 {"4 bytes, last", 4, INT_MAX, 137'919'572'470'000'000},
                 {"8 bytes, -1", 8, -1, 116'444'735'990'000'000},
                 {"8 bytes, beyond 32 bits", 8, 4'294'967'297, 159'394'408'970'000'000},
                 {"second 1 of 1601", 8, -11'644'473'599, 10'000'000},
                 {"second 0 of 1601", 8, -11'644'473'600, 0},
                 {"before 1601", 8, -11'644'473'601, 0},
                 {"smallest", 8, LLONG_MIN, 0},
                 {"last that ticks can hold", 8, 910'692'730'085, 9'223'372'036'850'000'000},
                 {"first that they cannot", 8, 910'692'730'086, kLargest},
                 {"largest", 8, LLONG_MAX, kLargest}};

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Name);
        const ZoneBlock block = MakeOneTypeBlock({c.m_Seconds});
        CQDTimeZone zone;

        ASSERT_TRUE(Load(zone, c.m_Size == 4 ? block.ToBytes('\0', 4)
                                             : MakeOneTypeBlock().ToBytes('2', 4) + block.ToBytes('2', 8)));

        EXPECT_EQ(zone.GetTransitionCount(), 1u);
        EXPECT_EQ(zone.GetTransitionTime(0), c.m_Ticks);
    }
}

TEST(CQDTimeZoneDeathTest, TransitionTimeBeyondTheCountIsAsserted)
{
    CQDTimeZone zone;
    ASSERT_TRUE(Load(zone, MakeSummerTimeBlock().ToBytes('\0', 4)));

    EXPECT_DEATH(static_cast<void>(zone.GetTransitionTime(4)), "index < m_TransitionCount");
}

// --- Files that cannot be loaded -----------------------------------------------------------------------------------

TEST(CQDTimeZone, FaultyFileGivesItsStatusAndAnEmptyZone)
{
    ZoneBlock equalTimes = MakeFullBlock();
    equalTimes.m_Times[2] = equalTimes.m_Times[1];
    ZoneBlock descendingTimes = MakeFullBlock();
    descendingTimes.m_Times[3] = 0;
    ZoneBlock indexIsTypeCount = MakeFullBlock();
    indexIsTypeCount.m_TypeIndices[3] = 3;
    ZoneBlock noTypesForTransitions = MakeFullBlock();
    noTypesForTransitions.m_Types.clear();
    ZoneBlock noTypes;
    noTypes.m_Designations.assign("A", 2);
    ZoneBlock designationIsCount = MakeFullBlock();
    designationIsCount.m_Types[2].m_DesignationIndex = 12;
    ZoneBlock noDesignations = MakeOneTypeBlock();
    noDesignations.m_Designations.clear();
    ZoneBlock timesAndIndices = equalTimes;
    timesAndIndices.m_TypeIndices[0] = 9;
    ZoneBlock indicesAndTypes = indexIsTypeCount;
    indicesAndTypes.m_Types[0].m_DesignationIndex = 255;

    const std::string version1 = MakeFullBlock().ToBytes('2', 4);

    const struct
    {
        const char* m_Name;
        std::string m_Bytes;
        int m_Status;
    } cases[] = {
        {"empty file", "", 2},
        {"43 bytes", std::string(43, 'x'), 2},
        {"44 bytes", std::string(44, 'x'), 3},
        {"magic in another case", "TZIF" + version1.substr(4), 3},
        {"no second header", version1, 2},
        {"second magic", version1 + std::string(44, 'x'), 3},
        {"equal times", equalTimes.ToBytes('\0', 4), 4},
        {"descending times", descendingTimes.ToBytes('\0', 4), 4},
        {"equal times in 8 bytes", version1 + equalTimes.ToBytes('2', 8), 4},
        {"two times before 1601", version1 + MakeOneTypeBlock({LLONG_MIN, -11'644'473'601}).ToBytes('2', 8), 4},
        {"two times beyond the ticks", version1 + MakeOneTypeBlock({LLONG_MAX - 1, LLONG_MAX}).ToBytes('2', 8), 4},
        {"type index is the type count", indexIsTypeCount.ToBytes('\0', 4), 5},
        {"transitions without types", noTypesForTransitions.ToBytes('\0', 4), 5},
        {"no types", noTypes.ToBytes('\0', 4), 6},
        {"designation index is the count", designationIsCount.ToBytes('\0', 4), 7},
        {"no designations", noDesignations.ToBytes('\0', 4), 7},
        {"times come before indices", timesAndIndices.ToBytes('\0', 4), 4},
        {"indices come before types", indicesAndTypes.ToBytes('\0', 4), 5}};

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Name);
        CQDTimeZone zone;
        ASSERT_TRUE(Load(zone, MakeFullBlock().ToBytes('\0', 4)));

        const bool isLoaded = Load(zone, c.m_Bytes);

        EXPECT_FALSE(isLoaded);
        EXPECT_EQ(zone.GetReadStatus(), c.m_Status);
        EXPECT_TRUE(IsEmpty(zone));
    }
}

TEST(CQDTimeZone, FileThatIsCutAnywhereGivesStatus2)
{
    const std::string files[] = {MakeFullBlock().ToBytes('\0', 4),
                                 MakeSummerTimeBlock().ToBytes('2', 4) + MakeFullBlock().ToBytes('2', 8)};
    for (const std::string& bytes : files) {
        for (std::size_t length = 0; length < bytes.size(); ++length) {
            SCOPED_TRACE(length);
            CQDTimeZone zone;

            const bool isLoaded = Load(zone, bytes.substr(0, length));

            EXPECT_FALSE(isLoaded);
            EXPECT_EQ(zone.GetReadStatus(), 2);
            EXPECT_TRUE(IsEmpty(zone));
        }
    }
}

TEST(CQDTimeZone, HugeCountEndsInTheAllocationFailure)
{
    const struct
    {
        const char* m_Name;
        std::size_t m_Offset; // of the count in the header
    } cases[] = {{"UT/local", 20},    {"standard/wall", 24}, {"leap seconds", 28},
                 {"transitions", 32}, {"types", 36},         {"designation characters", 40}};

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Name);
        std::string bytes = MakeFullBlock().ToBytes('\0', 4);
        bytes.replace(c.m_Offset, 4, "\xFF\xFF\xFF\xFF");
        CQDTimeZone zone;
        ASSERT_FALSE(Load(zone, std::string(44, 'x')));
        const ZoneFile file(bytes);

        EXPECT_THROW(zone.UseSpecifiedTimeZone(file.GetZoneName()), std::bad_alloc);

        EXPECT_EQ(zone.GetReadStatus(), 3);
        EXPECT_TRUE(IsEmpty(zone));
    }
}

TEST(CQDTimeZone, NameWithoutMemoryEndsInTheAllocationFailure)
{
    CQDTimeZone zone;
    ASSERT_FALSE(Load(zone, std::string(44, 'x')));
    const ZoneFile file(MakeOneTypeBlock().ToBytes('\0', 4));
    const std::string name = file.GetZoneName();
    bool hasFailed = false;

    try {
        const AllocationLimit limit(name.size()); // the arrays fit, the name with its NUL does not
        zone.UseSpecifiedTimeZone(name);
    } catch (const std::bad_alloc&) {
        hasFailed = true;
    }

    EXPECT_TRUE(hasFailed);
    EXPECT_EQ(zone.GetReadStatus(), 3);
    EXPECT_TRUE(IsEmpty(zone));
}

TEST(CQDTimeZone, CountBeyondTheFileGivesAStatus)
{
    const struct
    {
        const char* m_Name;
        std::size_t m_Offset; // of the count in the header
        int m_Status;
    } cases[] = {{"UT/local", 20, 2},
                 {"standard/wall", 24, 2},
                 {"leap seconds", 28, 2},
                 {"transitions", 32, 2},
                 {"types, until one has no designation", 36, 7},
                 {"designation characters", 40, 2}};

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Name);
        std::string bytes = MakeFullBlock().ToBytes('\0', 4);
        bytes.replace(c.m_Offset, 4, std::string("\0\x10\0\0", 4));
        CQDTimeZone zone;

        const bool isLoaded = Load(zone, bytes);

        EXPECT_FALSE(isLoaded);
        EXPECT_EQ(zone.GetReadStatus(), c.m_Status);
        EXPECT_TRUE(IsEmpty(zone));
    }
}

TEST(CQDTimeZone, HugeCountsInTheFirstHeaderAreSkippedWithoutOverflow)
{
    for (const std::size_t offset : {20u, 24u, 28u, 32u, 36u, 40u}) {
        SCOPED_TRACE(offset);
        std::string first = MakeFullBlock().ToBytes('2', 4);
        first.replace(offset, 4, "\xFF\xFF\xFF\xFF");
        CQDTimeZone zone;

        const bool isLoaded = Load(zone, first + MakeFullBlock().ToBytes('2', 8));

        EXPECT_FALSE(isLoaded);
        EXPECT_EQ(zone.GetReadStatus(), 2);
    }
}

TEST(CQDTimeZone, ChangedBytesGiveAStatusOrTheAllocationFailure)
{
    std::mt19937 random(20200304);
    const std::string files[] = {MakeFullBlock().ToBytes('\0', 4),
                                 MakeSummerTimeBlock().ToBytes('2', 4) + MakeFullBlock().ToBytes('2', 8)};
    for (int i = 0; i < 5'000; ++i) {
        std::string bytes = files[i % 2];
        for (int change = 0; change <= i % 8; ++change)
            bytes[random() % bytes.size()] = static_cast<char>(random());
        CQDTimeZone zone;
        bool isLoaded = false;
        try {
            isLoaded = Load(zone, bytes);
        } catch (const std::bad_alloc&) {
            ASSERT_EQ(zone.GetReadStatus(), 0);
            ASSERT_TRUE(IsEmpty(zone));
            continue;
        }

        ASSERT_EQ(isLoaded, zone.GetReadStatus() == 0);
        ASSERT_TRUE(zone.GetReadStatus() >= 0 && zone.GetReadStatus() <= 7);
        ASSERT_TRUE(isLoaded || IsEmpty(zone));
        Dump(zone);
        zone.ToLocalTime(static_cast<long long>(random()) << 31);
    }
}

TEST(CQDTimeZone, FolderGivesStatus2)
{
    CQDTimeZone zone;

    const bool isLoaded = zone.UseSpecifiedTimeZone("Europe");

    EXPECT_FALSE(isLoaded);
    EXPECT_EQ(zone.GetReadStatus(), 2);
}

TEST(CQDTimeZone, FileThatCannotSeekGivesStatus2)
{
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    const std::string bytes = MakeFullBlock().ToBytes('2', 4);
    ASSERT_EQ(::write(pipe[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    CQDTimeZone zone;

    const bool isLoaded = zone.UseSpecifiedTimeZone(ZoneFile::GetZoneName(pipe[0]));

    EXPECT_FALSE(isLoaded);
    EXPECT_EQ(zone.GetReadStatus(), 2);
    ::close(pipe[0]);
    ::close(pipe[1]);
}

TEST(CQDTimeZone, OpenThatFailsGivesStatus1)
{
    const ZoneFile file(MakeFullBlock().ToBytes('\0', 4));
    CQDTimeZone zone;
    const FaultPlan plan("open", 1, EMFILE);

    const bool isLoaded = zone.UseSpecifiedTimeZone(file.GetZoneName());

    EXPECT_TRUE(plan.HasFailed());
    EXPECT_FALSE(isLoaded);
    EXPECT_EQ(zone.GetReadStatus(), 1);
    EXPECT_TRUE(IsEmpty(zone));
}

TEST(CQDTimeZone, EveryReadThatFailsGivesStatus2)
{
    const ZoneFile file(MakeSummerTimeBlock().ToBytes('2', 4) + MakeFullBlock().ToBytes('2', 8));
    int failures = 0;
    for (bool hasFailed = true; hasFailed;) {
        SCOPED_TRACE(failures);
        CQDTimeZone zone;
        const FaultPlan plan("read", failures + 1, EIO);

        const bool isLoaded = zone.UseSpecifiedTimeZone(file.GetZoneName());

        hasFailed = plan.HasFailed();
        failures += hasFailed;
        EXPECT_EQ(isLoaded, !hasFailed);
        EXPECT_EQ(zone.GetReadStatus(), hasFailed ? 2 : 0);
        EXPECT_EQ(IsEmpty(zone), hasFailed);
    }
    EXPECT_GE(failures, 8); // two headers and six arrays at least
}

// --- Conversions ---------------------------------------------------------------------------------------------------

TEST(CQDTimeZone, AdjustmentIsThatOfTheTypeInForce)
{
    CQDTimeZone zone;
    ASSERT_TRUE(Load(zone, MakeSummerTimeBlock().ToBytes('\0', 4)));

    const struct
    {
        const char* m_Name;
        long long m_Ticks;
        long long m_Adjustment;
    } cases[] = {{"smallest", LLONG_MIN, 600 * kSecond},
                 {"tick 0", 0, 600 * kSecond},
                 {"one tick before the first", Unix(1000) - 1, 600 * kSecond},
                 {"at the first", Unix(1000), kHour},
                 {"one tick before the second", Unix(100'000) - 1, kHour},
                 {"at the second", Unix(100'000), 2 * kHour},
                 {"between", Unix(150'000), 2 * kHour},
                 {"at the third", Unix(200'000), kHour},
                 {"one tick before the last", Unix(300'000) - 1, kHour},
                 {"at the last", Unix(300'000), 2 * kHour},
                 {"long after the last", Unix(4'000'000'000), 2 * kHour},
                 {"largest", kLargest, 2 * kHour}};

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Name);
        EXPECT_EQ(zone.GetAdjustmentForTimestamp(c.m_Ticks), c.m_Adjustment);
    }
}

TEST(CQDTimeZone, OneTransitionHoldsFromItsTickOn)
{
    ZoneBlock block = MakeSummerTimeBlock();
    block.m_Times = {1000};
    block.m_TypeIndices = "\2";
    CQDTimeZone zone;
    ASSERT_TRUE(Load(zone, block.ToBytes('\0', 4)));

    EXPECT_EQ(zone.GetAdjustmentForTimestamp(Unix(1000) - 1), 600 * kSecond);
    EXPECT_EQ(zone.GetAdjustmentForTimestamp(Unix(1000)), 2 * kHour);
    EXPECT_EQ(zone.GetAdjustmentForTimestamp(kLargest), 2 * kHour);
}

TEST(CQDTimeZone, WithoutTransitionsTheFirstTypeHolds)
{
    ZoneBlock block = MakeSummerTimeBlock();
    block.m_Times.clear();
    block.m_TypeIndices.clear();
    CQDTimeZone zone;
    ASSERT_TRUE(Load(zone, block.ToBytes('\0', 4)));

    EXPECT_EQ(zone.GetAdjustmentForTimestamp(0), 600 * kSecond);
    EXPECT_EQ(zone.GetAdjustmentForTimestamp(kLargest), 600 * kSecond);
}

TEST(CQDTimeZone, OffsetsAreSigned32BitSeconds)
{
    for (const int offset : {INT_MIN, -1, 1, INT_MAX}) {
        SCOPED_TRACE(offset);
        ZoneBlock block = MakeOneTypeBlock();
        block.m_Types[0].m_UtOffset = offset;
        CQDTimeZone zone;
        ASSERT_TRUE(Load(zone, block.ToBytes('\0', 4)));

        EXPECT_EQ(zone.GetAdjustmentForTimestamp(kUnixEpoch), offset * 10'000'000LL);
    }
}

TEST(CQDTimeZone, LocalTimeIsHeldBetweenZeroAndTheLargest)
{
    ZoneBlock west = MakeOneTypeBlock();
    west.m_Types[0].m_UtOffset = -3600;
    CQDTimeZone zoneInTheWest;
    CQDTimeZone zoneInTheEast;
    ASSERT_TRUE(Load(zoneInTheWest, west.ToBytes('\0', 4)));
    ASSERT_TRUE(Load(zoneInTheEast, MakeOneTypeBlock().ToBytes('\0', 4)));

    EXPECT_EQ(zoneInTheWest.ToLocalTime(0), 0);
    EXPECT_EQ(zoneInTheWest.ToLocalTime(kHour - 1), 0);
    EXPECT_EQ(zoneInTheWest.ToLocalTime(kHour + 1), 1);
    EXPECT_EQ(zoneInTheWest.ToLocalTime(LLONG_MIN), 0);
    EXPECT_EQ(zoneInTheWest.ToLocalTime(kLargest), kLargest - kHour);
    EXPECT_EQ(zoneInTheEast.ToLocalTime(0), kHour);
    EXPECT_EQ(zoneInTheEast.ToLocalTime(LLONG_MIN), 0);
    EXPECT_EQ(zoneInTheEast.ToLocalTime(kLargest - kHour), kLargest);
    EXPECT_EQ(zoneInTheEast.ToLocalTime(kLargest - kHour + 1), kLargest);
    EXPECT_EQ(zoneInTheEast.ToLocalTime(kLargest), kLargest);
}

TEST(CQDTimeZone, UtcIsHeldBetweenZeroAndTheLargest)
{
    ZoneBlock west = MakeOneTypeBlock();
    west.m_Types[0].m_UtOffset = -3600;
    CQDTimeZone zoneInTheWest;
    CQDTimeZone zoneInTheEast;
    ASSERT_TRUE(Load(zoneInTheWest, west.ToBytes('\0', 4)));
    ASSERT_TRUE(Load(zoneInTheEast, MakeOneTypeBlock().ToBytes('\0', 4)));

    EXPECT_EQ(zoneInTheEast.ToUTC(0), 0);
    EXPECT_EQ(zoneInTheEast.ToUTC(kHour - 1), 0);
    EXPECT_EQ(zoneInTheEast.ToUTC(kHour + 1), 1);
    EXPECT_EQ(zoneInTheEast.ToUTC(LLONG_MIN), 0);
    EXPECT_EQ(zoneInTheEast.ToUTC(kLargest), kLargest - kHour);
    EXPECT_EQ(zoneInTheWest.ToUTC(0), kHour);
    EXPECT_EQ(zoneInTheWest.ToUTC(LLONG_MIN), 0);
    EXPECT_EQ(zoneInTheWest.ToUTC(kLargest), kLargest);
}

// The transition to +2:00 is at 100'000, where clocks jump from 103'600 to 107'200; that back to +1:00 is at 200'000,
// where they jump from 207'200 to 203'600.
TEST(CQDTimeZone, UtcIsFoundWithTheOffsetAtTheLocalTimeReadAsUtc)
{
    CQDTimeZone zone;
    ASSERT_TRUE(Load(zone, MakeSummerTimeBlock().ToBytes('\0', 4)));

    const struct
    {
        const char* m_Name;
        long long m_LocalSeconds;
        long long m_UtcSeconds;
    } cases[] = {{"long before the change", 50'000, 46'400},
                 {"an hour before the change, with the new offset already", 100'000, 92'800},
                 {"skipped", 105'000, 97'800},
                 {"after the change", 110'000, 102'800},
                 {"two hours before the change back, with the new offset already", 200'000, 196'400},
                 {"occurs twice", 205'000, 201'400},
                 {"after the change back", 210'000, 206'400}};

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Name);
        EXPECT_EQ(zone.ToUTC(Unix(c.m_LocalSeconds)), Unix(c.m_UtcSeconds));
    }
}

TEST(CQDTimeZone, ManyThreadsConvertThroughOneZone)
{
    CQDTimeZone zone;
    ASSERT_TRUE(Load(zone, MakeSummerTimeBlock().ToBytes('\0', 4)));
    int failures[4] = {};
    std::vector<std::thread> threads;

    for (int& failed : failures) {
        threads.emplace_back([&zone, &failed] {
            for (long long seconds = 100'000; seconds < 200'000; ++seconds)
                failed += zone.ToLocalTime(Unix(seconds)) != Unix(seconds + 7200);
        });
    }
    for (std::thread& thread : threads)
        thread.join();

    for (const int failed : failures)
        EXPECT_EQ(failed, 0);
}

// --- Finding a transition ------------------------------------------------------------------------------------------

TEST(CQDTimeZone, TransitionIndexBelowTwoTransitionsIsTheCountLessTwo)
{
    CQDTimeZone zone;
    CQDTimeZone zoneWithOne;
    ASSERT_TRUE(Load(zoneWithOne, MakeOneTypeBlock({1000}).ToBytes('\0', 4)));

    EXPECT_EQ(zone.FindTransitionIndexForTimestamp(Unix(1000)), -2);
    EXPECT_EQ(zoneWithOne.FindTransitionIndexForTimestamp(Unix(1000)), -1);
}

TEST(CQDTimeZone, TransitionIndexOutsideTheTransitionsIsTheFirstOrTheLastButOne)
{
    CQDTimeZone zone;
    ASSERT_TRUE(Load(zone, MakeSummerTimeBlock().ToBytes('\0', 4)));

    EXPECT_EQ(zone.FindTransitionIndexForTimestamp(LLONG_MIN), 0);
    EXPECT_EQ(zone.FindTransitionIndexForTimestamp(Unix(1000) - 1), 0);
    EXPECT_EQ(zone.FindTransitionIndexForTimestamp(Unix(300'000)), 2);
    EXPECT_EQ(zone.FindTransitionIndexForTimestamp(kLargest), 2);
}

std::vector<long long> MakeTimes(long long first, long long step, int count)
{
    std::vector<long long> times;
    for (int i = 0; i < count; ++i)
        times.push_back(first + i * step);
    return times;
}

// A plain count beside the search, at each transition, a tick before and a tick after.
void ExpectEveryTransitionIsFound(const std::vector<long long>& times)
{
    CQDTimeZone zone;
    ASSERT_TRUE(Load(zone, MakeOneTypeBlock().ToBytes('2', 4) + MakeOneTypeBlock(times).ToBytes('2', 8)));
    ASSERT_EQ(zone.GetTransitionCount(), times.size());
    const int last = static_cast<int>(times.size()) - 1;
    for (int i = 0; i < last; ++i) {
        const long long time = zone.GetTransitionTime(static_cast<unsigned int>(i));
        ASSERT_EQ(zone.FindTransitionIndexForTimestamp(time), i);
        ASSERT_EQ(zone.FindTransitionIndexForTimestamp(time + 1), i);
        ASSERT_EQ(zone.FindTransitionIndexForTimestamp(zone.GetTransitionTime(static_cast<unsigned int>(i) + 1) - 1),
                  i);
    }
}

TEST(CQDTimeZone, TransitionIndexIsTheLastAtOrBefore)
{
    std::vector<long long> cluster = MakeTimes(1'000'000'000, 1, 1000);
    cluster.insert(cluster.begin(), -11'644'473'600);
    cluster.push_back(910'692'730'085);

    const struct
    {
        const char* m_Name;
        std::vector<long long> m_Times;
    } cases[] = {{"two", {1000, 2000}},
                 {"two, next to each other", {1000, 1001}},
                 {"two, as far apart as can be", {-11'644'473'600, 910'692'730'086}},
                 {"three", {1000, 2000, 4000}},
                 {"half years", MakeTimes(-3'000'000'000, 15'768'000, 400)},
                 {"more than there are buckets", MakeTimes(0, 3600, 5000)},
                 {"every second", MakeTimes(-1000, 1, 2000)},
                 {"most of them in one bucket", cluster}};

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Name);
        ExpectEveryTransitionIsFound(c.m_Times);
    }
}

// --- Timestamps ----------------------------------------------------------------------------------------------------

// Members of CQDTimestamp, tested here because they need a zone to convert through.

TEST(CQDTimestamp, ToLocalTimeAndToUTCConvertThroughTheZone)
{
    CQDTimeZone zone;
    ASSERT_TRUE(Load(zone, MakeSummerTimeBlock().ToBytes('\0', 4)));
    CQDTimestamp local(Unix(150'000));
    CQDTimestamp utc(Unix(150'000));

    local.ToLocalTime(&zone);
    utc.ToUTC(&zone);

    EXPECT_EQ(local.GetValue(), Unix(157'200));
    EXPECT_EQ(utc.GetValue(), Unix(142'800));
}

TEST(CQDTimestamp, ToLocalTimeWithoutAZoneChangesNothing)
{
    CQDTimestamp timestamp(-4711);

    timestamp.ToLocalTime(nullptr);

    EXPECT_EQ(timestamp.GetValue(), -4711);
}

// --- Dump ----------------------------------------------------------------------------------------------------------

TEST(CQDTimeZone, DumpOfAnEmptyZoneHasFiveLines)
{
    EXPECT_EQ(Dump(CQDTimeZone()), kEmptyDump);
}

TEST(CQDTimeZone, DumpBeginsWithTheName)
{
    CQDTimeZone zone;
    ASSERT_TRUE(zone.UseSpecifiedTimeZone("Etc/UTC"));

    EXPECT_EQ(Dump(zone).substr(0, 34), "IANAName: Etc/UTC\n0 Transitions:\nL");
}

TEST(CQDTimeZone, DumpStopsAtTheEndOfDesignationsWithoutANul)
{
    ZoneBlock block = MakeOneTypeBlock({0});
    block.m_Types[0].m_DesignationIndex = 2;
    block.m_Designations = "NOTERMINATOR";
    CQDTimeZone zone;
    ASSERT_TRUE(Load(zone, block.ToBytes('\0', 4)));

    EXPECT_EQ(DumpWithoutName(zone), "1 Transitions:\n"
                                     "1970-01-01 00:00:00.000 Offset 3600 IsDST 0 Tz TERMINATOR\n"
                                     "Leap Seconds: 0\nStandard/Wall [  ]\nUT/Local [  ]\n");
}

TEST(CQDTimeZone, DumpShowsOffsetsInTheWestAndBytesUnsigned)
{
    ZoneBlock block = MakeOneTypeBlock({0});
    block.m_Types[0].m_UtOffset = -18'000;
    block.m_Types[0].m_IsDst = 1;
    block.m_StandardWall = "\xFF";
    CQDTimeZone zone;
    ASSERT_TRUE(Load(zone, block.ToBytes('\0', 4)));

    EXPECT_EQ(DumpWithoutName(zone), "1 Transitions:\n"
                                     "1970-01-01 00:00:00.000 Offset -18000 IsDST 1 Tz A\n"
                                     "Leap Seconds: 0\nStandard/Wall [ 255 ]\nUT/Local [  ]\n");
}

TEST(CQDTimeZone, AnyNonZeroByteMeansDaylightSavingTime)
{
    for (const int isDst : {1, 2, 0x80, 0xFF}) {
        SCOPED_TRACE(isDst);
        ZoneBlock block = MakeOneTypeBlock({0});
        block.m_Types[0].m_IsDst = isDst;
        CQDTimeZone zone;
        ASSERT_TRUE(Load(zone, block.ToBytes('\0', 4)));

        EXPECT_EQ(DumpWithoutName(zone), "1 Transitions:\n"
                                         "1970-01-01 00:00:00.000 Offset 3600 IsDST 1 Tz A\n"
                                         "Leap Seconds: 0\nStandard/Wall [  ]\nUT/Local [  ]\n");
    }
}

TEST(CQDTimeZone, DumpIsIndentedAsTheWriterSays)
{
    TextCollector out;
    out.SetIndentCharacters(' ', 2);
    out.AdjustIndent(1);

    CQDTimeZone().DumpTimeZone(out);

    EXPECT_EQ(out.m_Text, "  IANAName: \n  0 Transitions:\n  Leap Seconds: 0\n  Standard/Wall [  ]\n  UT/Local [  ]\n");
}

} // namespace
