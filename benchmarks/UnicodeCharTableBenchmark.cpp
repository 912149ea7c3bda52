// Category and case look-ups, character by character, beside ICU.

#include <QDPlatform/QDString.h>
#include <QDPlatform/UnicodeCharTable.h>

#include "support/PairedRounds.h"

#include <unicode/uchar.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace
{

constexpr unsigned kCharacterCount = 4096;
constexpr double kMeanTarget = 0.6;
constexpr double kWorstTarget = 1.0;

struct Corpus
{
    const char* m_pName;
    std::vector<const char*> m_Words;
    const char* m_pSeparator;
};

const Corpus kCorpora[] = {
    {"ASCII",
     {"pump", "Station", "level", "of", "the", "Reservoir", "is", "HIGH", "valve", "Alarm", "17.5", "ok"},
     " "},
    {"Latin",
     {"Größe", "für", "déjà", "Été", "niveau", "élevé", "Über", "Straße", "señal", "AÑO", "é", "Zähler", "der", "à",
      "prêt"},
     " "},
    {"Cyrillic",
     {"насос", "Уровень", "воды", "ВЫСОКИЙ", "и", "клапан", "не", "открыт", "Тревога", "станция", "в", "норме"},
     " "},
    {"CJK", {"水位", "警報", "ポンプ", "停止", "弁", "開", "運転中", "です", "高い", "異常"}, "、"},
    {"emoji", {"😀", "🚰", "⚡", "🔥🔥", "🛠", "💧💧💧", "🚨", "👷🏽", "🤖"}, " "},
};

// Random words of one corpus.
std::vector<int> MakeCodePoints(const Corpus& corpus)
{
    std::mt19937 random(20240229);
    std::string text;
    while (text.size() < 4 * kCharacterCount) {
        text += corpus.m_Words[random() % corpus.m_Words.size()];
        text += corpus.m_pSeparator;
    }
    std::vector<int> codePoints;
    const char* next = text.data();
    while (codePoints.size() < kCharacterCount)
        codePoints.push_back(qd_codepoint_from_qdchar(next, text.data() + text.size()));
    return codePoints;
}

template<class LookUp>
unsigned Sum(const std::vector<int>& codePoints, LookUp&& lookUp)
{
    unsigned sum = 0;
    for (const int cp : codePoints)
        sum += static_cast<unsigned>(lookUp(cp));
    return sum;
}

// Both sides run the same loop over the whole text.
template<class Ours, class Peer>
double AddCase(const std::string& name, const std::vector<int>& codePoints, Ours&& ours, Peer&& peer)
{
    const PairedResult result =
        MeasurePaired([&] { KeepResult(Sum(codePoints, ours)); }, [&] { KeepResult(Sum(codePoints, peer)); });
    std::printf("| %s | %.2f ns | %.2f ns | %.2f |\n", name.c_str(), result.m_OursSeconds * 1e9 / kCharacterCount,
                result.m_PeerSeconds * 1e9 / kCharacterCount, result.m_Ratio);
    std::fflush(stdout);
    return result.m_Ratio;
}

// Our categories in the order of ICU's codes, from U_UNASSIGNED to U_FINAL_PUNCTUATION.
const UnicodeGeneralCategory kCategoryOfPeer[U_CHAR_CATEGORY_COUNT] = {
    UnicodeCategoryCn, UnicodeCategoryLu, UnicodeCategoryLl, UnicodeCategoryLt, UnicodeCategoryLm, UnicodeCategoryLo,
    UnicodeCategoryMn, UnicodeCategoryMe, UnicodeCategoryMc, UnicodeCategoryNd, UnicodeCategoryNl, UnicodeCategoryNo,
    UnicodeCategoryZs, UnicodeCategoryZl, UnicodeCategoryZp, UnicodeCategoryCc, UnicodeCategoryCf, UnicodeCategoryCo,
    UnicodeCategoryCs, UnicodeCategoryPd, UnicodeCategoryPs, UnicodeCategoryPe, UnicodeCategoryPc, UnicodeCategoryPo,
    UnicodeCategorySm, UnicodeCategorySc, UnicodeCategorySk, UnicodeCategorySo, UnicodeCategoryPi, UnicodeCategoryPf,
};

// The ideographs are held by no table of ours.
UnicodeGeneralCategory ExpectedCategory(int cp)
{
    if (cp >= UnicodeCharTable::kFirstIdeograph && cp <= UnicodeCharTable::kLastIdeograph)
        return UnicodeCategoryCn;
    return kCategoryOfPeer[u_charType(cp)];
}

// Both sides give the same answers, or there is nothing to compare.
void Check(const std::vector<int>& codePoints)
{
    for (const int cp : codePoints) {
        if (UnicodeCharTable::GetGeneralCategory(cp) == ExpectedCategory(cp) &&
            (UnicodeCharTable::ToUpper(cp) == u_toupper(cp) || cp == 0xDF) && // whose stored partner is 0
            UnicodeCharTable::ToLower(cp) == u_tolower(cp))
            continue;
        std::fprintf(stderr, "The two sides disagree about U+%04X\n", static_cast<unsigned>(cp));
        std::exit(1);
    }
}

} // namespace

int main()
{
    std::vector<double> ratios;
    double worst = 0;
    std::printf("### One character\n\n| case | ours | ICU | ratio |\n|---|---:|---:|---:|\n");
    for (const Corpus& corpus : kCorpora) {
        const std::vector<int> text = MakeCodePoints(corpus);
        const std::string name = corpus.m_pName;
        Check(text);
        const double results[] = {
            AddCase(
                name + ", category", text, [](int cp) { return UnicodeCharTable::GetGeneralCategory(cp); },
                [](int cp) { return u_charType(cp); }),
            AddCase(
                name + ", upper case", text, [](int cp) { return UnicodeCharTable::ToUpper(cp); },
                [](int cp) { return u_toupper(cp); }),
            AddCase(
                name + ", lower case", text, [](int cp) { return UnicodeCharTable::ToLower(cp); },
                [](int cp) { return u_tolower(cp); }),
        };
        ratios.insert(ratios.end(), std::begin(results), std::end(results));
        worst = std::max(worst, GeometricMean({results[0], results[1], results[2]}));
    }
    std::printf("\nNo table of ours holds the ideographs of the CJK text: each takes the early answer \"not held\".\n");
    std::printf("\n### Summary\n\n| figure | ratio | target |\n|---|---:|---:|\n");
    std::printf("| all cases, geometric mean | %.2f | %.2f |\n", GeometricMean(ratios), kMeanTarget);
    std::printf("| the worst corpus, geometric mean | %.2f | %.2f |\n", worst, kWorstTarget);
    std::printf("| the worst case | %.2f | %.2f |\n", *std::max_element(ratios.begin(), ratios.end()), kWorstTarget);
    return 0;
}
