#include <QDPlatform/QDAsyncUrlTransferThread.h>

#include <QDPlatform/COutputLog.h>
#include <QDPlatform/QDAssert.h>
#include <QDPlatform/QDCommandPipe.h>
#include <QDPlatform/QDCriticalSectionGuard.h>
#include <QDPlatform/QDString.h>

#include <sys/select.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdarg>
#include <cstddef>

// libcurl has three ways back into this class: the socket callback and the timer callback, which it calls while the
// thread adds or removes a handle and while it acts on a socket or a time-out, and the callbacks of the requests. From
// within any of them it refuses further calls on the multi handle. So the callbacks only note what libcurl wants; what
// follows from it is done when the action has returned.

namespace
{

constexpr unsigned char kCommandStop = 0;
constexpr unsigned char kCommandStart = 1;

// Requests that another thread queues one by one send a command each. Taken one in each pass, the commands for 800
// requests would be 800 passes, each with a select() over all sockets so far: 5 to 17 us of CPU for each request. The
// bound keeps the sockets from waiting long.
constexpr unsigned int kMostCommandsInAPass = 256;

constexpr unsigned int kFirstReadySocketCapacity = 2;

constexpr char kLogPrefix[] = "AsyncUrl";
constexpr unsigned int kLogPrefixLength = sizeof kLogPrefix - 1;

bool FitsDescriptorSet(int fd)
{
    return fd >= 0 && fd < FD_SETSIZE;
}

void SetMembership(int fd, fd_set& set, bool isMember)
{
    if (isMember)
        FD_SET(fd, &set);
    else
        FD_CLR(fd, &set);
}

// Where the request stands in a map. Its own address is no handle's: both are alive.
CURL* GetKey(QDAsyncUrlRequest* request)
{
    CURL* easy = request->GetCurlHandle();
    return easy != nullptr ? easy : request;
}

// -1 when there is none.
int GetHighestMember(const fd_set& set)
{
    for (int i = FD_SETSIZE / NFDBITS - 1; i >= 0; --i) {
        if (set.fds_bits[i] != 0)
            return (i + 1) * NFDBITS - 1 - std::countl_zero(static_cast<unsigned long>(set.fds_bits[i]));
    }
    return -1;
}

const char* GetActionName(int action)
{
    switch (action) {
    case CURL_POLL_NONE: return "NONE";
    case CURL_POLL_IN: return "IN";
    case CURL_POLL_OUT: return "OUT";
    case CURL_POLL_INOUT: return "INOUT";
    case CURL_POLL_REMOVE: return "REMOVE";
    default: return "???";
    }
}

} // namespace

QDAsyncUrlTransferEvent::~QDAsyncUrlTransferEvent() = default;

void QDAsyncUrlTransferEvent::OnAsyncUrlTransferThreadStart() {}

void QDAsyncUrlTransferEvent::OnAsyncUrlTransferThreadStop() {}

void QDAsyncUrlTransferThread::InitialiseUrlTransferThread()
{
    ::curl_global_init(CURL_GLOBAL_ALL);
}

void QDAsyncUrlTransferThread::CleanupUrlTransferThread()
{
    ::curl_global_cleanup();
}

QDAsyncUrlTransferThread::QDAsyncUrlTransferThread(QDAsyncUrlTransferEvent* events) :
    m_pEvents(events),
    m_pPipe(std::make_unique<QDCommandPipe>(QDCommandPipe::WhenFull::Refuse)),
    m_NextTimeout(CQDTimestamp::Never)
{
    ForgetSockets();
}

QDAsyncUrlTransferThread::~QDAsyncUrlTransferThread() = default;

