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
# A whole sweep takes many minutes where a start is slow: several tests take its calls in turn, so that all processors have some.
SHARES = 4 if FULL else 1


class Call:
    """A system call: its name and what it is about; `in_folder` when that was given relative to an open folder."""

    def __init__(self, line):
        self.name, path = line.rstrip("\n").split(" ", 1)
        self.in_folder = "/./" in path
        self.path = path.replace("/./", "/", 1)

    def __str__(self):
        return f"{self.name} {self.path}"


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
            self.calls = [Call(line) for line in file]
        os.unlink(report)
        self.error = error
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
    tried = {call.path for call in before
             if (call.name == "openat" and is_temporary(call.path) if kind == "vxp" else call.name.startswith("unlink"))}
    assert done == sorted(done, reverse=True) and sum(done) <= len(tried), f"{done} {run.what}"
    result = tree.run("--install_plugins", name="probe")
    assert result.status == 0, run.what
    assert events(tree) == [FAILED[kind], DONE[kind]], run.what


def check_passed_over(run, tree, kind):
    """The fault concerns nothing that matters, and all is as if it had not been."""
    call = run.failed
    foreign = call.path.startswith("/") and not call.path.startswith(tree.path)  # the time zone's file, for instance
    # Before the launcher removes a file it asks whether it is a folder, which unlink refuses anyway.
    callback = kind == "vxu" and not call.in_folder and call.name in ("newfstatat", "stat", "lstat")
    # What a system may answer when another process has the lock: another name is taken then.
    locked = call.name == "fcntl" and run.error == "EACCES"
    assert foreign or callback or locked or call.name in ("close", "uname"), run.what
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
    name = os.path.relpath(run.failed.path, tree.path)
    assert events(tree) == [DONE[kind]] and run.errors == [], run.what
    assert [left for left in new if content(tree, left) is not None] == [name], run.what
    os.unlink(run.failed.path)


def one_point(tree, kind, number, error, old, new):
    run = Run(tree, kind, number, error)
    assert run.status == 0 and run.output == b"", run.what
    if run.failed is None:
        return "beyond"
    call = run.failed
    if call.path == run.package and call.name.startswith(("rename", "unlink")):
        outcome = "end"
        check_end(run, tree, kind)
    elif call.name.startswith("unlink") and not call.in_folder:
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


@pytest.mark.slow
@pytest.mark.sandbox
@pytest.mark.parametrize("share", range(SHARES))
@pytest.mark.parametrize("size", SETS)
@pytest.mark.parametrize("kind", ["vxp", "vxu"])
def test_a_fault_in_any_call_stops_the_package_in_order_and_the_next_start_completes(tmp_path, kind, size, share):
    old, new, step = SETS[size]
    old = {**old, **new} if kind == "vxu" else old
    undisturbed = prepare(tmp_path / "undisturbed", kind, old, new)
    run = Run(undisturbed, kind)
    assert run.status == 0 and run.output == b"" and events(undisturbed) == [DONE[kind]]
    check_complete(undisturbed, kind, new)
    names = {call.name for call in run.calls}
    expected = {"openat", "pread64", "getdents64", "close", "newfstatat"} | (
        {"write", "fchmod", "renameat", "unlinkat", "fcntl", "fsync"} if kind == "vxp" else set())
    assert expected <= names, f"the sweep does not see what it is about: {names}"
    total = len(run.calls)
    numbers = [*range(1 + share, total, SHARES if FULL else step), total]
    points = [(number, ERRORS[turn % 3]) for turn, number in enumerate(numbers)]
    if FULL and size == "few":
        points = [(number, error) for number in numbers for error in ERRORS]
    outcomes = []
    for number, error in points:
        tree = prepare(tmp_path / f"{number}-{error}", kind, old, new)
        outcomes.append(one_point(tree, kind, number, error, old, new))
        subprocess.run(["rm", "-rf", tree.path], check=True)
    counts = {outcome: outcomes.count(outcome) for outcome in set(outcomes)}
    print(f"{kind}, {size}, share {share + 1} of {SHARES}: {total} calls, {len(points)} faults, {counts}")
    assert counts["stopped"] > len(points) // 3 and counts["end"] >= 1
    assert counts.get("beyond", 0) <= len(points) // 20


@pytest.mark.quick
@pytest.mark.sandbox
@pytest.mark.parametrize("size", SETS)
def test_files_are_flushed_before_they_are_renamed_and_folders_before_the_package_is(tmp_path, size):
    old, new, _ = SETS[size]
    tree = prepare(tmp_path / "tree", "vxp", old, new)
    calls = Run(tree, "vxp").calls
    first = {}  # by name and path, for what happens once
    for i, call in enumerate(calls):
        first.setdefault((call.name, call.path), i)

    def flushed(path, begin, end):
        return any(call.name == "syncfs" or (call.name == "fsync" and call.path == path) for call in calls[begin:end])

    renames = [i for i, call in enumerate(calls) if call.name == "renameat" and is_temporary(call.path)]
    assert len(renames) == len(new)
    for i in renames:
        assert flushed(calls[i].path, first["fchmod", calls[i].path], i), calls[i]
    list_gone = next(i for i, call in enumerate(calls) if call.name == "unlinkat" and call.path.endswith(".list"))
    for folder in {os.path.join(tree.path, os.path.dirname(name)) for name in new}:
        assert flushed(folder, max(i for i in renames if os.path.dirname(calls[i].path) == folder), list_gone), folder
    assert calls[-1].name.startswith("rename") and calls[-1].path == os.path.join(tree.path, "Feature.vxp")
    assert flushed(tree.path, list_gone, len(calls))
