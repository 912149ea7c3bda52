#pragma once

#include <QDPlatform/COutputLogToFileWithoutCS.h>
#include <QDPlatform/QDCriticalSection.h>
#include <QDPlatform/QDExport.h>

// A log in numbered files, as COutputLogToFileWithoutCS, that threads may share.
//
// A message is written whole, however many threads log, and the times in a file never run back but with the clock.
// Thread: all that prints, AppendMessage() and PrintRaw() from any thread: one writes while the others wait. Everything
//         else (names, sizes, Open(), CloseFile(), destruction) while no other thread uses the log.
// Owns:   the open file and the lock. A message that opens a file holds it until the head is written; Open() takes it
//         for each line of the head.
class QD_API COutputLogToFile : public COutputLogToFileWithoutCS
{
public:
    // As those of the base.
    COutputLogToFile();
    explicit COutputLogToFile(long long totalSize);

    COutputLogToFile(const COutputLogToFile&) = delete;
    COutputLogToFile& operator=(const COutputLogToFile&) = delete;
    ~COutputLogToFile() override;

    // As those of the base, under the lock.
    void AppendMessage(LogType type, int code, const qdchar* text, unsigned int length) override;
    void PrintRaw(const char* text) override;

private:
    CQDCriticalSection m_Lock; // everything in the base
};
