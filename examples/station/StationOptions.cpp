#include "StationOptions.h"

#include <charconv>
#include <string_view>

const char* const kStationUsage = R"(station: a small SCADA station that serves Modbus/TCP

  -port N      TCP port to listen on, 1 to 65535; 1502 if not given
  -links N     connections that one worker thread serves, 1 to 64; 64 if not given
  -log LEVEL   how much to print, 0 (errors) to 6 (every byte); 2 if not given
  -help        print this and exit

SIGINT (Ctrl-C) and SIGTERM stop the station.
)";

namespace
{

// Reads a decimal number, nothing before and nothing after it, from `minimum` to `maximum`.
bool ParseNumber(std::string_view text, unsigned int minimum, unsigned int maximum, unsigned int& number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && number >= minimum && number <= maximum;
}

// Reads the value of an option that takes a number.
bool ParseValue(const std::string& option, const char* value, unsigned int minimum, unsigned int maximum,
                unsigned int& number, std::string& error)
{
    if (value != nullptr && ParseNumber(value, minimum, maximum, number))
        return true;
    error = option + " needs a number from " + std::to_string(minimum) + " to " + std::to_string(maximum);
    if (value != nullptr)
        error += ", not \"" + std::string(value) + "\"";
    return false;
}

} // namespace

bool ParseStationOptions(int argumentCount, const char* const* arguments, StationOptions& options, std::string& error)
{
    for (int i = 1; i < argumentCount; ++i) {
        const std::string option = arguments[i];
        if (option == "-help") {
            options.m_ShowHelp = true;
            continue;
        }
        const char* value = i + 1 < argumentCount ? arguments[i + 1] : nullptr;
        unsigned int number = 0;
        if (option == "-port") {
            if (!ParseValue(option, value, 1, 65535, number, error))
                return false;
            options.m_Port = static_cast<unsigned short>(number);
        } else if (option == "-links") {
            if (!ParseValue(option, value, 1, 64, number, error))
                return false;
            options.m_LinksPerThread = number;
        } else if (option == "-log") {
            if (!ParseValue(option, value, 0, 6, number, error))
                return false;
            options.m_LogLevel = static_cast<TcpServerLinkLogging>(number);
        } else {
            error = "unknown argument \"" + option + "\"; -help lists the options";
            return false;
        }
        ++i; // the value
    }
    return true;
}
