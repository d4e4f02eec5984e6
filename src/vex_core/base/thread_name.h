#pragma once
// What the calling thread is called in log lines and crash reports: one place, so that they cannot tell it apart.

namespace VexCore {

/// The calling thread's name; "main" on the thread that loaded the library, null on one that nobody has named.
/// Async-signal-safe.
const char* ThreadName();

/// Names the calling thread for the scope's life. The text is not copied and must live as long.
class ThreadNameScope
{
public:
    explicit ThreadNameScope(const char* name);
    ~ThreadNameScope();
    ThreadNameScope(const ThreadNameScope&) = delete;
    ThreadNameScope& operator=(const ThreadNameScope&) = delete;

private:
    const char* const m_before;
};

} // namespace VexCore
