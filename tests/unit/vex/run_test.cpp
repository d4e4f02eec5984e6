// The run sequence: order, statuses, hand-back, signal dispositions. With real threads where the hand-back is tested.

#include "vex/apps/vex/vex_p.h"

#include "support/agent_app.h"
#include "support/fake_core.h"
#include "support/fake_system.h"
#include "support/our_version.h"
#include "support/process_guards.h"
#include "support/temp_folder.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <memory>
#include <stdexcept>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <lua.hpp>

#include <wx/evtloop.h>
#include <wx/log.h>
#include <wx/timer.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

using Access = AgentAppTestAccess;
using FakeCore::Answers;
using FakeCore::Count;
using FakeCore::Journal;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {
int g_sigwaitError = 0; // what sigwait answers at once, when it is not 0
std::atomic<bool> g_recordsSignals{false}; // the three calls below go to the journal

// While it lives, calls that change what becomes of a signal are written down between those to the core library.
class SignalRecording
{
public:
    SignalRecording() { g_recordsSignals = true; }
    ~SignalRecording() { g_recordsSignals = false; }
};

std::string Members(const sigset_t& set)
{
    std::string members;
    for (int signal = 1; signal < 65; ++signal)
        if (sigismember(&set, signal) == 1)
            members += ' ' + std::to_string(signal);
    return members;
}

template <class Function>
Function Real(const char* name)
{
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

} // namespace

// These stand before the system's for the launcher's objects.
extern "C" int sigaction(int signal, const struct sigaction* action, struct sigaction* previous) noexcept
{
    static const auto real = Real<int (*)(int, const struct sigaction*, struct sigaction*)>("sigaction");
    if (g_recordsSignals && action)
        FakeCore::Record("sigaction " + std::to_string(signal) + (action->sa_handler == SIG_IGN ? " ignore" : " handle")
                         + (action->sa_flags & SA_RESTART ? " restart" : ""));
    return real(signal, action, previous);
}

extern "C" int pthread_sigmask(int how, const sigset_t* set, sigset_t* previous) noexcept
{
    static const auto real = Real<int (*)(int, const sigset_t*, sigset_t*)>("pthread_sigmask");
    if (g_recordsSignals && set)
        FakeCore::Record((how == SIG_BLOCK ? "block" : how == SIG_UNBLOCK ? "unblock" : "mask") + Members(*set));
    return real(how, set, previous);
}

// No caller of ours can make the system's fail.
extern "C" __attribute__((visibility("default"))) int sigwait(const sigset_t* set, int* signal)
{
    if (g_recordsSignals)
        FakeCore::Record("sigwait" + Members(*set));
    if (g_sigwaitError != 0)
        return g_sigwaitError;
    static const auto real = Real<int (*)(const sigset_t*, int*)>("sigwait");
    return real(set, signal);
}

namespace {
using Lines = std::vector<std::string>;

const char* const initSnippet =
    "Lua.RunScript(\"if type(vexAppModule.init) == 'function' then return vexAppModule.init(); "
    "else return 0; end;\", 0, 1, \"vx_agent\", out)";
const char* const mainSnippet =
    "Lua.RunScript(\"if type(vexAppModule.main) == 'function' then return vexAppModule.main(); "
    "else return 0; end;\", 0, 1, \"vx_agent\", out)";
const char* const shutdownSnippet = "Lua.RunScript(\"if type(vexAppModule.shutdown) == 'function' then return "
                                    "vexAppModule.shutdown(); else return 0; end;\", 0, 1, \"vx_agent\", out)";
const char* const requireSnippet = "Lua.RunScript(\"vexAppModule = require([[vx_agent]]);\", 0, 1, \"vx_agent\", out)";

bool IsBlocked(int signal)
{
    sigset_t mask;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, signal) == 1;
}

class Run : public testing::Test
{
protected:
    Run()
    {
        FakeCore::Reset();
        m_app.reset(new AgentApp);
        (*m_app)->SetAppName("vx_agent");
        // The application module comes from here; the snippets run in a real state.
        Answers().onRunScript = [this] { DefineModule(); };
        FakeCore::ClearJournal();
    }

    CAgentApp& App() { return **m_app; }

    // Makes `require` give a module whose functions are written down and return what `m_module` says, in Lua.
    void DefineModule()
    {
        lua_State* const L = App().L();
        lua_getglobal(L, "package");
        lua_getfield(L, -1, "preload");
        for (const char* name : {"vx_agent", "other"}) {
            luaL_loadstring(L, m_module.c_str());
            lua_setfield(L, -2, name);
        }
        lua_pop(L, 2);
    }

    // The status with which RunScriptThread ends the process.
    int RunToEnd()
    {
        try {
            App().RunScriptThread();
        } catch (const Ended& ended) {
            return ended.status;
        }
    }

    std::string m_module = "return {}";
    ::Test::SignalGuard m_signals;
    FakeSystem m_system;
    std::unique_ptr<AgentApp> m_app;
};

const std::string stopSignals = ' ' + std::to_string(SIGINT) + ' ' + std::to_string(SIGTERM);

// What the journal of a foreground run holds between the interpreter and its end.
Lines SetupLines()
{
    return {"Lua(false, \"vx_agent.lua\", true)",
            "Dom.Get(\"app.lua.cpath\")",
            "Dom.Get(\"app.lua.path\")",
            "Dom.Get(\"app.path.bin\")",
            "Lua.SetPackagePaths(\"\", \"\", \"\")",
            "Wrapper.Register()",
            "Dom.RegisterLoader()",
            requireSnippet,
            initSnippet};
}

} // namespace

