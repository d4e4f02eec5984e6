#pragma once
// What a command has made that is of no use to anybody once a signal has ended it.

#include <functional>
#include <string>

namespace Vexctl::os {

/// A file, or a folder with all in it, that goes when SIGHUP, SIGINT or SIGTERM ends the process while the object
/// lives. A signal that was ignored when the first one was made stays ignored. The main thread's.
class Leftover
{
public:
    /// `OfProgram`: a program that we have started works there. It is told to end, and has a while to do so.
    enum class Kind { Own, OfProgram };

    explicit Leftover(std::string path, Kind kind = Kind::Own);
    /// What is still to be done then, by a thread of its own while the main thread may be at work or wait. It makes no
    /// leftovers.
    explicit Leftover(std::function<void()> lastWork);
    ~Leftover();
    Leftover(const Leftover&) = delete;
    Leftover& operator=(const Leftover&) = delete;

private:
    friend class Leftovers;

    const std::string m_path;
    const Kind m_kind;
    const std::function<void()> m_lastWork;
};

} // namespace Vexctl::os
