// How a thread that is not the main one ends the process. `exit` runs static destructors, wx's among them, and the main
// thread is inside wx: in its event loop. So the main thread is first brought to a place where it holds nothing and
// stays. Where that does not work out, because there is no loop or other threads of ours still run, no destructor of
// the host may run: then `exit` takes the handlers of native modules, flushes what there is and leaves.

#include "vex/core/processexit.h"

#include "vex_core/threads/ending.h"
#include "vex_core/threads/main_thread_park.h"
#include "vex_core/threads/thread_registry.h"

#include <cstdlib>

namespace VexCore {

void ExitProcessFromThread(int status)
{
    BecomeEndingThread();
    TakeEndSteps(EndStretch::BeforeExit);
    // Parked in any case: it may be writing down what it took from the framework's queue.
    const bool mainIsOutOfTheWay = ParkMainThread();
    if (mainIsOutOfTheWay && !OtherRunnablesRun())
        std::exit(status);
    ExitLeavingThreads(status);
}

} // namespace VexCore
