#pragma once
// What the systems' own ways of making a pipe have in common. Shared by the doorway's files only.

#include "vex_core/os/spawn.h"

namespace VexCore::os {

/// Takes both ends and raises them, all or nothing.
Pipe RaisePipe(const int (&made)[2]);

} // namespace VexCore::os
