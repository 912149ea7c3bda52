#pragma once

#include <QDPlatform/COutputLog.h>
#include <QDPlatform/QDExport.h>

#include <list>
#include <string>

class CTextOutput;

// A log that keeps every message with its type and code, in order of arrival.
//
// Out of memory throws std::bad_alloc.
// Thread: takes no lock.
class QD_API COutputLogToRawList : public COutputLog
{
public:
    struct LogEntry
    {
        LogType type{Info};
        int code{0};
        std::string text;
    };

    COutputLogToRawList() = default;
    COutputLogToRawList(const COutputLogToRawList&) = default;
    COutputLogToRawList& operator=(const COutputLogToRawList&) = default;
    ~COutputLogToRawList() override;

    // Removes all entries.
    void Clear() override;

    // Adds an entry with exactly `length` bytes of `text` at the back.
    void AppendMessage(LogType type, int code, const qdchar* text, unsigned int length) override;

    // Adds an entry of type Info and code 0 at the front: a heading above messages that were collected first. At most
    // 255 bytes; a longer text keeps its first 252 bytes and ends in "...".
    void InsertMessageAtFront(const char* format, ...) QD_PRINTF_FORMAT(2, 3);

    // The entry at the front, null when there is none. Valid until that entry is removed.
    const LogEntry* GetFirstEntry() const;

    // All entries in order; valid as long as the log, and changing with it.
    const std::list<LogEntry>& GetEntries() const;

    // Replaces `out` with the text of each entry in order, each followed by "\n".
    void GetConsolidatedOutputLogText(std::string& out) const;

    // Appends the same to `out`, growing it once.
    void AppendLogToString(std::string& out) const;

    // Hands the entries that are in the list now to the target's AppendMessage(), in order, with their types and codes.
    void ForwardOutputLog(COutputLog* target) const;

    // Prints the text of each entry that is in the list now as a line of the target, in order, with its PrintLine() and
    // the format "%s": up to the first NUL of the text. Types and codes are dropped.
    void ForwardOutputLog(CTextOutput* target) const;

    // Equal: as many entries, and those at the same place have the same type, code and text.
    bool operator==(const COutputLogToRawList& other) const;
    bool operator!=(const COutputLogToRawList& other) const;

private:
    std::list<LogEntry> m_Entries;
};
