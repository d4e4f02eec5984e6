"""What the launcher itself does in unit-test mode: the call of the runner, its status, the time limit, and shutdown."""
import os
import shutil

import pytest

from conftest import TRACED, alive, wait_until

# An application and a runner that show what they are given.
APP = """
local M = {}
function M.init() print("init"); return 0 end
function M.main() print("main"); return 0 end
function M.shutdown() print("shutdown"); return tonumber(os.getenv("SHUTDOWN") or "0") end
return M
"""
RUNNER = """return function(scripts)
  print("scripts", scripts)
  print("module", type(vexAppModule), type(vexunit), type(dom0), type(arg))
  return %s
end"""


@pytest.fixture
def probe(tree):
    tree.app("probe", APP)
    tree.file("override/tests/vexunit.lua", RUNNER % "0")
    return lambda *arguments, **options: tree.run("--lua_path", tree.path + "/override/?.lua", *arguments, name="probe",
                                                  **options)


@pytest.mark.fast
def test_the_runner_takes_the_place_of_main_and_shutdown_follows(probe):
    result = probe("--unittest", "some/*.lua")
    assert (result.status, result.err) == (0, "")
    assert result.out == "init\nscripts\tsome/*.lua\nmodule\ttable\tfunction\tuserdata\ttable\nshutdown\n"


def test_after_success_the_status_of_shutdown_is_the_result(probe):
    assert probe("--unittest", "*", env={"SHUTDOWN": "4"}).status == 4


@pytest.mark.quick
@pytest.mark.parametrize("value,status", [("3", 3), ("'5'", 5), ("true", 0), ("nil", 0), ("{}", 0)])
def test_the_runners_result_is_the_status_and_a_failure_skips_shutdown(tree, probe, value, status):
    tree.file("override/tests/vexunit.lua", RUNNER % value)
    result = probe("--unittest", "*")
    assert result.status == status
    assert ("shutdown\n" in result.out) == (status == 0)
    assert result.err == ("\n" if status else "")  # the last error text, which is empty, and a line end


def test_a_runner_that_fails_is_told_with_its_traceback(tree, probe):
    tree.file("override/tests/vexunit.lua", "return function() error('boom') end")
    result = probe("--unittest", "*")
    assert result.status == 2
    assert "boom\nstack traceback:" in result.err
    assert result.err.endswith("\n") and "shutdown" not in result.out


def test_a_call_that_does_not_load_is_told_under_the_chunks_name(probe):
    result = probe("--unittest", '*"')
    assert result.status == 1
    assert result.err.startswith("tests.vexunit:1: ") and result.err.endswith("\n")
    assert result.out == "init\n"


def test_a_runner_that_does_not_load_is_told(tree, probe):
    tree.file("override/tests/vexunit.lua", "syntax error")
    result = probe("--unittest", "*")
    assert result.status == 2 and "tests/vexunit.lua:1:" in result.err


def test_a_quote_in_the_scripts_name_changes_the_lua_text(probe):
    result = probe("--unittest", '*" .. "x')
    assert "scripts\t*x\n" in result.out


def test_a_failing_init_runs_no_test(tree, probe):
    tree.file("probe.lua", APP.replace('print("init"); return 0', 'print("init"); return 9'))
    result = probe("--unittest", "*")
    assert (result.status, result.out) == (9, "init\n")


def test_a_plain_name_that_is_missing_is_told_without_a_line_end_and_main_runs(probe):
    result = probe("--unittest", "missing.lua")
    assert (result.status, result.out, result.err) == (0, "init\nmain\nshutdown\n", "missing.lua: not found")


def test_the_test_switch_alone_names_no_script_so_main_runs(probe):
    assert probe("--test").out == "init\nmain\nshutdown\n"


def test_the_mode_is_in_the_domain(tree, probe):
    tree.file("override/tests/vexunit.lua", "return function() print(dom0:GetBool('app.mode.unittest')) return 0 end")
    assert "true\n" in probe("--unittest", "*").out


def test_the_time_limit_is_600_seconds_and_stays(tree, probe, tmp_path):
    if not shutil.which("strace"):
        pytest.skip("strace is not here")
    trace = tmp_path / "trace"
    probe("--unittest", "*", env=TRACED, prefix=["strace", "-f", "-o", str(trace), "-e", "trace=alarm"])
    calls = [line.split(" ", 1)[1].strip() for line in trace.read_text().splitlines() if "alarm(" in line]
    assert len(calls) == 1 and calls[0].startswith("alarm(600)") and calls[0].endswith("= 0")


def test_output_is_complete_when_the_process_ends(tree, probe):
    tree.file("override/tests/vexunit.lua", "return function() for i = 1, 20000 do print(i) end io.write('last') return 6 end")
    result = probe("--unittest", "*")
    assert result.status == 6
    assert result.out == "init\n" + "".join(f"{i}\n" for i in range(1, 20001)) + "last"


@pytest.mark.sandbox
def test_the_background_runs_main_and_no_test(tree):
    marker = tree.file("ran")
    tree.app("probe", f"return {{ main = function() io.open([[{marker}]], 'w'):write('main'):close() return 7 end }}")
    tree.file("override/tests/vexunit.lua", f"return function() io.open([[{marker}]], 'w'):write('test'):close() return 0 end")
    tree.run("--background", "--lua_path", tree.path + "/override/?.lua", "--unittest", "*", name="probe")
    wait_until(lambda: os.path.exists(marker) and open(marker).read(), what="the run")
    supervisor = tree.pid_file("probe")
    if supervisor:
        wait_until(lambda: not alive(supervisor), what="end of the supervisor")
    assert open(marker).read() == "main"
