#pragma once

#include "support/ThisProcess.h"

#include <QDPlatform/QDAsyncUrlRequest.h>
#include <QDPlatform/QDAsyncUrlTransferThread.h>

#include <curl/curl.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

// Four ways to have many GETs done at once. All make a new easy handle for each GET, with the same options, hand all
// GETs of a batch over before the first is done, collect each reply in a string and check its size.

struct Batch
{
    std::string m_Url;
    std::size_t m_ReplySize;
    unsigned int m_Transfers;
    bool m_FreshConnections; // every GET makes its connection and closes it
};

// One after the other, any number of batches. Connections outlive a batch for as long as libcurl keeps them, which is
// four for each transfer that is not done yet: without any, the last ones of a batch would close what the next could
// use.
class Contender
{
public:
    Contender() = default;
    Contender(const Contender&) = delete;
    Contender& operator=(const Contender&) = delete;
    virtual ~Contender() = default;

    // Starts transfers that go on for as long as the contender lives, because the server never answers.
    virtual void Hold(const Batch& silent) = 0;

    // Returns how many connections were made.
    virtual long RunBatch(const Batch& batch) = 0;
};

constexpr const char* kUserAgent = "benchmark";

inline void SetCommonOptions(CURL* easy, const Batch& batch)
{
    if (batch.m_FreshConnections)
        curl_easy_setopt(easy, CURLOPT_FORBID_REUSE, 1L);
}

// What every contender does with a finished GET. Returns how many connections it made.
inline long CheckGet(CURL* easy, CURLcode result, std::size_t size, const Batch& batch)
{
    Require(result == CURLE_OK, curl_easy_strerror(result));
    Require(size == batch.m_ReplySize, "a reply of the wrong size");
    long connections = 0;
    curl_easy_getinfo(easy, CURLINFO_NUM_CONNECTS, &connections);
    return connections;
}

// Ours: the calling thread starts the requests and waits; the sink's callback collects and deletes what is complete, as
// the two loops below do on their one thread.
class TransferThreadContender : public Contender, private QDAsyncUrlTransferEvent
{
public:
    TransferThreadContender() : m_Thread(this)
    {
        Require(m_Thread.StartAsyncUrlTransferThread(kUserAgent, nullptr), "our thread");
    }

    ~TransferThreadContender() override { m_Thread.StopAsyncUrlTransferThread(); }

    void Hold(const Batch& silent) override { StartAll(silent); }

    long RunBatch(const Batch& batch) override
    {
        m_pBatch = &batch;
        m_Open = batch.m_Transfers;
        m_Connections = 0;
        StartAll(batch);
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Done.wait(lock, [this] { return m_Open == 0; });
        return m_Connections;
    }

private:
    void StartAll(const Batch& batch)
    {
        for (unsigned int i = 0; i < batch.m_Transfers; ++i) {
            QDAsyncUrlRequest* request = new QDAsyncUrlRequest;
            request->SetURL(batch.m_Url.c_str());
            SetCommonOptions(request->GetCurlHandle(), batch);
            m_Thread.StartTransfer(request);
        }
    }

    void OnAsyncUrlRequestsCompleted() override
    {
        unsigned int count = 0;
        while (const std::unique_ptr<QDAsyncUrlRequest> request{m_Thread.GetNextCompletedRequest()}) {
            m_Connections +=
                CheckGet(request->GetCurlHandle(), request->GetCurlResultCode(), request->GetReply().size(), *m_pBatch);
            ++count;
        }
        const std::lock_guard<std::mutex> lock(m_Mutex);
        m_Open -= count;
        if (m_Open == 0)
            m_Done.notify_one();
    }

    QDAsyncUrlTransferThread m_Thread;
    const Batch* m_pBatch{nullptr}; // set before a batch's first request
    long m_Connections{0};          // transfer thread, while a batch runs
    std::mutex m_Mutex;
    std::condition_variable m_Done;
    unsigned int m_Open{0}; // m_Mutex
};

