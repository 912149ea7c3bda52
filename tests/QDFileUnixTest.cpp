#include <QDPlatform/QDFileUnix.h>

#include <QDPlatform/QDFilePath.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

#include "FaultPlan.h"
#include "OpenDescriptors.h"
#include "ScopedUmask.h"
#include "SmallFileSystem.h"
#include "TemporaryFolder.h"
#include "VirtualSlot.h"

namespace
{

constexpr long long kThreeGiB = 3LL << 30;

int ErrorOf(const QDFile& file)
{
    return file.GetError().GetLastErrorCode();
}

// Leaves the file with the code EBADF, whether it is open or not.
void LeaveError(QDFileUnix& file)
{
    file.CloseFile();
    ASSERT_FALSE(file.WriteBytes("x", 1));
    ASSERT_EQ(ErrorOf(file), EBADF);
}

bool WriteText(QDFile& file, const std::string& text)
{
    return file.WriteBytes(text.data(), static_cast<unsigned int>(text.size()));
}

// What one call reads, of 100 bytes at most.
std::string ReadText(QDFile& file)
{
    char buffer[100];
    unsigned int length = 12345;
    EXPECT_TRUE(file.ReadBytes(buffer, sizeof buffer, length));
    return {buffer, length <= sizeof buffer ? length : 0};
}

// A pipe with a name, with both ends kept open.
class NamedPipe
{
public:
    explicit NamedPipe(const std::string& path)
    {
        EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0);
        m_Fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    }

    NamedPipe(const NamedPipe&) = delete;
    NamedPipe& operator=(const NamedPipe&) = delete;

    ~NamedPipe() { ::close(m_Fd); }

private:
    int m_Fd;
};

class SparseFile : public QDFileUnix
{
public:
    SparseFile() { m_MaySeekBeyondEnd = true; }

    virtual void Next() {} // takes the next free position among the virtual functions
};

struct Opening
{
    const char* m_Name;
    bool (*m_Open)(QDFileUnix&, const CQDFilePath&);
};

constexpr Opening kOpenings[] = {
    {"write", [](QDFileUnix& file, const CQDFilePath& path) { return file.OpenFileForWrite(path); }},
    {"append", [](QDFileUnix& file, const CQDFilePath& path) { return file.OpenFileForAppend(path); }},
    {"read", [](QDFileUnix& file, const CQDFilePath& path) { return file.OpenFileForRead(path, false); }},
};

} // namespace

TEST(QDFileUnix, KeepsTheOrderOfVirtualOperationsAndAddsNone)
{
    EXPECT_TRUE((std::is_base_of_v<QDFile, QDFileUnix>));
    EXPECT_EQ(VirtualSlot(&QDFileUnix::OpenFileForWrite), 2);
    EXPECT_EQ(VirtualSlot(&QDFileUnix::IsFileOpen), 12);
    EXPECT_EQ(VirtualSlot(&SparseFile::Next), 13);
}

TEST(QDFileUnix, StartsClosedWithSizeZero)
{
    const QDFileUnix file;

    EXPECT_FALSE(file.IsFileOpen());
    EXPECT_EQ(file.GetFileSize(), 0);
    EXPECT_EQ(ErrorOf(file), 0);
}

TEST(QDFileUnix, DestructorClosesTheFile)
{
    const TemporaryFolder folder;
    const int before = CountOpenDescriptors();

    {
        QDFileUnix file;
        ASSERT_TRUE(file.OpenFileForWrite(folder / "file"));
        ASSERT_EQ(CountOpenDescriptors(), before + 1);
    }

    EXPECT_EQ(CountOpenDescriptors(), before);
}

// --- Opening ---

TEST(QDFileUnix, OpeningForWriteMakesAFile)
{
    const TemporaryFolder folder;
    QDFileUnix file;

    EXPECT_TRUE(file.OpenFileForWrite(folder / "file"));

    EXPECT_TRUE(file.IsFileOpen());
    EXPECT_EQ(file.GetFileSize(), 0);
    EXPECT_TRUE(std::filesystem::exists(folder / "file"));
}

TEST(QDFileUnix, OpeningForWriteDropsTheContent)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "old content");
    QDFileUnix file;

    ASSERT_TRUE(file.OpenFileForWrite(folder / "file"));

    EXPECT_EQ(ReadFileText(folder / "file"), "");
    EXPECT_EQ(file.GetFileSize(), 0);
}

