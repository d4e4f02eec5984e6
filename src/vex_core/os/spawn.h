#pragma once
// Starting a program and waiting for it: the one place of the core library where a process is forked.

#include "vex_core/os/descriptor.h"

#include <csignal>
#include <cstdio>
#include <initializer_list>
#include <string_view>

#include <sys/types.h>

namespace VexCore::os {

/// What a new program gets.
struct SpawnPlan
{
    const char* program = nullptr; ///< path, not looked up
    char* const* arguments = nullptr; ///< ends with null; the first is the program's name
    char* const* environment = nullptr; ///< ends with null
    int input = 0; ///< becomes descriptor 0; this one and the next two are equal to what they become, or above 3
    int output = 1; ///< becomes descriptor 1
    int errors = 2; ///< becomes descriptor 2
    bool ownGroup = true; ///< a process group of its own, whose id is its pid
};

/// Starts the program with default signal dispositions, an empty mask and no descriptors but 0 to 2. Its pid, or -1
/// with the last error, also when the program could not be executed. Any thread.
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
/// A file without a name that holds `bytes`, open at its begin, close-on-exec and above 3. None with the last error.
Descriptor FileOf(std::string_view bytes);
/// Reads through this descriptor answer EAGAIN where they would wait.
void SetNonBlocking(int descriptor);

/// A descriptor that polls readable when the child `pid` has ended, none where the system has no such thing.
Descriptor OpenProcess(pid_t pid);
/// Waits until one of the descriptors (-1: is not there) can be read, or is at its end, at most `timeoutMs` (-1: no
/// limit).
void WaitReadable(std::initializer_list<int> descriptors, int timeoutMs);
/// The child's id when it has ended, with its status; 0 when it runs; -1 with the last error. Does not wait.
pid_t TakeStatus(pid_t child, int& status);

/// Writes what a stream to a program holds, as far as the program takes it at once, and gives the program the end of
/// it; what is written later is nobody's. False, and nothing is done, while another thread uses the stream.
bool EndStream(std::FILE* stream);

/// Closes every descriptor from `first` on. Safe between fork and exec.
void CloseFrom(int first);

} // namespace VexCore::os
