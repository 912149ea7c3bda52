#include "RequestLink.h"

#include <QDPlatform/QDTcpServerLinkMessage.h>

#include <sys/socket.h>

#include <algorithm>

RequestLink::RequestLink(const TcpServerLinkCreateContext& context, CQDTimeInterval idleTimeout,
                         std::size_t receiveSize) :
    CQDTcpServerLink(context), m_IdleTimeout(idleTimeout), m_Received(receiveSize)
{}

void RequestLink::CloseWhenSent()
{
    m_ClosesWhenSent = true;
    EnableWriteMode();
}

LinkCallbackResult RequestLink::OnConnect()
{
    RestartIdleTimeout();
    return LinkCallbackSuccess;
}

LinkCallbackResult RequestLink::OnRxData()
{
    unsigned int count = 0;
    const std::size_t room = m_Received.size() - m_ReceivedSize;
    const LinkCallbackResult received =
        ReadData(m_Received.data() + m_ReceivedSize, static_cast<unsigned int>(room), count);
    if (received == LinkCallbackPeerClosed && m_ClosesWhenSent && m_Answers.empty()) {
        m_PeerHasClosed = true;
        EnableWriteMode(); // OnTxComplete() closes without the reset that could cost the client its answer
        return LinkCallbackSuccess;
    }
    if (received == LinkCallbackPeerClosed && m_ReceivedSize != 0)
        PrintError("The client closed after %zu bytes of a request", m_ReceivedSize);
    if (received != LinkCallbackSuccess)
        return received;
    if (m_ClosesWhenSent)
        return LinkCallbackSuccess;
    m_ReceivedSize += count;

    // What was asked before a bad request is still answered.
    const LinkCallbackResult answered = AnswerRequests();
    const LinkCallbackResult sent = SendAnswers();
    return answered != LinkCallbackSuccess ? answered : sent;
}

LinkCallbackResult RequestLink::OnTxComplete()
{
    const LinkCallbackResult sent = SendAnswers();
    if (sent != LinkCallbackSuccess || !m_ClosesWhenSent || !m_Answers.empty())
        return sent;
    if (m_PeerHasClosed)
        return LinkCallbackCloseSocket;
    // A close would reset the connection of a client that still sends, and could cost it its answer.
    ::shutdown(GetSocket(), SHUT_WR);
    DisableWriteMode();
    return LinkCallbackSuccess;
}

LinkCallbackResult RequestLink::OnTimeout(const CQDTimestamp&)
{
    char text[25];
    m_IdleTimeout.ToText(text);
    PrintLog(TcpServerLinkLoggingLifecycle, "No request for %s, closing the link", text);
    return LinkCallbackCloseSocket;
}

LinkCallbackResult RequestLink::OnMessage(CQDTcpServerLinkMessage* message)
{
    delete message; // nobody posts to a station's link
    return LinkCallbackSuccess;
}

// Answers every request that is complete and keeps the rest.
LinkCallbackResult RequestLink::AnswerRequests()
{
    ByteView rest(m_Received.data(), m_ReceivedSize);
    std::size_t taken = 0;
    do {
        rest = rest.subspan(taken);
        taken = 0;
        if (const LinkCallbackResult result = AnswerRequest(rest, m_Answers, taken); result != LinkCallbackSuccess)
            return result;
        if (taken != 0)
            RestartIdleTimeout();
    } while (taken != 0 && !m_ClosesWhenSent);
    if (m_ClosesWhenSent)
        rest = {};
    std::copy(rest.begin(), rest.end(), m_Received.begin());
    m_ReceivedSize = rest.size();
    return LinkCallbackSuccess;
}

// Sends what the socket takes. Write mode stays on until everything has gone.
LinkCallbackResult RequestLink::SendAnswers()
{
    if (m_Answers.empty())
        return LinkCallbackSuccess;
    unsigned int count = 0;
    const LinkCallbackResult result = WriteData(m_Answers.data(), static_cast<unsigned int>(m_Answers.size()), count);
    if (result != LinkCallbackSuccess && result != LinkCallbackWouldBlock)
        return result;
    m_Answers.erase(m_Answers.begin(), m_Answers.begin() + static_cast<std::ptrdiff_t>(count));
    if (count != 0)
        RestartIdleTimeout();
    if (m_Answers.size() > kMaximumWaitingAnswers) {
        PrintError("%zu bytes of answers wait for a client that does not read, closing the link", m_Answers.size());
        return LinkCallbackCloseSocket;
    }
    if (m_Answers.empty() && !m_ClosesWhenSent)
        DisableWriteMode();
    else
        EnableWriteMode();
    return LinkCallbackSuccess;
}

void RequestLink::RestartIdleTimeout()
{
    SetTimeout(CQDTimestamp::UTCNow() + m_IdleTimeout);
}
