#pragma once
// The supervisor's rules, text and numbers in and out: how often a child may be started, how long to wait before, and
// what the end of a child means. No clock, no process, no log.

#include <cstdint>

#include <wx/log.h>
#include <wx/string.h>

/// Starts within the span that are allowed, and the span.
constexpr int restartLimit = 8;
constexpr int restartSpanSeconds = 512;

/// The times of the last starts, oldest overwritten first. Times are seconds since the epoch.
class RestartHistory
{
public:
    /// Starts within the span that ends at `now`. The span's begin is held in 32 bits, on purpose: beyond 2038 it
    /// wraps, and then all eight entries count.
    int CountRecent(std::int64_t now) const;
    /// Notes a start. Until `Advance` a further note replaces it.
    void NoteStart(std::int64_t now);
    /// The noted start is history; the next note takes the next place.
    void Advance();

private:
    std::int64_t m_starts[restartLimit] = {};
    int m_index = 0;
};

/// How long to wait before a start that has `recent` starts within the span before it:
/// 0 for none, else 1 s doubled with each.
long RestartDelayMs(int recent);

/// What the supervisor does after a child's end.
enum class AfterChild {
    Return, ///< the pid file goes and the supervisor ends with `status`
    Restart,
    StopDriverAndRestart,
    StopDriverAndReturn,
};

struct ChildEnd
{
    wxLogLevel level; ///< of the message
    wxString message;
    AfterChild action;
    int status; ///< with Return and StopDriverAndReturn
    bool crashed; ///< by a signal for which the crash handler writes a dump, whatever the message calls it
};

/// Reads a raw wait status. `signalName` is the system's name of the signal in its low seven bits, null when
/// it has none. `stopping`: a SIGTERM has been handled, so that no further child may be started; what would
/// be a restart ends with 0.
ChildEnd JudgeChildEnd(int waitStatus, const char* signalName, bool stopping);

/// The signal of a raw wait status, 0 for an orderly exit.
int SignalOfWaitStatus(int waitStatus);
