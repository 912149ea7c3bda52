#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Cuts the byte stream of an HTTP connection into requests, and makes answers.
//
// Knows as much of HTTP/1.0 and HTTP/1.1 as a server needs that gives out one small text: requests have no body.
// Thread: pure functions on bytes, from any thread.

constexpr std::size_t kHttpMaximumHeadSize = 8192; // request line, header fields and the empty line behind them

struct HttpRequest
{
    std::string_view m_Method; // points into the bytes received, like the target
    std::string_view m_Target;
    bool m_KeepsConnection{false}; // the client may send another request behind this one
    std::size_t m_Size{0};         // bytes of the head
};

enum class HttpRequestState
{
    Incomplete, // more bytes are needed
    Complete,
    Untrusted // this is no request that could be answered, and nobody can tell where the next one starts
};

// Looks at the front of `received`. Fills `request` when it is Complete, and `reason` with a text for the log and the
// client when it is Untrusted: a head that is too long, or not what HTTP asks for, or one that announces a body.
HttpRequestState FindHttpRequest(std::string_view received, HttpRequest& request, std::string& reason);

// What a server says in one answer.
struct HttpAnswer
{
    std::string_view m_Status;      // "200 OK"
    std::string m_Body;             // plain text
    bool m_NamesMethods{false};     // tells the client the methods that there are
    bool m_LeavesOutBody{false};    // only says how long it would be
    bool m_ClosesConnection{false}; // tells the client that no other answer follows
};

std::string FormatHttpAnswer(const HttpAnswer& answer);
