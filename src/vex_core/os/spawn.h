#pragma once
// Starting a program: the one place of the core library where a process is forked.

#include <string>
#include <vector>

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
/// descriptors but 0 to 2. Its pid, or -1 with errno, also when the program could not be executed. Any
/// thread.
pid_t Spawn(const SpawnPlan& plan);

/// The descriptor again, on a number above 3, close-on-exec: `Spawn` places others below. Takes the given
/// one. -1 with errno.
int RaiseDescriptor(int descriptor);

/// `RaiseDescriptor` for both ends of a pipe, all or nothing. False with errno.
bool RaisePipe(const int (&made)[2], int (&ends)[2]);

/// Two close-on-exec ends of a pipe, both above 3. False with errno.
bool OpenPipe(int (&ends)[2]);

/// Closes every descriptor from `first` on. Safe between fork and exec.
void CloseFrom(int first);

} // namespace VexCore::os
