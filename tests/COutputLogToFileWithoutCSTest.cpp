#include <QDPlatform/COutputLogToFileWithoutCS.h>

#include <QDPlatform/QDFilePath.h>

#include "AllocationCounter.h"
#include "ChildProcess.h"
#include "FaultPlan.h"
#include "LogFileText.h"
#include "ScopedVariable.h"
#include "SmallFileSystem.h"
#include "TemporaryFolder.h"
#include "VirtualSlot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

// Counts what the C library's functions allocate too, which AllocationCounter does not see; not under a sanitizer,
// which has a malloc() of its own.
static std::atomic<std::size_t> g_MallocCount{0};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QD_TEST_FOREIGN_MALLOC
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define QD_TEST_FOREIGN_MALLOC
#endif
#endif

#ifndef QD_TEST_FOREIGN_MALLOC
extern "C" void* __libc_malloc(std::size_t size);

extern "C" void* malloc(std::size_t size) noexcept
{
    g_MallocCount.fetch_add(1);
    return __libc_malloc(size);
}
#endif

namespace
{

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr int kNever = std::numeric_limits<int>::max(); // a FaultPlan that only counts
constexpr unsigned int kTimeLength = 24;                // with its blank
constexpr unsigned int kSmallFileSize = 16384;          // of a log of the smallest total

constexpr const char* kClosing = "Closing file";
constexpr const char* kClosingFull = "Closing file (file reached size limit )";

// The smallest log, 6 files of 16 KiB, with its steps within reach.
class SmallLog : public COutputLogToFileWithoutCS
{
public:
    SmallLog() : COutputLogToFileWithoutCS(0) {}

    using COutputLogToFileWithoutCS::DeleteOldFiles;
    using COutputLogToFileWithoutCS::FlushCurrentLine;
    using COutputLogToFileWithoutCS::OpenLastFile;
    using COutputLogToFileWithoutCS::OpenNewFile;
    using COutputLogToFileWithoutCS::WriteByteOrderMark;
    using COutputLogToFileWithoutCS::WriteNewLine;
    using COutputLogToFileWithoutCS::WriteText;

    void Append(const std::string& text)
    {
        AppendMessage(Info, 0, text.data(), static_cast<unsigned int>(text.size()));
    }
};

// Records what passes the virtual functions, and logs it.
class WatchedLog : public COutputLogToFileWithoutCS
{
public:
    void AppendMessage(LogType type, int code, const qdchar* text, unsigned int length) override
    {
        const std::string message(text, length);
        m_Calls.push_back("message " + message);
        if (m_OnMessage)
            m_OnMessage(message);
        COutputLogToFileWithoutCS::AppendMessage(type, code, text, length);
    }

    void PrintRaw(const char* text) override
    {
        m_Calls.push_back(std::string("raw ") + text);
        COutputLogToFileWithoutCS::PrintRaw(text);
    }

    std::vector<std::string> m_Calls;
    std::function<void(const std::string&)> m_OnMessage; // before the message is logged
};

// Other permissions of a folder, as long as it lives.
class ScopedMode
{
public:
    ScopedMode(std::string path, mode_t mode) : m_Path(std::move(path))
    {
        if (::chmod(m_Path.c_str(), mode) != 0)
            std::abort();
    }

    ScopedMode(const ScopedMode&) = delete;
    ScopedMode& operator=(const ScopedMode&) = delete;

    ~ScopedMode() { ::chmod(m_Path.c_str(), 0755); }

private:
    const std::string m_Path;
};

// The largest size that a write may give a file, as long as it lives: a real write then stops short, and the next one
// fails. It holds for all files of the process, so that nothing may be checked meanwhile, which could print.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(std::uintmax_t size) : m_OldHandler(::signal(SIGXFSZ, SIG_IGN))
    {
        ::getrlimit(RLIMIT_FSIZE, &m_Old);
        rlimit limit = m_Old;
        limit.rlim_cur = static_cast<rlim_t>(size);
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0)
            std::abort();
    }

    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

    ~FileSizeLimit()
    {
        ::setrlimit(RLIMIT_FSIZE, &m_Old);
        ::signal(SIGXFSZ, m_OldHandler);
    }

private:
    void (*const m_OldHandler)(int);
    rlimit m_Old{};
};

std::string NumberedName(const std::string& fileName, unsigned int number)
{
    const std::string digits = std::to_string(number);
    return fileName + '_' + std::string(3 - digits.size(), '0') + digits + ".log";
}

// Makes a file of that size, full of holes.
void MakeFile(const std::string& path, std::uintmax_t size)
{
    WriteFileText(path, "");
    std::filesystem::resize_file(path, size);
}

void MakeFiles(const std::string& folder, const std::vector<unsigned int>& numbers, std::uintmax_t size = 100)
{
    for (const unsigned int number : numbers)
        MakeFile(folder + '/' + NumberedName("log", number), size);
}

std::vector<unsigned int> Range(unsigned int first, unsigned int last)
{
    std::vector<unsigned int> numbers;
    for (unsigned int number = first; number <= last; ++number)
        numbers.push_back(number);
    return numbers;
}

std::vector<std::string> NamesOf(const std::vector<unsigned int>& numbers)
{
    std::vector<std::string> names;
    for (const unsigned int number : numbers)
        names.push_back(NumberedName("log", number));
    return names;
}

// Python's decoder is the reference for what is UTF-8.
bool IsUtf8(const std::string& path)
{
    ChildProcess python(
        {"python3", "-c", "import sys; open(sys.argv[1], 'rb').read().decode('utf-8', 'strict')", path});
    return python.WaitForExit() == 0;
}

static_assert(std::is_same_v<decltype(COutputLogToFileWithoutCS::LogFile::m_Number), unsigned long>);
static_assert(std::is_same_v<decltype(COutputLogToFileWithoutCS::LogFile::m_Size), std::uint32_t>);

// --- Names and sizes -----------------------------------------------------------------------------------------------

TEST(COutputLogToFileWithoutCS, VirtualOperationsHaveTheirSlots)
{
    EXPECT_EQ(VirtualSlot(&COutputLogToFileWithoutCS::Clear), 2); // behind the destructor's two
    EXPECT_EQ(VirtualSlot(&COutputLogToFileWithoutCS::AppendMessage), 3);
    EXPECT_EQ(VirtualSlot(&COutputLogToFileWithoutCS::PrintRaw), 4);
}

struct SizeCase
{
    const char* m_Name;
    long long m_TotalSize;
    unsigned int m_FileSize;
    unsigned int m_FileCount;
};

// A file that holds three quarters of the file size is opened again, one byte more opens the next.
TEST(COutputLogToFileWithoutCS, FileSizeAndNumberFollowFromTheTotal)
{
    constexpr SizeCase kCases[] = {
        {"32 MiB", 0x2000000, 0x400000, 8},
        {"10 MiB", 10 << 20, 0x200000, 5},
        {"16 MiB", 16 << 20, 0x400000, 4},
        {"a byte below 16 MiB", (16 << 20) - 1, 0x200000, 7},
        {"1 GiB", 1 << 30, 0x400000, 256},
        {"100 KiB", 102400, 16384, 6},
        {"a byte more than 128 KiB", 131073, 32768, 4},
        {"a byte below 128 KiB", 131071, 16384, 7},
        {"nothing", 0, 16384, 6},
        {"less than nothing", std::numeric_limits<long long>::min(), 16384, 6},
        {"2^54, a number of files of 2^32", 1LL << 54, 0x400000, 999},
        {"the most", std::numeric_limits<long long>::max(), 0x400000, 999},
    };
    for (const SizeCase& c : kCases) {
        SCOPED_TRACE(c.m_Name);
        const unsigned int lastNumber = std::min(c.m_FileCount + 2, 900u);
        for (const bool isOverQuarters : {false, true}) {
            TemporaryFolder folder;
            MakeFiles(folder.GetPath(), Range(1, lastNumber));
            MakeFiles(folder.GetPath(), {lastNumber}, c.m_FileSize / 4 * 3 + (isOverQuarters ? 1 : 0));
            COutputLogToFileWithoutCS log(c.m_TotalSize);

            ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

            const unsigned int newest = lastNumber + (isOverQuarters ? 1 : 0);
            const unsigned int oldest = newest > c.m_FileCount ? newest - c.m_FileCount + 1 : 1;
            EXPECT_EQ(FolderNames(folder.GetPath()), NamesOf(Range(oldest, newest)));
        }
    }
}

