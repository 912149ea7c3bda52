#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

// The position of a virtual member function in its class's table, counted from 0; -1 for a function that is not
// virtual. A virtual destructor takes two positions.
//
// Reads the pointer to member as the C++ ABI lays it out (https://itanium-cxx-abi.github.io/cxx-abi/abi.html#member-
// function-pointers): two words, where a virtual function is marked by an odd first word, which is the offset in the
// table plus one. On ARM the mark is an odd second word, and the first is the offset itself.
//
// To reach a protected function, derive a class that has a public using-declaration for it.
template<class MemberFunction>
int VirtualSlot(MemberFunction function)
{
    static_assert(std::is_member_function_pointer_v<MemberFunction>);

    struct Layout
    {
        std::uintptr_t m_Pointer;
        std::uintptr_t m_Adjustment;
    };

    static_assert(sizeof(MemberFunction) == sizeof(Layout));
    Layout layout;
    std::memcpy(&layout, &function, sizeof layout);
#if defined(__arm__) || defined(__aarch64__)
    const bool isVirtual = (layout.m_Adjustment & 1u) != 0;
    const std::uintptr_t offset = layout.m_Pointer;
#else
    const bool isVirtual = (layout.m_Pointer & 1u) != 0;
    const std::uintptr_t offset = layout.m_Pointer - 1;
#endif
    return isVirtual ? static_cast<int>(offset / sizeof(void*)) : -1;
}
