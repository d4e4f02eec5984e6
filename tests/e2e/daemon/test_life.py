"""The life of supervisor and child: what they are, how they stop, and what is left behind."""
import ast
import os
import re
import signal
import subprocess
import time

import pytest

from agents import CAUGHT, ENDED, LIFE, life, records
from conftest import BUILD, FULL, SANITIZED, alive, children, send_signal, switches, wait_until

pytestmark = pytest.mark.sandbox


def status_of(pid):
    with open(f"/proc/{pid}/status") as file:
        return dict(line.rstrip("\n").split(":\t", 1) for line in file if ":\t" in line)


def stat_of(pid):
    with open(f"/proc/{pid}/stat") as file:
        return file.read().rpartition(")")[2].split()


@pytest.mark.fast
@pytest.mark.parametrize("name", ["probe", "vx_agent"])
def test_it_starts_in_the_background_and_stops_in_order(tree, name):
    arguments = []
    if name == "vx_agent":
        tree.file("override/vx_agent.lua", LIFE)
        arguments = ["--lua_path", tree.path + "/override/?.lua"]
    else:
        tree.app(name, LIFE)
    supervisor, child = tree.background(*arguments, name=name)
    wait_until(lambda: life(tree) == ["init", "main"], what="main")
    tree.stop(supervisor)
    assert life(tree) == ["init", "main", "shutdown"]
    assert not alive(child)
    assert not os.path.exists(f"/var/run/{name}.pid")
    lines = records(tree.log(name))
    if name == "vx_agent":
        assert lines.pop(0) == ("INFO", "VEX 10.0.0.4015 starting.")
        level, banner = lines.pop()
        assert level == "INFO" and banner.startswith("VEX 10.0.0.4015 exiting. Run time was 0d 00:00:0")
    assert lines == [CAUGHT, ENDED]


def test_the_supervisor_is_what_the_documents_say(tree):
    tree.app("probe", LIFE)
    supervisor, child = tree.background(name="probe")
    fields = stat_of(supervisor)
    parent, group, session, terminal = int(fields[1]), int(fields[2]), int(fields[3]), int(fields[4])
    assert session not in (supervisor, os.getsid(0)) and group == session and terminal == 0
    wait_until(lambda: not os.path.exists(f"/proc/{session}"), what="end of the first child")
    assert os.readlink(f"/proc/{supervisor}/cwd") == tree.work
    for descriptor in (0, 1, 2):
        assert os.readlink(f"/proc/{supervisor}/fd/{descriptor}") == "/dev/null"
    assert tree.pid_file("probe") == supervisor
    assert children(supervisor) == [child]
    assert status_of(supervisor)["Threads"] == "1"
    opened = [os.readlink(f"/proc/{supervisor}/fd/{fd}") for fd in os.listdir(f"/proc/{supervisor}/fd")]
    assert not [name for name in opened if name.endswith(".db") or "-journal" in name or "-wal" in name]
    assert int(stat_of(child)[3]) == session
    tree.stop(supervisor)


@pytest.mark.skipif(SANITIZED, reason="a sanitizer has memory and threads of its own")
def test_supervisor_and_child_do_nothing_while_nothing_happens(tree):
    tree.app("probe", "return { main = function() return 0 end }")
    supervisor, child = tree.background(name="probe")
    time.sleep(2)
    seconds = 60 if FULL else 8
    before = switches(supervisor), switches(child)
    time.sleep(seconds)
    assert (switches(supervisor), switches(child)) == before
    tree.stop(supervisor)


