#include "vex/core/agentevent.h"
#include "vex/core/clock.h"
#include "vex/core/dom.h"
#include "vex_core/events/agentevent_store.h"

#include "support/address_limit.h"
#include "support/call_watch.h"
#include "support/disk_log_catcher.h"
#include "support/dom_ptr.h"
#include "support/fail_nth.h"
#include "support/joining_thread.h"
#include "support/other_user.h"
#include "support/own_mounts.h"
#include "support/process_guards.h"
#include "support/sample_event.h"
#include "support/sanitized.h"
#include "support/temp_folder.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>
#include <thread>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sqlite3.h>

using namespace VexCore;
using namespace std::string_view_literals;
using ::Test::SampleEvent;

namespace {
// Lets SQLite's own system calls be counted and fail with those of FailNth.
class SqliteFaults
{
public:
    SqliteFaults() : m_vfs(sqlite3_vfs_find(nullptr))
    {
        for (const char* name : {"open", "write", "pwrite", "pwrite64", "ftruncate", "unlink"}) {
            Real()[name] = m_vfs->xGetSystemCall(m_vfs, name);
            m_vfs->xSetSystemCall(m_vfs, name, Replacement(name));
        }
    }
    ~SqliteFaults()
    {
        for (const auto& item : Real())
            m_vfs->xSetSystemCall(m_vfs, item.first.c_str(), item.second);
    }

private:
    using Call = sqlite3_syscall_ptr;
    static std::map<std::string, Call>& Real()
    {
        static std::map<std::string, Call> s_real;
        return s_real;
    }
    template <class F>
    static F RealAs(const char* name)
    {
        return reinterpret_cast<F>(Real()[name]);
    }
    static int Open(const char* path, int flags, int mode)
    {
        return ::Test::FailNth::Hit() ? -1 : RealAs<int (*)(const char*, int, int)>("open")(path, flags, mode);
    }
    static ssize_t Write(int descriptor, const void* data, size_t size)
    {
        return ::Test::FailNth::Hit() ? -1
                                      : RealAs<ssize_t (*)(int, const void*, size_t)>("write")(descriptor, data, size);
    }
    static ssize_t Pwrite(int descriptor, const void* data, size_t size, off_t at)
    {
        return ::Test::FailNth::Hit() ? -1 : pwrite(descriptor, data, size, at);
    }
    static int Truncate(int descriptor, off_t size)
    {
        return ::Test::FailNth::Hit() ? -1 : ftruncate(descriptor, size);
    }
    static int Unlink(const char* path) { return ::Test::FailNth::Hit() ? -1 : unlink(path); }
    static Call Replacement(const std::string& name)
    {
        if (name == "open")
            return reinterpret_cast<Call>(Open);
        if (name == "write")
            return reinterpret_cast<Call>(Write);
        if (name == "ftruncate")
            return reinterpret_cast<Call>(Truncate);
        if (name == "unlink")
            return reinterpret_cast<Call>(Unlink);
        return reinterpret_cast<Call>(Pwrite);
    }
    sqlite3_vfs* m_vfs;
};

// Counts how often a transaction is put on stable storage: the folder of a journal is opened to be flushed with it, and
// only then.
class FlushCount
{
public:
    FlushCount() : m_vfs(sqlite3_vfs_find(nullptr))
    {
        s_count = 0;
        s_real = m_vfs->xGetSystemCall(m_vfs, "openDirectory");
        m_vfs->xSetSystemCall(m_vfs, "openDirectory", reinterpret_cast<sqlite3_syscall_ptr>(OpenDirectory));
    }
    ~FlushCount() { m_vfs->xSetSystemCall(m_vfs, "openDirectory", s_real); }

    static int Count() { return s_count; }

private:
    static int OpenDirectory(const char* path, int* descriptor)
    {
        ++s_count;
        return reinterpret_cast<int (*)(const char*, int*)>(s_real)(path, descriptor);
    }

    static inline std::atomic<int> s_count;
    static inline sqlite3_syscall_ptr s_real;
    sqlite3_vfs* m_vfs;
};

// Counts the transactions that write, on connections that are opened while it lives. Whatever the kind of the journal,
// that is how often something is put on stable storage.
class CommitCount
{
public:
    CommitCount()
    {
        s_count = 0;
        sqlite3_auto_extension(reinterpret_cast<void (*)()>(Watch));
    }
    ~CommitCount() { sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(Watch)); }

    static int Count() { return s_count; }

private:
    static int Watch(sqlite3* connection, char**, const sqlite3_api_routines*)
    {
        sqlite3_commit_hook(connection, Committed, nullptr);
        return SQLITE_OK;
    }
    static int Committed(void*)
    {
        ++s_count;
        return 0;
    }

    static inline std::atomic<int> s_count;
};

constexpr std::int64_t dayMs = 86'400'000;

// What an agent did that stored no keys.
constexpr const char* earlierTables =
    "CREATE TABLE IF NOT EXISTS agent_event(id INTEGER PRIMARY KEY, time_ms INTEGER, time_s INTEGER, number INTEGER,"
    " severity INTEGER, text TEXT, xml TEXT);"
    "CREATE INDEX IF NOT EXISTS agent_event_time ON agent_event(time_ms);"
    "CREATE TABLE IF NOT EXISTS agent_event_key(seq INTEGER PRIMARY KEY, key TEXT NOT NULL UNIQUE);";
constexpr const char* earlierInsert = "INSERT INTO agent_event(time_ms, time_s, number, severity, text, xml)"
                                      " VALUES(1700000000123, 1700000000, 5101, 5, 'earlier', '<agent_event/>')";

class EventDatabase : public testing::Test
{
protected:
    void SetUp() override
    {
        CloseEventStores(); // that something is kept is known to the process, whichever test has kept it
        SqliteSettings settings;
        settings.busyTimeoutMs = 20;
        SetSqliteSettings(settings);
        m_dom->Set("app.events.keepdays", "1000000"); // the sample's time is long ago
        m_dom->Set("app.events.keeprows", "60"); // so few that old ones may go with each event
    }
    void TearDown() override { SetSqliteSettings(SqliteSettings()); }

    std::string Database() const { return m_work + "/events.db"; }
    std::string Pending() const { return m_work + "/events.pending.xml"; }
    bool Exists(const std::string& path) const { return std::filesystem::exists(path); }
    // What is logged of an event that went to the pending file.
    std::string Kept(const std::string& reason, const std::string& text) const
    {
        return "Agent event kept in '" + Pending() + "', because '" + Database() + "' did not take it (" + reason
               + "): " + SampleEvent(text).ToXml();
    }
    // All texts in the database, in order of their ids, each followed by ";".
    std::string Stored() const { return StoredIn(Database()); }
    static std::string StoredIn(const std::string& path)
    {
        SqliteConnection db;
        if (!std::filesystem::exists(path) || !db.Open(path, 0))
            return "(" + db.Error() + ")";
        SqliteStatement rows(db, "SELECT text FROM agent_event ORDER BY id");
        std::string all;
        while (rows.Step() == SqliteStatement::StepResult::Row)
            all += rows.ColumnText(0) + ";";
        return all;
    }
    // The keys in the database, in order of the ids.
    std::vector<std::string> StoredKeys() const
    {
        SqliteConnection db;
        EXPECT_TRUE(db.Open(Database(), 0)) << db.Error();
        SqliteStatement rows(db, "SELECT coalesce(key, '(none)') FROM agent_event ORDER BY id");
        std::vector<std::string> keys;
        while (rows.Step() == SqliteStatement::StepResult::Row)
            keys.push_back(rows.ColumnText(0));
        return keys;
    }
    std::string FirstOf(const char* sql) const
    {
        SqliteConnection db;
        EXPECT_TRUE(db.Open(Database(), 0)) << db.Error();
        SqliteStatement row(db, sql);
        EXPECT_EQ(row.Step(), SqliteStatement::StepResult::Row) << db.Error();
        return row.ColumnText(0);
    }
    // As an agent leaves it that stores no keys.
    void MakeEarlierDatabase() const
    {
        SqliteConnection db;
        ASSERT_TRUE(db.Open(Database(), 0)) << db.Error();
        ASSERT_TRUE(db.Exec(earlierTables) && db.Exec(earlierInsert)) << db.Error();
    }
    static int CountOf(const std::string& all, const std::string& text)
    {
        int count = 0;
        for (std::size_t at = all.find(text + ";"); at != std::string::npos; at = all.find(text + ";", at + 1))
            ++count;
        return count;
    }

    // In memory where the system has such a place: what is flushed is counted here, not waited for.
    static std::string Base()
    {
        return std::filesystem::exists("/dev/shm") ? "/dev/shm" : std::filesystem::temp_directory_path().string();
    }

    const ::Test::DomPtr m_dom = ::Test::NewRoot();
    ::Test::TempFolder m_folder{Base()};
    std::string m_work = m_folder.Path();
};

} // namespace

