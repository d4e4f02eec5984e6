#pragma once
// What vexctl asks the system about itself and its terminal.

#include <cstddef>
#include <string>

namespace Vexctl::os {

/// Once, before anything else: text is UTF-8 where the locale allows it, and a pipe whose reader has ended is an error
/// of the write.
void PrepareProcess();

/// How wide the terminal is, 80 where it does not tell.
std::size_t TerminalColumns(int descriptor);

/// The folder in which the executable lies, links resolved; empty when the system does not tell.
std::string ExecutableFolder();

/// The path without links, "." and ".."; empty, with the last error, when there is nothing.
std::string RealPath(const std::string& path);

/// Makes a new folder for this user alone, where temporary files belong. Empty with the last error.
std::string MakeTemporaryFolder();
/// Removes it with all that is in it, as far as that can be done; no link is followed.
void RemoveFolder(const std::string& path);

} // namespace Vexctl::os