TEST(COutputLogToFileWithoutCS, DefaultIsATotalOf32MiB)
{
    TemporaryFolder folder;
    MakeFiles(folder.GetPath(), Range(1, 10));
    MakeFiles(folder.GetPath(), {10}, 0x300000);
    COutputLogToFileWithoutCS log;

    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

    EXPECT_EQ(FolderNames(folder.GetPath()), NamesOf(Range(3, 10)));
}

TEST(COutputLogToFileWithoutCS, SizesCanBeSetLater)
{
    TemporaryFolder folder;
    MakeFiles(folder.GetPath(), Range(1, 10));
    COutputLogToFileWithoutCS log;

    log.SetMaximumFileSizeCountFromTotalSize(10 << 20);

    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    EXPECT_EQ(FolderNames(folder.GetPath()), NamesOf(Range(6, 10)));
}

struct NameCase
{
    const char* m_FileName;
    const char* m_Pattern;
};

TEST(COutputLogToFileWithoutCS, InvalidCharactersOfTheFileNameBecomeTheirCodes)
{
    constexpr NameCase kCases[] = {
        {"my_log", "my_log_*.log"},
        {"a<b>c:d\"e/f\\g|h?i*j", "a%3Cb%3Ec%3Ad%22e%2Ff%5Cg%7Ch%3Fi%2Aj_*.log"},
        {"::", "%3A%3A_*.log"},
        {"100%", "100%_*.log"},
        {" .\t;'~", " .\t;'~_*.log"},
        {"\xC3\xA4\xFF", "\xC3\xA4\xFF_*.log"},
        {"", "_*.log"},
    };
    for (const NameCase& c : kCases) {
        SCOPED_TRACE(c.m_FileName);
        COutputLogToFileWithoutCS log;
        std::string pattern = "old";

        log.SetLogFileNameReplacingInvalidCharacters(c.m_FileName);

        log.GetLogFileWildCard(pattern);
        EXPECT_EQ(pattern, c.m_Pattern);
    }
}

TEST(COutputLogToFileWithoutCS, NewNameReplacesTheOld)
{
    COutputLogToFileWithoutCS log;
    std::string pattern;

    log.SetLogFileNameReplacingInvalidCharacters("first");
    log.SetLogFileNameReplacingInvalidCharacters("second");

    log.GetLogFileWildCard(pattern);
    EXPECT_EQ(pattern, "second_*.log");
}

TEST(COutputLogToFileWithoutCS, NamesHaveThreeDigits)
{
    TemporaryFolder folder;
    COutputLogToFileWithoutCS log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "my:log"));
    CQDFilePath path;
    std::string name = "old";

    log.GetGeneralLogFileName(name);
    EXPECT_EQ(name, folder / "my%3Alog_nnn.log");
    log.GetLogFilePath(path, 1);
    EXPECT_EQ(path.GetPath(), folder / "my%3Alog_001.log");
    log.GetLogFilePath(path, 42);
    EXPECT_EQ(path.GetPath(), folder / "my%3Alog_042.log");
    log.GetLogFilePath(path, 999);
    EXPECT_EQ(path.GetPath(), folder / "my%3Alog_999.log");
    log.GetLogFilePath(path, 1000);
    EXPECT_EQ(path.GetPath(), folder / "my%3Alog_1000.log");
}

struct ValidateCase
{
    const char* m_Name;
    bool m_IsValid;
    unsigned long m_Number;
};

TEST(COutputLogToFileWithoutCS, ValidNumberHasThreeDigitsAndADotBehind)
{
    constexpr ValidateCase kCases[] = {
        {"log_001.log", true, 1},
        {"log_999.log", true, 999},
        {"log_010.log", true, 10},
        {"my_log_123.log", true, 123},
        {"_500.", true, 500},
        {"log_007.txt", true, 7},
        {"log_001.old.log", true, 1},
        {"log_000.log", false, 0},
        {"log_1.log", false, 0},
        {"log_01.log", false, 0},
        {"log_0001.log", false, 0},
        {"log_1000.log", false, 0},
        {"log_old.log", false, 0},
        {"log_001", false, 0},
        {"log_001log", false, 0},
        {"log_001_.log", false, 0},
        {"log_001_x.log", false, 0},
        {"log_12x.log", false, 0},
        {"log_+12.log", false, 0},
        {"log_-12.log", false, 0},
        {"log_ 12.log", false, 0},
        {"log_0x1.log", false, 0},
        {"log_.log", false, 0},
        {"log_", false, 0},
        {"log_0", false, 0},
        {"001.log", false, 0},
        {"", false, 0},
        {"log_\xB2\xB2\xB2.log", false, 0},
    };
    for (const ValidateCase& c : kCases) {
        SCOPED_TRACE(c.m_Name);
        unsigned long number = 77;

        EXPECT_EQ(COutputLogToFileWithoutCS::ValidateLogFileName(c.m_Name, number), c.m_IsValid);
        EXPECT_EQ(number, c.m_Number);
    }
}

// --- Opening -------------------------------------------------------------------------------------------------------

TEST(COutputLogToFileWithoutCS, FirstFileBeginsWithItsPathAndTheBanner)
{
    TemporaryFolder folder;
    COutputLogToFileWithoutCS log;

    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "my_log"));

    EXPECT_THAT(FolderNames(folder.GetPath()), ElementsAre("my_log_001.log"));
    const std::string path = folder / "my_log_001.log";
    EXPECT_EQ(LogFileLines(path), HeadLines("Log file " + path));
    EXPECT_THAT(ReadFileText(path), EndsWith(" \t32 Bit OS\n"));
}

TEST(COutputLogToFileWithoutCS, FileOpenedAgainGoesOnBehindAnEmptyLine)
{
    TemporaryFolder folder;
    const std::string path = folder / "log_007.log";
    WriteFileText(path, "earlier\n");
    COutputLogToFileWithoutCS log;

    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

    EXPECT_EQ(LogFileLines(path), (std::vector<std::string>{"earlier", ""} + HeadLines("Re-opened log file " + path)));
}

TEST(COutputLogToFileWithoutCS, EmptyFileIsOpenedAgainAndGetsNoByteOrderMark)
{
    TemporaryFolder folder;
    MakeFiles(folder.GetPath(), {3}, 0);
    COutputLogToFileWithoutCS log;

    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

    EXPECT_THAT(ReadFileText(folder / "log_003.log"), StartsWith("\n2"));
}

TEST(COutputLogToFileWithoutCS, ByteOrderMarkStepWritesNothing)
{
    TemporaryFolder folder;
    SmallLog log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    const std::string before = ReadFileText(folder / "log_001.log");

    log.WriteByteOrderMark();
    log.FlushCurrentLine(true);

    EXPECT_EQ(ReadFileText(folder / "log_001.log"), before);
}

TEST(COutputLogToFileWithoutCS, OpenWhileOpenDoesNothing)
{
    TemporaryFolder folder;
    COutputLogToFileWithoutCS log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    const std::string before = ReadFileText(folder / "log_001.log");

    EXPECT_TRUE(log.Open());

    EXPECT_EQ(ReadFileText(folder / "log_001.log"), before);
}

TEST(COutputLogToFileWithoutCS, OpenAtAnotherLocationWhileOpenGoesOnWithTheOpenFile)
{
    TemporaryFolder first;
    TemporaryFolder second;
    COutputLogToFileWithoutCS log;
    ASSERT_TRUE(log.OpenAtLocation(first.GetPath(), "log"));

    EXPECT_TRUE(log.OpenAtLocation(second.GetPath(), "other"));
    log.Print("text");

    EXPECT_EQ(LogFileLines(first / "log_001.log").back(), "<time> text");
    log.CloseFile();
    log.Print("later");
    EXPECT_EQ(LogFileLines(second / "other_001.log").back(), "<time> later");
}

