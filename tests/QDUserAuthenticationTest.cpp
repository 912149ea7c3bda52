// Against the host's own PAM library and modules, with accounts and services of the test's own, and against a stand-in
// for the library where the order of the calls is looked at, or what no module does.
#include <QDPlatform/QDUserAuthentication.h>

#include <QDPlatform/COutputLogNull.h>
#include <QDPlatform/QDSecureWString.h>

#include "FaultPlan.h"
#include "MountedOver.h"
#include "PamHost.h"
#include "RecordingLog.h"
#include "RecordingPam.h"
#include "ScopedUmask.h"
#include "SmallFileSystem.h"
#include "TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace
{

using testing::ElementsAre;
using testing::EndsWith;
using testing::StartsWith;

const char* const kServiceFile = "/etc/pam.d/quendrel-scada";

bool g_NoMemoryForText = false;
bool g_NoLibrary = false;
const char* g_pLoaderText = nullptr; // in the place of the loader's own; empty: it has none

struct Outcome
{
    bool m_IsAccepted;
    int m_PamError;
    std::string m_ErrorText;

    bool operator==(const Outcome&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Outcome& outcome)
{
    return out << (outcome.m_IsAccepted ? "accepted " : "refused ") << outcome.m_PamError << ' ' << outcome.m_ErrorText;
}

const Outcome kAccepted{true, 0, ""};

Outcome Authenticate(const QDUserAuthentication& authentication, const CQDSecureWString& user,
                     const CQDSecureWString& password)
{
    int pamError = 4711;
    char errorText[256] = "left over";
    const bool isAccepted = authentication.LinuxAuthenticate(user, password, pamError, errorText, sizeof errorText);
    return {isAccepted, pamError, errorText};
}

// With the service file of that text, and a new object.
Outcome AuthenticateWith(const PamHost& host, const std::string& service, const CQDSecureWString& user,
                         const CQDSecureWString& password)
{
    host.WriteService("quendrel-scada", service);
    COutputLogNull log;
    QDUserAuthentication authentication;
    EXPECT_TRUE(authentication.InitialiseUserAuthentication(&log));
    return Authenticate(authentication, user, password);
}

// Of a log in which all was plainly printed.
std::vector<std::string> PrintedTexts(const RecordingLog& log)
{
    for (const RecordingLog::Message& message : log.GetMessages()) {
        EXPECT_EQ(message.m_Type, COutputLog::Info) << message.m_Text;
        EXPECT_EQ(message.m_Code, 0) << message.m_Text;
    }
    return log.GetTexts();
}

bool FileExists(const char* path)
{
    struct stat status = {};
    return ::stat(path, &status) == 0;
}

// Looked up in time: that, too, makes the loader forget its text.
const auto g_Dlerror = reinterpret_cast<decltype(&::dlerror)>(::dlsym(RTLD_NEXT, "dlerror"));

// The stand-in in the place of the host's PAM library.
class StandInHost
{
public:
    StandInHost()
    {
        if (!m_Host.IsReady() || !m_Library.IsMounted())
            return;
        m_pHandle = ::dlopen("libpam.so.0", RTLD_LAZY);
        m_pState = m_pHandle != nullptr ? static_cast<RecordingPam*>(::dlsym(m_pHandle, "g_RecordingPam")) : nullptr;
    }

    StandInHost(const StandInHost&) = delete;
    StandInHost& operator=(const StandInHost&) = delete;

    ~StandInHost()
    {
        if (m_pHandle != nullptr)
            ::dlclose(m_pHandle);
    }

    bool IsReady() const { return m_pState != nullptr; }

    const std::string& GetReason() const { return m_Host.IsReady() ? m_Library.GetReason() : m_Host.GetReason(); }

    RecordingPam& Get() { return *m_pState; }

private:
    const PamHost m_Host;
    const MountedOver m_Library{RECORDING_PAMS "0.so", FindPamLibrary()};
    void* m_pHandle{nullptr};
    RecordingPam* m_pState{nullptr};
};

} // namespace

// In front of the C library's, for all of the process.
extern "C" char* strdup(const char* text) noexcept
{
    const std::size_t size = std::strlen(text) + 1;
    void* copy = g_NoMemoryForText ? nullptr : std::malloc(size);
    return copy != nullptr ? static_cast<char*>(std::memcpy(copy, text, size)) : nullptr;
}

extern "C" void* dlopen(const char* file, int mode) noexcept
{
    static const auto next = reinterpret_cast<decltype(&::dlopen)>(::dlsym(RTLD_NEXT, "dlopen"));
    return g_NoLibrary ? nullptr : next(file, mode);
}

extern "C" char* dlerror() noexcept
{
    if (g_pLoaderText == nullptr)
        return g_Dlerror != nullptr ? g_Dlerror() : nullptr; // AddressSanitizer calls it before there is anything
    return *g_pLoaderText != '\0' ? const_cast<char*>(g_pLoaderText) : nullptr;
}

// --- InitialiseUserAuthentication ----------------------------------------------------------------------------------

TEST(QDUserAuthentication, IsNotCopied)
{
    EXPECT_FALSE(std::is_copy_constructible_v<QDUserAuthentication>);
    EXPECT_FALSE(std::is_copy_assignable_v<QDUserAuthentication>);
}

TEST(QDUserAuthentication, FirstInitialisationFindsTheFunctionsAndWritesTheServiceFile)
{
    const PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    RecordingLog log;
    QDUserAuthentication authentication;

    EXPECT_TRUE(authentication.InitialiseUserAuthentication(&log));

    EXPECT_THAT(PrintedTexts(log),
                ElementsAre("Find libpam...", "Locate PAM functions...", "... all functions found",
                            "Find '/etc/pam.d/quendrel-scada'...", "Generate '/etc/pam.d/quendrel-scada'..."));
    EXPECT_EQ(ReadFileText(kServiceFile), "# PAM configuration for the Quendrel SCADA Server\n"
                                          "\n"
                                          "auth         sufficient     pam_ldap.so\n"
                                          "auth         include        common-auth\n"
                                          "\n"
                                          "account      required       pam_nologin.so\n"
                                          "account      sufficient     pam_permit.so\n"
                                          "account      include        common-account\n"
                                          "\n");
}

TEST(QDUserAuthentication, ServiceFileHasItsColumns)
{
    const PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    COutputLogNull log;
    QDUserAuthentication authentication;

    ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));

    std::istringstream file(ReadFileText(kServiceFile));
    int lineCount = 0;
    int moduleCount = 0;
    for (std::string line; std::getline(file, line); ++lineCount) {
        if (line.empty() || line[0] == '#')
            continue;
        SCOPED_TRACE(line);
        ++moduleCount;
        EXPECT_EQ(line.find_first_not_of(' ', line.find(' ')), 13u);
        EXPECT_EQ(line.find_last_of(' '), 27u);
    }
    EXPECT_EQ(lineCount, 9);
    EXPECT_EQ(moduleCount, 5);
}

