#pragma once
// What the dump of a crash tells at a glance. docs/FORMATS.md, "Crash dump". The file may be anybody's: every place in
// it is checked before it is read.

#include <cstdint>
#include <optional>
#include <string>

namespace Vexctl {

struct CrashDump
{
    std::string path;
    std::int64_t timeMs = 0; ///< of the crash; of the file's last change where the dump cannot be read
    std::uint64_t bytes = 0;
    std::string damage; ///< why the rest is not there; empty for a dump that could be read

    int signal = 0;
    std::uint64_t address = 0; ///< that the signal is about
    long process = 0;
    long thread = 0;
    std::string threadName;
    std::string module; ///< path of the file in whose code the thread was; empty: in none
    std::uint64_t offset = 0; ///< in the module, or the address of the code
    std::string buildId; ///< of the module, in hexadecimal
};

/// Reads a dump; absent when there is no such file.
std::optional<CrashDump> ReadCrashDump(const std::string& path);

/// "SIGSEGV", or its number where it has no name here.
std::string SignalName(int signal);

} // namespace Vexctl
