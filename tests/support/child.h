#pragma once
// Forked children of a test: what runs in one, how it ended, what it wrote to standard error.

#include "vex/core/sendsignal.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

namespace Test {

struct ChildResult
{
    int status = -1; ///< as waitpid gives it
    std::string standardError;

    bool Exited(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
};

/// Forks, runs `body` in the child and ends the child with its result through `exit`, or `_exit` when `atOnce`.
inline pid_t Fork(const std::function<int()>& body, bool atOnce)
{
    const pid_t child = ::fork();
    if (child < 0)
        throw std::runtime_error("fork");
    if (child > 0)
        return child;
    const int code = body();
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

} // namespace Test
