// The life of one worker. It is made and waited for on other threads and runs on its own, in an interpreter of its own;
// what passes between them is the argument on the way in and status and error text on the way out. Who keeps it alive
// and joins it is worker_list.h's matter.

#include "vex_core/lua/worker.h"

#include "slb3/error.h"
#include "vex/core/dom.h"
#include "vex/core/luainterpreter.h"
#include "vex/core/luastate.h"
#include "vex_core/base/steady_ms.h"
#include "vex_core/base/wait.h"
#include "vex_core/log/process_log.h"
#include "vex_core/lua/collector_pause.h"
#include "vex_core/lua/run_status.h"
#include "vex_core/lua/worker_list.h"

#include <algorithm>

#include <lua.hpp>
#include <wx/mstream.h>

namespace VexCore {

namespace {
// What runs in the new state. Its first arguments are the module's name and the argument of `run`.
constexpr const char workerChunk[] =
    "local name, argument = ...\n"
    "local module = require(name)\n"
    "if type(module) ~= 'table' or type(module.run) ~= 'function' then\n"
    "  error((\"module '%s' has no function 'run'\"):format(name), 0)\n"
    "end\n"
    "local status = module.run(argument)\n" // no tail call: the traceback would lack its caller
    "return status\n";

} // namespace

Worker::Worker(CDom& dom, std::string module, LuaValue argument)
    : CRunnable(false, -1, false), m_module(std::move(module)), m_threadName("worker " + m_module),
      m_argument(std::move(argument))
{
    dom.AddRef();
    SetDom(&dom);
}

Worker::~Worker()
{
    join(-1);
    GetDom()->Release();
}

const char* Worker::GetThreadName() const
{
    return m_threadName.c_str();
}

std::shared_ptr<Worker> Worker::Start(CDom& dom, std::string module, LuaValue argument)
{
    auto worker = std::make_shared<Worker>(dom, std::move(module), std::move(argument));
    return WorkerList::OfProcess().Start(worker) ? worker : nullptr;
}

// Calls a function of the state without arguments; its error becomes the worker's.
bool Worker::Protected(CLuaInterpreter& lua, int (*function)(lua_State*), int resultCount)
{
    lua_State* const L = lua.L();
    lua_pushcfunction(L, function);
    lua_pushlightuserdata(L, this);
    if (lua_pcall(L, 1, resultCount, 0) == LUA_OK)
        return true;
    std::size_t length = 0;
    const char* const message = lua_tolstring(L, -1, &length); // what runs here raises nothing but texts
    m_error.assign(message, length);
    lua_settop(L, 0);
    return false;
}

int Worker::PrepareState(lua_State* L)
{
    return SLB3::internal::Guard(L, [L] {
        const Worker& self = *static_cast<Worker*>(lua_touserdata(L, 1));
        luaL_checkversion(L);
        const CollectorPause pause(L);
        PrepareLuaState(*self.m_lua, self.GetDom());
        return 0;
    });
}

int Worker::PushArguments(lua_State* L)
{
    return SLB3::internal::Guard(L, [L] {
        const Worker& self = *static_cast<Worker*>(lua_touserdata(L, 1));
        lua_pushlstring(L, self.m_module.data(), self.m_module.size());
        self.m_argument.Push(L);
        return 2;
    });
}

int Worker::Work()
{
    CLuaInterpreter lua(false, L"worker.lua", true);
    lua.LeaveFailuresToCaller();
    m_lua = &lua;
    if (!Protected(lua, &PrepareState, 0) || !Protected(lua, &PushArguments, 2))
        return statusFailed;
    m_argument.value = std::monostate();
    wxMemoryInputStream chunk(workerChunk, sizeof(workerChunk) - 1);
    const int status = lua.RunScript(chunk, 2, 1, "worker", nullptr);
    if (status != 0) {
        m_error = lua.GetErrorBytes();
        return status;
    }
    return static_cast<int>(lua_tointeger(lua.L(), -1));
}

void Worker::OnRun()
{
    // However the work ends, the worker's thread is somebody's to join.
    struct End
    {
        Worker& worker;
        ~End() { WorkerList::OfProcess().NoteEnd(worker); }
    };
    const End end{*this};
    m_status = statusFailed;
    try {
        m_status = Work();
    } catch (const std::exception& e) {
        m_error = e.what();
    }
    if (!m_error.empty())
        WriteLogLine(LogLevel::Error, "Worker \"" + m_module + "\" failed: " + m_error);
}

// Who waits for the worker is woken at the end and not before, when there is next to nothing left that it would wait
// for. It is over before that: nobody sees a worker that does not run any more and cannot be joined.
void Worker::OnExit()
{
    {
        const std::lock_guard lock(m_lock);
        m_done = true;
    }
    CRunnable::OnExit();
    const std::lock_guard lock(m_lock);
    for (WaitPoint* waiting : m_waiting)
        waiting->NotifyWhileItLives(); // who waits takes its point away under the lock, or when this thread is over
}

bool Worker::WaitForEnd(std::int64_t timeoutMs)
{
    WaitPoint& point = WaitPoint::OfThisThread();
    const Deadline deadline(timeoutMs);
    {
        const std::lock_guard lock(m_lock);
        if (!m_done)
            m_waiting.push_back(&point);
    }
    bool isOver = false;
    // A notification may also be a late one of a key that this thread has waited for.
    while (!m_done && !isOver)
        isOver = point.Sleep(deadline.LeftMs()) != WaitPoint::Outcome::Notified;
    // The end of the system's thread is all that is left. It is waited for without the lock, which the thread has while
    // it wakes us.
    const bool isDone = m_done;
    if (isDone)
        join(-1);
    const std::lock_guard lock(m_lock);
    m_waiting.erase(std::remove(m_waiting.begin(), m_waiting.end(), &point), m_waiting.end());
    return isDone;
}

} // namespace VexCore
