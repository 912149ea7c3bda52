#include "ReadingsText.h"

#include <charconv>

namespace
{

constexpr std::string_view kFirstLine = "station-readings 1\n";

// Takes `expected` from the front of `text`; false when the text begins with something else.
bool Take(std::string_view& text, std::string_view expected)
{
    if (!text.starts_with(expected))
        return false;
    text.remove_prefix(expected.size());
    return true;
}

// Takes decimal digits; 0 stands alone and is never in front.
bool TakeNumber(std::string_view& text, uint16_t& number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const std::size_t length = static_cast<std::size_t>(end - text.data());
    if (error != std::errc() || (text[0] == '0' && length != 1))
        return false;
    text.remove_prefix(length);
    return true;
}

} // namespace

std::string FormatReadings(const HostRegisters& registers)
{
    std::string text(kFirstLine);
    for (std::size_t address = 0; address < registers.size(); ++address)
        text += std::to_string(address) + ' ' + std::to_string(registers[address]) + '\n';
    return text;
}

bool ParseReadings(std::string_view text, HostRegisters& registers)
{
    if (!Take(text, kFirstLine))
        return false;
    HostRegisters values{};
    for (std::size_t address = 0; address < values.size(); ++address) {
        if (!Take(text, std::to_string(address) + ' ') || !TakeNumber(text, values[address]) || !Take(text, "\n"))
            return false;
    }
    if (!text.empty())
        return false;
    registers = values;
    return true;
}
