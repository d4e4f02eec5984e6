#pragma once
// Starts a program that is traced from its first instruction, and follows it.

#include "vex/core/sendsignal.h"

#include <cerrno>
#include <csignal>

#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Test {

/// Starts argv[0] with its arguments and returns its pid, or -1 with errno. It stands still before its
/// first instruction until it gets SIGCONT. `options` are ptrace's; should this process be killed, nobody
/// stays behind half traced.
inline pid_t StartTraced(char** argv, long options)
{
    const pid_t child = ::fork();
    if (child == 0) {
        std::raise(SIGSTOP);
        ::execv(argv[0], argv);
        ::_exit(127);
    }
    if (child < 0)
        return -1;
    int status = 0;
    if (::waitpid(child, &status, WUNTRACED) != child || !WIFSTOPPED(status)
        || ::ptrace(PTRACE_SEIZE, child, nullptr, options | PTRACE_O_EXITKILL) != 0) {
        VexCore::SendSignal(child, SIGKILL);
        return -1;
    }
    return child;
}

/// Waits for all that is traced, and for adopted children, until nobody is left. `onStop(thread, isCall, carried)` lets
/// the thread go on: `isCall` before and after a system call, `carried` the signal that it is to get, 0 for none.
/// `onEnd(thread, status)` hears of each end.
template <class OnStop, class OnEnd>
void FollowTraced(OnStop onStop, OnEnd onEnd)
{
    for (;;) {
        int status = 0;
        const pid_t thread = ::waitpid(-1, &status, __WALL);
        if (thread == -1 && errno == EINTR)
            continue;
        if (thread == -1)
            return;
        if (!WIFSTOPPED(status)) {
            onEnd(thread, status);
            continue;
        }
        const int signal = WSTOPSIG(status);
        const bool isCall = signal == (SIGTRAP | 0x80);
        // Anything but our own stops is a signal on its way, which goes on with what it carries.
        const bool isOurs = isCall || status >> 16 != 0;
        onStop(thread, isCall, isOurs ? 0 : signal);
    }
}

} // namespace Test
