// The supervisor's rules. Any thread.

#include "vex/apps/vex/restart.h"

#include <algorithm>
#include <csignal>
#include <iterator>

namespace {
constexpr long DelayBaseMs = 1000;
// The exit code by which a child asks for the kernel driver to be stopped before it is started again.
constexpr int StopDriverCode = 3;

// Deliberately these four alone. The other signals that leave a core are reported as a plain exit.
constexpr int CrashSignals[] = {SIGILL, SIGTRAP, SIGABRT, SIGSEGV};

enum class EEnd { Exited, Crashed, Killed, Other };

EEnd Classify(int low, int high, int signal)
{
    if (low == 0)
        return EEnd::Exited;
    if (high != 0)
        return EEnd::Other;
    const bool crashed = std::find(std::begin(CrashSignals), std::end(CrashSignals), signal) != std::end(CrashSignals);
    return crashed ? EEnd::Crashed : EEnd::Killed;
}

wxString Message(EEnd end, int waitStatus, int exitCode, int signal, const char* signalName)
{
    const char* const name = signalName ? signalName : "Unknown Signal";
    switch (end) {
    case EEnd::Exited:
        return wxString::Format("Child process exited with status %d (exit %d)", waitStatus, exitCode);
    case EEnd::Crashed:
        return wxString::Format("Child process crashed with status %d (signal %d: %s)", waitStatus, signal, name);
    case EEnd::Killed:
        return wxString::Format("Child process exited with status %d (signal %d: %s)", waitStatus, signal, name);
    case EEnd::Other:
        break;
    }
    return wxString::Format("Child process exited with status %d", waitStatus);
}

} // namespace

int RestartHistory::CountRecent(std::int64_t now) const
{
    const auto bound = static_cast<std::int32_t>(now - RestartSpanSeconds);
    return static_cast<int>(
        std::count_if(std::begin(m_starts), std::end(m_starts), [bound](std::int64_t start) { return start > bound; }));
}

void RestartHistory::NoteStart(std::int64_t now)
{
    m_starts[m_index] = now;
}

void RestartHistory::Advance()
{
    m_index = (m_index + 1) % RestartLimit;
}

long RestartDelayMs(int recent)
{
    return recent == 0 ? 0 : DelayBaseMs << (recent - 1);
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
    const EEnd end = Classify(low, high, signal);

    ChildEnd judged = {wxLOG_Info, Message(end, waitStatus, high, signal, signalName), EAfterChild::Restart, 0};
    if (end == EEnd::Crashed)
        judged.level = wxLOG_Error;
    if (end == EEnd::Exited && high == StopDriverCode) {
        judged.action = stopping ? EAfterChild::StopDriverAndReturn : EAfterChild::StopDriverAndRestart;
    } else if (end == EEnd::Exited) {
        judged.action = EAfterChild::Return;
        judged.status = high;
    } else if (stopping || (end == EEnd::Killed && signal == SIGTERM)) {
        judged.action = EAfterChild::Return;
    }
    return judged;
}