// The numbers go on, under the new names: so a log has to be closed first.
TEST(COutputLogToFileWithoutCS, FileThatFollowsTheOpenOneHasTheNewNamesAndTheNextNumber)
{
    TemporaryFolder first;
    TemporaryFolder second;
    MakeFiles(first.GetPath(), Range(1, 6));
    for (const unsigned int number : {1, 7, 8})
        WriteFileText(second / NumberedName("other", number), "earlier\n");
    SmallLog log;
    ASSERT_TRUE(log.OpenAtLocation(first.GetPath(), "log"));
    ASSERT_TRUE(log.OpenAtLocation(second.GetPath(), "other"));

    log.Append(std::string(kSmallFileSize, 'x'));

    EXPECT_EQ(LogFileLines(first / "log_006.log").back(), kClosingFull);
    EXPECT_EQ(FolderNames(first.GetPath()), NamesOf(Range(1, 6)));
    EXPECT_THAT(FolderNames(second.GetPath()), ElementsAre("other_007.log", "other_008.log"));
    EXPECT_EQ(LogFileLines(second / "other_007.log"),
              (HeadLines("Log file " + second / "other_007.log") +
               std::vector<std::string>{"<time> Delete old file '" + second / "other_001.log" + "'..."}));
    EXPECT_EQ(ReadFileText(second / "other_008.log"), "earlier\n");
}

// Opening looks at what the folder lists, and takes a folder that lists nothing for an empty one.
TEST(COutputLogToFileWithoutCS, FolderThatCannotBeListedLosesItsFile001)
{
    TemporaryFolder folder;
    for (const char* name : {"log_001.log", "log_002.log"}) {
        WriteFileText(folder / name, "earlier\n");
        ASSERT_EQ(::chmod((folder / name).c_str(), 0666), 0);
    }
    {
        const ScopedMode mode(folder.GetPath(), 0333);
        const UnprivilegedUser user;
        COutputLogToFileWithoutCS log;

        EXPECT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
        log.Print("text");
    }

    EXPECT_EQ(LogFileLines(folder / "log_001.log"),
              (HeadLines("Log file " + folder / "log_001.log") + std::vector<std::string>{"<time> text", kClosing}));
    EXPECT_EQ(ReadFileText(folder / "log_002.log"), "earlier\n");
}

TEST(COutputLogToFileWithoutCS, FolderWithAPathOfMoreThan1024BytesLosesItsFile001)
{
    TemporaryFolder folder;
    std::string path = folder.GetPath();
    while (path.size() < 1025) {
        const std::size_t length = std::clamp<std::size_t>(1025 - path.size() - 1, 1, 200);
        path += '/' + std::string(length, 'x');
    }
    std::filesystem::create_directories(path);
    WriteFileText(path + "/log_001.log", "earlier\n");
    COutputLogToFileWithoutCS log;

    EXPECT_TRUE(log.OpenAtLocation(path, "log"));

    EXPECT_THAT(ReadFileText(path + "/log_001.log"), Not(StartsWith("earlier")));
}

TEST(COutputLogToFileWithoutCS, HeadDeletionsAndClosingPassTheVirtualFunctions)
{
    TemporaryFolder folder;
    const std::string oldest = folder / "log_001.log";
    const std::string path = folder / "log_009.log";
    MakeFiles(folder.GetPath(), Range(1, 8));
    MakeFiles(folder.GetPath(), {8}, 0x400000);
    WatchedLog log;
    const std::string deletion = "Delete old file '" + oldest + "'...";
    bool isThereWhenTold = false;
    log.m_OnMessage = [&](const std::string& text) {
        if (text == deletion)
            isThereWhenTold = std::filesystem::exists(oldest);
    };

    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    log.CloseFile();
    ASSERT_TRUE(log.Open());

    std::vector<std::string> head;
    for (const std::string& line : BannerLines())
        head.push_back("message " + line.substr(std::string("<time> ").size()));
    EXPECT_EQ(log.m_Calls, (std::vector<std::string>{"message Log file " + path} + head +
                            std::vector<std::string>{"message " + deletion, std::string("raw ") + kClosing, "raw ",
                                                     "message Re-opened log file " + path} +
                            head));
    EXPECT_TRUE(isThereWhenTold);
    EXPECT_FALSE(std::filesystem::exists(oldest));
}

TEST(COutputLogToFileWithoutCS, NumberOfAFileThatDidNotOpenStaysListed)
{
    TemporaryFolder folder;
    SmallLog log;

    EXPECT_FALSE(log.OpenAtLocation(folder / "missing", "log"));
    EXPECT_FALSE(log.OpenNewFile());
    std::filesystem::create_directory(folder / "missing");
    EXPECT_TRUE(log.OpenNewFile());

    EXPECT_THAT(FolderNames(folder / "missing"), ElementsAre("log_003.log"));
}

TEST(COutputLogToFileWithoutCS, OpenLastFileTellsWhetherItOpened)
{
    TemporaryFolder folder;
    const std::string path = folder / "log_001.log";
    SmallLog log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    log.CloseFile();

    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_FALSE(log.OpenLastFile());
    std::filesystem::remove(path);
    EXPECT_TRUE(log.OpenLastFile());

    EXPECT_EQ(LogFileLines(path), (std::vector<std::string>{""} + HeadLines("Re-opened log file " + path)));
}

TEST(COutputLogToFileWithoutCS, DeleteOldFilesLeavesTheNumberThatIsSet)
{
    TemporaryFolder folder;
    MakeFiles(folder.GetPath(), Range(1, 6));
    SmallLog log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

    log.SetMaximumFileSizeCountFromTotalSize(131073); // 4 files
    log.DeleteOldFiles();

    EXPECT_EQ(FolderNames(folder.GetPath()), NamesOf(Range(3, 6)));
}

TEST(COutputLogToFileWithoutCS, FilesWithoutValidNumberAreDeleted)
{
    TemporaryFolder folder;
    MakeFiles(folder.GetPath(), Range(1, 7));
    for (const char* name : {"log_old.log", "log_0001.log", "log_.log", "log_000.log", "log.log", "log_008.txt",
                             "LOG_old.log", "xlog_old.log"})
        WriteFileText(folder / name, name);
    std::filesystem::create_directory(folder / "log_folder.log");
    COutputLogToFileWithoutCS log;

    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

    EXPECT_EQ(FolderNames(folder.GetPath()),
              (std::vector<std::string>{"LOG_old.log", "log.log"} + NamesOf(Range(1, 7)) +
               std::vector<std::string>{"log_008.txt", "log_folder.log", "xlog_old.log"}));
    EXPECT_THAT(LogFileLines(folder / "log_007.log"), Contains("<time> Re-opened log file " + folder / "log_007.log"));
}

TEST(COutputLogToFileWithoutCS, FolderWithAValidNameIsNotALogFile)
{
    TemporaryFolder folder;
    MakeFiles(folder.GetPath(), {1});
    std::filesystem::create_directory(folder / "log_002.log");
    COutputLogToFileWithoutCS log;

    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

    EXPECT_THAT(LogFileLines(folder / "log_001.log"), Contains("<time> Re-opened log file " + folder / "log_001.log"));
}

// "log_001.old.log" has the number 1 too, and matches.
TEST(COutputLogToFileWithoutCS, SizeIsThatOfTheLogsOwnFile)
{
    TemporaryFolder folder;
    MakeFiles(folder.GetPath(), {1});
    MakeFile(folder / "log_001.old.log", kSmallFileSize);
    MakeFile(folder / "log_001.a.log", kSmallFileSize);
    SmallLog log;

    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

    EXPECT_THAT(FolderNames(folder.GetPath()), ElementsAre("log_001.a.log", "log_001.log", "log_001.old.log"));
}

struct OrderCase
{
    const char* m_Name;
    std::vector<unsigned int> m_Numbers;
    unsigned int m_Newest;
    unsigned int m_Next;
};

const std::vector<OrderCase>& OrderCases()
{
    static const std::vector<OrderCase> cases = {
        {"wrapped", {1, 2, 998, 999}, 2, 3},
        {"all small but one", {1, 2, 3, 999}, 3, 4},
        {"499 is behind 999", {1, 499, 999}, 499, 500},
        {"500 is before 999", {1, 500, 999}, 1, 2},
        {"no 001", {2, 998, 999}, 999, 1},
        {"no 999", {1, 2, 998}, 998, 999},
        {"gaps", {3, 70}, 70, 71},
        {"only 999", {999}, 999, 1},
        {"only 001", {1}, 1, 2},
    };
    return cases;
}

