// The way of an event: database, pending file, memory. Each step down happens only when the one above failed,
// is an error in the log with the whole event, and is undone by a later write, which stores the older events
// first. An event has a key for life, which the database remembers in the transaction that stores it: so an
// event that may or may not have been stored (a kill between commit and the removal of the pending file, a
// commit that failed late) is simply stored again.

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

#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <map>
#include <new>
#include <random>
#include <string_view>
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
// old, ?3 now. Without a time, or with one to come, an event is never too old and goes by its number. One that came
// behind an event that is not too old was written when the clock was wrong; it goes when that one has gone. That one is
// looked for among the first thousand, so that no event waits where all have grown too old; the plus has it looked for
// only when something is too old.
const char forgetOldestSql[] =
    "DELETE FROM agent_event WHERE id IN ("
    "SELECT * FROM (SELECT id FROM agent_event WHERE id <= (SELECT max(id) FROM agent_event) - ?1 ORDER BY id LIMIT 20)"
    " UNION "
    "SELECT * FROM (SELECT id FROM agent_event WHERE time_ms < ?2 AND +id < coalesce("
    "(SELECT id FROM (SELECT id, time_ms FROM agent_event ORDER BY id LIMIT 1000)"
    " WHERE time_ms >= ?2 AND time_ms <= ?3 ORDER BY id LIMIT 1),"
    " (SELECT id FROM agent_event ORDER BY id LIMIT 1 OFFSET 1000),"
    " (SELECT max(id) FROM agent_event)) ORDER BY time_ms, id LIMIT 20)"
    " ORDER BY 1 LIMIT 20)";

// Whether a store of this process may keep events. Read without a lock, so that the usual answer costs nothing.
std::atomic<bool> g_somethingIsKept{false};

wxString Shown(const std::string& text)
{
    return FromForeignBytes(text);
}

// Unique among all processes that ever share the folder. Random numbers may be out of reach (no descriptor
// left); then the clock and our pid do.
std::string NewKey()
{
    static std::atomic<unsigned> s_serial{0};
    char text[80];
    std::snprintf(text, sizeof text, "%llx-%lx-%x", static_cast<unsigned long long>(TimeNowMillis()),
                  static_cast<unsigned long>(os::ProcessId()), s_serial++);
    try {
        std::random_device random;
        std::snprintf(text, sizeof text, "%08x%08x%08x%08x", random(), random(), random(), random());
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

EventStore::EventStore(std::string folder, WallClock clock)
    : m_folder(std::move(folder)), m_path(m_folder + "/events.db"), m_clock(clock), m_ageClock(clock(), SteadyMs()),
      m_pending(m_folder + "/events.pending.xml")
{}

EventStore::~EventStore()
{
    if (m_owner != os::ProcessId())
        m_db.Abandon(); // closing another process's connection would drop its locks
}

std::int64_t EventStore::Write(const CAgentEvent& event)
{
    const EventRecord record = MakeRecord(event);
    const std::lock_guard lock(m_lock);
    const std::int64_t id = WriteLocked(record);
    if (id == 0)
        KeepForLater(record);
    return id;
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

std::int64_t EventStore::WriteLocked(const EventRecord& record)
{
    std::int64_t id = 0;
    WithDatabase([&] { return StoreKeptLocked() && (id = InsertOnce(record)) != 0; });
    return id;
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
        m_db.Close();
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
    if (m_db.IsOpen() && m_owner != os::ProcessId())
        m_db.Abandon();
    if (m_db.IsOpen() && IsOurFile())
        return true;
    RememberFile();
    // An event is on the disk when Write returns, whatever the settings allow elsewhere.
    os::GuardedPlace place(m_path);
    if (!m_db.Open(place, fullSynchronous) || !CreateTables())
        return false;
    m_owner = os::ProcessId();
    RememberFile();
    return true;
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

bool EventStore::InsertKey(const EventRecord& record)
{
    SqliteStatement statement(m_db, "INSERT OR IGNORE INTO agent_event_key(key) VALUES(?)");
    statement.Bind(1, record.key);
    return statement.Step() == SqliteStatement::StepResult::Done;
}

std::int64_t EventStore::Insert(const EventRecord& record)
{
    SqliteStatement statement(
        m_db, "INSERT INTO agent_event(time_ms, time_s, number, severity, text, xml, key) VALUES(?, ?, ?, ?, ?, ?, ?)");
    statement.Bind(1, record.timeMillis);
    statement.Bind(2, record.timeSeconds);
    statement.Bind(3, record.number);
    statement.Bind(4, record.severity);
    statement.Bind(5, record.text);
    statement.Bind(6, record.xml);
    statement.Bind(7, record.key);
    return statement.Step() == SqliteStatement::StepResult::Done ? m_db.LastInsertId() : 0;
}

std::int64_t EventStore::InsertOnce(const EventRecord& record)
{
    SqliteTransaction transaction(m_db);
    if (!transaction.Begun() || (!m_pending.HasEvents() && !m_db.Exec(forgetKeysSql)) || !InsertKey(record))
        return 0;
    const std::int64_t id = Insert(record);
    if (id == 0 || !transaction.Commit())
        return 0;
    ForgetOldest();
    return id;
}

// After the commit: that old events cannot go is no reason to refuse a new one.
void EventStore::ForgetOldest()
{
    constexpr std::int64_t dayMs = 24 * 60 * 60 * 1000;
    const RootDom root;
    const auto setting = [&root](const char* key) {
        return root ? IntSetting(*root, key) : FindSetting(key)->standard;
    };
    SqliteStatement statement(m_db, forgetOldestSql);
    statement.Bind(1, setting("app.events.keeprows"));
    const std::int64_t now = m_clock();
    statement.Bind(2, m_ageClock.NowMs(now, SteadyMs()) - setting("app.events.keepdays") * dayMs);
    statement.Bind(3, now);
    if (statement.Step() != SqliteStatement::StepResult::Done)
        wxLogWarning("Old agent events can't be removed from '%s' (%s), they stay for now", Shown(m_path),
                     Shown(m_db.Error()));
}

// --- what was kept

bool EventStore::StoreAll(const std::vector<EventRecord>& records)
{
    if (records.empty())
        return true;
    SqliteTransaction transaction(m_db);
    if (!transaction.Begun())
        return false;
    for (const EventRecord& record : records) {
        if (!InsertKey(record))
            return false;
        if (m_db.Changes() > 0 && Insert(record) == 0)
            return false;
    }
    if (!transaction.Commit())
        return false;
    ForgetOldest();
    return true;
}

// A pending file that cannot be read does not keep newer events out of the database.
bool EventStore::StorePending()
{
    if (!m_pending.Exists())
        return true;
    const PendingEvents::TakeResult taken =
        m_pending.Take([this](const std::vector<EventRecord>& records) { return StoreAll(records); });
    if (taken == PendingEvents::TakeResult::Unreadable)
        wxLogError("Unable to take the events out of '%s' (%s)", Shown(m_pending.Path()), Shown(m_pending.Reason()));
    return taken != PendingEvents::TakeResult::Refused;
}

bool EventStore::StoreKeptLocked()
{
    if (!StorePending())
        return false;
    if (!StoreAll(std::vector<EventRecord>(m_memory.begin(), m_memory.end())))
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
