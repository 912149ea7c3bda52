#include <QDPlatform/QDAsyncUrlRequest.h>

#include "AllocationCounter.h"
#include "CurlOptionRecorder.h"
#include "LoopbackClient.h"
#include "ScopedVariable.h"
#include "ScriptedServer.h"
#include "VirtualSlot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

static_assert(std::has_virtual_destructor_v<QDAsyncUrlRequest>);
static_assert(!std::is_copy_constructible_v<QDAsyncUrlRequest>);
static_assert(!std::is_copy_assignable_v<QDAsyncUrlRequest>);
static_assert(QDAsyncUrlRequest::TransferQueued == 0);
static_assert(QDAsyncUrlRequest::TransferRunning == 1);
static_assert(QDAsyncUrlRequest::TransferComplete == 2);
static_assert(sizeof(QDAsyncUrlRequest::TransferState) == sizeof(int));
static_assert(std::is_convertible_v<decltype(&QDAsyncUrlRequest::WriteFileChunk), curl_write_callback>);
static_assert(std::is_convertible_v<decltype(&QDAsyncUrlRequest::ReadFileChunk), curl_read_callback>);

namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const std::string kOk = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello";

const unsigned char* Bytes(const char* text)
{
    return reinterpret_cast<const unsigned char*>(text);
}

// A copy for SetUploadContent() to own.
unsigned char* NewBytes(const std::string& text)
{
    auto* bytes = new unsigned char[text.size()];
    std::memcpy(bytes, text.data(), text.size());
    return bytes;
}

// What a server was sent, request by request. The handler threads write, the test reads when all is done.
class Journal
{
public:
    void Add(std::string entry)
    {
        const std::lock_guard<std::mutex> lock(m_Lock);
        m_Entries.push_back(std::move(entry));
    }

    std::vector<std::string> Get() const
    {
        const std::lock_guard<std::mutex> lock(m_Lock);
        return m_Entries;
    }

private:
    mutable std::mutex m_Lock;
    std::vector<std::string> m_Entries;
};

// The number behind "Content-Length: " in a request's head; 0 without one.
std::size_t GetContentLength(const std::string& head)
{
    constexpr char kName[] = "\r\nContent-Length: ";
    const std::size_t pos = head.find(kName);
    return pos == std::string::npos ? 0 : std::stoul(head.substr(pos + std::strlen(kName)));
}

// The lines of a request's head that start with `name`.
std::vector<std::string> GetHeaders(const std::string& head, const std::string& name)
{
    std::vector<std::string> lines;
    std::size_t pos = 0;
    for (std::size_t end; (end = head.find("\r\n", pos)) != std::string::npos; pos = end + 2)
        if (head.compare(pos, name.size(), name) == 0)
            lines.push_back(head.substr(pos, end - pos));
    return lines;
}

// Answers each request of its connections with the next of `answers`, the last one for good, and keeps head and body of
// each. A GET has no body, whatever its head says.
class AnsweringServer
{
public:
    explicit AnsweringServer(std::vector<std::string> answers) :
        m_Answers(std::move(answers)), m_Server([this](ScriptedConnection& peer) { Serve(peer); })
    {}

    std::string GetUrl(const std::string& path = "/") const { return m_Server.GetUrl(path); }

    unsigned short GetPort() const { return m_Server.GetPort(); }

    std::vector<std::string> GetHeads() const { return m_Heads.Get(); }

    std::vector<std::string> GetBodies() const { return m_Bodies.Get(); }

private:
    void Serve(ScriptedConnection& peer)
    {
        while (true) {
            const std::string head = peer.ReadHead();
            if (head.empty())
                return;
            const bool isGet = head.compare(0, 4, "GET ") == 0;
            if (head.find("\r\nExpect: 100-continue\r\n") != std::string::npos)
                peer.Send("HTTP/1.1 100 Continue\r\n\r\n");
            m_Bodies.Add(isGet ? "" : peer.ReadBytes(GetContentLength(head)));
            m_Heads.Add(head);
            const std::size_t served = m_Heads.Get().size();
            peer.Send(m_Answers[std::min(served, m_Answers.size()) - 1]);
        }
    }

    std::vector<std::string> m_Answers;
    Journal m_Heads;
    Journal m_Bodies;
    ScriptedServer m_Server; // last: it uses the others
};

// A request that no proxy of the environment gets in the way of.
class DirectRequest : public QDAsyncUrlRequest
{
public:
    explicit DirectRequest(const std::string& url)
    {
        SetURL(url.c_str());
        SetTimeoutMS(20000);
        curl_easy_setopt(GetCurlHandle(), CURLOPT_NOPROXY, "*");
    }
};

// Gives the write callback what the test says.
class OwnReply : public DirectRequest
{
public:
    using DirectRequest::DirectRequest;

    unsigned int OnWriteReply(char* data, unsigned int length) override
    {
        m_Received.append(data, length);
        ++m_CallCount;
        if (m_Throws)
            throw std::length_error("too long");
        return length + m_Difference;
    }

    std::string m_Received;
    int m_CallCount{0};
    bool m_Throws{false};
    unsigned int m_Difference{0};
};

// Memory that ends at a page that must not be touched.
class GuardedText
{
public:
    explicit GuardedText(const std::string& text) :
        m_PageSize(static_cast<std::size_t>(::sysconf(_SC_PAGESIZE))),
        m_pPages(static_cast<unsigned char*>(
            ::mmap(nullptr, 2 * m_PageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)))
    {
        EXPECT_NE(m_pPages, MAP_FAILED);
        EXPECT_EQ(::mprotect(m_pPages + m_PageSize, m_PageSize, PROT_NONE), 0);
        m_pText = m_pPages + m_PageSize - text.size();
        std::memcpy(m_pText, text.data(), text.size());
    }

    GuardedText(const GuardedText&) = delete;
    GuardedText& operator=(const GuardedText&) = delete;

    ~GuardedText() { ::munmap(m_pPages, 2 * m_PageSize); }

    const unsigned char* Get() const { return m_pText; }

private:
    std::size_t m_PageSize;
    unsigned char* m_pPages;
    unsigned char* m_pText;
};

} // namespace

// --- Construction ---

