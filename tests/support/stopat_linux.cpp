// Runs a program and sends SIGTERM to one of its processes at one chosen system call.
//
//   stopat REPORT ROLE N PROGRAM [ARGUMENT...]
//
// Roles number the processes by the order of their forks, the program's own first process being 0; the threads of a
// process share its role. At the N-th stop (each system call has two: before and after) of a process of ROLE, that
// process gets SIGTERM, once; from then on nobody is traced. With N 0 nothing is sent and the stops are counted. It
// adopts what the program leaves running and ends when all of it has ended. REPORT gets a line a fact, as it happens:
//
//   role R pid P        a process began
//   sent P WHEN         SIGTERM was sent to P; WHEN is "open" while P did not block it, "waiting" while it did or was
//                       about to change that, and "passed" when P had taken what was pending (sigtimedwait), which it
//                       does once at most
//   end R STATUS        a process ended; STATUS is its exit status, or a signal's number, negative. R is -1 for one
//                       that began after the signal, and was adopted
//   stops N             stops of ROLE in the whole run, or until the signal

#include "support/traced_child_linux.h"
#include "vex/core/sendsignal.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <utility>

#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {
// What /proc says of a thread behind `name`, in the form of `format`; `otherwise` when it is gone already.
template <class Value>
Value StatusOf(pid_t thread, const char* format, Value otherwise)
{
    const std::string name = "/proc/" + std::to_string(thread) + "/status";
    FILE* const file = std::fopen(name.c_str(), "r");
    if (!file)
        return otherwise;
    char line[256];
    while (std::fgets(line, sizeof line, file))
        if (std::sscanf(line, format, &otherwise) == 1)
            break;
    std::fclose(file);
    return otherwise;
}

class Tracer
{
public:
    Tracer(FILE* report, int role, long stop) : m_report(report), m_role(role), m_stop(stop) {}

    static constexpr long options =
        PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC;

    void Follow(pid_t first)
    {
        NoteProcess(first);
        VexCore::SendSignal(first, SIGCONT);
    }

    void Run()
    {
        Test::FollowTraced([this](pid_t thread, bool isCall, long carried) { OnStop(thread, isCall, carried); },
                           [this](pid_t thread, int status) { OnEnd(thread, status); });
        Tell("stops %ld\n", m_stops);
    }

private:
    template <class... Values>
    void Tell(const char* format, Values... values)
    {
        std::fprintf(m_report, format, values...);
        std::fflush(m_report);
    }

    void NoteProcess(pid_t pid)
    {
        if (m_roles.count(pid) != 0)
            return;
        const int role = static_cast<int>(m_processes++);
        m_roles[pid] = role;
        Tell("role %d pid %d\n", role, static_cast<int>(pid));
    }

    // The process that a thread belongs to; the thread itself when it is gone already.
    static pid_t ProcessOf(pid_t thread) { return StatusOf(thread, "Tgid: %d", static_cast<int>(thread)); }

    static bool BlocksTerm(pid_t process)
    {
        return (StatusOf(process, "SigBlk: %llx", 0ULL) >> (SIGTERM - 1) & 1) != 0;
    }

    // A new process stops before its first instruction, so it is seen here before anything that it forks: also when its
    // parent's own stop at the fork is told later.
    int RoleOf(pid_t thread)
    {
        const auto known = m_threads.find(thread);
        if (known != m_threads.end())
            return known->second;
        const pid_t process = ProcessOf(thread);
        NoteProcess(process);
        return m_threads[thread] = m_roles[process];
    }

    void NoteCall(pid_t thread)
    {
        struct __ptrace_syscall_info info = {};
        if (::ptrace(PTRACE_GET_SYSCALL_INFO, thread, sizeof info, &info) <= 0)
            return;
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY)
            m_calls[thread] = static_cast<long>(info.entry.nr);
        else if (std::exchange(m_calls[thread], -1) == SYS_rt_sigtimedwait)
            m_passed = true;
    }

    void OnStop(pid_t thread, bool isCall, long carried)
    {
        const int role = RoleOf(thread);
        if (isCall && !m_sent && role == m_role)
            NoteCall(thread);
        if (isCall && !m_sent && role == m_role && ++m_stops == m_stop) {
            m_sent = true;
            const pid_t process = ProcessOf(thread);
            const char* const when = m_passed                                                       ? "passed"
                                     : BlocksTerm(process) || m_calls[thread] == SYS_rt_sigprocmask ? "waiting"
                                                                                                    : "open";
            VexCore::SendSignal(process, SIGTERM);
            Tell("sent %d %s\n", static_cast<int>(process), when);
        }
        if (m_sent)
            ::ptrace(PTRACE_DETACH, thread, nullptr, carried);
        else
            // A process that is not swept is only followed through its forks.
            ::ptrace(role == m_role ? PTRACE_SYSCALL : PTRACE_CONT, thread, nullptr, carried);
    }

    void OnEnd(pid_t thread, int status)
    {
        const auto process = m_roles.find(thread);
        if (m_threads.erase(thread) != 0 && process == m_roles.end())
            return;
        // One that ended traced is told of again when its parent ends before it has looked.
        if (!m_ended.insert(thread).second)
            return;
        const int role = process == m_roles.end() ? -1 : process->second;
        Tell("end %d %d\n", role, WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status));
    }

    FILE* m_report;
    int m_role;
    long m_stop;
    long m_stops = 0;
    bool m_sent = false;
    std::map<pid_t, long> m_calls; // of threads: the one that they are in, -1 for none
    bool m_passed = false; // whether one has come out of that which takes a pending signal
    std::size_t m_processes = 0;
    std::map<pid_t, int> m_roles; // of processes
    std::map<pid_t, int> m_threads; // of threads
    std::set<pid_t> m_ended; // processes
};

} // namespace

int main(int argc, char** argv)
{
    if (argc < 5) {
        std::fprintf(stderr, "usage: stopat REPORT ROLE N PROGRAM [ARGUMENT...]\n");
        return 2;
    }
    FILE* const report = std::fopen(argv[1], "we");
    if (!report) {
        std::perror(argv[1]);
        return 1;
    }
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t child = Test::StartTraced(argv + 4, Tracer::options);
    if (child < 0) {
        std::perror("stopat");
        return 1;
    }
    Tracer tracer(report, std::atoi(argv[2]), std::atol(argv[3]));
    tracer.Follow(child);
    tracer.Run();
    std::fclose(report);
    return 0;
}
