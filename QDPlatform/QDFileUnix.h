#pragma once

#include <QDPlatform/QDExport.h>
#include <QDPlatform/QDFile.h>

// A QDFile on a POSIX file descriptor; each read and write is one system call, without a buffer.
//
// Every operation that is not an opening or a query first sets the error code to 0; one that fails in the system stores
// its errno. On a closed file that is EBADF. The descriptor is close-on-exec. Files of any size are handled, on 32-bit
// systems too.
//
// An opening first closes what is still open, and what that close returns is lost; after a failed one the object is
// closed. Only a failed opening touches the error code.
//
// An opening and an ftruncate() that a signal interrupts (EINTR) are repeated; a read, a write and a close are not.
class QD_API QDFileUnix : public QDFile
{
public:
    // Closed, with a size of 0.
    QDFileUnix() = default;
    QDFileUnix(const QDFileUnix&) = delete;
    QDFileUnix& operator=(const QDFileUnix&) = delete;

    // Closes the file.
    ~QDFileUnix() override;

    // A new file has mode 0664 less the umask. The size counter stays as it is: 0 for a new object, else that of the
    // file that the object had before. Kept so; see OpeningForWriteLeavesTheSizeCounter in the tests.
    bool OpenFileForWrite(const CQDFilePath& path) override;

    // As above, without dropping the content, and with the position at the end and the size counter at the file's size,
    // or as it was when fstat() fails.
    // The position is taken once, without O_APPEND: what others append meanwhile is overwritten.
    bool OpenFileForAppend(const CQDFilePath& path) override;

    // The size counter becomes the file's size, or stays when fstat() fails. `flag` is ignored. A folder can be opened,
    // but not read.
    bool OpenFileForRead(const CQDFilePath& path, bool flag) override;

    // True when no file was open. After a failure the file is closed all the same.
    bool CloseFile() override;

    // One write(), which nothing repeats or completes. Adds what was written to the size counter, wherever the position
    // was. With a length of 0 nothing is written, `data` may be null, and the result tells whether a file is open.
    bool WriteBytes(const void* data, unsigned int length) override;

    // One read(). `buffer` may be null when `size` is 0.
    bool ReadBytes(void* buffer, unsigned int size, unsigned int& bytesRead) override;

    // ftruncate(): EINVAL for a negative length and for a file open for reading. The size counter becomes `length`.
    bool TruncateFile(long long length) override;

    // lseek(): false for what has no position, such as a pipe (ESPIPE).
    bool SkipBytes(unsigned int count) override;

    // When `offset` lies beyond the end, the position is at the end afterwards.
    bool SeekToOffset(unsigned int offset) override;

    // The size counter: set by opening for append or read, moved by writes and TruncateFile(), kept by CloseFile(). The
    // file is not asked.
    long long GetFileSize() const override;

    bool IsFileOpen() const override;

private:
    // Closes what is open and opens the file; on failure stores errno and returns false.
    QD_LOCAL bool Open(const CQDFilePath& path, int flags);

    // Sets the size counter by fstat(); leaves it when that fails.
    QD_LOCAL void TakeSizeOfFile();

    // Stores `error` and returns false.
    QD_LOCAL bool FailWith(int error);

    int m_Fd{-1};            // owned; -1 when closed
    long long m_FileSize{0}; // bytes
};
