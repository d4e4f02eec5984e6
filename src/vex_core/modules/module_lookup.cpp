// The order of a search: archive by archive, "name.lua" before "name/init.lua". An archive's hashes say no without
// reading it; only the archive itself says yes. On the interpreter's thread.

#include "vex_core/modules/module_lookup.h"

#include "vex_core/modules/cache_registry.h"
#include "vex_core/modules/name_hash.h"

#include <algorithm>

namespace VexCore {

// Archives that were on the path before stay open; those that are on no interpreter's path any more are closed.
void ModuleLookup::TakeSearchPath()
{
    std::vector<SearchedArchive> archives;
    for (const std::string& path : m_settings.SearchPath())
        archives.push_back({ArchiveIndex::Process().Slot(path), {}, {}, nullptr});
    m_archives = std::move(archives);
    m_searchPathNumber = m_settings.SearchPathNumber();
    ArchiveIndex::Process().ForgetUnused();
    CacheRegistry::Process().ForgetUnused();
}

LookupResult ModuleLookup::Find(const std::string& module)
{
    if (m_searchPathNumber != m_settings.SearchPathNumber())
        TakeSearchPath();
    std::string base = module;
    std::replace(base.begin(), base.end(), '.', '/');
    const std::string files[] = {base + ".lua", base + "/init.lua"};
    const std::uint64_t hashes[] = {HashName(files[0]), HashName(files[1])};

    std::string failure;
    for (SearchedArchive& searched : m_archives) {
        const std::shared_ptr<ModuleArchive> archive = searched.slot->Current(m_settings.Limits(), failure);
        if (!archive)
            continue;
        for (std::size_t i = 0; i < 2; ++i) {
            if (!archive->MayHave(hashes[i]))
                continue;
            LookupResult result = LookInto(searched, archive, files[i]);
            if (!std::holds_alternative<MissingModule>(result))
                return result;
        }
    }
    return MissingModule{PlacesLookedIn(base)};
}

LookupResult ModuleLookup::LookInto(SearchedArchive& searched, const std::shared_ptr<ModuleArchive>& archive,
                                    const std::string& file) const
{
    std::string path = archive->Path() + "/" + file;
    std::string why;
    std::shared_ptr<const ZipArchive> zip = archive->Zip(why);
    if (!zip)
        return UnreadableModule{std::move(path), std::move(why)};
    const ZipEntry* const entry = zip->Find(file);
    if (!entry)
        return MissingModule();
    return FoundModule{std::move(path), archive->Path().size(), std::move(zip), entry, CacheOf(searched, archive)};
}

std::shared_ptr<ChunkCache> ModuleLookup::CacheOf(SearchedArchive& searched,
                                                  const std::shared_ptr<ModuleArchive>& archive) const
{
    const std::string folder = m_settings.CacheFolder();
    if (folder.empty())
        return nullptr;
    if (!searched.cache || searched.cachedArchive.lock() != archive || searched.cacheFolder != folder) {
        const std::string sha256 = archive->DirectorySha256();
        if (sha256.empty())
            return nullptr;
        const bool isOtherArchive = searched.cache && searched.cacheFolder == folder;
        searched.cache = CacheRegistry::Process().Get(folder, ChunkCache::Key(sha256, m_luaHeader));
        searched.cachedArchive = archive;
        searched.cacheFolder = folder;
        if (isOtherArchive) // that of the one before is of no use to anyone
            CacheRegistry::Process().ForgetUnused();
    }
    return searched.cache;
}

std::string ModuleLookup::PlacesLookedIn(const std::string& base) const
{
    std::string places;
    for (const SearchedArchive& searched : m_archives) {
        const std::string& path = searched.slot->Path();
        const std::string failure = searched.slot->LastFailure();
        const std::string file = path + "/" + base;
        if (failure.empty())
            places.append("\n\tno file '").append(file).append(".lua'\n\tno file '").append(file).append("/init.lua'");
        else
            places.append("\n\tno archive '").append(path).append("' (").append(failure).append(")");
    }
    return places;
}

} // namespace VexCore