TEST(QDUserAuthentication, ServiceFileCanBeReadByAllAndWrittenByItsOwner)
{
    const PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    const ScopedUmask mask(022);
    COutputLogNull log;
    QDUserAuthentication authentication;

    ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));

    EXPECT_EQ(ModeOf(kServiceFile), 0644u);
}

TEST(QDUserAuthentication, ExistingServiceFileIsLeftAsItIs)
{
    const PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    host.WriteService("quendrel-scada", "# the operator's own\r\n");
    RecordingLog log;
    QDUserAuthentication authentication;

    EXPECT_TRUE(authentication.InitialiseUserAuthentication(&log));

    EXPECT_THAT(PrintedTexts(log),
                ElementsAre("Find libpam...", "Locate PAM functions...", "... all functions found",
                            "Find '/etc/pam.d/quendrel-scada'...", ".../etc/pam.d/quendrel-scada already exists"));
    EXPECT_EQ(ReadFileText(kServiceFile), "# the operator's own\r\n");
}

TEST(QDUserAuthentication, ServiceFileThatCannotBeMadeIsAFailureWithItsReason)
{
    PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    ASSERT_TRUE(host.MakeServicesReadOnly()) << std::strerror(errno);
    RecordingLog log;
    QDUserAuthentication authentication;

    EXPECT_FALSE(authentication.InitialiseUserAuthentication(&log));

    EXPECT_THAT(PrintedTexts(log),
                ElementsAre("Find libpam...", "Locate PAM functions...", "... all functions found",
                            "Find '/etc/pam.d/quendrel-scada'...", "Generate '/etc/pam.d/quendrel-scada'...",
                            "...Failed: Read-only file system"));
    EXPECT_FALSE(FileExists(kServiceFile));
}

