#pragma once

#include <cstddef>
#include <vector>

// Looks at the arrays of the whole process, the library's too, that are made with new[] and released with delete[].
//
// A test that uses it links ArrayWatch.cpp, which replaces the operators. One watch at a time, from one thread.
class ArrayWatch
{
public:
    struct ReleasedArray
    {
        std::size_t m_Size;
        bool m_AllZero; // every byte of it, at the moment of its release
    };

    ArrayWatch();
    ArrayWatch(const ArrayWatch&) = delete;
    ArrayWatch& operator=(const ArrayWatch&) = delete;
    ~ArrayWatch();

    // The sizes in bytes of the arrays made since construction, in order.
    const std::vector<std::size_t>& GetAllocatedSizes() const;

    // Those of them that were released again, in order.
    const std::vector<ReleasedArray>& GetReleased() const;

    // The next allocation of an array throws std::bad_alloc.
    void FailNextAllocation();
};
