// One list of the programs that run, under one lock. A program leaves it in the moment in which its status is taken, so
// that nobody signals a process id that is somebody else's by then. Its group may live on: such groups are remembered,
// and believed to be ours only while they are in our session.

#include "vex_core/process/helper_program.h"

#include "vex/core/sendsignal.h"
#include "vex_core/base/end_steps.h"
#include "vex_core/base/steady_ms.h"
#include "vex_core/base/wait.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/process_info.h"
#include "vex_core/os/signals.h"

#include <algorithm>
#include <csignal>
#include <mutex>
#include <optional>
#include <set>
#include <utility>

extern char** environ; // POSIX leaves the declaration to us

namespace VexCore {

namespace {
constexpr std::size_t maxOutputBytes = static_cast<std::size_t>(16) << 20;
constexpr std::int64_t stopMs = 2000; // from SIGTERM to SIGKILL
constexpr std::int64_t inputEndMs = 1000;

// Whether a call on this thread has failed already because the thread is asked to end.
thread_local bool t_isTold = false;

} // namespace

// Never destroyed: a thread that was left behind may come here to the very end.
class RunningPrograms
{
public:
    static RunningPrograms& OfProcess()
    {
        static RunningPrograms& s_programs = *new RunningPrograms;
        return s_programs;
    }

    std::mutex& Lock() { return m_lock; }

    // --- with the lock

    // While SIGCHLD is ignored the system takes the status of children away before we can ask for it. Some parents
    // leave it so: the default is there from before a program starts for as long as one of ours runs on any thread.
    void KeepStatus()
    {
        if (m_statusUsers++ > 0)
            return;
        os::Disposition(SIGCHLD, m_ofChild);
        m_ofChildChanged = m_ofChild.sa_handler == SIG_IGN || (m_ofChild.sa_flags & SA_NOCLDWAIT) != 0;
        if (m_ofChildChanged)
            os::SetDefaultDisposition(SIGCHLD);
    }
    void LetStatusGo()
    {
        if (--m_statusUsers > 0 || !m_ofChildChanged)
            return;
        os::SetDisposition(SIGCHLD, m_ofChild);
        m_ofChildChanged = false;
    }

    void Add(HelperProgram* program) { m_running.insert(program); }
    void Remove(HelperProgram* program)
    {
        if (m_running.erase(program) > 0)
            LetStatusGo();
    }

    void NoteGroup(pid_t group)
    {
        for (auto place = m_leftGroups.begin(); place != m_leftGroups.end();)
            place = SendSignalToGroup(*place, 0) == 0 ? std::next(place) : m_leftGroups.erase(place);
        if (SendSignalToGroup(group, 0) == 0)
            m_leftGroups.insert(group);
    }

    // --- without it

    static void StopThoseOf(const WaitPoint* owner)
    {
        RunningPrograms& programs = OfProcess();
        const std::lock_guard lock(programs.m_lock);
        for (HelperProgram* const program : programs.m_running)
            if (program->m_owner == owner)
                program->EndOrStop();
    }

    static void EndAll()
    {
        RunningPrograms& programs = OfProcess();
        programs.EndInputs();
        const std::lock_guard lock(programs.m_lock);
        for (HelperProgram* const program : programs.m_running)
            program->Stop();
        if (programs.m_leftGroups.empty())
            return;
        const std::set<pid_t> groups = os::GroupsOfOwnSession();
        for (const pid_t group : programs.m_leftGroups)
            if (groups.count(group) > 0)
                SendSignalToGroup(group, SIGTERM);
        programs.m_leftGroups.clear();
    }

private:
    void EndInputs()
    {
        std::vector<pid_t> readers;
        {
            const std::lock_guard lock(m_lock);
            for (HelperProgram* const program : m_running)
                if (program->m_input && os::EndStream(program->m_input))
                    readers.push_back(program->m_pid);
        }
        const auto runs = [](pid_t pid) {
            os::ProcessInfo info;
            return os::GetProcessInfo(pid, info) && !info.zombie;
        };
        const Deadline limit(inputEndMs);
        while (limit.LeftMs() > 0 && std::any_of(readers.begin(), readers.end(), runs))
            os::WaitReadable({}, 5);
    }

