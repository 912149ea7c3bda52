#include "StationServer.h"

#include "StationLink.h"

#include <sys/socket.h>

namespace
{

sa_family_t FamilyOf(int socket)
{
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
    return address.ss_family;
}

} // namespace

StationServer::StationServer(COutputLog* log, ProcessImage& image, unsigned short port, unsigned int linksPerThread,
                             CQDTimeInterval idleTimeout) :
    CQDTcpServer(log, "Link", port, linksPerThread, true), m_Image(image), m_IdleTimeout(idleTimeout)
{}

bool StationServer::CreateSockets()
{
    return CQDTcpServer::CreateSockets() && FamilyOf(m_Sockets[0]) == AF_INET;
}

CQDTcpServerLink* StationServer::CreateLink(TcpServerLinkCreateContext& context)
{
    return new StationLink(context, m_Image, m_IdleTimeout);
}