// --- the sequence

TEST_F(Run, TheForegroundCallsInitMainAndShutdownInThisOrder)
{
    EXPECT_EQ(App().OnRunScript(), 0);
    const Lines lines = Journal({"Lua"});
    EXPECT_THAT(lines, ElementsAre("Lua(false, \"vx_agent.lua\", true)", "Lua.SetPackagePaths(\"\", \"\", \"\")",
                                   requireSnippet, initSnippet, mainSnippet, shutdownSnippet));
}

TEST_F(Run, PreparesTheInterpreterAfterTheArchivePathAndBeforeTheModule)
{
    Answers().tracedModules = {"Appl"};
    EXPECT_EQ(App().RunAppInit(), 0);
    Answers().tracedModules.clear();
    Lines all = Journal();
    all.erase(std::remove_if(all.begin(), all.end(),
                             [](const std::string& line) { return line.find("\"Run") != std::string::npos; }),
              all.end());
    const auto path =
        std::find(all.begin(), all.end(), "Trace(\"Appl\", \"ExpandZippath\", \"app.lua.zippath empty \")");
    ASSERT_NE(all.end(), path);
    const auto made = std::find(all.begin(), all.end(), SetupLines().front());
    EXPECT_LT(path, made);
    EXPECT_EQ(Lines(made, all.end()), SetupLines());
}

TEST_F(Run, NamesTheInterpreterAfterTheApplication)
{
    App().SetAppName("other");
    EXPECT_EQ(App().RunAppInit(), 0);
    EXPECT_EQ(Count("Lua(false, \"other.lua\", true)"), 1u);
    EXPECT_EQ(Count("Lua.RunScript(\"vexAppModule = require([[other]]);\", 0, 1, \"other\", out)"), 1u);
}

TEST_F(Run, RemovesPluginsBeforeItInstallsThemAndBeforeTheArchivePath)
{
    ::Test::TempFolder folder;
    ::Test::WriteFile(folder / ::Test::Ours("Agent-A-Any-{version}-1.x.vxp"), "");
    ::Test::WriteFile(folder / "b.vxu", "");
    m_app->Dom().Set("app.path.bin", folder.Path());
    Access::InstallPlugins(App()) = true;
    Answers().tracedModules = {"Appl"};
    m_module = "return { init = function() return 1 end }";
    ::Test::StandardError standardError;
    EXPECT_EQ(App().OnRunScript(), 1);
    standardError.Text();
    EXPECT_THAT(Journal({"Unzip(", "Trace(\"Appl\", \"ExpandZippath\", \"zipFilespec", "Lua("}),
                ElementsAre("Unzip(\"" + (folder / "b.vxu") + "\", \"" + folder.Path() + "/\")",
                            "Unzip(\"" + (folder / ::Test::Ours("Agent-A-Any-{version}-1.x.vxp")) + "\", \""
                                + folder.Path() + "/\")",
                            "Trace(\"Appl\", \"ExpandZippath\", \"zipFilespec: \")",
                            "Lua(false, \"vx_agent.lua\", true)"));
}

