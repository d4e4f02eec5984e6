#include "vex/core/wrap_dom.h"

#include "support/joining_thread.h"
#include "support/lua_results.h"
#include "support/temp_folder.h"
#include "vex/core/clock.h"
#include "vex/core/dom.h"
#include "vex/core/log.h"
#include "vex/core/luainterpreter.h"

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <lua.hpp>
#include <sqlite3.h>
#include <sys/stat.h>
#include <wx/log.h>

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;
using VexCore::CDom;

namespace {
class DomainInLua : public ::testing::Test
{
protected:
    DomainInLua() : m_dom(CDom::New(nullptr, nullptr, nullptr, false))
    {
        m_dom->Set("app.name", "wrapdom");
        m_dom->Set("app.path.work", m_folder.Path());
        SLB3::PushReference(m_lua.L(), m_dom);
        lua_setglobal(m_lua.L(), "dom0");
    }
    ~DomainInLua() override { m_dom->Release(); }

    std::string Run(const std::string& code) { return ::Test::LuaResults(m_lua.L(), "return " + code); }
    std::string LogFile() { return ::Test::ReadFile(m_folder / "wrapdom.log"); }

    ::Test::TempFolder m_folder;
    CDom* m_dom;
    VexCore::CLuaInterpreter m_lua{false, L"test", true};
};

// --- values

TEST_F(DomainInLua, GetGivesTextDefaultOrNil)
{
    m_dom->Set("text", std::string("a\0b", 3));
    m_dom->Set("flag", true);
    m_dom->SetWx("number", static_cast<std::int64_t>(9007199254740993));
    EXPECT_EQ(Run("dom0:Get('text')"), std::string("a\0b", 3));
    EXPECT_EQ(Run("dom0:Get('flag')"), "true");
    EXPECT_EQ(Run("dom0:Get('number')"), "9007199254740993");
    EXPECT_EQ(Run("dom0:Get('none')"), "nil");
    EXPECT_EQ(Run("dom0:Get('none', 'other')"), "other");
    EXPECT_EQ(Run("dom0:Get('none', 12)"), "12");
    EXPECT_EQ(Run("dom0:Get('text', 'other', 'more')"), std::string("a\0b", 3));
}

TEST_F(DomainInLua, GetBoolGivesBooleanDefaultOrFalse)
{
    m_dom->Set("yes", "Yes");
    m_dom->Set("odd", "maybe");
    EXPECT_EQ(Run("dom0:GetBool('yes')"), "true");
    EXPECT_EQ(Run("dom0:GetBool('odd')"), "false");
    EXPECT_EQ(Run("dom0:GetBool('odd', true)"), "true");
    EXPECT_EQ(Run("dom0:GetBool('none')"), "false");
}

TEST_F(DomainInLua, GetIntGivesIntegerDefaultOrNil)
{
    m_dom->Set("text", "-17");
    m_dom->SetWx("exact", static_cast<std::int64_t>(1) << 53);
    m_dom->SetWx("beyond", (static_cast<std::int64_t>(1) << 53) + 1);
    EXPECT_EQ(Run("dom0:GetInt('text')"), "-17");
    EXPECT_EQ(Run("dom0:GetInt('exact') == 2^53"), "true");
    EXPECT_EQ(Run("dom0:GetInt('none')"), "nil");
    EXPECT_EQ(Run("dom0:GetInt('none', 5)"), "5");
    EXPECT_EQ(Run("dom0:GetInt('beyond')"),
              "error: test.lua:1: the value of 'beyond' is beyond 2^53, where Lua numbers "
              "are not exact: read it with Get");
    EXPECT_EQ(Run("dom0:Get('beyond')"), "9007199254740993");
    m_dom->SetWx("below", -(static_cast<std::int64_t>(1) << 53) - 1);
    EXPECT_THAT(Run("dom0:GetInt('below')"), HasSubstr("the value of 'below' is beyond 2^53"));
    EXPECT_EQ(Run("dom0:Get('below')"), "-9007199254740993");
    m_dom->SetWx("lowest", -(static_cast<std::int64_t>(1) << 53));
    EXPECT_EQ(Run("dom0:GetInt('lowest') == -2^53"), "true");
    EXPECT_THAT(Run("dom0:GetInt('none', 'x')"), HasSubstr("#2 to 'SLB.Dom:GetInt' (integer expected, got string)"));
}

TEST_F(DomainInLua, SetWritesByTheTypeOfTheValue)
{
    Run("dom0:Set('t', 'a\\0b'), dom0:Set('b', false), dom0:Set('i', -2^53), dom0:Set('n', '12')");
    EXPECT_EQ(m_dom->TypeOf("t"), CDom::EType::Text);
    EXPECT_EQ(m_dom->Get("t"), std::string("a\0b", 3));
    EXPECT_EQ(m_dom->TypeOf("b"), CDom::EType::Bool);
    EXPECT_EQ(m_dom->TypeOf("i"), CDom::EType::Int);
    EXPECT_EQ(m_dom->Get("i"), "-9007199254740992");
    EXPECT_EQ(m_dom->TypeOf("n"), CDom::EType::Text);
    EXPECT_EQ(Run("dom0:Set('t', nil)"), "");
    EXPECT_FALSE(m_dom->Has("t"));
}

TEST_F(DomainInLua, SetRefusesWhatADomainCannotHold)
{
    EXPECT_EQ(Run("dom0:Set('k', {})"),
              "error: test.lua:1: bad argument #2 to 'SLB.Dom:Set' (string, boolean, integer or "
              "nil expected, got table)");
    EXPECT_EQ(Run("dom0:Set('k', 1.5)"),
              "error: test.lua:1: bad argument #2 to 'SLB.Dom:Set' (integer expected, got number "
              "with a fraction)");
    EXPECT_THAT(Run("dom0:Set('k', 2^63)"), HasSubstr("got number out of range"));
    EXPECT_THAT(Run("dom0:Set('k', 0/0)"), HasSubstr("#2"));
    EXPECT_THAT(Run("dom0:Set('k')"), HasSubstr("got no value"));
    EXPECT_THAT(Run("dom0:Set('k', dom0)"), HasSubstr("got SLB.Dom"));
    EXPECT_THAT(Run("dom0:Set('a\\0b', 'x')"), HasSubstr("string with a zero byte"));
    EXPECT_FALSE(m_dom->Has("k"));
}

TEST_F(DomainInLua, HasRemoveAndKeysWalkTheTree)
{
    m_dom->Set("tree.b", "1");
    m_dom->Set("tree.a.x", "2");
    m_dom->Set("treehouse", "3");
    EXPECT_EQ(Run("dom0:Has('tree.b'), dom0:Has('tree')"), "true false");
    EXPECT_EQ(Run("table.concat(dom0:Keys('tree'), ' ')"), "tree.a.x tree.b");
    EXPECT_EQ(Run("dom0:Remove('tree.b'), dom0:Remove('tree.b')"), "true false");
    EXPECT_THAT(Run("table.concat(dom0:Keys(), ' ')"), StartsWith("app.name app.path.work tree.a.x treehouse"));
}

// --- receivers

TEST_F(DomainInLua, WrongCallsAreClearErrors)
{
    EXPECT_EQ(Run("dom0.Get('x')"),
              "error: test.lua:1: bad argument #0 (self) to 'SLB.Dom:Get' (SLB.Dom expected, got string; "
              "methods are called with ':')");
    EXPECT_EQ(Run("dom0:Get()"), "error: test.lua:1: bad argument #1 to 'SLB.Dom:Get' (string expected, got no value)");
    EXPECT_EQ(Run("dom0.Get(io.stdout, 'x')"),
              "error: test.lua:1: bad argument #0 (self) to 'SLB.Dom:Get' (SLB.Dom expected, "
              "got userdata; methods are called with ':')");
    EXPECT_THAT(Run("dom0:Nothing()"), HasSubstr("attempt to call method 'Nothing'"));
}

TEST_F(DomainInLua, EveryMethodRefusesAWrongReceiver)
{
    EXPECT_EQ(Run("(function() local n = 0 for name, method in pairs(getmetatable(dom0).__index) do "
                  "local ok, message = pcall(method, {}) "
                  "assert(not ok and message:find(\"'SLB.Dom:\" .. name .. \"'\", 1, true), name) n = n + 1 end return "
                  "n end)()"),
              "17");
}

TEST_F(DomainInLua, EveryMethodWithArgumentsRefusesAWrongFirstOne)
{
    EXPECT_EQ(
        Run("(function() local n = 0 for name, method in pairs(getmetatable(dom0).__index) do "
            "if name ~= 'TimeMillis' then local ok, message = pcall(method, dom0, print) "
            "local start = \"bad argument #1 to 'SLB.Dom:\" .. name .. \"' (\" "
            "assert(not ok and message:find(start, 1, true) and message:find(' expected, got function)', 1, true), "
            "name .. ': ' .. tostring(message)) n = n + 1 end end return n end)()"),
        "16");
}

TEST_F(DomainInLua, WrongFurtherArgumentsAreRefused)
{
    EXPECT_THAT(Run("dom0:GetBool('k', 'x')"), HasSubstr("#2 to 'SLB.Dom:GetBool' (boolean expected, got string)"));
    EXPECT_THAT(Run("dom0:Trace('mine', {})"), HasSubstr("#2 to 'SLB.Dom:Trace' (string expected, got table)"));
    EXPECT_THAT(Run("dom0:Log('info', {})"), HasSubstr("#2 to 'SLB.Dom:Log' (string expected, got table)"));
    EXPECT_THAT(Run("dom0:AnswerDoorbell('p', {})"),
                HasSubstr("#2 to 'SLB.Dom:AnswerDoorbell' (string expected, got table)"));
    EXPECT_THAT(Run("dom0:StartThread('m', print)"),
                HasSubstr("#2 to 'SLB.Dom:StartThread' (nil, boolean, number, string or a "
                          "table of them expected, got function)"));
}

TEST_F(DomainInLua, CollectingEveryReferenceLeavesTheDomain)
{
    Run("(function() dom0 = nil collectgarbage() collectgarbage() end)()");
    m_dom->Set("alive", true);
    EXPECT_EQ(m_dom->Get("alive"), "true");
}

// --- waiting

TEST_F(DomainInLua, WaitTellsWrittenFromTimeOver)
{
    EXPECT_EQ(Run("dom0:Wait('key', 0.01)"), "false");
    EXPECT_EQ(Run("dom0:Wait('key', 0)"), "false");
    EXPECT_EQ(Run("dom0:Wait('key', -1)"), "false");
    ::Test::JoiningThread writer([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        m_dom->Set("key", "x");
    });
    EXPECT_EQ(Run("dom0:Wait('key', math.huge)"), "true");
    writer.join();
    EXPECT_THAT(Run("dom0:Wait('key')"), HasSubstr("#2 to 'SLB.Dom:Wait' (number expected, got no value)"));
    EXPECT_THAT(Run("dom0:Wait('key', 0/0)"), HasSubstr("#2"));
}

TEST_F(DomainInLua, WaitForSeveralKeysNamesTheOneThatWasWritten)
{
    EXPECT_EQ(Run("dom0:Wait({'a', 'b'}, 0)"), "false");
    std::thread([this] { m_dom->Set("b", true); }).join();
    EXPECT_EQ(Run("(dom0:Wait({'a', 'b'}, 0))"), "true");
    std::thread([this] { m_dom->Set("b", true); }).join();
    EXPECT_EQ(Run("select(2, dom0:Wait({'a', 'b'}, 0))"), "b");
    EXPECT_EQ(Run("select('#', dom0:Wait('a', 0))"), "1");
    EXPECT_THAT(Run("dom0:Wait({}, 0)"), HasSubstr("#1 to 'SLB.Dom:Wait' (1 to 16 keys expected, got 0)"));
    EXPECT_THAT(Run("dom0:Wait({'a', {}}, 0)"), HasSubstr("(array of strings expected, got table at [2])"));
    EXPECT_THAT(Run("dom0:Wait({1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17}, 0)"), HasSubstr("got 17"));
}

// --- log and trace

// The disk log has one place for the whole process, so these run in processes of their own.

TEST_F(DomainInLua, LogWritesAllLevelsToTheDiskLog)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            delete wxLog::SetActiveTarget(new VexCore::CLog2Disk);
            wxLog::SetLogLevel(wxLOG_Info); // as in the background
            Run("dom0:Log('error', 'text 1'), dom0:Log('warning', 'text %s'), dom0:Log('message', 'text 3'), "
                "dom0:Log('info', 'text 4'), dom0:Log('debug', 'text 5'), dom0:Log('warning', 'a\\0b')");
            std::fputs(LogFile().c_str(), stderr);
            std::exit(0);
        },
        ::testing::ExitedWithCode(0),
        "ERROR \\[[0-9]+/main\\] text 1\n.*WARNING \\[[0-9]+/main\\] text %s\n"
        ".*MESSAGE \\[[0-9]+/main\\] text 3\n.*INFO \\[[0-9]+/main\\] text 4\n"
        ".*DEBUG \\[[0-9]+/main\\] text 5\n"
        ".*WARNING \\[[0-9]+/main\\] a.+b\n");
}

