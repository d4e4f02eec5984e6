// From parsed options and configuration files to settings in the domain and members that steer the run. Main thread,
// once, before any other thread exists. The order is part of the design: the working folder gives the configuration
// file's path, the file gives settings, and what is written later wins over a free variable of the same name.

#include "vex/apps/vex/vex.h"

#include "vex/apps/vex/narrowtext.h"
#include "vex/apps/vex/os/files.h"
#include "vex/apps/vex/pluginpath.h"
#include "vex/apps/vex/vex_p.h"

#include "vex/core/configfile.h"
#include "vex/core/dom.h"
#include "vex/core/files.h"
#include "vex/core/sqlitedb.h"

#include <cstdint>
#include <vector>

#include <wx/config.h>
#include <wx/convauto.h>
#include <wx/ffile.h>
#include <wx/fileconf.h>
#include <wx/filefn.h>
#include <wx/log.h>

namespace {
using VexCore::CDom;

const char defaultTraces[] = "Appl,Cmd,Srvc,vex.Heartbeat,vex.ListenThread,vex.PluginUtils";

// --- paths

// Makes one folder and says whether something can be made below it afterwards.
bool MakeFolder(const wxString& folder, bool isParent)
{
    constexpr int ownerReadsAndWrites = 0600;
    constexpr int ownerDoesAll = 0700;
    if (!wxMkdir(folder, ownerReadsAndWrites))
        return false;
    // Without the search bit only a privileged process can go on below.
    return !isParent || wxIsExecutable(folder) || wxFileName::DirName(folder).SetPermissions(ownerDoesAll);
}

// Makes the folder and its missing parents, without the search bit: nobody looks into the new folder before its rights
// are settled. False when that fails, of which nothing is said: it shows when files are written there.
bool MakeWorkFolder(const wxString& folder)
{
    const wxLogNull silence;
    wxFileName path = wxFileName::DirName(folder);
    wxArrayString missing; // the deepest first
    while (path.GetDirCount() > 0 && !path.DirExists()) {
        missing.push_back(path.GetPath(wxPATH_GET_VOLUME));
        path.RemoveLastDir();
    }
    for (std::size_t i = missing.size(); i-- > 0;)
        if (!MakeFolder(missing[i], i > 0))
            return false;
    return true;
}

// A relative work folder begins at the current folder. When the name of that is no text, another one would be made.
bool CanNameWorkFolder(const wxCmdLineParser& parser)
{
    wxString value;
    if (!parser.Found("workdir", &value))
        return true;
    wxFileName folder;
    folder.AssignDir(wxExpandEnvVars(value));
    folder.Normalize(wxPATH_NORM_TILDE);
    const std::string current = VexOs::CurrentFolder();
    if (folder.IsAbsolute() || IsText(current))
        return true;
    wxLogError(
        "The work folder '%s' cannot be made in '%s': that name is not valid in the locale's character set. Give "
        "the work folder's whole path.",
        value, ShownPath(current));
    return false;
}

wxString WorkFolder(const wxCmdLineParser& parser, const wxFileName& executable)
{
    wxFileName folder;
    wxString value;
    if (parser.Found("workdir", &value)) {
        folder.AssignDir(wxExpandEnvVars(value));
    } else {
        folder.AssignDir(executable.GetPath(wxPATH_GET_VOLUME));
        folder.AppendDir("work");
    }
    folder.Normalize(normalizeFlags);
    const wxString path = folder.GetPath(wxPATH_GET_VOLUME);
    // What else may have that name is a stranger's, and so are its rights.
    if (!wxDirExists(path) && MakeWorkFolder(path))
        VexCore::SecureFileOrDirectory(path, false);
    return path;
}

// --- free variables

// A text that the locale's character set cannot hold becomes empty.
std::string LocalBytes(const wxString& text)
{
    const wxCharBuffer bytes = text.mb_str();
    return bytes.data() ? std::string(bytes.data(), bytes.length()) : std::string();
}

void SetFreeVariable(CDom& dom, const wxString& assignment)
{
    const std::size_t equals = assignment.find('=');
    if (equals == wxString::npos || equals == 0) {
        WriteErrorText(wxString::Format(
            "Ignoring invalid domain variable specification '%s': expected name=value format\n", assignment));
        return;
    }
    const std::string name = LocalBytes(assignment.substr(0, equals));
    dom.Set(name.c_str(), LocalBytes(assignment.substr(equals + 1)));
}

// --- unit tests

// A pattern is taken unseen: the test runner resolves it. A plain name must be there.
bool IsUsableScript(const wxString& script)
{
    if (script.find_first_of("*?") != wxString::npos)
        return true;
    if (wxFileExists(script) && wxIsReadable(script))
        return true;
    WriteErrorText(wxString::Format("%s: not found", script)); // without a line end, on purpose
    return false;
}

// --- configuration files

// Line ends of any kind. None when the file cannot be read, which the framework reports.
std::size_t CountLines(const wxString& file)
{
    const wxLogNull silence;
    wxFFile stream(file, "rb");
    VexCore::CConfigFileLines lines;
    std::vector<char> block(64 << 10);
    while (stream.IsOpened()) {
        const std::size_t count = stream.Read(block.data(), block.size());
        lines.Add(block.data(), count);
        if (count < block.size())
            break;
    }
    return lines.Count();
}

bool IsTooLarge(const wxString& file)
{
    if (!wxFileExists(file))
        return false;
    const wxULongLong bytes = wxFileName::GetSize(file);
    if (bytes != wxInvalidSize && bytes > VexCore::maxConfigFileBytes) {
        wxLogWarning("Configuration file '%s' is larger than %llu bytes and is not read", file,
                     static_cast<unsigned long long>(VexCore::maxConfigFileBytes));
        return true;
    }
    if (CountLines(file) > VexCore::maxConfigFileLines) {
        wxLogWarning("Configuration file '%s' has more than %lu lines and is not read", file,
                     static_cast<unsigned long>(VexCore::maxConfigFileLines));
        return true;
    }
    return false;
}

// While it lives, the first lines pass to the log and the others are counted: the framework writes one for each line of
// a file that it cannot make sense of, and a file of rubbish has thousands.
class FirstLines : public wxLog
{
public:
    // The target is asked for, which makes it where nothing was logged before.
    FirstLines() : m_target(wxLog::GetActiveTarget()) { wxLog::SetActiveTarget(this); }
    ~FirstLines() override
    {
        wxLog::SetActiveTarget(m_target);
        if (m_count > maxLines)
            wxLogWarning("%lu more lines about the configuration files are left out", m_count - maxLines);
    }

protected:
    void DoLogRecord(wxLogLevel level, const wxString& message, const wxLogRecordInfo& info) override
    {
        if (++m_count <= maxLines && m_target)
            m_target->LogRecord(level, message, info);
    }

private:
    static constexpr unsigned long maxLines = 10;
    wxLog* const m_target;
    unsigned long m_count = 0;
};

wxConfigBase* OpenConfiguration(const CDom& dom, const wxString& application, const wxString& vendor)
{
    wxString local = dom.GetWxString("app.path.ini");
    wxString global = dom.GetWxString("app.path.ini.global");
    long style = wxCONFIG_USE_LOCAL_FILE | wxCONFIG_USE_GLOBAL_FILE;
    // With neither name nor flag the framework leaves a file alone.
    if (!VexCore::MayBelieveFile(local) || IsTooLarge(local)) {
        local.clear();
        style &= ~wxCONFIG_USE_LOCAL_FILE;
    }
    if (IsTooLarge(global)) {
        global.clear();
        style &= ~wxCONFIG_USE_GLOBAL_FILE;
    }
    const FirstLines firstLines;
    return new wxFileConfig(application, vendor, local, global, style, wxConvAuto());
}

void SetTracesOfConfiguration(CDom& dom, const wxConfigBase& config, bool defaultName)
{
    wxString traces;
    if (!config.Read("Trace", &traces) && defaultName)
        traces = defaultTraces;
    dom.SetWx("app.trace+", traces);
}

void SetFullDump(CDom& dom, const wxConfigBase& config)
{
    long level = 0;
    const bool present = config.Read("DumpLevel", &level);
    dom.Set("app.fulldump", present && level != 0);
}

void SetDatabaseSettings(CDom& dom, wxConfigBase& config)
{
    wxString entry;
    long cookie = 0;
    for (bool more = config.GetFirstEntry(entry, cookie); more; more = config.GetNextEntry(entry, cookie)) {
        long value = 0;
        if (entry.StartsWith("sqlite.config") && config.Read(entry, &value))
            dom.SetWx(entry.utf8_str(), static_cast<std::int64_t>(value));
    }
}

} // namespace