TEST(QDAsyncUrlRequest, OnWriteReplyFollowsTheDestructorInTheVirtualTable)
{
    EXPECT_EQ(VirtualSlot(&QDAsyncUrlRequest::OnWriteReply), 2);
}

TEST(QDAsyncUrlRequest, NewRequestIsQueuedAndEmpty)
{
    const QDAsyncUrlRequest request;

    EXPECT_EQ(request.GetTransferState(), QDAsyncUrlRequest::TransferQueued);
    EXPECT_EQ(request.GetAsyncUrlRequestId(), 0);
    EXPECT_NE(request.GetCurlHandle(), nullptr);
    EXPECT_EQ(request.GetMultiResultCode(), CURLM_OK);
    EXPECT_EQ(request.GetCurlResultCode(), CURLE_OK);
    EXPECT_STREQ(request.GetErrorText(), "");
    EXPECT_EQ(request.GetReply(), "");
    EXPECT_EQ(request.GetResponseCode(), 0);
}

TEST(QDAsyncUrlRequest, ConstructorSetsFiveOptions)
{
    const CurlOptionRecorder recorder;

    const QDAsyncUrlRequest request;

    EXPECT_THAT(recorder.GetOptions(), ElementsAre(CURLOPT_NOSIGNAL, CURLOPT_FAILONERROR, CURLOPT_ERRORBUFFER,
                                                   CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA));
    EXPECT_EQ(recorder.GetLast(CURLOPT_NOSIGNAL).m_Integer, 1);
    EXPECT_EQ(recorder.GetLast(CURLOPT_FAILONERROR).m_Integer, 1);
    EXPECT_EQ(recorder.GetLast(CURLOPT_ERRORBUFFER).m_Pointer, request.GetErrorText());
    EXPECT_EQ(recorder.GetLast(CURLOPT_WRITEFUNCTION).m_Pointer,
              reinterpret_cast<const void*>(&QDAsyncUrlRequest::WriteFileChunk));
    EXPECT_EQ(recorder.GetLast(CURLOPT_WRITEDATA).m_Pointer, &request);
    for (const CurlOptionRecorder::Call& call : recorder.GetCalls())
        EXPECT_EQ(call.m_Result, CURLE_OK);
}

TEST(QDAsyncUrlRequest, RequestIdIsKept)
{
    QDAsyncUrlRequest request;

    request.SetAsyncUrlRequestId(-4711);

    EXPECT_EQ(request.GetAsyncUrlRequestId(), -4711);
}

TEST(QDAsyncUrlRequest, EachRequestHasAHandleOfItsOwn)
{
    const QDAsyncUrlRequest first;
    const QDAsyncUrlRequest second;

    EXPECT_NE(first.GetCurlHandle(), second.GetCurlHandle());
}

TEST(QDAsyncUrlRequest, DestructorFreesAllThatLibcurlAllocated)
{
    const int before = CountCurlBlocks();
    {
        AnsweringServer server({kOk});
        DirectRequest request(server.GetUrl());
        request.SetUserPassword("user:password");
        request.SetProxyServer("127.0.0.1:1");
        request.SetPostJSON(Bytes("{}"), 2);
        request.EasyPerform();
    }

    EXPECT_EQ(CountCurlBlocks(), before);
}

TEST(QDAsyncUrlRequest, EveryOperationIsSafeWithoutAHandle)
{
    std::unique_ptr<QDAsyncUrlRequest> request;
    {
        const CurlMemoryLimit limit(0);
        request = std::make_unique<QDAsyncUrlRequest>();
        ASSERT_TRUE(limit.HasFailed());
    }

    EXPECT_EQ(request->GetCurlHandle(), nullptr);
    EXPECT_FALSE(request->SetURL("http://127.0.0.1/"));
    std::string url = "before";
    request->GetURL(url);
    EXPECT_EQ(url, "");
    EXPECT_FALSE(request->SetTimeoutMS(1));
    EXPECT_FALSE(request->SetUserPassword("user:password"));
    EXPECT_FALSE(request->SetProxyServer("127.0.0.1:1"));
    EXPECT_TRUE(request->SetProxyServer(""));
    EXPECT_FALSE(request->SetPostJSON(Bytes("{}"), 2));
    EXPECT_FALSE(request->SetUploadContent(NewBytes("data"), 4));
    EXPECT_EQ(request->EasyPerform(), CURLE_BAD_FUNCTION_ARGUMENT);
    EXPECT_EQ(request->GetResponseCode(), 0);
    request->SetCurlResultCode(CURLE_BAD_FUNCTION_ARGUMENT);
    EXPECT_EQ(request->GetCurlResultCode(), CURLE_BAD_FUNCTION_ARGUMENT);
    EXPECT_STREQ(request->GetErrorText(), "");
}

// --- Simple settings ---

TEST(QDAsyncUrlRequest, PerformGetsTheUrl)
{
    AnsweringServer server({kOk});
    DirectRequest request(server.GetUrl("/readings?unit=7"));

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);

    ASSERT_EQ(server.GetHeads().size(), 1u);
    EXPECT_THAT(server.GetHeads()[0], StartsWith("GET /readings?unit=7 HTTP/1.1\r\n"));
    EXPECT_EQ(request.GetReply(), "hello");
    EXPECT_EQ(request.GetResponseCode(), 200);
    EXPECT_STREQ(request.GetErrorText(), "");
}

TEST(QDAsyncUrlRequest, PerformChangesNeitherStateNorResultCode)
{
    const ReservedPort port; // nobody listens
    DirectRequest request("http://127.0.0.1:" + std::to_string(port.Get()) + "/");

    EXPECT_EQ(request.EasyPerform(), CURLE_COULDNT_CONNECT);

    EXPECT_EQ(request.GetTransferState(), QDAsyncUrlRequest::TransferQueued);
    EXPECT_EQ(request.GetCurlResultCode(), CURLE_OK);
}

TEST(QDAsyncUrlRequest, SetUrlCopiesTheText)
{
    QDAsyncUrlRequest request;
    char url[] = "http://127.0.0.1/a";

    EXPECT_TRUE(request.SetURL(url));

    std::memset(url, 'x', sizeof url - 1);
    std::string text;
    request.GetURL(text);
    EXPECT_EQ(text, "http://127.0.0.1/a");
}

