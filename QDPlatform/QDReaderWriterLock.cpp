#include <QDPlatform/QDReaderWriterLock.h>

CQDReaderWriterLock::CQDReaderWriterLock()
{
    ::pthread_rwlock_init(&m_Lock, nullptr);
}

CQDReaderWriterLock::~CQDReaderWriterLock()
{
    ::pthread_rwlock_destroy(&m_Lock);
}

void CQDReaderWriterLock::LockRead()
{
    ::pthread_rwlock_rdlock(&m_Lock);
}

void CQDReaderWriterLock::UnLockRead()
{
    ::pthread_rwlock_unlock(&m_Lock);
}

void CQDReaderWriterLock::LockWrite()
{
    ::pthread_rwlock_wrlock(&m_Lock);
}

void CQDReaderWriterLock::UnLockWrite()
{
    ::pthread_rwlock_unlock(&m_Lock);
}
