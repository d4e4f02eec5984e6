#include "vex_core/os/exit.h"

// atexit() does not tell the status, and nothing else is there: static destructors run under a thread that did not end.
bool VexCore::os::AtExitWithStatus(void (*)(int status))
{
    return false;
}
