#include "vex_core/os/pause.h"

#include "vex_core/os/error.h"

#include <cerrno>
#include <ctime>

namespace VexCore::os {

void PauseMs(long milliseconds)
{
    const KeepError keep;
    struct timespec left = {milliseconds / 1000, milliseconds % 1000 * 1000000};
    while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

} // namespace VexCore::os
