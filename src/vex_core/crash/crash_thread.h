#pragma once
// What each thread of ours does so that a crash on its exhausted stack can still be reported.

namespace VexCore {

/// Gives the calling thread a stack of its own for signal handlers, once `InitCrashHandler` has succeeded in this process;
/// before that, and a second time, it gives none. First call of a thread.
void CrashThreadStart();

/// Gives it back. Last call of the same thread.
void CrashThreadEnd();

/// The same for a scope.
class CrashThreadScope
{
public:
    CrashThreadScope() { CrashThreadStart(); }
    ~CrashThreadScope() { CrashThreadEnd(); }
    CrashThreadScope(const CrashThreadScope&) = delete;
    CrashThreadScope& operator=(const CrashThreadScope&) = delete;
};

/// From now on threads that start get such a stack.
void EnableCrashThreads();

} // namespace VexCore
