#include "vex/apps/vex/os/error.h"

#include <cerrno>

namespace VexOs {

int LastError()
{
    return errno;
}

void SetLastError(int error)
{
    errno = error;
}

} // namespace VexOs
