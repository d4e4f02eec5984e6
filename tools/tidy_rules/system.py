"""Who may ask the system for what: signals through one wrapper, calls through one doorway, output that stays narrow."""
import re

from tidy_rules.tree import CPP, without_excepted

HOME = "tools/tidy_rules/system.py"

KILL = re.compile(r"(?<![\w.>])(?:::)?(?:kill|killpg|tgkill|sigqueue)\s*\(")
KILL_PYTHON = re.compile(r"\bos\.(?:kill|killpg)\s*\(")
# What asks the system for something, as patterns. Not among it: what the C library answers by itself (strsignal, getenv, setenv,
# pthread_self, dlsym), its streams (fopen), the time of day of the standard library (std::time, std::chrono), and the framework,
# but for what is nothing but the call under another name.
SYSTEM_CALLS = r"""
    access alarm bind chdir chmod chown clock_gettime close closedir closefrom closelog connect creat dup dup2 dup3 endmntent
    epoll_\w+ execl execle execlp execv execve execvp execvpe faccessat fchdir fchmod fchmodat fchown fchownat fcntl fdatasync
    fdopendir flock fork fstat fstatat fstatvfs fsync ftruncate futimens getcwd getegid geteuid getgid
    getgr(?:nam|gid|ent)(?:_r)? gethostname getifaddrs getloadavg getmntent(?:_r)? getpgid getpgrp getpid getppid getpriority
    getpw(?:nam|uid|ent)(?:_r)? getrandom getrlimit getrusage getsid gettid gettimeofday getuid inotify_\w+ ioctl isatty lchown
    link linkat lockf lseek lstat madvise mkdir mkdirat mkdtemp mkfifo mkstemp mmap mprotect msync munmap nanosleep open openat
    opendir openlog pause pclose pipe pipe2 poll popen posix_spawn posix_spawnp ppoll prctl pread preadv process_vm_readv
    pthread_kill pthread_sigmask ptrace pwrite pwritev quick_exit raise read readdir readlink readlinkat readv realpath remove
    rename renameat rmdir sched_yield select setegid seteuid setgid setgroups setitimer setmntent setpgid setpriority setregid
    setresgid setresuid setreuid setrlimit setsid setuid sigaction sigaltstack signal sigpending sigprocmask sigsuspend
    sigtimedwait sigwait sigwaitinfo sleep socket stat statvfs statx symlink symlinkat sync sync_file_range syncfs syscall
    sysconf sysinfo syslog system truncate umask uname unlink unlinkat usleep utimensat vfork wait waitid waitpid write writev
    wxRemove wxRename _exit _Exit
    """.split()
SYSTEM_CALL = re.compile(r"(?P<scope>\w*::)?\b(?P<name>" + "|".join(SYSTEM_CALLS) + r")\b(?P<open>\s*\()?")
# The parts of the standard library that are calls and nothing else.
SYSTEM_LIBRARY = re.compile(r"\bstd::filesystem\b|<filesystem>|\bthis_thread::sleep_(?:for|until)\b")
# Before a name whose address is taken.
ADDRESS = re.compile(r"(?:[(,{=?:]|\breturn)\s*&$")
# Before a name: what makes it a declaration, a type in whatever form. "return open(" is none.
TYPE = re.compile(r"(?<!\w)(?!(?:return|else|case|throw|do|co_return)\b)\w[\w>]*[*&]*\s+$")
ERRNO = re.compile(r"\berrno\b")
# Calls that make a standard stream one of wide characters, the framework's included.
WIDE_OUTPUT = re.compile(r"\b(?:wx(?:F|Vf|V)?[pP]rintf|wxF?[pP]ut(?:s|c|char)|v?f?wprintf|fputw[cs]|putwc|putwchar|fwide|"
                         r"w(?:cout|cerr|clog))\b")
