#include "vex/apps/vexctl/service.h"

namespace Vexctl {

std::vector<ServiceCommands> ServicesOf(const std::string& name)
{
    std::vector<ServiceCommands> services;
    for (const char* const suffix : {".service", "-unprivileged.service"}) {
        const std::string unit = name + suffix;
        services.push_back({unit,
                            {"systemctl", "--quiet", "is-active", "--", unit},
                            {"systemctl", "--no-ask-password", "restart", "--", unit}});
    }
    return services;
}

} // namespace Vexctl
