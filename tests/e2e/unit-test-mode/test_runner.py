"""The Lua test runner in the real launcher: statuses, patterns, isolation, arguments, reports, coverage."""
import os
import pty
import subprocess
import xml.etree.ElementTree

import pytest

from conftest import PATIENCE, all_that_is_shown

PASS = "return { test_one = function() end, test_two = function() end }"
FAIL = """local lu = require("luaunit")
return { test_bad = function() lu.assertEquals("left", "right") end, test_good = function() end }"""


@pytest.fixture
def scripts(tree, tmp_path):
    """Writes scripts into a folder that is the current one, and runs the runner there."""
    folder = tmp_path / "scripts"
    folder.mkdir()

    class Scripts:
        path = folder

        def write(self, name, content):
            file = folder / name
            file.parent.mkdir(parents=True, exist_ok=True)
            file.write_text(content)

        def run(self, wanted, *arguments, **options):
            return tree.run("--unittest", wanted, "--", *arguments, cwd=str(folder), **options)

    return Scripts()


@pytest.mark.fast
def test_0_when_all_pass_1_when_one_fails_2_when_the_run_is_wrong(scripts):
    scripts.write("good.lua", PASS)
    scripts.write("bad.lua", FAIL)
    scripts.write("broken.lua", "local = 1")
    assert scripts.run("good.lua").status == 0
    assert scripts.run("bad.lua").status == 1
    assert scripts.run("broken.lua").status == 2
    assert scripts.run("*.lua").status == 2
    assert scripts.run("none*.lua").status == 2
    assert scripts.run("good.lua", "--nonsense").status == 2


def test_256_failures_are_1_and_not_0(scripts):
    tests = "".join(f"M.test_{i} = function() error('x') end\n" for i in range(256))
    scripts.write("many.lua", f"local M = {{}}\n{tests}return M")
    result = scripts.run("many.lua")
    assert result.status == 1 and "256 errors" in result.out


def test_a_pattern_that_matches_nothing_says_so(scripts):
    assert "no script matches 'none*.lua'" in scripts.run("none*.lua").err


def test_patterns_are_looked_up_in_the_current_folder_then_beside_the_executable_and_sorted(tree, scripts):
    tree.file("checks/b_test.lua", PASS)
    tree.file("checks/a_test.lua", PASS)
    tree.file("checks/deep/er/c_test.lua", PASS)
    result = scripts.run("checks/**/?_test.lua", "-v")
    assert result.status == 0
    names = [line.rpartition("/checks/")[2] for line in result.out.splitlines() if line.endswith("_test.lua")]
    assert names == ["a_test.lua", "b_test.lua", "deep/er/c_test.lua"]
    scripts.write("checks/here_test.lua", PASS)
    result = scripts.run("checks/**/*_test.lua", "-v")
    assert [line for line in result.out.splitlines() if line.endswith(".lua")] == ["checks/here_test.lua"]


def test_a_script_sees_the_application_and_leaves_nothing_to_the_next(tree, scripts):
    body = """
local lu = require("luaunit")
assert(type(dom0) == "userdata" and rawequal(dom0, dom) and type(vexAppModule.init) == "function")
assert(arg[0] == "vx_agent" and arg[1] == "-v")
assert(package.loaded["shared"] == nil and rawget(_G, "leak") == nil)
leak = require("shared")
return { test_it = function() lu.assertEquals(leak.count, 1) leak.count = 2 end }"""
    scripts.write("shared.lua", "return { count = 1 }")
    scripts.write("a_test.lua", body)
    scripts.write("b_test.lua", body)
    result = tree.run("--lua_path", str(scripts.path) + "/?.lua", "--unittest", "*_test.lua", "--", "-v",
                      cwd=str(scripts.path))
    assert result.status == 0, result.out + result.err


