#include <QDPlatform/QDNetworkInfo.h>

#include <QDPlatform/COutputLogNull.h>
#include <QDPlatform/CTextOutputString.h>

#include "AllocationCounter.h"
#include "ChildProcess.h"
#include "FaultPlan.h"
#include "NamedHost.h"
#include "NetworkInterfaces.h"
#include "NextFunction.h"
#include "PrivateNamespace.h"
#include "RecordingLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <new>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

static_assert(std::is_copy_constructible_v<QDNetworkInfo> && std::is_copy_assignable_v<QDNetworkInfo>);
static_assert(!std::is_polymorphic_v<QDNetworkInfo>);
static_assert(std::is_same_v<decltype(QDNetworkInfo::IpAddress::m_Family), int>);
static_assert(std::is_same_v<decltype(QDNetworkInfo::IpAddress::m_PrefixLength), unsigned int>);

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace
{

using Texts = std::vector<std::string>;

// Interfaces that the test writes down, for those that no system makes, in the place of the system's. One list at a
// time.
class ScriptedInterfaces
{
public:
    ScriptedInterfaces() { s_pCurrent = this; }

    ScriptedInterfaces(const ScriptedInterfaces&) = delete;
    ScriptedInterfaces& operator=(const ScriptedInterfaces&) = delete;

    ~ScriptedInterfaces() { s_pCurrent = nullptr; }

    // address, netmask: in figures of either IP family, "family N" for an address of another one, "" for none.
    void Add(const std::string& name, unsigned int flags, const std::string& address, const std::string& netmask)
    {
        m_Interfaces.push_back({name, SocketAddress(address), SocketAddress(netmask), {}});
        ifaddrs& entry = m_Interfaces.back().m_Entry;
        entry.ifa_flags = flags;
    }

    void FailWith(int result) { m_Result = result; }

    int GetFreedCount() const { return m_FreedCount; }

    static ScriptedInterfaces* GetCurrent() { return s_pCurrent; }

    int Get(ifaddrs** first)
    {
        if (m_Result != 0)
            return m_Result;
        ifaddrs** place = first;
        for (Interface& interface : m_Interfaces) {
            interface.m_Entry.ifa_name = interface.m_Name.data();
            interface.m_Entry.ifa_addr = interface.m_Address.Get();
            interface.m_Entry.ifa_netmask = interface.m_Netmask.Get();
            *place = &interface.m_Entry;
            place = &interface.m_Entry.ifa_next;
        }
        *place = nullptr;
        return 0;
    }

    // Returns false when the list is not this one.
    bool Free(const ifaddrs* first)
    {
        if (m_Interfaces.empty() || first != &m_Interfaces.front().m_Entry)
            return false;
        ++m_FreedCount;
        return true;
    }

private:
    class SocketAddress
    {
    public:
        explicit SocketAddress(const std::string& text) : m_IsThere(!text.empty())
        {
            sockaddr_in four{};
            sockaddr_in6 six{};
            if (::inet_pton(AF_INET, text.c_str(), &four.sin_addr) == 1) {
                four.sin_family = AF_INET;
                std::memcpy(&m_Storage, &four, sizeof four);
            } else if (::inet_pton(AF_INET6, text.c_str(), &six.sin6_addr) == 1) {
                six.sin6_family = AF_INET6;
                std::memcpy(&m_Storage, &six, sizeof six);
            } else if (m_IsThere) {
                m_Storage.ss_family = static_cast<sa_family_t>(std::stoi(text.substr(std::strlen("family "))));
            }
        }

        sockaddr* Get() { return m_IsThere ? reinterpret_cast<sockaddr*>(&m_Storage) : nullptr; }

    private:
        bool m_IsThere;
        sockaddr_storage m_Storage{};
    };

    struct Interface
    {
        std::string m_Name;
        SocketAddress m_Address;
        SocketAddress m_Netmask;
        ifaddrs m_Entry;
    };

    static inline ScriptedInterfaces* s_pCurrent = nullptr;

    std::vector<Interface> m_Interfaces;
    int m_Result{0};
    int m_FreedCount{0};
};

// What getaddrinfo() answers in the place of the system: an error, or two results, which the system gives only with a
// name of the first.
class ScriptedNames
{
public:
    ScriptedNames(int result, int error) : m_Result(result), m_Error(error) { s_pCurrent = this; }

    // canonicalName: of the first result; null for none.
    explicit ScriptedNames(const char* canonicalName)
    {
        m_Found.ai_canonname = const_cast<char*>(canonicalName);
        m_Found.ai_next = &m_Second;
        m_Second.ai_canonname = m_SecondName;
        s_pCurrent = this;
    }

    ScriptedNames(const ScriptedNames&) = delete;
    ScriptedNames& operator=(const ScriptedNames&) = delete;

    ~ScriptedNames() { s_pCurrent = nullptr; }

    static ScriptedNames* GetCurrent() { return s_pCurrent; }

    int Find(const char* node, const char* service, const addrinfo* hints, addrinfo** found)
    {
        ++m_CallCount;
        m_Node = node == nullptr ? "null" : node;
        m_HasService = service != nullptr;
        m_Hints = *hints;
        *found = &m_Found;
        errno = m_Error;
        return m_Result;
    }

    // Returns false when the list is not this one.
    bool Free(const addrinfo* found)
    {
        if (found != &m_Found)
            return false;
        ++m_FreedCount;
        return true;
    }

    int m_CallCount{0};
    int m_FreedCount{0};
    std::string m_Node;
    bool m_HasService{false};
    addrinfo m_Hints{};

private:
    static inline ScriptedNames* s_pCurrent = nullptr;

    const int m_Result{0};
    const int m_Error{0};
    addrinfo m_Found{};
    addrinfo m_Second{};
    char m_SecondName[20] = "second.example.com";
};

} // namespace