TEST_F(EventDatabase, OpensNothingBeforeTheFirstWrite)
{
    EventStore store(m_work);
    EXPECT_TRUE(store.StoreKept());
    EXPECT_TRUE(std::filesystem::is_empty(m_work));
}

TEST_F(EventDatabase, AllFieldsAreStored)
{
    ::Test::DiskLogCatcher log;
    EventStore store(m_work);
    const CAgentEvent event = SampleEvent("net|1.2|it's \"<&>\"\n\xC3\xA4");
    EXPECT_EQ(store.Write(event), 1);
    SqliteConnection db;
    ASSERT_TRUE(db.Open(Database(), 0));
    SqliteStatement row(db, "SELECT id, time_ms, time_s, number, severity, text, xml FROM agent_event");
    ASSERT_EQ(row.Step(), SqliteStatement::StepResult::Row);
    EXPECT_EQ(row.ColumnInt(0), 1);
    EXPECT_EQ(row.ColumnInt(1), 1700000000123);
    EXPECT_EQ(row.ColumnInt(2), 1700000000);
    EXPECT_EQ(row.ColumnInt(3), 5101);
    EXPECT_EQ(row.ColumnInt(4), 5);
    EXPECT_EQ(row.ColumnText(5), event.m_text);
    EXPECT_EQ(row.ColumnText(6), event.ToXml());
    EXPECT_EQ(row.Step(), SqliteStatement::StepResult::Done);
    EXPECT_TRUE(log.Lines().empty()) << log.All();
    EXPECT_FALSE(Exists(Pending()));
}

TEST_F(EventDatabase, DatabaseAndJournalAreForTheOwnerAlone)
{
    const ::Test::FileModeMask open(0);
    {
        EventStore store(m_work);
        EXPECT_EQ(store.Write(SampleEvent("one")), 1);
    }
    EXPECT_EQ(::Test::ModeOf(Database()), mode_t(0600));
    EXPECT_EQ(::Test::ModeOf(Database() + "-journal"), mode_t(0600));
    // As an older version left them.
    ::chmod(Database().c_str(), 0644);
    ::chmod((Database() + "-journal").c_str(), 0644);
    EventStore store(m_work);
    EXPECT_EQ(store.Write(SampleEvent("two")), 2);
    EXPECT_EQ(::Test::ModeOf(Database()), mode_t(0600));
    EXPECT_EQ(::Test::ModeOf(Database() + "-journal"), mode_t(0600));
}

TEST_F(EventDatabase, PendingFileIsForTheOwnerAlone)
{
    const ::Test::FileModeMask open(0);
    std::filesystem::create_directory(Database());
    const ::Test::DiskLogCatcher log;
    EventStore store(m_work);
    EXPECT_EQ(store.Write(SampleEvent("one")), 0);
    EXPECT_EQ(::Test::ModeOf(Pending()), mode_t(0600));
    ::chmod(Pending().c_str(), 0644); // as an older version left it
    EXPECT_EQ(store.Write(SampleEvent("two")), 0);
    EXPECT_EQ(::Test::ModeOf(Pending()), mode_t(0600));
    std::filesystem::remove(Database());
    EXPECT_EQ(store.Write(SampleEvent("three")), 3);
    EXPECT_EQ(Stored(), "one;two;three;");
}

TEST_F(EventDatabase, LinesWithAnEventGoPastTheFrameworkAndTheirBytesStayWhatTheyAre)
{
    m_work += "/caf\xE9";
    const ::Test::DiskLogCatcher log;
    wxLog::SetLogLevel(wxLOG_FatalError);
    const std::string large(70000, 'L');
    const std::string keptInMemory = "Agent event kept in memory, because neither '" + Database() + "' (";
    EventStore store(m_work);
    {
        ::Test::StandardError standardError;
        store.Write(SampleEvent(large));
        standardError.Text();
    }
    std::filesystem::create_directories(Database());
    store.Write(SampleEvent("one"));
    std::filesystem::remove(Database());
    ::Test::WriteFile(Pending(), ::Test::ReadFile(Pending()) + "caf\xE9\n");
    EXPECT_EQ(store.Write(SampleEvent("two")), 3);
    ASSERT_EQ(log.Lines().size(), 3u) << log.All();
    EXPECT_EQ(log.Count(wxLOG_Error, keptInMemory), 1u) << log.All();
    const std::string& cut = log.Lines()[0].text;
    EXPECT_NE(cut.find("LLL ... (cut, " + std::to_string(cut.find('<') + SampleEvent(large).ToXml().size())
                       + " bytes in all)"),
              std::string::npos)
        << cut.substr(cut.size() - 100);
    EXPECT_EQ(log.Lines()[1].text,
              Kept("'" + Database() + "' is not used, because it is no regular file: remove it", "one"));
    EXPECT_EQ(log.Lines()[2].text, "A line of '" + Pending() + "' is no event and is left out: caf\xE9");
}

TEST_F(EventDatabase, LinksOfAnotherUserAreNeitherDatabaseNorPendingFile)
{
    const ::Test::TempFolder victim;
    for (const auto& [name, link] : {std::pair("db", Database()), std::pair("pending", Pending())}) {
        std::filesystem::create_symlink(victim / name, link);
        GIVE_AWAY(link);
    }
    const std::string why =
        "' is not followed, because the link belongs to user 1000: give it to root or to the user of "
        "this process, or remove it)";
    EventStore store(m_work);
    ::Test::DiskLogCatcher log;
    ::Test::StandardError standardError;
    EXPECT_EQ(store.Write(SampleEvent("one")), 0);
    standardError.Text();
    EXPECT_EQ(store.InMemory(), 1u);
    EXPECT_TRUE(std::filesystem::is_empty(victim.Path()));
    EXPECT_EQ(log.Text(), "Agent event kept in memory, because neither '" + Database() + "' ('" + Database() + why
                              + " nor '" + Pending() + "' ('" + Pending() + why
                              + " took it: " + SampleEvent("one").ToXml() + "\n");
    std::filesystem::remove(Pending());
    EXPECT_EQ(store.Write(SampleEvent("two")), 0);
    EXPECT_TRUE(Exists(Pending()));
    std::filesystem::remove(Database());
    EXPECT_EQ(store.Write(SampleEvent("three")), 3);
    EXPECT_EQ(Stored(), "one;two;three;");
}

TEST_F(EventDatabase, EventsThatAnotherUserLeftInAPendingFileAreNotStored)
{
    EventRecord record;
    record.key = "k";
    record.xml = SampleEvent("planted").ToXml();
    ::Test::WriteFile(Pending(), FormatPendingLine(record));
    GIVE_AWAY(Pending());
    EventStore store(m_work);
    ::Test::DiskLogCatcher log;
    EXPECT_EQ(store.Write(SampleEvent("one")), 1);
    EXPECT_EQ(log.Count(wxLOG_Error, "Unable to take the events out of '" + Pending() + "' ('" + Pending()
                                         + "' is not used, because it belongs to user 1000"),
              1u)
        << log.All();
    EXPECT_EQ(Stored(), "one;");
}

TEST_F(EventDatabase, TableHasTheFormThatToolsRelyOn)
{
    EventStore(m_work).Write(SampleEvent("e"));
    SqliteConnection db;
    ASSERT_TRUE(db.Open(Database(), 0));
    SqliteStatement row(db, "SELECT sql FROM sqlite_master WHERE name = 'agent_event'");
    ASSERT_EQ(row.Step(), SqliteStatement::StepResult::Row);
    EXPECT_EQ(row.ColumnText(0), "CREATE TABLE agent_event(id INTEGER PRIMARY KEY, time_ms INTEGER, time_s INTEGER, "
                                 "number INTEGER, severity INTEGER, text TEXT, xml TEXT, key TEXT)");
}

TEST_F(EventDatabase, EachEventIsStoredWithAKeyOfItsOwn)
{
    EventStore store(m_work);
    store.Write(SampleEvent("one"));
    store.Write(SampleEvent("one"));
    const std::vector<std::string> keys = StoredKeys();
    ASSERT_EQ(keys.size(), 2u);
    EXPECT_NE(keys[0], keys[1]);
    for (const std::string& key : keys)
        EXPECT_TRUE(key.size() == 32 && key.find_first_not_of("0123456789abcdef") == std::string::npos) << key;
    EXPECT_EQ(FirstOf("SELECT group_concat(key) FROM (SELECT key FROM agent_event_key ORDER BY seq)"),
              keys[0] + "," + keys[1])
        << "it is the one that keeps it from being stored twice";
}

TEST_F(EventDatabase, AnEventThatWaitedKeepsItsKey)
{
    std::filesystem::create_directory(Database());
    {
        const ::Test::DiskLogCatcher log;
        EventStore(m_work).Write(SampleEvent("pending"));
    }
    const std::string pending = ::Test::ReadFile(Pending());
    std::filesystem::remove(Database());
    EXPECT_TRUE(EventStore(m_work).StoreKept());
    ASSERT_EQ(StoredKeys().size(), 1u);
    EXPECT_NE(pending.find("<pending key=\"" + StoredKeys()[0] + "\">"), std::string::npos) << pending;
    // In another database it has another id.
    std::filesystem::remove(Database());
    ::Test::WriteFile(Pending(), "\n<pending key=\"k1\"><agent_event/></pending>\n" + pending);
    EXPECT_TRUE(EventStore(m_work).StoreKept());
    EXPECT_EQ(StoredKeys().at(0), "k1");
    EXPECT_NE(pending.find(StoredKeys().at(1)), std::string::npos) << pending;
}

