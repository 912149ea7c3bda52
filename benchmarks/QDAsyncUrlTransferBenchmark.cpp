// The URL transfer thread beside a bare loop of socket actions and select, libcurl's own poll loop, and the curl
// program: CPU time for each GET of many at once from a web server on the same machine. Every contender is a process of
// its own on the first core; nginx is on the second.

#include "QDAsyncUrlTransferContenders.h"
#include "QDAsyncUrlTransferServer.h"
#include "support/PairedRounds.h"
#include "support/ThisProcess.h"

#include <curl/curl.h>
#include <malloc.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace
{

constexpr int kContenderCore = 0;
constexpr int kServerCore = 1;
constexpr int kRounds = 31;                            // and one before them that is not counted
constexpr unsigned int kTransfersPerTurn = 800;        // of one contender in one round: one batch of 800, four of 200
constexpr unsigned int kTransferCounts[] = {200, 800}; // every descriptor below FD_SETSIZE
constexpr double kTarget = 1.08;

enum Kind : std::size_t
{
    Ours,
    SelectLoop,
    PollLoop,
    Command,
    KindCount
};

template<class Class>
std::unique_ptr<Contender> Make()
{
    return std::make_unique<Class>();
}

using ContenderFactory = std::unique_ptr<Contender> (*)();
constexpr ContenderFactory kContenders[KindCount] = {Make<TransferThreadContender>, Make<SelectLoopContender>,
                                                     Make<PollLoopContender>, Make<CommandContender>};

// What one turn of a contender came to.
struct Turn
{
    double m_CpuSeconds;  // user and system time of all threads, for each GET
    double m_Connections; // made, for each GET
};

// Where that is allowed, contenders and server go before whatever else the machine does: what waits for its core finds
// more to do at once, and the figures would show the other programs.
void PreferTheContenders()
{
    if (::setpriority(PRIO_PROCESS, 0, -20) != 0)
        std::fprintf(stderr, "No priority for the contenders: on a busy machine the figures are worth less.\n");
}

double ToSeconds(const timeval& time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

// User and system time of all threads of this process and of the children that it waited for.
double GetCpuSeconds()
{
    double seconds = 0;
    for (const auto who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage;
        Require(::getrusage(who, &usage) == 0, "getrusage");
        seconds += ToSeconds(usage.ru_utime) + ToSeconds(usage.ru_stime);
    }
    return seconds;
}

// A contender in a process of its own, from the constructor until the destructor. Making the contender is not counted.
class ContenderProcess
{
public:
    ContenderProcess(ContenderFactory factory, const Batch& batch)
    {
        int ends[2];
        Require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
        m_Socket = ends[0];
        m_Process = ::fork();
        Require(m_Process >= 0, "fork");
        if (m_Process == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::close(ends[0]);
            PinTo(kContenderCore);
            Serve(ends[1], factory, batch);
            std::_Exit(0);
        }
        ::close(ends[1]);
    }

    ContenderProcess(const ContenderProcess&) = delete;
    ContenderProcess& operator=(const ContenderProcess&) = delete;

    ~ContenderProcess()
    {
        ::kill(m_Process, SIGKILL);
        ::waitpid(m_Process, nullptr, 0);
        ::close(m_Socket);
    }

    Turn Run()
    {
        Turn turn{};
        Require(::write(m_Socket, "", 1) == 1, "a contender ended");
        Require(::read(m_Socket, &turn, sizeof turn) == static_cast<ssize_t>(sizeof turn), "a contender ended");
        return turn;
    }

private:
    // Runs a turn for each byte. Freed memory stays in the process: whether the end of the heap is free at the end of a
    // batch, so that it would go back to the system and be faulted in again, is an accident of so small a program.
    static void Serve(int socket, ContenderFactory factory, const Batch& batch)
    {
        ::mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
        QDAsyncUrlTransferThread::InitialiseUrlTransferThread();
        std::unique_ptr<Contender> contender;
        char byte = 0;
        while (::read(socket, &byte, 1) == 1) {
            Turn turn{};
            for (unsigned int done = 0; done < kTransfersPerTurn; done += batch.m_Transfers) {
                if (!contender)
                    contender = MakeContender(factory, batch);
                const double before = GetCpuSeconds();
                turn.m_Connections += static_cast<double>(contender->RunBatch(batch)) / kTransfersPerTurn;
                turn.m_CpuSeconds += (GetCpuSeconds() - before) / kTransfersPerTurn;
            }
            Require(::write(socket, &turn, sizeof turn) == static_cast<ssize_t>(sizeof turn), "write");
        }
    }

    static std::unique_ptr<Contender> MakeContender(ContenderFactory factory, const Batch& batch)
    {
        std::unique_ptr<Contender> contender = factory();
        if (!batch.m_FreshConnections)
            contender->Hold({LoopbackUrl(kSilentPort, ""), 0, batch.m_Transfers / 4, false});
        return contender;
    }

    int m_Socket{-1};
    pid_t m_Process{-1};
};

// The medians over the rounds.
struct CaseResult
{
    double m_Seconds[KindCount];     // CPU for each GET
    double m_Ratio[KindCount];       // ours to this one
    double m_Connections[KindCount]; // made, for each GET
};

// Runs the first `kinds` contenders in turn, every second round backwards. Rounds are short and many: what else the
// machine does then falls on few of them.
CaseResult MeasureCase(const Batch& batch, std::size_t kinds)
{
    std::unique_ptr<ContenderProcess> processes[KindCount];
    for (std::size_t kind = 0; kind < kinds; ++kind)
        processes[kind] = std::make_unique<ContenderProcess>(kContenders[kind], batch);
    std::vector<double> seconds[KindCount];
    std::vector<double> ratios[KindCount];
    std::vector<double> connections[KindCount];
    for (int round = -1; round < kRounds; ++round) {
        Turn turns[KindCount];
        for (std::size_t i = 0; i < kinds; ++i) {
            const std::size_t kind = round % 2 == 0 ? i : kinds - 1 - i;
            turns[kind] = processes[kind]->Run();
        }
        for (std::size_t kind = 0; kind < kinds && round >= 0; ++kind) {
            seconds[kind].push_back(turns[kind].m_CpuSeconds);
            ratios[kind].push_back(turns[Ours].m_CpuSeconds / turns[kind].m_CpuSeconds);
            connections[kind].push_back(turns[kind].m_Connections);
        }
    }
    CaseResult result{};
    for (std::size_t kind = 0; kind < kinds; ++kind) {
        result.m_Seconds[kind] = Median(seconds[kind]);
        result.m_Ratio[kind] = Median(ratios[kind]);
        result.m_Connections[kind] = Median(connections[kind]);
    }
    return result;
}

void PrintRow(const char* name, const CaseResult& result)
{
    std::printf("| %s |", name);
    for (const double seconds : result.m_Seconds) {
        if (seconds > 0)
            std::printf(" %.1f µs |", seconds * 1e6);
        else
            std::printf(" |");
    }
    std::printf(" %.2f |", result.m_Ratio[SelectLoop]);
    for (const Kind kind : {Ours, SelectLoop, PollLoop})
        std::printf(" %.2f |", result.m_Connections[kind]);
    std::printf("\n");
    std::fflush(stdout);
}

struct Figure
{
    std::string m_Name;
    double m_Ratio;
    bool m_HasTarget;
};

void PrintSummary(const std::vector<Figure>& figures)
{
    std::printf("\n### Summary\n\n| figure | ratio | target |\n|---|---:|---:|\n");
    for (const Figure& figure : figures) {
        const char* const mark = figure.m_HasTarget && figure.m_Ratio > kTarget ? "**" : "";
        std::printf("| %s, against the bare loop | %s%.2f%s | ", figure.m_Name.c_str(), mark, figure.m_Ratio, mark);
        if (figure.m_HasTarget)
            std::printf("%.2f |\n", kTarget);
        else
            std::printf("none |\n");
    }
}

} // namespace

int main()
{
    for (const char* proxy : {"http_proxy", "ALL_PROXY", "all_proxy"})
        ::unsetenv(proxy);
    PreferTheContenders();
    EnterPrivateNetwork();
    const WebServer server(kServerCore);
    StartSilentServer();
    PinTo(kServerCore);

    std::printf(
        "CPU for each GET. Fresh: every GET makes its connection and closes it. Warm: it takes one that libcurl\n"
        "kept from an earlier batch. The program's start is in its figure; it runs at most 300 at once and "
        "reuses connections.\n\n"
        "| transfers at once, connections, reply | ours | bare loop | `curl_multi_poll` | `curl --parallel` "
        "| ours / bare loop | connections per GET: ours | bare loop | `curl_multi_poll` |\n"
        "|---|---:|---:|---:|---:|---:|---:|---:|---:|\n");
    std::fflush(stdout);
    std::vector<Figure> figures;
    for (const std::size_t size : kReplySizes) {
        for (const unsigned int transfers : kTransferCounts) {
            for (const bool fresh : {true, false}) {
                const std::string url = LoopbackUrl(kWebPort, std::to_string(size));
                const CaseResult result =
                    MeasureCase({url, size, transfers, fresh}, fresh ? std::size_t{KindCount} : std::size_t{Command});
                const std::string name =
                    std::to_string(transfers) + (fresh ? ", fresh, " : ", warm, ") + std::to_string(size) + " B";
                PrintRow(name.c_str(), result);
                figures.push_back({name, result.m_Ratio[SelectLoop], size == kReplySizes[0]});
            }
        }
    }
    PrintSummary(figures);
    return 0;
}
