#include "StationFolder.h"

#include <QDPlatform/QDFormatMessage.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

namespace
{

constexpr const char* kDefaultFolder = "QuendrelSCADA"; // the library makes it hidden and lower case
constexpr mode_t kLockFileMode = 0664;

std::string TextOf(int code)
{
    char text[256];
    QDFormatMessage(code, text, sizeof text);
    return text;
}

} // namespace

StationFolder::~StationFolder()
{
    if (m_Lock >= 0)
        ::close(m_Lock);
}

bool StationFolder::Open(const std::string& folder, std::string& error)
{
    return Create(folder, error) && Lock(error);
}

bool StationFolder::Create(const std::string& folder, std::string& error)
{
    CQDFilePath home;
    if (folder.empty() && (!home.SetToHOMEFolder() || home.IsEmpty())) {
        error = "HOME is not set; name a folder for the log and the registers with -logdir";
        return false;
    }
    m_Path.SetFromString(folder);
    if (folder.empty() ? m_Path.CreateUserLogFileFolder(kDefaultFolder) : m_Path.MakeDirectory())
        return true;
    error = "cannot create the folder " + m_Path.GetPath() + ": " + TextOf(m_Path.GetLastErrorCode());
    return false;
}

bool StationFolder::Lock(std::string& error)
{
    CQDFilePath lockFile = m_Path;
    lockFile.AppendFileName("station.lock");
    // Interrupted by no signal: the program handles none.
    m_Lock = ::open(lockFile.GetPathCStr(), O_RDWR | O_CREAT | O_CLOEXEC, kLockFileMode);
    if (m_Lock < 0) {
        const int code = errno;
        error = "cannot open " + lockFile.GetPath() + ": " + TextOf(code);
        return false;
    }
    if (::flock(m_Lock, LOCK_EX | LOCK_NB) == 0)
        return true;
    const int code = errno;
    error = code == EWOULDBLOCK ? "another station uses the folder " + m_Path.GetPath() +
                                      "; give this one a folder of its own with -logdir"
                                : "cannot lock " + lockFile.GetPath() + ": " + TextOf(code);
    return false;
}
