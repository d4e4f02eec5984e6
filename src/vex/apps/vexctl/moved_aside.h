#pragma once
// Databases of events that an agent found damaged and moved aside, and what can still be read in them.
// docs/FORMATS.md, "Agent events".

#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/event_history.h"
#include "vex/apps/vexctl/event_state.h"

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

/// The folder may be searched and not listed, so that nobody can tell what was moved aside in it.
class FolderNotListed : public Failure
{
public:
    using Failure::Failure;
};

/// Of the database of that path, in the order in which they were moved. Throws Failure when the folder cannot be read,
/// FolderNotListed where the right to list it is missing.
std::vector<MovedAside> FindMovedAside(const std::string& databasePath);

/// Whether it is the one in which the last event of that position stood: by the key of that event, because another file
/// may have the inode of one that was removed; by the file where no event was taken, or the place of it is damaged.
/// Throws Failure as ReadDamaged does.
bool IsDatabaseOf(const MovedAside& moved, const EventPosition& position);

/// Passes on the events behind the one of this id that pass the condition (" AND ..." of SQL, or empty), in their
/// order, as far as they can be read; nothing is written. Absent: all of them could be. Else what could not, in a line:
/// the file is damaged there, or gone. Throws Failure for any other trouble, of which the next try may see nothing.
std::optional<std::string> ReadDamaged(const std::string& path, std::int64_t after, const std::string& condition,
                                       const std::function<void(const Event&)>& take);

} // namespace Vexctl
