// The way of an event: database, pending file, memory. Each step down happens only when the one above failed,
// is an error in the log with the whole event, and is undone by a later write, which stores the older events
// first. An event has a key for life, which the database remembers in the transaction that stores it: so an
// event that may or may not have been stored (a kill between commit and the removal of the pending file, a
// commit that failed late) is simply stored again. Threads that write at the same time share a transaction: each hands
// its event to a queue, and the one that comes to the database first takes all of them along.

#include "vex_core/events/agentevent_store.h"
#include "vex/core/agentevent.h"
#include "vex/core/dom.h"
#include "vex_core/base/end_steps.h"
#include "vex_core/base/steady_ms.h"
#include "vex_core/base/text.h"
#include "vex_core/domain/known_settings.h"
#include "vex_core/domain/root_dom.h"
#include "vex_core/domain/settings.h"
#include "vex_core/events/xml_text.h"
#include "vex_core/log/process_log.h"
#include "vex_core/os/error.h"
#include "vex_core/os/file_identity.h"
#include "vex_core/os/files.h"
#include "vex_core/os/guarded_place.h"
#include "vex_core/os/last_resort.h"
#include "vex_core/os/process_info.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <map>
#include <new>
#include <random>
#include <string_view>
#include <utility>
#include <vector>

#include <sqlite3.h>

#include <wx/log.h>

