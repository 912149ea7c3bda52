// The station's folder and the file of its registers.
#include "FaultPlan.h"
#include "HexText.h"
#include "RecordingLog.h"
#include "ScopedVariable.h"
#include "SmallFileSystem.h"
#include "TemporaryFolder.h"

#include <QDPlatform/COutputLogNull.h>

#include <RegisterFile.h>
#include <StationFolder.h>

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>
#include <vector>

namespace
{

using Registers = std::array<uint16_t, 3>;

constexpr Registers kNone{};
constexpr Registers kOld{0x1234, 0x00FF, 0xFFFF};
constexpr Registers kNew{0x0001, 0x8000, 0x4321};

// The file with kOld; the hash of its last four bytes was worked out by another program.
constexpr const char* kOldFile = "5144 5354 4E52 4547 0001 0003 1234 00FF FFFF 8F82 49F0";

// The registers of a folder, with the log to look at.
struct RegistersIn
{
    explicit RegistersIn(const std::string& folder) : m_File(folder, m_Log) {}

    bool Load() { return m_File.Load(m_Registers, m_Error); }

    RecordingLog m_Log;
    RegisterFile m_File;
    Registers m_Registers{9, 9, 9};
    std::string m_Error;
};

// What a station that starts in the folder finds.
Registers LoadFrom(const std::string& folder)
{
    RegistersIn registers(folder);
    EXPECT_TRUE(registers.Load()) << registers.m_Error;
    return registers.m_Registers;
}

std::vector<std::string> NamesIn(const std::string& folder)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

using Names = std::vector<std::string>;

} // namespace

TEST(RegisterFile, WithoutAFileAllRegistersAre0)
{
    const TemporaryFolder folder;
    RegistersIn registers(folder.GetPath());

    EXPECT_TRUE(registers.Load());

    EXPECT_EQ(registers.m_Registers, kNone);
    EXPECT_TRUE(registers.m_Log.Has("Registers: none saved yet, all start at 0"));
    EXPECT_EQ(NamesIn(folder.GetPath()), Names{});
}

TEST(RegisterFile, SavedRegistersAreLoadedAgain)
{
    const TemporaryFolder folder;
    EXPECT_TRUE(RegistersIn(folder.GetPath()).m_File.Save(kNew));
    EXPECT_TRUE(RegistersIn(folder.GetPath()).m_File.Save(kOld));
    RegistersIn registers(folder.GetPath());

    EXPECT_TRUE(registers.Load());

    EXPECT_EQ(registers.m_Registers, kOld);
    EXPECT_TRUE(registers.m_Log.Has("Registers: 3 read"));
    EXPECT_EQ(NamesIn(folder.GetPath()), Names{"station-registers"});
}

TEST(RegisterFile, FormatIsTheSameOnEveryMachine)
{
    const TemporaryFolder folder;

    EXPECT_TRUE(RegistersIn(folder.GetPath()).m_File.Save(kOld));

    EXPECT_EQ(ToHex(ReadFileText(folder / "station-registers")), ToHex(FromHex(kOldFile)));
}

TEST(RegisterFile, WhatHoldsNoRegistersIsSetAside)
{
    const struct
    {
        const char* m_Name;
        const char* m_File;
    } cases[] = {
        {"empty", ""},
        {"cut off", "5144 5354 4E52 4547 0001 0003 1234 00FF FFFF 8F82 49"},
        {"one byte more", "5144 5354 4E52 4547 0001 0003 1234 00FF FFFF 8F82 49F0 00"},
        {"zeros of the right length", "0000 0000 0000 0000 0000 0000 0000 0000 0000 0000 0000"},
        {"two registers", "5144 5354 4E52 4547 0001 0002 1234 00FF 8F82 49F0"},
        {"something else", "7265 6164 206D 650A"},
    };

    for (const auto& test : cases) {
        SCOPED_TRACE(test.m_Name);
        const TemporaryFolder folder;
        WriteFileText(folder / "station-registers", FromHex(test.m_File));
        RegistersIn registers(folder.GetPath());

        EXPECT_TRUE(registers.Load());

        EXPECT_EQ(registers.m_Registers, kNone);
        EXPECT_TRUE(registers.m_Log.Has(
            "Registers: the file is damaged and now named station-registers.damaged; all start at 0"));
        EXPECT_EQ(NamesIn(folder.GetPath()), Names{"station-registers.damaged"});
        EXPECT_EQ(ToHex(ReadFileText(folder / "station-registers.damaged")), ToHex(FromHex(test.m_File)));
    }
}

