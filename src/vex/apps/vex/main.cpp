// The process entry. Everything that must be right before the framework looks at the arguments (open descriptors 0 to 2,
// the character set) is done by static initialisers of the core library, so that this stays one call.

#include "vex/apps/vex/vex.h"

#include <wx/init.h>

wxAppConsole* wxCreateApp()
{
    wxAppConsoleBase::CheckBuildOptions(WX_BUILD_OPTIONS_SIGNATURE, "vex");
    return new CAgentApp;
}

// Registers the factory with the framework's entry before main begins.
static wxAppInitializer s_appInitializer(wxCreateApp);

int main(int argc, char** argv)
{
    return wxEntry(argc, argv);
}
