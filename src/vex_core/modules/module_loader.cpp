// How `require` finds code: the searchers of a Lua state, which stand between the lookup in archives and Lua.
// They run on the state's own thread.
#include "slb3/error.h"
#include "vex/core/dom.h"
#include "vex_core/modules/cache_registry.h"
#include "vex_core/modules/module_lookup.h"
#include "vex_core/modules/package_path_parts.h"
#include "vex_core/os/file_identity.h"
#include "vex_core/os/files.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <exception>
#include <new>

#include <lua.hpp>

namespace VexCore {
namespace {
using SLB3::internal::Guarded;

const char loaderType[] = "VexCore.ModuleLoader";
// A module is loaded as a whole, and a few MiB of an archive can unpack to as many GiB: this is far above what anybody
// writes, and far below what hurts.
constexpr std::uint64_t maxModuleBytes = static_cast<std::uint64_t>(64) << 20;

// A block of memory that is kept from one module to the next: large blocks that come and go make the C library tidy its
// free lists at each, which was a tenth of the time of a require.
class KeptBuffer
{
public:
    // The block, lent for as long as Lua reads from it:
    // a finaliser may load another module meanwhile, which then gets one of its own.
    class Loan
    {
    public:
        explicit Loan(KeptBuffer& buffer) : m_buffer(buffer), m_bytes(std::move(buffer.m_bytes)) {}
        ~Loan()
        {
            if (m_bytes.capacity() <= maxKeptBytes)
                m_buffer.m_bytes = std::move(m_bytes);
        }
        Loan(const Loan&) = delete;
        Loan& operator=(const Loan&) = delete;

        // With what was in it last.
        std::string& Bytes() { return m_bytes; }

    private:
        // A buffer that one large module has made larger is given back.
        static constexpr std::size_t maxKeptBytes = 64 * 1024;

        KeptBuffer& m_buffer;
        std::string m_bytes;
    };

private:
    std::string m_bytes;
};

// State of one interpreter's loader; lives in a userdata of that interpreter.
struct ModuleLoader
{
    ModuleLoader(CDom& dom, std::string luaHeader) : settings(dom), lookup(settings, std::move(luaHeader)) {}

    LoaderSettings settings;
    ModuleLookup lookup;
    PackagePathParts packagePath;
    KeptBuffer code;
    KeptBuffer dump;
};

// Its address tells a loader from another userdata to which Lua's debug library gave the metatable of loaders, or the
// place of one in a searcher.
const char loaderTag = 0;

// The userdata. The loader is null once it was collected: finalisers that run later while the state is closed may still
// call `require`.
struct LoaderBox
{
    const void* tag = &loaderTag;
    ModuleLoader* loader = nullptr;
};

// Null: the value at `index` is none.
LoaderBox* FindBox(lua_State* L, int index)
{
    auto* const box = static_cast<LoaderBox*>(lua_touserdata(L, index));
    return box && lua_rawlen(L, index) >= sizeof(LoaderBox) && box->tag == &loaderTag ? box : nullptr;
}

ModuleLoader& LoaderOf(lua_State* L)
{
    const LoaderBox* const box = FindBox(L, lua_upvalueindex(1));
    if (!box)
        luaL_error(L, "another value stands in the place of the module loader");
    if (!box->loader)
        luaL_error(L, "no module can be loaded while the interpreter is closed");
    return *box->loader;
}

// A compiled chunk as Lua hands it over, a number or a name at a time: hundreds of pieces of a few bytes a module, so
// that a call of the C library for each would be most of the work.
class DumpedChunk
{
public:
    // Uses what `bytes` has already as its room.
    explicit DumpedChunk(std::string& bytes)
        : m_bytes(bytes), m_end(m_bytes.data()), m_limit(m_bytes.data() + m_bytes.size())
    {}

    std::string_view Bytes() const { return std::string_view(m_bytes).substr(0, Size()); }

