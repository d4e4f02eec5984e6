#pragma once
// Forked children of a test: what runs in one, how it ended, what it wrote to standard error, and pipes by which
// processes tell each other how far they are.

#include "vex/core/sendsignal.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Test {

struct ChildResult
{
    int status = -1; ///< as waitpid gives it
    std::string standardError;

    bool Exited(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
};

/// The result of `body`, with which a child ends. One that throws ends too, and does not go on with the tests.
inline int EndOf(const std::function<int()>& body) noexcept
{
    return body();
}

/// Forks, runs `body` in the child and ends the child with its result through `exit`, or `_exit` when `atOnce`.
inline pid_t Fork(const std::function<int()>& body, bool atOnce)
{
    const pid_t child = ::fork();
    if (child < 0)
        throw std::runtime_error("fork");
    if (child > 0)
        return child;
    const int code = EndOf(body);
    if (atOnce)
        ::_exit(code);
    std::exit(code);
}

inline int WaitFor(pid_t child)
{
    int status = -1;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

/// What a child ended with (0 to 255); -1 when it is none or has not ended by itself.
inline int WaitForCode(pid_t child)
{
    const int status = child < 0 ? -1 : WaitFor(child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// Runs `body` in a child, which ends at once with its result, and returns that.
inline int InChild(const std::function<int()>& body)
{
    return WaitForCode(Fork(body, true));
}

/// A child that ends by itself only when it is told to: it does not outlive its test.
class ChildUntilTheEnd
{
public:
    explicit ChildUntilTheEnd(pid_t child) : m_child(child) {}
    ~ChildUntilTheEnd() { Kill(); }
    ChildUntilTheEnd(const ChildUntilTheEnd&) = delete;
    ChildUntilTheEnd& operator=(const ChildUntilTheEnd&) = delete;

    void Kill()
    {
        if (m_child <= 0)
            return;
        VexCore::SendSignal(m_child, SIGKILL);
        WaitFor(m_child);
        m_child = -1;
    }

private:
    pid_t m_child;
};

/// Runs `body` in a child whose standard error is captured, and waits for it.
inline ChildResult RunChild(const std::function<int()>& body, bool atOnce = false)
{
    int ends[2];
    if (::pipe(ends) != 0)
        throw std::runtime_error("pipe");
    const pid_t child = Fork(
        [&] {
            ::dup2(ends[1], 2);
            ::close(ends[0]);
            ::close(ends[1]);
            return body();
        },
        atOnce);
    ::close(ends[1]);
    ChildResult result;
    char buffer[4096];
    for (ssize_t count; (count = ::read(ends[0], buffer, sizeof buffer)) > 0;)
        result.standardError.append(buffer, static_cast<std::size_t>(count));
    ::close(ends[0]);
    result.status = WaitFor(child);
    return result;
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

/// A child made by `fork`, any call that returns as the system's does. It waits until it is let go, at the latest when
/// its parent ends, and ends with the result of `then`.
class WaitingChild
{
public:
    template <class Fork>
    explicit WaitingChild(
        Fork fork, const std::function<int()>& then = [] { return 0; })
        : m_child(fork())
    {
        if (m_child != 0)
            return;
        m_go.CloseEnd(1);
        m_go.Read();
        ::_exit(EndOf(then));
    }
    pid_t Id() const { return m_child; }
    void Release() { m_go.CloseEnd(1); }
    /// Lets it go and returns what it ended with, as `WaitForCode` does.
    int LetGo()
    {
        Release();
        return WaitForCode(m_child);
    }

private:
    Pipe m_go;
    const pid_t m_child;
};

} // namespace Test
