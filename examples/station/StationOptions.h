#pragma once

#include <QDPlatform/QDTcpServerLink.h>

#include <string>

// What the station's command line asks for.
struct StationOptions
{
    unsigned short m_Port{1502};
    unsigned int m_LinksPerThread{64};
    TcpServerLinkLogging m_LogLevel{TcpServerLinkLoggingDefault};
    std::string m_LogFolder; // of the log and the registers; empty for the default
    bool m_ShowHelp{false};
};

// What -help prints.
extern const char* const kStationUsage;

// Reads the arguments of main(). Of an option that is given twice, the last counts.
// Returns false when they cannot be understood, with the reason in `error`, a text without a line end.
bool ParseStationOptions(int argumentCount, char** arguments, StationOptions& options, std::string& error);
