#include "vex/apps/vexctl/crash_list.h"

#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/times.h"

#include "vex_core/base/ascii.h"
#include "vex_core/crash/minidump_format.h"
#include "vex_core/os/error.h"
#include "vex_core/os/folders.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace Vexctl {

namespace {
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

std::string Hexadecimal(std::uint64_t value)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
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

} // namespace

std::vector<CrashDump> FindCrashDumps(const Place& place)
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

std::string VersionOf(const CrashDump& dump, const LogStory& story)
{
    const auto found = story.versions.find(dump.process);
    return dump.process > 0 && found != story.versions.end() ? found->second : std::string();
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

} // namespace Vexctl
