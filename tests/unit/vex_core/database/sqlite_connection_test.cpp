#include "vex/core/dom.h"
#include "vex/core/sqlitedb.h"
#include "vex_core/database/sqlite_connection.h"
#include "vex_core/os/guarded_place.h"

#include "support/call_watch.h"
#include "support/log_catcher.h"
#include "support/temp_folder.h"

#include <filesystem>

#include <gtest/gtest.h>

#include <sqlite3.h>

using namespace VexCore;

namespace {
class SqliteInit : public testing::Test
{
protected:
    void SetUp() override
    {
        CSqliteDatabase::ShutdownSQLite();
    } // an earlier test may have used it: what follows is a first start
    void TearDown() override
    {
        CSqliteDatabase::ShutdownSQLite();
        SetSqliteSettings(SqliteSettings());
        m_dom->Release();
    }
    void Set(const char* name, std::int64_t value)
    {
        m_dom->SetWx((std::string("sqlite.config.") + name).c_str(), value);
    }

    CDom* m_dom = CDom::New(nullptr, nullptr, nullptr, false);
    ::Test::LogCatcher m_log;
};

std::int64_t Pragma(SqliteConnection& db, const std::string& name)
{
    SqliteStatement row(db, ("PRAGMA " + name).c_str());
    return row.Step() == SqliteStatement::StepResult::Row ? row.ColumnInt(0) : -99;
}

} // namespace

TEST(Sqlite, JournalModeFollowsTheVersionThatCanBeTrustedWithIt)
{
    EXPECT_STREQ(JournalModeFor(3040001), "TRUNCATE");
    EXPECT_STREQ(JournalModeFor(3051002), "TRUNCATE");
    EXPECT_STREQ(JournalModeFor(3051003), "WAL");
    EXPECT_STREQ(JournalModeFor(3052000), "WAL");
}

TEST(Sqlite, OpenedDatabaseIsDurableByDefault)
{
    ::Test::TempFolder folder;
    SqliteConnection db;
    ASSERT_TRUE(db.Open(folder / "x.db", 0)) << db.Error();
    EXPECT_EQ(Pragma(db, "synchronous"), 2);
    EXPECT_EQ(Pragma(db, "busy_timeout"), 2000);
    SqliteStatement mode(db, "PRAGMA journal_mode");
    ASSERT_EQ(mode.Step(), SqliteStatement::StepResult::Row);
    EXPECT_EQ(mode.ColumnText(0), sqlite3_libversion_number() >= 3051003 ? "wal" : "truncate");
}

TEST(Sqlite, FailureHasCodeAndText)
{
    ::Test::TempFolder folder;
    SqliteConnection db;
    EXPECT_FALSE(db.Open(folder / "missing/x.db", 0));
    EXPECT_EQ(db.ErrorCode() & 0xFF, SQLITE_CANTOPEN);
    EXPECT_NE(db.Error().find("unable to open"), std::string::npos) << db.Error();
    EXPECT_FALSE(db.IsOpen());
    EXPECT_FALSE(db.Exec("SELECT 1"));
    EXPECT_EQ(db.ErrorCode(), SQLITE_MISUSE);
    EXPECT_EQ(db.Error(), sqlite3_errstr(SQLITE_MISUSE));
    ASSERT_TRUE(db.Open(folder / "x.db", 0));
    EXPECT_FALSE(db.Exec("nonsense"));
    EXPECT_NE(db.Error().find("nonsense"), std::string::npos) << db.Error();
    SqliteStatement bad(db, "SELECT * FROM nowhere");
    bad.Bind(1, static_cast<std::int64_t>(1));
    EXPECT_EQ(bad.Step(), SqliteStatement::StepResult::Failed);
    EXPECT_NE(db.Error().find("nowhere"), std::string::npos) << db.Error();
}

