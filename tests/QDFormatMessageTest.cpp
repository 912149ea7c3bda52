#include <QDPlatform/QDFormatMessage.h>

#include "NextFunction.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace
{

constexpr int kTranslatedCode = 770001; // no code of the system
char g_TranslatedText[] = "Zugriff verweigert f\xC3\xBCr";

const char* const kNoSuchFile = "No such file or directory"; // 25 bytes

} // namespace

// Stands before the C library's own, as a message catalogue would: one code has a text of several bytes a character.
extern "C" char* strerror(int code) noexcept
{
    static const auto next = NextFunction("strerror", &strerror);
    return code == kTranslatedCode ? g_TranslatedText : next(code);
}

TEST(QDFormatMessage, GivesTheTextOfTheCLibraryAndItsLength)
{
    struct Case
    {
        const char* m_Name;
        int m_Code;
        const char* m_Text;
        int m_Length;
    };

    const Case cases[] = {
        {"no error", 0, "Success", 7},
        {"no such file", ENOENT, kNoSuchFile, 25},
        {"refused", ECONNREFUSED, "Connection refused", 18},
        {"above all known codes", 99999, "Unknown error 99999", 19},
        {"negative", -5, "Unknown error -5", 16},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);
        char buffer[256];

        const int length = QDFormatMessage(nullptr, c.m_Code, buffer, sizeof buffer);

        EXPECT_EQ(length, c.m_Length);
        EXPECT_STREQ(buffer, c.m_Text);
    }
}

TEST(QDFormatMessage, WithoutLocaleGivesTheSame)
{
    char buffer[256];

    const int length = QDFormatMessage(EACCES, buffer, sizeof buffer);

    EXPECT_EQ(length, 17);
    EXPECT_STREQ(buffer, "Permission denied");
}

TEST(QDFormatMessage, DoesNotLookAtTheLocale)
{
    char notALocale = 0;
    char buffer[256];

    const int length = QDFormatMessage(reinterpret_cast<const CQDLocale*>(&notALocale), EACCES, buffer, sizeof buffer);

    EXPECT_EQ(length, 17);
    EXPECT_STREQ(buffer, "Permission denied");
}

TEST(QDFormatMessage, CutsAtOneByteLessThanTheSize)
{
    struct Case
    {
        unsigned int m_Size;
        int m_Length;
        const char* m_Text;
    };

    const Case cases[] = {
        {26, 25, "No such file or directory"},
        {25, 24, "No such file or director"},
        {8, 7, "No such"},
        {2, 1, "N"},
        {1, 0, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Size);
        char buffer[32];
        std::memset(buffer, '#', sizeof buffer);

        const int length = QDFormatMessage(nullptr, ENOENT, buffer, c.m_Size);

        EXPECT_EQ(length, c.m_Length);
        EXPECT_STREQ(buffer, c.m_Text);
        EXPECT_EQ(buffer[c.m_Size], '#');
    }
}

TEST(QDFormatMessage, SizeZeroWritesNothing)
{
    char buffer[] = "##";

    const int length = QDFormatMessage(nullptr, ENOENT, buffer, 0);

    EXPECT_EQ(length, 0);
    EXPECT_STREQ(buffer, "##");
}

TEST(QDFormatMessage, CopiesBytesOfATranslatedTextAsTheyAre)
{
    char buffer[256];

    const int length = QDFormatMessage(kTranslatedCode, buffer, sizeof buffer);

    EXPECT_EQ(length, 23);
    EXPECT_STREQ(buffer, "Zugriff verweigert f\xC3\xBCr");
}

TEST(QDFormatMessage, MayCutInsideACharacter)
{
    char buffer[22];

    const int length = QDFormatMessage(kTranslatedCode, buffer, sizeof buffer);

    EXPECT_EQ(length, 21);
    EXPECT_STREQ(buffer, "Zugriff verweigert f\xC3");
}
