#include "HttpRequest.h"

#include <algorithm>

namespace
{

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kHeadEnd = "\r\n\r\n";

// The letters, digits and signs of which HTTP makes methods and the names of header fields.
constexpr std::string_view kTokenCharacters =
    "!#$%&'*+-.^_`|~0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

bool IsToken(std::string_view text)
{
    return !text.empty() && text.find_first_not_of(kTokenCharacters) == std::string_view::npos;
}

bool IsVisible(char character)
{
    const auto byte = static_cast<unsigned char>(character);
    return byte > 0x20 && byte < 0x7F;
}

bool IsControl(char character)
{
    const auto byte = static_cast<unsigned char>(character);
    return (byte < 0x20 && byte != '\t') || byte == 0x7F;
}

char ToLower(char character)
{
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
}

bool EqualNoCase(std::string_view left, std::string_view right)
{
    return std::ranges::equal(left, right, {}, &ToLower, &ToLower);
}

std::string_view Trim(std::string_view text)
{
    const std::size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// Takes what comes before `separator`, and the separator; everything when there is none.
std::string_view TakeUntil(std::string_view& text, std::string_view separator)
{
    const std::size_t length = std::min(text.find(separator), text.size());
    const std::string_view front = text.substr(0, length);
    text.remove_prefix(std::min(length + separator.size(), text.size()));
    return front;
}

bool ListHas(std::string_view list, std::string_view item)
{
    while (!list.empty()) {
        if (EqualNoCase(Trim(TakeUntil(list, ",")), item))
            return true;
    }
    return false;
}

// What the header fields say that matters here.
struct HeaderFields
{
    int m_HostCount{0};
    bool m_AnnouncesBody{false};
    bool m_AsksToClose{false};
};

bool ParseRequestLine(std::string_view line, HttpRequest& request, std::string& reason)
{
    request.m_Method = TakeUntil(line, " ");
    request.m_Target = TakeUntil(line, " ");
    if (!IsToken(request.m_Method) || request.m_Target.empty() || !std::ranges::all_of(request.m_Target, &IsVisible)) {
        reason = "the request line is wrong";
        return false;
    }
    if (line != "HTTP/1.1" && line != "HTTP/1.0") {
        reason = "the version is neither HTTP/1.1 nor HTTP/1.0";
        return false;
    }
    request.m_KeepsConnection = line == "HTTP/1.1";
    return true;
}

bool ParseHeaderField(std::string_view line, HeaderFields& fields)
{
    if (line.find(':') == std::string_view::npos || std::ranges::any_of(line, &IsControl))
        return false;
    const std::string_view name = TakeUntil(line, ":");
    const std::string_view value = Trim(line);
    if (!IsToken(name))
        return false;
    if (EqualNoCase(name, "Host"))
        ++fields.m_HostCount;
    else if (EqualNoCase(name, "Content-Length"))
        fields.m_AnnouncesBody = fields.m_AnnouncesBody || value != "0";
    else if (EqualNoCase(name, "Transfer-Encoding"))
        fields.m_AnnouncesBody = true;
    else if (EqualNoCase(name, "Connection"))
        fields.m_AsksToClose = fields.m_AsksToClose || ListHas(value, "close");
    return true;
}

// head: all lines, each with its end, without the empty one.
bool ParseHead(std::string_view head, HttpRequest& request, std::string& reason)
{
    if (!ParseRequestLine(TakeUntil(head, kLineEnd), request, reason))
        return false;
    HeaderFields fields;
    while (!head.empty()) {
        if (!ParseHeaderField(TakeUntil(head, kLineEnd), fields)) {
            reason = "a header field is wrong";
            return false;
        }
    }
    const bool needsHost = request.m_KeepsConnection; // HTTP/1.1
    if (fields.m_HostCount > 1 || (needsHost && fields.m_HostCount == 0)) {
        reason = "there must be one Host";
        return false;
    }
    if (fields.m_AnnouncesBody) {
        reason = "a request with a body is not taken";
        return false;
    }
    if (fields.m_AsksToClose)
        request.m_KeepsConnection = false;
    return true;
}

} // namespace

HttpRequestState FindHttpRequest(std::string_view received, HttpRequest& request, std::string& reason)
{
    const std::size_t end = received.substr(0, kHttpMaximumHeadSize).find(kHeadEnd);
    if (end == std::string_view::npos) {
        if (received.size() < kHttpMaximumHeadSize)
            return HttpRequestState::Incomplete;
        reason = "the head is longer than " + std::to_string(kHttpMaximumHeadSize) + " bytes";
        return HttpRequestState::Untrusted;
    }
    if (!ParseHead(received.substr(0, end + kLineEnd.size()), request, reason))
        return HttpRequestState::Untrusted;
    request.m_Size = end + kHeadEnd.size();
    return HttpRequestState::Complete;
}

std::string FormatHttpAnswer(const HttpAnswer& answer)
{
    std::string text = "HTTP/1.1 ";
    text += answer.m_Status;
    text += "\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(answer.m_Body.size()) + "\r\n";
    if (answer.m_NamesMethods)
        text += "Allow: GET, HEAD\r\n";
    if (answer.m_ClosesConnection)
        text += "Connection: close\r\n";
    text += kLineEnd;
    if (!answer.m_LeavesOutBody)
        text += answer.m_Body;
    return text;
}
