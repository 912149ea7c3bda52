#pragma once

#include "support/ThisProcess.h"

#include <QDPlatform/COutputLogNull.h>
#include <QDPlatform/QDTcpServer.h>
#include <QDPlatform/QDTcpServerLink.h>
#include <QDPlatform/QDTcpServerLinkMessage.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>
#include <uv.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// Three TCP echo servers that do the same work: read once what is there, write it back at once, keep what does not fit
// and write it when there is room. All read into one buffer for each thread, have the same backlog, and leave
// TCP_NODELAY and the buffer sizes of the kernel alone. Each is a function that serves on the calling thread, calls
// `ready` once callers can connect, and does not return: its process is ended from outside.

constexpr std::size_t kEchoBufferBytes = 16384;
constexpr unsigned int kSocketsPerThread = 64;
constexpr int kEchoBacklog = 128;

// Some machines run every connection under a congestion control that paces: the kernel's timers, not the server, then
// set the rate. Accepted connections take this over from their listening socket.
inline void SwitchPacingOff(int socket)
{
    Require(::setsockopt(socket, IPPROTO_TCP, TCP_CONGESTION, "reno", 4) == 0, "TCP_CONGESTION");
}

// Ours: a CQDTcpServer with a log that keeps nothing.

class EchoLink : public CQDTcpServerLink
{
public:
    using CQDTcpServerLink::CQDTcpServerLink;

protected:
    LinkCallbackResult OnRxData() override
    {
        thread_local char buffer[kEchoBufferBytes];
        unsigned int count = 0;
        const LinkCallbackResult result = ReadData(buffer, sizeof buffer, count);
        if (result != LinkCallbackSuccess)
            return result;
        return m_Unsent.empty() ? Write(buffer, count) : Keep(buffer, count);
    }

    LinkCallbackResult OnTxComplete() override
    {
        const std::string unsent = std::move(m_Unsent);
        m_Unsent.clear();
        DisableWriteMode();
        return Write(unsent.data(), static_cast<unsigned int>(unsent.size()));
    }

    LinkCallbackResult OnMessage(CQDTcpServerLinkMessage* message) override
    {
        delete message;
        return LinkCallbackSuccess;
    }

private:
    LinkCallbackResult Write(const char* data, unsigned int size)
    {
        unsigned int written = 0;
        const LinkCallbackResult result = WriteData(data, size, written);
        if (result != LinkCallbackSuccess && result != LinkCallbackWouldBlock)
            return result;
        return written == size ? LinkCallbackSuccess : Keep(data + written, size - written);
    }

    LinkCallbackResult Keep(const char* data, unsigned int size)
    {
        m_Unsent.append(data, size);
        EnableWriteMode();
        return LinkCallbackSuccess;
    }

    std::string m_Unsent;
};

class EchoServer : public CQDTcpServer
{
public:
    using CQDTcpServer::CQDTcpServer;

protected:
    bool CreateSockets() override
    {
        const bool created = CQDTcpServer::CreateSockets();
        for (int i = 0; i < m_SocketCount; ++i)
            SwitchPacingOff(m_Sockets[i]);
        return created;
    }

    CQDTcpServerLink* CreateLink(TcpServerLinkCreateContext& context) override { return new EchoLink(context); }
};

[[noreturn]] inline void RunOurServer(unsigned short port, const std::function<void()>& ready)
{
    COutputLogNull log;
    EchoServer server(&log, "Echo", port, kSocketsPerThread, false);
    Require(server.StartTcpServer(), "our server");
    ready();
    while (true)
        ::pause();
}

// libuv: one loop, writing directly from the read callback and queueing only what did not fit.

inline void OnUvClosed(uv_handle_t* handle)
{
    delete reinterpret_cast<uv_tcp_t*>(handle);
}

struct UvWrite
{
    uv_write_t m_Request;
    std::string m_Data;
};

inline void OnUvWritten(uv_write_t* request, int)
{
    delete static_cast<UvWrite*>(request->data);
}

inline void QueueUvWrite(uv_stream_t* stream, const char* data, std::size_t size)
{
    UvWrite* write = new UvWrite{{}, std::string(data, size)};
    write->m_Request.data = write;
    uv_buf_t buffer = uv_buf_init(write->m_Data.data(), static_cast<unsigned int>(size));
    if (uv_write(&write->m_Request, stream, &buffer, 1, OnUvWritten) != 0)
        delete write;
}

inline void OnUvAllocate(uv_handle_t*, std::size_t, uv_buf_t* buffer)
{
    static char storage[kEchoBufferBytes];
    *buffer = uv_buf_init(storage, sizeof storage);
}

inline void OnUvRead(uv_stream_t* stream, ssize_t count, const uv_buf_t* buffer)
{
    if (count == 0)
        return;
    int written = UV_EOF;
    if (count > 0) {
        uv_buf_t echo = uv_buf_init(buffer->base, static_cast<unsigned int>(count));
        written = uv_try_write(stream, &echo, 1);
        if (written == UV_EAGAIN)
            written = 0;
    }
    if (written < 0)
        uv_close(reinterpret_cast<uv_handle_t*>(stream), OnUvClosed);
    else if (written < count)
        QueueUvWrite(stream, buffer->base + written, static_cast<std::size_t>(count - written));
}

inline void OnUvConnection(uv_stream_t* listener, int status)
{
    if (status != 0)
        return;
    uv_tcp_t* connection = new uv_tcp_t;
    uv_stream_t* stream = reinterpret_cast<uv_stream_t*>(connection);
    uv_tcp_init(listener->loop, connection);
    if (uv_accept(listener, stream) != 0 || uv_read_start(stream, OnUvAllocate, OnUvRead) != 0)
        uv_close(reinterpret_cast<uv_handle_t*>(connection), OnUvClosed);
}

