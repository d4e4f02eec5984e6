"""Exit code 3 of the child stops the kernel driver through its script, whatever that script does, and restarts the child."""
import os
import signal
import time

import pytest

from agents import CAUGHT, ENDED, PID_FILE, check_log, check_silent, delayed, exited, life
from conftest import alive, send_signal, wait_until

pytestmark = pytest.mark.sandbox
SCRIPT = "/opt/vx_agent/SunOS.init"
STOPPED = ("MESSAGE", f"Driver stopped using {SCRIPT}")

ONCE = """
local M = {}
local function note(what)
  local f = assert(io.open(dom0:Get("app.path.work") .. "/life", "a")); f:write(what, "\\n"); f:close()
end
function M.main()
  note("main")
  local f = io.open(dom0:Get("app.path.work") .. "/once")
  if f then f:close() return 0 end
  io.open(dom0:Get("app.path.work") .. "/once", "w"):close()
  return 3
end
function M.shutdown() note("shutdown") return 0 end
return M
"""


def script(text, mode=0o755):
    os.makedirs(os.path.dirname(SCRIPT), exist_ok=True)
    with open(SCRIPT, "w") as file:
        file.write(text)
    os.chmod(SCRIPT, mode)


def check_restart(tree, *said):
    """Runs an agent that exits with 3 once; the log holds `said` between that end and the restart, and nothing unexpected."""
    tree.app("probe", ONCE)
    check_silent(tree.run("--background", name="probe"))
    wait_until(lambda: life(tree) == ["main", "main"], what="second main")
    tree.stop(tree.pid_file("probe"))
    assert life(tree) == ["main", "main", "shutdown"] and not os.path.exists(PID_FILE)
    check_log(tree, exited(3), *said, delayed(1), CAUGHT, ENDED)


def test_without_a_script_nothing_is_run_or_logged(tree):
    check_restart(tree)


def test_a_script_that_is_not_executable_is_not_run(tree):
    script("#!/bin/sh\ntouch /run/ran\n", 0o644)
    check_restart(tree)
    assert not os.path.exists("/run/ran")


@pytest.mark.any_user(always=True)
def test_the_script_gets_the_command_and_is_told(tree):
    script("#!/bin/sh\necho \"$@\" > /run/ran\n")
    check_restart(tree, STOPPED)
    with open("/run/ran") as file:
        assert file.read() == "stopmod\n"


@pytest.mark.any_user
@pytest.mark.parametrize("body,end", [
    ("exit 5", "ended with code 5"),
    ("exit 255", "ended with code 255"),
    ("kill -USR2 $$", f"was ended by signal {int(signal.SIGUSR2)} ({signal.strsignal(signal.SIGUSR2)})"),
    ("kill -KILL $$", "was ended by signal 9 (Killed)"),
    ("head -c 1048576 /dev/zero; exit 1", "ended with code 1")])
def test_a_script_that_ran_counts_as_stopped_whatever_its_code(tree, body, end):
    script(f"#!/bin/sh\n{body}\n")
    check_restart(tree, ("WARNING", f"Program '{SCRIPT}' {end}"), STOPPED)


def test_a_megabyte_of_output_of_a_script_that_succeeds_is_no_line(tree):
    script("#!/bin/sh\nhead -c 1048576 /dev/zero; head -c 1048576 /dev/zero >&2\n")
    check_restart(tree, STOPPED)


@pytest.mark.any_user
@pytest.mark.parametrize("text,reason", [("#!/no/such/interpreter\n", "No such file or directory"),
                                         ("\x7fELF and no more", "Exec format error")])
def test_a_script_that_cannot_be_started_is_an_error_with_the_reason(tree, text, reason):
    script(text)
    check_restart(tree, ("ERROR", f"Error stopping driver: Unable to run '{SCRIPT}': {reason}"))


@pytest.mark.any_user
def test_a_stop_while_the_script_hangs_ends_the_supervisor_at_once_and_leaves_the_script_to_itself(tree):
    script("#!/bin/sh\necho $$ > /run/starting; mv /run/starting /run/hangs\nexec sleep 600\n")
    tree.app("probe", ONCE)
    check_silent(tree.run("--background", name="probe"))
    supervisor = wait_until(lambda: tree.pid_file("probe"), what="pid file")
    wait_until(lambda: os.path.exists("/run/hangs"), what="script")
    with open("/run/hangs") as file:
        hanging = int(file.read())
    try:
        begin = time.monotonic()
        send_signal(supervisor, signal.SIGTERM)
        wait_until(lambda: not alive(supervisor), what="end of the supervisor")
        assert time.monotonic() - begin < 5
        time.sleep(0.2)
        # To cut the unloading of a driver short is nobody's business here.
        assert alive(hanging)
    finally:
        send_signal(hanging, signal.SIGKILL)
    assert life(tree) == ["main"] and not os.path.exists(PID_FILE)
    check_log(tree, exited(3), stops=0)


def test_a_script_is_run_before_each_restart_with_the_delays_between(tree):
    """Three exits with 3 in a row: delays of 1, 2 and 4 seconds before the second, third and fourth start."""
    script("#!/bin/sh\necho >> /run/stops\n")
    tree.app("probe", """
        local M = {}
        function M.main()
          local path = dom0:Get("app.path.work") .. "/life"
          local f = assert(io.open(path, "a")); f:write("main\\n"); f:close()
          local count = 0; for _ in io.lines(path) do count = count + 1 end
          return count < 4 and 3 or 0
        end
        return M""")
    begin = time.monotonic()
    check_silent(tree.run("--background", name="probe"))
    wait_until(lambda: life(tree) == ["main"] * 4, what="fourth main")
    assert 7 <= time.monotonic() - begin < 60
    tree.stop(tree.pid_file("probe"))
    with open("/run/stops") as file:
        assert len(file.readlines()) == 3
    check_log(tree, exited(3), STOPPED, delayed(1), exited(3), STOPPED, delayed(2), exited(3), STOPPED, delayed(3), CAUGHT, ENDED)
