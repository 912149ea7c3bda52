#pragma once

#include <QDPlatform/CTextOutput.h>
#include <QDPlatform/QDExport.h>

#include <cstdint>

class COutputLog;

// A text writer that makes each line one message of a log.
//
// Messages are of type Info and code 0. One level of indentation is two blanks at first. Line terminations have no
// meaning here. Text that no line end follows never reaches the log: the destructor drops it. Kept so; see
// TextWithoutALineEndIsNeverLogged. Nothing fails, and nothing is allocated but by the log. What the log throws goes
// through; its line is then lost, and the location unchanged.
// Thread: one at a time.
// Owns:   nothing. The log outlives this object.
class QD_API CTextOutputToOutputLog : public CTextOutput
{
public:
    // log: where the lines go; not null.
    explicit CTextOutputToOutputLog(COutputLog* log);
    CTextOutputToOutputLog(const CTextOutputToOutputLog&) = delete;
    CTextOutputToOutputLog& operator=(const CTextOutputToOutputLog&) = delete;
    ~CTextOutputToOutputLog() override;

    // Adds the code point to the line, in UTF-8. Once the line has more than 508 bytes, the rest of it is dropped
    // without a mark; so a line has at most 512 bytes, and never a part of a code point. A line feed that comes this
    // way, as Print() passes it, is a character of the line. Always returns true.
    bool WriteCodePoint(int codePoint) override;

    // Hands the line to the log, an empty one too, and begins the next; moves the location to it. Always returns true.
    bool WriteNewLine() override;

private:
    COutputLog* m_pOutputLog; // not owned, never null
    char m_Line[512]{};       // UTF-8
    uint32_t m_LineLength{0}; // bytes held
};
