#pragma once
// Signals of this process: what happens at one, and sending one to a thread of ours. (To processes:
// vex/core/sendsignal.h.)

#include <csignal>
#include <cstddef>

#include <pthread.h>

namespace VexCore::os {

/// What happens at the signal now.
void Disposition(int signal, struct sigaction& action);
void SetDisposition(int signal, const struct sigaction& action);
void SetDefaultDisposition(int signal);

/// A stack that the signal handlers of one thread run on, with a guard below it.
struct SignalStack
{
    void* mapping = nullptr; ///< null: none
    stack_t previous = {}; ///< what the thread had: a sanitizer's, or none
};

/// Gives the calling thread one of so many bytes: that of `mapping`, which then belongs to `stack`, or, when this is
/// null, a new one. Leaves `stack` without a mapping when it cannot be had.
void UseSignalStack(SignalStack& stack, std::size_t bytes, void* mapping = nullptr);
/// Gives the thread back what it had. The same thread. Returns the mapping, for another thread with a stack of the same
/// size or for `FreeSignalStack`; null when the system did not take it from the thread.
void* DropSignalStack(SignalStack& stack);
/// `bytes` is that of `UseSignalStack`.
void FreeSignalStack(void* mapping, std::size_t bytes);

/// Sends `signal` to a thread of this process that has not been joined yet.
void SignalThread(pthread_t thread, int signal);

} // namespace VexCore::os
