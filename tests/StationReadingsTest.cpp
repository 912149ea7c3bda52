// The readings that a station gives to others: their text, and the HTTP server that hands it out.
#include "FaultPlan.h"
#include "FixedHostFigures.h"
#include "LinkOnItsOwn.h"
#include "LoopbackClient.h"
#include "RecordingLog.h"
#include "WaitUntil.h"

#include <HttpRequest.h>
#include <ProcessImage.h>
#include <ReadingsLink.h>
#include <ReadingsServer.h>
#include <ReadingsText.h>

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <list>
#include <string>
#include <vector>

namespace
{

constexpr CQDTimeInterval kLong(CQDTimeInterval::TicksPerHour);

// The readings with the fixed figures.
const std::string kFixedReadings = "station-readings 1\n"
                                   "0 1\n1 9029\n2 25\n3 150\n4 65535\n5 16\n6 43981\n"
                                   "7 2024\n8 2\n9 29\n10 23\n11 59\n12 58\n13 987\n";

const std::string kGet = "GET /readings HTTP/1.1\r\nHost: station\r\n\r\n";

const std::string kHeaderOfReadings = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 103\r\n\r\n";

const std::string kReadingsAnswer = kHeaderOfReadings + kFixedReadings;

// A request of `size` bytes.
std::string RequestOfSize(std::size_t size)
{
    const std::string front = "GET /readings HTTP/1.1\r\nHost: h\r\nX: ";
    const std::string end = "\r\n\r\n";
    return front + std::string(size - front.size() - end.size(), 'x') + end;
}

// A started server of the fixed figures, with a port of its own.
struct RunningServer
{
    explicit RunningServer(CQDTimeInterval idleTimeout = kLong,
                           TcpServerLinkLogging level = TcpServerLinkLoggingDefault) :
        m_Server(&m_Log, m_Image, m_Port.Get(), 64, idleTimeout)
    {
        m_Server.SetLinkLogging(level);
        EXPECT_TRUE(m_Server.StartTcpServer());
    }

    ~RunningServer() { m_Server.StopTcpServer(); }

    LoopbackClient Connect() const { return LoopbackClient(m_Port.Get()); }

    // Both ends of the connection, which is the only one, soon have no room for more answers.
    void ShrinkBuffers(const LoopbackClient& client)
    {
        const int smallest = 1;
        EXPECT_EQ(::setsockopt(client.GetSocket(), SOL_SOCKET, SO_RCVBUF, &smallest, sizeof smallest), 0);
        std::list<CQDTcpServerLink*> links;
        m_Server.GetAllLinks(links);
        for (CQDTcpServerLink* link : links) {
            EXPECT_EQ(::setsockopt(link->GetSocket(), SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest), 0);
            link->Release();
        }
    }

    ReservedPort m_Port;
    RecordingLog m_Log;
    ProcessImage m_Image{&FixedHostFigures};
    ReadingsServer m_Server;
};

// Sends `request`; returns as many bytes of the answer as `expected` has.
std::string Ask(LoopbackClient& client, const std::string& request, const std::string& expected)
{
    client.Send(request);
    return client.Receive(expected.size());
}

// The answer with status 400, which closes the connection.
std::string BadRequestAnswer(const std::string& reason)
{
    return "HTTP/1.1 400 Bad Request\r\nContent-Type: text/plain\r\nContent-Length: " +
           std::to_string(reason.size() + 1) + "\r\nConnection: close\r\n\r\n" + reason + "\n";
}

} // namespace

TEST(ReadingsText, FormatNamesItselfAndListsEveryRegister)
{
    EXPECT_EQ(FormatReadings(HostRegistersOf(FixedHostFigures())), kFixedReadings);
}

TEST(ReadingsText, WhatWasFormattedIsParsed)
{
    HostRegisters registers{};

    ASSERT_TRUE(ParseReadings(kFixedReadings, registers));

    EXPECT_EQ(registers, (HostRegisters{1, 9029, 25, 150, 65535, 16, 43981, 2024, 2, 29, 23, 59, 58, 987}));
}

