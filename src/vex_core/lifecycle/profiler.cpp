// No profiler is built in; a host that has one replaces these.

#include "vex/core/profiler.h"

void VexCore::profiler_idle() {}
void VexCore::profiler_running() {}
