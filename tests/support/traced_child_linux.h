#pragma once
// Starts a program that is traced from its first instruction.

#include "vex/core/sendsignal.h"

#include <csignal>

#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Test {

/// Starts argv[0] with its arguments and returns its pid, or -1 with errno. It stands still before its first instruction until it
/// gets SIGCONT. `options` are ptrace's; should this process be killed, nobody stays behind half traced.
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

} // namespace Test
