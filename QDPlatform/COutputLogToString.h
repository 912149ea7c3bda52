#pragma once

#include <QDPlatform/COutputLog.h>
#include <QDPlatform/QDExport.h>

#include <string>

// A log that collects the texts of its messages, one line each, in one string.
//
// Types and codes are dropped. Out of memory throws std::bad_alloc.
// Thread: takes no lock.
class QD_API COutputLogToString : public COutputLog
{
public:
    COutputLogToString() = default;
    COutputLogToString(const COutputLogToString&) = default;
    COutputLogToString& operator=(const COutputLogToString&) = default;
    ~COutputLogToString() override;

    // Empties the text.
    void Clear() override;

    // Appends exactly `length` bytes of `text` and "\n".
    void AppendMessage(LogType type, int code, const qdchar* text, unsigned int length) override;

    // Sets `line` to what stands before the first "\n". A text without "\n" leaves `line` as it is: deliberately, it is
    // not set to the whole text; see GetFirstLineOfTextWithoutNewlineLeavesTheCallersString.
    void GetFirstLine(std::string& line) const;

    // All that was appended since construction or Clear(); valid until the next change.
    const std::string& GetText() const;

private:
    std::string m_Text;
};