extern "C" int getifaddrs(ifaddrs** first) noexcept
{
    static const auto next = NextFunction("getifaddrs", &getifaddrs);
    return ScriptedInterfaces::GetCurrent() != nullptr ? ScriptedInterfaces::GetCurrent()->Get(first) : next(first);
}

extern "C" void freeifaddrs(ifaddrs* first) noexcept
{
    static const auto next = NextFunction("freeifaddrs", &freeifaddrs);
    if (ScriptedInterfaces::GetCurrent() == nullptr || !ScriptedInterfaces::GetCurrent()->Free(first))
        next(first);
}

extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** found)
{
    static const auto next = NextFunction("getaddrinfo", &getaddrinfo);
    if (ScriptedNames::GetCurrent() != nullptr)
        return ScriptedNames::GetCurrent()->Find(node, service, hints, found);
    return next(node, service, hints, found);
}

extern "C" void freeaddrinfo(addrinfo* found) noexcept
{
    static const auto next = NextFunction("freeaddrinfo", &freeaddrinfo);
    if (ScriptedNames::GetCurrent() == nullptr || !ScriptedNames::GetCurrent()->Free(found))
        next(found);
}

namespace
{

std::string HostName()
{
    char name[256] = {};
    EXPECT_EQ(::gethostname(name, sizeof name), 0);
    return name;
}

// What the log tells of an interface: its line without the name, and the line behind it.
Texts LogOf(const RecordingLog& log, const std::string& interface)
{
    const std::string begin = "Name '" + interface + "', ";
    const Texts texts = log.GetTexts();
    Texts found;
    for (std::size_t i = 0; i < texts.size(); ++i) {
        if (!texts[i].starts_with(begin))
            continue;
        found.push_back(texts[i].substr(begin.size()));
        found.push_back(i + 1 < texts.size() ? texts[i + 1] : "nothing");
    }
    return found;
}

// Each as "192.0.2.7/24 2", the last number being the family.
Texts AddressesOf(const QDNetworkInfo& info)
{
    Texts addresses;
    for (const QDNetworkInfo::IpAddress& address : info.GetIpAddresses()) {
        addresses.push_back(address.m_Address + '/' + std::to_string(address.m_PrefixLength) + ' ' +
                            std::to_string(address.m_Family));
    }
    return addresses;
}

// The prefix length that is made of a netmask.
unsigned int PrefixLengthOf(const std::string& netmask)
{
    ScriptedInterfaces interfaces;
    interfaces.Add("a", 0, netmask.find(':') == std::string::npos ? "192.0.2.1" : "2001:db8::1", netmask);
    QDNetworkInfo info;
    RecordingLog log;
    info.ReadIPAddresses(&log);
    EXPECT_EQ(info.GetIpAddresses().size(), 1u);
    return info.GetIpAddresses().empty() ? 9999 : info.GetIpAddresses().front().m_PrefixLength;
}

QDNetworkInfo InfoWith(const std::string& canonicalName, const Texts& names)
{
    QDNetworkInfo info;
    info.SetCanonicalHostName(canonicalName);
    for (const std::string& name : names)
        info.AddHostName(name);
    return info;
}

std::string ListOf(const QDNetworkInfo& info, int port)
{
    std::string text = "left from before";
    info.GetCommaSeparatedListOfHostNames(port, text);
    return text;
}

constexpr const char* kLoopbackFlags = "Flags 0x10049 (UP LOOPBACK RUNNING LOWER_UP)";

} // namespace

// --- Names and addresses as they are set ---------------------------------------------------------------------------

TEST(QDNetworkInfo, NewObjectHoldsNothing)
{
    const QDNetworkInfo info;

    EXPECT_EQ(info.GetCanonicalHostName(), "");
    EXPECT_THAT(info.GetHostNames(), IsEmpty());
    EXPECT_THAT(info.GetIpAddresses(), IsEmpty());
}

TEST(QDNetworkInfo, CanonicalNameIsNoHostName)
{
    QDNetworkInfo info;

    info.SetCanonicalHostName("first");
    info.SetCanonicalHostName("second");

    EXPECT_EQ(info.GetCanonicalHostName(), "second");
    EXPECT_THAT(info.GetHostNames(), IsEmpty());
}

TEST(QDNetworkInfo, HostNamesAreSortedByTheirBytesAfterEveryAddition)
{
    QDNetworkInfo info;

    info.AddHostName("b");
    EXPECT_THAT(info.GetHostNames(), ElementsAre("b"));
    info.AddHostName("a");
    EXPECT_THAT(info.GetHostNames(), ElementsAre("a", "b"));
    info.AddHostName("B");
    EXPECT_THAT(info.GetHostNames(), ElementsAre("B", "a", "b"));
    info.AddHostName("\xC3\xA9");
    info.AddHostName("ab");
    info.AddHostName("");

    EXPECT_THAT(info.GetHostNames(), ElementsAre("", "B", "a", "ab", "b", "\xC3\xA9"));
}

TEST(QDNetworkInfo, HostNameMayBeHeldTwice)
{
    QDNetworkInfo info;

    info.AddHostName("a");
    info.AddHostName("a");

    EXPECT_THAT(info.GetHostNames(), ElementsAre("a", "a"));
}

TEST(QDNetworkInfo, CopyHoldsTheSameAndGoesItsOwnWay)
{
    ScriptedInterfaces interfaces;
    interfaces.Add("a", 0, "192.0.2.1", "255.255.255.0");
    RecordingLog log;
    QDNetworkInfo info = InfoWith("name", {"a", "b"});
    info.ReadIPAddresses(&log);

    QDNetworkInfo copy(info);
    copy.AddHostName("c");
    info.SetCanonicalHostName("other");

    EXPECT_EQ(copy.GetCanonicalHostName(), "name");
    EXPECT_THAT(copy.GetHostNames(), ElementsAre("a", "b", "c"));
    EXPECT_THAT(AddressesOf(copy), ElementsAre("192.0.2.1/24 2"));
    EXPECT_THAT(info.GetHostNames(), ElementsAre("a", "b"));
}

