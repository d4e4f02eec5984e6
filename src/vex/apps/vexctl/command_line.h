#pragma once
// The table of the subcommands, and the way from the arguments to one of them.

#include "vex/apps/vexctl/command.h"

#include <vector>

namespace Vexctl {

/// In the order in which the help shows them.
const std::vector<Command>& Commands();

/// What `main` does; the exit status.
int RunCommandLine(int argc, char** argv);

} // namespace Vexctl
