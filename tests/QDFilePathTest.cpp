#include <QDPlatform/QDFilePath.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Emulation.h"
#include "FaultPlan.h"
#include "OpenDescriptors.h"
#include "ScopedUmask.h"
#include "ScopedVariable.h"
#include "SmallFileSystem.h"
#include "TemporaryFolder.h"
#include "WaitUntil.h"

namespace
{

constexpr std::string::size_type npos = CQDFilePath::npos;

// One path and all that can be told of it.
struct PathParts
{
    const char* m_Path;
    std::string::size_type m_NameIndex;
    std::string::size_type m_ExtensionIndex;
    const char* m_Name;
    const char* m_NameAndExtension;
    const char* m_Extension;
    const char* m_Directory;
    bool m_IsAbsolute;
};

constexpr PathParts kPathParts[] = {
    {"", 0, npos, "", "", "", "", false},
    {"/", 1, npos, "", "", "", "", true},
    {"//", 2, npos, "", "", "", "/", true},
    {"//a", 2, npos, "a", "a", "", "/", true},
    {"file", 0, npos, "file", "file", "", "", false},
    {"/file", 1, npos, "file", "file", "", "", true},
    {"file.txt", 0, 4, "file", "file.txt", "txt", "", false},
    {"/a/b", 3, npos, "b", "b", "", "/a", true},
    {"/a/b/", 5, npos, "", "", "", "/a/b", true},
    {"a/", 2, npos, "", "", "", "a", false},
    {"/dir.d/file", 7, npos, "file", "file", "", "/dir.d", true},
    {"/dir.d/", 7, npos, "", "", "", "/dir.d", true},
    {"/home/u/.profile", 8, 8, "", ".profile", "profile", "/home/u", true},
    {".profile", 0, 0, "", ".profile", "profile", "", false},
    {".profile.bak", 0, 8, ".profile", ".profile.bak", "bak", "", false},
    {"a.tar.gz", 0, 5, "a.tar", "a.tar.gz", "gz", "", false},
    {"a..b", 0, 2, "a.", "a..b", "b", "", false},
    {"a.", 0, 1, "a", "a.", "", "", false},
    {".", 0, 0, "", ".", "", "", false},
    {"..", 0, 1, ".", "..", "", "", false},
    {"/a/.", 3, 3, "", ".", "", "/a", true},
    {"/a/..", 3, 4, ".", "..", "", "/a", true},
    {"./a", 2, npos, "a", "a", "", ".", false},
    {"../a.b", 3, 4, "a", "a.b", "b", "..", false},
    {" a b . c ", 0, 5, " a b ", " a b . c ", " c ", "", false},
    {"a\\b.c", 0, 3, "a\\b", "a\\b.c", "c", "", false},
    {"\xC3\xA4/\xFF\x80.\xFE", 3, 5, "\xFF\x80", "\xFF\x80.\xFE", "\xFE", "\xC3\xA4", false},
};

// A path, what is done to it, and what comes of it.
struct Change
{
    const char* m_Path;
    const char* m_Argument;
    const char* m_Result;
};

// A folder of a SmallFileSystem in the place of a folder of the system, for this process only.
class FolderInPlaceOf
{
public:
    FolderInPlaceOf(const std::string& folder, const char* place) : m_pPlace(place)
    {
        std::filesystem::create_directory(folder);
        m_IsMounted = ::mount(folder.c_str(), place, nullptr, MS_BIND, nullptr) == 0;
    }

    FolderInPlaceOf(const FolderInPlaceOf&) = delete;
    FolderInPlaceOf& operator=(const FolderInPlaceOf&) = delete;

    ~FolderInPlaceOf()
    {
        if (m_IsMounted)
            ::umount2(m_pPlace, MNT_DETACH);
    }

    bool IsMounted() const { return m_IsMounted; }

private:
    const char* const m_pPlace;
    bool m_IsMounted;
};

// A pipe without a name, which can be opened by a path, and read there without waiting for a writer. The kernel refuses
// to copy from it by itself, so that its content goes by blocks.
class PipeToRead
{
public:
    // flags: O_DIRECT makes each Write() a packet, which one read() takes.
    explicit PipeToRead(int flags = 0)
    {
        if (::pipe2(m_Ends, O_CLOEXEC | O_NONBLOCK | flags) != 0)
            std::abort();
    }

    PipeToRead(const PipeToRead&) = delete;
    PipeToRead& operator=(const PipeToRead&) = delete;

    ~PipeToRead()
    {
        CloseWriter();
        ::close(m_Ends[0]);
    }

    std::string GetPath() const { return "/proc/self/fd/" + std::to_string(m_Ends[0]); }

