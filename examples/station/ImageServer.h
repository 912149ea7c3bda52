#pragma once

#include <QDPlatform/QDTcpServer.h>
#include <QDPlatform/QDTimeInterval.h>

class ProcessImage;

// A TCP server of the station, whose connections all share one process image. What they speak is the derived server's.
//
// Thread: as CQDTcpServer.
// Borrows: the log, which several threads print to, and the image. Both must outlive the server.
class ImageServer : public CQDTcpServer
{
public:
    static constexpr CQDTimeInterval kIdleTimeout{CQDTimeInterval::TicksPerMinute};

protected:
    // linkName: of its links in the log, a constant. idleTimeout: how long a link may go without a request before it is
    // closed.
    ImageServer(COutputLog* log, const char* linkName, ProcessImage& image, unsigned short port,
                unsigned int linksPerThread, CQDTimeInterval idleTimeout);

    // Listens on IPv4 and, where the host has it, on IPv6. False when IPv4 cannot be had: a station that only some of
    // its clients can reach had better not start.
    bool CreateSockets() override;

    ProcessImage& m_Image;
    const CQDTimeInterval m_IdleTimeout;
};
