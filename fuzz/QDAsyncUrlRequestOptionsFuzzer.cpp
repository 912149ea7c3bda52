// Parses any text as options and compares the result, the message and the printed set with a plain model, which knows
// of the library only how it decodes UTF-8.
#include <QDPlatform/CTextOutputString.h>
#include <QDPlatform/QDAsyncUrlRequest.h>
#include <QDPlatform/QDAsyncUrlRequestOptions.h>
#include <QDPlatform/QDLocale.h>
#include <QDPlatform/QDString.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <map>
#include <string>
#include <vector>

namespace
{

enum class Kind
{
    Flag,
    Bitmask,
    Integer,
    Text,
    List
};

struct Option
{
    Kind m_Kind;
    const char* m_pPrinted;
    unsigned long m_Mask;
};

const std::map<std::string, Option> kOptions = {
    {"--anyauth", {Kind::Bitmask, "CURLOPT_HTTPAUTH", 0xFFFFFFEF}},
    {"--append", {Kind::Flag, "CURLOPT_APPEND", 0}},
    {"--basic", {Kind::Bitmask, "CURLOPT_HTTPAUTH", 0x1}},
    {"--ciphers", {Kind::Text, "CURLOPT_SSL_CIPHER_LIST", 0}},
    {"--connect-timeout", {Kind::Integer, "CURLOPT_CONNECTTIMEOUT", 0}},
    {"--crlf", {Kind::Flag, "???", 0}},
    {"--digest", {Kind::Bitmask, "CURLOPT_HTTPAUTH", 0x2}},
    {"--disallow-username-in-url", {Kind::Flag, "???", 0}},
    {"--ftp-port", {Kind::Text, "???", 0}},
    {"--ftp-pret", {Kind::Flag, "???", 0}},
    {"--mail-auth", {Kind::Text, "CURLOPT_MAIL_AUTH", 0}},
    {"--mail-from", {Kind::Text, "CURLOPT_MAIL_FROM", 0}},
    {"--mail-rcpt", {Kind::List, "CURLOPT_MAIL_RCPT", 0}},
    {"--max-time", {Kind::Integer, "CURLOPT_TIMEOUT", 0}},
    {"--negotiate", {Kind::Bitmask, "CURLOPT_HTTPAUTH", 0x4}},
    {"--ntlm", {Kind::Bitmask, "CURLOPT_HTTPAUTH", 0x8}},
    {"--ntlm-wb", {Kind::Bitmask, "CURLOPT_HTTPAUTH", 0x20}},
    {"--oauth2-bearer", {Kind::Text, "???", 0}},
    {"--path-as-is", {Kind::Flag, "???", 0}},
    {"--post301", {Kind::Bitmask, "CURLOPT_POSTREDIR", 0x1}},
    {"--post302", {Kind::Bitmask, "CURLOPT_POSTREDIR", 0x2}},
    {"--post303", {Kind::Bitmask, "CURLOPT_POSTREDIR", 0x4}},
    {"--proto-default", {Kind::Text, "???", 0}},
    {"--proxy", {Kind::Text, "CURLOPT_PROXY", 0}},
    {"--tcp-fastopen", {Kind::Flag, "???", 0}},
    {"--tftp-no-options", {Kind::Flag, "???", 0}},
};

// One line of the printed set.
struct Line
{
    std::string m_Name;
    unsigned long m_Bits;
    std::string m_Text; // in quotes; empty for a number
};

struct Outcome
{
    std::string m_Error; // empty when all was understood
    std::vector<Line> m_Lines;
};

void Require(bool condition)
{
    if (!condition)
        std::abort();
}

std::vector<std::string> Split(const std::string& text)
{
    std::vector<std::string> words;
    bool isWord = false;
    bool isQuoted = false;
    const char* pos = text.data();
    const char* const end = pos + text.size();
    while (pos < end) {
        const int codePoint = qd_codepoint_from_qdchar(pos, end);
        const bool isBlank = codePoint == ' ' || codePoint == '\t' || codePoint == '\n' || codePoint == '\r';
        if (isBlank && !isQuoted) {
            isWord = false;
            continue;
        }
        if (!isWord)
            words.emplace_back();
        isWord = true;
        if (codePoint == '\'')
            isQuoted = !isQuoted;
        else if (!isQuoted || pos < end)
            qd_append_codepoint_to_qdstring(codePoint, words.back());
    }
    return words;
}

std::string ToLower(std::string text)
{
    for (char& c : text)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return text;
}

// Returns false when the text is no number; sets `value` to the nearest that a long can hold.
bool ReadNumber(const std::string& text, long& value)
{
    std::size_t pos = text.find_first_not_of(" \t\n\v\f\r");
    if (pos == std::string::npos)
        return false;
    const bool isNegative = text[pos] == '-';
    if (isNegative || text[pos] == '+')
        ++pos;
    if (pos == text.size())
        return false;
    const unsigned long limit = static_cast<unsigned long>(std::numeric_limits<long>::max()) + (isNegative ? 1 : 0);
    unsigned long number = 0;
    for (; pos < text.size(); ++pos) {
        if (text[pos] < '0' || text[pos] > '9')
            return false;
        const auto digit = static_cast<unsigned long>(text[pos] - '0');
        number = number > (limit - digit) / 10 ? limit : number * 10 + digit;
    }
    value = static_cast<long>(isNegative ? 0 - number : number);
    return true;
}

// The word in a message. Formatting ends it at a NUL.
std::string Shown(const std::string& word)
{
    return (word.size() > 62 ? word.substr(0, 60) + "..." : word).c_str();
}

// The first line with this name; a new one at the end when there is none.
Line& FindLine(Outcome& outcome, const char* name)
{
    for (Line& line : outcome.m_Lines)
        if (line.m_Name == name)
            return line;
    return outcome.m_Lines.emplace_back(Line{name, 0, ""});
}

Outcome Expect(const std::string& text)
{
    const std::vector<std::string> words = Split(text);
    Outcome outcome;
    for (std::size_t i = 0; i < words.size() && !words[i].empty(); ++i) {
        const std::string& word = words[i];
        const auto found = kOptions.find(ToLower(word));
        if (word[0] != '-')
            outcome.m_Error = "Unexpected option '" + Shown(word) + "'.";
        else if (found == kOptions.end())
            outcome.m_Error = "Invalid option '" + Shown(word) + "'.";
        if (!outcome.m_Error.empty())
            return outcome;
        const Option& option = found->second;
        if (option.m_Kind == Kind::Flag)
            outcome.m_Lines.push_back({option.m_pPrinted, 1, ""});
        if (option.m_Kind == Kind::Bitmask)
            FindLine(outcome, option.m_pPrinted).m_Bits |= option.m_Mask;
        if (option.m_Kind == Kind::Flag || option.m_Kind == Kind::Bitmask)
            continue;
        const std::string value = ++i < words.size() ? words[i] : "";
        long number = 0;
        if (value.empty() || value[0] == '-')
            outcome.m_Error = "Command option '" + Shown(word) + "', missing parameter value.";
        else if (option.m_Kind == Kind::Integer && !ReadNumber(value, number))
            outcome.m_Error = "Invalid integer '" + Shown(value) + "'.";
        if (!outcome.m_Error.empty())
            return outcome;
        const std::string quoted = std::string("'") + value.c_str() + "'";
        if (option.m_Kind == Kind::Integer)
            outcome.m_Lines.push_back({option.m_pPrinted, static_cast<unsigned long>(number), ""});
        if (option.m_Kind == Kind::Text)
            outcome.m_Lines.push_back({option.m_pPrinted, 0, quoted});
        if (option.m_Kind == Kind::List) {
            std::string& list = FindLine(outcome, option.m_pPrinted).m_Text;
            list += (list.empty() ? "" : ", ") + quoted;
        }
        if (found->first == "--oauth2-bearer")
            FindLine(outcome, "CURLOPT_HTTPAUTH").m_Bits |= 0x40;
    }
    return outcome;
}

std::string Print(const Outcome& outcome)
{
    std::string text;
    for (const Line& line : outcome.m_Lines)
        text += line.m_Name + " = " +
                (line.m_Text.empty() ? std::to_string(static_cast<long>(line.m_Bits)) : line.m_Text) + '\n';
    return text;
}

std::string Print(const QDAsyncUrlRequestOptions& options)
{
    CTextOutputString out;
    out.SetLineTermination(LineTerminationLF);
    options.PrintOptions(out);
    return out.GetText();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    const Outcome expected = Expect(text);
    const CQDLocale locale;
    QDAsyncUrlRequestOptions options;

    for (int i = 0; i < 2; ++i) { // the second parse replaces the first
        std::string error = "before";
        Require(options.ParseCurlOptions(locale, text, error) == expected.m_Error.empty());
        Require(error == expected.m_Error);
        Require(options.GetOptionCount() == expected.m_Lines.size());
        Require(Print(options) == Print(expected));
    }

    // What libcurl takes is its own affair; it must not touch what is not the set's.
    QDAsyncUrlRequest request;
    Require(options.ApplyOptionsToRequest(&request) || !expected.m_Lines.empty());
    return 0;
}
