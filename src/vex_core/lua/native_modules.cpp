// Each function checks its arguments, asks the system (os/) or the domain, and answers with Lua values, on the thread
// of the state that calls; nothing is kept between calls. A Lua error unwinds C++ frames here (Lua is built as C++), so
// objects with destructors are safe beside calls of Lua.

#include "vex_core/lua/native_modules.h"

#include "slb3/error.h"
#include "vex_core/domain/host_id.h"
#include "vex_core/domain/known_settings.h"
#include "vex_core/domain/root_dom.h"
#include "vex_core/domain/setting_value.h"
#include "vex_core/domain/settings.h"
#include "vex_core/lua/lua_agent.h"
#include "vex_core/lua/lua_arguments.h"
#include "vex_core/lua/lua_db.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/folders.h"
#include "vex_core/os/host_facts.h"
#include "vex_core/os/process_info.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

#include <lua.hpp>

namespace VexCore {
namespace {
using SLB3::internal::Guarded;

// What to return after a call of the system that failed just now.
int Failure(lua_State* L, const char* path)
{
    const int error = os::LastError();
    lua_pushnil(L);
    lua_pushfstring(L, "%s: %s", path, os::ErrorText(error).c_str());
    return 2;
}

void SetText(lua_State* L, const char* field, const std::string& text)
{
    lua_pushlstring(L, text.data(), text.size());
    lua_setfield(L, -2, field);
}

// An empty text is what the system gives where it does not know.
void SetKnownText(lua_State* L, const char* field, const std::string& text)
{
    if (!text.empty())
        SetText(L, field, text);
}

void SetNumber(lua_State* L, const char* field, double value)
{
    lua_pushnumber(L, value);
    lua_setfield(L, -2, field);
}

void SetNumber(lua_State* L, const char* field, const std::optional<std::uint64_t>& value)
{
    if (value)
        SetNumber(L, field, static_cast<double>(*value));
}

int PushTexts(lua_State* L, const std::vector<std::string>& texts)
{
    lua_createtable(L, static_cast<int>(texts.size()), 0);
    for (std::size_t i = 0; i < texts.size(); ++i) {
        lua_pushlstring(L, texts[i].data(), texts[i].size());
        lua_rawseti(L, -2, static_cast<int>(i + 1));
    }
    return 1;
}

// --- vex.fs

// list(folder): sorted array of the names in it, without "." and "..".
int FsList(lua_State* L)
{
    const char* path = PlainTextArgument(L, 1);
    std::vector<std::string> names;
    const auto add = [&names](const char* name) {
        names.emplace_back(name);
        return true;
    };
    if (os::ListFolder(path, add) != 0)
        return Failure(L, path);
    std::sort(names.begin(), names.end());
    return PushTexts(L, names);
}

int PushStat(lua_State* L, int (*ask)(const char*, struct stat&))
{
    const char* path = PlainTextArgument(L, 1);
    struct stat about = {};
    if (ask(path, about) != 0)
        return Failure(L, path);
    const char* type = "other";
    if (S_ISREG(about.st_mode))
        type = "file";
    else if (S_ISDIR(about.st_mode))
        type = "folder";
    else if (S_ISLNK(about.st_mode))
        type = "link";
    lua_createtable(L, 0, 4);
    SetText(L, "type", type);
    SetNumber(L, "size", static_cast<double>(about.st_size));
    SetNumber(L, "modified", static_cast<double>(about.st_mtime));
    SetNumber(L, "mode", static_cast<double>(about.st_mode & 07777));
    return 1;
}

// stat(path), lstat(path): table with type, size, modified and mode; lstat tells about a symbolic link
// itself.
int FsStat(lua_State* L)
{
    return PushStat(L, os::Stat);
}

int FsLstat(lua_State* L)
{
    return PushStat(L, os::LStat);
}

// mkdir(path): makes a folder that its owner alone may enter.
int FsMkdir(lua_State* L)
{
    const char* path = PlainTextArgument(L, 1);
    if (os::MkdirAt(AT_FDCWD, path, 0700) != 0)
        return Failure(L, path);
    lua_pushboolean(L, 1);
    return 1;
}

// cwd(): the current directory.
int FsCwd(lua_State* L)
{
    std::string path;
    if (!os::CurrentFolder(path))
        return Failure(L, ".");
    lua_pushlstring(L, path.data(), path.size());
    return 1;
}

// isatty(descriptor): whether it is a terminal.
int FsIsatty(lua_State* L)
{
    lua_pushboolean(L, os::IsTerminal(luaL_checkint(L, 1)));
    return 1;
}

const luaL_Reg fsFunctions[] = {{"list", Guarded<FsList>},   {"stat", Guarded<FsStat>}, {"lstat", Guarded<FsLstat>},
                                {"mkdir", Guarded<FsMkdir>}, {"cwd", Guarded<FsCwd>},   {"isatty", Guarded<FsIsatty>},
                                {nullptr, nullptr}};

// --- vex.host

// system(): table with name, release, version, machine and host; distribution where the system has one.
int HostSystem(lua_State* L)
{
    lua_createtable(L, 0, 6);
    const os::SystemName system = os::GetSystemName();
    SetKnownText(L, "name", system.name);
    SetKnownText(L, "release", system.release);
    SetKnownText(L, "version", system.version);
    SetKnownText(L, "machine", system.machine);
    SetKnownText(L, "host", system.host);
    SetKnownText(L, "distribution", os::Distribution().value_or(std::string()));
    return 1;
}

int HostUptime(lua_State* L)
{
    const auto seconds = os::UptimeSeconds();
    if (!seconds)
        return 0;
    lua_pushnumber(L, *seconds);
    return 1;
}

// load(): array of the averages over 1, 5 and 15 minutes.
int HostLoad(lua_State* L)
{
    const auto averages = os::LoadAverages();
    if (!averages)
        return 0;
    lua_createtable(L, 3, 0);
    for (int i = 0; i < 3; ++i) {
        lua_pushnumber(L, (*averages)[static_cast<std::size_t>(i)]);
        lua_rawseti(L, -2, i + 1);
    }
    return 1;
}

// memory(): table with total, available, free, swap_total and swap_free, in bytes.
int HostMemory(lua_State* L)
{
    const os::MemoryFacts memory = os::GetMemoryFacts();
    lua_createtable(L, 0, 5);
    SetNumber(L, "total", memory.totalBytes);
    SetNumber(L, "available", memory.availableBytes);
    SetNumber(L, "free", memory.freeBytes);
    SetNumber(L, "swap_total", memory.swapTotalBytes);
    SetNumber(L, "swap_free", memory.swapFreeBytes);
    return 1;
}

// processors(): how many are online.
int HostProcessors(lua_State* L)
{
    const auto count = os::Processors();
    if (!count)
        return 0;
    lua_pushnumber(L, static_cast<double>(*count));
    return 1;
}

// disks(): array of tables with mount, device, type; total, free and available (to an ordinary user), in
// bytes.
int HostDisks(lua_State* L)
{
    const auto disks = os::Disks();
    if (!disks)
        return 0;
    lua_createtable(L, static_cast<int>(disks->size()), 0);
    int index = 0;
    for (const os::Disk& disk : *disks) {
        lua_createtable(L, 0, 6);
        SetText(L, "mount", disk.mount);
        SetText(L, "device", disk.device);
        SetText(L, "type", disk.type);
        SetNumber(L, "total", static_cast<double>(disk.totalBytes));
        SetNumber(L, "free", static_cast<double>(disk.freeBytes));
        SetNumber(L, "available", static_cast<double>(disk.availableBytes));
        lua_rawseti(L, -2, ++index);
    }
    return 1;
}

// interfaces(): array of tables with name and counters since the interface came up.
int HostInterfaces(lua_State* L)
{
    const auto interfaces = os::NetworkInterfaces();
    if (!interfaces)
        return 0;
    lua_createtable(L, static_cast<int>(interfaces->size()), 0);
    int index = 0;
    for (const os::NetworkInterface& one : *interfaces) {
        lua_createtable(L, 0, 7);
        SetText(L, "name", one.name);
        SetNumber(L, "received_bytes", one.receivedBytes);
        SetNumber(L, "sent_bytes", one.sentBytes);
        SetNumber(L, "received_packets", one.receivedPackets);
        SetNumber(L, "sent_packets", one.sentPackets);
        SetNumber(L, "receive_errors", one.receiveErrors);
        SetNumber(L, "send_errors", one.sendErrors);
        lua_rawseti(L, -2, ++index);
    }
    return 1;
}

// monotonic(): seconds on a clock that nobody sets, for measuring.
int HostMonotonic(lua_State* L)
{
    const std::chrono::duration<double> now = std::chrono::steady_clock::now().time_since_epoch();
    lua_pushnumber(L, now.count());
    return 1;
}

// id(): a text that names this host for this agent and stays the same.
int HostIdentity(lua_State* L)
{
    std::string id;
    if (const RootDom root; root)
        id = HostId(*root);
    if (id.empty())
        return 0;
    lua_pushlstring(L, id.data(), id.size());
    return 1;
}

int HostPid(lua_State* L)
{
    lua_pushnumber(L, static_cast<double>(os::ProcessId()));
    return 1;
}

const luaL_Reg hostFunctions[] = {{"system", Guarded<HostSystem>},
                                  {"uptime", Guarded<HostUptime>},
                                  {"load", Guarded<HostLoad>},
                                  {"memory", Guarded<HostMemory>},
                                  {"processors", Guarded<HostProcessors>},
                                  {"disks", Guarded<HostDisks>},
                                  {"interfaces", Guarded<HostInterfaces>},
                                  {"monotonic", Guarded<HostMonotonic>},
                                  {"id", Guarded<HostIdentity>},
                                  {"pid", Guarded<HostPid>},
                                  {nullptr, nullptr}};

// --- vex.settings

// The value of argument 1 as the process's domain has it. Nothing is pushed while the domain is held.
template <class Value>
bool ReadSetting(lua_State* L, Value& value)
{
    const char* key = PlainTextArgument(L, 1);
    const RootDom root;
    return root && root->GetSetting(key, value);
}

int Default(lua_State* L)
{
    lua_settop(L, 2);
    return 1;
}

// The setting of the host's table that argument 1 names, of one of the kinds that `isWanted` tells. Null for others.
const Setting* HostSetting(lua_State* L, bool (*isWanted)(SettingKind))
{
    const Setting* const setting = FindSetting(PlainTextArgument(L, 1));
    return setting && isWanted(setting->kind) && setting->standard != noStandard ? setting : nullptr;
}

// text(key [, default]), bool(key [, default]), int(key [, default]): the domain's key, else the entry of the
// group [settings] of a configuration file, else the default. What does not read as the type counts as absent. A
// setting of the host's table has its default and its range from there.
int SettingsText(lua_State* L)
{
    std::string value;
    if (!ReadSetting(L, value))
        return Default(L);
    lua_pushlstring(L, value.data(), value.size());
    return 1;
}

int SettingsBool(lua_State* L)
{
    bool value = false;
    if (const Setting* const setting = HostSetting(L, IsTruth))
        value = ReadSetting(L, value) ? value : setting->standard != 0;
    else if (!ReadSetting(L, value))
        return Default(L);
    lua_pushboolean(L, value);
    return 1;
}

int SettingsInt(lua_State* L)
{
    std::int64_t value = 0;
    const bool isSet = ReadSetting(L, value);
    if (const Setting* const setting = HostSetting(L, IsInteger)) {
        const std::int64_t counts = isSet ? WithinRange(*setting, value) : setting->standard;
        lua_pushnumber(L, static_cast<double>(std::min(counts, maxExactInteger)));
        return 1;
    }
    if (!isSet)
        return Default(L);
    if (value > maxExactInteger || value < -maxExactInteger)
        return luaL_error(L, "vex.settings: the integer of '%s' is beyond 2^53", lua_tostring(L, 1));
    lua_pushnumber(L, static_cast<double>(value));
    return 1;
}

// keys(prefix): sorted array of the keys below the prefix that the domain or the configuration file has.
int SettingsKeys(lua_State* L)
{
    const char* prefix = PlainTextArgument(L, 1);
    std::vector<std::string> keys;
    if (const RootDom root; root)
        keys = SettingKeys(*root, prefix);
    return PushTexts(L, keys);
}

// default(key): of a setting of the host's table; nil for others.
int SettingsDefault(lua_State* L)
{
    const Setting* const setting = FindSetting(PlainTextArgument(L, 1));
    if (!setting || setting->standard == noStandard)
        lua_pushnil(L);
    else if (IsTruth(setting->kind))
        lua_pushboolean(L, setting->standard != 0);
    else
        lua_pushnumber(L, static_cast<double>(setting->standard));
    return 1;
}

const luaL_Reg settingsFunctions[] = {{"text", Guarded<SettingsText>},       {"bool", Guarded<SettingsBool>},
                                      {"int", Guarded<SettingsInt>},         {"keys", Guarded<SettingsKeys>},
                                      {"default", Guarded<SettingsDefault>}, {nullptr, nullptr}};

// --- registration

int OpenFs(lua_State* L)
{
    luaL_newlib(L, fsFunctions);
    return 1;
}

int OpenHost(lua_State* L)
{
    luaL_newlib(L, hostFunctions);
    return 1;
}

int OpenSettings(lua_State* L)
{
    luaL_newlib(L, settingsFunctions);
    return 1;
}

} // namespace

void RegisterNativeModules(lua_State* L)
{
    luaL_getsubtable(L, LUA_REGISTRYINDEX, "_PRELOAD");
    lua_pushcfunction(L, OpenFs);
    lua_setfield(L, -2, "vex.fs");
    lua_pushcfunction(L, OpenHost);
    lua_setfield(L, -2, "vex.host");
    lua_pushcfunction(L, OpenLuaDb);
    lua_setfield(L, -2, "vex.db");
    lua_pushcfunction(L, OpenLuaAgent);
    lua_setfield(L, -2, "vex.agent");
    lua_pushcfunction(L, OpenSettings);
    lua_setfield(L, -2, "vex.settings");
    lua_pop(L, 1);
}

} // namespace VexCore