TEST(QDFileUnix, OpeningForWriteLeavesTheSizeCounter)
{
    const TemporaryFolder folder;
    QDFileUnix file;
    ASSERT_TRUE(file.OpenFileForWrite(folder / "first"));
    ASSERT_TRUE(WriteText(file, "12345"));
    ASSERT_TRUE(file.CloseFile());

    ASSERT_TRUE(file.OpenFileForWrite(folder / "second"));

    EXPECT_EQ(file.GetFileSize(), 5);
}

TEST(QDFileUnix, OpeningForAppendTakesTheSizeAndGoesToTheEnd)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "old");
    QDFileUnix file;

    ASSERT_TRUE(file.OpenFileForAppend(folder / "file"));
    EXPECT_EQ(file.GetFileSize(), 3);
    ASSERT_TRUE(WriteText(file, "0123456789"));

    EXPECT_EQ(file.GetFileSize(), 13);
    EXPECT_EQ(ReadFileText(folder / "file"), "old0123456789");
}

TEST(QDFileUnix, OpeningForAppendMakesAFile)
{
    const TemporaryFolder folder;
    QDFileUnix file;

    ASSERT_TRUE(file.OpenFileForAppend(folder / "file"));
    ASSERT_TRUE(WriteText(file, "new"));

    EXPECT_EQ(file.GetFileSize(), 3);
    EXPECT_EQ(ReadFileText(folder / "file"), "new");
}

TEST(QDFileUnix, AppendingGoesOnFromThePositionAtOpening)
{
    const TemporaryFolder folder;
    QDFileUnix first;
    QDFileUnix second;
    ASSERT_TRUE(first.OpenFileForAppend(folder / "file"));
    ASSERT_TRUE(second.OpenFileForAppend(folder / "file"));

    ASSERT_TRUE(WriteText(first, "first"));
    ASSERT_TRUE(WriteText(second, "2nd"));

    EXPECT_EQ(ReadFileText(folder / "file"), "2ndst");
}

TEST(QDFileUnix, OpeningForAppendSucceedsWhereThereIsNoPosition)
{
    const TemporaryFolder folder;
    const NamedPipe pipe(folder / "pipe");
    QDFileUnix file;

    EXPECT_TRUE(file.OpenFileForAppend(folder / "pipe"));

    EXPECT_EQ(ErrorOf(file), 0);
    EXPECT_TRUE(WriteText(file, "x"));
}

TEST(QDFileUnix, OpeningForReadTakesTheSizeWhateverTheFlag)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "content");

    for (const bool flag : {false, true}) {
        SCOPED_TRACE(flag);
        QDFileUnix file;

        ASSERT_TRUE(file.OpenFileForRead(folder / "file", flag));

        EXPECT_EQ(file.GetFileSize(), 7);
        EXPECT_EQ(ReadText(file), "content");
        EXPECT_FALSE(WriteText(file, "x"));
        EXPECT_EQ(ErrorOf(file), EBADF);
    }
}

TEST(QDFileUnix, OpeningForReadMakesNoFile)
{
    const TemporaryFolder folder;
    QDFileUnix file;

    EXPECT_FALSE(file.OpenFileForRead(folder / "file", true));

    EXPECT_EQ(ErrorOf(file), ENOENT);
    EXPECT_FALSE(std::filesystem::exists(folder / "file"));
}

TEST(QDFileUnix, FilesOpenForWritingCannotBeRead)
{
    const TemporaryFolder folder;
    char buffer[4];
    unsigned int length = 12345;
    for (const int opening : {0, 1}) {
        SCOPED_TRACE(kOpenings[opening].m_Name);
        QDFileUnix file;
        ASSERT_TRUE(kOpenings[opening].m_Open(file, folder / "file"));

        EXPECT_FALSE(file.ReadBytes(buffer, sizeof buffer, length));

        EXPECT_EQ(ErrorOf(file), EBADF);
        EXPECT_EQ(length, 12345u);
    }
}

TEST(QDFileUnix, NewFilesAreReadableForAllAndWritableForTheGroup)
{
    const TemporaryFolder folder;
    const ScopedUmask none(0);
    QDFileUnix file;

    ASSERT_TRUE(file.OpenFileForWrite(folder / "written"));
    ASSERT_TRUE(file.OpenFileForAppend(folder / "appended"));

    EXPECT_EQ(ModeOf(folder / "written"), 0664u);
    EXPECT_EQ(ModeOf(folder / "appended"), 0664u);
}

TEST(QDFileUnix, NewFilesHeedTheUmask)
{
    const TemporaryFolder folder;
    const ScopedUmask strict(077);
    QDFileUnix file;

    ASSERT_TRUE(file.OpenFileForWrite(folder / "file"));

    EXPECT_EQ(ModeOf(folder / "file"), 0600u);
}