TEST(COutputLogToFileWithoutCS, NewestFileIsOpenedAgain)
{
    for (const OrderCase& c : OrderCases()) {
        SCOPED_TRACE(c.m_Name);
        TemporaryFolder folder;
        MakeFiles(folder.GetPath(), c.m_Numbers);
        SmallLog log;

        ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

        const std::string path = folder / NumberedName("log", c.m_Newest);
        EXPECT_THAT(LogFileLines(path), Contains("<time> Re-opened log file " + path));
        EXPECT_EQ(FolderNames(folder.GetPath()), NamesOf(c.m_Numbers));
    }
}

TEST(COutputLogToFileWithoutCS, FullNewestFileIsFollowedByTheNextNumber)
{
    for (const OrderCase& c : OrderCases()) {
        SCOPED_TRACE(c.m_Name);
        TemporaryFolder folder;
        MakeFiles(folder.GetPath(), c.m_Numbers);
        MakeFiles(folder.GetPath(), {c.m_Newest}, kSmallFileSize);
        SmallLog log;

        ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

        const std::string path = folder / NumberedName("log", c.m_Next);
        EXPECT_EQ(LogFileLines(path), HeadLines("Log file " + path));
    }
}

TEST(COutputLogToFileWithoutCS, OldestFilesBeyondTheNumberAreDeletedInOrder)
{
    TemporaryFolder folder;
    MakeFiles(folder.GetPath(), {1, 2, 3, 4, 996, 997, 998, 999});
    SmallLog log;

    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

    EXPECT_EQ(FolderNames(folder.GetPath()), NamesOf({1, 2, 3, 4, 998, 999}));
    const std::vector<std::string> lines = LogFileLines(folder / "log_004.log");
    EXPECT_THAT(std::vector<std::string>(lines.end() - 2, lines.end()),
                ElementsAre("<time> Delete old file '" + folder / "log_996.log" + "'...",
                            "<time> Delete old file '" + folder / "log_997.log" + "'..."));
}

TEST(COutputLogToFileWithoutCS, File001IsEmptiedWhenItFollows999)
{
    TemporaryFolder folder;
    MakeFiles(folder.GetPath(), {999});
    SmallLog log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    WriteFileText(folder / "log_001.log", "of somebody else\n");

    log.Append(std::string(kSmallFileSize, 'x'));

    EXPECT_EQ(LogFileLines(folder / "log_001.log"), HeadLines("Log file " + folder / "log_001.log"));
}

// The numbers of 999 files leave none for the next, and the lines about deletions fill several files.
TEST(COutputLogToFileWithoutCS, AllNumbersInUseLeaveTheNewestFiles)
{
    TemporaryFolder folder;
    MakeFiles(folder.GetPath(), Range(1, 999));
    MakeFiles(folder.GetPath(), {499}, kSmallFileSize); // the newest, as the numbers have wrapped
    SmallLog log;

    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    log.Print("text");

    const std::vector<std::string> names = FolderNames(folder.GetPath());
    ASSERT_EQ(names.size(), 6u);
    EXPECT_EQ(LogFileLines(folder / names.back()).back(), "<time> text");
    const unsigned int newest = static_cast<unsigned int>(std::stoul(names.back().substr(4)));
    EXPECT_GT(newest, 503u);
    EXPECT_EQ(names, NamesOf(Range(newest - 5, newest)));
    EXPECT_THAT(FolderLines(folder.GetPath()), Not(Contains("<time> File deletion failed")));
}

TEST(COutputLogToFileWithoutCS, AllNumbersInUseAreKeptByALogOfThatManyFiles)
{
    TemporaryFolder folder;
    MakeFiles(folder.GetPath(), Range(1, 999));
    MakeFiles(folder.GetPath(), {499}, 0x400000);
    COutputLogToFileWithoutCS log(1000LL * 0x400000);

    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    log.Print("text");

    EXPECT_EQ(FolderNames(folder.GetPath()).size(), 999u);
    EXPECT_EQ(LogFileLines(folder / "log_500.log"),
              (HeadLines("Log file " + folder / "log_500.log") + std::vector<std::string>{"<time> text"}));
}

TEST(COutputLogToFileWithoutCS, FileNameIsNoFormat)
{
    TemporaryFolder folder;
    COutputLogToFileWithoutCS log;

    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "%s%n:%3A%d"));

    const std::string path = folder / "%s%n%3A%3A%d_001.log";
    EXPECT_EQ(LogFileLines(path), HeadLines("Log file " + path));
    log.CloseFile();
    ASSERT_TRUE(log.Open()); // the pattern finds it
    EXPECT_EQ(FolderNames(folder.GetPath()).size(), 1u);
}

TEST(COutputLogToFileWithoutCS, DefaultFolderIsHiddenInTheHomeFolder)
{
    TemporaryFolder home;
    const ScopedVariable variable("HOME", home.GetPath().c_str());
    COutputLogToFileWithoutCS log;
    log.SetLogfileName("My Logs", "a:b");
    std::string name;

    log.Print("text");

    EXPECT_EQ(LogFileLines(home / ".mylogs/a%3Ab_001.log").back(), "<time> text");
    log.GetGeneralLogFileName(name);
    EXPECT_EQ(name, home / ".mylogs/a%3Ab_nnn.log");
}

TEST(COutputLogToFileWithoutCS, InitialiseDefaultWorkingDirectoryMakesTheFolder)
{
    TemporaryFolder home;
    const ScopedVariable variable("HOME", home.GetPath().c_str());
    COutputLogToFileWithoutCS log;
    log.SetLogfileName("name", "log");

    EXPECT_TRUE(log.InitialiseDefaultWorkingDirectory());
    EXPECT_TRUE(log.InitialiseDefaultWorkingDirectory());

    EXPECT_TRUE(std::filesystem::is_directory(home / ".name"));
    EXPECT_TRUE(std::filesystem::is_empty(home / ".name"));
}

TEST(COutputLogToFileWithoutCS, WithoutHomeFolderNothingOpensUntilThereIsOne)
{
    TemporaryFolder folder;
    ScopedVariable variable("HOME", nullptr);
    COutputLogToFileWithoutCS log;
    log.SetLogfileName("name", "log");

    EXPECT_FALSE(log.InitialiseDefaultWorkingDirectory());
    EXPECT_FALSE(log.Open());
    log.Print("lost");
    variable.Set((folder / "home").c_str());
    EXPECT_FALSE(log.Open());
    std::filesystem::create_directory(folder / "home");
    log.Print("text");

    const std::string path = folder / "home/.name/log_001.log";
    EXPECT_EQ(LogFileLines(path), (HeadLines("Log file " + path) + std::vector<std::string>{"<time> text"}));
}

// --- Messages ------------------------------------------------------------------------------------------------------

TEST(COutputLogToFileWithoutCS, LineIsTimeAndText)
{
    const ScopedVariable zone("TZ", "JST-9"); // which counts for nothing: the time is UTC
    TemporaryFolder folder;
    COutputLogToFileWithoutCS log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    const std::size_t start = ReadFileText(folder / "log_001.log").size();
    const ClockShift clock(1583298367); // 2020-03-04 05:06:07 UTC

    log.PrintError(77, "a %d %s", 1, "b");

    const std::string line = ReadFileText(folder / "log_001.log").substr(start);
    EXPECT_THAT(line, StartsWith("2020-03-04 05:06:0"));
    EXPECT_EQ(line.size(), kTimeLength + 6);
    EXPECT_THAT(LogLines(line), ElementsAre("<time> a 1 b"));
    EXPECT_EQ(line.back(), '\n');
}

// Milliseconds since 1970 of the time that a line starts with.
long long TimeOfLine(const std::string& line)
{
    std::tm fields{};
    const char* const fraction = ::strptime(line.c_str(), "%Y-%m-%d %H:%M:%S", &fields);
    if (fraction == nullptr)
        return -1;
    return static_cast<long long>(::timegm(&fields)) * 1000 + std::atoi(fraction + 1);
}

