"""What may lie where the pid file should: each is tolerated or refused as documented, and none hangs or hurts a stranger."""
import os
import signal
import subprocess
import time

import pytest

from agents import (CAUGHT, ENDED, LIFE, PID_FILE, REFUSED, check_log, check_silent, life, records, stale, still_ending,
                    uninterrupted)
from conftest import ORDINARY_USER, alive, children, mount_tmpfs, send_signal, unmount, wait_until

pytestmark = pytest.mark.sandbox


def start_over(tree, *said):
    """A whole life, which logs `said` before anything else."""
    supervisor, _ = tree.background(name="probe")
    wait_until(lambda: "main" in life(tree), what="main")
    tree.stop(supervisor)
    assert life(tree) == ["init", "main", "shutdown"] and not os.path.exists(PID_FILE)
    check_log(tree, *said, CAUGHT, ENDED)


def check_refused(tree, **options):
    check_silent(tree.run("--background", name="probe", **options), 1)
    check_log(tree, REFUSED, stops=0)
    assert life(tree) == []


def write_pid_file(content):
    with open(PID_FILE, "wb") as file:
        file.write(content if isinstance(content, bytes) else content.encode())


CONTENTS = {"missing": None, "empty": b"", "rubbish": b"rubbish\n", "negative": b"-1\n", "huge": b"99999999999999999999\n", "zero": b"0\n",
            "a megabyte": b"1" * 1048576, "pid 1": b"1\n", "zero bytes": b"\0\0\0", "out of range": b"4294967298\n"}


@pytest.mark.any_user
@pytest.mark.parametrize("what", CONTENTS)
def test_a_file_without_a_usable_pid_means_nobody(tree, what):
    tree.app("probe", LIFE)
    if CONTENTS[what] is not None:
        write_pid_file(CONTENTS[what])
    start_over(tree)


@pytest.mark.any_user(always=True)
def test_a_dead_pid_is_told_and_tolerated(tree):
    tree.app("probe", LIFE)
    ended = subprocess.Popen(["true"])
    ended.wait()
    write_pid_file(f"{ended.pid}\n")
    start_over(tree, stale(ended.pid))


@pytest.fixture
def stranger():
    """A live process of the root user; whoever the agent is must leave it alone."""
    process = subprocess.Popen(["sleep", "600"])
    yield process.pid
    untouched = process.poll() is None
    process.kill()
    process.wait()
    assert untouched


# The ordinary user may not signal it, which says as well that it lives.
@pytest.mark.any_user(always=True)
def test_a_live_process_refuses_the_start_and_is_left_alone(tree, stranger):
    tree.app("probe", LIFE)
    write_pid_file(f"{stranger}\n")
    check_refused(tree)
    assert tree.pid_file("probe") == stranger


@pytest.mark.any_user
def test_a_pid_that_was_reused_means_nobody(tree, stranger):
    tree.app("probe", LIFE)
    write_pid_file(f"{stranger}\n1\n")  # a start time that is not this process's
    start_over(tree)


def test_its_own_pid_without_a_start_time_refuses_the_start(tree):
    tree.app("probe", LIFE)
    check_refused(tree, prefix=["/bin/sh", "-c", f'echo $$ > {PID_FILE}; exec "$0" "$@"'])


def test_its_own_pid_of_another_time_means_nobody(tree):
    tree.app("probe", LIFE)
    executable = os.path.join(tree.path, "probe")
    check_silent(tree.run("-c", f'printf "%d\\n1\\n" $$ > {PID_FILE}; exec "$0" --background', executable, executable="/bin/sh",
                          name="probe"))
    supervisor = wait_until(lambda: tree.supervisor("probe"), what="pid file")
    wait_until(lambda: "main" in life(tree), what="main")
    tree.stop(supervisor)
    check_log(tree, CAUGHT, ENDED)


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
    for pid in parents(tree):
        send_signal(pid, signal.SIGTERM)
    wait_until(lambda: not agents(tree), what="end of all")


def live_without_a_file(tree, *said):
    """A life that only the list of processes tells of."""
    check_silent(tree.run("--background", name="probe"))
    wait_until(lambda: "main" in life(tree), what="main")
    end_agents(tree)
    assert life(tree) == ["init", "main", "shutdown"]
    check_log(tree, *said, CAUGHT, ENDED)


def unwritable(reason):
    return ("ERROR", f"Unable to write the pid file '{PID_FILE}' ({reason})")


def unlockable(reason):
    return ("WARNING", f"{PID_FILE}.lock can't be locked ({reason}), so a second start at the same moment with another work folder "
            "would go unnoticed.")


def in_use(tree, pid):
    return ("ERROR", f"The work folder {tree.work} is in use by another agent of this name (pid={pid}), exiting")


def check_one_alone(tree, *said):
    """The next start is refused although nothing beside the run folder tells of the first one, which stops in order."""
    check_silent(tree.run("--background", name="probe"))
    wait_until(lambda: "main" in life(tree), what="main")
    supervisor, = parents(tree)
    check_silent(tree.run("--background", name="probe"), 1)
    assert parents(tree) == [supervisor] and life(tree) == ["init", "main"]
    end_agents(tree)
    assert life(tree) == ["init", "main", "shutdown"]
    check_log(tree, *said, in_use(tree, supervisor), CAUGHT, ENDED)


@pytest.mark.any_user
def test_a_folder_in_its_place_is_an_error_line_and_the_agent_runs(tree):
    tree.app("probe", LIFE)
    os.mkdir(PID_FILE)
    live_without_a_file(tree, unwritable("error 21: Is a directory"))
    assert sorted(os.listdir("/run")) == ["probe.pid", "probe.pid.lock"] and os.listdir(PID_FILE) == []


