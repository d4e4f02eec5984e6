"""Exit code 3 of the child stops the kernel driver through its script, whatever that script does, and restarts the child."""
import os
import signal
import time

import pytest

from agents import LIFE, life, records
from conftest import alive, children, send_signal, wait_until

pytestmark = pytest.mark.sandbox
SCRIPT = "/opt/vx_agent/SunOS.init"

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
return M
"""


def script(text, mode=0o755):
    os.makedirs(os.path.dirname(SCRIPT), exist_ok=True)
    with open(SCRIPT, "w") as file:
        file.write(text)
    os.chmod(SCRIPT, mode)


def run_twice(tree):
    tree.app("probe", ONCE)
    assert tree.run("--background", name="probe").status == 0
    wait_until(lambda: life(tree) == ["main", "main"], what="second main")
    supervisor = tree.pid_file("probe")
    tree.stop(supervisor)
    lines = records(tree.log("probe"))
    assert ("INFO", "Child process exited with status 768 (exit 3)") in lines
    assert ("INFO", "Delaying 1000ms before restart 1") in lines
    return [line for line in lines if "river" in line[1] or "SunOS" in line[1]]


def test_without_a_script_nothing_is_run_or_logged(tree):
    assert run_twice(tree) == []


def test_a_script_that_is_not_executable_is_not_run(tree):
    script("#!/bin/sh\ntouch /run/ran\n", 0o644)
    assert run_twice(tree) == []
    assert not os.path.exists("/run/ran")


def test_the_script_gets_the_command_and_is_told(tree):
    script("#!/bin/sh\necho \"$@\" > /run/ran\n")
    assert run_twice(tree) == [("MESSAGE", f"Driver stopped using {SCRIPT}")]
    with open("/run/ran") as file:
        assert file.read() == "stopmod\n"


@pytest.mark.parametrize("body,said", [("exit 5", "5"), ("kill -USR2 $$", ""), ("head -c 1048576 /dev/zero; exit 1", "1")])
def test_a_script_that_ran_counts_as_stopped_whatever_its_code(tree, body, said):
    script(f"#!/bin/sh\n{body}\n")
    lines = run_twice(tree)
    assert lines[-1] == ("MESSAGE", f"Driver stopped using {SCRIPT}")
    assert len(lines) == 2 and lines[0][0] == "WARNING" and SCRIPT in lines[0][1] and said in lines[0][1]


def test_a_script_that_cannot_be_started_is_an_error_with_the_reason(tree):
    script("#!/no/such/interpreter\n")
    lines = run_twice(tree)
    assert len(lines) == 1 and lines[0][0] == "ERROR" and lines[0][1].startswith("Error stopping driver: "), lines
    assert len(lines[0][1]) > len("Error stopping driver: ")


def test_a_stop_while_the_script_hangs_ends_the_supervisor_at_once(tree):
    script("#!/bin/sh\ntouch /run/hangs\nsleep 20\n")
    tree.app("probe", ONCE)
    assert tree.run("--background", name="probe").status == 0
    supervisor = wait_until(lambda: tree.pid_file("probe"), what="pid file")
    wait_until(lambda: os.path.exists("/run/hangs"), what="script")
    begin = time.monotonic()
    send_signal(supervisor, signal.SIGTERM)
    wait_until(lambda: not alive(supervisor), what="end of the supervisor")
    assert time.monotonic() - begin < 5
    assert life(tree) == ["main"]
    assert not os.path.exists("/var/run/probe.pid")
