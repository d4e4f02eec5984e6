#pragma once
// Background mode, from the single-instance check to the supervisor's end.
// For the launcher's own files and their tests.

#include "vex/apps/vex/os/process.h"
#include "vex/apps/vex/restart.h"

#include <optional>

#include <wx/string.h>

namespace VexCore {
class CDom;
}

/// The background life of one process. Main thread, while it is the only one.
class Daemon
{
public:
    /// Neither the doorway nor the domain is owned.
    Daemon(VexOs::SystemCalls& system, VexCore::CDom* dom, const wxString& application);

    /// Checks for a live instance, detaches and supervises. Comes back in the supervisor with the status to end with
    /// (also in the starting process or the first child, when one of the first two forks fails), and with nothing in a
    /// working child, which then runs the application. The processes that have done their part end inside.
    std::optional<int> Run();

private:
    void RefuseSecondInstance();
    void Refuse();
    void TakeLock();
    std::optional<int> Detach();
    void OwnPidFile();
    void WaitForFormerChild();
    std::optional<int> Supervise();
    /// The child to watch, nothing in the child itself, or -1: over, the reason is logged.
    std::optional<pid_t> StartChild();
    void WatchForStop(pid_t child);
    bool WaitForChild(pid_t child, int& status);
    void NoteRestart(pid_t child, const ChildEnd& end);
    void TellRestart() const;
    void StopDriver();
    void AssertSingleThread() const;

    VexOs::SystemCalls& m_system;
    VexCore::CDom* m_dom;
    wxString m_pidFile;
    bool m_locked = false;
    RestartHistory m_history;
    // What a child is told of those before it.
    int m_restarts = 0;
    int m_crashes = 0; // of these
    pid_t m_formerChild = 0; // the last of them
    ChildEnd m_formerEnd = {};
};