TEST(QDFileUnix, DescriptorsAreCloseOnExecAndOtherwisePlain)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "");
    for (const Opening& opening : kOpenings) {
        SCOPED_TRACE(opening.m_Name);
        QDFileUnix file;

        ASSERT_TRUE(opening.m_Open(file, folder / "file"));

        const int fd = FindDescriptorOf(folder / "file");
        EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(::fcntl(fd, F_GETFL) & (O_APPEND | O_NONBLOCK | O_SYNC), 0);
    }
}

TEST(QDFileUnix, OpeningFollowsSymbolicLinks)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "content");
    std::filesystem::create_symlink("file", folder / "link");
    for (const Opening& opening : kOpenings) {
        SCOPED_TRACE(opening.m_Name);
        QDFileUnix file;

        EXPECT_TRUE(opening.m_Open(file, folder / "link"));

        EXPECT_NE(FindDescriptorOf(folder / "file"), -1);
    }
    EXPECT_TRUE(std::filesystem::is_symlink(folder / "link"));
}

TEST(QDFileUnix, FailedOpeningStoresTheErrnoAndLeavesNothingOpen)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "");
    std::filesystem::create_directory(folder / "locked");
    std::filesystem::create_symlink("loop", folder / "loop");
    ASSERT_EQ(::chmod((folder / "locked").c_str(), 0), 0);
    const std::pair<std::string, int> cases[] = {
        {"", ENOENT},
        {folder / "none/file", ENOENT},
        {folder / "file/file", ENOTDIR},
        {folder / "loop", ELOOP},
        {folder / std::string(300, 'x'), ENAMETOOLONG},
        {folder / "locked/file", EACCES},
    };
    ASSERT_EQ(::chmod(folder.GetPath().c_str(), 0755), 0);
    const int before = CountOpenDescriptors();

    for (const auto& [path, error] : cases) {
        for (const Opening& opening : kOpenings) {
            SCOPED_TRACE(path + " " + opening.m_Name);
            QDFileUnix file;
            {
                const UnprivilegedUser nobody;

                EXPECT_FALSE(opening.m_Open(file, path));
            }

            EXPECT_EQ(ErrorOf(file), error);
            EXPECT_FALSE(file.IsFileOpen());
            EXPECT_EQ(CountOpenDescriptors(), before);
        }
    }
    ASSERT_EQ(::chmod((folder / "locked").c_str(), 0700), 0);
}

TEST(QDFileUnix, FoldersCanBeOpenedForReadOnlyAndNotRead)
{
    const TemporaryFolder folder;
    QDFileUnix file;
    char buffer[4];
    unsigned int length = 0;
    const int before = CountOpenDescriptors();

    EXPECT_FALSE(file.OpenFileForWrite(folder.GetPath()));
    EXPECT_EQ(ErrorOf(file), EISDIR);
    EXPECT_EQ(CountOpenDescriptors(), before);
    EXPECT_TRUE(file.OpenFileForRead(folder.GetPath(), false));
    EXPECT_FALSE(file.ReadBytes(buffer, sizeof buffer, length));
    EXPECT_EQ(ErrorOf(file), EISDIR);
}

TEST(QDFileUnix, ReadOnlyFileSystemRefusesWriters)
{
    SmallFileSystem disk("size=64k");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    WriteFileText(disk / "file", "content");
    ASSERT_TRUE(disk.MakeReadOnly());
    QDFileUnix file;
    const int before = CountOpenDescriptors();

    EXPECT_FALSE(file.OpenFileForWrite(disk / "file"));
    EXPECT_EQ(ErrorOf(file), EROFS);
    EXPECT_FALSE(file.OpenFileForAppend(disk / "file"));
    EXPECT_EQ(ErrorOf(file), EROFS);
    EXPECT_EQ(CountOpenDescriptors(), before);
    EXPECT_TRUE(file.OpenFileForRead(disk / "file", false));
    EXPECT_EQ(ReadText(file), "content");
}

TEST(QDFileUnix, DiskWithoutRoomForANewFileRefusesIt)
{
    const SmallFileSystem disk("nr_inodes=2"); // the root folder's and one
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    WriteFileText(disk / "file", "");
    QDFileUnix file;
    const int before = CountOpenDescriptors();

    EXPECT_FALSE(file.OpenFileForWrite(disk / "another"));

    EXPECT_EQ(ErrorOf(file), ENOSPC);
    EXPECT_EQ(CountOpenDescriptors(), before);
}