long long MillisecondsNow()
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

TEST(COutputLogToFileWithoutCS, TimeIsThatOfTheCall)
{
    TemporaryFolder folder;
    COutputLogToFileWithoutCS log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    std::size_t position = ReadFileText(folder / "log_001.log").size();
    constexpr long long kClocks[] = {1583298367, 1583298368, 1583298367, 951782399, 0}; // some back, one to 1970

    for (const long long clock : kClocks) {
        SCOPED_TRACE(clock);
        const ClockShift shift(clock);
        for (int i = 0; i < 50; ++i) {
            const long long before = MillisecondsNow();
            log.Print("text");
            const long long after = MillisecondsNow();

            const std::string line = ReadFileText(folder / "log_001.log").substr(position);
            EXPECT_GE(TimeOfLine(line), before);
            EXPECT_LE(TimeOfLine(line), after);
            position += line.size();
        }
    }
}

TEST(COutputLogToFileWithoutCS, FirstMessageOpens)
{
    TemporaryFolder folder;
    COutputLogToFileWithoutCS log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    log.CloseFile();

    log.Print("text");

    const std::string path = folder / "log_001.log";
    EXPECT_EQ(LogFileLines(path), (HeadLines("Log file " + path) + std::vector<std::string>{kClosing, ""} +
                                   HeadLines("Re-opened log file " + path) + std::vector<std::string>{"<time> text"}));
}

TEST(COutputLogToFileWithoutCS, MessageThatOpensHasTheTimeBehindTheHead)
{
    TemporaryFolder folder;
    WatchedLog log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    log.CloseFile();
    std::optional<ClockShift> clock;
    log.m_OnMessage = [&](const std::string& text) {
        if (text == "Host Information:")
            clock.emplace(4102444800); // 2100-01-01 00:00:00 UTC
    };

    log.Print("text");

    const std::string text = ReadFileText(folder / "log_001.log");
    ASSERT_TRUE(clock.has_value());
    EXPECT_THAT(text.substr(text.rfind('\n', text.size() - 2) + 1), StartsWith("2100-01-01 00:0"));
}

TEST(COutputLogToFileWithoutCS, ClearKeepsWhatIsLogged)
{
    TemporaryFolder folder;
    COutputLogToFileWithoutCS log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    const std::string before = ReadFileText(folder / "log_001.log");

    log.Clear();
    log.Print("text");

    EXPECT_THAT(ReadFileText(folder / "log_001.log"), StartsWith(before + "2"));
}

struct TextCase
{
    const char* m_Name;
    std::string m_Text;
    std::string m_Written;
};

TEST(COutputLogToFileWithoutCS, TextIsWrittenAsValidUtf8)
{
    const TextCase kCases[] = {
        {"empty", "", ""},
        {"one character", "x", "x"},
        {"a word of eight", "12345678", "12345678"},
        {"two, three and four bytes", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
        {"beside ASCII of each length",
         "\xC3\xA9"
         "1234567\xC3\xA9"
         "12345678\xC3\xA9"
         "123456789\xC3\xA9",
         "\xC3\xA9"
         "1234567\xC3\xA9"
         "12345678\xC3\xA9"
         "123456789\xC3\xA9"},
        {"a lone byte", "a\x80z", "a\xEF\xBF\xBDz"},
        {"bytes that never occur", "\xFE\xFF", "\xEF\xBF\xBD\xEF\xBF\xBD"},
        {"cut at the end", "12345678\xE2\x82", "12345678\xEF\xBF\xBD"},
        {"bad in each place of a word",
         "1\xFF"
         "234567"
         "12\xFF"
         "34567"
         "1234567\xFF"
         "1234567\xFF",
         "1\xEF\xBF\xBD"
         "234567"
         "12\xEF\xBF\xBD"
         "34567"
         "1234567\xEF\xBF\xBD"
         "1234567\xEF\xBF\xBD"},
        {"a surrogate", "\xED\xA0\x80.", "\xEF\xBF\xBD."},
        {"above U+10FFFF", "\xF4\x90\x80\x80.", "\xEF\xBF\xBD."},
        {"overlong", "\xC0\x80.", "\xEF\xBF\xBD\xEF\xBF\xBD."},
        {"NUL and control characters", std::string("a\0b\x01\t\r\n\x7F", 8), std::string("a\0b\x01\t\r\n\x7F", 8)},
    };
    TemporaryFolder folder;
    const std::string path = folder / "log_001.log";
    SmallLog log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    for (const TextCase& c : kCases) {
        SCOPED_TRACE(c.m_Name);
        const std::size_t start = ReadFileText(path).size() + kTimeLength;

        log.Append(c.m_Text);

        EXPECT_EQ(ReadFileText(path).substr(start), c.m_Written + '\n');
    }
    EXPECT_TRUE(IsUtf8(path));
}

TEST(COutputLogToFileWithoutCS, AnyBytesLeaveAFileThatIsUtf8)
{
    TemporaryFolder folder;
    COutputLogToFileWithoutCS log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "bytes\xFF\xC3"));
    std::mt19937 random(1);
    constexpr unsigned char kLikely[] = {0x80, 0xBF, 0xC2, 0xE0, 0xA0, 0xED, 0xF0, 0x90, 0xF4, 0x8F, 'a', 'b'};

    for (int message = 0; message < 2000; ++message) {
        std::string text(random() % 1200, '\0');
        for (char& c : text)
            c = static_cast<char>(message % 2 == 0 ? random() % 256 : kLikely[random() % sizeof kLikely]);
        log.AppendMessage(COutputLog::Info, 0, text.data(), static_cast<unsigned int>(text.size()));
    }

    EXPECT_TRUE(IsUtf8(folder / "bytes\xFF\xC3_001.log"));
    EXPECT_GT(std::filesystem::file_size(folder / "bytes\xFF\xC3_001.log"), 1000000u);
    log.CloseFile();
    ASSERT_TRUE(log.Open()); // the pattern finds it
    EXPECT_THAT(ReadFileText(folder / "bytes\xFF\xC3_001.log"), HasSubstr("\nClosing file\n\n2"));
}

TEST(COutputLogToFileWithoutCS, PrintedTextThatIsCutInsideACharacterLeavesValidUtf8)
{
    TemporaryFolder folder;
    COutputLogToFileWithoutCS log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    std::string text(251, 'x');
    text += "\xE2\x82\xAC and more";

    log.Print("%s", text.c_str());

    EXPECT_EQ(LogFileLines(folder / "log_001.log").back(), "<time> " + std::string(251, 'x') + "\xEF\xBF\xBD...");
    EXPECT_TRUE(IsUtf8(folder / "log_001.log"));
}

struct WriteCase
{
    unsigned int m_LineLength; // with time and line end
    int m_Writes;
};

TEST(COutputLogToFileWithoutCS, LineTakesOneWriteForEach511Bytes)
{
    constexpr WriteCase kCases[] = {{25, 1},  {100, 1},  {510, 1},  {511, 1},  {512, 2},
                                    {513, 2}, {1022, 2}, {1023, 3}, {2044, 4}, {2045, 5}};
    for (const WriteCase& c : kCases) {
        SCOPED_TRACE(c.m_LineLength);
        TemporaryFolder folder;
        SmallLog log;
        ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
        const std::string text(c.m_LineLength - kTimeLength - 1, 'x');
        const FaultPlan writes("write", kNever, EIO);

        log.Append(text);

        EXPECT_EQ(writes.GetCallCount(), c.m_Writes);
        EXPECT_EQ(LogFileLines(folder / "log_001.log").back(), "<time> " + text);
    }
}

struct FillCase
{
    const char* m_Name;
    unsigned int m_AsciiLength; // behind the time
    std::string m_Rest;
    unsigned int m_FirstFill; // bytes of the first write
};

