#pragma once
// Programs that we start, whoever asks for them: from their start until their status is taken, and what becomes of them
// when their thread is asked to end, or the process ends.

#include "vex_core/os/descriptor.h"
#include "vex_core/os/spawn.h"

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

namespace VexCore {

class WaitPoint;

/// What a program writes into a pipe: its first 16 MiB. The rest is read and dropped.
class ProgramOutput
{
public:
    /// Takes the reading end.
    explicit ProgramOutput(os::Descriptor pipe);

    /// -1 when everybody has closed it.
    int Descriptor() const { return m_pipe.Get(); }
    /// Takes what is there, at most about as much as a pipe can hold: a writer that never stops must not keep us from
    /// looking at the clock and at the program's end. Whether there was something.
    bool Drain();

    std::string text;
    unsigned long long total = 0; ///< bytes, those that were dropped included

private:
    os::Descriptor m_pipe;
};

/// A program that runs. It belongs to the thread that started it: when that is asked to end (base/wait.h), the program
/// gets a SIGTERM with all of its group, and a SIGKILL two seconds later if somebody waits for it; one that reads from
/// us is given the rest and the end of its input in place of the SIGTERM. When the process ends in order, the programs
/// that still run, and what others have left in their groups, get a SIGTERM.
class HelperProgram
{
public:
    /// Starts a program, with the environment of ours whatever the plan says. Null with the last error. Any thread.
    static std::unique_ptr<HelperProgram> Start(os::SpawnPlan plan);
    ~HelperProgram();
    HelperProgram(const HelperProgram&) = delete;
    HelperProgram& operator=(const HelperProgram&) = delete;

    pid_t Pid() const { return m_pid; }

    /// The stream on which we write to the program; null before it is closed. When the thread is asked to end, or the
    /// process ends, what it holds goes to the program, which has a second to come to the end of its input before the
    /// SIGTERM.
    void SetInput(std::FILE* stream);

    enum class End {
        OfItself,
        TimedOut, ///< killed with its group, because the time was over
        Stopped, ///< because its thread is asked to end
    };
    /// Waits until it has ended, whatever became of the processes that it started, and reads `outputs` meanwhile.
    /// `timeoutMs` 0: no limit. Once, by the thread that started it.
    End Wait(long timeoutMs, const std::vector<ProgramOutput*>& outputs);

    /// After `Wait`: the status as waitpid gives it, -1 when somebody else has taken it.
    int Status() const { return m_status; }

private:
    friend class RunningPrograms;

    HelperProgram(pid_t pid, bool ownGroup);
    bool HasEnded();
    bool IsEnding();
    bool IsStopped();
    void Signal(int signal) const;
    void EndOrStop();
    void Stop();
    void Sleep(const std::vector<ProgramOutput*>& outputs, bool watchStop, long leftMs);

    const pid_t m_pid;
    const bool m_ownGroup;
    const WaitPoint* const m_owner; // an address to compare: the thread may be gone
    os::Descriptor m_process;
    int m_status = -1;
    long m_napMs = 1;
    // Guarded by the lock of RunningPrograms.
    bool m_isEnding = false; // it was given the end of its input
    bool m_isStopped = false;
    os::Pipe m_stopped; // readable from the stop on, for who waits
    std::FILE* m_input = nullptr;
};

/// Whether the calling thread may start a program: not when it is asked to end.
enum class MayStart {
    Yes,
    No, ///< the first time: the call fails
    NoAgain, ///< who goes on without a look at such a failure is to be stopped by an error
};
MayStart AskToStart();

/// What error texts then say.
constexpr const char* asksNoMoreText = "this thread is asked to end and starts no more programs";

} // namespace VexCore
