#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

// Takes every free descriptor below a number, so that the next ones that the process opens are that number and up.
class TakenDescriptors
{
public:
    explicit TakenDescriptors(int nextFree = FD_SETSIZE)
    {
        ::getrlimit(RLIMIT_NOFILE, &m_Before);
        rlimit wanted = m_Before;
        const rlim_t needed = static_cast<rlim_t>(nextFree) + 64;
        if (wanted.rlim_cur < needed)
            wanted.rlim_cur = needed;
        Require(::setrlimit(RLIMIT_NOFILE, &wanted) == 0);
        while (true) {
            const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
            Require(fd >= 0);
            if (fd >= nextFree) {
                ::close(fd);
                return;
            }
            m_Descriptors.push_back(fd);
        }
    }

    TakenDescriptors(const TakenDescriptors&) = delete;
    TakenDescriptors& operator=(const TakenDescriptors&) = delete;

    ~TakenDescriptors()
    {
        for (const int fd : m_Descriptors)
            ::close(fd);
        ::setrlimit(RLIMIT_NOFILE, &m_Before);
    }

private:
    static void Require(bool holds)
    {
        if (holds)
            return;
        std::perror("TakenDescriptors");
        std::abort();
    }

    rlimit m_Before{};
    std::vector<int> m_Descriptors;
};

// The numbers of the process's open descriptors.
inline std::set<int> GetOpenDescriptors()
{
    std::set<int> numbers;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename().string());
        numbers.insert(fd);
    }
    // The folder's own descriptor is among them and closed by now.
    std::erase_if(numbers, [](int fd) { return ::fcntl(fd, F_GETFD) == -1; });
    return numbers;
}
