#pragma once

#include <QDPlatform/QDTcpServerLink.h>

#include <string>
#include <vector>

// What the station's command line asks for.
struct StationOptions
{
    unsigned short m_Port{1502};
    unsigned short m_HttpPort{0}; // of the readings; 0 for none
    unsigned short m_TimePort{0}; // UDP, of the time; 0 for none
    unsigned int m_LinksPerThread{64};
    TcpServerLinkLogging m_LogLevel{TcpServerLinkLoggingDefault};
    std::string m_LogFolder;             // of the log and the registers; empty for the default
    std::vector<std::string> m_PollUrls; // of the other stations' readings, at most PeerReadings::kMaximumPeers
    std::string m_ServiceName;           // of the unit whose state is shown, without .service; empty for none
    bool m_ShowReport{false};            // instead of serving
    bool m_ShowHelp{false};              // instead of all else
};

// What -help prints.
extern const char* const kStationUsage;

// Reads the arguments of main(). Of an option that is given twice, the last counts; each -poll counts.
// Returns false when they cannot be understood, with the reason in `error`, a text without a line end, and without what
// may be a URL with a password.
bool ParseStationOptions(int argumentCount, char** arguments, StationOptions& options, std::string& error);
