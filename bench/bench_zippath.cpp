// Measures how the launcher finds its extensions: 10,000 archives in one folder in memory, a version file beside each,
// by a pattern, against plain C that lists the folder and reads the version file of each archive and nothing else.
// Processor time of the thread, taking turns, the turn in the middle of many.

#include "figures.h"
#include "support/agent_app.h"
#include "support/our_version.h"
#include "support/temp_folder.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <wx/init.h>

namespace {
constexpr std::size_t archives = 10000;
constexpr int rounds = 15;

double ThreadMillis()
{
    timespec now;
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return 1e3 * static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e6;
}

// The number of archives that were found, so that a run that finds none is told from a quick one.
std::size_t Expand(AgentApp& app, const std::string& folder)
{
    AgentAppTestAccess::ZipPath(*app) = wxString::FromUTF8(folder + "/*.vxe");
    app->ExpandZippath();
    const std::string list = app.Dom().Get("app.lua.zippath");
    return list.empty() ? 0 : static_cast<std::size_t>(std::count(list.begin(), list.end(), ';')) + 1;
}

std::size_t ListAndRead(const std::string& folder)
{
    std::size_t found = 0;
    char path[4096];
    char text[4096];
    DIR* const names = ::opendir(folder.c_str());
    if (!names)
        return 0;
    while (const dirent* const name = ::readdir(names)) {
        const std::size_t length = std::strlen(name->d_name);
        if (length < 4 || std::strcmp(name->d_name + length - 4, ".vxe") != 0)
            continue;
        std::snprintf(path, sizeof path, "%s/%s.version", folder.c_str(), name->d_name);
        const int file = ::open(path, O_RDONLY | O_CLOEXEC);
        if (file >= 0 && ::read(file, text, sizeof text) > 0)
            ++found;
        ::close(file);
    }
    ::closedir(names);
    return found;
}

template <class Work>
double MillisOf(const Work& work)
{
    const double before = ThreadMillis();
    if (const std::size_t found = work(); found != archives) {
        std::fprintf(stderr, "bench_zippath: %zu archives were found\n", found);
        std::exit(2);
    }
    return ThreadMillis() - before;
}

} // namespace

int main()
{
#ifndef __OPTIMIZE__
    std::puts("WARNING: this build is not optimised; the figures mean nothing");
#endif
    const wxInitializer framework;
    const Test::TempFolder folder("/dev/shm");
    for (std::size_t i = 0; i < archives; ++i) {
        const std::string archive = folder / ("extension" + std::to_string(i) + ".vxe");
        Test::WriteFile(archive, "PK");
        Test::WriteFile(archive + ".version", Test::Ours("version: {version}-1\n"));
    }
    AgentApp app({folder / "vx_agent"});
    app.Dom().SetWx("app.path.bin", wxString::FromUTF8(folder.Path()));
    std::vector<double> ours, plain;
    for (int i = 0; i < rounds; ++i) {
        ours.push_back(MillisOf([&] { return Expand(app, folder.Path()); }));
        plain.push_back(MillisOf([&] { return ListAndRead(folder.Path()); }));
    }
    return Bench::Row("10000 archives with version files found by a pattern", ours, "plain C that lists and reads them",
                      plain, "ms", 2.5)
               ? 0
               : 1;
}
