// vexctl wait: for scripts and service managers. It looks ten times a second.

#include "vex/apps/vexctl/agent_state.h"
#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/heartbeat_history.h"
#include "vex/apps/vexctl/options.h"
#include "vex/apps/vexctl/times.h"

#include "vex/core/clock.h"
#include "vex_core/base/steady_ms.h"
#include "vex_core/os/pause.h"

#include <memory>

namespace Vexctl {

namespace {
constexpr long betweenLooksMs = 100;
// A process's begin is told in ticks of the system's clock, so a beat may seem to be a little older.
constexpr std::int64_t tickMs = 20;

struct WaitOptions
{
    std::string what;
    std::string timeout = "60s";
    bool next = false;
};

bool HasHeartbeatSince(const Place& place, std::int64_t sinceMs)
{
    AgentDatabase database(place.HeartbeatFile());
    HeartbeatWish wish;
    wish.sinceMs = sinceMs;
    return !ReadHeartbeats(database, wish).empty();
}

// Whether it holds now; `state` tells why not.
bool Holds(const WaitOptions& options, const Place& place, std::int64_t beganMs, const AgentState& state)
{
    const bool runs = state.life == Life::Running && !state.starting && !state.stopping && state.child != 0;
    if (options.what == "running")
        return runs;
    if (options.what == "stopped")
        return state.life == Life::NotRunning || state.life == Life::DeadWithPidFile;
    if (options.next)
        return HasHeartbeatSince(place, beganMs);
    return runs && state.childBeganMs && HasHeartbeatSince(place, *state.childBeganMs - tickMs);
}

int Wait(Session& session, const WaitOptions& options)
{
    const VexCore::Deadline deadline(*ParseDuration(options.timeout));
    const std::int64_t beganMs = VexCore::TimeNowMillis();
    for (;;) {
        // Where nothing else told the work folder, an agent tells it as soon as it runs.
        const bool isGuess = session.place.workFolder == session.place.binFolder + "/work";
        const Place place = isGuess ? FindPlace(session.place.name, std::string()) : session.place;
        const AgentState state = FindAgentState(place);
        if (Holds(options, place, beganMs, state))
            return statusDone;
        if (state.life == Life::Unknown)
            throw Failure(state.reason);
        const std::int64_t leftMs = deadline.LeftMs();
        if (leftMs == 0) {
            const std::string wish = options.what == "heartbeat" ? "no heartbeat of " + session.place.name
                                                                 : session.place.name + " is not " + options.what;
            session.Note(wish + " after " + options.timeout + ": it is " + LifeWord(state.life)
                         + (state.reason.empty() ? "" : ", " + state.reason));
            return statusDidNotHold;
        }
        VexCore::os::PauseMs(static_cast<long>(std::min<std::int64_t>(leftMs, betweenLooksMs)));
    }
}

} // namespace

Body AddWait(Options& options)
{
    const auto asked = std::make_shared<WaitOptions>();
    options
        .Text("what", asked->what,
              "running: supervisor and child are there; stopped: neither is, and the last child has ended; "
              "heartbeat: the child has given one")
        .Required()
        .OneOf({"running", "stopped", "heartbeat"});
    options.Text("--timeout", asked->timeout, "How long: 90s, 10m").Check(WhyNoDuration).TellStandard();
    options.Flag("--next", asked->next, "Of heartbeats, one that is given from now on");
    return [asked](Session& session) { return Wait(session, *asked); };
}

} // namespace Vexctl
