#include <QDPlatform/COutputLogToString.h>

COutputLogToString::~COutputLogToString() = default;

void COutputLogToString::Clear()
{
    m_Text.clear();
}

void COutputLogToString::AppendMessage(LogType, int, const qdchar* text, unsigned int length)
{
    m_Text.append(text, length);
    m_Text += '\n';
}

void COutputLogToString::GetFirstLine(std::string& line) const
{
    const std::string::size_type end = m_Text.find('\n');
    if (end != std::string::npos)
        line.assign(m_Text, 0, end);
}

const std::string& COutputLogToString::GetText() const
{
    return m_Text;
}
