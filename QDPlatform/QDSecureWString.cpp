#include <QDPlatform/QDSecureWString.h>

#include <QDPlatform/QDString.h>

#include <string.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <new>

namespace
{

constexpr unsigned int kGrowth = 64;

// size: 64 bits, so that a sum of two lengths does not wrap. What no capacity can hold fails like an allocation.
char* NewArray(uint64_t size)
{
    if (size > std::numeric_limits<unsigned int>::max())
        throw std::bad_array_new_length();
    return new char[static_cast<size_t>(size)];
}

// Beyond what a text can have, the largest value, which NewArray() then refuses.
unsigned int ClampedLength(size_t length)
{
    return static_cast<unsigned int>(std::min<size_t>(length, std::numeric_limits<unsigned int>::max()));
}

} // namespace

CQDSecureWString::CQDSecureWString(const CQDSecureWString& other)
{
    Set(other.m_pData, other.m_Length);
}

CQDSecureWString::CQDSecureWString(const std::string& text)
{
    Set(text.data(), ClampedLength(text.size()));
}

CQDSecureWString::CQDSecureWString(const char* text)
{
    Set(text, ClampedLength(strlen(text)));
}

CQDSecureWString::~CQDSecureWString()
{
    WipeAndRelease();
}

CQDSecureWString& CQDSecureWString::operator=(const CQDSecureWString& other)
{
    if (this != &other)
        Set(other.m_pData, other.m_Length);
    return *this;
}

CQDSecureWString& CQDSecureWString::operator=(const std::string& text)
{
    Set(text.data(), ClampedLength(text.size()));
    return *this;
}

CQDSecureWString& CQDSecureWString::operator=(const char* text)
{
    Set(text, ClampedLength(strlen(text)));
    return *this;
}

// The three setters fill the new array before they let go of the old one: it may be the source.

void CQDSecureWString::Set(const char* text, unsigned int length)
{
    if (length == 0) {
        Adopt(nullptr, 0, 0);
        return;
    }
    char* data = NewArray(uint64_t{length} + 1);
    memcpy(data, text, length);
    Adopt(data, length, length + 1);
}

unsigned int CQDSecureWString::SetFromUtf8(const unsigned char* bytes, unsigned int length)
{
    char* data = NewArray(uint64_t{length} + 1);
    Adopt(data, qd_qdchar_from_utf8(bytes, length, data, length), length + 1);
    return m_Length;
}

unsigned int CQDSecureWString::SetFromUtf16(const unsigned short* units, unsigned int count)
{
    const unsigned int length = qd_strlen_of_utf16(units, count, std::numeric_limits<unsigned int>::max());
    char* data = NewArray(uint64_t{length} + 1);
    Adopt(data, qd_qdchar_from_utf16(units, count, data, length), length + 1);
    return m_Length;
}

unsigned int CQDSecureWString::GetAsUtf8(unsigned char*& out, unsigned int& outLength) const
{
    out = new unsigned char[m_Length];
    outLength = m_Length;
    return qd_utf8_from_qdchar(m_pData, m_Length, out, m_Length);
}

void CQDSecureWString::Clear()
{
    if (m_Length != 0)
        WipeAndRelease();
}

void CQDSecureWString::Append(char c)
{
    if (uint64_t{m_Length} + 1 >= m_Capacity) {
        char* data = NewArray(uint64_t{m_Capacity} + kGrowth);
        const unsigned int length = m_Length;
        const unsigned int capacity = m_Capacity + kGrowth;
        if (m_pData != nullptr)
            memcpy(data, m_pData, length);
        Adopt(data, length, capacity);
    }
    m_pData[m_Length] = c;
    ++m_Length;
    m_pData[m_Length] = '\0';
}

int CQDSecureWString::Compare(const CQDSecureWString& other) const
{
    return Compare(other.Get(), other.m_Length);
}

int CQDSecureWString::Compare(const char* text) const
{
    return Compare(text, ClampedLength(strlen(text)));
}

int CQDSecureWString::Compare(const char* text, unsigned int length) const
{
    const unsigned int common = std::min(m_Length, length);
    for (unsigned int i = 0; i < common; ++i) {
        const int own = static_cast<unsigned char>(m_pData[i]);
        const int others = static_cast<unsigned char>(text[i]);
        if (own != others)
            return own - others;
    }
    if (m_Length == length)
        return 0;
    return m_Length < length ? -1 : 1;
}

const char* CQDSecureWString::Get() const
{
    return m_pData != nullptr ? m_pData : "";
}

unsigned int CQDSecureWString::Length() const
{
    return m_Length;
}

// Terminates the new text and lets go of the old one. `data` may be null when `capacity` is 0.
void CQDSecureWString::Adopt(char* data, unsigned int length, unsigned int capacity)
{
    WipeAndRelease();
    m_pData = data;
    m_Length = length;
    m_Capacity = capacity;
    if (m_pData != nullptr)
        m_pData[length] = '\0';
}

void CQDSecureWString::WipeAndRelease()
{
    if (m_pData != nullptr)
        explicit_bzero(m_pData, m_Capacity); // a memset of memory about to be released would be optimised away
    delete[] m_pData;
    m_pData = nullptr;
    m_Length = 0;
    m_Capacity = 0;
}