@pytest.mark.skipif(SANITIZED, reason="a sanitizer has memory and threads of its own")
def test_the_supervisor_needs_at_most_two_mebibytes_more_than_an_empty_wx_program(tree):
    tree.app("probe", LIFE)
    supervisor, _ = tree.background(name="probe")
    empty = subprocess.Popen([os.path.join(BUILD, "tests", "emptywx")], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    empty.stdout.readline()

    def private(pid):
        with open(f"/proc/{pid}/smaps_rollup") as file:
            return sum(int(line.split()[1]) for line in file if line.startswith("Private_"))
    time.sleep(1)
    ours, theirs = private(supervisor), private(empty.pid)
    empty.kill()
    empty.wait()
    tree.stop(supervisor)
    print(f"private: supervisor {ours} KiB, empty wx program {theirs} KiB")
    assert ours - theirs <= 2048


@pytest.mark.parametrize("step,expected", [("INIT", ["init"]), ("MAIN", ["init", "main"])])
@pytest.mark.parametrize("status", [1, 5, 255])
def test_a_status_of_the_child_ends_the_supervisor_with_it(tree, step, expected, status):
    tree.app("probe", LIFE)
    # The supervisor's own status is seen by the process that adopts it: here a subreaper.
    code = run_adopted(tree, [], {f"VEX_TEST_{step}": str(status)})
    assert code == status
    assert life(tree) == expected
    assert not os.path.exists("/var/run/probe.pid")
    assert records(tree.log("probe")) == [("INFO", f"Child process exited with status {status << 8} (exit {status})")]


def run_adopted(tree, arguments, env=None, action=None, name="probe"):
    """Starts in the background below a subreaper that waits for the orphaned supervisor; returns its wait status."""
    script = """
import ctypes, os, sys
ctypes.CDLL(None).prctl(36, 1, 0, 0, 0)
child = os.spawnv(os.P_NOWAIT, sys.argv[1], sys.argv[1:])
status = {}
while True:
    try:
        pid, code = os.wait()
    except ChildProcessError:
        break
    status[pid] = os.waitstatus_to_exitcode(code)
print(repr(status))
"""
    reaper = subprocess.Popen(["/usr/bin/python3", "-c", script, os.path.join(tree.path, name), "--background", *arguments],
                              env=dict(os.environ, **(env or {})), stdout=subprocess.PIPE, text=True)
    tree._started.append(reaper)
    if action:
        supervisor = wait_until(lambda: tree.pid_file(name), what="pid file")
        action(supervisor)
    out, _ = reaper.communicate(timeout=150)
    statuses = ast.literal_eval(out.splitlines()[-1])
    # The supervisor has the last word in the log.
    supervisor = int(re.findall(r" \[(\d+)/main\] ", tree.log(name))[-1])
    return statuses[supervisor]


def test_a_stop_ends_the_supervisor_with_the_status_of_shutdown(tree):
    tree.app("probe", LIFE)

    def stop(supervisor):
        wait_until(lambda: "main" in life(tree), what="main")
        send_signal(supervisor, signal.SIGTERM)
    assert run_adopted(tree, [], {"VEX_TEST_SHUTDOWN": "4"}, stop) == 4
    assert life(tree)[-1] == "shutdown"


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGSEGV, signal.SIGABRT, signal.SIGILL, signal.SIGTRAP, signal.SIGFPE,
                                    signal.SIGBUS])
def test_a_child_killed_by_a_signal_is_reported_and_restarted_after_a_second(tree, number):
    tree.app("probe", LIFE)
    supervisor, child = tree.background(name="probe")
    wait_until(lambda: "main" in life(tree), what="main")
    send_signal(child, number)
    again = wait_until(lambda: [pid for pid in children(supervisor) if pid != child], what="the restarted child")[0]
    wait_until(lambda: life(tree).count("main") == 2, what="second main")
    assert again != child
    crashed = number in (signal.SIGILL, signal.SIGTRAP, signal.SIGABRT, signal.SIGSEGV)
    lines = records(tree.log("probe"))
    word = "crashed" if crashed else "exited"
    mine = [line for line in lines if line[1].startswith(f"Child process {word} with status ")]
    assert len(mine) == 1 and mine[0][0] == ("ERROR" if crashed else "INFO"), lines
    assert mine[0][1].endswith(f"(signal {int(number)}: {signal.strsignal(number)})")
    assert ("INFO", "Delaying 1000ms before restart 1") in lines
    tree.stop(supervisor)
    assert life(tree)[-1] == "shutdown"


def test_a_child_killed_by_sigterm_ends_the_supervisor_with_zero(tree):
    # A thread that does not block SIGTERM takes it at once; the default action, by contrast, needs an unhandled one.
    tree.app("probe", "return { init = function() return 0 end }")
    supervisor, child = tree.background(name="probe")
    time.sleep(0.5)
    send_signal(child, signal.SIGTERM)
    wait_until(lambda: not alive(supervisor), what="end of the supervisor")
    assert records(tree.log("probe"))[-1][1].startswith("Child process exited with status 0 (exit 0)")


@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGUSR1, signal.SIGINT, signal.SIGKILL])
def test_a_supervisor_that_dies_of_a_signal_takes_its_child_along_in_order(tree, number):
    tree.app("probe", LIFE)
    supervisor, child = tree.background(name="probe")
    wait_until(lambda: "main" in life(tree), what="main")
    send_signal(supervisor, number)
    wait_until(lambda: not alive(supervisor) and not alive(child), what="end of both")
    assert life(tree) == ["init", "main", "shutdown"]
    assert os.path.exists("/var/run/probe.pid")
    before = len(records(tree.log("probe")))
    again, _ = tree.background(name="probe")
    wait_until(lambda: life(tree).count("main") == 2, what="second main")
    assert again != supervisor
    stale = records(tree.log("probe"))[before:]
    assert [line for line in stale if "doesn't seem to be running" in line[1]] == [
        ("INFO", f"/var/run/probe.pid present (pid={supervisor}), but doesn't seem to be running.")]
    tree.stop(again)


