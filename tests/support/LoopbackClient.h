#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <string>

// A port on 127.0.0.1 and ::1 that no other test has: kept from others by a bound socket that never listens. A server
// with SO_REUSEADDR can still bind it.
class ReservedPort
{
public:
    ReservedPort();
    ReservedPort(const ReservedPort&) = delete;
    ReservedPort& operator=(const ReservedPort&) = delete;
    ~ReservedPort();

    unsigned short Get() const { return m_Port; }

private:
    int m_Socket{-1};
    unsigned short m_Port{0};
};

// Whether somebody on 127.0.0.1 takes connections on the port.
bool IsPortOpen(unsigned short port);

// A blocking TCP client on the loopback interface, made of plain system calls. A failure that the test does not ask
// about stops the program with a message.
class LoopbackClient
{
public:
    // Connects to 127.0.0.1, or to ::1 with `family` AF_INET6.
    explicit LoopbackClient(unsigned short port, int family = AF_INET);
    LoopbackClient(LoopbackClient&& other) noexcept;
    LoopbackClient(const LoopbackClient&) = delete;
    LoopbackClient& operator=(const LoopbackClient&) = delete;
    ~LoopbackClient();

    int GetSocket() const { return m_Socket; }

    // This end's port, as the server sees it.
    unsigned short GetLocalPort() const;

    void Send(const std::string& data);

    // Reads exactly `size` bytes, or less when the peer closes or 20 s have passed.
    std::string Receive(std::size_t size);

    // Reads on until the connection ends, at most 20 s. True when it ended with a reset / in an orderly way.
    bool SawReset();
    bool SawOrderlyClose();

    // Sends FIN / closes / closes with a reset.
    void ShutdownSend();
    void Close();
    void Reset();

private:
    // 0 after an orderly end, else errno (EAGAIN: nothing happened in time).
    int ReadToEnd();

    int m_Socket{-1};
    bool m_WasReset{false}; // by the time it was connected
};
