#pragma once

#include <QDPlatform/QDExport.h>
#include <QDPlatform/QDString.h>
#include <QDPlatform/QDTextLocation.h>

#include <cstdarg>
#include <cstdint>
#include <memory>
#include <string>

class CQDTimeZone;
class UnicodeCharacter;

// Writes lines, indentation, formatted text, numbers, dates and literals to a sink that takes one code point at a time.
//
// A derived class supplies the sink, WriteCodePoint(). Text comes in as UTF-8 or UTF-16 and reaches the sink decoded:
// ill-formed UTF-8 as U+FFFD, a lone surrogate of UTF-16 as its own value. Lengths and counts are in units of the text
// that is passed; text with a length needs no terminator, and may be null when the length is 0.
// Indentation: every Print operation first calls IndentNewLine(), except PrintLine() without a format; the Write
// operations do not.
// Location: each operation says whether it moves the text location along with what it writes. Where it does not, the
// location keeps the column of the last operation that did; WriteNewLine() always moves it, unless it fails.
// Failures: the Write operations return false as soon as the sink does and write no more of what they were given. The
// Print operations ignore failures and go on with the next code point; where one writes a part as by WriteString()
// (parts of numbers, CSV fields without quotes), that part ends at its first failure, and the next part follows.
// Growing the format buffer may throw std::bad_alloc; nothing else fails.
// Memory: nothing is allocated after construction unless the text of one Print(), PrintLine() or FormatText() outgrows
// the format buffer, which never shrinks.
// Thread: one at a time.
class QD_API CTextOutput
{
public:
    CTextOutput(const CTextOutput&) = delete;
    CTextOutput& operator=(const CTextOutput&) = delete;
    virtual ~CTextOutput();

    // --- What a concrete writer overrides --------------------------------------------------------------------------

    // Writes one code point, unchecked: text may hold surrogates, and a caller may pass any value. Returns false when
    // the sink failed. The implementation does not move the text location.
    virtual bool WriteCodePoint(int codePoint) = 0;

    // Writes the line termination and moves the location to the next line. Returns false, with the location unchanged,
    // when the sink fails.
    virtual bool WriteNewLine();

    // At the start of a line, that is while the location's index in the line is 0, writes the indent character
    // (indent level x characters per level) times and moves the location along; else, and at a level of 0 or below,
    // writes nothing. Ignores failures of the sink.
    virtual void IndentNewLine();

    // --- Configuration ---------------------------------------------------------------------------------------------

    // Sets what WriteNewLine() writes; CR LF at first. A value that is none of the enumeration writes LF.
    void SetLineTermination(TextLineTermination lineTermination);

    // Sets what one level of indentation is; one TAB at first. `character` is taken as a code point up to 0xFF.
    void SetIndentCharacters(char character, unsigned int countPerLevel);

    // Adds `delta` to the indent level, which is 0 at first. The level has no bound: a negative one writes nothing and
    // needs as many levels up again. Beyond 32 bits it wraps.
    void AdjustIndent(int delta);

    // The indent level, below 0 too.
    int GetIndent() const { return m_IndentLevel; }

    // Where the writer stands, as far as its operations move the location. Valid, and moving on, while the writer
    // lives.
    const CQDTextLocation& GetTextLocation() const { return m_TextLocation; }

    // --- Raw writing -----------------------------------------------------------------------------------------------

    // Write UTF-8. LF calls WriteNewLine(), CR is dropped. The location moves with the line ends only, so that a Print
    // operation indents behind a string that starts a line. Kept so; see PrintBehindAStringIndentsWithinTheLine.
    bool WriteString(const std::string& text);
    bool WriteString(const qdchar* text, unsigned int length);

    // Writes the code point `count` times. The location does not move.
    bool WriteCodePoints(unsigned int count, int codePoint);

    // --- Formatted writing -----------------------------------------------------------------------------------------

    // Writes the text of a printf format of the C library. LF and CR in it are written as such, whatever the line
    // termination. The location moves with each code point. Numbers have the decimal point of the process locale
    // (LC_NUMERIC), unlike those of PrintDouble(). See FormatText() for what cannot be formatted.
    void Print(const char* format, ...) QD_PRINTF_FORMAT(2, 3);

    // The same and a line end; only the indentation and the line end move the location. Kept so; see
    // PrintLineDoesNotMoveTheLocationWithItsText.
    void PrintLine(const char* format, ...) QD_PRINTF_FORMAT(2, 3);

    // Writes a line end, and no indentation: it is WriteNewLine().
    void PrintLine();

    // Writes the byte as the code point of its value, 0 to 255. The location does not move. Kept so; see
    // CharIsAnUnsignedByteAndDoesNotMoveTheLocation.
    void PrintChar(char character);

    // The same `count` times; the location moves each time.
    void PrintChars(unsigned int count, char character);

    // Write a number with 7 or 15 significant digits, without trailing zeros: as 0.015 or 1500 for decimal exponents
    // from -4 to 6, else as 1.5e-05 or 1e+07. Not a number is "NaN", the infinities are "+Infinity" and "-Infinity";
    // negative zero is "-0". Digits are rounded to nearest, ties to even. The decimal point is "." in every locale.
    // The location moves with NaN and the infinities only.
    void PrintFloat(float value);
    void PrintDouble(double value);

