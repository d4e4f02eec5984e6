"""The process is killed before each system call that changes something, during an installation and during a removal. Every
file is old or new, the next run completes, nothing temporary stays, and the event of what was completed is there."""
import os
import re
import subprocess

import pytest

from conftest import FULL, PATIENCE, TRACED
from plugin_sweep import check_complete, check_files, events, prepare

CHANGING = ("write,pwrite64,pwritev,rename,renameat,renameat2,unlink,unlinkat,mkdir,mkdirat,fsync,fdatasync,syncfs,sync,fchmod,"
            "fchmodat,chmod,ftruncate,fallocate,link,linkat,symlinkat")
STEP = 1 if FULL else 9


def traced(tree, kill_before=None):
    """Runs the installation under strace; returns the calls of the script thread as text, in order. `kill_before` is a
    call's name and its number among the calls of that name: strace counts each name apart."""
    output = os.path.join(tree.path, "calls")
    inject = ["-e", "inject=%s:signal=SIGKILL:when=%d" % kill_before] if kill_before else []
    process = subprocess.run(["strace", "-ff", "-qq", "-o", output, "-e", "trace=" + CHANGING, *inject,
                              os.path.join(tree.path, "probe"), "--install_plugins"], stdin=subprocess.DEVNULL,
                             capture_output=True, timeout=2 * PATIENCE, check=False, env=dict(os.environ, **TRACED))
    threads = []
    for name in sorted(os.listdir(tree.path)):
        if name.startswith("calls."):
            with open(os.path.join(tree.path, name), errors="replace") as file:
                threads.append(file.read().splitlines())
            os.unlink(os.path.join(tree.path, name))
    script = max(threads, key=lambda calls: sum("Feature" in call or "feature" in call for call in calls))
    return process.returncode, script


@pytest.mark.sandbox
@pytest.mark.parametrize("kind,done_number", [("vxp", 5101), ("vxu", 5105)])
def test_a_kill_before_any_changing_call_leaves_old_or_new_and_the_next_run_completes(tmp_path, kind, done_number):
    undisturbed = prepare(tmp_path / "undisturbed", kind)
    status, calls = traced(undisturbed)
    assert status == 0 and events(undisturbed) == [done_number]
    check_complete(undisturbed, kind)
    finished = next(i for i, call in enumerate(calls) if re.match(r"rename|unlink", call) and f"Feature.{kind}" in call)
    # The commit is the last call on the database's journal.
    commit = max(i for i, call in enumerate(calls) if i > finished and not call.startswith("write(2"))
    killed = 0
    gap = 0
    points = range(0, len(calls), STEP)
    names = [call.split("(")[0] for call in calls]
    for point in points:
        tree = prepare(tmp_path / f"at-{point}", kind)
        status, _ = traced(tree, kill_before=(names[point], names[:point + 1].count(names[point])))
        check_files(tree, kind)
        package = os.path.join(tree.path, "Feature." + kind)
        was_finished = not os.path.exists(package)
        before = events(tree)
        if status != 0:
            killed += 1
        if was_finished and done_number not in before:
            gap += 1
            assert finished < point <= commit, f"no event although the kill came before call {point}"
        result = tree.run("--install_plugins", name="probe")
        assert result.status == 0, result.err
        if not was_finished:
            assert events(tree) == before + [done_number]
        else:
            assert events(tree) == before
        check_complete(tree, kind)
        subprocess.run(["rm", "-rf", tree.path], check=True)
    # A call that the main thread makes as often as the script thread may kill the process a little earlier, but it kills.
    assert killed == len(points), "the kills did not arrive"
    print(f"{killed} kills at {len(calls)} calls, {gap} between the package's end and its event's commit")
