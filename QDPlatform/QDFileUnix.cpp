#include <QDPlatform/QDFileUnix.h>

#include <QDPlatform/QDFilePath.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace
{

constexpr mode_t kNewFileMode = 0664;

// Offsets up to 2^32 - 1 and lengths of 64 bits are handed on as they are.
static_assert(sizeof(off_t) == sizeof(long long));

} // namespace

QDFileUnix::~QDFileUnix()
{
    CloseFile();
}

bool QDFileUnix::OpenFileForWrite(const CQDFilePath& path)
{
    return Open(path, O_WRONLY | O_CREAT | O_TRUNC);
}

bool QDFileUnix::OpenFileForAppend(const CQDFilePath& path)
{
    if (!Open(path, O_WRONLY | O_CREAT))
        return false;
    ::lseek(m_Fd, 0, SEEK_END); // fails for what has no position, such as a pipe, and needs none
    TakeSizeOfFile();
    return true;
}

bool QDFileUnix::OpenFileForRead(const CQDFilePath& path, bool /*flag*/)
{
    if (!Open(path, O_RDONLY))
        return false;
    TakeSizeOfFile();
    return true;
}

bool QDFileUnix::CloseFile()
{
    m_Error.SetLastErrorCode(0);
    if (m_Fd < 0)
        return true;
    return ::close(std::exchange(m_Fd, -1)) == 0 || FailWith(errno); // the descriptor is gone even after EINTR
}

bool QDFileUnix::WriteBytes(const void* data, unsigned int length)
{
    m_Error.SetLastErrorCode(0);
    if (length == 0)
        return IsFileOpen() || FailWith(EBADF);
    const ssize_t written = ::write(m_Fd, data, length); // once, even after EINTR: that is the contract
    if (written < 0)
        return FailWith(errno);
    m_FileSize += written;
    return static_cast<size_t>(written) == length;
}

bool QDFileUnix::ReadBytes(void* buffer, unsigned int size, unsigned int& bytesRead)
{
    m_Error.SetLastErrorCode(0);
    const ssize_t count = ::read(m_Fd, buffer, size); // once, even after EINTR: that is the contract
    if (count < 0)
        return FailWith(errno);
    bytesRead = static_cast<unsigned int>(count);
    return true;
}

bool QDFileUnix::TruncateFile(long long length)
{
    m_Error.SetLastErrorCode(0);
    int result;
    do
        result = ::ftruncate(m_Fd, length);
    while (result != 0 && errno == EINTR);
    if (result != 0)
        return FailWith(errno);
    m_FileSize = length;
    return true;
}

bool QDFileUnix::SkipBytes(unsigned int count)
{
    m_Error.SetLastErrorCode(0);
    return ::lseek(m_Fd, off_t{count}, SEEK_CUR) >= 0 || FailWith(errno);
}

bool QDFileUnix::SeekToOffset(unsigned int offset)
{
    m_Error.SetLastErrorCode(0);
    if (!m_MaySeekBeyondEnd) {
        const off_t end = ::lseek(m_Fd, 0, SEEK_END);
        if (end < 0)
            return FailWith(errno);
        if (offset > end)
            return false;
    }
    return ::lseek(m_Fd, off_t{offset}, SEEK_SET) >= 0 || FailWith(errno);
}

long long QDFileUnix::GetFileSize() const
{
    return m_FileSize;
}

bool QDFileUnix::IsFileOpen() const
{
    return m_Fd >= 0;
}

// Closes what is open without a word to the error code, which an opening changes only when it fails.
bool QDFileUnix::Open(const CQDFilePath& path, int flags)
{
    if (m_Fd >= 0)
        ::close(m_Fd);
    do
        m_Fd = ::open(path.GetPathCStr(), flags | O_CLOEXEC, kNewFileMode);
    while (m_Fd < 0 && errno == EINTR);
    return m_Fd >= 0 || FailWith(errno);
}

void QDFileUnix::TakeSizeOfFile()
{
    struct stat status;
    if (::fstat(m_Fd, &status) == 0)
        m_FileSize = status.st_size;
}

bool QDFileUnix::FailWith(int error)
{
    m_Error.SetLastErrorCode(error);
    return false;
}
