#include "ModbusRequest.h"

#include "ProcessImage.h"

#include <array>

namespace
{

enum class Exception : unsigned char
{
    None = 0,
    IllegalFunction = 1,
    IllegalDataAddress = 2,
    IllegalDataValue = 3,
    ServerDeviceFailure = 4
};

// The most that one request may name, so that request and answer fit in a frame.
constexpr std::size_t kMaximumBitsRead = 2000;
constexpr std::size_t kMaximumBitsWritten = 1968;
constexpr std::size_t kMaximumRegistersRead = 125;
constexpr std::size_t kMaximumRegistersWritten = 123;

// Every request starts with the function code and an address. Then comes a quantity or a value; in a request that
// writes several items a byte count and the items follow.
constexpr std::size_t kAddressOffset = 1;
constexpr std::size_t kQuantityOffset = 3;
constexpr std::size_t kValueOffset = 3;
constexpr std::size_t kByteCountOffset = 5;
constexpr std::size_t kItemsOffset = 6;
constexpr std::size_t kShortRequestSize = 5;

constexpr uint16_t kCoilOn = 0xFF00;
constexpr uint16_t kCoilOff = 0x0000;

using BitReader = bool (ProcessImage::*)(std::size_t, std::span<bool>) const;
using RegisterReader = bool (ProcessImage::*)(std::size_t, std::span<uint16_t>) const;

constexpr std::size_t BytesForBits(std::size_t count)
{
    return (count + 7) / 8;
}

// The first item is the lowest bit of the first byte; the bits that are left over are 0.
void AppendPackedBits(std::span<const bool> bits, ByteBuffer& answer)
{
    const std::size_t start = answer.size();
    answer.resize(start + BytesForBits(bits.size()), 0);
    for (std::size_t i = 0; i < bits.size(); ++i) {
        if (bits[i])
            answer[start + i / 8] |= static_cast<unsigned char>(1u << i % 8);
    }
}

bool IsWithin(std::size_t quantity, std::size_t maximum)
{
    return quantity >= 1 && quantity <= maximum;
}

// Whether a request that writes several items is as long as its quantity and its byte count say.
bool IsWellFormedWrite(ByteView request, std::size_t quantity, std::size_t bytesForItems, std::size_t maximum)
{
    return IsWithin(quantity, maximum) && request[kByteCountOffset] == bytesForItems &&
           request.size() == kItemsOffset + bytesForItems;
}

Exception ReadBits(ByteView request, const ProcessImage& image, BitReader read, ByteBuffer& answer)
{
    if (request.size() != kShortRequestSize)
        return Exception::IllegalDataValue;
    const std::size_t quantity = ReadUint16(request, kQuantityOffset);
    if (!IsWithin(quantity, kMaximumBitsRead))
        return Exception::IllegalDataValue;
    std::array<bool, kMaximumBitsRead> store;
    const std::span bits = std::span(store).first(quantity);
    if (!(image.*read)(ReadUint16(request, kAddressOffset), bits))
        return Exception::IllegalDataAddress;
    answer.push_back(static_cast<unsigned char>(BytesForBits(quantity)));
    AppendPackedBits(bits, answer);
    return Exception::None;
}

Exception ReadRegisters(ByteView request, const ProcessImage& image, RegisterReader read, ByteBuffer& answer)
{
    if (request.size() != kShortRequestSize)
        return Exception::IllegalDataValue;
    const std::size_t quantity = ReadUint16(request, kQuantityOffset);
    if (!IsWithin(quantity, kMaximumRegistersRead))
        return Exception::IllegalDataValue;
    std::array<uint16_t, kMaximumRegistersRead> store;
    const std::span registers = std::span(store).first(quantity);
    if (!(image.*read)(ReadUint16(request, kAddressOffset), registers))
        return Exception::IllegalDataAddress;
    answer.push_back(static_cast<unsigned char>(quantity * 2));
    for (const uint16_t value : registers)
        AppendUint16(answer, value);
    return Exception::None;
}

Exception ExceptionOf(ProcessImage::WriteResult result)
{
    switch (result) {
    case ProcessImage::WriteResult::Written: return Exception::None;
    case ProcessImage::WriteResult::BeyondTable: return Exception::IllegalDataAddress;
    case ProcessImage::WriteResult::NotKept: break;
    }
    return Exception::ServerDeviceFailure;
}

Exception WriteCoil(ByteView request, ProcessImage& image, ByteBuffer& answer)
{
    if (request.size() != kShortRequestSize)
        return Exception::IllegalDataValue;
    const uint16_t value = ReadUint16(request, kValueOffset);
    if (value != kCoilOn && value != kCoilOff)
        return Exception::IllegalDataValue;
    const std::array coil{value == kCoilOn};
    if (!image.WriteCoils(ReadUint16(request, kAddressOffset), coil))
        return Exception::IllegalDataAddress;
    answer.assign(request.begin(), request.end());
    return Exception::None;
}

Exception WriteRegister(ByteView request, ProcessImage& image, ByteBuffer& answer)
{
    if (request.size() != kShortRequestSize)
        return Exception::IllegalDataValue;
    const std::array value{ReadUint16(request, kValueOffset)};
    answer.assign(request.begin(), request.end());
    return ExceptionOf(image.WriteHoldingRegisters(ReadUint16(request, kAddressOffset), value));
}

Exception WriteCoils(ByteView request, ProcessImage& image, ByteBuffer& answer)
{
    if (request.size() < kItemsOffset)
        return Exception::IllegalDataValue;
    const std::size_t quantity = ReadUint16(request, kQuantityOffset);
    if (!IsWellFormedWrite(request, quantity, BytesForBits(quantity), kMaximumBitsWritten))
        return Exception::IllegalDataValue;
    std::array<bool, kMaximumBitsWritten> coils;
    for (std::size_t i = 0; i < quantity; ++i)
        coils[i] = (request[kItemsOffset + i / 8] >> i % 8 & 1) != 0;
    if (!image.WriteCoils(ReadUint16(request, kAddressOffset), std::span(coils).first(quantity)))
        return Exception::IllegalDataAddress;
    answer.assign(request.begin(), request.begin() + kShortRequestSize);
    return Exception::None;
}

Exception WriteRegisters(ByteView request, ProcessImage& image, ByteBuffer& answer)
{
    if (request.size() < kItemsOffset)
        return Exception::IllegalDataValue;
    const std::size_t quantity = ReadUint16(request, kQuantityOffset);
    if (!IsWellFormedWrite(request, quantity, quantity * 2, kMaximumRegistersWritten))
        return Exception::IllegalDataValue;
    std::array<uint16_t, kMaximumRegistersWritten> registers;
    for (std::size_t i = 0; i < quantity; ++i)
        registers[i] = ReadUint16(request, kItemsOffset + i * 2);
    answer.assign(request.begin(), request.begin() + kShortRequestSize);
    return ExceptionOf(
        image.WriteHoldingRegisters(ReadUint16(request, kAddressOffset), std::span(registers).first(quantity)));
}

// `answer` holds the function code; a function that succeeds completes it.
Exception Execute(ByteView request, ProcessImage& image, ByteBuffer& answer)
{
    switch (request[0]) {
    case 1: return ReadBits(request, image, &ProcessImage::ReadCoils, answer);
    case 2: return ReadBits(request, image, &ProcessImage::ReadDiscreteInputs, answer);
    case 3: return ReadRegisters(request, image, &ProcessImage::ReadHoldingRegisters, answer);
    case 4: return ReadRegisters(request, image, &ProcessImage::ReadInputRegisters, answer);
    case 5: return WriteCoil(request, image, answer);
    case 6: return WriteRegister(request, image, answer);
    case 15: return WriteCoils(request, image, answer);
    case 16: return WriteRegisters(request, image, answer);
    default: return Exception::IllegalFunction;
    }
}

} // namespace

ByteBuffer AnswerModbusRequest(ByteView request, ProcessImage& image)
{
    ByteBuffer answer{request[0]};
    const Exception exception = Execute(request, image, answer);
    if (exception != Exception::None)
        answer = {static_cast<unsigned char>(request[0] | 0x80), static_cast<unsigned char>(exception)};
    return answer;
}
