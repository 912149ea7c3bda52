#pragma once

#include "WaitUntil.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

// A program that a test runs, with its input from a pipe and its output kept. It does not outlive the object, nor the
// test program.
class ChildProcess
{
public:
    static constexpr int kProgramNotFound = 127;

    // command: the program, looked up in PATH when its name has no slash, and its arguments.
    explicit ChildProcess(const std::vector<std::string>& command)
    {
        std::vector<char*> arguments;
        for (const std::string& argument : command)
            arguments.push_back(const_cast<char*>(argument.c_str()));
        arguments.push_back(nullptr);
        m_Output = ::memfd_create("output", MFD_CLOEXEC);
        m_Errors = ::memfd_create("errors", MFD_CLOEXEC);
        int input[2] = {-1, -1};
        if (m_Output < 0 || m_Errors < 0 || ::pipe2(input, O_CLOEXEC) != 0)
            Stop("ChildProcess: descriptors");
        m_Input = input[1];
        m_Process = ::fork();
        if (m_Process < 0)
            Stop("ChildProcess: fork");
        if (m_Process == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::dup2(input[0], STDIN_FILENO);
            ::dup2(m_Output, STDOUT_FILENO);
            ::dup2(m_Errors, STDERR_FILENO);
            ::execvp(arguments[0], arguments.data());
            ::_exit(kProgramNotFound);
        }
        ::close(input[0]);
    }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    ~ChildProcess()
    {
        if (m_Process > 0) {
            ::kill(m_Process, SIGKILL);
            ::waitpid(m_Process, nullptr, 0);
        }
        CloseInput();
        ::close(m_Output);
        ::close(m_Errors);
    }

    void Signal(int number) { ::kill(m_Process, number); }

    void CloseInput()
    {
        if (m_Input >= 0)
            ::close(std::exchange(m_Input, -1));
    }

    // Waits for the end, at most 30 s. Returns the exit status; 128 plus the number when a signal ended it; -1 when it
    // still runs.
    int WaitForExit()
    {
        int status = 0;
        if (!WaitUntil([&] { return ::waitpid(m_Process, &status, WNOHANG) == m_Process; }, 30s))
            return -1;
        m_Process = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    // What it has written so far.
    std::string GetOutput() const { return ReadWhole(m_Output); }

    std::string GetErrors() const { return ReadWhole(m_Errors); }

    // False when the text does not come within 20 s.
    bool WaitForOutput(const std::string& text) const
    {
        return WaitUntil([&] { return GetOutput().find(text) != std::string::npos; });
    }

private:
    [[noreturn]] static void Stop(const char* what)
    {
        std::perror(what);
        std::abort();
    }

    // Leaves alone the position, which is the child's.
    static std::string ReadWhole(int file)
    {
        std::string text;
        char buffer[4096];
        while (true) {
            const ssize_t count = ::pread(file, buffer, sizeof buffer, static_cast<off_t>(text.size()));
            if (count <= 0)
                return text;
            text.append(buffer, static_cast<std::size_t>(count));
        }
    }

    pid_t m_Process{-1};
    int m_Input{-1};
    int m_Output{-1};
    int m_Errors{-1};
};

// The output of a program, whose status must be 0, or the test fails with its errors.
inline std::string OutputOf(const std::vector<std::string>& command)
{
    ChildProcess program(command);
    EXPECT_EQ(program.WaitForExit(), 0) << command[0] << ": " << program.GetErrors();
    return program.GetOutput();
}

// The first line of that, without its line feed.
inline std::string LineOf(const std::vector<std::string>& command)
{
    const std::string output = OutputOf(command);
    return output.substr(0, output.find('\n'));
}