    // Fails the test when the pipe has no room for it.
    void Write(const std::string& text)
    {
        EXPECT_EQ(::write(m_Ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    // What was written is then all.
    void CloseWriter()
    {
        if (m_Ends[1] >= 0)
            ::close(std::exchange(m_Ends[1], -1));
    }

private:
    int m_Ends[2];
};

// An operation done to `path`; the second path that some need is that of an existing file, or an unused one.
struct FileOperation
{
    const char* m_Name;
    const char* m_Target; // where it succeeds: "file" and "folder" are there, "new" is not
    bool (*m_Run)(CQDFilePath& path, const std::string& existing, const std::string& unused);
};

constexpr FileOperation kFileOperations[] = {
    {"FileExists", "file", [](CQDFilePath& path, const std::string&, const std::string&) { return path.FileExists(); }},
    {"MakeDirectory", "new",
     [](CQDFilePath& path, const std::string&, const std::string&) { return path.MakeDirectory(); }},
    {"EraseDirectory", "folder",
     [](CQDFilePath& path, const std::string&, const std::string&) { return path.EraseDirectory(); }},
    {"EraseFile", "file", [](CQDFilePath& path, const std::string&, const std::string&) { return path.EraseFile(); }},
    {"CopyFileTo", "file",
     [](CQDFilePath& path, const std::string&, const std::string& unused) { return path.CopyFileTo(unused); }},
    {"RenameFile", "file",
     [](CQDFilePath& path, const std::string&, const std::string& unused) { return path.RenameFile(unused); }},
    {"ReplaceFileWith", "file",
     [](CQDFilePath& path, const std::string& existing, const std::string&) { return path.ReplaceFileWith(existing); }},
};

struct PathAndError
{
    std::string m_Path;
    int m_Error;
};

// `length` bytes that do not repeat in the step of any block.
std::string SomeContent(std::size_t length)
{
    std::string content;
    for (std::size_t i = 0; content.size() < length; ++i)
        content += std::to_string(i) + '\0';
    content.resize(length);
    return content;
}

} // namespace

// --- Construction and access ---

TEST(CQDFilePath, IsAnErrorAndAText)
{
    EXPECT_TRUE((std::is_base_of_v<CQDError, CQDFilePath>));
    EXPECT_FALSE(std::is_polymorphic_v<CQDFilePath>);
    EXPECT_EQ(npos, static_cast<std::string::size_type>(-1));
}

TEST(CQDFilePath, DefaultIsEmptyWithoutError)
{
    const CQDFilePath path;

    EXPECT_TRUE(path.IsEmpty());
    EXPECT_EQ(path.GetPath(), "");
    EXPECT_STREQ(path.GetPathCStr(), "");
    EXPECT_EQ(path.GetLastErrorCode(), 0);
}

TEST(CQDFilePath, TakesItsTextUnchanged)
{
    const char* const text = "//a/../\xFF ./";

    EXPECT_EQ(CQDFilePath(text).GetPath(), text);
    EXPECT_EQ(CQDFilePath(std::string(text)).GetPath(), text);
    EXPECT_EQ(CQDFilePath(text, 5).GetPath(), "//a/.");
    EXPECT_STREQ(CQDFilePath(text, 5).GetPathCStr(), "//a/.");
    EXPECT_FALSE(CQDFilePath(text).IsEmpty());
}

TEST(CQDFilePath, NullTextsAreEmpty)
{
    const char* const null = nullptr;
    CQDFilePath path("a");

    path.SetFromString(nullptr, 0);

    EXPECT_TRUE(path.IsEmpty());
    EXPECT_TRUE(CQDFilePath(null).IsEmpty());
    EXPECT_TRUE(CQDFilePath(null, 0).IsEmpty());
}

TEST(CQDFilePath, LengthCountsBytesOfAnyValue)
{
    const CQDFilePath path("a\0\x80.b", 5);

    EXPECT_EQ(path.GetPath(), std::string("a\0\x80.b", 5));
    EXPECT_EQ(path.FindExtension(), 3u);
}

TEST(CQDFilePath, SetFromStringReplacesTheText)
{
    CQDFilePath path("old");

    path.SetFromString(std::string("/new"));
    EXPECT_EQ(path.GetPath(), "/new");
    path.SetFromString("/newer", 4);
    EXPECT_EQ(path.GetPath(), "/new");
    path.SetFromString("/newer", 0);
    EXPECT_EQ(path.GetPath(), "");
}

TEST(CQDFilePath, CopiesTakeTextAndError)
{
    const TemporaryFolder folder;
    CQDFilePath path(folder / "none");
    ASSERT_FALSE(path.FileExists());
    CQDFilePath assigned("other");

    const CQDFilePath copy(path);
    assigned = path;

    EXPECT_EQ(copy.GetPath(), folder / "none");
    EXPECT_EQ(copy.GetLastErrorCode(), ENOENT);
    EXPECT_EQ(assigned.GetPath(), folder / "none");
    EXPECT_EQ(assigned.GetLastErrorCode(), ENOENT);
}

TEST(CQDFilePath, NewTextKeepsTheError)
{
    CQDFilePath path("");
    ASSERT_FALSE(path.FileExists());

    path.SetFromString("/", 1);
    EXPECT_EQ(path.GetLastErrorCode(), ENOENT);
    path.Clear();
    EXPECT_EQ(path.GetLastErrorCode(), ENOENT);
}

TEST(CQDFilePath, ClearMakesItEmpty)
{
    CQDFilePath path("/a/b");

    path.Clear();

    EXPECT_TRUE(path.IsEmpty());
}

TEST(CQDFilePath, ReserveMakesRoomAndKeepsTheText)
{
    CQDFilePath path("/a");

    path.Reserve(1000);

    EXPECT_EQ(path.GetPath(), "/a");
    EXPECT_GE(path.GetPath().capacity(), 1000u);
}

// --- Parts of the path ---

TEST(CQDFilePath, IsAbsolute)
{
    for (const PathParts& parts : kPathParts) {
        SCOPED_TRACE(parts.m_Path);
        EXPECT_EQ(CQDFilePath(parts.m_Path).IsAbsolute(), parts.m_IsAbsolute);
    }
}

TEST(CQDFilePath, FindName)
{
    for (const PathParts& parts : kPathParts) {
        SCOPED_TRACE(parts.m_Path);
        EXPECT_EQ(CQDFilePath(parts.m_Path).FindName(), parts.m_NameIndex);
    }
}

TEST(CQDFilePath, FindExtension)
{
    for (const PathParts& parts : kPathParts) {
        SCOPED_TRACE(parts.m_Path);
        EXPECT_EQ(CQDFilePath(parts.m_Path).FindExtension(), parts.m_ExtensionIndex);
    }
}

TEST(CQDFilePath, GetName)
{
    for (const PathParts& parts : kPathParts) {
        SCOPED_TRACE(parts.m_Path);
        std::string name = "old";

        CQDFilePath(parts.m_Path).GetName(name);

        EXPECT_EQ(name, parts.m_Name);
    }
}

TEST(CQDFilePath, GetNameAndExtension)
{
    for (const PathParts& parts : kPathParts) {
        SCOPED_TRACE(parts.m_Path);
        std::string name = "old";

        CQDFilePath(parts.m_Path).GetNameAndExtension(name);

        EXPECT_EQ(name, parts.m_NameAndExtension);
    }
}

TEST(CQDFilePath, GetExtension)
{
    for (const PathParts& parts : kPathParts) {
        SCOPED_TRACE(parts.m_Path);
        std::string extension = "old";

        CQDFilePath(parts.m_Path).GetExtension(extension);

        EXPECT_EQ(extension, parts.m_Extension);
    }
}

TEST(CQDFilePath, GetDirectory)
{
    for (const PathParts& parts : kPathParts) {
        SCOPED_TRACE(parts.m_Path);
        std::string text = "old";
        CQDFilePath path("old");

        CQDFilePath(parts.m_Path).GetDirectory(text);
        CQDFilePath(parts.m_Path).GetDirectory(path);

        EXPECT_EQ(text, parts.m_Directory);
        EXPECT_EQ(path.GetPath(), parts.m_Directory);
    }
}

TEST(CQDFilePath, GetDirectoryGoesUpInPlace)
{
    CQDFilePath path("/a/b/c");

    path.GetDirectory(path);
    EXPECT_EQ(path.GetPath(), "/a/b");
    path.GetDirectory(path);
    EXPECT_EQ(path.GetPath(), "/a");
}

TEST(CQDFilePath, ChangeExtension)
{
    const Change changes[] = {
        {"a.txt", "csv", "a.csv"},    {"a", "csv", "a.csv"},
        {"", "csv", ".csv"},          {"/", "csv", "/.csv"},
        {"a/", "csv", "a/.csv"},      {"/d.d/a", "csv", "/d.d/a.csv"},
        {".profile", "csv", ".csv"},  {"a.tar.gz", "zip", "a.tar.zip"},
        {"a.", "csv", "a.csv"},       {"a.txt", "", "a."},
        {"a.txt", nullptr, "a."},     {"a.txt", ".csv", "a..csv"},
        {"a.\xFF", "\x80", "a.\x80"},
    };
    for (const Change& change : changes) {
        SCOPED_TRACE(change.m_Path);
        CQDFilePath path(change.m_Path);

        path.ChangeExtension(change.m_Argument);

        EXPECT_EQ(path.GetPath(), change.m_Result);
    }
}

TEST(CQDFilePath, SetExtensionIfNotSpecified)
{
    const Change changes[] = {
        {"a.txt", "csv", "a.txt"},
        {"a", "csv", "a.csv"},
        {"a.", "csv", "a."},
        {".profile", "csv", ".profile"},
        {"/d.d/a", "csv", "/d.d/a.csv"},
        {"", "csv", ".csv"},
        {"/", "csv", "/.csv"},
        {"a", "", "a."},
        {"a", nullptr, "a."},
        {"\xFF", "\x80", "\xFF.\x80"},
    };
    for (const Change& change : changes) {
        SCOPED_TRACE(change.m_Path);
        CQDFilePath path(change.m_Path);

        path.SetExtensionIfNotSpecified(change.m_Argument);

        EXPECT_EQ(path.GetPath(), change.m_Result);
    }
}

TEST(CQDFilePath, MakeSureFileHasExtension)
{
    const Change changes[] = {
        {"report", "csv", "report.csv"},
        {"report.csv", "csv", "report.csv"},
        {"report.CSV", "csv", "report.csv"},
        {"report.Csv", "CSV", "report.CSV"},
        {"report.txt", "csv", "report.txt.csv"},
        {"report.cs", "csv", "report.cs.csv"},
        {"report.csvx", "csv", "report.csvx.csv"},
        {"a.tar.gz", "GZ", "a.tar.GZ"},
        {"/d.CSV/a", "csv", "/d.CSV/a.csv"},
        {".CSV", "csv", ".csv"},
        {"", "csv", ".csv"},
        {"/", "csv", "/.csv"},
        {"a.", "csv", "a..csv"},
        {"a.", "", "a."},
        {"a", "", "a."},
        {"a.txt", "", "a.txt."},
        {"a.txt", nullptr, "a.txt."},
        // Only ASCII letters have a case here, and only letters.
        {"a.\xC3\x84", "\xC3\xA4", "a.\xC3\x84.\xC3\xA4"},
        {"a.@", "`", "a.@.`"},
        {"a.[", "{", "a.[.{"},
        {"a.\xFF", "\xFF", "a.\xFF"},
    };
    for (const Change& change : changes) {
        SCOPED_TRACE(change.m_Path);
        CQDFilePath path(change.m_Path);

        path.MakeSureFileHasExtension(change.m_Argument);

        EXPECT_EQ(path.GetPath(), change.m_Result);
    }
}

TEST(CQDFilePath, IsFileOfType)
{
    const struct
    {
        const char* m_Path;
        const char* m_Type;
        bool m_IsOfType;
    } cases[] = {
        {"a.txt", "txt", true},     {"a.txt", ".txt", true},
        {"a.txt", "TXT", false},    {"a.txt", ".TXT", false},
        {"a.txt", "tx", false},     {"a.txt", "txtx", false},
        {"a.txt", "", false},       {"a.txt", ".", false},
        {"a.txt", nullptr, false},  {"a", "txt", false},
        {"txt", "txt", false},      {"a", "", false},
        {"a", nullptr, false},      {"", "", false},
        {"a.", "", true},           {"a.", ".", true},
        {"a.", nullptr, true},      {"a.tar.gz", "gz", true},
        {"a.tar.gz", ".gz", true},  {"a.tar.gz", "tar.gz", false},
        {".txt", "txt", true},      {"a.tar.gz", ".tar.gz", false},
        {".txt", ".txt", true},     {"a..b", ".b", true},
        {"/d.txt/a", "txt", false}, {"a.\xFF", "\xFF", true},
        {"a.\xFF", "\x7F", false},
    };

    for (const auto& [path, type, isOfType] : cases) {
        SCOPED_TRACE(std::string(path) + " " + (type == nullptr ? "null" : type));
        EXPECT_EQ(CQDFilePath(path).IsFileOfType(type), isOfType);
    }
}

TEST(CQDFilePath, ChangeNameAndExtension)
{
    const Change changes[] = {
        {"/a/b.c", "x.y", "/a/x.y"},
        {"b", "x", "x"},
        {"", "x", "x"},
        {"/", "x", "/x"},
        {"/a/", "x", "/a/x"},
        {"/a/b", "", "/a/"},
        {"/a/b", "c/d", "/a/c/d"},
        {"\xFF/b", "\x80", "\xFF/\x80"},
    };
    for (const Change& change : changes) {
        SCOPED_TRACE(change.m_Path);
        CQDFilePath path(change.m_Path);

        path.ChangeNameAndExtension(change.m_Argument);

        EXPECT_EQ(path.GetPath(), change.m_Result);
    }
}

TEST(CQDFilePath, AppendFileName)
{
    const Change changes[] = {
        {"", "a", "a"},          {"", "", ""},
        {"", "/a", "/a"},        {"a", "b", "a/b"},
        {"a/", "b", "a/b"},      {"/", "a", "/a"},
        {"a", "", "a/"},         {"a/", "", "a/"},
        {"a", "/b", "a//b"},     {"a/", "/b", "a//b"},
        {"/", "", "/"},          {"a", "b/c", "a/b/c"},
        {"a.b", ".c", "a.b/.c"}, {"\xFF", "\x80", "\xFF/\x80"},
    };
    for (const Change& change : changes) {
        SCOPED_TRACE(std::string(change.m_Path) + " " + change.m_Argument);
        CQDFilePath path(change.m_Path);

        path.AppendFileName(change.m_Argument);

        EXPECT_EQ(path.GetPath(), change.m_Result);
    }
}

TEST(CQDFilePath, AppendName)
{
    const Change changes[] = {
        {"log.txt", "_001", "log_001.txt"},
        {"log", "_1", "log_1"},
        {"/d.d/log", "_1", "/d.d/log_1"},
        {".profile", "x", "x.profile"},
        {"", "x", "x"},
        {"a/", "x", "a/x"},
        {"a.tar.gz", "_1", "a.tar_1.gz"},
        {"a.txt", "", "a.txt"},
        {"a.", "x", "ax."},
        {"a.txt", ".b", "a.b.txt"},
        {"\xFF.\x80", "\xFE", "\xFF\xFE.\x80"},
    };
    for (const Change& change : changes) {
        SCOPED_TRACE(change.m_Path);
        CQDFilePath path(change.m_Path);

        path.AppendName(change.m_Argument);

        EXPECT_EQ(path.GetPath(), change.m_Result);
    }
}

TEST(CQDFilePath, ChangesTakePartsOfThePathItself)
{
    const std::string longName(100, 'n');
    CQDFilePath path(longName + ".txt");

    path.ChangeExtension(path.GetPathCStr() + 101);
    EXPECT_EQ(path.GetPath(), longName + ".txt");
    path.MakeSureFileHasExtension(path.GetPathCStr() + 102);
    EXPECT_EQ(path.GetPath(), longName + ".txt.xt");
    path.AppendName(path.GetPath());
    EXPECT_EQ(path.GetPath(), longName + ".txt" + longName + ".txt.xt.xt");
    path.SetFromString("a", 1);
    path.AppendFileName(path.GetPath());
    EXPECT_EQ(path.GetPath(), "a/a");
    path.ChangeNameAndExtension(path.GetPath());
    EXPECT_EQ(path.GetPath(), "a/a/a");
    path.SetFromString(path.GetPathCStr() + 2, 1);
    EXPECT_EQ(path.GetPath(), "a");
}

TEST(CQDFilePath, GetRelativePathTo)
{
    const Change cases[] = {
        {"/a/b/c.txt", "/a/x", "../b/c.txt"},
        {"/a/b/c.txt", "/a/b", "c.txt"},
        {"/a/b/c.txt", "/a", "b/c.txt"},
        {"/a/b", "/c/d", "../../a/b"},
        {"/a", "/b", "../a"},
        {"/a/b", "/a/b", "../b"},
        {"/abc/d", "/abd/e", "../../abc/d"},
        {"/abc/d", "/ab", "../abc/d"},
        {"a/b", "a", "b"},
        {"a/b/c", "a/x/y", "../../b/c"},
        {"a/", "a", ""},
        {"/", "/a", "../"},
        {"/a", "", "a"},
        {"/\xFF/\x80", "/\xFF", "\x80"},
        // An empty component counts like any other.
        {"/a/b", "/", "../a/b"},
        {"/a/b/c", "/a/b/", "../c"},
        {"/a/b", "/a/./", "../../b"},
        // Nothing is shared.
        {"a/b", "c", "a/b"},
        {"a/b", "cc", "a/b"},
        {"a/b", "/a", "a/b"},
        {"/a/b", "a", "/a/b"},
        {"file", "/a", "file"},
        {"file", "file", "file"},
        {"", "/a", ""},
    };
    for (const Change& relative : cases) {
        SCOPED_TRACE(std::string(relative.m_Path) + " from " + relative.m_Argument);
        std::string result;

        CQDFilePath(relative.m_Path).GetRelativePathTo(relative.m_Argument, result);

        EXPECT_EQ(result, relative.m_Result);
    }
}

TEST(CQDFilePath, GetRelativePathToAppendsUnlessNothingIsShared)
{
    std::string appended = "old:";
    std::string replaced = "old:";
    std::string base = "/a/x";

    CQDFilePath("/a/b/c.txt").GetRelativePathTo("/a/x", appended);
    CQDFilePath("a/b").GetRelativePathTo("c", replaced);
    CQDFilePath("/a/b").GetRelativePathTo(base, base);

    EXPECT_EQ(appended, "old:../b/c.txt");
    EXPECT_EQ(replaced, "a/b");
    EXPECT_EQ(base, "/a/x../b");
}

TEST(CQDFilePath, GetCanonicalPath)
{
    const struct
    {
        const char* m_Base;
        const char* m_Path;
        const char* m_Result;
    } cases[] = {
        {"", "/a/./b/../c", "/a/c"},
        {"", "a/b", "/a/b"},
        {"", "/a/b/..", "/a/b/.."},
        {"", "/a/b/.", "/a/b/."},
        {"", "/a/b", "/a/b"},
        {"", "/", "/"},
        {"", "/a", "/a"},
        {"", "//a", "/a"},
        {"", "a/", "/a/"},
        {"", "a//b", "/a/b"},
        {"", "a/../b", "/b"},
        {"", "/../a", "/a"},
        {"", "/a/../../b", "/b"},
        {"", "a//../b", "/a/b"},
        {"", "/.../a..b/.c", "/.../a..b/.c"},
        {"", "/\xFF/../\x80", "/\x80"},
        // No component was appended to make the result absolute.
        {"", "", ""},
        {"", "a", "a"},
        {"", ".", "."},
        {"", "..", ".."},
        {"", "./", ""},
        {"", "../", ""},
        {"", "./a", "a"},
        {"", "../a", "a"},
        // A base directory.
        {"/base", "a", "/base/a"},
        {"/base", "a/b", "/base/a/b"},
        {"/base", "/a", "/base/a"},
        {"/base", "./a", "/base/a"},
        {"/base", "../a", "/a"},
        {"/base", "../../a", "/a"},
        {"/base/x", "../a", "/base/a"},
        {"/base", "", "/base/"},
        {"/base/", "a", "/base/a"},
        {"/base/", "../a", "/base/a"},
        {"/", "../a", "/a"},
        {"rel", "../a", "rel/a"},
        {"rel/x", "../a", "rel/a"},
    };

    for (const auto& [base, text, expected] : cases) {
        SCOPED_TRACE(std::string(text) + " onto " + base);
        CQDFilePath result(base);

        CQDFilePath(text).GetCanonicalPath(result);

        EXPECT_EQ(result.GetPath(), expected);
    }
}

TEST(CQDFilePath, GetCanonicalPathResolvesOntoItself)
{
    CQDFilePath path("/a/../b");

    path.GetCanonicalPath(path);

    EXPECT_EQ(path.GetPath(), "/a/../b/b"); // "", "a", ".." and "b" behind the path as it was
}

// --- The file that the path names ---

TEST(CQDFilePath, FileExistsForFilesAndFolders)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "");
    std::filesystem::create_symlink("file", folder / "link");
    std::filesystem::create_symlink("none", folder / "dangling");

