#include "vex/apps/vexctl/service.h"

namespace Vexctl {

std::vector<ServiceCommands> ServicesOf(const std::string& name)
{
    const std::string service = "svc:/application/" + name + ":default";
    return {{service,
             {"/bin/sh", "-c", "[ \"`/usr/bin/svcs -H -o state \"$0\"`\" = online ]", service},
             {"/usr/sbin/svcadm", "restart", "-s", service}}};
}

} // namespace Vexctl
