#pragma once

#include "PrivateNamespace.h"
#include "SmallFileSystem.h"

#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

// A file or folder of the test's own in the place of one of the system's, such as /proc/tty/drivers, as this process
// and its children see it. The system's is back when the object ends.
//
// Needs what EnterMountNamespace() needs; where it is not mounted, the test skips itself with GetReason().
class MountedOver
{
public:
    // source: a file over a file, or a folder over a folder.
    MountedOver(const std::string& source, std::string place) : m_Place(std::move(place))
    {
        if (!EnterMountNamespace(m_Reason))
            return;
        m_IsMounted = ::mount(source.c_str(), m_Place.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
        if (!m_IsMounted)
            m_Reason = "nothing can be mounted over " + m_Place + ": " + std::strerror(errno);
    }

    MountedOver(const MountedOver&) = delete;
    MountedOver& operator=(const MountedOver&) = delete;

    ~MountedOver()
    {
        if (m_IsMounted)
            ::umount2(m_Place.c_str(), MNT_DETACH);
    }

    bool IsMounted() const { return m_IsMounted; }

    // Why it is not mounted.
    const std::string& GetReason() const { return m_Reason; }

    // What is mounted can be read only from now on. Returns false, with errno, when the system refuses.
    bool MakeReadOnly()
    {
        return ::mount(nullptr, m_Place.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
    }

private:
    const std::string m_Place;
    bool m_IsMounted{false};
    std::string m_Reason;
};

// A folder of the system, such as /etc, that this process and its children may change as they like: nothing of it
// remains when the object ends. For a user who is not root, only entries directly in the folder can be added or
// replaced.
//
// Needs what EnterMountNamespace() needs; where it is not mounted, the test skips itself with GetReason().
class ChangeableFolder
{
public:
    explicit ChangeableFolder(std::string path) : m_Path(std::move(path)), m_Reason(m_Changes.GetReason())
    {
        if (!m_Changes.IsMounted())
            return;
        ::mkdir((m_Changes / "upper").c_str(), 0755);
        ::mkdir((m_Changes / "work").c_str(), 0755);
        const std::string options =
            "lowerdir=" + m_Path + ",upperdir=" + (m_Changes / "upper") + ",workdir=" + (m_Changes / "work");
        m_IsMounted = ::mount("overlay", m_Path.c_str(), "overlay", 0, options.c_str()) == 0;
        if (!m_IsMounted)
            m_Reason = "no overlay over " + m_Path + ": " + std::strerror(errno);
    }

    ChangeableFolder(const ChangeableFolder&) = delete;
    ChangeableFolder& operator=(const ChangeableFolder&) = delete;

    ~ChangeableFolder()
    {
        if (m_IsMounted)
            ::umount2(m_Path.c_str(), MNT_DETACH);
    }

    bool IsMounted() const { return m_IsMounted; }

    // Why it is not mounted.
    const std::string& GetReason() const { return m_Reason; }

private:
    const std::string m_Path;
    const SmallFileSystem m_Changes{"size=4m,mode=755"};
    std::string m_Reason;
    bool m_IsMounted{false};
};
