// vexctl rollback: has the next start install the version of a plugin before the one that is installed, out of the
// package that was kept, and delete what only the later version has brought.

#include "vex/apps/vexctl/placing.h"

#include <algorithm>
#include <memory>

namespace Vexctl {

namespace {
using State = InstalledPackage::State;

struct RollbackOptions
{
    std::string plugin;
    bool now = false;
};

// The package whose files are there; null where they have been removed.
const InstalledPackage* Current(const std::vector<const InstalledPackage*>& packages)
{
    const InstalledPackage* current = nullptr;
    for (const InstalledPackage* const package : packages)
        if ((package->state == State::Installed || package->state == State::Changed)
            && (!current || current->cameNs <= package->cameNs))
            current = package;
    return current;
}

// The latest version before `current`, or the latest of all; packages are in the order of their versions.
const InstalledPackage* Earlier(const std::vector<const InstalledPackage*>& packages, const InstalledPackage* current)
{
    const InstalledPackage* earlier = nullptr;
    for (const InstalledPackage* const package : packages) {
        if (package == current)
            break;
        if (package->name.fits)
            earlier = package;
    }
    return earlier;
}

// What the current version has brought, and the earlier one does not bring back.
std::vector<std::string> FilesThatGo(const InstalledPackage& current, const InstalledPackage& earlier,
                                     const std::vector<InstalledPackage>& installed)
{
    std::vector<std::string> files = FilesOnlyOf({&current}, installed);
    const auto comesBack = [&earlier](const std::string& name) {
        return std::any_of(earlier.files.begin(), earlier.files.end(),
                           [&name](const InstalledFile& file) { return file.name == name; });
    };
    files.erase(std::remove_if(files.begin(), files.end(), comesBack), files.end());
    return files;
}

int Rollback(Session& session, const RollbackOptions& options)
{
    const std::vector<InstalledPackage> installed = FindInstalled(session.place.binFolder, LimitsOf(session.place));
    const std::vector<const InstalledPackage*> packages = PackagesOf(installed, options.plugin);
    const InstalledPackage* const current = Current(packages);
    const InstalledPackage* const earlier = Earlier(packages, current);
    if (!earlier) {
        const std::string before = current ? " before " + current->name.VersionText() : std::string();
        session.Note("no package of plugin '" + options.plugin + "'" + before
                     + " is kept; vexctl plugins tells what is");
        return statusDidNotHold;
    }
    const std::optional<Prepared> package = PrepareCopy(session, earlier->path, earlier->name.base + ".vxp");
    if (!package)
        return statusDidNotHold;
    const std::vector<std::string> files =
        current ? FilesThatGo(*current, *earlier, installed) : std::vector<std::string>();
    std::optional<Prepared> marker;
    if (!files.empty() && !(marker = PrepareMarker(session, current->name.base + ".vxu", files)))
        return statusDidNotHold;
    // Both are ready, so that all that can be in the way has been seen. The earlier version first: a start between the
    // two leaves files too many, and none too few.
    PutInPlace(session, *package);
    if (marker)
        PutInPlace(session, *marker);
    return FinishPlacing(session, options.now);
}

} // namespace

Body AddRollback(Options& options)
{
    const auto asked = std::make_shared<RollbackOptions>();
    options.Text("plugin", asked->plugin, "The plugin, as vexctl plugins lists it").Required().Type("NAME");
    AddNow(options, asked->now);
    return [asked](Session& session) { return Rollback(session, *asked); };
}

} // namespace Vexctl
