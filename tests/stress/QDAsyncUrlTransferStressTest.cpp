#include <QDPlatform/QDAsyncUrlTransferThread.h>

#include "Emulation.h"
#include "RecordingLog.h"
#include "ScriptedServer.h"
#include "TransferSink.h"
#include "WaitUntil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace
{

// Answers with what follows the slash in the URL.
void Repeat(ScriptedConnection& connection)
{
    const std::string head = connection.ReadHead();
    const std::string::size_type begin = head.find('/') + 1;
    const std::string path = head.substr(begin, head.find(' ', begin) - begin);
    connection.Send("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: " + std::to_string(path.size()) +
                    "\r\n\r\n" + path);
}

// Counts the requests that are there.
class LivingRequest : public QDAsyncUrlRequest
{
public:
    LivingRequest(const std::string& url, std::atomic<int>& living) : m_Living(living)
    {
        m_Living.fetch_add(1);
        SetURL(url.c_str());
        curl_easy_setopt(GetCurlHandle(), CURLOPT_PROXY, "");
    }

    ~LivingRequest() override { m_Living.fetch_sub(1); }

private:
    std::atomic<int>& m_Living;
};

class QDAsyncUrlTransferStress : public testing::Test
{
protected:
    static void SetUpTestSuite() { QDAsyncUrlTransferThread::InitialiseUrlTransferThread(); }

    static void TearDownTestSuite() { QDAsyncUrlTransferThread::CleanupUrlTransferThread(); }
};

} // namespace

TEST_F(QDAsyncUrlTransferStress, RequestsOfManyThreadsComeBackOnceEach)
{
    constexpr int kThreads = 4;
    constexpr int kRequestsEach = 50;
    RecordingLog log;
    ScriptedServer server(Repeat);
    std::atomic<int> living{0};
    std::atomic<int> collectedCount{0};
    TransferSink sink;
    QDAsyncUrlTransferThread transfers(&sink);
    ASSERT_TRUE(transfers.StartAsyncUrlTransferThread("stress", &log));

    std::vector<std::thread> threads;
    std::vector<std::multiset<std::string>> replies(2);
    for (std::multiset<std::string>& some : replies) {
        threads.emplace_back([&] {
            WaitUntil([&] {
                while (const std::unique_ptr<QDAsyncUrlRequest> request{transfers.GetNextCompletedRequest()}) {
                    EXPECT_EQ(request->GetCurlResultCode(), CURLE_OK) << request->GetErrorText();
                    some.insert(request->GetReply());
                    collectedCount.fetch_add(1);
                }
                return collectedCount.load() == kThreads * kRequestsEach;
            });
        });
    }
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            for (int number = 0; number < kRequestsEach; ++number) {
                const std::string path = "/" + std::to_string(thread) + "-" + std::to_string(number);
                transfers.StartTransfer(new LivingRequest(server.GetUrl(path), living));
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    transfers.StopAsyncUrlTransferThread();

    std::multiset<std::string> expected;
    for (int thread = 0; thread < kThreads; ++thread) {
        for (int number = 0; number < kRequestsEach; ++number)
            expected.insert(std::to_string(thread) + "-" + std::to_string(number));
    }
    replies[0].merge(replies[1]);
    EXPECT_EQ(replies[0], expected);
    EXPECT_EQ(living.load(), 0);
    EXPECT_EQ(log.CountContaining("Return Completed Request #"), 200u);
}

TEST_F(QDAsyncUrlTransferStress, StopsThatRaceWithEverythingDeleteOrKeepEachRequestOnce)
{
    constexpr int kRounds = 10;
    RecordingLog log;
    ScriptedServer server(Repeat);
    std::atomic<int> living{0};
    std::atomic<int> collected{0};
    TransferSink sink;
    QDAsyncUrlTransferThread transfers(&sink);
    sink.m_OnCompleted = [&] {
        if (const std::unique_ptr<QDAsyncUrlRequest> request{transfers.GetNextCompletedRequest()}) {
            collected.fetch_add(1);
            transfers.StartTransfer(new LivingRequest(server.GetUrl("/again"), living));
        }
    };
    std::atomic<bool> goOn{true};
    std::thread queues([&] {
        for (int number = 0; number < 200 && goOn.load(); ++number) {
            transfers.StartTransfer(new LivingRequest(server.GetUrl("/x"), living));
            std::this_thread::yield();
        }
    });
    std::thread collects([&] {
        while (goOn.load()) {
            if (const std::unique_ptr<QDAsyncUrlRequest> request{transfers.GetNextCompletedRequest()})
                collected.fetch_add(1);
            EXPECT_GE(transfers.GetRequestCount(), 0);
            std::this_thread::yield();
        }
    });

    for (int round = 1; round <= kRounds; ++round) {
        EXPECT_TRUE(transfers.StartAsyncUrlTransferThread("stress", &log));
        EXPECT_TRUE(WaitUntil([&] { return collected.load() >= round; }));
        transfers.StopAsyncUrlTransferThread();
        // A round of its own, in case the queue has run dry.
        transfers.StartTransfer(new LivingRequest(server.GetUrl("/y"), living));
    }
    goOn.store(false);
    queues.join();
    collects.join();

    // What came behind the last stop waits for another start, whose stop deletes it.
    EXPECT_EQ(transfers.GetRequestCount(), living.load());
    ASSERT_TRUE(transfers.StartAsyncUrlTransferThread("stress", &log));
    transfers.StopAsyncUrlTransferThread();
    while (const std::unique_ptr<QDAsyncUrlRequest> request{transfers.GetNextCompletedRequest()})
        collected.fetch_add(1);
    EXPECT_EQ(transfers.GetRequestCount(), living.load());
    EXPECT_EQ(living.load(), 0);
}

TEST_F(QDAsyncUrlTransferStress, ReplyOfAGigabyteArrivesWhole)
{
    const int blocks = RunsEmulated() ? 32 : 1024;
    const std::string block(1 << 20, 'x');
    ScriptedServer server([&](ScriptedConnection& connection) {
        connection.ReadHead();
        connection.Send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(static_cast<long long>(blocks) << 20) +
                        "\r\n\r\n");
        for (int count = 0; count < blocks; ++count)
            connection.Send(block);
    });
    TransferSink sink;
    QDAsyncUrlTransferThread transfers(&sink);
    ASSERT_TRUE(transfers.StartAsyncUrlTransferThread("stress", nullptr));
    auto* request = new TalliedRequest(server.GetUrl());

    transfers.StartTransfer(request);
    EXPECT_TRUE(WaitUntil([&] { return request->GetTransferState() == QDAsyncUrlRequest::TransferComplete; }, 60s));

    EXPECT_EQ(request->GetCurlResultCode(), CURLE_OK);
    EXPECT_EQ(request->m_ReceivedBytes.load(), static_cast<unsigned long long>(blocks) << 20);
    transfers.StopAsyncUrlTransferThread();
}
