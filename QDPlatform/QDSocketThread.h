#pragma once

#include <QDPlatform/QDExport.h>

#include <pthread.h>

#include <atomic>
#include <memory>

class COutputLog;
class QDCommandPipe;

// The select loop of a server, on a thread of its own, over up to two listening or bound sockets.
//
// Derive, open the sockets in CreateSockets(), serve them in OnSocketEvent(). Every step and every failure is printed
// through the log, with the prefix that the derived class sets. A signal during the wait does not end the loop.
// Thread: TriggerServerEvent() and BeginSocketServerShutdown() from any thread; the other public operations from the
//         server's owner, never from the socket thread. Which thread runs a callback is said with it.
// Owns:   the sockets, the thread and its command pipe while it runs; not the log, which must outlive the object. Stop
//         the server before the object is destroyed: the destructor does not.
class QD_API CQDSocketThread
{
public:
    // Not running, no sockets, no prefix. `log` may be null: nothing is printed then.
    explicit CQDSocketThread(COutputLog* log);

    CQDSocketThread(const CQDSocketThread&) = delete;
    CQDSocketThread& operator=(const CQDSocketThread&) = delete;
    virtual ~CQDSocketThread();

    // Not while running.
    void SetOutputLog(COutputLog* log);

    // Opens the sockets and starts the thread. Prints "Starting thread...".
    // Returns false, the reason printed and nothing left open, when a socket, the pipe or the thread cannot be made, a
    // descriptor is not below FD_SETSIZE (EMFILE), or the thread runs already.
    bool StartSocketThread();

    // Prints "Stopping thread...", tells the thread to stop, waits for it without limit and closes the sockets. Only
    // prints when not running.
    void StopSocketThread();

    // Prints "Sending shutdown command" and sends it (255). Does not wait for the thread; blocks while the pipe is
    // full.
    void BeginSocketServerShutdown();

    // Waits for the thread to end, at most `milliseconds`. Returns true once it was joined, and when not running. Never
    // from the socket thread (asserted).
    bool WaitForSocketServerShutdown(int milliseconds);

    // Closes the sockets and the pipe and calls OnSocketThreadStopped(). Prints "Delete stopped TCP Server...",
    // whatever the kind of server. Only after WaitForSocketServerShutdown() returned true (asserted): it does not join.
    void DeleteStoppedSocketServer();

    // True from a successful start until DeleteStoppedSocketServer() is done. Any thread.
    bool IsSocketServerRunning() const;

    // Sends the low eight bits of `event` to OnSocketThreadEvent(). 255 stops the thread, so events are 0 to 254.
    // Blocks while the pipe is full, so a callback of the loop must send few; does nothing when not running.
    void TriggerServerEvent(int event);

    // Prints an information line behind the prefix. Cut as COutputLog::PrefixedPrintInfoVA cuts.
    void PrintLog(const char* format, ...) QD_PRINTF_FORMAT(2, 3);

    // Prints "%s() failed. Error %u: %s" with the function, the errno value and its text.
    void PrintSocketError(int error, const char* function);

protected:
    // Opens the sockets: fills m_Sockets and m_SocketCount. Runs on the starting thread. False makes the start fail.
    virtual bool CreateSockets() = 0;

    // First on the socket thread. Does nothing by default.
    virtual void OnSocketThreadStart();

    // The deadline of the next OnSocketThreadTimeout(), in ticks of CQDTimestamp; asked before every wait, on the
    // socket thread. `now` is UTC. Returns CQDTimestamp::Never by default; a time that is not later than `now` polls.
    virtual long long GetNextSocketThreadTimeout(long long now);

    // The deadline has passed. Socket thread. Does nothing by default.
    virtual void OnSocketThreadTimeout();

    // A command, 0 to 254. Socket thread. Does nothing by default. The loop prints "Thread Rx invalid command %d" after
    // each one, handled or not (see EveryEventIsPrintedAsInvalidAfterItsCallback).
    virtual void OnSocketThreadEvent(int event);

    // `socket`, one of m_Sockets, is readable. Socket thread.
    virtual void OnSocketEvent(int socket) = 0;

    // The loop has ended. Last on the socket thread. Does nothing by default.
    virtual void OnSocketThreadExit();

    // The thread has ended and the sockets are closed. Runs on the stopping thread. Does nothing by default.
    virtual void OnSocketThreadStopped();

    // Closes all sockets of the array and empties it. From a callback, or while no thread runs.
    void CloseSockets();

    // Rests the socket thread, from one of its callbacks, until a command waits or `milliseconds` have passed.
    void PauseUntilCommand(int milliseconds);

    COutputLog* m_pOutputLog;          // not owned; set before the start
    char m_LogPrefix[32];              // set before the start
    unsigned int m_LogPrefixLength{0}; // characters of m_LogPrefix in use; 0: no prefix

private:
    static void* PosixThreadProc(void* thread);
    void ThreadMain();
    QD_LOCAL bool RunOnePass();
    QD_LOCAL bool ProcessCommand();
    QD_LOCAL bool SocketsFitDescriptorSet() const;

    std::atomic<bool> m_Running{false};
    bool m_Joined{false}; // owner's thread
    pthread_t m_Thread{};
    std::unique_ptr<QDCommandPipe> m_pPipe; // never null; open while running

protected:
    int m_SocketCount{0};     // 0 to 2; starting thread, then socket thread, then stopping thread
    int m_Sockets[2]{-1, -1}; // likewise
};
