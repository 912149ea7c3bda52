#pragma once

#include "HexText.h"
#include "LoopbackClient.h"

#include <cstdio>
#include <string>

// A Modbus/TCP client in a few lines, whose requests and answers a test spells out in hex.

inline std::string Hex16(unsigned int value)
{
    char text[5];
    std::snprintf(text, sizeof text, "%04X", value & 0xFFFF);
    return text;
}

// A frame for unit 1. pdu: hex.
inline std::string Frame(unsigned int transaction, const std::string& pdu)
{
    const std::string bytes = FromHex(pdu);
    return FromHex(Hex16(transaction) + "0000" + Hex16(static_cast<unsigned int>(bytes.size() + 1)) + "01") + bytes;
}

// The next answer's PDU in hex; its transaction goes to `transaction`. Empty when the connection ended.
inline std::string ReceivePdu(LoopbackClient& client, unsigned int& transaction)
{
    const std::string header = client.Receive(7);
    if (header.size() != 7)
        return "";
    const auto at = [&](std::size_t i) { return static_cast<unsigned int>(static_cast<unsigned char>(header[i])); };
    transaction = at(0) << 8 | at(1);
    return ToHex(client.Receive((at(4) << 8 | at(5)) - 1));
}

// Sends one request and returns its answer's PDU in hex, or "wrong transaction".
inline std::string Ask(LoopbackClient& client, const std::string& pdu)
{
    unsigned int transaction = 0;
    client.Send(Frame(0x4711, pdu));
    const std::string answer = ReceivePdu(client, transaction);
    return answer.empty() || transaction == 0x4711 ? answer : "wrong transaction";
}
