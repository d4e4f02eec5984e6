#pragma once
// Finds modules in archives. Knows nothing of Lua.

#include "vex_core/modules/archive_index.h"
#include "vex_core/modules/chunk_cache.h"
#include "vex_core/modules/loader_settings.h"
#include "vex_core/modules/searched_archives.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <variant>

namespace VexCore {

/// A module that an archive holds.
struct FoundModule
{
    std::string path; ///< archive, "/", entry
    std::size_t archiveLength = 0; ///< how much of the path is the archive's
    std::shared_ptr<const ZipArchive> zip;
    const ZipEntry* entry = nullptr; ///< lives as long as `zip`
    std::shared_ptr<ChunkCache> cache; ///< of compiled chunks; null when none are kept

    std::string Archive() const { return path.substr(0, archiveLength); }
};

/// An archive has had the module when it was indexed, but cannot be read now.
struct UnreadableModule
{
    std::string path; ///< archive, "/", entry
    std::string why;
};

/// No archive has the module.
struct MissingModule
{
    std::string placesLookedIn; ///< as `require` wants them: a line each, with a line break and a tab before it
};

using LookupResult = std::variant<MissingModule, UnreadableModule, FoundModule>;

/// The lookups of one interpreter. One thread.
class ModuleLookup
{
public:
    /// `luaHeader` are the bytes that tell which Lua compiled a chunk.
    ModuleLookup(const LoaderSettings& settings, std::string luaHeader)
        : m_settings(settings), m_luaHeader(std::move(luaHeader))
    {}

    /// "a.b" is "a/b.lua", or else "a/b/init.lua", in the first archive of the settings' search
    /// path that has one of them.
    LookupResult Find(const std::string& module);
    /// For who could not read what the last `Find` found: whether any archive is another one by now. A file that was
    /// written in place may show in its bytes before its status is looked at again.
    bool ArchivesHaveChanged();

private:
    /// The cache of an archive on the search path.
    struct KnownCache
    {
        std::weak_ptr<ModuleArchive> archive; // that `cache` belongs to
        std::string folder; // that `cache` lies in
        std::shared_ptr<ChunkCache> cache;
    };

    void TakeSearchPath();
    bool AnArchiveIsMissing() const;
    LookupResult FindInArchives(const std::string& base);
    // With the number of the entry where it is known.
    LookupResult LookInto(const std::shared_ptr<ModuleArchive>& archive, const std::string& file,
                          std::optional<std::uint32_t> number);
    std::shared_ptr<ChunkCache> CacheOf(const std::shared_ptr<ModuleArchive>& archive);

    const LoaderSettings& m_settings;
    const std::string m_luaHeader;
    std::shared_ptr<SearchedArchives> m_archives;
    std::weak_ptr<const FoundArchives> m_found; // by the last lookup; an idle interpreter keeps no archive open
    std::unordered_map<std::string, KnownCache> m_caches; // by path of the archive
    unsigned m_searchPathNumber = 0; // that m_archives are of
};

} // namespace VexCore
