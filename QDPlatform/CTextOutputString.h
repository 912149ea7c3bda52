#pragma once

#include <QDPlatform/CTextOutput.h>
#include <QDPlatform/QDExport.h>

#include <cstdint>
#include <string>

// A text writer that collects what is written in a string of UTF-8, which may be bounded in lines and bytes.
//
// What does not fit is marked once, by "..." at the place where the text was cut. The bounds are compared when a code
// point is written, and changing them leaves alone what is there. Growing the text may throw std::bad_alloc, or
// std::length_error where no text of the process can be as long; nothing else fails. The text counts as cut also when
// the mark did not fit into memory.
// Thread: one at a time.
class QD_API CTextOutputString : public CTextOutput
{
public:
    // An empty text, with a maximum of 0x7FFFFFFF lines and 0xFFFFFFFF bytes, which is as good as no limit.
    CTextOutputString();
    CTextOutputString(const CTextOutputString&) = delete;
    CTextOutputString& operator=(const CTextOutputString&) = delete;
    ~CTextOutputString() override;

    // Appends the code point in UTF-8, as qd_append_codepoint_to_qdstring() does. Always returns true. A cut text does
    // not change any more; else the first of these that applies is done in place of it, and the text counts as cut:
    // - the line of the location, which counts from 1, is above the maximum: appends a TAB for each indent level and
    //   "...";
    // - the text has the maximum length or more: appends "...".
    // So the text may be longer than the maximum, by up to 3 bytes of the last code point and by the mark.
    bool WriteCodePoint(int codePoint) override;

    // Sets the last line that is kept; a value below 1 keeps none.
    void SetMaxLines(int maxLines);

    // Sets the length, in bytes, from which on no code point is appended, and reserves as much, so that nothing is
    // allocated until it is reached. For 0xFFFFFFFF nothing is reserved; where memory is too short for the reservation,
    // the text grows as it is written.
    void SetMaxLength(unsigned int maxLength);

    // Returns the text and leaves the writer's own empty, without memory reserved; the location goes back to line 1,
    // column 1. Whether the text was cut stays: a cut writer writes no more before Clear(). Kept so; see
    // MoveStringKeepsTheTextCut.
    std::string MoveString();

    // Empties the text, which is no longer cut, and keeps its memory; the location goes back to line 1, column 1.
    void Clear();

    // What was written since construction, MoveString() or Clear(). Valid until the next change.
    const std::string& GetText() const;

    // True from the first code point that did not fit until Clear().
    bool IsTruncated() const;

private:
    std::string m_Text; // UTF-8
    int32_t m_MaxLines{0x7FFFFFFF};
    uint32_t m_MaxLength{0xFFFFFFFF}; // bytes
    bool m_IsTruncated{false};
};
