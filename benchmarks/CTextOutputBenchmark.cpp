// Numbers, IEC 61131-3 literals and CSV fields beside fmt, which writes the same text to a memory buffer.

#include <QDPlatform/CTextOutput.h>

#include "support/PairedRounds.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace
{

constexpr std::size_t kValuesPerCall = 200;
constexpr std::size_t kCapacity = 65536;

// Appends bytes to a buffer that is large enough for all of one call.
class BytesOutput final : public CTextOutput
{
public:
    bool WriteCodePoint(int codePoint) override
    {
        *m_pEnd++ = static_cast<char>(codePoint);
        return true;
    }

    void Clear() { m_pEnd = m_pBytes.get(); }

    std::string_view GetText() const { return {m_pBytes.get(), static_cast<std::size_t>(m_pEnd - m_pBytes.get())}; }

private:
    std::unique_ptr<char[]> m_pBytes{new char[kCapacity]};
    char* m_pEnd{m_pBytes.get()};
};

using FmtBuffer = fmt::basic_memory_buffer<char, kCapacity>;

// The peer's writers, each the plain way to do it with fmt.

void FmtNumber(FmtBuffer& out, double value)
{
    fmt::format_to(fmt::appender(out), "{:.15g}", value);
}

void Fmt61131String(FmtBuffer& out, const std::string& text)
{
    fmt::appender to(out);
    *to++ = '\'';
    for (const char c : text) {
        switch (c) {
        case '\'':
        case '$':
            *to++ = '$';
            *to++ = c;
            break;
        case '\t':
            *to++ = '$';
            *to++ = 't';
            break;
        case '\n':
            *to++ = '$';
            *to++ = 'n';
            break;
        case '\r':
            *to++ = '$';
            *to++ = 'r';
            break;
        default:
            if (c >= ' ' && c <= '~')
                *to++ = c;
            else
                to = fmt::format_to(to, "${:02X}", static_cast<unsigned char>(c));
        }
    }
    *to++ = '\'';
}

void FmtCsvValue(FmtBuffer& out, const std::string& value)
{
    if (value.find(',') == value.npos && value.find('"') == value.npos) { // faster than find_first_of()
        out.append(value.data(), value.data() + value.size());
        return;
    }
    fmt::appender to(out);
    *to++ = '"';
    for (const char c : value) {
        if (c == '"')
            *to++ = '"';
        *to++ = c;
    }
    *to++ = '"';
}

std::vector<double> MakeNumbers(double (*make)(std::mt19937&))
{
    std::mt19937 random(20260301);
    std::vector<double> numbers(kValuesPerCall);
    std::generate(numbers.begin(), numbers.end(), [&] { return make(random); });
    return numbers;
}

double Fraction(std::mt19937& random)
{
    return std::uniform_real_distribution<double>(0, 1)(random);
}

double WholeNumber(std::mt19937& random)
{
    return static_cast<double>(random() % 1000000);
}

double Measurement(std::mt19937& random)
{
    return static_cast<double>(random() % 200000) / 100 - 1000;
}

double FullPrecision(std::mt19937& random)
{
    return (Fraction(random) - 0.5) * 2000;
}

double Tiny(std::mt19937& random)
{
    return (Fraction(random) + 0.1) * 1e-9;
}

double Huge(std::mt19937& random)
{
    return (Fraction(random) + 0.1) * 1e19;
}

// kValuesPerCall texts, each of random words.
std::vector<std::string> MakeTexts(const std::vector<const char*>& words, std::size_t wordsPerText)
{
    std::mt19937 random(20260302);
    std::vector<std::string> texts(kValuesPerCall);
    for (std::string& text : texts) {
        for (std::size_t i = 0; i < wordsPerText; ++i)
            text += words[random() % words.size()];
    }
    return texts;
}

std::string DurationText(double seconds)
{
    return fmt::format("{:.1f} ns", seconds * 1e9);
}

// Measures both writers over the same values and prints their table row; returns the ratio.
template<class Value, class OursWrite, class PeerWrite>
double Measure(const char* name, const std::vector<Value>& values, OursWrite&& oursWrite, PeerWrite&& peerWrite)
{
    BytesOutput ours;
    const auto peer = std::make_unique<FmtBuffer>();
    for (const Value& value : values) {
        oursWrite(ours, value);
        peerWrite(*peer, value);
        if (ours.GetText() != std::string_view(peer->data(), peer->size())) {
            std::fprintf(stderr, "The two sides disagree: %s\n", name);
            std::exit(1);
        }
        ours.Clear();
        peer->clear();
    }
    const PairedResult result = MeasurePaired(
        [&] {
            ours.Clear();
            for (const Value& value : values)
                oursWrite(ours, value);
            KeepResult(ours.GetText());
        },
        [&] {
            peer->clear();
            for (const Value& value : values)
                peerWrite(*peer, value);
            KeepResult(*peer->data());
        });
    const auto each = static_cast<double>(values.size());
    std::printf("| %s | %s | %s | %.2f |\n", name, DurationText(result.m_OursSeconds / each).c_str(),
                DurationText(result.m_PeerSeconds / each).c_str(), result.m_Ratio);
    std::fflush(stdout);
    return result.m_Ratio;
}

struct SummaryRow
{
    const char* m_pName;
    std::vector<double> m_Ratios;
};

void PrintTableHead(const char* title)
{
    std::printf("### %s\n\n| case | ours | fmt | ratio |\n|---|---:|---:|---:|\n", title);
}

SummaryRow RunNumbers()
{
    PrintTableHead("PrintDouble");
    const auto ours = [](BytesOutput& output, double value) { output.PrintDouble(value); };
    SummaryRow row{"PrintDouble", {}};
    const auto run = [&](const char* name, double (*make)(std::mt19937&)) {
        row.m_Ratios.push_back(Measure(name, MakeNumbers(make), ours, FmtNumber));
    };
    run("whole numbers below a million", WholeNumber);
    run("measurements, two decimals", Measurement);
    run("fifteen digits", FullPrecision);
    run("around 1e-9", Tiny);
    run("around 1e+19", Huge);
    std::printf("\n");
    return row;
}

SummaryRow Run61131Strings()
{
    PrintTableHead("Print61131String");
    const auto ours = [](BytesOutput& output, const std::string& text) { output.Print61131String(text, false); };
    SummaryRow row{"Print61131String", {}};
    const auto run = [&](const char* name, const std::vector<std::string>& texts) {
        row.m_Ratios.push_back(Measure(name, texts, ours, Fmt61131String));
    };
    run("plain words", MakeTexts({"pump ", "level ", "valve ", "open ", "station "}, 5));
    run("with escapes", MakeTexts({"pump\t", "'level' ", "$17 ", "open\r\n", "station "}, 5));
    run("with control characters", MakeTexts({"\x01", "pump\x1B ", "level ", "\x7F", "valve "}, 5));
    std::printf("\n");
    return row;
}

SummaryRow RunCsvValues()
{
    PrintTableHead("PrintCSVValue");
    const auto ours = [](BytesOutput& output, const std::string& value) { output.PrintCSVValue(value); };
    SummaryRow row{"PrintCSVValue", {}};
    const auto run = [&](const char* name, const std::vector<std::string>& values) {
        row.m_Ratios.push_back(Measure(name, values, ours, FmtCsvValue));
    };
    run("numbers", MakeTexts({"17.5", "0", "-3.25", "1042", "99.9"}, 1));
    run("names", MakeTexts({"pump ", "level ", "valve ", "open ", "station "}, 3));
    run("with commas", MakeTexts({"pump, ", "level ", "valve, ", "open ", "station, "}, 3));
    run("with quotes", MakeTexts({"\"pump\" ", "level, ", "\"valve\" ", "open, "}, 3));
    std::printf("\n");
    return row;
}

} // namespace

int main()
{
    const SummaryRow rows[] = {RunNumbers(), Run61131Strings(), RunCsvValues()};
    std::printf("### Summary\n\n| figure | ratio | target |\n|---|---:|---:|\n");
    for (const SummaryRow& row : rows) {
        std::printf("| %s, geometric mean | %.2f | 1.00 |\n", row.m_pName, GeometricMean(row.m_Ratios));
        std::printf("| %s, worst case | %.2f | |\n", row.m_pName,
                    *std::max_element(row.m_Ratios.begin(), row.m_Ratios.end()));
    }
    return 0;
}