TEST(Sqlite, FileOfTheWorkFolderIsNotMadeBySqlite)
{
    ::Test::TempFolder folder;
    const std::string path = folder / "x.db";
    // Gone right after it was made for its owner alone.
    const ::Test::CallWatch watch([&](const os::Call& call) {
        if (call.path && std::string(call.path) == "x.db-shm")
            std::filesystem::remove(path);
        return 0;
    });
    os::GuardedPlace place(path);
    SqliteConnection db;
    EXPECT_FALSE(db.Open(place, 0));
    EXPECT_EQ(db.ErrorCode() & 0xFF, SQLITE_CANTOPEN);
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(Sqlite, WhatIsOpenedForReadingIsNeitherMadeNorChanged)
{
    ::Test::TempFolder folder;
    const std::string path = folder / "a b%3F?mode=rwc#\xC3\xA4.db";
    SqliteConnection reading;
    for (const bool asItIs : {false, true}) {
        EXPECT_FALSE(reading.OpenForReading(path, asItIs));
        EXPECT_EQ(reading.ErrorCode() & 0xFF, SQLITE_CANTOPEN);
        EXPECT_FALSE(reading.IsOpen());
        EXPECT_TRUE(std::filesystem::is_empty(folder.Path()));
    }
    SqliteConnection db;
    ASSERT_TRUE(db.Open(path, 0)) << db.Error();
    ASSERT_TRUE(db.Exec("CREATE TABLE t(a); INSERT INTO t VALUES(7)"));
    db.Close();
    for (const bool asItIs : {false, true}) {
        ASSERT_TRUE(reading.OpenForReading(path, asItIs)) << reading.Error();
        EXPECT_EQ(Pragma(reading, "busy_timeout"), 2000);
        EXPECT_EQ(Pragma(reading, "trusted_schema"), 0);
        EXPECT_FALSE(reading.Exec("DELETE FROM t"));
        EXPECT_EQ(reading.Error(), "attempt to write a readonly database");
        SqliteStatement rows(reading, "SELECT a FROM t");
        ASSERT_EQ(rows.Step(), SqliteStatement::StepResult::Row);
        EXPECT_EQ(rows.ColumnInt(0), 7);
    }
}

TEST(Sqlite, WhatIsReadAsItIsMindsNoLock)
{
    if (sqlite3_libversion_number() >= 3051003)
        GTEST_SKIP() << "readers of a write-ahead log mind none";
    ::Test::TempFolder folder;
    SqliteConnection db;
    ASSERT_TRUE(db.Open(folder / "x.db", 0));
    ASSERT_TRUE(db.Exec("CREATE TABLE t(a); BEGIN EXCLUSIVE"));
    SqliteSettings settings;
    settings.busyTimeoutMs = 1;
    SetSqliteSettings(settings);
    SqliteConnection reading;
    ASSERT_TRUE(reading.OpenForReading(folder / "x.db", false));
    EXPECT_FALSE(reading.Exec("SELECT * FROM t"));
    EXPECT_EQ(reading.ErrorCode(), SQLITE_BUSY);
    ASSERT_TRUE(reading.OpenForReading(folder / "x.db", true));
    EXPECT_TRUE(reading.Exec("SELECT * FROM t")) << reading.Error();
    SetSqliteSettings(SqliteSettings());
}

TEST(Sqlite, TransactionThatIsNotCommittedLeavesNothing)
{
    ::Test::TempFolder folder;
    SqliteConnection db;
    ASSERT_TRUE(db.Open(folder / "x.db", 0));
    ASSERT_TRUE(db.Exec("CREATE TABLE t(a)"));
    {
        SqliteTransaction transaction(db);
        ASSERT_TRUE(transaction.Begun());
        ASSERT_TRUE(db.Exec("INSERT INTO t VALUES(1)"));
    }
    {
        SqliteTransaction transaction(db);
        ASSERT_TRUE(db.Exec("INSERT INTO t VALUES(2)"));
        ASSERT_TRUE(transaction.Commit());
    }
    SqliteStatement rows(db, "SELECT a FROM t");
    ASSERT_EQ(rows.Step(), SqliteStatement::StepResult::Row);
    EXPECT_EQ(rows.ColumnInt(0), 2);
    EXPECT_EQ(rows.Step(), SqliteStatement::StepResult::Done);
}

TEST(Sqlite, StatementIsUsedAgainAfterReset)
{
    ::Test::TempFolder folder;
    SqliteConnection db;
    ASSERT_TRUE(db.Open(folder / "x.db", 0));
    ASSERT_TRUE(db.Exec("CREATE TABLE t(a TEXT, b)"));
    SqliteStatement insert(db, "INSERT INTO t VALUES(?, ?)");
    const std::string text("text\0more", 9);
    for (int i = 0; i < 3; ++i) {
        insert.Bind(1, text);
        insert.Bind(2, i == 1 ? std::optional<std::int64_t>() : std::optional<std::int64_t>(i));
        ASSERT_EQ(insert.Step(), SqliteStatement::StepResult::Done);
        EXPECT_EQ(db.LastInsertId(), i + 1);
        insert.Reset();
    }
    SqliteStatement rows(db, "SELECT a, b FROM t");
    ASSERT_EQ(rows.Step(), SqliteStatement::StepResult::Row);
    EXPECT_EQ(rows.ColumnText(0), text);
    EXPECT_FALSE(rows.ColumnIsNull(1));
    ASSERT_EQ(rows.Step(), SqliteStatement::StepResult::Row);
    EXPECT_TRUE(rows.ColumnIsNull(1));
}

TEST_F(SqliteInit, WithoutSettingsItIsSilent)
{
    EXPECT_TRUE(CSqliteDatabase::InitializeSQLite(m_dom));
    EXPECT_TRUE(CSqliteDatabase::InitializeSQLite(nullptr));
    EXPECT_TRUE(m_log.Lines().empty()) << m_log.All();
}

TEST_F(SqliteInit, EachSettingReachesTheConnection)
{
    Set("memstatus", 1);
    Set("mmap_size", 65536);
    Set("cache_size", -512);
    Set("busy_timeout", 77);
    Set("journal_size_limit", 4096);
    Set("synchronous", 3);
    Set("soft_heap_limit", 50000000);
    ASSERT_TRUE(CSqliteDatabase::InitializeSQLite(m_dom));
    EXPECT_TRUE(m_log.Lines().empty()) << m_log.All();
    ::Test::TempFolder folder;
    SqliteConnection db;
    ASSERT_TRUE(db.Open(folder / "x.db", 0)) << db.Error();
    ASSERT_TRUE(db.Exec("CREATE TABLE t(a)"));
    EXPECT_EQ(Pragma(db, "mmap_size"), 65536);
    EXPECT_EQ(Pragma(db, "cache_size"), -512);
    EXPECT_EQ(Pragma(db, "busy_timeout"), 77);
    EXPECT_EQ(Pragma(db, "journal_size_limit"), 4096);
    EXPECT_EQ(Pragma(db, "synchronous"), 3);
    EXPECT_EQ(sqlite3_soft_heap_limit64(-1), 50000000);
    EXPECT_GT(sqlite3_memory_used(), 0) << "memory statistics are on";
    sqlite3_soft_heap_limit64(0);
}

TEST_F(SqliteInit, MemoryStatisticsCanBeTurnedOff)
{
    Set("memstatus", 0);
    ASSERT_TRUE(CSqliteDatabase::InitializeSQLite(m_dom));
    ::Test::TempFolder folder;
    {
        SqliteConnection db;
        ASSERT_TRUE(db.Open(folder / "x.db", 0));
        EXPECT_EQ(sqlite3_memory_used(), 0);
    }
    CSqliteDatabase::ShutdownSQLite();
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 1);
}