TEST_F(EventDatabase, ADatabaseOfAnEarlierAgentGetsKeysInPlaceAndItsEventsStay)
{
    MakeEarlierDatabase();
    {
        const ::Test::DiskLogCatcher log;
        EventStore store(m_work);
        EXPECT_EQ(store.Write(SampleEvent("new")), 2);
        EXPECT_EQ(EventStore(m_work).Write(SampleEvent("newer")), 3) << "and once is enough";
        EXPECT_EQ(log.All(), "");
    }
    EXPECT_EQ(Stored(), "earlier;new;newer;");
    ASSERT_EQ(StoredKeys().size(), 3u);
    EXPECT_EQ(StoredKeys()[0], "(none)");
    EXPECT_EQ(StoredKeys()[1].size(), 32u);
    EXPECT_EQ(FirstOf("SELECT count(*) FROM sqlite_master WHERE name = 'agent_event_by_key'"), "1");
}

TEST_F(EventDatabase, AnEarlierAgentWritesOnIntoADatabaseWithKeys)
{
    EventStore(m_work).Write(SampleEvent("new"));
    {
        SqliteConnection db;
        ASSERT_TRUE(db.Open(Database(), 0));
        ASSERT_TRUE(db.Exec(earlierTables)) << db.Error();
        ASSERT_TRUE(db.Exec(earlierInsert)) << db.Error();
    }
    EXPECT_EQ(EventStore(m_work).Write(SampleEvent("new again")), 3);
    EXPECT_EQ(Stored(), "new;earlier;new again;");
    EXPECT_EQ(StoredKeys()[1], "(none)");
}

TEST_F(EventDatabase, AnUpgradeThatDoesNotSucceedKeepsTheEventAndIsTriedAgain)
{
    MakeEarlierDatabase();
    SqliteConnection other;
    ASSERT_TRUE(other.Open(Database(), 0));
    ASSERT_TRUE(other.Exec("CREATE TABLE agent_event_by_key(taken)")); // the name of the index
    {
        const ::Test::DiskLogCatcher log;
        EXPECT_EQ(EventStore(m_work).Write(SampleEvent("new")), 0);
        EXPECT_EQ(log.Lines().size(), 1u) << log.All();
    }
    EXPECT_EQ(FirstOf("SELECT count(*) FROM pragma_table_info('agent_event')"), "7") << "all of it or nothing";
    ASSERT_TRUE(other.Exec("DROP TABLE agent_event_by_key"));
    EXPECT_TRUE(EventStore(m_work).StoreKept());
    EXPECT_EQ(Stored(), "earlier;new;");
}

TEST_F(EventDatabase, KeysOfTheLastThousandEventsAreKeptAndOlderOnesAreNot)
{
    EventStore(m_work).Write(SampleEvent("first"));
    {
        SqliteConnection db;
        ASSERT_TRUE(db.Open(Database(), 0)) << db.Error();
        ASSERT_TRUE(db.Exec("WITH RECURSIVE n(i) AS (SELECT 2 UNION ALL SELECT i + 1 FROM n WHERE i < 1500) "
                            "INSERT INTO agent_event_key(seq, key) SELECT i, 'key' || i FROM n"))
            << db.Error();
    }
    EventStore(m_work).Write(SampleEvent("last"));
    EXPECT_EQ(FirstOf("SELECT max(seq) FROM agent_event_key"), "1501");
    EXPECT_EQ(FirstOf("SELECT min(seq) FROM agent_event_key"), "500");
    EXPECT_EQ(FirstOf("SELECT count(*) FROM agent_event_key"), "1002");
}

TEST_F(EventDatabase, AbsentFieldsAreNull)
{
    EventStore store(m_work);
    EXPECT_EQ(store.Write(CAgentEvent()), 1);
    SqliteConnection db;
    ASSERT_TRUE(db.Open(Database(), 0));
    SqliteStatement row(db, "SELECT time_ms, time_s, number, severity, text, xml FROM agent_event");
    ASSERT_EQ(row.Step(), SqliteStatement::StepResult::Row);
    for (int column = 0; column < 5; ++column)
        EXPECT_TRUE(row.ColumnIsNull(column)) << column;
    EXPECT_EQ(row.ColumnText(5), "<agent_event/>");
}

TEST_F(EventDatabase, IdsGrowByOne)
{
    EventStore store(m_work);
    for (int id = 1; id <= 5; ++id)
        EXPECT_EQ(store.Write(SampleEvent("e")), id);
    EventStore again(m_work);
    EXPECT_EQ(again.Write(SampleEvent("e")), 6);
}

TEST_F(EventDatabase, EventsBeyondTheirNumberGoTheOldestFirst)
{
    m_dom->Set("app.events.keeprows", "3");
    EventStore store(m_work);
    for (int id = 1; id <= 5; ++id)
        EXPECT_EQ(store.Write(SampleEvent("e" + std::to_string(id))), id);
    EXPECT_EQ(Stored(), "e3;e4;e5;");
    m_dom->Set("app.events.keeprows", "1");
    EXPECT_EQ(store.Write(SampleEvent("e6")), 6);
    EXPECT_EQ(Stored(), "e6;");
}

TEST_F(EventDatabase, EventsBeyondTheirAgeGoAFewAtATimeAndTheLatestStays)
{
    EventStore store(m_work);
    for (int id = 1; id <= 50; ++id)
        store.Write(SampleEvent("old"));
    const auto recent = [] {
        CAgentEvent event = SampleEvent("recent");
        event.m_timeMillis = TimeNowMillis() - std::int64_t{89} * 86400000;
        return event;
    };
    m_dom->Remove("app.events.keepdays");
    for (const int left : {30, 10, 0}) {
        store.Write(recent());
        EXPECT_EQ(CountOf(Stored(), "old"), left);
    }
    EXPECT_EQ(Stored(), "recent;recent;recent;");
    m_dom->Set("app.events.keepdays", "1");
    EXPECT_EQ(store.Write(recent()), 54);
    EXPECT_EQ(Stored(), "recent;") << "or its id would be given again";
    EXPECT_EQ(store.Write(recent()), 55);
}

TEST_F(EventDatabase, WhereManyAreKeptTheOldestGoWithOneEventInSixteenAndWithTheFirst)
{
    m_dom->Set("app.events.keeprows", "1100");
    EventStore store(m_work);
    store.Write(SampleEvent("event"));
    {
        SqliteConnection db;
        ASSERT_TRUE(db.Open(Database(), 0)) << db.Error();
        ASSERT_TRUE(db.Exec("WITH RECURSIVE n(i) AS (SELECT 2 UNION ALL SELECT i + 1 FROM n WHERE i < 1150) "
                            "INSERT INTO agent_event(id, text) SELECT i, 'row' FROM n"))
            << db.Error();
    }
    const auto rows = [this] { return FirstOf("SELECT count(*) FROM agent_event"); };
    EXPECT_EQ(EventStore(m_work).Write(SampleEvent("event")), 1151);
    EXPECT_EQ(rows(), "1130") << "the first of a process";
    for (int i = 1; i < 16; ++i)
        store.Write(SampleEvent("event"));
    EXPECT_EQ(rows(), "1145");
    store.Write(SampleEvent("event"));
    EXPECT_EQ(rows(), "1126") << "more than came";
}

TEST_F(EventDatabase, AttemptsThatFailLetNoOldEventsGo)
{
    m_dom->Set("app.events.keeprows", "1100");
    EventStore store(m_work);
    store.Write(SampleEvent("event")); // old ones could go with it, and so they do with the sixteenth from here on
    SqliteConnection other;
    ASSERT_TRUE(other.Open(Database(), 0)) << other.Error();
    ASSERT_TRUE(other.Exec("WITH RECURSIVE n(i) AS (SELECT 2 UNION ALL SELECT i + 1 FROM n WHERE i < 1150) "
                           "INSERT INTO agent_event(id, text) SELECT i, 'row' FROM n;"
                           "CREATE TRIGGER t BEFORE INSERT ON agent_event BEGIN SELECT RAISE(ABORT, 'stuck'); END"))
        << other.Error();
    {
        const ::Test::DiskLogCatcher log;
        for (int i = 0; i < 10; ++i)
            EXPECT_EQ(store.Write(SampleEvent("event")), 0);
    }
    ASSERT_TRUE(other.Exec("DROP TRIGGER t")) << other.Error();
    store.Write(SampleEvent("event"));
    EXPECT_EQ(FirstOf("SELECT count(*) FROM agent_event"), "1161");
}

