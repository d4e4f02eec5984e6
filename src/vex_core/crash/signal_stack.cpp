#include "vex_core/crash/signal_stack.h"

#include "vex_core/os/signals.h"

#include <atomic>
#include <cstddef>

namespace VexCore {
namespace {
// The dump is written on it: its buffers are static, so that calls and a few paths are all that it must hold.
// SIGSTKSZ is not a constant on newer systems and too small for processors with wide registers.
constexpr std::size_t signalStackBytes = 64 * 1024;

std::atomic<bool> g_enabled{false};
// That of the thread that ended last, for the next one: to make and to take away a mapping costs more than ten other
// calls. It is untouched but for a crash, so it takes no memory.
std::atomic<void*> g_kept{nullptr};
thread_local os::SignalStack t_stack;

} // namespace

void EnableSignalStacks()
{
    g_enabled.store(true, std::memory_order_relaxed);
}

void TakeSignalStack()
{
    // Where there is none to be had the thread runs all the same; only a crash on a full stack goes without a dump.
    if (g_enabled.load(std::memory_order_relaxed) && !t_stack.mapping)
        os::UseSignalStack(t_stack, signalStackBytes, g_kept.exchange(nullptr));
}

void ReturnSignalStack()
{
    if (!t_stack.mapping)
        return;
    if (void* const mapping = os::DropSignalStack(t_stack))
        if (void* const before = g_kept.exchange(mapping))
            os::FreeSignalStack(before, signalStackBytes);
}

} // namespace VexCore
