// Measures unpacking against `bsdtar -xf`. In memory 10,000 files of 4 KiB and one of 512 MiB, in processor time. On a
// disk 1,000 files and ten, to the moment at which all is on stable storage: there `sync -f` follows on bsdtar. All are
// processes and take turns, so that whatever else the machine does meets them alike; each starts with an empty folder
// on a file system that has nothing to write. The turn in the middle counts. Then the peak of resident memory while an
// entry of 1 GiB is unpacked, the libraries' own pages included.
//
//   bench_unzip [FOLDER [ROUNDS]]     FOLDER is on the disk, by default the current one; memory is /dev/shm

#include "figures.h"
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

struct rusage Children()
{
    struct rusage usage = {};
    ::getrusage(RUSAGE_CHILDREN, &usage);
    return usage;
}

double ProcessorSeconds()
{
    const struct rusage usage = Children();
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Of all children so far, so the one that is measured must be the largest.
double PeakMiB()
{
    return static_cast<double>(Children().ru_maxrss) / 1024;
}

std::string PackMany(const fs::path& folder, int files)
{
    const fs::path many = folder / "many";
    fs::create_directories(many);
    for (int i = 0; i < files; ++i)
        WriteHalfPackable(many / ("module" + std::to_string(i) + ".lua"), 4096, static_cast<std::uint64_t>(i));
    const std::string archive = (folder / (std::to_string(files) + ".zip")).string();
    Shell("cd '" + folder.string() + "' && zip -qr1 '" + archive + "' many");
    fs::remove_all(many);
    return archive;
}

class Unpackers
{
public:
    explicit Unpackers(fs::path folder) : m_folder(std::move(folder)) {}

    enum class Time { Processor, UntilStored };

    bool Compare(const char* what, const std::string& archive, int rounds, Time time, double claim) const
    {
        const std::string unpack = "bsdtar -xf '" + archive + "' -C '" + Target() + "'";
        std::vector<double> ours, bsdtar;
        for (int i = 0; i < rounds; ++i) {
            ours.push_back(Taken({fs::read_symlink("/proc/self/exe").string(), "--unzip", archive, Target()}, time));
            bsdtar.push_back(
                Taken({"/bin/sh", "-c",
                       time == Time::Processor ? "exec " + unpack : unpack + " && sync -f '" + Target() + "'"},
                      time));
        }
        return Bench::Row(what, ours, "bsdtar", bsdtar, "ms", claim);
    }

    std::string Target() const { return (m_folder / "target").string(); }

    void Empty() const
    {
        fs::remove_all(Target());
        fs::create_directory(Target());
        Shell("sync -f '" + Target() + "'");
    }

private:
    // In milliseconds.
    double Taken(const std::vector<std::string>& command, Time time) const
    {
        Empty();
        const double before = ProcessorSeconds();
        const double wall = bench::TimeOf(command);
        return 1e3 * (time == Time::Processor ? ProcessorSeconds() - before : wall);
    }

    fs::path m_folder;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc == 4 && std::strcmp(argv[1], "--unzip") == 0)
        return UnzipOnce(argv[2], argv[3]);
#ifndef __OPTIMIZE__
    std::puts("WARNING: this build is not optimised; the figures mean nothing");
#endif
    const fs::path base = fs::absolute(argc > 1 ? argv[1] : ".");
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 7;
    const std::string name = "vex_bench_unzip." + std::to_string(getpid());
    const fs::path disk = base / name;
    const fs::path memory = fs::path("/dev/shm") / name;
    fs::create_directories(disk);
    fs::create_directories(memory);
    const Unpackers onDisk(disk);
    const Unpackers inMemory(memory);

    // First, because the peak of all later children counts too. Python deflates a hole without writing it anywhere.
    Shell("cd '" + memory.string()
          + "' && python3 -c \"import zipfile\nz=zipfile.ZipFile('gib.zip','w',zipfile.ZIP_DEFLATED,compresslevel=1)\n"
            "f=z.open('gib','w',force_zip64=True)\n"
            "for i in range(1024): f.write(bytes(1<<20))\nf.close();z.close()\"");
    std::printf("peak of resident memory of the programs before: %.1f MiB\n", PeakMiB());
    onDisk.Empty();
    bench::TimeOf(
        {fs::read_symlink("/proc/self/exe").string(), "--unzip", (memory / "gib.zip").string(), onDisk.Target()});
    bool holds =
        Bench::Row("resident memory while an entry of 1 GiB is unpacked", PeakMiB(), "allowed are", 32, "MiB", 1);
    onDisk.Empty();

    using Time = Unpackers::Time;
    holds = inMemory.Compare("10000 files of 4 KiB unpacked in memory", PackMany(memory, 10000), rounds,
                             Time::Processor, 0.70)
            && holds;
    WriteHalfPackable(memory / "big", static_cast<std::size_t>(512) << 20, 1);
    Shell("cd '" + memory.string() + "' && zip -q1 big.zip big && rm big");
    holds = inMemory.Compare("one file of 512 MiB unpacked in memory", (memory / "big.zip").string(),
                             std::max(1, rounds / 2), Time::Processor, 0.65)
            && holds;
    holds = onDisk.Compare("1000 files of 4 KiB on the disk", PackMany(disk, 1000), rounds, Time::UntilStored, 1.00)
            && holds;
    holds = onDisk.Compare("10 files of 4 KiB on the disk", PackMany(disk, 10), 3 * rounds, Time::UntilStored, 1.35)
            && holds;
    fs::remove_all(disk);
    fs::remove_all(memory);
    return holds ? 0 : 1;
}
