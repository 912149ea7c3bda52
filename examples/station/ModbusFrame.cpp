#include "ModbusFrame.h"

namespace
{

constexpr std::size_t kProtocolOffset = 2;
constexpr std::size_t kLengthOffset = 4;
constexpr std::size_t kUnitOffset = 6;

// What the length field counts from: the unit is the last byte of the header.
constexpr std::size_t kMinimumLength = 2; // unit and function code
constexpr std::size_t kMaximumLength = kModbusMaximumFrameSize - kUnitOffset;

constexpr uint16_t kModbusProtocol = 0;

} // namespace

ModbusFrameState FindModbusFrame(ByteView received, ModbusFrame& frame, std::string& reason)
{
    if (received.size() < kLengthOffset)
        return ModbusFrameState::Incomplete;
    const uint16_t protocol = ReadUint16(received, kProtocolOffset);
    if (protocol != kModbusProtocol) {
        reason = "protocol identifier " + std::to_string(protocol) + " is not Modbus";
        return ModbusFrameState::Untrusted;
    }
    if (received.size() < kUnitOffset)
        return ModbusFrameState::Incomplete;
    const std::size_t length = ReadUint16(received, kLengthOffset);
    if (length < kMinimumLength || length > kMaximumLength) {
        reason = "length " + std::to_string(length) + " is not within 2 to 254";
        return ModbusFrameState::Untrusted;
    }
    if (received.size() < kUnitOffset + length)
        return ModbusFrameState::Incomplete;
    frame.m_TransactionId = ReadUint16(received, 0);
    frame.m_UnitId = received[kUnitOffset];
    frame.m_Pdu = received.subspan(kModbusHeaderSize, length - 1);
    frame.m_Size = kUnitOffset + length;
    return ModbusFrameState::Complete;
}

void AppendModbusAnswer(const ModbusFrame& request, ByteView pdu, ByteBuffer& output)
{
    AppendUint16(output, request.m_TransactionId);
    AppendUint16(output, kModbusProtocol);
    AppendUint16(output, pdu.size() + 1);
    output.push_back(request.m_UnitId);
    output.insert(output.end(), pdu.begin(), pdu.end());
}
