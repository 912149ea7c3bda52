#include <QDPlatform/QDNetworkInfo.h>

#include <QDPlatform/COutputLog.h>
#include <QDPlatform/CTextOutput.h>
#include <QDPlatform/QDString.h>

#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>

namespace
{

constexpr int kImpliedPort = 20295;

// Of the interface flags IFF_..., from bit 0 on.
constexpr char kFlagNames[][13] = {
    "UP",        "BROADCAST", "DEBUG",    "LOOPBACK", "POINTTOPOINT", "NOTRAILERS", "RUNNING",
    "NOARP",     "PROMISC",   "ALLMULTI", "MASTER",   "SLAVE",        "MULTICAST",  "PORTSEL",
    "AUTOMEDIA", "DYNAMIC",   "LOWER_UP", "DORMANT",  "ECHO",
};
static_assert(std::size(kFlagNames) == 19);

void FormatFlags(unsigned int flags, char (&text)[256])
{
    text[0] = '\0';
    for (std::size_t bit = 0; bit < std::size(kFlagNames); ++bit) {
        if ((flags >> bit & 1) == 0)
            continue;
        if (text[0] != '\0')
            qd_strcat(text, sizeof text, " ");
        qd_strcat(text, sizeof text, kFlagNames[bit]);
    }
}

// How far down the mask reaches, gaps or not.
unsigned int PrefixLength(const in_addr& mask)
{
    unsigned int length = 0;
    for (uint32_t bits = ntohl(mask.s_addr); bits != 0; bits <<= 1)
        ++length;
    return length;
}

// The 1 bits in front of the first 0 bit.
unsigned int PrefixLength(const in6_addr& mask)
{
    unsigned int length = 0;
    for (const uint8_t byte : mask.s6_addr) {
        const int count = std::countl_one(byte);
        length += static_cast<unsigned int>(count);
        if (count < 8)
            break;
    }
    return length;
}

// family: AF_INET or AF_INET6; of the address, by which the mask is read whatever its own says. A sockaddr need not be
// aligned for what it stands for.
unsigned int PrefixLength(const sockaddr* mask, int family)
{
    if (family == AF_INET) {
        sockaddr_in address;
        std::memcpy(&address, mask, sizeof address);
        return PrefixLength(address.sin_addr);
    }
    sockaddr_in6 address;
    std::memcpy(&address, mask, sizeof address);
    return PrefixLength(address.sin6_addr);
}

} // namespace

QDNetworkInfo::QDNetworkInfo() = default;

QDNetworkInfo::~QDNetworkInfo() = default;

void QDNetworkInfo::ReadAll(COutputLog* log)
{
    log->Print("Read network information...");
    ReadNames(log);
    ReadIPAddresses(log);
}

void QDNetworkInfo::ReadNames(COutputLog* log)
{
    log->Print("Reading host names...");
    char name[256];
    int result = ::gethostname(name, sizeof name);
    if (result != 0) {
        log->Print("gethostname() returns %d. errno = %d", result, errno);
        return;
    }
    name[sizeof name - 1] = '\0'; // POSIX lets a name that is cut go without
    log->Print("gethostname() succeeded.  HostName '%s'", name);
    m_CanonicalHostName = name;
    AddHostName(m_CanonicalHostName);

    addrinfo hints{};
    hints.ai_flags = AI_CANONNAME;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    result = ::getaddrinfo(name, nullptr, &hints, &list);
    if (result != 0) {
        log->Print("getaddrinfo() returns %d. errno = %d", result, errno);
        return;
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> found(list, &::freeaddrinfo);
    // The C library gives a name whenever it is asked for one; POSIX lets others leave it out.
    const char* const canonicalName = found->ai_canonname != nullptr ? found->ai_canonname : name;
    log->Print("getaddrinfo() succeeded.  HostName '%s'", canonicalName);
    if (m_CanonicalHostName != canonicalName)
        AddHostName(canonicalName);
}

void QDNetworkInfo::ReadIPAddresses(COutputLog* log)
{
    log->Print("Reading host addresses...");
    ifaddrs* list = nullptr;
    const int result = ::getifaddrs(&list);
    if (result != 0) {
        log->Print("...getifaddrs() returns %d", result);
        return;
    }
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> interfaces(list, &::freeifaddrs);
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next)
        ReadIPAddress(*entry, log);
}

