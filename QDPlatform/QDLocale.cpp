#include <QDPlatform/QDLocale.h>

#include <locale.h>

#include <cstdlib>
#include <iterator>
#include <string_view>

namespace
{

// Orders `name` and the terminated `tag`: below 0, 0, or above 0. A "_" in the name counts as "-".
int CompareNameWithTag(std::string_view name, const char* tag)
{
    for (const char c : name) {
        const int nameByte = static_cast<unsigned char>(c == '_' ? '-' : c);
        const int tagByte = static_cast<unsigned char>(*tag);
        if (nameByte != tagByte)
            return nameByte - tagByte;
        if (tagByte == 0)
            return 1; // the name goes on behind a NUL of its own
        ++tag;
    }
    return -static_cast<int>(static_cast<unsigned char>(*tag));
}

const CQDLocale::Language* FindLanguage(std::string_view name)
{
    int lo = 0;
    int hi = CQDLocale::g_LanguagesLength - 1;
    while (lo <= hi) {
        const int mid = (lo + hi) / 2;
        const CQDLocale::Language& language = CQDLocale::g_Languages[mid];
        const int order = CompareNameWithTag(name, language.m_pTag);
        if (order == 0)
            return &language;
        if (order > 0)
            lo = mid + 1;
        else
            hi = mid - 1;
    }
    return nullptr;
}

} // namespace

