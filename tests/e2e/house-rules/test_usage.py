"""What the commands of the tree say to somebody who calls them wrongly: in one look, and before anything is built. And how they
do where the tree lies in a folder with a name like any other's, and what they leave behind."""
import importlib.util
import glob
import os
import pty
import re
import select
import shutil
import signal
import subprocess
import sys
import threading

import pytest

from conftest import PATIENCE, ROOT, all_that_is_shown, mount_tmpfs, send_signal, unmount, wait_until


def load(name, path=None):
    """A module of tools/, of this tree or of another one."""
    path = path or os.path.join(ROOT, "tools", name + ".py")
    sys.modules.pop("steps", None)  # what lies beside another tree's is another one
    described = importlib.util.spec_from_file_location(name + "_elsewhere", path)
    module = importlib.util.module_from_spec(described)
    described.loader.exec_module(module)
    return module


@pytest.fixture(name="run_tests")
def _run_tests():
    return load("run_tests")


def call(*command, **options):
    return subprocess.run(command, cwd=ROOT, stdin=subprocess.DEVNULL, timeout=2 * PATIENCE, check=False, **options)


@pytest.mark.fast
@pytest.mark.parametrize("command, words", [
    (["./test", "--nonsense"], "unrecognized arguments: --nonsense"),
    (["./test", "--only", "nonsense"], "no step's name contains 'nonsense', and no test has that name; the steps are: house rules, "),
    (["./test", "--quick", "--full"], "argument --full: not allowed with argument --quick"),
    (["tools/check", "--nonsense"], "unrecognized arguments: --nonsense"),
    ([".ci/run", "--nonsense"], "unrecognized arguments: --nonsense"),
    (["tools/build"], "usage: tools/build PRESET"),
    (["tools/build", "nonsense"], "there is no preset 'nonsense'"),
    (["tools/bench", "nonsense"], "there is no benchmark 'nonsense', but bench_archives bench_beat bench_dom "),
    (["tools/mutate"], "name sources, or --again"),
    (["tools/mutate", "src/nonsense.cpp"], "src/nonsense.cpp is no source of the launcher, the core library or the binder"),
    (["tools/demo", "nonsense"], "usage: tools/demo STAGE PAGE"),
    (["tools/run_tree", "nonsense"], "usage: tools/run_tree STAGE PACKAGES TREE"),
    (["tools/sandbox"], "usage: tools/sandbox COMMAND"),
    (["tools/setup", "nonsense"], "usage: tools/setup [--wide]"),
    (["tools/tidy", "--nonsense"], "unrecognized arguments: --nonsense"),
])
def test_a_wrong_call_is_told_and_nothing_is_done(command, words):
    result = call(*command, capture_output=True, text=True)
    assert (result.returncode, result.stdout) == (2, "")
    assert words in result.stderr


@pytest.mark.parametrize("command, word", [
    ("./run", "build"), ("./test", "build"), ("tools/build", "release"), ("tools/bench", "bench_dom"), ("tools/setup", "Installs"),
    ("tools/coverage", "coverage"), ("tools/mutate", "one line"),
])
def test_help_is_given_before_anything_is_built(command, word):
    result = call(command, "--help", capture_output=True, text=True)
    assert (result.returncode, result.stderr) == (0, "")
    assert word in result.stdout


# In the place of the system's: nothing is installed, and only what a first ./test needs can be.
NOTHING_INSTALLED = {"dpkg-query": "exit 1", "sudo": 'exec "$@"', "apt-get": "case \"$*\" in *chromium*) echo no such package; exit 100;; esac"}


def test_what_only_the_wide_tests_use_may_be_missing(tmp_path):
    for name, body in NOTHING_INSTALLED.items():
        (tmp_path / name).write_text(f"#!/bin/sh\n{body}\n")
        (tmp_path / name).chmod(0o755)
    environment = dict(os.environ, PATH=f"{tmp_path}:{os.environ['PATH']}")
    first = call("tools/setup", env=environment, capture_output=True, text=True)
    assert (first.returncode, first.stderr) == (0, "")
    assert re.fullmatch(r"setup: installing g\+\+ .*\nsetup: \d+ packages installed\n", first.stdout) and "chromium" not in first.stdout
    wide = call("tools/setup", "--wide", env=environment, capture_output=True, text=True)
    assert (wide.returncode, wide.stdout) == (0, first.stdout + "setup: installing chromium prometheus rsyslog ansible-core prometheus-node-exporter collectd-core unattended-upgrades\n")
    assert wide.stderr == ("no such package\nsetup: the installation failed; its last lines stand above\n"
                           "setup: without the packages of tools/packages-wide.txt the tests that use them are skipped, and say so\n")
    (tmp_path / "apt-get").write_text("#!/bin/sh\nexit 100\n")
    assert call("tools/setup", env=environment, capture_output=True).returncode == 1


