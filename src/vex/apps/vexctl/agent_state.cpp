#include "vex/apps/vexctl/agent_state.h"

#include "vex/apps/vexctl/os/processes.h"

#include "vex/core/pidfile.h"
#include "vex_core/base/text.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>

namespace Vexctl {

namespace {
// Both lock files together: one that cannot be read, because it is another user's or of another system's making, says
// nothing.
std::optional<os::LockHolders> LockHoldersOf(const Place& place)
{
    std::optional<os::LockHolders> all;
    for (const std::string& path : {place.PidFile() + ".lock", place.workFolder + "/" + place.name + ".pid.lock"}) {
        const std::optional<os::LockHolders> found = os::ReadLockHolders(path);
        if (!found)
            continue;
        if (!all)
            all.emplace();
        all->instance = all->instance == 0 ? found->instance : all->instance;
        all->worker = all->worker == 0 ? found->worker : all->worker;
    }
    return all;
}

enum class PidFileState { Missing, Unreadable, ThereIsOne };

PidFileState LookAtPidFile(const std::string& path)
{
    struct stat status = {};
    if (VexCore::os::Stat(path.c_str(), status) != 0)
        return VexCore::os::LastError() == ENOENT || VexCore::os::LastError() == ENOTDIR ? PidFileState::Missing
                                                                                         : PidFileState::Unreadable;
    if (!S_ISREG(status.st_mode))
        return PidFileState::ThereIsOne;
    const VexCore::os::Descriptor file(VexCore::os::Open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
    return file ? PidFileState::ThereIsOne : PidFileState::Unreadable;
}

void FindProcesses(AgentState& state, pid_t supervisor, pid_t child)
{
    state.life = Life::Running;
    // A process out of sight has no number here.
    state.supervisor = std::max<pid_t>(supervisor, 0);
    state.child = std::max<pid_t>(child != 0 || supervisor <= 0 ? child : os::ChildOf(supervisor), 0);
    if (state.supervisor > 0)
        state.supervisorBeganMs = os::ProcessBeganMs(state.supervisor);
    if (state.child > 0)
        state.childBeganMs = os::ProcessBeganMs(state.child);
}

} // namespace

AgentState FindAgentState(const Place& place)
{
    AgentState state;
    const PidFileState pidFile = LookAtPidFile(place.PidFile());
    auto pid = static_cast<pid_t>(VexCore::ReadPidFile(VexCore::FromSystemBytes(place.PidFile())));
    if (pid > 0 && !os::IsAlive(pid))
        pid = 0;
    const std::optional<os::LockHolders> locks = LockHoldersOf(place);
    // Who has no lock of an agent's, where the locks can be seen, is a stranger to whom the number has gone.
    const bool isStranger = pid > 0 && locks && locks->instance == 0;

    if (pid > 0 && !isStranger) {
        FindProcesses(state, pid, locks ? locks->worker : 0);
    } else if (locks && locks->instance != 0) {
        FindProcesses(state, locks->instance, locks->worker);
        // Before the pid file is there, and where it cannot be written: then there is a child all the same.
        state.starting = locks->worker == 0;
        state.reason = state.starting ? "it is starting" : place.PidFile() + " is not there or names somebody else";
    } else if (locks && locks->worker != 0) {
        FindProcesses(state, 0, locks->worker);
        state.stopping = true;
        state.reason = "its supervisor is gone or has been told to stop, and the child is ending";
    } else if (pidFile == PidFileState::ThereIsOne) {
        state.life = Life::DeadWithPidFile;
        state.reason = isStranger ? place.PidFile() + " names process " + std::to_string(pid) + ", which is no agent"
                                  : place.PidFile() + " is there, and names no process that runs";
    } else if (pidFile == PidFileState::Unreadable) {
        state.life = Life::Unknown;
        state.reason = place.PidFile() + " cannot be read";
    } else {
        state.life = Life::NotRunning;
        state.reason = "there is no " + place.PidFile();
    }
    return state;
}

int LsbStatus(Life life)
{
    switch (life) {
    case Life::Running:
        return 0;
    case Life::DeadWithPidFile:
        return 1;
    case Life::NotRunning:
        return 3;
    case Life::Unknown:
        break;
    }
    return 4;
}

const char* LifeWord(Life life)
{
    switch (life) {
    case Life::Running:
        return "running";
    case Life::DeadWithPidFile:
        return "dead";
    case Life::NotRunning:
        return "stopped";
    case Life::Unknown:
        break;
    }
    return "unknown";
}

} // namespace Vexctl
