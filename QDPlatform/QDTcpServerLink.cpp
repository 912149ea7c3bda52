#include <QDPlatform/QDTcpServerLink.h>

#include <QDPlatform/COutputLog.h>
#include <QDPlatform/QDReferenceLog.h>
#include <QDPlatform/QDString.h>
#include <QDPlatform/QDTcpServer.h>
#include <QDPlatform/QDTcpServerLinkMessage.h>

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

CQDTcpServerLink::CQDTcpServerLink(const TcpServerLinkCreateContext& context) :
    m_pOutputLog(context.m_pOutputLog),
    m_pServer(context.m_pServer),
    m_LinkId(context.m_LinkId),
    m_PeerAddress(context.m_PeerAddressText),
    m_Socket(context.m_Socket),
    m_LoggingLevel(context.m_LoggingLevel)
{
    // The result is no length when the prefix was cut, so the length is taken from the text.
    qd_sprintf(m_LogPrefix, sizeof m_LogPrefix, "%s %u", context.m_pServerName, m_LinkId);
    m_LogPrefixLength = static_cast<unsigned int>(std::strlen(m_LogPrefix));
    PrintLog(TcpServerLinkLoggingLifecycle, "Created");
}

CQDTcpServerLink::~CQDTcpServerLink()
{
    PrintLog(TcpServerLinkLoggingLifecycle, "Deleted");
}

LinkCallbackResult CQDTcpServerLink::OnConnect()
{
    return LinkCallbackSuccess;
}

LinkCallbackResult CQDTcpServerLink::OnTimeout(const CQDTimestamp&)
{
    return LinkCallbackSuccess;
}

void CQDTcpServerLink::OnDisconnect() {}

void CQDTcpServerLink::AddRef()
{
    qd_add_reference(m_RefCount, GetReferenceLog(), m_LogPrefix, m_LogPrefixLength);
}

void CQDTcpServerLink::Release()
{
    if (qd_release_reference(m_RefCount, GetReferenceLog(), m_LogPrefix, m_LogPrefixLength))
        delete this;
}

LinkCallbackResult CQDTcpServerLink::ReadData(void* buffer, unsigned int size, unsigned int& count)
{
    return FinishTransfer(::recv(m_Socket.load(), buffer, size, 0), buffer, "Rx", count);
}

LinkCallbackResult CQDTcpServerLink::WriteData(const void* data, unsigned int size, unsigned int& count)
{
    return FinishTransfer(::send(m_Socket.load(), data, size, MSG_NOSIGNAL), data, "Tx", count);
}

int CQDTcpServerLink::GetLastReadWriteDataError() const
{
    return m_LastReadWriteDataError;
}

void CQDTcpServerLink::EnableWriteMode()
{
    m_WriteMode.store(true);
}

void CQDTcpServerLink::DisableWriteMode()
{
    m_WriteMode.store(false);
}

bool CQDTcpServerLink::IsWriteModeEnabled() const
{
    return m_WriteMode.load();
}

void CQDTcpServerLink::SetTimeout(const CQDTimestamp& time)
{
    m_Timeout = time;
}

const CQDTimestamp& CQDTcpServerLink::GetTimeout() const
{
    return m_Timeout;
}

const CQDTimestamp& CQDTcpServerLink::GetLastReceiveTime() const
{
    return m_LastReceiveTime;
}

unsigned int CQDTcpServerLink::GetLinkId() const
{
    return m_LinkId;
}

int CQDTcpServerLink::GetSocket() const
{
    return m_Socket.load();
}

CQDTcpServer* CQDTcpServerLink::GetServer() const
{
    return m_pServer;
}

const std::string& CQDTcpServerLink::GetPeerAddress() const
{
    return m_PeerAddress;
}

TcpServerLinkLogging CQDTcpServerLink::GetLinkLogging() const
{
    return m_LoggingLevel;
}

void CQDTcpServerLink::SetNonBlocking()
{
    int on = 1;
    if (::ioctl(m_Socket.load(), FIONBIO, &on) != 0)
        PrintError("ioctl() failed, error %d", errno);
}

