#include <QDPlatform/COutputLogToFile.h>

#include <QDPlatform/QDFilePath.h>

#include "FaultPlan.h"
#include "LogFileText.h"
#include "TemporaryFolder.h"
#include "VirtualSlot.h"
#include "WaitUntil.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <limits>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace
{

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::StartsWith;

constexpr int kThreads = 4;

// A process that runs `work` and ends. It does not outlive the object.
class ForkedProcess
{
public:
    explicit ForkedProcess(const std::function<void()>& work) : m_Process(::fork())
    {
        if (m_Process < 0) {
            std::perror("ForkedProcess");
            std::abort();
        }
        if (m_Process != 0)
            return;
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        work();
        ::_exit(0);
    }

    ForkedProcess(const ForkedProcess&) = delete;
    ForkedProcess& operator=(const ForkedProcess&) = delete;

    ~ForkedProcess()
    {
        if (m_Process > 0) {
            Kill();
            Wait();
        }
    }

    void Kill()
    {
        if (m_Process > 0) // -1 would mean every process
            ::kill(m_Process, SIGKILL);
    }

    // Returns what waitpid() says of its end.
    int Wait()
    {
        int status = -1;
        if (m_Process > 0)
            ::waitpid(m_Process, &status, 0);
        m_Process = -1;
        return status;
    }

private:
    pid_t m_Process;
};

// The text of message `number` of a thread: of a length that differs from message to message, up to `longest`.
std::string BurstText(int thread, int number, unsigned int longest)
{
    char head[64];
    std::snprintf(head, sizeof head, "thread %d message %d ", thread, number);
    return head +
           std::string(static_cast<unsigned int>(number * 37 + thread) % longest, static_cast<char>('a' + thread)) +
           " end";
}

// How many messages of each thread have been logged. Shared with the processes that are made while it lives.
class SharedCounts
{
public:
    SharedCounts() :
        m_pCounts(static_cast<std::atomic<int>*>(
            ::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
    {
        if (m_pCounts == MAP_FAILED)
            std::abort();
    }

    SharedCounts(const SharedCounts&) = delete;
    SharedCounts& operator=(const SharedCounts&) = delete;

    ~SharedCounts() { ::munmap(m_pCounts, kSize); }

    std::atomic<int>& operator[](int thread) { return m_pCounts[thread]; }

private:
    static_assert(std::atomic<int>::is_always_lock_free);
    static constexpr std::size_t kSize = kThreads * sizeof(std::atomic<int>);

    std::atomic<int>* m_pCounts; // zeroed by the system
};

// Logs `count` messages from each of four threads at the same time, and counts those logged.
void LogBurst(COutputLog& log, int count, unsigned int longest, SharedCounts* logged = nullptr)
{
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread)
        threads.emplace_back([=, &log] {
            for (int i = 0; i < count; ++i) {
                const std::string text = BurstText(thread, i, longest);
                log.AppendMessage(COutputLog::Info, 0, text.data(), static_cast<unsigned int>(text.size()));
                if (logged != nullptr)
                    (*logged)[thread] = i + 1;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
}

// Checks that the lines are those of LogBurst(), each thread's without a gap from its first message on, and such as the
// log writes itself. Returns the number of each thread's messages.
std::map<int, int> CheckBurst(const std::vector<std::string>& lines, unsigned int longest)
{
    const std::vector<std::string> banner = BannerLines();
    std::map<int, int> counts;
    for (const std::string& line : lines) {
        int thread = 0;
        int number = 0;
        if (std::sscanf(line.c_str(), "<time> thread %d message %d ", &thread, &number) == 2) {
            EXPECT_EQ(number, counts[thread]) << line;
            EXPECT_EQ(line, "<time> " + BurstText(thread, number, longest));
            counts[thread] = number + 1;
            continue;
        }
        const bool isOwn = line.empty() || line == "Closing file (file reached size limit )" ||
                           line == "Closing file" || line.starts_with("<time> Log file ") ||
                           line.starts_with("<time> Re-opened log file ") ||
                           std::find(banner.begin(), banner.end(), line) != banner.end();
        EXPECT_TRUE(isOwn) << line;
    }
    return counts;
}

std::map<int, int> Counts(int count)
{
    std::map<int, int> counts;
    for (int thread = 0; thread < kThreads; ++thread)
        counts[thread] = count;
    return counts;
}

TEST(COutputLogToFile, VirtualOperationsHaveTheSlotsOfTheBase)
{
    EXPECT_EQ(VirtualSlot(&COutputLogToFile::Clear), 2); // behind the destructor's two
    EXPECT_EQ(VirtualSlot(&COutputLogToFile::AppendMessage), 3);
    EXPECT_EQ(VirtualSlot(&COutputLogToFile::PrintRaw), 4);
}

TEST(COutputLogToFile, WritesWhatTheBaseWrites)
{
    TemporaryFolder folder;
    const std::string path = folder / "log_001.log";
    {
        COutputLogToFile log;
        ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

        log.Print("text %d", 1);
        log.PrintRaw("raw");
    }

    EXPECT_EQ(LogFileLines(path),
              (HeadLines("Log file " + path) + std::vector<std::string>{"<time> text 1", "raw", "Closing file"}));
}

// The head of the next file is printed while the lock is held.
TEST(COutputLogToFile, GoesOnToTheNextFileInsideAMessage)
{
    TemporaryFolder folder;
    COutputLogToFile log(0);
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

    log.PrintString(std::string(16384, 'x'));

    EXPECT_EQ(LogFileLines(folder / "log_002.log"), HeadLines("Log file " + folder / "log_002.log"));
}

TEST(COutputLogToFile, TotalSizeIsThatOfTheBase)
{
    for (const bool isDefault : {true, false}) {
        TemporaryFolder folder;
        for (int number = 1; number <= 9; ++number)
            WriteFileText(folder / ("log_00" + std::to_string(number) + ".log"), "");
        COutputLogToFile byDefault;
        COutputLogToFile smallest(0);
        COutputLogToFile& log = isDefault ? byDefault : smallest;

        ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

        EXPECT_EQ(FolderNames(folder.GetPath()).size(), isDefault ? 8u : 6u);
    }
}

TEST(COutputLogToFile, LineTakesOneWrite)
{
    TemporaryFolder folder;
    COutputLogToFile log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    const FaultPlan writes("write", std::numeric_limits<int>::max(), EIO);

    LogBurst(log, 100, 400);

    EXPECT_EQ(writes.GetCallCount(), 400);
}

// Lines of up to 1,500 bytes take several writes each, and go over several files.
TEST(COutputLogToFile, LinesOfFourThreadsAreWhole)
{
    TemporaryFolder folder;
    constexpr int kMessages = 3000;
    {
        COutputLogToFile log;
        ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

        LogBurst(log, kMessages, 1500);
    }

    EXPECT_GE(FolderNames(folder.GetPath()).size(), 3u);
    EXPECT_EQ(CheckBurst(FolderLines(folder.GetPath()), 1500), Counts(kMessages));
}

TEST(COutputLogToFile, FirstMessagesOfFourThreadsOpenOnce)
{
    TemporaryFolder folder;
    COutputLogToFile log;
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    log.CloseFile();
    std::filesystem::remove(folder / "log_001.log");

    LogBurst(log, 50, 10);

    EXPECT_THAT(FolderNames(folder.GetPath()), ElementsAre("log_001.log"));
    const std::vector<std::string> lines = LogFileLines(folder / "log_001.log");
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "<time> Host Information:"), 1);
    EXPECT_EQ(CheckBurst(lines, 10), Counts(50));
}

// Files of 16 KiB of which the oldest go: threads meet in closing, opening and deleting.
TEST(COutputLogToFile, FourThreadsMayFillManySmallFiles)
{
    TemporaryFolder folder;
    COutputLogToFile log(0);
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

    LogBurst(log, 1000, 800);
    log.Print("last");

    EXPECT_EQ(FolderNames(folder.GetPath()).size(), 6u);
    EXPECT_THAT(FolderLines(folder.GetPath()), Contains("<time> last"));
}

// Two threads print raw lines, two messages: both go through the line buffer, under one lock.
TEST(COutputLogToFile, RawLinesAndMessagesOfFourThreadsAreWhole)
{
    TemporaryFolder folder;
    COutputLogToFile log(1LL << 30);
    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));
    constexpr int kLines = 3000;
    std::vector<std::thread> threads;

    for (int thread = 0; thread < kThreads; ++thread)
        threads.emplace_back([&log, thread] {
            const std::string text(1500, static_cast<char>('a' + thread));
            for (int i = 0; i < kLines; ++i) {
                if (thread < 2)
                    log.PrintRaw(text.c_str());
                else
                    log.AppendMessage(COutputLog::Info, 0, text.data(), static_cast<unsigned int>(text.size()));
            }
        });
    for (std::thread& thread : threads)
        thread.join();

    const std::vector<std::string> lines = FolderLines(folder.GetPath());
    for (int thread = 0; thread < kThreads; ++thread) {
        const std::string text = (thread < 2 ? "" : "<time> ") + std::string(1500, static_cast<char>('a' + thread));
        EXPECT_EQ(std::count(lines.begin(), lines.end(), text), kLines);
    }
}

// --- Processes -----------------------------------------------------------------------------------------------------

// A call that has returned has its line in the file; of the one that the kill cuts short part of a line may be left.
TEST(COutputLogToFile, KilledBurstLeavesWholeLinesButTheLast)
{
    for (int round = 0; round < 5; ++round) {
        TemporaryFolder folder;
        SharedCounts logged;
        ForkedProcess process([&] {
            COutputLogToFile log(1LL << 34);
            log.OpenAtLocation(folder.GetPath(), "log");
            LogBurst(log, std::numeric_limits<int>::max(), 400, &logged);
        });
        const bool isBusy = WaitUntil([&] {
            int threads = 0;
            for (int thread = 0; thread < kThreads; ++thread)
                threads += logged[thread] > 20 * round ? 1 : 0;
            return threads == kThreads;
        });

        process.Kill();

        EXPECT_TRUE(WIFSIGNALED(process.Wait()));
        ASSERT_TRUE(isBusy);
        std::vector<std::string> lines;
        for (const std::string& name : FolderNames(folder.GetPath())) {
            const std::string text = ReadFileText(folder / name);
            lines = std::move(lines) + LogLines(text.substr(0, text.rfind('\n') + 1)); // without a last part of a line
        }
        std::map<int, int> counts = CheckBurst(lines, 400);
        for (int thread = 0; thread < kThreads; ++thread) {
            EXPECT_GE(counts[thread], logged[thread]);
            EXPECT_LE(counts[thread], logged[thread] + 1);
        }
    }
}

TEST(COutputLogToFile, LineIsWithTheKernelWhenTheCallReturns)
{
    TemporaryFolder folder;
    ForkedProcess process([&] {
        COutputLogToFile log;
        log.OpenAtLocation(folder.GetPath(), "log");
        log.Print("last words");
        ::kill(::getpid(), SIGKILL);
    });

    EXPECT_TRUE(WIFSIGNALED(process.Wait()));

    EXPECT_THAT(ReadFileText(folder / "log_001.log"), EndsWith(" last words\n"));
}

TEST(COutputLogToFile, LogGoesOnBehindWhatAKilledProcessLeft)
{
    TemporaryFolder folder;
    ForkedProcess process([&] {
        COutputLogToFile log;
        log.OpenAtLocation(folder.GetPath(), "log");
        ::kill(::getpid(), SIGKILL);
    });
    process.Wait();
    const std::string before = ReadFileText(folder / "log_001.log");
    COutputLogToFile log;

    ASSERT_TRUE(log.OpenAtLocation(folder.GetPath(), "log"));

    EXPECT_THAT(ReadFileText(folder / "log_001.log"), StartsWith(before + '\n'));
}

TEST(COutputLogToFile, TwoProcessesWithTheirOwnNamesShareAFolder)
{
    TemporaryFolder folder;
    constexpr int kMessages = 500;
    const auto log = [&](const char* name) {
        COutputLogToFile file;
        file.OpenAtLocation(folder.GetPath(), name);
        LogBurst(file, kMessages, 300);
    };
    ForkedProcess first([&] { log("first"); });
    ForkedProcess second([&] { log("second"); });

    EXPECT_EQ(first.Wait(), 0);
    EXPECT_EQ(second.Wait(), 0);

    EXPECT_THAT(FolderNames(folder.GetPath()), ElementsAre("first_001.log", "second_001.log"));
    EXPECT_EQ(CheckBurst(LogFileLines(folder / "first_001.log"), 300), Counts(kMessages));
    EXPECT_EQ(CheckBurst(LogFileLines(folder / "second_001.log"), 300), Counts(kMessages));
}

// They overwrite each other's lines, which the log does not promise otherwise; but each goes on to its end.
TEST(COutputLogToFile, TwoProcessesUnderOneNameBothReachTheirEnd)
{
    TemporaryFolder folder;
    const auto log = [&] {
        COutputLogToFile file(0);
        file.OpenAtLocation(folder.GetPath(), "log");
        LogBurst(file, 500, 800);
    };
    ForkedProcess first(log);
    ForkedProcess second(log);

    EXPECT_EQ(first.Wait(), 0);
    EXPECT_EQ(second.Wait(), 0);

    COutputLogToFile after(0);
    ASSERT_TRUE(after.OpenAtLocation(folder.GetPath(), "log"));
    after.Print("text");
    EXPECT_LE(FolderNames(folder.GetPath()).size(), 6u);
    EXPECT_THAT(FolderLines(folder.GetPath()), Contains("<time> text"));
}

} // namespace
