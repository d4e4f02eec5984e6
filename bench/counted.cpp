// Does one of the paths that are counted by instructions, again and again: bench/counts.py runs it below an instrument
// that counts, once with some rounds and once with twice as many, so that the difference is the rounds alone.
//
//   counted prepare FOLDER           writes what the others read; not below the instrument
//   counted WORK ROUNDS FOLDER

#include "vex/core/dom.h"
#include "vex/core/log.h"
#include "vex/core/luainterpreter.h"
#include "vex/core/unzip.h"
#include "vex/core/wrap_dom.h"
#include "vex_core/modules/archive_index.h"
#include "vex_core/modules/cache_registry.h"

#include "slb3/class.h"

#include "many_modules.h"

#include "support/temp_folder.h"
#include "support/zip_builder.h"

#include <cstring>
#include <filesystem>

#include <wx/filename.h>
#include <wx/init.h>
#include <wx/log.h>

using namespace VexCore;
namespace fs = std::filesystem;

namespace {
constexpr int moduleCount = 100;
constexpr int fileCount = 500;
constexpr std::size_t fileBytes = 4096;

struct Bed
{
    CDom* dom;
    fs::path folder;
    lua_State* state;
};

void RequireAll(const Bed& bed)
{
    {
        const CLuaInterpreter interpreter(false, L"counted", true);
        Bench::RequireFromArchives(*bed.dom, interpreter.L(), moduleCount);
    }
    ArchiveIndex::Process().ForgetUnused(); // the next one opens and indexes again
    CacheRegistry::Process().ForgetUnused();
}

void Run(const Bed& bed, const char* code)
{
    Bench::Check(bed.state, luaL_dostring(bed.state, code));
}

void GetDeepKey(const Bed& bed)
{
    Run(bed, "local o = dom0 for i = 1, 1000 do o:Get('bench.one.two.three.four.five.six') end");
}

void LogThroughFramework(const Bed&)
{
    for (int i = 0; i < 100; ++i)
        wxLogMessage("a line as an application writes it, with the number %d", i);
}

void LogThroughDom(const Bed& bed)
{
    Run(bed, "for i = 1, 100 do dom0:Log('info', 'a line as an application writes it, with a number') end");
}

void Trace(const Bed&)
{
    for (int i = 0; i < 100; ++i)
        LogTrace("Appl", "counted.cpp", i, "Trace", "a line as an application writes it, with a number");
}

void UnzipAll(const Bed& bed)
{
    static int s_round = 0;
    const fs::path target = bed.folder / ("target" + std::to_string(++s_round));
    fs::create_directory(target);
    const auto yes = [](void*, const wxZipEntry*, const wxString*) { return true; };
    if (!Unzip(wxFileName((bed.folder / "files.zip").string()), wxFileName::DirName(target.string()), yes, nullptr))
        std::exit(1);
}

struct Work
{
    const char* name;
    void (*round)(const Bed& bed);
};

constexpr Work works[] = {
    {"require-uncached", RequireAll},
    {"require-cached", RequireAll},
    {"get", GetDeepKey},
    {"log", LogThroughFramework},
    {"dom-log", LogThroughDom},
    {"trace", Trace},
    {"unzip", UnzipAll},
};

void Prepare(const Bed& bed)
{
    Test::ZipBuilder modules;
    for (int i = 0; i < moduleCount; ++i)
        modules.Add(Bench::ModuleFile(i), Bench::ModuleSource(i), 8);
    Test::WriteFile((bed.folder / "modules.vxe").string(), modules.Build());
    Test::ZipBuilder files;
    for (int i = 0; i < fileCount; ++i)
        files.Add("files/module" + std::to_string(i) + ".lua",
                  (Bench::ModuleSource(i) + Bench::ModuleSource(i + 1)).substr(0, fileBytes), 8);
    Test::WriteFile((bed.folder / "files.zip").string(), files.Build());
    RequireAll(bed); // the cache is written when this process ends, at the latest
}

} // namespace

// In the place of the system's: Lua strews its strings by the time at which a state is made.
extern "C" __attribute__((visibility("default"))) std::time_t time(std::time_t* out) noexcept
{
    constexpr std::time_t fixed = 1700000000;
    if (out)
        *out = fixed;
    return fixed;
}

int main(int argc, char** argv)
{
    const bool prepares = argc == 3 && std::strcmp(argv[1], "prepare") == 0;
    if (!prepares && argc != 4) {
        std::fputs("usage: counted prepare FOLDER | counted WORK ROUNDS FOLDER\n", stderr);
        return 2;
    }
    wxInitializer framework;
    const Bed bed = {CDom::New(nullptr, nullptr, nullptr, false), argv[argc - 1], luaL_newstate()};
    luaL_openlibs(bed.state);
    bed.dom->Set("app.name", "counted");
    bed.dom->Set("app.path.bin", bed.folder.string());
    bed.dom->Set("app.path.work", bed.folder.string());
    bed.dom->Set("app.lua.zippath", (bed.folder / "modules.vxe").string());
    bed.dom->Set("app.lua.cache", std::strcmp(argv[1], "require-uncached") != 0);
    bed.dom->Set("bench.one.two.three.four.five.six", "value");
    for (int i = 0; i < 200; ++i) // as many keys as a running agent has
        bed.dom->Set(("bench.key." + std::to_string(i)).c_str(), "value");
    SLB3::PushReference(bed.state, bed.dom);
    lua_setglobal(bed.state, "dom0");
    delete wxLog::SetActiveTarget(new CLog2Disk);
    wxLog::SetTimestamp("%Y-%m-%d %H:%M:%S");
    if (prepares) {
        Prepare(bed);
        return 0;
    }
    for (const Work& work : works) {
        if (std::strcmp(argv[1], work.name) != 0)
            continue;
        for (int i = std::atoi(argv[2]); i > 0; --i)
            work.round(bed);
        return 0;
    }
    std::fprintf(stderr, "counted: there is no work '%s'\n", argv[1]);
    return 2;
}