TEST(QDFileUnix, OpeningAnOpenFileClosesItFirst)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "second", "2");
    for (const Opening& opening : kOpenings) {
        SCOPED_TRACE(opening.m_Name);
        QDFileUnix file;
        ASSERT_TRUE(file.OpenFileForWrite(folder / "first"));
        const int before = CountOpenDescriptors();
        const int first = FindDescriptorOf(folder / "first");
        ASSERT_NE(first, -1);

        EXPECT_TRUE(opening.m_Open(file, folder / "second"));

        EXPECT_EQ(CountOpenDescriptors(), before);
        EXPECT_EQ(FindDescriptorOf(folder / "first"), -1);
        EXPECT_EQ(FindDescriptorOf(folder / "second"), first); // the lowest that is free, so the first was closed
    }
}

TEST(QDFileUnix, FailedOpeningOfAnOpenFileLeavesItClosed)
{
    const TemporaryFolder folder;
    for (const Opening& opening : kOpenings) {
        SCOPED_TRACE(opening.m_Name);
        QDFileUnix file;
        const int before = CountOpenDescriptors();
        ASSERT_TRUE(file.OpenFileForWrite(folder / "first"));
        ASSERT_TRUE(WriteText(file, "12345"));

        EXPECT_FALSE(opening.m_Open(file, folder / "none/second"));

        EXPECT_FALSE(file.IsFileOpen());
        EXPECT_EQ(file.GetFileSize(), 5); // of what it had open
        EXPECT_EQ(ErrorOf(file), ENOENT);
        EXPECT_EQ(CountOpenDescriptors(), before);
    }
}

TEST(QDFileUnix, SuccessfulOpeningKeepsTheErrorCode)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "");
    for (const Opening& opening : kOpenings) {
        SCOPED_TRACE(opening.m_Name);
        QDFileUnix file;
        LeaveError(file);

        ASSERT_TRUE(opening.m_Open(file, folder / "file"));

        EXPECT_EQ(ErrorOf(file), EBADF);
    }
}

TEST(QDFileUnix, InterruptedOpeningIsRepeated)
{
    const TemporaryFolder folder;
    QDFileUnix file;
    const FaultPlan plan("open", 1, EINTR);

    EXPECT_TRUE(file.OpenFileForWrite(folder / "file"));

    EXPECT_TRUE(plan.HasFailed());
    EXPECT_EQ(ErrorOf(file), 0);
}

TEST(QDFileUnix, SizeCounterStaysWhenTheFileHidesItsSize)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "content");
    for (const int opening : {1, 2}) {
        SCOPED_TRACE(kOpenings[opening].m_Name);
        QDFileUnix file;
        ASSERT_TRUE(file.OpenFileForWrite(folder / "another"));
        ASSERT_TRUE(WriteText(file, "12345"));
        const FaultPlan plan("fstat", 1, EIO);

        EXPECT_TRUE(kOpenings[opening].m_Open(file, folder / "file"));

        EXPECT_TRUE(plan.HasFailed());
        EXPECT_EQ(file.GetFileSize(), 5);
        EXPECT_EQ(ErrorOf(file), 0);
    }
}

TEST(QDFileUnix, DescriptorZeroIsOneLikeOthers)
{
    const TemporaryFolder folder;
    QDFileUnix file;
    const int input = ::fcntl(0, F_DUPFD_CLOEXEC, 3);
    ::close(0);

    EXPECT_TRUE(file.OpenFileForWrite(folder / "file"));
    EXPECT_EQ(FindDescriptorOf(folder / "file"), 0);
    EXPECT_TRUE(file.IsFileOpen());
    EXPECT_TRUE(file.WriteBytes(nullptr, 0));
    EXPECT_TRUE(file.OpenFileForAppend(folder / "file"));
    EXPECT_EQ(FindDescriptorOf(folder / "file"), 0);
    EXPECT_TRUE(file.CloseFile());
    EXPECT_EQ(::fcntl(0, F_GETFD), -1);

    if (input >= 0) {
        ::dup2(input, 0);
        ::close(input);
    }
}

// --- Closing ---

TEST(QDFileUnix, ClosingAClosedFileSucceeds)
{
    QDFileUnix file;

    EXPECT_TRUE(file.CloseFile());
    EXPECT_TRUE(file.CloseFile());
}

