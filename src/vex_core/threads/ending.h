#pragma once
// How a process ends. The steps and their order are in base/end_steps.h; the table of this room tells which of them
// belong to which stretch of the way out. A way of ending takes these stretches:
//
//   way                                                        stretches
//   the host's orderly end: it cleans up, then exits           EndOfThreads, EndOfDatabases, Exit
//   `exit` or the return of main without a clean-up            Exit
//   ExitProcessFromThread, os.exit in Lua                      BeforeExit, then Exit
//   the same while another thread of ours runs, or while       BeforeExit, then ExitOverThreads
//     the main thread could not be brought out of the way
//   `exit` after a thread did not end with EndOfThreads        ExitOverThreads
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

/// `ExitOverThreads` and the end. Whoever could not end a thread has `exit` come here:
/// that thread would run on under static destructors.
[[noreturn]] void LeaveWithoutDestructors(int status);

} // namespace VexCore
