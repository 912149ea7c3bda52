#include <QDPlatform/QDEnumerateSerialPorts.h>

#include <QDPlatform/CTextOutput.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

namespace
{

constexpr char kDeviceFolder[] = "/dev/";
constexpr std::size_t kDeviceFolderLength = sizeof kDeviceFolder - 1;
constexpr unsigned int kMaxNameLength = 58; // bytes of an entry's name behind the folder

constexpr int kFirstLineCapacity = 512; // bytes, terminator included
constexpr int kLineCapacity = 256;
// What isspace(3) accepts in the C locale; the process's locale does not count.
constexpr char kWhiteSpace[] = " \t\n\v\f\r";

// Takes the next field off `text`; an empty one at its end.
std::string TakeField(const char*& text)
{
    text += std::strspn(text, kWhiteSpace);
    const char* const field = text;
    text += std::strcspn(text, kWhiteSpace);
    return {field, text};
}

} // namespace

QDEnumerateSerialPorts::QDEnumerateSerialPorts() = default;

QDEnumerateSerialPorts::~QDEnumerateSerialPorts()
{
    EndSearch();
}

const qdchar* QDEnumerateSerialPorts::FirstPort()
{
    EndSearch();
    if (!ParseProcTTYDrivers())
        return nullptr;
    m_DriverPosition = m_Drivers.begin();
    m_pDirectorySearch = ::opendir("/dev");
    if (m_pDirectorySearch == nullptr)
        return nullptr;
    m_ReadDirCallCount = 0;
    m_CurrentName[0] = '\0';
    return NextPort();
}

const qdchar* QDEnumerateSerialPorts::NextPort()
{
    if (m_pDirectorySearch == nullptr)
        return nullptr;
    static_assert(kDeviceFolderLength + kMaxNameLength < sizeof m_CurrentName);
    for (;;) {
        ++m_ReadDirCallCount;
        const dirent* const entry = ::readdir(m_pDirectorySearch);
        if (entry == nullptr)
            break;
        if (!LinuxIsDeviceSerial(entry->d_name))
            continue;
        std::memcpy(m_CurrentName, kDeviceFolder, kDeviceFolderLength);
        qdchar* const name = m_CurrentName + kDeviceFolderLength;
        const unsigned int length =
            qd_qdchar_from_utf8(reinterpret_cast<const uint8_t*>(entry->d_name),
                                static_cast<unsigned int>(std::strlen(entry->d_name)), name, kMaxNameLength);
        name[length] = '\0';
        return m_CurrentName;
    }
    EndSearch();
    return nullptr;
}

void QDEnumerateSerialPorts::DumpState(CTextOutput& out) const
{
    out.PrintLine("QDEnumerateSerialPorts state:");
    out.AdjustIndent(1);
    out.PrintLine("/proc/tty/devices:");
    out.AdjustIndent(1);
    for (const ProcTTYDriverEntry& driver : m_Drivers) {
        out.PrintLine("Driver %s, Device %s, Type %s", driver.m_DriverName.c_str(), driver.m_DeviceNode.c_str(),
                      driver.m_DriverType.c_str());
    }
    out.AdjustIndent(-1);
    out.PrintLine("m_pDirectorySearch %p", static_cast<void*>(m_pDirectorySearch));
    out.PrintLine("m_CurrentName '%s'", m_CurrentName);
    out.PrintLine("calls to readdir() = %d", m_ReadDirCallCount);
    out.AdjustIndent(-1);
}

// Returns false when the file cannot be opened. What cannot be read of it counts as its end.
bool QDEnumerateSerialPorts::ParseProcTTYDrivers()
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen("/proc/tty/drivers", "re"), &std::fclose);
    if (file == nullptr)
        return false;
    char line[kFirstLineCapacity];
    for (int capacity = kFirstLineCapacity; std::fgets(line, capacity, file.get()) != nullptr; capacity = kLineCapacity)
        ParseProcTTYDriversLine(line);
    return true;
}

// Keeps the driver of the line when it is a serial one.
void QDEnumerateSerialPorts::ParseProcTTYDriversLine(const char* line)
{
    ProcTTYDriverEntry driver;
    driver.m_DriverName = TakeField(line);
    driver.m_DeviceNode = TakeField(line);
    driver.m_MajorNumber = TakeField(line);
    driver.m_MinorRange = TakeField(line);
    driver.m_DriverType = TakeField(line);
    if (driver.m_DriverType == "serial" && driver.m_DeviceNode.starts_with(kDeviceFolder))
        m_Drivers.push_back(std::move(driver));
}

// name: of an entry of /dev.
bool QDEnumerateSerialPorts::LinuxIsDeviceSerial(const char* name) const
{
    if (std::strncmp(name, "tty", 3) != 0)
        return false;
    for (const ProcTTYDriverEntry& driver : m_Drivers) {
        const std::size_t baseLength = driver.m_DeviceNode.size() - kDeviceFolderLength;
        if (std::strncmp(name, driver.m_DeviceNode.c_str() + kDeviceFolderLength, baseLength) == 0)
            return true;
    }
    return false;
}

void QDEnumerateSerialPorts::EndSearch()
{
    if (m_pDirectorySearch != nullptr)
        ::closedir(m_pDirectorySearch);
    m_pDirectorySearch = nullptr;
}
