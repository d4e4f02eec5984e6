// Each function asks once and answers with Lua values, on the thread of the state that calls. What it asks are counters
// of the process, which other threads go on counting.

#include "vex_core/lua/lua_agent.h"

#include "slb3/error.h"
#include "vex_core/base/ascii.h"
#include "vex_core/domain/out_folder.h"
#include "vex_core/domain/root_dom.h"
#include "vex_core/events/agentevent_store.h"
#include "vex_core/log/process_log.h"
#include "vex_core/lua/lua_arguments.h"
#include "vex_core/os/process_info.h"

#include <algorithm>
#include <string>

#include <lua.hpp>

namespace VexCore {
namespace {
using SLB3::internal::Guarded;

int PushCount(lua_State* L, std::uint64_t count)
{
    lua_pushnumber(L, static_cast<double>(count));
    return 1;
}

// log_records(): table of the records logged so far, by level in small letters.
int AgentLogRecords(lua_State* L)
{
    lua_createtable(L, 0, 7);
    for (const LogLevel level : {LogLevel::Fatal, LogLevel::Error, LogLevel::Warning, LogLevel::Message, LogLevel::Info,
                                 LogLevel::Debug, LogLevel::Trace}) {
        std::string word = LogLevelWord(level);
        std::transform(word.begin(), word.end(), word.begin(), LowerAscii);
        PushCount(L, LoggedRecords(level));
        lua_setfield(L, -2, word.c_str());
    }
    return 1;
}

// events(): table of the events written so far, by severity from 0 to 7.
int AgentEvents(lua_State* L)
{
    lua_createtable(L, 8, 0);
    for (int severity = 0; severity < 8; ++severity) {
        PushCount(L, EventsOfSeverity(severity));
        lua_rawseti(L, -2, severity);
    }
    return 1;
}

// resident_memory(): in bytes.
int AgentResidentMemory(lua_State* L)
{
    const auto bytes = os::ResidentBytes();
    return bytes ? PushCount(L, *bytes) : 0;
}

// write_output(name, content): puts a file into the folder for collectors. True, and a message when its rights are not
// those of the settings; or nil and a message.
int AgentWriteOutput(lua_State* L)
{
    const std::string name = PlainTextArgument(L, 1);
    std::size_t length = 0;
    const char* const content = luaL_checklstring(L, 2, &length);
    std::string problem;
    bool isWritten = false;
    if (const RootDom root; root)
        isWritten = WriteOutFile(*root, name, {content, length}, problem);
    else
        problem = "the process ends";
    if (isWritten)
        lua_pushboolean(L, 1);
    else
        lua_pushnil(L);
    if (problem.empty())
        return 1;
    lua_pushlstring(L, problem.data(), problem.size());
    return 2;
}

const luaL_Reg agentFunctions[] = {{"log_records", Guarded<AgentLogRecords>},
                                   {"events", Guarded<AgentEvents>},
                                   {"resident_memory", Guarded<AgentResidentMemory>},
                                   {"write_output", Guarded<AgentWriteOutput>},
                                   {nullptr, nullptr}};

} // namespace

int OpenLuaAgent(lua_State* L)
{
    luaL_newlib(L, agentFunctions);
    return 1;
}

} // namespace VexCore
