// Any bytes as an archive: refused, or read whole with the two ways of reading agreeing.
#include "vex_core/zip/zip_names.h"
#include "vex_core/zip/zip_reader.h"

#include "fuzz/zip_recipe.h"

#include <cstdint>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

namespace {
void Require(bool claim)
{
    if (!claim)
        std::abort();
}

const std::string& FileWith(const std::string& bytes)
{
    static const std::string path = (::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp")
                                    + std::string("/vex_zip_reader_fuzz.") + std::to_string(::getpid());
    static const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    static const int removal = std::atexit([] { ::unlink(path.c_str()); });
    Require(file >= 0 && removal == 0 && ::ftruncate(file, 0) == 0
            && ::pwrite(file, bytes.data(), bytes.size(), 0) == ssize_t(bytes.size()));
    return path;
}

void ReadBothWays(const VexCore::ZipArchive& archive, const VexCore::ZipEntry& entry)
{
    std::string whole, streamed, error, streamError;
    const bool read = archive.Read(entry, whole, error);
    const auto sink = [&streamed](const char* data, std::size_t size) {
        streamed.append(data, size);
        return true;
    };
    const bool sunk = archive.Read(entry, sink, streamError);
    // Of what is wrong in several ways, each library tells what it has found first.
    Require(read == sunk && error.empty() == read && streamError.empty() == read);
    Require(!read || (whole == streamed && whole.size() == entry.size));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string bytes = Test::ArchiveFromRecipe(data, size);
    VexCore::ZipLimits limits;
    limits.maxBytes = 4 << 20;
    limits.maxEntries = 1000;
    std::string error;
    const auto archive = VexCore::ZipArchive::Open(FileWith(bytes), limits, error);
    Require(static_cast<bool>(archive) == error.empty());
    if (!archive)
        return 0;
    std::uint64_t total = 0;
    for (const VexCore::ZipEntry& entry : archive->Entries()) {
        Require(!VexCore::Zip::WhyNameIsRefused(entry.name) && archive->Find(entry.name) == &entry);
        Require(entry.dataOffset <= bytes.size() && entry.packedSize <= bytes.size() - entry.dataOffset);
        total += entry.size;
        ReadBothWays(*archive, entry);
    }
    Require(total <= limits.maxBytes && archive->Entries().size() <= limits.maxEntries);
    return 0;
}