TEST_F(Run, LeavesPackagesAloneWhenItIsNotAsked)
{
    ::Test::TempFolder folder;
    ::Test::WriteFile(folder / ::Test::Ours("Agent-A-Any-{version}-1.x.vxp"), "");
    ::Test::WriteFile(folder / "b.vxu", "");
    m_app->Dom().Set("app.path.bin", folder.Path());
    EXPECT_EQ(App().OnRunScript(), 0);
    EXPECT_TRUE(Journal({"Unzip("}).empty());
    EXPECT_TRUE(std::filesystem::exists(folder / "b.vxu"));
}

TEST_F(Run, AStatusOfInitEndsTheSequence)
{
    m_module = "return { init = function() return 5 end }";
    EXPECT_EQ(App().OnRunScript(), 5);
    EXPECT_EQ(Count(mainSnippet) + Count(shutdownSnippet), 0u);
}

TEST_F(Run, AStatusOfMainSkipsShutdown)
{
    m_module = "return { main = function() return 3 end }";
    EXPECT_EQ(App().OnRunScript(), 3);
    EXPECT_EQ(Count(shutdownSnippet), 0u);
}

TEST_F(Run, TheStatusOfShutdownIsTheResult)
{
    m_module = "return { shutdown = function() return 9 end }";
    EXPECT_EQ(App().OnRunScript(), 9);
}

TEST_F(Run, AModuleThatDoesNotLoadEndsTheSequence)
{
    m_module = "error('broken')";
    ::Test::StandardError standardError;
    EXPECT_EQ(App().OnRunScript(), 2);
    EXPECT_THAT(standardError.Text(), HasSubstr("broken"));
    EXPECT_EQ(Count(initSnippet), 0u);
}

TEST_F(Run, AFailedSetUpGoesToStandardErrorAndNotToTheLog)
{
    Answers().registerLoaderFails = true;
    ::Test::StandardError standardError;
    EXPECT_EQ(App().OnRunScript(), 2);
    EXPECT_EQ(standardError.Text(), "Error setting up Lua:\nno loader\n");
    EXPECT_TRUE(Journal({"Log(", "Lua.RunScript", "Lua.GetErrorInfo"}).empty());
}

TEST_F(Run, UnitTestsTakeThePlaceOfMain)
{
    Access::UnitTestScript(App()) = "tests/all.lua";
    m_module = "package.preload['tests.vexunit'] = function() return function() return 0 end end return {}";
    EXPECT_EQ(App().OnRunScript(), 0);
    EXPECT_EQ(Count(mainSnippet), 0u);
    EXPECT_EQ(Count(shutdownSnippet), 1u);
    ::alarm(0);
}

TEST_F(Run, FailedUnitTestsSkipShutdown)
{
    Access::UnitTestScript(App()) = "tests/all.lua";
    m_module = "package.preload['tests.vexunit'] = function() return function() return 3 end end return {}";
    ::Test::StandardError standardError;
    EXPECT_EQ(App().OnRunScript(), 3);
    standardError.Text();
    EXPECT_EQ(Count(shutdownSnippet), 0u);
    ::alarm(0);
}

// --- background

TEST_F(Run, TheBackgroundWaitsForATermAndThenCallsShutdown)
{
    Access::Background(App()) = true;
    m_module = "return { shutdown = function() return 4 end }";
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &term, nullptr);
    ::pthread_kill(::pthread_self(), SIGTERM); // pending since before `main`, as a stop during `init` would be
    {
        const SignalRecording recording;
        EXPECT_EQ(App().OnRunScript(), 4);
    }
    const Lines all = Journal();
    const auto main = std::find(all.begin(), all.end(), mainSnippet);
    ASSERT_NE(main, all.end());
    EXPECT_THAT(Lines(main + 1, std::find(main, all.end(), shutdownSnippet)),
                ElementsAre("profiler_idle()", "sigwait" + stopSignals, "profiler_running()",
                            "Log(Warning, \"sigwait(): caught signal 15\")", "unblock" + stopSignals));
    EXPECT_FALSE(IsBlocked(SIGTERM)) << "a second stop cuts shutdown short";
    EXPECT_FALSE(IsBlocked(SIGINT));
}

