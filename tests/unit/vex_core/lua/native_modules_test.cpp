#include "support/process_guards.h"
#include "support/sanitized.h"
#include "vex_core/lua/lua_db.h"
#include "vex_core/lua/native_modules.h"
#include "vex_core/os/host_facts.h"

#include "support/address_limit.h"
#include "support/disk_log_catcher.h"
#include "support/dom_ptr.h"
#include "support/log_catcher.h"
#include "support/other_user.h"
#include "support/temp_folder.h"
#include "vex/core/agentevent.h"
#include "vex/core/dom.h"
#include "vex_core/events/agentevent_store.h"

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sqlite3.h>

#include <lua.hpp>

using namespace VexCore;

namespace {
class NativeModules : public testing::Test
{
protected:
    NativeModules() : m_state(luaL_newstate())
    {
        luaL_openlibs(L());
        RegisterNativeModules(L());
        lua_pushstring(L(), m_folder.Path().c_str());
        lua_setglobal(L(), "folder");
    }

    lua_State* L() { return m_state.get(); }

    // What the code returns, as text; an error as its message.
    std::string Run(const std::string& code)
    {
        const int top = lua_gettop(L());
        luaL_dostring(L(), code.c_str());
        const char* text = luaL_tolstring(L(), top + 1, nullptr);
        const std::string result = lua_gettop(L()) > top + 1 ? text : "nothing";
        lua_settop(L(), top);
        return result;
    }

    std::string RunDb(const std::string& code)
    {
        return Run("local db = assert(require('vex.db').open(folder .. '/x.db')) " + code);
    }

    struct Closer
    {
        void operator()(lua_State* state) const { lua_close(state); }
    };
    ::Test::TempFolder m_folder;
    std::unique_ptr<lua_State, Closer> m_state;
};

} // namespace

// --- files

TEST_F(NativeModules, AFolderIsListedSortedWithoutItsDots)
{
    for (const char* name : {"b", "a", ".hidden", "c d"})
        ::Test::WriteFile(m_folder / name, "x");
    EXPECT_EQ(Run("return table.concat(require('vex.fs').list(folder), ',')"), ".hidden,a,b,c d");
}

TEST_F(NativeModules, AFolderThatIsMissingIsNilAndAMessageThatNamesIt)
{
    EXPECT_EQ(Run("local list, message = require('vex.fs').list(folder .. '/no') return tostring(list) .. "
                  "message:sub(#folder + 1)"),
              "nil/no: No such file or directory");
}

TEST_F(NativeModules, StatTellsKindSizeAndModeAndFollowsALink)
{
    ::Test::WriteFile(m_folder / "file", "12345");
    ASSERT_EQ(symlink("file", (m_folder.Path() + "/link").c_str()), 0);
    EXPECT_EQ(Run("local s = require('vex.fs').stat(folder .. '/link') return s.type .. s.size"), "file5");
    EXPECT_EQ(Run("return require('vex.fs').lstat(folder .. '/link').type"), "link");
    EXPECT_EQ(Run("return require('vex.fs').stat(folder).type"), "folder");
    EXPECT_EQ(Run("return require('vex.fs').stat('/dev/null').type"), "other");
}

TEST_F(NativeModules, AFolderIsMadeForItsOwnerAlone)
{
    EXPECT_EQ(Run("assert(require('vex.fs').mkdir(folder .. '/new')) return require('vex.fs').stat(folder .. "
                  "'/new').mode"),
              std::to_string(0700));
    EXPECT_EQ(Run("return require('vex.fs').mkdir(folder .. '/new')"), "nil");
}

TEST_F(NativeModules, APipeIsNoTerminal)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(Run("return require('vex.fs').isatty(" + std::to_string(ends[0]) + ")"), "false");
    close(ends[0]);
    close(ends[1]);
}

TEST_F(NativeModules, AWrongArgumentIsALuaError)
{
    EXPECT_NE(Run("return require('vex.fs').list({})").find("string expected"), std::string::npos);
}

TEST_F(NativeModules, TheCurrentFolderIsTheProcesss)
{
    EXPECT_EQ(Run("return require('vex.fs').cwd()"), std::filesystem::current_path().string());
}

// --- host facts

TEST_F(NativeModules, TheSystemIsWhatUnameTells)
{
    utsname names = {};
    ASSERT_GE(uname(&names), 0);
    EXPECT_EQ(Run("local s = require('vex.host').system() return s.host .. ' ' .. s.release .. ' ' .. s.machine"),
              std::string(names.nodename) + " " + names.release + " " + names.machine);
}

TEST_F(NativeModules, FactsOfThisHostArePlausible)
{
    EXPECT_EQ(Run("local up = require('vex.host').uptime() return up == nil or up > 0"), "true");
    EXPECT_EQ(Run("local load = require('vex.host').load() return load == nil or (#load == 3 and load[1] >= 0)"),
              "true");
    EXPECT_EQ(Run("local m = require('vex.host').memory() return m.total > 0 and m.available > 0 and "
                  "m.available <= m.total"),
              "true");
    EXPECT_EQ(Run("return require('vex.host').processors()"), std::to_string(sysconf(_SC_NPROCESSORS_ONLN)));
    EXPECT_EQ(Run("return require('vex.host').pid()"), std::to_string(getpid()));
}

