#pragma once

#include <QDPlatform/QDExport.h>

class COutputLog;
class CQDFilePath;

// The interface of a monitor that tells when a folder changes; on this platform it starts and watches nothing.
//
// Derive and override OnFolderChanged(). No thread is made and no descriptor opened.
// Thread: one at a time.
// Owns:   nothing. The log must outlive the last PrintLog().
class QD_API QDFileMonitorThread
{
public:
    QDFileMonitorThread(const QDFileMonitorThread&) = delete;
    QDFileMonitorThread& operator=(const QDFileMonitorThread&) = delete;

    // Keeps `log` (may be null) for PrintLog(), instead of an earlier one, and returns true. `folder` is not looked at.
    bool StartMonitorThread(const CQDFilePath& folder, COutputLog* log);

    // Does nothing; the log is kept. Safe without a start, and twice.
    void StopMonitorThread();

    // Prints "Monitor:: " and the text as one Info message to the log; `format` is printf's. A text too long for the
    // log's message, of 245 bytes at most, is cut and ends in "...". Prints nothing without a log. Allocates nothing.
    // The second colon is the log's own; the first belongs to the prefix. Kept so; see PrintLogWritesBothColons.
    void PrintLog(const char* format, ...) QD_PRINTF_FORMAT(2, 3);

    // The notification of a change in the folder. Never called on this platform.
    virtual void OnFolderChanged() = 0;

protected:
    // No log.
    QDFileMonitorThread();

    // Not virtual: nobody deletes a monitor through this class.
    ~QDFileMonitorThread();

private:
    COutputLog* m_pOutputLog{nullptr}; // not owned, null before the start
};
