#include <QDPlatform/QDSocket.h>

#include <QDPlatform/QDString.h>

#include <sys/ioctl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <limits>

namespace
{

constexpr socklen_t kHostCapacity = 1025;
constexpr socklen_t kServiceCapacity = 32;

// The bytes as the name service wants them; a std::string ends them with a zero.
std::string Utf8Text(const std::string& text)
{
    const unsigned int size = static_cast<unsigned int>(text.size());
    const unsigned int length = qd_utf8len_of_qdchar(text.data(), size, std::numeric_limits<unsigned int>::max());
    std::string utf8(length, '\0');
    qd_utf8_from_qdchar(text.data(), size, reinterpret_cast<uint8_t*>(utf8.data()), length);
    return utf8;
}

} // namespace

QDSocket::QDSocket() = default;

QDSocket::QDSocket(int socket) : m_Socket(socket < 0 ? -1 : socket) {}

QDSocket::~QDSocket()
{
    CloseSocket();
}

void QDSocket::CloseSocket()
{
    if (m_Socket == -1)
        return;
    ::close(m_Socket); // never retried: the descriptor is gone whatever it returns
    m_Socket = -1;
}

void QDSocket::HardResetAndCloseSocket()
{
    if (m_Socket == -1)
        return;
    // Lingering for no time at all makes close() send a reset. Where that is refused, an orderly close has to do.
    const linger noTime{1, 0};
    ::setsockopt(m_Socket, SOL_SOCKET, SO_LINGER, &noTime, sizeof noTime);
    CloseSocket();
}

bool QDSocket::CreateSocket(int domain, int type, int protocol)
{
    const int created = ::socket(domain, type | SOCK_CLOEXEC, protocol);
    if (!KeepError(created))
        return false;
    CloseSocket();
    m_Socket = created;
    return true;
}

bool QDSocket::ShutdownSend()
{
    if (m_Socket == -1)
        return false;
    if (KeepError(::shutdown(m_Socket, SHUT_WR)) || m_LastError == EAGAIN)
        return true;
    CloseSocket();
    return false;
}

bool QDSocket::SetNonBlocking()
{
    return SetNonBlockingMode(1);
}

bool QDSocket::SetBlocking()
{
    return SetNonBlockingMode(0);
}

bool QDSocket::ConnectSocket(sockaddr* address, unsigned int length)
{
    return KeepError(::connect(m_Socket, address, length));
}

bool QDSocket::GetPeerName(sockaddr_storage& address, unsigned int& length)
{
    length = sizeof address;
    return KeepError(::getpeername(m_Socket, reinterpret_cast<sockaddr*>(&address), &length));
}

bool QDSocket::GetSocketName(sockaddr_storage& address, unsigned int& length)
{
    length = sizeof address;
    return KeepError(::getsockname(m_Socket, reinterpret_cast<sockaddr*>(&address), &length));
}

bool QDSocket::SetRecvTimeout(int milliseconds)
{
    return SetTimeoutOption(SO_RCVTIMEO, milliseconds);
}

bool QDSocket::SetSendTimeout(int milliseconds)
{
    return SetTimeoutOption(SO_SNDTIMEO, milliseconds);
}

bool QDSocket::CheckSocketError()
{
    int pending = 0;
    socklen_t size = sizeof pending;
    if (!KeepError(::getsockopt(m_Socket, SOL_SOCKET, SO_ERROR, &pending, &size)))
        return false;
    if (pending != 0)
        m_LastError = pending;
    return pending == 0;
}

int QDSocket::RecvData(void* buffer, unsigned int length)
{
    const ssize_t count = ::recv(m_Socket, buffer, length, 0);
    KeepError(static_cast<int>(count)); // the system moves less than 2 GiB at a time
    return static_cast<int>(count);
}

int QDSocket::SendData(const void* data, unsigned int length)
{
    const ssize_t count = ::send(m_Socket, data, length, MSG_NOSIGNAL);
    KeepError(static_cast<int>(count));
    return static_cast<int>(count);
}

int QDSocket::GetSocket() const
{
    return m_Socket;
}

int QDSocket::GetLastError() const
{
    return m_LastError;
}

int QDSocket::QDGetAddrInfo(const std::string& host, const std::string& service, const addrinfo* hints,
                            addrinfo** result, std::string& errorText)
{
    // The texts first: errorText may be one of them.
    const std::string hostText = Utf8Text(host.empty() ? "localhost" : host);
    const std::string serviceText = Utf8Text(service);
    errorText.clear();
    const int code = ::getaddrinfo(hostText.c_str(), serviceText.c_str(), hints, result);
    if (code == 0)
        return 0;
    *result = nullptr;
    errorText = ::gai_strerror(code);
    return code;
}

void QDSocket::QDGetNameInfo(const QDSocketAddress* address, unsigned int length, std::string& text)
{
    char host[kHostCapacity];
    char service[kServiceCapacity];
    const sockaddr* plain = address == nullptr ? nullptr : &address->m_Address;
    if (::getnameinfo(plain, length, host, sizeof host, service, sizeof service, NI_NUMERICHOST | NI_NUMERICSERV) !=
        0) {
        text = "Invalid";
        return;
    }
    text = host;
    text += ':';
    text += service;
}

bool QDSocket::SetNonBlockingMode(int on)
{
    return KeepError(::ioctl(m_Socket, FIONBIO, &on));
}

bool QDSocket::SetTimeoutOption(int option, int milliseconds)
{
    const timeval limit{milliseconds / 1000, (milliseconds % 1000) * 1000};
    return KeepError(::setsockopt(m_Socket, SOL_SOCKET, option, &limit, sizeof limit));
}

// Returns whether a system call's result means success; keeps errno when not.
bool QDSocket::KeepError(int result)
{
    if (result >= 0)
        return true;
    m_LastError = errno;
    return false;
}
