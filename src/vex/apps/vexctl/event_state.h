#pragma once
// Where a reader of events stands, and the file that keeps it between two runs. docs/FORMATS.md, "Events for
// collectors".

#include "vex/apps/vexctl/os/leftover.h"

#include "vex_core/base/steady_ms.h"
#include "vex_core/os/descriptor.h"

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace Vexctl {

struct EventPosition
{
    std::string key; ///< of the last event that was taken; empty: none was, or none of this database
    std::int64_t id = 0; ///< its id, or the one before the first that is wanted
    std::string database; ///< the file that held it, as `DatabaseName` has it; empty: there was none yet
    std::vector<std::string> done; ///< names of databases moved aside that have nothing to show any more

    bool operator==(const EventPosition& other) const
    {
        return key == other.key && id == other.id && database == other.database && done == other.done;
    }
};

/// The state file of a reader, locked against others while the object lives. What is set is written at the latest when
/// a signal ends the process. The main thread's.
class EventState
{
public:
    /// `hostId` may be empty: then nothing is compared. `note` gets a line when the file cannot be written, and when it
    /// can again. Throws Failure, and changes nothing, when another process has the file, or what is there is no state,
    /// or that of another host or agent.
    /// `nowMs` is the steady clock.
    EventState(std::string path, std::string hostId, std::string agent, std::function<void(const std::string&)> note,
               std::function<std::int64_t()> nowMs = VexCore::SteadyMs);
    ~EventState();

    /// Where the last run stood; absent where there was no file.
    const std::optional<EventPosition>& Found() const { return m_found; }

    /// Makes the file, or shows that it can be written. Throws Failure when it cannot, but for a disk that is full.
    void Begin(const EventPosition& position);
    /// All up to here has been taken. Written when the last writing was a second ago, or `betweenTriesMs` where it
    /// failed.
    void Set(const EventPosition& position);
    /// Writes what is not written yet. False: it could not be, and has been noted.
    bool Save();
    /// The same for whoever asks often: what could not be written is not tried again before `betweenTriesMs`. A try
    /// makes and removes a file, which may be what wakes whoever asks.
    bool SaveWhenDue();

    static constexpr long betweenTriesMs = 5000;

private:
    void Lock();
    void Load();
    std::string Text() const;
    bool Write();
    void Tell(bool isSaved);
    void SaveQuietly();
    bool IsDue();

    const std::string m_path;
    const std::string m_hostId, m_agent;
    const std::function<void(const std::string&)> m_note;
    const std::function<std::int64_t()> m_nowMs;
    VexCore::os::Descriptor m_lockFile;
    std::optional<EventPosition> m_found;
    bool m_isInTrouble = false; // which has been noted

    std::mutex m_lock; // the thread of a signal saves, too
    // Guarded by m_lock.
    EventPosition m_position;
    bool m_isBegun = false;
    bool m_isSaved = false;
    std::int64_t m_savedMs = 0; // when it was last tried

    std::optional<os::Leftover> m_atSignal;
};

} // namespace Vexctl
