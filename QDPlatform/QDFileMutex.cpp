#include <QDPlatform/QDFileMutex.h>

#include <QDPlatform/QDString.h>

#include <fcntl.h>

#include <cerrno>
#include <cstdint>

namespace
{

// 32-bit FNV-1a.
uint32_t HashOfName(const std::string& name)
{
    uint32_t hash = 0x811C9DC5;
    for (const char byte : name) {
        hash ^= static_cast<unsigned char>(byte);
        hash *= 16777619;
    }
    return hash;
}

} // namespace

CQDFileMutex::CQDFileMutex() = default;

CQDFileMutex::~CQDFileMutex()
{
    CloseFileMutex();
}

bool CQDFileMutex::OpenFileMutex(const std::string& name)
{
    CloseFileMutex();
    char semaphoreName[sizeof "/qdsm01234567"];
    qd_sprintf(semaphoreName, sizeof semaphoreName, "/qdsm%08x", static_cast<unsigned int>(HashOfName(name)));
    sem_t* semaphore = nullptr;
    do // a signal that interrupts the call before it did anything does not fail it
        semaphore = ::sem_open(semaphoreName, O_CREAT, 0777, 0);
    while (semaphore == SEM_FAILED && errno == EINTR);
    if (semaphore != SEM_FAILED) {
        m_pSemaphore = semaphore;
        return true;
    }
    if (errno == ENOSYS)
        return true;
    SetLastErrorCode(errno);
    return false;
}

void CQDFileMutex::Lock()
{
    if (m_pSemaphore == nullptr)
        return;
    int result = 0;
    do // a signal took nothing from the semaphore
        result = ::sem_wait(m_pSemaphore);
    while (result != 0 && errno == EINTR);
    if (result == 0)
        m_IsLocked = true;
}

void CQDFileMutex::UnLock()
{
    if (!m_IsLocked)
        return;
    ::sem_post(m_pSemaphore);
    m_IsLocked = false;
}

void CQDFileMutex::CloseFileMutex()
{
    UnLock();
    if (m_pSemaphore != nullptr)
        ::sem_close(m_pSemaphore);
    m_pSemaphore = nullptr;
}