TEST(QDUserAuthentication, UserWithoutPermissionCannotMakeTheServiceFile)
{
    const PamHost host("size=1m,mode=555"); // the user may be the folder's owner
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    const UnprivilegedUser user;
    RecordingLog log;
    QDUserAuthentication authentication;

    EXPECT_FALSE(authentication.InitialiseUserAuthentication(&log));

    EXPECT_EQ(PrintedTexts(log).back(), "...Failed: Permission denied");
    EXPECT_FALSE(FileExists(kServiceFile));
}

TEST(QDUserAuthentication, PamIsAskedAlsoWhereTheServiceFileCouldNotBeMade)
{
    PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    host.WriteService("other", "auth required pam_unix.so nodelay\n");
    ASSERT_TRUE(host.MakeServicesReadOnly()) << std::strerror(errno);
    COutputLogNull log;
    QDUserAuthentication authentication;
    ASSERT_FALSE(authentication.InitialiseUserAuthentication(&log));

    EXPECT_EQ(Authenticate(authentication, "qd-alice", "open sesame"), kAccepted);
}

TEST(QDUserAuthentication, ServiceFileForWhichThereIsNoRoomIsNotLeftBehind)
{
    const PamHost host("size=12k,mode=755"); // a page for each of two services and for what follows
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    host.WriteService("filler", std::string(4096, '#'));
    RecordingLog log;
    QDUserAuthentication authentication;

    EXPECT_FALSE(authentication.InitialiseUserAuthentication(&log));

    EXPECT_EQ(PrintedTexts(log).back(), "...Failed: No space left on device");
    EXPECT_FALSE(FileExists(kServiceFile));
}

TEST(QDUserAuthentication, PartOfAServiceFileThatCannotBeRemovedIsReported)
{
    const PamHost host("size=12k,mode=755");
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    host.WriteService("filler", std::string(4096, '#'));
    const FaultPlan removal("unlink", 1, EACCES);
    RecordingLog log;
    QDUserAuthentication authentication;

    EXPECT_FALSE(authentication.InitialiseUserAuthentication(&log));

    const std::vector<std::string> texts = PrintedTexts(log);
    ASSERT_EQ(texts.size(), 7u);
    EXPECT_EQ(texts[5], "...Failed: No space left on device");
    EXPECT_EQ(texts[6], "...Cannot remove it: Permission denied");
}

TEST(QDUserAuthentication, SecondInitialisationDoesItAllAgainAndTheEndUnloadsTheLibrary)
{
    const PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    RecordingLog log;
    {
        QDUserAuthentication authentication;
        ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));
        log.Clear();

        EXPECT_TRUE(authentication.InitialiseUserAuthentication(&log));

        EXPECT_THAT(PrintedTexts(log),
                    ElementsAre("Find libpam...", "Locate PAM functions...", "... all functions found",
                                "Find '/etc/pam.d/quendrel-scada'...", ".../etc/pam.d/quendrel-scada already exists"));
        EXPECT_EQ(Authenticate(authentication, "qd-alice", "open sesame"), kAccepted);
    }
    EXPECT_EQ(::dlopen("libpam.so.0", RTLD_LAZY | RTLD_NOLOAD), nullptr);
}

TEST(QDUserAuthentication, LibraryThatIsNotFoundAgainIsNotCalledAnyMore)
{
    const PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    COutputLogNull log;
    QDUserAuthentication authentication;
    ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));

    g_NoLibrary = true;
    EXPECT_FALSE(authentication.InitialiseUserAuthentication(&log));
    g_NoLibrary = false;

    EXPECT_EQ(Authenticate(authentication, "qd-alice", "open sesame"), (Outcome{false, 4, "PAM is not loaded"}));
}

