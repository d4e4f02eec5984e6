// The supervisor's rules. Any thread.

#include "vex/apps/vex/restart.h"

#include <algorithm>
#include <csignal>
#include <iterator>

namespace {
constexpr long delayBaseMs = 1000;
// The exit code by which a child asks for the kernel driver to be stopped before it is started again.
constexpr int stopDriverCode = 3;

// Deliberately these four alone. The other signals that leave a core are reported as a plain exit.
constexpr int crashSignals[] = {SIGILL, SIGTRAP, SIGABRT, SIGSEGV};
// For these there is a dump as well.
constexpr int moreDumpSignals[] = {SIGBUS, SIGFPE};

template <std::size_t count>
bool IsAmong(const int (&signals)[count], int signal)
{
    return std::find(std::begin(signals), std::end(signals), signal) != std::end(signals);
}

enum class EndKind { Exited, Crashed, Killed, Other };

EndKind Classify(int low, int high, int signal)
{
    if (low == 0)
        return EndKind::Exited;
    if (high != 0)
        return EndKind::Other;
    return IsAmong(crashSignals, signal) ? EndKind::Crashed : EndKind::Killed;
}

wxString Message(EndKind end, int waitStatus, int exitCode, int signal, const char* signalName)
{
    const char* const name = signalName ? signalName : "Unknown Signal";
    switch (end) {
    case EndKind::Exited:
        return wxString::Format("Child process exited with status %d (exit %d)", waitStatus, exitCode);
    case EndKind::Crashed:
        return wxString::Format("Child process crashed with status %d (signal %d: %s)", waitStatus, signal, name);
    case EndKind::Killed:
        return wxString::Format("Child process exited with status %d (signal %d: %s)", waitStatus, signal, name);
    case EndKind::Other:
        break;
    }
    return wxString::Format("Child process exited with status %d", waitStatus);
}

} // namespace

int RestartHistory::CountRecent(std::int64_t now) const
{
    const auto bound = static_cast<std::int32_t>(now - restartSpanSeconds);
    return static_cast<int>(
        std::count_if(std::begin(m_starts), std::end(m_starts), [bound](std::int64_t start) { return start > bound; }));
}

void RestartHistory::NoteStart(std::int64_t now)
{
    m_starts[m_index] = now;
}

void RestartHistory::Advance()
{
    m_index = (m_index + 1) % restartLimit;
}

long RestartDelayMs(int recent)
{
    return recent == 0 ? 0 : delayBaseMs << (recent - 1);
}

int SignalOfWaitStatus(int waitStatus)
{
    return waitStatus & 0x7f;
}

ChildEnd JudgeChildEnd(int waitStatus, const char* signalName, bool stopping)
{
    const int low = waitStatus & 0xff;
    const int high = (waitStatus >> 8) & 0xff;
    const int signal = SignalOfWaitStatus(waitStatus);
    const EndKind end = Classify(low, high, signal);

    const bool crashed = end == EndKind::Crashed || (end == EndKind::Killed && IsAmong(moreDumpSignals, signal));
    ChildEnd judged = {wxLOG_Info, Message(end, waitStatus, high, signal, signalName), AfterChild::Restart, 0, crashed};
    if (end == EndKind::Crashed)
        judged.level = wxLOG_Error;
    if (end == EndKind::Exited && high == stopDriverCode) {
        judged.action = stopping ? AfterChild::StopDriverAndReturn : AfterChild::StopDriverAndRestart;
    } else if (end == EndKind::Exited) {
        judged.action = AfterChild::Return;
        judged.status = high;
    } else if (stopping || (end == EndKind::Killed && signal == SIGTERM)) {
        judged.action = AfterChild::Return;
    }
    return judged;
}
