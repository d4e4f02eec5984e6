"""The process is killed before each system call that changes something, during an installation and during a removal. Every
file is old or new, the next run completes, nothing temporary stays, and the event of what was completed is there."""
import os
import subprocess

import pytest

from conftest import BUILD, FULL, PATIENCE, TRACED
from plugin_sweep import OLD, check_complete, check_files, events, prepare

FAULTAT = os.path.join(BUILD, "tests", "faultat")
STEP = 1 if FULL else 9
SHARES = 3 if FULL else 1  # of the calls, a test each, so that no processor has them all
KILLED = 128 + 9
# Each of them is a place to be killed at; a call that makes a file counts as well as one that fills it.
EXPECTED = {"update": {"openat", "write", "pwrite64", "fchmod", "fsync", "renameat", "unlinkat", "ftruncate"},
            "first installation": {"mkdirat", "openat", "write", "renameat"},
            "removal": {"openat", "pwrite64", "unlink", "fsync", "ftruncate"}}


def start(tree, kind, number=0):
    """A start that is killed before the N-th changing call of the thread that opens the package; with 0 it is not. Returns its
    status and those calls, each a name and a path, in order."""
    report = os.path.join(tree.path, "calls")
    package = os.path.join(tree.path, "Feature." + kind)
    process = subprocess.run([FAULTAT, report, package, str(number), "kill", os.path.join(tree.path, "probe"),
                              "--install_plugins"], stdin=subprocess.DEVNULL, capture_output=True, timeout=2 * PATIENCE,
                             check=False, env=dict(os.environ, **TRACED))
    with open(report) as file:
        calls = [tuple(line.rstrip("\n").replace("/./", "/").split(" ", 1)) for line in file]
    os.unlink(report)
    return process.returncode, calls


@pytest.mark.slow
@pytest.mark.sandbox
@pytest.mark.parametrize("share", range(SHARES))
@pytest.mark.parametrize("what,kind,old,done_number", [("update", "vxp", OLD, 5101), ("first installation", "vxp", {}, 5101),
                                                       ("removal", "vxu", OLD, 5105)])
def test_a_kill_before_any_changing_call_leaves_old_or_new_and_the_next_run_completes(tmp_path, what, kind, old, done_number,
                                                                                         share):
    undisturbed = prepare(tmp_path / "undisturbed", kind, old)
    status, calls = start(undisturbed, kind)
    assert status == 0 and events(undisturbed) == [done_number]
    check_complete(undisturbed, kind)
    assert EXPECTED[what] <= {name for name, _ in calls}
    package = os.path.join(undisturbed.path, "Feature." + kind)
    finished = next(i for i, (name, path) in enumerate(calls) if name.startswith(("rename", "unlink")) and path == package)
    # The commit is the last call on the database or its journal.
    commit = max(i for i, (_, path) in enumerate(calls) if i > finished and "/events.db" in path)
    gap = 0
    points = range(share * STEP, len(calls), STEP * SHARES)
    for point in points:
        tree = prepare(tmp_path / f"at-{point}", kind, old)
        status, made = start(tree, kind, point + 1)
        assert status == KILLED and [name for name, _ in made] == [name for name, _ in calls[:point + 1]]
        check_files(tree, kind, old)
        was_finished = not os.path.exists(os.path.join(tree.path, "Feature." + kind))
        assert was_finished == (point > finished)
        before = events(tree)
        if was_finished and done_number not in before:
            gap += 1
            assert point <= commit, f"no event although the kill came before call {point}"
        result = tree.run("--install_plugins", name="probe")
        assert result.status == 0, result.err
        if not was_finished:
            assert events(tree) == before + [done_number]
        else:
            assert events(tree) == before
        check_complete(tree, kind)
        subprocess.run(["rm", "-rf", tree.path], check=True)
    print(f"{what}, share {share + 1} of {SHARES}: {len(points)} kills at {len(calls)} calls, {gap} between the package's end and its event's commit")
