// Measures `require` of modules of 2 KiB from one deflated archive, against stock Lua that requires the same modules
// from plain files. Both run in this process, with the same Lua library (lua5.2-c++), the one in an interpreter as the
// agent makes its own, the other in a plain state, and take turns, so that whatever else the machine does meets both
// alike; the turn in the middle counts, in processor time. All files are in the page cache. The stock state has one
// template, which hits: the best case for it.
//
//   bench_require [RUNS [MODULES]]
// Claims, for 2,000 modules, from the making of the state to the end of its closing, opening and indexing of the
// archive included: without a cache at most as much as stock, with a warm cache at most 0.30 times. The first start,
// whose chunks are kept for the next one, takes at most 1.05 times what stock takes, to its last module as well as to
// the end. For more modules with a warm cache at most 0.35 times: without MODULES, 50,000 are measured so behind the
// others. A start with a warm cache leaves the file as it is. What many archives cost is measured in
// bench_archives.cpp.

#include "vex/core/dom.h"
#include "vex/core/luainterpreter.h"
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
constexpr int usualCount = 2000;
constexpr int manyCount = 50000;
constexpr int runsOfMany = 3;

// Milliseconds of some runs of one kind.
struct Times
{
    std::vector<double> toLastModule;
    std::vector<double> toEnd; // with the closing of the state
};

// Requires all modules in a state of its own. `dom` null: stock Lua, from `path`.
void RequireAll(Times& times, const std::string& path, CDom* dom, int modules)
{
    const double begin = Bench::ProcessorSeconds();
    if (dom) {
        const CLuaInterpreter interpreter(false, L"bench", true);
        Bench::RequireFromArchives(*dom, interpreter.L(), modules);
        times.toLastModule.push_back((Bench::ProcessorSeconds() - begin) * 1e3);
    } else {
        lua_State* const state = luaL_newstate();
        luaL_openlibs(state);
        Bench::Check(state, luaL_dostring(state, ("package.path = '" + path + "' package.cpath = ''").c_str()));
        Bench::RequireModules(state, modules);
        times.toLastModule.push_back((Bench::ProcessorSeconds() - begin) * 1e3);
        lua_close(state);
    }
    times.toEnd.push_back((Bench::ProcessorSeconds() - begin) * 1e3);
    ArchiveIndex::Process().ForgetUnused(); // the next one opens and indexes again
    CacheRegistry::Process().ForgetUnused();
}

void MakeModules(const Test::TempFolder& folder, int modules)
{
    Test::ZipBuilder builder;
    for (int i = 0; i < modules; ++i) {
        const std::string file = Bench::ModuleFile(i);
        const std::string code = Bench::ModuleSource(i);
        std::filesystem::create_directories(std::filesystem::path(folder / file).parent_path());
        Test::WriteFile(folder / file, code);
        builder.Add(file, code, 8);
    }
    Test::WriteFile(folder / "modules.vxe", builder.Build());
}

// Names, sizes and times of the files of compiled chunks.
std::string CacheState(const std::string& folder)
{
    std::string state;
    for (const auto& item : std::filesystem::directory_iterator(folder)) {
        const auto time = item.last_write_time().time_since_epoch().count();
        state += item.path().string() + " " + std::to_string(item.file_size()) + " " + std::to_string(time) + "\n";
    }
    return state;
}

enum class Starts { All, Warm };

bool BenchModules(CDom* dom, int runs, int modules, Starts starts)
{
    const Test::TempFolder folder;
    MakeModules(folder, modules);
    const std::string path = folder / "?.lua";
    dom->Set("app.path.work", folder / "work");
    dom->Set("app.lua.zippath", folder / "modules.vxe");
    std::filesystem::create_directories(folder / "work");
    bool kept = true;
    Times stock, uncached, cold, warm;
    for (int i = 0; i < runs; ++i) {
        RequireAll(stock, path, nullptr, modules);
        if (starts == Starts::All) {
            std::filesystem::remove_all(folder / "work/cache");
            dom->Set("app.lua.cache", false);
            RequireAll(uncached, "", dom, modules);
            dom->Set("app.lua.cache", true);
        }
        if (starts == Starts::All || i == 0)
            RequireAll(cold, "", dom, modules);
        const std::string before = CacheState(folder / "work/cache");
        RequireAll(warm, "", dom, modules);
        if (CacheState(folder / "work/cache") != before) {
            std::puts("EXCEEDED: a start with a warm cache has written to it");
            kept = false;
        }
    }
    const bool usual = modules == usualCount;
    const auto row = [&](const char* what, const std::vector<double>& ours, const std::vector<double>& theirs,
                         double claim) {
        const std::string text = std::to_string(modules) + " modules of 2 KiB from an archive - " + what;
        kept &= Bench::Row(text.c_str(), ours, "stock Lua from files", theirs, "ms", claim);
    };
    if (starts == Starts::Warm) {
        row("warm cache", warm.toEnd, stock.toEnd, 0.35);
        return kept;
    }
    row("no cache", uncached.toEnd, stock.toEnd, usual ? 1.00 : 0);
    row("warm cache", warm.toEnd, stock.toEnd, usual ? 0.30 : 0.35);
    row("first start to the last module", cold.toLastModule, stock.toLastModule, usual ? 1.05 : 0);
    row("first start with the writing of the cache", cold.toEnd, stock.toEnd, usual ? 1.05 : 0);
    return kept;
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
    bool kept =
        BenchModules(dom, argc > 1 ? std::atoi(argv[1]) : 41, argc > 2 ? std::atoi(argv[2]) : usualCount, Starts::All);
    if (argc <= 2)
        kept &= BenchModules(dom, runsOfMany, manyCount, Starts::Warm);
    dom->Release();
    return kept ? 0 : 1;
}
