#include <QDPlatform/QDTcpServerThread.h>

#include <QDPlatform/COutputLog.h>
#include <QDPlatform/QDAssert.h>
#include <QDPlatform/QDCommandPipe.h>
#include <QDPlatform/QDCriticalSectionGuard.h>
#include <QDPlatform/QDReferenceLog.h>
#include <QDPlatform/QDString.h>
#include <QDPlatform/QDTcpServer.h>
#include <QDPlatform/QDTcpServerLinkMessage.h>

#include <sys/select.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>

namespace
{

// Unlike the other loops of the library, 0 stops this one, and 255 is no command.
constexpr unsigned char kCommandStop = 0;
constexpr unsigned char kCommandLinkChange = 1;
constexpr unsigned char kCommandMessagesPosted = 2;

bool FitsDescriptorSet(int fd)
{
    return fd >= 0 && fd < FD_SETSIZE;
}

} // namespace

CQDTcpServerThread::CQDTcpServerThread(COutputLog* log, CQDTcpServer* server, unsigned int threadNumber,
                                       unsigned int linkLimit, TcpServerLinkLogging logging) :
    m_pOutputLog(log),
    m_pServer(server),
    m_ThreadNumber(threadNumber),
    m_LinkLimit(std::min(linkLimit, unsigned{kMaximumLinks})),
    m_LoggingLevel(logging),
    m_pPipe(std::make_unique<QDCommandPipe>(QDCommandPipe::WhenFull::Refuse))
{
    qd_sprintf(m_LogPrefix, sizeof m_LogPrefix, "TCPThread %u", m_ThreadNumber);
    m_LogPrefixLength = static_cast<unsigned int>(std::strlen(m_LogPrefix));
    PrintLog(TcpServerLinkLoggingLifecycle, "Created");
}

CQDTcpServerThread::~CQDTcpServerThread()
{
    CloseAllLinks(); // of a worker that never ran
    PrintLog(TcpServerLinkLoggingLifecycle, "Deleted");
}

void CQDTcpServerThread::AddRef()
{
    qd_add_reference(m_RefCount, GetReferenceLog(), m_LogPrefix, m_LogPrefixLength);
}

void CQDTcpServerThread::Release()
{
    if (qd_release_reference(m_RefCount, GetReferenceLog(), m_LogPrefix, m_LogPrefixLength))
        delete this;
}

bool CQDTcpServerThread::ThreadHasSpareCapacity()
{
    const QDCriticalSectionGuard guard(m_Lock);
    return !m_LoopHasEnded && m_Links.size() < m_LinkLimit;
}

unsigned int CQDTcpServerThread::GetLinkCount() const
{
    return m_LinkCount;
}

unsigned int CQDTcpServerThread::GetThreadNumber() const
{
    return m_ThreadNumber;
}

bool CQDTcpServerThread::AddLink(CQDTcpServerLink* link)
{
    // Taken before the table has the link: from then on the worker may close it at any moment.
    link->AddRef();
    link->SetNonBlocking();
    bool added = false;
    {
        const QDCriticalSectionGuard guard(m_Lock);
        if (!m_LoopHasEnded && m_Links.size() < kMaximumLinks && FitsDescriptorSet(link->GetSocket()))
            added = m_Links.emplace(link->GetLinkId(), LinkEntry{link, {}}).second;
    }
    if (added)
        SendThreadLinkChangeEvent();
    else
        link->Release();
    return added;
}

bool CQDTcpServerThread::PostLinkMessage(CQDTcpServerLinkMessage* message)
{
    {
        const QDCriticalSectionGuard guard(m_Lock);
        const auto found = m_Links.find(message->GetLinkId());
        if (found == m_Links.end())
            return false;
        found->second.m_Messages.push_back(message);
    }
    SendThreadPostLinkMessageEvent();
    return true;
}

