#pragma once

#include <QDPlatform/QDExport.h>

#include <atomic>
#include <cstdint>

// An atomic counter of owners, starting at 0: the first owner must call Increment() too.
//
// Every operation is sequentially consistent, so the thread that sees 0 also sees what all other owners did before
// they let go. The counter wraps; nothing keeps it from going below zero.
// Thread: any. Lock-free.
class QD_API CQDRefCount
{
public:
    CQDRefCount() = default;
    CQDRefCount(const CQDRefCount&) = delete;
    CQDRefCount& operator=(const CQDRefCount&) = delete;

    // Adds one. Returns the new value.
    int32_t Increment();

    // Takes one away. Returns the new value; exactly one caller sees 0 and must destroy what is counted.
    int32_t Decrement();

    // The value at this moment; others may change it at once.
    int32_t GetCount() const;

private:
    std::atomic<uint32_t> m_Count{0};
};
