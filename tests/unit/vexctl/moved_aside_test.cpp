#include "vex/apps/vexctl/moved_aside.h"

#include "vex/apps/vexctl/event_key.h"

#include "support/process_guards.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include <sys/stat.h>
#include <unistd.h>

using namespace Vexctl;
using ::Test::ReadFile;
using ::Test::TempFolder;
using ::Test::WriteFile;
using VexCore::SqliteConnection;

namespace {
constexpr int lastNumber = 400;

void MakeEvents(const std::string& path)
{
    SqliteConnection db;
    ASSERT_TRUE(db.Open(path, 0)) << db.Error();
    ASSERT_TRUE(db.Exec(
        "CREATE TABLE agent_event(id INTEGER PRIMARY KEY, time_ms INTEGER, time_s INTEGER, number INTEGER,"
        " severity INTEGER, text TEXT, xml TEXT);"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 400)"
        "INSERT INTO agent_event SELECT i, i, 0, i, i % 8, hex(zeroblob(100)), '<e n=\"' || i || '\"/>' FROM n"))
        << db.Error();
}

std::vector<std::int64_t> IdsIn(const std::string& path, std::optional<std::string>& lost, std::int64_t after = 0,
                                const std::string& condition = "")
{
    std::vector<std::int64_t> ids;
    lost = ReadDamaged(path, after, condition, [&ids](const Event& event) { ids.push_back(event.id); });
    return ids;
}

} // namespace

TEST(MovedAside, AreFoundInTheOrderInWhichTheyWereMoved)
{
    const TempFolder folder;
    for (const char* const name :
         {"events.db", "events.db.damaged-20", "events.db.damaged-9", "events.db.damaged-20-10",
          "events.db.damaged-20-2", "events.db.damaged-20-journal", "events.db.damaged-20-wal", "events.db.damaged-",
          "events.db.damaged-2x", "events.db.damaged-2-", "other.db.damaged-1",
          "events.db.damaged-1234567890123456789"})
        WriteFile(folder / name, "x");
    std::filesystem::create_directory(folder / "events.db.damaged-1");
    std::vector<std::string> names;
    for (const MovedAside& one : FindMovedAside(folder / "events.db"))
        names.push_back(one.name);
    EXPECT_EQ(names, (std::vector<std::string>{"events.db.damaged-9", "events.db.damaged-20", "events.db.damaged-20-2",
                                               "events.db.damaged-20-10"}));
}

TEST(MovedAside, TheDatabaseOfAPositionIsKnownByItsLastEvent)
{
    const TempFolder folder;
    MakeEvents(folder / "events.db.damaged-1");
    const MovedAside moved = FindMovedAside(folder / "events.db").at(0);
    const auto isOf = [&moved](const std::string& key, std::int64_t id, const std::string& database) {
        return IsDatabaseOf(moved, {key, id, database, {}});
    };
    const std::string key = EventKey(10, "<e n=\"10\"/>");
    EXPECT_TRUE(isOf(key, 10, moved.database));
    EXPECT_TRUE(isOf(key, 10, "1:2")); // a copy
    EXPECT_FALSE(isOf(EventKey(10, "<other/>"), 10, moved.database)); // another file under the number of one that went
    EXPECT_FALSE(isOf(EventKey(500, "<e/>"), 500, moved.database));
    EXPECT_TRUE(isOf("", 0, moved.database));
    EXPECT_FALSE(isOf("", 0, "1:2"));

    SqliteConnection db;
    ASSERT_TRUE(db.Open(moved.path, 0) && db.Exec("DELETE FROM agent_event WHERE id <= 20")) << db.Error();
    db.Close();
    EXPECT_TRUE(isOf(key, 10, moved.database)); // the event was too old
    EXPECT_FALSE(isOf(key, 10, "1:2"));

    WriteFile(moved.path, std::string(5000, 'x'));
    EXPECT_TRUE(isOf(key, 10, moved.database));
    EXPECT_FALSE(isOf(key, 10, "1:2"));
}

TEST(MovedAside, AreKnownByTheFileWhateverItsName)
{
    const TempFolder folder;
    WriteFile(folder / "events.db", "x");
    struct stat status = {};
    ASSERT_EQ(::stat((folder / "events.db").c_str(), &status), 0);
    const std::string before = DatabaseName(VexCore::os::IdentityOf(status));
    std::filesystem::rename(folder / "events.db", folder / "events.db.damaged-1");
    WriteFile(folder / "events.db", "x");
    const std::vector<MovedAside> moved = FindMovedAside(folder / "events.db");
    ASSERT_EQ(moved.size(), 1u);
    EXPECT_EQ(moved[0].database, before);
    ASSERT_EQ(::stat((folder / "events.db").c_str(), &status), 0);
    EXPECT_NE(DatabaseName(VexCore::os::IdentityOf(status)), before);
}

