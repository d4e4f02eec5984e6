// What a line in the log costs: through the framework, from Lua, a trace line, and where two processes write one file,
// against spdlog, which writes the same line to a file and flushes it. In processor time; ours and its take turns in
// each round, and the round in the middle counts. Ours also looks before each line where the log's name leads, and
// behind it whether another's piece of a line was in the way; spdlog keeps the file that it has opened. The line
// through the framework has one argument, as most lines of the launcher have.
//
//   bench_log [ROUNDS]

#include "figures.h"

#include "bench_lua.h"
#include "slb3/class.h"
#include "support/temp_folder.h"
#include "vex/core/dom.h"
#include "vex/core/log.h"
#include "vex/core/wrap_dom.h"
#include "vex_core/log/disk_log.h"
#include "vex_core/log/process_log.h"

#define FMT_HEADER_ONLY
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace VexCore;

namespace {
constexpr int linesARound = 5000;
constexpr const char* text = "the plugin network was taken from /opt/agent/plugins/network in 12 ms, with 7 modules";

double SecondsOf(int who)
{
    rusage used = {};
    ::getrusage(who, &used);
    const auto seconds = [](const timeval& time) { return static_cast<double>(time.tv_sec) + time.tv_usec / 1e6; };
    return seconds(used.ru_utime) + seconds(used.ru_stime);
}

double ThreadSeconds()
{
    timespec time = {};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + time.tv_nsec / 1e9;
}

// Nanoseconds a line.
template <class Log>
double Alone(Log log)
{
    const double begin = ThreadSeconds();
    log(linesARound);
    return (ThreadSeconds() - begin) / linesARound * 1e9;
}

// The same of two processes that write at once.
template <class Log>
double ByTwo(Log log)
{
    const double begin = SecondsOf(RUSAGE_CHILDREN);
    int gate[2];
    if (::pipe(gate) != 0)
        std::exit(2);
    for (int child = 0; child < 2; ++child)
        if (::fork() == 0) {
            ::close(gate[1]);
            char nothing;
            [[maybe_unused]] const ssize_t end = ::read(gate[0], &nothing, 1);
            log(linesARound);
            ::_exit(0);
        }
    ::close(gate[0]);
    ::close(gate[1]);
    for (int child = 0, status = 0; child < 2; ++child)
        if (::wait(&status) < 0 || status != 0)
            std::exit(2);
    return (SecondsOf(RUSAGE_CHILDREN) - begin) / linesARound / 2 * 1e9;
}

template <class Ours, class Theirs>
bool Compare(const char* what, int rounds, Ours ours, Theirs theirs, double claim)
{
    std::vector<double> oursNs;
    std::vector<double> theirsNs;
    for (int round = 0; round < rounds; ++round) {
        oursNs.push_back(ours());
        theirsNs.push_back(theirs());
    }
    return Bench::Row(what, oursNs, "spdlog", theirsNs, "ns", claim);
}

// Calls a function of Lua's with a number of rounds.
class LuaLoop
{
public:
    LuaLoop(lua_State* state, const std::string& body) : m_state(state)
    {
        const std::string code = "local o, text = dom0, '" + std::string(text)
                                 + "' return function(count) for _ = 1, count do " + body + " end end";
        if (luaL_dostring(state, code.c_str()))
            Fail();
        m_function = luaL_ref(state, LUA_REGISTRYINDEX);
    }
    void operator()(int count) const
    {
        lua_rawgeti(m_state, LUA_REGISTRYINDEX, m_function);
        lua_pushinteger(m_state, count);
        if (lua_pcall(m_state, 1, 0, 0))
            Fail();
    }

private:
    [[noreturn]] void Fail() const
    {
        std::fprintf(stderr, "%s\n", lua_tostring(m_state, -1));
        std::exit(2);
    }

    lua_State* const m_state;
    int m_function = 0;
};

} // namespace

int main(int argc, char** argv)
{
    Bench::WarnWhenUnoptimised();
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 41;
    const Test::TempFolder folder;
    Bench::State lua;
    CDom* const dom = CDom::New(nullptr, nullptr, nullptr, false);
    dom->Set("app.name", "agent");
    dom->Set("app.path.work", folder.Path());
    dom->Set("app.trace", "Bench");
    SLB3::PushReference(lua.L, dom);
    lua_setglobal(lua.L, "dom0");
    wxLog::SetTimestamp(DiskLog::standardTimeFormat);
    CLog2Disk target;
    wxLog* const before = wxLog::SetActiveTarget(&target);

    const auto spdlogFile = std::make_shared<spdlog::sinks::basic_file_sink_mt>(folder / "spdlog.log");
    spdlog::logger yardstick("bench", spdlogFile);
    yardstick.set_pattern("%Y-%m-%d %H:%M:%S MESSAGE [%P/main] %v");
    yardstick.flush_on(spdlog::level::info);

    const auto formatted = [&](int count) {
        for (int i = 0; i < count; ++i)
            yardstick.info("the plugin {} was taken from /opt/agent/plugins/network in 12 ms, with 7 modules",
                           "network");
    };
    const auto asItIs = [&](int count) {
        for (int i = 0; i < count; ++i)
            yardstick.info(text);
    };
    const auto withPlace = [&](int count) {
        for (int i = 0; i < count; ++i)
            yardstick.info("{} {}({}:{}): {}", "Bench", "main", "bench_log", __LINE__, text);
    };
    const auto framework = [](int count) {
        for (int i = 0; i < count; ++i)
            wxLogMessage(wxS("the plugin %s was taken from /opt/agent/plugins/network in 12 ms, with 7 modules"),
                         wxS("network"));
    };
    const auto trace = [](int count) {
        static const wxString s_message(text);
        for (int i = 0; i < count; ++i)
            if (LogTraceIsEnabled("Bench"))
                LogTrace("Bench", "bench_log", __LINE__, "main", s_message);
    };
    const LuaLoop fromLua(lua.L, "o:Log('message', text)");
    const LuaLoop traceFromLua(lua.L, "o:Trace('Bench', text)");

    const auto alone = [](const auto& log) { return [&log] { return Alone(log); }; };
    const auto byTwo = [](const auto& log) { return [&log] { return ByTwo(log); }; };
    bool holds = Compare("a line through the framework", rounds, alone(framework), alone(formatted), 3.7);
    holds &= Compare("a line of dom0:Log", rounds, alone(fromLua), alone(asItIs), 2.1);
    holds &= Compare("an enabled trace line", rounds, alone(trace), alone(withPlace), 2.0);
    holds &= Compare("an enabled trace line of dom0:Trace", rounds, alone(traceFromLua), alone(withPlace), 0);
    holds &= Compare("a line of one of two processes", rounds, byTwo(fromLua), byTwo(asItIs), 2.5);

    const LuaLoop large(lua.L, "o:Log('message', Large)");
    std::vector<double> ms;
    for (const char* const character : {"x", "\\n", "\\195\\164", "\\1"}) {
        const std::string code = std::string("Large = ('") + character + "'):rep(2^20)";
        if (luaL_dostring(lua.L, code.c_str()))
            return 2;
        const double begin = ThreadSeconds();
        for (int i = 0; i < 10; ++i)
            large(1);
        ms.push_back((ThreadSeconds() - begin) * 1e3 / 10);
    }
    holds &= Bench::Row("dom0:Log of 1 MB", *std::max_element(ms.begin(), ms.end()), "a limit of", 5, "ms", 1);
    wxLog::SetActiveTarget(before);
    dom->Release();
    return holds ? 0 : 1;
}
