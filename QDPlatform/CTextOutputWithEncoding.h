#pragma once

#include <QDPlatform/CTextOutput.h>
#include <QDPlatform/QDExport.h>

// A text writer that encodes as UTF-8 or UTF-16 what it writes, for a derived class to store as bytes.
//
// Nothing is allocated after construction but by CTextOutput.
// Thread: one at a time.
class QD_API CTextOutputWithEncoding : public CTextOutput
{
public:
    // Byte order marks are written by WriteEncoding() only.
    enum TextEncoding : int
    {
        TextEncodingUTF8 = 0,
        TextEncodingUTF8BOM = 1,    // UTF-8, mark EF BB BF
        TextEncodingUTF16LEBOM = 2, // little-endian, mark FF FE
        TextEncodingUTF16BEBOM = 3, // big-endian, mark FE FF
        TextEncodingUTF16LE = 4,
        TextEncodingUTF16BE = 5
    };

    CTextOutputWithEncoding(const CTextOutputWithEncoding&) = delete;
    CTextOutputWithEncoding& operator=(const CTextOutputWithEncoding&) = delete;
    ~CTextOutputWithEncoding() override;

    // Encodes the code point and passes its bytes to one call of WriteBytes(), whose result it returns. Nothing is
    // checked: surrogates are encoded like any other value, and values out of the range of Unicode are cut as
    // qd_encode_utf8() and qd_encode_utf16() do. An encoding that is none of the enumeration passes 0 bytes.
    bool WriteCodePoint(int codePoint) override;

    // Stores `length` bytes. Returns false when that failed. The bytes are the sink's only during the call.
    virtual bool WriteBytes(const unsigned char* bytes, unsigned int length) = 0;

    // Sets the encoding of what is written from now on: at first TextEncodingUTF16LEBOM, so a caller that wants UTF-8
    // says so. Any value may be passed.
    void SetEncoding(TextEncoding encoding);

    // Writes the byte order mark of the encoding, if it has one, with one call of WriteBytes(), whose result it
    // returns; else returns true. The location does not move.
    bool WriteEncoding();

protected:
    CTextOutputWithEncoding();

private:
    TextEncoding m_Encoding{TextEncodingUTF16LEBOM};
};
