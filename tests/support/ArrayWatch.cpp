#include "ArrayWatch.h"

#include <algorithm>
#include <cstdlib>
#include <new>

namespace
{

struct LiveArray
{
    const void* m_pMemory;
    std::size_t m_Size;
};

// Vectors allocate with plain new, so the operators below may use them.
bool g_Watching = false;
bool g_FailNext = false;
std::vector<LiveArray> g_Live;
std::vector<std::size_t> g_AllocatedSizes;
std::vector<ArrayWatch::ReleasedArray> g_Released;

void* AllocateArray(std::size_t size)
{
    if (g_FailNext) {
        g_FailNext = false;
        throw std::bad_alloc();
    }
    void* memory = std::malloc(size != 0 ? size : 1);
    if (memory == nullptr)
        throw std::bad_alloc();
    if (g_Watching) {
        g_Live.push_back({memory, size});
        g_AllocatedSizes.push_back(size);
    }
    return memory;
}

void ReleaseArray(void* memory)
{
    const auto array =
        std::find_if(g_Live.begin(), g_Live.end(), [&](const LiveArray& a) { return a.m_pMemory == memory; });
    if (array != g_Live.end()) {
        const auto* bytes = static_cast<const volatile unsigned char*>(memory);
        const bool allZero = std::all_of(bytes, bytes + array->m_Size, [](unsigned char byte) { return byte == 0; });
        g_Released.push_back({array->m_Size, allZero});
        g_Live.erase(array);
    }
    std::free(memory);
}

} // namespace

void* operator new[](std::size_t size)
{
    return AllocateArray(size);
}

void operator delete[](void* memory) noexcept
{
    ReleaseArray(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    ReleaseArray(memory);
}

ArrayWatch::ArrayWatch()
{
    g_Live.clear();
    g_AllocatedSizes.clear();
    g_Released.clear();
    g_Watching = true;
}

ArrayWatch::~ArrayWatch()
{
    g_Watching = false;
    g_FailNext = false;
    g_Live.clear();
}

const std::vector<std::size_t>& ArrayWatch::GetAllocatedSizes() const
{
    return g_AllocatedSizes;
}

const std::vector<ArrayWatch::ReleasedArray>& ArrayWatch::GetReleased() const
{
    return g_Released;
}

void ArrayWatch::FailNextAllocation()
{
    g_FailNext = true;
}
