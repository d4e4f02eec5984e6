#pragma once
// The pure half of reading a pid file.

#include <cstddef>
#include <cstdint>

#include <sys/types.h>

namespace VexCore {

struct PidFileText
{
    pid_t pid = 0; ///< 0: malformed or out of range
    bool hasStartTime = false;
    std::uint64_t startTime = 0;
};

/// Reads the content of a pid file: a decimal pid above 1, then perhaps a line with its start time, and
/// nothing else.
PidFileText ParsePidFile(const char* text, std::size_t size);

} // namespace VexCore
