#pragma once

#include "SmallFileSystem.h"

#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

// An empty folder of the test's own in the place of one of the system's, such as /dev/shm, as this process and its
// children see it. The system's is back when the object ends.
//
// Needs what SmallFileSystem needs; where it is not mounted, the test skips itself with GetReason().
class ReplacedFolder
{
public:
    explicit ReplacedFolder(std::string path) : m_Path(std::move(path)), m_Reason(m_Files.GetReason())
    {
        if (!m_Files.IsMounted())
            return;
        m_IsMounted = ::mount(m_Files.GetPath().c_str(), m_Path.c_str(), nullptr, MS_BIND, nullptr) == 0;
        if (!m_IsMounted)
            m_Reason = "nothing can be mounted over " + m_Path + ": " + std::strerror(errno);
    }

    ReplacedFolder(const ReplacedFolder&) = delete;
    ReplacedFolder& operator=(const ReplacedFolder&) = delete;

    ~ReplacedFolder()
    {
        if (m_IsMounted)
            ::umount2(m_Path.c_str(), MNT_DETACH);
    }

    bool IsMounted() const { return m_IsMounted; }

    // Why it is not mounted.
    const std::string& GetReason() const { return m_Reason; }

    // An entry of the folder, by a path that leads to nothing of the system's in any case.
    std::string operator/(const std::string& name) const { return m_Files / name; }

private:
    const std::string m_Path;
    const SmallFileSystem m_Files{"size=1m"};
    std::string m_Reason;
    bool m_IsMounted{false};
};
