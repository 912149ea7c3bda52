// Rotating log files beside those of spdlog, POCO and Boost.Log, and beside the floor: reading the clock and writing a
// line that is ready. CPU time of the process, user and system, for each message. All contenders write the same lines,
// each with its UTC time and in the kernel's hands when the call returns, to 8 files of 4 MiB in memory.

#include "support/PairedRounds.h"

#include <QDPlatform/COutputLogToFile.h>
#include <QDPlatform/COutputLogToFileWithoutCS.h>
#include <QDPlatform/QDFilePath.h>
#include <QDPlatform/QDTimestamp.h>

#include <Poco/AutoPtr.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/PatternFormatter.h>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/log/attributes/clock.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions/message.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_file_backend.hpp>
#include <boost/log/sources/logger.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/utility/value_ref.hpp>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include <fcntl.h>
#include <sys/vfs.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace
{

constexpr std::size_t kFileSize = 4 * 1024 * 1024;
constexpr unsigned int kFileCount = 8;
constexpr int kRounds = 25;                       // and one before them that is not counted
constexpr unsigned int kMessagesPerRound = 24000; // of all threads together
constexpr std::size_t kStampLength = 23;

constexpr char kPlainText[] = "Modbus server 502: link 17 closed by the other side after 8 s";

// The five values; the line is equally long for every `i` of a round.
constexpr char kStation[] = "pump-07";
constexpr unsigned int kUnit = 247;
constexpr char kFormat[] = "%s: register %d of unit %u reads %.3f, raw 0x%lx";
constexpr char kFirstFormatted[] = "pump-07: register 100000 of unit 247 reads 20.125, raw 0x10000";

constexpr int Register(unsigned int i)
{
    return 100000 + static_cast<int>(i);
}

constexpr double Reading(unsigned int i)
{
    return 20.125 + 0.25 * (i % 256);
}

constexpr unsigned long Raw(unsigned int i)
{
    return 0x10000 + i;
}

void Require(bool condition, const char* what)
{
    if (condition)
        return;
    std::fprintf(stderr, "%s\n", what);
    std::exit(1);
}

std::string TimeText()
{
    char text[24];
    CQDTimestamp::UTCNow().ToText(text, ' ');
    return text;
}

// One way to log, in a folder of its own. LogPlainText() and LogFormat() log `count` messages from the calling thread.
class Contender
{
public:
    explicit Contender(const char* name) : m_pName(name) {}

    Contender(const Contender&) = delete;
    Contender& operator=(const Contender&) = delete;
    virtual ~Contender() = default;

    virtual void LogPlainText(unsigned int count) = 0;
    virtual void LogFormat(unsigned int count) = 0;

    const char* GetName() const { return m_pName; }

private:
    const char* m_pName;
};

// Knows nothing but the clock and the descriptor. The threads share the descriptor without a lock of their own; the
// kernel has one for its position. One of them starts the file afresh when it is full.
class Floor final : public Contender
{
public:
    Floor(const char* name, const std::string& folder) : Contender(name)
    {
        m_File = ::open((folder + "/floor.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        Require(m_File >= 0, "The floor cannot open its file");
    }

    ~Floor() override { ::close(m_File); }

    void LogPlainText(unsigned int count) override { Log(count, TimeText() + ' ' + kPlainText + '\n'); }

    void LogFormat(unsigned int count) override { Log(count, TimeText() + ' ' + kFirstFormatted + '\n'); }

private:
    void Log(unsigned int count, const std::string& line)
    {
        for (unsigned int i = 0; i < count; ++i) {
            timespec now;
            ::clock_gettime(CLOCK_REALTIME, &now);
            KeepResult(now);
            Require(::write(m_File, line.data(), line.size()) == static_cast<ssize_t>(line.size()), "write");
            if (i % kMessagesPerCheck == kMessagesPerCheck - 1)
                StartAfreshWhenFull();
        }
    }

    void StartAfreshWhenFull()
    {
        if (::lseek(m_File, 0, SEEK_CUR) < static_cast<off_t>(kFileSize) || m_Restarting.exchange(true))
            return;
        Require(::lseek(m_File, 0, SEEK_SET) == 0 && ::ftruncate(m_File, 0) == 0, "ftruncate");
        m_Restarting = false;
    }

    static constexpr unsigned int kMessagesPerCheck = 1000;

    int m_File;
    std::atomic<bool> m_Restarting{false};
};

template<class Log>
class OurContender : public Contender
{
public:
    OurContender(const char* name, const std::string& folder) : Contender(name), m_Log(kFileCount * kFileSize)
    {
        Require(m_Log.OpenAtLocation(CQDFilePath(folder.c_str()), "log"), "Our log cannot open its file");
    }

    void LogPlainText(unsigned int count) override
    {
        const std::string text = kPlainText;
        for (unsigned int i = 0; i < count; ++i)
            m_Log.PrintString(text);
    }

    void LogFormat(unsigned int count) override
    {
        for (unsigned int i = 0; i < count; ++i)
            m_Log.Print(kFormat, kStation, Register(i), kUnit, Reading(i), Raw(i));
    }

protected:
    Log m_Log;
};

// The plain text goes through the C library's formatter, as it does where nobody took care.
class OurPrintContender final : public OurContender<COutputLogToFile>
{
public:
    using OurContender::OurContender;

    void LogPlainText(unsigned int count) override
    {
        for (unsigned int i = 0; i < count; ++i)
            m_Log.Print(kPlainText);
    }
};

template<class Sink>
class SpdlogContender final : public Contender
{
public:
    SpdlogContender(const char* name, const std::string& folder) :
        Contender(name), m_Logger("log", std::make_shared<Sink>(folder + "/log.log", kFileSize, kFileCount - 1))
    {
        m_Logger.set_formatter(
            std::make_unique<spdlog::pattern_formatter>("%Y-%m-%d %H:%M:%S.%e %v", spdlog::pattern_time_type::utc));
        m_Logger.flush_on(spdlog::level::trace);
    }

    void LogPlainText(unsigned int count) override
    {
        const std::string text = kPlainText;
        for (unsigned int i = 0; i < count; ++i)
            m_Logger.info(text);
    }

    void LogFormat(unsigned int count) override
    {
        for (unsigned int i = 0; i < count; ++i)
            m_Logger.info("{}: register {} of unit {} reads {:.3f}, raw 0x{:x}", kStation, Register(i), kUnit,
                          Reading(i), Raw(i));
    }

private:
    spdlog::logger m_Logger;
};

class PocoContender final : public Contender
{
public:
    PocoContender(const char* name, const std::string& folder) :
        Contender(name),
        m_pFile(new Poco::FileChannel(folder + "/log.log")),
        m_Logger(Poco::Logger::create(
            folder, new Poco::FormattingChannel(new Poco::PatternFormatter("%Y-%m-%d %H:%M:%S.%i %t"), m_pFile)))
    {
        m_pFile->setProperty(Poco::FileChannel::PROP_ROTATION, std::to_string(kFileSize));
        m_pFile->setProperty(Poco::FileChannel::PROP_ARCHIVE, "number");
        m_pFile->setProperty(Poco::FileChannel::PROP_PURGECOUNT, std::to_string(kFileCount - 1));
        m_pFile->setProperty(Poco::FileChannel::PROP_FLUSH, "true");
    }

    ~PocoContender() override { Poco::Logger::destroy(m_Logger.name()); }

    void LogPlainText(unsigned int count) override
    {
        const std::string text = kPlainText;
        for (unsigned int i = 0; i < count; ++i)
            m_Logger.information(text);
    }

    void LogFormat(unsigned int count) override
    {
        const std::string station = kStation;
        const std::string format = kFormat;
        for (unsigned int i = 0; i < count; ++i)
            m_Logger.information(format, station, Register(i), kUnit, Reading(i), Raw(i));
    }

private:
    Poco::AutoPtr<Poco::FileChannel> m_pFile;
    Poco::Logger& m_Logger;
};

class BoostContender final : public Contender
{
public:
    BoostContender(const char* name, const std::string& folder) : Contender(name)
    {
        namespace keywords = boost::log::keywords;
        const auto backend = boost::make_shared<boost::log::sinks::text_file_backend>(
            keywords::file_name = folder + "/log_%3N.log", keywords::rotation_size = kFileSize,
            keywords::auto_flush = true);
        backend->set_file_collector(
            boost::log::sinks::file::make_collector(keywords::target = folder, keywords::max_files = kFileCount - 1));
        m_pSink = boost::make_shared<Sink>(backend);
        m_pSink->set_formatter(&WriteLine);
        boost::log::core::get()->add_global_attribute("TimeStamp", boost::log::attributes::utc_clock());
        boost::log::core::get()->add_sink(m_pSink);
    }

    ~BoostContender() override { boost::log::core::get()->remove_sink(m_pSink); }

    // Each thread has a logger of its own, which needs no lock.
    void LogPlainText(unsigned int count) override
    {
        const std::string text = kPlainText;
        boost::log::sources::logger logger;
        for (unsigned int i = 0; i < count; ++i)
            BOOST_LOG(logger) << text;
    }

    void LogFormat(unsigned int count) override
    {
        boost::log::sources::logger logger;
        for (unsigned int i = 0; i < count; ++i) {
            BOOST_LOG(logger) << kStation << ": register " << Register(i) << " of unit " << kUnit << " reads "
                              << std::fixed << std::setprecision(3) << Reading(i) << ", raw 0x" << std::hex << Raw(i);
        }
    }

private:
    using Sink = boost::log::sinks::synchronous_sink<boost::log::sinks::text_file_backend>;

    // Its own date formatter has no milliseconds.
    static void WriteLine(const boost::log::record_view& record, boost::log::formatting_ostream& stream)
    {
        const auto time = record["TimeStamp"].extract<boost::posix_time::ptime>().get();
        const auto date = time.date().year_month_day();
        const auto timeOfDay = time.time_of_day();
        char text[kStampLength + 1];
        char* end = text;
        const auto append = [&end](long long value, int digits, char separator) {
            for (int i = digits - 1; i >= 0; --i, value /= 10)
                end[i] = static_cast<char>('0' + value % 10);
            end[digits] = separator;
            end += digits + 1;
        };
        append(date.year, 4, '-');
        append(date.month, 2, '-');
        append(date.day, 2, ' ');
        append(timeOfDay.hours(), 2, ':');
        append(timeOfDay.minutes(), 2, ':');
        append(timeOfDay.seconds(), 2, '.');
        append(timeOfDay.total_milliseconds() % 1000, 3, ' ');
        stream.write(text, end - text);
        stream << record[boost::log::expressions::smessage];
    }

    boost::shared_ptr<Sink> m_pSink;
};

// A new folder in memory, where the time is the program's and not the disk's; goes with all that it holds.
class ScratchFolder
{
public:
    ScratchFolder()
    {
        std::string name = "/dev/shm/qdplatform-XXXXXX";
        Require(::mkdtemp(name.data()) != nullptr, "No folder could be made in /dev/shm");
        m_Path = name;
        struct statfs information;
        constexpr auto kTmpfsMagic = 0x01021994;
        Require(::statfs(name.c_str(), &information) == 0 && information.f_type == kTmpfsMagic,
                "/dev/shm is no file system in memory");
    }

    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    ~ScratchFolder() { std::filesystem::remove_all(m_Path); }

    std::string MakeSubfolder(std::size_t number) const
    {
        const std::filesystem::path path = m_Path / std::to_string(number);
        std::filesystem::create_directory(path);
        return path;
    }

    void RemoveSubfolders() const
    {
        for (const auto& entry : std::filesystem::directory_iterator(m_Path))
            std::filesystem::remove_all(entry.path());
    }

private:
    std::filesystem::path m_Path;
};

// Whether a file of the folder has the message in a line with a time stamp from `from` to `to`.
bool HoldsLine(const std::string& folder, std::string_view message, const std::string& from, const std::string& to)
{
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        std::ifstream file(entry.path(), std::ios::binary);
        for (std::string line; std::getline(file, line);) {
            const std::string stamp = line.substr(0, kStampLength);
            if (line.size() == kStampLength + 1 + message.size() && line.ends_with(message) &&
                line[kStampLength] == ' ' && from <= stamp && stamp <= to)
                return true;
        }
    }
    return false;
}

// Ends the program unless the contender's lines are what they should be, and in the file when the call returns.
void RequireLines(Contender& contender, const std::string& folder)
{
    const std::string from = TimeText();
    contender.LogPlainText(1);
    contender.LogFormat(1);
    const std::string to = TimeText();
    if (HoldsLine(folder, kPlainText, from, to) && HoldsLine(folder, kFirstFormatted, from, to))
        return;
    std::fprintf(stderr, "Not the same lines: %s\n", contender.GetName());
    std::exit(1);
}

// Ends the program unless the folder holds as many files as it should, none of them larger than one message above the
// limit and what surrounds the messages.
void RequireRotation(const Contender& contender, const std::string& folder, unsigned int fileCount)
{
    constexpr std::size_t kSlack = 4096;
    unsigned int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        count += entry.file_size() <= kFileSize + kSlack ? 1 : kFileCount + 1;
    if (count == fileCount)
        return;
    std::fprintf(stderr, "Not rotated alike: %s\n", contender.GetName());
    std::exit(1);
}

struct Cost
{
    double m_CpuSeconds;  // of the process, for each message
    double m_WallSeconds; // for each message of one thread
};

double GetCpuSeconds()
{
    timespec time;
    Require(::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time) == 0, "clock_gettime");
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

using LogFunction = void (Contender::*)(unsigned int count);

// A single message thread is started too: the C library takes short cuts in a process that never had a second one.
Cost RunOnce(Contender& contender, LogFunction log, unsigned int threadCount)
{
    const unsigned int count = kMessagesPerRound / threadCount;
    const double cpuBefore = GetCpuSeconds();
    const auto before = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < threadCount; ++i)
        threads.emplace_back([&contender, log, count] { (contender.*log)(count); });
    for (std::thread& thread : threads)
        thread.join();
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - before;
    const double cpu = GetCpuSeconds() - cpuBefore;
    return {cpu / kMessagesPerRound, wall.count() / count};
}

// The medians over the rounds.
struct Result
{
    double m_CpuSeconds;
    double m_WallSeconds;
    double m_ToFloor; // CPU time divided by the floor's
    double m_OfOurs;  // COutputLogToFile's CPU time divided by this one's
};

constexpr std::size_t kFloor = 0;
constexpr std::size_t kOurs = 1;

// The contenders run in turn, the first one of a round a different one each time.
std::vector<Result> Measure(const std::vector<Contender*>& contenders, LogFunction log, unsigned int threadCount)
{
    struct Samples
    {
        std::vector<double> m_Cpu, m_Wall, m_ToFloor, m_OfOurs;
    };

    std::vector<Samples> samples(contenders.size());
    std::vector<Cost> costs(contenders.size());
    for (int round = -1; round < kRounds; ++round) {
        for (std::size_t turn = 0; turn < contenders.size(); ++turn) {
            const std::size_t i = (turn + static_cast<std::size_t>(round + 1)) % contenders.size();
            costs[i] = RunOnce(*contenders[i], log, threadCount);
        }
        for (std::size_t i = 0; i < contenders.size() && round >= 0; ++i) {
            samples[i].m_Cpu.push_back(costs[i].m_CpuSeconds);
            samples[i].m_Wall.push_back(costs[i].m_WallSeconds);
            samples[i].m_ToFloor.push_back(costs[i].m_CpuSeconds / costs[kFloor].m_CpuSeconds);
            samples[i].m_OfOurs.push_back(costs[kOurs].m_CpuSeconds / costs[i].m_CpuSeconds);
        }
    }
    std::vector<Result> results;
    for (const Samples& each : samples)
        results.push_back({Median(each.m_Cpu), Median(each.m_Wall), Median(each.m_ToFloor), Median(each.m_OfOurs)});
    return results;
}

struct Case
{
    const char* m_pName;
    LogFunction m_Log;
    unsigned int m_ThreadCount;
    double m_Target; // COutputLogToFile's CPU time divided by the floor's; 0: none
};

constexpr Case kCases[] = {
    {"plain text, 1 thread", &Contender::LogPlainText, 1, 1.15},
    {"plain text, 4 threads", &Contender::LogPlainText, 4, 1.2},
    {"format with five values, 1 thread", &Contender::LogFormat, 1, 0},
    {"format with five values, 4 threads", &Contender::LogFormat, 4, 0},
};

struct Entry
{
    std::string m_Folder;
    std::unique_ptr<Contender> m_pContender;
    unsigned int m_FileCount; // at the end
    bool m_IsPeer;
};

// The floor and COutputLogToFile first, as kFloor and kOurs say. Logs that take no lock are there for one thread only.
std::vector<Entry> MakeEntries(const Case& item, const ScratchFolder& scratch)
{
    std::vector<Entry> entries;
    const auto add = [&]<class Type>(std::in_place_type_t<Type>, const char* name, unsigned int fileCount,
                                     bool isPeer) {
        const std::string folder = scratch.MakeSubfolder(entries.size());
        entries.push_back({folder, std::make_unique<Type>(name, folder), fileCount, isPeer});
    };
    const auto addOurs = [&](auto type, const char* name) { add(type, name, kFileCount, false); };
    const auto addPeer = [&](auto type, const char* name) { add(type, name, kFileCount, true); };
    add(std::in_place_type<Floor>, "floor: `clock_gettime` + `write`", 1, false);
    addOurs(std::in_place_type<OurContender<COutputLogToFile>>, "COutputLogToFile");
    if (item.m_Log == &Contender::LogPlainText)
        addOurs(std::in_place_type<OurPrintContender>, "COutputLogToFile, text as a format");
    if (item.m_ThreadCount == 1) {
        addOurs(std::in_place_type<OurContender<COutputLogToFileWithoutCS>>, "COutputLogToFileWithoutCS");
        addPeer(std::in_place_type<SpdlogContender<spdlog::sinks::rotating_file_sink_st>>, "spdlog, without lock");
    }
    addPeer(std::in_place_type<SpdlogContender<spdlog::sinks::rotating_file_sink_mt>>, "spdlog");
    addPeer(std::in_place_type<PocoContender>, "POCO");
    addPeer(std::in_place_type<BoostContender>, "Boost.Log");
    return entries;
}

struct Summary
{
    double m_ToFloor;
    double m_ToBestPeer;
};

Summary RunCase(const Case& item, const ScratchFolder& scratch)
{
    std::vector<Entry> entries = MakeEntries(item, scratch);
    std::vector<Contender*> contenders;
    for (const Entry& entry : entries) {
        RequireLines(*entry.m_pContender, entry.m_Folder);
        contenders.push_back(entry.m_pContender.get());
    }
    const std::vector<Result> results = Measure(contenders, item.m_Log, item.m_ThreadCount);

    std::printf("### %s\n\n| log | CPU | time | CPU / floor | COutputLogToFile / this |\n|---|---:|---:|---:|---:|\n",
                item.m_pName);
    Summary summary{results[kOurs].m_ToFloor, 0};
    for (std::size_t i = 0; i < results.size(); ++i) {
        RequireRotation(*contenders[i], entries[i].m_Folder, entries[i].m_FileCount);
        std::printf("| %s | %.0f ns | %.0f ns | %.2f | %.2f |\n", contenders[i]->GetName(),
                    results[i].m_CpuSeconds * 1e9, results[i].m_WallSeconds * 1e9, results[i].m_ToFloor,
                    results[i].m_OfOurs);
        if (entries[i].m_IsPeer)
            summary.m_ToBestPeer = std::max(summary.m_ToBestPeer, results[i].m_OfOurs);
    }
    std::printf("\n");
    std::fflush(stdout);
    entries.clear();
    scratch.RemoveSubfolders();
    return summary;
}

} // namespace

int main()
{
    std::printf(
        "CPU: user and system time of the process for each message. Time: from call to call in one thread.\n\n");
    static const ScratchFolder scratch; // static: std::exit() removes it too
    std::vector<Summary> summaries;
    for (const Case& item : kCases)
        summaries.push_back(RunCase(item, scratch));

    std::printf("### Summary\n\n| figure | ratio | target |\n|---|---:|---:|\n");
    for (std::size_t i = 0; i < summaries.size(); ++i) {
        if (kCases[i].m_Target > 0)
            std::printf("| %s, against the floor | %.2f | %.2f |\n", kCases[i].m_pName, summaries[i].m_ToFloor,
                        kCases[i].m_Target);
        else
            std::printf("| %s, against the floor | %.2f | none |\n", kCases[i].m_pName, summaries[i].m_ToFloor);
        std::printf("| %s, against the best peer | %.2f | 1.00 |\n", kCases[i].m_pName, summaries[i].m_ToBestPeer);
    }
    return 0;
}