TEST(QDAsyncUrlRequest, SetUrlThatIsRefusedLeavesNone)
{
    const std::string tooLong = "http://127.0.0.1/" + std::string(8'000'000, 'a');

    const struct
    {
        const char* m_Name;
        int m_Allowed;
        const char* m_Url;
    } kCases[] = {{"no memory", 0, "http://127.0.0.1/b"}, {"too long", 1000, tooLong.c_str()}};

    for (const auto& row : kCases) {
        SCOPED_TRACE(row.m_Name);
        QDAsyncUrlRequest request;
        ASSERT_TRUE(request.SetURL("http://127.0.0.1/a"));
        {
            const CurlMemoryLimit limit(row.m_Allowed);

            EXPECT_FALSE(request.SetURL(row.m_Url));
        }

        std::string text = "before";
        request.GetURL(text);
        EXPECT_EQ(text, "");
        EXPECT_EQ(request.EasyPerform(), CURLE_URL_MALFORMAT);
    }
}

TEST(QDAsyncUrlRequest, NullUrlIsNone)
{
    QDAsyncUrlRequest request;
    ASSERT_TRUE(request.SetURL("http://127.0.0.1/a"));

    EXPECT_TRUE(request.SetURL(nullptr));

    std::string text = "before";
    request.GetURL(text);
    EXPECT_EQ(text, "");
}

TEST(QDAsyncUrlRequest, GetUrlWithoutOneIsEmpty)
{
    const QDAsyncUrlRequest request;
    std::string text = "before";

    request.GetURL(text);

    EXPECT_EQ(text, "");
}

TEST(QDAsyncUrlRequest, GetUrlAfterARedirectIsTheNewOne)
{
    AnsweringServer server({"HTTP/1.1 302 Found\r\nLocation: /b\r\nContent-Length: 0\r\n\r\n", kOk});
    DirectRequest request(server.GetUrl("/a"));
    curl_easy_setopt(request.GetCurlHandle(), CURLOPT_FOLLOWLOCATION, 1L);

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);

    std::string text;
    request.GetURL(text);
    EXPECT_EQ(text, server.GetUrl("/b"));
}

TEST(QDAsyncUrlRequest, GetUrlIsCutTo511Bytes)
{
    const std::string start = "http://127.0.0.1/";
    for (const std::size_t length : {510u, 511u, 512u, 513u, 5000u}) {
        SCOPED_TRACE(length);
        const std::string url = start + std::string(length - start.size(), 'a');
        QDAsyncUrlRequest request;
        request.SetURL(url.c_str());
        std::string text;

        request.GetURL(text);

        EXPECT_EQ(text, url.substr(0, 511));
    }
}

TEST(QDAsyncUrlRequest, GetUrlIsCutWithinACharacter)
{
    const std::string start = "http://127.0.0.1/" + std::string(493, 'a');
    ASSERT_EQ(start.size(), 510u);
    QDAsyncUrlRequest request;
    request.SetURL((start + "\xC3\xA9").c_str());
    std::string text;

    request.GetURL(text);

    EXPECT_EQ(text, start + "\xC3");
}

TEST(QDAsyncUrlRequest, RedirectIsNotFollowedUnlessAskedFor)
{
    AnsweringServer server({"HTTP/1.1 302 Found\r\nLocation: /b\r\nContent-Length: 0\r\n\r\n", kOk});
    DirectRequest request(server.GetUrl("/a"));

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);

    EXPECT_EQ(request.GetResponseCode(), 302);
    EXPECT_EQ(server.GetHeads().size(), 1u);
}

TEST(QDAsyncUrlRequest, TimeoutEndsATransferFromASilentServer)
{
    ScriptedServer server([](ScriptedConnection& peer) { peer.ReadToEnd(); });
    DirectRequest request(server.GetUrl());
    EXPECT_TRUE(request.SetTimeoutMS(50));

    EXPECT_EQ(request.EasyPerform(), CURLE_OPERATION_TIMEDOUT);

    // On a busy machine it may be the connection in the place of the operation.
    EXPECT_THAT(request.GetErrorText(), HasSubstr(" timed out after "));
}

TEST(QDAsyncUrlRequest, TimeoutIsInMilliseconds)
{
    QDAsyncUrlRequest request;
    const CurlOptionRecorder recorder;

    EXPECT_TRUE(request.SetTimeoutMS(1234567));

    EXPECT_THAT(recorder.GetOptions(), ElementsAre(CURLOPT_TIMEOUT_MS));
    EXPECT_EQ(recorder.GetCalls()[0].m_Integer, 1234567);
}

TEST(QDAsyncUrlRequest, UserAndPasswordAreSentAsBasicAuthentication)
{
    AnsweringServer server({kOk});
    DirectRequest request(server.GetUrl());

    EXPECT_TRUE(request.SetUserPassword("user:pass"));

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);
    EXPECT_THAT(server.GetHeads()[0], HasSubstr("\r\nAuthorization: Basic dXNlcjpwYXNz\r\n"));
}

TEST(QDAsyncUrlRequest, NullUserAndPasswordSendsNone)
{
    AnsweringServer server({kOk});
    DirectRequest request(server.GetUrl());
    ASSERT_TRUE(request.SetUserPassword("user:pass"));

    EXPECT_TRUE(request.SetUserPassword(nullptr));

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);
    EXPECT_THAT(server.GetHeads()[0], Not(HasSubstr("Authorization")));
}

TEST(QDAsyncUrlRequest, UserAndPasswordThatAreRefusedLeaveNone)
{
    const std::string tooLong = "user:" + std::string(8'000'000, 'a');

    const struct
    {
        const char* m_Name;
        int m_Allowed;
        const char* m_UserPassword;
    } kCases[] = {{"no memory", 0, "other:word"},
                  {"no memory for the password", 1, "other:word"},
                  {"too long", 1000, tooLong.c_str()}};

    for (const auto& row : kCases) {
        SCOPED_TRACE(row.m_Name);
        AnsweringServer server({kOk});
        DirectRequest request(server.GetUrl());
        ASSERT_TRUE(request.SetUserPassword("user:pass"));
        {
            const CurlMemoryLimit limit(row.m_Allowed);

            EXPECT_FALSE(request.SetUserPassword(row.m_UserPassword));
        }

        EXPECT_EQ(request.EasyPerform(), CURLE_OK);
        ASSERT_EQ(server.GetHeads().size(), 1u);
        EXPECT_THAT(server.GetHeads()[0], Not(HasSubstr("Authorization")));
    }
}

