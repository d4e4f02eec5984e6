#pragma once
// For tests whose subject is a process: one that is forked, and pipes by which the two tell each other how far they
// are.

#include <functional>
#include <stdexcept>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Test {

/// Runs `body` in a process of its own and returns its result (0 to 255).
inline int InChild(const std::function<int()>& body)
{
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(body());
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

/// Closed with the object; the child of a fork has ends of its own.
class Pipe
{
public:
    Pipe()
    {
        if (::pipe(m_ends) != 0)
            throw std::runtime_error("pipe");
    }
    ~Pipe()
    {
        CloseEnd(0);
        CloseEnd(1);
    }
    void CloseEnd(int index)
    {
        if (m_ends[index] >= 0)
            ::close(m_ends[index]);
        m_ends[index] = -1;
    }
    void Write(char byte) { EXPECT_EQ(::write(m_ends[1], &byte, 1), 1); }
    /// 0 at the end of the pipe.
    char Read()
    {
        char byte = 0;
        return ::read(m_ends[0], &byte, 1) == 1 ? byte : '\0';
    }
    /// `Ended` then answers at once.
    void SetNonBlocking() { ::fcntl(m_ends[0], F_SETFL, O_NONBLOCK); }
    /// Whether the other end is closed. What is still to be read is lost.
    bool Ended()
    {
        char byte = 0;
        return ::read(m_ends[0], &byte, 1) == 0;
    }

private:
    int m_ends[2];
};

} // namespace Test
