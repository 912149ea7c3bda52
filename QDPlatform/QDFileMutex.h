#pragma once

#include <QDPlatform/QDError.h>
#include <QDPlatform/QDExport.h>

#include <semaphore.h>

#include <string>

// A lock between processes that agree on a name, on top of a named semaphore of the system.
//
// All that open the same name share the semaphore "/qdsmXXXXXXXX", where XXXXXXXX is a hash of the name: two names may
// share one by chance. Where permissions keep two users apart, the second one's OpenFileMutex() fails with EACCES.
// The semaphore starts at 0, that is taken: the first Lock() on a newly made one waits until somebody posts it. Nobody
// does so by UnLock() alone, which gives back only what the object's own Lock() took; whoever sets the system up has
// to. A process that ends without UnLock(), killed or crashed, leaves the semaphore taken: nothing releases it. The
// semaphore itself outlives all objects and is never removed.
// On a system without named semaphores OpenFileMutex() succeeds and the lock holds nobody back.
// Thread: one at a time. Threads that want to exclude each other need an object each.
// Owns:   a handle of the semaphore from a successful OpenFileMutex() to the next one or the destructor.
class QD_API CQDFileMutex : public CQDError
{
public:
    // No handle, not locked.
    CQDFileMutex();
    CQDFileMutex(const CQDFileMutex&) = delete;
    CQDFileMutex& operator=(const CQDFileMutex&) = delete;

    // UnLock(), then closes the handle.
    ~CQDFileMutex();

    // Opens the semaphore of `name`, any bytes, and makes it if need be: taken, and with the permissions that the
    // process's umask leaves. A handle from before is unlocked and closed first, even if this fails.
    // Returns true with a handle, and also (ENOSYS) without one where the system has no named semaphores; else false
    // with errno kept.
    bool OpenFileMutex(const std::string& name);

    // Waits without limit until the semaphore is free and takes it. Returns at once, without the lock, when there is no
    // handle. A second Lock() of one object waits for another one's UnLock(): the lock is not recursive. A signal does
    // not end the wait. A wait that fails takes nothing; it is not reported.
    void Lock();

    // Releases what Lock() of this object took; does nothing otherwise.
    void UnLock();

private:
    QD_LOCAL void CloseFileMutex();

    sem_t* m_pSemaphore{nullptr}; // null when none is open
    bool m_IsLocked{false};
};
