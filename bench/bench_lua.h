#pragma once
// Times Lua code, for benches of what Lua calls.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <lua.hpp>

namespace Bench {

inline void WarnWhenUnoptimised()
{
#ifndef __OPTIMIZE__
    std::puts("warning: built without optimisation, the figures mean nothing");
#endif
}

/// Prints "what: A ns, B ns, ratio R (limit M)". True when the ratio keeps the limit.
inline bool Report(const char* what, double measured, double yardstick, double limit)
{
    const double ratio = measured / yardstick;
    std::printf("%-24s %8.1f ns, yardstick %8.1f ns, ratio %5.2f (limit %.2f)%s\n", what, measured, yardstick, ratio, limit,
                ratio <= limit ? "" : "  EXCEEDED");
    return ratio <= limit;
}

class State
{
public:
    State() : L(luaL_newstate()) { luaL_openlibs(L); }
    ~State() { lua_close(L); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    /// The best of several runs of a loop with `body`, ten calls of it a round, after `setup`.
    double NanosecondsPerRound(const std::string& setup, const std::string& body)
    {
        constexpr int rounds = 200000;
        std::string code = setup + "\nfor i = 1, " + std::to_string(rounds) + " do\n";
        for (int i = 0; i < 10; ++i)
            code += body + "\n";
        code += "end";
        double best = 1e300;
        for (int run = 0; run < 7; ++run) {
            if (luaL_loadstring(L, code.c_str()))
                Fail();
            const auto begin = std::chrono::steady_clock::now();
            if (lua_pcall(L, 0, 0, 0))
                Fail();
            const std::chrono::duration<double, std::nano> taken = std::chrono::steady_clock::now() - begin;
            best = std::min(best, taken.count() / rounds / 10);
        }
        return best;
    }

    lua_State* const L;

private:
    [[noreturn]] void Fail()
    {
        std::fprintf(stderr, "%s\n", lua_tostring(L, -1));
        std::exit(2);
    }
};

} // namespace Bench