TEST_F(EventDatabase, WhereManyComeAtOnceTheOldestGoAHundredAtATime)
{
    m_dom->Set("app.events.keeprows", "100");
    {
        const ::Test::DiskLogCatcher log;
        ASSERT_TRUE(std::filesystem::create_directory(Database()));
        EventStore store(m_work);
        for (int i = 0; i < 250; ++i)
            store.Write(SampleEvent("kept"));
        ASSERT_TRUE(std::filesystem::remove(Database()));
    }
    EventStore store(m_work);
    const auto rows = [this] { return FirstOf("SELECT count(*) FROM agent_event"); };
    ASSERT_TRUE(store.StoreKept());
    EXPECT_EQ(rows(), "150");
    store.Write(SampleEvent("event"));
    EXPECT_EQ(rows(), "100");
}

TEST_F(EventDatabase, EventsThatComeAtTheSameTimeAreFlushedTogether)
{
    constexpr int count = 40;
    SqliteSettings settings;
    settings.busyTimeoutMs = 600'000; // longer than anybody has to wait
    SetSqliteSettings(settings);
    SqliteConnection other;
    ASSERT_TRUE(other.Open(Database(), 0)) << other.Error();
    const CommitCount commits;
    EventStore store(m_work);
    store.Write(SampleEvent("first"));
    const int before = commits.Count();
    EXPECT_GE(before, 1) << "they are not counted";
    ASSERT_TRUE(other.Exec("BEGIN IMMEDIATE")) << other.Error();
    m_dom->Remove("app.events.keeprows");
    std::vector<std::int64_t> ids(count);
    std::vector<::Test::JoiningThread> threads;
    for (std::int64_t& id : ids)
        threads.emplace_back([&store, &id] { id = store.Write(SampleEvent("together")); });
    while (store.BeingWritten() < count)
        std::this_thread::yield();
    EXPECT_TRUE(other.Exec("COMMIT")) << other.Error();
    for (::Test::JoiningThread& thread : threads)
        thread.join();
    EXPECT_LE(commits.Count() - before, 2) << "what the first thread took along, and the rest";
    std::sort(ids.begin(), ids.end());
    for (int i = 0; i < count; ++i)
        EXPECT_EQ(ids[static_cast<std::size_t>(i)], i + 2) << "each has an id of its own";
}

TEST_F(EventDatabase, OfEventsThatComeTogetherOneThatIsNotTakenKeepsNoOtherOut)
{
    constexpr int count = 20;
    EventStore store(m_work);
    store.Write(SampleEvent("first"));
    SqliteConnection other;
    ASSERT_TRUE(other.Open(Database(), 0));
    ASSERT_TRUE(other.Exec("CREATE TRIGGER t BEFORE INSERT ON agent_event WHEN NEW.text = 'bad' "
                           "BEGIN SELECT RAISE(ABORT, 'stuck'); END"));
    const ::Test::DiskLogCatcher log;
    std::vector<std::int64_t> ids(count);
    std::vector<::Test::JoiningThread> threads;
    const auto write = [&](int i) {
        threads.emplace_back([&store, &ids, i] {
            ids[static_cast<std::size_t>(i)] = store.Write(SampleEvent(i == 7 ? "bad" : "good"));
        });
    };
    {
        // The first is at the database until all others wait, and so these go together.
        std::atomic<bool> isAtDatabase{false};
        const ::Test::CallWatch watch([&](const os::Call& call) {
            if (call.name == "stat"sv && call.path == Database() && !isAtDatabase.exchange(true))
                while (store.BeingWritten() < count)
                    std::this_thread::yield();
            return 0;
        });
        write(0);
        while (!isAtDatabase)
            std::this_thread::yield();
        for (int i = 1; i < count; ++i)
            write(i);
        for (::Test::JoiningThread& thread : threads)
            thread.join();
    }
    for (int i = 0; i < count; ++i)
        EXPECT_EQ(ids[static_cast<std::size_t>(i)] == 0, i == 7) << i;
    ASSERT_TRUE(other.Exec("DROP TRIGGER t"));
    EXPECT_TRUE(store.StoreKept());
    const std::string all = Stored();
    EXPECT_EQ(CountOf(all, "good"), count - 1);
    EXPECT_EQ(CountOf(all, "bad"), 1);
    EXPECT_FALSE(Exists(Pending()));
}

TEST_F(EventDatabase, EventsThatAreNeverTooOldDoNotKeepOthersFromGoing)
{
    EventStore store(m_work);
    for (int number = 1; number <= 25; ++number) {
        CAgentEvent event = SampleEvent("stays");
        if (number % 2)
            event.m_timeMillis = TimeNowMillis() + std::int64_t{1000} * 86400000;
        else
            event.SetAttributeNull(CAgentEvent::FieldTimeMillis, true);
        store.Write(event);
    }
    for (int number = 1; number <= 5; ++number)
        store.Write(SampleEvent("old"));
    m_dom->Remove("app.events.keepdays");
    store.Write(SampleEvent("latest"));
    EXPECT_EQ(CountOf(Stored(), "old"), 0);
    EXPECT_EQ(CountOf(Stored(), "stays"), 25);
    EXPECT_EQ(CountOf(Stored(), "latest"), 1);
    m_dom->Set("app.events.keeprows", "20"); // of the ids up to 32
    store.Write(SampleEvent("latest"));
    EXPECT_EQ(CountOf(Stored(), "stays"), 13);
}

TEST_F(EventDatabase, EventsOfAClockThatWasSetBackGoWithThoseBeforeThem)
{
    const auto dated = [](const char* text, std::int64_t timeMillis) {
        CAgentEvent event = SampleEvent(text);
        event.m_timeMillis = timeMillis;
        return event;
    };
    const std::int64_t now = TimeNowMillis();
    EventStore store(m_work);
    store.Write(dated("old", now - 91 * dayMs));
    store.Write(dated("recent", now - 89 * dayMs));
    for (int i = 0; i < 30; ++i) // more than go at once, and the oldest by their dates
        store.Write(dated("misdated", i));
    store.Write(dated("behind them", now));
    m_dom->Remove("app.events.keepdays");
    store.Write(dated("latest", now));
    EXPECT_EQ(CountOf(Stored(), "old"), 0);
    EXPECT_EQ(CountOf(Stored(), "recent"), 1);
    EXPECT_EQ(CountOf(Stored(), "misdated"), 30);
    m_dom->Set("app.events.keepdays", "1");
    store.Write(dated("latest", now));
    store.Write(dated("latest", now));
    EXPECT_EQ(Stored(), "behind them;latest;latest;latest;");
}

TEST_F(EventDatabase, AClockThatIsSetForwardMakesNothingOlderWhileTheProcessRuns)
{
    static std::int64_t s_now;
    s_now = 1'000'000'000'000;
    const EventStore::WallClock clock = [] { return s_now; };
    const auto write = [](EventStore& store, const char* text) {
        CAgentEvent event = SampleEvent(text);
        event.m_timeMillis = s_now;
        store.Write(event);
    };
    m_dom->Remove("app.events.keepdays");
    EventStore store(m_work, clock);
    write(store, "before");
    s_now += 3650 * dayMs;
    write(store, "after");
    EXPECT_EQ(Stored(), "before;after;");
    s_now -= 3650 * dayMs;
    write(store, "set right");
    EXPECT_EQ(Stored(), "before;after;set right;");
    s_now += 3650 * dayMs;
    EventStore another(m_work, clock); // which has known no other time
    write(another, "later");
    EXPECT_EQ(Stored(), "after;set right;later;");
}

TEST_F(EventDatabase, AnEventIsStoredAlsoWhenOldOnesCannotGo)
{
    m_dom->Set("app.events.keeprows", "1");
    EventStore store(m_work);
    ASSERT_EQ(store.Write(SampleEvent("one")), 1);
    SqliteConnection other;
    ASSERT_TRUE(other.Open(Database(), 0));
    for (const char* action : {"ABORT", "ROLLBACK"}) {
        const std::string sql = "CREATE TRIGGER t BEFORE DELETE ON agent_event BEGIN SELECT RAISE("
                                + std::string(action) + ", 'stuck'); END";
        ASSERT_TRUE(other.Exec(sql.c_str())) << other.Error();
        const ::Test::DiskLogCatcher log;
        EXPECT_GT(store.Write(SampleEvent("more")), 0) << action;
        EXPECT_EQ(log.Count(wxLOG_Warning, "Old agent events can't be removed from '" + Database() + "' (stuck)"), 1u)
            << log.All();
        EXPECT_EQ(log.Lines().size(), 1u) << log.All();
        ASSERT_TRUE(other.Exec("DROP TRIGGER t")) << other.Error();
    }
    EXPECT_EQ(Stored(), "one;more;more;");
    EXPECT_FALSE(Exists(Pending()));
    EXPECT_EQ(store.Write(SampleEvent("last")), 4);
    EXPECT_EQ(Stored(), "last;");
}