TEST_F(NativeModules, LoadUptimeAndMemoryAreWhatTheKernelTells)
{
    if (!std::filesystem::exists("/proc/loadavg"))
        GTEST_SKIP() << "no files that tell it";
    const auto threeOf = [](const std::string& text) {
        std::vector<double> three(3);
        std::istringstream(text) >> three[0] >> three[1] >> three[2];
        return three;
    };
    const auto load = [&] { return threeOf(::Test::ReadFile("/proc/loadavg")); };
    std::vector<double> before, averages;
    do { // the kernel has other ones every five seconds
        before = load();
        averages = threeOf(Run("return ('%.4f %.4f %.4f'):format(table.unpack(require('vex.host').load()))"));
    } while (before != load());
    // The file has them rounded in a way of its own.
    EXPECT_THAT(averages, testing::Pointwise(testing::DoubleNear(0.011), before));

    const auto uptime = [] { return std::stod(::Test::ReadFile("/proc/uptime")); };
    const double earlier = uptime();
    const double told = std::stod(Run("return require('vex.host').uptime()"));
    EXPECT_GE(told, std::floor(earlier));
    EXPECT_LE(told, uptime() + 1);

    const std::string memory = Run("local m = require('vex.host').memory() "
                                   "assert(m.free > 0 and m.free <= m.total and m.swap_free <= m.swap_total) "
                                   "return ('%d %d'):format(m.total / 1024, m.swap_total / 1024)");
    const std::string facts = ::Test::ReadFile("/proc/meminfo");
    const auto kilobytes = [&facts](const std::string& name) {
        return std::stoull(facts.substr(facts.find(name + ':') + name.size() + 1));
    };
    EXPECT_EQ(memory, std::to_string(kilobytes("MemTotal")) + ' ' + std::to_string(kilobytes("SwapTotal")));
}

TEST_F(NativeModules, DisksAreThoseOfTheSystem)
{
    const auto disks = os::Disks();
    ASSERT_TRUE(disks);
    std::string wanted;
    for (const os::Disk& disk : *disks)
        wanted += disk.mount + '|' + disk.device + '|' + disk.type + '|' + std::to_string(disk.totalBytes) + '\n';
    EXPECT_EQ(Run("local all = '' for _, d in ipairs(require('vex.host').disks()) do "
                  "assert(d.available <= d.free and d.free <= d.total) "
                  "all = all .. ('%s|%s|%s|%.0f\\n'):format(d.mount, d.device, d.type, d.total) end return all"),
              wanted);
}

TEST_F(NativeModules, CountersOfAnInterfaceAreTheKernels)
{
    const std::string all = "/sys/class/net";
    if (!std::filesystem::exists(all))
        GTEST_SKIP() << "no files that tell them";
    std::set<std::string> interfaces;
    for (const auto& one : std::filesystem::directory_iterator(all))
        if (one.is_directory() && one.path().filename() != "lo")
            interfaces.insert(one.path().filename().string());
    std::string names;
    for (const std::string& name : interfaces)
        names += name + ' ';
    EXPECT_EQ(Run("local all = '' for _, one in ipairs(require('vex.host').interfaces()) do "
                  "all = all .. one.name .. ' ' end return all"),
              names);
    const std::pair<const char*, const char*> counters[] = {
        {"received_bytes", "rx_bytes"}, {"received_packets", "rx_packets"}, {"receive_errors", "rx_errors"},
        {"sent_bytes", "tx_bytes"},     {"sent_packets", "tx_packets"},     {"send_errors", "tx_errors"}};
    for (const std::string& name : interfaces) {
        const std::string folder = all + '/' + name + "/statistics/";
        for (const auto& [field, file] : counters) {
            const double before = std::stod(::Test::ReadFile(folder + file));
            const double told =
                std::stod(Run("for _, one in ipairs(require('vex.host').interfaces()) do if one.name == '" + name
                              + "' then return ('%.0f'):format(one." + field + ") end end"));
            EXPECT_GE(told, before) << name << ' ' << field;
            EXPECT_LE(told, std::stod(::Test::ReadFile(folder + file))) << name << ' ' << field;
        }
    }
}

TEST_F(NativeModules, ADisksFiguresAreThoseOfItsFileSystem)
{
    const auto disks = os::Disks();
    ASSERT_TRUE(disks);
    for (const os::Disk& disk : *disks) {
        struct statvfs sizes = {};
        ASSERT_EQ(statvfs(disk.mount.c_str(), &sizes), 0) << disk.mount;
        EXPECT_EQ(disk.totalBytes, sizes.f_blocks * sizes.f_frsize) << disk.mount;
        EXPECT_LE(disk.freeBytes, disk.totalBytes) << disk.mount;
        EXPECT_NE(disk.type, "proc");
    }
}