TEST(ReadingsText, EveryOtherTextIsRefusedAndChangesNothing)
{
    // Puts `with` in the place of `what`, which is there.
    const auto change = [](std::string_view what, std::string_view with) {
        std::string text = kFixedReadings;
        return text.replace(text.find(what), what.size(), with);
    };

    const struct
    {
        const char* m_Name;
        std::string m_Text;
    } cases[] = {
        {"empty", ""},
        {"first line only", "station-readings 1\n"},
        {"another version", change("readings 1", "readings 2")},
        {"version 10", change("readings 1\n", "readings 10\n")},
        {"another name", change("station-", "Station-")},
        {"blank in front", ' ' + kFixedReadings},
        {"CRLF", change("1 9029\n", "1 9029\r\n")},
        {"a register too few", kFixedReadings.substr(0, kFixedReadings.size() - 7)},
        {"no last line end", kFixedReadings.substr(0, kFixedReadings.size() - 1)},
        {"a register too many", kFixedReadings + "14 0\n"},
        {"line end behind", kFixedReadings + "\n"},
        {"NUL behind", kFixedReadings + std::string(1, '\0')},
        {"wrong order", change("0 1\n1 9029\n", "1 9029\n0 1\n")},
        {"value of 65536", change("65535", "65536")},
        {"value beyond every number", change("65535", "99999999999999999999")},
        {"negative value", change("9029", "-1")},
        {"value with a sign", change("9029", "+1")},
        {"leading zero", change("9029", "09029")},
        {"two zeros", change("0 1\n", "0 00\n")},
        {"two blanks", change("1 9029", "1  9029")},
        {"blank behind", change("9029\n", "9029 \n")},
        {"no value", change("9029", "")},
        {"hex", change("9029", "0x1")},
        {"fraction", change("9029", "9029.5")},
    };

    for (const auto& test : cases) {
        SCOPED_TRACE(test.m_Name);
        HostRegisters registers{};
        registers.fill(7);
        HostRegisters untouched{};
        untouched.fill(7);
        EXPECT_FALSE(ParseReadings(test.m_Text, registers));
        EXPECT_EQ(registers, untouched);
    }
}

TEST(ReadingsText, EveryFrontPartIsRefused)
{
    for (std::size_t size = 0; size < kFixedReadings.size(); ++size) {
        HostRegisters registers{};
        EXPECT_FALSE(ParseReadings(std::string_view(kFixedReadings).substr(0, size), registers)) << size;
    }
}

TEST(HttpRequest, RequestIsCutIntoItsParts)
{
    const std::string received = kGet + "GET /next";
    HttpRequest request;
    std::string reason;

    ASSERT_EQ(FindHttpRequest(received, request, reason), HttpRequestState::Complete);

    EXPECT_EQ(request.m_Method, "GET");
    EXPECT_EQ(request.m_Target, "/readings");
    EXPECT_TRUE(request.m_KeepsConnection);
    EXPECT_EQ(request.m_Size, 41u);
}

TEST(HttpRequest, EveryFrontPartIsIncomplete)
{
    for (std::size_t size = 0; size < kGet.size(); ++size) {
        HttpRequest request;
        std::string reason;
        EXPECT_EQ(FindHttpRequest(std::string_view(kGet).substr(0, size), request, reason),
                  HttpRequestState::Incomplete)
            << size;
    }
}

TEST(HttpRequest, VersionAndConnectionDecideWhetherTheConnectionStays)
{
    const struct
    {
        const char* m_Request;
        bool m_Keeps;
    } cases[] = {
        {"GET / HTTP/1.1\r\nHost: h\r\n\r\n", true},
        {"GET / HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n", false},
        {"GET / HTTP/1.1\r\nHost: h\r\nCONNECTION:CLOSE\r\n\r\n", false},
        {"GET / HTTP/1.1\r\nHost: h\r\nConnection: TE , close \r\n\r\n", false},
        {"GET / HTTP/1.1\r\nHost: h\r\nConnection: keep-alive\r\n\r\n", true},
        {"GET / HTTP/1.1\r\nHost: h\r\nConnection: closed\r\n\r\n", true},
        {"GET / HTTP/1.1\r\nHost: h\r\nConnection: close\r\nConnection: keep-alive\r\n\r\n", false},
        {"GET / HTTP/1.1\r\nHost:\r\nContent-Length: 0\r\nX-Close: close\r\n\r\n", true},
        {"GET / HTTP/1.0\r\n\r\n", false},
        {"GET / HTTP/1.0\r\nConnection: keep-alive\r\n\r\n", false},
    };

    for (const auto& test : cases) {
        SCOPED_TRACE(test.m_Request);
        HttpRequest request;
        std::string reason;
        ASSERT_EQ(FindHttpRequest(test.m_Request, request, reason), HttpRequestState::Complete) << reason;
        EXPECT_EQ(request.m_KeepsConnection, test.m_Keeps);
    }
}

