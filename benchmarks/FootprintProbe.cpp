// Loads libQDPlatform.so into a process that already has the libraries it stands on, and prints what that costs.
//
//   FootprintProbe LIBRARY...    one line of "name figure" each. The last LIBRARY, a path, is measured; the others are
//                                loaded before it.
//
// scripts/footprint builds it alone and runs it many times; each run is one process, since a library is loaded once.
// The memory figures come from /proc/self/smaps. In an emulated process these are the emulator's own mappings; the
// guest's files are among them by their names.

#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace
{

using Clock = std::chrono::steady_clock;

// Kilobytes, in the kernel's words.
struct Memory
{
    unsigned long m_Process{0};    // Rss of all mappings
    unsigned long m_Library{0};    // Rss of the mappings of the library's file and of its zeroed data behind them
    unsigned long m_LibraryOwn{0}; // the part of that which this process has written to and so has for itself
    std::size_t m_HeapInUse{0};    // bytes that malloc has handed out
};

[[noreturn]] void Fail(const char* what, const char* why)
{
    std::fprintf(stderr, "FootprintProbe: %s: %s\n", what, why);
    std::exit(1);
}

void* Load(const char* library)
{
    void* handle = ::dlopen(library, RTLD_NOW | RTLD_GLOBAL);
    if (!handle)
        Fail(library, ::dlerror());
    return handle;
}

// Fills a buffer of static storage, so that measuring takes no memory that was not there before.
std::string_view ReadMappings()
{
    static char text[1 << 20];
    const int file = ::open("/proc/self/smaps", O_RDONLY | O_CLOEXEC);
    std::size_t length = 0;
    ssize_t count = -1;
    while (file >= 0 && (count = ::read(file, text + length, sizeof text - length)) > 0)
        length += static_cast<std::size_t>(count);
    if (count != 0 || length == sizeof text)
        Fail("/proc/self/smaps", "cannot be read as a whole");
    ::close(file);
    return {text, length};
}

// Walks through the mappings line by line: "start-end permissions offset device inode [path]", then "Name: figure kB".
Memory Measure(std::string_view library)
{
    Memory memory;
    memory.m_HeapInUse = ::mallinfo2().uordblks;
    std::string_view rest = ReadMappings();
    bool isLibrary = false;
    unsigned long long end = 0; // of the mapping before
    while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(line.size() + 1);
        unsigned long long from = 0;
        unsigned long long to = 0;
        unsigned long kilobytes = 0;
        if (std::sscanf(line.data(), "%llx-%llx ", &from, &to) == 2) {
            const bool hasPath = line.find('/') != line.npos || line.find('[') != line.npos;
            isLibrary = line.ends_with(library) || (isLibrary && !hasPath && from == end);
            end = to;
        } else if (std::sscanf(line.data(), "Rss: %lu kB", &kilobytes) == 1) {
            memory.m_Process += kilobytes;
            memory.m_Library += isLibrary ? kilobytes : 0;
        } else if (std::sscanf(line.data(), "Anonymous: %lu kB", &kilobytes) == 1) {
            memory.m_LibraryOwn += isLibrary ? kilobytes : 0;
        }
    }
    return memory;
}

double Microseconds(Clock::duration duration)
{
    return std::chrono::duration<double, std::micro>(duration).count();
}

} // namespace

int main(int argumentCount, char** arguments)
{
    if (argumentCount < 2)
        Fail("usage", "FootprintProbe LIBRARY...");
    const char* library = arguments[argumentCount - 1];
    const auto beginning = Clock::now();
    for (int i = 1; i < argumentCount - 1; ++i)
        Load(arguments[i]);
    const auto dependenciesLoaded = Clock::now();
    Measure(library); // the first call takes what measuring needs
    const Memory before = Measure(library);

    const auto start = Clock::now();
    Load(library);
    const auto loaded = Clock::now();

    const Memory after = Measure(library);
    if (after.m_Library == 0)
        Fail(library, "is not among the mappings");
    std::printf("load_us %.1f\n", Microseconds(loaded - start));
    std::printf("dependencies_us %.1f\n", Microseconds(dependenciesLoaded - beginning));
    std::printf("library_kb %lu\n", after.m_Library);
    std::printf("own_kb %lu\n", after.m_LibraryOwn);
    std::printf("heap_bytes %ld\n", static_cast<long>(after.m_HeapInUse - before.m_HeapInUse));
    std::printf("process_kb %ld\n", static_cast<long>(after.m_Process - before.m_Process));
    return 0;
}
