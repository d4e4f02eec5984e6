#include "vex/apps/vexctl/os/processes.h"

#include "vex/apps/vex/os/agent_locks.h"

#include "vex/core/sendsignal.h"
#include "vex_core/os/descriptor.h"
#include "vex_core/os/files.h"
#include "vex_core/os/process_info.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>

namespace Vexctl::os {

std::optional<LockHolders> ReadLockHolders(const std::string& path)
{
    // Not blocking, should there be a FIFO. A lock file that is closed costs only its closer's own locks, and we have
    // none.
    const VexCore::os::Descriptor file(VexCore::os::Open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
    struct stat status = {};
    if (!file || VexCore::os::FStat(file.Get(), status) != 0 || !S_ISREG(status.st_mode))
        return std::nullopt;
    LockHolders holders;
    holders.instance = VexOs::HolderOfLock(file.Get(), 0, VexOs::instanceLockBytes);
    holders.worker = VexOs::HolderOfLock(file.Get(), VexOs::workerLockByte, 1);
    return holders;
}

bool IsAlive(pid_t pid)
{
    VexCore::os::ProcessInfo info;
    if (VexCore::os::GetProcessInfo(pid, info))
        return !info.zombie;
    // The system may hide the processes of others.
    return VexCore::SendSignal(pid, 0) == 0 || errno == EPERM;
}

std::optional<std::vector<std::string>> TrustedArgumentsOf(pid_t pid)
{
    const std::string folder = "/proc/" + std::to_string(pid);
    struct stat status = {};
    if (VexCore::os::Stat(folder.c_str(), status) != 0
        || (status.st_uid != 0 && status.st_uid != VexCore::os::EffectiveUser()))
        return std::nullopt;
    const VexCore::os::Descriptor file(VexCore::os::Open((folder + "/cmdline").c_str(), O_RDONLY));
    std::string text;
    if (!file || !VexCore::os::ReadToEnd(file.Get(), text) || text.empty())
        return std::nullopt;
    std::vector<std::string> arguments;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t ends = std::min(text.find('\0', at), text.size());
        arguments.push_back(text.substr(at, ends - at));
        at = ends + 1;
    }
    arguments.erase(arguments.begin());
    return arguments;
}

} // namespace Vexctl::os
