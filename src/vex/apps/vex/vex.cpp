// Construction and start-up: what must be right before anything else of the launcher runs. Main thread, before any
// other thread exists. The options and what becomes of them are in cmdline.cpp and settings.cpp.

#include "vex/apps/vex/vex.h"

#include "vex/apps/vex/os/files.h"
#include "vex/apps/vex/os/program_name.h"
#include "vex/apps/vex/vex_p.h"

#include "vex/core/crash.h"
#include "vex/core/dom.h"
#include "vex/core/log.h"
#include "vex/core/openssl.h"

#include <ctime>
#include <string>

#include <wx/translation.h>

const char* const CAgentApp::s_Trace = "Appl";

namespace {
// Finds the framework's own message catalogue. Its standard loader looks into every folder of the system's
// locale tree to learn which languages there are, which is half of the system calls of a start; only the user's
// language is of use here.
class OneLanguageLoader : public wxFileTranslationsLoader
{
public:
    wxArrayString GetAvailableTranslations(const wxString&) const override
    {
        wxArrayString languages;
        const wxString language = wxLocale::GetLanguageCanonicalName(wxLocale::GetSystemLanguage());
        if (!language.empty()) {
            languages.push_back(language);
            languages.push_back(language.BeforeFirst('_'));
        }
        return languages;
    }
};

// What the environment says of numbers and of the character set, the core library has put right before main.
void InitLocale(wxLocale& locale)
{
    wxTranslations* const translations = new wxTranslations;
    translations->SetLoader(new OneLanguageLoader);
    wxTranslations::Set(translations);
    locale.Init(wxLANGUAGE_DEFAULT, wxLOCALE_LOAD_DEFAULT);
}

// The framework's default for a console program is to abort, and its assertions can be tripped by an operator's file (a
// quoted value with text behind it in a configuration file does). A daemon writes a line and goes on.
void LogAssertion(const wxString& file, int line, const wxString& function, const wxString& condition,
                  const wxString& message)
{
    static thread_local bool t_inside = false; // logging may trip one too
    if (t_inside)
        return;
    t_inside = true;
    wxLogError("Assertion \"%s\" failed at %s:%d, %s(): %s", condition, file, line, function, message);
    t_inside = false;
}

// The folder that holds the maker's products, when we are installed below it; else our own folder.
wxString VendorFolder(const wxFileName& executable)
{
    const wxString own = executable.GetPath(wxPATH_GET_VOLUME);
    if (executable.GetDirCount() <= 1)
        return own;
    wxFileName parent = executable;
    parent.RemoveLastDir();
    const wxString path = parent.GetPath(wxPATH_GET_VOLUME);
    return path.Find("Halvorn") == wxNOT_FOUND ? own : path;
}

void WriteInstallationPaths(VexCore::CDom& dom, const wxFileName& executable)
{
    wxFileName library = executable;
    library.AppendDir("lib");
    dom.SetWx("app.path.bin", executable.GetPath(wxPATH_GET_VOLUME));
    dom.SetWx("app.path.lib", library.GetPath(wxPATH_GET_VOLUME));
    dom.SetWx("app.path.hv", VendorFolder(executable));
    dom.Set("app.version", VEX_VERSION_TEXT);
}

// Where we lie must be text, and must fit into Lua's lists of templates: archives, modules and the work folder are
// found by it. Otherwise we would go on with a folder of another name, and make files there. By the system's own bytes,
// because the framework drops an argument that is no text, the first one too.
bool CanRunFromHere(const std::string& program)
{
    const std::string path = program.rfind('/', 0) == 0 ? program : VexOs::CurrentFolder() + "/" + program;
    if (!IsText(path)) {
        wxLogError("The agent cannot run from '%s': the name is not valid in the locale's character set. Give the file "
                   "or the folder another name.",
                   ShownPath(path));
        return false;
    }
    const wxString folder = NormalizedFile(wxString(path.c_str(), wxConvLocal)).GetPath();
    if (folder.find_first_of(";?") != wxString::npos) {
        wxLogError("The agent cannot run from '%s': a folder with \";\" or \"?\" in its name cannot be told to Lua. "
                   "Give the folder another name.",
                   folder);
        return false;
    }
    return true;
}

void InstallCrashHandler(VexCore::CDom& dom, const wxString& application)
{
    const wxFileName dump(dom.GetPluginWorkdirWx("diag"), application, "mdmp");
    bool fullDump = false;
    dom.Get("app.fulldump", fullDump);
    VexCore::InitCrashHandler(dump.GetFullPath(), application, fullDump);
}

} // namespace

CAgentApp& wxGetApp()
{
    return *static_cast<CAgentApp*>(wxApp::GetInstance());
}

bool IsText(const std::string& path)
{
    return path.empty() || !wxString(path.c_str(), wxConvLocal).empty();
}

wxString ShownPath(const std::string& path)
{
    return IsText(path) ? wxString(path.c_str(), wxConvLocal) : wxString(path.c_str(), wxConvISO8859_1);
}

wxFileName NormalizedFile(const wxString& path)
{
    wxFileName file;
    file.Assign(path);
    file.Normalize(normalizeFlags);
    return file;
}

CAgentApp::CAgentApp()
{
    tzset();
    m_startTime = wxDateTime::UNow();
    wxLog::SetVerbose(true);
    wxLog::SetLogLevel(wxLOG_Info);
    wxLog::SetTimestamp(logTimestamp);
    wxSetAssertHandler(LogAssertion);
    InitLocale(m_locale);
    StartupInit();
    m_dom = VexCore::CDom::New(nullptr, nullptr, nullptr, false);
}

void CAgentApp::StartupInit()
{
    static bool s_done = false;
    if (s_done)
        return;
    s_done = true;
    StartOpenSsl();
    VexCore::OpenSSLThreadSetup();
    SeedOpenSslRandom();
}

bool CAgentApp::OnInit()
{
    if (!CanRunFromHere(VexOs::ProgramName()))
        return false;
    // Paths and version first: the option handlers read them, and an option may overwrite them.
    WriteInstallationPaths(*m_dom, NormalizedFile(argv[0]));
    SetVendorName(wxGetTranslation("Halvorn"));
    // Declares and parses the options, and turns them into settings.
    if (!wxAppConsole::OnInit())
        return false;
    // Folder and name of a crash dump depend on the options.
    InstallCrashHandler(*m_dom, GetAppName());
    // Under another name we host somebody else's application, which speaks for itself: no banner, on purpose.
    if (m_defaultName)
        wxLogInfo("VEX " VEX_VERSION_TEXT " starting.");
    return true;
}

wxAppTraits* CAgentApp::CreateTraits()
{
    return new CAgentAppTraits;
}

CAgentAppTraits::~CAgentAppTraits() = default;

wxLog* CAgentAppTraits::CreateLogTarget()
{
    return new VexCore::CLog2Disk;
}