TEST_F(DomainInLua, LinesGoPastTheFrameworkAndTheirBytesStayWhatTheyAre)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            wxLog::SetLogLevel(wxLOG_FatalError);
            m_dom->Set("app.trace", "mine");
            Run("dom0:Log('info', 'caf\xE9'), dom0:Log('info', 'caf\xC3\xA9'), dom0:Log('error', ('x'):rep(70000)), "
                "dom0:Trace('mine', 'caf\xE9')");
            const std::string log = LogFile();
            const bool kept = log.find("] caf\xE9\n") != std::string::npos
                              && log.find("] caf\xC3\xA9\n") != std::string::npos
                              && log.find(": caf\xE9\n", log.find("TRACE")) != std::string::npos
                              && log.find("x ... (cut, 70000 bytes in all)\n") != std::string::npos;
            std::exit(kept ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(DomainInLua, TraceNamesTheCallingLineOfLua)
{
    EXPECT_EQ(Run("dom0:TraceEnabled('mine')"), "false");
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            Run("dom0:Trace('mine', 'unseen')");
            m_dom->Set("app.trace", "mine");
            const bool enabled = Run("dom0:TraceEnabled('mine')") == "true";
            Run("(function() local function speak()\n\ndom0:Trace('mine', 'seen')\nend speak() end)()");
            Run("(function() local function pass(text) dom0:Trace('mine', text, 2) end\n"
                "local function author()\npass('for another')\nend author() end)()");
            Run("dom0:Trace('mine', 'from nowhere', 99)");
            std::fputs(LogFile().c_str(), stderr);
            std::exit(enabled && LogFile().find("unseen") == std::string::npos ? 0 : 1);
        },
        ::testing::ExitedWithCode(0),
        "TRACE \\[[0-9]+/main\\] mine speak\\(test.lua:3\\): seen\n"
        ".* mine author\\(test.lua:3\\): for another\n"
        ".* mine main\\(\\?:0\\): from nowhere\n");
    EXPECT_THAT(Run("dom0:Trace('mine', 'x', 'y')"), HasSubstr("#3 to 'SLB.Dom:Trace' (integer expected, got string)"));
}

