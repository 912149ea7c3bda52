#pragma once

#include <QDPlatform/QDExport.h>

#include <cstdint>
#include <string>

// The language in which the system talks to a user: a tag such as "en-US", and the number by which resources are found.
//
// A tag is a language code, or a language code, "-" and a region. It is always one of the 240 of g_Languages; the C
// library's locale names play no part. The number is the Windows language identifier that belongs to it.
// Thread:  one at a time, like any plain value; see SetUtf8Locale().
class QD_API CQDLocale
{
public:
    // A row of the table.
    struct Language
    {
        const char* m_pTag; // terminated
        int m_LanguageId;   // the Windows language identifier, 0..0xFFFF
    };

    // The East Asian script families, as GetCJKLanguage() tells them apart.
    enum CJKLanguage : int
    {
        CJKNone,
        CJKSimplifiedChinese,
        CJKTraditionalChinese,
        CJKJapanese,
        CJKKorean,
    };

    // The 240 languages, in ascending byte order of the tag.
    static const Language g_Languages[];

    // The number of rows, 240.
    static const int g_LanguagesLength;

    // "en-US", 1033.
    CQDLocale() = default;
    CQDLocale(const CQDLocale&) = default;
    CQDLocale& operator=(const CQDLocale&) = default;
    ~CQDLocale() = default;

    // Takes the language with this tag. "_" stands for "-", and case matters. The stored tag is the table's.
    // Returns false, with nothing changed, when there is none.
    bool SetFromLocaleName(const std::string& tag);

    // Takes the first known tag of a list with ":" between its elements, the form of the variable LANGUAGE. Elements
    // are looked up as by SetFromLocaleName(); empty and unknown ones are skipped.
    // Returns false, with nothing changed, when none is known or `value` is null.
    bool SetFromEnvVarLANGUAGE(const char* value);

    // Takes the tag in front of the first ".", or the whole value without one: the form of the variable LANG, such as
    // "de_DE.UTF-8". A modifier ("de_DE@euro") is not cut off, so such a value is unknown.
    // Returns false, with nothing changed, when the tag is unknown or `value` is null.
    bool SetFromEnvVarLANG(const char* value);

    // Takes what the process's environment says: LANGUAGE; if that does not help, LANG; else "en-US". Always succeeds.
    // Thread: not while another thread changes the environment.
    bool SetFromCurrentUser();

    // The row for the first `length` bytes of `name`, looked up as by SetFromLocaleName(); null when there is none.
    static const Language* GetLanguageIdFromISOName(const char* name, unsigned int length);

    // The stored tag.
    const std::string& GetLocaleName() const;

    // The stored number, 0..0xFFFF.
    int GetLanguageId() const;

    // A CJKLanguage: which script family the language needs. The bare code "zh" is Traditional Chinese.
    int GetCJKLanguage() const;

    // Sets the process's character type, and nothing else of its C locale, to UTF-8: "C.UTF-8", or "UTF-8" where the
    // system does not know that. Returns the name that took effect, which is the C library's, or null.
    // Thread: for the start of the program, before there are threads that format text.
    static const char* SetUtf8Locale();

private:
    QD_LOCAL bool Take(const Language* language);

    std::string m_Tag{"en-US"};
    uint16_t m_LanguageId{1033};
};