TEST(QDFileUnix, ClosingKeepsTheSizeCounter)
{
    const TemporaryFolder folder;
    QDFileUnix file;
    ASSERT_TRUE(file.OpenFileForWrite(folder / "file"));
    ASSERT_TRUE(WriteText(file, "12345"));

    EXPECT_TRUE(file.CloseFile());

    EXPECT_FALSE(file.IsFileOpen());
    EXPECT_EQ(file.GetFileSize(), 5);
}

TEST(QDFileUnix, FailedCloseLeavesTheFileClosed)
{
    const TemporaryFolder folder;
    QDFileUnix file;
    ASSERT_TRUE(file.OpenFileForWrite(folder / "file"));
    ASSERT_EQ(::close(FindDescriptorOf(folder / "file")), 0); // behind the object's back

    EXPECT_FALSE(file.CloseFile());

    EXPECT_EQ(ErrorOf(file), EBADF);
    EXPECT_FALSE(file.IsFileOpen());
    EXPECT_TRUE(file.CloseFile());
    EXPECT_EQ(ErrorOf(file), 0);
}

// --- Writing and reading ---

TEST(QDFileUnix, WritesAllBytesAndCountsThem)
{
    const TemporaryFolder folder;
    const std::string content("a\0\r\n\x80\xFF", 6);
    QDFileUnix file;
    ASSERT_TRUE(file.OpenFileForWrite(folder / "file"));

    EXPECT_TRUE(WriteText(file, content));
    EXPECT_TRUE(WriteText(file, "more"));

    EXPECT_EQ(file.GetFileSize(), 10);
    EXPECT_EQ(ReadFileText(folder / "file"), content + "more");
}

TEST(QDFileUnix, WritingNothingTellsWhetherTheFileIsOpen)
{
    const TemporaryFolder folder;
    QDFileUnix file;

    EXPECT_FALSE(file.WriteBytes(nullptr, 0));
    EXPECT_EQ(ErrorOf(file), EBADF);

    ASSERT_TRUE(file.OpenFileForWrite(folder / "file"));
    const FaultPlan counter("write", 0, 0);
    EXPECT_TRUE(file.WriteBytes(nullptr, 0));
    EXPECT_EQ(ErrorOf(file), 0);
    EXPECT_EQ(file.GetFileSize(), 0);
    EXPECT_EQ(counter.GetCallCount(), 0);
}

TEST(QDFileUnix, OneWriteIsOneCall)
{
    const TemporaryFolder folder;
    QDFileUnix file;
    ASSERT_TRUE(file.OpenFileForWrite(folder / "file"));
    const FaultPlan counter("write", 0, 0);

    ASSERT_TRUE(WriteText(file, std::string(100000, 'x')));

    EXPECT_EQ(counter.GetCallCount(), 1);
}

TEST(QDFileUnix, InterruptedWriteIsNotRepeated)
{
    const TemporaryFolder folder;
    QDFileUnix file;
    ASSERT_TRUE(file.OpenFileForWrite(folder / "file"));
    const FaultPlan plan("write", 1, EINTR);

    EXPECT_FALSE(WriteText(file, "text"));

    EXPECT_EQ(ErrorOf(file), EINTR);
    EXPECT_EQ(file.GetFileSize(), 0);
    EXPECT_EQ(plan.GetCallCount(), 1);
}

TEST(QDFileUnix, FullDeviceFailsWithItsErrno)
{
    QDFileUnix file;
    ASSERT_TRUE(file.OpenFileForWrite("/dev/full"));

    EXPECT_FALSE(WriteText(file, "text"));

    EXPECT_EQ(ErrorOf(file), ENOSPC);
    EXPECT_EQ(file.GetFileSize(), 0);
}

TEST(QDFileUnix, PartialWriteFailsWithoutErrorNumber)
{
    const SmallFileSystem disk("size=64k");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    QDFileUnix file;
    LeaveError(file);
    ASSERT_TRUE(file.OpenFileForWrite(disk / "file"));

    EXPECT_FALSE(WriteText(file, std::string(100000, 'x')));
    EXPECT_EQ(ErrorOf(file), 0);
    EXPECT_EQ(file.GetFileSize(), 65536);
    EXPECT_FALSE(WriteText(file, "y"));
    EXPECT_EQ(ErrorOf(file), ENOSPC);
    EXPECT_EQ(file.GetFileSize(), 65536);

    EXPECT_EQ(ReadFileText(disk / "file"), std::string(65536, 'x'));
}

