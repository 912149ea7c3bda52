#pragma once

// A recursive mutex, and the marks by which Clang checks that it is held where it must be.

#include <QDPlatform/QDExport.h>

#include <pthread.h>

// Clang's lock analysis, for members and functions that name their lock; nothing with another compiler
// (https://clang.llvm.org/docs/ThreadSafetyAnalysis.html).
#if defined(__clang__)
#define QD_CAPABILITY(name) __attribute__((capability(name)))
#define QD_GUARDED_BY(lock) __attribute__((guarded_by(lock)))
#define QD_ACQUIRE(...)     __attribute__((acquire_capability(__VA_ARGS__)))
#define QD_RELEASE(...)     __attribute__((release_capability(__VA_ARGS__)))
#define QD_REQUIRES(...)    __attribute__((requires_capability(__VA_ARGS__)))
#define QD_EXCLUDES(...)    __attribute__((locks_excluded(__VA_ARGS__)))
#else
#define QD_CAPABILITY(name)
#define QD_GUARDED_BY(lock)
#define QD_ACQUIRE(...)
#define QD_RELEASE(...)
#define QD_REQUIRES(...)
#define QD_EXCLUDES(...)
#endif

// A recursive mutex: its holder may enter again, and each Enter() needs its own Leave().
//
// The object is the mutex and nothing more. Failures of locking and unlocking are not reported; only a mutex that
// cannot be made stops the process, with the assertion "Result == 0".
// Thread: Enter() and Leave() from any thread; construction and destruction while nobody else uses it.
class QD_API QD_CAPABILITY("mutex") CQDCriticalSection
{
public:
    CQDCriticalSection();
    ~CQDCriticalSection();
    CQDCriticalSection(const CQDCriticalSection&) = delete;
    CQDCriticalSection& operator=(const CQDCriticalSection&) = delete;

    // Blocks until the lock is this thread's.
    void Enter() QD_ACQUIRE();

    // Takes back one Enter() of this thread.
    void Leave() QD_RELEASE();

private:
    pthread_mutex_t m_Mutex;
};
