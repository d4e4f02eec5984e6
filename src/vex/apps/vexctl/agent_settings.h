#pragma once
// The settings of an agent, by the files as they are now.

#include "vex/apps/vexctl/options.h"
#include "vex/apps/vexctl/place.h"

#include "vex_core/domain/settings_report.h"

#include <string>
#include <vector>

namespace Vexctl {

struct AgentSettings
{
    VexCore::SettingsReport report;
    std::vector<std::string> files; ///< those that are there and could be looked into
    std::vector<std::string> forbidden; ///< those that this user may not read: whether they count is not known
};

/// `variable` is what the agent's "--domain_var" is given, "KEY=VALUE"; empty: nothing.
AgentSettings ReadAgentSettings(const Place& place, const std::string& variable);

/// The option for such a variable.
void AddVariableOption(Options& options, std::string& variable);

} // namespace Vexctl
