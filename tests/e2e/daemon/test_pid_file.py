"""What may lie where the pid file should: each is tolerated or refused as documented, and none hangs or hurts a stranger."""
import os
import subprocess
import sys
import time

import pytest

from agents import LIFE, life, records
from conftest import alive, children, send_signal, wait_until

pytestmark = pytest.mark.sandbox
FILE = "/var/run/probe.pid"


def start_over(tree):
    supervisor, child = tree.background(name="probe")
    wait_until(lambda: "main" in life(tree), what="main")
    tree.stop(supervisor)
    return records(tree.log("probe"))


CONTENTS = {"missing": None, "empty": b"", "rubbish": b"rubbish\n", "negative": b"-1\n", "huge": b"99999999999999999999\n", "zero": b"0\n",
            "a megabyte": b"1" * 1048576, "pid 1": b"1\n", "own text": b"\0\0\0", "out of range": b"4294967298\n"}


@pytest.mark.parametrize("what", CONTENTS)
def test_a_file_without_a_usable_pid_means_nobody(tree, what):
    tree.app("probe", LIFE)
    if CONTENTS[what] is not None:
        with open(FILE, "wb") as file:
            file.write(CONTENTS[what])
    lines = start_over(tree)
    assert not [line for line in lines if "present" in line[1]]


def test_a_dead_pid_is_told_and_tolerated(tree):
    tree.app("probe", LIFE)
    ended = subprocess.Popen(["true"])
    ended.wait()
    with open(FILE, "w") as file:
        file.write(f"{ended.pid}\n")
    assert ("INFO", f"{FILE} present (pid={ended.pid}), but doesn't seem to be running.") in start_over(tree)


def test_a_live_process_refuses_the_start_and_is_left_alone(tree):
    tree.app("probe", LIFE)
    other = subprocess.Popen(["sleep", "60"])
    try:
        with open(FILE, "w") as file:
            file.write(f"{other.pid}\n")
        result = tree.run("--background", name="probe")
        assert result.status == 1
        assert records(result.log) == [("ERROR", f"{FILE} present, exiting")]
        assert other.poll() is None and life(tree) == []
    finally:
        other.kill()
        other.wait()


def test_a_pid_that_was_reused_means_nobody(tree):
    tree.app("probe", LIFE)
    other = subprocess.Popen(["sleep", "60"])
    try:
        with open(FILE, "w") as file:
            file.write(f"{other.pid}\n1\n")  # a start time that is not this process's
        assert not [line for line in start_over(tree) if "present" in line[1]]
        assert other.poll() is None
    finally:
        other.kill()
        other.wait()


@pytest.mark.parametrize("kind", ["folder", "fifo", "link to nothing", "link to a pid file"])
def test_what_is_no_plain_file_never_hangs_the_start(tree, kind):
    tree.app("probe", LIFE)
    if kind == "folder":
        os.mkdir(FILE)
    elif kind == "fifo":
        os.mkfifo(FILE)
    else:
        os.symlink("/run/elsewhere", FILE)
        if kind == "link to a pid file":
            with open("/run/elsewhere", "w") as file:
                file.write(f"{os.getpid()}\n")
    process = tree.start("--background", name="probe")
    status = process.wait(timeout=30)
    assert status in (0, 1)
    if status == 0:
        wait_until(lambda: "main" in life(tree), what="main")
        end_agents(tree)


def agents(tree):
    found = []
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            try:
                if os.readlink(f"/proc/{entry}/exe").startswith(tree.path) and alive(int(entry)):
                    found.append(int(entry))
            except OSError:
                pass
    return found


def parents(tree):
    running = agents(tree)
    return [pid for pid in running if any(child in running for child in children(pid))]


def end_agents(tree):
    import signal
    for pid in parents(tree):
        send_signal(pid, signal.SIGTERM)
    wait_until(lambda: not agents(tree), what="end of all")


def test_a_second_start_is_refused_while_the_first_runs(tree):
    tree.app("probe", LIFE)
    supervisor, _ = tree.background(name="probe")
    wait_until(lambda: "main" in life(tree), what="main")
    result = tree.run("--background", name="probe")
    assert result.status == 1
    assert ("ERROR", f"{FILE} present, exiting") in records(result.log)
    assert tree.pid_file("probe") == supervisor
    tree.stop(supervisor)


def test_fifty_starts_at_once_leave_exactly_one_agent(tree):
    tree.app("probe", LIFE)
    processes = [tree.start("--background", name="probe") for _ in range(50)]
    statuses = [process.wait(timeout=120) for process in processes]
    assert set(statuses) <= {0, 1} and statuses.count(0) == 1, statuses
    wait_until(lambda: life(tree) == ["init", "main"], what="one main")
    time.sleep(0.5)
    assert len(parents(tree)) == 1 and len(agents(tree)) == 2
    assert tree.pid_file("probe") == parents(tree)[0]
    refused = [line for line in records(tree.log("probe")) if line[1] == f"{FILE} present, exiting"]
    assert len(refused) == 49
    end_agents(tree)
    assert life(tree) == ["init", "main", "shutdown"]


def test_starts_while_another_stops_leave_at_most_one_agent(tree):
    tree.app("probe", LIFE)
    for _ in range(5):
        supervisor, _ = tree.background(name="probe")
        import signal
        send_signal(supervisor, signal.SIGTERM)
        starts = [tree.start("--background", name="probe") for _ in range(4)]
        assert {start.wait(timeout=60) for start in starts} <= {0, 1}
        time.sleep(0.5)
        assert len(parents(tree)) <= 1
        end_agents(tree)


def test_an_unwritable_folder_is_an_error_line_and_the_agent_runs(tree):
    from conftest import mount_tmpfs, unmount
    tree.app("probe", LIFE)
    unmount("/run")
    mount_tmpfs("/run", b"ro")
    process = tree.start("--background", name="probe")
    assert process.wait(timeout=30) == 0
    wait_until(lambda: "main" in life(tree), what="main")
    assert [line for line in records(tree.log("probe")) if line[0] == "ERROR"]
    end_agents(tree)
    assert life(tree)[-1] == "shutdown"