TEST_F(Run, AFailedWaitIsAnErrorLineAndShutdownIsCalledAllTheSame)
{
    Access::Background(App()) = true;
    m_module = "return { shutdown = function() return 4 end }";
    const ::Test::Restored restored(g_sigwaitError);
    g_sigwaitError = EINVAL;
    EXPECT_EQ(App().OnRunScript(), 4);
    ASSERT_EQ(Journal({"Log("}).size(), 1u);
    EXPECT_THAT(Journal({"Log("})[0],
                testing::StartsWith("Log(Error, \"sigwait (error " + std::to_string(EINVAL) + ": "));
    EXPECT_THAT(Journal({"profiler"}), ElementsAre("profiler_idle()", "profiler_running()"));
    EXPECT_FALSE(IsBlocked(SIGTERM));
}

TEST_F(Run, TheBackgroundTakesAnIntToo)
{
    Access::Background(App()) = true;
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    ::pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);
    ::pthread_kill(::pthread_self(), SIGINT);
    EXPECT_EQ(App().OnRunScript(), 0);
    EXPECT_EQ(Count("Log(Warning, \"sigwait(): caught signal 2\")"), 1u);
}

TEST_F(Run, TheBackgroundDoesNotWaitAfterAStatus)
{
    Access::Background(App()) = true;
    for (const char* name : {"init", "main"}) {
        FakeCore::ClearJournal();
        m_module = std::string("return { ") + name + " = function() return 3 end }";
        EXPECT_EQ(App().OnRunScript(), 3);
        EXPECT_EQ(Count("profiler_idle()") + Count(shutdownSnippet), 0u);
        delete Access::Lua(App());
        Access::Lua(App()) = nullptr;
    }
}

TEST_F(Run, TheBackgroundNeverRunsUnitTests)
{
    Access::Background(App()) = true;
    Access::UnitTestScript(App()) = "tests/all.lua";
    m_module = "return { main = function() return 1 end }";
    EXPECT_EQ(App().OnRunScript(), 1);
    EXPECT_EQ(Count(mainSnippet), 1u);
}

// --- signals

TEST_F(Run, SetsTheDispositionsOfTheTable)
{
    ASSERT_EQ(App().RunAppInit(), 0);
    const struct
    {
        int signal;
        void (*handler)(int);
        int flags;
    } table[] = {
        {SIGINT, VexSignalHandler, SA_RESTART},  {SIGTERM, VexSignalHandler, SA_RESTART},
        {SIGUSR1, VexSignalHandler, SA_RESTART}, {SIGUSR2, VexSignalHandler, SA_RESTART},
        {SIGALRM, VexSignalHandler, 0},          {VexCore::CRunnable::SigThreadDelete, VexSignalHandler, 0},
        {SIGHUP, SIG_IGN, SA_RESTART},           {SIGPIPE, SIG_IGN, SA_RESTART},
    };
    for (const auto& row : table) {
        struct sigaction action;
        ASSERT_EQ(::sigaction(row.signal, nullptr, &action), 0);
        EXPECT_EQ(action.sa_handler, row.handler) << row.signal;
        EXPECT_EQ(action.sa_flags & (SA_RESTART | SA_SIGINFO | SA_NODEFER | SA_NOCLDSTOP), row.flags) << row.signal;
#ifndef __SANITIZE_THREAD__ // which puts a handler of its own in front, with everything masked
        for (int other = 1; other < 32; ++other)
            EXPECT_EQ(sigismember(&action.sa_mask, other), 0) << row.signal << " masks " << other;
#endif
    }
    EXPECT_TRUE(IsBlocked(SIGINT));
    EXPECT_TRUE(IsBlocked(SIGTERM));
    EXPECT_FALSE(IsBlocked(SIGALRM));
    EXPECT_FALSE(IsBlocked(SIGUSR1));
}

TEST_F(Run, SetsTheDispositionsInTheirOrderBetweenTheArchivePathAndTheInterpreter)
{
    {
        const SignalRecording recording;
        ASSERT_EQ(App().RunAppInit(), 0);
    }
    const auto line = [](int signal, const char* what) { return "sigaction " + std::to_string(signal) + what; };
    EXPECT_THAT(Journal({"Dom.GetWxString", "sigaction", "block", "unblock", "mask", "Lua("}),
                ElementsAre("Dom.GetWxString(\"app.path.bin\")", line(SIGINT, " handle restart"),
                            line(SIGTERM, " handle restart"), line(SIGUSR1, " handle restart"),
                            line(SIGUSR2, " handle restart"), line(VexCore::CRunnable::SigThreadDelete, " handle"),
                            line(SIGHUP, " ignore restart"), "block" + stopSignals, line(SIGALRM, " handle"),
                            line(SIGPIPE, " ignore restart"), "Lua(false, \"vx_agent.lua\", true)"));
}