TEST(DamagedDatabase, OneThatCanBeReadIsReadBehindTheEventAndByTheCondition)
{
    const TempFolder folder;
    MakeEvents(folder / "a.db");
    std::optional<std::string> lost;
    EXPECT_EQ(IdsIn(folder / "a.db", lost).size(), 400u);
    EXPECT_FALSE(lost);
    EXPECT_EQ(IdsIn(folder / "a.db", lost, 398), (std::vector<std::int64_t>{399, 400}));
    EXPECT_EQ(IdsIn(folder / "a.db", lost, 390, " AND severity <= 0"), (std::vector<std::int64_t>{392, 400}));
    EXPECT_FALSE(lost);
}

TEST(DamagedDatabase, WhatLiesBeforeAndBehindADamageIsRead)
{
    const TempFolder folder;
    const std::string path = folder / "a.db";
    MakeEvents(path);
    std::string bytes = ReadFile(path);
    constexpr std::size_t page = 4096;
    const std::size_t at = bytes.find("<e n=\"200\"/>") / page * page;
    bytes.replace(at, page, page, '\xff');
    WriteFile(path, bytes);
    std::optional<std::string> lost;
    const std::vector<std::int64_t> ids = IdsIn(path, lost);
    ASSERT_TRUE(lost);
    EXPECT_EQ(lost->find("what lies behind event "), 0u) << *lost;
    EXPECT_GT(ids.size(), 350u);
    EXPECT_LT(ids.size(), 400u);
    EXPECT_EQ(ids.front(), 1);
    EXPECT_EQ(ids.back(), lastNumber);
    EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));
    EXPECT_EQ(ReadFile(path), bytes);
}

TEST(DamagedDatabase, OneThatIsNoneIsToldAndHasNothing)
{
    const TempFolder folder;
    WriteFile(folder / "a.db", std::string(5000, 'x'));
    std::optional<std::string> lost;
    EXPECT_TRUE(IdsIn(folder / "a.db", lost).empty());
    ASSERT_TRUE(lost);
    EXPECT_NE(lost->find("file is not a database"), std::string::npos) << *lost;
}

TEST(DamagedDatabase, OneWithoutTheTableHasNothingToShow)
{
    const TempFolder folder;
    SqliteConnection db;
    ASSERT_TRUE(db.Open(folder / "a.db", 0) && db.Exec("CREATE TABLE other(x)")) << db.Error();
    db.Close();
    std::optional<std::string> lost;
    EXPECT_TRUE(IdsIn(folder / "a.db", lost).empty());
    ASSERT_TRUE(lost);
    EXPECT_NE(lost->find("no such table"), std::string::npos) << *lost;
}

TEST(DamagedDatabase, OneThatHasGoneIsToldAndHasNothing)
{
    const TempFolder folder;
    std::optional<std::string> lost;
    EXPECT_TRUE(IdsIn(folder / "a.db", lost).empty());
    ASSERT_TRUE(lost);
    EXPECT_EQ(lost->find("what lies behind event 0 cannot be read"), 0u) << *lost;
}

TEST(DamagedDatabase, ATroubleOfTheSystemIsNoDamage)
{
    const TempFolder folder;
    MakeEvents(folder / "a.db");
    const MovedAside moved{"a.db", folder / "a.db", "1:2"};
    std::optional<std::string> lost;
    {
        const ::Test::DescriptorLimit none(3);
        EXPECT_THROW(IdsIn(folder / "a.db", lost), Failure);
        EXPECT_THROW(IsDatabaseOf(moved, {"1-0123456789abcdef", 1, "", {}}), Failure);
    }
    EXPECT_EQ(IdsIn(folder / "a.db", lost).size(), 400u);
    EXPECT_FALSE(lost);
}

TEST(DamagedDatabase, AnotherOnesLockIsNoDamage)
{
    const TempFolder folder;
    MakeEvents(folder / "a.db");
    SqliteConnection owner;
    ASSERT_TRUE(
        owner.Open(folder / "a.db", 0)
        && owner.Exec("PRAGMA locking_mode=EXCLUSIVE; PRAGMA journal_mode=WAL; UPDATE agent_event SET number = 1"))
        << owner.Error();
    const VexCore::SqliteSettings before = VexCore::GetSqliteSettings();
    VexCore::SqliteSettings impatient = before;
    impatient.busyTimeoutMs = 0;
    VexCore::SetSqliteSettings(impatient);
    std::optional<std::string> lost;
    EXPECT_THROW(IdsIn(folder / "a.db", lost), Failure);
    VexCore::SetSqliteSettings(before);
    owner.Close();
    EXPECT_EQ(IdsIn(folder / "a.db", lost).size(), 400u);
}

