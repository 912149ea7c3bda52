#pragma once

#include "RequestLink.h"

class ProcessImage;

// One Modbus/TCP client of the station.
//
// Closes the connection, and prints why, when the bytes received are no frame. Borrows: the image, which must outlive
// the link.
class StationLink : public RequestLink
{
public:
    StationLink(const TcpServerLinkCreateContext& context, ProcessImage& image, CQDTimeInterval idleTimeout);

protected:
    LinkCallbackResult AnswerRequest(ByteView received, ByteBuffer& answers, std::size_t& taken) override;

private:
    ProcessImage& m_Image;
};
