"""What the commands of the tree say to somebody who calls them wrongly: in one look, and before anything is built. And how they
do where the tree lies in a folder with a name like any other's, and what they leave behind."""
import importlib.util
import os
import pty
import shutil
import subprocess
import sys

import pytest

from conftest import ROOT


def load_run_tests(path):
    described = importlib.util.spec_from_file_location("run_tests_elsewhere", path)
    module = importlib.util.module_from_spec(described)
    described.loader.exec_module(module)
    return module


def call(*command, **options):
    return subprocess.run(command, cwd=ROOT, stdin=subprocess.DEVNULL, timeout=60, check=False, **options)


@pytest.mark.fast
@pytest.mark.parametrize("command, words", [
    (["./test", "--nonsense"], "unrecognized arguments: --nonsense"),
    (["./test", "--only", "nonsense"], "no step's name contains 'nonsense'; the steps are: house rules, "),
    (["tools/check", "--nonsense"], "unrecognized arguments: --nonsense"),
    ([".ci/run", "--nonsense"], "unrecognized arguments: --nonsense"),
    (["tools/build"], "usage: tools/build PRESET"),
    (["tools/build", "nonsense"], "there is no preset 'nonsense'"),
    (["tools/bench", "nonsense"], "there is no benchmark 'nonsense', but bench_dom "),
    (["tools/run_tree", "nonsense"], "usage: tools/run_tree STAGE PACKAGES TREE"),
    (["tools/sandbox"], "usage: tools/sandbox COMMAND"),
    (["tools/tidy", "--nonsense"], "unrecognized arguments: --nonsense"),
])
def test_a_wrong_call_is_told_and_nothing_is_done(command, words):
    result = call(*command, capture_output=True, text=True)
    assert (result.returncode, result.stdout) == (2, "")
    assert words in result.stderr


@pytest.mark.parametrize("command", ["./run", "./test", "tools/build"])
def test_help_is_given_before_anything_is_built(command):
    result = call(command, "--help", capture_output=True, text=True)
    assert (result.returncode, result.stderr) == (0, "")
    assert "build" in result.stdout.lower()


def all_that_is_shown(master):
    """What is written to a terminal arrives in pieces."""
    shown = b""
    try:
        while piece := os.read(master, 10000):
            shown += piece
    except OSError:  # nobody has the terminal any more
        pass
    return shown


def test_the_tests_colour_their_words_on_a_terminal_only():
    command = ["./test", "--only", "house rules"]
    assert b"\x1b[" not in call(*command, stdout=subprocess.PIPE).stdout
    master, slave = pty.openpty()
    call(*command, stdout=slave)
    os.close(slave)
    assert b"\x1b[32mok\x1b[0m" in all_that_is_shown(master)
    os.close(master)


def test_the_last_line_counts_all_tests_of_every_kind(tmp_path):
    assert call("./test", "--only", "house rules", stdout=subprocess.PIPE).stdout.splitlines()[-1] == b"1 passed, 0 failed, 0 skipped"
    steps = call("./test", "--only", "nonsense", capture_output=True, text=True).stderr
    for kind in ("unit release slb3", "unit release core", "unit release launcher", "Lua release source", "Lua release archives",
                 "e2e release"):
        assert kind in steps
    counted = tmp_path / "a.xml"
    counted.write_text("""<testsuites><testsuite>
        <testcase name="a" status="run"/><testcase name="b" status="notrun"/><testcase name="c"><skipped/></testcase>
        <testcase name="d"><failure/></testcase><testcase name="e"><error/></testcase><testcase name="f"/></testsuite></testsuites>""")
    assert load_run_tests(os.path.join(ROOT, "tools", "run_tests.py")).count(str(counted)) == (2, 2, 2)


@pytest.mark.skipif(not shutil.which("clang"), reason="clang is not installed")
@pytest.mark.parametrize("name", ["a blank, and a: colon", "somebody's", 'called "so"'])
def test_the_sanitizers_understand_their_options_wherever_the_tree_lies(tmp_path, name):
    tools, support = tmp_path / name / "tools", tmp_path / name / "tests" / "support"
    tools.mkdir(parents=True)
    support.mkdir(parents=True)
    shutil.copy(os.path.join(ROOT, "tools", "run_tests.py"), tools)
    (support / "lsan.supp").write_text("leak:forget\n")
    run_tests = load_run_tests(tools / "run_tests.py")
    program = tmp_path / "forgetful.c"
    program.write_text("void *malloc(unsigned long); void *kept; __attribute__((noinline)) void forget(void) { kept = malloc(9); }\n"
                       "int main(void) { forget(); kept = 0; return 0; }\n")
    subprocess.run(["clang", "-g", "-fsanitize=address", str(program), "-o", str(tmp_path / "forgetful")], check=True)
    result = subprocess.run([str(tmp_path / "forgetful")], env=dict(os.environ, **run_tests.SANITIZER_OPTIONS),
                            stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60, check=False)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")


def test_a_build_leaves_no_temporary_file_behind(tmp_path):
    tree, commands, temporary = tmp_path / "tree", tmp_path / "commands", tmp_path / "temporary"
    for folder in (tree / "tools", commands, temporary):
        folder.mkdir(parents=True)
    shutil.copy(os.path.join(ROOT, "tools", "build"), tree / "tools")
    (commands / "cmake").write_text("#!/bin/sh\necho '  \"release\" - what is shipped'\n")
    (commands / "ninja").write_text("#!/bin/sh\necho built\n")
    for command in commands.iterdir():
        command.chmod(0o755)
    result = call(tree / "tools" / "build", "release", capture_output=True, text=True,
                  env=dict(os.environ, PATH=f"{commands}:{os.environ['PATH']}", TMPDIR=str(temporary)))
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout == "build: configuring release\nbuild: release\nbuilt\n"
    assert os.listdir(temporary) == []


def test_the_language_of_who_runs_the_tests_does_not_matter(monkeypatch):
    for name in ("LANG", "LANGUAGE", "LC_ALL", "LC_MESSAGES"):
        monkeypatch.setenv(name, "de_DE.UTF-8")
    show = "import os, conftest; print(*(f'{name}={value}' for name, value in os.environ.items() if name.startswith(('LANG', 'LC_'))))"
    result = subprocess.run([sys.executable, "-c", show], cwd=os.path.join(ROOT, "tests", "e2e"), capture_output=True, text=True,
                            timeout=60, check=False)
    assert (result.stdout, result.stderr) == ("LANG=C.UTF-8\n", "")
    step = load_run_tests(os.path.join(ROOT, "tools", "run_tests.py")).Step("any", ["true"], env={"VEX_FULL": "1"})
    assert step.env["VEX_FULL"] == "1" and step.env["PATH"] == os.environ["PATH"]
    assert {name: value for name, value in step.env.items() if name.startswith(("LANG", "LC_"))} == {"LANG": "C.UTF-8"}
