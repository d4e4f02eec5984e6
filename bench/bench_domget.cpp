// What reading a setting costs from Lua: `dom0:Get(key)` against the call of a C function that does nothing. Fails when
// it takes more than twelve times as long.

#include "bench_lua.h"
#include "slb3/class.h"
#include "vex/core/dom.h"
#include "vex/core/wrap_dom.h"

int main()
{
    Bench::WarnWhenUnoptimised();
    Bench::State state;
    VexCore::CDom* const dom = VexCore::CDom::New(nullptr, nullptr, nullptr, false);
    dom->Set("app.path.bin", "/opt/Halvorn/vx_agent");
    // As many keys as a running agent has.
    for (int i = 0; i < 200; ++i)
        dom->Set(("bench.key." + std::to_string(i)).c_str(), "value");
    SLB3::PushReference(state.L, dom);
    lua_setglobal(state.L, "dom0");
    lua_register(state.L, "nothing", [](lua_State*) { return 0; });

    const double loop = state.NanosecondsPerRound("local o = dom0", "");
    const double nothing = state.NanosecondsPerRound("local f = nothing", "f()") - loop;
    bool fits = true;
    for (const char* call : {"o:Get('app.path.bin')", "o:Get('bench.none', 'x')", "o:GetBool('bench.none')"})
        fits &= Bench::Report(call, state.NanosecondsPerRound("local o = dom0", call) - loop, nothing, 12.0);
    dom->Release();
    return fits ? 0 : 1;
}
