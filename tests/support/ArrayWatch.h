#pragma once

#include <gtest/gtest.h>

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

// The sizes of the arrays that were released, in order. Fails the test for each that was not all zeros then.
inline std::vector<std::size_t> WipedSizes(const ArrayWatch& watch)
{
    std::vector<std::size_t> sizes;
    for (const ArrayWatch::ReleasedArray& array : watch.GetReleased()) {
        EXPECT_TRUE(array.m_AllZero) << "an array of " << array.m_Size << " bytes was released with its contents";
        sizes.push_back(array.m_Size);
    }
    return sizes;
}