bool QDAsyncUrlTransferThread::StartAsyncUrlTransferThread(const std::string& userAgent, COutputLog* log)
{
    // clang-format off
    QD_ASSERT(! IsThreadRunning());
    // clang-format on
    {
        const QDCriticalSectionGuard guard(m_Lock);
        m_UserAgent = userAgent;
    }
    m_pOutputLog.store(log);
    PrintLog("Start QDAsyncUrlTransferThread thread...");
    m_StopFoundNoRoom.store(false);
    if (!m_pPipe->Open())
        return false;
    bool hasQueuedRequests = false;
    {
        const QDCriticalSectionGuard guard(m_Lock);
        hasQueuedRequests = !GetRequests(QDAsyncUrlRequest::TransferQueued).empty();
    }
    // Their own commands found no pipe.
    if (hasQueuedRequests)
        SendThreadEvent(kCommandStart);
    const int error = ::pthread_create(&m_Thread, nullptr, &QDAsyncUrlTransferThread::LinuxThreadProc, this);
    if (error != 0) {
        m_pPipe->Close();
        errno = error;
        return false;
    }
    PrintLog("...AsyncServerLink thread started");
    m_Running.store(true);
    return true;
}

void QDAsyncUrlTransferThread::StopAsyncUrlTransferThread()
{
    if (!IsThreadRunning())
        return;
    QD_ASSERT(!::pthread_equal(::pthread_self(), m_Thread));
    PrintLog("Stop AsyncServerLink thread...");
    SendThreadEvent(kCommandStop);
    ::pthread_join(m_Thread, nullptr);
    m_pPipe->Close();
    m_Running.store(false);
    PrintLog("...AsyncServerLink thread stopped");
}

bool QDAsyncUrlTransferThread::IsThreadRunning() const
{
    return m_Running.load();
}

void QDAsyncUrlTransferThread::StartTransfer(QDAsyncUrlRequest* request)
{
    QD_ASSERT(request != nullptr);
    {
        const QDCriticalSectionGuard guard(m_Lock);
        CURL* easy = request->GetCurlHandle();
        // A request that is here already stands in the map of its state.
        const bool isNew = GetRequests(request->GetTransferState()).emplace(GetKey(request), request).second;
        // The transfer thread may be using a handle that is here already.
        if (isNew && easy != nullptr)
            ::curl_easy_setopt(easy, CURLOPT_USERAGENT, m_UserAgent.c_str());
        const int requestId = static_cast<int>(++m_LastRequestId);
        PrintLog("Queue Request #%d", requestId);
        request->SetAsyncUrlRequestId(requestId);
    }
    SendThreadEvent(kCommandStart);
}

QDAsyncUrlRequest* QDAsyncUrlTransferThread::GetNextCompletedRequest()
{
    const QDCriticalSectionGuard guard(m_Lock);
    RequestMap& completed = GetRequests(QDAsyncUrlRequest::TransferComplete);
    if (completed.empty())
        return nullptr;
    QDAsyncUrlRequest* request = completed.begin()->second;
    completed.erase(completed.begin());
    PrintLog("Return Completed Request #%d", request->GetAsyncUrlRequestId());
    return request;
}

int QDAsyncUrlTransferThread::GetRequestCount() const
{
    const QDCriticalSectionGuard guard(m_Lock);
    std::size_t count = 0;
    for (const RequestMap& requests : m_Requests)
        count += requests.size();
    return static_cast<int>(count);
}

// Never blocks: the caller may be a callback on the very thread that would have to make room.
void QDAsyncUrlTransferThread::SendThreadEvent(int command)
{
    const auto byte = static_cast<unsigned char>(command & 0xFF);
    // A start command that finds the pipe full is no loss: the commands in it do the same.
    if (m_pPipe->Send(byte) || byte != kCommandStop)
        return;
    // The loop looks at this behind each read of the pipe. The second try closes the gap in which it may just have read
    // the last commands.
    m_StopFoundNoRoom.store(true);
    m_pPipe->Send(byte);
}

void* QDAsyncUrlTransferThread::LinuxThreadProc(void* thread)
{
    static_cast<QDAsyncUrlTransferThread*>(thread)->LinuxThreadMain();
    return nullptr;
}

// The result must stay 0: any other makes libcurl give up all transfers.
int QDAsyncUrlTransferThread::curl_socket_callback(CURL* easy, int socket, int action, void* thread, void*) noexcept
{
    auto* self = static_cast<QDAsyncUrlTransferThread*>(thread);
    self->PrintLog("Socket %d Callback Action = %d (%s)", socket, action, GetActionName(action));
    if (action == CURL_POLL_REMOVE)
        self->RemoveCurlSocket(socket);
    else
        self->RegisterCurlSocket(socket, easy, action);
    return 0;
}