TEST(QDUserAuthentication, WithoutTheLibraryTheServiceFileIsNotLookedFor)
{
    const PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    const MountedOver library("/dev/null", FindPamLibrary());
    if (!library.IsMounted())
        GTEST_SKIP() << library.GetReason();
    RecordingLog log;
    QDUserAuthentication authentication;

    EXPECT_FALSE(authentication.InitialiseUserAuthentication(&log));

    EXPECT_THAT(PrintedTexts(log),
                ElementsAre("Find libpam...",
                            testing::AllOf(StartsWith("...failed: "), EndsWith("/libpam.so.0: file too short"))));
    EXPECT_FALSE(FileExists(kServiceFile));
    EXPECT_EQ(Authenticate(authentication, "qd-alice", "open sesame"), (Outcome{false, 4, "PAM is not loaded"}));
}

TEST(QDUserAuthentication, FirstMissingFunctionIsReportedAndTheServiceFileIsWrittenAllTheSame)
{
    static const struct
    {
        const char* m_Library;
        const char* m_Function;
    } kCases[] = {
        {RECORDING_PAMS "1.so", "pam_start"},
        {RECORDING_PAMS "2.so", "pam_authenticate"},
        {RECORDING_PAMS "3.so", "pam_end"},
        {RECORDING_PAMS "4.so", "pam_strerror"},
    };

    for (const auto& c : kCases) {
        SCOPED_TRACE(c.m_Function);
        const PamHost host;
        if (!host.IsReady())
            GTEST_SKIP() << host.GetReason();
        const MountedOver library(c.m_Library, FindPamLibrary());
        if (!library.IsMounted())
            GTEST_SKIP() << library.GetReason();
        RecordingLog log;
        QDUserAuthentication authentication;

        EXPECT_FALSE(authentication.InitialiseUserAuthentication(&log));

        const std::string function = c.m_Function;
        EXPECT_THAT(PrintedTexts(log),
                    ElementsAre("Find libpam...", "Locate PAM functions...",
                                testing::AllOf(StartsWith("Find " + function + "(): /"),
                                               EndsWith(": undefined symbol: " + function)),
                                "Find '/etc/pam.d/quendrel-scada'...", "Generate '/etc/pam.d/quendrel-scada'..."));
        EXPECT_TRUE(FileExists(kServiceFile));
        EXPECT_EQ(Authenticate(authentication, "qd-alice", "open sesame"), (Outcome{false, 4, "PAM is not loaded"}));
    }
}

TEST(QDUserAuthentication, LoadersTextIsPrintedAsItIsUpToItsRoom)
{
    const std::string longText = "100%s%n" + std::string(393, 'x');
    const PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    const MountedOver library("/dev/null", FindPamLibrary());
    if (!library.IsMounted())
        GTEST_SKIP() << library.GetReason();
    RecordingLog log;
    QDUserAuthentication authentication;

    g_pLoaderText = longText.c_str();
    EXPECT_FALSE(authentication.InitialiseUserAuthentication(&log));
    g_pLoaderText = nullptr;

    // 255 bytes in all; the log marks what it cuts.
    EXPECT_THAT(PrintedTexts(log), ElementsAre("Find libpam...", "...failed: 100%s%n" + std::string(234, 'x') + "..."));
}

TEST(QDUserAuthentication, MissingFunctionsTextIsPrintedAsItIsUpToItsRoom)
{
    const std::string longText = "100%s%n" + std::string(393, 'x');

    const struct
    {
        const char* m_Name;
        std::string m_LoaderText;
        std::string m_Expected;
    } kCases[] = {
        {"no text", "", "Find pam_end(): No error"},
        {"as it is", "100%s%n", "Find pam_end(): 100%s%n"},
        {"255 bytes in all", std::string(239, 'x'), "Find pam_end(): " + std::string(239, 'x')},
        {"more", longText, "Find pam_end(): 100%s%n" + std::string(232, 'x')}, // 255 bytes in all
    };

    const PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    const MountedOver library(RECORDING_PAMS "3.so", FindPamLibrary());
    if (!library.IsMounted())
        GTEST_SKIP() << library.GetReason();

    for (const auto& c : kCases) {
        SCOPED_TRACE(c.m_Name);
        RecordingLog log;
        QDUserAuthentication authentication;

        g_pLoaderText = c.m_LoaderText.c_str();
        EXPECT_FALSE(authentication.InitialiseUserAuthentication(&log));
        g_pLoaderText = nullptr;

        const std::vector<std::string> texts = PrintedTexts(log);
        ASSERT_EQ(texts.size(), 5u);
        EXPECT_EQ(texts[2], c.m_Expected);
    }
}

