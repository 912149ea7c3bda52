#pragma once

#include "MountedOver.h"
#include "SmallFileSystem.h"

#include <string>
#include <utility>

// An empty folder of the test's own in the place of one of the system's, such as /dev/shm, as this process and its
// children see it. The system's is back when the object ends.
//
// Needs what SmallFileSystem needs; where it is not mounted, the test skips itself with GetReason().
class ReplacedFolder
{
public:
    explicit ReplacedFolder(std::string path) : m_Mount(m_Files.GetPath(), std::move(path)) {}

    ReplacedFolder(const ReplacedFolder&) = delete;
    ReplacedFolder& operator=(const ReplacedFolder&) = delete;

    bool IsMounted() const { return m_Files.IsMounted() && m_Mount.IsMounted(); }

    // Why it is not mounted.
    const std::string& GetReason() const { return m_Files.IsMounted() ? m_Mount.GetReason() : m_Files.GetReason(); }

    // An entry of the folder, by a path that leads to nothing of the system's in any case.
    std::string operator/(const std::string& name) const { return m_Files / name; }

private:
    const SmallFileSystem m_Files{"size=1m"};
    const MountedOver m_Mount;
};