TEST(QDAsyncUrlRequest, ProxyIsAskedForTheWholeUrl)
{
    const ReservedPort port; // nobody listens
    const std::string url = "http://127.0.0.1:" + std::to_string(port.Get()) + "/readings";
    AnsweringServer proxy({kOk});
    DirectRequest request(url);
    curl_easy_setopt(request.GetCurlHandle(), CURLOPT_NOPROXY, "");

    EXPECT_TRUE(request.SetProxyServer("127.0.0.1:" + std::to_string(proxy.GetPort())));

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);
    ASSERT_EQ(proxy.GetHeads().size(), 1u);
    EXPECT_THAT(proxy.GetHeads()[0], StartsWith("GET " + url + " HTTP/1.1\r\n"));
}

TEST(QDAsyncUrlRequest, ProxyThatIsRefusedLeavesNone)
{
    const ScopedVariable noneOfTheUsers("http_proxy", nullptr);
    const ScopedVariable noneForAll("all_proxy", nullptr);
    const ScopedVariable noneForAllInCapitals("ALL_PROXY", nullptr);
    const std::string tooLong(8'000'001, 'a');

    const struct
    {
        const char* m_Name;
        int m_Allowed;
        const char* m_Proxy;
    } kCases[] = {{"no memory", 0, "127.0.0.1:1"}, {"too long", 1000, tooLong.c_str()}};

    for (const auto& row : kCases) {
        SCOPED_TRACE(row.m_Name);
        AnsweringServer server({kOk});
        AnsweringServer proxy({kOk});
        DirectRequest request(server.GetUrl("/readings"));
        curl_easy_setopt(request.GetCurlHandle(), CURLOPT_NOPROXY, "");
        ASSERT_TRUE(request.SetProxyServer("127.0.0.1:" + std::to_string(proxy.GetPort())));
        {
            const CurlMemoryLimit limit(row.m_Allowed);

            EXPECT_FALSE(request.SetProxyServer(row.m_Proxy));
        }

        EXPECT_EQ(request.EasyPerform(), CURLE_OK);
        EXPECT_EQ(proxy.GetHeads().size(), 0u);
        ASSERT_EQ(server.GetHeads().size(), 1u);
        EXPECT_THAT(server.GetHeads()[0], StartsWith("GET /readings HTTP/1.1\r\n"));
    }
}

TEST(QDAsyncUrlRequest, ProxyIsGivenToLibcurlInUtf8)
{
    QDAsyncUrlRequest request;
    const CurlOptionRecorder recorder;

    EXPECT_TRUE(request.SetProxyServer("h\xC3\xBCgel\xE2\x82\xAC:3128"));

    EXPECT_THAT(recorder.GetOptions(), ElementsAre(CURLOPT_PROXY));
    EXPECT_EQ(recorder.GetCalls()[0].m_Text, "h\xC3\xBCgel\xE2\x82\xAC:3128");
}

TEST(QDAsyncUrlRequest, EmptyProxyChangesNothing)
{
    QDAsyncUrlRequest request;
    const CurlOptionRecorder recorder;

    EXPECT_TRUE(request.SetProxyServer(""));

    EXPECT_EQ(recorder.GetCalls().size(), 0u);
}

// --- POST ---

TEST(QDAsyncUrlRequest, PostSendsTheBodyWithTwoHeadersInOrder)
{
    AnsweringServer server({kOk});
    DirectRequest request(server.GetUrl("/events"));

    EXPECT_TRUE(request.SetPostJSON(Bytes("{\"a\":1}"), 7));

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);
    EXPECT_THAT(server.GetHeads()[0], StartsWith("POST /events HTTP/1.1\r\n"));
    EXPECT_THAT(server.GetHeads()[0], HasSubstr("\r\nContent-Type: application/json\r\nContent-Length: 7\r\n"));
    EXPECT_EQ(GetHeaders(server.GetHeads()[0], "Content-").size(), 2u);
    EXPECT_THAT(server.GetBodies(), ElementsAre("{\"a\":1}"));
}

TEST(QDAsyncUrlRequest, PostSendsExactlyTheGivenBytes)
{
    using namespace std::string_literals;
    const std::string body = "a\0b\0\xFF"s;
    const GuardedText guarded(body);
    AnsweringServer server({kOk});
    DirectRequest request(server.GetUrl());

    EXPECT_TRUE(request.SetPostJSON(guarded.Get(), 5));

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);
    EXPECT_THAT(server.GetBodies(), ElementsAre(body));
}

TEST(QDAsyncUrlRequest, PostDoesNotCopyTheBody)
{
    std::string body = "before";
    AnsweringServer server({kOk});
    DirectRequest request(server.GetUrl());
    ASSERT_TRUE(request.SetPostJSON(Bytes(body.data()), 6));

    body.replace(0, 6, "after!");

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);
    EXPECT_THAT(server.GetBodies(), ElementsAre("after!"));
}

TEST(QDAsyncUrlRequest, PostOfNothingIsAPostWithoutBody)
{
    const struct
    {
        const char* m_Name;
        const unsigned char* m_Data;
        unsigned int m_Length;
    } kCases[] = {{"no bytes", Bytes("x"), 0}, {"null", nullptr, 0}, {"null with a length", nullptr, 5}};

    for (const auto& row : kCases) {
        SCOPED_TRACE(row.m_Name);
        AnsweringServer server({kOk});
        DirectRequest request(server.GetUrl());

        EXPECT_TRUE(request.SetPostJSON(row.m_Data, row.m_Length));

        EXPECT_EQ(request.EasyPerform(), CURLE_OK);
        EXPECT_THAT(server.GetHeads()[0], StartsWith("POST / HTTP/1.1\r\n"));
        EXPECT_THAT(GetHeaders(server.GetHeads()[0], "Content-Length"), ElementsAre("Content-Length: 0"));
    }
}

