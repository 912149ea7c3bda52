// The machine's own zone. The program brings its own open() and readlink(), so that "/etc/localtime" is what each test
// wants it to be, on any machine.
#include <QDPlatform/QDTimeZone.h>

#include "NextFunction.h"
#include "ZoneFile.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <string>

namespace
{

constexpr char kCurrentZonePath[] = "/etc/localtime";
constexpr long long kHour = 36'000'000'000;
constexpr long long kUnixEpoch = 116444736000000000;

// What stands in for "/etc/localtime": the file that it leads to, and the text of the link; empty for none.
std::string g_File;
std::string g_Link;

int g_OpenFlags = 0;
int g_OpenedFile = -1;
bool g_IsFileOpenAtLinkRead = false;
std::size_t g_LinkRoom = 0;
int g_LinkReads = 0;

std::string MakeZone(int utOffset)
{
    ZoneBlock block;
    block.m_Types = {{utOffset, 0, 0}};
    block.m_Designations.assign("A", 2);
    return block.ToBytes('\0', 4);
}

// Puts a zone and the text of a link in the place of "/etc/localtime" while it lives.
class CurrentZone
{
public:
    CurrentZone(const std::string& bytes, const std::string& link) : m_File(bytes)
    {
        g_File = "/usr/share/zoneinfo/" + m_File.GetZoneName();
        g_Link = link;
        g_OpenFlags = 0;
        g_OpenedFile = -1;
        g_IsFileOpenAtLinkRead = false;
        g_LinkRoom = 0;
        g_LinkReads = 0;
    }

    ~CurrentZone()
    {
        g_File.clear();
        g_Link.clear();
    }

private:
    ZoneFile m_File;
};

} // namespace

extern "C" int open(const char* path, int flags, ...)
{
    static const auto next = NextFunction("open", &open);
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    if (std::strcmp(path, kCurrentZonePath) != 0)
        return next(path, flags, mode);
    g_OpenFlags = flags;
    g_OpenedFile = next(g_File.c_str(), flags, mode);
    return g_OpenedFile;
}

extern "C" ssize_t readlink(const char* path, char* buffer, size_t size) noexcept
{
    static const auto next = NextFunction("readlink", &readlink);
    if (std::strcmp(path, kCurrentZonePath) != 0)
        return next(path, buffer, size);
    ++g_LinkReads;
    g_IsFileOpenAtLinkRead = ::fcntl(g_OpenedFile, F_GETFD) != -1;
    g_LinkRoom = size;
    if (g_Link.empty()) {
        errno = EINVAL;
        return -1;
    }
    const std::size_t length = std::min(size, g_Link.size());
    std::memcpy(buffer, g_Link.data(), length);
    return static_cast<ssize_t>(length);
}

namespace
{

TEST(CQDTimeZone, CurrentZoneIsReadFromEtcLocaltime)
{
    const CurrentZone current(MakeZone(7200), "/usr/share/zoneinfo/Europe/Berlin");
    CQDTimeZone zone;

    const bool isLoaded = zone.UseCurrentTimeZone();

    EXPECT_TRUE(isLoaded);
    EXPECT_EQ(zone.GetReadStatus(), 0);
    EXPECT_EQ(zone.GetIANAName(), "Europe/Berlin");
    EXPECT_EQ(zone.GetAdjustmentForTimestamp(kUnixEpoch), 2 * kHour);
}

TEST(CQDTimeZone, FileIsOpenedForReadingAndNotInherited)
{
    const CurrentZone current(MakeZone(7200), "");
    CQDTimeZone zone;

    zone.UseCurrentTimeZone();

    EXPECT_EQ(g_OpenFlags & O_ACCMODE, O_RDONLY);
    EXPECT_NE(g_OpenFlags & O_CLOEXEC, 0);
}

TEST(CQDTimeZone, NameIsWhatFollowsTheFirstZoneinfoInTheLink)
{
    const struct
    {
        const char* m_Name;
        std::string m_Link;
        const char* m_IANAName;
    } cases[] = {{"absolute", "/usr/share/zoneinfo/Etc/UTC", "Etc/UTC"},
                 {"relative", "../usr/share/zoneinfo/America/New_York", "America/New_York"},
                 {"twice", "/a/zoneinfo/posix/zoneinfo/Zulu", "posix/zoneinfo/Zulu"},
                 {"nothing behind", "/usr/share/zoneinfo/", ""},
                 {"no such folder", "/etc/localtime.d/Berlin", ""},
                 {"part of a folder's name", "/usr/share/my-zoneinfo/Zulu", ""},
                 {"no link", "", ""},
                 {"4,095 bytes", "/zoneinfo/" + std::string(4085, 'x'), nullptr}};

    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_Name);
        const CurrentZone current(MakeZone(7200), c.m_Link);
        CQDTimeZone zone;

