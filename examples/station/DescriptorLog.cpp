#include "DescriptorLog.h"

#include <QDPlatform/QDTimestamp.h>

#include <unistd.h>

#include <cerrno>
#include <string>

DescriptorLog::DescriptorLog(int descriptor) : m_Descriptor(descriptor) {}

void DescriptorLog::Clear() {}

void DescriptorLog::AppendMessage(LogType, int, const qdchar* text, unsigned int length)
{
    const std::lock_guard guard(m_Lock);
    char time[24];
    CQDTimestamp::UTCNow().ToText(time, ' ');
    std::string line = time;
    line += ' ';
    line.append(text, length);
    line += '\n';
    WriteLine(line.data(), line.size());
}

// Goes on after a partial write and after a signal.
void DescriptorLog::WriteLine(const char* line, std::size_t length)
{
    while (length > 0) {
        const ssize_t written = ::write(m_Descriptor, line, length);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return;
        line += written;
        length -= static_cast<std::size_t>(written);
    }
}
