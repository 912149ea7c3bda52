#include "StationLink.h"

#include "ModbusFrame.h"
#include "ModbusRequest.h"
#include "ProcessImage.h"

#include <string>

namespace
{

constexpr std::size_t kReceiveSize = 4096; // some frames at a time

static_assert(kReceiveSize >= kModbusMaximumFrameSize);

} // namespace

StationLink::StationLink(const TcpServerLinkCreateContext& context, ProcessImage& image, CQDTimeInterval idleTimeout) :
    RequestLink(context, idleTimeout, kReceiveSize), m_Image(image)
{}

LinkCallbackResult StationLink::AnswerRequest(ByteView received, ByteBuffer& answers, std::size_t& taken)
{
    ModbusFrame request;
    std::string reason;
    switch (FindModbusFrame(received, request, reason)) {
    case ModbusFrameState::Incomplete: break;
    case ModbusFrameState::Complete:
        AppendModbusAnswer(request, AnswerModbusRequest(request.m_Pdu, m_Image), answers);
        taken = request.m_Size;
        break;
    case ModbusFrameState::Untrusted:
        PrintError("Bad frame, closing the link: %s", reason.c_str());
        return LinkCallbackProtocolError;
    }
    return LinkCallbackSuccess;
}
