#!/usr/bin/env python3
"""Measures the memory of the agent: bench_memory.py STAGE [BUILD]. Run it through tools/sandbox.

First an empty application: the peak of what is resident from start to exit, and the proportional set size (what is shared is divided
among those who share it) of supervisor and child that idle in the background. The yardstick is the least program that starts the
same libraries (bench/yardstick_start.cpp): one run of it, and two of it that wait. Claims: at most 1.1 and 0.88 times.

Then the bundled application, once as it is and once with both example plugins, after the first beat. The yardstick is an empty
program that has initialised the same framework. Claim: the supervisor's memory that belongs to no file is at most 2 MiB above the
yardstick's. (Of what it took before it forked nothing is private while its child lives.)
"""
import ctypes
import glob
import os
import re
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time

import figures
from running import read, send_signal

CLAIM_PEAK, CLAIM_PAIR, CLAIM_KIB = 1.1, 0.88, 2048
RUNS = 21


def memory(pid):
    """(proportional set size, private memory, memory that belongs to no file) in KiB."""
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as file:
        sizes = {name: int(size) for name, size in re.findall(r"^(\w+):\s+(\d+) kB$", file.read(), re.M)}
    return sizes["Pss"], sizes["Private_Clean"] + sizes["Private_Dirty"], sizes["Anonymous"]


def peak(command):
    """The most that was resident of a program, in KiB. The process that becomes the program is not this one forked: the peak of this
    one would be its too."""
    process = subprocess.Popen(["/bin/sh", "-c", 'exec "$@"', "sh", *command], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    _, status, used = os.wait4(process.pid, 0)
    process.returncode = status
    if status != 0:
        sys.exit(f"bench_memory: {command} ended with status {status}")
    return used.ru_maxrss


def wait_for(condition, what):
    end = time.monotonic() + 60
    while not condition():
        if time.monotonic() > end:
            sys.exit(f"bench_memory: {what}: not within 60 s")
        time.sleep(0.05)


def first_child(pid):
    with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as file:
        return int(file.read().split()[0])


def threads(pid):
    return len(os.listdir(f"/proc/{pid}/task"))


class Waiting:
    """Yardsticks that wait until they have been measured."""

    def __init__(self, *command, count=1):
        self.processes = [subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE) for _ in range(count)]
        for process in self.processes:
            process.stdout.readline()

    def __enter__(self):
        return self.processes

    def __exit__(self, *_):
        for process in self.processes:
            process.communicate()


def end(supervisor):
    send_signal(supervisor, signal.SIGTERM)
    wait_for(lambda: not os.path.exists(f"/proc/{supervisor}"), "the end")


def measure_empty(stage, program):
    """The two claims about an empty application; true when they hold."""
    with tempfile.TemporaryDirectory() as folder:
        tree = os.path.join(folder, "tree")
        shutil.copytree(stage, tree, ignore=shutil.ignore_patterns("work"))
        os.rename(tree + "/vx_agent", tree + "/empty")
        with open(tree + "/empty.lua", "w", encoding="ascii") as file:
            file.write("return {}\n")
        peaks = [(peak([tree + "/empty"]), peak([program])) for _ in range(RUNS)]
        kept = figures.row("peak memory of an empty application", statistics.median(ours for ours, _ in peaks), "the least program",
                           statistics.median(theirs for _, theirs in peaks), "KiB", CLAIM_PEAK)
        with open(tree + "/empty.lua", "w", encoding="ascii") as file:
            file.write("return { main = function() return 0 end }\n")
        # One after the other: each pair shares the libraries with nobody else.
        with Waiting(program, "wait", count=2) as processes:
            theirs = sum(memory(process.pid)[0] for process in processes)
        subprocess.run([tree + "/empty", "--background"], check=True)
        wait_for(lambda: read("/run/empty.pid"), "the pid file")
        supervisor = int(read("/run/empty.pid").split()[0])
        wait_for(lambda: read(f"/proc/{supervisor}/task/{supervisor}/children"), "the child")
        time.sleep(2)
        ours = memory(supervisor)[0] + memory(first_child(supervisor))[0]
        end(supervisor)
        return figures.row("memory of an idle supervisor and its child", ours, "two of the least program", theirs, "KiB", CLAIM_PAIR) and kept


def measure_bundled(stage, packages, yardstick, plugins):
    """Prints the memory of all; returns the supervisor's that belongs to no file."""
    with tempfile.TemporaryDirectory() as folder:
        tree = os.path.join(folder, "tree")
        shutil.copytree(stage, tree, ignore=shutil.ignore_patterns("work"))
        arguments = ["--background"]
        if plugins:
            for package in packages:
                shutil.copy(package, tree)
            arguments += ["--install_plugins", "--extdir", "ext", "--plugins", "network,trend"]
        subprocess.run([tree + "/vx_agent", *arguments], check=True)
        wait_for(lambda: " Heartbeat 1 " in read(os.path.join(tree, "work", "vx_agent.log")), "the first beat")
        time.sleep(2)
        supervisor = int(read("/run/vx_agent.pid").split()[0])
        child = first_child(supervisor)
        name = "with both example plugins" if plugins else "without plugins"
        print(name)
        found = {}
        for process, pid in (("supervisor", supervisor), ("child", child), ("yardstick", yardstick)):
            found[process] = memory(pid)
            print(f"  {process}: {found[process][0]} KiB proportional, {found[process][1]} KiB private, {found[process][2]} KiB of no file, "
                  f"{threads(pid)} threads")
        end(supervisor)
        figures.row(f"memory of the bundled application {name}", found["supervisor"][0] + found["child"][0],
                    "an empty program of the framework", found["yardstick"][0], "KiB")
        return found["supervisor"][2]


def main():
    if os.environ.get("VEX_SANDBOX") != "1":
        sys.exit("bench_memory: run it through tools/sandbox")
    stage = os.path.abspath(sys.argv[1])
    build = os.path.abspath(sys.argv[2] if len(sys.argv) > 2 else os.path.join(stage, "..", "release"))
    packages = glob.glob(build + "/packages/*.vxp")
    ctypes.CDLL(None).mount(b"tmpfs", b"/run", b"tmpfs", 0, None)
    kept = measure_empty(stage, build + "/bench/yardstick_start")
    with Waiting(build + "/tests/emptywx") as (yardstick,):
        sizes = [measure_bundled(stage, packages, yardstick.pid, plugins) for plugins in (False, True)]
        above = max(sizes) - memory(yardstick.pid)[2]
    kept &= figures.row("the supervisor's memory of no file above that program's", above, "the bound", CLAIM_KIB, "KiB", 1)
    return 0 if kept else 1


if __name__ == "__main__":
    sys.exit(main())
