"""Limits that a starter hands down: each ends in a clear word or an ordinary error, never in a signal."""
import os
import re

import pytest

from agents import CAUGHT, ENDED, LIFE, life, records
from conftest import SANITIZED, children, wait_until

pytestmark = [pytest.mark.sandbox, pytest.mark.skipif(SANITIZED, reason="a sanitizer needs files, stack and memory of its own")]
TOO_FEW = re.compile(r"Only \d more files can be opened, and the agent needs 10: raise the limit of open files \(ulimit -n\)")


def run_limited(tree, limit, *arguments):
    """With one of the limits of a shell; the shell becomes the agent."""
    return tree.run("-c", f'ulimit -c 0; ulimit {limit}; exec "$0" "$@"', os.path.join(tree.path, "probe"), *arguments,
                    executable="/bin/bash", name="probe")


@pytest.mark.parametrize("arguments", [[], ["--background"]], ids=["foreground", "background"])
@pytest.mark.parametrize("files", [4, 5, 6, 8, 10, 12])
def test_too_few_descriptors_are_a_clear_error(tree, files, arguments):
    tree.app("probe", LIFE)
    result = run_limited(tree, f"-n {files}", *arguments)
    assert result.status == 255
    assert len(TOO_FEW.findall(result.err + result.log)) == 1
    assert life(tree) == [] and not os.path.exists("/var/run/probe.pid")


def test_the_fewest_descriptors_that_it_takes_are_enough(tree):
    tree.app("probe", LIFE)
    first = next(files for files in range(12, 20) if run_limited(tree, f"-n {files}").status != 255)
    assert life(tree) == ["init", "main", "shutdown"]
    os.unlink(tree.work + "/life")
    assert run_limited(tree, f"-n {first}", "--background").status == 0
    supervisor = wait_until(lambda: tree.supervisor("probe"), what="pid file")
    wait_until(lambda: "main" in life(tree), what="main")
    tree.stop(supervisor)
    assert life(tree) == ["init", "main", "shutdown"]


FLOOD = """
local M = {}
function M.main()
  local f = assert(io.open("life", "w")); f:setvbuf("no"); f:write("main\\n")
  local ok, message, number = f:write(("x"):rep(10000))
  f = assert(io.open("seen", "w")); f:write(tostring(ok), " ", number or 0); f:close()
  for i = 1, 100 do dom0:Log("info", ("y"):rep(100)) end
  return 0
end
return M
"""


def test_a_limit_of_the_size_of_files_is_an_error_of_the_write(tree):
    tree.app("probe", FLOOD)
    assert run_limited(tree, "-f 4", "--background").status == 0
    supervisor = wait_until(lambda: tree.supervisor("probe"), what="pid file")
    child, = wait_until(lambda: children(supervisor), what="child")

    def seen():
        try:
            with open(os.path.join(tree.work, "seen")) as file:
                return file.read()
        except FileNotFoundError:
            return ""
    assert wait_until(seen, what="the end of the write") == "nil 27"
    assert children(supervisor) == [child]
    assert os.path.getsize(os.path.join(tree.work, "probe.log")) <= 4096
    tree.stop(supervisor)
    assert not os.path.exists("/var/run/probe.pid")


RECURSION = """
local function deep() return (("x"):gsub("x", deep)) end
return { main = function() local ok, message = pcall(deep) print(ok, (message:match("C stack overflow"))) return 0 end }
"""


@pytest.mark.parametrize("kib", [128, 1024])
def test_a_small_stack_of_the_process_is_no_small_stack_of_lua(tree, kib):
    tree.app("probe", RECURSION)
    result = run_limited(tree, f"-s {kib}")
    assert (result.status, result.out) == (0, "false\tC stack overflow\n")
