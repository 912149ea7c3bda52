#include <QDPlatform/QDWaitEvent.h>

CQDWaitEvent::CQDWaitEvent()
{
    ::sem_init(&m_Semaphore, 0, 0);
}

CQDWaitEvent::~CQDWaitEvent()
{
    ::sem_destroy(&m_Semaphore);
}

void CQDWaitEvent::SetEvent()
{
    ::sem_post(&m_Semaphore);
}

void CQDWaitEvent::WaitForEvent()
{
    ::sem_wait(&m_Semaphore);
}
