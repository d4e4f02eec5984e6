// Measures `require` of 2,000 modules of 2 KiB from one deflated archive, against stock Lua that requires the same
// modules from plain files. Both run in this process, in plain states of the same Lua library (lua5.2-c++), and take
// turns, so that whatever else the machine does meets both alike; medians of processor time are compared. Measured from
// the making of the state to the end of its closing: opening, checking and indexing the archive is inside, and so is
// writing the cache where it is cold. All files are in the page cache. The stock state has one template, which hits:
// the best case for it.
//
//   bench_require [RUNS]
// Claims: without a cache at most 1.05 times stock, with a warm cache at most 0.35 times. Then, without a claim: the
// cache being written, and the cost of one lookup behind 500 archives against stock Lua behind 500 templates.

#include "vex/core/dom.h"
#include "vex_core/modules/archive_index.h"
#include "vex_core/modules/cache_registry.h"

#include "support/temp_folder.h"
#include "support/zip_builder.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

#include <wx/init.h>
#include <wx/log.h>

#include <lua.hpp>

using namespace VexCore;

namespace {
constexpr int moduleCount = 2000;
constexpr int archiveCount = 500;

// Processor seconds of this process, the system's work for it included. All files are in the page cache, so nothing
// else is waited for, and a busy machine does not blur the ratio.
double Now()
{
    struct timespec time;
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// Code as people write it: a table of small functions with comments, to 2 KiB.
std::string ModuleSource(int number)
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

std::string ModuleName(int number)
{
    return "part" + std::to_string(number / 100) + ".module_" + std::to_string(number);
}

std::string FileName(int number)
{
    std::string name = ModuleName(number);
    std::replace(name.begin(), name.end(), '.', '/');
    return name + ".lua";
}

void Check(lua_State* state, int status)
{
    if (status == LUA_OK)
        return;
    std::fprintf(stderr, "%s\n", lua_tostring(state, -1));
    std::exit(1);
}

lua_State* NewState(const std::string& path, CDom* dom)
{
    lua_State* const state = luaL_newstate();
    luaL_openlibs(state);
    Check(state, luaL_dostring(state, ("package.path = '" + path + "' package.cpath = ''").c_str()));
    if (dom)
        dom->RegisterLoader(state);
    return state;
}

// Seconds to require all modules in a state of its own. `dom` null: stock Lua.
double RequireAll(const std::string& path, CDom* dom)
{
    const double begin = Now();
    lua_State* const state = NewState(path, dom);
    lua_getglobal(state, "require");
    for (int i = 0; i < moduleCount; ++i) {
        lua_pushvalue(state, -1);
        lua_pushstring(state, ModuleName(i).c_str());
        Check(state, lua_pcall(state, 1, 0, 0));
    }
    lua_close(state);
    const double spent = Now() - begin;
    ArchiveIndex::Process().ForgetUnused(); // the next one opens and indexes again
    CacheRegistry::Process().ForgetUnused();
    return spent;
}

// Seconds of one lookup of a module that lies last.
double LastOfMany(const std::string& path, CDom* dom)
{
    constexpr int lookups = 200;
    lua_State* const state = NewState(path, dom);
    Check(state, luaL_dostring(state, "require 'last'"));
    const double begin = Now();
    for (int i = 0; i < lookups; ++i)
        Check(state, luaL_dostring(state, "package.loaded.last = nil require 'last'"));
    const double spent = Now() - begin;
    lua_close(state);
    return spent / lookups;
}

double Median(std::vector<double> values)
{
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

void MakeModules(const Test::TempFolder& folder)
{
    Test::ZipBuilder builder;
    for (int i = 0; i < moduleCount; ++i) {
        const std::string file = FileName(i);
        const std::string code = ModuleSource(i);
        std::filesystem::create_directories(std::filesystem::path(folder / file).parent_path());
        Test::WriteFile(folder / file, code);
        builder.Add(file, code, 8);
    }
    Test::WriteFile(folder / "modules.vxe", builder.Build());
}

void BenchModules(const Test::TempFolder& folder, CDom* dom, int runs)
{
    MakeModules(folder);
    const std::string path = folder / "?.lua";
    dom->Set("app.path.work", folder / "work");
    dom->Set("app.lua.zippath", folder / "modules.vxe");
    std::filesystem::create_directories(folder / "work");
    std::vector<double> stock, uncached, cold, warm;
    for (int i = 0; i < runs; ++i) {
        std::filesystem::remove_all(folder / "work/cache");
        stock.push_back(RequireAll(path, nullptr));
        dom->Set("app.lua.cache", false);
        uncached.push_back(RequireAll("", dom));
        dom->Set("app.lua.cache", true);
        cold.push_back(RequireAll("", dom));
        warm.push_back(RequireAll("", dom));
    }
    const double base = Median(stock);
    std::printf("%d modules of 2 KiB: stock Lua from plain files %.1f ms\n", moduleCount, base * 1e3);
    std::printf("  archive, no cache   %6.1f ms, ratio %.3f (claim: at most 1.05)\n", Median(uncached) * 1e3,
                Median(uncached) / base);
    std::printf("  archive, warm cache %6.1f ms, ratio %.3f (claim: at most 0.35)\n", Median(warm) * 1e3,
                Median(warm) / base);
    std::printf("  archive, cold cache %6.1f ms, ratio %.3f\n", Median(cold) * 1e3, Median(cold) / base);
}

void BenchManyArchives(const Test::TempFolder& folder, CDom* dom)
{
    std::string archives;
    std::string templates;
    for (int i = 0; i < archiveCount; ++i) {
        const std::string number = std::to_string(i);
        const std::string name = i + 1 == archiveCount ? "last" : "module_" + number;
        Test::ZipBuilder builder;
        builder.Add(name + ".lua", "return 1");
        Test::WriteFile(folder / (number + ".vxe"), builder.Build());
        archives += folder / (number + ".vxe;");
        std::filesystem::create_directories(folder / number);
        Test::WriteFile(folder / (number + "/" + name + ".lua"), "return 1");
        templates += folder / (number + "/?.lua;");
    }
    dom->Set("app.lua.zippath", archives);
    const double ours = LastOfMany("", dom);
    const double stock = LastOfMany(templates, nullptr);
    std::printf("lookup in the last of %d archives: %.0f us, stock Lua with as many templates %.0f us, ratio %.2f\n",
                archiveCount, ours * 1e6, stock * 1e6, ours / stock);
}

} // namespace

int main(int argc, char** argv)
{
#ifndef __OPTIMIZE__
    std::puts("WARNING: this build is not optimised; the figures mean nothing");
#endif
    wxInitializer framework;
    const Test::TempFolder folder;
    CDom* const dom = CDom::New(nullptr, nullptr, nullptr, false);
    dom->Set("app.path.bin", folder.Path());
    BenchModules(folder, dom, argc > 1 ? std::atoi(argv[1]) : 15);
    BenchManyArchives(folder, dom);
    dom->Release();
    return 0;
}