bool CQDTcpServerThread::StartThread()
{
    PrintLog(TcpServerLinkLoggingLifecycle, "Starting TCP thread...");
    if (m_Running.load()) {
        errno = EBUSY;
        return false;
    }
    if (!m_pPipe->Open())
        return false;
    const int error = ::pthread_create(&m_Thread, nullptr, &CQDTcpServerThread::PosixThreadProc, this);
    if (error != 0) {
        m_pPipe->Close();
        errno = error;
        return false;
    }
    PrintLog(TcpServerLinkLoggingLifecycle, "...TCP thread started");
    m_Running.store(true);
    return true;
}

void CQDTcpServerThread::TellThreadToStop()
{
    if (!m_Running.load())
        return;
    PrintLog(TcpServerLinkLoggingLifecycle, "Stop TCP Thread...");
    SendCommand(kCommandStop);
}

void CQDTcpServerThread::WaitForThreadToStop()
{
    if (!m_Running.load())
        return;
    QD_ASSERT(!::pthread_equal(::pthread_self(), m_Thread));
    PrintLog(TcpServerLinkLoggingLifecycle, "Wait for TCP thread to stop...");
    ::pthread_join(m_Thread, nullptr);
    m_pPipe->Close();
    PrintLog(TcpServerLinkLoggingLifecycle, "...TCP thread stopped");
    m_Running.store(false);
}

void CQDTcpServerThread::CloseAndDeleteLink(CQDTcpServerLink* link, bool hardReset)
{
    link->CloseSocket(hardReset);
    ForgetInThisPass(link);

    const unsigned int linkId = link->GetLinkId();
    MessageQueue undelivered;
    bool hadEntry = false;
    {
        const QDCriticalSectionGuard guard(m_Lock);
        const auto found = m_Links.find(linkId);
        if (found != m_Links.end()) {
            undelivered.swap(found->second.m_Messages);
            m_Links.erase(found);
            hadEntry = true;
        }
    }
    DeleteMessages(undelivered);
    // The server is told by id: ours may have been the last reference.
    if (hadEntry)
        link->Release();
    m_pServer->RemoveLinkById(linkId);
}

void CQDTcpServerThread::CloseAllLinks()
{
    LinkMap links;
    {
        const QDCriticalSectionGuard guard(m_Lock);
        links.swap(m_Links);
    }
    m_PassLinkCount = 0;
    for (auto& [linkId, entry] : links) {
        entry.m_pLink->CloseSocket(true);
        DeleteMessages(entry.m_Messages);
        entry.m_pLink->Release();
    }
}

bool CQDTcpServerThread::CallOnTxCompleteForLink(CQDTcpServerLink* link)
{
    const LinkCallbackResult result = link->CallOnTxComplete();
    if (result == LinkCallbackSuccess || result == LinkCallbackWouldBlock)
        return false;
    CloseAndDeleteLink(link, result != LinkCallbackCloseSocket);
    return true;
}

void* CQDTcpServerThread::PosixThreadProc(void* thread)
{
    static_cast<CQDTcpServerThread*>(thread)->ThreadMain();
    return nullptr;
}

void CQDTcpServerThread::DeleteMessages(MessageQueue& messages)
{
    for (CQDTcpServerLinkMessage* message : messages)
        delete message;
    messages.clear();
}

void CQDTcpServerThread::ThreadMain()
{
    PrintLog(TcpServerLinkLoggingLifecycle, "Thread started");
    while (RunOnePass()) {
    }
    {
        const QDCriticalSectionGuard guard(m_Lock);
        m_LoopHasEnded = true;
    }
    CloseAllLinks();
    m_pServer->OnLinkThreadStop(this);
    PrintLog(TcpServerLinkLoggingLifecycle, "Thread stopped");
}

