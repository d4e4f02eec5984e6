#include "vex/apps/vexctl/agent_database.h"
#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/event_key.h"
#include "vex/apps/vexctl/heartbeat_history.h"

#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include <unistd.h>

using namespace Vexctl;
using ::Test::TempFolder;
using ::Test::WriteFile;
using VexCore::SqliteConnection;
using VexCore::SqliteStatement;

namespace {
void Make(const std::string& path, const char* journal = "TRUNCATE")
{
    SqliteConnection db;
    ASSERT_TRUE(db.Open(path, 0)) << db.Error();
    SqliteStatement mode(db, (std::string("PRAGMA journal_mode=") + journal).c_str());
    ASSERT_EQ(mode.Step(), SqliteStatement::StepResult::Row);
    ASSERT_TRUE(db.Exec("CREATE TABLE t(x INTEGER); INSERT INTO t VALUES(1)"));
}

bool ReadSum(SqliteConnection& db, std::int64_t& sum)
{
    SqliteStatement row(db, "SELECT sum(x) FROM t");
    if (row.Step() != SqliteStatement::StepResult::Row)
        return false;
    sum = row.ColumnInt(0);
    return true;
}

std::set<std::string> NamesIn(const std::string& folder)
{
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.insert(entry.path().filename().string());
    return names;
}

std::string WhyNot(AgentDatabase& database)
{
    try {
        database.Read([](SqliteConnection& db) {
            std::int64_t sum = 0;
            return ReadSum(db, sum);
        });
    } catch (const Failure& failure) {
        return failure.what();
    }
    return "it can be read";
}

} // namespace

TEST(AgentDatabase, IsReadAndNothingIsMadeBesideIt)
{
    const TempFolder folder;
    const std::string path = folder / "a b%20?#é.db";
    Make(path);
    const std::set<std::string> before = NamesIn(folder.Path());
    AgentDatabase database(path);
    std::int64_t sum = 0;
    EXPECT_TRUE(database.Read([&sum](SqliteConnection& db) { return ReadSum(db, sum); }));
    EXPECT_EQ(sum, 1);
    EXPECT_EQ(NamesIn(folder.Path()), before);
    EXPECT_TRUE(database.Read([](SqliteConnection& db) {
        EXPECT_FALSE(db.Exec("INSERT INTO t VALUES(2)"));
        return true;
    }));
}

TEST(AgentDatabase, AMissingOneAndAnEmptyOneHaveNothing)
{
    const TempFolder folder;
    const auto never = [](SqliteConnection&) {
        ADD_FAILURE() << "there is nothing to read";
        return true;
    };
    EXPECT_FALSE(AgentDatabase(folder / "none.db").Read(never));
    WriteFile(folder / "empty.db", "");
    EXPECT_FALSE(AgentDatabase(folder / "empty.db").Read(never));
    EXPECT_EQ(NamesIn(folder.Path()), std::set<std::string>{"empty.db"});
}

TEST(AgentDatabase, AForeignFileADamagedOneAndAFolderAreFailuresThatNameThem)
{
    const TempFolder folder;
    WriteFile(folder / "foreign.db", std::string(5000, 'x'));
    AgentDatabase foreign(folder / "foreign.db");
    EXPECT_EQ(WhyNot(foreign), folder / "foreign.db" + " cannot be read: file is not a database");

    Make(folder / "other.db");
    AgentDatabase other(folder / "other.db");
    EXPECT_THROW(other.Read([](SqliteConnection& db) {
        SqliteStatement row(db, "SELECT * FROM agent_event");
        return row.Step() == SqliteStatement::StepResult::Row;
    }),
                 Failure);

    std::string bytes = ::Test::ReadFile(folder / "other.db");
    bytes.resize(bytes.size() / 2);
    bytes.replace(100, 200, 200, '\xff');
    WriteFile(folder / "cut.db", bytes);
    AgentDatabase cut(folder / "cut.db");
    EXPECT_NE(WhyNot(cut), "it can be read");

    std::filesystem::create_directory(folder / "folder.db");
    AgentDatabase notAFile(folder / "folder.db");
    EXPECT_EQ(WhyNot(notAFile), folder / "folder.db" + " is no regular file");
}

