#pragma once

#include "FixedHostFigures.h"
#include "RecordingLog.h"

#include <ProcessImage.h>

#include <QDPlatform/QDTcpServerLink.h>
#include <QDPlatform/QDTimeInterval.h>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <string>

// A link of the station without a worker, at one end of a pair of sockets: the test calls what the worker would call.
// Its log says "Link 1".
template<class Link, class Server>
struct LinkOnItsOwn
{
    LinkOnItsOwn()
    {
        int sockets[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, sockets) != 0)
            std::abort();
        m_Client = sockets[0];
        TcpServerLinkCreateContext context;
        context.m_pOutputLog = &m_Log;
        context.m_pServer = &m_Server;
        context.m_pServerName = "Link";
        context.m_LinkId = 1;
        context.m_Socket = sockets[1];
        m_pLink = new Link(context, m_Image, kIdleTimeout);
        m_pLink->AddRef();
    }

    LinkOnItsOwn(const LinkOnItsOwn&) = delete;
    LinkOnItsOwn& operator=(const LinkOnItsOwn&) = delete;

    ~LinkOnItsOwn()
    {
        m_pLink->CloseSocket(false);
        m_pLink->Release();
        ::close(m_Client);
    }

    void Send(const std::string& data) const
    {
        EXPECT_EQ(::send(m_Client, data.data(), data.size(), 0), static_cast<ssize_t>(data.size()));
    }

    // What has arrived.
    std::string Receive() const
    {
        char data[4096];
        const ssize_t count = ::recv(m_Client, data, sizeof data, 0);
        return count < 0 ? "" : std::string(data, static_cast<std::size_t>(count));
    }

    // There is nothing more to receive, now and ever.
    bool HasEnded() const
    {
        char byte = 0;
        return ::recv(m_Client, &byte, 1, 0) == 0;
    }

    static constexpr CQDTimeInterval kIdleTimeout{CQDTimeInterval::TicksPerHour};

    RecordingLog m_Log;
    ProcessImage m_Image{&FixedHostFigures};
    Server m_Server{&m_Log, m_Image, 1502, 64, kIdleTimeout}; // never started
    Link* m_pLink;
    int m_Client;
};
