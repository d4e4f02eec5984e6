#!/usr/bin/env python3
"""Builds what the tests need and runs them; ./test is the way to call it.

What runs is a list of groups; the steps of a group run at the same time. Four levels, each with all of the one before:
--quick, plain, --ci and --full. docs/TESTING.md tells what belongs to which and where the time goes.
"""
import argparse
import glob
import os
import platform
import re
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from interrupted import say_in_one_line  # noqa: E402 pylint: disable=wrong-import-position
from steps import OUT, ROOT, Screen, Step, count, run_in_order  # noqa: E402 pylint: disable=wrong-import-position

PYTHON = "/usr/bin/python3" if os.path.exists("/usr/bin/python3") else sys.executable
PROCESSORS = os.cpu_count() or 1
LEAKS_OF_OTHERS = os.path.join(ROOT, "tests", "support", "lsan.supp")
# Options end at a blank or colon, a quoted value at its quote, which nothing protects.
QUOTE = '"' if "'" in LEAKS_OF_OTHERS else "'"
SANITIZER_OPTIONS = {
    "ASAN_OPTIONS": "detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1:abort_on_error=0",
    "LSAN_OPTIONS": f"suppressions={QUOTE}{LEAKS_OF_OTHERS}{QUOTE}:print_suppressions=0",
    "UBSAN_OPTIONS": "print_stacktrace=1:halt_on_error=1",
    # wx, Lua and SQLite are not instrumented: what they do with memory is not judged, what they do with locks counts. wx makes
    # its own locks behind a flag, for instance, that the sanitizer does not see.
    "TSAN_OPTIONS": "ignore_noninstrumented_modules=1:halt_on_error=0:second_deadlock_stack=1",
}
LEVELS = ("quick", "plain", "ci", "full")
# Where the tests of each binary lie, and into how many processes its tests are dealt out: much of a test is waiting.
UNIT_TESTS = {"unit_slb3": (("slb3",), 1), "unit_core": (("vex_core", "contract"), 2 * PROCESSORS),
              "unit_launcher": (("vex", "contract"), PROCESSORS), "unit_vexctl": (("vexctl",), 1)}
# What tests of a build need that does not also serve benchmarks, fuzzing and the check of the headers.
RUN_TARGETS = ("stage", "packages", "test_programs")


def result_file(name):
    return os.path.join(OUT, name + ".xml")


def build(preset, *targets, name=None):
    return Step(name or f"build {preset}", ["tools/build", preset, *targets])


def units(preset, environment, names):
    """`names` are those of tests, "Suite.Name"; none means all."""
    for binary, (folders, shards) in UNIT_TESTS.items():
        wanted = [name for name in names if has_unit_test(folders, name)]
        if names and not wanted:
            continue
        name = f"unit {preset} {binary[5:]}"
        file = result_file(name.replace(" ", "-"))
        selection = ["--gtest_filter=" + ":".join(f"{one}:*/{one}:{one}/*:*/{one}/*" for one in wanted)] if wanted else []
        yield Step(name, ["tools/sandbox", f"build/{preset}/tests/{binary}", f"--gtest_output=xml:{file}", *selection], [file],
                   environment, shards=1 if wanted else shards)


def end_to_end(name, stage, build_dir, environment, *selection, workers=PROCESSORS + 2):
    file = result_file("e2e-" + name)
    # A test that hangs is ended where it stands, and says where, long before the run it is part of is given up as a whole.
    test_limit, limit = (3600, 7200) if environment.get("VEX_FULL") else (600, 2400)
    env = dict(environment, VEX_STAGE=os.path.join(ROOT, stage), VEX_BUILD=os.path.join(ROOT, build_dir))
    # More workers than there are processors: much of a test of a daemon is waiting. By groups of one, tests are handed out
    # singly, so that no worker is left with several sweeps of minutes each.
    places = [word for word in selection if word.startswith("tests/")] or ["tests/e2e"]
    options = [word for word in selection if not word.startswith("tests/")]
    return Step(f"e2e {name}", ["tools/sandbox", PYTHON, "-m", "pytest", "-q", "-n", str(workers), "--dist", "loadgroup",
                                f"--timeout={test_limit}", "-p", "no:cacheprovider", f"--junitxml={file}", *options, *places],
                [file], env, limit)


def version():
    """The agent's version as package names have it."""
    *numbers, build_number = re.findall(r"^#define VEX_VERSION_[A-Z]+ ([0-9]+)$", text(os.path.join(ROOT, "src/vex/apps/vex/version.h")), re.M)
    return ".".join(numbers) + "-" + build_number