// A writer that waits for nobody: its changes are committed while the reader is at work.
TEST(AgentDatabase, AWriterNeverWaitsAndWhatItChangedMeanwhileIsReadAgain)
{
    const TempFolder folder;
    const std::string path = folder / "a.db";
    Make(path);
    SqliteConnection writer;
    ASSERT_TRUE(writer.Open(path, 0));
    ASSERT_TRUE(writer.Exec("PRAGMA busy_timeout=0"));
    AgentDatabase database(path);
    int rounds = 0;
    std::int64_t sum = 0;
    EXPECT_TRUE(database.Read([&](SqliteConnection& db) {
        ++rounds;
        SqliteStatement row(db, "SELECT x FROM t");
        EXPECT_EQ(row.Step(), SqliteStatement::StepResult::Row);
        if (rounds == 1) {
            EXPECT_TRUE(writer.Exec("INSERT INTO t VALUES(10)")) << writer.Error();
        }
        return ReadSum(db, sum);
    }));
    EXPECT_EQ(rounds, 2);
    EXPECT_EQ(sum, 11);
}

TEST(AgentDatabase, WhatIsCommittedBetweenTwoReadingsIsSeen)
{
    const TempFolder folder;
    Make(folder / "a.db");
    AgentDatabase database(folder / "a.db");
    std::int64_t sum = 0;
    const auto read = [&sum](SqliteConnection& db) { return ReadSum(db, sum); };
    EXPECT_TRUE(database.Read(read));
    SqliteConnection writer;
    ASSERT_TRUE(writer.Open(folder / "a.db", 0));
    ASSERT_TRUE(writer.Exec("UPDATE t SET x = 5"));
    EXPECT_TRUE(database.Read(read));
    EXPECT_EQ(sum, 5);
}

TEST(AgentDatabase, ALockThatIsNotForAChangeDoesNotKeepReadersOut)
{
    const TempFolder folder;
    Make(folder / "a.db");
    SqliteConnection writer;
    ASSERT_TRUE(writer.Open(folder / "a.db", 0));
    ASSERT_TRUE(writer.Exec("BEGIN EXCLUSIVE"));
    AgentDatabase database(folder / "a.db");
    std::int64_t sum = 0;
    EXPECT_TRUE(database.Read([&sum](SqliteConnection& db) { return ReadSum(db, sum); }));
    EXPECT_EQ(sum, 1);
}

TEST(AgentDatabase, AJournalThatStaysIsAChangeThatWasCutShort)
{
    const TempFolder folder;
    Make(folder / "a.db");
    WriteFile(folder / "a.db-journal", "something");
    AgentDatabase database(folder / "a.db");
    const std::string why = WhyNot(database);
    EXPECT_EQ(why.find(folder / "a.db" + " is in the middle of a change ("), 0u) << why;
    EXPECT_EQ(::Test::ReadFile(folder / "a.db-journal"), "something");
}

TEST(AgentDatabase, AWriteAheadLogIsReadWithWhatIsOnlyInIt)
{
    const TempFolder folder;
    Make(folder / "a.db", "WAL");
    SqliteConnection writer;
    ASSERT_TRUE(writer.Open(folder / "a.db", 0));
    SqliteStatement(writer, "PRAGMA journal_mode=WAL").Step();
    ASSERT_TRUE(writer.Exec("INSERT INTO t VALUES(10)"));
    AgentDatabase database(folder / "a.db");
    std::int64_t sum = 0;
    EXPECT_TRUE(database.Read([&sum](SqliteConnection& db) { return ReadSum(db, sum); }));
    EXPECT_EQ(sum, 11);
    EXPECT_TRUE(writer.Exec("INSERT INTO t VALUES(100)")) << writer.Error();
    EXPECT_TRUE(database.Read([&sum](SqliteConnection& db) { return ReadSum(db, sum); }));
    EXPECT_EQ(sum, 111);
}

TEST(AgentDatabase, AReaderSeesOneStateOfAWriteAheadLogWhateverIsCommittedMeanwhile)
{
    const TempFolder folder;
    Make(folder / "a.db", "WAL");
    SqliteConnection writer;
    ASSERT_TRUE(writer.Open(folder / "a.db", 0));
    SqliteStatement(writer, "PRAGMA journal_mode=WAL").Step();
    ASSERT_TRUE(writer.Exec("INSERT INTO t VALUES(20)"));
    AgentDatabase database(folder / "a.db");
    std::int64_t before = 0, behind = 0;
    EXPECT_TRUE(database.Read([&](SqliteConnection& db) {
        return ReadSum(db, before) && writer.Exec("INSERT INTO t VALUES(300)") && ReadSum(db, behind);
    }));
    EXPECT_EQ(before, 21);
    EXPECT_EQ(behind, 21);
    EXPECT_TRUE(database.Read([&](SqliteConnection& db) { return ReadSum(db, behind); }));
    EXPECT_EQ(behind, 321);
}

