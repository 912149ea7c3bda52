#include <QDPlatform/QDError.h>

#include "NextFunction.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

namespace
{

constexpr int kLongTextCode = 770002; // no code of the system
char g_LongText[301];                 // 300 times "x", once used

// As the classes that wrap system calls use it.
class Wrapper : public CQDError
{
public:
    explicit Wrapper(int code = 0) { SetLastErrorCode(code); }

    bool OpenFile(const char* path)
    {
        const int file = ::open(path, O_RDONLY | O_CLOEXEC);
        if (file < 0) {
            SetLastErrorCode(errno);
            return false;
        }
        ::close(file);
        return true;
    }
};

} // namespace

// Stands before the C library's own, to give one code a text longer than any of the system.
extern "C" char* strerror(int code) noexcept
{
    static const auto next = NextFunction("strerror", &strerror);
    if (code != kLongTextCode)
        return next(code);
    std::memset(g_LongText, 'x', sizeof g_LongText - 1);
    return g_LongText;
}

TEST(CQDError, IsOneIntWithoutVirtualFunctions)
{
    EXPECT_EQ(sizeof(CQDError), sizeof(int));
    EXPECT_FALSE(std::is_polymorphic_v<CQDError>);
    EXPECT_TRUE(std::is_trivially_destructible_v<CQDError>);
}

TEST(CQDError, FreshObjectHasCodeZero)
{
    const CQDError error;

    EXPECT_EQ(error.GetLastErrorCode(), 0);
}

TEST(CQDError, FreshObjectGivesTheTextOfCodeZero)
{
    const CQDError error;
    int code = -1;
    std::string message = "old";

    error.GetErrorCodeAndMessage(nullptr, code, message);

    EXPECT_EQ(code, 0);
    EXPECT_EQ(message, "Success");
}

TEST(CQDError, StoredCodeAndItsTextAreGiven)
{
    const Wrapper error(ENOENT);
    int code = 0;
    std::string message;

    error.GetErrorCodeAndMessage(nullptr, code, message);

    EXPECT_EQ(code, 2);
    EXPECT_EQ(message, "No such file or directory");
}

TEST(CQDError, UnknownCodeGivesTheCLibrarysText)
{
    const Wrapper error(-7);
    int code = 0;
    std::string message;

    error.GetErrorCodeAndMessage(nullptr, code, message);

    EXPECT_EQ(code, -7);
    EXPECT_EQ(message, "Unknown error -7");
}

TEST(CQDError, LocaleIsNotLookedAt)
{
    char notALocale = 0;
    const Wrapper error(EACCES);
    int code = 0;
    std::string message;

    error.GetErrorCodeAndMessage(reinterpret_cast<const CQDLocale*>(&notALocale), code, message);

    EXPECT_EQ(message, "Permission denied");
}

TEST(CQDError, MessageIsCutTo255Bytes)
{
    const Wrapper error(kLongTextCode);
    int code = 0;
    std::string message;

    error.GetErrorCodeAndMessage(nullptr, code, message);

    EXPECT_EQ(code, kLongTextCode);
    EXPECT_EQ(message, std::string(255, 'x'));
}

TEST(CQDError, LastErrorStringIsWrittenIntoTheReturnedBuffer)
{
    Wrapper error(EACCES);
    char buffer[256];

    const char* result = error.GetLastErrorString(buffer, sizeof buffer);

    EXPECT_EQ(result, buffer);
    EXPECT_STREQ(buffer, "Permission denied");
}

TEST(CQDError, LastErrorStringIsCutAtOneByteLessThanTheSize)
{
    struct Case
    {
        unsigned int m_Size;
        const char* m_Text;
    };

    const Case cases[] = {{18, "Permission denied"}, {17, "Permission denie"}, {2, "P"}, {1, ""}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Size);
        Wrapper error(EACCES);
        char buffer[32];
        std::memset(buffer, '#', sizeof buffer);

        error.GetLastErrorString(buffer, c.m_Size);

        EXPECT_STREQ(buffer, c.m_Text);
        EXPECT_EQ(buffer[c.m_Size], '#');
    }
}

TEST(CQDError, LastErrorStringOfSizeZeroWritesNothing)
{
    Wrapper error(EACCES);
    char buffer[] = "##";

    EXPECT_EQ(error.GetLastErrorString(buffer, 0), buffer);
    EXPECT_STREQ(buffer, "##");
}

TEST(CQDError, SuccessfulCallDoesNotResetTheCode)
{
    Wrapper error;
    ASSERT_FALSE(error.OpenFile("/no/such/file"));

    ASSERT_TRUE(error.OpenFile("/dev/null"));

    EXPECT_EQ(error.GetLastErrorCode(), ENOENT);
}

TEST(CQDError, CopyKeepsTheCode)
{
    const Wrapper original(ENOSPC);

    const CQDError copy = original;

    EXPECT_EQ(copy.GetLastErrorCode(), 28);
}
