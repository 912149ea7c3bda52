#pragma once

// One connection of a TCP server, with the codes and records that it shares with the server.

#include <QDPlatform/QDExport.h>
#include <QDPlatform/QDRefCount.h>
#include <QDPlatform/QDTimestamp.h>

#include <netinet/in.h>
#include <sys/types.h>

#include <atomic>
#include <list>
#include <string>

class COutputLog;
class CQDTcpServer;
class CQDTcpServerLinkMessage;

// What a link's callback asks for. A value that is not listed keeps the link, except from OnTxComplete(), where every
// value but 0 and 1 closes it.
enum LinkCallbackResult : int
{
    LinkCallbackSuccess = 0,       // keep
    LinkCallbackWouldBlock = 1,    // keep; the socket had nothing to give or no room (EAGAIN)
    LinkCallbackPeerClosed = 2,    // close; prints "Socket closed" (level 1)
    LinkCallbackSocketError = 3,   // close; prints the error "Socket error %u" with the last read or write error
    LinkCallbackCloseSocket = 4,   // close, the protocol's own decision; prints "Close socket" (level 1)
    LinkCallbackProtocolError = 5, // close and count; prints "Protocol error" (level 1)
    LinkCallbackTlsError = 6       // close; prints "TLS error" (level 1)
};

// How much a TCP server, its workers and its links print. A level prints what the levels below it print, too.
enum TcpServerLinkLogging : int
{
    TcpServerLinkLoggingOff = 0,        // errors, and what has no level
    TcpServerLinkLoggingLifecycle = 1,  // made, started, stopped, closed
    TcpServerLinkLoggingDefault = 2,    // time-outs
    TcpServerLinkLoggingDetail = 4,     // every callback and every wake-up
    TcpServerLinkLoggingReferences = 5, // every AddRef and Release
    TcpServerLinkLoggingData = 6        // every byte read and written
};

// What a server tells a new link about its connection. Valid during CQDTcpServer::CreateLink(); the link's constructor
// copies what it keeps.
struct TcpServerLinkCreateContext
{
    COutputLog* m_pOutputLog{nullptr};
    CQDTcpServer* m_pServer{nullptr};
    const char* m_pServerName{nullptr}; // the server's own text
    unsigned int m_LinkId{0};
    std::string m_PeerAddressText; // numeric, without the port
    int m_Socket{-1};              // the accepted descriptor
    TcpServerLinkLogging m_LoggingLevel{TcpServerLinkLoggingDefault};
    unsigned int m_PeerAddressLength{sizeof(sockaddr_in6)}; // bytes of m_PeerAddress in use
    sockaddr_in6 m_PeerAddress{};                           // a sockaddr_in when its family is AF_INET
};

// One accepted connection of a CQDTcpServer. A protocol derives from it and implements the callbacks.
//
// The callbacks decide about the connection by their result; closing calls OnDisconnect() and then sends a reset,
// except after an OnTxComplete() result of LinkCallbackCloseSocket, which closes in an orderly way. A callback must not
// block: all links of a worker wait for it. A time-out that has passed comes again until it is set anew.
// Thread: AddRef(), Release(), GetLinkId(), GetServer(), GetPeerAddress(), GetLinkLogging(), GetSocket() and
//         IsWriteModeEnabled() from any thread that holds a reference. OnConnect() runs on the server's socket thread,
//         every other callback on the link's worker thread, one at a time and with no library lock held; everything
//         else is for the callbacks.
// Owns:   the socket while it is open, though the destructor does not close it. Borrows the log and the server.
// Counted: starts at 0 references; the last Release() deletes the object.
class QD_API CQDTcpServerLink
{
public:
    // Prints "Created" (level 1) behind the prefix "%s %u" of server name and link id, which is cut at 31 bytes.
    explicit CQDTcpServerLink(const TcpServerLinkCreateContext& context);

    CQDTcpServerLink(const CQDTcpServerLink&) = delete;
    CQDTcpServerLink& operator=(const CQDTcpServerLink&) = delete;

    // Prints "Deleted" (level 1).
    virtual ~CQDTcpServerLink();

protected:
    // The connection was accepted. LinkCallbackSuccess or LinkCallbackWouldBlock keeps it; any other value closes the
    // socket without OnDisconnect(). Returns success by default.
    virtual LinkCallbackResult OnConnect();

    // Data can be read, or the peer has closed: read with ReadData().
    virtual LinkCallbackResult OnRxData() = 0;

    // Data can be written: go on writing, then DisableWriteMode(). Called in write mode only, though once more after an
    // OnRxData() of the same pass has left it.
    virtual LinkCallbackResult OnTxComplete() = 0;

    // The time-out has passed; `now` is UTC. Set a new one or switch it off. Returns success by default.
    virtual LinkCallbackResult OnTimeout(const CQDTimestamp& now);

    // A posted message. The callee owns it and deletes it.
    virtual LinkCallbackResult OnMessage(CQDTcpServerLinkMessage* message) = 0;

