"""vexctl check and plugins on what others have made: the verdict is the launcher's, and nothing that lies there does harm."""
import os
import platform
import shutil
import subprocess

import pytest

import conftest
from conftest import BUILD_NUMBER, OTHER_VERSION, VERSION
from ctl import checked, ctl, objects, with_zip


def named(plugin, version=VERSION):
    return f"Agent-{plugin}-Linux-{version}-{BUILD_NUMBER}.{platform.machine()}.vxp"


def damaged(path):
    with_zip(path, {"f/a.lua": "x" * 5000})
    with open(path, "r+b") as file:
        file.seek(40)
        file.write(b"\xff\xff\xff")


VERDICTS = {
    "whole": (named("F"), lambda path: with_zip(path, {"f/a.lua": "return 1"}), True),
    "without a version": ("F.vxp", lambda path: with_zip(path, {"f/a.lua": "return 1"}), True),
    "of another version": (named("F", OTHER_VERSION), lambda path: with_zip(path, {"f/a.lua": "return 1"}), False),
    "that leads out": (named("F"), lambda path: with_zip(path, {"../a.lua": "return 1"}), False),
    "with damaged data": (named("F"), damaged, False),
    "empty": (named("F"), lambda path: open(path, "wb").close(), False),
    "a named pipe": (named("F"), os.mkfifo, False),
    "hidden": (".F.vxp", lambda path: with_zip(path, {"f/a.lua": "return 1"}), False),
    "with capitals at its end": ("F.VXP", lambda path: with_zip(path, {"f/a.lua": "return 1"}), False),
    "with a name kept for temporary files": (named("F"), lambda path: with_zip(path, {"f/.vex-unzip-1": ""}), False),
}


@pytest.mark.parametrize("story", VERDICTS)
def test_the_verdict_is_that_of_the_launcher(tree, story):
    name, make, accepted = VERDICTS[story]
    path = tree.file(name)
    make(path)
    verdict, = objects("check", ctl(tree, "check", "--json", path, status=0 if accepted else 1).out)
    assert verdict["accepted"] == accepted and bool(verdict["reasons"]) != accepted
    tree.run("--install_plugins")
    assert os.path.exists(path + ".done") == accepted
    assert os.path.exists(tree.file("f/a.lua")) == accepted


@pytest.mark.parametrize("setting, accepted", [("maxbytes = 1M", False), ("maxbytes = 3M", True), ("maxentries = 1", False)])
def test_the_limits_are_those_of_the_agents_settings(tree, tmp_path, setting, accepted):
    package = str(tmp_path / named("F"))
    with_zip(package, {"f/a.lua": "x" * (2 << 20), "f/b.lua": ""})
    tree.file("work/vx_agent.ini", f"[settings]\napp.unzip.{setting}\n")
    ctl(tree, "check", package, status=0 if accepted else 1)
    ctl(tree, "install", package, status=0 if accepted else 1)
    shutil.copy(package, tree.file(named("F")))
    tree.run("--install_plugins")
    assert os.path.exists(tree.file(named("F") + ".done")) == accepted


def test_every_reason_is_told_and_the_worst_file_is_the_status(tree, tmp_path):
    bad = str(tmp_path / named("F", OTHER_VERSION))
    with_zip(bad, {"../a": "", "b\\c": "", "good": "", "\x1b[31m": ""})
    good = str(tmp_path / "F.vxp")
    with_zip(good, {"f": ""})
    out = ctl(tree, "check", bad, good, status=1).out
    assert out.splitlines()[:4] == [
        f"{bad}: refused, for 4 reasons", f"  it is for version {OTHER_VERSION}, and the agent is {VERSION}",
        '  entry "../a": its name has a component "." or ".."', '  entry "b\\c": its name has a backslash']
    assert "\x1b" not in out and out.splitlines()[-1].startswith(f"{good}: would be installed: 1 file of plugin F, -")
    missing = str(tmp_path / "none\x07.vxp")
    result = ctl(tree, "check", "--json", missing, bad, status=2)
    assert [("error" in one, one.get("accepted")) for one in objects("check", result.out)] == [(True, None), (False, False)]
    assert result.err == f"vexctl: {tmp_path}/none\\x07.vxp: No such file or directory\n"


def test_a_file_of_many_gibibytes_with_holes_is_judged_at_once(tree, tmp_path):
    path = str(tmp_path / "F.vxp")
    with open(path, "wb") as file:
        file.truncate(1 << 40)
    result = subprocess.run(["bash", "-c", f'ulimit -v 400000; exec "{tree.path}/vexctl" check "{path}"'] if not conftest.SANITIZED
                            else [f"{tree.path}/vexctl", "check", path], capture_output=True, text=True, timeout=conftest.PATIENCE, check=False)
    assert (result.returncode, result.stderr) == (1, "")


# --- plugins


def test_a_tree_without_packages_says_so(tree):
    assert ctl(tree, "plugins", "--extdir", "none").out == f"no packages in {tree.path}\n"
    assert checked("plugins", ctl(tree, "plugins", "--json").out)["packages"] == []


def test_hostile_names_and_archives_are_shown_and_harmless(tree):
    for name in ("\x1b[2J.vxp", "a-\n-b.vxp.done", "c.vxu"):
        tree.file(name, os.urandom(3000))
    os.mkfifo(tree.file("pipe.vxp.done"))
    os.symlink("nowhere", tree.file("dangling.vxp"))
    os.mkdir(tree.file("folder.vxp"))
    result = ctl(tree, "plugins", status=2)
    assert not [c for c in result.out + result.err if ord(c) < 32 and c != "\n"]
    assert "\\x1B[2J.vxp" in result.out and "folder.vxp" not in result.out
    assert "pipe.vxp.done: is no regular file\n" in result.err and "dangling.vxp: No such file" in result.err
    found = checked("plugins", ctl(tree, "plugins", "--json", status=2).out)
    assert len(found["packages"]) == 5 and len(found["problems"]) == 3


def test_a_pipe_that_closes_ends_them_quietly(tree, tmp_path):
    bad = [str(tmp_path / f"{number}.vxp") for number in range(300)]
    for path in bad:
        with_zip(path, {f"../{number}": "" for number in range(20)})
    for words in (["plugins"], ["check", *bad]):
        process = tree.start(*words, name="vexctl", stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        process.stdout.close()
        assert process.stderr.read() == b""
        assert process.wait(conftest.PATIENCE) == 0
        process.stderr.close()
