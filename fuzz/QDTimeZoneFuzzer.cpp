// Any bytes, loaded as a zone file: loading gives a status or the allocation failure and leaves no descriptor open; a
// zone that could not be loaded is empty; in one that was loaded the search agrees with a plain count, and all of it
// can be copied and dumped.
#include <QDPlatform/CTextOutput.h>
#include <QDPlatform/QDTimeZone.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <string>

namespace
{

constexpr std::size_t kLargestArray = 64 << 20;
constexpr long long kTicksPerSecond = 10'000'000;
constexpr long long kLargestTicks = 0x7FFFFFFFFFFFFFFF;

void Require(bool condition)
{
    if (!condition)
        std::abort();
}

// Counts what is written.
class CountingOutput : public CTextOutput
{
public:
    bool WriteCodePoint(int) override
    {
        ++m_Count;
        return true;
    }

    std::size_t m_Count{0};
};

// The lowest descriptor that is free.
int GetNextDescriptor()
{
    const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    Require(fd >= 0);
    ::close(fd);
    return fd;
}

bool Load(CQDTimeZone& zone, int file)
{
    try {
        const bool isLoaded = zone.UseSpecifiedTimeZone("Etc/../../../../proc/self/fd/" + std::to_string(file));
        Require(isLoaded == (zone.GetReadStatus() == 0) && zone.GetReadStatus() >= 0 && zone.GetReadStatus() <= 7);
        Require(zone.GetReadStatus() != 1);
        return isLoaded;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void Convert(const CQDTimeZone& zone, long long ticks)
{
    const long long adjustment = zone.GetAdjustmentForTimestamp(ticks);
    Require(adjustment % kTicksPerSecond == 0);
    long long sum = 0;
    const bool isBeyond = __builtin_add_overflow(ticks, adjustment, &sum);
    Require(zone.ToLocalTime(ticks) == (isBeyond ? (adjustment > 0 ? kLargestTicks : 0) : std::max(sum, 0LL)));
    long long difference = 0;
    const bool isDifferenceBeyond = __builtin_sub_overflow(ticks, adjustment, &difference);
    Require(zone.ToUTC(ticks) ==
            (isDifferenceBeyond ? (adjustment < 0 ? kLargestTicks : 0) : std::max(difference, 0LL)));
}

void UseEveryOperation(const CQDTimeZone& zone)
{
    const unsigned int count = zone.GetTransitionCount();
    for (unsigned int i = 0; i < count; ++i) {
        const long long time = zone.GetTransitionTime(i);
        Require(i == 0 || zone.GetTransitionTime(i - 1) < time);
        Convert(zone, time);
        Convert(zone, time - (time != 0));
        if (i + 1 < count) {
            Require(zone.FindTransitionIndexForTimestamp(time) == static_cast<int>(i));
            Require(zone.FindTransitionIndexForTimestamp(zone.GetTransitionTime(i + 1) - 1) == static_cast<int>(i));
        }
    }
    Convert(zone, 0);
    Convert(zone, kLargestTicks);
    Convert(zone, -kLargestTicks - 1);
    CountingOutput out;
    zone.DumpTimeZone(out);
    CountingOutput copyOut;
    CQDTimeZone(zone).DumpTimeZone(copyOut);
    Require(out.m_Count == copyOut.m_Count && out.m_Count != 0);
}

} // namespace

// A huge count is to end in the allocation failure, not in the fuzzer's own limit.
void* operator new[](std::size_t size)
{
    void* array = size <= kLargestArray ? std::malloc(size != 0 ? size : 1) : nullptr;
    if (array == nullptr)
        throw std::bad_alloc();
    return array;
}

void operator delete[](void* array) noexcept
{
    std::free(array);
}

void operator delete[](void* array, std::size_t) noexcept
{
    std::free(array);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    static const int file = ::memfd_create("zone", MFD_CLOEXEC);
    Require(::ftruncate(file, 0) == 0);
    Require(::pwrite(file, data, size, 0) == static_cast<ssize_t>(size));
    const int nextDescriptor = GetNextDescriptor();

    CQDTimeZone zone;
    const bool isLoaded = Load(zone, file);

    Require(GetNextDescriptor() == nextDescriptor);
    Require(isLoaded ||
            (zone.GetTransitionCount() == 0 && zone.GetIANAName().empty() && zone.GetAdjustmentForTimestamp(0) == 0));
    UseEveryOperation(zone);
    return 0;
}