TEST_F(DomainInLua, UnknownLevelIsAnError)
{
    EXPECT_EQ(Run("dom0:Log('loud', 'x')"), "error: test.lua:1: bad argument #1 to 'SLB.Dom:Log' (\"error\", "
                                            "\"warning\", \"message\", \"info\" or \"debug\" "
                                            "expected, got \"loud\")");
    EXPECT_THAT(Run("dom0:Log('info')"), HasSubstr("#2 to 'SLB.Dom:Log' (string expected, got no value)"));
}

// --- events and the host

TEST_F(DomainInLua, AgentEventReturnsItsId)
{
    EXPECT_EQ(Run("dom0:AgentEvent{number = 7001, severity = 2, text = 'first'} > 0"), "true");
    EXPECT_EQ(Run("dom0:AgentEvent{number = 7002} > dom0:AgentEvent{number = 7001, severity = 99, text = ''}"),
              "false");
}

TEST_F(DomainInLua, AgentEventStoresItsFields)
{
    const std::int64_t begin = VexCore::TimeNowMillis();
    const std::string id = Run("dom0:AgentEvent{number = 7003, severity = 99, text = 'n\\195\\164h'}");
    const std::string plain = Run("dom0:AgentEvent{number = 7004}");
    const auto row = [this](const std::string& wanted) {
        sqlite3* database = nullptr;
        std::string text;
        EXPECT_EQ(sqlite3_open((m_folder / "events.db").c_str(), &database), SQLITE_OK);
        const std::string query = "SELECT number || ' ' || severity || ' ' || text || '|' || time_ms || ' ' || time_s "
                                  "FROM agent_event WHERE id = "
                                  + wanted;
        EXPECT_EQ(sqlite3_exec(
                      database, query.c_str(),
                      [](void* out, int, char** values, char**) {
                          *static_cast<std::string*>(out) = values[0] ? values[0] : "NULL";
                          return 0;
                      },
                      &text, nullptr),
                  SQLITE_OK);
        sqlite3_close(database);
        return text;
    };
    const std::string stored = row(id);
    EXPECT_THAT(stored, StartsWith("7003 7 n\xC3\xA4h|")) << "beyond the severities is the last of them";
    const std::int64_t millis = std::stoll(stored.substr(stored.find('|') + 1));
    EXPECT_GE(millis, begin);
    EXPECT_LE(millis, VexCore::TimeNowMillis());
    EXPECT_THAT(stored, EndsWith(" " + std::to_string(millis / 1000)));
    EXPECT_THAT(row(plain), StartsWith("7004 5 |"));
}

