#include <QDPlatform/QDThread.h>

#include <QDPlatform/QDCommandPipe.h>

#include <sys/select.h>
#include <time.h>

#include <cerrno>

namespace
{

constexpr unsigned char kStopCommand = 255;

} // namespace

CQDThread::CQDThread() : CQDThread(nullptr) {}

CQDThread::CQDThread(COutputLog* log) :
    m_pOutputLog(log), m_pPipe(std::make_unique<QDCommandPipe>(QDCommandPipe::WhenFull::Block))
{}

CQDThread::~CQDThread() = default;

bool CQDThread::StartThread(COutputLog* log)
{
    if (m_Running.load()) {
        errno = EBUSY;
        return false;
    }
    m_pOutputLog = log;
    // Atomic on a plain member: derived classes assign to it as to any number.
    __atomic_add_fetch(&m_DisplayThreadId, 1u, __ATOMIC_SEQ_CST);
    if (!m_pPipe->Open())
        return false;
    m_Running.store(true); // before the thread runs: its first callback may already call StopThread()
    const int error = ::pthread_create(&m_Thread, nullptr, &CQDThread::PosixThreadProc, this);
    if (error != 0) {
        m_Running.store(false);
        m_pPipe->Close();
        errno = error;
        return false;
    }
    return true;
}

bool CQDThread::StopThread()
{
    return m_Running.load() && m_pPipe->Send(kStopCommand);
}

void CQDThread::WaitThread()
{
    if (!m_Running.load())
        return;
    ::pthread_join(m_Thread, nullptr);
    m_pPipe->Close();
    m_Running.store(false);
    m_DisplayThreadId = 0;
}

void CQDThread::StopThreadAndWait()
{
    StopThread();
    WaitThread();
}

void CQDThread::DoThreadEvent(unsigned int event)
{
    m_pPipe->Send(static_cast<unsigned char>(event & 0xFFu));
}

bool CQDThread::IsThreadRunning() const
{
    return m_Running.load();
}

unsigned int CQDThread::GetDisplayThreadId() const
{
    return m_DisplayThreadId;
}

pthread_t CQDThread::GetOSThreadId() const
{
    return m_Thread;
}

pthread_t CQDThread::GetOSCurrentThreadId()
{
    return ::pthread_self();
}

bool CQDThread::OSThreadIdEqual(const pthread_t& a, const pthread_t& b)
{
    return ::pthread_equal(a, b) != 0;
}

void CQDThread::SleepMilliseconds(int ms)
{
    if (ms <= 0)
        return;
    // nanosleep rather than usleep: microseconds of more than 71 minutes do not fit usleep's argument.
    const timespec span{ms / 1000, (ms % 1000) * 1000000L};
    ::nanosleep(&span, nullptr);
}

void CQDThread::SetThreadName(const std::string& name)
{
    m_ThreadName = name;
}

const std::string& CQDThread::GetThreadName() const
{
    return m_ThreadName;
}

CQDTimestamp CQDThread::GetThreadEarliestTimeout(const CQDTimestamp&)
{
    return CQDTimestamp::Never;
}

bool CQDThread::OnThreadStart()
{
    return true;
}

bool CQDThread::OnThreadTimeout()
{
    return true;
}

void CQDThread::OnThreadEvent(unsigned int) {}

void CQDThread::OnThreadStop() {}

void* CQDThread::PosixThreadProc(void* thread)
{
    static_cast<CQDThread*>(thread)->ThreadMain();
    return nullptr;
}

void CQDThread::ThreadMain()
{
    bool keepRunning = OnThreadStart();
    while (keepRunning) {
        const CQDTimestamp now = CQDTimestamp::UTCNow();
        const CQDTimestamp earliest = GetThreadEarliestTimeout(now);
        timeval timeoutStore;
        timeval* timeout = now.GetSelectTimeout(earliest.GetValue(), timeoutStore);
        const int readEnd = m_pPipe->GetReadEnd();
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(readEnd, &readable);

        const int result = ::select(readEnd + 1, &readable, nullptr, nullptr, timeout);

        if (result == 0)
            keepRunning = OnThreadTimeout();
        else
            keepRunning = result > 0 && ProcessCommand(); // no retry, not even after EINTR
    }
    m_pPipe->EndReceiving();
    OnThreadStop();
}

// Takes exactly one command; more of them wake the next select at once. Returns false to leave the loop.
bool CQDThread::ProcessCommand()
{
    unsigned char command = 0;
    if (!m_pPipe->Receive(command) || command == kStopCommand)
        return false;
    OnThreadEvent(command);
    return true;
}
