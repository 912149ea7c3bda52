#pragma once

#include "BigEndian.h"

#include <QDPlatform/QDTcpServerLink.h>
#include <QDPlatform/QDTimeInterval.h>

// One client of the station, whatever it speaks: takes its requests from the byte stream one after the other, however
// they are cut into segments, and sends the answers in their order, however slowly they are read.
//
// Closes the connection, and prints why, when no request was completed and no answer was taken for the idle time
// (printed at the level of lifecycles), and when too many answers wait for a client that does not read them.
class RequestLink : public CQDTcpServerLink
{
public:
    // Answers that may wait for the client, in bytes: some 1000 of the longest of either kind. Reading cannot be put
    // off instead: a socket that stays readable would keep the worker busy.
    static constexpr std::size_t kMaximumWaitingAnswers = 256 * 1024;

protected:
    // receiveSize: bytes of the longest request at least; more of them are read at a time.
    RequestLink(const TcpServerLinkCreateContext& context, CQDTimeInterval idleTimeout, std::size_t receiveSize);

    // Looks at the front of `received`. A complete request is answered with what is appended to `answers`, and its size
    // goes to `taken`, which is 0 before. Any result but success closes the link, once what was answered before has
    // been sent as far as the socket takes it. `received` never fills the whole of receiveSize without a result.
    virtual LinkCallbackResult AnswerRequest(ByteView received, ByteBuffer& answers, std::size_t& taken) = 0;

    // No more requests are taken. When all answers have been sent the client sees the end of the connection; what it
    // still sends is dropped until it closes as well, or the idle time ends.
    void CloseWhenSent();

    LinkCallbackResult OnConnect() override;
    LinkCallbackResult OnRxData() override;
    LinkCallbackResult OnTxComplete() override;
    LinkCallbackResult OnTimeout(const CQDTimestamp& now) override;
    LinkCallbackResult OnMessage(CQDTcpServerLinkMessage* message) override;

private:
    LinkCallbackResult AnswerRequests();
    LinkCallbackResult SendAnswers();
    void RestartIdleTimeout();

    const CQDTimeInterval m_IdleTimeout;
    ByteBuffer m_Received;         // of fixed size
    std::size_t m_ReceivedSize{0}; // between two calls at most the front part of one request
    ByteBuffer m_Answers;          // not sent yet; write mode is on while there are any
    bool m_ClosesWhenSent{false};  // nothing is received any more
    bool m_PeerHasClosed{false};   // behind its last request
};
