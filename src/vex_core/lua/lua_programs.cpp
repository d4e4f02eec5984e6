// Lua's own functions pass on what the calling thread has: with us SIGTERM blocked and SIGPIPE ignored, and nobody
// knows the programs when the agent ends. Here they start and end as every program of ours does. On a terminal they
// stay in its foreground group, or they could not read from it.

#include "vex_core/lua/lua_programs.h"

#include "slb3/error.h"
#include "vex_core/os/error.h"
#include "vex_core/os/exit.h"
#include "vex_core/os/files.h"
#include "vex_core/os/spawn.h"
#include "vex_core/process/helper_program.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include <lua.hpp>

namespace VexCore {

namespace {
using SLB3::internal::Guarded;

constexpr const char* shell = "/bin/sh";
constexpr int standardInput = 0;

// --- streams of io.popen

std::mutex g_streamsLock;
std::map<std::FILE*, std::unique_ptr<HelperProgram>>& Streams() // guarded by g_streamsLock
{
    static auto* s_streams = new std::map<std::FILE*, std::unique_ptr<HelperProgram>>; // states may be closed late
    return *s_streams;
}

std::unique_ptr<HelperProgram> TakeProgram(std::FILE* stream)
{
    const std::lock_guard lock(g_streamsLock);
    const auto place = Streams().find(stream);
    std::unique_ptr<HelperProgram> program = std::move(place->second);
    Streams().erase(place);
    return program;
}

// --- both functions

// False: the call is to fail. Who does not care about that ends by an error.
bool CheckMayStart(lua_State* L)
{
    const MayStart may = AskToStart();
    if (may == MayStart::NoAgain)
        luaL_error(L, "%s", asksNoMoreText);
    return may == MayStart::Yes;
}

std::unique_ptr<HelperProgram> StartShell(const char* command, os::SpawnPlan plan)
{
    std::string name = "sh", option = "-c", text = command;
    char* const arguments[] = {name.data(), option.data(), text.data(), nullptr};
    plan.program = shell;
    plan.arguments = arguments;
    plan.ownGroup = !os::IsTerminal(standardInput);
    return HelperProgram::Start(plan);
}

// Waits for the program's end and pushes what os.execute and the close of a stream give.
int PushEnd(lua_State* L, HelperProgram& program)
{
    program.Wait(0, {});
    os::SetLastError(ECHILD); // for when somebody else has taken the status
    return luaL_execresult(L, program.Status());
}

int Execute(lua_State* L)
{
    const char* const command = luaL_optstring(L, 1, nullptr);
    if (!command) {
        lua_pushboolean(L, os::MayExecute(shell));
        return 1;
    }
    if (!CheckMayStart(L))
        return luaL_execresult(L, SIGTERM); // as though it had been ended at once
    const std::unique_ptr<HelperProgram> program = StartShell(command, os::SpawnPlan());
    return program ? PushEnd(L, *program) : luaL_execresult(L, -1);
}

int ClosePopened(lua_State* L)
{
    auto* const stream = static_cast<luaL_Stream*>(luaL_checkudata(L, 1, LUA_FILEHANDLE));
    const std::unique_ptr<HelperProgram> program = TakeProgram(stream->f);
    program->SetInput(nullptr);
    std::fclose(stream->f);
    return PushEnd(L, *program);
}

// Null with the last error.
std::FILE* OpenProgram(const char* command, bool isInput)
{
    os::Pipe pipe = os::OpenPipe();
    if (!pipe)
        return nullptr;
    os::Descriptor ours = std::move(isInput ? pipe.writing : pipe.reading);
    const os::Descriptor theirs = std::move(isInput ? pipe.reading : pipe.writing);
    struct Closer
    {
        void operator()(std::FILE* stream) const { std::fclose(stream); }
    };
    std::unique_ptr<std::FILE, Closer> stream(::fdopen(ours.Get(), isInput ? "w" : "r"));
    if (!stream)
        return nullptr;
    (void)ours.Release(); // the stream's now
    os::SpawnPlan plan;
    (isInput ? plan.input : plan.output) = theirs.Get();
    // So that the program's output comes behind ours. Lua's own function flushes every stream, and hangs for as long as
    // another thread is blocked in one, as a worker is that reads what a program writes.
    os::FlushIfFree(stdout);
    std::unique_ptr<HelperProgram> program = StartShell(command, plan);
    if (!program) {
        const os::KeepError error;
        stream.reset();
        return nullptr;
    }
    if (isInput)
        program->SetInput(stream.get());
    const std::lock_guard lock(g_streamsLock);
    Streams()[stream.get()] = std::move(program);
    return stream.release();
}

int Popen(lua_State* L)
{
    const char* const command = luaL_checkstring(L, 1);
    const std::string_view mode = luaL_optstring(L, 2, "r");
    auto* const stream = static_cast<luaL_Stream*>(lua_newuserdata(L, sizeof(luaL_Stream)));
    stream->closef = nullptr; // closed, as far as Lua's library is concerned
    luaL_setmetatable(L, LUA_FILEHANDLE);
    stream->f = nullptr;
    if (mode != "r" && mode != "w") {
        os::SetLastError(EINVAL);
    } else if (!CheckMayStart(L)) {
        lua_pushnil(L);
        lua_pushfstring(L, "%s: %s", command, asksNoMoreText);
        lua_pushinteger(L, EINTR);
        return 3;
    } else {
        stream->f = OpenProgram(command, mode == "w");
    }
    if (!stream->f)
        return luaL_fileresult(L, 0, command);
    stream->closef = Guarded<ClosePopened>;
    return 1;
}

void Replace(lua_State* L, const char* library, const char* name, lua_CFunction function)
{
    lua_getglobal(L, library);
    lua_pushcfunction(L, function);
    lua_setfield(L, -2, name);
    lua_pop(L, 1);
}

} // namespace

void InstallPrograms(lua_State* L)
{
    Replace(L, "os", "execute", Guarded<Execute>);
    Replace(L, "io", "popen", Guarded<Popen>);
}

} // namespace VexCore