TEST(QDAsyncUrlRequest, PostLengthHasTheWholeRangeOfItsType)
{
    QDAsyncUrlRequest request;
    const CurlOptionRecorder recorder;

    EXPECT_TRUE(request.SetPostJSON(Bytes("x"), 0xFFFFFFFF));

    EXPECT_THAT(recorder.GetOptions(),
                ElementsAre(CURLOPT_POST, CURLOPT_POSTFIELDS, CURLOPT_POSTFIELDSIZE_LARGE, CURLOPT_HTTPHEADER));
    EXPECT_EQ(recorder.GetLast(CURLOPT_POST).m_Integer, 1);
    EXPECT_EQ(recorder.GetLast(CURLOPT_POSTFIELDSIZE_LARGE).m_Integer, 4294967295);
    EXPECT_THAT(recorder.GetLast(CURLOPT_HTTPHEADER).m_List,
                ElementsAre("Content-Type: application/json", "Content-Length: 4294967295"));
}

TEST(QDAsyncUrlRequest, SecondPostReplacesTheFirst)
{
    AnsweringServer server({kOk});
    DirectRequest request(server.GetUrl());
    ASSERT_TRUE(request.SetPostJSON(Bytes("first body"), 10));

    EXPECT_TRUE(request.SetPostJSON(Bytes("second"), 6));

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);
    EXPECT_THAT(GetHeaders(server.GetHeads()[0], "Content-Type"), ElementsAre("Content-Type: application/json"));
    EXPECT_THAT(GetHeaders(server.GetHeads()[0], "Content-Length"), ElementsAre("Content-Length: 6"));
    EXPECT_THAT(server.GetBodies(), ElementsAre("second"));
}

TEST(QDAsyncUrlRequest, PostWithoutMemoryForItsHeadersChangesNothing)
{
    for (int allowed = 0; allowed < 4; ++allowed) { // two headers of two allocations each
        SCOPED_TRACE(allowed);
        AnsweringServer server({kOk});
        DirectRequest request(server.GetUrl());
        ASSERT_TRUE(request.SetPostJSON(Bytes("first"), 5));
        const int before = CountCurlBlocks();
        {
            const CurlMemoryLimit limit(allowed);

            EXPECT_FALSE(request.SetPostJSON(Bytes("second"), 6));
        }

        EXPECT_EQ(CountCurlBlocks(), before);
        EXPECT_EQ(request.EasyPerform(), CURLE_OK);
        EXPECT_THAT(server.GetBodies(), ElementsAre("first"));
    }
}

TEST(QDAsyncUrlRequest, PostIsSentAgainOnARedirectThatKeepsIt)
{
    AnsweringServer server({"HTTP/1.1 307 Temporary Redirect\r\nLocation: /b\r\nContent-Length: 0\r\n\r\n", kOk});
    DirectRequest request(server.GetUrl("/a"));
    curl_easy_setopt(request.GetCurlHandle(), CURLOPT_FOLLOWLOCATION, 1L);

    EXPECT_TRUE(request.SetPostJSON(Bytes("body"), 4));

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);
    EXPECT_THAT(server.GetBodies(), ElementsAre("body", "body"));
}

TEST(QDAsyncUrlRequest, PostWaitsForADigestChallengeWithItsBody)
{
    AnsweringServer server({"HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Digest realm=\"r\", nonce=\"n\"\r\n"
                            "Content-Length: 0\r\n\r\n",
                            kOk});
    DirectRequest request(server.GetUrl());
    request.SetUserPassword("user:pass");
    curl_easy_setopt(request.GetCurlHandle(), CURLOPT_HTTPAUTH, CURLAUTH_DIGEST);

    EXPECT_TRUE(request.SetPostJSON(Bytes("body"), 4));

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);
    EXPECT_THAT(server.GetBodies(), ElementsAre("", "body"));
    EXPECT_THAT(GetHeaders(server.GetHeads()[0], "Content-Length"), ElementsAre("Content-Length: 0"));
    EXPECT_THAT(GetHeaders(server.GetHeads()[1], "Content-Length"), ElementsAre("Content-Length: 4"));
}

TEST(QDAsyncUrlRequest, PostThatARedirectTurnsIntoAGetStillSendsItsHeaders)
{
    AnsweringServer server({"HTTP/1.1 303 See Other\r\nLocation: /b\r\nContent-Length: 0\r\n\r\n", kOk});
    DirectRequest request(server.GetUrl("/a"));
    curl_easy_setopt(request.GetCurlHandle(), CURLOPT_FOLLOWLOCATION, 1L);

    EXPECT_TRUE(request.SetPostJSON(Bytes("body"), 4));

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);
    ASSERT_EQ(server.GetHeads().size(), 2u);
    EXPECT_THAT(server.GetHeads()[1], StartsWith("GET /b HTTP/1.1\r\n"));
    EXPECT_THAT(GetHeaders(server.GetHeads()[1], "Content-"),
                ElementsAre("Content-Type: application/json", "Content-Length: 4"));
}

// --- Upload ---

TEST(QDAsyncUrlRequest, UploadPutsTheContent)
{
    using namespace std::string_literals;
    AnsweringServer server({kOk});
    DirectRequest request(server.GetUrl("/file"));

    EXPECT_TRUE(request.SetUploadContent(NewBytes("a\0b\xFF"s), 4));

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);
    EXPECT_THAT(server.GetHeads()[0], StartsWith("PUT /file HTTP/1.1\r\n"));
    EXPECT_THAT(GetHeaders(server.GetHeads()[0], "Content-"), ElementsAre("Content-Length: 4"));
    EXPECT_THAT(server.GetBodies(), ElementsAre("a\0b\xFF"s));
}

TEST(QDAsyncUrlRequest, UploadSetsItsOptions)
{
    QDAsyncUrlRequest request;
    const CurlOptionRecorder recorder;

    EXPECT_TRUE(request.SetUploadContent(NewBytes("data"), 4));

    EXPECT_THAT(recorder.GetOptions(), ElementsAre(CURLOPT_UPLOAD, CURLOPT_INFILESIZE_LARGE, CURLOPT_READFUNCTION,
                                                   CURLOPT_READDATA, CURLOPT_SEEKFUNCTION, CURLOPT_SEEKDATA));
    EXPECT_EQ(recorder.GetLast(CURLOPT_UPLOAD).m_Integer, 1);
    EXPECT_EQ(recorder.GetLast(CURLOPT_INFILESIZE_LARGE).m_Integer, 4);
    EXPECT_EQ(recorder.GetLast(CURLOPT_READFUNCTION).m_Pointer,
              reinterpret_cast<const void*>(&QDAsyncUrlRequest::ReadFileChunk));
    EXPECT_EQ(recorder.GetLast(CURLOPT_READDATA).m_Pointer, &request);
}