    EXPECT_TRUE(CQDFilePath(folder.GetPath()).FileExists());
    EXPECT_TRUE(CQDFilePath(folder / "file").FileExists());
    EXPECT_TRUE(CQDFilePath(folder / "link").FileExists());
    EXPECT_FALSE(CQDFilePath(folder / "dangling").FileExists());
    EXPECT_FALSE(CQDFilePath(folder / "none").FileExists());
}

TEST(CQDFilePath, FileExistsBeyondTwoGiB)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "");
    std::filesystem::resize_file(folder / "file", 3221225472u);

    EXPECT_TRUE(CQDFilePath(folder / "file").FileExists());
}

TEST(CQDFilePath, SuccessKeepsTheError)
{
    for (const FileOperation& operation : kFileOperations) {
        SCOPED_TRACE(operation.m_Name);
        const TemporaryFolder folder;
        WriteFileText(folder / "file", "");
        WriteFileText(folder / "existing", "");
        std::filesystem::create_directory(folder / "folder");
        CQDFilePath path("");
        ASSERT_FALSE(path.FileExists());
        path.SetFromString(folder / operation.m_Target);

        ASSERT_TRUE(operation.m_Run(path, folder / "existing", folder / "unused"));

        EXPECT_EQ(path.GetLastErrorCode(), ENOENT);
    }
}

