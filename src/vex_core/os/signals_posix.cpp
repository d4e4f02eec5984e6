#include "vex_core/os/signals.h"

#include <utility>

#include <sys/mman.h>
#include <unistd.h>

namespace VexCore::os {

void Disposition(int signal, struct sigaction& action)
{
    ::sigaction(signal, nullptr, &action);
}

void SetDisposition(int signal, const struct sigaction& action)
{
    ::sigaction(signal, &action, nullptr);
}

void SetDefaultDisposition(int signal)
{
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    sigemptyset(&standard.sa_mask);
    SetDisposition(signal, standard);
}

namespace {
std::size_t GuardBytes()
{
    return static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

void* NewSignalStackMapping(std::size_t bytes)
{
    const std::size_t guard = GuardBytes();
    void* const mapping = ::mmap(nullptr, guard + bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED)
        return nullptr;
    ::mprotect(mapping, guard, PROT_NONE);
    return mapping;
}

} // namespace

void UseSignalStack(SignalStack& stack, std::size_t bytes, void* mapping)
{
    if (!mapping)
        mapping = NewSignalStackMapping(bytes);
    if (!mapping)
        return;
    stack_t wanted = {};
    wanted.ss_sp = static_cast<char*>(mapping) + GuardBytes();
    wanted.ss_size = bytes;
    if (::sigaltstack(&wanted, &stack.previous) == 0)
        stack.mapping = mapping;
    else
        FreeSignalStack(mapping, bytes);
}

void* DropSignalStack(SignalStack& stack)
{
    void* const mapping = std::exchange(stack.mapping, nullptr);
    return ::sigaltstack(&stack.previous, nullptr) == 0 ? mapping : nullptr;
}

void FreeSignalStack(void* mapping, std::size_t bytes)
{
    ::munmap(mapping, GuardBytes() + bytes);
}

void SignalThread(pthread_t thread, int signal)
{
    // The one failure is a thread that ended meanwhile, and then nothing is left to interrupt.
    ::pthread_kill(thread, signal);
}

} // namespace VexCore::os
