#pragma once
// Where an agent has what vexctl reads. docs/FORMATS.md has the names.

#include <string>
#include <vector>

namespace Vexctl {

struct Place
{
    std::string name; ///< the agent's
    std::string binFolder; ///< where the executables lie
    std::string workFolder;

    /// Looks where it is each time: an agent that systemd has started has a /var/run of its own.
    std::string PidFile() const;
    std::string LogFile() const;
    std::string EventsFile() const;
    std::string PendingEventsFile() const;
    std::string HeartbeatFile() const;
    /// The report that the agent leaves for collectors.
    std::string OutReportFile() const;
    /// The pipe through which a heartbeat is asked for.
    std::string HeartbeatBell() const;
    std::string DumpFolder() const;
    /// The agent's own file of settings, and that of the host.
    std::string LocalSettingsFile() const;
    std::string GlobalSettingsFile() const;
    /// The former, the drop-ins in the order of their names, and the latter, as far as they are there.
    std::vector<std::string> SettingsFiles() const;

    /// The name as it stands in the names of files.
    std::string FileName() const;
};

/// Finds the work folder of an agent: the one that is given; where that is empty the one in which an agent of this name
/// runs, as far as the system shows it; else work/ beside this executable.
Place FindPlace(const std::string& name, const std::string& givenWorkFolder);

} // namespace Vexctl
