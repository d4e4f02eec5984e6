#pragma once
// Native modules for Lua code: what the standard libraries lack.
//
//   vex.fs        folders, kinds of files, terminals
//   vex.host      facts about this host, from the system's own interfaces
//   vex.settings  settings with their fallback in the configuration file
//   vex.db        SQLite databases
//
// A failure of the system is nil and a message; a fact that cannot be had is absent. docs/LUA-API.md, "Modules", lists
// the functions.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct lua_State;

namespace VexCore {

/// Puts the modules into package.preload of a state whose standard libraries are open; each is made when it
/// is first required. May raise a Lua error.
void RegisterHostModules(lua_State* L);

namespace host {

struct Memory
{
    std::optional<std::uint64_t> totalBytes, availableBytes, freeBytes, swapTotalBytes, swapFreeBytes;
};

struct Disk
{
    std::string mount, device, type;
    std::uint64_t totalBytes = 0, freeBytes = 0, availableBytes = 0;
};

struct Interface
{
    std::string name;
    std::optional<std::uint64_t> receivedBytes, receivedPackets, receiveErrors;
    std::optional<std::uint64_t> sentBytes, sentPackets, sendErrors;
};

// One file a system answers these (lua_host_linux.cpp, lua_host_solaris.cpp). Any thread. Absent: not to be
// had here.

/// Name and version of the distribution, where the system's own name does not tell it.
std::optional<std::string> Distribution();
std::optional<double> UptimeSeconds();
Memory MemoryFacts();
/// Mounted disks of this host, in the order of the system's table; neither kernel file systems nor the network's.
std::optional<std::vector<Disk>> Disks();
/// Network interfaces other than the loopback, sorted by name.
std::optional<std::vector<Interface>> Interfaces();

} // namespace host
} // namespace VexCore
