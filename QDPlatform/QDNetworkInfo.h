#pragma once

#include <QDPlatform/QDExport.h>

#include <list>
#include <string>

class COutputLog;
class CTextOutput;
struct ifaddrs;

// The names of the host and the IP addresses of its network interfaces, as read from the system or as a caller sets
// them.
//
// A plain value that changes only when a member says so. Names and addresses are bytes as the system gives them, as a
// rule ASCII, without a NUL. May throw std::bad_alloc; nothing else fails but as the operations say.
//
// Thread: one at a time; any number may read.
class QD_API QDNetworkInfo
{
public:
    // An address of a network interface.
    struct IpAddress
    {
        std::string m_Address;          // in figures; a link-local one of IPv6 with its interface, "fe80::1%eth0"
        int m_Family{0};                // AF_INET or AF_INET6
        unsigned int m_PrefixLength{0}; // of the netmask, in bits
    };

    // No names, no addresses.
    QDNetworkInfo();
    QDNetworkInfo(const QDNetworkInfo&) = default;
    QDNetworkInfo& operator=(const QDNetworkInfo&) = default;
    ~QDNetworkInfo();

    // Logs "Read network information..." and does ReadNames() and ReadIPAddresses(); blocks as they do.
    // log: must not be null; not kept.
    void ReadAll(COutputLog* log);

    // Sets the canonical host name to what gethostname(2) says, adds it to the host names, and adds the canonical name
    // that getaddrinfo(3) finds for it, unless it is the same to the letter. Blocks while name servers are asked. What
    // is held stays, so that a second call holds the names twice. A step that fails is logged and left out; without a
    // host name, none is looked up. Logs, type Info, in this order:
    //     "Reading host names..."
    //     "gethostname() succeeded.  HostName '%s'" or "gethostname() returns %d. errno = %d"
    //     "getaddrinfo() succeeded.  HostName '%s'" with the canonical name, or "getaddrinfo() returns %d. errno = %d"
    // log: must not be null; not kept.
    void ReadNames(COutputLog* log);

    // Adds the IP addresses of all network interfaces, those that are down too, in the system's order, to those held.
    // What cannot be read is logged and left out. Logs, type Info, "Reading host addresses...", then either
    // "...getifaddrs() returns %d" or for each entry of getifaddrs(3) "Name '%s', Flags 0x%X (%s)" with the names of
    // the flags, and one of
    //     "\tNo address information"
    //     "\tNo netmask information"
    //     "\tAddress family %d ignored"                               neither AF_INET nor AF_INET6
    //     "\tAddress family %d, getnameinfo() returns %d"
    //     "\tAddress family %d, IP Addr '%s', NetMask '%s'"           the one that is added
    // log: must not be null; not kept.
    //
    // The prefix length of an IPv4 netmask reaches to its last 1 bit, that of an IPv6 netmask to its first 0 bit; they
    // differ for a mask with a gap. Kept so; see PrefixOfAMaskWithAGapEndsByFamily.
    void ReadIPAddresses(COutputLog* log);

    // Sets the canonical host name, which must hold no NUL. The host names stay as they are.
    void SetCanonicalHostName(const std::string& name);

    // Adds a host name, which must hold no NUL, also one that is held already. The host names are sorted by their
    // bytes, upper case before lower case.
    void AddHostName(const std::string& name);

    // True when the canonical names are equal, and as many host names are held, equal one by one in their order. Upper
    // and lower case count the same, as strcasecmp(3) tells them in the process locale; since the order tells them
    // apart, lists may differ by case alone and yet not be the same. The addresses do not count: only a change of names
    // does.
    bool IsSameNetworkInfoAs(const QDNetworkInfo& other) const;

    // Sets `text` to the host names in their order, with ", " between them; behind each ":" and the port, as an
    // unsigned number, unless it is 20295: the port that goes without saying.
    void GetCommaSeparatedListOfHostNames(int port, std::string& text) const;

    // Prints the line "Canonical Host Name: %s"; "Host Names:" and, one level further in, one line for each name;
    // "IP Addresses:" and, one level further in, one line "192.0.2.7/24" for each address.
    void PrintNetworkInfo(CTextOutput& out) const;

    // What is held. Each is valid as long as this object and changes with it.
    const std::string& GetCanonicalHostName() const;
    const std::list<std::string>& GetHostNames() const;
    const std::list<IpAddress>& GetIpAddresses() const;

private:
    // Adds what an entry of getifaddrs(3) holds, or logs why not.
    QD_LOCAL void ReadIPAddress(const ifaddrs& entry, COutputLog* log);

    std::string m_CanonicalHostName;
    std::list<std::string> m_HostNames; // in ascending order of their bytes
    std::list<IpAddress> m_IpAddresses; // in the order found
};
