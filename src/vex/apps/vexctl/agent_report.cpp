#include "vex/apps/vexctl/agent_report.h"

#include "vex/apps/vexctl/agent_state.h"
#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/os/leftover.h"
#include "vex/apps/vexctl/os/processes.h"
#include "vex/apps/vexctl/os/surroundings.h"

#include "vex_core/base/ascii.h"
#include "vex_core/os/descriptor.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/process_info.h"
#include "vex_core/process/run_program.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>

#include <wx/log.h>

namespace Vexctl {

namespace {
constexpr off_t maxSettingsBytes = 4 * 1024 * 1024;

// Gone with all that is in it.
class TemporaryFolder
{
public:
    TemporaryFolder() : m_path(os::MakeTemporaryFolder())
    {
        if (m_path.empty())
            throw Failure("no temporary folder can be made: " + VexCore::os::ErrorText(VexCore::os::LastError())
                          + "; the variable TMPDIR says where");
        m_leftover.emplace(m_path, os::Leftover::Kind::OfProgram);
    }
    ~TemporaryFolder() { os::RemoveFolder(m_path); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& Path() const { return m_path; }

private:
    const std::string m_path;
    std::optional<os::Leftover> m_leftover;
};

// What keeps a run with our rights from taking the file for settings; empty: nothing.
std::string WhyNotTrusted(const struct stat& status)
{
    if (!S_ISREG(status.st_mode))
        return "is no regular file";
    if (status.st_uid != 0 && status.st_uid != VexCore::os::EffectiveUser())
        return "belongs to another user";
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return "can be written by others";
    return status.st_size > maxSettingsBytes ? "is too large" : "";
}

// A copy, so that the run needs no right on the agent's work folder and leaves nothing there.
void CopySettings(const Place& place, const std::string& folder, const std::function<void(const std::string&)>& note)
{
    const std::string path = place.LocalSettingsFile();
    const std::string copyPath = Place{place.name, place.binFolder, folder}.LocalSettingsFile();
    const auto isLeftOut = [&](const std::string& why) {
        note("the report is made without the settings of " + path + ", which " + why);
    };
    const VexCore::os::Descriptor file(VexCore::os::Open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
    struct stat status = {};
    if (!file || VexCore::os::FStat(file.Get(), status) != 0) {
        if (VexCore::os::LastError() != ENOENT)
            isLeftOut("cannot be read: " + VexCore::os::ErrorText(VexCore::os::LastError()));
        return;
    }
    if (const std::string why = WhyNotTrusted(status); !why.empty())
        return isLeftOut(why);
    std::string text;
    const VexCore::os::Descriptor copy(VexCore::os::Open(copyPath.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600));
    if (!VexCore::os::ReadToEnd(file.Get(), text) || !copy
        || !VexCore::os::WriteAll(copy.Get(), text.data(), text.size()))
        isLeftOut("cannot be copied: " + VexCore::os::ErrorText(VexCore::os::LastError()));
}

std::vector<std::string> OptionsOf(const Place& place, const ReportRequest& request,
                                   const std::function<void(const std::string&)>& note)
{
    if (!request.options.empty())
        return request.options;
    const pid_t supervisor = FindAgentState(place).supervisor;
    if (supervisor <= 0)
        return {};
    const auto arguments = os::TrustedArgumentsOf(supervisor);
    if (!arguments)
        note("the report is made without the options of the running agent, which are another user's or are not to be "
             "seen");
    return arguments.value_or(std::vector<std::string>());
}

std::string FirstLine(const std::string& text)
{
    return text.substr(0, text.find('\n'));
}

// The launcher under the agent's name where there is one, else under its own.
VexCore::ProgramRequest ProgramFor(const Place& place)
{
    VexCore::ProgramRequest program;
    program.program = place.binFolder + "/" + place.name;
    if (!VexCore::os::MayExecute(program.program.c_str())) {
        program.program = place.binFolder + "/vx_agent";
        program.arguments = {"--appname", place.name};
    }
    return program;
}

} // namespace

std::vector<std::string> ForegroundOptions(const std::vector<std::string>& options)
{
    constexpr std::string_view switches = "biUh";
    std::vector<std::string> kept;
    for (std::size_t at = 0; at < options.size() && options[at] != "--"; ++at) {
        std::string option = options[at];
        bool isWanted = true, takesNext = false;
        if (VexCore::StartsWith(option, "--")) {
            const std::size_t ends = option.find_first_of("=:");
            const std::string name = option.substr(2, ends == std::string::npos ? ends : ends - 2);
            const bool isSwitch = name == "background" || name == "install_plugins" || name == "test" || name == "help";
            isWanted = !isSwitch && name != "workdir" && name != "unittest";
            takesNext = !isSwitch && name != "verbose" && ends == std::string::npos;
        } else if (option.size() > 1 && option[0] == '-') {
            // Switches may stand together, and before an option: "-bw FOLDER".
            while (option.size() > 1 && switches.find(option[1]) != std::string_view::npos)
                option.erase(1, 1);
            isWanted = option.size() > 1 && option[1] != 'w' && option[1] != 'u';
            takesNext = option.size() == 2;
        } else {
            isWanted = false; // the script's
        }
        if (isWanted)
            kept.push_back(option);
        if (takesNext && ++at < options.size() && isWanted)
            kept.push_back(options[at]);
    }
    return kept;
}

std::string RunAgentReport(const Place& place, const ReportRequest& request,
                           const std::function<void(const std::string&)>& note)
{
    const TemporaryFolder folder;
    CopySettings(place, folder.Path(), note);
    VexCore::ProgramRequest program = ProgramFor(place);
    for (std::string& option : ForegroundOptions(OptionsOf(place, request, note)))
        program.arguments.push_back(std::move(option));
    program.arguments.insert(program.arguments.end(), {"--workdir", folder.Path(), "--"});
    if (request.json)
        program.arguments.emplace_back("--json");
    program.timeoutMs = request.timeoutMs;
    program.separate = true;
    const wxLogNull silence; // what went wrong is told below
    const VexCore::ProgramResult result = VexCore::RunProgram(program);
    if (!result.ran)
        throw Failure(result.error);
    if (result.exitCode != 0)
        throw Failure(program.program + " ended with status " + std::to_string(result.exitCode)
                      + (result.errors.empty() ? "" : ": " + FirstLine(result.errors)));
    if (result.isCut)
        throw Failure("the report of " + program.program + " is longer than 16 MiB");
    return result.output;
}

Json ReadAgentReport(const Place& place, ReportRequest request, const std::function<void(const std::string&)>& note)
{
    request.json = true;
    Json report = Json::parse(RunAgentReport(place, request, note), nullptr, false);
    if (!report.is_object())
        throw Failure("the application " + place.name + " has printed no report as JSON");
    return report;
}

} // namespace Vexctl
