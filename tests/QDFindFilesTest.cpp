#include <QDPlatform/QDFindFiles.h>

#include "FaultPlan.h"
#include "OpenDescriptors.h"
#include "SmallFileSystem.h"
#include "TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

static_assert(!std::is_copy_constructible_v<CQDFindFiles> && !std::is_move_constructible_v<CQDFindFiles>);
static_assert(!std::is_copy_assignable_v<CQDFindFiles> && !std::is_move_assignable_v<CQDFindFiles>);
static_assert(!std::is_polymorphic_v<CQDFindFiles>);
static_assert(std::is_same_v<decltype(std::declval<const CQDFindFiles&>().GetSize()), std::uint32_t>);

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace
{

constexpr long long kTicksOf1970 = 116444736000000000;

std::string NameOf(const CQDFindFiles& search)
{
    std::string name = "left from before";
    search.GetName(name);
    return name;
}

long long TicksOf(const CQDFindFiles& search)
{
    CQDTimestamp time(42);
    search.GetModificationTime(time);
    return time.GetValue();
}

void ExpectNoEntry(const CQDFindFiles& search)
{
    EXPECT_EQ(NameOf(search), "");
    EXPECT_EQ(search.GetSize(), 0u);
    EXPECT_EQ(TicksOf(search), kTicksOf1970);
    EXPECT_FALSE(search.IsDirectory());
}

std::vector<std::string> FindAll(const std::string& pathAndPattern)
{
    std::vector<std::string> names;
    CQDFindFiles search;
    for (bool found = search.FirstFile(pathAndPattern); found; found = search.NextFile())
        names.push_back(NameOf(search));
    return names;
}

// A sparse file.
void MakeFileOfSize(const std::string& path, long long size)
{
    WriteFileText(path, "");
    ASSERT_EQ(::truncate(path.c_str(), static_cast<off_t>(size)), 0) << path;
}

void SetModificationTime(const std::string& path, long long seconds, int nanoseconds)
{
    timespec times[2] = {};
    times[1].tv_sec = static_cast<time_t>(seconds);
    times[1].tv_nsec = nanoseconds;
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

// The descriptor that is open on the folder; -1 when none is.
int DescriptorOn(const TemporaryFolder& folder)
{
    return FindDescriptorOf(std::filesystem::canonical(folder.GetPath()));
}

} // namespace

// --- Which entries are found ---------------------------------------------------------------------------------------

TEST(CQDFindFiles, StarFindsNamesWithAnythingInItsPlace)
{
    const TemporaryFolder folder;
    for (const char* name : {"log_001.log", "log_.log", "LOG_001.log", "log_001.txt", "xlog_001.log"})
        WriteFileText(folder / name, "");

    EXPECT_THAT(FindAll(folder / "log_*.log"), UnorderedElementsAre("log_001.log", "log_.log"));
}

TEST(CQDFindFiles, QuestionMarkFindsNamesWithOneByteInItsPlace)
{
    const TemporaryFolder folder;
    for (const char* name : {"abc", "ac", "abbc", "aBc"})
        WriteFileText(folder / name, "");

    EXPECT_THAT(FindAll(folder / "a?c"), UnorderedElementsAre("abc", "aBc"));
}

TEST(CQDFindFiles, NameWithoutWildcardFindsThatEntry)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "abc", "");
    WriteFileText(folder / "abcd", "");

    EXPECT_THAT(FindAll(folder / "abc"), ElementsAre("abc"));
}

TEST(CQDFindFiles, DotAndDotDotTakePartLikeAnyOther)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "");
    WriteFileText(folder / ".hidden", "");

    EXPECT_THAT(FindAll(folder / "*"), UnorderedElementsAre(".", "..", "file", ".hidden"));
    EXPECT_THAT(FindAll(folder / "."), ElementsAre("."));
    EXPECT_THAT(FindAll(folder / "??"), ElementsAre(".."));
}

TEST(CQDFindFiles, EmptyPatternFindsNothing)
{
    const TemporaryFolder folder;

    EXPECT_THAT(FindAll(folder.GetPath() + "/"), IsEmpty());
}

TEST(CQDFindFiles, WildcardInTheFolderIsNoWildcard)
{
    const TemporaryFolder folder;
    ASSERT_EQ(::mkdir((folder / "sub").c_str(), 0700), 0);
    ASSERT_EQ(::mkdir((folder / "s*b").c_str(), 0700), 0);
    WriteFileText(folder / "sub/in sub", "");
    WriteFileText(folder / "s*b/in s*b", "");

    EXPECT_THAT(FindAll(folder / "s*b/in*"), ElementsAre("in s*b"));
}

