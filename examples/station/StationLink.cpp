#include "StationLink.h"

#include "ModbusFrame.h"
#include "ModbusRequest.h"
#include "ProcessImage.h"

#include <QDPlatform/QDTcpServerLinkMessage.h>

#include <algorithm>
#include <string>

StationLink::StationLink(const TcpServerLinkCreateContext& context, ProcessImage& image, CQDTimeInterval idleTimeout) :
    CQDTcpServerLink(context), m_Image(image), m_IdleTimeout(idleTimeout)
{}

LinkCallbackResult StationLink::OnConnect()
{
    RestartIdleTimeout();
    return LinkCallbackSuccess;
}

LinkCallbackResult StationLink::OnRxData()
{
    unsigned int count = 0;
    const std::size_t room = m_Received.size() - m_ReceivedSize;
    const LinkCallbackResult received =
        ReadData(m_Received.data() + m_ReceivedSize, static_cast<unsigned int>(room), count);
    if (received == LinkCallbackPeerClosed && m_ReceivedSize != 0)
        PrintError("The client closed after %zu bytes of a request", m_ReceivedSize);
    if (received != LinkCallbackSuccess)
        return received;
    m_ReceivedSize += count;

    // What was asked before a bad frame is still answered.
    const LinkCallbackResult answered = AnswerRequests();
    const LinkCallbackResult sent = SendAnswers();
    return answered != LinkCallbackSuccess ? answered : sent;
}

LinkCallbackResult StationLink::OnTxComplete()
{
    return SendAnswers();
}

LinkCallbackResult StationLink::OnTimeout(const CQDTimestamp&)
{
    char text[25];
    m_IdleTimeout.ToText(text);
    PrintLog(TcpServerLinkLoggingLifecycle, "No request for %s, closing the link", text);
    return LinkCallbackCloseSocket;
}

LinkCallbackResult StationLink::OnMessage(CQDTcpServerLinkMessage* message)
{
    delete message; // nobody posts to a station's link
    return LinkCallbackSuccess;
}

// Answers every request that is complete and keeps the rest. Returns a protocol error for bytes that are no frame.
LinkCallbackResult StationLink::AnswerRequests()
{
    ByteView rest(m_Received.data(), m_ReceivedSize);
    ModbusFrame request;
    std::string reason;
    ModbusFrameState state = FindModbusFrame(rest, request, reason);
    while (state == ModbusFrameState::Complete) {
        AppendModbusAnswer(request, AnswerModbusRequest(request.m_Pdu, m_Image), m_Answers);
        RestartIdleTimeout();
        rest = rest.subspan(request.m_Size);
        state = FindModbusFrame(rest, request, reason);
    }
    if (state == ModbusFrameState::Untrusted) {
        PrintError("Bad frame, closing the link: %s", reason.c_str());
        return LinkCallbackProtocolError;
    }
    std::copy(rest.begin(), rest.end(), m_Received.begin());
    m_ReceivedSize = rest.size();
    return LinkCallbackSuccess;
}

// Sends what the socket takes. Write mode stays on until everything has gone.
LinkCallbackResult StationLink::SendAnswers()
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
    if (m_Answers.empty())
        DisableWriteMode();
    else
        EnableWriteMode();
    return LinkCallbackSuccess;
}

void StationLink::RestartIdleTimeout()
{
    SetTimeout(CQDTimestamp::UTCNow() + m_IdleTimeout);
}
