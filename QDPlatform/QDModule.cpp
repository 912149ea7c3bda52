#include <QDPlatform/QDModule.h>

#include <QDPlatform/QDString.h>

#include <cstring>
#include <iterator>

namespace
{

constexpr int kUsEnglish = 1033;
constexpr unsigned int kFormatCapacity = 256; // of a template, and of a text that is formatted into a std::string
constexpr int kLongestText = static_cast<int>(kFormatCapacity) - 1;
constexpr int kFullStopsLength = 3;
constexpr char kNotFoundFormat[] = "Resource string %u not found!";

constexpr CQDModule::StringEntry kStrings[] = {
    {50, "Unexpected option '%s'."},
    {51, "Invalid option '%s'."},
    {52, "Command option '%s', missing parameter value."},
    {53, "Invalid integer '%s'."},
};
constexpr CQDModule::ResourceLanguage kLanguages[] = {
    {kUsEnglish, std::size(kStrings), kStrings, 0, nullptr, 0, nullptr},
};
constexpr CQDModule::ResourceData kResourceData = {std::size(kLanguages), kLanguages};

// entries: `count` of them, in ascending order of m_Id.
template<class Entry>
const Entry* FindEntry(const Entry* entries, unsigned int count, unsigned int id)
{
    long long lo = 0;
    long long hi = static_cast<long long>(count) - 1;
    while (lo <= hi) {
        const long long mid = (lo + hi) / 2;
        const Entry& entry = entries[mid];
        if (entry.m_Id == id)
            return &entry;
        if (entry.m_Id <= id)
            lo = mid + 1;
        else
            hi = mid - 1;
    }
    return nullptr;
}

// Where strings and data files are looked for when the language itself lacks them.
int GetStringFallback(int languageId)
{
    return (languageId & 0xFF) | 0x100;
}

// The same for bitmaps. Differs on purpose from the formula above.
int GetBitmapFallback(int languageId)
{
    return (languageId & 0x3FF) | 0x400;
}

// The entry with this id that `find` finds in the first of the three languages that has one; null without any.
template<class Entry>
const Entry* FindInLanguages(const CQDModule& module, int languageId, int fallbackId, unsigned int id,
                             const Entry* (CQDModule::ResourceLanguage::*find)(unsigned int) const)
{
    for (const int candidate : {languageId, fallbackId, kUsEnglish}) {
        const CQDModule::ResourceLanguage* language = module.FindResourceLanguage(candidate);
        const Entry* entry = language != nullptr ? (language->*find)(id) : nullptr;
        if (entry != nullptr)
            return entry;
    }
    return nullptr;
}

} // namespace

const CQDModule::StringEntry* CQDModule::ResourceLanguage::FindString(unsigned int id) const
{
    return FindEntry(m_pStrings, m_StringCount, id);
}

const CQDModule::BitmapEntry* CQDModule::ResourceLanguage::FindBitmap(unsigned int id) const
{
    return FindEntry(m_pBitmaps, m_BitmapCount, id);
}

const CQDModule::DataFileEntry* CQDModule::ResourceLanguage::FindDataFile(unsigned int id) const
{
    return FindEntry(m_pDataFiles, m_DataFileCount, id);
}

const CQDModule::ResourceLanguage* CQDModule::ResourceData::FindResourceLanguage(int languageId) const
{
    for (int i = 0; i < m_LanguageCount; ++i)
        if (m_pLanguages[i].m_LanguageId == languageId)
            return &m_pLanguages[i];
    return nullptr;
}

const CQDModule::ResourceLanguage* CQDModule::FindResourceLanguage(int languageId) const
{
    return m_pData != nullptr ? m_pData->FindResourceLanguage(languageId) : nullptr;
}

const CQDModule::StringEntry* CQDModule::FindResourceString(const CQDLocale& locale, unsigned int id) const
{
    const int languageId = locale.GetLanguageId();
    return FindInLanguages(*this, languageId, GetStringFallback(languageId), id, &ResourceLanguage::FindString);
}

const CQDModule::BitmapEntry* CQDModule::FindResourceBitmap(const CQDLocale& locale, unsigned int id) const
{
    const int languageId = locale.GetLanguageId();
    return FindInLanguages(*this, languageId, GetBitmapFallback(languageId), id, &ResourceLanguage::FindBitmap);
}

const CQDModule::DataFileEntry* CQDModule::FindResourceDataFile(const CQDLocale& locale, unsigned int id) const
{
    const int languageId = locale.GetLanguageId();
    return FindInLanguages(*this, languageId, GetStringFallback(languageId), id, &ResourceLanguage::FindDataFile);
}