TEST_F(SqliteInit, LowerSynchronousDoesNotHoldWhereMoreIsAskedFor)
{
    Set("synchronous", 0);
    ASSERT_TRUE(CSqliteDatabase::InitializeSQLite(m_dom));
    ::Test::TempFolder folder;
    SqliteConnection db;
    ASSERT_TRUE(db.Open(folder / "x.db", 0));
    EXPECT_EQ(Pragma(db, "synchronous"), 0);
    ASSERT_TRUE(db.Open(folder / "x.db", 2));
    EXPECT_EQ(Pragma(db, "synchronous"), 2);
}

TEST_F(SqliteInit, UnknownNameIsOneWarningEach)
{
    Set("nonsense", 5);
    Set("cache_size.more", 5);
    m_dom->SetWx("sqlite.configX", static_cast<std::int64_t>(5));
    m_dom->SetWx("sqlite.other", static_cast<std::int64_t>(5));
    EXPECT_TRUE(CSqliteDatabase::InitializeSQLite(m_dom));
    EXPECT_EQ(m_log.Count(wxLOG_Warning, "Unknown database setting 'sqlite.config.nonsense'"), 1u);
    EXPECT_EQ(m_log.Count(wxLOG_Warning, "Unknown database setting 'sqlite.config.cache_size.more'"), 1u);
    EXPECT_EQ(m_log.Count(wxLOG_Warning, "Unknown database setting 'sqlite.configX'"), 1u);
    EXPECT_EQ(m_log.Lines().size(), 3u) << m_log.All();
}

TEST_F(SqliteInit, ValueThatMeansNothingIsOneWarningAndTheDefaultStays)
{
    m_dom->Set("sqlite.config.cache_size", "many");
    Set("synchronous", 9);
    Set("busy_timeout", -1);
    Set("memstatus", 2);
    Set("mmap_size", -5);
    Set("journal_size_limit", -2);
    Set("soft_heap_limit", -1);
    EXPECT_TRUE(CSqliteDatabase::InitializeSQLite(m_dom));
    EXPECT_EQ(m_log.Count(wxLOG_Warning, "Database setting 'sqlite.config."), 7u) << m_log.All();
    EXPECT_EQ(m_log.Count(wxLOG_Warning, "Database setting 'sqlite.config.cache_size' cannot be 'many'"), 1u);
    EXPECT_EQ(m_log.Lines().size(), 7u) << m_log.All();
    const SqliteSettings settings = GetSqliteSettings();
    EXPECT_FALSE(settings.cacheSize);
    EXPECT_FALSE(settings.journalSizeLimit);
    EXPECT_EQ(settings.synchronous, 2);
    EXPECT_EQ(settings.busyTimeoutMs, 2000);
}