TEST(HttpRequest, WhatCannotBeAnsweredIsUntrusted)
{
    const struct
    {
        std::string m_Request;
        const char* m_Reason;
    } cases[] = {
        {"\r\n\r\n", "the request line is wrong"},
        {"GET\r\n\r\n", "the request line is wrong"},
        {"GET \r\n\r\n", "the request line is wrong"},
        {" GET / HTTP/1.1\r\n\r\n", "the request line is wrong"},
        {"GET  / HTTP/1.1\r\n\r\n", "the request line is wrong"},
        {"G(T / HTTP/1.1\r\n\r\n", "the request line is wrong"},
        {"GET /\t HTTP/1.1\r\n\r\n", "the request line is wrong"},
        {"GET /\xC3\xA4 HTTP/1.1\r\n\r\n", "the request line is wrong"},
        {"\x16\x03\x01 / HTTP/1.1\r\n\r\n", "the request line is wrong"},
        {"GET /\r\n\r\n", "the version is neither HTTP/1.1 nor HTTP/1.0"},
        {"GET / HTTP/2.0\r\n\r\n", "the version is neither HTTP/1.1 nor HTTP/1.0"},
        {"GET / http/1.1\r\n\r\n", "the version is neither HTTP/1.1 nor HTTP/1.0"},
        {"GET / HTTP/1.1 \r\n\r\n", "the version is neither HTTP/1.1 nor HTTP/1.0"},
        {"GET / HTTP/1.1\nHost: h\r\n\r\n", "the version is neither HTTP/1.1 nor HTTP/1.0"},
        {"GET / HTTP/1.1\r\nHost\r\n\r\n", "a header field is wrong"},
        {"GET / HTTP/1.1\r\nHost : h\r\n\r\n", "a header field is wrong"},
        {"GET / HTTP/1.1\r\n: h\r\n\r\n", "a header field is wrong"},
        {"GET / HTTP/1.1\r\nHost: h\r\n folded: x\r\n\r\n", "a header field is wrong"},
        {"GET / HTTP/1.1\r\nHost: h\nX: y\r\n\r\n", "a header field is wrong"},
        {"GET / HTTP/1.1\r\nHost: \x7F\r\n\r\n", "a header field is wrong"},
        {"GET / HTTP/1.1\r\nHost: h\r\nX: a" + std::string(1, '\0') + "b\r\n\r\n", "a header field is wrong"},
        {"GET / HTTP/1.1\r\n\r\n", "there must be one Host"},
        {"GET / HTTP/1.1\r\nHost: h\r\nhost: h\r\n\r\n", "there must be one Host"},
        {"GET / HTTP/1.0\r\nHost: h\r\nhost: h\r\n\r\n", "there must be one Host"},
        {"POST / HTTP/1.1\r\nHost: h\r\nContent-Length: 1\r\n\r\nx", "a request with a body is not taken"},
        {"GET / HTTP/1.1\r\nHost: h\r\nContent-Length: 00\r\n\r\n", "a request with a body is not taken"},
        {"GET / HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n", "a request with a body is not taken"},
        {"GET / HTTP/1.1\r\nHost: h\r\nContent-Length: 1\r\nContent-Length: 0\r\n\r\n",
         "a request with a body is not taken"},
        {std::string(8192, 'x'), "the head is longer than 8192 bytes"},
        {RequestOfSize(8193), "the head is longer than 8192 bytes"},
    };

    for (const auto& test : cases) {
        SCOPED_TRACE(test.m_Request.substr(0, 100));
        HttpRequest request;
        std::string reason;
        EXPECT_EQ(FindHttpRequest(test.m_Request, request, reason), HttpRequestState::Untrusted);
        EXPECT_EQ(reason, test.m_Reason);
    }
}

TEST(HttpRequest, LongestHeadIsTaken)
{
    HttpRequest request;
    std::string reason;

    EXPECT_EQ(FindHttpRequest(std::string(8191, 'x'), request, reason), HttpRequestState::Incomplete);
    ASSERT_EQ(FindHttpRequest(RequestOfSize(8192) + "more", request, reason), HttpRequestState::Complete) << reason;

    EXPECT_EQ(request.m_Size, 8192u);
}

