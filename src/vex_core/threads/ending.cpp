// The table of stretches, which the compiler holds to the order of the steps; the steps that are about streams; and the
// hook by which `exit` comes here. Runs on whichever thread ends the process. What a step does is its owner's.

#include "vex_core/threads/ending.h"

#include "vex_core/os/exit.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <initializer_list>
#include <memory>
#include <system_error>
#include <thread>

#include <wx/log.h>

namespace VexCore {

namespace {
// --- the table

struct Row
{
    EndStretch stretch;
    std::initializer_list<EndStep> steps;
};

constexpr Row rows[] = {
    {EndStretch::EndOfThreads, {EndStep::EndThreads, EndStep::EndHelpers, EndStep::ReleaseOpenSslLocks}},
    {EndStretch::EndOfDatabases, {EndStep::StoreEvents, EndStep::CloseDatabases}},
    {EndStretch::BeforeExit, {EndStep::StoreEvents, EndStep::EmptyLogQueue}},
    {EndStretch::Exit, {EndStep::WriteChunkCaches, EndStep::FlushLog}},
    {EndStretch::ExitOverThreads, {EndStep::FlushLog, EndStep::FlushStreams}},
    {EndStretch::AtOnce, {}},
};

constexpr bool IsInOrder()
{
    std::size_t place = 0;
    for (const Row& row : rows) {
        if (static_cast<std::size_t>(row.stretch) != place++)
            return false;
        const EndStep* before = nullptr;
        for (const EndStep& step : row.steps) {
            if (before && *before >= step)
                return false;
            before = &step;
        }
    }
    return place == static_cast<std::size_t>(lastEndStretch) + 1;
}
static_assert(IsInOrder(), "a row a stretch; in each, steps in the order of EndStep");

const Row& RowOf(EndStretch stretch)
{
    return rows[static_cast<std::size_t>(stretch)];
}

// --- steps of this room

constexpr std::chrono::seconds flushLimit{1};

// Whoever holds a stream's lock may be blocked for good: its text is left behind then, and so is that of the streams
// that are older. A thread of its own goes from one to the next, beginning with the youngest.
void FlushAll()
{
    const auto done = std::make_shared<std::promise<void>>(); // the thread's, too, which may stay blocked
    try {
        std::thread([done] {
            std::fflush(nullptr);
            done->set_value();
        }).detach();
        done->get_future().wait_for(flushLimit);
    } catch (const std::system_error&) {
        // No room for a thread: the standard streams are through.
    }
}

const EndStepOwner flushStreams(EndStep::FlushStreams, [] {
    os::FlushIfFree(stdout);
    os::FlushIfFree(stderr);
    FlushAll();
});

// The one question to the framework that uses what it keeps for each thread, on the main thread, too. It is a private
// member, so it is named here in the one way that the language allows.
template <bool (*member)()>
struct ThreadLoggingDoor
{
    friend bool AskThreadLogging() { return member(); }
};
template struct ThreadLoggingDoor<&wxLog::IsThreadLoggingEnabled>;
bool AskThreadLogging();

std::atomic<bool> g_isGuarded{false};
std::atomic<bool> g_threadsAreLeft{false};

[[noreturn]] void LeaveOverThreads(int status)
{
    TakeEndSteps(EndStretch::ExitOverThreads);
    os::EndProcessNow(status);
}

void LeaveIfThreadsAreLeft(int status)
{
    if (g_threadsAreLeft)
        LeaveOverThreads(status);
}

// Made before `main`, so that its end comes after all that the host registers, on whichever thread ends the
// process. A destructor and no atexit handler: the thread sanitizer runs the handlers of libraries when wx's
// destructors are through.
const struct ExitHook
{
    ~ExitHook() { TakeEndSteps(EndStretch::Exit); }
} exitHook;

} // namespace

bool HasEndStep(EndStretch stretch, EndStep step)
{
    for (const EndStep own : RowOf(stretch).steps)
        if (own == step)
            return true;
    return false;
}

void TakeEndSteps(EndStretch stretch, const EndSteps& steps)
{
    for (const EndStep step : RowOf(stretch).steps)
        if (const EndSteps::Function function = steps.Find(step))
            function();
}

void GuardDestructors()
{
    // What the framework keeps for its threads is made at its first use. Made now, it goes after the guard has stopped
    // the end of the others: a thread that is left may be in its first steps, which need it.
    (void)AskThreadLogging();
    static const bool s_guarded = os::AtExitWithStatus(&LeaveIfThreadsAreLeft);
    g_isGuarded = s_guarded;
}

void LeaveThreadsBehind()
{
    g_threadsAreLeft = true;
}

void ExitLeavingThreads(int status)
{
    LeaveThreadsBehind();
    if (!g_isGuarded)
        LeaveOverThreads(status);
    std::exit(status);
}

} // namespace VexCore
