// A user's program: a thread that counts commands, and a server with one client, against the installed library. Every
// failure is printed; the exit status is 0 when there was none.
#include <QDPlatform/QDPlatform.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace
{

int failures = 0;

void Check(bool holds, const char* what)
{
    if (!holds) {
        std::fprintf(stderr, "consumer: not so: %s\n", what);
        ++failures;
    }
}

// Adds up the commands that it is sent, and logs each from its own thread.
struct AddingThread : CQDThread
{
    void OnThreadEvent(unsigned int event) override
    {
        m_Sum += event;
        m_pOutputLog->Print("Event %u", event);
    }

    unsigned int m_Sum{0};
};

void CheckThread()
{
    COutputLogToString log;
    AddingThread thread;
    Check(thread.StartThread(&log), "the thread starts");
    thread.DoThreadEvent(7);
    thread.DoThreadEvent(200);
    thread.StopThreadAndWait();
    Check(thread.m_Sum == 207, "the thread got both commands");
    Check(log.GetText() == "Event 7\nEvent 200\n", "the log has both messages");
}

struct EchoLink : CQDTcpServerLink
{
    using CQDTcpServerLink::CQDTcpServerLink;

    LinkCallbackResult OnRxData() override
    {
        char data[64];
        unsigned int count = 0;
        const LinkCallbackResult result = ReadData(data, sizeof data, count);
        return result == LinkCallbackSuccess ? WriteData(data, count, count) : result;
    }

    LinkCallbackResult OnTxComplete() override { return LinkCallbackSuccess; }

    LinkCallbackResult OnMessage(CQDTcpServerLinkMessage* message) override
    {
        delete message;
        return LinkCallbackSuccess;
    }
};

struct EchoServer : CQDTcpServer
{
    using CQDTcpServer::CQDTcpServer;

    CQDTcpServerLink* CreateLink(TcpServerLinkCreateContext& context) override { return new EchoLink(context); }
};

// Sends a text to the server on `port`. Returns what came back.
std::string Echo(unsigned short port, const char* text)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    QDSocket client;
    Check(client.CreateSocket(AF_INET, SOCK_STREAM, 0) && client.SetRecvTimeout(10000), "a socket is made");
    Check(client.ConnectSocket(reinterpret_cast<sockaddr*>(&address), sizeof address), "the client connects");
    const unsigned int length = static_cast<unsigned int>(std::strlen(text));
    Check(client.SendData(text, length) == static_cast<int>(length), "the client sends");
    std::string received;
    while (received.size() < length) {
        char data[64];
        const int count = client.RecvData(data, sizeof data);
        if (count <= 0)
            break;
        received.append(data, static_cast<std::size_t>(count));
    }
    return received;
}

void CheckServer()
{
    COutputLogNull log;
    for (unsigned short port = 24100; port < 24200; ++port) {
        EchoServer server(&log, "Consumer", port, 64, false);
        if (!server.StartTcpServer())
            continue; // somebody else's port
        Check(Echo(port, "installed") == "installed", "what the client sent comes back");
        server.StopTcpServer();
        Check(server.GetLinkCount() == 0, "no link is left");
        return;
    }
    Check(false, "one of a hundred ports is free");
}

} // namespace

int main()
{
    CheckThread();
    CheckServer();
    return failures == 0 ? 0 : 1;
}
