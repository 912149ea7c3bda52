#include "HostFigures.h"

#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

namespace
{

// The kernel gives load averages as fixed-point numbers.
constexpr unsigned int kLoadFractionBits = 16;

// The largest value that fits stands for every larger one.
template<class Result>
Result Held(uint64_t value)
{
    return static_cast<Result>(std::min<uint64_t>(value, std::numeric_limits<Result>::max()));
}

uint16_t LoadTimes100(unsigned long load)
{
    return Held<uint16_t>(uint64_t{load} * 100 >> kLoadFractionBits);
}

} // namespace

HostFigures HostFigures::Read()
{
    HostFigures figures;
    struct sysinfo info = {};
    ::sysinfo(&info); // cannot fail with a valid buffer
    figures.m_UptimeSeconds = Held<uint32_t>(static_cast<uint64_t>(info.uptime));
    figures.m_Load1Minute = LoadTimes100(info.loads[0]);
    figures.m_Load5Minutes = LoadTimes100(info.loads[1]);
    figures.m_Load15Minutes = LoadTimes100(info.loads[2]);
    figures.m_ProcessorCount = static_cast<uint16_t>(std::clamp(::sysconf(_SC_NPROCESSORS_ONLN), 1L, 65535L));
    figures.m_FreeMemoryKiB = Held<uint32_t>(uint64_t{info.freeram} * info.mem_unit / 1024);
    figures.m_TotalMemoryKiB = Held<uint32_t>(uint64_t{info.totalram} * info.mem_unit / 1024);
    figures.m_Time.SetUTC();
    return figures;
}
