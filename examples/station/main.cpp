// A small SCADA station: a Modbus/TCP server whose clients read live figures of the host and write registers and coils.
#include "DescriptorLog.h"
#include "ProcessImage.h"
#include "StationOptions.h"
#include "StationServer.h"

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace
{

constexpr int kExitStopped = 0;
constexpr int kExitCannotServe = 1;
constexpr int kExitBadArguments = 2;

constexpr CQDTimeInterval kIdleTimeout(CQDTimeInterval::TicksPerMinute);

// Blocks the signals that stop the station, so that WaitForStop() finds them. Threads inherit this: it must come before
// the first one. A log whose reader has gone must not end the station, so SIGPIPE is ignored.
sigset_t PrepareSignals()
{
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
    return stopSignals;
}

int WaitForStop(const sigset_t& stopSignals)
{
    int number = 0;
    ::sigwait(&stopSignals, &number);
    return number;
}

int RunStation(const StationOptions& options)
{
    const sigset_t stopSignals = PrepareSignals();
    DescriptorLog log(STDOUT_FILENO);
    ProcessImage image;
    StationServer server(&log, image, options.m_Port, options.m_LinksPerThread, kIdleTimeout);
    server.SetLinkLogging(options.m_LogLevel);
    if (!server.StartTcpServer()) {
        std::fprintf(stderr, "station: cannot listen on port %hu; the log says why. Is another program using it?\n",
                     options.m_Port);
        return kExitCannotServe;
    }
    log.Print("Station: serving Modbus/TCP on port %hu", options.m_Port);

    const int number = WaitForStop(stopSignals);

    log.Print("Station: stopping on signal %d", number);
    server.StopTcpServer();
    log.Print("Station: stopped");
    return kExitStopped;
}

} // namespace

int main(int argumentCount, char** arguments)
{
    StationOptions options;
    std::string error;
    if (!ParseStationOptions(argumentCount, arguments, options, error)) {
        std::fprintf(stderr, "station: %s\n", error.c_str());
        return kExitBadArguments;
    }
    if (options.m_ShowHelp) {
        std::fputs(kStationUsage, stdout);
        return kExitStopped;
    }
    return RunStation(options);
}
