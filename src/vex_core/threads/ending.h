#pragma once
// How a process ends. The steps and their order are in base/end_steps.h; the table of this room tells which of them
// belong to which stretch of the way out. A way of ending takes these stretches:
//
//   way                                                        stretches
//   the host's orderly end: it cleans up, then exits           EndOfThreads, EndOfDatabases, Exit
//   `exit` or the return of main without a clean-up            Exit
//   ExitProcessFromThread, os.exit in Lua                      BeforeExit, then Exit
//   the same while another thread of ours runs, or while       BeforeExit, then ExitOverThreads, behind the handlers
//     the main thread could not be brought out of the way        that came after our first thread
//   `exit` after a thread did not end with EndOfThreads        ExitOverThreads, behind the same handlers
//   an exception that leaves a thread's body                   none: it ends the thread and is logged
//   a crash signal, abort, std::terminate                      AtOnce, behind the report of the crash handler
//   _exit: stop signals, the supervisor's handler, a child     AtOnce
//     that could not start its program

#include "vex_core/base/end_steps.h"

namespace VexCore {

enum class EndStretch {
    EndOfThreads, ///< `OpenSSLThreadShutdown`: nothing that follows may meet a thread of ours
    EndOfDatabases, ///< `CSqliteDatabase::ShutdownSQLite`
    BeforeExit, ///< for a thread that ends the process where the host has not cleaned up; the main thread still runs
    Exit, ///< behind all that the host registered with `exit`, ahead of the framework's own destructors
    ExitOverThreads, ///< no destructor may run under a thread that could not be ended: flush, and `_exit`
    AtOnce, ///< nothing may run: inside a signal handler, between fork and exec, with a heap that may be broken
};
constexpr EndStretch lastEndStretch = EndStretch::AtOnce;

/// Takes the steps of a stretch, those that somebody has registered.
void TakeEndSteps(EndStretch stretch, const EndSteps& steps = EndSteps::OfProcess());

/// Whether a step belongs to a stretch.
bool HasEndStep(EndStretch stretch, EndStep step);

/// Before the first thread of ours starts; later calls do nothing. From here on `exit` asks whether a thread is left
/// behind when it has run the handlers that are registered later, those of native modules of Lua code: then it takes
/// `ExitOverThreads` and leaves, and no destructor runs under that thread.
void GuardDestructors();

/// A thread could not be ended: `exit` leaves ahead of the destructors.
void LeaveThreadsBehind();

/// The same, and `exit`.
[[noreturn]] void ExitLeavingThreads(int status);

} // namespace VexCore
