#pragma once

#include <QDPlatform/QDUdpServer.h>

// Tells clients the time of the host's clock: answers SNTP requests over UDP, and drops everything else.
//
// An answer has 48 bytes and is never longer than the request, so that nobody can have a third party flooded more than
// he floods himself. The first answer of a run that cannot be sent is printed, the others are not: whoever forges a
// sender's address can cause as many as he likes.
class TimeServer : public CQDUdpServer
{
public:
    TimeServer(COutputLog* log, unsigned short port);

protected:
    void OnSocketThreadStart() override;
    void OnDatagramReceived(int socket, const sockaddr* from, unsigned int fromLength, const unsigned char* data,
                            unsigned int length) override;

private:
    bool m_SendFailureLogged{false}; // socket thread
};
