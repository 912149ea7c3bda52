#pragma once

#include <QDPlatform/CTextOutput.h>
#include <QDPlatform/QDExport.h>

// A text writer that keeps nothing, for callers that need no text where a writer is required.
//
// The location moves as in any other writer.
// Thread: one at a time.
class QD_API CTextOutputNull : public CTextOutput
{
public:
    CTextOutputNull();
    CTextOutputNull(const CTextOutputNull&) = delete;
    CTextOutputNull& operator=(const CTextOutputNull&) = delete;
    ~CTextOutputNull() override;

    // Does nothing. Always returns true.
    bool WriteCodePoint(int codePoint) override;
};
