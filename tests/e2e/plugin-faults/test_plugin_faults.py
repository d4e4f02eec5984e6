"""One system call fails, in turn each that an installation or a removal makes between opening the package and its end.

The outcome is an event that tells it, one error line, files that are old or new, and an agent that goes on; the next start
completes. By default every n-th call fails, with the errors in turn; with VEX_FULL=1 every call does, of the smaller package with
each of the errors.
"""
import errno
import os
import re
import subprocess

import pytest

from conftest import BUILD, FULL, PATIENCE, TRACED
from plugin_sweep import NEW, OLD, check_complete, check_files, content, events, prepare

FAULTAT = os.path.join(BUILD, "tests", "faultat")
ERRORS = ("EIO", "ENOSPC", "EACCES")
DONE = {"vxp": 5101, "vxu": 5105}
FAILED = {"vxp": 5102, "vxu": 5106}

# Enough files for a flush of the whole file system in place of one for each, and folders to be made.
MANY_OLD = {f"feature/old/{i}.lua": f"old {i}" for i in range(20)}
MANY = {**{f"feature/old/{i}.lua": f"new {i} " + "y" * 300 * i for i in range(20)},
        **{f"feature/made/on/the/way/{i}": f"made {i}" for i in range(4)}}
SETS = {"few": (OLD, NEW, 13), "many": (MANY_OLD, MANY, 41)}


class Run:
    """A start with --install_plugins in which the N-th call failed; with 0 none did."""

    def __init__(self, tree, kind, number=0, error="EIO"):
        self.package = os.path.join(tree.path, "Feature." + kind)
        report = os.path.join(tree.path, "calls")
        result = subprocess.run([FAULTAT, report, self.package, str(number), str(getattr(errno, error)),
                                 os.path.join(tree.path, "probe"), "--install_plugins"],
                                stdin=subprocess.DEVNULL, capture_output=True, timeout=2 * PATIENCE, check=False,
                                env=dict(os.environ, **TRACED))
        self.status, self.output = result.returncode, result.stdout + result.stderr
        with open(report) as file:
            self.calls = [tuple(line.rstrip("\n").split(" ", 1)) for line in file]
        os.unlink(report)
        self.failed = self.calls[number - 1] if 0 < number <= len(self.calls) else None
        self.errors = [line for line in tree.log("probe").splitlines() if " ERROR " in line]
        self.what = f"call {number}, {self.failed}, {error}: {self.errors} {self.output}"


def is_temporary(name):
    return ".vex-unzip-" in name and not name.endswith(".list")


def check_stopped(run, tree, kind, before, old, new):
    """The fault stopped the package: it is said, what was finished stays, and what comes later is untouched."""
    assert events(tree) == [FAILED[kind]], run.what
    assert len(run.errors) == 1 and f'Cannot process the archive "{run.package}": ' in run.errors[0], run.what
    assert os.path.exists(run.package), run.what
    check_files(tree, kind, old, new)
    # Files that were finished may have got their names, in the order of the package; those behind the fault never.
    done = [content(tree, name) != old.get(name) for name in new]
    tried = [about for name, about in before if name.startswith("openat") and is_temporary(about)] if kind == "vxp" else [
        about for name, about in before if name.startswith("unlink")]
    assert done == sorted(done, reverse=True) and sum(done) <= len(set(tried)), f"{done} {run.what}"
    result = tree.run("--install_plugins", name="probe")
    assert result.status == 0, run.what
    assert events(tree) == [FAILED[kind], DONE[kind]], run.what


def check_passed_over(run, tree, kind):
    """The fault concerns nothing that matters, and all is as if it had not been."""
    name, about = run.failed
    foreign = os.path.isabs(about) and not about.startswith(tree.path)  # the time zone's file, for instance
    callback = kind == "vxu" and os.path.isabs(about)  # asks whether it is a folder, which unlink refuses anyway
    assert foreign or callback or name in ("close", "uname"), run.what
    assert events(tree) == [DONE[kind]] and run.errors == [], run.what


def check_end(run, tree, kind):
    """The package itself stays, which is the one thing that is said; it is taken again by the next start."""
    assert events(tree) == [DONE[kind]], run.what
    assert len(run.errors) == 1, run.what
    assert re.search(rf"Unable to delete {re.escape(run.package)} \(error \d+: .*\)$", run.errors[0]), run.what
    assert os.path.exists(run.package), run.what
    assert tree.run("--install_plugins", name="probe").status == 0
    assert events(tree) == [DONE[kind]] * 2, run.what


