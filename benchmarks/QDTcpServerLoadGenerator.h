#pragma once

#include "support/ThisProcess.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

// The load for an echo server on this machine, made by the calling thread alone. Whatever goes wrong, a wrong byte in
// an echo included, ends the program: a figure that is not true is worth nothing.

// One TCP connection that sends a message and takes its echo. Resets the connection when it ends, so that no port stays
// behind in TIME_WAIT.
class EchoClient
{
public:
    EchoClient() = default;
    EchoClient(const EchoClient&) = delete;
    EchoClient& operator=(const EchoClient&) = delete;

    ~EchoClient() { Reset(); }

    // flags: SOCK_NONBLOCK to come back before the connection stands.
    void Connect(unsigned short port, int flags)
    {
        m_Socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
        Require(m_Socket >= 0, "load: socket");
        // Not paced by the kernel's timers, whatever the machine's congestion control is.
        Require(::setsockopt(m_Socket, IPPROTO_TCP, TCP_CONGESTION, "reno", 4) == 0, "load: TCP_CONGESTION");
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int result = ::connect(m_Socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        Require(result == 0 || (flags != 0 && errno == EINPROGRESS), "load: connect");
    }

    void Reset()
    {
        if (m_Socket < 0)
            return;
        const linger reset{1, 0};
        Require(::setsockopt(m_Socket, SOL_SOCKET, SO_LINGER, &reset, sizeof reset) == 0, "load: SO_LINGER");
        ::close(m_Socket);
        m_Socket = -1;
    }

    // Only while no echo is under way: the message then always fits into the socket.
    void Send(const std::string& message)
    {
        const ssize_t sent = ::send(m_Socket, message.data(), message.size(), MSG_NOSIGNAL);
        Require(sent == static_cast<ssize_t>(message.size()), "load: send");
        m_Received = 0;
    }

    // Takes what is there. Returns whether the echo is complete.
    bool Receive(const std::string& message)
    {
        static char buffer[65536];
        const ssize_t count = ::recv(m_Socket, buffer, sizeof buffer, MSG_DONTWAIT);
        if (count < 0 && errno == EAGAIN)
            return false;
        Require(count > 0, "load: the server closed a link");
        const std::size_t size = static_cast<std::size_t>(count);
        Require(size <= message.size() - m_Received, "load: more came back than was sent");
        Require(std::memcmp(buffer, message.data() + m_Received, size) == 0, "load: the echo differs");
        m_Received += size;
        return m_Received == message.size();
    }

    int GetSocket() const { return m_Socket; }

private:
    int m_Socket{-1};
    std::size_t m_Received{0}; // of the current message
};

// Which of many clients can go on.
class ClientPoll
{
public:
    ClientPoll() : m_Poll(::epoll_create1(EPOLL_CLOEXEC)) { Require(m_Poll >= 0, "load: epoll_create1"); }

    ClientPoll(const ClientPoll&) = delete;
    ClientPoll& operator=(const ClientPoll&) = delete;

    ~ClientPoll() { ::close(m_Poll); }

    void Add(EchoClient& client, unsigned int events) { Control(EPOLL_CTL_ADD, client, events); }

    void Change(EchoClient& client, unsigned int events) { Control(EPOLL_CTL_MOD, client, events); }

    // Calls serve(client, events) for each one.
    template<class Serve>
    void Wait(Serve&& serve)
    {
        epoll_event ready[256];
        const int count = ::epoll_wait(m_Poll, ready, 256, 5000);
        Require(count > 0, "load: no answer for five seconds");
        for (int i = 0; i < count; ++i)
            serve(*static_cast<EchoClient*>(ready[i].data.ptr), ready[i].events);
    }

private:
    void Control(int operation, EchoClient& client, unsigned int events)
    {
        epoll_event event{};
        event.events = events;
        event.data.ptr = &client;
        Require(::epoll_ctl(m_Poll, operation, client.GetSocket(), &event) == 0, "load: epoll_ctl");
    }

    int m_Poll;
};

inline std::string MakeMessage(std::size_t size)
{
    std::string message(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        message[i] = static_cast<char>('!' + i % 89);
    return message;
}

// Open links to one server, each with one message under way at a time.
class EchoLoad
{
public:
    EchoLoad(unsigned short port, unsigned int links, std::size_t messageSize) :
        m_Message(MakeMessage(messageSize)), m_Clients(links)
    {
        for (EchoClient& client : m_Clients) {
            client.Connect(port, 0);
            m_Poll.Add(client, EPOLLIN);
        }
    }

    // Returns the number of messages that went to and fro.
    unsigned long long Run(std::chrono::milliseconds duration)
    {
        const auto end = std::chrono::steady_clock::now() + duration;
        for (EchoClient& client : m_Clients)
            client.Send(m_Message);
        std::size_t underWay = m_Clients.size();
        unsigned long long messages = 0;
        while (underWay > 0) {
            const bool goOn = std::chrono::steady_clock::now() < end;
            m_Poll.Wait([&](EchoClient& client, unsigned int) {
                if (!client.Receive(m_Message))
                    return;
                ++messages;
                if (goOn)
                    client.Send(m_Message);
                else
                    --underWay;
            });
        }
        return messages;
    }

private:
    const std::string m_Message;
    std::vector<EchoClient> m_Clients;
    ClientPoll m_Poll;
};

// Connections that come, send one message, take its echo, and go with a reset; `atOnce` of them at any time. Returns
// how many went through.
inline unsigned long long RunChurn(unsigned short port, unsigned int atOnce, std::size_t messageSize,
                                   std::chrono::milliseconds duration)
{
    const std::string message = MakeMessage(messageSize);
    const auto end = std::chrono::steady_clock::now() + duration;
    std::vector<EchoClient> clients(atOnce);
    ClientPoll poll;
    for (EchoClient& client : clients) {
        client.Connect(port, SOCK_NONBLOCK);
        poll.Add(client, EPOLLOUT);
    }
    std::size_t underWay = clients.size();
    unsigned long long connections = 0;
    while (underWay > 0) {
        const bool goOn = std::chrono::steady_clock::now() < end;
        poll.Wait([&](EchoClient& client, unsigned int events) {
            if ((events & EPOLLOUT) != 0) {
                client.Send(message);
                poll.Change(client, EPOLLIN);
                return;
            }
            if (!client.Receive(message))
                return;
            ++connections;
            client.Reset();
            if (goOn) {
                client.Connect(port, SOCK_NONBLOCK);
                poll.Add(client, EPOLLOUT);
            } else {
                --underWay;
            }
        });
    }
    return connections;
}
