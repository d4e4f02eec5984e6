#include "vex_core/crash/crash_thread.h"

#include <atomic>
#include <csignal>
#include <cstddef>

#include <sys/mman.h>
#include <unistd.h>

namespace VexCore {
namespace {
// The dump is written on it: its buffers are static, so that calls and a few paths are all that it must hold.
// SIGSTKSZ is not a constant on newer systems and too small for processors with wide registers.
constexpr std::size_t stackBytes = 64 * 1024;

std::atomic<bool> g_enabled{false};
thread_local void* t_ownStack = nullptr; // the mapping, its lowest page a guard
thread_local stack_t t_previousStack; // a sanitizer's; none otherwise

std::size_t PageBytes()
{
    return static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

} // namespace

void EnableCrashThreads()
{
    g_enabled.store(true, std::memory_order_relaxed);
}

void CrashThreadStart()
{
    if (!g_enabled.load(std::memory_order_relaxed) || t_ownStack)
        return;
    const std::size_t size = PageBytes() + stackBytes;
    void* const mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED)
        return; // the thread runs all the same; only a crash on a full stack goes without a dump
    mprotect(mapping, PageBytes(), PROT_NONE);
    stack_t stack = {};
    stack.ss_sp = static_cast<char*>(mapping) + PageBytes();
    stack.ss_size = stackBytes;
    if (sigaltstack(&stack, &t_previousStack) != 0) {
        munmap(mapping, size);
        return;
    }
    t_ownStack = mapping;
}

void CrashThreadEnd()
{
    if (!t_ownStack)
        return;
    if (sigaltstack(&t_previousStack, nullptr) == 0)
        munmap(t_ownStack, PageBytes() + stackBytes);
    t_ownStack = nullptr;
}

} // namespace VexCore
