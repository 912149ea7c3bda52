#pragma once

// Runs many URL transfers at once on one thread, and the sink through which it tells that some are complete.

#include <QDPlatform/QDAsyncUrlRequest.h>
#include <QDPlatform/QDCriticalSection.h>
#include <QDPlatform/QDExport.h>
#include <QDPlatform/QDTimestamp.h>

#include <curl/curl.h>
#include <pthread.h>
#include <sys/select.h>

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

class COutputLog;
class QDCommandPipe;

// What a user of QDAsyncUrlTransferThread derives from to be told what happens on the transfer thread.
//
// Thread: all operations are called on the transfer thread, which waits for them and holds no lock meanwhile. They may
//         queue and collect requests; they may not stop the thread.
class QD_API QDAsyncUrlTransferEvent
{
public:
    virtual ~QDAsyncUrlTransferEvent();

    // First on the new thread, before any transfer. Does nothing by default.
    virtual void OnAsyncUrlTransferThreadStart();

    // One pass of the loop has completed one or more requests, which wait in
    // QDAsyncUrlTransferThread::GetNextCompletedRequest(). Called once for all of them.
    virtual void OnAsyncUrlRequestsCompleted() = 0;

    // Last on the thread: its requests are deleted. Does nothing by default.
    virtual void OnAsyncUrlTransferThreadStop();

protected:
    QDAsyncUrlTransferEvent() = default;
    QDAsyncUrlTransferEvent(const QDAsyncUrlTransferEvent&) = default;
    QDAsyncUrlTransferEvent& operator=(const QDAsyncUrlTransferEvent&) = default;
};

// The thread that drives URL transfers: one libcurl multi handle and one select() for all of them.
//
// A request is queued with StartTransfer(), reported by the sink's OnAsyncUrlRequestsCompleted() and collected with
// GetNextCompletedRequest(). What goes wrong with a transfer stands in its request.
// A transfer whose socket is not below FD_SETSIZE cannot be waited for: it completes with CURLE_COULDNT_CONNECT and
// the error text "Socket %d is beyond FD_SETSIZE", which is printed too; the others go on. When libcurl needs the
// socket for handles of its own (CURLOPT_DOH_URL), it is only printed, and the transfer ends with its own time-out.
// A host name is looked up on a thread of libcurl's. Should the transfer time out or be cancelled meanwhile, libcurl
// waits for that thread, and all other transfers with it, unless the request has CURLOPT_QUICK_EXIT.
// Prints what it does, each line behind the prefix "AsyncUrl".
// Thread: StartTransfer(), GetNextCompletedRequest(), GetRequestCount(), IsThreadRunning() and SendThreadEvent() from
//         any thread, the sink's callbacks included. StartAsyncUrlTransferThread() and StopAsyncUrlTransferThread()
//         from one thread at a time. The one lock guards the requests, their last id and the user agent; it is free
//         whenever the sink is called, while libcurl acts on a socket or a time-out, and while requests are deleted. A
//         few lines are printed under it, so the log must not wait for another thread that uses this object.
// Owns:   the thread and its pipe while it runs; the requests that are not collected when the loop ends, which it
//         deletes. Borrows the sink, which must outlive the thread, and the log, which must outlive this object's use.
class QD_API QDAsyncUrlTransferThread
{
public:
    // Prepares libcurl for the whole process: once, before the first request is made and beside no other thread that
    // uses libcurl. A process whose transfers use TLS ignores SIGPIPE: with CURLOPT_NOSIGNAL, which every request sets,
    // libcurl leaves the signal alone, and a peer that closes early could end the process.
    static void InitialiseUrlTransferThread();

    // Undoes InitialiseUrlTransferThread(), after the last request is deleted.
    static void CleanupUrlTransferThread();

    // events: never null; first used by the thread.
    explicit QDAsyncUrlTransferThread(QDAsyncUrlTransferEvent* events);
    QDAsyncUrlTransferThread(const QDAsyncUrlTransferThread&) = delete;
    QDAsyncUrlTransferThread& operator=(const QDAsyncUrlTransferThread&) = delete;

    // Neither stops the thread nor deletes requests: the user stops the thread first.
    ~QDAsyncUrlTransferThread();

    // Starts the thread, and with it the requests that were queued while it did not run. Never while it runs
    // (asserted).
    // userAgent: for the requests that are queued from now on. log: may be null, then nothing is printed.
    // Returns false with errno set and nothing left open when the pipe (EMFILE also when it is not below FD_SETSIZE) or
    // the thread cannot be made; requests stay queued.
    // Prints "Start QDAsyncUrlTransferThread thread..." and "...AsyncServerLink thread started".
    bool StartAsyncUrlTransferThread(const std::string& userAgent, COutputLog* log);

    // Ends the loop and waits for the thread, without limit. Every request that is not collected, complete ones too, is
    // printed ("Cancelling request #%d"), taken from libcurl and deleted, on the transfer thread and before the sink's
    // OnAsyncUrlTransferThreadStop(). Does nothing when the thread does not run. Never on the transfer thread
    // (asserted). Needed also after the loop ended by itself, which it does when select() or the pipe fails. Prints
    // "Stop AsyncServerLink thread..." and "...AsyncServerLink thread stopped".
    void StopAsyncUrlTransferThread();

