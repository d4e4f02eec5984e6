#include "vex/apps/vexctl/place.h"

#include "vex/apps/vexctl/os/processes.h"
#include "vex/apps/vexctl/os/surroundings.h"

#include "vex/core/pidfile.h"
#include "vex_core/base/text.h"

#include <algorithm>

#include <wx/filename.h>

namespace Vexctl {

std::string Place::FileName() const
{
    std::string file = name;
    std::replace(file.begin(), file.end(), '/', '_');
    return file;
}

std::string Place::PidFile() const
{
    return "/var/run/" + name + ".pid";
}

std::string Place::LogFile() const
{
    return workFolder + "/" + FileName() + ".log";
}

std::string Place::EventsFile() const
{
    return workFolder + "/events.db";
}

std::string Place::PendingEventsFile() const
{
    return workFolder + "/events.pending.xml";
}

std::string Place::HeartbeatFile() const
{
    return workFolder + "/plugins/vx_agent/heartbeat.db";
}

std::string Place::DumpFolder() const
{
    return workFolder + "/plugins/diag";
}

std::string Place::LocalSettingsFile() const
{
    return workFolder + "/" + name + ".ini";
}

// As the framework has it for an application of this name: of one with a point in it the end is replaced.
std::string Place::GlobalSettingsFile() const
{
    wxFileName file(VexCore::FromSystemBytes(name));
    file.SetExt(wxS("conf"));
    return "/etc/" + VexCore::ToSystemBytes(file.GetFullName());
}

namespace {
// The supervisor's current folder is its work folder. A process that has no lock file there is none.
std::string FolderOfRunningAgent(const Place& place)
{
    const auto pid = static_cast<pid_t>(VexCore::ReadPidFile(VexCore::FromSystemBytes(place.PidFile())));
    const std::string folder = pid > 0 ? os::FolderOf(pid) : std::string();
    const bool isAgents = !folder.empty() && os::ReadLockHolders(folder + "/" + place.name + ".pid.lock");
    return isAgents ? folder : std::string();
}

} // namespace

Place FindPlace(const std::string& name, const std::string& givenWorkFolder)
{
    Place place{name, os::ExecutableFolder(), givenWorkFolder};
    if (place.workFolder.empty())
        place.workFolder = FolderOfRunningAgent(place);
    if (place.workFolder.empty())
        place.workFolder = place.binFolder + "/work";
    return place;
}

} // namespace Vexctl
