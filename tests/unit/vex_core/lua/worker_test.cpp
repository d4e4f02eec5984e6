#include "vex_core/lua/worker.h"

#include "support/address_limit.h"
#include "support/disk_log_catcher.h"
#include "support/lua_results.h"
#include "support/sanitized.h"
#include "support/temp_folder.h"
#include "vex/core/dom.h"
#include "vex/core/luainterpreter.h"
#include "vex/core/openssl.h"
#include "vex/core/wrap_dom.h"
#include "vex_core/lua/worker_list.h"
#include "vex_core/threads/thread_registry.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <lua.hpp>
#include <wx/log.h>

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;
using VexCore::CDom;

namespace {
class LuaWorker : public ::testing::Test
{
protected:
    LuaWorker() : m_dom(CDom::New(nullptr, nullptr, nullptr, false))
    {
        m_dom->Set("app.name", "worker");
        m_dom->Set("app.path.work", m_folder.Path());
        m_dom->Set("app.path.bin", m_folder.Path());
        SLB3::PushReference(m_lua.L(), m_dom);
        lua_setglobal(m_lua.L(), "dom0");
    }
    ~LuaWorker() override
    {
        VexCore::StopAllWorkers(10000);
        VexCore::ReopenWorkers();
        m_dom->Release();
    }

    void Module(const std::string& name, const std::string& code) { ::Test::WriteFile(m_folder / name + ".lua", code); }
    std::string Run(const std::string& code) { return ::Test::LuaResults(m_lua.L(), code); }
    std::string Log() { return m_log.Text(); }

