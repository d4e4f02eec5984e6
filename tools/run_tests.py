#!/usr/bin/env python3
"""Builds what the tests need and runs all of them; ./test is the way to call it.

A step is a command with a name. Its output goes to build/test/<name>.log and is shown when it fails. Steps that count
tests leave a JUnit file; the last line adds up what those files say.
"""
import argparse
import concurrent.futures
import glob
import os
import platform
import subprocess
import sys
import time
import xml.etree.ElementTree

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
OUT = os.path.join(ROOT, "build", "test")
PYTHON = "/usr/bin/python3" if os.path.exists("/usr/bin/python3") else sys.executable
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
UNIT_BINARIES = ("unit_slb3", "unit_core", "unit_launcher")
# What the steps of a build need that does not also serve benchmarks, fuzzing and the check of the headers.
RUN_TARGETS = ("stage", "packages", *(f"tests/{name}" for name in UNIT_BINARIES), "tests/fake_agent", "tests/restarts",
               "tests/stopat", "tests/faultat", "luacrash", "plantedrace")


class Step:
    """One command; `junit` are the result files that it must leave behind."""

    def __init__(self, name, command, junit=(), env=None, timeout=1500):
        self.name, self.command, self.junit, self.timeout = name, command, tuple(junit), timeout
        # Texts of the system are compared, so they are in one language whoever starts the run.
        kept = {key: value for key, value in os.environ.items() if not key.startswith("LC_") and key != "LANGUAGE"}
        self.env = {**kept, "LANG": "C.UTF-8", **(env or {})}


def result_file(name):
    return os.path.join(OUT, name + ".xml")


def build(preset, *targets):
    return Step(f"build {preset}", ["tools/build", preset, "--quiet", *targets])


def unit(preset, environment):
    for binary in UNIT_BINARIES:
        name = f"unit {preset} {binary[5:]}"
        file = result_file(name.replace(" ", "-"))
        yield Step(name, ["tools/sandbox", f"build/{preset}/tests/{binary}", "--gtest_brief=1",
                          f"--gtest_output=xml:{file}"], [file], environment)


def end_to_end(name, stage, build_dir, environment, *selection):
    file = result_file("e2e-" + name)
    env = dict(environment, VEX_STAGE=os.path.join(ROOT, stage), VEX_BUILD=os.path.join(ROOT, build_dir))
    # One more than there are processors: much of a test of a daemon is waiting. By groups of one, tests are handed out singly,
    # so that no worker is left with several sweeps of minutes each.
    workers = (os.cpu_count() or 1) + 1
    return Step(f"e2e {name}", ["tools/sandbox", PYTHON, "-m", "pytest", "-q", "-n", str(workers), "--dist", "loadgroup",
                                "-p", "no:cacheprovider",
                                f"--junitxml={file}", *selection, "tests/e2e"], [file], env, 7200)


def lua(preset, stage, environment):
    """The Lua tests in the launcher's unit-test mode, once with the sources and once with the packed archives."""
    packages = os.path.join(ROOT, "build", preset, "packages")
    network = f"Agent-Network-{platform.system()}-10.0.0-4015.{platform.machine()}.vxp"
    sources = ("lua/?.lua", "lua/?/init.lua", "lua/plugins/?.lua", "tests/lua/?.lua")
    origins = {
        "source": ["--lua_path", ";".join(os.path.join(ROOT, template) for template in sources)],
        "archives": ["--lua_path", os.path.join(ROOT, "tests/lua/?.lua"), "--extdir", os.path.join(packages, "ext"),
                     "--zippath", os.path.join(packages, network)],
    }
    for origin, arguments in origins.items():
        file = result_file(f"lua-{preset}-{origin}")
        yield Step(f"Lua {preset} {origin}", [os.path.join(ROOT, stage, "vx_agent"), "--workdir", os.path.join(OUT, "lua-work"),
                                              *arguments, "--unittest", "tests/lua/**/*_test.lua", "--", "--output", "junit",
                                              "--name", file], [file], environment)


def fuzz(seconds):
    """Each target from its seeds for some seconds; new inputs go to the build tree, never into the corpus."""
    for target in sorted(glob.glob(os.path.join(ROOT, "tests/fuzz/*_fuzz.cpp"))):
        parser = os.path.basename(target)[:-len("_fuzz.cpp")]
        found = os.path.join(OUT, "fuzz-" + parser)
        os.makedirs(found, exist_ok=True)
        yield Step(f"fuzz {parser}", [f"build/asan/tests/fuzz/fuzz_{parser}", f"-max_total_time={seconds(parser)}",
                                      "-rss_limit_mb=4096", "-print_final_stats=1", "-verbosity=0",
                                      f"-artifact_prefix={found}/", found, f"tests/fuzz/corpus/{parser}"],
                   env=SANITIZER_OPTIONS)