TEST(CQDFilePath, ErrorHasItsText)
{
    CQDFilePath path("");
    char text[64];

    ASSERT_FALSE(path.EraseFile());

    EXPECT_STREQ(path.GetLastErrorString(text, sizeof text), "No such file or directory");
}

TEST(CQDFilePath, MakeDirectoryMakesTheLastComponent)
{
    const TemporaryFolder folder;
    const ScopedUmask none(0);
    CQDFilePath path(folder / "new");

    EXPECT_TRUE(path.MakeDirectory());

    EXPECT_TRUE(std::filesystem::is_directory(folder / "new"));
    EXPECT_EQ(ModeOf(folder / "new"), 0775u);
    EXPECT_EQ(path.GetLastErrorCode(), 0);
}

TEST(CQDFilePath, MakeDirectorySucceedsWhereSomethingIs)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "content");
    CQDFilePath existing(folder.GetPath());
    CQDFilePath file(folder / "file");

    EXPECT_TRUE(existing.MakeDirectory());
    EXPECT_TRUE(file.MakeDirectory());

    EXPECT_EQ(existing.GetLastErrorCode(), EEXIST);
    EXPECT_EQ(file.GetLastErrorCode(), EEXIST);
    EXPECT_EQ(ReadFileText(folder / "file"), "content");
}

TEST(CQDFilePath, EraseDirectoryErasesEmptyFoldersOnly)
{
    const TemporaryFolder folder;
    std::filesystem::create_directory(folder / "empty");
    std::filesystem::create_directories(folder / "full/sub");
    CQDFilePath empty(folder / "empty");
    CQDFilePath full(folder / "full");

    EXPECT_TRUE(empty.EraseDirectory());
    EXPECT_FALSE(full.EraseDirectory());

    EXPECT_FALSE(std::filesystem::exists(folder / "empty"));
    EXPECT_EQ(full.GetLastErrorCode(), ENOTEMPTY);
}

TEST(CQDFilePath, EraseFileErasesFilesOnly)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "");
    CQDFilePath file(folder / "file");
    CQDFilePath directory(folder.GetPath());

    EXPECT_TRUE(file.EraseFile());
    EXPECT_FALSE(directory.EraseFile());

    EXPECT_FALSE(std::filesystem::exists(folder / "file"));
    EXPECT_EQ(directory.GetLastErrorCode(), EISDIR);
}

TEST(CQDFilePath, SymbolicLinksAreErasedAndRenamedThemselves)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "content");
    std::filesystem::create_symlink("file", folder / "link");

    EXPECT_TRUE(CQDFilePath(folder / "link").RenameFile(folder / "renamed"));
    EXPECT_TRUE(std::filesystem::is_symlink(folder / "renamed"));
    EXPECT_TRUE(CQDFilePath(folder / "renamed").EraseFile());

    EXPECT_FALSE(std::filesystem::is_symlink(folder / "renamed"));
    EXPECT_EQ(ReadFileText(folder / "file"), "content");
}

TEST(CQDFilePath, RenameFileMovesTheFileAndKeepsThePath)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "old", "content");
    WriteFileText(folder / "new", "replaced");
    CQDFilePath path(folder / "old");

    EXPECT_TRUE(path.RenameFile(folder / "new"));

    EXPECT_FALSE(std::filesystem::exists(folder / "old"));
    EXPECT_EQ(ReadFileText(folder / "new"), "content");
    EXPECT_EQ(path.GetPath(), folder / "old");
}

TEST(CQDFilePath, ReplaceFileWithPutsTheOtherInItsPlace)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "old");
    WriteFileText(folder / "replacement", "new");

    EXPECT_TRUE(CQDFilePath(folder / "file").ReplaceFileWith(folder / "replacement"));

    EXPECT_EQ(ReadFileText(folder / "file"), "new");
    EXPECT_FALSE(std::filesystem::exists(folder / "replacement"));
}

TEST(CQDFilePath, ReplaceFileWithNeedsAFileToReplace)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "replacement", "new");
    CQDFilePath path(folder / "file");

    EXPECT_FALSE(path.ReplaceFileWith(folder / "replacement"));

    EXPECT_EQ(path.GetLastErrorCode(), ENOENT);
    EXPECT_FALSE(std::filesystem::exists(folder / "file"));
    EXPECT_EQ(ReadFileText(folder / "replacement"), "new");
}