def lua(preset, stage, environment, names):
    """The Lua tests in the launcher's unit-test mode, once with the sources and once with the packed archives."""
    packages = os.path.join(ROOT, "build", preset, "packages")
    network = f"Agent-Network-{platform.system()}-{version()}.{platform.machine()}.vxp"
    sources = ("lua/?.lua", "lua/?/init.lua", "lua/plugins/?.lua", "tests/lua/?.lua")
    origins = {
        "source": ["--lua_path", ";".join(os.path.join(ROOT, template) for template in sources)],
        "archives": ["--lua_path", os.path.join(ROOT, "tests/lua/?.lua"), "--extdir", os.path.join(packages, "ext"),
                     "--zippath", os.path.join(packages, network)],
    }
    for origin, arguments in origins.items():
        file = result_file(f"lua-{preset}-{origin}")
        yield Step(f"Lua {preset} {origin}", [os.path.join(ROOT, stage, "vx_agent"), "--workdir",
                                              os.path.join(OUT, f"lua-work-{preset}-{origin}"), *arguments, "--unittest",
                                              "tests/lua/**/*_test.lua", "--", "--output", "junit", "--name", file, *names],
                   [file], environment)


def fuzz(seconds):
    """Each target from its seeds for some seconds, those of many first, so that none has a processor for itself for long; new inputs go to
    the build tree, never into the corpus."""
    parsers = (os.path.basename(target)[:-len("_fuzz.cpp")] for target in glob.glob(os.path.join(ROOT, "tests/fuzz/*_fuzz.cpp")))
    for parser in sorted(parsers, key=lambda parser: (-seconds(parser), parser)):
        found = os.path.join(OUT, "fuzz-" + parser)
        os.makedirs(found, exist_ok=True)
        yield Step(f"fuzz {parser}", [f"build/asan/tests/fuzz/fuzz_{parser}", f"-max_total_time={seconds(parser)}",
                                      "-rss_limit_mb=4096", "-print_final_stats=1", "-verbosity=0",
                                      f"-artifact_prefix={found}/", found, f"tests/fuzz/corpus/{parser}"],
                   env=SANITIZER_OPTIONS)


def pairs(steps):
    """As many at a time as there are processors."""
    steps = list(steps)
    return [steps[index:index + PROCESSORS] for index in range(0, len(steps), PROCESSORS)]


def quick_places():
    """The files with quick tests: each worker reads all that it is given, and half of the files have none."""
    files = sorted(glob.glob(os.path.join(ROOT, "tests/e2e/*/test_*.py")))
    return [os.path.relpath(file, ROOT) for file in files if "mark.quick" in text(file)]


class Chosen:
    """The tests of a run by name; all of them where nothing was named."""

    def __init__(self, unit=(), lua_tests=(), places=()):
        self.unit, self.lua, self.places = list(unit), list(lua_tests), list(places)
        self.some = bool(self.unit or self.lua or self.places)


def tests_of(preset, stage, environment, chosen, *selection):
    """Unit and Lua tests of a build, which hardly wait for anything, and then the end-to-end tests."""
    first = [*(units(preset, environment, chosen.unit) if chosen.unit or not chosen.some else ()),
             *(lua(preset, stage, environment, chosen.lua) if chosen.lua or not chosen.some else ())]
    if chosen.some:
        selection = chosen.places
    second = [end_to_end(preset, stage, f"build/{preset}", environment, *selection)] if chosen.places or not chosen.some else []
    return [group for group in (first, second) if group]


def plan(level, chosen=Chosen()):
    """The groups of steps of a level, in their order."""
    full_env = {"VEX_FULL": "1"} if level == "full" else {}
    fast = [] if level == "full" else ["-m", "fast"]
    address = dict(SANITIZER_OPTIONS, **full_env, VEX_SANITIZED="address")
    thread = dict(SANITIZER_OPTIONS, **full_env, VEX_SANITIZED="thread")
    wide = level in ("ci", "full")
    rules = [Step("house rules", [PYTHON, "tools/tidy"]),
             Step("exported symbols", [PYTHON, "tools/tidy", "--exports", "build/stage/lib"])]
    if level == "quick" and not chosen.some:
        # What a test does is waiting, for the most part: other tests are compiled meanwhile. Each worker reads all tests first, and
        # nobody waits for the end-to-end tests here.
        *others, core = sorted(units("release", {}, ()), key=lambda step: step.name == "unit release core")
        return [[rules[0], build("release", "stage", "packages", "end_to_end_programs")],
                [end_to_end("release", "build/stage", "build/release", {}, "-m", "quick", *quick_places(), workers=PROCESSORS),
                 *lua("release", "build/stage", {}, ()),
                 build("release", *(binary for binary in UNIT_TESTS if binary != "unit_core"), name="build unit tests")],
                [*others, build("release", "unit_core", name="build unit tests of the core")],
                [rules[1], core]]
    groups = [[*([] if chosen.some else rules[:1]), build("release", *(() if wide and not chosen.some else RUN_TARGETS))]]
    groups += [] if chosen.some else [[rules[1]]]
    release = {"quick": ["-m", "quick"], "plain": ["-m", "not patient"]}.get(level, [])
    groups += tests_of("release", "build/stage", full_env, chosen, *release)
    if wide:
        groups += [[build("asan")], *tests_of("asan", "build/asan/stage", address, chosen, *fast)]
        groups += [] if chosen.some else pairs(fuzz(lambda parser: 60 if parser in ("zip_reader", "unzip") else 10))
        groups += [[build("tsan", *RUN_TARGETS)], *tests_of("tsan", "build/tsan/stage", thread, chosen, *fast)]
        # End-to-end tests wait more than they compute, and builds link with one processor: the linter needs nothing that is built.
        groups += [] if chosen.some else [[Step("lint", ["tools/lint"], timeout=3 * 3600, behind=True)]]
    if level == "full":
        for preset in ("debug", "clang"):
            groups += [[build(preset)], *tests_of(preset, f"build/{preset}/stage", full_env, chosen)]
    return groups