namespace VexCore {
namespace {
// By severity. Relaxed: they are only looked at.
std::atomic<std::uint64_t> g_eventsBySeverity[8];

const char tableSql[] =
    "CREATE TABLE IF NOT EXISTS agent_event(id INTEGER PRIMARY KEY, time_ms INTEGER, time_s INTEGER, number "
    "INTEGER,"
    " severity INTEGER, text TEXT, xml TEXT, key TEXT);"
    "CREATE INDEX IF NOT EXISTS agent_event_time ON agent_event(time_ms);"
    "CREATE TABLE IF NOT EXISTS agent_event_key(seq INTEGER PRIMARY KEY, key TEXT NOT NULL UNIQUE);";

// Agents before this one made the table without keys, and write into one that has them without giving any. Last in the
// transaction, so that a table of a form that is not ours stays what it is.
const char hasKeysSql[] = "SELECT 1 FROM pragma_table_info('agent_event') WHERE name = 'key'";
const char addKeysSql[] = "ALTER TABLE agent_event ADD COLUMN key TEXT";
const char keyIndexSql[] = "CREATE INDEX IF NOT EXISTS agent_event_by_key ON agent_event(key) WHERE key IS NOT NULL";

// Keys matter for events that some process still keeps; an old key is no longer one of those, unless the pending file
// has events of any age.
const char forgetKeysSql[] = "DELETE FROM agent_event_key WHERE seq < (SELECT max(seq) FROM agent_event_key) - 1000";

// A few at a time, so that no event waits for others to go; each kind is found by an index, whatever else is there. The
// latest stays in any case: its id must not be given again. ?1 is how many stay, ?2 the time before which they are too
// old, ?3 now, ?4 how many may go. Without a time, or with one to come, an event is never too old and goes by its
// number. One that came behind an event that is not too old was written when the clock was wrong; it goes when that one
// has gone. That one is looked for among the first thousand, so that no event waits where all have grown too old; the
// plus has it looked for only when something is too old.
const char forgetOldestSql[] =
    "DELETE FROM agent_event WHERE id IN ("
    "SELECT * FROM (SELECT id FROM agent_event WHERE id <= (SELECT max(id) FROM agent_event) - ?1 ORDER BY id LIMIT ?4)"
    " UNION "
    "SELECT * FROM (SELECT id FROM agent_event WHERE time_ms < ?2 AND +id < coalesce("
    "(SELECT id FROM (SELECT id, time_ms FROM agent_event ORDER BY id LIMIT 1000)"
    " WHERE time_ms >= ?2 AND time_ms <= ?3 ORDER BY id LIMIT 1),"
    " (SELECT id FROM agent_event ORDER BY id LIMIT 1 OFFSET 1000),"
    " (SELECT max(id) FROM agent_event)) ORDER BY time_ms, id LIMIT ?4)"
    " ORDER BY 1 LIMIT ?4)";

const char insertKeySql[] = "INSERT OR IGNORE INTO agent_event_key(key) VALUES(?)";
const char insertSql[] =
    "INSERT INTO agent_event(time_ms, time_s, number, severity, text, xml, key) VALUES(?, ?, ?, ?, ?, ?, ?)";

// Whether a store of this process may keep events. Read without a lock, so that the usual answer costs nothing.
std::atomic<bool> g_somethingIsKept{false};

wxString Shown(const std::string& text)
{
    return FromForeignBytes(text);
}

// Unique among all processes that ever share the folder. Begins with the time, so that keys of events that were written
// one after the other lie side by side in their index: with random ones each event that comes or goes would be on a
// page of its own, which is read, kept in the journal and written. Random numbers may be out of reach (no descriptor
// left); then the clock and our pid do.
std::string NewKey()
{
    static std::atomic<unsigned> s_serial{0};
    const auto now = static_cast<unsigned long long>(TimeNowMillis());
    char text[80];
    std::snprintf(text, sizeof text, "%llx-%lx-%x", now, static_cast<unsigned long>(os::ProcessId()), s_serial++);
    try {
        std::random_device random;
        std::snprintf(text, sizeof text, "%012llx%04x%08x%08x", now & 0xffffffffffffu, random() & 0xffffu, random(),
                      random());
    } catch (const std::exception&) {
    }
    return text;
}

EventRecord MakeRecord(const CAgentEvent& event)
{
    EventRecord record;
    record.key = NewKey();
    if (!event.IsAttributeNull(CAgentEvent::FieldTimeMillis))
        record.timeMillis = event.m_timeMillis;
    if (!event.IsAttributeNull(CAgentEvent::FieldTimeSeconds))
        record.timeSeconds = event.m_timeSeconds;
    if (!event.IsAttributeNull(CAgentEvent::FieldNumber))
        record.number = event.m_number;
    if (!event.IsAttributeNull(CAgentEvent::FieldSeverity))
        record.severity = event.m_severity;
    if (!event.IsAttributeNull(CAgentEvent::FieldText))
        record.text = ToXmlText(event.m_text);
    record.xml = event.ToXml();
    return record;
}

// An event is as long as somebody made it, and the framework's formatting is slow.
void LogEvent(const std::string& what, const EventRecord& record)
{
    WriteLogLine(LogLevel::Error, what + record.xml);
}

// Past the log, which holds its lines in memory as well when the disk is full. As bytes: wide output would silence all
// later output. Control characters show as in the log, because this may be a terminal, and nothing is cut, because no
// other place may have the event. False: it was not taken.
bool ShowAsLastResort(const char* prefix, const EventRecord& record)
{
    const int severity = CAgentEvent::ToSeverity(static_cast<int>(record.severity.value_or(os::severityError)));
    try {
        const std::string shown = LogText(record.xml, std::string::npos);
        return os::WriteLastResort(os::standardError, severity, {prefix, shown, "\n"});
    } catch (const std::bad_alloc&) {
        return false;
    }
}

constexpr char notStoredYet[] = "Agent event not stored yet: ";

std::int64_t KeepSetting(const char* key)
{
    const RootDom root;
    return root ? IntSetting(*root, key) : FindSetting(key)->standard;
}

template <class Range>
std::vector<const EventRecord*> PointersTo(const Range& records)
{
    std::vector<const EventRecord*> pointers;
    for (const EventRecord& record : records)
        pointers.push_back(&record);
    return pointers;
}

// What lies there already may be all that is left of another database.
std::string FreeName(const std::string& wanted)
{
    std::string name = wanted;
    struct stat status;
    for (int number = 2; os::Stat(name.c_str(), status) == 0; ++number)
        name = wanted + "-" + std::to_string(number);
    return name;
}

bool MeansDamage(int code)
{
    const int primary = code & 0xFF;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

} // namespace

// What each event needs, prepared once a connection.
struct EventStore::Statements
{
    explicit Statements(SqliteConnection& db)
        : forgetOldest(db, forgetOldestSql), forgetKeys(db, forgetKeysSql), insertKey(db, insertKeySql),
          insert(db, insertSql)
    {}

    // Whether events can be stored; why not is the last error then.
    bool Prepared() const { return forgetKeys.Prepared() && insertKey.Prepared() && insert.Prepared(); }

    // Without rows. Leaves it ready for the next time; the values may go.
    static bool Run(SqliteStatement& statement)
    {
        const auto result = statement.Step();
        statement.Reset();
        return result == SqliteStatement::StepResult::Done;
    }

