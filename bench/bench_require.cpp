// Measures `require` of 2,000 modules of 2 KiB from one deflated archive, against stock Lua that requires the same
// modules from plain files. Both run in this process, in plain states of the same Lua library (lua5.2-c++), and take
// turns, so that whatever else the machine does meets both alike; medians of processor time are compared. Measured from
// the making of the state to the end of its closing: opening, checking and indexing the archive is inside, and so is
// writing the cache where it is cold. All files are in the page cache. The stock state has one template, which hits:
// the best case for it.
//
//   bench_require [RUNS]
// Claims: without a cache at most 1.05 times stock, with a warm cache at most 0.35 times. Then, without a claim: the
// cache being written. What many archives cost is measured in bench_archives.cpp.

#include "vex/core/dom.h"
#include "vex_core/modules/archive_index.h"
#include "vex_core/modules/cache_registry.h"

#include "many_modules.h"

#include "support/temp_folder.h"
#include "support/zip_builder.h"

#include <wx/init.h>
#include <wx/log.h>

#include <lua.hpp>

using namespace VexCore;

namespace {
constexpr int moduleCount = 2000;

lua_State* NewState(const std::string& path, CDom* dom)
{
    lua_State* const state = luaL_newstate();
    luaL_openlibs(state);
    Bench::Check(state, luaL_dostring(state, ("package.path = '" + path + "' package.cpath = ''").c_str()));
    if (dom)
        dom->RegisterLoader(state);
    return state;
}

// Seconds to require all modules in a state of its own. `dom` null: stock Lua.
double RequireAll(const std::string& path, CDom* dom)
{
    const double begin = Bench::ProcessorSeconds();
    lua_State* const state = NewState(path, dom);
    Bench::RequireModules(state, moduleCount);
    lua_close(state);
    const double spent = Bench::ProcessorSeconds() - begin;
    ArchiveIndex::Process().ForgetUnused(); // the next one opens and indexes again
    CacheRegistry::Process().ForgetUnused();
    return spent;
}

void MakeModules(const Test::TempFolder& folder)
{
    Test::ZipBuilder builder;
    for (int i = 0; i < moduleCount; ++i) {
        const std::string file = Bench::ModuleFile(i);
        const std::string code = Bench::ModuleSource(i);
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
    const double base = Bench::Median(stock);
    std::printf("%d modules of 2 KiB: stock Lua from plain files %.1f ms\n", moduleCount, base * 1e3);
    std::printf("  archive, no cache   %6.1f ms, ratio %.3f (claim: at most 1.05)\n", Bench::Median(uncached) * 1e3,
                Bench::Median(uncached) / base);
    std::printf("  archive, warm cache %6.1f ms, ratio %.3f (claim: at most 0.35)\n", Bench::Median(warm) * 1e3,
                Bench::Median(warm) / base);
    std::printf("  archive, cold cache %6.1f ms, ratio %.3f\n", Bench::Median(cold) * 1e3, Bench::Median(cold) / base);
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
    dom->Release();
    return 0;
}
