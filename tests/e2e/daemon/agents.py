"""Applications for the daemon scenarios, and the whole of what a run may leave in the log."""
import ast
import os
import re
import signal
import subprocess

from conftest import wait_until

# Tells on disk what it did, so that a test sees the order of a process that has no terminal.
LIFE = """
local M = {}
local function note(what)
  local f = assert(io.open(dom0:Get("app.path.work") .. "/life", "a")); f:write(what, "\\n"); f:close()
end
function M.init() note("init"); return tonumber(os.getenv("VEX_TEST_INIT") or 0) end
function M.main() note("main"); return tonumber(os.getenv("VEX_TEST_MAIN") or 0) end
function M.shutdown() note("shutdown"); return tonumber(os.getenv("VEX_TEST_SHUTDOWN") or 0) end
return M
"""

PID_FILE = "/var/run/probe.pid"

CAUGHT = ("WARNING", "sigwait(): caught signal 15")
# A stop interrupts the supervisor's wait for its child; when it comes between two system calls, it does not.
INTERRUPTED = ("WARNING", "Waiting for child process interrupted - Try again")
REFUSED = ("ERROR", f"{PID_FILE} present, exiting")


def exited(code):
    return ("INFO", f"Child process exited with status {code << 8} (exit {code})")


def killed(number):
    return ("INFO", f"Child process exited with status {int(number)} (signal {int(number)}: {signal.strsignal(number)})")


def delayed(restart):
    return ("INFO", f"Delaying {1000 << (restart - 1)}ms before restart {restart}")


def stale(pid):
    return ("INFO", f"{PID_FILE} present (pid={pid}), but doesn't seem to be running.")


def still_ending(pid):
    return ("INFO", f"The child process of an earlier start (pid={pid}) is still ending, waiting for it.")


ENDED = exited(0)

_RECORD = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d ([A-Z]+) \[\d+/[^\]]+\] (.*)")


def records(log):
    """All records of a log as (level, text); what follows a record's line break stands in its text, without the indent. A
    line that is neither fails the test."""
    found = []
    for line in log.splitlines():
        match = _RECORD.fullmatch(line)
        if match:
            found.append((match.group(1), match.group(2)))
        else:
            assert found and line.startswith(" "), f"a line that belongs to no record: {line!r}"
            found[-1] = (found[-1][0], found[-1][1] + "\n" + line.strip())
    return found


def uninterrupted(lines, stops):
    """The records without the interrupted waits, of which each of so many stops explains one."""
    assert lines.count(INTERRUPTED) <= stops, lines
    return [line for line in lines if line != INTERRUPTED]


def check_log(tree, *expected, name="probe", stops=1):
    """The log holds these records, (level, text or pattern), and no other line. `stops` is the number of SIGTERMs that a
    supervisor got while its child ran."""
    lines = uninterrupted(records(tree.log(name)), stops)
    same = len(lines) == len(expected) and all(
        level == wanted_level and (text == wanted if isinstance(wanted, str) else wanted.fullmatch(text) is not None)
        for (level, text), (wanted_level, wanted) in zip(lines, expected))
    assert same, "the log holds\n  " + "\n  ".join(map(str, lines)) + "\ninstead of\n  " + "\n  ".join(map(str, expected))


def check_silent(result, status=0):
    """A run that ended with this status and wrote nothing."""
    assert (result.status, result.out, result.err) == (status, "", ""), result.err


def life(tree):
    try:
        with open(tree.work + "/life") as file:
            return file.read().split()
    except FileNotFoundError:
        return []


REAPER = """
import ctypes, os, sys
ctypes.CDLL(None).prctl(36, 1, 0, 0, 0)
os.environ.update(argument.split("=", 1) for argument in sys.argv[2:])
os.spawnv(os.P_NOWAIT, sys.argv[1], [sys.argv[1], "--background"])
statuses = []
while True:
    try:
        pid, code = os.wait()
    except ChildProcessError:
        break
    statuses.append((pid, os.waitstatus_to_exitcode(code)))
print(statuses)
"""


def adopted_statuses(tree, env=None, action=None):
    """Starts in the background below a process that adopts whatever is orphaned, and waits for the end of all; returns
    (pid, status) as they end: starting process, first child, supervisor, and a child if it is left behind. `env` is for
    these. `action` gets the supervisor's pid. Nobody writes a word."""
    settings = [f"{name}={value}" for name, value in (env or {}).items()]
    reaper = subprocess.Popen(["/usr/bin/python3", "-c", REAPER, os.path.join(tree.path, "probe"), *settings],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **tree.identity)
    tree._started.append(reaper)
    if action:
        action(wait_until(lambda: tree.supervisor("probe"), what="pid file"))
    out, err = reaper.communicate(timeout=300)
    assert (out.count("\n"), err) == (1, "")
    return ast.literal_eval(out)


def run_adopted(tree, env=None, action=None):
    """The same for the supervisor's status alone; all others end with 0, what a child left behind included."""
    known = []

    def note(supervisor):
        known.append(supervisor)
        action(supervisor)
    ended = adopted_statuses(tree, env, note if action else None)
    # Without a stop it is the supervisor that has the last word in the log.
    supervisor = known[0] if known else int(re.findall(r" \[(\d+)/main\] ", tree.log("probe"))[-1])
    assert len(ended) >= 3 and all(status == 0 for pid, status in ended if pid != supervisor), ended
    return dict(ended)[supervisor]
