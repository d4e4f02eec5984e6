// What binding costs: a method bound through the binder against a C function written by hand that checks the same and
// does the same. Each is called from a Lua loop; the loop's own cost is measured with an empty body and taken off.
// Claim: the bound method takes at most twice as long.

#include "bench_lua.h"
#include "figures.h"
#include "slb3/slb3.h"

namespace {
struct Counter
{
    std::int64_t Add(std::int64_t amount) { return total += amount; }
    std::string Name(const std::string& suffix) const { return "counter" + suffix; }
    std::int64_t total = 0;
};

// --- by hand

// The fastest check there is: the metatable is upvalue 1 of each function.
Counter& CheckCounter(lua_State* L)
{
    void* const block = lua_touserdata(L, 1);
    if (!block || !lua_getmetatable(L, 1) || !lua_rawequal(L, -1, lua_upvalueindex(1)))
        luaL_argerror(L, 1, "counter expected");
    lua_pop(L, 1);
    return **static_cast<Counter**>(block);
}

int HandAdd(lua_State* L)
{
    Counter& self = CheckCounter(L);
    lua_pushnumber(L, static_cast<lua_Number>(self.Add(static_cast<std::int64_t>(luaL_checknumber(L, 2)))));
    return 1;
}

int HandName(lua_State* L)
{
    const Counter& self = CheckCounter(L);
    std::size_t length = 0;
    const char* suffix = luaL_checklstring(L, 2, &length);
    const std::string name = self.Name(std::string(suffix, length));
    lua_pushlstring(L, name.data(), name.size());
    return 1;
}

void PushByHand(lua_State* L, Counter* counter)
{
    *static_cast<Counter**>(lua_newuserdata(L, sizeof(Counter*))) = counter;
    luaL_newmetatable(L, "Hand.Counter");
    lua_newtable(L);
    lua_pushvalue(L, -2);
    lua_pushcclosure(L, HandAdd, 1);
    lua_setfield(L, -2, "Add");
    lua_pushvalue(L, -2);
    lua_pushcclosure(L, HandName, 1);
    lua_setfield(L, -2, "Name");
    lua_setfield(L, -2, "__index");
    lua_setmetatable(L, -2);
}

} // namespace

template <>
struct SLB3::Wrapper<Counter>
{
    static constexpr const char* name = "Bench.Counter";
    static void Register(internal::Class<Counter>& definition)
    {
        definition.Method<&Counter::Add>("Add").Method<&Counter::Name>("Name");
    }
};

int main()
{
    Bench::WarnWhenUnoptimised();
    Bench::State state;
    Counter counter;
    SLB3::PushReference(state.L, &counter);
    lua_setglobal(state.L, "bound");
    PushByHand(state.L, &counter);
    lua_setglobal(state.L, "hand");

    const double empty = state.NanosecondsPerRound("local o = bound", "");
    bool fits = true;
    for (const std::string call : {"o:Add(1)", "o:Name('x')"}) {
        const double bound = state.NanosecondsPerRound("local o = bound", call) - empty;
        const double hand = state.NanosecondsPerRound("local o = hand", call) - empty;
        const std::string what = "a bound method as " + call.substr(2);
        fits &= Bench::Row(what.c_str(), bound, "a C function by hand", hand, "ns", 2.0);
    }
    return fits ? 0 : 1;
}
