#pragma once
// Why the last call of this thread failed. Every function of this folder that can fail leaves its reason here, as the
// system does, where the framework's `wxSysErrorCode` looks too. Safe in a signal handler.

namespace VexOs {

/// One of the E... numbers. Says nothing after a call that did not fail.
int LastError();
/// For a function that finds a failure itself and reports it in the same way.
void SetLastError(int error);

/// Whatever is called while it lives, the reason at its begin is the reason again at its end: for a handler that came
/// in between, and for clearing up on the way out.
class KeepError
{
public:
    KeepError() : m_error(LastError()) {}
    ~KeepError() { SetLastError(m_error); }
    KeepError(const KeepError&) = delete;
    KeepError& operator=(const KeepError&) = delete;

private:
    const int m_error;
};

} // namespace VexOs
