// Measures the archive reader against libzip, on one archive of 2,000 deflated modules of 2 KiB: to open it, check all
// headers and index the names; and to find and inflate each entry of an open one. libzip checks less. The two take
// turns; the turn in the middle counts, in processor time. The file is in the page cache.
//
//   bench_zip [RUNS]
// Claims: to open at most 0.25 times libzip, to find and inflate at most 0.60 times. The goal was 0.42: libdeflate and
// the checksum alone, from memory, take 0.46 to 0.50 times what libzip takes.

#include "vex_core/zip/zip_reader.h"

#include "many_modules.h"

#include "support/temp_folder.h"
#include "support/zip_builder.h"

#include <zip.h>

using namespace VexCore;

namespace {
constexpr int moduleCount = 2000;

void FailIf(bool failed, const char* what)
{
    if (!failed)
        return;
    std::fprintf(stderr, "%s\n", what);
    std::exit(1);
}

std::shared_ptr<const ZipArchive> Open(const std::string& path)
{
    std::string error;
    auto archive = ZipArchive::Open(path, ZipLimits(), error);
    FailIf(!archive, error.c_str());
    return archive;
}

zip_t* OpenYardstick(const std::string& path)
{
    zip_t* const archive = zip_open(path.c_str(), ZIP_RDONLY, nullptr);
    FailIf(!archive || zip_get_num_entries(archive, 0) != moduleCount, "libzip cannot open the archive");
    return archive;
}

void ReadAll(const ZipArchive& archive, const std::vector<std::string>& names)
{
    std::string data;
    std::string error;
    for (const std::string& name : names) {
        const ZipEntry* const entry = archive.Find(name);
        FailIf(!entry || !archive.Read(*entry, data, error), error.c_str());
    }
}

void ReadAllByYardstick(zip_t* archive, const std::vector<std::string>& names)
{
    char data[4096];
    for (const std::string& name : names) {
        zip_file_t* const file = zip_fopen(archive, name.c_str(), 0);
        FailIf(!file || zip_fread(file, data, sizeof data) <= 0, "libzip cannot read an entry");
        zip_fclose(file);
    }
}

template <class Work>
void Measure(std::vector<double>& milliseconds, Work work)
{
    const double begin = Bench::ProcessorSeconds();
    work();
    milliseconds.push_back((Bench::ProcessorSeconds() - begin) * 1e3);
}

bool Print(const char* what, const std::vector<double>& ours, const std::vector<double>& yardstick, double claim)
{
    return Bench::Row(what, ours, "libzip", yardstick, "ms", claim);
}

} // namespace

int main(int argc, char** argv)
{
#ifndef __OPTIMIZE__
    std::puts("WARNING: this build is not optimised; the figures mean nothing");
#endif
    const int runs = argc > 1 ? std::atoi(argv[1]) : 101;
    const Test::TempFolder folder;
    const std::string path = folder / "modules.vxe";
    std::vector<std::string> names;
    Test::ZipBuilder builder;
    for (int i = 0; i < moduleCount; ++i) {
        names.push_back(Bench::ModuleFile(i));
        builder.Add(names.back(), Bench::ModuleSource(i), 8);
    }
    Test::WriteFile(path, builder.Build());

    std::vector<double> open, openYardstick, read, readYardstick;
    const auto archive = Open(path);
    zip_t* const yardstick = OpenYardstick(path);
    for (int run = 0; run < runs; ++run) {
        Measure(open, [&] { Open(path); });
        Measure(openYardstick, [&] { zip_close(OpenYardstick(path)); });
        Measure(read, [&] { ReadAll(*archive, names); });
        Measure(readYardstick, [&] { ReadAllByYardstick(yardstick, names); });
    }
    zip_close(yardstick);
    bool kept = Print("open and index 2000 entries", open, openYardstick, 0.25);
    kept &= Print("find and inflate 2000 entries of 2 KiB", read, readYardstick, 0.60);
    return kept ? 0 : 1;
}
