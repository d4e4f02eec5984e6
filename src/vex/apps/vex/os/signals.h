#pragma once
// The doorway to the signals of this process, for the thread that serves the application. (The supervisor's are in
// process.h.)

#include <csignal>

namespace VexOs {

/// From here on `handler`, or SIG_IGN, is what happens at the signal. `flags` as for sigaction.
void SetHandler(int signal, void (*handler)(int), int flags);
/// For the calling thread and those that it starts.
void BlockSignals(const sigset_t& signals);
void UnblockSignals(const sigset_t& signals);
/// Sleeps until one of these, blocked in every thread, comes. False with the reason in error.h.
bool WaitForSignal(const sigset_t& signals, int& signal);
/// SIGALRM after that time.
void SetAlarm(unsigned seconds);
/// Ends the process as it stands. Safe in a signal handler.
[[noreturn]] void EndNow(int status);

} // namespace VexOs