// --- LinuxAuthenticate with the host's library ---------------------------------------------------------------------

TEST(QDUserAuthentication, BeforeTheInitialisationNobodyIsAccepted)
{
    const QDUserAuthentication authentication;

    EXPECT_EQ(Authenticate(authentication, "qd-alice", "open sesame"), (Outcome{false, 4, "PAM is not loaded"}));
}

TEST(QDUserAuthentication, ServiceFileThatWasWrittenAsksTheHostsAccounts)
{
    static const struct
    {
        const char* m_Name;
        const char* m_User;
        const char* m_Password;
        Outcome m_Outcome;
    } kCases[] = {
        {"right password", "qd-alice", "open sesame", kAccepted},
        {"wrong password", "qd-alice", "open sesam", {false, 7, "Authentication failure"}},
        {"another user's password",
         "qd-alice",
         "K\xC3\xA4se \xE2\x82\xAC\xF0\x9D\x84\x9E",
         {false, 7, "Authentication failure"}},
        {"no password", "qd-alice", "", {false, 7, "Authentication failure"}},
        {"password that is not ASCII", "qd-zoe", "K\xC3\xA4se \xE2\x82\xAC\xF0\x9D\x84\x9E", kAccepted},
        {"part of it", "qd-zoe", "K\xC3\xA4se \xE2\x82\xAC", {false, 7, "Authentication failure"}},
        {"unknown user",
         "qd-nobody",
         "open sesame",
         {false, 10, "User not known to the underlying authentication module"}},
        {"no user", "", "open sesame", {false, 10, "User not known to the underlying authentication module"}},
    };

    const PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    COutputLogNull log;
    QDUserAuthentication authentication;
    ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));

    for (const auto& c : kCases) {
        SCOPED_TRACE(c.m_Name);
        EXPECT_EQ(Authenticate(authentication, c.m_User, c.m_Password), c.m_Outcome);
    }
}

TEST(QDUserAuthentication, ModulesOutcomeIsReturnedWithPamsText)
{
    static const struct
    {
        const char* m_Service;
        Outcome m_Outcome;
    } kCases[] = {
        {"auth required pam_permit.so\n", kAccepted},
        {"auth required pam_deny.so\n", {false, 7, "Authentication failure"}},
        {"auth required pam_debug.so auth=cred_insufficient\n",
         {false, 8, "Insufficient credentials to access authentication data"}},
        {"auth required pam_debug.so auth=maxtries\n",
         {false, 11, "Have exhausted maximum number of retries for service"}},
        {"auth required /nonexistent/pam_missing.so\n", {false, 28, "Module is unknown"}},
    };

    const PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();

    for (const auto& c : kCases) {
        SCOPED_TRACE(c.m_Service);
        EXPECT_EQ(AuthenticateWith(host, c.m_Service, "qd-alice", "open sesame"), c.m_Outcome);
    }
}

TEST(QDUserAuthentication, WithoutTheServiceFilePamGoesByOther)
{
    const PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    COutputLogNull log;
    QDUserAuthentication authentication;
    ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));
    ASSERT_EQ(::unlink(kServiceFile), 0);

    host.WriteService("other", "auth required pam_permit.so\n");
    EXPECT_EQ(Authenticate(authentication, "qd-alice", "wrong"), kAccepted);

    host.WriteService("other", "auth required pam_deny.so\n");
    EXPECT_EQ(Authenticate(authentication, "qd-alice", "open sesame"), (Outcome{false, 7, "Authentication failure"}));
}

TEST(QDUserAuthentication, PamThatDoesNotStartIsAFailureWithItsText)
{
    const PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    const FailedStart leaks;
    COutputLogNull log;
    QDUserAuthentication authentication;
    ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));
    ASSERT_EQ(::unlink(kServiceFile), 0); // and there is no "other"

    EXPECT_EQ(Authenticate(authentication, "qd-alice", "open sesame"),
              (Outcome{false, 26, "Critical error - immediate abort"}));
}

