// What QDUserAuthentication leaves of user names and passwords in the memory that it releases: nothing but zeros,
// whatever the compiler optimises.
//
// Compiled once against the library as it is built, and twice with the class's own source in this translation unit, at
// -O2 and at -O3 and with a class name of their own: there the compiler sees the whole life of a copy, and may drop
// stores to it that nobody reads. Only clang does so here: with an ordinary memset in the class these tests fail under
// clang, and pass under g++ 12.
#include <QDPlatform/QDUserAuthentication.h>
#ifdef QD_TEST_WITH_SOURCE
#include "../QDPlatform/QDUserAuthentication.cpp"
#endif

#include <QDPlatform/COutputLogNull.h>
#include <QDPlatform/QDSecureWString.h>

#include "ArrayWatch.h"
#include "PamHost.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace
{

using Sizes = std::vector<std::size_t>;

} // namespace

#ifdef QD_TEST_WITH_SOURCE
TEST(QDUserAuthentication, CopyThatNobodyElseHasSeenIsWiped)
{
    const ArrayWatch watch;
    auto* copy = new unsigned char[32];
    std::uint32_t length = 32;
    volatile unsigned char* bytes = copy;
    for (int i = 0; i < 32; ++i)
        bytes[i] = 'x';

    ClearCopy(copy, length);

    EXPECT_TRUE(copy == nullptr && length == 0); // without a reference to them, which would keep the stores
    EXPECT_EQ(WipedSizes(watch), Sizes({32}));
}
#endif

TEST(QDUserAuthentication, CopiesAreWipedAfterEveryOutcomePasswordFirst)
{
    static const struct
    {
        const char* m_Name;
        const char* m_Service; // null: none
        int m_PamError;
    } kCases[] = {
        {"accepted", "auth required pam_permit.so\n", 0},
        {"asked and accepted", "auth required " ASKING_PAM_MODULE " 14\n", 0},
        {"refused", "auth required pam_deny.so\n", 7},
        {"PAM does not start", nullptr, 26},
    };

    const PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    COutputLogNull log;
    QDUserAuthentication authentication;
    ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));
    const CQDSecureWString user("qd-alice");
    const CQDSecureWString password("pw-qd-alice");

    for (const auto& c : kCases) {
        SCOPED_TRACE(c.m_Name);
        if (c.m_Service != nullptr)
            host.WriteService("quendrel-scada", c.m_Service);
        else
            ::unlink("/etc/pam.d/quendrel-scada");
        const FailedStart leaks;
        int pamError = -1;
        char errorText[64];
        const ArrayWatch watch;

        authentication.LinuxAuthenticate(user, password, pamError, errorText, sizeof errorText);

        EXPECT_EQ(pamError, c.m_PamError);
        EXPECT_EQ(watch.GetAllocatedSizes(), Sizes({9, 12}));
        EXPECT_EQ(WipedSizes(watch), Sizes({12, 9}));
    }
}

TEST(QDUserAuthentication, CopiesOfEmptyTextsAreReleased)
{
    const PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    host.WriteService("quendrel-scada", "auth required pam_permit.so\n");
    COutputLogNull log;
    QDUserAuthentication authentication;
    ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));
    const CQDSecureWString empty;
    int pamError = -1;
    const ArrayWatch watch;

    EXPECT_TRUE(authentication.LinuxAuthenticate(empty, empty, pamError, nullptr, 0));

    EXPECT_EQ(WipedSizes(watch), Sizes({1, 1}));
}

TEST(QDUserAuthentication, WithoutMemoryForOneCopyTheOtherIsWipedAndPamIsNotAsked)
{
    const PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    host.WriteService("quendrel-scada", "auth required pam_permit.so\n");
    COutputLogNull log;
    QDUserAuthentication authentication;
    ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));
    const CQDSecureWString user("qd-alice");
    const CQDSecureWString password("pw-qd-alice");
    int pamError = -1;
    char errorText[64];
    ArrayWatch watch;
    watch.FailNextAllocation();

    EXPECT_FALSE(authentication.LinuxAuthenticate(user, password, pamError, errorText, sizeof errorText));

    EXPECT_EQ(pamError, 5);
    EXPECT_STREQ(errorText, "Memory buffer error");
    EXPECT_EQ(WipedSizes(watch), Sizes({12}));
}
