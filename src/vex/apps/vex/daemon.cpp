// Background mode.
//
//   starting process --fork--> first child --fork--> supervisor --fork--> working child (one at a time)
//     exit(0)                   setsid, chdir         pid file,             main loop and script thread (run.cpp)
//                               exit(0)               lock, waitpid
//
// The starting process and the first child end at once. The supervisor is in the session and the group that the first
// child made, without leading either, so that it can never gain a terminal. It has one thread and no database, and
// wakes for nothing but its child and signals. Who holds the instance lock owns the pid file; a supervisor that has
// taken its pid file away gives up the lock with it, and touches neither again.
//
// SIGTERM is blocked from before the first fork until pass_signal is in place, and around every later fork, so that a
// stop meets either pass_signal or a child that keeps it pending until its run sequence takes it. A fork of a child is
// over when the child has the worker lock, or has had ten seconds for it: a stop before that would give up the instance
// lock, and the next start find nobody. The two starting processes pass one that is pending with them on to the next:
// who starts the agent knows the first one's pid only, and may think better of it.

#include "vex/apps/vex/daemon.h"

#include "vex/apps/vex/os/error.h"
#include "vex/apps/vex/vex_p.h"

#include "vex/core/dom.h"
#include "vex/core/execute.h"
#include "vex/core/pidfile.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include <wx/arrstr.h>
#include <wx/log.h>

wxString g_pidFileName;

namespace {
const char* const driverScript = "/opt/vx_agent/SunOS.init";

// What pass_signal reads and writes: plain values, because it may run between any two instructions. All are written
// while SIGTERM is blocked or no handler is there, but for the two that it shares with the loop.
struct StopState
{
    VexOs::SystemCalls* system = nullptr;
    char pidFile[PATH_MAX] = ""; // g_pidFileName as bytes
    volatile pid_t supervisor = 0; // the process in which the handler may act
    volatile pid_t group = -1; // the one that the first child's setsid made
    volatile pid_t child = 0;
    volatile std::sig_atomic_t handled = 0; // SIGTERMs from elsewhere; never reset
    volatile std::sig_atomic_t childRuns = 0; // shared: the loop clears it when the child has ended
    volatile std::sig_atomic_t ownsPidFile = 0; // shared: who takes the file away first clears it
};

StopState g_stop;

// Removes the file if it exists, and lets the next instance in. Safe in a signal handler.
void GiveUpPidFile()
{
    if (!g_stop.ownsPidFile)
        return;
    // First the file: a stop that comes between ends the process, and must not find it given up and still there. It
    // then removes it once more, which does no harm while the lock keeps everybody else out.
    g_stop.system->RemoveFile(g_stop.pidFile);
    g_stop.ownsPidFile = 0;
    g_stop.system->ReleaseInstanceLock();
}

// Nothing for a process that has gone meanwhile, or is out of sight: in another container or on another host.
wxString ShownPid(pid_t pid)
{
    return pid > 0 ? wxString::Format(" (pid=%d)", static_cast<int>(pid)) : wxString();
}

// Safe in a signal handler. Somewhere else than in our own group the signal would reach strangers.
void SignalEverybody()
{
    if (g_stop.group > 1 && g_stop.system->OwnGroup() == g_stop.group)
        g_stop.system->SignalOwnGroup(SIGTERM);
    else if (g_stop.childRuns)
        g_stop.system->SignalChild(g_stop.child, SIGTERM);
}

void TakeStop(const siginfo_t* information)
{
    const pid_t self = g_stop.system->OwnId();
    // A forked process has the handler too until it installs its own.
    if (self != g_stop.supervisor)
        return;
    // The group's signal comes back to its sender.
    if (information && information->si_pid == self)
        return;
    const bool first = g_stop.handled == 0;
    g_stop.handled = 1;
    if (first)
        GiveUpPidFile();
    SignalEverybody();
    // Without a child there is nothing to wait for: a delay, or the driver's stop.
    if (!first || !g_stop.childRuns)
        g_stop.system->ExitNow(0);
}

} // namespace

// SIGTERM in the supervisor. Beyond g_stop it makes these system calls, all of them safe here: getpid, getpgrp, unlink,
// fcntl (of the locks), waitid, kill, _exit.
extern "C" void pass_signal(int, siginfo_t* information, void*)
{
    const VexOs::KeepError keep;
    TakeStop(information);
}

Daemon::Daemon(VexOs::SystemCalls& system, VexCore::CDom* dom, const wxString& application)
    : m_system(system), m_dom(dom), m_pidFile(wxString::Format("/var/run/%s.pid", application))
{
    g_stop = StopState();
    g_stop.system = &system;
}

std::optional<int> Daemon::Run()
{
    RefuseSecondInstance();
    TakeLock();
    if (const std::optional<int> failure = Detach())
        return failure;
    WaitForFormerChild();
    return Supervise();
}

// --- single instance

