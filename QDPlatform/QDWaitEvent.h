#pragma once

#include <QDPlatform/QDExport.h>

#include <semaphore.h>

// A counting event: each SetEvent() lets exactly one WaitForEvent() through.
//
// Starts at a count of 0 and is private to the process. Neither a manual-reset nor an auto-reset flag: two events set
// before any wait let two waits through.
// Thread: any; construction and destruction while nobody else uses it.
class QD_API CQDWaitEvent
{
public:
    CQDWaitEvent();
    ~CQDWaitEvent();
    CQDWaitEvent(const CQDWaitEvent&) = delete;
    CQDWaitEvent& operator=(const CQDWaitEvent&) = delete;

    // Adds one to the count. Safe in a signal handler (sem_post(3)).
    void SetEvent();

    // Takes one from the count, blocking while it is 0. A signal ends the wait as if the event had been set; the wait
    // is not taken up again (see WaitForEvent_ReturnsOnASignal).
    void WaitForEvent();

private:
    sem_t m_Semaphore;
};
