#pragma once

#include "PairedRounds.h"
#include "ThisProcess.h"

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
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <vector>

// Servers that are measured against each other: each one in a process of its own on the first core, so that its CPU
// time is its own. The load comes from the benchmark's process, on the second core.

constexpr int kServerCore = 0;
constexpr int kLoadCore = 1;

// Serves on the calling thread, calls `ready` once callers are served, and does not return.
using ServerFunction = void (*)(unsigned short port, const std::function<void()>& ready);

// Where that is allowed, the load runs as soon as it can, whatever else the machine does: a load that waits for its
// core hands the server one message at a time, and the figures would show the other programs. The servers run as usual.
inline void PreferTheLoad()
{
    sched_param parameters{};
    parameters.sched_priority = 1;
    if (::sched_setscheduler(0, SCHED_FIFO | SCHED_RESET_ON_FORK, &parameters) != 0)
        std::fprintf(stderr, "The load runs without priority: on a busy machine the figures are worth less.\n");
}

// A port that nobody has at this moment. socketType: SOCK_STREAM or SOCK_DGRAM.
inline unsigned short FindFreePort(int socketType)
{
    const int socket = ::socket(AF_INET, socketType | SOCK_CLOEXEC, 0);
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
    ServerProcess(ServerFunction server, int socketType) : m_Port(FindFreePort(socketType))
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

// Some servers that are running at the same time; the first one is ours.
template<std::size_t Count>
using ServerProcesses = std::array<std::unique_ptr<ServerProcess>, Count>;

template<std::size_t Count>
ServerProcesses<Count> StartServers(const ServerFunction (&functions)[Count], int socketType)
{
    ServerProcesses<Count> servers;
    for (std::size_t kind = 0; kind < Count; ++kind)
        servers[kind] = std::make_unique<ServerProcess>(functions[kind], socketType);
    return servers;
}

// The medians over the rounds.
template<std::size_t Count>
struct ServerCosts
{
    double m_Seconds[Count]; // for each message or connection
    double m_Ratio[Count];   // ours to this one
};

// Runs the servers in turn `rounds` times, after one round that is not counted. `load` puts its load on one of them and
// returns how many messages or connections it made.
template<std::size_t Count, class Load>
ServerCosts<Count> MeasureServers(const ServerProcesses<Count>& servers, int rounds, Load&& load)
{
    std::vector<double> seconds[Count];
    std::vector<double> ratios[Count];
    for (int round = -1; round < rounds; ++round) {
        double cost[Count];
        for (std::size_t turn = 0; turn < Count; ++turn) {
            const std::size_t kind = round % 2 == 0 ? turn : Count - 1 - turn;
            const double before = servers[kind]->GetCpuSeconds();
            const unsigned long long count = load(kind);
            cost[kind] = (servers[kind]->GetCpuSeconds() - before) / static_cast<double>(count);
        }
        for (std::size_t kind = 0; kind < Count && round >= 0; ++kind) {
            seconds[kind].push_back(cost[kind]);
            ratios[kind].push_back(cost[0] / cost[kind]);
        }
    }
    ServerCosts<Count> result{};
    for (std::size_t kind = 0; kind < Count; ++kind) {
        result.m_Seconds[kind] = Median(seconds[kind]);
        result.m_Ratio[kind] = Median(ratios[kind]);
    }
    return result;
}
