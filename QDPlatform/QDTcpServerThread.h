#pragma once

#include <QDPlatform/QDCriticalSection.h>
#include <QDPlatform/QDExport.h>
#include <QDPlatform/QDRefCount.h>
#include <QDPlatform/QDTcpServerLink.h>

#include <pthread.h>
#include <sys/select.h>

#include <atomic>
#include <list>
#include <map>
#include <memory>

class COutputLog;
class CQDTcpServer;
class CQDTcpServerLinkMessage;
class QDCommandPipe;

// A worker thread of a CQDTcpServer: the select loop over up to 64 links, their time-outs and their messages.
//
// Made, started and stopped by the server. Links are served in ascending id order. Time-outs are looked at only when a
// wait ends without any other event: a worker whose sockets stay busy serves them later. One command is taken in each
// pass of the loop.
// Thread: AddRef(), Release(), PostLinkMessage(), GetLinkCount(), ThreadHasSpareCapacity(), GetThreadNumber() from any
//         thread that holds a reference; AddLink(), StartThread(), TellThreadToStop(), WaitForThreadToStop() from the
//         server; CloseAndDeleteLink(), CloseAllLinks(), CallOnTxCompleteForLink() on the worker's own thread, or while
//         it does not run. The lock is never held while a link's callback runs or the server is called.
// Owns:   its thread and command pipe while it runs, a reference to each of its links, and the messages not yet
//         delivered to them. Borrows the log and the server.
// Counted: starts at 0 references; the last Release() deletes the object.
class QD_API CQDTcpServerThread
{
public:
    // The most links that one worker can serve.
    static constexpr unsigned int kMaximumLinks = 64;

    // threadNumber: for the log prefix "TCPThread %u". linkLimit: held at 64 if above. Prints "Created" (level 1).
    CQDTcpServerThread(COutputLog* log, CQDTcpServer* server, unsigned int threadNumber, unsigned int linkLimit,
                       TcpServerLinkLogging logging);

    CQDTcpServerThread(const CQDTcpServerThread&) = delete;
    CQDTcpServerThread& operator=(const CQDTcpServerThread&) = delete;

    // Prints "Deleted" (level 1).
    ~CQDTcpServerThread();

    // Takes a reference. Prints "AddRef, RefCount = %ld" (level 5).
    void AddRef();

    // Gives a reference back and deletes the object with the last. Prints "Release, RefCount = %ld" (level 5).
    void Release();

    // Whether the worker takes another link: it has fewer than its limit, and its loop has not ended.
    bool ThreadHasSpareCapacity();

    // Always 0. The server orders its workers by it, so their order stays as it is and every new link goes to the
    // newest worker (see NewLinksGoToTheNewestWorkerUntilItIsFull).
    unsigned int GetLinkCount() const;

    // From 1 upwards.
    unsigned int GetThreadNumber() const;

    // Takes a reference to the link, makes its socket non-blocking and serves it from the next pass on. Returns false,
    // with nothing changed, when it cannot be served: the loop has ended, 64 links are served already, or the socket is
    // closed or not below FD_SETSIZE.
    bool AddLink(CQDTcpServerLink* link);

    // Queues a message for the link that it names. Returns false when the worker has no such link; the message is then
    // still the caller's.
    bool PostLinkMessage(CQDTcpServerLinkMessage* message);

    // Prints "Starting TCP thread..." and "...TCP thread started" (level 1). Returns false with errno set and nothing
    // left open when the pipe (EMFILE also when it is not below FD_SETSIZE) or the thread cannot be made; and, nothing
    // changed, EBUSY when it runs already.
    bool StartThread();

    // Prints "Stop TCP Thread..." (level 1) and tells the loop to end. Does nothing when not running.
    void TellThreadToStop();

    // Waits for the thread to end, without limit, and closes the pipe. Prints "Wait for TCP thread to stop..." and
    // "...TCP thread stopped" (level 1). Does nothing when not running. Never from the worker's own thread (asserted).
    void WaitForThreadToStop();

    // Closes the link and takes it out of the worker's and the server's tables; messages still queued for it are
    // deleted. The link may be gone afterwards. Not for a link whose callback is running: that returns a closing
    // result.
    void CloseAndDeleteLink(CQDTcpServerLink* link, bool hardReset);

    // Closes every link with a reset, gives up the worker's references and deletes the messages still queued. The
    // server's table is not touched.
    void CloseAllLinks();

    // Runs the link's OnTxComplete() and closes the link for every result but 0 and 1, in an orderly way for 4 and with
    // a reset for the others. Returns true when the link was closed.
    bool CallOnTxCompleteForLink(CQDTcpServerLink* link);

private:
    using MessageQueue = std::list<CQDTcpServerLinkMessage*>;

    // One link served.
    struct LinkEntry
    {
        CQDTcpServerLink* m_pLink; // one reference
        MessageQueue m_Messages;   // owned, in arrival order
    };

    using LinkMap = std::map<unsigned int, LinkEntry>;

    static void* PosixThreadProc(void* thread);
    QD_LOCAL static void DeleteMessages(MessageQueue& messages);
    void ThreadMain();
    QD_LOCAL bool RunOnePass();
    QD_LOCAL int CollectLinks(fd_set& readable, fd_set& writable, CQDTimestamp& earliest);
    QD_LOCAL void ServeLinks(const fd_set& readable, const fd_set& writable);
    QD_LOCAL void ServeTimeouts();
    QD_LOCAL bool ServeCommand();
    QD_LOCAL bool ExecuteCommand(unsigned char command);
    void DispatchLinkMessages();
    QD_LOCAL void RemoveClosedLinks();
    QD_LOCAL void ForgetInThisPass(const CQDTcpServerLink* link);
    void SendThreadLinkChangeEvent();
    void SendThreadPostLinkMessageEvent();
    QD_LOCAL void SendCommand(unsigned char command);
    QD_LOCAL COutputLog* GetReferenceLog() const;
    void PrintLog(TcpServerLinkLogging level, const char* format, ...) QD_PRINTF_FORMAT(3, 4);

    COutputLog* const m_pOutputLog; // may be null
    CQDTcpServer* const m_pServer;
    const unsigned int m_ThreadNumber;
    const unsigned int m_LinkLimit;
    const TcpServerLinkLogging m_LoggingLevel;
    CQDRefCount m_RefCount;
    LinkMap m_Links QD_GUARDED_BY(m_Lock);
    bool m_LoopHasEnded QD_GUARDED_BY(m_Lock){false}; // no link and no message is taken any more
    CQDCriticalSection m_Lock;
    const unsigned int m_LinkCount{0};
    std::atomic<bool> m_Running{false};
    pthread_t m_Thread{};
    std::unique_ptr<QDCommandPipe> m_pPipe;             // never null; open while running
    std::atomic<unsigned int> m_CommandsWithoutRoom{0}; // bit n: command n found the pipe full
    unsigned int m_LogPrefixLength;
    char m_LogPrefix[32];

    // The links of the current pass, for the worker's thread only. They are the table's, not counted here: only this
    // thread takes links out of the table, and then it clears the place here.
    CQDTcpServerLink* m_PassLinks[kMaximumLinks];
    unsigned int m_PassLinkCount{0};
};