TEST_F(DomainInLua, AgentEventChecksItsFields)
{
    const std::string front = "error: test.lua:1: bad argument #1 to 'SLB.Dom:AgentEvent' (";
    EXPECT_EQ(Run("dom0:AgentEvent()"), front + "table expected, got no value)");
    EXPECT_EQ(Run("dom0:AgentEvent{}"), front + "table with an integer \"number\" expected, got nil)");
    EXPECT_EQ(Run("dom0:AgentEvent{number = 'x'}"), front + "table with an integer \"number\" expected, got string)");
    EXPECT_EQ(Run("dom0:AgentEvent{number = 1.5}"),
              front + "table with an integer \"number\" expected, got another number)");
    EXPECT_EQ(Run("dom0:AgentEvent{number = 1, severity = {}}"),
              front + "table with an integer \"severity\" expected, got table)");
    EXPECT_EQ(Run("dom0:AgentEvent{number = 1, text = true}"),
              front + "table with a string \"text\" expected, got boolean)");
}

TEST_F(DomainInLua, PluginWorkdirIsMade)
{
    EXPECT_EQ(Run("dom0:PluginWorkdir('näh')"), m_folder / "plugins/näh");
    EXPECT_TRUE(std::filesystem::is_directory(m_folder / "plugins/näh"));
}