    // Writes a number that is formatted as by "%.<n>e" in that way. A text without "." or without "e" is written as by
    // WriteString(). The location moves only with zeros in place of digits that the fraction lacks, and with line ends
    // in the text.
    void PrintFloatingPointString(const char* text, unsigned int length);

    // Write the date as 2020-03-04, or date and time as 2020-03-04 05:06:07.008; the year is "****" beyond 9999.
    // time: ticks since 1601 (see CQDTimestamp), in UTC. zone: converts to its local time; null for none. Neither is
    // kept. separator: stands between date and time; one outside ASCII becomes U+FFFD. The location moves with each
    // code point.
    void PrintDate(const CQDTimeZone* zone, long long time);
    void PrintDateAndTime(const CQDTimeZone* zone, long long time, char separator);

    // IEC 61131-3 string literals: between single quotes, or between double quotes when `doubleByte`, with escapes that
    // start with "$". In all of them the location moves with escapes in hexadecimal digits, and with what
    // PrintCodePoint00ToFF() says, but not with quotes and characters that are written as they are.

    // Write the bytes of the text, not decoded:
    // - the quote in use and "$" get a "$" in front;
    // - TAB, LF and CR become "$t", "$n" and "$r";
    // - a byte that the process locale holds for a printable code point (iswprint()) is written as that code point;
    // - others become "$" and their value in 4 (double-byte) or 2 hexadecimal digits.
    void Print61131String(const std::string& text, bool doubleByte);
    void Print61131String(const char* text, unsigned int length, bool doubleByte);

    // Write a single-byte literal from code points: up to 126 as PrintCodePoint00ToFF() does; from 127 on as they are
    // when printable (see UnicodeCharacter) and below U+10000, else as the bytes of their UTF-8, each in 2 digits.
    void Print61131String(const UnicodeCharacter* characters, unsigned int count);
    void Print61131String(const unsigned char* utf8, unsigned int length);

    // Writes a double-byte literal in the same way, with units of UTF-16 in 4 digits in the place of the bytes.
    void Print61131String(const unsigned short* utf16, unsigned int count);

    // Writes one code point of such a literal. "$" becomes "$$", TAB, LF and CR "$t", "$n" and "$r": these move the
    // location by 2. The quote in use gets a "$" in front. Written as they are: in a single-byte literal 32 to 126, in
    // a double-byte one 32 to 126 and from 161 on. Any other value becomes "$" and at least 2 or 4 hexadecimal digits.
    void PrintCodePoint00ToFF(int codePoint, bool doubleByte);

    // Write an SQL string literal: the text between "'", each "'" in it twice. The location does not move.
    void PrintSQLStringLiteral(const unsigned short* utf16, unsigned int count);
    void PrintSQLStringLiteral(const std::string& text);

    // Write the text with LF, CR and TAB as they are. The location moves by one column for every code point, for LF and
    // TAB too.
    void PrintUtf16String(const unsigned short* text, unsigned int count);
    void PrintUtf8String(const unsigned char* text, unsigned int length);

    // Writes the bytes in the base64 of RFC 4648 with padding, on one line. The location does not move.
    void PrintBase64(const unsigned char* data, unsigned int length);

    // Writes a field of comma-separated values. One with "," or a double quote in it stands between double quotes,
    // which are doubled inside; its bytes are written undecoded, as code points 0 to 255. Any other is written as by
    // WriteString(); a line break alone causes no quotes. The location moves only as there. Kept so; see
    // CsvValueWithCommaIsWrittenByteByByte and CsvValueWithLineBreakAloneIsNotQuoted.
    void PrintCSVValue(const std::string& value);

    // Formats into the format buffer, terminated, without writing or indenting anything, and leaves `args` as it was.
    // Returns the length, terminator not counted. Text that the C library cannot encode (a "%lc" in a locale without
    // that character), or of 2147483136 bytes and more, ends there, or earlier: at the first NUL, or where the buffer
    // was full. The buffer does not grow for it.
    int FormatText(const char* format, va_list args) QD_PRINTF_FORMAT(2, 0);

protected:
    CTextOutput();

    TextLineTermination m_LineTermination{LineTerminationCRLF};
    CQDTextLocation m_TextLocation; // lines and columns written so far, as far as the operations count them
    int32_t m_IndentLevel{0};
    int m_IndentCharacter{'\t'}; // a code point
    uint32_t m_IndentCharactersPerLevel{1};
    std::unique_ptr<char[]> m_pFormatBuffer; // what FormatText() left; never null
    uint32_t m_FormatBufferCapacity;         // bytes, a multiple of 512

private:
    // Write UTF-8: as WriteString(); as Print() does with formatted text.
    QD_LOCAL bool WriteText(const char* begin, const char* end);
    QD_LOCAL void PrintText(const char* begin, const char* end);

    // Writes an IEC 61131-3 literal of bytes.
    QD_LOCAL void Print61131Bytes(const char* begin, const char* end, bool doubleByte);

    // Writes an escape of an IEC 61131-3 literal: "$" and at least `digits` hexadecimal digits, at most 8.
    QD_LOCAL void PrintHexEscape(unsigned int value, unsigned int digits);

    // Writes a code point above 126 of such a literal, escaped unless it is printable and below U+10000.
    QD_LOCAL void PrintCodePointAbove126(int codePoint, bool isPrintable, bool doubleByte);

    // Makes room for a text that did not fit. Returns false when that cannot help.
    QD_LOCAL bool GrowFormatBuffer(const char* format, va_list args) QD_PRINTF_FORMAT(2, 0);
};