    static int Take(lua_State*, const void* data, std::size_t size, void* context)
    {
        auto& chunk = *static_cast<DumpedChunk*>(context);
        if (size > static_cast<std::size_t>(chunk.m_limit - chunk.m_end) && !chunk.MakeRoom(size))
            return 1;
        if (size == sizeof(std::uint32_t))
            std::memcpy(chunk.m_end, data, sizeof(std::uint32_t));
        else if (size == sizeof(std::uint64_t))
            std::memcpy(chunk.m_end, data, sizeof(std::uint64_t));
        else if (size == 1)
            *chunk.m_end = *static_cast<const char*>(data);
        else
            std::memcpy(chunk.m_end, data, size);
        chunk.m_end += size;
        return 0;
    }

private:
    std::size_t Size() const { return static_cast<std::size_t>(m_end - m_bytes.data()); }

    bool MakeRoom(std::size_t size)
    {
        const std::size_t used = Size();
        try {
            m_bytes.resize(std::max(2 * m_bytes.size(), used + size + 256));
        } catch (const std::exception&) {
            return false;
        }
        m_end = m_bytes.data() + used;
        m_limit = m_bytes.data() + m_bytes.size();
        return true;
    }

    std::string& m_bytes;
    char* m_end; // of what there is
    char* m_limit; // of the room for it
};

int RaiseLoadError(lua_State* L, const char* module, const std::string& path, const char* why)
{
    return luaL_error(L, "error loading module '%s' from file '%s':\n\t%s", module, path.c_str(), why);
}

// Source as it is loaded from a plain file: without a byte-order mark and without a first line that begins with "#".
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

bool IsSameFolder(const std::string& left, const std::string& right)
{
    struct stat leftStatus;
    struct stat rightStatus;
    return os::Stat(left.c_str(), leftStatus) == 0 && os::Stat(right.c_str(), rightStatus) == 0
           && os::IdentityOf(leftStatus).IsFileOf(rightStatus);
}

// Whether compiled chunks may be loaded from the archive: those that come with the launcher. By identity of the folder,
// so that "x/vex_core/../y" and links cannot pass for it.
bool IsCoreArchive(const LoaderSettings& settings, const std::string& archive)
{
    const std::size_t slash = archive.rfind('/');
    return IsSameFolder(settings.CoreFolder(), slash == std::string::npos ? "." : archive.substr(0, slash + 1));
}

bool ReadSource(const FoundModule& module, std::string& source, std::string& error)
{
    if (module.entry->size > maxModuleBytes) {
        error = "it has " + std::to_string(module.entry->size) + " bytes, and a module may have "
                + std::to_string(maxModuleBytes);
        return false;
    }
    return module.zip->Read(*module.entry, source, error);
}

// `mode` as Lua has it: "b" compiled, "t" source. Leaves the module's function or an error text on the stack.
bool LoadBuffer(lua_State* L, std::string_view code, const FoundModule& module, const char* mode)
{
    const std::string chunkName = "@" + module.path;
    return luaL_loadbufferx(L, code.data(), code.size(), chunkName.c_str(), mode) == LUA_OK;
}

// Leaves the module's function on the stack when its compiled chunk is in the cache.
bool LoadFromCache(lua_State* L, ModuleLoader& loader, const FoundModule& module)
{
    KeptBuffer::Loan buffer(loader.code);
    std::string_view chunk;
    if (!module.cache || !module.cache->Find(module.path, buffer.Bytes(), chunk))
        return false;
    if (LoadBuffer(L, chunk, module, "b"))
        return true;
    lua_pop(L, 1); // whole, but not what this Lua reads
    return false;
}

// Leaves the module's function on the stack or raises an error that names it. False, and nothing on the stack: the
// archive could not be read because it is another one by now.
bool LoadFromArchive(lua_State* L, ModuleLoader& loader, const char* name, const FoundModule& module)
{
    KeptBuffer::Loan buffer(loader.code);
    std::string error;
    if (!ReadSource(module, buffer.Bytes(), error)) {
        if (loader.lookup.ArchivesHaveChanged())
            return false;
        RaiseLoadError(L, name, module.path, error.c_str());
    }
    const std::string_view code = WithoutFirstLineComment(buffer.Bytes());
    const bool compiled = !code.empty() && code.front() == LUA_SIGNATURE[0];
    if (compiled && !IsCoreArchive(loader.settings, module.Archive()))
        RaiseLoadError(L, name, module.path,
                       "a precompiled chunk is only loaded from the archives that come with the launcher (vex_core)");
    if (!LoadBuffer(L, code, module, compiled ? "b" : "t"))
        RaiseLoadError(L, name, module.path, lua_tostring(L, -1));
    if (compiled || !module.cache || !module.cache->WantsChunks())
        return true;
    KeptBuffer::Loan kept(loader.dump);
    DumpedChunk chunk(kept.Bytes());
    if (lua_dump(L, DumpedChunk::Take, &chunk) == 0)
        module.cache->Add(module.path, module.archiveLength, chunk.Bytes());
    return true;
}

LookupResult Find(ModuleLoader& loader, const char* name)
{
    CacheRegistry::Process().FlushOld();
    loader.settings.Read();
    return loader.lookup.Find(name);
}

int SearchArchives(lua_State* L)
{
    const char* const name = luaL_checkstring(L, 1);
    ModuleLoader& loader = LoaderOf(L);
    for (;;) { // once, but for an archive that is replaced meanwhile
        const LookupResult result = Find(loader, name);
        if (const auto* const missing = std::get_if<MissingModule>(&result)) {
            lua_pushlstring(L, missing->placesLookedIn.data(), missing->placesLookedIn.size());
            return 1;
        }
        if (const auto* const unreadable = std::get_if<UnreadableModule>(&result))
            return RaiseLoadError(L, name, unreadable->path, unreadable->why.c_str());
        const FoundModule& module = std::get<FoundModule>(result);
        if (LoadFromCache(L, loader, module) || LoadFromArchive(L, loader, name, module)) {
            lua_pushlstring(L, module.path.data(), module.path.size());
            return 2;
        }
    }
}

// Upvalues: the loader, the package table, package.searchpath as it was, whether this is the part before the archives.
int SearchFiles(lua_State* L)
{
    const char* const module = luaL_checkstring(L, 1);
    ModuleLoader& loader = LoaderOf(L);
    lua_getfield(L, lua_upvalueindex(2), "path");
    std::size_t length = 0;
    const char* const path = lua_tolstring(L, -1, &length);
    if (!path)
        return luaL_error(L, "'package.path' must be a string");
    loader.settings.Read();
    loader.packagePath.Cut(std::string_view(path, length), loader.settings.GivenPath());
    const bool before = lua_toboolean(L, lua_upvalueindex(4)) != 0;
    const std::string& kept = before ? loader.packagePath.Before() : loader.packagePath.After();
    if (kept.empty())
        return 0;
    const std::string part = kept; // what is called below may look a module up itself
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
    LoaderBox* const box = FindBox(L, 1);
    if (!box)
        return 0;
    delete box->loader;
    box->loader = nullptr;
    try {
        CacheRegistry::Process().Flush();
    } catch (const std::exception&) { // out of memory: the chunks are compiled again
    }
    return 0;
}

// The first bytes of any compiled chunk: version, byte order and the sizes of types.
std::string LuaHeader(lua_State* L)
{
    constexpr std::size_t headerBytes = 18; // LUAC_HEADERSIZE, which Lua keeps to itself
    std::string bytes;
    DumpedChunk chunk(bytes);
    if (luaL_loadstring(L, "") != LUA_OK || lua_dump(L, DumpedChunk::Take, &chunk) != 0)
        luaL_error(L, "no memory to ask for the format of compiled chunks");
    lua_pop(L, 1);
    return std::string(LUA_RELEASE " ").append(chunk.Bytes().substr(0, headerBytes));
}

void NewLoader(lua_State* L, CDom& dom)
{
    auto* const box = new (lua_newuserdata(L, sizeof(LoaderBox))) LoaderBox;
    luaL_newmetatable(L, loaderType);
    lua_pushcfunction(L, CloseLoader);
    lua_setfield(L, -2, "__gc");
    lua_pushboolean(L, 0);
    lua_setfield(L, -2, "__metatable");
    lua_setmetatable(L, -2);
    static const std::string& s_luaHeader =
        *new std::string(LuaHeader(L)); // every state's, also of those that stay behind
    box->loader = new ModuleLoader(dom, s_luaHeader);
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

// The domain's by its interface, and here by its work:
// it installs a search in archives, of which domain/ knows nothing.
void CDom::RegisterLoader(lua_State* L)
{
    SLB3::internal::Guard(L, [this, L] {
        RegisterOnce(L, *this);
        return 0;
    });
}

} // namespace VexCore
