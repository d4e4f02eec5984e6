#pragma once
// Times Lua code, for benches of what Lua calls.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
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
    std::printf("%-24s %8.1f ns, yardstick %8.1f ns, ratio %5.2f (limit %.2f)%s\n", what, measured, yardstick, ratio,
                limit, ratio <= limit ? "" : "  EXCEEDED");
    return ratio <= limit;
}

class State
{
public:
    State() : L(luaL_newstate()) { luaL_openlibs(L); }
    ~State() { lua_close(L); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    /// Processor time of one `body` in a loop after `setup`:
    /// the best of many short runs, so that other work on the machine does not show.
    double NanosecondsPerRound(const std::string& setup, const std::string& body)
    {
        double best = 1e300;
        for (int run = 0; run < 25; ++run)
            best = std::min(best, NanosecondsOfOneRun(setup, body));
        return best;
    }
    /// The same in a single run, for who takes turns.
    double NanosecondsOfOneRun(const std::string& setup, const std::string& body)
    {
        constexpr int rounds = 20000;
        std::string code = setup + "\nfor i = 1, " + std::to_string(rounds) + " do\n";
        for (int i = 0; i < 10; ++i)
            code += body + "\n";
        code += "end";
        if (luaL_loadstring(L, code.c_str()))
            Fail();
        const double begin = ProcessorNanoseconds();
        if (lua_pcall(L, 0, 0, 0))
            Fail();
        return (ProcessorNanoseconds() - begin) / rounds / 10;
    }

    lua_State* const L;

private:
    static double ProcessorNanoseconds()
    {
        timespec time = {};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
    }

    [[noreturn]] void Fail()
    {
        std::fprintf(stderr, "%s\n", lua_tostring(L, -1));
        std::exit(2);
    }
};

} // namespace Bench
