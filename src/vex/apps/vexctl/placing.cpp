#include "vex/apps/vexctl/placing.h"

#include "vex/apps/vexctl/heartbeat_history.h"
#include "vex/apps/vexctl/service.h"
#include "vex/apps/vexctl/shown_text.h"

#include "vex_core/os/files.h"

#include <algorithm>
#include <set>

namespace Vexctl {

void AddNow(Options& options, bool& now)
{
    options.Flag("--now", now, "Have the service manager restart the agent's service, so that it takes effect at once");
}

int TellRefused(Session& session, const std::string& path, const std::vector<std::string>& reasons)
{
    for (const std::string& reason : reasons)
        session.Note(path + ": " + reason);
    session.Note("the agent would refuse it: nothing was placed");
    return statusDidNotHold;
}

std::optional<Prepared> PrepareCopy(Session& session, const std::string& path, const std::string& name)
{
    auto copy = std::make_unique<NewFile>(session.place.binFolder + "/" + name, Readers::All);
    Progress progress(session.err);
    CopyInto(*copy, path, [&](std::uint64_t done, std::uint64_t all) {
        if (progress.IsDue())
            progress.Show("copying " + BytesText(static_cast<std::int64_t>(done)) + " of "
                          + BytesText(static_cast<std::int64_t>(all)) + ": " + name);
    });
    copy->Close();
    progress.Show("checking " + name);
    const Verdict verdict = CheckPackage(copy->TemporaryPath(), LimitsOf(session.place), name);
    progress.Clear();
    if (!verdict.unread.empty())
        throw Failure(copy->TemporaryPath() + ": " + verdict.unread);
    if (!verdict.reasons.empty()) {
        TellRefused(session, path, verdict.reasons);
        return std::nullopt;
    }
    return Prepared{std::move(copy), verdict.Summary()};
}

std::optional<Prepared> PrepareMarker(Session& session, const std::string& name, const std::vector<std::string>& files)
{
    auto marker = std::make_unique<NewFile>(session.place.binFolder + "/" + name, Readers::All);
    std::vector<PackedFile> entries;
    for (const std::string& file : files) {
        // Unzip ends there, and the marker would be tried again at each start.
        struct stat status = {};
        const std::string path = session.place.binFolder + "/" + file;
        if (VexCore::os::LStat(path.c_str(), status) == 0 && !S_ISREG(status.st_mode)) {
            TellRefused(session, path, {"it is no regular file any more; take it away by hand"});
            return std::nullopt;
        }
        entries.push_back({file, std::string(), 0644});
    }
    Progress progress(session.err);
    WriteArchive(*marker, entries, progress);
    progress.Clear();
    if (const std::vector<std::string> reasons = WhyRefused(marker->TemporaryPath(), LimitsOf(session.place));
        !reasons.empty()) {
        TellRefused(session, marker->Path(), reasons);
        return std::nullopt;
    }
    return Prepared{std::move(marker), "would delete " + Counted(files.size(), "file")};
}

void PutInPlace(Session& session, const Prepared& prepared)
{
    prepared.file->Place();
    session.out.Write("placed " + Shown(prepared.file->Path()) + ": " + Shown(prepared.summary) + "\n");
}

std::vector<const InstalledPackage*> PackagesOf(const std::vector<InstalledPackage>& installed,
                                                const std::string& plugin)
{
    std::vector<const InstalledPackage*> packages;
    for (const InstalledPackage& package : installed)
        if (package.name.plugin == plugin) {
            if (!package.problem.empty())
                throw Failure(package.path + ": " + package.problem);
            packages.push_back(&package);
        }
    return packages;
}

std::vector<std::string> FilesOnlyOf(const std::vector<const InstalledPackage*>& packages,
                                     const std::vector<InstalledPackage>& installed)
{
    std::set<std::string> others;
    for (const InstalledPackage& package : installed)
        if (std::find(packages.begin(), packages.end(), &package) == packages.end()
            && package.name.plugin != packages.front()->name.plugin
            && package.state != InstalledPackage::State::Removed)
            for (const InstalledFile& file : package.files)
                others.insert(file.name);
    std::set<std::string> names;
    for (const InstalledPackage* const package : packages)
        for (const InstalledFile& file : package->files)
            if (file.state != InstalledFile::State::Missing && others.count(file.name) == 0)
                names.insert(file.name);
    return {names.begin(), names.end()};
}

int FinishPlacing(Session& session, bool now)
{
    if (!now) {
        session.out.Write("the next start with --install_plugins takes it\n");
        return statusDone;
    }
    session.out.Flush();
    std::string told;
    const bool restarted = RestartService(session.place.name, told);
    if (!restarted) {
        session.Note("it takes effect with the next start; not restarted: " + told);
        return statusDidNotHold;
    }
    session.out.Write("restarted " + Shown(told) + "\n");
    return statusDone;
}

} // namespace Vexctl
