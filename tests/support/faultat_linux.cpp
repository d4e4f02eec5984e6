// Runs a program and lets one chosen system call of it fail, or ends the program before it.
//
//   faultat REPORT PATH N ERRNO PROGRAM [ARGUMENT...]
//   faultat REPORT PATH N kill PROGRAM [ARGUMENT...]
//
// Counted are the calls of the thread that opens PATH, from that call to the one that renames or removes PATH, but for
// those that cannot fail, ask for memory, wait for other threads or use a pipe (with which a sanitizer asks what memory
// there is). The N-th is not made and fails with ERRNO; with N 0 none fails. REPORT gets a line for each counted call:
// its name (or number) and the file that it is about, "-" for none; FOLDER/./PATH is a path that was given relative to
// an open folder. The exit status is the program's, or 128 and the number of the signal that ended it.
//
// With "kill" counted are, from the same call to the last of that thread, those that change something on disk; the N-th
// is not made, because the program is killed.
//
// A tracer that counts the calls of each thread for itself would not do: the main thread's N-th would fail as well.

#include "support/traced_child_linux.h"
#include "vex/core/sendsignal.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <elf.h>
#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {
// --- the part that differs between processors

#if defined(__x86_64__)

void SetNumber(pid_t thread, long number)
{
    ::ptrace(PTRACE_POKEUSER, thread, offsetof(struct user, regs.orig_rax), number);
}

void SetResult(pid_t thread, long result)
{
    ::ptrace(PTRACE_POKEUSER, thread, offsetof(struct user, regs.rax), result);
}

#elif defined(__aarch64__)

void SetNumber(pid_t thread, long number)
{
    int value = static_cast<int>(number);
    struct iovec place = {&value, sizeof value};
    ::ptrace(PTRACE_SETREGSET, thread, NT_ARM_SYSTEM_CALL, &place);
}

void SetResult(pid_t thread, long result)
{
    struct user_regs_struct registers = {};
    struct iovec place = {&registers, sizeof registers};
    if (::ptrace(PTRACE_GETREGSET, thread, NT_PRSTATUS, &place) != 0)
        return;
    registers.regs[0] = static_cast<unsigned long long>(result);
    ::ptrace(PTRACE_SETREGSET, thread, NT_PRSTATUS, &place);
}

#else
#error "say here how a system call of this processor is given another number and another result"
#endif

// --- what is known of system calls

enum class Kind { Plain, Descriptor, Path, PathAt, Ignored };

struct CallName
{
    long number;
    const char* name;
    Kind kind; // what its first arguments are
    bool ends = false; // it takes a name away
};