TEST(RegisterFile, EveryChangedByteIsNoticed)
{
    const std::string file = FromHex(kOldFile);
    for (std::size_t i = 0; i < file.size(); ++i) {
        SCOPED_TRACE(i);
        const TemporaryFolder folder;
        std::string damaged = file;
        damaged[i] = static_cast<char>(damaged[i] ^ 0x10);
        WriteFileText(folder / "station-registers", damaged);

        EXPECT_EQ(LoadFrom(folder.GetPath()), kNone);

        EXPECT_EQ(NamesIn(folder.GetPath()), Names{"station-registers.damaged"});
    }
}

TEST(RegisterFile, EarlierDamagedFilesAreKept)
{
    const TemporaryFolder folder;
    for (const char* text : {"first", "second", "third"}) {
        WriteFileText(folder / "station-registers", text);
        EXPECT_EQ(LoadFrom(folder.GetPath()), kNone);
    }

    EXPECT_EQ(ReadFileText(folder / "station-registers.damaged"), "first");
    EXPECT_EQ(ReadFileText(folder / "station-registers.damaged_2"), "second");
    EXPECT_EQ(ReadFileText(folder / "station-registers.damaged_3"), "third");
}

TEST(RegisterFile, LinkThatLeadsNowhereIsKeptLikeAnEarlierDamagedFile)
{
    const TemporaryFolder folder;
    std::filesystem::create_symlink("nowhere", folder / "station-registers.damaged");
    WriteFileText(folder / "station-registers", "damaged");

    EXPECT_EQ(LoadFrom(folder.GetPath()), kNone);

    EXPECT_EQ(std::filesystem::read_symlink(folder / "station-registers.damaged"), "nowhere");
    EXPECT_EQ(ReadFileText(folder / "station-registers.damaged_2"), "damaged");
}

TEST(RegisterFile, DamagedFileThatCannotBeSetAsideIsAnError)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "station-registers", "foreign");
    RegistersIn registers(folder.GetPath());
    const FaultPlan refused("rename", 1, EACCES);

    EXPECT_FALSE(registers.Load());

    EXPECT_EQ(registers.m_Error,
              folder / "station-registers" + " is damaged and cannot be set aside: Permission denied");
    EXPECT_EQ(ReadFileText(folder / "station-registers"), "foreign");
}

TEST(RegisterFile, FileThatCannotBeReadIsAnErrorAndLeftAlone)
{
    const TemporaryFolder folder;
    ASSERT_TRUE(std::filesystem::create_directory(folder / "station-registers"));
    RegistersIn registers(folder.GetPath());

    EXPECT_FALSE(registers.Load());

    EXPECT_EQ(registers.m_Error, "cannot read " + folder / "station-registers" + ": Is a directory");
    EXPECT_EQ(NamesIn(folder.GetPath()), Names{"station-registers"});
}

TEST(RegisterFile, FileThatCannotBeOpenedIsAnErrorAndLeftAlone)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "station-registers", FromHex(kOldFile));
    RegistersIn registers(folder.GetPath());
    {
        const FaultPlan refused("open", 1, EACCES);
        EXPECT_FALSE(registers.Load());
    }

    EXPECT_EQ(registers.m_Error, "cannot read " + folder / "station-registers" + ": Permission denied");
    EXPECT_EQ(LoadFrom(folder.GetPath()), kOld);
}

TEST(RegisterFile, LeftoverOfAKilledStationIsNotRead)
{
    const TemporaryFolder folder;
    EXPECT_TRUE(RegistersIn(folder.GetPath()).m_File.Save(kOld));
    WriteFileText(folder / "station-registers.new", FromHex("5144 5354 4E52"));

    EXPECT_EQ(LoadFrom(folder.GetPath()), kOld);
    EXPECT_TRUE(RegistersIn(folder.GetPath()).m_File.Save(kNew));

    EXPECT_EQ(LoadFrom(folder.GetPath()), kNew);
    EXPECT_EQ(NamesIn(folder.GetPath()), Names{"station-registers"});
}