def test_a_failure_shows_place_and_values_and_an_error_its_traceback(scripts):
    scripts.write("bad.lua", FAIL)
    scripts.write("worse.lua", """
local function inner() error({}) end
return { test_worse = function() inner() end }""")
    out = scripts.run("*.lua").out
    assert 'bad.lua:2: expected: "right"\nactual: "left"\n' in out
    assert "worse.lua:2: in function 'inner'" in out and "in function 'test_worse'" in out


def test_a_syntax_error_fails_alone(scripts):
    scripts.write("a.lua", PASS)
    scripts.write("b.lua", "local = 1")
    scripts.write("c.lua", PASS)
    result = scripts.run("*.lua")
    assert result.status == 2
    assert "b.lua:1:" in result.out and "Ran 4 tests of 3 scripts" in result.out and "4 passed" in result.out


def test_tap(scripts):
    scripts.write("a.lua", FAIL)
    lines = scripts.run("a.lua", "--output", "tap").out.splitlines()
    assert "not ok 1 - a.lua test_bad" in lines and "ok 2 - a.lua test_good" in lines and "1..2" in lines
    assert all(line.startswith(("ok ", "not ok ", "# ", "1..")) for line in lines)


def test_junit_goes_to_the_file_and_any_reader_takes_it(scripts):
    scripts.write("a.lua", FAIL)
    scripts.write("b.lua", PASS)
    scripts.write("c.lua", "syntax error")
    assert scripts.run("*.lua", "--output", "junit", "--name", "report.xml").status == 2
    root = xml.etree.ElementTree.parse(scripts.path / "report.xml").getroot()
    assert [suite.get("name") for suite in root] == ["c.lua", "a.lua", "b.lua"]
    assert len(root.findall(".//testcase")) == 5
    assert 'expected: "right"' in root.find(".//failure").text
    assert "c.lua:1:" in root.find(".//error").text


def test_nil_is_silent(scripts):
    scripts.write("a.lua", FAIL)
    result = scripts.run("a.lua", "-o", "nil")
    assert (result.status, result.out, result.err) == (1, "", "\n")


def test_include_exclude_names_repeat_and_stop(scripts):
    scripts.write("a.lua", FAIL)
    scripts.write("b.lua", PASS)
    assert "Ran 1 test of 2 scripts" in scripts.run("*.lua", "-p", "bad").out
    assert "Ran 3 tests of 2 scripts" in scripts.run("*.lua", "-x", "bad").out
    assert "Ran 1 test of 2 scripts" in scripts.run("*.lua", "test_one").out
    assert "iteration 1" in scripts.run("a.lua", "-r", "3").out
    stopped = scripts.run("*.lua", "-f")
    assert stopped.status == 1 and "Ran 1 test of" in stopped.out and "Stopped at the first failure" in stopped.out


def test_a_seed_repeats_the_order(scripts):
    tests = "".join(f"M.test_{name} = function() end\n" for name in "abcdefghij")
    scripts.write("a.lua", f"local M = {{}}\n{tests}return M")

    def order(seed):
        result = scripts.run("a.lua", "-o", "tap", "--shuffle", "--seed", seed, "--slowest", "0")
        assert f"--seed {seed}" in result.out
        return [line for line in result.out.splitlines() if line.startswith("ok")]

    assert order("1") == order("1")
    assert order("1") != order("2")
    assert order("1") != sorted(order("1"), key=lambda line: line[-1])


@pytest.mark.parametrize("arguments,words", [
    (["--nonsense"], "unknown option '--nonsense'"),
    (["--output"], "--output needs a value"),
    (["--output", "xml"], "must be text, tap, junit or nil"),
    (["--output", "junit"], "needs a file"),
    (["--repeat", "0"], "whole number"),
    (["--pattern", "["], "not a Lua pattern"),
    (["--output", "junit", "--name", "no/such/folder/x.xml"], "cannot write the report"),
    (["--coverage", "no/such/folder/x"], "cannot write the coverage"),
    (["test_nowhere"], "no test is named test_nowhere"),
])
def test_a_wrong_argument_is_told_and_fails(scripts, arguments, words):
    scripts.write("a.lua", PASS)
    result = scripts.run("a.lua", *arguments)
    assert result.status == 2 and words in result.err


