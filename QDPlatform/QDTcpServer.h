#pragma once

#include <QDPlatform/QDCriticalSection.h>
#include <QDPlatform/QDExport.h>
#include <QDPlatform/QDRefCount.h>
#include <QDPlatform/QDSocketThread.h>
#include <QDPlatform/QDTcpServerLink.h>

#include <atomic>
#include <list>
#include <map>
#include <string>
#include <vector>

class CQDTcpServerLinkMessage;
class CQDTcpServerThread;
union QDSocketAddress;

// A TCP server for any number of connections: a listening thread, and worker threads that are made as links come.
//
// Derive, make your links in CreateLink(), StartTcpServer(). Each accepted connection becomes a link with an id of its
// own, which stays with one worker until it is closed. Every worker serves up to the links-per-thread limit.
// Thread: PostLinkMessage(), BroadcastLinkMessage(), GetLinkCount(), GetAllLinks(), IncrementProtocolErrorCount(), the
//         two protocol-error and logging accessors, and RemoveLink() from any thread; StartTcpServer(), StopTcpServer()
//         and CloseAllLinks() from the owner's threads, never from a callback of the server or a link.
// Owns:   the listening sockets, the workers, and one reference to each link. Borrows the log, which must outlive it.
//         Stop the server before the object is destroyed.
class QD_API CQDTcpServer : public CQDSocketThread
{
public:
    // name: first part of every link's log prefix, cut at 31 bytes. linksPerThread: held at 64 if above. enableIPv6:
    // listens on the IPv6 wildcard address besides the IPv4 one. The server's own log prefix is "TcpSvr@%hu" of the
    // port.
    CQDTcpServer(COutputLog* log, const char* name, unsigned short port, unsigned int linksPerThread, bool enableIPv6);
    ~CQDTcpServer() override;

    // Listens and accepts. Returns false, the reasons printed, when no listening socket could be made or the thread
    // could not be started; with IPv6 enabled one of the two sockets is enough.
    bool StartTcpServer();

    // Ends the listener and every worker, closes all links with a reset and releases them. Waits without limit for the
    // callbacks that are running. Safe before a start, after a failed one, and twice.
    void StopTcpServer();

    // Hands a message to the link that it names. The server owns the message from the call on, whatever the result.
    // Returns whether it was queued; one that was not (no such link any more) is deleted. A queued message is deleted
    // unread when its link goes first. Null is not queued.
    bool PostLinkMessage(CQDTcpServerLinkMessage* message);

    // Hands a copy of the message (CloneMessage()) to every link. The message itself stays the caller's.
    void BroadcastLinkMessage(CQDTcpServerLinkMessage* message);

    // Prints "Close all links", then ends every worker; each closes its links with a reset. The server goes on
    // accepting if it runs.
    void CloseAllLinks();

    unsigned int GetLinkCount();

    // Appends every link, in id order, with a reference that the caller must give back with Release(). Prints
    // "GetLinks m_Links.size() = %u".
    void GetAllLinks(std::list<CQDTcpServerLink*>& links);

    // Called by links for a LinkCallbackProtocolError.
    void IncrementProtocolErrorCount();

    // Since construction.
    unsigned int GetProtocolErrorCount() const;

    // Takes a link out of the server's table and gives the table's reference back. Prints "Remove link %d" (level 5),
    // and "Link %d already removed from server list" when it was not there. Called by workers.
    void RemoveLink(CQDTcpServerLink* link);

    unsigned short GetPort() const;

    // What workers and links made from now on print. TcpServerLinkLoggingDefault after construction.
    void SetLinkLogging(TcpServerLinkLogging level);
    TcpServerLinkLogging GetLinkLogging() const;

protected:
    // Opens the listening sockets. Prints "Create IPv4 listen socket on port %hu" and its like, and every failure.
    bool CreateSockets() override;

    // Accepts one connection.
    void OnSocketEvent(int socket) override;

    // Ends the workers.
    void OnSocketThreadExit() override;

    // Releases the links that are still in the table. Prints "Releasing %d remaining links..." if there are any.
    void OnSocketThreadStopped() override;

    // Makes the derived server's link for an accepted connection. Returns null to refuse the connection. The server
    // takes over the new object, which has no reference yet. Socket thread.
    virtual CQDTcpServerLink* CreateLink(TcpServerLinkCreateContext& context) = 0;

    // A link was handed to a worker, or refused by its OnConnect() (its socket is then -1). The worker may have closed
    // it already. Socket thread. Does nothing by default.
    virtual void OnLinkAssignedToWorkerThread(CQDTcpServerLink* link);

    // A worker's loop has ended and its links are closed. On the worker's thread. Does nothing by default.
    virtual void OnLinkThreadStop(CQDTcpServerThread* thread);

    // Writes the numeric address without the port, or "Unknown address".
    void FormatSocketAddress(const QDSocketAddress* address, unsigned int length, std::string& text);

    // Tells every worker to stop, then waits for each one and releases it.
    void StopTcpThreads();

private:
    friend class CQDTcpServerThread; // OnLinkThreadStop(), RemoveLinkById()

    // One live link.
    struct LinkEntry
    {
        CQDTcpServerLink* m_pLink;     // one reference
        CQDTcpServerThread* m_pThread; // not counted; null once the worker is gone
    };

    using ThreadVector = std::vector<CQDTcpServerThread*>;

    static bool SortThreads(const CQDTcpServerThread* a, const CQDTcpServerThread* b);
    int CreateListenSocket(int family);
    QD_LOCAL void AddListenSocket(int socket);
    QD_LOCAL int AcceptConnection(int listenSocket, TcpServerLinkCreateContext& context);
    QD_LOCAL void OnAcceptFailed(int listenSocket, int error);
    QD_LOCAL void OpenSpareDescriptor();
    QD_LOCAL void CloseSpareDescriptor();
    QD_LOCAL unsigned int TakeNextLinkId();
    QD_LOCAL bool PlaceLink(CQDTcpServerLink* link);
    CQDTcpServerThread* FindThreadWithSpareCapacity() QD_REQUIRES(m_ThreadsLock);
    QD_LOCAL CQDTcpServerThread* StartNewThread() QD_REQUIRES(m_ThreadsLock);
    QD_LOCAL void ForgetThread(const CQDTcpServerThread* thread);
    QD_LOCAL void ReleaseLinksWithoutWorker();
    QD_LOCAL void RemoveLinkById(unsigned int linkId);

    char m_ServerName[32];
    const unsigned short m_Port;
    const unsigned int m_LinksPerThread;
    const bool m_IPv6Enabled;
    std::atomic<TcpServerLinkLogging> m_LoggingLevel{TcpServerLinkLoggingDefault};
    unsigned int m_LastLinkId{0}; // socket thread
    unsigned int m_LastThreadNumber QD_GUARDED_BY(m_ThreadsLock){0};
    std::map<unsigned int, LinkEntry> m_Links QD_GUARDED_BY(m_Lock); // by link id
    ThreadVector m_Threads QD_GUARDED_BY(m_ThreadsLock);             // newest first; one reference each
    CQDCriticalSection m_Lock;                                       // never held while a worker's lock is taken
    CQDCriticalSection m_StopLock;    // before every other; held while workers are joined, no callback may need it
    CQDCriticalSection m_ThreadsLock; // before m_Lock and the workers' locks; not while joining
    CQDRefCount m_ProtocolErrorCount;
    int m_SpareDescriptor{-1}; // starting, socket, stopping thread; given up to refuse a caller when none is left
    bool m_AcceptFailureLogged{false}; // socket thread; out of descriptors, and said so
};
