#include <QDPlatform/QDAsyncUrlRequestOptions.h>

#include <QDPlatform/CTextOutput.h>
#include <QDPlatform/QDAsyncUrlRequest.h>
#include <QDPlatform/QDFormatMessage.h>
#include <QDPlatform/QDLocale.h>
#include <QDPlatform/QDModule.h>
#include <QDPlatform/QDString.h>

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <string_view>

namespace
{

enum OptionKind : int
{
    KindFlag,
    KindBitmask,
    KindInteger, // this and the following ones take a value
    KindString,
    KindStringList
};

// Without pointers, so that the table lies in read-only memory.
struct OptionMetadata
{
    char m_ShortName[2]; // no look-up uses it
    char m_LongName[28];
    OptionKind m_Kind;
    CURLoption m_Option;
    unsigned long m_Mask; // of a bitmask
};

// libcurl's value for "any" is the complement of one bit in a long, which has 64 bits on some machines.
constexpr unsigned long kAnyAuthentication = CURLAUTH_ANY & 0xFFFFFFFF;

// In ASCII order of the long names.
constexpr OptionMetadata g_Options[] = {
    {"", "--anyauth", KindBitmask, CURLOPT_HTTPAUTH, kAnyAuthentication},
    {"a", "--append", KindFlag, CURLOPT_APPEND, 0},
    {"", "--basic", KindBitmask, CURLOPT_HTTPAUTH, CURLAUTH_BASIC},
    {"", "--ciphers", KindString, CURLOPT_SSL_CIPHER_LIST, 0},
    {"", "--connect-timeout", KindInteger, CURLOPT_CONNECTTIMEOUT, 0},
    {"", "--crlf", KindFlag, CURLOPT_CRLF, 0},
    {"", "--digest", KindBitmask, CURLOPT_HTTPAUTH, CURLAUTH_DIGEST},
    {"", "--disallow-username-in-url", KindFlag, CURLOPT_DISALLOW_USERNAME_IN_URL, 0},
    {"", "--ftp-port", KindString, CURLOPT_FTPPORT, 0},
    {"", "--ftp-pret", KindFlag, CURLOPT_FTP_USE_PRET, 0},
    {"", "--mail-auth", KindString, CURLOPT_MAIL_AUTH, 0},
    {"", "--mail-from", KindString, CURLOPT_MAIL_FROM, 0},
    {"", "--mail-rcpt", KindStringList, CURLOPT_MAIL_RCPT, 0},
    {"m", "--max-time", KindInteger, CURLOPT_TIMEOUT, 0},
    {"", "--negotiate", KindBitmask, CURLOPT_HTTPAUTH, CURLAUTH_NEGOTIATE},
    {"", "--ntlm", KindBitmask, CURLOPT_HTTPAUTH, CURLAUTH_NTLM},
    {"", "--ntlm-wb", KindBitmask, CURLOPT_HTTPAUTH, CURLAUTH_NTLM_WB},
    {"", "--oauth2-bearer", KindString, CURLOPT_XOAUTH2_BEARER, 0},
    {"", "--path-as-is", KindFlag, CURLOPT_PATH_AS_IS, 0},
    {"", "--post301", KindBitmask, CURLOPT_POSTREDIR, CURL_REDIR_POST_301},
    {"", "--post302", KindBitmask, CURLOPT_POSTREDIR, CURL_REDIR_POST_302},
    {"", "--post303", KindBitmask, CURLOPT_POSTREDIR, CURL_REDIR_POST_303},
    {"", "--proto-default", KindString, CURLOPT_DEFAULT_PROTOCOL, 0},
    {"x", "--proxy", KindString, CURLOPT_PROXY, 0},
    {"", "--tcp-fastopen", KindFlag, CURLOPT_TCP_FASTOPEN, 0},
    {"", "--tftp-no-options", KindFlag, CURLOPT_TFTP_NO_OPTIONS, 0},
};
constexpr int g_OptionCount = static_cast<int>(std::size(g_Options));
static_assert(g_OptionCount == 26);
static_assert(std::is_sorted(std::begin(g_Options), std::end(g_Options),
                             [](const OptionMetadata& a, const OptionMetadata& b) {
                                 return std::string_view(a.m_LongName) < std::string_view(b.m_LongName);
                             }));

constexpr unsigned int kUnexpectedOption = 50;
constexpr unsigned int kInvalidOption = 51;
constexpr unsigned int kMissingValue = 52;
constexpr unsigned int kInvalidInteger = 53;
constexpr unsigned int kErrorCapacity = 256;

// A token is shown whole up to 62 bytes, else as 60 and the full stops.
constexpr size_t kLongestShownToken = 62;
constexpr size_t kShownOfLongerToken = 60;

constexpr int kQuote = '\'';

bool IsWhitespace(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// Appends what stands between the quote before `pos` and the next one, and moves `pos` behind that. The end of the text
// is looked for before the character in hand is appended: a quote that is not closed loses it.
void TakeQuotedPiece(const char*& pos, const char* end, std::string& token)
{
    if (pos >= end)
        return;
    int codePoint = qd_codepoint_from_qdchar(pos, end);
    while (pos < end && codePoint != kQuote) {
        qd_append_codepoint_to_qdstring(codePoint, token);
        codePoint = qd_codepoint_from_qdchar(pos, end);
    }
}

// Sets `token` to the next word, to nothing at the end of the text, and moves `pos` behind it.
void GetNextCurlOption(const char*& pos, const char* end, std::string& token)
{
    token.clear();
    while (pos < end && IsWhitespace(*pos))
        ++pos;
    while (pos < end && !IsWhitespace(*pos)) {
        const int codePoint = qd_codepoint_from_qdchar(pos, end);
        if (codePoint == kQuote)
            TakeQuotedPiece(pos, end, token);
        else
            qd_append_codepoint_to_qdstring(codePoint, token);
    }
}

// Null when there is no such option.
const OptionMetadata* FindCurlOption(const std::string& name)
{
    if (name.find('\0') != std::string::npos)
        return nullptr;
    int lo = 0;
    int hi = g_OptionCount - 1;
    while (lo <= hi) {
        const int mid = (lo + hi) / 2;
        const int order = ::strcasecmp(g_Options[mid].m_LongName, name.c_str());
        if (order == 0)
            return &g_Options[mid];
        if (order < 0)
            lo = mid + 1;
        else
            hi = mid - 1;
    }
    return nullptr;
}

// Returns false when something of the text is left over.
bool ParseInteger(const std::string& text, long& value)
{
    char* end = nullptr;
    value = std::strtol(text.c_str(), &end, 10);
    return end == text.c_str() + text.size();
}

// Sets `errorText` to the message about the token. Returns false.
bool FailWith(const CQDLocale& locale, unsigned int id, const std::string& token, std::string& errorText)
{
    std::string shown = token;
    if (token.size() > kLongestShownToken)
        shown.replace(kShownOfLongerToken, std::string::npos, "...");
    char buffer[kErrorCapacity];
    g_QDPlatformModule.FormatResourceString(locale, buffer, sizeof buffer, id, shown.c_str());
    errorText = buffer;
    return false;
}

// Sets `errorText` to the operating system's message. Returns false.
bool FailWithoutMemory(const CQDLocale& locale, std::string& errorText)
{
    char buffer[kErrorCapacity];
    QDFormatMessage(&locale, ENOMEM, buffer, sizeof buffer);
    errorText = buffer;
    return false;
}

const char* GetOptionName(CURLoption option)
{
    switch (option) {
    case CURLOPT_TIMEOUT: return "CURLOPT_TIMEOUT";
    case CURLOPT_APPEND: return "CURLOPT_APPEND";
    case CURLOPT_CONNECTTIMEOUT: return "CURLOPT_CONNECTTIMEOUT";
    case CURLOPT_HTTPAUTH: return "CURLOPT_HTTPAUTH";
    case CURLOPT_POSTREDIR: return "CURLOPT_POSTREDIR";
    case CURLOPT_PROXY: return "CURLOPT_PROXY";
    case CURLOPT_SSL_CIPHER_LIST: return "CURLOPT_SSL_CIPHER_LIST";
    case CURLOPT_MAIL_FROM: return "CURLOPT_MAIL_FROM";
    case CURLOPT_MAIL_RCPT: return "CURLOPT_MAIL_RCPT";
    case CURLOPT_MAIL_AUTH: return "CURLOPT_MAIL_AUTH";
    default: return "???";
    }
}

void PrintList(CTextOutput& out, const curl_slist* list)
{
    const char* separator = "";
    for (; list != nullptr; list = list->next) {
        out.Print("%s'%s'", separator, list->data);
        separator = ", ";
    }
}

} // namespace

QDAsyncUrlRequestOptions::~QDAsyncUrlRequestOptions()
{
    ClearCurlOptions();
}

bool QDAsyncUrlRequestOptions::ParseCurlOptions(const CQDLocale& locale, const std::string& text,
                                                std::string& errorText)
{
    ClearCurlOptions();
    errorText.clear();
    const char* pos = text.data();
    const char* const end = pos + text.size();
    std::string token;
    std::string value;
    while (true) {
        GetNextCurlOption(pos, end, token);
        if (token.empty())
            return true;
        if (token.front() != '-')
            return FailWith(locale, kUnexpectedOption, token, errorText);
        const OptionMetadata* option = FindCurlOption(token);
        if (option == nullptr)
            return FailWith(locale, kInvalidOption, token, errorText);
        if (option->m_Kind >= KindInteger) {
            GetNextCurlOption(pos, end, value);
            if (value.empty() || value.front() == '-')
                return FailWith(locale, kMissingValue, token, errorText);
        }
        long number = 1;
        switch (option->m_Kind) {
        case KindBitmask: AddBitmaskOption(option->m_Option, option->m_Mask); break;
        case KindInteger:
            if (!ParseInteger(value, number))
                return FailWith(locale, kInvalidInteger, value, errorText);
            [[fallthrough]];
        case KindFlag: AddIntegerOption(option->m_Option, number); break;
        case KindString: m_Options.push_back({option->m_Option, true, 0, value, nullptr}); break;
        case KindStringList:
            if (!AddStringListOption(option->m_Option, value))
                return FailWithoutMemory(locale, errorText);
            break;
        }
        if (option->m_Option == CURLOPT_XOAUTH2_BEARER)
            AddBitmaskOption(CURLOPT_HTTPAUTH, CURLAUTH_BEARER);
    }
}

bool QDAsyncUrlRequestOptions::ApplyOptionsToRequest(QDAsyncUrlRequest* request) const
{
    CURL* curl = request->GetCurlHandle();
    bool isApplied = true;
    for (const OptionValue& value : m_Options) {
        CURLcode result;
        if (value.m_pStringList != nullptr)
            result = curl_easy_setopt(curl, value.m_Option, value.m_pStringList);
        else if (value.m_IsString)
            result = curl_easy_setopt(curl, value.m_Option, value.m_StringValue.c_str());
        else
            result = curl_easy_setopt(curl, value.m_Option, value.m_IntegerValue);
        isApplied = isApplied && result == CURLE_OK;
    }
    return isApplied;
}

void QDAsyncUrlRequestOptions::PrintOptions(CTextOutput& out) const
{
    for (const OptionValue& value : m_Options) {
        out.Print("%s = ", GetOptionName(value.m_Option));
        if (value.m_pStringList != nullptr)
            PrintList(out, value.m_pStringList);
        else if (value.m_IsString)
            out.Print("'%s'", value.m_StringValue.c_str());
        else
            out.Print("%ld", value.m_IntegerValue);
        out.PrintLine();
    }
}

void QDAsyncUrlRequestOptions::ClearCurlOptions()
{
    for (const OptionValue& value : m_Options)
        curl_slist_free_all(value.m_pStringList);
    m_Options.clear();
}

unsigned int QDAsyncUrlRequestOptions::GetOptionCount() const
{
    return static_cast<unsigned int>(m_Options.size());
}

QDAsyncUrlRequestOptions::OptionValue* QDAsyncUrlRequestOptions::FindOption(CURLoption option)
{
    for (OptionValue& value : m_Options)
        if (value.m_Option == option)
            return &value;
    return nullptr;
}

void QDAsyncUrlRequestOptions::AddIntegerOption(CURLoption option, long value)
{
    m_Options.push_back({option, false, value, "", nullptr});
}

void QDAsyncUrlRequestOptions::AddBitmaskOption(CURLoption option, unsigned long mask)
{
    // Bit 31 is the sign where long has 32 bits; libcurl takes the same bits as unsigned.
    OptionValue* value = FindOption(option);
    if (value == nullptr)
        AddIntegerOption(option, static_cast<long>(mask));
    else
        value->m_IntegerValue = static_cast<long>(static_cast<unsigned long>(value->m_IntegerValue) | mask);
}

bool QDAsyncUrlRequestOptions::AddStringListOption(CURLoption option, const std::string& value)
{
    const bool isNew = FindOption(option) == nullptr;
    if (isNew)
        AddIntegerOption(option, 0);
    OptionValue* record = FindOption(option);
    curl_slist* list = curl_slist_append(record->m_pStringList, value.c_str());
    if (list != nullptr)
        record->m_pStringList = list; // else the list is as it was
    else if (isNew)
        m_Options.pop_back();
    return list != nullptr;
}
