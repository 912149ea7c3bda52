// The TCP server beside libuv and a bare select server: CPU time of the server for each echoed message, and for each
// connection that comes and goes. Every server is a process of its own on the first core; the load comes from this
// process, on the second.

#include "QDTcpServerEchoServers.h"
#include "QDTcpServerLoadGenerator.h"
#include "support/PairedRounds.h"
#include "support/ThisProcess.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace
{

constexpr int kServerCore = 0;
constexpr int kLoadCore = 1;
constexpr int kRounds = 15; // and one before them that is not counted
constexpr std::chrono::milliseconds kRoundTime{240};
constexpr unsigned int kLinkCounts[] = {1, 16, 64, 256, 900}; // every descriptor of a server below FD_SETSIZE
constexpr std::size_t kMessageSizes[] = {64, 4096};
constexpr unsigned int kChurnAtOnce = 16;
constexpr std::size_t kChurnMessageSize = 64;
constexpr double kEchoTarget = 1.0;
constexpr double kChurnTarget = 1.2;

enum Kind : std::size_t
{
    Ours,
    Uv,
    Select,
    KindCount
};

using ServerFunction = void (*)(unsigned short port, const std::function<void()>& ready);
constexpr ServerFunction kServers[KindCount] = {RunOurServer, RunUvServer, RunSelectServer};

// Where that is allowed, the load runs as soon as it can, whatever else the machine does: a load that waits for its
// core hands the server one message at a time, and the figures would show the other programs. The servers run as usual.
void PreferTheLoad()
{
    sched_param parameters{};
    parameters.sched_priority = 1;
    if (::sched_setscheduler(0, SCHED_FIFO | SCHED_RESET_ON_FORK, &parameters) != 0)
        std::fprintf(stderr, "The load runs without priority: on a busy machine the figures are worth less.\n");
}

// A port that nobody has at this moment.
unsigned short FindFreePort()
{
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    socklen_t length = sizeof address;
    Require(::bind(socket, reinterpret_cast<const sockaddr*>(&address), length) == 0, "bind");
    Require(::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) == 0, "getsockname");
    ::close(socket);
    return ntohs(address.sin_port);
}

// A server in a process of its own, from the constructor until the destructor.
class ServerProcess
{
public:
    explicit ServerProcess(ServerFunction server) : m_Port(FindFreePort())
    {
        int ends[2];
        Require(::pipe2(ends, O_CLOEXEC) == 0, "pipe2");
        m_Process = ::fork();
        Require(m_Process >= 0, "fork");
        if (m_Process == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::close(ends[0]);
            PinTo(kServerCore);
            server(m_Port, [&] { Require(::write(ends[1], "", 1) == 1, "ready"); });
            std::_Exit(1);
        }
        ::close(ends[1]);
        char byte;
        Require(::read(ends[0], &byte, 1) == 1, "the server did not start");
        ::close(ends[0]);
        Require(::clock_getcpuclockid(m_Process, &m_Clock) == 0, "clock_getcpuclockid");
    }

    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    ~ServerProcess()
    {
        ::kill(m_Process, SIGKILL);
        ::waitpid(m_Process, nullptr, 0);
    }

    unsigned short GetPort() const { return m_Port; }

    // User and system time of all its threads so far.
    double GetCpuSeconds() const
    {
        timespec time;
        Require(::clock_gettime(m_Clock, &time) == 0, "clock_gettime");
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
    }

private:
    const unsigned short m_Port;
    pid_t m_Process{-1};
    clockid_t m_Clock{};
};

// The medians over the rounds.
struct CaseResult
{
    double m_Seconds[KindCount]; // for each message or connection
    double m_Ratio[KindCount];   // ours to this one
};