@pytest.mark.sandbox
@pytest.mark.parametrize("before", [None, "#!/bin/sh\nexit 0\n"], ids=["without one", "with one of its own"])
@pytest.mark.parametrize("end, status", [("exit 0", 0), ("exit 100", 0), ("signal", 143)])
def test_no_service_is_started_by_what_the_wide_list_brings(tmp_path, before, end, status):
    policy = "/usr/sbin/policy-rc.d"
    mount_tmpfs("/usr/sbin")
    try:
        if before:
            with open(policy, "w", encoding="ascii") as file:
                file.write(before)
            os.chmod(policy, 0o755)
        waits = f"until [ -e {tmp_path}/go ]; do sleep 0.05; done" if end == "signal" else end
        programs = {"dpkg-query": "exit 1", "sudo": 'exec "$@"',
                    "apt-get": f'case "$*" in *chromium*) {policy}; echo $? >{tmp_path}/asked.new; mv {tmp_path}/asked.new {tmp_path}/asked; {waits};; '
                               f"install*) [ -e {policy} ] && touch {tmp_path}/early;; esac; exit 0"}
        for name, body in programs.items():
            (tmp_path / name).write_text(f"#!/bin/sh\n{body}\n")
            (tmp_path / name).chmod(0o755)
        setup = subprocess.Popen(["tools/setup", "--wide"], cwd=ROOT, env=dict(os.environ, PATH=f"{tmp_path}:{os.environ['PATH']}"),
                                 stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_until((tmp_path / "asked").exists, what="the installation of the wide list")
        if end == "signal":
            send_signal(setup.pid, signal.SIGTERM)
        (tmp_path / "go").touch()
        assert setup.wait(PATIENCE) == status
        assert (tmp_path / "asked").read_text() == ("0\n" if before else "101\n")
        assert (tmp_path / "early").exists() == (before is not None)
        if before:
            with open(policy, encoding="ascii") as file:
                assert file.read() == before
        else:
            assert os.listdir("/usr/sbin") == []
    finally:
        unmount("/usr/sbin")


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
    assert load("steps").count(str(counted)) == (2, 2, 2)


def names(groups):
    return [step.name for group in groups for step in group]


def test_each_level_has_all_steps_of_the_one_before(run_tests):
    levels = [names(run_tests.plan(level)) for level in run_tests.LEVELS]
    for build in ("build unit tests", "build unit tests of the core"):  # builds of their own there, beside other tests
        levels[0].remove(build)
    for less, more in zip(levels, levels[1:]):
        assert set(less) <= set(more)
    assert set(levels[0]) == set(levels[1]) != set(levels[2]) != set(levels[3])
    assert "fuzz zip_reader" in levels[2] and "lint" in levels[2] and "e2e clang" in levels[3]


def commands(run_tests, level):
    return {step.name: step.command for group in run_tests.plan(level) for step in group}


def test_no_end_to_end_test_is_left_out_by_the_widest_level(run_tests):
    assert "-m" not in commands(run_tests, "ci")["e2e release"][4:]
    for name, command in commands(run_tests, "full").items():
        assert not name.startswith("e2e") or "-m" not in command[4:], name


def test_a_quick_run_is_given_all_files_that_have_a_quick_test(run_tests):
    collected = subprocess.run([sys.executable, "-m", "pytest", "-q", "--collect-only", "-p", "no:cacheprovider", "-m", "quick", "tests/e2e"],
                               cwd=ROOT, capture_output=True, text=True, check=False).stdout
    have = set(re.findall(r"^(tests/e2e/\S+\.py)::", collected, re.M))
    assert have and have <= set(commands(run_tests, "quick")["e2e release"])


def test_each_scenario_has_a_quick_test():
    for folder in glob.glob(os.path.join(ROOT, "tests", "e2e", "*", "")):
        sources = [open(file, encoding="utf-8").read() for file in glob.glob(folder + "test_*.py")]
        assert not sources or any("pytest.mark.quick" in source for source in sources), folder


@pytest.mark.parametrize("name, step, word", [
    ("Utf8.WhatIsCutIsNoneAndNothingBehindItsEndIsRead", "unit release core",
     "--gtest_filter=Utf8.WhatIsCutIsNoneAndNothingBehindItsEndIsRead:"),
    ("test_help_lists_every_option_in_order_and_ends_with_failure_status", "e2e release",
     "tests/e2e/bad-input/test_bad_input.py::test_help_lists_every_option_in_order_and_ends_with_failure_status"),
    ("tests/e2e/disk-log", "e2e release", "tests/e2e/disk-log/test_disk_log.py"),
    ("test_disk_log.py", "e2e release", "tests/e2e/disk-log/test_disk_log.py"),
    ("TestColumns.test_no_rows_are_no_text", "Lua release source", "TestColumns.test_no_rows_are_no_text"),
])
def test_a_test_is_run_by_its_name_behind_the_build_that_it_needs(run_tests, name, step, word):
    steps = [step for group in run_tests.choose([name], "plain", pytest.fail) for step in group]
    assert [one.name for one in steps][0] == "build release"
    chosen = {one.name: one.command for one in steps}
    assert set(chosen) <= {"build release", step, "Lua release archives"}
    assert any(word in argument for argument in chosen[step])


def test_progress_is_read_from_what_a_step_writes():
    progress = load("steps").progress
    assert progress([b"[1/80] Building a\n[12/80] Building b\n"]) == "12/80"
    assert progress([b"....  [ 12%]\n....  [ 57%]\n.."]) == "57%"
    assert progress([b"[==========] Running 3 tests from 1 test suite.\n[       OK ] A.B (0 ms)\n",
                     b"[==========] Running 4 tests from 2 test suites.\n[  FAILED  ] A.C (1 ms)\n[  SKIPPED ] A.D (0 ms)\n"]) == "3/7"
    assert progress([b"anything"]) == ""


@pytest.mark.parametrize("terminal", [False, True])
def test_how_far_a_step_is_stands_on_a_terminal_only(monkeypatch, tmp_path, terminal):
    steps = load("steps")
    monkeypatch.setattr(steps, "OUT", str(tmp_path))
    monkeypatch.delenv("NO_COLOR", raising=False)
    monkeypatch.setenv("TERM", "xterm")
    master, slave = pty.openpty()
    shown = []

    def watch():
        while piece := os.read(master, 10000):
            shown.append(piece.decode())
            if "slow 3/9" in "".join(shown):
                (tmp_path / "seen").touch()
            if "slow ... " in "".join(shown):
                break
    with open(slave, "w") if terminal else open(tmp_path / "shown", "w+") as stream:
        watcher = threading.Thread(target=watch)
        if terminal:
            watcher.start()
        # It ends when it has been seen, or, where nobody is to see it, after more than the time of a look.
        waits = f"while [ ! -e '{tmp_path}/seen' ]; do sleep 0.1; done" if terminal else "sleep 1.2"
        slow = steps.Step("slow", ["sh", "-c", "echo '[3/9] Building'; " + waits], timeout=PATIENCE)
        bad = steps.Step("bad", ["sh", "-c", "echo why; exit 3"])
        outcomes = {outcome.step.name: outcome.failure for outcome in steps.run_together([slow, bad], steps.Screen(stream))}
        if terminal:
            watcher.join()
        else:
            stream.seek(0)
            shown.append(stream.read())
    if not terminal:
        os.close(slave)
    os.close(master)
    shown = "".join(shown)
    assert outcomes == {"slow": "", "bad": "3"}
    assert ("slow 3/9" in shown) == ("\r\033[K" in shown) == terminal
    if not terminal:
        assert [line.partition(",")[0] for line in shown.splitlines()] == ["bad ... FAILED (3)", "    why", "slow ... ok"]


@pytest.mark.parametrize("stops", [False, True])
def test_what_runs_behind_all_others_begins_with_the_first_and_holds_none_of_them_up(monkeypatch, tmp_path, stops):
    steps = load("steps")
    monkeypatch.setattr(steps, "OUT", str(tmp_path))
    wait = "while [ ! -e '{}' ]; do sleep 0.1; done"
    begun, last = tmp_path / "begun", tmp_path / "last"
    behind = steps.Step("behind", ["sh", "-c", f"nice > '{tmp_path}/nice'; touch '{begun}'; {wait.format(last)}"], timeout=PATIENCE, behind=True)
    first = steps.Step("first", ["sh", "-c", wait.format(begun)], timeout=PATIENCE)
    second = steps.Step("second", ["touch", str(last)])
    with open(tmp_path / "shown", "w", encoding="utf-8") as stream:
        done = [(outcome.step.name, outcome.failure)
                for outcome in steps.run_in_order([[behind, first], [second]], steps.Screen(stream), lambda: not stops)]
    assert done == ([("first", "")] if stops else [("first", ""), ("second", ""), ("behind", "")])
    assert (tmp_path / "nice").read_text() == "19\n"
    assert [process.poll() for process in behind.processes] == [-signal.SIGKILL if stops else 0]


def test_the_end_of_a_step_behind_the_others_is_that_of_all_that_it_started(monkeypatch, tmp_path):
    steps = load("steps")
    monkeypatch.setattr(steps, "OUT", str(tmp_path))
    begun, pipe = tmp_path / "begun", tmp_path / "pipe"
    os.mkfifo(pipe)
    reader = os.open(pipe, os.O_RDONLY | os.O_NONBLOCK)
    behind = steps.Step("behind", ["sh", "-c", f"exec 3> '{pipe}'; sh -c 'touch {begun}; sleep 600'; true"], timeout=PATIENCE, behind=True)
    first = steps.Step("first", ["sh", "-c", f"while [ ! -e '{begun}' ]; do sleep 0.1; done"], timeout=PATIENCE)
    with open(tmp_path / "shown", "w", encoding="utf-8") as stream:
        assert len(list(steps.run_in_order([[behind, first]], steps.Screen(stream), lambda: False))) == 1
    with os.fdopen(reader, "rb") as read_end:
        assert select.select([read_end], [], [], PATIENCE)[0], "something holds the pipe still"
        assert read_end.read() == b""


def test_a_step_that_was_ended_does_not_begin(monkeypatch, tmp_path):
    steps = load("steps")
    monkeypatch.setattr(steps, "OUT", str(tmp_path))
    step = steps.Step("late", ["touch", str(tmp_path / "begun")], behind=True)
    step.end()
    assert steps.execute(step).failure == "ended before it began"
    assert step.processes == [] and not (tmp_path / "begun").exists()


def test_the_linter_runs_behind_all_other_steps_of_the_wide_levels(run_tests):
    for level in run_tests.LEVELS:
        behind = [step.name for group in run_tests.plan(level) for step in group if step.behind]
        assert behind == (["lint"] if level in ("ci", "full") else [])


def test_no_fuzz_target_of_a_minute_has_a_processor_less_while_others_are_done(run_tests):
    steps = list(run_tests.fuzz(lambda parser: 60 if parser in ("zip_reader", "unzip") else 10))
    seconds = [int(re.search(r"-max_total_time=(\d+)", " ".join(step.command))[1]) for step in steps]
    assert seconds == sorted(seconds, reverse=True) and seconds[:3] == [60, 60, 10]


@pytest.mark.parametrize("status", [0, 1])
def test_a_sharded_step_deals_its_tests_out_and_is_bad_when_one_share_is(monkeypatch, tmp_path, status):
    steps = load("steps")
    monkeypatch.setattr(steps, "OUT", str(tmp_path))
    file = str(tmp_path / "result.xml")
    share = 'echo "$GTEST_SHARD_INDEX of $GTEST_TOTAL_SHARDS" > "$0"; test $GTEST_SHARD_INDEX != 1 || exit ' + str(status)
    step = steps.Step("units", ["sh", "-c", share, file], [file], shards=3)
    outcome = steps.execute(step)
    assert outcome.failure == (str(status) if status else "")
    assert [open(one).read() for one in step.junit] == ["0 of 3\n", "1 of 3\n", "2 of 3\n"]
    os.unlink(step.junit[2])
    step.command[2] = "true"
    assert steps.execute(step).failure == "it left no result file"


@pytest.mark.skipif(not shutil.which("clang"), reason="clang is not installed")
@pytest.mark.parametrize("name", ["a blank, and a: colon", "somebody's", 'called "so"'])
def test_the_sanitizers_understand_their_options_wherever_the_tree_lies(tmp_path, name):
    tools, support = tmp_path / name / "tools", tmp_path / name / "tests" / "support"
    tools.mkdir(parents=True)
    support.mkdir(parents=True)
    for file in ("run_tests.py", "steps.py"):
        shutil.copy(os.path.join(ROOT, "tools", file), tools)
    (support / "lsan.supp").write_text("leak:forget\n")
    run_tests = load("run_tests", tools / "run_tests.py")
    program = tmp_path / "forgetful.c"
    program.write_text("void *malloc(unsigned long); void *kept; __attribute__((noinline)) void forget(void) { kept = malloc(9); }\n"
                       "int main(void) { forget(); kept = 0; return 0; }\n")
    subprocess.run(["clang", "-g", "-fsanitize=address", str(program), "-o", str(tmp_path / "forgetful")], check=True)
    result = subprocess.run([str(tmp_path / "forgetful")], env=dict(os.environ, **run_tests.SANITIZER_OPTIONS),
                            stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=PATIENCE, check=False)
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
                            timeout=PATIENCE, check=False)
    assert (result.stdout, result.stderr) == ("LANG=C.UTF-8\n", "")
    step = load("steps").Step("any", ["true"], env={"VEX_FULL": "1"})
    assert step.env["VEX_FULL"] == "1" and step.env["PATH"] == os.environ["PATH"]
    assert {name: value for name, value in step.env.items() if name.startswith(("LANG", "LC_"))} == {"LANG": "C.UTF-8"}
