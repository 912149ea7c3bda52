// A small SCADA station: a Modbus/TCP server whose clients read live figures of the host and write registers and coils.
#include "ProcessImage.h"
#include "RegisterFile.h"
#include "StationFolder.h"
#include "StationOptions.h"
#include "StationServer.h"

#include <QDPlatform/COutputLogToFile.h>

#include <signal.h>

#include <cstdio>
#include <string>

namespace
{

constexpr int kExitStopped = 0;
constexpr int kExitCannotServe = 1;
constexpr int kExitBadArguments = 2;
constexpr int kExitNoFiles = 3; // no folder, no log or no registers

int FailWith(int status, const std::string& reason)
{
    std::fprintf(stderr, "station: %s\n", reason.c_str());
    return status;
}

// For whoever looks at the terminal, or at the end of a pipe: the line appears at once.
void Show(const std::string& text)
{
    std::printf("Station: %s\n", text.c_str());
    std::fflush(stdout);
}

void ShowAndLog(COutputLog& log, const std::string& text)
{
    log.PrintString("Station: " + text);
    Show(text);
}

// Blocks the signals that stop the station, so that WaitForStop() finds them. Threads inherit this: it must come before
// the first one. That the reader of its output has gone must not end the station, so SIGPIPE is ignored.
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

int Serve(const StationOptions& options, const sigset_t& stopSignals, ProcessImage& image, COutputLog& log)
{
    const std::string port = std::to_string(options.m_Port);
    StationServer server(&log, image, options.m_Port, options.m_LinksPerThread);
    server.SetLinkLogging(options.m_LogLevel);
    if (!server.StartTcpServer())
        return FailWith(kExitCannotServe,
                        "cannot listen on port " + port + "; the log says why. Is another program using it?");
    ShowAndLog(log, "serving Modbus/TCP on port " + port);

    const int number = WaitForStop(stopSignals);

    ShowAndLog(log, "stopping on signal " + std::to_string(number));
    server.StopTcpServer();
    ShowAndLog(log, "stopped");
    return kExitStopped;
}

// The order of the objects matters: the folder is this station's alone as long as anything writes to it.
int RunStation(const StationOptions& options)
{
    const sigset_t stopSignals = PrepareSignals();
    std::string error;
    StationFolder folder;
    if (!folder.Open(options.m_LogFolder, error))
        return FailWith(kExitNoFiles, error);

    COutputLogToFile log; // 8 files of 4 MiB
    const bool isLogOpen = log.OpenAtLocation(folder.GetPath(), "station");
    std::string logName;
    log.GetGeneralLogFileName(logName);
    if (!isLogOpen)
        return FailWith(kExitNoFiles, "cannot open the log " + logName +
                                          "; is there room, and may this user write in the folder and to the newest of "
                                          "these files?");
    Show("log in " + logName);

    RegisterFile registerFile(folder.GetPath(), log);
    ProcessImage::HoldingRegisters registers;
    if (!registerFile.Load(registers, error)) {
        log.PrintString("Station: " + error);
        return FailWith(kExitNoFiles, error);
    }
    ProcessImage image;
    image.KeepHoldingRegisters(registers, [&](const auto& changed) { return registerFile.Save(changed); });
    return Serve(options, stopSignals, image, log);
}

} // namespace

int main(int argumentCount, char** arguments)
{
    StationOptions options;
    std::string error;
    if (!ParseStationOptions(argumentCount, arguments, options, error))
        return FailWith(kExitBadArguments, error);
    if (options.m_ShowHelp) {
        std::fputs(kStationUsage, stdout);
        return kExitStopped;
    }
    return RunStation(options);
}
