#include <QDPlatform/QDRefCount.h>

int32_t CQDRefCount::Increment()
{
    return static_cast<int32_t>(m_Count.fetch_add(1) + 1u);
}

int32_t CQDRefCount::Decrement()
{
    return static_cast<int32_t>(m_Count.fetch_sub(1) - 1u);
}

int32_t CQDRefCount::GetCount() const
{
    return static_cast<int32_t>(m_Count.load());
}
