// vexctl check-config: what is wrong in the files of settings, entry by entry.

#include "vex/apps/vexctl/agent_settings.h"
#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/json_text.h"
#include "vex/apps/vexctl/shown_text.h"

#include <memory>

namespace Vexctl {

namespace {
using VexCore::SettingFault;
using VexCore::SettingFinding;

struct CheckOptions
{
    bool json = false;
    std::string variable;
};

// What stands there cannot be used at all. The other faults are something that counts otherwise than it stands there,
// or nowhere.
bool IsError(SettingFault fault)
{
    return fault == SettingFault::Unreadable || fault == SettingFault::CommentBehind || fault == SettingFault::NoEntry
           || fault == SettingFault::NotUsed;
}

Json JsonOf(const SettingFinding& finding)
{
    Json object = {{"schema", jsonSchema},
                   {"level", IsError(finding.fault) ? "error" : "warning"},
                   {"fault", VexCore::NameOf(finding.fault)}};
    if (!finding.file.empty())
        object["file"] = finding.file;
    if (finding.line > 0)
        object["line"] = finding.line;
    const auto add = [&object](const char* name, const std::string& text) {
        if (!text.empty())
            object[name] = text;
    };
    add("key", finding.key);
    add("value", finding.value);
    add("used", finding.used);
    add("nearest", finding.nearest);
    object["text"] = finding.text;
    return object;
}

std::string Counted(std::size_t number, const char* word)
{
    return std::to_string(number) + " " + word + (number == 1 ? "" : "s");
}

int CheckConfig(Session& session, const CheckOptions& options)
{
    const AgentSettings settings = ReadAgentSettings(session.place, options.variable);
    std::size_t errors = 0;
    for (const SettingFinding& finding : settings.report.findings) {
        const bool isError = IsError(finding.fault);
        errors += isError;
        session.out.Write(options.json ? JsonText(JsonOf(finding)) + "\n"
                                       : session.out.Painted(isError ? Colour::Bad : Colour::Warning,
                                                             isError ? "error: " : "warning: ")
                                             + Shown(finding.text) + "\n");
    }
    const std::size_t warnings = settings.report.findings.size() - errors;
    if (!options.json)
        session.out.Write(Counted(errors, "error") + " and " + Counted(warnings, "warning") + " in "
                          + Counted(settings.files.size(), "file") + "\n");
    for (const std::string& file : settings.forbidden)
        session.Note(file + ": permission denied; it is not checked");
    if (errors > 0 || !settings.forbidden.empty())
        return statusUnusable;
    return warnings > 0 ? statusDidNotHold : statusDone;
}

} // namespace

Body AddCheckConfig(Options& options)
{
    const auto own = std::make_shared<CheckOptions>();
    AddVariableOption(options, own->variable);
    options.Flag("--json", own->json, "One JSON object a fault");
    return [own](Session& session) { return CheckConfig(session, *own); };
}

} // namespace Vexctl
