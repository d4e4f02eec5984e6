#pragma once
// Pipes with a name, by which one process wakes another.

#include "vex_core/os/spawn.h"

#include <string>

namespace VexCore::os {

/// Opens both ends of the pipe `name` in the folder, which is made for its owner alone where there is none. Neither end
/// waits, and while both are open nobody sees the end of a reader or of the last writer. None with the last error:
/// EEXIST for anything else of this name, and for a pipe that others have a hand in.
Pipe OpenNamedPipe(int folder, const char* name);

/// Opens the pipe of that path for writing, when somebody reads from it. None with the last error: ENXIO when nobody
/// does, EEXIST when it is no pipe.
Descriptor OpenPipeOfReader(const std::string& path);

} // namespace VexCore::os
