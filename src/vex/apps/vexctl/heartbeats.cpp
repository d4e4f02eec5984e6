// vexctl heartbeats: the history that the bundled application keeps, as a table.

#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/heartbeat_history.h"
#include "vex/apps/vexctl/json_text.h"
#include "vex/apps/vexctl/options.h"
#include "vex/apps/vexctl/text_table.h"
#include "vex/apps/vexctl/times.h"

#include "vex_core/os/files.h"

#include <memory>

namespace Vexctl {

namespace {
constexpr std::size_t usualHeartbeats = 20;

struct HeartbeatOptions
{
    bool json = false;
    std::optional<std::size_t> number; // 0: all
    TimeSpan span;
};

int ShowHeartbeats(Session& session, const HeartbeatOptions& options)
{
    struct stat status = {};
    if (VexCore::os::Stat(session.place.workFolder.c_str(), status) != 0)
        throw NoWorkFolder(session.place);
    AgentDatabase database(session.place.HeartbeatFile());
    HeartbeatWish wish;
    wish.sinceMs = options.span.SinceMs();
    wish.untilMs = options.span.UntilMs();
    wish.number = options.number.value_or(options.span.Given() ? 0 : usualHeartbeats);
    const std::vector<Heartbeat> beats = ReadHeartbeats(database, wish);
    if (options.json) {
        for (const Heartbeat& beat : beats)
            session.out.Write(JsonText(JsonOf(beat)) + "\n");
        return statusDone;
    }
    using Align = TextTable::Align;
    TextTable table({{"TIME"},
                     {"ID", Align::Right},
                     {"REASON"},
                     {"UPTIME", Align::Right},
                     {"LOAD", Align::Right},
                     {"MEMORY AVAILABLE", Align::Right}});
    for (const Heartbeat& beat : beats)
        table.AddRow({{LocalTime(beat.timeMs)},
                      {std::to_string(beat.id)},
                      {beat.reason},
                      {beat.uptimeS ? DurationText(*beat.uptimeS * 1000) : "-"},
                      {beat.load ? LoadText(*beat.load) : "-"},
                      {beat.memoryAvailable ? BytesText(*beat.memoryAvailable) : "-"}});
    table.Print(session.out);
    return statusDone;
}

} // namespace

Body AddHeartbeats(Options& options)
{
    const auto asked = std::make_shared<HeartbeatOptions>();
    options.Count("-n,--number", asked->number,
                  "Only the last so many; 0: all. Without it 20, with --since or --until all");
    asked->span.AddTo(options);
    options.Flag("--json", asked->json, "One JSON object a heartbeat");
    return [asked](Session& session) { return ShowHeartbeats(session, *asked); };
}

} // namespace Vexctl
