// What a unit of work costs while what it is done among grows: bench/bench_growth.py runs it, draws what it prints and
// holds it to limits. Prints a line a point: "SERIES X Y"; Y is processor time of this process, or memory. All files
// are in the page cache or in memory.
//
//   grow SUBJECT FOLDER      FOLDER is empty but for the events, whose database is there and is as large as it is

#include "vex/core/agentevent.h"
#include "vex/core/dom.h"
#include "vex/core/log.h"
#include "vex/core/luainterpreter.h"
#include "vex_core/modules/archive_index.h"
#include "vex_core/modules/cache_registry.h"

#include "many_modules.h"

#include "support/temp_folder.h"
#include "support/zip_builder.h"

#include <cstring>
#include <filesystem>

#include <unistd.h>
#include <wx/init.h>
#include <wx/log.h>
#include <wx/mstream.h>

using namespace VexCore;

namespace {
void Print(const char* series, double x, double y)
{
    std::printf("%s %.0f %.5g\n", series, x, y);
    std::fflush(stdout);
}

// Processor time of one of `rounds`, in microseconds: the best of several runs, so that other work on the machine does
// not show.
template <class Work>
double Microseconds(int rounds, Work work, int runs = 5)
{
    double best = 1e300;
    for (int run = 0; run < runs; ++run) {
        const double begin = Bench::ProcessorSeconds();
        for (int i = 0; i < rounds; ++i)
            work(i);
        best = std::min(best, (Bench::ProcessorSeconds() - begin) / rounds * 1e6);
    }
    return best;
}

// Memory of this process that belongs to no file and is resident, in KiB.
double ResidentKiB()
{
    FILE* const file = std::fopen("/proc/self/statm", "re");
    long size = 0;
    long resident = 0;
    long shared = 0;
    if (!file || std::fscanf(file, "%ld %ld %ld", &size, &resident, &shared) != 3)
        std::exit(1);
    std::fclose(file);
    return static_cast<double>(resident - shared) * static_cast<double>(::sysconf(_SC_PAGESIZE)) / 1024;
}

lua_State* NewState(CDom& dom)
{
    lua_State* const state = luaL_newstate();
    luaL_openlibs(state);
    Bench::Check(state, luaL_dostring(state, "package.path = '' package.cpath = ''"));
    dom.RegisterLoader(state);
    return state;
}

// --- modules

void RequireAll(CDom& dom, int count)
{
    lua_State* const state = NewState(dom);
    Bench::RequireModules(state, count);
    lua_close(state);
    ArchiveIndex::Process().ForgetUnused(); // the next one opens and indexes again
    CacheRegistry::Process().ForgetUnused();
}

void GrowModules(CDom& dom, const std::string& folder)
{
    for (const int count : {100, 1000, 10000, 50000}) {
        Test::ZipBuilder builder;
        for (int i = 0; i < count; ++i) // small: what is looked for is not the parser's work
            builder.Add(Bench::ModuleFile(i), "return { number = " + std::to_string(i) + " }\n", 8);
        const std::string path = folder + "/modules" + std::to_string(count) + ".vxe";
        Test::WriteFile(path, builder.Build());
        dom.Set("app.lua.zippath", path);
        const int runs = count < 10000 ? 9 : 3;
        dom.Set("app.lua.cache", false);
        Print("uncached", count,
              Microseconds(
                  1, [&](int) { RequireAll(dom, count); }, runs)
                  / count);
        dom.Set("app.lua.cache", true);
        RequireAll(dom, count);
        CacheRegistry::Process().Flush();
        Print("cached", count,
              Microseconds(
                  1, [&](int) { RequireAll(dom, count); }, runs)
                  / count);
    }
}

// --- archives

void GrowArchives(CDom& dom, const std::string& folder)
{
    dom.Set("app.lua.cache", false);
    std::string list;
    int made = 0;
    for (const int count : {1, 10, 100, 1000, 10000}) {
        for (; made < count; ++made) {
            Test::ZipBuilder builder;
            builder.Add("module_" + std::to_string(made) + ".lua", "return 1");
            const std::string path = folder + "/" + std::to_string(made) + ".vxe";
            Test::WriteFile(path, builder.Build());
            list += path + ";";
        }
        dom.Set("app.lua.zippath", list);
        const std::string last = "package.loaded.last = nil require 'module_" + std::to_string(count - 1) + "'";
        const std::string again = "local name = 'module_" + std::to_string(count - 1)
                                  + "' for i = 1, 20 do package.loaded[name] = nil require(name) end";
        const double first = Bench::ProcessorSeconds();
        lua_State* const state = NewState(dom);
        Bench::Check(state, luaL_dostring(state, last.c_str()));
        Print("first", count, (Bench::ProcessorSeconds() - first) * 1e6 / count);
        Print("last", count,
              Microseconds(
                  5, [&](int) { Bench::Check(state, luaL_dostring(state, again.c_str())); }, 10)
                  / 20);
        lua_close(state);
    }
}

// --- keys

void GrowKeys(CDom& dom, const std::string&)
{
    int made = 0;
    for (const int count : {1000, 10000, 100000, 1000000}) {
        for (; made < count; ++made) // ten of each group
            dom.Set(("bench.group" + std::to_string(made / 10) + ".key" + std::to_string(made % 10)).c_str(), "value");
        const std::string group = "bench.group" + std::to_string(count / 20);
        const std::string key = group + ".key5";
        std::string value;
        Print("get", count, Microseconds(20000, [&](int) { value = dom.Get(key.c_str()); }) * 1e3);
        Print("set", count, Microseconds(20000, [&](int) { dom.Set(key.c_str(), "value"); }) * 1e3);
        Print("keys", count, Microseconds(count < 100000 ? 1000 : 5, [&](int) {
                                 if (dom.Keys(group.c_str()).size() != 10)
                                     std::exit(1);
                             }) * 1e3);
    }
}

// --- events

void GrowEvents(CDom& dom, const std::string&)
{
    dom.Set("app.events.keeprows", "100000000");
    dom.Set("app.events.keepdays", "1000000");
    const auto write = [&dom](int) {
        CAgentEvent event;
        event.m_text = "what a plugin has to tell";
        event.m_number = 7000;
        event.m_severity = 5;
        for (const int field : {CAgentEvent::FieldText, CAgentEvent::FieldNumber, CAgentEvent::FieldSeverity})
            event.SetAttributeNull(field, false);
        if (dom.AgentEventWrite(event) == 0)
            std::exit(1);
    };
    write(0);
    Print("event", 0, Microseconds(100, write, 5));
}

// --- log

void GrowLog(CDom& dom, const std::string&)
{
    constexpr int lines = 2000;
    dom.Set("app.log.size", "4096"); // some 40 lines
    delete wxLog::SetActiveTarget(new CLog2Disk);
    wxLog::SetTimestamp("%Y-%m-%d %H:%M:%S");
    for (int part = 1; part <= 40; ++part)
        Print("line", part * lines,
              Microseconds(
                  lines / 4, [](int i) { wxLogMessage("a line as an application writes it, number %d", i); }, 4));
}

// --- memory

void GrowRequires(CDom& dom, const std::string& folder)
{
    Test::ZipBuilder builder;
    builder.Add("one.lua", "return {}");
    Test::WriteFile(folder + "/one.vxe", builder.Build());
    dom.Set("app.lua.zippath", folder + "/one.vxe");
    lua_State* const state = NewState(dom);
    for (int done = 10000; done <= 100000; done += 10000) {
        Bench::Check(
            state,
            luaL_dostring(state, "for i = 1, 10000 do package.loaded.one = nil require 'one' end collectgarbage()"));
        Print("requires", done, ResidentKiB());
    }
    lua_close(state);
}

void GrowScripts(CDom&, const std::string&)
{
    const char code[] = "local t = {} for i = 1, 100 do t[i] = { i } end return #t";
    for (int done = 1; done <= 100000; ++done) {
        CLuaInterpreter interpreter(false, L"bench", true);
        wxMemoryInputStream in(code, sizeof code - 1);
        if (interpreter.RunScript(in, 0, 1, "bench", nullptr) != 0)
            std::exit(1);
        if (done % 10000 == 0)
            Print("scripts", done, ResidentKiB());
    }
}

struct Subject
{
    const char* name;
    void (*grow)(CDom& dom, const std::string& folder);
};

constexpr Subject subjects[] = {
    {"modules", GrowModules}, {"archives", GrowArchives}, {"keys", GrowKeys},       {"events", GrowEvents},
    {"log", GrowLog},         {"requires", GrowRequires}, {"scripts", GrowScripts},
};

} // namespace

int main(int argc, char** argv)
{
    wxInitializer framework;
    for (const Subject& subject : subjects) {
        if (argc != 3 || std::strcmp(argv[1], subject.name) != 0)
            continue;
        CDom* const dom = CDom::New(nullptr, nullptr, nullptr, false);
        dom->Set("app.name", "grow");
        dom->Set("app.path.bin", argv[2]);
        dom->Set("app.path.work", argv[2]);
        subject.grow(*dom, argv[2]);
        dom->Release();
        return 0;
    }
    std::fputs("usage: grow SUBJECT FOLDER\n", stderr);
    return 2;
}