TEST_F(NativeModules, TheDistributionIsCalledAsAShellReadsItsReleaseFile)
{
    FILE* shell = popen("test -r /etc/os-release && . /etc/os-release && printf %s \"$PRETTY_NAME\"", "r");
    ASSERT_NE(shell, nullptr);
    char name[256] = {};
    name[std::fread(name, 1, sizeof name - 1, shell)] = '\0';
    if (pclose(shell) != 0 || name[0] == '\0')
        GTEST_SKIP() << "no release file here";
    EXPECT_EQ(os::Distribution(), std::optional<std::string>(name));
}

TEST_F(NativeModules, TheLoopbackIsNoInterface)
{
    const auto interfaces = os::NetworkInterfaces();
    ASSERT_TRUE(interfaces);
    for (const os::NetworkInterface& one : *interfaces) {
        EXPECT_NE(one.name, "lo");
        EXPECT_EQ(one.name.find_first_of(": "), std::string::npos) << one.name;
    }
}

TEST_F(NativeModules, TheMonotonicClockRuns)
{
    EXPECT_EQ(Run("local h = require('vex.host') local a = h.monotonic() local b repeat b = h.monotonic() "
                  "until b > a "
                  "return b - a < 10"),
              "true");
}

TEST_F(NativeModules, IdOfTheHostIsOfTheAgentsNameAndNotTheSystemsOwn)
{
    const ::Test::DomPtr dom = ::Test::NewRoot();
    dom->Set("app.path.work", m_folder.Path());
    dom->Set("app.name", "one");
    const std::string id = Run("return require('vex.host').id()");
    EXPECT_THAT(id, testing::MatchesRegex("[0-9a-f]+"));
    EXPECT_EQ(id.size(), 32u);
    EXPECT_EQ(Run("return require('vex.host').id()"), id);
    const auto machine = VexCore::os::MachineId();
    if (!machine)
        GTEST_SKIP() << "this host has no id of its own";
    EXPECT_NE(id, *machine);
    EXPECT_FALSE(std::filesystem::exists(m_folder / "host.id"));
    dom->Set("app.name", "two");
    EXPECT_NE(Run("return require('vex.host').id()"), id);
}

// --- agent

TEST_F(NativeModules, AgentWritesFilesForCollectorsAndSaysWhyItCannot)
{
    const ::Test::DomPtr dom = ::Test::NewRoot();
    dom->Set("app.path.work", m_folder.Path());
    EXPECT_EQ(Run("local ok, problem = require('vex.agent').write_output('x', 'a\\0b') return tostring(ok) .. "
                  "tostring(problem)"),
              "truenil");
    EXPECT_EQ(::Test::ReadFile(m_folder / "out/x"), std::string("a\0b", 3));
    EXPECT_EQ(Run("local ok, problem = require('vex.agent').write_output('../x', '') return tostring(ok) .. "
                  "problem:sub(#folder + 2)"),
              "nil/out/../x' is no place below a work folder");
    dom->Set("app.out.group", "no such group");
    EXPECT_THAT(Run("local ok, problem = require('vex.agent').write_output('x', '') return tostring(ok) .. problem"),
                testing::StartsWith("truethe group 'no such group'"));
}

TEST_F(NativeModules, AgentCountsItsRecordsAndEvents)
{
    const ::Test::DomPtr dom = ::Test::NewRoot();
    dom->Set("app.path.work", m_folder.Path());
    EXPECT_EQ(Run("local agent, levels = require('vex.agent'), {} "
                  "for level in pairs(agent.log_records()) do levels[#levels + 1] = level end "
                  "table.sort(levels) return table.concat(levels, ' ')"),
              "debug error fatal info message trace warning");
    const std::string before = Run("return require('vex.agent').events()[2]");
    CAgentEvent event;
    event.m_severity = 2;
    event.SetAttributeNull(CAgentEvent::FieldSeverity, false);
    dom->AgentEventWrite(event);
    EXPECT_EQ(Run("return require('vex.agent').events()[2] - " + before), "1");
    EXPECT_EQ(Run("return require('vex.agent').resident_memory() > 1e6"), "true");
    CloseEventStores();
}

// --- settings

TEST_F(NativeModules, ASettingIsTheDomainsKeyElseTheFilesEntryElseTheDefault)
{
    const ::Test::DomPtr dom = ::Test::NewRoot();
    ::Test::WriteFile(m_folder / "a.ini", "[settings]\nvex.One=11\nvex.Two=22\nvex.Flag=yes\nvex.Text=abc\n");
    dom->Set("app.path.ini", m_folder.Path() + "/a.ini");
    dom->SetWx("vex.One", std::int64_t{7});
    EXPECT_EQ(Run("return require('vex.settings').int('vex.One', 1)"), "7");
    EXPECT_EQ(Run("return require('vex.settings').int('vex.Two', 1)"), "22");
    EXPECT_EQ(Run("return require('vex.settings').int('vex.Three', 1)"), "1");
    EXPECT_EQ(Run("return require('vex.settings').int('vex.Three')"), "nil");
    EXPECT_EQ(Run("return require('vex.settings').bool('vex.Flag', false)"), "true");
    EXPECT_EQ(Run("return require('vex.settings').bool('vex.Text', false)"), "false");
    EXPECT_EQ(Run("return require('vex.settings').text('vex.Text', 'z')"), "abc");
}