    // Whether the thread was started and not stopped since; true also when its loop has ended by itself.
    bool IsThreadRunning() const;

    // Queues a request and wakes the thread; never waits for it. The request gets the next id, from 1 on, and the
    // user agent. It is the thread's until GetNextCompletedRequest() returns it. One request is good for one transfer:
    // one that is complete before it is queued is returned as it is. While the thread does not run the request waits
    // for the next start, and has the user agent of the last one; none before the first. A request that is here already
    // only gets the new id: it is not started twice. One without an easy handle completes with GetMultiResultCode()
    // CURLM_BAD_EASY_HANDLE. request: never null (asserted), made with new. Prints "Queue Request #%d".
    void StartTransfer(QDAsyncUrlRequest* request);

    // Returns a request that is complete, which is the caller's from then on, to read and delete; null when there is
    // none. Of several, the one with the lowest address of its easy handle (without one, its own address), not the one
    // that was queued first.
    // A request that libcurl refused to add is complete, with GetMultiResultCode() set, but the sink hears of it only
    // together with a later one. Prints "Return Completed Request #%d".
    QDAsyncUrlRequest* GetNextCompletedRequest();

    // The requests that are queued, running, or complete and not collected. When the loop ends it becomes 0 at once,
    // while the requests are still being deleted.
    int GetRequestCount() const;

    // Wakes the thread with a command, of which only the low byte counts: 0 ends the loop, any other starts what is
    // queued and has libcurl see to the time-outs that are due. Commands act in the order sent; those behind a 0 are
    // dropped. Never waits; does nothing while the thread does not run. StartTransfer() and
    // StopAsyncUrlTransferThread() send the commands that they need themselves.
    void SendThreadEvent(int command);

private:
    // By the easy handle, as libcurl names a transfer; a request without one stands under its own address.
    using RequestMap = std::map<CURL*, QDAsyncUrlRequest*>;

    static void* LinuxThreadProc(void* thread);
    // An exception cannot pass through libcurl, which calls these two.
    static int curl_socket_callback(CURL* easy, int socket, int action, void* thread, void* socketData) noexcept;
    static int curl_timer_callback(CURLM* multi, long timeoutMs, void* thread) noexcept;
    void LinuxThreadMain();
    void ProcessThreadStart();
    void ProcessThreadStop();
    QD_LOCAL bool RunOnePass();
    bool ProcessPipeMessage();
    void ProcessStartNewTransfer();
    void ProcessTimeout();
    QD_LOCAL void ProcessReadySockets(const fd_set& ready, int limit, int readiness);
    void FindCompletedRequests();
    QD_LOCAL int FailUnwatchableTransfers();
    void CancelAllRequests();
    void RegisterCurlSocket(int socket, CURL* easy, int action);
    QD_LOCAL void RemoveCurlSocket(int socket);
    QD_LOCAL void ForgetSockets();
    QD_LOCAL void RemoveFromMulti(CURL* easy);
    QD_LOCAL bool CompleteRequest(CURL* easy, CURLcode result);
    QD_LOCAL void MoveRequest(QDAsyncUrlRequest::TransferState from, RequestMap::iterator position,
                              QDAsyncUrlRequest::TransferState to) QD_REQUIRES(m_Lock);
    QD_LOCAL RequestMap& GetRequests(QDAsyncUrlRequest::TransferState state) QD_REQUIRES(m_Lock);
    void PrintLog(const char* format, ...) QD_PRINTF_FORMAT(2, 3);

    mutable CQDCriticalSection m_Lock;
    QDAsyncUrlTransferEvent* const m_pEvents;
    std::string m_UserAgent QD_GUARDED_BY(m_Lock);  // of the last start
    std::atomic<COutputLog*> m_pOutputLog{nullptr}; // may be null
    std::atomic<bool> m_Running{false};             // started and not yet stopped, although the loop may have ended
    pthread_t m_Thread{};                           // valid while running; the starting and stopping thread's
    std::unique_ptr<QDCommandPipe> m_pPipe;         // never null; open while running
    std::atomic<bool> m_StopFoundNoRoom{false};     // the full pipe refused a stop command since the start

    // One map for each transfer state, so that nobody searches all requests for those in one state. A request is in the
    // map of its state.
    std::array<RequestMap, 3> m_Requests QD_GUARDED_BY(m_Lock);
    unsigned int m_LastRequestId QD_GUARDED_BY(m_Lock){0};

    // The rest is the transfer thread's alone; libcurl calls back on it.
    fd_set m_Sockets;                          // what libcurl uses, as far as it is below FD_SETSIZE
    fd_set m_WantedReadable;                   // those of them that are to be watched for reading
    fd_set m_WantedWritable;                   // likewise for writing
    std::map<int, CURL*> m_UnwatchableSockets; // from FD_SETSIZE on, and the easy handle that first used it
    CURLM* m_pMulti{nullptr};                  // null outside the thread's life
    CQDTimestamp m_NextTimeout;                // UTC; Never: none
    bool m_LoopActive{false};
    int m_RunningHandles{0};         // as libcurl last told
    std::vector<int> m_ReadySockets; // of the pass; grows by doubling and is kept between passes
};
