#pragma once

#include <QDPlatform/CTextOutput.h>

#include <cstddef>
#include <limits>
#include <string>
#include <vector>

// A writer that keeps every code point, for tests to look at. Allocates nothing for the first 4096.
class RecordingTextOutput : public CTextOutput
{
public:
    RecordingTextOutput() { m_CodePoints.reserve(4096); }

    bool WriteCodePoint(int codePoint) override
    {
        ++m_CallCount;
        if (m_CallCount >= m_FirstFailure && m_CallCount - m_FirstFailure < m_FailureCount)
            return false;
        m_CodePoints.push_back(codePoint);
        return true;
    }

    void IndentNewLine() override
    {
        ++m_IndentCount;
        CTextOutput::IndentNewLine();
    }

    // Makes calls of WriteCodePoint() fail, from the nth on, which counts from 1 since construction.
    void FailFrom(std::size_t nth, std::size_t count = std::numeric_limits<std::size_t>::max())
    {
        m_FirstFailure = nth;
        m_FailureCount = count;
    }

    void Clear() { m_CodePoints.clear(); }

    const std::vector<int>& GetCodePoints() const { return m_CodePoints; }

    // What was written, in UTF-8.
    std::string GetText() const
    {
        std::string text;
        for (const int codePoint : m_CodePoints)
            qd_append_codepoint_to_qdstring(codePoint, text);
        return text;
    }

    // Calls of WriteCodePoint(), and of IndentNewLine().
    std::size_t GetCallCount() const { return m_CallCount; }

    std::size_t GetIndentCount() const { return m_IndentCount; }

private:
    std::vector<int> m_CodePoints;
    std::size_t m_CallCount{0};
    std::size_t m_IndentCount{0};
    std::size_t m_FirstFailure{std::numeric_limits<std::size_t>::max()};
    std::size_t m_FailureCount{0};
};