TEST_F(EventDatabase, EventThatTheTableDoesNotTakeIsKeptAndStoredLater)
{
    EventStore store(m_work);
    ASSERT_EQ(store.Write(SampleEvent("one")), 1);
    SqliteConnection other;
    ASSERT_TRUE(other.Open(Database(), 0));
    ASSERT_TRUE(other.Exec("CREATE TRIGGER t BEFORE INSERT ON agent_event BEGIN SELECT RAISE(ABORT, 'stuck'); END"));
    {
        const ::Test::DiskLogCatcher log;
        EXPECT_EQ(store.Write(SampleEvent("two")), 0);
        EXPECT_EQ(log.Text(), Kept("stuck", "two") + "\n");
    }
    ASSERT_TRUE(other.Exec("DROP TRIGGER t"));
    EXPECT_EQ(store.Write(SampleEvent("three")), 3);
    EXPECT_EQ(Stored(), "one;two;three;");
}

TEST_F(EventDatabase, WhatWaitedIsBoundedToo)
{
    m_dom->Set("app.events.keeprows", "3");
    std::filesystem::create_directory(Database());
    {
        const ::Test::StandardError quiet;
        const ::Test::DiskLogCatcher log;
        EventStore store(m_work);
        for (int number = 1; number <= 5; ++number)
            store.Write(SampleEvent("w" + std::to_string(number)));
    }
    std::filesystem::remove(Database());
    EXPECT_TRUE(EventStore(m_work).StoreKept());
    EXPECT_EQ(Stored(), "w3;w4;w5;");
}

TEST_F(EventDatabase, LockedDatabaseMeansPendingFileThenDatabaseOnce)
{
    EventStore store(m_work);
    ASSERT_EQ(store.Write(SampleEvent("first")), 1);
    SqliteConnection other;
    ASSERT_TRUE(other.Open(Database(), 0));
    ASSERT_TRUE(other.Exec("BEGIN EXCLUSIVE"));
    {
        ::Test::DiskLogCatcher log;
        EXPECT_EQ(store.Write(SampleEvent("second")), 0);
        EXPECT_EQ(store.Write(SampleEvent("third")), 0);
        EXPECT_EQ(log.Count(wxLOG_Error, Kept("database is locked", "second")), 1u) << log.All();
        EXPECT_EQ(log.Count(wxLOG_Error, Kept("database is locked", "third")), 1u) << log.All();
        EXPECT_EQ(log.Lines().size(), 2u) << log.All();
    }
    EXPECT_NE(::Test::ReadFile(Pending()).find("text=\"second\""), std::string::npos);
    ASSERT_TRUE(other.Exec("ROLLBACK"));
    other.Close();
    ::Test::DiskLogCatcher log;
    EXPECT_EQ(store.Write(SampleEvent("fourth")), 4);
    EXPECT_EQ(Stored(), "first;second;third;fourth;");
    EXPECT_FALSE(Exists(Pending()));
    EXPECT_TRUE(log.Lines().empty()) << log.All();
}

TEST_F(EventDatabase, PendingEventsKeepAllTheirFields)
{
    const CAgentEvent event = SampleEvent("it's \"<&>\"\n\t\xC3\xA4");
    std::filesystem::create_directory(Database());
    {
        ::Test::DiskLogCatcher log;
        EventStore store(m_work);
        EXPECT_EQ(store.Write(event), 0);
        EXPECT_EQ(store.Write(CAgentEvent()), 0);
    }
    std::filesystem::remove(Database());
    EventStore store(m_work);
    EXPECT_TRUE(store.StoreKept());
    SqliteConnection db;
    ASSERT_TRUE(db.Open(Database(), 0));
    SqliteStatement row(db, "SELECT time_ms, time_s, number, severity, text, xml FROM agent_event ORDER BY id");
    ASSERT_EQ(row.Step(), SqliteStatement::StepResult::Row);
    EXPECT_EQ(row.ColumnInt(0), event.m_timeMillis);
    EXPECT_EQ(row.ColumnInt(1), event.m_timeSeconds);
    EXPECT_EQ(row.ColumnInt(2), event.m_number);
    EXPECT_EQ(row.ColumnInt(3), event.m_severity);
    EXPECT_EQ(row.ColumnText(4), event.m_text);
    EXPECT_EQ(row.ColumnText(5), event.ToXml());
    ASSERT_EQ(row.Step(), SqliteStatement::StepResult::Row);
    EXPECT_TRUE(row.ColumnIsNull(0));
    EXPECT_TRUE(row.ColumnIsNull(4));
    EXPECT_EQ(row.ColumnText(5), "<agent_event/>");
}

TEST_F(EventDatabase, PendingFileSeenTwiceIsStoredOnce)
{
    std::filesystem::create_directory(Database());
    ::Test::DiskLogCatcher log;
    EventStore store(m_work);
    store.Write(SampleEvent("once"));
    const std::string pending = ::Test::ReadFile(Pending());
    std::filesystem::remove(Database());
    EXPECT_TRUE(store.StoreKept());
    ::Test::WriteFile(Pending(), pending + pending); // as if the removal had been lost
    EXPECT_EQ(store.Write(SampleEvent("next")), 2);
    EXPECT_EQ(Stored(), "once;next;");
}

TEST_F(EventDatabase, PendingFileThatCannotBeRemovedIsEmptied)
{
    EventStore store(m_work);
    ::Test::WriteFile(Pending(), "\n<pending key=\"k1\"><agent_event text=\"kept\"/></pending>\n");
    ::Test::DiskLogCatcher log;
    {
        const ::Test::CallWatch locked([](const os::Call& call) { return call.name == "unlink"sv ? EPERM : 0; });
        EXPECT_TRUE(store.StoreKept());
        EXPECT_EQ(store.Write(SampleEvent("next")), 2);
        EXPECT_EQ(::Test::ReadFile(Pending()), "");
    }
    EXPECT_EQ(store.Write(SampleEvent("last")), 3);
    EXPECT_FALSE(Exists(Pending()));
    EXPECT_EQ(Stored(), "kept;next;last;");
    EXPECT_TRUE(log.Lines().empty()) << log.All();
}

TEST_F(EventDatabase, PendingFileThatCannotBeChangedIsStoredOnceHoweverManyEventsFollow)
{
    m_dom->Remove("app.events.keeprows");
    EventStore store(m_work);
    ::Test::WriteFile(Pending(), "\n<pending key=\"k1\"><agent_event text=\"kept\"/></pending>\n");
    ::Test::DiskLogCatcher log;
    constexpr int more = 1100; // than keys are remembered otherwise
    {
        const ::Test::CallWatch locked(
            [](const os::Call& call) { return call.name == "unlink"sv || call.name == "ftruncate"sv ? EPERM : 0; });
        for (int i = 0; i < more; ++i)
            store.Write(SampleEvent("e"));
    }
    EXPECT_EQ(log.Count(wxLOG_Error, "Unable to take the events out of"), static_cast<std::size_t>(more));
    EXPECT_TRUE(store.StoreKept());
    EXPECT_FALSE(Exists(Pending()));
    EXPECT_EQ(CountOf(Stored(), "kept"), 1);
}

TEST_F(EventDatabase, PendingFileThatIsAnotherEachTimeIsGivenUp)
{
    EventStore store(m_work);
    std::filesystem::create_directory(Database());
    const ::Test::DiskLogCatcher log;
    ::Test::StandardError standardError;
    const ::Test::CallWatch exchanged([this](const os::Call& call) {
        if (call.name != "stat"sv || call.path != Pending())
            return 0;
        ::stat("/", call.status);
        return os::callAnswered;
    });
    EXPECT_EQ(store.Write(SampleEvent("one")), 0);
    standardError.Text();
    EXPECT_EQ(store.InMemory(), 1u);
    EXPECT_NE(log.Text().find(" nor '" + Pending() + "' (Resource temporarily unavailable) took it: <agent_event "),
              std::string::npos)
        << log.All();
}

TEST_F(EventDatabase, FolderInThePlaceOfThePendingFileHoldsNoEvents)
{
    EventStore store(m_work);
    std::filesystem::create_directory(Pending());
    ::Test::DiskLogCatcher log;
    EXPECT_TRUE(store.StoreKept());
    EXPECT_EQ(log.All(), "");
}

TEST_F(EventDatabase, LineCutShortIsAnErrorLineAndTheOthersAreStored)
{
    EventStore store(m_work);
    ::Test::WriteFile(Pending(), "\n<pending key=\"k1\"><agent_event text=\"good\"/></pending>\n"
                                 "\n<pending key=\"k2\"><agent_event text=\"cut");
    ::Test::DiskLogCatcher log;
    EXPECT_EQ(store.Write(SampleEvent("next")), 2);
    EXPECT_EQ(Stored(), "good;next;");
    EXPECT_EQ(
        log.Count(wxLOG_Error, "A line of '" + Pending()
                                   + "' is no event and is left out: <pending key=\"k2\"><agent_event text=\"cut"),
        1u)
        << log.All();
    EXPECT_FALSE(Exists(Pending()));
}

