#pragma once

#include "WaitUntil.h"

#include <QDPlatform/COutputLog.h>
#include <QDPlatform/QDSocket.h>
#include <QDPlatform/QDTcpServer.h>
#include <QDPlatform/QDTcpServerLink.h>
#include <QDPlatform/QDTcpServerLinkMessage.h>
#include <QDPlatform/QDTcpServerThread.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// What became of messages. All of them are deleted at the end; those that were not delivered were deleted unread.
struct MessageTally
{
    std::atomic<int> m_Made{0};
    std::atomic<int> m_Delivered{0};
    std::atomic<int> m_Deleted{0};
};

// A message that keeps a tally of itself and its copies.
class CountedMessage : public CQDTcpServerLinkMessage
{
public:
    CountedMessage(unsigned int linkId, MessageTally& tally, int number = 0) :
        CQDTcpServerLinkMessage(linkId), m_Tally(tally), m_Number(number)
    {
        ++m_Tally.m_Made;
    }

    CountedMessage(const CountedMessage& other) :
        CQDTcpServerLinkMessage(other), m_Tally(other.m_Tally), m_Number(other.m_Number)
    {
        ++m_Tally.m_Made;
    }

    CountedMessage& operator=(const CountedMessage&) = delete;

    ~CountedMessage() override { ++m_Tally.m_Deleted; }

    CQDTcpServerLinkMessage* CloneMessage() const override { return new CountedMessage(*this); }

    int GetNumber() const { return m_Number; }

    void CountDelivery() { ++m_Tally.m_Delivered; }

private:
    MessageTally& m_Tally;
    const int m_Number;
};

// Calls in the order in which they came, from any thread.
template<class Item>
class OrderedCalls
{
public:
    void Add(Item item)
    {
        const std::lock_guard lock(m_Mutex);
        m_Items.push_back(std::move(item));
    }

    std::vector<Item> Get() const
    {
        const std::lock_guard lock(m_Mutex);
        return m_Items;
    }

private:
    mutable std::mutex m_Mutex;
    std::vector<Item> m_Items; // m_Mutex
};

// A place where a callback is held up until the test lets it go. Only the first visit is held.
class HoldingPlace
{
public:
    // For the callback.
    void PassThrough()
    {
        if (!m_Visited.exchange(true))
            m_IsOpen.wait(false);
    }

    bool WaitUntilHeld()
    {
        return WaitUntil([&] { return m_Visited.load(); });
    }

    void LetGo()
    {
        m_IsOpen.store(true);
        m_IsOpen.notify_all();
    }

private:
    std::atomic<bool> m_Visited{false};
    std::atomic<bool> m_IsOpen{false};
};

class TestLink;

// What the links of a test do in their callbacks, and what became of them. The functions are set before the first link
// is made; one that is not set leaves the default that TestLink names.
struct LinkCallbacks
{
    std::function<LinkCallbackResult(TestLink&)> m_OnConnect;
    std::function<LinkCallbackResult(TestLink&)> m_OnRxData;
    std::function<LinkCallbackResult(TestLink&)> m_OnTxComplete;
    std::function<LinkCallbackResult(TestLink&, const CQDTimestamp&)> m_OnTimeout;
    std::function<LinkCallbackResult(TestLink&, CountedMessage&)> m_OnMessage;
    std::function<void(TestLink&)> m_OnDisconnect;

    std::atomic<int> m_LiveLinks{0};
    std::atomic<int> m_Connects{0};
    std::atomic<int> m_RxCalls{0};
    std::atomic<int> m_TxCalls{0};
    std::atomic<int> m_TimeoutCalls{0};
    std::atomic<int> m_Disconnects{0};
};

// Counts its callbacks and does as it is told. By default it accepts, sends back what it reads, and takes messages.
class TestLink : public CQDTcpServerLink
{
public:
    TestLink(const TcpServerLinkCreateContext& context, LinkCallbacks& callbacks) :
        CQDTcpServerLink(context), m_Callbacks(callbacks)
    {
        ++m_Callbacks.m_LiveLinks;
    }

    ~TestLink() override { --m_Callbacks.m_LiveLinks; }

    // Reads once and sends back what it read, the rest later from OnTxComplete().
    LinkCallbackResult Echo()
    {
        char data[4096];
        unsigned int count = 0;
        const LinkCallbackResult result = ReadData(data, sizeof data, count);
        if (result != LinkCallbackSuccess)
            return result;
        m_Unsent.append(data, count);
        return SendUnsent();
    }

    LinkCallbackResult SendUnsent()
    {
        while (!m_Unsent.empty()) {
            unsigned int count = 0;
            const LinkCallbackResult result =
                WriteData(m_Unsent.data(), static_cast<unsigned int>(m_Unsent.size()), count);
            if (result == LinkCallbackWouldBlock) {
                EnableWriteMode();
                return result;
            }
            if (result != LinkCallbackSuccess)
                return result;
            m_Unsent.erase(0, count);
        }
        DisableWriteMode();
        return LinkCallbackSuccess;
    }

    // Takes one byte from the socket.
    void ReadOneByte()
    {
        char byte = 0;
        unsigned int count = 0;
        ReadData(&byte, 1, count);
    }

protected:
    LinkCallbackResult OnConnect() override
    {
        ++m_Callbacks.m_Connects;
        return m_Callbacks.m_OnConnect ? m_Callbacks.m_OnConnect(*this) : LinkCallbackSuccess;
    }

