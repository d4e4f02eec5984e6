// vexctl plugins: packages, markers and extensions of an agent, and what has become of the files that packages brought.

#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/installed_packages.h"
#include "vex/apps/vexctl/json_text.h"
#include "vex/apps/vexctl/shown_text.h"
#include "vex/apps/vexctl/text_table.h"

#include <memory>

namespace Vexctl {

namespace {
using FileState = InstalledFile::State;
using PackageState = InstalledPackage::State;

struct PluginsOptions
{
    std::string extensionFolder = "ext";
    bool files = false;
    bool json = false;
};

const char* WaitingWord(const Verdict& verdict)
{
    if (!verdict.unread.empty())
        return "unreadable";
    return verdict.Accepted() ? "waiting" : "refused";
}

Json NameJson(const PackageName& name)
{
    Json object = {{"file", name.file}, {"kind", name.kind == PackageKind::Done ? "package" : KindWord(name.kind)}};
    object["plugin"] = name.plugin;
    if (!name.version.empty())
        object["version"] = name.version;
    if (!name.build.empty())
        object["build"] = name.build;
    return object;
}

Json JsonOf(const Verdict& verdict)
{
    Json object = NameJson(*verdict.name);
    object["state"] = WaitingWord(verdict);
    if (!verdict.reasons.empty())
        object["reasons"] = verdict.reasons;
    return object;
}

Json JsonOf(const InstalledPackage& package)
{
    Json object = NameJson(package.name);
    object["state"] = StateWord(package.state);
    object["files"] = Json::array();
    for (const InstalledFile& file : package.files) {
        Json one = {{"name", file.name}, {"state", StateWord(file.state)}};
        if (!file.by.empty())
            one["package"] = file.by;
        object["files"].push_back(std::move(one));
    }
    return object;
}

Json JsonOf(const Extension& extension)
{
    Json object = {{"file", extension.verdict.path}, {"enabled", extension.verdict.Accepted()}};
    if (!extension.version.empty())
        object["version"] = extension.version;
    if (!extension.package.empty())
        object["package"] = extension.package;
    if (!extension.verdict.reasons.empty())
        object["reasons"] = extension.verdict.reasons;
    return object;
}

Json JsonOf(const PackagesBeside& found)
{
    Json object = {{"schema", jsonSchema}, {"folder", found.folder}, {"extension_folder", found.extensionFolder}};
    object["packages"] = Json::array();
    for (const InstalledPackage& package : found.installed)
        object["packages"].push_back(JsonOf(package));
    for (const Verdict& verdict : found.waiting)
        object["packages"].push_back(JsonOf(verdict));
    object["extensions"] = Json::array();
    for (const Extension& extension : found.extensions)
        object["extensions"].push_back(JsonOf(extension));
    if (!found.problems.empty())
        object["problems"] = found.problems;
    return object;
}

Colour ColourOf(PackageState state)
{
    if (state == PackageState::Installed)
        return Colour::Good;
    return state == PackageState::Replaced || state == PackageState::Removed ? Colour::None : Colour::Bad;
}

// "installed, 3 files", "1 of 3 files changed, 1 missing".
std::string StateText(const InstalledPackage& package)
{
    const std::string files = Counted(package.files.size(), "file");
    if (package.state == PackageState::Installed)
        return std::string(StateWord(package.state)) + ", " + files;
    if (package.state != PackageState::Changed)
        return StateWord(package.state);
    std::string text;
    for (const FileState state : {FileState::Changed, FileState::Missing})
        if (const std::size_t count = package.Count(state); count != 0)
            text += (text.empty() ? std::to_string(count) + " of " + files : ", " + std::to_string(count)) + " "
                    + StateWord(state);
    return text;
}

void ShowPackages(Output& out, const PackagesBeside& found)
{
    TextTable table({{"PLUGIN"}, {"VERSION"}, {"STATE"}, {"FILE"}});
    for (const InstalledPackage& package : found.installed)
        table.AddRow({{package.name.plugin},
                      {package.name.VersionText()},
                      {StateText(package), ColourOf(package.state)},
                      {package.name.file}});
    for (const Verdict& verdict : found.waiting) {
        const std::string kind = verdict.name->kind == PackageKind::Marker ? "marker, " : "";
        table.AddRow({{verdict.name->plugin},
                      {verdict.name->VersionText()},
                      {kind + WaitingWord(verdict), verdict.Accepted() ? Colour::Warning : Colour::Bad},
                      {verdict.name->file}});
    }
    if (table.Empty())
        out.Write("no packages in " + Shown(found.folder) + "\n");
    else
        table.Print(out);
    for (const Verdict& verdict : found.waiting)
        for (const std::string& reason : verdict.reasons)
            out.Write("  " + Shown(verdict.name->file + ": " + reason) + "\n");
}

void ShowExtensions(Output& out, const PackagesBeside& found)
{
    if (found.extensions.empty())
        return;
    TextTable table({{"EXTENSION"}, {"VERSION"}, {"STATE"}, {"PACKAGE"}});
    for (const Extension& extension : found.extensions) {
        const bool enabled = extension.verdict.Accepted();
        table.AddRow({{extension.verdict.name->file},
                      {extension.version.empty() ? "-" : extension.version},
                      {enabled ? "enabled" : "not enabled", enabled ? Colour::Good : Colour::Bad},
                      {extension.package.empty() ? "-" : extension.package}});
    }
    out.Write("\n");
    table.Print(out);
    for (const Extension& extension : found.extensions)
        for (const std::string& reason : extension.verdict.reasons)
            out.Write("  " + Shown(reason) + "\n");
}

// Those that are not as they should be, or all.
void ShowFiles(Output& out, const PackagesBeside& found, bool all)
{
    TextTable table({{"STATE"}, {"PACKAGE"}, {"FILE"}});
    for (const InstalledPackage& package : found.installed) {
        const bool isGone = package.state == PackageState::Removed || package.state == PackageState::Replaced;
        for (const InstalledFile& file : package.files) {
            const bool isWrong = !isGone && file.state != FileState::AsPacked && file.state != FileState::Replaced;
            if (all || isWrong)
                table.AddRow({{StateWord(file.state), isWrong ? Colour::Bad : Colour::None},
                              {file.by.empty() ? package.name.file : file.by},
                              {file.name}});
        }
    }
    if (table.Empty())
        return;
    out.Write("\n");
    table.Print(out);
}

int ShowPlugins(Session& session, const PluginsOptions& options)
{
    const PackagesBeside found = FindPackages(session.place, options.extensionFolder);
    if (options.json) {
        session.out.Write(JsonText(JsonOf(found)) + "\n");
    } else {
        ShowPackages(session.out, found);
        ShowExtensions(session.out, found);
        ShowFiles(session.out, found, options.files);
    }
    session.out.Flush();
    for (const std::string& problem : found.problems)
        session.Note(problem);
    return found.problems.empty() ? statusDone : statusUnusable;
}

} // namespace

Body AddPlugins(Options& options)
{
    const auto asked = std::make_shared<PluginsOptions>();
    options
        .Text("--extdir", asked->extensionFolder,
              "The folder of extensions, as the agent's own option has it: below that of the executable unless it is "
              "absolute")
        .TellStandard()
        .Type("FOLDER");
    options.Flag("--files", asked->files, "All files that packages have brought, not only those that were changed");
    options.Flag("--json", asked->json, "One JSON object");
    return [asked](Session& session) { return ShowPlugins(session, *asked); };
}

} // namespace Vexctl
