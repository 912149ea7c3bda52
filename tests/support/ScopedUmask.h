#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdio>
#include <cstdlib>
#include <string>

// The process's file mode creation mask, as long as it lives.
class ScopedUmask
{
public:
    explicit ScopedUmask(mode_t mask) : m_Previous(::umask(mask)) {}

    ScopedUmask(const ScopedUmask&) = delete;
    ScopedUmask& operator=(const ScopedUmask&) = delete;

    ~ScopedUmask() { ::umask(m_Previous); }

private:
    const mode_t m_Previous;
};

// The permissions of a file or folder, which must exist.
inline unsigned int ModeOf(const std::string& path)
{
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0) {
        std::perror(path.c_str());
        std::abort();
    }
    return status.st_mode & 07777;
}