TEST_F(Run, OtherSignalsAreOnlyRemembered)
{
    for (const int signal : {SIGUSR1, SIGUSR2, SIGALRM, VexCore::CRunnable::SigThreadDelete}) {
        VexSignalHandler(signal);
        EXPECT_EQ(g_last_signal, signal);
    }
}

TEST(SignalHandlerDeathTest, TermAndIntEndTheProcessAtOnceWithZero)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(VexSignalHandler(SIGTERM), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(VexSignalHandler(SIGINT), testing::ExitedWithCode(0), "");
}

// --- hand-back

TEST_F(Run, HandsTheStatusBackToTheMainThreadOfTheDefaultApplication)
{
    Access::DefaultName(App()) = true;
    m_module = "return { init = function() return 5 end }";
    EXPECT_EQ(RunToEnd(), 5);
    EXPECT_THAT(Journal({"Runnable", "~Runnable", "Exit"}),
                ElementsAre("Runnable(false, -1, false)", "Runnable.SetDom(dom)",
                            "Runnable.start(50, true, 0) CScriptThread", "Runnable.requestExit()", "Runnable.join()",
                            "~Runnable()", "Exit(5)"));
}

namespace {
// The clean-up works once a process, so these look at a process of their own. It prints the lines and ends well.
[[noreturn]] void PrintAndEnd(const Lines& prefixes)
{
    for (const std::string& line : Journal(prefixes))
        std::fprintf(stderr, "%s;", line.c_str());
    std::fflush(stderr);
    ::_exit(0);
}

} // namespace

TEST_F(Run, CleansUpOnTheMainThreadAfterTheScriptThreadIsJoined)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    Access::DefaultName(App()) = true;
    const auto run = [this] {
        RunToEnd();
        PrintAndEnd({"Runnable.join", "OpenSSLThreadShutdown", "ShutdownSQLite", "Exit"});
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "Runnable.join..;OpenSSLThreadShutdown..;ShutdownSQLite..;Exit.0.;");
}

TEST_F(Run, HandsTheStatusBackInTheBackgroundUnderAnyName)
{
    Access::Background(App()) = true;
    App().SetAppName("other");
    m_module = "return { main = function() return 6 end }";
    EXPECT_EQ(RunToEnd(), 6);
    EXPECT_TRUE(Journal({"ExitProcessFromThread"}).empty());
}

// What a thread without a log target of its own logs waits in the framework's queue for the main thread, which has left
// its loop by the time of the clean-up.
TEST_F(Run, LinesThatAreQueuedWhenTheLoopIsOverAreWrittenBeforeTheEnd)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    Access::DefaultName(App()) = true;
    Answers().onShutdown = [] { std::thread([] { wxLogWarning("queued at the end"); }).join(); };
    const auto run = [this] {
        RunToEnd();
        PrintAndEnd({"Log(", "ShutdownSQLite", "Exit"});
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "ShutdownSQLite..;Log.Warning, .queued at the end..;Exit.0.;");
}

TEST_F(Run, HandsNegativeAndLargeStatusesBack)
{
    Access::DefaultName(App()) = true;
    m_module = "return { init = function() return -7 end }";
    EXPECT_EQ(RunToEnd(), -7);
    delete Access::Lua(App());
    Access::Lua(App()) = nullptr;
    m_module = "return { init = function() return 256 end }";
    EXPECT_EQ(RunToEnd(), 256);
}

TEST_F(Run, NeverLosesAStatusOrHangs)
{
    Access::DefaultName(App()) = true;
    Answers().onRunScript = nullptr;
    Answers().runScriptStatus = 5;
    ::Test::StandardError standardError;
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(RunToEnd(), 5) << i;
        delete Access::Lua(App());
        Access::Lua(App()) = nullptr;
        FakeCore::ClearJournal();
    }
    standardError.Text();
}

