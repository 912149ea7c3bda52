#pragma once

#include <QDPlatform/QDExport.h>

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>

// The address of a socket of any family, viewable as the types that the system calls and the two IP families use.
//
// Says nothing about its own length, which travels beside it as an unsigned int. `QDSocketAddress address{};` is all
// zero.
union QDSocketAddress
{
    sockaddr_storage m_Storage;
    sockaddr m_Address;
    sockaddr_in m_IPv4;
    sockaddr_in6 m_IPv6;
};

static_assert(sizeof(QDSocketAddress) == 128, "a socket address is a sockaddr_storage");

// Owns one socket descriptor, closes it, and remembers the last error of its own calls.
//
// Operations that return bool return true on success; on failure they keep errno as the last error. So do all of them,
// with EBADF, when no socket is open. Nothing is logged: callers read the last error and report it themselves.
// Thread: one at a time. A blocking socket blocks the caller in ConnectSocket(), RecvData() and SendData(); a signal
//         ends the wait with EINTR, which is reported like any other error.
// Owns:   the descriptor.
class QD_API QDSocket
{
public:
    // No socket, last error 0.
    QDSocket();

    // Takes ownership of an open descriptor, of an accepted connection for example; its flags stay as they are. A
    // negative number means none. Last error 0.
    explicit QDSocket(int socket);

    QDSocket(const QDSocket&) = delete;
    QDSocket& operator=(const QDSocket&) = delete;

    // CloseSocket().
    ~QDSocket();

    // Closes the socket in an orderly way: data that was sent is still delivered. Does nothing when none is open.
    void CloseSocket();

    // Closes the socket with a reset, which the peer sees as ECONNRESET; data under way may be lost. Does nothing when
    // none is open.
    void HardResetAndCloseSocket();

    // Opens a socket (socket(2)), close-on-exec whatever `type` says. One that this object already owns is closed, but
    // only when the new one could be made.
    bool CreateSocket(int domain, int type, int protocol);

    // Tells the peer that nothing more will be sent; receiving goes on. Returns false at once, and leaves the last
    // error alone, when no socket is open. After EAGAIN, which is kept as the last error, the result is true and the
    // socket stays open; any other failure closes the socket.
    bool ShutdownSend();

    // Calls that would have to wait fail instead, with EAGAIN or EINPROGRESS / wait. A new socket waits.
    bool SetNonBlocking();
    bool SetBlocking();

    // Connects to `address`, `length` bytes long. On a non-blocking socket the result is false and the last error
    // EINPROGRESS while the connection is being made: when the socket is writable, CheckSocketError() tells the
    // outcome.
    bool ConnectSocket(sockaddr* address, unsigned int length);

    // The address of the other end / of this end. `length` becomes its length in bytes, or 128 on failure;
    // QDGetNameInfo() makes a text of it.
    bool GetPeerName(sockaddr_storage& address, unsigned int& length);
    bool GetSocketName(sockaddr_storage& address, unsigned int& length);

    // The longest wait of RecvData() / SendData(), after which they fail with EAGAIN. 0 waits without limit, as a new
    // socket does.
    bool SetRecvTimeout(int milliseconds);
    bool SetSendTimeout(int milliseconds);

    // Takes the socket's pending error: the outcome of a non-blocking connect, or what made select() flag the socket.
    // Returns true when there is none; otherwise false, with the pending error as the last error. Asked again, the same
    // error is gone.
    bool CheckSocketError();

    // Receives up to `length` bytes. Returns their count; 0 when the peer has closed; a negative number on failure.
    int RecvData(void* buffer, unsigned int length);

    // Sends up to `length` bytes. Returns how many were taken, which may be fewer; a negative number on failure. A
    // peer that is gone is EPIPE, never the signal SIGPIPE.
    int SendData(const void* data, unsigned int length);

    // -1 when none is open. Stays this object's.
    int GetSocket() const;

    // errno of the last call of this object that failed; a success does not clear it.
    int GetLastError() const;

    // Resolves host and service names or numbers, in UTF-8 (getaddrinfo(3)); blocks while name servers are asked. An
    // empty host means "localhost". `hints` may be null. Each text ends at its first NUL.
    // Returns 0 with the list in *result, which the caller must give to freeaddrinfo(), and an empty errorText; or an
    // EAI_ code with *result null and gai_strerror()'s text in errorText. Thread: any.
    static int QDGetAddrInfo(const std::string& host, const std::string& service, const addrinfo* hints,
                             addrinfo** result, std::string& errorText);

    // Sets `text` to an address, `length` bytes long, in figures: host, ":" and port, without brackets around an IPv6
    // host (::1 and port 8080 read ::1:8080); "Invalid" for what is no such address. Asks no name server. Thread: any.
    static void QDGetNameInfo(const QDSocketAddress* address, unsigned int length, std::string& text);

private:
    QD_LOCAL bool SetNonBlockingMode(int on);
    QD_LOCAL bool SetTimeoutOption(int option, int milliseconds);
    QD_LOCAL bool KeepError(int result);

    int32_t m_Socket{-1};
    int32_t m_LastError{0};
};
