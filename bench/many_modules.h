#pragma once
// Modules to require, and the time that it takes, for the benches of `require`.

#include "figures.h"

#include "vex/core/dom.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include <lua.hpp>

namespace Bench {

/// Processor seconds of this process, the system's work for it included. All files are in the page cache, so nothing
/// else is waited for, and a busy machine does not blur a ratio.
inline double ProcessorSeconds()
{
    struct timespec time;
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

/// Code as people write it: a table of small functions with comments, to 2 KiB.
inline std::string ModuleSource(int number)
{
    const std::string n = std::to_string(number);
    std::string code = "-- Module " + n + ": counts, joins and looks up.\nlocal M = {}\nlocal limit = " + n + " + 10\n";
    for (int i = 0; code.size() < 1700; ++i) {
        const std::string f = std::to_string(i);
        code += "\n-- Adds what is below the limit.\nfunction M.total_" + f
                + "(values, start)\n    local sum = start or " + f
                + "\n    for index, value in ipairs(values) do\n        if value < limit and value ~= " + f
                + " then\n            sum = sum + value * index\n        end\n    end\n    return sum\nend\n"
                  "\nfunction M.name_"
                + f + "(self, key)\n    local text = \"module " + n
                + " \" .. tostring(key)\n"
                  "    self.names[#self.names + 1] = { name = text, key = key, number = "
                + f + " }\n    return text\nend\n";
    }
    code += "\nfunction M.new()\n    return setmetatable({ names = {}, limit = limit }, { __index = M })\nend\n";
    code += "--" + std::string(2048 - code.size() - 14, '.') + "\nreturn M   \n";
    return code;
}

inline std::string ModuleName(int number)
{
    return "part" + std::to_string(number / 100) + ".module_" + std::to_string(number);
}

inline std::string ModuleFile(int number)
{
    std::string name = ModuleName(number);
    std::replace(name.begin(), name.end(), '.', '/');
    return name + ".lua";
}

/// Ends the bench when a call failed.
inline void Check(lua_State* state, int status)
{
    if (status == LUA_OK)
        return;
    std::fprintf(stderr, "%s\n", lua_tostring(state, -1));
    std::exit(1);
}

inline void RequireModules(lua_State* state, int count)
{
    lua_getglobal(state, "require");
    for (int i = 0; i < count; ++i) {
        lua_pushvalue(state, -1);
        lua_pushstring(state, ModuleName(i).c_str());
        Check(state, lua_pcall(state, 1, 0, 0));
    }
    lua_pop(state, 1);
}

/// In a state of the agent's, and with its loader alone.
inline void RequireFromArchives(VexCore::CDom& dom, lua_State* state, int count)
{
    Check(state, luaL_dostring(state, "package.path = '' package.cpath = ''"));
    dom.RegisterLoader(state);
    RequireModules(state, count);
}

} // namespace Bench