def test_the_summary_names_slow_tests_and_the_seed(scripts):
    scripts.write("a.lua", """
return { test_slow = function() dom0:Wait("nothing", 0.5) end, test_fast = function() end }""")
    out = scripts.run("a.lua", "--slowest", "1").out
    assert "Slowest tests:\n" in out and "ms  a.lua test_slow\n" in out and "\nSeed: " in out
    assert float(out.split("Slowest tests:\n")[1].split()[0]) >= 500


def test_colours_are_for_a_terminal_only(tree, scripts):
    scripts.write("a.lua", PASS)
    assert b"\x1b[" not in scripts.run("a.lua").out_bytes
    master, slave = pty.openpty()
    command = [os.path.join(tree.path, "vx_agent"), "--unittest", "a.lua"]
    process = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=slave, cwd=scripts.path, timeout=PATIENCE, check=False)
    os.close(slave)
    written = all_that_is_shown(master)
    os.close(master)
    assert process.returncode == 0 and b"\x1b[32m" in written


def test_coverage_tells_lines_of_files_and_of_archives(tree, scripts):
    scripts.write("lib/covered.lua", "local M = {}\nfunction M.used()\n  return 1\nend\nfunction M.unused()\n  return 2\nend\nreturn M\n")
    subprocess.run(["zip", "-q", "packed.zip", "covered.lua"], cwd=scripts.path / "lib", check=True)
    os.rename(scripts.path / "lib/packed.zip", scripts.path / "packed.zip")
    scripts.write("a.lua", 'local c = require("covered")\nreturn { test_a = function() c.used() c.used() end }')
    for arguments, source in (["--lua_path", str(scripts.path) + "/lib/?.lua"], f"{scripts.path}/lib/covered.lua"), \
                             (["--zippath", str(scripts.path / "packed.zip")], f"{scripts.path}/packed.zip/covered.lua"):
        result = tree.run(*arguments, "--unittest", "a.lua", "--", "--coverage", "out.info", cwd=str(scripts.path))
        assert result.status == 0, result.out + result.err
        section = (scripts.path / "out.info").read_text().split(f"SF:{source}\n")[1].split("end_of_record")[0]
        assert "DA:3,2\n" in section and "DA:6,0\n" in section and "LF:" in section


def test_os_exit_in_a_test_does_not_end_the_run(scripts):
    scripts.write("a.lua", "return { test_a = function() os.exit(0) end, test_b = function() end }")
    result = scripts.run("a.lua")
    assert result.status == 1 and "1 passed, 0 failed, 1 error" in result.out


def test_a_script_for_plain_luaunit_runs_too(scripts):
    scripts.write("a.lua", """
local lu = require("luaunit")
TestOld = {}
function TestOld:test_it() lu.assertTrue(true) end
os.exit(lu.LuaUnit.run())""")
    result = scripts.run("a.lua")
    assert result.status == 0 and "1 passed" in result.out


def test_another_luaunit_on_the_path_is_the_scripts_and_not_the_runners(tree, scripts):
    # One whose inside is not what the runner works with.
    scripts.write("newer/luaunit.lua", """
local M = { VERSION = "99", LuaUnit = {} }
function M.LuaUnit.run() error("it ran the tests itself") end
function M.assertSame(a, b) if a ~= b then error("LuaUnit test FAILURE: they differ, says 99", 2) end end
return M""")
    scripts.write("a.lua", """
local lu = require("luaunit")
TestNew = {}
function TestNew:test_good() lu.assertSame(1, 1) end
function TestNew:test_bad() lu.assertSame(lu.VERSION, "98") end
os.exit(lu.LuaUnit.run())""")
    result = tree.run("--lua_path", str(scripts.path) + "/newer/?.lua", "--unittest", "a.lua", cwd=str(scripts.path))
    assert result.status == 1, result.out + result.err
    assert "1 passed, 1 failed" in result.out and "they differ, says 99" in result.out