TEST(CQDFilePath, ReplaceFileWithNothingLosesTheFile)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "old");
    CQDFilePath path(folder / "file");

    EXPECT_FALSE(path.ReplaceFileWith(folder / "replacement"));

    EXPECT_EQ(path.GetLastErrorCode(), ENOENT);
    EXPECT_FALSE(std::filesystem::exists(folder / "file"));
}

TEST(CQDFilePath, GenerateTemporaryFileNameIsNotAvailable)
{
    CQDFilePath path("/a/b");

    EXPECT_FALSE(path.GenerateTemporaryFileName("x"));
    EXPECT_FALSE(path.GenerateTemporaryFileName(nullptr));

    EXPECT_EQ(path.GetPath(), "/a/b");
    EXPECT_EQ(path.GetLastErrorCode(), 0);
}

TEST(CQDFilePath, EveryOperationStoresTheErrnoOfAPathThatLeadsNowhere)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "existing", "content");
    std::filesystem::create_directory(folder / "locked");
    std::filesystem::create_symlink("loop", folder / "loop");
    ASSERT_EQ(::chmod(folder.GetPath().c_str(), 0755), 0);
    ASSERT_EQ(::chmod((folder / "locked").c_str(), 0), 0);
    const PathAndError paths[] = {
        {"", ENOENT},
        {folder / "none/x", ENOENT},
        {folder / "existing/x", ENOTDIR},
        {folder / "loop/x", ELOOP},
        {folder / std::string(300, 'x'), ENAMETOOLONG},
        {folder / "locked/x", EACCES},
    };
    const int before = CountOpenDescriptors();

    for (const auto& [text, error] : paths) {
        for (const FileOperation& operation : kFileOperations) {
            SCOPED_TRACE(text + " " + operation.m_Name);
            CQDFilePath path(text);
            {
                const UnprivilegedUser nobody;

                EXPECT_FALSE(operation.m_Run(path, folder / "existing", folder / "unused"));
            }

            EXPECT_EQ(path.GetLastErrorCode(), error);
            EXPECT_EQ(CountOpenDescriptors(), before);
        }
    }
    EXPECT_EQ(ReadFileText(folder / "existing"), "content");
    EXPECT_FALSE(std::filesystem::exists(folder / "unused"));
    ASSERT_EQ(::chmod((folder / "locked").c_str(), 0700), 0);
}

TEST(CQDFilePath, CopyAndRenameStoreTheErrnoOfTheirDestination)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "content");
    std::filesystem::create_symlink("loop", folder / "loop");
    const PathAndError destinations[] = {
        {"", ENOENT},
        {folder / "none/x", ENOENT},
        {folder / "file/x", ENOTDIR},
        {folder / "loop/x", ELOOP},
        {folder / std::string(300, 'x'), ENAMETOOLONG},
    };
    const int before = CountOpenDescriptors();

    for (const auto& [destination, error] : destinations) {
        SCOPED_TRACE(destination);
        CQDFilePath copied(folder / "file");
        CQDFilePath renamed(folder / "file");

        EXPECT_FALSE(copied.CopyFileTo(destination));
        EXPECT_FALSE(renamed.RenameFile(destination));

        EXPECT_EQ(copied.GetLastErrorCode(), error);
        EXPECT_EQ(renamed.GetLastErrorCode(), error);
        EXPECT_EQ(CountOpenDescriptors(), before);
    }
}

TEST(CQDFilePath, RenameFileFailsBetweenFileSystems)
{
    const TemporaryFolder folder;
    const SmallFileSystem disk("size=64k");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    WriteFileText(folder / "file", "content");
    CQDFilePath path(folder / "file");

    EXPECT_FALSE(path.RenameFile(disk / "file"));

    EXPECT_EQ(path.GetLastErrorCode(), EXDEV);
    EXPECT_EQ(ReadFileText(folder / "file"), "content");
}

TEST(CQDFilePath, ReadOnlyFileSystemRefusesEveryChange)
{
    SmallFileSystem disk("size=64k");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    WriteFileText(disk / "file", "content");
    std::filesystem::create_directory(disk / "folder");
    ASSERT_TRUE(disk.MakeReadOnly());

    const struct
    {
        const char* m_Operation;
        const char* m_Name;
        std::function<bool(CQDFilePath&)> m_Run;
    } cases[] = {
        {"erase", "file", [&](CQDFilePath& path) { return path.EraseFile(); }},
        {"copy", "file", [&](CQDFilePath& path) { return path.CopyFileTo(disk / "copy"); }},
        {"rename", "file", [&](CQDFilePath& path) { return path.RenameFile(disk / "renamed"); }},
        {"replace", "file", [&](CQDFilePath& path) { return path.ReplaceFileWith(disk / "file"); }},
        {"make directory", "new", [&](CQDFilePath& path) { return path.MakeDirectory(); }},
        {"erase directory", "folder", [&](CQDFilePath& path) { return path.EraseDirectory(); }},
    };

    const int before = CountOpenDescriptors();

    for (const auto& [operation, name, run] : cases) {
        SCOPED_TRACE(operation);
        CQDFilePath path(disk / name);

        EXPECT_FALSE(run(path));

        EXPECT_EQ(path.GetLastErrorCode(), EROFS);
        EXPECT_EQ(CountOpenDescriptors(), before);
    }
    EXPECT_TRUE(CQDFilePath(disk / "file").FileExists());
}

TEST(CQDFilePath, DiskWithoutRoomForAnEntryRefusesNewOnes)
{
    const SmallFileSystem disk("nr_inodes=2"); // the root folder's and one
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    WriteFileText(disk / "file", "content");
    CQDFilePath directory(disk / "new");
    CQDFilePath file(disk / "file");
    const int before = CountOpenDescriptors();

    EXPECT_FALSE(directory.MakeDirectory());
    EXPECT_FALSE(file.CopyFileTo(disk / "copy"));

    EXPECT_EQ(directory.GetLastErrorCode(), ENOSPC);
    EXPECT_EQ(file.GetLastErrorCode(), ENOSPC);
    EXPECT_EQ(CountOpenDescriptors(), before);
}

// --- CopyFileTo ---

TEST(CQDFilePath, CopyFileToCopiesFilesOfAnySize)
{
    const TemporaryFolder folder;
    for (const unsigned int size : {0u, 1u, 4095u, 4096u, 4097u, 8192u, 1000000u}) {
        for (const bool isInKernel : {true, false}) {
            SCOPED_TRACE(std::to_string(size) + (isInKernel ? " in the kernel" : " by blocks"));
            const std::string content = SomeContent(size);
            WriteFileText(folder / "source", content);
            const FaultPlan plan("copy_file_range", isInKernel ? 0 : 1, EXDEV);
            CQDFilePath path(folder / "source");

            EXPECT_TRUE(path.CopyFileTo(folder / "copy"));

            EXPECT_NE(plan.HasFailed(), isInKernel);
            EXPECT_TRUE(ReadFileText(folder / "copy") == content);
            EXPECT_EQ(path.GetLastErrorCode(), 0);
            std::filesystem::remove(folder / "copy");
        }
    }
}

TEST(CQDFilePath, CopyFileToMovesTheBytesInsideTheKernel)
{
    const SmallFileSystem disk("size=1m");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    WriteFileText(disk / "source", SomeContent(100000));
    const FaultPlan counter("write", 0, 0);

    EXPECT_TRUE(CQDFilePath(disk / "source").CopyFileTo(disk / "copy"));

    EXPECT_EQ(counter.GetCallCount(), 0);
}

TEST(CQDFilePath, CopyFileToFollowsASymbolicLink)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "content");
    std::filesystem::create_symlink("file", folder / "link");

    EXPECT_TRUE(CQDFilePath(folder / "link").CopyFileTo(folder / "copy"));

    EXPECT_FALSE(std::filesystem::is_symlink(folder / "copy"));
    EXPECT_EQ(ReadFileText(folder / "copy"), "content");
}

