// The run sequence. RunScriptThread is the main thread's half: it starts the script thread, serves the main loop until
// the status is handed back, and ends the process. Everything else here runs on the script thread. What happens inside
// the interpreter is luahost.cpp's, what happens around the process daemon.cpp's.

#include "vex/apps/vex/narrowtext.h"
#include "vex/apps/vex/os/error.h"
#include "vex/apps/vex/os/process.h"
#include "vex/apps/vex/os/signals.h"
#include "vex/apps/vex/vex_p.h"

#include "vex/core/luainterpreter.h"
#include "vex/core/processexit.h"
#include "vex/core/profiler.h"

#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>

#include <lua.hpp>

#include <wx/evtloop.h>
#include <wx/log.h>

volatile std::sig_atomic_t g_last_signal = 0;

// Touches g_last_signal and calls _exit, both safe wherever a signal may land. There is no clean-up on purpose: who
// lets SIGINT or SIGTERM through to here wants the process gone.
extern "C" void VexSignalHandler(int signal)
{
    g_last_signal = signal;
    if (signal == SIGTERM || signal == SIGINT)
        VexOs::EndNow(0);
}

namespace {
// How long an exception that ends the main loop lets the script thread finish before the process ends around it.
constexpr long lastJoinMs = 10000;

// Where the two threads meet. The script's body begins when the main loop turns, so that the loop and its descriptors
// are complete by then, and the script's status travels back as an idle event of the application: exiting a loop from
// another thread is lost when the loop does not run yet, and touches a destroyed object when it has just ended. So
// only the main thread tells the loop to exit, and the mutex keeps it from doing so before the script thread's
// wake-up call is through.
class StatusHandBack
{
public:
    // --- main thread
    // An idle event: the loop's own, of which the first says that it turns, or the one that carries the status.
    void OnIdle(wxIdleEvent& event)
    {
        event.Skip();
        const std::lock_guard lock(m_lock);
        if (m_loop == LoopState::Coming) {
            // Programs that Lua code starts by itself must not inherit the loop's descriptors, nor what else is open.
            VexOs::CloseDescriptorsOnExec();
            m_loop = LoopState::Turns;
            m_changed.notify_all();
        }
        wxEventLoopBase* const loop = wxTheApp->GetMainLoop();
        if (m_handedBack && loop)
            loop->ScheduleExit(m_status);
    }

    void LoopIsGone()
    {
        const std::lock_guard lock(m_lock);
        m_loop = LoopState::Gone;
        m_changed.notify_all();
    }

    // --- script thread
    // False: it does not any more; an exception has ended it, and the main thread is on its way out.
    bool LoopTurns()
    {
        const std::lock_guard lock(m_lock);
        return m_loop == LoopState::Turns;
    }

    // False: the loop will never turn.
    bool WaitForLoop()
    {
        std::unique_lock guard(m_lock);
        m_changed.wait(guard, [this] { return m_loop != LoopState::Coming; });
        return m_loop == LoopState::Turns;
    }

    void HandBack(int status)
    {
        const std::lock_guard lock(m_lock);
        if (m_loop == LoopState::Gone)
            return;
        m_status = status;
        m_handedBack = true;
        wxTheApp->QueueEvent(new wxIdleEvent);
    }

    // --- before the script thread starts
    void Reset()
    {
        m_loop = LoopState::Coming;
        m_handedBack = false;
        m_status = 0;
    }

private:
    enum class LoopState { Coming, Turns, Gone };

