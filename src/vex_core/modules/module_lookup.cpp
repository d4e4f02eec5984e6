// The order of a search: archive by archive, "name.lua" before "name/init.lua". The index of all names says where to
// begin, or no; only the archive itself says yes. On the interpreter's thread.

#include "vex_core/modules/module_lookup.h"

#include "vex_core/modules/cache_registry.h"
#include "vex_core/modules/name_hash.h"

#include <algorithm>

namespace VexCore {
namespace {
// A line for each file that was not there, twice as many as archives.
std::string PlacesLookedIn(const FoundArchives& found, const std::string& base)
{
    const std::string begin = "\n\tno file '";
    const std::string between = "/" + base + ".lua'" + begin; // the two names of an archive
    const std::string end = "/" + base + "/init.lua'";
    std::string places;
    places.reserve(found.bytesOfTexts + found.items.size() * (begin.size() + between.size() + end.size()));
    for (const FoundArchives::Item& item : found.items) {
        const std::string& path = item.slot->Path();
        if (item.archive)
            places.append(begin).append(path).append(between).append(path).append(end);
        else
            places.append("\n\tno archive '").append(path).append("' (").append(item.failure).append(")");
    }
    return places;
}

} // namespace

// Archives that were on the path before stay open; those that are on no interpreter's path any more are closed.
void ModuleLookup::TakeSearchPath()
{
    m_archives = ArchiveIndex::Process().Search(m_settings.SearchPath());
    m_found.reset();
    m_caches.clear();
    m_searchPathNumber = m_settings.SearchPathNumber();
    ArchiveIndex::Process().ForgetUnused();
    CacheRegistry::Process().ForgetUnused();
}

LookupResult ModuleLookup::Find(const std::string& module)
{
    if (m_searchPathNumber != m_settings.SearchPathNumber())
        TakeSearchPath();
    if (!m_archives)
        return MissingModule();
    std::string base = module;
    std::replace(base.begin(), base.end(), '.', '/');
    LookupResult result = FindInArchives(base);
    // It may be in an archive that was not there when the path was looked at last.
    const bool mayHaveCome = std::holds_alternative<MissingModule>(result) && AnArchiveIsMissing();
    if ((mayHaveCome || std::holds_alternative<UnreadableModule>(result)) && ArchivesHaveChanged())
        result = FindInArchives(base);
    return result;
}

bool ModuleLookup::AnArchiveIsMissing() const
{
    const std::shared_ptr<const FoundArchives> found = m_found.lock();
    return !found || std::any_of(found->items.begin(), found->items.end(), [](const FoundArchives::Item& item) {
        return !item.archive;
    });
}

bool ModuleLookup::ArchivesHaveChanged()
{
    return m_archives && m_archives->HasChanged(m_settings.Limits(), m_found.lock());
}

LookupResult ModuleLookup::FindInArchives(const std::string& base)
{
    const std::shared_ptr<const FoundArchives> found = m_archives->Current(m_settings.Limits());
    m_found = found;
    const std::string files[] = {base + ".lua", base + "/init.lua"};
    const std::uint64_t hashes[] = {HashName(files[0]), HashName(files[1])};
    const NameTable::Place& file = found->names.First(hashes[0]);
    const NameTable::Place& initFile = found->names.First(hashes[1]);
    const bool isInit = initFile.archive < file.archive;
    const NameTable::Place& first = isInit ? initFile : file;
    if (first.archive == NameTable::none)
        return MissingModule{PlacesLookedIn(*found, base)};
    LookupResult result = LookInto(found->items[first.archive].archive, files[isInit], first.entry);
    if (!std::holds_alternative<MissingModule>(result))
        return result;

    // Another name has the hash: from there on each archive is asked.
    for (std::size_t i = first.archive; i < found->items.size(); ++i) {
        const std::shared_ptr<ModuleArchive>& archive = found->items[i].archive;
        for (std::size_t k = 0; archive && k < 2; ++k) {
            if (!archive->MayHave(hashes[k]))
                continue;
            result = LookInto(archive, files[k], std::nullopt);
            if (!std::holds_alternative<MissingModule>(result))
                return result;
        }
    }
    return MissingModule{PlacesLookedIn(*found, base)};
}

LookupResult ModuleLookup::LookInto(const std::shared_ptr<ModuleArchive>& archive, const std::string& file,
                                    std::optional<std::uint32_t> number)
{
    std::string path = archive->Path() + "/" + file;
    std::string why;
    std::shared_ptr<const ZipArchive> zip = archive->Zip(why);
    if (!zip)
        return UnreadableModule{std::move(path), std::move(why)};
    const ZipEntry* const entry = number ? zip->EntryNamed(*number, file) : zip->Find(file);
    if (!entry)
        return MissingModule();
    return FoundModule{std::move(path), archive->Path().size(), std::move(zip), entry, CacheOf(archive)};
}

std::shared_ptr<ChunkCache> ModuleLookup::CacheOf(const std::shared_ptr<ModuleArchive>& archive)
{
    const std::string& folder = m_settings.CacheFolder();
    if (folder.empty())
        return nullptr;
    KnownCache& known = m_caches[archive->Path()];
    if (!known.cache || known.archive.lock() != archive || known.folder != folder) {
        const std::string sha256 = archive->DirectorySha256();
        if (sha256.empty())
            return nullptr;
        const bool isOtherArchive = known.cache && known.folder == folder;
        known.cache = CacheRegistry::Process().Get(folder, ChunkCache::Key(sha256, m_luaHeader));
        known.archive = archive;
        known.folder = folder;
        if (isOtherArchive) // that of the one before is of no use to anyone
            CacheRegistry::Process().ForgetUnused();
    }
    return known.cache;
}

} // namespace VexCore
