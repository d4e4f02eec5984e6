#include "vex_core/base/end_steps.h"

#include <cstdio>
#include <cstdlib>

namespace VexCore {

namespace {
// Constant-initialised and trivially destroyed: owners register before anything else of this file would have run.
EndSteps g_steps;

} // namespace

EndSteps& EndSteps::OfProcess()
{
    return g_steps;
}

void EndSteps::Register(EndStep step, Function function)
{
    if (Replace(step, function)) {
        std::fprintf(stderr, "Step %d of the end of the process is registered twice\n", static_cast<int>(step));
        std::abort();
    }
}

EndSteps::Function EndSteps::Replace(EndStep step, Function function)
{
    Function& place = m_functions[static_cast<std::size_t>(step)];
    const Function before = place;
    place = function;
    return before;
}

} // namespace VexCore
