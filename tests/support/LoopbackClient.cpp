#include "LoopbackClient.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace
{

void Require(bool holds, const char* what)
{
    if (holds)
        return;
    std::perror(what);
    std::abort();
}

} // namespace

ReservedPort::ReservedPort()
{
    // A dual-stack socket keeps the port for both families.
    m_Socket = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Require(m_Socket >= 0, "ReservedPort: socket");
    const int on = 1;
    const int off = 0;
    Require(::setsockopt(m_Socket, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off) == 0, "ReservedPort: IPV6_V6ONLY");
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    socklen_t length = sizeof address;
    Require(::bind(m_Socket, reinterpret_cast<sockaddr*>(&address), length) == 0, "ReservedPort: bind");
    // Set after the port was chosen, so that the choice was made among ports that nobody has.
    Require(::setsockopt(m_Socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0, "ReservedPort: SO_REUSEADDR");
    Require(::getsockname(m_Socket, reinterpret_cast<sockaddr*>(&address), &length) == 0, "ReservedPort: getsockname");
    m_Port = ntohs(address.sin6_port);
}

ReservedPort::~ReservedPort()
{
    ::close(m_Socket);
}

bool IsPortOpen(unsigned short port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int result = ::connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::close(probe);
    return result == 0;
}

LoopbackClient::LoopbackClient(unsigned short port, int family)
{
    m_Socket = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Require(m_Socket >= 0, "LoopbackClient: socket");
    const timeval limit{20, 0};
    Require(::setsockopt(m_Socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0, "LoopbackClient: SO_RCVTIMEO");
    sockaddr_in6 address6{};
    address6.sin6_family = AF_INET6;
    address6.sin6_port = htons(port);
    address6.sin6_addr = in6addr_loopback;
    sockaddr_in address4{};
    address4.sin_family = AF_INET;
    address4.sin_port = htons(port);
    address4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int result = family == AF_INET6
                           ? ::connect(m_Socket, reinterpret_cast<sockaddr*>(&address6), sizeof address6)
                           : ::connect(m_Socket, reinterpret_cast<sockaddr*>(&address4), sizeof address4);
    // The server may have reset the connection before connect() had a chance to return.
    m_WasReset = result != 0 && errno == ECONNRESET;
    Require(result == 0 || m_WasReset, "LoopbackClient: connect");
}

LoopbackClient::LoopbackClient(LoopbackClient&& other) noexcept :
    m_Socket(std::exchange(other.m_Socket, -1)), m_WasReset(other.m_WasReset)
{}

LoopbackClient::~LoopbackClient()
{
    Close();
}

unsigned short LoopbackClient::GetLocalPort() const
{
    sockaddr_in6 address{};
    socklen_t length = sizeof address;
    Require(::getsockname(m_Socket, reinterpret_cast<sockaddr*>(&address), &length) == 0,
            "LoopbackClient: getsockname");
    return ntohs(address.sin6_port); // at the same place in a sockaddr_in
}

void LoopbackClient::Send(const std::string& data)
{
    std::size_t sent = 0;
    while (sent < data.size()) {
        const ssize_t count = ::send(m_Socket, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        Require(count > 0, "LoopbackClient: send");
        sent += static_cast<std::size_t>(count);
    }
}

std::string LoopbackClient::Receive(std::size_t size)
{
    std::string data(size, '\0');
    std::size_t received = 0;
    while (received < size) {
        const ssize_t count = ::recv(m_Socket, data.data() + received, size - received, 0);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            break;
        received += static_cast<std::size_t>(count);
    }
    data.resize(received);
    return data;
}

int LoopbackClient::ReadToEnd()
{
    char buffer[4096];
    while (true) {
        const ssize_t count = ::recv(m_Socket, buffer, sizeof buffer, 0);
        if (count == 0)
            return 0;
        if (count < 0 && errno != EINTR)
            return errno;
    }
}

bool LoopbackClient::SawReset()
{
    return m_WasReset || ReadToEnd() == ECONNRESET;
}

bool LoopbackClient::SawOrderlyClose()
{
    return ReadToEnd() == 0;
}

void LoopbackClient::ShutdownSend()
{
    ::shutdown(m_Socket, SHUT_WR);
}

void LoopbackClient::Close()
{
    if (m_Socket >= 0)
        ::close(std::exchange(m_Socket, -1));
}

void LoopbackClient::Reset()
{
    const linger hard{1, 0};
    ::setsockopt(m_Socket, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    Close();
}