# --- tests by name

def has_unit_test(folders, name):
    suite, _, test = name.partition(".")
    wanted = re.compile(rf"TEST(?:_F|_P)?\(\s*{re.escape(suite)},\s*{re.escape(test)}\b")
    return any(wanted.search(text(file)) for folder in folders
               for file in glob.glob(os.path.join(ROOT, "tests/unit", folder, "**", "*.cpp"), recursive=True))


def text(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def find_tests(name):
    """The tests of that name: "Suite.Name" of a unit test, a function, file or folder of end-to-end tests, and "Class.test"
    or the name of a class of Lua tests."""
    unit = [name] if re.fullmatch(r"\w+\.\w+", name) and any(has_unit_test(folders, name) for folders, _ in UNIT_TESTS.values()) else []
    places, lua_tests = [], []
    for file in sorted(glob.glob(os.path.join(ROOT, "tests/e2e/*/test_*.py"))):
        place = os.path.relpath(file, ROOT)
        if re.search(rf"^def {re.escape(name)}\(", text(file), re.M):
            places.append(f"{place}::{name}")
        elif name in (place, os.path.basename(file)) or name.rstrip("/") == os.path.dirname(place):
            places.append(place)
    group, _, test = name.partition(".")
    wanted = re.compile(rf"\b{re.escape(group)}[:.]{re.escape(test)}\(" if test else rf"\bfunction \w+\.{re.escape(group)}[:.]test")
    if any(wanted.search(text(file)) for file in glob.glob(os.path.join(ROOT, "tests/lua/**/*_test.lua"), recursive=True)):
        lua_tests.append(name)
    return Chosen(unit, lua_tests, places)


def choose(names, level, refuse):
    """The plan for `--only`: steps whose name contains a text, else the tests of that name with the builds they need."""
    if not names:
        return plan(level)
    whole = plan(level)
    known = [step.name for group in whole for step in group]
    chosen = Chosen()
    for name in names:
        if any(name in step for step in known):
            continue
        found = find_tests(name)
        if not found.some:
            refuse(f"no step's name contains '{name}', and no test has that name; the steps are: " + ", ".join(known))
        chosen = Chosen(chosen.unit + found.unit, chosen.lua + found.lua, chosen.places + found.places)
    groups = plan(level, chosen) if chosen.some else []
    return groups + [[step for step in group if any(name in step.name for name in names)] for group in whole]


def main():
    parser = argparse.ArgumentParser(prog="./test", description="Builds what is needed and runs the tests of a level.")
    level = parser.add_mutually_exclusive_group()
    level.add_argument("--quick", action="store_const", dest="level", const="quick",
                       help="the release build: unit and Lua tests, and one end-to-end test of each scenario")
    level.add_argument("--ci", action="store_const", dest="level", const="ci",
                       help="all tests, the sanitizers, fuzzing and the linter: what continuous integration runs")
    level.add_argument("--full", action="store_const", dest="level", const="full", help="every point of every sweep, in every build")
    parser.add_argument("--stop", action="store_true", help="stop at the first step that fails; the linter, which runs behind the others, tells last")
    parser.add_argument("--only", metavar="TEXT", action="append",
                        help="only the steps whose name contains TEXT, or the tests of that name; may be repeated")
    parser.set_defaults(level="plain")
    arguments = parser.parse_args()
    groups = choose(arguments.only, arguments.level, parser.error)
    wide = ["--wide"] if arguments.level in ("ci", "full") else []
    if subprocess.run(["tools/setup", *wide], cwd=ROOT, check=False).returncode != 0:
        return 1

    os.makedirs(OUT, exist_ok=True)
    screen = Screen()
    begin = time.monotonic()
    totals = {"passed": 0, "failed": 0, "skipped": 0}
    for outcome in run_in_order(groups, screen, lambda: not (arguments.stop and totals["failed"])):
        before = totals["failed"]
        for file in outcome.step.junit:
            if os.path.exists(file):
                for key, number in zip(totals, count(file)):
                    totals[key] += number
        if not outcome.step.junit and not outcome.failure:
            totals["passed"] += 1
        if outcome.failure and totals["failed"] == before:
            totals["failed"] += 1  # the step itself, when no test of it says so
    minutes, seconds = divmod(int(time.monotonic() - begin), 60)
    screen.line(f"took {minutes} min {seconds} s")
    screen.line(f"{totals['passed']} passed, {totals['failed']} failed, {totals['skipped']} skipped")
    return 1 if totals["failed"] or not totals["passed"] else 0


if __name__ == "__main__":
    say_in_one_line("test", "; what ended is in build/test")
    sys.exit(main())
