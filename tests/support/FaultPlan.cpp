#include "FaultPlan.h"

#include "NextFunction.h"

#include <dirent.h>
#include <fcntl.h>
#include <netdb.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

constexpr const char* kFunctions[] = {
    "socket",          "bind",       "listen",      "accept4",     "setsockopt",  "ioctl",         "pipe2",
    "pthread_create",  "select",     "read",        "recv",        "send",        "clock_gettime", "gettimeofday",
    "shutdown",        "getsockopt", "getpeername", "getsockname", "connect",     "open",          "pthread_mutex_init",
    "getnameinfo",     "write",      "close",       "lseek",       "ftruncate",   "fstat",         "stat",
    "unlink",          "rename",     "mkdir",       "rmdir",       "readlink",    "opendir",       "readdir",
    "copy_file_range", "sem_open",   "sem_wait",    "sem_post",    "gethostname", "fsync"};

// The plan in force. Written before and after the threads under test run their calls, read in all of them.
std::atomic<const char*> g_Function{nullptr};
std::atomic<int> g_Nth{0};
std::atomic<int> g_Error{0};
std::atomic<bool> g_Forever{false};
std::atomic<int> g_Calls{0};
std::atomic<bool> g_HasFailed{false};

std::atomic<bool> g_IsLastSelectUnlimited{false};
std::atomic<NameInfoSizes> g_LastNameInfoSizes{};
std::atomic<std::size_t> g_LastHostNameRoom{0};

std::atomic<long long> g_ClockShiftSeconds{0};

// Returns the error with which this call is to fail, or 0.
int TakeFault(const char* function)
{
    const char* planned = g_Function.load();
    if (planned == nullptr || std::strcmp(planned, function) != 0)
        return 0;
    const int call = g_Calls.fetch_add(1) + 1;
    const int nth = g_Nth.load();
    if (call != nth && !(g_Forever.load() && call > nth))
        return 0;
    g_HasFailed.store(true);
    return g_Error.load();
}

int FailWith(int error)
{
    errno = error;
    return -1;
}

} // namespace

FaultPlan::FaultPlan(const char* function, int nth, int error, Repeat repeat)
{
    bool known = false;
    for (const char* name : kFunctions)
        known = known || std::strcmp(name, function) == 0;
    if (!known || g_Function.load() != nullptr) {
        std::fprintf(stderr, "FaultPlan: %s cannot be planned now\n", function);
        std::abort();
    }
    g_Nth.store(nth);
    g_Error.store(error);
    g_Forever.store(repeat == Repeat::Forever);
    g_Calls.store(0);
    g_HasFailed.store(false);
    g_Function.store(function);
}

FaultPlan::~FaultPlan()
{
    g_Function.store(nullptr);
}

int FaultPlan::GetCallCount() const
{
    return g_Calls.load();
}

bool FaultPlan::HasFailed() const
{
    return g_HasFailed.load();
}

bool IsLastSelectUnlimited()
{
    return g_IsLastSelectUnlimited.load();
}

NameInfoSizes GetLastNameInfoSizes()
{
    return g_LastNameInfoSizes.load();
}

std::size_t GetLastHostNameRoom()
{
    return g_LastHostNameRoom.load();
}

ClockShift::ClockShift(long long unixSeconds)
{
    timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    g_ClockShiftSeconds.store(unixSeconds - now.tv_sec);
}

ClockShift::~ClockShift()
{
    g_ClockShiftSeconds.store(0);
}

