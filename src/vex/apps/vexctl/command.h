#pragma once
// What each subcommand is made of, for command_line.cpp and the files of the subcommands. Single-threaded, like all of
// vexctl.

#include "vex/apps/vexctl/options.h"
#include "vex/apps/vexctl/output.h"
#include "vex/apps/vexctl/place.h"

#include <functional>
#include <stdexcept>

namespace Vexctl {

/// Exit statuses of all subcommands but `status`, whose are those of an init script.
constexpr int statusDone = 0;
constexpr int statusDidNotHold = 1;
constexpr int statusUnusable = 2; ///< a wrong call, or something that could not be read

/// Ends the command with `statusUnusable` and a line on standard error.
class Failure : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// The failure of what looks into a work folder that is not there.
inline Failure NoWorkFolder(const Place& place)
{
    return Failure("there is no work folder " + place.workFolder + "; --workdir says where to look");
}

/// What a subcommand works with.
struct Session
{
    Place place;
    Output& out;
    Output& err;

    /// A line on standard error for what is no failure; control characters are escaped.
    void Note(const std::string& text);
};

/// Does the work once the arguments are read; its value is the exit status.
using Body = std::function<int(Session&)>;

struct Command
{
    const char* name;
    const char* group;
    const char* help;
    /// Adds the options to the subcommand, and returns what is done with them.
    Body (*add)(Options& options);
};

// --- one a file: status.cpp has AddStatus, and so on

Body AddStatus(Options& options);
Body AddWait(Options& options);
Body AddLog(Options& options);
Body AddEvents(Options& options);
Body AddHeartbeats(Options& options);
Body AddCrashes(Options& options);
Body AddReport(Options& options);
Body AddBundle(Options& options);
Body AddConfig(Options& options);
Body AddCheckConfig(Options& options);
Body AddPlugins(Options& options);
Body AddCheck(Options& options);
Body AddPack(Options& options);
Body AddInstall(Options& options);
Body AddRemove(Options& options);
Body AddRollback(Options& options);
Body AddCompletion(Options& options);

} // namespace Vexctl