int QDAsyncUrlTransferThread::curl_timer_callback(CURLM*, long timeoutMs, void* thread) noexcept
{
    auto* self = static_cast<QDAsyncUrlTransferThread*>(thread);
    self->PrintLog("SetTimeout %ld", timeoutMs);
    if (timeoutMs == -1) {
        self->m_NextTimeout = CQDTimestamp::Never;
        return 0;
    }
    self->m_NextTimeout = CQDTimestamp::UTCNow();
    self->m_NextTimeout.AddMilliseonds(timeoutMs);
    return 0;
}

void QDAsyncUrlTransferThread::LinuxThreadMain()
{
    ProcessThreadStart();
    m_ReadySockets.reserve(kFirstReadySocketCapacity);
    m_LoopActive = true;
    while (m_LoopActive)
        m_LoopActive = RunOnePass();
    m_ReadySockets = {};
    m_pPipe->EndReceiving();
    ProcessThreadStop();
}

void QDAsyncUrlTransferThread::ProcessThreadStart()
{
    PrintLog("Thread Started");
    m_pEvents->OnAsyncUrlTransferThreadStart();
    m_NextTimeout = CQDTimestamp::Never;
    m_pMulti = ::curl_multi_init();
    ::curl_multi_setopt(m_pMulti, CURLMOPT_SOCKETFUNCTION, &QDAsyncUrlTransferThread::curl_socket_callback);
    ::curl_multi_setopt(m_pMulti, CURLMOPT_SOCKETDATA, this);
    ::curl_multi_setopt(m_pMulti, CURLMOPT_TIMERFUNCTION, &QDAsyncUrlTransferThread::curl_timer_callback);
    ::curl_multi_setopt(m_pMulti, CURLMOPT_TIMERDATA, this);
}

void QDAsyncUrlTransferThread::ProcessThreadStop()
{
    CancelAllRequests();
    ::curl_multi_cleanup(m_pMulti);
    m_pMulti = nullptr;
    // libcurl need not have said so of every socket that it closed.
    ForgetSockets();
    m_pEvents->OnAsyncUrlTransferThreadStop();
    PrintLog("Thread Stopped");
}

// Waits once and serves what has come. Returns false to end the thread.
bool QDAsyncUrlTransferThread::RunOnePass()
{
    fd_set readable = m_WantedReadable;
    fd_set writable = m_WantedWritable;
    const int commandEnd = m_pPipe->GetReadEnd();
    FD_SET(commandEnd, &readable);
    const int limit = 1 + std::max(commandEnd, GetHighestMember(m_Sockets));
    timeval timeoutStore;
    timeval* timeout = CQDTimestamp::UTCNow().GetSelectTimeout(m_NextTimeout.GetValue(), timeoutStore);

    const int result = ::select(limit, &readable, &writable, nullptr, timeout);

    if (result == 0) {
        ProcessTimeout();
        FindCompletedRequests();
        return true;
    }
    if (result < 0) {
        const int error = errno;
        if (error == EINTR) {
            PrintLog("select() returned %d, errno = EINTR", result);
            return true;
        }
        PrintLog("select() returned %d, errno = %d", result, error);
        PrintLog("Don't know how to recover so quitting thread loop");
        return false;
    }
    if (FD_ISSET(commandEnd, &readable) && !ProcessPipeMessage())
        return false;
    ProcessReadySockets(readable, limit, CURL_CSELECT_IN);
    ProcessReadySockets(writable, limit, CURL_CSELECT_OUT);
    FindCompletedRequests();
    return true;
}

// Takes the commands that wait; those beyond the bound wake the next select() at once. Returns false to end the thread.
bool QDAsyncUrlTransferThread::ProcessPipeMessage()
{
    unsigned char commands[kMostCommandsInAPass];
    const std::size_t count = m_pPipe->Receive(commands, sizeof commands);
    for (std::size_t i = 0; i < count; ++i) {
        if (commands[i] == kCommandStop || m_StopFoundNoRoom.load())
            return false;
        ProcessStartNewTransfer();
    }
    return count > 0;
}