TEST(RegisterFile, WhicheverCallFailsTheOldRegistersStay)
{
    const struct
    {
        const char* m_Function;
        int m_Error;
        const char* m_What;
        const char* m_Reason;
    } cases[] = {
        {"open", EACCES, "cannot write ", "Permission denied"},
        {"write", ENOSPC, "cannot write ", "No space left on device"},
        {"close", EIO, "cannot write ", "Input/output error"},
        {"rename", EROFS, "cannot rename ", "Read-only file system"},
    };

    for (const auto& test : cases) {
        SCOPED_TRACE(test.m_Function);
        const TemporaryFolder folder;
        RegistersIn registers(folder.GetPath());
        ASSERT_TRUE(registers.m_File.Save(kOld));
        {
            const FaultPlan plan(test.m_Function, 1, test.m_Error);
            EXPECT_FALSE(registers.m_File.Save(kNew));
            EXPECT_TRUE(plan.HasFailed());
        }

        EXPECT_EQ(LoadFrom(folder.GetPath()), kOld);
        EXPECT_EQ(NamesIn(folder.GetPath()), Names{"station-registers"});
        EXPECT_TRUE(registers.m_Log.Has("Registers: cannot be saved, writing them is refused: " +
                                        (test.m_What + folder / "station-registers.new: ") + test.m_Reason));
    }
}

TEST(RegisterFile, FailuresInARowAreLoggedOnceAndTheNextSuccessToo)
{
    const TemporaryFolder folder;
    RegistersIn registers(folder.GetPath());
    {
        const FaultPlan full("write", 1, ENOSPC, FaultPlan::Repeat::Forever);
        EXPECT_FALSE(registers.m_File.Save(kOld));
    }
    {
        const FaultPlan refused("open", 1, EACCES);
        EXPECT_FALSE(registers.m_File.Save(kNew));
    }
    EXPECT_TRUE(registers.m_File.Save(kOld));
    EXPECT_TRUE(registers.m_File.Save(kNew));

    const std::string first = "cannot write " + folder / "station-registers.new: No space left on device";
    EXPECT_EQ(registers.m_Log.GetTexts(), (Names{"Registers: cannot be saved, writing them is refused: " + first,
                                                 "Registers: saved again; times refused: 2; at first: " + first}));
}

TEST(RegisterFile, FailuresAreCountedAnewAfterASuccess)
{
    const TemporaryFolder folder;
    RegistersIn registers(folder.GetPath());
    const auto failWith = [&](int error) {
        const FaultPlan plan("write", 1, error);
        EXPECT_FALSE(registers.m_File.Save(kOld));
    };

    failWith(ENOSPC);
    EXPECT_TRUE(registers.m_File.Save(kOld));
    failWith(EIO);
    EXPECT_TRUE(registers.m_File.Save(kNew));

    const std::string second = "cannot write " + folder / "station-registers.new: Input/output error";
    EXPECT_TRUE(registers.m_Log.Has("Registers: cannot be saved, writing them is refused: " + second));
    EXPECT_TRUE(registers.m_Log.Has("Registers: saved again; times refused: 1; at first: " + second));
}

TEST(RegisterFile, FullDiskKeepsTheOldRegistersUntilThereIsRoom)
{
    SmallFileSystem disk("size=256k");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    RegistersIn registers(disk.GetPath());
    ASSERT_TRUE(registers.m_File.Save(kOld));
    std::ofstream(disk / "filler") << std::string(256 * 1024, 'x'); // what there is room for

    EXPECT_FALSE(registers.m_File.Save(kNew));
    EXPECT_EQ(LoadFrom(disk.GetPath()), kOld);
    ASSERT_TRUE(std::filesystem::remove(disk / "filler"));
    EXPECT_TRUE(registers.m_File.Save(kNew));

    EXPECT_EQ(LoadFrom(disk.GetPath()), kNew);
    const std::string reason = "cannot write " + disk / "station-registers.new: No space left on device";
    EXPECT_EQ(registers.m_Log.GetTexts(), (Names{"Registers: cannot be saved, writing them is refused: " + reason,
                                                 "Registers: saved again; times refused: 1; at first: " + reason}));
}

