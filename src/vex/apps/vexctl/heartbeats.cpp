// vexctl heartbeats: the history that the bundled application keeps, as a table. With --now it first asks for a beat,
// which is the one thing that vexctl ever tells an agent.

#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/heartbeat_history.h"
#include "vex/apps/vexctl/json_text.h"
#include "vex/apps/vexctl/options.h"
#include "vex/apps/vexctl/text_table.h"
#include "vex/apps/vexctl/times.h"

#include "vex_core/base/steady_ms.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/named_pipe.h"
#include "vex_core/os/pause.h"

#include <algorithm>
#include <cerrno>
#include <memory>

namespace Vexctl {

namespace {
constexpr std::size_t usualHeartbeats = 20;
constexpr long betweenBeatLooksMs = 50;

struct HeartbeatOptions
{
    bool json = false;
    bool now = false;
    std::string timeout = "10s";
    std::optional<std::size_t> number; // 0: all
    TimeSpan span;
};

std::int64_t LastId(const Place& place)
{
    AgentDatabase database(place.HeartbeatFile());
    const std::vector<Heartbeat> beats = ReadHeartbeats(database, HeartbeatWish());
    return beats.empty() ? 0 : beats.back().id;
}

// False when nobody listens.
bool Ring(const std::string& path)
{
    const VexCore::os::Descriptor bell = VexCore::os::OpenPipeOfReader(path);
    // A pipe that is full has rung already.
    if (bell && (VexCore::os::Write(bell.Get(), "\n", 1) == 1 || VexCore::os::LastError() == EAGAIN))
        return true;
    switch (const int error = VexCore::os::LastError()) {
    case ENOENT:
    case ENXIO:
    case EPIPE:
        return false;
    case EEXIST:
        throw Failure(path + " is no pipe of an agent");
    default:
        throw Failure(path + ": " + VexCore::os::ErrorText(error));
    }
}

// Whether the agent has given a heartbeat.
bool AskForHeartbeat(Session& session, const std::string& timeout)
{
    const VexCore::Deadline deadline(*ParseDuration(timeout));
    const std::int64_t lastId = LastId(session.place);
    if (!Ring(session.place.HeartbeatBell())) {
        session.Note(session.place.name + " does not listen; vexctl status tells whether it runs");
        return false;
    }
    while (LastId(session.place) <= lastId) {
        const std::int64_t leftMs = deadline.LeftMs();
        if (leftMs == 0) {
            session.Note("no heartbeat of " + session.place.name + " after " + timeout + "; its log tells why");
            return false;
        }
        VexCore::os::PauseMs(static_cast<long>(std::min<std::int64_t>(leftMs, betweenBeatLooksMs)));
    }
    return true;
}

int ShowHeartbeats(Session& session, const HeartbeatOptions& options)
{
    struct stat status = {};
    if (VexCore::os::Stat(session.place.workFolder.c_str(), status) != 0)
        throw NoWorkFolder(session.place);
    if (options.now && !AskForHeartbeat(session, options.timeout))
        return statusDidNotHold;
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
                      {beat.uptimeS ? DurationText(std::min(*beat.uptimeS, INT64_MAX / 1000) * 1000) : "-"},
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
    options.Flag("--now", asked->now, "Ask the agent for one, and wait for it");
    options.Text("--timeout", asked->timeout, "How long, with --now: 90s, 10m").Check(WhyNoDuration).TellStandard();
    options.Flag("--json", asked->json, "One JSON object a heartbeat");
    return [asked](Session& session) { return ShowHeartbeats(session, *asked); };
}

} // namespace Vexctl