// --- Reading names -------------------------------------------------------------------------------------------------

TEST(QDNetworkInfo, NamesAreTheHostsAndItsCanonicalOne)
{
    const NamedHost host("myhost", "127.0.0.1 localhost\n192.0.2.7 Full.example.com myhost\n");
    if (!host.IsThere())
        GTEST_SKIP() << host.GetReason();
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadNames(&log);

    EXPECT_EQ(info.GetCanonicalHostName(), "myhost");
    EXPECT_THAT(info.GetHostNames(), ElementsAre("Full.example.com", "myhost"));
    EXPECT_THAT(info.GetIpAddresses(), IsEmpty());
    EXPECT_THAT(log.GetTexts(), ElementsAre("Reading host names...", "gethostname() succeeded.  HostName 'myhost'",
                                            "getaddrinfo() succeeded.  HostName 'Full.example.com'"));
}

TEST(QDNetworkInfo, CanonicalNameThatIsTheHostNameIsHeldOnce)
{
    const NamedHost host("myhost", "192.0.2.7 myhost another\n");
    if (!host.IsThere())
        GTEST_SKIP() << host.GetReason();
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadNames(&log);

    EXPECT_EQ(info.GetCanonicalHostName(), "myhost");
    EXPECT_THAT(info.GetHostNames(), ElementsAre("myhost"));
    EXPECT_THAT(log.GetTexts(), ElementsAre("Reading host names...", "gethostname() succeeded.  HostName 'myhost'",
                                            "getaddrinfo() succeeded.  HostName 'myhost'"));
}

TEST(QDNetworkInfo, CanonicalNameThatDiffersByCaseIsHeldAsWell)
{
    const NamedHost host("myhost", "192.0.2.7 MyHost\n");
    if (!host.IsThere())
        GTEST_SKIP() << host.GetReason();
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadNames(&log);

    EXPECT_EQ(info.GetCanonicalHostName(), "myhost");
    EXPECT_THAT(info.GetHostNames(), ElementsAre("MyHost", "myhost"));
}

TEST(QDNetworkInfo, HostOnIPv6AloneIsFound)
{
    const NamedHost host("myhost", "2001:db8::7 six.example.com myhost\n");
    if (!host.IsThere())
        GTEST_SKIP() << host.GetReason();
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadNames(&log);

    EXPECT_THAT(info.GetHostNames(), ElementsAre("myhost", "six.example.com"));
}

TEST(QDNetworkInfo, LongestHostNameIsReadWhole)
{
    const std::string name(64, 'x'); // no system takes a longer one
    const NamedHost host(name, "192.0.2.7 " + name + "\n");
    if (!host.IsThere())
        GTEST_SKIP() << host.GetReason();
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadNames(&log);

    EXPECT_EQ(info.GetCanonicalHostName(), name);
    EXPECT_THAT(info.GetHostNames(), ElementsAre(name));
}

TEST(QDNetworkInfo, CanonicalNameIsAskedForByTheHostNameForStreamsOfAnyFamily)
{
    const ScriptedNames names("canonical");
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadNames(&log);

    EXPECT_EQ(names.m_CallCount, 1);
    EXPECT_EQ(names.m_Node, HostName());
    EXPECT_FALSE(names.m_HasService);
    EXPECT_EQ(names.m_Hints.ai_flags, AI_CANONNAME);
    EXPECT_EQ(names.m_Hints.ai_family, AF_UNSPEC);
    EXPECT_EQ(names.m_Hints.ai_socktype, SOCK_STREAM);
    EXPECT_EQ(names.m_Hints.ai_protocol, 0);
    EXPECT_EQ(names.m_FreedCount, 1);
}

TEST(QDNetworkInfo, HostNameThatCannotBeReadIsLoggedAndNotLookedUp)
{
    const ScriptedNames names("canonical");
    const FaultPlan failure("gethostname", 1, EFAULT);
    QDNetworkInfo info = InfoWith("name", {"a"});
    RecordingLog log;

    info.ReadNames(&log);

    EXPECT_THAT(log.GetTexts(), ElementsAre("Reading host names...", "gethostname() returns -1. errno = 14"));
    EXPECT_EQ(names.m_CallCount, 0);
    EXPECT_EQ(info.GetCanonicalHostName(), "name");
    EXPECT_THAT(info.GetHostNames(), ElementsAre("a"));
}

TEST(QDNetworkInfo, HostNameThatCannotBeFoundIsHeldAlone)
{
    struct Case
    {
        int m_Result;
        int m_Error;
        const char* m_pText;
    };

    const Case cases[] = {
        {EAI_NONAME, ENOENT, "getaddrinfo() returns -2. errno = 2"},
        {EAI_SYSTEM, EMFILE, "getaddrinfo() returns -11. errno = 24"},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_pText);
        const ScriptedNames names(testCase.m_Result, testCase.m_Error);
        QDNetworkInfo info;
        RecordingLog log;

        info.ReadNames(&log);

        EXPECT_THAT(log.GetTexts(),
                    ElementsAre("Reading host names...", "gethostname() succeeded.  HostName '" + HostName() + "'",
                                testCase.m_pText));
        EXPECT_EQ(info.GetCanonicalHostName(), HostName());
        EXPECT_THAT(info.GetHostNames(), ElementsAre(HostName()));
        EXPECT_EQ(names.m_FreedCount, 0);
    }
}

TEST(QDNetworkInfo, CanonicalNameIsThatOfTheFirstResult)
{
    const ScriptedNames names("first.example.com");
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadNames(&log);

    EXPECT_TRUE(log.Has("getaddrinfo() succeeded.  HostName 'first.example.com'"));
    EXPECT_THAT(info.GetHostNames(), testing::UnorderedElementsAre("first.example.com", HostName()));
}

