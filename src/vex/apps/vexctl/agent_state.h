#pragma once
// Whether an agent runs, and as which processes: out of its pid file, its locks, and the list of processes.

#include "vex/apps/vexctl/place.h"

#include <cstdint>
#include <optional>
#include <string>

#include <sys/types.h>

namespace Vexctl {

enum class Life {
    Running,
    DeadWithPidFile, ///< nobody runs, and a pid file says otherwise
    NotRunning,
    Unknown, ///< what would tell may not be read
};

struct AgentState
{
    Life life = Life::Unknown;
    bool starting = false; ///< there is a process that is about to become the supervisor
    bool stopping = false; ///< the supervisor has taken a stop or is gone, and its child is still ending
    pid_t supervisor = 0; ///< 0: none is known
    pid_t child = 0;
    std::optional<std::int64_t> supervisorBeganMs, childBeganMs;
    std::string reason; ///< a sentence, for all but a plain "running"
};

AgentState FindAgentState(const Place& place);

/// The number with which a script of init would tell it.
int LsbStatus(Life life);
/// "running", "dead", "stopped", "unknown".
const char* LifeWord(Life life);

} // namespace Vexctl
