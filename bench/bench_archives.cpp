// Measures what the number of archives on the search path costs `require`. All in processor time of this process, with
// all files in the page cache; what is compared takes turns.
//
//   bench_archives [RUNS [ARCHIVES]]
// Claims: 2,000 modules of 2 KiB from 8 archives cost at most 1.02 times what they cost from one, from 500 archives at
// most 1.15 times what they cost from 8, opening and indexing included; the search for a module that no archive has
// costs at most 0.05 us an archive, its message included; a module in the last of ARCHIVES (10,000) is found and
// loaded in at most 100 us. Beside the last two: stock Lua with as many templates as archives.

#include "vex/core/dom.h"
#include "vex/core/luainterpreter.h"
#include "vex_core/modules/archive_index.h"
#include "vex_core/modules/cache_registry.h"
#include "vex_core/modules/module_lookup.h"

#include "many_modules.h"

#include "support/temp_folder.h"
#include "support/zip_builder.h"

#include <variant>

#include <wx/init.h>

using namespace VexCore;

namespace {
constexpr int moduleCount = 2000;

std::string Spread(const Test::TempFolder& folder, int archives)
{
    std::string list;
    for (int archive = 0; archive < archives; ++archive) {
        Test::ZipBuilder builder;
        for (int i = archive; i < moduleCount; i += archives)
            builder.Add(Bench::ModuleFile(i), Bench::ModuleSource(i), 8);
        const std::string path = folder / (std::to_string(archives) + "_" + std::to_string(archive) + ".vxe");
        Test::WriteFile(path, builder.Build());
        list += path + ";";
    }
    return list;
}

lua_State* NewState(CDom* dom, const std::string& path = std::string())
{
    lua_State* const state = luaL_newstate();
    luaL_openlibs(state);
    Bench::Check(state, luaL_dostring(state, ("package.path = '" + path + "' package.cpath = ''").c_str()));
    if (dom)
        dom->RegisterLoader(state);
    return state;
}

// Seconds from the making of a state to the end of its closing.
double RequireAll(CDom* dom)
{
    const double begin = Bench::ProcessorSeconds();
    {
        const CLuaInterpreter interpreter(false, L"bench", true);
        Bench::RequireFromArchives(*dom, interpreter.L(), moduleCount);
    }
    const double spent = Bench::ProcessorSeconds() - begin;
    ArchiveIndex::Process().ForgetUnused(); // the next one opens and indexes again
    return spent;
}

// Modules of `many` archives against those of `few`, two lists, and no other between them: what one leaves of the heap
// and of the processor's caches the next one finds, so they take turns to and fro.
bool CompareSpreads(CDom* dom, int runs, const char* what, const std::string& many, const char* yardstick,
                    const std::string& few, double claim)
{
    std::vector<double> ours, theirs;
    const auto measure = [&](std::vector<double>& milliseconds, const std::string& archives) {
        dom->Set("app.lua.zippath", archives);
        milliseconds.push_back(RequireAll(dom) * 1e3);
    };
    for (int run = 0; run < runs; ++run) {
        if (run % 2 == 0)
            measure(theirs, few);
        measure(ours, many);
        if (run % 2 != 0)
            measure(theirs, few);
    }
    return Bench::Row(what, ours, yardstick, theirs, "ms", claim);
}

bool BenchSpread(const Test::TempFolder& folder, CDom* dom, int runs)
{
    const std::string one = Spread(folder, 1);
    const std::string eight = Spread(folder, 8);
    const std::string many = Spread(folder, 500);
    bool kept = CompareSpreads(dom, runs, "2000 modules from 8 archives", eight, "from 1 archive", one, 1.02);
    kept &= CompareSpreads(dom, runs, "2000 modules from 500 archives", many, "from 8 archives", eight, 1.15);
    return kept;
}

// Microseconds of one round of `code`, the best of ten times twenty.
double MicrosecondsOf(lua_State* state, const char* code)
{
    constexpr int rounds = 20;
    Bench::Check(state, luaL_dostring(state, code));
    double best = 1e300;
    for (int run = 0; run < 10; ++run) {
        const double begin = Bench::ProcessorSeconds();
        for (int i = 0; i < rounds; ++i)
            Bench::Check(state, luaL_dostring(state, code));
        best = std::min(best, (Bench::ProcessorSeconds() - begin) / rounds * 1e6);
    }
    return best;
}

double MicrosecondsOfMiss(CDom* dom)
{
    constexpr int rounds = 100;
    LoaderSettings settings(*dom);
    settings.Read();
    ModuleLookup lookup(settings, "bench");
    double best = 1e300;
    for (int run = 0; run < 20; ++run) {
        const double begin = Bench::ProcessorSeconds();
        for (int i = 0; i < rounds; ++i)
            if (!std::holds_alternative<MissingModule>(lookup.Find("is.nowhere")))
                std::exit(1);
        best = std::min(best, (Bench::ProcessorSeconds() - begin) / rounds * 1e6);
    }
    return best;
}

bool BenchMany(const Test::TempFolder& folder, CDom* dom, int count)
{
    std::string archives;
    std::string templates;
    for (int i = 0; i < count; ++i) {
        const std::string number = std::to_string(i);
        const std::string name = i + 1 == count ? "last" : "module_" + number;
        Test::ZipBuilder builder;
        builder.Add(name + ".lua", "return 1");
        Test::WriteFile(folder / ("many" + number + ".vxe"), builder.Build());
        archives += folder / ("many" + number + ".vxe;");
        std::filesystem::create_directories(folder / number);
        Test::WriteFile(folder / (number + "/" + name + ".lua"), "return 1");
        templates += folder / (number + "/?.lua;");
    }
    dom->Set("app.lua.zippath", archives);
    lua_State* const ours = NewState(dom);
    lua_State* const stock = NewState(nullptr, templates);
    const char* const last = "package.loaded.last = nil require 'last'";
    const double lastOurs = MicrosecondsOf(ours, last);
    const double lastStock = MicrosecondsOf(stock, last);
    const std::string archivesText = std::to_string(count) + " archives";
    const std::string lastText = "the last of " + archivesText;
    bool kept = Bench::Row(lastText.c_str(), lastOurs, "allowed are", 100, "us", 1);
    Bench::Row(lastText.c_str(), lastOurs, "the last template of stock Lua", lastStock, "us", 0);
    const char* const miss = "pcall(require, 'is.nowhere')";
    const double search = MicrosecondsOfMiss(dom) / count;
    const double missOurs = MicrosecondsOf(ours, miss) / count;
    const double missStock = MicrosecondsOf(stock, miss) / count;
    const std::string missText = "a miss in " + archivesText + " - each";
    kept &= Bench::Row(missText.c_str(), search, "allowed are", 0.05, "us", 1);
    Bench::Row((missText + " with what Lua makes of it").c_str(), missOurs, "stock Lua a template", missStock, "us", 0);
    lua_close(ours);
    lua_close(stock);
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
    dom->Set("app.lua.cache", false);
    bool kept = BenchSpread(folder, dom, argc > 1 ? std::atoi(argv[1]) : 61);
    kept &= BenchMany(folder, dom, argc > 2 ? std::atoi(argv[2]) : 10000);
    dom->Release();
    return kept ? 0 : 1;
}