    LinkCallbackResult OnRxData() override
    {
        ++m_Callbacks.m_RxCalls;
        return m_Callbacks.m_OnRxData ? m_Callbacks.m_OnRxData(*this) : Echo();
    }

    LinkCallbackResult OnTxComplete() override
    {
        ++m_Callbacks.m_TxCalls;
        return m_Callbacks.m_OnTxComplete ? m_Callbacks.m_OnTxComplete(*this) : SendUnsent();
    }

    LinkCallbackResult OnTimeout(const CQDTimestamp& now) override
    {
        ++m_Callbacks.m_TimeoutCalls;
        if (m_Callbacks.m_OnTimeout)
            return m_Callbacks.m_OnTimeout(*this, now);
        SetTimeout(CQDTimestamp::Never);
        return LinkCallbackSuccess;
    }

    LinkCallbackResult OnMessage(CQDTcpServerLinkMessage* message) override
    {
        auto* counted = static_cast<CountedMessage*>(message);
        counted->CountDelivery();
        const LinkCallbackResult result =
            m_Callbacks.m_OnMessage ? m_Callbacks.m_OnMessage(*this, *counted) : LinkCallbackSuccess;
        delete message;
        return result;
    }

    void OnDisconnect() override
    {
        ++m_Callbacks.m_Disconnects;
        if (m_Callbacks.m_OnDisconnect)
            m_Callbacks.m_OnDisconnect(*this);
    }

private:
    LinkCallbacks& m_Callbacks;
    std::string m_Unsent;
};

// A server of TestLinks, with its protected operations open. Its functions are set before the start.
class TestServer : public CQDTcpServer
{
public:
    TestServer(COutputLog* log, unsigned short port, unsigned int linksPerThread = 64, bool enableIPv6 = false,
               const char* name = "Test") :
        CQDTcpServer(log, name, port, linksPerThread, enableIPv6)
    {}

    using CQDTcpServer::CreateSockets;
    using CQDTcpServer::FormatSocketAddress;
    using CQDTcpServer::m_LogPrefix;
    using CQDTcpServer::m_LogPrefixLength;
    using CQDTcpServer::m_SocketCount;
    using CQDTcpServer::m_Sockets;
    using CQDTcpServer::StopTcpThreads;

    // A context as the accept path makes it, for links that a test makes itself.
    TcpServerLinkCreateContext MakeContext(unsigned int linkId, int socket)
    {
        TcpServerLinkCreateContext context;
        context.m_pOutputLog = m_pOutputLog;
        context.m_pServer = this;
        context.m_pServerName = "Test";
        context.m_LinkId = linkId;
        context.m_PeerAddressText = "127.0.0.1";
        context.m_Socket = socket;
        context.m_LoggingLevel = GetLinkLogging();
        return context;
    }

    LinkCallbacks m_Links;
    std::function<bool(TcpServerLinkCreateContext&)> m_OnCreateLink; // false refuses the connection
    std::function<void(CQDTcpServerLink&)> m_OnAssigned;
    std::function<void(CQDTcpServerThread&)> m_OnThreadStop;
    std::atomic<int> m_Assigned{0};
    std::atomic<int> m_StoppedThreads{0};

protected:
    CQDTcpServerLink* CreateLink(TcpServerLinkCreateContext& context) override
    {
        if (m_OnCreateLink && !m_OnCreateLink(context))
            return nullptr;
        return new TestLink(context, m_Links);
    }

    void OnLinkAssignedToWorkerThread(CQDTcpServerLink* link) override
    {
        if (m_OnAssigned)
            m_OnAssigned(*link);
        ++m_Assigned;
    }

    void OnLinkThreadStop(CQDTcpServerThread* thread) override
    {
        if (m_OnThreadStop)
            m_OnThreadStop(*thread);
        ++m_StoppedThreads;
    }
};

// A log that tells the threads apart, so that what each one prints can be compared word for word. A thread's id may
// come again after the thread has ended.
class ThreadLog : public COutputLog
{
public:
    void Clear() override
    {
        const std::lock_guard lock(m_Mutex);
        m_Messages.clear();
    }

    void AppendMessage(LogType, int, const qdchar* text, unsigned int length) override
    {
        const std::lock_guard lock(m_Mutex);
        m_Messages.emplace_back(std::this_thread::get_id(), std::string(text, length));
    }

    std::vector<std::string> GetTexts(std::thread::id thread) const
    {
        const std::lock_guard lock(m_Mutex);
        std::vector<std::string> texts;
        for (const auto& [id, text] : m_Messages) {
            if (id == thread)
                texts.push_back(text);
        }
        return texts;
    }

    // How many messages of all threads are exactly `text`.
    std::size_t Count(const std::string& text) const
    {
        const std::lock_guard lock(m_Mutex);
        return static_cast<std::size_t>(std::count_if(m_Messages.begin(), m_Messages.end(),
                                                      [&](const auto& message) { return message.second == text; }));
    }

private:
    mutable std::mutex m_Mutex;
    std::vector<std::pair<std::thread::id, std::string>> m_Messages; // m_Mutex
};