const CallName knownCalls[] = {
#ifdef SYS_open
    {SYS_open, "open", Kind::Path},
    {SYS_stat, "stat", Kind::Path},
    {SYS_lstat, "lstat", Kind::Path},
    {SYS_access, "access", Kind::Path},
    {SYS_mkdir, "mkdir", Kind::Path},
    {SYS_chmod, "chmod", Kind::Path},
    {SYS_rename, "rename", Kind::Path, true},
    {SYS_unlink, "unlink", Kind::Path, true},
    {SYS_pipe, "pipe", Kind::Ignored},
#endif
#ifdef SYS_renameat
    {SYS_renameat, "renameat", Kind::PathAt, true},
#endif
    {SYS_openat, "openat", Kind::PathAt},
    {SYS_newfstatat, "newfstatat", Kind::PathAt},
    {SYS_faccessat, "faccessat", Kind::PathAt},
    {SYS_mkdirat, "mkdirat", Kind::PathAt},
    {SYS_renameat2, "renameat2", Kind::PathAt, true},
    {SYS_unlinkat, "unlinkat", Kind::PathAt, true},
    {SYS_linkat, "linkat", Kind::PathAt},
    {SYS_fstat, "fstat", Kind::Descriptor},
    {SYS_read, "read", Kind::Descriptor},
    {SYS_pread64, "pread64", Kind::Descriptor},
    {SYS_write, "write", Kind::Descriptor},
    {SYS_pwrite64, "pwrite64", Kind::Descriptor},
    {SYS_lseek, "lseek", Kind::Descriptor},
    {SYS_fsync, "fsync", Kind::Descriptor},
    {SYS_fdatasync, "fdatasync", Kind::Descriptor},
    {SYS_syncfs, "syncfs", Kind::Descriptor},
    {SYS_sync_file_range, "sync_file_range", Kind::Descriptor},
    {SYS_fchmod, "fchmod", Kind::Descriptor},
    {SYS_fchmodat, "fchmodat", Kind::PathAt},
    {SYS_pwritev, "pwritev", Kind::Descriptor},
    {SYS_writev, "writev", Kind::Descriptor},
    {SYS_symlinkat, "symlinkat", Kind::Plain},
    {SYS_sync, "sync", Kind::Plain},
    {SYS_ftruncate, "ftruncate", Kind::Descriptor},
    {SYS_fallocate, "fallocate", Kind::Descriptor},
    {SYS_fcntl, "fcntl", Kind::Descriptor},
    {SYS_getdents64, "getdents64", Kind::Descriptor},
    {SYS_close, "close", Kind::Descriptor},
    {SYS_uname, "uname", Kind::Plain},
    {SYS_brk, "brk", Kind::Ignored},
    {SYS_mmap, "mmap", Kind::Ignored},
    {SYS_munmap, "munmap", Kind::Ignored},
    {SYS_mremap, "mremap", Kind::Ignored},
    {SYS_mprotect, "mprotect", Kind::Ignored},
    {SYS_madvise, "madvise", Kind::Ignored},
    {SYS_getpid, "getpid", Kind::Ignored},
    {SYS_gettid, "gettid", Kind::Ignored},
    {SYS_pipe2, "pipe2", Kind::Ignored},
    {SYS_futex, "futex", Kind::Ignored},
    {SYS_sched_yield, "sched_yield", Kind::Ignored},
    {SYS_rt_sigprocmask, "rt_sigprocmask", Kind::Ignored},
    {SYS_restart_syscall, "restart_syscall", Kind::Ignored},
};

// Whether the call makes, fills, flushes, renames or removes anything.
bool ChangesSomething(const CallName& call, const std::uint64_t (&arguments)[6])
{
    const std::string name = call.name ? call.name : "";
    if (name == "open" || name == "openat")
        return (arguments[name == "open" ? 1 : 2] & O_CREAT) != 0;
    for (const char* const start : {"write", "pwrite", "rename", "unlink", "mkdir", "link", "symlink", "fsync",
                                    "fdatasync", "syncfs", "sync", "chmod", "fchmod", "ftruncate", "fallocate"})
        if (name.rfind(start, 0) == 0)
            return true;
    return false;
}

CallName NameOf(long number)
{
    for (const CallName& call : knownCalls)
        if (call.number == number)
            return call;
    return {number, nullptr, Kind::Plain};
}

std::string TextAt(pid_t thread, std::uint64_t address)
{
    std::string text;
    for (;; address += sizeof(long)) {
        errno = 0;
        const long word = ::ptrace(PTRACE_PEEKDATA, thread, address, nullptr);
        if (errno != 0)
            return text;
        char bytes[sizeof word];
        std::memcpy(bytes, &word, sizeof word);
        for (const char byte : bytes) {
            if (byte == '\0')
                return text;
            text += byte;
        }
    }
}

std::string PathOf(pid_t thread, std::uint64_t descriptor)
{
    const std::string link = "/proc/" + std::to_string(thread) + "/fd/" + std::to_string(static_cast<int>(descriptor));
    char path[4096];
    const ssize_t size = ::readlink(link.c_str(), path, sizeof path);
    return size < 0 ? "-" : std::string(path, static_cast<std::size_t>(size));
}

