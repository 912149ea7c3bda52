#include "AllocationCounter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace
{

std::atomic<std::size_t> g_AllocationCount{0};
std::atomic<std::size_t> g_LargestAllocation{AllocationLimit::kUsualLimit};

void* CountedAllocate(std::size_t size)
{
    g_AllocationCount.fetch_add(1);
    void* memory = size <= g_LargestAllocation.load() ? std::malloc(size != 0 ? size : 1) : nullptr;
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

} // namespace

void* operator new(std::size_t size)
{
    return CountedAllocate(size);
}

void* operator new[](std::size_t size)
{
    return CountedAllocate(size);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}

AllocationCounter::AllocationCounter() : m_Start(g_AllocationCount.load()) {}

std::size_t AllocationCounter::GetCount() const
{
    return g_AllocationCount.load() - m_Start;
}

AllocationLimit::AllocationLimit(std::size_t size) : m_Old(g_LargestAllocation.exchange(size)) {}

AllocationLimit::~AllocationLimit()
{
    g_LargestAllocation.store(m_Old);
}
