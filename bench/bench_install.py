#!/usr/bin/env python3
"""Measures the installation of a package: bench_install.py STAGE [ROUNDS]. Run it through tools/sandbox.

A package of 10,000 files of 4 KiB is installed by `--install_plugins` under the name vx_agent, by which each file has its trace line in the
log; the application does nothing. Against `bsdtar -xf` of the same archive into an empty folder, in turns, in memory. Of both the
processor time of the whole process, the turn in the middle. Claim: at most 0.9.
"""
import os
import random
import resource
import shutil
import subprocess
import sys
import tempfile
import zipfile

import figures

FILES = 10_000
CLAIM = 0.9


def make_package(path):
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED, compresslevel=1) as package:
        for number in range(FILES):
            random.seed(number)
            package.writestr(f"many/module{number}.lua", bytes(97 + (byte >> 4) for byte in random.randbytes(4096)))


def processor_ms(command):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    subprocess.run(command, check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return (after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime) * 1000


def install(stage, folder, package):
    tree = os.path.join(folder, "tree")
    shutil.copytree(stage, tree, symlinks=True, ignore=shutil.ignore_patterns("share"))
    shutil.copy(package, os.path.join(tree, "Feature.vxp"))
    work = os.path.join(folder, "work")
    os.mkdir(work)
    took = processor_ms([os.path.join(tree, "vx_agent"), "--install_plugins", "--workdir", work, "--lua_path", folder + "/?.lua"])
    with open(os.path.join(work, "vx_agent.log"), encoding="utf-8") as log:
        lines = sum("extracting: many" in line for line in log)
    if lines != FILES or len(os.listdir(os.path.join(tree, "many"))) != FILES:
        sys.exit(f"bench_install: {lines} files have a line in the log, of {FILES}")
    shutil.rmtree(tree)
    shutil.rmtree(work)
    return took


def unpack(folder, package):
    target = os.path.join(folder, "target")
    os.mkdir(target)
    took = processor_ms(["bsdtar", "-xf", package, "-C", target])
    shutil.rmtree(target)
    return took


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    if shutil.which("bsdtar") is None:
        sys.exit("bench_install: bsdtar is not installed; tools/packages.txt names its package, libarchive-tools")
    stage = os.path.abspath(sys.argv[1])
    rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 7
    ours, theirs = [], []
    with tempfile.TemporaryDirectory(prefix="vex-bench-", dir="/dev/shm" if os.path.isdir("/dev/shm") else None) as folder:
        package = os.path.join(folder, "package.zip")
        make_package(package)
        with open(os.path.join(folder, "vx_agent.lua"), "w", encoding="utf-8") as application:
            application.write("return { main = function() end }\n")
        for _ in range(rounds):
            ours.append(install(stage, folder, package))
            theirs.append(unpack(folder, package))
    middle = figures.middle_turn(list(zip(ours, theirs)))
    sys.exit(0 if figures.row("a package of 10000 files installed", middle[0], "bsdtar", middle[1], "ms", CLAIM) else 1)


if __name__ == "__main__":
    main()