TEST(QDUserAuthentication, ErrorTextIsCutToItsRoom)
{
    const PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    host.WriteService("quendrel-scada", "auth required pam_deny.so\n");
    COutputLogNull log;
    QDUserAuthentication authentication;
    ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));
    int pamError = 0;
    char text[] = "################################";

    EXPECT_FALSE(authentication.LinuxAuthenticate("qd-alice", "x", pamError, nullptr, 0));
    EXPECT_EQ(pamError, 7);

    EXPECT_FALSE(authentication.LinuxAuthenticate("qd-alice", "x", pamError, text, 1));
    EXPECT_EQ(std::string(text, 2), std::string("\0#", 2));

    EXPECT_FALSE(authentication.LinuxAuthenticate("qd-alice", "x", pamError, text, 5));
    EXPECT_EQ(std::string(text, 6), std::string("Auth\0#", 6));

    EXPECT_FALSE(authentication.LinuxAuthenticate("qd-alice", "x", pamError, text, 23)); // exactly
    EXPECT_EQ(std::string(text, 24), std::string("Authentication failure\0#", 24));
}

TEST(QDUserAuthentication, WithoutRoomForATextItIsLeftOut)
{
    const QDUserAuthentication authentication;
    int pamError = 0;

    EXPECT_FALSE(authentication.LinuxAuthenticate("qd-alice", "x", pamError, nullptr, 0));

    EXPECT_EQ(pamError, 4);
}

// Otherwise "open sesame", a NUL and anything would be taken for "open sesame".
TEST(QDUserAuthentication, NulInUserOrPasswordIsRefused)
{
    const PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    const Outcome refused{false, 7, "A NUL in the user name or password"};
    COutputLogNull log;
    QDUserAuthentication authentication;
    ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));

    EXPECT_EQ(Authenticate(authentication, "qd-alice", std::string("open sesame\0x", 13)), refused);
    EXPECT_EQ(Authenticate(authentication, "qd-alice", std::string("open sesame\0", 12)), refused);
    EXPECT_EQ(Authenticate(authentication, std::string("qd-alice\0x", 10), "open sesame"), refused);
}

// --- The conversation ----------------------------------------------------------------------------------------------

TEST(QDUserAuthentication, FirstMessageOfAConversationIsAnsweredWithThePasswordAndNoOther)
{
    static const char* const kStyles[] = {"", "1", "2", "3", "4", "7", "11", "14", "41", "11111", "44441"};
    const PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();

    for (const char* styles : kStyles) {
        SCOPED_TRACE(styles);
        const std::string service = std::string("auth required " ASKING_PAM_MODULE " ") + styles + '\n';
        EXPECT_EQ(AuthenticateWith(host, service, "qd-alice", "pw-qd-alice"), kAccepted);
        EXPECT_EQ(AuthenticateWith(host, service, "qd-alice", "pw-qd-zoe"),
                  (Outcome{false, 7, "Authentication failure"}));
    }
}

TEST(QDUserAuthentication, EachOfSeveralModulesGetsThePassword)
{
    const PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    const std::string service = "auth required " ASKING_PAM_MODULE " 1\nauth required " ASKING_PAM_MODULE " 41\n"
                                "auth required pam_debug.so auth=success\n";

    EXPECT_EQ(AuthenticateWith(host, service, "qd-alice", "pw-qd-alice"), kAccepted);
}

TEST(QDUserAuthentication, ConversationWithoutAMessageIsAnsweredAllTheSame)
{
    for (const int count : {0, -1, INT_MIN}) {
        SCOPED_TRACE(count);
        StandInHost pam;
        if (!pam.IsReady())
            GTEST_SKIP() << pam.GetReason();
        COutputLogNull log;
        QDUserAuthentication authentication;
        ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));
        pam.Get().m_MessageCount = count;

        Authenticate(authentication, "qd-alice", "open sesame");

        EXPECT_EQ(pam.Get().m_ConversationResult, 0);
        EXPECT_TRUE(pam.Get().m_HasAnswers);
        EXPECT_STREQ(pam.Get().m_FirstAnswer, "open sesame");
    }
}

TEST(QDUserAuthentication, ConversationWithoutMemoryForTheAnswerFails)
{
    StandInHost pam;
    if (!pam.IsReady())
        GTEST_SKIP() << pam.GetReason();
    COutputLogNull log;
    QDUserAuthentication authentication;
    ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));
    pam.Get().m_MessageCount = 1;

    g_NoMemoryForText = true;
    Authenticate(authentication, "qd-alice", "open sesame");
    g_NoMemoryForText = false;

    EXPECT_EQ(pam.Get().m_ConversationResult, 5);
    EXPECT_FALSE(pam.Get().m_HasAnswers);
}

