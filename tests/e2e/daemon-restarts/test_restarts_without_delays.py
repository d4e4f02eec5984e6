"""Thousands of restarts whose delays are cut: the supervisor's descriptors, memory and pid file stay what they were.

The supervisor alone, whose children end before they run anything, shows that nothing is lost a restart, neither around a fork
nor around a run of the driver's script: 500 restarts by default, 10,000 with VEX_FULL=1. The whole agent, with a Lua application a
child and readers of its pid file, shows the same with everything that a child brings: 100 by default, 1,000 with VEX_FULL=1.
"""
import os
import signal
import subprocess
import sys
import threading

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "daemon"))
from agents import ENDED, delayed, exited, killed, records, uninterrupted
from conftest import BUILD, FULL, PATIENCE, SANITIZED, alive, send_signal, wait_until

pytestmark = [pytest.mark.sandbox, pytest.mark.skipif(SANITIZED, reason="a sanitizer has memory of its own, and takes no preload")]
RESTARTS = os.environ.get("VEX_RESTARTS", os.path.join(BUILD, "tests", "restarts"))
COUNT = 10000 if FULL else 500
WHOLE_COUNT = 1000 if FULL else 100
LIMIT = 400  # seconds; far above what is needed, so that a loaded machine passes
SCRIPT = "/opt/vx_agent/SunOS.init"


def pid(name):
    try:
        with open(f"/var/run/{name}.pid") as file:
            return int(file.readline())
    except FileNotFoundError:
        return 0


@pytest.mark.parametrize("script", [False, True], ids=["without a driver script", "with a driver script"])
def test_descriptors_and_memory_of_the_supervisor_are_the_same_after_all_restarts(tmp_path, script):
    if script:
        os.makedirs(os.path.dirname(SCRIPT))
        with open(SCRIPT, "w") as file:
            file.write("#!/bin/sh\necho >> /run/stops\n")
        os.chmod(SCRIPT, 0o755)
    report = tmp_path / "report"
    started = subprocess.run([RESTARTS, str(COUNT), str(report), str(tmp_path)], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                             stderr=subprocess.STDOUT, timeout=PATIENCE, check=True)
    assert started.stdout == b""
    try:
        wait_until(lambda: report.exists() and len(report.read_text().splitlines()) == 2, seconds=LIMIT, what="the last restart")
        wait_until(lambda: not pid("restarts"), what="end of the supervisor")
    finally:
        if pid("restarts"):
            send_signal(pid("restarts"), signal.SIGTERM)
    warm, end = ([int(word) for word in line.split()] for line in report.read_text().splitlines())
    print(f"restarts, descriptors, mapped KiB, anonymous KiB: {warm} {end}")
    assert end[0] == COUNT
    assert end[1] == warm[1]
    # One page a hundred restarts would already be far above that.
    assert end[2] <= warm[2] + 64 and end[3] <= warm[3] + 64
    stops = (COUNT - 1) // 50
    if script:
        with open("/run/stops") as file:
            assert len(file.readlines()) == stops
    # One line a child, and one a run of the script.
    driver = [("MESSAGE", f"Driver stopped using {SCRIPT}")] * script
    lines = []
    for number in range(1, COUNT):
        lines += [exited(3)] + driver if number % 50 == 0 else [killed(9)]
    assert records((tmp_path / "restarts.log").read_text()) == lines + [ENDED]


# The child ends by a signal, as soon as it has counted itself. A stop goes to the program that kills it as well.
DIES = """
local f = assert(io.open(dom0:Get("app.path.work") .. "/count", "a")); f:write("."); f:close()
while true do os.execute("kill -KILL $PPID") end
"""


def anonymous_kib(process):
    """Resident memory that belongs to no file: how much of the files is resident is the system's business, and the private part alone
    depends on whether a child shares it at the moment."""
    with open(f"/proc/{process}/smaps_rollup") as file:
        return sum(int(line.split()[1]) for line in file if line.startswith("Anonymous:"))


def descriptors(process):
    """Those that the supervisor has while its child runs: around a fork it has a pipe as well."""
    def at_rest():
        try:
            found = sorted(os.readlink(f"/proc/{process}/fd/{fd}") for fd in os.listdir(f"/proc/{process}/fd"))
        except FileNotFoundError:  # closed meanwhile
            return None
        return None if any(name.startswith("pipe:") for name in found) else found
    return wait_until(at_rest, what="a supervisor without a pipe")


@pytest.mark.quick
@pytest.mark.slow
def test_the_supervisor_of_a_whole_agent_stays_as_it_is_and_its_pid_file_whole(tree, preload):
    def count():
        path = os.path.join(tree.work, "count")
        return os.path.getsize(path) if os.path.exists(path) else 0

    tree.app("probe", DIES)
    result = tree.run("--background", name="probe", env={"LD_PRELOAD": preload("libfasttime.so")})
    assert (result.status, result.out, result.err) == (0, "", "")
    supervisor = wait_until(lambda: tree.supervisor("probe"), what="pid file")
    tree._started.append(supervisor)
    seen, done = set(), threading.Event()

    def poll():
        while not done.is_set():
            with open("/var/run/probe.pid", "rb") as file:
                seen.add(file.read())
            done.wait(0.0005)
    reader = threading.Thread(target=poll)
    wait_until(lambda: count() >= 20, what="the first restarts")
    before = descriptors(supervisor), anonymous_kib(supervisor)
    reader.start()
    try:
        wait_until(lambda: count() >= WHOLE_COUNT, seconds=LIMIT, what="restarts")
        after = descriptors(supervisor), anonymous_kib(supervisor)
    finally:
        done.set()
        reader.join()
    assert alive(supervisor)
    assert after[0] == before[0]
    assert after[1] - before[1] <= 128, f"memory of no file grew: {before[1]} -> {after[1]} KiB"
    assert len(seen) == 1 and int(seen.pop().split()[0]) == supervisor
    print(f"{count()} restarts: {len(after[0])} descriptors, of no file {before[1]} -> {after[1]} KiB")
    tree.stop(supervisor)
    assert not os.path.exists("/var/run/probe.pid")
    # Ends of children, each with the delay that this clock makes of it; the stop may find no child, or one that dies by itself.
    lines = uninterrupted(records(tree.log("probe")), stops=1)
    delays = {delayed(restart) for restart in range(1, 8)}
    ends = [line for line in lines if line not in delays]
    assert set(ends) == {killed(9)} and WHOLE_COUNT - 1 <= len(ends) <= count()
    assert all(line not in delays for before, line in zip(lines, lines[1:]) if before in delays)