TEST(CQDFindFiles, PatternWithoutFolderFindsNothing)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "a.log", "");
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(folder.GetPath());

    const std::vector<std::string> bare = FindAll("*.log");
    const std::vector<std::string> withFolder = FindAll("./*.log");

    std::filesystem::current_path(before);
    EXPECT_THAT(bare, IsEmpty());
    EXPECT_THAT(withFolder, ElementsAre("a.log"));
}

TEST(CQDFindFiles, PatternInTheRootFolderFindsNothing)
{
    EXPECT_THAT(FindAll("/*"), IsEmpty());
}

TEST(CQDFindFiles, EmptyTextFindsNothing)
{
    EXPECT_THAT(FindAll(""), IsEmpty());
}

TEST(CQDFindFiles, FolderIsCutTo1024Bytes)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "");
    std::string path = folder.GetPath(); // a path of exactly 1024 bytes to the same folder
    while (path.size() < 1024)
        path += path.size() % 2 == 0 ? "/." : "/";
    ASSERT_EQ(path.size(), 1024u);

    EXPECT_THAT(FindAll(path + "/f*"), ElementsAre("file"));
    EXPECT_THAT(FindAll(path + "/missing/f*"), ElementsAre("file"));
    EXPECT_THAT(FindAll(path.substr(0, 1000) + "/missing/f*"), IsEmpty());
}

TEST(CQDFindFiles, FolderEndsAtANul)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "seven b");
    CQDFindFiles search;

    ASSERT_TRUE(search.FirstFile(folder.GetPath() + std::string("\0missing/f*", 11)));

    EXPECT_EQ(NameOf(search), "file");
    EXPECT_EQ(search.GetSize(), 7u);
    EXPECT_FALSE(search.IsDirectory());
}

TEST(CQDFindFiles, PatternIsCutTo1024Bytes)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "");

    EXPECT_THAT(FindAll(folder / (std::string(1020, '*') + "file")), ElementsAre("file"));
    EXPECT_THAT(FindAll(folder / (std::string(1020, '*') + "filez")), ElementsAre("file"));
    EXPECT_THAT(FindAll(folder / (std::string(1019, '*') + "filez")), IsEmpty());
}

TEST(CQDFindFiles, FindsEveryEntryOfALargeFolder)
{
    const TemporaryFolder folder; // more than one system call brings
    for (int i = 0; i < 2000; ++i)
        WriteFileText(folder / ("entry_with_a_long_name_" + std::to_string(i)), "");

    std::vector<std::string> names = FindAll(folder / "entry*");

    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    EXPECT_EQ(names.size(), 2000u);
}

// --- What is told of an entry --------------------------------------------------------------------------------------

TEST(CQDFindFiles, NameNeedNotBeWellFormedText)
{
    const TemporaryFolder folder;
    const std::string name = "\xFF\xC3(\x80.log";
    WriteFileText(folder / name, "");

    EXPECT_THAT(FindAll(folder / "*.log"), ElementsAre(name));
}

TEST(CQDFindFiles, NameOf255BytesIsWhole)
{
    const TemporaryFolder folder;
    const std::string name(255, 'n');
    WriteFileText(folder / name, "");

    EXPECT_THAT(FindAll(folder / "n*"), ElementsAre(name));
}

TEST(CQDFindFiles, SizeIsInBytesAndCappedAt32Bits)
{
    struct Case
    {
        const char* m_pName;
        long long m_FileSize;
        uint32_t m_Size;
    };

    const Case cases[] = {
        {"empty", 0, 0},
        {"five", 5, 5},
        {"two GiB", 0x80000000, 0x80000000},
        {"largest", 0xFFFFFFFF, 0xFFFFFFFF},
        {"one more", 0x100000000, 0xFFFFFFFF},
        {"low bits of a small file", 0x100000005, 0xFFFFFFFF},
    };
    const TemporaryFolder folder;
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_pName);
        ASSERT_NO_FATAL_FAILURE(MakeFileOfSize(folder / testCase.m_pName, testCase.m_FileSize));
        CQDFindFiles search;

        ASSERT_TRUE(search.FirstFile(folder / testCase.m_pName));

        EXPECT_EQ(search.GetSize(), testCase.m_Size);
    }
}

TEST(CQDFindFiles, ModificationTimeIsInTicks)
{
    struct Case
    {
        const char* m_pName;
        long long m_Seconds;
        int m_Nanoseconds;
        long long m_Ticks;
    };

    const Case cases[] = {
        {"1970", 0, 0, 116444736000000000},
        {"1969, one tick before", -1, 999999900, 116444735999999999},
        {"2001-09-09 01:46:40.1234567", 1000000000, 123456789, 126444736001234567},
        {"2100-01-01", 4102444800, 0, 157469184000000000},
    };
    const TemporaryFolder folder;
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_pName);
        WriteFileText(folder / testCase.m_pName, "");
        ASSERT_NO_FATAL_FAILURE(
            SetModificationTime(folder / testCase.m_pName, testCase.m_Seconds, testCase.m_Nanoseconds));
        CQDFindFiles search;

        ASSERT_TRUE(search.FirstFile(folder / testCase.m_pName));

        EXPECT_EQ(TicksOf(search), testCase.m_Ticks);
    }
}

