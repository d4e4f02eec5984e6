#include "vex/apps/vexctl/place.h"

#include "vex/apps/vexctl/os/processes.h"
#include "vex/apps/vexctl/os/surroundings.h"

#include "vex/core/pidfile.h"
#include "vex_core/base/ascii.h"
#include "vex_core/base/text.h"
#include "vex_core/domain/doorbell.h"
#include "vex_core/domain/settings_sources.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/folders.h"

#include <algorithm>
#include <cerrno>

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
    // Of a service of systemd /var/run/NAME is all of /var/run, and it goes when the service ends
    // (packaging/vx_agent.service). Its lock is there before the pid file.
    const std::string plain = "/var/run/" + name + ".pid";
    const std::string caged = "/var/run/" + name + "/" + name + ".pid";
    struct stat status = {};
    const bool isCaged =
        VexCore::os::Stat(caged.c_str(), status) == 0 || VexCore::os::Stat((caged + ".lock").c_str(), status) == 0;
    return isCaged ? caged : plain;
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

std::string Place::OutReportFile() const
{
    return workFolder + "/out/report.json";
}

std::string Place::HeartbeatBell() const
{
    return workFolder + "/plugins/vx_agent/" + VexCore::doorbellName;
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

std::vector<std::string> Place::SettingsFiles() const
{
    const std::string folder = VexCore::DropInFolder(GlobalSettingsFile());
    std::vector<std::string> files;
    VexCore::os::ListFolder(folder.c_str(), [&](const char* file) {
        if (*file != '.' && VexCore::EndsWith(file, ".conf"))
            files.push_back(folder + "/" + file);
        return true;
    });
    std::sort(files.begin(), files.end());
    files.insert(files.begin(), LocalSettingsFile());
    files.push_back(GlobalSettingsFile());
    const auto isMissing = [](const std::string& file) {
        struct stat status = {};
        return VexCore::os::Stat(file.c_str(), status) != 0
               && (VexCore::os::LastError() == ENOENT || VexCore::os::LastError() == ENOTDIR);
    };
    files.erase(std::remove_if(files.begin(), files.end(), isMissing), files.end());
    return files;
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
