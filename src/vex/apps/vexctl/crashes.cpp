// vexctl crashes: the dumps that are kept, the latest first, and how a debugger opens one.

#include "vex/apps/vexctl/agent_log.h"
#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/crash_dump.h"
#include "vex/apps/vexctl/json_text.h"
#include "vex/apps/vexctl/log_story.h"
#include "vex/apps/vexctl/shown_text.h"
#include "vex/apps/vexctl/text_table.h"
#include "vex/apps/vexctl/times.h"

#include "vex_core/base/ascii.h"
#include "vex_core/crash/minidump_format.h"
#include "vex_core/os/error.h"
#include "vex_core/os/folders.h"

#include <algorithm>
#include <cerrno>
#include <memory>

namespace Vexctl {

namespace {
// How far back the log is searched for the version of the process that crashed.
constexpr std::size_t bytesSearchedForCrashes = 16 * 1024 * 1024;

// NAME.mdmp and NAME.TIME.mdmp; what is being written has another end.
bool IsDumpOf(std::string_view file, std::string_view name)
{
    constexpr std::string_view suffix = VexCore::Minidump::fileSuffix;
    if (!VexCore::StartsWith(file, name) || !VexCore::EndsWith(file, suffix)
        || file.size() < name.size() + suffix.size())
        return false;
    const std::string_view between = file.substr(name.size(), file.size() - name.size() - suffix.size());
    return between.empty()
           || (between.front() == '.' && between.size() > 1
               && between.substr(1).find_first_not_of("0123456789-") == std::string_view::npos);
}

std::vector<CrashDump> FindDumps(const Place& place)
{
    std::vector<CrashDump> dumps;
    const std::string folder = place.DumpFolder();
    const auto look = [&](const char* file) {
        if (IsDumpOf(file, place.FileName()))
            if (std::optional<CrashDump> dump = ReadCrashDump(folder + "/" + file))
                dumps.push_back(std::move(*dump));
        return true;
    };
    if (VexCore::os::ListFolder(folder.c_str(), look) != 0 && VexCore::os::LastError() != ENOENT)
        throw Failure(folder + ": " + VexCore::os::ErrorText(VexCore::os::LastError()));
    std::sort(dumps.begin(), dumps.end(), [](const CrashDump& a, const CrashDump& b) {
        return a.timeMs > b.timeMs || (a.timeMs == b.timeMs && a.path < b.path);
    });
    return dumps;
}

std::string Hexadecimal(std::uint64_t value)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

std::string PlaceText(const CrashDump& dump)
{
    const std::string file = dump.module.substr(dump.module.rfind('/') + 1);
    return dump.module.empty() ? Hexadecimal(dump.offset) : file + "+" + Hexadecimal(dump.offset);
}

std::string ThreadText(const CrashDump& dump)
{
    const std::string number = std::to_string(dump.thread);
    return dump.threadName.empty() ? number : dump.threadName + " (" + number + ")";
}

std::string Quoted(const std::string& path)
{
    if (path.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+")
        == std::string::npos)
        return path;
    std::string quoted = "'";
    for (const char c : path)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::string OpenCommand(const CrashDump& dump, const Place& place)
{
    return "lldb -c " + Quoted(dump.path) + " " + Quoted(place.binFolder + "/" + place.name);
}

Json JsonOf(const CrashDump& dump, const std::string& version, const Place& place)
{
    Json object = {{"schema", jsonSchema}, {"time", UtcTime(dump.timeMs)}, {"file", dump.path}, {"bytes", dump.bytes}};
    if (!dump.damage.empty()) {
        object["error"] = dump.damage;
        return object;
    }
    object["signal"] = dump.signal;
    object["signal_name"] = SignalName(dump.signal);
    object["address"] = Hexadecimal(dump.address);
    object["process"] = dump.process;
    object["thread"] = dump.thread;
    if (!dump.threadName.empty())
        object["thread_name"] = dump.threadName;
    if (!dump.module.empty())
        object["module"] = dump.module;
    object["offset"] = Hexadecimal(dump.offset);
    if (!dump.buildId.empty())
        object["build_id"] = dump.buildId;
    if (!version.empty())
        object["version"] = version;
    object["open"] = OpenCommand(dump, place);
    return object;
}

int ShowCrashes(Session& session, bool asJson)
{
    const std::vector<CrashDump> dumps = FindDumps(session.place);
    LogStory story;
    try {
        if (!dumps.empty())
            story = ReadLogStory(session.place, bytesSearchedForCrashes);
    } catch (const Failure& failure) {
        session.Note(failure.what()); // the dumps speak for themselves
    }
    const auto versionOf = [&story](const CrashDump& dump) {
        const auto found = story.versions.find(dump.process);
        return dump.process > 0 && found != story.versions.end() ? found->second : std::string();
    };
    if (asJson) {
        for (const CrashDump& dump : dumps)
            session.out.Write(JsonText(JsonOf(dump, versionOf(dump), session.place)) + "\n");
        return statusDone;
    }
    if (dumps.empty()) {
        session.out.Write("no crash dumps in " + Shown(session.place.DumpFolder()) + "\n");
        return statusDone;
    }
    TextTable table({{"TIME"}, {"SIGNAL"}, {"THREAD"}, {"PLACE"}, {"VERSION"}, {"FILE"}});
    for (const CrashDump& dump : dumps) {
        const std::string file = dump.path.substr(dump.path.rfind('/') + 1);
        if (!dump.damage.empty()) {
            table.AddRow(
                {{LocalTime(dump.timeMs)}, {"-"}, {"-"}, {"-"}, {"-"}, {file + ": " + dump.damage, Colour::Bad}});
            continue;
        }
        const std::string version = versionOf(dump);
        table.AddRow({{LocalTime(dump.timeMs)},
                      {SignalName(dump.signal)},
                      {ThreadText(dump)},
                      {PlaceText(dump)},
                      {version.empty() ? "-" : version},
                      {file}});
    }
    table.Print(session.out);
    const auto whole =
        std::find_if(dumps.begin(), dumps.end(), [](const CrashDump& dump) { return dump.damage.empty(); });
    if (whole != dumps.end())
        session.out.Write("\nThe latest one opens with\n    " + Shown(OpenCommand(*whole, session.place)) + "\n");
    return statusDone;
}

} // namespace

Body AddCrashes(Options& options)
{
    const auto json = std::make_shared<bool>(false);
    options.Flag("--json", *json, "One JSON object a dump");
    return [json](Session& session) { return ShowCrashes(session, *json); };
}

} // namespace Vexctl