void CQDTcpServerLink::CloseSocket(bool hardReset)
{
    if (m_Socket.load() < 0 || m_Closing)
        return;
    m_Closing = true;
    OnDisconnect();
    if (hardReset) {
        const linger reset{1, 0};
        ::setsockopt(m_Socket.load(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    }
    PrintLog(TcpServerLinkLoggingLifecycle, "Close socket handle");
    ::close(m_Socket.exchange(-1));
    m_Closing = false;
}

bool CQDTcpServerLink::CallOnRxData()
{
    PrintLog(TcpServerLinkLoggingDetail, "Call OnRxData");
    m_LastReceiveTime.SetUTC();
    return ProcessLinkCallbackResult(OnRxData());
}

bool CQDTcpServerLink::CallOnTimeout(const CQDTimestamp& now)
{
    PrintLog(TcpServerLinkLoggingDetail, "Call OnTimeout");
    return ProcessLinkCallbackResult(OnTimeout(now));
}

LinkCallbackResult CQDTcpServerLink::CallOnTxComplete()
{
    PrintLog(TcpServerLinkLoggingDetail, "Call OnTxComplete");
    const LinkCallbackResult result = OnTxComplete();
    ProcessLinkCallbackResult(result);
    return result;
}

bool CQDTcpServerLink::DispatchMessages(std::list<CQDTcpServerLinkMessage*>& messages)
{
    PrintLog(TcpServerLinkLoggingDetail, "Call OnMessage");
    bool close = false;
    while (!messages.empty()) {
        CQDTcpServerLinkMessage* message = messages.front();
        messages.pop_front();
        close = ProcessLinkCallbackResult(OnMessage(message)) || close;
    }
    return close;
}

bool CQDTcpServerLink::ProcessLinkCallbackResult(LinkCallbackResult result)
{
    switch (result) {
    case LinkCallbackSuccess:
    case LinkCallbackWouldBlock: return false;
    case LinkCallbackPeerClosed: PrintLog(TcpServerLinkLoggingLifecycle, "Socket closed"); return true;
    case LinkCallbackSocketError:
        PrintError("Socket error %u", static_cast<unsigned int>(m_LastReadWriteDataError));
        return true;
    case LinkCallbackCloseSocket: PrintLog(TcpServerLinkLoggingLifecycle, "Close socket"); return true;
    case LinkCallbackProtocolError:
        PrintLog(TcpServerLinkLoggingLifecycle, "Protocol error");
        m_pServer->IncrementProtocolErrorCount();
        return true;
    case LinkCallbackTlsError: PrintLog(TcpServerLinkLoggingLifecycle, "TLS error"); return true;
    }
    return false; // a value of the protocol's own; see ResultsWithoutARowKeepTheLink
}

void CQDTcpServerLink::PrintLog(TcpServerLinkLogging level, const char* format, ...)
{
    if (m_LoggingLevel < level || m_pOutputLog == nullptr)
        return;
    va_list arguments;
    va_start(arguments, format);
    m_pOutputLog->PrefixedPrintInfoVA(m_LogPrefix, m_LogPrefixLength, format, arguments);
    va_end(arguments);
}

void CQDTcpServerLink::PrintError(const char* format, ...)
{
    if (m_pOutputLog == nullptr)
        return;
    va_list arguments;
    va_start(arguments, format);
    m_pOutputLog->PrefixedPrintErrorVA(m_LogPrefix, m_LogPrefixLength, format, arguments);
    va_end(arguments);
}

void CQDTcpServerLink::RefuseSocket()
{
    const int socket = m_Socket.exchange(-1);
    if (socket >= 0)
        ::close(socket);
}

// Turns the result of a recv or send into a callback result; errno is still that call's.
LinkCallbackResult CQDTcpServerLink::FinishTransfer(ssize_t result, const void* data, const char* direction,
                                                    unsigned int& count)
{
    m_LastReadWriteDataError = result < 0 ? errno : 0;
    if (result < 0)
        return m_LastReadWriteDataError == EAGAIN ? LinkCallbackWouldBlock : LinkCallbackSocketError;
    if (result == 0)
        return LinkCallbackPeerClosed;
    const unsigned int transferred = static_cast<unsigned int>(result);
    if (m_LoggingLevel >= TcpServerLinkLoggingData && m_pOutputLog != nullptr) {
        char title[sizeof m_LogPrefix + 4];
        qd_sprintf(title, sizeof title, "%s %s", m_LogPrefix, direction);
        m_pOutputLog->PrintData(title, transferred, static_cast<const unsigned char*>(data));
    }
    count = transferred;
    return LinkCallbackSuccess;
}

// Null when references are not to be printed.
COutputLog* CQDTcpServerLink::GetReferenceLog() const
{
    return m_LoggingLevel >= TcpServerLinkLoggingReferences ? m_pOutputLog : nullptr;
}
