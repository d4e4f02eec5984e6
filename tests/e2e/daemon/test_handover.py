"""From one instance to the next: what readers of the pid file see, and how a start treats what an earlier one left."""
import os
import re
import signal
import subprocess
import sys

import pytest

from agents import CAUGHT, ENDED, LIFE, check_log, check_silent, life, records, stale, still_ending, uninterrupted
from conftest import (FULL, PARENT_DIES_ONCE, SANITIZED, SANITIZER, TRACED, alive, children, mount_tmpfs, send_signal, unmount,
                      wait_until)

pytestmark = pytest.mark.sandbox
TRACEABLE = pytest.mark.skipif(SANITIZED, reason="a sanitizer opens and closes what it needs, and its thread is traced as well")
CYCLES = 1000 if FULL and not SANITIZED else 20
READERS = 2

# Prints each content that the file ever had, once; a missing file is none.
READER = """
import sys
seen = set()
print("ready", flush=True)
while True:
    try:
        with open(sys.argv[1], "rb") as file:
            content = file.read()
    except FileNotFoundError:
        continue
    if content not in seen:
        seen.add(content)
        print(content, flush=True)
"""

# Its shutdown takes until the test lets it go.
LINGERING = """
local M = {}
local function note(what)
  local f = assert(io.open(dom0:Get("app.path.work") .. "/life", "a")); f:write(what, "\\n"); f:close()
end
function M.init() note("init") return 0 end
function M.main() note("main") return 0 end
function M.shutdown()
  note("shutdown")
  while true do
    local f = io.open("/run/go"); if f then f:close() break end
    dom0:Wait("never", 0.05)
  end
  note("end")
  return 0
end
return M
"""


def test_readers_never_see_a_part_of_the_pid_file_over_many_starts_and_stops(tree):
    tree.app("probe", "return { main = function() return 0 end }")
    readers = [subprocess.Popen([sys.executable, "-c", READER, "/var/run/probe.pid"], stdout=subprocess.PIPE)
               for _ in range(READERS)]
    seen = []
    try:
        for reader in readers:
            assert reader.stdout.readline() == b"ready\n"
        for _ in range(CYCLES):
            check_silent(tree.run("--background", name="probe"))
            supervisor = wait_until(lambda: tree.supervisor("probe"), what="pid file")
            # A reader may miss a file that is there for a moment only.
            for reader in readers:
                seen.append(eval(reader.stdout.readline()))  # a bytes literal
                assert seen[-1].startswith(b"%d\n" % supervisor)
            tree.stop(supervisor)
            assert not os.path.exists("/var/run/probe.pid")
    finally:
        for reader in readers:
            reader.kill()
    seen += [eval(line) for reader in readers for line in reader.communicate()[0].splitlines()]
    assert len(seen) == CYCLES * READERS
    assert not [content for content in seen if not re.fullmatch(rb"\d+\n\d+\n", content)]
    check_log(tree, *[CAUGHT, ENDED] * CYCLES, stops=CYCLES)
    assert os.listdir("/var/run") == ["probe.pid.lock"]


def start_over_lingering(tree, supervisor, child):
    """Starts again while a child of the earlier start is in its shutdown; checks that the new one waits, and stops it."""
    wait_until(lambda: not alive(supervisor) and "shutdown" in life(tree), what="end of the supervisor alone")
    assert alive(child)
    check_silent(tree.run("--background", name="probe"))
    again = wait_until(lambda: tree.supervisor("probe"), what="the new supervisor")
    wait_until(lambda: still_ending(child)[1] in tree.log("probe"), what="the line about the old child")
    assert life(tree) == ["init", "main", "shutdown"] and alive(child) and again != supervisor
    open("/run/go", "w").close()
    wait_until(lambda: life(tree).count("main") == 2, what="the new child")
    tree.stop(again)
    assert life(tree) == ["init", "main", "shutdown", "end"] * 2
    assert not alive(child) and not os.path.exists("/var/run/probe.pid")