// A GET of the loops that stand on libcurl alone: the options are those of a QDAsyncUrlRequest that was started.
class PlainGet
{
public:
    explicit PlainGet(const Batch& batch) : m_pEasy(curl_easy_init())
    {
        curl_easy_setopt(m_pEasy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(m_pEasy, CURLOPT_FAILONERROR, 1L);
        curl_easy_setopt(m_pEasy, CURLOPT_ERRORBUFFER, m_ErrorText);
        curl_easy_setopt(m_pEasy, CURLOPT_WRITEFUNCTION, &PlainGet::OnWrite);
        curl_easy_setopt(m_pEasy, CURLOPT_WRITEDATA, this);
        curl_easy_setopt(m_pEasy, CURLOPT_PRIVATE, this);
        curl_easy_setopt(m_pEasy, CURLOPT_URL, batch.m_Url.c_str());
        SetCommonOptions(m_pEasy, batch);
        curl_easy_setopt(m_pEasy, CURLOPT_USERAGENT, kUserAgent);
    }

    PlainGet(const PlainGet&) = delete;
    PlainGet& operator=(const PlainGet&) = delete;

    ~PlainGet() { curl_easy_cleanup(m_pEasy); }

    CURL* GetEasy() const { return m_pEasy; }

    std::size_t GetReplySize() const { return m_Reply.size(); }

private:
    static std::size_t OnWrite(char* data, std::size_t size, std::size_t count, void* get)
    {
        static_cast<PlainGet*>(get)->m_Reply.append(data, size * count);
        return size * count;
    }

    CURL* const m_pEasy;
    char m_ErrorText[CURL_ERROR_SIZE]{};
    std::string m_Reply;
};

class MultiContender : public Contender
{
public:
    MultiContender() : m_pMulti(curl_multi_init()) {}

    ~MultiContender() override
    {
        for (const auto& get : m_Held)
            curl_multi_remove_handle(m_pMulti, get->GetEasy());
        curl_multi_cleanup(m_pMulti);
    }

    void Hold(const Batch& silent) override
    {
        for (unsigned int i = 0; i < silent.m_Transfers; ++i)
            m_Held.emplace_back(Add(silent));
    }

protected:
    void AddAll(const Batch& batch)
    {
        for (unsigned int i = 0; i < batch.m_Transfers; ++i)
            Add(batch);
        m_Open = batch.m_Transfers;
        m_Connections = 0;
    }

    void CollectCompleted(const Batch& batch)
    {
        int left = 0;
        while (const CURLMsg* message = curl_multi_info_read(m_pMulti, &left)) {
            if (message->msg != CURLMSG_DONE)
                continue;
            CURL* const easy = message->easy_handle;
            const CURLcode result = message->data.result; // the message goes with the handle
            curl_multi_remove_handle(m_pMulti, easy);
            char* get = nullptr;
            curl_easy_getinfo(easy, CURLINFO_PRIVATE, &get);
            const std::unique_ptr<PlainGet> owner(static_cast<PlainGet*>(static_cast<void*>(get)));
            m_Connections += CheckGet(easy, result, owner->GetReplySize(), batch);
            --m_Open;
        }
    }

    CURLM* const m_pMulti;
    unsigned int m_Open{0};
    long m_Connections{0};

private:
    PlainGet* Add(const Batch& batch)
    {
        PlainGet* get = new PlainGet(batch);
        Require(curl_multi_add_handle(m_pMulti, get->GetEasy()) == CURLM_OK, "curl_multi_add_handle");
        return get;
    }

    std::vector<std::unique_ptr<PlainGet>> m_Held;
};

// The bare loop: socket actions and `select`, one call with both flags for a socket that is ready both ways.
class SelectLoopContender : public MultiContender
{
public:
    SelectLoopContender()
    {
        FD_ZERO(&m_Read);
        FD_ZERO(&m_Write);
        curl_multi_setopt(m_pMulti, CURLMOPT_SOCKETFUNCTION, &SelectLoopContender::OnSocket);
        curl_multi_setopt(m_pMulti, CURLMOPT_SOCKETDATA, this);
        curl_multi_setopt(m_pMulti, CURLMOPT_TIMERFUNCTION, &SelectLoopContender::OnTimer);
        curl_multi_setopt(m_pMulti, CURLMOPT_TIMERDATA, this);
    }

    long RunBatch(const Batch& batch) override
    {
        AddAll(batch);
        Act(CURL_SOCKET_TIMEOUT, 0);
        while (true) {
            CollectCompleted(batch);
            if (m_Open == 0)
                return m_Connections;
            RunPass();
        }
    }

private:
    using Clock = std::chrono::steady_clock;

    void RunPass()
    {
        fd_set read = m_Read;
        fd_set write = m_Write;
        timeval timeout{};
        int ready = ::select(m_Highest + 1, &read, &write, nullptr, GetTimeout(timeout));
        Require(ready >= 0 || errno == EINTR, "select");
        if (ready == 0) {
            m_HasDeadline = false;
            Act(CURL_SOCKET_TIMEOUT, 0);
            return;
        }
        const int highest = m_Highest;
        for (int socket = 0; socket <= highest && ready > 0; ++socket) {
            const bool readable = FD_ISSET(socket, &read);
            const bool writable = FD_ISSET(socket, &write);
            if (!readable && !writable)
                continue;
            ready -= static_cast<int>(readable) + static_cast<int>(writable);
            Act(socket, (readable ? CURL_CSELECT_IN : 0) | (writable ? CURL_CSELECT_OUT : 0));
        }
    }

