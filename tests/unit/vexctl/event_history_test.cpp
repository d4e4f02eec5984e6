#include "vex/apps/vexctl/event_history.h"
#include "vex/apps/vexctl/event_key.h"

#include "support/temp_folder.h"

#include <gtest/gtest.h>

using namespace Vexctl;
using ::Test::TempFolder;
using VexCore::SqliteConnection;
using VexCore::SqliteStatement;

namespace {
constexpr const char* ourKey = "0123456789abcdef0123456789abcdef";

// Two events, the second of them with a key where the table has such a column.
class EventHistory : public testing::TestWithParam<bool>
{
protected:
    void SetUp() override
    {
        SqliteConnection db;
        ASSERT_TRUE(db.Open(m_path, 0)) << db.Error();
        ASSERT_TRUE(db.Exec("CREATE TABLE agent_event(id INTEGER PRIMARY KEY, time_ms INTEGER, time_s INTEGER,"
                            " number INTEGER, severity INTEGER, text TEXT, xml TEXT);"
                            "INSERT INTO agent_event VALUES(1, NULL, 7, 12, 3, 'one', '<one/>');"
                            "INSERT INTO agent_event VALUES(5, 8001, 8, NULL, NULL, NULL, '<two/>')"))
            << db.Error();
        if (HasKeys()) {
            ASSERT_TRUE(db.Exec("ALTER TABLE agent_event ADD COLUMN key TEXT;"
                                "UPDATE agent_event SET key = '0123456789abcdef0123456789abcdef' WHERE id = 5"))
                << db.Error();
        }
    }

    bool HasKeys() const { return GetParam(); }
    SqliteConnection Open()
    {
        SqliteConnection db;
        EXPECT_TRUE(db.OpenForReading(m_path, true)) << db.Error();
        return db;
    }

    const TempFolder m_folder;
    const std::string m_path = m_folder / "events.db";
};

} // namespace

TEST_P(EventHistory, EventsAreReadWithTheKeyThatIsStoredOrElseMadeOfThem)
{
    AgentDatabase database(m_path);
    const std::vector<Event> events = ReadLastEvents(database, 10);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].id, 1);
    EXPECT_EQ(events[0].timeMs, 7000);
    EXPECT_EQ(events[0].number, 12);
    EXPECT_EQ(events[0].severity, 3);
    EXPECT_EQ(events[0].text, "one");
    EXPECT_EQ(events[0].xml, "<one/>");
    EXPECT_EQ(events[0].Key(), EventKey(1, "<one/>"));
    EXPECT_EQ(events[1].id, 5);
    EXPECT_EQ(events[1].timeMs, 8001);
    EXPECT_FALSE(events[1].number || events[1].severity);
    EXPECT_EQ(events[1].Key(), HasKeys() ? ourKey : EventKey(5, "<two/>"));
}

TEST_P(EventHistory, AnEventHasTheKeyThatWasMadeOfItAsWell)
{
    AgentDatabase database(m_path);
    const Event event = ReadLastEvents(database, 1).at(0);
    EXPECT_TRUE(event.HasKey(EventKey(5, "<two/>")));
    EXPECT_EQ(event.HasKey(ourKey), HasKeys());
    EXPECT_FALSE(event.HasKey(EventKey(1, "<one/>")));
    EXPECT_FALSE(event.HasKey(""));
}

TEST_P(EventHistory, AnEventIsFoundByItsIdAndByTheKeyThatIsStored)
{
    SqliteConnection db = Open();
    std::optional<Event> event;
    ASSERT_TRUE(FindEventById(db, 5, event));
    EXPECT_EQ(event.value().xml, "<two/>");
    ASSERT_TRUE(FindEventById(db, 2, event));
    EXPECT_FALSE(event);
    ASSERT_TRUE(FindEventByStoredKey(db, ourKey, event)) << db.Error();
    EXPECT_EQ(event ? event->id : 0, HasKeys() ? 5 : 0);
    ASSERT_TRUE(FindEventByStoredKey(db, "ffffffffffffffffffffffffffffffff", event));
    EXPECT_FALSE(event);
}

TEST(EventHistoryKeys, WhatSomebodyElsePutInTheirPlaceIsNoKey)
{
    Event event;
    event.id = 3;
    event.storedKey = "\x1b[31m";
    EXPECT_EQ(event.Key(), EventKey(3, ""));
}

TEST(EventHistoryLines, HaveTheFieldsThatTheEventHas)
{
    Event event;
    event.storedKey = ourKey;
    EXPECT_EQ(JsonLine(event), "{\"schema\":1,\"key\":\"0123456789abcdef0123456789abcdef\",\"text\":\"\"}");
    event.timeMs = 1'700'000'000'007;
    event.number = -12;
    event.severity = 3;
    event.text = "\"one\"\n";
    EXPECT_EQ(JsonLine(event), "{\"schema\":1,\"key\":\"0123456789abcdef0123456789abcdef\",\"time\":"
                               "\"2023-11-14T22:13:20.007Z\",\"number\":-12,\"severity\":3,\"severity_word\":"
                               "\"error\",\"text\":\"\\\"one\\\"\\n\"}");
    event.severity = 8;
    EXPECT_NE(JsonLine(event).find(",\"severity\":8,\"severity_word\":\"-\","), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(OfAnAgent, EventHistory, testing::Bool(),
                         [](const auto& one) { return one.param ? "ThatStoresKeys" : "ThatStoresNone"; });

TEST(EventHistoryTimes, SecondsBeyondAnyTimeAreNone)
{
    SqliteConnection db;
    ASSERT_TRUE(db.Open(":memory:", 0)) << db.Error();
    for (const char* const seconds : {"9223372036854775807", "-9223372036854775808", "9223372036854776"}) {
        SqliteStatement row(db, (std::string("SELECT 1, NULL, ") + seconds + ", 1, 1, '', ''").c_str());
        ASSERT_EQ(row.Step(), SqliteStatement::StepResult::Row);
        EXPECT_FALSE(EventOf(row).timeMs) << seconds;
    }
}
