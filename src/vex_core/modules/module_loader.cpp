// How `require` finds code: the searchers of a Lua state. They run on the state's own thread.

#include "slb3/error.h"
#include "vex/core/dom.h"
#include "vex_core/modules/archive_index.h"
#include "vex_core/modules/chunk_caches.h"
#include "vex_core/modules/name_hash.h"
#include "vex_core/os/status_calls.h"

#include <algorithm>
#include <ctime>
#include <exception>

#include <lua.hpp>

namespace VexCore {
namespace {
const char loaderType[] = "VexCore.ModuleLoader";
/// A buffer that one large module has made larger is given back.
constexpr std::size_t maxKeptBytes = 64 * 1024;
/// A module is loaded as a whole, and a few MiB of an archive can unpack to as many GiB: this is far above what anybody
/// writes, and far below what hurts.
constexpr std::uint64_t maxModuleBytes = static_cast<std::uint64_t>(64) << 20;

/// An archive on the search path of this interpreter, and the cache of what it holds now.
struct SearchedArchive
{
    std::shared_ptr<ArchiveSlot> slot;
    std::weak_ptr<ModuleArchive> cachedArchive; // that `cache` belongs to
    std::string cacheFolder; // that `cache` lies in
    std::shared_ptr<ChunkCache> cache;
};

/// What a lookup in the archives came to.
struct Found
{
    enum class EKind { Nothing, Failed, Module };
    EKind kind = EKind::Nothing;
    std::string path; ///< of the module: archive, "/", entry
    std::string message; ///< Nothing: the places looked in, as `require` wants them; Failed: why
    std::size_t archiveLength = 0; ///< how much of the path is the archive's
    std::shared_ptr<const ZipArchive> zip;
    const ZipEntry* entry = nullptr; ///< lives as long as `zip`
    std::shared_ptr<ChunkCache> cache; ///< null when there is none
    bool compiled = false; ///< `code` comes from the cache
    std::string
        buffer; ///< the loader's, lent for as long as Lua reads from it: a finaliser may load another module meanwhile
    std::string_view code; ///< lies in `buffer`