TEST(QDFileUnix, WritesInTheMiddleCountAsWell)
{
    const TemporaryFolder folder;
    QDFileUnix file;
    ASSERT_TRUE(file.OpenFileForWrite(folder / "file"));
    ASSERT_TRUE(WriteText(file, "0123456789"));
    ASSERT_TRUE(file.SeekToOffset(2));

    ASSERT_TRUE(WriteText(file, "xyz"));

    EXPECT_EQ(file.GetFileSize(), 13);
    EXPECT_FALSE(file.SeekToOffset(11)); // the file ends at 10, whatever the counter says
    EXPECT_EQ(ErrorOf(file), 0);
    EXPECT_EQ(ReadFileText(folder / "file"), "01xyz56789");
}

TEST(QDFileUnix, SizeIsNotAskedOfTheFile)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "12345");
    QDFileUnix file;
    ASSERT_TRUE(file.OpenFileForRead(folder / "file", false));

    std::filesystem::resize_file(folder / "file", 100);

    EXPECT_EQ(file.GetFileSize(), 5);
    EXPECT_TRUE(file.SeekToOffset(50)); // seeking asks it
    EXPECT_EQ(file.GetFileSize(), 5);
}

TEST(QDFileUnix, ReadsPiecesUpToTheEnd)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "abcde");
    QDFileUnix file;
    ASSERT_TRUE(file.OpenFileForRead(folder / "file", false));
    char buffer[4] = {};
    unsigned int length = 0;

    EXPECT_TRUE(file.ReadBytes(buffer, 3, length));
    EXPECT_EQ(std::string(buffer, length), "abc");
    EXPECT_TRUE(file.ReadBytes(buffer, 3, length));
    EXPECT_EQ(std::string(buffer, length), "de");
    EXPECT_TRUE(file.ReadBytes(buffer, 3, length));
    EXPECT_EQ(length, 0u);
}

TEST(QDFileUnix, ReadingNothingSucceeds)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "abc");
    QDFileUnix file;
    ASSERT_TRUE(file.OpenFileForRead(folder / "file", false));
    unsigned int length = 12345;

    EXPECT_TRUE(file.ReadBytes(nullptr, 0, length));

    EXPECT_EQ(length, 0u);
}

TEST(QDFileUnix, InterruptedReadIsNotRepeated)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "abc");
    QDFileUnix file;
    ASSERT_TRUE(file.OpenFileForRead(folder / "file", false));
    char buffer[4];
    unsigned int length = 12345;
    const FaultPlan plan("read", 1, EINTR);

    EXPECT_FALSE(file.ReadBytes(buffer, sizeof buffer, length));

    EXPECT_EQ(ErrorOf(file), EINTR);
    EXPECT_EQ(length, 12345u);
    EXPECT_EQ(plan.GetCallCount(), 1);
}

// --- Truncating and moving ---

TEST(QDFileUnix, TruncatingCutsAndExtends)
{
    const TemporaryFolder folder;
    QDFileUnix file;
    ASSERT_TRUE(file.OpenFileForWrite(folder / "file"));
    ASSERT_TRUE(WriteText(file, "0123456789"));

    EXPECT_TRUE(file.TruncateFile(4));
    EXPECT_EQ(file.GetFileSize(), 4);
    EXPECT_EQ(ReadFileText(folder / "file"), "0123");
    EXPECT_TRUE(file.TruncateFile(6));
    EXPECT_EQ(file.GetFileSize(), 6);
    EXPECT_EQ(ReadFileText(folder / "file"), std::string("0123\0\0", 6));
}

TEST(QDFileUnix, TruncatingKeepsThePosition)
{
    const TemporaryFolder folder;
    QDFileUnix file;
    ASSERT_TRUE(file.OpenFileForWrite(folder / "file"));
    ASSERT_TRUE(WriteText(file, "abc"));

    ASSERT_TRUE(file.TruncateFile(0));
    ASSERT_TRUE(WriteText(file, "x"));

    EXPECT_EQ(ReadFileText(folder / "file"), std::string("\0\0\0x", 4));
    EXPECT_EQ(file.GetFileSize(), 1); // the counter's view
}

TEST(QDFileUnix, FailedTruncationKeepsTheSizeCounter)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "abc");
    QDFileUnix writer;
    QDFileUnix reader;
    ASSERT_TRUE(writer.OpenFileForAppend(folder / "file"));
    ASSERT_TRUE(reader.OpenFileForRead(folder / "file", false));

    EXPECT_FALSE(writer.TruncateFile(-1));
    EXPECT_EQ(ErrorOf(writer), EINVAL);
    EXPECT_EQ(writer.GetFileSize(), 3);
    EXPECT_FALSE(reader.TruncateFile(1));
    EXPECT_EQ(ErrorOf(reader), EINVAL);
    EXPECT_EQ(reader.GetFileSize(), 3);
    EXPECT_EQ(ReadFileText(folder / "file"), "abc");
}

