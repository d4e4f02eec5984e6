"""vexctl completion: what shells make of it."""
import subprocess

import pytest

from ctl import ctl

ASK_BASH = r"""
source "$1"; shift
COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMPREPLY=()
compopt() { echo FILES; }
_vexctl
printf '%s\n' "${COMPREPLY[@]}"
"""
ASK_ZSH = r"""
compdef() { :; }
compadd() { shift; printf '%s\n' "$@"; }
_files() { echo FILES; }
_describe() { printf '%s\n' "${(@P)2%%:*}" }
script=$1; shift
source "$script"
words=("$@"); CURRENT=$#
_vexctl
"""


@pytest.mark.parametrize("shell, program", [("bash", ASK_BASH), ("zsh", ASK_ZSH)])
def test_shells_complete_commands_options_and_choices(tree, tmp_path, shell, program):
    script = tmp_path / f"vexctl.{shell}"
    script.write_text(ctl(tree, "completion", shell).out)
    subprocess.run([shell, "-n", script], check=True)

    def ask(*words):
        clean = ["--norc", "--noprofile"] if shell == "bash" else ["-f"]
        result = subprocess.run([shell, *clean, "-c", program, shell, script, "vexctl", *words], capture_output=True, text=True, check=False)
        assert (result.returncode, result.stderr) == (0, ""), result.stderr
        start_of = words[-1]
        return {word for word in result.stdout.split() if word.startswith(start_of) or word == "FILES"}

    commands = {line.split()[0] for line in ctl(tree, "--help").out.splitlines()
                if line.startswith("  ") and not line.startswith(("   ", "  -"))}
    assert {"status", "plugins", "rollback", "completion"} <= commands
    assert ask("") == commands and ask("pl") == {"plugins"}
    assert ask("--workdir", "/x", "roll") == {"rollback"}
    assert {"--name", "--workdir", "--help"} <= ask("--")
    for command in commands:
        options = {word.split(",")[-1] for line in ctl(tree, command, "--help").out.splitlines() if line.startswith("  -")
                   for word in [line.split()[0]]}
        assert options <= ask(command, "--") | ask(command, "-"), command
    assert ask("wait", "") == {"running", "stopped", "heartbeat"}
    assert ask("wait", "--timeout", "5s", "s") == {"stopped"}
    assert ask("pack", "p") == {"plugin"} and ask("pack", "plugin", "") == {"FILES"}
    assert ask("check", "") == ask("install", "") == ask("log", "--since", "") == {"FILES"}
    assert ask("plugins", "") == set()
