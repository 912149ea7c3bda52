// A complete server: what a client sends comes back. Try it with: nc localhost 7007
#include <QDPlatform/QDPlatform.h>

#include <cstdio>
#include <cstdlib>
#include <string>

struct EchoLink : CQDTcpServerLink
{
    using CQDTcpServerLink::CQDTcpServerLink;

    LinkCallbackResult OnRxData() override
    {
        char data[4096];
        unsigned int count = 0;
        const LinkCallbackResult result = ReadData(data, sizeof data, count);
        if (result != LinkCallbackSuccess)
            return result; // nothing to read, or the connection has ended
        m_Unsent.append(data, count);
        EnableWriteMode();
        return m_Unsent.size() < 1000000 ? LinkCallbackSuccess : LinkCallbackCloseSocket; // the client does not read
    }

    // In write mode the worker calls this whenever the socket takes data: a short write goes on here.
    LinkCallbackResult OnTxComplete() override
    {
        unsigned int count = 0;
        const LinkCallbackResult result = WriteData(m_Unsent.data(), static_cast<unsigned int>(m_Unsent.size()), count);
        m_Unsent.erase(0, count);
        if (m_Unsent.empty())
            DisableWriteMode();
        return result;
    }

    LinkCallbackResult OnMessage(CQDTcpServerLinkMessage* message) override
    {
        delete message; // other threads could post some; here nobody does
        return LinkCallbackSuccess;
    }

    std::string m_Unsent;
};

struct EchoServer : CQDTcpServer
{
    using CQDTcpServer::CQDTcpServer;

    CQDTcpServerLink* CreateLink(TcpServerLinkCreateContext& context) override { return new EchoLink(context); }
};

int main(int argumentCount, char** arguments)
{
    const int port = argumentCount > 1 ? std::atoi(arguments[1]) : 7007;
    COutputLogNull log;
    EchoServer server(&log, "Echo", static_cast<unsigned short>(port), 64, true);
    if (!server.StartTcpServer()) {
        std::fprintf(stderr, "Cannot listen on port %d\n", port);
        return 1;
    }
    std::printf("Echoing on port %d until Enter is pressed\n", port);
    std::getchar();
    server.StopTcpServer();
    return 0;
}
