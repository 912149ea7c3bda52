#include <QDPlatform/QDWildcard.h>

#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace
{

// What the wildcards mean, taken at its word: a star tries the rest of the pattern at each position up to the end.
bool MatchesByDefinition(std::string_view pattern, std::string_view name)
{
    if (pattern.empty())
        return name.empty();
    if (pattern[0] == '*') {
        for (std::size_t taken = 0; taken <= name.size(); ++taken) {
            if (MatchesByDefinition(pattern.substr(1), name.substr(taken)))
                return true;
        }
        return false;
    }
    return !name.empty() && (pattern[0] == '?' || pattern[0] == name[0]) &&
           MatchesByDefinition(pattern.substr(1), name.substr(1));
}

// Every text of the letters of `alphabet`, up to `maxLength` of them.
std::vector<std::string> AllTexts(std::string_view alphabet, std::size_t maxLength)
{
    std::vector<std::string> texts{""};
    for (std::size_t i = 0; i < texts.size(); ++i) {
        const std::string text = texts[i];
        if (text.size() == maxLength)
            continue;
        for (const char letter : alphabet)
            texts.push_back(text + letter);
    }
    return texts;
}

std::string Repeated(std::string_view text, int count)
{
    std::string result;
    for (int i = 0; i < count; ++i)
        result += text;
    return result;
}

double ProcessorSeconds()
{
    return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

} // namespace

TEST(QDWildcard, MatchesAsDescribed)
{
    struct Case
    {
        const char* m_pPattern;
        const char* m_pName;
        bool m_Matches;
    };

    const Case cases[] = {
        {"log_*.log", "log_001.log", true},
        {"log_*.log", "log_.log", true},
        {"log_*.log", "LOG_001.log", false},
        {"log_*.log", "log_001.LOG", false},
        {"log_*.log", "log_001.logs", false},
        {"log_*.log", "my_log_001.log", false},
        {"log_*.log", "log_1.log_2.log", true},
        {"a?c", "abc", true},
        {"a?c", "ac", false},
        {"a?c", "abbc", false},
        {"a?c", "a?c", true},
        {"a*c", "a*c", true},
        {"abc", "abc", true},
        {"abc", "abcd", false},
        {"abc", "ab", false},
        {"", "", true},
        {"", "a", false},
        {"*", "", true},
        {"*", "anything", true},
        {"**", "", true},
        {"**a**", "a", true},
        {"?", "", false},
        {"?*", "", false},
        {"*?", "a", true},
        {"??", "a", false},
        {"*.*", "name", false},
        {"*.*", ".", true},
        {"*ab", "aab", true},
        {"*aab", "aaaab", true},
        {"a*b*c", "a-b-b-c", true},
        {"a*b*c", "a-c-b", false},
        {"[ab]", "a", false},
        {"[ab]", "[ab]", true},
        {"\\*", "*", false},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(std::string(testCase.m_pPattern) + " against " + testCase.m_pName);
        EXPECT_EQ(qd_wildcard_matches(testCase.m_pPattern, testCase.m_pName), testCase.m_Matches);
    }
}

TEST(QDWildcard, CountsBytesNotCharacters)
{
    EXPECT_TRUE(qd_wildcard_matches("??", "\xC3\xBC")); // u with diaeresis, two bytes
    EXPECT_FALSE(qd_wildcard_matches("?", "\xC3\xBC"));
    EXPECT_TRUE(qd_wildcard_matches("\xFF*", "\xFF\xFE"));
    EXPECT_FALSE(qd_wildcard_matches("\xFF", "\xFE"));
}

TEST(QDWildcard, AgreesWithItsDefinitionOnAllShortTexts)
{
    const std::vector<std::string> patterns = AllTexts("ab*?", 5); // 1,365
    const std::vector<std::string> names = AllTexts("ab*", 5);     // 364
    ASSERT_EQ(patterns.size(), 1365u);
    ASSERT_EQ(names.size(), 364u);

    int differences = 0;
    int matches = 0;
    for (const std::string& pattern : patterns) {
        for (const std::string& name : names) {
            const bool expected = MatchesByDefinition(pattern, name);
            matches += expected ? 1 : 0;
            if (qd_wildcard_matches(pattern, name) != expected) {
                ++differences;
                ADD_FAILURE() << pattern << " against " << name;
            }
        }
        ASSERT_LT(differences, 10);
    }
    EXPECT_GT(matches, 10000);
}

TEST(QDWildcard, ThirtyStarsAgainstTenThousandBytesAreQuick)
{
    struct Case
    {
        const char* m_pSituation;
        std::string m_Pattern;
        std::string m_Name;
        bool m_Matches;
    };

    const Case cases[] = {
        {"each star finds its a", Repeated("*a", 30), std::string(10000, 'a'), true},
        {"the last byte is none", Repeated("*a", 30), std::string(9999, 'a') + "b", false},
        {"each star tries to the end", Repeated("*a", 30) + "b", std::string(10000, 'a'), false},
        {"long pieces that fail late", Repeated("*aaaaaaab", 30), std::string(10000, 'a'), false},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_pSituation);
        const double start = ProcessorSeconds();

        const bool matches = qd_wildcard_matches(testCase.m_Pattern, testCase.m_Name);

        // Milliseconds at most on any machine; the limit leaves room for emulators and sanitizers.
        EXPECT_LT(ProcessorSeconds() - start, 0.25);
        EXPECT_EQ(matches, testCase.m_Matches);
    }
}
