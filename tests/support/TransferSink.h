#pragma once

#include <QDPlatform/QDAsyncUrlTransferThread.h>

#include "WaitUntil.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// A sink that notes what it is told, with the thread, and then does what the test wants.
class TransferSink : public QDAsyncUrlTransferEvent
{
public:
    // Set before the start.
    std::function<void()> m_OnStart = [] {};
    std::function<void()> m_OnCompleted = [] {};
    std::function<void()> m_OnStop = [] {};

    void OnAsyncUrlTransferThreadStart() override
    {
        Note("start");
        m_OnStart();
    }

    void OnAsyncUrlRequestsCompleted() override
    {
        Note("completed");
        m_OnCompleted();
    }

    void OnAsyncUrlTransferThreadStop() override
    {
        m_OnStop();
        Note("stop");
    }

    std::vector<std::string> GetNotes() const
    {
        const std::lock_guard lock(m_Mutex);
        return m_Notes;
    }

    // The thread of the last note.
    std::thread::id GetThread() const
    {
        const std::lock_guard lock(m_Mutex);
        return m_Thread;
    }

    bool WaitFor(const std::string& note) const
    {
        return WaitUntil([&] {
            for (const std::string& noted : GetNotes()) {
                if (noted == note)
                    return true;
            }
            return false;
        });
    }

private:
    void Note(const std::string& note)
    {
        const std::lock_guard lock(m_Mutex);
        m_Notes.push_back(note);
        m_Thread = std::this_thread::get_id();
    }

    mutable std::mutex m_Mutex;
    std::vector<std::string> m_Notes; // m_Mutex
    std::thread::id m_Thread;         // m_Mutex
};

// A request that counts the bytes of its reply in the place of keeping them, and its own end.
class TalliedRequest : public QDAsyncUrlRequest
{
public:
    // deleted: counts the requests deleted; null for none.
    explicit TalliedRequest(const std::string& url, std::atomic<int>* deleted = nullptr) : m_pDeleted(deleted)
    {
        SetURL(url.c_str());
        SetProxy("");
    }

    ~TalliedRequest() override
    {
        if (m_pDeleted != nullptr)
            m_pDeleted->fetch_add(1);
        m_OnDelete();
    }

    unsigned int OnWriteReply(char*, unsigned int length) override
    {
        m_ReceivedBytes.fetch_add(length);
        m_OnReply();
        return length;
    }

    std::function<void()> m_OnReply = [] {};
    std::function<void()> m_OnDelete = [] {};
    std::atomic<unsigned long long> m_ReceivedBytes{0};

private:
    // The test machine's own proxy settings are not for the servers of a test.
    void SetProxy(const char* proxy) { curl_easy_setopt(GetCurlHandle(), CURLOPT_PROXY, proxy); }

    std::atomic<int>* const m_pDeleted;
};

// Waits for the next complete request; null when none comes.
inline std::unique_ptr<QDAsyncUrlRequest> Collect(QDAsyncUrlTransferThread& transfers)
{
    std::unique_ptr<QDAsyncUrlRequest> request;
    WaitUntil([&] {
        request.reset(transfers.GetNextCompletedRequest());
        return request != nullptr;
    });
    return request;
}
