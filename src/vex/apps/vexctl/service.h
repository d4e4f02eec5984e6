#pragma once
// The agent as a service of the system's service manager.

#include <string>
#include <vector>

namespace Vexctl {

/// Restarts the service of an agent of this name, if it runs, and waits until that is done. `told` is the service, or a
/// line that says why it was not restarted.
bool RestartService(const std::string& name, std::string& told);

// --- one file a system answers these

struct ServiceCommands
{
    std::string service;
    std::vector<std::string> isActive; ///< ends with 0 where it runs
    std::vector<std::string> restart;
};

/// For each service that may be the agent's.
std::vector<ServiceCommands> ServicesOf(const std::string& name);

} // namespace Vexctl
