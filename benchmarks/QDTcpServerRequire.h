#pragma once

#include <cstdio>
#include <cstdlib>

// Ends this process, with what errno says, when something that a true figure needs does not hold. Runs no destructor
// and flushes nothing: the caller may be a forked server that shares the parent's streams.
inline void Require(bool holds, const char* what)
{
    if (holds)
        return;
    std::perror(what);
    std::_Exit(1);
}
