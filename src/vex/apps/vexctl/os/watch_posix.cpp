#include "vex/apps/vexctl/os/watch.h"

#include <algorithm>

#include <poll.h>

namespace Vexctl::os {

FolderWatch::Woken FolderWatch::Wait(int outputDescriptor, long timeoutMs)
{
    constexpr long betweenLooksMs = 1000;
    long waitMs = timeoutMs;
    if (!m_notices)
        waitMs = timeoutMs < 0 ? betweenLooksMs : std::min(timeoutMs, betweenLooksMs);
    // A descriptor of -1 is passed over. Without a wanted event only the end of the reader shows.
    struct pollfd polled[] = {{m_notices.Get(), POLLIN, 0}, {outputDescriptor, 0, 0}};
    const int count = ::poll(polled, 2, static_cast<int>(waitMs));
    if (count > 0 && (polled[1].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0)
        return Woken::ReaderGone;
    if (count > 0 && polled[0].revents != 0)
        TakeNotices();
    return count == 0 && waitMs == timeoutMs ? Woken::TimeOver : Woken::Changed;
}

} // namespace Vexctl::os
