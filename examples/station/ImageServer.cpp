#include "ImageServer.h"

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

ImageServer::ImageServer(COutputLog* log, const char* linkName, ProcessImage& image, unsigned short port,
                         unsigned int linksPerThread, CQDTimeInterval idleTimeout) :
    CQDTcpServer(log, linkName, port, linksPerThread, true), m_Image(image), m_IdleTimeout(idleTimeout)
{}

bool ImageServer::CreateSockets()
{
    return CQDTcpServer::CreateSockets() && FamilyOf(m_Sockets[0]) == AF_INET;
}
