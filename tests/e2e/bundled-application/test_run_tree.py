"""The tree that ./run makes: the staged one with the example plugins installed, made once and refreshed when something changes."""
import json
import os
import shutil
import subprocess

import pytest

from conftest import BUILD, PATIENCE, ROOT, STAGE, Tree, wait_until

ARGUMENTS = ["--install_plugins", "--extdir", "ext", "--plugins", "network,trend"]


@pytest.fixture
def make(tree):
    """Makes or refreshes the tree and returns what lies in it."""
    shutil.rmtree(tree.path)
    def refresh(packages=BUILD + "/packages", stage=STAGE):
        subprocess.run([ROOT + "/tools/run_tree", stage, packages, tree.path], check=True, timeout=PATIENCE)
        return sorted(os.listdir(tree.path))
    refresh.tree = tree
    return refresh


def plugins(tree):
    result = tree.run(*ARGUMENTS, "--", "--json")
    assert (result.status, result.err) == (0, "")
    return {plugin["name"]: plugin.get("values") for plugin in json.loads(result.out)["plugins"]}


def test_first_start_reports_on_both_plugins_and_a_second_installs_nothing(make):
    assert sum(name.endswith(".vxp") for name in make()) == 2
    found = plugins(make.tree)
    assert list(found) == ["Network", "Trend"] and found["Trend"]["samples"] == 1
    events = os.stat(make.tree.work + "/events.db").st_mtime_ns
    assert sum(name.endswith(".vxp") for name in make()) == 0
    assert plugins(make.tree)["Trend"]["samples"] == 2
    assert os.stat(make.tree.work + "/events.db").st_mtime_ns == events


def test_a_changed_package_is_installed_again(make):
    make()
    plugins(make.tree)
    done = next(name for name in os.listdir(make.tree.path) if "Network" in name)
    with open(os.path.join(make.tree.path, done), "ab") as file:
        file.write(b"of an earlier build")
    assert done[:-len(".done")] in make()
    plugins(make.tree)
    assert sum(name.endswith(".vxp") for name in make()) == 0


def test_changed_files_are_taken_over_and_the_working_folder_is_not(make, tmp_path):
    stage = tmp_path / "stage"
    stage.mkdir()
    changed = Tree(stage)
    changed.file("vex_core/extra.vxe", "new")
    changed.file("work/vx_agent.log", "of a run in the stage")
    listed = make(stage=changed.path)
    assert "vex_core" in listed and "work" not in listed
    with open(make.tree.path + "/vex_core/extra.vxe") as file:
        assert file.read() == "new"


BUSY = """
local function path(name) return dom0:Get("app.path.bin") .. "/" .. name end
return { main = function()
  io.open(path("up"), "w"):close()
  repeat
    dom0:Wait("never", 0.05)
    local go = io.open(path("go"))
  until go
  return require("vex.json").encode({ 1, 2 }) == "[1,2]" and 0 or 1
end }"""


def test_an_agent_that_runs_keeps_its_files_when_they_are_refreshed(make, tmp_path):
    stage = tmp_path / "stage"
    stage.mkdir()
    changed = Tree(stage)
    make(stage=changed.path)
    make.tree.app("probe", BUSY)
    process = make.tree.start(name="probe")
    wait_until(lambda: os.path.exists(make.tree.path + "/up"), what="the agent")
    for name in ("vx_agent", "lib/vex_core.so", "lib/libSLB3.so", "vex_core/vex.vxe"):
        os.unlink(changed.path + "/" + name)
        shutil.copyfile(os.path.join(STAGE, name), changed.path + "/" + name)
        os.chmod(changed.path + "/" + name, 0o755)
    make(stage=changed.path)
    make.tree.file("go", "")
    assert process.wait(timeout=PATIENCE) == 0