TEST(DamagedDatabase, RareEventsAreFoundBehindARowThatCannotBeRead)
{
    const TempFolder folder;
    const std::string path = folder / "a.db";
    {
        SqliteConnection db;
        ASSERT_TRUE(db.Open(path, 0)) << db.Error();
        ASSERT_TRUE(
            db.Exec("CREATE TABLE agent_event(id INTEGER PRIMARY KEY, time_ms INTEGER, time_s INTEGER, number INTEGER,"
                    " severity INTEGER, text TEXT, xml TEXT);"
                    "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 3000)"
                    "INSERT INTO agent_event SELECT i, i, 0, i, i % 1500 > 0, CASE i WHEN 1500 THEN "
                    "hex(zeroblob(20000)) ELSE '' "
                    "END, '' FROM n"))
            << db.Error();
    }
    // The chain of pages behind the row of that long text leads outside the file.
    std::string bytes = ReadFile(path);
    constexpr std::size_t page = 4096;
    const std::size_t first = bytes.find(std::string(page - 4, '0')) / page * page;
    ASSERT_LT(first, bytes.size());
    bytes.replace(first, 4, "\x7f\xff\xff\xff");
    WriteFile(path, bytes);
    std::optional<std::string> lost;
    EXPECT_EQ(IdsIn(path, lost, 0, " AND severity <= 0"), (std::vector<std::int64_t>{3000}));
    EXPECT_TRUE(lost);
}

TEST(DamagedDatabase, AWriteAheadLogIsReadAndIsToldWhereItMayNotBe)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "needs root to become another user";
    const TempFolder folder;
    MakeEvents(folder / "made.db");
    SqliteConnection owner;
    ASSERT_TRUE(owner.Open(folder / "made.db", 0)
                && owner.Exec("PRAGMA journal_mode=WAL; INSERT INTO agent_event(id, xml) VALUES(401, '<e/>')"))
        << owner.Error();
    std::filesystem::copy_file(folder / "made.db", folder / "a.db");
    std::filesystem::copy_file(folder / "made.db-wal", folder / "a.db-wal");
    std::filesystem::permissions(folder.Path(), std::filesystem::perms(0755));
    std::filesystem::permissions(folder / "a.db", std::filesystem::perms(0644));
    std::optional<std::string> lost;
    // Who may read the log still needs a file beside it, which he may not make.
    for (const int mode : {0600, 0644}) {
        std::filesystem::permissions(folder / "a.db-wal", std::filesystem::perms(mode));
        const ::Test::OtherUser other(::Test::OtherUser::Ids::Effective);
        EXPECT_EQ(IdsIn(folder / "a.db", lost).size(), 400u);
        ASSERT_TRUE(lost);
        EXPECT_EQ(lost->find("its write-ahead log cannot be read: "), 0u) << *lost;
    }
    EXPECT_EQ(IdsIn(folder / "a.db", lost).size(), 401u);
    EXPECT_FALSE(lost);
}

TEST(DamagedDatabase, AWriteAheadLogThatIsDamagedIsTold)
{
    const TempFolder folder;
    MakeEvents(folder / "made.db");
    SqliteConnection owner;
    ASSERT_TRUE(owner.Open(folder / "made.db", 0)
                && owner.Exec("PRAGMA journal_mode=WAL; INSERT INTO agent_event(id, xml) VALUES(401, '<e/>');"
                              "PRAGMA writable_schema=ON; UPDATE sqlite_master SET sql = 'no table'"))
        << owner.Error();
    std::filesystem::copy_file(folder / "made.db", folder / "a.db");
    std::filesystem::copy_file(folder / "made.db-wal", folder / "a.db-wal");
    std::optional<std::string> lost;
    EXPECT_EQ(IdsIn(folder / "a.db", lost).size(), 400u);
    ASSERT_TRUE(lost);
    EXPECT_EQ(lost->find("its write-ahead log cannot be read: "), 0u) << *lost;
}

TEST(MovedAside, AFolderThatMayNotBeListedIsToldApart)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "needs root to become another user";
    const TempFolder folder;
    std::filesystem::permissions(folder.Path(), std::filesystem::perms(0711));
    {
        const ::Test::OtherUser other(::Test::OtherUser::Ids::Effective);
        EXPECT_THROW(FindMovedAside(folder / "events.db"), FolderNotListed);
    }
    try {
        FindMovedAside(folder / "none/events.db");
        ADD_FAILURE() << "a folder that is not there";
    } catch (const FolderNotListed& failure) {
        ADD_FAILURE() << failure.what();
    } catch (const Failure&) {
    }
}