void QDAsyncUrlTransferThread::ProcessStartNewTransfer()
{
    PrintLog("Start New Transfer");
    {
        const QDCriticalSectionGuard guard(m_Lock);
        RequestMap& queued = GetRequests(QDAsyncUrlRequest::TransferQueued);
        while (!queued.empty()) {
            const auto first = queued.begin();
            QDAsyncUrlRequest* request = first->second;
            PrintLog("Start request #%d", request->GetAsyncUrlRequestId());
            request->m_MultiResultCode = ::curl_multi_add_handle(m_pMulti, request->GetCurlHandle());
            MoveRequest(QDAsyncUrlRequest::TransferQueued, first,
                        request->m_MultiResultCode == CURLM_OK ? QDAsyncUrlRequest::TransferRunning
                                                               : QDAsyncUrlRequest::TransferComplete);
        }
    }
    const CURLMcode result = ::curl_multi_socket_action(m_pMulti, CURL_SOCKET_TIMEOUT, 0, &m_RunningHandles);
    if (result != CURLM_OK)
        PrintLog("curl_multi_socket_action() returns %d", result);
}

void QDAsyncUrlTransferThread::ProcessTimeout()
{
    PrintLog("Timeout");
    m_NextTimeout = CQDTimestamp::Never;
    ::curl_multi_socket_action(m_pMulti, CURL_SOCKET_TIMEOUT, 0, &m_RunningHandles);
}

// Tells libcurl of the sockets that select() left in a set of `limit` descriptors. They are copied first: the actions
// change the sockets that are watched. A socket that was removed since the wait is left out.
void QDAsyncUrlTransferThread::ProcessReadySockets(const fd_set& ready, int limit, int readiness)
{
    m_ReadySockets.clear();
    // Word by word: of hundreds of sockets, few are ready in one pass.
    for (int i = 0; i * NFDBITS < limit; ++i) {
        auto word = static_cast<unsigned long>(ready.fds_bits[i] & m_Sockets.fds_bits[i]);
        for (; word != 0; word &= word - 1)
            m_ReadySockets.push_back(i * NFDBITS + std::countr_zero(word));
    }
    for (const int socket : m_ReadySockets)
        ::curl_multi_socket_action(m_pMulti, socket, readiness, &m_RunningHandles);
}

void QDAsyncUrlTransferThread::FindCompletedRequests()
{
    int count = 0;
    int messagesLeft = 0;
    while (const CURLMsg* message = ::curl_multi_info_read(m_pMulti, &messagesLeft)) {
        if (message->msg != CURLMSG_DONE)
            break;
        // Copied: the message is libcurl's, and goes with the handle.
        CURL* easy = message->easy_handle;
        const CURLcode result = message->data.result;
        RemoveFromMulti(easy);
        if (CompleteRequest(easy, result))
            ++count;
    }
    count += FailUnwatchableTransfers();
    if (count > 0)
        m_pEvents->OnAsyncUrlRequestsCompleted();
}

// Ends the transfers whose sockets do not fit the descriptor sets, before the next wait. Returns how many. Of several
// that share a connection, only the one that used the socket first is known; libcurl ends the others with it.
int QDAsyncUrlTransferThread::FailUnwatchableTransfers()
{
    int count = 0;
    while (!m_UnwatchableSockets.empty()) {
        const auto [socket, easy] = *m_UnwatchableSockets.begin();
        RemoveCurlSocket(socket);
        PrintLog("Socket %d is beyond FD_SETSIZE", socket);
        QDAsyncUrlRequest* request = nullptr;
        {
            const QDCriticalSectionGuard guard(m_Lock);
            const RequestMap& running = GetRequests(QDAsyncUrlRequest::TransferRunning);
            const auto found = running.find(easy);
            if (found != running.end())
                request = found->second;
        }
        // It may have ended in this pass, or have had a second such socket, or the handle is one that libcurl made for
        // itself. A request that runs stays where it is: only this thread completes it.
        if (request == nullptr)
            continue;
        RemoveFromMulti(easy);
        qd_sprintf(request->m_ErrorText, sizeof request->m_ErrorText, "Socket %d is beyond FD_SETSIZE", socket);
        CompleteRequest(easy, CURLE_COULDNT_CONNECT);
        ++count;
    }
    return count;
}

