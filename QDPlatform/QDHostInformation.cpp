#include <QDPlatform/QDHostInformation.h>

#include <QDPlatform/CTextOutput.h>
#include <QDPlatform/QDString.h>
#include <QDPlatform/QDUniqueFd.h>

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace
{

std::string ReadHostName()
{
    char name[256];
    if (::gethostname(name, sizeof name) != 0)
        qd_sprintf(name, sizeof name, "gethostame() errno %d", errno);
    name[sizeof name - 1] = '\0'; // POSIX lets a name that is cut go without
    char text[256];
    const unsigned int length = qd_qdchar_from_utf8(reinterpret_cast<const uint8_t*>(name),
                                                    static_cast<unsigned int>(std::strlen(name)), text, sizeof text);
    return {text, length};
}

std::string ReadFailure(const char* path)
{
    return "Read '" + std::string(path) + "' failed";
}

// One line that the kernel tells of itself.
std::string ReadKernelText(const char* path)
{
    int descriptor = -1;
    do // a signal that interrupts a call before it did anything does not fail it
        descriptor = ::open(path, O_RDONLY | O_CLOEXEC);
    while (descriptor < 0 && errno == EINTR);
    const QDUniqueFd file(descriptor);
    if (!file.IsOpen())
        return ReadFailure(path);
    char text[80];
    ssize_t count = 0;
    do
        count = ::read(file.Get(), text, sizeof text);
    while (count < 0 && errno == EINTR);
    if (count < 0)
        return ReadFailure(path);
    std::size_t length = static_cast<std::size_t>(count);
    while (length > 0 && std::isspace(static_cast<unsigned char>(text[length - 1])))
        --length;
    return {text, length};
}

} // namespace

CQDHostInformation::CQDHostInformation() : m_HostName(ReadHostName())
{
    m_OSInformation[0] = ReadKernelText("/proc/sys/kernel/ostype");
    m_OSInformation[1] = ReadKernelText("/proc/sys/kernel/osrelease");
    m_OSInformation[2] = ReadKernelText("/proc/sys/kernel/version");
    m_OSInformation[3] = "32 Bit OS";
    m_OSInformationCount = 4;
}

const std::string& CQDHostInformation::GetHostName() const
{
    return m_HostName;
}

int CQDHostInformation::GetOSInformationCount() const
{
    return m_OSInformationCount;
}

const std::string& CQDHostInformation::GetOSInformation(int index) const
{
    return m_OSInformation[index];
}

void CQDHostInformation::GetAllOSInformation(std::string& text) const
{
    std::size_t capacity = 0;
    for (int i = 0; i < m_OSInformationCount; ++i)
        capacity += m_OSInformation[i].size() + 2;
    text.clear();
    text.reserve(capacity);
    for (int i = 0; i < m_OSInformationCount; ++i) {
        if (i > 0)
            text += ", ";
        text += m_OSInformation[i];
    }
}

void CQDHostInformation::PrintHostInformation(CTextOutput& out) const
{
    out.PrintLine("Host Information:");
    for (int i = 0; i < m_OSInformationCount; ++i)
        out.PrintLine("\t%s", m_OSInformation[i].c_str());
}

bool CQDHostInformation::SupportsIPVersion6() const
{
    return true;
}

bool CQDHostInformation::PrintfRoundingUsesHalfEven() const
{
    return true;
}

bool CQDHostInformation::SupportsCountryOnlyLocales() const
{
    return true;
}
