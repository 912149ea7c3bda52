#pragma once

#include <QDPlatform/QDExport.h>

#include <string>

// Holds a secret text, such as a password, and overwrites every array that it gives up with zeros first.
//
// The text is UTF-8 in char, and may hold NULs. The compiler cannot leave the overwriting out. What callers copy the
// text into is theirs to wipe. Operations that allocate throw std::bad_alloc when there is no memory, or for a text
// longer than 0xFFFFFFFE bytes; the object then holds the text that it held before.
// Thread:  one at a time, like any plain value.
// Owns:    its array.
class QD_API CQDSecureWString
{
public:
    // An empty text; allocates nothing.
    CQDSecureWString() = default;

    // A copy of the text; of an empty one, no array.
    CQDSecureWString(const CQDSecureWString& other);

    // Implicit, as for std::string. `text` is terminated and not null.
    CQDSecureWString(const std::string& text);
    CQDSecureWString(const char* text);

    // Wipes and releases the array.
    ~CQDSecureWString();

    // As Set(). Assigning the object to itself does nothing.
    CQDSecureWString& operator=(const CQDSecureWString& other);
    CQDSecureWString& operator=(const std::string& text);
    CQDSecureWString& operator=(const char* text);

    // Holds a copy of the `length` bytes at `text` from now on. `text` may lie in the object's own array; it may be
    // null when `length` is 0, which allocates nothing.
    void Set(const char* text, unsigned int length);

    // As Set(), and returns the new length. The bytes are not validated. A `length` of 0 keeps an array of one byte.
    unsigned int SetFromUtf8(const unsigned char* bytes, unsigned int length);

    // Holds the UTF-8 form of the `count` UTF-16 units from now on; qd_qdchar_from_utf16 says what becomes of lone
    // surrogates. Returns the new length in bytes. Of a form beyond 4 GiB, the code points that do not fit are cut off.
    // A `count` of 0 keeps an array of one byte.
    unsigned int SetFromUtf16(const unsigned short* units, unsigned int count);

    // Sets `out` to a new array with the text, without terminator, and `outLength` to its size; also when the text is
    // empty. The caller wipes the array and releases it with delete[]. Returns the number of bytes copied. Changes
    // neither when it throws.
    unsigned int GetAsUtf8(unsigned char*& out, unsigned int& outLength) const;

    // Wipes and releases the array; the text is empty from now on. Does nothing when the text is empty: the array of
    // one byte that SetFromUtf8() or SetFromUtf16() of nothing keeps stays until the next value or the end. Kept so;
    // see ClearOfAnEmptyTextLeavesTheArrayOfOneByte.
    void Clear();

    // Appends one byte, as it is typed. An array that is full is replaced by one of 64 bytes more, and wiped.
    void Append(char c);

    // Compares byte by byte, as unsigned values; `length` is strlen(text) where it is not given. Returns the difference
    // of the first two bytes that differ, this one less the other; when there are none, -1 if this text is shorter, 1
    // if it is longer, else 0. Stops at the first difference: the time it takes tells how much was equal.
    int Compare(const CQDSecureWString& other) const;
    int Compare(const char* text) const;
    int Compare(const char* text, unsigned int length) const;

    // The text, terminated; never null. Valid until the text changes.
    const char* Get() const;

    // Bytes of text, terminator excluded.
    unsigned int Length() const;

private:
    QD_LOCAL void Adopt(char* data, unsigned int length, unsigned int capacity);
    QD_LOCAL void WipeAndRelease();

    char* m_pData{nullptr};     // owned; null until a text is stored
    unsigned int m_Length{0};   // bytes of text; below the capacity, and followed by a NUL, where there is an array
    unsigned int m_Capacity{0}; // bytes of the array
};
