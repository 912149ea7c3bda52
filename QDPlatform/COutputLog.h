#pragma once

#include <QDPlatform/QDExport.h>
#include <QDPlatform/QDString.h>

#include <cstdarg>
#include <string>

// The sink that every component reports to: turns printf-style calls into messages of bounded length.
//
// A message is a type, a code (0 unless the caller gave one) and a UTF-8 text without a line end. Each printing
// operation hands its messages to AppendMessage(), where a derived class decides what to keep of them.
// Formats are those of the C library. What it cannot encode (a "%lc" in a locale without that character) ends the
// message: what was formatted before it arrives. Nothing fails; a text that is too long is cut as each operation says,
// by bytes, so possibly inside a UTF-8 sequence. Nothing is allocated before AppendMessage() is called.
// Thread: takes no lock; callers that share a log serialise, unless the derived class says that it does.
// Owns:   nothing. Whoever made the log keeps it alive longer than every object that was given it.
class QD_API COutputLog
{
public:
    enum LogType : int
    {
        Info = 0,
        Warning = 1,
        Error = 2
    };

    virtual ~COutputLog();

    // Removes the messages kept so far, where the sink keeps any.
    virtual void Clear() = 0;

    // Takes one message: `length` bytes of UTF-8 at `text`, which are the sink's only during the call and need not be
    // followed by a NUL. `code` is 0 unless the caller of PrintError() or PrintVA() gave one.
    virtual void AppendMessage(LogType type, int code, const qdchar* text, unsigned int length) = 0;

    // One message with code 0, and the type that the name says (Print: Info). At most 255 bytes; a longer text keeps
    // its first 252 bytes and ends in "...".
    void Print(const char* format, ...) QD_PRINTF_FORMAT(2, 3);
    void PrintWarning(const char* format, ...) QD_PRINTF_FORMAT(2, 3);
    void PrintError(const char* format, ...) QD_PRINTF_FORMAT(2, 3);

    // The same of type Error with the caller's code.
    void PrintError(int code, const char* format, ...) QD_PRINTF_FORMAT(3, 4);

    // The same with type and code as given, and with the arguments in a list.
    void PrintVA(LogType type, int code, const char* format, va_list args) QD_PRINTF_FORMAT(4, 0);

    // The same with code 0 and the type that the name says.
    void PrintInfoVA(const char* format, va_list args) QD_PRINTF_FORMAT(2, 0);
    void PrintWarningVA(const char* format, va_list args) QD_PRINTF_FORMAT(2, 0);
    void PrintErrorVA(const char* format, va_list args) QD_PRINTF_FORMAT(2, 0);

    // One message with code 0: the first `prefixLength` bytes of `prefix`, but at most 206, then ": " and the text.
    // With a prefixLength of 0 the text stands alone and `prefix` may be null.
    // The text has room for 253 bytes less the (cut) prefix, and ends in "..." when that cuts it. The room is the same
    // whether or not ": " was written. Kept so; see PrefixedMessageWithoutPrefixHasRoomFor253Bytes.
    void PrefixedPrintVA(LogType type, const char* prefix, unsigned int prefixLength, const char* format, va_list args)
        QD_PRINTF_FORMAT(5, 0);

    // The same with the type that the name says.
    void PrefixedPrintInfoVA(const char* prefix, unsigned int prefixLength, const char* format, va_list args)
        QD_PRINTF_FORMAT(4, 0);
    void PrefixedPrintWarningVA(const char* prefix, unsigned int prefixLength, const char* format, va_list args)
        QD_PRINTF_FORMAT(4, 0);
    void PrefixedPrintErrorVA(const char* prefix, unsigned int prefixLength, const char* format, va_list args)
        QD_PRINTF_FORMAT(4, 0);

    // One Info message: `text` as it is, neither formatted nor cut.
    void PrintString(const std::string& text);

    // Hex dump of `length` bytes at `data` (which may be null when there are none), as Info messages.
    // Up to 16 bytes: one message "TITLE NN bytes:" and a row; a title that leaves too little room in the line of 159
    // bytes is cut, the rest stays whole. More: a message "TITLE N bytes", then for every 16 bytes their offset (four
    // or more hex digits), a blank and a row.
    // A row is " XX" for each byte, an extra blank before the ninth, blanks in the place of missing bytes, a blank and
    // the bytes as characters, "." for those that the C library's isprint() refuses.
    void PrintData(const char* title, unsigned int length, const unsigned char* data);

    // Prints `title`, unless it is null, and then each line of `text` with its number from 1 on, as Info messages; see
    // PrintLineFromMultilineString(). `text` ends after `length` bytes or at a NUL before. Lines end at "\n"; an empty
    // line is printed, but a "\n" at the very end starts no further line.
    void PrintMultilineString(const char* title, const char* text, unsigned int length);

    // Prints `length` bytes at `text` as one numbered line, "%3d:" and the text, as an Info message. A TAB becomes "."
    // and blanks up to the next column that is a multiple of 4; a CR is dropped.
    // From 251 bytes on (counted before that) the line is cut into pieces of 250 columns, a message each, lettered from
    // "a" on: "%3d%lc:" and the piece. The letter is a code point that goes on past "z" and from 255 to 0.
    void PrintLineFromMultilineString(int lineNumber, const char* text, unsigned int length);

protected:
    COutputLog() = default;
    COutputLog(const COutputLog&) = default;
    COutputLog& operator=(const COutputLog&) = default;
};