@pytest.mark.any_user
@pytest.mark.parametrize("kind", ["fifo", "link to nothing", "link to a dead pid's file"])
def test_what_is_no_plain_file_is_replaced_and_never_hangs_the_start(tree, kind):
    tree.app("probe", LIFE)
    said = []
    if kind == "fifo":
        os.mkfifo(PID_FILE)
    else:
        os.symlink("/run/elsewhere", PID_FILE)
    if kind == "link to a dead pid's file":
        ended = subprocess.Popen(["true"])
        ended.wait()
        said = [stale(ended.pid)]
        with open("/run/elsewhere", "w") as file:
            file.write(f"{ended.pid}\n")
    start_over(tree, *said)
    # The link went, and what it led to was not touched.
    assert sorted(os.listdir("/run")) == (["elsewhere"] if said else []) + ["probe.pid.lock"]


def test_a_link_to_the_file_of_a_live_process_refuses_the_start(tree, stranger):
    tree.app("probe", LIFE)
    os.symlink("/run/elsewhere", PID_FILE)
    with open("/run/elsewhere", "w") as file:
        file.write(f"{stranger}\n")
    check_refused(tree)
    assert os.readlink(PID_FILE) == "/run/elsewhere"


@pytest.mark.any_user
def test_a_second_start_is_refused_while_the_first_runs(tree):
    tree.app("probe", LIFE)
    supervisor, _ = tree.background(name="probe")
    wait_until(lambda: "main" in life(tree), what="main")
    check_silent(tree.run("--background", name="probe"), 1)
    assert tree.pid_file("probe") == supervisor
    tree.stop(supervisor)
    check_log(tree, REFUSED, CAUGHT, ENDED)


def start_many(tree, count):
    """The statuses of so many starts at the same time, none of which says a word."""
    started = [tree.start("--background", name="probe", stdout=subprocess.PIPE, stderr=subprocess.STDOUT) for _ in range(count)]
    assert [process.communicate(timeout=120)[0] for process in started] == [b""] * count
    return [process.returncode for process in started]


@pytest.mark.any_user
def test_fifty_starts_at_once_leave_exactly_one_agent(tree):
    tree.app("probe", LIFE)
    statuses = start_many(tree, 50)
    assert sorted(statuses) == [0] + [1] * 49
    wait_until(lambda: life(tree) == ["init", "main"], what="one main")
    time.sleep(0.5)
    assert len(parents(tree)) == 1 and len(agents(tree)) == 2
    assert tree.pid_file("probe") == parents(tree)[0]
    end_agents(tree)
    assert life(tree) == ["init", "main", "shutdown"]
    check_log(tree, *[REFUSED] * 49, CAUGHT, ENDED)


def test_starts_while_another_stops_leave_at_most_one_agent(tree):
    tree.app("probe", LIFE)
    ran, refused = 0, 0
    for _ in range(5):
        supervisor, _ = tree.background(name="probe")
        send_signal(supervisor, signal.SIGTERM)
        statuses = start_many(tree, 4)
        assert set(statuses) <= {0, 1} and statuses.count(0) <= 1
        ran += 1 + statuses.count(0)
        refused += statuses.count(1)
        wait_until(lambda: life(tree).count("main") == ran, what="main of whoever runs")
        # Another stop would cut short what the first one began.
        wait_until(lambda: len(parents(tree)) == statuses.count(0), what="end of the stopped one")
        end_agents(tree)
        assert life(tree).count("shutdown") == ran
    lines = uninterrupted(records(tree.log("probe")), stops=10)
    assert (lines.count(CAUGHT), lines.count(ENDED), lines.count(REFUSED)) == (ran, ran, refused)
    # A new supervisor may meet the file of the old one, and the old one's child.
    others = [line for line in lines if line not in (CAUGHT, ENDED, REFUSED)]
    words = [(stale(0)[1].split("pid=")[0], stale(0)[1].split("pid=0")[1]),
             (still_ending(0)[1].split("pid=")[0], still_ending(0)[1].split("pid=0")[1])]
    assert all(level == "INFO" and any(text.startswith(begin) and text.endswith(end) for begin, end in words)
               for level, text in others), others


def test_a_folder_on_a_read_only_disk_is_told_and_the_agent_runs(tree):
    tree.app("probe", LIFE)
    unmount("/run")
    mount_tmpfs("/run", b"ro")
    live_without_a_file(tree, unlockable("Read-only file system"), unwritable("error 30: Read-only file system"))


@pytest.mark.parametrize("tree", [pytest.param(ORDINARY_USER, id="ordinary user")], indirect=True)
def test_a_folder_without_the_right_to_write_is_told_and_one_agent_runs(tree):
    tree.app("probe", LIFE)
    os.chown("/run", 0, 0)
    check_one_alone(tree, unlockable("Permission denied"), unwritable("error 13: Permission denied"))


def test_fifty_starts_at_once_without_a_run_folder_leave_exactly_one_agent(tree):
    tree.app("probe", LIFE)
    unmount("/run")
    mount_tmpfs("/run", b"ro")
    assert sorted(start_many(tree, 50)) == [0] + [1] * 49
    wait_until(lambda: life(tree) == ["init", "main"], what="one main")
    assert len(parents(tree)) == 1 and len(agents(tree)) == 2
    end_agents(tree)
    assert life(tree) == ["init", "main", "shutdown"]
