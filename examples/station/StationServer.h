#pragma once

#include <QDPlatform/QDTcpServer.h>
#include <QDPlatform/QDTimeInterval.h>

class ProcessImage;

// The station's Modbus/TCP server: every connection becomes a StationLink, and all of them share one process image.
//
// Thread: as CQDTcpServer.
// Borrows: the log, which several threads print to, and the image. Both must outlive the server.
class StationServer : public CQDTcpServer
{
public:
    static constexpr CQDTimeInterval kIdleTimeout{CQDTimeInterval::TicksPerMinute};

    // idleTimeout: how long a link may go without a request before it is closed.
    StationServer(COutputLog* log, ProcessImage& image, unsigned short port, unsigned int linksPerThread,
                  CQDTimeInterval idleTimeout = kIdleTimeout);

protected:
    // Listens on IPv4 and, where the host has it, on IPv6. False when IPv4 cannot be had: a station that only some of
    // its clients can reach had better not start.
    bool CreateSockets() override;

    CQDTcpServerLink* CreateLink(TcpServerLinkCreateContext& context) override;

private:
    ProcessImage& m_Image;
    const CQDTimeInterval m_IdleTimeout;
};
