#pragma once

#include <QDPlatform/QDExport.h>
#include <QDPlatform/QDTimestamp.h>

#include <pthread.h>

#include <atomic>
#include <memory>
#include <string>

class COutputLog;
class QDCommandPipe;

// A worker thread that waits for one-byte commands and deadlines and calls its derived class back.
//
// Derive, override the callbacks, StartThread(). The thread's loop asks GetThreadEarliestTimeout(), waits until that
// time or a command, and calls OnThreadTimeout() or OnThreadEvent(). Any error of the wait, a signal included, ends
// the loop in silence. The object may be started again after WaitThread().
// Thread: DoThreadEvent() and StopThread() from any thread. StartThread(), WaitThread() and StopThreadAndWait() from
//         one owner at a time, never from the thread itself. The callbacks run on the object's own thread only.
// Owns:   its thread and command pipe while it runs; not the log. Stop and wait before the object is destroyed: the
//         destructor does neither.
class QD_API CQDThread
{
public:
    // Not running, no log, display id 0.
    CQDThread();

    // As above with `log`, which StartThread() replaces.
    explicit CQDThread(COutputLog* log);

    CQDThread(const CQDThread&) = delete;
    CQDThread& operator=(const CQDThread&) = delete;
    virtual ~CQDThread();

    // Starts the thread. `log` (may be null, not owned) is where derived classes report; it must outlive the thread.
    // Each call takes the next display id, also one that fails.
    // Returns false with errno set, and nothing left open, when the command pipe or the thread cannot be made (EMFILE
    // also when the pipe's descriptors are not below FD_SETSIZE), or (EBUSY, nothing changed) when it runs already.
    bool StartThread(COutputLog* log);

    // Sends the stop command, 255, and does not wait. Returns whether the byte was written; false when not running.
    bool StopThread();

    // Waits without limit for the thread to end, closes the pipe and sets the display id to 0. Does nothing when not
    // running.
    void WaitThread();

    // StopThread(), then WaitThread().
    void StopThreadAndWait();

    // Sends the low eight bits of `event` to OnThreadEvent(). 255 is the stop command, so events are 0 to 254. Blocks
    // while the pipe is full (64 KiB of commands as a rule); does nothing when not running.
    void DoThreadEvent(unsigned int event);

    // True from a successful StartThread() until WaitThread() has joined the thread. Any thread.
    bool IsThreadRunning() const;

    // 0 when new and after WaitThread(); each StartThread() adds one, also one that fails. A derived class may set a
    // number of its own after that.
    unsigned int GetDisplayThreadId() const;

    // Meaningful while IsThreadRunning().
    pthread_t GetOSThreadId() const;

    // The calling thread.
    static pthread_t GetOSCurrentThreadId();

    static bool OSThreadIdEqual(const pthread_t& a, const pthread_t& b);

    // Lets the calling thread sleep; a signal ends the sleep early. 0 and less return at once.
    static void SleepMilliseconds(int ms);

    // A name for display. It is not given to the operating system. Set before the start, or from the owner's thread.
    void SetThreadName(const std::string& name);

    // Empty until set.
    const std::string& GetThreadName() const;

protected:
    // The deadline of the next OnThreadTimeout(); asked before every wait. `now` is UTC. CQDTimestamp::Never, the
    // default, waits for commands only; a time that is not later than `now` polls.
    virtual CQDTimestamp GetThreadEarliestTimeout(const CQDTimestamp& now);

    // First on the new thread. False skips the loop and goes to OnThreadStop(). Returns true by default.
    virtual bool OnThreadStart();

    // The deadline has passed. False ends the thread. Returns true by default.
    virtual bool OnThreadTimeout();

    // A command, 0 to 254. Commands arrive one at a time, in the order written. Does nothing by default.
    virtual void OnThreadEvent(unsigned int event);

    // Last on the thread, also when OnThreadStart() refused. Does nothing by default.
    virtual void OnThreadStop();

private:
    static void* PosixThreadProc(void* thread);
    void ThreadMain();
    QD_LOCAL bool ProcessCommand();

    std::string m_ThreadName;

protected:
    COutputLog* m_pOutputLog; // not owned, may be null

private:
    std::atomic<bool> m_Running{false};
    pthread_t m_Thread{};

protected:
    unsigned int m_DisplayThreadId{0}; // set before the thread starts and after it ended

private:
    std::unique_ptr<QDCommandPipe> m_pPipe; // never null; open while running
};
