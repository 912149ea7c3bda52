#include "ReadingsServer.h"

#include "ReadingsLink.h"

ReadingsServer::ReadingsServer(COutputLog* log, ProcessImage& image, unsigned short port, unsigned int linksPerThread,
                               CQDTimeInterval idleTimeout) :
    ImageServer(log, "Reader", image, port, linksPerThread, idleTimeout)
{}

CQDTcpServerLink* ReadingsServer::CreateLink(TcpServerLinkCreateContext& context)
{
    return new ReadingsLink(context, m_Image, m_IdleTimeout);
}
