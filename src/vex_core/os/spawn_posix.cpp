// Between vfork and exec the child borrows the memory of this thread, and other threads' locks are held for
// ever: RunChild calls only what POSIX lists as safe in a signal handler, and writes to nothing but its own
// stack. All signals are blocked meanwhile, so that no handler of ours runs in the child.

#include "vex_core/os/spawn.h"

#include "vex_core/os/observed.h"
#include "vex_core/os/raise_pipe.h"

#include <csignal>

#include <fcntl.h>
#include <poll.h>
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
    if (plan.ownGroup && setpgid(0, 0) != 0)
        ReportAndEnd(errno);
    if (dup2(plan.input, 0) < 0 || dup2(plan.output, 1) < 0 || dup2(plan.errors, 2) < 0)
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

Descriptor RaiseDescriptor(Descriptor descriptor)
{
    return Descriptor(descriptor ? ::fcntl(descriptor.Get(), F_DUPFD_CLOEXEC, firstFreeDescriptor) : -1);
}

Pipe RaisePipe(const int (&made)[2])
{
    Descriptor reading(made[0]);
    Descriptor writing(made[1]);
    reading = RaiseDescriptor(std::move(reading));
    if (reading)
        writing = RaiseDescriptor(std::move(writing));
    return reading && writing ? Pipe{std::move(reading), std::move(writing)} : Pipe();
}

void SetNonBlocking(int descriptor)
{
    ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) | O_NONBLOCK);
}

void WaitReadable(std::initializer_list<int> descriptors, int timeoutMs)
{
    constexpr std::size_t maxItems = 8;
    struct pollfd items[maxItems];
    nfds_t count = 0;
    for (const int descriptor : descriptors)
        if (count < maxItems)
            items[count++] = {descriptor, POLLIN, 0};
    ::poll(items, count, timeoutMs);
}

bool EndStream(std::FILE* stream)
{
    if (::ftrylockfile(stream) != 0)
        return false;
    const int descriptor = ::fileno(stream);
    SetNonBlocking(descriptor);
    std::fflush(stream);
    const Descriptor null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (null && ::dup2(null.Get(), descriptor) >= 0)
        ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    ::funlockfile(stream);
    return true;
}

pid_t TakeStatus(pid_t child, int& status)
{
    return Retried([&] { return ::waitpid(child, &status, WNOHANG); });
}

pid_t Spawn(const SpawnPlan& plan)
{
    Pipe report = OpenPipe();
    if (!report)
        return -1;
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    pid_t pid = ForkChild(plan, report.writing.Get());
    int error = errno;
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    report.writing.Reset();
    if (pid > 0) {
        // The pipe ends when exec closes it; before that comes at most one number.
        const ssize_t got = Retried([&] { return ::read(report.reading.Get(), &error, sizeof error); });
        if (got == static_cast<ssize_t>(sizeof error)) {
            Retried([pid] { return ::waitpid(pid, nullptr, 0); });
            pid = -1;
        }
    }
    errno = error;
    return pid;
}

} // namespace VexCore::os