    std::mutex m_lock;
    std::condition_variable m_changed;
    // Guarded by m_lock.
    LoopState m_loop = LoopState::Coming;
    bool m_handedBack = false;
    int m_status = 0;
};

// Never destroyed: the process may end by `exit` while a thread stands in it.
StatusHandBack& HandBack()
{
    static StatusHandBack& s_handBack = *new StatusHandBack;
    return s_handBack;
}

sigset_t StopSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

void BlockStopSignals()
{
    VexOs::BlockSignals(StopSignals());
}

void UnblockStopSignals()
{
    VexOs::UnblockSignals(StopSignals());
}

// Serves the main loop; its result is the script's status. Binds the hand-back for as long as the loop is there.
int ServeMainLoop(CAgentApp& app)
{
    struct Binding
    {
        explicit Binding(CAgentApp& owner) : m_app(owner)
        {
            m_app.Bind(wxEVT_IDLE, &StatusHandBack::OnIdle, &HandBack());
        }
        ~Binding()
        {
            m_app.Unbind(wxEVT_IDLE, &StatusHandBack::OnIdle, &HandBack());
            HandBack().LoopIsGone();
        }
        CAgentApp& m_app;
    };
    const Binding binding(app);
    return app.wxAppConsole::OnRun();
}

struct Disposition
{
    int signal;
    void (*handler)(int);
    int flags;
};

void Install(const Disposition& disposition)
{
    VexOs::SetHandler(disposition.signal, disposition.handler, disposition.flags);
}

// SIGINT and SIGTERM are blocked in the middle, before the last two:
// a stop that comes meanwhile meets a handler or waits.
void InstallSignalDispositions()
{
    const Disposition first[] = {
        {SIGINT, VexSignalHandler, SA_RESTART},
        {SIGTERM, VexSignalHandler, SA_RESTART},
        {SIGUSR1, VexSignalHandler, SA_RESTART},
        {SIGUSR2, VexSignalHandler, SA_RESTART},
        {VexCore::CRunnable::SigThreadDelete, VexSignalHandler, 0}, // must interrupt a blocking call
        {SIGHUP, SIG_IGN, SA_RESTART},
    };
    const Disposition last[] = {
        {SIGALRM, VexSignalHandler, 0},
        {SIGPIPE, SIG_IGN, SA_RESTART},
    };
    for (const Disposition& disposition : first)
        Install(disposition);
    BlockStopSignals();
    for (const Disposition& disposition : last)
        Install(disposition);
}

// Sleeps until SIGTERM or SIGINT comes, which both threads have blocked since before this one existed.
void WaitForStop()
{
    int signal = 0;
    VexCore::profiler_idle();
    const bool came = VexOs::WaitForSignal(StopSignals(), signal);
    const int error = VexOs::LastError();
    VexCore::profiler_running();
    if (came)
        wxLogWarning("sigwait(): caught signal %d", signal);
    else
        wxLogSysError(error, "sigwait");
}

} // namespace

// --- main thread

void CAgentApp::RunScriptThread()
{
    BlockStopSignals();
    int code = -1;
    {
        CScriptThread thread;
        thread.SetDom(m_dom);
        HandBack().Reset();
        if (thread.start(50, true, 0)) {
            try {
                code = ServeMainLoop(*this);
            } catch (...) {
                // The framework destroys the application next, which the script thread must have left by then.
                thread.requestExit();
                if (thread.join(lastJoinMs))
                    throw;
                OnExit();
                OnUnhandledException();
                wxLog::FlushActive();
                VexOs::System().ExitNow(-1);
            }
        }
        thread.requestExit();
        thread.join();
    }
    TerminationCleanup();
    // Threads without a log target of their own leave their lines in the framework's queue.
    wxLog::FlushActive();
    VexOs::System().Exit(code);
}

// --- script thread

CScriptThread::CScriptThread() : CRunnable(false, -1, false) {}

CScriptThread::~CScriptThread() = default;

const char* CScriptThread::GetThreadName() const
{
    return "CScriptThread";
}

void CScriptThread::OnRun()
{
    if (!HandBack().WaitForLoop())
        return;
    CAgentApp& app = wxGetApp();
    int status = -1;
    try {
        status = app.OnRunScript();
    } catch (...) {
        // The thread's wrapper would end the thread alone, and the main thread would wait for a status for ever.
        app.OnUnhandledException();
    }
    // A main thread that an exception has taken out of its loop ends the process itself, by the framework's rules.
    if (!app.m_defaultName && !app.m_background && HandBack().LoopTurns()) {
        CAgentApp::TerminationCleanup();
        VexCore::ExitProcessFromThread(status);
    }
    HandBack().HandBack(status);
}

int CAgentApp::OnRunScript()
{
    if (!m_background)
        return RunAppInteractively();
    int status = RunAppInit();
    if (status != 0)
        return status;
    status = RunAppMain();
    if (status != 0)
        return status;
    WaitForStop();
    // From here on another stop ends the process at once.
    UnblockStopSignals();
    return RunAppShutdown();
}

int CAgentApp::RunAppInteractively()
{
    int status = RunAppInit();
    if (status != 0)
        return status;
    status = m_unitTestScript.empty() ? RunAppMain() : RunUnitTests();
    return status != 0 ? status : RunAppShutdown();
}

int CAgentApp::RunAppInit()
{
    if (m_installPlugins) {
        UninstallOldPlugins();
        InstallNewPlugins();
    }
    ExpandZippath();
    InstallSignalDispositions();

    const wxString name = wxString::Format("%s.lua", GetAppName());
    m_lua = new VexCore::CLuaInterpreter(false, name.wc_str(), true);
    lua_pushlightuserdata(L(), this);
    lua_pushcclosure(L(), &CAgentApp::SetupLua, 1);
    const int status = lua_pcall(L(), 0, 0, 0);
    if (status != LUA_OK) {
        std::size_t length = 0;
        const char* const text = lua_tolstring(L(), -1, &length);
        WriteErrorBytes("Error setting up Lua:\n");
        WriteErrorBytes(std::string_view(text ? text : "", length));
        WriteErrorBytes("\n");
        return status;
    }

    const int loaded = RunCodeSnippet(wxString::Format("vexAppModule = require([[%s]]);", GetAppName()));
    return loaded != 0 ? loaded : RunAppMethod(L"init");
}
