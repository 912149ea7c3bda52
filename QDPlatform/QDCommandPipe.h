#pragma once

#include <QDPlatform/QDCriticalSection.h>
#include <QDPlatform/QDUniqueFd.h>

#include <atomic>

// The pipe through which other threads steer a select loop: one byte is one command.
//
// Both ends are close-on-exec and below FD_SETSIZE.
// Thread: Send() from any thread at any time, also while another closes the pipe; the read end belongs to the loop's
//         thread; Open() before that thread starts, Close() after it has ended.
class QDCommandPipe
{
public:
    // What Send() does when the pipe holds as many commands as it can.
    enum class WhenFull
    {
        Block, // waits for the loop to take one
        Refuse // sends nothing
    };

    explicit QDCommandPipe(WhenFull whenFull);

    // Makes the pipe. Returns false with errno set and nothing open; EMFILE also when a descriptor could not stand in a
    // descriptor set.
    bool Open();

    // Closes both ends; unread commands are dropped. Does nothing when the pipe is not open.
    void Close();

    // Returns whether the command went into the pipe: false when it is closed, or full and refusing.
    bool Send(unsigned char command);

    // For the loop's descriptor set. -1 when closed.
    int GetReadEnd() const { return m_ReadEnd.Get(); }

    // Takes one command, waiting for it if there is none. Returns false with errno set.
    bool Receive(unsigned char& command);

private:
    const WhenFull m_WhenFull;
    QDUniqueFd m_ReadEnd; // set before the loop's thread starts, closed after it ended
    CQDCriticalSection m_Lock;
    QDUniqueFd m_WriteEnd QD_GUARDED_BY(m_Lock);
    std::atomic<bool> m_Closing{false};
};
