#include <QDPlatform/QDSocketThread.h>

#include <QDPlatform/COutputLog.h>
#include <QDPlatform/QDAssert.h>
#include <QDPlatform/QDCommandPipe.h>
#include <QDPlatform/QDFormatMessage.h>
#include <QDPlatform/QDTimestamp.h>

#include <poll.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>

namespace
{

constexpr unsigned char kStopCommand = 255;
constexpr int kFirstStopWaitMs = 500;
constexpr int kNextStopWaitMs = 1000;

} // namespace

CQDSocketThread::CQDSocketThread(COutputLog* log) :
    m_pOutputLog(log), m_LogPrefix{}, m_pPipe(std::make_unique<QDCommandPipe>(QDCommandPipe::WhenFull::Block))
{}

CQDSocketThread::~CQDSocketThread() = default;

void CQDSocketThread::SetOutputLog(COutputLog* log)
{
    m_pOutputLog = log;
}

bool CQDSocketThread::StartSocketThread()
{
    PrintLog("Starting thread...");
    if (m_Running.load()) {
        PrintLog("Thread is running already");
        return false;
    }
    if (!CreateSockets()) {
        CloseSockets();
        return false;
    }
    if (!SocketsFitDescriptorSet()) {
        PrintSocketError(EMFILE, "socket");
        CloseSockets();
        return false;
    }
    if (!m_pPipe->Open()) {
        PrintSocketError(errno, "pipe");
        CloseSockets();
        return false;
    }
    m_Joined = false;
    m_Running.store(true); // before the thread runs: its callbacks may ask
    const int error = ::pthread_create(&m_Thread, nullptr, &CQDSocketThread::PosixThreadProc, this);
    if (error != 0) {
        m_Running.store(false);
        PrintSocketError(error, "pthread_create");
        CloseSockets();
        m_pPipe->Close();
        return false;
    }
    return true;
}

void CQDSocketThread::StopSocketThread()
{
    PrintLog("Stopping thread...");
    if (!m_Running.load())
        return;
    BeginSocketServerShutdown();
    bool ended = WaitForSocketServerShutdown(kFirstStopWaitMs);
    while (!ended)
        ended = WaitForSocketServerShutdown(kNextStopWaitMs);
    DeleteStoppedSocketServer();
}

void CQDSocketThread::BeginSocketServerShutdown()
{
    PrintLog("Sending shutdown command");
    m_pPipe->Send(kStopCommand);
}

bool CQDSocketThread::WaitForSocketServerShutdown(int milliseconds)
{
    if (!m_Running.load() || m_Joined)
        return true;
    QD_ASSERT(!::pthread_equal(::pthread_self(), m_Thread)); // it cannot wait for itself
    CQDTimestamp deadline = CQDTimestamp::UTCNow();
    deadline.AddMilliseonds(milliseconds);
    timespec deadlineTime;
    deadline.GetAsTimespec(deadlineTime);
    m_Joined = ::pthread_timedjoin_np(m_Thread, nullptr, &deadlineTime) == 0;
    return m_Joined;
}

void CQDSocketThread::DeleteStoppedSocketServer()
{
    PrintLog("Delete stopped TCP Server...");
    if (!m_Running.load())
        return;
    QD_ASSERT(m_Joined);
    CloseSockets();
    m_pPipe->Close();
    OnSocketThreadStopped();
    m_Running.store(false);
}

bool CQDSocketThread::IsSocketServerRunning() const
{
    return m_Running.load();
}

void CQDSocketThread::TriggerServerEvent(int event)
{
    m_pPipe->Send(static_cast<unsigned char>(static_cast<unsigned int>(event) & 0xFFu));
}

void CQDSocketThread::PrintLog(const char* format, ...)
{
    if (m_pOutputLog == nullptr)
        return;
    va_list arguments;
    va_start(arguments, format);
    m_pOutputLog->PrefixedPrintInfoVA(m_LogPrefix, m_LogPrefixLength, format, arguments);
    va_end(arguments);
}

void CQDSocketThread::PrintSocketError(int error, const char* function)
{
    char text[256];
    QDFormatMessage(error, text, sizeof text);
    PrintLog("%s() failed. Error %u: %s", function, static_cast<unsigned int>(error), text);
}

void CQDSocketThread::OnSocketThreadStart() {}

long long CQDSocketThread::GetNextSocketThreadTimeout(long long)
{
    return CQDTimestamp::Never.GetValue();
}

void CQDSocketThread::OnSocketThreadTimeout() {}

void CQDSocketThread::OnSocketThreadEvent(int) {}

void CQDSocketThread::OnSocketThreadExit() {}

void CQDSocketThread::OnSocketThreadStopped() {}

void CQDSocketThread::CloseSockets()
{
    for (int i = 0; i < m_SocketCount; ++i) {
        if (m_Sockets[i] >= 0)
            ::close(m_Sockets[i]);
        m_Sockets[i] = -1;
    }
    m_SocketCount = 0;
}

void CQDSocketThread::PauseUntilCommand(int milliseconds)
{
    pollfd command{m_pPipe->GetReadEnd(), POLLIN, 0};
    // A signal may cut the pause short; it is a courtesy to the machine, not a time that anybody counts on.
    ::poll(&command, 1, milliseconds);
}

void* CQDSocketThread::PosixThreadProc(void* thread)
{
    static_cast<CQDSocketThread*>(thread)->ThreadMain();
    return nullptr;
}

void CQDSocketThread::ThreadMain()
{
    PrintLog("Listen thread started");
    OnSocketThreadStart();
    while (RunOnePass()) {
    }
    m_pPipe->EndReceiving();
    OnSocketThreadExit();
    PrintLog("Listen thread exiting");
}

// Waits once and serves what has come. Returns false to end the thread.
bool CQDSocketThread::RunOnePass()
{
    fd_set readable;
    FD_ZERO(&readable);
    int largest = m_pPipe->GetReadEnd();
    FD_SET(largest, &readable);
    for (int i = 0; i < m_SocketCount; ++i) {
        FD_SET(m_Sockets[i], &readable);
        largest = std::max(largest, m_Sockets[i]);
    }
    const CQDTimestamp now = CQDTimestamp::UTCNow();
    timeval timeoutStore;
    timeval* timeout = now.GetSelectTimeout(GetNextSocketThreadTimeout(now.GetValue()), timeoutStore);

    const int result = ::select(largest + 1, &readable, nullptr, nullptr, timeout);

    if (result == 0) {
        OnSocketThreadTimeout();
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
    if (FD_ISSET(m_pPipe->GetReadEnd(), &readable) && !ProcessCommand())
        return false;
    // A callback may close the sockets, hence the fresh look at the count in every step.
    for (int i = 0; i < m_SocketCount; ++i) {
        if (FD_ISSET(m_Sockets[i], &readable))
            OnSocketEvent(m_Sockets[i]);
    }
    return true;
}

// Takes one command. Returns false to end the thread.
bool CQDSocketThread::ProcessCommand()
{
    unsigned char command = 0;
    if (!m_pPipe->Receive(command)) {
        PrintLog("pipe read returns error %d", errno);
        return false;
    }
    if (command == kStopCommand) {
        PrintLog("Listen thread has received an exit request");
        return false;
    }
    OnSocketThreadEvent(command);
    PrintLog("Thread Rx invalid command %d", command);
    return true;
}

bool CQDSocketThread::SocketsFitDescriptorSet() const
{
    return std::all_of(m_Sockets, m_Sockets + m_SocketCount,
                       [](int socket) { return socket >= 0 && socket < FD_SETSIZE; });
}
