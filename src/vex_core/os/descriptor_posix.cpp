#include "vex_core/os/descriptor.h"

#include "vex_core/os/error.h"
#include "vex_core/os/observed.h"

#include <fcntl.h>
#include <unistd.h>

namespace VexCore::os {

void Close(int descriptor)
{
    if (descriptor < 0)
        return;
    const KeepError keep;
    ::close(descriptor); // not tried again: after EINTR the descriptor is gone already
}

int CloseWritten(int descriptor)
{
    if (MayCall(OfDescriptor("close", descriptor)))
        return ::close(descriptor) == 0 || errno == EINTR ? 0 : -1;
    Close(descriptor);
    return -1;
}

bool ReplaceDescriptor(Descriptor& place, Descriptor opened)
{
    if (!place) {
        place = std::move(opened);
        return true;
    }
    while (::dup2(opened.Get(), place.Get()) < 0)
        if (errno != EINTR && errno != EBUSY)
            return false;
    ::fcntl(place.Get(), F_SETFD, FD_CLOEXEC);
    return true;
}

} // namespace VexCore::os
