// Measures start to exit of an empty application in the launcher, against the least program that starts wx base, Lua,
// OpenSSL and SQLite (yardstick_start). They take turns, so that whatever else the machine does meets all alike; the
// turn in the middle counts.
//
//   bench_start [TREE [RUNS]]     TREE is a staged tree, by default that of this build
// Claim: at most 1.25 times the yardstick, which has a locale, as every localised wx program does. The launcher makes
// 1.08 times its instructions; the rest is the time of the system for five more libraries, a thread and the files that
// it looks for. A second line compares with the yardstick without a locale: wx builds a table of all languages of the
// world for any locale object, some 2 ms that no program with a locale can avoid.

#include "figures.h"
#include "start_program.h"

#include <filesystem>
#include <fstream>

int main(int argc, char** argv)
{
#ifndef __OPTIMIZE__
    std::puts("WARNING: this build is not optimised; the figures mean nothing");
#endif
    namespace fs = std::filesystem;
    const fs::path tree = argc > 1 ? argv[1] : VEX_STAGE_DIR;
    const int runs = argc > 2 ? std::atoi(argv[2]) : 300;
    const fs::path folder = fs::temp_directory_path() / ("vex_bench_start." + std::to_string(getpid()));
    fs::create_directories(folder);
    fs::copy(tree, folder, fs::copy_options::recursive);
    fs::rename(folder / "vx_agent", folder / "empty");
    std::ofstream(folder / "empty.lua") << "return {}\n";

    const std::vector<std::string> launcher{(folder / "empty").string()};
    const std::string program = fs::read_symlink("/proc/self/exe").parent_path() / "yardstick_start";
    const std::vector<std::string> yardstick{program};
    const std::vector<std::string> bare{program, "bare"};
    for (int i = 0; i < 5; ++i) { // the first runs fill the page cache
        bench::TimeOf(launcher);
        bench::TimeOf(yardstick);
        bench::TimeOf(bare);
    }
    std::vector<double> ours, theirs, least;
    for (int i = 0; i < runs; ++i) {
        ours.push_back(bench::TimeOf(launcher) * 1e3);
        theirs.push_back(bench::TimeOf(yardstick) * 1e3);
        least.push_back(bench::TimeOf(bare) * 1e3);
    }
    fs::remove_all(folder);
    const bool kept =
        Bench::Row("start to exit of an empty application", ours, "minimal wx with a locale", theirs, "ms", 1.25);
    Bench::Row("start to exit of an empty application - no locale", ours, "minimal wx without a locale", least, "ms",
               0);
    return kept ? 0 : 1;
}
