#include <QDPlatform/CTextOutputToOutputLog.h>

#include <QDPlatform/COutputLog.h>

#include <utility>

namespace
{

constexpr unsigned int kLastLengthWithRoom = 508; // bytes; the longest code point has 4

} // namespace

CTextOutputToOutputLog::CTextOutputToOutputLog(COutputLog* log) : m_pOutputLog(log)
{
    SetIndentCharacters(' ', 2);
}

CTextOutputToOutputLog::~CTextOutputToOutputLog() = default;

bool CTextOutputToOutputLog::WriteCodePoint(int codePoint)
{
    if (m_LineLength <= kLastLengthWithRoom)
        m_LineLength += qd_qdchar_from_codepoint(codePoint, m_Line + m_LineLength);
    return true;
}

bool CTextOutputToOutputLog::WriteNewLine()
{
    if (m_LineLength < sizeof m_Line) // a line that fills the buffer has no room for a NUL, which no log may rely on
        m_Line[m_LineLength] = '\0';
    // Emptied first, so that a line that the log refuses with an exception does not begin the next.
    m_pOutputLog->AppendMessage(COutputLog::Info, 0, m_Line, std::exchange(m_LineLength, 0));
    m_TextLocation.IncrementByCodePoint('\n');
    return true;
}
