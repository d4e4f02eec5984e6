// vexctl remove: puts a marker beside the executable that deletes what a plugin's packages have brought.

#include "vex/apps/vexctl/placing.h"

#include <memory>

namespace Vexctl {

namespace {
struct RemoveOptions
{
    std::string plugin;
    bool now = false;
};

int Remove(Session& session, const RemoveOptions& options)
{
    const std::vector<InstalledPackage> installed = FindInstalled(session.place.binFolder, LimitsOf(session.place));
    const std::vector<const InstalledPackage*> packages = PackagesOf(installed, options.plugin);
    const std::vector<std::string> files =
        packages.empty() ? std::vector<std::string>() : FilesOnlyOf(packages, installed);
    if (files.empty()) {
        session.Note("no file of a plugin '" + options.plugin + "' is installed; vexctl plugins tells what is");
        return statusDidNotHold;
    }
    for (const InstalledPackage* const package : packages)
        for (const InstalledFile& file : package->files)
            if (file.state == InstalledFile::State::Changed)
                session.Note("has been changed since, and would be deleted: " + file.name);
    // Markers are taken before packages.
    for (const PackageName& name : ListPackages(session.place.binFolder))
        if (name.kind == PackageKind::Package && name.plugin == options.plugin)
            session.Note(name.file + " waits there and would install it again: delete it to keep the plugin out");
    const std::optional<Prepared> marker = PrepareMarker(session, packages.back()->name.base + ".vxu", files);
    if (!marker)
        return statusDidNotHold;
    PutInPlace(session, *marker);
    return FinishPlacing(session, options.now);
}

} // namespace

Body AddRemove(Options& options)
{
    const auto asked = std::make_shared<RemoveOptions>();
    options.Text("plugin", asked->plugin, "The plugin, as vexctl plugins lists it").Required().Type("NAME");
    AddNow(options, asked->now);
    return [asked](Session& session) { return Remove(session, *asked); };
}

} // namespace Vexctl
