#pragma once
// What is done when a process ends: the steps, in their order. Each subject registers its own, so that nobody who ends
// the process has to know the subjects. Which steps a way of ending takes is the table in threads/ending.cpp.

#include <cstddef>

namespace VexCore {

/// In the order in which they are taken.
enum class EndStep {
    EndThreads, ///< asks threads to end and waits for them, workers among them
    EndHelpers, ///< tells programs that we started to end, with what they left running
    ReleaseOpenSslLocks,
    StoreEvents, ///< tries once more to store agent events that are kept, and closes their databases
    CloseDatabases, ///< those that Lua code left open; then shuts SQLite down
    EmptyLogQueue, ///< lines that other threads left in the framework's queue
    WriteChunkCaches,
    FlushLog, ///< what the disk log still holds
    FlushStreams, ///< standard output and error, and every other stream of C's library
};
constexpr std::size_t endStepCount = 9;

/// Who does which step. Filled by static initialisers and only read afterwards.
class EndSteps
{
public:
    using Function = void (*)();

    constexpr EndSteps() = default;

    /// The process's own. Usable before its first and after its last static initialiser.
    static EndSteps& OfProcess();

    /// A step has one owner: a second one is a mistake in the program, which ends here with a line on standard error.
    void Register(EndStep step, Function function);

    /// Null: nobody has registered it.
    Function Find(EndStep step) const { return m_functions[static_cast<std::size_t>(step)]; }

    /// For tests: answers what it was.
    Function Replace(EndStep step, Function function);

private:
    Function m_functions[endStepCount] = {};
};

/// Registers a step of the process; a file-level constant of the owner.
struct EndStepOwner
{
    EndStepOwner(EndStep step, EndSteps::Function function) { EndSteps::OfProcess().Register(step, function); }
};

} // namespace VexCore
