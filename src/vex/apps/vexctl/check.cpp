// vexctl check: what the next start would do with a package, and every reason why it would not take it.

#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/json_text.h"
#include "vex/apps/vexctl/package_check.h"
#include "vex/apps/vexctl/shown_text.h"

#include <algorithm>
#include <memory>

namespace Vexctl {

namespace {
struct PackageCheckOptions
{
    std::vector<std::string> files;
    bool json = false;
};

Json JsonOf(const Verdict& verdict)
{
    Json object = {{"schema", jsonSchema}, {"file", verdict.path}};
    if (!verdict.unread.empty()) {
        object["error"] = verdict.unread;
        return object;
    }
    object["accepted"] = verdict.Accepted();
    if (verdict.name) {
        object["kind"] = KindWord(verdict.name->kind);
        object["plugin"] = verdict.name->plugin;
        if (!verdict.name->version.empty())
            object["version"] = verdict.name->version;
        if (!verdict.name->build.empty())
            object["build"] = verdict.name->build;
    }
    if (verdict.archive) {
        object["files"] = verdict.files;
        object["bytes"] = verdict.bytes;
    }
    object["reasons"] = verdict.reasons;
    return object;
}

void Show(Session& session, const Verdict& verdict)
{
    const Colour colour = verdict.Accepted() ? Colour::Good : Colour::Bad;
    session.out.Write(Shown(verdict.path) + ": " + session.out.Painted(colour, Shown(verdict.Summary())) + "\n");
    for (const std::string& reason : verdict.reasons)
        session.out.Write("  " + Shown(reason) + "\n");
}

int Check(Session& session, const PackageCheckOptions& options)
{
    const VexCore::ZipLimits limits = LimitsOf(session.place);
    int status = statusDone;
    for (const std::string& file : options.files) {
        const Verdict verdict = CheckPackage(file, limits);
        if (options.json)
            session.out.Write(JsonText(JsonOf(verdict)) + "\n");
        else
            Show(session, verdict);
        if (!verdict.Accepted())
            status = std::max(status, verdict.unread.empty() ? statusDidNotHold : statusUnusable);
        if (!verdict.unread.empty() && options.json)
            session.Note(file + ": " + verdict.unread);
    }
    return status;
}

} // namespace

Body AddCheck(Options& options)
{
    const auto asked = std::make_shared<PackageCheckOptions>();
    options.Texts("files", asked->files, "Packages (.vxp), uninstall markers (.vxu), extensions (.vxe)")
        .Required()
        .Type("FILE");
    options.Flag("--json", asked->json, "One JSON object a file");
    return [asked](Session& session) { return Check(session, *asked); };
}

} // namespace Vexctl