@PARENT_DIES_ONCE
@pytest.mark.any_user(always=True)
def test_a_start_waits_for_the_child_that_a_killed_supervisor_left(tree):
    tree.app("probe", LINGERING)
    supervisor, child = tree.background(name="probe")
    wait_until(lambda: "main" in life(tree), what="main")
    send_signal(supervisor, signal.SIGKILL)
    start_over_lingering(tree, supervisor, child)
    check_log(tree, CAUGHT, stale(supervisor), still_ending(child), CAUGHT, ENDED)


@pytest.mark.any_user
def test_a_start_while_an_agent_stops_is_not_refused_and_its_child_comes_after_the_old_one(tree):
    """A stopping supervisor has given its file and its lock up, and waits for its child; the new one waits for it too."""
    tree.app("probe", LINGERING)
    supervisor, child = tree.background(name="probe")
    wait_until(lambda: "main" in life(tree), what="main")
    send_signal(supervisor, signal.SIGTERM)
    wait_until(lambda: "shutdown" in life(tree), what="shutdown")
    check_silent(tree.run("--background", name="probe"))
    again = wait_until(lambda: tree.supervisor("probe"), what="the new supervisor")
    wait_until(lambda: still_ending(child)[1] in tree.log("probe"), what="the line about the old child")
    assert life(tree) == ["init", "main", "shutdown"] and alive(supervisor) and again != supervisor
    open("/run/go", "w").close()
    wait_until(lambda: not alive(supervisor) and life(tree).count("main") == 2, what="the new child")
    # The old supervisor's end leaves the new one's file alone.
    assert tree.pid_file("probe") == again
    tree.stop(again)
    assert life(tree) == ["init", "main", "shutdown", "end"] * 2
    # The old supervisor tells of its child's end while the new one starts its own.
    lines = uninterrupted(records(tree.log("probe")), stops=2)
    assert sorted(lines) == sorted([CAUGHT, still_ending(child), ENDED, CAUGHT, ENDED])


@pytest.mark.any_user
@pytest.mark.skipif(SANITIZER == "thread", reason="the sanitizer puts a handler off to the end of the process's next call that it "
                    "knows, and the wait for a lock is none")
def test_a_stop_while_a_start_waits_for_an_old_child_ends_it_at_once(tree):
    tree.app("probe", LINGERING)
    supervisor, child = tree.background(name="probe")
    wait_until(lambda: "main" in life(tree), what="main")
    send_signal(supervisor, signal.SIGKILL)
    wait_until(lambda: not alive(supervisor) and "shutdown" in life(tree), what="shutdown")
    check_silent(tree.run("--background", name="probe"))
    again = wait_until(lambda: tree.supervisor("probe"), what="the new supervisor")
    wait_until(lambda: still_ending(child)[1] in tree.log("probe"), what="the line about the old child")
    tree.stop(again)
    assert alive(child) and not os.path.exists("/var/run/probe.pid")
    open("/run/go", "w").close()
    wait_until(lambda: not alive(child), what="end of the old child")
    assert life(tree) == ["init", "main", "shutdown", "end"]
    check_log(tree, CAUGHT, stale(supervisor), still_ending(child), stops=0)


@PARENT_DIES_ONCE
def test_a_start_without_a_run_folder_waits_for_an_old_child_too(tree):
    tree.app("probe", LINGERING)
    supervisor, child = tree.background(name="probe")
    wait_until(lambda: "main" in life(tree), what="main")
    send_signal(supervisor, signal.SIGKILL)
    wait_until(lambda: not alive(supervisor) and "shutdown" in life(tree), what="shutdown")
    unmount("/run")
    mount_tmpfs("/run", b"ro")
    check_silent(tree.run("--background", name="probe"))
    wait_until(lambda: still_ending(child)[1] in tree.log("probe"), what="the line about the old child")
    assert life(tree) == ["init", "main", "shutdown"]
    unmount("/run")
    mount_tmpfs("/run")
    open("/run/go", "w").close()
    wait_until(lambda: life(tree).count("main") == 2, what="the new child")
    again, = [int(entry) for entry in os.listdir("/proc") if entry.isdigit() and agent_with_child(tree, int(entry))]
    tree.stop(again)
    assert life(tree) == ["init", "main", "shutdown", "end"] * 2


