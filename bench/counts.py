#!/usr/bin/env python3
"""Counts the instructions of what users wait for: counts.py STAGE BUILD [--write]. Run it through tools/sandbox.

Counts do not depend on what else the machine does, nor on how fast it is, but on compiler and libraries: those that are written down in
bench/counts.json stand beside the versions that they come from. Claim: nothing takes more than 5 % more than what is written down.
Ends with 1 beyond it, with 77 where nothing can be compared. --write writes what is counted.

A path is run with some rounds and with twice as many, and the difference counts: the rounds alone. The place in the tree, the environment,
addresses and Lua's seed are the same each time.
"""
import concurrent.futures
import ctypes
import json
import os
import re
import shutil
import subprocess
import sys

import figures
import machine

WRITTEN = os.path.join(os.path.dirname(os.path.abspath(__file__)), "counts.json")
AGAIN = "tools/bench --write-counts writes them anew"
CLAIM, MUCH_LESS = 1.05, 0.95
BEYOND, NOT_COMPARABLE = 1, 77
START = "start to exit of an empty application"
# name: what bench/counted.cpp calls it, rounds, and of how many a round consists.
PATHS = {
    "require of a module without the cache": ("require-uncached", 1, 100),
    "require of a module from the cache": ("require-cached", 2, 100),
    "dom0:Get of a deep key": ("get", 10, 1000),
    "a log line through the framework": ("log", 10, 100),
    "a log line through dom0:Log": ("dom-log", 10, 100),
    "a trace line": ("trace", 10, 100),
    "a file unpacked": ("unzip", 1, 500),
}
PLACE = "/opt/count"
OF_VERSIONS = ("compiler", "libc", "framework", "lua", "openssl", "sqlite", "zlib", "libdeflate")


class CannotCount(Exception):
    """No instrument, or a program that failed below it."""


def instructions(command):
    """All that a program executes in the place of user code."""
    instrument = ["setarch", "-R", "valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"]
    result = subprocess.run(instrument + command, stdin=subprocess.DEVNULL, capture_output=True, text=True, errors="replace",
                            env={"PATH": "/usr/bin:/bin", "LANG": "C.UTF-8"}, check=False)
    found = re.search(r"Collected : (\d+)", result.stderr)
    if result.returncode != 0 or not found:
        raise CannotCount(f"{' '.join(command)} ended with {result.returncode}:\n{result.stderr}")
    return int(found[1])


def of_start(stage):
    tree = os.path.join(PLACE, "tree")
    shutil.copytree(stage, tree, ignore=shutil.ignore_patterns("work"))
    os.rename(tree + "/vx_agent", tree + "/empty")
    with open(tree + "/empty.lua", "w", encoding="ascii") as file:
        file.write("return {}\n")
    subprocess.run([tree + "/empty"], stdin=subprocess.DEVNULL, check=True)  # the first has folders to make
    return instructions([tree + "/empty"])


def of_path(program, work, rounds, units):
    found = []
    for times in (1, 2):
        folder = os.path.join(PLACE, f"{work}-{times}")
        os.mkdir(folder)
        subprocess.run([program, "prepare", folder], stdin=subprocess.DEVNULL, check=True)
        found.append(instructions([program, work, str(times * rounds), folder]))
    return round((found[1] - found[0]) / (rounds * units))


def count(stage, build):
    """{name: instructions of one}"""
    os.makedirs(PLACE)
    shutil.copy(build + "/bench/counted", PLACE)  # its name is among what it is started with
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        counts = {START: pool.submit(of_start, stage),
                  **{name: pool.submit(of_path, PLACE + "/counted", *path) for name, path in PATHS.items()}}
        return {name: counted.result() for name, counted in counts.items()}


def surroundings(build):
    """What the counts depend on beside our sources."""
    versions = machine.versions(build + "/bench/library_versions")
    valgrind = subprocess.run(["valgrind", "--version"], capture_output=True, text=True, check=True).stdout.strip()
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        flags = set(re.search(r"^(?:flags|Features)\s*:(.*)$", file.read(), re.M)[1].split())
    # The instrument has at most the widest of these, and libraries choose by them.
    widest = next((name for name in ("avx2", "avx", "sse4_2") if name in flags), "neither")
    return {**{name: versions[name] for name in OF_VERSIONS}, "instrument": valgrind, "processor": f"{os.uname().machine} {widest}"}


def compare(counts, surrounded, written):
    """Prints the figures; the status to end with."""
    other = [f"{name} {there} where {written['surroundings'].get(name)} was" for name, there in surrounded.items()
             if there != written["surroundings"].get(name)]
    if other:
        print(f"counts: the counts of bench/counts.json are not comparable here: {', '.join(other)}; {AGAIN}")
        return NOT_COMPARABLE
    missing = set(counts) ^ set(written["counts"])
    if missing:
        print(f"counts: what is counted and what is written down differ in {', '.join(sorted(missing))}; {AGAIN}")
        return BEYOND
    kept = [figures.row(name, counted, "written down", written["counts"][name], "instructions", CLAIM) for name, counted in counts.items()]
    less = [name for name, counted in counts.items() if counted < MUCH_LESS * written["counts"][name]]
    if less:
        print(f"counts: more than 5 % fewer are {', '.join(less)}: {AGAIN}")
    return 0 if all(kept) else BEYOND


def main():
    arguments = [word for word in sys.argv[1:] if word != "--write"]
    if len(arguments) != 2:
        sys.exit(__doc__)
    if os.environ.get("VEX_SANDBOX") != "1" or shutil.which("valgrind") is None:
        print("counts: nothing is counted without tools/sandbox and valgrind")
        return NOT_COMPARABLE
    if subprocess.run(["setarch", "-R", "true"], stderr=subprocess.DEVNULL, check=False).returncode != 0:
        print("counts: nothing is counted where a program cannot be given the same addresses each time (setarch -R)")
        return NOT_COMPARABLE
    stage, build = (os.path.abspath(word) for word in arguments)
    if ctypes.CDLL(None, use_errno=True).mount(b"tmpfs", b"/opt", b"tmpfs", 0, None) != 0:
        sys.exit(f"counts: mount /opt: {os.strerror(ctypes.get_errno())}")
    surrounded = surroundings(build)
    if "--write" not in sys.argv:
        with open(WRITTEN, encoding="ascii") as file:
            written = json.load(file)
        if surrounded != written["surroundings"]:
            return compare({}, surrounded, written)
    counts = count(stage, build)
    if "--write" not in sys.argv:
        return compare(counts, surrounded, written)
    with open(WRITTEN + ".new", "w", encoding="ascii") as file:
        json.dump({"surroundings": surrounded, "counts": counts}, file, indent=2)
        file.write("\n")
    os.replace(WRITTEN + ".new", WRITTEN)
    for name, counted in counts.items():
        print(f"{name}: {counted:,} instructions")
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except CannotCount as error:
        sys.exit(f"counts: {error}")
    except KeyboardInterrupt:
        sys.exit("counts: interrupted")