std::string About(pid_t thread, Kind kind, const std::uint64_t (&arguments)[6])
{
    if (kind == Kind::Descriptor)
        return PathOf(thread, arguments[0]);
    if (kind == Kind::Path)
        return TextAt(thread, arguments[0]);
    if (kind != Kind::PathAt)
        return "-";
    const std::string path = TextAt(thread, arguments[1]);
    if (path.empty())
        return PathOf(thread, arguments[0]); // the descriptor itself
    return path[0] == '/' ? path : PathOf(thread, arguments[0]) + "/./" + path;
}

// --- the tracer

class Tracer
{
public:
    Tracer(FILE* report, std::string path, long faulty, int error, bool kills)
        : m_report(report), m_path(std::move(path)), m_faulty(faulty), m_error(error), m_kills(kills)
    {}

    int Run(pid_t first)
    {
        m_process = first;
        VexCore::SendSignal(first, SIGCONT);
        int result = 1;
        Test::FollowTraced(
            [this](pid_t thread, bool isCall, long carried) {
                if (isCall)
                    OnCall(thread);
                ::ptrace(m_isOver ? PTRACE_CONT : PTRACE_SYSCALL, thread, nullptr, carried);
            },
            [&result, first](pid_t thread, int status) {
                if (thread == first)
                    result = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
            });
        return result;
    }

private:
    void OnCall(pid_t thread)
    {
        if (m_isOver)
            return;
        struct __ptrace_syscall_info info = {};
        if (::ptrace(PTRACE_GET_SYSCALL_INFO, thread, sizeof info, &info) <= 0)
            return;
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY)
            OnEntry(thread, info);
        else if (info.op == PTRACE_SYSCALL_INFO_EXIT && thread == m_thread)
            OnExit(thread);
    }

    void OnEntry(pid_t thread, const struct __ptrace_syscall_info& info)
    {
        const CallName call = NameOf(static_cast<long>(info.entry.nr));
        if (call.kind == Kind::Ignored || (m_thread != 0 && thread != m_thread))
            return;
        const std::string about = About(thread, call.kind, info.entry.args);
        if (about.compare(0, 5, "pipe:") == 0)
            return;
        if (m_thread == 0 && about != m_path)
            return;
        if (m_thread == 0 && std::strncmp(call.name, "open", 4) != 0)
            return; // who only looks at it
        m_thread = thread;
        if (m_kills && !ChangesSomething(call, info.entry.args))
            return;
        if (call.name)
            std::fprintf(m_report, "%s %s\n", call.name, about.c_str());
        else
            std::fprintf(m_report, "%ld -\n", call.number);
        std::fflush(m_report);
        if (++m_count == m_faulty) {
            SetNumber(thread, -1);
            m_isFailing = true;
            if (m_kills)
                VexCore::SendSignal(m_process, SIGKILL);
        }
        m_isLast = !m_kills && call.ends && about == m_path;
    }

    void OnExit(pid_t thread)
    {
        if (m_isFailing)
            SetResult(thread, -m_error);
        m_isFailing = false;
        m_isOver = m_isLast;
    }

    FILE* m_report;
    std::string m_path;
    long m_faulty;
    int m_error;
    bool m_kills;
    pid_t m_process = 0;
    pid_t m_thread = 0; // the one whose calls count, once it is known
    long m_count = 0;
    bool m_isFailing = false; // the call that this thread is in
    bool m_isLast = false;
    bool m_isOver = false;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc < 6) {
        std::fprintf(stderr, "usage: faultat REPORT PATH N ERRNO|kill PROGRAM [ARGUMENT...]\n");
        return 2;
    }
    FILE* const report = std::fopen(argv[1], "we");
    if (!report) {
        std::perror(argv[1]);
        return 1;
    }
    const pid_t child = Test::StartTraced(argv + 5, PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE);
    if (child < 0) {
        std::perror("faultat");
        return 1;
    }
    const bool kills = std::strcmp(argv[4], "kill") == 0;
    const int result = Tracer(report, argv[2], std::atol(argv[3]), kills ? 0 : std::atoi(argv[4]), kills).Run(child);
    std::fclose(report);
    return result;
}
