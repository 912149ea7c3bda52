// A small SCADA station: a Modbus/TCP server whose clients read live figures of the host and write registers and coils.
// It gives its readings to other stations, and shows theirs.
#include "HostReport.h"
#include "PeerPoller.h"
#include "PeerReadings.h"
#include "PeerUrl.h"
#include "ProcessImage.h"
#include "ReadingsServer.h"
#include "RegisterFile.h"
#include "ServiceState.h"
#include "StationFolder.h"
#include "StationOptions.h"
#include "StationServer.h"
#include "TimeServer.h"

#include <QDPlatform/COutputLogToFile.h>
#include <QDPlatform/CTextOutputString.h>
#include <QDPlatform/QDAsyncUrlTransferThread.h>
#include <QDPlatform/QDTimestamp.h>

#include <signal.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace
{

constexpr int kExitStopped = 0;
constexpr int kExitCannotServe = 1; // or not print what was asked for
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

// For what is all that the program was asked to do. Returns the exit status.
int PrintAndEnd(const std::string& text)
{
    if (std::fputs(text.c_str(), stdout) == EOF || std::fflush(stdout) != 0)
        return FailWith(kExitCannotServe, std::string("cannot write to standard output: ") + std::strerror(errno));
    return kExitStopped;
}

// Blocks the signals that stop the station, so that WaitForStop() finds them. Threads inherit this: it must come before
// the first one. A signal that comes during the start waits until it is asked for.
sigset_t PrepareSignals()
{
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    return stopSignals;
}

// The signal that has asked for the stop so far; 0 when none has.
int GetStopSoFar(const sigset_t& stopSignals)
{
    const timespec noTime{};
    const int number = ::sigtimedwait(&stopSignals, nullptr, &noTime);
    return number > 0 ? number : 0;
}

int WaitForStop(const sigset_t& stopSignals)
{
    int number = 0;
    ::sigwait(&stopSignals, &number);
    return number;
}

// What runs while the station serves: all of it, or nothing.
class Service
{
public:
    // The log must be good for several threads.
    Service(const StationOptions& options, ProcessImage& image, PeerReadings& peers, COutputLog& log) :
        m_Options(options),
        m_ModbusServer(&log, image, options.m_Port, options.m_LinksPerThread),
        m_ReadingsServer(&log, image, options.m_HttpPort, options.m_LinksPerThread),
        m_TimeServer(&log, options.m_TimePort),
        m_Poller(log, options.m_LogLevel >= TcpServerLinkLoggingDetail ? &log : nullptr, options.m_PollUrls, peers)
    {
        m_ModbusServer.SetLinkLogging(options.m_LogLevel);
        m_ReadingsServer.SetLinkLogging(options.m_LogLevel);
    }

    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // On false nothing runs, and `error` has the reason. What was started must be stopped.
    bool Start(std::string& error)
    {
        if (StartAll(error))
            return true;
        Stop();
        return false;
    }

    // What was not started needs no stop, but can have one.
    void Stop()
    {
        m_Poller.Stop();
        if (m_Options.m_HttpPort != 0) // the log is not to hear of a server that nobody asked for
            m_ReadingsServer.StopTcpServer();
        if (m_Options.m_TimePort != 0)
            m_TimeServer.StopSocketThread();
        m_ModbusServer.StopTcpServer();
    }

private:
    bool StartAll(std::string& error)
    {
        if (!m_ModbusServer.StartTcpServer())
            return FailToListen(m_Options.m_Port, error);
        if (m_Options.m_HttpPort != 0 && !m_ReadingsServer.StartTcpServer())
            return FailToListen(m_Options.m_HttpPort, error);
        if (m_Options.m_TimePort != 0 && !m_TimeServer.StartSocketThread())
            return FailToListen(m_Options.m_TimePort, error);
        if (!m_Options.m_PollUrls.empty() && !m_Poller.Start()) {
            error = std::string("cannot start polling: ") + std::strerror(errno);
            return false;
        }
        return true;
    }

    static bool FailToListen(unsigned short port, std::string& error)
    {
        error = "cannot listen on port " + std::to_string(port) + "; the log says why. Is another program using it?";
        return false;
    }

    const StationOptions& m_Options;
    StationServer m_ModbusServer;
    ReadingsServer m_ReadingsServer;
    TimeServer m_TimeServer;
    PeerPoller m_Poller;
};

void SayWhatIsServed(const StationOptions& options, COutputLog& log)
{
    if (options.m_HttpPort != 0)
        ShowAndLog(log, "serving readings over HTTP on port " + std::to_string(options.m_HttpPort));
    if (options.m_TimePort != 0)
        ShowAndLog(log, "serving time over UDP on port " + std::to_string(options.m_TimePort));
    for (std::size_t i = 0; i < options.m_PollUrls.size(); ++i) {
        const std::size_t first = PeerReadings::kBlockSize * (i + 1);
        ShowAndLog(log, "input registers " + std::to_string(first) + " to " +
                            std::to_string(first + PeerReadings::kBlockSize - 1) + " are of peer " +
                            std::to_string(i + 1) + ", " + NameOfPeer(options.m_PollUrls[i]));
    }
    ShowAndLog(log, "serving Modbus/TCP on port " + std::to_string(options.m_Port));
}

int Serve(const StationOptions& options, const sigset_t& stopSignals, ProcessImage& image, PeerReadings& peers,
          COutputLog& log)
{
    Service service(options, image, peers, log);
    if (std::string error; !service.Start(error))
        return FailWith(kExitCannotServe, error);
    SayWhatIsServed(options, log);

    const int number = WaitForStop(stopSignals);

    ShowAndLog(log, "stopping on signal " + std::to_string(number));
    service.Stop();
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
    if (!options.m_ServiceName.empty()) {
        ShowAndLog(log, DescribeService(options.m_ServiceName, log));
        if (const int number = GetStopSoFar(stopSignals); number != 0) { // for systemd may have taken a while
            ShowAndLog(log, "stopped on signal " + std::to_string(number) + ", before it served");
            return kExitStopped;
        }
    }

    RegisterFile registerFile(folder.GetPath(), log);
    ProcessImage::HoldingRegisters registers;
    if (!registerFile.Load(registers, error)) {
        log.PrintString("Station: " + error);
        return FailWith(kExitNoFiles, error);
    }
    PeerReadings peers(options.m_PollUrls.size());
    ProcessImage image;
    image.KeepHoldingRegisters(registers, [&](const auto& changed) { return registerFile.Save(changed); });
    image.ShowPeers(peers);
    return Serve(options, stopSignals, image, peers, log);
}

std::string MakeReport(const StationOptions& options)
{
    CTextOutputString text;
    text.SetLineTermination(LineTerminationLF);
    HostReport report(text);
    report.PrintHost();
    report.PrintNetwork();
    report.PrintSerialPorts();
    report.PrintTimeZone(CQDTimestamp::UTCNow());
    if (!options.m_ServiceName.empty())
        report.PrintService(options.m_ServiceName);
    return text.MoveString();
}

} // namespace

int main(int argumentCount, char** arguments)
{
    // That the reader of its output has gone must not end the station, and is a failed write where it is all there is.
    ::signal(SIGPIPE, SIG_IGN);
    StationOptions options;
    std::string error;
    if (!ParseStationOptions(argumentCount, arguments, options, error))
        return FailWith(kExitBadArguments, error);
    if (options.m_ShowHelp)
        return PrintAndEnd(kStationUsage);
    if (options.m_ShowReport)
        return PrintAndEnd(MakeReport(options));
    if (options.m_PollUrls.empty())
        return RunStation(options);
    QDAsyncUrlTransferThread::InitialiseUrlTransferThread(); // while there is one thread
    const int status = RunStation(options);
    QDAsyncUrlTransferThread::CleanupUrlTransferThread();
    return status;
}
