#include <QDPlatform/CTextOutputString.h>

#include <cstddef>
#include <new>
#include <stdexcept>
#include <utility>

namespace
{

constexpr unsigned int kNoMaxLength = 0xFFFFFFFF;
constexpr char kCutMark[] = "...";

} // namespace

CTextOutputString::CTextOutputString() = default;

CTextOutputString::~CTextOutputString() = default;

bool CTextOutputString::WriteCodePoint(int codePoint)
{
    if (m_IsTruncated)
        return true;
    const bool isLineKept = m_TextLocation.GetLine() <= m_MaxLines;
    if (isLineKept && m_Text.size() < m_MaxLength) {
        qd_append_codepoint_to_qdstring(codePoint, m_Text);
        return true;
    }
    m_IsTruncated = true; // also when there is no memory for the mark
    if (!isLineKept && m_IndentLevel > 0)
        m_Text.append(static_cast<std::size_t>(m_IndentLevel), '\t');
    m_Text += kCutMark;
    return true;
}

void CTextOutputString::SetMaxLines(int maxLines)
{
    m_MaxLines = maxLines;
}

void CTextOutputString::SetMaxLength(unsigned int maxLength)
{
    m_MaxLength = maxLength;
    if (maxLength == kNoMaxLength)
        return;
    try {
        m_Text.reserve(maxLength);
    } catch (const std::bad_alloc&) {
        // A length that is a bound rather than an expectation. The text grows without the reservation.
    } catch (const std::length_error&) {
        // Longer than any text of a 32-bit process.
    }
}

std::string CTextOutputString::MoveString()
{
    m_TextLocation.Reset();
    return std::exchange(m_Text, std::string());
}

void CTextOutputString::Clear()
{
    m_Text.clear();
    m_IsTruncated = false;
    m_TextLocation.Reset();
}

const std::string& CTextOutputString::GetText() const
{
    return m_Text;
}

bool CTextOutputString::IsTruncated() const
{
    return m_IsTruncated;
}
