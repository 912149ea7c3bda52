#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

// A terminal of the test's own: what a program writes to one end comes out at the other, byte for byte.
class PseudoTerminal
{
public:
    PseudoTerminal()
    {
        m_Terminal = ::open("/dev/ptmx", O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (m_Terminal < 0) // the emulator looks for the first one in the target's folder of devices
            m_Terminal = ::open("/dev/pts/ptmx", O_RDWR | O_NOCTTY | O_CLOEXEC);
        char name[64];
        termios settings = {};
        ::cfmakeraw(&settings); // a line feed stays a line feed
        if (m_Terminal >= 0 && ::unlockpt(m_Terminal) == 0 && ::ptsname_r(m_Terminal, name, sizeof name) == 0)
            m_Program = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (m_Program < 0 || ::tcsetattr(m_Program, TCSANOW, &settings) != 0) {
            std::perror("PseudoTerminal");
            std::abort();
        }
    }

    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;

    ~PseudoTerminal()
    {
        CloseProgramEnd();
        ::close(m_Terminal);
    }

    // The end that a program writes to.
    int GetProgramEnd() const { return m_Program; }

    void CloseProgramEnd()
    {
        if (m_Program >= 0)
            ::close(m_Program);
        m_Program = -1;
    }

    // Everything written until nobody has the program's end open any more.
    std::string ReadAll() const
    {
        std::string output;
        char buffer[4096];
        ssize_t count = 0;
        while ((count = ::read(m_Terminal, buffer, sizeof buffer)) > 0) // fails at the end
            output.append(buffer, static_cast<std::size_t>(count));
        return output;
    }

private:
    int m_Terminal{-1};
    int m_Program{-1};
};

// Runs `work` in a child process whose standard output is a terminal, and returns every byte that came out there. The
// child ends without flushing: what it left in the buffer of stdout is lost. One that ends in another way than by the
// end of `work`, or of a program that `work` became, with status 0 fails the test.
template<class Work>
std::string TerminalOutputOf(Work work)
{
    PseudoTerminal terminal;
    std::fflush(nullptr); // or the child would have it too
    const pid_t child = ::fork();
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(terminal.GetProgramEnd(), STDOUT_FILENO);
        work();
        ::_exit(0);
    }
    terminal.CloseProgramEnd();
    const std::string output = terminal.ReadAll();
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child) {
        std::perror("TerminalOutputOf");
        std::abort();
    }
    EXPECT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    return output;
}
