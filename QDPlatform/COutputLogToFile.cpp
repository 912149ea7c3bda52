#include <QDPlatform/COutputLogToFile.h>

#include <QDPlatform/QDCriticalSectionGuard.h>

COutputLogToFile::COutputLogToFile() = default;

COutputLogToFile::COutputLogToFile(long long totalSize) : COutputLogToFileWithoutCS(totalSize) {}

COutputLogToFile::~COutputLogToFile() = default;

void COutputLogToFile::AppendMessage(LogType type, int code, const qdchar* text, unsigned int length)
{
    const QDCriticalSectionGuard guard(m_Lock);
    COutputLogToFileWithoutCS::AppendMessage(type, code, text, length);
}

void COutputLogToFile::PrintRaw(const char* text)
{
    const QDCriticalSectionGuard guard(m_Lock);
    COutputLogToFileWithoutCS::PrintRaw(text);
}
