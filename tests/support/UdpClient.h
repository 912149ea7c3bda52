#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

// The address that an IPv4 socket is bound to. A failure stops the program with a message.
inline sockaddr_in GetBoundAddress(int socket)
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        std::perror("GetBoundAddress: getsockname");
        std::abort();
    }
    return address;
}

// A UDP port that is free now, for a program that a test starts. It lies below those that the system gives to sockets
// without a port of their own, and tests that run at the same time get different ones.
inline unsigned short FindFreeUdpPort()
{
    constexpr int kFirst = 10000;
    constexpr int kCount = 20000;
    for (int i = 0; i < kCount; ++i) {
        const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<unsigned short>(kFirst + (::getpid() + i) % kCount));
        const bool isFree = ::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        ::close(socket);
        if (isFree)
            return ntohs(address.sin_port);
    }
    std::fputs("FindFreeUdpPort: none\n", stderr);
    std::abort();
}

// A blocking UDP client of a server on 127.0.0.1, or on another address of the loopback interface, made of plain system
// calls. A failure that the test does not ask about stops the program with a message.
class UdpClient
{
public:
    // address: of the server, in host byte order.
    explicit UdpClient(unsigned short port, uint32_t address = INADDR_LOOPBACK)
    {
        const timeval limit{20, 0};
        Require(::setsockopt(m_Socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0, "UdpClient: SO_RCVTIMEO");
        sockaddr_in server{};
        server.sin_family = AF_INET;
        server.sin_port = htons(port);
        server.sin_addr.s_addr = htonl(address);
        Require(::connect(m_Socket, reinterpret_cast<sockaddr*>(&server), sizeof server) == 0, "UdpClient: connect");
    }

    UdpClient(const UdpClient&) = delete;
    UdpClient& operator=(const UdpClient&) = delete;

    ~UdpClient() { ::close(m_Socket); }

    // This end's port, as the server sees it.
    unsigned short GetLocalPort() const { return ntohs(GetBoundAddress(m_Socket).sin_port); }

    // Sends one datagram. False when the last one met a closed port.
    bool Send(const std::string& data) const
    {
        return ::send(m_Socket, data.data(), data.size(), 0) == static_cast<ssize_t>(data.size());
    }

    // Receives one datagram, which must come from the server. Returns "nothing" when none comes within 20 s.
    std::string Receive() const
    {
        std::string data(65536, '\0');
        const ssize_t count = ::recv(m_Socket, data.data(), data.size(), 0);
        if (count < 0)
            return "nothing";
        data.resize(static_cast<std::size_t>(count));
        return data;
    }

private:
    static void Require(bool holds, const char* what)
    {
        if (holds)
            return;
        std::perror(what);
        std::abort();
    }

    const int m_Socket{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};
