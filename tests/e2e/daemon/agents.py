"""Applications and log reading for the daemon scenarios."""
import re

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

CAUGHT = ("WARNING", "sigwait(): caught signal 15")
ENDED = ("INFO", "Child process exited with status 0 (exit 0)")

_RECORD = re.compile(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d ([A-Z]+) \[(\d+)/([^\]]*)\] (.*)$")


# A stop interrupts the supervisor's wait for its child; when it comes between two system calls, it does not.
INTERRUPTED = ("WARNING", "Waiting for child process interrupted - Try again")


def records(log):
    """The log's records as (level, text), without trace lines and interrupted waits; continuation lines are joined to
    their record."""
    found = []
    for line in log.splitlines():
        match = _RECORD.match(line)
        if match:
            found.append((match.group(1), match.group(4)))
        elif found:
            found[-1] = (found[-1][0], found[-1][1] + "\n" + line.strip())
    return [record for record in found if record[0] != "TRACE" and record != INTERRUPTED]


def life(tree):
    try:
        with open(tree.work + "/life") as file:
            return file.read().split()
    except FileNotFoundError:
        return []
