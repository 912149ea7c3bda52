#pragma once

#include "MountedOver.h"
#include "PrivateNamespace.h"
#include "TemporaryFolder.h"

#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

// Gives this process and its children a host name of their own, a hosts file that alone says which hosts there are, and
// a network as EnterNetworkNamespace() makes it. The files are back when the object ends; name and network stay.
//
// Needs what MountedOver and EnterNetworkNamespace() need; where something is missing, the test skips itself with
// GetReason(). To be made by a test's first thread, before there are others.
class NamedHost
{
public:
    // hosts: the text of /etc/hosts.
    NamedHost(const std::string& name, const std::string& hosts) :
        m_Hosts(MakeFile("hosts", hosts), "/etc/hosts"),
        m_Sources(MakeFile("nsswitch.conf", "hosts: files\n"), "/etc/nsswitch.conf")
    {
        if (!m_Hosts.IsMounted() || !m_Sources.IsMounted()) {
            m_Reason = m_Hosts.IsMounted() ? m_Sources.GetReason() : m_Hosts.GetReason();
            return;
        }
        if (!EnterNetworkNamespace(m_Reason))
            return;
        m_IsThere = PrivateNamespace::Enter(CLONE_NEWUTS) && ::sethostname(name.c_str(), name.size()) == 0;
        if (!m_IsThere)
            m_Reason = std::string("no host name of the test's own: ") + std::strerror(errno);
    }

    bool IsThere() const { return m_IsThere; }

    // Why it is not there.
    const std::string& GetReason() const { return m_Reason; }

private:
    // Returns the file's path.
    std::string MakeFile(const std::string& name, const std::string& text) const
    {
        WriteFileText(m_Folder / name, text);
        return m_Folder / name;
    }

    const TemporaryFolder m_Folder;
    const MountedOver m_Hosts;
    const MountedOver m_Sources; // of names
    bool m_IsThere{false};
    std::string m_Reason;
};