    SqliteStatement forgetOldest; // first, so that another's failure is not taken for its
    SqliteStatement forgetKeys;
    SqliteStatement insertKey;
    SqliteStatement insert;
};

EventStore::EventStore(std::string folder, WallClock clock)
    : m_folder(std::move(folder)), m_path(m_folder + "/events.db"), m_clock(clock), m_ageClock(clock(), SteadyMs()),
      m_pending(m_folder + "/events.pending.xml")
{}

EventStore::~EventStore()
{
    CloseDatabase();
}

std::int64_t EventStore::Write(const CAgentEvent& event)
{
    Waiting own{MakeRecord(event)};
    {
        const std::lock_guard lock(m_queueLock);
        m_queue.push_back(&own);
        ++m_beingWritten;
    }
    const std::lock_guard lock(m_lock);
    try {
        if (!own.done)
            WriteQueue(own);
    } catch (...) {
        if (!own.done) { // else it was another's event, whose thread tries itself
            --m_beingWritten;
            throw;
        }
    }
    --m_beingWritten;
    return own.id;
}

// Stores what waits together; where that fails, each event goes its own way, so that none suffers for another. A thread
// that waits cannot leave before we give up m_lock.
void EventStore::WriteQueue(Waiting& own)
{
    std::vector<Waiting*> group;
    {
        const std::lock_guard lock(m_queueLock);
        group.swap(m_queue);
    }
    // Another thread took it along and was stopped by an exception.
    if (std::find(group.begin(), group.end(), &own) == group.end())
        group.push_back(&own);
    if (StoreTogether(group))
        return;
    // What is kept comes before all others the next time, and keeps them out while it is not taken: so none is before
    // each has had its turn. But where another process has the database, each would wait as long as the first has.
    std::vector<std::pair<Waiting*, std::string>> refused; // with the reason
    for (Waiting* const waiting : group) {
        const bool isBusy = (m_db.ErrorCode() & 0xFF) == SQLITE_BUSY;
        if (group.size() == 1 || isBusy || !StoreTogether({waiting}))
            refused.emplace_back(waiting, m_reason);
    }
    for (auto& [waiting, reason] : refused) {
        m_reason = std::move(reason);
        KeepForLater(waiting->record);
        waiting->done = true;
    }
}

bool EventStore::StoreTogether(const std::vector<Waiting*>& group)
{
    Records records;
    for (const Waiting* const waiting : group)
        records.push_back(&waiting->record);
    std::optional<Ids> ids;
    if (!WithDatabase([&] { return StoreKeptLocked() && (ids = StoreAll(records)); }))
        return false;
    for (std::size_t i = 0; i < group.size(); ++i) {
        group[i]->id = (*ids)[i];
        group[i]->done = true;
    }
    return true;
}

bool EventStore::StoreKept()
{
    const std::lock_guard lock(m_lock);
    if (m_memory.empty() && (m_folder.empty() || !m_pending.HasEvents()))
        return true;
    if (!WithDatabase([this] { return StoreKeptLocked(); }) && !m_folder.empty())
        AppendMemoryToPending(); // better kept there than with this process
    return m_memory.empty() && !m_pending.HasEvents();
}

std::size_t EventStore::InMemory() const
{
    const std::lock_guard lock(m_lock);
    return m_memory.size();
}

void EventStore::Adopt(EventStore& other)
{
    std::deque<EventRecord> events;
    std::size_t untold = 0;
    {
        const std::lock_guard lock(other.m_lock);
        events.swap(other.m_memory);
        std::swap(untold, other.m_untold);
    }
    const std::lock_guard lock(m_lock);
    m_untold += untold;
    m_memory.insert(m_memory.begin(), std::make_move_iterator(events.begin()), std::make_move_iterator(events.end()));
}

// Two attempts: a file that was damaged, removed or replaced is left behind by the first.
bool EventStore::WithDatabase(const std::function<bool()>& body)
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (OpenDatabase() && body())
            return true;
        if (m_folder.empty())
            return false;
        m_reason = m_db.Error();
        const int code = m_db.ErrorCode();
        CloseDatabase();
        const bool again = MeansDamage(code) ? MoveDamagedAside() : code == SQLITE_READONLY_DBMOVED;
        if (!again)
            return false;
    }
    return false;
}

// --- the database

