#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

// Numbers of 16 bits as Modbus puts them into bytes: the high byte first.

using ByteView = std::span<const unsigned char>;
using ByteBuffer = std::vector<unsigned char>;

// `bytes` must reach at least to offset + 2.
inline uint16_t ReadUint16(ByteView bytes, std::size_t offset)
{
    return static_cast<uint16_t>(bytes[offset] << 8 | bytes[offset + 1]);
}

inline void AppendUint16(ByteBuffer& buffer, std::size_t value)
{
    buffer.push_back(static_cast<unsigned char>(value >> 8 & 0xFF));
    buffer.push_back(static_cast<unsigned char>(value & 0xFF));
}
