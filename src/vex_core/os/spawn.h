#pragma once
// Starting a program and waiting for it: the one place of the core library where a process is forked.

#include "vex_core/os/descriptor.h"

#include <csignal>

#include <sys/types.h>

namespace VexCore::os {

/// What a new program gets.
struct SpawnPlan
{
    const char* program = nullptr; ///< path, not looked up
    char* const* arguments = nullptr; ///< ends with null; the first is the program's name
    char* const* environment = nullptr; ///< ends with null
    int input = -1; ///< becomes descriptor 0
    int output = -1; ///< becomes descriptors 1 and 2
};

/// Starts the program in a process group of its own, with default signal dispositions, an empty mask and no
/// descriptors but 0 to 2. Its pid, or -1 with the last error, also when the program could not be executed. Any
/// thread.
pid_t Spawn(const SpawnPlan& plan);

/// The descriptor again, on a number above 3, close-on-exec: `Spawn` places others below. Takes the given one.
/// None with the last error.
Descriptor RaiseDescriptor(Descriptor descriptor);

struct Pipe
{
    Descriptor reading;
    Descriptor writing;
    explicit operator bool() const { return reading && writing; }
};
/// Both ends close-on-exec and above 3. None with the last error.
Pipe OpenPipe();
/// Reads through this descriptor answer EAGAIN where they would wait.
void SetNonBlocking(int descriptor);

/// A descriptor that polls readable when the child `pid` has ended, none where the system has no such thing.
Descriptor OpenProcess(pid_t pid);
/// Waits until `first` or `second` (-1: is not there) can be read, or is at its end, at most
/// `timeoutMs` (-1: no limit).
void WaitReadable(int first, int second, int timeoutMs);
/// The child's id when it has ended, with its status; 0 when it runs; -1 with the last error. Does not wait.
pid_t TakeStatus(pid_t child, int& status);

/// Closes every descriptor from `first` on. Safe between fork and exec.
void CloseFrom(int first);

} // namespace VexCore::os
