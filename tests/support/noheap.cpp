// Preloaded into a program: memory that is asked for or given back on a stack for signal
// handlers ends it with status 77.

#include <csignal>
#include <cstddef>

#include <dlfcn.h>
#include <unistd.h>

namespace {
void RefuseInHandlers()
{
    stack_t stack = {};
    if (sigaltstack(nullptr, &stack) != 0 || (stack.ss_flags & SS_ONSTACK) == 0)
        return;
    static const char text[] = "the heap is used in a signal handler\n";
    const ssize_t written = write(STDERR_FILENO, text, sizeof text - 1);
    _exit(written > 0 ? 77 : 78);
}

template <class Function>
Function Next(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" __attribute__((visibility("default"))) void* malloc(std::size_t size)
{
    static void* (*const next)(std::size_t) = Next<void* (*)(std::size_t)>("malloc");
    RefuseInHandlers();
    return next(size);
}

extern "C" __attribute__((visibility("default"))) void* realloc(void* memory, std::size_t size)
{
    static void* (*const next)(void*, std::size_t) = Next<void* (*)(void*, std::size_t)>("realloc");
    RefuseInHandlers();
    return next(memory, size);
}

extern "C" __attribute__((visibility("default"))) void free(void* memory)
{
    static void (*const next)(void*) = Next<void (*)(void*)>("free");
    RefuseInHandlers();
    next(memory);
}
