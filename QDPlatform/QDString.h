#pragma once

#include <QDPlatform/QDExport.h>

#include <cstdarg>
#include <cstdint>
#include <string>

// Fills fixed-size char buffers without overrunning them, and measures and converts text between UTF-8, UTF-16 and
// UTF-32.
//
// Thread:  every function from any thread at any time; none locks, none has state.
// Memory:  nothing is allocated, except by the functions that append to a std::string.
// Units:   every length and capacity counts units of the encoding concerned: bytes for UTF-8, 16-bit units for UTF-16,
//          32-bit units for UTF-32.

// The library's text: UTF-8, in NUL-terminated arrays or in a std::string.
using qdchar = char;

// What ends a line of text. The values are fixed.
enum TextLineTermination : int
{
    LineTerminationCR,   // U+000D
    LineTerminationLF,   // U+000A
    LineTerminationCRLF, // U+000D U+000A
    LineTerminationNEL,  // U+0085, next line
    LineTerminationLS,   // U+2028, line separator
    LineTerminationPS,   // U+2029, paragraph separator
};

// --- Bounded copy and append ---------------------------------------------------------------------------------------
//
// `dst` has room for `size` bytes, terminator included; `size` must be at least 1 (a size of 0 is not checked and would
// write in front of the buffer). The result is always terminated and never longer than size - 1. A truncation may cut
// a multi-byte UTF-8 sequence. `dst` and `src` must not overlap. All return true when `src` was truncated.

// Copies `len` bytes, or the whole of `src` up to its terminator. On truncation one byte more is read and written than
// is kept: src[size - 1] must be readable, which it is when `len` is true.
QD_API bool qd_strcpy(char* dst, unsigned size, const char* src);
QD_API bool qd_strcpy(char* dst, unsigned size, const char* src, unsigned len);
QD_API bool qd_strcpy(char* dst, unsigned size, const std::string& src);

// Appends to the text in `dst`, which must be terminated inside `size`; else as qd_strcpy.
QD_API bool qd_strcat(char* dst, unsigned size, const char* src);
QD_API bool qd_strcat(char* dst, unsigned size, const char* src, unsigned len);

// As qd_strcpy, except that a truncation reads no more of `src` than it keeps.
QD_API bool qd_sbccpy(char* dst, unsigned size, const char* src);
QD_API bool qd_sbccpy(char* dst, unsigned size, const char* src, unsigned len);

// --- Bounded formatting --------------------------------------------------------------------------------------------
//
// `format` is a printf format of the C library; `dst` and `size` are as above. A success returns the number of bytes
// written, terminator not counted. The two codes below are not lengths: check for them before using the result as one.

constexpr int QDFormatTruncated = 0x7FFFFFFF;     // the output did not fit
constexpr int QDFormatEncodingError = 0x7FFFFFFE; // a character could not be encoded

// Returns the length, QDFormatTruncated (also when the formatter failed for any other reason than the next), or
// QDFormatEncodingError when the formatter failed with EILSEQ; the buffer then holds what the formatter left there,
// else it is terminated. A `size` above 0x7FFFFFFF always counts as truncated.
QD_API int qd_sprintf(char* dst, unsigned size, const char* format, ...) QD_PRINTF_FORMAT(3, 4);
QD_API int qd_vsprintf(char* dst, unsigned size, const char* format, va_list args) QD_PRINTF_FORMAT(3, 0);

// As qd_sprintf, but a truncated text ends in three full stops and returns its length, size - 1. `size` must be at
// least 4. No stops are written on QDFormatEncodingError.
QD_API int qd_sprintf_with_elipsis(char* dst, unsigned size, const char* format, ...) QD_PRINTF_FORMAT(3, 4);
QD_API int qd_vsprintf_with_elipsis(char* dst, unsigned size, const char* format, va_list args) QD_PRINTF_FORMAT(3, 0);

