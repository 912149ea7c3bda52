#pragma once

#include <chrono>
#include <thread>

using namespace std::chrono_literals;

// Waits for a state that another thread brings about. Returns whether `condition` became true within `limit`, which
// is there for the failing test only: make it generous.
template<class Condition>
bool WaitUntil(Condition condition, std::chrono::milliseconds limit = 20s)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}