TEST_F(EventDatabase, NothingToWriteInMeansMemoryAndStandardErrorThenDatabaseOnce)
{
    m_work += "/not-there-yet";
    EventStore store(m_work);
    ::Test::DiskLogCatcher log;
    ::Test::StandardError standardError;
    EXPECT_EQ(store.Write(SampleEvent("one")), 0);
    EXPECT_EQ(store.Write(SampleEvent("two")), 0);
    const std::string shown = standardError.Text();
    EXPECT_EQ(store.InMemory(), 2u);
    EXPECT_NE(shown.find("text=\"one\""), std::string::npos) << shown;
    EXPECT_NE(shown.find("text=\"two\""), std::string::npos) << shown;
    EXPECT_EQ(log.Count(wxLOG_Error, "Agent event kept in memory, because neither '" + Database() + "' ("), 2u)
        << log.All();
    std::filesystem::create_directory(m_work);
    EXPECT_EQ(store.Write(SampleEvent("three")), 3);
    EXPECT_EQ(store.InMemory(), 0u);
    EXPECT_EQ(Stored(), "one;two;three;");
}

TEST_F(EventDatabase, LastResortShowsAnEventWholeAndItsControlCharactersVisibly)
{
    m_work += "/later";
    const std::string more(70000, 'L');
    const std::string text = "a\xC2\x9B[31mb\xE2\x80\xA8"
                             "c\x7F"
                             + more;
    EventStore store(m_work);
    ::Test::DiskLogCatcher log;
    ::Test::StandardError standardError;
    EXPECT_EQ(store.Write(SampleEvent(text)), 0);
    EXPECT_EQ(standardError.Text(), "Agent event not stored yet: "
                                        + SampleEvent("a\\xC2\\x9B[31mb\\xE2\\x80\\xA8c\\x7F" + more).ToXml() + "\n");
    std::filesystem::create_directories(Database());
    EXPECT_FALSE(store.StoreKept());
    EXPECT_NE(::Test::ReadFile(Pending()).find(SampleEvent(text).ToXml()), std::string::npos);
    std::filesystem::remove(Database());
    EXPECT_TRUE(store.StoreKept());
    EXPECT_EQ(Stored(), text + ";");
}

TEST_F(EventDatabase, EventThatIsLostForWantOfMemoryIsShownVisiblyAsFarAsThereIsRoom)
{
#ifdef VEX_TEST_SANITIZED
    GTEST_SKIP() << "the sanitizers' own memory is over any limit of the address space";
#else
    m_dom->Set("app.path.work", m_work);
    CAgentEvent event = SampleEvent("a\x1B[31m" + std::string(std::size_t{1} << 27, 'x'));
    ::Test::StandardError standardError;
    {
        const ::Test::AddressLimit lessThanACopy(std::size_t{32} << 20);
        EXPECT_EQ(m_dom->AgentEventWrite(event), 0);
    }
    const std::string shown = standardError.Text();
    CloseEventStores();
    const std::string begin = "Agent event lost: std::bad_alloc: a\\x1B[31mxxx";
    const std::string end = "xxx ... (cut, 134217734 bytes in all)\n";
    EXPECT_EQ(shown.substr(0, begin.size()), begin);
    EXPECT_EQ(shown.substr(shown.size() - std::min(shown.size(), end.size())), end);
#endif
}

TEST_F(EventDatabase, MemoryGoesToThePendingFileWhenOnlyThatHasRoom)
{
    m_work += "/later";
    EventStore store(m_work);
    ::Test::DiskLogCatcher log;
    ::Test::StandardError standardError;
    store.Write(SampleEvent("one"));
    standardError.Text();
    std::filesystem::create_directories(Database());
    EXPECT_EQ(store.Write(SampleEvent("two")), 0);
    EXPECT_EQ(store.InMemory(), 0u);
    std::filesystem::remove(Database());
    EXPECT_TRUE(store.StoreKept());
    EXPECT_EQ(Stored(), "one;two;");
}

TEST_F(EventDatabase, MemoryIsBoundedAndSaysWhatItGivesUp)
{
    m_work += "/never";
    EventStore store(m_work);
    ::Test::DiskLogCatcher log;
    ::Test::StandardError standardError;
    const std::size_t extra = EventStore::maxInMemory > 100 ? 0 : 2;
    for (std::size_t i = 0; i < EventStore::maxInMemory + extra && extra > 0; ++i)
        store.Write(SampleEvent("e" + std::to_string(i)));
    const std::string shown = standardError.Text();
    if (extra == 0)
        GTEST_SKIP() << "the limit of this build is large";
    EXPECT_EQ(store.InMemory(), EventStore::maxInMemory);
    EXPECT_EQ(log.Count(wxLOG_Error, "Too many agent events are kept in memory, this one goes: <agent_event "), 2u);
    EXPECT_NE(shown.find("given up: <agent_event time_ms=\"1700000000123\" time_s=\"1700000000\" number=\"5101\""
                         " severity=\"5\" text=\"e1\"/>"),
              std::string::npos)
        << shown;
}

TEST_F(EventDatabase, DamagedDatabaseIsMovedAsideAndANewOneBegins)
{
    ::Test::WriteFile(Database(), std::string(8192, 'x'));
    ::Test::DiskLogCatcher log;
    EventStore store(m_work);
    EXPECT_EQ(store.Write(SampleEvent("event")), 1);
    EXPECT_EQ(Stored(), "event;");
    EXPECT_EQ(log.Count(wxLOG_Error, "The event database '" + Database()
                                         + "' is damaged (file is not a database): kept as '" + Database()
                                         + ".damaged-"),
              1u)
        << log.All();
    EXPECT_EQ(log.Lines().size(), 1u) << log.All();
    int kept = 0;
    for (const auto& item : std::filesystem::directory_iterator(m_work))
        if (item.path().filename().string().find("events.db.damaged-") == 0)
            kept += ::Test::ReadFile(item.path().string()) == std::string(8192, 'x') ? 1 : 0;
    EXPECT_EQ(kept, 1);
}

TEST_F(EventDatabase, DatabasesDamagedWithinOneSecondAreAllKept)
{
    ::Test::DiskLogCatcher log;
    EventStore store(m_work);
    for (const char letter : {'x', 'y', 'z'}) {
        ::Test::WriteFile(Database(), std::string(8192, letter));
        EXPECT_EQ(store.Write(SampleEvent("event")), 1);
    }
    std::string kept;
    for (const auto& item : std::filesystem::directory_iterator(m_work))
        if (item.path().filename().string().find("events.db.damaged-") == 0)
            kept += ::Test::ReadFile(item.path().string()).substr(0, 1);
    std::sort(kept.begin(), kept.end());
    EXPECT_EQ(kept, "xyz");
}

TEST_F(EventDatabase, DamagedDatabaseThatCannotBeMovedStaysAndTheEventsWait)
{
    ::Test::WriteFile(Database(), std::string(8192, 'x'));
    EventStore store(m_work);
    {
        ::Test::DiskLogCatcher log;
        {
            const ::Test::CallWatch fixed([](const os::Call& call) { return call.name == "rename"sv ? EACCES : 0; });
            EXPECT_EQ(store.Write(SampleEvent("event")), 0);
        }
        EXPECT_EQ(
            log.Count(wxLOG_Error, "The event database '" + Database()
                                       + "' is damaged (file is not a database) and cannot be moved out of the way ("),
            1u)
            << log.All();
        EXPECT_EQ(log.Count(wxLOG_Error, Kept("file is not a database", "event")), 1u) << log.All();
        EXPECT_EQ(log.Lines().size(), 2u) << log.All();
    }
    EXPECT_EQ(::Test::ReadFile(Database()), std::string(8192, 'x'));
    ::Test::DiskLogCatcher log;
    EXPECT_TRUE(store.StoreKept()) << "what is kept is stored without another event, too";
    EXPECT_EQ(Stored(), "event;");
}