TEST_F(Run, BlocksIntAndTermInBothThreads)
{
    Access::DefaultName(App()) = true;
    // Where the script's thread looks for archives it has not come to its own dispositions, which block them again.
    int blockedInScript = -1;
    Answers().onRecord = [&blockedInScript](const std::string& line) {
        if (line == "Dom.GetWxString(\"app.path.bin\")")
            blockedInScript = IsBlocked(SIGINT) && IsBlocked(SIGTERM) ? 1 : 0;
    };
    EXPECT_EQ(RunToEnd(), 0);
    EXPECT_EQ(blockedInScript, 1);
    EXPECT_TRUE(IsBlocked(SIGINT));
    EXPECT_TRUE(IsBlocked(SIGTERM));
}

TEST_F(Run, BlocksIntAndTermBeforeThereIsAScriptThread)
{
    Access::DefaultName(App()) = true;
    {
        const SignalRecording recording;
        EXPECT_EQ(RunToEnd(), 0);
    }
    const Lines lines = Journal({"block", "Runnable("});
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ("block" + stopSignals, lines[0]);
    EXPECT_EQ(lines[1], "Runnable(false, -1, false)");
}

TEST_F(Run, TheLoopsDescriptorsAreNotInheritedByWhatTheScriptStarts)
{
    Access::DefaultName(App()) = true;
    Lines open;
    Answers().onRunScript = [this, &open] {
        DefineModule();
        for (int descriptor = 3; descriptor < 200; ++descriptor) {
            const int flags = ::fcntl(descriptor, F_GETFD);
            if (flags >= 0 && (flags & FD_CLOEXEC) == 0)
                open.push_back(std::to_string(descriptor));
        }
    };
    const int dirt = ::dup(0);
    EXPECT_EQ(RunToEnd(), 0);
    ::close(dirt);
    EXPECT_THAT(open, IsEmpty());
}

TEST_F(Run, AThreadThatCannotBeStartedEndsTheRunWithMinusOne)
{
    Access::DefaultName(App()) = true;
    Answers().threads = FakeCore::ThreadKind::CannotStart;
    EXPECT_EQ(RunToEnd(), -1);
    EXPECT_THAT(Journal({"Runnable.", "Exit"}),
                ElementsAre("Runnable.SetDom(dom)", "Runnable.start(50, true, 0) CScriptThread",
                            "Runnable.requestExit()", "Runnable.join()", "Exit(-1)"));
}

TEST_F(Run, AnExceptionOnTheScriptThreadIsReportedAndEndsTheRunWithMinusOne)
{
    Access::DefaultName(App()) = true;
    Answers().tracedModules = {"Appl"};
    Answers().onRunScript = [] { throw std::runtime_error("boom"); };
    EXPECT_EQ(RunToEnd(), -1);
    const Lines lines = Journal({"Trace(\"Appl\", \"OnUnhandledException"});
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_THAT(lines[1], HasSubstr("boom"));
}

TEST_F(Run, AnExceptionOnTheScriptThreadIsSilentWhenNothingIsTraced)
{
    Access::DefaultName(App()) = true;
    Answers().onRunScript = [] { throw 42; };
    ::Test::StandardError standardError;
    EXPECT_EQ(RunToEnd(), -1);
    EXPECT_EQ(standardError.Text(), "");
    EXPECT_TRUE(Journal({"Log(", "Trace("}).empty());
}

namespace {
// Lets the end of the process from a thread be one, as it is with the real library: nothing comes behind it.
void EndAtTheCall()
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    Answers().onExitProcess = [](int status) {
        for (const std::string& line : Journal({"OpenSSLThreadShutdown", "ShutdownSQLite", "Runnable.requestExit"}))
            std::fprintf(stderr, "%s;", line.c_str());
        std::fflush(stderr);
        ::_exit(status);
    };
}

} // namespace

TEST_F(Run, AnotherApplicationInTheForegroundEndsTheProcessFromItsThread)
{
    App().SetAppName("other");
    m_module = "return { init = function() return 5 end }";
    EndAtTheCall();
    EXPECT_EXIT(RunToEnd(), testing::ExitedWithCode(5), "OpenSSLThreadShutdown..;ShutdownSQLite..;$");
}

TEST_F(Run, AnotherApplicationEndsTheProcessWithMinusOneAfterAnException)
{
    App().SetAppName("other");
    Answers().onRunScript = [] { throw 42; };
    EndAtTheCall();
    EXPECT_EXIT(RunToEnd(), testing::ExitedWithCode(255), "OpenSSLThreadShutdown..;ShutdownSQLite..;$");
}

