// The run conversions, the measures and the bounded formatting beside ICU and snprintf.

#include <QDPlatform/QDString.h>

#include "support/PairedRounds.h"

#include <unicode/ustring.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace
{

constexpr int kReplacement = 0xFFFD;

struct Script
{
    const char* m_pName;
    std::vector<const char*> m_Words;
    const char* m_pSeparator;
    bool m_Malformed;
};

const Script kScripts[] = {
    {"ASCII",
     {"pump", "station", "level", "of", "the", "reservoir", "is", "high", "valve", "alarm", "17.5", "ok"},
     " ",
     false},
    {"Latin",
     {"Größe", "für", "déjà", "été", "niveau", "élevé", "über", "Straße", "señal", "año", "é", "Zähler", "der", "à",
      "prêt"},
     " ",
     false},
    {"Cyrillic",
     {"насос", "уровень", "воды", "высокий", "и", "клапан", "не", "открыт", "тревога", "станция", "в", "норме"},
     " ",
     false},
    {"CJK", {"水位", "警報", "ポンプ", "停止", "弁", "開", "運転中", "です", "高い", "異常"}, "、", false},
    {"emoji", {"😀", "🚰", "⚡", "🔥🔥", "🛠", "💧💧💧", "🚨", "👷🏽"}, " ", false},
    {"malformed", {"Größe", "level", "уровень", "水位", "🚰", "valve", "открыт", "警報", "é", "ok"}, " ", true},
};

const size_t kSizes[] = {64, 4096, 1048576};

bool IsContinuation(char c)
{
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// Random words of one script, `size` bytes long, cut between characters and filled up with dots.
std::string MakeUtf8(const Script& script, size_t size)
{
    std::mt19937 random(20240229);
    std::string text;
    while (text.size() < size) {
        text += script.m_Words[random() % script.m_Words.size()];
        text += script.m_pSeparator;
    }
    size_t end = size;
    while (end > 0 && IsContinuation(text[end]))
        --end;
    text.resize(end);
    text.resize(size, '.');
    if (script.m_Malformed) {
        // Bytes that occur in no text: both sides agree on how many U+FFFD these and the broken sequences make.
        for (size_t i = random() % 20; i < size; i += 10 + random() % 21)
            text[i] = "\xFF\xC1\xF8"[random() % 3];
    }
    return text;
}

std::vector<uint16_t> MakeUtf16(const Script& script, const std::string& utf8)
{
    std::vector<uint16_t> text(utf8.size());
    text.resize(qd_utf16_from_qdchar(utf8.data(), static_cast<unsigned>(utf8.size()), text.data(),
                                     static_cast<unsigned>(text.size())));
    if (script.m_Malformed) {
        std::mt19937 random(20240301);
        std::replace(text.begin(), text.end(), uint16_t{kReplacement}, uint16_t{'-'});
        for (size_t i = random() % 20; i < text.size(); i += 10 + random() % 21)
            text[i] = static_cast<uint16_t>(0xD800 + random() % 0x800);
    }
    return text;
}

unsigned IcuUtf16FromUtf8(const std::string& src, uint16_t* dst, size_t dstSize)
{
    int32_t length = 0;
    UErrorCode error = U_ZERO_ERROR;
    u_strFromUTF8WithSub(reinterpret_cast<UChar*>(dst), static_cast<int32_t>(dstSize), &length, src.data(),
                         static_cast<int32_t>(src.size()), kReplacement, nullptr, &error);
    return static_cast<unsigned>(length);
}

unsigned IcuUtf8FromUtf16(const std::vector<uint16_t>& src, char* dst, size_t dstSize)
{
    int32_t length = 0;
    UErrorCode error = U_ZERO_ERROR;
    u_strToUTF8WithSub(dst, static_cast<int32_t>(dstSize), &length, reinterpret_cast<const UChar*>(src.data()),
                       static_cast<int32_t>(src.size()), kReplacement, nullptr, &error);
    return static_cast<unsigned>(length);
}

void Check(bool agreed, const char* what)
{
    if (agreed)
        return;
    std::fprintf(stderr, "The two sides disagree: %s\n", what);
    std::exit(1);
}

std::string SizeName(size_t bytes)
{
    if (bytes < 1024)
        return std::to_string(bytes) + " B";
    return bytes < 1048576 ? std::to_string(bytes / 1024) + " KiB" : std::to_string(bytes / 1048576) + " MiB";
}

std::string DurationText(double seconds)
{
    char text[32];
    qd_sprintf(text, sizeof text, seconds < 1e-5 ? "%.1f ns" : "%.1f µs", seconds * (seconds < 1e-5 ? 1e9 : 1e6));
    return text;
}

struct SummaryRow
{
    std::string m_Name;
    double m_Ratio;
    double m_Target;
};

// Prints one table of cases and keeps their ratios.
class Table
{
public:
    Table(const char* title, const char* peer)
    {
        std::printf("### %s\n\n| case | ours | %s | ratio |\n|---|---:|---:|---:|\n", title, peer);
    }

    void Add(const std::string& name, const PairedResult& result)
    {
        std::printf("| %s | %s | %s | %.2f |\n", name.c_str(), DurationText(result.m_OursSeconds).c_str(),
                    DurationText(result.m_PeerSeconds).c_str(), result.m_Ratio);
        std::fflush(stdout);
        m_Ratios.push_back(result.m_Ratio);
    }

    double GetMean() const { return GeometricMean(m_Ratios); }

    double GetWorst() const { return *std::max_element(m_Ratios.begin(), m_Ratios.end()); }

private:
    std::vector<double> m_Ratios;
};

// Measures every script at every size; `measure` returns the result for one text in UTF-8.
template<class MeasureText>
void RunScripts(const char* title, double target, std::vector<SummaryRow>& summary, MeasureText&& measure)
{
    Table table(title, "ICU");
    double longAscii = 0;
    for (const Script& script : kScripts) {
        for (const size_t size : kSizes) {
            const PairedResult result = measure(script, MakeUtf8(script, size));
            table.Add(std::string(script.m_pName) + ", " + SizeName(size), result);
            if (&script == kScripts && size >= 4096)
                longAscii = std::max(longAscii, result.m_Ratio);
        }
    }
    std::printf("\n");
    summary.push_back({std::string(title) + ", geometric mean", table.GetMean(), target});
    summary.push_back({std::string(title) + ", worst case", table.GetWorst(), 1.2});
    summary.push_back({std::string(title) + ", ASCII from 4 KiB", longAscii, 0.35});
}

unsigned Count(size_t size)
{
    return static_cast<unsigned>(size);
}

PairedResult MeasureUtf16FromUtf8(const Script&, const std::string& text)
{
    const unsigned size = Count(text.size());
    std::vector<uint16_t> ours(qd_utf16len_of_qdchar(text.data(), size, size));
    std::vector<uint16_t> theirs(ours.size());
    Check(qd_utf16_from_qdchar(text.data(), size, ours.data(), Count(ours.size())) == ours.size(), "our own length");
    Check(IcuUtf16FromUtf8(text, theirs.data(), theirs.size()) == ours.size() && ours == theirs, "UTF-8 to UTF-16");
    return MeasurePaired([&] { KeepResult(qd_utf16_from_qdchar(text.data(), size, ours.data(), Count(ours.size()))); },
                         [&] { KeepResult(IcuUtf16FromUtf8(text, theirs.data(), theirs.size())); });
}

PairedResult MeasureUtf8FromUtf16(const Script& script, const std::string& utf8)
{
    const std::vector<uint16_t> text = MakeUtf16(script, utf8);
    const unsigned size = Count(text.size());
    std::vector<char> ours(qd_strlen_of_utf16(text.data(), size, 3 * size));
    std::vector<char> theirs(ours.size());
    Check(qd_qdchar_from_utf16(text.data(), size, ours.data(), Count(ours.size())) == ours.size(), "our own length");
    Check(IcuUtf8FromUtf16(text, theirs.data(), theirs.size()) == ours.size(), "UTF-16 to UTF-8, length");
    // A lone surrogate passes through on our side and becomes U+FFFD on theirs: as many bytes, not the same.
    Check(script.m_Malformed || ours == theirs, "UTF-16 to UTF-8");
    return MeasurePaired([&] { KeepResult(qd_qdchar_from_utf16(text.data(), size, ours.data(), Count(ours.size()))); },
                         [&] { KeepResult(IcuUtf8FromUtf16(text, theirs.data(), theirs.size())); });
}

PairedResult MeasureUtf16LengthOfUtf8(const Script&, const std::string& text)
{
    const unsigned size = Count(text.size());
    Check(qd_utf16len_of_qdchar(text.data(), size, size) == IcuUtf16FromUtf8(text, nullptr, 0), "UTF-16 length");
    return MeasurePaired([&] { KeepResult(qd_utf16len_of_qdchar(text.data(), size, size)); },
                         [&] { KeepResult(IcuUtf16FromUtf8(text, nullptr, 0)); });
}

PairedResult MeasureUtf8LengthOfUtf16(const Script& script, const std::string& utf8)
{
    const std::vector<uint16_t> text = MakeUtf16(script, utf8);
    const unsigned size = Count(text.size());
    Check(qd_strlen_of_utf16(text.data(), size, 3 * size) == IcuUtf8FromUtf16(text, nullptr, 0), "UTF-8 length");
    return MeasurePaired([&] { KeepResult(qd_strlen_of_utf16(text.data(), size, 3 * size)); },
                         [&] { KeepResult(IcuUtf8FromUtf16(text, nullptr, 0)); });
}

// A volatile format is read at run time, so that the compiler cannot replace the call by something cheaper.
template<class... Arguments>
void AddFormat(Table& table, const char* name, const char* formatText, Arguments... arguments)
{
    const char* volatile format = formatText;
    char ours[256];
    char theirs[256];
    Check(qd_sprintf(ours, sizeof ours, format, arguments...) ==
              std::snprintf(theirs, sizeof theirs, format, arguments...),
          name);
    table.Add(name, MeasurePaired([&] { KeepResult(qd_sprintf(ours, sizeof ours, format, arguments...)); },
                                  [&] { KeepResult(std::snprintf(theirs, sizeof theirs, format, arguments...)); }));
}

void RunFormats(std::vector<SummaryRow>& summary)
{
    Table table("qd_sprintf", "snprintf");
    AddFormat(table, "text only", "%s", "link closed");
    AddFormat(table, "one number", "%d", 4711);
    AddFormat(table, "log line", "Accepted connection %u from %s", 17u, "192.168.10.24:50212");
    AddFormat(table, "timestamp", "%04u-%02u-%02u %02u:%02u:%02u.%03u", 2026u, 11u, 21u, 20u, 41u, 59u, 123u);
    AddFormat(table, "floating point", "%.3f %s", 1234.5678, "kPa");
    std::printf("\n");
    summary.push_back({"qd_sprintf, geometric mean", table.GetMean(), 1.08});
}

} // namespace

int main()
{
    std::vector<SummaryRow> summary;
    RunScripts("UTF-8 to UTF-16", 0.70, summary, MeasureUtf16FromUtf8);
    RunScripts("UTF-16 to UTF-8", 0.75, summary, MeasureUtf8FromUtf16);
    RunScripts("UTF-16 length of UTF-8", 0.60, summary, MeasureUtf16LengthOfUtf8);
    RunScripts("UTF-8 length of UTF-16", 0.60, summary, MeasureUtf8LengthOfUtf16);
    RunFormats(summary);

    std::printf("### Summary\n\n| figure | ratio | target |\n|---|---:|---:|\n");
    for (const SummaryRow& row : summary)
        std::printf("| %s | %.2f | %.2f |\n", row.m_Name.c_str(), row.m_Ratio, row.m_Target);
    return 0;
}
