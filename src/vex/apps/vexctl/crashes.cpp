// vexctl crashes: the dumps that are kept, the latest first, and how a debugger opens one.

#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/crash_list.h"
#include "vex/apps/vexctl/shown_text.h"
#include "vex/apps/vexctl/text_table.h"
#include "vex/apps/vexctl/times.h"

#include <algorithm>
#include <memory>

namespace Vexctl {

namespace {
// How far back the log is searched for the version of the process that crashed.
constexpr std::size_t bytesSearchedForCrashes = 16 * 1024 * 1024;

int ShowCrashes(Session& session, bool asJson)
{
    const std::vector<CrashDump> dumps = FindCrashDumps(session.place);
    LogStory story;
    try {
        if (!dumps.empty())
            story = ReadLogStory(session.place, bytesSearchedForCrashes);
    } catch (const Failure& failure) {
        session.Note(failure.what()); // the dumps speak for themselves
    }
    if (asJson) {
        for (const CrashDump& dump : dumps)
            session.out.Write(JsonText(JsonOf(dump, VersionOf(dump, story), session.place)) + "\n");
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
        const std::string version = VersionOf(dump, story);
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