TEST(CQDFindFiles, DirectoriesAndLinksToThemAreDirectories)
{
    const TemporaryFolder folder;
    ASSERT_EQ(::mkdir((folder / "sub").c_str(), 0700), 0);
    ASSERT_EQ(::symlink("sub", (folder / "link to sub").c_str()), 0);
    WriteFileText(folder / "file", "");
    CQDFindFiles search;

    for (const char* name : {"sub", "link to sub", ".", ".."}) {
        ASSERT_TRUE(search.FirstFile(folder / name)) << name;
        EXPECT_TRUE(search.IsDirectory()) << name;
    }
    ASSERT_TRUE(search.FirstFile(folder / "file"));
    EXPECT_FALSE(search.IsDirectory());
}

TEST(CQDFindFiles, LinkToAFileTellsOfTheFile)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "seven b");
    ASSERT_NO_FATAL_FAILURE(SetModificationTime(folder / "file", 1, 0));
    ASSERT_EQ(::symlink("file", (folder / "link").c_str()), 0);
    CQDFindFiles search;

    ASSERT_TRUE(search.FirstFile(folder / "link"));

    EXPECT_EQ(NameOf(search), "link");
    EXPECT_EQ(search.GetSize(), 7u);
    EXPECT_EQ(TicksOf(search), 116444736010000000);
}

TEST(CQDFindFiles, DanglingLinkIsFoundWithoutItsTarget)
{
    const TemporaryFolder folder;
    ASSERT_EQ(::symlink("nowhere", (folder / "link").c_str()), 0);
    CQDFindFiles search;

    ASSERT_TRUE(search.FirstFile(folder / "link"));

    EXPECT_EQ(NameOf(search), "link");
    EXPECT_EQ(search.GetSize(), 0u);
    EXPECT_EQ(TicksOf(search), kTicksOf1970);
    EXPECT_FALSE(search.IsDirectory());
}

TEST(CQDFindFiles, EntryThatCannotBeLookedUpKeepsNothingOfTheEntryBefore)
{
    const TemporaryFolder folder;
    ASSERT_EQ(::mkdir((folder / "d1").c_str(), 0700), 0);
    ASSERT_EQ(::mkdir((folder / "d2").c_str(), 0700), 0);
    CQDFindFiles search;
    const FaultPlan secondLookUp("stat", 2, EACCES);
    ASSERT_TRUE(search.FirstFile(folder / "d?"));
    ASSERT_TRUE(search.IsDirectory());
    ASSERT_NE(TicksOf(search), kTicksOf1970);

    ASSERT_TRUE(search.NextFile());

    EXPECT_TRUE(secondLookUp.HasFailed());
    EXPECT_EQ(search.GetSize(), 0u);
    EXPECT_EQ(TicksOf(search), kTicksOf1970);
    EXPECT_FALSE(search.IsDirectory());
}

TEST(CQDFindFiles, DotAndDotDotAreDirectoriesEvenIfTheyCannotBeLookedUp)
{
    const TemporaryFolder folder;
    const FaultPlan everyLookUp("stat", 1, EACCES, FaultPlan::Repeat::Forever);
    CQDFindFiles search;

    for (const char* name : {".", ".."}) {
        ASSERT_TRUE(search.FirstFile(folder / name)) << name;
        EXPECT_TRUE(search.IsDirectory()) << name;
    }
}

TEST(CQDFindFiles, LooksUpOnlyTheEntriesThatMatch)
{
    const TemporaryFolder folder;
    for (const char* name : {"a1", "a2", "b1", "b2", "b3"})
        WriteFileText(folder / name, "");
    const FaultPlan lookUps("stat", 1000, EIO);

    ASSERT_EQ(FindAll(folder / "a*").size(), 2u);

    EXPECT_EQ(lookUps.GetCallCount(), 2);
}

// --- Without an entry ----------------------------------------------------------------------------------------------

TEST(CQDFindFiles, HasNoEntryBeforeTheFirstSearch)
{
    CQDFindFiles search;

    ExpectNoEntry(search);
    EXPECT_FALSE(search.NextFile());
}

TEST(CQDFindFiles, HasNoEntryAfterTheEnd)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "text");
    CQDFindFiles search;
    ASSERT_TRUE(search.FirstFile(folder / "f*"));

    EXPECT_FALSE(search.NextFile());

    ExpectNoEntry(search);
    EXPECT_FALSE(search.NextFile());
    ExpectNoEntry(search);
}