// A failing second write shows what the first one wrote.
TEST(COutputLogToFileWithoutCS, CodePointThatWouldMakeTheBuffer512BytesWaitsForTheNextFill)
{
    const FillCase kCases[] = {
        {"ASCII at 511", 487, "xy", 511},
        {"two bytes to 511", 485, "\xC3\xA9y", 511},
        {"two bytes to 512", 486, "\xC3\xA9y", 510},
        {"three bytes to 511", 484, "\xE2\x82\xACy", 511},
        {"three bytes to 512", 485, "\xE2\x82\xACy", 509},
        {"four bytes to 511", 483, "\xF0\x9F\x98\x80y", 511},
        {"four bytes to 512", 484, "\xF0\x9F\x98\x80y", 508},
        {"a bad byte to 511, as U+FFFD", 484, "\xFFy", 511},
        {"a bad byte to 512, as U+FFFD", 485, "\xFFy", 509},
    };
    for (const FillCase& c : kCases) {
        SCOPED_TRACE(c.m_Name);
        TemporaryFolder folder;
        SmallLog log;
        ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
        const std::size_t start = ReadFileText(folder / "log_001.log").size();
        const FaultPlan fault("write", 2, ENOSPC);

        log.Append(std::string(c.m_AsciiLength, 'x') + c.m_Rest);

        EXPECT_TRUE(fault.HasFailed());
        EXPECT_EQ(ReadFileText(folder / "log_001.log").size() - start, c.m_FirstFill);
    }
}

TEST(COutputLogToFileWithoutCS, TextBehindAFailedWriteIsDropped)
{
    TemporaryFolder folder;
    SmallLog log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    const std::string before = ReadFileText(folder / "log_001.log");
    const FaultPlan fault("write", 1, ENOSPC);

    log.Append(std::string(2000, 'x'));

    EXPECT_EQ(fault.GetCallCount(), 2);
    EXPECT_EQ(ReadFileText(folder / "log_001.log"), before + '\n');
}

TEST(COutputLogToFileWithoutCS, StepsTellOfAFailedWriteAndEmptyTheBuffer)
{
    TemporaryFolder folder;
    SmallLog log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    const std::string before = ReadFileText(folder / "log_001.log");
    const std::string text(511, 'x');

    EXPECT_TRUE(log.WriteText(text.data(), 511, true));
    EXPECT_EQ(ReadFileText(folder / "log_001.log"), before);
    {
        const FaultPlan fault("write", 1, ENOSPC);
        EXPECT_FALSE(log.WriteText("y", 1, true));
    }
    EXPECT_TRUE(log.WriteText(text.data(), 511, true));
    {
        const FaultPlan fault("write", 1, ENOSPC);
        EXPECT_FALSE(log.WriteNewLine(true));
    }
    EXPECT_TRUE(log.WriteText("z", 1, true));
    {
        const FaultPlan fault("write", 1, ENOSPC);
        EXPECT_FALSE(log.FlushCurrentLine(true));
    }
    EXPECT_TRUE(log.WriteText("1", 1, true));
    EXPECT_TRUE(log.FlushCurrentLine(true));

    EXPECT_EQ(ReadFileText(folder / "log_001.log"), before + '1');
}

TEST(COutputLogToFileWithoutCS, StepsFailWhenClosed)
{
    SmallLog log;

    EXPECT_TRUE(log.WriteText("text", 4, true));
    EXPECT_FALSE(log.FlushCurrentLine(true));
    EXPECT_FALSE(log.FlushCurrentLine(false));
}

TEST(COutputLogToFileWithoutCS, MessageAllocatesNothing)
{
    TemporaryFolder folder;
    COutputLogToFileWithoutCS log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    const std::string text = std::string(1000, 'x') + "\xC3\xA9\xFF";
    const AllocationCounter allocations;
    const std::size_t mallocsBefore = g_MallocCount;

    for (int i = 0; i < 100; ++i) {
        log.AppendMessage(COutputLog::Info, 0, text.data(), static_cast<unsigned int>(text.size()));
        log.Print("%d %s", i, "text");
        log.PrintRaw("raw");
    }

    EXPECT_EQ(g_MallocCount, mallocsBefore);
    EXPECT_EQ(allocations.GetCount(), 0u);
}

TEST(COutputLogToFileWithoutCS, RawLineHasNoTime)
{
    TemporaryFolder folder;
    COutputLogToFileWithoutCS log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    const std::string before = ReadFileText(folder / "log_001.log");

    log.PrintRaw("raw %s \xFF");
    log.PrintRaw("");

    EXPECT_EQ(ReadFileText(folder / "log_001.log"), before + "raw %s \xEF\xBF\xBD\n\n");
}

TEST(COutputLogToFileWithoutCS, RawLineDoesNotOpen)
{
    TemporaryFolder folder;
    COutputLogToFileWithoutCS log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    log.CloseFile();
    const std::string before = ReadFileText(folder / "log_001.log");

    log.PrintRaw("lost");

    EXPECT_EQ(ReadFileText(folder / "log_001.log"), before);
    log.Print("text");
    EXPECT_THAT(FolderLines(folder.GetPath()), Not(Contains("lost")));
}

// --- The size limit ------------------------------------------------------------------------------------------------

TEST(COutputLogToFileWithoutCS, MessageThatPassesTheSizeIsTheLastOfItsFile)
{
    TemporaryFolder folder;
    SmallLog log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    const std::string first = folder / "log_001.log";
    const std::string second = folder / "log_002.log";

    // Exactly the limit is within it.
    log.Append(std::string(kSmallFileSize - ReadFileText(first).size() - kTimeLength - 1, 'x'));
    ASSERT_EQ(ReadFileText(first).size(), kSmallFileSize);
    EXPECT_FALSE(std::filesystem::exists(second));
    log.Append("over");
    EXPECT_EQ(LogFileLines(second), HeadLines("Log file " + second));
    log.Append("behind");

    const std::vector<std::string> lines = LogFileLines(first);
    EXPECT_THAT(std::vector<std::string>(lines.end() - 2, lines.end()), ElementsAre("<time> over", kClosingFull));
    EXPECT_THAT(ReadFileText(first), EndsWith("\n"));
    EXPECT_EQ(LogFileLines(second), (HeadLines("Log file " + second) + std::vector<std::string>{"<time> behind"}));
}

TEST(COutputLogToFileWithoutCS, SizeOfAFileOpenedAgainCounts)
{
    TemporaryFolder folder;
    MakeFiles(folder.GetPath(), {1}, kSmallFileSize / 4 * 3);
    SmallLog log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    const std::string first = folder / "log_001.log";

    // The empty raw line is one byte that does not count.
    log.Append(std::string(kSmallFileSize + 1 - ReadFileText(first).size() - kTimeLength - 1, 'x'));
    EXPECT_FALSE(std::filesystem::exists(folder / "log_002.log"));
    log.Append("over");

    EXPECT_TRUE(std::filesystem::exists(folder / "log_002.log"));
}

TEST(COutputLogToFileWithoutCS, RawLinesDoNotCount)
{
    TemporaryFolder folder;
    SmallLog log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

    log.PrintRaw(std::string(2 * kSmallFileSize, 'x').c_str());
    log.Append("text");

    EXPECT_FALSE(std::filesystem::exists(folder / "log_002.log"));
}

TEST(COutputLogToFileWithoutCS, LostLinesDoNotCount)
{
    TemporaryFolder folder;
    SmallLog log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    {
        const FaultPlan fault("write", 1, ENOSPC, FaultPlan::Repeat::Forever);
        for (int i = 0; i < 500; ++i)
            log.Append(std::string(100, 'x'));
    }

    log.Append("text");

    EXPECT_FALSE(std::filesystem::exists(folder / "log_002.log"));
    EXPECT_EQ(LogFileLines(folder / "log_001.log").back(), "<time> text");
}

