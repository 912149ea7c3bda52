#pragma once

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

// For a test program that defines a function of the C library itself and so stands in front of it: the next definition,
// which is the C library's own or a sanitizer's. `name` is the function's; `function` only tells its type.
template<class Function>
Function* NextFunction(const char* name, Function* function)
{
    static_cast<void>(function);
    const char* symbol = name;
#if defined(__USE_TIME_BITS64) && __TIMESIZE == 32
    // Compiled for 64-bit times and file offsets on a 32-bit system, these functions have other symbols, also where the
    // test defines them; the plain symbols stand for functions with 32-bit structures.
    constexpr const char* kSymbols[][2] = {{"select", "__select64"},
                                           {"clock_gettime", "__clock_gettime64"},
                                           {"gettimeofday", "__gettimeofday64"},
                                           {"setsockopt", "__setsockopt64"},
                                           {"getsockopt", "__getsockopt64"},
                                           {"ioctl", "__ioctl_time64"},
                                           {"open", "open64"},
                                           {"lseek", "lseek64"},
                                           {"ftruncate", "ftruncate64"},
                                           {"fstat", "__fstat64_time64"},
                                           {"stat", "__stat64_time64"},
                                           {"readdir", "readdir64"},
                                           {"pthread_timedjoin_np", "__pthread_timedjoin_np64"}};
    for (const auto& [plain, other] : kSymbols) {
        if (std::strcmp(plain, name) == 0)
            symbol = other;
    }
#endif
    void* next = ::dlsym(RTLD_NEXT, symbol);
    if (next == nullptr) {
        std::fprintf(stderr, "NextFunction: there is no other %s\n", symbol);
        std::abort();
    }
    return reinterpret_cast<Function*>(next);
}
