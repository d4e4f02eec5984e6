#pragma once
// The heartbeats that the bundled application keeps. docs/FORMATS.md, "Heartbeats".

#include "vex/apps/vexctl/agent_database.h"
#include "vex/apps/vexctl/json_text.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Vexctl {

struct Heartbeat
{
    std::int64_t id = 0;
    std::int64_t timeMs = 0;
    std::string reason; ///< "start", "interval" or "request"
    std::optional<std::int64_t> uptimeS;
    std::optional<double> load;
    std::optional<std::int64_t> memoryAvailable; ///< bytes
};

struct HeartbeatWish
{
    std::optional<std::int64_t> sinceMs, untilMs;
    std::size_t number = 1; ///< the last so many; 0: all
};

/// The oldest first. Throws Failure when the database cannot be read; none where there is none yet.
std::vector<Heartbeat> ReadHeartbeats(AgentDatabase& database, const HeartbeatWish& wish);

Json JsonOf(const Heartbeat& beat);

/// "3.2 GiB".
std::string BytesText(std::int64_t bytes);
std::string LoadText(double load);

} // namespace Vexctl
