#include <QDPlatform/QDAssert.h>

#include "Emulation.h"

#include <QDPlatform/QDString.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <csignal>

namespace
{

void CheckThree(int value)
{
    QD_ASSERT(value == 3);
}

} // namespace

TEST(QDAssert, TrueExpressionDoesNothing)
{
    CheckThree(3);
}

TEST(QDAssert, ExpressionMayBeAPointer)
{
    const int value = 0;
    const int* pointer = &value;

    QD_ASSERT(pointer);
}

TEST(QDAssert, ExpressionIsEvaluatedOnce)
{
    int evaluations = 0;

    QD_ASSERT(++evaluations > 0);

    EXPECT_EQ(evaluations, 1);
}

TEST(QDAssert, MayStandWhereAnExpressionStands)
{
    const bool condition = true;

    condition ? QD_ASSERT(condition) : QD_ASSERT(!condition);
}

TEST(QDAssertDeathTest, FalseExpressionAbortsWithFileFunctionAndText)
{
    // The line is all that is written.
    EXPECT_EXIT(CheckThree(4), testing::KilledBySignal(SIGABRT),
                "^tests/QDAssertTest\\.cpp: void [^:]*::CheckThree\\(int\\): Assertion \"value == 3\" "
                "failed\\." QD_TEST_END_OF_OUTPUT);
}

TEST(QDAssertDeathTest, LibrarySourcesAreNamedFromTheTopOfTheSourceTree)
{
    const unsigned char* end = nullptr;

    EXPECT_EXIT(qd_decode_utf8(end, end), testing::KilledBySignal(SIGABRT),
                "^QDPlatform/QDString[^ ]*: .*qd_decode_utf8\\(.*\\): Assertion \"pStr < pUtf8End\" "
                "failed\\." QD_TEST_END_OF_OUTPUT);
}

TEST(QDAssertDeathTest, TextIsTheExpressionAsWritten)
{
    const char* text = "%s %n";

    EXPECT_EXIT(QD_ASSERT(text == nullptr && 10 % 3 == 1), testing::KilledBySignal(SIGABRT),
                "Assertion \"text == nullptr && 10 % 3 == 1\" failed\\." QD_TEST_END_OF_OUTPUT);
}

TEST(QDAssertDeathTest, AbortsWithNowhereToWriteTo)
{
    const auto failSilently = [] {
        ::close(STDERR_FILENO);
        QD_ASSERT(false);
    };

    EXPECT_EXIT(failSilently(), testing::KilledBySignal(SIGABRT), "^$");
}