TEST_F(DomainInLua, PluginWorkdirIsNamedInBytes)
{
    EXPECT_EQ(Run("dom0:PluginWorkdir('n\\228h')"), m_folder / "plugins/n\xE4h");
    EXPECT_TRUE(std::filesystem::is_directory(m_folder / "plugins/n\xE4h"));
    m_dom->Set("app.path.work", m_folder / "w\xF6rk");
    EXPECT_EQ(Run("dom0:PluginWorkdir('x')"), m_folder / "w\xF6rk/plugins/x");
    EXPECT_TRUE(std::filesystem::is_directory(m_folder / "w\xF6rk/plugins/x"));
}

TEST_F(DomainInLua, PluginWorkdirThatOthersMayWriteIsNone)
{
    std::filesystem::create_directory(m_folder / "plugins");
    std::filesystem::permissions(m_folder / "plugins", std::filesystem::perms::all);
    const wxLogNull quiet;
    EXPECT_EQ(
        Run("dom0:PluginWorkdir('x')"),
        "nil '"
            + m_folder
                  / "plugins' is not used, because others may write it (mode 0777): take that right from them with "
                    "chmod go-w");
}

TEST_F(DomainInLua, DoorbellThatCannotBeHadIsTold)
{
    std::filesystem::create_directories(m_folder / "plugins/x/doorbell");
    EXPECT_EQ(Run("dom0:AnswerDoorbell('x', 'rung')"),
              "false " + m_folder / "plugins/x/doorbell: it is there and is no pipe of this user alone; take it away");
}

TEST_F(DomainInLua, ExecuteRunsAProgramWithArguments)
{
    EXPECT_EQ(Run("dom0:Execute('/bin/echo', {'a b', 'c', 3})"), "true a b c 3\n 0 ");
    EXPECT_EQ(Run("(dom0:Execute('/bin/true'))"), "true");
    const wxLogNull quiet; // a code other than 0 is a warning
    EXPECT_EQ(Run("dom0:Execute('/bin/sh', {'-c', 'exit 7'})"), "true  7 ");
    EXPECT_THAT(Run("dom0:Execute('/dev/null/program', {})"), MatchesRegex("false  -?[0-9]+ .*/dev/null/program.*"));
    EXPECT_THAT(Run("dom0:Execute('/bin/sleep', {'60'}, {timeout = 0.05})"),
                MatchesRegex("false  -?[0-9]+ .*/bin/sleep.*"));
}

TEST_F(DomainInLua, BytesGoToAProgramAndComeBackAsTheyAre)
{
    const std::string latin = m_folder / "caf\xE9", utf8 = m_folder / "caf\xC3\xA9";
    ::Test::WriteFile(latin, "of Latin-1");
    ::Test::WriteFile(utf8, "of UTF-8");
    EXPECT_EQ(Run("dom0:Execute('cat', {'" + latin + "'})"), "true of Latin-1 0 ");
    EXPECT_EQ(Run("dom0:Execute('cat', {'" + utf8 + "'})"), "true of UTF-8 0 ");
    EXPECT_EQ(Run("dom0:Execute('printf', {'\\\\377\\\\000A'})"), std::string("true \xFF\0A 0 ", 11));
    EXPECT_EQ(Run("select(4, dom0:Execute('" + latin + "'))"), "Unable to run '" + latin + "': Permission denied");
    const std::string folder = m_folder / "d\xE9";
    std::filesystem::create_directory(folder);
    ::Test::WriteFile(folder + "/run", "#!/bin/sh\necho here\n");
    ::chmod((folder + "/run").c_str(), 0755);
    EXPECT_EQ(Run("dom0:Execute('" + folder + "/run')"), "true here\n 0 ");
}