TEST(QDFileUnix, InterruptedTruncationIsRepeated)
{
    const TemporaryFolder folder;
    QDFileUnix file;
    ASSERT_TRUE(file.OpenFileForWrite(folder / "file"));
    const FaultPlan plan("ftruncate", 1, EINTR);

    EXPECT_TRUE(file.TruncateFile(5));

    EXPECT_TRUE(plan.HasFailed());
    EXPECT_EQ(ErrorOf(file), 0);
}

TEST(QDFileUnix, SkippingMovesForwardFromThePosition)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "0123456789");
    QDFileUnix file;
    ASSERT_TRUE(file.OpenFileForRead(folder / "file", false));

    EXPECT_TRUE(file.SkipBytes(3));
    EXPECT_TRUE(file.SkipBytes(0));
    EXPECT_TRUE(file.SkipBytes(4));

    EXPECT_EQ(ReadText(file), "789");
}

TEST(QDFileUnix, SkippingGoesBeyondTheEnd)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "0123456789");
    QDFileUnix file;
    ASSERT_TRUE(file.OpenFileForRead(folder / "file", false));

    EXPECT_TRUE(file.SkipBytes(11));

    EXPECT_EQ(ReadText(file), "");
}

TEST(QDFileUnix, SeekingGoesToAnyOffsetUpToTheEnd)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "0123456789");
    QDFileUnix file;
    ASSERT_TRUE(file.OpenFileForRead(folder / "file", false));
    const std::pair<unsigned int, const char*> cases[] = {{10, ""}, {9, "9"}, {0, "0123456789"}, {5, "56789"}};

    for (const auto& [offset, rest] : cases) {
        SCOPED_TRACE(offset);
        EXPECT_TRUE(file.SeekToOffset(offset));
        EXPECT_EQ(ReadText(file), rest);
    }
}