def agent_with_child(tree, pid):
    try:
        return os.readlink(f"/proc/{pid}/exe").startswith(tree.path) and bool(children(pid))
    except OSError:
        return False


# Starts an agent; what its processes do with descriptors goes to the file. The tracer ends with the last of them.
def start_traced(tree, *inject):
    command = ["strace", "-f", "-qq", "-o", tree.file("trace", ""), "-e", "trace=open,openat,close,fcntl,dup2,dup3,close_range", *inject,
               os.path.join(tree.path, "probe"), "--background"]
    tracer = subprocess.Popen(command, stdin=subprocess.DEVNULL, env=dict(os.environ, **TRACED))
    tree._started.append(tracer)
    return tracer, wait_until(lambda: tree.supervisor("probe"), what="pid file")


def whole_calls(lines):
    """The lines of a trace, where a call that another process's came between is one again, in the place of its end."""
    begun = {}
    for line in lines:
        pid, _, call = line.partition(" ")
        resumed = re.match(r"\s*<\.\.\. \w+ resumed>", call)
        if call.endswith(" <unfinished ...>\n"):
            begun[pid] = line.removesuffix(" <unfinished ...>\n")
        else:
            yield begun.pop(pid) + call[resumed.end():] if resumed else line


@TRACEABLE
def test_lock_files_are_opened_once_and_never_closed(tree):
    """A process that closes any descriptor of them loses its locks."""
    tree.app("probe", LIFE)
    tracer, supervisor = start_traced(tree)
    wait_until(lambda: "main" in life(tree), what="main")
    tree.stop(supervisor)
    tracer.wait()
    with open(tree.file("trace")) as file:
        lines = list(whole_calls(file))
    opened = [line for line in lines if re.search(r"open(at)?\(.*probe\.pid\.lock", line)]
    assert len(opened) == 2 and all(" O_RDWR|O_CREAT" in line for line in opened), opened
    descriptors = {line.rsplit("= ", 1)[1].strip() for line in opened}
    assert len(descriptors) == 2 and min(map(int, descriptors)) > 2
    locked = [line for line in lines if "F_SETLK" in line and "fcntl(" in line]
    assert {re.search(r"fcntl\((\d+)", line).group(1) for line in locked} >= descriptors
    # From there on, in whatever process.
    later = lines[lines.index(opened[-1]) + 1:]
    assert not [line for line in later if re.search(rf"\b(close|dup2|dup3)\((\d+, )?({'|'.join(descriptors)})[,)]", line)
                or ("close_range(" in line and "CLOEXEC" not in line)]


@TRACEABLE
@PARENT_DIES_ONCE
def test_a_stop_before_the_child_has_its_lock_waits_for_it_and_leaves_no_child_that_runs_later(tree):
    tree.app("probe", LIFE)
    tracer, supervisor = start_traced(tree, "-e", "inject=fcntl:delay_enter=4000000:when=1")
    child = wait_until(lambda: children(supervisor), what="child")[0]
    send_signal(supervisor, signal.SIGTERM)
    # The child's first look for its lock takes its time, and nobody can come in between.
    check_silent(tree.run("--background", name="probe"), 1)
    wait_until(lambda: not alive(supervisor) and not alive(child), what="the end of both")
    tracer.wait()
    assert life(tree) == ["init", "main", "shutdown"] and not os.path.exists("/var/run/probe.pid")
    check_log(tree, ("ERROR", "/var/run/probe.pid present, exiting"), CAUGHT, ENDED)
