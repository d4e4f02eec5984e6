#include "vex_core/os/exit.h"

#include <cstdlib>

void VexCore::os::AtExitWithStatus(void (*handler)(int status))
{
    // Fails only without memory; then the process ends as it would have.
    (void)::on_exit([](int status, void* context) { reinterpret_cast<void (*)(int)>(context)(status); },
                    reinterpret_cast<void*>(handler));
}