# Where a rule does not hold, and why.
KILL_ALLOWED = {
    "src/vex/core/sendsignal.h": "the wrapper",
}
DOORWAYS = ("src/vex_core/os/", "src/vex/apps/vex/os/", "src/vex/apps/vexctl/os/")
SYSTEM_CALL_ALLOWED = {
    "src/vex_core/crash/crash.cpp": "after a crash nothing may stand between the code and the system",
    "src/vex_core/crash/crash_linux.cpp": "after a crash nothing may stand between the code and the system",
    "src/vex_core/crash/crash_maps_linux.cpp": "after a crash nothing may stand between the code and the system",
    "src/vex_core/crash/crash_solaris.cpp": "after a crash nothing may stand between the code and the system",
    "src/vex_core/crash/earlier_dumps_linux.cpp": "after a crash nothing may stand between the code and the system",
    "src/vex_core/crash/other_threads_linux.cpp": "after a crash nothing may stand between the code and the system",
    "src/vex_core/crash/minidump_writer_linux.cpp": "after a crash nothing may stand between the code and the system",
    "src/vex_core/lifecycle/startup.cpp": "runs before anything else, also before the doorway's own initialisers",
}
ERRNO_ALLOWED = {
    "src/vex/core/sendsignal.h": "the wrapper of kill, which answers as it does",
    "src/vex_core/crash/crash.cpp": "after a crash nothing may stand between the code and the system",
    "src/vex_core/crash/crash_linux.cpp": "after a crash nothing may stand between the code and the system",
    "src/vex_core/crash/minidump_writer_linux.cpp": "after a crash nothing may stand between the code and the system",
}


def check_signals(tree):
    for name in tree.named(*CPP):
        if name not in KILL_ALLOWED:
            for number in tree.matches(name, KILL, code=True):
                yield name, number, "signals are sent through vex/core/sendsignal.h"
    for name in tree.named(".py"):
        for number in tree.matches(name, KILL_PYTHON):
            if not any("assert pid > 1" in line for line in tree.lines(name)[max(number - 3, 0):number - 1]):
                yield name, number, "a signal whose pid was not seen to be above 1"


def is_system_call(line, found, code):
    before, scope = line[:found.start()], found["scope"]
    if before.endswith((".", "->", ">::")) or scope == "::" and before.endswith(">"):
        return False
    if scope == "std::":
        algorithm = found["name"] == "remove" and "," in line[found.end():]  # of elements, not of a file
        return found["open"] is not None and not algorithm
    if scope is None and found["open"] is None:
        declaration = re.compile(r"[\w>][*&]* +" + found["name"] + r"\s*[;,)=({]")  # of something else by that name
        return ADDRESS.search(before) is not None and not any(map(declaration.search, code))
    return scope == "::" or scope is None and not TYPE.search(before)


def outside_doorways(tree):
    for name in tree.named(*CPP, below="src/"):
        if not name.startswith(DOORWAYS):
            yield name, tree.code(name)


def check_system_calls(tree):
    found = ((name, (name, number, f"{match['name']}: system calls go through a folder os/"))
             for name, lines in outside_doorways(tree)
             for number, line in enumerate(lines, 1)
             for match in SYSTEM_CALL.finditer(line) if is_system_call(line, match, lines))
    yield from ((name, number, f"{match[0]}: system calls go through a folder os/")
                for name, lines in outside_doorways(tree) for number, line in enumerate(lines, 1)
                for match in [SYSTEM_LIBRARY.search(line)] if match)
    yield from without_excepted(tree, HOME, SYSTEM_CALL_ALLOWED, found)


def check_errno(tree):
    found = ((name, (name, number, "errno stays in the folders os/"))
             for name, _ in outside_doorways(tree) for number in tree.matches(name, ERRNO, code=True))
    yield from without_excepted(tree, HOME, ERRNO_ALLOWED, found)


def check_wide_output(tree):
    for name in tree.named(*CPP, below="src/"):
        for number in tree.matches(name, WIDE_OUTPUT, code=True):
            yield name, number, "wide output: later narrow output on the same stream prints nothing"


CHECKS = (check_signals, check_system_calls, check_errno, check_wide_output)
