#include "StationOptions.h"

#include "PeerReadings.h"
#include "PeerUrl.h"
#include "ServiceState.h"

#include <QDPlatform/QDCommandArguments.h>

#include <charconv>
#include <string_view>

const char* const kStationUsage = R"(station: a small SCADA station that serves Modbus/TCP

  -port N        TCP port to listen on, 1 to 65535; 1502 if not given
  -http PORT     TCP port on which HTTP clients get /readings, 1 to 65535; none if not given
  -time-port N   UDP port on which SNTP clients get the time, 1 to 65535; none if not given
  -poll URL      readings of another station, http://HOST:PORT/readings, to be shown as input registers; up to 16 times
  -links N       connections that one worker thread serves, 1 to 64; 64 if not given
  -log LEVEL     how much to log, 0 (errors) to 6 (every byte); 2 if not given
  -logdir DIR    folder of the log and the saved registers; $HOME/.quendrelscada if not given
  -service NAME  say at the start how systemd runs the unit NAME.service; none if not given
  -report        print the host's name, addresses, serial ports and time zone, with -service the unit's state, and exit
  -help          print this and exit

SIGINT (Ctrl-C) and SIGTERM stop the station.
)";

namespace
{

using CommandArgument = CQDCommandArguments::CommandArgument;

constexpr std::size_t kMaximumTextLength = 1023; // the library cuts arguments behind 1024 bytes

// As it was typed.
std::string TextOf(const CommandArgument& argument)
{
    return argument.m_Kind == CQDCommandArguments::ArgumentOption ? '-' + argument.m_Text : argument.m_Text;
}

// For an error text. What looks like a URL is not repeated: it may hold a password.
std::string Show(const CommandArgument& argument)
{
    const std::string text = TextOf(argument);
    const bool mayBeUrl = text.find('@') != std::string::npos || text.find("://") != std::string::npos;
    return mayBeUrl ? "<URL>" : '"' + text + '"';
}

// Reads a decimal number, nothing before and nothing after it, from `minimum` to `maximum`.
bool ParseNumber(std::string_view text, unsigned int minimum, unsigned int maximum, unsigned int& number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && number >= minimum && number <= maximum;
}

// Says what `option` needs, and what it got: value, which is null when there is none.
bool Refuse(const std::string& option, const std::string& needs, const CommandArgument* value, std::string& error)
{
    error = option + " needs " + needs;
    if (value != nullptr)
        error += ", not " + Show(*value);
    return false;
}

bool ParseValue(const std::string& option, const CommandArgument* value, unsigned int minimum, unsigned int maximum,
                unsigned int& number, std::string& error)
{
    if (value != nullptr && ParseNumber(TextOf(*value), minimum, maximum, number))
        return true;
    std::string needs = "a number from ";
    needs += std::to_string(minimum) + " to " + std::to_string(maximum);
    return Refuse(option, needs, value, error);
}

bool ParsePort(const std::string& option, const CommandArgument* value, unsigned short& port, std::string& error)
{
    unsigned int number = 0;
    if (!ParseValue(option, value, 1, 65535, number, error))
        return false;
    port = static_cast<unsigned short>(number);
    return true;
}

// What begins with "-" is rather a forgotten value than a folder, which could be named ./-x.
bool ParseFolder(const std::string& option, const CommandArgument* value, std::string& folder, std::string& error)
{
    if (value == nullptr || value->m_Kind != CQDCommandArguments::ArgumentValue || value->m_Text.empty())
        return Refuse(option, "the name of a folder", value, error);
    if (value->m_Text.size() > kMaximumTextLength) {
        error = option + " takes a name of at most " + std::to_string(kMaximumTextLength) + " bytes";
        return false;
    }
    folder = value->m_Text;
    return true;
}

// Whether it has characters, and only those that the name of a unit may have.
bool IsServiceName(const std::string& name)
{
    constexpr const char* kCharacters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789:-_.@\\";
    return !name.empty() && name.find_first_not_of(kCharacters) == std::string::npos;
}

bool ParseServiceName(const std::string& option, const CommandArgument* value, std::string& name, std::string& error)
{
    if (value == nullptr || value->m_Kind != CQDCommandArguments::ArgumentValue || !IsServiceName(value->m_Text))
        return Refuse(option, "a name of letters, digits and : - _ . @ \\", value, error);
    if (value->m_Text.ends_with(".service")) {
        error = option + " takes the name without its .service";
        return false;
    }
    if (value->m_Text.size() > kMaximumServiceNameLength) {
        error = option + " takes a name of at most " + std::to_string(kMaximumServiceNameLength) + " bytes";
        return false;
    }
    name = value->m_Text;
    return true;
}

bool ParseUrl(const std::string& option, const CommandArgument* value, std::vector<std::string>& urls,
              std::string& error)
{
    if (value == nullptr || value->m_Kind != CQDCommandArguments::ArgumentValue) {
        error = option + " needs a URL that begins with http:// or https://";
        return false;
    }
    if (const std::string wrong = WhatIsWrongWithUrl(value->m_Text); !wrong.empty()) {
        error = option + ' ' + wrong;
        return false;
    }
    if (urls.size() == PeerReadings::kMaximumPeers) {
        error = option + " can be given " + std::to_string(PeerReadings::kMaximumPeers) + " times, not more";
        return false;
    }
    urls.push_back(value->m_Text);
    return true;
}

} // namespace

bool ParseStationOptions(int argumentCount, char** arguments, StationOptions& options, std::string& error)
{
    CQDCommandArguments list;
    if (!list.ReadArguments(argumentCount, arguments)) {
        error = "\"-\" is no option; -help lists the options";
        return false;
    }
    while (const CommandArgument* argument = list.GetNextArgument()) {
        const std::string option = TextOf(*argument);
        unsigned int number = 0;
        if (option == "-help") {
            options.m_ShowHelp = true;
        } else if (option == "-port") {
            if (!ParsePort(option, list.GetNextArgument(), options.m_Port, error))
                return false;
        } else if (option == "-http") {
            if (!ParsePort(option, list.GetNextArgument(), options.m_HttpPort, error))
                return false;
        } else if (option == "-time-port") {
            if (!ParsePort(option, list.GetNextArgument(), options.m_TimePort, error))
                return false;
        } else if (option == "-poll") {
            if (!ParseUrl(option, list.GetNextArgument(), options.m_PollUrls, error))
                return false;
        } else if (option == "-links") {
            if (!ParseValue(option, list.GetNextArgument(), 1, 64, number, error))
                return false;
            options.m_LinksPerThread = number;
        } else if (option == "-log") {
            if (!ParseValue(option, list.GetNextArgument(), 0, 6, number, error))
                return false;
            options.m_LogLevel = static_cast<TcpServerLinkLogging>(number);
        } else if (option == "-logdir") {
            if (!ParseFolder(option, list.GetNextArgument(), options.m_LogFolder, error))
                return false;
        } else if (option == "-service") {
            if (!ParseServiceName(option, list.GetNextArgument(), options.m_ServiceName, error))
                return false;
        } else if (option == "-report") {
            options.m_ShowReport = true;
        } else {
            error = "unknown argument " + Show(*argument) + "; -help lists the options";
            return false;
        }
    }
    if (options.m_HttpPort == options.m_Port) {
        error = "-http needs another port than that of Modbus";
        return false;
    }
    return true;
}
