#include "HostReport.h"

#include "ServiceState.h"

#include <QDPlatform/COutputLogNull.h>
#include <QDPlatform/CTextOutput.h>
#include <QDPlatform/QDEnumerateSerialPorts.h>
#include <QDPlatform/QDHostInformation.h>
#include <QDPlatform/QDNetworkInfo.h>
#include <QDPlatform/QDTimeInterval.h>
#include <QDPlatform/QDTimeZone.h>
#include <QDPlatform/QDTimestamp.h>

#include <cstdlib>

namespace
{

// As in "UTC-02:30"; with the seconds, where there are any. offset: in ticks.
void PrintOffset(CTextOutput& out, long long offset)
{
    const long long seconds = std::llabs(offset) / CQDTimeInterval::TicksPerSecond;
    out.Print("UTC%c%02lld:%02lld", offset < 0 ? '-' : '+', seconds / 3600, seconds / 60 % 60);
    if (seconds % 60 != 0)
        out.Print(":%02lld", seconds % 60);
}

} // namespace

HostReport::HostReport(CTextOutput& out) : m_Out(out)
{
    m_Out.SetIndentCharacters(' ', 2);
}

void HostReport::PrintHost()
{
    BeginSection("Host");
    const CQDHostInformation host;
    m_Out.PrintLine("Name: %s", host.GetHostName().c_str());
    // The fourth text, the word size, is the same on every host.
    constexpr const char* kLabels[] = {"System", "Release", "Version"};
    for (int i = 0; i < 3; ++i)
        m_Out.PrintLine("%s: %s", kLabels[i], host.GetOSInformation(i).c_str());
    EndSection();
}

void HostReport::PrintNetwork()
{
    BeginSection("Network");
    COutputLogNull noLog; // the report has what was found
    QDNetworkInfo network;
    network.ReadAll(&noLog);
    network.PrintNetworkInfo(m_Out);
    EndSection();
}

void HostReport::PrintSerialPorts()
{
    BeginSection("Serial ports");
    QDEnumerateSerialPorts ports;
    const qdchar* port = ports.FirstPort();
    if (port == nullptr)
        m_Out.PrintLine("none");
    for (; port != nullptr; port = ports.NextPort())
        m_Out.PrintLine("%s", port);
    EndSection();
}

void HostReport::PrintTimeZone(const CQDTimestamp& now)
{
    BeginSection("Time zone");
    CQDTimeZone zone;
    if (!zone.UseCurrentTimeZone())
        m_Out.PrintLine("/etc/localtime cannot be used (read status %d): local time is UTC", zone.GetReadStatus());
    m_Out.PrintLine("Name: %s", zone.GetIANAName().empty() ? "unknown" : zone.GetIANAName().c_str());
    m_Out.Print("Local time: ");
    m_Out.PrintDateAndTime(&zone, now.GetValue(), ' ');
    m_Out.PrintChar(' ');
    PrintOffset(m_Out, zone.GetAdjustmentForTimestamp(now.GetValue()));
    m_Out.PrintLine();
    EndSection();
}

void HostReport::PrintService(const std::string& name)
{
    BeginSection("Service");
    COutputLogNull noLog;
    m_Out.PrintLine("%s", DescribeService(name, noLog).c_str());
    EndSection();
}

void HostReport::BeginSection(const char* title)
{
    if (!m_IsFirstSection)
        m_Out.PrintLine();
    m_IsFirstSection = false;
    m_Out.PrintLine("%s", title);
    m_Out.AdjustIndent(1);
}

void HostReport::EndSection()
{
    m_Out.AdjustIndent(-1);
}
