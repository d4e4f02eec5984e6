#pragma once
// How the doorway makes a call. Shared by its own files only.

#include "vex_core/os/call_observer.h"

#include <atomic>
#include <cassert>
#include <cerrno>

namespace VexCore::os {

extern std::atomic<CallObserver> g_observerOfCalls;

constexpr Call OfPath(const char* name, const char* path, const char* newPath = nullptr)
{
    return {name, -1, path, newPath, nullptr, nullptr, nullptr};
}

constexpr Call OfDescriptor(const char* name, int descriptor, const char* path = nullptr, const char* newPath = nullptr)
{
    return {name, descriptor, path, newPath, nullptr, nullptr, nullptr};
}

inline Call OfStat(const char* name, int descriptor, const char* path, struct stat& status)
{
    return {name, descriptor, path, nullptr, nullptr, nullptr, &status};
}

/// What the observer says, where there is one.
inline int AskObserver(const Call& call)
{
    const CallObserver observer = g_observerOfCalls.load(std::memory_order_relaxed);
    return observer ? observer(call) : 0;
}

/// For a call that the observer cannot answer. False: it is not to be made, errno says with what it failed.
inline bool MayCall(const Call& call)
{
    const int error = AskObserver(call);
    assert(error != callAnswered);
    if (error != 0)
        errno = error;
    return error == 0;
}

/// Makes the call, and again when a signal interrupted it.
template <typename Function>
auto Retried(const Function& function) -> decltype(function())
{
    for (;;) {
        const auto result = function();
        if (result != -1 || errno != EINTR)
            return result;
    }
}

/// The same for a call that the observer may be against.
template <typename Function>
auto Observed(const Call& call, const Function& function) -> decltype(function())
{
    if (!g_observerOfCalls.load(std::memory_order_relaxed))
        return Retried(function);
    return Retried([&]() -> decltype(function()) {
        const int error = AskObserver(call);
        if (error == 0)
            return function();
        if (error == callAnswered)
            return 0;
        errno = error;
        return -1;
    });
}

} // namespace VexCore::os
