#pragma once
// What each thread of ours does so that a crash on its exhausted stack can still be reported.

namespace VexCore {

/// Notes the calling thread's name, which must live until `CrashThreadEnd`, and gives it a stack of its own for
/// signal handlers, once `InitCrashHandler` has succeeded in this process; before that, and a second time, it
/// gives none. First call of a thread.
void CrashThreadStart(const char* name);

/// Gives it back. Last call of the same thread.
void CrashThreadEnd();

/// The name of the calling thread as `CrashThreadStart` got it; null outside. Async-signal-safe.
const char* CrashThreadName();

/// The same for a scope.
class CrashThreadScope
{
public:
    explicit CrashThreadScope(const char* name) { CrashThreadStart(name); }
    ~CrashThreadScope() { CrashThreadEnd(); }
    CrashThreadScope(const CrashThreadScope&) = delete;
    CrashThreadScope& operator=(const CrashThreadScope&) = delete;
};

/// From now on threads that start get such a stack.
void EnableCrashThreads();

} // namespace VexCore