// Runs the servers in turn. `load` puts its load on one of them and returns how many messages or connections it made.
template<class Load>
CaseResult MeasureCase(const std::array<std::unique_ptr<ServerProcess>, KindCount>& servers, Load&& load)
{
    std::vector<double> seconds[KindCount];
    std::vector<double> ratios[KindCount];
    for (int round = -1; round < kRounds; ++round) {
        double cost[KindCount];
        for (std::size_t turn = 0; turn < KindCount; ++turn) {
            const std::size_t kind = round % 2 == 0 ? turn : KindCount - 1 - turn;
            const double before = servers[kind]->GetCpuSeconds();
            const unsigned long long count = load(static_cast<Kind>(kind));
            cost[kind] = (servers[kind]->GetCpuSeconds() - before) / static_cast<double>(count);
        }
        for (std::size_t kind = 0; kind < KindCount && round >= 0; ++kind) {
            seconds[kind].push_back(cost[kind]);
            ratios[kind].push_back(cost[Ours] / cost[kind]);
        }
    }
    CaseResult result{};
    for (std::size_t kind = 0; kind < KindCount; ++kind) {
        result.m_Seconds[kind] = Median(seconds[kind]);
        result.m_Ratio[kind] = Median(ratios[kind]);
    }
    return result;
}

std::array<std::unique_ptr<ServerProcess>, KindCount> StartServers()
{
    std::array<std::unique_ptr<ServerProcess>, KindCount> servers;
    for (std::size_t kind = 0; kind < KindCount; ++kind)
        servers[kind] = std::make_unique<ServerProcess>(kServers[kind]);
    return servers;
}

CaseResult MeasureEcho(unsigned int links, std::size_t messageSize)
{
    const auto servers = StartServers();
    std::unique_ptr<EchoLoad> loads[KindCount];
    for (std::size_t kind = 0; kind < KindCount; ++kind)
        loads[kind] = std::make_unique<EchoLoad>(servers[kind]->GetPort(), links, messageSize);
    return MeasureCase(servers, [&](Kind kind) { return loads[kind]->Run(kRoundTime); });
}

CaseResult MeasureChurn()
{
    const auto servers = StartServers();
    return MeasureCase(servers, [&](Kind kind) {
        return RunChurn(servers[kind]->GetPort(), kChurnAtOnce, kChurnMessageSize, kRoundTime);
    });
}

void PrintHead(const char* title, const char* caseName)
{
    std::printf("### %s\n\n| %s | ours | libuv | bare select | ours / libuv | ours / bare select |\n"
                "|---|---:|---:|---:|---:|---:|\n",
                title, caseName);
    std::fflush(stdout);
}

void PrintRow(const char* name, const CaseResult& result)
{
    std::printf("| %s | %.2f µs | %.2f µs | %.2f µs | %.2f | %.2f |\n", name, result.m_Seconds[Ours] * 1e6,
                result.m_Seconds[Uv] * 1e6, result.m_Seconds[Select] * 1e6, result.m_Ratio[Uv], result.m_Ratio[Select]);
    std::fflush(stdout);
}

} // namespace

int main()
{
    AllowManyDescriptors(); // 900 links to each of the three servers at a time
    PinTo(kLoadCore);
    PreferTheLoad();

    PrintHead("TCP echo, server CPU for each message", "links, message");
    std::vector<double> toUv;
    std::vector<double> toSelect;
    for (const std::size_t size : kMessageSizes) {
        for (const unsigned int links : kLinkCounts) {
            const CaseResult result = MeasureEcho(links, size);
            char name[64];
            std::snprintf(name, sizeof name, "%u, %zu B", links, size);
            PrintRow(name, result);
            toUv.push_back(result.m_Ratio[Uv]);
            toSelect.push_back(result.m_Ratio[Select]);
        }
    }

    std::printf("\n");
    PrintHead("TCP connection churn, server CPU for each connection", "at once, message");
    const CaseResult churn = MeasureChurn();
    char name[64];
    std::snprintf(name, sizeof name, "%u, %zu B", kChurnAtOnce, kChurnMessageSize);
    PrintRow(name, churn);

    std::printf("\n### Summary\n\n| figure | ratio | target |\n|---|---:|---:|\n");
    std::printf("| echo against libuv, geometric mean | %.2f | %.2f |\n", GeometricMean(toUv), kEchoTarget);
    std::printf("| echo against bare select, geometric mean | %.2f | none |\n", GeometricMean(toSelect));
    std::printf("| churn against bare select | %.2f | %.2f |\n", churn.m_Ratio[Select], kChurnTarget);
    return 0;
}
