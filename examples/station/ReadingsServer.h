#pragma once

#include "ImageServer.h"

// The station's HTTP server: every connection becomes a ReadingsLink.
class ReadingsServer : public ImageServer
{
public:
    ReadingsServer(COutputLog* log, ProcessImage& image, unsigned short port, unsigned int linksPerThread,
                   CQDTimeInterval idleTimeout = kIdleTimeout);

protected:
    CQDTcpServerLink* CreateLink(TcpServerLinkCreateContext& context) override;
};
