#pragma once

#include <QDPlatform/QDCriticalSection.h>

#if defined(__clang__)
#define QD_SCOPED_CAPABILITY __attribute__((scoped_lockable))
#else
#define QD_SCOPED_CAPABILITY
#endif

// Holds a CQDCriticalSection from its construction to the end of its scope.
class QD_SCOPED_CAPABILITY QDCriticalSectionGuard
{
public:
    explicit QDCriticalSectionGuard(CQDCriticalSection& lock) QD_ACQUIRE(lock) : m_Lock(lock) { m_Lock.Enter(); }

    QDCriticalSectionGuard(const QDCriticalSectionGuard&) = delete;
    QDCriticalSectionGuard& operator=(const QDCriticalSectionGuard&) = delete;

    ~QDCriticalSectionGuard() QD_RELEASE() { m_Lock.Leave(); }

private:
    CQDCriticalSection& m_Lock;
};
