#include "vex/apps/vexctl/agent_database.h"

#include "vex/apps/vexctl/command.h"

#include "vex_core/base/steady_ms.h"
#include "vex_core/os/descriptor.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/pause.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>

namespace Vexctl {

namespace {
// How long the agent may be in the middle of a change, or change so fast that nothing can be read in between.
constexpr std::int64_t patienceMs = 5000;

// Places in the header of the file, which SQLite documents.
constexpr std::size_t headerBytes = 100;
constexpr std::size_t changeCounterAt = 24;
constexpr std::size_t readVersionAt = 19; // 2: a write-ahead log

bool IsThereWithContent(const std::string& path)
{
    struct stat status = {};
    return VexCore::os::Stat(path.c_str(), status) == 0 && status.st_size > 0;
}

} // namespace

AgentDatabase::Condition AgentDatabase::Look() const
{
    Condition condition;
    struct stat status = {};
    if (VexCore::os::Stat(m_path.c_str(), status) != 0) {
        if (VexCore::os::LastError() == ENOENT)
            return condition;
        throw Failure(m_path + ": " + VexCore::os::ErrorText(VexCore::os::LastError()));
    }
    if (!S_ISREG(status.st_mode))
        throw Failure(m_path + " is no regular file");
    const VexCore::os::Descriptor file(VexCore::os::Open(m_path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
    unsigned char header[headerBytes] = {};
    const ssize_t size = file && VexCore::os::FStat(file.Get(), status) == 0
                             ? VexCore::os::PReadFull(file.Get(), header, sizeof header, 0)
                             : -1;
    if (size < 0)
        throw Failure(m_path + ": " + VexCore::os::ErrorText(VexCore::os::LastError()));
    condition.isThere = true;
    condition.isEmpty = size == 0;
    condition.identity = VexCore::os::IdentityOf(status);
    std::memcpy(&condition.changes, header + changeCounterAt, sizeof condition.changes);
    const bool usesWriteAheadLog = header[readVersionAt] == 2;
    condition.hasJournal = !usesWriteAheadLog && IsThereWithContent(m_path + "-journal");
    condition.hasWriteAheadLog = usesWriteAheadLog && IsThereWithContent(m_path + "-wal");
    return condition;
}

bool AgentDatabase::OpenFor(const Condition& condition)
{
    if (m_db.IsOpen() && m_opened.SameAs(condition))
        return true;
    m_opened = condition;
    return m_db.OpenForReading(m_path, !condition.hasWriteAheadLog);
}

// With a write-ahead log others commit meanwhile: in a transaction all that a reader asks is of one state.
bool AgentDatabase::ReadOneState(const Reader& reader)
{
    const bool read = m_db.Exec("BEGIN") && reader(m_db) && m_db.Exec("ROLLBACK");
    if (!read)
        m_db.Close(); // with the transaction
    return read;
}

// Whether what was read counts.
bool AgentDatabase::ReadOnce(const Condition& before, const Reader& reader)
{
    const bool read = OpenFor(before) && ReadOneState(reader);
    if (read && before.hasWriteAheadLog)
        return true;
    if (!Look().SameAs(before)) {
        m_db.Close();
        return false;
    }
    if (!read)
        throw Failure(m_path + " cannot be read: " + m_db.Error());
    return true;
}

bool AgentDatabase::Read(const Reader& reader)
{
    const VexCore::Deadline deadline(patienceMs);
    bool wasInAChange = false;
    for (long pauseMs = 1; deadline.LeftMs() != 0; pauseMs = pauseMs < 50 ? pauseMs * 2 : pauseMs) {
        const Condition now = Look();
        if (!now.isThere || now.isEmpty)
            return false;
        wasInAChange = now.hasJournal;
        if (!now.hasJournal && ReadOnce(now, reader))
            return true;
        VexCore::os::PauseMs(pauseMs);
    }
    if (wasInAChange)
        throw Failure(
            m_path + " is in the middle of a change (" + m_path
            + "-journal has content). Where that stays, its writer was killed; the agent puts it right when it next "
              "writes there");
    throw Failure(m_path + " is written without a pause; try again");
}

} // namespace Vexctl
