#!/usr/bin/env python3
"""Measures what an idle agent costs: bench_idle.py TREE [SECONDS]. Run it through tools/sandbox.

Starts an application whose `main` returns 0 in the background, waits until it is still, and then counts for some seconds
(60) the context switches of every thread of the supervisor and of the working child, from /proc, and every system call,
with strace on a second pass. Claim: none at all. The yardstick, in the same run, is a shell in `sleep 1` loops: it shows that
the counting sees something. Ends with 1 when there was one.
"""
import concurrent.futures
import ctypes
import glob
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import figures
from running import send_signal


def switches(pid):
    total = 0
    for status in glob.glob(f"/proc/{pid}/task/*/status"):
        with open(status) as file:
            total += sum(int(number) for number in re.findall(r"ctxt_switches:\s*(\d+)", file.read()))
    return total


def system_calls(pids, seconds):
    with tempfile.NamedTemporaryFile("r") as output:
        command = ["timeout", "-s", "INT", str(seconds), "strace", "-f", "-qq", "-o", output.name]
        for pid in pids:
            command += ["-p", str(pid)]
        subprocess.run(command, check=False, stderr=subprocess.DEVNULL)
        # What a traced thread sits in when strace arrives is shown as an unfinished or resumed call: it made none.
        lines = [line for line in output.read().splitlines() if "<unfinished" not in line and "resumed>" not in line
                 and "<detached" not in line and "= ? ERESTART" not in line]
        return len(lines), lines[:5]


def main():
    if os.environ.get("VEX_SANDBOX") != "1":
        sys.exit("bench_idle: run it through tools/sandbox")
    stage = os.path.abspath(sys.argv[1])
    seconds = int(sys.argv[2]) if len(sys.argv) > 2 else 60
    libc = ctypes.CDLL(None)
    libc.mount(b"tmpfs", b"/run", b"tmpfs", 0, None)
    with tempfile.TemporaryDirectory() as folder:
        tree = os.path.join(folder, "tree")
        shutil.copytree(stage, tree)
        os.rename(tree + "/vx_agent", tree + "/idle")
        with open(tree + "/idle.lua", "w") as file:
            file.write("return { main = function() return 0 end }\n")
        subprocess.run([tree + "/idle", "--background"], check=True)
        time.sleep(3)
        with open("/run/idle.pid") as file:
            supervisor = int(file.readline())
        with open(f"/proc/{supervisor}/task/{supervisor}/children") as file:
            child = int(file.read())
        yardstick = subprocess.Popen(["/bin/sh", "-c", "while :; do sleep 1; done"])
        processes = {"supervisor": supervisor, "child": child, "yardstick": yardstick.pid}
        before = {name: switches(pid) for name, pid in processes.items()}
        time.sleep(seconds)
        woken = {name: switches(pid) - before[name] for name, pid in processes.items()}
        kept = figures.row("wake-ups of an idle supervisor and its child", woken["supervisor"] + woken["child"],
                           "a shell that sleeps a second at a time", woken["yardstick"], "switches", 0)
        with concurrent.futures.ThreadPoolExecutor() as pool:
            (calls, first), (theirs, _) = pool.map(lambda pids: system_calls(pids, seconds), ([supervisor, child], [yardstick.pid]))
        kept &= figures.row("system calls of an idle supervisor and its child", calls,
                            "a shell that sleeps a second at a time", theirs, "calls", 0)
        print(*first, sep="\n", end="\n" if first else "")
        yardstick.kill()
        yardstick.wait()
        send_signal(supervisor, signal.SIGTERM)
        last = time.monotonic() + 60
        while os.path.exists(f"/proc/{supervisor}"):
            if time.monotonic() > last:
                sys.exit("bench_idle: the end: not within 60 s")
            time.sleep(0.1)
        return 0 if kept else 1


if __name__ == "__main__":
    sys.exit(main())
