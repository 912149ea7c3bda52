#pragma once

#include <QDPlatform/QDCriticalSection.h>
#include <QDPlatform/QDUniqueFd.h>

#include <cstddef>

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

    // For the loop's thread when it takes no more commands: a full pipe refuses from now on, and a sender that waits
    // for room goes on.
    void EndReceiving();

    // Returns whether the command went into the pipe: false when it is closed, or full and refusing.
    bool Send(unsigned char command);

    // For the loop's descriptor set. -1 when closed.
    int GetReadEnd() const { return m_ReadEnd.Get(); }

    // Takes one command, waiting for it if there is none. Returns false with errno set.
    bool Receive(unsigned char& command);

    // Takes the commands that wait, in their order and at most `capacity` (not 0) of them, into `commands`; waits for
    // the first if there is none. Returns how many; 0 with errno set on failure.
    std::size_t Receive(unsigned char* commands, std::size_t capacity);

private:
    const WhenFull m_WhenFull;
    CQDCriticalSection m_Lock; // held during a write, and while the write end is opened or closed
    QDUniqueFd m_ReadEnd;      // set before the loop's thread starts, closed after it ended
    QDUniqueFd m_WriteEnd;     // likewise; senders look at it under m_Lock
};
