"""Who may ask the system for what: signals through one wrapper, calls through one doorway, output that stays narrow."""
import re

from tidy_rules.tree import CPP

KILL = re.compile(r"(?<![\w.>])(?:::)?(?:kill|killpg|tgkill|sigqueue)\s*\(")
KILL_PYTHON = re.compile(r"\bos\.(?:kill|killpg)\s*\(")
SYSTEM_CALL = re.compile(
    r"(?<![\w>])::(?:open|openat|creat|read|write|pread|pwrite|readv|writev|close|stat|lstat|fstat|fstatat|link|symlink|"
    r"unlink|unlinkat|rename|renameat|mkdir|mkdirat|rmdir|chdir|fork|vfork|exec\w+|posix_spawn\w*|waitpid|mmap|munmap|poll|"
    r"select|socket|pipe2?|dup[23]?|fcntl|flock|lockf|fsync|fdatasync|ftruncate|chmod|fchmod|chown|opendir|readdir|"
    r"sigaction|sigprocmask|ioctl|prctl|setrlimit|getrlimit|umask|access)\s*\(")
# Calls that make a standard stream one of wide characters, the framework's included.
WIDE_OUTPUT = re.compile(r"\b(?:wx(?:F|Vf|V)?[pP]rintf|wxF?[pP]ut(?:s|c|char)|v?f?wprintf|fputw[cs]|putwc|putwchar|fwide|"
                         r"w(?:cout|cerr|clog))\b")
# Where a rule does not hold, and why.
KILL_ALLOWED = {
    "src/vex/core/sendsignal.h": "the wrapper",
}
SYSTEM_CALL_ALLOWED = {
    "src/vex_core/lifecycle/startup.cpp": "runs before anything else, also before the doorway's own initialisers",
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


def check_system_calls(tree):
    for name in tree.named(*CPP, below="src/vex_core/"):
        if not name.startswith("src/vex_core/os/") and name not in SYSTEM_CALL_ALLOWED:
            for number in tree.matches(name, SYSTEM_CALL, code=True):
                yield name, number, "system calls of the core library go through src/vex_core/os/"


def check_wide_output(tree):
    for name in tree.named(*CPP, below="src/"):
        for number in tree.matches(name, WIDE_OUTPUT, code=True):
            yield name, number, "wide output: later narrow output on the same stream prints nothing"


CHECKS = (check_signals, check_system_calls, check_wide_output)