// Without the right to a small disk, a limit of the process cuts a line short.
TEST(COutputLogToFileWithoutCS, LineThatIsWrittenInPartIsDroppedAndDoesNotCount)
{
    TemporaryFolder folder;
    const std::string path = folder / "log_001.log";
    SmallLog log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    const std::string before = ReadFileText(path);
    bool isWritten = true;
    {
        const FileSizeLimit limit(before.size() + 10);
        log.Append(std::string(2000, 'x'));
        log.Append("lost");
    }
    const std::string cut = ReadFileText(path);
    {
        const FileSizeLimit limit(cut.size() + 1);
        log.WriteText("part", 4, true);
        isWritten = log.FlushCurrentLine(true);
    }

    // Exactly the limit is within it, without the eleven bytes.
    log.Append(std::string(kSmallFileSize - before.size() - kTimeLength - 1, 'y'));
    const bool isFullEarly = std::filesystem::exists(folder / "log_002.log");
    log.Append("over");

    EXPECT_THAT(cut, StartsWith(before));
    EXPECT_EQ(cut.size(), before.size() + 10); // of the time
    EXPECT_FALSE(isWritten);
    const std::string line = ReadFileText(path).substr(cut.size() + 1);
    EXPECT_THAT(LogLines(line),
                ElementsAre("<time> " + std::string(kSmallFileSize - before.size() - kTimeLength - 1, 'y'),
                            "<time> over", kClosingFull));
    EXPECT_FALSE(isFullEarly);
    EXPECT_TRUE(std::filesystem::exists(folder / "log_002.log"));
}

TEST(COutputLogToFileWithoutCS, OldestFileGoesWithEachNewOne)
{
    TemporaryFolder folder;
    SmallLog log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

    for (int i = 0; i < 9; ++i)
        log.Append(std::string(kSmallFileSize, 'x'));

    EXPECT_EQ(FolderNames(folder.GetPath()), NamesOf(Range(5, 10)));
    EXPECT_EQ(LogFileLines(folder / "log_010.log"),
              (HeadLines("Log file " + folder / "log_010.log") +
               std::vector<std::string>{"<time> Delete old file '" + folder / "log_004.log" + "'..."}));
}

TEST(COutputLogToFileWithoutCS, NumbersCycleFrom999To001)
{
    TemporaryFolder folder;
    MakeFiles(folder.GetPath(), {997});
    SmallLog log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

    for (int i = 0; i < 6; ++i)
        log.Append(std::string(kSmallFileSize, 'x'));

    EXPECT_EQ(FolderNames(folder.GetPath()), NamesOf({1, 2, 3, 4, 998, 999}));
    EXPECT_EQ(LogFileLines(folder / "log_004.log").back(),
              "<time> Delete old file '" + folder / "log_997.log" + "'...");
}

TEST(COutputLogToFileWithoutCS, MessageLongerThanAFileStaysWhole)
{
    TemporaryFolder folder;
    SmallLog log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    const std::string text(10 * kSmallFileSize, 'x');

    log.Append(text);

    const std::vector<std::string> lines = LogFileLines(folder / "log_001.log");
    EXPECT_THAT(std::vector<std::string>(lines.end() - 2, lines.end()), ElementsAre("<time> " + text, kClosingFull));
}

// --- Closing -------------------------------------------------------------------------------------------------------

TEST(COutputLogToFileWithoutCS, CloseFileWritesItsLineOnce)
{
    TemporaryFolder folder;
    const std::string path = folder / "log_001.log";
    {
        COutputLogToFileWithoutCS log;
        ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

        log.CloseFile();
        log.CloseFile();
    }

    EXPECT_EQ(LogFileLines(path), (HeadLines("Log file " + path) + std::vector<std::string>{kClosing}));
    EXPECT_THAT(ReadFileText(path), EndsWith("\nClosing file\n"));
}

TEST(COutputLogToFileWithoutCS, DestructorCloses)
{
    TemporaryFolder folder;
    const std::string path = folder / "log_001.log";
    {
        COutputLogToFileWithoutCS log;
        ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    }

    EXPECT_EQ(LogFileLines(path), (HeadLines("Log file " + path) + std::vector<std::string>{kClosing}));
}

TEST(COutputLogToFileWithoutCS, UnusedLogLeavesNothing)
{
    TemporaryFolder home;
    const ScopedVariable variable("HOME", home.GetPath().c_str());
    {
        COutputLogToFileWithoutCS log;
        log.SetLogfileName("name", "log");
        log.CloseFile();
    }

    EXPECT_TRUE(std::filesystem::is_empty(home.GetPath()));
}

// --- Bad days ------------------------------------------------------------------------------------------------------

TEST(COutputLogToFileWithoutCS, FolderThatIsMissingLosesMessagesUntilItIsThere)
{
    TemporaryFolder folder;
    COutputLogToFileWithoutCS log;
    const std::string path = folder / "missing/log_001.log";

    EXPECT_FALSE(log.OpenAtLocation(folder / "missing", "log"));
    log.Print("lost");
    log.PrintRaw("lost");
    log.CloseFile();
    std::filesystem::create_directory(folder / "missing");
    log.Print("text");

    EXPECT_EQ(LogFileLines(path), (HeadLines("Log file " + path) + std::vector<std::string>{"<time> text"}));
}

TEST(COutputLogToFileWithoutCS, FolderThatVanishesLosesMessagesUntilItIsBack)
{
    TemporaryFolder folder;
    SmallLog log;
    std::filesystem::create_directory(folder / "logs");
    ASSERT_TRUE(log.OpenAtLocation(folder / "logs", "log"));
    std::filesystem::remove_all(folder / "logs");

    for (int i = 0; i < 3; ++i)
        log.Append(std::string(kSmallFileSize, 'x')); // into the file that has no name any more, then nowhere
    std::filesystem::create_directory(folder / "logs");
    log.Append("text");

    const std::string path = folder / "logs/log_001.log";
    EXPECT_EQ(LogFileLines(path), (HeadLines("Log file " + path) + std::vector<std::string>{"<time> text"}));
}

TEST(COutputLogToFileWithoutCS, FileMadeReadOnlyStaysAsItIsUntilItIsWritable)
{
    TemporaryFolder folder;
    ASSERT_EQ(::chmod(folder.GetPath().c_str(), 0777), 0);
    const UnprivilegedUser user;
    const std::string path = folder / "log_001.log";
    COutputLogToFileWithoutCS log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    log.CloseFile();
    const std::string before = ReadFileText(path);

    ASSERT_EQ(::chmod(path.c_str(), 0444), 0);
    EXPECT_FALSE(log.Open());
    log.Print("lost");
    EXPECT_EQ(ReadFileText(path), before);
    ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    log.Print("text");

    EXPECT_THAT(ReadFileText(path), StartsWith(before));
    EXPECT_EQ(LogFileLines(path).back(), "<time> text");
}

TEST(COutputLogToFileWithoutCS, FileThatCannotBeDeletedIsReportedAndForgotten)
{
    TemporaryFolder folder;
    MakeFiles(folder.GetPath(), Range(1, 8));
    for (const std::string& name : NamesOf(Range(1, 8)))
        ASSERT_EQ(::chmod((folder / name).c_str(), 0666), 0);
    const ScopedMode mode(folder.GetPath(), 0555);
    const UnprivilegedUser user;
    SmallLog log;

    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

    const std::vector<std::string> lines = LogFileLines(folder / "log_008.log");
    EXPECT_THAT(std::vector<std::string>(lines.end() - 4, lines.end()),
                ElementsAre("<time> Delete old file '" + folder / "log_001.log" + "'...", "<time> File deletion failed",
                            "<time> Delete old file '" + folder / "log_002.log" + "'...",
                            "<time> File deletion failed"));
    EXPECT_EQ(FolderNames(folder.GetPath()).size(), 8u);
}

// The lines about the deletions fill the file, and no other can be made.
TEST(COutputLogToFileWithoutCS, ManyFilesThatCannotBeDeletedEndInLostMessages)
{
    TemporaryFolder folder;
    MakeFiles(folder.GetPath(), Range(1, 400));
    ASSERT_EQ(::chmod((folder / "log_400.log").c_str(), 0666), 0);
    SmallLog log;
    {
        const ScopedMode mode(folder.GetPath(), 0555);
        const UnprivilegedUser user;
        EXPECT_TRUE(log.OpenAtLocation(folder.GetPath(), "log")); // the file that is full was opened
        log.Print("lost");
    }
    EXPECT_EQ(FolderNames(folder.GetPath()).size(), 400u);
    EXPECT_EQ(LogFileLines(folder / "log_400.log").back(), kClosingFull);

    log.Print("text");

    EXPECT_THAT(FolderLines(folder.GetPath()), Contains("<time> text"));
    EXPECT_EQ(FolderNames(folder.GetPath()).size(), 6u);
}

