#include "vex_core/os/signals.h"

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

void UseSignalStack(SignalStack& stack, std::size_t bytes)
{
    const std::size_t guard = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const std::size_t size = guard + bytes;
    void* const mapping = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED)
        return;
    ::mprotect(mapping, guard, PROT_NONE);
    stack_t wanted = {};
    wanted.ss_sp = static_cast<char*>(mapping) + guard;
    wanted.ss_size = bytes;
    if (::sigaltstack(&wanted, &stack.previous) != 0) {
        ::munmap(mapping, size);
        return;
    }
    stack.mapping = mapping;
    stack.size = size;
}

void DropSignalStack(SignalStack& stack)
{
    if (::sigaltstack(&stack.previous, nullptr) == 0)
        ::munmap(stack.mapping, stack.size);
    stack.mapping = nullptr;
}

void SignalThread(pthread_t thread, int signal)
{
    // The one failure is a thread that ended meanwhile, and then nothing is left to interrupt.
    ::pthread_kill(thread, signal);
}

} // namespace VexCore::os
