#pragma once
// The memory of a crashed process: its ranges, and the files of code mapped there. For the crash handler
// only.

#include <cstddef>
#include <cstdint>

namespace VexCore {

struct CrashRange
{
    std::uint64_t start;
    std::uint64_t end;
    bool readable;
    bool device; ///< reading it may do things
};

struct CrashModule
{
    std::uint64_t base;
    std::uint64_t end;
    const char* name; ///< path
    std::uint8_t buildId[32];
    std::uint32_t buildIdSize; ///< 0: it has none
};

constexpr std::size_t maxCrashRanges = 16384;
constexpr std::size_t maxCrashModules = 1024;

/// Reads both lists anew. False when the system does not show them.
bool ReadCrashMaps();

/// In order of their addresses.
const CrashRange* CrashRanges(std::size_t& count);
const CrashModule* CrashModules(std::size_t& count);

/// The readable range around an address or, when it lies in none, the next above it within `reachBytes`.
/// Null: none.
const CrashRange* FindCrashRange(std::uint64_t address, std::uint64_t reachBytes);

} // namespace VexCore