TEST(RegisterFile, DiskWithRoomForAPartKeepsTheOldRegisters)
{
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    SmallFileSystem disk("size=" + std::to_string(4 * page));
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    const std::size_t count = page / 4 * 3; // two pages; the third of the four is what is left
    const std::vector<uint16_t> old(count, 1);
    const std::vector<uint16_t> changed(count, 2);
    RecordingLog log;
    RegisterFile file(disk.GetPath(), log);
    ASSERT_TRUE(file.Save(old));
    WriteFileText(disk / "filler", std::string(page, 'x'));

    EXPECT_FALSE(file.Save(changed));

    std::vector<uint16_t> loaded(count);
    std::string error;
    EXPECT_TRUE(file.Load(loaded, error)) << error;
    EXPECT_EQ(loaded, old);
    EXPECT_TRUE(log.Has("Registers: cannot be saved, writing them is refused: cannot write " +
                        disk / "station-registers.new: only a part could be written; the disk may be full"));
}

TEST(RegisterFile, ReadOnlyDiskIsReadAndNotWritten)
{
    SmallFileSystem disk("size=64k");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    RegistersIn registers(disk.GetPath());
    ASSERT_TRUE(registers.m_File.Save(kOld));
    ASSERT_TRUE(disk.MakeReadOnly());

    EXPECT_FALSE(registers.m_File.Save(kNew));

    EXPECT_EQ(LoadFrom(disk.GetPath()), kOld);
    EXPECT_TRUE(registers.m_Log.Has("Registers: cannot be saved, writing them is refused: cannot write " +
                                    disk / "station-registers.new: Read-only file system"));
}

TEST(RegisterFile, VanishedFolderIsAFailureUntilItIsBack)
{
    const TemporaryFolder folder;
    ASSERT_TRUE(std::filesystem::create_directory(folder / "station"));
    RegistersIn registers(folder / "station");
    ASSERT_TRUE(registers.m_File.Save(kOld));
    std::filesystem::remove_all(folder / "station");

    EXPECT_FALSE(registers.m_File.Save(kNew));
    ASSERT_TRUE(std::filesystem::create_directory(folder / "station"));
    EXPECT_TRUE(registers.m_File.Save(kNew));

    EXPECT_EQ(LoadFrom(folder / "station"), kNew);
}

// The child saves sets whose registers all have one value, 1, 2, 3 and so on, and is killed somewhere in the middle.
TEST(RegisterFile, KillAtAnyMomentLeavesTheOldOrTheNewSet)
{
    using Count = std::atomic<unsigned int>;
    void* const shared = ::mmap(nullptr, sizeof(Count), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    Count& saved = *new (shared) Count;
    std::array<uint16_t, 1024> registers;

    for (unsigned int round = 0; round < 40; ++round) {
        SCOPED_TRACE(round);
        const TemporaryFolder folder;
        saved.store(0);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            COutputLogNull log;
            RegisterFile file(folder.GetPath(), log);
            for (unsigned int value = 1; value <= 0xFFFF; ++value) {
                registers.fill(static_cast<uint16_t>(value));
                if (!file.Save(registers))
                    ::_exit(1);
                saved.store(value);
            }
            ::_exit(0);
        }
        while (saved.load() < 1 + round % 8 && ::waitpid(child, nullptr, WNOHANG) == 0) {
            // The kill is to come at any moment of a save, so nothing waits here.
        }
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);

        RecordingLog log;
        std::string error;
        ASSERT_TRUE(RegisterFile(folder.GetPath(), log).Load(registers, error)) << error;
        EXPECT_TRUE(log.Has("Registers: 1024 read"));
        const unsigned int acknowledged = saved.load();
        EXPECT_TRUE(registers[0] == acknowledged || registers[0] == acknowledged + 1)
            << registers[0] << " after " << acknowledged;
        EXPECT_EQ(std::count(registers.begin(), registers.end(), registers[0]), 1024);
    }

    ::munmap(shared, sizeof(Count));
}

