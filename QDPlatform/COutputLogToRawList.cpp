#include <QDPlatform/COutputLogToRawList.h>

#include <QDPlatform/CTextOutput.h>

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstring>

COutputLogToRawList::~COutputLogToRawList() = default;

void COutputLogToRawList::Clear()
{
    m_Entries.clear();
}

void COutputLogToRawList::AppendMessage(LogType type, int code, const qdchar* text, unsigned int length)
{
    m_Entries.push_back({type, code, std::string(text, length)});
}

void COutputLogToRawList::InsertMessageAtFront(const char* format, ...)
{
    char buffer[256] = {};
    va_list args;
    va_start(args, format);
    const int result = qd_vsprintf_with_elipsis(buffer, sizeof buffer, format, args);
    va_end(args);
    // An encoding error is no length: the message is what the formatter left in the zeroed buffer.
    const std::size_t length =
        result == QDFormatEncodingError ? ::strnlen(buffer, sizeof buffer - 1) : static_cast<std::size_t>(result);
    m_Entries.push_front({Info, 0, std::string(buffer, length)});
}

const COutputLogToRawList::LogEntry* COutputLogToRawList::GetFirstEntry() const
{
    return m_Entries.empty() ? nullptr : &m_Entries.front();
}

const std::list<COutputLogToRawList::LogEntry>& COutputLogToRawList::GetEntries() const
{
    return m_Entries;
}

void COutputLogToRawList::GetConsolidatedOutputLogText(std::string& out) const
{
    out.clear();
    AppendLogToString(out);
}

void COutputLogToRawList::AppendLogToString(std::string& out) const
{
    std::size_t finalSize = out.size();
    for (const LogEntry& entry : m_Entries)
        finalSize += entry.text.size() + 1;
    out.reserve(finalSize);
    for (const LogEntry& entry : m_Entries) {
        out += entry.text;
        out += '\n';
    }
}

void COutputLogToRawList::ForwardOutputLog(COutputLog* target) const
{
    // Counted beforehand, so that a list forwarded to itself comes to an end.
    auto entry = m_Entries.begin();
    for (std::size_t remaining = m_Entries.size(); remaining != 0; --remaining, ++entry)
        target->AppendMessage(entry->type, entry->code, entry->text.c_str(),
                              static_cast<unsigned int>(entry->text.size()));
}

void COutputLogToRawList::ForwardOutputLog(CTextOutput* target) const
{
    // Counted beforehand here too: the target may write to this very list.
    auto entry = m_Entries.begin();
    for (std::size_t remaining = m_Entries.size(); remaining != 0; --remaining, ++entry)
        target->PrintLine("%s", entry->text.c_str());
}

bool COutputLogToRawList::operator==(const COutputLogToRawList& other) const
{
    return std::equal(m_Entries.begin(), m_Entries.end(), other.m_Entries.begin(), other.m_Entries.end(),
                      [](const LogEntry& left, const LogEntry& right) {
                          return left.type == right.type && left.code == right.code && left.text == right.text;
                      });
}

bool COutputLogToRawList::operator!=(const COutputLogToRawList& other) const
{
    return !(*this == other);
}