bool EventStore::OpenDatabase()
{
    if (m_folder.empty()) {
        m_reason = "there is no working folder yet";
        return false;
    }
    // Without statements where memory ran out while it was set up.
    if (m_db.IsOpen() && m_statements && m_owner == os::ProcessId() && IsOurFile())
        return true;
    CloseDatabase();
    RememberFile();
    // An event is on the disk when Write returns, whatever the settings allow elsewhere.
    os::GuardedPlace place(m_path);
    m_owner = os::ProcessId();
    if (!m_db.Open(place, fullSynchronous) || !CreateTables())
        return false;
    RememberFile();
    m_statements = std::make_unique<Statements>(m_db);
    return m_statements->Prepared();
}

// Closing another process's connection, which we have through fork, would drop its locks.
void EventStore::CloseDatabase()
{
    if (m_db.IsOpen() && m_owner != os::ProcessId()) {
        static_cast<void>(m_statements.release());
        m_db.Abandon();
    }
    m_statements.reset();
    m_db.Close();
}

void EventStore::RememberFile()
{
    struct stat status = {};
    const bool there = os::Stat(m_path.c_str(), status) == 0;
    m_identity = there ? os::IdentityOf(status) : os::FileIdentity();
}

// SQLite would go on writing into a file that was removed or replaced.
bool EventStore::IsOurFile() const
{
    struct stat status;
    return os::Stat(m_path.c_str(), status) == 0 && m_identity.IsFileOf(status);
}

bool EventStore::CreateTables()
{
    SqliteTransaction transaction(m_db);
    return transaction.Begun() && m_db.Exec(tableSql) && AddKeys() && transaction.Commit();
}

bool EventStore::AddKeys()
{
    const auto hasKeys = SqliteStatement(m_db, hasKeysSql).Step();
    if (hasKeys == SqliteStatement::StepResult::Failed)
        return false;
    return (hasKeys == SqliteStatement::StepResult::Row || m_db.Exec(addKeysSql)) && m_db.Exec(keyIndexSql);
}

// With its journal, without which it could not be repaired. Another process may have done it meanwhile. False: it could
// not be moved.
bool EventStore::MoveDamagedAside()
{
    if (!IsOurFile())
        return true;
    const std::string aside = FreeName(m_path + ".damaged-" + std::to_string(TimeNowMillis() / 1000));
    if (os::Rename(m_path.c_str(), aside.c_str()) != 0) {
        const long error = os::LastError();
        wxLogSysError(error, "The event database '%s' is damaged (%s) and cannot be moved out of the way",
                      Shown(m_path), Shown(m_reason));
        return false;
    }
    for (const char* suffix : {"-journal", "-wal", "-shm"})
        os::Rename((m_path + suffix).c_str(), (aside + suffix).c_str());
    wxLogError("The event database '%s' is damaged (%s): kept as '%s', a new one begins", Shown(m_path),
               Shown(m_reason), Shown(aside));
    return true;
}

// The id, of the first time where the event is stored already.
std::int64_t EventStore::Insert(const EventRecord& record)
{
    m_statements->insertKey.Bind(1, record.key);
    if (!Statements::Run(m_statements->insertKey))
        return 0;
    if (m_db.Changes() == 0) {
        SqliteStatement stored(m_db, "SELECT id FROM agent_event WHERE key = ?");
        stored.Bind(1, record.key);
        constexpr std::int64_t unknown = -1; // it has grown old since
        const auto result = stored.Step();
        return result == SqliteStatement::StepResult::Row    ? stored.ColumnInt(0)
               : result == SqliteStatement::StepResult::Done ? unknown
                                                             : 0;
    }
    SqliteStatement& statement = m_statements->insert;
    statement.Bind(1, record.timeMillis);
    statement.Bind(2, record.timeSeconds);
    statement.Bind(3, record.number);
    statement.Bind(4, record.severity);
    statement.Bind(5, record.text);
    statement.Bind(6, record.xml);
    statement.Bind(7, record.key);
    return Statements::Run(statement) ? m_db.LastInsertId() : 0;
}

EventStore::Stored EventStore::TryToStore(const Records& records, Ids& ids, std::size_t forget)
{
    ids.clear();
    SqliteTransaction transaction(m_db);
    if (!transaction.Begun() || (!m_pending.HasEvents() && !Statements::Run(m_statements->forgetKeys)))
        return Stored::None;
    for (const EventRecord* const record : records) {
        ids.push_back(Insert(*record));
        if (ids.back() == 0)
            return Stored::None;
    }
    if (forget > 0 && !ForgetOldest(forget))
        return Stored::NoneForTheOldest;
    if (transaction.Commit())
        return Stored::All;
    return forget > 0 ? Stored::NoneForTheOldest : Stored::None;
}