    timeval* GetTimeout(timeval& timeout) const
    {
        if (!m_HasDeadline)
            return nullptr;
        const auto left = std::chrono::ceil<std::chrono::microseconds>(m_Deadline - Clock::now()).count();
        if (left > 0) {
            timeout.tv_sec = static_cast<time_t>(left / 1000000);
            timeout.tv_usec = static_cast<suseconds_t>(left % 1000000);
        }
        return &timeout;
    }

    void Act(curl_socket_t socket, int flags)
    {
        int running = 0;
        Require(curl_multi_socket_action(m_pMulti, socket, flags, &running) == CURLM_OK, "curl_multi_socket_action");
    }

    static int OnSocket(CURL*, curl_socket_t socket, int action, void* loop, void*)
    {
        static_cast<SelectLoopContender*>(loop)->Watch(socket, action);
        return 0;
    }

    void Watch(int socket, int action)
    {
        Require(socket < FD_SETSIZE, "a descriptor too high for select");
        FD_CLR(socket, &m_Read);
        FD_CLR(socket, &m_Write);
        if (action == CURL_POLL_IN || action == CURL_POLL_INOUT)
            FD_SET(socket, &m_Read);
        if (action == CURL_POLL_OUT || action == CURL_POLL_INOUT)
            FD_SET(socket, &m_Write);
        m_Highest = std::max(m_Highest, socket);
        while (m_Highest >= 0 && !FD_ISSET(m_Highest, &m_Read) && !FD_ISSET(m_Highest, &m_Write))
            --m_Highest;
    }

    static int OnTimer(CURLM*, long milliseconds, void* loop)
    {
        SelectLoopContender& self = *static_cast<SelectLoopContender*>(loop);
        self.m_HasDeadline = milliseconds >= 0;
        if (self.m_HasDeadline)
            self.m_Deadline = Clock::now() + std::chrono::milliseconds(milliseconds);
        return 0;
    }

    fd_set m_Read;
    fd_set m_Write;
    int m_Highest{-1}; // the highest descriptor in either set
    bool m_HasDeadline{false};
    Clock::time_point m_Deadline{};
};

// libcurl's own loop.
class PollLoopContender : public MultiContender
{
public:
    long RunBatch(const Batch& batch) override
    {
        AddAll(batch);
        while (true) {
            int running = 0;
            Require(curl_multi_perform(m_pMulti, &running) == CURLM_OK, "curl_multi_perform");
            CollectCompleted(batch);
            if (m_Open == 0)
                return m_Connections;
            Require(curl_multi_poll(m_pMulti, nullptr, 0, 1000, nullptr) == CURLM_OK, "curl_multi_poll");
        }
    }
};

// The command line program, a process for each batch: its start is in the figure. It runs at most 300 transfers at
// once.
class CommandContender : public Contender
{
public:
    void Hold(const Batch&) override { Require(false, "the program has no warm connections"); }

    long RunBatch(const Batch& batch) override
    {
        const int replies = ::memfd_create("replies", MFD_CLOEXEC);
        const int config = ::memfd_create("config", MFD_CLOEXEC);
        Require(replies >= 0 && config >= 0, "memfd_create");
        std::string text;
        for (unsigned int i = 0; i < batch.m_Transfers; ++i)
            text += "url = \"" + batch.m_Url + "\"\n";
        Require(::pwrite(config, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()), "pwrite");

        RunCurl(config, replies, batch.m_Transfers);

        struct stat status;
        Require(::fstat(replies, &status) == 0, "fstat");
        Require(static_cast<std::size_t>(status.st_size) == batch.m_Transfers * batch.m_ReplySize,
                "curl: a reply of the wrong size");
        ::close(replies);
        ::close(config);
        return 0;
    }

private:
    static constexpr unsigned int kMostAtOnce = 300; // curl takes a higher limit for 50

    static void RunCurl(int config, int replies, unsigned int transfers)
    {
        const std::string limit = std::to_string(std::min(transfers, kMostAtOnce));
        const char* const arguments[] = {
            "curl",         "-q",       "--silent",   "--no-progress-meter",  "--show-error",   "--fail",
            "--user-agent", kUserAgent, "--parallel", "--parallel-immediate", "--parallel-max", limit.c_str(),
            "--config",     "-",        nullptr};
        posix_spawn_file_actions_t files;
        posix_spawn_file_actions_init(&files);
        posix_spawn_file_actions_adddup2(&files, config, STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&files, replies, STDOUT_FILENO);
        pid_t process = -1;
        Require(::posix_spawnp(&process, "curl", &files, nullptr, const_cast<char* const*>(arguments), environ) == 0,
                "curl");
        posix_spawn_file_actions_destroy(&files);
        int status = 0;
        Require(::waitpid(process, &status, 0) == process, "waitpid");
        Require(status == 0, "curl failed");
    }
};