unsigned int CQDModule::LoadResourceString(const CQDLocale& locale, unsigned int id, char* buffer,
                                           unsigned int size) const
{
    const StringEntry* entry = FindResourceString(locale, id);
    if (entry == nullptr)
        return 0;
    if (size != 0)
        qd_strcpy(buffer, size, entry->m_pText);
    return static_cast<unsigned int>(std::strlen(entry->m_pText));
}

void CQDModule::LoadResourceString(const CQDLocale& locale, unsigned int id, std::string& text) const
{
    text.clear();
    const StringEntry* entry = FindResourceString(locale, id);
    if (entry != nullptr)
        text = entry->m_pText;
}

unsigned int CQDModule::LoadResourceStringToVMString(const CQDLocale& locale, unsigned int id, unsigned short* buffer,
                                                     unsigned int size) const
{
    const StringEntry* entry = FindResourceString(locale, id);
    if (entry == nullptr)
        return 0;
    return qd_utf16_from_qdchar(entry->m_pText, static_cast<unsigned int>(std::strlen(entry->m_pText)), buffer, size);
}

int CQDModule::FormatResourceString(const CQDLocale& locale, char* buffer, unsigned int size, unsigned int id,
                                    ...) const
{
    va_list args;
    va_start(args, id);
    const int result = FormatResourceStringVA(locale, buffer, size, id, args);
    va_end(args);
    return result;
}

int CQDModule::FormatResourceStringVA(const CQDLocale& locale, char* buffer, unsigned int size, unsigned int id,
                                      va_list args) const
{
    if (size == 0)
        return 0;
    // A formatter that fails leaves the rest of the buffer as it was, yet the length returned for it covers the rest.
    std::memset(buffer, 0, size);
    const bool hasRoomForStops = size > kFullStopsLength;
    char format[kFormatCapacity];
    int result;
    if (LoadResourceString(locale, id, format, sizeof format) != 0)
        result = hasRoomForStops ? qd_vsprintf_with_elipsis(buffer, size, format, args)
                                 : qd_vsprintf(buffer, size, format, args);
    else
        result = hasRoomForStops ? qd_sprintf_with_elipsis(buffer, size, kNotFoundFormat, id)
                                 : qd_sprintf(buffer, size, kNotFoundFormat, id);
    if (result == QDFormatTruncated) {
        std::memset(buffer, 0, size);
        return 0;
    }
    return result;
}

void CQDModule::FormatResourceString(const CQDLocale& locale, std::string& text, unsigned int id, ...) const
{
    char buffer[kFormatCapacity];
    va_list args;
    va_start(args, id);
    const int result = FormatResourceStringVA(locale, buffer, sizeof buffer, id, args);
    va_end(args);
    buffer[kLongestText] = '\0';
    // A text that is cut reaches the full stops; one whose formatter failed leaves NULs in front of them.
    const bool hasFailed = result == QDFormatEncodingError ||
                           (result == kLongestText && buffer[kLongestText - kFullStopsLength - 1] == '\0');
    if (hasFailed)
        text = buffer;
    else
        text.assign(buffer, static_cast<unsigned int>(result));
}

bool CQDModule::LoadResourceBitmap(const CQDLocale& locale, unsigned int id, QD_BITMAP& bitmap) const
{
    const BitmapEntry* entry = FindResourceBitmap(locale, id);
    if (entry == nullptr)
        return false;
    bitmap = entry->m_Bitmap;
    return true;
}

bool CQDModule::LoadResourceDataFile(const CQDLocale& locale, unsigned int id, QD_DATA& data) const
{
    const DataFileEntry* entry = FindResourceDataFile(locale, id);
    if (entry == nullptr)
        return false;
    data = entry->m_Data;
    return true;
}

constinit const CQDModule g_QDPlatformModule(&kResourceData);

// Fixed texts: they name what the product ships with, not what is found at run time.
constexpr QDVersionInfo g_VersionInfo[] = {
    {"OpenSSL", "OpenSSL 1.1.1l  24 Aug 2021", "Copyright (c) 1998-2021 The OpenSSL Project. All rights reserved."},
    {"Curl", "Curl 7.73.0", "Copyright (C) 1998 - 2020, Daniel Stenberg, <daniel@haxx.se>, et al."},
    {"zlib", "zlib 1.2.11", "Copyright (C) 1995-2017 Jean-loup Gailly and Mark Adler"},
};
constexpr int g_VersionInfoCount = static_cast<int>(std::size(g_VersionInfo));
