#pragma once

#include <QDPlatform/QDExport.h>

#include <pthread.h>

// A lock that many readers or one writer may hold.
//
// Default attributes (pthread_rwlock_init(3p)). Failures are not reported. Not recursive for writers: by POSIX, one
// that asks again may wait for ever. glibc refuses instead (EDEADLK), so the lock is held once and its first unlock
// frees it.
// Thread: any; construction and destruction while nobody else uses it.
class QD_API CQDReaderWriterLock
{
public:
    CQDReaderWriterLock();
    ~CQDReaderWriterLock();
    CQDReaderWriterLock(const CQDReaderWriterLock&) = delete;
    CQDReaderWriterLock& operator=(const CQDReaderWriterLock&) = delete;

    // Blocks while a writer holds the lock.
    void LockRead();
    void UnLockRead();

    // Blocks while anybody else holds the lock.
    void LockWrite();
    void UnLockWrite();

private:
    pthread_rwlock_t m_Lock;
};