    std::string Archive() const { return path.substr(0, archiveLength); }
};

std::vector<std::string> Split(const std::string& list)
{
    std::vector<std::string> items;
    for (std::size_t begin = 0; begin <= list.size();) {
        const std::size_t end = std::min(list.find(';', begin), list.size());
        if (end > begin)
            items.push_back(list.substr(begin, end - begin));
        begin = end + 1;
    }
    return items;
}

std::string ParentFolder(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

/// The part of package.path that is searched before the archives, and the rest.
struct PathParts
{
    std::string path;
    std::string given;
    std::string before;
    std::string after;
};

/// State of one interpreter's loader; lives in a userdata of that interpreter.
class ModuleLoader
{
public:
    ModuleLoader(CDom& dom, std::string luaHeader) : m_dom(dom), m_luaHeader(std::move(luaHeader)) {}

    /// `found` is as it was made.
    void Find(const std::string& module, Found& found);
    /// Reads the source of what was found; false with `message` set when the entry is damaged.
    static bool ReadSource(Found& found);
    /// Takes back the buffer that `Find` lent.
    void GiveBack(Found& found);
    /// Room for a chunk on its way to the cache.
    std::string& DumpBuffer();
    /// Whether compiled chunks may be loaded from the archive: those that come with the launcher.
    bool IsCoreArchive(const std::string& archive) const;
    /// Templates of package.path that are searched before the archives (those given on the command line) or after them.
    const std::string& PathPart(const std::string& packagePath, bool before);

private:
    void ReadSettings();
    void ReadSearchPath();
    bool LookInto(SearchedArchive& searched, const std::string& file, std::uint64_t hash,
                  const std::shared_ptr<ModuleArchive>& archive, Found& found);
    std::shared_ptr<ChunkCache> CacheOf(SearchedArchive& searched, const std::shared_ptr<ModuleArchive>& archive);
    std::string PlacesLookedIn(const std::string& base);

    CDom& m_dom;
    const std::string m_luaHeader;
    std::string m_searchPath; // text of the key that m_archives was made from
    std::vector<SearchedArchive> m_archives;
    ZipLimits m_limits;
    bool m_cacheWanted = true; // by the settings file
    std::time_t m_settingsRead = 0;
    PathParts m_parts;
    // Kept from one module to the next: large blocks that come and go make the C library tidy its free lists at each,
    // which was a tenth of the time of a require.
    std::string m_buffer;
    std::string m_dumpBuffer;
};

/// At most once a second, because a file may have to be looked at, and a start requires thousands of modules in one.
void ModuleLoader::ReadSettings()
{
    const std::time_t now = std::time(nullptr);
    if (now == m_settingsRead)
        return;
    m_settingsRead = now;
    std::int64_t limit = 0;
    m_limits = ZipLimits();
    if (m_dom.GetSetting("app.unzip.maxbytes", limit) && limit > 0)
        m_limits.maxBytes = static_cast<std::uint64_t>(limit);
    if (m_dom.GetSetting("app.unzip.maxentries", limit) && limit > 0)
        m_limits.maxEntries = static_cast<std::uint64_t>(limit);
    m_cacheWanted = true;
    m_dom.GetSetting("app.lua.cache", m_cacheWanted);
}

void ModuleLoader::ReadSearchPath()
{
    std::string text = m_dom.Get("app.lua.zippath");
    if (text == m_searchPath)
        return;
    m_settingsRead = 0; // what is opened next is opened by the settings of now
    std::vector<SearchedArchive> archives;
    std::vector<std::string> paths;
    for (std::string& path : Split(text)) {
        if (path.front() != '/')
            path = m_dom.Get("app.path.bin") + "/" + path;
        paths.push_back(std::move(path));
    }
    std::unordered_map<std::string, bool> seen;
    for (const std::string& path : paths)
        if (seen.emplace(path, true).second)
            archives.push_back({ArchiveIndex::Process().Slot(path), {}, {}, nullptr});
    m_archives.swap(archives);
    m_searchPath = std::move(text);
    archives.clear();
    ArchiveIndex::Process().ForgetUnused();
    ChunkCaches::Process().ForgetUnused();
}

void ModuleLoader::Find(const std::string& module, Found& found)
{
    ChunkCaches::Process().FlushOld();
    ReadSearchPath();
    ReadSettings();
    if (m_dumpBuffer.capacity() > maxKeptBytes)
        std::string().swap(m_dumpBuffer);
    std::string base = module;
    std::replace(base.begin(), base.end(), '.', '/');
    const std::string files[] = {base + ".lua", base + "/init.lua"};
    const std::uint64_t hashes[] = {HashName(files[0]), HashName(files[1])};

    std::string failure;
    for (SearchedArchive& searched : m_archives) {
        const std::shared_ptr<ModuleArchive> archive = searched.slot->Current(m_limits, failure);
        if (archive
            && (LookInto(searched, files[0], hashes[0], archive, found)
                || LookInto(searched, files[1], hashes[1], archive, found)))
            return;
    }
    found.message = PlacesLookedIn(base);
}

bool ModuleLoader::LookInto(SearchedArchive& searched, const std::string& file, std::uint64_t hash,
                            const std::shared_ptr<ModuleArchive>& archive, Found& found)
{
    if (!archive->MayHave(hash))
        return false;
    found.path = archive->Path();
    found.archiveLength = found.path.size();
    found.path.append("/").append(file);
    found.zip = archive->Zip(found.message);
    if (!found.zip) {
        found.kind = Found::EKind::Failed;
        return true;
    }
    found.entry = found.zip->Find(file);
    if (!found.entry)
        return false;
    found.kind = Found::EKind::Module;
    found.cache = CacheOf(searched, archive);
    found.buffer.swap(m_buffer);
    found.compiled = found.cache && found.cache->Find(found.path, found.buffer, found.code);
    return true;
}

std::shared_ptr<ChunkCache> ModuleLoader::CacheOf(SearchedArchive& searched,
                                                  const std::shared_ptr<ModuleArchive>& archive)
{
    bool wanted = m_cacheWanted;
    m_dom.Get("app.lua.cache", wanted);
    const std::string work = m_dom.Get("app.path.work");
    if (!wanted || work.empty())
        return nullptr;
    if (!searched.cache || searched.cachedArchive.lock() != archive || searched.cacheFolder != work) {
        const std::string sha256 = archive->DirectorySha256();
        if (sha256.empty())
            return nullptr;
        searched.cache = ChunkCaches::Process().Get(work + "/cache", ChunkCache::Key(sha256, m_luaHeader));
        searched.cachedArchive = archive;
        searched.cacheFolder = work;
    }
    return searched.cache;
}

std::string ModuleLoader::PlacesLookedIn(const std::string& base)
{
    std::string places;
    for (const SearchedArchive& searched : m_archives) {
        const std::string& path = searched.slot->Path();
        const std::string failure = searched.slot->LastFailure();
        if (failure.empty())
            places.append("\n\tno file '")
                .append(path)
                .append("/")
                .append(base)
                .append(".lua'\n\tno file '")
                .append(path)
                .append("/")
                .append(base)
                .append("/init.lua'");
        else
            places.append("\n\tno archive '").append(path).append("' (").append(failure).append(")");
    }
    return places;
}

bool ModuleLoader::ReadSource(Found& found)
{
    found.compiled = false;
    if (found.entry->size > maxModuleBytes) {
        found.message = "it has " + std::to_string(found.entry->size) + " bytes, and a module may have "
                        + std::to_string(maxModuleBytes);
        return false;
    }
    if (!found.zip->Read(*found.entry, found.buffer, found.message))
        return false;
    found.code = found.buffer;
    return true;
}

void ModuleLoader::GiveBack(Found& found)
{
    found.code = {};
    if (found.buffer.capacity() <= maxKeptBytes)
        found.buffer.swap(m_buffer);
}

std::string& ModuleLoader::DumpBuffer()
{
    m_dumpBuffer.clear();
    return m_dumpBuffer;
}

bool ModuleLoader::IsCoreArchive(const std::string& archive) const
{
    // By identity, so that "x/vex_core/../y" and links cannot pass for the folder.
    const std::string core = m_dom.Get("app.path.bin") + "/vex_core";
    struct stat coreStatus;
    struct stat status;
    return os::Stat(core.c_str(), coreStatus) == 0 && os::Stat(ParentFolder(archive).c_str(), status) == 0
           && coreStatus.st_dev == status.st_dev && coreStatus.st_ino == status.st_ino;
}

const std::string& ModuleLoader::PathPart(const std::string& packagePath, bool before)
{
    std::string given = m_dom.Get("app.lua.path");
    if (packagePath != m_parts.path || given != m_parts.given) {
        PathParts parts;
        const std::vector<std::string> first = Split(given);
        for (const std::string& item : Split(packagePath)) {
            std::string& part = std::find(first.begin(), first.end(), item) != first.end() ? parts.before : parts.after;
            part.append(part.empty() ? "" : ";").append(item);
        }
        parts.path = packagePath;
        parts.given = std::move(given);
        m_parts = std::move(parts);
    }
    return before ? m_parts.before : m_parts.after;
}

// --- Between C++ and Lua

using SLB3::internal::Guarded;

/// The userdata holds a pointer, which is null once it was collected: finalisers that run later while the state is
/// closed may still call `require`.
ModuleLoader& LoaderOf(lua_State* L)
{
    ModuleLoader* const loader = *static_cast<ModuleLoader**>(lua_touserdata(L, lua_upvalueindex(1)));
    if (!loader)
        luaL_error(L, "no module can be loaded while the interpreter is closed");
    return *loader;
}

int AppendTo(lua_State*, const void* data, std::size_t size, void* context)
{
    try {
        static_cast<std::string*>(context)->append(static_cast<const char*>(data), size);
        return 0;
    } catch (const std::exception&) {
        return 1;
    }
}

int RaiseLoadError(lua_State* L, const char* module, const std::string& path, const char* why)
{
    return luaL_error(L, "error loading module '%s' from file '%s':\n\t%s", module, path.c_str(), why);
}

/// Source as it is loaded from a plain file: without a byte-order mark and without a first line that begins with "#".
std::string_view WithoutFirstLineComment(std::string_view code)
{
    if (code.substr(0, 3) == "\xEF\xBB\xBF")
        code.remove_prefix(3);
    if (code.empty() || code.front() != '#')
        return code;
    const std::size_t lineEnd = std::min(code.find('\n'), code.size());
    code.remove_prefix(lineEnd); // the line's end stays, so that lines are counted right
    const bool compiled = code.size() > 1 && code[1] == LUA_SIGNATURE[0];
    if (compiled)
        code.remove_prefix(1);
    return code;
}

/// Leaves the compiled module on the stack or raises an error that names it.
void LoadSource(lua_State* L, ModuleLoader& loader, const char* module, Found& found)
{
    if (!loader.ReadSource(found))
        RaiseLoadError(L, module, found.path, found.message.c_str());
    const std::string_view code = WithoutFirstLineComment(found.code);
    const bool compiled = !code.empty() && code.front() == LUA_SIGNATURE[0];
    if (compiled && !loader.IsCoreArchive(found.Archive()))
        RaiseLoadError(L, module, found.path,
                       "a precompiled chunk is only loaded from the archives that come with the launcher (vex_core)");
    const std::string chunkName = "@" + found.path;
    if (luaL_loadbufferx(L, code.data(), code.size(), chunkName.c_str(), compiled ? "b" : "t") != LUA_OK)
        RaiseLoadError(L, module, found.path, lua_tostring(L, -1));
    if (compiled || !found.cache || !found.cache->WantsChunks())
        return;
    std::string& chunk = loader.DumpBuffer();
    if (lua_dump(L, AppendTo, &chunk) == 0)
        found.cache->Add(found.path, found.archiveLength, chunk);
}

int SearchArchives(lua_State* L)
{
    const char* const module = luaL_checkstring(L, 1);
    ModuleLoader& loader = LoaderOf(L);
    Found found;
    loader.Find(module, found);
    if (found.kind == Found::EKind::Nothing) {
        lua_pushlstring(L, found.message.data(), found.message.size());
        return 1;
    }
    if (found.kind == Found::EKind::Failed)
        return RaiseLoadError(L, module, found.path, found.message.c_str());
    if (found.compiled) {
        const std::string chunkName = "@" + found.path;
        if (luaL_loadbufferx(L, found.code.data(), found.code.size(), chunkName.c_str(), "b") != LUA_OK) {
            lua_pop(L, 1); // whole, but not what this Lua reads: compiled again
            found.compiled = false;
        }
    }
    if (!found.compiled)
        LoadSource(L, loader, module, found);
    loader.GiveBack(found);
    lua_pushlstring(L, found.path.data(), found.path.size());
    return 2;
}

/// Upvalues: the loader, the package table, package.searchpath as it was, whether this is the part before the archives.
int SearchFiles(lua_State* L)
{
    const char* const module = luaL_checkstring(L, 1);
    ModuleLoader& loader = LoaderOf(L);
    lua_getfield(L, lua_upvalueindex(2), "path");
    std::size_t length = 0;
    const char* const path = lua_tolstring(L, -1, &length);
    if (!path)
        return luaL_error(L, "'package.path' must be a string");
    // A copy: what is called below may look a module up itself.
    const std::string part = loader.PathPart(std::string(path, length), lua_toboolean(L, lua_upvalueindex(4)) != 0);
    if (part.empty())
        return 0;
    lua_pushvalue(L, lua_upvalueindex(3));
    lua_pushvalue(L, 1);
    lua_pushlstring(L, part.data(), part.size());
    lua_call(L, 2, 2);
    if (lua_isnil(L, -2))
        return 1; // the places looked in
    lua_pop(L, 1);
    const char* const file = lua_tostring(L, -1);
    if (luaL_loadfile(L, file) != LUA_OK)
        return RaiseLoadError(L, module, file, lua_tostring(L, -1));
    lua_insert(L, -2);
    return 2;
}

int CloseLoader(lua_State* L)
{
    auto* const box = static_cast<ModuleLoader**>(luaL_checkudata(L, 1, loaderType));
    delete *box;
    *box = nullptr;
    try {
        ChunkCaches::Process().Flush();
    } catch (const std::exception&) { // out of memory: the chunks are compiled again
    }
    return 0;
}

/// The first bytes of any compiled chunk: version, byte order and the sizes of types.
std::string LuaHeader(lua_State* L)
{
    constexpr std::size_t headerBytes = 18; // LUAC_HEADERSIZE, which Lua keeps to itself
    std::string chunk;
    if (luaL_loadstring(L, "") != LUA_OK || lua_dump(L, AppendTo, &chunk) != 0)
        luaL_error(L, "no memory to ask for the format of compiled chunks");
    lua_pop(L, 1);
    chunk.resize(std::min(chunk.size(), headerBytes));
    return LUA_RELEASE " " + chunk;
}

void NewLoader(lua_State* L, CDom& dom)
{
    auto* const box = static_cast<ModuleLoader**>(lua_newuserdata(L, sizeof(ModuleLoader*)));
    *box = nullptr;
    luaL_newmetatable(L, loaderType);
    lua_pushcfunction(L, CloseLoader);
    lua_setfield(L, -2, "__gc");
    lua_pushboolean(L, 0);
    lua_setfield(L, -2, "__metatable");
    lua_setmetatable(L, -2);
    *box = new ModuleLoader(dom, LuaHeader(L));
}

void PushFileSearcher(lua_State* L, int loader, int package, bool before)
{
    lua_pushvalue(L, loader);
    lua_pushvalue(L, package);
    lua_getfield(L, package, "searchpath");
    lua_pushboolean(L, before);
    lua_pushcclosure(L, Guarded<SearchFiles>, 4);
}

void RegisterOnce(lua_State* L, CDom& dom)
{
    const int top = lua_gettop(L);
    luaL_checkstack(L, 10, "no room for the module loader");
    lua_getfield(L, LUA_REGISTRYINDEX, loaderType);
    const bool registered = !lua_isnil(L, -1);
    lua_settop(L, top);
    if (registered)
        return;
    lua_getglobal(L, LUA_LOADLIBNAME);
    const int package = lua_gettop(L);
    if (!lua_istable(L, package))
        luaL_error(L, "the module loader needs the library 'package'");
    lua_getfield(L, package, "searchers");
    const int searchers = lua_gettop(L);
    if (!lua_istable(L, searchers) || lua_rawlen(L, searchers) < 2)
        luaL_error(L, "'package.searchers' must be the table that Lua made");
    NewLoader(L, dom);
    const int loader = lua_gettop(L);

    // Lua's own list is preload, package.path, and the two for native modules. Ours takes the place of the second.
    for (int i = static_cast<int>(lua_rawlen(L, searchers)); i > 2; --i) {
        lua_rawgeti(L, searchers, i);
        lua_rawseti(L, searchers, i + 2);
    }
    PushFileSearcher(L, loader, package, true);
    lua_rawseti(L, searchers, 2);
    lua_pushvalue(L, loader);
    lua_pushcclosure(L, Guarded<SearchArchives>, 1);
    lua_rawseti(L, searchers, 3);
    PushFileSearcher(L, loader, package, false);
    lua_rawseti(L, searchers, 4);
    lua_settop(L, top);
}

} // namespace

void CDom::RegisterLoader(lua_State* L)
{
    SLB3::internal::Guard(L, [this, L] {
        RegisterOnce(L, *this);
        return 0;
    });
}

} // namespace VexCore
