#include <QDPlatform/QDFilePath.h>

#include <QDPlatform/QDChar.h>
#include <QDPlatform/QDString.h>
#include <QDPlatform/QDUniqueFd.h>
#include <QDPlatform/UnicodeCharTable.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace
{

constexpr mode_t kNewFolderMode = 0775;
constexpr mode_t kNewFileMode = 0666;
constexpr std::size_t kCopyBlockBytes = 4096;
constexpr std::size_t kKernelCopyBytes = std::size_t{1} << 30; // at most, in one call
constexpr std::size_t kModuleFileNameBytes = 512;

std::string_view TextOf(const char* text)
{
    return text == nullptr ? std::string_view() : std::string_view(text);
}

bool EqualsNoCase(std::string_view a, std::string_view b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](unsigned char x, unsigned char y) { return CQDChar::ToLower(x) == CQDChar::ToLower(y); });
}

bool IsWhiteSpace(int cp)
{
    return cp == ' ' || ('\t' <= cp && cp <= '\r');
}

// Bytes that are not UTF-8 decode to U+FFFD, which has no other case: they are copied, like all that does not change.
// 0 is the table's word for "no other case", too.
std::string NormaliseFolderName(std::string_view name)
{
    std::string normalised;
    const char* p = name.data();
    const char* const end = p + name.size();
    while (p != end) {
        const char* const start = p;
        const int cp = qd_codepoint_from_qdchar(p, end);
        const int lower = UnicodeCharTable::ToLower(cp);
        if (lower != cp && lower != 0)
            qd_append_codepoint_to_qdstring(lower, normalised);
        else if (!IsWhiteSpace(cp))
            normalised.append(start, p);
    }
    return normalised;
}

void RemoveLastComponent(std::string& path)
{
    const std::size_t slash = path.rfind('/');
    if (slash != std::string::npos)
        path.erase(slash == 0 ? 1 : slash);
}

int OpenRepeated(const char* path, int flags, mode_t mode = 0)
{
    int fd;
    do
        fd = ::open(path, flags | O_CLOEXEC, mode);
    while (fd < 0 && errno == EINTR);
    return fd;
}

// Writes all of it, and returns 0 or the errno.
int WriteCompletely(int fd, const char* data, std::size_t length)
{
    while (length > 0) {
        const ssize_t written = ::write(fd, data, length);
        if (written == 0)
            return EIO; // no file system should; without this one that does would hold the loop for ever
        if (written < 0 && errno != EINTR)
            return errno;
        if (written > 0) {
            data += written;
            length -= static_cast<std::size_t>(written);
        }
    }
    return 0;
}

// Copies from the present position of `source` to its end, or to a read error, and returns 0 or the errno of a write.
int CopyContent(int source, int destination)
{
    // Inside the kernel as far as it goes. Where it cannot (files of /proc, pipes, two kinds of file system) or fails,
    // the loop below goes on at the position reached, and sees which of the two files it was.
    while (::copy_file_range(source, nullptr, destination, nullptr, kKernelCopyBytes, 0) > 0) {
    }
    char block[kCopyBlockBytes];
    for (;;) {
        const ssize_t length = ::read(source, block, sizeof block);
        if (length < 0 && errno == EINTR)
            continue;
        if (length <= 0)
            return 0;
        if (const int error = WriteCompletely(destination, block, static_cast<std::size_t>(length)); error != 0)
            return error;
    }
}

} // namespace

CQDFilePath::CQDFilePath(const std::string& path) : m_Path(path) {}

CQDFilePath::CQDFilePath(const char* path) : m_Path(TextOf(path)) {}

CQDFilePath::CQDFilePath(const char* path, unsigned int length)
{
    SetFromString(path, length);
}

void CQDFilePath::SetFromString(const std::string& path)
{
    m_Path = path;
}

void CQDFilePath::SetFromString(const char* path, unsigned int length)
{
    m_Path.assign(path, length);
}

void CQDFilePath::Clear()
{
    m_Path.clear();
}

void CQDFilePath::Reserve(unsigned int length)
{
    m_Path.reserve(length);
}

bool CQDFilePath::IsEmpty() const
{
    return m_Path.empty();
}

