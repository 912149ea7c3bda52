// Any bytes through the literals and the text forms: what is written reads back as the text that went in, and numbers
// read back as the C library's digits of the value.
#include <QDPlatform/CTextOutput.h>
#include <QDPlatform/QDString.h>

#include "support/ExactCopy.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace
{

using CodePoints = std::vector<int>;

void Require(bool condition)
{
    if (!condition)
        std::abort();
}

// Keeps what is written.
class KeepingOutput : public CTextOutput
{
public:
    bool WriteCodePoint(int codePoint) override
    {
        m_Written.push_back(codePoint);
        return true;
    }

    CodePoints m_Written;
};

// What one operation writes.
template<class Print>
CodePoints Written(Print&& print)
{
    KeepingOutput output;
    print(output);
    return output.m_Written;
}

CodePoints Decode(const uint8_t* p, const uint8_t* end)
{
    CodePoints text;
    while (p < end)
        text.push_back(qd_decode_utf8(p, end));
    return text;
}

CodePoints Decode(const uint16_t* p, const uint16_t* end)
{
    CodePoints text;
    while (p < end)
        text.push_back(qd_decode_utf16(p, end));
    return text;
}

std::vector<unsigned> EncodeUtf8(const CodePoints& text)
{
    std::vector<unsigned> units;
    for (const int codePoint : text) {
        uint8_t encoded[4];
        units.insert(units.end(), encoded, encoded + qd_encode_utf8(codePoint, encoded));
    }
    return units;
}

std::vector<unsigned> EncodeUtf16(const CodePoints& text)
{
    std::vector<unsigned> units;
    for (const int codePoint : text) {
        uint16_t encoded[2];
        units.insert(units.end(), encoded, encoded + qd_encode_utf16(codePoint, encoded));
    }
    return units;
}

// The text between the quotes, which must be there.
CodePoints WithoutQuotes(const CodePoints& literal, int quote)
{
    Require(literal.size() >= 2 && literal.front() == quote && literal.back() == quote);
    return {literal.begin() + 1, literal.end() - 1};
}

unsigned HexDigit(int codePoint)
{
    Require((codePoint >= '0' && codePoint <= '9') || (codePoint >= 'A' && codePoint <= 'F'));
    return static_cast<unsigned>(codePoint <= '9' ? codePoint - '0' : codePoint - 'A' + 10);
}

// Reads an IEC 61131-3 literal back into units. `encode` gives those of a character that is written as it is.
template<class Encode>
std::vector<unsigned> ReadLiteral(const CodePoints& literal, int quote, size_t digits, Encode&& encode)
{
    const CodePoints text = WithoutQuotes(literal, quote);
    std::vector<unsigned> units;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '$') {
            Require(text[i] != quote && text[i] >= ' ');
            const std::vector<unsigned> encoded = encode(CodePoints{text[i]});
            units.insert(units.end(), encoded.begin(), encoded.end());
            continue;
        }
        Require(++i < text.size());
        switch (text[i]) {
        case 't': units.push_back('\t'); continue;
        case 'n': units.push_back('\n'); continue;
        case 'r': units.push_back('\r'); continue;
        default: break;
        }
        if (text[i] == '$' || text[i] == quote) {
            units.push_back(static_cast<unsigned>(text[i]));
            continue;
        }
        Require(text.size() - i >= digits);
        unsigned value = 0;
        for (size_t digit = 0; digit < digits; ++digit)
            value = value << 4 | HexDigit(text[i + digit]);
        units.push_back(value);
        i += digits - 1;
    }
    return units;
}

// Reads a text back that stands between quotes and has them twice inside.
CodePoints ReadDoubled(const CodePoints& literal, int quote)
{
    const CodePoints text = WithoutQuotes(literal, quote);
    CodePoints result;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == quote)
            Require(++i < text.size() && text[i] == quote);
        result.push_back(text[i]);
    }
    return result;
}

std::vector<unsigned> AsUnits(const CodePoints& text)
{
    return {text.begin(), text.end()};
}

void CheckBytes(const std::string& text)
{
    const std::vector<unsigned char> bytes(text.begin(), text.end());
    const std::vector<unsigned> units(bytes.begin(), bytes.end());
    for (const bool doubleByte : {false, true}) {
        const CodePoints literal = Written([&](CTextOutput& output) { output.Print61131String(text, doubleByte); });
        Require(ReadLiteral(literal, doubleByte ? '"' : '\'', doubleByte ? 4 : 2, AsUnits) == units);
    }
}