TEST(ReadingsLink, GetAnswersWithTheReadings)
{
    const RunningServer server;
    LoopbackClient client = server.Connect();

    EXPECT_EQ(Ask(client, kGet, kReadingsAnswer), kReadingsAnswer);
}

TEST(ReadingsLink, EveryRequestThatCanBeAnsweredKeepsTheLink)
{
    const std::string notFound = "HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\nContent-Length: 25\r\n\r\n";
    const std::string notAllowed =
        "HTTP/1.1 405 Method Not Allowed\r\nContent-Type: text/plain\r\nContent-Length: 31\r\n"
        "Allow: GET, HEAD\r\n\r\nThe readings can only be read.\n";

    const struct
    {
        const char* m_RequestLine;
        std::string m_Answer;
    } cases[] = {
        {"GET /readings HTTP/1.1", kReadingsAnswer},
        {"HEAD /readings HTTP/1.1", kHeaderOfReadings},
        {"GET / HTTP/1.1", notFound + "There is only /readings.\n"},
        {"GET /readings/ HTTP/1.1", notFound + "There is only /readings.\n"},
        {"GET /readings?x HTTP/1.1", notFound + "There is only /readings.\n"},
        {"GET /Readings HTTP/1.1", notFound + "There is only /readings.\n"},
        {"POST /other HTTP/1.1", notFound + "There is only /readings.\n"},
        {"HEAD /other HTTP/1.1", notFound},
        {"POST /readings HTTP/1.1", notAllowed},
        {"DELETE /readings HTTP/1.1", notAllowed},
        {"get /readings HTTP/1.1", notAllowed},
        {"GET /readings HTTP/1.1", kReadingsAnswer},
    };

    RunningServer server;
    LoopbackClient client = server.Connect(); // one for all

    for (const auto& test : cases) {
        SCOPED_TRACE(test.m_RequestLine);
        EXPECT_EQ(Ask(client, test.m_RequestLine + std::string("\r\nHost: h\r\n\r\n"), test.m_Answer), test.m_Answer);
    }

    EXPECT_EQ(server.m_Server.GetLinkCount(), 1u);
    EXPECT_EQ(server.m_Server.GetProtocolErrorCount(), 0u);
}