TEST_F(DomainInLua, ProgramReadsItsInput)
{
    EXPECT_EQ(Run("dom0:Execute('cat', {}, {input = 'a\\0b\\255'})"), std::string("true a\0b\xFF 0 ", 12));
    EXPECT_EQ(Run("dom0:Execute('cat', {}, {input = ''})"), "true  0 ");
    EXPECT_EQ(Run("#select(2, dom0:Execute('cat', {}, {input = ('x'):rep(5000000)}))"), "5000000");
    EXPECT_EQ(Run("dom0:Execute('true', {}, {input = ('x'):rep(5000000)})"), "true  0 ") << "nobody reads it";
}

TEST_F(DomainInLua, ErrorOutputComesApartOnRequest)
{
    EXPECT_EQ(Run("dom0:Execute('sh', {'-c', 'echo one; echo two >&2; echo three'}, {separate = true})"),
              "true one\nthree\n two\n 0 ");
    EXPECT_EQ(Run("dom0:Execute('sh', {'-c', 'echo one; echo two >&2'}, {separate = false})"), "true one\ntwo\n 0 ");
    EXPECT_EQ(Run("dom0:Execute('/nowhere/program', {}, {separate = true})"),
              "false   -1 Unable to run '/nowhere/program': No such file or directory");
    // More than two pipes hold, in turns.
    EXPECT_EQ(
        Run("(function(ok, out, err) return #out, #err end)(dom0:Execute('sh', {'-c',\n"
            "'for i in 1 2 3; do head -c 100000 /dev/zero; head -c 100000 /dev/zero >&2; done'}, {separate = true}))"),
        "300000 300000");
}

TEST_F(DomainInLua, ExecuteChecksItsArguments)
{
    EXPECT_THAT(Run("dom0:Execute()"), HasSubstr("#1 to 'SLB.Dom:Execute' (string expected, got no value)"));
    EXPECT_THAT(Run("dom0:Execute('x', 'y')"),
                HasSubstr("#2 to 'SLB.Dom:Execute' (array of strings expected, got string)"));
    EXPECT_THAT(Run("dom0:Execute('x', {'a', {}})"), HasSubstr("(array of strings expected, got table at [2])"));
    // The system would take the text up to there, and run something else than was asked for.
    EXPECT_THAT(Run("dom0:Execute('/bin/echo\\0x')"), HasSubstr("(string expected, got string with a zero byte)"));
    EXPECT_THAT(Run("dom0:Execute('/bin/echo', {'a', 'b\\0c'})"),
                HasSubstr("(array of strings expected, got string with a zero byte at [2])"));
    EXPECT_THAT(Run("dom0:Execute('x', {}, {input = {}})"),
                HasSubstr("#3 to 'SLB.Dom:Execute' (table with a string \"input\" expected, got table)"));
    EXPECT_THAT(Run("dom0:Execute('x', {}, {separate = 1})"),
                HasSubstr("#3 to 'SLB.Dom:Execute' (table with a boolean \"separate\" expected, got number)"));
    EXPECT_THAT(Run("dom0:Execute('x', {}, 5)"), HasSubstr("#3 to 'SLB.Dom:Execute' (table expected, got number)"));
    EXPECT_THAT(Run("dom0:Execute('x', {}, {timeout = -1})"),
                HasSubstr("positive number \"timeout\" expected, got another number"));
    EXPECT_THAT(Run("dom0:Execute('x', {}, {timeout = '1'})"),
                HasSubstr("positive number \"timeout\" expected, got string"));
}

TEST_F(DomainInLua, TimeIsInMilliseconds)
{
    const std::int64_t now = VexCore::TimeNowMillis();
    const double told = std::stod(Run("('%.0f'):format(dom0:TimeMillis())"));
    EXPECT_GE(told, static_cast<double>(now));
    EXPECT_LT(told, static_cast<double>(now + 60000));
}

} // namespace
