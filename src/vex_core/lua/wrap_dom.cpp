// The domain's methods for Lua. Functions here only turn arguments and results; what happens is the domain's.

#include "vex/core/wrap_dom.h"

#include "vex/core/agentevent.h"
#include "vex/core/clock.h"
#include "vex/core/dom.h"
#include "vex/core/log.h"
#include "vex_core/base/text.h"
#include "vex_core/domain/dom_text.h"
#include "vex_core/domain/doorbell.h"
#include "vex_core/domain/work_folder.h"
#include "vex_core/log/process_log.h"
#include "vex_core/lua/lua_arguments.h"
#include "vex_core/lua/lua_value.h"
#include "vex_core/lua/wrap_worker.h"
#include "vex_core/process/helper_program.h"
#include "vex_core/process/run_program.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <wx/log.h>

using VexCore::CDom;
using namespace SLB3::internal;

namespace {
// Stack indexes of a method's arguments; the domain is 1.
constexpr int firstArgument = 2;
constexpr int secondArgument = 3;
constexpr int thirdArgument = 4;

constexpr int handleKilobytes = 4; // of an ended worker

int PushBytes(lua_State* L, std::string_view bytes)
{
    lua_pushlstring(L, bytes.data(), bytes.size());
    return 1;
}

// The second argument, as it is, or nil.
int PushDefault(lua_State* L)
{
    lua_settop(L, secondArgument);
    return 1;
}

// An argument that is an array of strings without zero bytes.
std::vector<std::string> StringsArgument(lua_State* L, int index)
{
    constexpr const char* wanted = "array of strings";
    std::vector<std::string> strings;
    if (!lua_istable(L, index))
        RaiseArgumentError(L, index, wanted);
    const int count = static_cast<int>(lua_rawlen(L, index));
    for (int i = 1; i <= count; ++i) {
        lua_rawgeti(L, index, i);
        std::size_t length = 0;
        const char* bytes = lua_tolstring(L, -1, &length);
        if (!bytes)
            RaiseArgumentError(L, index, wanted, lua_pushfstring(L, "%s at [%d]", luaL_typename(L, -1), i));
        if (std::string_view(bytes, length).find('\0') != std::string_view::npos)
            RaiseArgumentError(L, index, wanted, lua_pushfstring(L, "string with a zero byte at [%d]", i));
        strings.emplace_back(bytes, length);
        lua_pop(L, 1);
    }
    return strings;
}

// --- values

int Get(CDom& dom, lua_State* L)
{
    // A copy: making the Lua string may run a finaliser, which may write the key.
    const VexCore::DomText text(dom, Value<const char*>::GetWithSize(L, firstArgument));
    return text ? PushBytes(L, text.Text()) : PushDefault(L);
}

bool GetBool(CDom& dom, const char* key, std::optional<bool> defaultValue)
{
    bool value = defaultValue.value_or(false);
    dom.Get(key, value);
    return value;
}

int GetInt(CDom& dom, lua_State* L)
{
    const char* key = Value<const char*>::Get(L, firstArgument);
    if (!lua_isnoneornil(L, secondArgument))
        Value<std::int64_t>::Get(L, secondArgument);
    std::int64_t value = 0;
    if (!dom.Get(key, value))
        return PushDefault(L);
    if (value > VexCore::maxExactInteger || value < -VexCore::maxExactInteger)
        return luaL_error(L, "the value of '%s' is beyond 2^53, where Lua numbers are not exact: read it with Get",
                          key);
    return Value<std::int64_t>::Push(L, value);
}

void Set(CDom& dom, lua_State* L, const char* key)
{
    switch (lua_type(L, secondArgument)) {
    case LUA_TNIL:
        dom.Remove(key);
        break;
    case LUA_TBOOLEAN:
        dom.Set(key, lua_toboolean(L, secondArgument) != 0);
        break;
    case LUA_TNUMBER:
        dom.SetWx(key, Value<std::int64_t>::Get(L, secondArgument));
        break;
    case LUA_TSTRING: {
        const std::string_view text = Value<std::string_view>::Get(L, secondArgument);
        dom.Set(key, text.data(), text.size());
        break;
    }
    default:
        RaiseArgumentError(L, secondArgument, "string, boolean, integer or nil");
    }
}

int SetValue(CDom& dom, lua_State* L)
{
    Set(dom, L, Value<const char*>::Get(L, firstArgument));
    return 0;
}

std::vector<std::string> Keys(CDom& dom, std::optional<const char*> prefix)
{
    return dom.Keys(prefix.value_or(""));
}

// For one key, or for an array of them; of these a second result tells which was written.
int Wait(CDom& dom, lua_State* L)
{
    const bool several = lua_istable(L, firstArgument);
    std::vector<std::string> keys;
    if (several)
        keys = StringsArgument(L, firstArgument);
    else
        keys.emplace_back(Value<const char*>::Get(L, firstArgument));
    if (keys.empty() || keys.size() > CDom::maxWaitKeys)
        RaiseArgumentError(L, firstArgument, "1 to 16 keys", std::to_string(keys.size()).c_str());
    std::size_t which = 0;
    switch (dom.Wait(keys, VexCore::MillisecondsArgument(L, secondArgument), which)) {
    case CDom::EWait::Written:
        lua_pushboolean(L, true);
        return several ? 1 + PushBytes(L, keys[which]) : 1;
    case CDom::EWait::TimedOut:
        lua_pushboolean(L, false);
        break;
    case CDom::EWait::Ending:
        lua_pushnil(L);
        break;
    }
    return 1;
}

// --- log

int Log(CDom&, lua_State* L)
{
    struct Level
    {
        std::string_view name;
        VexCore::LogLevel level;
    };
    static constexpr Level levels[] = {{"error", VexCore::LogLevel::Error},
                                       {"warning", VexCore::LogLevel::Warning},
                                       {"message", VexCore::LogLevel::Message},
                                       {"info", VexCore::LogLevel::Info},
                                       {"debug", VexCore::LogLevel::Debug}};
    const std::string_view name = Value<std::string_view>::Get(L, firstArgument);
    const std::string_view text = Value<std::string_view>::Get(L, secondArgument);
    for (const Level& level : levels) {
        if (level.name != name)
            continue;
        VexCore::WriteLogLine(level.level, text);
        return 0;
    }
    RaiseArgumentError(L, firstArgument, "\"error\", \"warning\", \"message\", \"info\" or \"debug\"",
                       lua_pushfstring(L, "\"%s\"", lua_tostring(L, firstArgument)));
}

int Trace(CDom&, lua_State* L)
{
    const char* module = Value<const char*>::Get(L, firstArgument);
    const std::string_view text = Value<std::string_view>::Get(L, secondArgument);
    const int level = Value<std::optional<int>>::Get(L, thirdArgument).value_or(1);
    if (!VexCore::LogTraceIsEnabled(module))
        return 0;
    // The line tells the place of the Lua code that calls, or of its caller's caller and so on.
    lua_Debug caller = {};
    const bool known = lua_getstack(L, std::max(level, 1), &caller) && lua_getinfo(L, "nSl", &caller);
    const char* source = !known ? "?" : *caller.source == '@' ? caller.source + 1 : caller.short_src;
    const char* function = known && caller.name ? caller.name : "main";
    VexCore::WriteTraceLine(module, source, known ? caller.currentline : 0, function, text);
    return 0;
}

bool TraceEnabled(CDom&, const char* module)
{
    return VexCore::LogTraceIsEnabled(module);
}

// --- events

// Refuses the table at `firstArgument` for its field, whose value is on top.
[[noreturn]] void RaiseFieldError(lua_State* L, const char* wanted, const char* name)
{
    const char* got = lua_type(L, -1) == LUA_TNUMBER ? "another number" : luaL_typename(L, -1);
    RaiseArgumentError(L, firstArgument, lua_pushfstring(L, "table with %s \"%s\"", wanted, name), got);
}

// Reads a field of the table at `firstArgument` that is a 32-bit integer.
std::int32_t IntegerField(lua_State* L, const char* name, std::optional<std::int32_t> defaultValue)
{
    lua_getfield(L, firstArgument, name);
    const double number = lua_tonumber(L, -1);
    const bool isNumber = lua_type(L, -1) == LUA_TNUMBER;
    if (lua_isnil(L, -1) && defaultValue) {
        lua_pop(L, 1);
        return *defaultValue;
    }
    if (!isNumber || number != std::floor(number) || number < INT32_MIN || number > INT32_MAX)
        RaiseFieldError(L, "an integer", name);
    lua_pop(L, 1);
    return static_cast<std::int32_t>(number);
}

std::string TextField(lua_State* L, const char* name)
{
    lua_getfield(L, firstArgument, name);
    std::size_t length = 0;
    const char* bytes = lua_tolstring(L, -1, &length);
    if (!bytes && !lua_isnil(L, -1))
        RaiseFieldError(L, "a string", name);
    std::string text(bytes ? bytes : "", length);
    lua_pop(L, 1);
    return text;
}

int AgentEvent(CDom& dom, lua_State* L)
{
    constexpr int noticeLevel = 5;
    if (!lua_istable(L, firstArgument))
        RaiseArgumentError(L, firstArgument, "table");
    VexCore::CAgentEvent event;
    event.m_number = IntegerField(L, "number", std::nullopt);
    event.m_severity = VexCore::CAgentEvent::ToSeverity(IntegerField(L, "severity", noticeLevel));
    event.m_text = TextField(L, "text");
    event.m_timeMillis = VexCore::TimeNowMillis();
    event.m_timeSeconds = static_cast<std::int32_t>(event.m_timeMillis / 1000);
    for (const int field : {VexCore::CAgentEvent::FieldText, VexCore::CAgentEvent::FieldTimeMillis,
                            VexCore::CAgentEvent::FieldTimeSeconds, VexCore::CAgentEvent::FieldNumber,
                            VexCore::CAgentEvent::FieldSeverity})
        event.SetAttributeNull(field, false);
    return Value<std::int64_t>::Push(L, dom.AgentEventWrite(event));
}

// --- host

int PluginWorkdir(CDom& dom, lua_State* L)
{
    std::string path;
    std::string breach;
    if (VexCore::MakePluginWorkdir(dom, Value<std::string>::Get(L, firstArgument), path, breach))
        return Value<std::string>::Push(L, path);
    lua_pushnil(L);
    Value<std::string>::Push(L, breach);
    return 2;
}

int AnswerDoorbell(CDom& dom, lua_State* L)
{
    const std::string plugin = Value<std::string>::Get(L, firstArgument);
    const std::string key = Value<std::string>::Get(L, secondArgument);
    std::string error;
    const bool hasAnswered = VexCore::AnswerDoorbell(dom, plugin, key, error);
    lua_pushboolean(L, hasAnswered);
    if (hasAnswered)
        return 1;
    PushBytes(L, error);
    return 2;
}

// Pushes an option of the table at `thirdArgument`; false when it is not there. Another type is refused.
bool PushOption(lua_State* L, const char* name, int type, const char* wanted)
{
    lua_getfield(L, thirdArgument, name);
    if (lua_isnil(L, -1))
        return false;
    if (lua_type(L, -1) != type)
        RaiseArgumentError(L, thirdArgument, wanted, luaL_typename(L, -1));
    return true;
}

void ReadProgramOptions(lua_State* L, VexCore::ProgramRequest& request)
{
    if (lua_isnoneornil(L, thirdArgument))
        return;
    if (!lua_istable(L, thirdArgument))
        RaiseArgumentError(L, thirdArgument, "table");
    constexpr const char* wantedTimeout = "table with a positive number \"timeout\"";
    constexpr double maxSeconds = 1e9;
    if (PushOption(L, "timeout", LUA_TNUMBER, wantedTimeout)) {
        const double seconds = lua_tonumber(L, -1);
        if (!(seconds > 0) || seconds > maxSeconds)
            RaiseArgumentError(L, thirdArgument, wantedTimeout, "another number");
        request.timeoutMs = static_cast<long>(std::ceil(seconds * 1000));
    }
    if (PushOption(L, "input", LUA_TSTRING, "table with a string \"input\"")) {
        std::size_t length = 0;
        const char* const bytes = lua_tolstring(L, -1, &length);
        request.input.emplace(bytes, length);
    }
    if (PushOption(L, "separate", LUA_TBOOLEAN, "table with a boolean \"separate\""))
        request.separate = lua_toboolean(L, -1) != 0;
}

int Execute(CDom&, lua_State* L)
{
    VexCore::ProgramRequest request;
    request.program = Value<const char*>::Get(L, firstArgument);
    if (!lua_isnoneornil(L, secondArgument))
        request.arguments = StringsArgument(L, secondArgument);
    ReadProgramOptions(L, request);
    if (VexCore::AskToStart() == VexCore::MayStart::NoAgain)
        return luaL_error(L, "%s", VexCore::asksNoMoreText);
    const VexCore::ProgramResult result = VexCore::RunProgram(request);
    const int top = lua_gettop(L);
    lua_pushboolean(L, result.ran);
    PushBytes(L, result.output);
    if (request.separate)
        PushBytes(L, result.errors);
    lua_pushinteger(L, result.exitCode);
    PushBytes(L, result.error);
    return lua_gettop(L) - top;
}

std::int64_t TimeMillis(CDom&)
{
    return VexCore::TimeNowMillis();
}

int StartThread(CDom& dom, lua_State* L)
{
    const char* module = Value<const char*>::Get(L, firstArgument);
    VexCore::LuaValue argument;
    std::string got;
    if (!VexCore::LuaValue::Copy(L, secondArgument, argument, got))
        RaiseArgumentError(L, secondArgument, "nil, boolean, number, string or a table of them", got.c_str());
    // The collector sees a few bytes of a handle and not what hangs on it: it is told, or a large heap would keep the
    // handles of tens of thousands of ended workers.
    lua_gc(L, LUA_GCSTEP, handleKilobytes);
    std::shared_ptr<VexCore::Worker> worker = VexCore::Worker::Start(dom, module, std::move(argument));
    if (!worker)
        return luaL_error(L, "worker '%s' could not be started; the log tells why", module);
    SLB3::PushValue<VexCore::WorkerHandle>(L, std::move(worker));
    return 1;
}

} // namespace

void SLB3::Wrapper<CDom>::Register(internal::Class<CDom>& definition)
{
    definition.Method<&Get>("Get")
        .Method<&GetBool>("GetBool")
        .Method<&GetInt>("GetInt")
        .Method<&SetValue>("Set")
        .Method<&CDom::Has>("Has")
        .Method<&CDom::Remove>("Remove")
        .Method<&Keys>("Keys")
        .Method<&Wait>("Wait")
        .Method<&Log>("Log")
        .Method<&Trace>("Trace")
        .Method<&TraceEnabled>("TraceEnabled")
        .Method<&AgentEvent>("AgentEvent")
        .Method<&PluginWorkdir>("PluginWorkdir")
        .Method<&AnswerDoorbell>("AnswerDoorbell")
        .Method<&Execute>("Execute")
        .Method<&TimeMillis>("TimeMillis")
        .Method<&StartThread>("StartThread");
}