def check_file_kept(run, tree, kind, new):
    """A file that cannot be removed is passed over without a word, and is the only one that stays."""
    name = os.path.relpath(run.failed[1], tree.path)
    assert events(tree) == [DONE[kind]] and run.errors == [], run.what
    assert [left for left in new if content(tree, left) is not None] == [name], run.what
    os.unlink(run.failed[1])


def one_point(tree, kind, number, error, old, new):
    run = Run(tree, kind, number, error)
    assert run.status == 0 and run.output == b"", run.what
    if run.failed is None:
        return "beyond"
    name, about = run.failed
    if about == run.package and name.startswith(("rename", "unlink")):
        outcome = "end"
        check_end(run, tree, kind)
    elif name.startswith("unlink") and os.path.isabs(about):
        outcome = "file kept"
        check_file_kept(run, tree, kind, new)
    elif events(tree) == [DONE[kind]]:
        outcome = "passed over"
        check_passed_over(run, tree, kind)
    else:
        outcome = "stopped"
        check_stopped(run, tree, kind, run.calls[:number - 1], old, new)
    check_complete(tree, kind, new)
    return outcome


@pytest.mark.sandbox
@pytest.mark.parametrize("size", SETS)
@pytest.mark.parametrize("kind", ["vxp", "vxu"])
def test_a_fault_in_any_call_stops_the_package_in_order_and_the_next_start_completes(tmp_path, kind, size):
    old, new, step = SETS[size]
    old = {**old, **new} if kind == "vxu" else old
    undisturbed = prepare(tmp_path / "undisturbed", kind, old, new)
    run = Run(undisturbed, kind)
    assert run.status == 0 and run.output == b"" and events(undisturbed) == [DONE[kind]]
    check_complete(undisturbed, kind, new)
    names = {name for name, _ in run.calls}
    expected = {"openat", "pread64", "getdents64", "close", "newfstatat"} | (
        {"write", "fchmod", "renameat", "unlinkat", "fcntl", "fsync"} if kind == "vxp" else set())
    assert expected <= names, f"the sweep does not see what it is about: {names}"
    total = len(run.calls)
    numbers = [*range(1, total, 1 if FULL else step), total]
    points = [(number, ERRORS[turn % 3]) for turn, number in enumerate(numbers)]
    if FULL and size == "few":
        points = [(number, error) for number in numbers for error in ERRORS]
    outcomes = []
    for number, error in points:
        tree = prepare(tmp_path / f"{number}-{error}", kind, old, new)
        outcomes.append(one_point(tree, kind, number, error, old, new))
        subprocess.run(["rm", "-rf", tree.path], check=True)
    counts = {outcome: outcomes.count(outcome) for outcome in set(outcomes)}
    print(f"{kind}, {size}: {total} calls, {len(points)} faults, {counts}")
    assert counts["stopped"] > len(points) // 3 and counts["end"] >= 1
    assert counts.get("beyond", 0) <= len(points) // 20


@pytest.mark.sandbox
@pytest.mark.parametrize("size", SETS)
def test_files_are_flushed_before_they_are_renamed_and_folders_before_the_package_is(tmp_path, size):
    old, new, _ = SETS[size]
    tree = prepare(tmp_path / "tree", "vxp", old, new)
    calls = Run(tree, "vxp").calls
    renames = [i for i, (name, about) in enumerate(calls) if name == "renameat" and is_temporary(about)]
    assert len(renames) == len(new)
    for i in renames:
        temporary = calls[i][1]
        written = max(at for at in range(i) if calls[at][0] == "fchmod" and calls[at][1].endswith("/" + temporary))
        assert any(name == "syncfs" or (name == "fsync" and about.endswith("/" + temporary))
                   for name, about in calls[written:i]), temporary
    folders = {os.path.join(tree.path, os.path.dirname(name)) for name in new}
    list_gone = next(i for i, (name, about) in enumerate(calls) if name == "unlinkat" and about.endswith(".list"))
    behind = calls[renames[-1]:list_gone]
    assert any(name == "syncfs" for name, _ in behind) or folders <= {about for name, about in behind if name == "fsync"}
    behind = calls[list_gone:]
    assert behind[-1][0].startswith("rename") and behind[-1][1] == os.path.join(tree.path, "Feature.vxp")
    assert ("fsync", tree.path) in behind
