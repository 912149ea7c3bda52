#include <QDPlatform/QDTcpServer.h>

#include <QDPlatform/COutputLog.h>
#include <QDPlatform/QDCriticalSectionGuard.h>
#include <QDPlatform/QDSocket.h>
#include <QDPlatform/QDString.h>
#include <QDPlatform/QDTcpServerLinkMessage.h>
#include <QDPlatform/QDTcpServerThread.h>
#include <QDPlatform/QDUniqueFd.h>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace
{

constexpr int kListenBacklog = 128;
constexpr int kAcceptPauseMs = 100;

// Failures of accept() that leave the caller waiting in the queue: the socket stays readable.
bool IsOutOfResources(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

bool BindToWildcard(int socket, int family, unsigned short port)
{
    QDSocketAddress address{};
    socklen_t length = sizeof address.m_IPv4;
    if (family == AF_INET6) {
        address.m_IPv6.sin6_family = AF_INET6;
        address.m_IPv6.sin6_port = htons(port);
        address.m_IPv6.sin6_addr = in6addr_any;
        length = sizeof address.m_IPv6;
    } else {
        address.m_IPv4.sin_family = AF_INET;
        address.m_IPv4.sin_port = htons(port);
        address.m_IPv4.sin_addr.s_addr = htonl(INADDR_ANY);
    }
    return ::bind(socket, &address.m_Address, length) == 0;
}

} // namespace

CQDTcpServer::CQDTcpServer(COutputLog* log, const char* name, unsigned short port, unsigned int linksPerThread,
                           bool enableIPv6) :
    CQDSocketThread(log),
    m_Port(port),
    m_LinksPerThread(std::min(linksPerThread, unsigned{CQDTcpServerThread::kMaximumLinks})),
    m_IPv6Enabled(enableIPv6)
{
    qd_strcpy(m_ServerName, sizeof m_ServerName, name);
    qd_sprintf(m_LogPrefix, sizeof m_LogPrefix, "TcpSvr@%hu", m_Port);
    m_LogPrefixLength = static_cast<unsigned int>(std::strlen(m_LogPrefix));
}

CQDTcpServer::~CQDTcpServer()
{
    CloseSpareDescriptor();
}

bool CQDTcpServer::StartTcpServer()
{
    if (StartSocketThread())
        return true;
    if (!IsSocketServerRunning())
        CloseSpareDescriptor();
    return false;
}

void CQDTcpServer::StopTcpServer()
{
    StopSocketThread();
}

bool CQDTcpServer::PostLinkMessage(CQDTcpServerLinkMessage* message)
{
    if (message == nullptr)
        return false;
    CQDTcpServerThread* thread = nullptr;
    {
        const QDCriticalSectionGuard guard(m_Lock);
        const auto found = m_Links.find(message->GetLinkId());
        if (found != m_Links.end() && found->second.m_pThread != nullptr) {
            thread = found->second.m_pThread;
            thread->AddRef();
        }
    }
    bool queued = false;
    if (thread != nullptr) {
        queued = thread->PostLinkMessage(message);
        thread->Release();
    }
    if (!queued)
        delete message;
    return queued;
}

void CQDTcpServer::BroadcastLinkMessage(CQDTcpServerLinkMessage* message)
{
    if (message == nullptr)
        return;
    std::vector<std::pair<unsigned int, CQDTcpServerThread*>> receivers;
    {
        const QDCriticalSectionGuard guard(m_Lock);
        for (const auto& [linkId, entry] : m_Links) {
            if (entry.m_pThread == nullptr)
                continue;
            entry.m_pThread->AddRef();
            receivers.emplace_back(linkId, entry.m_pThread);
        }
    }
    // The copies are made here, outside the lock: CloneMessage() is the caller's code.
    for (const auto& [linkId, thread] : receivers) {
        CQDTcpServerLinkMessage* copy = message->CloneMessage();
        if (copy != nullptr) {
            copy->SetId(linkId);
            if (!thread->PostLinkMessage(copy))
                delete copy;
        }
        thread->Release();
    }
}

void CQDTcpServer::CloseAllLinks()
{
    PrintLog("Close all links");
    std::map<unsigned int, LinkEntry> links;
    {
        const QDCriticalSectionGuard guard(m_Lock);
        links.swap(m_Links);
    }
    for (const auto& [linkId, entry] : links)
        entry.m_pLink->Release();
    StopTcpThreads();
    ReleaseLinksWithoutWorker();
}

unsigned int CQDTcpServer::GetLinkCount()
{
    const QDCriticalSectionGuard guard(m_Lock);
    return static_cast<unsigned int>(m_Links.size());
}

void CQDTcpServer::GetAllLinks(std::list<CQDTcpServerLink*>& links)
{
    const QDCriticalSectionGuard guard(m_Lock);
    PrintLog("GetLinks m_Links.size() = %u", static_cast<unsigned int>(m_Links.size()));
    for (const auto& [linkId, entry] : m_Links) {
        entry.m_pLink->AddRef();
        links.push_back(entry.m_pLink);
    }
}

void CQDTcpServer::IncrementProtocolErrorCount()
{
    m_ProtocolErrorCount.Increment();
}

unsigned int CQDTcpServer::GetProtocolErrorCount() const
{
    return static_cast<unsigned int>(m_ProtocolErrorCount.GetCount());
}

void CQDTcpServer::RemoveLink(CQDTcpServerLink* link)
{
    RemoveLinkById(link->GetLinkId());
}

unsigned short CQDTcpServer::GetPort() const
{
    return m_Port;
}

void CQDTcpServer::SetLinkLogging(TcpServerLinkLogging level)
{
    m_LoggingLevel.store(level);
}

TcpServerLinkLogging CQDTcpServer::GetLinkLogging() const
{
    return m_LoggingLevel.load();
}

bool CQDTcpServer::CreateSockets()
{
    PrintLog("Create IPv4 listen socket on port %hu", m_Port);
    AddListenSocket(CreateListenSocket(AF_INET));
    if (m_IPv6Enabled) {
        PrintLog("Create IPv6 listen socket on port %hu", m_Port);
        AddListenSocket(CreateListenSocket(AF_INET6));
    }
    for (int i = 0; i < m_SocketCount; ++i) {
        int on = 1;
        if (::ioctl(m_Sockets[i], FIONBIO, &on) != 0)
            PrintSocketError(errno, "ioctl");
    }
    OpenSpareDescriptor();
    m_AcceptFailureLogged = false;
    return m_SocketCount > 0;
}

void CQDTcpServer::OnSocketEvent(int socket)
{
    TcpServerLinkCreateContext context;
    context.m_pOutputLog = m_pOutputLog;
    context.m_pServer = this;
    context.m_pServerName = m_ServerName;
    context.m_LoggingLevel = m_LoggingLevel.load();
    context.m_Socket = AcceptConnection(socket, context);
    if (context.m_Socket < 0)
        return;
    context.m_LinkId = TakeNextLinkId();
    QDSocketAddress address{};
    address.m_IPv6 = context.m_PeerAddress;
    FormatSocketAddress(&address, context.m_PeerAddressLength, context.m_PeerAddressText);
    PrintLog("Accepted connection %u from %s", context.m_LinkId, context.m_PeerAddressText.c_str());

    CQDTcpServerLink* link = CreateLink(context);
    if (link == nullptr) {
        ::close(context.m_Socket);
        return;
    }
    link->AddRef();
    const LinkCallbackResult result = link->OnConnect();
    if (result != LinkCallbackSuccess && result != LinkCallbackWouldBlock) {
        PrintLog("OnConnect() returns %d, closing socket", static_cast<int>(result));
        link->RefuseSocket();
    } else if (!PlaceLink(link)) {
        link->CloseSocket(true); // OnConnect() took the connection, so OnDisconnect() takes leave of it
    }
    OnLinkAssignedToWorkerThread(link);
    link->Release();
}

void CQDTcpServer::OnSocketThreadExit()
{
    StopTcpThreads();
}

void CQDTcpServer::OnSocketThreadStopped()
{
    CloseSpareDescriptor();
    std::map<unsigned int, LinkEntry> links;
    {
        const QDCriticalSectionGuard guard(m_Lock);
        links.swap(m_Links);
    }
    if (!links.empty())
        PrintLog("Releasing %d remaining links...", static_cast<int>(links.size()));
    for (const auto& [linkId, entry] : links)
        entry.m_pLink->Release();
}

void CQDTcpServer::OnLinkAssignedToWorkerThread(CQDTcpServerLink*) {}

void CQDTcpServer::OnLinkThreadStop(CQDTcpServerThread*) {}

void CQDTcpServer::FormatSocketAddress(const QDSocketAddress* address, unsigned int length, std::string& text)
{
    char host[1025];
    if (::getnameinfo(&address->m_Address, length, host, sizeof host, nullptr, 0, NI_NUMERICHOST) == 0)
        text = host;
    else
        text = "Unknown address";
}

void CQDTcpServer::StopTcpThreads()
{
    PrintLog("Stop TCP Threads...");
    // Held while joining: whoever comes second returns only when the workers of the first have ended.
    const QDCriticalSectionGuard stopGuard(m_StopLock);
    ThreadVector threads;
    {
        const QDCriticalSectionGuard guard(m_ThreadsLock);
        threads.swap(m_Threads);
    }
    for (CQDTcpServerThread* thread : threads)
        thread->TellThreadToStop();
    for (CQDTcpServerThread* thread : threads) {
        thread->WaitForThreadToStop();
        ForgetThread(thread);
        thread->Release();
    }
    PrintLog("... All TCP Threads stopped.");
}

// A worker orders before another that has more links. GetLinkCount() is always 0, so the stable sort keeps the order.
bool CQDTcpServer::SortThreads(const CQDTcpServerThread* a, const CQDTcpServerThread* b)
{
    return a->GetLinkCount() < b->GetLinkCount();
}

// Returns the listening socket, or -1 with the failure printed.
int CQDTcpServer::CreateListenSocket(int family)
{
    QDUniqueFd listener(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
    if (!listener.IsOpen() || listener.Get() >= FD_SETSIZE) {
        PrintSocketError(listener.IsOpen() ? EMFILE : errno, "socket");
        return -1;
    }
    const int on = 1;
    if (::setsockopt(listener.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0)
        PrintSocketError(errno, "setsockopt(SOL_SOCKET, SO_REUSEADDR = 1)");
    // The two families never overlap, so that each can be had without the other.
    if (family == AF_INET6 && ::setsockopt(listener.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) != 0) {
        PrintSocketError(errno, "setsockopt(IPPROTO_IPV6)");
        return -1;
    }
    if (!BindToWildcard(listener.Get(), family, m_Port)) {
        PrintSocketError(errno, "bind");
        return -1;
    }
    if (::listen(listener.Get(), kListenBacklog) != 0) {
        PrintSocketError(errno, "listen");
        return -1;
    }
    return listener.Release();
}

void CQDTcpServer::AddListenSocket(int socket)
{
    if (socket >= 0)
        m_Sockets[m_SocketCount++] = socket;
}

// Returns the new descriptor, with the peer's address in the context, or -1 with the failure printed.
int CQDTcpServer::AcceptConnection(int listenSocket, TcpServerLinkCreateContext& context)
{
    QDUniqueFd connection(::accept4(listenSocket, reinterpret_cast<sockaddr*>(&context.m_PeerAddress),
                                    &context.m_PeerAddressLength, SOCK_CLOEXEC));
    if (!connection.IsOpen()) {
        OnAcceptFailed(listenSocket, errno);
        return -1;
    }
    m_AcceptFailureLogged = false;
    OpenSpareDescriptor(); // the last try may have failed
    if (connection.Get() >= FD_SETSIZE) {
        PrintSocketError(EMFILE, "accept");
        return -1;
    }
    return connection.Release();
}

// Out of descriptors, the caller would keep the listening socket readable and the loop busy. The spare descriptor makes
// room for accepting the caller once, only to close it. The failure is printed once until a caller is accepted again.
void CQDTcpServer::OnAcceptFailed(int listenSocket, int error)
{
    if (!IsOutOfResources(error)) {
        PrintSocketError(error, "accept");
        return;
    }
    if (!m_AcceptFailureLogged)
        PrintSocketError(error, "accept");
    m_AcceptFailureLogged = true;
    CloseSpareDescriptor();
    QDUniqueFd caller(::accept4(listenSocket, nullptr, nullptr, SOCK_CLOEXEC));
    const bool refused = caller.IsOpen();
    caller.Reset();
    OpenSpareDescriptor();
    if (!refused)
        PauseUntilCommand(kAcceptPauseMs);
}

void CQDTcpServer::OpenSpareDescriptor()
{
    if (m_SpareDescriptor < 0)
        m_SpareDescriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

void CQDTcpServer::CloseSpareDescriptor()
{
    if (m_SpareDescriptor >= 0)
        ::close(std::exchange(m_SpareDescriptor, -1));
}

// The numbers start again after 2^32 links; those still in use, and 0, are left out.
unsigned int CQDTcpServer::TakeNextLinkId()
{
    const QDCriticalSectionGuard guard(m_Lock);
    do {
        ++m_LastLinkId;
    } while (m_LastLinkId == 0 || m_Links.count(m_LastLinkId) != 0);
    return m_LastLinkId;
}

// Hands the link to a worker. Returns false, with nothing left in the tables, when there is none that can take it.
bool CQDTcpServer::PlaceLink(CQDTcpServerLink* link)
{
    // Held throughout, so that the worker cannot be stopped and released before it has the link.
    const QDCriticalSectionGuard threadsGuard(m_ThreadsLock);
    CQDTcpServerThread* thread = FindThreadWithSpareCapacity();
    if (thread == nullptr)
        thread = StartNewThread();
    if (thread == nullptr)
        return false;
    link->AddRef();
    {
        const QDCriticalSectionGuard guard(m_Lock);
        m_Links.emplace(link->GetLinkId(), LinkEntry{link, thread});
    }
    if (thread->AddLink(link))
        return true;
    PrintLog("Link %u cannot be served, closing socket", link->GetLinkId());
    RemoveLinkById(link->GetLinkId());
    return false;
}

CQDTcpServerThread* CQDTcpServer::FindThreadWithSpareCapacity()
{
    if (m_Threads.empty())
        return nullptr;
    CQDTcpServerThread* newest = m_Threads.front();
    if (!newest->ThreadHasSpareCapacity())
        return nullptr; // even if an older one has room
    std::stable_sort(m_Threads.begin(), m_Threads.end(), SortThreads);
    return newest;
}

// Returns the new worker, running and at the front of the vector, or null with the failure printed.
CQDTcpServerThread* CQDTcpServer::StartNewThread()
{
    ++m_LastThreadNumber;
    CQDTcpServerThread* thread =
        new CQDTcpServerThread(m_pOutputLog, this, m_LastThreadNumber, m_LinksPerThread, m_LoggingLevel.load());
    thread->AddRef();
    m_Threads.insert(m_Threads.begin(), thread);
    if (thread->StartThread())
        return thread;
    PrintSocketError(errno, "StartThread");
    m_Threads.erase(m_Threads.begin());
    thread->Release();
    return nullptr;
}

// From here on no poster can reach the worker: its links count as having none.
void CQDTcpServer::ForgetThread(const CQDTcpServerThread* thread)
{
    const QDCriticalSectionGuard guard(m_Lock);
    for (auto& [linkId, entry] : m_Links) {
        if (entry.m_pThread == thread)
            entry.m_pThread = nullptr;
    }
}

// Takes leave of links that came while the workers were being stopped: theirs has closed them.
void CQDTcpServer::ReleaseLinksWithoutWorker()
{
    std::vector<CQDTcpServerLink*> links;
    {
        const QDCriticalSectionGuard guard(m_Lock);
        for (auto entry = m_Links.begin(); entry != m_Links.end();) {
            if (entry->second.m_pThread != nullptr) {
                ++entry;
                continue;
            }
            links.push_back(entry->second.m_pLink);
            entry = m_Links.erase(entry);
        }
    }
    for (CQDTcpServerLink* link : links)
        link->Release();
}

void CQDTcpServer::RemoveLinkById(unsigned int linkId)
{
    if (m_LoggingLevel.load() >= TcpServerLinkLoggingReferences)
        PrintLog("Remove link %d", static_cast<int>(linkId));
    CQDTcpServerLink* link = nullptr;
    int erased = 0;
    {
        const QDCriticalSectionGuard guard(m_Lock);
        const auto found = m_Links.find(linkId);
        if (found != m_Links.end())
            link = found->second.m_pLink;
        erased = static_cast<int>(m_Links.erase(linkId));
    }
    if (erased > 1)
        PrintLog("*** m_Links.erase() returns %d", erased);
    if (link != nullptr)
        link->Release();
    else
        PrintLog("Link %d already removed from server list", static_cast<int>(linkId));
}
