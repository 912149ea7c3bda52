#pragma once

#include "WaitUntil.h"

#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <utility>

// Runs a function on a thread of its own and tells whether it is blocked, so that a test of a lock or a full pipe needs
// no sleep. The destructor joins.
class TestThread
{
public:
    explicit TestThread(std::function<void()> work) : m_Work(std::move(work)), m_Thread([this] { Run(); }) {}

    TestThread(const TestThread&) = delete;
    TestThread& operator=(const TestThread&) = delete;

    ~TestThread() { Join(); }

    // Returns whether the thread came to rest in a system call without having finished.
    bool WaitUntilBlocked()
    {
        // A look at a thread on its way could find it at rest for a moment; one that is blocked stays so.
        int looks = 0;
        return WaitUntil([&] {
                   looks = IsAsleep() ? looks + 1 : 0;
                   return looks >= 5 || m_Done.load();
               }) &&
               !m_Done.load();
    }

    bool IsDone() const { return m_Done.load(); }

    bool WaitUntilDone()
    {
        return WaitUntil([&] { return m_Done.load(); });
    }

    void Signal(int number) { ::pthread_kill(m_Thread.native_handle(), number); }

    void Join()
    {
        if (m_Thread.joinable())
            m_Thread.join();
    }

private:
    void Run()
    {
        m_Id.store(::gettid());
        m_Work();
        m_Done.store(true);
    }

    bool IsAsleep() const
    {
        // The state follows the name, which ends with the last bracket (proc(5)).
        std::ifstream file("/proc/self/task/" + std::to_string(m_Id.load()) + "/stat");
        std::string text;
        std::getline(file, text);
        const std::size_t bracket = text.rfind(')');
        return bracket != std::string::npos && text.compare(bracket, 3, ") S") == 0;
    }

    std::function<void()> m_Work;
    std::atomic<pid_t> m_Id{0};
    std::atomic<bool> m_Done{false};
    std::thread m_Thread; // last: it uses the others
};