TEST(CQDFilePath, CopyFileToGoesBetweenFileSystems)
{
    const TemporaryFolder folder;
    const SmallFileSystem disk("size=1m");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    const std::string content = SomeContent(10000);
    WriteFileText(folder / "source", content);

    EXPECT_TRUE(CQDFilePath(folder / "source").CopyFileTo(disk / "copy"));

    EXPECT_TRUE(ReadFileText(disk / "copy") == content);
}

TEST(CQDFilePath, CopyFileToCopiesWhatHasNoSize)
{
    const TemporaryFolder folder;

    EXPECT_TRUE(CQDFilePath("/proc/version").CopyFileTo(folder / "copy"));

    EXPECT_NE(ReadFileText(folder / "copy"), "");
    EXPECT_EQ(ReadFileText(folder / "copy"), ReadFileText("/proc/version"));
}

TEST(CQDFilePath, CopyFileToGoesInBlocksOf4096Bytes)
{
    const std::string content = SomeContent(12288);
    const std::pair<const char*, int> counts[] = {{"read", 4}, {"write", 3}}; // the fourth read finds the end

    for (const auto& [function, count] : counts) {
        SCOPED_TRACE(function);
        const TemporaryFolder folder;
        PipeToRead pipe;
        pipe.Write(content);
        pipe.CloseWriter();
        {
            const FaultPlan counter(function, 0, 0);

            EXPECT_TRUE(CQDFilePath(pipe.GetPath()).CopyFileTo(folder / "copy"));

            EXPECT_EQ(counter.GetCallCount(), count);
        }
        EXPECT_TRUE(ReadFileText(folder / "copy") == content);
    }
}

TEST(CQDFilePath, CopyFileToGoesOnAfterAShortRead)
{
    const TemporaryFolder folder;
    PipeToRead pipe(O_DIRECT);
    for (const char* const packet : {"first,", "second,", "third"})
        pipe.Write(packet);
    pipe.CloseWriter();

    EXPECT_TRUE(CQDFilePath(pipe.GetPath()).CopyFileTo(folder / "copy"));

    EXPECT_EQ(ReadFileText(folder / "copy"), "first,second,third");
}

// The first write ends at the limit for the size of a file; those that follow are interrupted until the limit is gone.
TEST(CQDFilePath, CopyFileToWritesTheRestAfterAShortWrite)
{
    const TemporaryFolder folder;
    const std::string content = SomeContent(3000);
    PipeToRead pipe;
    pipe.Write(content);
    pipe.CloseWriter();
    rlimit before = {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    rlimit limit = before;
    limit.rlim_cur = 1000;
    auto plan = std::make_unique<FaultPlan>("write", 2, EINTR, FaultPlan::Repeat::Forever);
    bool wasShort = false;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    std::thread helper([&] {
        wasShort = WaitUntil([&] { return plan->HasFailed(); });
        ::setrlimit(RLIMIT_FSIZE, &before);
        plan.reset();
    });

    const bool isCopied = CQDFilePath(pipe.GetPath()).CopyFileTo(folder / "copy");

    helper.join();
    EXPECT_TRUE(isCopied);
    EXPECT_TRUE(wasShort);
    EXPECT_TRUE(ReadFileText(folder / "copy") == content);
}

TEST(CQDFilePath, CopyFileToOpensCloseOnExec)
{
    const TemporaryFolder folder;
    PipeToRead pipe;
    const std::string source = pipe.GetPath();
    int flags = -1;
    std::thread writer([&] {
        if (WaitUntil([&] { return FindDescriptorOf(folder / "copy") != -1; }))
            flags = ::fcntl(FindDescriptorOf(folder / "copy"), F_GETFD);
        pipe.CloseWriter();
    });

    EXPECT_TRUE(CQDFilePath(source).CopyFileTo(folder / "copy"));

    writer.join();
    EXPECT_EQ(flags, FD_CLOEXEC);
}

TEST(CQDFilePath, CopyFileToWritesWithModeForAll)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "source", "");
    ASSERT_EQ(::chmod((folder / "source").c_str(), 0400), 0);
    const ScopedUmask none(0);

    EXPECT_TRUE(CQDFilePath(folder / "source").CopyFileTo(folder / "copy"));

    EXPECT_EQ(ModeOf(folder / "copy"), 0666u);
}

TEST(CQDFilePath, CopyFileToLeavesAnExistingDestinationAlone)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "source", "new");
    WriteFileText(folder / "destination", "old");
    std::filesystem::create_symlink("none", folder / "dangling");
    const int before = CountOpenDescriptors();

    for (const char* const name : {"destination", "dangling", "source"}) {
        SCOPED_TRACE(name);
        CQDFilePath path(folder / "source");

        EXPECT_FALSE(path.CopyFileTo(folder / name));

        EXPECT_EQ(path.GetLastErrorCode(), EEXIST);
        EXPECT_EQ(CountOpenDescriptors(), before);
    }
    EXPECT_EQ(ReadFileText(folder / "source"), "new");
    EXPECT_EQ(ReadFileText(folder / "destination"), "old");
}

TEST(CQDFilePath, CopyFileToWithoutSourceMakesNoDestination)
{
    const TemporaryFolder folder;
    CQDFilePath path(folder / "none");
    const int before = CountOpenDescriptors();

    EXPECT_FALSE(path.CopyFileTo(folder / "copy"));

    EXPECT_EQ(path.GetLastErrorCode(), ENOENT);
    EXPECT_EQ(CountOpenDescriptors(), before);
    EXPECT_FALSE(std::filesystem::exists(folder / "copy"));
}

TEST(CQDFilePath, CopyFileToTakesAReadErrorForTheEnd)
{
    const TemporaryFolder folder;
    std::filesystem::create_directory(folder / "folder");
    CQDFilePath path(folder / "folder");
    const int before = CountOpenDescriptors();

    EXPECT_TRUE(path.CopyFileTo(folder / "copy"));

    EXPECT_EQ(path.GetLastErrorCode(), 0);
    EXPECT_EQ(CountOpenDescriptors(), before);
    EXPECT_EQ(ReadFileText(folder / "copy"), "");
    EXPECT_TRUE(std::filesystem::is_regular_file(folder / "copy"));
}

TEST(CQDFilePath, CopyFileToKeepsWhatItCopiedBeforeAReadError)
{
    const TemporaryFolder folder;
    const std::string content = SomeContent(12288);
    PipeToRead pipe;
    pipe.Write(content);
    pipe.CloseWriter();
    CQDFilePath path(pipe.GetPath());
    const int before = CountOpenDescriptors();
    {
        const FaultPlan plan("read", 2, EIO);

        EXPECT_TRUE(path.CopyFileTo(folder / "copy"));

        EXPECT_TRUE(plan.HasFailed());
    }
    EXPECT_EQ(path.GetLastErrorCode(), 0);
    EXPECT_EQ(CountOpenDescriptors(), before);
    EXPECT_TRUE(ReadFileText(folder / "copy") == content.substr(0, 4096));
}

TEST(CQDFilePath, CopyFileToFailsOnAFullDiskAndKeepsWhatWasWritten)
{
    for (const bool isSameDisk : {true, false}) {
        SCOPED_TRACE(isSameDisk ? "from the same disk" : "from another disk");
        const TemporaryFolder folder;
        const SmallFileSystem disk(isSameDisk ? "size=128k" : "size=64k");
        if (!disk.IsMounted())
            GTEST_SKIP() << disk.GetReason();
        const std::string content = SomeContent(81920);
        CQDFilePath path(isSameDisk ? disk / "source" : folder / "source");
        WriteFileText(path.GetPath(), content);
        const int before = CountOpenDescriptors();

        EXPECT_FALSE(path.CopyFileTo(disk / "copy"));

        EXPECT_EQ(path.GetLastErrorCode(), ENOSPC);
        EXPECT_EQ(CountOpenDescriptors(), before);
        EXPECT_TRUE(ReadFileText(disk / "copy") == content.substr(0, isSameDisk ? 49152 : 65536));
    }
}

