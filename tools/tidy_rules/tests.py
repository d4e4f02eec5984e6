"""Test files have tests, fuzz targets have seeds, modules of Python have names of their own, and Lua code passes luacheck."""
import os
import re
import shutil
import subprocess
import sys

from tidy_rules.rooms import ARROWS

# Where tests/CMakeLists.txt looks for unit tests.
UNIT_FOLDERS = ("contract", "slb3", "vex", "vexctl", *(f"vex_core/{room}" for room in ARROWS))
LUA_FOLDERS = ("lua", "tests/lua", "docs/examples")


def check_lua(tree):
    folders = [folder for folder in LUA_FOLDERS if any(name.startswith(folder + "/") for name in tree.named(".lua"))]
    if not folders:
        return
    if not shutil.which("luacheck"):
        print("tidy: luacheck is not installed, Lua code was not checked", file=sys.stderr)
        return
    result = subprocess.run(["luacheck", "--quiet", "--no-color", "--formatter", "plain", *folders], cwd=tree.root,
                            capture_output=True, text=True, check=False)
    for line in (result.stdout + result.stderr).splitlines():
        found = re.match(r"([^:]+):(\d+):\d+: (.*)", line)
        if found:
            yield found.group(1), int(found.group(2)), found.group(3)
        elif result.returncode > 2:
            yield "lua", 1, line


def check_tests(tree):
    kinds = (
        ("tests/unit/", re.compile(r".*_test\.cpp$"), re.compile(r"^\s*(?:TEST|TEST_F|TEST_P|TYPED_TEST|TYPED_TEST_P)\(", re.M)),
        ("tests/e2e/", re.compile(r".*/test_[^/]*\.py$"), re.compile(r"^\s*(?:async )?def test_", re.M)),
        ("tests/lua/", re.compile(r".*/(?:test_[^/]*|[^/]*_test)\.lua$"), re.compile(r"function\s+[\w.:]*[tT]est|[tT]est\w*\s*=\s*function")),
        ("tests/fuzz/", re.compile(r".*_fuzz\.cpp$"), re.compile(r"LLVMFuzzerTestOneInput")),
    )
    for folder, names, wanted in kinds:
        for name in tree.files:
            if name.startswith(folder) and names.match(name) and not wanted.search(tree.text(name)):
                yield name, 1, "a test file without a test"
    for name in tree.named(".cpp", below="tests/unit/"):
        if not name.endswith("_test.cpp"):
            yield name, 1, "not built: unit test files end in _test.cpp"
        elif os.path.dirname(name)[len("tests/unit/"):] not in UNIT_FOLDERS:
            yield name, 1, "not built: unit tests are in a folder that UNIT_FOLDERS in tools/tidy_rules/tests.py names"
    for name in tree.named(".cpp", below="tests/fuzz/"):
        if name.endswith("_fuzz.cpp"):
            corpus = "tests/fuzz/corpus/" + os.path.basename(name)[:-len("_fuzz.cpp")] + "/"
            if not any(file.startswith(corpus) for file in tree.files):
                yield name, 1, f"no seeds in {corpus}"


def check_module_names(tree):
    """One process collects all end-to-end tests, and the first module of a name is what everybody gets who imports it."""
    known = {}
    for folder in ("tests/", "bench/"):
        for name in tree.named(".py", below=folder):
            module = os.path.basename(name)
            if module != "conftest.py" and known.setdefault(module, name) != name:
                yield name, 1, f"a module of the name of {known[module]}: who imports the one may get the other"


CHECKS = (check_lua, check_tests, check_module_names)