TEST(EventKeys, AreAnEventsOwn)
{
    const std::string key = EventKey(17, "<agent_event number=\"1\"/>");
    EXPECT_EQ(key, EventKey(17, "<agent_event number=\"1\"/>"));
    EXPECT_NE(key, EventKey(17, "<agent_event number=\"2\"/>"));
    EXPECT_NE(key, EventKey(18, "<agent_event number=\"1\"/>"));
    EXPECT_EQ(IdOfEventKey(key), 17);
    EXPECT_EQ(IdOfEventKey(EventKey(9'000'000'000'000, "")), 9'000'000'000'000);
    for (const char* const text : {"", "17", "-0123456789abcdef", "17-0123456789abcde", "17-0123456789ABCDEF",
                                   "x7-0123456789abcdef", "1234567890123456789-0123456789abcdef"})
        EXPECT_FALSE(IdOfEventKey(text)) << text;
}

TEST(EventKeys, OfTheAgentHaveAFormOfTheirOwn)
{
    for (const char* const text : {"0123456789abcdef0123456789abcdef", "18c2a3b4c5d-1a2b-0"}) {
        EXPECT_TRUE(IsStoredEventKey(text)) << text;
        EXPECT_FALSE(IdOfEventKey(text)) << text;
    }
    for (const char* const text :
         {"", "nonsense", "17", "0123456789abcdef0123456789abcde", "0123456789abcdef0123456789abcdeF",
          "0123456789abcdef0123456789abcdef0", "17-0123456789abcdef", "1--2", "-1-2", "1-2-", "1-2-3-4", "1-g-3",
          "10000000000000000-1-1"})
        EXPECT_FALSE(IsStoredEventKey(text)) << text;
}

TEST(HeartbeatHistory, TheLastOnesComeInTheirOrderAndAbsentFactsStayAbsent)
{
    const TempFolder folder;
    SqliteConnection db;
    ASSERT_TRUE(db.Open(folder / "h.db", 0));
    ASSERT_TRUE(db.Exec(
        "CREATE TABLE heartbeat(id INTEGER PRIMARY KEY, time_ms INTEGER, reason TEXT, uptime_s INTEGER, load1 REAL,"
        " memory_available INTEGER);"
        "INSERT INTO heartbeat VALUES(1, 1000, 'start', 5, 0.25, 4096);"
        "INSERT INTO heartbeat VALUES(2, 2000, 'interval', NULL, NULL, NULL);"
        "INSERT INTO heartbeat VALUES(3, 3000, 'request', 7, 1, 1)"));
    AgentDatabase database(folder / "h.db");
    HeartbeatWish wish;
    wish.number = 2;
    auto beats = ReadHeartbeats(database, wish);
    ASSERT_EQ(beats.size(), 2u);
    EXPECT_EQ(beats[0].id, 2);
    EXPECT_FALSE(beats[0].uptimeS || beats[0].load || beats[0].memoryAvailable);
    EXPECT_EQ(beats[1].reason, "request");
    wish.number = 0;
    wish.untilMs = 1000;
    beats = ReadHeartbeats(database, wish);
    ASSERT_EQ(beats.size(), 1u);
    EXPECT_EQ(beats[0].load, 0.25);
    EXPECT_EQ(beats[0].memoryAvailable, 4096);
}

TEST(HeartbeatHistory, NumbersThatNoAgentWritesAreAbsent)
{
    const TempFolder folder;
    SqliteConnection db;
    ASSERT_TRUE(db.Open(folder / "h.db", 0));
    ASSERT_TRUE(
        db.Exec("CREATE TABLE heartbeat(id INTEGER PRIMARY KEY, time_ms, reason, uptime_s, load1, memory_available);"
                "INSERT INTO heartbeat VALUES(1, -5, 'start', -1, 9e999, -4096);"
                "INSERT INTO heartbeat VALUES(2, 1, 'start', 7, -9e999, 1)"));
    AgentDatabase database(folder / "h.db");
    HeartbeatWish wish;
    wish.number = 0;
    const auto beats = ReadHeartbeats(database, wish);
    ASSERT_EQ(beats.size(), 2u);
    EXPECT_EQ(beats[0].timeMs, 0);
    EXPECT_FALSE(beats[0].uptimeS || beats[0].load || beats[0].memoryAvailable || beats[1].load);
    EXPECT_EQ(beats[1].uptimeS, 7);
}

TEST(HeartbeatHistory, BytesHaveUnits)
{
    EXPECT_EQ(BytesText(0), "0 B");
    EXPECT_EQ(BytesText(1023), "1023 B");
    EXPECT_EQ(BytesText(1536), "1.5 KiB");
    EXPECT_EQ(BytesText(std::int64_t{3} << 30), "3.0 GiB");
}
