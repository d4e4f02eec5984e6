#!/usr/bin/env python3
"""Measures the memory of the idle agent in the background: bench_memory.py STAGE [BUILD]. Run it through tools/sandbox.

Starts the bundled application, once as it is and once with both example plugins, waits for the first beat and until it is
still, and prints the proportional set size (what is shared is divided among those who share it) and the private memory of
supervisor and working child, from /proc. The yardstick in the same run is an empty program that has initialised the same
framework. Claim: the supervisor's memory that belongs to no file is at most 2 MiB above the yardstick's. (Of what it took before
it forked nothing is private while its child lives.)
"""
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

CLAIM_KIB = 2048


def send_signal(pid, number):
    assert pid > 1, f"refusing to signal {pid}"
    os.kill(pid, number)


def memory(pid):
    """(proportional set size, private memory, memory that belongs to no file) in KiB."""
    with open(f"/proc/{pid}/smaps_rollup") as file:
        sizes = {name: int(size) for name, size in re.findall(r"^(\w+):\s+(\d+) kB$", file.read(), re.M)}
    return sizes["Pss"], sizes["Private_Clean"] + sizes["Private_Dirty"], sizes["Anonymous"]


def wait_for(condition, what):
    end = time.monotonic() + 60
    while not condition():
        if time.monotonic() > end:
            sys.exit(f"bench_memory: {what}: not within 60 s")
        time.sleep(0.05)


def first_child(pid):
    with open(f"/proc/{pid}/task/{pid}/children") as file:
        return int(file.read().split()[0])


def read(path):
    try:
        with open(path, encoding="utf-8", errors="replace") as file:
            return file.read()
    except FileNotFoundError:
        return ""


def threads(pid):
    return len(os.listdir(f"/proc/{pid}/task"))


def measure(stage, packages, yardstick, plugins):
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
        print("with both example plugins" if plugins else "without plugins")
        found = {}
        for name, pid in (("supervisor", supervisor), ("child", child), ("yardstick", yardstick)):
            found[name] = memory(pid)
            print(f"  {name}: {found[name][0]} KiB proportional, {found[name][1]} KiB private, {found[name][2]} KiB of no file, "
                  f"{threads(pid)} threads")
        send_signal(supervisor, signal.SIGTERM)
        wait_for(lambda: not os.path.exists(f"/proc/{supervisor}"), "the end")
        both = found["supervisor"][0] + found["child"][0]
        print(f"  both processes: {both} KiB proportional, {both / found['yardstick'][0]:.2f} x the yardstick")
        return found["supervisor"][2]


def main():
    if os.environ.get("VEX_SANDBOX") != "1":
        sys.exit("bench_memory: run it through tools/sandbox")
    stage = os.path.abspath(sys.argv[1])
    build = os.path.abspath(sys.argv[2] if len(sys.argv) > 2 else os.path.join(stage, "..", "release"))
    packages = glob.glob(build + "/packages/*.vxp")
    libc = ctypes.CDLL(None)
    libc.mount(b"tmpfs", b"/run", b"tmpfs", 0, None)
    yardstick = subprocess.Popen([build + "/tests/emptywx"], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    yardstick.stdout.readline()
    try:
        sizes = [measure(stage, packages, yardstick.pid, plugins) for plugins in (False, True)]
        above = max(sizes) - memory(yardstick.pid)[2]
        print(f"memory of no file of the supervisor above the yardstick: {above} KiB (claim: at most {CLAIM_KIB})")
    finally:
        yardstick.kill()
        yardstick.wait()
    return 0 if above <= CLAIM_KIB else 1


if __name__ == "__main__":
    sys.exit(main())
