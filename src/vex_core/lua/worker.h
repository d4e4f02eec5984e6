#pragma once
// Threads that Lua code starts: each runs a module in a state of its own.

#include "vex/core/runnable.h"
#include "vex_core/lua/lua_value.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

struct lua_State;

namespace VexCore {

class CDom;
class CLuaInterpreter;
class WaitPoint;

/// Requires a module and calls its function `run` with an argument. Shared by the Lua objects that stand for
/// it and by the process's list of workers.
class Worker : public CRunnable
{
public:
    /// Starts a worker. Null, after an error line in the log, when there is no thread to be had or the
    /// process is ending. The worker holds a reference to the domain.
    static std::shared_ptr<Worker> Start(CDom& dom, std::string module, LuaValue argument);

    Worker(CDom& dom, std::string module, LuaValue argument);
    ~Worker() override;

    const char* GetThreadName() const override;
    const std::string& Module() const { return m_module; }

    /// Waits until the worker has ended. False when `timeoutMs` (negative: no limit) is over first, or the
    /// calling thread is asked to end itself. Not for the worker's own thread.
    bool WaitForEnd(std::int64_t timeoutMs);

    /// What the run ended with, once it has: 0 or the integer that `run` returned, or the status of its
    /// failure, whose message and traceback are in `error` then.
    int Status() const { return m_status; }
    const std::string& Error() const { return m_error; }

protected:
    void OnRun() override;
    void OnExit() override;

private:
    int Work();
    static int PrepareState(lua_State* L);
    static int PushArguments(lua_State* L);
    bool Protected(CLuaInterpreter& lua, int (*function)(lua_State*), int resultCount);

    const std::string m_module;
    const std::string m_threadName;
    LuaValue m_argument; // set before the thread starts; the thread's own from then on
    CLuaInterpreter* m_lua = nullptr; // the thread's own

    std::mutex m_lock;
    std::atomic<bool> m_done{false}; // written under m_lock
    std::vector<WaitPoint*> m_waiting; // guarded by m_lock; threads in WaitForEnd
    // Written before m_done, read after it.
    int m_status = 0;
    std::string m_error;
};

} // namespace VexCore
