#pragma once
// Signals of this process: what happens at one, and sending one to a thread of ours. (To processes: vex/core/sendsignal.h.)

#include <csignal>

#include <pthread.h>

namespace VexCore::os {

/// What happens at the signal now.
void Disposition(int signal, struct sigaction& action);
void SetDisposition(int signal, const struct sigaction& action);
void SetDefaultDisposition(int signal);

/// Sends `signal` to a thread of this process that has not been joined yet.
void SignalThread(pthread_t thread, int signal);

} // namespace VexCore::os
