// Measures a durable unpacking, 1,000 files of 4 KiB and one file of 512 MiB, against `unzip -o` and `bsdtar -xf`,
// each followed by `sync -f`. All three are processes and take turns, so that whatever else the machine does meets
// them alike; each starts with an empty folder on a file system that has nothing to write. The medians are
// compared. Then the peak of resident memory while an entry of 1 GiB is unpacked (claim: at most 32 MiB, the
// libraries' own pages included).
//
//   bench_unzip [FOLDER [ROUNDS]]     FOLDER is where files are written, by default the current one: on a real disk

#include "start_program.h"

#include "vex/core/unzip.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <sys/resource.h>
#include <wx/filename.h>
#include <wx/init.h>

namespace fs = std::filesystem;

namespace {
bool Yes(void*, const wxZipEntry*, const wxString*)
{
    return true;
}

// The measured half: this program, started again.
int UnzipOnce(const char* archive, const char* folder)
{
    const wxInitializer framework;
    return VexCore::Unzip(wxFileName(archive), wxFileName::DirName(folder), Yes, nullptr) ? 0 : 1;
}

double Median(std::vector<double> values)
{
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

// Text that packs to about half, like code.
void WriteHalfPackable(const fs::path& file, std::size_t size, std::uint64_t seed)
{
    std::ofstream stream(file, std::ios::binary);
    std::string block(4096, ' ');
    for (std::size_t written = 0; written < size; written += block.size()) {
        for (char& c : block) {
            seed = seed * 6364136223846793005u + 1442695040888963407u;
            c = static_cast<char>('a' + (seed >> 60));
        }
        stream.write(block.data(), static_cast<std::streamsize>(std::min(block.size(), size - written)));
    }
}

void Shell(const std::string& command)
{
    bench::TimeOf({"/bin/sh", "-c", command});
}

class Unpackers
{
public:
    explicit Unpackers(fs::path folder) : m_folder(std::move(folder)) {}

    void Compare(const std::string& what, const std::string& archive, int rounds) const
    {
        const std::string sync = " && sync -f '" + Target() + "'";
        std::vector<double> ours, unzip, bsdtar;
        for (int i = 0; i < rounds; ++i) {
            ours.push_back(Timed({fs::read_symlink("/proc/self/exe").string(), "--unzip", archive, Target()}));
            unzip.push_back(Timed({"/bin/sh", "-c", "unzip -q -o '" + archive + "' -d '" + Target() + "'" + sync}));
            bsdtar.push_back(Timed({"/bin/sh", "-c", "bsdtar -xf '" + archive + "' -C '" + Target() + "'" + sync}));
        }
        std::printf("%s: Unzip %.0f ms, unzip %.0f ms (ratio %.2f), bsdtar %.0f ms (ratio %.2f)\n", what.c_str(),
                    Median(ours) * 1e3, Median(unzip) * 1e3, Median(ours) / Median(unzip), Median(bsdtar) * 1e3,
                    Median(ours) / Median(bsdtar));
    }

    std::string Target() const { return (m_folder / "target").string(); }

    void Empty() const
    {
        fs::remove_all(Target());
        fs::create_directory(Target());
        Shell("sync -f '" + Target() + "'");
    }

private:
    double Timed(const std::vector<std::string>& command) const
    {
        Empty();
        return bench::TimeOf(command);
    }

    fs::path m_folder;
};

// Of all children so far, so the one that is measured must be the largest.
double PeakMiB()
{
    struct rusage usage = {};
    ::getrusage(RUSAGE_CHILDREN, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 4 && std::strcmp(argv[1], "--unzip") == 0)
        return UnzipOnce(argv[2], argv[3]);
#ifndef __OPTIMIZE__
    std::puts("WARNING: this build is not optimised; the figures mean nothing");
#endif
    const fs::path base = fs::absolute(argc > 1 ? argv[1] : ".");
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 5;
    const fs::path folder = base / ("vex_bench_unzip." + std::to_string(getpid()));
    fs::create_directories(folder / "many");
    const Unpackers unpackers(folder);
    const std::string in = "cd '" + folder.string() + "' && ";

    // First, because the peak of all later children counts too. Python deflates a hole without writing it anywhere.
    Shell(in
          + "python3 -c \"import zipfile\nz=zipfile.ZipFile('gib.zip','w',zipfile.ZIP_DEFLATED,compresslevel=1)\n"
            "f=z.open('gib','w',force_zip64=True)\n"
            "for i in range(1024): f.write(bytes(1<<20))\nf.close();z.close()\"");
    const double before = PeakMiB();
    unpackers.Empty();
    bench::TimeOf(
        {fs::read_symlink("/proc/self/exe").string(), "--unzip", (folder / "gib.zip").string(), unpackers.Target()});
    std::printf(
        "an entry of 1 GiB: peak of resident memory %.1f MiB (claim: at most 32; the programs before it %.1f)\n",
        PeakMiB(), before);

    for (int i = 0; i < 1000; ++i)
        WriteHalfPackable(folder / "many" / ("module" + std::to_string(i) + ".lua"), 4096,
                          static_cast<std::uint64_t>(i));
    Shell(in + "zip -qr1 many.zip many");
    unpackers.Compare("1,000 files of 4 KiB", (folder / "many.zip").string(), rounds);

    WriteHalfPackable(folder / "big", static_cast<std::size_t>(512) << 20, 1);
    Shell(in + "zip -q1 big.zip big && rm big");
    unpackers.Compare("one file of 512 MiB", (folder / "big.zip").string(), std::max(1, rounds / 2));
    fs::remove_all(folder);
    return 0;
}