[[noreturn]] inline void RunUvServer(unsigned short port, const std::function<void()>& ready)
{
    uv_loop_t* loop = uv_default_loop();
    uv_tcp_t listener;
    sockaddr_in address;
    Require(uv_tcp_init(loop, &listener) == 0, "libuv: init");
    Require(uv_ip4_addr("0.0.0.0", port, &address) == 0, "libuv: address");
    Require(uv_tcp_bind(&listener, reinterpret_cast<const sockaddr*>(&address), 0) == 0, "libuv: bind");
    Require(uv_listen(reinterpret_cast<uv_stream_t*>(&listener), kEchoBacklog, OnUvConnection) == 0, "libuv: listen");
    uv_os_fd_t listenerSocket = -1;
    Require(uv_fileno(reinterpret_cast<const uv_handle_t*>(&listener), &listenerSocket) == 0, "libuv: fileno");
    SwitchPacingOff(listenerSocket);
    ready();
    uv_run(loop, UV_RUN_DEFAULT);
    std::_Exit(1);
}

// Bare select: what is left when everything but the calls is taken away. One thread accepts and hands each descriptor
// through a pipe to a thread that has room for it.

class SelectWorker
{
public:
    SelectWorker()
    {
        int ends[2];
        Require(::pipe(ends) == 0, "select: pipe");
        m_ReadEnd = ends[0];
        m_WriteEnd = ends[1];
        std::thread([this] { Run(); }).detach(); // both live as long as the process
    }

    bool HasRoom() const { return m_Count.load() < kSocketsPerThread; }

    void Add(int socket)
    {
        m_Count.fetch_add(1);
        Require(::write(m_WriteEnd, &socket, sizeof socket) == sizeof socket, "select: write");
    }

private:
    struct Connection
    {
        int m_Socket;
        std::string m_Unsent;
    };

    [[noreturn]] void Run()
    {
        while (true) {
            fd_set readable;
            fd_set writable;
            FD_ZERO(&readable);
            FD_ZERO(&writable);
            FD_SET(m_ReadEnd, &readable);
            int largest = m_ReadEnd;
            for (const Connection& connection : m_Connections) {
                FD_SET(connection.m_Socket, &readable);
                if (!connection.m_Unsent.empty())
                    FD_SET(connection.m_Socket, &writable);
                largest = std::max(largest, connection.m_Socket);
            }
            if (::select(largest + 1, &readable, &writable, nullptr, nullptr) < 0)
                continue;
            for (std::size_t i = m_Connections.size(); i-- > 0;) {
                if (!Serve(m_Connections[i], readable, writable))
                    Remove(i);
            }
            if (FD_ISSET(m_ReadEnd, &readable))
                TakeOne();
        }
    }

    void TakeOne()
    {
        int socket = -1;
        Require(::read(m_ReadEnd, &socket, sizeof socket) == sizeof socket, "select: read");
        m_Connections.push_back({socket, {}});
    }

    void Remove(std::size_t index)
    {
        ::close(m_Connections[index].m_Socket);
        std::swap(m_Connections[index], m_Connections.back());
        m_Connections.pop_back();
        m_Count.fetch_sub(1);
    }

    static bool Serve(Connection& connection, const fd_set& readable, const fd_set& writable)
    {
        if (FD_ISSET(connection.m_Socket, &writable)) {
            const std::string unsent = std::move(connection.m_Unsent);
            connection.m_Unsent.clear();
            if (!Write(connection, unsent.data(), unsent.size()))
                return false;
        }
        if (!FD_ISSET(connection.m_Socket, &readable))
            return true;
        thread_local char buffer[kEchoBufferBytes];
        const ssize_t count = ::recv(connection.m_Socket, buffer, sizeof buffer, 0);
        if (count <= 0)
            return count < 0 && errno == EAGAIN;
        if (connection.m_Unsent.empty())
            return Write(connection, buffer, static_cast<std::size_t>(count));
        connection.m_Unsent.append(buffer, static_cast<std::size_t>(count));
        return true;
    }

    static bool Write(Connection& connection, const char* data, std::size_t size)
    {
        ssize_t written = ::send(connection.m_Socket, data, size, MSG_NOSIGNAL);
        if (written < 0 && errno != EAGAIN)
            return false;
        written = std::max<ssize_t>(written, 0);
        connection.m_Unsent.assign(data + written, size - static_cast<std::size_t>(written));
        return true;
    }

    int m_ReadEnd;
    int m_WriteEnd;
    std::atomic<unsigned int> m_Count{0};
    std::vector<Connection> m_Connections; // the worker's thread
};

[[noreturn]] inline void RunSelectServer(unsigned short port, const std::function<void()>& ready)
{
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    Require(listener >= 0, "select: socket");
    Require(::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0, "select: SO_REUSEADDR");
    Require(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "select: bind");
    Require(::listen(listener, kEchoBacklog) == 0, "select: listen");
    SwitchPacingOff(listener);
    ready();

    std::vector<std::unique_ptr<SelectWorker>> workers;
    while (true) {
        const int connection = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK);
        if (connection < 0)
            continue; // the caller was gone again
        const auto free = std::find_if(workers.begin(), workers.end(), [](const auto& w) { return w->HasRoom(); });
        if (free != workers.end())
            (*free)->Add(connection);
        else
            workers.emplace_back(std::make_unique<SelectWorker>())->Add(connection);
    }
}
