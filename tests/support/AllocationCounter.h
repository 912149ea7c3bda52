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