    // The socket is about to be closed; it is still open. Does nothing by default.
    virtual void OnDisconnect();

public:
    // Takes a reference. Prints "AddRef, RefCount = %ld" (level 5).
    void AddRef();

    // Gives a reference back and deletes the object with the last. Prints "Release, RefCount = %ld" (level 5).
    void Release();

    // Reads what is there, at most `size` bytes (above 0).
    // Returns success with the number of bytes in `count`; would-block (EAGAIN), peer-closed, or socket-error (see
    // GetLastReadWriteDataError()) with `count` left as it was. Prints the bytes at level 6 under "%s Rx" of the
    // prefix.
    LinkCallbackResult ReadData(void* buffer, unsigned int size, unsigned int& count);

    // Writes what fits, at most `size` bytes (above 0). Results as ReadData(), bytes printed under "%s Tx". Success
    // with a smaller `count` is a partial write: keep the rest, EnableWriteMode() and go on in OnTxComplete().
    LinkCallbackResult WriteData(const void* data, unsigned int size, unsigned int& count);

    // The errno of the last ReadData() or WriteData(); 0 when it succeeded or the peer had closed.
    int GetLastReadWriteDataError() const;

    // From the worker's next pass on: OnTxComplete() whenever the socket takes data / not any more.
    void EnableWriteMode();
    void DisableWriteMode();
    bool IsWriteModeEnabled() const;

    // Calls OnTimeout() once `time` (UTC) has passed and the worker's sockets are quiet. CQDTimestamp::Never switches
    // the time-out off.
    void SetTimeout(const CQDTimestamp& time);

    // Never until set. For the link's own thread.
    const CQDTimestamp& GetTimeout() const;

    // When OnRxData() was last called, UTC; tick 0 before. For the link's own thread.
    const CQDTimestamp& GetLastReceiveTime() const;

    // Unique within the server's live links, from 1.
    unsigned int GetLinkId() const;

    // -1 once closed.
    int GetSocket() const;

    CQDTcpServer* GetServer() const;

    // Numeric, without the port; "Unknown address" when it could not be had.
    const std::string& GetPeerAddress() const;

    TcpServerLinkLogging GetLinkLogging() const;

    // Switches the socket to non-blocking. A failure prints the error "ioctl() failed, error %d".
    void SetNonBlocking();

    // Calls OnDisconnect(), prints "Close socket handle" (level 1) and closes; with `hardReset` the peer gets a reset.
    // Does nothing on a closed link, or from within OnDisconnect(). The worker calls it for every closing result; a
    // link that calls it itself is removed after that callback.
    void CloseSocket(bool hardReset);

    // What the worker calls. Each prints "Call OnRxData" and the like (level 4), runs the callback and processes its
    // result. Returns true when the link must be closed...
    bool CallOnRxData(); // also stamps the last receive time
    bool CallOnTimeout(const CQDTimestamp& now);

    // ...except here: the callback's own result comes back, for the worker closes in an orderly way after a 4.
    LinkCallbackResult CallOnTxComplete();

    // Prints "Call OnMessage" (level 4) once and hands every message to OnMessage(), also those after one that asked to
    // close. The messages are OnMessage()'s; the list is left empty.
    bool DispatchMessages(std::list<CQDTcpServerLinkMessage*>& messages);

    // Prints and counts as listed at LinkCallbackResult. Returns true for the values 2 to 6, which close the link.
    bool ProcessLinkCallbackResult(LinkCallbackResult result);

    // Prints an information line behind the link's prefix when the link's level is at least `level`.
    void PrintLog(TcpServerLinkLogging level, const char* format, ...) QD_PRINTF_FORMAT(3, 4);

    // Prints an error line behind the link's prefix at every level.
    void PrintError(const char* format, ...) QD_PRINTF_FORMAT(2, 3);

protected:
    COutputLog* const m_pOutputLog; // not owned, may be null

private:
    friend class CQDTcpServer; // OnConnect(), RefuseSocket()

    // Closes the socket of a link that OnConnect() refused, without OnDisconnect().
    QD_LOCAL void RefuseSocket();

    QD_LOCAL LinkCallbackResult FinishTransfer(ssize_t result, const void* data, const char* direction,
                                               unsigned int& count);
    QD_LOCAL COutputLog* GetReferenceLog() const;

    CQDTcpServer* const m_pServer; // not owned
    const unsigned int m_LinkId;
    const std::string m_PeerAddress;
    std::atomic<int> m_Socket;
    const TcpServerLinkLogging m_LoggingLevel;
    CQDRefCount m_RefCount;
    int m_LastReadWriteDataError{0}; // worker thread
    std::atomic<bool> m_WriteMode{false};
    bool m_Closing{false}; // worker thread; OnDisconnect() is running
    unsigned int m_LogPrefixLength;
    char m_LogPrefix[32];
    CQDTimestamp m_LastReceiveTime;              // worker thread
    CQDTimestamp m_Timeout{CQDTimestamp::Never}; // worker thread
};
