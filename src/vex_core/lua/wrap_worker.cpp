#include "vex_core/lua/wrap_worker.h"

#include "vex_core/lua/lua_arguments.h"

using VexCore::WorkerHandle;

namespace {
void Stop(WorkerHandle& self)
{
    self.worker->requestExit();
}

bool Running(WorkerHandle& self)
{
    return self.worker->Running();
}

// Join([seconds]): false while it runs, else true, status and error text or nil.
int Join(WorkerHandle& self, lua_State* L)
{
    const std::int64_t timeoutMs = lua_isnoneornil(L, 2) ? -1 : VexCore::MillisecondsArgument(L, 2);
    // Held: making the error's text may run a finaliser, and that may destroy the handle.
    const std::shared_ptr<VexCore::Worker> worker = self.worker;
    // The worker's own state cannot hold its handle, so a thread never waits for itself.
    const bool ended = worker->WaitForEnd(timeoutMs);
    lua_pushboolean(L, ended);
    if (!ended)
        return 1;
    lua_pushinteger(L, worker->Status());
    if (worker->Error().empty())
        return 2;
    lua_pushlstring(L, worker->Error().data(), worker->Error().size());
    return 3;
}

} // namespace

void SLB3::Wrapper<WorkerHandle>::Register(internal::Class<WorkerHandle>& definition)
{
    definition.Method<&Stop>("Stop").Method<&Join>("Join").Method<&Running>("Running");
}
