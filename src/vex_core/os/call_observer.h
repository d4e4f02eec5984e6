#pragma once
// The one hook of this room, for tests: they see the calls for files and folders (files.h but where it says otherwise,
// folders.h, file_lock.h, CloseWritten, which can fail, and what system_log.h says), make any of them fail or fall
// short, or end the process right before one. Not seen is what concerns descriptors alone, processes, signals and the
// host.

#include <cstddef>

#include <sys/stat.h>

namespace VexCore::os {

/// One call about to be made. What the call does not have is null.
struct Call
{
    const char* name; ///< the system's own, as in "openat"
    int descriptor; ///< the file or the folder that the path is relative to; -1 for none
    const char* path;
    const char* newPath;
    const void* data; ///< of a write
    std::size_t* size; ///< of a read or write, in bytes; an observer that lowers it makes the call fall short
    struct stat* status; ///< where the answer of a stat goes
};

/// The observer has made the call itself, and it went well. Only where 0 is the whole answer.
constexpr int callAnswered = -1;

/// Sees each call before it is made: 0 lets it happen, anything else but `callAnswered` is the error with which it
/// fails unmade. EINTR makes the doorway try again, as the system's would. Called on the thread that makes the call.
using CallObserver = int (*)(const Call& call);

/// For tests. Null, the normal state, costs one relaxed atomic load a call. Returns the one before.
CallObserver SetCallObserver(CallObserver observer);

} // namespace VexCore::os
