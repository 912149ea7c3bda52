#pragma once

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

// What a test changes of the system in a namespace of its own, only this process and its children see; the process
// stays there. Both take root, or a system where every user may make namespaces: where neither holds they return false
// with the reason, and the test skips itself with it. To be called by a test's first thread, before there are others.

namespace PrivateNamespace
{

inline bool WriteProcFile(const char* path, const std::string& text)
{
    const int file = ::open(path, O_WRONLY | O_CLOEXEC);
    if (file < 0)
        return false;
    const bool ok = ::write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(file);
    return ok;
}

// kinds: CLONE_NEW... flags. A user who is not root becomes root in a user namespace, where the user's files stay the
// user's.
inline bool Enter(int kinds)
{
    const uid_t user = ::geteuid();
    const gid_t group = ::getegid();
    if (user == 0)
        return ::unshare(kinds) == 0;
    return ::unshare(CLONE_NEWUSER | kinds) == 0 && WriteProcFile("/proc/self/setgroups", "deny") &&
           WriteProcFile("/proc/self/uid_map", "0 " + std::to_string(user) + " 1") &&
           WriteProcFile("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
}

} // namespace PrivateNamespace

// What is mounted from now on is this process's own.
inline bool EnterMountNamespace(std::string& reason)
{
    if (PrivateNamespace::Enter(CLONE_NEWNS) && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0)
        return true;
    reason = std::string("no private mount namespace: ") + std::strerror(errno);
    return false;
}

// From now on the process has a network of its own: the loopback interface alone, up, every port free, those below 1024
// too. More interfaces can be made with ip(8).
inline bool EnterNetworkNamespace(std::string& reason)
{
    bool ok = PrivateNamespace::Enter(CLONE_NEWNET);
    if (ok) {
        ifreq request{};
        std::strcpy(request.ifr_name, "lo");
        request.ifr_flags = IFF_UP | IFF_RUNNING;
        const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ok = socket >= 0 && ::ioctl(socket, SIOCSIFFLAGS, &request) == 0;
        if (socket >= 0)
            ::close(socket);
    }
    if (!ok)
        reason = std::string("no private network namespace: ") + std::strerror(errno);
    return ok;
}
