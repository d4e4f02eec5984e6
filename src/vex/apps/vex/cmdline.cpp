// The options that the launcher knows, as one table. Main thread, once, before the command line is parsed.
// What the values mean is in settings.cpp.

#include "vex/apps/vex/vex.h"

namespace {
enum class Kind { Option, Switch };

struct Entry
{
    Kind kind;
    const char* shortName;
    const char* longName;
    const char* help;
};

// The order is the order of the usage text. "test" is listed without a description on purpose.
const Entry entries[] = {
    {Kind::Option, "a", "appname",
     "the name of this application (default is based on the name of the executable file)."},
    {Kind::Switch, "b", "background", "run as a Windows service or Unix daemon process."},
    {Kind::Option, "c", "lua_cpath", "add the supplied value at the front of the search path for Lua C libraries."},
    {Kind::Option, "d", "domain_var", "sets domain variable; name=value format."},
    {Kind::Option, "e", "extdir",
     "extension folder. All *.vxe files from this folder are added to the Lua search path."},
    {Kind::Switch, "i", "install_plugins", "install all *.vxp files found in the same folder as the executable."},
    {Kind::Option, "l", "lua_path", "add the supplied value at the front of the search path for Lua libraries."},
    {Kind::Option, "p", "plugins", "comma delimited list of plugins to enable."},
    {Kind::Option, "t", "trace", "enable tracing for the specified set of module names, separated by commas."},
    {Kind::Option, "w", "workdir", "working directory where this instance's data files are stored."},
    {Kind::Option, "u", "unittest", "runs the Lua script (possibly wildcarded) under LuaUnit."},
    {Kind::Switch, "U", "test", ""},
    {Kind::Option, "z", "zippath", "list of ZIP archives of Lua code (possibly wildcarded), separated by semi-colons."},
};

} // namespace

void CAgentApp::OnInitCmdLine(wxCmdLineParser& parser)
{
    wxAppConsole::OnInitCmdLine(parser);
    for (const Entry& entry : entries) {
        if (entry.kind == Kind::Switch)
            parser.AddSwitch(entry.shortName, entry.longName, entry.help, 0);
        else
            parser.AddOption(entry.shortName, entry.longName, entry.help, wxCMD_LINE_VAL_STRING, 0);
    }
    // Arguments for scripts stand after "--". They are declared so that the parser takes them, and never asked for:
    // Lua sees the whole command line.
    parser.AddParam("-- script-param [script-param ...]", wxCMD_LINE_VAL_STRING,
                    wxCMD_LINE_PARAM_OPTIONAL | wxCMD_LINE_PARAM_MULTIPLE);
}