// Waits once and serves what has come. Returns false to end the thread.
bool CQDTcpServerThread::RunOnePass()
{
    fd_set readable;
    fd_set writable;
    FD_ZERO(&readable);
    FD_ZERO(&writable);
    const int commandEnd = m_pPipe->GetReadEnd();
    FD_SET(commandEnd, &readable);
    const CQDTimestamp now = CQDTimestamp::UTCNow();
    CQDTimestamp earliest = CQDTimestamp::Never;
    const int largest = std::max(commandEnd, CollectLinks(readable, writable, earliest));
    timeval timeoutStore;
    timeval* timeout = now.GetSelectTimeout(earliest.GetValue(), timeoutStore);

    const int result = ::select(largest + 1, &readable, &writable, nullptr, timeout);

    if (result == 0) {
        ServeTimeouts();
        RemoveClosedLinks();
        return true;
    }
    if (result < 0) {
        const int error = errno;
        if (error == EINTR) {
            PrintLog(TcpServerLinkLoggingDetail, "select() returned %d, errno = EINTR", result);
            return true;
        }
        PrintLog(TcpServerLinkLoggingDetail, "select() returned %d, errno = %d", result, error);
        PrintLog(TcpServerLinkLoggingDetail, "Don't know how to recover so quitting thread loop");
        return false;
    }
    PrintLog(TcpServerLinkLoggingDetail, "Select returns %d", result);
    if (FD_ISSET(commandEnd, &readable) && !ServeCommand())
        return false;
    ServeLinks(readable, writable);
    RemoveClosedLinks();
    return true;
}

// Notes the links of this pass and what each waits for. Returns the largest descriptor, or -1.
int CQDTcpServerThread::CollectLinks(fd_set& readable, fd_set& writable, CQDTimestamp& earliest)
{
    int largest = -1;
    m_PassLinkCount = 0;
    const QDCriticalSectionGuard guard(m_Lock);
    for (const auto& [linkId, entry] : m_Links) {
        CQDTcpServerLink* link = entry.m_pLink;
        m_PassLinks[m_PassLinkCount++] = link;
        const int socket = link->GetSocket();
        if (!FitsDescriptorSet(socket))
            continue;
        FD_SET(socket, &readable);
        if (link->IsWriteModeEnabled())
            FD_SET(socket, &writable);
        largest = std::max(largest, socket);
        earliest = std::min(earliest, link->GetTimeout());
    }
    return largest;
}

// A place of the pass is null once its link was removed, be it by a message of this pass; a socket is -1 once closed.
void CQDTcpServerThread::ServeLinks(const fd_set& readable, const fd_set& writable)
{
    const auto isReady = [](const CQDTcpServerLink* link, const fd_set& ready) {
        return link != nullptr && FitsDescriptorSet(link->GetSocket()) && FD_ISSET(link->GetSocket(), &ready);
    };
    for (unsigned int i = 0; i < m_PassLinkCount; ++i) {
        if (isReady(m_PassLinks[i], readable) && m_PassLinks[i]->CallOnRxData())
            CloseAndDeleteLink(m_PassLinks[i], true);
        // Looked up again: the read callback may have ended the link.
        if (isReady(m_PassLinks[i], writable))
            CallOnTxCompleteForLink(m_PassLinks[i]);
    }
}

void CQDTcpServerThread::ServeTimeouts()
{
    PrintLog(TcpServerLinkLoggingDefault, "Timeout");
    const CQDTimestamp now = CQDTimestamp::UTCNow();
    for (unsigned int i = 0; i < m_PassLinkCount; ++i) {
        CQDTcpServerLink* link = m_PassLinks[i];
        if (link != nullptr && link->GetSocket() >= 0 && now >= link->GetTimeout() && link->CallOnTimeout(now))
            CloseAndDeleteLink(link, true);
    }
}

// Takes one command from the pipe, and those that found it full. Returns false to end the thread.
bool CQDTcpServerThread::ServeCommand()
{
    unsigned char command = 0;
    if (!m_pPipe->Receive(command)) {
        PrintLog(TcpServerLinkLoggingLifecycle, "pipe read returns error %d", errno);
        return false;
    }
    bool keepRunning = ExecuteCommand(command);
    const unsigned int withoutRoom = m_CommandsWithoutRoom.exchange(0);
    for (const unsigned char late : {kCommandStop, kCommandMessagesPosted}) {
        if ((withoutRoom & 1u << late) != 0)
            keepRunning = keepRunning && ExecuteCommand(late);
    }
    return keepRunning;
}