TEST(QDAsyncUrlRequest, UploadLengthHasTheWholeRangeOfItsType)
{
    QDAsyncUrlRequest request;
    const CurlOptionRecorder recorder;

    EXPECT_TRUE(request.SetUploadContent(NewBytes("x"), 0xFFFFFFFF));

    EXPECT_EQ(recorder.GetLast(CURLOPT_INFILESIZE_LARGE).m_Integer, 4294967295);
}

TEST(QDAsyncUrlRequest, UploadOfNothingIsAnEmptyPut)
{
    const struct
    {
        const char* m_Name;
        unsigned char* m_Data;
        unsigned int m_Length;
    } kCases[] = {{"no bytes", new unsigned char[1], 0}, {"null", nullptr, 0}, {"null with a length", nullptr, 5}};

    for (const auto& row : kCases) {
        SCOPED_TRACE(row.m_Name);
        AnsweringServer server({kOk});
        DirectRequest request(server.GetUrl());

        EXPECT_TRUE(request.SetUploadContent(row.m_Data, row.m_Length));

        EXPECT_EQ(request.EasyPerform(), CURLE_OK);
        EXPECT_THAT(server.GetHeads()[0], StartsWith("PUT / HTTP/1.1\r\n"));
        EXPECT_THAT(GetHeaders(server.GetHeads()[0], "Content-Length"), ElementsAre("Content-Length: 0"));
    }
}

TEST(QDAsyncUrlRequest, SecondUploadReplacesTheFirst)
{
    AnsweringServer server({kOk});
    DirectRequest request(server.GetUrl());
    ASSERT_TRUE(request.SetUploadContent(NewBytes("first content"), 13));

    EXPECT_TRUE(request.SetUploadContent(NewBytes("second"), 6));

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);
    EXPECT_THAT(server.GetBodies(), ElementsAre("second"));
}

TEST(QDAsyncUrlRequest, LargeUploadArrivesWhole)
{
    std::string content;
    for (int i = 0; i < 300000; ++i)
        content += static_cast<char>(i * 7 % 251);
    AnsweringServer server({kOk});
    DirectRequest request(server.GetUrl());

    EXPECT_TRUE(request.SetUploadContent(NewBytes(content), 300000));

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);
    ASSERT_EQ(server.GetBodies().size(), 1u);
    EXPECT_TRUE(server.GetBodies()[0] == content);
}

TEST(QDAsyncUrlRequest, UploadStartsAgainOnARedirect)
{
    AnsweringServer server({"HTTP/1.1 307 Temporary Redirect\r\nLocation: /b\r\nContent-Length: 0\r\n\r\n", kOk});
    DirectRequest request(server.GetUrl("/a"));
    curl_easy_setopt(request.GetCurlHandle(), CURLOPT_FOLLOWLOCATION, 1L);

    EXPECT_TRUE(request.SetUploadContent(NewBytes("content"), 7));

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);
    EXPECT_THAT(server.GetBodies(), ElementsAre("content", "content"));
    EXPECT_THAT(server.GetHeads()[1], StartsWith("PUT /b HTTP/1.1\r\n"));
}

TEST(QDAsyncUrlRequest, UploadStartsAgainAfterAChallenge)
{
    AnsweringServer server({"HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=\"r\"\r\n"
                            "Content-Length: 0\r\n\r\n",
                            kOk});
    DirectRequest request(server.GetUrl());
    request.SetUserPassword("user:pass");
    curl_easy_setopt(request.GetCurlHandle(), CURLOPT_HTTPAUTH, CURLAUTH_ANY);

    EXPECT_TRUE(request.SetUploadContent(NewBytes("content"), 7));

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);
    ASSERT_EQ(server.GetHeads().size(), 2u);
    EXPECT_EQ(server.GetBodies()[0], "content"); // else there was nothing to start again
    EXPECT_EQ(server.GetBodies()[1], "content");
    EXPECT_THAT(server.GetHeads()[1], HasSubstr("\r\nAuthorization: Basic dXNlcjpwYXNz\r\n"));
}

TEST(QDAsyncUrlRequest, UploadAfterAPostIsAPlainUpload)
{
    AnsweringServer server({"HTTP/1.1 307 Temporary Redirect\r\nLocation: /b\r\nContent-Length: 0\r\n\r\n", kOk});
    DirectRequest request(server.GetUrl());
    curl_easy_setopt(request.GetCurlHandle(), CURLOPT_FOLLOWLOCATION, 1L);
    ASSERT_TRUE(request.SetPostJSON(Bytes("a long body for a post"), 22));

    EXPECT_TRUE(request.SetUploadContent(NewBytes("content"), 7));

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);
    EXPECT_THAT(server.GetHeads()[0], StartsWith("PUT / HTTP/1.1\r\n"));
    EXPECT_THAT(GetHeaders(server.GetHeads()[0], "Content-"), ElementsAre("Content-Length: 7"));
    EXPECT_THAT(server.GetBodies(), ElementsAre("content", "content"));
}

TEST(QDAsyncUrlRequest, PostAfterAnUploadIsAPlainPost)
{
    AnsweringServer server({kOk});
    DirectRequest request(server.GetUrl());
    ASSERT_TRUE(request.SetUploadContent(NewBytes("content"), 7));

    EXPECT_TRUE(request.SetPostJSON(Bytes("body"), 4));

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);
    EXPECT_THAT(server.GetHeads()[0], StartsWith("POST / HTTP/1.1\r\n"));
    EXPECT_THAT(GetHeaders(server.GetHeads()[0], "Content-Length"), ElementsAre("Content-Length: 4"));
    EXPECT_THAT(server.GetBodies(), ElementsAre("body"));
}

