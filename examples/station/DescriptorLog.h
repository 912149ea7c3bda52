#pragma once

#include <QDPlatform/COutputLog.h>

#include <mutex>

// A log that writes each message as one line: the UTC time, a blank and the text.
//
// A line goes out with one write. A line that cannot be written, because the disk is full or the reader has gone, is
// lost, and the next one is tried again.
// Thread: any number; a message waits for the one before it.
// Owns:   nothing; the descriptor must stay open.
class DescriptorLog : public COutputLog
{
public:
    explicit DescriptorLog(int descriptor);

    // Does nothing: what was written stays.
    void Clear() override;

    void AppendMessage(LogType type, int code, const qdchar* text, unsigned int length) override;

private:
    void WriteLine(const char* line, std::size_t length);

    const int m_Descriptor;
    std::mutex m_Lock; // held from taking the time to the end of the write, so that times ascend and lines stay whole
};