// Where old ones are too many, each new one costs a quarter more if it takes its share of them away. So they go with
// one event in many, some at a time, which lie side by side, and in the same transaction. But that they cannot go, or
// that there is no room for the journal of it, is no reason to refuse a new one.
std::optional<EventStore::Ids> EventStore::StoreAll(const Records& records)
{
    Ids ids;
    if (records.empty())
        return ids;
    const std::size_t since = m_sinceForgotten + records.size();
    const auto keepRows = static_cast<std::size_t>(KeepSetting("app.events.keeprows"));
    const bool isDue = since >= std::min(maxBetweenForgetting, keepRows / 64);
    // As many as came since the last time, and some more. No event waits for thousands that came at once to go.
    std::size_t forgotten = isDue ? std::clamp<std::size_t>(since + 4, 20, maxForgottenAtOnce) : 0;
    Stored stored = TryToStore(records, ids, forgotten);
    if (stored == Stored::NoneForTheOldest) {
        const std::string reason = m_db.Error();
        stored = TryToStore(records, ids, 0);
        if (stored == Stored::All)
            wxLogWarning("Old agent events can't be removed from '%s' (%s), they stay for now", Shown(m_path),
                         Shown(reason));
        forgotten = since; // not to be told again with each event
    }
    if (stored != Stored::All)
        return std::nullopt;
    m_sinceForgotten = since - std::min(since, forgotten);
    return ids;
}

bool EventStore::ForgetOldest(std::size_t count)
{
    constexpr std::int64_t dayMs = 24 * 60 * 60 * 1000;
    SqliteStatement& statement = m_statements->forgetOldest;
    statement.Bind(1, KeepSetting("app.events.keeprows"));
    const std::int64_t now = m_clock();
    statement.Bind(2, m_ageClock.NowMs(now, SteadyMs()) - KeepSetting("app.events.keepdays") * dayMs);
    statement.Bind(3, now);
    statement.Bind(4, static_cast<std::int64_t>(count));
    return Statements::Run(statement);
}

// --- what was kept

// A pending file that cannot be read does not keep newer events out of the database.
bool EventStore::StorePending()
{
    if (!m_pending.Exists())
        return true;
    const PendingEvents::TakeResult taken = m_pending.Take(
        [this](const std::vector<EventRecord>& records) { return StoreAll(PointersTo(records)).has_value(); });
    if (taken == PendingEvents::TakeResult::Unreadable)
        wxLogError("Unable to take the events out of '%s' (%s)", Shown(m_pending.Path()), Shown(m_pending.Reason()));
    return taken != PendingEvents::TakeResult::Refused;
}

bool EventStore::StoreKeptLocked()
{
    if (!StorePending())
        return false;
    if (!StoreAll(PointersTo(m_memory)))
        return false;
    m_memory.clear();
    return true;
}

// --- keeping

bool EventStore::AppendMemoryToPending()
{
    for (; !m_memory.empty(); m_memory.pop_front())
        if (!m_pending.Append(m_memory.front()))
            return false;
    return true;
}

void EventStore::KeepForLater(const EventRecord& record)
{
    g_somethingIsKept = true;
    const bool pending = !m_folder.empty() && AppendMemoryToPending() && m_pending.Append(record);
    if (pending)
        LogEvent("Agent event kept in '" + m_pending.Path() + "', because '" + m_path + "' did not take it (" + m_reason
                     + "): ",
                 record);
    else {
        KeepInMemory(record);
        LogEvent("Agent event kept in memory, because neither '" + m_path + "' (" + m_reason + ") nor '"
                     + m_pending.Path() + "' (" + (m_folder.empty() ? m_reason : m_pending.Reason()) + ") took it: ",
                 record);
    }
}

void EventStore::KeepInMemory(const EventRecord& record)
{
    m_memory.push_back(record);
    m_memory.back().isShown = ShowAsLastResort(notStoredYet, record);
    if (m_memory.size() <= maxInMemory)
        return;
    LogEvent("Too many agent events are kept in memory, this one goes: ", m_memory.front());
    if (!ShowAsLastResort("Agent event given up: ", m_memory.front()) && !m_memory.front().isShown)
        ++m_untold;
    m_memory.pop_front();
}

EventStore::Lost EventStore::TellLost()
{
    const std::lock_guard lock(m_lock);
    // A logger that has stopped may have gone on since.
    for (EventRecord& record : m_memory) {
        record.isShown = record.isShown || ShowAsLastResort(notStoredYet, record);
        m_untold += record.isShown ? 0 : 1;
    }
    return {m_memory.size(), m_untold};
}

