#include <QDPlatform/QDCriticalSection.h>

#include <QDPlatform/QDAssert.h>

CQDCriticalSection::CQDCriticalSection()
{
    pthread_mutexattr_t attributes;
    ::pthread_mutexattr_init(&attributes);
    ::pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    const int Result = ::pthread_mutex_init(&m_Mutex, &attributes);
    ::pthread_mutexattr_destroy(&attributes);
    QD_ASSERT(Result == 0);
}

CQDCriticalSection::~CQDCriticalSection()
{
    ::pthread_mutex_destroy(&m_Mutex);
}

void CQDCriticalSection::Enter()
{
    ::pthread_mutex_lock(&m_Mutex);
}

void CQDCriticalSection::Leave()
{
    ::pthread_mutex_unlock(&m_Mutex);
}
