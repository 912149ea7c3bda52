#pragma once

#include <atomic>
#include <csignal>

// Counts a signal in place of the signal's own effect, until the end of its scope. System calls that the signal
// interrupts are not taken up again by the kernel. One at a time.
class SignalCounter
{
public:
    explicit SignalCounter(int number) : m_Number(number)
    {
        s_Count.store(0);

        struct sigaction counting
        {
        };

        counting.sa_handler = [](int) { s_Count.fetch_add(1); };
        ::sigaction(m_Number, &counting, &m_Before);
    }

    SignalCounter(const SignalCounter&) = delete;
    SignalCounter& operator=(const SignalCounter&) = delete;

    ~SignalCounter() { ::sigaction(m_Number, &m_Before, nullptr); }

    int GetCount() const { return s_Count.load(); }

private:
    static inline std::atomic<int> s_Count{0};

    int m_Number;

    struct sigaction m_Before
    {
    };
};
