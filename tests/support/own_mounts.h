#pragma once
// A child of a test that may mount what it likes, and what it checks.

#include <cstdio>
#include <functional>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Test {

/// Runs `body` in a child with a mount namespace of its own; its result is the exit code. What is shown on standard
/// error there is not what such a body tests, and goes nowhere. -1: no such namespace here.
inline int InOwnMounts(const std::function<int()>& body)
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            ::_exit(77);
        ::dup2(::open("/dev/null", O_WRONLY), STDERR_FILENO);
        const int result = body();
        std::fflush(stdout);
        ::_exit(result);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 77 ? -1 : status;
}

/// What a child of a test checks: its line says which did not hold.
#define CHILD_CHECK(condition)                                                                                         \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            std::printf("line %d: %s\n", __LINE__, #condition);                                                        \
            return 1;                                                                                                  \
        }                                                                                                              \
    } while (false)

} // namespace Test