TEST_F(EventDatabase, DatabaseThatIsDamagedWhileOpenIsMovedAside)
{
    EventStore store(m_work);
    store.Write(SampleEvent("before"));
    {
        std::fstream file(Database(), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(24); // the change counter and all behind it
        const std::string rubbish(8000, '\xAB');
        file.write(rubbish.data(), static_cast<std::streamsize>(rubbish.size()));
    }
    ::Test::DiskLogCatcher log;
    EXPECT_EQ(store.Write(SampleEvent("after")), 1);
    EXPECT_EQ(Stored(), "after;");
    EXPECT_EQ(log.Count(wxLOG_Error, "The event database '" + Database() + "' is damaged ("), 1u) << log.All();
}

TEST_F(EventDatabase, RemovedOrReplacedDatabaseIsOpenedAnew)
{
    EventStore store(m_work);
    store.Write(SampleEvent("one"));
    std::filesystem::remove(Database());
    ::Test::DiskLogCatcher log;
    EXPECT_EQ(store.Write(SampleEvent("two")), 1);
    EXPECT_EQ(Stored(), "two;");
    std::filesystem::rename(Database(), Database() + ".old");
    EventStore(m_work).Write(SampleEvent("of another"));
    EXPECT_EQ(store.Write(SampleEvent("three")), 2);
    EXPECT_EQ(Stored(), "of another;three;");
    EXPECT_TRUE(log.Lines().empty()) << log.All();
}

TEST_F(EventDatabase, DatabaseForWhoseStatementsThereWasNoMemoryIsOpenedAnew)
{
    EventStore(m_work).Write(SampleEvent("one"));
    EventStore store(m_work);
    {
        // The last look at the file is just before the statements are made.
        int looks = 0;
        const auto write = [&](int failing) {
            looks = 0;
            const ::Test::CallWatch watch([&](const os::Call& call) {
                if (call.name == "stat"sv && call.path == Database() && ++looks == failing)
                    throw std::bad_alloc();
                return 0;
            });
            store.Write(SampleEvent("lost"));
        };
        EXPECT_THROW(write(2), std::bad_alloc);
        ASSERT_EQ(looks, 2);
    }
    EXPECT_EQ(store.Write(SampleEvent("two")), 2);
    EXPECT_EQ(Stored(), "one;two;");
}

TEST_F(EventDatabase, DatabaseOfAForeignFormIsLeftAloneAndEventsWait)
{
    {
        SqliteConnection db;
        ASSERT_TRUE(db.Open(Database(), 0));
        ASSERT_TRUE(db.Exec("CREATE TABLE agent_event(something)"));
    }
    ::Test::DiskLogCatcher log;
    EventStore store(m_work);
    EXPECT_EQ(store.Write(SampleEvent("event")), 0);
    EXPECT_TRUE(Exists(Pending()));
    EXPECT_EQ(log.Count(wxLOG_Error, Kept("no such column: time_ms", "event")), 1u) << log.All();
}

TEST_F(EventDatabase, ReadOnlyFileSystemMeansMemoryThenDatabase)
{
    const int status = ::Test::InOwnMounts([this] {
        if (mount("tmpfs", m_work.c_str(), "tmpfs", 0, "size=4m,mode=700") != 0)
            return 77;
        wxLogNull quiet;
        CHILD_CHECK(EventStore(m_work).Write(SampleEvent("one")) == 1);
        CHILD_CHECK(mount(nullptr, m_work.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0);
        EventStore store(m_work);
        CHILD_CHECK(store.Write(SampleEvent("two")) == 0);
        CHILD_CHECK(store.InMemory() == 1);
        CHILD_CHECK(mount(nullptr, m_work.c_str(), nullptr, MS_REMOUNT, nullptr) == 0);
        CHILD_CHECK(store.Write(SampleEvent("three")) == 3);
        CHILD_CHECK(Stored() == "one;two;three;");
        return 0;
    });
    if (status < 0)
        GTEST_SKIP() << "no mount namespace here";
    EXPECT_EQ(status, 0);
}

TEST_F(EventDatabase, ReadOnlyDatabaseMeansPendingFileThenDatabaseOnce)
{
    const int status = ::Test::InOwnMounts([this] {
        ::Test::DiskLogCatcher log;
        CHILD_CHECK(EventStore(m_work).Write(SampleEvent("one")) == 1);
        // Root may write whatever its mode says.
        if (mount(Database().c_str(), Database().c_str(), nullptr, MS_BIND, nullptr) != 0
            || mount(nullptr, Database().c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0)
            return 77;
        EventStore store(m_work);
        CHILD_CHECK(store.Write(SampleEvent("two")) == 0);
        CHILD_CHECK(store.InMemory() == 0);
        CHILD_CHECK(::Test::ReadFile(Pending()).find("text=\"two\"") != std::string::npos);
        CHILD_CHECK(log.Count(wxLOG_Error, Kept("attempt to write a readonly database", "two")) == 1);
        CHILD_CHECK(log.Lines().size() == 1);
        CHILD_CHECK(umount2(Database().c_str(), MNT_DETACH) == 0);
        CHILD_CHECK(store.Write(SampleEvent("three")) == 3);
        CHILD_CHECK(Stored() == "one;two;three;");
        CHILD_CHECK(!Exists(Pending()));
        return 0;
    });
    if (status < 0)
        GTEST_SKIP() << "no mount namespace here";
    EXPECT_EQ(status, 0);
}

TEST_F(EventDatabase, EventIsFlushedWhateverTheSettingsAllowElsewhere)
{
    const FlushCount flushes;
    SqliteSettings settings;
    settings.synchronous = 0;
    SetSqliteSettings(settings);
    SqliteConnection other;
    const bool written = other.Open(m_folder / "other.db", 0) && other.Exec("CREATE TABLE t(a)");
    const int flushesElsewhere = flushes.Count();
    const std::int64_t id = EventStore(m_work).Write(SampleEvent("event"));
    EXPECT_TRUE(written);
    EXPECT_EQ(flushesElsewhere, 0);
    EXPECT_EQ(id, 1);
    EXPECT_GT(flushes.Count(), 0);
}

TEST_F(EventDatabase, FullDiskMeansMemoryThenDatabaseOnce)
{
    const int status = ::Test::InOwnMounts([this] {
        if (mount("tmpfs", m_work.c_str(), "tmpfs", 0, "size=256k,mode=700") != 0)
            return 77;
        wxLogNull quiet;
        EventStore store(m_work);
        CHILD_CHECK(store.Write(SampleEvent("one")) == 1);
        {
            std::ofstream filler(m_work + "/filler", std::ios::binary);
            const std::string page(4096, 'f');
            while (filler.write(page.data(), 4096).flush()) {
            }
        }
        const std::string large(20000, 'L'); // needs pages that are not there
        CHILD_CHECK(store.Write(SampleEvent(large)) == 0);
        CHILD_CHECK(store.Write(SampleEvent("three" + large)) == 0);
        CHILD_CHECK(store.InMemory() == 2);
        CHILD_CHECK(!store.StoreKept());
        std::filesystem::remove(m_work + "/filler");
        CHILD_CHECK(store.StoreKept());
        CHILD_CHECK(Stored() == "one;" + large + ";three" + large + ";");
        return 0;
    });
    if (status < 0)
        GTEST_SKIP() << "no mount namespace here";
    EXPECT_EQ(status, 0);
}

TEST_F(EventDatabase, EachFailingCallLeavesEveryEventExactlyOnce)
{
    for (const bool lasting : {false, true}) {
        bool hit = true;
        for (int n = 1; hit && n < 300; ++n) {
            ::Test::TempFolder folder(Base());
            m_work = folder.Path();
            ::Test::DiskLogCatcher log;
            ::Test::StandardError standardError;
            std::filesystem::create_directory(Database());
            EventStore(m_work).Write(SampleEvent("pending")); // so that an import is in the sweep
            std::filesystem::remove(Database());
            EventStore store(m_work);
            {
                SqliteFaults faults;
                ::Test::FailNth fault(n, lasting ? ENOSPC : EIO, ::Test::FailNth::How::Fail, lasting);
                store.Write(SampleEvent("in fault"));
                hit = fault.WasHit();
            }
            store.Write(SampleEvent("after"));
            const std::string shown = standardError.Text();
            const std::string all = Stored();
            for (const char* text : {"pending", "in fault", "after"})
                EXPECT_EQ(CountOf(all, text), 1)
                    << "call " << n << (lasting ? " and later" : "") << ": " << all << log.All();
            EXPECT_FALSE(Exists(Pending())) << n;
            EXPECT_EQ(store.InMemory(), 0u) << n;
        }
        EXPECT_FALSE(hit);
    }
}

TEST_F(EventDatabase, KillAtEachCallLosesNoAcknowledgedEventAndStoresNoneTwice)
{
    bool killed = true;
    for (int n = 1; killed && n < 300; ++n) {
        ::Test::TempFolder folder(Base());
        m_work = folder.Path();
        ::Test::DiskLogCatcher log;
        std::filesystem::create_directory(Database());
        {
            EventStore store(m_work);
            store.Write(SampleEvent("pending 1"));
            store.Write(SampleEvent("pending 2"));
        }
        std::filesystem::remove(Database());
        int done[2];
        ASSERT_EQ(pipe(done), 0);
        const pid_t pid = fork();
        if (pid == 0) {
            SqliteFaults faults;
            ::Test::FailNth fault(n, EIO, ::Test::FailNth::How::Die);
            const bool stored = EventStore(m_work).Write(SampleEvent("mine")) != 0;
            fault.Stop();
            static_cast<void>(write(done[1], stored ? "y" : "n", 1) == 1);
            _exit(0);
        }
        close(done[1]);
        char acknowledged = '-';
        const bool heard = read(done[0], &acknowledged, 1) == 1;
        close(done[0]);
        int status = 0;
        waitpid(pid, &status, 0);
        killed = WIFSIGNALED(status);
        EventStore(m_work).Write(SampleEvent("after"));
        const std::string all = Stored();
        for (const char* text : {"pending 1", "pending 2", "after"})
            EXPECT_EQ(CountOf(all, text), 1) << "call " << n << ": " << all;
        EXPECT_LE(CountOf(all, "mine"), 1) << "call " << n << ": " << all;
        EXPECT_EQ(!heard || CountOf(all, "mine") == 1, true) << "call " << n << ": " << all;
        EXPECT_FALSE(Exists(Pending())) << n;
    }
    EXPECT_FALSE(killed);
}

TEST_F(EventDatabase, ManyThreadsWriteIntoOneStore)
{
    EventStore store(m_work);
    std::vector<::Test::JoiningThread> threads;
    for (int t = 0; t < 6; ++t)
        threads.emplace_back([&store, t] {
            for (int i = 0; i < 5; ++i)
                EXPECT_GT(store.Write(SampleEvent(std::to_string(t) + "." + std::to_string(i))), 0);
        });
    for (::Test::JoiningThread& thread : threads)
        thread.join();
    const std::string all = Stored();
    EXPECT_EQ(std::count(all.begin(), all.end(), ';'), 30);
}

TEST_F(EventDatabase, ManyProcessesWriteIntoOneFolder)
{
    SetSqliteSettings(SqliteSettings());
    std::vector<pid_t> children;
    for (int c = 0; c < 4; ++c) {
        const pid_t pid = fork();
        if (pid == 0) {
            wxLogNull quiet;
            EventStore store(m_work);
            for (int i = 0; i < 5; ++i)
                store.Write(SampleEvent(std::to_string(c) + "." + std::to_string(i)));
            store.StoreKept();
            _exit(0);
        }
        children.push_back(pid);
    }
    for (const pid_t pid : children)
        waitpid(pid, nullptr, 0);
    EventStore(m_work).StoreKept();
    const std::string all = Stored();
    for (int c = 0; c < 4; ++c)
        for (int i = 0; i < 5; ++i)
            EXPECT_EQ(CountOf(all, std::to_string(c) + "." + std::to_string(i)), 1) << all;
}

TEST_F(EventDatabase, ForkedChildOpensAConnectionOfItsOwn)
{
    EventStore store(m_work);
    store.Write(SampleEvent("parent"));
    const pid_t pid = fork();
    if (pid == 0)
        _exit(store.Write(SampleEvent("child")) == 2 ? 0 : 1);
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(store.Write(SampleEvent("parent again")), 3);
}

TEST_F(EventDatabase, EventsBeforeTheWorkingFolderIsKnownAreStoredInIt)
{
    ::Test::DiskLogCatcher log;
    ::Test::StandardError standardError;
    EXPECT_EQ(GetEventStore("")->Write(SampleEvent("early")), 0);
    standardError.Text();
    EXPECT_EQ(GetEventStore(m_work)->Write(SampleEvent("late")), 2);
    EXPECT_EQ(Stored(), "early;late;");
    CloseEventStores();
}

TEST_F(EventDatabase, ClosingTheStoresStoresWhatIsKept)
{
    ::Test::DiskLogCatcher log;
    std::filesystem::create_directory(Database());
    EXPECT_EQ(GetEventStore(m_work)->Write(SampleEvent("kept")), 0);
    std::filesystem::remove(Database());
    CloseEventStores();
    EXPECT_EQ(Stored(), "kept;");
}

TEST_F(EventDatabase, ClosingTheStoresMovesWhatIsInMemoryToThePendingFile)
{
    m_work += "/later";
    ::Test::DiskLogCatcher log;
    ::Test::StandardError standardError;
    EXPECT_EQ(GetEventStore(m_work)->Write(SampleEvent("one")), 0);
    standardError.Text();
    std::filesystem::create_directories(Database()); // no database, but room beside it
    CloseEventStores();
    EXPECT_NE(::Test::ReadFile(Pending()).find("text=\"one\""), std::string::npos);
    EXPECT_EQ(log.Count(wxLOG_Error, "Agent events that are lost"), 0u) << log.All();
    std::filesystem::remove(Database());
    EXPECT_EQ(GetEventStore(m_work)->Write(SampleEvent("two")), 2);
    CloseEventStores();
    EXPECT_EQ(Stored(), "one;two;");
}

TEST_F(EventDatabase, EventsThatNothingTookAreCountedWhenTheStoresClose)
{
    ::Test::DiskLogCatcher log;
    ::Test::StandardError standardError;
    GetEventStore(m_work + "/never")->Write(SampleEvent("one"));
    GetEventStore(m_work + "/never")->Write(SampleEvent("two"));
    CloseEventStores();
    standardError.Text();
    EXPECT_EQ(log.Count(wxLOG_Error, "Agent events that are lost with the process, because nothing took them: 2"), 1u)
        << log.All();
}

TEST_F(EventDatabase, EventsThatTheSystemLogDidNotTakeAreSentOnceMoreAtTheEndAndElseCounted)
{
    ::Test::DiskLogCatcher log;
    ::Test::StandardError standardError;
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(dup2(null, STDERR_FILENO), STDERR_FILENO); // as in the background
    close(null);
    std::vector<std::string> sent;
    std::string taken = "two";
    const ::Test::CallWatch watch([&](const os::Call& call) {
        if (call.name != "syslog"sv)
            return 0;
        sent.emplace_back(call.path);
        return taken.find(sent.back().substr(sent.back().find(" text=") + 7, 3)) != std::string::npos ? os::callAnswered
                                                                                                      : ENOENT;
    });
    for (const char* const name : {"one", "two", "six"})
        GetEventStore(m_work + "/never")->Write(SampleEvent(name));
    EXPECT_EQ(sent.size(), 3u);
    sent.clear();
    taken = "one";
    CloseEventStores();
    standardError.Text();
    ASSERT_EQ(sent.size(), 2u);
    for (const std::string& line : sent)
        EXPECT_EQ(line.substr(0, 40), "Agent event not stored yet: <agent_event");
    EXPECT_NE(sent[0].find("text=\"one\""), std::string::npos);
    EXPECT_NE(sent[1].find("text=\"six\""), std::string::npos);
    EXPECT_EQ(log.Count(wxLOG_Error, "Agent events that are lost with the process, because nothing took them: 3"), 1u)
        << log.All();
    EXPECT_EQ(log.Count(wxLOG_Error,
                        "Agent events that are lost and that neither standard error nor the system's log has shown: 1"),
              1u)
        << log.All();
}

TEST_F(EventDatabase, WhatIsKeptIsStoredWithoutAnotherEventWhenThereIsRoom)
{
    m_work += "/later";
    ::Test::DiskLogCatcher log;
    ::Test::StandardError standardError;
    GetEventStore(m_work)->Write(SampleEvent("one"));
    standardError.Text();
    std::filesystem::create_directory(m_work);
    RetryKeptEvents();
    EXPECT_EQ(Stored(), "one;");
    EXPECT_EQ(GetEventStore(m_work)->InMemory(), 0u);
    CloseEventStores();
}

TEST_F(EventDatabase, AttemptsWithoutAnEventKeepADistance)
{
    std::filesystem::create_directory(Database());
    ::Test::DiskLogCatcher log;
    GetEventStore(m_work)->Write(SampleEvent("one"));
    RetryKeptEvents(); // in vain
    std::filesystem::remove(Database());
    RetryKeptEvents(); // too early
    EXPECT_FALSE(Exists(Database()));
    EXPECT_TRUE(Exists(Pending()));
    CloseEventStores();
    EXPECT_EQ(Stored(), "one;");
}

TEST_F(EventDatabase, NothingIsOpenedWhenNothingIsKept)
{
    const auto store = GetEventStore(m_work);
    ::Test::WriteFile(Pending(), "\n<pending key=\"k1\"><agent_event text=\"of another process\"/></pending>\n");
    RetryKeptEvents();
    EXPECT_FALSE(Exists(Database()));
    std::filesystem::remove(Pending());
    CloseEventStores();
}

TEST_F(EventDatabase, DomainWritesBelowItsWorkingFolder)
{
    CDom* const dom = CDom::New(nullptr, nullptr, nullptr, false);
    dom->Set("app.path.work", m_work);
    CAgentEvent event = SampleEvent("by the domain");
    EXPECT_EQ(dom->AgentEventWrite(event), 1);
    EXPECT_EQ(Stored(), "by the domain;");
    CloseEventStores();
    dom->Release();
}

TEST(EventCounts, AreBySeverityAndCountWhatIsStoredOrKept)
{
    const ::Test::TempFolder folder;
    const auto dom = ::Test::NewRoot();
    dom->Set("app.path.work", folder.Path());
    const std::uint64_t criticals = EventsOfSeverity(2);
    const std::uint64_t notices = EventsOfSeverity(5);
    CAgentEvent event = SampleEvent("x");
    dom->AgentEventWrite(event);
    event.m_severity = 2;
    dom->AgentEventWrite(event);
    dom->AgentEventWrite(event);
    event.SetAttributeNull(CAgentEvent::FieldSeverity, true);
    dom->AgentEventWrite(event);
    EXPECT_EQ(EventsOfSeverity(2), criticals + 2);
    EXPECT_EQ(EventsOfSeverity(5), notices + 1);
    CloseEventStores();
}
