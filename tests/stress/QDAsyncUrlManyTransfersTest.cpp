#include <QDPlatform/QDAsyncUrlTransferThread.h>

#include "ChildProcess.h"
#include "LoopbackClient.h"
#include "OpenDescriptors.h"
#include "TemporaryFolder.h"
#include "WaitUntil.h"

#include <QDPlatform/COutputLogNull.h>
#include <QDPlatform/QDAsyncUrlRequest.h>

#include <gtest/gtest.h>

#include <curl/curl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace
{

constexpr int kTransfers = 800;
constexpr const char* kNginx = "/usr/sbin/nginx";

// The machine's own proxy settings are not for this server.
void SetTarget(QDAsyncUrlRequest& request, const std::string& url)
{
    request.SetURL(url.c_str());
    curl_easy_setopt(request.GetCurlHandle(), CURLOPT_PROXY, "");
}

// nginx with room for all transfers at once. Its reply to a GET is the path.
class PathServer
{
public:
    PathServer()
    {
        // Root changes to another user otherwise, whom a user namespace does not have.
        const std::string user = ::geteuid() == 0 ? "user root;\n" : "";
        WriteFileText(m_Folder / "nginx.conf",
                      user +
                          "daemon off;\nmaster_process off;\npid nginx.pid;\nerror_log stderr;\n"
                          "events { worker_connections 1000; }\n"
                          "http {\n  access_log off;\n  client_body_temp_path body;\n  proxy_temp_path proxy;\n"
                          "  fastcgi_temp_path fastcgi;\n  uwsgi_temp_path uwsgi;\n  scgi_temp_path scgi;\n"
                          "  server { listen 127.0.0.1:" +
                          std::to_string(m_Port.Get()) + " backlog=2048; location / { return 200 $uri; } }\n}\n");
        m_pProcess = std::make_unique<ChildProcess>(
            std::vector<std::string>{kNginx, "-e", "stderr", "-p", m_Folder.GetPath(), "-c", "nginx.conf"});
    }

    // False, with what nginx says, when it does not answer.
    bool IsReady() const
    {
        if (WaitUntil([&] { return FetchNow("/ready") == "/ready"; }))
            return true;
        ADD_FAILURE() << kNginx << " (Debian: nginx-light) does not answer. " << m_pProcess->GetErrors();
        return false;
    }

    std::string GetUrl(const std::string& path) const
    {
        return "http://127.0.0.1:" + std::to_string(m_Port.Get()) + path;
    }

    // While it is held, connections and requests wait in the kernel.
    void Hold() { m_pProcess->Signal(SIGSTOP); }

    void GoOn() { m_pProcess->Signal(SIGCONT); }

private:
    std::string FetchNow(const std::string& path) const
    {
        QDAsyncUrlRequest request;
        SetTarget(request, GetUrl(path));
        request.SetTimeoutMS(1000); // somebody else may listen there, and say nothing
        request.EasyPerform();
        return request.GetReply();
    }

    const TemporaryFolder m_Folder;
    const ReservedPort m_Port;
    std::unique_ptr<ChildProcess> m_pProcess;
};

std::string MakePath(int number)
{
    return "/reading/" + std::to_string(number);
}

std::set<std::string> MakePaths(int count)
{
    std::set<std::string> paths;
    for (int i = 0; i < count; ++i)
        paths.insert(MakePath(i));
    return paths;
}

// Starts transfers from `server`, and keeps what they came to.
class Transfers : private QDAsyncUrlTransferEvent
{
public:
    explicit Transfers(const PathServer& server) : m_Server(server), m_Thread(this)
    {
        m_Started = m_Thread.StartAsyncUrlTransferThread("many", &m_Log);
    }

    Transfers(const Transfers&) = delete;
    Transfers& operator=(const Transfers&) = delete;

    ~Transfers() override { m_Thread.StopAsyncUrlTransferThread(); }

    bool IsStarted() const { return m_Started; }

    // From any thread.
    void Start(int number)
    {
        auto* request = new QDAsyncUrlRequest;
        SetTarget(*request, m_Server.GetUrl(MakePath(number)));
        m_Thread.StartTransfer(request);
    }

    // Each that is collected in the sink's callback starts another, until there were `count`.
    void StartFollowersUpTo(int count) { m_LastNumber = count; }

    bool WaitForCompleted(int count) const
    {
        return WaitUntil([&] { return m_Completed.load() >= count; }, 60s);
    }

    int GetRequestCount() const { return m_Thread.GetRequestCount(); }

    // The replies of the transfers that succeeded, and the error texts of the others.
    std::multiset<std::string> GetReplies() const
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Replies;
    }

    void Collect()
    {
        while (const std::unique_ptr<QDAsyncUrlRequest> request{m_Thread.GetNextCompletedRequest()}) {
            const bool isGood = request->GetCurlResultCode() == CURLE_OK && request->GetResponseCode() == 200;
            {
                const std::lock_guard<std::mutex> lock(m_Mutex);
                m_Replies.insert(isGood ? request->GetReply() : request->GetErrorText());
            }
            if (const int next = m_NextNumber.fetch_add(1); next < m_LastNumber.load())
                Start(next);
            ++m_Completed;
        }
    }

private:
    void OnAsyncUrlRequestsCompleted() override { Collect(); }

    const PathServer& m_Server;
    COutputLogNull m_Log;
    QDAsyncUrlTransferThread m_Thread;
    bool m_Started{false};
    std::atomic<int> m_NextNumber{kTransfers};
    std::atomic<int> m_LastNumber{kTransfers};
    std::atomic<int> m_Completed{0};
    mutable std::mutex m_Mutex;
    std::multiset<std::string> m_Replies; // m_Mutex
};