TEST(StationFolder, MissingFolderIsCreated)
{
    const TemporaryFolder parent;
    StationFolder folder;
    std::string error;

    EXPECT_TRUE(folder.Open(parent / "station", error)) << error;

    EXPECT_EQ(folder.GetPath().GetPath(), parent / "station");
    EXPECT_EQ(NamesIn(parent / "station"), Names{"station.lock"});
}

TEST(StationFolder, ExistingFolderIsTakenAsItIs)
{
    const TemporaryFolder parent;
    WriteFileText(parent / "other", "left alone");
    StationFolder folder;
    std::string error;

    EXPECT_TRUE(folder.Open(parent.GetPath(), error)) << error;

    EXPECT_EQ(ReadFileText(parent / "other"), "left alone");
}

TEST(StationFolder, DefaultIsAHiddenFolderInTheHomeFolder)
{
    const TemporaryFolder home;
    const ScopedVariable scope("HOME", home.GetPath().c_str());
    StationFolder folder;
    std::string error;

    EXPECT_TRUE(folder.Open("", error)) << error;

    EXPECT_EQ(folder.GetPath().GetPath(), home / ".quendrelscada");
    EXPECT_TRUE(std::filesystem::is_directory(home / ".quendrelscada"));
}

TEST(StationFolder, DefaultNeedsAHomeFolder)
{
    for (const char* home : {static_cast<const char*>(nullptr), ""}) {
        SCOPED_TRACE(home == nullptr ? "not set" : "empty");
        const ScopedVariable scope("HOME", home);
        StationFolder folder;
        std::string error;

        EXPECT_FALSE(folder.Open("", error));

        EXPECT_EQ(error, "HOME is not set; name a folder for the log and the registers with -logdir");
    }
}

TEST(StationFolder, NamedFolderNeedsNoHomeFolder)
{
    const TemporaryFolder parent;
    const ScopedVariable scope("HOME", nullptr);
    StationFolder folder;
    std::string error;

    EXPECT_TRUE(folder.Open(parent.GetPath(), error)) << error;
}

TEST(StationFolder, WhyAFolderCannotBeHadIsSaid)
{
    const TemporaryFolder parent;
    WriteFileText(parent / "file", "");
    const std::string longName(300, 'x');

    const struct
    {
        std::string m_Folder;
        std::string m_Error;
    } cases[] = {
        {parent / "no/parent", "cannot create the folder " + parent / "no/parent" + ": No such file or directory"},
        {parent / longName, "cannot create the folder " + parent / longName + ": File name too long"},
        {parent / "file/below", "cannot create the folder " + parent / "file/below" + ": Not a directory"},
        {parent / "file", "cannot open " + parent / "file/station.lock" + ": Not a directory"},
    };

    for (const auto& test : cases) {
        SCOPED_TRACE(test.m_Folder);
        StationFolder folder;
        std::string error;
        EXPECT_FALSE(folder.Open(test.m_Folder, error));
        EXPECT_EQ(error, test.m_Error);
    }
}

TEST(StationFolder, BelongsToOneStationAtATime)
{
    const TemporaryFolder parent;
    std::string error;
    {
        StationFolder first;
        ASSERT_TRUE(first.Open(parent.GetPath(), error)) << error;
        StationFolder second;

        EXPECT_FALSE(second.Open(parent.GetPath(), error));

        EXPECT_EQ(error, "another station uses the folder " + parent.GetPath() +
                             "; give this one a folder of its own with -logdir");
    }
    StationFolder third;

    EXPECT_TRUE(third.Open(parent.GetPath(), error)) << error;
}

TEST(StationFolder, ReadOnlyDiskIsAnError)
{
    SmallFileSystem disk("size=64k");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    ASSERT_TRUE(disk.MakeReadOnly());
    StationFolder folder;
    std::string error;

    EXPECT_FALSE(folder.Open(disk.GetPath(), error));

    EXPECT_EQ(error, "cannot open " + disk / "station.lock" + ": Read-only file system");
}
