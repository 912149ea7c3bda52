#pragma once

#include "RequestLink.h"

class ProcessImage;

// One HTTP client of the station, which reads the host's figures: GET or HEAD of /readings, see ReadingsText.h.
//
// Any other path is answered with status 404, any other method with 405. What is no request that could be answered gets
// status 400 with the reason, which is printed too, and ends the connection. Borrows: the image, which must outlive the
// link.
class ReadingsLink : public RequestLink
{
public:
    ReadingsLink(const TcpServerLinkCreateContext& context, ProcessImage& image, CQDTimeInterval idleTimeout);

protected:
    LinkCallbackResult AnswerRequest(ByteView received, ByteBuffer& answers, std::size_t& taken) override;

private:
    ProcessImage& m_Image;
};
