// The example program that README.md shows.
#include "ChildProcess.h"
#include "LoopbackClient.h"

// The program's classes, for what cannot be brought about from outside.
#define main EchoServerMain
#include <echo_server/main.cpp>
#undef main

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <list>
#include <string>

namespace
{

class EchoServerProgram : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(WaitUntil([this] { return IsPortOpen(m_Port.Get()); })) << m_Program.GetErrors();
    }

    ReservedPort m_Port;
    ChildProcess m_Program{{ECHO_SERVER_PROGRAM, std::to_string(m_Port.Get())}};
};

} // namespace

TEST_F(EchoServerProgram, SendsBackWhatItGets)
{
    LoopbackClient first(m_Port.Get());
    LoopbackClient second(m_Port.Get());

    first.Send("hello");
    second.Send("world");

    EXPECT_EQ(first.Receive(5), "hello");
    EXPECT_EQ(second.Receive(5), "world");
}

TEST_F(EchoServerProgram, EndsWithItsInput)
{
    LoopbackClient client(m_Port.Get());
    client.Send("x");
    ASSERT_EQ(client.Receive(1), "x");

    m_Program.CloseInput();

    EXPECT_EQ(m_Program.WaitForExit(), 0);
    EXPECT_EQ(m_Program.GetOutput(), "Echoing on port " + std::to_string(m_Port.Get()) + " until Enter is pressed\n");
    EXPECT_TRUE(client.SawReset());
}

TEST_F(EchoServerProgram, PortInUseEndsWithStatus1)
{
    const std::string port = std::to_string(m_Port.Get());

    ChildProcess second({ECHO_SERVER_PROGRAM, port});

    EXPECT_EQ(second.WaitForExit(), 1);
    EXPECT_EQ(second.GetErrors(), "Cannot listen on port " + port + "\n");
}

namespace
{

class EchoServerInProcess : public testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_Server.StartTcpServer()); }

    void TearDown() override { m_Server.StopTcpServer(); }

    template<class Function>
    void ForEachLink(Function function)
    {
        std::list<CQDTcpServerLink*> links;
        m_Server.GetAllLinks(links);
        for (CQDTcpServerLink* link : links) {
            function(*link);
            link->Release();
        }
    }

    bool IsAnyLinkInWriteMode()
    {
        bool found = false;
        ForEachLink([&](const CQDTcpServerLink& link) { found = found || link.IsWriteModeEnabled(); });
        return found;
    }

    ReservedPort m_Port;
    COutputLogNull m_Log;
    EchoServer m_Server{&m_Log, "Echo", m_Port.Get(), 64, true};
};

} // namespace

TEST_F(EchoServerInProcess, FinishesShortWritesForAClientThatReadsLate)
{
    LoopbackClient client(m_Port.Get());
    client.Send("first");
    ASSERT_EQ(client.Receive(5), "first");
    const int smallest = 1;
    ForEachLink([&](const CQDTcpServerLink& link) {
        ASSERT_EQ(::setsockopt(link.GetSocket(), SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest), 0);
    });
    std::string sent;
    for (int i = 0; sent.size() < 500000; ++i)
        sent += std::to_string(i) + ' ';

    client.Send(sent);
    ASSERT_TRUE(WaitUntil([&] { return IsAnyLinkInWriteMode(); }));

    EXPECT_TRUE(client.Receive(sent.size()) == sent);
    EXPECT_TRUE(WaitUntil([&] { return !IsAnyLinkInWriteMode(); }));
}

TEST_F(EchoServerInProcess, ClosesAClientThatNeverReads)
{
    LoopbackClient client(m_Port.Get());
    const std::string data(65536, 'x');

    ssize_t sent = 0;
    for (int i = 0; i < 1000 && sent >= 0; ++i)
        sent = ::send(client.GetSocket(), data.data(), data.size(), MSG_NOSIGNAL);

    EXPECT_LT(sent, 0);
    EXPECT_TRUE(WaitUntil([&] { return m_Server.GetLinkCount() == 0u; }));
}
