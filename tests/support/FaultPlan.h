#pragma once

#include <cstddef>

// Makes the n-th call of one system function fail, from outside: the test program defines the function itself, so the
// library's calls arrive here first and go on to the C library unless the plan says otherwise.
//
// A test that uses it links FaultPlan.cpp. One plan at a time; it ends with the object. Calls of all threads count.
class FaultPlan
{
public:
    enum class Repeat
    {
        Once,   // only call `nth` fails
        Forever // call `nth` and all later ones fail
    };

    // function: one of the names listed in FaultPlan.cpp (anything else stops the program); nth counts from 1.
    FaultPlan(const char* function, int nth, int error, Repeat repeat = Repeat::Once);
    FaultPlan(const FaultPlan&) = delete;
    FaultPlan& operator=(const FaultPlan&) = delete;
    ~FaultPlan();

    // Calls of the function since construction.
    int GetCallCount() const;

    // True once a call was made to fail.
    bool HasFailed() const;
};

// Whether the last call of select() in the process, which may still wait, was without a time limit.
bool IsLastSelectUnlimited();

// What the last call of getnameinfo() in the process gave, whether it was made to fail or not.
struct NameInfoSizes
{
    unsigned int m_AddressLength; // bytes
    unsigned int m_HostRoom;
};

NameInfoSizes GetLastNameInfoSizes();

// The bytes that the last call of gethostname() in the process had room for.
std::size_t GetLastHostNameRoom();

// Moves the real-time clock: what clock_gettime(CLOCK_REALTIME) and gettimeofday() give the program, as long as the
// object lives. Absolute waits of the C library go by the true clock.
class ClockShift
{
public:
    // From now on the clock goes on from `unixSeconds` after 1970. One shift at a time.
    explicit ClockShift(long long unixSeconds);
    ClockShift(const ClockShift&) = delete;
    ClockShift& operator=(const ClockShift&) = delete;
    ~ClockShift();
};
