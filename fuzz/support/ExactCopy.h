#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

// A copy of exactly the size, so that the sanitizer sees what is read beyond it. count: units.
template<class Unit>
std::unique_ptr<Unit[]> ExactCopy(const uint8_t* data, std::size_t count)
{
    std::unique_ptr<Unit[]> copy(new Unit[count]);
    if (count != 0)
        std::memcpy(copy.get(), data, count * sizeof(Unit));
    return copy;
}