TEST(ReadingsLink, HeadThatArrivesByteByByteIsAnsweredOnce)
{
    const RunningServer server(kLong, TcpServerLinkLoggingData);
    LoopbackClient client = server.Connect();
    const int on = 1;
    ASSERT_EQ(::setsockopt(client.GetSocket(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on), 0);

    for (std::size_t i = 0; i < kGet.size(); ++i) {
        client.Send(kGet.substr(i, 1));
        // Printed once the byte has been read, so that the next one cannot come along with it.
        ASSERT_TRUE(WaitUntil([&] { return server.m_Log.CountContaining("Reader 1 Rx") == i + 1; }));
    }

    EXPECT_EQ(client.Receive(kReadingsAnswer.size()), kReadingsAnswer);
    EXPECT_EQ(Ask(client, kGet, kReadingsAnswer), kReadingsAnswer);
}

TEST(ReadingsLink, PipelinedRequestsAreAnsweredInOrder)
{
    const RunningServer server;
    LoopbackClient client = server.Connect();
    const std::string head = "HEAD /readings HTTP/1.1\r\nHost: h\r\n\r\n";
    std::string requests;
    std::string answers;
    for (int i = 0; i < 200; ++i) { // more than the link reads at a time
        requests += kGet + head;
        answers += kReadingsAnswer + kHeaderOfReadings;
    }

    EXPECT_EQ(Ask(client, requests, answers), answers);
}

TEST(ReadingsLink, ConnectionIsClosedInOrderBehindTheLastAnswer)
{
    const std::string closing = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 103\r\n"
                                "Connection: close\r\n\r\n" +
                                kFixedReadings;

    const struct
    {
        const char* m_Name;
        std::string m_Requests;
        std::string m_Answers;
    } cases[] = {
        {"HTTP/1.0", "GET /readings HTTP/1.0\r\n\r\n", closing},
        {"asked to close", "GET /readings HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n", closing},
        {"another one behind", kGet + "GET /readings HTTP/1.0\r\n\r\n" + kGet, kReadingsAnswer + closing},
        {"bad", "NONSENSE\r\n\r\n", BadRequestAnswer("the request line is wrong")},
        {"bad behind a good one", kGet + "GET / HTTP/3\r\n\r\n" + kGet,
         kReadingsAnswer + BadRequestAnswer("the version is neither HTTP/1.1 nor HTTP/1.0")},
        {"too long", std::string(8192, 'x'), BadRequestAnswer("the head is longer than 8192 bytes")},
    };

    for (const auto& test : cases) {
        SCOPED_TRACE(test.m_Name);
        RunningServer server;
        LoopbackClient client = server.Connect();
        EXPECT_EQ(Ask(client, test.m_Requests, test.m_Answers), test.m_Answers);
        EXPECT_TRUE(client.SawOrderlyClose());
        client.Close();
        EXPECT_TRUE(WaitUntil([&] { return server.m_Server.GetLinkCount() == 0u; }));
    }
}

// With bytes left unread a close would be a reset, and cost the client its answer.
TEST(ReadingsLink, ClientThatSentMoreThanIsReadStillGetsItsAnswer)
{
    const struct
    {
        const char* m_Name;
        std::string m_Request;
        const char* m_Reason;
    } cases[] = {
        {"long head", RequestOfSize(20000), "the head is longer than 8192 bytes"},
        {"body", "POST /readings HTTP/1.1\r\nHost: h\r\nContent-Length: 1000000\r\n\r\n" + std::string(1000000, 'x'),
         "a request with a body is not taken"},
    };

    for (const auto& test : cases) {
        SCOPED_TRACE(test.m_Name);
        const RunningServer server;
        LoopbackClient client = server.Connect();
        const std::string answer = BadRequestAnswer(test.m_Reason);
        EXPECT_EQ(Ask(client, test.m_Request, answer), answer);
        EXPECT_TRUE(client.SawOrderlyClose());
    }
}

TEST(ReadingsLink, ClientThatDoesNotCloseIsClosedWhenIdle)
{
    RunningServer server(CQDTimeInterval(50 * CQDTimeInterval::TicksPerMillisecond));
    LoopbackClient client = server.Connect();
    client.Send("NONSENSE\r\n\r\n");

    EXPECT_TRUE(client.SawOrderlyClose());
    EXPECT_TRUE(WaitUntil([&] { return server.m_Server.GetLinkCount() == 0u; }));
}

TEST(ReadingsLink, BadRequestIsLogged)
{
    const RunningServer server(kLong, TcpServerLinkLoggingOff);
    LoopbackClient client = server.Connect();

    client.Send("GET / HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(client.SawOrderlyClose());

    EXPECT_TRUE(server.m_Log.Has("Reader 1: Bad request, closing the link: there must be one Host"));
}

TEST(ReadingsLink, LongestHeadIsAnswered)
{
    const RunningServer server;
    LoopbackClient client = server.Connect();

    EXPECT_EQ(Ask(client, RequestOfSize(8192) + kGet, kReadingsAnswer + kReadingsAnswer),
              kReadingsAnswer + kReadingsAnswer);
}

TEST(ReadingsLink, ClientThatSendsNoMoreStillGetsItsAnswer)
{
    const RunningServer server;
    LoopbackClient client = server.Connect();
    const std::string request = "GET /other HTTP/1.0\r\n\r\n";

    client.Send(request);
    client.ShutdownSend();

    EXPECT_EQ(client.Receive(12), "HTTP/1.1 404");
    EXPECT_TRUE(client.SawOrderlyClose());
}

TEST(ReadingsLink, EndInTheMiddleOfAHeadIsLogged)
{
    const RunningServer server;
    LoopbackClient client = server.Connect();

    client.Send(kGet.substr(0, 40));
    client.ShutdownSend();

    EXPECT_TRUE(WaitUntil([&] { return server.m_Log.Has("Reader 1: The client closed after 40 bytes of a request"); }));
}

TEST(ReadingsLink, IdleLinkIsClosed)
{
    const RunningServer server(CQDTimeInterval(50 * CQDTimeInterval::TicksPerMillisecond));
    LoopbackClient client = server.Connect();

    EXPECT_TRUE(client.SawReset());
    EXPECT_TRUE(WaitUntil([&] { return server.m_Log.Has("Reader 1: No request for 00:00.050, closing the link"); }));
}

TEST(ReadingsLink, ClientThatNeverReadsIsClosed)
{
    RunningServer server;
    LoopbackClient client = server.Connect();
    EXPECT_EQ(Ask(client, kGet, kReadingsAnswer), kReadingsAnswer);
    server.ShrinkBuffers(client);
    LoopbackClient other = server.Connect();
    std::string requests;
    for (int i = 0; i < 100; ++i)
        requests += kGet;

    ssize_t sent = 0;
    for (int i = 0; i < 20000 && sent >= 0; ++i)
        sent = ::send(client.GetSocket(), requests.data(), requests.size(), MSG_NOSIGNAL);

    EXPECT_LT(sent, 0);
    EXPECT_TRUE(WaitUntil([&] {
        return server.m_Log.CountContaining("bytes of answers wait for a client that does not read, closing") == 1;
    }));
    EXPECT_EQ(Ask(other, kGet, kReadingsAnswer), kReadingsAnswer);
}

namespace
{

using ReadingsLinkOnItsOwn = LinkOnItsOwn<ReadingsLink, ReadingsServer>;

} // namespace

TEST(ReadingsLink, LastAnswerThatFindsNoRoomIsSentBeforeTheEnd)
{
    const ReadingsLinkOnItsOwn link;
    link.Send("GET / HTTP/1.0\r\n\r\n");
    {
        const FaultPlan noRoom("send", 1, EAGAIN);
        EXPECT_FALSE(link.m_pLink->CallOnRxData());
        ASSERT_TRUE(noRoom.HasFailed());
    }
    EXPECT_EQ(link.Receive().size(), 0u);

    EXPECT_EQ(link.m_pLink->CallOnTxComplete(), LinkCallbackSuccess);

    EXPECT_EQ(link.Receive().size(), 116u);
    EXPECT_TRUE(link.HasEnded());
    EXPECT_FALSE(link.m_pLink->IsWriteModeEnabled());
}

TEST(ReadingsLink, BadRequestWhoseAnswerFindsNoRoomLeavesRoomForWhatFollows)
{
    const ReadingsLinkOnItsOwn link;
    link.Send(std::string(8192, 'x'));
    {
        const FaultPlan noRoom("send", 1, EAGAIN);
        EXPECT_FALSE(link.m_pLink->CallOnRxData());
        ASSERT_TRUE(noRoom.HasFailed());
    }

    link.Send("more");
    EXPECT_FALSE(link.m_pLink->CallOnRxData());
    EXPECT_EQ(link.m_pLink->CallOnTxComplete(), LinkCallbackSuccess);

    EXPECT_EQ(link.Receive().size(), BadRequestAnswer("the head is longer than 8192 bytes").size());
    EXPECT_EQ(link.m_Log.CountContaining("The client closed"), 0u);
}

TEST(ReadingsLink, WhatComesBehindTheLastRequestIsDropped)
{
    const ReadingsLinkOnItsOwn link;
    link.Send("GET / HTTP/1.0\r\n\r\n");
    EXPECT_FALSE(link.m_pLink->CallOnRxData());
    EXPECT_EQ(link.Receive().size(), 116u);
    link.Send(kGet);

    EXPECT_FALSE(link.m_pLink->CallOnRxData());

    EXPECT_EQ(link.m_pLink->CallOnTxComplete(), LinkCallbackSuccess);
    EXPECT_TRUE(link.HasEnded());
}

TEST(ReadingsLink, ClosesInOrderWhenTheClientHasClosedToo)
{
    const ReadingsLinkOnItsOwn link;
    link.Send("GET / HTTP/1.0\r\n\r\n");
    EXPECT_FALSE(link.m_pLink->CallOnRxData());
    EXPECT_EQ(link.m_pLink->CallOnTxComplete(), LinkCallbackSuccess);
    ::shutdown(link.m_Client, SHUT_WR);

    EXPECT_FALSE(link.m_pLink->CallOnRxData());

    EXPECT_TRUE(link.m_pLink->IsWriteModeEnabled());
    EXPECT_EQ(link.m_pLink->CallOnTxComplete(), LinkCallbackCloseSocket);
}

TEST(ReadingsServer, AnswersOverIPv6)
{
    const RunningServer server;
    LoopbackClient client(server.m_Port.Get(), AF_INET6);

    EXPECT_EQ(Ask(client, kGet, kReadingsAnswer), kReadingsAnswer);
}
