"""Thousands of restarts change nothing in the supervisor: descriptors, memory, pid file. Its clock is a preloaded one, on which
the delays take no time.

A tenth of them by default, all 10,000 with VEX_FULL=1.
"""
import os
import signal
import threading

import pytest

from conftest import BUILD, FULL, SANITIZED, alive, send_signal, wait_until

pytestmark = [pytest.mark.sandbox, pytest.mark.slow,
              pytest.mark.skipif(SANITIZED, reason="a preloaded shim does not go with a sanitizer")]
RESTARTS = 10000 if FULL else 300
# The child ends by a signal, as soon as it has counted itself.
DIES = """
local f = assert(io.open(dom0:Get("app.path.work") .. "/count", "a")); f:write("."); f:close()
os.execute("kill -KILL $PPID")
"""


def resident_kib(pid):
    """Resident memory; the private part alone depends on whether a child shares it at the moment."""
    with open(f"/proc/{pid}/smaps_rollup") as file:
        return sum(int(line.split()[1]) for line in file if line.startswith("Rss:"))


def descriptors(pid):
    return sorted(os.readlink(f"/proc/{pid}/fd/{fd}") for fd in os.listdir(f"/proc/{pid}/fd"))


def count(tree):
    path = os.path.join(tree.work, "count")
    return os.path.getsize(path) if os.path.exists(path) else 0


def test_the_supervisor_stays_as_it_is_over_thousands_of_restarts(tree):
    tree.app("probe", DIES)
    tree.run("--background", name="probe", env={"LD_PRELOAD": os.path.join(BUILD, "tests", "libfasttime.so")})
    supervisor = wait_until(lambda: tree.supervisor("probe"), what="pid file")
    tree._started.append(supervisor)
    seen, done = set(), threading.Event()

    def poll():
        while not done.is_set():
            with open("/var/run/probe.pid", "rb") as file:
                seen.add(file.read())
            done.wait(0.0005)
    reader = threading.Thread(target=poll)
    wait_until(lambda: count(tree) >= 50, what="the first restarts")
    before = descriptors(supervisor), resident_kib(supervisor)
    reader.start()
    try:
        wait_until(lambda: count(tree) >= RESTARTS, seconds=RESTARTS / 5 + 60, what="restarts")
        after = descriptors(supervisor), resident_kib(supervisor)
    finally:
        done.set()
        reader.join()
    assert alive(supervisor)
    assert after[0] == before[0]
    assert after[1] - before[1] <= 128, f"resident memory grew: {before[1]} -> {after[1]} KiB"
    assert len(seen) == 1 and int(seen.pop().split()[0]) == supervisor
    print(f"{count(tree)} restarts: {len(after[0])} descriptors, resident {before[1]} -> {after[1]} KiB")
    send_signal(supervisor, signal.SIGTERM)
    wait_until(lambda: not alive(supervisor), what="end of the supervisor")
    assert not os.path.exists("/var/run/probe.pid")
