"""What the commands of the tree say to somebody who calls them wrongly: in one look, and before anything is built."""
import os
import pty
import subprocess

import pytest

from conftest import ROOT


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


def test_the_tests_colour_their_words_on_a_terminal_only():
    command = ["./test", "--only", "house rules"]
    assert b"\x1b[" not in call(*command, stdout=subprocess.PIPE).stdout
    master, slave = pty.openpty()
    call(*command, stdout=slave)
    os.close(slave)
    assert b"\x1b[32mok\x1b[0m" in os.read(master, 10000)
    os.close(master)
