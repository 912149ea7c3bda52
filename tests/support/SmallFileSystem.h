#pragma once

#include "PrivateNamespace.h"
#include "TemporaryFolder.h"

#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

// A file system in memory, as small as a test wants its disk, that only this process and its children see: a tmpfs in a
// mount namespace of the process, in which it stays afterwards.
//
// Needs what EnterMountNamespace() needs; where it is not mounted, the test skips itself with GetReason(). To be made
// by a test's first thread, before there are others.
class SmallFileSystem
{
public:
    // options: those of tmpfs in mount(8), such as "size=64k,nr_inodes=8".
    explicit SmallFileSystem(const std::string& options)
    {
        if (!EnterMountNamespace(m_Reason))
            return;
        if (::mount("tmpfs", m_Folder.GetPath().c_str(), "tmpfs", 0, options.c_str()) != 0)
            m_Reason = std::string("no tmpfs: ") + std::strerror(errno);
        else
            m_IsMounted = true;
    }

    SmallFileSystem(const SmallFileSystem&) = delete;
    SmallFileSystem& operator=(const SmallFileSystem&) = delete;

    ~SmallFileSystem()
    {
        if (m_IsMounted)
            ::umount2(m_Folder.GetPath().c_str(), MNT_DETACH);
    }

    bool IsMounted() const { return m_IsMounted; }

    // Why it is not mounted.
    const std::string& GetReason() const { return m_Reason; }

    // The folder where it is mounted.
    const std::string& GetPath() const { return m_Folder.GetPath(); }

    std::string operator/(const std::string& name) const { return m_Folder / name; }

    // Nothing may be open for writing. Returns false, with errno, when the system refuses.
    bool MakeReadOnly()
    {
        return ::mount(nullptr, m_Folder.GetPath().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0;
    }

    // Other limits from now on, in the form of the constructor's options.
    bool Resize(const std::string& options)
    {
        return ::mount(nullptr, m_Folder.GetPath().c_str(), nullptr, MS_REMOUNT, options.c_str()) == 0;
    }

private:
    TemporaryFolder m_Folder;
    bool m_IsMounted{false};
    std::string m_Reason;
};

// As long as it lives, permissions hold the process back, as they do not hold back root: it is nobody, or, in a
// namespace that knows no other user, root without the right to pass by permissions. Does nothing for a process that is
// not root to begin with. To be used by a test's first thread; in such a namespace it counts for that thread only.
class UnprivilegedUser
{
public:
    UnprivilegedUser() : m_WasRoot(::geteuid() == 0)
    {
        if (!m_WasRoot)
            return;
        m_IsNobody = ::seteuid(kNobody) == 0;
        if (!m_IsNobody && !SetOverride(false)) {
            std::perror("UnprivilegedUser");
            std::abort();
        }
    }

    UnprivilegedUser(const UnprivilegedUser&) = delete;
    UnprivilegedUser& operator=(const UnprivilegedUser&) = delete;

    ~UnprivilegedUser()
    {
        if (m_WasRoot && !(m_IsNobody ? ::seteuid(0) == 0 : SetOverride(true)))
            std::abort();
    }

private:
    static constexpr uid_t kNobody = 65534;

    // Takes up or lays down what makes root pass by permissions (capabilities(7)).
    static bool SetOverride(bool isOn)
    {
        __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
        if (::syscall(SYS_capget, &header, data) != 0)
            return false;
        constexpr unsigned int kOverride = 1u << CAP_DAC_OVERRIDE | 1u << CAP_DAC_READ_SEARCH;
        data[0].effective = isOn ? data[0].effective | (data[0].permitted & kOverride) : data[0].effective & ~kOverride;
        return ::syscall(SYS_capset, &header, data) == 0;
    }

    const bool m_WasRoot;
    bool m_IsNobody{false};
};
