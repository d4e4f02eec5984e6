#pragma once
// The page of `vexctl report --html`: all that is known of an agent and its host, in one file without a script that
// fetches nothing, for screens of any width and for paper. Secrets are masked by their names.

#include "vex/apps/vexctl/agent_state.h"
#include "vex/apps/vexctl/crash_dump.h"
#include "vex/apps/vexctl/event_history.h"
#include "vex/apps/vexctl/heartbeat_history.h"
#include "vex/apps/vexctl/json_text.h"
#include "vex/apps/vexctl/log_story.h"
#include "vex/apps/vexctl/place.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Vexctl {

struct PageContent
{
    Place place;
    std::int64_t nowMs = 0;
    std::int64_t sinceMs = 0; ///< where the charts begin
    AgentState state;
    LogStory story;
    std::vector<Heartbeat> heartbeats; ///< the oldest first
    std::vector<Event> events; ///< the oldest first
    std::vector<CrashDump> dumps; ///< the latest first
    Json report; ///< the agent's; null where it could not be made
    std::vector<std::pair<std::string, std::string>> settings; ///< files with what is in them
    std::vector<std::string> problems; ///< what could not be read
};

/// Looks at everything but the agent's report. What cannot be read is told in `problems`.
PageContent CollectPage(const Place& place, std::int64_t sinceMs);

std::string ReportPage(const PageContent& content);

/// The files of settings with their secrets masked; what cannot be read is told in `problems`.
std::vector<std::pair<std::string, std::string>> ReadSettings(const Place& place, std::vector<std::string>& problems);

} // namespace Vexctl
