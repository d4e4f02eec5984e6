"""Thousands of restarts of a supervisor whose delays are cut: its descriptors and its memory stay what they were.

Proves that nothing is lost a restart, neither around a fork nor around a run of the driver's script. 500 restarts by
default, 10,000 with VEX_FULL=1.
"""
import os
import signal
import subprocess

import pytest

from conftest import BUILD, FULL, SANITIZED, alive, send_signal, wait_until

pytestmark = pytest.mark.sandbox
RESTARTS = os.environ.get("VEX_RESTARTS", os.path.join(BUILD, "tests", "restarts"))
COUNT = 10000 if FULL else 500
SCRIPT = "/opt/vx_agent/SunOS.init"
PID_FILE = "/var/run/restarts.pid"


def pid():
    try:
        with open(PID_FILE) as file:
            return int(file.readline())
    except FileNotFoundError:
        return 0


@pytest.mark.skipif(SANITIZED, reason="a sanitizer has memory of its own")
@pytest.mark.parametrize("script", [False, True], ids=["without a driver script", "with a driver script"])
def test_descriptors_and_memory_of_the_supervisor_are_the_same_after_all_restarts(tmp_path, script):
    if script:
        os.makedirs(os.path.dirname(SCRIPT))
        with open(SCRIPT, "w") as file:
            file.write("#!/bin/sh\necho >> /run/stops\n")
        os.chmod(SCRIPT, 0o755)
    report = tmp_path / "report"
    subprocess.run([RESTARTS, str(COUNT), str(report)], stdin=subprocess.DEVNULL, timeout=60, check=True)
    supervisor = wait_until(pid, what="pid file")
    try:
        wait_until(lambda: report.exists() and len(report.read_text().splitlines()) == 2, seconds=500, what="the last restart")
        wait_until(lambda: not alive(supervisor), what="end of the supervisor")
    finally:
        if alive(supervisor):
            send_signal(supervisor, signal.SIGTERM)
    warm, end = ([int(word) for word in line.split()] for line in report.read_text().splitlines())
    print(f"restarts, descriptors, resident KiB, private KiB: {warm} {end}")
    assert end[0] == COUNT
    assert end[1] == warm[1]
    # One page a hundred restarts would already be far above that.
    assert end[2] <= warm[2] + 64 and end[3] <= warm[3] + 64
    assert not os.path.exists(PID_FILE)
    if script:
        with open("/run/stops") as file:
            assert len(file.readlines()) == (COUNT - 1) // 50
