// The TCP server beside libuv and a bare select server: CPU time of the server for each echoed message, and for each
// connection that comes and goes. Every server is a process of its own on the first core; the load comes from this
// process, on the second.

#include "QDTcpServerEchoServers.h"
#include "QDTcpServerLoadGenerator.h"
#include "support/PairedRounds.h"
#include "support/ServerProcess.h"
#include "support/ThisProcess.h"

#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <vector>

namespace
{

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

constexpr ServerFunction kServers[KindCount] = {RunOurServer, RunUvServer, RunSelectServer};

using CaseResult = ServerCosts<KindCount>;

CaseResult MeasureEcho(unsigned int links, std::size_t messageSize)
{
    const auto servers = StartServers(kServers, SOCK_STREAM);
    std::unique_ptr<EchoLoad> loads[KindCount];
    for (std::size_t kind = 0; kind < KindCount; ++kind)
        loads[kind] = std::make_unique<EchoLoad>(servers[kind]->GetPort(), links, messageSize);
    return MeasureServers(servers, kRounds, [&](std::size_t kind) { return loads[kind]->Run(kRoundTime); });
}

CaseResult MeasureChurn()
{
    const auto servers = StartServers(kServers, SOCK_STREAM);
    return MeasureServers(servers, kRounds, [&](std::size_t kind) {
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