// --- an exception in the main loop

namespace {
std::atomic<bool> g_scriptRuns{false};

// Throws from the main loop once the script runs.
class Thrower : public wxTimer
{
public:
    Thrower()
    {
        g_scriptRuns = false;
        Start(1);
    }
    void Notify() override
    {
        if (!g_scriptRuns)
            return;
        Stop();
        throw std::runtime_error("out of an event handler");
    }
};

// On the script thread: comes back when the main thread has left its loop.
void RunUntilTheLoopIsGone()
{
    g_scriptRuns = true;
    while (Journal({"Runnable.requestExit"}).empty())
        ::usleep(1000);
}

} // namespace

TEST_F(Run, AnExceptionOutOfAnEventHandlerLeavesOnceTheScriptThreadHasEnded)
{
    // The second time the script thread is one that ends the process itself: it does not overtake the exception.
    for (const bool defaultName : {true, false}) {
        FakeCore::ClearJournal();
        Access::DefaultName(App()) = defaultName;
        Answers().onRunScript = [this] {
            DefineModule();
            RunUntilTheLoopIsGone();
        };
        Thrower thrower;
        EXPECT_THROW(App().RunScriptThread(), std::runtime_error);
        EXPECT_THAT(Journal({"Runnable.requestExit", "Runnable.join", "~Runnable", "Exit"}),
                    ElementsAre("Runnable.requestExit()", "Runnable.join(10000)", "~Runnable()"));
        delete Access::Lua(App());
        Access::Lua(App()) = nullptr;
    }
}

TEST_F(Run, AnExceptionOutOfAnEventHandlerEndsTheProcessAtOnceWhenTheScriptThreadGoesOn)
{
    Access::DefaultName(App()) = true;
    Answers().tracedModules = {"Appl"};
    Answers().joinTimesOut = true;
    Answers().onRunScript = [this] {
        if (g_scriptRuns) // the first chunk has told it
            return;
        DefineModule();
        RunUntilTheLoopIsGone();
        std::thread([] { wxLogWarning("queued by a stranger"); }).join();
    };
    Thrower thrower;
    EXPECT_EQ(RunToEnd(), -1);
    const Lines lines =
        Journal({"Runnable.requestExit", "Runnable.join", "Log(", "Trace(\"Appl\", \"OnUnhandled", "Exit"});
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines[0], "Runnable.requestExit()");
    EXPECT_EQ(lines[1], "Runnable.join(10000)");
    EXPECT_THAT(lines[2], HasSubstr("exiting. Run time was"));
    EXPECT_THAT(lines[4], HasSubstr("out of an event handler"));
    EXPECT_THAT(lines[5], HasSubstr("queued by a stranger"));
    EXPECT_EQ(lines[6], "ExitNow(-1)");
}

// --- OnRun

TEST_F(Run, TheForegroundRaisesTheLogLevel)
{
    Access::DefaultName(App()) = true;
    wxLog::SetLogLevel(wxLOG_Info);
    EXPECT_THROW(App().OnRun(), Ended);
    EXPECT_EQ(wxLog::GetLogLevel(), wxLogLevel(wxLOG_Max));
    EXPECT_TRUE(Journal({"ReadPidFile", "Fork", "TakeInstanceLock"}).empty());
}

TEST_F(Run, TheBackgroundChildKeepsTheLogLevelAndRunsTheScript)
{
    Access::Background(App()) = true;
    wxLog::SetLogLevel(wxLOG_Info);
    m_system.forks = {0, 0, 0};
    m_module = "return { init = function() return 8 end }";
    EXPECT_THROW(App().OnRun(), Ended);
    EXPECT_EQ(wxLog::GetLogLevel(), wxLogLevel(wxLOG_Info));
    EXPECT_EQ(Count("Exit(8)"), 1u);
}

TEST_F(Run, TheSupervisorReturnsItsStatusAndStartsNoThread)
{
    Access::Background(App()) = true;
    m_system.forks = {0, 0};
    m_system.ChildEnds(7 << 8);
    EXPECT_EQ(App().OnRun(), 7);
    EXPECT_TRUE(Journal({"Runnable"}).empty());
}