// As qd_sprintf, except that every failure of the formatter, whatever errno says, returns QDFormatEncodingError:
// QDFormatTruncated means a truncation and nothing else.
QD_API int qd_sbcnprintf(char* dst, unsigned size, const char* format, ...) QD_PRINTF_FORMAT(3, 4);
QD_API int qd_vsbcnprintf(char* dst, unsigned size, const char* format, va_list args) QD_PRINTF_FORMAT(3, 0);

// --- Single code points --------------------------------------------------------------------------------------------
//
// The encoders validate nothing and write no terminator.

// Decodes the code point at `pStr` and advances `pStr` past it, by at least one byte and never beyond `pUtf8End`. Each
// longest ill-formed prefix yields one U+FFFD, and decoding goes on at the first byte that could not belong to it;
// an overlong sequence of three or four bytes, a surrogate and a value above U+10FFFF are consumed whole for their
// U+FFFD. `pStr` must be below `pUtf8End` (asserted).
QD_API int qd_decode_utf8(const uint8_t*& pStr, const uint8_t* pUtf8End);

// Writes 1 to 4 bytes to `out` and returns how many. Surrogates are encoded like any other value; of a negative value
// the low 8 bits become one byte; the lead byte of a value above U+10FFFF is cut to 8 bits.
QD_API unsigned qd_encode_utf8(int cp, uint8_t* out);

// Decodes the code point at `pStr` and advances `pStr` by one or two units. A surrogate that is not half of a pair is
// returned as its own value, unlike in UTF-8. `pStr` must be below `pUtf16End` (asserted).
QD_API int qd_decode_utf16(const uint16_t*& pStr, const uint16_t* pUtf16End);

// Writes 1 or 2 units to `out` and returns how many. A value below 0x10000, a negative one too, becomes its low 16
// bits; each half of a value above U+10FFFF is cut to 16 bits.
QD_API unsigned qd_encode_utf16(int cp, uint16_t* out);

// qd_decode_utf8 for char text; asserts the same.
QD_API int qd_codepoint_from_qdchar(const char*& p, const char* end);

// qd_encode_utf8 for char text.
QD_API unsigned qd_qdchar_from_codepoint(int cp, char* out);

// As qd_qdchar_from_codepoint with room for `size` bytes: writes nothing and returns 0 when it does not fit.
QD_API unsigned qd_qdchar_from_utf32(int cp, char* dst, unsigned size);

// Bytes that qd_encode_utf8 writes: 1 for values below 128, negative ones too, 2 below 0x800, 3 below 0x10000, else 4.
QD_API unsigned qd_utf8len_of_codepoint(int cp);

// Length of the sequence that the lead byte *p announces. Trusts that `p` stands on a lead byte: any other byte from
// 0x80 on gives 4.
QD_API unsigned qd_utf8charlen(const uint8_t* p);

// 2 when *p is a high surrogate (0xD800 to 0xDBFF), else 1; the unit that follows is not looked at.
QD_API unsigned qd_utf16charlen(const uint16_t* p);

// --- Appending to a std::string (UTF-8) ----------------------------------------------------------------------------

// Appends what qd_qdchar_from_codepoint writes for `cp`.
QD_API void qd_append_codepoint_to_qdstring(int cp, std::string& s);

// Appends the line terminator `t`; nothing when `t` is none of the values above.
QD_API void qd_append_line_terminator_to_qdstring(TextLineTermination t, std::string& s);

// Orders the keys of case-insensitive maps and sets: ASCII folding by the C library, up to the first NUL of each key.
class QD_API CompareQDStringNoCase
{
public:
    // True when `a` comes before `b`.
    bool operator()(const std::string& a, const std::string& b) const;
};

// --- Run conversions -----------------------------------------------------------------------------------------------
//
// qd_<to>_from_<from> converts `srcLen` units at `src` into the `dstSize` units at `dst` and returns the number of
// units written. It converts whole code points and stops before the first one that does not fit. It neither expects
// nor writes a terminator. Ill-formed UTF-8 becomes U+FFFD, as in qd_decode_utf8; lone surrogates of UTF-16 and any
// values of UTF-32 pass unchecked to the encoder. `src` and `dst` must not overlap.
//
// Between equal encodings (UTF-8 and qdchar are equal) the run is copied unseen, the first min(srcLen, dstSize) units
// of it, so that a multi-unit sequence may be cut.

