"""A race of two workers in a native module of ours, in the launcher as it runs: the settings that keep the thread sanitizer quiet
about libraries that are not instrumented leave it able to see that."""
import glob
import os
import re
import shutil

import pytest

import conftest
from conftest import wait_until

pytestmark = [pytest.mark.fast,
              pytest.mark.skipif(conftest.SANITIZER != "thread", reason="the build has no thread sanitizer")]
RACING = """
return { main = function()
  local workers = { dom0:StartThread("racer"), dom0:StartThread("racer") }
  for _, worker in ipairs(workers) do assert(worker:Join(60)) end
  dom0:Log("warning", "raced")
  return 0
end }"""


@pytest.fixture
def race(tree, tmp_path):
    """Prepares the tree and returns the environment that sends the reports to a place where this test alone looks."""
    tree.app("probe", RACING)
    tree.file("racer.lua", "return { run = function() require('plantedrace')() return 0 end }")
    shutil.copy(os.path.join(conftest.BUILD, "tests", "plantedrace.so"), tree.file("lib/plantedrace.so"))
    return {"TSAN_OPTIONS": os.environ["TSAN_OPTIONS"] + f":log_path={tmp_path}/planted"}


def reports(tmp_path):
    found = []
    for name in glob.glob(f"{tmp_path}/planted.*"):
        with open(name, encoding="utf-8", errors="replace") as file:
            found += re.findall(r"^WARNING: ThreadSanitizer: (.*?) \(pid.*?^SUMMARY: (.*?)$", file.read(), re.M | re.S)
    return found


def assert_the_race_alone_is_reported(tmp_path):
    found = reports(tmp_path)
    assert len(found) == 1 and found[0][0] == "data race" and "plantedrace.cpp" in found[0][1], found


def test_a_race_in_a_foreground_run_is_reported_and_is_its_status(tree, race, tmp_path):
    assert tree.run(name="probe", env=race).status == 66
    assert_the_race_alone_is_reported(tmp_path)


@pytest.mark.sandbox
def test_a_race_in_the_working_child_is_reported(tree, race, tmp_path):
    supervisor, _ = tree.background(name="probe", env=race)
    wait_until(lambda: "raced" in tree.log("probe"), what="the race")
    tree.stop(supervisor)
    assert_the_race_alone_is_reported(tmp_path)
    assert "(exit 66)" in tree.log("probe")
