#include "StationServer.h"

#include "StationLink.h"

StationServer::StationServer(COutputLog* log, ProcessImage& image, unsigned short port, unsigned int linksPerThread,
                             CQDTimeInterval idleTimeout) :
    ImageServer(log, "Link", image, port, linksPerThread, idleTimeout)
{}

CQDTcpServerLink* StationServer::CreateLink(TcpServerLinkCreateContext& context)
{
    return new StationLink(context, m_Image, m_IdleTimeout);
}