TEST(QDAsyncUrlRequest, ReadFileChunkGivesTheContentPieceByPiece)
{
    QDAsyncUrlRequest request;
    request.SetUploadContent(NewBytes("abcdefgh"), 8);
    char buffer[16] = {};

    EXPECT_EQ(QDAsyncUrlRequest::ReadFileChunk(buffer, 1, 3, &request), 3u);
    EXPECT_EQ(std::string(buffer), "abc");
    EXPECT_EQ(QDAsyncUrlRequest::ReadFileChunk(buffer, 2, 2, &request), 4u);
    EXPECT_EQ(std::string(buffer), "defg");
    EXPECT_EQ(QDAsyncUrlRequest::ReadFileChunk(buffer, 1, 0, &request), 0u);
    EXPECT_EQ(QDAsyncUrlRequest::ReadFileChunk(buffer, 1, 16, &request), 1u);
    EXPECT_EQ(std::string(buffer), "hefg");
    EXPECT_EQ(QDAsyncUrlRequest::ReadFileChunk(buffer, 1, 16, &request), 0u);
}

TEST(QDAsyncUrlRequest, ReadFileChunkWithoutContentIsAtTheEnd)
{
    QDAsyncUrlRequest request;
    char buffer[16] = "untouched";

    EXPECT_EQ(QDAsyncUrlRequest::ReadFileChunk(buffer, 1, 16, &request), 0u);

    EXPECT_STREQ(buffer, "untouched");
}

TEST(QDAsyncUrlRequest, SetUploadContentStartsFromTheFirstByte)
{
    QDAsyncUrlRequest request;
    char buffer[4] = {};
    request.SetUploadContent(NewBytes("abc"), 3);
    QDAsyncUrlRequest::ReadFileChunk(buffer, 1, 2, &request);

    request.SetUploadContent(NewBytes("xyz"), 3);

    EXPECT_EQ(QDAsyncUrlRequest::ReadFileChunk(buffer, 1, 4, &request), 3u);
    EXPECT_STREQ(buffer, "xyz");
}

TEST(QDAsyncUrlRequest, SeekMovesTheReadPositionWithinTheContent)
{
    const struct
    {
        const char* m_Name;
        curl_off_t m_Offset;
        int m_Origin;
        int m_Result;
        const char* m_Next;
    } kCases[] = {{"start", 0, SEEK_SET, CURL_SEEKFUNC_OK, "abc"},
                  {"within", 1, SEEK_SET, CURL_SEEKFUNC_OK, "bc"},
                  {"end", 3, SEEK_SET, CURL_SEEKFUNC_OK, ""},
                  {"beyond", 4, SEEK_SET, CURL_SEEKFUNC_FAIL, "c"},
                  {"far beyond", 4294967296, SEEK_SET, CURL_SEEKFUNC_FAIL, "c"},
                  {"negative", -1, SEEK_SET, CURL_SEEKFUNC_FAIL, "c"},
                  {"from here", 0, SEEK_CUR, CURL_SEEKFUNC_FAIL, "c"},
                  {"from the end", 0, SEEK_END, CURL_SEEKFUNC_FAIL, "c"}};

    QDAsyncUrlRequest request;
    for (const auto& row : kCases) {
        SCOPED_TRACE(row.m_Name);
        const CurlOptionRecorder recorder;
        request.SetUploadContent(NewBytes("abc"), 3);
        auto* seek =
            reinterpret_cast<curl_seek_callback>(const_cast<void*>(recorder.GetLast(CURLOPT_SEEKFUNCTION).m_Pointer));
        void* data = const_cast<void*>(recorder.GetLast(CURLOPT_SEEKDATA).m_Pointer);
        char buffer[4] = {};
        QDAsyncUrlRequest::ReadFileChunk(buffer, 1, 2, &request);

        EXPECT_EQ(seek(data, row.m_Offset, row.m_Origin), row.m_Result);

        std::memset(buffer, 0, sizeof buffer);
        QDAsyncUrlRequest::ReadFileChunk(buffer, 1, 4, &request);
        EXPECT_STREQ(buffer, row.m_Next);
    }
}

// --- Reply ---

TEST(QDAsyncUrlRequest, ReplyIsCollectedFromAllPieces)
{
    using namespace std::string_literals;
    ScriptedServer server([](ScriptedConnection& peer) {
        peer.ReadHead();
        peer.Send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\na\0b\r\n"s);
        peer.Send("100000\r\n" + std::string(0x100000, 'x') + "\r\n0\r\n\r\n");
    });
    DirectRequest request(server.GetUrl());

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);

    EXPECT_TRUE(request.GetReply() == "a\0b"s + std::string(0x100000, 'x'));
}

TEST(QDAsyncUrlRequest, EmptyReplyIsASuccess)
{
    AnsweringServer server({"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"});
    OwnReply own(server.GetUrl());
    DirectRequest request(server.GetUrl());

    EXPECT_EQ(own.EasyPerform(), CURLE_OK);
    EXPECT_EQ(request.EasyPerform(), CURLE_OK);

    EXPECT_EQ(own.m_Received, ""); // in no call or in one, as libcurl has it
    EXPECT_EQ(request.GetReply(), "");
}

TEST(QDAsyncUrlRequest, OverriddenOnWriteReplyTakesTheReply)
{
    AnsweringServer server({kOk});
    OwnReply request(server.GetUrl());

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);

    EXPECT_EQ(request.m_Received, "hello");
    EXPECT_EQ(request.GetReply(), "");
}

