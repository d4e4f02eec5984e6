#include "vex_core/os/file_calls.h"
#include "vex_core/os/procinfo.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace VexCore::os {

// /proc/PID/stat is "pid (name) state ppid ...". The name may hold blanks and parentheses, so the fields are
// counted from the last parenthesis: the state is the 3rd field of the line and the start time the 22nd.
bool GetProcessInfo(pid_t pid, ProcessInfo& info)
{
    char path[40];
    std::snprintf(path, sizeof path, "/proc/%ld/stat", static_cast<long>(pid));
    const Descriptor file(fileCalls.open(path, O_RDONLY, 0));
    if (!file)
        return false;
    char text[1024];
    const ssize_t size = fileCalls.read(file.Get(), text, sizeof text - 1);
    if (size <= 0)
        return false;
    text[size] = '\0';
    const char* at = std::strrchr(text, ')');
    if (!at || at[1] != ' ')
        return false;
    const char state = at[2];
    at += 2;
    for (int field = 3; field < 22; ++field) {
        at = std::strchr(at, ' ');
        if (!at)
            return false;
        ++at;
    }
    info.startTime = std::strtoull(at, nullptr, 10);
    info.zombie = state == 'Z' || state == 'X';
    return true;
}

int OpenProcess(pid_t pid)
{
#ifdef SYS_pidfd_open
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)); // close-on-exec by itself
#else
    (void)pid;
    return -1;
#endif
}

} // namespace VexCore::os
