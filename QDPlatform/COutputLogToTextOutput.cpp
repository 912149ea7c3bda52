#include <QDPlatform/COutputLogToTextOutput.h>

#include <QDPlatform/CTextOutput.h>

#include <algorithm>
#include <limits>

COutputLogToTextOutput::COutputLogToTextOutput(CTextOutput& textOutput) : m_TextOutput(textOutput) {}

COutputLogToTextOutput::~COutputLogToTextOutput() = default;

void COutputLogToTextOutput::Clear() {}

void COutputLogToTextOutput::AppendMessage(LogType, int, const qdchar* text, unsigned int length)
{
    // A precision below 0 would be none, and the text, which need not end in a NUL, read beyond its end.
    constexpr unsigned int kMaxPrecision = std::numeric_limits<int>::max();
    m_TextOutput.PrintLine("%.*s", static_cast<int>(std::min(length, kMaxPrecision)), text);
}
