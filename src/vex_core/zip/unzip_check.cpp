#include "vex_core/zip/unzip_check.h"

#include "vex_core/zip/unzip_temporaries.h"
#include "vex_core/zip/zip_names.h"

namespace VexCore {

namespace {
std::string InEntry(const ZipEntry& entry, const std::string& reason)
{
    return "entry \"" + EscapeForLog(entry.name) + "\": " + reason;
}

std::vector<std::string> ReservedNames(const ZipArchive& archive)
{
    std::vector<std::string> reasons;
    for (const ZipEntry& entry : archive.Entries())
        if (IsReservedForUnzip(entry.name))
            reasons.push_back(InEntry(entry, "its name is kept for temporary files"));
    return reasons;
}

} // namespace

std::shared_ptr<const ZipArchive> OpenToUnzip(const std::string& path, const ZipLimits& limits, std::string& error)
{
    auto archive = ZipArchive::Open(path, limits, error);
    if (!archive)
        return nullptr;
    const std::vector<std::string> reserved = ReservedNames(*archive);
    if (reserved.empty())
        return archive;
    error = reserved.front();
    return nullptr;
}

std::shared_ptr<const ZipArchive> OpenToUnzip(const std::string& path, const ZipLimits& limits,
                                              std::vector<std::string>& reasons)
{
    auto archive = ZipArchive::Open(path, limits, reasons);
    if (archive)
        reasons = ReservedNames(*archive);
    return archive;
}

std::vector<std::string> DamagedEntries(const ZipArchive& archive)
{
    std::vector<std::string> reasons;
    const auto drop = [](const char*, std::size_t) { return true; };
    ZipReading reading;
    for (const ZipEntry& entry : archive.Entries())
        if (std::string error; !entry.isFolder && !archive.Read(entry, reading, drop, error))
            reasons.push_back(InEntry(entry, error));
    return reasons;
}

} // namespace VexCore
