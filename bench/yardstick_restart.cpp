// The yardstick of bench_restart: waits for the end of a child that kills itself and makes the next, COUNT times.
// Prints a line a restart: nanoseconds from the child's end to the next fork by the clock, and of processor time
// between two forks.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "vex/core/sendsignal.h"

namespace {
std::int64_t Now(clockid_t clock)
{
    timespec time = {};
    ::clock_gettime(clock, &time);
    return static_cast<std::int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
}

} // namespace

int main(int argc, char** argv)
{
    const int count = argc > 1 ? std::atoi(argv[1]) : 0;
    void* const shared =
        ::mmap(nullptr, sizeof(std::int64_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (count < 1 || shared == MAP_FAILED)
        return 2;
    std::int64_t* const ended = static_cast<std::int64_t*>(shared);
    std::int64_t spentAtFork = 0;
    for (int i = 0; i <= count; ++i) {
        if (i > 0) {
            const std::int64_t clock = Now(CLOCK_MONOTONIC) - *ended;
            std::printf("%lld %lld\n", static_cast<long long>(clock),
                        static_cast<long long>(Now(CLOCK_PROCESS_CPUTIME_ID) - spentAtFork));
        }
        std::fflush(stdout);
        spentAtFork = Now(CLOCK_PROCESS_CPUTIME_ID);
        const pid_t child = ::fork();
        if (child == 0) {
            *ended = Now(CLOCK_MONOTONIC);
            VexCore::SendSignal(::getpid(), SIGKILL);
        }
        int status = 0;
        if (child < 0 || ::waitpid(child, &status, 0) != child)
            return 1;
    }
    return 0;
}
