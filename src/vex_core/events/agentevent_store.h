#pragma once
// Where agent events go: the database of the working folder, else the pending file beside it, else memory.

#include "vex/core/clock.h"
#include "vex_core/database/sqlite_connection.h"
#include "vex_core/events/age_clock.h"
#include "vex_core/events/pending_events.h"
#include "vex_core/os/file_identity.h"

#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace VexCore {

class CAgentEvent;

/// The store of one working folder. Any thread. Opens nothing before the first write.
class EventStore
{
public:
#ifdef VEX_SMALL_LIMITS
    static constexpr std::size_t maxInMemory = 8;
#else
    static constexpr std::size_t maxInMemory = 10000;
#endif
    /// The oldest go with every so manieth event, and with the first of a process. Where few are kept, sooner.
    static constexpr std::size_t maxBetweenForgetting = 16;
    /// So many with one event at most; where more came at once, more go with the events behind it.
    static constexpr std::size_t maxForgottenAtOnce = 100;

    /// The time in milliseconds since the epoch, by a clock that may be set.
    using WallClock = std::int64_t (*)();

    /// `folder`: bytes of the file system; empty when the process has no working folder yet. `clock` tells which events
    /// have grown too old.
    explicit EventStore(std::string folder, WallClock clock = &TimeNowMillis);
    ~EventStore();

    /// The id of the stored event, or 0 when it was kept for later. What was kept earlier is stored first. Returns when
    /// the event is on stable storage; events that come while others are stored go there together.
    std::int64_t Write(const CAgentEvent& event);

    /// Tries again to store what is kept; what the database does not take goes from memory to the pending file, if that
    /// has room. True when nothing is kept any more.
    bool StoreKept();

    /// Events in memory.
    std::size_t InMemory() const;
    /// Events that threads wait for in `Write`.
    std::size_t BeingWritten() const
    {
        return m_beingWritten;
    }
    /// What the process loses when it ends now.
    struct Lost
    {
        std::size_t events; ///< in memory
        std::size_t untold; ///< which the last resort has not taken, with those that memory had no room for
    };
    /// Shows the events in memory that the last resort has not taken yet, once more. Once, at the end.
    Lost TellLost();
    /// Takes the events of another store's memory.
    void Adopt(EventStore& other);

private:
    // An event of a thread that waits in `Write`.
    struct Waiting
    {
        EventRecord record;
        std::int64_t id = 0;
        bool done = false; // guarded by m_lock, as id
    };
    struct Statements;

    void WriteQueue(Waiting& own);
    bool StoreTogether(const std::vector<Waiting*>& group);
    bool OpenDatabase();
    void CloseDatabase();
    void RememberFile();
    bool IsOurFile() const;
    bool CreateTables();
    bool AddKeys();
    bool WithDatabase(const std::function<bool()>& body);
    bool MoveDamagedAside();
    bool StoreKeptLocked();
    bool StorePending();
    using Records = std::vector<const EventRecord*>;
    using Ids = std::vector<std::int64_t>;
    std::optional<Ids> StoreAll(const Records& records);
    enum class Stored { All, None, NoneForTheOldest };
    Stored TryToStore(const Records& records, Ids& ids, std::size_t forget);
    std::int64_t Insert(const EventRecord& record);
    bool ForgetOldest(std::size_t count);
    void KeepForLater(const EventRecord& record);
    void KeepInMemory(const EventRecord& record);
    bool AppendMemoryToPending();

    const std::string m_folder;
    const std::string m_path;
    const WallClock m_clock;
    const AgeClock m_ageClock;

    mutable std::mutex m_queueLock; // never waited for long; taken under m_lock, too
    std::atomic<std::size_t> m_beingWritten{0};
    std::vector<Waiting*> m_queue; // guarded by m_queueLock; whoever gets m_lock stores them all

    mutable std::mutex m_lock;
    // Guarded by m_lock.
    SqliteConnection m_db;
    std::unique_ptr<Statements> m_statements; // of m_db while it is open
    pid_t m_owner = 0; // the process that opened m_db
    std::size_t m_sinceForgotten = maxBetweenForgetting; // events that were stored and for which none has gone
    os::FileIdentity m_identity; // of the file that m_db has open
    std::string m_reason; // why the database did not take the last event
    PendingEvents m_pending;
    std::deque<EventRecord> m_memory;
    std::size_t m_untold = 0; // that are lost already and that the last resort did not take
};

/// The process's store for a working folder.
std::shared_ptr<EventStore> GetEventStore(const std::string& folder);

/// How many events of a severity, 0 to 7, this process has been given to store. Any thread.
std::uint64_t EventsOfSeverity(std::int32_t severity);

/// For moments that show that the disk has room: tries again to store what this process keeps, at most every ten
/// seconds. Costs one atomic load when it keeps nothing. Any thread that has no transaction open on a database of
/// events; may wait for a lock on one.
void RetryKeptEvents();

/// Tries once more to store what is kept and closes all stores.
void CloseEventStores();

} // namespace VexCore