const std::string& CQDFilePath::GetPath() const
{
    return m_Path;
}

const char* CQDFilePath::GetPathCStr() const
{
    return m_Path.c_str();
}

bool CQDFilePath::IsAbsolute() const
{
    return !m_Path.empty() && m_Path.front() == '/';
}

std::string::size_type CQDFilePath::FindName() const
{
    return m_Path.rfind('/') + 1; // npos + 1 is 0
}

std::string::size_type CQDFilePath::FindExtension() const
{
    const std::size_t position = m_Path.find_last_of("./");
    return position != npos && m_Path[position] == '.' ? position : npos;
}

void CQDFilePath::GetName(std::string& name) const
{
    const std::size_t start = FindName();
    const std::size_t extension = FindExtension();
    name.assign(m_Path, start, extension == npos ? npos : extension - start);
}

void CQDFilePath::GetNameAndExtension(std::string& name) const
{
    name.assign(m_Path, FindName(), npos);
}

void CQDFilePath::GetExtension(std::string& extension) const
{
    const std::size_t position = FindExtension();
    extension.assign(m_Path, position == npos ? m_Path.size() : position + 1, npos);
}

void CQDFilePath::GetDirectory(std::string& directory) const
{
    const std::size_t name = FindName();
    directory.assign(m_Path, 0, name == 0 ? 0 : name - 1);
}

void CQDFilePath::GetDirectory(CQDFilePath& directory) const
{
    GetDirectory(directory.m_Path);
}

// A new text is built and moved in, here and below: `extension` may be a part of this path.
void CQDFilePath::ChangeExtension(const char* extension)
{
    m_Path = m_Path.substr(0, FindExtension()).append(1, '.').append(TextOf(extension));
}

void CQDFilePath::SetExtensionIfNotSpecified(const char* extension)
{
    if (FindExtension() == npos)
        ChangeExtension(extension);
}

void CQDFilePath::MakeSureFileHasExtension(const char* extension)
{
    const std::size_t position = FindExtension();
    if (position == npos || EqualsNoCase(std::string_view(m_Path).substr(position + 1), TextOf(extension)))
        ChangeExtension(extension);
    else
        m_Path = (m_Path + '.').append(TextOf(extension));
}

bool CQDFilePath::IsFileOfType(const char* type) const
{
    const std::size_t position = FindExtension();
    if (position == npos)
        return false;
    const std::string_view expected = TextOf(type);
    const bool isWithDot = !expected.empty() && expected.front() == '.';
    return std::string_view(m_Path).substr(isWithDot ? position : position + 1) == expected;
}

void CQDFilePath::ChangeNameAndExtension(const std::string& nameAndExtension)
{
    m_Path.replace(FindName(), npos, nameAndExtension);
}

// The name first: it may be this path's own text.
void CQDFilePath::AppendFileName(const std::string& name)
{
    const std::size_t end = m_Path.size();
    m_Path += name;
    if (end > 0 && m_Path[end - 1] != '/')
        m_Path.insert(end, 1, '/');
}

void CQDFilePath::AppendName(const std::string& text)
{
    m_Path.insert(std::min(FindExtension(), m_Path.size()), text);
}

void CQDFilePath::GetRelativePathTo(const std::string& base, std::string& result) const
{
    const std::string folder = base + '/';
    std::size_t i = m_Path.find('/');
    std::size_t j = folder.find('/');
    const auto isShared = [&] { return i == j && i != npos && m_Path.compare(0, i, folder, 0, i) == 0; };
    if (!isShared()) {
        result = m_Path;
        return;
    }
    std::size_t last = 0;
    while (isShared()) {
        last = i;
        i = m_Path.find('/', i + 1);
        j = folder.find('/', j + 1);
    }
    for (; j != npos; j = folder.find('/', j + 1))
        result += "../";
    result.append(m_Path, last + 1, npos);
}

void CQDFilePath::GetCanonicalPath(CQDFilePath& result) const
{
    const std::string path = m_Path; // `result` may be this object
    std::size_t start = 0;
    for (std::size_t slash; (slash = path.find('/', start)) != npos; start = slash + 1) {
        const std::string component = path.substr(start, slash - start);
        if (component == "..") {
            RemoveLastComponent(result.m_Path);
        } else if (component != ".") {
            if (result.IsEmpty())
                result.m_Path = '/';
            result.AppendFileName(component);
        }
    }
    result.AppendFileName(path.substr(start));
}