def steps(full):
    """All steps in their order; a list holds steps that may run at the same time."""
    full_env = {"VEX_FULL": "1"} if full else {}
    address = dict(SANITIZER_OPTIONS, **full_env, VEX_SANITIZED="address")
    thread = dict(SANITIZER_OPTIONS, **full_env, VEX_SANITIZED="thread")
    yield Step("house rules", [PYTHON, "tools/tidy"])
    yield build("release")
    yield Step("exported symbols", [PYTHON, "tools/tidy", "--exports", "build/stage/lib"])
    yield from unit("release", full_env)
    yield from lua("release", "build/stage", full_env)
    yield end_to_end("release", "build/stage", "build/release", full_env)
    yield build("asan")
    yield from unit("asan", address)
    yield from lua("asan", "build/asan/stage", address)
    yield end_to_end("asan", "build/asan/stage", "build/asan", address, *([] if full else ["-m", "fast"]))
    yield list(fuzz(lambda parser: 60 if parser in ("zip_reader", "unzip") else 10))
    yield build("tsan", *RUN_TARGETS)
    yield from unit("tsan", thread)
    yield from lua("tsan", "build/tsan/stage", thread)
    yield end_to_end("tsan", "build/tsan/stage", "build/tsan", thread, *([] if full else ["-m", "fast"]))
    if full:
        for preset in ("debug", "clang"):
            yield build(preset)
            yield from unit(preset, full_env)
            yield end_to_end(preset, f"build/{preset}/stage", f"build/{preset}", full_env)


def log_file(step):
    return os.path.join(OUT, step.name.replace(" ", "-") + ".log")


def execute(step):
    """Runs one step; returns its exit code, or a text when it has none, and the seconds that it took."""
    for file in step.junit:
        if os.path.exists(file):
            os.unlink(file)
    begin = time.monotonic()
    with open(log_file(step), "wb") as output:
        try:
            code = subprocess.run(step.command, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                                  env=step.env, cwd=ROOT, timeout=step.timeout, check=False).returncode
        except subprocess.TimeoutExpired:
            code = "no end within %d s" % step.timeout
        except OSError as error:
            code = str(error)
    return code, time.monotonic() - begin


def report(step, code, seconds, colour):
    good = code == 0 and all(os.path.exists(file) for file in step.junit)
    word = "ok" if good else f"FAILED ({code})"
    print((f"\033[{32 if good else 31}m{word}\033[0m" if colour else word) + f", {seconds:.0f} s", flush=True)
    if not good:
        with open(log_file(step), "rb") as output:
            tail = output.read()[-6000:].decode("utf-8", "replace")
        print("\n".join("    " + line for line in tail.splitlines()[-60:]), flush=True)
    return good


def run(together, colour):
    """Runs the steps, two at a time when they are several; yields each with whether it was good."""
    if len(together) == 1:
        print(f"{together[0].name} ...", end=" ", flush=True)
        yield together[0], report(together[0], *execute(together[0]), colour)
        return
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        for step, result in zip(together, pool.map(execute, together)):
            print(f"{step.name} ...", end=" ", flush=True)
            yield step, report(step, *result, colour)


def count(file):
    passed = failed = skipped = 0
    for case in xml.etree.ElementTree.parse(file).getroot().iter("testcase"):
        if case.find("failure") is not None or case.find("error") is not None:
            failed += 1
        elif case.find("skipped") is not None or case.get("status") == "notrun":
            skipped += 1
        else:
            passed += 1
    return passed, failed, skipped


def main():
    parser = argparse.ArgumentParser(prog="./test", description="Builds and runs every test.")
    parser.add_argument("--full", action="store_true", help="every point of every sweep, in every build")
    parser.add_argument("--stop", action="store_true", help="stop at the first step that fails")
    parser.add_argument("--only", metavar="TEXT", action="append", help="only the steps whose name contains TEXT")
    arguments = parser.parse_args()
    names = [step.name for item in steps(arguments.full) for step in (item if isinstance(item, list) else [item])]
    for text in arguments.only or ():
        if not any(text in name for name in names):
            parser.error(f"no step's name contains '{text}'; the steps are: " + ", ".join(names))
    if subprocess.run(["tools/setup"], cwd=ROOT, check=False).returncode != 0:
        return 1

    os.makedirs(OUT, exist_ok=True)
    colour = sys.stdout.isatty()
    begin = time.monotonic()
    totals = {"passed": 0, "failed": 0, "skipped": 0}
    stopped = False
    for item in steps(arguments.full):
        together = [step for step in (item if isinstance(item, list) else [item])
                    if not arguments.only or any(text in step.name for text in arguments.only)]
        if not together or stopped:
            continue
        for step, good in run(together, colour):
            before = totals["failed"]
            for file in step.junit:
                if os.path.exists(file):
                    for key, number in zip(totals, count(file)):
                        totals[key] += number
            if not step.junit and good:
                totals["passed"] += 1
            if not good and totals["failed"] == before:
                totals["failed"] += 1  # the step itself, when no test of it says so
            stopped = stopped or (arguments.stop and not good)
    minutes, seconds = divmod(int(time.monotonic() - begin), 60)
    print(f"took {minutes} min {seconds} s")
    print(f"{totals['passed']} passed, {totals['failed']} failed, {totals['skipped']} skipped")
    return 1 if totals["failed"] or not totals["passed"] else 0


if __name__ == "__main__":
    sys.exit(main())