TEST(CQDFilePath, CopyFileToGoesOnByBlocksWhereTheKernelStops)
{
    const SmallFileSystem disk("size=1m");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    const std::string content = SomeContent(100000);
    WriteFileText(disk / "source", content);
    const FaultPlan plan("copy_file_range", 2, EIO);

    EXPECT_TRUE(CQDFilePath(disk / "source").CopyFileTo(disk / "copy"));

    EXPECT_TRUE(plan.HasFailed());
    EXPECT_TRUE(ReadFileText(disk / "copy") == content);
}

TEST(CQDFilePath, CopyFileToRepeatsWhatASignalInterrupts)
{
    const TemporaryFolder folder;
    const std::string source = "/proc/version"; // copied by blocks
    const std::pair<const char*, int> calls[] = {{"open", 1}, {"open", 2}, {"read", 1}, {"write", 1}};

    for (const auto& [function, nth] : calls) {
        SCOPED_TRACE(std::string(function) + " " + std::to_string(nth));
        CQDFilePath path(source);
        const std::string copy = folder / (function + std::to_string(nth));
        bool hasFailed = false;
        {
            const FaultPlan plan(function, nth, EINTR);

            EXPECT_TRUE(path.CopyFileTo(copy));

            hasFailed = plan.HasFailed();
        }
        EXPECT_TRUE(hasFailed);
        EXPECT_EQ(path.GetLastErrorCode(), 0);
        EXPECT_NE(ReadFileText(copy), "");
        EXPECT_EQ(ReadFileText(copy), ReadFileText(source));
    }
}

TEST(CQDFilePath, CopyFileToFailsWhenTheDestinationDoesNotClose)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "source", "content");
    CQDFilePath path(folder / "source");
    const int before = CountOpenDescriptors();
    {
        const FaultPlan plan("close", 1, EIO);

        EXPECT_FALSE(path.CopyFileTo(folder / "copy"));
    }

    EXPECT_EQ(path.GetLastErrorCode(), EIO);
    EXPECT_EQ(CountOpenDescriptors(), before);
    EXPECT_EQ(ReadFileText(folder / "copy"), "content");
}

// --- Standard folders ---

TEST(CQDFilePath, SetToHOMEFolderTakesTheVariable)
{
    for (const char* const home : {"/home/u", "/home/u/", "relative", ""}) {
        SCOPED_TRACE(home);
        const ScopedVariable scopedHome("HOME", home);
        CQDFilePath path("old");

        EXPECT_TRUE(path.SetToHOMEFolder());

        EXPECT_EQ(path.GetPath(), home);
    }
}

TEST(CQDFilePath, StandardFoldersKeepTheErrorWhenTheySucceed)
{
    const TemporaryFolder root;
    const ScopedVariable scopedHome("HOME", root.GetPath().c_str());
    CQDFilePath path("");
    ASSERT_FALSE(path.FileExists());

    EXPECT_TRUE(path.SetToHOMEFolder());
    EXPECT_EQ(path.GetLastErrorCode(), ENOENT);
    EXPECT_TRUE(path.CreateUserFolder("first", false));
    EXPECT_EQ(path.GetLastErrorCode(), ENOENT);
    EXPECT_TRUE(path.UnixCreateCommonFolder(root.GetPath().c_str(), "second"));
    EXPECT_EQ(path.GetLastErrorCode(), ENOENT);
    EXPECT_TRUE(path.SetFontsFolder(0));
    EXPECT_EQ(path.GetLastErrorCode(), ENOENT);
    path.SetToModuleFileName();
    EXPECT_FALSE(path.IsEmpty());
    EXPECT_EQ(path.GetLastErrorCode(), ENOENT);
}

TEST(CQDFilePath, WithoutHOMETheFoldersOfTheUserFailAndClearThePath)
{
    const ScopedVariable unset("HOME", nullptr);
    const std::pair<const char*, std::function<bool(CQDFilePath&)>> cases[] = {
        {"SetToHOMEFolder", [](CQDFilePath& path) { return path.SetToHOMEFolder(); }},
        {"CreateUserFolder", [](CQDFilePath& path) { return path.CreateUserFolder("a", false); }},
        {"CreateUserLogFileFolder", [](CQDFilePath& path) { return path.CreateUserLogFileFolder("a"); }},
    };
    for (const auto& [name, operation] : cases) {
        SCOPED_TRACE(name);
        CQDFilePath path("old");

        EXPECT_FALSE(operation(path));

        EXPECT_TRUE(path.IsEmpty());
        EXPECT_EQ(path.GetLastErrorCode(), 0);
    }
}

TEST(CQDFilePath, CreateUserFolderMakesTheFolderAtHome)
{
    const TemporaryFolder home;
    const ScopedVariable scopedHome("HOME", home.GetPath().c_str());
    CQDFilePath visible;
    CQDFilePath hidden;
    CQDFilePath logs;

    EXPECT_TRUE(visible.CreateUserFolder("My Data", false));
    EXPECT_TRUE(hidden.CreateUserFolder("My Logs", true));
    EXPECT_TRUE(logs.CreateUserLogFileFolder("Other Logs"));

    EXPECT_EQ(visible.GetPath(), home / "mydata");
    EXPECT_EQ(hidden.GetPath(), home / ".mylogs");
    EXPECT_EQ(logs.GetPath(), home / ".otherlogs");
    EXPECT_TRUE(std::filesystem::is_directory(home / "mydata"));
    EXPECT_TRUE(std::filesystem::is_directory(home / ".mylogs"));
    EXPECT_TRUE(std::filesystem::is_directory(home / ".otherlogs"));
}

TEST(CQDFilePath, CreateUserFolderSucceedsWhereTheFolderIs)
{
    const TemporaryFolder home;
    const ScopedVariable scopedHome("HOME", home.GetPath().c_str());
    CQDFilePath path;
    ASSERT_TRUE(path.CreateUserFolder("data", false));

    EXPECT_TRUE(path.CreateUserFolder("data", false));
    EXPECT_EQ(path.GetLastErrorCode(), EEXIST);
}

TEST(CQDFilePath, CreateUserFolderReportsAMissingHome)
{
    const TemporaryFolder folder;
    const ScopedVariable scopedHome("HOME", (folder / "none").c_str());
    CQDFilePath path;

    EXPECT_FALSE(path.CreateUserFolder("data", true));

    EXPECT_EQ(path.GetPath(), folder / "none/.data");
    EXPECT_EQ(path.GetLastErrorCode(), ENOENT);
}

TEST(CQDFilePath, FolderNamesAreNormalised)
{
    const TemporaryFolder root;
    const std::pair<const char*, const char*> cases[] = {
        {"My Logs", "mylogs"},
        {"plain-name_1.d", "plain-name_1.d"},
        {"ABCXYZ", "abcxyz"},
        {" \tA\nB\vC\fD\rE ", "abcde"},
        {"@[`{", "@[`{"},
        {"\xC3\x84\xC3\x96 \xCE\xA3", "\xC3\xA4\xC3\xB6\xCF\x83"}, // U+00C4 U+00D6 U+03A3
        {"\xC4\xB0", "i"},                                         // U+0130
        {"\xF0\x90\x90\x80", "\xF0\x90\x90\xA8"},                  // U+10400
        {"\xC3\x9F\xCE\xBC", "\xC3\x9F\xCE\xBC"},                  // lower-case already
        {"\xCF\x92"
         "A",
         "\xCF\x92"
         "a"}, // U+03D2, a capital without a small letter
        {"\xC2\xA0"
         "A",
         "\xC2\xA0"
         "a"}, // U+00A0 is not ASCII
        {"A\xFF"
         "B\xC3X\xE2\x82",
         "a\xFF"
         "b\xC3x\xE2\x82"},               // not UTF-8
        {"\xEF\xBF\xBD", "\xEF\xBF\xBD"}, // U+FFFD itself
    };
    for (const auto& [name, folder] : cases) {
        SCOPED_TRACE(name);
        CQDFilePath path;

        EXPECT_TRUE(path.UnixCreateCommonFolder(root.GetPath().c_str(), name));

        EXPECT_EQ(path.GetPath(), root / folder);
        EXPECT_TRUE(std::filesystem::is_directory(root / folder));
    }
}

