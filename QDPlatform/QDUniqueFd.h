#pragma once

#include <unistd.h>

#include <utility>

// Owns one file descriptor and closes it.
//
// Thread: one at a time, like any plain value.
class QDUniqueFd
{
public:
    QDUniqueFd() = default;

    // Takes ownership; a negative value means none.
    explicit QDUniqueFd(int fd) : m_Fd(fd < 0 ? -1 : fd) {}

    QDUniqueFd(QDUniqueFd&& other) noexcept : m_Fd(other.Release()) {}

    QDUniqueFd& operator=(QDUniqueFd&& other) noexcept
    {
        if (this != &other)
            Reset(other.Release());
        return *this;
    }

    QDUniqueFd(const QDUniqueFd&) = delete;
    QDUniqueFd& operator=(const QDUniqueFd&) = delete;

    ~QDUniqueFd() { Reset(); }

    bool IsOpen() const { return m_Fd >= 0; }

    // -1 when none is owned.
    int Get() const { return m_Fd; }

    // Hands the descriptor to the caller.
    int Release() { return std::exchange(m_Fd, -1); }

    // Closes what is owned and takes `fd` instead. close() is never retried: on Linux the descriptor is gone whatever
    // it returns (close(2)).
    void Reset(int fd = -1)
    {
        if (m_Fd >= 0)
            ::close(m_Fd);
        m_Fd = fd < 0 ? -1 : fd;
    }

private:
    int m_Fd{-1};
};
