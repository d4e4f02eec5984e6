#pragma once
// Databases of events that an agent found damaged and moved aside, and what can still be read in them.
// docs/FORMATS.md, "Agent events".

#include "vex/apps/vexctl/event_history.h"

#include "vex_core/os/file_identity.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Vexctl {

/// A file by what a new name does not change.
std::string DatabaseName(const VexCore::os::FileIdentity& identity);

struct MovedAside
{
    std::string name; ///< in its folder
    std::string path;
    std::string database; ///< its DatabaseName
};

/// Of the database of that path, in the order in which they were moved. Throws Failure when the folder cannot be read.
std::vector<MovedAside> FindMovedAside(const std::string& databasePath);

/// Passes on the events behind the one of this id that pass the condition (" AND ..." of SQL, or empty), in their
/// order, as far as they can be read; nothing is written. Absent: all of them could be. Else what could not, in a line.
std::optional<std::string> ReadDamaged(const std::string& path, std::int64_t after, const std::string& condition,
                                       const std::function<void(const Event&)>& take);

} // namespace Vexctl
