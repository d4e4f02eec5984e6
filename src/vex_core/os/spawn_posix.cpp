// Between vfork and exec the child borrows the memory of this thread, and other threads' locks are held for
// ever: RunChild calls only what POSIX lists as safe in a signal handler, and writes to nothing but its own
// stack. All signals are blocked meanwhile, so that no handler of ours runs in the child.

#include "vex_core/os/spawn.h"

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

namespace VexCore::os {
namespace {
constexpr int reportDescriptor = 3;
constexpr int firstFreeDescriptor = 4;

[[noreturn]] void ReportAndEnd(int error)
{
    // A pipe takes a few bytes whole; when nobody reads any more, nobody wants to know.
    const ssize_t written = write(reportDescriptor, &error, sizeof error);
    _exit(written == sizeof error ? 127 : 126);
}

void ResetDispositions()
{
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    sigemptyset(&standard.sa_mask);
    for (int number = 1; number < NSIG; ++number)
        sigaction(number, &standard, nullptr); // refused for SIGKILL and the C library's own, rightly
}

[[noreturn, gnu::noinline]] void RunChild(const SpawnPlan& plan, int report)
{
    if (dup2(report, reportDescriptor) < 0)
        _exit(126);
    fcntl(reportDescriptor, F_SETFD, FD_CLOEXEC);
    if (setpgid(0, 0) != 0 || dup2(plan.input, 0) < 0 || dup2(plan.output, 1) < 0 || dup2(plan.output, 2) < 0)
        ReportAndEnd(errno);
    CloseFrom(firstFreeDescriptor);
    ResetDispositions();
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execve(plan.program, plan.arguments, plan.environment);
    ReportAndEnd(errno);
}

// vfork, because a copy of the page tables of a large agent costs more than all the rest.
[[gnu::noinline]] pid_t ForkChild(const SpawnPlan& plan, int report)
{
    const pid_t pid = vfork();
    if (pid == 0)
        RunChild(plan, report);
    return pid;
}

} // namespace

int RaiseDescriptor(int descriptor)
{
    if (descriptor < 0)
        return -1;
    const int raised = fcntl(descriptor, F_DUPFD_CLOEXEC, firstFreeDescriptor);
    const int error = errno;
    close(descriptor);
    errno = error;
    return raised;
}

bool RaisePipe(const int (&made)[2], int (&ends)[2])
{
    ends[0] = RaiseDescriptor(made[0]);
    ends[1] = RaiseDescriptor(made[1]);
    if (ends[0] >= 0 && ends[1] >= 0)
        return true;
    const int error = errno;
    for (const int end : ends)
        if (end >= 0)
            close(end);
    errno = error;
    return false;
}

pid_t Spawn(const SpawnPlan& plan)
{
    int report[2];
    if (!OpenPipe(report))
        return -1;
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pid_t pid = ForkChild(plan, report[1]);
    int error = errno;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    close(report[1]);
    if (pid > 0) {
        // The pipe ends when exec closes it; before that comes at most one number.
        ssize_t got;
        do {
            got = read(report[0], &error, sizeof error);
        } while (got < 0 && errno == EINTR);
        if (got == static_cast<ssize_t>(sizeof error)) {
            while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
            }
            pid = -1;
        }
    }
    close(report[0]);
    errno = error;
    return pid;
}

} // namespace VexCore::os