void CheckCsv(const std::string& value, const CodePoints& decoded)
{
    const CodePoints written = Written([&](CTextOutput& output) {
        output.SetLineTermination(LineTerminationLF);
        output.PrintCSVValue(value);
    });
    if (value.find_first_of(",\"") != std::string::npos) {
        const std::vector<unsigned char> bytes(value.begin(), value.end());
        Require(ReadDoubled(written, '"') == CodePoints(bytes.begin(), bytes.end()));
        return;
    }
    CodePoints expected;
    std::copy_if(decoded.begin(), decoded.end(), std::back_inserter(expected), [](int cp) { return cp != '\r'; });
    Require(written == expected);
}

void CheckUtf8(const uint8_t* data, size_t size)
{
    const auto utf8 = ExactCopy<unsigned char>(data, size);
    const auto length = static_cast<unsigned>(size);
    const std::string text(reinterpret_cast<const char*>(data), size);
    const CodePoints decoded = Decode(data, data + size);

    Require(Written([&](CTextOutput& output) { output.PrintUtf8String(utf8.get(), length); }) == decoded);
    const CodePoints literal = Written([&](CTextOutput& output) { output.Print61131String(utf8.get(), length); });
    Require(ReadLiteral(literal, '\'', 2, EncodeUtf8) == EncodeUtf8(decoded));
    const CodePoints sql = Written([&](CTextOutput& output) { output.PrintSQLStringLiteral(text); });
    Require(ReadDoubled(sql, '\'') == decoded);
    CheckBytes(text);
    CheckCsv(text, decoded);
}

void CheckUtf16(const uint8_t* data, size_t size)
{
    const size_t count = size / sizeof(uint16_t);
    const auto utf16 = ExactCopy<uint16_t>(data, count);
    const auto length = static_cast<unsigned>(count);
    const CodePoints decoded = Decode(utf16.get(), utf16.get() + count);

    Require(Written([&](CTextOutput& output) { output.PrintUtf16String(utf16.get(), length); }) == decoded);
    const CodePoints literal = Written([&](CTextOutput& output) { output.Print61131String(utf16.get(), length); });
    Require(ReadLiteral(literal, '"', 4, EncodeUtf16) == std::vector<unsigned>(utf16.get(), utf16.get() + count));
    const CodePoints sql = Written([&](CTextOutput& output) { output.PrintSQLStringLiteral(utf16.get(), length); });
    Require(ReadDoubled(sql, '\'') == decoded);
}

// A text of exponent form loses zeros and gets at most "0.", three zeros or six.
void CheckNumberText(const uint8_t* data, size_t size)
{
    const auto text = ExactCopy<char>(data, size);
    const CodePoints written = Written([&](CTextOutput& output) {
        output.SetLineTermination(LineTerminationLF);
        output.PrintFloatingPointString(text.get(), static_cast<unsigned>(size));
    });
    Require(written.size() <= 2 * size + 6);
}

std::string ExponentForm(long double value, int fractionDigits)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.*Le", fractionDigits, value);
    return text;
}

// What was written reads back as a number that has the same digits. It need not be a double: the digits of the largest
// ones round up to more than a double holds.
void CheckNumber(const CodePoints& written, double value, int fractionDigits)
{
    const std::string text(written.begin(), written.end());
    char* end = nullptr;
    const long double back = std::strtold(text.c_str(), &end);
    Require(*end == '\0' && ExponentForm(back, fractionDigits) == ExponentForm(value, fractionDigits));
}

} // namespace

// The bytes are text in each of the encodings, and the first of them a number.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    CheckUtf8(data, size);
    CheckUtf16(data, size);
    CheckNumberText(data, size);
    double value = 0;
    std::memcpy(&value, data, std::min(size, sizeof value));
    const auto narrow = static_cast<float>(std::fmod(value, 1e38));
    if (std::isfinite(value)) {
        CheckNumber(Written([&](CTextOutput& output) { output.PrintDouble(value); }), value, 14);
        CheckNumber(Written([&](CTextOutput& output) { output.PrintFloat(narrow); }), static_cast<double>(narrow), 6);
    }
    return 0;
}
