#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

// Bytes of a protocol in a form that a test can spell out: "00 01 0000 0006" and the like; blanks go anywhere.

// Text that is no hex stops the program.
inline std::string FromHex(std::string_view text)
{
    std::string digits;
    for (const char c : text) {
        if (c != ' ')
            digits += c;
    }
    std::string bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        char* end = nullptr;
        const std::string pair = digits.substr(i, 2);
        bytes += static_cast<char>(std::strtoul(pair.c_str(), &end, 16));
        if (end != pair.c_str() + 2)
            std::abort();
    }
    return bytes;
}

// Upper case, without blanks.
inline std::string ToHex(std::string_view bytes)
{
    std::string text;
    for (const char byte : bytes) {
        char pair[3];
        std::snprintf(pair, sizeof pair, "%02X", static_cast<unsigned int>(static_cast<unsigned char>(byte)));
        text += pair;
    }
    return text;
}