TEST(COutputLogToFileWithoutCS, ReadOnlyDiskLosesMessages)
{
    SmallFileSystem disk("size=1m");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    WriteFileText(disk / "log_001.log", "earlier\n");
    WriteFileText(disk / "log_old.log", "cannot be deleted");
    ASSERT_TRUE(disk.MakeReadOnly());
    COutputLogToFileWithoutCS log;

    EXPECT_FALSE(log.OpenAtLocation(disk.GetPath(), "log"));
    log.Print("lost");

    EXPECT_EQ(ReadFileText(disk / "log_001.log"), "earlier\n");
    EXPECT_TRUE(std::filesystem::exists(disk / "log_old.log"));
}

TEST(COutputLogToFileWithoutCS, FullDiskKeepsEarlierLinesAndLoggingGoesOn)
{
    SmallFileSystem disk("size=64k");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    COutputLogToFileWithoutCS log;
    ASSERT_TRUE(log.OpenAtLocation(disk.GetPath(), "log"));
    log.Print("earlier");
    const std::string before = ReadFileText(disk / "log_001.log");

    for (int i = 0; i < 2000; ++i)
        log.Print("line %d of very many that do not fit", i);
    const std::string full = ReadFileText(disk / "log_001.log");
    EXPECT_EQ(full.size(), 65536u);
    EXPECT_THAT(full, StartsWith(before));
    ASSERT_TRUE(disk.Resize("size=1m"));
    log.Print("the first may stand behind part of a line");
    log.Print("text");

    const std::string after = ReadFileText(disk / "log_001.log");
    EXPECT_THAT(after, StartsWith(full));
    EXPECT_EQ(LogLines(after).back(), "<time> text");
}

TEST(COutputLogToFileWithoutCS, FullDiskKeepsEarlierFilesAndLoggingGoesOn)
{
    SmallFileSystem disk("size=64k");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    SmallLog log;
    ASSERT_TRUE(log.OpenAtLocation(disk.GetPath(), "log"));

    for (int i = 0; i < 2000; ++i)
        log.Print("line %d of very many that do not fit", i);
    const std::vector<std::string> names = FolderNames(disk.GetPath());
    const std::vector<std::string> full = FolderLines(disk.GetPath());
    ASSERT_TRUE(disk.Resize("size=1m"));
    log.Print("the first may stand behind part of a line");
    log.Print("text");

    EXPECT_EQ(names, NamesOf(Range(1, 4))); // a page more than 16 KiB each, and the rest
    EXPECT_EQ(FolderNames(disk.GetPath()), names);
    const std::vector<std::string> after = FolderLines(disk.GetPath());
    ASSERT_GT(after.size(), full.size());
    EXPECT_TRUE(std::equal(full.begin(), full.end() - 1, after.begin())); // but for the last, which may be cut
    EXPECT_EQ(after.back(), "<time> text");
}

// Takes all space that is left on a disk.
void FillDisk(const std::string& path)
{
    std::ofstream file(path, std::ios::binary);
    while (file.write("x", 1).flush()) {
    }
}

// Space for the last lines of a file is there, but none for the head of the next.
TEST(COutputLogToFileWithoutCS, FullDiskLosesTheHeadOfTheNextFile)
{
    SmallFileSystem disk("size=64k");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    SmallLog log;
    ASSERT_TRUE(log.OpenAtLocation(disk.GetPath(), "log"));
    const std::size_t counted = ReadFileText(disk / "log_001.log").size();
    log.PrintRaw(std::string(1000, 'r').c_str()); // does not count, so that the limit lies inside a page
    log.Append(std::string(kSmallFileSize - counted - kTimeLength - 1, 'x'));
    FillDisk(disk / "other");

    log.Append("over");
    log.Append("lost");
    const std::vector<std::string> first = LogFileLines(disk / "log_001.log");
    const std::string second = ReadFileText(disk / "log_002.log");
    std::filesystem::remove(disk / "other");
    log.Append("text");

    EXPECT_THAT(std::vector<std::string>(first.end() - 2, first.end()), ElementsAre("<time> over", kClosingFull));
    EXPECT_EQ(second, "");
    EXPECT_THAT(LogFileLines(disk / "log_002.log"), ElementsAre("<time> text"));
}

TEST(COutputLogToFileWithoutCS, FullDiskDeletesOldFilesWithoutTheirLines)
{
    SmallFileSystem disk("size=64k");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    MakeFiles(disk.GetPath(), Range(1, 7));
    WriteFileText(disk / "log_008.log", "");
    FillDisk(disk / "other");
    SmallLog log;

    EXPECT_TRUE(log.OpenAtLocation(disk.GetPath(), "log"));
    log.Append("lost");
    std::vector<std::string> names = FolderNames(disk.GetPath());
    const std::string full = ReadFileText(disk / "log_008.log");
    std::filesystem::remove(disk / "other");
    log.Append("text");

    EXPECT_EQ(names, (NamesOf(Range(3, 8)) + std::vector<std::string>{"other"}));
    EXPECT_EQ(full, "");
    EXPECT_THAT(LogFileLines(disk / "log_008.log"), ElementsAre("<time> text"));
}

TEST(COutputLogToFileWithoutCS, FullDiskWhileOpeningLosesMessages)
{
    SmallFileSystem disk("size=64k,nr_inodes=2"); // the folder and one file
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    WriteFileText(disk / "other", "");
    COutputLogToFileWithoutCS log;

    EXPECT_FALSE(log.OpenAtLocation(disk.GetPath(), "log"));
    log.Print("lost");
    std::filesystem::remove(disk / "other");
    log.Print("text");

    EXPECT_EQ(LogFileLines(disk / "log_001.log").back(), "<time> text");
}

TEST(COutputLogToFileWithoutCS, NameThatIsTooLongOpensNothing)
{
    TemporaryFolder folder;
    COutputLogToFileWithoutCS log;

    EXPECT_FALSE(log.OpenAtLocation(folder.GetPath(), std::string(300, 'x')));
    log.Print("lost");

    EXPECT_TRUE(std::filesystem::is_empty(folder.GetPath()));
}

// Opens a log, fills its file and the beginning of the next, closes and opens again.
void UseLog(SmallLog& log, const std::string& folder)
{
    log.OpenAtLocation(folder, "log");
    for (int i = 0; i < 2; ++i)
        log.Append(std::string(3500, 'x'));
    log.CloseFile();
    log.Append("text");
}

// Each call of each function fails in turn, once or from then on. Nothing is asked of what is logged meanwhile but that
// it ends. What was there before stays, but where the system hides the newest files, or where the end of a file is.
TEST(COutputLogToFileWithoutCS, LoggingGoesOnAfterAnyFailure)
{
    for (const char* function : {"open", "write", "lseek", "fstat", "stat", "unlink", "opendir", "readdir"}) {
        const bool isHidden = std::string(function) == "readdir" || std::string(function) == "lseek";
        for (const auto repeat : {FaultPlan::Repeat::Once, FaultPlan::Repeat::Forever}) {
            bool hasFailed = true;
            for (int nth = 1; hasFailed && nth < 500; ++nth) {
                SCOPED_TRACE(std::string(function) + " " + std::to_string(nth));
                TemporaryFolder folder;
                for (const std::string& name : NamesOf(Range(3, 7))) {
                    WriteFileText(folder / name, "earlier\n");
                    std::filesystem::resize_file(folder / name, 12000);
                }
                WriteFileText(folder / "log_old.log", "");
                SmallLog log;
                {
                    const FaultPlan fault(function, nth, EIO, repeat);
                    UseLog(log, folder.GetPath());
                    hasFailed = fault.HasFailed();
                }

                log.CloseFile();
                log.Append("after all");

                ASSERT_THAT(FolderLines(folder.GetPath()), Contains("<time> after all"));
                for (const std::string& name : NamesOf(Range(3, 7))) {
                    if (!isHidden && std::filesystem::exists(folder / name)) {
                        ASSERT_THAT(ReadFileText(folder / name), StartsWith("earlier\n")) << name;
                    }
                }
            }
            EXPECT_FALSE(hasFailed) << function;
        }
    }
}

} // namespace