TEST(QDNetworkInfo, HostNameHasRoomFor255Bytes)
{
    const ScriptedNames names(EAI_NONAME, ENOENT);
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadNames(&log);

    EXPECT_EQ(GetLastHostNameRoom(), 256u);
}

TEST(QDNetworkInfo, ResultWithoutACanonicalNameStandsForTheHostName)
{
    const ScriptedNames names(nullptr);
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadNames(&log);

    EXPECT_TRUE(log.Has("getaddrinfo() succeeded.  HostName '" + HostName() + "'"));
    EXPECT_THAT(info.GetHostNames(), ElementsAre(HostName()));
    EXPECT_EQ(names.m_FreedCount, 1);
}

// --- Reading addresses ---------------------------------------------------------------------------------------------

TEST(QDNetworkInfo, LoopbackInterfaceHasAnAddressOfEachFamily)
{
    std::string reason;
    if (!EnterNetworkNamespace(reason) || !HasIPv6(reason))
        GTEST_SKIP() << reason;
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadIPAddresses(&log);

    EXPECT_EQ(log.GetTexts().front(), "Reading host addresses...");
    EXPECT_THAT(LogOf(log, "lo"),
                ElementsAre(kLoopbackFlags, "\tNo netmask information", kLoopbackFlags,
                            "\tAddress family 2, IP Addr '127.0.0.1', NetMask '255.0.0.0'", kLoopbackFlags,
                            "\tAddress family 10, IP Addr '::1', NetMask 'ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff'"));
    EXPECT_THAT(AddressesOf(info), ElementsAre("127.0.0.1/8 2", "::1/128 10"));
}

TEST(QDNetworkInfo, InterfacesOfBothFamiliesWithSeveralAddresses)
{
    std::string reason;
    if (!EnterNetworkNamespace(reason) || !HasIPv6(reason) || !HasIpProgram(reason))
        GTEST_SKIP() << reason;
    ASSERT_TRUE(DoWithIp("link add qda type veth peer name qdb\n"
                         "link set qda addrgenmode none up\n"
                         "link set qdb addrgenmode none up\n"
                         "addr add 192.0.2.7/24 dev qda\n"
                         "addr add 198.51.100.9/29 dev qda\n"
                         "addr add 2001:db8::7/48 dev qda nodad\n"
                         "addr add fe80::7/64 dev qda nodad\n"
                         "addr add 203.0.113.1/32 dev qdb\n"));
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadIPAddresses(&log);

    const std::string flags = "Flags 0x11043 (UP BROADCAST RUNNING MULTICAST LOWER_UP)";
    EXPECT_THAT(LogOf(log, "qda"),
                testing::UnorderedElementsAre(
                    flags, "\tNo netmask information",                                               //
                    flags, "\tAddress family 2, IP Addr '192.0.2.7', NetMask '255.255.255.0'",       //
                    flags, "\tAddress family 2, IP Addr '198.51.100.9', NetMask '255.255.255.248'",  //
                    flags, "\tAddress family 10, IP Addr '2001:db8::7', NetMask 'ffff:ffff:ffff::'", //
                    flags, "\tAddress family 10, IP Addr 'fe80::7%qda', NetMask 'ffff:ffff:ffff:ffff::'"));
    EXPECT_THAT(AddressesOf(info),
                testing::UnorderedElementsAre("127.0.0.1/8 2", "::1/128 10", "192.0.2.7/24 2", "198.51.100.9/29 2",
                                              "2001:db8::7/48 10", "fe80::7%qda/64 10", "203.0.113.1/32 2"));
}

TEST(QDNetworkInfo, InterfaceThatIsDownCountsAsWell)
{
    std::string reason;
    if (!EnterNetworkNamespace(reason) || !HasIpProgram(reason))
        GTEST_SKIP() << reason;
    ASSERT_TRUE(DoWithIp("link add qda type veth peer name qdb\n"
                         "addr add 192.0.2.7/24 dev qda\n"));
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadIPAddresses(&log);

    EXPECT_THAT(LogOf(log, "qda"), ElementsAre("Flags 0x1002 (BROADCAST MULTICAST)", "\tNo netmask information",
                                               "Flags 0x1002 (BROADCAST MULTICAST)",
                                               "\tAddress family 2, IP Addr '192.0.2.7', NetMask '255.255.255.0'"));
    EXPECT_THAT(AddressesOf(info), testing::Contains("192.0.2.7/24 2"));
}

TEST(QDNetworkInfo, TunnelHasNoAddressOfItsOwnAndOneOfTwoEnds)
{
    std::string reason;
    if (!EnterNetworkNamespace(reason) || !HasIpProgram(reason))
        GTEST_SKIP() << reason;
    if (::access("/dev/net/tun", R_OK | W_OK) != 0)
        GTEST_SKIP() << "no tunnels can be made: " << std::strerror(errno);
    ASSERT_TRUE(DoWithIp("tuntap add qdtun mode tun\n"
                         "addr add 192.0.2.1 peer 192.0.2.2/32 dev qdtun\n"));
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadIPAddresses(&log);

    EXPECT_THAT(LogOf(log, "qdtun"),
                ElementsAre("Flags 0x1090 (POINTTOPOINT NOARP MULTICAST)", "\tNo address information",
                            "Flags 0x1090 (POINTTOPOINT NOARP MULTICAST)",
                            "\tAddress family 2, IP Addr '192.0.2.1', NetMask '255.255.255.255'"));
    EXPECT_THAT(AddressesOf(info), testing::Contains("192.0.2.1/32 2"));
}

