#include <QDPlatform/QDCommandPipe.h>

#include <QDPlatform/QDCriticalSectionGuard.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace
{

// Takes out what is in the pipe now, without waiting for more.
void Drain(int readEnd)
{
    int waiting = 0;
    if (::ioctl(readEnd, FIONREAD, &waiting) != 0)
        return;
    char commands[4096];
    while (waiting > 0) {
        const ssize_t count = ::read(readEnd, commands, std::min(sizeof commands, static_cast<size_t>(waiting)));
        if (count <= 0)
            return;
        waiting -= static_cast<int>(count);
    }
}

} // namespace

QDCommandPipe::QDCommandPipe(WhenFull whenFull) : m_WhenFull(whenFull) {}

bool QDCommandPipe::Open()
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return false;
    QDUniqueFd readEnd(ends[0]);
    QDUniqueFd writeEnd(ends[1]);
    if (readEnd.Get() >= FD_SETSIZE || writeEnd.Get() >= FD_SETSIZE) {
        errno = EMFILE;
        return false;
    }
    if (m_WhenFull == WhenFull::Refuse && ::fcntl(writeEnd.Get(), F_SETFL, O_NONBLOCK) != 0)
        return false;
    m_ReadEnd = std::move(readEnd);
    const QDCriticalSectionGuard guard(m_Lock);
    m_WriteEnd = std::move(writeEnd);
    return true;
}

void QDCommandPipe::Close()
{
    if (!m_ReadEnd.IsOpen())
        return;
    EndReceiving(); // a sender that waits for room holds the lock
    const QDCriticalSectionGuard guard(m_Lock);
    m_WriteEnd.Reset();
    m_ReadEnd.Reset();
}

void QDCommandPipe::EndReceiving()
{
    // In this order: whoever began to wait before the change finds room, and nobody begins after it.
    ::fcntl(m_WriteEnd.Get(), F_SETFL, O_NONBLOCK);
    Drain(m_ReadEnd.Get());
}

bool QDCommandPipe::Send(unsigned char command)
{
    // Held during the write, so that the descriptor cannot be closed, and its number used for something else,
    // meanwhile.
    const QDCriticalSectionGuard guard(m_Lock);
    if (!m_WriteEnd.IsOpen())
        return false;
    while (true) {
        const ssize_t written = ::write(m_WriteEnd.Get(), &command, 1);
        if (written == 1)
            return true;
        // A signal during the wait for room must not lose the command.
        if (written >= 0 || errno != EINTR)
            return false;
    }
}

bool QDCommandPipe::Receive(unsigned char& command)
{
    return Receive(&command, 1) == 1;
}

// A signal during the wait is a failure too: the loops read only when there is something to read.
std::size_t QDCommandPipe::Receive(unsigned char* commands, std::size_t capacity)
{
    const ssize_t count = ::read(m_ReadEnd.Get(), commands, capacity);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}
