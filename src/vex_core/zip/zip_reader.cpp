// Opens an archive and sees that all its headers hold; what they may hold is in zip_end_record.cpp, zip_directory.cpp
// and zip_tiling.cpp, in this order. Reading of entries: zip_data.cpp.
#include "vex_core/zip/zip_reader.h"

#include "vex_core/base/hex.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/zip/zip_directory.h"
#include "vex_core/zip/zip_tiling.h"

#include <algorithm>
#include <array>
#include <new>

#include <fcntl.h>
#include <libdeflate.h>
#include <openssl/evp.h>

namespace VexCore {
namespace {
class Sha256
{
public:
    Sha256() : m_context(EVP_MD_CTX_new(), EVP_MD_CTX_free)
    {
        if (!m_context || EVP_DigestInit_ex(m_context.get(), EVP_sha256(), nullptr) != 1)
            throw Zip::Refused("SHA-256 is not available");
    }

    void Add(const unsigned char* data, std::size_t size) { EVP_DigestUpdate(m_context.get(), data, size); }

    std::string Hex()
    {
        std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
        unsigned size = 0;
        EVP_DigestFinal_ex(m_context.get(), digest.data(), &size);
        return VexCore::Hex(digest.data(), size);
    }

private:
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> m_context;
};

} // namespace

std::shared_ptr<const ZipArchive> ZipArchive::OpenChecked(const std::string& path, const ZipLimits& limits,
                                                          std::vector<std::string>* reasons)
{
    std::shared_ptr<ZipArchive> archive(new ZipArchive);
    archive->m_path = path;
    // O_NONBLOCK: a FIFO in the place of an archive must not hold us.
    archive->m_file = os::Descriptor(os::Open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
    struct stat status;
    if (!archive->m_file || os::FStat(archive->m_file.Get(), status) != 0)
        throw Zip::Refused("cannot be opened: " + os::ErrorText(os::LastError()));
    if (!S_ISREG(status.st_mode))
        throw Zip::Refused("is no regular file");
    archive->m_identity = os::IdentityOf(status);
    Zip::Window window(archive->m_file.Get(), static_cast<std::uint64_t>(status.st_size));
    const Zip::DirectoryPlace place = Zip::FindDirectory(window);
    Zip::Directory directory = Zip::ReadDirectory(window, place, limits, reasons);
    const auto isRefused = [reasons] { return reasons && !reasons->empty(); };
    archive->m_byName = Zip::OrderByName(directory.entries, reasons);
    // What is left out above would be a gap here.
    if (isRefused())
        return nullptr;
    Zip::CheckTiling(window, place, directory.entries, reasons);
    if (isRefused())
        return nullptr;
    archive->m_entries = std::move(directory.entries);
    archive->m_directoryOffset = place.offset;
    archive->m_directoryEnd = place.end;
    archive->m_directoryChecksum = directory.checksum;
    return archive;
}

std::shared_ptr<const ZipArchive> ZipArchive::Open(const std::string& path, const ZipLimits& limits, std::string& error)
try {
    error.clear();
    return OpenChecked(path, limits, nullptr);
} catch (const Zip::Refused& refused) {
    error = refused.what();
    return nullptr;
} catch (const std::bad_alloc&) {
    error = "there is not enough memory to open it";
    return nullptr;
}

std::shared_ptr<const ZipArchive> ZipArchive::Open(const std::string& path, const ZipLimits& limits,
                                                   std::vector<std::string>& reasons)
try {
    reasons.clear();
    return OpenChecked(path, limits, &reasons);
} catch (const Zip::Refused& refused) {
    reasons.push_back(refused.what());
    return nullptr;
}

const ZipEntry* ZipArchive::Find(std::string_view name) const
{
    const auto before = [this](std::uint32_t index, std::string_view path) {
        return Zip::ComparePaths(Zip::PathOf(m_entries[index].name), path) < 0;
    };
    const auto found = std::lower_bound(m_byName.begin(), m_byName.end(), Zip::PathOf(name), before);
    if (found == m_byName.end() || m_entries[*found].name != name)
        return nullptr;
    return &m_entries[*found];
}

std::string ZipArchive::DirectorySha256() const
try {
    constexpr std::uint64_t pieceBytes = 64 * 1024;
    Zip::Window window(m_file.Get(), m_directoryEnd);
    Sha256 hash;
    std::uint32_t checksum = 0;
    for (std::uint64_t at = m_directoryOffset; at < m_directoryEnd;) {
        const std::size_t size = static_cast<std::size_t>(std::min(pieceBytes, m_directoryEnd - at));
        const unsigned char* const piece = window.At(at, size);
        checksum = libdeflate_crc32(checksum, piece, size);
        hash.Add(piece, size);
        at += size;
    }
    // A file that was written in place meanwhile: chunks of these entries must not be kept under the name of others.
    return checksum == m_directoryChecksum ? hash.Hex() : std::string();
} catch (const Zip::Refused&) { // cut short, or cannot be read
    return std::string();
}

} // namespace VexCore