TEST_F(NativeModules, KeysOfSettingsAreThoseOfDomainAndFileAsTheyAreWritten)
{
    const ::Test::DomPtr dom = ::Test::NewRoot();
    ::Test::WriteFile(m_folder / "a.ini",
                      "[settings]\nVEX.plugin.Net=on\nvex.Plugin.BOTH=on\nvex.Plugins=x\nvex.Plugi=y\n");
    dom->Set("app.path.ini", m_folder.Path() + "/a.ini");
    dom->Set("vex.Plugin.both", "off");
    dom->Set("vex.Plugin.a.b", "on");
    dom->Set("vex.plugin.other", "on");
    const std::string keys = "return table.concat(require('vex.settings').keys('vex.Plugin'), ' ')";
    EXPECT_EQ(Run(keys), "vex.Plugin.Net vex.Plugin.a.b vex.Plugin.both");
    EXPECT_EQ(Run("return require('vex.settings').text('vex.Plugin.Net')"), "on");
    EXPECT_EQ(Run("return #require('vex.settings').keys('vex.none')"), "0");
}

TEST_F(NativeModules, ASettingOfTheHostsHasItsDefaultAndItsRangeWithoutAnotherWord)
{
    const ::Test::DomPtr dom = ::Test::NewRoot();
    const std::string interval = "return require('vex.settings').int('vex.HeartbeatInterval', 7)";
    EXPECT_EQ(Run(interval), "60");
    for (const auto& [value, counts] :
         {std::pair{"5", "5"}, {"2m", "120"}, {"0", "60"}, {"-3", "60"}, {"often", "60"}}) {
        dom->Set("vex.HeartbeatInterval", value);
        EXPECT_EQ(Run(interval), counts) << value;
    }
    dom->SetWx("vex.HeartbeatInterval", std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(Run("return require('vex.settings').int('vex.HeartbeatInterval') == 2^53"), "true");
    EXPECT_EQ(Run("return require('vex.settings').bool('app.lua.cache', false)"), "true");
    EXPECT_EQ(Run("return require('vex.settings').bool('vex.Plugin.x', true)"), "false");
    dom->Set("vex.Plugin.x", "on");
    EXPECT_EQ(Run("return require('vex.settings').bool('vex.Plugin.x')"), "true");
}

TEST_F(NativeModules, DefaultsOfTheHostsOwnSettingsAreThoseOfItsTable)
{
    EXPECT_EQ(Run("return require('vex.settings').default('vex.HeartbeatInterval')"), "60");
    EXPECT_EQ(Run("return require('vex.settings').default('app.unzip.maxbytes') == 2^32"), "true");
    EXPECT_EQ(Run("return require('vex.settings').default('app.lua.cache')"), "true");
    EXPECT_EQ(Run("return require('vex.settings').default('vex.One')"), "nil");
    EXPECT_EQ(Run("return require('vex.settings').default('app.path.work')"), "nil");
}

TEST_F(NativeModules, AnIntegerBeyondWhatLuaHoldsIsAnError)
{
    const ::Test::DomPtr dom = ::Test::NewRoot();
    dom->SetWx("vex.Huge", (std::int64_t{1} << 53) + 1);
    EXPECT_NE(Run("return require('vex.settings').int('vex.Huge')").find("beyond 2^53"), std::string::npos);
}

TEST_F(NativeModules, WithoutADomainEverySettingIsItsDefault)
{
    EXPECT_EQ(Run("return require('vex.settings').text('app.name', 'none')"), "none");
}

// --- databases

TEST_F(NativeModules, WhatIsStoredIsReadBackWithItsType)
{
    EXPECT_EQ(RunDb("assert(db:exec('CREATE TABLE t(a, b, c, d, e)'))"
                    "assert(db:exec('INSERT INTO t VALUES(?,?,?,?,?)', {1, 2.5, 'x\\0y', true, nil}))"
                    "local row = db:rows('SELECT * FROM t')[1]"
                    "return row.a .. ' ' .. row.b .. ' ' .. #row.c .. ' ' .. row.d .. ' ' .. tostring(row.e)"),
              "1 2.5 3 1 nil");
}

TEST_F(NativeModules, ParametersMayHaveNames)
{
    EXPECT_EQ(RunDb("return db:rows('SELECT :a - :b AS d', {a = 7, b = 2})[1].d"), "5");
}

TEST_F(NativeModules, NumberedParametersArePositions)
{
    EXPECT_EQ(RunDb("return db:rows('SELECT ?2 - ?1 AS d', {2, 7})[1].d"), "5");
}

TEST_F(NativeModules, ATextThatSqliteRefusesIsAnErrorAndNotNull)
{
    EXPECT_EQ(RunDb("kept, long = db, string.rep('x', 2^22) assert(db:exec('CREATE TABLE t(a)'))"), "nothing");
    sqlite3_hard_heap_limit64(sqlite3_memory_used() + (1 << 20));
    const std::string failed =
        Run("local ok, m = kept:exec('INSERT INTO t VALUES(?)', {long}) return tostring(ok) .. ' ' .. m");
    sqlite3_hard_heap_limit64(0);
    EXPECT_EQ(failed, "nil out of memory");
    EXPECT_EQ(Run("return kept:rows('SELECT count(*) AS n FROM t')[1].n"), "0");
}

TEST_F(NativeModules, NothingIsCutAtAZeroByte)
{
    for (const char* call : {"db:exec('SELECT 1; \\0 DROP TABLE t')", "db:rows('SELECT 1 \\0')",
                             "require('vex.db').open(folder .. '/a\\0b')", "require('vex.fs').list('/\\0x')",
                             "require('vex.fs').stat('/\\0x')", "require('vex.fs').lstat('/\\0x')",
                             "require('vex.fs').mkdir(folder .. '/a\\0b')", "require('vex.settings').text('a\\0b')"})
        EXPECT_NE(RunDb(std::string("return ") + call).find("string with a zero byte"), std::string::npos) << call;
    EXPECT_EQ(Run("return require('vex.fs').stat(folder .. '/a')"), "nil");
}

TEST_F(NativeModules, RowsTakesOneStatement)
{
    EXPECT_EQ(RunDb("return db:rows('SELECT 7 AS n; -- that is all')[1].n"), "7");
    EXPECT_EQ(RunDb("local r, m = db:rows('SELECT 7; DELETE FROM t') return m"), "no such table: t");
    EXPECT_NE(RunDb("return db:rows('SELECT 7; SELECT 8')").find("one statement only"), std::string::npos);
}

TEST_F(NativeModules, TheFinaliserIsOutOfAScriptsReach)
{
    EXPECT_EQ(RunDb("return tostring(db.__gc) .. tostring(getmetatable(db)) .. tostring(db.__index)"), "nilfalsenil");
}

TEST_F(NativeModules, AnIntegerUpTo2To53KeepsEveryDigit)
{
    EXPECT_EQ(RunDb("return ('%.0f'):format(db:rows('SELECT ? AS n', {9007199254740992})[1].n)"), "9007199254740992");
    EXPECT_EQ(RunDb("return db:rows('SELECT typeof(?) AS n', {9007199254740992})[1].n"), "integer");
}

TEST_F(NativeModules, AnIntegerBeyond2To53IsItsDigitsAndGoesBackWhole)
{
    EXPECT_EQ(
        RunDb("assert(db:exec('CREATE TABLE t(n INTEGER)'))\n"
              "assert(db:exec('INSERT INTO t VALUES(9007199254740993), (-9223372036854775808)'))\n"
              "for _, row in ipairs(db:rows('SELECT n FROM t')) do assert(db:exec('INSERT INTO t VALUES(?)', {row.n})) "
              "end\n"
              "local told = {}\n"
              "for i, row in ipairs(db:rows('SELECT n, typeof(n) AS kind FROM t')) do told[i] = row.n .. row.kind end\n"
              "return table.concat(told, ' ')"),
        "9007199254740993integer -9223372036854775808integer 9007199254740993integer -9223372036854775808integer");
    EXPECT_EQ(RunDb("assert(db:exec('CREATE TABLE u(id INTEGER PRIMARY KEY)'))\n"
                    "assert(db:exec('INSERT INTO u VALUES(9007199254740993)')) return db:last_id()"),
              "9007199254740993");
}

TEST_F(NativeModules, AStatementThatFailsIsNilAndTheReason)
{
    EXPECT_EQ(RunDb("local r, m = db:exec('NONSENSE') return tostring(r) .. ' ' .. m"),
              "nil near \"NONSENSE\": syntax error");
    EXPECT_EQ(RunDb("local r, m = db:rows('SELECT * FROM nowhere') return tostring(r) .. ' ' .. m"),
              "nil no such table: nowhere");
}

TEST_F(NativeModules, SeveralStatementsRunInOneCallButTakeNoParameters)
{
    EXPECT_EQ(RunDb("return db:exec('CREATE TABLE t(a); INSERT INTO t VALUES(1); INSERT INTO t VALUES(2); -- end')"),
              "2");
    EXPECT_NE(RunDb("return db:exec('SELECT ?; SELECT ?', {1})").find("one statement only"), std::string::npos);
    EXPECT_EQ(RunDb("pcall(db.exec, db, 'INSERT INTO t VALUES(?); SELECT 8', {1}) return db:rows('SELECT count(*) AS n "
                    "FROM t')[1].n"),
              "2")
        << "what is refused is not done in part";
    EXPECT_EQ(RunDb("return db:exec('INSERT INTO t VALUES(?); -- that is all', {1})"), "1");
}

TEST_F(NativeModules, ATableCannotBeStored)
{
    EXPECT_NE(RunDb("return db:rows('SELECT ?', {{}})").find("a table cannot be stored"), std::string::npos);
}

TEST_F(NativeModules, ATransactionCommitsOrLeavesNothing)
{
    EXPECT_EQ(RunDb("db:exec('CREATE TABLE t(a)')"
                    "local function add(d) return d:exec('INSERT INTO t VALUES(1)') end "
                    "assert(db:transaction(add) == 1)"
                    "local r, m = db:transaction(function(d) add(d) return nil, 'changed my mind' end)"
                    "local ok, e = pcall(db.transaction, db, function(d) add(d) error('boom', 0) end)"
                    "return m .. ', ' .. e .. ', ' .. db:rows('SELECT count(*) AS n FROM t')[1].n"),
              "changed my mind, boom, 1");
}

TEST_F(NativeModules, AClosedDatabaseSaysSo)
{
    EXPECT_NE(RunDb("db:close() db:close() return db:exec('SELECT 1')").find("the database is closed"),
              std::string::npos);
}

TEST_F(NativeModules, NothingClosesADatabaseUnderAStatement)
{
    EXPECT_EQ(RunDb("local parameters = setmetatable({}, {__index = function() db:close() end}) "
                    "local ok, e = pcall(db.exec, db, 'SELECT :name', parameters) "
                    "return tostring(ok) .. e:match(':%d+(: .*)') .. ', ' .. db:rows('SELECT 7 AS n')[1].n"),
              "false: the database is in use by a statement, 7");
    EXPECT_EQ(RunDb("local parameters = setmetatable({}, {__index = function() db:close() end}) "
                    "local ok, e = pcall(db.rows, db, 'SELECT :name', parameters) "
                    "return tostring(ok) .. e:match(':%d+(: .*)') .. ', ' .. db:rows('SELECT 7 AS n')[1].n"),
              "false: the database is in use by a statement, 7");
}

TEST_F(NativeModules, AFolderThatIsMissingOpensNoDatabase)
{
    EXPECT_EQ(Run("local d, m = require('vex.db').open(folder .. '/no/x.db') return tostring(d) .. "
                  "m:sub(#folder + 1)"),
              "nil/no/x.db: unable to open database file");
}

TEST_F(NativeModules, ADatabaseBelowTheWorkFolderIsForTheOwnerAloneAndNoLinkOfAnotherUser)
{
    const ::Test::DomPtr dom = ::Test::NewRoot();
    dom->Set("app.path.work", m_folder.Path());
    const ::Test::FileModeMask open(0);
    EXPECT_EQ(RunDb("return db:exec('CREATE TABLE t(x)')"), "0");
    struct stat status = {};
    ASSERT_EQ(::stat((m_folder / "x.db").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, mode_t(0600));
    const ::Test::TempFolder victim;
    std::filesystem::create_symlink(victim / "x", m_folder / "link.db");
    EXPECT_EQ(Run("return tostring(require('vex.db').open(folder .. '/link.db')):match('^database')"), "database");
    std::filesystem::remove(victim / "x");
    GIVE_AWAY(m_folder / "link.db");
    EXPECT_EQ(Run("local d, m = require('vex.db').open(folder .. '/link.db') return tostring(d) .. ' ' .. m"),
              "nil " + m_folder / "link.db: '"
                  + m_folder
                        / "link.db' is not followed, because the link belongs to user 1000: "
                          "give it to root or to the user of this process, or remove it");
    EXPECT_TRUE(std::filesystem::is_empty(victim.Path()));
}

TEST_F(NativeModules, AnAttachedDatabaseKeepsToTheSameRule)
{
    const ::Test::DomPtr dom = ::Test::NewRoot();
    dom->Set("app.path.work", m_folder.Path());
    const ::Test::FileModeMask open(0);
    const ::Test::TempFolder elsewhere;
    std::filesystem::create_symlink(elsewhere / "x", m_folder / "ours.db");
    std::filesystem::create_symlink(elsewhere / "through", elsewhere / "link");
    const std::string attach =
        "local function attach(path) local done, m = db:exec('ATTACH ? AS other', {path})\n"
        "  if not done then return m end\n"
        "  return assert(db:exec('CREATE TABLE other.t(x)')) and assert(db:exec('DETACH other')) "
        "end\n";
    EXPECT_EQ(RunDb(attach + "return attach(folder .. '/new.db') .. attach(folder .. '/ours.db')"), "00");
    EXPECT_EQ(RunDb(attach + "return attach('" + elsewhere / "link" + "') .. attach(':memory:') .. attach('')"), "000");
    for (const std::string& file : {m_folder / "new.db", elsewhere / "x"}) {
        struct stat status = {};
        ASSERT_EQ(::stat(file.c_str(), &status), 0) << file;
        EXPECT_EQ(status.st_mode & 07777, mode_t(0600)) << file;
    }
    EXPECT_TRUE(std::filesystem::exists(elsewhere / "through"));
    std::filesystem::remove(elsewhere / "x");
    std::filesystem::create_hard_link(m_folder / "new.db", elsewhere / "second");
    GIVE_AWAY(m_folder / "ours.db");
    const ::Test::LogCatcher log;
    EXPECT_EQ(RunDb(attach + "return attach(folder .. '/ours.db') .. ', ' .. attach('" + m_folder / "new.db" + "')"),
              "unable to open database: " + m_folder / "ours.db" + ", unable to open database: " + m_folder / "new.db");
    EXPECT_EQ(RunDb("return select(2, db:exec(\"VACUUM INTO '" + m_folder / "ours.db" + "'\"))"),
              "unable to open database: " + m_folder / "ours.db");
    EXPECT_FALSE(std::filesystem::exists(elsewhere / "x"));
    EXPECT_EQ(
        log.Text(),
        "'"
            + m_folder
                  / "ours.db' is not followed, because the link belongs to user 1000: give it to root or to the user "
                    "of "
                    "this process, or remove it\n'"
            + m_folder
                  / "new.db' is not used, because it has 2 names (hard links): put a copy in its place, or remove "
                    "it\n");
}

TEST_F(NativeModules, ADatabaseIsBelowTheWorkFolderByWhateverWayItIsReached)
{
    const ::Test::DomPtr dom = ::Test::NewRoot();
    const ::Test::TempFolder elsewhere;
    const std::string work = m_folder / "agent";
    std::filesystem::create_directories(work + "/sub");
    std::filesystem::create_directory_symlink(work, m_folder / "link");
    std::filesystem::create_directory_symlink(work + "/sub", elsewhere / "sub");
    dom->Set("app.path.work", m_folder / "link");
    for (const char* name : {"/evil.db", "/sub/evil.db"}) {
        std::filesystem::create_symlink(elsewhere / "victim", work + name);
        GIVE_AWAY(work + name);
    }
    const ::Test::LogCatcher log;
    for (const std::string& path :
         {work + "/evil.db", m_folder / "link/evil.db", m_folder / "missing/../agent/evil.db",
          elsewhere / "sub/evil.db", "file:" + work + "/evil.db?mode=rwc", "file:" + m_folder / "link/evil.db"}) {
        EXPECT_NE(RunDb("return tostring(select(2, db:exec('ATTACH ? AS other', {'" + path + "'})))"), "nil") << path;
        EXPECT_EQ(Run("return tostring(require('vex.db').open('" + path + "'))"), "nil") << path;
    }
    EXPECT_FALSE(std::filesystem::exists(elsewhere / "victim"));
    const ::Test::FileModeMask open(0);
    EXPECT_EQ(RunDb("db:exec('ATTACH ? AS other', {'" + elsewhere / "sub/new.db"
                    + "'}) "
                      "return db:exec('CREATE TABLE other.t(x)')"),
              "0");
    struct stat status = {};
    ASSERT_EQ(::stat((work + "/sub/new.db").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, mode_t(0600)) << "through a link to a folder in it";
}

TEST_F(NativeModules, TheJournalOfATransactionInSeveralDatabasesIsForTheOwnerAlone)
{
    const ::Test::DomPtr dom = ::Test::NewRoot();
    dom->Set("app.path.work", m_folder.Path());
    const ::Test::FileModeMask open(0);
    static int s_journals;
    static mode_t s_modes;
    static int (*s_unlink)(const char*);
    s_journals = 0;
    s_modes = 0;
    sqlite3_vfs* const own = sqlite3_vfs_find("unix");
    s_unlink = reinterpret_cast<int (*)(const char*)>(own->xGetSystemCall(own, "unlink"));
    int (*const look)(const char*) = [](const char* path) {
        struct stat status = {};
        if (std::string(path).find("-mj") != std::string::npos && ::stat(path, &status) == 0) {
            ++s_journals;
            s_modes |= status.st_mode & 07777;
        }
        return s_unlink(path);
    };
    own->xSetSystemCall(own, "unlink", reinterpret_cast<sqlite3_syscall_ptr>(look));
    EXPECT_EQ(RunDb("db:exec('CREATE TABLE t(x)') db:exec('ATTACH ? AS other', {folder .. '/other.db'}) "
                    "db:exec('CREATE TABLE other.t(x)') "
                    "return tostring(db:transaction(function() "
                    "db:exec('INSERT INTO main.t VALUES(1)') db:exec('INSERT INTO other.t VALUES(1)') end)) "
                    ".. db:rows('SELECT count(*) AS n FROM other.t')[1].n"),
              "true1");
    own->xSetSystemCall(own, "unlink", reinterpret_cast<sqlite3_syscall_ptr>(s_unlink));
    if (sqlite3_libversion_number() >= 3051003)
        GTEST_SKIP() << "a write-ahead log has no such journal";
    EXPECT_EQ(s_journals, 1);
    EXPECT_EQ(s_modes, mode_t(0600));
}

TEST_F(NativeModules, ChangesAreFlushedBeforeTheCallReturns)
{
    EXPECT_EQ(RunDb("return db:rows('PRAGMA synchronous')[1].synchronous"), "2");
}

TEST_F(NativeModules, MethodsRefuseWhatIsNoDatabase)
{
    EXPECT_NE(RunDb("return db.exec(io.stdout, 'SELECT 1')").find("vex.db.Database expected"), std::string::npos);
    EXPECT_NE(RunDb("return db.exec('SELECT 1')").find("vex.db.Database expected"), std::string::npos);
}

TEST_F(NativeModules, DatabasesLeftOpenAreClosedBeforeTheirStateEnds)
{
    EXPECT_EQ(Run("kept = assert(require('vex.db').open(folder .. '/x.db')) return "
                  "tostring(kept):find('x.db', 1, true) ~= nil"),
              "true");
    EXPECT_TRUE(CloseLuaDatabases());
    EXPECT_EQ(Run("return tostring(kept)"), "database (closed)");
}

TEST_F(NativeModules, ACommitStoresTheEventsThatWaitedForRoom)
{
    const std::string work = m_folder / "later";
    const ::Test::DiskLogCatcher quiet;
    const auto keep = [&] {
        ::Test::StandardError standardError;
        EXPECT_EQ(GetEventStore(work)->Write(CAgentEvent()), 0);
        standardError.Text();
        EXPECT_EQ(GetEventStore(work)->InMemory(), 1u);
    };
    Run("db = assert(require('vex.db').open(folder .. '/x.db')) db:exec('CREATE TABLE t(a)')");
    for (const char* commit :
         {"db:exec('INSERT INTO t VALUES(1)')", "db:transaction(function() db:exec('INSERT INTO t VALUES(1)') end)"}) {
        keep();
        std::filesystem::create_directory(work);
        Run("db:exec('DELETE FROM t WHERE a = 7')");
        EXPECT_EQ(GetEventStore(work)->InMemory(), 1u) << "nothing was written";
        Run("db:transaction(function() db:exec('INSERT INTO t VALUES(1)') inside = true return nil, 'no' end)");
        EXPECT_EQ(GetEventStore(work)->InMemory(), 1u) << "what was written was taken back";
        Run(commit);
        EXPECT_EQ(GetEventStore(work)->InMemory(), 0u) << commit;
        CloseEventStores();
        std::filesystem::remove_all(work);
    }
}

TEST_F(NativeModules, ADatabaseThatAWorkerIsInsideOfStaysOpen)
{
    // The body of a transaction stands for a worker that was left running; the process's end comes on another
    // thread.
    lua_register(L(), "end_of_process", [](lua_State* state) {
        bool all = true;
        std::thread([&all] { all = CloseLuaDatabases(); }).join();
        lua_pushboolean(state, all);
        return 1;
    });
    EXPECT_EQ(RunDb("local all = db:transaction(function() return tostring(end_of_process()) end) "
                    "return all .. ' ' .. db:rows('SELECT 7 AS n')[1].n"),
              "false 7");
    EXPECT_TRUE(CloseLuaDatabases());
}

TEST_F(NativeModules, MetatableOfDatabasesDoesNotMakeAFileOne)
{
    EXPECT_EQ(RunDb("local exec, mt = db.exec, debug.getmetatable(db)\n"
                    "local file = io.tmpfile() debug.setmetatable(file, mt)\n"
                    "local ok, text = pcall(exec, file, 'select 1') file = nil collectgarbage() return text"),
              "bad argument #1 to '?' (vex.db.Database expected, got userdata)");
    EXPECT_EQ(RunDb("local exec, mt = db.exec, debug.getmetatable(db)\n"
                    "local ok, text = pcall(mt.__gc, db) local ok, text = pcall(exec, db, 'select 1') return text"),
              "bad argument #1 to '?' (vex.db.Database expected, got userdata)");
}

TEST_F(NativeModules, ACollectedDatabaseIsClosed)
{
    Run("for i = 1, 50 do require('vex.db').open(folder .. '/x.db') end collectgarbage() collectgarbage()");
    EXPECT_EQ(Run("local n = 0 for _, name in ipairs(require('vex.fs').list('/proc/self/fd')) do n = n + 1 "
                  "end return n < 40"),
              "true");
}

TEST_F(NativeModules, AnExceptionOfACallIsAnErrorWithItsText)
{
#ifdef VEX_TEST_SANITIZED
    GTEST_SKIP() << "the sanitizers' own memory is over any limit of the address space";
#else
    EXPECT_EQ(Run("open, path = require('vex.db').open, string.rep('x', 2^27) collectgarbage()"), "nothing");

    const ::Test::AddressLimit allButTheCopy(static_cast<std::size_t>(32) << 20);
    const std::string result =
        Run("local ok, message = pcall(open, path) return tostring(ok) .. ' ' .. type(message) .. ' '"
            " .. tostring(message):sub(1, 100)");
    EXPECT_EQ(result, "false string not enough memory");
#endif
}
