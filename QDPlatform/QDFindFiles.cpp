#include <QDPlatform/QDFindFiles.h>

#include <QDPlatform/QDFilePath.h>
#include <QDPlatform/QDString.h>
#include <QDPlatform/QDWildcard.h>

#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

namespace
{

std::string SystemText(const std::string& text)
{
    uint8_t buffer[1024];
    const unsigned int length =
        qd_utf8_from_qdchar(text.data(), static_cast<unsigned int>(text.size()), buffer, sizeof buffer);
    return {reinterpret_cast<const char*>(buffer), length};
}

// A signal that interrupts the call before it did anything does not fail it.
DIR* OpenFolder(const char* path)
{
    DIR* folder = nullptr;
    do
        folder = ::opendir(path);
    while (folder == nullptr && errno == EINTR);
    return folder;
}

// Null at the end of the folder and on errors, but for EINTR.
const dirent* ReadEntry(DIR* folder)
{
    const dirent* entry = nullptr;
    do {
        errno = 0;
        entry = ::readdir(folder);
    } while (entry == nullptr && errno == EINTR);
    return entry;
}

uint32_t CappedSize(off_t size)
{
    static_assert(sizeof(off_t) == 8, "the library is compiled with _FILE_OFFSET_BITS=64");
    constexpr off_t kMaxSize = std::numeric_limits<uint32_t>::max();
    return static_cast<uint32_t>(std::min(size, kMaxSize));
}

} // namespace

CQDFindFiles::CQDFindFiles() = default;

CQDFindFiles::~CQDFindFiles()
{
    EndSearch();
}

bool CQDFindFiles::FirstFile(const std::string& pathAndPattern)
{
    EndSearch();
    const CQDFilePath path(pathAndPattern);
    std::string text;
    path.GetDirectory(text);
    m_Directory = SystemText(text).c_str(); // where opendir() too sees its end
    path.GetNameAndExtension(text);
    m_Pattern = SystemText(text);
    m_pDirectorySearch = OpenFolder(m_Directory.c_str());
    return NextFile();
}

bool CQDFindFiles::NextFile()
{
    if (m_pDirectorySearch == nullptr)
        return false;
    while ((m_pEntry = ReadEntry(m_pDirectorySearch)) != nullptr) {
        if (qd_wildcard_matches(m_Pattern, m_pEntry->d_name)) {
            ReadStatus();
            return true;
        }
    }
    EndSearch();
    return false;
}

void CQDFindFiles::GetName(std::string& name) const
{
    const char* systemName = m_pEntry == nullptr ? "" : m_pEntry->d_name;
    char buffer[1024]; // a name has 255 bytes at most
    const unsigned int length =
        qd_qdchar_from_utf8(reinterpret_cast<const uint8_t*>(systemName),
                            static_cast<unsigned int>(std::strlen(systemName)), buffer, sizeof buffer);
    name.assign(buffer, length);
}

uint32_t CQDFindFiles::GetSize() const
{
    return m_Status.m_Size;
}

void CQDFindFiles::GetModificationTime(CQDTimestamp& time) const
{
    time = m_Status.m_ModificationTime;
}

bool CQDFindFiles::IsDirectory() const
{
    if (m_Status.m_IsDirectory)
        return true;
    return m_pEntry != nullptr && (std::strcmp(m_pEntry->d_name, ".") == 0 || std::strcmp(m_pEntry->d_name, "..") == 0);
}

CQDFindFiles::Status::Status()
{
    m_ModificationTime.SetFromTimespec(timespec{});
}

void CQDFindFiles::ReadStatus()
{
    m_Status = Status();
    struct stat status;
    if (::stat((m_Directory + '/' + m_pEntry->d_name).c_str(), &status) != 0)
        return;
    m_Status.m_Size = CappedSize(status.st_size);
    m_Status.m_ModificationTime.SetFromTimespec(status.st_mtim);
    m_Status.m_IsDirectory = S_ISDIR(status.st_mode);
}

void CQDFindFiles::EndSearch()
{
    if (m_pDirectorySearch != nullptr)
        ::closedir(m_pDirectorySearch);
    m_pDirectorySearch = nullptr;
    m_pEntry = nullptr;
    m_Status = Status();
}