void Daemon::RefuseSecondInstance()
{
    const long pid = VexCore::ReadPidFile(m_pidFile);
    if (pid == 0)
        return;
    // Any other failure, such as a process that may not be signalled, means that there is one.
    if (m_system.Ask(static_cast<pid_t>(pid)) == -1 && VexOs::LastError() == ESRCH) {
        wxLogInfo("%.128s present (pid=%d), but doesn't seem to be running.", m_pidFile, static_cast<int>(pid));
        return;
    }
    Refuse();
}

void Daemon::Refuse()
{
    wxLogError("%.128s present, exiting", m_pidFile);
    m_system.Exit(1);
}

// Between the check above and the pid file others may start as well: one of them gets the lock, the others end as they
// would have a moment later.
//
// There is a lock in the work folder as well: without a run folder that can be written there is neither the other lock
// nor a pid file, and two agents must not work in one folder all the same.
void Daemon::TakeLock()
{
    using VexOs::LockResult;
    const wxString path = m_pidFile + ".lock";
    pid_t holder = 0;
    const LockResult beside = m_system.TakeInstanceLock(path.mb_str(wxConvLibc), holder);
    const int error = VexOs::LastError();
    if (beside == LockResult::HeldByOther)
        Refuse();

    const wxString work = m_dom->GetWxString("app.path.work");
    const wxString inside = work + '/' + path.AfterLast('/');
    const LockResult within = m_system.TakeInstanceLock(inside.mb_str(wxConvLibc), holder);
    if (within == LockResult::HeldByOther) {
        wxLogError("The work folder %s is in use by another agent of this name%s, exiting", work, ShownPid(holder));
        m_system.Exit(1);
    }
    m_locked = beside == LockResult::Taken || within == LockResult::Taken;
    // A work folder that cannot be written tells of itself.
    if (beside == LockResult::Unavailable)
        wxLogWarning("%s can't be locked (%s), so a second start at the same moment%s would go unnoticed.", path,
                     wxSysErrorMsg(error), m_locked ? " with another work folder" : "");
}

// --- detach

std::optional<int> Daemon::Detach()
{
    AssertSingleThread();
    m_system.ResetSignals();
    pid_t pid = m_system.ForkFirstChild();
    if (pid < 0) {
        wxLogSysError("Unable to fork");
        return -1;
    }
    if (pid > 0) {
        m_system.PassTermOn(pid);
        m_system.Exit(0);
    }

    g_stop.group = m_system.NewSession();
    const wxString work = m_dom->GetWxString("app.path.work");
    const wxCharBuffer folder = work.mb_str(wxConvLibc);
    m_system.ChangeFolder(folder.data() ? folder.data() : "");
    // What it passes on must find this process here.
    m_system.WaitForStarter();
    const pid_t first = m_system.OwnId();
    pid = m_system.Fork();
    if (pid < 0) {
        wxLogSysError("Unable to do 2nd fork");
        return -1;
    }
    if (pid > 0) {
        m_system.PassTermOn(pid);
        m_system.Exit(0);
    }

    m_system.StreamsToNull();
    m_system.TightenFileMode();
    // Who waits for the file may be a service manager, and looks at the process at once. One whose parent still lives
    // is a stranger to it, which it will not stop but kill.
    m_system.WaitForAdoption(first);
    VexCore::WritePidFile(m_pidFile);
    OwnPidFile();
    return std::nullopt;
}

// From here on every way out takes the file away.
void Daemon::OwnPidFile()
{
    const wxCharBuffer bytes = m_pidFile.mb_str(wxConvLibc);
    const char* const text = bytes.data() ? bytes.data() : "";
    // A longer name cannot be a file's.
    if (std::strlen(text) < sizeof g_stop.pidFile)
        std::strcpy(g_stop.pidFile, text);
    g_stop.ownsPidFile = 1;
}

// A child outlives a killed supervisor by the time that its shutdown takes, and one of a supervisor that was stopped
// twice may. The application must not run twice, so the first child of this supervisor waits for it.
void Daemon::WaitForFormerChild()
{
    const pid_t former = m_locked ? m_system.FindOtherWorker() : 0;
    if (former == 0)
        return;
    wxLogInfo("The child process of an earlier start%s is still ending, waiting for it.", ShownPid(former));
    // A stop must not have to wait as well. The first child is to find the default disposition, so it comes back.
    WatchForStop(0);
    m_system.WaitForOtherWorker();
    m_system.BlockTerm();
    m_system.HandleTerm(nullptr);
}

// --- supervisor