// Each function asks the plan and then calls the next definition. The look-up is kept in a static: it is the same for
// the life of the process.
#define QD_TEST_WRAP(name, parameters, arguments)                                                                      \
    extern "C" int name parameters                                                                                     \
    {                                                                                                                  \
        static const auto next = NextFunction(#name, static_cast<int(*) parameters>(nullptr));                         \
        if (const int error = TakeFault(#name))                                                                        \
            return FailWith(error);                                                                                    \
        return next arguments;                                                                                         \
    }

QD_TEST_WRAP(socket, (int domain, int type, int protocol) noexcept, (domain, type, protocol))
QD_TEST_WRAP(bind, (int fd, const sockaddr* address, socklen_t length) noexcept, (fd, address, length))
QD_TEST_WRAP(listen, (int fd, int backlog) noexcept, (fd, backlog))
QD_TEST_WRAP(connect, (int fd, const sockaddr* address, socklen_t length), (fd, address, length))
QD_TEST_WRAP(accept4, (int fd, sockaddr* address, socklen_t* length, int flags), (fd, address, length, flags))
QD_TEST_WRAP(shutdown, (int fd, int how) noexcept, (fd, how))
QD_TEST_WRAP(getpeername, (int fd, sockaddr* address, socklen_t* length) noexcept, (fd, address, length))
QD_TEST_WRAP(getsockname, (int fd, sockaddr* address, socklen_t* length) noexcept, (fd, address, length))
QD_TEST_WRAP(setsockopt, (int fd, int level, int name, const void* value, socklen_t length) noexcept,
             (fd, level, name, value, length))
QD_TEST_WRAP(getsockopt, (int fd, int level, int name, void* value, socklen_t* length) noexcept,
             (fd, level, name, value, length))
QD_TEST_WRAP(pipe2, (int* ends, int flags) noexcept, (ends, flags))
QD_TEST_WRAP(ftruncate, (int fd, off_t length) noexcept, (fd, length))
QD_TEST_WRAP(fstat, (int fd, struct stat* status) noexcept, (fd, status))
QD_TEST_WRAP(stat, (const char* path, struct stat* status) noexcept, (path, status))
QD_TEST_WRAP(unlink, (const char* path) noexcept, (path))
QD_TEST_WRAP(rename, (const char* from, const char* to) noexcept, (from, to))
QD_TEST_WRAP(mkdir, (const char* path, mode_t mode) noexcept, (path, mode))
QD_TEST_WRAP(rmdir, (const char* path) noexcept, (path))
QD_TEST_WRAP(sem_wait, (sem_t * semaphore), (semaphore))
QD_TEST_WRAP(sem_post, (sem_t * semaphore) noexcept, (semaphore))
QD_TEST_WRAP(fsync, (int fd), (fd))

extern "C" int gethostname(char* name, size_t size) noexcept
{
    static const auto next = NextFunction("gethostname", &gethostname);
    g_LastHostNameRoom.store(size);
    if (const int error = TakeFault("gethostname"))
        return FailWith(error);
    return next(name, size);
}

extern "C" int select(int count, fd_set* readable, fd_set* writable, fd_set* failed, timeval* timeout)
{
    static const auto next = NextFunction("select", &select);
    g_IsLastSelectUnlimited.store(timeout == nullptr); // before the call counts
    if (const int error = TakeFault("select"))
        return FailWith(error);
    return next(count, readable, writable, failed, timeout);
}

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept
{
    static const auto next = NextFunction("clock_gettime", &clock_gettime);
    if (const int error = TakeFault("clock_gettime"))
        return FailWith(error);
    const int result = next(clock, now);
    if (result == 0 && clock == CLOCK_REALTIME)
        now->tv_sec += static_cast<time_t>(g_ClockShiftSeconds.load());
    return result;
}

extern "C" int gettimeofday(timeval* now, void* zone) noexcept
{
    static const auto next = NextFunction("gettimeofday", &gettimeofday);
    if (const int error = TakeFault("gettimeofday"))
        return FailWith(error);
    const int result = next(now, zone);
    if (result == 0)
        now->tv_sec += static_cast<time_t>(g_ClockShiftSeconds.load());
    return result;
}

// The errors of these come as the result, not in errno.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                              void* argument) noexcept
{
    static const auto next = NextFunction("pthread_create", &pthread_create);
    if (const int error = TakeFault("pthread_create"))
        return error;
    return next(thread, attributes, start, argument);
}

extern "C" int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) noexcept
{
    static const auto next = NextFunction("pthread_mutex_init", &pthread_mutex_init);
    if (const int error = TakeFault("pthread_mutex_init"))
        return error;
    return next(mutex, attributes);
}

extern "C" int getnameinfo(const sockaddr* address, socklen_t length, char* host, socklen_t hostSize, char* service,
                           socklen_t serviceSize, int flags)
{
    static const auto next = NextFunction("getnameinfo", &getnameinfo);
    g_LastNameInfoSizes.store({length, hostSize});
    if (const int error = TakeFault("getnameinfo"))
        return error;
    return next(address, length, host, hostSize, service, serviceSize, flags);
}

extern "C" ssize_t read(int fd, void* buffer, size_t size)
{
    static const auto next = NextFunction("read", &read);
    if (const int error = TakeFault("read"))
        return FailWith(error);
    return next(fd, buffer, size);
}

extern "C" ssize_t write(int fd, const void* data, size_t size)
{
    static const auto next = NextFunction("write", &write);
    if (const int error = TakeFault("write"))
        return FailWith(error);
    return next(fd, data, size);
}

extern "C" ssize_t recv(int fd, void* buffer, size_t size, int flags)
{
    static const auto next = NextFunction("recv", &recv);
    if (const int error = TakeFault("recv"))
        return FailWith(error);
    return next(fd, buffer, size, flags);
}

extern "C" ssize_t send(int fd, const void* data, size_t size, int flags)
{
    static const auto next = NextFunction("send", &send);
    if (const int error = TakeFault("send"))
        return FailWith(error);
    return next(fd, data, size, flags);
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
    static const auto next = NextFunction("ioctl", &ioctl);
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (const int error = TakeFault("ioctl"))
        return FailWith(error);
    return next(fd, request, argument);
}

extern "C" int open(const char* path, int flags, ...)
{
    static const auto next = NextFunction("open", &open);
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    if (const int error = TakeFault("open"))
        return FailWith(error);
    return next(path, flags, mode);
}

// A close that fails has closed the descriptor all the same; see close(2).
extern "C" int close(int fd)
{
    static const auto next = NextFunction("close", &close);
    const int result = next(fd);
    if (const int error = TakeFault("close"))
        return FailWith(error);
    return result;
}

extern "C" off_t lseek(int fd, off_t offset, int whence) noexcept
{
    static const auto next = NextFunction("lseek", &lseek);
    if (const int error = TakeFault("lseek"))
        return FailWith(error);
    return next(fd, offset, whence);
}

extern "C" ssize_t readlink(const char* path, char* buffer, size_t size) noexcept
{
    static const auto next = NextFunction("readlink", &readlink);
    if (const int error = TakeFault("readlink"))
        return FailWith(error);
    return next(path, buffer, size);
}

extern "C" DIR* opendir(const char* path)
{
    static const auto next = NextFunction("opendir", &opendir);
    if (const int error = TakeFault("opendir")) {
        errno = error;
        return nullptr;
    }
    return next(path);
}

extern "C" dirent* readdir(DIR* folder)
{
    static const auto next = NextFunction("readdir", &readdir);
    if (const int error = TakeFault("readdir")) {
        errno = error;
        return nullptr;
    }
    return next(folder);
}

extern "C" ssize_t copy_file_range(int from, off64_t* fromOffset, int to, off64_t* toOffset, size_t size,
                                   unsigned int flags)
{
    static const auto next = NextFunction("copy_file_range", &copy_file_range);
    if (const int error = TakeFault("copy_file_range"))
        return FailWith(error);
    return next(from, fromOffset, to, toOffset, size, flags);
}

extern "C" sem_t* sem_open(const char* name, int flags, ...) noexcept
{
    static const auto next = NextFunction("sem_open", &sem_open);
    mode_t mode = 0;
    unsigned int value = 0;
    if ((flags & O_CREAT) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        value = va_arg(arguments, unsigned int);
        va_end(arguments);
    }
    if (const int error = TakeFault("sem_open")) {
        errno = error;
        return SEM_FAILED;
    }
    return next(name, flags, mode, value);
}