TEST(QDFileUnix, SeekingBeyondTheEndFailsAtTheEndWithoutErrorNumber)
{
    const TemporaryFolder folder;
    QDFileUnix file;
    LeaveError(file);
    ASSERT_TRUE(file.OpenFileForWrite(folder / "file"));
    ASSERT_TRUE(WriteText(file, "0123456789"));
    ASSERT_TRUE(file.SeekToOffset(0));

    for (const unsigned int offset : {11u, 0x80000000u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(offset);
        EXPECT_FALSE(file.SeekToOffset(offset));
        EXPECT_EQ(ErrorOf(file), 0);
    }
    ASSERT_TRUE(WriteText(file, "x"));

    EXPECT_EQ(ReadFileText(folder / "file"), "0123456789x");
}

TEST(QDFileUnix, SeekingBeyondTheEndSucceedsWithTheFlag)
{
    const TemporaryFolder folder;
    SparseFile file;
    ASSERT_TRUE(file.OpenFileForWrite(folder / "file"));

    EXPECT_TRUE(file.SeekToOffset(3));
    ASSERT_TRUE(WriteText(file, "x"));

    EXPECT_EQ(ReadFileText(folder / "file"), std::string("\0\0\0x", 4));
}

TEST(QDFileUnix, MovingInAPipeFails)
{
    const TemporaryFolder folder;
    const NamedPipe pipe(folder / "pipe");
    QDFileUnix file;
    SparseFile sparseFile;
    ASSERT_TRUE(file.OpenFileForRead(folder / "pipe", false));
    ASSERT_TRUE(sparseFile.OpenFileForRead(folder / "pipe", false));

    EXPECT_FALSE(file.SkipBytes(1));
    EXPECT_EQ(ErrorOf(file), ESPIPE);
    EXPECT_FALSE(file.SeekToOffset(0));
    EXPECT_EQ(ErrorOf(file), ESPIPE);
    EXPECT_FALSE(sparseFile.SeekToOffset(0));
    EXPECT_EQ(ErrorOf(sparseFile), ESPIPE);
}

TEST(QDFileUnix, FailedMoveFromTheEndStoresTheErrno)
{
    const TemporaryFolder folder;
    QDFileUnix file;
    ASSERT_TRUE(file.OpenFileForWrite(folder / "file"));
    const FaultPlan plan("lseek", 2, EIO);

    EXPECT_FALSE(file.SeekToOffset(0));

    EXPECT_EQ(ErrorOf(file), EIO);
}

TEST(QDFileUnix, FilesBeyondTwoGiBAreHandled)
{
    const TemporaryFolder folder;
    QDFileUnix writer;
    ASSERT_TRUE(writer.OpenFileForWrite(folder / "file"));
    ASSERT_TRUE(writer.TruncateFile(kThreeGiB - 1));
    EXPECT_EQ(writer.GetFileSize(), kThreeGiB - 1);
    ASSERT_TRUE(writer.SeekToOffset(0xBFFFFFFF));
    ASSERT_TRUE(WriteText(writer, "x"));
    QDFileUnix reader;

    ASSERT_TRUE(reader.OpenFileForRead(folder / "file", false));
    EXPECT_EQ(reader.GetFileSize(), kThreeGiB);
    EXPECT_TRUE(reader.SkipBytes(0xBFFFFFFE));
    EXPECT_EQ(ReadText(reader), std::string("\0x", 2));
    EXPECT_TRUE(reader.SeekToOffset(0xBFFFFFFF));
    EXPECT_EQ(ReadText(reader), "x");

    QDFileUnix appender;
    ASSERT_TRUE(appender.OpenFileForAppend(folder / "file"));
    EXPECT_EQ(appender.GetFileSize(), kThreeGiB);
    ASSERT_TRUE(WriteText(appender, "y"));
    EXPECT_EQ(std::filesystem::file_size(folder / "file"), 3221225473u);
}

TEST(QDFileUnix, LongSkipsAddUp)
{
    const TemporaryFolder folder;
    QDFileUnix file;
    ASSERT_TRUE(file.OpenFileForWrite(folder / "file"));

    EXPECT_TRUE(file.SkipBytes(0xFFFFFFFF));
    EXPECT_TRUE(file.SkipBytes(0xFFFFFFFF));
    ASSERT_TRUE(WriteText(file, "x"));

    EXPECT_EQ(std::filesystem::file_size(folder / "file"), 8589934591u); // 2 * (2^32 - 1) + 1
}

// --- The error code ---

TEST(QDFileUnix, OperationsOnAClosedFileFail)
{
    QDFileUnix file;
    char buffer[4];
    unsigned int length = 12345;
    const std::pair<const char*, std::function<bool()>> cases[] = {
        {"write", [&] { return file.WriteBytes("x", 1); }},
        {"read", [&] { return file.ReadBytes(buffer, sizeof buffer, length); }},
        {"truncate", [&] { return file.TruncateFile(0); }},
        {"skip", [&] { return file.SkipBytes(0); }},
        {"seek", [&] { return file.SeekToOffset(0); }},
    };

    for (const auto& [name, operation] : cases) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(file.CloseFile()); // clears the code

        EXPECT_FALSE(operation());

        EXPECT_EQ(ErrorOf(file), EBADF);
        EXPECT_EQ(file.GetFileSize(), 0);
    }
    EXPECT_EQ(length, 12345u);
}

TEST(QDFileUnix, SuccessfulOperationsClearTheErrorCode)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "file", "");
    QDFileUnix file;
    char buffer[4];
    unsigned int length = 0;
    const std::pair<const char*, std::function<bool()>> cases[] = {
        {"write", [&] { return file.OpenFileForWrite(folder / "file") && file.WriteBytes("x", 1); }},
        {"write nothing", [&] { return file.OpenFileForWrite(folder / "file") && file.WriteBytes("x", 0); }},
        {"read", [&] { return file.OpenFileForRead(folder / "file", false) && file.ReadBytes(buffer, 4, length); }},
        {"truncate", [&] { return file.OpenFileForWrite(folder / "file") && file.TruncateFile(0); }},
        {"skip", [&] { return file.OpenFileForRead(folder / "file", false) && file.SkipBytes(0); }},
        {"seek", [&] { return file.OpenFileForRead(folder / "file", false) && file.SeekToOffset(0); }},
        {"close", [&] { return file.OpenFileForRead(folder / "file", false) && file.CloseFile(); }},
    };

    for (const auto& [name, operation] : cases) {
        SCOPED_TRACE(name);
        LeaveError(file);

        EXPECT_TRUE(operation());

        EXPECT_EQ(ErrorOf(file), 0);
    }
}

TEST(QDFileUnix, QueriesKeepTheErrorCode)
{
    QDFileUnix file;
    LeaveError(file);

    file.GetFileSize();
    file.IsFileOpen();

    EXPECT_EQ(ErrorOf(file), EBADF);
}