TEST(QDUserAuthentication, ConversationOfMoreMessagesThanMemoryHoldsFails)
{
    if (sizeof(std::size_t) > 4)
        GTEST_SKIP() << "memory holds the answers to as many messages as there can be";
    StandInHost pam;
    if (!pam.IsReady())
        GTEST_SKIP() << pam.GetReason();
    COutputLogNull log;
    QDUserAuthentication authentication;
    ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));
    pam.Get().m_MessageCount = INT_MAX;

    Authenticate(authentication, "qd-alice", "open sesame");

    EXPECT_EQ(pam.Get().m_ConversationResult, 5);
    EXPECT_FALSE(pam.Get().m_HasAnswers);
}

TEST(QDUserAuthentication, ConversationWithoutAPlaceForTheAnswersFails)
{
    StandInHost pam;
    if (!pam.IsReady())
        GTEST_SKIP() << pam.GetReason();
    COutputLogNull log;
    QDUserAuthentication authentication;
    ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));
    pam.Get().m_MessageCount = 1;
    pam.Get().m_HasNoPlaceForAnswers = true;

    Authenticate(authentication, "qd-alice", "open sesame");

    EXPECT_EQ(pam.Get().m_ConversationResult, 19);
}

// --- The calls, with the stand-in ----------------------------------------------------------------------------------

TEST(QDUserAuthentication, AcceptedUserTakesThreeCalls)
{
    StandInHost pam;
    if (!pam.IsReady())
        GTEST_SKIP() << pam.GetReason();
    COutputLogNull log;
    QDUserAuthentication authentication;
    ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));
    pam.Get().m_MessageCount = 3;

    EXPECT_EQ(Authenticate(authentication, "Zo\xC3\xAB", "K\xC3\xA4se"), kAccepted);

    EXPECT_STREQ(pam.Get().m_Calls, "pam_start quendrel-scada Zo\xC3\xAB\n"
                                    "pam_authenticate handle 0x8000\n"
                                    "pam_end handle 0\n");
    EXPECT_EQ(pam.Get().m_ConversationResult, 0);
    EXPECT_STREQ(pam.Get().m_FirstAnswer, "K\xC3\xA4se");
    EXPECT_EQ(pam.Get().m_AnswersWithText, 0);
}

TEST(QDUserAuthentication, TextOfAFailureIsFetchedBeforeTheEnd)
{
    StandInHost pam;
    if (!pam.IsReady())
        GTEST_SKIP() << pam.GetReason();
    COutputLogNull log;
    QDUserAuthentication authentication;
    ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));
    pam.Get().m_AuthenticateResult = 9;

    EXPECT_EQ(Authenticate(authentication, "qd-alice", "open sesame"), (Outcome{false, 9, "K\xC3\xA4se"}));

    EXPECT_STREQ(pam.Get().m_Calls, "pam_start quendrel-scada qd-alice\n"
                                    "pam_authenticate handle 0x8000\n"
                                    "pam_strerror handle 9\n"
                                    "pam_end handle 9\n");
}

TEST(QDUserAuthentication, WhatDidNotStartIsNotEnded)
{
    StandInHost pam;
    if (!pam.IsReady())
        GTEST_SKIP() << pam.GetReason();
    COutputLogNull log;
    QDUserAuthentication authentication;
    ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));
    pam.Get().m_StartResult = 4;

    EXPECT_EQ(Authenticate(authentication, "qd-alice", "open sesame"), (Outcome{false, 4, "K\xC3\xA4se"}));

    EXPECT_STREQ(pam.Get().m_Calls, "pam_start quendrel-scada qd-alice\n"
                                    "pam_strerror handle 4\n");
}

