#pragma once

#include <sched.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>

// What a benchmark asks of its own process.

// Ends this process, with what errno says, when something that a true figure needs does not hold. Runs no destructor
// and flushes nothing: the caller may be a forked server that shares the parent's streams.
inline void Require(bool holds, const char* what)
{
    if (holds)
        return;
    std::perror(what);
    std::_Exit(1);
}

// Keeps the calling thread, and what it starts from now on, on one core.
inline void PinTo(int core)
{
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(core, &cores);
    Require(::sched_setaffinity(0, sizeof cores, &cores) == 0, "two cores are needed: sched_setaffinity");
}

// As many as this user may have.
inline void AllowManyDescriptors()
{
    rlimit limit;
    Require(::getrlimit(RLIMIT_NOFILE, &limit) == 0, "getrlimit");
    limit.rlim_cur = limit.rlim_max;
    Require(::setrlimit(RLIMIT_NOFILE, &limit) == 0, "setrlimit");
}
