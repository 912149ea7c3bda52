#pragma once

#include <cstddef>

// Counts the calls of operator new, but for over-aligned types, in the whole process: the library's calls too.
//
// A test that uses it links AllocationCounter.cpp, which replaces the operators.
class AllocationCounter
{
public:
    AllocationCounter();

    // Allocations in all threads since construction.
    std::size_t GetCount() const;

private:
    std::size_t m_Start;
};

// Makes each operator new of more than `size` bytes, in the whole process, throw std::bad_alloc as long as it lives.
// Without one the limit is kUsualLimit, so that a huge request fails on every machine alike.
class AllocationLimit
{
public:
    static constexpr std::size_t kUsualLimit = 32 << 20; // bytes

    explicit AllocationLimit(std::size_t size);
    AllocationLimit(const AllocationLimit&) = delete;
    AllocationLimit& operator=(const AllocationLimit&) = delete;
    ~AllocationLimit();

private:
    std::size_t m_Old;
};
