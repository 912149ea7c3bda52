#include "TimeServer.h"

#include "SntpPacket.h"

#include <QDPlatform/QDTimestamp.h>

#include <sys/socket.h>

#include <cerrno>

TimeServer::TimeServer(COutputLog* log, unsigned short port) : CQDUdpServer(log, port, kSntpPacketSize) {}

void TimeServer::OnSocketThreadStart()
{
    m_SendFailureLogged = false;
}

void TimeServer::OnDatagramReceived(int socket, const sockaddr* from, unsigned int fromLength,
                                    const unsigned char* data, unsigned int length)
{
    const CQDTimestamp received = CQDTimestamp::UTCNow();
    SntpPacket answer;
    if (!MakeSntpAnswer({data, length}, received, answer))
        return;
    SetTransmitTime(answer, CQDTimestamp::UTCNow());
    if (::sendto(socket, answer.data(), answer.size(), 0, from, fromLength) >= 0 || m_SendFailureLogged)
        return;
    PrintSocketError(errno, "sendto");
    m_SendFailureLogged = true;
}
