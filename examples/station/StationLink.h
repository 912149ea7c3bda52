#pragma once

#include "BigEndian.h"

#include <QDPlatform/QDTcpServerLink.h>
#include <QDPlatform/QDTimeInterval.h>

#include <array>

class ProcessImage;

// One Modbus/TCP client of the station: answers its requests in their order, however they are cut into segments.
//
// Closes the connection, and prints why, when the bytes received are no frame, when no request was completed and no
// answer was taken for the idle time (printed at the level of lifecycles), and when too many answers wait for a client
// that does not read them. Borrows: the image, which must outlive the link.
class StationLink : public CQDTcpServerLink
{
public:
    // Answers that may wait for the client, in bytes: some 1000 of the longest. Reading cannot be put off instead: a
    // socket that stays readable would keep the worker busy.
    static constexpr std::size_t kMaximumWaitingAnswers = 256 * 1024;

    StationLink(const TcpServerLinkCreateContext& context, ProcessImage& image, CQDTimeInterval idleTimeout);

protected:
    LinkCallbackResult OnConnect() override;
    LinkCallbackResult OnRxData() override;
    LinkCallbackResult OnTxComplete() override;
    LinkCallbackResult OnTimeout(const CQDTimestamp& now) override;
    LinkCallbackResult OnMessage(CQDTcpServerLinkMessage* message) override;

private:
    LinkCallbackResult AnswerRequests();
    LinkCallbackResult SendAnswers();
    void RestartIdleTimeout();

    ProcessImage& m_Image;
    const CQDTimeInterval m_IdleTimeout;
    std::array<unsigned char, 4096> m_Received; // between two calls at most the front part of one frame
    std::size_t m_ReceivedSize{0};
    ByteBuffer m_Answers; // not sent yet; write mode is on while there are any
};
