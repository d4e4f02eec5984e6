#include "vex/apps/vexctl/os/watch.h"

#include "vex_core/os/files.h"

#include <sys/inotify.h>

namespace Vexctl::os {

FolderWatch::FolderWatch(const std::string& folder) : m_notices(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
{
    constexpr std::uint32_t wanted = IN_MODIFY | IN_CREATE | IN_MOVE | IN_DELETE | IN_ONLYDIR;
    if (m_notices && ::inotify_add_watch(m_notices.Get(), folder.c_str(), wanted) < 0)
        m_notices.Reset();
}

void FolderWatch::TakeNotices()
{
    alignas(struct inotify_event) char notices[4096];
    ssize_t size = 0;
    while ((size = VexCore::os::Read(m_notices.Get(), notices, sizeof notices)) > 0) {
        for (const char* at = notices; at < notices + size;) {
            const auto* const notice = reinterpret_cast<const struct inotify_event*>(at);
            at += sizeof(struct inotify_event) + notice->len;
            if ((notice->mask & IN_IGNORED) != 0) { // the folder is gone, and one of its name may come
                m_notices.Reset();
                return;
            }
        }
    }
}

} // namespace Vexctl::os