TEST(CQDFilePath, EmptyFolderNamesGiveTheRoot)
{
    const TemporaryFolder root;
    for (const char* const name : {"", " \t", static_cast<const char*>(nullptr)}) {
        CQDFilePath path;

        EXPECT_TRUE(path.UnixCreateCommonFolder(root.GetPath().c_str(), name));

        EXPECT_EQ(path.GetPath(), root.GetPath() + "/");
        EXPECT_EQ(path.GetLastErrorCode(), EEXIST);
    }
}

TEST(CQDFilePath, UnixCreateCommonFolderTakesTheRootAsItIs)
{
    const TemporaryFolder folder;
    std::filesystem::create_directory(folder / "Root Folder");
    CQDFilePath path;

    EXPECT_TRUE(path.UnixCreateCommonFolder((folder / "Root Folder").c_str(), "Name"));
    EXPECT_EQ(path.GetPath(), folder / "Root Folder/name");
    EXPECT_TRUE(std::filesystem::is_directory(folder / "Root Folder/name"));
    EXPECT_FALSE(path.UnixCreateCommonFolder((folder / "none").c_str(), "Name"));
    EXPECT_EQ(path.GetPath(), folder / "none/name");
    EXPECT_EQ(path.GetLastErrorCode(), ENOENT);
}

TEST(CQDFilePath, FolderNamesMayBePartsOfThePathItself)
{
    const TemporaryFolder home;
    const ScopedVariable scopedHome("HOME", home.GetPath().c_str());
    CQDFilePath path("A Name that is long enough for the heap");

    EXPECT_TRUE(path.CreateUserFolder(path.GetPathCStr(), false));
    EXPECT_EQ(path.GetPath(), home / "anamethatislongenoughfortheheap");
    EXPECT_TRUE(path.UnixCreateCommonFolder(path.GetPathCStr(), "Sub"));
    EXPECT_EQ(path.GetPath(), home / "anamethatislongenoughfortheheap/sub");
}

TEST(CQDFilePath, SetDefaultConfigurationFolderMakesIt)
{
    const SmallFileSystem disk("size=64k");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    const FolderInPlaceOf share(disk / "share", "/usr/share");
    ASSERT_TRUE(share.IsMounted());
    CQDFilePath path;

    EXPECT_TRUE(path.SetDefaultConfigurationFolder());
    EXPECT_EQ(path.GetPath(), "/usr/share/quendrel-scada");
    EXPECT_TRUE(std::filesystem::is_directory(disk / "share/quendrel-scada"));
    EXPECT_TRUE(path.SetDefaultConfigurationFolder()); // it is there
}

TEST(CQDFilePath, CreateCommonSamplesFolderMakesBothFolders)
{
    const SmallFileSystem disk("size=64k");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    if (!std::filesystem::is_directory("/opt"))
        GTEST_SKIP() << "no /opt to mount a folder on";
    const FolderInPlaceOf opt(disk / "opt", "/opt");
    ASSERT_TRUE(opt.IsMounted());
    CQDFilePath path;

    EXPECT_TRUE(path.CreateCommonSamplesFolder("My Samples"));

    EXPECT_EQ(path.GetPath(), "/opt/quendrelscadaserver/My Samples");
    EXPECT_TRUE(std::filesystem::is_directory(disk / "opt/quendrelscadaserver/My Samples"));
    EXPECT_TRUE(path.CreateCommonSamplesFolder("My Samples")); // both are there
    EXPECT_EQ(path.GetPath(), "/opt/quendrelscadaserver/My Samples");
}

TEST(CQDFilePath, CreateCommonSamplesFolderReportsASubfolderThatCannotBeMade)
{
    const SmallFileSystem disk("size=64k");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    if (!std::filesystem::is_directory("/opt"))
        GTEST_SKIP() << "no /opt to mount a folder on";
    const FolderInPlaceOf opt(disk / "opt", "/opt");
    ASSERT_TRUE(opt.IsMounted());
    CQDFilePath path;

    EXPECT_FALSE(path.CreateCommonSamplesFolder("none/x"));

    EXPECT_EQ(path.GetLastErrorCode(), ENOENT);
    EXPECT_EQ(path.GetPath(), "/opt/quendrelscadaserver/none/x");
    EXPECT_TRUE(std::filesystem::is_directory(disk / "opt/quendrelscadaserver"));
}

TEST(CQDFilePath, StandardFoldersReportAReadOnlySystem)
{
    SmallFileSystem disk("size=64k");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    if (!std::filesystem::is_directory("/opt"))
        GTEST_SKIP() << "no /opt to mount a folder on";
    const FolderInPlaceOf share(disk / "share", "/usr/share");
    const FolderInPlaceOf opt(disk / "opt", "/opt");
    ASSERT_TRUE(share.IsMounted() && opt.IsMounted());
    ASSERT_TRUE(disk.MakeReadOnly());
    CQDFilePath configuration;
    CQDFilePath samples;

    EXPECT_FALSE(configuration.SetDefaultConfigurationFolder());
    EXPECT_FALSE(samples.CreateCommonSamplesFolder("x"));

    EXPECT_EQ(configuration.GetLastErrorCode(), EROFS);
    EXPECT_EQ(samples.GetLastErrorCode(), EROFS);
    EXPECT_EQ(samples.GetPath(), "/opt/quendrelscadaserver"); // nothing was appended
}

TEST(CQDFilePath, SetFontsFolderTakesAnyIndex)
{
    EXPECT_EQ(CQDFilePath::GetFontFolderPathCount(), 1);
    for (const int index : {0, 1, -1, 1000}) {
        SCOPED_TRACE(index);
        CQDFilePath path;

        EXPECT_TRUE(path.SetFontsFolder(index));

        EXPECT_EQ(path.GetPath(), "/usr/share/fonts");
    }
}

TEST(CQDFilePath, SetToModuleFileNameGivesTheProgram)
{
    CQDFilePath path("old");

    path.SetToModuleFileName();

    EXPECT_TRUE(path.IsAbsolute());
    EXPECT_EQ(path.GetPath(), std::filesystem::read_symlink("/proc/self/exe"));
    EXPECT_EQ(path.GetLastErrorCode(), 0);
}

// Runs itself once more, as a program whose path is longer.
TEST(CQDFilePath, SetToModuleFileNameCutsTheNameAt512Bytes)
{
    const std::string program = std::filesystem::read_symlink("/proc/self/exe");
    if (program.size() > 512) {
        CQDFilePath path;

        path.SetToModuleFileName();

        EXPECT_EQ(path.GetPath(), program.substr(0, 512));
        return;
    }
    if (RunsEmulated())
        GTEST_SKIP() << "the emulator starts no program of its architecture";
    const TemporaryFolder folder;
    const std::string name(200, 'd');
    const std::string deep = folder / (name + '/' + name + '/' + name);
    std::filesystem::create_directories(deep);
    std::filesystem::copy_file(program, deep + "/program");
    ChildProcess copy({deep + "/program", "--gtest_filter=CQDFilePath.SetToModuleFileNameCutsTheNameAt512Bytes"});

    EXPECT_EQ(copy.WaitForExit(), 0) << copy.GetOutput();

    EXPECT_NE(copy.GetOutput().find("[  PASSED  ] 1 test"), std::string::npos) << copy.GetErrors();
}

TEST(CQDFilePath, SetToModuleFileNameClearsThePathWhenItFails)
{
    CQDFilePath path("old");
    const FaultPlan plan("readlink", 1, ENOENT);

    path.SetToModuleFileName();

    EXPECT_TRUE(path.IsEmpty());
    EXPECT_EQ(path.GetLastErrorCode(), ENOENT);
}