bool CQDTcpServerThread::ExecuteCommand(unsigned char command)
{
    switch (command) {
    case kCommandStop: PrintLog(TcpServerLinkLoggingLifecycle, "Thread Rx exit request"); return false;
    case kCommandLinkChange: return true; // the next pass looks at the links anyway
    case kCommandMessagesPosted: DispatchLinkMessages(); return true;
    default: PrintLog(TcpServerLinkLoggingLifecycle, "Thread Rx invalid command %d", command); return true;
    }
}

void CQDTcpServerThread::DispatchLinkMessages()
{
    PrintLog(TcpServerLinkLoggingDetail, "DispatchLinkMessages...");
    LinkMap receivers;
    {
        const QDCriticalSectionGuard guard(m_Lock);
        for (auto& [linkId, entry] : m_Links) {
            if (entry.m_Messages.empty())
                continue;
            PrintLog(TcpServerLinkLoggingDetail, "Post %d messages to link %u",
                     static_cast<int>(entry.m_Messages.size()), linkId);
            MessageQueue messages;
            messages.swap(entry.m_Messages);
            entry.m_pLink->AddRef();
            if (!receivers.emplace(linkId, LinkEntry{entry.m_pLink, std::move(messages)}).second)
                PrintLog(TcpServerLinkLoggingLifecycle, "***** Link %u messages lost", linkId);
        }
    }
    for (auto& [linkId, receiver] : receivers) {
        if (receiver.m_pLink->DispatchMessages(receiver.m_Messages))
            CloseAndDeleteLink(receiver.m_pLink, true);
        receiver.m_pLink->Release();
    }
}

// Removes the links whose sockets a callback has closed, its own or another's: nothing can come for them any more.
void CQDTcpServerThread::RemoveClosedLinks()
{
    for (unsigned int i = 0; i < m_PassLinkCount; ++i) {
        if (m_PassLinks[i] != nullptr && m_PassLinks[i]->GetSocket() < 0)
            CloseAndDeleteLink(m_PassLinks[i], true);
    }
}

void CQDTcpServerThread::ForgetInThisPass(const CQDTcpServerLink* link)
{
    std::replace(m_PassLinks, m_PassLinks + m_PassLinkCount, const_cast<CQDTcpServerLink*>(link),
                 static_cast<CQDTcpServerLink*>(nullptr));
}

void CQDTcpServerThread::SendThreadLinkChangeEvent()
{
    SendCommand(kCommandLinkChange);
}

void CQDTcpServerThread::SendThreadPostLinkMessageEvent()
{
    SendCommand(kCommandMessagesPosted);
}

// Wakes the loop. Never blocks: the caller may be a callback of this very loop, or of another worker that posts back.
void CQDTcpServerThread::SendCommand(unsigned char command)
{
    if (m_pPipe->Send(command))
        return;
    // No room: the loop looks at this after each command that it takes. The second try closes the gap in which it may
    // just have taken the last one.
    m_CommandsWithoutRoom.fetch_or(1u << command);
    m_pPipe->Send(command);
}

// Null when references are not to be printed.
COutputLog* CQDTcpServerThread::GetReferenceLog() const
{
    return m_LoggingLevel >= TcpServerLinkLoggingReferences ? m_pOutputLog : nullptr;
}

void CQDTcpServerThread::PrintLog(TcpServerLinkLogging level, const char* format, ...)
{
    if (m_LoggingLevel < level || m_pOutputLog == nullptr)
        return;
    va_list arguments;
    va_start(arguments, format);
    m_pOutputLog->PrefixedPrintInfoVA(m_LogPrefix, m_LogPrefixLength, format, arguments);
    va_end(arguments);
}
