#include "vex_core/os/host_facts.h"

#include <cstdlib>

#include <sys/utsname.h>
#include <unistd.h>
#if defined(__sun)
#include <sys/loadavg.h>
#endif

namespace VexCore::os {

SystemName GetSystemName()
{
    struct utsname names = {};
    if (::uname(&names) < 0)
        return {};
    return {names.sysname, names.release, names.version, names.machine, names.nodename};
}

std::optional<std::array<double, 3>> LoadAverages()
{
    std::array<double, 3> averages = {};
    if (::getloadavg(averages.data(), 3) != 3)
        return std::nullopt;
    return averages;
}

std::optional<long> Processors()
{
    const long count = ::sysconf(_SC_NPROCESSORS_ONLN);
    return count > 0 ? std::optional<long>(count) : std::nullopt;
}

} // namespace VexCore::os
