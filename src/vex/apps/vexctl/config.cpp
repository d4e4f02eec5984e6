// vexctl config: every setting in force, its value, and where it comes from.

#include "vex/apps/vexctl/agent_settings.h"
#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/json_text.h"
#include "vex/apps/vexctl/text_table.h"

#include "vex_core/base/ascii.h"

#include <memory>

namespace Vexctl {

namespace {
using VexCore::SettingInForce;

struct ConfigOptions
{
    bool json = false;
    bool changed = false;
    std::string variable;
    std::vector<std::string> keys;
};

bool IsWanted(const SettingInForce& setting, const ConfigOptions& options)
{
    if (options.changed && setting.origin == SettingInForce::Origin::Default)
        return false;
    for (const std::string& key : options.keys)
        if (VexCore::StartsWith(setting.key, key))
            return true;
    return options.keys.empty();
}

const char* OriginWord(SettingInForce::Origin origin)
{
    static constexpr const char* words[] = {"default", "domain", "file"};
    return words[static_cast<int>(origin)];
}

Json JsonOf(const SettingInForce& setting)
{
    Json object = {{"schema", jsonSchema}, {"key", setting.key}};
    const VexCore::Setting* const known = setting.setting;
    const bool isMode = known && known->kind == VexCore::SettingKind::Mode; // its digits are no decimal number
    if (known && VexCore::IsInteger(known->kind) && !isMode && !setting.value.empty())
        object["value"] = std::stoll(setting.value); // the unit stands behind it
    else if (known && VexCore::IsTruth(known->kind) && !setting.value.empty())
        object["value"] = setting.value == "true" || setting.value == "on";
    else
        object["value"] = setting.value;
    if (known && *known->unit)
        object["unit"] = known->unit;
    object["origin"] = OriginWord(setting.origin);
    if (!setting.file.empty()) {
        object["file"] = setting.file;
        object["line"] = setting.line;
    }
    if (known)
        object["help"] = known->help;
    return object;
}

int ShowConfig(Session& session, const ConfigOptions& options)
{
    const AgentSettings settings = ReadAgentSettings(session.place, options.variable);
    TextTable table({{"KEY"}, {"VALUE"}, {"FROM"}});
    for (const SettingInForce& setting : settings.report.inForce) {
        if (!IsWanted(setting, options))
            continue;
        const bool isDefault = setting.origin == SettingInForce::Origin::Default;
        if (options.json)
            session.out.Write(JsonText(JsonOf(setting)) + "\n");
        else
            table.AddRow(
                {{setting.key},
                 {setting.value.empty() ? "-" : setting.value},
                 {setting.file.empty() ? OriginWord(setting.origin) : setting.file + ":" + std::to_string(setting.line),
                  isDefault ? Colour::Faint : Colour::None}});
    }
    if (!table.Empty())
        table.Print(session.out);
    for (const std::string& file : settings.forbidden)
        session.Note(file + ": permission denied; what it says is not shown");
    return settings.forbidden.empty() ? statusDone : statusUnusable;
}

} // namespace

Body AddConfig(Options& options)
{
    const auto own = std::make_shared<ConfigOptions>();
    options.Texts("KEY", own->keys, "Only settings whose keys begin so");
    options.Flag("-c,--changed", own->changed, "Only those that somebody has set");
    AddVariableOption(options, own->variable);
    options.Flag("--json", own->json, "One JSON object a setting");
    return [own](Session& session) { return ShowConfig(session, *own); };
}

} // namespace Vexctl