TEST(QDUserAuthentication, EmptyUserAndPasswordArriveEmpty)
{
    StandInHost pam;
    if (!pam.IsReady())
        GTEST_SKIP() << pam.GetReason();
    COutputLogNull log;
    QDUserAuthentication authentication;
    ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));
    pam.Get().m_MessageCount = 1;
    pam.Get().m_AuthenticateResult = 7;

    Authenticate(authentication, CQDSecureWString(), CQDSecureWString());

    EXPECT_THAT(pam.Get().m_Calls, StartsWith("pam_start quendrel-scada \n"));
    EXPECT_EQ(pam.Get().m_ConversationResult, 0);
    EXPECT_TRUE(pam.Get().m_HasAnswers);
    EXPECT_STREQ(pam.Get().m_FirstAnswer, "");
}

TEST(QDUserAuthentication, NulIsRefusedBeforePamIsAsked)
{
    StandInHost pam;
    if (!pam.IsReady())
        GTEST_SKIP() << pam.GetReason();
    COutputLogNull log;
    QDUserAuthentication authentication;
    ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));

    EXPECT_FALSE(Authenticate(authentication, "qd-alice", std::string("open sesame\0", 12)).m_IsAccepted);

    EXPECT_STREQ(pam.Get().m_Calls, "");
}

TEST(QDUserAuthentication, ErrorTextIsCutByBytes)
{
    StandInHost pam;
    if (!pam.IsReady())
        GTEST_SKIP() << pam.GetReason();
    COutputLogNull log;
    QDUserAuthentication authentication;
    ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));
    pam.Get().m_AuthenticateResult = 7;
    int pamError = 0;
    char text[] = "########";

    EXPECT_FALSE(authentication.LinuxAuthenticate("qd-alice", "x", pamError, text, 3));

    EXPECT_EQ(std::string(text, 4), std::string("K\xC3\0#", 4));
}

// --- Threads and secrets -------------------------------------------------------------------------------------------

TEST(QDUserAuthentication, ThreadsAuthenticateAtOnce)
{
    const PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    host.WriteService("quendrel-scada", "auth required " ASKING_PAM_MODULE " 14\n");
    COutputLogNull log;
    QDUserAuthentication authentication;
    ASSERT_TRUE(authentication.InitialiseUserAuthentication(&log));
    // Loaded all along: ThreadSanitizer does not see the locks of the loader, and PAM would load and unload it each
    // time.
    void* module = ::dlopen(ASKING_PAM_MODULE, RTLD_NOW);
    ASSERT_NE(module, nullptr);
    // The library that PAM writes the system's audit with finds out the program's name the first time, without a lock.
    ASSERT_EQ(Authenticate(authentication, "qd-alice", "pw-qd-alice"), kAccepted);
    const auto countRightOutcomes = [&](const char* user, int& count) {
        for (int i = 0; i < 50; ++i) {
            const std::string password = std::string("pw-") + user;
            if (Authenticate(authentication, user, password) == kAccepted &&
                Authenticate(authentication, user, password + "x") == Outcome{false, 7, "Authentication failure"})
                ++count;
        }
    };
    int aliceCount = 0;
    int zoeCount = 0;

    std::thread alice(countRightOutcomes, "qd-alice", std::ref(aliceCount));
    std::thread zoe(countRightOutcomes, "qd-zoe", std::ref(zoeCount));
    alice.join();
    zoe.join();
    ::dlclose(module);

    EXPECT_EQ(aliceCount, 50);
    EXPECT_EQ(zoeCount, 50);
}

TEST(QDUserAuthentication, PasswordIsPrintedNowhere)
{
    PamHost host;
    if (!host.IsReady())
        GTEST_SKIP() << host.GetReason();
    const FailedStart leaks;
    RecordingLog log;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    {
        QDUserAuthentication authentication;
        authentication.InitialiseUserAuthentication(&log);
        Authenticate(authentication, "qd-alice", "open sesame");
        Authenticate(authentication, "qd-alice", "open sesame, wrong");
        Authenticate(authentication, "qd-nobody", "open sesame");
        ::unlink(kServiceFile);
        Authenticate(authentication, "qd-alice", "open sesame");
        host.MakeServicesReadOnly();
        authentication.InitialiseUserAuthentication(&log);
        Authenticate(authentication, "qd-alice", "open sesame");
    }
    const std::string output = testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();

    EXPECT_EQ(log.GetMessages().size(), 11u);
    EXPECT_EQ(log.CountContaining("sesame"), 0u);
    EXPECT_EQ(output.find("sesame"), std::string::npos);
}
