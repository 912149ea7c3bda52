#pragma once

#include <QDPlatform/QDExport.h>

#include <curl/curl.h>

#include <list>
#include <string>

class CQDLocale;
class CTextOutput;
class QDAsyncUrlRequest;

// Extra libcurl options that an operator writes as text, in the manner of a command line, to apply to any number of
// requests.
//
//     QDAsyncUrlRequestOptions options;
//     std::string error;
//     if (!options.ParseCurlOptions(locale, "--max-time 30 --proxy 'http://192.0.2.1:3128'", error))
//         log->PrintError(0, "%s", error.c_str());
//     options.ApplyOptionsToRequest(request);
//
// The options, by their long names, upper and lower case alike:
//
//     no value         --append --crlf --disallow-username-in-url --ftp-pret --path-as-is --tcp-fastopen
//                      --tftp-no-options
//     authentication   --anyauth --basic --digest --negotiate --ntlm --ntlm-wb, which add up
//     redirects        --post301 --post302 --post303, which add up
//     a whole number   --connect-timeout --max-time, both in seconds
//     a text           --ciphers --ftp-port --mail-auth --mail-from --oauth2-bearer --proto-default --proxy
//     texts            --mail-rcpt, which may be given several times
//
// A text given twice is applied twice, so that the last one counts. --oauth2-bearer also adds bearer authentication.
// Thread:  one at a time; ApplyOptionsToRequest(), PrintOptions() and GetOptionCount() on several threads at once.
// Owns:    the values. libcurl keeps pointers to lists (--mail-rcpt): the set outlives every request to which it was
//          applied, and is not parsed again or cleared while such a request runs.
class QD_API QDAsyncUrlRequestOptions
{
public:
    // Without any option.
    QDAsyncUrlRequestOptions() = default;
    QDAsyncUrlRequestOptions(const QDAsyncUrlRequestOptions&) = delete;
    QDAsyncUrlRequestOptions& operator=(const QDAsyncUrlRequestOptions&) = delete;

    // Does what ClearCurlOptions() does.
    ~QDAsyncUrlRequestOptions();

    // Replaces the options by those in `text`, UTF-8, and returns true when all of it was understood; an empty text is.
    // errorText: empty on true; on false why the first option that was not understood was not, in the language of
    // `locale`. The options before it stay in the set. Must not be `text` itself.
    // Words stand between blanks, TABs, LFs and CRs. A piece of a word in single quotes may hold these, and the quotes
    // are dropped; nothing else is special. Ill-formed UTF-8 becomes U+FFFD. Kept oddities:
    // - a quote that is not closed loses the last character of the text; see OpenQuoteLosesTheLastCharacter;
    // - an empty word ('') in the place of an option ends the parse with true; see EmptyQuotedOptionEndsTheParse;
    // - a value must not begin with "-", in quotes neither; see QuotedValueThatBeginsWithAHyphenIsMissing.
    // A number is read by strtol(): blanks in front, which take quotes, and a sign behind them are allowed, and one
    // that a long cannot hold becomes the nearest that it can. A NUL is a character like any other, with which a word
    // is neither an option nor a number; libcurl takes a text up to it. The offending word is shown with at most 63
    // bytes: what is longer than 62 as its first 60, also within a character, and "...". Without memory for a
    // --mail-rcpt returns false with the operating system's text for ENOMEM.
    bool ParseCurlOptions(const CQDLocale& locale, const std::string& text, std::string& errorText);

    // Sets the options on the request's handle, in the order of the text. Returns false when libcurl refused some,
    // because it was built without what they need or for a value out of its range (it takes time-outs up to 2147483 s);
    // the others are set all the same.
    bool ApplyOptionsToRequest(QDAsyncUrlRequest* request) const;

    // Writes a line for each option, in the order of the text: "CURLOPT_TIMEOUT = 30", "CURLOPT_PROXY = 'host:3128'" or
    // "CURLOPT_MAIL_RCPT = 'a', 'b'". Most options have no name here and are written as "???". Kept so; see
    // PrintOptionsKnowsTenNames.
    void PrintOptions(CTextOutput& out) const;

    // Drops all options.
    void ClearCurlOptions();

    // The number of libcurl options in the set; what adds up, and all texts of --mail-rcpt, count as one.
    unsigned int GetOptionCount() const;

private:
    // One option of libcurl with its value, which is m_pStringList when that is not null, else m_StringValue when
    // m_IsString, else m_IntegerValue.
    struct OptionValue
    {
        CURLoption m_Option;
        bool m_IsString;
        long m_IntegerValue; // 1 for an option without a value; for those that add up the bits
        std::string m_StringValue;
        curl_slist* m_pStringList; // owned
    };

    // The first one with this option, or null.
    QD_LOCAL OptionValue* FindOption(CURLoption option);
    QD_LOCAL void AddIntegerOption(CURLoption option, long value);

    // Adds the bits to the option's value.
    QD_LOCAL void AddBitmaskOption(CURLoption option, unsigned long mask);

    // Adds the text to the option's list. Returns false, with the set as it was, when there is no memory.
    QD_LOCAL bool AddStringListOption(CURLoption option, const std::string& value);

    std::list<OptionValue> m_Options;
};