    ::Test::TempFolder m_folder;
    CDom* m_dom;
    ::Test::DiskLogCatcher m_log;
    VexCore::CLuaInterpreter m_lua{false, L"test", true};
};

TEST_F(LuaWorker, RunsTheModuleWithItsArgumentInAPreparedState)
{
    Module("job", "local M = {}\n"
                  "function M.run(arg) dom0:Set('got', arg.list[2] .. tostring(arg.flag) .. arg[1] .. arg.text)\n"
                  "assert(dom == dom0) dom:Set('path', package.path) end\nreturn M");
    EXPECT_EQ(Run("w = dom0:StartThread('job', {'one', list = {1, 2.5}, flag = true, text = 'a'})\n"
                  "return w:Join()"),
              "true 0");
    EXPECT_EQ(m_dom->Get("got"), "2.5trueonea");
    EXPECT_THAT(m_dom->Get("path"), StartsWith(m_folder / "?.lua;"));
    EXPECT_EQ(Run("return w:Running(), w:Join(0)"), "false true 0");
}

TEST_F(LuaWorker, OneThatDoesNotRunAnyMoreHasBeenJoinedAtOnce)
{
    Module("job", "return {run = function() return 3 end}");
    EXPECT_EQ(Run("for _ = 1, 200 do\n"
                  "  local worker = dom0:StartThread('job')\n"
                  "  while worker:Running() do end\n"
                  "  local ended, status = worker:Join(0)\n"
                  "  if not ended or status ~= 3 then return 'not ended' end\n"
                  "end\n"
                  "return 'ended'"),
              "ended");
}

TEST_F(LuaWorker, ErrorWithANulIsWholeForWhoJoinsAndInTheLog)
{
    Module("fails", "local M = {}\nfunction M.run() error('front\\0back', 0) end\nreturn M");
    EXPECT_EQ(Run("local ended, status, text = dom0:StartThread('fails'):Join()\n"
                  "return ended, status, (text:match('^front%zback') ~= nil)"),
              "true 2 true");
    EXPECT_THAT(Log(), HasSubstr("Worker \"fails\" failed: front\\x00back"));
}

TEST_F(LuaWorker, ArgumentMayBeLeftOut)
{
    Module("job", "return {run = function(arg) dom0:Set('type', type(arg)) return 3 end}");
    EXPECT_EQ(Run("return dom0:StartThread('job'):Join()"), "true 3");
    EXPECT_EQ(m_dom->Get("type"), "nil");
}

TEST_F(LuaWorker, ErrorIsLoggedWithItsTracebackAndToldByJoin)
{
    Module("job", "return {run = function() error('broken') end}");
    EXPECT_THAT(Run("return dom0:StartThread('job'):Join()"),
                MatchesRegex("true 2 .*job.lua:1: broken\nstack traceback:\n.*"));
    EXPECT_THAT(Log(), MatchesRegex("Worker \"job\" failed: .*job.lua:1: broken\nstack traceback:\n.*"));
}

TEST_F(LuaWorker, NameThatIsNotUtf8IsStillToldInTheLog)
{
    Module("caf\xE9", "return {run = function() error('broken', 0) end}");
    Run("dom0:StartThread('caf\\233'):Join()");
    EXPECT_THAT(Log(), StartsWith("Worker \"caf\xE9\" failed: broken\n"));
}

TEST_F(LuaWorker, ErrorGoesPastTheFrameworkAndItsBytesStayWhatTheyAre)
{
    wxLog::SetLogLevel(wxLOG_FatalError);
    Module("job", "return {run = function() error('caf\xE9 caf\xC3\xA9 ' .. ('x'):rep(70000), 0) end}");
    EXPECT_EQ(Run("local ended, status, text = dom0:StartThread('job'):Join()\n"
                  "return ended, status, text:match('^caf\\233 caf\\195\\169 x') ~= nil"),
              "true 2 true");
    EXPECT_THAT(Log(), StartsWith("Worker \"job\" failed: caf\xE9 caf\xC3\xA9 xxx"));
    EXPECT_THAT(Log(), HasSubstr("xxx ... (cut, 70"));
    EXPECT_THAT(Log(), EndsWith(" bytes in all)\n"));
}

TEST_F(LuaWorker, ModuleThatIsMissingOrHasNoRunIsAnError)
{
    EXPECT_THAT(Run("return dom0:StartThread('no.such'):Join()"), HasSubstr("module 'no.such' not found"));
    Module("plain", "return 5");
    EXPECT_THAT(Run("return dom0:StartThread('plain'):Join()"),
                HasSubstr("true 2 module 'plain' has no function 'run'"));
    Module("bad", "return = 1");
    EXPECT_THAT(Run("return dom0:StartThread('bad'):Join()"), HasSubstr("unexpected symbol near '='"));
}

TEST_F(LuaWorker, StopWakesAWaitAtOnceWithNil)
{
    Module(
        "job",
        "return {run = function() dom0:Set('up', true) dom0:Set('saw', tostring(dom0:Wait('never', math.huge))) end}");
    EXPECT_EQ(Run("local w = dom0:StartThread('job') while not dom0:GetBool('up') do dom0:Wait('up', 1) end\n"
                  "assert(w:Running() and not w:Join(0.01)) w:Stop() return w:Join(60)"),
              "true 0");
    EXPECT_EQ(m_dom->Get("saw"), "nil");
}

// --- programs of a worker

TEST_F(LuaWorker, StopEndsTheProgramThatTheWorkerWaitsFor)
{
    const char* const bodies[] = {
        "local ok, output, code, text = dom0:Execute('sh', {'-c', BEGIN .. 'sleep 60'}) return ok and 1 or code == -1 "
        "and 5",
        "local ok, how, number = os.execute(BEGIN .. 'sleep 60') return not ok and how == 'signal' and number == 15 "
        "and 5",
        "local f = io.popen(BEGIN .. 'sleep 60') return f:read() == nil and select(3, f:close()) == 15 and 5",
        "local f = io.popen(BEGIN .. 'sleep 60') return select(3, f:close()) == 15 and 5",
    };
    for (const char* const body : bodies) {
        std::filesystem::remove(m_folder / "begun");
        Module("job" + std::to_string(&body - bodies),
               "local BEGIN = 'touch " + (m_folder / "begun") + "; '\nreturn {run = function() " + body + " end}");
        Run("w = dom0:StartThread('job" + std::to_string(&body - bodies) + "')");
        for (int i = 0; i < 5000 && !std::filesystem::exists(m_folder / "begun"); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        EXPECT_EQ(Run("w:Stop() return w:Join(50)"), "true 5") << body;
    }
}

TEST_F(LuaWorker, LoopOfProgramsThatLooksAtNothingEndsByAnErrorAfterAStop)
{
    const char* const calls[] = {"os.execute('sleep 0.02')", "dom0:Execute('sleep', {'0.02'})",
                                 "io.popen('sleep 0.02')"};
    for (const char* const call : calls) {
        const std::string name = "loop" + std::to_string(&call - calls);
        Module(name, std::string("return {run = function() dom0:Set('up', true) while true do ") + call + " end end}");
        EXPECT_THAT(Run("dom0:Set('up', nil) local w = dom0:StartThread('" + name
                        + "') while not dom0:GetBool('up') do dom0:Wait('up', 1) end\n"
                          "dom0:Wait('never', 0.05) w:Stop() return w:Join(60)"),
                    HasSubstr("true 2 "))
            << call;
        EXPECT_THAT(Log(), HasSubstr(name + ".lua:1: this thread is asked to end and starts no more programs"));
    }
}

TEST_F(LuaWorker, LoopThatAsksWhetherItIsToEndEndsWithoutAnError)
{
    Module("job", "return {run = function() dom0:Set('up', true)\n"
                  "repeat os.execute('sleep 0.02') until dom0:Wait('never', 0) == nil\n"
                  "return 7 end}");
    EXPECT_EQ(Run("local w = dom0:StartThread('job') while not dom0:GetBool('up') do dom0:Wait('up', 1) end\n"
                  "dom0:Wait('never', 0.05) w:Stop() return w:Join(60)"),
              "true 7");
}

TEST_F(LuaWorker, WriteWakesAWaitAtOnce)
{
    // The worker's first wait makes sure that no write after it is missed; ours lets it fall asleep in its second.
    Module(
        "job",
        "return {run = function() dom0:Wait('go', 0) dom0:Set('up', true) return dom0:Wait('go', 60) and 4 or 5 end}");
    EXPECT_EQ(Run("local w = dom0:StartThread('job') while not dom0:GetBool('up') do dom0:Wait('up', 1) end\n"
                  "dom0:Wait('never', 0.05) assert(w:Running()) dom0:Set('go', 1) return w:Join(10)"),
              "true 4");
}

TEST_F(LuaWorker, ArgumentThatCannotBeCopiedIsAClearError)
{
    const std::string front =
        "error: test.lua:1: bad argument #2 to 'SLB.Dom:StartThread' (nil, boolean, number, string or a "
        "table of them expected, got ";
    EXPECT_EQ(Run("dom0:StartThread('job', print)"), front + "function)");
    EXPECT_EQ(Run("dom0:StartThread('job', {a = {b = {1, dom0}}})"), front + "userdata at .a.b[2])");
    EXPECT_EQ(Run("local t = {} t.x = {t} dom0:StartThread('job', t)"), front + "table that contains itself at .x[1])");
    EXPECT_EQ(Run("dom0:StartThread('job', {[{}] = 1})"), front + "table as a key at [?])");
    EXPECT_THAT(Run("local t = {} local d = t for i = 1, 200 do d[1] = {} d = d[1] end dom0:StartThread('job', t)"),
                StartsWith(front + "tables nested too deep at [1][1]"));
    EXPECT_THAT(Run("local t = {} for i = 1, 40 do t = {t, t} end dom0:StartThread('job', t)"),
                StartsWith(front + "more than a million values at "));
    EXPECT_THAT(Run("dom0:StartThread()"), HasSubstr("#1 to 'SLB.Dom:StartThread' (string expected, got no value)"));
}

TEST_F(LuaWorker, ArgumentMayBeAHundredTablesDeepAndAMillionValuesLarge)
{
    Module("job", "return {run = function(t) local n = 0 while t[1] do n = n + 1 t = t[1] end dom0:Set('n', n) end}");
    const std::string nested = "local t = {} for i = 2, count do t = {t} end ";
    EXPECT_EQ(Run("local count = 100 " + nested + "return dom0:StartThread('job', t):Join()"), "true 0");
    EXPECT_EQ(m_dom->Get("n"), "99");
    EXPECT_THAT(Run("local count = 101 " + nested + "dom0:StartThread('job', t)"),
                HasSubstr("got tables nested too deep at "));

    Module("count", "return {run = function(t) dom0:Set('n', #t) end}");
    const std::string wide = "local t = {} for i = 1, count do t[i] = i end "; // a table, and a key and a value each
    EXPECT_EQ(Run("local count = 499999 " + wide + "return dom0:StartThread('count', t):Join()"), "true 0");
    EXPECT_EQ(m_dom->Get("n"), "499999");
    EXPECT_THAT(Run("local count = 500000 " + wide + "dom0:StartThread('count', t)"),
                HasSubstr("got more than a million values at [500000]"));
}

TEST_F(LuaWorker, ArgumentForWhichTheNewStateHasNoMemoryFailsTheWorker)
{
#ifdef VEX_TEST_SANITIZED
    GTEST_SKIP() << "the sanitizers' own memory is over any limit of the address space";
#else
    constexpr std::size_t argumentBytes = std::size_t{1} << 27;
    VexCore::LuaValue argument;
    argument.value = std::string(argumentBytes, 'x');
    const ::Test::AddressLimit lessThanACopy(argumentBytes / 2);
    const std::shared_ptr<VexCore::Worker> worker = VexCore::Worker::Start(*m_dom, "job", std::move(argument));
    ASSERT_TRUE(worker);
    EXPECT_TRUE(worker->WaitForEnd(-1));
    EXPECT_EQ(worker->Status(), 2);
    EXPECT_EQ(worker->Error(), "not enough memory");
    EXPECT_EQ(Log(), "Worker \"job\" failed: not enough memory\n");
#endif
}

TEST_F(LuaWorker, NumberKeysAreCopiedWithoutBeingChanged)
{
    Module("job", "return {run = function(t) dom0:Set('sum', t[1] + t[2.5] + (t[true] and 1 or 0)) end}");
    EXPECT_EQ(Run("return dom0:StartThread('job', {10, [2.5] = 20, [true] = 'x'}):Join()"), "true 0");
    EXPECT_EQ(m_dom->Get("sum"), "31");
}

TEST_F(LuaWorker, WorkerMayStartAndJoinAnother)
{
    Module("outer",
           "return {run = function() local ok, status = dom0:StartThread('inner', 5):Join() return status + 1 end}");
    Module("inner", "return {run = function(n) return n end}");
    EXPECT_EQ(Run("return dom0:StartThread('outer'):Join()"), "true 6");
}

TEST_F(LuaWorker, StopWakesAWorkerThatJoinsAnother)
{
    Module("outer", "return {run = function() inner = dom0:StartThread('inner') dom0:Set('up', true)\n"
                    "dom0:Set('ended', tostring((inner:Join()))) inner:Stop() inner:Join() end}");
    Module("inner", "return {run = function() while dom0:Wait('x', 60) ~= nil do end dom0:Wait('y', 0.05) end}");
    EXPECT_EQ(Run("local w = dom0:StartThread('outer') while not dom0:GetBool('up') do dom0:Wait('up', 1) end\n"
                  "w:Stop() return w:Join(10)"),
              "true 0");
    EXPECT_EQ(m_dom->Get("ended"), "false");
}

TEST_F(LuaWorker, CollectedHandleLeavesTheWorkerRunning)
{
    Module("job", "return {run = function() dom0:Wait('go', 60) dom0:Set('done', true) end}");
    EXPECT_EQ(Run("dom0:StartThread('job') collectgarbage() collectgarbage() dom0:Set('go', 1)\n"
                  "for i = 1, 100 do if dom0:GetBool('done') then return 'done' end dom0:Set('go', i) "
                  "dom0:Wait('done', 0.1) end"),
              "done");
}

TEST_F(LuaWorker, MethodsCheckTheirReceiver)
{
    Module("job", "return {run = function() end}");
    EXPECT_THAT(Run("local w = dom0:StartThread('job') w.Join(dom0)"),
                HasSubstr("bad argument #0 (self) to 'SLB.Worker:Join' (SLB.Worker expected, got SLB.Dom;"));
}

TEST_F(LuaWorker, StopOfTheProcessEndsWorkersAndRefusesNewOnes)
{
    Module("job", "return {run = function() while dom0:Wait('never', 60) ~= nil do end return 9 end}");
    ASSERT_EQ(Run("a, b = dom0:StartThread('job'), dom0:StartThread('job')"), "");
    VexCore::OpenSSLThreadShutdown(); // with which the host's clean-up begins
    EXPECT_EQ(Run("return select(2, a:Join(0)), select(2, b:Join(0))"), "9 9");
    EXPECT_THAT(Run("dom0:StartThread('job')"), HasSubstr("worker 'job' could not be started; the log tells why"));
    EXPECT_THAT(Log(), HasSubstr("Worker \"job\" is not started: the process is ending."));
    EXPECT_THAT(Log(), Not(HasSubstr("left behind")));
}

TEST_F(LuaWorker, TwoHundredBusyWorkersStartAndStop)
{
    Module("busy", "return {run = function(n)\n"
                   "  while dom0:Wait('never.' .. n, 0) ~= nil do\n"
                   "    for i = 1, 20 do dom0:Set('busy.' .. n, i) dom0:Get('busy.' .. (n % 200 + 1)) end\n"
                   "    dom0:Keys('busy.' .. n)\n"
                   "  end\n"
                   "  return n\nend}");
    EXPECT_EQ(Run("local all = {} for n = 1, 200 do all[n] = dom0:StartThread('busy', n) end\n"
                  "dom0:Wait('never', 0.3)\n"
                  "for _, w in ipairs(all) do w:Stop() end\n"
                  "local sum = 0 for _, w in ipairs(all) do local ended, status = w:Join(60) assert(ended) sum = sum + "
                  "status end\n"
                  "return sum"),
              "20100");
    EXPECT_FALSE(VexCore::OtherRunnablesRun());
}

TEST_F(LuaWorker, StopOfTheProcessJoinsEveryWorkerThatEnds)
{
    Module("job", "return {run = function() dom0:Wait('never', 60) end}");
    for (int round = 0; round < 200; ++round) {
        std::vector<std::weak_ptr<VexCore::Worker>> workers;
        for (int i = 0; i < 8; ++i)
            workers.push_back(VexCore::Worker::Start(*m_dom, "job", VexCore::LuaValue()));
        VexCore::StopAllWorkers(10000);
        VexCore::ReopenWorkers();
        for (const std::weak_ptr<VexCore::Worker>& worker : workers)
            ASSERT_TRUE(worker.expired()) << "left in round " << round;
    }
}

std::ptrdiff_t MemoryMaps()
{
    const std::string maps = ::Test::ReadFile("/proc/self/maps");
    return std::count(maps.begin(), maps.end(), '\n');
}

TEST_F(LuaWorker, EndedWorkersGiveTheirThreadsBackWhoeverHoldsThem)
{
    constexpr int count = 300;
    Module("job", "return {run = function() end}");
    Run("collectgarbage('stop') all = {} function start(n)\n"
        "  for i = 1, n do local w = dom0:StartThread('job') all[#all + 1] = w\n"
        "    while w:Running() do dom0:Wait('never', 0.001) end end end\n"
        "start(20)");
    const std::ptrdiff_t before = MemoryMaps();
    EXPECT_EQ(Run("start(" + std::to_string(count) + ") return #all"), std::to_string(count + 20));
    EXPECT_LT(MemoryMaps() - before, count / 3) << "a stack that is kept makes two";
}

TEST_F(LuaWorker, CollectorIsToldWhatAHandleWeighs)
{
    Module("job", "return {run = function() end}");
    EXPECT_EQ(Run("local ballast = {} for i = 1, 20000 do ballast[i] = {i} end collectgarbage() collectgarbage()\n"
                  "local held = setmetatable({}, {__mode = 'v'})\n"
                  "for i = 1, 3000 do local w = dom0:StartThread('job') held[i] = w w:Join() end\n"
                  "local n = 0 for _ in pairs(held) do n = n + 1 end\n"
                  "return n < 2000 and 'collected' or n"),
              "collected");
}

TEST_F(LuaWorker, StragglerIsNamedAndTheProcessStillEnds)
{
    Module("stuck", "return {run = function() dom0:Set('up', true) while true do end end}");
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            Run("dom0:StartThread('stuck') while not dom0:GetBool('up') do dom0:Wait('up', 1) end");
            VexCore::EndThreads(50);
            std::fputs(Log().c_str(), stderr);
            std::exit(5);
        },
        ::testing::ExitedWithCode(5), "Thread \"worker stuck\" has not ended within 0 seconds and is left behind");
}

} // namespace
