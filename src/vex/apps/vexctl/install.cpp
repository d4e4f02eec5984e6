// vexctl install: puts a package or a marker beside the executable, whole or not at all, once the launcher's own rules
// have taken it.

#include "vex/apps/vexctl/placing.h"

#include <memory>

namespace Vexctl {

namespace {
struct InstallOptions
{
    std::string file;
    bool now = false;
};

// An older version is what the operator may want, and may not.
void TellNewer(Session& session, const PackageName& name)
{
    for (const PackageName& other : ListPackages(session.place.binFolder))
        if (other.kind == PackageKind::Done && other.plugin == name.plugin && ComesBefore(name, other)
            && other.VersionText() != name.VersionText())
            session.Note("it is older than " + other.file + ", which has been installed");
}

int Install(Session& session, const InstallOptions& options)
{
    Progress progress(session.err);
    progress.Show("checking " + options.file);
    const Verdict verdict = CheckPackage(options.file, LimitsOf(session.place));
    progress.Clear();
    if (!verdict.unread.empty())
        throw Failure(options.file + ": " + verdict.unread);
    if (!verdict.reasons.empty())
        return TellRefused(session, options.file, verdict.reasons);
    if (verdict.name->kind == PackageKind::Extension)
        return TellRefused(session, options.file,
                           {"an extension is no package; vexctl pack plugin makes one of a folder with ext/ in it"});
    if (verdict.name->kind == PackageKind::Package)
        TellNewer(session, *verdict.name);
    const std::optional<Prepared> copy = PrepareCopy(session, options.file, verdict.name->file);
    if (!copy)
        return statusDidNotHold;
    PutInPlace(session, *copy);
    return FinishPlacing(session, options.now);
}

} // namespace

Body AddInstall(Options& options)
{
    const auto asked = std::make_shared<InstallOptions>();
    options.Text("file", asked->file, "A package (.vxp), or an uninstall marker (.vxu)").Required().Type("FILE");
    AddNow(options, asked->now);
    return [asked](Session& session) { return Install(session, *asked); };
}

} // namespace Vexctl
