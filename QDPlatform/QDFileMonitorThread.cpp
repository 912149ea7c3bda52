#include <QDPlatform/QDFileMonitorThread.h>

#include <QDPlatform/COutputLog.h>

#include <cstdarg>

QDFileMonitorThread::QDFileMonitorThread() = default;

QDFileMonitorThread::~QDFileMonitorThread() = default;

bool QDFileMonitorThread::StartMonitorThread(const CQDFilePath&, COutputLog* log)
{
    m_pOutputLog = log;
    return true;
}

void QDFileMonitorThread::StopMonitorThread() {}

void QDFileMonitorThread::PrintLog(const char* format, ...)
{
    if (m_pOutputLog == nullptr)
        return;
    va_list args;
    va_start(args, format);
    m_pOutputLog->PrefixedPrintInfoVA("Monitor:", 8, format, args);
    va_end(args);
}
