#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/event_state.h"

#include "support/call_watch.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include <sys/stat.h>

using namespace Vexctl;
using ::Test::CallWatch;
using ::Test::ReadFile;
using ::Test::TempFolder;
using ::Test::WriteFile;
using VexCore::os::Call;

namespace {
const std::string host(32, 'a');

class EventStates : public testing::Test
{
protected:
    EventState Open(const std::string& hostId = host, const std::string& agent = "vx_agent")
    {
        return EventState(
            m_path, hostId, agent, [this](const std::string& text) { m_notes += text + "\n"; },
            [this] { return m_nowMs; });
    }

    std::string WhyNot(const std::string& hostId = host, const std::string& agent = "vx_agent")
    {
        try {
            Open(hostId, agent).Begin({});
        } catch (const Failure& failure) {
            return failure.what();
        }
        return "it is one";
    }

    const TempFolder m_folder;
    const std::string m_path = m_folder / "state";
    std::string m_notes;
    std::int64_t m_nowMs = 1'000'000;
    const EventPosition m_position{"17-0123456789abcdef", 17, "1:2", {"events.db.damaged-5"}};
};

constexpr const char* remedy = "; name another file with --state, or remove this one to begin with all events";

} // namespace

TEST_F(EventStates, ThereIsNoneAtFirstAndTheNextRunFindsIt)
{
    {
        EventState state = Open();
        EXPECT_FALSE(state.Found());
        EXPECT_FALSE(std::filesystem::exists(m_path));
        state.Begin({});
        EXPECT_TRUE(std::filesystem::exists(m_path));
        state.Set(m_position);
        EXPECT_TRUE(state.Save());
    }
    struct stat status = {};
    ASSERT_EQ(::stat(m_path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    EXPECT_EQ(ReadFile(m_path), "{\n  \"vexctl_events_state\": 1,\n  \"host_id\": \"" + host
                                    + "\",\n  \"agent\": \"vx_agent\",\n  \"key\": \"17-0123456789abcdef\",\n"
                                      "  \"id\": 17,\n  \"database\": \"1:2\",\n  \"done\": [\n"
                                      "    \"events.db.damaged-5\"\n  ]\n}\n");
    const EventState next = Open();
    ASSERT_TRUE(next.Found());
    EXPECT_TRUE(*next.Found() == m_position);
    EXPECT_EQ(m_notes, "");
}

TEST_F(EventStates, AreWrittenOnceASecondAndInTheEnd)
{
    {
        EventState state = Open();
        state.Begin({});
        const std::string before = ReadFile(m_path);
        m_nowMs += 999;
        state.Set(m_position);
        EXPECT_EQ(ReadFile(m_path), before);
        m_nowMs += 1;
        state.Set({"", 18, "1:2", {}});
        EXPECT_NE(ReadFile(m_path).find("\"id\": 18"), std::string::npos);
        state.Set(m_position);
    }
    EXPECT_NE(ReadFile(m_path).find("\"id\": 17"), std::string::npos);
}

TEST_F(EventStates, WhatIsNoStateIsToldAndLeftAlone)
{
    const std::string good = "{\"vexctl_events_state\":1,\"host_id\":\"" + host
                             + "\",\"agent\":\"vx_agent\",\"key\":\"\",\"id\":0,\"database\":\"\",\"done\":[]}";
    for (const std::string& text :
         {std::string(), std::string("nonsense"), good.substr(0, good.size() - 1), std::string("[]"), std::string("{}"),
          std::string("{\"vexctl_events_state\":1}"), std::string(100, '\0'), std::string(2'000'000, ' ') + good,
          std::string(good).replace(good.find("\"id\":0"), 6, "\"id\":\"0\""),
          std::string(good).replace(good.find("\"id\":0"), 6, "\"id\":true"),
          std::string(good).replace(good.find("\"id\":0"), 6, "\"id\":1e300"),
          std::string(good).replace(good.find("\"id\":0"), 6, "\"id\":0.5"),
          std::string(good).replace(good.find(":1,"), 3, ":true,"),
          std::string(good).replace(good.find(":1,"), 3, ":1.5,"), "\xff" + good}) {
        WriteFile(m_path, text);
        EXPECT_EQ(WhyNot(), m_path + " is no state of vexctl events, or is damaged" + remedy) << text.substr(0, 100);
        EXPECT_EQ(ReadFile(m_path), text);
    }
    WriteFile(m_path, good);
    EXPECT_EQ(WhyNot(), "it is one");
    WriteFile(m_path, std::string(good).replace(good.find(":1,"), 3, ":2,"));
    EXPECT_EQ(WhyNot(), m_path + " is a state of version 2, and this is version 1" + remedy);
}

TEST_F(EventStates, OfAnotherHostOrAgentAreToldAndLeftAlone)
{
    EXPECT_EQ(WhyNot(), "it is one");
    const std::string before = ReadFile(m_path);
    const std::string other(32, 'b');
    EXPECT_EQ(WhyNot(other),
              m_path + " is the state of another host (" + host + ", and this is " + other + ")" + remedy);
    EXPECT_EQ(WhyNot(host, "other"), m_path + " is the state of another agent (vx_agent, and this is other)" + remedy);
    EXPECT_EQ(ReadFile(m_path), before);
    EXPECT_EQ(WhyNot(""), "it is one"); // a host that does not know its id
}

TEST_F(EventStates, WhatIsNoFileOrCannotBeWrittenIsTold)
{
    std::filesystem::create_directory(m_path);
    EXPECT_EQ(WhyNot(), m_path + " is there and is no regular file; give another name, or take it away");
    std::filesystem::remove(m_path);
    {
        const CallWatch watch([this](const Call& call) {
            return call.path && m_path + ".new" == call.path && call.name == std::string_view("open") ? EACCES : 0;
        });
        EXPECT_EQ(WhyNot(), m_path + " cannot be written: Permission denied");
    }
    EXPECT_FALSE(std::filesystem::exists(m_path));
    std::filesystem::remove(m_path + ".lock");
    std::filesystem::create_directory(m_path + ".lock");
    EXPECT_EQ(WhyNot(), m_path + ".lock is there and is no regular file; give another name, or take it away");
}

TEST_F(EventStates, AFullDiskIsToldOnceAndWhatWasWrittenLastStays)
{
    EventState state = Open();
    state.Begin({});
    const std::string before = ReadFile(m_path);
    bool isFull = true;
    const CallWatch watch(
        [&isFull](const Call& call) { return isFull && call.name == std::string_view("write") ? ENOSPC : 0; });
    state.Set(m_position);
    EXPECT_FALSE(state.Save());
    EXPECT_FALSE(state.Save());
    EXPECT_EQ(m_notes, m_path
                           + " cannot be written: No space left on device. Events go on, and it is tried again; those "
                             "shown meanwhile come twice after an end before that\n");
    EXPECT_EQ(ReadFile(m_path), before);
    EXPECT_FALSE(std::filesystem::exists(m_path + ".new"));
    isFull = false;
    m_notes.clear();
    EXPECT_TRUE(state.Save());
    EXPECT_EQ(m_notes, m_path + " is written again\n");
    EXPECT_NE(ReadFile(m_path), before);
}

TEST_F(EventStates, AFullDiskIsNotTriedAgainAtOnceByWhoeverAsksOften)
{
    EventState state = Open();
    state.Begin({});
    bool isFull = true;
    int tries = 0;
    const CallWatch watch([&](const Call& call) {
        tries += call.path && m_path + ".new" == call.path && call.name == std::string_view("open") ? 1 : 0;
        return isFull && call.name == std::string_view("write") ? ENOSPC : 0;
    });
    m_nowMs += 1000;
    state.Set(m_position);
    EXPECT_EQ(tries, 1);
    m_nowMs += 4999;
    EXPECT_FALSE(state.SaveWhenDue());
    state.Set({"", 18, "1:2", {}});
    EXPECT_EQ(tries, 1);
    m_nowMs += 1;
    EXPECT_FALSE(state.SaveWhenDue());
    EXPECT_EQ(tries, 2);
    isFull = false;
    m_nowMs += 5000;
    EXPECT_TRUE(state.SaveWhenDue());
    EXPECT_EQ(tries, 3);
}

TEST_F(EventStates, ADiskThatIsFullFromTheBeginIsNoReasonToEnd)
{
    const CallWatch watch([](const Call& call) { return call.name == std::string_view("fsync") ? EDQUOT : 0; });
    EventState state = Open();
    state.Begin({});
    EXPECT_NE(m_notes.find(" cannot be written: "), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(m_path));
}

// Each step of a writing fails in turn: the file is the old one or the new one.
TEST_F(EventStates, AreWholeWhateverFails)
{
    Open().Begin({});
    const std::string before = ReadFile(m_path);
    for (int failing = 1;; ++failing) {
        EventState state = Open();
        state.Begin({});
        state.Set(m_position);
        int calls = 0;
        bool isSaved = false;
        {
            const CallWatch watch([&](const Call&) { return ++calls == failing ? EIO : 0; });
            isSaved = state.Save();
        }
        const std::string after = ReadFile(m_path);
        EXPECT_EQ(isSaved, after != before) << failing;
        if (calls < failing)
            break;
        EXPECT_TRUE(state.Save());
        state.Begin({});
    }
}

TEST_F(EventStates, WhatAKilledRunLeftIsNotInTheWay)
{
    WriteFile(m_path + ".new", "half");
    EXPECT_EQ(WhyNot(), "it is one");
    EXPECT_FALSE(std::filesystem::exists(m_path + ".new"));
}
