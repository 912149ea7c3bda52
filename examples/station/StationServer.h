#pragma once

#include "ImageServer.h"

// The station's Modbus/TCP server: every connection becomes a StationLink.
class StationServer : public ImageServer
{
public:
    StationServer(COutputLog* log, ProcessImage& image, unsigned short port, unsigned int linksPerThread,
                  CQDTimeInterval idleTimeout = kIdleTimeout);

protected:
    CQDTcpServerLink* CreateLink(TcpServerLinkCreateContext& context) override;
};
