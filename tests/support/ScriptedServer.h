#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

// One connection of a ScriptedServer, for its handler: blocking reads and writes of text. A peer that is gone, or
// neither sends nor reads for 20 s, is not an error here: reads give what has come, writes end.
class ScriptedConnection
{
public:
    explicit ScriptedConnection(int socket) : m_Socket(socket)
    {
        const timeval limit{20, 0};
        ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    }

    ScriptedConnection(const ScriptedConnection&) = delete;
    ScriptedConnection& operator=(const ScriptedConnection&) = delete;

    int GetSocket() const { return m_Socket; }

    // The head of the next request: everything to the first empty line, that line included. Empty when the peer closes
    // before.
    std::string ReadHead()
    {
        std::size_t end;
        while ((end = m_Unread.find("\r\n\r\n")) == std::string::npos)
            if (!ReadMore())
                return "";
        return Take(end + 4);
    }

    // Exactly `size` bytes; less when the peer closes before.
    std::string ReadBytes(std::size_t size)
    {
        while (m_Unread.size() < size && ReadMore()) {
        }
        return Take(size);
    }

    // What the peer sends until it closes its end.
    std::string ReadToEnd()
    {
        while (ReadMore()) {
        }
        return Take(m_Unread.size());
    }

    void Send(const std::string& text)
    {
        std::size_t sent = 0;
        while (sent < text.size()) {
            const ssize_t count = ::send(m_Socket, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
            if (count <= 0)
                return;
            sent += static_cast<std::size_t>(count);
        }
    }

    // Makes the end of the connection a reset.
    void ResetAtEnd()
    {
        const linger now{1, 0};
        ::setsockopt(m_Socket, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    }

private:
    bool ReadMore()
    {
        char buffer[4096];
        const ssize_t count = ::recv(m_Socket, buffer, sizeof buffer, 0);
        if (count > 0)
            m_Unread.append(buffer, static_cast<std::size_t>(count));
        return count > 0;
    }

    std::string Take(std::size_t size)
    {
        std::string text = m_Unread.substr(0, size);
        m_Unread.erase(0, text.size());
        return text;
    }

    int m_Socket;
    std::string m_Unread;
};

// A server on a free port of 127.0.0.1 that does with each connection what the test says: the handler runs on a thread
// of its own for each connection, which ends, and is closed, when it returns. The destructor ends the connections that
// are still open and joins all threads; what the handler uses must be declared before the server.
class ScriptedServer
{
public:
    using Handler = std::function<void(ScriptedConnection&)>;

    explicit ScriptedServer(Handler handler) : m_Handler(std::move(handler))
    {
        m_Listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_storage address{};
        sockaddr_in ipv4{};
        ipv4.sin_family = AF_INET;
        ipv4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        static_assert(sizeof ipv4 <= sizeof address);
        std::memcpy(&address, &ipv4, sizeof ipv4);
        socklen_t length = sizeof ipv4;
        if (m_Listener < 0 || ::bind(m_Listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::listen(m_Listener, SOMAXCONN) != 0 ||
            ::getsockname(m_Listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
            Stop("ScriptedServer");
        std::memcpy(&ipv4, &address, sizeof ipv4);
        m_Port = ntohs(ipv4.sin_port);
        m_Thread = std::thread([this] { AcceptAll(); });
    }

    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    ~ScriptedServer()
    {
        ::shutdown(m_Listener, SHUT_RDWR); // accept() returns
        m_Thread.join();
        ::close(m_Listener);
        {
            const std::lock_guard<std::mutex> lock(m_Lock);
            for (const Connection& connection : m_Connections)
                if (connection.m_Socket >= 0)
                    ::shutdown(connection.m_Socket, SHUT_RDWR);
        }
        for (Connection& connection : m_Connections)
            connection.m_Thread.join();
    }

    unsigned short GetPort() const { return m_Port; }

    // "http://127.0.0.1:PORT" and the path.
    std::string GetUrl(const std::string& path = "/") const
    {
        return "http://127.0.0.1:" + std::to_string(m_Port) + path;
    }

    // Connections accepted so far.
    int GetConnectionCount() const
    {
        const std::lock_guard<std::mutex> lock(m_Lock);
        return static_cast<int>(m_Connections.size());
    }

private:
    struct Connection
    {
        int m_Socket; // -1 when it is closed
        std::thread m_Thread;
    };

    [[noreturn]] static void Stop(const char* what)
    {
        std::perror(what);
        std::abort();
    }

    void AcceptAll()
    {
        while (true) {
            const int socket = ::accept4(m_Listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (socket < 0)
                return;
            const std::lock_guard<std::mutex> lock(m_Lock);
            Connection& connection = m_Connections.emplace_back(Connection{socket, {}});
            connection.m_Thread = std::thread([this, &connection, socket] { Serve(connection, socket); });
        }
    }

    void Serve(Connection& connection, int socket)
    {
        {
            ScriptedConnection peer(socket);
            m_Handler(peer);
        }
        const std::lock_guard<std::mutex> lock(m_Lock);
        connection.m_Socket = -1;
        ::close(socket);
    }

    Handler m_Handler;
    int m_Listener{-1};
    unsigned short m_Port{0};
    mutable std::mutex m_Lock;           // m_Connections, and closing their sockets
    std::list<Connection> m_Connections; // a connection keeps its place
    std::thread m_Thread;                // last: it uses the others
};