std::multiset<std::string> ToMultiset(const std::set<std::string>& texts)
{
    return {texts.begin(), texts.end()};
}

class QDAsyncUrlManyTransfers : public testing::Test
{
protected:
    static void SetUpTestSuite() { QDAsyncUrlTransferThread::InitialiseUrlTransferThread(); }

    static void TearDownTestSuite() { QDAsyncUrlTransferThread::CleanupUrlTransferThread(); }
};

} // namespace

TEST_F(QDAsyncUrlManyTransfers, AllOfEightHundredThatAreOpenAtOnceComplete)
{
    PathServer server;
    ASSERT_TRUE(server.IsReady());
    Transfers transfers(server);
    ASSERT_TRUE(transfers.IsStarted());
    const int descriptors = CountOpenDescriptors();
    server.Hold();

    for (int i = 0; i < kTransfers; ++i)
        transfers.Start(i);
    const bool allWereOpen = WaitUntil([&] { return CountOpenDescriptors() >= descriptors + kTransfers; });
    const int requestCount = transfers.GetRequestCount();
    server.GoOn();

    EXPECT_TRUE(allWereOpen);
    EXPECT_EQ(requestCount, kTransfers);
    EXPECT_TRUE(transfers.WaitForCompleted(kTransfers));
    EXPECT_EQ(transfers.GetReplies(), ToMultiset(MakePaths(kTransfers)));
    EXPECT_EQ(transfers.GetRequestCount(), 0);
}

TEST_F(QDAsyncUrlManyTransfers, FourThreadsThatStartAndCollectLoseNone)
{
    constexpr int kThreads = 4;
    PathServer server;
    ASSERT_TRUE(server.IsReady());
    Transfers transfers(server);
    ASSERT_TRUE(transfers.IsStarted());

    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            for (int i = thread; i < kTransfers; i += kThreads) {
                transfers.Start(i);
                transfers.Collect();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();

    EXPECT_TRUE(transfers.WaitForCompleted(kTransfers));
    EXPECT_EQ(transfers.GetReplies(), ToMultiset(MakePaths(kTransfers)));
    EXPECT_EQ(transfers.GetRequestCount(), 0);
}

TEST_F(QDAsyncUrlManyTransfers, FollowersStartedInTheCallbackCompleteToo)
{
    constexpr int kInAll = 3 * kTransfers;
    PathServer server;
    ASSERT_TRUE(server.IsReady());
    Transfers transfers(server);
    ASSERT_TRUE(transfers.IsStarted());
    transfers.StartFollowersUpTo(kInAll);

    for (int i = 0; i < kTransfers; ++i)
        transfers.Start(i);

    EXPECT_TRUE(transfers.WaitForCompleted(kInAll));
    EXPECT_EQ(transfers.GetReplies(), ToMultiset(MakePaths(kInAll)));
    EXPECT_EQ(transfers.GetRequestCount(), 0);
}

TEST_F(QDAsyncUrlManyTransfers, StopWhileEightHundredAreOpenDeletesThem)
{
    PathServer server;
    ASSERT_TRUE(server.IsReady());
    const int descriptorsBefore = CountOpenDescriptors();
    auto transfers = std::make_unique<Transfers>(server);
    ASSERT_TRUE(transfers->IsStarted());
    const int descriptors = CountOpenDescriptors();
    server.Hold();
    for (int i = 0; i < kTransfers; ++i)
        transfers->Start(i);
    EXPECT_TRUE(WaitUntil([&] { return CountOpenDescriptors() >= descriptors + kTransfers; }));

    transfers.reset();

    EXPECT_EQ(CountOpenDescriptors(), descriptorsBefore);
}
