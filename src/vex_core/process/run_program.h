#pragma once
// Running a program and waiting for it, in bytes: what `Execute` of the interface and of Lua stand on.

#include <optional>
#include <string>
#include <vector>

namespace VexCore {

struct ProgramRequest
{
    std::string program; ///< without a "/" it is looked up in PATH
    std::vector<std::string> arguments;
    long timeoutMs = 0; ///< 0: no limit
    std::optional<std::string> input; ///< what it reads; without one nothing
    bool separate = false; ///< standard error apart from standard output
};

struct ProgramResult
{
    bool ran = false; ///< to its own end, whatever its code
    std::string output; ///< the first 16 MiB
    bool isCut = false; ///< `output` is not all of it
    std::string errors; ///< the first 16 MiB of standard error, when it is apart
    int exitCode = -1; ///< when it ran: its own, or 128 and the number of the signal that ended it
    std::string error; ///< when it did not: why
};

/// As `Execute` of vex/core/execute.h. A program whose thread is asked to end meanwhile is ended, and has not run; a
/// thread that was asked before starts none. Any thread.
ProgramResult RunProgram(const ProgramRequest& request);

} // namespace VexCore