bool CAgentApp::OnCmdLineParsed(wxCmdLineParser& parser)
{
    wxString value;

    // Who we are. The program's name is taken as it was typed, not looked up on the PATH.
    const wxFileName executable = NormalizedFile(argv[0]);
    m_dom->SetWx("app.path.exe", executable.GetFullPath());
    if (parser.Found("appname", &value))
        SetAppName(value);
    m_dom->SetWx("app.name", GetAppName());
    m_defaultName = GetAppName() == "vx_agent";

    // How we run.
    if (parser.Found("background")) {
        m_dom->Set("app.background", true);
        m_background = true;
    }
    m_installPlugins = parser.Found("install_plugins");

    // Where Lua finds code. The names of the plugins go into the path templates.
    parser.Found("extdir", &m_extDir);
    wxString plugins;
    if (parser.Found("plugins", &plugins))
        m_dom->SetWx("app.plugins", plugins);
    if (parser.Found("lua_cpath", &value))
        m_dom->SetWx("app.lua.cpath", ExpandPathPlugins(value, plugins));
    if (parser.Found("lua_path", &value))
        m_dom->SetWx("app.lua.path", ExpandPathPlugins(value, plugins));
    parser.Found("zippath", &m_zipPath);
    m_zipPath = ExpandPathPlugins(m_zipPath, plugins);

    // Our files. Log and configuration file depend on the working folder and the name.
    if (!CanNameWorkFolder(parser))
        return false;
    const wxString work = WorkFolder(parser, executable);
    m_dom->SetWx("app.path.work", work);
    m_dom->SetWx("app.path.ini", wxFileName(work, GetAppName(), "ini").GetFullPath());
    m_dom->SetWx("app.path.ini.global", wxFileConfig::GetGlobalFile(GetAppName()).GetFullPath());

    if (parser.Found("trace", &value)) {
        // Quotes come in from service files that pass them on.
        value.Replace("'", "");
        value.Replace("\"", "");
        m_dom->SetWx("app.trace", value);
    }
    if (parser.Found("domain_var", &value))
        SetFreeVariable(*m_dom, value);

    if (parser.Found("unittest", &value) && IsUsableScript(value)) {
        m_unitTestScript = value;
        m_dom->Set("app.mode.unittest", true);
    }
    if (parser.Found("test"))
        m_dom->Set("app.mode.unittest", true);

    // The configuration files. The object stays for the life of the process.
    wxConfigBase::Set(OpenConfiguration(*m_dom, GetAppName(), GetVendorName()));
    SetTracesOfConfiguration(*m_dom, *wxConfigBase::Get(), m_defaultName);
    SetFullDump(*m_dom, *wxConfigBase::Get());
    SetDatabaseSettings(*m_dom, *wxConfigBase::Get());

    // The database layer reads what the configuration gave it.
    VexCore::CSqliteDatabase::InitializeSQLite(m_dom);
    return wxAppConsole::OnCmdLineParsed(parser);
}
