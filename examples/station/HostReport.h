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

    // The names of the host and the addresses of its interfaces. May wait for a name server.
    void PrintNetwork();

    // The devices, in the order of /dev, or that there are none.
    void PrintSerialPorts();

    // The zone of /etc/localtime: its name, the local time and its offset at the UTC time `now`, and the changes of the
    // offset before and behind that, as far as the zone's file lists any.
    void PrintTimeZone(const CQDTimestamp& now);

    // What DescribeService() says of the service `name`.
    void PrintService(const std::string& name);

private:
    void BeginSection(const char* title);
    void EndSection();

    CTextOutput& m_Out;
    bool m_IsFirstSection{true};
};
