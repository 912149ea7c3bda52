#pragma once

#include "Emulation.h"
#include "MountedOver.h"
#include "ReplacedFolder.h"
#include "TemporaryFolder.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

// Where "/dev" leads a program of the test's kind: the emulator looks into the target's folders first.
inline std::string DeviceFolder()
{
    const std::string targets = RunsEmulated() ? std::string(std::getenv("QEMU_LD_PREFIX")) + "/dev" : "";
    return !targets.empty() && std::filesystem::exists(targets) ? targets : "/dev";
}

// A host whose /proc/tty/drivers and /dev are the test's own, as this process and its children see it.
//
// Needs what MountedOver and ReplacedFolder need; where they are not mounted, the test skips itself with GetReason().
class SerialHost
{
public:
    // drivers: the text of /proc/tty/drivers. devices: the entries of /dev, which are empty files.
    explicit SerialHost(const std::string& drivers, const std::vector<std::string>& devices = {})
    {
        WriteDrivers(drivers);
        m_pDrivers = std::make_unique<MountedOver>(GetDriversFile(), "/proc/tty/drivers");
        for (const std::string& name : devices)
            WriteFileText(GetDevice(name), "");
    }

    bool IsMounted() const { return m_pDrivers->IsMounted() && m_Devices.IsMounted(); }

    // Why it is not mounted.
    const std::string& GetReason() const
    {
        return m_pDrivers->IsMounted() ? m_Devices.GetReason() : m_pDrivers->GetReason();
    }

    // Everyone may read the file, as that of the system, whatever the umask says.
    void WriteDrivers(const std::string& drivers) const
    {
        WriteFileText(GetDriversFile(), drivers);
        if (::chmod(GetDriversFile().c_str(), 0644) != 0) {
            std::perror("SerialHost");
            std::abort();
        }
    }

    std::string GetDriversFile() const { return m_Folder / "drivers"; }

    // The path of an entry of /dev.
    std::string GetDevice(const std::string& name) const { return m_Devices / name; }

private:
    const TemporaryFolder m_Folder;
    const ReplacedFolder m_Devices{DeviceFolder()};
    std::unique_ptr<MountedOver> m_pDrivers;
};