std::optional<int> Daemon::Supervise()
{
    for (;;) {
        const std::int64_t now = m_system.NowSeconds();
        const int recent = m_history.CountRecent(now);
        if (recent >= restartLimit) {
            wxLogError("Too many restarts in too short of a time, exiting (%d restarts in less than %d seconds)",
                       recent, restartSpanSeconds);
            GiveUpPidFile();
            return -1;
        }
        if (recent != 0) {
            const long delayMs = RestartDelayMs(recent);
            wxLogInfo("Delaying %dms before restart %d", static_cast<int>(delayMs), recent);
            m_system.SleepMs(delayMs);
        }
        m_history.NoteStart(now);

        const std::optional<pid_t> child = StartChild();
        if (!child) {
            TellRestart();
            return std::nullopt;
        }
        int waitStatus = 0;
        const bool ended = *child > 0 && WaitForChild(*child, waitStatus);
        // In this order: a stop that finds no child ends the process, so none can come between unseen.
        g_stop.childRuns = 0;
        if (!ended) {
            GiveUpPidFile();
            return -1;
        }
        const bool stopping = g_stop.handled != 0;

        const ChildEnd end = JudgeChildEnd(waitStatus, ::strsignal(SignalOfWaitStatus(waitStatus)), stopping);
        wxLogGeneric(end.level, "%s", end.message);
        if (end.action == AfterChild::StopDriverAndRestart || end.action == AfterChild::StopDriverAndReturn)
            StopDriver();
        if (end.action == AfterChild::Return || end.action == AfterChild::StopDriverAndReturn) {
            GiveUpPidFile();
            return end.status;
        }
        NoteRestart(*child, end);
        m_history.Advance();
    }
}

void Daemon::NoteRestart(pid_t child, const ChildEnd& end)
{
    ++m_restarts;
    m_crashes += end.crashed ? 1 : 0;
    m_formerChild = child;
    m_formerEnd = end;
}

// In the child, whose application makes of it what it wants. The supervisor itself keeps no events: it opens no
// database. The first child has nobody before it and no such keys.
void Daemon::TellRestart() const
{
    if (m_restarts == 0)
        return;
    m_dom->SetWx("app.restart.count", static_cast<std::int64_t>(m_restarts));
    m_dom->SetWx("app.restart.crashes", static_cast<std::int64_t>(m_crashes));
    m_dom->Set("app.restart.crashed", m_formerEnd.crashed);
    m_dom->SetWx("app.restart.process", static_cast<std::int64_t>(m_formerChild));
    m_dom->SetWx("app.restart.end", m_formerEnd.message);
}

std::optional<pid_t> Daemon::StartChild()
{
    AssertSingleThread();
    m_system.BlockTerm();
    const pid_t child = m_system.ForkWorker();
    if (child < 0) {
        wxLogSysError("Unable to fork child");
        return -1;
    }
    if (child == 0)
        return std::nullopt;
    // After the fork on purpose: the first child starts with the signals as start-up left them,
    // later ones inherit these.
    m_system.BlockChild();
    WatchForStop(child);
    return child;
}

// Everything that pass_signal needs, then pass_signal, then SIGTERM, which is blocked until here.
void Daemon::WatchForStop(pid_t child)
{
    g_pidFileName = m_pidFile;
    g_stop.supervisor = m_system.OwnId();
    g_stop.child = child;
    g_stop.childRuns = child > 0;
    m_system.HandleTerm(pass_signal);
    m_system.UnblockTerm();
}

bool Daemon::WaitForChild(pid_t child, int& status)
{
    for (;;) {
        const pid_t ended = m_system.Wait(child, status);
        if (ended == child)
            return true;
        if (ended == -1 && VexOs::LastError() == EINTR) {
            wxLogWarning("Waiting for child process interrupted - Try again");
        } else if (ended == -1) {
            wxLogSysError("Error waiting for child process");
            return false;
        }
    }
}

void Daemon::StopDriver()
{
    if (!m_system.IsExecutable(driverScript))
        return;
    wxArrayString arguments;
    arguments.Add("stopmod");
    wxString output;
    wxString error;
    int exitCode = 0;
    if (VexCore::Execute(driverScript, arguments, output, exitCode, error))
        wxLogMessage("Driver stopped using %s", driverScript);
    else
        wxLogError("Error stopping driver: %s", error);
}

void Daemon::AssertSingleThread() const
{
    wxASSERT_MSG(m_system.ThreadCount() <= 1, "a thread exists before a fork");
}

// --- OnRun

namespace {
// The framework's event loop crashes where it cannot open what it needs, and Lua's searches then miss files that are
// there.
bool CanOpenFiles()
{
    constexpr int needed = 10; // the loop's, the log's, the locks', and a module out of an archive
    const int free = VexOs::CountFreeDescriptors(needed);
    if (free < needed)
        wxLogError(
            "Only %d more files can be opened, and the agent needs %d: raise the limit of open files (ulimit -n)", free,
            needed);
    return free >= needed;
}

} // namespace

int CAgentApp::OnRun()
{
    if (!CanOpenFiles())
        return -1;
    if (!m_background) {
        // Every level passes: somebody is watching.
        wxLog::SetLogLevel(wxLOG_Max);
        RunScriptThread();
    }
    Daemon daemon(VexOs::System(), m_dom, GetAppName());
    if (const std::optional<int> status = daemon.Run())
        return *status;
    RunScriptThread();
}