    std::mutex m_lock;
    // Guarded by m_lock.
    std::set<HelperProgram*> m_running;
    std::set<pid_t> m_leftGroups; // of programs that have ended
    struct sigaction m_ofChild = {}; // SIGCHLD's disposition before
    bool m_ofChildChanged = false;
    int m_statusUsers = 0;
};

namespace {
const EndStepOwner endHelpers(EndStep::EndHelpers, &RunningPrograms::EndAll);

const struct StopHook
{
    StopHook() { WaitPoint::AddExitObserver(&RunningPrograms::StopThoseOf); }
} stopHook;

} // namespace

// --- output

ProgramOutput::ProgramOutput(os::Descriptor pipe) : m_pipe(std::move(pipe))
{
    os::SetNonBlocking(m_pipe.Get());
}

bool ProgramOutput::Drain()
{
    char chunk[65536];
    bool any = false;
    for (int round = 0; m_pipe && round < 16; ++round) {
        const ssize_t got = os::Read(m_pipe.Get(), chunk, sizeof chunk);
        if (got == 0)
            m_pipe.Reset(); // everybody closed it
        if (got <= 0)
            break;
        any = true;
        total += static_cast<std::size_t>(got);
        text.append(chunk, std::min(static_cast<std::size_t>(got), maxOutputBytes - text.size()));
    }
    return any;
}

// --- the program

HelperProgram::HelperProgram(pid_t pid, bool ownGroup)
    : m_pid(pid), m_ownGroup(ownGroup), m_owner(&WaitPoint::OfThisThread()), m_process(os::OpenProcess(pid))
{}

std::unique_ptr<HelperProgram> HelperProgram::Start(os::SpawnPlan plan)
{
    plan.environment = environ;
    RunningPrograms& programs = RunningPrograms::OfProcess();
    {
        const std::lock_guard lock(programs.Lock());
        programs.KeepStatus();
    }
    const pid_t pid = os::Spawn(plan);
    const os::KeepError error;
    const std::lock_guard lock(programs.Lock());
    if (pid <= 0) {
        programs.LetStatusGo();
        return nullptr;
    }
    std::unique_ptr<HelperProgram> program(new HelperProgram(pid, plan.ownGroup));
    programs.Add(program.get());
    // Whoever has asked the thread to end by now did not see the program.
    if (WaitPoint::OfThisThread().ExitRequested())
        program->Stop();
    return program;
}

HelperProgram::~HelperProgram()
{
    RunningPrograms& programs = RunningPrograms::OfProcess();
    const std::lock_guard lock(programs.Lock());
    programs.Remove(this);
}

void HelperProgram::SetInput(std::FILE* stream)
{
    const std::lock_guard lock(RunningPrograms::OfProcess().Lock());
    m_input = stream;
}

bool HelperProgram::HasEnded()
{
    RunningPrograms& programs = RunningPrograms::OfProcess();
    const std::lock_guard lock(programs.Lock());
    int status = -1;
    const pid_t ended = os::TakeStatus(m_pid, status);
    if (ended == 0)
        return false;
    if (ended == m_pid)
        m_status = status;
    programs.Remove(this);
    if (m_ownGroup)
        programs.NoteGroup(m_pid);
    return true;
}

bool HelperProgram::IsEnding()
{
    const std::lock_guard lock(RunningPrograms::OfProcess().Lock());
    return m_isEnding;
}

bool HelperProgram::IsStopped()
{
    const std::lock_guard lock(RunningPrograms::OfProcess().Lock());
    return m_isStopped;
}

// Once to each: some programs take a second SIGTERM for more haste.
void HelperProgram::Signal(int signal) const
{
    const bool isInGroup = m_ownGroup && os::GroupOf(m_pid) == m_pid; // it may have left it
    if (m_ownGroup)
        SendSignalToGroup(m_pid, signal);
    if (!isInGroup)
        SendSignal(m_pid, signal);
}

// With the lock of RunningPrograms.
void HelperProgram::EndOrStop()
{
    if (m_input && os::EndStream(m_input))
        m_isEnding = true;
    else
        Stop();
}

// The same.
void HelperProgram::Stop()
{
    if (std::exchange(m_isStopped, true))
        return;
    Signal(SIGTERM);
    if (m_stopped)
        os::WriteBestEffort(m_stopped.writing.Get(), "", 1);
}

// Until there is output, the program has ended or was stopped, or the time is over. Without a descriptor for the
// process or a pipe for the stop these show no other way: then the waits are short, growing while nothing happens.
void HelperProgram::Sleep(const std::vector<ProgramOutput*>& outputs, bool watchStop, long leftMs)
{
    constexpr long longestMs = 1000000;
    constexpr long longestNapMs = 50;
    long waitMs = leftMs < 0 ? -1 : std::min(leftMs, longestMs);
    if (!m_process || !m_stopped) {
        waitMs = waitMs < 0 ? m_napMs : std::min(waitMs, m_napMs);
        m_napMs = std::min(m_napMs * 2, longestNapMs);
    }
    const auto pipeOf = [&](std::size_t place) { return place < outputs.size() ? outputs[place]->Descriptor() : -1; };
    os::WaitReadable({m_process.Get(), watchStop ? m_stopped.reading.Get() : -1, pipeOf(0), pipeOf(1)},
                     static_cast<int>(waitMs));
}

HelperProgram::End HelperProgram::Wait(long timeoutMs, const std::vector<ProgramOutput*>& outputs)
{
    {
        const std::lock_guard lock(RunningPrograms::OfProcess().Lock());
        m_stopped = os::OpenPipe(); // from here on `Stop` writes into it
    }
    const auto drain = [&] {
        for (ProgramOutput* const output : outputs)
            if (output->Drain())
                m_napMs = 1;
    };
    const Deadline limit(timeoutMs > 0 ? timeoutMs : -1);
    std::optional<Deadline> grace; // to come to the end of its input
    std::optional<Deadline> patience; // after a stop
    bool timedOut = false;
    bool killed = false;
    while (!HasEnded()) {
        if (!grace && IsEnding())
            grace.emplace(inputEndMs);
        if (grace && !patience && grace->LeftMs() == 0) {
            const std::lock_guard lock(RunningPrograms::OfProcess().Lock());
            Stop();
        }
        if (!patience && IsStopped())
            patience.emplace(stopMs);
        long leftMs = static_cast<long>(patience ? patience->LeftMs() : grace ? grace->LeftMs() : limit.LeftMs());
        if (leftMs == 0 && !killed) {
            timedOut = !patience;
            killed = true;
            Signal(SIGKILL);
        }
        if (killed)
            leftMs = -1;
        Sleep(outputs, !patience, leftMs);
        drain();
    }
    drain();
    if (timedOut)
        return End::TimedOut;
    if (!IsStopped())
        return End::OfItself;
    t_isTold = true;
    return End::Stopped;
}

MayStart AskToStart()
{
    if (!WaitPoint::OfThisThread().ExitRequested())
        return MayStart::Yes;
    return std::exchange(t_isTold, true) ? MayStart::NoAgain : MayStart::No;
}

} // namespace VexCore