TEST(QDNetworkInfo, ManyInterfacesAreThoseThatIpShows)
{
    std::string reason;
    if (!EnterNetworkNamespace(reason) || !HasIPv6(reason) || !HasIpProgram(reason))
        GTEST_SKIP() << reason;
    std::string commands;
    for (int i = 0; i < 25; ++i) {
        const std::string number = std::to_string(i);
        commands += "link add qda" + number + " type veth peer name qdb" + number + "\n";
        commands += "addr add 10." + number + ".0.1/" + std::to_string(1 + i) + " dev qda" + number + "\n";
        commands += "addr add 2001:db8:" + number + "::1/" + std::to_string(100 + i) + " dev qdb" + number + "\n";
    }
    ASSERT_TRUE(DoWithIp(commands));
    // Lines such as "2: qda0    inet 10.0.0.1/24 scope global qda0".
    ChildProcess ip({"ip", "-o", "addr", "show"});
    ASSERT_EQ(ip.WaitForExit(), 0) << ip.GetErrors();
    Texts expected;
    std::istringstream words(ip.GetOutput());
    for (std::string line; std::getline(words, line);) {
        std::string index;
        std::string name;
        std::string family;
        std::string address;
        std::istringstream(line) >> index >> name >> family >> address;
        expected.push_back(address + (family == "inet6" ? " 10" : " 2"));
    }
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadIPAddresses(&log);

    EXPECT_EQ(expected.size(), 52u);
    EXPECT_THAT(AddressesOf(info), testing::UnorderedElementsAreArray(expected));
    EXPECT_EQ(log.CountContaining("\tNo netmask information"), log.CountContaining("Name '") - 52);
}

TEST(QDNetworkInfo, EachEntryIsLoggedInOrderWithWhatBecomesOfIt)
{
    ScriptedInterfaces interfaces;
    interfaces.Add("none", 0x1, "", "");
    interfaces.Add("mask only", 0x1, "", "255.0.0.0");
    interfaces.Add("address only", 0x1, "192.0.2.1", "");
    interfaces.Add("other family only", 0x1, "family 17", "");
    interfaces.Add("other family", 0x1, "family 17", "255.0.0.0");
    interfaces.Add("four", 0x1043, "192.0.2.9", "255.255.255.0");
    interfaces.Add("family 0", 0x1, "family 0", "255.0.0.0");
    interfaces.Add("six", 0, "2001:db8::9", "ffff:ffff::");
    interfaces.Add("four", 0x1043, "192.0.2.8", "255.255.0.0");
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadIPAddresses(&log);

    EXPECT_THAT(log.GetTexts(),
                ElementsAreArray(Texts{"Reading host addresses...",                                            //
                                       "Name 'none', Flags 0x1 (UP)", "\tNo address information",              //
                                       "Name 'mask only', Flags 0x1 (UP)", "\tNo address information",         //
                                       "Name 'address only', Flags 0x1 (UP)", "\tNo netmask information",      //
                                       "Name 'other family only', Flags 0x1 (UP)", "\tNo netmask information", //
                                       "Name 'other family', Flags 0x1 (UP)", "\tAddress family 17 ignored",   //
                                       "Name 'four', Flags 0x1043 (UP BROADCAST RUNNING MULTICAST)",           //
                                       "\tAddress family 2, IP Addr '192.0.2.9', NetMask '255.255.255.0'",     //
                                       "Name 'family 0', Flags 0x1 (UP)", "\tAddress family 0 ignored",        //
                                       "Name 'six', Flags 0x0 ()",                                             //
                                       "\tAddress family 10, IP Addr '2001:db8::9', NetMask 'ffff:ffff::'",    //
                                       "Name 'four', Flags 0x1043 (UP BROADCAST RUNNING MULTICAST)",           //
                                       "\tAddress family 2, IP Addr '192.0.2.8', NetMask '255.255.0.0'"}));
    EXPECT_THAT(AddressesOf(info), ElementsAre("192.0.2.9/24 2", "2001:db8::9/32 10", "192.0.2.8/16 2"));
    EXPECT_EQ(interfaces.GetFreedCount(), 1);
}

TEST(QDNetworkInfo, FlagsAreNamedInTheOrderOfTheirBits)
{
    const std::pair<unsigned int, const char*> cases[] = {
        {0x0, "Flags 0x0 ()"},
        {0x1, "Flags 0x1 (UP)"},
        {0x2, "Flags 0x2 (BROADCAST)"},
        {0x4, "Flags 0x4 (DEBUG)"},
        {0x8, "Flags 0x8 (LOOPBACK)"},
        {0x10, "Flags 0x10 (POINTTOPOINT)"},
        {0x20, "Flags 0x20 (NOTRAILERS)"},
        {0x40, "Flags 0x40 (RUNNING)"},
        {0x80, "Flags 0x80 (NOARP)"},
        {0x100, "Flags 0x100 (PROMISC)"},
        {0x200, "Flags 0x200 (ALLMULTI)"},
        {0x400, "Flags 0x400 (MASTER)"},
        {0x800, "Flags 0x800 (SLAVE)"},
        {0x1000, "Flags 0x1000 (MULTICAST)"},
        {0x2000, "Flags 0x2000 (PORTSEL)"},
        {0x4000, "Flags 0x4000 (AUTOMEDIA)"},
        {0x8000, "Flags 0x8000 (DYNAMIC)"},
        {0x10000, "Flags 0x10000 (LOWER_UP)"},
        {0x20000, "Flags 0x20000 (DORMANT)"},
        {0x40000, "Flags 0x40000 (ECHO)"},
        {0x80000, "Flags 0x80000 ()"},
        {0xFFF80000, "Flags 0xFFF80000 ()"},
        {0x80000001, "Flags 0x80000001 (UP)"},
        {0x1043, "Flags 0x1043 (UP BROADCAST RUNNING MULTICAST)"},
        {0xFFFFFFFF, "Flags 0xFFFFFFFF (UP BROADCAST DEBUG LOOPBACK POINTTOPOINT NOTRAILERS RUNNING NOARP PROMISC "
                     "ALLMULTI MASTER SLAVE MULTICAST PORTSEL AUTOMEDIA DYNAMIC LOWER_UP DORMANT ECHO)"},
    };
    for (const auto& [flags, text] : cases) {
        SCOPED_TRACE(text);
        ScriptedInterfaces interfaces;
        interfaces.Add("a", flags, "", "");
        QDNetworkInfo info;
        RecordingLog log;

        info.ReadIPAddresses(&log);

        EXPECT_THAT(LogOf(log, "a"), ElementsAre(text, "\tNo address information"));
    }
}

