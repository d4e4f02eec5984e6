// Counted at the fork itself, because the supervisor keeps to itself how often it has forked, and writes no file that
// would tell. The child has the memory that its parent had at that moment.

#include "vex_core/process/restarts.h"

#include <atomic>

#include <pthread.h>

namespace VexCore {
namespace {
std::atomic<std::uint64_t> g_forks{0}; // of this process
std::atomic<std::uint64_t> g_forksBefore{0}; // of its parent, before it

const struct ForkCounter
{
    ForkCounter()
    {
        ::pthread_atfork(
            nullptr, [] { ++g_forks; }, [] { g_forksBefore = g_forks.exchange(0); });
    }
} forkCounter;

} // namespace

std::uint64_t ForksBeforeThisProcess()
{
    return g_forksBefore;
}

} // namespace VexCore