void QDAsyncUrlTransferThread::CancelAllRequests()
{
    // Taken away first: destructors of the caller's classes run without the lock. All that shows of it is
    // GetRequestCount(), which is 0 while they still run.
    RequestMap requests;
    {
        const QDCriticalSectionGuard guard(m_Lock);
        for (RequestMap& some : m_Requests)
            requests.merge(some);
    }
    for (const auto& [key, request] : requests) {
        PrintLog("Cancelling request #%d", request->GetAsyncUrlRequestId());
        RemoveFromMulti(request->GetCurlHandle());
        delete request;
    }
}

// A socket that does not fit a descriptor set waits for FailUnwatchableTransfers().
void QDAsyncUrlTransferThread::RegisterCurlSocket(int socket, CURL* easy, int action)
{
    if (!FitsDescriptorSet(socket)) {
        m_UnwatchableSockets.emplace(socket, easy);
        return;
    }
    FD_SET(socket, &m_Sockets);
    SetMembership(socket, m_WantedReadable, action == CURL_POLL_IN || action == CURL_POLL_INOUT);
    SetMembership(socket, m_WantedWritable, action == CURL_POLL_OUT || action == CURL_POLL_INOUT);
}

void QDAsyncUrlTransferThread::RemoveCurlSocket(int socket)
{
    if (!FitsDescriptorSet(socket)) {
        m_UnwatchableSockets.erase(socket);
        return;
    }
    FD_CLR(socket, &m_Sockets);
    FD_CLR(socket, &m_WantedReadable);
    FD_CLR(socket, &m_WantedWritable);
}

void QDAsyncUrlTransferThread::ForgetSockets()
{
    FD_ZERO(&m_Sockets);
    FD_ZERO(&m_WantedReadable);
    FD_ZERO(&m_WantedWritable);
    m_UnwatchableSockets.clear();
}

void QDAsyncUrlTransferThread::RemoveFromMulti(CURL* easy)
{
    const CURLMcode result = ::curl_multi_remove_handle(m_pMulti, easy);
    if (result != CURLM_OK)
        PrintLog("*** curl_multi_remove_handle() returns %d", result);
}

// Returns whether the handle's request is one of ours that ran.
bool QDAsyncUrlTransferThread::CompleteRequest(CURL* easy, CURLcode result)
{
    const QDCriticalSectionGuard guard(m_Lock);
    RequestMap& running = GetRequests(QDAsyncUrlRequest::TransferRunning);
    const auto found = running.find(easy);
    if (found == running.end())
        return false;
    found->second->SetCurlResultCode(result);
    MoveRequest(QDAsyncUrlRequest::TransferRunning, found, QDAsyncUrlRequest::TransferComplete);
    return true;
}

// Allocates nothing. The state comes last: who sees a complete request may read its results.
void QDAsyncUrlTransferThread::MoveRequest(QDAsyncUrlRequest::TransferState from, RequestMap::iterator position,
                                           QDAsyncUrlRequest::TransferState to)
{
    QDAsyncUrlRequest* request = position->second;
    GetRequests(to).insert(GetRequests(from).extract(position));
    request->m_TransferState.store(to);
}

QDAsyncUrlTransferThread::RequestMap& QDAsyncUrlTransferThread::GetRequests(QDAsyncUrlRequest::TransferState state)
{
    return m_Requests[static_cast<std::size_t>(state)];
}

void QDAsyncUrlTransferThread::PrintLog(const char* format, ...)
{
    COutputLog* log = m_pOutputLog.load();
    if (log == nullptr)
        return;
    va_list arguments;
    va_start(arguments, format);
    log->PrefixedPrintInfoVA(kLogPrefix, kLogPrefixLength, format, arguments);
    va_end(arguments);
}
