#pragma once
// Finds modules in archives. Knows nothing of Lua.

#include "vex_core/modules/archive_index.h"
#include "vex_core/modules/chunk_cache.h"
#include "vex_core/modules/loader_settings.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <variant>
#include <vector>

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

private:
    /// An archive on the search path, and the cache of what it holds now.
    struct SearchedArchive
    {
        std::shared_ptr<ArchiveSlot> slot;
        std::weak_ptr<ModuleArchive> cachedArchive; // that `cache` belongs to
        std::string cacheFolder; // that `cache` lies in
        std::shared_ptr<ChunkCache> cache;
    };

    void TakeSearchPath();
    LookupResult LookInto(SearchedArchive& searched, const std::shared_ptr<ModuleArchive>& archive,
                          const std::string& file) const;
    std::shared_ptr<ChunkCache> CacheOf(SearchedArchive& searched, const std::shared_ptr<ModuleArchive>& archive) const;
    std::string PlacesLookedIn(const std::string& base) const;

    const LoaderSettings& m_settings;
    const std::string m_luaHeader;
    std::vector<SearchedArchive> m_archives;
    unsigned m_searchPathNumber = 0; // that m_archives are of
};

} // namespace VexCore
