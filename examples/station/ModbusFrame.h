#pragma once

#include "BigEndian.h"

#include <string>

// Cuts the byte stream of a Modbus/TCP connection into frames, and puts answers into frames.
//
// A frame is a header of seven bytes (transaction 2, protocol 2, length 2, unit 1) and a protocol data unit, the PDU: a
// function code and its data. The length counts the unit and the PDU; the whole frame has at most 260 bytes.
// Thread: pure functions on bytes, from any thread.

constexpr std::size_t kModbusHeaderSize = 7;
constexpr std::size_t kModbusMaximumFrameSize = 260;

struct ModbusFrame
{
    uint16_t m_TransactionId{0}; // chosen by the client, returned in the answer
    unsigned char m_UnitId{0};   // likewise
    ByteView m_Pdu;              // at least the function code; points into the bytes received
    std::size_t m_Size{0};       // of the whole frame, header included
};

enum class ModbusFrameState
{
    Incomplete, // more bytes are needed
    Complete,
    Untrusted // this is no frame, and nobody can tell where the next one starts
};

// Looks at the front of `received`. Fills `frame` when it is Complete, and `reason` with a text for the log when it is
// Untrusted, which is found out as soon as the bytes in question are there.
ModbusFrameState FindModbusFrame(ByteView received, ModbusFrame& frame, std::string& reason);

// Appends the frame that answers `request` with `pdu`.
void AppendModbusAnswer(const ModbusFrame& request, ByteView pdu, ByteBuffer& output);
