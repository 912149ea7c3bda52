#pragma once

#include <QDPlatform/COutputLog.h>
#include <QDPlatform/QDExport.h>

// A log that keeps nothing, for callers that need no messages where a log is required.
//
// Thread: any, also shared; there is nothing to guard.
class QD_API COutputLogNull : public COutputLog
{
public:
    COutputLogNull() = default;
    COutputLogNull(const COutputLogNull&) = default;
    COutputLogNull& operator=(const COutputLogNull&) = default;
    ~COutputLogNull() override;

    // Does nothing.
    void Clear() override;

    // Does nothing.
    void AppendMessage(LogType type, int code, const qdchar* text, unsigned int length) override;
};
