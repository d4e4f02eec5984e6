#pragma once
// What each thread of ours has so that a crash on its exhausted stack can still be reported.

namespace VexCore {

/// Gives the calling thread a stack of its own for signal handlers, once `InitCrashHandler` has succeeded in this
/// process; before that, and a second time, it gives none. First call of a thread.
void TakeSignalStack();

/// Gives it back. Last call of the same thread.
void ReturnSignalStack();

/// The same for a scope.
class SignalStackScope
{
public:
    SignalStackScope() { TakeSignalStack(); }
    ~SignalStackScope() { ReturnSignalStack(); }
    SignalStackScope(const SignalStackScope&) = delete;
    SignalStackScope& operator=(const SignalStackScope&) = delete;
};

/// From now on threads that start get such a stack.
void EnableSignalStacks();

} // namespace VexCore
