#pragma once

#include <QDPlatform/QDExport.h>
#include <QDPlatform/QDLocale.h>

#include <cstdarg>
#include <cstdint>
#include <string>

// Finds the texts, bitmaps and data files that a module carries for its users, by number and language.
//
// A module compiles its resources in, as constant tables of the records below, and makes one CQDModule over them. A
// resource that the user's language lacks is taken from a related language, then from US English (1033).
// Thread:  any; everything is constant.
// Owns:    nothing. The tables must outlive the module object, as constants do.

// A bitmap of a module. The library copies the fields and looks at none of them.
struct QD_BITMAP
{
    uint32_t m_Width;        // pixels
    uint32_t m_Height;       // pixels
    uint32_t m_Stride;       // bytes from one row to the next
    uint32_t m_BitsPerPixel; // bits
    uint32_t m_DataOffset;   // bytes, to where the module keeps the pixels
    uint32_t m_DataSize;     // bytes of pixels
};

// A data file of a module.
struct QD_DATA
{
    const unsigned char* m_pData; // the module's constant
    unsigned int m_Size;          // bytes
};

// A handle on the resources of one module.
class QD_API CQDModule
{
public:
    // A text.
    struct StringEntry
    {
        unsigned int m_Id;   // any value
        const char* m_pText; // UTF-8, terminated; it may be a printf format
    };

    // A bitmap.
    struct BitmapEntry
    {
        unsigned int m_Id;  // any value; independent of the ids of the texts
        QD_BITMAP m_Bitmap; // what LoadResourceBitmap() copies
    };

    // A data file.
    struct DataFileEntry
    {
        unsigned int m_Id; // any value; independent of the other two
        QD_DATA m_Data;    // what LoadResourceDataFile() copies
    };

    // The resources in one language. Each array is in ascending order of the ids, without which entries are not found;
    // an array may be null when its count is 0.
    struct QD_API ResourceLanguage
    {
        int m_LanguageId; // as of CQDLocale: the language in the low 10 bits, its form in the 6 above
        unsigned int m_StringCount;
        const StringEntry* m_pStrings;
        unsigned int m_BitmapCount;
        const BitmapEntry* m_pBitmaps;
        unsigned int m_DataFileCount;
        const DataFileEntry* m_pDataFiles;

        // The entry with this id, or null.
        const StringEntry* FindString(unsigned int id) const;
        const BitmapEntry* FindBitmap(unsigned int id) const;
        const DataFileEntry* FindDataFile(unsigned int id) const;
    };

    // All resources of a module.
    struct QD_API ResourceData
    {
        int m_LanguageCount;
        const ResourceLanguage* m_pLanguages; // in any order

        // The first language with this id, or null.
        const ResourceLanguage* FindResourceLanguage(int languageId) const;
    };

    // A module without resources.
    constexpr CQDModule() = default;

    // `data` may be null for a module without resources.
    constexpr explicit CQDModule(const ResourceData* data) : m_pData(data) {}

    CQDModule(const CQDModule&) = default;
    CQDModule& operator=(const CQDModule&) = default;
    ~CQDModule() = default;

    // The module's resources in exactly this language, or null.
    const ResourceLanguage* FindResourceLanguage(int languageId) const;

    // The entry with this id, or null. With L the locale's language id, looks in L, then for a string or a data file in
    // (L & 0xFF) | 0x100 and for a bitmap in (L & 0x3FF) | 0x400, then in 1033. The two formulas differ on purpose; see
    // StringsAndBitmapsFallBackDifferently.
    const StringEntry* FindResourceString(const CQDLocale& locale, unsigned int id) const;
    const BitmapEntry* FindResourceBitmap(const CQDLocale& locale, unsigned int id) const;
    const DataFileEntry* FindResourceDataFile(const CQDLocale& locale, unsigned int id) const;

    // Copies the text into `buffer`, cut to `size` - 1 bytes and terminated; with a size of 0 writes nothing.
    // Returns the bytes of the whole text, also when it was cut; 0, with the buffer as it was, when there is none.
    unsigned int LoadResourceString(const CQDLocale& locale, unsigned int id, char* buffer, unsigned int size) const;

    // Sets `text` to the text; to nothing when there is none.
    void LoadResourceString(const CQDLocale& locale, unsigned int id, std::string& text) const;

    // Converts the text to UTF-16, as many whole code points as fit `size` units, and no terminator.
    // Returns the units written; 0, with the buffer as it was, when there is no such text.
    unsigned int LoadResourceStringToVMString(const CQDLocale& locale, unsigned int id, unsigned short* buffer,
                                              unsigned int size) const;

    // Formats the arguments with the text as the printf format, of which the first 255 bytes are used, into `buffer`.
    // What is too long for `size` bytes ends in three full stops; below 4 bytes, which have no room for them, it is
    // empty. With a size of 0 writes nothing. The rest of the buffer is filled with NULs.
    // Where there is no such text, or an empty one, writes "Resource string %u not found!" with the id.
    // Returns the length; QDFormatEncodingError as qd_sprintf_with_elipsis does. Where the formatter fails, as on a
    // text whose byte 255 cuts a conversion apart, the buffer holds what was formatted before it, terminated, and the
    // result is that of a text that is too long: `size` - 1, not the length of what is there. The arguments must not
    // lie in the buffer, and must be those that the text asks for; the compiler cannot check them.
    int FormatResourceString(const CQDLocale& locale, char* buffer, unsigned int size, unsigned int id, ...) const;
    int FormatResourceStringVA(const CQDLocale& locale, char* buffer, unsigned int size, unsigned int id,
                               va_list args) const;

    // The same into a std::string, at most 255 bytes. Where the formatter fails, or a character cannot be encoded,
    // `text` is what was formatted before it.
    void FormatResourceString(const CQDLocale& locale, std::string& text, unsigned int id, ...) const;

    // Copies the fields of the resource. Returns false, with the structure as it was, when there is none.
    bool LoadResourceBitmap(const CQDLocale& locale, unsigned int id, QD_BITMAP& bitmap) const;
    bool LoadResourceDataFile(const CQDLocale& locale, unsigned int id, QD_DATA& data) const;

private:
    const ResourceData* m_pData{nullptr};
};

// The library's own resources: in US English, the messages of the URL option parser, 50 to 53. A constant, which is
// there before any code runs.
extern QD_API const CQDModule g_QDPlatformModule;

// One of the libraries that this one is linked with. Each text is terminated, and padded with NULs to its full size.
struct QDVersionInfo
{
    char m_Name[64];      // "zlib"
    char m_Version[48];   // "zlib 1.2.11", the name included
    char m_Copyright[96]; // the library's own copyright line
};

// OpenSSL, Curl and zlib, in this order.
extern QD_API const QDVersionInfo g_VersionInfo[];

// The number of records, 3.
extern QD_API const int g_VersionInfoCount;
