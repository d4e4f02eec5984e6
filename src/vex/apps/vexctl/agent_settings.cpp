#include "vex/apps/vexctl/agent_settings.h"

#include "vex_core/domain/settings_sources.h"
#include "vex_core/os/descriptor.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/process_info.h"

#include <algorithm>
#include <cerrno>
#include <map>

#include <wx/debug.h>

#include <fcntl.h>

namespace Vexctl {

namespace {
using VexCore::SettingsFile;

// Whether the agent whose work folder it is runs as the user of this process. A folder that is not there yet will be
// made by whoever starts the agent.
bool IsOfThisUser(const std::string& folder)
{
    struct stat status = {};
    return VexCore::os::Stat(folder.c_str(), status) != 0 || status.st_uid == VexCore::os::EffectiveUser();
}

bool MayNotBeRead(const std::string& path)
{
    const VexCore::os::Descriptor opened(VexCore::os::Open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
    return !opened && VexCore::os::LastError() == EACCES;
}

} // namespace

AgentSettings ReadAgentSettings(const Place& place, const std::string& variable)
{
    std::map<std::string, std::string> domain = {{"app.name", place.name},
                                                 {"app.path.bin", place.binFolder},
                                                 {"app.path.work", place.workFolder},
                                                 {"app.path.ini", place.LocalSettingsFile()},
                                                 {"app.path.ini.global", place.GlobalSettingsFile()}};
    if (const std::size_t equals = variable.find('='); equals != std::string::npos)
        domain[variable.substr(0, equals)] = variable.substr(equals + 1);

    wxDisableAsserts(); // a file can trip one of the framework's, which would end the process
    // Who may have had a hand in a file depends on the user whose agent reads it.
    const bool isAgents = IsOfThisUser(place.workFolder);
    VexCore::SettingsSources files(isAgents ? SettingsFile::Place::WorkFolder : SettingsFile::Place::System);
    std::vector<VexCore::SettingsSource> sources =
        files.Sources({domain["app.path.ini"], domain["app.path.ini.global"]});
    AgentSettings settings;
    const auto isForbidden = [&](const VexCore::SettingsSource& source) {
        if (isAgents || source.refused.empty() || !MayNotBeRead(source.file))
            return false;
        settings.forbidden.push_back(source.file);
        return true;
    };
    sources.erase(std::remove_if(sources.begin(), sources.end(), isForbidden), sources.end());
    for (const VexCore::SettingsSource& source : sources)
        settings.files.push_back(source.file);
    settings.report = VexCore::ReportOn(sources, domain);
    return settings;
}

void AddVariableOption(Options& options, std::string& variable)
{
    options.Text("-d,--domain_var", variable, "As the agent is started with it")
        .Type("KEY=VALUE")
        .Check([](const std::string& text) {
            const std::size_t equals = text.find('=');
            return equals == std::string::npos || equals == 0 ? "KEY=VALUE is wanted" : "";
        });
}

} // namespace Vexctl