// --- the process's stores

namespace {
struct Registry
{
    std::mutex lock;
    std::map<std::string, std::shared_ptr<EventStore>> stores; // guarded by lock; "" has what came before any folder
    std::chrono::steady_clock::time_point nextRetry; // guarded by lock
};

// Each attempt may wait for a lock that another process holds.
constexpr std::chrono::seconds retryPause{10};

// Never destroyed: events are written while the process ends.
Registry& GetRegistry()
{
    static Registry& s_registry = *new Registry;
    return s_registry;
}

} // namespace

std::shared_ptr<EventStore> GetEventStore(const std::string& folder)
{
    Registry& registry = GetRegistry();
    const std::lock_guard lock(registry.lock);
    std::shared_ptr<EventStore>& store = registry.stores[folder];
    if (!store)
        store = std::make_shared<EventStore>(folder);
    const auto homeless = registry.stores.find(std::string());
    if (!folder.empty() && homeless != registry.stores.end()) {
        store->Adopt(*homeless->second);
        registry.stores.erase(homeless);
    }
    return registry.stores[folder];
}

void RetryKeptEvents()
{
    if (!g_somethingIsKept.load(std::memory_order_relaxed))
        return;
    Registry& registry = GetRegistry();
    std::vector<std::shared_ptr<EventStore>> stores;
    {
        const std::lock_guard lock(registry.lock);
        const auto now = std::chrono::steady_clock::now();
        if (now < registry.nextRetry)
            return;
        registry.nextRetry = now + retryPause;
        // Before the list is copied: a store that comes later says so itself.
        g_somethingIsKept = false;
        for (const auto& item : registry.stores)
            stores.push_back(item.second);
    }
    for (const std::shared_ptr<EventStore>& store : stores) {
        try {
            if (store->StoreKept())
                continue;
        } catch (const std::exception& failure) {
            // Whoever committed something must not be told that it failed.
            wxLogError("Agent events could not be stored now: %s", failure.what());
        }
        g_somethingIsKept = true;
    }
}

void CloseEventStores()
{
    std::map<std::string, std::shared_ptr<EventStore>> stores;
    {
        Registry& registry = GetRegistry();
        const std::lock_guard lock(registry.lock);
        stores.swap(registry.stores);
        registry.nextRetry = std::chrono::steady_clock::time_point();
    }
    g_somethingIsKept = false;
    for (const auto& item : stores) {
        item.second->StoreKept();
        const EventStore::Lost lost = item.second->TellLost();
        if (lost.events > 0)
            wxLogError(
                "Agent events that are lost with the process, because nothing took them: %lu (above is a line for "
                "each)",
                static_cast<unsigned long>(lost.events));
        if (lost.untold > 0)
            wxLogError("Agent events that are lost and that neither standard error nor the system's log has shown: %lu",
                       static_cast<unsigned long>(lost.untold));
    }
}

namespace {
void StoreEventsAtTheEnd()
{
    try {
        CloseEventStores();
    } catch (const std::exception& failure) {
        wxLogError("Agent events could not be stored at the end of the process: %s", failure.what());
    }
}
const EndStepOwner storeEvents(EndStep::StoreEvents, &StoreEventsAtTheEnd);

} // namespace

std::uint64_t EventsOfSeverity(std::int32_t severity)
{
    return g_eventsBySeverity[static_cast<std::size_t>(CAgentEvent::ToSeverity(severity))].load(
        std::memory_order_relaxed);
}

// The domain's by its interface, and here by its work: events go to a database, of which domain/ knows nothing.
std::int64_t CDom::AgentEventWrite(CAgentEvent& event)
{
    if (!event.IsAttributeNull(CAgentEvent::FieldSeverity))
        g_eventsBySeverity[static_cast<std::size_t>(CAgentEvent::ToSeverity(event.m_severity))].fetch_add(
            1, std::memory_order_relaxed);
    try {
        return GetEventStore(Get("app.path.work"))->Write(event);
    } catch (const std::exception& failure) { // memory or the source of random numbers
        std::string shown;
        try {
            shown = LogText(event.m_text); // cut, because there may be no room for all of it
        } catch (const std::bad_alloc&) {
        }
        os::WriteLastResort(os::standardError, os::severityError,
                            {"Agent event lost: ", failure.what(), ": ", shown, "\n"});
        return 0;
    }
}

} // namespace VexCore