TEST(QDNetworkInfo, PrefixLengthIsThatOfTheNetmask)
{
    const std::pair<const char*, unsigned int> cases[] = {
        {"0.0.0.0", 0},
        {"128.0.0.0", 1},
        {"254.0.0.0", 7},
        {"255.0.0.0", 8},
        {"255.128.0.0", 9},
        {"255.255.255.0", 24},
        {"255.255.255.254", 31},
        {"255.255.255.255", 32},
        {"::", 0},
        {"8000::", 1},
        {"fe00::", 7},
        {"ff00::", 8},
        {"ff80::", 9},
        {"ffff:ffff:ffff:ffff::", 64},
        {"ffff:ffff:ffff:ffff:8000::", 65},
        {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe", 127},
        {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", 128},
    };
    for (const auto& [netmask, length] : cases) {
        SCOPED_TRACE(netmask);

        EXPECT_EQ(PrefixLengthOf(netmask), length);
    }
}

TEST(QDNetworkInfo, PrefixOfAMaskWithAGapEndsByFamily)
{
    const std::pair<const char*, unsigned int> cases[] = {
        {"255.0.255.0", 24}, // to the last 1 bit
        {"255.255.0.1", 32},
        {"0.0.0.1", 32},
        {"0.255.0.0", 16},
        {"160.0.0.0", 3},
        {"ffff:0:ffff::", 16}, // to the first 0 bit
        {"ff00:ff00::", 8},
        {"::1", 0},
        {"7fff::", 0},
        {"a000::", 1},
        {"ffff:ffff:fbff:ffff:ffff:ffff:ffff:ffff", 37},
    };
    for (const auto& [netmask, length] : cases) {
        SCOPED_TRACE(netmask);

        EXPECT_EQ(PrefixLengthOf(netmask), length);
    }
}

TEST(QDNetworkInfo, AddressThatNoTextCanBeMadeOfIsLoggedAndLeftOut)
{
    // Of the first entry the first conversion fails, of the second the second one.
    for (const int failed : {1, 2, 3}) {
        SCOPED_TRACE(failed);
        ScriptedInterfaces interfaces;
        interfaces.Add("four", 0x1, "192.0.2.1", "255.255.255.0");
        interfaces.Add("six", 0x1, "2001:db8::1", "ffff:ffff::");
        QDNetworkInfo info;
        RecordingLog log;
        const FaultPlan failure("getnameinfo", failed, EAI_AGAIN);

        info.ReadIPAddresses(&log);

        const bool isFour = failed < 3;
        EXPECT_THAT(
            LogOf(log, "four"),
            ElementsAre("Flags 0x1 (UP)", isFour ? "\tAddress family 2, getnameinfo() returns -3"
                                                 : "\tAddress family 2, IP Addr '192.0.2.1', NetMask '255.255.255.0'"));
        EXPECT_THAT(
            LogOf(log, "six"),
            ElementsAre("Flags 0x1 (UP)", isFour ? "\tAddress family 10, IP Addr '2001:db8::1', NetMask 'ffff:ffff::'"
                                                 : "\tAddress family 10, getnameinfo() returns -3"));
        EXPECT_EQ(failure.GetCallCount(), failed == 2 ? 4 : 3) << "no netmask without an address";
        EXPECT_THAT(AddressesOf(info), ElementsAre(isFour ? "2001:db8::1/32 10" : "192.0.2.1/24 2"));
        EXPECT_EQ(interfaces.GetFreedCount(), 1);
    }
}

TEST(QDNetworkInfo, NetmaskWithoutAFamilyIsLoggedAndLeftOut)
{
    ScriptedInterfaces interfaces;
    interfaces.Add("a", 0x1, "192.0.2.1", "family 0");
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadIPAddresses(&log);

    EXPECT_THAT(LogOf(log, "a"), ElementsAre("Flags 0x1 (UP)", "\tAddress family 2, getnameinfo() returns -6"));
    EXPECT_THAT(info.GetIpAddresses(), IsEmpty());
}

TEST(QDNetworkInfo, NetmaskOfAnotherFamilyIsReadByTheFamilyOfTheAddress)
{
    ScriptedInterfaces interfaces;
    interfaces.Add("four", 0x1, "192.0.2.1", "ffff:ff00::");
    interfaces.Add("six", 0x1, "2001:db8::1", "255.255.255.0");
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadIPAddresses(&log);

    EXPECT_THAT(LogOf(log, "four"), ElementsAre("Flags 0x1 (UP)", "\tAddress family 2, getnameinfo() returns -6"));
    EXPECT_THAT(LogOf(log, "six"),
                ElementsAre("Flags 0x1 (UP)", "\tAddress family 10, IP Addr '2001:db8::1', NetMask '255.255.255.0'"));
    EXPECT_THAT(AddressesOf(info), ElementsAre("2001:db8::1/0 10"));
}

TEST(QDNetworkInfo, AddressAndNetmaskAreConvertedByTheLengthOfTheFamily)
{
    struct Case
    {
        const char* m_pAddress;
        const char* m_pNetmask;
        unsigned int m_Length;
    };

    const Case cases[] = {{"192.0.2.1", "255.255.255.0", 16}, {"2001:db8::1", "ffff:ffff::", 28}};
    for (const Case& testCase : cases) {
        for (const int lastCall : {1, 2}) {
            SCOPED_TRACE(std::string(testCase.m_pAddress) + ", call " + std::to_string(lastCall));
            ScriptedInterfaces interfaces;
            interfaces.Add("a", 0x1, testCase.m_pAddress, testCase.m_pNetmask);
            QDNetworkInfo info;
            RecordingLog log;
            const FaultPlan failure("getnameinfo", lastCall, EAI_AGAIN);

            info.ReadIPAddresses(&log);

            EXPECT_EQ(failure.GetCallCount(), lastCall);
            EXPECT_EQ(GetLastNameInfoSizes().m_AddressLength, testCase.m_Length);
            EXPECT_EQ(GetLastNameInfoSizes().m_HostRoom, 1025u);
        }
    }
}

TEST(QDNetworkInfo, InterfacesThatCannotBeReadAreLogged)
{
    ScriptedInterfaces interfaces;
    interfaces.FailWith(-3);
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadIPAddresses(&log);

    EXPECT_THAT(log.GetTexts(), ElementsAre("Reading host addresses...", "...getifaddrs() returns -3"));
    EXPECT_THAT(info.GetIpAddresses(), IsEmpty());
    EXPECT_EQ(interfaces.GetFreedCount(), 0);
}

TEST(QDNetworkInfo, HostWithoutInterfacesHasNoAddresses)
{
    const ScriptedInterfaces interfaces;
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadIPAddresses(&log);

    EXPECT_THAT(log.GetTexts(), ElementsAre("Reading host addresses..."));
    EXPECT_THAT(info.GetIpAddresses(), IsEmpty());
}

// --- Reading all ---------------------------------------------------------------------------------------------------

TEST(QDNetworkInfo, ReadAllReadsNamesAndThenAddresses)
{
    const ScriptedNames names("canonical.example.com");
    ScriptedInterfaces interfaces;
    interfaces.Add("a", 0x1, "192.0.2.1", "255.255.255.0");
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadAll(&log);

    EXPECT_THAT(log.GetTexts(), ElementsAre("Read network information...", "Reading host names...",
                                            "gethostname() succeeded.  HostName '" + HostName() + "'",
                                            "getaddrinfo() succeeded.  HostName 'canonical.example.com'",
                                            "Reading host addresses...", "Name 'a', Flags 0x1 (UP)",
                                            "\tAddress family 2, IP Addr '192.0.2.1', NetMask '255.255.255.0'"));
    EXPECT_EQ(info.GetCanonicalHostName(), HostName());
    EXPECT_THAT(info.GetHostNames(), testing::UnorderedElementsAre("canonical.example.com", HostName()));
    EXPECT_THAT(AddressesOf(info), ElementsAre("192.0.2.1/24 2"));
}

TEST(QDNetworkInfo, ReadAllAddsToWhatIsHeld)
{
    const ScriptedNames names(EAI_NONAME, ENOENT);
    ScriptedInterfaces interfaces;
    interfaces.Add("a", 0x1, "192.0.2.1", "255.255.255.0");
    QDNetworkInfo info = InfoWith("before", {"", "\xFF"});
    RecordingLog log;

    info.ReadAll(&log);
    info.ReadAll(&log);

    EXPECT_EQ(info.GetCanonicalHostName(), HostName());
    EXPECT_THAT(info.GetHostNames(), ElementsAre("", HostName(), HostName(), "\xFF"));
    EXPECT_THAT(AddressesOf(info), ElementsAre("192.0.2.1/24 2", "192.0.2.1/24 2"));
}

TEST(QDNetworkInfo, ReadAllGoesOnWhenEverythingFails)
{
    const ScriptedNames names(EAI_NONAME, ENOENT);
    const FaultPlan failure("gethostname", 1, EFAULT);
    ScriptedInterfaces interfaces;
    interfaces.FailWith(-1);
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadAll(&log);

    EXPECT_THAT(log.GetTexts(), ElementsAre("Read network information...", "Reading host names...",
                                            "gethostname() returns -1. errno = 14", "Reading host addresses...",
                                            "...getifaddrs() returns -1"));
}

TEST(QDNetworkInfo, EveryMessageIsInformationWithoutACode)
{
    const ScriptedNames names(EAI_NONAME, ENOENT);
    ScriptedInterfaces interfaces;
    interfaces.Add("none", 0x1, "", "");
    interfaces.Add("no mask", 0x1, "192.0.2.1", "");
    interfaces.Add("other", 0x1, "family 17", "255.0.0.0");
    interfaces.Add("four", 0x1, "192.0.2.9", "255.255.255.0");
    interfaces.Add("bad mask", 0x1, "192.0.2.9", "family 0");
    QDNetworkInfo info;
    RecordingLog log;

    info.ReadAll(&log);
    interfaces.FailWith(-1);
    info.ReadAll(&log);

    EXPECT_EQ(log.GetMessages().size(), 21u);
    for (const RecordingLog::Message& message : log.GetMessages()) {
        EXPECT_EQ(message.m_Type, COutputLog::Info) << message.m_Text;
        EXPECT_EQ(message.m_Code, 0) << message.m_Text;
    }
}

TEST(QDNetworkInfo, WhatTheSystemGaveIsFreedWhenMemoryIsShort)
{
    const std::string longName(300, 'x');
    ScriptedNames names(longName.c_str());
    ScriptedInterfaces interfaces;
    interfaces.Add("a", 0x1, "192.0.2.1", "255.255.255.0");
    QDNetworkInfo info;
    COutputLogNull log;
    {
        const AllocationLimit limit(256); // enough for any host name
        EXPECT_THROW(info.ReadNames(&log), std::bad_alloc);
    }
    {
        const AllocationLimit limit(16);
        EXPECT_THROW(info.ReadIPAddresses(&log), std::bad_alloc);
    }

    EXPECT_EQ(names.m_FreedCount, 1);
    EXPECT_EQ(interfaces.GetFreedCount(), 1);
    EXPECT_THAT(info.GetHostNames(), ElementsAre(HostName()));
    EXPECT_THAT(info.GetIpAddresses(), IsEmpty());
}

// --- Comparing -----------------------------------------------------------------------------------------------------

TEST(QDNetworkInfo, NamesDecideWhetherItIsTheSame)
{
    struct Case
    {
        const char* m_pSituation;
        QDNetworkInfo m_Left;
        QDNetworkInfo m_Right;
        bool m_IsSame;
    };

    const Case cases[] = {
        {"empty", {}, {}, true},
        {"equal", InfoWith("c", {"a", "b"}), InfoWith("c", {"a", "b"}), true},
        {"added in another order", InfoWith("c", {"a", "b"}), InfoWith("c", {"b", "a"}), true},
        {"canonical name in upper case", InfoWith("Host", {"a"}), InfoWith("hOST", {"a"}), true},
        {"host names in upper case", InfoWith("c", {"a", "b"}), InfoWith("c", {"A", "B"}), true},
        {"another canonical name", InfoWith("c", {"a"}), InfoWith("d", {"a"}), false},
        {"canonical name cut short", InfoWith("cc", {"a"}), InfoWith("c", {"a"}), false},
        {"no canonical name", InfoWith("c", {"a"}), InfoWith("", {"a"}), false},
        {"another host name", InfoWith("c", {"a", "b"}), InfoWith("c", {"a", "x"}), false},
        {"one host name more", InfoWith("c", {"a"}), InfoWith("c", {"a", "b"}), false},
        {"the same host name twice", InfoWith("c", {"a"}), InfoWith("c", {"a", "a"}), false},
        {"case that changes the order", InfoWith("c", {"a", "B"}), InfoWith("c", {"a", "b"}), false},
        {"letters outside ASCII", InfoWith("\xC3\x89", {}), InfoWith("\xC3\xA9", {}), false},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_pSituation);

        EXPECT_EQ(testCase.m_Left.IsSameNetworkInfoAs(testCase.m_Right), testCase.m_IsSame);
        EXPECT_EQ(testCase.m_Right.IsSameNetworkInfoAs(testCase.m_Left), testCase.m_IsSame);
    }
}

TEST(QDNetworkInfo, AddressesDoNotDecideWhetherItIsTheSame)
{
    ScriptedInterfaces interfaces;
    interfaces.Add("a", 0x1, "192.0.2.1", "255.255.255.0");
    RecordingLog log;
    const QDNetworkInfo without = InfoWith("c", {"a"});
    QDNetworkInfo with = without;
    with.ReadIPAddresses(&log);
    ASSERT_EQ(with.GetIpAddresses().size(), 1u);

    EXPECT_TRUE(with.IsSameNetworkInfoAs(without));
    EXPECT_TRUE(without.IsSameNetworkInfoAs(with));
}

// --- Texts ---------------------------------------------------------------------------------------------------------

TEST(QDNetworkInfo, ListOfNamesShowsThePortUnlessItIsImplied)
{
    const QDNetworkInfo info = InfoWith("c", {"b", "a"});
    const std::pair<int, const char*> cases[] = {
        {20295, "a, b"},
        {502, "a:502, b:502"},
        {20294, "a:20294, b:20294"},
        {20296, "a:20296, b:20296"},
        {0, "a:0, b:0"},
        {65535, "a:65535, b:65535"},
        {0x7FFFFFFF, "a:2147483647, b:2147483647"},
        {-1, "a:4294967295, b:4294967295"},
    };
    for (const auto& [port, text] : cases) {
        SCOPED_TRACE(port);

        EXPECT_EQ(ListOf(info, port), text);
    }
}

TEST(QDNetworkInfo, ListOfOneNameAndOfNone)
{
    EXPECT_EQ(ListOf(InfoWith("c", {"a"}), 502), "a:502");
    EXPECT_EQ(ListOf(InfoWith("c", {"a"}), 20295), "a");
    EXPECT_EQ(ListOf(InfoWith("c", {}), 502), "");
    EXPECT_EQ(ListOf(InfoWith("c", {"", "a"}), 502), ":502, a:502");
}

TEST(QDNetworkInfo, PrintsNamesAndAddresses)
{
    ScriptedInterfaces interfaces;
    interfaces.Add("four", 0x1, "192.0.2.7", "255.255.255.0");
    interfaces.Add("six", 0x1, "2001:db8::7", "ffff:ffff:ffff::");
    RecordingLog log;
    QDNetworkInfo info = InfoWith("canonical", {"b", "a%s"});
    info.ReadIPAddresses(&log);
    CTextOutputString out;
    out.SetLineTermination(LineTerminationLF);

    info.PrintNetworkInfo(out);

    EXPECT_EQ(out.GetText(), "Canonical Host Name: canonical\n"
                             "Host Names:\n"
                             "\ta%s\n"
                             "\tb\n"
                             "IP Addresses:\n"
                             "\t192.0.2.7/24\n"
                             "\t2001:db8::7/48\n");
    EXPECT_EQ(out.GetIndent(), 0);
}

TEST(QDNetworkInfo, PrintsTheTitlesOfWhatIsEmptyAtTheWritersOwnIndent)
{
    const QDNetworkInfo info;
    CTextOutputString out;
    out.SetLineTermination(LineTerminationLF);
    out.AdjustIndent(1);

    info.PrintNetworkInfo(out);

    EXPECT_EQ(out.GetText(), "\tCanonical Host Name: \n"
                             "\tHost Names:\n"
                             "\tIP Addresses:\n");
    EXPECT_EQ(out.GetIndent(), 1);
}