// A bare language code has the number of the language's default form: for "zh" that is zh-TW, for "pt" pt-BR. "de-GE"
// has the number of de-DE.
constinit const CQDLocale::Language CQDLocale::g_Languages[] = {
    {"af", 0x0436},    {"af-ZA", 0x0436}, {"ar", 0x0401},     {"ar-AE", 0x3801},  {"ar-BH", 0x3c01}, {"ar-DZ", 0x1401},
    {"ar-EG", 0x0c01}, {"ar-IQ", 0x0801}, {"ar-JO", 0x2c01},  {"ar-KW", 0x3401},  {"ar-LB", 0x3001}, {"ar-LY", 0x1001},
    {"ar-MA", 0x1801}, {"ar-OM", 0x2001}, {"ar-SA", 0x0401},  {"ar-SY", 0x2801},  {"ar-TN", 0x1c01}, {"ar-YE", 0x2401},
    {"as", 0x044d},    {"as-IN", 0x044d}, {"az", 0x042c},     {"az-AZ", 0x042c},  {"be", 0x0423},    {"be-BY", 0x0423},
    {"bg", 0x0402},    {"bg-BG", 0x0402}, {"bn", 0x0445},     {"bn-BD", 0x0845},  {"bn-IN", 0x0445}, {"ca", 0x0403},
    {"ca-ES", 0x0403}, {"cs", 0x0405},    {"cs-CZ", 0x0405},  {"da", 0x0406},     {"da-DK", 0x0406}, {"de", 0x0407},
    {"de-AT", 0x0c07}, {"de-CH", 0x0807}, {"de-DE", 0x0407},  {"de-GE", 0x0407},  {"de-LI", 0x1407}, {"de-LU", 0x1007},
    {"el", 0x0408},    {"el-GR", 0x0408}, {"en", 0x0409},     {"en-029", 0x2409}, {"en-AU", 0x0c09}, {"en-BZ", 0x2809},
    {"en-CA", 0x1009}, {"en-GB", 0x0809}, {"en-HK", 0x3c09},  {"en-ID", 0x3809},  {"en-IE", 0x1809}, {"en-JM", 0x2009},
    {"en-NZ", 0x1409}, {"en-PH", 0x3409}, {"en-TT", 0x2c09},  {"en-US", 0x0409},  {"en-ZA", 0x1c09}, {"en-ZW", 0x3009},
    {"es", 0x040a},    {"es-AR", 0x2c0a}, {"es-CL", 0x340a},  {"es-CO", 0x240a},  {"es-CR", 0x140a}, {"es-DO", 0x1c0a},
    {"es-EC", 0x300a}, {"es-ES", 0x040a}, {"es-GT", 0x100a},  {"es-MX", 0x080a},  {"es-PA", 0x180a}, {"es-PE", 0x280a},
    {"es-PY", 0x3c0a}, {"es-UY", 0x380a}, {"es-VE", 0x200a},  {"et", 0x0425},     {"et-EE", 0x0425}, {"eu", 0x042d},
    {"eu-ES", 0x042d}, {"fa", 0x0429},    {"fa-IR", 0x0429},  {"fi", 0x040b},     {"fi-FI", 0x040b}, {"fo", 0x0438},
    {"fo-FO", 0x0438}, {"fr", 0x040c},    {"fr-029", 0x1c0c}, {"fr-BE", 0x080c},  {"fr-CA", 0x0c0c}, {"fr-CD", 0x240c},
    {"fr-CH", 0x100c}, {"fr-CI", 0x300c}, {"fr-CM", 0x2c0c},  {"fr-FR", 0x040c},  {"fr-HT", 0x3c0c}, {"fr-LU", 0x140c},
    {"fr-MA", 0x380c}, {"fr-MC", 0x180c}, {"fr-ML", 0x340c},  {"fr-RE", 0x200c},  {"fr-SN", 0x280c}, {"ga", 0x043c},
    {"ga-IE", 0x083c}, {"gu", 0x0447},    {"gu-IN", 0x0447},  {"he", 0x040d},     {"he-IL", 0x040d}, {"hi", 0x0439},
    {"hi-IN", 0x0439}, {"hr", 0x041a},    {"hr-BA", 0x101a},  {"hr-CS", 0x081a},  {"hr-HR", 0x041a}, {"hr-ME", 0x2c1a},
    {"hr-RS", 0x241a}, {"hsb", 0x042e},   {"hsb-DE", 0x042e}, {"hu", 0x040e},     {"hu-HU", 0x040e}, {"hy", 0x042b},
    {"hy-AM", 0x042b}, {"id", 0x0421},    {"id-ID", 0x0421},  {"is", 0x040f},     {"is-IS", 0x040f}, {"it", 0x0410},
    {"it-CH", 0x0810}, {"it-IT", 0x0410}, {"ja", 0x0411},     {"ja-JP", 0x0411},  {"ka", 0x0437},    {"ka-GE", 0x0437},
    {"kk", 0x043f},    {"kk-KZ", 0x043f}, {"kn", 0x044b},     {"kn-IN", 0x044b},  {"ko", 0x0412},    {"ko-KR", 0x0412},
    {"ky", 0x0440},    {"ky-KG", 0x0440}, {"lt", 0x0427},     {"lt-LT", 0x0427},  {"lv", 0x0426},    {"lv-LV", 0x0426},
    {"mk", 0x042f},    {"mk-MK", 0x042f}, {"ml", 0x044c},     {"ml-IN", 0x044c},  {"mr", 0x044e},    {"mr-IN", 0x044e},
    {"ms", 0x043e},    {"ms-BN", 0x083e}, {"ms-MY", 0x043e},  {"mt", 0x043a},     {"mt-MT", 0x043a}, {"nb", 0x0414},
    {"nb-NO", 0x0414}, {"nl", 0x0413},    {"nl-BE", 0x0813},  {"nl-NL", 0x0413},  {"or", 0x0448},    {"or-IN", 0x0448},
    {"pa", 0x0446},    {"pa-IN", 0x0446}, {"pa-PK", 0x0846},  {"pl", 0x0415},     {"pl-PL", 0x0415}, {"pt", 0x0416},
    {"pt-BR", 0x0416}, {"pt-PT", 0x0816}, {"rm", 0x0417},     {"rm-CH", 0x0417},  {"ro", 0x0418},    {"ro-MD", 0x0818},
    {"ro-RO", 0x0418}, {"ru", 0x0419},    {"ru-MD", 0x0819},  {"ru-RU", 0x0419},  {"sa", 0x044f},    {"sa-IN", 0x044f},
    {"se", 0x043b},    {"se-FI", 0x0c3b}, {"se-NO", 0x043b},  {"se-SE", 0x083b},  {"sk", 0x041b},    {"sk-SK", 0x041b},
    {"sl", 0x0424},    {"sl-SI", 0x0424}, {"sq", 0x041c},     {"sq-AL", 0x041c},  {"st", 0x0430},    {"st-ZA", 0x0430},
    {"sv", 0x041d},    {"sv-FI", 0x081d}, {"sv-SE", 0x041d},  {"sw", 0x0441},     {"sw-KE", 0x0441}, {"ta", 0x0449},
    {"ta-IN", 0x0449}, {"ta-LK", 0x0849}, {"te", 0x044a},     {"te-IN", 0x044a},  {"tg", 0x0428},    {"tg-TJ", 0x0428},
    {"th", 0x041e},    {"th-TH", 0x041e}, {"tk", 0x0442},     {"tk-TM", 0x0442},  {"tn", 0x0432},    {"tn-BW", 0x0832},
    {"tn-ZA", 0x0432}, {"tr", 0x041f},    {"tr-TR", 0x041f},  {"ts", 0x0431},     {"ts-ZA", 0x0431}, {"tt", 0x0444},
    {"tt-RU", 0x0444}, {"uk", 0x0422},    {"uk-UA", 0x0422},  {"ur", 0x0420},     {"ur-IN", 0x0820}, {"ur-PK", 0x0420},
    {"uz", 0x0443},    {"uz-UZ", 0x0443}, {"ve", 0x0433},     {"ve-ZA", 0x0433},  {"vi", 0x042a},    {"vi-VN", 0x042a},
    {"xh", 0x0434},    {"xh-ZA", 0x0434}, {"yi", 0x043d},     {"yi-001", 0x043d}, {"zh", 0x0404},    {"zh-CN", 0x0804},
    {"zh-HK", 0x0c04}, {"zh-MO", 0x1404}, {"zh-SG", 0x1004},  {"zh-TW", 0x0404},  {"zu", 0x0435},    {"zu-ZA", 0x0435},
};