TEST(QDAsyncUrlRequest, AnotherResultOfOnWriteReplyEndsTheTransfer)
{
    for (const unsigned int difference : {1u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(difference);
        AnsweringServer server({kOk});
        OwnReply request(server.GetUrl());
        request.m_Difference = difference;

        EXPECT_EQ(request.EasyPerform(), CURLE_WRITE_ERROR);

        EXPECT_EQ(request.m_CallCount, 1);
    }
}

TEST(QDAsyncUrlRequest, ExceptionInOnWriteReplyEndsTheTransfer)
{
    AnsweringServer server({kOk});
    OwnReply request(server.GetUrl());
    request.m_Throws = true;

    EXPECT_EQ(request.EasyPerform(), CURLE_WRITE_ERROR);

    EXPECT_EQ(request.m_CallCount, 1);
}

TEST(QDAsyncUrlRequest, ReplyWithoutMemoryEndsTheTransfer)
{
    ScriptedServer server([](ScriptedConnection& peer) {
        peer.ReadHead();
        peer.Send("HTTP/1.1 200 OK\r\n\r\n");
        const std::string piece(1 << 16, 'x');
        for (int i = 0; i < 16; ++i)
            peer.Send(piece);
    });
    DirectRequest request(server.GetUrl());
    const AllocationLimit limit(1 << 18);

    EXPECT_EQ(request.EasyPerform(), CURLE_WRITE_ERROR);
}

TEST(QDAsyncUrlRequest, WriteFileChunkHandsOnAllBytesAndTheResult)
{
    OwnReply request("");
    char data[] = "abcdef";

    EXPECT_EQ(QDAsyncUrlRequest::WriteFileChunk(data, 2, 3, static_cast<QDAsyncUrlRequest*>(&request)), 6u);
    EXPECT_EQ(request.m_Received, "abcdef");
    EXPECT_EQ(QDAsyncUrlRequest::WriteFileChunk(data, 1, 0, static_cast<QDAsyncUrlRequest*>(&request)), 0u);
    request.m_Difference = 3;
    EXPECT_EQ(QDAsyncUrlRequest::WriteFileChunk(data, 1, 1, static_cast<QDAsyncUrlRequest*>(&request)), 4u);
    request.m_Throws = true;
    EXPECT_NE(QDAsyncUrlRequest::WriteFileChunk(data, 1, 0, static_cast<QDAsyncUrlRequest*>(&request)), 0u);
}

TEST(QDAsyncUrlRequest, OnWriteReplyAppends)
{
    using namespace std::string_literals;
    QDAsyncUrlRequest request;
    char data[] = "a\0b";

    EXPECT_EQ(request.OnWriteReply(data, 3), 3u);
    EXPECT_EQ(request.OnWriteReply(data, 1), 1u);
    EXPECT_EQ(request.OnWriteReply(data, 0), 0u);

    EXPECT_EQ(request.GetReply(), "a\0ba"s);
}

// --- Results ---

TEST(QDAsyncUrlRequest, StatusOf400AndAboveFailsTheTransfer)
{
    const struct
    {
        int m_Status;
        CURLcode m_Result;
    } kCases[] = {{204, CURLE_OK},
                  {399, CURLE_OK},
                  {400, CURLE_HTTP_RETURNED_ERROR},
                  {404, CURLE_HTTP_RETURNED_ERROR},
                  {503, CURLE_HTTP_RETURNED_ERROR}};

    for (const auto& row : kCases) {
        SCOPED_TRACE(row.m_Status);
        AnsweringServer server({"HTTP/1.1 " + std::to_string(row.m_Status) + " Text\r\nContent-Length: 0\r\n\r\n"});
        DirectRequest request(server.GetUrl());

        EXPECT_EQ(request.EasyPerform(), row.m_Result);

        EXPECT_EQ(request.GetResponseCode(), row.m_Status);
    }
}

TEST(QDAsyncUrlRequest, LibcurlsOwnErrorTextIsKept)
{
    AnsweringServer server({"HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n"});
    DirectRequest request(server.GetUrl());
    ASSERT_EQ(request.EasyPerform(), CURLE_HTTP_RETURNED_ERROR);
    ASSERT_STREQ(request.GetErrorText(), "The requested URL returned error: 404");

    request.SetCurlResultCode(CURLE_LOGIN_DENIED);

    EXPECT_EQ(request.GetCurlResultCode(), CURLE_LOGIN_DENIED);
    EXPECT_STREQ(request.GetErrorText(), "The requested URL returned error: 404");
}

TEST(QDAsyncUrlRequest, ResultCodeFillsAnEmptyErrorText)
{
    const struct
    {
        int m_Code;
        const char* m_Text;
    } kCases[] = {{0, ""}, {3, "No URL set!"}, {7, ""}, {67, "The remote server denied curl to login"}, {68, ""}};

    for (const auto& row : kCases) {
        SCOPED_TRACE(row.m_Code);
        QDAsyncUrlRequest request;

        request.SetCurlResultCode(static_cast<CURLcode>(row.m_Code));

        EXPECT_EQ(static_cast<int>(request.GetCurlResultCode()), row.m_Code);
        EXPECT_STREQ(request.GetErrorText(), row.m_Text);
    }
}

TEST(QDAsyncUrlRequest, SecondResultCodeKeepsTheTextOfTheFirst)
{
    QDAsyncUrlRequest request;
    request.SetCurlResultCode(CURLE_URL_MALFORMAT);

    request.SetCurlResultCode(CURLE_LOGIN_DENIED);

    EXPECT_EQ(request.GetCurlResultCode(), CURLE_LOGIN_DENIED);
    EXPECT_STREQ(request.GetErrorText(), "No URL set!");
}

TEST(QDAsyncUrlRequest, TransferWithoutUrlFails)
{
    QDAsyncUrlRequest request;

    EXPECT_EQ(request.EasyPerform(), CURLE_URL_MALFORMAT);

    request.SetCurlResultCode(CURLE_URL_MALFORMAT);
    EXPECT_THAT(request.GetErrorText(), StartsWith("No URL set"));
}

TEST(QDAsyncUrlRequest, ResponseCodeIsThatOfTheLastResponse)
{
    AnsweringServer server({"HTTP/1.1 302 Found\r\nLocation: /b\r\nContent-Length: 0\r\n\r\n",
                            "HTTP/1.1 201 Created\r\nContent-Length: 0\r\n\r\n"});
    DirectRequest request(server.GetUrl("/a"));
    curl_easy_setopt(request.GetCurlHandle(), CURLOPT_FOLLOWLOCATION, 1L);

    EXPECT_EQ(request.EasyPerform(), CURLE_OK);

    EXPECT_EQ(request.GetResponseCode(), 201);
}

TEST(QDAsyncUrlRequest, ResponseCodeWithoutAResponseIs0)
{
    const ReservedPort port; // nobody listens
    DirectRequest request("http://127.0.0.1:" + std::to_string(port.Get()) + "/");

    EXPECT_EQ(request.EasyPerform(), CURLE_COULDNT_CONNECT);

    EXPECT_EQ(request.GetResponseCode(), 0);
    EXPECT_STRNE(request.GetErrorText(), "");
}
