// Plugin packages and uninstall markers beside the executable: a package is unpacked and renamed, a marker's files are
// deleted and so is the marker. Every one ends in an agent event. Script thread, before the application is loaded. How
// an archive is read and what of it may be written is the core library's.

#include "vex/apps/vex/vex.h"

#include "vex/apps/vex/os/files.h"
#include "vex/apps/vex/package_name.h"
#include "vex/apps/vex/vex_p.h"

#include "vex/core/agentevent.h"
#include "vex/core/clock.h"
#include "vex/core/dom.h"
#include "vex/core/unzip.h"

#include <wx/arrstr.h>
#include <wx/dir.h>
#include <wx/filefn.h>
#include <wx/log.h>
#include <wx/wxcrt.h>
#include <wx/zipstrm.h>

namespace {
using VexCore::CAgentEvent;

enum EventNumber { EventInstalled = 5101, EventNotInstalled = 5102, EventRemoved = 5105, EventNotRemoved = 5106 };

constexpr int levelSuccess = 5;
constexpr int levelFailure = 2;

// The files of a folder that match, by full path in ascending order; none when the folder cannot be listed.
wxArrayString FindFiles(const wxFileName& folder, const wxString& pattern)
{
    wxArrayString files;
    {
        const wxLogNull silence; // a folder that cannot be listed holds nothing
        wxDir::GetAllFiles(folder.GetPath(wxPATH_GET_VOLUME), &files, pattern, wxDIR_FILES);
    }
    files.Sort();
    return files;
}

void StartEvent(CAgentEvent& event, const wxFileName& file, const wxString& path)
{
    const wxString record = wxString::Format("%s|%s|%s", getPluginName(file), file.GetName(), path);
    event.m_text = record.utf8_str();
    event.SetAttributeNull(CAgentEvent::FieldText, false);
    const std::int64_t now = VexCore::TimeNowMillis();
    event.m_timeMillis = now;
    event.SetAttributeNull(CAgentEvent::FieldTimeMillis, false);
    event.m_timeSeconds = static_cast<std::int32_t>(now / 1000);
    event.SetAttributeNull(CAgentEvent::FieldTimeSeconds, false);
}

void FinishEvent(VexCore::CDom& dom, CAgentEvent& event, EventNumber number, int level)
{
    event.m_number = number;
    event.SetAttributeNull(CAgentEvent::FieldNumber, false);
    event.m_severity = CAgentEvent::ToSeverity(level);
    event.SetAttributeNull(CAgentEvent::FieldSeverity, false);
    dom.AgentEventWrite(event);
}

bool IsReadable(const wxString& path)
{
    if (wxIsReadable(path))
        return true;
    wxLogWarning("Plugin file '%s' isn't readable", path);
    return false;
}

// Reports a package or marker that stays because the system did not let it go.
// The trace before calls it deleting in both cases, and so does this.
void LogNotGone(const wxString& path, unsigned long systemError)
{
    wxLogSysError(static_cast<long>(systemError), "Unable to delete %s", path);
}

// In one step: the framework's call would copy and delete where the system refuses to rename, and say success.
void MarkDone(const wxString& path)
{
    if (!VexOs::RenameFile(path.fn_str(), (path + ".done").fn_str()))
        LogNotGone(path, wxSysErrorCode());
}

// Deletes one file without a word of the framework's. The error code is 0 on success.
unsigned long DeleteFile(const wxString& path)
{
    const wxLogNull silence;
    return wxRemoveFile(path) ? 0 : wxSysErrorCode();
}

bool Install(CAgentApp& app, const wxFileName& folder, const wxFileName& file, const wxString& path)
{
    if (!CAgentApp::CheckVXPVersion(file)) {
        wxLogWarning("Plugin file '%s' does not match VEX core version, not installing", path);
        return false;
    }
    if (!IsReadable(path))
        return false;
    VEX_TRACE("InstallNewPlugins", "Extracting files from %s", path);
    if (!VexCore::Unzip(file, folder, &CAgentApp::InstallPluginZipCB, &app))
        return false;
    VEX_TRACE("InstallNewPlugins", "Successfully extracted files for plugin '%s'. Deleting '%s'", file.GetName(), path);
    MarkDone(path);
    return true;
}

bool Uninstall(CAgentApp& app, const wxFileName& folder, const wxFileName& file, const wxString& path)
{
    if (!IsReadable(path))
        return false;
    VEX_TRACE("UninstallOldPlugins", "Removing files from %s", path);
    if (!VexCore::Unzip(file, folder, &CAgentApp::UninstallPluginZipCB, &app))
        return false;
    VEX_TRACE("UninstallOldPlugins", "Successfully removed files for plugin '%s'. Deleting '%s'", file.GetName(), path);
    if (const unsigned long systemError = DeleteFile(path))
        LogNotGone(path, systemError);
    return true;
}

} // namespace

bool CAgentApp::CheckVXPVersion(const wxFileName& file)
{
    return PackageVersionFits(file.GetName());
}

void CAgentApp::InstallNewPlugins()
{
    const wxFileName folder = wxFileName::DirName(m_dom->GetWxString("app.path.bin"));
    const wxArrayString packages = FindFiles(folder, "*.vxp");
    if (packages.empty())
        return;
    CAgentEvent event;
    for (const wxString& path : packages) {
        const wxFileName file(path);
        StartEvent(event, file, path);
        if (Install(*this, folder, file, path))
            FinishEvent(*m_dom, event, EventInstalled, levelSuccess);
        else
            FinishEvent(*m_dom, event, EventNotInstalled, levelFailure);
    }
    m_dom->Set("vex.HeartbeatNow", true);
}

void CAgentApp::UninstallOldPlugins()
{
    const wxFileName folder = wxFileName::DirName(m_dom->GetWxString("app.path.bin"));
    const wxArrayString markers = FindFiles(folder, "*.vxu");
    if (markers.empty())
        return;
    CAgentEvent event;
    for (const wxString& path : markers) {
        const wxFileName file(path);
        StartEvent(event, file, path);
        if (Uninstall(*this, folder, file, path))
            FinishEvent(*m_dom, event, EventRemoved, levelSuccess);
        else
            FinishEvent(*m_dom, event, EventNotRemoved, levelFailure);
    }
    m_dom->Set("vex.HeartbeatNow", true);
}

bool CAgentApp::InstallPluginZipCB(const wxZipEntry* entry)
{
    if (entry)
        VEX_TRACE("InstallPluginZipCB", "  extracting: %s (%lu bytes)", entry->GetInternalName(),
                  static_cast<unsigned long>(entry->GetSize()));
    return true;
}

bool CAgentApp::InstallPluginZipCB(void* context, const wxZipEntry* entry, const wxString*)
{
    return context && static_cast<CAgentApp*>(context)->InstallPluginZipCB(entry);
}

bool CAgentApp::UninstallPluginZipCB(const wxZipEntry* entry, const wxString* destination)
{
    if (!entry)
        return true;
    VEX_TRACE("UninstallPluginZipCB", "  removing: %s (%lu bytes)", entry->GetInternalName(),
              static_cast<unsigned long>(entry->GetSize()));
    // A file that is gone already is what was wanted. Folders stay, also where the system would let us unlink one.
    if (!wxFileName::Exists(*destination, wxFILE_EXISTS_DIR | wxFILE_EXISTS_NO_FOLLOW))
        DeleteFile(*destination);
    return false; // nothing is to be written
}

bool CAgentApp::UninstallPluginZipCB(void* context, const wxZipEntry* entry, const wxString* destination)
{
    return context && static_cast<CAgentApp*>(context)->UninstallPluginZipCB(entry, destination);
}
