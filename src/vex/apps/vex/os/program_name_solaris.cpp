#include "vex/apps/vex/os/program_name.h"

#include <stdlib.h>

namespace VexOs {

std::string ProgramName()
{
    const char* const path = ::getexecname();
    return path ? path : "";
}

} // namespace VexOs