void QDNetworkInfo::SetCanonicalHostName(const std::string& name)
{
    m_CanonicalHostName = name;
}

void QDNetworkInfo::AddHostName(const std::string& name)
{
    m_HostNames.push_back(name);
    m_HostNames.sort();
}

bool QDNetworkInfo::IsSameNetworkInfoAs(const QDNetworkInfo& other) const
{
    const auto isSameName = [](const std::string& left, const std::string& right) {
        return ::strcasecmp(left.c_str(), right.c_str()) == 0;
    };
    return isSameName(m_CanonicalHostName, other.m_CanonicalHostName) &&
           std::equal(m_HostNames.begin(), m_HostNames.end(), other.m_HostNames.begin(), other.m_HostNames.end(),
                      isSameName);
}

void QDNetworkInfo::GetCommaSeparatedListOfHostNames(int port, std::string& text) const
{
    char portText[16] = "";
    if (port != kImpliedPort)
        qd_sprintf(portText, sizeof portText, ":%u", static_cast<unsigned int>(port));
    text.clear();
    for (const std::string& name : m_HostNames) {
        if (&name != &m_HostNames.front())
            text += ", ";
        text += name;
        text += portText;
    }
}

void QDNetworkInfo::PrintNetworkInfo(CTextOutput& out) const
{
    out.PrintLine("Canonical Host Name: %s", m_CanonicalHostName.c_str());
    out.PrintLine("Host Names:");
    out.AdjustIndent(1);
    for (const std::string& name : m_HostNames)
        out.PrintLine("%s", name.c_str());
    out.AdjustIndent(-1);
    out.PrintLine("IP Addresses:");
    out.AdjustIndent(1);
    for (const IpAddress& address : m_IpAddresses)
        out.PrintLine("%s/%u", address.m_Address.c_str(), address.m_PrefixLength);
    out.AdjustIndent(-1);
}

const std::string& QDNetworkInfo::GetCanonicalHostName() const
{
    return m_CanonicalHostName;
}

const std::list<std::string>& QDNetworkInfo::GetHostNames() const
{
    return m_HostNames;
}

const std::list<QDNetworkInfo::IpAddress>& QDNetworkInfo::GetIpAddresses() const
{
    return m_IpAddresses;
}

void QDNetworkInfo::ReadIPAddress(const ifaddrs& entry, COutputLog* log)
{
    char flags[256];
    FormatFlags(entry.ifa_flags, flags);
    log->Print("Name '%s', Flags 0x%X (%s)", entry.ifa_name, entry.ifa_flags, flags);
    if (entry.ifa_addr == nullptr) {
        log->Print("\tNo address information");
        return;
    }
    if (entry.ifa_netmask == nullptr) {
        log->Print("\tNo netmask information");
        return;
    }
    const int family = entry.ifa_addr->sa_family;
    if (family != AF_INET && family != AF_INET6) {
        log->Print("\tAddress family %d ignored", family);
        return;
    }
    const socklen_t length = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    char address[NI_MAXHOST];
    char netmask[NI_MAXHOST];
    int result = ::getnameinfo(entry.ifa_addr, length, address, sizeof address, nullptr, 0, NI_NUMERICHOST);
    if (result == 0)
        result = ::getnameinfo(entry.ifa_netmask, length, netmask, sizeof netmask, nullptr, 0, NI_NUMERICHOST);
    if (result != 0) {
        log->Print("\tAddress family %d, getnameinfo() returns %d", family, result);
        return;
    }
    log->Print("\tAddress family %d, IP Addr '%s', NetMask '%s'", family, address, netmask);
    m_IpAddresses.push_back({address, family, PrefixLength(entry.ifa_netmask, family)});
}