        const bool isLoaded = zone.UseCurrentTimeZone();

        EXPECT_TRUE(isLoaded);
        EXPECT_EQ(zone.GetIANAName(), c.m_IANAName != nullptr ? c.m_IANAName : std::string(4085, 'x'));
    }
}

TEST(CQDTimeZone, LinkIsUsedUpTo4095Bytes)
{
    const CurrentZone current(MakeZone(7200), "/zoneinfo/" + std::string(5000, 'x'));
    CQDTimeZone zone;

    const bool isLoaded = zone.UseCurrentTimeZone();

    EXPECT_TRUE(isLoaded);
    EXPECT_EQ(g_LinkRoom, 4095u);
    EXPECT_EQ(zone.GetIANAName(), std::string(4085, 'x'));
}

TEST(CQDTimeZone, FileIsClosedBeforeTheLinkIsRead)
{
    const CurrentZone current(MakeZone(7200), "/usr/share/zoneinfo/Europe/Berlin");
    CQDTimeZone zone;

    zone.UseCurrentTimeZone();

    EXPECT_GE(g_OpenedFile, 0);
    EXPECT_EQ(g_LinkReads, 1);
    EXPECT_FALSE(g_IsFileOpenAtLinkRead);
}

TEST(CQDTimeZone, NamesThatAreNotUsedLoadTheCurrentZone)
{
    const CurrentZone current(MakeZone(7200), "/usr/share/zoneinfo/Europe/Berlin");
    for (const char* name : {"", "/usr/share/zoneinfo/Etc/UTC", ".", "./Etc/UTC", "../zoneinfo/Etc/UTC", ".hidden"}) {
        SCOPED_TRACE(name);
        CQDTimeZone zone;

        const bool isLoaded = zone.UseSpecifiedTimeZone(name);

        EXPECT_TRUE(isLoaded);
        EXPECT_EQ(zone.GetIANAName(), "Europe/Berlin");
        EXPECT_EQ(zone.GetAdjustmentForTimestamp(kUnixEpoch), 2 * kHour);
    }
}

TEST(CQDTimeZone, CurrentZoneReplacesWhatWasLoaded)
{
    CQDTimeZone zone;
    ASSERT_TRUE(zone.UseSpecifiedTimeZone("Europe/London"));
    const CurrentZone current(MakeZone(-3600), "");

    const bool isLoaded = zone.UseCurrentTimeZone();

    EXPECT_TRUE(isLoaded);
    EXPECT_EQ(zone.GetIANAName(), "");
    EXPECT_EQ(zone.GetTransitionCount(), 0u);
    EXPECT_EQ(zone.GetAdjustmentForTimestamp(kUnixEpoch), -kHour);
}

TEST(CQDTimeZone, MissingCurrentZoneGivesStatus1AndAnEmptyZone)
{
    CQDTimeZone zone;
    ASSERT_TRUE(zone.UseSpecifiedTimeZone("Europe/London"));

    const bool isLoaded = zone.UseCurrentTimeZone();

    EXPECT_FALSE(isLoaded);
    EXPECT_EQ(zone.GetReadStatus(), 1);
    EXPECT_EQ(zone.GetIANAName(), "");
    EXPECT_EQ(zone.GetTransitionCount(), 0u);
}

TEST(CQDTimeZone, FaultyCurrentZoneHasNoName)
{
    const CurrentZone current("TZif", "/usr/share/zoneinfo/Europe/Berlin");
    CQDTimeZone zone;

    const bool isLoaded = zone.UseCurrentTimeZone();

    EXPECT_FALSE(isLoaded);
    EXPECT_EQ(zone.GetReadStatus(), 2);
    EXPECT_EQ(zone.GetIANAName(), "");
}

TEST(CQDTimeZone, LinkIsNotReadForANamedZone)
{
    const CurrentZone current(MakeZone(7200), "/usr/share/zoneinfo/Europe/Berlin");
    CQDTimeZone zone;

    const bool isLoaded = zone.UseSpecifiedTimeZone("Etc/UTC");

    EXPECT_TRUE(isLoaded);
    EXPECT_EQ(g_LinkReads, 0);
    EXPECT_EQ(zone.GetIANAName(), "Etc/UTC");
}

} // namespace
