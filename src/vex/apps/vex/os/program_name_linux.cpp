#include "vex/apps/vex/os/program_name.h"

#include <cerrno>

namespace VexOs {

std::string ProgramName()
{
    return ::program_invocation_name;
}

} // namespace VexOs
