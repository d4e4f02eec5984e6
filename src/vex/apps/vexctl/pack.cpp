// vexctl pack: packages, markers and extensions out of a folder, which the launcher takes: each is held against the
// launcher's rules before it has its name. The same folder gives the same bytes, whatever its times, owners and order.

#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/package_maker.h"
#include "vex/apps/vexctl/shown_text.h"

#include "vex/apps/vex/version.h"
#include "vex_core/os/host_facts.h"

#include <memory>

namespace Vexctl {

namespace {
struct PackOptions
{
    std::string what;
    std::string folder;
    std::string name;
    std::string output = ".";
    std::string build = std::to_string(VEX_VERSION_BUILD);
    std::string platform = VexCore::os::GetSystemName().name;
    std::string machine = VexCore::os::GetSystemName().machine;
    std::vector<std::string> excluded;
};

// The last component of the folder's path; of "." and the like that of the folder that is meant.
std::string NameOfFolder(const std::string& folder)
{
    const std::string whole = RealPath(folder);
    return whole.substr(whole.rfind('/') + 1);
}

std::string VersionText()
{
    return std::to_string(VEX_VERSION_MAJOR) + "." + std::to_string(VEX_VERSION_MINOR) + "."
           + std::to_string(VEX_VERSION_PATCH);
}

// Prefix, plugin, platform, version, build and machine, as the launcher takes them apart again.
std::string FileName(const PackOptions& options, const std::string& plugin, const char* suffix)
{
    const std::string file = "Agent-" + plugin + "-" + options.platform + "-" + VersionText() + "-" + options.build
                             + "." + options.machine + suffix;
    const std::optional<PackageName> name = ParsePackageName(file);
    const bool isRead =
        name && name->plugin == plugin && name->version == VersionText() && name->build == options.build;
    const bool hasAll =
        !plugin.empty() && !options.platform.empty() && !options.build.empty() && !options.machine.empty();
    const bool isPlain = Shown(file) == file && file.find('/') == std::string::npos;
    if (!isRead || !hasAll || !isPlain || options.platform.find('-') != std::string::npos)
        throw Failure(
            "'" + file
            + "' would not be read as it is meant: plugin, platform and build have no \"-\", the machine has no "
              "\".\"; none is empty or has a \"/\" or a control character. --plugin, --platform, --build and "
              "--machine name them");
    return file;
}

int Tell(Session& session, const std::vector<std::string>& reasons)
{
    for (const std::string& reason : reasons)
        session.Note(reason);
    session.Note("refused: nothing was made");
    return statusDidNotHold;
}

int Pack(Session& session, const PackOptions& options)
{
    const std::string name = options.name.empty() ? NameOfFolder(options.folder) : options.name;
    const bool isExtension = options.what == "extension";
    const char* const suffix = options.what == "uninstall" ? ".vxu" : ".vxp";
    if (isExtension
        && (name.empty() || name.front() == '.' || name.find_first_of("/;") != std::string::npos
            || Shown(name) != name))
        throw Failure("'" + name
                      + "' is no name for an extension: it does not begin with a dot and has neither \"/\" nor \";\"");
    const std::string file = isExtension ? name + ".vxe" : FileName(options, name, suffix);

    const std::string output = RealPath(options.output);
    FolderContent content = ReadFolder(options.folder, options.excluded, output);
    for (const std::string& hidden : content.hidden)
        session.Note("left out: " + hidden);
    if (!content.reasons.empty())
        return Tell(session, content.reasons);
    if (content.files.empty())
        return Tell(session, {options.folder + " has no files"});
    if (options.what == "uninstall")
        for (PackedFile& one : content.files)
            one.path.clear();
    std::unique_ptr<NewFile> version;
    if (isExtension) {
        version = std::make_unique<NewFile>(output + "/" + file + ".version", Readers::All);
        version->Write("version: " + VersionText() + "-" + options.build + "\n");
        version->Close();
    }
    NewFile archive(output + "/" + file, Readers::All);
    Progress progress(session.err);
    WriteArchive(archive, content.files, progress);
    progress.Show("checking " + file);
    const std::vector<std::string> reasons = WhyRefused(archive.TemporaryPath(), VexCore::ZipLimits());
    progress.Clear();
    if (!reasons.empty())
        return Tell(session, reasons);
    if (version)
        version->Place();
    archive.Place();
    session.out.Write(Shown(archive.Path()) + "\n");
    return statusDone;
}

} // namespace

Body AddPack(Options& options)
{
    const auto asked = std::make_shared<PackOptions>();
    options
        .Text("what", asked->what,
              "plugin: a package (.vxp) of the folder's files; uninstall: a marker (.vxu) that deletes these files; "
              "extension: an archive of modules (.vxe) with its version file")
        .Required()
        .OneOf({"plugin", "uninstall", "extension"});
    options
        .Text("folder", asked->folder,
              "What lies in it comes to lie beside the agent's executable, or is a module of the extension")
        .Required()
        .Type("FOLDER");
    options.Text("--plugin", asked->name, "The plugin's or the extension's name; without it the folder's").Type("NAME");
    options.Text("-o,--output", asked->output, "Where the package is put").TellStandard().Type("FOLDER");
    options
        .Texts("--exclude", asked->excluded,
               "A file or a folder that is left out, by its path in the folder; may be repeated")
        .Type("PATH");
    options.Text("--build", asked->build, "The build number; the launcher does not compare it").TellStandard();
    options.Text("--platform", asked->platform, "The system that it is for").TellStandard();
    options.Text("--machine", asked->machine, "The machine that it is for").TellStandard();
    return [asked](Session& session) { return Pack(session, *asked); };
}

} // namespace Vexctl