TEST(CQDFindFiles, HasNoEntryAfterASearchThatDidNotStart)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "text");
    CQDFindFiles search;
    ASSERT_TRUE(search.FirstFile(folder / "f*"));

    EXPECT_FALSE(search.FirstFile(folder / "missing/f*"));

    ExpectNoEntry(search);
    EXPECT_FALSE(search.NextFile());
}

TEST(CQDFindFiles, SearchGoesOnWhileItsFolderIsRemoved)
{
    const TemporaryFolder folder;
    ASSERT_EQ(::mkdir((folder / "sub").c_str(), 0700), 0);
    WriteFileText(folder / "sub/file", "");
    CQDFindFiles search;
    ASSERT_TRUE(search.FirstFile(folder / "sub/f*"));
    std::filesystem::remove_all(folder / "sub");

    EXPECT_EQ(NameOf(search), "file");
    EXPECT_FALSE(search.NextFile());
    ExpectNoEntry(search);
}

// --- Folders that cannot be read -----------------------------------------------------------------------------------

TEST(CQDFindFiles, FolderThatCannotBeOpenedFindsNothing)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "");
    ASSERT_EQ(::symlink("loop", (folder / "loop").c_str()), 0);

    EXPECT_THAT(FindAll(folder / "missing/*"), IsEmpty());
    EXPECT_THAT(FindAll(folder / "file/*"), IsEmpty());
    EXPECT_THAT(FindAll(folder / "loop/*"), IsEmpty());
    EXPECT_THAT(FindAll(folder / (std::string(300, 'n') + "/*")), IsEmpty());
}

TEST(CQDFindFiles, FolderWithoutPermissionFindsNothing)
{
    const TemporaryFolder folder;
    ASSERT_EQ(::chmod(folder.GetPath().c_str(), 0), 0);
    {
        const UnprivilegedUser nobody;

        EXPECT_THAT(FindAll(folder / "*"), IsEmpty());
    }
    ASSERT_EQ(::chmod(folder.GetPath().c_str(), 0700), 0); // or it could not be removed
}

TEST(CQDFindFiles, ReadErrorEndsTheSearch)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "f1", "");
    WriteFileText(folder / "f2", "");
    CQDFindFiles search;
    ASSERT_TRUE(search.FirstFile(folder / "f?"));
    {
        const FaultPlan read("readdir", 1, EIO);

        EXPECT_FALSE(search.NextFile());
        EXPECT_TRUE(read.HasFailed());
    }
    ExpectNoEntry(search);
    EXPECT_FALSE(search.NextFile());
    EXPECT_EQ(DescriptorOn(folder), -1);
}

TEST(CQDFindFiles, SignalDoesNotEndTheSearch)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "");
    for (const char* function : {"opendir", "readdir"}) {
        const FaultPlan interrupted(function, 1, EINTR);

        EXPECT_THAT(FindAll(folder / "f*"), ElementsAre("file")) << function;
        EXPECT_TRUE(interrupted.HasFailed()) << function;
    }
}

// --- The descriptor ------------------------------------------------------------------------------------------------

TEST(CQDFindFiles, HoldsOneDescriptorWhileItSearches)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "");
    CQDFindFiles search;
    const int before = CountOpenDescriptors();

    ASSERT_TRUE(search.FirstFile(folder / "f*"));
    EXPECT_EQ(CountOpenDescriptors(), before + 1);
    EXPECT_EQ(::fcntl(DescriptorOn(folder), F_GETFD), FD_CLOEXEC);

    ASSERT_FALSE(search.NextFile());
    EXPECT_EQ(CountOpenDescriptors(), before);
}

TEST(CQDFindFiles, NewSearchClosesTheOldOneFirst)
{
    const TemporaryFolder first;
    const TemporaryFolder second;
    WriteFileText(first / "file", "");
    WriteFileText(second / "other", "");
    CQDFindFiles search;
    ASSERT_TRUE(search.FirstFile(first / "f*"));

    ASSERT_TRUE(search.FirstFile(second / "o*"));
    EXPECT_EQ(NameOf(search), "other");
    EXPECT_EQ(DescriptorOn(first), -1);
    EXPECT_NE(DescriptorOn(second), -1);

    ASSERT_FALSE(search.FirstFile(first / "missing/*"));
    EXPECT_EQ(DescriptorOn(second), -1);
}

TEST(CQDFindFiles, DestructorClosesARunningSearch)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "");
    {
        CQDFindFiles search;
        ASSERT_TRUE(search.FirstFile(folder / "f*"));
    }

    EXPECT_EQ(DescriptorOn(folder), -1);
}

TEST(CQDFindFiles, SearchThatFindsNothingLeavesNothingOpen)
{
    const TemporaryFolder folder;
    CQDFindFiles search;

    ASSERT_FALSE(search.FirstFile(folder / "f*"));

    EXPECT_EQ(DescriptorOn(folder), -1);
}
