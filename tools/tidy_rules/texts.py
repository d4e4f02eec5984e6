"""What holds for every file: no open ends, no paths of one machine, plain line ends, scripts that run."""
import os
import re
import subprocess

from tidy_rules.tree import CPP, TEXT

# Open ends have no place in the tree; the words are put together here so that this file passes.
OPEN_ENDS = re.compile(r"\b(" + "|".join(["TO" + "DO", "FIX" + "ME", "XX" + "X", "HA" + "CK"]) + r")\b")
# Paths that exist on one developer's machine only.
MACHINE_PATH = re.compile(r"(?<![\w.$})>/\"'])/(?:home|Users|wo" + r"rk)/\w")


def check_open_ends(tree):
    for name in tree.named(*TEXT):
        for number in tree.matches(name, OPEN_ENDS):
            yield name, number, "an open end: do it, or leave it out"


def check_machine_paths(tree):
    for name in tree.named(*TEXT):
        for number in tree.matches(name, MACHINE_PATH):
            yield name, number, "a path of one machine"


def check_layout(tree):
    for name in tree.named(*CPP, ".py", ".lua", ".cmake"):
        lines = tree.lines(name)
        if lines and lines[-1] != "":
            yield name, len(lines), "no line end at the end of the file"
        for number, line in enumerate(lines, 1):
            if line.endswith((" ", "\t", "\r")):
                yield name, number, "blanks at the end of the line"
            if line.startswith("\t"):
                yield name, number, "indented with a tabulator"


def check_shell_scripts(tree):
    for name in tree.files:
        first = tree.lines(name)[:1]
        if not first or not re.match(r"#!.*\b(?:ba|k|da)?sh\b", first[0]):
            continue
        shell = "bash" if "bash" in first[0] else "sh"
        result = subprocess.run([shell, "-n", os.path.join(tree.root, name)], capture_output=True, text=True, check=False)
        if result.returncode != 0:
            yield name, 1, "the shell cannot read it: " + result.stderr.strip().replace(tree.root + "/", "")
        if not os.access(os.path.join(tree.root, name), os.X_OK):
            yield name, 1, "a script that cannot be run"


def check_executables(tree):
    for name in tree.files:
        if os.access(os.path.join(tree.root, name), os.X_OK) and not tree.text(name).startswith("#!"):
            yield name, 1, "it can be run and is no script"


CHECKS = (check_open_ends, check_machine_paths, check_layout, check_shell_scripts, check_executables)
