#pragma once

#include <string>

class CQDTimestamp;
class CTextOutput;

// What -report says of the host, in sections: a title, its lines indented by two blanks, and an empty line between a
// section and the next.
//
// Each Print operation asks the system anew and prints one section.
// Thread:  one at a time, with the writer.
// Borrows: the writer, whose indentation characters it sets.
class HostReport
{
public:
    explicit HostReport(CTextOutput& out);
    HostReport(const HostReport&) = delete;
    HostReport& operator=(const HostReport&) = delete;

    // The name of the host and its kernel.
    void PrintHost();

    // The names of the host and the addresses of its interfaces; what the system does not tell is left out. May wait
    // for a name server.
    void PrintNetwork();

    // The devices, in the order of /dev, or "none", also when the system does not tell.
    void PrintSerialPorts();

    // The zone of /etc/localtime: its name, and the local time with its offset at the UTC time `now`. When that file
    // cannot be used, a line says so, the name is "unknown" and the local time is UTC.
    void PrintTimeZone(const CQDTimestamp& now);

    // What DescribeService() says of the service `name`; waits as long as that does.
    void PrintService(const std::string& name);

private:
    void BeginSection(const char* title);
    void EndSection();

    CTextOutput& m_Out;
    bool m_IsFirstSection{true};
};