constinit const int CQDLocale::g_LanguagesLength = static_cast<int>(std::size(g_Languages));

bool CQDLocale::SetFromLocaleName(const std::string& tag)
{
    return Take(FindLanguage(tag));
}

bool CQDLocale::SetFromEnvVarLANGUAGE(const char* value)
{
    if (value == nullptr)
        return false;
    std::string_view rest = value;
    for (;;) {
        const std::string_view::size_type end = rest.find(':');
        if (Take(FindLanguage(rest.substr(0, end))))
            return true;
        if (end == std::string_view::npos)
            return false;
        rest.remove_prefix(end + 1);
    }
}

bool CQDLocale::SetFromEnvVarLANG(const char* value)
{
    if (value == nullptr)
        return false;
    const std::string_view text = value;
    return Take(FindLanguage(text.substr(0, text.find('.'))));
}

bool CQDLocale::SetFromCurrentUser()
{
    if (!SetFromEnvVarLANGUAGE(std::getenv("LANGUAGE")) && !SetFromEnvVarLANG(std::getenv("LANG")))
        *this = CQDLocale();
    return true;
}

const CQDLocale::Language* CQDLocale::GetLanguageIdFromISOName(const char* name, unsigned int length)
{
    return FindLanguage(std::string_view(name, length));
}

const std::string& CQDLocale::GetLocaleName() const
{
    return m_Tag;
}

int CQDLocale::GetLanguageId() const
{
    return m_LanguageId;
}

int CQDLocale::GetCJKLanguage() const
{
    switch (m_LanguageId) {
    case 0x0804: // CN
    case 0x1004: // SG
        return CJKSimplifiedChinese;
    case 0x0404: // TW
    case 0x0c04: // HK
    case 0x1404: // MO
        return CJKTraditionalChinese;
    case 0x0411: return CJKJapanese;
    case 0x0412: return CJKKorean;
    default: return CJKNone;
    }
}

const char* CQDLocale::SetUtf8Locale()
{
    const char* name = setlocale(LC_CTYPE, "C.UTF-8");
    return name != nullptr ? name : setlocale(LC_CTYPE, "UTF-8");
}

// Null changes nothing.
bool CQDLocale::Take(const Language* language)
{
    if (language == nullptr)
        return false;
    m_Tag = language->m_pTag;
    m_LanguageId = static_cast<uint16_t>(language->m_LanguageId);
    return true;
}