SLOW = """
local M = {}
local function note(what)
  local f = assert(io.open(dom0:Get("app.path.work") .. "/life", "a")); f:write(what, "\\n"); f:close()
end
local function pause(name) note(name); if os.getenv("VEX_TEST_SLOW") == name then dom0:Wait("never", 2); note(name .. "-end") end return 0 end
function M.init() return pause("init") end
function M.main() return pause("main") end
function M.shutdown() return pause("shutdown") end
return M
"""


@pytest.mark.parametrize("step", ["init", "main"])
def test_a_stop_during_init_or_main_is_taken_after_main(tree, step):
    tree.app("probe", SLOW)
    supervisor, child = tree.background(name="probe", env={"VEX_TEST_SLOW": step})
    wait_until(lambda: step in life(tree), what=step)
    tree.stop(supervisor)
    expected = {"init": ["init", "init-end", "main", "shutdown"], "main": ["init", "main", "main-end", "shutdown"]}
    assert life(tree) == expected[step]
    assert not alive(child)


def test_a_second_stop_signal_at_the_child_cuts_shutdown_short(tree):
    tree.app("probe", SLOW)
    supervisor, child = tree.background(name="probe", env={"VEX_TEST_SLOW": "shutdown"})
    wait_until(lambda: "main" in life(tree), what="main")
    time.sleep(0.3)
    send_signal(child, signal.SIGTERM)
    wait_until(lambda: "shutdown" in life(tree), what="shutdown")
    send_signal(child, signal.SIGTERM)
    wait_until(lambda: not alive(supervisor), what="end of the supervisor")
    assert "shutdown-end" not in life(tree)
    assert records(tree.log("probe"))[-1] == ENDED


def test_a_later_stop_ends_the_supervisor_at_once_with_zero(tree):
    tree.app("probe", SLOW)

    def stop(supervisor):
        wait_until(lambda: "main" in life(tree), what="main")
        time.sleep(0.3)
        send_signal(supervisor, signal.SIGTERM)
        wait_until(lambda: "shutdown" in life(tree) or not alive(supervisor), what="shutdown")
        if alive(supervisor):
            send_signal(supervisor, signal.SIGTERM)
    begin = time.monotonic()
    assert run_adopted(tree, [], {"VEX_TEST_SLOW": "shutdown"}, stop) == 0
    assert time.monotonic() - begin < 20


def test_a_stop_during_a_delay_ends_the_supervisor_at_once_with_zero_and_no_child(tree):
    tree.app("probe", LIFE)

    def stop(supervisor):
        child = wait_until(lambda: children(supervisor), what="child")[0]
        wait_until(lambda: "main" in life(tree), what="main")
        send_signal(child, signal.SIGKILL)
        wait_until(lambda: "Delaying 1000ms" in tree.log("probe"), what="delay")
        send_signal(supervisor, signal.SIGTERM)
    assert run_adopted(tree, [], action=stop) == 0
    assert life(tree) == ["init", "main"]
    assert not os.path.exists("/var/run/probe.pid")


def test_a_thousand_stops_in_a_second_leave_nothing_behind(tree):
    tree.app("probe", LIFE)
    supervisor, child = tree.background(name="probe")
    wait_until(lambda: "main" in life(tree), what="main")
    for _ in range(1000):
        if not alive(supervisor):
            break
        send_signal(supervisor, signal.SIGTERM)
        time.sleep(0.0005)
    wait_until(lambda: not alive(supervisor) and not alive(child), what="end of both")
    assert not os.path.exists("/var/run/probe.pid")


@pytest.mark.slow
def test_eight_starts_in_the_span_are_the_limit(tree):
    """A child that dies at once is started at 0, 1, 3, 7, 15, 31, 63 and 127 seconds; the ninth start is refused."""
    tree.app("probe", "dom0:Wait('never', 0.1) os.execute('kill -KILL $PPID')")
    begin = time.monotonic()
    assert run_adopted(tree, []) == 255
    seconds = time.monotonic() - begin
    assert 125 < seconds < 150, seconds
    lines = records(tree.log("probe"))
    assert [line for line in lines if line[1].startswith("Delaying")] == [
        ("INFO", f"Delaying {1000 << n}ms before restart {n + 1}") for n in range(7)]
    assert lines[-1] == ("ERROR", "Too many restarts in too short of a time, exiting (8 restarts in less than 512 seconds)")
    assert len([line for line in lines if line[1].startswith("Child process exited with status 9 (signal 9: Killed)")]) == 8
    assert not os.path.exists("/var/run/probe.pid")
