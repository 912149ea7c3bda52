#include <QDPlatform/QDReferenceLog.h>

#include <QDPlatform/COutputLog.h>
#include <QDPlatform/QDRefCount.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>

namespace
{

QD_PRINTF_FORMAT(4, 5)

void PrintPrefixed(COutputLog* log, const char* prefix, unsigned int prefixLength, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    log->PrefixedPrintInfoVA(prefix, prefixLength, format, arguments);
    va_end(arguments);
}

} // namespace

void qd_add_reference(CQDRefCount& count, COutputLog* log, const char* prefix, unsigned int prefixLength)
{
    const long value = count.Increment();
    if (log != nullptr)
        PrintPrefixed(log, prefix, prefixLength, "AddRef, RefCount = %ld", value);
}

bool qd_release_reference(CQDRefCount& count, COutputLog* log, const char* prefix, unsigned int prefixLength)
{
    // The prefix lies in the counted object, which may be gone right after the decrement: print from a copy.
    char prefixCopy[32];
    const unsigned int copied = std::min(prefixLength, static_cast<unsigned int>(sizeof prefixCopy));
    if (log != nullptr)
        std::memcpy(prefixCopy, prefix, copied);
    const long value = count.Decrement();
    if (log != nullptr)
        PrintPrefixed(log, prefixCopy, copied, "Release, RefCount = %ld", value);
    return value == 0;
}
