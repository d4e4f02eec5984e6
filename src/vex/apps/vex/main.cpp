// The process entry. Everything that must be right before the framework looks at the arguments (open descriptors 0 to
// 2, the character set) is done by static initialisers of the core library, so that this stays one call.

#include "vex/apps/vex/vex.h"

#include "vex/apps/vex/vex_p.h"

#include "vex/core/log.h"

#include <wx/init.h>

wxAppConsole* wxCreateApp()
{
    wxAppConsoleBase::CheckBuildOptions(WX_BUILD_OPTIONS_SIGNATURE, "vex");
    return new CAgentApp;
}

// Registers the factory with the framework's entry before main begins.
static wxAppInitializer g_appInitializer(wxCreateApp);

// What the framework has to say before there is an application (an argument that it cannot convert, a locale
// that is not installed) belongs into the log as well. It deletes this target and asks the application's
// traits for the next one.
static const bool logsFromTheBeginning = [] {
    wxLog::SetTimestamp(logTimestamp);
    delete wxLog::SetActiveTarget(new VexCore::CLog2Disk);
    return true;
}();

int main(int argc, char** argv)
{
    return wxEntry(argc, argv);
}
