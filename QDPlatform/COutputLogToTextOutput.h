#pragma once

#include <QDPlatform/COutputLog.h>
#include <QDPlatform/QDExport.h>

class CTextOutput;

// A log that prints the text of each message as a line of a text writer.
//
// Types and codes are dropped. What the writer's PrintLine() may throw (std::bad_alloc), the printing operations throw.
// Thread: that of the writer; takes no lock.
// Owns:   nothing. The writer outlives this object.
class QD_API COutputLogToTextOutput : public COutputLog
{
public:
    explicit COutputLogToTextOutput(CTextOutput& textOutput);
    COutputLogToTextOutput(const COutputLogToTextOutput&) = delete;
    COutputLogToTextOutput& operator=(const COutputLogToTextOutput&) = delete;
    ~COutputLogToTextOutput() override;

    // Does nothing: what is written stays written.
    void Clear() override;

    // Prints the text with the writer's PrintLine(), as by "%.*s": indented, ended at a NUL before `length` bytes, and
    // with U+FFFD for ill-formed UTF-8. No more than 0x7FFFFFFF bytes are looked at.
    void AppendMessage(LogType type, int code, const qdchar* text, unsigned int length) override;

private:
    CTextOutput& m_TextOutput; // not owned
};
