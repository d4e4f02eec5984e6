#pragma once
// What the subcommands share that put a package or a marker beside the executable, where the next start takes it.

#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/installed_packages.h"
#include "vex/apps/vexctl/package_maker.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Vexctl {

/// Adds "--now".
void AddNow(Options& options, bool& now);

/// Tells what the launcher would refuse; the exit status.
int TellRefused(Session& session, const std::string& path, const std::vector<std::string>& reasons);

/// What lies beside the executable and has passed the launcher's rules, but has no name yet under which a start would
/// find it. Gone with the object unless it gets its name.
struct Prepared
{
    std::unique_ptr<NewFile> file;
    std::string summary; ///< what a start would do with it
};

/// Copies a package or marker beside the executable, for this name there. Absent where the launcher would refuse it,
/// which is told then; throws Failure when it cannot be read or written.
std::optional<Prepared> PrepareCopy(Session& session, const std::string& path, const std::string& name);

/// Makes a marker there that deletes these files. The same.
std::optional<Prepared> PrepareMarker(Session& session, const std::string& name, const std::vector<std::string>& files);

/// Gives it its name, and tells so.
void PutInPlace(Session& session, const Prepared& prepared);

/// The installed packages of a plugin. Throws Failure when one of them does not tell what it has brought.
std::vector<const InstalledPackage*> PackagesOf(const std::vector<InstalledPackage>& installed,
                                                const std::string& plugin);

/// Those files of the packages that are there, but for those that another plugin has brought, too. In their order, each
/// once.
std::vector<std::string> FilesOnlyOf(const std::vector<const InstalledPackage*>& packages,
                                     const std::vector<InstalledPackage>& installed);

/// Says when what was placed takes effect, or has the service manager restart the agent; the exit status.
int FinishPlacing(Session& session, bool now);

} // namespace Vexctl
