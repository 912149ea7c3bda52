#include <QDPlatform/QDUdpServer.h>

#include <QDPlatform/COutputLog.h>
#include <QDPlatform/QDSocket.h>
#include <QDPlatform/QDString.h>
#include <QDPlatform/QDUniqueFd.h>

#include <netinet/in.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>

CQDUdpServer::CQDUdpServer(COutputLog* log, unsigned short port, unsigned int bufferSize) :
    CQDSocketThread(log),
    m_Port(port),
    m_BufferSize(bufferSize),
    m_pBuffer(std::make_unique_for_overwrite<unsigned char[]>(bufferSize))
{
    qd_sprintf(m_LogPrefix, sizeof m_LogPrefix, "UdpSvr@%hu", m_Port);
    m_LogPrefixLength = static_cast<unsigned int>(std::strlen(m_LogPrefix));
}

CQDUdpServer::~CQDUdpServer() = default;

unsigned short CQDUdpServer::GetPort() const
{
    return m_Port;
}

void CQDUdpServer::PrintData(const char* title, unsigned int length, const unsigned char* data)
{
    if (m_pOutputLog == nullptr)
        return;
    char wholeTitle[256];
    qd_sprintf(wholeTitle, sizeof wholeTitle, "%s: %s", m_LogPrefix, title);
    m_pOutputLog->PrintData(wholeTitle, length, data);
}

bool CQDUdpServer::CreateSockets()
{
    QDUniqueFd server(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
    if (!server.IsOpen()) {
        PrintSocketError(errno, "socket");
        return false;
    }
    QDSocketAddress address{};
    address.m_IPv4.sin_family = AF_INET;
    address.m_IPv4.sin_port = htons(m_Port);
    address.m_IPv4.sin_addr.s_addr = htonl(INADDR_ANY);
    if (::bind(server.Get(), &address.m_Address, sizeof address.m_IPv4) != 0) {
        PrintSocketError(errno, "bind");
        return false;
    }
    // A datagram with a bad checksum makes the socket readable and is gone when it is received.
    int on = 1;
    if (::ioctl(server.Get(), FIONBIO, &on) != 0)
        PrintSocketError(errno, "ioctl");
    m_Sockets[0] = server.Release();
    m_SocketCount = 1;
    return true;
}

void CQDUdpServer::OnSocketEvent(int socket)
{
    QDSocketAddress from{};
    socklen_t fromLength = sizeof from.m_IPv4;
    const ssize_t count = ::recvfrom(socket, m_pBuffer.get(), m_BufferSize, 0, &from.m_Address, &fromLength);
    if (count >= 0)
        OnDatagramReceived(socket, &from.m_Address, fromLength, m_pBuffer.get(), static_cast<unsigned int>(count));
}
