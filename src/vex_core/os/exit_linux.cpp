#include "vex_core/os/exit.h"

#include <cstdlib>

bool VexCore::os::AtExitWithStatus(void (*handler)(int status))
{
    return ::on_exit([](int status, void* context) { reinterpret_cast<void (*)(int)>(context)(status); },
                     reinterpret_cast<void*>(handler))
           == 0;
}
