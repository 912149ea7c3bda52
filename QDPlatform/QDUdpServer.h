#pragma once

#include <QDPlatform/QDExport.h>
#include <QDPlatform/QDSocketThread.h>

#include <sys/socket.h>

#include <memory>

class COutputLog;

// A UDP server on one port of all IPv4 addresses, which hands each datagram to its derived class.
//
// Derive, serve the datagrams in OnDatagramReceived(), StartSocketThread(). The server knows no peers and sends nothing
// by itself: the derived class answers with sendto() on the socket that it is given. Each datagram costs one pass of
// the loop and allocates nothing; what comes faster waits in the socket, or is lost there, as UDP has it.
// Thread: as CQDSocketThread; OnDatagramReceived() runs on the socket thread. PrintData() wherever the log may be used.
// Owns:   the socket while it runs, and the receive buffer. Borrows the log, which must outlive it. Stop the server
//         (StopSocketThread()) before the object is destroyed, at the latest in the derived class's destructor.
class QD_API CQDUdpServer : public CQDSocketThread
{
public:
    // Prints behind "UdpSvr@%hu" of the port. log: may be null, nothing is printed then. port: 0 has the system choose
    // one, which GetPort() does not tell. bufferSize: of the receive buffer in bytes, which is allocated here
    // (std::bad_alloc when that cannot be); what a datagram has beyond it is lost. 65507 takes every datagram whole;
    // with 0 only their senders are seen.
    CQDUdpServer(COutputLog* log, unsigned short port, unsigned int bufferSize);
    ~CQDUdpServer() override;

    // The port as it was given.
    unsigned short GetPort() const;

    // Prints a hex dump of `length` bytes at `data` (which may be null when there are none) as COutputLog::PrintData()
    // does, with the server's prefix, a colon, a blank and `title` as its title, cut at 255 bytes. Does nothing without
    // a log.
    void PrintData(const char* title, unsigned int length, const unsigned char* data);

protected:
    // Binds the socket, m_Sockets[0]. Returns false when that cannot be done. Prints every failure, as of "socket",
    // "bind" or "ioctl"; with the last one the socket is kept, though it blocks. A second socket on the same port is
    // such a failure.
    bool CreateSockets() override;

    // Receives one datagram and hands it to OnDatagramReceived(). A failure to receive is not printed.
    void OnSocketEvent(int socket) override;

    // A datagram has arrived. Socket thread: no other is received meanwhile.
    // socket: the server's, non-blocking, good for an answer. from, fromLength: the sender's address, a sockaddr_in.
    // data, length: what was received, cut at the buffer's size; `length` is 0 for an empty datagram, and `data` is
    // never null. Addresses and data are there during the call only.
    virtual void OnDatagramReceived(int socket, const sockaddr* from, unsigned int fromLength,
                                    const unsigned char* data, unsigned int length) = 0;

private:
    const unsigned short m_Port;
    const unsigned int m_BufferSize;
    const std::unique_ptr<unsigned char[]> m_pBuffer; // m_BufferSize bytes; socket thread
};
