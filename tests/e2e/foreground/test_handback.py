"""The script's status reaches the process's exit status, however early the script ends: before the main loop exists, while it
starts, or when it has just gone to sleep. One processor and four runs at a time make every order of the two threads happen.

Proves that no run hangs and none loses its status. Every 20th run by default, all 2,000 with VEX_FULL=1.
"""
import collections
import concurrent.futures
import os
import subprocess

import pytest

from conftest import FULL, PATIENCE, SANITIZED

RUNS = 2000 if FULL and not SANITIZED else 100
AT_ONCE = 4
ENDS_AT_ONCE = "return { init = function() return 5 end }"
# Ends at some moment of the main thread's way into its loop, another one each run.
ENDS_SOON = "return { init = function() for i = 1, %d do local t = {} end return 5 end }"


def run_many(tree, name, arguments, runs):
    """Statuses of the runs, counted; None is a run that did not end."""
    processor = min(os.sched_getaffinity(0))  # the first one may be somebody else's
    command = ["taskset", "-c", str(processor), os.path.join(tree.path, name), *arguments]

    def run(_):
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            return process.wait(timeout=PATIENCE)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
            return None
    with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
        return collections.Counter(pool.map(run, range(runs)))


def make_application(tree, name, source):
    """A module of that name in front of all archives, and the arguments that put it there."""
    if name != "vx_agent":
        tree.app(name, source)
        return []
    tree.file("front/vx_agent.lua", source)
    return ["--lua_path", tree.path + "/front/?.lua"]


@pytest.mark.slow
@pytest.mark.fast
@pytest.mark.parametrize("name", ["vx_agent", "probe"])
def test_a_script_that_ends_at_once_neither_hangs_nor_loses_its_status(tree, name):
    arguments = make_application(tree, name, ENDS_AT_ONCE)
    assert run_many(tree, name, arguments, RUNS) == {5: RUNS}


@pytest.mark.parametrize("name", ["vx_agent", "probe"])
@pytest.mark.parametrize("rounds", [100, 1000, 10000])
def test_a_script_that_ends_a_little_later_does_not_either(tree, name, rounds):
    runs = max(20, RUNS // 10)
    arguments = make_application(tree, name, ENDS_SOON % rounds)
    assert run_many(tree, name, arguments, runs) == {5: runs}