QD_API unsigned qd_utf8_from_utf8(const uint8_t* src, unsigned srcLen, uint8_t* dst, unsigned dstSize);
QD_API unsigned qd_utf8_from_utf16(const uint16_t* src, unsigned srcLen, uint8_t* dst, unsigned dstSize);
QD_API unsigned qd_utf8_from_utf32(const uint32_t* src, unsigned srcLen, uint8_t* dst, unsigned dstSize);
QD_API unsigned qd_utf8_from_qdchar(const char* src, unsigned srcLen, uint8_t* dst, unsigned dstSize);

QD_API unsigned qd_utf16_from_utf8(const uint8_t* src, unsigned srcLen, uint16_t* dst, unsigned dstSize);
QD_API unsigned qd_utf16_from_utf16(const uint16_t* src, unsigned srcLen, uint16_t* dst, unsigned dstSize);
QD_API unsigned qd_utf16_from_utf32(const uint32_t* src, unsigned srcLen, uint16_t* dst, unsigned dstSize);
QD_API unsigned qd_utf16_from_qdchar(const char* src, unsigned srcLen, uint16_t* dst, unsigned dstSize);

QD_API unsigned qd_utf32_from_utf8(const uint8_t* src, unsigned srcLen, uint32_t* dst, unsigned dstSize);
QD_API unsigned qd_utf32_from_utf16(const uint16_t* src, unsigned srcLen, uint32_t* dst, unsigned dstSize);
QD_API unsigned qd_utf32_from_utf32(const uint32_t* src, unsigned srcLen, uint32_t* dst, unsigned dstSize);
QD_API unsigned qd_utf32_from_qdchar(const char* src, unsigned srcLen, uint32_t* dst, unsigned dstSize);

QD_API unsigned qd_qdchar_from_utf8(const uint8_t* src, unsigned srcLen, char* dst, unsigned dstSize);
QD_API unsigned qd_qdchar_from_utf16(const uint16_t* src, unsigned srcLen, char* dst, unsigned dstSize);
QD_API unsigned qd_qdchar_from_utf32(const uint32_t* src, unsigned srcLen, char* dst, unsigned dstSize);

// --- Measures ------------------------------------------------------------------------------------------------------
//
// qd_<to>len_of_<from> returns the number of units that qd_<to>_from_<from> would write into `maxLen` units;
// qd_strlen_of_<from> measures qdchar, in bytes.

QD_API unsigned qd_utf8len_of_utf16(const uint16_t* src, unsigned srcLen, unsigned maxLen);
QD_API unsigned qd_utf8len_of_utf32(const uint32_t* src, unsigned srcLen, unsigned maxLen);
QD_API unsigned qd_utf8len_of_qdchar(const char* src, unsigned srcLen, unsigned maxLen);

QD_API unsigned qd_utf16len_of_utf8(const uint8_t* src, unsigned srcLen, unsigned maxLen);
QD_API unsigned qd_utf16len_of_utf32(const uint32_t* src, unsigned srcLen, unsigned maxLen);
QD_API unsigned qd_utf16len_of_qdchar(const char* src, unsigned srcLen, unsigned maxLen);

QD_API unsigned qd_utf32len_of_utf8(const uint8_t* src, unsigned srcLen, unsigned maxLen);
QD_API unsigned qd_utf32len_of_utf16(const uint16_t* src, unsigned srcLen, unsigned maxLen);

// As qd_utf32len_of_utf8: the run is UTF-8 in char, whatever the name says.
QD_API unsigned qd_utf32len_of_wchar(const char* src, unsigned srcLen, unsigned maxLen);

QD_API unsigned qd_strlen_of_utf8(const uint8_t* src, unsigned srcLen, unsigned maxLen);
QD_API unsigned qd_strlen_of_utf16(const uint16_t* src, unsigned srcLen, unsigned maxLen);
QD_API unsigned qd_strlen_of_utf32(const uint32_t* src, unsigned srcLen, unsigned maxLen);