bool CQDFilePath::FileExists()
{
    struct stat status;
    return ::stat(GetPathCStr(), &status) == 0 || FailWith(errno);
}

bool CQDFilePath::MakeDirectory()
{
    if (::mkdir(GetPathCStr(), kNewFolderMode) == 0)
        return true;
    const int error = errno;
    SetLastErrorCode(error);
    return error == EEXIST;
}

bool CQDFilePath::EraseDirectory()
{
    return ::rmdir(GetPathCStr()) == 0 || FailWith(errno);
}

bool CQDFilePath::EraseFile()
{
    return ::unlink(GetPathCStr()) == 0 || FailWith(errno);
}

bool CQDFilePath::CopyFileTo(const CQDFilePath& destination)
{
    const QDUniqueFd source(OpenRepeated(GetPathCStr(), O_RDONLY));
    if (!source.IsOpen())
        return FailWith(errno);
    QDUniqueFd copy(OpenRepeated(destination.GetPathCStr(), O_WRONLY | O_CREAT | O_EXCL, kNewFileMode));
    if (!copy.IsOpen())
        return FailWith(errno);
    if (const int error = CopyContent(source.Get(), copy.Get()); error != 0)
        return FailWith(error);
    return ::close(copy.Release()) == 0 || FailWith(errno); // a network's file system may refuse the content only now
}

bool CQDFilePath::RenameFile(const CQDFilePath& destination)
{
    return ::rename(GetPathCStr(), destination.GetPathCStr()) == 0 || FailWith(errno);
}

bool CQDFilePath::ReplaceFileWith(const CQDFilePath& replacement)
{
    return EraseFile() && (::rename(replacement.GetPathCStr(), GetPathCStr()) == 0 || FailWith(errno));
}

bool CQDFilePath::GenerateTemporaryFileName(const char* /*prefix*/)
{
    return false;
}

bool CQDFilePath::SetToHOMEFolder()
{
    const char* const home = std::getenv("HOME");
    m_Path = TextOf(home);
    return home != nullptr;
}

bool CQDFilePath::SetDefaultConfigurationFolder()
{
    return UnixCreateCommonFolder("/usr/share", "quendrel-scada");
}

bool CQDFilePath::CreateUserFolder(const char* name, bool hidden)
{
    const std::string folder = NormaliseFolderName(TextOf(name)); // `name` may be a part of this path
    if (!SetToHOMEFolder())
        return false;
    m_Path.append(hidden ? "/." : "/").append(folder);
    return MakeDirectory();
}

bool CQDFilePath::CreateUserLogFileFolder(const char* name)
{
    return CreateUserFolder(name, true);
}

bool CQDFilePath::CreateCommonSamplesFolder(const char* subfolder)
{
    const std::string folder(TextOf(subfolder)); // may be a part of this path
    if (!UnixCreateCommonFolder("/opt", "QuendrelSCADAServer"))
        return false;
    AppendFileName(folder);
    return MakeDirectory();
}

bool CQDFilePath::UnixCreateCommonFolder(const char* root, const char* name)
{
    m_Path = std::string(TextOf(root)).append(1, '/').append(NormaliseFolderName(TextOf(name)));
    return MakeDirectory();
}

int CQDFilePath::GetFontFolderPathCount()
{
    return 1;
}

bool CQDFilePath::SetFontsFolder(int /*index*/)
{
    m_Path = "/usr/share/fonts";
    return true;
}

void CQDFilePath::SetToModuleFileName()
{
    char link[64];
    char target[kModuleFileNameBytes];
    qd_sprintf(link, sizeof link, "/proc/%d/exe", static_cast<int>(::getpid()));
    const ssize_t length = ::readlink(link, target, sizeof target);
    if (length < 0)
        FailWith(errno);
    m_Path.assign(target, length < 0 ? 0 : static_cast<std::size_t>(length));
}

bool CQDFilePath::FailWith(int error)
{
    SetLastErrorCode(error);
    return false;
}
