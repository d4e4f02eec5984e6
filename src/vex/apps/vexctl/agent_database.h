#pragma once
// A database that an agent writes, read without a lock: the agent never waits for a reader, and nothing is made or
// written beside its file.
//
// With a rollback journal, the agent's before SQLite 3.51.3, a reader's lock would keep the agent from committing. So
// the file is read as it is, and what was read counts when nobody has written meanwhile: the journal was empty and the
// file's own counter of changes is the same before and after. Else it is read again. Readers of long histories read
// them in parts. With a write-ahead log readers keep nobody from writing, and the usual locks are taken.

#include "vex_core/database/sqlite_connection.h"
#include "vex_core/os/file_identity.h"

#include <cstdint>
#include <functional>
#include <string>

namespace Vexctl {

class AgentDatabase
{
public:
    explicit AgentDatabase(std::string path) : m_path(std::move(path)) {}

    /// Reads something of one state of the database; false when SQLite fails. May run several times, so it begins with
    /// what it has found so far forgotten. Throws nothing.
    using Reader = std::function<bool(VexCore::SqliteConnection& db)>;

    /// False: there is no such file, or nothing in it yet, and what the reader may have found does not count. Throws
    /// Failure when it cannot be read: with the file, the reason, and what to do.
    bool Read(const Reader& reader);

    const std::string& Path() const { return m_path; }
    /// The file that is read, for a Reader.
    const VexCore::os::FileIdentity& Identity() const { return m_opened.identity; }

private:
    // What shows whether somebody has written.
    struct Condition
    {
        bool isThere = false;
        bool isEmpty = false;
        bool hasJournal = false; ///< somebody writes, or was killed while writing
        bool hasWriteAheadLog = false;
        VexCore::os::FileIdentity identity;
        std::uint32_t changes = 0;

        bool SameAs(const Condition& other) const
        {
            return isThere == other.isThere && identity.HasContentOf(other.identity) && changes == other.changes
                   && hasJournal == other.hasJournal && hasWriteAheadLog == other.hasWriteAheadLog;
        }
    };

    Condition Look() const;
    bool OpenFor(const Condition& condition);
    bool ReadOneState(const Reader& reader);
    bool ReadOnce(const Condition& before, const Reader& reader);

    const std::string m_path;
    VexCore::SqliteConnection m_db;
    Condition m_opened; // under which m_db was opened: what it has in memory is of that state
};

} // namespace Vexctl
