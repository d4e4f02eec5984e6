#include "vex/apps/vexctl/moved_aside.h"

#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include <sys/stat.h>

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
